#pragma once

#include <zo/zo_export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>

/// @file
/// Files and directories: their status and identity, descriptors, hidden names, copies and the
/// durability steps of an atomic replacement. Each call does one system step and reports failure
/// as false (or an empty result) with errno set, so that callers word their own messages; none
/// throws. Paths are byte strings (UTF-8 where they come from text). Descriptors are opened
/// close-on-exec; those opened "At" a directory never follow a link in the last component.
namespace zo::os {

/// Owns a descriptor and closes it on destruction; closing keeps errno, so that a failure being
/// reported is not masked.
class ZO_EXPORT UniqueFd {
public:
    UniqueFd() = default;
    /// Takes fd over; a negative fd stands for none.
    explicit UniqueFd(int fd)
        : _fd(fd)
    {
    }
    /// @{
    /// Takes other's descriptor over, closing the one held before.
    UniqueFd(UniqueFd&& other) noexcept;
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    /// @}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd();

    /// The descriptor, -1 for none.
    int get() const { return _fd; }
    /// Whether a descriptor is held.
    explicit operator bool() const { return _fd >= 0; }
    /// Closes the descriptor and reports close's own failure (a late write error) as false.
    bool close();

private:
    int _fd = -1;
};

/// Where a file is stored: two paths that name the same file share it. Read from a
/// FileStatus.
struct FileIdentity {
    std::uint64_t device = 0; ///< the file system's device number
    std::uint64_t inode = 0; ///< the file's number on that file system

    /// @{
    /// The same file: same device, same inode.
    bool operator==(const FileIdentity& other) const
    {
        return device == other.device && inode == other.inode;
    }
    bool operator!=(const FileIdentity& other) const { return !(*this == other); }
    /// @}
};

/// What a status read reports as a file's type.
enum class EntryType : unsigned char {
    File,
    Directory,
    Link, ///< a link that is not followed, or whose target is missing
    Other ///< fifo, socket, device
};

/// The status of a file, as stat reports it.
struct FileStatus {
    EntryType type = EntryType::Other; ///< of the file itself, or of a link's target
    std::uint64_t size = 0; ///< in bytes
    std::int64_t modifiedSeconds = 0; ///< the modification time, since 1970 (UTC)
    std::int32_t modifiedNanoseconds = 0; ///< always 0 to 999999999, also before 1970
    FileIdentity identity; ///< where it is stored
    std::uint32_t permissions = 0; ///< the mode's 07777 bits
    std::uint32_t owner = 0; ///< the owning user's id
    std::uint32_t group = 0; ///< the owning group's id
    std::uint64_t links = 0; ///< how many names (hard links) the file has
    /// The status change time, which every write, rename, link or attribute change sets and no
    /// program can set back: the one sign of a rewrite that restored size and modification time.
    std::int64_t changedSeconds = 0;
    std::int32_t changedNanoseconds = 0; ///< 0 to 999999999

    /// Rounded down, as Qt reports file times, so that a time set through Qt compares equal.
    std::int64_t modifiedMilliseconds() const
    {
        return modifiedSeconds * 1000 + modifiedNanoseconds / 1000000;
    }
};

/// The version of a file's content as the file system shows it: where it is stored, its size and
/// its modification time. A program that replaced or rewrote the file changed it; a change that
/// keeps all four (a write within one clock tick that keeps the size) goes unseen.
struct FileVersion {
    FileIdentity identity; ///< where the content is stored
    std::uint64_t size = 0; ///< in bytes
    std::int64_t modifiedSeconds = 0; ///< the modification time, since 1970 (UTC)
    std::int32_t modifiedNanoseconds = 0; ///< 0 to 999999999

