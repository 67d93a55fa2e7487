#include <zo/treewalk.h>

#include <zo/changeevents.h>

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

namespace zo::os {
namespace {

// Descriptors a descent holds at most, besides those it must keep for links: enough that a
// walk of an ordinary tree never reopens anything, few enough to leave the process plenty.
constexpr std::size_t kHeldDirectories = 32;

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

std::optional<EntryType> typeOfDirectoryEntry(unsigned char type)
{
    switch (type) {
    case DT_REG:
        return EntryType::File;
    case DT_DIR:
        return EntryType::Directory;
    case DT_LNK:
        return EntryType::Link;
    case DT_UNKNOWN: // some file systems do not fill d_type
        return std::nullopt;
    default:
        return EntryType::Other;
    }
}

// How long before it is read a directory must have last changed for its listing to be kept:
// well beyond the resolution of any clock a kept file system's times come from.
constexpr std::chrono::seconds kSettledFor(2);

// Local file systems that keep change times to the nanosecond (ext2 to ext4, XFS, Btrfs, tmpfs,
// F2FS, bcachefs, ZFS); ext4's small inodes keep seconds, which kSettledFor covers.
constexpr std::array<std::uint32_t, 7> kExactTimes { 0xEF53, 0x58465342, 0x9123683E, 0x01021994,
    0xF2F52010, 0xCA451A4E, 0x2FC12FC1 };

class TreeWalker {
public:
    TreeWalker(const WalkOptions& options, const WalkVisitor& visit)
        : _options(options)
        , _visit(visit)
    {
    }

    void walk(UniqueFd top, const FileStatus& status)
    {
        if (_options.cache)
            _options.cache->beginWalk();
        DirectoryDescent descent(std::move(top), status.identity);
        startLevel(descent.directory(), 0, status);
        for (;;) {
            const std::size_t depth = descent.depth();
            Level& level = _levels[depth];
            if (level.next == level.listed().size()) {
                if (depth == 0)
                    break;
                _path.resize(level.pathLength);
                if (!descent.leave()) {
                    reportError(errno);
                    break;
                }
                continue;
            }
            const ListedEntry& listed = level.listed()[level.next++];
            if (listed.name[0] == '.' && !_options.includeHidden)
                continue;
            _path.resize(level.pathLength);
            if (depth != 0)
                _path += '/';
            _path += listed.name;
            if (!visitEntry(descent, listed, depth))
                break;
        }
        if (_options.cache)
            _options.cache->endWalk();
    }

private:
    struct Level {
        DirectoryListing entries;
        std::shared_ptr<const DirectoryListing> kept; ///< read earlier, in place of entries
        std::size_t next = 0;
        std::size_t pathLength = 0; ///< of the directory's own path

        const std::vector<ListedEntry>& listed() const
        {
            return kept ? kept->entries : entries.entries;
        }
    };

    // Lists the open directory of the given status (taken before it is read) for depth.
    void startLevel(int directory, std::size_t depth, const FileStatus& status)
    {
        if (_levels.size() <= depth)
            _levels.resize(depth + 1);
        Level& level = _levels[depth];
        level.next = 0;
        level.pathLength = _path.size();
        level.kept = _options.cache ? _options.cache->find(directory, status) : nullptr;
        if (level.kept)
            return;
        const bool read = level.entries.read(directory);
        if (!read)
            reportError(errno);
        if (_options.arrange)
            _options.arrange(level.entries);
        if (read && _options.cache)
            level.kept = _options.cache->keep(directory, status, level.entries);
    }

    // Visits the entry at the end of _path and enters it when it is a directory to walk; false
    // when the visitor stopped the walk.
    bool visitEntry(DirectoryDescent& descent, const ListedEntry& listed, std::size_t depth)
    {
        const bool isLink = listed.type == EntryType::Link;
        EntryType type = listed.type;
        std::optional<FileStatus> knownStatus;
        if (isLink && _options.followLinks) {
            knownStatus = statusAt(descent.directory(), listed.name.data(), true);
            if (knownStatus)
                type = knownStatus->type;
        }
        const std::string_view path = _path;
        const WalkStep step
            = _visit(WalkEntry(path, path.substr(path.size() - listed.name.size()), type, isLink,
                static_cast<int>(depth), descent.directory(), _options.followLinks, knownStatus));
        if (step == WalkStep::Stop)
            return false;
        if (type != EntryType::Directory || !_options.recursive || step == WalkStep::SkipDirectory)
            return true;
        // Only what was a link when the directory was read is followed.
        UniqueFd child = openDirectoryAt(descent.directory(), listed.name.data(), isLink);
        const std::optional<FileStatus> status = child ? os::status(child.get()) : std::nullopt;
        if (!status) {
            reportError(errno);
            return true;
        }
        if (descent.enter(std::move(child), status->identity, isLink))
            startLevel(descent.directory(), depth + 1, *status);
        return true;
    }

