// The facade: edits in swap files until a commit that loses nothing (what open handles still
// buffer, a source another program changed, a link's place, anything outside the project), and
// recovery of what other processes left.
#include <zo/test/support.h>

#include <zo/fault.h>
#include <zo/project/exceptions.h>
#include <zo/project/projectdir.h>
#include <zo/project/projectmodel.h>
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

using namespace test;
using testing::HasSubstr;
using Files = QMap<QString, QByteArray>;
using Info = ProjectVFS::RecoverableInfo;
using Changes = ProjectVFS::SourceChanges;

class Facade : public ::testing::Test {
protected:
    QString abs(const QString& relative) const { return dir.filePath(relative); }
    QString swapOf(const QString& relative) const { return abs(vfs.makeSwapPath(relative)); }
    void edit(const QString& path, const QByteArray& data)
    {
        ASSERT_EQ(
            vfs.open(path, QIODevice::WriteOnly | QIODevice::Truncate)->write(data), data.size());
    }

    QTemporaryDir dir;
    ProjectVFS vfs { dir.path() };
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
    EXPECT_EQ(filesBelow(dir.path()), (Files { { "a.txt", "old" } }));

    edit("a.txt", "new");
    ASSERT_TRUE(vfs.mkpath("n"));
    edit("n/new.txt", "created");
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
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { "copy.txt", "new" }, { "moved.txt", "new" }, { "n/new.txt", "created" } }));
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
    EXPECT_EQ(readFile(outside.filePath("precious.txt")), "keep");
    EXPECT_EQ(readFile(abs("a.txt")), "same name elsewhere");
    EXPECT_FALSE(vfs.isNotCommitted());
    edit("a.txt", "new");
    vfs.remove("./a.txt/");
    EXPECT_EQ(filesBelow(dir.path()), Files {});

    // A directory in the place of a swap file is none: it goes with the tree.
    writeFile(abs("f/a.txt"), "a");
    writeFile(swapOf("f/a.txt") + "/x", "x");
    vfs.remove("f");
    EXPECT_FALSE(QFileInfo::exists(abs("f")));
}

TEST_F(Facade, CommitWritesOutOpenHandlesAndClosesThem)
{
    writeFile(abs("a.txt"), "old");
    const auto handle = vfs.open("a.txt", QIODevice::WriteOnly | QIODevice::Truncate);
    handle->write("new");
    // Written out before anything is renamed, so that a crash at a rename keeps it.
    zo::os::fault::inject(zo::os::fault::Step::Rename, 2, EIO);
    EXPECT_THROW(vfs.commit(), exception::SwapFileRename);
    zo::os::fault::clear();
    EXPECT_EQ(readFile(swapOf("a.txt")), "new");
    vfs.commit();
    EXPECT_FALSE(handle->isOpen());
    EXPECT_EQ(handle->write("late"), -1);
    EXPECT_EQ(readFile(abs("a.txt")), "new");

    // Also a handle whose file another handle moved, and copied and exported before.
    const auto moved = vfs.open("b.txt", QIODevice::WriteOnly);
    moved->write("buffered");
    vfs.copy("b.txt", "d.txt", false);
    vfs.exportFile("b.txt", abs("e.txt"), false);
    EXPECT_EQ(readFile(swapOf("d.txt")) + readFile(abs("e.txt")), "bufferedbuffered");
    vfs.move("b.txt", "c.txt", false);
    vfs.commit("c.txt");
    EXPECT_EQ(readFile(abs("c.txt")), "buffered");
}

// A swap file removed behind the engine's back stops the commit; the source was never renamed.
TEST_F(Facade, VanishedSwapFileKeepsTheSource)
{
    writeFile(abs("a.txt"), "old");
    edit("a.txt", "new");
    QFile::remove(swapOf("a.txt"));
    EXPECT_THROW(vfs.commit(), exception::SwapFileMissing);
    EXPECT_EQ(filesBelow(dir.path()), (Files { { "a.txt", "old" } }));
    EXPECT_TRUE(vfs.isNotCommitted("a.txt"));
}

