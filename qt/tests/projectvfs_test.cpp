#include <zo/test/support.h>

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace zo::project {

// Found by argument-dependent lookup, so it lives in the record's namespace.
static bool operator==(const ProjectVFS::RecoverableInfo& a, const ProjectVFS::RecoverableInfo& b)
{
    return a.swapPath == b.swapPath && a.sourcePath == b.sourcePath && a.pid == b.pid;
}

namespace {

using test::filesBelow;
using test::LogCapture;
using test::readFile;
using test::thrownBy;
using test::writeFile;
using Files = QMap<QString, QByteArray>;
using Info = ProjectVFS::RecoverableInfo;

class Facade : public ::testing::Test {
protected:
    void SetUp() override
    {
        vfs.setCommittedChangedHandler([this](bool pending) { reports.push_back(pending); });
    }

    QString abs(const QString& relative) const { return dir.filePath(relative); }
    QString swapOf(const QString& relative) const { return abs(vfs.makeSwapPath(relative)); }
    void edit(const QString& path, const QByteArray& data)
    {
        ASSERT_EQ(
            vfs.open(path, QIODevice::WriteOnly | QIODevice::Truncate)->write(data), data.size());
    }

    QTemporaryDir dir;
    ProjectVFS vfs { dir.path() };
    std::vector<bool> reports;
};

// Another process's swap file of the same name is never overwritten.
TEST_F(Facade, OpenFailureNamesThePathAndKeepsAForeignSwapFile)
{
    writeFile(swapOf("taken.txt"), "someone else's");
    EXPECT_EQ(thrownBy([&] { vfs.open("taken.txt", QIODevice::WriteOnly); }),
        "exception::OpenSwapFile: Can not open swap file for: taken.txt: A swap file already "
        "exists for: taken.txt");
    EXPECT_THROW(vfs.fopen("absent.txt", "r"), exception::OpenSwapFile);
    EXPECT_EQ(readFile(swapOf("taken.txt")), "someone else's");
    EXPECT_FALSE(vfs.isNotCommitted());
}

// No write reaches a source before the commit; export, copy and move take the pending content.
TEST_F(Facade, EditsStayInSwapFilesUntilCommitOrDiscardOfAll)
{
    writeFile(abs("a.txt"), "old");
    edit("a.txt", "new");
    edit("b.txt", "only in swap");
    QFile::remove(swapOf("b.txt"));
    vfs.discard();
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_FALSE(vfs.exists("b.txt"));
    EXPECT_EQ(filesBelow(dir.path()), (Files { { "a.txt", "old" } }));
    EXPECT_EQ(reports, std::vector<bool> { true }) << "discard-all does not call the handler";

    edit("a.txt", "new");
    ASSERT_TRUE(vfs.mkpath("n"));
    edit("n/new.txt", "created");
    EXPECT_TRUE(vfs.exists("n/new.txt"));
    EXPECT_EQ(vfs.open("a.txt", QIODevice::ReadOnly)->readAll(), "new");
    QTemporaryDir outside;
    vfs.exportFile("a.txt", outside.filePath("out.txt"), false);
    EXPECT_EQ(readFile(outside.filePath("out.txt")), "new");
    vfs.copy("a.txt", "copy.txt", false);
    vfs.move("a.txt", "moved.txt", false);
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { "moved.txt", "old" }, { vfs.makeSwapPath("moved.txt"), "new" },
            { vfs.makeSwapPath("copy.txt"), "new" },
            { vfs.makeSwapPath("n/new.txt"), "created" } }));
    vfs.commit();
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { "copy.txt", "new" }, { "moved.txt", "new" }, { "n/new.txt", "created" } }));
    EXPECT_EQ(reports, (std::vector<bool> { true, true })) << "neither move nor commit-all call it";
}

TEST_F(Facade, RemoveTakesSwapFilesAndNeverFollowsLinks)
{
    writeFile(abs("d/a.txt"), "a");
    writeFile(abs("d/e/b.txt"), "b");
    writeFile(abs("a.txt"), "same name elsewhere");
    edit("d/e/b.txt", "pending");
    QTemporaryDir outside;
    writeFile(outside.filePath("precious.txt"), "keep");
    ASSERT_TRUE(QFile::link(outside.path(), abs("d/link")));

    vfs.remove("d");
    EXPECT_FALSE(QFileInfo::exists(abs("d")));
    EXPECT_EQ(readFile(outside.filePath("precious.txt")), "keep");
    EXPECT_EQ(readFile(abs("a.txt")), "same name elsewhere");
    EXPECT_FALSE(vfs.isNotCommitted());

    edit("a.txt", "new");
    vfs.remove("a.txt");
    EXPECT_EQ(filesBelow(dir.path()), Files {});

    // A directory in the place of a swap file makes the engine's removal fail; the whole tree
    // goes all the same, and the warning names the swap file.
    writeFile(abs("f/a.txt"), "a");
    writeFile(swapOf("f/a.txt") + "/x", "x");
    LogCapture log;
    vfs.remove("f");
    EXPECT_FALSE(QFileInfo::exists(abs("f")));
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_THAT(
        std::get<2>(log.lines[0]), testing::HasSubstr(vfs.makeSwapPath("f/a.txt").toStdString()));
}

