#pragma once

#include <archive_entry.h>

#include <optional>
#include <string>
#include <string_view>

namespace zo::project::internal {

// name as "a/b/c", without empty and "." components; nothing when it is absolute or has a ".."
// component, so that it could lead outside the directory it is taken in.
std::optional<std::string> nameBelow(std::string_view name);

// Throws ArchiveError for a hard link to target that names no earlier file of the archive.
[[noreturn]] void refuseHardLink(
    const std::string& archive, const std::string& entry, const std::string& target);

// The entry's name below the destination as nameBelow gives it, "" for the destination itself.
// Throws ArchiveError naming archive and entry for anything that could reach outside the
// destination (absolute names, "..", links leading out, hard links to names outside) and for
// anything but regular files, directories, symbolic links and hard links.
std::string checkEntry(archive_entry* entry, const std::string& archive);

} // namespace zo::project::internal
