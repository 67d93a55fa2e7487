#pragma once

#include "watchsnapshot.h"

#include <zo/changeevents.h>
#include <zo/file.h>
#include <zo/treewalk.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace zo::project::detail {

// The directories of a watched tree under kernel watches, so that a check reads again only those
// the kernel reported changed. It lists what the full walk lists (links followed, hidden names
// as asked): directories reached through a link are never watched but read at every check, and
// so are those holding a link or a file with several names, whose changes may come through a
// path outside them. Lost events (a full queue, the root moved, a mount or unmount anywhere)
// make it read everything again.
class WatchedTree {
public:
    enum class Outcome {
        Unchanged, // nothing to read: the last listing stands
        Read, // read holds what was read again
        Lost // events cannot be relied on here: list the whole tree from now on
    };

    WatchedTree(std::string root, bool showHidden);

    // Reads what changed since the last call (everything, the first time) into read.
    Outcome readChanges(PartialListing& read);

private:
    struct Directory {
        int watch;
        os::FileIdentity identity;
    };
    enum class WalkEnd { Done, Moved, Lost };

    bool restart();
    void markChanged(const os::ChangeEvent& event);
    WalkEnd walk(const std::set<std::string>& toRead, const std::set<std::string>& aboveToRead,
        PartialListing& read);
    bool watchDirectory(const os::WalkEntry& entry, const std::string& path, bool& lost);
    void forgetBelow(const std::string& path);

    const std::string _root;
    const bool _showHidden;
    std::unique_ptr<os::ChangeEvents> _events;
    os::MountChanges _mounts;
    bool _complete = false; // the directories below match the listing
    // By path relative to the root, "" for the root.
    std::map<std::string, Directory> _directories;
    // The directories of each watch: a directory moved within the tree keeps its watch, which
    // serves its old and new path until the old one is forgotten, and a directory mounted twice
    // in the tree has one watch for both.
    std::unordered_multimap<int, std::string> _watched;
    std::set<std::string> _changed; // directories to read again
    std::set<std::string> _readAlways;
    std::unordered_set<std::uint64_t> _reportingDevices; // file systems known to report all
};

} // namespace zo::project::detail
