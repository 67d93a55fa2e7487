#pragma once

#include <zo/project/zoproject_export.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zo::project {

/// The forms a project can be stored in. The values are stable: programs store them.
enum class ArchiveFormat : int {
    Auto = 0, ///< detect from the path (see detectFormat)
    Native = 1, ///< the project's own archive: a zip container, extension ".zop"
    Directory = 2, ///< a plain directory tree, copied as it is
    Tar = 3, ///< tar, uncompressed (".tar")
    TarGz = 4, ///< tar compressed with gzip (".tar.gz", ".tgz")
    TarBz2 = 5, ///< tar compressed with bzip2 (".tar.bz2", ".tbz2")
    TarXz = 6, ///< tar compressed with xz (".tar.xz", ".txz")
    Zip = 7, ///< plain zip; the fallback when a target's name tells no format
    TarZstd = 8, ///< tar compressed with Zstandard (".tar.zst", ".tzst")
    SevenZip = 9 ///< 7z (".7z")
};

/// A format that is not an ArchiveFormat value, or a path whose format cannot be told.
struct ZOPROJECT_EXPORT UnsupportedFormat : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A failed import or export. The message names the archive, the entry where there is one, and
/// the cause.
struct ZOPROJECT_EXPORT ArchiveError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Unpacks the archive (or copies the directory) source into the directory destination, all or
/// nothing. Hostile entries (absolute names, "..", links leading out of destination, hard links
/// to anything but an earlier file of the archive, devices, fifos) are refused with an
/// ArchiveError naming the archive and the entry; hard links become hard links between the
/// files this import makes; an entry replaces an existing file of the same name.
///
/// The archive is first unpacked whole into a hidden directory beside destination, on its file
/// system (".<name>.zo-unpack-<pid>.XXXXXX"). Until it is complete and checked, nothing under
/// destination's name changes. Then, in one step:
/// - a destination that does not exist (missing parents included) is that directory renamed;
/// - an existing empty directory is replaced by it;
/// - an existing directory with entries is swapped with it (RENAME_EXCHANGE), after everything
///   destination holds that the archive does not replace was added to it: files, links and
///   other entries as hard links to the very same files (never copies), directories made anew
///   with their mode, times and owner. The new tree is flushed and renamed to a hidden name of
///   purpose "replaced" before the swap (zo::os::swapIntoPlace). The previous tree, now under
///   that name, is removed; unless another program added or changed something in it meanwhile,
///   when it stays and a warning tells where.
///
/// So a failure, a cancel or a kill at any point leaves destination as it was (every file byte
/// for byte, nothing added) or complete, and at most one hidden directory beside it whose name
/// tells its purpose and process (zo::os::parseHiddenName), with that process's owner mark:
/// "unpack", the unfinished new tree; or "replaced", the new tree or the previous one. Each
/// import and export first removes what ended ones left beside its source and destination
/// (zo::os::removeEndedLeftovers), never a "replaced" tree. A system crash may also lose what a new
/// destination received, never what an existing one held. Refused before any change: a destination
/// that is not a directory, a mount point (unpack into a directory inside it), a destination
/// holding a mount point, a directory the archive would replace by a file or link, and an existing
/// directory on a file system without hard links or directory swaps. An existing destination's
/// directories become new ones: extended attributes and ACLs of directories are not kept, and
/// the cost grows with what destination holds, not only with the archive.
/// @throws UnsupportedFormat when format is no ArchiveFormat value.
/// @throws ArchiveError when source cannot be read or holds a refused entry, or destination
/// cannot be written or is refused; destination is then as it was.
ZOPROJECT_EXPORT void importProject(
    const std::string& source, const std::string& destination, ArchiveFormat format);

/// Packs the directory source into the archive destination (or copies it to the directory
/// destination, which must not exist or be empty), replacing it whole or not at all: the
/// archive is written under a hidden name beside it (".<name>.zo-pack-<pid>.XXXXXX"), flushed
/// and renamed over it with destination's permissions (zo/replace.h). Symbolic links are stored
/// as links; a tar or a directory keeps hard links as links, a zip or a 7z stores each name of a
/// file as a copy. Every name and link target comes back byte for byte from our own unpacking,
/// or the export refuses: a zip or zop holds only UTF-8 names in composed form (NFC) without a
/// backslash, a 7z UTF-8 in composed form; a tar and a directory hold any name. A refusal
/// throws ArchiveError naming the archive and the entry and leaves no archive (one that was at
/// destination stays as it was); so does any other failure. Owner marks (zo/owner.h) in source
/// are left out: they tell of processes, not of the project.
/// @throws UnsupportedFormat when format is no ArchiveFormat value, or Auto meets a name that
/// tells no format.
/// @throws ArchiveError when source cannot be read, a name is refused or the archive cannot be
/// written.
ZOPROJECT_EXPORT void exportProject(
    const std::string& source, const std::string& destination, ArchiveFormat format);

