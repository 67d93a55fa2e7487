#include <zo/log.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

using Line = std::tuple<std::string, int, std::string>;

TEST(Log, CategoriesAreRegisteredOnce)
{
    EXPECT_FALSE(zo::log::hasCategory("LogTestCategory"));
    zo::log::addCategory("LogTestCategory");
    zo::log::addCategory("LogTestCategory");
    EXPECT_TRUE(zo::log::hasCategory("LogTestCategory"));
}

TEST(Log, InstalledSinkSeesEveryLevelAndIsReplaceable)
{
    std::vector<Line> lines;
    auto previous = zo::log::setSink(
        [&](const std::string& c, int l, const std::string& m) { lines.emplace_back(c, l, m); });
    zo::log::log("A", zo::log::Fatal, "first");
    zo::log::log("B", zo::log::Debug, "second");
    zo::log::log("B", 9, "beyond debug");
    auto mine = zo::log::setSink(previous);
    ASSERT_TRUE(mine);
    zo::log::log("C", zo::log::Fatal, "not captured");

    const std::vector<Line> expected { { "A", 0, "first" }, { "B", 5, "second" },
        { "B", 9, "beyond debug" } };
    EXPECT_EQ(lines, expected);
}

// The default sink reads its threshold once per process, so each case runs in a child.
std::string stderrOfChild(const char* threshold)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe failed";
    const pid_t child = fork();
    if (child == 0) {
        dup2(fds[1], STDERR_FILENO);
        if (threshold)
            setenv("ZO_LOG_LEVEL", threshold, 1);
        else
            unsetenv("ZO_LOG_LEVEL");
        zo::log::log("Cat", zo::log::Warning, "warned");
        zo::log::log("Cat", zo::log::Info, "noted");
        zo::log::log("Cat", zo::log::Error, "failed");
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buffer[256];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0)
        out.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return out;
}

TEST(Log, DefaultSinkFiltersByEnvironmentThreshold)
{
    EXPECT_EQ(stderrOfChild(nullptr), "Cat: warning: warned\nCat: error: failed\n");
    EXPECT_EQ(stderrOfChild("4"), "Cat: warning: warned\nCat: info: noted\nCat: error: failed\n");
    EXPECT_EQ(stderrOfChild("2"), "Cat: error: failed\n");
}

} // namespace
