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
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <filesystem>

namespace zo::project {
namespace {

using namespace test;
using testing::StartsWith;
using Files = QMap<QString, QByteArray>;
using Step = zo::os::fault::Step;

// Every file below root, hidden ones too, with its content; the owner marks of live editors
// aside.
Files filesIn(const QString& root)
{
    Files files;
    for (const QString& name : listDirectory(root, true, true, false))
        if (!name.startsWith(".zo-owner-"))
            files.insert(name, readFile(root + "/" + name));
    return files;
}

class Safety : public ::testing::Test {
protected:
    QString abs(const QString& relative) const { return dir.filePath(relative); }

    QTemporaryDir dir;
    // Relative, so that every commit also checks that the engine resolves each path once.
    ProjectVFS vfs { QDir::current().relativeFilePath(dir.path()) };
};

TEST_F(Safety, LinksAreRemovedAsLinksAndReplacedByCopies)
{
    writeFile(abs("out/marker.txt"), "m");
    ASSERT_TRUE(QDir(dir.path()).mkdir("p") && QFile::link("../out", abs("p/linkout"))
        && QFile::link("missing", abs("p/dangling")));
    ProjectVFS project(abs("p"));
    project.remove("linkout/");
    project.remove("dangling");
    EXPECT_EQ(filesIn(dir.path()), (Files { { "out/marker.txt", "m" } }));

    ASSERT_TRUE(QFile::link("missing", abs("p/dangling")));
    EXPECT_THROW(copy(abs("out"), abs("p/dangling"), false), AlreadyExists);
    copy(abs("out"), abs("p/dangling"), true);
    EXPECT_EQ(filesIn(abs("p")), (Files { { "dangling/marker.txt", "m" } }));
}

// This process, started by its path and with arguments, owns a swap file it wrote; but not one
// last changed before it started, which only a process that reused its id could have left.
TEST_F(Safety, OwnerIsKnownHoweverStartedAndNotAfterItsIdIsReused)
{
    const QString swap = QStringLiteral(".a.txt.%1.csp").arg(QCoreApplication::applicationPid());
    for (const int age : { 0, 3600 }) {
        writeFile(abs(swap), "work");
        std::filesystem::last_write_time(abs(swap).toStdString(),
            std::filesystem::file_time_type::clock::now() - std::chrono::seconds(age));
        vfs.abandonFile({ swap, "a.txt", static_cast<pid_t>(QCoreApplication::applicationPid()) });
        EXPECT_EQ(QFile::exists(abs(swap)), age == 0) << age;
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
    LogCapture log;
    ProjectVFS project(abs("d"));
    project.setPath(abs("e"));
    EXPECT_EQ(filesIn(dir.path()),
        (Files { { "d/a.txt", "old" }, { "d" + deadSwap, "new" },
            { "d/notes.txtbck", "a user's file" }, { "e/a.txt", "old" },
            { "e" + deadSwap, "new" } }));
    const LogCapture::Line restored(
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

    // A whole-project commit syncs each directory once, after all renames: whatever step fails
    // for e/b.txt, d/a.txt before it is committed and e/b.txt stays pending.
    const Files newA { { "a.txt", "new" } };
    const Files pendingB { { "b.txt", "old" },
        { QFileInfo(vfs.makeSwapPath("b.txt")).fileName(), "new" } };
    for (const auto& [step, nth] : { std::pair { Step::SyncFile, 2 }, { Step::Rename, 3 },
             { Step::Rename, 4 }, { Step::SyncDirectory, 2 } }) {
        for (const QString name : { "d/a.txt", "e/b.txt" }) {
            writeFile(abs(name), "old");
            vfs.open(name, QIODevice::WriteOnly)->write("new");
        }
        const std::string thrown = fails(step, nth, [&] { vfs.commit(); });
        EXPECT_EQ(thrown.substr(thrown.size() - 5), "b.txt") << thrown;
        EXPECT_EQ(filesIn(abs("d")), newA);
        EXPECT_EQ(filesIn(abs("e")), pendingB);
        vfs.commit();
    }

    Project project = makeProject(abs("m").toStdString());
    const std::string target = "ArchiveError: '" + project.projectPath() + "/.metadata': cannot ";
    for (const auto& [step, thrown, left] : { std::tuple { Step::SyncFile, "write '", "old" },
             { Step::Rename, "replace: Input/output error", "old" },
             { Step::SyncDirectory, "sync directory '", "new" } }) {
        project.setMetadata("key", "old");
        EXPECT_THAT(fails(step, 1, [&] { project.setMetadata("key", "new"); }),
            StartsWith(target + thrown));
        EXPECT_EQ(project.getMetadata("key"), left);
        EXPECT_EQ(filesIn(abs("m")).keys(), QStringList { ".metadata" });
    }
}

// Every failure names its cause and leaves the source as it was.
TEST_F(Safety, FullDiskFailsClearlyAndKeepsTheSource)
{
    ASSERT_TRUE(QDir(dir.path()).mkdir("disk"));
    const ScopedMount disk(abs("disk"), "size=2m");
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
    EXPECT_THAT(thrownBy([&] { copy(abs("tree"), abs("disk/tree"), false); }),
        StartsWith("runtime_error: Copy file error: No space disk left. "));
    EXPECT_FALSE(QFileInfo::exists(abs("disk/tree/big.bin"))) << "no partial file under the name";
    const std::string archive = abs("tree.tar").toStdString();
    exportProject(abs("tree").toStdString(), archive, ArchiveFormat::Tar);
    EXPECT_THAT(
        thrownBy([&] { importProject(archive, abs("disk/in").toStdString(), ArchiveFormat::Tar); }),
        StartsWith("ArchiveError: '" + archive + "', entry 'big.bin': unpacking needs "));
}

// A child commits two files and is killed at each write, sync, rename and removal in turn; this
// process then recovers and commits what it left. Every file ends old or new, and new whenever
// the new content had reached its swap file.
TEST_F(Safety, KillAtAnyStepOfACommitLosesNothing)
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        GTEST_SKIP() << "strace is missing";
    const QStringList names { "a.txt", "b.txt" };
    for (const QString call : { "write", "fsync", "fdatasync", "rename", "unlink", "linkat" }) {
        // Up to the first run in which the child no longer meets the call so often.
        for (int when = 1;; ++when) {
            const QTemporaryDir project;
            for (const QString& name : names)
                writeFile(project.filePath(name), "old " + name.toUtf8());
            // The leak checker of a sanitizer build cannot work under a tracer.
            QProcess child;
            child.start("strace",
                QStringList { "-f", "-qq", "-o", "/dev/null", "-E", "ASAN_OPTIONS=detect_leaks=0",
                    "-e", QStringLiteral("inject=%1:signal=SIGKILL:when=%2").arg(call).arg(when),
                    QCoreApplication::applicationDirPath() + "/crash_child", project.path() }
                    + names);
            if (child.waitForFinished() && child.exitStatus() == QProcess::NormalExit)
                break;
            const Files left = filesIn(project.path());
            ProjectVFS recovering(project.path());
            for (const ProjectVFS::RecoverableInfo& info : recovering.recoverableFiles())
                recovering.recoverFile(info);
            recovering.commit();
            for (const QString& name : names) {
                const bool reached = left.key("new " + name.toUtf8()).contains(name);
                EXPECT_EQ(
                    readFile(project.filePath(name)), (reached ? "new " : "old ") + name.toUtf8())
                    << call.toStdString() << when;
            }
        }
    }
}

} // namespace
} // namespace zo::project
