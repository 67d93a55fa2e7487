// Tests of the swap-file engine: naming, the entry table, swap creation and the commit protocol.
//
// What a crash can leave on disk while a file F is committed (S source, W swap, B backup):
//   before the commit                  S = old, W = new
//   after S was renamed to B           B = old, W = new          (no S)
//   after W was renamed to S           S = new, B = old          (no W)
//   after B was removed                S = new
// Every state holds both contents or the new one alone; the tests under
// "CrashStates" rebuild the middle states and check that the library carries each of them
// to the new content without losing it.

#include "projectvfs_impl.h"
#include <zo/fault.h>
#include <zo/project/exceptions.h>
#include <zo/project/vfsfile.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>

namespace zo::project {
namespace {

using detail::ProjectVFS_Impl;
using test::LogCapture;
using test::readFile;
using test::thrownBy;
using test::writeFile;

class Engine : public ::testing::Test {
protected:
    void SetUp() override
    {
        engine->notCommittedChanged = [this](bool pending) { reports.push_back(pending); };
    }

    QString abs(const QString& relative) const { return dir.filePath(relative); }
    QString swapOf(const QString& relative) const { return abs(engine->makeSwapPath(relative)); }
    std::unique_ptr<VFSFile> handle(const QString& path)
    {
        return std::make_unique<VFSFile>(engine, path);
    }
    // A pending change of path: source old (unless null), swap new.
    std::unique_ptr<VFSFile> pending(
        const QString& path, const char* oldContent, const char* newContent)
    {
        if (oldContent)
            writeFile(abs(path), oldContent);
        auto file = handle(path);
        file->createSwapFile();
        writeFile(swapOf(path), newContent);
        return file;
    }