/// How far an import or an export has come.
struct Progress {
    /// Entries read or written so far.
    uint64_t entriesDone = 0;
    /// 0 while unknown: an archive's entries are counted as they are read, so an import from an
    /// archive learns the total only at its last report.
    uint64_t entriesTotal = 0;
    /// An import counts the bytes of the archive as stored, an export and a directory import
    /// those of the files read.
    uint64_t bytesDone = 0;
    /// The bytes there are to count in all, in the same unit as bytesDone.
    uint64_t bytesTotal = 0;
};

/// Called after every entry and every block of data; returning false cancels the work. The last
/// report of a finished run has every count at its total.
using ProgressCallback = std::function<bool(const Progress&)>;

/// importProject reporting to progress.
/// @return false when progress cancelled the import, which then has left destination as it was
/// and removed its hidden directory.
/// @throws UnsupportedFormat, ArchiveError as importProject.
ZOPROJECT_EXPORT bool importProject(const std::string& source, const std::string& destination,
    ArchiveFormat format, const ProgressCallback& progress);

/// exportProject reporting to progress; the totals are counted in the source first.
/// @return false when progress cancelled the export, which then has left no archive (one that
/// was there before stays as it was).
/// @throws UnsupportedFormat, ArchiveError as exportProject.
ZOPROJECT_EXPORT bool exportProject(const std::string& source, const std::string& destination,
    ArchiveFormat format, const ProgressCallback& progress);

/// What an import does where an existing destination already holds a file, a symbolic link or
/// another entry that is no directory at the path of an entry of the archive.
enum class ExistingFiles {
    Replace, ///< the entry replaces it
    Keep, ///< it stays as it was and the entry is skipped
    Refuse ///< the import throws ArchiveConflict, and nothing changes
};

/// An import refused because the destination already holds a file at the path of an entry
/// (ExistingFiles::Refuse). The message names the archive and the entry; the destination is as
/// it was.
struct ZOPROJECT_EXPORT ArchiveConflict : ArchiveError {
    using ArchiveError::ArchiveError;
};

/// How an import treats what its destination already holds.
struct ImportOptions {
    /// The overloads without options replace.
    ExistingFiles existingFiles = ExistingFiles::Refuse;
};

/// What an import did with the files its destination held at the paths of entries, each named
/// by its path below the destination.
struct ImportReport {
    std::vector<std::string> kept; ///< left as they were (ExistingFiles::Keep)
    std::vector<std::string> replaced; ///< replaced by entries (ExistingFiles::Replace)
    /// Empty, or where the destination's previous tree stays because another program put or
    /// changed files in it while it was unpacked: a hidden directory beside the destination,
    /// which the destination's new tree does not hold those files of.
    std::string previousTree;
};

/// importProject with options, reporting to progress (which may be empty). The conflicts that
/// options.existingFiles refuses are found while the archive is unpacked into the hidden
/// directory, before the destination changes; a skipped entry is not written at all.
/// @return what happened to the destination's files; nothing when progress cancelled the
/// import, which then has left destination as it was and removed its hidden directory.
/// @throws ArchiveConflict for a refused conflict; UnsupportedFormat, ArchiveError as
/// importProject, and also when the archive holds a hard link to a file that Keep skipped.
ZOPROJECT_EXPORT std::optional<ImportReport> importProject(const std::string& source,
    const std::string& destination, ArchiveFormat format, const ImportOptions& options,
    const ProgressCallback& progress);

/// Which files of the source directory an export leaves out, with all they contain.
struct ExportOptions {
    /// Leaves out what editing leaves beside a project's files: swap files (".<name>.<pid>.csp"
    /// and the copies being made of them, ".<name>.<pid>.csp.XXXXXX"), the backups of commits
    /// whose source is in place ("<name>bck" beside "<name>"; a backup without its source holds
    /// the only copy and is packed), owner marks and the other hidden files of the libraries
    /// (".zo-owner-<pid>.<unique>", ".<name>.zo-<purpose>-<pid>.XXXXXX") while their process
    /// may run or its owner mark shows they are its. The overloads without
    /// options leave out nothing.
    bool leaveOutEditingFiles = true;
    /// Shell patterns (fnmatch: "*", "?", "[...]"), matched as archivers match them against the
    /// path below the source: anchored at neither end, so a pattern matches from the start of
    /// any path component up to the end of any ("*.o" and "build" match "src/build/a.o"); a
    /// leading "^" anchors a pattern at the root. A matched directory is left out with
    /// everything below it.
    std::vector<std::string> exclude;
};

/// exportProject with options, reporting to progress (which may be empty); the files left out
/// count in no total.
/// @return false when progress cancelled the export, which then has left no archive.
/// @throws UnsupportedFormat, ArchiveError as exportProject.
ZOPROJECT_EXPORT bool exportProject(const std::string& source, const std::string& destination,
    ArchiveFormat format, const ExportOptions& options, const ProgressCallback& progress);

/// The format of path: an existing directory is Directory, an existing file is recognised by
/// its content (a zip named "*.zop" being Native), a missing path by its extension. Never
/// returns Auto. Reads at most the start of the file; writes nothing.
/// @throws UnsupportedFormat when neither content nor name tells a format, or path is neither
/// a file nor a directory.
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
