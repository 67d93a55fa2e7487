// Built against the installed package only, linking Zo::ProjectQt and nothing else.
#include <zo/project/exceptions.h>
#include <zo/project/project.h>
#include <zo/project/projectvfs.h>
#include <zo/project/version.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

static_assert(ZO_PROJECT_VERSION_MAJOR == 0 && ZO_PROJECT_VERSION_MINOR >= 1);

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    zo::project::ProjectVFS project(dir.path());
    project.open(QStringLiteral("a.txt"), QIODevice::WriteOnly)->write("saved");
    project.commit();

    QFile saved(dir.filePath(QStringLiteral("a.txt")));
    const bool committed = saved.open(QIODevice::ReadOnly) && saved.readAll() == "saved";

    bool grouped = false;
    try {
        throw zo::project::exception::SwapFileRename("x");
    } catch (const zo::project::exception::SwapFileCommit&) {
        grouped = true;
    }
    const zo::project::Project description(dir.path().toStdString());
    const bool ok = committed && grouped && description.projectPath() == dir.path().toStdString();
    std::printf("consumer: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
