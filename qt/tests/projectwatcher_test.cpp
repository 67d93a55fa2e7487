#include <zo/project/projectwatcher.h>
#include <zo/test/support.h>

#include <QDateTime>
#include <QFile>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zo::project {
namespace {

using Changes = QMap<QString, FileSystemEvent>;
using test::writeFile;

// Records each signal as "+path", "-path", "~path" (relative to the root), and each map as
// "{+a ~b}", in emission order.
class Watcher : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        // Applications that queue the map register it, as the archive project does.
        qRegisterMetaType<Changes>("QMap<QString, zo::project::FileSystemEvent>");
        QObject::connect(&watcher,
            qOverload<const QString&, FileSystemEvent>(&ProjectWatcher::contentChanged),
            [this](const QString& key, FileSystemEvent event) {
                heard.push_back(mark(event) + relative(key));
            });
        QObject::connect(&watcher, qOverload<const Changes&>(&ProjectWatcher::contentChanged),
            [this](const Changes& changes) {
                std::string all;
                for (auto change = changes.begin(); change != changes.end(); ++change)
                    all += (all.empty() ? "" : " ") + mark(change.value()) + relative(change.key());
                heard.push_back("{" + all + "}");
            });
    }

    static std::string mark(FileSystemEvent event) { return std::string(1, "+-~"[event]); }
    std::string relative(const QString& key) const
    {
        const QString prefix = dir.path() + '/';
        return (key.startsWith(prefix) ? key.mid(prefix.size()) : key).toStdString();
    }
    QString at(const QString& name) const { return dir.filePath(name); }
    std::vector<std::string> check(const QSet<QString>& reference = {})
    {
        heard.clear();
        watcher.checkPendingChanges(reference);
        return heard;
    }
    static void setTime(const QString& path, const QDateTime& time)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite)
            && file.setFileTime(time, QFileDevice::FileModificationTime));
    }

    QTemporaryDir dir;
    ProjectWatcher watcher { dir.path(), false, nullptr };
    std::vector<std::string> heard;
};

using Heard = std::vector<std::string>;

TEST_F(Watcher, ReportsAddedTouchedAndRemovedFilesThenTheMap)
{
    writeFile(at("keep"), "1234");
    writeFile(at("d/one"), "1");
    writeFile(at("d/two"), "2");
    watcher.enableWatching(true);
    EXPECT_TRUE(heard.empty());

    writeFile(at("new"), "x");
    writeFile(at(".hidden"), "not watched");
    EXPECT_EQ(check(), (Heard { "+new", "{+new}" }));

    const QDateTime time = QFileInfo(at("keep")).lastModified();
    setTime(at("keep"), time.addSecs(10));
    EXPECT_EQ(check(), (Heard { "~keep", "{~keep}" }));

    writeFile(at("keep"), "abcd");
    setTime(at("keep"), time.addSecs(10));
    EXPECT_EQ(check(), Heard {}) << "same size and time";
    writeFile(at("keep"), "abcde");
    setTime(at("keep"), time.addSecs(10));
    EXPECT_EQ(check(), (Heard { "~keep", "{~keep}" })) << "same time, other size";

    QDir(at("d")).removeRecursively();
    const Heard removed = check();
    EXPECT_EQ(removed.back(), "{-d/one -d/two}");
    EXPECT_EQ(removed.size(), 3u);

    // The caller's reference list replaces the known paths: the unnamed "new" counts as added,
    // the named missing ones as removed, a nested one and the outside one kept in the map (named
    // to sort before any temporary directory).
    EXPECT_EQ(check({ at("gone"), at("gone/x"), "/!elsewhere", at("keep") }),
        (Heard { "+new", "-gone", "-gone/x", "-/!elsewhere", "{-/!elsewhere -gone +new}" }));
}

TEST_F(Watcher, AbsorbsWhatChangesWhileNotWatchingOrBlocked)
{
    writeFile(at("a"), "1");
    check();
    writeFile(at("b"), "2");
    EXPECT_EQ(check(), Heard {}) << "not watching: silent";
    watcher.enableWatching(true);
    EXPECT_EQ(check(), Heard {}) << "the silent check took b in";

    {
        ProjectWatcher::Blocker blocker(&watcher);
        EXPECT_FALSE(watcher.isWatching());
        ProjectWatcher::Blocker moved(std::move(blocker));
        writeFile(at("c"), "3");
        QFile::remove(at("a"));
        writeFile(at("b"), "changed size");
    }
    EXPECT_TRUE(watcher.isWatching());
    EXPECT_EQ(check(), Heard {});

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
