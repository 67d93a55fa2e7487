#include "projectvfs_impl.h"

#include "logging.h"
#include "paths.h"

#include <zo/file.h>
#include <zo/log.h>
#include <zo/os.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>

#include <exception>
#include <vector>

namespace zo::project::detail {
namespace {

const QString kSwapExtension = QStringLiteral("csp");
const QString kBackupExtension = QStringLiteral("bck");

bool syncFile(const QString& path)
{
    return zo::os::syncFile(encoded(path).constData());
}

bool syncDirectory(const QString& path)
{
    return zo::os::syncDirectory(encoded(path).constData());
}

bool syncParentDirectory(const QString& path)
{
    return syncDirectory(QFileInfo(path).absolutePath());
}

bool renameFile(const QString& from, const QString& to)
{
    return zo::os::rename(encoded(from).constData(), encoded(to).constData());
}

constexpr qint64 kCopyBlockSize = 1024 * 1024;

// A short write sets no error; writing the rest either finishes or tells why it cannot.
bool writeWhole(QIODevice& out, const QByteArray& block)
{
    for (qint64 written = 0; written < block.size();) {
        const qint64 step = out.write(block.constData() + written, block.size() - written);
        if (step <= 0)
            return false;
        written += step;
    }
    return true;
}

// Copies source to target through a file that gets its name only once it is complete, so that
// neither a failure nor a crash leaves a short swap file behind. Returns why it failed, or an
// empty text.
QString copyToNewFile(const QString& source, const QString& target)
{
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly))
        return in.errorString();
    QSaveFile out(target);
    // Unbuffered, so that every failure is seen by the write that meets it. The permissions
    // are set before any content, so that a private file stays private.
    if (!out.open(QIODevice::WriteOnly | QIODevice::Unbuffered)
        || !out.setPermissions(in.permissions()))
        return out.errorString();
    for (QByteArray block; !(block = in.read(kCopyBlockSize)).isEmpty();)
        if (!writeWhole(out, block))
            return out.errorString();
    if (in.error() != QFileDevice::NoError)
        return in.errorString();
    return out.commit() ? QString() : out.errorString();
}

} // namespace

ProjectVFS_Impl::ProjectVFS_Impl(const QString& path)
    : QDir(path)
    , notCommittedChanged([](bool) {})
    , _swapExt(kSwapExtension)
    , _bckExt(kBackupExtension)
{
}

bool ProjectVFS_Impl::isNotCommitted() const
{
    return !_entries.isEmpty();
}

bool ProjectVFS_Impl::isNotCommitted(const QString& path) const
{
    return _entries.contains(path);
}

QString ProjectVFS_Impl::makeSwapPath(const QString& path) const
{
    const QFileInfo info(path);
    // One substitution pass, so that a "%1" inside a file name is kept as it is.
    const QString name
        = QStringLiteral(".%1.%2.%3")
              .arg(info.fileName(), QString::number(QCoreApplication::applicationPid()), _swapExt);
    return QDir::cleanPath(info.dir().filePath(name));
}

QString ProjectVFS_Impl::makeBackupPath(const QString& path) const
{
    return path + _bckExt;
}

void ProjectVFS_Impl::addEntry(const QString& path, const QString& swapPath)
{
    _entries.insert(path, swapPath);
    if (_entries.size() == 1)
        notCommittedChanged(true);
}

ProjectVFS_Impl::Entries::iterator ProjectVFS_Impl::removeEntry(const Entries::iterator& it)
{
    if (it != _entries.end())
        _damaged.remove(it.key());
    const auto next = it == _entries.end() ? it : _entries.erase(it);
    if (_entries.isEmpty())
        notCommittedChanged(false);
    return next;
}

void ProjectVFS_Impl::removeEntry(const QString& path)
{
    removeEntry(_entries.find(path));
}

void ProjectVFS_Impl::moveEntry(const VFSFile& file, const QString& oldPath)
{
    const bool damaged = _damaged.contains(oldPath);
    removeEntry(oldPath);
    addEntry(file.fileName(), absoluteFilePath(file.swapName()));
    if (damaged)
        _damaged.insert(file.fileName());
}

void ProjectVFS_Impl::markDamaged(const QString& path)
{
    if (_entries.contains(path))
        _damaged.insert(path);
}

void ProjectVFS_Impl::throwIfDamaged(const QString& path) const
{
    if (_damaged.contains(path))
        throw exception::SwapFileDamaged(utf8(path));
}

