#pragma once

#include <zo/project/zoproject_export.h>

#include <stdexcept>
#include <string>

namespace zo::project {

enum class ArchiveFormat : int {
    Auto = 0,      // detect from the path (see detectFormat)
    Native = 1,    // the project's own archive: a zip container, extension ".zop"
    Directory = 2, // a plain directory tree, copied as it is
    Tar = 3,
    TarGz = 4,
    TarBz2 = 5,
    TarXz = 6,
    Zip = 7, // plain zip; the fallback when a target's name tells no format
    TarZstd = 8,
    SevenZip = 9
};

struct ZOPROJECT_EXPORT UnsupportedFormat : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct ZOPROJECT_EXPORT ArchiveError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Unpacks source into the directory destination (created with parents). Hostile entries
// (absolute names, "..", links leaving the destination, hard links, devices) are refused.
ZOPROJECT_EXPORT void importProject(
    const std::string& source, const std::string& destination, ArchiveFormat format);

// Packs the directory source into the archive destination, replacing it atomically.
ZOPROJECT_EXPORT void exportProject(
    const std::string& source, const std::string& destination, ArchiveFormat format);

// Never returns Auto; throws UnsupportedFormat.
ZOPROJECT_EXPORT ArchiveFormat detectFormat(const std::string& path);

} // namespace zo::project
