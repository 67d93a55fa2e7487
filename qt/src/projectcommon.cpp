#include "projectcommon.h"

#include <zo/project/fileutils.h>

#include <QChar>
#include <QDir>
#include <QFileInfo>

namespace zo::project::detail {

void writeWhole(QFileDevice& file, const QByteArray& data, const QString& path)
{
    qint64 written = file.write(data);
    // A full disk may refuse only the buffered tail; what reached the file is what counts.
    if (!file.flush())
        written = file.size();
    if (written == data.size())
        return;
    throw IOWriteError(
        QStringLiteral(
            "Project write file error: failed to write file at: %1 (%2 bytes written out of %3)")
            .arg(path, static_cast<int>(written), QChar(static_cast<ushort>(data.size())))
            .toUtf8()
            .toStdString());
}

void makeDirectory(const QString& absolutePath, bool recursive, const std::function<bool()>& create)
{
    const QFileInfo info(absolutePath);
    if (info.isDir())
        return;
    if (!recursive && !info.dir().exists()) {
        // Empty for the missing parent (QFileInfo::canonicalPath would say ".").
        throw PathNotFound(QFileInfo(info.path()).canonicalFilePath().toUtf8().toStdString());
    }
    if (!create())
        throw IOWriteError(info.canonicalFilePath().toUtf8().toStdString());
}

void prepareExportDestination(const QString& destination)
{
    if (destination.isEmpty())
        throw PathNotFound("exporting file to an empty path.");
    QDir(QDir::tempPath()).mkpath(QFileInfo(destination).path());
}

} // namespace zo::project::detail
