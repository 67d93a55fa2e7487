// Archives as other programs write them, data that only looks like an archive, and archives
// made to harm: entries reaching outside the destination, devices, bombs, truncation.

#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QDir>

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace zo::project;
using namespace zo::project::test;

QByteArray randomBytes(int size)
{
    std::mt19937 generator(size);
    QByteArray bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
    return bytes;
}

QByteArray gzipped(const QByteArray& data, int layers)
{
    return archiveOf({ { "a", AE_IFREG, data.toStdString() } }, [&](archive* writer) {
        archive_write_set_format_raw(writer);
        for (int layer = 0; layer < layers; ++layer)
            archive_write_add_filter_gzip(writer);
    });
}

// A tar member in ustar form: header with name, mode, size, time and type, its checksum over
// all of it, then data padded to whole blocks.
QByteArray tarMember(const QByteArray& name, char type, const QByteArray& data)
{
    const auto octal = [](int value, int digits) {
        return QByteArray::number(value, 8).rightJustified(digits, '0') + '\0';
    };
    QByteArray header
        = (name.leftJustified(100, '\0') + octal(0644, 7) + QByteArray(16, '\0')
              + octal(data.size(), 11) + octal(1500000000, 11) + QByteArray(8, ' ') + type)
              .leftJustified(257, '\0')
        + QByteArray("ustar") + '\0' + "00";
    header = header.leftJustified(512, '\0');
    int sum = 0;
    for (const char byte : header)
        sum += static_cast<unsigned char>(byte);
    header.replace(148, 7, octal(sum, 6));
    return header + data + QByteArray((512 - data.size() % 512) % 512, '\0');
}

QByteArray paxRecord(const QByteArray& key, const QByteArray& value)
{
    const QByteArray body = " " + key + "=" + value + "\n";
    int length = body.size();
    while (QByteArray::number(length).size() + body.size() != length)
        ++length;
    return QByteArray::number(length) + body;
}

const QByteArray tarEnd(1024, '\0');

class RealWorld : public Scratch {
protected:
    const std::string imported = path("imported");
};

TEST_F(RealWorld, OneCompressionLayerIsReadAndNoMore)
{
    makeSampleTree(path("source"));
    exportProject(path("source"), path("p.tar"), ArchiveFormat::Tar);
    const QByteArray tar = readFile(path("p.tar"));
    writeFile(path("once.tgz"), gzipped(tar, 1));
    EXPECT_EQ(detectFormat(path("once.tgz")), ArchiveFormat::TarGz);
    for (const int layers : { 2, 30 }) {
        SCOPED_TRACE(layers);
        writeFile(path("layers.tgz"), gzipped(tar, layers));
        EXPECT_THROW(detectFormat(path("layers.tgz")), UnsupportedFormat);
        EXPECT_THROW(
            importProject(path("layers.tgz"), imported, ArchiveFormat::TarGz), ArchiveError);
        EXPECT_FALSE(std::filesystem::exists(imported));
    }
}

TEST_F(RealWorld, LeadingZeroBlocksAreAnEmptyTarOnlyWhenNothingElseFollows)
{
    writeFile(path("image.iso"), QByteArray(512, '\0') + randomBytes(8192));
    EXPECT_THROW(detectFormat(path("image.iso")), UnsupportedFormat);
    for (const ArchiveFormat format : { ArchiveFormat::Auto, ArchiveFormat::Tar })
        EXPECT_THROW(importProject(path("image.iso"), imported, format), ArchiveError);
    EXPECT_FALSE(std::filesystem::exists(imported));

    // What a tar program writes for no files at all.
    const QByteArray empty(10240, '\0');
    writeFile(path("empty.tar"), empty);
    writeFile(path("empty.tgz"), gzipped(empty, 1));
    EXPECT_EQ(detectFormat(path("empty.tar")), ArchiveFormat::Tar);
    EXPECT_EQ(detectFormat(path("empty.tgz")), ArchiveFormat::TarGz);
    importProject(path("empty.tgz"), imported, ArchiveFormat::Auto);
    EXPECT_TRUE(std::filesystem::is_empty(imported));
}

TEST_F(RealWorld, ZipsWithDataInFrontImportTheirFiles)
{
    const QByteArray stub = "#!/bin/sh\nexec unzip \"$0\"\n" + randomBytes(4000);
    const QByteArray data = "zip64 member";
    writeFile(path("sfx64.zip"),
        stub + archiveOf({ { "a", AE_IFREG, data.toStdString() } }, [](archive* writer) {
            archive_write_set_format_zip(writer);
            archive_write_set_format_option(writer, "zip", "zip64", "1");
        }));
    importProject(path("sfx64.zip"), imported, ArchiveFormat::Auto);
    EXPECT_EQ(readFile(imported + "/a"), data);

    makeSampleTree(path("source"));
    exportProject(path("source"), path("p.zip"), ArchiveFormat::Zip);
    writeFile(path("sfx.zip"), stub + readFile(path("p.zip")));
    importProject(path("sfx.zip"), path("sfx"), ArchiveFormat::Zip);
    EXPECT_EQ(describe(path("sfx"), Everything), describe(path("source"), Everything));
}

