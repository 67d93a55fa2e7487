// zoproject: a small command-line front end to the project libraries.
#include <zo/os.h>
#include <zo/project/archive.h>
#include <zo/project/exceptions.h>
#include <zo/project/project.h>
#include <zo/project/projectmodel.h>
#include <zo/project/projectvfs.h>
#include <zo/project/projectwatcher.h>
#include <zo/project/vfsfile.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QTemporaryDir>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using zo::project::ArchiveFormat;
using zo::project::FileSystemEvent;
using zo::project::ProjectModel;
using zo::project::ProjectVFS;
using zo::project::ProjectWatcher;

void say(const QString& text)
{
    std::printf("%s\n", text.toUtf8().constData());
    std::fflush(stdout);
}

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArrayLiteral("(no such file)");
}

void write(ProjectVFS& project, const QString& path, const QByteArray& data)
{
    const auto file = project.open(path, QIODevice::WriteOnly | QIODevice::Truncate);
    if (file->write(data) != data.size() || !file->flush())
        throw std::runtime_error("cannot write " + path.toStdString());
}

// Edits a file in a child process that is killed before it saves.
void crashWhileEditing(const QString& root, const QString& path, const QByteArray& data)
{
    int ready[2];
    if (pipe(ready) != 0)
        throw std::runtime_error("pipe failed");
    const pid_t editor = fork();
    if (editor == 0) {
        ProjectVFS project(root);
        write(project, path, data);
        const char done = 1;
        _exit(::write(ready[1], &done, 1) == 1 ? (pause(), 0) : 1);
    }
    close(ready[1]);
    char done = 0;
    const bool edited = read(ready[0], &done, 1) == 1;
    close(ready[0]);
    kill(editor, SIGKILL);
    waitpid(editor, nullptr, 0);
    if (!edited)
        throw std::runtime_error("the editing process failed");
    say(QStringLiteral("  process %1 wrote %2 and was killed before saving").arg(editor).arg(path));
}

int demo(const QString& root)
{
    say(QStringLiteral("Project directory: %1").arg(root));
    ProjectVFS project(root);
    // Told of the first pending change; saving everything at once reports nothing.
    project.setCommittedChangedHandler([](bool pending) {
        if (pending)
            say(QStringLiteral("  [unsaved changes]"));
    });
    const auto save = [&project] {
        project.commit();
        say(QStringLiteral("  [saved]"));
    };

    const auto showMainXml = [&project](const QString& label) {
        const QByteArray content = contentOf(project.filePath(QStringLiteral("docs/main.xml")));
        say(label + QString::fromUtf8(content.trimmed()));
    };

    say(QStringLiteral("1. Create docs/main.xml and save it"));
    project.mkpath(QStringLiteral("docs"));
    write(project, QStringLiteral("docs/main.xml"), "<doc>first</doc>\n");
    save();
    showMainXml(QStringLiteral("  on disk: "));

    say(QStringLiteral("2. Edit it: the change goes to a swap file"));
    write(project, QStringLiteral("docs/main.xml"), "<doc>second</doc>\n");
    say(QStringLiteral("  swap file: %1")
            .arg(project.makeSwapPath(QStringLiteral("docs/main.xml"))));
    showMainXml(QStringLiteral("  on disk:   "));
    save();
    showMainXml(QStringLiteral("  saved:     "));

    say(QStringLiteral("3. Another process edits notes.txt and crashes"));
    crashWhileEditing(root, QStringLiteral("notes.txt"), "written just before the crash\n");

    say(QStringLiteral("4. Recover what it left"));
    const auto left = project.recoverableFiles();
    for (const auto& info : left) {
        say(QStringLiteral("  found %1 (process %2) for %3")
                .arg(info.swapPath)
                .arg(info.pid)
                .arg(info.sourcePath));
        project.recoverFile(info);
    }
    save();
    const QByteArray recovered = contentOf(project.filePath(QStringLiteral("notes.txt")));
    say(QStringLiteral("  notes.txt: %1").arg(QString::fromUtf8(recovered.trimmed())));

    const QStringList files = project.getFileList(QString(), true, true, false);
    say(QStringLiteral("5. Project files: %1").arg(files.join(QStringLiteral(", "))));

    say(QStringLiteral("6. Pack the project into an archive and unpack it elsewhere"));
    zo::project::Project(root.toStdString()).setMetadata("title", "demo project");
    const QString archive = root + QStringLiteral(".zop");
    const QString unpacked = root + QStringLiteral("-unpacked");
    zo::project::exportProject(
        root.toStdString(), archive.toStdString(), zo::project::ArchiveFormat::Auto);
    zo::project::importProject(
        archive.toStdString(), unpacked.toStdString(), zo::project::ArchiveFormat::Auto);
    const QByteArray unpackedNotes
        = contentOf(QDir(unpacked).filePath(QStringLiteral("notes.txt")));
    const std::string title = zo::project::Project(unpacked.toStdString()).getMetadata("title");
    say(QStringLiteral("  %1 (%2 bytes) unpacked to %3, title \"%4\"")
            .arg(archive)
            .arg(QFileInfo(archive).size())
            .arg(unpacked, QString::fromStdString(title)));
    QFile::remove(archive);
    QDir(unpacked).removeRecursively();

    const bool intact = left.size() == 1 && recovered == "written just before the crash\n"
        && unpackedNotes == recovered && title == "demo project";
    say(intact ? QStringLiteral("Demo finished: no work was lost.")
               : QStringLiteral("Demo FAILED: work was lost."));
    return intact ? 0 : 1;
}

