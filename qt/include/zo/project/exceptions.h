#pragma once

#include <zo/project/zoprojectqt_export.h>

#include <QFileDevice>
#include <QString>

#include <stdexcept>
#include <string>
#include <vector>

// Errors of the swap-file engine and its facade. Each message is a fixed prefix followed by
// the path concerned and, where the system gave one, ": " and the reason; catch the whole family
// as exception::ProjectVFS and the commit failures as exception::SwapFileCommit.
namespace zo::project::exception {

class ZOPROJECTQT_EXPORT ProjectVFS : public std::runtime_error {
public:
    explicit ProjectVFS(const std::string& message);
    ~ProjectVFS() override;
};

class ZOPROJECTQT_EXPORT ProjectPathDoesNotExists : public ProjectVFS {
public:
    explicit ProjectPathDoesNotExists(const std::string& path);
    ~ProjectPathDoesNotExists() override;
};

// Not thrown by the library; offered to clients that refuse to go on with unsaved changes.
class ZOPROJECTQT_EXPORT ProjectNotCommitted : public ProjectVFS {
public:
    explicit ProjectNotCommitted(const std::string& path);
    ~ProjectNotCommitted() override;
};

class ZOPROJECTQT_EXPORT SwapFileAlreadyExists : public ProjectVFS {
public:
    explicit SwapFileAlreadyExists(const std::string& path);
    ~SwapFileAlreadyExists() override;
};

class ZOPROJECTQT_EXPORT CreateSwapFile : public ProjectVFS {
public:
    explicit CreateSwapFile(const std::string& path, const std::string& reason = {});
    ~CreateSwapFile() override;
};

class ZOPROJECTQT_EXPORT CopySwapFile : public ProjectVFS {
public:
    CopySwapFile(const std::string& path, QString tempPath, const std::string& reason = {});
    ~CopySwapFile() override;

    // The swap file that could not be written.
    QString tempPath() const;

private:
    QString _tempPath;
};

class ZOPROJECTQT_EXPORT OpenSwapFile : public ProjectVFS {
public:
    OpenSwapFile(
        const std::string& path, QFileDevice::FileError fileError, const std::string& reason = {});
    ~OpenSwapFile() override;

    QFileDevice::FileError fileError();

private:
    QFileDevice::FileError _fileError;
};

// Groups the failures of committing a swap file; never thrown itself.
class ZOPROJECTQT_EXPORT SwapFileCommit : public ProjectVFS {
public:
    explicit SwapFileCommit(const std::string& message);
    ~SwapFileCommit() override;
};

class ZOPROJECTQT_EXPORT SourceFileRename : public SwapFileCommit {
public:
    explicit SourceFileRename(const std::string& path);
    ~SourceFileRename() override;
};

class ZOPROJECTQT_EXPORT SourceFileBackupRemove : public SwapFileCommit {
public:
    explicit SourceFileBackupRemove(const std::string& path);
    ~SourceFileBackupRemove() override;
};

class ZOPROJECTQT_EXPORT SwapFileRename : public SwapFileCommit {
public:
    explicit SwapFileRename(const std::string& path);
    ~SwapFileRename() override;
};

class ZOPROJECTQT_EXPORT SwapFileRemove : public SwapFileCommit {
public:
    explicit SwapFileRemove(const std::string& path);
    ~SwapFileRemove() override;
};

// A write, flush or close of the swap file failed, so it may hold less than was written; the
// source and the swap file are left as they are until the change is discarded.
class ZOPROJECTQT_EXPORT SwapFileDamaged : public SwapFileCommit {
public:
    explicit SwapFileDamaged(const std::string& path);
    ~SwapFileDamaged() override;
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
/// work. Thrown before anything is renamed: sources and swap files stay as they are. Committing
/// with SourceChanges::Overwrite, or refreshing the swap file, commits anyway. Also thrown by
/// ProjectModel::save to an archive changed since it was loaded or saved.
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

class ZOPROJECTQT_EXPORT SourceFileDoesNotExists : public SwapFileCommit {
public:
    explicit SourceFileDoesNotExists(const std::string& path);
    ~SourceFileDoesNotExists() override;
};

} // namespace zo::project::exception
