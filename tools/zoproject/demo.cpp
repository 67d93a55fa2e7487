// The demo command: a crash-safe edit, a crash and its recovery, told step by step.
#include "command.h"

#include <zo/process.h>
#include <zo/project/archive.h>
#include <zo/project/exceptions.h>
#include <zo/project/project.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <stdexcept>

namespace zo::cli {
namespace {

using zo::project::ProjectVFS;

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
    const pid_t editor = zo::os::runAndKill([&] {
        ProjectVFS project(root);
        write(project, path, data);
    });
    if (editor < 0)
        throw std::runtime_error("the editing process failed");
    print(
        QStringLiteral("  process %1 wrote %2 and was killed before saving").arg(editor).arg(path));
}

// Makes the project in root and its archive and unpacked copy in shelf, which it empties.
int demo(const QString& root, const QString& shelf)
{
    if (!QDir().mkpath(root))
        throw std::runtime_error("cannot make the directory '" + root.toStdString() + "'");
    print(QStringLiteral("Project directory: %1").arg(root));
    ProjectVFS project(root);
    // Told of the first pending change; saving everything at once reports nothing.
    project.setCommittedChangedHandler([](bool pending) {
        if (pending)
            print(QStringLiteral("  [unsaved changes]"));
    });
    const auto save = [&project] {
        project.commit();
        print(QStringLiteral("  [saved]"));
    };

    const auto showMainXml = [&project](const QString& label) {
        const QByteArray content = contentOf(project.filePath(QStringLiteral("docs/main.xml")));
        print(label + QString::fromUtf8(content.trimmed()));
    };

    print(QStringLiteral("1. Create docs/main.xml and save it"));
    project.mkpath(QStringLiteral("docs"));
    write(project, QStringLiteral("docs/main.xml"), "<doc>first</doc>\n");
    save();
    showMainXml(QStringLiteral("  on disk: "));

    print(QStringLiteral("2. Edit it: the change goes to a swap file"));
    write(project, QStringLiteral("docs/main.xml"), "<doc>second</doc>\n");
    print(QStringLiteral("  swap file: %1")
              .arg(project.makeSwapPath(QStringLiteral("docs/main.xml"))));
    showMainXml(QStringLiteral("  on disk:   "));
    save();
    showMainXml(QStringLiteral("  saved:     "));

    print(QStringLiteral("3. Another process edits notes.txt and crashes"));
    crashWhileEditing(root, QStringLiteral("notes.txt"), "written just before the crash\n");

    print(QStringLiteral("4. Recover what it left"));
    const auto left = project.recoverableFiles();
    for (const auto& info : left) {
        print(QStringLiteral("  found %1 (process %2) for %3")
                  .arg(info.swapPath)
                  .arg(info.pid)
                  .arg(info.sourcePath));
        project.recoverFile(info);
    }
    save();
    const QByteArray recovered = contentOf(project.filePath(QStringLiteral("notes.txt")));
    print(QStringLiteral("  notes.txt: %1").arg(QString::fromUtf8(recovered.trimmed())));

    const QStringList files = project.getFileList(QString(), true, true, false);
    print(QStringLiteral("5. Project files: %1").arg(files.join(QStringLiteral(", "))));

    print(QStringLiteral("6. Pack the project into an archive and unpack it elsewhere"));
    zo::project::Project(root.toStdString()).setMetadata("title", "demo project");
    const QString archive = shelf + QStringLiteral("/project.zop");
    const QString unpacked = shelf + QStringLiteral("/unpacked");
    zo::project::exportProject(
        root.toStdString(), archive.toStdString(), zo::project::ArchiveFormat::Auto);
    zo::project::importProject(
        archive.toStdString(), unpacked.toStdString(), zo::project::ArchiveFormat::Auto);
    const QByteArray unpackedNotes
        = contentOf(QDir(unpacked).filePath(QStringLiteral("notes.txt")));
    const std::string title = zo::project::Project(unpacked.toStdString()).getMetadata("title");
    print(QStringLiteral("  %1 (%2 bytes) unpacked to %3, title \"%4\"")
              .arg(archive)
              .arg(QFileInfo(archive).size())
              .arg(unpacked, QString::fromStdString(title)));
    QFile::remove(archive);
    QDir(unpacked).removeRecursively();

    const bool intact = left.size() == 1 && recovered == "written just before the crash\n"
        && unpackedNotes == recovered && title == "demo project";
    print(intact ? QStringLiteral("Demo finished: no work was lost.")
                 : QStringLiteral("Demo FAILED: work was lost."));
    return intact ? 0 : 1;
}

} // namespace

Command demoCommand()
{
    return { QStringLiteral("demo"),
        QStringLiteral("Edit, crash and recover in a scratch project, then pack it."),
        QStringLiteral("[DIR]"),
        { { QStringLiteral("DIR"),
            QStringLiteral(
                "A new or empty directory to make the project in (default: a temporary one).") } },
        0, 1, {}, [](const QCommandLineParser& parser) {
            const QStringList arguments = parser.positionalArguments();
            const QTemporaryDir shelf;
            if (!shelf.isValid())
                throw std::runtime_error(
                    "cannot make a temporary directory: " + shelf.errorString().toStdString());
            if (arguments.isEmpty())
                return demo(shelf.filePath(QStringLiteral("project")), shelf.path());
            // The demo writes and recovers files of its own: never among the user's.
            const QString root = QDir(qtPath(arguments.first())).absolutePath();
            const QDir directory(root);
            if (QFileInfo::exists(root)
                && !(directory.exists()
                    && directory.isEmpty(
                        QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System)))
                throw std::runtime_error("'" + bytesOf(arguments.first())
                    + "': not an empty directory; the demo makes its project in a new or empty "
                      "one");
            return demo(root, shelf.path());
        } };
}

} // namespace zo::cli
