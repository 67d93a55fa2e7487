#pragma once

#include <zo/project/zoprojectqt_export.h>

#include <QDateTime>
#include <QIODevice>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace zo::project {

class VFSFile;
namespace detail {
class ProjectVFS_Impl;
}

/// A project directory edited through swap files: nothing written through it reaches a
/// project file before commit(). The first write to a file copies it to a hidden swap file
/// beside it, ".<name>.<pid>.csp", and every later access goes there; commit() renames the
/// source to "<name>bck", the swap file to the source's name, syncs the directory and deletes
/// the backup. Swap files left by crashed processes are found by recoverableFiles() and taken
/// over or dropped with recoverFile() and abandonFile(). Opening a project (and setPath) puts
/// back the source of a commit that was killed between its two renames.
///
/// Paths are relative to the root unless absolute. Handles returned by file() and open() share
/// the engine state and stay valid after the ProjectVFS is gone. Use from one thread.
class ZOPROJECTQT_EXPORT ProjectVFS {
public:
    /// A swap file left by some process; paths are relative to the project root.
    struct RecoverableInfo {
        QString swapPath; ///< the swap file
        QString sourcePath; ///< the file it is a change of
        pid_t pid; ///< of the process that made it; 0 when the name's process id does not fit
    };

    /// The project rooted at path. Puts back, from their backups, the sources of commits that
    /// were killed between their two renames (unless the swap file's owner still runs).
    explicit ProjectVFS(const QString& path);
    /// @{
    /// Takes over the engine state; the object moved from is left without one.
    ProjectVFS(ProjectVFS&& other) noexcept;
    ProjectVFS& operator=(ProjectVFS&& other) noexcept;
    /// @}
    ProjectVFS(const ProjectVFS&) = delete;
    ProjectVFS& operator=(const ProjectVFS&) = delete;
    /// Forgets the pending changes: their swap files stay on disk, for recovery.
    virtual ~ProjectVFS();

    /// The root as given.
    QString path() const;
    /// path joined to the root (an absolute path as it is), as QDir::filePath.
    QString filePath(const QString& path) const;
    /// path relative to the root, as QDir::relativeFilePath.
    QString relativeFilePath(const QString& path) const;
    /// path joined to the root's absolute path, as QDir::absoluteFilePath.
    QString absoluteFilePath(const QString& path) const;
    /// Creates the directory path with its parents, directly (no swap file).
    /// @return whether it exists now.
    bool mkpath(const QString& path) const;
    /// Creates the directory path, whose parent must exist, directly (no swap file).
    /// @return whether it was created.
    bool mkdir(const QString& path) const;
    /// Whether the root exists.
    bool exists() const;
    /// Whether any change is pending.
    bool isNotCommitted() const;
    /// Whether a change of path is pending.
    bool isNotCommitted(const QString& path) const;
    /// Whether path is a regular file, read through its pending swap file if it has one.
    bool hasFile(const QString& path) const;
    /// Whether anything is at path, read through its pending swap file if it has one.
    bool hasPath(const QString& path) const;
    /// This process's swap file name for path: ".<name>.<pid>.csp" in path's directory.
    QString makeSwapPath(const QString& path) const;
    /// The backup name a commit gives path's old content: path followed by "bck".
    QString makeBackupPath(const QString& path) const;

    /// A closed handle on path; touches no disk.
    std::unique_ptr<VFSFile> file(const QString& path);
    /// Commits the pending change of path, as VFSFile::commit().
    /// @throws exception::SwapFileCommit (one of its kinds) on failure.
    void commit(const QString& path);
    /// Drops the pending change of path, as VFSFile::discard().
    void discard(const QString& path);
    /// A handle on path opened with mode, as VFSFile::open().
    /// @throws exception::OpenSwapFile when the file cannot be opened.
    std::unique_ptr<VFSFile> open(const QString& path, QIODevice::OpenMode mode);
    /// A C stream on path that the caller owns, as VFSFile::fopen().
    /// @return null when only the final C open fails.
    /// @throws exception::OpenSwapFile when the file cannot be opened.
    FILE* fopen(const QString& path, const QString& mode);
    /// Makes path's swap file now, as VFSFile::createSwapFile().
    /// @return its absolute path.
    QString createSwapFile(const QString& path);

