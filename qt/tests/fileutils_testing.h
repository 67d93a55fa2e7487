#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace zo::project::testing {

// A fresh directory to lay out a tree in; paths are relative to it.
class Scratch {
public:
    QString path(const QString& relative = QString()) const { return _root.filePath(relative); }

    QString file(const QString& relative, const QByteArray& content = "x") const
    {
        QDir().mkpath(QFileInfo(path(relative)).path());
        QFile file(path(relative));
        const bool written
            = file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
        return written ? file.fileName() : QString();
    }

    QString dir(const QString& relative) const
    {
        return QDir().mkpath(path(relative)) ? path(relative) : QString();
    }

    QString link(const QString& relative, const QString& target) const
    {
        return QFile::link(target, path(relative)) ? path(relative) : QString();
    }

private:
    QTemporaryDir _dir;
    QDir _root { _dir.path() };
};

// A mount undone when the object goes; mounted() is false where the system refuses it.
class ScopedMount {
public:
    // A tmpfs with the given options ("size=8m") on an existing directory.
    ScopedMount(const QString& directory, const char* tmpfsOptions)
        : _target(QFile::encodeName(directory))
    {
        _mounted = ::mount("tmpfs", _target.constData(), "tmpfs", 0, tmpfsOptions) == 0;
    }

    // An existing file or directory bound onto itself read-only.
    explicit ScopedMount(const QString& path)
        : _target(QFile::encodeName(path))
    {
        _mounted
            = ::mount(_target.constData(), _target.constData(), nullptr, MS_BIND, nullptr) == 0;
        if (_mounted
            && ::mount(
                   nullptr, _target.constData(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr)
                != 0) {
            release();
        }
    }

    ~ScopedMount() { release(); }
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;

    bool mounted() const { return _mounted; }

    void release()
    {
        if (_mounted) {
            ::umount2(_target.constData(), MNT_DETACH);
            _mounted = false;
        }
    }

private:
    QByteArray _target;
    bool _mounted = false;
};

// Bytes an unprivileged process may still write on the volume holding path, as the system says.
inline long long availableBytes(const QString& path)
{
    struct statvfs volume { };
    if (::statvfs(QFile::encodeName(path).constData(), &volume) != 0) {
        return -1;
    }
    return static_cast<long long>(volume.f_bavail) * static_cast<long long>(volume.f_frsize);
}

// Runs body in a child process that has dropped root for nobody; its result is the exit code,
// -1 when the child could not be made or did not exit normally.
inline int exitCodeAsNobody(const std::function<int()>& body)
{
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(255);
        }
        ::_exit(body());
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

} // namespace zo::project::testing
