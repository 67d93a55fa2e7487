#pragma once

#include <zo/project/zoproject_export.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zo::project {

enum class ArchiveFormat : int {
    Auto = 0, // detect from the path (see detectFormat)
    Native = 1, // the project's own archive: a zip container, extension ".zop"
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

// How far an import or an export has come.
struct Progress {
    uint64_t entriesDone = 0;
    // 0 while unknown: an archive's entries are counted as they are read, so an import from an
    // archive learns the total only at its last report.
    uint64_t entriesTotal = 0;
    // An import counts the bytes of the archive as stored, an export and a directory import
    // those of the files read.
    uint64_t bytesDone = 0;
    uint64_t bytesTotal = 0;
};

// Called after every entry and every block of data; returning false cancels the work. The last
// report of a finished run has every count at its total.
using ProgressCallback = std::function<bool(const Progress&)>;

// importProject reporting to progress. Returns false when progress cancelled the import, which
// then has removed what it created.
ZOPROJECT_EXPORT bool importProject(const std::string& source, const std::string& destination,
    ArchiveFormat format, const ProgressCallback& progress);

// exportProject reporting to progress; the totals are counted in the source first. Returns false
// when progress cancelled the export, which then has left no archive (one that was there
// before stays as it was).
ZOPROJECT_EXPORT bool exportProject(const std::string& source, const std::string& destination,
    ArchiveFormat format, const ProgressCallback& progress);

// Never returns Auto; throws UnsupportedFormat.
ZOPROJECT_EXPORT ArchiveFormat detectFormat(const std::string& path);

/// The name of a format on a command line and in listings ("zop", "dir", "tar.gz", ...); empty
/// for Auto and for a value outside the enumeration.
ZOPROJECT_EXPORT std::string formatName(ArchiveFormat format);

/// The format that a name of formatNames() stands for, spelled exactly as listed there;
/// nothing for any other name.
ZOPROJECT_EXPORT std::optional<ArchiveFormat> formatNamed(const std::string& name);

/// Every name of every format, each format's own name (formatName) first and its alias, if
/// any, after it: "zop", "dir", "tar", "tar.gz", "tgz", ... The name of an archive file ends in
/// one of its format's names after a dot.
ZOPROJECT_EXPORT std::vector<std::string> formatNames();

} // namespace zo::project