int usageError(const QCommandLineParser& parser, const char* message)
{
    std::fprintf(stderr, "zoproject: %s\n\n%s\n", message, qUtf8Printable(parser.helpText()));
    return 1;
}

// Prints each batch of changes as it is found, one line per path relative to root.
void printChanges(const QDir& root, const QMap<QString, FileSystemEvent>& changes, bool json)
{
    static const char* const kinds[] = { "added", "removed", "modified" };
    for (auto change = changes.cbegin(); change != changes.cend(); ++change) {
        const QString path = root.relativeFilePath(change.key());
        const char* kind = kinds[change.value()];
        if (json) {
            const QJsonObject line { { QStringLiteral("event"), QLatin1String(kind) },
                { QStringLiteral("path"), path } };
            std::printf("%s\n", QJsonDocument(line).toJson(QJsonDocument::Compact).constData());
        } else {
            std::printf("%s %s\n", kind, path.toUtf8().constData());
        }
    }
    std::fflush(stdout);
}

// Watches directory until SIGINT or SIGTERM.
int watch(QCoreApplication& app, const QString& directory, int intervalMs, bool json)
{
    if (!QFileInfo(directory).isDir()) {
        std::fprintf(
            stderr, "zoproject: watch: no such directory: %s\n", qUtf8Printable(directory));
        return 1;
    }
    const int stopSignals = zo::os::signalPipe({ SIGINT, SIGTERM });
    if (stopSignals < 0)
        throw std::runtime_error("cannot catch SIGINT and SIGTERM");
    QSocketNotifier stopRequest(stopSignals, QSocketNotifier::Read);
    QObject::connect(&stopRequest, &QSocketNotifier::activated, &app, &QCoreApplication::quit);

    // Keys of an absolute root are absolute, which relativeFilePath takes as they are.
    const QDir root(QDir(directory).absolutePath());
    ProjectWatcher watcher(root.path(), false, nullptr);
    QObject::connect(&watcher,
        qOverload<const QMap<QString, FileSystemEvent>&>(&ProjectWatcher::contentChanged),
        [&root, json](
            const QMap<QString, FileSystemEvent>& changes) { printChanges(root, changes, json); });
    watcher.setInterval(intervalMs);
    watcher.enableWatching(true);
    return app.exec();
}

// The command's own options and arguments, after the command name.
int runWatch(QCoreApplication& app, QCommandLineParser& parser)
{
    const QCommandLineOption interval(QStringLiteral("interval"),
        QStringLiteral("Seconds between two checks (default 5)."), QStringLiteral("seconds"),
        QStringLiteral("5"));
    const QCommandLineOption json(
        QStringLiteral("json"), QStringLiteral("One JSON object per line: {\"event\", \"path\"}."));
    parser.addOptions({ interval, json });
    parser.clearPositionalArguments();
    parser.addPositionalArgument(QStringLiteral("watch"),
        QStringLiteral("Print changes as they happen."), QStringLiteral("watch"));
    parser.addPositionalArgument(
        QStringLiteral("directory"), QStringLiteral("The directory to watch."));
    parser.process(app);
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 2)
        return usageError(parser, "watch takes one directory");
    bool isNumber = false;
    const double seconds = parser.value(interval).toDouble(&isNumber);
    if (!isNumber || !(seconds > 0) || seconds > 86400)
        return usageError(parser, "--interval takes a number of seconds above 0, at most 86400");
    return watch(app, arguments[1], std::max(1, qRound(seconds * 1000)), parser.isSet(json));
}

