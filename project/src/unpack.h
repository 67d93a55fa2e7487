#pragma once

#include "entry_reader.h"

#include <zo/file.h>
#include <zo/project/archive.h>

#include <string>
#include <unordered_map>

namespace zo::project::detail {

// Unpacks the entries of reader into the new, empty directory rootFd in one pass, never writing
// outside it. Each entry's declared size is checked against the space left on the volume (less
// a reserve) before it is written, and the bytes really written are held to the same bound.
// Hard links become hard links to the earlier file of this unpacking they name. On failure,
// what was written stays for the caller to remove with the directory. archive names the source
// in errors.
void unpack(EntryReader& reader, int rootFd, const std::string& archive);

// The entries of an existing directory that an unpacking took into its new tree, by path, as
// they were when it did.
using KeptEntries = std::unordered_map<std::string, os::FileIdentity>;

// unpack, then adds to the new tree what the existing directory existingFd holds and the
// archive does not replace: each directory made again with its mode, times and owner, anything
// else as a hard link to the same file (never a copy), so that the new tree can take the
// existing one's place without losing any of it. A directory of existingFd that an entry would
// replace by a file or link, and a mount point below it, are refused. What existingFd holds at
// the path of an entry is resolved by existing (all conflicts found before ArchiveConflict is
// thrown) and told in report.
KeptEntries unpackOver(EntryReader& reader, int rootFd, int existingFd, const std::string& archive,
    ExistingFiles existing, ImportReport& report);

} // namespace zo::project::detail
