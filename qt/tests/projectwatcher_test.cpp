#include <zo/project/projectwatcher.h>
#include <zo/test/support.h>

#include <QDateTime>
#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

namespace zo::project {
namespace {

using Changes = QMap<QString, FileSystemEvent>;
using test::writeFile;

class Watcher : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        // Applications that queue the map register it, as the archive project does.
        qRegisterMetaType<Changes>("QMap<QString, zo::project::FileSystemEvent>");
    }

    QString at(const QString& name) const { return dir.filePath(name); }
    // The map that one check emits, its paths relative to the root; empty when it emits none.
    Changes check()
    {
        QSignalSpy spy(&watcher, qOverload<const Changes&>(&ProjectWatcher::contentChanged));
        watcher.checkPendingChanges({});
        EXPECT_LE(spy.size(), 1);
        Changes relative;
        const Changes changes = spy.isEmpty() ? Changes {} : spy.at(0).at(0).value<Changes>();
        for (auto change = changes.begin(); change != changes.end(); ++change)
            relative.insert(QDir(dir.path()).relativeFilePath(change.key()), change.value());
        return relative;
    }
    static void setTime(const QString& path, const QDateTime& time)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite)
            && file.setFileTime(time, QFileDevice::FileModificationTime));
    }

    QTemporaryDir dir;
    ProjectWatcher watcher { dir.path(), false, nullptr };
};

TEST_F(Watcher, ReportsAddedTouchedAndRemovedFiles)
{
    writeFile(at("keep"), "1234");
    writeFile(at("d/one"), "1");
    writeFile(at("d/two"), "2");
    watcher.enableWatching(true);

    writeFile(at("new"), "x");
    writeFile(at(".hidden"), "not watched");
    QSignalSpy perFile(
        &watcher, qOverload<const QString&, FileSystemEvent>(&ProjectWatcher::contentChanged));
    EXPECT_EQ(check(), (Changes { { "new", Added } }));
    EXPECT_EQ(perFile.size(), 1);

    const QDateTime time = QFileInfo(at("keep")).lastModified();
    setTime(at("keep"), time.addSecs(10));
    EXPECT_EQ(check(), (Changes { { "keep", Modified } }));
    writeFile(at("keep"), "abcd");
    setTime(at("keep"), time.addSecs(10));
    EXPECT_EQ(check(), Changes {}) << "same size and time";
    writeFile(at("keep"), "abcde");
    setTime(at("keep"), time.addSecs(10));
    EXPECT_EQ(check(), (Changes { { "keep", Modified } })) << "same time, other size";

    QDir(at("d")).removeRecursively();
    EXPECT_EQ(check(), (Changes { { "d/one", Removed }, { "d/two", Removed } }));
}

// A project's own writes happen under a blocker and are never reported as outside changes.
TEST_F(Watcher, AbsorbsWhatChangesWhileNotWatchingOrBlocked)
{
    writeFile(at("a"), "1");
    writeFile(at("b"), "2");
    EXPECT_EQ(check(), Changes {}) << "not watching: silent";
    watcher.enableWatching(true);
    EXPECT_EQ(check(), Changes {}) << "the silent check took b in";

    {
        ProjectWatcher::Blocker blocker(&watcher);
        EXPECT_FALSE(watcher.isWatching());
        ProjectWatcher::Blocker moved(std::move(blocker));
        writeFile(at("c"), "3");
        QFile::remove(at("a"));
        writeFile(at("b"), "changed size");
    }
    EXPECT_TRUE(watcher.isWatching());
    EXPECT_EQ(check(), Changes {});

    watcher.enableWatching(false);
    {
        const ProjectWatcher::Blocker blocker(&watcher);
        watcher.enableWatching(true);
    }
    EXPECT_FALSE(watcher.isWatching()) << "restores the state before the blocker";
}

TEST_F(Watcher, FollowsLinksButListsALinkCycleOnce)
{
    writeFile(at("sub/f"), "1");
    QFile::link("..", at("sub/loop"));
    QFile::link("sub/f", at("alias"));
    QStringList files = watcher.xListAllPaths("");
    files.sort();
    EXPECT_EQ(files, QStringList({ at("alias"), at("sub/f") }));
    EXPECT_EQ(watcher.xListAllPaths("sub/f"), QStringList { at("sub/f") });
}

TEST_F(Watcher, DeliversTheMapQueuedToAnotherThreadAndPollsOnItsTimer)
{
    QThread worker;
    QObject receiver;
    receiver.moveToThread(&worker);
    worker.start();
    Changes received;
    QThread* receivedOn = nullptr;
    QSemaphore delivered;
    QObject::connect(
        &watcher, qOverload<const Changes&>(&ProjectWatcher::contentChanged), &receiver,
        [&](const Changes& changes) {
            received = changes;
            receivedOn = QThread::currentThread();
            delivered.release();
        },
        Qt::QueuedConnection);

    watcher.setInterval(20);
    watcher.enableWatching(true);
    writeFile(at("polled"), "x");
    QSignalSpy spy(&watcher, qOverload<const Changes&>(&ProjectWatcher::contentChanged));
    EXPECT_TRUE(spy.wait(5000)) << "the timer checks on its own";
    EXPECT_TRUE(delivered.tryAcquire(1, 5000));
    EXPECT_EQ(received, (Changes { { at("polled"), Added } }));
    EXPECT_EQ(receivedOn, &worker);
    worker.quit();
    worker.wait();
}

} // namespace
} // namespace zo::project
