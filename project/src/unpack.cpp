#include "unpack.h"

#include "entry_check.h"
#include "errors.h"
#include "files.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace zo::project::internal {
namespace {

constexpr uint64_t reserve = 10 * 1024 * 1024;

using Times = std::array<timespec, 2>;

// The bytes that may be unpacked onto the volume of fd.
uint64_t spaceBudget(int fd, const std::string& archive)
{
    struct statvfs volume { };
    if (::fstatvfs(fd, &volume) != 0)
        fail(archive, "cannot query the destination's free space: " + systemError());
    const uint64_t available = static_cast<uint64_t>(volume.f_bavail) * volume.f_frsize;
    return available > reserve ? available - reserve : 0;
}

[[noreturn]] void failSpace(const std::string& archive, archive_entry* entry, uint64_t budget)
{
    failEntry(archive, entryName(entry),
        "unpacking needs more than the " + std::to_string(budget)
            + " bytes free on the destination volume beyond a 10 MiB reserve");
}

Times timesOf(archive_entry* entry)
{
    const auto time = [](bool set, time_t seconds, long nanoseconds) {
        return set ? timespec { seconds, nanoseconds } : timespec { 0, UTIME_OMIT };
    };
    return { time(archive_entry_atime_is_set(entry), archive_entry_atime(entry),
                 archive_entry_atime_nsec(entry)),
        time(archive_entry_mtime_is_set(entry), archive_entry_mtime(entry),
            archive_entry_mtime_nsec(entry)) };
}

// Only permission bits: set-id bits from an archive are not trusted.
mode_t permissionsOf(archive_entry* entry)
{
    return archive_entry_perm(entry) & 0777;
}

// The size the entry's header declares, 0 when it declares none.
uint64_t declaredSize(archive_entry* entry)
{
    if (!archive_entry_size_is_set(entry))
        return 0;
    return static_cast<uint64_t>(std::max<la_int64_t>(archive_entry_size(entry), 0));
}

void checkDeclaredSizes(EntryReader& reader, uint64_t budget, const std::string& archive)
{
    uint64_t declared = 0;
    while (archive_entry* entry = reader.next()) {
        checkEntry(entry, archive);
        if (archive_entry_filetype(entry) != AE_IFREG)
            continue;
        const uint64_t size = declaredSize(entry);
        if (size > budget - declared)
            failSpace(archive, entry, budget);
        declared += size;
    }
}

// Writes entries below a root directory through descriptors opened without following links,
// so that no link, whether from the archive or already there, leads a write outside.
class DiskWriter {
public:
    DiskWriter(int rootFd, std::string archive, uint64_t budget)
        : _root(rootFd)
        , _archive(std::move(archive))
        , _budget(budget)
    {
    }

    void write(EntryReader& reader, archive_entry* entry);
    // Gives directories their modes and times once nothing more is written into them.
    void finish();

private:
    struct Target {
        std::string entry;
        std::vector<std::string> parts;
        int parent;
    };
    struct PendingDirectory {
        std::string entry;
        std::vector<std::string> parts;
        mode_t mode;
        Times times;
    };

    int openParent(const std::vector<std::string>& parts, const std::string& entry);
    UniqueFd openDirectory(
        int parent, const std::string& name, const std::string& entry, bool create) const;
    void removeExisting(const Target& target) const;
    void writeDirectory(const Target& target, archive_entry* entry);
    void writeSymlink(const Target& target, archive_entry* entry) const;
    void writeFile(const Target& target, EntryReader& reader, archive_entry* entry);
    void charge(uint64_t bytes, archive_entry* entry);
    [[noreturn]] void failSystem(const std::string& entry, const std::string& what) const;

    int _root;
    std::string _archive;
    uint64_t _budget;
    uint64_t _written = 0;
    // The parent directory of the last entry: archives list siblings together.
    std::vector<std::string> _cachedParts;
    UniqueFd _cachedParent;
    std::vector<PendingDirectory> _pending;
};

void DiskWriter::write(EntryReader& reader, archive_entry* entry)
{
    std::vector<std::string> parts = checkEntry(entry, _archive);
    if (parts.empty())
        return; // the destination itself keeps its own mode
    const std::string name = entryName(entry);
    const int parent = openParent(parts, name);
    const Target target { name, std::move(parts), parent };
    switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
        return writeDirectory(target, entry);
    case AE_IFLNK:
        return writeSymlink(target, entry);
    default:
        return writeFile(target, reader, entry);
    }
}

void DiskWriter::finish()
{
    // Deepest first: a parent made unsearchable must not lock its children out.
    std::stable_sort(
        _pending.begin(), _pending.end(), [](const PendingDirectory& a, const PendingDirectory& b) {
            return a.parts.size() > b.parts.size();
        });
    for (const PendingDirectory& directory : _pending) {
        const int parent = openParent(directory.parts, directory.entry);
        const UniqueFd fd = openDirectory(parent, directory.parts.back(), directory.entry, false);
        if (::fchmod(fd.get(), directory.mode) != 0
            || ::futimens(fd.get(), directory.times.data()) != 0)
            failSystem(directory.entry, "cannot set the directory's mode and times");
    }
}

