#include "sample_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>

namespace {

using namespace zo::project;
using namespace zo::project::test;
namespace fs = std::filesystem;

// Keeps every report; asks to stop once stopAt entries are done.
struct Recorder {
    uint64_t stopAt = std::numeric_limits<uint64_t>::max();
    std::vector<Progress> reports;

    ProgressCallback callback()
    {
        return [this](const Progress& progress) {
            reports.push_back(progress);
            return progress.entriesDone < stopAt;
        };
    }
};

class Progressing : public testing::Test {
protected:
    void SetUp() override { makeSampleTree(source, 1024 * 1024); }

    std::string path(const std::string& name) const { return pathIn(dir, name.c_str()); }
    std::vector<std::string> names() const { return listing(dir.path().toStdString(), Links); }

    QTemporaryDir dir;
    const std::string source = path("source");
};

const std::pair<std::string, ArchiveFormat> targets[] = { { "p.tar.gz", ArchiveFormat::TarGz },
    { "p.zip", ArchiveFormat::Zip }, { "copy", ArchiveFormat::Directory } };

uint64_t sizeOfFiles(const std::string& root)
{
    uint64_t size = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        size += entry.is_regular_file() && !entry.is_symlink() ? entry.file_size() : 0;
    return size;
}

TEST_F(Progressing, CountsGrowToTheirTotals)
{
    const uint64_t entries = listing(source, Links).size();
    for (const auto& [name, format] : targets) {
        SCOPED_TRACE(name);
        Recorder exported, imported;
        ASSERT_TRUE(exportProject(source, path(name), format, exported.callback()));
        ASSERT_TRUE(importProject(
            path(name), path("in-" + name), ArchiveFormat::Auto, imported.callback()));
        // An export counts the source first; an archive's bytes are those it takes on disk.
        EXPECT_EQ(exported.reports.front().entriesTotal, entries);
        EXPECT_EQ(exported.reports.front().bytesTotal, sizeOfFiles(source));
        EXPECT_EQ(imported.reports.back().bytesTotal,
            name == "copy" ? sizeOfFiles(source) : fs::file_size(path(name)));
        for (const Recorder* recorder : { &exported, &imported }) {
            const Progress& last = recorder->reports.back();
            EXPECT_EQ(last.entriesDone, entries);
            EXPECT_EQ(last.entriesTotal, entries);
            EXPECT_EQ(last.bytesDone, last.bytesTotal);
            const auto& reports = recorder->reports;
            EXPECT_TRUE(std::is_sorted(
                reports.begin(), reports.end(), [](const Progress& a, const Progress& b) {
                    return a.entriesDone < b.entriesDone || a.bytesDone < b.bytesDone;
                }));
        }
    }
}

TEST_F(Progressing, ACancelLeavesNothingBehind)
{
    exportProject(source, path("p.tar.gz"), ArchiveFormat::Auto);
    writeFile(path("old.zip"), "previous archive");
    writeFile(path("kept/marker"), "mine");
    const auto before = names();
    Recorder cancelling { 5, {} };
    for (const auto& [name, format] : targets)
        EXPECT_FALSE(exportProject(source, path("new" + name), format, cancelling.callback()))
            << name;
    EXPECT_FALSE(
        exportProject(source, path("old.zip"), ArchiveFormat::Auto, cancelling.callback()));
    for (const std::string name : { "new/destination", "kept" })
        EXPECT_FALSE(
            importProject(path("p.tar.gz"), path(name), ArchiveFormat::Auto, cancelling.callback()))
            << name;
    // Content included: the previous archive is still the one that was there.
    EXPECT_EQ(names(), before);
}

} // namespace
