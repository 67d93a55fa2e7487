// The zoproject program as people run it, on scratch projects.
#include "../progress.h"

#include <zo/test/support.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace {

using zo::test::readFile;
using zo::test::writeFile;

struct Outcome {
    int status;
    QByteArray out;
    QByteArray err;
};

Outcome zoproject(const QStringList& arguments, const QString& workingDirectory = QString())
{
    QProcess process;
    process.setWorkingDirectory(workingDirectory);
    process.start(QStringLiteral(ZOPROJECT_PROGRAM), arguments);
    EXPECT_TRUE(process.waitForFinished(60000)) << arguments.join(' ').toStdString();
    return { process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError() };
}

QJsonObject jsonOf(const Outcome& run)
{
    return QJsonDocument::fromJson(run.out).object();
}

class Cli : public testing::Test {
protected:
    QString path(const QString& name) const { return QDir(scratch.path()).filePath(name); }

    // A process named like this program, so that any liveness test sees the same program.
    void startNamedLikeUs(QProcess& process)
    {
        const QString named = path(QStringLiteral("bin/zoproject"));
        QDir().mkpath(path(QStringLiteral("bin")));
        QFile::link(QStandardPaths::findExecutable(QStringLiteral("sleep")), named);
        process.start(named, { QStringLiteral("60") });
        ASSERT_TRUE(process.waitForStarted());
    }

    QTemporaryDir scratch;
};

TEST_F(Cli, UsageErrorsExitWithStatusTwoAndHelpWithZero)
{
    const std::pair<const char*, int> rows[] = { { "", 2 }, { "frob", 2 }, { "--frob", 2 },
        { "status --frob", 2 }, { "status a b", 2 }, { "pack only-one", 2 },
        { "pack --format rar a b", 2 }, { "recover", 2 }, { "help frob", 2 }, { "--help", 0 },
        { "help meta", 0 }, { "ls --help", 0 }, { "--version", 0 } };
    for (const auto& [arguments, status] : rows) {
        SCOPED_TRACE(arguments);
        const Outcome run
            = zoproject(QString(arguments).split(' ', Qt::SkipEmptyParts), scratch.path());
        EXPECT_EQ(run.status, status) << run.err.toStdString();
        EXPECT_TRUE(status == 2 ? run.err.startsWith("zoproject: ") && run.err.contains("\nusage:")
                                : run.out.contains("zoproject"));
    }
}

// Two commits were interrupted between their renames: each source lies in its backup. Two
// others left a backup beside their source, where the one commit of a recovery stops once each
// and still goes through.
TEST_F(Cli, StatusAndRecoverSpareTheFilesOfARunningProcess)
{
    const QString project = path(QStringLiteral("project"));
    writeFile(project + "/notes.txtbck", "saved\n");
    writeFile(project + "/docs/main.xmlbck", "saved\n");
    const qint64 ended = zo::test::endedProcessId();
    QProcess running;
    startNamedLikeUs(running);
    const QString endedSwap = QStringLiteral(".notes.txt.%1.csp").arg(ended);
    const QString runningSwap = QStringLiteral("docs/.main.xml.%1.csp").arg(running.processId());
    writeFile(project + "/" + endedSwap, "unsaved work\n");
    writeFile(project + "/" + runningSwap, "work in progress\n");
    for (const QString source : { "a.txt", "b.txt" }) {
        writeFile(project + "/" + source, "saved\n");
        writeFile(project + "/" + source + "bck", "older\n");
        writeFile(project + QStringLiteral("/.%1.%2.csp").arg(source).arg(ended), "unsaved work\n");
    }
    // Listing is read-only: it leaves the interrupted commits as they are.
    EXPECT_TRUE(zoproject({ "ls", project }).out.contains(" 6  notes.txtbck\n"));
    EXPECT_FALSE(QFile::exists(project + "/notes.txt"));

    Outcome status = zoproject({ "status", "--json", project });
    EXPECT_EQ(status.status, 3);
    QJsonObject json = jsonOf(status);
    EXPECT_EQ(json["recoverable"].toInt(), 3);
    for (const QJsonValue swap : json["swapFiles"].toArray())
        EXPECT_EQ(swap["ownerRunning"].toBool(), swap["swapPath"].toString() == runningSwap);
    EXPECT_EQ(json["swapFiles"].toArray().size(), 4);
    EXPECT_FALSE(QFile::exists(project + "/notes.txt")); // a look changes nothing

    EXPECT_EQ(zoproject({ "recover", "--all", "--dry-run" }, project).status, 0);
    EXPECT_EQ(readFile(project + "/a.txtbck"), "older\n");
    const Outcome abandon = zoproject({ "recover", project, "docs", "--abandon" });
    EXPECT_EQ(abandon.status, 0) << abandon.err.toStdString();
    EXPECT_TRUE(abandon.out.contains(runningSwap.toUtf8() + " alone")) << abandon.out.toStdString();

    // Without its owner's note of a source, notes.txtbck is no backup of notes.txt.
    const Outcome recover = zoproject({ "recover", "--all" }, project);
    EXPECT_EQ(recover.status, 0) << recover.err.toStdString();
    EXPECT_EQ(zo::test::filesBelow(project),
        (QMap<QString, QByteArray> { { "notes.txt", "unsaved work\n" },
            { "notes.txtbck", "saved\n" }, { "a.txt", "unsaved work\n" },
            { "b.txt", "unsaved work\n" }, { runningSwap, "work in progress\n" },
            { "docs/main.xmlbck", "saved\n" } }));

    status = zoproject({ "status", "--json" }, project);
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(jsonOf(status)["recoverable"].toInt(), 0);
    running.kill();
    running.waitForFinished();
}

