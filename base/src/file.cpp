#include <zo/fault.h>
#include <zo/file.h>
#include <zo/treewalk.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <random>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace zo::os {
namespace {

constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int readFlags = O_RDONLY | O_CLOEXEC;

EntryType typeOfMode(mode_t mode)
{
    if (S_ISREG(mode))
        return EntryType::File;
    if (S_ISDIR(mode))
        return EntryType::Directory;
    if (S_ISLNK(mode))
        return EntryType::Link;
    return EntryType::Other;
}

FileStatus fileStatusOf(const struct stat& status)
{
    return FileStatus { typeOfMode(status.st_mode), static_cast<std::uint64_t>(status.st_size),
        static_cast<std::int64_t>(status.st_mtim.tv_sec),
        static_cast<std::int32_t>(status.st_mtim.tv_nsec),
        { static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino) },
        static_cast<std::uint32_t>(status.st_mode & 07777), status.st_uid, status.st_gid,
        static_cast<std::uint64_t>(status.st_nlink),
        static_cast<std::int64_t>(status.st_ctim.tv_sec),
        static_cast<std::int32_t>(status.st_ctim.tv_nsec) };
}

// The armed fault: its step (-1 when none), how many calls of it still pass, and its errno.
std::atomic<int> faultStep { -1 };
std::atomic<int> faultCountdown { 0 };
std::atomic<int> faultError { 0 };

// Whether this call of step is the one a test asked to fail; errno is set when it is.
bool failsOnPurpose(fault::Step step)
{
    if (faultStep.load() != static_cast<int>(step) || faultCountdown.fetch_sub(1) != 1)
        return false;
    faultStep.store(-1);
    errno = faultError.load();
    return true;
}

// Replaces the trailing "XXXXXX" of name with random letters until create, which makes what the
// name names, succeeds; false with errno set when it fails otherwise than with EEXIST, and EINVAL
// for a name without the placeholder.
template <typename Create> bool fillTemplate(std::string& name, Create create)
{
    constexpr std::string_view kLetters
        = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    constexpr std::string_view kPlaceholder = "XXXXXX";
    if (name.size() < kPlaceholder.size()
        || name.compare(name.size() - kPlaceholder.size(), kPlaceholder.size(), kPlaceholder)
            != 0) {
        errno = EINVAL;
        return false;
    }
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<std::size_t> letter(0, kLetters.size() - 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
        for (std::size_t at = name.size() - kPlaceholder.size(); at < name.size(); ++at)
            name[at] = kLetters[letter(random)];
        if (create())
            return true;
        if (errno != EEXIST)
            return false;
    }
    return false;
}

bool syncPath(const char* path)
{
    UniqueFd descriptor = openForReading(path);
    return descriptor && ::fsync(descriptor.get()) == 0 && descriptor.close();
}

// Pushes the components of path onto pending so that the first one is taken first.
void pushComponents(std::vector<std::string>& pending, std::string_view path)
{
    std::vector<std::string> components;
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start)
            components.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    pending.insert(pending.end(), components.rbegin(), components.rend());
}

std::string joined(const std::string& directory, const std::string& name)
{
    return directory == "/" ? "/" + name : directory + '/' + name;
}

// The kernel's own limit on the links one resolution follows.
constexpr int kMaxLinksFollowed = 40;

// The absolute path as the system resolves it, links followed one component at a time, as far
// as something exists; beyond that, "." and ".." are applied as text.
std::optional<std::string> resolvePhysically(const std::string& path)
{
    std::vector<std::string> pending;
    if (path.empty() || path[0] != '/') {
        std::unique_ptr<char, decltype(&std::free)> workingDirectory(
            ::getcwd(nullptr, 0), &std::free);
        if (!workingDirectory)
            return std::nullopt;
        pushComponents(pending, path);
        pushComponents(pending, workingDirectory.get());
    } else {
        pushComponents(pending, path);
    }
    std::string resolved = "/";
    int linksFollowed = 0;
    bool exists = true;
    while (!pending.empty()) {
        std::string component = std::move(pending.back());
        pending.pop_back();
        if (component == ".")
            continue;
        if (component == "..") {
            const std::size_t slash = resolved.rfind('/');
            resolved.resize(slash == 0 ? 1 : slash);
            continue;
        }
        std::string next = joined(resolved, component);
        const std::optional<FileStatus> found = exists ? linkStatus(next.c_str()) : std::nullopt;
        exists = found.has_value();
        if (found && found->type == EntryType::Link) {
            const std::optional<std::string> target = readLink(next.c_str());
            if (!target || ++linksFollowed > kMaxLinksFollowed)
                return std::nullopt;
            if (!target->empty() && (*target)[0] == '/')
                resolved = "/";
            pushComponents(pending, *target);
            continue;
        }
        resolved = std::move(next);
    }
    return resolved;
}

} // namespace

