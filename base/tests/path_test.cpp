#include <zo/os.h>
#include <zo/path.h>
#include <zo/unicode.h>

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cwchar>
#include <string>
#include <unistd.h>

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

TEST(Os, PidAndUtf8Fopen)
{
    EXPECT_EQ(zo::os::getpid(), static_cast<int>(::getpid()));

    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::string path = dir.filePath(QStringLiteral("ünïcødé.txt")).toStdString();
    FILE* out = zo::os::fopen(path.c_str(), "w");
    ASSERT_NE(out, nullptr);
    std::fputs("hi", out);
    std::fclose(out);
    EXPECT_TRUE(QFile::exists(QString::fromStdString(path)));
    EXPECT_EQ(zo::os::fopen((path + "/missing").c_str(), "r"), nullptr);
    EXPECT_TRUE(zo::os::sync(path.c_str()));
    EXPECT_TRUE(zo::os::sync(dir.path().toStdString().c_str()));
    EXPECT_FALSE(zo::os::sync((path + "/missing").c_str()));
}

TEST(Unicode, FacetRoundTripsNonAscii)
{
    const zo::PathCodecvt& facet = zo::unicodeFacet();
    const std::wstring wide = L"d\u00e9j\u00e0/\u6587\U0001F600";
    std::mbstate_t state {};
    std::string narrow(wide.size() * 4, '\0');
    const wchar_t* fromNext = nullptr;
    char* toNext = nullptr;
    ASSERT_EQ(facet.out(state, wide.data(), wide.data() + wide.size(), fromNext, &narrow[0],
                  &narrow[0] + narrow.size(), toNext),
        std::codecvt_base::ok);
    narrow.resize(static_cast<size_t>(toNext - narrow.data()));
    EXPECT_EQ(narrow, "d\xc3\xa9j\xc3\xa0/\xe6\x96\x87\xf0\x9f\x98\x80");
    EXPECT_EQ(&facet, &zo::unicodeFacet());
}

} // namespace
