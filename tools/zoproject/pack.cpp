// The pack and unpack commands: a project directory to an archive and back.
#include "command.h"
#include "formats.h"
#include "progress.h"
#include "scan.h"

#include <QFileInfo>

#include <algorithm>

namespace zo::cli {
namespace {

using zo::project::ExistingFiles;

const QString kExclude = QStringLiteral("exclude");
const QString kForce = QStringLiteral("force");
const QString kKeep = QStringLiteral("keep-old-files");

// At most this many names in the line that tells what an unpacking kept or replaced.
constexpr int kNamesShown = 3;

// A save interrupted halfway leaves some files new and the others old: no tree to pack. The
// project is opened to leave it, as status does. Returns how many swap files of ended editors,
// unsaved work that no pack holds, lie there.
int countUnsavedRefusingHalfSaved(const QString& directory)
{
    if (!QFileInfo(qtPath(directory)).isDir())
        return 0;
    const zo::project::ProjectVFS project(
        projectDirectory(directory), zo::project::ProjectVFS::Unfinished::Leave);
    for (const Save& save : savesToComplete(project))
        if (!save.files.isEmpty())
            throw std::runtime_error("'" + bytesOf(directory) + "': a save of "
                + std::to_string(save.files.size()) + " files was interrupted there (journal "
                + bytesOf(save.journalPath)
                + "); opening the project, or \"zoproject recover\", completes it first; "
                  "nothing was packed");
    return recoverableCount(scanProject(project));
}

int pack(const QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    zo::project::ExportOptions options;
    for (const QString& pattern : parser.values(kExclude))
        options.exclude.push_back(bytesOf(pattern));
    const zo::project::ArchiveFormat format = requestedFormat(parser);
    const int unsaved = countUnsavedRefusingHalfSaved(arguments[0]);
    withProgress(parser, arguments[1], [&](const zo::project::ProgressCallback& progress) {
        return zo::project::exportProject(
            bytesOf(arguments[0]), bytesOf(arguments[1]), format, options, progress);
    });
    if (unsaved > 0 && options.leaveOutEditingFiles)
        print(QStringLiteral("left out %1 of ended editors, unsaved work that \"zoproject "
                             "recover\" saves into the project")
                  .arg(unsaved == 1 ? QStringLiteral("1 swap file")
                                    : QStringLiteral("%1 swap files").arg(unsaved)));
    return kSuccess;
}

// "kept 2 existing files: a.txt, b.txt", by path; nothing when there are none.
void tell(const char* what, std::vector<std::string> paths)
{
    if (paths.empty())
        return;
    std::sort(paths.begin(), paths.end());
    QStringList names;
    for (size_t at = 0; at < paths.size() && at < kNamesShown; ++at)
        names << fromBytes(QByteArray::fromStdString(paths[at]));
    if (paths.size() > kNamesShown)
        names << QStringLiteral("and %1 more").arg(paths.size() - kNamesShown);
    print(QStringLiteral("%1 %2 existing %3: %4")
              .arg(QLatin1String(what))
              .arg(paths.size())
              .arg(QLatin1String(paths.size() == 1 ? "file" : "files"), names.join(", ")));
}

int unpack(const QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    if (parser.isSet(kForce) && parser.isSet(kKeep))
        throw UsageError("--force and --keep-old-files exclude each other");
    zo::project::ImportOptions options;
    options.existingFiles = parser.isSet(kForce) ? ExistingFiles::Replace
        : parser.isSet(kKeep)                    ? ExistingFiles::Keep
                                                 : ExistingFiles::Refuse;
    const zo::project::ArchiveFormat format = requestedFormat(parser);
    std::optional<zo::project::ImportReport> report;
    try {
        withProgress(parser, arguments[1], [&](const zo::project::ProgressCallback& progress) {
            report = zo::project::importProject(
                bytesOf(arguments[0]), bytesOf(arguments[1]), format, options, progress);
            return report.has_value();
        });
    } catch (const zo::project::ArchiveConflict& conflict) {
        throw std::runtime_error(std::string(conflict.what())
            + "; nothing was unpacked: --force replaces existing files, --keep-old-files keeps "
              "them");
    }
    tell("kept", report->kept);
    tell("replaced", report->replaced);
    if (!report->previousTree.empty())
        throw std::runtime_error("'" + bytesOf(arguments[1])
            + "' was changed by another program while it was unpacked: its previous tree, "
              "with those changes, stays in '"
            + report->previousTree + "'");
    return kSuccess;
}

QCommandLineOption excludeOption()
{
    return QCommandLineOption(kExclude,
        QStringLiteral("Leave out what PATTERN matches (a shell pattern, matched against the "
                       "path below DIR at any of its components, \"^\" anchoring it at DIR); "
                       "may be repeated."),
        QStringLiteral("PATTERN"));
}

} // namespace

Command packCommand()
{
    return { QStringLiteral("pack"), QStringLiteral("Pack a project directory into an archive."),
        QStringLiteral("DIR ARCHIVE"),
        { { QStringLiteral("DIR"),
              QStringLiteral("The project directory; its swap files, commit backups and owner "
                             "marks are left out.") },
            { QStringLiteral("ARCHIVE"),
                QStringLiteral("The archive to write; an existing one is replaced at once.") } },
        2, 2, { formatOption(), excludeOption(), quietOption() }, pack };
}

Command unpackCommand()
{
    return { QStringLiteral("unpack"),
        QStringLiteral("Unpack an archive into a project directory."),
        QStringLiteral("ARCHIVE DIR"),
        { { QStringLiteral("ARCHIVE"), QStringLiteral("The archive to read.") },
            { QStringLiteral("DIR"),
                QStringLiteral("The directory to unpack into, created with its parents.") } },
        2, 2,
        { formatOption(),
            QCommandLineOption({ QStringLiteral("f"), kForce },
                QStringLiteral("Replace the files DIR holds at the paths of entries.")),
            QCommandLineOption({ QStringLiteral("k"), kKeep },
                QStringLiteral("Keep the files DIR holds at the paths of entries, and unpack "
                               "the rest.")),
            quietOption() },
        unpack };
}

} // namespace zo::cli
