// The pack and unpack commands: a project directory to an archive and back.
#include "command.h"
#include "formats.h"

namespace zo::cli {
namespace {

using Transfer = void (*)(const std::string&, const std::string&, zo::project::ArchiveFormat);

// Both commands hand their two paths and the format to the library in the order given.
int transfer(Transfer operation, const QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    operation(arguments[0].toStdString(), arguments[1].toStdString(), requestedFormat(parser));
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
        2, 2, { formatOption() }, [](const QCommandLineParser& parser) {
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
        2, 2, { formatOption() }, [](const QCommandLineParser& parser) {
            return transfer(zo::project::importProject, parser);
        } };
}

} // namespace zo::cli
