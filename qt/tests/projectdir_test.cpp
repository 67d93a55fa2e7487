#include <zo/project/exceptions.h>
#include <zo/project/notifier.h>
#include <zo/project/projectdir.h>
#include <zo/project/projectwatcher.h>
#include <zo/test/support.h>

#include <QDateTime>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

namespace zo::project {
namespace {

using Events = QMap<QString, FileSystemEvent>;
using Changes = Events;
using test::readFile;
using test::thrownBy;
using test::writeFile;

using Said = std::vector<std::string>;

class Watcher : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        // The spy keeps the map in a QVariant; applications that queue it register it too.
        qRegisterMetaType<Changes>("QMap<QString, zo::project::FileSystemEvent>");
    }

    QString at(const QString& name) const { return dir.filePath(name); }
    // The map that one check emits, its paths relative to the root; empty when it emits none.
    Changes check()
    {
        QSignalSpy spy(&watcher, qOverload<const Changes&>(&ProjectWatcher::contentChanged));
        watcher.checkPendingChanges({});
        EXPECT_LE(spy.size(), 1);
        Changes relative;
        const Changes changes = spy.isEmpty() ? Changes {} : spy.at(0).at(0).value<Changes>();
        for (auto change = changes.begin(); change != changes.end(); ++change)
            relative.insert(QDir(dir.path()).relativeFilePath(change.key()), change.value());
        return relative;
    }
    static void setTime(const QString& path, const QDateTime& time)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite)
            && file.setFileTime(time, QFileDevice::FileModificationTime));
    }

    QTemporaryDir dir;
    ProjectWatcher watcher { dir.path(), false, nullptr };
};

// A project's own writes happen under a blocker and are never reported as outside changes.
TEST_F(Watcher, ReportsOutsideChangesAndAbsorbsThoseMadeWhileBlocked)
{
    writeFile(at("keep"), "1234");
    writeFile(at("d/one"), "1");
    watcher.enableWatching(true);
    {
        ProjectWatcher::Blocker blocker(&watcher);
        EXPECT_FALSE(watcher.isWatching());
        ProjectWatcher::Blocker moved(std::move(blocker));
        writeFile(at("own"), "written by the project itself");
    }
    EXPECT_TRUE(watcher.isWatching());
    EXPECT_EQ(check(), Changes {});

    writeFile(at("new"), "x");
    writeFile(at(".hidden"), "not watched");
    QDir(at("d")).removeRecursively();
    // Same time, other size.
    const QDateTime time = QFileInfo(at("keep")).lastModified();
    writeFile(at("keep"), "abcde");
    setTime(at("keep"), time);
    EXPECT_EQ(check(), (Changes { { "d/one", Removed }, { "keep", Modified }, { "new", Added } }));

    watcher.enableWatching(false);
    {
        const ProjectWatcher::Blocker blocker(&watcher);
        watcher.enableWatching(true);
    }
    EXPECT_FALSE(watcher.isWatching()) << "restores the state before the blocker";
}

TEST_F(Watcher, FollowsLinksButListsALinkCycleOnce)
{
    writeFile(at("sub/f"), "1");
    QFile::link("..", at("sub/loop"));
    QFile::link("sub/f", at("alias"));
    QStringList files = watcher.xListAllPaths("");
    files.sort();
    EXPECT_EQ(files, QStringList({ at("alias"), at("sub/f") }));
    EXPECT_EQ(watcher.xListAllPaths("sub/f"), QStringList { at("sub/f") });
}

// What one notifier said, in order: "saved", "unsaved", or the event map as {path:kind ...}.
struct Heard : Said {
    explicit Heard(detail::Notifier2* notifier)
    {
        QObject::connect(notifier, &detail::Notifier2::saved,
            [this](bool saved) { push_back(saved ? "saved" : "unsaved"); });
        QObject::connect(notifier, &detail::Notifier2::sourceProjectEvent, [this](const Events& e) {
            std::string all;
            for (auto event = e.begin(); event != e.end(); ++event)
                all += " " + event.key().toStdString() + ":" + std::to_string(event.value());
            push_back("{" + all + "}");
        });
    }
    Said take() { return std::exchange(static_cast<Said&>(*this), {}); }
};

