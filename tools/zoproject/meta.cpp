// The meta command: reads or sets the metadata of a project directory or archive.
#include "command.h"
#include "source.h"

#include <zo/project/contents.h>
#include <zo/project/project.h>

#include <QJsonObject>

#include <stdexcept>

namespace zo::cli {
namespace {

using Metadata = std::map<std::string, std::string>;

void printMetadata(const Metadata& metadata, bool json)
{
    QJsonObject object;
    for (const auto& [key, value] : metadata)
        if (json)
            object.insert(QString::fromStdString(key), QString::fromStdString(value));
        else
            print(QString::fromStdString(key + "=" + value));
    if (json)
        printJson(QJsonDocument(object));
}

int meta(const QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() == 3) {
        const ProjectSource source(arguments[0]);
        zo::project::Project(source.directory().toStdString())
            .setMetadata(arguments[1].toStdString(), arguments[2].toStdString());
        // The export replaces the archive whole or not at all, keeping its permissions.
        if (source.isArchive())
            zo::project::exportProject(
                source.directory().toStdString(), source.path().toStdString(), source.format());
        return kSuccess;
    }
    // Streamed: an archive is not unpacked to read it.
    const std::string path = arguments[0].toStdString();
    const Metadata metadata
        = zo::project::readProjectMetadata(path, zo::project::detectFormat(path));
    if (arguments.size() == 1) {
        printMetadata(metadata, jsonRequested(parser));
        return kSuccess;
    }
    const std::string key = arguments[1].toStdString();
    const auto found = metadata.find(key);
    if (found == metadata.end())
        throw std::runtime_error(
            "'" + arguments[0].toStdString() + "': no metadata key '" + key + "'");
    if (jsonRequested(parser))
        printMetadata({ *found }, true);
    else
        print(QString::fromStdString(found->second));
    return kSuccess;
}

} // namespace

Command metaCommand()
{
    return { QStringLiteral("meta"), QStringLiteral("Print or set a project's metadata."),
        QStringLiteral("ARCHIVE|DIR [KEY [VALUE]]"),
        { { QStringLiteral("ARCHIVE|DIR"), QStringLiteral("A project archive or directory.") },
            { QStringLiteral("KEY"), QStringLiteral("The one key to print or set.") },
            { QStringLiteral("VALUE"),
                QStringLiteral("Its new value; an archive is rewritten with it.") } },
        1, 3, { jsonOption() }, meta };
}

} // namespace zo::cli
