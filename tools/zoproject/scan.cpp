#include "scan.h"

#include "command.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

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
                                                                                 : QString(),
            states[at].torn });
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

std::vector<Save> savesToComplete(const zo::project::ProjectVFS& project)
{
    std::vector<Save> saves;
    for (const Save& save : project.interruptedSavesWhenOpened())
        if (save.owner.state == Owner::State::Ended)
            saves.push_back(save);
    return saves;
}

// A save of several files stays whole: opening the project completes it, or removes the journal
// of one that never began, once its process has ended.
void printSaves(const std::vector<Save>& saves)
{
    for (const Save& save : saves) {
        const QString owner = describeOwner(save.owner);
        if (save.owner.state != Owner::State::Ended)
            print(QStringLiteral("Save in progress (journal %1, %2): left to its process.")
                      .arg(save.journalPath, owner));
        else if (save.files.isEmpty())
            print(QStringLiteral("Interrupted save that never began (damaged journal %1, %2): "
                                 "opening the project removes its journal.")
                      .arg(save.journalPath, owner));
        else
            print(QStringLiteral("Interrupted save of %1 files (journal %2, %3 has ended): "
                                 "opening the project completes it.")
                      .arg(save.files.size())
                      .arg(save.journalPath, owner));
        for (const QString& file : save.files)
            print(QStringLiteral("  ") + file);
    }
}

std::vector<SwapFile> withoutSavedFiles(
    std::vector<SwapFile> swapFiles, const std::vector<Save>& saves)
{
    QSet<QString> saved;
    for (const Save& save : saves)
        if (save.owner.state == Owner::State::Ended)
            saved.unite(QSet<QString>(save.files.begin(), save.files.end()));
    swapFiles.erase(std::remove_if(swapFiles.begin(), swapFiles.end(),
                        [&](const SwapFile& swap) {
                            return swap.recoverable() && saved.contains(swap.info.sourcePath);
                        }),
        swapFiles.end());
    return swapFiles;
}

} // namespace zo::cli
