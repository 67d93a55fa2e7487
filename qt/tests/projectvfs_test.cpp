#include <zo/test/support.h>

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>

namespace zo::project {
namespace {

using test::LogCapture;
using test::readFile;
using test::thrownBy;
using test::writeFile;

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

TEST_F(Facade, SetPathRefusesTheCurrentAndMissingPaths)
{
    EXPECT_THROW(vfs.setPath(dir.path()), exception::ProjectPathDoesNotExists);
    EXPECT_EQ(thrownBy([&] { vfs.setPath(abs("missing")); }),
        "exception::ProjectPathDoesNotExists: Project path '" + abs("missing").toStdString()
            + "' does not exist");
    ASSERT_TRUE(vfs.mkdir("sub"));
    vfs.setPath(abs("sub"));
    EXPECT_EQ(vfs.path(), abs("sub"));
}

TEST_F(Facade, EditsStayInSwapFilesUntilCommitOrDiscardOfAll)
{
    writeFile(abs("a.txt"), "old");
    edit("a.txt", "new");
    edit("b.txt", "only in swap");
    QFile::remove(swapOf("b.txt"));
    vfs.discard();
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_FALSE(vfs.exists("b.txt"));
    EXPECT_EQ(reports, std::vector<bool> { true }) << "discard-all does not call the handler";

    edit("a.txt", "new");
    ASSERT_TRUE(vfs.mkpath("n"));
    edit("n/new.txt", "created");
    EXPECT_TRUE(vfs.exists("n/new.txt") && !QFile::exists(abs("n/new.txt")));
    vfs.commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_EQ(readFile(abs("n/new.txt")), "created");
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_EQ(reports, (std::vector<bool> { true, true })) << "commit-all does not call it";
}

TEST_F(Facade, CommitAllStopsAtTheFirstFailure)
{
    for (const char* name : { "1.txt", "2.txt", "3.txt" }) {
        writeFile(abs(name), "old");
        edit(name, "new");
    }
    // The second file's backup cannot be made: a non-empty directory holds its name.
    writeFile(abs("2.txtbck/keep"), "");
    EXPECT_THROW(vfs.commit(), exception::SourceFileRename);
    EXPECT_EQ(readFile(abs("1.txt")), "new");
    EXPECT_FALSE(vfs.isNotCommitted("1.txt"));
    EXPECT_EQ(readFile(abs("3.txt")), "old");

    QDir(abs("2.txtbck")).removeRecursively();
    vfs.commit();
    EXPECT_EQ(readFile(abs("2.txt")), "new");
    EXPECT_EQ(readFile(abs("3.txt")), "new");
}

TEST_F(Facade, OpenFailureIsReportedWithThePath)
{
    writeFile(swapOf("taken.txt"), "someone else's");
    EXPECT_EQ(thrownBy([&] { vfs.open("taken.txt", QIODevice::WriteOnly); }),
        "exception::OpenSwapFile: Can not open swap file for: taken.txt: A swap file already "
        "exists for: taken.txt");
    EXPECT_THROW(vfs.open("absent.txt", QIODevice::ReadOnly), exception::OpenSwapFile);
    EXPECT_THROW(vfs.fopen("absent.txt", "r"), exception::OpenSwapFile);
    EXPECT_FALSE(vfs.isNotCommitted());
}

TEST_F(Facade, StreamsWriteToTheSwapFileAndTruncateItOnce)
{
    writeFile(abs("a.txt"), "old content");
    const auto put = [&](const char* mode, const char* text) {
        FILE* out = vfs.fopen("a.txt", mode);
        ASSERT_NE(out, nullptr) << mode;
        std::fputs(text, out);
        std::fclose(out);
    };
    // Over a pending swap file "w" truncates once, through the device; the stream itself must
    // not truncate again after writing.
    put("w+", "0123456789");
    put("w", "new");
    put("ab", "+more");
    EXPECT_EQ(readFile(swapOf("a.txt")), "new+more");
    EXPECT_EQ(readFile(abs("a.txt")), "old content");

    writeFile(abs("r.txt"), "read me");
    FILE* in = vfs.fopen("r.txt", "rb"); // only the source exists to be opened
    ASSERT_NE(in, nullptr);
    std::fclose(in);
    EXPECT_FALSE(QFile::exists(swapOf("r.txt")));
}

TEST_F(Facade, ListingHidesOnlyTheTopMetadataFile)
{
    writeFile(abs(".metadata"), "m");
    writeFile(abs("sub/.metadata"), "m");
    writeFile(abs("sub/f.txt"), "f");
    QStringList all = vfs.getFileList(QString(), true, true, false);
    all.sort();
    EXPECT_EQ(all, (QStringList { "sub/.metadata", "sub/f.txt" }));
    EXPECT_EQ(vfs.getFileList("sub/f.txt", false, false, false), QStringList { "sub/f.txt" });
    EXPECT_EQ(vfs.getFileList("sub", false, false, false), QStringList { "f.txt" });
}

TEST_F(Facade, ImportChecksDestinationFirst)
{
    const auto message = [this](const QString& source, const QString& destination) {
        return thrownBy([&] { vfs.importFile(source, destination, false); });
    };
    EXPECT_EQ(message(QString(), QString()), "PathNotFound: destination is empty");
    EXPECT_EQ(message(QString(), "b"), "PathNotFound: source is empty");
    EXPECT_EQ(message("x", "/abs/b"), "PathNotFound: /abs/b is not a relative path.");

    QTemporaryDir outside;
    writeFile(outside.filePath("in.txt"), "imported");
    vfs.importFile(outside.filePath("in.txt"), "deep/er/in.txt", false);
    EXPECT_EQ(readFile(abs("deep/er/in.txt")), "imported");
    EXPECT_FALSE(vfs.isNotCommitted());
}

TEST_F(Facade, ExportCopyAndMoveWorkOnPendingContent)
{
    writeFile(abs("a.txt"), "old");
    edit("a.txt", "new");
    QTemporaryDir outside;
    vfs.exportFile("a.txt", outside.filePath("out.txt"), false);
    EXPECT_EQ(readFile(outside.filePath("out.txt")), "new");

    vfs.copy("a.txt", "copy.txt", false);
    EXPECT_FALSE(QFile::exists(abs("copy.txt")));
    EXPECT_EQ(readFile(swapOf("copy.txt")), "new");
    EXPECT_THROW(vfs.copy("a.txt", "copy.txt", false), AlreadyExists);

    reports.clear();
    vfs.move("a.txt", "moved.txt", false);
    EXPECT_EQ(reports, (std::vector<bool> {})) << "the table never became empty";
    EXPECT_EQ(readFile(abs("moved.txt")), "old");
    EXPECT_EQ(readFile(swapOf("moved.txt")), "new");
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_FALSE(vfs.isNotCommitted("a.txt"));

    vfs.commit();
    EXPECT_EQ(readFile(abs("moved.txt")), "new");
    EXPECT_EQ(readFile(abs("copy.txt")), "new");

    EXPECT_EQ(thrownBy([&] { vfs.copy("nope", "x", false); }), "PathNotFound: nope");
    EXPECT_EQ(thrownBy([&] { vfs.move("nope", "x", false); }),
        std::string("PathNotFound: ") + abs("nope").toStdString());
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
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));

    // A directory in the place of a swap file makes the engine's removal fail; the whole tree
    // goes all the same.
    writeFile(abs("f/a.txt"), "a");
    writeFile(swapOf("f/a.txt") + "/x", "x");
    LogCapture log;
    vfs.remove("f");
    EXPECT_FALSE(QFileInfo::exists(abs("f")));
    EXPECT_EQ(log.lines,
        std::vector { LogCapture::Line("ProjectVFS", 3,
            "Can not remove swap file " + vfs.makeSwapPath("f/a.txt").toStdString()) });
}

TEST_F(Facade, UpdateFromSourceRefreshesThePendingSwap)
{
    writeFile(abs("a.txt"), "v1");
    edit("a.txt", "mine");
    writeFile(abs("a.txt"), "v2 from outside");
    vfs.updateFromSource("a.txt");
    EXPECT_EQ(readFile(swapOf("a.txt")), "v2 from outside");
    vfs.updateFromSource("not-pending.txt");
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

} // namespace
} // namespace zo::project
