// A project's contents: its metadata file, what an unpack into the user's directory leaves, and
// its listing and metadata read without unpacking it. Where entries land is the round trip's to
// check.

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
using namespace std::string_literals;

using Metadata = Scratch;

ino_t inodeOf(const std::string& file)
{
    struct stat status { };
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    return status.st_ino;
}

// A project is made with its parents; any bytes round-trip, each set replaces the file whole and
// every copy of the project reads it.
TEST_F(Metadata, AnyBytesRoundTripAtomicallyAndEveryCopyReadsTheFile)
{
    const std::map<std::string, std::string> expected = {
        { "", "empty key" },
        { "empty value", "" },
        { "multi\nline\r\n", "a\nb\n\n" },
        { "quotes \"'`", "back\\slash" },
        { "a=b", "c=d%41%" },
        { "nul\0key"s, "nul\0value"s },
        { "ünïcødé 日本", "✓ \xff\xfe not UTF-8" },
    };
    Project writer = makeProject(path("new/parents/p"));
    const Project reader = writer;
    for (const auto& [key, value] : expected) {
        // Every set replaces the file rather than rewriting it in place.
        const ino_t before = inodeOf(path("new/parents/p/.metadata"));
        writer.setMetadata(key, value);
        EXPECT_NE(inodeOf(path("new/parents/p/.metadata")), before) << key;
    }
    EXPECT_EQ(QDir(dir.filePath("new/parents/p"))
                  .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList { ".metadata" });

    EXPECT_EQ(reader.getMetadata(), expected);
    writer.setMetadata("a=b", "changed");
    EXPECT_EQ(reader.getMetadata("a=b"), "changed");

    // A project is kept, a file is no project, a missing one only reads.
    EXPECT_EQ(makeProject(path("new/parents/p")).getMetadata("a=b"), "changed");
    writeFile(path("file"), "x");
    EXPECT_THROW(makeProject(path("file")), ArchiveError);
    Project missing(path("missing"));
    EXPECT_TRUE(missing.getMetadata().empty());
    EXPECT_PRED_FORMAT2(testing::IsSubstring, path("missing/.metadata"),
        thrownBy([&] { missing.setMetadata("key", "value"); }));
}

TEST_F(Metadata, CorruptFileIsAnErrorNamingItAndIsNotOverwritten)
{
    const std::string header = "zo-project-metadata 1\n";
    const std::string corrupt[] = {
        "garbage",
        header + "key=value",
        header + "no equals sign\n",
        header + "bad=%G1\n",
        header + "raw=equals=sign\n",
        header + "twice=1\ntwice=2\n",
    };
    const std::string file = path(".metadata");
    Project project(dir.path().toStdString());
    for (const std::string& content : corrupt) {
        writeFile(file, QByteArray::fromStdString(content));
        EXPECT_PRED_FORMAT2(testing::IsSubstring, file, thrownBy([&] { project.getMetadata(); }));
        EXPECT_THROW(project.setMetadata("key", "value"), ArchiveError);
        EXPECT_EQ(readFile(file).toStdString(), content);
    }
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
    const auto before = describe(dir.path().toStdString(), Everything);
    EXPECT_FALSE(importProject(archive, destination, ArchiveFormat::Auto,
        [](const Progress& progress) { return progress.entriesDone < 2; }));
    EXPECT_NE(
        thrownBy([&] { importProject(cut, destination, ArchiveFormat::Auto); }), "nothing thrown");
    EXPECT_EQ(describe(dir.path().toStdString(), Everything), before);

    const ino_t kept = inodeOf(destination + "/keep/x");
    importProject(archive, destination, ArchiveFormat::Auto);
    EXPECT_EQ(inodeOf(destination + "/keep/x"), kept);
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
