#pragma once

#include <zo/project/zoprojectqt_export.h>

#include <QDir>
#include <QFile>
#include <QIODevice>
#include <QMap>
#include <QString>

#include <cstdio>
#include <functional>
#include <memory>

namespace zo::project {
class VFSFile;
}

namespace zo::project::detail {

// Exported only for the unit tests; no public header declares it.
// The shared state of one swap-file file system: the project root, the table of files that
// have a swap file, and the handler told whether the table holds anything.
//
// Swap files are named ".<name>.<pid>.csp" beside their source, backups "<path>bck"; crash
// recovery and outside tools look for exactly these names.
class ZOPROJECTQT_EXPORT ProjectVFS_Impl : public QDir,
                                           public std::enable_shared_from_this<ProjectVFS_Impl> {
public:
    using Entries = QMap<QString, QString>;

    explicit ProjectVFS_Impl(const QString& path);

    bool isNotCommitted() const;
    bool isNotCommitted(const QString& path) const;

    QString makeSwapPath(const QString& path) const;
    QString makeBackupPath(const QString& path) const;
    const QString& swapExtension() const { return _swapExt; }

    // Called with true when the table gains its only entry and with false whenever a removal
    // leaves it empty; both may repeat. Must never be empty.
    std::function<void(bool)> notCommittedChanged;

    // Key: the file's path as given; value: its swap file joined to the root. The facade's
    // whole-project operations walk and erase it directly, without the handler.
    Entries& entries() { return _entries; }

    void addEntry(const QString& path, const QString& swapPath);
    Entries::iterator removeEntry(const Entries::iterator& it);
    Entries::iterator removeEntry(const QString& path);
    void moveEntry(const VFSFile& file, const QString& oldPath);

    // Existence through the pending swap file when there is one.
    bool hasFile(const QString& path) const;
    bool hasPath(const QString& path) const;

    QString createSwapFile(const QString& path, const QString& swapPath);
    void commitFile(QFile* file, VFSFile* vfsFile);
    void commit(VFSFile& file);
    void discard(VFSFile& file);
    void remove(VFSFile& file);
    void copy(VFSFile& file, const QString& newPath, bool overwrite);
    void move(VFSFile& file, const QString& newPath, bool overwrite);

private:
    QString existingTarget(const QString& path) const;

    Entries _entries;
    QString _swapExt;
    QString _bckExt;
};

// The device flags that a C fopen mode stands for.
ZOPROJECTQT_EXPORT QIODevice::OpenMode openModeOfStreamMode(const QString& mode);

// Reopens the file a handle chose (its openedPath) as a C stream. The device open already prepared
// (and, for "w" modes, truncated) the swap file, so "w" becomes "r+" to keep the stream from doing
// it again.
FILE* openStream(
    const QDir& root, const QString& openedPath, QString mode, QIODevice::OpenMode flags);

} // namespace zo::project::detail
