#pragma once

#include <zo/project/projectvfs.h>
#include <zo/project/zoprojectqt_export.h>

#include <QDir>
#include <QFile>
#include <QHash>
#include <QIODevice>
#include <QMap>
#include <QSet>
#include <QString>

#include <zo/file.h>
#include <zo/owner.h>
#include <zo/treewalk.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
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
    // Pending swap files stay on disk for recovery; while this process runs, they keep its
    // owner marks.
    ~ProjectVFS_Impl();
    ProjectVFS_Impl(const ProjectVFS_Impl&) = delete;
    ProjectVFS_Impl& operator=(const ProjectVFS_Impl&) = delete;

    bool isNotCommitted() const;
    bool isNotCommitted(const QString& path) const;

    // Before what reads path's swap file: what its open handles buffer is written out.
    // @throws the error of a handle whose write failed, as a commit would
    void writeOutHandles(const QString& path);

    QString makeSwapPath(const QString& path) const;
    QString makeBackupPath(const QString& path) const;
    const QString& swapExtension() const { return _swapExt; }

    // The swap files below the root when it was last set, as the walk that put back the
    // sources of interrupted commits found them.
    std::vector<ProjectVFS::RecoverableInfo> foundWhenOpened;
    // The sources that walk put back from their backups.
    std::vector<QString> restoredWhenOpened;
    // The interrupted saves that opening left, and whether opening leaves them all.
    std::vector<ProjectVFS::InterruptedSave> savesLeftWhenOpened;
    ProjectVFS::Unfinished unfinished = ProjectVFS::Unfinished::Complete;
    // The listings the walks for what ended processes left read, for the next such walk.
    zo::os::ListingCache leftBelowListings;

    // Called with true when the table gains its only entry and with false whenever a removal
    // leaves it empty; both may repeat. Must never be empty.
    std::function<void(bool)> notCommittedChanged;

    // A handle whose write, flush or close failed left its swap file short of what was written;
    // the entry cannot be committed until it is discarded or refreshed from its source.
    void markDamaged(const QString& path);

    // What path names, links followed, as an absolute path: where a commit of it goes.
    // exception::PathOutsideProject when that is outside the root.
    QString resolvedPath(const QString& path) const;
    // The same through resolver, which remembers the directories for the next paths.
    QString resolvedPath(const QString& path, zo::os::BeneathResolver& resolver) const;
    // Refuses a path outside the root (exception::PathOutsideProject); with followLastLink
    // false, a last component that is a link may lead anywhere, as the link itself is meant.
    void requireInside(const QString& path, bool followLastLink) const;

    // Handles open on a swap file, whose buffers a commit writes out and which a commit or
    // discard closes.
    void handleOpened(VFSFile* handle) { _openOnSwap.insert(handle); }
    void handleClosed(VFSFile* handle) { _openOnSwap.remove(handle); }

    // This process's owner mark of the root, made before its first swap file there and let go
    // when nothing is pending any more; null (and logged) where the root refuses it.
    std::shared_ptr<zo::os::OwnerMark> ownerMark();
    // This process's owner mark in the directory of swap, the swap file of path, made before
    // the swap file and let go with the root's: a swap file is never made without one.
    // exception::CreateSwapFile naming path where the directory refuses it.
    std::shared_ptr<zo::os::OwnerMark> markBeside(const QString& path, const QString& swap);
    // The source version a pending path's swap file was made from (none for a new file), kept
    // here and noted in the owner mark for whoever recovers it after a crash, with what the
    // swap file holds (sealContent) unless it is about to be rewritten.
    void recordSource(
        const QString& path, const std::optional<zo::os::FileVersion>& source, bool sealed = true);
    // Notes in the owner mark what the pending path's swap file holds now. Swap files are not
    // synced until they are committed, so that after the machine stopped, recovery tells one
    // that holds what this process wrote from a torn one (OwnerMarks::mayBeTorn).
    void sealContent(const QString& path);
    // Gives the swap file (absolute) the time of now: its marks are judged to be its owner's
    // only when made before its last write, which a moved, copied or taken-over file keeps.
    static void stampAsWrittenNow(const QString& swap);
    // Records the current version of the path's source.
    void recordCurrentSource(const QString& path);
    // Whether another program changed the pending path's source since it was recorded.
    bool sourceChanged(const QString& path) const;
    bool sourceChanged(const QString& path, zo::os::BeneathResolver& resolver) const;

    // The pending paths as given, in order.
    QStringList pendingPaths() const { return _entries.keys(); }
    // The swap file of a pending path joined to the root; empty when nothing is pending.
    QString pendingSwap(const QString& path) const { return _entries.value(path); }
    // Where the path's current content lives: its pending swap file, else the file itself.
    QString currentPath(const QString& path) const;

    // A swap file on disk that is not in the table is another process's (of the same id in
    // another pid namespace, or an earlier one): never written, renamed or removed.
    // exception::SwapFileAlreadyExists when swap (absolute) is such a file (a directory or a link
    // there is no swap file).
    void requireOwnSwap(const QString& path, const QString& swap) const;
    // Whether swap (absolute) is the swap file of an entry.
    bool isOwnSwap(const QString& swap) const;
    // Leaves every pending file for recovery, as destruction does: for a new root.
    void forgetPending();

    void addEntry(const QString& path, const QString& swapPath);
    void removeEntry(const QString& path);
    // sourceMovedAlong: the source moved with the swap file, unchanged since it was recorded,
    // and is recorded again as it now is at the new path.
    void moveEntry(const VFSFile& file, const QString& oldPath, bool sourceMovedAlong);

    // Existence through the pending swap file when there is one.
    bool hasFile(const QString& path) const;
    bool hasPath(const QString& path) const;
    // The file is on disk, or pending with its swap file on disk.
    bool existsOrPending(const QString& path) const;

    // The swap file made as a copy of the source, or empty for a new file. One about to be
    // truncated (contentKept false) goes unsealed until written: a seal of the copy would not
    // hold for a moment.
    QString createSwapFile(const QString& path, const QString& swapPath, bool contentKept = true);
    void commit(VFSFile& file, ProjectVFS::SourceChanges changes);
    void discard(VFSFile& file);
    void remove(VFSFile& file);
    void copy(VFSFile& file, const QString& newPath, bool overwrite);
    void move(VFSFile& file, const QString& newPath, bool overwrite);
    // Replaces a pending swap file by the current content of its source.
    void updateFromSource(const QString& path);

    // Every pending file in path order, without telling the handler. commitAll stops at the
    // first failure, which leaves that file and every later one pending.
    void commitAll(ProjectVFS::SourceChanges changes);
    void discardAll();

