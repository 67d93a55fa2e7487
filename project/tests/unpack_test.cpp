// Unpacking: where entries land, what an interrupted unpack leaves, hard links.

#include "sample_tree.h"

#include <gtest/gtest.h>

#include <zo/file.h>

#include <QDir>

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;
namespace fs = std::filesystem;

ino_t inodeOf(const std::string& path)
{
    struct stat status { };
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

size_t filesBelow(const std::string& root)
{
    size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        count += entry.is_regular_file() ? 1 : 0;
    return count;
}

// A directory whose name extends a sibling's ("ab" after "a/b", "pip-1.0" after "pip/...").
TEST(Unpack, NamesSharingAPrefixLandInTheirOwnDirectories)
{
    const QTemporaryDir dir;
    const std::vector<Item> items = { { "a/b/x", AE_IFREG, "1" }, { "ab/x", AE_IFREG, "2" },
        { "pip/_vendor/v.py", AE_IFREG, "3" }, { "pip-1.0.dist-info/LICENSE", AE_IFREG, "4" },
        { "src/y.c", AE_IFREG, "5" }, { "src.d/.z", AE_IFREG, "6" }, { "s/t", AE_IFREG, "7" } };
    writeArchive(pathIn(dir, "a.tar"), items);
    importProject(pathIn(dir, "a.tar"), pathIn(dir, "out"), ArchiveFormat::Auto);
    for (const Item& item : items)
        EXPECT_EQ(readFile(pathIn(dir, "out/") + item.name), item.content.c_str()) << item.name;
    EXPECT_EQ(filesBelow(pathIn(dir, "out")), items.size());
}

} // namespace

class IntoExisting : public testing::Test {
protected:
    void SetUp() override
    {
        // The cut falls into the big file, after a.txt and sub/new.txt were unpacked.
        writeArchive(archive,
            { { "a.txt", AE_IFREG, "archive's" }, { "sub/new.txt" },
                { "big", AE_IFREG, std::string(64 * 1024, 'x') } });
        writeFile(destination + "/a.txt", "user's");
        writeFile(destination + "/keep/x", "kept");
    }
    std::vector<std::string> everything() const
    {
        return listing(dir.path().toStdString(), Everything);
    }

    const QTemporaryDir dir;
    const std::string archive = pathIn(dir, "a.tar");
    const std::string destination = pathIn(dir, "destination");
};

TEST_F(IntoExisting, AFailureOrACancelLeavesEveryFileAsItWasAndNothingNew)
{
    const auto before = everything();
    EXPECT_FALSE(importProject(archive, destination, ArchiveFormat::Auto,
        [](const Progress& progress) { return progress.entriesDone < 2; }));
    EXPECT_EQ(everything(), before);
    const std::string cut = pathIn(dir, "cut.tar");
    fs::copy_file(archive, cut);
    fs::resize_file(cut, fs::file_size(cut) / 2);
    const auto withCut = everything();
    EXPECT_NE(
        thrownBy([&] { importProject(cut, destination, ArchiveFormat::Auto); }), "nothing thrown");
    EXPECT_EQ(everything(), withCut);
}

TEST_F(IntoExisting, AFinishedUnpackReplacesWhatTheArchiveHoldsAndKeepsTheSameFilesBesides)
{
    const ino_t kept = inodeOf(destination + "/keep/x");
    importProject(archive, destination, ArchiveFormat::Auto);
    EXPECT_EQ(readFile(destination + "/a.txt"), "archive's");
    EXPECT_EQ(inodeOf(destination + "/keep/x"), kept) << "the same file, not a copy";
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        (QStringList { "a.tar", "destination" }));
}

// Killed while unpacking into a new or an existing directory: nothing under the destination's
// name has changed, and beside it lies one hidden directory that names its owner.
TEST_F(IntoExisting, AKillLeavesTheDestinationAsItWasAndOneHiddenDirectoryOfItsOwner)
{
    for (const std::string& target : { destination, pathIn(dir, "new/destination") }) {
        SCOPED_TRACE(target);
        const auto before = everything();
        const pid_t child = ::fork();
        if (child == 0) {
            importProject(archive, target, ArchiveFormat::Auto, [](const Progress& progress) {
                if (progress.entriesDone == 2)
                    ::raise(SIGKILL);
                return true;
            });
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status));
        std::vector<zo::os::HiddenName> hidden;
        for (const auto& entry : fs::directory_iterator(dir.path().toStdString()))
            if (const auto name = zo::os::parseHiddenName(entry.path().filename().string())) {
                hidden.push_back(*name);
                fs::remove_all(entry.path());
            }
        ASSERT_EQ(hidden.size(), 1u);
        EXPECT_EQ(hidden[0].purpose, "unpack");
        EXPECT_EQ(hidden[0].pid, child);
        EXPECT_EQ(everything(), before);
    }
}
