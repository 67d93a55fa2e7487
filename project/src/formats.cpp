#include "formats.h"

#include "errors.h"
#include "libarchive.h"
#include "zip_start.h"

#include <zo/os.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <string_view>

namespace zo::project::detail {
namespace {

// An archive format proper, with its libarchive code and set-up calls.
struct Container {
    int code;
    int (*read)(archive*);
    int (*write)(archive*);
};

// The seekable zip reader finds the entries through the central directory at the end, which
// also holds for zips with data in front (self-extracting archives) and for zip64.
constexpr Container zip { ARCHIVE_FORMAT_ZIP, archive_read_support_format_zip_seekable,
    archive_write_set_format_zip };
// Restricted pax writes plain ustar headers unless a name or size needs an extension.
constexpr Container tar { ARCHIVE_FORMAT_TAR, archive_read_support_format_tar,
    archive_write_set_format_pax_restricted };
constexpr Container sevenZip { ARCHIVE_FORMAT_7ZIP, archive_read_support_format_7zip,
    archive_write_set_format_7zip };

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

constexpr const Container* containers[] = { &zip, &tar, &sevenZip };
constexpr const Filter* filters[] = { &gzip, &bzip2, &xz, &zstd };

struct Traits {
    ArchiveFormat format;
    const Container* container;
    const Filter* filter;
};

// Zip precedes Native: content alone tells a plain zip.
constexpr Traits formats[] = {
    { ArchiveFormat::Zip, &zip, &uncompressed },
    { ArchiveFormat::Native, &zip, &uncompressed },
    { ArchiveFormat::Tar, &tar, &uncompressed },
    { ArchiveFormat::TarGz, &tar, &gzip },
    { ArchiveFormat::TarBz2, &tar, &bzip2 },
    { ArchiveFormat::TarXz, &tar, &xz },
    { ArchiveFormat::TarZstd, &tar, &zstd },
    { ArchiveFormat::SevenZip, &sevenZip, &uncompressed },
};

struct Extension {
    const char* suffix;
    ArchiveFormat format;
};

constexpr Extension extensions[] = {
    { ".zop", ArchiveFormat::Native },
    { ".zip", ArchiveFormat::Zip },
    { ".tar", ArchiveFormat::Tar },
    { ".tar.gz", ArchiveFormat::TarGz },
    { ".tgz", ArchiveFormat::TarGz },
    { ".tar.bz2", ArchiveFormat::TarBz2 },
    { ".tbz2", ArchiveFormat::TarBz2 },
    { ".tar.xz", ArchiveFormat::TarXz },
    { ".txz", ArchiveFormat::TarXz },
    { ".tar.zst", ArchiveFormat::TarZstd },
    { ".tzst", ArchiveFormat::TarZstd },
    { ".7z", ArchiveFormat::SevenZip },
};

const Traits& traitsOf(ArchiveFormat format, const std::string& path)
{
    const auto found = std::find_if(std::begin(formats), std::end(formats),
        [format](const Traits& traits) { return traits.format == format; });
    if (found == std::end(formats))
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
    for (const Filter* filter : filters)
        if (bytes.compare(0, filter->magic.size(), filter->magic) == 0)
            return *filter;
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
    const Filter& filter = filterOf(path);
    // A container that cannot be enabled leaves its archives unrecognised, which is the answer.
    const ReadArchive reader = openThrough(filter, path, [](archive* handle) {
        for (const Container* container : containers)
            container->read(handle);
    });
    archive_entry* entry = nullptr;
    const int status = archive_read_next_header(reader.get(), &entry);
    if (status < ARCHIVE_WARN)
        fail(path, errorText(reader.get()));
    const int container = archive_format(reader.get()) & ARCHIVE_FORMAT_BASE_MASK;
    const auto found
        = std::find_if(std::begin(formats), std::end(formats), [&](const Traits& traits) {
              return traits.container->code == container && traits.filter == &filter;
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

} // namespace

ArchiveFormat formatFromName(const std::string& path)
{
    const std::string name = lowerCase(path);
    for (const Extension& extension : extensions)
        if (endsWith(name, extension.suffix))
            return extension.format;
    throw UnsupportedFormat("'" + path + "': the name tells no archive format");
}

ArchiveFormat formatFromContent(const std::string& path)
{
    try {
        const ArchiveFormat format = formatOf(path);
        if (format == ArchiveFormat::Zip && endsWith(lowerCase(path), ".zop"))
            return ArchiveFormat::Native;
        return format;
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
    return openThrough(
        *traits.filter, path,
        [&](archive* handle) { check(traits.container->read(handle), handle, path); },
        traits.container == &zip ? zipStart(path) : 0);
}

void enableWriting(archive* writer, ArchiveFormat format, const std::string& path)
{
    const Traits& traits = traitsOf(format, path);
    check(traits.container->write(writer), writer, path);
    if (traits.filter->write != nullptr)
        check(traits.filter->write(writer), writer, path);
}

} // namespace zo::project::detail
