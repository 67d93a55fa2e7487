#include <zo/project/fileutils.h>
#include <zo/test/support.h>

#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <unistd.h>

namespace zo::project {
namespace {

using test::entriesBelow;
using test::readFile;
using test::ScopedMount;
using test::thrownBy;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kMiB = 1024 * 1024;

// A fresh directory to lay out a tree in; paths are relative to it.
struct Scratch {
    QString path(const QString& relative = QString()) const { return root.filePath(relative); }
    QString dir(const QString& relative) const
    {
        return QDir().mkpath(path(relative)) ? path(relative) : QString();
    }
    QString file(const QString& relative, const QByteArray& content = "x") const
    {
        test::writeFile(path(relative), content);
        return path(relative);
    }
    void link(const QString& relative, const QString& target) const
    {
        QFile::link(target, path(relative));
    }

    QTemporaryDir root;
};

std::string u8(const QString& text)
{
    return text.toStdString();
}

TEST(ListDirectory, FollowsLinksButNoCycleAndFiltersHiddenNamesAndDirectories)
{
    Scratch tree;
    for (const char* name : { "a", ".h", "d/x", "s/z" })
        tree.file(name);
    tree.link("d/up", tree.path());
    tree.link("d/side", "../s");
    tree.link("d/dangling", "missing");

    EXPECT_EQ(listDirectory(tree.path(), false, false, false), QStringList { "a" });
    QStringList all = listDirectory(tree.path(), true, true, true);
    EXPECT_LT(all.indexOf("d/side"), all.indexOf("d/side/z"));
    all.sort();
    EXPECT_EQ(
        all, (QStringList { ".h", "a", "d", "d/side", "d/side/z", "d/up", "d/x", "s", "s/z" }));
    EXPECT_TRUE(listDirectory(tree.path("missing"), true, true, true).isEmpty());
}

TEST(FolderSize, AddsVisibleFilesButNoLinkAndStopsAtItsLimit)
{
    Scratch tree;
    Scratch outside;
    for (const int size : { 10, 20, 30, 40 })
        tree.file(QStringLiteral("sub%1/f").arg(size), QByteArray(size, 'a'));
    tree.file(".hidden", QByteArray(5, 'a'));
    tree.link("linked", outside.file("big", QByteArray(1000, 'a')));
    unsigned long long size = 0;
    unsigned int count = 0;
    bool aborted = true;
    folderSize(tree.path(), &size, &count, &aborted, 0, 0);
    EXPECT_EQ(size, 100U);
    EXPECT_EQ(count, 4U);
    EXPECT_FALSE(aborted);
    size = count = 0;
    folderSize(tree.path(), &size, &count, &aborted, 2, 0);
    EXPECT_EQ(count, 2U);
    EXPECT_TRUE(aborted);
}

// One case per message family, each naming its path; none of them touches a file.
TEST(FileErrors, NameThePathAndTheCause)
{
    Scratch tree;
    const QString a = tree.file("a", "A");
    const QString b = tree.file("b", "B");
    const QString none = tree.path("none");
    const std::pair<std::function<void()>, std::string> rows[] = {
        { [&] { copy(none, b, true); }, "PathNotFound: Copy file error: " + u8(none) },
        { [&] { copy(a, none + "/x", false); }, "PathNotFound: Copy file error: " + u8(none) },
        { [&] { copy(a, b, false); }, "AlreadyExists: Copy file error: " + u8(b) },
        { [&] { move(none, b, true); }, "PathNotFound: Move file error: " + u8(none) },
        { [&] { move(a, b, false); }, "AlreadyExists: Move file error: " + u8(b) },
        // Onto itself, even with overwrite: removing the destination would remove the source.
        { [&] { move(a, a, true); }, "AlreadyExists: Move file error: destination and source" },
        { [&] { remove(none); }, "PathNotFound: Delete file error: " + u8(none) },
    };
    for (const auto& [body, expected] : rows)
        EXPECT_THAT(thrownBy(body), StartsWith(expected));
    EXPECT_EQ(
        test::filesBelow(tree.path()), (QMap<QString, QByteArray> { { "a", "A" }, { "b", "B" } }));
}

TEST(Remove, UnlinksLinksAndReportsADirectoryThatStays)
{
    Scratch tree;
    Scratch outside;
    outside.file("dir/keep");
    tree.file("t/.hidden");
    tree.file("t/sub/f");
    tree.link("t/sub/dir", outside.path("dir"));
    tree.link("t/file", outside.file("file"));
    tree.link("t/dangling", outside.path("missing"));
    tree.link("top", outside.path("dir"));

    remove(tree.path("t"));
    remove(tree.path("top") + "/");
    EXPECT_EQ(entriesBelow(tree.path()), QStringList());
    EXPECT_EQ(entriesBelow(outside.path()), (QStringList { "dir", "dir/keep", "file" }));

    const ScopedMount volume(tree.dir("volume"), "size=1m");
    if (!volume.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    tree.file("volume/x");
    EXPECT_THAT(thrownBy([&] { remove(tree.path("volume")); }),
        StartsWith("runtime_error: Delete file error: an unknown exception occurred during the "
                   "removal of "
            + u8(tree.path("volume"))));
    EXPECT_EQ(entriesBelow(tree.path()), QStringList { "volume" });
}

// Without privileges, older kernels let an unnamed copy be linked in only through its /proc name.
TEST(Copy, LinksEachFileInWithoutPrivileges)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to drop privileges";
    Scratch tree;
    tree.file("src/d/a", "first");
    tree.file("src/b", "second");
    QFile::setPermissions(tree.path(), QFileDevice::Permissions(0x7777));
    EXPECT_EQ(test::runAsNobody([&] {
        copy(tree.path("src"), tree.path("dst"), false);
        return 0;
    }),
        0);
    EXPECT_EQ(readFile(tree.path("dst/d/a")), "first");
    EXPECT_EQ(readFile(tree.path("dst/b")), "second");
}

TEST(Copy, MirrorsDirectoriesFollowingLinksButNoCycleAndNoLinkInTheDestination)
{
    Scratch tree;
    Scratch outside;
    tree.file("src/a", "new");
    tree.file("src/.h");
    tree.file("src/twin", "abcd");
    tree.file("src/sub/b");
    tree.file("other/c");
    tree.link("src/side", tree.path("other"));
    tree.link("src/sub/loop", tree.path("src"));
    tree.file("dst/a", "old");
    tree.file("dst/twin", "wxyz");
    tree.file("dst/extra");
    tree.file("dst/sub/stale");
    tree.link("dst/side", outside.dir("d"));
    outside.file("d/keep");
    tree.file("plain");
    // Wider than any umask lets a new file be.
    QFile::setPermissions(tree.path("src/a"), QFileDevice::Permissions(0x7777));

    copy(tree.path("src"), tree.path("dst"), true);
    copy(tree.path("src"), tree.path("plain"), true);
    copy(tree.path("src"), tree.path("new"), false);
    const QStringList mirrored { ".h", "a", "side", "side/c", "sub", "sub/b", "twin" };
    for (const char* copied : { "dst", "plain", "new" }) {
        EXPECT_EQ(entriesBelow(tree.path(copied)), mirrored) << copied;
        EXPECT_EQ(QFile::permissions(tree.path(copied) + "/a"), QFileDevice::Permissions(0x7777))
            << copied;
    }
    EXPECT_EQ(readFile(tree.path("dst/a")), "new");
    EXPECT_EQ(readFile(tree.path("dst/twin")), "abcd") << "same size, other bytes";
    EXPECT_EQ(entriesBelow(outside.path()), (QStringList { "d", "d/keep" }));
}

// A tree is built out of sight and named when complete; one that does not fit keeps what it
// copied, complete files only, and leaves nothing hidden beside it. Each failure names the source,
// the destination and, when the copy was tried, the cause.
TEST(Copy, ThatDoesNotFitNamesThePathsAndKeepsCompleteFilesOnly)
{
    Scratch tree;
    const ScopedMount tiny(tree.dir("tiny"), "size=256k");
    const ScopedMount noInodes(tree.dir("no-inodes"), "size=64m,nr_inodes=2");
    if (!tiny.mounted || !noInodes.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const QString small = tree.file("src/small", "fits");
    const QString large = tree.file("src/sub/large", QByteArray(kMiB, 'x'));
    const QString dst = tree.path("tiny/dst");
    EXPECT_THAT(thrownBy([&] { copy(tree.path("src"), dst, false); }),
        testing::AllOf(StartsWith("runtime_error: Copy file error: No space disk left."),
            HasSubstr(u8(large) + " to " + u8(dst) + "/sub/large")));
    EXPECT_EQ(listDirectory(tree.path("tiny"), true, false, true), QStringList { "dst" });
    EXPECT_FALSE(QFileInfo::exists(dst + "/sub/large"));
    // gtest's assertions expand to an if-else of their own.
    if (QFileInfo::exists(dst + "/small")) {
        EXPECT_EQ(readFile(dst + "/small"), "fits");
    }
    // An overwrite that does not fit keeps the file it would have replaced.
    const QString kept = tree.file("tiny/kept", "old");
    EXPECT_THAT(thrownBy([&] { move(large, kept, true); }), HasSubstr("No space disk left."));
    EXPECT_EQ(listDirectory(tree.path("tiny"), true, false, false), QStringList { "kept" });
    EXPECT_EQ(readFile(kept), "old");

    // Space enough but no inode left: the attempt fails.
    const QString toNoInodes = tree.dir("no-inodes/sub") + "/f";
    const std::string failed = thrownBy([&] { copy(small, toNoInodes, false); });
    EXPECT_THAT(failed, HasSubstr("during the copy from " + u8(small) + " to " + u8(toNoInodes)));
    EXPECT_THAT(failed, testing::Not(testing::EndsWith(u8(toNoInodes) + ": ")));
    EXPECT_FALSE(QFileInfo::exists(toNoInodes));
}

// Refusals name the path that is not writable; a move that fails midway keeps what it copied and
// what it could not remove: nothing is rolled back, nothing is lost.
TEST(ReadOnlyPaths, AreRefusedNamingThemAndLoseNothing)
{
    Scratch tree;
    tree.file("src/x");
    const QString readOnly = tree.file("dst/read-only");
    QFile::link(readOnly, tree.dir("t") + "/link");
    const QString readOnlyDir = tree.dir("parent/read-only");
    tree.file("parent/read-only/f");
    const ScopedMount readOnlyMount(readOnly);
    const ScopedMount readOnlyDirMount(readOnlyDir);
    if (!readOnlyMount.mounted || !readOnlyDirMount.mounted)
        GTEST_SKIP() << "cannot mount here";
    const std::pair<std::function<void()>, std::string> rows[] = {
        { [&] { remove(readOnly); }, u8(readOnly) },
        { [&] { copy(tree.path("src/x"), readOnlyDir + "/x", true); }, u8(tree.path("parent")) },
        { [&] { copy(tree.path("src/x"), readOnly, true); }, u8(readOnly) },
        { [&] { move(readOnlyDir + "/f", tree.path("g"), false); }, u8(readOnlyDir) },
        { [&] { move(tree.path("src"), tree.path("dst"), true); }, u8(readOnly) },
    };
    for (const auto& [body, path] : rows)
        EXPECT_THAT(thrownBy(body), testing::AllOf(StartsWith("IOWriteError: "), HasSubstr(path)));
    // A link goes with its directory, whatever holds its target.
    remove(tree.path("t"));
    EXPECT_EQ(entriesBelow(tree.path()),
        (QStringList { "dst", "dst/read-only", "dst/x", "parent", "parent/read-only",
            "parent/read-only/f", "src", "src/x" }));
}

} // namespace
} // namespace zo::project