    void reportError(int error) const
    {
        if (_options.onError)
            _options.onError(_path, error);
    }

    const WalkOptions& _options;
    const WalkVisitor& _visit;
    std::string _path;
    // Kept from one directory to the next at the same depth, with their storage.
    std::vector<Level> _levels;
};

} // namespace

bool DirectoryListing::read(int directory)
{
    entries.clear();
    // The system writes its records, names included, into blocks that never move, each twice
    // the size of the one before, so that the entries can view the names at once.
    constexpr std::size_t kFirstBlock = 4096;
    constexpr std::size_t kRoomForRecords = 1024;
    std::size_t block = 0;
    std::size_t used = 0;
    for (;;) {
        const std::size_t size = kFirstBlock << std::min<std::size_t>(block, 6);
        if (used + kRoomForRecords > size) {
            ++block;
            used = 0;
            continue;
        }
        if (_blocks.size() == block)
            _blocks.emplace_back(new char[size]);
        char* const records = _blocks[block].get() + used;
        const ssize_t count = ::getdents64(directory, records, size - used);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0;
        used += static_cast<std::size_t>(count);
        for (ssize_t at = 0; at < count;) {
            const auto* record = reinterpret_cast<const dirent64*>(records + at);
            at += record->d_reclen;
            if (isDotOrDotDot(record->d_name))
                continue;
            std::optional<EntryType> type = typeOfDirectoryEntry(record->d_type);
            if (!type) {
                const std::optional<FileStatus> status = statusAt(directory, record->d_name, false);
                if (!status)
                    continue;
                type = status->type;
            }
            entries.push_back({ std::string_view(record->d_name), *type });
        }
    }
}

DirectoryListing DirectoryListing::copy() const
{
    std::size_t size = 0;
    for (const ListedEntry& entry : entries)
        size += entry.name.size() + 1;
    DirectoryListing copied;
    copied._blocks.emplace_back(new char[std::max<std::size_t>(size, 1)]);
    char* name = copied._blocks.back().get();
    copied.entries.reserve(entries.size());
    for (const ListedEntry& entry : entries) {
        std::copy(entry.name.begin(), entry.name.end(), name);
        name[entry.name.size()] = '\0';
        copied.entries.push_back({ std::string_view(name, entry.name.size()), entry.type });
        name += entry.name.size() + 1;
    }
    return copied;
}

std::shared_ptr<const DirectoryListing> ListingCache::find(int fd, const FileStatus& directory)
{
    const auto kept = _kept.find(directory.identity);
    if (kept == _kept.end())
        return nullptr;
    const std::optional<FileSystem>& fileSystem = fileSystemOf(fd, directory.identity.device);
    if (kept->second.changedSeconds != directory.changedSeconds
        || kept->second.changedNanoseconds != directory.changedNanoseconds || !fileSystem
        || fileSystem->id != kept->second.fileSystem) {
        _kept.erase(kept);
        return nullptr;
    }
    kept->second.used = true;
    return kept->second.listing;
}

std::shared_ptr<const DirectoryListing> ListingCache::keep(
    int fd, const FileStatus& directory, const DirectoryListing& listing)
{
    const auto changed = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(directory.changedSeconds)
            + std::chrono::nanoseconds(directory.changedNanoseconds)));
    const std::optional<FileSystem>& fileSystem = fileSystemOf(fd, directory.identity.device);
    if (changed > std::chrono::system_clock::now() - kSettledFor || !fileSystem
        || std::find(kExactTimes.begin(), kExactTimes.end(), fileSystem->type) == kExactTimes.end())
        return nullptr;
    auto copied = std::make_shared<const DirectoryListing>(listing.copy());
    _kept[directory.identity]
        = { directory.changedSeconds, directory.changedNanoseconds, fileSystem->id, copied, true };
    return copied;
}

