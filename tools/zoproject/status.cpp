// The status command: what a crash left below a project, and whether anything is to recover.
#include "command.h"
#include "scan.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>

#include <algorithm>

namespace zo::cli {
namespace {

QString age(const QDateTime& time)
{
    const qint64 seconds = std::max<qint64>(time.secsTo(QDateTime::currentDateTime()), 0);
    if (seconds < 60)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1 min").arg(seconds / 60);
    if (seconds < 86400)
        return QStringLiteral("%1 h").arg(seconds / 3600);
    return QStringLiteral("%1 days").arg(seconds / 86400);
}

QString describe(const SwapFile& swap)
{
    QString owner = QStringLiteral("process %1").arg(swap.info.pid);
    if (swap.owner.running)
        owner += QStringLiteral(" (%1)").arg(swap.owner.program);
    QString source;
    if (!swap.sourceExists)
        source = QStringLiteral("; no source file");
    else if (swap.sourceChanged)
        source = QStringLiteral("; source changed since");
    return QStringLiteral("  %1  (swap %2, %3, %4 old, %5%6)")
        .arg(swap.info.sourcePath, swap.info.swapPath, QLocale().formattedDataSize(swap.size),
            age(swap.modified), owner, source);
}

void printSwapFiles(const Scan& scan, bool recoverable, const QString& heading)
{
    bool headed = false;
    for (const SwapFile& swap : scan.swapFiles) {
        if (swap.recoverable() != recoverable)
            continue;
        if (!headed)
            print(heading);
        headed = true;
        print(describe(swap));
    }
}

void printText(const Scan& scan)
{
    printSwapFiles(scan, true, QStringLiteral("Recoverable swap files (their process has ended):"));
    printSwapFiles(scan, false, QStringLiteral("Pending swap files (their process still runs):"));
    if (!scan.interruptedCommits.empty())
        print(QStringLiteral("Interrupted commits (a backup without its source):"));
    for (const InterruptedCommit& commit : scan.interruptedCommits)
        print(QStringLiteral("  %1  (backup %2, %3)")
                  .arg(commit.sourcePath, commit.backupPath,
                      QLocale().formattedDataSize(commit.size)));
    const int count = scan.recoverableCount();
    print(count == 0
            ? QStringLiteral("Nothing to recover.")
            : QStringLiteral("%1 to recover: see \"zoproject recover --help\".").arg(count));
}

QJsonObject toJson(const SwapFile& swap)
{
    QJsonObject object { { "swapPath", swap.info.swapPath }, { "sourcePath", swap.info.sourcePath },
        { "pid", swap.info.pid }, { "ownerRunning", swap.owner.running },
        { "recoverable", swap.recoverable() }, { "size", swap.size },
        { "modified", swap.modified.toUTC().toString(Qt::ISODate) },
        { "ageSeconds", swap.modified.secsTo(QDateTime::currentDateTime()) },
        { "sourceExists", swap.sourceExists }, { "sourceChanged", swap.sourceChanged } };
    if (swap.owner.running)
        object.insert("ownerProgram", swap.owner.program);
    return object;
}

void printStatusJson(const QString& directory, const Scan& scan)
{
    QJsonArray swapFiles;
    for (const SwapFile& swap : scan.swapFiles)
        swapFiles.append(toJson(swap));
    QJsonArray commits;
    for (const InterruptedCommit& commit : scan.interruptedCommits)
        commits.append(QJsonObject { { "backupPath", commit.backupPath },
            { "sourcePath", commit.sourcePath }, { "size", commit.size } });
    printJson(QJsonDocument(
        QJsonObject { { "directory", directory }, { "recoverable", scan.recoverableCount() },
            { "swapFiles", swapFiles }, { "interruptedCommits", commits } }));
}

int status(const QCommandLineParser& parser)
{
    zo::project::ProjectVFS project(
        projectDirectory(parser.positionalArguments().value(0, QStringLiteral("."))));
    const Scan scan = scanProject(project);
    if (jsonRequested(parser))
        printStatusJson(project.path(), scan);
    else
        printText(scan);
    return scan.recoverableCount() == 0 ? kSuccess : kRecoverable;
}

} // namespace

Command statusCommand()
{
    return { QStringLiteral("status"),
        QStringLiteral("List the swap files and interrupted commits below a project."),
        QStringLiteral("[DIR]"),
        { { QStringLiteral("DIR"),
            QStringLiteral("The project directory (default: the current directory).") } },
        0, 1, { jsonOption() }, status };
}

} // namespace zo::cli
