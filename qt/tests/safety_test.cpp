// Data safety: links, relative roots, owners that still run, interrupted commits, durability
// steps that fail, a full disk, and a process killed at every step of a commit.

#include <zo/fault.h>
#include <zo/project/archive.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/project.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace zo::project {
namespace {

using test::readFile;
using test::thrownBy;
using test::writeFile;
using Files = QMap<QString, QByteArray>;
using Step = zo::os::fault::Step;

// Every file below root, hidden ones too, with its content.
Files filesIn(const QString& root)
{
    Files files;
    for (const QString& name : listDirectory(root, true, true, false))
        files.insert(name, readFile(root + "/" + name));
    return files;
}

// A process that runs for 30 seconds with a command line that starts with argv0.
pid_t startProcess(const std::string& argv0)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(execl("/bin/sleep", argv0.c_str(), "30", nullptr));
    for (std::string started; started.rfind(argv0, 0) != 0; usleep(1000))
        std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/cmdline"), started);
    return pid;
}

class Safety : public ::testing::Test {
protected:
    QString abs(const QString& relative) const { return dir.filePath(relative); }

    QTemporaryDir dir;
    ProjectVFS vfs { dir.path() };
};

TEST_F(Safety, LinksAreRemovedAsLinksAndReplacedByCopies)
{
    writeFile(abs("out/marker.txt"), "m");
    ASSERT_TRUE(QDir(dir.path()).mkdir("p") && QFile::link("../out", abs("p/linkout")));
    ASSERT_TRUE(QFile::link("missing", abs("p/dangling")));
    ProjectVFS project(abs("p"));
    project.remove("linkout/");
    project.remove("dangling");
    EXPECT_EQ(filesIn(dir.path()), (Files { { "out/marker.txt", "m" } }));

    ASSERT_TRUE(QFile::link("missing", abs("p/dangling")));
    EXPECT_THROW(copy(abs("out"), abs("p/dangling"), false), AlreadyExists);
    copy(abs("out"), abs("p/dangling"), true);
    EXPECT_EQ(filesIn(abs("p")), (Files { { "dangling/marker.txt", "m" } }));
}

TEST_F(Safety, RelativeRootLeavesNothingBehind)
{
    ProjectVFS project(QDir::current().relativeFilePath(dir.path()));
    for (const char* content : { "first", "second" }) {
        project.open("a.txt", QIODevice::WriteOnly)->write(content);
        project.commit();
    }
    project.open("dropped.txt", QIODevice::WriteOnly);
    project.discard();
    EXPECT_EQ(filesIn(dir.path()), (Files { { "a.txt", "second" } }));
}

// The owner counts however it was started, but not when it started after the swap file's
// last change: then it only reuses the id of the process that wrote it.
TEST_F(Safety, OwnerIsKnownHoweverStartedAndNotAfterItsIdIsReused)
{
    const std::string name = QCoreApplication::applicationName().toStdString();
    for (const auto& [argv0, age] : { std::pair { "/opt/bin/" + name, 0 }, { name, 3600 } }) {
        const pid_t owner = startProcess(argv0);
        const QString swap = QStringLiteral(".a.txt.%1.csp").arg(owner);
        writeFile(abs(swap), "work");
        std::filesystem::last_write_time(abs(swap).toStdString(),
            std::filesystem::file_time_type::clock::now() - std::chrono::seconds(age));
        vfs.abandonFile({ swap, "a.txt", owner });
        EXPECT_EQ(QFile::exists(abs(swap)), age == 0) << argv0;
        kill(owner, SIGKILL);
        waitpid(owner, nullptr, 0);
    }
}

TEST_F(Safety, OpeningRestoresTheSourceOfAnInterruptedCommit)
{
    const QString deadSwap
        = QStringLiteral("/.a.txt.%1.csp").arg(std::numeric_limits<pid_t>::max());
    for (const QString sub : { "d", "e" }) {
        writeFile(abs(sub + "/a.txtbck"), "old");
        writeFile(abs(sub + deadSwap), "new");
    }
    writeFile(abs("d/notes.txtbck"), "a user's file");
    test::LogCapture log;
    ProjectVFS project(abs("d"));
    project.setPath(abs("e"));
    EXPECT_EQ(filesIn(dir.path()),
        (Files { { "d/a.txt", "old" }, { "d" + deadSwap, "new" },
            { "d/notes.txtbck", "a user's file" }, { "e/a.txt", "old" },
            { "e" + deadSwap, "new" } }));
    const test::LogCapture::Line restored(
        "ProjectVFS", 4, "Renamed the backup 'a.txtbck' to 'a.txt' after an interrupted commit");
    EXPECT_EQ(log.lines, (std::vector { restored, restored }));
}

