#pragma once

#include <zo/project/archive.h>
#include <zo/project/zoproject_export.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

/// @file
/// What a project archive or directory holds, read as a stream: nothing is unpacked and nothing
/// is written anywhere, so reading costs no disk space and leaves nothing behind when the
/// reading process is killed.
namespace zo::project {

/// What an entry is once unpacked.
enum class EntryKind { File, Directory, SymbolicLink };

/// One entry of a project archive or directory, as importProject would write it.
struct ProjectEntry {
    /// Below the project's root, "/"-separated, without empty or "." components.
    std::string path;
    EntryKind kind = EntryKind::File; ///< what it is
    /// A file's size in bytes (for a hard link, that of the file it names); 0 otherwise.
    std::uint64_t size = 0;
    /// A symbolic link's target; for a hard link, the path of the earlier file it names; else
    /// empty.
    std::string linkTarget;
};

/// Calls visit with each entry of the archive or directory source in the order it is stored,
/// until visit returns false. A later entry of an archive with the path of an earlier one
/// replaces it, as in an unpacking. Throws UnsupportedFormat for a format outside the
/// enumeration, ArchiveError naming the archive for unreadable content and naming the entry for
/// an entry importProject would refuse (see there); what visit throws passes through.
ZOPROJECT_EXPORT void listProject(const std::string& source, ArchiveFormat format,
    const std::function<bool(const ProjectEntry&)>& visit);

/// The metadata of the project archive or directory source: its metadata file at the root, read
/// as listProject reads (an archive to its end, for a later copy of the file counts); empty when
/// it has none. Throws as listProject, and ArchiveError for metadata that cannot be decoded.
ZOPROJECT_EXPORT std::map<std::string, std::string> readProjectMetadata(
    const std::string& source, ArchiveFormat format);

} // namespace zo::project
