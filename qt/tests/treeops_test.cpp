#include <zo/file.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectvfs.h>
#include <zo/test/support.h>

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utility>

namespace {

// Every removal and link of this process passes here, so that a test can change a tree just
// before the nth of them: the operation meets the change as it would meet a race, however it
// is written.
int callsBeforeRace = 0;
std::function<void()> race;

void beforeCall()
{
    if (race && --callsBeforeRace == 0)
        std::exchange(race, nullptr)();
}

} // namespace

// Visible to the libraries, whose calls bind to the process's first definition.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED int unlink(const char* path) noexcept
{
    beforeCall();
    return static_cast<int>(::syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

INTERPOSED int unlinkat(int directory, const char* path, int flags) noexcept
{
    beforeCall();
    return static_cast<int>(::syscall(SYS_unlinkat, directory, path, flags));
}

INTERPOSED int linkat(
    int from, const char* fromPath, int to, const char* toPath, int flags) noexcept
{
    beforeCall();
    return static_cast<int>(::syscall(SYS_linkat, from, fromPath, to, toPath, flags));
}

namespace zo::project {
namespace {

using test::thrownBy;
using testing::HasSubstr;
using Snapshot = std::map<std::string, std::string>;

// Each entry below name of the open directory by path: mode, then content or link target;
// fifos, sockets and devices only when asked for. Read by descriptors, so that depth is no limit.
void snapshotInto(
    int at, const std::string& name, const std::string& prefix, bool specials, Snapshot& seen)
{
    const int directory = ::openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    DIR* stream = directory < 0 ? nullptr : ::fdopendir(directory);
    for (const dirent* entry; stream && (entry = ::readdir(stream));) {
        const std::string child = entry->d_name;
        struct stat status { };
        if (child == "." || child == ".."
            || ::fstatat(directory, child.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0
            || !(specials || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)
                || S_ISLNK(status.st_mode)))
            continue;
        std::string& seenAs = seen[prefix + child] = std::to_string(status.st_mode) + " ";
        char buffer[4096];
        const ssize_t target = ::readlinkat(directory, child.c_str(), buffer, sizeof buffer);
        seenAs.append(buffer, static_cast<size_t>(std::max<ssize_t>(target, 0)));
        const int fd = S_ISREG(status.st_mode) ? ::openat(directory, child.c_str(), O_RDONLY) : -1;
        for (ssize_t count; fd >= 0 && (count = ::read(fd, buffer, sizeof buffer)) > 0;)
            seenAs.append(buffer, static_cast<size_t>(count));
        ::close(fd);
        if (S_ISDIR(status.st_mode))
            snapshotInto(directory, child, prefix + child + "/", specials, seen);
    }
    if (stream)
        ::closedir(stream);
}

Snapshot snapshot(const std::string& root, bool specials = true)
{
    Snapshot seen;
    snapshotInto(AT_FDCWD, root, "", specials, seen);
    return seen;
}

// Seeded trees whose names share prefixes, are not UTF-8, hold a newline or a placeholder; with
// files of the modes users give, links into the tree, out of it, up to an ancestor and nowhere,
// fifos and devices.
struct TreeMaker {
    std::mt19937 random;
    std::string outside;

    int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random); }

    void fill(int directory, int depth)
    {
        static const std::string names[] = { "a", "a b", "a.b", "ab", "a\nb", "\xff\xfe",
            "caf\xc3\xa9", "x\xc3", ".h", "%1", std::string(200, 'n') };
        static const mode_t modes[] = { 0644, 0600, 0755, 0444, 0700 };
        for (int count = 2 + pick(5); count > 0; --count) {
            const char* name = names[pick(11)].c_str();
            std::string up = ".";
            for (int level = pick(depth + 1); level > 0; --level)
                up += "/..";
            const std::string targets[]
                = { names[pick(11)], outside + (pick(2) ? "/dir" : "/file"), up, "missing" };
            const std::string content(static_cast<size_t>(pick(3000)), char('a' + pick(26)));
            const int kind = pick(depth < 3 ? 8 : 7);
            const int fd
                = kind < 3 ? ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL, 0600) : -1;
            if (fd >= 0 && ::write(fd, content.data(), content.size()) >= 0)
                ::fchmod(fd, modes[pick(5)]);
            ::close(fd);
            if ((kind == 3 || kind == 4) && ::symlinkat(targets[pick(4)].c_str(), directory, name))
                continue; // the name is taken already
            if (kind == 5 || kind == 6)
                ::mknodat(directory, name, (kind == 5 ? S_IFIFO : S_IFCHR) | 0644, makedev(1, 3));
            if (kind == 7 && ::mkdirat(directory, name, 0777) == 0) {
                const int below = ::openat(directory, name, O_RDONLY | O_DIRECTORY);
                fill(below, depth + 1);
                ::close(below);
            }
        }
    }
};

// A path of directories longer than PATH_MAX and deeper than a walk holds open, to a file.
const std::string kChainName = std::string(120, 'd');

void makeChain(const std::string& root)
{
    ::mkdir(root.c_str(), 0777);
    int at = ::open(root.c_str(), O_RDONLY | O_DIRECTORY);
    for (int level = 0; level < 40; ++level) {
        ::mkdirat(at, (kChainName + std::to_string(level)).c_str(), 0777);
        const int below = ::openat(at, (kChainName + std::to_string(level)).c_str(), O_RDONLY);
        ::close(std::exchange(at, below));
    }
    ::close(::openat(at, "leaf", O_WRONLY | O_CREAT, 0644));
    ::close(at);
}

// The working directory while it lives, on a tmpfs where one can be mounted (a flush of the disk
// the machine shares costs more than all the rest), with a directory that links point out to.
struct Scratch {
    Scratch()
        : volume(dir.path(), "size=256m")
    {
        QDir::setCurrent(dir.path());
        test::writeFile("outside/file", "outside");
        test::writeFile("outside/dir/x", "x");
    }
    ~Scratch() { QDir::setCurrent(QStringLiteral("/")); }

    void make(const char* name, unsigned seed) const
    {
        ::mkdir(name, 0777);
        const int fd = ::open(name, O_RDONLY | O_DIRECTORY);
        const std::string outside = QFile::encodeName(dir.filePath("outside")).toStdString();
        TreeMaker { std::mt19937(seed), outside }.fill(fd, 0);
        ::close(fd);
    }

    QTemporaryDir dir;
    const test::ScopedMount volume;
};

bool anyExists(const QStringList& paths)
{
    return std::any_of(
        paths.begin(), paths.end(), [](const QString& p) { return QFileInfo::exists(p); });
}

// Ours against the tools users know on the same trees. The copy follows links as cp -L does and
// leaves fifos, sockets and devices out; a move on one file system renames, across two it copies
// and removes.
TEST(TreeOps, CopyMoveAndRemoveDoWhatTheToolsDoOnAdversarialTrees)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        const Scratch s;
        const Snapshot outside = snapshot("outside");
        for (const char* tree : { "ours", "theirs" }) {
            s.make(tree, seed);
            makeChain(std::string(tree) + "/chain");
        }
        EXPECT_EQ(thrownBy([] { remove("ours"); }), "nothing thrown");
        EXPECT_EQ(std::system("rm -r theirs"), 0);
        EXPECT_FALSE(anyExists({ "ours", "theirs" }));

        s.make("source", seed);
        const Snapshot original = snapshot("source");
        copy("source", "copied", false);
        // cp leaves out what it cannot copy, with status 1.
        EXPECT_LE(std::system("cp -aL source reference 2>/dev/null"), 256);
        EXPECT_EQ(snapshot("copied"), snapshot("reference", false));
        EXPECT_EQ(snapshot("source"), original);

        move("source", "moved", false);
        s.make("theirs", seed);
        EXPECT_EQ(std::system("mv theirs mv-moved"), 0);
        EXPECT_EQ(snapshot("moved"), original);
        EXPECT_EQ(snapshot("mv-moved"), original);

        makeChain("deep");
        copy("deep", "deep-copied", false);
        EXPECT_EQ(snapshot("deep-copied"), snapshot("deep"));
        EXPECT_EQ(snapshot("outside"), outside);

        ::mkdir("volume", 0777);
        const test::ScopedMount volume("volume", "size=64m");
        if (!volume.mounted)
            continue;
        move("moved", "volume/moved", false);
        move("deep", "volume/deep", false);
        EXPECT_EQ(snapshot("volume/moved"), snapshot("reference", false));
        EXPECT_EQ(snapshot("volume/deep"), snapshot("deep-copied"));
        EXPECT_FALSE(anyExists({ "moved", "deep" }));
    }
}

