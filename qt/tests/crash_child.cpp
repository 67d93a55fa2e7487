// Gives each file named after the project directory the content "new <name>" and commits them
// all; the crash test kills it at every step of the way. The new content is as long as the old
// one and is written over it in one call (no truncation), so a swap file holds either whole.
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    zo::project::ProjectVFS project(arguments.at(1));
    for (const QString& name : arguments.mid(2))
        project.open(name, QIODevice::ReadWrite)->write(("new " + name).toUtf8());
    project.commit();
}
