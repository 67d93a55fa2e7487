#include <zo/os.h>

#include <cstdio>
#include <unistd.h>

namespace zo::os {

int getpid()
{
    return static_cast<int>(::getpid());
}

FILE* fopen(const char* path, const char* mode)
{
    // POSIX file names are byte strings, so a UTF-8 path is passed through unchanged.
    return std::fopen(path, mode);
}

} // namespace zo::os
