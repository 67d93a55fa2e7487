#include <zo/project/projectvfs.h>

#include "logging.h"
#include "projectvfs_impl.h"

#include <zo/log.h>
#include <zo/path.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QDirIterator>
#include <QFileInfo>
#include <QRegularExpression>

#include <fstream>
#include <utility>

namespace zo::project {
namespace {

const QString kMetadataFile = QStringLiteral(".metadata");

// A process whose command line reads empty is usually between fork and exec; a few more reads
// catch it, while a zombie or kernel thread, empty for good, must not stall the caller.
constexpr int kEmptyCommandLineReads = 100;

std::string programName()
{
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.isEmpty())
        qFatal("Crash recovery needs a QCoreApplication with its command line");
    return QFileInfo(arguments.first()).baseName().toStdString();
}

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
    if (!handle->open(mode))
        throw exception::OpenSwapFile(path.toStdString(), handle->error());
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
    list.removeAll(kMetadataFile);
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

    // Files are removed with their swap files first. The walk does not follow symbolic links,
    // so nothing outside the tree is reached through one; links themselves go with the tree.
    bool allRemoved = true;
    const QString root = impl->filePath(path);
    QDirIterator files(root, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString entry = impl->relativeFilePath(files.next());
        try {
            impl->remove(*file(entry));
        } catch (const IOWriteError& e) {
            zo::log::log(detail::kFacadeLog, zo::log::Warning, e.what());
            allRemoved = false;
        }
    }

    const QString absolute = impl->absoluteFilePath(path);
    if (!allRemoved || QFileInfo(absolute).isDir())
        zo::project::remove(absolute);
}

void ProjectVFS::updateFromSource(const QString& path)
{
    _impl->updateFromSource(path);
}

std::vector<ProjectVFS::RecoverableInfo> ProjectVFS::recoverableFiles()
{
    QStringList directories { _impl->path() };
    QDirIterator subdirectories(_impl->path(),
        QDir::Dirs | QDir::Readable | QDir::Writable | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (subdirectories.hasNext())
        directories << subdirectories.next();

    const QString extension = _impl->swapExtension();
    const QStringList nameFilters { QStringLiteral("*.") + extension };
    // The lazy first group is the whole source name, dots included; the name filter already
    // guarantees the real ending.
    QRegularExpression swapName(QStringLiteral("^\\.(.*?)\\.(\\d+).") + extension);
    swapName.optimize();

    std::vector<RecoverableInfo> found;
    for (const QString& directory : qAsConst(directories)) {
        const QDir dir(directory);
        const QStringList names
            = dir.entryList(nameFilters, QDir::Files | QDir::Hidden, QDir::NoSort);
        for (const QString& name : names) {
            const QRegularExpressionMatch match = swapName.match(name);
            if (!match.hasMatch())
                continue;
            // An id that does not fit in 16 bits parses as 0, which never counts as running.
            found.push_back({ _impl->relativeFilePath(dir.filePath(name)),
                _impl->relativeFilePath(dir.filePath(match.captured(1))),
                match.captured(2).toUShort() });
        }
    }
    return found;
}

void ProjectVFS::recoverFile(const RecoverableInfo& info)
{
    const auto impl = _impl; // outlives a handler that releases this facade, as above
    const QString newSwap = impl->absoluteFilePath(impl->makeSwapPath(info.sourcePath));
    QFile swap(impl->absoluteFilePath(info.swapPath));

    bool transferred;
    if (isProcessRunning(info.pid, programName())) {
        // The owner still works on its file; take a copy and leave its swap file alone.
        logStillRunning(info);
        transferred = swap.copy(newSwap);
    } else {
        transferred = swap.rename(newSwap);
    }
    if (!transferred)
        throw exception::SwapFileRename(impl->relativeFilePath(info.swapPath).toStdString());
    impl->addEntry(info.sourcePath, newSwap);
}

void ProjectVFS::abandonFile(const RecoverableInfo& info)
{
    if (isProcessRunning(info.pid, programName())) {
        logStillRunning(info);
        return;
    }
    if (!_impl->QDir::remove(info.swapPath))
        throw exception::SwapFileRemove(info.swapPath.toStdString());
}

// The first whitespace-delimited token of the command line, NUL separators and all, is
// compared by its last path component with the program's name.
bool ProjectVFS::isProcessRunning(int pid, const std::string& programName)
{
    if (pid <= 0)
        return false;
    const std::string commandLinePath = "/proc/" + std::to_string(pid) + "/cmdline";
    std::string token;
    for (int read = 0; read < kEmptyCommandLineReads && token.empty(); ++read) {
        std::ifstream commandLine(commandLinePath, std::ios::binary);
        if (!commandLine)
            return false;
        if (programName.empty())
            return true;
        commandLine >> token;
    }
    return zo::Path(token).filename() == programName;
}

} // namespace zo::project
