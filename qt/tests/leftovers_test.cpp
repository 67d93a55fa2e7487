// What killed writers leave under hidden names: listed by status, removed by the next load or
// save beside it once its owner is proven gone, but never what may hold the user's data, what a
// live owner in any pid namespace holds, or what a link leads to. And an archive project shared
// by threads, whose source watcher stays on the thread that made the model.
#include <zo/project/projectmodel.h>
#include <zo/replace.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <thread>

namespace zo::project {
namespace {

using namespace test;

QStringList hiddenIn(const QString& directory, const QString& pattern = ".*zo-*")
{
    return QDir(directory).entryList({ pattern }, QDir::Hidden | QDir::AllEntries | QDir::System);
}

// Beside an archive: a live unpack, sandboxed where the system allows, whose process /proc here
// cannot see; then what a killed process left: its workspace, loaded from a relative path, and
// hidden files and trees of its own, some of them links. Its workspace is recovered from another
// working directory. What a link leads to is never touched, and no copy takes a mark in.
TEST(Leftovers, StatusListsThemAndTheNextLoadRemovesWhatIsProvenRedundant)
{
    const QTemporaryDir dir, elsewhere;
    const QString archive = dir.filePath("p.zip");
    ProjectModel().save(archive, ArchiveFormat::Auto, true);
    writeFile(elsewhere.filePath("p.zip"), "unrelated");
    const bool unshares = QProcess::execute("unshare", { "--pid", "--fork", "true" }) == 0;
    const QStringList live = QStringList { "unshare", "--pid", "--fork", "--mount-proc",
        "--kill-child", "sh", "-c", "echo $(($0 - 1)) >/proc/sys/kernel/ns_last_pid && \"$@\"",
        QString::number(endedProcessId()), ZOPROJECT_PROGRAM, "unpack", "--format", "tar",
        "--quiet", "/dev/stdin", dir.filePath("live") }
                                 .mid(unshares ? 0 : 9);
    QProcess unpack;
    unpack.start(live.first(), live.mid(1));
    while (hiddenIn(dir.path(), ".live.zo-*").isEmpty() && unpack.state() != QProcess::NotRunning)
        QThread::msleep(10);
    writeFile(dir.filePath("victim/file"), "kept");
    // Named as ours, but no mark shows it is: a user's file.
    writeFile(dir.filePath(".thesis.zo-copy-4999999.final"), "the user's");
    const QString previous = QDir::currentPath();
    const pid_t killed = ::fork();
    if (killed == 0) {
        QDir::setCurrent(dir.path());
        ProjectModel model;
        model.load("p.zip", ArchiveFormat::Auto);
        const os::FileReplacement pack(archive.toStdString(), "pack");
        for (const char* purpose : { "replaced", "unpack", "future" })
            QDir().mkpath(QString::fromStdString(
                os::unusedHiddenPathBeside(dir.filePath(purpose).toStdString(), purpose)));
        QFile::link("../victim", dir.filePath(".unpack.zo-unpack-%1.0/link").arg(::getpid()));
        QFile::link("victim", dir.filePath(".b.zo-copy-%1.x").arg(::getpid()));
        ::kill(::getpid(), SIGKILL);
    }
    ::waitpid(killed, nullptr, 0);

    QProcess status;
    status.start(ZOPROJECT_PROGRAM, { "status", "--json", dir.path() });
    ASSERT_TRUE(status.waitForFinished());
    QStringList listed;
    for (const auto left : QJsonDocument::fromJson(status.readAll())["leftovers"].toArray())
        listed += left.toObject()["purpose"].toString() + " "
            + left.toObject()["ownerState"].toString()
            + (left.toObject()["holdsData"].toBool() ? " kept" : "");
    EXPECT_EQ(listed.join(", "),
        "copy ended, future ended kept, unpack running, pack ended, replaced ended kept, "
        "copy ended kept, unpack ended");
    ProjectModel().load(archive, ArchiveFormat::Auto);
    EXPECT_EQ(hiddenIn(dir.path()).size(), 6)
        << "unpack, a purpose unknown here, replaced, the user's and two marks";
    EXPECT_EQ(readFile(dir.filePath("victim/file")), "kept");
    unpack.closeWriteChannel();
    unpack.waitForFinished();

    const auto found = ProjectModel::recoverableWorkspaces();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].sourcePath, archive);
    QDir::setCurrent(elsewhere.path());
    ProjectModel recovered;
    recovered.recoverWorkspace(found[0]);
    EXPECT_NO_THROW(recovered.save("", ArchiveFormat::Native, true));
    QDir::setCurrent(previous);
    EXPECT_EQ(readFile(elsewhere.filePath("p.zip")), "unrelated");
    exportProject(
        dir.path().toStdString(), dir.filePath("copy").toStdString(), ArchiveFormat::Directory);
    EXPECT_EQ(hiddenIn(dir.filePath("copy"), ".zo-owner-*"), QStringList());
    EXPECT_EQ(readFile(dir.filePath("copy/.thesis.zo-copy-4999999.final")), "the user's");
}

// A Qt warning fails the test: a timer started on a thread that cannot run it, or from another.
TEST(ModelThreads, WatchFromAnyThreadAndReportOnTheModelsThread)
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        if (type != QtDebugMsg && type != QtInfoMsg)
            ADD_FAILURE() << text.toStdString();
    });
    const QTemporaryDir dir;
    const QString archive = dir.filePath("p.zip");
    ProjectModel model;
    model.save(archive, ArchiveFormat::Auto, true);
    QThread* reportedOn = nullptr;
    QObject::connect(model.notifier(), &detail::Notifier::sourceProjectEvent,
        [&reportedOn] { reportedOn = QThread::currentThread(); });
    std::thread([&] {
        model.load(archive, ArchiveFormat::Auto);
        model.enableWatching(true);
    }).join();
    QCoreApplication::processEvents(); // the model's thread starts the timer
    ProjectModel().save(archive, ArchiveFormat::Auto, true); // as another program would
    std::thread([&] { model.checkSourcePendingChanges({}); }).join();
    QCoreApplication::processEvents();
    EXPECT_EQ(reportedOn, QThread::currentThread());
    std::thread([] { EXPECT_THROW(ProjectModel().enableWatching(true), std::logic_error); }).join();

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                model.load(archive, ArchiveFormat::Auto);
                model.enableWatching((t + i) % 2 == 0);
                model.checkSourcePendingChanges({});
                model.save(
                    archive, ArchiveFormat::Auto, true, ProjectVFS::SourceChanges::Overwrite);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    qInstallMessageHandler(nullptr);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace
} // namespace zo::project