    QTemporaryDir dir;
    std::shared_ptr<ProjectVFS_Impl> engine = std::make_shared<ProjectVFS_Impl>(dir.path());
    std::vector<bool> reports;
};

TEST_F(Engine, NamesOfSwapAndBackupFilesAndOfTheFileAHandleOpens)
{
    const QString pid = QString::number(QCoreApplication::applicationPid());
    EXPECT_EQ(engine->makeSwapPath("a.txt"), ".a.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeSwapPath("/p/d/a.txt"), "/p/d/.a.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeSwapPath("d/../a.txt"), ".a.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeSwapPath("d/e/a.b"), "d/e/.a.b." + pid + ".csp");
    // Placeholder-like names are kept as they are.
    EXPECT_EQ(engine->makeSwapPath("50%1.txt"), ".50%1.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeBackupPath("/p/a.txt"), "/p/a.txtbck");

    engine->addEntry("pending.txt", swapOf("pending.txt"));
    const VFSFile pendingFile(engine, "pending.txt");
    EXPECT_EQ(pendingFile.openedPath(), engine->makeSwapPath("pending.txt"));
    EXPECT_EQ(pendingFile.fileName(), "pending.txt");
    EXPECT_EQ(VFSFile(engine, "plain.txt").openedPath(), "plain.txt");
}

TEST_F(Engine, HandlerReportsFirstEntryAndEmptyTableWithRepeats)
{
    engine->addEntry("a", "sa");
    engine->addEntry("b", "sb");
    EXPECT_EQ(reports, std::vector<bool> { true });
    engine->removeEntry("a");
    engine->addEntry("b", "sb2");
    EXPECT_EQ(reports, (std::vector<bool> { true, true }));
    engine->removeEntry("b");
    engine->removeEntry("absent");
    EXPECT_EQ(reports, (std::vector<bool> { true, true, false, false }));

    engine->addEntry("x", "sx");
    reports.clear();
    VFSFile moved(engine, "y");
    engine->moveEntry(moved, "x");
    EXPECT_EQ(reports, (std::vector<bool> { false, true }));
    EXPECT_EQ(engine->pendingSwap("y"), abs(moved.swapName()));
    EXPECT_TRUE(engine->isNotCommitted("y"));
    EXPECT_FALSE(engine->isNotCommitted("./y"));
}

TEST_F(Engine, ExistenceGoesThroughPendingSwapFiles)
{
    writeFile(abs("src.txt"), "source");
    engine->addEntry("src.txt", abs("missing-swap"));
    EXPECT_FALSE(engine->hasFile("src.txt"));
    EXPECT_FALSE(engine->hasPath("src.txt"));

    writeFile(abs(".new.swp"), "");
    engine->addEntry("new.txt", abs(".new.swp"));
    EXPECT_TRUE(engine->hasFile("new.txt"));
    QDir(dir.path()).mkdir("d");
    EXPECT_TRUE(engine->hasPath("d"));
    EXPECT_FALSE(engine->hasFile("d"));
}

TEST_F(Engine, CreateSwapFileCopiesOrCreatesOnceAndReportsFailures)
{
    writeFile(abs("d/a.txt"), "content");
    const QString swap = engine->createSwapFile("d/a.txt", engine->makeSwapPath("d/a.txt"));
    EXPECT_EQ(swap, swapOf("d/a.txt"));
    EXPECT_EQ(readFile(swap), "content");
    EXPECT_EQ(reports, std::vector<bool> { true });

    // A known entry is returned without looking at the disk.
    QFile::remove(swap);
    EXPECT_EQ(engine->createSwapFile("d/a.txt", "other"), swap);
    EXPECT_FALSE(QFile::exists(swap));

    EXPECT_EQ(readFile(engine->createSwapFile("new.txt", engine->makeSwapPath("new.txt"))), "");
    EXPECT_FALSE(QFile::exists(abs("new.txt")));

    writeFile(swapOf("foreign.txt"), "theirs");
    EXPECT_EQ(thrownBy([&] {
        engine->createSwapFile("foreign.txt", engine->makeSwapPath("foreign.txt"));
    }),
        "exception::SwapFileAlreadyExists: A swap file already exists for: foreign.txt");
    EXPECT_EQ(readFile(swapOf("foreign.txt")), "theirs");

    // A directory cannot be copied into a swap file.
    QDir(dir.path()).mkpath("folder/inner");
    try {
        engine->createSwapFile("folder", engine->makeSwapPath("folder"));
        ADD_FAILURE() << "no exception";
    } catch (const exception::CopySwapFile& e) {
        EXPECT_STREQ(e.what(), "Can not copy swap file for: folder: file to open is a directory");
        EXPECT_EQ(e.tempPath(), swapOf("folder"));
    }

    EXPECT_THROW(engine->createSwapFile("nodir/x.txt", engine->makeSwapPath("nodir/x.txt")),
        exception::CreateSwapFile);
    EXPECT_EQ(engine->pendingPaths(), (QStringList { "d/a.txt", "new.txt" }));
}

using Commit = Engine;

TEST_F(Commit, ReplacesSourceAndLeavesNoTrace)
{
    pending("a.txt", "old", "new")->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
    EXPECT_EQ(reports, (std::vector<bool> { true, false }));

    QDir(dir.path()).mkdir("sub");
    pending("sub/new.txt", nullptr, "fresh")->commit();
    EXPECT_EQ(readFile(abs("sub/new.txt")), "fresh");
    EXPECT_EQ(QDir(abs("sub")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList { "new.txt" });

    // Without an entry only the file's existence is checked.
    handle("a.txt")->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_EQ(thrownBy([&] { handle("gone.txt")->commit(); }),
        "exception::SourceFileDoesNotExists: Source file does not exist for:gone.txt");
}

TEST_F(Commit, StaleBackupIsRemovedAndStopsTheFirstAttempt)
{
    auto file = pending("a.txt", "old", "new");
    writeFile(abs("a.txtbck"), "stale");
    EXPECT_EQ(thrownBy([&] { file->commit(); }),
        "exception::SourceFileBackupRemove: Can not remove source file backup: a.txtbck");
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
    EXPECT_EQ(readFile(abs("a.txt")), "old");

    file->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
}

// The source could not become the backup, or the swap file could not take its place.
TEST_F(Commit, FailedRenameKeepsBothContentsPending)
{
    const std::string sourceRename
        = "exception::SourceFileRename: Can not rename source file: " + abs("a.txt").toStdString();
    for (const auto& [nth, thrown] : { std::pair { 1, sourceRename },
             { 2, std::string("exception::SwapFileRename: Can not rename swap file: a.txt") } }) {
        auto file = pending("a.txt", "old", "new");
        zo::os::fault::inject(zo::os::fault::Step::Rename, nth, EIO);
        EXPECT_EQ(thrownBy([&] { file->commit(); }), thrown);
        zo::os::fault::clear();
        EXPECT_EQ(readFile(abs("a.txt")), "old");
        EXPECT_EQ(readFile(swapOf("a.txt")), "new");
        EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
        EXPECT_TRUE(engine->isNotCommitted("a.txt"));
        file->discard();
    }
}

TEST_F(Commit, VanishedSwapThrowsAndKeepsTheSource)
{
    auto file = pending("a.txt", "old", "new");
    QFile::remove(swapOf("a.txt"));
    EXPECT_EQ(thrownBy([&] { file->commit(); }),
        "exception::SwapFileMissing: A swap file doesn't exist anymore: "
            + engine->makeSwapPath("a.txt").toStdString());
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
    EXPECT_TRUE(engine->isNotCommitted());
}

TEST_F(Commit, DiscardDropsOnlyTheSwapFileAndRemoveBoth)
{
    auto file = pending("a.txt", "old", "new");
    file->discard();
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    file->discard(); // does nothing
    EXPECT_EQ(reports, (std::vector<bool> { true, false }));

    pending("b.txt", "old", "new")->remove();
    EXPECT_FALSE(QFile::exists(abs("b.txt")));
    EXPECT_FALSE(QFile::exists(swapOf("b.txt")));
    EXPECT_FALSE(engine->isNotCommitted());

    // Nothing on disk: nothing done, and an entry without swap file stays.
    engine->addEntry("ghost.txt", swapOf("ghost.txt"));
    handle("ghost.txt")->remove();
    EXPECT_TRUE(engine->isNotCommitted("ghost.txt"));

    // Directories in the place of the file or of its swap file cannot be removed.
    writeFile(abs("dir/inner"), "x");
    EXPECT_EQ(thrownBy([&] { handle("dir")->remove(); }), "IOWriteError: Can not remove file dir");
    writeFile(swapOf("c.txt") + "/inner", "x");
    EXPECT_EQ(thrownBy([&] { handle("c.txt")->remove(); }),
        "IOWriteError: Can not remove swap file " + engine->makeSwapPath("c.txt").toStdString());
}

TEST_F(Commit, CrashStatesKeepTheData)
{
    // Crashed after the source became the backup: the swap file is committed, nothing lost.
    writeFile(abs("a.txtbck"), "old");
    writeFile(swapOf("a.txt"), "new");
    engine->addEntry("a.txt", swapOf("a.txt"));
    handle("a.txt")->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));

    // Crashed after the swap file was renamed into place: the source already holds the new
    // content; the leftover backup is cleared by the next commit, which then succeeds.
    writeFile(abs("a.txtbck"), "old");
    auto next = handle("a.txt");
    ASSERT_TRUE(next->open(QIODevice::ReadWrite | QIODevice::Append));
    next->write("+more");
    next->close();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_THROW(next->commit(), exception::SourceFileBackupRemove);
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    next->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new+more");
}

using Handles = Engine;

TEST_F(Handles, FirstWriteMovesEveryLaterOpenToTheSwapFile)
{
    writeFile(abs("a.txt"), "source");
    auto reader = handle("a.txt");
    ASSERT_TRUE(reader->open(QIODevice::ReadOnly));
    EXPECT_EQ(reader->readAll(), "source");
    reader->close();
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));

    auto writer = handle("a.txt");
    ASSERT_TRUE(writer->open(QIODevice::ReadWrite));
    EXPECT_EQ(writer->readAll(), "source");
    writer->write("+edit");
    writer->close();
    ASSERT_TRUE(reader->open(QIODevice::ReadOnly));
    EXPECT_EQ(reader->readAll(), "source+edit");
    EXPECT_EQ(readFile(abs("a.txt")), "source");
}

} // namespace
} // namespace zo::project
