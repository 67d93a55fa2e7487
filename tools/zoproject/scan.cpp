#include "scan.h"

#include "command.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace zo::cli {

std::vector<SwapFile> scanProject(const zo::project::ProjectVFS& project)
{
    const auto& found = project.recoverableFilesWhenOpened();
    const auto states = project.inspect(found);
    std::vector<SwapFile> swapFiles;
    for (std::size_t at = 0; at < found.size(); ++at) {
        const auto& info = found[at];
        const QFileInfo swap(project.absoluteFilePath(info.swapPath));
        const QFileInfo source(project.absoluteFilePath(info.sourcePath));
        const bool sourceExists = source.exists();
        const QString backup = project.makeBackupPath(info.sourcePath);
        swapFiles.push_back({ info, states[at].owner, swap.size(), swap.lastModified(),
            sourceExists, source.size(), states[at].sourceChanged,
            !sourceExists && QFileInfo::exists(project.absoluteFilePath(backup)) ? backup
                                                                                 : QString() });
    }
    std::sort(swapFiles.begin(), swapFiles.end(),
        [](const auto& a, const auto& b) { return a.info.swapPath < b.info.swapPath; });
    return swapFiles;
}

QString projectPath(const QString& root, const QString& argument)
{
    const QDir directory(root);
    return QDir::cleanPath(
        directory.relativeFilePath(directory.absoluteFilePath(qtPath(argument))));
}

int recoverableCount(const std::vector<SwapFile>& swapFiles)
{
    return static_cast<int>(std::count_if(swapFiles.begin(), swapFiles.end(),
        [](const SwapFile& swap) { return swap.recoverable(); }));
}

QString describeOwner(const Owner& owner)
{
    QString text = QStringLiteral("process %1").arg(owner.pid);
    if (owner.state == Owner::State::InUseElsewhere)
        return text
            + QStringLiteral(" on %1").arg(
                owner.hostName.isEmpty() ? QStringLiteral("an unknown host") : owner.hostName);
    if (owner.state == Owner::State::Running && !owner.program.isEmpty())
        text += QStringLiteral(" (%1)").arg(owner.program);
    return text;
}

} // namespace zo::cli
