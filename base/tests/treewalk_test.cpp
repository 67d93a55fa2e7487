#include <zo/test/support.h>
#include <zo/treewalk.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using zo::os::EntryType;
using zo::os::ListingCache;
using zo::os::WalkEntry;
using zo::os::WalkOptions;
using zo::os::WalkStep;
using Seen = std::map<std::string, std::string>;

// root: a (3 bytes), .h, d/x, d/.y, d/up -> .., lf -> a, ld -> d, lb -> missing
class TreeWalk : public ::testing::Test {
protected:
    void SetUp() override
    {
        const QDir root(dir.path());
        for (const char* name : { "a", ".h", "d/x", "d/.y" })
            zo::test::writeFile(root.filePath(name), "abc");
        QFile::link("..", root.filePath("d/up"));
        QFile::link("a", root.filePath("lf"));
        QFile::link("d", root.filePath("ld"));
        QFile::link("missing", root.filePath("lb"));
    }

    // path -> type letter (F, D, L, O), with "@" when the entry is a link itself.
    Seen walk(
        const WalkOptions& options, const std::function<WalkStep(const WalkEntry&)>& step = nullptr)
    {
        Seen seen;
        EXPECT_TRUE(zo::os::walkTree(dir.path().toStdString(), options, [&](const WalkEntry& e) {
            EXPECT_EQ(seen.count(std::string(e.path)), 0u) << e.path;
            EXPECT_EQ(e.path.substr(e.path.size() - e.name.size()), e.name);
            std::string letter(1, "FDLO"[static_cast<int>(e.type)]);
            seen[std::string(e.path)] = e.isLink ? letter + "@" : letter;
            return step ? step(e) : WalkStep::Continue;
        }));
        return seen;
    }

    QTemporaryDir dir;
};

TEST_F(TreeWalk, FiltersHiddenNamesAndFollowsLinksOutsideItsOwnDescentPath)
{
    const Seen followed { { "a", "F" }, { "d", "D" }, { "d/x", "F" }, { "d/up", "D@" },
        { "lf", "F@" }, { "ld", "D@" }, { "ld/x", "F" }, { "ld/up", "D@" }, { "lb", "L@" } };
    EXPECT_EQ(walk(WalkOptions {}), followed);

    auto withHidden = followed;
    withHidden.insert({ { ".h", "F" }, { "d/.y", "F" }, { "ld/.y", "F" } });
    EXPECT_EQ(walk({ /* includeHidden */ true, true, true, {}, {} }), withHidden);
    EXPECT_EQ(walk({ false, /* followLinks */ false, true, {}, {} }),
        (Seen { { "a", "F" }, { "d", "D" }, { "d/x", "F" }, { "d/up", "L@" }, { "lf", "L@" },
            { "ld", "L@" }, { "lb", "L@" } }));

    EXPECT_EQ(walk({ false, true, /* recursive */ false, {}, {} }).count("d/x"), 0u);
}

TEST_F(TreeWalk, VisitorSkipsOrStopsAndReadsStatusOnDemand)
{
    const auto skipped = walk(WalkOptions {}, [](const WalkEntry& e) {
        return e.name == "d" ? WalkStep::SkipDirectory : WalkStep::Continue;
    });
    EXPECT_EQ(skipped.count("d/x"), 0u);
    EXPECT_EQ(skipped.count("ld/x"), 1u);

    int visits = 0;
    walk(WalkOptions {},
        [&](const WalkEntry&) { return ++visits == 2 ? WalkStep::Stop : WalkStep::Continue; });
    EXPECT_EQ(visits, 2);

    std::map<std::string, std::uint64_t> sizes;
    walk(WalkOptions {}, [&](const WalkEntry& e) {
        if (e.type == EntryType::File)
            sizes[std::string(e.path)] = e.status()->size;
        EXPECT_EQ(e.status() == nullptr, e.name == "lb");
        return WalkStep::Continue;
    });
    EXPECT_EQ(sizes.at("lf"), 3u);
    EXPECT_EQ(sizes.at("d/x"), 3u);

    EXPECT_FALSE(zo::os::walkTree(dir.filePath("a").toStdString(), {}, nullptr));
    EXPECT_EQ(zo::os::status(dir.filePath("lf").toLocal8Bit().constData())->size, 3u);
    EXPECT_FALSE(zo::os::status(dir.filePath("lb").toLocal8Bit().constData()));
}

