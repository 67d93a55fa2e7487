// Data safety: links, relative roots, owners that still run, interrupted commits, durability
// steps that fail and a full disk (savecrash_test.cpp kills a save at every step).

#include <zo/fault.h>
#include <zo/file.h>
#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/project.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QMap>
#include <QSysInfo>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <sys/resource.h>
#include <thread>

namespace zo::project {
namespace {

using namespace test;
using testing::StartsWith;
using Files = QMap<QString, QByteArray>;
using Step = zo::os::fault::Step;

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
    EXPECT_EQ(filesBelow(dir.path()), (Files { { "out/marker.txt", "m" } }));

    ASSERT_TRUE(QFile::link("missing", abs("p/dangling")));
    EXPECT_THROW(copy(abs("out"), abs("p/dangling"), false), AlreadyExists);
    copy(abs("out"), abs("p/dangling"), true);
    EXPECT_EQ(filesBelow(abs("p")), (Files { { "dangling/marker.txt", "m" } }));
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

// Another process of this id (in another pid namespace, or an earlier one) left swap files
// under the names this one would give; they are not this engine's to write, move or remove.
TEST_F(Safety, SwapFilesOfThisIdThatTheEngineDidNotMakeAreNeverTouched)
{
    const Files before { { "a.txt", "a" }, { "t.txt", "t" }, { "d/a.txt", "a" },
        { vfs.makeSwapPath("a.txt"), "theirs" }, { vfs.makeSwapPath("d/a.txt"), "theirs" } };
    for (auto it = before.begin(); it != before.end(); ++it)
        writeFile(abs(it.key()), it.value());
    for (const auto& step : std::vector<std::function<void()>> {
             [&] { vfs.copy("t.txt", "a.txt", true); }, [&] { vfs.remove("a.txt"); },
             [&] { vfs.remove("d"); }, [&] { vfs.move("a.txt", "b.txt", false); },
             [&] { vfs.move("t.txt", "a.txt", true); } }) {
        EXPECT_THROW(step(), exception::SwapFileAlreadyExists);
        vfs.discard();
        EXPECT_EQ(filesBelow(dir.path()), before);
    }
}

// Only a file is put in place; a directory or a link in the swap file's place is none.
TEST_F(Safety, SwapFileReplacedByADirectoryOrALinkIsNotCommitted)
{
    writeFile(abs("a.txt"), "old");
    for (const bool link : { true, false }) {
        vfs.open("a.txt", QIODevice::WriteOnly)->write("new");
        const QString swap = abs(vfs.makeSwapPath("a.txt"));
        ASSERT_TRUE(QFile::remove(swap) && (link ? QFile::link("/", swap) : QDir().mkdir(swap)));
        EXPECT_THROW(vfs.commit(), exception::SwapFileMissing) << link;
        EXPECT_EQ(readFile(abs("a.txt")), "old");
        vfs.discard();
    }
}

// By what the dead owner's mark noted: a commit killed between its renames gets its source back,
// one killed after them loses its backup; a new file's swap file leaves a user's file that
// merely ends like a backup alone, and so does everyone else.
TEST_F(Safety, OpeningCompletesTheCommitsOfEndedOwnersByTheirNotes)
{
    const pid_t dead = std::numeric_limits<pid_t>::max();
    const QString swap = QStringLiteral(".a.txt.%1.csp").arg(dead);
    const auto note = [&](const QString& backup) {
        const auto v = zo::os::versionOf(QFile::encodeName(backup).constData());
        const QString noted = v ? QString(" %1 %2 %3 %4 %5")
                                      .arg(v->identity.device)
                                      .arg(v->identity.inode)
                                      .arg(v->size)
                                      .arg(v->modifiedSeconds)
                                      .arg(v->modifiedNanoseconds)
                                : " none";
        return "locked 1\nsource " + swap.toUtf8().toHex() + noted.toUtf8() + '\n';
    };
    for (const QString sub : { "between", "after", "new" }) {
        writeFile(abs(sub + "/a.txtbck"), "old");
        writeFile(abs(sub + '/' + (sub == "after" ? "a.txt" : swap)), "new");
        writeEndedOwnerMark(abs(sub), dead, QSysInfo::machineHostName().toUtf8(),
            firstLineOf("/proc/sys/kernel/random/boot_id"),
            std::chrono::system_clock::now() - std::chrono::minutes(1),
            note(sub == "new" ? QString() : abs(sub + "/a.txtbck")));
        ProjectVFS { abs(sub) };
    }
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { "between/a.txt", "old" }, { "between/" + swap, "new" }, { "after/a.txt", "new" },
            { "new/a.txtbck", "old" }, { "new/" + swap, "new" } }));
}

// A commit killed after the swap file took the source's place leaves the old content as a backup
// beside the new: the next commit removes that backup and stops once, and neither edit is lost.
TEST_F(Safety, StaleBackupBesideTheSourceStopsOneCommit)
{
    writeFile(abs("a.txt"), "new");
    writeFile(abs("a.txtbck"), "old");
    vfs.open("a.txt", QIODevice::WriteOnly | QIODevice::Append)->write("+more");
    EXPECT_THROW(vfs.commit(), exception::SourceFileBackupRemove);
    const Files pending { { "a.txt", "new" }, { vfs.makeSwapPath("a.txt"), "new+more" } };
    EXPECT_EQ(filesBelow(dir.path()), pending);
    vfs.commit();
    EXPECT_EQ(filesBelow(dir.path()), (Files { { "a.txt", "new+more" } }));
}