UniqueFd::UniqueFd(UniqueFd&& other) noexcept
    : _fd(std::exchange(other._fd, -1))
{
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other) {
        const int saved = errno;
        close();
        errno = saved;
        _fd = std::exchange(other._fd, -1);
    }
    return *this;
}

UniqueFd::~UniqueFd()
{
    const int saved = errno;
    close();
    errno = saved;
}

bool UniqueFd::close()
{
    // Linux frees the descriptor even when close fails, so it is never retried.
    return _fd < 0 || ::close(std::exchange(_fd, -1)) == 0;
}

std::optional<FileStatus> statusAt(int directory, const char* name, bool followLinks)
{
    struct stat status { };
    if (::fstatat(directory, name, &status, followLinks ? 0 : AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return fileStatusOf(status);
}

std::optional<FileStatus> status(int descriptor)
{
    struct stat status { };
    if (::fstat(descriptor, &status) != 0)
        return std::nullopt;
    return fileStatusOf(status);
}

bool ownedByThisUser(const FileStatus& status)
{
    return status.owner == ::geteuid();
}

std::optional<FileStatus> status(const char* path)
{
    return statusAt(AT_FDCWD, path, true);
}

std::optional<FileStatus> linkStatus(const char* path)
{
    return statusAt(AT_FDCWD, path, false);
}

std::optional<FileVersion> versionOf(const char* path)
{
    const std::optional<FileStatus> found = status(path);
    return found ? std::optional(FileVersion::of(*found)) : std::nullopt;
}

std::string versionText(const FileVersion& version)
{
    return std::to_string(version.identity.device) + ' ' + std::to_string(version.identity.inode)
        + ' ' + std::to_string(version.size) + ' ' + std::to_string(version.modifiedSeconds) + ' '
        + std::to_string(version.modifiedNanoseconds);
}

std::optional<FileVersion> versionFromText(std::string_view text)
{
    FileVersion version;
    const char* at = text.data();
    const char* const end = text.data() + text.size();
    // Each number ends at the next space, the last one at the end of the text.
    const auto read = [&](auto& number, bool last) {
        const auto [after, error] = std::from_chars(at, end, number);
        const bool ended = last ? after == end : after != end && *after == ' ';
        at = after + 1;
        return error == std::errc() && ended;
    };
    if (read(version.identity.device, false) && read(version.identity.inode, false)
        && read(version.size, false) && read(version.modifiedSeconds, false)
        && read(version.modifiedNanoseconds, true))
        return version;
    return std::nullopt;
}

std::optional<std::string> readLink(const char* path)
{
    std::string target(PATH_MAX, '\0');
    for (;;) {
        const ssize_t length = ::readlink(path, target.data(), target.size());
        if (length < 0)
            return std::nullopt;
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
        target.resize(target.size() * 2);
    }
}

std::optional<std::string> resolveBeneath(const std::string& root, const std::string& path)
{
    return BeneathResolver(root).resolve(path);
}

BeneathResolver::BeneathResolver(std::string root)
    : _root(std::move(root))
{
}

const std::optional<std::string>& BeneathResolver::resolvedRoot()
{
    if (!_resolvedRoot) {
        _resolvedRoot = resolvePhysically(_root);
        // The paths below start from it rather than from the top.
        _resolved.emplace(_root, *_resolvedRoot);
    }
    return *_resolvedRoot;
}

const std::optional<std::string>& BeneathResolver::resolvedDirectory(const std::string& directory)
{
    const auto known = _resolved.find(directory);
    if (known != _resolved.end())
        return known->second;
    // Down from the nearest directory above that is known, or else from the topmost one,
    // resolved whole, one component at a time: a tree's directories cost one status each. A
    // doubled slash is left to the whole resolution.
    std::vector<std::size_t> ends { directory.size() };
    std::optional<std::string> resolved;
    for (;;) {
        const std::size_t slash = directory.rfind('/', ends.back() - 1);
        if (slash + 1 == ends.back())
            return _resolved[directory] = resolvePhysically(directory);
        if (slash == std::string::npos || slash == 0) {
            resolved = resolvePhysically(directory.substr(0, ends.back()));
            break;
        }
        const auto above = _resolved.find(directory.substr(0, slash));
        if (above != _resolved.end()) {
            resolved = above->second;
            ends.push_back(slash);
            break;
        }
        ends.push_back(slash);
    }
    _resolved[directory.substr(0, ends.back())] = resolved;
    for (auto end = std::next(ends.rbegin()); end != ends.rend(); ++end) {
        const std::size_t slash = directory.rfind('/', *end - 1);
        if (resolved) {
            resolved = joined(*resolved, directory.substr(slash + 1, *end - slash - 1));
            // Missing (beyond what exists, the rest is text) or no link: the joined path is it.
            const std::optional<FileStatus> found = linkStatus(resolved->c_str());
            if (found && found->type == EntryType::Link)
                resolved = resolvePhysically(*resolved);
        }
        _resolved[directory.substr(0, *end)] = resolved;
    }
    return _resolved[directory];
}

std::optional<std::string> BeneathResolver::resolve(const std::string& path)
{
    const std::string named = !path.empty() && path[0] == '/' ? path : _root + '/' + path;
    const std::optional<std::string>& top = resolvedRoot();
    if (!top)
        return std::nullopt;
    auto known = _resolved.find(named);
    if (known == _resolved.end()) {
        const std::size_t slash = named.rfind('/');
        const std::string_view name = std::string_view(named).substr(slash + 1);
        std::optional<std::string> resolved;
        // "." and ".." after a missing component apply as text, which only the whole
        // resolution knows; so does a root's own last component or a trailing slash.
        const std::string delimited = "/" + named + "/";
        if (name.empty() || slash == 0 || delimited.find("/./") != std::string::npos
            || delimited.find("/../") != std::string::npos) {
            resolved = resolvePhysically(named);
        } else if (const std::optional<std::string>& directory
            = resolvedDirectory(named.substr(0, slash))) {
            resolved = joined(*directory, std::string(name));
            // Missing (beyond what exists, the rest is text) or no link: the joined path is it.
            const std::optional<FileStatus> found = linkStatus(resolved->c_str());
            if (found && found->type == EntryType::Link)
                resolved = resolvePhysically(*resolved);
        }
        known = _resolved.emplace(named, std::move(resolved)).first;
    }
    const std::optional<std::string>& resolved = known->second;
    const bool inside = resolved
        && (*top == "/" || *resolved == *top
            || (resolved->size() > top->size() && resolved->compare(0, top->size(), *top) == 0
                && (*resolved)[top->size()] == '/'));
    return inside ? resolved : std::nullopt;
}

bool isReadable(const char* path)
{
    return ::access(path, R_OK) == 0;
}

bool isReadableAt(int directory, const char* name)
{
    return ::faccessat(directory, name, R_OK, 0) == 0;
}

bool isWritableAt(int directory, const char* name)
{
    return ::faccessat(directory, name, W_OK, 0) == 0;
}

bool isReadableAndWritableAt(int directory, const char* name)
{
    return ::faccessat(directory, name, R_OK | W_OK, 0) == 0;
}

std::optional<FileSystem> fileSystemOf(int fd)
{
    struct statfs fileSystem { };
    if (::fstatfs(fd, &fileSystem) != 0)
        return std::nullopt;
    std::uint64_t id = 0;
    static_assert(sizeof(fileSystem.f_fsid) == sizeof(id));
    std::memcpy(&id, &fileSystem.f_fsid, sizeof(id));
    return FileSystem { static_cast<std::uint32_t>(fileSystem.f_type), id };
}

UniqueFd openDirectory(const char* path)
{
    return UniqueFd(::open(path, directoryFlags));
}

bool changeDirectory(const char* path)
{
    return ::chdir(path) == 0;
}

UniqueFd openDirectoryAt(int directory, const char* name, bool followLink)
{
    return UniqueFd(::openat(directory, name, directoryFlags | (followLink ? 0 : O_NOFOLLOW)));
}

UniqueFd openDirectoryBeneath(const std::string& root, const std::string& directory)
{
    const std::optional<std::string> top = resolvePhysically(root);
    const bool below = top && directory.compare(0, top->size(), *top) == 0
        && (directory.size() == top->size() || *top == "/" || directory[top->size()] == '/');
    if (!below) {
        errno = EXDEV;
        return UniqueFd();
    }
    UniqueFd at = openDirectory(top->c_str());
    std::vector<std::string> components;
    pushComponents(components, directory.substr(top->size()));
    while (at && !components.empty()) {
        at = openDirectoryAt(at.get(), components.back().c_str());
        components.pop_back();
    }
    return at;
}

UniqueFd openPlace(const char* path)
{
    return openPlaceAt(AT_FDCWD, path);
}

UniqueFd openPlaceAt(int directory, const char* name)
{
    return UniqueFd(::openat(directory, name, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

UniqueFd duplicate(int descriptor)
{
    return UniqueFd(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
}

UniqueFd openForReading(const char* path)
{
    return UniqueFd(::open(path, readFlags));
}

UniqueFd openForReadingAt(int directory, const char* name, bool followLink)
{
    // Non-blocking, so that a fifo put in a file's place does not hold the caller.
    return UniqueFd(
        ::openat(directory, name, readFlags | O_NONBLOCK | (followLink ? 0 : O_NOFOLLOW)));
}

UniqueFd createFileAt(int directory, const char* name, mode_t mode)
{
    return UniqueFd(
        ::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
}

UniqueFd createTemporaryFile(std::string& pathTemplate)
{
    return UniqueFd(::mkostemp(pathTemplate.data(), O_CLOEXEC));
}

bool createTemporaryDirectory(std::string& pathTemplate)
{
    return ::mkdtemp(pathTemplate.data()) != nullptr;
}

UniqueFd createUniqueFile(std::string& pathTemplate, mode_t mode)
{
    return createUniqueFileAt(AT_FDCWD, pathTemplate, mode);
}

UniqueFd createUnnamedFile(int directory, const char* name, mode_t mode)
{
    return UniqueFd(::openat(directory, name, O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
}

// Linking by the descriptor alone needs CAP_DAC_READ_SEARCH on older kernels (newer ones also
// let the process that opened the file), which refuse it with ENOENT; the file's /proc name
// always works, at the price of a lookup in /proc per file. The first refusal settles it for
// the process.
bool linkUnnamedFile(int descriptor, int directory, const char* name)
{
    static std::atomic<bool> byDescriptor { true };
    if (byDescriptor.load(std::memory_order_relaxed)) {
        if (::linkat(descriptor, "", directory, name, AT_EMPTY_PATH) == 0)
            return true;
        if (errno != ENOENT)
            return false;
    }
    const std::string self = "/proc/self/fd/" + std::to_string(descriptor);
    if (::linkat(AT_FDCWD, self.c_str(), directory, name, AT_SYMLINK_FOLLOW) != 0)
        return false;
    // ENOENT can also mean a missing directory; only a link that worked here tells it apart.
    byDescriptor.store(false, std::memory_order_relaxed);
    return true;
}

bool linkUnnamedFileUnique(int descriptor, std::string& pathTemplate)
{
    return fillTemplate(
        pathTemplate, [&] { return linkUnnamedFile(descriptor, AT_FDCWD, pathTemplate.c_str()); });
}

bool makeUniqueDirectory(std::string& pathTemplate, mode_t mode)
{
    return makeUniqueDirectoryAt(AT_FDCWD, pathTemplate, mode);
}

bool makeUniqueDirectoryAt(int directory, std::string& nameTemplate, mode_t mode)
{
    return fillTemplate(
        nameTemplate, [&] { return ::mkdirat(directory, nameTemplate.c_str(), mode) == 0; });
}

UniqueFd createUniqueFileAt(int directory, std::string& nameTemplate, mode_t mode)
{
    UniqueFd created;
    fillTemplate(nameTemplate, [&] {
        created = createFileAt(directory, nameTemplate.c_str(), mode);
        return static_cast<bool>(created);
    });
    return created;
}

bool makeDirectoryAt(int directory, const char* name, mode_t mode)
{
    return ::mkdirat(directory, name, mode) == 0;
}

bool makeSymlinkAt(const char* target, int directory, const char* name)
{
    return ::symlinkat(target, directory, name) == 0;
}

bool linkAt(int fromDirectory, const char* fromName, int toDirectory, const char* toName)
{
    return ::linkat(fromDirectory, fromName, toDirectory, toName, 0) == 0;
}

bool remove(const char* path)
{
    return !failsOnPurpose(fault::Step::Remove) && ::unlink(path) == 0;
}

bool removeAt(int directory, const char* name)
{
    return ::unlinkat(directory, name, 0) == 0;
}

bool removeDirectoryAt(int directory, const char* name)
{
    return ::unlinkat(directory, name, AT_REMOVEDIR) == 0;
}

bool removeTreeAt(int directory, const char* name)
{
    if (::unlinkat(directory, name, 0) == 0)
        return true;
    if (errno != EISDIR) // what Linux says of a directory
        return false;
    const UniqueFd inner(::openat(directory, name, directoryFlags | O_NOFOLLOW));
    const std::optional<FileStatus> outer = status(directory);
    const std::optional<FileStatus> entered = inner ? status(inner.get()) : std::nullopt;
    if (!outer || !entered)
        return false;
    // What is mounted there belongs to another file system, and to no tree of ours.
    if (entered->identity.device != outer->identity.device) {
        errno = EXDEV;
        return false;
    }
    // Read whole before removing, as a directory read while it changes may skip entries.
    std::vector<std::string> names;
    WalkOptions options;
    options.includeHidden = true;
    options.followLinks = false;
    options.recursive = false;
    if (!walkTree(inner.get(), options, [&names](const WalkEntry& entry) {
            names.emplace_back(entry.name);
            return WalkStep::Continue;
        }))
        return false;
    for (const std::string& entry : names)
        if (!removeTreeAt(inner.get(), entry.c_str()) && errno != ENOENT)
            return false;
    return ::unlinkat(directory, name, AT_REMOVEDIR) == 0;
}

bool setPermissions(int descriptor, mode_t mode)
{
    return ::fchmod(descriptor, mode) == 0;
}

bool setOwner(int descriptor, std::uint32_t owner, std::uint32_t group)
{
    return ::fchown(descriptor, owner, group) == 0;
}

bool setTimes(int descriptor, const FileTimes& times)
{
    return ::futimens(descriptor, times.data()) == 0;
}

bool setTimesAt(int directory, const char* name, const FileTimes& times)
{
    return ::utimensat(directory, name, times.data(), AT_SYMLINK_NOFOLLOW) == 0;
}

bool resize(int descriptor, std::uint64_t size)
{
    return ::ftruncate(descriptor, static_cast<off_t>(size)) == 0;
}

bool readAll(int descriptor, std::string& text)
{
    char buffer[16 * 1024];
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
        if (count == 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
        if (count > 0)
            text.append(buffer, static_cast<std::size_t>(count));
    }
}

bool writeAll(int descriptor, const void* data, std::size_t size, off_t offset)
{
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::pwrite(descriptor, bytes, size, offset);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
        offset += written;
    }
    return true;
}

std::optional<std::uint64_t> availableSpace(int descriptor)
{
    struct statvfs volume { };
    if (::fstatvfs(descriptor, &volume) != 0)
        return std::nullopt;
    return static_cast<std::uint64_t>(volume.f_bavail) * volume.f_frsize;
}

bool syncFile(const char* path)
{
    return !failsOnPurpose(fault::Step::SyncFile) && syncPath(path);
}

bool syncFile(int descriptor)
{
    return !failsOnPurpose(fault::Step::SyncFile) && ::fsync(descriptor) == 0;
}

bool syncDirectory(const char* path)
{
    return !failsOnPurpose(fault::Step::SyncDirectory) && syncPath(path);
}

bool syncDirectory(int descriptor)
{
    return !failsOnPurpose(fault::Step::SyncDirectory) && ::fsync(descriptor) == 0;
}

bool rename(const char* from, const char* to)
{
    return !failsOnPurpose(fault::Step::Rename) && std::rename(from, to) == 0;
}

bool renameAt(int fromDirectory, const char* from, int toDirectory, const char* to)
{
    return !failsOnPurpose(fault::Step::Rename)
        && ::renameat(fromDirectory, from, toDirectory, to) == 0;
}

bool exchange(const char* first, const char* second)
{
    return !failsOnPurpose(fault::Step::Rename)
        && ::renameat2(AT_FDCWD, first, AT_FDCWD, second, RENAME_EXCHANGE) == 0;
}

bool renameToFreeName(const char* from, const char* to)
{
    return renameToFreeNameAt(AT_FDCWD, from, AT_FDCWD, to);
}

bool renameToFreeNameAt(int fromDirectory, const char* from, int toDirectory, const char* to)
{
    if (failsOnPurpose(fault::Step::Rename))
        return false;
    if (::renameat2(fromDirectory, from, toDirectory, to, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL)
        return false;
    if (statusAt(toDirectory, to, false)) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(fromDirectory, from, toDirectory, to) == 0;
}

bool syncFileSystem(const char* path)
{
    const UniqueFd fd = openForReading(path);
    return fd && syncFileSystem(fd.get());
}

bool syncFileSystem(int descriptor)
{
    return ::syncfs(descriptor) == 0;
}

namespace fault {

void inject(Step step, int nth, int error)
{
    faultStep.store(-1);
    faultCountdown.store(nth);
    faultError.store(error);
    faultStep.store(static_cast<int>(step));
}

void clear()
{
    faultStep.store(-1);
}

} // namespace fault

} // namespace zo::os
