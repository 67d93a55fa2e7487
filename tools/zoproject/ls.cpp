// The ls command: the files of a project directory or archive, with their sizes.
#include "command.h"

#include <zo/project/contents.h>
#include <zo/project/project.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <map>

namespace zo::cli {
namespace {

int ls(const QCommandLineParser& parser)
{
    const std::string source = parser.positionalArguments().first().toStdString();
    const zo::project::ArchiveFormat format = zo::project::detectFormat(source);
    // Streamed, as an unpacking would write it: a later entry of a path replaces an earlier
    // one; directories and symbolic links are no files. By path, whatever order the archive or
    // the file system keeps.
    std::map<std::string, uint64_t> files;
    zo::project::listProject(source, format, [&files](const zo::project::ProjectEntry& entry) {
        if (entry.kind == zo::project::EntryKind::File)
            files[entry.path] = entry.size;
        else
            files.erase(entry.path);
        return true;
    });
    // Listed as the library lists a project: the metadata file left out.
    files.erase(zo::project::metadataFileName);

    QJsonArray entries;
    qint64 total = 0;
    for (const auto& [file, size] : files) {
        total += static_cast<qint64>(size);
        entries.append(QJsonObject { { "path", QFile::decodeName(QByteArray::fromStdString(file)) },
            { "size", static_cast<qint64>(size) } });
    }
    if (jsonRequested(parser)) {
        printJson(QJsonDocument(
            QJsonObject { { "format", QString::fromStdString(zo::project::formatName(format)) },
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
    print(QStringLiteral("%1 files, %2 bytes").arg(entries.size()).arg(total));
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
