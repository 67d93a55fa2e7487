#include <zo/test/support.h>

#include <zo/file.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <csignal>
#include <cxxabi.h>
#include <exception>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <typeinfo>
#include <unistd.h>

void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

void PrintTo(const QByteArray& bytes, std::ostream* out)
{
    *out << '"' << bytes.toStdString() << '"';
}

namespace zo::test {

namespace {

std::string className(const std::type_info& type)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    std::string name = status == 0 ? demangled.get() : type.name();
    for (const std::string prefix : { "zo::project::", "std::" })
        if (name.compare(0, prefix.size(), prefix) == 0)
            return name.substr(prefix.size());
    return name;
}

} // namespace

std::string thrownBy(const std::function<void()>& body)
{
    try {
        body();
    } catch (const std::exception& error) {
        return className(typeid(error)) + ": " + error.what();
    }
    return "nothing thrown";
}

void writeFile(const TestPath& path, const QByteArray& data, mode_t mode)
{
    QFileInfo(path.value).dir().mkpath(QStringLiteral("."));
    QFile file(path.value);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.value.toStdString();
    ASSERT_EQ(file.write(data), data.size());
    file.close();
    ASSERT_EQ(::chmod(QFile::encodeName(path.value).constData(), mode), 0);
}

QByteArray readFile(const TestPath& path)
{
    QFile file(path.value);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArrayLiteral("<missing>");
}

QStringList entriesBelow(const TestPath& root)
{
    const QDir base(root.value);
    QStringList entries;
    QDirIterator it(root.value,
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (it.hasNext())
        entries.append(base.relativeFilePath(it.next()));
    entries.sort();
    return entries;
}

QMap<QString, QByteArray> filesBelow(const TestPath& root)
{
    QMap<QString, QByteArray> files;
    for (const QString& entry : entriesBelow(root)) {
        const QString path = QDir(root.value).filePath(entry);
        const QFileInfo info(path);
        if (info.isFile() && !info.isSymLink() && !info.fileName().startsWith(".zo-owner-"))
            files.insert(entry, readFile(path));
    }
    return files;
}

pid_t endedProcessId()
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    ::waitpid(child, nullptr, 0);
    return child;
}

LogCapture::LogCapture()
    : previous(zo::log::setSink(
        [this](const std::string& c, int l, const std::string& m) { lines.emplace_back(c, l, m); }))
{
}

LogCapture::~LogCapture()
{
    zo::log::setSink(previous);
}

ScopedMount::ScopedMount(const TestPath& path, const char* tmpfsOptions)
    : target(QFile::encodeName(path.value))
{
    const char* at = target.constData();
    mounted = tmpfsOptions ? ::mount("tmpfs", at, "tmpfs", 0, tmpfsOptions) == 0
                           : ::mount(at, at, nullptr, MS_BIND, nullptr) == 0
            && ::mount(nullptr, at, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

// Also undoes a bind whose read-only remount failed.
ScopedMount::~ScopedMount()
{
    ::umount2(target.constData(), MNT_DETACH);
}

QByteArray firstLineOf(const char* path)
{
    return QFile::exists(path) ? readFile(path).split('\n').first() : QByteArray();
}

void writeEndedOwnerMark(const QString& directory, pid_t pid, const QByteArray& host,
    const QByteArray& boot, std::chrono::system_clock::time_point marked, const QByteArray& lock)
{
    const QByteArray when = QByteArray::number(static_cast<qint64>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(marked.time_since_epoch()).count()));
    const QString path = directory + QStringLiteral("/.zo-owner-%1.written").arg(pid);
    writeFile(path, "");
    const auto made = zo::os::linkStatus(QFile::encodeName(path).constData());
    // Written in place, so that it stays the file its record names.
    writeFile(path,
        "zo-owner 1\nhost " + host + "\nmachine " + firstLineOf("/etc/machine-id") + "\nboot "
            + boot + "\npidns "
            + QByteArray::fromStdString(zo::os::readLink("/proc/self/ns/pid").value_or(""))
            + "\npid " + QByteArray::number(pid) + "\nstarted " + when
            + QString("\ninode %1 %2").arg(made->identity.device).arg(made->identity.inode).toUtf8()
            + "\nprogram \nmarked " + when + '\n' + lock);
}

LiveInstance::LiveInstance()
    : pid(::fork())
{
    if (pid != 0)
        return;
    ::pause();
    ::_exit(0);
}

LiveInstance::~LiveInstance()
{
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

int runAsNobody(const std::function<int()>& body)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(::setgid(kNobody) != 0 || ::setuid(kNobody) != 0 ? 100 : body());
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

void killAtEveryCall(const QStringList& calls, const QStringList& command,
    const std::function<void()>& prepare, const std::function<void()>& check)
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        GTEST_SKIP() << "strace is missing";
    for (const QString& call : calls)
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(call.toStdString() + " " + std::to_string(nth));
            prepare();
            QProcess child;
            // The leak checker of a sanitizer build cannot work under a tracer.
            child.start("strace",
                QStringList { "-f", "-qq", "-o", "/dev/null", "-E", "ASAN_OPTIONS=detect_leaks=0",
                    "-e", QStringLiteral("inject=%1:signal=SIGKILL:when=%2").arg(call).arg(nth),
                    QCoreApplication::applicationDirPath() + "/" + command.first() }
                    + command.mid(1));
            ASSERT_TRUE(child.waitForFinished(60000));
            if (child.exitStatus() == QProcess::NormalExit) {
                EXPECT_EQ(child.exitCode(), 0) << child.readAllStandardError().toStdString();
                break;
            }
            check();
        }
}

} // namespace zo::test
