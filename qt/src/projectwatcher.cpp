#include <zo/project/projectwatcher.h>

#include "paths.h"

#include "watchedtree.h"
#include "watchsnapshot.h"

#include <zo/treewalk.h>

#include <QFile>
#include <QTimerEvent>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zo::project {
namespace {

using FileVisitor = std::function<void(std::string_view path, const zo::os::FileStatus&)>;

// Every regular file below start (links followed), by path relative to start; start itself
// with an empty path when it is a file.
void forEachFile(const QString& start, bool showHidden, const FileVisitor& visit)
{
    const QByteArray startBytes = QFile::encodeName(start);
    const std::optional<zo::os::FileStatus> status = zo::os::status(startBytes.constData());
    if (!status)
        return;
    if (status->type == zo::os::EntryType::File) {
        visit(std::string_view(), *status);
        return;
    }
    zo::os::WalkOptions options;
    options.includeHidden = showHidden;
    zo::os::walkTree(startBytes.toStdString(), options, [&visit](const zo::os::WalkEntry& entry) {
        if (entry.type == zo::os::EntryType::File) {
            // A file removed since the directory was read is simply not there.
            if (const zo::os::FileStatus* fileStatus = entry.status())
                visit(entry.path, *fileStatus);
        }
        return zo::os::WalkStep::Continue;
    });
}

detail::FileStamp stampOf(const zo::os::FileStatus& status)
{
    return detail::FileStamp { status.modifiedMilliseconds(), static_cast<quint32>(status.size) };
}

// Drops the removals below a removed path from the map: the caller hears of the top one only.
void pruneNestedRemovals(QMap<QString, FileSystemEvent>& changes)
{
    QString prefix;
    QStringList nested;
    for (auto change = changes.cbegin(); change != changes.cend(); ++change) {
        if (change.value() != FileSystemEvent::Removed)
            continue;
        if (!prefix.isEmpty() && change.key().startsWith(prefix))
            nested.append(change.key());
        else
            prefix = change.key() + QLatin1Char('/');
    }
    for (const QString& key : nested)
        changes.remove(key);
}

} // namespace

ProjectWatcher::ProjectWatcher(zo::project::Project project, bool showHidden, QObject* parent)
    : QObject(parent)
    , QDir(QString::fromStdString(project.projectPath()))
    , Project(std::move(project))
    , showHidden(showHidden)
    , snapshot(std::make_unique<detail::WatchSnapshot>())
{
}

ProjectWatcher::ProjectWatcher(const QString& path, bool showHidden, QObject* parent)
    : ProjectWatcher(Project(path.toUtf8().toStdString()), showHidden, parent)
{
}

ProjectWatcher::~ProjectWatcher()
{
    enableWatching(false);
}

bool ProjectWatcher::isWatching() const
{
    return timerId != 0;
}

void ProjectWatcher::enableWatching(bool enable)
{
    if (enable) {
        QDir::refresh();
        xCheck(xListing(), true);
        if (timerId == 0)
            timerId = startTimer(intervalMs, Qt::CoarseTimer);
    } else if (timerId != 0) {
        killTimer(timerId);
        timerId = 0;
    }
}

void ProjectWatcher::setInterval(int milliseconds)
{
    intervalMs = milliseconds;
    if (timerId != 0) {
        killTimer(timerId);
        timerId = startTimer(intervalMs, Qt::CoarseTimer);
    }
}

int ProjectWatcher::interval() const
{
    return intervalMs;
}

void ProjectWatcher::setEventAssisted(bool assisted)
{
    eventAssisted = assisted;
    tree.reset();
}

const QDir& ProjectWatcher::directory() const
{
    return *this;
}

QStringList ProjectWatcher::xListAllPaths(const QString& relPath)
{
    QStringList paths;
    forEachFile(QDir::filePath(relPath), showHidden,
        [this, &relPath, &paths](std::string_view path, const zo::os::FileStatus&) {
            const QString child = detail::decodedPath(path);
            paths.append(QDir::filePath(child.isEmpty() ? relPath
                    : relPath.isEmpty()                 ? child
                                                        : relPath + QLatin1Char('/') + child));
        });
    return paths;
}

