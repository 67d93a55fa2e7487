// What an unpack into the user's directory leaves, and listing a project and reading its
// metadata without unpacking it. Where entries land is the round trip's to check.

#include "sample_tree.h"

#include <zo/project/contents.h>
#include <zo/project/project.h>

#include <gtest/gtest.h>

#include <QDir>

#include <filesystem>
#include <sys/stat.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;
namespace fs = std::filesystem;

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
    const auto before = describe(dir.path().toStdString(), Everything);
    EXPECT_FALSE(importProject(archive, destination, ArchiveFormat::Auto,
        [](const Progress& progress) { return progress.entriesDone < 2; }));
    EXPECT_NE(
        thrownBy([&] { importProject(cut, destination, ArchiveFormat::Auto); }), "nothing thrown");
    EXPECT_EQ(describe(dir.path().toStdString(), Everything), before);

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

// One line per entry: kind, path, size and link target.
std::vector<std::string> listed(const std::string& source)
{
    std::vector<std::string> lines;
    listProject(source, ArchiveFormat::Auto, [&lines](const ProjectEntry& entry) {
        lines.push_back(std::to_string(static_cast<int>(entry.kind)) + " " + entry.path + " "
            + std::to_string(entry.size) + " " + entry.linkTarget);
        return true;
    });
    return lines;
}

TEST(Contents, AreListedAsAnUnpackingWritesThemAndTheMetadataIsRead)
{
    const QTemporaryDir dir;
    const std::string archive = pathIn(dir, "a.tar");
    writeArchive(archive,
        { { "./d/f", AE_IFREG, "abc" }, { "g", AE_IFREG, "d/f", true }, { "l", AE_IFLNK, "d/f" },
            { "d", AE_IFDIR } });
    EXPECT_EQ(listed(archive),
        (std::vector<std::string> { "0 d/f 3 ", "0 g 3 d/f", "2 l 0 d/f", "1 d 0 " }));
    writeArchive(archive, { { "g", AE_IFREG, "d/f", true } });
    EXPECT_NE(thrownBy([&] { listed(archive); }).find("entry 'g': hard link"), std::string::npos);

    makeProject(pathIn(dir, "project")).setMetadata("title", "T\n=%");
    exportProject(pathIn(dir, "project"), pathIn(dir, "p.zop"), ArchiveFormat::Auto);
    for (const char* source : { "project", "p.zop" })
        EXPECT_EQ(readProjectMetadata(pathIn(dir, source), ArchiveFormat::Auto),
            (std::map<std::string, std::string> { { "title", "T\n=%" } }));
}

} // namespace
