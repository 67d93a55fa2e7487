#pragma once

#include <zo/file.h>
#include <zo/owner.h>
#include <zo/zo_export.h>

#include <functional>
#include <string>
#include <vector>

/// @file
/// What processes left in a directory under the hidden names of zo/file.h when they ended
/// before they could remove or rename it (a killed save, pack, unpack or copy), and its removal
/// once the one liveness rule of zo/owner.h proves their owner gone. Only a directory's own
/// entries are looked at, never what lies below them, so that a look costs one read of the
/// directory and a judgement of each leftover in it; links are never followed.
namespace zo::os {

/// A file or directory that a process made under a hidden name and has not removed.
struct Leftover {
    std::string path; ///< the directory, "/" and its name
    HiddenName name; ///< its purpose and its process
    Liveness owner = Liveness::Unknown; ///< how that process stands
    /// Whether it may hold data found nowhere else, so that cleanup never removes it: a tree
    /// swapped with a directory (kReplacedPurpose of zo/replace.h), a purpose this version
    /// does not know, or a name of an ended process that no owner mark vouches for (a user's
    /// file may be named so). Only the purposes of copies, packs, saves, unpacks, metadata files
    /// and workspace records hold nothing but what their source still holds.
    bool holdsData = false;
};

/// The leftovers among directory's own entries, owner marks aside, in name order; none when
/// the directory cannot be read.
ZO_EXPORT std::vector<Leftover> findLeftovers(const std::string& directory);

/// What removeEndedLeftovers removes.
enum class Cleanup {
    Everything, ///< the leftovers whose owner ended, then the owner marks left unused
    OwnerMarks ///< the owner marks left unused only
};

/// Removes, among directory's own entries, the leftovers whose owner is proven ended but those
/// that hold data, then the owner marks of processes proven ended that mark nothing any more
/// (OwnerMarks::removeEndedMarks): no other entry there carries their process id as a number
/// in its name (a swap file, a workspace, a leftover kept), and inUse, when given, does not
/// name it. What cannot be removed stays for a later call.
ZO_EXPORT void removeEndedLeftovers(const std::string& directory,
    Cleanup what = Cleanup::Everything, const std::function<bool(int pid)>& inUse = {});

} // namespace zo::os
