#include "formats.h"

#include "errors.h"
#include "libarchive.h"
#include "zip_start.h"

#include <zo/file.h>
#include <zo/os.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>

namespace zo::project::detail {
namespace {

// An archive format proper, with its libarchive code and set-up calls, and what its names and
// links can hold.
struct Container {
    int code;
    int (*read)(archive*);
    int (*write)(archive*);
    // Names are Unicode, which libarchive's reader turns into the composed form (NFC).
    bool unicodeNames;
    // The reader takes a backslash in a name for a slash.
    bool backslashSeparates;
    bool hardLinks;
};

// The seekable zip reader finds the entries through the central directory at the end, which
// also holds for zips with data in front (self-extracting archives) and for zip64.
constexpr Container zip { ARCHIVE_FORMAT_ZIP, archive_read_support_format_zip_seekable,
    archive_write_set_format_zip, true, true, false };
// Restricted pax writes plain ustar headers unless a name or size needs an extension; names
// are stored as the bytes they are (see enableWriting).
constexpr Container tar { ARCHIVE_FORMAT_TAR, archive_read_support_format_tar,
    archive_write_set_format_pax_restricted, false, false, true };
constexpr Container sevenZip { ARCHIVE_FORMAT_7ZIP, archive_read_support_format_7zip,
    archive_write_set_format_7zip, true, false, false };

// A compression filter: its libarchive code, the bytes its streams start with and its writer.
struct Filter {
    int code;
    std::string_view magic;
    int (*write)(archive*);
};

constexpr Filter uncompressed { ARCHIVE_FILTER_NONE, {}, nullptr };
constexpr Filter gzip { ARCHIVE_FILTER_GZIP, "\x1f\x8b", archive_write_add_filter_gzip };
constexpr Filter bzip2 { ARCHIVE_FILTER_BZIP2, "BZh", archive_write_add_filter_bzip2 };
constexpr Filter xz { ARCHIVE_FILTER_XZ,
    { "\xfd"
      "7zXZ\0",
        6 },
    archive_write_add_filter_xz };
constexpr Filter zstd { ARCHIVE_FILTER_ZSTD, "\x28\xb5\x2f\xfd", archive_write_add_filter_zstd };

// A format: the names people use for it, its container and its compression filter. An
// archive's name ends in one of its format's names after a dot; the first name is the format's
// own, a second one an alias. A directory has neither container nor filter.
struct Traits {
    ArchiveFormat format;
    std::array<std::string_view, 2> names;
    const Container* container;
    const Filter* filter;
};

// In the order the command line lists the names.
constexpr Traits formats[] = {
    { ArchiveFormat::Native, { "zop" }, &zip, &uncompressed },
    { ArchiveFormat::Directory, { "dir" }, nullptr, nullptr },
    { ArchiveFormat::Tar, { "tar" }, &tar, &uncompressed },
    { ArchiveFormat::TarGz, { "tar.gz", "tgz" }, &tar, &gzip },
    { ArchiveFormat::TarBz2, { "tar.bz2", "tbz2" }, &tar, &bzip2 },
    { ArchiveFormat::TarXz, { "tar.xz", "txz" }, &tar, &xz },
    { ArchiveFormat::TarZstd, { "tar.zst", "tzst" }, &tar, &zstd },
    { ArchiveFormat::Zip, { "zip" }, &zip, &uncompressed },
    { ArchiveFormat::SevenZip, { "7z" }, &sevenZip, &uncompressed },
};

const Traits* lookUp(ArchiveFormat format)
{
    const auto found = std::find_if(std::begin(formats), std::end(formats),
        [format](const Traits& traits) { return traits.format == format; });
    return found == std::end(formats) ? nullptr : found;
}

const Traits& traitsOf(ArchiveFormat format, const std::string& path)
{
    const Traits* found = lookUp(format);
    if (found == nullptr || found->container == nullptr)
        throw UnsupportedFormat("'" + path + "': format " + std::to_string(static_cast<int>(format))
            + " is not an archive format");
    return *found;
}

void check(int status, archive* handle, const std::string& path)
{
    // ARCHIVE_WARN here means an external program stands in for a missing library.
    if (status < ARCHIVE_WARN)
        fail(path, errorText(handle));
}

// The bytes a file starts with, as many as the longest magic number.
std::string leadingBytes(const std::string& path)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        zo::os::fopen(path.c_str(), "rb"), std::fclose);
    if (!file)
        fail(path, systemError());
    std::string bytes(8, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file.get()));
    return bytes;
}