// A fifo goes like a file, and a copy whose source is one makes nothing; slashes after a name
// name its entry; a directory is not copied into itself, nor anything over a directory that
// holds it, through a link either.
TEST(TreeOps, SpecialFilesSlashesAndCopiesIntoThemselves)
{
    const Scratch s;
    test::writeFile("t/pg/f", "f");
    test::writeFile("t/pg/pg/g", "g");
    QFile::link("pg", "t/link");
    ::mkfifo("t/pg/p", 0644);
    ::mkfifo("p", 0644);
    const Snapshot before = snapshot("t");
    EXPECT_EQ(thrownBy([] { copy("t/pg", "t/link/copy", false); }),
        "IOWriteError: Copy file error: t/pg cannot be copied into itself, at t/link/copy");
    EXPECT_EQ(thrownBy([] { move("t/pg", "t/pg/bar", false); }),
        "IOWriteError: Move file error: an exception occurred during the move from t/pg to "
        "t/pg/bar (Copy file error: t/pg cannot be copied into itself, at t/pg/bar)");
    for (const char* over : { "t", "t/link/..", "t/pg/pg/../.." })
        EXPECT_THAT(thrownBy([&] { copy("t/pg/pg", over, true); }), HasSubstr("pg lies inside"));
    EXPECT_THAT(thrownBy([] { move("t/pg/f", "t", true); }), HasSubstr("f lies inside t,"));
    EXPECT_EQ(snapshot("t"), before);
    EXPECT_EQ(thrownBy([] { copy("p", "copied", false); }), "nothing thrown");
    EXPECT_EQ(thrownBy([] { remove("p"); }), "nothing thrown");
    EXPECT_EQ(thrownBy([] { remove("t/pg"); }), "nothing thrown");
    EXPECT_EQ(thrownBy([] { remove("t///"); }), "nothing thrown");
    EXPECT_FALSE(anyExists({ "t", "p", "copied" }));

    // The same file through a bind mount is refused as the same path is.
    test::writeFile("b/d/f", "f");
    if (!QDir().mkdir("view") || ::mount("b", "view", nullptr, MS_BIND, nullptr) != 0)
        GTEST_SKIP() << "cannot bind a directory here";
    for (const QString same : { "d/f", "d" })
        EXPECT_THAT(thrownBy([&] { move("b/" + same, "view/" + same, true); }), HasSubstr("same"));
    ::umount2("view", MNT_DETACH);
}