// Walks that take listings from a cache see what walks that read every directory see, through
// random changes to a tree whose directories had all settled before the first walk: entries made,
// removed and moved, directories made, removed, replaced by links and mounted over. A mount
// anywhere makes the next walk read everything again.
TEST(ListingCache, WalksSeeWhatAFreshWalkSeesThroughRandomChanges)
{
    namespace fs = std::filesystem;
    QTemporaryDir dir;
    // A file system known to keep exact times, where one can be mounted.
    const zo::test::ScopedMount volume(dir.path(), "size=16m");
    std::vector<std::unique_ptr<zo::test::ScopedMount>> mountedOver;
    const fs::path root = dir.path().toStdString();
    std::mt19937 random(20261124);
    const std::vector<std::string> names { "a", "a.b", ".h", "ab", "n\nl", "\xff", ".x.1.csp" };
    const auto name = [&] { return names[random() % names.size()] + std::to_string(random() % 9); };
    // Every entry below root, links not followed.
    const auto entries = [&](bool directoriesOnly) {
        std::vector<fs::path> found { root };
        for (const auto& entry : fs::recursive_directory_iterator(root))
            if (!directoriesOnly || (entry.is_directory() && !entry.is_symlink()))
                found.push_back(entry.path());
        return found;
    };
    const auto any = [&](bool directoriesOnly) {
        const std::vector<fs::path> found = entries(directoriesOnly);
        return found[random() % found.size()];
    };
    for (int i = 0; i < 30; ++i)
        fs::create_directories(any(true) / name());
    // Where the name is a directory already, nothing is made.
    const auto makeFile = [&] { std::ofstream(any(true) / name()) << 'x'; };
    for (int i = 0; i < 120; ++i)
        makeFile();
    for (int i = 0; i < 6; ++i)
        fs::create_directory_symlink(any(true), any(true) / ("l" + name()));

    WalkOptions options;
    options.includeHidden = true;
    options.arrange = [](zo::os::DirectoryListing& listing) {
        auto& listed = listing.entries;
        listed.erase(std::remove_if(listed.begin(), listed.end(),
                         [](const zo::os::ListedEntry& e) { return e.name.front() == 'a'; }),
            listed.end());
    };
    ListingCache caches[2];
    const auto seen = [&](bool followLinks, bool cached) {
        WalkOptions walk = options;
        walk.followLinks = followLinks;
        walk.cache = cached ? &caches[followLinks] : nullptr;
        Seen found;
        zo::os::walkTree(root.string(), walk, [&](const WalkEntry& e) {
            found[std::string(e.path)] = std::string(1, "FDLO"[static_cast<int>(e.type)]);
            return WalkStep::Continue;
        });
        return found;
    };

    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    for (const bool followLinks : { false, true })
        EXPECT_EQ(seen(followLinks, true), seen(followLinks, false));
    const auto rootKept = [&] {
        const zo::os::UniqueFd opened = zo::os::openDirectory(root.c_str());
        return caches[0].find(opened.get(), *zo::os::status(opened.get())) != nullptr;
    };
    if (!rootKept())
        GTEST_SKIP() << "no listing kept: the file system keeps no exact times";
    // A mount anywhere may have put another file system on a device.
    QTemporaryDir elsewhere;
    if (zo::test::ScopedMount(elsewhere.path(), "size=1m").mounted) {
        caches[0].beginWalk();
        EXPECT_FALSE(rootKept());
    }

    for (int round = 0; round < 60; ++round) {
        std::error_code ignored;
        switch (random() % 6) {
        case 0:
            makeFile();
            break;
        case 1:
            fs::remove_all(any(false), ignored);
            break;
        case 2:
            fs::rename(any(false), any(true) / name(), ignored);
            break;
        case 3:
            fs::create_directory(any(true) / name(), ignored);
            break;
        case 4: {
            const fs::path replaced = any(true);
            if (fs::rename(replaced, any(true) / name(), ignored); !ignored)
                fs::create_directory_symlink(any(true), replaced, ignored);
            break;
        }
        case 5:
            mountedOver.push_back(
                std::make_unique<zo::test::ScopedMount>(any(true).string(), "size=1m"));
            break;
        }
        for (const bool followLinks : { false, true })
            EXPECT_EQ(seen(followLinks, true), seen(followLinks, false)) << "round " << round;
    }
    while (!mountedOver.empty())
        mountedOver.pop_back();
}

} // namespace