    /// The version a status read shows.
    static FileVersion of(const FileStatus& status)
    {
        return { status.identity, status.size, status.modifiedSeconds, status.modifiedNanoseconds };
    }
    /// @{
    /// The same version: all four equal.
    bool operator==(const FileVersion& other) const
    {
        return identity == other.identity && size == other.size
            && modifiedSeconds == other.modifiedSeconds
            && modifiedNanoseconds == other.modifiedNanoseconds;
    }
    bool operator!=(const FileVersion& other) const { return !(*this == other); }
    /// @}
};

/// The status of what path names, links followed; none when it cannot be read.
ZO_EXPORT std::optional<FileStatus> status(const char* path);
/// The status of what path names itself, a link not followed.
ZO_EXPORT std::optional<FileStatus> linkStatus(const char* path);
/// The status of an open file.
ZO_EXPORT std::optional<FileStatus> status(int descriptor);
/// Whether this process's effective user owns the file status describes.
ZO_EXPORT bool ownedByThisUser(const FileStatus& status);
/// The status of name in the open directory (or AT_FDCWD), of a link itself unless followLinks.
ZO_EXPORT std::optional<FileStatus> statusAt(int directory, const char* name, bool followLinks);
/// The version of what path names, links followed; none when nothing is there.
ZO_EXPORT std::optional<FileVersion> versionOf(const char* path);
/// version as records keep it: device, inode, size, and the seconds and nanoseconds of its
/// modification time, in decimal, separated by single spaces.
ZO_EXPORT std::string versionText(const FileVersion& version);
/// The version versionText wrote; none when text is anything else.
ZO_EXPORT std::optional<FileVersion> versionFromText(std::string_view text);
/// The target a symbolic link holds, as it is written in the link; none when path is no link.
ZO_EXPORT std::optional<std::string> readLink(const char* path);
/// path (relative to root, or absolute) as the system resolves it: every symbolic link followed,
/// its own last component included, as far as something exists; the part that does not exist
/// yet appended with "." and ".." applied as text. None when the result lies outside root (which
/// is resolved the same way) or links loop. root itself counts as inside.
ZO_EXPORT std::optional<std::string> resolveBeneath(
    const std::string& root, const std::string& path);

/// resolveBeneath for the many paths of one operation below one root: the root, each path and
/// each directory above one are resolved once, on first use, and remembered while the object
/// lives.
/// A directory replaced by a link meanwhile is not noticed, so the result names a place, and
/// what is done there must still refuse links (openDirectoryBeneath, the "At" calls).
class ZO_EXPORT BeneathResolver {
public:
    /// Resolves nothing yet; root as resolveBeneath takes it.
    explicit BeneathResolver(std::string root);
    /// resolveBeneath(root, path).
    std::optional<std::string> resolve(const std::string& path);

private:
    const std::optional<std::string>& resolvedRoot();
    const std::optional<std::string>& resolvedDirectory(const std::string& directory);

