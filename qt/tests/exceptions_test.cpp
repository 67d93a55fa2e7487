#include <zo/log.h>
#include <zo/project/exceptions.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace ex = zo::project::exception;

namespace {

// Callers catch the failures of a commit as one group, and every engine error as another.
template <typename Base, typename... Derived>
constexpr bool allDerive = (std::is_base_of_v<Base, Derived> && ...);
static_assert(allDerive<ex::SwapFileCommit, ex::SwapFileRename, ex::SourceFileRename,
    ex::SourceFileBackupRemove, ex::SwapFileRemove, ex::SourceFileDoesNotExists>);
static_assert(!std::
                  is_base_of_v<
                      ex::SwapFileCommit, ex::SwapFileAlreadyExists> && !std::is_base_of_v<ex::SwapFileCommit, ex::CreateSwapFile> && !std::is_base_of_v<ex::SwapFileCommit, ex::CopySwapFile> && !std::is_base_of_v<ex::SwapFileCommit, ex::OpenSwapFile> && !std::is_base_of_v<ex::SwapFileCommit, ex::ProjectPathDoesNotExists> && !std::is_base_of_v<ex::SwapFileCommit, ex::ProjectNotCommitted>);
static_assert(allDerive<ex::ProjectVFS, ex::SwapFileCommit, ex::CopySwapFile, ex::OpenSwapFile,
    ex::ProjectNotCommitted, ex::ProjectPathDoesNotExists>);
static_assert(allDerive<std::runtime_error, ex::ProjectVFS>);

TEST(Library, RegistersItsLogCategoriesWhenLoaded)
{
    EXPECT_TRUE(zo::log::hasCategory("ProjectVFS"));
    EXPECT_TRUE(zo::log::hasCategory("ProjectVfs"));
    EXPECT_TRUE(zo::log::hasCategory("ProjectDir"));
}

} // namespace
