// The ls command: the files of a project directory or archive, with their sizes, and its
// symbolic links with their targets.
#include "command.h"

#include <zo/project/contents.h>
#include <zo/project/project.h>

#include <QJsonArray>
#include <QJsonObject>

#include <map>

namespace zo::cli {
namespace {

using zo::project::EntryKind;
using zo::project::ProjectEntry;

QString counted(qint64 count, const char* singular, const char* plural)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? singular : plural));
}

int ls(const QCommandLineParser& parser)
{
    const std::string source = bytesOf(parser.positionalArguments().first());
    const zo::project::ArchiveFormat format = zo::project::detectFormat(source);
    // Streamed, as an unpacking would write it: a later entry of a path replaces an earlier
    // one. By path, whatever order the archive or the file system keeps.
    std::map<std::string, ProjectEntry> entries;
    zo::project::listProject(source, format, [&entries](const ProjectEntry& entry) {
        if (entry.kind == EntryKind::Directory)
            entries.erase(entry.path);
        else
            entries[entry.path] = entry;
        return true;
    });
    // Listed as the library lists a project: the metadata file left out.
    entries.erase(zo::project::metadataFileName);

    QJsonArray files;
    QJsonArray links;
    qint64 total = 0;
    for (const auto& [path, entry] : entries) {
        const QString name = fromBytes(QByteArray::fromStdString(path));
        if (entry.kind == EntryKind::SymbolicLink) {
            links.append(QJsonObject { { "path", name },
                { "target", fromBytes(QByteArray::fromStdString(entry.linkTarget)) } });
            continue;
        }
        total += static_cast<qint64>(entry.size);
        files.append(QJsonObject { { "path", name }, { "size", static_cast<qint64>(entry.size) } });
    }
    if (jsonRequested(parser)) {
        printJson(QJsonDocument(
            QJsonObject { { "format", QString::fromStdString(zo::project::formatName(format)) },
                { "files", files }, { "links", links }, { "totalSize", total } }));
        return kSuccess;
    }
    const int width = QString::number(total).size();
    for (const auto& [path, entry] : entries) {
        const QString name = oneLine(path);
        if (entry.kind == EntryKind::SymbolicLink)
            print(QStringLiteral("%1  %2 -> %3")
                      .arg(QLatin1String("-"), width)
                      .arg(name, oneLine(entry.linkTarget)));
        else
            print(QStringLiteral("%1  %2").arg(static_cast<qint64>(entry.size), width).arg(name));
    }
    QString summary = counted(files.size(), "file", "files");
    if (!links.isEmpty())
        summary += QStringLiteral(", ") + counted(links.size(), "link", "links");
    print(summary + QStringLiteral(", ") + counted(total, "byte", "bytes"));
    return kSuccess;
}

} // namespace

Command lsCommand()
{
    return { QStringLiteral("ls"), QStringLiteral("List a project's files and links."),
        QStringLiteral("ARCHIVE|DIR"),
        { { QStringLiteral("ARCHIVE|DIR"), QStringLiteral("A project archive or directory.") } }, 1,
        1, { jsonOption() }, ls };
}

} // namespace zo::cli