TEST_F(Facade, ChangesOfOtherProgramsAreNotOverwritten)
{
    for (const QString name : { "a.txt", "b.txt", "c.txt" }) {
        writeFile(abs(name), "old");
        edit(name, "new");
    }
    writeFile(abs("a.txt"), "theirs");
    writeFile(abs("c.txt"), "theirs");
    EXPECT_EQ(thrownBy([&] { vfs.commit(); }),
        "exception::SourceFileChanged: Source file changed by another program: a.txt, c.txt");
    EXPECT_EQ(readFile(abs("b.txt")), "old");
    EXPECT_THROW(vfs.commit("a.txt"), exception::SourceFileChanged);
    vfs.commit(Changes::Overwrite);
    EXPECT_EQ(readFile(abs("a.txt")), "new");

    ProjectModel model;
    model.writeFile("a.txt", "mine");
    model.save(abs("p.zip"), ArchiveFormat::Auto, true);
    ProjectModel other;
    other.load(abs("p.zip"), ArchiveFormat::Auto);
    other.save("", ArchiveFormat::Native, true);
    EXPECT_THROW(model.save("", ArchiveFormat::Native, true), exception::SourceFileChanged);
    model.save("", ArchiveFormat::Native, true, Changes::Overwrite);
}

// A link inside the project keeps its place; one that leaves it is refused like any path
// outside, by every front end, before anything is written.
TEST_F(Facade, PathsStayInsideTheProject)
{
    writeFile(abs("p/real.txt"), "old");
    ASSERT_TRUE(QFile::link("real.txt", abs("p/inside")) && QFile::link("..", abs("p/up"))
        && QFile::link("../out.txt", abs("p/out")));
    ProjectVFS project(abs("p"));
    project.open("inside", QIODevice::WriteOnly)->write("new");
    project.commit();
    EXPECT_EQ(QFile::symLinkTarget(abs("p/inside")), abs("p/real.txt"));
    EXPECT_EQ(readFile(abs("p/real.txt")), "new");
    // Named as text, as its swap file is: through a linked directory, ".." is not the link's.
    writeFile(abs("p/sub/real.txt"), "beside");
    ASSERT_TRUE(QDir(abs("p")).mkpath("sub/deep") && QFile::link("sub/deep", abs("p/deep")));
    project.open("deep/../real.txt", QIODevice::WriteOnly)->write("cleaned");
    project.commit();
    EXPECT_EQ(readFile(abs("p/real.txt")), "cleaned");
    EXPECT_EQ(readFile(abs("p/sub/real.txt")), "beside");

    ProjectDir directory(abs("p"));
    ProjectModel model;
    const std::function<void()> writes[] = {
        [&] { project.open("../out.txt", QIODevice::WriteOnly); },
        [&] { project.open(abs("out.txt"), QIODevice::WriteOnly); },
        [&] { project.open("up/out.txt", QIODevice::WriteOnly); },
        [&] { project.open("deep/../../out.txt", QIODevice::WriteOnly); },
        [&] { project.open("out", QIODevice::WriteOnly); },
        [&] { project.copy("real.txt", "../out.txt", true); },
        [&] { project.mkpath("../made"); },
        [&] { directory.writeFile("../out.txt", "x"); },
        [&] { model.writeFile("../escape", "x"); },
        [&] { directory.readFile("out"); },
        [&] { project.copy("out", "copied.txt", true); },
        [&] { project.file("out")->copy("copied.txt"); },
    };
    writeFile(abs("out.txt"), "outside");
    for (const auto& write : writes)
        EXPECT_THAT(thrownBy(write), HasSubstr("leads outside the project"));
    EXPECT_THAT(thrownBy([&] { directory.readFile("out"); }), HasSubstr("PathOutsideProject"));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
        (QStringList { "out.txt", "p" }));
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

using Recovery = Facade;

