#pragma once

#include <zo/log.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

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
    if (!file.open(QIODevice::ReadOnly))
        return QByteArrayLiteral("<missing>");
    return file.readAll();
}

inline QString pidText()
{
    return QString::number(QCoreApplication::applicationPid());
}

// Collects every log line while alive.
class LogCapture {
public:
    using Line = std::tuple<std::string, int, std::string>;

    LogCapture()
        : _previous(zo::log::setSink([this](const std::string& c, int l, const std::string& m) {
            lines.emplace_back(c, l, m);
        }))
    {
    }
    ~LogCapture() { zo::log::setSink(_previous); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> lines;

private:
    zo::log::Sink _previous;
};

// Runs body in a forked child under the unprivileged uid "nobody"; the child's exit code is
// body's result (0 for success). Root ignores permission bits, so tests of refused access
// need a real unprivileged process.
constexpr uid_t kNobody = 65534;

inline int runAsNobody(const std::function<int()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0)
            _exit(100);
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

} // namespace zo::project::test
