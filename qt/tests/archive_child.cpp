// "unpack ARCHIVE DIRECTORY" unpacks an archive; "save ARCHIVE" loads one, changes a.txt to "new"
// and saves it back safely. The kill test stops it at every system call; status 1 tells an
// error from a kill.
#include <zo/project/archive.h>
#include <zo/project/projectmodel.h>

#include <QCoreApplication>

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    try {
        if (arguments.at(1) == QLatin1String("unpack")) {
            zo::project::importProject(arguments.at(2).toStdString(), arguments.at(3).toStdString(),
                zo::project::ArchiveFormat::Auto);
            return 0;
        }
        zo::project::ProjectModel model;
        model.load(arguments.at(2), zo::project::ArchiveFormat::Auto);
        model.writeFile(QStringLiteral("a.txt"), "new");
        model.save(QString(), zo::project::ArchiveFormat::Native, true);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
