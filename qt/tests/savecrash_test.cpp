// A save of eight files in four directories, killed at each system call of the save, of the
// completion of its journal, or with its journal torn at each byte: the next process that opens
// the project finds all eight old or all eight new, and nothing left behind but the edits to
// recover.

#include <zo/project/projectvfs.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <unistd.h>

namespace zo::project {
namespace {

using namespace test;

const QStringList kNames { "a.txt", "b.txt", "d1/c.txt", "d1/d.txt", "d2/e.txt", "d2/f.txt",
    "d3/g.txt", "d3/h.txt" };

// The save's rename that would put the fifth file in place: four are new, the fifth lies in
// its backup, three are old.
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
            if (call.name == "renameat" && nth-- == 0) {
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

TEST_F(SaveCrash, KillWhileCompletingASaveStillCompletesIt)
{
    const QString state = base.filePath("state");
    ASSERT_FALSE(killedAtRename(state, kHalfway).isEmpty());
    // Hard links keep every file's identity, by which the journal knows its files.
    const QString copy = base.filePath("copy");
    const auto copyState = [&] {
        std::filesystem::remove_all(copy.toStdString());
        std::filesystem::copy(state.toStdString(), copy.toStdString(),
            std::filesystem::copy_options::recursive
                | std::filesystem::copy_options::create_hard_links);
    };
    copyState();
    for (const Call& call : callsOfStep({ "open", copy })) {
        SCOPED_TRACE(call.name.toStdString() + " " + std::to_string(call.when));
        copyState();
        runChild({ "open", copy }, call);
        EXPECT_EQ(expectWholeSave(copy, copy), "new");
    }
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

} // namespace
} // namespace zo::project
