#pragma once

#include <zo/log.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

// Readable failure messages for Qt strings; found by argument-dependent lookup.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QByteArray& bytes, std::ostream* out)
{
    *out << '"' << bytes.toStdString() << '"';
}

namespace zo::project::test {

inline void writeFile(const QString& path, const QByteArray& data)
{
    QFileInfo(path).dir().mkpath(QStringLiteral("."));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    ASSERT_EQ(file.write(data), data.size());
}

// The file's bytes, or "<missing>" so that assertions show what was not there.
inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArrayLiteral("<missing>");
}

// The message of the E that body throws, or "nothing thrown"; other exceptions pass through.
template <typename E, typename Body> std::string messageOf(Body&& body)
{
    try {
        body();
    } catch (const E& error) {
        return error.what();
    }
    return "nothing thrown";
}

// Collects every log line while alive.
struct LogCapture {
    using Line = std::tuple<std::string, int, std::string>;
    LogCapture() = default;
    LogCapture(const LogCapture&) = delete;
    ~LogCapture() { zo::log::setSink(previous); }

    std::vector<Line> lines;
    zo::log::Sink previous = zo::log::setSink(
        [this](const std::string& c, int l, const std::string& m) { lines.emplace_back(c, l, m); });
};

// A tmpfs (with its options) or, without options, a read-only bind of a path onto itself;
// undone when the object goes. mounted is false where the system refuses.
struct ScopedMount {
    explicit ScopedMount(const QString& path, const char* tmpfsOptions = nullptr)
        : target(QFile::encodeName(path))
    {
        const char* at = target.constData();
        mounted = tmpfsOptions ? ::mount("tmpfs", at, "tmpfs", 0, tmpfsOptions) == 0
                               : ::mount(at, at, nullptr, MS_BIND, nullptr) == 0
                && ::mount(nullptr, at, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }
    // Also undoes a bind whose read-only remount failed.
    ~ScopedMount() { ::umount2(target.constData(), MNT_DETACH); }
    ScopedMount(const ScopedMount&) = delete;

    const QByteArray target;
    bool mounted = false;
};

// Runs body in a forked child under the unprivileged uid "nobody"; the child's exit code is
// body's result (0 for success). Root ignores permission bits, so tests of refused access
// need a real unprivileged process.
constexpr uid_t kNobody = 65534;

inline int runAsNobody(const std::function<int()>& body)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(setgid(kNobody) != 0 || setuid(kNobody) != 0 ? 100 : body());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

} // namespace zo::project::test
