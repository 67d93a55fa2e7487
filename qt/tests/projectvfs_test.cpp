#include "testutil.h"

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace zo::project {
namespace {

using test::LogCapture;
using test::readFile;
using test::writeFile;

class Facade : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        vfs.setCommittedChangedHandler([this](bool pending) { reports.push_back(pending); });
    }

    QString abs(const QString& relative) const { return dir.filePath(relative); }
    QString swapOf(const QString& relative) const { return abs(vfs.makeSwapPath(relative)); }
    void edit(const QString& path, const QByteArray& data)
    {
        auto file = vfs.open(path, QIODevice::WriteOnly | QIODevice::Truncate);
        ASSERT_EQ(file->write(data), data.size());
    }

    QTemporaryDir dir;
    ProjectVFS vfs { dir.path() };
    std::vector<bool> reports;
};

TEST_F(Facade, SetPathRefusesTheCurrentAndMissingPaths)
{
    EXPECT_THROW(vfs.setPath(dir.path()), exception::ProjectPathDoesNotExists);
    try {
        vfs.setPath(abs("missing"));
        FAIL() << "no exception";
    } catch (const exception::ProjectPathDoesNotExists& e) {
        EXPECT_EQ(std::string(e.what()),
            "Project path '" + abs("missing").toStdString() + "' does not exist");
    }
    ASSERT_TRUE(vfs.mkdir(QStringLiteral("sub")));
    vfs.setPath(abs("sub"));
    EXPECT_EQ(vfs.path(), abs("sub"));
}

TEST_F(Facade, EditsStayInSwapFilesUntilCommit)
{
    writeFile(abs("a.txt"), "old");
    edit(QStringLiteral("a.txt"), "new");
    ASSERT_TRUE(vfs.mkpath(QStringLiteral("n")));
    edit(QStringLiteral("n/new.txt"), "created");
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_EQ(vfs.open(QStringLiteral("a.txt"), QIODevice::ReadOnly)->readAll(), "new");
    EXPECT_TRUE(vfs.exists(QStringLiteral("n/new.txt")));
    EXPECT_FALSE(QFile::exists(abs("n/new.txt")));
    EXPECT_EQ(reports, std::vector<bool> { true });

    vfs.commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_EQ(readFile(abs("n/new.txt")), "created");
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_EQ(reports, std::vector<bool> { true }) << "commit-all does not call the handler";
}

TEST_F(Facade, DiscardAllIsSilentAndLeavesSources)
{
    writeFile(abs("a.txt"), "old");
    edit(QStringLiteral("a.txt"), "new");
    edit(QStringLiteral("b.txt"), "only in swap");
    QFile::remove(swapOf("b.txt"));
    vfs.discard();
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_FALSE(vfs.exists(QStringLiteral("b.txt")));
    EXPECT_EQ(reports, std::vector<bool> { true });
}

TEST_F(Facade, CommitAllStopsAtTheFirstFailure)
{
    for (const char* name : { "1.txt", "2.txt", "3.txt" }) {
        writeFile(abs(name), "old");
        edit(QString::fromLatin1(name), "new");
    }
    // The second file's backup cannot be made: a non-empty directory holds its name.
    writeFile(abs("2.txtbck/keep"), "");
    EXPECT_THROW(vfs.commit(), exception::SourceFileRename);
    EXPECT_EQ(readFile(abs("1.txt")), "new");
    EXPECT_FALSE(vfs.isNotCommitted(QStringLiteral("1.txt")));
    EXPECT_TRUE(vfs.isNotCommitted(QStringLiteral("2.txt")));
    EXPECT_TRUE(vfs.isNotCommitted(QStringLiteral("3.txt")));
    EXPECT_EQ(readFile(abs("3.txt")), "old");

    QDir(abs("2.txtbck")).removeRecursively();
    vfs.commit();
    EXPECT_EQ(readFile(abs("2.txt")), "new");
    EXPECT_EQ(readFile(abs("3.txt")), "new");
}

