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
#include "testutil.h"

#include <zo/project/exceptions.h>
#include <zo/project/fileutils.h>
#include <zo/project/vfsfile.h>

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>

namespace zo::project {
namespace {

using detail::ProjectVFS_Impl;
using test::LogCapture;
using test::pidText;
using test::readFile;
using test::writeFile;

class Engine : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        engine = std::make_shared<ProjectVFS_Impl>(dir.path());
        engine->notCommittedChanged = [this](bool pending) { reports.push_back(pending); };
    }

    QString abs(const QString& relative) const { return dir.filePath(relative); }
    QString swapOf(const QString& relative) const { return abs(engine->makeSwapPath(relative)); }
    std::unique_ptr<VFSFile> handle(const QString& path)
    {
        return std::make_unique<VFSFile>(engine, path);
    }

    QTemporaryDir dir;
    std::shared_ptr<ProjectVFS_Impl> engine;
    std::vector<bool> reports;
};

TEST_F(Engine, SwapAndBackupNames)
{
    const QString pid = pidText();
    EXPECT_EQ(engine->makeSwapPath(QStringLiteral("a.txt")), ".a.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeSwapPath(QStringLiteral("/p/d/a.txt")), "/p/d/.a.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeSwapPath(QStringLiteral("d/../a.txt")), ".a.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeSwapPath(QStringLiteral("d/e/a.b")), "d/e/.a.b." + pid + ".csp");
    // Placeholder-like names are kept as they are.
    EXPECT_EQ(engine->makeSwapPath(QStringLiteral("50%1.txt")), ".50%1.txt." + pid + ".csp");
    EXPECT_EQ(engine->makeBackupPath(QStringLiteral("/p/a.txt")), QStringLiteral("/p/a.txtbck"));
}

TEST_F(Engine, HandlerReportsFirstEntryAndEmptyTableWithRepeats)
{
    engine->addEntry(QStringLiteral("a"), QStringLiteral("sa"));
    engine->addEntry(QStringLiteral("b"), QStringLiteral("sb"));
    EXPECT_EQ(reports, std::vector<bool> { true });
    engine->removeEntry(QStringLiteral("a"));
    engine->addEntry(QStringLiteral("b"), QStringLiteral("sb2"));
    EXPECT_EQ(reports, (std::vector<bool> { true, true }));
    engine->removeEntry(QStringLiteral("b"));
    engine->removeEntry(QStringLiteral("absent"));
    EXPECT_EQ(reports, (std::vector<bool> { true, true, false, false }));
    EXPECT_FALSE(engine->isNotCommitted());

    engine->addEntry(QStringLiteral("x"), QStringLiteral("sx"));
    reports.clear();
    VFSFile moved(engine, QStringLiteral("y"));
    engine->moveEntry(moved, QStringLiteral("x"));
    EXPECT_EQ(reports, (std::vector<bool> { false, true }));
    EXPECT_EQ(engine->entries().value(QStringLiteral("y")), abs(moved.swapName()));
    EXPECT_TRUE(engine->isNotCommitted(QStringLiteral("y")));
    EXPECT_FALSE(engine->isNotCommitted(QStringLiteral("./y")));
}

TEST_F(Engine, ExistenceGoesThroughPendingSwapFiles)
{
    writeFile(abs("src.txt"), "source");
    engine->addEntry(QStringLiteral("src.txt"), abs("missing-swap"));
    EXPECT_FALSE(engine->hasFile(QStringLiteral("src.txt")));
    EXPECT_FALSE(engine->hasPath(QStringLiteral("src.txt")));

    writeFile(abs(".new.swp"), "");
    engine->addEntry(QStringLiteral("new.txt"), abs(".new.swp"));
    EXPECT_TRUE(engine->hasFile(QStringLiteral("new.txt")));
    QDir(dir.path()).mkdir(QStringLiteral("d"));
    EXPECT_TRUE(engine->hasPath(QStringLiteral("d")));
    EXPECT_FALSE(engine->hasFile(QStringLiteral("d")));
}

TEST_F(Engine, HandleNamesTheFileItWouldOpen)
{
    engine->addEntry(QStringLiteral("pending.txt"), swapOf("pending.txt"));
    VFSFile pending(engine, QStringLiteral("pending.txt"));
    VFSFile plain(engine, QStringLiteral("plain.txt"));
    EXPECT_EQ(pending.openedPath(), engine->makeSwapPath(QStringLiteral("pending.txt")));
    EXPECT_EQ(plain.openedPath(), QStringLiteral("plain.txt"));
    EXPECT_EQ(plain.fileName(), QStringLiteral("plain.txt"));
}

TEST_F(Engine, CreateSwapFileCopiesOrCreatesOnce)
{
    writeFile(abs("d/a.txt"), "content");
    const QString swap = engine->createSwapFile(
        QStringLiteral("d/a.txt"), engine->makeSwapPath(QStringLiteral("d/a.txt")));
    EXPECT_EQ(swap, swapOf("d/a.txt"));
    EXPECT_EQ(readFile(swap), "content");
    EXPECT_EQ(reports, std::vector<bool> { true });

    // A known entry is returned without looking at the disk.
    QFile::remove(swap);
    EXPECT_EQ(engine->createSwapFile(QStringLiteral("d/a.txt"), QStringLiteral("other")), swap);
    EXPECT_FALSE(QFile::exists(swap));

    const QString fresh = engine->createSwapFile(
        QStringLiteral("new.txt"), engine->makeSwapPath(QStringLiteral("new.txt")));
    EXPECT_EQ(readFile(fresh), "");
    EXPECT_FALSE(QFile::exists(abs("new.txt")));
}

TEST_F(Engine, CreateSwapFileFailures)
{
    writeFile(swapOf("foreign.txt"), "theirs");
    const QString foreignSwap = engine->makeSwapPath(QStringLiteral("foreign.txt"));
    try {
        engine->createSwapFile(QStringLiteral("foreign.txt"), foreignSwap);
        FAIL() << "no exception";
    } catch (const exception::SwapFileAlreadyExists& e) {
        EXPECT_STREQ(e.what(), "A swap file already exists for: foreign.txt");
    }
    EXPECT_EQ(readFile(swapOf("foreign.txt")), "theirs");

    // A directory cannot be copied into a swap file.
    QDir(dir.path()).mkpath(QStringLiteral("folder/inner"));
    try {
        engine->createSwapFile(
            QStringLiteral("folder"), engine->makeSwapPath(QStringLiteral("folder")));
        FAIL() << "no exception";
    } catch (const exception::CopySwapFile& e) {
        EXPECT_STREQ(e.what(), "Can not copy swap file for: folder");
        EXPECT_EQ(e.tempPath(), swapOf("folder"));
    }

    EXPECT_THROW(engine->createSwapFile(QStringLiteral("nodir/x.txt"),
                     engine->makeSwapPath(QStringLiteral("nodir/x.txt"))),
        exception::CreateSwapFile);
    EXPECT_FALSE(engine->isNotCommitted());
    EXPECT_TRUE(reports.empty());
}

class Commit : public Engine {
protected:
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
};

TEST_F(Commit, ReplacesSourceAndLeavesNoTrace)
{
    auto file = pending(QStringLiteral("a.txt"), "old", "new");
    file->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
    EXPECT_EQ(reports, (std::vector<bool> { true, false }));

    QDir(dir.path()).mkdir(QStringLiteral("sub"));
    auto created = pending(QStringLiteral("sub/new.txt"), nullptr, "fresh");
    created->commit();
    EXPECT_EQ(readFile(abs("sub/new.txt")), "fresh");
    EXPECT_EQ(QDir(abs("sub")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        QStringList { QStringLiteral("new.txt") });
}

TEST_F(Commit, WithoutEntryChecksOnlyExistence)
{
    writeFile(abs("here.txt"), "x");
    EXPECT_NO_THROW(handle(QStringLiteral("here.txt"))->commit());
    EXPECT_EQ(readFile(abs("here.txt")), "x");
    try {
        handle(QStringLiteral("gone.txt"))->commit();
        FAIL() << "no exception";
    } catch (const exception::SourceFileDoesNotExists& e) {
        EXPECT_STREQ(e.what(), "Source file does not exist for:gone.txt");
    }
}

TEST_F(Commit, StaleBackupIsRemovedAndStopsTheFirstAttempt)
{
    auto file = pending(QStringLiteral("a.txt"), "old", "new");
    writeFile(abs("a.txtbck"), "stale");
    try {
        file->commit();
        FAIL() << "no exception";
    } catch (const exception::SourceFileBackupRemove& e) {
        EXPECT_STREQ(e.what(), "Can not remove source file backup: a.txtbck");
    }
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_EQ(readFile(swapOf("a.txt")), "new");
    EXPECT_TRUE(engine->isNotCommitted(QStringLiteral("a.txt")));

    file->commit();
    EXPECT_EQ(readFile(abs("a.txt")), "new");
}

TEST_F(Commit, SourceThatCannotBeBackedUpKeepsEverything)
{
    auto file = pending(QStringLiteral("a.txt"), "old", "new");
    // A non-empty directory in the backup's place can neither be removed nor renamed over.
    writeFile(abs("a.txtbck/keep"), "k");
    try {
        file->commit();
        FAIL() << "no exception";
    } catch (const exception::SourceFileRename& e) {
        EXPECT_EQ(
            std::string(e.what()), "Can not rename source file: " + abs("a.txt").toStdString());
    }
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_EQ(readFile(swapOf("a.txt")), "new");
    EXPECT_EQ(readFile(abs("a.txtbck/keep")), "k");
    EXPECT_TRUE(engine->isNotCommitted(QStringLiteral("a.txt")));
}

TEST_F(Commit, SwapThatCannotBeRenamedRestoresTheSource)
{
    if (getuid() != 0)
        GTEST_SKIP() << "needs root to create files owned by another user";
    // In a sticky directory an unprivileged process may rename its own source file but not
    // the swap file, which belongs to root.
    ASSERT_TRUE(QFile::setPermissions(dir.path(),
        QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadOther
            | QFile::ExeOther));
    const QString sticky = abs("sticky");
    ASSERT_TRUE(QDir(dir.path()).mkdir(QStringLiteral("sticky")));
    ASSERT_EQ(chmod(QFile::encodeName(sticky).constData(), 01777), 0);
    auto file = pending(QStringLiteral("sticky/a.txt"), "old", "new");
    ASSERT_EQ(
        chown(QFile::encodeName(abs("sticky/a.txt")).constData(), test::kNobody, test::kNobody), 0);

    const int outcome = test::runAsNobody([&] {
        try {
            file->commit();
            return 1;
        } catch (const exception::SwapFileRename& e) {
            return std::string(e.what()) == "Can not rename swap file: sticky/a.txt" ? 0 : 2;
        } catch (...) {
            return 3;
        }
    });
    EXPECT_EQ(outcome, 0);
    EXPECT_EQ(readFile(abs("sticky/a.txt")), "old");
    EXPECT_EQ(readFile(swapOf("sticky/a.txt")), "new");
    EXPECT_FALSE(QFile::exists(abs("sticky/a.txtbck")));
}

TEST_F(Commit, VanishedSwapIsLoggedAndDeletesTheSource)
{
    auto file = pending(QStringLiteral("a.txt"), "old", "new");
    QFile::remove(swapOf("a.txt"));
    LogCapture log;
    file->commit();
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0],
        LogCapture::Line("ProjectVfs", 3,
            "A swap file doesn't exist anymore: "
                + engine->makeSwapPath(QStringLiteral("a.txt")).toStdString()));
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));
    EXPECT_FALSE(engine->isNotCommitted());
}