// A save of two new files killed between their renames: status, a dry run and diff change
// nothing and say that opening completes it; pack refuses it.
TEST_F(Cli, StatusShowsAnInterruptedSaveThatOpeningCompletes)
{
    const QString project = scratch.path();
    const QStringList child { "-f", "-qq", "-o", "/dev/null", "-E", "ASAN_OPTIONS=detect_leaks=0",
        "-e", "inject=renameat2:signal=SIGKILL:when=2", CRASH_CHILD, "commit", project, "a.txt",
        "b.txt" };
    if (QProcess::execute(QStringLiteral("strace"), child) == -2)
        GTEST_SKIP() << "strace is missing";
    const QStringList left = zo::test::entriesBelow(project);
    const Outcome status = zoproject({ "status", project });
    EXPECT_EQ(status.status, 3);
    EXPECT_TRUE(status.out.endsWith("opening the project completes it.\n  a.txt\n  b.txt\n1 "
                                    "interrupted save to complete: opening the project, or "
                                    "\"zoproject recover --all\", completes it.\n"))
        << status.out.toStdString();
    for (const char* arguments : { "recover --all --dry-run", "recover . b.txt --dry-run",
             "recover --abandon --dry-run . b.txt", "diff . b.txt" }) {
        const Outcome run = zoproject(QString(arguments).split(' '), project);
        EXPECT_TRUE(run.out.startsWith("Interrupted save of 2 files"))
            << arguments << run.out.toStdString();
    }
    const QTemporaryDir elsewhere;
    const Outcome pack = zoproject({ "pack", project, elsewhere.filePath("p.zip") });
    EXPECT_EQ(pack.status, 1);
    EXPECT_TRUE(pack.err.contains("\"zoproject recover\", completes it first"))
        << pack.err.toStdString();
    EXPECT_EQ(zo::test::entriesBelow(project), left);
    EXPECT_EQ(zoproject({ "recover", "--all" }, project).status, 0);
    EXPECT_EQ(readFile(project + "/b.txt"), "new b.txt");
}

TEST_F(Cli, RecoverRefusesTwoSwapFilesOfOneSourceUntilOneIsNamed)
{
    const QString project = path(QStringLiteral("project"));
    writeFile(project + "/notes.txt", "saved\n");
    const QString first = QStringLiteral(".notes.txt.%1.csp").arg(zo::test::endedProcessId());
    const QString second = QStringLiteral(".notes.txt.%1.csp").arg(zo::test::endedProcessId());
    writeFile(project + "/" + first, "first\n");
    writeFile(project + "/" + second, "second\n");

    const Outcome refused = zoproject({ "recover", "--all" }, project);
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.err.contains("'notes.txt': several swap files"))
        << refused.err.toStdString();
    EXPECT_EQ(readFile(project + "/" + first), "first\n");
    EXPECT_EQ(zoproject({ "recover", project, "missing.txt" }).status, 1);

    EXPECT_EQ(zoproject({ "recover", project, second }).status, 0);
    EXPECT_EQ(zoproject({ "recover", project, "notes.txt", "--abandon" }).status, 0);
    EXPECT_EQ(readFile(project + "/notes.txt"), "second\n");
    EXPECT_EQ(zo::test::entriesBelow(project), QStringList { "notes.txt" });
}

