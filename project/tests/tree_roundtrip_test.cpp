// Generated trees packed and unpacked through every format: each comes back exactly, or the
// pack refuses, naming a file whose name the format cannot hold, and writes no archive; and no
// hidden temporary is left.

#include "sample_tree.h"
#include "tree_generator.h"

#include <gtest/gtest.h>

#include <QDir>

#include <filesystem>

namespace {

using namespace zo::project;
using namespace zo::project::test;

// fsync costs nothing on a tmpfs, where a few hundred trees take seconds rather than minutes.
QString scratchParent()
{
    const QFileInfo shared(QStringLiteral("/dev/shm"));
    return shared.isDir() && shared.isWritable() ? shared.filePath() : QDir::tempPath();
}

TEST(TreeRoundTrip, EveryNameComesBackExactlyOrThePackRefusesIt)
{
    const QTemporaryDir dir(scratchParent() + "/tree_roundtrip-XXXXXX");
    for (uint32_t seed = 1; seed <= 250; ++seed) {
        const std::string source = pathIn(dir, "source");
        Choices choices(seed);
        const bool portable = makeTree(source, choices);
        for (const PackFormat& format : kPackFormats)
            EXPECT_EQ(roundTrip(source, dir.path().toStdString(), format, portable), "")
                << "seed " << seed << ", " << format.name;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path().toStdString()))
            EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path() << seed;
        removeContents(dir.path().toStdString());
    }
}

} // namespace
