// The formats, by their names and content, and trees packed and unpacked through every one of
// them: generated ones come back exactly, or the pack refuses, naming a file whose name the
// format cannot hold, and writes no archive; a sample project with a big file comes back with
// its progress counted to the totals; a failed or cancelled export or import leaves nothing
// behind.
#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QDir>

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <limits>
#include <sys/stat.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;
using F = ArchiveFormat;
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

uint64_t sizeOfFiles(const std::string& root)
{
    uint64_t size = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        size += entry.is_regular_file() && !entry.is_symlink() ? entry.file_size() : 0;
    return size;
}

class Formats : public Scratch {
protected:
    void SetUp() override { makeSampleTree(source); }

    const std::string source = path("source");
};

// Every name a format goes by names it back, and, after a dot, ends the names of its archives;
// a name, when the content tells nothing, in any case. Only a zip is told from a native project
// by its name; the round trip names every format misleadingly.
TEST_F(Formats, AreNamedAndToldByTheirNamesAndContent)
{
    const std::pair<std::string, ArchiveFormat> names[] = { { "zop", F::Native },
        { "dir", F::Directory }, { "tar", F::Tar }, { "tar.gz", F::TarGz }, { "tgz", F::TarGz },
        { "tar.bz2", F::TarBz2 }, { "tbz2", F::TarBz2 }, { "tar.xz", F::TarXz },
        { "txz", F::TarXz }, { "tar.zst", F::TarZstd }, { "tzst", F::TarZstd }, { "zip", F::Zip },
        { "7z", F::SevenZip } };
    std::vector<std::string> listed;
    for (const auto& [name, format] : names) {
        listed.push_back(name);
        EXPECT_EQ(formatNamed(name), format) << name;
        EXPECT_EQ(formatNamed(formatName(format)), format) << name;
        if (format != F::Directory) {
            EXPECT_EQ(detectFormat(path(("a." + name).c_str())), format) << name;
        }
    }
    EXPECT_EQ(formatNames(), listed);
    for (const char* name : { "", "TAR", "rar", ".zip" })
        EXPECT_FALSE(formatNamed(name)) << name;
    EXPECT_EQ(detectFormat(path("a.TXZ")), F::TarXz);
    EXPECT_EQ(detectFormat(dir.path().toStdString()), F::Directory);
    exportProject(source, path("native.ZOP"), F::Zip);
    EXPECT_EQ(detectFormat(path("native.ZOP")), F::Native);

    // Neither name nor content: unsupported; a wrong explicit format or unreadable content is a
    // broken archive.
    writeFile(path("garbage.zip"), "not an archive at all");
    writeFile(path("empty.zip"), "");
    for (const char* name :
        { "a.rar", "a.gz", "plain", "a.zip.part", "a.dir", "garbage.zip", "empty.zip" })
        EXPECT_THROW(detectFormat(path(name)), UnsupportedFormat) << name;
    EXPECT_THROW(importProject(path("native.ZOP"), path("a"), F::TarGz), ArchiveError);
    EXPECT_THROW(importProject(path("garbage.zip"), path("b"), F::Auto), ArchiveError);

    // An export without a format follows the name; into an existing directory, a copy. A value
    // outside the enumeration is refused.
    exportProject(source, path("out.tbz2"), F::Auto);
    EXPECT_EQ(detectFormat(path("out.tbz2")), F::TarBz2);
    ASSERT_TRUE(QDir(dir.path()).mkdir("existing"));
    exportProject(source, path("existing"), F::Auto);
    EXPECT_EQ(describe(path("existing"), Everything), describe(source, Everything));
    EXPECT_THROW(exportProject(source, path("out.unknown"), F::Auto), UnsupportedFormat);
    for (const int value : { -1, 10, 42 }) {
        const auto format = static_cast<ArchiveFormat>(value);
        EXPECT_THROW(importProject(path("out.tbz2"), path("in"), format), UnsupportedFormat);
        EXPECT_THROW(exportProject(source, path("out.zip"), format), UnsupportedFormat);
    }
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden),
        (QStringList {
            "empty.zip", "existing", "garbage.zip", "native.ZOP", "out.tbz2", "source" }));
}

