// A save that replaces a directory swaps the new tree in whole. A failed swap changes nothing;
// when only its flush fails, the previous tree stays whole beside the target, as a system crash
// could still undo the swap.

#include <zo/fault.h>
#include <zo/project/projectmodel.h>
#include <zo/test/support.h>

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

using zo::os::fault::Step;
using zo::project::ArchiveFormat;
using zo::test::readFile;

TEST(DirectorySave, ReplacesTheTreeWholeAndKeepsThePreviousOneWhileTheSwapMayNotLast)
{
    const QTemporaryDir dir;
    const QString target = dir.filePath("project");
    zo::test::writeFile(target + "/old.txt", "old");
    zo::project::ProjectModel model;
    model.writeFile("new.txt", "new");
    const auto hidden = [&] {
        return QDir(dir.path())
            .entryList(QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot)
            .filter(QRegExp("^\\."));
    };
    // The export's own rename and flush come first, the swap's second.
    for (const auto& [step, left] :
        { std::pair { Step::Rename, "old.txt" }, { Step::SyncDirectory, "new.txt" } }) {
        zo::os::fault::inject(step, 2, EIO);
        EXPECT_ANY_THROW(model.save(target, ArchiveFormat::Directory, true));
        zo::os::fault::clear();
        EXPECT_TRUE(QFile::exists(target + "/" + left)) << left;
        const QStringList previous = hidden();
        ASSERT_EQ(previous.size(), step == Step::Rename ? 0 : 1);
        if (step == Step::SyncDirectory) {
            EXPECT_EQ(readFile(dir.filePath(previous.first() + "/old.txt")), "old");
        }
        QDir(dir.filePath(previous.value(0, "none"))).removeRecursively();
    }
    model.save(target, ArchiveFormat::Directory, true);
    EXPECT_EQ(readFile(target + "/new.txt"), "new");
    EXPECT_TRUE(hidden().isEmpty());
}

} // namespace
