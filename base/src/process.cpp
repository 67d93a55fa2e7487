#include <zo/process.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace zo::os {
namespace {

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

// Field 22 of /proc/<pid>/stat, the start in clock ticks since boot.
std::optional<unsigned long long> startTicksOf(pid_t pid)
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
    return ticks;
}

// A start in clock ticks since boot, in the system clock.
std::chrono::system_clock::time_point timeOfStart(unsigned long long ticks)
{
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

std::optional<Process> findProcess(pid_t pid)
{
    if (pid <= 0)
        return std::nullopt;
    std::optional<std::string> program = programOf(pid);
    const auto ticks = program ? startTicksOf(pid) : std::nullopt;
    if (!ticks)
        return std::nullopt;
    return Process { std::move(*program), timeOfStart(*ticks), *ticks };
}

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

std::optional<int> terminalColumns(int descriptor)
{
    winsize size {};
    if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return std::nullopt;
    return size.ws_col;
}

void endBySignal(int signalNumber)
{
    struct sigaction action { };
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(signalNumber, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signalNumber);
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(signalNumber);
    std::_Exit(128 + signalNumber);
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
