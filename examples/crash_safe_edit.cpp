// A crash-safe edit: takes over the swap files that crashed runs left in a project directory,
// then replaces docs/main.xml through a swap file of its own, so that no crash can leave the
// file half-written.
// usage: crash_safe_edit PROJECT_DIRECTORY
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    // Recovery asks whether the process of a swap file still runs, which needs the application.
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: crash_safe_edit PROJECT_DIRECTORY\n");
        return 2;
    }
    const QString projectPath = QString::fromLocal8Bit(argv[1]);
    const QByteArray newContent = "<main/>\n";

    try {
        zo::project::ProjectVFS project(projectPath);
        for (const auto& left : project.recoverableFiles()) // swap files of crashed runs
            project.recoverFile(left); // or project.abandonFile(left)

        project.mkpath("docs");
        auto file = project.open("docs/main.xml", QIODevice::WriteOnly | QIODevice::Truncate);
        file->write(newContent); // goes to docs/.main.xml.<pid>.csp; docs/main.xml is untouched
        file->close();
        project.commit(); // backup, rename the swap file into place, drop the backup
    } catch (const std::exception& error) {
        std::fprintf(stderr, "crash_safe_edit: %s\n", error.what());
        return 1;
    }
    return 0;
}
