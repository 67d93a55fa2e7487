#include <zo/log.h>
#include <zo/project/exceptions.h>
#include <zo/project/notifier.h>
#include <zo/project/projectdir.h>
#include <zo/project/projectwatcher.h>
#include <zo/test/support.h>

#include <QDateTime>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

namespace zo::project {
namespace {

using Events = QMap<QString, FileSystemEvent>;
using test::readFile;
using test::thrownBy;
using test::writeFile;

using Said = std::vector<std::string>;

// Loading the shared library registers its log categories, before any of its code runs.
TEST(Logging, TheLibraryRegistersItsCategoriesWhenLoaded)
{
    for (const char* category : { "ProjectVFS", "ProjectVfs", "ProjectDir" })
        EXPECT_TRUE(zo::log::hasCategory(category)) << category;
}

// A blocker switches watching off for its scope and then restores what it found, once also
// when it was moved.
TEST(Watcher, BlockerRestoresTheStateItFound)
{
    const QTemporaryDir dir;
    ProjectWatcher watcher(dir.path(), false, nullptr);
    for (const bool found : { true, false }) {
        watcher.enableWatching(found);
        {
            ProjectWatcher::Blocker blocker(&watcher);
            const ProjectWatcher::Blocker moved(std::move(blocker));
            EXPECT_FALSE(watcher.isWatching());
            watcher.enableWatching(true);
        }
        EXPECT_EQ(watcher.isWatching(), found);
    }
}

TEST(Watcher, FollowsLinksButListsALinkCycleOnce)
{
    const QTemporaryDir dir;
    writeFile(dir.filePath("sub/f"), "1");
    QFile::link("..", dir.filePath("sub/loop"));
    QFile::link("sub/f", dir.filePath("alias"));
    ProjectWatcher watcher(dir.path(), false, nullptr);
    QStringList files = watcher.xListAllPaths("");
    files.sort();
    EXPECT_EQ(files, QStringList({ dir.filePath("alias"), dir.filePath("sub/f") }));
    EXPECT_EQ(watcher.xListAllPaths("sub/f"), QStringList { dir.filePath("sub/f") });
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
    writeFile(at("d/one"), "1");
    ProjectDir project(dir.path());
    Heard heard(project.notifier());
    EXPECT_TRUE(project.isSaved());
    project.setWatching(true);

    // The project's own writes and saves are never outside changes.
    project.writeFile("a.txt", "new");
    EXPECT_EQ(readFile(at("a.txt")), "old");
    EXPECT_EQ(project.readFile("a.txt"), "new");
    project.save();
    project.checkSourcePendingChanges({});
    EXPECT_EQ(heard.take(), (Said { "unsaved", "saved" })) << "unsaved once, not twice";
    EXPECT_EQ(readFile(at("a.txt")), "new");

    // The outside removal of a file that lives on in its swap file is dropped; a hidden file is
    // not watched.
    project.writeFile("a.txt", "pending");
    QFile::remove(at("a.txt"));
    writeFile(at("b.txt"), "outside");
    writeFile(at(".hidden"), "not watched");
    QDir(at("d")).removeRecursively();
    project.checkSourcePendingChanges({});
    EXPECT_EQ(heard.take(), (Said { "unsaved", "{ b.txt:0 d/one:1}" }));

    project.load(dir.path());
    ProjectDir moved(std::move(project));
    EXPECT_TRUE(project.isSaved());
    EXPECT_TRUE(moved.isWatching());
    Heard heardByMovedFrom(project.notifier());
    // Same time, other size.
    const QDateTime time = QFileInfo(at("b.txt")).lastModified();
    writeFile(at("b.txt"), "changed outside");
    QFile changed(at("b.txt"));
    ASSERT_TRUE(changed.open(QIODevice::ReadWrite)
        && changed.setFileTime(time, QFileDevice::FileModificationTime));
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
