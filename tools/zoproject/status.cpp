// The status command: what a crash left below a project, and whether anything is to recover.
// It changes nothing.
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

// By OwnerInfo::State.
const char* const kStates[] = { "running", "ended", "in use elsewhere" };

const char* stateOf(zo::os::Liveness liveness)
{
    return kStates[liveness == zo::os::Liveness::Running ? 0
            : liveness == zo::os::Liveness::Ended        ? 1
                                                         : 2];
}

// What interrupted steps left under hidden names: in the directory, beside it under its name,
// and beside the archive workspaces in the temporary directory. The journals of interrupted
// saves are shown with their saves.
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
            if (ofIt && leftover.name.purpose != "journal" && seen.insert(leftover.path).second)
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
    const QString owner = describeOwner(swap.owner);
    QString source;
    if (!swap.backupPath.isEmpty())
        source = QStringLiteral("; commit interrupted, the source is in %1").arg(swap.backupPath);
    else if (!swap.sourceExists)
        source = QStringLiteral("; no source file");
    else if (swap.sourceChanged)
        source = QStringLiteral("; source changed since");
    if (swap.torn)
        source += QStringLiteral("; ") + kTorn;
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

// The last line counts what the lines above list: the saves that opening completes apart from
// what the recover command takes by name.
QString summary(int toComplete, int toRecover)
{
    const QString saves = toComplete == 1
        ? QStringLiteral("1 interrupted save to complete")
        : QStringLiteral("%1 interrupted saves to complete").arg(toComplete);
    if (toRecover == 0)
        return toComplete == 0 ? QStringLiteral("Nothing to recover.")
                               : saves
                + QStringLiteral(": opening the project, or \"zoproject recover --all\", "
                                 "completes %1.")
                      .arg(toComplete == 1 ? QStringLiteral("it") : QStringLiteral("them"));
    return (toComplete == 0 ? QString() : saves + QStringLiteral(" and "))
        + QStringLiteral("%1 to recover: see \"zoproject recover --help\".").arg(toRecover);
}

void printText(const std::vector<Save>& saves, const std::vector<SwapFile>& swapFiles,
    const Workspaces& workspaces, const std::vector<Leftover>& leftovers, int toComplete,
    int toRecover)
{
    printSaves(saves);
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
    printLeftovers(leftovers);
    print(summary(toComplete, toRecover));
}

QJsonObject toJson(const SwapFile& swap)
{
    QJsonObject object { { "swapPath", swap.info.swapPath }, { "sourcePath", swap.info.sourcePath },
        { "pid", swap.info.pid }, { "ownerRunning", swap.owner.state == Owner::State::Running },
        { "ownerState", kStates[static_cast<int>(swap.owner.state)] },
        { "recoverable", swap.recoverable() }, { "size", swap.size },
        { "modified", swap.modified.toUTC().toString(Qt::ISODate) },
        { "ageSeconds", swap.modified.secsTo(QDateTime::currentDateTime()) },
        { "sourceExists", swap.sourceExists }, { "sourceChanged", swap.sourceChanged },
        { "torn", swap.torn } };
    if (!swap.owner.program.isEmpty())
        object.insert("ownerProgram", swap.owner.program);
    if (!swap.owner.hostName.isEmpty())
        object.insert("ownerHost", swap.owner.hostName);
    if (!swap.backupPath.isEmpty())
        object.insert("backupPath", swap.backupPath);
    return object;
}

QJsonObject toJson(const Save& save)
{
    return { { "journalPath", save.journalPath }, { "pid", save.owner.pid },
        { "ownerState", kStates[static_cast<int>(save.owner.state)] },
        { "files", QJsonArray::fromStringList(save.files) } };
}

// A look changes nothing: the project is opened to leave what crashes left unfinished, so that
// status shows it as it is, as the owner of another host or pid namespace would find it too.
int status(const QCommandLineParser& parser)
{
    const zo::project::ProjectVFS project(
        projectDirectory(parser.positionalArguments().value(0, QStringLiteral("."))),
        zo::project::ProjectVFS::Unfinished::Leave);
    const std::vector<Save>& saves = project.interruptedSavesWhenOpened();
    const std::vector<SwapFile> swapFiles = withoutSavedFiles(scanProject(project), saves);
    const Workspaces workspaces = workspacesOf(project.path());
    const std::vector<Leftover> leftovers = leftoversOf(project.path());
    const int toComplete = static_cast<int>(savesToComplete(project).size());
    const int toRecover
        = recoverableCount(swapFiles) + static_cast<int>(workspaces.belonging.size());
    if (jsonRequested(parser)) {
        QJsonArray savesArray;
        for (const Save& save : saves)
            savesArray.append(toJson(save));
        QJsonArray array;
        for (const SwapFile& swap : swapFiles)
            array.append(toJson(swap));
        printJson(QJsonDocument(
            QJsonObject { { "directory", project.path() }, { "recoverable", toRecover },
                { "savesToComplete", toComplete }, { "interruptedSaves", savesArray },
                { "swapFiles", array }, { "workspaces", workspacesJson(workspaces.belonging) },
                { "otherWorkspaces", workspacesJson(workspaces.others) },
                { "leftovers", leftoversJson(leftovers) } }));
    } else {
        printText(saves, swapFiles, workspaces, leftovers, toComplete, toRecover);
    }
    return toComplete + toRecover == 0 ? kSuccess : kRecoverable;
}

} // namespace

Command statusCommand()
{
    return { QStringLiteral("status"),
        QStringLiteral("Show what crashes left below a project, and what can be recovered."),
        QStringLiteral("[DIR]"), { projectDirectoryArgument() }, 0, 1, { jsonOption() }, status };
}

} // namespace zo::cli
