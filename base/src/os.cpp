#include <zo/fault.h>
#include <zo/file.h>
#include <zo/os.h>
#include <zo/treewalk.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace zo::os {
namespace {

// The armed fault: its step (-1 when none), how many calls of it still pass, and its errno.
std::atomic<int> faultStep { -1 };
std::atomic<int> faultCountdown { 0 };
std::atomic<int> faultError { 0 };

// Whether this call of step is the one a test asked to fail; errno is set when it is.
bool failsOnPurpose(fault::Step step)
{
    if (faultStep.load() != static_cast<int>(step) || faultCountdown.fetch_sub(1) != 1)
        return false;
    faultStep.store(-1);
    errno = faultError.load();
    return true;
}

bool syncPath(const char* path)
{
    UniqueFd descriptor = openForReading(path);
    return descriptor && ::fsync(descriptor.get()) == 0 && descriptor.close();
}

std::string procFile(pid_t pid, const char* name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// A process whose command line reads empty may be between fork and exec; a few more reads
// catch it, while a zombie or kernel thread, empty for good, must not stall the caller.
constexpr int kEmptyCommandLineReads = 100;

std::optional<std::string> programOf(pid_t pid)
{
    const std::string path = procFile(pid, "cmdline");
    std::string commandLine;
    for (int read = 0; read < kEmptyCommandLineReads && commandLine.empty(); ++read) {
        std::ifstream in(path, std::ios::binary);
        if (!in)
            return std::nullopt;
        commandLine.assign(std::istreambuf_iterator<char>(in), {});
    }
    // A program that rewrites its command line may separate its words with blanks.
    return commandLine.substr(0, commandLine.find_first_of(std::string(" \t\n\0", 4)));
}

std::chrono::nanoseconds sinceEpochOf(clockid_t clock)
{
    timespec now {};
    ::clock_gettime(clock, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// Field 22 of /proc/<pid>/stat, the start in clock ticks since boot, in the system clock.
std::optional<std::chrono::system_clock::time_point> startOf(pid_t pid)
{
    std::ifstream in(procFile(pid, "stat"));
    const std::string stat((std::istreambuf_iterator<char>(in)), {});
    // The command name in parentheses may itself hold blanks and parentheses.
    const auto nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos)
        return std::nullopt;
    std::istringstream fields(stat.substr(nameEnd + 1));
    constexpr int kFieldsBeforeStart = 19; // fields 3 (state) to 21
    std::string skipped;
    for (int field = 0; field < kFieldsBeforeStart; ++field)
        fields >> skipped;
    unsigned long long ticks = 0;
    if (!(fields >> ticks))
        return std::nullopt;
    const auto ticksPerSecond = static_cast<unsigned long long>(::sysconf(_SC_CLK_TCK));
    const std::chrono::nanoseconds sinceBoot = std::chrono::seconds(ticks / ticksPerSecond)
        + std::chrono::nanoseconds(ticks % ticksPerSecond * 1000000000ULL / ticksPerSecond);
    // The boot clock counts suspended time, as the start field does.
    const std::chrono::nanoseconds age = sinceEpochOf(CLOCK_BOOTTIME) - sinceBoot;
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            sinceEpochOf(CLOCK_REALTIME) - age));
}

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

bool syncFile(const char* path)
{
    return !failsOnPurpose(fault::Step::SyncFile) && syncPath(path);
}

bool syncFile(int descriptor)
{
    return !failsOnPurpose(fault::Step::SyncFile) && ::fsync(descriptor) == 0;
}

bool syncDirectory(const char* path)
{
    return !failsOnPurpose(fault::Step::SyncDirectory) && syncPath(path);
}

bool rename(const char* from, const char* to)
{
    return !failsOnPurpose(fault::Step::Rename) && std::rename(from, to) == 0;
}

bool exchange(const char* first, const char* second)
{
    return !failsOnPurpose(fault::Step::Rename)
        && ::renameat2(AT_FDCWD, first, AT_FDCWD, second, RENAME_EXCHANGE) == 0;
}

bool renameToFreeName(const char* from, const char* to)
{
    if (failsOnPurpose(fault::Step::Rename))
        return false;
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL)
        return false;
    if (linkStatus(to)) {
        errno = EEXIST;
        return false;
    }
    return ::rename(from, to) == 0;
}

std::optional<Process> findProcess(pid_t pid)
{
    if (pid <= 0)
        return std::nullopt;
    std::optional<std::string> program = programOf(pid);
    const auto started = program ? startOf(pid) : std::nullopt;
    if (!started)
        return std::nullopt;
    return Process { std::move(*program), *started };
}

namespace fault {

void inject(Step step, int nth, int error)
{
    faultStep.store(-1);
    faultCountdown.store(nth);
    faultError.store(error);
    faultStep.store(static_cast<int>(step));
}

void clear()
{
    faultStep.store(-1);
}

} // namespace fault

pid_t runAndKill(const std::function<void()>& body)
{
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0)
        return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ready[0]);
        body();
        const char done = 1;
        if (::write(ready[1], &done, 1) == 1)
            ::pause();
        ::_exit(1);
    }
    ::close(ready[1]);
    char done = 0;
    const bool finished = child > 0 && ::read(ready[0], &done, 1) == 1;
    ::close(ready[0]);
    if (child > 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    return finished ? child : -1;
}

bool isTerminal(int descriptor)
{
    return ::isatty(descriptor) == 1;
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
    for (const int signalNumber : signalNumbers)
        if (::sigaction(signalNumber, &action, nullptr) != 0)
            return -1;
    return readEnd;
}

} // namespace zo::os
