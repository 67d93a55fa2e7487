#include "sample_tree.h"

#include <zo/project/archive.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace {

using zo::project::ArchiveFormat;
using namespace zo::project::test;

struct Case {
    ArchiveFormat format;
    const char* name;
};

class RoundTrip : public testing::TestWithParam<Case> { };

TEST_P(RoundTrip, KeepsNamesContentModesLinksAndTimes)
{
    QTemporaryDir dir;
    const std::string source = dir.filePath("source").toStdString();
    const std::string archive = dir.filePath(GetParam().name).toStdString();
    const std::string target = dir.filePath("new/parents/target").toStdString();
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
    [](const testing::TestParamInfo<Case>& info) {
        return "Format" + std::to_string(static_cast<int>(info.param.format));
    });

} // namespace
