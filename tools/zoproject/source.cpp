#include "source.h"

#include <zo/file.h>

#include <QFile>
#include <QFileInfo>

#include <stdexcept>

namespace zo::cli {

ProjectSource::ProjectSource(const QString& path)
    : _path(path)
    , _format(zo::project::detectFormat(path.toStdString()))
{
    if (_format == zo::project::ArchiveFormat::Directory)
        return;
    const std::string absolute
        = QFile::encodeName(QFileInfo(path).absoluteFilePath()).toStdString();
    _mark = zo::os::OwnerMark::holdBeside(absolute);
    const QString pattern = QFile::decodeName(
        QByteArray::fromStdString(zo::os::hiddenTemplateBeside(absolute, "unpack")));
    _unpacked = std::make_unique<QTemporaryDir>(pattern);
    if (!_unpacked->isValid())
        throw std::runtime_error("'" + path.toStdString()
            + "': cannot make a temporary directory to unpack it: "
            + _unpacked->errorString().toStdString());
    zo::project::importProject(path.toStdString(), _unpacked->path().toStdString(), _format);
}

QString ProjectSource::directory() const
{
    return isArchive() ? _unpacked->path() : _path;
}

} // namespace zo::cli
