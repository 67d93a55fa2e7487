// Runs one tree operation of the libraries on a tree and prints how long it took and the peak
// resident memory of the process, for bench/compare to set beside the command-line tools.
//
// usage: zoproject_treeops list|scan|size ROOT
//        zoproject_treeops copy SRC DST
//        zoproject_treeops export ROOT ARCHIVE
// prints: <milliseconds> <peak resident bytes> <entries seen>
#include <zo/project/archive.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectvfs.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>
#include <functional>
#include <map>

namespace {

long long peakResidentBytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong() * 1024;
    }
    return -1;
}

using Operation = std::function<long long(const QStringList& arguments)>;

const std::map<QString, std::pair<int, Operation>>& operations()
{
    using namespace zo::project;
    static const std::map<QString, std::pair<int, Operation>> table {
        { "list",
            { 1,
                [](const QStringList& a) {
                    return static_cast<long long>(listDirectory(a[0], true, true, false).size());
                } } },
        { "scan",
            { 1,
                [](const QStringList& a) {
                    return static_cast<long long>(ProjectVFS(a[0]).recoverableFiles().size());
                } } },
        { "size",
            { 1,
                [](const QStringList& a) {
                    unsigned long long size = 0;
                    unsigned int count = 0;
                    folderSize(a[0], &size, &count, nullptr, 0, 0);
                    return static_cast<long long>(count);
                } } },
        { "copy",
            { 2,
                [](const QStringList& a) {
                    copy(a[0], a[1], false);
                    return 0LL;
                } } },
        { "export",
            { 2,
                [](const QStringList& a) {
                    exportProject(a[0].toStdString(), a[1].toStdString(), ArchiveFormat::Zip);
                    return 0LL;
                } } },
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
            "export ROOT ARCHIVE\n");
        return 2;
    }
    arguments.removeFirst();
    QElapsedTimer timer;
    timer.start();
    const long long seen = operation->second.second(arguments);
    const double milliseconds = static_cast<double>(timer.nsecsElapsed()) / 1e6;
    std::printf("%.3f %lld %lld\n", milliseconds, peakResidentBytes(), seen);
    return 0;
}