TEST_F(Cli, PackListUnpackAndMetaKeepFilesAndMetadataAndListingWritesNothing)
{
    const QString project = path(QStringLiteral("project"));
    writeFile(project + "/docs/main.xml", "<doc/>\n");
    writeFile(project + "/.hidden", "hidden\n");
    ASSERT_EQ(zoproject({ "meta", project, "title", "Round trip" }).status, 0);
    const QJsonObject files = jsonOf(zoproject({ "ls", "--json", project }));
    ASSERT_EQ(files["files"].toArray().size(), 2);

    // The format told by the name, or named.
    for (const auto& [name, format] :
        { std::pair { "project.tar.gz", "tar.gz" }, { "nameless", "7z" } }) {
        SCOPED_TRACE(name);
        const QString archive = path(name);
        const QString unpacked = path(name + QStringLiteral(".d"));
        const QStringList option
            = archive.contains(format) ? QStringList() : QStringList { "--format", format };
        // Nothing on the error output: no progress bar without a terminal, and no error.
        EXPECT_EQ(zoproject(QStringList { "pack", project, archive } + option).err, "");
        const QJsonObject listed = jsonOf(zoproject({ "ls", "--json", archive }));
        EXPECT_EQ(listed["format"].toString(), format);
        EXPECT_EQ(listed["files"], files["files"]);
        EXPECT_EQ(zoproject(QStringList { "unpack", archive, unpacked } + option).status, 0);
        EXPECT_EQ(readFile(unpacked + "/docs/main.xml"), "<doc/>\n");
        EXPECT_EQ(zoproject({ "meta", unpacked, "title" }).out, "Round trip\n");
    }

    // meta on an archive replaces it whole, leaving nothing beside it, or not at all.
    const QString archive = path("project.tar.gz");
    EXPECT_EQ(zoproject({ "meta", archive, "title", "Shelved" }).status, 0);
    EXPECT_EQ(
        QDir(scratch.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        (QStringList {
            "nameless", "nameless.d", "project", "project.tar.gz", "project.tar.gz.d" }));
    EXPECT_EQ(zoproject({ "meta", archive, "author" }).err,
        "zoproject: '" + archive.toUtf8() + "': no metadata key 'author'\n");

    // ls and meta read an archive as a stream: they work where nothing can be written at all.
    const QByteArray before = readFile(archive);
    const QByteArray previous = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(archive)); // a file: no directory there
    const zo::test::ScopedMount readOnly(scratch.path());
    const Outcome listed = zoproject({ "ls", "--json", archive });
    const Outcome meta = zoproject({ "meta", archive });
    qputenv("TMPDIR", previous);
    EXPECT_EQ(jsonOf(listed)["files"], files["files"]) << listed.err.toStdString();
    EXPECT_EQ(meta.out, "title=Shelved\n") << meta.err.toStdString();
    if (!readOnly.mounted)
        GTEST_SKIP() << "no read-only bind mount here";
    EXPECT_EQ(zoproject({ "meta", archive, "title", "Refused" }).status, 1);
    EXPECT_EQ(readFile(archive), before);
}

TEST(ProgressLine, ShowsWhatIsKnownAndTheTimeLeft)
{
    QLocale::setDefault(QLocale::c());
    const std::tuple<zo::project::Progress, qint64, QString> rows[] = {
        { { 3, 10, 512, 1024 }, 1000,
            " 50% 3 of 10 entries, 512 bytes of 1.00 KiB, 512 bytes/s, 0:01 left" },
        { { 5, 0, 2048, 0 }, 0, "5 entries, 2.00 KiB" },
        { { 1, 2, 1000, 3602000 }, 1000,
            "  0% 1 of 2 entries, 1000 bytes of 3.44 MiB, 1000 bytes/s, 1:00:01 left" },
        { { 2, 2, 100, 100 }, 50, "100% 2 of 2 entries, 100 bytes of 100 bytes, 1.95 KiB/s" },
    };
    for (const auto& [progress, elapsedMs, line] : rows)
        EXPECT_EQ(zo::cli::progressLine(progress, elapsedMs), line);
    // A narrow terminal gets what fits, most telling first, its last column free.
    const zo::project::Progress& half = std::get<0>(rows[0]);
    EXPECT_EQ(zo::cli::progressLine(half, 1000, 44), " 50% 3 of 10 entries, 512 bytes of 1.00 KiB");
    EXPECT_EQ(zo::cli::progressLine(half, 1000, 10), " 50% 3 of");
}

} // namespace
