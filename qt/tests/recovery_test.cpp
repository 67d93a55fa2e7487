#include <zo/test/support.h>

#include <zo/project/exceptions.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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

using test::deadPid;
using test::LiveInstance;
using test::LogCapture;
using test::readFile;
using test::thrownBy;
using test::writeFile;
using Info = ProjectVFS::RecoverableInfo;

class Recovery : public ::testing::Test {
protected:
    QString abs(const QString& relative) const { return dir.filePath(relative); }
    static QString swapName(const QString& file, long long pid)
    {
        return QStringLiteral(".%1.%2.csp").arg(file).arg(pid);
    }

    QTemporaryDir dir;
    ProjectVFS vfs { dir.path() };
};

TEST_F(Recovery, ListsSwapFilesWithSourceAndProcess)
{
    writeFile(abs("doc/.notes.txt.4242.csp"), "n");
    writeFile(abs(".a.b.123.csp"), "ab");
    writeFile(abs(".big.txt.4194304.csp"), "big");
    writeFile(abs(".huge.txt.99999999999.csp"), "too big for any process id");
    writeFile(abs(".hidden/.h.txt.5.csp"), "h");
    writeFile(abs("doc/notes.txt.4242.csp"), "no leading dot");
    writeFile(abs("doc/.x.txt.12.csp.bak"), "other extension");

    auto found = vfs.recoverableFiles();
    std::sort(found.begin(), found.end(),
        [](const Info& a, const Info& b) { return a.swapPath < b.swapPath; });
    EXPECT_EQ(found,
        (std::vector<Info> { { ".a.b.123.csp", "a.b", 123 },
            { ".big.txt.4194304.csp", "big.txt", 4194304 },
            { ".huge.txt.99999999999.csp", "huge.txt", 0 },
            { "doc/.notes.txt.4242.csp", "doc/notes.txt", 4242 } }));
}

TEST_F(Recovery, ReadOnlyDirectoriesAreNotScanned)
{
    writeFile(abs("ro/.r.txt.77.csp"), "r");
    const test::ScopedMount readOnly(abs("ro"));
    if (!readOnly.mounted)
        GTEST_SKIP() << "cannot mount here";
    EXPECT_TRUE(vfs.recoverableFiles().empty());
}

TEST_F(Recovery, SwapOfAnEndedProcessIsMovedAndCommitted)
{
    std::vector<bool> reports;
    vfs.setCommittedChangedHandler([&](bool pending) { reports.push_back(pending); });
    writeFile(abs("d/a.txt"), "old");
    const QString foreign = "d/" + swapName("a.txt", deadPid());
    writeFile(abs(foreign), "unsaved work");

    const auto found = vfs.recoverableFiles();
    ASSERT_EQ(found.size(), 1u);
    vfs.recoverFile(found[0]);
    EXPECT_FALSE(QFile::exists(abs(foreign)));
    EXPECT_EQ(reports, std::vector<bool> { true });
    EXPECT_EQ(vfs.open("d/a.txt", QIODevice::ReadOnly)->readAll(), "unsaved work");
    vfs.commit();
    EXPECT_EQ(readFile(abs("d/a.txt")), "unsaved work");
}

TEST_F(Recovery, SwapOfARunningProcessIsCopiedAndKept)
{
    LiveInstance other;
    const QString theirs = swapName("a.txt", other.pid);
    writeFile(abs(theirs), "their work");
    const Info info { theirs, "a.txt", other.pid };

    LogCapture log;
    vfs.recoverFile(info);
    EXPECT_EQ(readFile(abs(theirs)), "their work");
    EXPECT_EQ(readFile(abs(vfs.makeSwapPath("a.txt"))), "their work");
    EXPECT_TRUE(vfs.isNotCommitted("a.txt"));

    vfs.abandonFile(info);
    EXPECT_TRUE(QFile::exists(abs(theirs)));
    const LogCapture::Line line("ProjectVFS", 4,
        "Not removing '" + theirs.toStdString() + "' because process '" + std::to_string(other.pid)
            + "' is still running");
    EXPECT_EQ(log.lines, (std::vector<LogCapture::Line> { line, line }));
}

TEST_F(Recovery, RefusedTransfersKeepBothFiles)
{
    // This process's own swap file: the transfer onto itself fails.
    vfs.open("a.txt", QIODevice::WriteOnly)->write("mine");
    const QString mySwap = vfs.makeSwapPath("a.txt");
    const Info own { mySwap, "a.txt", static_cast<pid_t>(QCoreApplication::applicationPid()) };
    EXPECT_EQ(thrownBy([&] { vfs.recoverFile(own); }),
        "exception::SwapFileRename: Can not rename swap file: " + mySwap.toStdString());

    // Another process's file for a source this process already edits.
    const QString theirs = swapName("a.txt", 0);
    writeFile(abs(theirs), "theirs");
    EXPECT_THROW(vfs.recoverFile({ theirs, "a.txt", 0 }), exception::SwapFileRename);
    EXPECT_EQ(readFile(abs(theirs)), "theirs");
    EXPECT_EQ(readFile(abs(mySwap)), "mine");
}

TEST_F(Recovery, AbandonRemovesOnlyFilesOfEndedProcesses)
{
    const QString stale = swapName("a.txt", deadPid());
    writeFile(abs(stale), "stale");
    const Info info { stale, "a.txt", 0 };
    vfs.abandonFile(info);
    EXPECT_FALSE(QFile::exists(abs(stale)));
    EXPECT_EQ(thrownBy([&] { vfs.abandonFile(info); }),
        "exception::SwapFileRemove: Can not remove swap file: " + stale.toStdString());
    EXPECT_FALSE(vfs.isNotCommitted());
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
    EXPECT_EQ(readFile(abs("existing.txt")), "before the crash and after");
    EXPECT_EQ(readFile(abs("new/large.txt")), large);
    EXPECT_EQ(readFile(abs("stream.txt")), "through a stream");
    EXPECT_TRUE(vfs.recoverableFiles().empty());
}

} // namespace
} // namespace zo::project
