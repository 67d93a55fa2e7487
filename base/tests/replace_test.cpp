#include <zo/fault.h>
#include <zo/replace.h>
#include <zo/test/support.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using zo::os::ReplaceStep;
using Step = zo::os::fault::Step;

// Whatever step fails, the target holds the old content or, once renamed, the new one, and
// no hidden file is left; the new file stands in for the old one's permissions and owner.
TEST(DurableReplace, FailsWholeAtEveryStepAndKeepsPermissionsAndOwner)
{
    const QTemporaryDir dir;
    const std::string target = dir.filePath("target").toStdString();
    const struct {
        Step step;
        ReplaceStep reported;
        const char* left;
    } rows[] = { { Step::SyncFile, ReplaceStep::SyncFile, "old" },
        { Step::Rename, ReplaceStep::Rename, "old" },
        { Step::SyncDirectory, ReplaceStep::SyncDirectory, "new" } };
    for (const auto& row : rows) {
        zo::test::writeFile(target, "old", 0640);
        ASSERT_EQ(::chown(target.c_str(), zo::test::kNobody, zo::test::kNobody), 0);
        zo::os::fault::inject(row.step, 1, EIO);
        ReplaceStep failed {};
        EXPECT_FALSE(zo::os::replaceFile(target, "test", "new", failed));
        zo::os::fault::clear();
        EXPECT_EQ(failed, row.reported);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(zo::test::readFile(target), row.left);
        EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList { "target" });
    }
    ReplaceStep failed {};
    ASSERT_TRUE(zo::os::replaceFile(target, "test", "new", failed));
    struct stat status { };
    ASSERT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, zo::test::kNobody);
}

} // namespace