// A directory swapped for a link to another one while the operation is inside it: the
// operation goes on in the directory it holds, and nothing is done through the link.
TEST(TreeOps, ADirectorySwappedForALinkMidwayIsNeverFollowed)
{
    const Scratch s;
    for (int n = 0; n < 100; ++n)
        for (const char* file : { "t/sub/f%1", "o/f%1", "src/sub/n%1", "dst/sub/f%1" })
            test::writeFile(QString::fromLatin1(file).arg(n), file);
    QFile::link(s.dir.filePath("o"), "link");
    QFile::link(s.dir.filePath("o"), "link2");
    const Snapshot outside = snapshot("o");
    callsBeforeRace = 2;
    race = [] { zo::os::exchange("t/sub", "link"); };
    EXPECT_EQ(thrownBy([] { remove("t"); }),
        "runtime_error: Delete file error: an unknown exception occurred during the removal of "
        "t/sub");
    EXPECT_EQ(snapshot("o"), outside);
    EXPECT_EQ(snapshot("link"), Snapshot());
    callsBeforeRace = 1;
    race = [] { zo::os::exchange("dst/sub", "link2"); };
    copy("src", "dst", true);
    EXPECT_EQ(snapshot("link2"), snapshot("src/sub"));
    EXPECT_EQ(snapshot("o"), outside);

    // Below the directories a removal holds open, one moves out; it is not taken for the way
    // back up, which its ".." now leads elsewhere.
    makeChain("deep");
    callsBeforeRace = 1;
    race = [] {
        zo::os::exchange(("deep/" + kChainName + "0/" + kChainName + "1").c_str(), "o/f0");
    };
    EXPECT_EQ(thrownBy([] { remove("deep"); })
                  .rfind("runtime_error: Delete file error: an unknown exception occurred during "
                         "cdUp of deep/",
                      0),
        0u);
    Snapshot after = snapshot("o");
    after["f0"] = outside.at("f0"); // the directory moved out is in the file's place
    EXPECT_EQ(after, outside);
}

TEST(TreeOps, FopenWithAModeThatNeitherReadsNorWritesSaysSo)
{
    const Scratch s;
    test::writeFile("r.txt", "r");
    ProjectVFS project(s.dir.path());
    EXPECT_EQ(thrownBy([&] { project.fopen("r.txt", "x"); }),
        "exception::OpenSwapFile: Can not open swap file for: r.txt: the open mode neither reads "
        "nor writes");
}

} // namespace
} // namespace zo::project
