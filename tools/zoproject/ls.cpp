// The ls command: the files of a project directory or archive, with their sizes.
#include "command.h"
#include "source.h"

#include <zo/project/fileutils.h>
#include <zo/project/project.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

namespace zo::cli {
namespace {

int ls(const QCommandLineParser& parser)
{
    const ProjectSource source(parser.positionalArguments().first(), ProjectSource::Unpack::InTemp);
    const QDir root(source.directory());
    // Listed as the library lists a project: hidden files too, the metadata file not.
    QStringList files = zo::project::listDirectory(root.path(), true, true, false);
    files.removeAll(QLatin1String(zo::project::metadataFileName));
    // By path, whatever order the file system or the archive keeps them in.
    files.sort();

    QJsonArray entries;
    qint64 total = 0;
    for (const QString& file : files) {
        const qint64 size = QFileInfo(root.filePath(file)).size();
        total += size;
        entries.append(QJsonObject { { "path", file }, { "size", size } });
    }
    if (jsonRequested(parser)) {
        printJson(QJsonDocument(QJsonObject {
            { "format", QString::fromStdString(zo::project::formatName(source.format())) },
            { "files", entries }, { "totalSize", total } }));
        return kSuccess;
    }
    const int width = QString::number(total).size();
    for (const auto& entry : qAsConst(entries)) {
        const QJsonObject object = entry.toObject();
        print(QStringLiteral("%1  %2")
                  .arg(object["size"].toVariant().toLongLong(), width)
                  .arg(object["path"].toString()));
    }
    print(QStringLiteral("%1 files, %2 bytes").arg(files.size()).arg(total));
    return kSuccess;
}

} // namespace

Command lsCommand()
{
    return { QStringLiteral("ls"), QStringLiteral("List a project's files with their sizes."),
        QStringLiteral("ARCHIVE|DIR"),
        { { QStringLiteral("ARCHIVE|DIR"), QStringLiteral("A project archive or directory.") } }, 1,
        1, { jsonOption() }, ls };
}

} // namespace zo::cli