class DirectoryProject : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    QString at(const QString& name) const { return dir.filePath(name); }

    QTemporaryDir dir;
};

TEST_F(DirectoryProject, SavedFlagFollowsWritesSavesOutsideChangesAndMoves)
{
    writeFile(at("a.txt"), "old");
    ProjectDir project(dir.path());
    Heard heard(project.notifier());
    EXPECT_TRUE(project.isSaved());

    project.writeFile("a.txt", "new");
    EXPECT_EQ(heard.take(), Said { "unsaved" }) << "once, from the engine or from writeFile";
    EXPECT_EQ(readFile(at("a.txt")), "old");
    EXPECT_EQ(project.readFile("a.txt"), "new");
    project.save();
    EXPECT_EQ(heard.take(), Said { "saved" });
    EXPECT_EQ(readFile(at("a.txt")), "new");

    // The outside removal of a file that lives on in its swap file is dropped from the map.
    project.setWatching(true);
    project.writeFile("a.txt", "pending");
    QFile::remove(at("a.txt"));
    writeFile(at("b.txt"), "outside");
    project.checkSourcePendingChanges({});
    EXPECT_EQ(heard.take(), (Said { "unsaved", "{ b.txt:0}" }));

    project.load(dir.path());
    ProjectDir moved(std::move(project));
    EXPECT_TRUE(project.isSaved());
    EXPECT_TRUE(moved.isWatching());
    Heard heardByMovedFrom(project.notifier());
    writeFile(at("b.txt"), "changed outside");
    moved.checkSourcePendingChanges({});
    EXPECT_EQ(heard.take(), (Said { "saved", "unsaved", "{ b.txt:2}" }));
    EXPECT_TRUE(heardByMovedFrom.empty());
    EXPECT_THROW(project.readFile("b.txt"), exception::ProjectPathDoesNotExists);
    project.load(dir.path());
    EXPECT_EQ(project.readFile("b.txt"), "changed outside") << "a moved-from project can be loaded";
    EXPECT_THAT(thrownBy([&] { moved.setPath(at("missing")); }),
        testing::HasSubstr(at("missing").toStdString()));
    EXPECT_EQ(moved.path(), dir.path());
}

// Nothing is read or written relative to the working directory.
TEST_F(DirectoryProject, WithoutAPathFileOperationsThrowUntilOneIsSet)
{
    ProjectDir project;
    const std::vector<std::function<void()>> operations { [&] { project.readFile("a"); },
        [&] { project.writeFile("a", "x"); }, [&] { project.save(); }, [&] { project.remove("a"); },
        [&] { project.mkdir("a", true); }, [&] { project.recoverableFiles(); } };
    for (const auto& operation : operations)
        EXPECT_THROW(operation(), exception::ProjectPathDoesNotExists);
    project.setWatching(true);
    project.load(dir.path());
    EXPECT_TRUE(project.isWatching());
    project.writeFile("a", "x");
    EXPECT_EQ(readFile(at("a")), "<missing>");
}

TEST_F(DirectoryProject, ShortWriteOnAFullFileSystemNamesThePath)
{
    const test::ScopedMount tmpfs(dir.path(), "size=64k");
    if (!tmpfs.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    ProjectDir project(dir.path());
    // The path is padded on the left with the character whose code is the size of the data.
    EXPECT_THAT(thrownBy([&] { project.writeFile("big", QByteArray((1 << 20) + '*', 'x')); }),
        testing::AllOf(testing::StartsWith("IOWriteError: Project write file error: "),
            testing::HasSubstr(at("big").toStdString())));
}

} // namespace
} // namespace zo::project
