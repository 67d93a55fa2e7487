// The cost of a durable commit: the swap file and the directory are synced before the backup
// goes. The baseline writes and renames the same bytes without any sync.
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

QByteArray payload(benchmark::State& state)
{
    return QByteArray(static_cast<int>(state.range(0)), 'x');
}

void BM_EditAndCommit(benchmark::State& state)
{
    QTemporaryDir dir(QStringLiteral("zobench-XXXXXX"));
    zo::project::ProjectVFS project(dir.path());
    const QByteArray data = payload(state);
    const QString name = QStringLiteral("file.bin");
    for (auto _ : state) {
        auto file = project.open(name, QIODevice::WriteOnly | QIODevice::Truncate);
        file->write(data);
        file->close();
        project.commit();
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

void BM_WriteAndRenameWithoutSync(benchmark::State& state)
{
    QTemporaryDir dir(QStringLiteral("zobench-XXXXXX"));
    const QByteArray data = payload(state);
    const QString target = dir.filePath(QStringLiteral("file.bin"));
    const QString temporary = dir.filePath(QStringLiteral(".file.bin.tmp"));
    for (auto _ : state) {
        QFile file(temporary);
        file.open(QIODevice::WriteOnly | QIODevice::Truncate);
        file.write(data);
        file.close();
        QFile::remove(target);
        QFile::rename(temporary, target);
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

BENCHMARK(BM_EditAndCommit)->Arg(4 << 10)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WriteAndRenameWithoutSync)->Arg(4 << 10)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