TEST_F(Commit, DiscardDropsOnlyTheSwapFile)
{
    auto file = pending(QStringLiteral("a.txt"), "old", "new");
    file->discard();
    EXPECT_EQ(readFile(abs("a.txt")), "old");
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_EQ(reports, (std::vector<bool> { true, false }));
    EXPECT_NO_THROW(file->discard());
    EXPECT_EQ(reports.size(), 2u);
}

TEST_F(Commit, RemoveDeletesSourceAndSwap)
{
    auto file = pending(QStringLiteral("a.txt"), "old", "new");
    file->remove();
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_FALSE(engine->isNotCommitted());

    // Nothing on disk: nothing done, and an entry without swap file stays.
    engine->addEntry(QStringLiteral("ghost.txt"), swapOf("ghost.txt"));
    EXPECT_NO_THROW(handle(QStringLiteral("ghost.txt"))->remove());
    EXPECT_TRUE(engine->isNotCommitted(QStringLiteral("ghost.txt")));
}

TEST_F(Commit, RemoveFailuresNameThePath)
{
    writeFile(abs("dir/inner"), "x");
    try {
        handle(QStringLiteral("dir"))->remove();
        FAIL() << "no exception";
    } catch (const IOWriteError& e) {
        EXPECT_STREQ(e.what(), "Can not remove file dir");
    }
    writeFile(abs(engine->makeSwapPath(QStringLiteral("b.txt")) + "/inner"), "x");
    try {
        handle(QStringLiteral("b.txt"))->remove();
        FAIL() << "no exception";
    } catch (const IOWriteError& e) {
        EXPECT_EQ(std::string(e.what()),
            "Can not remove swap file "
                + engine->makeSwapPath(QStringLiteral("b.txt")).toStdString());
    }
}

