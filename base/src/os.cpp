#include <zo/os.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace zo::os {
namespace {

int signalPipeWriteEnd = -1;

void writeSignalNumber(int signalNumber)
{
    const int savedErrno = errno;
    const char byte = static_cast<char>(signalNumber);
    // A full pipe already holds enough to wake the reader.
    [[maybe_unused]] const ssize_t written = ::write(signalPipeWriteEnd, &byte, 1);
    errno = savedErrno;
}

} // namespace

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

int signalPipe(std::initializer_list<int> signalNumbers)
{
    static int readEnd = -1;
    if (readEnd < 0) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            return -1;
        readEnd = ends[0];
        signalPipeWriteEnd = ends[1];
    }
    struct sigaction action { };
    action.sa_handler = writeSignalNumber;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int signalNumber : signalNumbers) {
        if (::sigaction(signalNumber, &action, nullptr) != 0)
            return -1;
    }
    return readEnd;
}

} // namespace zo::os
