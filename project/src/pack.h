#pragma once

#include "entry_reader.h"

#include <zo/project/archive.h>

#include <string>

namespace zo::project::detail {

// Writes the entries of reader as an archive of format to fd, which stays open.
// archive names the destination in errors.
void pack(EntryReader& reader, int fd, ArchiveFormat format, const std::string& archive);

} // namespace zo::project::detail
