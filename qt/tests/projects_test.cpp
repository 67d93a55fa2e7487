// The two projects over the engine: a directory project, watched for outside changes, and an
// archive project, edited in a workspace of its own and saved whole.
#include <zo/fault.h>
#include <zo/project/archive.h>
#include <zo/project/exceptions.h>
#include <zo/project/notifier.h>
#include <zo/project/projectdir.h>
#include <zo/project/projectmodel.h>
#include <zo/project/projectwatcher.h>
#include <zo/test/support.h>

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <thread>

namespace zo::project {
namespace {

using namespace test;
using Events = QMap<QString, FileSystemEvent>;
using Said = std::vector<std::string>;
using Step = os::fault::Step;

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
    EXPECT_THAT(thrownBy([&] { moved.setPath(at("missing")); }),
        testing::HasSubstr(at("missing").toStdString()));
    EXPECT_EQ(moved.path(), dir.path());
}

// Another project loaded leaves the first one's edits there, for this same process to recover.
TEST_F(DirectoryProject, LoadingAnotherProjectLeavesThePendingEditsOfTheFirst)
{
    using Files = QMap<QString, QByteArray>;
    writeFile(at("two/old.txt"), "two");
    QDir(dir.path()).mkdir("one");
    ProjectDir project(at("one"));
    project.writeFile("new.txt", "draft");
    project.writeFile("old.txt", "edited");
    project.load(at("two"));
    EXPECT_TRUE(project.isSaved());
    project.writeFile("readme.txt", "r");
    project.save();
    EXPECT_EQ(filesBelow(at("two")), (Files { { "old.txt", "two" }, { "readme.txt", "r" } }));
    project.load(at("one"));
    for (const auto& info : project.recoverableFiles())
        project.recoverFile(info);
    project.save();
    EXPECT_EQ(filesBelow(at("one")), (Files { { "new.txt", "draft" }, { "old.txt", "edited" } }));
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

// Each test gets a temporary directory of its own, so that the workspaces it lists are its own.
class ArchiveProject : public ::testing::Test {
protected:
    void SetUp() override
    {
        QDir(scratch.path()).mkdir("tmp");
        previousTemp = qgetenv("TMPDIR");
        qputenv("TMPDIR", QFile::encodeName(at("tmp")));
    }
    void TearDown() override { qputenv("TMPDIR", previousTemp); }

    QString at(const QString& name) const { return scratch.filePath(name); }
    QStringList tempEntries() const
    {
        return QDir(at("tmp"))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
            .filter(QRegularExpression("^(?!\\.zo-owner-)"));
    }
    // An archive holding a.txt, in the format its name tells.
    QString archive(const QString& name)
    {
        ProjectModel model;
        model.writeFile("a.txt", "from the archive");
        model.save(at(name), ArchiveFormat::Auto, false);
        return at(name);
    }

    QTemporaryDir scratch;
    QByteArray previousTemp;
};

// A save without a format keeps the one the name or the source tells.
TEST_F(ArchiveProject, SavedFlagAndFormatOfEverySaveAndLoad)
{
    ProjectModel model;
    model.writeFile("a.txt", "a");
    const std::tuple<const char*, ArchiveFormat, ArchiveFormat> rows[]
        = { { "p.tar.gz", ArchiveFormat::Auto, ArchiveFormat::TarGz },
              { "no-extension", ArchiveFormat::Auto, ArchiveFormat::Zip },
              { "", ArchiveFormat::Native, ArchiveFormat::Zip }, // the source's: the last save's
              { "p.tar", ArchiveFormat::TarXz, ArchiveFormat::TarXz } };
    for (const auto& [name, asked, written] : rows) {
        SCOPED_TRACE(name);
        model.save(name[0] ? at(name) : QString(), asked, true);
        EXPECT_EQ(detectFormat(model.getSourcePath().toStdString()), written);
        EXPECT_TRUE(model.isSaved());
    }
    EXPECT_EQ(model.getSourcePath(), at("p.tar"));
    model.writeFile("a.txt", "b");
    EXPECT_FALSE(model.isSaved());
    model.load(at("p.tar.gz"), ArchiveFormat::Auto);
    // A failed load keeps the open project.
    writeFile(at("broken.zip"), "not an archive");
    EXPECT_THROW(model.load(at("broken.zip"), ArchiveFormat::Auto), std::exception);
    EXPECT_EQ(model.getSourcePath(), at("p.tar.gz"));
    EXPECT_TRUE(model.isSaved());
    EXPECT_EQ(model.readFile("a.txt"), "a");
    ProjectModel().writeFile("gone.txt", "with its workspace");
    EXPECT_EQ(tempEntries().size(), 2) << "one workspace and its record: the live model's";
}

// Also an unsafe save: it never destroys the previous archive either.
TEST_F(ArchiveProject, FailedSavesLeaveThePreviousArchiveAndNoTemporaryFile)
{
    // A tar: libarchive's zip writer leaks its compressor when the disk fills up.
    const QString target = archive("old.tar");
    const QByteArray before = readFile(target);
    ProjectModel model;
    model.writeFile("big.bin", QByteArray(1 << 20, 'x'));
    // Each step of a save that can fail: the sync of the new archive and its rename over the
    // target, safe or not, as every save writes beside the target.
    for (const auto& [safe, step, nth] :
        { std::tuple { false, Step::Rename, 1 }, { true, Step::Rename, 1 },
            { false, Step::SyncFile, 1 }, { true, Step::SyncFile, 1 } }) {
        os::fault::inject(step, nth, EIO);
        SCOPED_TRACE(thrownBy([&] { model.save(target, ArchiveFormat::Auto, safe); }));
        os::fault::clear();
        EXPECT_TRUE(readFile(target) == before) << "the previous archive changed";
        EXPECT_EQ(
            QDir(scratch.path()).entryList(QDir::Files | QDir::Hidden), QStringList { "old.tar" });
        EXPECT_FALSE(model.isSaved());
    }

    const QString full = at("full");
    QDir().mkpath(full);
    const test::ScopedMount tmpfs(full, "size=256k");
    if (!tmpfs.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    QFile::copy(target, full + "/old.tar");
    QFile noise("/dev/urandom");
    ASSERT_TRUE(noise.open(QIODevice::ReadOnly));
    model.writeFile("noise.bin", noise.read(512 * 1024)); // does not compress
    for (const bool safe : { false, true }) {
        EXPECT_THAT(thrownBy([&] { model.save(full + "/old.tar", ArchiveFormat::Auto, safe); }),
            testing::StartsWith("IOWriteError: "));
        EXPECT_EQ(test::filesBelow(full), (QMap<QString, QByteArray> { { "old.tar", before } }));
    }
}

// A save that replaces a directory swaps the new tree in whole. A failed swap changes nothing;
// when only its flush fails, the previous tree stays whole beside the target, as a system crash
// could still undo the swap.
TEST_F(ArchiveProject, DirectorySaveSwapsTheTreeInWholeAndKeepsThePreviousWhileItMayNotLast)
{
    writeFile(at("project/old.txt"), "old");
    ProjectModel model;
    model.writeFile("new.txt", "new");
    const auto hidden = [&] {
        return QDir(scratch.path())
            .entryList({ ".*" }, QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot);
    };
    // The export's own rename and flush come first, the swap's second.
    for (const auto& [step, left] :
        { std::pair { Step::Rename, "old.txt" }, { Step::SyncDirectory, "new.txt" } }) {
        os::fault::inject(step, 2, EIO);
        EXPECT_ANY_THROW(model.save(at("project"), ArchiveFormat::Directory, true));
        os::fault::clear();
        EXPECT_TRUE(QFile::exists(at("project/") + left)) << left;
        const QStringList previous = hidden();
        EXPECT_EQ(previous.size(), step == Step::Rename ? 0 : 1);
        for (const QString& name : previous) {
            EXPECT_EQ(readFile(at(name + "/old.txt")), "old");
            QDir(at(name)).removeRecursively();
        }
    }
    model.save(at("project"), ArchiveFormat::Directory, true);
    EXPECT_EQ(readFile(at("project/new.txt")), "new");
    EXPECT_TRUE(hidden().isEmpty());
}

TEST_F(ArchiveProject, ThreadsShareOneModel)
{
    ProjectModel model;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&model, t, target = at("shared.zip")] {
            for (int i = 0; i < 40; ++i) {
                const QString name = QStringLiteral("t%1/f%2").arg(t).arg(i);
                model.writeFile(name, name.toUtf8());
                EXPECT_EQ(model.readFile(name), name.toUtf8());
                model.getFileList("", false, true, false);
                if (i % 10 == 0)
                    model.save(target, ArchiveFormat::Auto, t % 2 == 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    model.save(at("shared.zip"), ArchiveFormat::Auto, true);
    ProjectModel reopened;
    reopened.load(at("shared.zip"), ArchiveFormat::Auto);
    EXPECT_EQ(reopened.getFileList("", false, true, false).size(), 4 * 40);
}

} // namespace
} // namespace zo::project
