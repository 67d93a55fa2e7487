#include "formats.h"

#include "command.h"

#include <QStringList>

namespace zo::cli {
namespace {

QString knownNames()
{
    QStringList names;
    for (const std::string& name : zo::project::formatNames())
        names << QString::fromStdString(name);
    return names.join(QStringLiteral(", "));
}

} // namespace

QCommandLineOption formatOption()
{
    return QCommandLineOption(QStringLiteral("format"),
        QStringLiteral("The archive format: %1 (default: told by the archive's content or "
                       "name).")
            .arg(knownNames()),
        QStringLiteral("NAME"));
}

zo::project::ArchiveFormat requestedFormat(const QCommandLineParser& parser)
{
    const QString option = formatOption().names().constFirst();
    if (!parser.isSet(option))
        return zo::project::ArchiveFormat::Auto;
    const QString requested = parser.value(option);
    if (const auto format = zo::project::formatNamed(requested.toStdString()))
        return *format;
    throw UsageError(QStringLiteral("unknown format '%1'; known: %2")
                         .arg(requested, knownNames())
                         .toStdString());
}

} // namespace zo::cli