TEST(FacadeLifetime, HandlesOutliveTheFacade)
{
    QTemporaryDir dir;
    std::unique_ptr<VFSFile> file;
    {
        ProjectVFS vfs(dir.path());
        ProjectVFS moved(std::move(vfs));
        file = moved.open("a.txt", QIODevice::WriteOnly);
    }
    file->write("kept");
    file->commit();
    EXPECT_EQ(readFile(dir.filePath("a.txt")), "kept");
}

QString swapName(const QString& file, long long pid)
{
    return QStringLiteral(".%1.%2.csp").arg(file).arg(pid);
}

using Recovery = Facade;

// Names that only look like swap files are never offered, so never recovered or abandoned.
TEST_F(Recovery, ListsSwapFilesWithSourceAndProcessAndNothingElse)
{
    for (const char* name : { "doc/.notes.txt.4242.csp", ".a.b.123.csp", ".big.txt.4194304.csp",
             ".huge.txt.99999999999.csp", ".hidden/.h.txt.5.csp", "doc/notes.txt.4242.csp",
             "doc/.x.txt.12.csp.bak" })
        writeFile(abs(name), "work");

    auto found = vfs.recoverableFiles();
    std::sort(found.begin(), found.end(),
        [](const Info& a, const Info& b) { return a.swapPath < b.swapPath; });
    EXPECT_EQ(found,
        (std::vector<Info> { { ".a.b.123.csp", "a.b", 123 },
            { ".big.txt.4194304.csp", "big.txt", 4194304 },
            { ".huge.txt.99999999999.csp", "huge.txt", 0 },
            { "doc/.notes.txt.4242.csp", "doc/notes.txt", 4242 } }));
}

// The file of a process that still runs is copied, never moved or removed; that of an ended one
// is removed.
TEST_F(Recovery, SwapOfARunningProcessIsOnlyCopiedThatOfAnEndedOneRemoved)
{
    test::LiveInstance other;
    const QString theirs = swapName("a.txt", other.pid);
    writeFile(abs(theirs), "their work");
    const Info info { theirs, "a.txt", other.pid };

    LogCapture log;
    vfs.recoverFile(info);
    EXPECT_EQ(readFile(abs(theirs)), "their work");
    EXPECT_EQ(readFile(abs(vfs.makeSwapPath("a.txt"))), "their work");
    EXPECT_TRUE(vfs.isNotCommitted("a.txt"));
    vfs.abandonFile(info);
    EXPECT_EQ(readFile(abs(theirs)), "their work");
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_THAT(std::get<2>(log.lines[1]),
        testing::AllOf(testing::HasSubstr(theirs.toStdString()),
            testing::HasSubstr(std::to_string(other.pid) + "' is still running")));

    const QString stale = swapName("b.txt", test::endedProcessId());
    writeFile(abs(stale), "stale");
    vfs.abandonFile({ stale, "b.txt", 0 });
    EXPECT_FALSE(QFile::exists(abs(stale)));
    EXPECT_THROW(vfs.abandonFile({ stale, "b.txt", 0 }), exception::SwapFileRemove);
}

TEST_F(Recovery, RefusedTransfersKeepBothFiles)
{
    // This process's own swap file: the transfer onto itself fails.
    vfs.open("a.txt", QIODevice::WriteOnly)->write("mine");
    const QString mySwap = vfs.makeSwapPath("a.txt");
    const Info own { mySwap, "a.txt", static_cast<pid_t>(QCoreApplication::applicationPid()) };
    EXPECT_THROW(vfs.recoverFile(own), exception::SwapFileRename);

    // Another process's file for a source this process already edits.
    const QString theirs = swapName("a.txt", 0);
    writeFile(abs(theirs), "theirs");
    EXPECT_THROW(vfs.recoverFile({ theirs, "a.txt", 0 }), exception::SwapFileRename);
    EXPECT_EQ(filesBelow(dir.path()), (Files { { theirs, "theirs" }, { mySwap, "mine" } }));
}

// A process edits through swap files and is killed before it saves; this process recovers
// every byte it had written.
TEST_F(Recovery, WorkOfAKilledProcessIsRecovered)
{
    writeFile(abs("existing.txt"), "before the crash");
    QByteArray large;
    for (int i = 0; i < 50000; ++i)
        large += QByteArray::number(i) + '\n';

    const pid_t editor = fork();
    if (editor == 0) {
        ProjectVFS project(dir.path());
        project.open("existing.txt", QIODevice::WriteOnly | QIODevice::Append)->write(" and after");
        project.mkpath("new");
        project.open("new/large.txt", QIODevice::WriteOnly)->write(large);
        FILE* stream = project.fopen("stream.txt", "w");
        std::fputs("through a stream", stream);
        std::fflush(stream);
        raise(SIGKILL);
    }
    waitpid(editor, nullptr, 0);

    const auto found = vfs.recoverableFiles();
    EXPECT_EQ(found.size(), 3u);
    for (const Info& info : found) {
        EXPECT_EQ(info.pid, editor);
        vfs.recoverFile(info);
    }
    vfs.commit();
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { "existing.txt", "before the crash and after" }, { "new/large.txt", large },
            { "stream.txt", "through a stream" } }));
}

} // namespace
} // namespace zo::project
