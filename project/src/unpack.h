#pragma once

#include "entry_reader.h"

#include <string>

namespace zo::project::detail {

// Unpacks the entries of reader into the directory rootFd in one pass, never writing outside it.
// Each entry's declared size is checked against the space left on the volume (less a reserve)
// before it is written, and the bytes really written are held to the same bound. A failure
// removes what the unpacking created. archive names the source in errors.
void unpack(EntryReader& reader, int rootFd, const std::string& archive);

} // namespace zo::project::detail
