// Archives as other programs write them, and data that only looks like an archive.

#include "sample_tree.h"

#include <gtest/gtest.h>

#include <QDir>

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
    for (char& byte : bytes)
        byte = static_cast<char>(generator());
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

// A tar member in ustar form: header with name, type and size, then data padded to whole blocks.
QByteArray tarMember(const QByteArray& name, char type, const QByteArray& data)
{
    QByteArray header(512, '\0');
    const auto put
        = [&](int at, const QByteArray& field) { header.replace(at, field.size(), field); };
    const auto octal = [](int value, int digits) {
        return QByteArray::number(value, 8).rightJustified(digits, '0');
    };
    put(0, name);
    put(100, octal(0644, 7));
    put(124, octal(data.size(), 11));
    put(136, octal(1500000000, 11));
    header[156] = type;
    put(257,
        QByteArray("ustar\0"
                   "00",
            8));
    put(148, QByteArray(8, ' '));
    int sum = 0;
    for (const char byte : header)
        sum += static_cast<unsigned char>(byte);
    put(148, octal(sum, 6) + '\0');
    const int padding = (512 - data.size() % 512) % 512;
    return header + data + QByteArray(padding, '\0');
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

class RealWorld : public testing::Test {
protected:
    std::string path(const char* name) const { return pathIn(dir, name); }

    QTemporaryDir dir;
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

} // namespace
