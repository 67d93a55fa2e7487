#pragma once

#include <zo/project/projectvfs.h>
#include <zo/project/zoprojectqt_export.h>

#include <QDir>
#include <QFile>
#include <QIODevice>
#include <QMap>
#include <QSet>
#include <QString>

#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

namespace zo::project {
class VFSFile;
}

namespace zo::project::detail {

// The shared state of one swap-file file system: the project root, the table of files that
// have a swap file, and the handler told whether the table holds anything.
//
// Swap files are named ".<name>.<pid>.csp" beside their source, backups "<path>bck"; crash
// recovery and outside tools look for exactly these names.
class ProjectVFS_Impl : public QDir, public std::enable_shared_from_this<ProjectVFS_Impl> {
public:
    explicit ProjectVFS_Impl(const QString& path);

    bool isNotCommitted() const;
    bool isNotCommitted(const QString& path) const;

    QString makeSwapPath(const QString& path) const;
    QString makeBackupPath(const QString& path) const;
    const QString& swapExtension() const { return _swapExt; }

    // The swap files below the root when it was last set, as the walk that put back the
    // sources of interrupted commits found them.
    std::vector<ProjectVFS::RecoverableInfo> foundWhenOpened;

    // Called with true when the table gains its only entry and with false whenever a removal
    // leaves it empty; both may repeat. Must never be empty.
    std::function<void(bool)> notCommittedChanged;

    // A handle whose write, flush or close failed left its swap file short of what was written;
    // the entry cannot be committed until it is discarded or refreshed from its source.
    void markDamaged(const QString& path);

    // The pending paths as given, in order.
    QStringList pendingPaths() const { return _entries.keys(); }
    // The swap file of a pending path joined to the root; empty when nothing is pending.
    QString pendingSwap(const QString& path) const { return _entries.value(path); }
    // Where the path's current content lives: its pending swap file, else the file itself.
    QString currentPath(const QString& path) const;

    void addEntry(const QString& path, const QString& swapPath);
    void removeEntry(const QString& path);
    void moveEntry(const VFSFile& file, const QString& oldPath);

    // Existence through the pending swap file when there is one.
    bool hasFile(const QString& path) const;
    bool hasPath(const QString& path) const;
    // The file is on disk, or pending with its swap file on disk.
    bool existsOrPending(const QString& path) const;

    QString createSwapFile(const QString& path, const QString& swapPath);
    void commit(VFSFile& file);
    void discard(VFSFile& file);
    void remove(VFSFile& file);
    void copy(VFSFile& file, const QString& newPath, bool overwrite);
    void move(VFSFile& file, const QString& newPath, bool overwrite);
    // Replaces a pending swap file by the current content of its source.
    void updateFromSource(const QString& path);

    // Every pending file in path order, without telling the handler. commitAll stops at the
    // first failure, which leaves that file and every later one pending.
    void commitAll();
    void discardAll();

private:
    using Entries = QMap<QString, QString>;

    Entries::iterator removeEntry(const Entries::iterator& it);
    // Both paths absolute.
    // A commit whose renames are done but not yet durable.
    struct StagedCommit {
        QString source;
        QString swap;
        QString backup;
        bool backedUp;
        bool swapRenamed;
    };
    StagedCommit stageCommit(const QString& source, const QString& swap);
    void undoCommit(const StagedCommit& staged);
    void commitFile(const QString& source, const QString& swap);

    void throwIfDamaged(const QString& path) const;

    // Key: the file's path as given; value: its swap file, absolute.
    Entries _entries;
    QSet<QString> _damaged;
    QString _swapExt;
    QString _bckExt;
};

// The device flags that a C fopen mode stands for.
QIODevice::OpenMode openModeOfStreamMode(const QString& mode);

// Reopens the file a handle chose (its openedPath) as a C stream. The device open already prepared
// (and, for "w" modes, truncated) the swap file, so "w" becomes "r+" to keep the stream from doing
// it again.
FILE* openStream(
    const QDir& root, const QString& openedPath, QString mode, QIODevice::OpenMode flags);

} // namespace zo::project::detail
