// Runs one tree operation of the libraries on a tree and prints how long it took and the peak
// resident memory of the process, for bench/compare to set beside the command-line tools.
//
// usage: zoproject_treeops list|scan|size ROOT
//        zoproject_treeops copy SRC DST
//        zoproject_treeops export ROOT ARCHIVE
//        zoproject_treeops edit|edit-floor|commit|commit-floor|commit-loop ROOT N
//        zoproject_treeops open ROOT
//        zoproject_treeops idle|idle-full ROOT SECONDS
// prints: <milliseconds> <peak resident bytes> <entries seen>
//
// open times what an application does to open a project: ProjectDir(ROOT), watching on (the
// watcher's first check), recoverableFiles(); not closing it, where the kernel may take
// milliseconds to drop the watcher's watches. idle watches ROOT with the default interval and
// the kernel's change notices (idle-full: listing the whole tree at every check) for SECONDS of
// wall time once the first check is done, and gives as entries seen the CPU time (user and
// system) of the whole process in that time, in microseconds per minute.
//
// The edit and commit operations make N 4 KiB sources in directories of 100 files below ROOT
// and flush them to the disk first, untimed, as sources an editor opens have long been written.
// edit times opening each through ProjectVFS for writing, writing 4 KiB and closing it;
// edit-floor the copy of each source to a hidden name beside it with no sync, then the same
// write to the copy. commit times ProjectVFS::commit() of N pending 4 KiB edits; commit-floor
// the same renames with no sync at all, per file: rename the old one aside, the new one into
// place and remove the old one; commit-loop the plain loop an application could write instead,
// those renames with the new file synced before them and the directory after. Only the edits,
// or only the commits, are timed: not the edits before a commit, nor what leaving the project
// with pending edits costs.
#include "benchtools.h"

#include <zo/file.h>
#include <zo/project/archive.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectdir.h>
#include <zo/project/projectvfs.h>
#include <zo/project/projectwatcher.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>

namespace {

// The operation's own time: restarted by an operation that prepares something first, stopped by
// one whose clean-up is no part of it.
class Stopwatch {
public:
    Stopwatch() { _timer.start(); }
    void restart()
    {
        _stopped.reset();
        _timer.restart();
    }
    void stop() { _stopped = _timer.nsecsElapsed(); }
    double milliseconds() const
    {
        return static_cast<double>(_stopped.value_or(_timer.nsecsElapsed())) / 1e6;
    }

private:
    QElapsedTimer _timer;
    std::optional<qint64> _stopped;
};

using Operation = std::function<long long(const QStringList& arguments, Stopwatch& timer)>;

const QByteArray kSource(4096, 's');
const QByteArray kEdit(4096, 'e');

void writeFile(const QString& path, const QByteArray& content = kEdit)
{
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || out.write(content) != content.size() || !out.flush())
        qFatal("cannot write %s", qPrintable(path));
}

// count 4 KiB sources "d<n / 100>/f<n % 100>" below root, flushed to the disk.
QStringList sourceFiles(const QString& root, int count)
{
    QStringList files;
    for (int n = 0; n < count; ++n) {
        files << QStringLiteral("d%1/f%2").arg(n / 100).arg(n % 100);
        if (n % 100 == 0)
            QDir(root).mkpath(QStringLiteral("d%1").arg(n / 100));
        writeFile(QDir(root).filePath(files.last()), kSource);
    }
    if (!zo::os::syncFileSystem(QFile::encodeName(root).constData()))
        qFatal("cannot sync %s", qPrintable(root));
    return files;
}

long long editThroughTheLibrary(const QStringList& a, Stopwatch& timer)
{
    const QStringList files = sourceFiles(a[0], a[1].toInt());
    zo::project::ProjectVFS project(a[0]);
    timer.restart();
    for (const QString& file : files) {
        const auto handle = project.open(file, QIODevice::WriteOnly | QIODevice::Truncate);
        if (handle->write(kEdit) != kEdit.size())
            qFatal("cannot write %s", qPrintable(file));
        handle->close();
    }
    timer.stop();
    return files.size();
}

// What an edit cannot do without: a copy of the source beside it (written under its name
// directly, the cheapest copy there is), then the edit written to the copy.
long long editCopiesWithoutSync(const QStringList& a, Stopwatch& timer)
{
    const QStringList files = sourceFiles(a[0], a[1].toInt());
    timer.restart();
    for (const QString& file : files) {
        const QFileInfo source { QDir(a[0]).filePath(file) };
        const QString copy = source.dir().filePath(QLatin1Char('.') + source.fileName());
        if (!zo::os::copyFile(QFile::encodeName(source.filePath()).constData(),
                QFile::encodeName(copy).constData(), zo::os::CopyTarget::Unseen))
            qFatal("cannot copy %s", qPrintable(source.filePath()));
        writeFile(copy);
    }
    return files.size();
}