TEST_F(Commit, CrashStatesKeepTheData)
{
    const QString path = QStringLiteral("a.txt");
    const QString swapName = engine->makeSwapPath(path);

    // Crashed after the source became the backup: the swap file is committed, nothing lost.
    writeFile(abs("a.txtbck"), "old");
    writeFile(swapOf(path), "new");
    engine->addEntry(path, abs(swapName));
    handle(path)->commit();
    EXPECT_EQ(readFile(abs(path)), "new");
    EXPECT_FALSE(QFile::exists(abs("a.txtbck")));

    // Crashed after the swap file was renamed into place: the source already holds the new
    // content; the leftover backup is cleared by the next commit, which then succeeds.
    writeFile(abs("a.txtbck"), "old");
    auto next = handle(path);
    ASSERT_TRUE(next->open(QIODevice::ReadWrite | QIODevice::Append));
    next->write("+more");
    next->close();
    EXPECT_EQ(readFile(abs(path)), "new");
    EXPECT_THROW(next->commit(), exception::SourceFileBackupRemove);
    EXPECT_EQ(readFile(abs(path)), "new");
    next->commit();
    EXPECT_EQ(readFile(abs(path)), "new+more");
}

using Handles = Engine;

TEST_F(Handles, FirstWriteMovesEveryLaterOpenToTheSwapFile)
{
    writeFile(abs("a.txt"), "source");
    auto reader = handle(QStringLiteral("a.txt"));
    ASSERT_TRUE(reader->open(QIODevice::ReadOnly));
    EXPECT_EQ(reader->readAll(), "source");
    EXPECT_FALSE(reader->open(QIODevice::WriteOnly)) << "already open";
    reader->close();
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));

    auto writer = handle(QStringLiteral("a.txt"));
    ASSERT_TRUE(writer->open(QIODevice::ReadWrite));
    EXPECT_EQ(writer->openedPath(), engine->makeSwapPath(QStringLiteral("a.txt")));
    EXPECT_EQ(writer->fileName(), QStringLiteral("a.txt"));
    EXPECT_EQ(writer->readAll(), "source");
    writer->write("+edit");
    writer->close();

    auto later = handle(QStringLiteral("a.txt"));
    ASSERT_TRUE(later->open(QIODevice::ReadOnly));
    EXPECT_EQ(later->readAll(), "source+edit");
    EXPECT_EQ(readFile(abs("a.txt")), "source");
}

