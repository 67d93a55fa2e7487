#include "fileutils_testing.h"

#include <zo/project/fileutils.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace zo::project {
namespace {

using testing::ScopedMount;
using testing::Scratch;

// Handlers for IOError must not catch a missing or an existing path.
static_assert(std::is_base_of_v<IOError, IOReadError> && std::is_base_of_v<IOError, IOWriteError>);
static_assert(
    !std::is_base_of_v<IOError, PathNotFound> && !std::is_base_of_v<IOError, AlreadyExists>);

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

TEST(ListDirectory, FiltersPrefixesAndPutsDirectoriesFirst)
{
    Scratch tree;
    tree.file("a");
    tree.file(".h");
    tree.file("d/x");
    tree.file("d/e/y");

    EXPECT_EQ(listDirectory(tree.path(), false, false, false), QStringList { "a" });
    EXPECT_EQ(sorted(listDirectory(tree.path(), false, true, false)),
        (QStringList { "a", "d/e/y", "d/x" }));
    const QStringList all = listDirectory(tree.path(), true, true, true);
    EXPECT_EQ(sorted(all), (QStringList { ".h", "a", "d", "d/e", "d/e/y", "d/x" }));
    EXPECT_LT(all.indexOf("d"), all.indexOf("d/x"));
    EXPECT_LT(all.indexOf("d/e"), all.indexOf("d/e/y"));
    EXPECT_EQ(sorted(xListFiles(QDir(tree.path("d")), "p/", false, true, true)),
        (QStringList { "p/e", "p/e/y", "p/x" }));
    EXPECT_TRUE(listDirectory(tree.path("missing"), true, true, true).isEmpty());
}

TEST(ListDirectory, FollowsLinksButNotBackIntoItsOwnPath)
{
    Scratch tree;
    tree.file("d/x");
    tree.file("s/z");
    tree.link("d/up", tree.path());
    tree.link("d/self", ".");
    tree.link("d/side", "../s");

    EXPECT_EQ(sorted(listDirectory(tree.path(), false, true, true)),
        (QStringList { "d", "d/self", "d/side", "d/side/z", "d/up", "d/x", "s", "s/z" }));
    EXPECT_EQ(sorted(listDirectory(tree.path(), false, true, false)),
        (QStringList { "d/side/z", "d/x", "s/z" }));
}

class FolderSize : public ::testing::Test {
protected:
    FolderSize()
    {
        tree.file("f1", QByteArray(10, 'a'));
        tree.file("f2", QByteArray(20, 'a'));
        tree.file("f3", QByteArray(30, 'a'));
        tree.file("sub/g", QByteArray(40, 'a'));
        tree.file(".hidden", QByteArray(5, 'a'));
        tree.link("linked", outside.file("big", QByteArray(1000, 'a')));
    }

    Scratch tree;
    Scratch outside;
    unsigned long long size = 0;
    unsigned int count = 0;
    bool aborted = true;
};

TEST_F(FolderSize, AddsVisibleFilesAndSkipsLinks)
{
    size = 1;
    count = 1;
    folderSize(tree.path(), &size, &count, &aborted, 0, 0);
    EXPECT_EQ(size, 101U);
    EXPECT_EQ(count, 5U);
    EXPECT_FALSE(aborted);

    size = 0;
    folderSize(tree.path(), &size, nullptr, nullptr, 0, 0);
    EXPECT_EQ(size, 100U);
}

TEST_F(FolderSize, StopsWhenALimitIsReachedExactly)
{
    folderSize(tree.path(), &size, &count, &aborted, 0, 100);
    EXPECT_TRUE(aborted);
    EXPECT_EQ(size, 100U);

    size = 0;
    count = 0;
    folderSize(tree.path(), &size, &count, &aborted, 0, 101);
    EXPECT_FALSE(aborted);

    size = 0;
    count = 0;
    folderSize(tree.path(), &size, &count, &aborted, 2, 0);
    EXPECT_TRUE(aborted);
    EXPECT_EQ(count, 2U);
}

TEST_F(FolderSize, RefusesANullSize)
{
    try {
        folderSize(tree.path(), nullptr, &count, &aborted, 0, 0);
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "folderSize() error: pSize parameter must not be NULL");
    }
}

TEST(HasEnoughSpace, MeasuresTheDirectoryHoldingTheNearestExistingAncestor)
{
    Scratch scratch;
    const ScopedMount outer(scratch.dir("outer"), "size=12m");
    const ScopedMount inner(scratch.dir("outer/inner"), "size=20m");
    if (!outer.mounted() || !inner.mounted()) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    const QString target = scratch.path("outer/inner/not/yet");
    const long long fits = testing::availableBytes(scratch.path("outer")) - 10 * 1024 * 1024;

    long long missing = 42;
    EXPECT_FALSE(hasEnoughSpaceDiskToCopyTo(target, fits, &missing));
    EXPECT_EQ(missing, 0);
    EXPECT_TRUE(hasEnoughSpaceDiskToCopyTo(target, fits - 1, &missing));
    EXPECT_EQ(missing, -1);
    EXPECT_TRUE(hasEnoughSpaceDiskToCopyTo(target, fits - 1, nullptr));
}

} // namespace
} // namespace zo::project
