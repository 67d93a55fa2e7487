#pragma once

#include <zo/file.h>
#include <zo/zo_export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// @file
/// Whether the process that left a file still uses it: the one liveness rule of every library
/// and tool built on libzo.
///
/// Files that a process names by its id (".<name>.<pid>.csp", "zo_project_model_<pid>_<n>", the
/// hidden names of zo/file.h) are judged by the owner marks of that id in their own directory or
/// any directory above it. A process makes its mark, a hidden file ".zo-owner-<pid>.<unique>" that
/// holds an OwnerRecord, in a directory before it writes its first such file below it, and holds
/// an open-file-description lock on it for as long as it may still use them. The kernel drops the
/// lock when the process dies, whatever pid namespace it runs in, and NFSv4 carries it between
/// hosts; the record answers where the lock cannot (another host, an earlier boot, a file system
/// without locks). A process is judged running unless it is proven gone, and what cannot be
/// decided is reported as in use elsewhere, never as ended.
namespace zo::os {

/// What an owner mark tells of the process that made it.
struct OwnerRecord {
    std::string host; ///< its host name
    std::string machine; ///< its host's machine id; empty where the host has none
    std::string boot; ///< the boot id of its kernel
    std::string pidNamespace; ///< its pid namespace, as /proc/self/ns/pid reads ("pid:[...]")
    int pid = 0; ///< its id in that namespace
    std::chrono::system_clock::time_point started; ///< when it started
    /// When it started, in clock ticks since boot (field 22 of its stat in /proc); 0 when unknown.
    std::uint64_t startTicks = 0;
    /// The mark file itself: a file at the mark's name that is not this one (a copy) proves
    /// nothing of the process.
    FileIdentity file;
    std::string program; ///< the first word of its command line
    std::chrono::system_clock::time_point marked; ///< when it made the mark, by the file system
    bool locked = false; ///< whether it holds the mark's lock (the file system may refuse)
    /// Whether it seals the content of the pending files it notes (OwnerMark::noteContent)
    /// rather than syncing them; a process of an older version synced every one.
    bool sealsContent = false;
};

/// How a process that made a file stands.
enum class Liveness {
    Running, ///< it still runs: its files are not to be touched
    Ended, ///< it is proven gone
    Unknown ///< it may run elsewhere (another host); counts as running
};

/// A verdict on the process that made a file, with what is known of it.
struct OwnerVerdict {
    Liveness liveness = Liveness::Unknown; ///< how it stands
    /// From its mark, or for a process found running without one, from /proc.
    std::optional<OwnerRecord> owner;

    /// Whether the file is known to be one of ours: its process may still run, or a mark of it
    /// was found. A file named after an ended process that left no mark may be a user's own.
    bool showsOurs() const { return liveness != Liveness::Ended || owner.has_value(); }
};

/// This process's mark in one directory, shared by every part of the process that writes below
/// it. The last holder to let go removes it.
class ZO_EXPORT OwnerMark {
public:
    /// This process's mark in directory, made on the first call and shared by later ones for the
    /// same directory (however named) while any holder keeps it. Null when the directory
    /// refuses the mark (errno set); a file system that refuses the lock is recorded as such.
    static std::shared_ptr<OwnerMark> hold(const std::string& directory);
    /// This process's mark in the directory that holds path, as hold makes it: held by a step
    /// that writes a file there under a hidden name (zo/file.h) from before it creates the file
    /// until it has removed or renamed it, so that what a crash leaves is judged by the mark.
    static std::shared_ptr<OwnerMark> holdBeside(const std::string& path);
    /// Keeps mark until this process exits: for files left pending after their last user went.
    static void keepUntilExit(std::shared_ptr<OwnerMark> mark);

    ~OwnerMark();
    OwnerMark(const OwnerMark&) = delete;
    OwnerMark& operator=(const OwnerMark&) = delete;

    /// The mark file.
    const std::string& path() const { return _path; }

    /// Notes the version of the source that the pending file (an absolute path below the mark's
    /// directory) was made from, none for a new file, so that whoever judges the pending file
    /// once this process is gone can tell whether the source changed since. The last note for a
    /// file counts. False when it could not be written.
    bool noteSource(const std::string& pendingFile, const std::optional<FileVersion>& source);
    /// Notes what the pending file (as for noteSource) holds now, written but maybe not yet on
    /// the disk, so that whoever finds it after the machine stopped can tell whether it is torn
    /// (OwnerMarks::mayBeTorn). The last note for a file counts. False when it could not be
    /// written.
    bool noteContent(const std::string& pendingFile, const ContentSeal& content);

    /// Shows, for its lifetime, that this process is replacing files below the mark's directory
    /// (a commit between its renames), so that another process leaves the backups it meets
    /// alone. Nests.
    class ZO_EXPORT Replacing {
    public:
        /// Shows it on mark until destroyed.
        explicit Replacing(std::shared_ptr<OwnerMark> mark);
        ~Replacing();
        Replacing(const Replacing&) = delete;
        Replacing& operator=(const Replacing&) = delete;