private:
    using Entries = QMap<QString, QString>;

    Entries::iterator removeEntry(const Entries::iterator& it);

    // The directories of a commit, each resolved once and opened beneath the root without
    // following a link. However many files a commit has, only a few stay open; a directory
    // closed meanwhile is opened again only as the same directory, so that one replaced (by a
    // link or anything else) leads nowhere else.
    class CommitDirectories {
    public:
        explicit CommitDirectories(std::string root);
        // Resolves the paths of this commit.
        zo::os::BeneathResolver& resolver() { return _resolver; }
        // directory (absolute, below the root, no link in it) open; -1 with errno set when it
        // cannot be opened or is no longer the directory it was when first opened here.
        int at(const std::string& directory);
        // The identity directory had when this commit first opened it; none if it never did.
        std::optional<zo::os::FileIdentity> identityOf(const std::string& directory) const;
        // Syncs each file system this commit opened a directory on, through a directory held
        // open for it since, so that none needs opening again; false at the first that fails.
        bool syncFileSystems() const;

    private:
        struct Open {
            zo::os::UniqueFd descriptor;
            std::uint64_t lastUse = 0;
        };
        const std::string _root;
        zo::os::BeneathResolver _resolver;
        std::map<std::string, Open> _open;
        std::map<std::string, zo::os::FileIdentity> _identities;
        // By device: the first directory opened on it.
        std::map<std::uint64_t, zo::os::UniqueFd> _fileSystems;
        std::uint64_t _uses = 0;
    };

    // One file's commit, from its durable swap file to its renames. The paths are absolute,
    // for messages and the journal; source is where the content goes, a link's target. The
    // renames go through the directories opened when the commit was prepared, so that a
    // directory replaced by a link meanwhile leads nowhere else.
    struct StagedCommit {
        StagedCommit(const QString& path, const QString& source, const QString& swap,
            const QString& backup, std::string swapDirectory, CommitDirectories& directories);
        QString path; // as given, for messages
        QString source;
        QString swap;
        QString backup;
        std::string sourceDirectory;
        std::string swapDirectory;
        // The last components of the three paths, for the calls at their directories.
        QByteArray sourceName;
        QByteArray backupName;
        QByteArray swapName;
        CommitDirectories* directories;
        // The swap file and the source as the commit was prepared; for the journal.
        zo::os::FileIdentity newContent;
        std::optional<zo::os::FileStatus> oldContent;
        // Whether a change another program made to the source stops the commit.
        bool refusesChanges = true;
        bool backedUp = false;
        bool swapRenamed = false;
        int sourceAt() const { return directories->at(sourceDirectory); }
        int swapAt() const { return directories->at(swapDirectory); }
    };
    // Checks the pending path, and makes its swap file durable unless the caller syncs a batch
    // of them; nothing is renamed yet.
    StagedCommit prepareCommit(const QString& path, ProjectVFS::SourceChanges changes,
        CommitDirectories& directories, bool syncSwap);
    static bool swapDurable(const StagedCommit& staged);
    // Makes the swap files of a batch durable: each one synced, or for many, each file system
    // they lie on once. Returns how many of the first ones are durable.
    static std::size_t durableSwaps(const std::vector<StagedCommit>& batch);
    // Makes the renames of [first, last) durable: each directory synced once, or for many,
    // each file system once. Returns the first whose renames are not known durable.
    static std::vector<StagedCommit>::iterator renamesDurable(
        std::vector<StagedCommit>::iterator first, std::vector<StagedCommit>::iterator last);
    // Renames the source to its backup and the swap file to the source; a failure undoes both.
    // exception::SourceFileChanged when what it would rename is not what preparing found.
    void renameCommit(StagedCommit& staged);
    void undoCommit(const StagedCommit& staged);
    // Removes the backup of a durable commit; with changes refused, one another program wrote
    // to since (through a handle it held on the old file) stays, and is logged.
    static void removeBackup(const StagedCommit& staged);
    // Whether the backup is still the source the commit was prepared for.
    static bool backupAsPrepared(const StagedCommit& staged);
    // Syncs the directories of a commit once each; false at the first that fails.
    static bool madeDurable(const StagedCommit& staged, std::vector<zo::os::FileIdentity>& synced);
    void commitFile(
        const QString& path, ProjectVFS::SourceChanges changes, CommitDirectories& directories);

    // forgetPending without closing handles or telling the handler.
    void leavePending();

    void throwIfDamaged(const QString& path) const;
    void throwIfSourcesChanged(const QStringList& paths, zo::os::BeneathResolver& resolver) const;
    // Writes out what the handles open on path's swap file buffer; a failure damages the entry.
    void flushHandles(const QString& path);
    void closeHandles(const QString& path);

    // Key: the file's path as given; value: its swap file, absolute.
    Entries _entries;
    // The swap files of the entries.
    QSet<QString> _swaps;
    QSet<QString> _damaged;
    QHash<QString, std::optional<zo::os::FileVersion>> _sources;
    QSet<VFSFile*> _openOnSwap;
    // By directory, absolute: the root's (null where it refused a mark) and those of the swap
    // files' directories.
    std::map<QString, std::shared_ptr<zo::os::OwnerMark>> _marks;
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
