// An archive project's load and save beside bsdtar on the same tree: load of a tar.gz into a
// new workspace beside `bsdtar -xf`, save of the workspace as tar.gz (safe and in place) beside
// `bsdtar -czf`. Goal: at most 1.1x the tool's time.
//
// usage: zoproject_model_bench [FILES] [RUNS]   (default 10000 5)
#include "benchtools.h"

#include <zo/project/archive.h>
#include <zo/project/projectmodel.h>

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <cstdio>
#include <memory>

namespace {

using zo::project::ArchiveFormat;
using zo::project::ProjectModel;

constexpr double kGoal = 1.1;

void printRow(const char* operation, double oursMs, const char* anchor, double anchorMs)
{
    const double ratio = oursMs / anchorMs;
    std::printf("%-22s %10.1f   %-12s %10.1f %7.2fx %s\n", operation, oursMs, anchor, anchorMs,
        ratio, ratio <= kGoal ? "met" : "MISSED");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int files = app.arguments().value(1, QStringLiteral("10000")).toInt();
    const int runs = app.arguments().value(2, QStringLiteral("5")).toInt();
    QTemporaryDir scratch;
    const QString tree = scratch.filePath(QStringLiteral("tree"));
    const QString archive = scratch.filePath(QStringLiteral("tree.tar.gz"));
    const QString output = scratch.filePath(QStringLiteral("out.tar.gz"));
    const QString unpacked = scratch.filePath(QStringLiteral("unpacked"));
    zo::bench::makeTree(tree, files, 4096);
    zo::bench::runTool(QStringLiteral("bsdtar"),
        { QStringLiteral("-czf"), archive, QStringLiteral("-C"), tree, QStringLiteral(".") });
    // Workspaces go to the same file system as the tool's output.
    qputenv("TMPDIR", QFile::encodeName(scratch.path()));

    std::unique_ptr<ProjectModel> model;
    const double loadMs = zo::bench::medianMs(
        runs, [&] { model->load(archive, ArchiveFormat::Auto); },
        [&] { model = std::make_unique<ProjectModel>(); });
    const double extractMs = zo::bench::medianMs(
        runs,
        [&] {
            zo::bench::runTool(QStringLiteral("bsdtar"),
                { QStringLiteral("-xf"), archive, QStringLiteral("-C"), unpacked });
        },
        [&] {
            QDir(unpacked).removeRecursively();
            QDir().mkpath(unpacked);
        });

    const auto removeOutput = [&] { QFile::remove(output); };
    const double safeMs = zo::bench::medianMs(
        runs, [&] { model->save(output, ArchiveFormat::Auto, true); }, removeOutput);
    const double inPlaceMs = zo::bench::medianMs(
        runs, [&] { model->save(output, ArchiveFormat::Auto, false); }, removeOutput);
    const QString workspace = model->getFileLocalPath(QString());
    const double packMs = zo::bench::medianMs(
        runs,
        [&] {
            zo::bench::runTool(QStringLiteral("bsdtar"),
                { QStringLiteral("-czf"), output, QStringLiteral("-C"), workspace,
                    QStringLiteral(".") });
        },
        removeOutput);

    std::printf("%d files of 4 KiB, median of %d runs, ms\n\n", files, runs);
    std::printf("%-22s %10s   %-12s %10s %8s\n", "operation", "ours", "anchor", "anchor", "ratio");
    printRow("load tar.gz", loadMs, "bsdtar -xf", extractMs);
    printRow("save tar.gz (safe)", safeMs, "bsdtar -czf", packMs);
    printRow("save tar.gz (in place)", inPlaceMs, "bsdtar -czf", packMs);
    return 0;
}
