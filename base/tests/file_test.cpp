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
#include <random>
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

// One resolver asked for many random paths through links (relative, absolute, leading out,
// looping, through "..") resolves each as the standard library's weakly_canonical does, and
// keeps only those inside the root.
TEST(Directory, ResolvedBeneathARootAsTheSystemResolves)
{
    const ScratchDirectory scratch;
    const std::filesystem::path top = std::filesystem::canonical(scratch.path);
    const std::filesystem::path root = top / "root";
    for (const char* directory : { "root/a/b", "root/c", "out" })
        std::filesystem::create_directories(top / directory);
    for (const char* file : { "root/f", "root/a/f", "root/a/b/f", "out/f" })
        zo::test::writeFile((top / file).string(), "x", 0644);
    const std::pair<const char*, std::string> links[] = { { "root/la", "a" }, { "root/a/up", ".." },
        { "root/a/b/lf", "../f" }, { "root/c/abs", (root / "a").string() },
        { "root/lout", "../out" }, { "root/c/loop", "loop2" }, { "root/c/loop2", "loop" } };
    for (const auto& [link, target] : links)
        std::filesystem::create_directory_symlink(target, top / link);
    // Files last: what follows one is no path the system resolves.
    const char* components[]
        = { "a", "b", "c", "la", "up", "abs", "lout", "loop", "missing", ".", "..", "f", "lf" };
    std::mt19937 random(20261124);
    zo::os::BeneathResolver resolver(root.string());
    for (int round = 0; round < 3000; ++round) {
        std::string path = random() % 4 == 0 ? root.string() : std::string();
        for (std::size_t depth = 1 + random() % 4; depth > 0; --depth)
            path += (path.empty() ? "" : "/")
                + std::string(components[random() % (std::size(components) - (depth > 1 ? 2 : 0))]);
        std::error_code failure;
        const std::filesystem::path expected
            = std::filesystem::weakly_canonical(root / path, failure).lexically_normal();
        std::string text = expected.string();
        if (text.size() > 1 && text.back() == '/') // after a last "." or ".."
            text.pop_back();
        const bool inside
            = !failure && (text == root.string() || text.rfind(root.string() + "/", 0) == 0);
        EXPECT_EQ(resolver.resolve(path), inside ? std::optional(text) : std::nullopt) << path;
    }
}

// Whatever step fails, the target holds the old content or, once renamed, the new one, and
// no hidden file is left; the new file stands in for the old one's permissions and owner.
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
