#pragma once

#include <zo/zo_export.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// A directory tree walk at the cost of the directory reads themselves: the type of an entry
// comes from the directory (d_type), and an entry is stat'ed only when its type is unknown, a
// link must be followed, or the caller asks for its status.
namespace zo::os {

enum class EntryType : unsigned char {
    File,
    Directory,
    Link, // a link that is not followed, or whose target is missing
    Other // fifo, socket, device
};

struct FileStatus {
    EntryType type = EntryType::Other;
    std::uint64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::int32_t modifiedNanoseconds = 0; // always 0 to 999999999, also before 1970
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t permissions = 0; // the mode's 07777 bits

    // Rounded down, as Qt reports file times, so that a time set through Qt compares equal.
    std::int64_t modifiedMilliseconds() const
    {
        return modifiedSeconds * 1000 + modifiedNanoseconds / 1000000;
    }
};

// The status of what path names, links followed; none when it cannot be read, with errno set.
ZO_EXPORT std::optional<FileStatus> status(const char* path);
// The status of what path names itself, a link not followed.
ZO_EXPORT std::optional<FileStatus> linkStatus(const char* path);
// The status of an open file.
ZO_EXPORT std::optional<FileStatus> status(int descriptor);
// The status of name in the open directory (or AT_FDCWD), of a link itself unless followLinks.
ZO_EXPORT std::optional<FileStatus> statusAt(int directory, const char* name, bool followLinks);

// Valid only while the visitor runs: its views point into the walk's own buffer.
class ZO_EXPORT WalkEntry {
public:
    WalkEntry(std::string_view path, std::string_view name, EntryType type, bool isLink, int depth,
        int directory, bool followLinks, std::optional<FileStatus> knownStatus);

    // The entry's status (its target's when links are followed), read on the first call only:
    // a walk that needs no sizes or times costs no stat per file. Null when the entry vanished.
    const FileStatus* status() const;

    std::string_view path; // relative to the root, "/"-separated
    std::string_view name; // the last component of path
    EntryType type; // of the link's target when links are followed
    bool isLink;
    int depth; // 0 for the root's own entries

private:
    int _directory;
    bool _followLinks;
    mutable bool _statusRead;
    mutable std::optional<FileStatus> _status;
};

enum class WalkStep {
    Continue,
    SkipDirectory, // do not descend into the directory just visited
    Stop
};

struct WalkOptions {
    bool includeHidden = false; // names that begin with "."
    bool followLinks = true; // report a link as its target and descend links to directories
    bool recursive = true;
    // Told of a directory that cannot be opened or read and of an entry that vanished between
    // the directory read and its stat; the walk goes on without it. May be empty.
    std::function<void(std::string_view path, int error)> onError;
};

using WalkVisitor = std::function<WalkStep(const WalkEntry&)>;

// Visits every entry below root in pre-order (a directory before its contents), in the order
// the file system returns them. A directory that is already on its own descent path (same
// device and inode) is visited but never entered again, so that a link cycle ends. One file
// descriptor is held per level of depth. Returns false when root is not a readable directory.
ZO_EXPORT bool walkTree(
    const std::string& root, const WalkOptions& options, const WalkVisitor& visit);

} // namespace zo::os