    /// Told true when the first swap file is pending and false when a single-file operation
    /// leaves none; the whole-project commit() and discard() do not call it.
    void setCommittedChangedHandler(std::function<void(bool)>&& handler);

    /// Moves the facade to another root, with the same recovery of interrupted commits as the
    /// constructor.
    /// @throws exception::ProjectPathDoesNotExists for the current path as well as a missing
    /// one.
    void setPath(const QString& path);
    /// Whether path exists, also as a new file that so far exists only as its swap file.
    bool exists(const QString& path) const;
    /// Commits every pending file in path order, with one directory sync for each directory.
    /// Stops at the first failure, which leaves it and every later file pending; what was
    /// committed before is durable.
    /// @throws exception::SwapFileCommit (one of its kinds) on failure.
    void commit();
    /// Deletes every pending swap file and forgets the changes.
    void discard();

    /// The entries below path as listDirectory() gives them, without the metadata file;
    /// a file itself when path names one.
    QStringList getFileList(
        const QString& path, bool showHidden, bool recursive, bool includeDirs) const;
    /// Copies an outside file or tree to the relative destination directly, without swap file,
    /// making its parent directories.
    /// @throws PathNotFound when either path is empty or destination is absolute, or as
    /// zo::project::copy.
    void importFile(const QString& source, const QString& destination, bool overwrite) const;
    /// Copies the pending content (or the file itself) out of the project.
    /// Throws what zo::project::copy throws.
    void exportFile(const QString& path, const QString& destination, bool overwrite);
    /// Copies a file's current content to a new pending change at destination, as
    /// VFSFile::copy().
    /// @throws PathNotFound when source is no file; AlreadyExists when destination is one and
    /// overwrite is false.
    void copy(const QString& source, const QString& destination, bool overwrite);
    /// Moves a file and its swap file on disk now, as VFSFile::move().
    /// @throws PathNotFound when source is no file, or as zo::project::move.
    void move(const QString& source, const QString& destination, bool overwrite);
    /// Removes a file with its swap file, or a directory tree with the swap files in it; never
    /// through a symbolic link.
    /// @throws IOWriteError, PathNotFound or std::runtime_error as zo::project::remove.
    void remove(const QString& path);
    /// Replaces a pending swap file by the current content of its source, which also clears a
    /// damaged change; nothing when no change is pending.
    /// Throws what zo::project::copy throws.
    void updateFromSource(const QString& path);

    /// The swap files below the root (in directories that are not hidden, reached by no link
    /// except one level into a linked directory, and readable and writable by this process),
    /// of this process and of others, running or not.
    std::vector<RecoverableInfo> recoverableFiles();
    /// What recoverableFiles() returned when the project was opened or its path last set, in
    /// the walk that put back the sources of interrupted commits: a caller that lists the swap
    /// files right after opening needs no second walk. Empty for a facade without a path.
    const std::vector<RecoverableInfo>& recoverableFilesWhenOpened() const;
    /// Takes the swap file over as this process's pending change of info.sourcePath: it is
    /// renamed to this process's swap name, or copied when its process still runs.
    /// @throws exception::SwapFileRename when it can be neither renamed nor copied.
    void recoverFile(const RecoverableInfo& info);
    /// Deletes the swap file unless its process still runs (then nothing happens).
    /// @throws exception::SwapFileRemove when it cannot be deleted.
    void abandonFile(const RecoverableInfo& info);

private:
    // Whether the process that made a swap file last modified at swapModified still runs: a
    // process of that id which started later only reused it. An empty programName accepts any
    // program; an invalid time skips the test of the start.
    static bool isProcessRunning(
        pid_t pid, const std::string& programName, const QDateTime& swapModified);
    bool isOwnerRunning(const RecoverableInfo& info, const std::string& programName) const;
    void xRestoreInterruptedCommits();

    std::shared_ptr<detail::ProjectVFS_Impl> _impl;
};

} // namespace zo::project
