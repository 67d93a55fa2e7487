#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <QStandardPaths>

#include <algorithm>
#include <cctype>

namespace {

using namespace zo::project;
using namespace zo::project::test;

struct Tool {
    const char* program; // the case is skipped when it is not installed
    ArchiveFormat format;
    const char* archive;
    const char* command; // sh: $1 the archive, $2 the directory
    int details; // what the tool keeps
};

// Runs the tool's command, failing the test on a non-zero exit.
void run(const Tool& tool, const std::string& archive, const std::string& directory)
{
    QProcess process;
    process.start("sh",
        { "-c", QString("export LC_ALL=C.UTF-8; ") + tool.command, "sh",
            QString::fromStdString(archive), QString::fromStdString(directory) });
    EXPECT_TRUE(process.waitForFinished(60000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
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
    run(GetParam(), archive, unpacked);
    EXPECT_EQ(describe(unpacked, GetParam().details), describe(source, GetParam().details));
}

TEST_P(WeRead, WhatTheyWrite)
{
    run(GetParam(), archive, source);
    ASSERT_EQ(detectFormat(archive), GetParam().format);
    importProject(archive, unpacked, ArchiveFormat::Auto);
    EXPECT_EQ(describe(unpacked, GetParam().details), describe(source, GetParam().details));
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
    add(tools, "bsdtar", R"(mkdir "$2" && bsdtar -xpf "$1" -C "$2")", Everything,
        { tar, tarGz, tarBz2, tarXz, tarZstd, zip, sevenZip });
    add(tools, "unzip", R"(unzip -q "$1" -d "$2")", Everything, { zip, native });
    // 7-Zip ignores every link with "..", even one that stays inside, unless -snld allows it.
    add(tools, "7z", R"(7z x -snld -bd -y -o"$2" "$1" >/dev/null)", Everything, { zip, sevenZip });
    return tools;
}

std::vector<Tool> writers()
{
    std::vector<Tool> tools;
    add(tools, "bsdtar", R"(bsdtar -caf "$1" -C "$2" .)", Everything,
        { tar, tarGz, tarBz2, tarXz, tarZstd, zip, sevenZip });
    add(tools, "zip", R"(cd "$2" && zip -qry "$1" .)", Everything, { zip });
    add(tools, "7z", R"(cd "$2" && 7z a -snl -bd "$1" . >/dev/null)", Everything, { sevenZip });
    // 7-Zip's zips keep times in two-second steps; the script leaves links out of zips.
    add(tools, "7z", R"(cd "$2" && 7z a -snl -bd -tzip "$1" . >/dev/null)", Modes, { zip });
    return tools;
}

// A test name made of the program's and the archive's letters and digits, others replaced.
std::string nameOf(const testing::TestParamInfo<Tool>& info)
{
    std::string name = std::string(info.param.program) + "_" + info.param.archive;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !std::isalnum(c); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Tools, TheyRead, testing::ValuesIn(readers()), nameOf);
INSTANTIATE_TEST_SUITE_P(Tools, WeRead, testing::ValuesIn(writers()), nameOf);

} // namespace
