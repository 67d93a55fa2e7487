// The recover command: takes over or drops the swap files ended processes left below a
// project, and never touches those of a process that still runs. Opening the project has
// completed the interrupted saves and put the backups of interrupted commits back already (see
// scan.h); what is recovered is committed at the end, at once. A dry run opens the project to
// leave all that, and says what opening completes and puts back.
#include "command.h"
#include "scan.h"
#include "stop.h"
#include "workspaces.h"

#include <zo/project/exceptions.h>

#include <QFileInfo>

#include <algorithm>
#include <functional>
#include <map>

namespace zo::cli {
namespace {

using zo::project::ProjectVFS;

const QString kAll = QStringLiteral("all");
const QString kAbandon = QStringLiteral("abandon");
const QString kDryRun = QStringLiteral("dry-run");
const QString kWorkspace = QStringLiteral("workspace");
const QString kForce = QStringLiteral("force");

// PATH arguments, relative to the project root; each selects itself and what lies below it.
class Selection {
public:
    Selection(const QString& root, const QStringList& paths)
    {
        for (const QString& path : paths)
            _paths[projectPath(root, path)] = false;
    }

    bool everything() const { return _paths.empty(); }

    bool selects(const QStringList& candidates)
    {
        bool selected = everything();
        for (auto& [path, used] : _paths)
            for (const QString& candidate : candidates)
                if (path == QLatin1String(".") || candidate == path
                    || candidate.startsWith(path + QLatin1Char('/'))) {
                    used = true;
                    selected = true;
                }
        return selected;
    }

    // Checked before anything is done, so a typing error changes nothing.
    void requireAllUsed() const
    {
        for (const auto& [path, used] : _paths)
            if (!used)
                throw std::runtime_error("'" + path.toStdString() + "': no swap file there");
    }

private:
    std::map<QString, bool> _paths;
};

class Recovery {
public:
    Recovery(ProjectVFS& project, const QCommandLineParser& parser)
        : _project(project)
        , _abandon(parser.isSet(kAbandon))
        , _dryRun(parser.isSet(kDryRun))
        , _force(parser.isSet(kForce))
    {
    }

    void run(const std::vector<SwapFile>& found, Selection& selection)
    {
        std::vector<SwapFile> swapFiles;
        for (const SwapFile& swap : found)
            if (selection.selects({ swap.info.sourcePath, swap.info.swapPath }))
                swapFiles.push_back(swap);
        selection.requireAllUsed();
        if (!_abandon) {
            requireOneSwapPerSource(swapFiles);
            if (!_force)
                refuseLosses(swapFiles);
        }
        // What was taken over before a failure or a stop signal is saved all the same.
        try {
            for (auto swap = swapFiles.begin(); swap != swapFiles.end() && !stopRequested(); ++swap)
                handle(*swap);
        } catch (...) {
            commitRecovered();
            throw;
        }
        commitRecovered();
    }

private:
    // Recovering two swap files of one source would silently drop the first one's content.
    static void requireOneSwapPerSource(const std::vector<SwapFile>& swapFiles)
    {
        std::map<QString, QStringList> bySource;
        for (const SwapFile& swap : swapFiles)
            if (swap.recoverable())
                bySource[swap.info.sourcePath] << swap.info.swapPath;
        for (const auto& [source, swaps] : bySource)
            if (swaps.size() > 1)
                throw std::runtime_error("'" + source.toStdString()
                    + "': several swap files of ended processes (" + swaps.join(", ").toStdString()
                    + "); name the one to recover and abandon the others");
    }

    // A recovery that would replace what another program wrote since the crash, or empty a
    // file with the swap file of a write cut short, is refused unless forced: all are named,
    // and nothing is done.
    static void refuseLosses(const std::vector<SwapFile>& swapFiles)
    {
        QStringList refused;
        for (const SwapFile& swap : swapFiles) {
            if (!swap.recoverable())
                continue;
            const QString& source = swap.info.sourcePath;
            if (swap.sourceChanged)
                refused << QStringLiteral("'%1': another program changed it after %2 was made")
                               .arg(source, swap.info.swapPath);
            else if (swap.size == 0 && swap.sourceSize > 0)
                refused << QStringLiteral("'%1': %2 is empty and would replace its %3 bytes")
                               .arg(source, swap.info.swapPath)
                               .arg(swap.sourceSize);
        }
        if (!refused.isEmpty())
            throw std::runtime_error(bytesOf(refused.join(QStringLiteral("; "))
                + QStringLiteral("; nothing was recovered: --force recovers anyway, --abandon "
                                 "drops the swap files")));
    }

    void step(const QString& done, const QString& planned, const std::function<void()>& work)
    {
        if (_dryRun) {
            print(planned);
            return;
        }
        work();
        print(done);
    }

