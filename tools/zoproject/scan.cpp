#include "scan.h"

#include <zo/process.h>

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <chrono>

namespace zo::cli {
namespace {

// The system gives a process's start to about a second; doubt counts as running.
constexpr std::chrono::seconds kStartUncertainty(2);

// The library's liveness test is private and takes this program's name for the owner's;
// here any program counts. A process that started after the swap file was last written only
// reused the id, and one without a command line (a zombie, a kernel thread) runs no editor.
Owner ownerOf(pid_t pid, const QDateTime& swapModified)
{
    const auto process = zo::os::findProcess(pid);
    if (!process || process->program.empty())
        return {};
    const std::chrono::system_clock::time_point modified(
        std::chrono::milliseconds(swapModified.toMSecsSinceEpoch()));
    if (process->started > modified + kStartUncertainty)
        return {};
    return { true, QFileInfo(QFile::decodeName(process->program.c_str())).fileName() };
}

SwapFile describe(
    const zo::project::ProjectVFS& project, const zo::project::ProjectVFS::RecoverableInfo& info)
{
    const QFileInfo swap(project.absoluteFilePath(info.swapPath));
    const QFileInfo source(project.absoluteFilePath(info.sourcePath));
    const QString backup = project.makeBackupPath(info.sourcePath);
    const QDateTime made = swap.birthTime().isValid() ? swap.birthTime() : swap.lastModified();
    return { info, ownerOf(info.pid, swap.lastModified()), swap.size(), swap.lastModified(),
        source.exists(), source.exists() && source.lastModified() > made,
        !source.exists() && QFileInfo::exists(project.absoluteFilePath(backup)) ? backup
                                                                                : QString() };
}

} // namespace

std::vector<SwapFile> scanProject(const zo::project::ProjectVFS& project)
{
    std::vector<SwapFile> swapFiles;
    for (const auto& info : project.recoverableFilesWhenOpened())
        swapFiles.push_back(describe(project, info));
    std::sort(swapFiles.begin(), swapFiles.end(),
        [](const auto& a, const auto& b) { return a.info.swapPath < b.info.swapPath; });
    return swapFiles;
}

int recoverableCount(const std::vector<SwapFile>& swapFiles)
{
    return static_cast<int>(std::count_if(swapFiles.begin(), swapFiles.end(),
        [](const SwapFile& swap) { return swap.recoverable(); }));
}

} // namespace zo::cli
