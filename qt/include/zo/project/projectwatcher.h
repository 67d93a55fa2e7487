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
class WatchSnapshot;
}

/// Polls a project tree for changes made by others: each check lists every file below the root
/// (links followed, never back into a directory on its own descent path) and compares each
/// file's modification time and size with the previous check. Changes are reported as signals,
/// one per path (added, then modified, then removed), then the whole map, only while watching;
/// a check while not watching updates the snapshot silently. Keys are the root's
/// QDir::filePath of each file. Reads the disk, never writes it. Use from the thread that owns
/// the object.
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
    void xCheck(bool listingIsKnown);

    int timerId = 0;
    bool showHidden;
    int intervalMs = kDefaultIntervalMs;
    std::unique_ptr<detail::WatchSnapshot> snapshot;
};

} // namespace zo::project

Q_DECLARE_METATYPE(zo::project::FileSystemEvent)
