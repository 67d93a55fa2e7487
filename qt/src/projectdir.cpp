#include <zo/project/projectdir.h>

#include "projectcommon.h"

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/vfsfile.h>

#include <QDir>

#include <utility>

namespace zo::project {

ProjectWatcher& ProjectDir::xRequireWatcher() const
{
    if (!_watcher)
        throw exception::ProjectPathDoesNotExists(std::string());
    return *_watcher;
}

template <typename Operation> void ProjectDir::xBlocked(const Operation& operation)
{
    const ProjectWatcher::Blocker blocker(&xRequireWatcher());
    operation();
}

// The facade of a project without a path sits on "." (QDir's reading of an empty path) and
// no watcher exists; xRequireWatcher keeps file operations away from that directory.
ProjectDir::ProjectDir()
    : ProjectVFS(QString())
    , _notifier(std::make_unique<detail::Notifier2>())
{
}

ProjectDir::ProjectDir(const QString& path)
    : ProjectVFS(path)
    , _watcher(std::make_unique<ProjectWatcher>(path, false, nullptr))
    , _notifier(std::make_unique<detail::Notifier2>())
{
    init();
}

ProjectDir::ProjectDir(ProjectDir&& other)
    : ProjectVFS(std::move(other))
    , _watcher(std::move(other._watcher))
    , _notifier(std::exchange(other._notifier, std::make_unique<detail::Notifier2>()))
    , _saved(std::exchange(other._saved, true))
    , _watching(std::exchange(other._watching, false))
{
    // The object moved from becomes a project without a path rather than one without an engine.
    static_cast<ProjectVFS&>(other) = ProjectVFS(QString());
    if (_watcher) {
        // Those connections call back into the object moved from.
        QObject::disconnect(_watcher.get(), nullptr, _notifier.get(), nullptr);
        init();
    }
}

ProjectDir::~ProjectDir() = default;

QString ProjectDir::path() const
{
    return _watcher ? ProjectVFS::path() : QString();
}

void ProjectDir::load(const QString& path)
{
    setPath(path);
    setSaved(true);
}

void ProjectDir::createNew(const QString& path)
{
    // Checked before the pending edits go, so that a mistyped path loses nothing.
    if (!QDir(ProjectVFS::path()).exists(path))
        throw exception::ProjectPathDoesNotExists(path.toUtf8().toStdString());
    discard();
    setPath(path);
    setSaved(false);
}

void ProjectDir::setPath(const QString& path)
{
    if (_watcher && path == ProjectVFS::path())
        return;
    auto watcher = std::make_unique<ProjectWatcher>(path, false, nullptr);
    // A project without a path has the root "." already, which the facade would refuse.
    if (path != ProjectVFS::path())
        ProjectVFS::setPath(path);
    const std::unique_ptr<ProjectWatcher> previous = std::exchange(_watcher, std::move(watcher));
    _watcher->enableWatching(_watching);
    init();
}

void ProjectDir::close()
{
    discard();
}

void ProjectDir::save(SourceChanges changes)
{
    xBlocked([this, changes] { commit(changes); });
    setSaved(true);
}

QByteArray ProjectDir::readFile(const QString& path)
{
    xRequireWatcher();
    return open(path, QIODevice::ReadOnly)->readAll();
}

void ProjectDir::writeFile(const QString& path, const QByteArray& data)
{
    xRequireWatcher();
    const std::unique_ptr<VFSFile> file = open(path, QIODevice::WriteOnly | QIODevice::Truncate);
    detail::writeWhole(*file, data, filePath(path));
    setSaved(false);
}

void ProjectDir::importFile(const QString& source, const QString& destination, bool overwrite)
{
    xBlocked([&] { ProjectVFS::importFile(source, destination, overwrite); });
    setSaved(false);
}

void ProjectDir::move(const QString& source, const QString& destination, bool overwrite)
{
    xBlocked([&] { ProjectVFS::move(source, destination, overwrite); });
    setSaved(false);
}

void ProjectDir::remove(const QString& path)
{
    xBlocked([&] { ProjectVFS::remove(path); });
    setSaved(false);
}

void ProjectDir::mkdir(const QString& path, bool recursive)
{
    xRequireWatcher();
    detail::makeDirectory(filePath(path), recursive, [&] {
        bool made = false;
        xBlocked([&] { made = recursive ? ProjectVFS::mkpath(path) : ProjectVFS::mkdir(path); });
        return made;
    });
}

void ProjectDir::exportFile(const QString& path, const QString& destination, bool overwrite)
{
    xRequireWatcher();
    detail::prepareExportDestination(destination);
    ProjectVFS::exportFile(path, destination, overwrite);
}

std::vector<ProjectVFS::RecoverableInfo> ProjectDir::recoverableFiles()
{
    xRequireWatcher();
    return ProjectVFS::recoverableFiles();
}

void ProjectDir::recoverFile(const ProjectVFS::RecoverableInfo& info)
{
    // The engine's handler reports the newly pending file.
    xBlocked([&] { ProjectVFS::recoverFile(info); });
}

void ProjectDir::abandonFile(const ProjectVFS::RecoverableInfo& info)
{
    xBlocked([&] { ProjectVFS::abandonFile(info); });
}

void ProjectDir::setWatching(bool on)
{
    _watching = on;
    if (_watcher)
        _watcher->enableWatching(on);
}

bool ProjectDir::isWatching() const
{
    return _watching;
}

bool ProjectDir::isSaved() const
{
    return _saved;
}

void ProjectDir::checkSourcePendingChanges(const QSet<QString>& paths)
{
    if (_watcher)
        _watcher->checkPendingChanges(paths);
}

detail::Notifier2* ProjectDir::notifier() const
{
    return _notifier.get();
}

void ProjectDir::setSaved(bool saved)
{
    if (saved == _saved)
        return;
    _saved = saved;
    emit _notifier->saved(saved);
}

void ProjectDir::init()
{
    setCommittedChangedHandler([this](bool notCommitted) { setSaved(!notCommitted); });
    QObject::connect(_watcher.get(),
        qOverload<const QMap<QString, FileSystemEvent>&>(&ProjectWatcher::contentChanged),
        _notifier.get(),
        [this](const QMap<QString, FileSystemEvent>& eventList) { cleanEventList(eventList); });
}

void ProjectDir::cleanEventList(const QMap<QString, FileSystemEvent>& eventList)
{
    if (eventList.isEmpty())
        return;
    QMap<QString, FileSystemEvent> kept;
    for (auto event = eventList.cbegin(); event != eventList.cend(); ++event) {
        const QString relative = relativeFilePath(event.key());
        // A file that still has a pending swap file is not gone for the project.
        if (event.value() == FileSystemEvent::Removed && exists(relative))
            continue;
        kept.insert(relative, event.value());
    }
    if (!kept.isEmpty())
        setSaved(false);
    emit _notifier->sourceProjectEvent(kept);
}

} // namespace zo::project
