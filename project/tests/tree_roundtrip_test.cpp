// Generated trees packed and unpacked through every format: each comes back exactly, or the
// pack refuses, naming a file whose name the format cannot hold, and writes no archive.

#include "sample_tree.h"
#include "tree_generator.h"

#include <gtest/gtest.h>

#include <QDir>

#include <filesystem>

namespace {

using namespace zo::project;
using namespace zo::project::test;

struct Format {
    ArchiveFormat format;
    const char* name;
    bool anyName; // not only those of portable trees
    bool hardLinks;
};

constexpr Format kFormats[] = { { ArchiveFormat::Tar, "tar", true, true },
    { ArchiveFormat::TarGz, "tar.gz", true, true },
    { ArchiveFormat::TarBz2, "tar.bz2", true, true },
    { ArchiveFormat::TarXz, "tar.xz", true, true },
    { ArchiveFormat::TarZstd, "tar.zst", true, true }, { ArchiveFormat::Zip, "zip", false, false },
    { ArchiveFormat::Native, "zop", false, false }, { ArchiveFormat::SevenZip, "7z", false, false },
    { ArchiveFormat::Directory, "dir", true, true } };

// fsync costs nothing on a tmpfs, where a few hundred trees take seconds rather than minutes.
QString scratchParent()
{
    const QFileInfo shared(QStringLiteral("/dev/shm"));
    return shared.isDir() && shared.isWritable() ? shared.filePath() : QDir::tempPath();
}

TEST(TreeRoundTrip, EveryNameComesBackExactlyOrThePackRefusesIt)
{
    const QTemporaryDir dir(scratchParent() + "/tree_roundtrip-XXXXXX");
    for (uint32_t seed = 1; seed <= 250; ++seed) {
        const std::string source = pathIn(dir, "source");
        Choices choices(seed);
        const bool portable = makeTree(source, choices);
        for (const Format& format : kFormats) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", " + format.name);
            const std::string archive = pathIn(dir, "packed.") + format.name;
            const std::string unpacked = pathIn(dir, "unpacked.") + format.name;
            const std::string error
                = thrownBy([&] { exportProject(source, archive, format.format); });
            if (error != "nothing thrown") {
                EXPECT_TRUE(!format.anyName && !portable) << error;
                EXPECT_NE(error.find("archive cannot hold"), std::string::npos) << error;
                EXPECT_FALSE(std::filesystem::exists(archive));
                continue;
            }
            importProject(archive, unpacked, format.format);
            const auto expected = describe(source, format.hardLinks);
            ASSERT_EQ(describe(unpacked, format.hardLinks), expected);
            // Again over the tree it made: the same files come back in their places.
            if (format.format == ArchiveFormat::Tar) {
                importProject(archive, unpacked, format.format);
                ASSERT_EQ(describe(unpacked, true), expected);
            }
        }
        EXPECT_EQ(QDir(dir.path()).entryList(QDir::Hidden | QDir::System).size(), 0) << seed;
        removeContents(dir.path().toStdString());
    }
}

} // namespace
