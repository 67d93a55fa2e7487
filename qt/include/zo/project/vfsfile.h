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

// A handle on one project file. It reads the file in place until the first write, which copies
// it to a swap file beside it; from then on every open goes to the swap file until the change is
// committed or discarded. Destroying a handle neither commits nor discards. A commit writes out
// what an open handle of its file still buffers and then, as a discard does, closes it: later
// writes through it fail instead of reaching the committed file.
class ZOPROJECTQT_EXPORT VFSFile : public QFile {
public:
    VFSFile(std::shared_ptr<detail::ProjectVFS_Impl> impl, const QString& path);
    ~VFSFile() override;

    // Opens the swap file for any write-capable mode or when one is pending, else the source.
    // A failure to prepare the swap file gives false with the reason as errorString().
    bool open(QIODevice::OpenMode mode) override;

    // A failed flush or close of the swap file marks the change as damaged: it can then only be
    // discarded (commit throws exception::SwapFileDamaged).
    void close() override;

    // The same choice as open(), as a C stream the caller owns; null on failure.
    FILE* fopen(const QString& mode);

    // The path as given, not the one the underlying file was opened with.
    QString fileName() const override;
    QString swapName() const;
    // The path open() uses (the file or its swap file), not joined to the project root.
    QString openedPath() const;

    QString createSwapFile();

    // Moves the file and its swap file on disk now; the handle takes the new name.
    void move(const QString& newPath, bool overwrite);
    // The copy (of the pending content, if any) becomes an uncommitted new file at newPath.
    void copy(const QString& newPath);

    /// Commits this file's pending change as ProjectVFS::commit(path, changes) does; closes
    /// this handle first.
    void commit(ProjectVFS::SourceChanges changes = ProjectVFS::SourceChanges::Refuse);
    void discard();
    void remove();

protected:
    // A write that fails marks the change as damaged, as a failed close does.
    qint64 writeData(const char* data, qint64 length) override;

private:
    std::shared_ptr<detail::ProjectVFS_Impl> _impl;
    QString _fileName;
    QString _swapName;
    QString VFSFile::*_opened;
};

} // namespace zo::project
