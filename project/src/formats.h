#pragma once

#include <zo/project/archive.h>

#include <archive.h>

#include <string>

namespace zo::project::internal {

// The format a path's extension names; throws UnsupportedFormat when it names none.
ArchiveFormat formatFromName(const std::string& path);

// The format of an existing archive file judged by its content; throws UnsupportedFormat.
ArchiveFormat formatFromContent(const std::string& path);

// Makes reader accept exactly format, one of the archive formats (not Auto or Directory).
void enableReading(archive* reader, ArchiveFormat format, const std::string& path);

// Makes writer produce format, one of the archive formats.
void enableWriting(archive* writer, ArchiveFormat format, const std::string& path);

} // namespace zo::project::internal
