#include "libarchive.h"

#include <new>

namespace zo::project::detail {
namespace {

template <typename Handle> Handle owned(typename Handle::pointer raw)
{
    if (raw == nullptr)
        throw std::bad_alloc();
    return Handle(raw);
}

} // namespace

ReadArchive newReadArchive()
{
    return owned<ReadArchive>(archive_read_new());
}

ReadArchive newReadDiskArchive()
{
    return owned<ReadArchive>(archive_read_disk_new());
}

WriteArchive newWriteArchive()
{
    return owned<WriteArchive>(archive_write_new());
}

Entry newEntry()
{
    return owned<Entry>(archive_entry_new());
}

LinkResolver newTarLinkResolver()
{
    LinkResolver resolver = owned<LinkResolver>(archive_entry_linkresolver_new());
    archive_entry_linkresolver_set_strategy(resolver.get(), ARCHIVE_FORMAT_TAR_PAX_RESTRICTED);
    return resolver;
}

std::string errorText(archive* handle)
{
    const char* text = archive_error_string(handle);
    return text != nullptr ? text : "unknown libarchive error";
}

std::string entryName(archive_entry* entry)
{
    const char* name = archive_entry_pathname(entry);
    return name != nullptr ? name : "";
}

Utf8Locale::Utf8Locale()
    : _utf8(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr))
{
    // Without a UTF-8 locale the names pass through as bytes, still correct for ASCII.
    if (_utf8 != nullptr)
        _previous = uselocale(_utf8);
}

Utf8Locale::~Utf8Locale()
{
    if (_utf8 == nullptr)
        return;
    uselocale(_previous);
    freelocale(_utf8);
}

} // namespace zo::project::detail
