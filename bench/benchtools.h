#pragma once

// What the side-by-side benchmarks share: scratch trees, median timings and the outside tools.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <algorithm>
#include <functional>
#include <vector>

namespace zo::bench {

constexpr int kFilesPerDirectory = 100;

// files files of about bytesPerFile bytes of numbered text lines, kFilesPerDirectory to a
// directory, two levels deep like a source tree.
inline void makeTree(const QString& root, int files, int bytesPerFile)
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
        QByteArray content;
        for (int line = 0; content.size() < bytesPerFile; ++line)
            content += QStringLiteral("file %1 line %2\n").arg(i).arg(line).toUtf8();
        content.truncate(bytesPerFile);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(path));
    }
}

// The median wall time in milliseconds of runs runs of work, each after an untimed prepare.
inline double medianMs(
    int runs, const std::function<void()>& work, const std::function<void()>& prepare = [] {})
{
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        prepare();
        QElapsedTimer timer;
        timer.start();
        work();
        times.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// Runs a tool to its end with its output discarded; fatal when it fails.
inline void runTool(const QString& program, const QStringList& arguments)
{
    QProcess tool;
    tool.setStandardOutputFile(QProcess::nullDevice());
    tool.start(program, arguments);
    if (!tool.waitForFinished(-1) || tool.exitStatus() != QProcess::NormalExit
        || tool.exitCode() != 0)
        qFatal("%s failed", qPrintable(program));
}

} // namespace zo::bench
