#include <zo/project/projectmodel.h>

#include "liveness.h"
#include "paths.h"
#include "projectcommon.h"
#include "workspace.h"

#include <zo/file.h>
#include <zo/leftover.h>
#include <zo/os.h>
#include <zo/owner.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/project.h>

#include <QAbstractEventDispatcher>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>

#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <utility>

namespace zo::project {

namespace detail {

// Between a model and the reports of its source watchers, which arrive on the watchers' thread:
// a model that goes waits for the report it is running, and gets none after.
struct SourceGate {
    explicit SourceGate(ProjectModel* model)
        : model(model)
    {
    }
    // Recursive: a report may make its own model go.
    std::recursive_mutex mutex;
    ProjectModel* model; // null once the model is gone
    // The watcher whose report runs the model's slots now; only used on the watchers' thread.
    const ProjectWatcher* reporting = nullptr;
};

} // namespace detail

namespace {

// Runs work on object's thread: now when called there, else queued to its event loop. Dropped
// when object goes first.
template <typename Work> void runOnThreadOf(QObject* object, Work work)
{
    if (QThread::currentThread() == object->thread())
        work();
    else
        QMetaObject::invokeMethod(object, std::move(work), Qt::QueuedConnection);
}

// Starts or stops the watcher's timer on its own thread, which alone may do it. A second start
// would take a new snapshot and report what changed since the last check, signals that must
// not be emitted under the caller's lock.
void applyWatching(ProjectWatcher* watcher, bool enable)
{
    runOnThreadOf(watcher, [watcher, enable] {
        if (watcher->isWatching() != enable)
            watcher->enableWatching(enable);
    });
}

std::shared_ptr<const zo::os::FileVersion> held(const std::optional<zo::os::FileVersion>& version)
{
    return version ? std::make_shared<const zo::os::FileVersion>(*version) : nullptr;
}

std::optional<zo::os::FileVersion> unheld(const std::shared_ptr<const zo::os::FileVersion>& version)
{
    return version ? std::optional<zo::os::FileVersion>(*version) : std::nullopt;
}

using detail::removeQuietly;
using detail::utf8;

// Up to the first NUL byte, as a C string would end.
QString fromUtf8(const std::string& text)
{
    return QString::fromUtf8(text.c_str());
}

// Judged by the owner marks in the temporary directory, which a model makes before its
// workspace.
bool hasEnded(const ProjectModel::RecoverableWorkspace& workspace)
{
    return zo::os::OwnerMarks()
               .judge(detail::encoded(workspace.path).toStdString(), workspace.pid)
               .liveness
        == zo::os::Liveness::Ended;
}

std::optional<zo::os::FileVersion> versionOf(const QString& path)
{
    return zo::os::versionOf(detail::encoded(path).constData());
}

void requireWorkspace(const ProjectModel::RecoverableWorkspace& workspace)
{
    const int owner = detail::ownerOfWorkspace(QFileInfo(workspace.path).fileName());
    if (owner <= 0 || owner != workspace.pid || !QFileInfo(workspace.path).isDir())
        throw PathNotFound(utf8(workspace.path + QStringLiteral(" is not a project workspace")));
}

} // namespace

QString xGetNewTempPath()
{
    const QString prefix
        = QDir::tempPath() + QStringLiteral("/zo_project_model_%1_").arg(zo::os::getpid());
    for (unsigned long long n = 0;; ++n) {
        const QString path = prefix + QString::number(n);
        if (!QFile::exists(path))
            return path;
    }
}

ProjectModel::ProjectModel()
    : _mark(detail::holdOwnerMark(QDir::tempPath()))
    , _notifier(std::make_unique<detail::Notifier>())
    , _gate(std::make_shared<detail::SourceGate>(this))
{
    qRegisterMetaType<QMap<QString, FileSystemEvent>>(
        "QMap<QString, zo::project::FileSystemEvent>");
    // What killed models left beside their workspaces: unpacks, records being written.
    zo::os::removeEndedLeftovers(detail::encoded(QDir::tempPath()).toStdString());
    createNew();
}

ProjectModel::ProjectModel(ProjectModel&& other)
    : _gate(std::make_shared<detail::SourceGate>(this))
{
    // In the order the destructor takes them: no report of other runs meanwhile.
    const std::lock_guard gate(other._gate->mutex);
    const QMutexLocker lock(&other._mutex);
    const QMutexLocker watcherLock(&other._watcherMutex);
    _mark = other._mark;
    _notifier = std::move(other._notifier);
    _sourceVersion = other._sourceVersion;
    xSetSource(other.getSourcePath(), other._sourceFormat);
    other.xSetSource(QString(), ArchiveFormat::Native);
    _sourceWatcher = std::move(other._sourceWatcher);
    _project = std::move(other._project);
    _watching = other._watching.exchange(false);
    _saved = other._saved.exchange(true);
}

ProjectModel::~ProjectModel()
{
    {
        const std::lock_guard gate(_gate->mutex);
        _gate->model = nullptr;
    }
    {
        const QMutexLocker lock(&_mutex);
        xReset();
    }
    _notifier.reset();
}

void ProjectModel::createNew()
{
    const QMutexLocker lock(&_mutex);
    xReset();
    const QString workspace = detail::createWorkspaceDirectory();
    try {
        makeProject(utf8(workspace));
    } catch (...) {
        removeQuietly(workspace);
        throw;
    }
    _project = std::make_unique<ProjectWatcher>(workspace, true, nullptr);
    detail::writeRecord(workspace, { QString(), ArchiveFormat::Native, std::nullopt });
    xSetSaved(false);
}

void ProjectModel::load(const QString& path, ArchiveFormat format)
{
    const QMutexLocker lock(&_mutex);
    // Seen before the import, so that a change made during it shows at the next save.
    const std::optional<zo::os::FileVersion> version = versionOf(path);
    const QString workspace = detail::createWorkspaceDirectory();
    try {
        importProject(utf8(path), utf8(workspace), format);
    } catch (...) {
        removeQuietly(workspace);
        throw;
    }
    xReset();
    _project = std::make_unique<ProjectWatcher>(workspace, true, nullptr);
    xWatchSource(path);
    // Detected, also when the caller named the format.
    xSetSource(path, detectFormat(utf8(path)));
    _sourceVersion = held(version);
    detail::writeRecord(workspace, { path, _sourceFormat, version });
    xSetSaved(true);
}

void ProjectModel::save(
    const QString& path, ArchiveFormat format, bool /*safe*/, ProjectVFS::SourceChanges changes)
{
    const QMutexLocker lock(&_mutex);
    const QString target = path.isEmpty() ? getSourcePath() : path;
    if (target.isEmpty())
        throw PathNotFound(utf8(target));
    const bool toSource = !getSourcePath().isEmpty()
        && QFileInfo(target).absoluteFilePath() == QFileInfo(getSourcePath()).absoluteFilePath();
    if (toSource && changes == ProjectVFS::SourceChanges::Refuse
        && versionOf(target) != unheld(_sourceVersion))
        throw exception::SourceFileChanged({ utf8(target) });
    ArchiveFormat chosen = format;
    if (format == ArchiveFormat::Native) {
        chosen = _sourceFormat;
    } else if (format == ArchiveFormat::Auto) {
        try {
            chosen = detectFormat(utf8(target));
        } catch (const UnsupportedFormat&) {
            chosen = ArchiveFormat::Zip;
        }
    }

    // Every export replaces its target whole or not at all by itself. Only a tree that replaces
    // a directory is built beside it first, as a directory cannot be renamed over another one.
    const QFileInfo targetInfo(target);
    const bool intoDirectory
        = chosen == ArchiveFormat::Directory && targetInfo.isDir() && !targetInfo.isSymLink();
    // Held from before the hidden tree is made until it has replaced the target.
    const std::shared_ptr<zo::os::OwnerMark> mark
        = zo::os::OwnerMark::holdBeside(detail::encoded(target).toStdString());
    const QString output = intoDirectory ? detail::temporaryPathBeside(target) : target;
    bool exported = false;
    try {
        exportProject(_project->projectPath(), utf8(output), chosen);
        exported = true;
        if (intoDirectory)
            detail::replaceDirectory(output, target);
    } catch (...) {
        if (intoDirectory && !exported)
            removeQuietly(output);
        xSetSaved(false);
        try {
            throw;
        } catch (const std::exception& error) {
            throw IOWriteError(error.what());
        } catch (...) {
            throw IOWriteError("");
        }
    }

    xWatchSource(target);
    xSetSource(target, chosen);
    _sourceVersion = held(versionOf(target));
    detail::writeRecord(_project->directory().path(), { target, chosen, unheld(_sourceVersion) });
    xSetSaved(true);
}

void ProjectModel::enableWatching(bool enable)
{
    if (enable && _notifier && !QAbstractEventDispatcher::instance(_notifier->thread()))
        throw std::logic_error("cannot watch the source: the thread that made the archive project "
                               "runs no Qt event loop");
    const QMutexLocker lock(&_watcherMutex);
    _watching = enable;
    if (_sourceWatcher)
        applyWatching(_sourceWatcher.get(), enable);
}

bool ProjectModel::isWatching() const
{
    return _watching;
}

bool ProjectModel::isSaved() const
{
    return _saved;
}

detail::Notifier* ProjectModel::notifier() const
{
    return _notifier.get();
}

void ProjectModel::checkSourcePendingChanges(const QSet<QString>& referenceList)
{
    std::shared_ptr<ProjectWatcher> watcher;
    {
        const QMutexLocker lock(&_watcherMutex);
        watcher = _sourceWatcher;
    }
    if (watcher)
        runOnThreadOf(watcher.get(), [checked = watcher.get(), referenceList] {
            checked->checkPendingChanges(referenceList);
        });
}

void ProjectModel::onSourceContentChanged(const QMap<QString, FileSystemEvent>& events)
{
    const QString path = getSourcePath();
    const QDir source(path);
    xRelay(path.isEmpty() ? nullptr : &source, events);
}

QString ProjectModel::getSourcePath() const
{
    const QMutexLocker lock(&_sourcePathMutex);
    return _sourcePath;
}

ArchiveFormat ProjectModel::xGetSourceFormat()
{
    return _sourceFormat;
}

bool ProjectModel::hasFile(const QString& relative) const
{
    const QMutexLocker lock(&_mutex);
    return QFileInfo(xResolve(relative)).isFile();
}

bool ProjectModel::hasPath(const QString& relative) const
{
    const QMutexLocker lock(&_mutex);
    return QFileInfo::exists(xResolve(relative));
}

qint64 ProjectModel::fileSize(const QString& relative) const
{
    const QMutexLocker lock(&_mutex);
    const QFileInfo info(xResolve(relative));
    if (!info.exists())
        throw PathNotFound(utf8(info.canonicalFilePath()));
    return info.size();
}

FILE* ProjectModel::fopen(const QString& relative, const QString& mode)
{
    const QMutexLocker lock(&_mutex);
    const QString path = xResolve(relative);
    static const QStringList kCreatingModes { QStringLiteral("w"), QStringLiteral("w+"),
        QStringLiteral("a"), QStringLiteral("a+") };
    if (kCreatingModes.contains(mode)) {
        const QDir parent = QFileInfo(path).dir();
        if (!parent.exists())
            parent.mkpath(QStringLiteral("."));
    }
    return zo::os::fopen(utf8(path).c_str(), utf8(mode).c_str());
}

QByteArray ProjectModel::readFile(const QString& relative) const
{
    const QMutexLocker lock(&_mutex);
    const QString path = xResolve(relative);
    if (!QFile::exists(path))
        throw PathNotFound(
            utf8(QStringLiteral("Project read file error: file not found: %1").arg(path)));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw IOReadError(utf8(path));
    return file.readAll();
}

void ProjectModel::writeFile(const QString& relative, const QByteArray& data)
{
    const QMutexLocker lock(&_mutex);
    const QString path = xResolve(relative);
    const QDir& workspace = _project->directory();
    const QString parent = workspace.relativeFilePath(QFileInfo(path).path());
    if (!parent.isEmpty())
        workspace.mkpath(parent);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        throw IOWriteError(utf8(path));
    detail::writeWhole(file, data, path);
    file.close();
    xSetSaved(false);
}

void ProjectModel::mkdir(const QString& relative, bool recursive)
{
    const QMutexLocker lock(&_mutex);
    const QString path = xResolve(relative);
    const QDir& workspace = _project->directory();
    detail::makeDirectory(path, recursive,
        [&] { return recursive ? workspace.mkpath(path) : workspace.mkdir(path); });
}

void ProjectModel::copy(const QString& from, const QString& to, bool overwrite)
{
    const QMutexLocker lock(&_mutex);
    zo::project::copy(xResolve(from), xResolve(to), overwrite);
}

void ProjectModel::move(const QString& from, const QString& to, bool overwrite)
{
    const QMutexLocker lock(&_mutex);
    zo::project::move(xResolve(from), xResolve(to), overwrite);
}

void ProjectModel::remove(const QString& relative)
{
    const QMutexLocker lock(&_mutex);
    zo::project::remove(xResolve(relative));
}

void ProjectModel::importFile(const QString& source, const QString& relative, bool overwrite)
{
    const QMutexLocker lock(&_mutex);
    xCheckRelative(relative);
    const QString target = xResolve(relative);
    _project->directory().mkpath(QFileInfo(target).path());
    zo::project::copy(source, target, overwrite);
}

void ProjectModel::importFile(const ProjectModel& other, const QString& sourceRelative,
    const QString& relative, bool overwrite)
{
    QString source;
    {
        // The other model's workspace is read without its lock, as documented.
        const QMutexLocker lock(&_mutex);
        xCheckRelative(sourceRelative);
        source = other.xResolve(sourceRelative);
    }
    importFile(source, relative, overwrite);
}

void ProjectModel::importFromSource(const QString& relative, bool overwrite)
{
    const QString source = getSourcePath();
    if (source.isEmpty())
        throw PathNotFound("the project has no source to import from");
    importFile(QDir(source).filePath(relative), relative, overwrite);
}

void ProjectModel::exportFile(
    const QString& relative, const QString& destination, bool overwrite) const
{
    const QMutexLocker lock(&_mutex);
    detail::prepareExportDestination(destination);
    zo::project::copy(xResolve(relative), destination, overwrite);
}

QStringList ProjectModel::getFileList(
    const QString& relative, bool showHidden, bool recursive, bool includeDirs) const
{
    const QMutexLocker lock(&_mutex);
    const QString path = xResolve(relative);
    if (QFileInfo(path).isFile())
        return { relative };
    QStringList entries = listDirectory(path, showHidden, recursive, includeDirs);
    entries.removeAll(QLatin1String(metadataFileName));
    return entries;
}

QString ProjectModel::getFileLocalPath(const QString& relative) const
{
    const QMutexLocker lock(&_mutex);
    return xResolve(relative);
}

QString ProjectModel::getMetadata(const QString& key) const
{
    const QMutexLocker lock(&_mutex);
    return fromUtf8(_project->getMetadata(utf8(key)));
}

void ProjectModel::setMetadata(const QString& key, const QString& value)
{
    _project->setMetadata(utf8(key), utf8(value));
}

QMap<QString, QString> ProjectModel::getMetadata() const
{
    const QMutexLocker lock(&_mutex);
    QMap<QString, QString> metadata;
    for (const auto& [key, value] : _project->getMetadata())
        metadata.insert(fromUtf8(key), fromUtf8(value));
    return metadata;
}

std::vector<ProjectModel::RecoverableWorkspace> ProjectModel::recoverableWorkspaces()
{
    std::vector<RecoverableWorkspace> found;
    const QDir temp(QDir::tempPath());
    for (const QString& name : temp.entryList({ QStringLiteral("zo_project_model_*") },
             QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot, QDir::Name)) {
        const int pid = detail::ownerOfWorkspace(name);
        if (pid <= 0)
            continue;
        RecoverableWorkspace workspace { temp.filePath(name), QString(), ArchiveFormat::Native, pid,
            QDateTime(), false };
        workspace.lastModified = detail::lastModifiedOf(workspace.path);
        if (!hasEnded(workspace))
            continue;
        if (const auto record = detail::readRecord(workspace.path)) {
            workspace.sourcePath = record->sourcePath;
            workspace.format = record->format;
            workspace.sourceChanged = !record->sourcePath.isEmpty()
                && versionOf(record->sourcePath) != record->sourceVersion;
        }
        found.push_back(workspace);
    }
    return found;
}

void ProjectModel::recoverWorkspace(const RecoverableWorkspace& workspace)
{
    const QMutexLocker lock(&_mutex);
    requireWorkspace(workspace);
    if (!hasEnded(workspace))
        throw IOWriteError(utf8(QStringLiteral("%1 belongs to the running process %2")
                                    .arg(workspace.path)
                                    .arg(workspace.pid)));
    const std::optional<detail::WorkspaceRecord> record = detail::readRecord(workspace.path);
    // Renamed over an empty directory of this process's own, so that no other model can take
    // the name meanwhile; the new name and record make this process its live owner.
    const QString adopted = detail::createWorkspaceDirectory();
    if (!zo::os::rename(QFile::encodeName(workspace.path).constData(),
            QFile::encodeName(adopted).constData())) {
        QDir().rmdir(adopted);
        throw IOWriteError(utf8(QStringLiteral("cannot take over %1").arg(workspace.path)));
    }
    detail::removeWorkspace(workspace.path); // only its record is left there
    // What its process left in it while writing its metadata file, so that no save packs it.
    zo::os::removeEndedLeftovers(detail::encoded(adopted).toStdString());
    // The directory keeps the time of its dead owner's last write, from before this process's
    // mark; stamped now, it is judged by that mark.
    if (const zo::os::UniqueFd directory = zo::os::openDirectory(QFile::encodeName(adopted)))
        zo::os::setTimes(
            directory.get(), { timespec { 0, UTIME_OMIT }, timespec { 0, UTIME_NOW } });
    xReset();
    _project = std::make_unique<ProjectWatcher>(adopted, true, nullptr);
    xWatchSource(workspace.sourcePath);
    xSetSource(workspace.sourcePath, workspace.format);
    _sourceVersion = held(record ? record->sourceVersion : versionOf(workspace.sourcePath));
    detail::writeRecord(
        adopted, { workspace.sourcePath, workspace.format, unheld(_sourceVersion) });
    xSetSaved(false);
}

bool ProjectModel::abandonWorkspace(const RecoverableWorkspace& workspace)
{
    requireWorkspace(workspace);
    if (!hasEnded(workspace))
        return false;
    detail::removeWorkspace(workspace.path);
    return true;
}

void ProjectModel::xSetSaved(bool saved)
{
    if (_saved.exchange(saved) != saved && _notifier)
        emit _notifier->saved(saved);
}

void ProjectModel::xReset()
{
    xSetSource(QString(), ArchiveFormat::Native);
    if (_project) {
        const QString workspace = _project->directory().path();
        _project.reset();
        try {
            detail::removeWorkspace(workspace);
        } catch (const std::exception&) {
            // The directory stays on disk; a later run may recover it once this one is gone.
            zo::os::OwnerMark::keepUntilExit(_mark);
        }
    }
    xWatchSource(QString());
    xSetSaved(true);
}

// The watcher goes on the notifier's thread and is deleted where and when no check of it runs:
// on that thread unless its own report is running, else through that thread's event loop; where
// the thread has none, no timer runs it and a check holds it, so it goes at once.
void ProjectModel::xWatchSource(const QString& path)
{
    std::shared_ptr<ProjectWatcher> watcher;
    if (!path.isEmpty()) {
        watcher.reset(
            new ProjectWatcher(path, true, nullptr), [gate = _gate](ProjectWatcher* gone) {
                const bool here = QThread::currentThread() == gone->thread();
                if ((here && gate->reporting != gone)
                    || !QAbstractEventDispatcher::instance(gone->thread()))
                    delete gone;
                else
                    gone->deleteLater();
            });
        xInitProject(watcher.get());
    }
    const QMutexLocker lock(&_watcherMutex);
    _sourceWatcher.swap(watcher); // the previous one goes once the lock is released
    if (_sourceWatcher)
        applyWatching(_sourceWatcher.get(), _watching);
}

// Only for the source watcher: the workspace is never polled.
void ProjectModel::xInitProject(ProjectWatcher* watcher)
{
    const QDir source = watcher->directory();
    QObject::connect(
        watcher, qOverload<const QMap<QString, FileSystemEvent>&>(&ProjectWatcher::contentChanged),
        watcher,
        [gate = _gate, watcher, source](const QMap<QString, FileSystemEvent>& events) {
            const std::lock_guard lock(gate->mutex);
            if (!gate->model)
                return;
            gate->reporting = watcher;
            gate->model->xRelay(&source, events);
            gate->reporting = nullptr;
        },
        Qt::DirectConnection);
    if (_notifier)
        watcher->moveToThread(_notifier->thread());
}

// Relays source events, by path relative to the source's directory (none: the flag alone).
void ProjectModel::xRelay(const QDir* source, const QMap<QString, FileSystemEvent>& events)
{
    if (events.isEmpty())
        return;
    xSetSaved(false);
    // A model moved from has no notifier; its flag is all that is left to change.
    if (!_notifier || !source)
        return;
    QMap<QString, FileSystemEvent> relative;
    for (auto event = events.cbegin(); event != events.cend(); ++event)
        relative.insert(source->relativeFilePath(event.key()), event.value());
    emit _notifier->sourceProjectEvent(relative);
}

QString ProjectModel::xResolve(const QString& relative) const
{
    const QString workspace = _project->directory().path();
    if (!zo::os::resolveBeneath(
            detail::encoded(workspace).toStdString(), detail::encoded(relative).toStdString()))
        throw exception::PathOutsideProject(utf8(relative));
    return _project->directory().filePath(relative);
}

void ProjectModel::xSetSource(const QString& path, ArchiveFormat format)
{
    const QMutexLocker lock(&_sourcePathMutex);
    _sourcePath = path;
    _sourceFormat = format;
}

void ProjectModel::xCheckRelative(const QString& path) const
{
    if (!QDir::isRelativePath(path))
        throw PathNotFound(utf8(path + QStringLiteral(" is not a relative path.")));
}

} // namespace zo::project
