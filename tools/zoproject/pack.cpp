// The pack and unpack commands: a project directory to an archive and back.
#include "command.h"
#include "formats.h"
#include "progress.h"

namespace zo::cli {
namespace {

using Transfer = bool (*)(const std::string&, const std::string&, zo::project::ArchiveFormat,
    const zo::project::ProgressCallback&);

// Both commands hand their two paths and the format to the library in the order given.
int transfer(Transfer operation, const QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    const zo::project::ArchiveFormat format = requestedFormat(parser);
    withProgress(parser, arguments[1], [&](const zo::project::ProgressCallback& progress) {
        return operation(arguments[0].toStdString(), arguments[1].toStdString(), format, progress);
    });
    return kSuccess;
}

} // namespace

Command packCommand()
{
    return { QStringLiteral("pack"), QStringLiteral("Pack a project directory into an archive."),
        QStringLiteral("DIR ARCHIVE"),
        { { QStringLiteral("DIR"), QStringLiteral("The project directory.") },
            { QStringLiteral("ARCHIVE"),
                QStringLiteral("The archive to write; an existing one is replaced at once.") } },
        2, 2, { formatOption(), quietOption() }, [](const QCommandLineParser& parser) {
            return transfer(zo::project::exportProject, parser);
        } };
}

Command unpackCommand()
{
    return { QStringLiteral("unpack"),
        QStringLiteral("Unpack an archive into a project directory."),
        QStringLiteral("ARCHIVE DIR"),
        { { QStringLiteral("ARCHIVE"), QStringLiteral("The archive to read.") },
            { QStringLiteral("DIR"),
                QStringLiteral("The directory to unpack into, created with its parents.") } },
        2, 2, { formatOption(), quietOption() }, [](const QCommandLineParser& parser) {
            return transfer(zo::project::importProject, parser);
        } };
}

} // namespace zo::cli
