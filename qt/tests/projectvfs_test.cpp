#include <zo/test/support.h>

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>

#include <QTemporaryDir>

#include <gmock/gmock.h>

namespace zo::project {
namespace {

using test::filesBelow;
using test::LogCapture;
using test::readFile;
using test::thrownBy;
using test::writeFile;
using Files = QMap<QString, QByteArray>;

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
    EXPECT_TRUE(vfs.exists("n/new.txt") && !QFile::exists(abs("n/new.txt")));
    EXPECT_EQ(vfs.open("a.txt", QIODevice::ReadOnly)->readAll(), "new");
    vfs.commit();
    EXPECT_FALSE(vfs.isNotCommitted());
    EXPECT_EQ(filesBelow(dir.path()), (Files { { "a.txt", "new" }, { "n/new.txt", "created" } }));
    EXPECT_EQ(reports, (std::vector<bool> { true, true })) << "commit-all does not call it";
}

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

TEST_F(Facade, ImportExportCopyAndMoveWorkOnPendingContent)
{
    QTemporaryDir outside;
    writeFile(outside.filePath("in.txt"), "imported");
    vfs.importFile(outside.filePath("in.txt"), "deep/er/in.txt", false);
    EXPECT_EQ(readFile(abs("deep/er/in.txt")), "imported");
    EXPECT_FALSE(vfs.isNotCommitted());

    writeFile(abs("a.txt"), "old");
    edit("a.txt", "new");
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

} // namespace
} // namespace zo::project