TEST_F(Facade, OpenFailureIsReportedWithThePath)
{
    writeFile(swapOf("taken.txt"), "someone else's");
    try {
        vfs.open(QStringLiteral("taken.txt"), QIODevice::WriteOnly);
        FAIL() << "no exception";
    } catch (const exception::OpenSwapFile& e) {
        EXPECT_STREQ(e.what(), "Can not open swap file for: taken.txt");
    }
    EXPECT_THROW(
        vfs.open(QStringLiteral("absent.txt"), QIODevice::ReadOnly), exception::OpenSwapFile);
    EXPECT_THROW(
        vfs.fopen(QStringLiteral("absent.txt"), QStringLiteral("r")), exception::OpenSwapFile);
    EXPECT_FALSE(vfs.isNotCommitted());
}

TEST_F(Facade, StreamsWriteToTheSwapFileOnce)
{
    writeFile(abs("a.txt"), "old content");
    FILE* out = vfs.fopen(QStringLiteral("a.txt"), QStringLiteral("w"));
    ASSERT_NE(out, nullptr);
    std::fputs("new", out);
    std::fclose(out);
    EXPECT_EQ(readFile(swapOf("a.txt")), "new");
    EXPECT_EQ(readFile(abs("a.txt")), "old content");

    // Appending continues the pending content.
    out = vfs.fopen(QStringLiteral("a.txt"), QStringLiteral("ab"));
    ASSERT_NE(out, nullptr);
    std::fputs("+more", out);
    std::fclose(out);
    EXPECT_EQ(readFile(swapOf("a.txt")), "new+more");

    writeFile(abs("r.txt"), "read me");
    FILE* in = vfs.fopen(QStringLiteral("r.txt"), QStringLiteral("rb"));
    ASSERT_NE(in, nullptr);
    char buffer[16] = {};
    EXPECT_EQ(std::fread(buffer, 1, sizeof buffer, in), 7u);
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
    EXPECT_EQ(all, (QStringList { QStringLiteral("sub/.metadata"), QStringLiteral("sub/f.txt") }));
    EXPECT_EQ(vfs.getFileList(QStringLiteral("sub/f.txt"), false, false, false),
        QStringList { QStringLiteral("sub/f.txt") });
    EXPECT_EQ(vfs.getFileList(QStringLiteral("sub"), false, false, false),
        QStringList { QStringLiteral("f.txt") });
}

TEST_F(Facade, ImportChecksDestinationFirst)
{
    const auto message = [this](const QString& source, const QString& destination) {
        try {
            vfs.importFile(source, destination, false);
        } catch (const PathNotFound& e) {
            return std::string(e.what());
        }
        return std::string("no exception");
    };
    EXPECT_EQ(message(QString(), QString()), "destination is empty");
    EXPECT_EQ(message(QString(), QStringLiteral("b")), "source is empty");
    EXPECT_EQ(
        message(QStringLiteral("x"), QStringLiteral("/abs/b")), "/abs/b is not a relative path.");

    QTemporaryDir outside;
    writeFile(outside.filePath(QStringLiteral("in.txt")), "imported");
    vfs.importFile(
        outside.filePath(QStringLiteral("in.txt")), QStringLiteral("deep/er/in.txt"), false);
    EXPECT_EQ(readFile(abs("deep/er/in.txt")), "imported");
    EXPECT_FALSE(vfs.isNotCommitted());
}