QString ProjectVFS_Impl::currentPath(const QString& path) const
{
    const auto it = _entries.constFind(path);
    return it != _entries.cend() ? it.value() : absoluteFilePath(path);
}

bool ProjectVFS_Impl::hasFile(const QString& path) const
{
    return QFileInfo(currentPath(path)).isFile();
}

bool ProjectVFS_Impl::hasPath(const QString& path) const
{
    return QFileInfo::exists(currentPath(path));
}

bool ProjectVFS_Impl::existsOrPending(const QString& path) const
{
    if (exists(path))
        return true;
    const auto it = _entries.constFind(path);
    return it != _entries.cend() && exists(it.value());
}

QString ProjectVFS_Impl::createSwapFile(const QString& path, const QString& swapPath)
{
    const auto known = _entries.constFind(path);
    if (known != _entries.cend())
        return known.value();

    const QString source = absoluteFilePath(path);
    const QString swap = absoluteFilePath(swapPath);
    if (QFile::exists(swap))
        throw exception::SwapFileAlreadyExists(utf8(path));

    if (QFile::exists(source)) {
        const QString failure = copyToNewFile(source, swap);
        if (!failure.isEmpty())
            throw exception::CopySwapFile(utf8(path), swap, utf8(failure));
    } else {
        QFile created(swap);
        if (!created.open(QIODevice::WriteOnly | QIODevice::Truncate))
            throw exception::CreateSwapFile(utf8(path), utf8(created.errorString()));
        created.close();
    }
    addEntry(path, swap);
    return swap;
}

// Commit protocol. Until the swap file has replaced the source, the old content is always on
// disk as the source or as its backup, and the new content as the swap file; the backup is
// removed only once the new content is in place and the renames are durable (the directory is
// synced). A step that fails undoes the ones before it, so that the entry still matches a swap
// file on disk.
ProjectVFS_Impl::StagedCommit ProjectVFS_Impl::stageCommit(
    const QString& source, const QString& swap)
{
    StagedCommit staged { source, swap, makeBackupPath(source), false, false };

    // A leftover backup of an interrupted commit whose source is back in place. Removing it
    // stops this commit on purpose; an unremovable one is tolerated.
    if (QFileInfo::exists(staged.backup) && QFileInfo::exists(source)
        && QFile::remove(staged.backup))
        throw exception::SourceFileBackupRemove(utf8(relativeFilePath(staged.backup)));

    const bool swapExists = QFileInfo::exists(swap);
    // The swap data must reach the disk before the rename does: otherwise a crash could leave
    // the new name on an empty or partial file while the backup is already gone.
    if (swapExists && !syncFile(swap))
        throw exception::SwapFileRename(utf8(relativeFilePath(source)));

    // A link in the source's place is moved aside and replaced as it is, never followed.
    staged.backedUp = isOnDisk(source);
    if (staged.backedUp && !renameFile(source, staged.backup))
        throw exception::SourceFileRename(utf8(source));

    if (!swapExists) {
        zo::log::log(kEngineLog, zo::log::Warning,
            "A swap file doesn't exist anymore: " + utf8(relativeFilePath(swap)));
    } else if (!renameFile(swap, source)) {
        undoCommit(staged);
        throw exception::SwapFileRename(utf8(relativeFilePath(source)));
    } else {
        staged.swapRenamed = true;
    }
    return staged;
}

void ProjectVFS_Impl::undoCommit(const StagedCommit& staged)
{
    if (staged.swapRenamed)
        renameFile(staged.source, staged.swap);
    if (staged.backedUp)
        renameFile(staged.backup, staged.source);
}

void ProjectVFS_Impl::commitFile(const QString& source, const QString& swap)
{
    const StagedCommit staged = stageCommit(source, swap);
    if (staged.swapRenamed && !syncParentDirectory(source)) {
        undoCommit(staged);
        throw exception::SwapFileRename(utf8(relativeFilePath(source)));
    }
    QFile::remove(staged.backup);
}

void ProjectVFS_Impl::commit(VFSFile& file)
{
    const QString name = file.fileName();
    if (!_entries.contains(name)) {
        if (exists(absoluteFilePath(name)))
            return;
        throw exception::SourceFileDoesNotExists(utf8(name));
    }
    // Closing flushes, which may still fail and damage the entry.
    file.close();
    throwIfDamaged(name);
    commitFile(absoluteFilePath(name), _entries.value(name));
    removeEntry(name);
}

