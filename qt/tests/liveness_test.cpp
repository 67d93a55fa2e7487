// Whether the owner of a swap file still runs, judged from every side: owners in this and in
// other pid namespaces, ids reused by other processes and threads, earlier boots, other hosts.
// Nothing of an owner that may still run is ever moved or deleted.
#include <zo/fault.h>
#include <zo/process.h>
#include <zo/project/exceptions.h>
#include <zo/project/projectmodel.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QProcess>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <thread>
#include <unistd.h>

namespace zo::project {
namespace {

using namespace test;
using State = ProjectVFS::OwnerInfo::State;
using Info = ProjectVFS::RecoverableInfo;
using Clock = std::chrono::system_clock;

bool canUnsharePids()
{
    static const bool allowed
        = QProcess::execute("unshare", { "--pid", "--fork", "--mount-proc", "true" }) == 0;
    return allowed;
}

// Runs project_child; given sandboxPid, in a sandbox: a pid namespace of its own, where it has
// that id. An id that no process here has keeps a wrong verdict from passing by luck. Given
// seenOnly, the sandbox sees that directory in place of the directory it lies in.
void startChild(QProcess& process, const QStringList& arguments, pid_t sandboxPid = 0,
    const QString& seenOnly = {})
{
    const QString child = QCoreApplication::applicationDirPath() + "/project_child";
    if (sandboxPid != 0)
        process.start("unshare",
            QStringList { "--mount", "--pid", "--fork", "--mount-proc", "--kill-child", "sh", "-c",
                "{ [ -z \"$1\" ] || mount --bind \"$1\" \"${1%/*}\"; } && shift && echo $(($0 - "
                "1)) >/proc/sys/kernel/ns_last_pid && \"$@\"; exit $?",
                QString::number(sandboxPid), seenOnly, child }
                + arguments);
    else
        process.start(child, arguments);
}

const QByteArray kHost = QSysInfo::machineHostName().toUtf8();
const QByteArray kBoot = firstLineOf("/proc/sys/kernel/random/boot_id");

TEST(Liveness, OwnersAreJudgedByTheirMarksWhateverHoldsTheirIdNow)
{
    const LiveInstance thisProgram;
    QProcess otherProgram;
    otherProgram.start("sleep", { "60" });
    ASSERT_TRUE(otherProgram.waitForStarted());
    std::promise<pid_t> threadId;
    std::promise<void> done;
    std::thread thread([&] { threadId.set_value(::gettid()), done.get_future().wait(); });
    const pid_t aThread = threadId.get_future().get();
    const pid_t ended = endedProcessId();
    const auto before = Clock::now() - std::chrono::minutes(1);
    const auto beforeBoot = Clock::time_point(std::chrono::hours(1));

    const QByteArray locked = "locked 1\n";
    // Without locks, by its start in ticks since boot, whatever the wall clock says.
    const QByteArray unlocked = "locked 0\nticks "
        + QByteArray::number(qulonglong(zo::os::findProcess(thisProgram.pid)->startTicks));
    const std::tuple<const char*, pid_t, QByteArray, QByteArray, Clock::time_point, State,
        QByteArray>
        rows[] = {
            { "id reused by another program", pid_t(otherProgram.processId()), kHost, kBoot, before,
                State::Ended, locked },
            { "id reused by this program", thisProgram.pid, kHost, kBoot, before, State::Ended,
                locked },
            { "id reused by a thread", aThread, kHost, kBoot, before, State::Ended, locked },
            { "owner of an earlier boot", ended, kHost, "an-earlier-boot", beforeBoot, State::Ended,
                locked },
            { "owner on another host", ended, "elsewhere", "its-boot", before,
                State::InUseElsewhere, locked },
            { "mark without a record", ended, "", "", before, State::InUseElsewhere, locked },
            { "a copy of a mark", ended, kHost, kBoot, before, State::InUseElsewhere,
                locked + "inode 1 1\n" },
            { "no locks, running", thisProgram.pid, kHost, kBoot, before, State::Running,
                unlocked },
            { "no locks, no start", thisProgram.pid, kHost, kBoot, before, State::InUseElsewhere,
                "locked 0\n" },
            { "running, no mark", thisProgram.pid, "", "", {}, State::Running, locked },
            { "ended, no mark", ended, "", "", {}, State::Ended, locked },
        };
    for (const auto& [what, pid, host, boot, marked, state, lock] : rows) {
        const QTemporaryDir dir;
        ProjectVFS project(dir.path());
        const Info info { QString(".a.txt.%1.csp").arg(pid), "a.txt", pid };
        writeFile(dir.filePath(info.swapPath), "work");
        if (marked != Clock::time_point())
            writeEndedOwnerMark(dir.path(), pid, host, boot, marked, lock);
        EXPECT_EQ(project.ownerOf(info).state, state) << what;
        project.abandonFile(info);
        EXPECT_EQ(QFile::exists(dir.filePath(info.swapPath)), state != State::Ended) << what;
        if (state == State::Ended) {
            EXPECT_THROW(project.abandonFile(info), exception::SwapFileRemove) << what;
        }
    }
    done.set_value();
    thread.join();
    otherProgram.kill();
    otherProgram.waitForFinished();
}

// Another program holds a pending edit, here or sandboxed, and is judged here or from a
// sandbox, where the judge has no QCoreApplication either.
TEST(Liveness, LiveOwnersRunInEveryPidNamespace)
{
    for (const auto& [ownerSandboxed, judgeSandboxed, seesSub] :
        { std::tuple { false, false, false }, { true, false, false }, { false, true, false },
            { false, true, true } }) {
        if ((ownerSandboxed || judgeSandboxed) && !canUnsharePids())
            continue;
        SCOPED_TRACE(testing::Message() << ownerSandboxed << judgeSandboxed << seesSub);
        const QTemporaryDir dir;
        QDir(dir.path()).mkdir("sub");
        QProcess owner;
        startChild(
            owner, { "hold", dir.path(), "sub/a.txt" }, ownerSandboxed ? endedProcessId() : 0);
        ASSERT_TRUE(owner.waitForReadyRead(20000)) << owner.readAllStandardError().toStdString();
        ProjectVFS project(dir.path());
        const auto found = project.recoverableFiles();
        ASSERT_EQ(found.size(), 1u);
        if (judgeSandboxed) {
            QProcess judge;
            startChild(judge, { "abandon", dir.path() }, endedProcessId(),
                seesSub ? dir.filePath("sub") : QString());
            ASSERT_TRUE(judge.waitForFinished(20000));
            EXPECT_EQ(judge.readAllStandardOutput(), "0\n")
                << judge.readAllStandardError().toStdString();
        } else {
            EXPECT_EQ(project.ownerOf(found[0]).state, State::Running);
            project.abandonFile(found[0]);
        }
        EXPECT_EQ(readFile(dir.filePath(found[0].swapPath)), "live");
        owner.closeWriteChannel();
        ASSERT_TRUE(owner.waitForFinished());
        EXPECT_EQ(owner.exitCode(), 0);
    }
    if (!canUnsharePids())
        GTEST_SKIP() << "no pid namespaces here";
}

// A model's workspace is neither listed nor abandoned while its process runs, sandboxed where
// the system allows, nor while a process that took it over runs; once they end, another takes
// it over with its files and its source. A workspace without a record is listed without one.
TEST(Liveness, WorkspacesOfLiveModelsAreLeftAloneAndThoseOfEndedOnesTakenOver)
{
    const QTemporaryDir temp, shelf;
    const QByteArray previous = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(temp.path()));
    const QString source = shelf.filePath("p.zip");
    ProjectModel().save(source, ArchiveFormat::Auto, false);
    QProcess owner;
    const pid_t sandboxed = canUnsharePids() ? endedProcessId() : 0;
    startChild(owner, { "model", source }, sandboxed);
    ASSERT_TRUE(owner.waitForReadyRead(20000)) << owner.readAllStandardError().toStdString();
    const pid_t ownerId = sandboxed != 0 ? sandboxed : pid_t(owner.processId());
    const QString workspace = temp.filePath(
        QDir(temp.path()).entryList({ QString("zo_project_model_%1_*").arg(ownerId) }).value(0));
    EXPECT_TRUE(ProjectModel::recoverableWorkspaces().empty());
    EXPECT_FALSE(
        ProjectModel::abandonWorkspace({ workspace, {}, ArchiveFormat::Native, ownerId, {} }));
    EXPECT_EQ(readFile(workspace + "/a.txt"), "live");
    owner.kill();
    owner.waitForFinished();
    QDir(temp.path()).mkdir(QString("zo_project_model_%1_7").arg(endedProcessId())); // no record
    // The sandbox's processes die after the one that made it.
    auto found = ProjectModel::recoverableWorkspaces();
    for (int wait = 0; wait < 200 && found.size() < 2; ++wait) {
        QThread::msleep(10);
        found = ProjectModel::recoverableWorkspaces();
    }
    ASSERT_EQ(found.size(), 2u);
    if (found[0].path != workspace)
        std::swap(found[0], found[1]);
    EXPECT_EQ(found[0].sourcePath, source);
    EXPECT_TRUE(found[1].sourcePath.isEmpty());
    EXPECT_TRUE(ProjectModel::abandonWorkspace(found[1]));
    EXPECT_FALSE(QFileInfo::exists(found[1].path));

