// Runs one tree operation of the libraries on a tree and prints how long it took and the peak
// resident memory of the process, for bench/compare to set beside the command-line tools.
//
// usage: zoproject_treeops list|scan|size ROOT
//        zoproject_treeops copy SRC DST
//        zoproject_treeops export ROOT ARCHIVE
//        zoproject_treeops commit|commit-loop ROOT N
//        zoproject_treeops open ROOT
//        zoproject_treeops idle|idle-full ROOT SECONDS
// prints: <milliseconds> <peak resident bytes> <entries seen>
//
// open times what an application does to open a project: ProjectDir(ROOT), watching on (the
// watcher's first check), recoverableFiles(). idle watches ROOT with the default interval and
// the kernel's change notices (idle-full: listing the whole tree at every check) for SECONDS of
// wall time once the first check is done, and gives as entries seen the CPU time (user and
// system) of the whole process in that time, in microseconds per minute.
//
// commit times ProjectVFS::commit() of N pending 4 KiB edits in directories of 100 files below
// ROOT; commit-loop times the plain loop an application could write instead, per file: sync the
// new file, rename the old one aside, rename the new one into place, sync the directory and
// remove the old one. Only the commits are timed, not the edits before them.
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

namespace {

// The operation restarts the timer itself when it prepares something first.
using Operation = std::function<long long(const QStringList& arguments, QElapsedTimer& timer)>;

const QByteArray kEdit(4096, 'e');

// "d<n / 100>/f<n % 100>" for n below count, with their directories made below root.
QStringList editedFiles(const QString& root, int count)
{
    QStringList files;
    for (int n = 0; n < count; ++n) {
        files << QStringLiteral("d%1/f%2").arg(n / 100).arg(n % 100);
        if (n % 100 == 0)
            QDir(root).mkpath(QStringLiteral("d%1").arg(n / 100));
    }
    return files;
}

long long commitThroughTheLibrary(const QStringList& a, QElapsedTimer& timer)
{
    zo::project::ProjectVFS project(a[0]);
    const QStringList files = editedFiles(a[0], a[1].toInt());
    for (const QString& file : files)
        project.open(file, QIODevice::WriteOnly | QIODevice::Truncate)->write(kEdit);
    timer.restart();
    project.commit();
    return files.size();
}

long long commitInAPlainLoop(const QStringList& a, QElapsedTimer& timer)
{
    const QStringList files = editedFiles(a[0], a[1].toInt());
    for (const QString& file : files) {
        for (const QString& path : { file, file + QLatin1String(".new") }) {
            QFile out { QDir(a[0]).filePath(path) };
            if (!out.open(QIODevice::WriteOnly) || out.write(kEdit) != kEdit.size())
                qFatal("cannot write %s", qPrintable(out.fileName()));
        }
    }
    timer.restart();
    for (const QString& file : files) {
        const QByteArray path = QFile::encodeName(QDir(a[0]).filePath(file));
        const QByteArray fresh = path + ".new";
        const QByteArray old = path + ".old";
        if (!zo::os::syncFile(fresh.constData())
            || !zo::os::rename(path.constData(), old.constData())
            || !zo::os::rename(fresh.constData(), path.constData())
            || !zo::os::syncDirectory(QFile::encodeName(QFileInfo(path).path()).constData())
            || !QFile::remove(QFile::decodeName(old)))
            qFatal("plain commit of %s failed", path.constData());
    }
    return files.size();
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
    return [eventAssisted](const QStringList& a, QElapsedTimer&) {
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
                [](const QStringList& a, QElapsedTimer&) {
                    return static_cast<long long>(listDirectory(a[0], true, true, false).size());
                } } },
        { "scan",
            { 1,
                [](const QStringList& a, QElapsedTimer& timer) {
                    // Opening walks the tree once too, to put back interrupted commits.
                    ProjectVFS project(a[0]);
                    timer.restart();
                    return static_cast<long long>(project.recoverableFiles().size());
                } } },
        { "size",
            { 1,
                [](const QStringList& a, QElapsedTimer&) {
                    unsigned long long size = 0;
                    unsigned int count = 0;
                    folderSize(a[0], &size, &count, nullptr, 0, 0);
                    return static_cast<long long>(count);
                } } },
        { "copy",
            { 2,
                [](const QStringList& a, QElapsedTimer&) {
                    copy(a[0], a[1], false);
                    return 0LL;
                } } },
        { "export",
            { 2,
                [](const QStringList& a, QElapsedTimer&) {
                    exportProject(a[0].toStdString(), a[1].toStdString(), ArchiveFormat::Zip);
                    return 0LL;
                } } },
        { "open",
            { 1,
                [](const QStringList& a, QElapsedTimer&) {
                    ProjectDir project(a[0]);
                    project.setWatching(true);
                    return static_cast<long long>(project.recoverableFiles().size());
                } } },
        { "idle", { 2, idleWatch(true) } },
        { "idle-full", { 2, idleWatch(false) } },
        { "commit", { 2, commitThroughTheLibrary } },
        { "commit-loop", { 2, commitInAPlainLoop } },
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
            "export ROOT ARCHIVE | commit|commit-loop ROOT N | open ROOT | "
            "idle|idle-full ROOT SECONDS\n");
        return 2;
    }
    arguments.removeFirst();
    QElapsedTimer timer;
    timer.start();
    const long long seen = operation->second.second(arguments, timer);
    const double milliseconds = static_cast<double>(timer.nsecsElapsed()) / 1e6;
    std::printf("%.3f %lld %lld\n", milliseconds, zo::bench::memoryBytes("VmHWM:"), seen);
    return 0;
}
