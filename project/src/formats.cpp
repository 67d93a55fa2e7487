#include "formats.h"

#include "errors.h"
#include "libarchive.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace zo::project::internal {
namespace {

// A container format or a compression filter, with its libarchive code and set-up calls.
struct Codec {
    int code;
    int (*read)(archive*);
    int (*write)(archive*);
};

constexpr Codec zip { ARCHIVE_FORMAT_ZIP, archive_read_support_format_zip,
    archive_write_set_format_zip };
// Restricted pax writes plain ustar headers unless a name or size needs an extension.
constexpr Codec tar { ARCHIVE_FORMAT_TAR, archive_read_support_format_tar,
    archive_write_set_format_pax_restricted };
constexpr Codec sevenZip { ARCHIVE_FORMAT_7ZIP, archive_read_support_format_7zip,
    archive_write_set_format_7zip };

constexpr Codec uncompressed { ARCHIVE_FILTER_NONE, nullptr, nullptr };
constexpr Codec gzip { ARCHIVE_FILTER_GZIP, archive_read_support_filter_gzip,
    archive_write_add_filter_gzip };
constexpr Codec bzip2 { ARCHIVE_FILTER_BZIP2, archive_read_support_filter_bzip2,
    archive_write_add_filter_bzip2 };
constexpr Codec xz { ARCHIVE_FILTER_XZ, archive_read_support_filter_xz,
    archive_write_add_filter_xz };
constexpr Codec zstd { ARCHIVE_FILTER_ZSTD, archive_read_support_filter_zstd,
    archive_write_add_filter_zstd };

constexpr const Codec* containers[] = { &zip, &tar, &sevenZip };
constexpr const Codec* filters[] = { &gzip, &bzip2, &xz, &zstd };

struct Traits {
    ArchiveFormat format;
    const Codec* container;
    const Codec* filter;
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

// Calls the container's and then the filter's set-up function for reading or for writing.
void setUp(
    archive* handle, ArchiveFormat format, const std::string& path, int (*Codec::*call)(archive*))
{
    const Traits& traits = traitsOf(format, path);
    check((traits.container->*call)(handle), handle, path);
    if (traits.filter->*call != nullptr)
        check((traits.filter->*call)(handle), handle, path);
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

[[noreturn]] void unsupported(const std::string& path, const std::string& reason)
{
    throw UnsupportedFormat("'" + path + "': " + reason);
}

} // namespace

ArchiveFormat formatFromName(const std::string& path)
{
    const std::string name = lowerCase(path);
    for (const Extension& extension : extensions) {
        if (endsWith(name, extension.suffix))
            return extension.format;
    }
    unsupported(path, "the name tells no archive format");
}

ArchiveFormat formatFromContent(const std::string& path)
{
    const ReadArchive reader = newReadArchive();
    // A codec that cannot be enabled leaves its archives unrecognised, which is the answer.
    for (const Codec* codec : containers)
        codec->read(reader.get());
    for (const Codec* codec : filters)
        codec->read(reader.get());
    archive_entry* entry = nullptr;
    if (archive_read_open_filename(reader.get(), path.c_str(), 64 * 1024) != ARCHIVE_OK
        || archive_read_next_header(reader.get(), &entry) < ARCHIVE_WARN)
        unsupported(path, errorText(reader.get()));

    const int container = archive_format(reader.get()) & ARCHIVE_FORMAT_BASE_MASK;
    const int filter = archive_filter_code(reader.get(), 0);
    // One filter over the file itself; anything compressed twice is not ours.
    const int expectedFilters = filter == ARCHIVE_FILTER_NONE ? 1 : 2;
    const auto found
        = std::find_if(std::begin(formats), std::end(formats), [&](const Traits& traits) {
              return traits.container->code == container && traits.filter->code == filter;
          });
    if (found == std::end(formats) || archive_filter_count(reader.get()) != expectedFilters)
        unsupported(path, "not an archive of a supported format");
    if (found->format == ArchiveFormat::Zip && endsWith(lowerCase(path), ".zop"))
        return ArchiveFormat::Native;
    return found->format;
}

void enableReading(archive* reader, ArchiveFormat format, const std::string& path)
{
    setUp(reader, format, path, &Codec::read);
}

void enableWriting(archive* writer, ArchiveFormat format, const std::string& path)
{
    setUp(writer, format, path, &Codec::write);
}

} // namespace zo::project::internal
