#include "formats.h"

#include "command.h"

#include <QStringList>

#include <algorithm>
#include <array>
#include <utility>

namespace zo::cli {
namespace {

using zo::project::ArchiveFormat;

const std::array<std::pair<const char*, ArchiveFormat>, 9> kNames { {
    { "zop", ArchiveFormat::Native },
    { "dir", ArchiveFormat::Directory },
    { "tar", ArchiveFormat::Tar },
    { "tar.gz", ArchiveFormat::TarGz },
    { "tar.bz2", ArchiveFormat::TarBz2 },
    { "tar.xz", ArchiveFormat::TarXz },
    { "tar.zst", ArchiveFormat::TarZstd },
    { "zip", ArchiveFormat::Zip },
    { "7z", ArchiveFormat::SevenZip },
} };

QString knownNames()
{
    QStringList names;
    for (const auto& [name, format] : kNames)
        names << QLatin1String(name);
    return names.join(QStringLiteral(", "));
}

} // namespace

QString formatName(ArchiveFormat format)
{
    const auto found = std::find_if(kNames.begin(), kNames.end(),
        [format](const auto& entry) { return entry.second == format; });
    return found == kNames.end() ? QString() : QLatin1String(found->first);
}

QCommandLineOption formatOption()
{
    return QCommandLineOption(QStringLiteral("format"),
        QStringLiteral("The archive format: %1 (default: told by the archive's content or "
                       "name).")
            .arg(knownNames()),
        QStringLiteral("NAME"));
}

ArchiveFormat requestedFormat(const QCommandLineParser& parser)
{
    const QString option = formatOption().names().constFirst();
    if (!parser.isSet(option))
        return ArchiveFormat::Auto;
    const QString requested = parser.value(option);
    for (const auto& [name, format] : kNames)
        if (requested == QLatin1String(name))
            return format;
    throw UsageError(QStringLiteral("unknown format '%1'; known: %2")
                         .arg(requested, knownNames())
                         .toStdString());
}

} // namespace zo::cli
