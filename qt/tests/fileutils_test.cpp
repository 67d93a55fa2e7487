#include <zo/project/fileutils.h>
#include <zo/test/support.h>

#include <QDateTime>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/statvfs.h>
#include <type_traits>
#include <unistd.h>

namespace zo::project {
namespace {

using test::ScopedMount;
using test::thrownBy;

// Handlers for IOError must not catch a missing or an existing path.
static_assert(std::is_base_of_v<IOError, IOReadError> && std::is_base_of_v<IOError, IOWriteError>);
static_assert(
    !std::is_base_of_v<IOError, PathNotFound> && !std::is_base_of_v<IOError, AlreadyExists>);

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

long long availableBytes(const QString& path)
{
    struct statvfs volume { };
    const bool measured = ::statvfs(QFile::encodeName(path).constData(), &volume) == 0;
    return measured ? static_cast<long long>(volume.f_bavail * volume.f_frsize) : -1;
}

std::string u8(const QString& text)
{
    return text.toStdString();
}

// Every entry below root, hidden ones and directories too, sorted.
QStringList everything(const QString& root)
{
    QStringList list = listDirectory(root, true, true, true);
    list.sort();
    return list;
}

// Which links the walk follows is the walk's own test; here its flags and what is listed.
TEST(ListDirectory, FiltersPrefixesAndListsDirectoriesBeforeTheirContent)
{
    Scratch tree;
    tree.file("a");
    tree.file(".h");
    tree.file("d/x");
    tree.file("s/z");
    tree.link("d/up", tree.path());
    tree.link("d/side", "../s");
    tree.link("d/dangling", "missing");

    EXPECT_EQ(listDirectory(tree.path(), false, false, false), QStringList { "a" });
    QStringList visibleFiles = listDirectory(tree.path(), false, true, false);
    visibleFiles.sort();
    EXPECT_EQ(visibleFiles, (QStringList { "a", "d/side/z", "d/x", "s/z" }));
    const QStringList all = listDirectory(tree.path(), true, true, true);
    EXPECT_EQ(everything(tree.path()),
        (QStringList { ".h", "a", "d", "d/side", "d/side/z", "d/up", "d/x", "s", "s/z" }));
    EXPECT_LT(all.indexOf("d/side"), all.indexOf("d/side/z"));
    EXPECT_EQ(xListFiles(QDir(tree.path("s")), "p/", false, true, true), QStringList { "p/z" });
    EXPECT_TRUE(listDirectory(tree.path("missing"), true, true, true).isEmpty());
}

TEST(FolderSize, AddsVisibleFilesSkipsLinksAndStopsAtALimitReachedExactly)
{
    Scratch tree;
    Scratch outside;
    tree.file("f1", QByteArray(10, 'a'));
    tree.file("f2", QByteArray(20, 'a'));
    tree.file("f3", QByteArray(30, 'a'));
    tree.file("sub/g", QByteArray(40, 'a'));
    tree.file(".hidden", QByteArray(5, 'a'));
    tree.link("linked", outside.file("big", QByteArray(1000, 'a')));
    unsigned long long size = 1;
    unsigned int count = 1;
    bool aborted = true;

    folderSize(tree.path(), &size, &count, &aborted, 0, 102);
    EXPECT_EQ(size, 101U);
    EXPECT_EQ(count, 5U);
    EXPECT_FALSE(aborted);
    size = 0;
    folderSize(tree.path(), &size, nullptr, &aborted, 0, 100);
    EXPECT_EQ(size, 100U);
    EXPECT_TRUE(aborted);
    count = 0;
    folderSize(tree.path(), &size, &count, nullptr, 2, 0);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(thrownBy([&] { folderSize(tree.path(), nullptr, &count, &aborted, 0, 0); }),
        "runtime_error: folderSize() error: pSize parameter must not be NULL");
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
    EXPECT_EQ(listDirectory(tree.path(), true, true, true), QStringList());
    EXPECT_EQ(everything(outside.path()), (QStringList { "dir", "dir/keep", "file" }));
    EXPECT_EQ(thrownBy([&] { remove(tree.path("t")); }),
        "PathNotFound: Delete file error: " + u8(tree.path("t")) + " not found");

    const ScopedMount volume(tree.dir("volume"), "size=1m");
    if (!volume.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    tree.file("volume/x");
    EXPECT_EQ(thrownBy([&] { remove(tree.path("volume")); }),
        "runtime_error: Delete file error: an unknown exception occurred during the removal of "
            + u8(tree.path("volume")));
    EXPECT_EQ(listDirectory(tree.path(), true, true, true), QStringList { "volume" });
}

TEST(Copy, ChecksInOrder)
{
    Scratch tree;
    const QString src = tree.file("src");
    const QString dst = tree.file("dst");
    const QString none = tree.path("none");
    EXPECT_EQ(thrownBy([&] { copy(none, none + "/x", false); }),
        "PathNotFound: Copy file error: " + u8(none) + " not found");
    EXPECT_EQ(thrownBy([&] { copy(src, none + "/x", false); }),
        "PathNotFound: Copy file error: " + u8(none) + "/x destination path not found");
    EXPECT_EQ(thrownBy([&] { copy(src, dst, false); }),
        "AlreadyExists: Copy file error: " + u8(dst) + " already exists");

    // Lets an unprivileged user reach the source, which it may not read.
    QFile::setPermissions(tree.path(), QFileDevice::Permissions(0x7755));
    QFile::setPermissions(src, QFile::WriteOwner);
    const std::string expected
        = "PathNotFound: Copy file error: source path is not readable: " + u8(none) + "/x";
    const auto copyUnreadable
        = [&] { return thrownBy([&] { copy(src, none + "/x", false); }) == expected ? 0 : 1; };
    EXPECT_EQ(::geteuid() == 0 ? test::runAsNobody(copyUnreadable) : copyUnreadable(), 0);
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
    EXPECT_EQ(test::readFile(tree.path("dst/d/a")), "first");
    EXPECT_EQ(test::readFile(tree.path("dst/b")), "second");
}

TEST(Copy, MirrorsDirectoriesFollowingLinksButNoCycleAndNoLinkInTheDestination)
{
    Scratch tree;
    Scratch outside;
    tree.file("src/a", "new");
    tree.file("src/.h");
    tree.file("src/same", "same");
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
    QFile same(tree.file("dst/same", "same"));
    const QDateTime longAgo(QDate(2001, 2, 3), QTime(4, 5, 6), Qt::UTC);
    ASSERT_TRUE(same.open(QIODevice::ReadWrite)
        && same.setFileTime(longAgo, QFileDevice::FileModificationTime));
    same.close();
    // Wider than any umask lets a new file be.
    QFile::setPermissions(tree.path("src/a"), QFileDevice::Permissions(0x7777));

    copy(tree.path("src"), tree.path("dst"), true);
    copy(tree.path("src"), tree.path("plain"), true);
    copy(tree.path("src"), tree.path("new"), false);
    const QStringList mirrored { ".h", "a", "same", "side", "side/c", "sub", "sub/b", "twin" };
    for (const char* copied : { "dst", "plain", "new" }) {
        EXPECT_EQ(everything(tree.path(copied)), mirrored) << copied;
        EXPECT_EQ(QFile::permissions(tree.path(copied) + "/a"), QFileDevice::Permissions(0x7777))
            << copied;
    }
    EXPECT_EQ(test::readFile(tree.path("dst/a")), "new");
    EXPECT_EQ(test::readFile(tree.path("dst/twin")), "abcd") << "same size, other bytes";
    EXPECT_EQ(QFileInfo(same).lastModified(), longAgo);
    EXPECT_FALSE(QFileInfo(tree.path("dst/side")).isSymLink());
    EXPECT_EQ(everything(outside.path()), (QStringList { "d", "d/keep" }));
    EXPECT_EQ(thrownBy([&] { copy(tree.path("src"), tree.path("dst"), false); }),
        "AlreadyExists: Copy file error: " + u8(tree.path("dst")) + " already exists");
}

// The volume measured holds the directory above the destination's nearest existing ancestor,
// hence the subdirectories, and the larger volume inside the measured one.
TEST(Copy, ChecksFreeSpaceAboveFiveMebibytesAndAfterEveryFailedAttempt)
{
    Scratch tree;
    const ScopedMount roomy(tree.dir("roomy"), "size=8m");
    const ScopedMount inner(tree.dir("roomy/inner"), "size=20m");
    const ScopedMount tiny(tree.dir("tiny"), "size=256k");
    const ScopedMount noInodes(tree.dir("no-inodes"), "size=64m,nr_inodes=2");
    if (!roomy.mounted || !inner.mounted || !tiny.mounted || !noInodes.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const QString notYet = tree.path("roomy/inner/not/yet");
    const long long fits = availableBytes(tree.path("roomy")) - 10 * kMiB;
    long long missing = 42;
    EXPECT_FALSE(hasEnoughSpaceDiskToCopyTo(notYet, fits, &missing));
    EXPECT_EQ(missing, 0);
    EXPECT_TRUE(hasEnoughSpaceDiskToCopyTo(notYet, fits - 1, &missing));
    EXPECT_EQ(missing, -1);

    const auto extraMiB = [&](long long size, const char* volume) {
        return std::to_string((size + 10 * kMiB - availableBytes(tree.path(volume))) >> 20);
    };
    const QString exact = tree.file("exact", QByteArray(5 * kMiB, 'a'));
    const QString larger = tree.file("larger", QByteArray(5 * kMiB + 1, 'a'));
    const QString small = tree.file("small", QByteArray(kMiB, 'a'));
    const QString toRoomy = tree.path("roomy/inner") + "/f";
    const QString toTiny = tree.dir("tiny/sub") + "/f";
    const QString toNoInodes = tree.dir("no-inodes/sub") + "/f";

    const std::string roomyExtra = extraMiB(5 * kMiB + 1, "roomy");
    EXPECT_EQ(thrownBy([&] { copy(larger, toRoomy, false); }),
        "runtime_error: Copy file error: No space disk left. Extra " + roomyExtra
            + " MiB are needed to copy from " + u8(larger) + " to " + u8(toRoomy));
    EXPECT_EQ(thrownBy([&] { copy(exact, toRoomy, false); }), "nothing thrown");

    const std::string tinyExtra = extraMiB(kMiB, "tiny");
    EXPECT_EQ(thrownBy([&] { copy(small, toTiny, false); }),
        "runtime_error: Copy file error: No space disk left. Extra " + tinyExtra
            + " Mib are needed to copy from " + u8(small) + " to " + u8(toTiny));
    EXPECT_FALSE(QFileInfo::exists(toTiny));

    const std::string failed = thrownBy([&] { copy(small, toNoInodes, false); });
    const std::string prefix = "runtime_error: Copy file error: an exception occurred during the "
                               "copy from "
        + u8(small) + " to " + u8(toNoInodes) + ": ";
    EXPECT_EQ(failed.substr(0, prefix.size()), prefix);
    EXPECT_GT(failed.size(), prefix.size());
}

// A tree is built out of sight and named when complete; one that fails midway keeps what it
// copied, complete files only, and leaves nothing hidden beside it.
TEST(Copy, TreeThatDoesNotFitKeepsItsCompleteFilesOnly)
{
    Scratch tree;
    const ScopedMount tiny(tree.dir("tiny"), "size=256k");
    if (!tiny.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    tree.file("src/small", "fits");
    tree.file("src/sub/large", QByteArray(kMiB, 'x'));
    const QString dst = tree.path("tiny/dst");
    const std::string thrown = thrownBy([&] { copy(tree.path("src"), dst, false); });
    EXPECT_EQ(thrown.rfind("runtime_error: Copy file error: No space disk left.", 0), 0u) << thrown;
    EXPECT_NE(thrown.find(" to " + u8(dst) + "/sub/large"), std::string::npos) << thrown;
    EXPECT_EQ(listDirectory(tree.path("tiny"), true, false, true), QStringList { "dst" });
    EXPECT_FALSE(QFileInfo::exists(dst + "/sub/large"));
    // gtest's assertions expand to an if-else of their own.
    if (QFileInfo::exists(dst + "/small")) {
        EXPECT_EQ(test::readFile(dst + "/small"), "fits");
    }
}

TEST(Move, ChecksThenRenamesOrCopiesAndRemoves)
{
    Scratch tree;
    const QString a = tree.file("a", "A");
    const QString b = tree.file("b");
    EXPECT_EQ(thrownBy([&] { move(tree.path("none"), b, true); }),
        "PathNotFound: Move file error: " + u8(tree.path("none")) + " not found");
    EXPECT_EQ(thrownBy([&] { move(a, b, false); }),
        "AlreadyExists: Move file error: " + u8(b) + " already exists");
    EXPECT_EQ(thrownBy([&] { move(a, a, true); }),
        "AlreadyExists: Move file error: destination and source files/folders are the same. On "
        "some OS a same name with a different case can be considered as the same name.");
    move(a, tree.path("c"), false);
    tree.file("dir/x");
    tree.file("old/stale");
    move(tree.path("dir"), tree.path("old"), true);
    EXPECT_EQ(everything(tree.path()), (QStringList { "b", "c", "old", "old/x" }));
    EXPECT_EQ(test::readFile(tree.path("c")), "A");
}

// The failed move keeps what it copied before failing: nothing is rolled back.
TEST(ReadOnlyPaths, AreRefusedWithTheRightErrors)
{
    Scratch tree;
    const QString src = tree.file("src/x");
    const QString readOnly = tree.file("dst/read-only");
    const QString readOnlyDir = tree.dir("parent/read-only");
    const QString inReadOnlyDir = tree.file("parent/read-only/f");
    const ScopedMount readOnlyMount(readOnly);
    const ScopedMount readOnlyDirMount(readOnlyDir);
    if (!readOnlyMount.mounted || !readOnlyDirMount.mounted)
        GTEST_SKIP() << "cannot mount here";
    EXPECT_EQ(thrownBy([&] { remove(readOnly); }),
        "IOWriteError: Delete file error: the path to remove is not writable: " + u8(readOnly));
    EXPECT_EQ(thrownBy([&] { copy(src, readOnlyDir + "/x", true); }),
        "IOWriteError: Copy file error: destination directory is not writable: "
            + u8(tree.path("parent")));
    EXPECT_EQ(thrownBy([&] { copy(src, readOnly, true); }),
        "IOWriteError: Copy file error: destination path is not writable: " + u8(readOnly));
    EXPECT_EQ(thrownBy([&] { move(inReadOnlyDir, tree.path("g"), false); }),
        "IOWriteError: Move file error: " + u8(readOnlyDir) + " isn't writable");
    EXPECT_EQ(thrownBy([&] { move(tree.path("src"), tree.path("dst"), true); }),
        "IOWriteError: Move file error: an exception occurred during the move from "
            + u8(tree.path("src")) + " to " + u8(tree.path("dst"))
            + " (Delete file error: the path to remove is not writable: " + u8(readOnly) + ")");
    EXPECT_EQ(everything(tree.path()),
        (QStringList { "dst", "dst/read-only", "dst/x", "parent", "parent/read-only",
            "parent/read-only/f", "src", "src/x" }));
}

} // namespace
} // namespace zo::project
