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

// How one file changed between two checks.
enum FileSystemEvent : int { Added = 0, Removed = 1, Modified = 2 };

namespace detail {
class WatchSnapshot;
}

// Polls a project tree for changes made by others: each check lists every file below the root
// (links followed, never back into a directory on its own descent path) and compares each
// file's modification time and size with the previous check. Changes are reported as signals,
// one per path (added, then modified, then removed), then the whole map, only while watching;
// a check while not watching updates the snapshot silently. Keys are the root's
// QDir::filePath of each file. Use from the thread that owns the object.
class ZOPROJECTQT_EXPORT ProjectWatcher : public QObject, private QDir, public Project {
    Q_OBJECT

public:
    // Suspends watching for its lifetime, so that the owner's own writes are absorbed into the
    // snapshot instead of being reported. A blocker made by moving never restores anything;
    // the one it was moved from still does.
    class ZOPROJECTQT_EXPORT Blocker {
    public:
        explicit Blocker(ProjectWatcher* watcher);
        Blocker(Blocker&& other) noexcept;
        ~Blocker();
        Blocker(const Blocker&) = delete;
        Blocker& operator=(const Blocker&) = delete;
        Blocker& operator=(Blocker&&) = delete;

    private:
        ProjectWatcher* watcher;
        bool wasWatching;
    };

    static constexpr int kDefaultIntervalMs = 5000;

    ProjectWatcher(zo::project::Project project, bool showHidden, QObject* parent);
    ProjectWatcher(const QString& path, bool showHidden, QObject* parent);
    ~ProjectWatcher() override;

    bool isWatching() const;
    // Enabling takes a fresh snapshot of times and sizes without reporting additions or
    // removals, then starts the poll timer unless it runs already.
    void enableWatching(bool enable);
    // The poll period; a running timer restarts with the new one.
    void setInterval(int milliseconds);
    int interval() const;

    // The watched root.
    const QDir& directory() const;

    // Every file below relPath (a file itself when relPath names one), as keys.
    QStringList xListAllPaths(const QString& relPath);

signals:
    void contentChanged(const QString&, zo::project::FileSystemEvent);
    void contentChanged(const QMap<QString, zo::project::FileSystemEvent>& changes);

public slots:
    // A non-empty referenceList replaces the set of paths known from the previous check.
    void checkPendingChanges(const QSet<QString>& referenceList = QSet<QString>());

protected:
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