const Filter& filterOf(const std::string& path)
{
    const std::string bytes = leadingBytes(path);
    for (const Traits& traits : formats)
        if (traits.filter != nullptr && !traits.filter->magic.empty()
            && bytes.compare(0, traits.filter->magic.size(), traits.filter->magic) == 0)
            return *traits.filter;
    return uncompressed;
}

// Opens path, from start on, through exactly one filter or none: libarchive's own filter
// bidding would peel layer after layer, without end for a file that decompresses to itself.
ReadArchive openThrough(const Filter& filter, const std::string& path,
    const std::function<void(archive*)>& enableFormats, uint64_t start = 0)
{
    ReadArchive reader = newReadArchive();
    enableFormats(reader.get());
    if (filter.code != ARCHIVE_FILTER_NONE)
        check(archive_read_append_filter(reader.get(), filter.code), reader.get(), path);
    const int status = start == 0
        ? archive_read_open_filename(reader.get(), path.c_str(), 64 * 1024)
        : openFrom(reader.get(), path, start);
    if (status != ARCHIVE_OK)
        fail(path, errorText(reader.get()));
    return reader;
}

// A tar reader takes any zero block for the end of an archive; a tar program writing no entry
// writes nothing but zero blocks, at least the two that end an archive.
bool holdsOnlyTarEnd(const std::string& path, const Filter& filter)
{
    const ReadArchive reader = openThrough(filter, path, archive_read_support_format_raw);
    archive_entry* entry = nullptr;
    if (archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK)
        return false;
    la_int64_t size = 0;
    const void* data = nullptr;
    size_t length = 0;
    la_int64_t offset = 0;
    while (archive_read_data_block(reader.get(), &data, &length, &offset) == ARCHIVE_OK) {
        const char* bytes = static_cast<const char*>(data);
        if (std::any_of(bytes, bytes + length, [](char byte) { return byte != 0; }))
            return false;
        size = offset + static_cast<la_int64_t>(length);
    }
    return size >= 2 * 512;
}

ArchiveFormat formatOf(const std::string& path)
{
    if (isEmptyZip(path))
        return ArchiveFormat::Zip;
    const Filter& filter = filterOf(path);
    // A container that cannot be enabled leaves its archives unrecognised, which is the answer.
    const ReadArchive reader = openThrough(filter, path, [](archive* handle) {
        for (const Traits& traits : formats)
            if (traits.container != nullptr)
                traits.container->read(handle);
    });
    archive_entry* entry = nullptr;
    const int status = archive_read_next_header(reader.get(), &entry);
    if (status < ARCHIVE_WARN)
        fail(path, errorText(reader.get()));
    const int container = archive_format(reader.get()) & ARCHIVE_FORMAT_BASE_MASK;
    // Content tells a zip, never a native project: only its name does (a directory has no filter).
    const auto found
        = std::find_if(std::begin(formats), std::end(formats), [&](const Traits& traits) {
              return traits.format != ArchiveFormat::Native && traits.filter == &filter
                  && traits.container->code == container;
          });
    if (found == std::end(formats) || (status == ARCHIVE_EOF && !isSoundEmpty(path, found->format)))
        fail(path, "not an archive of a supported format");
    return found->format;
}

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size()
        && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
        [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The first format with a name that matches, a format's own name tried before its alias.
std::optional<ArchiveFormat> formatWithName(
    const std::function<bool(const Traits&, std::string_view)>& matches)
{
    for (const Traits& traits : formats)
        for (const std::string_view name : traits.names)
            if (!name.empty() && matches(traits, name))
                return traits.format;
    return std::nullopt;
}

// What a zip's reader makes of name: written into a zip in memory and read back.
std::optional<std::string> readBackFromZip(const std::string& name)
{
    std::string buffer(name.size() * 2 + 1024, '\0');
    size_t used = 0;
    const WriteArchive writer = newWriteArchive();
    const Entry entry = newEntry();
    archive_entry_copy_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    if (archive_write_set_format_zip(writer.get()) != ARCHIVE_OK
        || archive_write_open_memory(writer.get(), buffer.data(), buffer.size(), &used)
            != ARCHIVE_OK
        || archive_write_header(writer.get(), entry.get()) < ARCHIVE_WARN
        || archive_write_close(writer.get()) != ARCHIVE_OK)
        return std::nullopt;
    const ReadArchive reader = newReadArchive();
    archive_entry* read = nullptr;
    if (archive_read_support_format_zip_seekable(reader.get()) != ARCHIVE_OK
        || archive_read_open_memory(reader.get(), buffer.data(), used) != ARCHIVE_OK
        || archive_read_next_header(reader.get(), &read) < ARCHIVE_WARN)
        return std::nullopt;
    return entryName(read);
}

} // namespace

