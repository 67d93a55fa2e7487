// A save of nine files in five directories (enough for the syncs of a large save), killed at
// each system call of the save, of the completion of its journal, or with its journal torn at
// each byte: the next process that opens the project finds all nine old or all nine new, and
// nothing left behind but the edits to recover.

#include <zo/fault.h>
#include <zo/project/exceptions.h>
#include <zo/project/projectvfs.h>
#include <zo/project/vfsfile.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace zo::project {
namespace {

using namespace test;

const QStringList kNames { "a.txt", "b.txt", "d1/c.txt", "d1/d.txt", "d2/e.txt", "d2/f.txt",
    "d3/g.txt", "d3/h.txt", "d4/i.txt" };

// The save's rename that would put the fifth file in place: four are new, the fifth lies in
// its backup, four are old.
constexpr int kHalfway = 9;

// A system call of crash_child as strace's inject counts it: its name and how many calls of
// that name the child made up to it, itself included.
struct Call {
    QString name;
    int when;
};

// Runs crash_child under strace, killed at a call if one is given; whether it ran to its end.
bool runChild(const QStringList& arguments, const std::optional<Call>& killAt,
    const QString& trace = QStringLiteral("/dev/null"))
{
    // The leak checker of a sanitizer build cannot work under a tracer.
    QStringList options { "-f", "-qq", "-o", trace, "-E", "ASAN_OPTIONS=detect_leaks=0" };
    if (killAt)
        options << "-e"
                << "inject=" + killAt->name
                + ":signal=SIGKILL:when=" + QString::number(killAt->when);
    QProcess child;
    child.start(
        "strace", options << QCoreApplication::applicationDirPath() + "/crash_child" << arguments);
    return child.waitForFinished(60000) && child.exitStatus() == QProcess::NormalExit;
}

// Every call of the step that crash_child announces, from a run to its end.
std::vector<Call> callsOfStep(const QStringList& arguments)
{
    const QTemporaryDir scratch;
    EXPECT_TRUE(runChild(arguments, std::nullopt, scratch.filePath("trace")));
    const QRegularExpression callLine(QStringLiteral("^\\d+ +(\\w+)\\("));
    QMap<QString, int> counts;
    std::vector<Call> calls;
    bool started = false;
    for (const QByteArray& line : readFile(scratch.filePath("trace")).split('\n')) {
        const QString name = callLine.match(QString::fromUtf8(line)).captured(1);
        const int when = name.isEmpty() ? 0 : ++counts[name];
        if (started && when > 0)
            calls.push_back({ name, when });
        started = started || line.contains(R"(write(2, "start\n")");
    }
    return calls;
}

QString makeProject(const QString& project)
{
    for (const QString& name : kNames)
        writeFile(project + "/" + name, "old " + name.toUtf8());
    return project;
}

QStringList commitArguments(const QString& project)
{
    return QStringList { "commit", project } + kNames;
}

// Opens the project at opened (the project, a directory inside it or one above it) as the next
// process would, and expects every file old or every file new, and nothing left behind but,
// while they are old, the swap files to recover. Returns how they are.
QByteArray expectWholeSave(const QString& project, const QString& opened)
{
    ProjectVFS { opened };
    const QMap<QString, QByteArray> files = filesBelow(project);
    const QByteArray state = files.value(kNames.first()).left(3);
    for (const QString& name : kNames)
        EXPECT_EQ(files.value(name), state + ' ' + name.toUtf8());
    for (const QString& path : files.keys())
        EXPECT_TRUE(kNames.contains(path) || (state == "old" && path.endsWith(".csp")))
            << "left behind: " << path.toStdString();
    return state;
}

class SaveCrash : public testing::Test {
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable("strace").isEmpty())
            GTEST_SKIP() << "strace is missing";
        // Counted on a project as deep as the tests' own: a path's depth changes the counts.
        static const std::vector<Call> calls
            = callsOfStep(commitArguments(makeProject(QTemporaryDir().filePath("p"))));
        ASSERT_FALSE((commitCalls = calls).empty());
    }

    // Kills the save of a new project at the nth rename; returns the journal's name.
    QString killedAtRename(const QString& project, int nth)
    {
        for (const Call& call : commitCalls)
            if (call.name.startsWith("renameat") && nth-- == 0) {
                EXPECT_FALSE(runChild(commitArguments(makeProject(project)), call));
            }
        return QDir(project)
            .entryList({ ".save.zo-journal-*" }, QDir::Files | QDir::Hidden)
            .value(0);
    }

    std::vector<Call> commitCalls;
    QTemporaryDir base;
};

TEST_F(SaveCrash, KillAtAnyCallOfASaveLeavesAllOldOrAllNew)
{
    for (std::size_t at = 0; at < commitCalls.size(); ++at) {
        const QTemporaryDir scratch;
        const QString project = makeProject(scratch.filePath("p"));
        SCOPED_TRACE(
            commitCalls[at].name.toStdString() + " " + std::to_string(commitCalls[at].when));
        runChild(commitArguments(project), commitCalls[at]);
        const QString opened[] = { project, project + "/d1", scratch.path() };
        if (expectWholeSave(project, opened[at % 3]) == "new")
            continue;
        // The edits were whole before the save began: recovering them loses nothing.
        ProjectVFS recovering(project);
        for (const ProjectVFS::RecoverableInfo& info : recovering.recoverableFiles())
            recovering.recoverFile(info);
        recovering.commit();
        EXPECT_EQ(expectWholeSave(project, project), "new");
    }
}