ListingCache::ListingCache() = default;
ListingCache::~ListingCache() = default;

void ListingCache::beginWalk()
{
    if (!_mounts)
        _mounts = std::make_unique<MountChanges>();
    else if (_mounts->changed())
        _kept.clear();
}

void ListingCache::endWalk()
{
    // A device number may be another file system's by the next walk.
    _fileSystems.clear();
    for (auto kept = _kept.begin(); kept != _kept.end();) {
        if (kept->second.used) {
            kept->second.used = false;
            ++kept;
        } else {
            kept = _kept.erase(kept);
        }
    }
}

const std::optional<FileSystem>& ListingCache::fileSystemOf(int fd, std::uint64_t device)
{
    const auto known = _fileSystems.find(device);
    if (known != _fileSystems.end())
        return known->second;
    return _fileSystems[device] = os::fileSystemOf(fd);
}

DirectoryDescent::DirectoryDescent(UniqueFd top, const FileIdentity& identity)
{
    _levels.push_back({ std::move(top), identity, false });
    _inside.insert(identity);
}

bool DirectoryDescent::enter(UniqueFd directory, const FileIdentity& identity, bool throughLink)
{
    if (!_inside.insert(identity).second) {
        errno = ELOOP;
        return false;
    }
    _levels.push_back({ std::move(directory), identity, throughLink });
    if (++_held > kHeldDirectories)
        letGoOfOne();
    return true;
}

// Closes the highest ancestor that can be opened again through ".." of its child.
void DirectoryDescent::letGoOfOne()
{
    for (; _firstHeld + 1 < _levels.size(); ++_firstHeld) {
        Level& level = _levels[_firstHeld];
        if (level.fd && !_levels[_firstHeld + 1].throughLink) {
            level.fd = UniqueFd();
            --_held;
            ++_firstHeld;
            return;
        }
    }
}

bool DirectoryDescent::leave()
{
    const std::size_t parent = _levels.size() - 2;
    if (!_levels[parent].fd) {
        UniqueFd reopened = openDirectoryAt(directory(), "..");
        const std::optional<FileStatus> status
            = reopened ? os::status(reopened.get()) : std::nullopt;
        if (!status || status->identity != _levels[parent].identity) {
            errno = ESTALE;
            return false;
        }
        _levels[parent].fd = std::move(reopened);
        ++_held;
    }
    _inside.erase(_levels.back().identity);
    _levels.pop_back();
    --_held;
    _firstHeld = std::min(_firstHeld, parent);
    return true;
}

WalkEntry::WalkEntry(std::string_view path, std::string_view name, EntryType type, bool isLink,
    int depth, int directory, bool followLinks, std::optional<FileStatus> knownStatus)
    : path(path)
    , name(name)
    , type(type)
    , isLink(isLink)
    , depth(depth)
    , _directory(directory)
    , _followLinks(followLinks)
    , _statusRead(knownStatus.has_value())
    , _status(knownStatus)
{
}

const FileStatus* WalkEntry::status() const
{
    if (!_statusRead) {
        // name is a view into the walk's path buffer, which ends right after it.
        _status = statusAt(_directory, name.data(), _followLinks);
        _statusRead = true;
    }
    return _status ? &*_status : nullptr;
}

namespace {

bool walkFrom(UniqueFd top, const WalkOptions& options, const WalkVisitor& visit)
{
    const std::optional<FileStatus> status = top ? os::status(top.get()) : std::nullopt;
    if (!status)
        return false;
    TreeWalker(options, visit).walk(std::move(top), *status);
    return true;
}

} // namespace

bool walkTree(const std::string& root, const WalkOptions& options, const WalkVisitor& visit)
{
    return walkFrom(openDirectory(root.c_str()), options, visit);
}

bool walkTree(int root, const WalkOptions& options, const WalkVisitor& visit)
{
    // The walk closes what it walks: a descriptor of its own, at the same place.
    return walkFrom(openDirectoryAt(root, "."), options, visit);
}

} // namespace zo::os