// The single-file protocol for every entry, with one sync per directory for all the renames
// in it instead of one per file: the renames of all entries first, then the directories, then
// the backups. What is committed when an exception leaves is durable; the entry that failed
// and every later one stay pending.
void ProjectVFS_Impl::commitAll()
{
    std::vector<StagedCommit> staged;
    std::exception_ptr failure;
    for (auto it = _entries.cbegin(); it != _entries.cend(); ++it) {
        try {
            throwIfDamaged(it.key());
            staged.push_back(stageCommit(absoluteFilePath(it.key()), it.value()));
        } catch (...) {
            failure = std::current_exception();
            break;
        }
    }

    // Entries from the first one whose directory cannot be synced on are put back.
    QSet<QString> synced;
    auto durable = staged.begin();
    for (; durable != staged.end(); ++durable) {
        const QString directory = QFileInfo(durable->source).absolutePath();
        if (synced.contains(directory))
            continue;
        if (!syncDirectory(directory))
            break;
        synced.insert(directory);
    }
    if (durable != staged.end()) {
        failure = std::make_exception_ptr(
            exception::SwapFileRename(utf8(relativeFilePath(durable->source))));
        for (auto undone = staged.rbegin(); undone.base() != durable; ++undone)
            undoCommit(*undone);
    }

    for (auto committed = staged.begin(); committed != durable; ++committed) {
        QFile::remove(committed->backup);
        _entries.erase(_entries.begin());
    }
    if (failure)
        std::rethrow_exception(failure);
}

void ProjectVFS_Impl::discardAll()
{
    for (const QString& swap : qAsConst(_entries))
        QFile::remove(swap);
    _entries.clear();
    _damaged.clear();
}

void ProjectVFS_Impl::updateFromSource(const QString& path)
{
    const auto it = _entries.constFind(path);
    if (it == _entries.cend())
        return;
    zo::project::copy(absoluteFilePath(it.key()), it.value(), true);
    _damaged.remove(path);
}

void ProjectVFS_Impl::discard(VFSFile& file)
{
    const auto it = _entries.find(file.fileName());
    if (it == _entries.end())
        return;
    QFile::remove(it.value());
    removeEntry(it);
}

void ProjectVFS_Impl::remove(VFSFile& file)
{
    const QString name = file.fileName();
    // A link goes as a link: QFile::remove unlinks the name, never what it points to.
    if (isOnDisk(absoluteFilePath(name)) && !QFile::remove(absoluteFilePath(name)))
        throw IOWriteError(utf8(QStringLiteral("Can not remove file %1").arg(name)));

    const QString swap = file.swapName();
    if (!exists(swap))
        return;
    if (!QFile::remove(absoluteFilePath(swap)))
        throw IOWriteError(utf8(QStringLiteral("Can not remove swap file %1").arg(swap)));
    removeEntry(name);
}

void ProjectVFS_Impl::copy(VFSFile& file, const QString& newPath, bool overwrite)
{
    const QString from = currentPath(file.fileName());
    if (!overwrite && hasFile(newPath))
        throw AlreadyExists(utf8(newPath));

    const QString to = absoluteFilePath(makeSwapPath(newPath));
    zo::project::copy(from, to, overwrite);
    addEntry(newPath, to);
    // The copy holds what the damaged swap file holds.
    if (_damaged.contains(file.fileName()))
        _damaged.insert(newPath);
}

void ProjectVFS_Impl::move(VFSFile& file, const QString& newPath, bool overwrite)
{
    file.move(newPath, overwrite);
}

QIODevice::OpenMode openModeOfStreamMode(const QString& mode)
{
    const bool update = mode.contains(QLatin1Char('+'));
    const QIODevice::OpenMode access = update ? QIODevice::ReadWrite : QIODevice::WriteOnly;
    QIODevice::OpenMode flags;
    if (mode.contains(QLatin1Char('r')))
        flags = update ? QIODevice::ReadWrite : QIODevice::ReadOnly;
    else if (mode.contains(QLatin1Char('w')))
        flags = access | QIODevice::Truncate;
    else if (mode.contains(QLatin1Char('a')))
        flags = access | QIODevice::Append;
    else if (update)
        flags = QIODevice::ReadWrite;
    if (!mode.contains(QLatin1Char('b')))
        flags |= QIODevice::Text;
    return flags;
}

FILE* openStream(
    const QDir& root, const QString& openedPath, QString mode, QIODevice::OpenMode flags)
{
    if (flags & QIODevice::Truncate)
        mode.replace(QLatin1Char('w'), QStringLiteral("r+"));
    return zo::os::fopen(root.filePath(openedPath).toUtf8().constData(), mode.toUtf8().constData());
}

} // namespace zo::project::detail
