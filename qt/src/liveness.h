#pragma once

#include <QDateTime>

#include <string>
#include <sys/types.h>

// Whether the process that left a swap file or a workspace still runs. Owners are told apart
// by process id, by the base name of their program and by their start: a process of that id
// which started after the file's last write only reused the id.
namespace zo::project::detail {

// The base name of this application's program; fatal without a QCoreApplication and its
// command line.
std::string programName();
// Empty without an application object: any running process then counts as the owner, so
// that nothing is taken from a process that may still use it.
std::string programNameIfKnown();

// An empty programName accepts any program; an invalid lastWrite skips the test of the start.
bool isProcessRunning(pid_t pid, const std::string& programName, const QDateTime& lastWrite);

} // namespace zo::project::detail