int DiskWriter::openParent(const std::vector<std::string>& parts, const std::string& entry)
{
    const std::vector<std::string> parentParts(parts.begin(), parts.end() - 1);
    if (parentParts.empty())
        return _root;
    if (_cachedParent && parentParts == _cachedParts)
        return _cachedParent.get();
    UniqueFd directory;
    for (const std::string& part : parentParts)
        directory = openDirectory(directory ? directory.get() : _root, part, entry, true);
    _cachedParts = parentParts;
    _cachedParent = std::move(directory);
    return _cachedParent.get();
}

UniqueFd DiskWriter::openDirectory(
    int parent, const std::string& name, const std::string& entry, bool create) const
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd fd(::openat(parent, name.c_str(), flags));
    if (!fd && errno == ENOENT && create) {
        if (::mkdirat(parent, name.c_str(), 0755) != 0 && errno != EEXIST)
            failSystem(entry, "cannot create directory '" + name + "'");
        fd = UniqueFd(::openat(parent, name.c_str(), flags));
    }
    if (fd)
        return fd;
    const int error = errno;
    struct stat status { };
    if ((error == ELOOP || error == ENOTDIR)
        && ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        failEntry(_archive, entry,
            S_ISLNK(status.st_mode) ? "writing through the symbolic link '" + name + "' is refused"
                                    : "'" + name + "' is in the way of a directory");
    }
    failEntry(_archive, entry, "cannot open directory '" + name + "': " + systemError(error));
}

void DiskWriter::removeExisting(const Target& target) const
{
    if (::unlinkat(target.parent, target.parts.back().c_str(), 0) == 0 || errno == ENOENT)
        return;
    if (errno == EISDIR)
        failEntry(_archive, target.entry, "a directory is in the way");
    failSystem(target.entry, "cannot replace the existing file");
}

void DiskWriter::writeDirectory(const Target& target, archive_entry* entry)
{
    const char* name = target.parts.back().c_str();
    // Owner-only until finish: a read-only directory would refuse its own contents.
    if (::mkdirat(target.parent, name, 0700) != 0) {
        struct stat status { };
        if (errno != EEXIST || ::fstatat(target.parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            failSystem(target.entry, "cannot create the directory");
        if (!S_ISDIR(status.st_mode)) {
            removeExisting(target);
            if (::mkdirat(target.parent, name, 0700) != 0)
                failSystem(target.entry, "cannot create the directory");
        }
    }
    _pending.push_back({ target.entry, target.parts, permissionsOf(entry), timesOf(entry) });
}

void DiskWriter::writeSymlink(const Target& target, archive_entry* entry) const
{
    removeExisting(target);
    const char* name = target.parts.back().c_str();
    const Times times = timesOf(entry);
    if (::symlinkat(archive_entry_symlink(entry), target.parent, name) != 0
        || ::utimensat(target.parent, name, times.data(), AT_SYMLINK_NOFOLLOW) != 0)
        failSystem(target.entry, "cannot create the symbolic link");
}

void DiskWriter::writeFile(const Target& target, EntryReader& reader, archive_entry* entry)
{
    removeExisting(target);
    UniqueFd fd(::openat(target.parent, target.parts.back().c_str(),
        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd)
        failSystem(target.entry, "cannot create the file");
    // Offsets may skip holes, so the file's extent is what counts against the budget.
    uint64_t extent = 0;
    Block block;
    while (reader.read(block)) {
        const uint64_t end = static_cast<uint64_t>(block.offset) + block.size;
        if (end > extent) {
            charge(end - extent, entry);
            extent = end;
        }
        if (!writeAll(fd.get(), block.data, block.size, block.offset))
            failSystem(target.entry, "cannot write the file");
    }
    // A hole at the end shows only in the declared size.
    const uint64_t declared = declaredSize(entry);
    if (declared > extent) {
        charge(declared - extent, entry);
        if (::ftruncate(fd.get(), static_cast<off_t>(declared)) != 0)
            failSystem(target.entry, "cannot extend the file");
    }
    const Times times = timesOf(entry);
    if (::fchmod(fd.get(), permissionsOf(entry)) != 0 || ::futimens(fd.get(), times.data()) != 0
        || !fd.close())
        failSystem(target.entry, "cannot finish the file");
}

void DiskWriter::charge(uint64_t bytes, archive_entry* entry)
{
    if (bytes > _budget - _written)
        failSpace(_archive, entry, _budget);
    _written += bytes;
}

void DiskWriter::failSystem(const std::string& entry, const std::string& what) const
{
    failEntry(_archive, entry, what + ": " + systemError());
}

} // namespace

void unpack(const ReaderFactory& open, int rootFd, const std::string& archive)
{
    const uint64_t budget = spaceBudget(rootFd, archive);
    checkDeclaredSizes(*open(), budget, archive);
    const std::unique_ptr<EntryReader> reader = open();
    DiskWriter writer(rootFd, archive, budget);
    while (archive_entry* entry = reader->next())
        writer.write(*reader, entry);
    writer.finish();
}

} // namespace zo::project::internal
