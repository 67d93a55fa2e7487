#include "source.h"

#include <QDir>
#include <QFileInfo>

#include <stdexcept>

namespace zo::cli {

ProjectSource::ProjectSource(const QString& path, Unpack where)
    : _path(path)
    , _format(zo::project::detectFormat(path.toStdString()))
{
    if (_format == zo::project::ArchiveFormat::Directory)
        return;
    const QFileInfo archive(path);
    const QString pattern = where == Unpack::Beside
        ? archive.absoluteDir().filePath(QLatin1Char('.') + archive.fileName() + "-XXXXXX")
        : QDir::temp().filePath(QStringLiteral("zoproject-XXXXXX"));
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