TEST_F(Handles, OpenReportsSwapFailuresAsFalse)
{
    writeFile(swapOf("a.txt"), "foreign");
    auto file = handle(QStringLiteral("a.txt"));
    EXPECT_FALSE(file->open(QIODevice::WriteOnly));
    EXPECT_EQ(file->errorString(), QStringLiteral("A swap file already exists for: a.txt"));
    EXPECT_FALSE(file->isOpen());
    EXPECT_EQ(readFile(swapOf("a.txt")), "foreign");
}

TEST_F(Handles, StreamModesTranslateToDeviceFlags)
{
    using M = QIODevice;
    const auto flags
        = [](const char* mode) { return detail::openModeOfStreamMode(QString::fromLatin1(mode)); };
    EXPECT_EQ(flags("r"), M::ReadOnly | M::Text);
    EXPECT_EQ(flags("rb"), M::OpenMode(M::ReadOnly));
    EXPECT_EQ(flags("r+b"), M::OpenMode(M::ReadWrite));
    EXPECT_EQ(flags("w"), M::WriteOnly | M::Truncate | M::Text);
    EXPECT_EQ(flags("wb+"), M::ReadWrite | M::Truncate);
    EXPECT_EQ(flags("a"), M::WriteOnly | M::Append | M::Text);
    EXPECT_EQ(flags("ab+"), M::ReadWrite | M::Append);
    EXPECT_EQ(flags("rw"), M::ReadOnly | M::Text) << "r is tested first";
    EXPECT_EQ(flags("+"), M::ReadWrite | M::Text);
    EXPECT_EQ(flags("b"), M::OpenMode(M::NotOpen));
}

