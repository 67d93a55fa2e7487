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

void printText(
    const std::vector<SwapFile>& swapFiles, const std::vector<Workspace>& workspaces, int count)
{
    printSwapFiles(swapFiles, Owner::State::Ended,
        QStringLiteral("Recoverable swap files (their process has ended):"));
    printSwapFiles(swapFiles, Owner::State::Running,
        QStringLiteral("Pending swap files (their process still runs):"));
    printSwapFiles(swapFiles, Owner::State::InUseElsewhere,
        QStringLiteral("Swap files in use elsewhere (their process may still run):"));
    printWorkspaces(workspaces);
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
    // Archive workspaces belong to no directory: every one a crash left is shown.
    const std::vector<Workspace> workspaces = zo::project::ProjectModel::recoverableWorkspaces();
    const int count = recoverableCount(swapFiles) + static_cast<int>(workspaces.size());
    if (jsonRequested(parser)) {
        QJsonArray array;
        for (const SwapFile& swap : swapFiles)
            array.append(toJson(swap));
        printJson(
            QJsonDocument(QJsonObject { { "directory", project.path() }, { "recoverable", count },
                { "swapFiles", array }, { "workspaces", workspacesJson(workspaces) } }));
    } else {
        printText(swapFiles, workspaces, count);
    }
    return count == 0 ? kSuccess : kRecoverable;
}

} // namespace

Command statusCommand()
{
    return { QStringLiteral("status"),
        QStringLiteral("List the swap files below a project and whether they can be recovered, "
                       "and the archive workspaces ended processes left."),
        QStringLiteral("[DIR]"),
        { { QStringLiteral("DIR"),
            QStringLiteral("The project directory (default: the current directory).") } },
        0, 1, { jsonOption() }, status };
}

} // namespace zo::cli