    std::string _root;
    std::optional<std::optional<std::string>> _resolvedRoot;
    // By the absolute path named: where it leads, none for a loop.
    std::unordered_map<std::string, std::optional<std::string>> _resolved;
};
/// Whether this process may read what path names (by its real user and group, as access(2)).
ZO_EXPORT bool isReadable(const char* path);
/// Whether this process may read name in the open directory, a link followed (as faccessat(2)).
ZO_EXPORT bool isReadableAt(int directory, const char* name);
/// Whether this process may write name in the open directory, a link followed; ENOENT for a
/// link whose target is missing.
ZO_EXPORT bool isWritableAt(int directory, const char* name);
/// Whether this process may both read and write name in the open directory, a link followed.
ZO_EXPORT bool isReadableAndWritableAt(int directory, const char* name);

/// The file system that holds an open file, as statfs(2) tells it.
struct FileSystem {
    std::uint32_t type = 0; ///< f_type
    /// f_fsid: the same for copies of one disk image, but another for each subvolume or
    /// snapshot of file systems that have them.
    std::uint64_t id = 0;
};
/// The file system that holds the open file; none when it cannot be told.
ZO_EXPORT std::optional<FileSystem> fileSystemOf(int fd);

/// Opens a directory, links followed.
ZO_EXPORT UniqueFd openDirectory(const char* path);
/// Makes path, links followed, the working directory of this process; false with errno set
/// when it cannot.
ZO_EXPORT bool changeDirectory(const char* path);
/// Opens the directory name in the open directory; ELOOP or ENOTDIR for a link there, unless
/// followLink.
ZO_EXPORT UniqueFd openDirectoryAt(int directory, const char* name, bool followLink = false);
/// Opens the directory path, links followed, only as the place of the entries named in it: the
/// descriptor serves the "At" calls and status but cannot be read or synced, and search
/// permission suffices (O_PATH).
ZO_EXPORT UniqueFd openPlace(const char* path);
/// Opens directory (an absolute path that resolveBeneath gave for root) by descending from root
/// one component at a time without following any link, so that a directory replaced by a link
/// since it was resolved is refused (ELOOP or ENOTDIR) instead of followed.
ZO_EXPORT UniqueFd openDirectoryBeneath(const std::string& root, const std::string& directory);
/// openPlace for the directory name of the open directory.
ZO_EXPORT UniqueFd openPlaceAt(int directory, const char* name);
/// A second descriptor of the same open file (close-on-exec), which outlives the first.
ZO_EXPORT UniqueFd duplicate(int descriptor);
/// Opens a file for reading, links followed.
ZO_EXPORT UniqueFd openForReading(const char* path);
/// Opens the file name in the open directory for reading, without blocking on a fifo; ELOOP for
/// a link there, unless followLink.
ZO_EXPORT UniqueFd openForReadingAt(int directory, const char* name, bool followLink = false);
/// Creates a new file for writing; fails with EEXIST when name exists.
ZO_EXPORT UniqueFd createFileAt(int directory, const char* name, mode_t mode);
/// Creates a new private file named after pathTemplate, whose trailing "XXXXXX" is replaced by
/// the name made (mkstemp). The caller removes it.
ZO_EXPORT UniqueFd createTemporaryFile(std::string& pathTemplate);
/// Creates a new file named after pathTemplate as createTemporaryFile does, but with mode less
/// the umask, as open makes it, where a temporary file is private. EINVAL when the template does
/// not end in "XXXXXX". The caller removes it.
ZO_EXPORT UniqueFd createUniqueFile(std::string& pathTemplate, mode_t mode);
/// Creates a new private directory named after pathTemplate as createTemporaryFile does
/// (mkdtemp). The caller removes it.
ZO_EXPORT bool createTemporaryDirectory(std::string& pathTemplate);
/// Creates a new directory named after pathTemplate as above, but with mode less the umask, as
/// mkdir makes it, where a temporary directory is private. EINVAL when the template does not
/// end in "XXXXXX". The caller removes it.
ZO_EXPORT bool makeUniqueDirectory(std::string& pathTemplate, mode_t mode);
/// makeUniqueDirectory for a name template in the open directory.
ZO_EXPORT bool makeUniqueDirectoryAt(int directory, std::string& nameTemplate, mode_t mode);
/// Creates a new file for writing in the open directory, named after nameTemplate as
/// makeUniqueDirectory names a directory, with mode less the umask. The caller removes it.
ZO_EXPORT UniqueFd createUniqueFileAt(int directory, std::string& nameTemplate, mode_t mode);
/// Creates a file that has no name yet (O_TMPFILE) in the directory name, relative to the open
/// directory (AT_FDCWD: the working directory), open for writing: no one sees it before
/// linkUnnamedFile names it, and a crash leaves nothing. EOPNOTSUPP, EISDIR or EINVAL where the
/// file system has no unnamed files.
ZO_EXPORT UniqueFd createUnnamedFile(int directory, const char* name, mode_t mode);
/// Gives a file from createUnnamedFile the name name in the open directory (or AT_FDCWD); EEXIST
/// when it is taken.
ZO_EXPORT bool linkUnnamedFile(int descriptor, int directory, const char* name);
/// Gives it a name made from pathTemplate as createTemporaryFile makes one.
ZO_EXPORT bool linkUnnamedFileUnique(int descriptor, std::string& pathTemplate);
/// Creates the directory name in the open directory with mode less the umask.
ZO_EXPORT bool makeDirectoryAt(int directory, const char* name, mode_t mode);
/// Creates the symbolic link name to target in the open directory.
ZO_EXPORT bool makeSymlinkAt(const char* target, int directory, const char* name);
/// Gives the file fromName in the open directory fromDirectory (a link itself, never followed)
/// the further name toName in the open directory toDirectory: a hard link. EEXIST when toName
/// exists, EXDEV across file systems, EPERM where the file system has no hard links.
ZO_EXPORT bool linkAt(int fromDirectory, const char* fromName, int toDirectory, const char* toName);

/// What a hidden name beside a file tells of it.
struct HiddenName {
    std::string purpose; ///< what made the file: "save", "copy", ...
    int pid = 0; ///< the process that made it
};

/// A path for a file that this process writes beside path before it takes path's place, or
/// works on and removes: "<directory>/.<name>.zo-<purpose>-<pid>.XXXXXX", for createTemporaryFile,
/// createTemporaryDirectory and makeUniqueDirectory to fill in; pid is this process's id.
/// purpose is a short word of lowercase letters that tells which step made it. Where the result's
/// last component would pass NAME_MAX, the copied name is shortened (never inside a UTF-8
/// sequence). A crash leaves the file behind; parseHiddenName reads its purpose and owner back.
ZO_EXPORT std::string hiddenTemplateBeside(const std::string& path, std::string_view purpose);
/// The first path "<directory>/.<name>.zo-<purpose>-<pid>.<n>", n = 0, 1, ..., that names
/// nothing yet, for a step that creates it itself. Only the threads of this process could take
/// it meanwhile.
ZO_EXPORT std::string unusedHiddenPathBeside(const std::string& path, std::string_view purpose);
/// A path for a file of this process that belongs to directory itself rather than to a file in
/// it (an owner mark): "<directory>/.zo-<purpose>-<pid>.XXXXXX", to be filled in as above.
ZO_EXPORT std::string hiddenTemplateIn(const std::string& directory, std::string_view purpose);
/// The purpose and process of a file name (the last component only) made by
/// hiddenTemplateBeside, unusedHiddenPathBeside or hiddenTemplateIn; none for any other name.
ZO_EXPORT std::optional<HiddenName> parseHiddenName(std::string_view name);

/// Removes a file or link (not a directory).
ZO_EXPORT bool remove(const char* path);
/// Removes the file or link name in the open directory (not a directory).
ZO_EXPORT bool removeAt(int directory, const char* name);
/// Removes an empty directory.
ZO_EXPORT bool removeDirectoryAt(int directory, const char* name);
/// Removes name in the open directory, and for a directory all it holds, through descriptors
/// only: a link is removed as a link and never followed, also when a directory on the way is
/// replaced by one meanwhile, and a directory on another file system (a mount point) is not
/// entered (EXDEV). Stops at the first entry that cannot be removed (errno set); what was
/// removed until then stays removed.
ZO_EXPORT bool removeTreeAt(int directory, const char* name);

/// Access and modification time; a tv_nsec of UTIME_OMIT leaves that time as it is.
using FileTimes = std::array<timespec, 2>;
/// Sets the permission bits (07777) of an open file.
ZO_EXPORT bool setPermissions(int descriptor, mode_t mode);
/// Sets the owner and group of an open file; EPERM where the process may not give it away.
ZO_EXPORT bool setOwner(int descriptor, std::uint32_t owner, std::uint32_t group);
/// Sets the times of an open file.
ZO_EXPORT bool setTimes(int descriptor, const FileTimes& times);
/// Sets the times of name in the open directory itself, a link included.
ZO_EXPORT bool setTimesAt(int directory, const char* name, const FileTimes& times);
/// Cuts or extends an open file to size bytes.
ZO_EXPORT bool resize(int descriptor, std::uint64_t size);

/// Reads from the current position to the end, appending to text.
ZO_EXPORT bool readAll(int descriptor, std::string& text);
/// Writes all of data at offset; what was written before a failure stays.
ZO_EXPORT bool writeAll(int descriptor, const void* data, std::size_t size, off_t offset);
/// Copies the content of from, from its start, size bytes as measured (and whatever it gained
/// since), into the empty file to: shares blocks where the file system can (a reflink), else
/// copies inside the kernel, else through a buffer. The position of from is left as it was. A
/// failure leaves to partly written.
ZO_EXPORT bool copyContent(int from, int to, std::uint64_t size);
/// Whether the two open files hold the same bytes, read from their starts (their positions are
/// left as they were); false too when either cannot be read.
ZO_EXPORT bool haveSameContent(int first, int second);

/// What a file held when it was sealed: its size and a hash of its bytes. A file written without
/// a sync may, after the machine stopped, hold less or other bytes than were written (torn); its
/// seal, kept elsewhere, tells that apart from a file that holds what was written.
struct ContentSeal {
    std::uint64_t size = 0; ///< in bytes
    std::uint64_t hash = 0; ///< XXH3 of the bytes, 64 bits
    /// @{
    /// The same content, to the hash's certainty.
    bool operator==(const ContentSeal& other) const
    {
        return size == other.size && hash == other.hash;
    }
    bool operator!=(const ContentSeal& other) const { return !(*this == other); }
    /// @}
};

/// The seal of the open file's bytes, read from its start (its position is left as it was);
/// none when it cannot be read.
ZO_EXPORT std::optional<ContentSeal> sealOf(int descriptor);
/// The seal of the file path names, links followed; none when it cannot be read.
ZO_EXPORT std::optional<ContentSeal> sealOf(const char* path);

/// Where copyFile's destination can be seen while the copy is written.
enum class CopyTarget {
    /// By anyone: the content goes to an unnamed file (or, where the file system has none, a
    /// hidden one from hiddenTemplateBeside) in to's directory that takes the name only once it
    /// is complete.
    Visible,
    /// By no one yet, because to's directory is being built under a hidden name: the content is
    /// written under to directly, which costs a journalled file system less.
    Unseen,
    /// By anyone, over what name holds already (anything but a directory): the content is
    /// written to a hidden file from hiddenTemplateBeside beside it, renamed over name once
    /// complete, so that a failed copy (a full disk) leaves name as it was.
    Replacing
};

/// Copies the regular file from to the name to, which must not exist (EEXIST) unless target is
/// Replacing, with from's permissions, so that no partial file is ever seen under to; what a
/// failed copy wrote is removed, though a crash can leave a hidden file of purpose "copy" beside
/// to. Blocks are shared where the file system can (a reflink), else copied inside the kernel.
/// Nothing is synced: a caller that copies many files syncs once at the end (syncFileSystem).
ZO_EXPORT bool copyFile(const char* from, const char* to, CopyTarget target = CopyTarget::Visible);
/// copyFile from the open regular file from (from its start, its position left as it was) to the
/// name in the open directory; nothing is resolved by path.
ZO_EXPORT bool copyFileAt(int from, int directory, const char* name, CopyTarget target);

// The durability steps of an atomic replacement. Each but syncFileSystem can be made to fail on
// purpose through zo/fault.h.

/// Flushes the data of the file path names to the disk (fsync).
ZO_EXPORT bool syncFile(const char* path);
/// Flushes the data of an open file to the disk (fsync).
ZO_EXPORT bool syncFile(int descriptor);
/// Flushes a directory, so that the renames and removals in it survive a crash.
ZO_EXPORT bool syncDirectory(const char* path);
/// syncDirectory for an open directory.
ZO_EXPORT bool syncDirectory(int descriptor);
/// Renames from to to, replacing what to names (a link there is replaced, never followed).
ZO_EXPORT bool rename(const char* from, const char* to);
/// rename from the name from in the open directory fromDirectory to the name to in the open
/// directory toDirectory. A fault set for Rename applies to it too.
ZO_EXPORT bool renameAt(int fromDirectory, const char* from, int toDirectory, const char* to);
/// Swaps what the two paths name in one step, so that a directory replaces another one
/// atomically; fails where the file system cannot (then nothing changed). A fault set for
/// Rename applies to it too.
ZO_EXPORT bool exchange(const char* first, const char* second);
/// Renames from to to only while nothing is named to, else EEXIST (RENAME_NOREPLACE; where the
/// file system cannot, a plain rename once to was found free). A fault set for Rename applies
/// to it too.
ZO_EXPORT bool renameToFreeName(const char* from, const char* to);
/// renameToFreeName from the name from in the open directory fromDirectory to the name to in the
/// open directory toDirectory.
ZO_EXPORT bool renameToFreeNameAt(
    int fromDirectory, const char* from, int toDirectory, const char* to);
/// Flushes everything written to the file system that holds path (syncfs).
ZO_EXPORT bool syncFileSystem(const char* path);
/// syncFileSystem for the file system that holds the open file or directory.
ZO_EXPORT bool syncFileSystem(int descriptor);

/// The bytes an unprivileged writer may still use on the file system of descriptor.
ZO_EXPORT std::optional<std::uint64_t> availableSpace(int descriptor);

} // namespace zo::os

namespace std {
/// File identities as keys of unordered containers.
template <> struct hash<zo::os::FileIdentity> {
    /// Mixes device and inode.
    size_t operator()(const zo::os::FileIdentity& identity) const noexcept
    {
        return hash<uint64_t>()(identity.inode)
            ^ (hash<uint64_t>()(identity.device) * 0x9e3779b97f4a7c15ULL);
    }
};
} // namespace std
