#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <locale.h>
#include <memory>
#include <string>

namespace zo::project::detail {

struct ReadArchiveFree {
    void operator()(archive* handle) const { archive_read_free(handle); }
};
struct WriteArchiveFree {
    void operator()(archive* handle) const { archive_write_free(handle); }
};
struct EntryFree {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
struct LinkResolverFree {
    void operator()(archive_entry_linkresolver* resolver) const
    {
        archive_entry_linkresolver_free(resolver);
    }
};

using ReadArchive = std::unique_ptr<archive, ReadArchiveFree>;
using WriteArchive = std::unique_ptr<archive, WriteArchiveFree>;
using Entry = std::unique_ptr<archive_entry, EntryFree>;
using LinkResolver = std::unique_ptr<archive_entry_linkresolver, LinkResolverFree>;

// New handles; std::bad_alloc when libarchive cannot allocate them.
ReadArchive newReadArchive();
ReadArchive newReadDiskArchive();
WriteArchive newWriteArchive();
Entry newEntry();
// Gives the second and later names of a file as hard links to the first, as a tar keeps them.
LinkResolver newTarLinkResolver();

// libarchive's message for the last failure on handle.
std::string errorText(archive* handle);

// The entry's name for messages.
std::string entryName(archive_entry* entry);

// While alive, the calling thread converts multibyte strings as UTF-8, so that libarchive
// reads and writes UTF-8 names whatever the process locale is.
class Utf8Locale {
public:
    Utf8Locale();
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;
    ~Utf8Locale();

private:
    locale_t _utf8;
    locale_t _previous = nullptr;
};

} // namespace zo::project::detail
