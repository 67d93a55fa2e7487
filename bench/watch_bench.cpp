// One watcher check beside `find ROOT -type f -printf '%T@ %s\n'` on the same warm tree, and the
// resident memory the watcher's snapshot costs per file. Goals: at most 1.5x the time of find,
// at most 250 bytes per file, flat from 10k to 100k files.
//
// usage: zoproject_watch_bench [FILES...]   (default 10000 100000)
#include "benchtools.h"

#include <zo/project/projectwatcher.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

namespace {

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

void runFind(const QString& root)
{
    zo::bench::runTool(QStringLiteral("find"),
        { root, QStringLiteral("-type"), QStringLiteral("f"), QStringLiteral("-printf"),
            QStringLiteral("%T@ %s\\n") });
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList sizes = app.arguments().mid(1);
    if (sizes.isEmpty())
        sizes = QStringList { QStringLiteral("10000"), QStringLiteral("100000") };

    std::printf("%8s %10s %10s %7s %10s %7s %12s\n", "files", "find ms", "first ms", "ratio",
        "check ms", "ratio", "bytes/file");
    for (const QString& size : sizes) {
        const int files = size.toInt();
        QTemporaryDir scratch;
        const QString root = scratch.filePath(QStringLiteral("tree"));
        zo::bench::makeTree(root, files, 8);
        runFind(root); // warms the tree

        const long long before = residentBytes();
        zo::project::ProjectWatcher watcher(root, false, nullptr);
        QElapsedTimer firstTimer;
        firstTimer.start();
        watcher.checkPendingChanges();
        const double firstMs = static_cast<double>(firstTimer.nsecsElapsed()) / 1e6;
        const double bytesPerFile = static_cast<double>(residentBytes() - before) / files;

        const double findMs = zo::bench::medianMs(kRuns, [&root] { runFind(root); });
        const double checkMs
            = zo::bench::medianMs(kRuns, [&watcher] { watcher.checkPendingChanges(); });
        std::printf("%8d %10.1f %10.1f %6.2fx %10.1f %6.2fx %12.0f\n", files, findMs, firstMs,
            firstMs / findMs, checkMs, checkMs / findMs, bytesPerFile);
    }
    return 0;
}
