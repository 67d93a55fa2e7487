#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>

#include <filesystem>

namespace {

using namespace zo::project;
using namespace zo::project::test;

// "ArchiveError: message" of the import, or "nothing thrown".
std::string importError(const std::string& archive, const std::string& destination)
{
    return thrownBy([&] { importProject(archive, destination, ArchiveFormat::Auto); });
}

// Passes when the error names the archive and the entry.
void expectNames(const std::string& error, const std::string& archive, const std::string& entry)
{
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "'" + archive + "', entry '" + entry + "'", error);
}

class Hostile : public testing::Test {
protected:
    void SetUp() override { writeFile(outside + "/canary", "canary"); }

    // Imports items, expects a refusal naming archive and entry, and that the sandbox is
    // as it was: the destination this import created is gone and nothing came outside it.
    void expectRefused(const std::vector<Item>& items, const std::string& entry, bool zip = false)
    {
        std::string trace = zip ? "zip:" : "tar:";
        for (const Item& item : items)
            trace += " " + item.name;
        SCOPED_TRACE(trace);
        writeArchive(archive, items, zip);
        const auto before = describe(sandbox.path().toStdString(), Everything);
        expectNames(importError(archive, destination), archive, entry);
        EXPECT_EQ(describe(sandbox.path().toStdString(), Everything), before);
    }

    QTemporaryDir sandbox;
    const std::string outside = pathIn(sandbox, "outside");
    const std::string archive = pathIn(sandbox, "hostile.tar");
    const std::string destination = pathIn(sandbox, "new/destination");
};

TEST_F(Hostile, EntriesReachingOutsideTheDestinationOrNotPlainAreRefused)
{
    expectRefused({ { outside + "/pwned" } }, outside + "/pwned");
    expectRefused({ { "../outside/pwned" } }, "../outside/pwned");
    expectRefused({ { "docs/../../outside/pwned" } }, "docs/../../outside/pwned");
    expectRefused({ { "../outside/pwned" } }, "../outside/pwned", true);
    expectRefused({ { "escape", AE_IFLNK, "../outside" }, { "escape/pwned" } }, "escape");
    expectRefused({ { "a/b/up", AE_IFLNK, "../../../outside" } }, "a/b/up");
    expectRefused({ { "sub", AE_IFDIR }, { "down-up", AE_IFLNK, "sub/../.." } }, "down-up");
    expectRefused({ { "absolute", AE_IFLNK, outside } }, "absolute");
    // Hard links to anything but an earlier regular file.
    expectRefused({ { "alias", AE_IFREG, outside + "/canary", true } }, "alias");
    expectRefused({ { "alias", AE_IFREG, "file", true }, { "file", AE_IFREG, "x" } }, "alias");
    expectRefused({ { "dir", AE_IFDIR }, { "alias", AE_IFREG, "dir", true } }, "alias");
    expectRefused({ { "link", AE_IFLNK, "x" }, { "alias", AE_IFREG, "link", true } }, "alias");
    expectRefused(
        { { "f", AE_IFREG, "x" }, { "f", AE_IFDIR }, { "alias", AE_IFREG, "f", true } }, "alias");
    expectRefused({ { "f", AE_IFREG, "x" }, { "alias", AE_IFREG, "d/../f", true } }, "alias");
    expectRefused({ { "null", AE_IFCHR } }, "null");
    expectRefused({ { "disk", AE_IFBLK } }, "disk");
    expectRefused({ { "pipe", AE_IFIFO } }, "pipe");
}

TEST_F(Hostile, HardLinksToEarlierFilesStayHardLinks)
{
    writeArchive(archive,
        { { "d/f", AE_IFREG, "content" }, { "g", AE_IFREG, "d/f", true },
            { "d/h", AE_IFREG, "./d/f", true }, { "d/f", AE_IFREG, "d/f", true } });
    importProject(archive, destination, ArchiveFormat::Auto);
    for (const char* name : { "/d/f", "/g", "/d/h" }) {
        EXPECT_EQ(readFile(destination + name), "content") << name;
        EXPECT_EQ(std::filesystem::hard_link_count(destination + name), 3u) << name;
    }
}

TEST_F(Hostile, WritingThroughALinkInTheDestinationIsRefused)
{
    std::filesystem::create_directories(destination);
    std::filesystem::create_symlink("../../outside", destination + "/link");
    expectRefused({ { "link/pwned", AE_IFREG, "x" } }, "link/pwned");
    EXPECT_TRUE(std::filesystem::is_symlink(destination + "/link"));
}

