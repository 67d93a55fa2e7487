#pragma once

#include <archive.h>

#include <cstdint>
#include <string>

namespace zo::project::detail {

// Where the zip archive in path starts: after the data in front of it, if any (a self-extracting
// archive), as its end-of-central-directory records tell; 0 when they tell nothing or no entry
// begins where they point.
uint64_t zipStart(const std::string& path);

// Whether path holds a zip without entries: an end-of-central-directory record alone (with its
// comment, if any), which libarchive's zip readers do not take for a zip.
bool isEmptyZip(const std::string& path);

// Opens reader on the bytes of path from start on, as a seekable file of their own; returns
// libarchive's status.
//
// libarchive's seekable zip reader allows for data in front of a zip, but not of a zip64, whose
// end record it looks for at the offset the archive states.
int openFrom(archive* reader, const std::string& path, uint64_t start);

} // namespace zo::project::detail
