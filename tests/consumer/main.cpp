#include <zo/log.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/project.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    try {
        throw zo::project::exception::SwapFileRename("x");
    } catch (const zo::project::exception::SwapFileCommit& e) {
        std::printf("caught across the library boundary: %s\n", e.what());
    }
    zo::project::Project project("/nonexistent");
    std::printf("project at %s\n", project.projectPath().c_str());
    return zo::log::hasCategory("ProjectVFS") ? 0 : 1;
}
