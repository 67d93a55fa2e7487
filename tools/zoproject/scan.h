#pragma once

// The swap files crashed or still running editors left below a project, with what a person
// needs to decide on each. Shared by status and recover.

#include <zo/project/projectvfs.h>

#include <QDateTime>
#include <QString>

#include <vector>

namespace zo::cli {

using Owner = zo::project::ProjectVFS::OwnerInfo;
using Save = zo::project::ProjectVFS::InterruptedSave;

struct SwapFile {
    zo::project::ProjectVFS::RecoverableInfo info;
    // As the library judges it: only an ended owner's file may be recovered.
    Owner owner;
    qint64 size = 0;
    QDateTime modified;
    bool sourceExists = false;
    qint64 sourceSize = 0;
    // The source is no longer the one the swap file was made from.
    bool sourceChanged = false;
    // The source's backup while the source is missing: a commit stopped between its two
    // renames. Opening the project puts such a backup back unless the owner may still run.
    QString backupPath;
    // The machine stopped before it was written out, and it is not what its owner wrote.
    bool torn = false;

    bool ended() const { return owner.state == Owner::State::Ended; }
    bool recoverable() const { return ended() && !torn; }
};

// Why a torn swap file is not recovered.
inline const QString kTorn
    = QStringLiteral("torn, the machine stopped before it was written out; --abandon drops it");

// The swap files that opening the project found. Unless it was opened to leave them, opening
// also completed the interrupted saves and commits of ended owners.
std::vector<SwapFile> scanProject(const zo::project::ProjectVFS& project);

// An argument naming a file of the project rooted at root, as RecoverableInfo names it.
QString projectPath(const QString& root, const QString& argument);

int recoverableCount(const std::vector<SwapFile>& swapFiles);

// How the owner stands, for people: "process 42 (editor)", "process 42 on host".
QString describeOwner(const Owner& owner);

// The saves of ended processes that opening the project completes; a project opened to leave
// them still lists them.
std::vector<Save> savesToComplete(const zo::project::ProjectVFS& project);

// Each save as status shows it: left to its running process, or completed by opening.
void printSaves(const std::vector<Save>& saves);

// The swap files but those the saves of ended processes put in place when they are completed:
// they are shown with their saves, not as files to recover.
std::vector<SwapFile> withoutSavedFiles(
    std::vector<SwapFile> swapFiles, const std::vector<Save>& saves);

} // namespace zo::cli
