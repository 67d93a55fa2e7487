#pragma once

#include <zo/zo_export.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <sys/types.h>

namespace zo::os {

ZO_EXPORT int getpid();

// Opens a C stream on a UTF-8 path; null on failure, with errno set by the C library.
ZO_EXPORT FILE* fopen(const char* path, const char* mode);

// The durability steps of an atomic replacement; each returns false with errno set. A test can
// make any of them fail on purpose through zo/fault.h.
//
// Flushes the data of a file, named by a UTF-8 path or open, to the disk (fsync).
ZO_EXPORT bool syncFile(const char* path);
ZO_EXPORT bool syncFile(int descriptor);
// Flushes a directory, so that the renames and removals in it survive a crash.
ZO_EXPORT bool syncDirectory(const char* path);
// Renames from to to, replacing what to names (a link there is replaced, never followed).
ZO_EXPORT bool rename(const char* from, const char* to);
// Swaps what the two paths name in one step, so that a directory replaces another one
// atomically; fails where the file system cannot (then nothing changed). A fault set for
// Rename applies to it too.
ZO_EXPORT bool exchange(const char* first, const char* second);

// Renames from to to only while nothing is named to (RENAME_NOREPLACE; where the file system
// cannot, a plain rename once to was found free). A fault set for Rename applies to it too.
ZO_EXPORT bool renameToFreeName(const char* from, const char* to);

// Where copyFile's destination can be seen while the copy is written.
enum class CopyTarget {
    // By anyone: the content goes to an unnamed (or hidden) file in to's directory that takes
    // the name only once it is complete.
    Visible,
    // By no one yet, because to's directory is being built under a hidden name: the content is
    // written under to directly, which costs a journalled file system less.
    Unseen
};

// Copies the regular file from to the new name to, which must not exist, so that no partial
// file is ever seen under to; what a failed copy wrote is removed. Blocks are shared where the
// file system can (a reflink), else copied inside the kernel. Nothing is synced: a caller that
// copies many files syncs once at the end (syncFileSystem). False with errno set on failure.
ZO_EXPORT bool copyFile(const char* from, const char* to, CopyTarget target = CopyTarget::Visible);
// Flushes everything written to the file system that holds path (syncfs).
ZO_EXPORT bool syncFileSystem(const char* path);

// A process as the system shows it.
struct Process {
    // The first NUL- or blank-delimited word of its command line: the program as it was
    // started, with or without a directory. Empty for a process without a command line (a
    // zombie, a kernel thread).
    std::string program;
    // When it started, by the system clock, to the kernel's clock tick.
    std::chrono::system_clock::time_point started;
};

// The process with this id; none when there is none.
ZO_EXPORT std::optional<Process> findProcess(pid_t pid);

// Runs body in a forked child process and kills that child with SIGKILL as soon as body has
// returned in it, as a crash at that moment would. Returns the child's id once it is gone; -1
// when it could not be started or did not finish body, with errno set where the system said why.
ZO_EXPORT pid_t runAndKill(const std::function<void()>& body);

// Whether the descriptor is a terminal, where progress may be drawn.
ZO_EXPORT bool isTerminal(int descriptor);

// Turns the given signals (SIGINT, SIGTERM, ...) into bytes on a pipe, for an event loop to
// watch: each delivery writes the signal's number as one byte. Returns the pipe's read end,
// the same one on every call; -1 on failure, with errno set. The handlers stay for the life
// of the process.
ZO_EXPORT int signalPipe(std::initializer_list<int> signalNumbers);

} // namespace zo::os
