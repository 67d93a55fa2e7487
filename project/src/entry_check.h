#pragma once

#include <archive_entry.h>

#include <string>
#include <vector>

namespace zo::project::internal {

// The components of the entry's name below the destination, none for the destination itself.
// Throws ArchiveError naming archive and entry for anything that could reach outside the
// destination (absolute names, "..", links leading out, hard links) and for anything but
// regular files, directories and symbolic links.
std::vector<std::string> checkEntry(archive_entry* entry, const std::string& archive);

} // namespace zo::project::internal