std::optional<ArchiveFormat> formatOfExtension(const std::string& path)
{
    const std::string lower = lowerCase(path);
    return formatWithName([&lower](const Traits& traits, std::string_view name) {
        return traits.container != nullptr && endsWith(lower, "." + std::string(name));
    });
}

bool keepsName(ArchiveFormat format, const std::string& name)
{
    const Container& container = *traitsOf(format, name).container;
    if (container.backslashSeparates && name.find('\\') != std::string::npos)
        return false;
    const bool ascii = std::all_of(
        name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!container.unicodeNames || ascii)
        return true;
    // A zip's reader decodes and composes names as a 7z's does; only a backslash tells them
    // apart, and it takes no part in either.
    std::string probe = name;
    if (!container.backslashSeparates)
        std::replace(probe.begin(), probe.end(), '\\', '_');
    return readBackFromZip(probe) == probe;
}

bool keepsHardLinks(ArchiveFormat format)
{
    const Traits* traits = lookUp(format);
    return traits != nullptr && (traits->container == nullptr || traits->container->hardLinks);
}

void requireKnown(ArchiveFormat format)
{
    if (format != ArchiveFormat::Auto && lookUp(format) == nullptr)
        throw UnsupportedFormat(
            "unknown archive format " + std::to_string(static_cast<int>(format)));
}

ArchiveFormat sourceFormat(const std::string& source, ArchiveFormat format)
{
    requireKnown(format);
    if (format != ArchiveFormat::Auto)
        return format;
    const std::optional<os::FileStatus> status = os::status(source.c_str());
    if (status && status->type == os::EntryType::Directory)
        return ArchiveFormat::Directory;
    try {
        return formatFromContent(source);
    } catch (const UnsupportedFormat& error) {
        // Content that cannot be read as an archive is a broken archive, not a format choice.
        throw ArchiveError(error.what());
    }
}

ArchiveFormat formatFromName(const std::string& path)
{
    if (const auto format = formatOfExtension(path))
        return *format;
    throw UnsupportedFormat("'" + path + "': the name tells no archive format");
}

ArchiveFormat formatFromContent(const std::string& path)
{
    try {
        const ArchiveFormat format = formatOf(path);
        const bool native
            = format == ArchiveFormat::Zip && formatOfExtension(path) == ArchiveFormat::Native;
        return native ? ArchiveFormat::Native : format;
    } catch (const ArchiveError& error) {
        throw UnsupportedFormat(error.what());
    }
}

bool isSoundEmpty(const std::string& path, ArchiveFormat format)
{
    const Traits& traits = traitsOf(format, path);
    return traits.container != &tar || holdsOnlyTarEnd(path, *traits.filter);
}

ReadArchive openArchive(const std::string& path, ArchiveFormat format)
{
    const Traits& traits = traitsOf(format, path);
    if (traits.container == &zip && isEmptyZip(path)) {
        // Read as what it is, an archive without entries.
        ReadArchive reader = newReadArchive();
        static const char nothing = 0;
        if (archive_read_support_format_empty(reader.get()) != ARCHIVE_OK
            || archive_read_open_memory(reader.get(), &nothing, 0) != ARCHIVE_OK)
            fail(path, errorText(reader.get()));
        return reader;
    }
    return openThrough(
        *traits.filter, path,
        [&](archive* handle) { check(traits.container->read(handle), handle, path); },
        traits.container == &zip ? zipStart(path) : 0);
}

void enableWriting(archive* writer, ArchiveFormat format, const std::string& path)
{
    const Traits& traits = traitsOf(format, path);
    check(traits.container->write(writer), writer, path);
    if (traits.container == &tar)
        check(archive_write_set_format_option(writer, "pax", "hdrcharset", "BINARY"), writer, path);
    if (traits.filter->write != nullptr)
        check(traits.filter->write(writer), writer, path);
}

} // namespace zo::project::detail

namespace zo::project {

std::string formatName(ArchiveFormat format)
{
    const detail::Traits* found = detail::lookUp(format);
    return found == nullptr ? std::string() : std::string(found->names.front());
}

std::optional<ArchiveFormat> formatNamed(const std::string& name)
{
    return detail::formatWithName(
        [&name](const detail::Traits&, std::string_view known) { return known == name; });
}

std::vector<std::string> formatNames()
{
    std::vector<std::string> names;
    for (const detail::Traits& traits : detail::formats)
        for (const std::string_view name : traits.names)
            if (!name.empty())
                names.emplace_back(name);
    return names;
}

} // namespace zo::project
