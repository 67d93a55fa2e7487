#pragma once

#include <zo/file.h>
#include <zo/zo_export.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// @file
/// A directory tree walk at the cost of the directory reads themselves: the type of an entry
/// comes from the directory (d_type), and an entry is stat'ed only when its type is unknown, a
/// link must be followed, or the caller asks for its status. It only reads.
namespace zo::os {

/// An entry as the walk visits it. Valid only while the visitor runs: its views point into the
/// walk's own buffer.
class ZO_EXPORT WalkEntry {
public:
    /// Made by the walk only.
    WalkEntry(std::string_view path, std::string_view name, EntryType type, bool isLink, int depth,
        int directory, bool followLinks, std::optional<FileStatus> knownStatus);

    /// The entry's status (its target's when links are followed), read on the first call only:
    /// a walk that needs no sizes or times costs no stat per file. Null when the entry vanished.
    const FileStatus* status() const;
    /// The open directory that holds the entry, for calls "At" it on name: they reach the entry
    /// the walk found even where a directory on its path was swapped for a link meanwhile.
    int directory() const { return _directory; }

    std::string_view path; ///< relative to the root, "/"-separated
    std::string_view name; ///< the last component of path
    EntryType type; ///< of the link's target when links are followed
    bool isLink; ///< the entry itself is a symbolic link
    int depth; ///< 0 for the root's own entries

private:
    int _directory;
    bool _followLinks;
    mutable bool _statusRead;
    mutable std::optional<FileStatus> _status;
};

/// What the visitor tells the walk to do next.
enum class WalkStep {
    Continue,
    SkipDirectory, ///< do not descend into the directory just visited
    Stop
};

/// What a walk visits and how.
struct WalkOptions {
    bool includeHidden = false; ///< names that begin with "."
    bool followLinks = true; ///< report a link as its target and descend links to directories
    bool recursive = true; ///< descend into directories
    /// Told of a directory that cannot be opened or read and of an entry that vanished between
    /// the directory read and its stat; the walk goes on without it. May be empty.
    std::function<void(std::string_view path, int error)> onError;
};

/// Called for every entry.
using WalkVisitor = std::function<WalkStep(const WalkEntry&)>;

/// Visits every entry below root in pre-order (a directory before its contents), in the order
/// the file system returns them. A directory that is already on its own descent path (same
/// FileIdentity) is visited but never entered again, so that a link cycle ends. One file
/// descriptor is held per level of depth. Returns false when root is not a readable directory.
ZO_EXPORT bool walkTree(
    const std::string& root, const WalkOptions& options, const WalkVisitor& visit);
/// walkTree below the open directory root, which stays open and the caller's.
ZO_EXPORT bool walkTree(int root, const WalkOptions& options, const WalkVisitor& visit);

} // namespace zo::os
