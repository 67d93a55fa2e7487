#include <zo/log.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc > 1 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("zoproject %s\n", ZO_VERSION);
        return 0;
    }
    const bool registered = zo::log::hasCategory("ProjectVFS") && zo::log::hasCategory("ProjectVfs")
        && zo::log::hasCategory("ProjectDir");
    std::printf("zoproject %s: log categories %s\n", ZO_VERSION, registered ? "registered" : "MISSING");
    return registered ? 0 : 1;
}