// Names that only look like swap files are never offered, so never recovered or abandoned; any
// other name is, a newline in it too.
TEST_F(Recovery, ListsSwapFilesRootFirstWithSourceAndProcessAndNothingElse)
{
    for (const char* name : { "doc/.notes.txt.4242.csp", ".a.b.123.csp", ".big.txt.4194304.csp",
             ".huge.txt.99999999999.csp", ".line\nbreak.77.csp", ".hidden/.h.txt.5.csp",
             "doc/notes.txt.4242.csp", "doc/.x.txt.12.csp.bak" })
        writeFile(abs(name), "work");

    auto found = vfs.recoverableFiles();
    EXPECT_TRUE(std::is_partitioned(found.begin(), found.end(),
        [](const Info& info) { return !info.sourcePath.contains('/'); }));
    std::sort(found.begin(), found.end(),
        [](const Info& a, const Info& b) { return a.swapPath < b.swapPath; });
    EXPECT_EQ(found,
        (std::vector<Info> { { ".a.b.123.csp", "a.b", 123 },
            { ".big.txt.4194304.csp", "big.txt", 4194304 },
            { ".huge.txt.99999999999.csp", "huge.txt", 0 },
            { ".line\nbreak.77.csp", "line\nbreak", 77 },
            { "doc/.notes.txt.4242.csp", "doc/notes.txt", 4242 } }));

    // Once each, under its own name where the walk looks into its directory itself.
    ASSERT_TRUE(QFile::link("doc", abs("adoc")) && QFile::link(".", abs("self"))
        && QFile::link(".hidden", abs("h1")) && QFile::link(".hidden", abs("h2")));
    found = vfs.recoverableFiles();
    EXPECT_EQ(found.size(), 6u);
    EXPECT_EQ(std::count_if(found.begin(), found.end(),
                  [](const Info& info) { return info.swapPath.endsWith("/.h.txt.5.csp"); }),
        1);
}

// The file of a process that still runs is copied, never moved or removed.
TEST_F(Recovery, SwapOfARunningProcessIsOnlyCopied)
{
    LiveInstance other;
    const Info info { QString(".a.txt.%1.csp").arg(other.pid), "a.txt", other.pid };
    writeFile(abs(info.swapPath), "their work");
    vfs.recoverFile(info);
    vfs.abandonFile(info);
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { info.swapPath, "their work" }, { vfs.makeSwapPath("a.txt"), "their work" } }));
}

TEST_F(Recovery, RefusedTransfersKeepBothFiles)
{
    // This process's own swap file: the transfer onto itself fails.
    vfs.open("a.txt", QIODevice::WriteOnly)->write("mine");
    const QString mySwap = vfs.makeSwapPath("a.txt");
    const Info own { mySwap, "a.txt", static_cast<pid_t>(QCoreApplication::applicationPid()) };
    EXPECT_THROW(vfs.recoverFile(own), exception::SwapFileRename);

    // Another process's file for a source this process already edits.
    const QString theirs = ".a.txt.0.csp";
    writeFile(abs(theirs), "theirs");
    EXPECT_THROW(vfs.recoverFile({ theirs, "a.txt", 0 }), exception::SwapFileRename);
    EXPECT_EQ(filesBelow(dir.path()), (Files { { theirs, "theirs" }, { mySwap, "mine" } }));
}

// A process edits through swap files and is killed before it saves; this process recovers
// every byte it had written, and the version of each source it had noted: a change another
// program made since shows, and stops the commit.
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
    writeFile(abs("existing.txt"), "changed meanwhile");

    const auto found = vfs.recoverableFiles();
    const auto states = vfs.inspect(found);
    ASSERT_EQ(found.size(), 3u);
    for (std::size_t at = 0; at < found.size(); ++at) {
        EXPECT_EQ(found[at].pid, editor);
        EXPECT_EQ(states[at].sourceChanged, found[at].sourcePath == "existing.txt");
        vfs.recoverFile(found[at]);
    }
    EXPECT_THROW(vfs.commit(), exception::SourceFileChanged);
    vfs.commit(Changes::Overwrite);
    EXPECT_EQ(filesBelow(dir.path()),
        (Files { { "existing.txt", "before the crash and after" }, { "new/large.txt", large },
            { "stream.txt", "through a stream" } }));
}

} // namespace
} // namespace zo::project
