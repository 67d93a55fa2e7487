#pragma once

#include <zo/project/project.h>
#include <zo/project/zoprojectqt_export.h>

#include <QDir>
#include <QMap>
#include <QMetaType>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>

namespace zo::project {

/// How one file changed between two checks.
enum FileSystemEvent : int {
    Added = 0, ///< the file is new
    Removed = 1, ///< the file is gone
    Modified = 2 ///< its modification time or size changed
};

namespace detail {
class StampTable;
class WatchedTree;
class WatchSnapshot;
} // namespace detail

/// Polls a project tree for changes made by others: each check lists every file below the root
/// (links followed, never back into a directory on its own descent path) and compares each
/// file's modification time and size with the previous check. Changes are reported as signals,
/// one per path (added, then modified, then removed), then the whole map, only while watching;
/// a check while not watching updates the snapshot silently. Keys are the root's
/// QDir::filePath of each file. Reads the disk, never writes it. Use from the thread that owns
/// the object.
///
/// Where the kernel reports changes (inotify on a local file system), a check reads again only
/// the directories it reported changed, and those on the way down to them: the same signals at
/// the same check, for next to no work while nothing changes. Directories reached through a
/// link, and those holding a link or a file with several names, are read at every check. Lost
/// notices (a full queue, the root moved, a file system mounted or unmounted) make the next
/// check read everything; a network or FUSE file system anywhere in the tree, or the per-user
/// limit of watches, makes every check list the whole tree from then on. A change that updates
/// a file's time without the kernel reporting it (a write through a shared memory map) is seen
/// once something else in its directory changes.
class ZOPROJECTQT_EXPORT ProjectWatcher : public QObject, private QDir, public Project {
    Q_OBJECT

public:
    /// Suspends watching for its lifetime, so that the owner's own writes are absorbed into the
    /// snapshot instead of being reported. A blocker made by moving never restores anything;
    /// the one it was moved from still does.
    class ZOPROJECTQT_EXPORT Blocker {
    public:
        /// Stops watcher's polling until destruction, remembering whether it was on.
        explicit Blocker(ProjectWatcher* watcher);
        /// A blocker that restores nothing.
        Blocker(Blocker&& other) noexcept;
        /// Restores watching as it was; re-enabling takes a fresh snapshot, which absorbs the
        /// owner's writes.
        ~Blocker();
        Blocker(const Blocker&) = delete;
        Blocker& operator=(const Blocker&) = delete;
        Blocker& operator=(Blocker&&) = delete;

    private:
        ProjectWatcher* watcher;
        bool wasWatching;
    };

    /// The poll period unless setInterval() says otherwise, in milliseconds.
    static constexpr int kDefaultIntervalMs = 5000;

    /// A watcher of project's root, not yet watching; hidden files count when showHidden.
    ProjectWatcher(zo::project::Project project, bool showHidden, QObject* parent);
    /// A watcher of the directory (or single file) at path, not yet watching.
    ProjectWatcher(const QString& path, bool showHidden, QObject* parent);
    ~ProjectWatcher() override;

    /// Whether the poll timer runs.
    bool isWatching() const;
    /// Enabling takes a fresh snapshot of times and sizes without reporting additions or
    /// removals, then starts the poll timer unless it runs already; disabling stops it.
    void enableWatching(bool enable);
    /// The poll period; a running timer restarts with the new one.
    void setInterval(int milliseconds);
    /// The poll period in milliseconds.
    int interval() const;
    /// Whether checks may rely on the kernel's change notices (the default) or list the whole
    /// tree every time. Switching them off drops the kernel's watches at once.
    void setEventAssisted(bool assisted);

    /// The watched root.
    const QDir& directory() const;

    /// Every file below relPath (a file itself when relPath names one), as keys.
    QStringList xListAllPaths(const QString& relPath);

Q_SIGNALS:
    /// One path changed; emitted per path during a check while watching.
    void contentChanged(const QString&, zo::project::FileSystemEvent);
    /// Every change one check found, by key (removals below a removed directory left out).
    void contentChanged(const QMap<QString, zo::project::FileSystemEvent>& changes);

public Q_SLOTS:
    /// Checks now. A non-empty referenceList replaces the set of paths known from the previous
    /// check, as keys; a path outside the root that it names is reported removed.
    void checkPendingChanges(const QSet<QString>& referenceList = QSet<QString>());

protected:
    /// Runs a check on each tick of the poll timer.
    void timerEvent(QTimerEvent* event) override;

private:
    std::unique_ptr<detail::StampTable> xListing();
    void xCheck(std::unique_ptr<detail::StampTable> listing, bool listingIsKnown);

    int timerId = 0;
    bool showHidden;
    int intervalMs = kDefaultIntervalMs;
    bool eventAssisted = true;
    std::unique_ptr<detail::WatchSnapshot> snapshot;
    std::unique_ptr<detail::WatchedTree> tree; // null until the first check, and without events
};

} // namespace zo::project

Q_DECLARE_METATYPE(zo::project::FileSystemEvent)
