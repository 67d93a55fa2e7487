#pragma once

#include <zo/project/projectvfs.h>
#include <zo/project/zoprojectqt_export.h>

#include <QFile>
#include <QString>

#include <cstdio>
#include <memory>

namespace zo::project {

namespace detail {
class ProjectVFS_Impl;
}

/// A handle on one project file, made by ProjectVFS::file() or ProjectVFS::open(). It reads
/// the file in place until the first write, which copies it to a swap file beside it
/// (".<name>.<pid>.csp"); from then on every open goes to the swap file until the change is
/// committed or discarded. Destroying a handle closes it but neither commits nor discards. A
/// commit writes out what an open handle of its file still buffers and then, as a discard
/// does, closes it: later writes through it fail instead of reaching the committed file.
class ZOPROJECTQT_EXPORT VFSFile : public QFile {
public:
    /// A handle on path, relative to the root of the engine impl; touches no disk. The path is
    /// cleaned as QDir::cleanPath cleans it, as its swap file's name is: "d/../x" is x beside d,
    /// whether or not d is a link.
    VFSFile(std::shared_ptr<detail::ProjectVFS_Impl> impl, const QString& path);
    ~VFSFile() override;

    /// Opens the swap file for any write-capable mode or when one is pending (creating it from
    /// the file's content first), else the file itself.
    /// @return false when already open, or when the swap file cannot be prepared (the reason is
    /// then errorString()) or opened.
    bool open(QIODevice::OpenMode mode) override;

    /// Flushes and closes. A failed flush or close of the swap file marks the change as
    /// damaged: it can then only be discarded (commit throws exception::SwapFileDamaged).
    void close() override;

    /// The same choice as open(), as a C stream the caller owns and closes; mode as for
    /// std::fopen. A "w" mode truncates the swap file, never the file itself. The engine cannot
    /// see into the stream: flush or close it before the commit or discard of its file. A
    /// commit leaves it open on the committed file, where what it writes afterwards lands
    /// unseen by the engine; after a discard its writes go to an unlinked file.
    /// @return null on failure.
    FILE* fopen(const QString& mode);

    /// The path as given (cleaned), not the one the underlying file was opened with.
    QString fileName() const override;
    /// The swap file's path, relative to the project root.
    QString swapName() const;
    /// The path open() uses (the file or its swap file), not joined to the project root.
    QString openedPath() const;

    /// Makes the swap file now (a copy of the file, or empty for a new one) unless the change
    /// is pending already.
    /// @return its absolute path.
    /// @throws exception::SwapFileAlreadyExists, exception::CopySwapFile or
    /// exception::CreateSwapFile when it cannot be made; nothing is then left on disk.
    QString createSwapFile();

    /// Moves the file and its swap file on disk now, as zo::project::move does; the handle and a
    /// pending change take the new name.
    /// @throws PathNotFound when neither the file nor a swap file exists, or as
    /// zo::project::move throws.
    void move(const QString& newPath, bool overwrite);
    /// The copy (of the pending content, if any) becomes an uncommitted new file at newPath:
    /// its swap file is written now, newPath itself only by its commit.
    /// Throws what zo::project::copy throws.
    void copy(const QString& newPath);

    /// Closes the handle and commits this file's pending change as
    /// ProjectVFS::commit(path, changes) does; does nothing when no change is pending and the
    /// file exists.
    /// @throws exception::SourceFileDoesNotExists when nothing is pending and there is no file.
    /// @throws exception::SwapFileCommit (another of its kinds) when the commit fails, the
    /// source keeping its old content and the change staying pending.
    void commit(ProjectVFS::SourceChanges changes = ProjectVFS::SourceChanges::Refuse);
    /// Deletes the swap file and forgets the change; the file is untouched.
    void discard();
    /// Deletes the file (a link as a link) and its swap file, and forgets a pending change.
    /// @throws IOWriteError when either cannot be deleted.
    void remove();

protected:
    /// Writes as QFile does; a write that fails marks the change as damaged, as a failed close
    /// does.
    qint64 writeData(const char* data, qint64 length) override;

private:
    // The engine carries the handles open on a swap file along when another handle moves it.
    friend class detail::ProjectVFS_Impl;

    std::shared_ptr<detail::ProjectVFS_Impl> _impl;
    QString _fileName;
    QString _swapName;
    QString VFSFile::*_opened;
};

} // namespace zo::project
