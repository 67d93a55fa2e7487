// One watcher check beside `find ROOT -type f -printf '%T@ %s\n'` on the same warm tree, and the
// resident memory the watcher's snapshot costs per file. Goals: at most 1.5x the time of find,
// at most 250 bytes per file, flat from 10k to 100k files.
//
// usage: zoproject_watch_bench [FILES...]   (default 10000 100000)
#include <zo/project/projectwatcher.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

constexpr int kFilesPerDirectory = 100;
constexpr int kRuns = 7;

// Resident memory of this process, from the kernel's own accounting.
long long residentBytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong() * 1024;
    }
    return -1;
}

// files small files, kFilesPerDirectory to a directory, two levels deep like a source tree.
void makeTree(const QString& root, int files)
{
    for (int i = 0; i < files; ++i) {
        const int directory = i / kFilesPerDirectory;
        const QString path = QStringLiteral("%1/group%2/dir%3/file%4.txt")
                                 .arg(root)
                                 .arg(directory / 32)
                                 .arg(directory)
                                 .arg(i % kFilesPerDirectory);
        if (i % kFilesPerDirectory == 0)
            QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write("content\n") != 8)
            qFatal("cannot write %s", qPrintable(path));
    }
}

double medianMs(const std::function<void()>& run)
{
    std::vector<double> times;
    for (int i = 0; i < kRuns; ++i) {
        QElapsedTimer timer;
        timer.start();
        run();
        times.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void runFind(const QString& root)
{
    QProcess find;
    find.setStandardOutputFile(QProcess::nullDevice());
    find.start(QStringLiteral("find"),
        { root, QStringLiteral("-type"), QStringLiteral("f"), QStringLiteral("-printf"),
            QStringLiteral("%T@ %s\\n") });
    if (!find.waitForFinished(-1) || find.exitCode() != 0)
        qFatal("find failed");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList sizes = app.arguments().mid(1);
    if (sizes.isEmpty())
        sizes = QStringList { QStringLiteral("10000"), QStringLiteral("100000") };

    std::printf("%8s %10s %10s %10s %7s %12s\n", "files", "find ms", "first ms", "check ms",
        "ratio", "bytes/file");
    for (const QString& size : sizes) {
        const int files = size.toInt();
        QTemporaryDir scratch;
        const QString root = scratch.filePath(QStringLiteral("tree"));
        makeTree(root, files);
        runFind(root); // warms the tree

        const long long before = residentBytes();
        zo::project::ProjectWatcher watcher(root, false, nullptr);
        QElapsedTimer firstTimer;
        firstTimer.start();
        watcher.checkPendingChanges();
        const double firstMs = static_cast<double>(firstTimer.nsecsElapsed()) / 1e6;
        const double bytesPerFile = static_cast<double>(residentBytes() - before) / files;

        const double findMs = medianMs([&root] { runFind(root); });
        const double checkMs = medianMs([&watcher] { watcher.checkPendingChanges(); });
        std::printf("%8d %10.1f %10.1f %10.1f %6.2fx %12.0f\n", files, findMs, firstMs, checkMs,
            checkMs / findMs, bytesPerFile);
    }
    return 0;
}