// A save of many files, under a limit on open files that a descriptor per file would pass.
TEST_F(Safety, LargeSaveKeepsFewFilesOpen)
{
    rlimit limit {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit lowered { 128, limit.rlim_max };
    Files saved;
    for (int n = 0; n < 400; ++n) {
        const QString name = QString("d%1/f%2").arg(n / 20).arg(n % 20);
        writeFile(abs(name), "old");
        vfs.open(name, QIODevice::WriteOnly)->write("new " + name.toUtf8());
        saved[name] = "new " + name.toUtf8();
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    const std::string thrown = thrownBy([&] { vfs.commit(); });
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(thrown, "nothing thrown");
    EXPECT_EQ(filesBelow(dir.path()), saved);
}

// Another program makes a file at a new file's name or rewrites a file while a large save runs
// (once its journal is written): what it wrote stays, and the save stops at that file. One that
// writes through a handle it held on the old file once the new one took its name finds its
// write kept in the backup.
TEST_F(Safety, FilesChangedWhileASaveRunsAreKept)
{
    for (const QString raced : { "zz/new", "zz/old", "zz/held" }) {
        SCOPED_TRACE(raced.toStdString());
        QTemporaryDir root;
        ProjectVFS project(root.path());
        writeFile(root.filePath("zz/old"), "old");
        writeFile(root.filePath("zz/held"), "old");
        for (int n = 0; n < 600; ++n) {
            const QString name = QString("d%1/f%2").arg(n / 20).arg(n % 20);
            writeFile(root.filePath(name), "old");
            project.open(name, QIODevice::WriteOnly)->write("new");
        }
        project.open(raced, QIODevice::WriteOnly)->write("new");
        const bool held = raced == "zz/held";
        QFile handle(root.filePath(raced));
        ASSERT_TRUE(!held || handle.open(QIODevice::Append));
        std::atomic<bool> done { false };
        std::thread other([&] {
            const QDir top(root.path());
            while (!done
                && (held ? readFile(root.filePath(raced)) != "new"
                         : top.entryList({ ".save.zo-journal-*" }, QDir::Files | QDir::Hidden)
                               .isEmpty()))
                std::this_thread::yield();
            if (held)
                EXPECT_TRUE(handle.write("+theirs") == 7 && handle.flush());
            else
                writeFile(root.filePath(raced), "theirs");
        });
        const std::string thrown = thrownBy([&] { project.commit(); });
        done = true;
        other.join();
        if (held) {
            EXPECT_EQ(thrown, "nothing thrown");
            EXPECT_EQ(readFile(root.filePath(raced + "bck")), "old+theirs");
            continue;
        }
        EXPECT_THAT(thrown, StartsWith("exception::SourceFileChanged"));
        EXPECT_EQ(readFile(root.filePath(raced)), "theirs");
        EXPECT_TRUE(project.isNotCommitted(raced));
        EXPECT_FALSE(QFile::exists(root.filePath(raced + "bck")));
    }
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
        EXPECT_EQ(filesBelow(dir.path()), pending);
        vfs.commit();
        EXPECT_EQ(readFile(abs("a.txt")), "new");
    }

    // A whole-project commit syncs each directory once, after all renames: whatever step fails
    // for e/b.txt, d/a.txt before it is committed and e/b.txt stays pending. Its journal (the
    // third file sync and the first directory sync) failing commits neither.
    const auto pendingIn = [&](const QString& name) {
        return Files { { name, "old" }, { QFileInfo(vfs.makeSwapPath(name)).fileName(), "new" } };
    };
    const Files newA { { "a.txt", "new" } };
    for (const auto& [step, nth, committed] :
        { std::tuple { Step::SyncFile, 2, true }, { Step::SyncFile, 3, false },
            { Step::SyncDirectory, 1, false }, { Step::Rename, 3, true }, { Step::Rename, 4, true },
            { Step::SyncDirectory, 3, true } }) {
        for (const QString name : { "d/a.txt", "e/b.txt" }) {
            writeFile(abs(name), "old");
            vfs.open(name, QIODevice::WriteOnly)->write("new");
        }
        const std::string thrown = fails(step, nth, [&] { vfs.commit(); });
        EXPECT_EQ(thrown.substr(thrown.size() - 5), committed ? "b.txt" : "a.txt") << thrown;
        EXPECT_EQ(filesBelow(abs("d")), committed ? newA : pendingIn("a.txt"));
        EXPECT_EQ(filesBelow(abs("e")), pendingIn("b.txt"));
        EXPECT_EQ(filesBelow(dir.path()).size(), (committed ? 4 : 5)) << "a journal is left";
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
        EXPECT_EQ(filesBelow(abs("m")).keys(), QStringList { ".metadata" });
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
    EXPECT_EQ(filesBelow(abs("disk")), (Files { { "a.txt", "old" }, { "big.bin", big } }));
}

} // namespace
} // namespace zo::project
