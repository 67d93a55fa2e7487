#include "sample_tree.h"

#include <zo/project/project.h>

#include <archive.h>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>

namespace zo::project::test {

namespace fs = std::filesystem;

void makeSampleTree(const std::string& rootPath, size_t bigFileSize)
{
    const fs::path root(rootPath);
    makeProject(rootPath).setMetadata("title", "Sample ✓");
    writeFile((root / "docs/chapter 1/notes.txt").string(), "notes\n");
    writeFile((root / ".hidden").string(), "hidden\n");
    writeFile((root / ".config/settings.ini").string(), "[a]\nb=c\n", 0600);
    writeFile((root / "ünïcødé/日本語.txt").string(), "テキスト\n");
    writeFile((root / "zero").string(), "");
    writeFile((root / "run.sh").string(), "#!/bin/sh\n", 0755);
    fs::create_directories(root / "docs/empty");
    fs::create_directories(root / "locked");
    fs::permissions(root / "locked", static_cast<fs::perms>(0750));
    fs::create_symlink("docs/chapter 1/notes.txt", root / "notes-link");
    fs::create_symlink("../zero", root / "docs/zero-link");
    // Numbered 4 KiB runs of varying bytes: every block is distinct, yet each compressor shrinks
    // it quickly.
    QByteArray big;
    for (int number = 0; big.size() < static_cast<int>(bigFileSize); ++number)
        big += QByteArray::number(number).leftJustified(4096, static_cast<char>('a' + number % 26));
    if (bigFileSize > 0)
        writeFile((root / "data/big.bin").string(), big.left(static_cast<int>(bigFileSize)));
    // Old, distinct times; setting them changes no directory's own time.
    time_t seconds = 1500000000;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const timespec times[2] = { { seconds, 0 }, { seconds, 0 } };
        ASSERT_EQ(::utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
        seconds += 3601;
    }
}

QByteArray archiveOf(const std::vector<Item>& items, const std::function<void(archive*)>& configure)
{
    const std::unique_ptr<archive, int (*)(archive*)> writer(
        archive_write_new(), archive_write_free);
    configure ? configure(writer.get())
              : void(archive_write_set_format_pax_restricted(writer.get()));
    QByteArray out;
    const auto append = [](archive*, void* to, const void* data, size_t size) -> la_ssize_t {
        static_cast<QByteArray*>(to)->append(
            static_cast<const char*>(data), static_cast<int>(size));
        return static_cast<la_ssize_t>(size);
    };
    archive_write_set_bytes_in_last_block(writer.get(), 1);
    EXPECT_EQ(archive_write_open(writer.get(), &out, nullptr, append, nullptr), ARCHIVE_OK);
    for (const Item& item : items) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(
            archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), item.name.c_str());
        archive_entry_set_filetype(entry.get(), item.type);
        archive_entry_set_perm(entry.get(), 0644);
        if (item.hardLink)
            archive_entry_set_hardlink(entry.get(), item.content.c_str());
        else if (item.type == AE_IFLNK)
            archive_entry_set_symlink(entry.get(), item.content.c_str());
        else if (item.type == AE_IFREG)
            archive_entry_set_size(entry.get(), static_cast<int64_t>(item.content.size()));
        if (item.declaredSize >= 0) {
            archive_entry_set_size(entry.get(), item.declaredSize);
            archive_entry_sparse_add_entry(
                entry.get(), 0, static_cast<int64_t>(item.content.size()));
        }
        EXPECT_EQ(archive_write_header(writer.get(), entry.get()), ARCHIVE_OK) << item.name;
        if (item.type == AE_IFREG && !item.hardLink)
            archive_write_data(writer.get(), item.content.data(), item.content.size());
    }
    EXPECT_EQ(archive_write_close(writer.get()), ARCHIVE_OK);
    return out;
}

void writeArchive(const std::string& path, const std::vector<Item>& items, bool zip)
{
    writeFile(path,
        archiveOf(items,
            zip ? [](archive* a) { archive_write_set_format_zip(a); }
                : std::function<void(archive*)>()));
}

} // namespace zo::project::test
