#pragma once

#include <zo/file.h>
#include <zo/zo_export.h>

#include <functional>
#include <string_view>

/// @file
/// What the kernel tells of changes in directories (inotify) and in the mount table, for a
/// watcher that reads again only what changed. Both only tell that something may have changed,
/// never what it now is: the caller reads the directory to know. Nothing here throws; failures
/// are false or -1 with errno set.
namespace zo::os {

/// One notice from ChangeEvents.
struct ChangeEvent {
    /// What the notice is about.
    enum class Kind {
        Entry, ///< the entry name of the watched directory was created, removed, renamed,
               ///< written to or had its attributes changed
        Itself, ///< the watched directory's own attributes changed (its permissions, say)
        Moved, ///< the watched directory itself was renamed or removed
        Gone, ///< the watch ended: its directory was removed, its file system unmounted, or
              ///< unwatch was called
        Overflow ///< the kernel's queue was full and notices were lost: anything may have changed
    };
    Kind kind; ///< what happened
    int watch; ///< as watch returned it; -1 for Overflow
    std::string_view name; ///< for Entry only; valid while the handler runs
};

/// An inotify instance: watches on single directories (never their subdirectories) whose
/// notices are queued by the kernel until read. Close-on-exec; reading never blocks.
class ZO_EXPORT ChangeEvents {
public:
    /// A new instance; see isOpen.
    ChangeEvents();

    /// False (errno set) when the kernel gave no instance: no inotify, or the per-user limit of
    /// instances reached.
    bool isOpen() const { return static_cast<bool>(_fd); }

    /// Watches the directory name of the open directory (name "." for that directory itself),
    /// through the directory's descriptor, so that no link on a path and no link as name leads
    /// the watch elsewhere. The watch's number, or -1: ENOSPC when the per-user limit of watches
    /// is reached, ENOTDIR when name is no directory (a link is none), ENOENT when it vanished.
    /// A directory watched already keeps its number.
    int watch(int directory, const char* name);
    /// Ends a watch; a Gone notice for it follows.
    void unwatch(int watch);

    /// Hands every queued notice to handle, in order, and returns once none is left. False
    /// (errno set) when the queue cannot be read.
    bool read(const std::function<void(const ChangeEvent&)>& handle);

private:
    UniqueFd _fd;
};

/// Tells whether the mount table of this process's mount namespace changed: a file system
/// mounted or unmounted anywhere, which no directory watch reports.
class ZO_EXPORT MountChanges {
public:
    /// Starts from the table as it is now.
    MountChanges();
    /// Whether it changed since the last call (or construction). True, to be safe, when the
    /// table cannot be watched (no /proc).
    bool changed();

private:
    UniqueFd _fd;
};

/// Whether the kernel reports every change to the files of the open directory's file system:
/// false for network file systems (changes made on another host go unreported), FUSE (the
/// daemon may change files unseen) and virtual ones like /proc, or when statfs fails.
ZO_EXPORT bool reportsAllChanges(int directory);

} // namespace zo::os
