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

    // Misleading names: the content decides.
    zo::project::exportProject(source, archive, GetParam().format);
    EXPECT_EQ(zo::project::detectFormat(archive), GetParam().format);
    zo::project::importProject(archive, target, ArchiveFormat::Auto);
    EXPECT_EQ(listing(target, Everything), listing(source, Everything));
}

INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip,
    testing::Values(Case { ArchiveFormat::Native, "native.zop" },
        Case { ArchiveFormat::Zip, "zip.tar" }, Case { ArchiveFormat::Tar, "tar.7z" },
        Case { ArchiveFormat::TarGz, "tar_gz.zip" }, Case { ArchiveFormat::TarBz2, "tar_bz2.tgz" },
        Case { ArchiveFormat::TarXz, "tar_xz.tar.zst" },
        Case { ArchiveFormat::TarZstd, "tar_zst.tar.xz" },
        Case { ArchiveFormat::SevenZip, "7z.tar.bz2" }, Case { ArchiveFormat::Directory, "copy" }),
    [](const testing::TestParamInfo<Case>& info) { return testName(info.param.name); });

} // namespace
