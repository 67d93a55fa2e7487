// Another program on a project, for the liveness and kill tests; it makes no QCoreApplication.
//   hold DIR FILE...    edits each FILE, says "ready" and keeps the edits pending until stdin ends
//   move DIR FILE TO [OTHER]
//                       edits FILE (and OTHER), and some seconds later moves it to TO; then as
//                       hold
//   model ARCHIVE       loads the archive and gives it an unsaved file, until killed
//   adopt DIR           takes over the first recoverable workspace, until killed; DIR unused
//   replace DIR         holds DIR's owner mark as a commit does while it replaces files, until
//                       killed
//   abandon DIR         prints each swap file's owner state, then abandons each
//   commit DIR FILE N   edits and commits FILE N times
//   unpack ARCHIVE DIR  unpacks the archive into DIR
//   save ARCHIVE        loads the archive, changes a.txt to "new" and saves it back safely
// Status 1 tells an error from a kill.
#include <zo/owner.h>
#include <zo/project/archive.h>
#include <zo/project/projectmodel.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <unistd.h>

using zo::project::ArchiveFormat;
using zo::project::ProjectModel;

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    const std::string mode = argv[1];
    const QString path = QString::fromLocal8Bit(argv[2]);
    try {
        if (mode == "unpack") {
            zo::project::importProject(argv[2], argv[3], ArchiveFormat::Auto);
            return 0;
        }
        std::optional<ProjectModel> model;
        if (mode == "save" || mode == "model") {
            model.emplace().load(path, ArchiveFormat::Auto);
            model->writeFile("a.txt", mode == "save" ? "new" : "live");
        }
        if (mode == "save") {
            model->save(QString(), ArchiveFormat::Native, true);
            return 0;
        }
        zo::project::ProjectVFS project(path);
        std::optional<zo::os::OwnerMark::Replacing> replacing;
        if (mode == "replace")
            replacing.emplace(zo::os::OwnerMark::hold(argv[2]));
        if (mode == "move") {
            for (const int at : { 3, 5 })
                if (at < argc)
                    project.open(QString::fromLocal8Bit(argv[at]), QIODevice::WriteOnly)
                        ->write("live");
            ::sleep(3); // longer than the clocks of two hosts may differ
            project.file(QString::fromLocal8Bit(argv[3]))
                ->move(QString::fromLocal8Bit(argv[4]), false);
        }
        if (mode == "hold" || mode == "move" || mode == "model" || mode == "adopt"
            || mode == "replace") {
            for (int at = 3; mode == "hold" && at < argc; ++at)
                project.open(QString::fromLocal8Bit(argv[at]), QIODevice::WriteOnly)->write("live");
            if (mode == "adopt")
                model.emplace().recoverWorkspace(ProjectModel::recoverableWorkspaces().at(0));
            std::puts("ready");
            std::fflush(stdout);
            const bool untilStdinEnds = mode == "hold" || mode == "move";
            while (!untilStdinEnds || std::getchar() != EOF)
                if (!untilStdinEnds)
                    ::pause();
        } else if (mode == "abandon") {
            for (const auto& info : project.recoverableFiles()) {
                std::printf("%d\n", static_cast<int>(project.ownerOf(info).state));
                project.abandonFile(info);
            }
        } else {
            for (int round = std::stoi(argv[4]); round > 0; --round) {
                project.open(QString::fromLocal8Bit(argv[3]), QIODevice::WriteOnly)
                    ->write(QByteArray::number(round));
                project.commit();
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
