// The meta command: reads or sets the metadata of a project directory or archive.
#include "command.h"
#include "progress.h"
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
            print(oneLine(key, true) + QLatin1Char('=') + oneLine(value, false));
    if (json)
        printJson(QJsonDocument(object));
}

int meta(const QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() > 1 && arguments[1].isEmpty())
        throw UsageError("a metadata key cannot be empty");
    if (arguments.size() == 3) {
        const ProjectSource source(arguments[0], parser);
        zo::project::Project(source.directory())
            .setMetadata(bytesOf(arguments[1]), bytesOf(arguments[2]));
        source.save(parser);
        return kSuccess;
    }
    // Streamed: an archive is not unpacked to read it.
    const std::string path = bytesOf(arguments[0]);
    const Metadata metadata
        = zo::project::readProjectMetadata(path, zo::project::detectFormat(path));
    if (arguments.size() == 1) {
        printMetadata(metadata, jsonRequested(parser));
        return kSuccess;
    }
    const std::string key = bytesOf(arguments[1]);
    const auto found = metadata.find(key);
    if (found == metadata.end())
        throw std::runtime_error("'" + path + "': no metadata key '" + key + "'");
    if (jsonRequested(parser))
        printMetadata({ *found }, true);
    else
        print(fromBytes(QByteArray::fromStdString(found->second)));
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
        1, 3, { jsonOption(), quietOption() }, meta };
}

} // namespace zo::cli
