// Unpacking: where entries land, what an interrupted unpack leaves, hard links.

#include "sample_tree.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace zo::project;
using namespace zo::project::test;
namespace fs = std::filesystem;

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
