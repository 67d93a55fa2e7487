#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <QStandardPaths>

#include <filesystem>

namespace {

using namespace zo::project;
using namespace zo::project::test;

// Prints an archive's entries as listing() does with Modes | Links, or with "create" packs a
// directory's files and directories (its links left out) into a zip or a compressed tar.
constexpr const char* pythonScript = R"(
import hashlib, os, stat, sys, tarfile, zipfile
def line(kind, name, mode, data):
    name = name.rstrip('/').removeprefix('./')
    if kind == 'l':
        return f'l {name} -> {data.decode()}'
    text = f'{kind} {name} mode {stat.S_IMODE(mode)}'
    return text + f' sha1 {hashlib.sha1(data).hexdigest()}' if kind == 'f' else text
def show(path):
    lines = []
    if zipfile.is_zipfile(path):
        with zipfile.ZipFile(path) as z:
            for i in z.infolist():
                mode = i.external_attr >> 16
                kind = 'd' if i.is_dir() else 'l' if stat.S_ISLNK(mode) else 'f'
                lines.append(line(kind, i.filename, mode, b'' if kind == 'd' else z.read(i)))
    else:
        with tarfile.open(path) as t:
            for m in t:
                kind = 'd' if m.isdir() else 'l' if m.issym() else 'f'
                data = m.linkname.encode() if kind == 'l' else b'' if kind == 'd' else t.extractfile(m).read()
                lines.append(line(kind, m.name, m.mode, data))
    print('\n'.join(sorted(lines)))
def create(path, root):
    if path.endswith('.zip'):
        with zipfile.ZipFile(path, 'w', zipfile.ZIP_DEFLATED) as z:
            for dir, dirs, files in os.walk(root):
                for name in dirs + files:
                    full = os.path.join(dir, name)
                    if not os.path.islink(full):
                        z.write(full, os.path.relpath(full, root))
    else:
        with tarfile.open(path, 'w:' + {'tgz': 'gz', 'txz': 'xz'}[path[-3:]]) as t:
            t.add(root, arcname='.')
if sys.argv[1] == 'create':
    create(sys.argv[2], sys.argv[3])
else:
    show(sys.argv[1])
)";

struct Tool {
    const char* program; // the case is skipped when it is not installed
    ArchiveFormat format;
    const char* archive;
    const char* command; // sh: $A the archive, $D the directory, $PY the script above
    int details; // what the tool keeps
};

void PrintTo(const Tool& tool, std::ostream* out)
{
    *out << tool.program << " " << tool.archive;
}

// Runs the tool's command, failing the test on a non-zero exit; returns standard output.
QString run(const Tool& tool, const std::string& archive, const std::string& directory)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("A", QString::fromStdString(archive));
    environment.insert("D", QString::fromStdString(directory));
    environment.insert("PY", pythonScript);
    environment.insert("LC_ALL", "C.UTF-8");
    environment.insert("PYTHONIOENCODING", "utf-8");
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start("sh", { "-c", tool.command });
    EXPECT_TRUE(process.waitForFinished(60000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    return QString::fromUtf8(process.readAllStandardOutput());
}

class Interop : public testing::TestWithParam<Tool> {
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable(GetParam().program).isEmpty())
            GTEST_SKIP() << GetParam().program << " is not installed";
        makeSampleTree(source, 300 * 1024);
    }

    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    const std::string archive = pathIn(dir, GetParam().archive);
    const std::string unpacked = pathIn(dir, "unpacked");
};

using TheyRead = Interop;
using WeRead = Interop;

TEST_P(TheyRead, WhatWeWrite)
{
    exportProject(source, archive, GetParam().format);
    const QString output = run(GetParam(), archive, unpacked);
    if (std::filesystem::exists(unpacked)) {
        EXPECT_EQ(listing(unpacked, GetParam().details), listing(source, GetParam().details));
        return;
    }
    std::vector<std::string> lines;
    for (const QString& line : output.split('\n', Qt::SkipEmptyParts))
        lines.push_back(line.toStdString());
    EXPECT_EQ(lines, listing(source, Modes | Links));
}

TEST_P(WeRead, WhatTheyWrite)
{
    run(GetParam(), archive, source);
    ASSERT_EQ(detectFormat(archive), GetParam().format);
    importProject(archive, unpacked, ArchiveFormat::Auto);
    EXPECT_EQ(listing(unpacked, GetParam().details), listing(source, GetParam().details));
}

struct Archive {
    ArchiveFormat format;
    const char* name;
};

constexpr Archive tar { ArchiveFormat::Tar, "p.tar" }, tarGz { ArchiveFormat::TarGz, "p.tgz" },
    tarBz2 { ArchiveFormat::TarBz2, "p.tar.bz2" }, tarXz { ArchiveFormat::TarXz, "p.txz" },
    tarZstd { ArchiveFormat::TarZstd, "p.tar.zst" }, zip { ArchiveFormat::Zip, "p.zip" },
    native { ArchiveFormat::Native, "p.zop" }, sevenZip { ArchiveFormat::SevenZip, "p.7z" };

void add(std::vector<Tool>& tools, const char* program, const char* command, int details,
    std::initializer_list<Archive> archives)
{
    for (const Archive& archive : archives)
        tools.push_back({ program, archive.format, archive.name, command, details });
}

std::vector<Tool> readers()
{
    std::vector<Tool> tools;
    add(tools, "bsdtar", R"(mkdir "$D" && bsdtar -xpf "$A" -C "$D")", Everything,
        { tar, tarGz, tarBz2, tarXz, tarZstd, zip, sevenZip });
    add(tools, "unzip", R"(unzip -q "$A" -d "$D")", Everything, { zip, native });
    // 7-Zip ignores every link with "..", even one that stays inside, unless -snld allows it.
    add(tools, "7z", R"(7z x -snld -bd -y -o"$D" "$A" >/dev/null)", Everything, { zip, sevenZip });
    add(tools, "python3", R"(python3 -c "$PY" "$A")", 0, { zip, tar, tarGz, tarBz2, tarXz });
    return tools;
}

std::vector<Tool> writers()
{
    std::vector<Tool> tools;
    add(tools, "bsdtar", R"(bsdtar -caf "$A" -C "$D" .)", Everything,
        { tar, tarGz, tarBz2, tarXz, tarZstd, zip, sevenZip });
    add(tools, "zip", R"(cd "$D" && zip -qry "$A" .)", Everything, { zip });
    add(tools, "7z", R"(cd "$D" && 7z a -snl -bd "$A" . >/dev/null)", Everything, { sevenZip });
    // 7-Zip's zips keep times in two-second steps; the script leaves links out of zips.
    add(tools, "7z", R"(cd "$D" && 7z a -snl -bd -tzip "$A" . >/dev/null)", Modes | Links, { zip });
    add(tools, "python3", R"(python3 -c "$PY" create "$A" "$D")", Everything, { tarGz, tarXz });
    add(tools, "python3", R"(python3 -c "$PY" create "$A" "$D")", Modes, { zip });
    return tools;
}

std::string nameOf(const testing::TestParamInfo<Tool>& info)
{
    return testName(std::string(info.param.program) + "_" + info.param.archive);
}

INSTANTIATE_TEST_SUITE_P(Tools, TheyRead, testing::ValuesIn(readers()), nameOf);
INSTANTIATE_TEST_SUITE_P(Tools, WeRead, testing::ValuesIn(writers()), nameOf);

} // namespace
