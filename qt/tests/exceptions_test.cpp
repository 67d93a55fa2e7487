#include <zo/log.h>
#include <zo/project/exceptions.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace ex = zo::project::exception;

namespace {

TEST(EngineErrors, MessagesAreExact)
{
    EXPECT_STREQ(ex::ProjectVFS("as is").what(), "as is");
    EXPECT_STREQ(ex::SwapFileCommit("as is").what(), "as is");
    EXPECT_STREQ(ex::ProjectPathDoesNotExists("/p").what(), "Project path '/p' does not exist");
    EXPECT_STREQ(ex::ProjectNotCommitted("a").what(), "Project  'a' is not committed");
    EXPECT_STREQ(ex::SwapFileAlreadyExists("a").what(), "A swap file already exists for: a");
    EXPECT_STREQ(ex::CreateSwapFile("a").what(), "Can not create swap file for: a");
    EXPECT_STREQ(ex::CopySwapFile("a", QString()).what(), "Can not copy swap file for: a");
    EXPECT_STREQ(
        ex::OpenSwapFile("a", QFileDevice::OpenError).what(), "Can not open swap file for: a");
    EXPECT_STREQ(ex::SourceFileRename("a").what(), "Can not rename source file: a");
    EXPECT_STREQ(ex::SourceFileBackupRemove("a").what(), "Can not remove source file backup: a");
    EXPECT_STREQ(ex::SwapFileRename("").what(), "Can not rename swap file: ");
    EXPECT_STREQ(ex::SwapFileRemove("a").what(), "Can not remove swap file: a");
    EXPECT_STREQ(
        ex::SourceFileDoesNotExists("x.txt").what(), "Source file does not exist for:x.txt");
    EXPECT_STREQ(ex::SwapFileAlreadyExists("d\xc3\xa9j\xc3\xa0").what(),
        "A swap file already exists for: d\xc3\xa9j\xc3\xa0");
}

TEST(EngineErrors, ExtraFieldsAreKept)
{
    const ex::CopySwapFile copy("a", QStringLiteral("/root/.a.1.csp"));
    EXPECT_EQ(copy.tempPath(), QStringLiteral("/root/.a.1.csp"));
    ex::OpenSwapFile open("a", QFileDevice::PermissionsError);
    EXPECT_EQ(open.fileError(), QFileDevice::PermissionsError);
}

template <typename Thrown, typename Handler> bool caughtAs()
{
    try {
        throw Thrown("p");
    } catch (const Handler&) {
        return true;
    } catch (...) {
        return false;
    }
}

TEST(EngineErrors, CommitFailuresAreGroupedAndOthersAreNot)
{
    EXPECT_TRUE((caughtAs<ex::SwapFileRename, ex::SwapFileCommit>()));
    EXPECT_TRUE((caughtAs<ex::SwapFileRename, ex::ProjectVFS>()));
    EXPECT_TRUE((caughtAs<ex::SwapFileRename, std::runtime_error>()));
    EXPECT_TRUE((caughtAs<ex::SourceFileRename, ex::SwapFileCommit>()));
    EXPECT_TRUE((caughtAs<ex::SourceFileBackupRemove, ex::SwapFileCommit>()));
    EXPECT_TRUE((caughtAs<ex::SwapFileRemove, ex::SwapFileCommit>()));
    EXPECT_TRUE((caughtAs<ex::SourceFileDoesNotExists, ex::SwapFileCommit>()));

    EXPECT_FALSE((caughtAs<ex::SwapFileAlreadyExists, ex::SwapFileCommit>()));
    EXPECT_FALSE((caughtAs<ex::CreateSwapFile, ex::SwapFileCommit>()));
    EXPECT_FALSE((caughtAs<ex::ProjectPathDoesNotExists, ex::SwapFileCommit>()));
    EXPECT_FALSE((caughtAs<ex::ProjectNotCommitted, ex::SwapFileCommit>()));
    EXPECT_TRUE((caughtAs<ex::ProjectNotCommitted, ex::ProjectVFS>()));
    static_assert(!std::is_base_of_v<ex::SwapFileCommit, ex::CopySwapFile>);
    static_assert(!std::is_base_of_v<ex::SwapFileCommit, ex::OpenSwapFile>);
    static_assert(std::is_base_of_v<ex::ProjectVFS, ex::CopySwapFile>);
    static_assert(std::has_virtual_destructor_v<ex::ProjectVFS>);
}

TEST(Library, RegistersItsLogCategoriesWhenLoaded)
{
    EXPECT_TRUE(zo::log::hasCategory("ProjectVFS"));
    EXPECT_TRUE(zo::log::hasCategory("ProjectVfs"));
    EXPECT_TRUE(zo::log::hasCategory("ProjectDir"));
}

} // namespace
