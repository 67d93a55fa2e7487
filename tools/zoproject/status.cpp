// The status command: what a crash left below a project, and whether anything is to recover.
#include "command.h"
#include "scan.h"
#include "workspaces.h"

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
    const QString owner = describeOwner(swap);
    QString source;
    if (!swap.backupPath.isEmpty())
        source = QStringLiteral("; commit interrupted, the source is in %1").arg(swap.backupPath);
    else if (!swap.sourceExists)
        source = QStringLiteral("; no source file");
    else if (swap.sourceChanged)
        source = QStringLiteral("; source changed since");
    return QStringLiteral("  %1  (swap %2, %3, %4 old, %5%6)")
        .arg(swap.info.sourcePath, swap.info.swapPath, QLocale().formattedDataSize(swap.size),
            age(swap.modified), owner, source);
}

void printSwapFiles(
    const std::vector<SwapFile>& swapFiles, Owner::State state, const QString& heading)
{
    bool headed = false;
    for (const SwapFile& swap : swapFiles) {
        if (swap.owner.state != state)
            continue;
        if (!headed)
            print(heading);
        headed = true;
        print(describe(swap));
    }
}

void printText(const zo::project::ProjectVFS& project, const std::vector<SwapFile>& swapFiles,
    const Workspaces& workspaces, int count)
{
    for (const QString& source : project.restoredWhenOpened())
        print(QStringLiteral("Put back %1 from its backup %2: its commit was interrupted.")
                  .arg(source, project.makeBackupPath(source)));
    printSwapFiles(swapFiles, Owner::State::Ended,
        QStringLiteral("Recoverable swap files (their process has ended):"));
    printSwapFiles(swapFiles, Owner::State::Running,
        QStringLiteral("Pending swap files (their process still runs):"));
    printSwapFiles(swapFiles, Owner::State::InUseElsewhere,
        QStringLiteral("Swap files in use elsewhere (their process may still run):"));
    printWorkspaces(workspaces.belonging,
        QStringLiteral("Recoverable archive workspaces (their process has ended):"));
    printWorkspaces(workspaces.others,
        QStringLiteral("Archive workspaces of other directories (not counted here):"));
    print(count == 0
            ? QStringLiteral("Nothing to recover.")
            : QStringLiteral("%1 to recover: see \"zoproject recover --help\".").arg(count));
}

QJsonObject toJson(const SwapFile& swap)
{
    static const char* const kStates[] = { "running", "ended", "in use elsewhere" };
    QJsonObject object { { "swapPath", swap.info.swapPath }, { "sourcePath", swap.info.sourcePath },
        { "pid", swap.info.pid }, { "ownerRunning", swap.owner.state == Owner::State::Running },
        { "ownerState", kStates[static_cast<int>(swap.owner.state)] },
        { "recoverable", swap.recoverable() }, { "size", swap.size },
        { "modified", swap.modified.toUTC().toString(Qt::ISODate) },
        { "ageSeconds", swap.modified.secsTo(QDateTime::currentDateTime()) },
        { "sourceExists", swap.sourceExists }, { "sourceChanged", swap.sourceChanged } };
    if (!swap.owner.program.isEmpty())
        object.insert("ownerProgram", swap.owner.program);
    if (!swap.owner.hostName.isEmpty())
        object.insert("ownerHost", swap.owner.hostName);
    if (!swap.backupPath.isEmpty())
        object.insert("backupPath", swap.backupPath);
    return object;
}

int status(const QCommandLineParser& parser)
{
    zo::project::ProjectVFS project(
        projectDirectory(parser.positionalArguments().value(0, QStringLiteral("."))));
    const std::vector<SwapFile> swapFiles = scanProject(project);
    const Workspaces workspaces = workspacesOf(project.path());
    const int count = recoverableCount(swapFiles) + static_cast<int>(workspaces.belonging.size());
    if (jsonRequested(parser)) {
        QJsonArray array;
        for (const SwapFile& swap : swapFiles)
            array.append(toJson(swap));
        QJsonArray restored;
        for (const QString& source : project.restoredWhenOpened())
            restored.append(source);
        printJson(QJsonDocument(QJsonObject { { "directory", project.path() },
            { "recoverable", count }, { "restored", restored }, { "swapFiles", array },
            { "workspaces", workspacesJson(workspaces.belonging) },
            { "otherWorkspaces", workspacesJson(workspaces.others) } }));
    } else {
        printText(project, swapFiles, workspaces, count);
    }
    return count == 0 ? kSuccess : kRecoverable;
}

} // namespace

Command statusCommand()
{
    return { QStringLiteral("status"),
        QStringLiteral("Show what crashes left below a project, and what can be recovered."),
        QStringLiteral("[DIR]"), { projectDirectoryArgument() }, 0, 1, { jsonOption() }, status };
}

} // namespace zo::cli
