#include "liveness.h"

#include "paths.h"

#include <zo/process.h>

#include <QCoreApplication>
#include <QFileInfo>

#include <chrono>
#include <optional>

namespace zo::project::detail {
namespace {

// A process that started up to this long after the last write may still be the one that made
// it: clock ticks and coarse file times blur both by some milliseconds.
constexpr std::chrono::milliseconds kStartTolerance(500);

} // namespace

std::string programName()
{
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.isEmpty())
        qFatal("Crash recovery needs a QCoreApplication with its command line");
    return QFileInfo(arguments.first()).baseName().toStdString();
}

std::string programNameIfKnown()
{
    const bool known = QCoreApplication::instance() && !QCoreApplication::arguments().isEmpty();
    return known ? programName() : std::string();
}

// The first word of the command line is compared as the application's own name is taken, by
// its base name, so that "/usr/bin/name", "name" and "name --option" all match.
bool isProcessRunning(pid_t pid, const std::string& programName, const QDateTime& lastWrite)
{
    const std::optional<zo::os::Process> process = zo::os::findProcess(pid);
    if (!process)
        return false;
    if (lastWrite.isValid()) {
        const std::chrono::system_clock::time_point written(
            std::chrono::milliseconds(lastWrite.toMSecsSinceEpoch()));
        if (process->started > written + kStartTolerance)
            return false;
    }
    if (programName.empty())
        return true;
    const QString program = decodedPath(process->program);
    return QFileInfo(program).baseName().toStdString() == programName;
}

} // namespace zo::project::detail
