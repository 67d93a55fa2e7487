#pragma once

#include <zo/project/zoprojectqt_export.h>

#include <QFileDevice>
#include <QString>

#include <stdexcept>
#include <string>
#include <vector>

/// Errors of the swap-file engine and its facade. Each message is a fixed prefix followed by
/// the path concerned and, where the system gave one, ": " and the reason; catch the whole family
/// as exception::ProjectVFS and the commit failures as exception::SwapFileCommit.
namespace zo::project::exception {

/// The base of every error the swap-file engine throws.
class ZOPROJECTQT_EXPORT ProjectVFS : public std::runtime_error {
public:
    /// An error whose what() is message.
    explicit ProjectVFS(const std::string& message);
    ~ProjectVFS() override;
};

/// A project root that does not exist or is refused: a missing or unchanged path given to
/// setPath, or a file operation on a ProjectDir that has no root yet (the path is then empty).
class ZOPROJECTQT_EXPORT ProjectPathDoesNotExists : public ProjectVFS {
public:
    /// The error for the root path.
    explicit ProjectPathDoesNotExists(const std::string& path);
    ~ProjectPathDoesNotExists() override;
};

/// Not thrown by the library; offered to clients that refuse to go on with unsaved changes.
class ZOPROJECTQT_EXPORT ProjectNotCommitted : public ProjectVFS {
public:
    /// The error for the project at path.
    explicit ProjectNotCommitted(const std::string& path);
    ~ProjectNotCommitted() override;
};

/// A file's first write found its swap name taken by a file the engine does not know (left by
/// an earlier process with the same id, or made by another ProjectVFS on the same directory).
/// Nothing was changed.
class ZOPROJECTQT_EXPORT SwapFileAlreadyExists : public ProjectVFS {
public:
    /// The error for the project file path.
    explicit SwapFileAlreadyExists(const std::string& path);
    ~SwapFileAlreadyExists() override;
};

/// The empty swap file of a new file could not be created; nothing was left on disk.
class ZOPROJECTQT_EXPORT CreateSwapFile : public ProjectVFS {
public:
    /// The error for the project file path, with the system's reason if any.
    explicit CreateSwapFile(const std::string& path, const std::string& reason = {});
    ~CreateSwapFile() override;
};

/// A file's content could not be copied into its swap file; no partial swap file is left.
class ZOPROJECTQT_EXPORT CopySwapFile : public ProjectVFS {
public:
    /// The error for the project file path whose swap file tempPath could not be written.
    CopySwapFile(const std::string& path, QString tempPath, const std::string& reason = {});
    ~CopySwapFile() override;

    /// The swap file that could not be written, absolute.
    QString tempPath() const;

private:
    QString _tempPath;
};

/// A file could not be opened through ProjectVFS::open.
class ZOPROJECTQT_EXPORT OpenSwapFile : public ProjectVFS {
public:
    /// The error for the project file path, with Qt's error code and reason.
    OpenSwapFile(
        const std::string& path, QFileDevice::FileError fileError, const std::string& reason = {});
    ~OpenSwapFile() override;

    /// Qt's code for the failure.
    QFileDevice::FileError fileError();

private:
    QFileDevice::FileError _fileError;
};

/// Groups the failures of committing a swap file; never thrown itself. A failed commit leaves
/// the source with its old content and the change pending in its swap file.
class ZOPROJECTQT_EXPORT SwapFileCommit : public ProjectVFS {
public:
    /// An error whose what() is message.
    explicit SwapFileCommit(const std::string& message);
    ~SwapFileCommit() override;
};

/// The source could not be renamed to its backup, the commit's first step; nothing changed.
class ZOPROJECTQT_EXPORT SourceFileRename : public SwapFileCommit {
public:
    /// The error for the source file path.
    explicit SourceFileRename(const std::string& path);
    ~SourceFileRename() override;
};

/// A backup left by an interrupted commit was found beside a source that is in place again,
/// and removed; the commit stopped there and can be repeated.
class ZOPROJECTQT_EXPORT SourceFileBackupRemove : public SwapFileCommit {
public:
    /// The error for the backup file path.
    explicit SourceFileBackupRemove(const std::string& path);
    ~SourceFileBackupRemove() override;
};

/// The swap file could not be synced or renamed over its source, or the rename could not be
/// made durable; the source is put back. Also thrown when recovering a swap file fails.
class ZOPROJECTQT_EXPORT SwapFileRename : public SwapFileCommit {
public:
    /// The error for the file path.
    explicit SwapFileRename(const std::string& path);
    ~SwapFileRename() override;
};

/// An abandoned swap file could not be removed.
class ZOPROJECTQT_EXPORT SwapFileRemove : public SwapFileCommit {
public:
    /// The error for the swap file path.
    explicit SwapFileRemove(const std::string& path);
    ~SwapFileRemove() override;
};

/// A write, flush or close of the swap file failed, so it may hold less than was written; the
/// source and the swap file are left as they are until the change is discarded.
class ZOPROJECTQT_EXPORT SwapFileDamaged : public SwapFileCommit {
public:
    /// The error for the project file path.
    explicit SwapFileDamaged(const std::string& path);
    ~SwapFileDamaged() override;
};

/// A swap file left by a process of an earlier boot or another host does not hold what that
/// process wrote: the machine stopped before all of it reached the disk (a torn file). It is not
/// recovered; it stays where it is, for the user to look into or abandon.
class ZOPROJECTQT_EXPORT SwapFileTorn : public SwapFileCommit {
public:
    /// path: the swap file's, relative to the project.
    explicit SwapFileTorn(const std::string& path);
    ~SwapFileTorn() override;
};

/// The swap file of a pending change is gone (another program removed it). Nothing was renamed:
/// the source stays as it is, and the change stays pending until it is discarded.
class ZOPROJECTQT_EXPORT SwapFileMissing : public SwapFileCommit {
public:
    /// path: the swap file's, relative to the project.
    explicit SwapFileMissing(const std::string& path);
    ~SwapFileMissing() override;
};

/// Another program changed a source (its device, inode, size or modification time) after its
/// swap file was made or last refreshed from it, so that a commit would lose that program's
/// work. Thrown before anything is renamed: sources and swap files stay as they are; or, for a
/// change made while a commit of several files runs, at that file, whose source and swap file
/// stay, those before it committed. Committing with SourceChanges::Overwrite, or refreshing the
/// swap file, commits anyway, but never over a file made at a new file's name meanwhile. Also
/// thrown by ProjectModel::save to an archive changed since it was loaded or saved.
class ZOPROJECTQT_EXPORT SourceFileChanged : public SwapFileCommit {
public:
    /// paths: every changed source, as the caller named it.
    explicit SourceFileChanged(const std::vector<std::string>& paths);
    ~SourceFileChanged() override;

    /// Every changed source, in the order of the message.
    const std::vector<std::string>& paths() const;

private:
    std::vector<std::string> _paths;
};

/// A project path that leads outside the project: through "..", as an absolute path elsewhere,
/// or through a symbolic link that leaves the project's directory. Nothing was read or written.
class ZOPROJECTQT_EXPORT PathOutsideProject : public ProjectVFS {
public:
    /// path: as the caller gave it.
    explicit PathOutsideProject(const std::string& path);
    ~PathOutsideProject() override;
};

/// A file with no pending change was committed, and it does not exist either.
class ZOPROJECTQT_EXPORT SourceFileDoesNotExists : public SwapFileCommit {
public:
    /// The error for the project file path.
    explicit SourceFileDoesNotExists(const std::string& path);
    ~SourceFileDoesNotExists() override;
};

} // namespace zo::project::exception
