#include <zo/test/support.h>
#include <zo/treewalk.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <map>
#include <string>

namespace {

using zo::os::EntryType;
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

} // namespace
