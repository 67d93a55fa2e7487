#include <zo/project/projectvfs.h>

#include "liveness.h"
#include "logging.h"
#include "paths.h"
#include "projectvfs_impl.h"

#include <zo/log.h>
#include <zo/os.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/project.h>
#include <zo/project/vfsfile.h>
#include <zo/treewalk.h>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <limits>
#include <utility>

namespace zo::project {
namespace {

void logStillRunning(const ProjectVFS::RecoverableInfo& info)
{
    zo::log::log(detail::kFacadeLog, zo::log::Info,
        "Not removing '" + info.swapPath.toStdString() + "' because process '"
            + std::to_string(info.pid) + "' is still running");
}

} // namespace

ProjectVFS::ProjectVFS(const QString& path)
    : _impl(std::make_shared<detail::ProjectVFS_Impl>(path))
{
    // A facade without a path stands for no project, although its root reads as ".".
    if (!path.isEmpty())
        xRestoreInterruptedCommits();
}

ProjectVFS::ProjectVFS(ProjectVFS&& other) noexcept = default;
ProjectVFS& ProjectVFS::operator=(ProjectVFS&& other) noexcept = default;
ProjectVFS::~ProjectVFS() = default;

QString ProjectVFS::path() const
{
    return _impl->path();
}

QString ProjectVFS::filePath(const QString& path) const
{
    return _impl->filePath(path);
}

QString ProjectVFS::relativeFilePath(const QString& path) const
{
    return _impl->relativeFilePath(path);
}

QString ProjectVFS::absoluteFilePath(const QString& path) const
{
    return _impl->absoluteFilePath(path);
}

bool ProjectVFS::mkpath(const QString& path) const
{
    return _impl->mkpath(path);
}

bool ProjectVFS::mkdir(const QString& path) const
{
    return _impl->mkdir(path);
}

bool ProjectVFS::exists() const
{
    return _impl->exists();
}

bool ProjectVFS::isNotCommitted() const
{
    return _impl->isNotCommitted();
}

bool ProjectVFS::isNotCommitted(const QString& path) const
{
    return _impl->isNotCommitted(path);
}

bool ProjectVFS::hasFile(const QString& path) const
{
    return _impl->hasFile(path);
}

bool ProjectVFS::hasPath(const QString& path) const
{
    return _impl->hasPath(path);
}

QString ProjectVFS::makeSwapPath(const QString& path) const
{
    return _impl->makeSwapPath(path);
}

QString ProjectVFS::makeBackupPath(const QString& path) const
{
    return _impl->makeBackupPath(path);
}

std::unique_ptr<VFSFile> ProjectVFS::file(const QString& path)
{
    return std::make_unique<VFSFile>(_impl->shared_from_this(), path);
}

void ProjectVFS::commit(const QString& path)
{
    file(path)->commit();
}

void ProjectVFS::discard(const QString& path)
{
    file(path)->discard();
}

std::unique_ptr<VFSFile> ProjectVFS::open(const QString& path, QIODevice::OpenMode mode)
{
    auto handle = file(path);
    if (!handle->open(mode)) {
        // Qt refuses such a mode before it sets an error, and then says "Unknown error".
        const std::string reason = (mode & QIODevice::ReadWrite)
            ? handle->errorString().toStdString()
            : "the open mode neither reads nor writes";
        throw exception::OpenSwapFile(path.toStdString(), handle->error(), reason);
    }
    return handle;
}

FILE* ProjectVFS::fopen(const QString& path, const QString& mode)
{
    const QIODevice::OpenMode flags = detail::openModeOfStreamMode(mode);
    const auto handle = open(path, flags);
    handle->close();
    return detail::openStream(*_impl, handle->openedPath(), mode, flags);
}

QString ProjectVFS::createSwapFile(const QString& path)
{
    // The committed-changed handler runs here with no handle holding the engine, and it may
    // release this facade; the call keeps its own owner.
    const auto impl = _impl;
    return impl->createSwapFile(path, impl->makeSwapPath(path));
}

void ProjectVFS::setCommittedChangedHandler(std::function<void(bool)>&& handler)
{
    _impl->notCommittedChanged = std::move(handler);
}

void ProjectVFS::setPath(const QString& path)
{
    // The unchanged path is refused on purpose: callers compare before they switch.
    if (path == _impl->path() || !_impl->exists(path))
        throw exception::ProjectPathDoesNotExists(path.toStdString());
    _impl->setPath(path);
    xRestoreInterruptedCommits();
}

bool ProjectVFS::exists(const QString& path) const
{
    return _impl->existsOrPending(path);
}

void ProjectVFS::commit()
{
    _impl->commitAll();
}

void ProjectVFS::discard()
{
    _impl->discardAll();
}

QStringList ProjectVFS::getFileList(
    const QString& path, bool showHidden, bool recursive, bool includeDirs) const
{
    if (_impl->hasFile(path))
        return { _impl->relativeFilePath(path) };
    // Listed below the project root, whatever the process's working directory is.
    QStringList list = listDirectory(_impl->filePath(path), showHidden, recursive, includeDirs);
    list.removeAll(QLatin1String(metadataFileName));
    return list;
}

void ProjectVFS::importFile(const QString& source, const QString& destination, bool overwrite) const
{
    if (destination.isEmpty())
        throw PathNotFound("destination is empty");
    if (source.isEmpty())
        throw PathNotFound("source is empty");
    if (!QDir::isRelativePath(destination))
        throw PathNotFound(
            (destination + QStringLiteral(" is not a relative path.")).toStdString());

    const QString parent = QFileInfo(destination).path();
    if (!parent.isEmpty())
        _impl->mkpath(parent);
    zo::project::copy(source, _impl->filePath(destination), overwrite);
}

void ProjectVFS::exportFile(const QString& path, const QString& destination, bool overwrite)
{
    const auto handle = file(path);
    zo::project::copy(_impl->filePath(handle->openedPath()), destination, overwrite);
}

void ProjectVFS::copy(const QString& source, const QString& destination, bool overwrite)
{
    if (!_impl->hasFile(source))
        throw PathNotFound(source.toStdString());
    _impl->copy(*file(source), destination, overwrite);
}

void ProjectVFS::move(const QString& source, const QString& destination, bool overwrite)
{
    if (!_impl->hasFile(source))
        throw PathNotFound(_impl->filePath(source).toStdString());
    _impl->move(*file(source), destination, overwrite);
}

void ProjectVFS::remove(const QString& path)
{
    const auto impl = _impl; // outlives a handler that releases this facade, as above
    if (impl->hasFile(path)) {
        impl->remove(*file(path));
        return;
    }
    // A link, to a directory too, goes as a link: a walk from it would empty its target.
    const QString absolute = impl->absoluteFilePath(QDir::cleanPath(path));
    if (QFileInfo(absolute).isSymLink()) {
        zo::project::remove(absolute);
        return;
    }

    // Files are removed with their swap files first. The walk holds each directory open and
    // follows no symbolic link, not even one put in a directory's place meanwhile, so nothing
    // outside the tree is reached through one; links themselves go with the tree.
    QStringList files;
    zo::os::WalkOptions options;
    options.followLinks = false;
    zo::os::walkTree(
        detail::encoded(absolute).toStdString(), options, [&](const zo::os::WalkEntry& entry) {
            if (entry.type == zo::os::EntryType::File)
                files.append(impl->relativeFilePath(
                    absolute + QLatin1Char('/') + detail::decodedPath(entry.path)));
            return zo::os::WalkStep::Continue;
        });
    bool allRemoved = true;
    for (const QString& entry : qAsConst(files)) {
        try {
            impl->remove(*file(entry));
        } catch (const IOWriteError& e) {
            zo::log::log(detail::kFacadeLog, zo::log::Warning, e.what());
            allRemoved = false;
        }
    }

    if (!allRemoved || QFileInfo(absolute).isDir())
        zo::project::remove(absolute);
}

void ProjectVFS::updateFromSource(const QString& path)
{
    _impl->updateFromSource(path);
}

// Swap files are looked for in the root and in every directory below it that is neither hidden
// nor reached through a link, and that this process may read and write; a link to such a
// directory is looked into too, one level deep.
std::vector<ProjectVFS::RecoverableInfo> ProjectVFS::recoverableFiles()
{
    const QString suffix = QStringLiteral(".") + _impl->swapExtension();
    // The lazy first group is the whole source name, dots included; the suffix test already
    // guarantees the real ending.
    QRegularExpression swapName(QStringLiteral("^\\.(.*?)\\.(\\d+).") + _impl->swapExtension());
    swapName.optimize();

    std::vector<RecoverableInfo> found;
    const auto consider = [&](const QString& relativePath) {
        const int slash = relativePath.lastIndexOf(QLatin1Char('/'));
        const QRegularExpressionMatch match = swapName.match(relativePath.mid(slash + 1));
        if (!match.hasMatch())
            return;
        // An id too large for any process parses as 0, which never counts as running.
        bool parsed = false;
        const qlonglong id = match.captured(2).toLongLong(&parsed);
        const bool fits = parsed && id <= std::numeric_limits<pid_t>::max();
        found.push_back({ relativePath, relativePath.left(slash + 1) + match.captured(1),
            fits ? static_cast<pid_t>(id) : 0 });
    };
    const auto isSwapName = [&suffix](std::string_view name) {
        return name.size() > 1 && name.front() == '.'
            && name.size() >= static_cast<size_t>(suffix.size())
            && QLatin1String(name.data() + name.size() - suffix.size(), suffix.size()) == suffix;
    };
    const auto scannable = [](const QString& directory) {
        const QFileInfo info(directory);
        return info.isReadable() && info.isWritable();
    };
    const QString root = _impl->absolutePath();

    // scanned[depth]: whether the directory whose entries are at that depth is looked into.
    std::vector<bool> scanned { true };
    zo::os::WalkOptions options;
    options.includeHidden = true;
    options.followLinks = false;
    zo::os::walkTree(
        QFile::encodeName(root).toStdString(), options, [&](const zo::os::WalkEntry& entry) {
            const auto depth = static_cast<size_t>(entry.depth);
            scanned.resize(depth + 1);
            if (entry.type == zo::os::EntryType::Directory) {
                if (entry.name.front() == '.')
                    return zo::os::WalkStep::SkipDirectory;
                scanned.push_back(
                    scannable(root + QLatin1Char('/') + detail::decodedPath(entry.path)));
            } else if (entry.type == zo::os::EntryType::Link && entry.name.front() != '.') {
                const QString linked = detail::decodedPath(entry.path);
                const QDir target(root + QLatin1Char('/') + linked);
                if (target.exists() && scannable(target.path()))
                    for (const QString& name :
                        target.entryList({ QLatin1Char('*') + suffix }, QDir::Files | QDir::Hidden))
                        consider(linked + QLatin1Char('/') + name);
            } else if (scanned[depth] && isSwapName(entry.name)) {
                consider(detail::decodedPath(entry.path));
            }
            return zo::os::WalkStep::Continue;
        });
    return found;
}

const std::vector<ProjectVFS::RecoverableInfo>& ProjectVFS::recoverableFilesWhenOpened() const
{
    return _impl->foundWhenOpened;
}

void ProjectVFS::recoverFile(const RecoverableInfo& info)
{
    const auto impl = _impl; // outlives a handler that releases this facade, as above
    const QString newSwap = impl->absoluteFilePath(impl->makeSwapPath(info.sourcePath));
    QFile swap(impl->absoluteFilePath(info.swapPath));

    bool transferred;
    if (isOwnerRunning(info, detail::programName())) {
        // The owner still works on its file; take a copy and leave its swap file alone.
        logStillRunning(info);
        transferred = swap.copy(newSwap);
    } else {
        transferred = swap.rename(newSwap);
        // The moved file keeps the time of its dead owner's last write, from before this
        // process started; stamped now, it names this process as its live owner.
        if (transferred && swap.open(QIODevice::ReadWrite)) {
            swap.setFileTime(QDateTime::currentDateTimeUtc(), QFileDevice::FileModificationTime);
            swap.close();
        }
    }
    if (!transferred)
        throw exception::SwapFileRename(impl->relativeFilePath(info.swapPath).toStdString());
    impl->addEntry(info.sourcePath, newSwap);
}

void ProjectVFS::abandonFile(const RecoverableInfo& info)
{
    if (isOwnerRunning(info, detail::programName())) {
        logStillRunning(info);
        return;
    }
    if (!_impl->QDir::remove(info.swapPath))
        throw exception::SwapFileRemove(info.swapPath.toStdString());
}

// A commit killed between its two renames leaves no source: the old content is in the backup
// and the new one in the swap file. The backup is put back so that abandoning the swap file
// loses nothing; a swap file of a live owner may belong to a commit in progress and is left
// to it. A file that merely ends like a backup has no swap file and is never touched.
void ProjectVFS::xRestoreInterruptedCommits()
{
    const std::string program = detail::programNameIfKnown();
    _impl->foundWhenOpened = recoverableFiles();
    for (const RecoverableInfo& info : _impl->foundWhenOpened) {
        const QString source = _impl->absoluteFilePath(info.sourcePath);
        const QString backup = _impl->makeBackupPath(source);
        if (detail::isOnDisk(source) || !detail::isOnDisk(backup) || isOwnerRunning(info, program))
            continue;
        const std::string names = "'" + _impl->relativeFilePath(backup).toStdString() + "' to '"
            + info.sourcePath.toStdString() + "'";
        if (QFile::rename(backup, source))
            zo::log::log(detail::kFacadeLog, zo::log::Info,
                "Renamed the backup " + names + " after an interrupted commit");
        else
            zo::log::log(detail::kFacadeLog, zo::log::Warning,
                "Can not rename the backup " + names + " after an interrupted commit");
    }
}

bool ProjectVFS::isOwnerRunning(const RecoverableInfo& info, const std::string& programName) const
{
    return isProcessRunning(
        info.pid, programName, QFileInfo(_impl->absoluteFilePath(info.swapPath)).lastModified());
}

bool ProjectVFS::isProcessRunning(
    pid_t pid, const std::string& programName, const QDateTime& swapModified)
{
    return detail::isProcessRunning(pid, programName, swapModified);
}

} // namespace zo::project