// {failing step, exception (its beginning), files left}.
TEST_F(Safety, EveryFailedDurabilityStepIsUndone)
{
    const auto fails = [](Step step, int nth, const std::function<void()>& body) {
        zo::os::fault::inject(step, nth, EIO);
        const std::string thrown = thrownBy(body);
        zo::os::fault::clear();
        return thrown;
    };
    const std::string swapRename = "exception::SwapFileRename: Can not rename swap file: a.txt";
    const std::string sourceRename = "exception::SourceFileRename: Can not rename source file: ";
    const Files pending { { "a.txt", "old" }, { vfs.makeSwapPath("a.txt"), "new" } };
    for (const auto& [step, nth, thrown] : { std::tuple { Step::SyncFile, 1, swapRename },
             { Step::Rename, 1, sourceRename + abs("a.txt").toStdString() },
             { Step::Rename, 2, swapRename }, { Step::SyncDirectory, 1, swapRename } }) {
        writeFile(abs("a.txt"), "old");
        vfs.open("a.txt", QIODevice::WriteOnly)->write("new");
        EXPECT_EQ(fails(step, nth, [&] { vfs.commit(); }), thrown);
        EXPECT_EQ(filesIn(dir.path()), pending);
        vfs.commit();
    }

    Project project = makeProject(abs("m").toStdString());
    const std::string target = "ArchiveError: '" + project.projectPath() + "/.metadata': cannot ";
    for (const auto& [step, thrown, left] : { std::tuple { Step::SyncFile, "write '", "old" },
             { Step::Rename, "replace: Input/output error", "old" },
             { Step::SyncDirectory, "sync directory '", "new" } }) {
        project.setMetadata("key", "old");
        EXPECT_EQ(
            fails(step, 1, [&] { project.setMetadata("key", "new"); }).rfind(target + thrown, 0),
            0u);
        EXPECT_EQ(project.getMetadata("key"), left);
        EXPECT_EQ(
            QDir(abs("m")).entryList(QDir::Files | QDir::Hidden), QStringList { ".metadata" });
    }
}

// Every failure names its cause and leaves the source as it was.
TEST_F(Safety, FullDiskFailsClearlyAndKeepsTheSource)
{
    ASSERT_TRUE(QDir(dir.path()).mkdir("disk"));
    const test::ScopedMount disk(abs("disk"), "size=2m");
    if (!disk.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    const QByteArray big(1200 * 1024, 'x');
    writeFile(abs("disk/big.bin"), big);
    writeFile(abs("disk/a.txt"), "old");
    ProjectVFS project(abs("disk"));
    EXPECT_EQ(thrownBy([&] { project.open("big.bin", QIODevice::WriteOnly); }),
        "exception::OpenSwapFile: Can not open swap file for: big.bin: Can not copy swap file for: "
        "big.bin: No space left on device");
    project.open("a.txt", QIODevice::WriteOnly)->write(big);
    EXPECT_THROW(project.commit(), exception::SwapFileDamaged);
    project.discard();
    EXPECT_EQ(filesIn(abs("disk")), (Files { { "a.txt", "old" }, { "big.bin", big } }));

    writeFile(abs("tree/big.bin"), big);
    EXPECT_EQ(thrownBy([&] {
        copy(abs("tree"), abs("disk/tree"), false);
    }).rfind("runtime_error: Copy file error: No space disk left. ", 0),
        0u);
    const std::string archive = abs("tree.tar").toStdString();
    exportProject(abs("tree").toStdString(), archive, ArchiveFormat::Tar);
    EXPECT_EQ(thrownBy([&] {
        importProject(archive, abs("disk/in").toStdString(), ArchiveFormat::Tar);
    }).rfind("ArchiveError: '" + archive + "', entry 'big.bin': unpacking needs ", 0),
        0u);
}

// A child commits two edited files and a new one and is killed at each write, sync, rename and
// removal in turn; this process then recovers and commits what it left. Every file ends old or
// new, and new whenever the new content had reached its swap file.
TEST_F(Safety, KillAtAnyStepOfACommitLosesNothing)
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        GTEST_SKIP() << "strace is missing";
    const QStringList names { "a.txt", "b.txt", "c.txt" };
    const auto run = [&](const QString& project, const QString& strace) {
        writeFile(project + "/a.txt", "old a.txt");
        writeFile(project + "/b.txt", "old b.txt");
        QProcess child;
        child.start("strace",
            QStringList { "-f", "-qq", "-e", strace,
                QCoreApplication::applicationDirPath() + "/crash_child", project }
                + names);
        child.waitForFinished();
        return QString::fromUtf8(child.readAllStandardError());
    };
    const QString trace = run(dir.path(), "trace=write,fsync,fdatasync,rename,unlink,linkat");
    for (const QString call : { "write", "fsync", "fdatasync", "rename", "unlink", "linkat" }) {
        const int calls = trace.count(
            QRegularExpression("^" + call + "\\(", QRegularExpression::MultilineOption));
        for (int when = 1; when <= calls; ++when) {
            const QTemporaryDir project;
            run(project.path(),
                QStringLiteral("inject=%1:signal=SIGKILL:when=%2").arg(call).arg(when));
            const Files left = filesIn(project.path());
            ProjectVFS recovering(project.path());
            for (const ProjectVFS::RecoverableInfo& info : recovering.recoverableFiles())
                recovering.recoverFile(info);
            recovering.commit();
            for (const QString& name : names) {
                const QByteArray now = readFile(project.filePath(name));
                // A new file that was opened but not yet written is recovered empty.
                const QByteArrayList old = name == "c.txt"
                    ? QByteArrayList { "<missing>", "" }
                    : QByteArrayList { "old " + name.toUtf8() };
                const bool reached = left.key("new " + name.toUtf8()).contains(name);
                EXPECT_TRUE(reached ? now == "new " + name.toUtf8() : old.contains(now))
                    << call.toStdString() << when << ' ' << now.toStdString();
            }
            EXPECT_TRUE(recovering.recoverableFiles().empty());
        }
    }
}

} // namespace
} // namespace zo::project
