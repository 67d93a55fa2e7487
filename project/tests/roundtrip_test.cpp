#include "sample_tree.h"

#include <zo/project/archive.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <algorithm>
#include <cctype>
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
        std::string name = info.param.name;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return !std::isalnum(c); }, '_');
        return name;
    });

TEST(RoundTripInCLocale, KeepsNonAsciiNames)
{
    // libarchive converts names through the locale; the library must not depend on it.
    const std::string previous = setlocale(LC_ALL, nullptr);
    setlocale(LC_ALL, "C");
    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    makeSampleTree(source);
    for (const char* name : { "p.zip", "p.tar", "p.7z" }) {
        zo::project::exportProject(source, pathIn(dir, name), ArchiveFormat::Auto);
        zo::project::importProject(
            pathIn(dir, name), pathIn(dir, "in") + name, ArchiveFormat::Auto);
        EXPECT_EQ(listing(pathIn(dir, "in") + name, Everything), listing(source, Everything));
    }
    setlocale(LC_ALL, previous.c_str());
}

} // namespace
