#pragma once

#include "entry_reader.h"

#include <functional>
#include <memory>
#include <string>

namespace zo::project::internal {

using ReaderFactory = std::function<std::unique_ptr<EntryReader>()>;

// Unpacks the entries of a reader into the directory rootFd, never writing outside it.
// A first reader checks every entry and the sizes declared against the volume's free space
// less a reserve; a second one is unpacked under the same bound on the bytes really written.
// archive names the source in errors.
void unpack(const ReaderFactory& open, int rootFd, const std::string& archive);

} // namespace zo::project::internal
