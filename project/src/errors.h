#pragma once

#include <cerrno>
#include <string>

namespace zo::project::detail {

// Throws ArchiveError "'<archive>': <reason>".
[[noreturn]] void fail(const std::string& archive, const std::string& reason);

// Throws ArchiveError "'<archive>', entry '<entry>': <reason>".
[[noreturn]] void failEntry(
    const std::string& archive, const std::string& entry, const std::string& reason);

// Throws ArchiveConflict, worded as failEntry.
[[noreturn]] void refuseConflict(
    const std::string& archive, const std::string& entry, const std::string& reason);

// Logs "'<archive>', entry '<entry>': <text>" as a warning: something tolerated while reading.
void warnEntry(const std::string& archive, const std::string& entry, const std::string& text);

// The text of an errno value, to end a reason with.
std::string systemError(int error = errno);

} // namespace zo::project::detail