// A cancelled or failed export or import leaves nothing behind: the previous archive is still
// the one that was there, a directory holds what it held, a new destination is gone.
TEST_F(Formats, CancelledOrFailedTransfersLeaveNothingBehind)
{
    exportProject(source, path("p.tar.gz"), F::Auto);
    writeFile(path("old.zip"), "previous archive");
    writeFile(path("kept/marker"), "mine");
    const auto before = describe(dir.path().toStdString(), 0);
    Recorder cancelling { 5, {} };
    for (const auto& [name, format] : { std::pair { "new.tar.gz", F::TarGz }, { "new.zip", F::Zip },
             { "new", F::Directory }, { "old.zip", F::Auto } })
        EXPECT_FALSE(exportProject(source, path(name), format, cancelling.callback())) << name;
    for (const char* name : { "new/destination", "kept" })
        EXPECT_FALSE(importProject(path("p.tar.gz"), path(name), F::Auto, cancelling.callback()))
            << name;
    EXPECT_EQ(describe(dir.path().toStdString(), 0), before);

    // An entry that cannot be packed (a pipe), or a directory that is not empty, fails an export.
    const std::string fifo = source + "/pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, path("old.zip") + "', entry 'pipe'",
        thrownBy([&] { exportProject(source, path("old.zip"), F::Zip); }));
    ::unlink(fifo.c_str());
    EXPECT_THROW(exportProject(source, path("kept"), F::Directory), ArchiveError);
    EXPECT_EQ(describe(dir.path().toStdString(), 0), before);
}

TEST_F(Formats, ExportIntoItsOwnSourceLeavesItselfOut)
{
    const auto expected = describe(source, Modes);
    exportProject(source, source + "/copy", F::Directory);
    std::filesystem::rename(source + "/copy", path("copy"));
    exportProject(source, source + "/backup.zip", F::Zip);
    std::filesystem::rename(source + "/backup.zip", path("backup.zip"));
    importProject(path("backup.zip"), path("imported"), F::Auto);
    // Times are left out: the source directory's own changed with the new entries.
    EXPECT_EQ(describe(path("copy"), Modes), expected);
    EXPECT_EQ(describe(path("imported"), Modes), expected);
}

// A sample project with a big file, packed into every format under a misleading name (the
// content decides; only a zip is told from a native project by its name) and unpacked below
// directories yet to be made: it comes back whole, and the progress counts to the totals.
TEST(RoundTrip, KeepsABigFileAndCountsToTheTotals)
{
    QTemporaryDir dir;
    const std::string source = pathIn(dir, "source");
    makeSampleTree(source, 8 * 1024 * 1024 + 123);
    const uint64_t entries = describe(source, 0).size();
    for (const ArchiveFormat format : kPackFormats) {
        SCOPED_TRACE(formatName(format));
        const std::string work = pathIn(dir, formatName(format).c_str());
        const std::string archive = work
            + (format == F::Native     ? "/p.zop"
                    : format == F::Tar ? "/p.zip"
                                       : "/p.tar");
        fs::create_directory(work);
        Recorder exported, imported;
        ASSERT_TRUE(exportProject(source, archive, format, exported.callback()));
        EXPECT_EQ(detectFormat(archive), format);
        ASSERT_TRUE(importProject(archive, work + "/new/target", F::Auto, imported.callback()));
        EXPECT_EQ(describe(work + "/new/target", Everything), describe(source, Everything));

        // An export counts the source first; an archive's bytes are those it takes on disk.
        EXPECT_EQ(exported.reports.front().entriesTotal, entries);
        EXPECT_EQ(exported.reports.front().bytesTotal, sizeOfFiles(source));
        EXPECT_EQ(imported.reports.back().bytesTotal,
            format == F::Directory ? sizeOfFiles(source) : fs::file_size(archive));
        for (const auto& reports : { exported.reports, imported.reports }) {
            EXPECT_EQ(reports.back().entriesDone, entries);
            EXPECT_EQ(reports.back().entriesTotal, entries);
            EXPECT_EQ(reports.back().bytesDone, reports.back().bytesTotal);
            EXPECT_TRUE(std::is_sorted(
                reports.begin(), reports.end(), [](const Progress& a, const Progress& b) {
                    return a.entriesDone < b.entriesDone || a.bytesDone < b.bytesDone;
                }));
        }
    }
}

// fsync costs nothing on a tmpfs, where a few hundred trees take seconds rather than minutes.
QString scratchParent()
{
    const QFileInfo shared(QStringLiteral("/dev/shm"));
    return shared.isDir() && shared.isWritable() ? shared.filePath() : QDir::tempPath();
}

// libarchive converts names through the locale; the library must not depend on it. No hidden
// temporary is left.
TEST(TreeRoundTrip, EveryNameComesBackExactlyOrThePackRefusesItWhateverTheLocale)
{
    const std::string locale = setlocale(LC_ALL, nullptr);
    setlocale(LC_ALL, "C");
    const QTemporaryDir dir(scratchParent() + "/tree_roundtrip-XXXXXX");
    for (uint32_t seed = 1; seed <= 250; ++seed) {
        const std::string source = pathIn(dir, "source");
        Choices choices(seed);
        const bool portable = makeTree(source, choices);
        for (const ArchiveFormat format : kPackFormats)
            EXPECT_EQ(roundTrip(source, dir.path().toStdString(), format, portable), "")
                << "seed " << seed << ", " << formatName(format);
        for (const auto& entry : fs::directory_iterator(dir.path().toStdString()))
            EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path() << seed;
        removeContents(dir.path().toStdString());
    }
    setlocale(LC_ALL, locale.c_str());
}

} // namespace