long long commitThroughTheLibrary(const QStringList& a, Stopwatch& timer)
{
    const QStringList files = sourceFiles(a[0], a[1].toInt());
    zo::project::ProjectVFS project(a[0]);
    for (const QString& file : files)
        project.open(file, QIODevice::WriteOnly | QIODevice::Truncate)->write(kEdit);
    timer.restart();
    project.commit();
    return files.size();
}

Operation commitInAPlainLoop(bool synced)
{
    return [synced](const QStringList& a, Stopwatch& timer) {
        const QStringList files = sourceFiles(a[0], a[1].toInt());
        for (const QString& file : files)
            writeFile(QDir(a[0]).filePath(file + QLatin1String(".new")));
        timer.restart();
        for (const QString& file : files) {
            const QByteArray path = QFile::encodeName(QDir(a[0]).filePath(file));
            const QByteArray fresh = path + ".new";
            const QByteArray old = path + ".old";
            if ((synced && !zo::os::syncFile(fresh.constData()))
                || !zo::os::rename(path.constData(), old.constData())
                || !zo::os::rename(fresh.constData(), path.constData())
                || (synced
                    && !zo::os::syncDirectory(
                        QFile::encodeName(QFileInfo(path).path()).constData()))
                || !zo::os::remove(old.constData()))
                qFatal("plain commit of %s failed", path.constData());
        }
        return static_cast<long long>(files.size());
    };
}

double cpuMicroseconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return 1e6 * static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

Operation idleWatch(bool eventAssisted)
{
    return [eventAssisted](const QStringList& a, Stopwatch&) {
        zo::project::ProjectWatcher watcher(a[0], false, nullptr);
        watcher.setEventAssisted(eventAssisted);
        watcher.enableWatching(true);
        const double seconds = a[1].toDouble();
        const double before = cpuMicroseconds();
        QTimer::singleShot(static_cast<int>(seconds * 1000), qApp, &QCoreApplication::quit);
        QCoreApplication::exec();
        return std::llround((cpuMicroseconds() - before) * 60 / seconds);
    };
}

const std::map<QString, std::pair<int, Operation>>& operations()
{
    using namespace zo::project;
    static const std::map<QString, std::pair<int, Operation>> table {
        { "list",
            { 1,
                [](const QStringList& a, Stopwatch&) {
                    return static_cast<long long>(listDirectory(a[0], true, true, false).size());
                } } },
        { "scan",
            { 1,
                [](const QStringList& a, Stopwatch&) {
                    // Timed from the opening, whose walk puts back interrupted commits: a later
                    // search reads again only the directories changed since.
                    ProjectVFS project(a[0]);
                    return static_cast<long long>(project.recoverableFiles().size());
                } } },
        { "size",
            { 1,
                [](const QStringList& a, Stopwatch&) {
                    unsigned long long size = 0;
                    unsigned int count = 0;
                    folderSize(a[0], &size, &count, nullptr, 0, 0);
                    return static_cast<long long>(count);
                } } },
        { "copy",
            { 2,
                [](const QStringList& a, Stopwatch&) {
                    copy(a[0], a[1], false);
                    return 0LL;
                } } },
        { "export",
            { 2,
                [](const QStringList& a, Stopwatch&) {
                    exportProject(a[0].toStdString(), a[1].toStdString(), ArchiveFormat::Zip);
                    return 0LL;
                } } },
        { "open",
            { 1,
                [](const QStringList& a, Stopwatch& timer) {
                    ProjectDir project(a[0]);
                    project.setWatching(true);
                    const auto found = project.recoverableFiles().size();
                    timer.stop();
                    return static_cast<long long>(found);
                } } },
        { "idle", { 2, idleWatch(true) } },
        { "idle-full", { 2, idleWatch(false) } },
        { "edit", { 2, editThroughTheLibrary } },
        { "edit-floor", { 2, editCopiesWithoutSync } },
        { "commit", { 2, commitThroughTheLibrary } },
        { "commit-floor", { 2, commitInAPlainLoop(false) } },
        { "commit-loop", { 2, commitInAPlainLoop(true) } },
    };
    return table;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    const auto operation = operations().find(arguments.value(0));
    if (operation == operations().end() || arguments.size() != operation->second.first + 1) {
        std::fprintf(stderr,
            "usage: zoproject_treeops list|scan|size ROOT | copy SRC DST | "
            "export ROOT ARCHIVE | edit|edit-floor|commit|commit-floor|commit-loop ROOT N | "
            "open ROOT | "
            "idle|idle-full ROOT SECONDS\n");
        return 2;
    }
    arguments.removeFirst();
    Stopwatch timer;
    const long long seen = operation->second.second(arguments, timer);
    const double milliseconds = timer.milliseconds();
    std::printf("%.3f %lld %lld\n", milliseconds, zo::bench::memoryBytes("VmHWM:"), seen);
    return 0;
}
