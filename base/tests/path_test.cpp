#include <zo/path.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Path, FilenameIsTheBytesAfterTheLastSlash)
{
    using namespace std::string_literals;
    EXPECT_EQ(zo::Path("/usr/bin/app").filename(), "app");
    EXPECT_EQ(zo::Path("app").filename(), "app");
    EXPECT_EQ(zo::Path("/usr/bin/").filename(), "");
    EXPECT_EQ(zo::Path("").filename(), "");
    // NUL bytes are part of the name, as in the argument block of /proc/<pid>/cmdline.
    EXPECT_EQ(zo::Path("/bin/app\0--flag\0/x/y"s).filename(), "y");
    EXPECT_EQ(zo::Path("/bin/app\0--flag\0"s).filename(), "app\0--flag\0"s);
}

} // namespace
