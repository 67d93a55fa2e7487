// Names and files: the bytes after a path's last slash, the hidden names beside a file, and
// the durable replacement of a file.
#include <zo/fault.h>
#include <zo/file.h>
#include <zo/os.h>
#include <zo/path.h>
#include <zo/replace.h>
#include <zo/test/support.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>

namespace {

using namespace std::string_literals;
using zo::os::parseHiddenName;
using zo::os::ReplaceStep;
using Step = zo::os::fault::Step;

TEST(Path, FilenameIsTheBytesAfterTheLastSlash)
{
    EXPECT_EQ(zo::Path("/usr/bin/app").filename(), "app");
    EXPECT_EQ(zo::Path("app").filename(), "app");
    EXPECT_EQ(zo::Path("/usr/bin/").filename(), "");
    EXPECT_EQ(zo::Path("").filename(), "");
    // NUL bytes are part of the name, as in the argument block of /proc/<pid>/cmdline.
    EXPECT_EQ(zo::Path("/bin/app\0--flag\0/x/y"s).filename(), "y");
    EXPECT_EQ(zo::Path("/bin/app\0--flag\0"s).filename(), "app\0--flag\0"s);
}

// text made of piece repeated up to bytes.
std::string repeated(const std::string& piece, std::size_t bytes)
{
    std::string text;
    while (text.size() + piece.size() <= bytes)
        text += piece;
    return text;
}

// Removed with everything in it, names that are not UTF-8 too.
struct ScratchDirectory {
    std::string path = (std::filesystem::temp_directory_path() / "zo_hidden_XXXXXX").string();
    bool made = zo::os::createTemporaryDirectory(path);
    ~ScratchDirectory() { std::filesystem::remove_all(path); }
};

// The hidden file of every name can be made beside it, however long the name, and tells its
// purpose and owner; the copied part never ends inside a UTF-8 sequence. The free name of a step
// that creates the file itself passes over a taken one.
TEST(HiddenName, IsMadeBesideAnyNameAndReadBack)
{
    const ScratchDirectory dir;
    ASSERT_TRUE(dir.made);
    const std::string names[]
        = { "report.tar.gz", repeated("a", NAME_MAX), repeated("\xc3\xa9", NAME_MAX),
              repeated("\xe2\x82\xac", NAME_MAX - 1), repeated("\xf0\x9f\x93\x81", NAME_MAX),
              "a.zo-copy-12.x", "line\nbreak", "\xff\xfe.bin", ".hidden", "" };
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const std::string beside = dir.path + "/" + name;
        std::string made = zo::os::hiddenTemplateBeside(beside, "save");
        ASSERT_TRUE(zo::os::createTemporaryFile(made)) << std::strerror(errno);
        const std::string madeName = made.substr(made.rfind('/') + 1);
        EXPECT_LE(madeName.size(), std::size_t(NAME_MAX));
        const std::size_t copied = madeName.rfind(".zo-save-") - 1;
        EXPECT_EQ(madeName.substr(1, copied), name.substr(0, copied));
        EXPECT_TRUE(copied == name.size() || (name[copied] & 0xC0) != 0x80);
        const auto read = parseHiddenName(madeName);
        EXPECT_TRUE(read && read->purpose == "save" && read->pid == zo::os::getpid());
        const std::string taken = zo::os::unusedHiddenPathBeside(beside, "save");
        ASSERT_TRUE(zo::os::createFileAt(AT_FDCWD, taken.c_str(), 0600));
        EXPECT_NE(zo::os::unusedHiddenPathBeside(beside, "save"), taken);
    }
    std::string own = zo::os::hiddenTemplateIn(dir.path, "owner");
    ASSERT_TRUE(zo::os::createTemporaryFile(own));
    const auto read = parseHiddenName(own.substr(own.rfind('/') + 1));
    EXPECT_TRUE(read && read->purpose == "owner");
}

// Only the names made above are read: a user's file that looks almost like one is never taken
// for a leftover.
TEST(HiddenName, ParserReadsOnlyItsOwnPattern)
{
    const std::tuple<const char*, const char*, int> ours[] = {
        { ".a.zo-copy-42.XyZ123", "copy", 42 },
        { "..a.zo-save-1.0.zo-pack-7.abc", "pack", 7 }, // a save's own export: the last maker
        { ".a.zo-save-12.x.zo-meta-3.4", "meta", 3 },
        { ".zo-owner-12.x", "owner", 12 }, // a directory's own: an owner mark
    };
    for (const auto& [name, purpose, pid] : ours) {
        const auto read = parseHiddenName(name);
        EXPECT_TRUE(read && read->purpose == purpose && read->pid == pid) << name;
    }
    // Swap files (of "a.txt", "zo-x", "zo-owner-5"), and near misses.
    for (const char* name :
        { ".a.txt.4242.csp", ".zo-x.12.csp", ".zo-owner-5.77.csp", "a.zo-save-12.x",
            ".a.zo-save-12", ".a.zo-save-12.", ".a.zo-Save-12.x", ".a.zo--12.x", ".a.zo-save-0.x",
            ".a.zo-save--5.x", ".a.zo-save-12x.x", ".a.zo-save-99999999999.x", ".a.zo-save.x", "" })
        EXPECT_FALSE(parseHiddenName(name)) << name;
}

// Whatever step fails, the target holds the old content or, once renamed, the new one, and
// no hidden file is left; the new file stands in for the old one's permissions and owner.
// A directory replaced by a link after it was resolved is refused, not followed.
TEST(Directory, OpenedBeneathARootNeverThroughALink)
{
    const ScratchDirectory root, outside;
    const std::string sub = root.path + "/sub";
    ASSERT_TRUE(zo::os::makeDirectoryAt(AT_FDCWD, sub.c_str(), 0755));
    EXPECT_TRUE(zo::os::openDirectoryBeneath(root.path, sub));
    ASSERT_TRUE(::rmdir(sub.c_str()) == 0 && ::symlink(outside.path.c_str(), sub.c_str()) == 0);
    EXPECT_FALSE(zo::os::openDirectoryBeneath(root.path, sub));
}

TEST(DurableReplace, FailsWholeAtEveryStepAndKeepsPermissionsAndOwner)
{
    const QTemporaryDir dir;
    const std::string target = dir.filePath("target").toStdString();
    for (const auto& [step, reported, left] :
        { std::tuple { Step::SyncFile, ReplaceStep::SyncFile, "old" },
            { Step::Rename, ReplaceStep::Rename, "old" },
            { Step::SyncDirectory, ReplaceStep::SyncDirectory, "new" } }) {
        zo::test::writeFile(target, "old", 0640);
        ASSERT_EQ(::chown(target.c_str(), zo::test::kNobody, zo::test::kNobody), 0);
        zo::os::fault::inject(step, 1, EIO);
        ReplaceStep failed {};
        EXPECT_FALSE(zo::os::replaceFile(target, "test", "new", failed));
        zo::os::fault::clear();
        EXPECT_EQ(failed, reported);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(zo::test::readFile(target), left);
        EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList { "target" });
    }
    ReplaceStep failed {};
    ASSERT_TRUE(zo::os::replaceFile(target, "test", "new", failed));
    struct stat status { };
    ASSERT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, zo::test::kNobody);
}

} // namespace
