// A process killed at each system call that can change a file system, while it unpacks into a
// directory that holds the user's files or saves an archive project safely: the destination or
// archive is the old one or the complete new one, and anything else it left has a hidden name
// that tells its purpose and owner (or is a workspace, with its record).

#include <zo/file.h>
#include <zo/project/archive.h>
#include <zo/test/support.h>

#include <QCoreApplication>
#include <QDirIterator>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using zo::project::ArchiveFormat;
using zo::test::readFile;
using zo::test::writeFile;
using Files = QMap<QString, QByteArray>;

const char* const kCalls[] = { "openat", "mkdir", "mkdirat", "write", "pwrite64", "fsync", "syncfs",
    "fchmod", "fchown", "utimensat", "ftruncate", "linkat", "symlinkat", "rename", "renameat2",
    "unlink", "unlinkat", "rmdir" };

// Every file and link below root with its content or target, hidden ones too.
Files filesIn(const QString& root)
{
    Files files;
    for (QDirIterator it(root, QDir::Files | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot,
             QDirIterator::Subdirectories);
         it.hasNext();) {
        const QFileInfo file(it.next());
        files.insert(QDir(root).relativeFilePath(file.filePath()),
            file.isSymLink() ? file.symLinkTarget().toUtf8() : readFile(file.filePath()));
    }
    return files;
}

// Runs archive_child with arguments, killed at the nth call of call; false when it ended
// before, having done all its work.
bool killedAt(const char* call, int nth, const QStringList& arguments)
{
    QProcess child;
    // The leak checker of a sanitizer build cannot work under a tracer.
    child.start("strace",
        QStringList { "-f", "-qq", "-o", "/dev/null", "-E", "ASAN_OPTIONS=detect_leaks=0", "-e",
            QStringLiteral("inject=%1:signal=SIGKILL:when=%2").arg(call).arg(nth),
            QCoreApplication::applicationDirPath() + "/archive_child" }
            + arguments);
    EXPECT_TRUE(child.waitForFinished(60000));
    const bool finished = child.exitStatus() == QProcess::NormalExit;
    EXPECT_TRUE(!finished || child.exitCode() == 0) << child.readAllStandardError().toStdString();
    return !finished;
}

// Names beside what was written: hidden ones that tell their owner, and workspaces.
void expectOnlyOwnedLeftovers(const QString& directory, const QStringList& expected)
{
    for (const QString& name :
        QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
        const bool workspace = name.contains(QLatin1String("zo_project_model_"));
        EXPECT_TRUE(expected.contains(name) || workspace
            || zo::os::parseHiddenName(QFile::encodeName(name).toStdString()))
            << name.toStdString();
    }
}

class KillAtEveryCall : public testing::Test {
protected:
    void SetUp() override
    {
        if (QStandardPaths::findExecutable("strace").isEmpty())
            GTEST_SKIP() << "strace is missing";
        writeFile(scratch.filePath("source/a.txt"), "archive's");
        writeFile(scratch.filePath("source/sub/new.txt"), "new");
    }

    // Runs the child killed at every call of kCalls in turn, each time in a fresh copy of
    // before, and checks what it left with check.
    void killEverywhere(const Files& before, const QStringList& arguments,
        const std::function<void(const char*, int)>& check)
    {
        for (const char* call : kCalls)
            for (int nth = 1;; ++nth) {
                QDir(work).removeRecursively();
                for (auto file = before.cbegin(); file != before.cend(); ++file)
                    writeFile(work + "/" + file.key(), file.value());
                if (!killedAt(call, nth, arguments))
                    break;
                check(call, nth);
            }
    }

    const QTemporaryDir scratch;
    const QString work = scratch.filePath("work");
};

TEST_F(KillAtEveryCall, UnpackIntoAnExistingDirectoryLeavesItOldOrCompleteNew)
{
    const QString archive = scratch.filePath("a.tar.gz");
    zo::project::exportProject(
        scratch.filePath("source").toStdString(), archive.toStdString(), ArchiveFormat::Auto);
    const Files old { { "destination/a.txt", "user's" }, { "destination/keep/x", "kept" } };
    Files complete = old;
    complete.insert("destination/a.txt", "archive's");
    complete.insert("destination/sub/new.txt", "new");
    killEverywhere(
        old, { "unpack", archive, work + "/destination" }, [&](const char* call, int nth) {
            const Files left = filesIn(work + "/destination");
            Files inDestination;
            for (auto file = left.cbegin(); file != left.cend(); ++file)
                inDestination.insert("destination/" + file.key(), file.value());
            EXPECT_TRUE(inDestination == old || inDestination == complete) << call << " " << nth;
            expectOnlyOwnedLeftovers(work, { "destination" });
        });
}

TEST_F(KillAtEveryCall, SafeSaveLeavesTheArchiveOldOrCompleteNew)
{
    zo::project::exportProject(scratch.filePath("source").toStdString(),
        scratch.filePath("p.zop").toStdString(), ArchiveFormat::Auto);
    const Files old { { "p.zop", readFile(scratch.filePath("p.zop")) } };
    QDir().mkpath(scratch.filePath("tmp"));
    const QByteArray previousTemp = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(scratch.filePath("tmp")));
    killEverywhere(old, { "save", work + "/p.zop" }, [&](const char* call, int nth) {
        const QString unpacked = scratch.filePath("unpacked");
        QDir(unpacked).removeRecursively();
        zo::project::importProject(
            (work + "/p.zop").toStdString(), unpacked.toStdString(), ArchiveFormat::Auto);
        const QByteArray text = readFile(unpacked + "/a.txt");
        EXPECT_TRUE(text == "archive's" || text == "new") << call << " " << nth;
        expectOnlyOwnedLeftovers(work, { "p.zop" });
        expectOnlyOwnedLeftovers(scratch.filePath("tmp"), {});
    });
    qputenv("TMPDIR", previousTemp);
}

} // namespace
