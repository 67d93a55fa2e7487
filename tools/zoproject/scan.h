#pragma once

// What crashed or still running editors left below a project: swap files with their owners,
// and commits that stopped between their two renames. Shared by status and recover.

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

    bool recoverable() const { return !owner.running; }
};

// A backup "<source>bck" whose source is missing: its commit stopped after moving the source
// aside. Restoring it, or committing a swap file of its source, finishes the job.
struct InterruptedCommit {
    QString backupPath; // relative to the project root, as sourcePath
    QString sourcePath;
    qint64 size = 0;
};

struct Scan {
    std::vector<SwapFile> swapFiles;
    std::vector<InterruptedCommit> interruptedCommits;

    int recoverableCount() const;
};

Scan scanProject(zo::project::ProjectVFS& project);

} // namespace zo::cli