    private:
        std::shared_ptr<OwnerMark> _mark;
    };

private:
    struct Token { };

public:
    /// Made by hold only.
    OwnerMark(Token, UniqueFd descriptor, std::string directory, std::string path);

private:
    // In a child that fork made: its copies of the parent's marks are closed, never removed.
    static void forgetInheritedMarks();
    // pendingFile relative to the mark's directory; none (EINVAL) when it lies elsewhere.
    std::optional<std::string> relativeName(const std::string& pendingFile) const;
    bool writeNote(const std::string& text);

    UniqueFd _descriptor;
    const int _owner; // the process that made it; a forked child only inherits it
    const std::string _directory; // resolved, as notes are relative to it
    const std::string _path;
    std::mutex _replacingMutex;
    int _replacing = 0;
};

/// Reads owner marks and judges owners by them. Keeps what it read for its own lifetime, so
/// that one scan reads each directory once; make a new one for each decision in time.
class ZO_EXPORT OwnerMarks {
public:
    OwnerMarks();
    ~OwnerMarks();
    OwnerMarks(const OwnerMarks&) = delete;
    OwnerMarks& operator=(const OwnerMarks&) = delete;

    /// The owner of file (an absolute path) named after process pid. Its candidates are the
    /// marks of pid in the file's directory and above made before the file's last write (a
    /// later process of the same id cannot have written it): running when any of them runs,
    /// unknown when any is undecided, ended when all are gone. A mark that is not the file its
    /// record names (a copy) is undecided. Without a lock, a process is proven gone only by
    /// /proc of its own pid namespace and boot, by its start in clock ticks; a record without
    /// one is undecided. A file without such a mark (made by an older version) is judged by /proc
    /// in this pid namespace: running while a process of that id exists that started before
    /// the write. A file replaced while it is judged (its owner
    /// committed it and made it anew) is judged again; one that keeps changing or is gone is
    /// judged by the marks as they are now, and never ended.
    OwnerVerdict judge(const std::string& file, int pid);

    /// The version of the source that file was made from, as its owner's mark noted it (see
    /// judge for which marks): none when no mark noted it, an empty version for a new file.
    std::optional<std::optional<FileVersion>> notedSource(const std::string& file, int pid);

    /// Whether file (named after process pid, judged by the marks as judge does) may not hold
    /// what its owner wrote to it, because the machine stopped before all of it reached the
    /// disk: its owner ran on an earlier boot or another host, sealed rather than synced, and
    /// file is not what it last noted (OwnerMark::noteContent), or it noted nothing. False for a
    /// file of an owner of this boot (a process that dies loses nothing it wrote) and for one
    /// that no mark notes (made by an older version, which synced it).
    bool mayBeTorn(const std::string& file, int pid);

    /// What the marks among directory's own entries whose process is proven ended noted: each
    /// pending file (relative to directory) with the version of its source when it was made,
    /// none for a new file.
    std::vector<std::pair<std::string, std::optional<FileVersion>>> notesOfEnded(
        const std::string& directory);

    /// Whether another process may be replacing files in directory or below it right now (its
    /// mark shows it, or cannot tell): a backup found there may be that process's.
    bool othersMayBeReplacing(const std::string& directory);

    /// Removes the owner marks among directory's own entries whose process is proven ended and
    /// that mark nothing any more: no file they noted (noteSource) is there, and
    /// namedAfter(pid) says that nothing else named after their process is left. A removal
    /// that fails is left for a later call.
    void removeEndedMarks(
        const std::string& directory, const std::function<bool(int pid)>& namedAfter);

private:
    struct Mark;
    struct Directory;

    // Listed again unless the listing is younger than lastWrite: a mark is made before the
    // files it covers, so a listing made after a file's last write holds its owner's mark.
    Directory& directoryOf(
        const std::string& resolved, std::chrono::system_clock::time_point lastWrite);
    std::string resolvedDirectoryOf(const std::string& file);
    // The marks of a directory and of each directory above it, nearest first.
    std::vector<Mark*> marksAbove(
        const std::string& resolvedDirectory, std::chrono::system_clock::time_point lastWrite);
    std::vector<Mark*> candidates(const std::string& resolvedDirectory, int pid,
        std::chrono::system_clock::time_point lastWrite);
    // The candidates for file, each with file's name relative to the mark's directory.
    std::vector<std::pair<Mark*, std::string>> candidatesOf(const std::string& file, int pid);
    void read(Mark& mark);
    Liveness livenessOf(Mark& mark);
    OwnerVerdict judgeAsOf(
        const std::string& file, int pid, std::chrono::system_clock::time_point lastWrite);

    std::map<std::string, std::unique_ptr<Directory>> _directories;
    std::map<std::string, std::string> _resolved;
};

/// Whether name (a last component) is an owner mark's, ".zo-owner-<pid>.<unique>".
ZO_EXPORT bool isOwnerMarkName(std::string_view name);

/// The time a file status reports as its modification.
ZO_EXPORT std::chrono::system_clock::time_point modificationTime(const FileStatus& status);

} // namespace zo::os
