#pragma once

#include <map>
#include <string>
#include <string_view>

namespace zo::project::detail {

using Metadata = std::map<std::string, std::string>;

// The text of a metadata file: a header line, then one "key=value" line per entry with '%',
// '=' and control bytes percent-encoded, so that any bytes survive. No entries, no text.
std::string encodeMetadata(const Metadata& metadata);

// The inverse of encodeMetadata; throws ArchiveError naming file when text is not its output.
Metadata decodeMetadata(std::string_view text, const std::string& file);

} // namespace zo::project::detail
