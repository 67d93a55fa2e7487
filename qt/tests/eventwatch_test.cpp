// The watcher that reads again only what the kernel reported changed must say exactly what the
// one listing the whole tree says, at every check, whatever happens to the tree.
#include <zo/project/projectwatcher.h>
#include <zo/test/support.h>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

namespace zo::project {
namespace {

namespace fs = std::filesystem;
using Events = QMap<QString, FileSystemEvent>;

int queueLimit()
{
    return std::stoi(test::firstLineOf("/proc/sys/fs/inotify/max_queued_events").toStdString());
}

// Runs seeded random changes below root (links may lead to outside) through an event-assisted
// and a full-listing watcher, checking both after every step or few; returns how many checks
// disagreed, telling the first on standard error.
int disagreements(unsigned seed, const fs::path& root, const fs::path& outside)
{
    std::mt19937 random(seed);
    const auto pick = [&random](std::size_t count) { return std::size_t(random()) % count; };
    const bool showHidden = seed % 2 == 0;
    ProjectWatcher assisted(QFile::decodeName(root.c_str()), showHidden, nullptr);
    ProjectWatcher full(QFile::decodeName(root.c_str()), showHidden, nullptr);
    full.setEventAssisted(false);
    Events heard[2];
    for (ProjectWatcher* watcher : { &assisted, &full }) {
        QObject::connect(watcher, qOverload<const Events&>(&ProjectWatcher::contentChanged),
            [&heard, watcher, &full](const Events& e) { heard[watcher == &full] = e; });
        watcher->enableWatching(true);
    }
    const char* const names[] = { "a", "a-", "a.b", "a0", "ab", "a\nb", "\xff\xfe", ".h" };
    std::unique_ptr<test::ScopedMount> mount;
    int wrong = 0;
    for (int step = 0; step < 120; ++step) {
        std::vector<fs::path> dirs { root, outside };
        std::vector<fs::path> entries;
        for (auto it = fs::recursive_directory_iterator(root); it != fs::end(it); ++it) {
            entries.push_back(it->path());
            if (it->symlink_status().type() == fs::file_type::directory)
                dirs.push_back(it->path());
        }
        const fs::path in = dirs[pick(dirs.size())] / names[pick(std::size(names))];
        const fs::path some = entries.empty() ? in : entries[pick(entries.size())];
        std::error_code ignored;
        switch (pick(10)) {
        case 0:
        case 1: // also through a link, or a second name, to a file elsewhere
            std::ofstream(pick(2) ? in : some) << std::string(pick(3), 'x');
            break;
        case 2:
            fs::remove_all(some, ignored);
            break;
        case 3:
            fs::rename(some, in, ignored);
            break;
        case 4:
            fs::create_directories(in, ignored);
            break;
        case 5: // a directory replaced by a file or a link, maybe to outside or an ancestor
            fs::remove_all(some, ignored);
            if (pick(2) == 0)
                std::ofstream(some) << "was a directory";
            else
                fs::create_symlink(
                    pick(2) ? dirs[pick(dirs.size())] : outside / "f", some, ignored);
            break;
        case 6: { // a new time, the same size
            const timespec times[2] = { { 0, UTIME_OMIT }, { long(pick(1000000)), 0 } };
            ::utimensat(AT_FDCWD, some.c_str(), times, AT_SYMLINK_NOFOLLOW);
            break;
        }
        case 7:
            fs::create_hard_link(some, in, ignored);
            break;
        case 8: // lost notices: a full queue, then a change it cannot tell
            if (pick(4) != 0 || dirs.size() < 3)
                break;
            std::ofstream(root / "a") << "touched";
            for (int i = 0; i <= queueLimit(); ++i)
                ::utimensat(AT_FDCWD, (i % 2 ? root : root / "a").c_str(), nullptr, 0);
            std::ofstream(dirs.back() / "b") << "after the overflow";
            break;
        case 9: // a file system mounted over a directory, or taken away again
            if (mount || dirs.size() > 2)
                mount.reset(
                    mount ? nullptr : new test::ScopedMount(dirs.back().c_str(), "size=1m"));
            break;
        }
        if (pick(3) != 0)
            continue;
        heard[0] = heard[1] = Events();
        assisted.checkPendingChanges();
        full.checkPendingChanges();
        if (heard[0] != heard[1] && wrong++ == 0)
            std::cerr << "seed " << seed << " step " << step << ": assisted heard "
                      << QStringList(heard[0].keys()).join(' ').toStdString() << ", full "
                      << QStringList(heard[1].keys()).join(' ').toStdString() << "\n";
    }
    return wrong;
}

class EventWatch : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(root);
        fs::create_directories(outside);
        std::ofstream(outside / "f") << "outside";
    }
    // Some names are no UTF-8, which QTemporaryDir cannot remove.
    void TearDown() override { fs::remove_all(scratch.path().toStdString()); }

    QTemporaryDir scratch;
    const fs::path root = fs::path(scratch.path().toStdString()) / "tree";
    const fs::path outside = fs::path(scratch.path().toStdString()) / "outside";
};

TEST_F(EventWatch, SaysWhatTheFullListingSaysWhateverChanges)
{
    for (unsigned seed = 1; seed <= 10; ++seed) {
        fs::remove_all(root);
        fs::create_directories(root);
        EXPECT_EQ(disagreements(seed, root, outside), 0) << "seed " << seed;
    }
}

// Past the per-user limit of watches it lists the whole tree, as correct as ever.
TEST_F(EventWatch, PastTheWatchLimitListsEverything)
{
    const pid_t child = ::fork();
    if (child == 0) {
        // A user namespace of its own lowers the limit for this process alone.
        const auto write = [](const char* path, const char* text) { std::ofstream(path) << text; };
        if (::unshare(CLONE_NEWUSER) != 0)
            ::_exit(100);
        write("/proc/self/setgroups", "deny");
        write("/proc/self/uid_map", "0 0 1");
        write("/proc/self/gid_map", "0 0 1");
        write("/proc/sys/user/max_inotify_watches", "3");
        ::_exit(test::firstLineOf("/proc/sys/user/max_inotify_watches") != "3"
                ? 100
                : std::min(disagreements(7, root, outside), 99));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 100)
        GTEST_SKIP() << "cannot lower the watch limit here";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

} // namespace
} // namespace zo::project
