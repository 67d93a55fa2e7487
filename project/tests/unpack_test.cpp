// Unpacking: where entries land, and what an unpack into the user's directory leaves.

#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QDir>

#include <filesystem>
#include <sys/stat.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;
namespace fs = std::filesystem;

// A directory whose name extends a sibling's ("ab" after "a/b", "pip-1.0" after "pip/...").
TEST(Unpack, NamesSharingAPrefixLandInTheirOwnDirectories)
{
    const QTemporaryDir dir;
    const std::vector<Item> items = { { "a/b/x", AE_IFREG, "1" }, { "ab/x", AE_IFREG, "2" },
        { "pip/_vendor/v.py", AE_IFREG, "3" }, { "pip-1.0.dist-info/LICENSE", AE_IFREG, "4" },
        { "src/y.c", AE_IFREG, "5" }, { "src.d/.z", AE_IFREG, "6" }, { "s/t", AE_IFREG, "7" } };
    writeArchive(pathIn(dir, "a.tar"), items);
    importProject(pathIn(dir, "a.tar"), pathIn(dir, "out"), ArchiveFormat::Auto);
    size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(pathIn(dir, "out")))
        files += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, items.size());
    for (const Item& item : items)
        EXPECT_EQ(readFile(pathIn(dir, "out/") + item.name), item.content.c_str()) << item.name;
}

// A cancel or a failure changes nothing; a finished unpack replaces what the archive holds and
// keeps the user's other files, the same files, not copies.
TEST(Unpack, IntoAUsersDirectoryIsAllOrNothing)
{
    const QTemporaryDir dir;
    const std::string archive = pathIn(dir, "a.tar"), cut = pathIn(dir, "cut.tar");
    const std::string destination = pathIn(dir, "destination");
    writeArchive(archive,
        { { "a.txt", AE_IFREG, "archive's" }, { "sub/new.txt" },
            { "big", AE_IFREG, std::string(64 * 1024, 'x') } });
    fs::copy_file(archive, cut);
    fs::resize_file(cut, fs::file_size(cut) / 2); // into big, after the others
    writeFile(destination + "/a.txt", "user's");
    writeFile(destination + "/keep/x", "kept");
    const auto before = listing(dir.path().toStdString(), Everything);
    EXPECT_FALSE(importProject(archive, destination, ArchiveFormat::Auto,
        [](const Progress& progress) { return progress.entriesDone < 2; }));
    EXPECT_NE(
        thrownBy([&] { importProject(cut, destination, ArchiveFormat::Auto); }), "nothing thrown");
    EXPECT_EQ(listing(dir.path().toStdString(), Everything), before);

    struct stat kept {
    }, after {};
    ASSERT_EQ(::stat((destination + "/keep/x").c_str(), &kept), 0);
    importProject(archive, destination, ArchiveFormat::Auto);
    ASSERT_EQ(::stat((destination + "/keep/x").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, kept.st_ino);
    EXPECT_EQ(readFile(destination + "/a.txt"), "archive's");
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        (QStringList { "a.tar", "cut.tar", "destination" }));
}

} // namespace
