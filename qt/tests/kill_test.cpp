// A process killed at each system call that can change a file system while it unpacks into a
// new directory or one holding the user's files, or saves an archive project safely: what it
// wrote to is the old content or the complete new one, and anything else it left has a hidden
// name that tells its purpose and owner, or is a workspace with its record; the next save beside
// it removes all that once the killed process is gone, but a tree that may hold the user's data.

#include <zo/file.h>
#include <zo/project/archive.h>
#include <zo/project/projectmodel.h>
#include <zo/test/support.h>

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using zo::test::filesBelow;
using zo::test::readFile;
using zo::test::writeFile;
using Files = QMap<QString, QByteArray>;

const QStringList kCalls = { "openat", "mkdir", "mkdirat", "write", "pwrite64", "fsync", "syncfs",
    "fchmod", "fchown", "utimensat", "ftruncate", "linkat", "symlinkat", "rename", "renameat",
    "renameat2", "unlink", "unlinkat", "rmdir" };

class KillAtEveryCall : public testing::Test {
protected:
    void SetUp() override
    {
        writeFile(scratch.filePath("source/a.txt"), "archive's");
        writeFile(scratch.filePath("source/sub/new.txt"), "new");
        QDir().mkpath(temp);
        qputenv("TMPDIR", QFile::encodeName(temp));
    }
    void TearDown() override { qputenv("TMPDIR", previousTemp); }

    // Runs project_child with arguments over a fresh copy of before in work/into, killed at each
    // call in turn; check sees what each kill left, and only the names in named are not hidden
    // ones.
    void killEverywhere(const QString& into, const Files& before, const QStringList& arguments,
        const QStringList& named, const std::function<void()>& check)
    {
        const auto prepare = [&] {
            QDir(work).removeRecursively();
            for (auto file = before.cbegin(); file != before.cend(); ++file)
                writeFile(work + "/" + into + file.key(), file.value());
        };
        zo::test::killAtEveryCall(
            kCalls, QStringList { "project_child" } + arguments, prepare, [&] {
                check();
                for (const QString& directory : { work, temp })
                    for (const QString& name : QDir(directory).entryList(
                             QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot))
                        EXPECT_TRUE(named.contains(name) || name.contains("zo_project_model_")
                            || zo::os::parseHiddenName(QFile::encodeName(name).toStdString()))
                            << name.toStdString();
                zo::project::ProjectModel().save(work + "/again.zip", {}, true);
                // Only a tree that may hold the user's data stays, with the mark that covers it;
                // the marks in the temporary directory cover its workspaces.
                const auto left = [](const QString& directory, const char* pattern) {
                    return QDir(directory).entryList({ pattern }, QDir::Hidden | QDir::AllEntries);
                };
                EXPECT_EQ(left(work, ".*zo-[^or]*") + left(temp, ".*zo-[^o]*")
                        + (left(work, ".*zo-r*").isEmpty() ? left(work, ".zo-o*") : QStringList()),
                    QStringList());
            });
    }

    const QTemporaryDir scratch;
    const QString work = scratch.filePath("work");
    const QString temp = scratch.filePath("tmp");
    const QByteArray previousTemp = qgetenv("TMPDIR");
};

TEST_F(KillAtEveryCall, UnpackLeavesTheDestinationOldOrComplete)
{
    const QString archive = scratch.filePath("a.tar.gz");
    zo::project::exportProject(scratch.filePath("source").toStdString(), archive.toStdString(),
        zo::project::ArchiveFormat::Auto);
    const Files user { { "a.txt", "user's" }, { "keep/x", "kept" } };
    const Files unpacked { { "a.txt", "archive's" }, { "sub/new.txt", "new" } };
    Files merged = user;
    merged.insert(unpacked);
    for (const char* destination : { "user", "new/destination" })
        killEverywhere(
            "user/", user, { "unpack", archive, work + "/" + destination }, { "user", "new" }, [&] {
                const Files left = filesBelow(work + "/" + destination);
                if (destination == std::string("user"))
                    EXPECT_TRUE(left == user || left == merged);
                else
                    EXPECT_TRUE(left == unpacked || !QFileInfo::exists(work + "/new"));
            });
}

TEST_F(KillAtEveryCall, SafeSaveLeavesTheArchiveOldOrComplete)
{
    zo::project::exportProject(scratch.filePath("source").toStdString(),
        scratch.filePath("p.zop").toStdString(), zo::project::ArchiveFormat::Auto);
    const QString unpacked = scratch.filePath("unpacked");
    killEverywhere("", { { "p.zop", readFile(scratch.filePath("p.zop")) } },
        { "save", work + "/p.zop" }, { "p.zop" }, [&] {
            QDir(unpacked).removeRecursively();
            zo::project::importProject((work + "/p.zop").toStdString(), unpacked.toStdString(),
                zo::project::ArchiveFormat::Auto);
            const QByteArray text = readFile(unpacked + "/a.txt");
            EXPECT_TRUE(text == "archive's" || text == "new") << text.toStdString();
        });
}

} // namespace