int runDemo(QCommandLineParser& parser)
{
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() > 1) {
        QDir().mkpath(arguments[1]);
        return demo(QDir(arguments[1]).absolutePath());
    }
    QTemporaryDir scratch;
    return demo(scratch.path());
}

using Workspace = ProjectModel::RecoverableWorkspace;

void listWorkspaces(const std::vector<Workspace>& workspaces)
{
    if (workspaces.empty())
        say(QStringLiteral("No workspace of an ended process under %1.").arg(QDir::tempPath()));
    for (const Workspace& workspace : workspaces) {
        say(QStringLiteral("%1\tprocess %2\tmodified %3\t%4")
                .arg(QFileInfo(workspace.path).fileName())
                .arg(workspace.pid)
                .arg(workspace.lastModified.toString(Qt::ISODate),
                    workspace.sourcePath.isEmpty() ? QStringLiteral("(no source)")
                                                   : workspace.sourcePath));
    }
}

// Saves the workspace to target (its source when empty); the workspace goes only once the
// archive is written. It is copied into a model of its own rather than adopted, so that a
// failed save leaves it where the next attempt finds it.
int recoverWorkspace(const Workspace& workspace, QString target)
{
    const bool toSource = target.isEmpty();
    if (toSource)
        target = workspace.sourcePath;
    if (target.isEmpty()) {
        std::fprintf(stderr, "zoproject: %s has no source; give a path to save it to\n",
            qUtf8Printable(workspace.path));
        return 1;
    }
    ProjectModel model;
    model.load(workspace.path, ArchiveFormat::Directory);
    // Native is the source's own format, which a save asks for by detecting it.
    const bool detect = !toSource || workspace.format == ArchiveFormat::Native;
    model.save(target, detect ? ArchiveFormat::Auto : workspace.format, true);
    ProjectModel::abandonWorkspace(workspace);
    say(QStringLiteral("Saved %1 to %2").arg(workspace.path, target));
    return 0;
}

int runWorkspaces(QCoreApplication& app, QCommandLineParser& parser)
{
    parser.clearPositionalArguments();
    parser.addPositionalArgument(QStringLiteral("workspaces"),
        QStringLiteral("List the archive workspaces that ended processes left, or:\n"
                       "  recover WORKSPACE [PATH]  save one to its source archive or to PATH\n"
                       "  abandon WORKSPACE         remove one"),
        QStringLiteral("workspaces [recover WORKSPACE [PATH] | abandon WORKSPACE]"));
    parser.process(app);
    const QStringList arguments = parser.positionalArguments();
    const QString action = arguments.value(1);
    const std::vector<Workspace> workspaces = ProjectModel::recoverableWorkspaces();
    if (arguments.size() == 1) {
        listWorkspaces(workspaces);
        return 0;
    }
    const bool recover = action == QLatin1String("recover") && arguments.size() <= 4;
    const bool abandon = action == QLatin1String("abandon") && arguments.size() == 3;
    if (!recover && !abandon)
        return usageError(parser, "workspaces takes no arguments, recover or abandon");
    const QString wanted = arguments.value(2);
    const auto workspace
        = std::find_if(workspaces.begin(), workspaces.end(), [&wanted](const Workspace& candidate) {
              return candidate.path == wanted || QFileInfo(candidate.path).fileName() == wanted;
          });
    if (workspace == workspaces.end()) {
        std::fprintf(stderr, "zoproject: no workspace of an ended process named %s\n",
            qUtf8Printable(wanted));
        return 1;
    }
    if (recover)
        return recoverWorkspace(*workspace, arguments.value(3));
    ProjectModel::abandonWorkspace(*workspace);
    say(QStringLiteral("Removed %1").arg(workspace->path));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(ZO_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Crash-safe editing of project files.\n\n"
                       "Commands:\n"
                       "  demo [DIRECTORY]   edit, crash and recover in a scratch project\n"
                       "  watch DIRECTORY    print the changes others make to a directory\n"
                       "  workspaces         list and recover the work of archive projects that "
                       "ended without saving"));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(
        QStringLiteral("command"), QStringLiteral("demo, watch or workspaces"));
    // Options belong to the command; the first pass only finds which one it is.
    parser.parse(QCoreApplication::arguments());
    const QString command = parser.positionalArguments().value(0);
    try {
        if (command == QLatin1String("watch"))
            return runWatch(app, parser);
        if (command == QLatin1String("workspaces"))
            return runWorkspaces(app, parser);
        parser.process(app);
        if (command == QLatin1String("demo"))
            return runDemo(parser);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zoproject: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "%s\n", qUtf8Printable(parser.helpText()));
    return 2;
}
