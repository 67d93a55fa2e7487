#pragma once

// Helpers shared by every test executable.

#include <zo/log.h>

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <tuple>
#include <vector>

// Readable failure messages for Qt strings; found by argument-dependent lookup.
void PrintTo(const QString& text, std::ostream* out);
void PrintTo(const QByteArray& bytes, std::ostream* out);

namespace zo::test {

// A file path given as a QString or as UTF-8 bytes.
struct TestPath {
    TestPath(const QString& path)
        : value(path)
    {
    }
    TestPath(const std::string& path)
        : value(QString::fromStdString(path))
    {
    }
    TestPath(const char* path)
        : value(QString::fromUtf8(path))
    {
    }
    QString value;
};

// "Class: message" of the std::exception body throws, the class named without a leading
// "zo::project::" or "std::"; "nothing thrown" when body returns. Anything else that is thrown
// goes on to fail the test.
std::string thrownBy(const std::function<void()>& body);

// Creates the parent directories too; a failure fails the calling test.
void writeFile(const TestPath& path, const QByteArray& data, mode_t mode = 0644);
// The file's bytes, or "<missing>" so that assertions show what was not there.
QByteArray readFile(const TestPath& path);
// Every entry below root, hidden ones and directories too, as sorted relative paths; a link is
// listed as itself, never followed.
QStringList entriesBelow(const TestPath& root);
// Every regular file below root (links not followed), relative path to content, the owner marks
// that live editors keep (".zo-owner-*") aside.
QMap<QString, QByteArray> filesBelow(const TestPath& root);

// The id of a process that has just ended: free unless the system reuses it at once.
pid_t endedProcessId();

// Collects every log line while alive.
struct LogCapture {
    using Line = std::tuple<std::string, int, std::string>;
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines;

private:
    zo::log::Sink previous;
};

// A tmpfs (with its options) or, without options, a read-only bind of a path onto itself;
// undone when the object goes. mounted is false where the system refuses.
struct ScopedMount {
    explicit ScopedMount(const TestPath& path, const char* tmpfsOptions = nullptr);
    ~ScopedMount();
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;

    const QByteArray target;
    bool mounted = false;
};

// A live process that counts as another instance of this program: a forked copy of it, which
// waits until the object goes.
struct LiveInstance {
    LiveInstance();
    ~LiveInstance();
    LiveInstance(const LiveInstance&) = delete;
    LiveInstance& operator=(const LiveInstance&) = delete;

    const pid_t pid;
};

// The first line of a small file; empty when it is missing.
QByteArray firstLineOf(const char* path);

// An owner mark as a process that ended left it, nobody holding its lock: the record of process
// pid on host, booted as boot, marked then (since 1970), with this host's machine id and pid
// namespace, and lock: the "locked" line and any more (its start in ticks, its notes).
void writeEndedOwnerMark(const QString& directory, pid_t pid, const QByteArray& host,
    const QByteArray& boot, std::chrono::system_clock::time_point marked,
    const QByteArray& lock = "locked 1\n");

// Runs body in a forked child under the unprivileged uid "nobody"; the child's exit code is
// body's result (0 for success). Root ignores permission bits, so tests of refused access
// need a real unprivileged process.
constexpr uid_t kNobody = 65534;
int runAsNobody(const std::function<int()>& body);

// Runs command (a program built beside the test, then its arguments) under strace, killed with
// SIGKILL at the 1st, 2nd, ... call of each system call in calls until it no longer gets that far
// and must succeed; prepare comes before each run, check after each kill. Skips without strace.
void killAtEveryCall(const QStringList& calls, const QStringList& command,
    const std::function<void()>& prepare, const std::function<void()>& check);

} // namespace zo::test
