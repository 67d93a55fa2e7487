// The steps that the crash tests kill at every system call. Each says "start" on standard error
// right before the step, so that a test can tell the calls of the step from those before it.
//   commit DIR NAME...  gives each NAME below the project DIR the content "new <NAME>" and
//                       commits them all. The new content is as long as the old one and is
//                       written over it in one call (no truncation), so a swap file holds
//                       either whole.
//   open DIR            opens the project DIR, which completes what a crash left unfinished.
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const bool commit = arguments.at(1) == QLatin1String("commit");
    if (!commit)
        std::fputs("start\n", stderr);
    zo::project::ProjectVFS project(arguments.at(2));
    for (const QString& name : arguments.mid(3))
        project.open(name, QIODevice::ReadWrite)->write(("new " + name).toUtf8());
    if (commit) {
        std::fputs("start\n", stderr);
        project.commit();
    }
}
