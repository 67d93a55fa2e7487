// What a commit must never lose: what open handles still buffer, a source another program
// changed, a link's place, anything outside the project; and recovery finds every swap file.
#include <zo/fault.h>
#include <zo/project/exceptions.h>
#include <zo/project/projectdir.h>
#include <zo/project/projectmodel.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>
#include <zo/test/support.h>

#include <QTemporaryDir>

#include <gmock/gmock.h>

namespace zo::project {
namespace {

using namespace test;
using testing::HasSubstr;
using Changes = ProjectVFS::SourceChanges;

class EditSafety : public ::testing::Test {
protected:
    QString abs(const QString& relative) const { return dir.filePath(relative); }

    QTemporaryDir dir;
    ProjectVFS vfs { dir.path() };
};

TEST_F(EditSafety, CommitWritesOutOpenHandlesAndClosesThem)
{
    writeFile(abs("a.txt"), "old");
    const auto handle = vfs.open("a.txt", QIODevice::WriteOnly | QIODevice::Truncate);
    handle->write("new");
    // Written out before anything is renamed, so that a crash at a rename keeps it.
    zo::os::fault::inject(zo::os::fault::Step::Rename, 2, EIO);
    EXPECT_THROW(vfs.commit(), exception::SwapFileRename);
    zo::os::fault::clear();
    EXPECT_EQ(readFile(abs(vfs.makeSwapPath("a.txt"))), "new");
    vfs.commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_FALSE(handle->isOpen());
    EXPECT_EQ(handle->write("late"), -1);
    EXPECT_EQ(readFile(abs("a.txt")), "new");
}

// A swap file removed behind the engine's back stops the commit; the source was never renamed.
TEST_F(EditSafety, VanishedSwapFileKeepsTheSource)
{
    writeFile(abs("a.txt"), "old");
    vfs.open("a.txt", QIODevice::WriteOnly)->write("new");
    QFile::remove(abs(vfs.makeSwapPath("a.txt")));
    EXPECT_THROW(vfs.commit(), exception::SwapFileMissing);
    EXPECT_EQ(filesBelow(dir.path()), (QMap<QString, QByteArray> { { "a.txt", "old" } }));
    EXPECT_TRUE(vfs.isNotCommitted("a.txt"));
}

TEST_F(EditSafety, ChangesOfOtherProgramsAreNotOverwritten)
{
    for (const QString name : { "a.txt", "b.txt", "c.txt" }) {
        writeFile(abs(name), "old");
        vfs.open(name, QIODevice::WriteOnly)->write("new");
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
TEST_F(EditSafety, PathsStayInsideTheProject)
{
    writeFile(abs("p/real.txt"), "old");
    ASSERT_TRUE(QFile::link("real.txt", abs("p/inside")) && QFile::link("..", abs("p/up"))
        && QFile::link("../out.txt", abs("p/out")));
    ProjectVFS project(abs("p"));
    project.open("inside", QIODevice::WriteOnly)->write("new");
    project.commit();
    EXPECT_EQ(QFile::symLinkTarget(abs("p/inside")), abs("p/real.txt"));
    EXPECT_EQ(readFile(abs("p/real.txt")), "new");

    ProjectDir directory(abs("p"));
    ProjectModel model;
    const std::function<void()> writes[] = {
        [&] { project.open("../out.txt", QIODevice::WriteOnly); },
        [&] { project.open(abs("out.txt"), QIODevice::WriteOnly); },
        [&] { project.open("up/out.txt", QIODevice::WriteOnly); },
        [&] { project.open("out", QIODevice::WriteOnly); },
        [&] { project.copy("real.txt", "../out.txt", true); },
        [&] { project.mkpath("../made"); },
        [&] { directory.writeFile("../out.txt", "x"); },
        [&] { model.writeFile("../escape", "x"); },
    };
    for (const auto& write : writes)
        EXPECT_THAT(thrownBy(write), HasSubstr("leads outside the project"));
    EXPECT_EQ(
        QDir(dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList { "p" });
}

TEST_F(EditSafety, RecoveryFindsEveryNameAndTheRootsFilesFirst)
{
    writeFile(abs(".line\nbreak.77.csp"), "n");
    for (int at = 0; at < 20; ++at) {
        writeFile(abs(QString("d%1/.s.txt.5.csp").arg(at)), "s");
        writeFile(abs(QString(".r%1.txt.5.csp").arg(at)), "r");
    }
    const auto found = vfs.recoverableFiles();
    ASSERT_EQ(found.size(), 41u);
    for (std::size_t at = 0; at < found.size(); ++at)
        EXPECT_EQ(found[at].sourcePath.contains('/'), at >= 21) << at;
    EXPECT_TRUE(std::any_of(found.begin(), found.end(),
        [](const auto& info) { return info.sourcePath == "line\nbreak" && info.pid == 77; }));
}

} // namespace
} // namespace zo::project
