#include <zo/fault.h>
#include <zo/project/archive.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectmodel.h>
#include <zo/test/support.h>

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zo::project {
namespace {

using test::readFile;
using test::thrownBy;
using test::writeFile;
using Step = os::fault::Step;

// Each test gets a temporary directory of its own, so that the workspaces it lists are its own.
class ArchiveProject : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(scratch.isValid());
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
TEST_F(ArchiveProject, SavedFlagAndFormatOfEverySave)
{
    ProjectModel model;
    model.writeFile("a.txt", "a");
    const struct {
        const char* name;
        ArchiveFormat asked;
        ArchiveFormat written;
    } rows[] = { { "p.tar.gz", ArchiveFormat::Auto, ArchiveFormat::TarGz },
        { "no-extension", ArchiveFormat::Auto, ArchiveFormat::Zip },
        { "", ArchiveFormat::Native, ArchiveFormat::Zip }, // the source's: the last save's
        { "p.tar", ArchiveFormat::TarXz, ArchiveFormat::TarXz } };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        model.save(row.name[0] ? at(row.name) : QString(), row.asked, true);
        EXPECT_EQ(detectFormat(model.getSourcePath().toStdString()), row.written);
        EXPECT_TRUE(model.isSaved());
    }
    EXPECT_EQ(model.getSourcePath(), at("p.tar"));
    model.writeFile("a.txt", "b");
    EXPECT_FALSE(model.isSaved());
    model.load(at("p.tar.gz"), ArchiveFormat::Auto);
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

TEST_F(ArchiveProject, FailedLoadKeepsTheOpenProject)
{
    ProjectModel model;
    model.load(archive("a.zip"), ArchiveFormat::Auto);
    writeFile(at("broken.zip"), "not an archive");
    EXPECT_THROW(model.load(at("broken.zip"), ArchiveFormat::Auto), std::exception);
    EXPECT_EQ(model.readFile("a.txt"), "from the archive");
    EXPECT_EQ(model.getSourcePath(), at("a.zip"));
    EXPECT_TRUE(model.isSaved());
}

TEST_F(ArchiveProject, WorkspaceOfAKilledProcessIsRecoveredWithItsFiles)
{
    const QString source = archive("work.zip");
    const pid_t child = fork();
    if (child == 0) {
        ProjectModel model;
        model.load(source, ArchiveFormat::Auto);
        model.writeFile("new.txt", "unsaved work");
        ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    QDir(at("tmp")).mkdir(QStringLiteral("zo_project_model_%1_7").arg(child + 100000)); // no record

    ProjectModel model;
    auto found = ProjectModel::recoverableWorkspaces();
    ASSERT_EQ(found.size(), 2u);
    if (found[0].pid != child)
        std::swap(found[0], found[1]);
    EXPECT_EQ(found[0].sourcePath, source);
    EXPECT_TRUE(found[1].sourcePath.isEmpty());
    EXPECT_TRUE(ProjectModel::abandonWorkspace(found[1]));
    EXPECT_FALSE(QFileInfo::exists(found[1].path));

    model.recoverWorkspace(found[0]);
    EXPECT_TRUE(ProjectModel::recoverableWorkspaces().empty()) << "this process owns it now";
    EXPECT_FALSE(model.isSaved());
    EXPECT_EQ(model.readFile("new.txt"), "unsaved work");
    model.save("", ArchiveFormat::Native, true);
    ProjectModel reopened;
    reopened.load(source, ArchiveFormat::Auto);
    QStringList files = reopened.getFileList("", false, true, false);
    files.sort();
    EXPECT_EQ(files, QStringList({ "a.txt", "new.txt" }));
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
