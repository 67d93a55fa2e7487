#pragma once

#include <zo/project/archive.h>

#include "libarchive.h"

#include <optional>
#include <string>

namespace zo::project::detail {

// Throws UnsupportedFormat for a value outside the enumeration.
void requireKnown(ArchiveFormat format);

// The format of the archive or directory source that format names: Auto is detected (a
// directory is Directory), any other value checked with requireKnown. Content that no format
// reads throws ArchiveError.
ArchiveFormat sourceFormat(const std::string& source, ArchiveFormat format);

// The archive format whose extension path ends in, in any case; none for a directory's name.
std::optional<ArchiveFormat> formatOfExtension(const std::string& path);

// The format a path's extension names; throws UnsupportedFormat when it names none.
ArchiveFormat formatFromName(const std::string& path);

// The format of an existing archive file judged by its content; throws UnsupportedFormat.
ArchiveFormat formatFromContent(const std::string& path);

// Whether an archive of format in which no entry was found is an empty archive rather than
// other data its reader took for one.
bool isSoundEmpty(const std::string& path, ArchiveFormat format);

// Opens path for reading as format, one of the archive formats (not Auto or Directory): only its
// container is enabled and its filter, if any, is the one layer peeled.
ReadArchive openArchive(const std::string& path, ArchiveFormat format);

// Whether name, written into an archive of format (an archive format, not Auto or Directory),
// is read back byte for byte.
bool keepsName(ArchiveFormat format, const std::string& name);

// Whether an archive of format (or a directory) keeps hard links as links.
bool keepsHardLinks(ArchiveFormat format);

// Makes writer produce format, one of the archive formats.
void enableWriting(archive* writer, ArchiveFormat format, const std::string& path);

} // namespace zo::project::detail
