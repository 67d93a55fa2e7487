#include "projectvfs_impl.h"

#include "logging.h"

#include <zo/log.h>
#include <zo/os.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QFileInfo>

namespace zo::project::detail {
namespace {

const QString kSwapExtension = QStringLiteral("csp");
const QString kBackupExtension = QStringLiteral("bck");

std::string utf8(const QString& text)
{
    return text.toStdString();
}

bool syncFile(const QString& path)
{
    return zo::os::sync(QFile::encodeName(path).constData());
}

bool syncParentDirectory(const QString& path)
{
    return syncFile(QFileInfo(path).absolutePath());
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
    removeEntry(oldPath);
    addEntry(file.fileName(), filePath(file.swapName()));
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

    const QString source = filePath(path);
    const QString swap = filePath(swapPath);
    if (QFile::exists(swap))
        throw exception::SwapFileAlreadyExists(utf8(path));

    if (QFile::exists(source)) {
        // QFile::copy writes a temporary file and renames it, so a failure leaves no partial swap.
        if (!QFile::copy(source, swap))
            throw exception::CopySwapFile(utf8(path), swap);
    } else {
        QFile created(swap);
        if (!created.open(QIODevice::WriteOnly | QIODevice::Truncate))
            throw exception::CreateSwapFile(utf8(path));
        created.close();
    }
    addEntry(path, swap);
    return swap;
}

// Commit protocol. Until the swap file has replaced the source, the old content is always on
// disk as the source or as its backup, and the new content as the swap file; the backup is
// removed only once the new content is in place and the renames are durable.
void ProjectVFS_Impl::commitFile(const QString& source, const QString& swapName)
{
    QFile file(source);
    const QString backup = makeBackupPath(source);

    // A leftover backup of an interrupted commit whose source is back in place. Removing it
    // stops this commit on purpose; an unremovable one is tolerated.
    if (exists(backup) && exists(source) && QDir::remove(backup))
        throw exception::SourceFileBackupRemove(utf8(relativeFilePath(backup)));

    if (file.exists() && !file.rename(backup))
        throw exception::SourceFileRename(utf8(source));

    if (exists(swapName)) {
        const QString swap = filePath(swapName);
        // The swap data must reach the disk before the rename does: otherwise a crash could
        // leave the new name on an empty or partial file while the backup is already gone.
        if (!syncFile(swap) || !QFile::rename(swap, source)) {
            file.rename(absoluteFilePath(source));
            throw exception::SwapFileRename(utf8(relativeFilePath(source)));
        }
        // Both renames must be durable before the backup goes; if they cannot be made so,
        // undo them so that the table's entry still matches a swap file on disk.
        if (!syncParentDirectory(source)) {
            QFile::rename(source, swap);
            file.rename(absoluteFilePath(source));
            throw exception::SwapFileRename(utf8(relativeFilePath(source)));
        }
    } else {
        zo::log::log(
            kEngineLog, zo::log::Warning, "A swap file doesn't exist anymore: " + utf8(swapName));
    }
    QDir::remove(backup);
}

void ProjectVFS_Impl::commit(VFSFile& file)
{
    const QString name = file.fileName();
    if (!_entries.contains(name)) {
        if (exists(absoluteFilePath(name)))
            return;
        throw exception::SourceFileDoesNotExists(utf8(name));
    }
    file.close();
    commitFile(absoluteFilePath(name), file.swapName());
    removeEntry(name);
}

void ProjectVFS_Impl::commitAll()
{
    for (auto it = _entries.begin(); it != _entries.end();) {
        commitFile(filePath(it.key()), makeSwapPath(it.key()));
        it = _entries.erase(it);
    }
}

void ProjectVFS_Impl::discardAll()
{
    for (const QString& swap : qAsConst(_entries))
        QDir::remove(swap);
    _entries.clear();
}

void ProjectVFS_Impl::updateFromSource(const QString& path)
{
    const auto it = _entries.constFind(path);
    if (it != _entries.cend())
        zo::project::copy(filePath(it.key()), it.value(), true);
}

void ProjectVFS_Impl::discard(VFSFile& file)
{
    const auto it = _entries.find(file.fileName());
    if (it == _entries.end())
        return;
    QDir::remove(it.value());
    removeEntry(it);
}

void ProjectVFS_Impl::remove(VFSFile& file)
{
    const QString name = file.fileName();
    if (exists(name) && !QDir::remove(name))
        throw IOWriteError(utf8(QStringLiteral("Can not remove file %1").arg(name)));

    const QString swap = file.swapName();
    if (!exists(swap))
        return;
    if (!QDir::remove(swap))
        throw IOWriteError(utf8(QStringLiteral("Can not remove swap file %1").arg(swap)));
    removeEntry(name);
}

void ProjectVFS_Impl::copy(VFSFile& file, const QString& newPath, bool overwrite)
{
    const QString from = currentPath(file.fileName());
    if (!overwrite && hasFile(newPath))
        throw AlreadyExists(utf8(newPath));

    const QString to = filePath(makeSwapPath(newPath));
    zo::project::copy(from, to, overwrite);
    addEntry(newPath, to);
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