    // Taken over by a process that started after its last write, then by this one.
    std::filesystem::last_write_time(workspace.toStdString(),
        std::filesystem::file_time_type::clock::now() - std::chrono::minutes(1));
    QProcess adopter;
    startChild(adopter, { "adopt", temp.path() });
    ASSERT_TRUE(adopter.waitForReadyRead(20000)) << adopter.readAllStandardError().toStdString();
    EXPECT_TRUE(ProjectModel::recoverableWorkspaces().empty());
    adopter.kill();
    adopter.waitForFinished();
    ProjectModel model;
    found = ProjectModel::recoverableWorkspaces();
    ASSERT_EQ(found.size(), 1u);
    model.recoverWorkspace(found[0]);
    EXPECT_TRUE(ProjectModel::recoverableWorkspaces().empty());
    EXPECT_FALSE(model.isSaved());
    model.save("", ArchiveFormat::Native, true);
    ProjectModel reopened;
    reopened.load(source, ArchiveFormat::Auto);
    EXPECT_EQ(reopened.readFile("a.txt"), "live");
    qputenv("TMPDIR", previous);
}

// A sandboxed instance that ended left a swap file under the id this process has now.
TEST(Liveness, SwapOfAnEndedProcessOfThisIdIsTakenOverWhereItLies)
{
    const QTemporaryDir dir;
    const pid_t self = ::getpid();
    const Info theirs { QString(".a.txt.%1.csp").arg(self), "a.txt", self };
    writeFile(dir.filePath(theirs.swapPath), "their work");
    std::filesystem::last_write_time(dir.filePath(theirs.swapPath).toStdString(),
        std::filesystem::file_time_type::clock::now() - std::chrono::seconds(30));
    writeEndedOwnerMark(dir.path(), self, kHost, kBoot, Clock::now() - std::chrono::minutes(1));
    ProjectVFS project(dir.path());
    project.open("b.txt", QIODevice::WriteOnly)->write("mine");

    EXPECT_EQ(project.ownerOf(theirs).state, State::Ended);
    zo::os::fault::inject(zo::os::fault::Step::Rename, 1, EIO);
    EXPECT_THROW(
        project.recoverFile({ theirs.swapPath, "c.txt", self }), exception::SwapFileRename);
    zo::os::fault::clear();
    project.recoverFile(theirs);
    EXPECT_EQ(project.ownerOf(theirs).state, State::Running);
    project.commit();
    EXPECT_EQ(readFile(dir.filePath("a.txt")), "their work");
}

// As zoproject recover --all does it, again and again while another program saves.
TEST(Liveness, RecoveryWhileAnotherProgramSavesLeavesItAlone)
{
    const QTemporaryDir dir;
    QProcess editor;
    startChild(editor, { "commit", dir.path(), "a.txt", "100" });
    while (!editor.waitForFinished(0)) {
        ProjectVFS recovery(dir.path());
        const auto found = recovery.recoverableFilesWhenOpened();
        const auto states = recovery.inspect(found);
        for (std::size_t at = 0; at < found.size(); ++at)
            if (states[at].owner.state == State::Ended)
                recovery.recoverFile(found[at]);
        recovery.commit();
    }
    EXPECT_EQ(editor.exitCode(), 0) << editor.readAllStandardError().toStdString();
    EXPECT_EQ(readFile(dir.filePath("a.txt")), "1");
}

TEST(Liveness, BackupOfAnotherProcessesCommitIsLeftAlone)
{
    const QTemporaryDir dir;
    QProcess committer;
    startChild(committer, { "replace", dir.path() });
    ASSERT_TRUE(committer.waitForReadyRead(20000))
        << committer.readAllStandardError().toStdString();
    writeFile(dir.filePath("a.txt"), "old");
    ProjectVFS project(dir.path());
    project.open("a.txt", QIODevice::WriteOnly)->write("new");
    writeFile(dir.filePath("a.txtbck"), "theirs");
    EXPECT_THROW(project.commit(), exception::SourceFileBackupRemove);
    EXPECT_EQ(readFile(dir.filePath("a.txtbck")), "theirs");

    committer.kill();
    committer.waitForFinished();
    // A leftover now: removed, and the commit stops once.
    EXPECT_THROW(project.commit(), exception::SourceFileBackupRemove);
    project.commit();
    EXPECT_EQ(readFile(dir.filePath("a.txt")), "new");
}

// After the machine stopped, a swap file is recovered only while it holds what its owner last
// noted of it, also once moved, alone or beside another; a process that merely died lost
// nothing it wrote. An owner of an older version, which noted nothing, synced its swap files.
TEST(Liveness, SwapFilesOfAnEarlierBootAreRecoveredOnlyWhole)
{
    const QStringList hold { "hold", "a.txt" }, moved { "move", "a.txt", "sub/a.txt" },
        renamed { "move", "sub/b.txt", "sub/c.txt" };
    for (const auto& [earlierBoot, bytes, sealing, torn, edits] :
        { std::tuple { false, "????", "seals 1", false, hold },
            { true, "live", "seals 1", false, hold }, { true, "????", "seals 1", true, hold },
            { true, "live\nmore", "seals 1", true, hold }, { true, "????", "seals 0", false, hold },
            { true, "????", "seals 1", true, renamed },
            { true, "live", "seals 1", false, moved + QStringList { "b.txt" } } }) {
        SCOPED_TRACE(testing::Message() << earlierBoot << bytes << sealing << edits.size());
        const QTemporaryDir dir;
        QDir(dir.path()).mkdir("sub");
        writeFile(dir.filePath("a.txt"), "old");
        writeFile(dir.filePath("sub/b.txt"), "old");
        QProcess owner;
        startChild(owner, QStringList { edits[0], dir.path() } + edits.mid(1));
        ASSERT_TRUE(owner.waitForReadyRead(20000)) << owner.readAllStandardError().toStdString();
        const QFileInfo edited(dir.filePath(edits.value(2, edits[1])));
        const QString swap = edited.dir().filePath(
            QString(".%1.%2.csp").arg(edited.fileName()).arg(owner.processId()));
        owner.kill();
        owner.waitForFinished();
        ASSERT_EQ(readFile(swap), "live");
        const QDateTime written = QFileInfo(swap).lastModified();
        if (QByteArray(bytes) != "live")
            writeFile(swap, bytes); // what the disk kept of it, as of when it was written
        // The marks, rewritten in place as those of an earlier boot would read, and every file
        // as old, so that the times keep their order.
        // Times shifted alike to shortly after 1970, long before this boot.
        const qint64 shift = QDateTime::currentMSecsSinceEpoch() - 7200000;
        for (const QString& directory : { dir.path(), dir.filePath("sub") })
            for (const QString& name :
                QDir(directory).entryList({ ".zo-owner-*" }, QDir::Files | QDir::Hidden)) {
                QByteArray record = readFile(directory + "/" + name).replace("seals 1", sealing);
                if (earlierBoot)
                    record.replace("boot " + kBoot, "boot an-earlier-boot");
                const int at = record.indexOf("\nmarked ") + 8;
                const qint64 marked = record.mid(at, record.indexOf('\n', at) - at).toLongLong();
                if (earlierBoot)
                    record.replace(at, record.indexOf('\n', at) - at,
                        QByteArray::number(marked - shift * 1000000));
                writeFile(directory + "/" + name, record);
            }
        QFile swapFile(swap);
        ASSERT_TRUE(swapFile.open(QIODevice::ReadWrite));
        swapFile.setFileTime(
            written.addMSecs(earlierBoot ? -shift : 0), QFileDevice::FileModificationTime);
        swapFile.close();

        ProjectVFS project(dir.path());
        auto found = project.recoverableFiles();
        found.erase(std::remove_if(found.begin(), found.end(),
                        [&](const Info& info) { return dir.filePath(info.swapPath) != swap; }),
            found.end());
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(project.inspect(found).front().torn, torn);
        if (torn) {
            EXPECT_THROW(project.recoverFile(found[0]), exception::SwapFileTorn);
            EXPECT_EQ(readFile(swap), bytes);
            continue;
        }
        project.recoverFile(found[0]);
        project.commit();
        EXPECT_EQ(readFile(edited.filePath()), bytes);
    }
}

} // namespace
} // namespace zo::project
