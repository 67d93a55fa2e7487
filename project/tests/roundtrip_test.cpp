#include "sample_tree.h"

#include <gtest/gtest.h>

#include <clocale>

namespace {

using zo::project::ArchiveFormat;
using namespace zo::project::test;

struct Case {
    ArchiveFormat format;
    const char* name;
};

void PrintTo(const Case& tested, std::ostream* out)
{
    *out << tested.name;
}

class RoundTrip : public testing::TestWithParam<Case> {
protected:
    // libarchive converts names through the locale; the library must not depend on it.
    void SetUp() override { setlocale(LC_ALL, "C"); }
    void TearDown() override { setlocale(LC_ALL, previous.c_str()); }

    const std::string previous = setlocale(LC_ALL, nullptr);
};

TEST_P(RoundTrip, KeepsNamesContentModesLinksAndTimesInTheCLocale)
{
    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    const std::string archive = pathIn(dir, GetParam().name);
    const std::string target = pathIn(dir, "new/parents/target");
    makeSampleTree(source, 8 * 1024 * 1024 + 123);

    zo::project::exportProject(source, archive, GetParam().format);
    EXPECT_EQ(zo::project::detectFormat(archive), GetParam().format);
    zo::project::importProject(archive, target, ArchiveFormat::Auto);
    EXPECT_EQ(listing(target, Everything), listing(source, Everything));
}

INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip,
    testing::Values(Case { ArchiveFormat::Native, "project.zop" },
        Case { ArchiveFormat::Zip, "project.zip" }, Case { ArchiveFormat::Tar, "project.tar" },
        Case { ArchiveFormat::TarGz, "project.tar.gz" },
        Case { ArchiveFormat::TarBz2, "project.tar.bz2" },
        Case { ArchiveFormat::TarXz, "project.tar.xz" },
        Case { ArchiveFormat::TarZstd, "project.tar.zst" },
        Case { ArchiveFormat::SevenZip, "project.7z" }, Case { ArchiveFormat::Directory, "copy" }),
    [](const testing::TestParamInfo<Case>& info) { return testName(info.param.name); });

} // namespace
