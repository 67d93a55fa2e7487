// An archive as a project: replaces docs/main.xml inside an archive through a private
// workspace, then saves the archive back in its own format, so that a failed save leaves the
// previous archive as it was.
// usage: archive_project ARCHIVE
#include <zo/project/projectmodel.h>

#include <QCoreApplication>

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: archive_project ARCHIVE\n");
        return 2;
    }
    const QString archivePath = QString::fromLocal8Bit(argv[1]); // report.tar.gz, say
    const QByteArray newContent = "<main/>\n";

    try {
        zo::project::ProjectModel model; // a private workspace under TMPDIR
        model.load(archivePath, zo::project::ArchiveFormat::Auto);
        model.writeFile("docs/main.xml", newContent); // edits the workspace only
        model.save("", zo::project::ArchiveFormat::Native, true); // back to the archive
    } catch (const std::exception& error) {
        std::fprintf(stderr, "archive_project: %s\n", error.what());
        return 1;
    }
    return 0;
}
