#include "sample_tree.h"

#include <zo/project/archive.h>

#include <gtest/gtest.h>

#include <QDir>

#include <filesystem>
#include <sys/stat.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;

TEST(DetectFormat, PathsThatDoNotExistByExtension)
{
    QTemporaryDir dir;
    const std::pair<const char*, ArchiveFormat> names[] = {
        { "a.zop", ArchiveFormat::Native },
        { "a.ZIP", ArchiveFormat::Zip },
        { "a.tar", ArchiveFormat::Tar },
        { "a.tar.gz", ArchiveFormat::TarGz },
        { "a.tgz", ArchiveFormat::TarGz },
        { "a.tar.bz2", ArchiveFormat::TarBz2 },
        { "a.tbz2", ArchiveFormat::TarBz2 },
        { "a.tar.xz", ArchiveFormat::TarXz },
        { "a.TXZ", ArchiveFormat::TarXz },
        { "a.tar.zst", ArchiveFormat::TarZstd },
        { "a.tzst", ArchiveFormat::TarZstd },
        { "a.7z", ArchiveFormat::SevenZip },
    };
    for (const auto& [name, format] : names)
        EXPECT_EQ(detectFormat(pathIn(dir, name)), format) << name;
    for (const char* name : { "a.rar", "a.gz", "plain", "a.zip.part" })
        EXPECT_THROW(detectFormat(pathIn(dir, name)), UnsupportedFormat) << name;
    EXPECT_EQ(detectFormat(dir.path().toStdString()), ArchiveFormat::Directory);
}

TEST(DetectFormat, ExistingFilesByContent)
{
    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    makeSampleTree(source);
    const ArchiveFormat formats[]
        = { ArchiveFormat::Zip, ArchiveFormat::Tar, ArchiveFormat::TarGz, ArchiveFormat::TarBz2,
              ArchiveFormat::TarXz, ArchiveFormat::TarZstd, ArchiveFormat::SevenZip };
    for (const ArchiveFormat format : formats) {
        // Misleading names: content decides.
        const std::string archive = pathIn(dir, "archive.tar.gz");
        exportProject(source, archive, format);
        EXPECT_EQ(detectFormat(archive), format) << static_cast<int>(format);
    }
    exportProject(source, pathIn(dir, "native.ZOP"), ArchiveFormat::Zip);
    EXPECT_EQ(detectFormat(pathIn(dir, "native.ZOP")), ArchiveFormat::Native);
    exportProject(source, pathIn(dir, "tar.zop"), ArchiveFormat::Tar);
    EXPECT_EQ(detectFormat(pathIn(dir, "tar.zop")), ArchiveFormat::Tar);

    writeFile(pathIn(dir, "garbage.zip"), "not an archive at all");
    writeFile(pathIn(dir, "empty.zip"), "");
    for (const char* name : { "garbage.zip", "empty.zip" })
        EXPECT_THROW(detectFormat(pathIn(dir, name)), UnsupportedFormat) << name;
    // A wrong explicit format or unreadable content is a broken archive.
    EXPECT_THROW(importProject(pathIn(dir, "native.ZOP"), pathIn(dir, "a"), ArchiveFormat::TarGz),
        ArchiveError);
    EXPECT_THROW(importProject(pathIn(dir, "garbage.zip"), pathIn(dir, "b"), ArchiveFormat::Auto),
        ArchiveError);
}

TEST(Formats, ExportAutoFollowsTheDestinationName)
{
    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    makeSampleTree(source);
    exportProject(source, pathIn(dir, "out.tbz2"), ArchiveFormat::Auto);
    EXPECT_EQ(detectFormat(pathIn(dir, "out.tbz2")), ArchiveFormat::TarBz2);
    ASSERT_TRUE(QDir(dir.path()).mkdir("existing"));
    exportProject(source, pathIn(dir, "existing"), ArchiveFormat::Auto);
    EXPECT_EQ(listing(pathIn(dir, "existing"), Everything), listing(source, Everything));
    EXPECT_THROW(
        exportProject(source, pathIn(dir, "out.unknown"), ArchiveFormat::Auto), UnsupportedFormat);
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("out.unknown")));
}

TEST(Formats, ValuesOutsideTheEnumerationAreUnsupported)
{
    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    makeSampleTree(source);
    exportProject(source, pathIn(dir, "p.zip"), ArchiveFormat::Zip);
    for (const int value : { -1, 10, 42 }) {
        const auto format = static_cast<ArchiveFormat>(value);
        EXPECT_THROW(
            importProject(pathIn(dir, "p.zip"), pathIn(dir, "in"), format), UnsupportedFormat);
        EXPECT_THROW(exportProject(source, pathIn(dir, "out.zip"), format), UnsupportedFormat);
    }
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden),
        (QStringList { "p.zip", "source" }));
}

class Export : public testing::Test {
protected:
    void SetUp() override { makeSampleTree(source); }

    QStringList entries() const
    {
        return QDir(dir.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden);
    }

    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
};

TEST_F(Export, FailureLeavesTheDestinationAsItWas)
{
    const std::string fifo = source + "/pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    const std::string archive = pathIn(dir, "out.zip");
    writeFile(archive, "previous archive");
    try {
        exportProject(source, archive, ArchiveFormat::Zip);
        ADD_FAILURE() << "exported a FIFO";
    } catch (const ArchiveError& error) {
        EXPECT_NE(std::string(error.what()).find(archive + "', entry 'pipe'"), std::string::npos)
            << error.what();
    }
    EXPECT_EQ(readFile(archive), "previous archive");

    const std::string copy = pathIn(dir, "copy");
    writeFile(copy + "/kept", "kept");
    ::unlink(fifo.c_str());
    EXPECT_THROW(exportProject(source, copy, ArchiveFormat::Directory), ArchiveError);
    EXPECT_EQ(QDir(dir.filePath("copy")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
        QStringList { "kept" });
    EXPECT_EQ(entries(), (QStringList { "copy", "out.zip", "source" }));
}

TEST_F(Export, IntoItsOwnSourceLeavesItselfOut)
{
    const auto expected = listing(source, Modes | Links);
    exportProject(source, source + "/copy", ArchiveFormat::Directory);
    std::filesystem::rename(source + "/copy", pathIn(dir, "copy"));
    exportProject(source, source + "/backup.zip", ArchiveFormat::Zip);
    std::filesystem::rename(source + "/backup.zip", pathIn(dir, "backup.zip"));
    importProject(pathIn(dir, "backup.zip"), pathIn(dir, "imported"), ArchiveFormat::Auto);
    // Times are left out: the source directory's own changed with the new entries.
    EXPECT_EQ(listing(pathIn(dir, "copy"), Modes | Links), expected);
    EXPECT_EQ(listing(pathIn(dir, "imported"), Modes | Links), expected);
}

} // namespace
