#pragma once

#include <zo/file.h>
#include <zo/zo_export.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

/// @file
/// Descents into directory trees by descriptors: a directory's entries read at once, the open
/// directories of a descent, and a walk built on both at the cost of the directory reads
/// themselves: the type of an entry comes from the directory (d_type), and an entry is stat'ed
/// only when its type is unknown, a link must be followed, or the caller asks for its status.
/// Below the directory they start from, none resolves a path string: each step opens one name
/// in a directory held open, so that no directory replaced by a link meanwhile is followed, and
/// depth is limited by memory alone, not by PATH_MAX or by the number of descriptors.
namespace zo::os {

class MountChanges;

/// An entry of a directory as the directory lists it.
struct ListedEntry {
    std::string_view name; ///< followed by a NUL byte in the listing's own storage
    EntryType type; ///< of the entry itself: a link is a Link
};

/// The entries of one directory but "." and "..", read at once, in the order the file system
/// returns them. Moving a listing keeps its entries valid; it cannot be copied.
class ZO_EXPORT DirectoryListing {
public:
    DirectoryListing() = default;
    /// @{
    /// Takes the other listing's entries over.
    DirectoryListing(DirectoryListing&&) noexcept = default;
    DirectoryListing& operator=(DirectoryListing&&) noexcept = default;
    /// @}
    DirectoryListing(const DirectoryListing&) = delete;
    DirectoryListing& operator=(const DirectoryListing&) = delete;

    /// Replaces the entries with those of the open directory, read from its start (a directory
    /// just opened). An entry whose type the directory does not tell is stat'ed, and left out
    /// when it has vanished meanwhile. False, errno set, when the directory cannot be read; the
    /// entries read until then are kept.
    bool read(int directory);

    /// A copy of the entries, in storage of their own size.
    DirectoryListing copy() const;

    /// May be reordered or cut by the caller.
    std::vector<ListedEntry> entries;

private:
    /// The records the system wrote, names included, kept for the next read.
    std::vector<std::unique_ptr<char[]>> _blocks;
};

/// The directories a descent is inside of, from the one it started in down to the current one,
/// each entered from its parent's descriptor. A directory is never entered twice, so that a
/// cycle through links ends. Only the deepest few are held open: an ancestor let go is opened
/// again through ".." of its child on the way back and must still be the directory that was
/// left. The parent of a directory entered through a link is held open for as long as the
/// descent is inside it, since ".." leads elsewhere.
class ZO_EXPORT DirectoryDescent {
public:
    /// Starts in the open directory top, whose identity is given.
    DirectoryDescent(UniqueFd top, const FileIdentity& identity);

    /// The directory the descent is in, open until the next enter or leave.
    int directory() const { return _levels.back().fd.get(); }
    /// 0 in the directory it started in.
    std::size_t depth() const { return _levels.size() - 1; }
    /// Whether the descent is inside the directory of that identity.
    bool isInside(const FileIdentity& identity) const { return _inside.count(identity) != 0; }

    /// Goes down into directory, opened from the current one (through a link when throughLink)
    /// and of the given identity. False, with errno ELOOP, when the descent is inside it already;
    /// it is then closed and the descent stays where it is.
    bool enter(UniqueFd directory, const FileIdentity& identity, bool throughLink);
    /// Goes back up to the parent, below the directory it started in. False, with errno ESTALE,
    /// when the parent had been let go and ".." no longer leads to it (the directory moved); the
    /// descent then stays where it is.
    bool leave();

private:
    struct Level {
        UniqueFd fd; ///< closed for an ancestor let go
        FileIdentity identity;
        bool throughLink;
    };
    void letGoOfOne();

    std::vector<Level> _levels;
    std::unordered_set<FileIdentity> _inside;
    std::size_t _held = 1; ///< levels whose descriptor is open
    std::size_t _firstHeld = 0; ///< the levels above it are let go, or held for a link below
};

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

/// The listings of directories that walks read, kept for later walks of the same kind (the same
/// options and arrange), which take a directory's entries from here instead of reading it again
/// while it is the same directory (its identity) and unchanged (its status change time, which
/// every entry made, removed or renamed in it sets, and no program can set back). A listing is
/// kept only where a change cannot hide within the clock's resolution: on a local file system
/// known to keep nanosecond times, for a directory last changed well before it was read (its
/// time taken before the read, so that a change during the read shows next time). What a walk
/// neither took nor kept is forgotten when it ends, and everything when a file system was mounted
/// or unmounted anywhere since the last walk: a device may hold another file system by then,
/// whose directories may have the same identities and times (a copied disk image). A listing
/// is also taken only from the file system (its statfs id) it was read on: a snapshot put in
/// place of a removed subvolume may have the same device, identities and times.
class ZO_EXPORT ListingCache {
public:
    ListingCache();
    ~ListingCache();
    ListingCache(const ListingCache&) = delete;
    ListingCache& operator=(const ListingCache&) = delete;

    /// Called as a walk starts.
    void beginWalk();
    /// Called as a walk ends.
    void endWalk();
    /// The kept listing of the open directory of the given status; null when it is not kept or
    /// it changed.
    std::shared_ptr<const DirectoryListing> find(int fd, const FileStatus& directory);
    /// Keeps a copy of listing, just read from the open directory whose status was taken before
    /// the read, when it can be trusted to show any later change; returns it, or null.
    std::shared_ptr<const DirectoryListing> keep(
        int fd, const FileStatus& directory, const DirectoryListing& listing);

private:
    struct Kept {
        std::int64_t changedSeconds;
        std::int32_t changedNanoseconds;
        std::uint64_t fileSystem;
        std::shared_ptr<const DirectoryListing> listing;
        bool used;
    };
    const std::optional<FileSystem>& fileSystemOf(int fd, std::uint64_t device);

    std::unordered_map<FileIdentity, Kept> _kept;
    std::unique_ptr<MountChanges> _mounts; // from the first walk on
    // By device, for one walk.
    std::unordered_map<std::uint64_t, std::optional<FileSystem>> _fileSystems;
};

/// What a walk visits and how.
struct WalkOptions {
    bool includeHidden = false; ///< names that begin with "."
    bool followLinks = true; ///< report a link as its target and descend links to directories
    bool recursive = true; ///< descend into directories
    /// Told of a directory that cannot be opened or read, and of one whose parent moved while
    /// the walk was inside it, which ends the walk. May be empty.
    std::function<void(std::string_view path, int error)> onError;
    /// Called with each directory's entries before any of them is visited, to reorder or drop
    /// some. May be empty.
    std::function<void(DirectoryListing& entries)> arrange;
    /// Where listings are kept and taken from, arranged; may be null.
    ListingCache* cache = nullptr;
};

/// Called for every entry.
using WalkVisitor = std::function<WalkStep(const WalkEntry&)>;

/// Visits every entry below root in pre-order (a directory before its contents), in the order
/// the file system returns them unless arranged otherwise. Each directory is read whole before
/// its entries are visited, so that a visitor may remove them. A directory that is already on
/// its own descent path (same FileIdentity) is visited but never entered again, so that a link
/// cycle ends; an entry that was not a link when its directory was read is never followed. Root
/// itself is opened by path, links followed. Returns false when root is not a readable
/// directory.
ZO_EXPORT bool walkTree(
    const std::string& root, const WalkOptions& options, const WalkVisitor& visit);
/// walkTree below the open directory root, which stays open and the caller's.
ZO_EXPORT bool walkTree(int root, const WalkOptions& options, const WalkVisitor& visit);

} // namespace zo::os
