#include "pack.h"

#include "entry_check.h"
#include "errors.h"
#include "formats.h"

#include <cstdlib>

namespace zo::project::detail {
namespace {

void writeEntry(archive* writer, EntryReader& reader, archive_entry* entry, ArchiveFormat format,
    const std::string& archive)
{
    // What we write must be what our own unpacking accepts, under the name it had.
    checkEntry(entry, archive);
    const std::string name = entryName(entry);
    const char* target = archive_entry_symlink(entry);
    const bool keptName = keepsName(format, name);
    if (!keptName || (target != nullptr && !keepsName(format, target)))
        failEntry(archive, name,
            "a " + formatName(format) + " archive cannot hold "
                + (keptName ? "the link target '" + std::string(target) + "'" : "this name")
                + " byte for byte (it is not UTF-8 in composed form, or holds a backslash); a "
                  "tar archive can");
    if (archive_write_header(writer, entry) != ARCHIVE_OK)
        failEntry(archive, name, errorText(writer));
    // A hard link has no data of its own.
    Block block;
    while (archive_entry_hardlink(entry) == nullptr && reader.read(block))
        if (archive_write_data(writer, block.data, block.size) < 0)
            failEntry(archive, name, errorText(writer));
    if (archive_write_finish_entry(writer) != ARCHIVE_OK)
        failEntry(archive, name, errorText(writer));
}

// libarchive's zip writer sets up and tears down a deflate stream for every entry: some 256 KiB in
// blocks below glibc's initial mmap threshold, so the heap grew and was trimmed again, with fresh
// pages to fault in, for every file (tens of thousands of brk calls for 10k files, a third of the
// time of an export). Freeing one block above that threshold raises it, and with it the trim
// threshold to twice the block (the dynamic threshold of mallopt(3)); the blocks of the next
// streams are then reused instead.
void keepFreedStreamsInTheHeap()
{
    constexpr size_t size = 1024 * 1024;
    void* block = std::malloc(size);
    if (block == nullptr)
        return;
    // A store the compiler must keep, or it could drop the allocation altogether.
    static_cast<volatile char*>(block)[size - 1] = 0;
    std::free(block);
}

} // namespace

void pack(EntryReader& reader, int fd, ArchiveFormat format, const std::string& archive)
{
    keepFreedStreamsInTheHeap();
    const WriteArchive writer = newWriteArchive();
    enableWriting(writer.get(), format, archive);
    if (archive_write_open_fd(writer.get(), fd) != ARCHIVE_OK)
        fail(archive, errorText(writer.get()));
    while (archive_entry* entry = reader.next())
        writeEntry(writer.get(), reader, entry, format, archive);
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        fail(archive, errorText(writer.get()));
}

} // namespace zo::project::detail
