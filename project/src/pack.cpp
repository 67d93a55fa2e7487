#include "pack.h"

#include "entry_check.h"
#include "errors.h"
#include "formats.h"

namespace zo::project::internal {
namespace {

void writeEntry(
    archive* writer, EntryReader& reader, archive_entry* entry, const std::string& archive)
{
    // What we write must be what our own unpacking accepts.
    checkEntry(entry, archive);
    if (archive_write_header(writer, entry) != ARCHIVE_OK)
        failEntry(archive, entryName(entry), errorText(writer));
    Block block;
    while (reader.read(block)) {
        if (archive_write_data(writer, block.data, block.size) < 0)
            failEntry(archive, entryName(entry), errorText(writer));
    }
    if (archive_write_finish_entry(writer) != ARCHIVE_OK)
        failEntry(archive, entryName(entry), errorText(writer));
}

} // namespace

void pack(EntryReader& reader, int fd, ArchiveFormat format, const std::string& archive)
{
    const WriteArchive writer = newWriteArchive();
    enableWriting(writer.get(), format, archive);
    if (archive_write_open_fd(writer.get(), fd) != ARCHIVE_OK)
        fail(archive, errorText(writer.get()));
    while (archive_entry* entry = reader.next())
        writeEntry(writer.get(), reader, entry, archive);
    if (archive_write_close(writer.get()) != ARCHIVE_OK)
        fail(archive, errorText(writer.get()));
}

} // namespace zo::project::internal
