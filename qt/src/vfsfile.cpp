#include <zo/project/vfsfile.h>

#include "paths.h"
#include "projectvfs_impl.h"

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>

#include <utility>

namespace zo::project {

VFSFile::VFSFile(std::shared_ptr<detail::ProjectVFS_Impl> impl, const QString& path)
    : _impl(std::move(impl))
    , _fileName(detail::pendingName(path))
    , _swapName(_impl->makeSwapPath(_fileName))
    , _opened(_impl->isNotCommitted(_fileName) ? &VFSFile::_swapName : &VFSFile::_fileName)
{
}

VFSFile::~VFSFile()
{
    // Here, and not in the base's destructor, so that a failed final flush is noticed.
    close();
}

bool VFSFile::open(QIODevice::OpenMode mode)
{
    if (isOpen())
        return false;
    const bool onSwap = (mode & QIODevice::WriteOnly) || _impl->isNotCommitted(_fileName);
    try {
        // What is read or written is the link's target, which must not leave the project.
        _impl->requireInside(_fileName, true);
        if (onSwap)
            _impl->createSwapFile(fileName(), swapName(), !(mode & QIODevice::Truncate));
    } catch (const exception::ProjectVFS& e) {
        setErrorString(QString::fromUtf8(e.what()));
        return false;
    }
    _opened = onSwap ? &VFSFile::_swapName : &VFSFile::_fileName;
    setFileName(_impl->absoluteFilePath(openedPath()));
    if (!QFile::open(mode))
        return false;
    if (onSwap)
        _impl->handleOpened(this);
    return true;
}

void VFSFile::close()
{
    _impl->handleClosed(this);
    const bool writing = isOpen() && isWritable();
    QFile::close();
    // A close that flushed and closed cleanly clears the error; one still set means it failed.
    if (writing && error() != QFileDevice::NoError)
        _impl->markDamaged(_fileName);
    else if (writing)
        _impl->sealContent(_fileName);
}

qint64 VFSFile::writeData(const char* data, qint64 length)
{
    const qint64 written = QFile::writeData(data, length);
    if (written != length)
        _impl->markDamaged(_fileName);
    return written;
}

FILE* VFSFile::fopen(const QString& mode)
{
    const QIODevice::OpenMode flags = detail::openModeOfStreamMode(mode);
    // Only the side effects are wanted: the swap file and the choice of path.
    if (!open(flags))
        return nullptr;
    close();
    return detail::openStream(*_impl, openedPath(), mode, flags);
}

QString VFSFile::fileName() const
{
    return _fileName;
}

QString VFSFile::swapName() const
{
    return _swapName;
}

QString VFSFile::openedPath() const
{
    return this->*_opened;
}

QString VFSFile::createSwapFile()
{
    return _impl->createSwapFile(fileName(), swapName());
}

void VFSFile::move(const QString& path, bool overwrite)
{
    const QString newPath = detail::pendingName(path);
    _impl->requireInside(newPath, false);
    const QString oldName = fileName();
    const QString newSwap = _impl->makeSwapPath(newPath);
    // A source that this move carries along stays the version its swap file was made from.
    const bool sourceUnchanged = _impl->isNotCommitted(oldName) && !_impl->sourceChanged(oldName);

    // Only this process's own swap files move; another's under either name stops the move.
    _impl->requireOwnSwap(oldName, _impl->absoluteFilePath(swapName()));
    _impl->requireOwnSwap(newPath, _impl->absoluteFilePath(newSwap));
    const bool swapMoved = _impl->isNotCommitted(oldName) && _impl->exists(swapName());
    if (swapMoved) {
        _impl->markBeside(newPath, _impl->absoluteFilePath(newSwap));
        zo::project::move(_impl->filePath(swapName()), _impl->filePath(newSwap), overwrite);
    }
    const bool sourceMoved = _impl->exists(fileName());
    if (sourceMoved)
        zo::project::move(_impl->filePath(fileName()), _impl->filePath(newPath), overwrite);

    _fileName = newPath;
    _swapName = newSwap;
    if (swapMoved)
        _impl->moveEntry(*this, oldName, sourceUnchanged);
    else if (!sourceMoved)
        throw PathNotFound(oldName.toStdString());
}

void VFSFile::copy(const QString& newPath)
{
    _impl->copy(*this, newPath, true);
}

void VFSFile::commit(ProjectVFS::SourceChanges changes)
{
    _impl->commit(*this, changes);
}

void VFSFile::discard()
{
    _impl->discard(*this);
}

void VFSFile::remove()
{
    _impl->remove(*this);
}

} // namespace zo::project
