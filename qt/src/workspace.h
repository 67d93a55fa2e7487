#pragma once

#include <zo/file.h>
#include <zo/project/archive.h>

#include <QDateTime>
#include <QString>

#include <optional>

// The files of archive-project workspaces in the temporary directory and the durable
// replacement of a directory a model is saved to.
namespace zo::project::detail {

// The hidden record beside a workspace: where its content came from, and the version of the
// source it was loaded from or last saved to.
struct WorkspaceRecord {
    QString sourcePath;
    ArchiveFormat format;
    std::optional<zo::os::FileVersion> sourceVersion;
};

// Creates a new empty workspace directory under a name from xGetNewTempPath (the first one no
// other model took meanwhile); IOWriteError when the temporary directory refuses it.
QString createWorkspaceDirectory();

// Replaces the record atomically; the source path is stored absolute. The record only helps a later
// recovery, so a failure to write it is not the user's operation's failure: it returns false.
bool writeRecord(const QString& workspace, const WorkspaceRecord& record);
// None for a workspace of an older version, which kept no record; a relative source path, as
// older versions stored it, reads as none.
std::optional<WorkspaceRecord> readRecord(const QString& workspace);
// Removes the workspace tree, then its record; errors of the tree's removal propagate.
void removeWorkspace(const QString& workspace);

// The process id in a workspace's name; 0 when the name is not a workspace's.
int ownerOfWorkspace(const QString& name);
// The newest modification time in the workspace and its record.
QDateTime lastModifiedOf(const QString& workspace);

// A hidden path beside target that does not exist yet, for writing target's replacement.
QString temporaryPathBeside(const QString& target);
// Puts the directory tree replacement, written beside the directory target, in its place
// durably (swapIntoPlace of zo/replace.h) and removes the previous tree. IOWriteError when a
// step fails: target is then as it was and replacement removed, unless the last flush failed,
// when target holds the new tree and the previous one stays beside it under a hidden name of
// purpose "replaced".
void replaceDirectory(const QString& replacement, const QString& target);

} // namespace zo::project::detail