// A journal cut short was torn before it was durable, so no rename had begun.
TEST_F(SaveCrash, TornJournalIsRemovedAndNothingElseTouched)
{
    const QString project = base.filePath("p");
    const QString journal = project + "/" + killedAtRename(project, 0);
    const QByteArray written = readFile(journal);
    for (int size = 0; size < written.size(); ++size) {
        writeFile(journal, written.left(size));
        EXPECT_EQ(expectWholeSave(project, project), "old") << size;
        EXPECT_EQ(filesBelow(project).size(), 2 * kNames.size()) << size;
    }
    writeFile(journal, written);
    EXPECT_EQ(expectWholeSave(project, project), "new");
}

// Each time a new crashed save: even a hard link changes a file's change time, by which the
// journal knows that nobody wrote to it since.
TEST_F(SaveCrash, KillWhileCompletingASaveStillCompletesIt)
{
    const QString project = base.filePath("p");
    const auto crashedSave = [&] {
        std::filesystem::remove_all(project.toStdString());
        EXPECT_FALSE(killedAtRename(project, kHalfway).isEmpty());
    };
    crashedSave();
    for (const Call& call : callsOfStep({ "open", project })) {
        SCOPED_TRACE(call.name.toStdString() + " " + std::to_string(call.when));
        crashedSave();
        runChild({ "open", project }, call);
        EXPECT_EQ(expectWholeSave(project, project), "new");
    }
}

// What was written at a name of the save after the crash stays, the save's content in its swap
// file to recover and the backup beside it; the rest of the save is completed.
TEST_F(SaveCrash, WritesAfterTheCrashAreNotReplaced)
{
    const QString project = base.filePath("p");
    ASSERT_FALSE(killedAtRename(project, kHalfway).isEmpty());
    writeFile(project + "/d2/e.txt", "made where the backup's name was"); // d2/e.txt in backup
    writeFile(project + "/d2/f.txt", "old d2/f.txt, edited in place");
    // Same size, its modification time put back: only its change time tells.
    const QByteArray g = QFile::encodeName(project + "/d3/g.txt");
    struct stat before { };
    ASSERT_EQ(::stat(g, &before), 0);
    writeFile(project + "/d3/g.txt", "OLD d3/g.txt");
    const timespec times[] = { before.st_atim, before.st_mtim };
    ASSERT_EQ(::utimensat(AT_FDCWD, g, times, 0), 0);

    ProjectVFS opened(project);
    const QMap<QString, QByteArray> files = filesBelow(project);
    for (const QString name : { "a.txt", "b.txt", "d1/c.txt", "d1/d.txt", "d3/h.txt" })
        EXPECT_EQ(files.value(name), "new " + name.toUtf8());
    EXPECT_EQ(files.value("d2/e.txt"), "made where the backup's name was");
    EXPECT_EQ(files.value("d2/e.txtbck"), "old d2/e.txt");
    EXPECT_EQ(files.value("d3/g.txt"), "OLD d3/g.txt");
    const std::vector<ProjectVFS::RecoverableInfo> left = opened.recoverableFiles();
    ASSERT_EQ(left.size(), 3u);
    EXPECT_EQ(files.value(left[2].swapPath), "new d3/g.txt");
    for (const ProjectVFS::RecoverableState& state : opened.inspect({ left[0], left[1] }))
        EXPECT_TRUE(state.sourceChanged);
}

TEST_F(SaveCrash, SaveOfALiveProcessIsLeftToIt)
{
    const QString project = base.filePath("p");
    std::optional<LiveInstance> live(std::in_place); // started before the journal is written
    const QString lent = QStringLiteral(".save.zo-journal-%1.0").arg(live->pid);
    ASSERT_TRUE(QDir(project).rename(killedAtRename(project, kHalfway), lent));
    const QMap<QString, QByteArray> left = filesBelow(project);
    EXPECT_EQ(ProjectVFS(project + "/d1").interruptedSavesWhenOpened().at(0).owner.state,
        ProjectVFS::OwnerInfo::State::Running);
    EXPECT_EQ(filesBelow(project), left);
    live.reset();
    // Another user's journal is left to that user.
    const QByteArray lentPath = QFile::encodeName(project + "/" + lent);
    ASSERT_EQ(::chown(lentPath, kNobody, kNobody), 0);
    ProjectVFS { project };
    ASSERT_EQ(::chown(lentPath, 0, 0), 0);
    EXPECT_EQ(expectWholeSave(project, project), "new");
}

// A save stopped short by a rename, whose journal then cannot be removed: no later open commits
// what the error left pending.
TEST(SaveJournal, OfASaveStoppedShortRedoesNothingWhenItCannotBeRemoved)
{
    const QTemporaryDir project;
    for (const QString name : { "a.txt", "b.txt" })
        writeFile(project.filePath(name), "old " + name.toUtf8());
    writeFile(project.filePath("b.txtbck/in"), "where b.txt's backup would go");
    ProjectVFS saving(project.path());
    for (const QString name : { "a.txt", "b.txt" })
        saving.open(name, QIODevice::WriteOnly)->write("new " + name.toUtf8());
    zo::os::fault::inject(zo::os::fault::Step::Remove, 1, EIO);
    EXPECT_THROW(saving.commit(), exception::SourceFileRename);
    zo::os::fault::clear();
    ASSERT_TRUE(saving.isNotCommitted("b.txt"));
    // As once this process has ended.
    for (const QString& journal :
        QDir(project.path()).entryList({ ".save.zo-journal-*" }, QDir::Files | QDir::Hidden))
        QDir(project.path())
            .rename(journal, QStringLiteral(".save.zo-journal-%1.0").arg(endedProcessId()));
    ProjectVFS { project.path() };
    EXPECT_EQ(readFile(project.filePath("a.txt")), "new a.txt");
    EXPECT_EQ(readFile(project.filePath("b.txt")), "old b.txt");
}

} // namespace
} // namespace zo::project