TEST_F(Hostile, TruncatedArchivesFailAndOnlyACreatedDestinationIsRemoved)
{
    const std::string source = pathIn(sandbox, "source");
    makeSampleTree(source, 512 * 1024);
    for (const char* name : { "cut.tar.gz", "cut.zip", "cut.7z" }) {
        const std::string cut = pathIn(sandbox, name);
        exportProject(source, cut, ArchiveFormat::Auto);
        std::filesystem::resize_file(cut, std::filesystem::file_size(cut) / 2);
        EXPECT_PRED_FORMAT2(testing::IsSubstring, cut, importError(cut, destination));
        EXPECT_FALSE(std::filesystem::exists(pathIn(sandbox, "new"))) << name;

        writeFile(pathIn(sandbox, "kept/marker"), "mine");
        EXPECT_NE(importError(cut, pathIn(sandbox, "kept")), "nothing thrown") << name;
        EXPECT_EQ(readFile(pathIn(sandbox, "kept/marker")), "mine") << name;
    }
}

TEST_F(Hostile, DeclaredSizesBeyondTheFreeSpaceAreRefusedBeforeWriting)
{
    // A sparse entry declares a petabyte in a few bytes.
    writeArchive(archive,
        { { "small", AE_IFREG, "small" }, { "huge", AE_IFREG, "data", false, 1LL << 50 } });
    std::filesystem::create_directories(destination);
    const std::string error = importError(archive, destination);
    expectNames(error, archive, "huge");
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "10 MiB reserve", error);
    EXPECT_TRUE(std::filesystem::is_empty(destination));
}

// Little-endian fields of a zip header: value and width in bytes.
void append(QByteArray& out, std::initializer_list<std::pair<uint32_t, int>> fields)
{
    for (const auto& [value, bytes] : fields)
        for (int i = 0; i < bytes; ++i)
            out.append(static_cast<char>(value >> (8 * i) & 0xff));
}

// One deflated entry whose headers claim a single byte.
QByteArray lyingZip(const QByteArray& name, const QByteArray& data)
{
    // qCompress frames a zlib stream: a 4-byte length, 2 bytes of header, 4 of checksum.
    const QByteArray deflated = qCompress(data).mid(6).chopped(4);
    const auto packed = uint32_t(deflated.size()), nameSize = uint32_t(name.size());
    QByteArray zip;
    append(zip,
        { { 0x04034b50, 4 }, { 20, 2 }, { 0, 2 }, { 8, 2 }, { 0, 4 }, { 0, 4 }, { packed, 4 },
            { 1, 4 }, { nameSize, 2 }, { 0, 2 } });
    zip += name + deflated;
    const auto offset = uint32_t(zip.size());
    append(zip,
        { { 0x02014b50, 4 }, { 0x031e, 2 }, { 20, 2 }, { 0, 2 }, { 8, 2 }, { 0, 4 }, { 0, 4 },
            { packed, 4 }, { 1, 4 }, { nameSize, 2 }, { 0, 2 }, { 0, 2 }, { 0, 2 }, { 0, 2 },
            { 0100644u << 16, 4 }, { 0, 4 } });
    zip += name;
    append(zip,
        { { 0x06054b50, 4 }, { 0, 2 }, { 0, 2 }, { 1, 2 }, { 1, 2 },
            { uint32_t(zip.size()) - offset, 4 }, { offset, 4 }, { 0, 2 } });
    return zip;
}

TEST_F(Hostile, BytesWrittenBeyondTheFreeSpaceAbortTheImport)
{
    // A small volume of its own: the bound is its free space less the 10 MiB reserve.
    const std::string volume = pathIn(sandbox, "volume");
    std::filesystem::create_directories(volume);
    const zo::test::ScopedMount mount(volume, "size=16m");
    if (!mount.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";

    const std::string bomb = pathIn(sandbox, "bomb.zip");
    writeFile(bomb, lyingZip("bomb", QByteArray(12 * 1024 * 1024, '\0')));
    const std::string error = importError(bomb, volume + "/destination");
    expectNames(error, bomb, "bomb");
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "10 MiB reserve", error);
    EXPECT_TRUE(QDir(QString::fromStdString(volume)).isEmpty());
}

} // namespace
