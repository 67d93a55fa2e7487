#include <zo/log.h>
#include <zo/test/support.h>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using zo::test::LogCapture;

TEST(Log, CategoriesAreRegisteredAndInstalledSinksStackWhateverTheLevel)
{
    EXPECT_FALSE(zo::log::hasCategory("LogTestCategory"));
    zo::log::addCategory("LogTestCategory");
    EXPECT_TRUE(zo::log::hasCategory("LogTestCategory"));

    LogCapture outer;
    {
        LogCapture inner;
        zo::log::log("A", zo::log::Fatal, "first");
        zo::log::log("B", 9, "beyond debug");
        EXPECT_EQ(inner.lines,
            (std::vector<LogCapture::Line> { { "A", 0, "first" }, { "B", 9, "beyond debug" } }));
    }
    zo::log::log("C", zo::log::Debug, "after");
    EXPECT_EQ(outer.lines, (std::vector<LogCapture::Line> { { "C", 5, "after" } }));
}

// The default sink reads its threshold once per process, so each case runs in a child.
TEST(Log, DefaultSinkFiltersByEnvironmentThreshold)
{
    const QTemporaryDir dir;
    const std::string path = dir.filePath("stderr").toStdString();
    for (const auto& [threshold, expected] :
        { std::pair<const char*, const char*> { nullptr, "Cat: warning: at 3\nCat: error: at 2\n" },
            { "4", "Cat: warning: at 3\nCat: info: at 4\nCat: error: at 2\n" },
            { "2", "Cat: error: at 2\n" } }) {
        if (fork() == 0) {
            threshold ? setenv("ZO_LOG_LEVEL", threshold, 1) : unsetenv("ZO_LOG_LEVEL");
            if (std::freopen(path.c_str(), "w", stderr))
                for (const int level : { zo::log::Warning, zo::log::Info, zo::log::Error })
                    zo::log::log("Cat", level, "at " + std::to_string(level));
            _exit(std::fflush(stderr));
        }
        wait(nullptr);
        EXPECT_EQ(zo::test::readFile(path), expected) << (threshold ? threshold : "unset");
    }
}

} // namespace