TEST_F(RealWorld, SparseFilesImportWithTheirHoles)
{
    // The pax record tells where data and hole lie within what is stored.
    const QByteArray content = QByteArray(512, 'a') + QByteArray(512, '\0') + QByteArray(512, 'b');
    writeFile(path("sparse.tar"),
        tarMember("PaxHeaders/hole", 'x', paxRecord("SUN.holesdata", " 0 512 1024 1536"))
            + tarMember("hole", '0', content) + tarEnd);
    importProject(path("sparse.tar"), imported, ArchiveFormat::Auto);
    EXPECT_EQ(readFile(imported + "/hole"), content);
}

TEST_F(RealWorld, WarningsAreLoggedAndReadingGoesOnWhateverTheLocale)
{
    const std::string locale = setlocale(LC_ALL, nullptr);
    setlocale(LC_ALL, "C");
    const std::string invalid = "abc\xfcxyz", valid = "caf\xc3\xa9";
    writeFile(path("warned.tar"),
        tarMember("PaxHeader/empty", 'x', "4 x=") + tarMember("empty", '0', "")
            + tarMember("PaxHeader/1", 'x', paxRecord("path", invalid.c_str()))
            + tarMember("fallback", '0', "invalid")
            + tarMember("PaxHeader/2", 'x', paxRecord("path", valid.c_str()))
            + tarMember("fallback", '0', "valid") + tarEnd);
    zo::test::LogCapture log;
    importProject(path("warned.tar"), imported, ArchiveFormat::Auto);
    setlocale(LC_ALL, locale.c_str());
    // Names as bytes: Qt would decode them.
    const auto content = [&](const std::string& name) {
        std::ifstream in(imported + "/" + name);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    EXPECT_EQ(content(invalid), "invalid");
    EXPECT_EQ(content(valid), "valid");
    std::filesystem::remove_all(imported);
    ASSERT_EQ(log.lines.size(), 2u);
    for (const auto& [category, level, message] : log.lines) {
        EXPECT_EQ(level, zo::log::Warning);
        EXPECT_PRED_FORMAT2(testing::IsSubstring, "'" + path("warned.tar") + "', entry '", message);
    }
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "entry 'empty'", std::get<2>(log.lines[0]));
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "entry '" + invalid + "'", std::get<2>(log.lines[1]));
}

TEST_F(RealWorld, DeepTreesImportWithTheModesAndTimesOfEveryLevel)
{
    constexpr int depth = 5000;
    std::vector<Item> levels;
    for (std::string name = "d"; name.size() < 2 * depth; name += "/d")
        levels.push_back({ name, AE_IFDIR });
    writeFile(path("deep.tgz"), archiveOf(levels, [](archive* writer) {
        archive_write_set_format_pax_restricted(writer);
        archive_write_add_filter_gzip(writer);
    }));
    // Names far beyond the longest path are more than most tools can remove; a tmpfs just goes.
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(imported)));
    const zo::test::ScopedMount volume(imported, "size=64m");
    if (!volume.mounted)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    importProject(path("deep.tgz"), imported + "/tree", ArchiveFormat::Auto);
    ASSERT_EQ(::chdir((imported + "/tree").c_str()), 0);
    int found = 0;
    struct stat status { };
    while (::lstat("d", &status) == 0 && (status.st_mode & 07777) == 0644 && status.st_mtime == 0
        && ::chdir("d") == 0)
        ++found;
    EXPECT_EQ(found, depth);
    ASSERT_EQ(::chdir("/"), 0);
}

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
}

// Into an existing directory: see the unpack into a user's directory.
// Cut in half, or with a byte changed in a file's data whose checksum then does not match.
TEST_F(Hostile, TruncatedOrDamagedArchivesFailAndACreatedDestinationIsRemoved)
{
    const std::string source = pathIn(sandbox, "source");
    makeSampleTree(source, 512 * 1024);
    for (const char* name : { "cut.tar.gz", "cut.zip", "cut.7z", "damaged.zip", "damaged.zop" }) {
        const std::string cut = pathIn(sandbox, name);
        exportProject(source, cut, ArchiveFormat::Auto);
        const auto size = std::filesystem::file_size(cut);
        if (cut.find("cut.") != std::string::npos) {
            std::filesystem::resize_file(cut, size / 2);
        } else {
            std::fstream damaged(cut, std::ios::in | std::ios::out | std::ios::binary);
            damaged.seekg(static_cast<std::streamoff>(size / 2));
            const char byte = static_cast<char>(damaged.peek() ^ 0x55);
            damaged.seekp(static_cast<std::streamoff>(size / 2)).put(byte);
        }
        EXPECT_PRED_FORMAT2(testing::IsSubstring, cut, importError(cut, destination));
        EXPECT_FALSE(std::filesystem::exists(pathIn(sandbox, "new"))) << name;
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
