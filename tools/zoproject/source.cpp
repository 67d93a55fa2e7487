#include "source.h"

#include "command.h"
#include "progress.h"

#include <zo/file.h>

#include <QFile>
#include <QFileInfo>

#include <stdexcept>

namespace zo::cli {

ProjectSource::ProjectSource(const QString& path, const QCommandLineParser& parser)
    : _path(path)
    , _format(zo::project::detectFormat(bytesOf(path)))
{
    if (_format == zo::project::ArchiveFormat::Directory)
        return;
    const std::string absolute
        = QFile::encodeName(QFileInfo(qtPath(path)).absoluteFilePath()).toStdString();
    _mark = zo::os::OwnerMark::holdBeside(absolute);
    const QString pattern = QFile::decodeName(
        QByteArray::fromStdString(zo::os::hiddenTemplateBeside(absolute, "unpack")));
    _unpacked = std::make_unique<QTemporaryDir>(pattern);
    if (!_unpacked->isValid())
        throw std::runtime_error("'" + bytesOf(path)
            + "': cannot make a temporary directory to unpack it: "
            + _unpacked->errorString().toStdString());
    withProgress(parser, path, [this](const zo::project::ProgressCallback& progress) {
        return zo::project::importProject(bytesOf(_path), directory(), _format, progress);
    });
}

std::string ProjectSource::directory() const
{
    return isArchive() ? QFile::encodeName(_unpacked->path()).toStdString() : bytesOf(_path);
}

void ProjectSource::save(const QCommandLineParser& parser) const
{
    if (!isArchive())
        return;
    withProgress(parser, _path, [this](const zo::project::ProgressCallback& progress) {
        return zo::project::exportProject(directory(), bytesOf(_path), _format, progress);
    });
}

} // namespace zo::cli