void ProjectWatcher::checkPendingChanges(const QSet<QString>& referenceList)
{
    QDir::refresh();
    std::unique_ptr<detail::StampTable> listing = xListing();
    if (!referenceList.isEmpty()) {
        // The reference list replaces what is compared with, so the listing must be whole.
        if (!listing)
            listing = std::make_unique<detail::StampTable>(
                snapshot->listingAfter(detail::PartialListing()));
        // Keys are filePath(relative path); anything else never matches a listed file.
        const QString path = QDir::path();
        const QString x = QDir::filePath(QStringLiteral("x"));
        const QString prefix = x.left(x.size() - 1);
        std::vector<std::string> relativePaths;
        QStringList outsidePaths;
        for (const QString& key : referenceList) {
            const QString rest = key.mid(prefix.size());
            if (key.startsWith(prefix) && !rest.isEmpty() && QDir::filePath(rest) == key)
                relativePaths.push_back(QFile::encodeName(rest).toStdString());
            else if (key == path)
                relativePaths.emplace_back();
            else
                outsidePaths.append(key);
        }
        snapshot->setKnown(relativePaths, outsidePaths);
    }
    xCheck(std::move(listing), false);
}

void ProjectWatcher::timerEvent(QTimerEvent* event)
{
    if (event->timerId() == timerId)
        checkPendingChanges(QSet<QString>());
}

// The files of the tree now; null when nothing changed since the last listing.
std::unique_ptr<detail::StampTable> ProjectWatcher::xListing()
{
    if (eventAssisted && !tree)
        tree = std::make_unique<detail::WatchedTree>(
            QFile::encodeName(QDir::path()).toStdString(), showHidden);
    if (tree) {
        detail::PartialListing read;
        switch (tree->readChanges(read)) {
        case detail::WatchedTree::Outcome::Unchanged:
            return nullptr;
        case detail::WatchedTree::Outcome::Read:
            return std::make_unique<detail::StampTable>(snapshot->listingAfter(std::move(read)));
        case detail::WatchedTree::Outcome::Lost:
            eventAssisted = false;
            tree.reset();
            break;
        }
    }
    auto listing = std::make_unique<detail::StampTable>();
    forEachFile(QDir::path(), showHidden,
        [&listing](std::string_view path, const zo::os::FileStatus& status) {
            listing->append(path, stampOf(status), true, true);
        });
    return listing;
}

void ProjectWatcher::xCheck(std::unique_ptr<detail::StampTable> listing, bool listingIsKnown)
{
    // The snapshot's last listing stands: nothing to add, remove or report.
    if (!listing)
        return;
    // An empty listing makes no reference list: the check then compares with the last one.
    const bool adoptListing = listingIsKnown && !listing->empty();
    const bool reporting = isWatching();
    detail::WatchChanges changes;
    snapshot->update(std::move(*listing), adoptListing, reporting ? &changes : nullptr);
    if (!reporting)
        return;

    QMap<QString, FileSystemEvent> changeMap;
    const auto announce = [this, &changeMap](const QString& key, FileSystemEvent event) {
        changeMap.insert(key, event);
        if (isWatching())
            emit contentChanged(key, event);
    };
    for (const auto& [paths, event] : { std::pair(&changes.added, FileSystemEvent::Added),
             std::pair(&changes.modified, FileSystemEvent::Modified),
             std::pair(&changes.removed, FileSystemEvent::Removed) })
        for (const std::string& path : *paths)
            announce(QDir::filePath(detail::decodedPath(path)), event);
    for (const QString& key : changes.removedOutside)
        announce(key, FileSystemEvent::Removed);
    pruneNestedRemovals(changeMap);
    if (!changeMap.isEmpty() && isWatching())
        emit contentChanged(changeMap);
}

ProjectWatcher::Blocker::Blocker(ProjectWatcher* target)
    : watcher(target)
    , wasWatching(target->isWatching())
{
    target->enableWatching(false);
}

ProjectWatcher::Blocker::Blocker(Blocker&& other) noexcept
    : watcher(nullptr)
    , wasWatching(other.wasWatching)
{
}

ProjectWatcher::Blocker::~Blocker()
{
    if (watcher != nullptr)
        watcher->enableWatching(wasWatching);
}

} // namespace zo::project
