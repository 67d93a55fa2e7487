#include <zo/os.h>

#include <cerrno>
#include <fcntl.h>
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

bool sync(const char* path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    const int syncError = errno;
    const bool closed = ::close(fd) == 0;
    if (!synced)
        errno = syncError;
    return synced && closed;
}

} // namespace zo::os
