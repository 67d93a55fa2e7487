#pragma once

// The swap files crashed or still running editors left below a project, with what a person
// needs to decide on each. Shared by status and recover.

#include <zo/project/projectvfs.h>

#include <QDateTime>
#include <QString>

#include <vector>

namespace zo::cli {

// The process a swap file's name points at.
struct Owner {
    bool running = false;
    QString program; // its program's file name, while it runs
};

struct SwapFile {
    zo::project::ProjectVFS::RecoverableInfo info;
    Owner owner;
    qint64 size = 0;
    QDateTime modified;
    bool sourceExists = false;
    // The source was modified after the swap file was made (or, where the file system keeps
    // no creation time, after it was last written).
    bool sourceChanged = false;
    // The source's backup while the source is missing: a commit stopped between its two
    // renames. Opening the project puts such a backup back unless the owner still runs.
    QString backupPath;

    bool recoverable() const { return !owner.running; }
};

// The swap files that opening the project found; opening it also finished the interrupted
// commits of ended owners.
std::vector<SwapFile> scanProject(const zo::project::ProjectVFS& project);

int recoverableCount(const std::vector<SwapFile>& swapFiles);

} // namespace zo::cli