TEST_F(Facade, ExportCopyAndMoveWorkOnPendingContent)
{
    writeFile(abs("a.txt"), "old");
    edit(QStringLiteral("a.txt"), "new");
    QTemporaryDir outside;
    vfs.exportFile(QStringLiteral("a.txt"), outside.filePath(QStringLiteral("out.txt")), false);
    EXPECT_EQ(readFile(outside.filePath(QStringLiteral("out.txt"))), "new");

    vfs.copy(QStringLiteral("a.txt"), QStringLiteral("copy.txt"), false);
    EXPECT_FALSE(QFile::exists(abs("copy.txt")));
    EXPECT_EQ(readFile(swapOf("copy.txt")), "new");
    EXPECT_THROW(
        vfs.copy(QStringLiteral("a.txt"), QStringLiteral("copy.txt"), false), AlreadyExists);

    vfs.move(QStringLiteral("a.txt"), QStringLiteral("moved.txt"), false);
    EXPECT_EQ(readFile(abs("moved.txt")), "old");
    EXPECT_EQ(readFile(swapOf("moved.txt")), "new");
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_TRUE(vfs.isNotCommitted(QStringLiteral("moved.txt")));
    EXPECT_FALSE(vfs.isNotCommitted(QStringLiteral("a.txt")));

    vfs.commit();
    EXPECT_EQ(readFile(abs("moved.txt")), "new");
    EXPECT_EQ(readFile(abs("copy.txt")), "new");

    try {
        vfs.copy(QStringLiteral("nope"), QStringLiteral("x"), false);
        FAIL();
    } catch (const PathNotFound& e) {
        EXPECT_STREQ(e.what(), "nope");
    }
    try {
        vfs.move(QStringLiteral("nope"), QStringLiteral("x"), false);
        FAIL();
    } catch (const PathNotFound& e) {
        EXPECT_EQ(std::string(e.what()), abs("nope").toStdString());
    }
}

TEST_F(Facade, RemoveTakesSwapFilesAndNeverFollowsLinks)
{
    writeFile(abs("d/a.txt"), "a");
    writeFile(abs("d/e/b.txt"), "b");
    writeFile(abs("a.txt"), "same name elsewhere");
    edit(QStringLiteral("d/e/b.txt"), "pending");
    QTemporaryDir outside;
    writeFile(outside.filePath(QStringLiteral("precious.txt")), "keep");
    ASSERT_TRUE(QFile::link(outside.path(), abs("d/link")));

    vfs.remove(QStringLiteral("d"));
    EXPECT_FALSE(QFileInfo::exists(abs("d")));
    EXPECT_EQ(readFile(outside.filePath(QStringLiteral("precious.txt"))), "keep");
    EXPECT_EQ(readFile(abs("a.txt")), "same name elsewhere");
    EXPECT_FALSE(vfs.isNotCommitted());

    edit(QStringLiteral("a.txt"), "new");
    vfs.remove(QStringLiteral("a.txt"));
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
}

TEST_F(Facade, RemoveFallsBackToTheWholeTree)
{
    writeFile(abs("d/a.txt"), "a");
    // A directory in the place of the swap file makes the engine's removal fail.
    writeFile(swapOf("d/a.txt") + QStringLiteral("/x"), "x");
    LogCapture log;
    vfs.remove(QStringLiteral("d"));
    EXPECT_FALSE(QFileInfo::exists(abs("d")));
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0],
        LogCapture::Line("ProjectVFS", 3,
            "Can not remove swap file "
                + vfs.makeSwapPath(QStringLiteral("d/a.txt")).toStdString()));
}

TEST_F(Facade, UpdateFromSourceRefreshesThePendingSwap)
{
    writeFile(abs("a.txt"), "v1");
    edit(QStringLiteral("a.txt"), "mine");
    writeFile(abs("a.txt"), "v2 from outside");
    vfs.updateFromSource(QStringLiteral("a.txt"));
    EXPECT_EQ(readFile(swapOf("a.txt")), "v2 from outside");
    vfs.updateFromSource(QStringLiteral("not-pending.txt"));
}

TEST(FacadeLifetime, HandlesOutliveTheFacade)
{
    QTemporaryDir dir;
    std::unique_ptr<VFSFile> file;
    {
        ProjectVFS vfs(dir.path());
        ProjectVFS moved(std::move(vfs));
        file = moved.open(QStringLiteral("a.txt"), QIODevice::WriteOnly);
    }
    file->write("kept");
    file->commit();
    EXPECT_EQ(readFile(dir.filePath(QStringLiteral("a.txt"))), "kept");
}

} // namespace
} // namespace zo::project
