// The status command: what a crash left below a project, and whether anything is to recover.
#include "command.h"
#include "scan.h"
#include "workspaces.h"

#include <zo/leftover.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>

#include <algorithm>
#include <set>

namespace zo::cli {
namespace {

using zo::os::Leftover;

const char* const kStates[] = { "running", "ended", "in use elsewhere" };

const char* stateOf(zo::os::Liveness liveness)
{
    return kStates[liveness == zo::os::Liveness::Running ? 0
            : liveness == zo::os::Liveness::Ended        ? 1
                                                         : 2];
}

// What interrupted steps left under hidden names: in the directory, beside it under its name,
// and beside the archive workspaces in the temporary directory.
std::vector<Leftover> leftoversOf(const QString& directory)
{
    const QFileInfo info(directory);
    const std::string besideName = "." + QFile::encodeName(info.fileName()).toStdString() + ".zo-";
    std::vector<Leftover> found;
    std::set<std::string> seen;
    for (const QString& place : { directory, info.path(), QDir::tempPath() })
        for (Leftover& leftover : zo::os::findLeftovers(QFile::encodeName(place).toStdString())) {
            const std::string name = leftover.path.substr(leftover.path.rfind('/') + 1);
            const bool ofIt
                = place == directory || place == QDir::tempPath() || name.rfind(besideName, 0) == 0;
            if (ofIt && seen.insert(leftover.path).second)
                found.push_back(std::move(leftover));
        }
    return found;
}

void printLeftovers(const std::vector<Leftover>& leftovers)
{
    if (leftovers.empty())
        return;
    print(QStringLiteral("Left by interrupted steps (the next save or load beside them removes "
                         "those whose process has ended):"));
    for (const Leftover& leftover : leftovers)
        print(QStringLiteral("  %1  (%2, process %3, %4%5)")
                  .arg(QFile::decodeName(QByteArray::fromStdString(leftover.path)),
                      QString::fromStdString(leftover.name.purpose))
                  .arg(leftover.name.pid)
                  .arg(QLatin1String(stateOf(leftover.owner)),
                      leftover.holdsData ? QStringLiteral("; may hold data: kept for you to check")
                                         : QString()));
}

QJsonArray leftoversJson(const std::vector<Leftover>& leftovers)
{
    QJsonArray array;
    for (const Leftover& leftover : leftovers)
        array.append(
            QJsonObject { { "path", QFile::decodeName(QByteArray::fromStdString(leftover.path)) },
                { "purpose", QString::fromStdString(leftover.name.purpose) },
                { "pid", leftover.name.pid }, { "ownerState", stateOf(leftover.owner) },
                { "holdsData", leftover.holdsData } });
    return array;
}

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

void printText(const std::vector<SwapFile>& swapFiles, const std::vector<Workspace>& workspaces,
    const std::vector<Leftover>& leftovers, int count)
{
    printSwapFiles(swapFiles, Owner::State::Ended,
        QStringLiteral("Recoverable swap files (their process has ended):"));
    printSwapFiles(swapFiles, Owner::State::Running,
        QStringLiteral("Pending swap files (their process still runs):"));
    printSwapFiles(swapFiles, Owner::State::InUseElsewhere,
        QStringLiteral("Swap files in use elsewhere (their process may still run):"));
    printWorkspaces(workspaces);
    printLeftovers(leftovers);
    print(count == 0
            ? QStringLiteral("Nothing to recover.")
            : QStringLiteral("%1 to recover: see \"zoproject recover --help\".").arg(count));
}

QJsonObject toJson(const SwapFile& swap)
{
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
    const std::vector<Leftover> leftovers = leftoversOf(project.path());
    const int count = recoverableCount(swapFiles) + static_cast<int>(workspaces.size());
    if (jsonRequested(parser)) {
        QJsonArray array;
        for (const SwapFile& swap : swapFiles)
            array.append(toJson(swap));
        printJson(
            QJsonDocument(QJsonObject { { "directory", project.path() }, { "recoverable", count },
                { "swapFiles", array }, { "workspaces", workspacesJson(workspaces) },
                { "leftovers", leftoversJson(leftovers) } }));
    } else {
        printText(swapFiles, workspaces, leftovers, count);
    }
    return count == 0 ? kSuccess : kRecoverable;
}

} // namespace

Command statusCommand()
{
    return { QStringLiteral("status"),
        QStringLiteral("List the swap files below a project and whether they can be recovered, "
                       "the archive workspaces ended processes left, and what interrupted saves, "
                       "packs and unpacks left in and beside the project."),
        QStringLiteral("[DIR]"),
        { { QStringLiteral("DIR"),
            QStringLiteral("The project directory (default: the current directory).") } },
        0, 1, { jsonOption() }, status };
}

} // namespace zo::cli