TEST_F(Handles, StreamsDoNotTruncateTwice)
{
    writeFile(abs("a.txt"), "0123456789");
    auto file = handle(QStringLiteral("a.txt"));
    FILE* stream = file->fopen(QStringLiteral("w+"));
    ASSERT_NE(stream, nullptr);
    std::fputs("new", stream);
    std::fclose(stream);
    EXPECT_EQ(readFile(swapOf("a.txt")), "new");

    // Once a swap file is pending, "w" truncates it once through the device, and the stream
    // reopened with "r+" writes into the emptied file.
    stream = handle(QStringLiteral("a.txt"))->fopen(QStringLiteral("w"));
    ASSERT_NE(stream, nullptr);
    std::fputs("xy", stream);
    std::fclose(stream);
    EXPECT_EQ(readFile(swapOf("a.txt")), "xy");
    EXPECT_EQ(readFile(abs("a.txt")), "0123456789");

    writeFile(abs("b.txt"), "read only");
    EXPECT_EQ(handle(QStringLiteral("missing.txt"))->fopen(QStringLiteral("rb")), nullptr);
    stream = handle(QStringLiteral("b.txt"))->fopen(QStringLiteral("rb"));
    ASSERT_NE(stream, nullptr);
    std::fclose(stream);
    EXPECT_FALSE(QFile::exists(swapOf("b.txt")));
}

TEST_F(Handles, MoveTakesFileAndSwapFileAlong)
{
    writeFile(abs("a.txt"), "old");
    auto file = handle(QStringLiteral("a.txt"));
    file->createSwapFile();
    writeFile(swapOf("a.txt"), "new");
    QDir(dir.path()).mkdir(QStringLiteral("d"));
    reports.clear();

    file->move(QStringLiteral("d/b.txt"), false);
    EXPECT_EQ(file->fileName(), QStringLiteral("d/b.txt"));
    EXPECT_EQ(readFile(abs("d/b.txt")), "old");
    EXPECT_EQ(readFile(swapOf("d/b.txt")), "new");
    EXPECT_FALSE(QFile::exists(abs("a.txt")));
    EXPECT_FALSE(QFile::exists(swapOf("a.txt")));
    EXPECT_EQ(engine->entries().keys(), QStringList { QStringLiteral("d/b.txt") });
    EXPECT_EQ(reports, (std::vector<bool> { false, true }));

    auto ghost = handle(QStringLiteral("ghost.txt"));
    try {
        ghost->move(QStringLiteral("elsewhere.txt"), false);
        FAIL() << "no exception";
    } catch (const PathNotFound& e) {
        EXPECT_STREQ(e.what(), "ghost.txt");
    }
    EXPECT_EQ(ghost->fileName(), QStringLiteral("elsewhere.txt"));
}

TEST_F(Handles, CopyBecomesAnUncommittedNewFile)
{
    writeFile(abs("a.txt"), "committed");
    writeFile(abs("b.txt"), "existing");
    auto file = handle(QStringLiteral("a.txt"));
    EXPECT_THROW(engine->copy(*file, QStringLiteral("b.txt"), false), AlreadyExists);

    file->copy(QStringLiteral("b.txt"));
    EXPECT_EQ(readFile(abs("b.txt")), "existing");
    EXPECT_EQ(readFile(swapOf("b.txt")), "committed");
    EXPECT_TRUE(engine->isNotCommitted(QStringLiteral("b.txt")));

    // The pending content is what gets copied.
    file->createSwapFile();
    writeFile(swapOf("a.txt"), "pending");
    file->copy(QStringLiteral("c.txt"));
    EXPECT_EQ(readFile(swapOf("c.txt")), "pending");
    EXPECT_FALSE(QFile::exists(abs("c.txt")));
}

} // namespace
} // namespace zo::project