    void handle(const SwapFile& swap)
    {
        const auto& info = swap.info;
        if (!swap.ended()) {
            print(QStringLiteral("left %1 alone: its %2 %3")
                      .arg(info.swapPath, describeOwner(swap.owner),
                          swap.owner.state == Owner::State::Running
                              ? QStringLiteral("still runs")
                              : QStringLiteral("may still run")));
            return;
        }
        if (swap.torn && !_abandon) {
            print(QStringLiteral("left %1 alone: %2").arg(info.swapPath, kTorn));
            return;
        }
        if (_abandon) {
            step(QStringLiteral("abandoned %1").arg(info.swapPath),
                QStringLiteral("would abandon %1").arg(info.swapPath),
                [&] { _project.abandonFile(info); });
            return;
        }
        step(QStringLiteral("recovered %1 from %2").arg(info.sourcePath, info.swapPath),
            QStringLiteral("would recover %1 from %2").arg(info.sourcePath, info.swapPath), [&] {
                _project.recoverFile(info);
                ++_recovered;
            });
    }

    // A commit that meets the leftover backup of an earlier commit whose source is in place
    // removes it and stops; each recovered file stops it at most once.
    void commitRecovered()
    {
        for (int stops = 0;; ++stops)
            try {
                _project.commit(_force ? ProjectVFS::SourceChanges::Overwrite
                                       : ProjectVFS::SourceChanges::Refuse);
                return;
            } catch (const zo::project::exception::SourceFileBackupRemove&) {
                if (stops == _recovered)
                    throw;
            }
    }

    ProjectVFS& _project;
    const bool _abandon;
    const bool _dryRun;
    const bool _force;
    int _recovered = 0;
};

int recover(const QCommandLineParser& parser)
{
    catchStopSignals();
    QStringList arguments = parser.positionalArguments();
    if (parser.isSet(kWorkspace)) {
        if (parser.isSet(kAll) || arguments.size() > 1)
            throw UsageError("--workspace takes at most one PATH to save to");
        recoverWorkspace(parser.value(kWorkspace), arguments.value(0), parser.isSet(kAbandon),
            parser.isSet(kDryRun), parser.isSet(kForce));
        return kSuccess;
    }
    // The one rule: DIR is the first argument when it names a directory, and the only
    // argument --all takes.
    const bool all = parser.isSet(kAll);
    if (all && arguments.size() > 1)
        throw UsageError("--all and PATH arguments exclude each other");
    const QString directory
        = !arguments.isEmpty() && (all || QFileInfo(qtPath(arguments.first())).isDir())
        ? arguments.takeFirst()
        : QStringLiteral(".");
    if (!all && arguments.isEmpty())
        throw UsageError("name what to recover, or give --all");
    const bool dryRun = parser.isSet(kDryRun);
    ProjectVFS project(projectDirectory(directory),
        dryRun ? ProjectVFS::Unfinished::Leave : ProjectVFS::Unfinished::Complete);
    // Opening the project finished what crashes interrupted; a line tells each backup put back.
    for (const QString& source : project.restoredWhenOpened())
        print(QStringLiteral("put back %1 from its backup %2: its commit was interrupted")
                  .arg(source, project.makeBackupPath(source)));
    Selection selection(project.path(), arguments);
    std::vector<SwapFile> swapFiles = scanProject(project);
    if (dryRun) {
        std::vector<Save> saves = savesToComplete(project);
        saves.erase(std::remove_if(saves.begin(), saves.end(),
                        [&](const Save& save) { return !selection.selects(save.files); }),
            saves.end());
        printSaves(saves);
        swapFiles = withoutSavedFiles(std::move(swapFiles), saves);
        for (const SwapFile& swap : swapFiles)
            if (swap.ended() && !swap.backupPath.isEmpty())
                print(QStringLiteral("would put back %1 from its backup %2: its commit was "
                                     "interrupted")
                          .arg(swap.info.sourcePath, swap.backupPath));
    }
    Recovery(project, parser).run(swapFiles, selection);
    return kSuccess;
}

} // namespace

Command recoverCommand()
{
    return { QStringLiteral("recover"),
        QStringLiteral("Recover or abandon the swap files of ended processes."),
        QStringLiteral("[DIR] [PATH...]"),
        { projectDirectoryArgument(),
            { QStringLiteral("PATH"),
                QStringLiteral("A file, its swap file, or a directory, relative to DIR: what "
                               "to recover.") } },
        0, kAnyNumber,
        { QCommandLineOption(kAll, QStringLiteral("Recover everything below DIR.")),
            QCommandLineOption(kAbandon, QStringLiteral("Delete the swap files instead.")),
            QCommandLineOption(kDryRun, QStringLiteral("Only say what would be done.")),
            QCommandLineOption({ kForce, QStringLiteral("overwrite") },
                QStringLiteral("Recover also where another program changed the source since "
                               "the swap file was made, replacing that change, and an empty "
                               "swap file over a source that is not.")),
            QCommandLineOption(kWorkspace,
                QStringLiteral("Save the archive workspace NAME (see status) to its source "
                               "archive, or to PATH when given, and remove it."),
                QStringLiteral("NAME")) },
        recover };
}

} // namespace zo::cli
