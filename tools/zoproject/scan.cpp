#include "scan.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace zo::cli {
namespace {

// The library's own liveness test is private and judges by this program's name, which tells
// nothing about other applications; any process with a command line counts here. Zombies
// and kernel threads have none.
Owner ownerOf(qint64 pid)
{
    if (pid <= 0)
        return {};
    QFile commandLine(QStringLiteral("/proc/%1/cmdline").arg(pid));
    if (!commandLine.open(QIODevice::ReadOnly))
        return {};
    const QByteArray arguments = commandLine.readAll();
    if (arguments.isEmpty())
        return {};
    const QByteArray program = arguments.left(arguments.indexOf('\0'));
    return { true, QFileInfo(QString::fromLocal8Bit(program)).fileName() };
}

SwapFile describe(
    const zo::project::ProjectVFS& project, const zo::project::ProjectVFS::RecoverableInfo& info)
{
    const QFileInfo swap(project.absoluteFilePath(info.swapPath));
    const QFileInfo source(project.absoluteFilePath(info.sourcePath));
    const QDateTime made = swap.birthTime().isValid() ? swap.birthTime() : swap.lastModified();
    return { info, ownerOf(info.pid), swap.size(), swap.lastModified(), source.exists(),
        source.exists() && source.lastModified() > made };
}

// The directories the library's recovery scan looks in: the root and every readable,
// writable, not hidden directory below it.
QStringList scannedDirectories(const QString& root)
{
    QStringList directories { root };
    QDirIterator below(root, QDir::Dirs | QDir::Readable | QDir::Writable | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (below.hasNext())
        directories << below.next();
    return directories;
}

std::vector<InterruptedCommit> interruptedCommits(const zo::project::ProjectVFS& project)
{
    const QString suffix = project.makeBackupPath(QString());
    const QDir root(project.path());
    std::vector<InterruptedCommit> found;
    for (const QString& directory : scannedDirectories(project.path())) {
        const QDir dir(directory);
        const QFileInfoList backups
            = dir.entryInfoList({ QLatin1Char('*') + suffix }, QDir::Files | QDir::Hidden);
        for (const QFileInfo& backup : backups) {
            const QString source = backup.filePath().chopped(suffix.size());
            if (!QFileInfo::exists(source))
                found.push_back({ root.relativeFilePath(backup.filePath()),
                    root.relativeFilePath(source), backup.size() });
        }
    }
    return found;
}

} // namespace

int Scan::recoverableCount() const
{
    return static_cast<int>(std::count_if(swapFiles.begin(), swapFiles.end(),
               [](const SwapFile& swap) { return swap.recoverable(); }))
        + static_cast<int>(interruptedCommits.size());
}

Scan scanProject(zo::project::ProjectVFS& project)
{
    Scan scan;
    for (const auto& info : project.recoverableFiles())
        scan.swapFiles.push_back(describe(project, info));
    std::sort(scan.swapFiles.begin(), scan.swapFiles.end(),
        [](const auto& a, const auto& b) { return a.info.swapPath < b.info.swapPath; });
    scan.interruptedCommits = interruptedCommits(project);
    return scan;
}

} // namespace zo::cli
