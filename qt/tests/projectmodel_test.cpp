#include <zo/fault.h>
#include <zo/project/archive.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectmodel.h>
#include <zo/test/support.h>

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zo::project {
namespace {

using test::readFile;
using test::thrownBy;
using test::writeFile;

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
        return QDir(at("tmp")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
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

TEST_F(ArchiveProject, WorkspacesAreNumberedFromZeroAndGoWithTheirRecords)
{
    const QString prefix = QStringLiteral("zo_project_model_%1_").arg(::getpid());
    auto first = std::make_unique<ProjectModel>();
    ProjectModel second;
    EXPECT_EQ(QFileInfo(first->getFileLocalPath("")).fileName(), prefix + "0");
    EXPECT_EQ(QFileInfo(second.getFileLocalPath("")).fileName(), prefix + "1");
    EXPECT_EQ(tempEntries(),
        QStringList(
            { "." + prefix + "0.source", "." + prefix + "1.source", prefix + "0", prefix + "1" }));
    first.reset();
    EXPECT_EQ(QFileInfo(ProjectModel().getFileLocalPath("")).fileName(), prefix + "0");
    EXPECT_EQ(tempEntries(), QStringList({ "." + prefix + "1.source", prefix + "1" }));
}

TEST_F(ArchiveProject, SavedFlagAndFormatOfEverySave)
{
    std::vector<bool> heard; // outlives the model, whose destruction still reports
    ProjectModel model;
    QObject::connect(
        model.notifier(), &detail::Notifier::saved, [&](bool saved) { heard.push_back(saved); });
    EXPECT_FALSE(model.isSaved()) << "a new project is unsaved";
    model.createNew();
    EXPECT_EQ(heard, (std::vector<bool> { true, false }));
    EXPECT_EQ(thrownBy([&] { model.save("", ArchiveFormat::Native, true); }), "PathNotFound: ");

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
    }
    EXPECT_EQ(model.getSourcePath(), at("p.tar"));
    EXPECT_EQ(heard, (std::vector<bool> { true, false, true }));
    model.writeFile("a.txt", "b");
    model.load(at("p.tar.gz"), ArchiveFormat::Auto);
    EXPECT_EQ(heard, (std::vector<bool> { true, false, true, false, true }));
    EXPECT_EQ(model.readFile("a.txt"), "a");

    // Outside changes of the source.
    model.enableWatching(true);
    writeFile(at("p.tar.gz"), "overwritten by another program");
    model.checkSourcePendingChanges({});
    EXPECT_FALSE(model.isSaved());
}

TEST_F(ArchiveProject, FailedSavesLeaveThePreviousArchiveAndNoTemporaryFile)
{
    // A tar: libarchive's zip writer leaks its compressor when the disk fills up.
    const QString target = archive("old.tar");
    const QByteArray before = readFile(target);
    ProjectModel model;
    model.writeFile("big.bin", QByteArray(1 << 20, 'x'));
    const auto expectIntact = [&](const char* how) {
        SCOPED_TRACE(how);
        EXPECT_EQ(readFile(target).size(), before.size());
        EXPECT_EQ(readFile(target), before);
        EXPECT_EQ(QDir(QFileInfo(target).path()).entryList(QDir::Files | QDir::Hidden),
            QStringList { "old.tar" });
        EXPECT_FALSE(model.isSaved());
    };
    // Each step of a save that can fail: the sync of the new archive and its rename over the
    // target, safe or not, as every save writes beside the target.
    const struct {
        bool safe;
        os::fault::Step step;
        int nth;
    } faults[] = { { false, os::fault::Step::Rename, 1 }, { true, os::fault::Step::Rename, 1 },
        { false, os::fault::Step::SyncFile, 1 }, { true, os::fault::Step::SyncFile, 1 } };
    for (const auto& fault : faults) {
        os::fault::inject(fault.step, fault.nth, EIO);
        const std::string error
            = thrownBy([&] { model.save(target, ArchiveFormat::Auto, fault.safe); });
        os::fault::clear();
        SCOPED_TRACE(error);
        expectIntact(fault.safe ? "safe" : "in place");
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
        SCOPED_TRACE(safe ? "safe" : "in place");
        EXPECT_EQ(thrownBy([&] {
            model.save(full + "/old.tar", ArchiveFormat::Auto, safe);
        }).rfind("IOWriteError: ", 0),
            0u);
        EXPECT_EQ(readFile(full + "/old.tar"), before);
        EXPECT_EQ(QDir(full).entryList(QDir::Files | QDir::Hidden), QStringList { "old.tar" });
    }
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
