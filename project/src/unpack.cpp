#include "unpack.h"

#include "directory_tree.h"
#include "entry_check.h"
#include "errors.h"
#include "files.h"

#include <zo/file.h>

#include <algorithm>
#include <array>
#include <sys/stat.h>
#include <unordered_set>
#include <vector>

namespace zo::project::detail {
namespace {

using Node = DirectoryTree::Node;
using Times = os::FileTimes;

constexpr uint64_t reserve = 10 * 1024 * 1024;

// The bytes that may be unpacked onto the volume of fd.
uint64_t spaceBudget(int fd, const std::string& archive)
{
    const std::optional<uint64_t> available = os::availableSpace(fd);
    if (!available)
        fail(archive, "cannot query the destination's free space: " + systemError());
    return *available > reserve ? *available - reserve : 0;
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

// "a/b/c" split into "a/b" and "c".
std::pair<std::string_view, std::string_view> splitLast(std::string_view path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos)
        return { {}, path };
    return { path.substr(0, slash), path.substr(slash + 1) };
}

using Place = NameIn<std::string>;

// Writes entries below a root directory through descriptors opened without following links.
// What it created is removed again unless it finished.
class DiskWriter {
public:
    DiskWriter(int rootFd, std::string archive)
        : _tree(rootFd, archive)
        , _archive(std::move(archive))
        , _budget(spaceBudget(rootFd, _archive))
    {
    }
    DiskWriter(const DiskWriter&) = delete;
    DiskWriter& operator=(const DiskWriter&) = delete;
    ~DiskWriter();

    void write(EntryReader& reader, archive_entry* entry);
    // Gives directories their modes and times once nothing more is written into them.
    void finish();

private:
    struct Target {
        const std::string& entry;
        const std::string& path; // the entry's name as checkEntry gives it
        Place place;
        int parentFd;
    };
    struct PendingDirectory {
        Node node;
        mode_t mode;
        Times times;
    };

    UniqueFd openHardLinkTarget(archive_entry* entry, const std::string& name);
    void removeExisting(const Target& target) const;
    void writeDirectory(const Target& target, archive_entry* entry);
    void writeSymlink(const Target& target, archive_entry* entry);
    void writeFile(
        const Target& target, EntryReader& reader, archive_entry* entry, const UniqueFd& source);
    UniqueFd createFile(const Target& target);
    void requireSpace(uint64_t bytes, const std::string& entry) const;
    void charge(uint64_t bytes, const std::string& entry);
    [[noreturn]] void failSystem(const std::string& entry, const std::string& what) const;

    DirectoryTree _tree;
    std::string _archive;
    uint64_t _budget;
    uint64_t _written = 0;
    std::vector<PendingDirectory> _pending;
    // The regular files written so far: the only names a hard link may point to.
    std::unordered_set<Place, Place::Hash> _files;
    // Files and links in creation order, for removal when unpacking fails.
    std::vector<Place> _created;
    bool _finished = false;
};

DiskWriter::~DiskWriter()
{
    if (_finished)
        return;
    try {
        for (auto place = _created.rbegin(); place != _created.rend(); ++place)
            os::removeAt(_tree.open(place->directory, {}, false), place->name.c_str());
        for (const Node node : _tree.created())
            os::removeDirectoryAt(
                _tree.open(_tree.parent(node), {}, false), _tree.name(node).c_str());
    } catch (const std::exception&) {
        // A directory that cannot be reached any more keeps what it holds.
    }
}

void DiskWriter::write(EntryReader& reader, archive_entry* entry)
{
    const std::string path = checkEntry(entry, _archive);
    if (path.empty())
        return; // the destination itself keeps its own mode
    const std::string name = entryName(entry);
    const UniqueFd linked = openHardLinkTarget(entry, name);
    const auto [parentPath, leaf] = splitLast(path);
    const Node parent = _tree.node(parentPath);
    const Target target { name, path, { parent, std::string(leaf) },
        _tree.open(parent, name, true) };
    // Whatever was at the place is replaced, and a hard link may no longer name it.
    _files.erase(target.place);
    if (linked)
        return writeFile(target, reader, entry, linked);
    switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
        return writeDirectory(target, entry);
    case AE_IFLNK:
        return writeSymlink(target, entry);
    default:
        return writeFile(target, reader, entry, linked);
    }
}

void DiskWriter::finish()
{
    // Deepest first, each through its parent: a directory made unsearchable must not lock out
    // the way to the others.
    std::stable_sort(_pending.begin(), _pending.end(),
        [this](const PendingDirectory& a, const PendingDirectory& b) {
            return _tree.depth(a.node) > _tree.depth(b.node);
        });
    for (const PendingDirectory& directory : _pending) {
        const int parent = _tree.open(_tree.parent(directory.node), {}, false);
        const std::string& name = _tree.name(directory.node);
        const UniqueFd fd = os::openDirectoryAt(parent, name.c_str());
        if (!fd || !os::setPermissions(fd.get(), directory.mode)
            || !os::setTimes(fd.get(), directory.times))
            failSystem(_tree.pathOf(directory.node), "cannot set the directory's mode and times");
    }
    _finished = true;
}

// A hard link is unpacked as a copy of a regular file this unpacking wrote before.
UniqueFd DiskWriter::openHardLinkTarget(archive_entry* entry, const std::string& name)
{
    const char* target = archive_entry_hardlink(entry);
    if (target == nullptr)
        return {};
    const std::string below = nameBelow(target).value_or("");
    const auto [parentPath, leaf] = splitLast(below);
    const std::optional<Node> parent = _tree.find(parentPath);
    if (!parent || _files.count({ *parent, std::string(leaf) }) == 0)
        refuseHardLink(_archive, name, target);
    UniqueFd fd = os::openForReadingAt(_tree.open(*parent, name, false), std::string(leaf).c_str());
    if (!fd)
        failSystem(name, std::string("cannot open the hard link's target '") + target + "'");
    return fd;
}

void DiskWriter::removeExisting(const Target& target) const
{
    if (os::removeAt(target.parentFd, target.place.name.c_str()) || errno == ENOENT)
        return;
    if (errno == EISDIR)
        failEntry(_archive, target.entry, "a directory is in the way");
    failSystem(target.entry, "cannot replace the existing file");
}

void DiskWriter::writeDirectory(const Target& target, archive_entry* entry)
{
    const char* name = target.place.name.c_str();
    const Node node = _tree.node(target.path);
    // Owner-only until finish: a read-only directory would refuse its own contents.
    if (os::makeDirectoryAt(target.parentFd, name, 0700)) {
        _tree.markCreated(node);
    } else {
        const auto status
            = errno == EEXIST ? os::statusAt(target.parentFd, name, false) : std::nullopt;
        if (!status)
            failSystem(target.entry, "cannot create the directory");
        if (status->type != os::EntryType::Directory) {
            removeExisting(target);
            if (!os::makeDirectoryAt(target.parentFd, name, 0700))
                failSystem(target.entry, "cannot create the directory");
            _tree.markCreated(node);
        }
    }
    _pending.push_back({ node, permissionsOf(entry), timesOf(entry) });
}

void DiskWriter::writeSymlink(const Target& target, archive_entry* entry)
{
    const char* name = target.place.name.c_str();
    const char* linkTarget = archive_entry_symlink(entry);
    if (!os::makeSymlinkAt(linkTarget, target.parentFd, name)) {
        if (errno != EEXIST)
            failSystem(target.entry, "cannot create the symbolic link");
        removeExisting(target);
        if (!os::makeSymlinkAt(linkTarget, target.parentFd, name))
            failSystem(target.entry, "cannot create the symbolic link");
    }
    _created.push_back(target.place);
    const Times times = timesOf(entry);
    if (!os::setTimesAt(target.parentFd, name, times))
        failSystem(target.entry, "cannot set the symbolic link's times");
}

UniqueFd DiskWriter::createFile(const Target& target)
{
    const auto create
        = [&] { return os::createFileAt(target.parentFd, target.place.name.c_str(), 0600); };
    UniqueFd fd = create();
    if (!fd && errno == EEXIST) {
        removeExisting(target);
        fd = create();
    }
    if (!fd)
        failSystem(target.entry, "cannot create the file");
    _created.push_back(target.place);
    return fd;
}

void DiskWriter::writeFile(
    const Target& target, EntryReader& reader, archive_entry* entry, const UniqueFd& source)
{
    // Checked before anything is written, then held to what is really written.
    const uint64_t declared = declaredSize(entry);
    requireSpace(declared, target.entry);
    UniqueFd fd = createFile(target);
    // Offsets may skip holes, so the file's extent is what counts against the budget.
    uint64_t extent = 0;
    if (source) {
        const auto status = os::status(source.get());
        if (!status)
            failSystem(target.entry, "cannot query the hard link's target");
        extent = status->size;
        charge(extent, target.entry);
        if (!os::copyContent(source.get(), fd.get(), extent))
            failSystem(target.entry, "cannot copy the hard link's target");
    }
    Block block;
    while (reader.read(block)) {
        const uint64_t end = static_cast<uint64_t>(block.offset) + block.size;
        if (end > extent) {
            charge(end - extent, target.entry);
            extent = end;
        }
        if (!os::writeAll(fd.get(), block.data, block.size, block.offset))
            failSystem(target.entry, "cannot write the file");
    }
    // A hole at the end shows only in the declared size.
    if (declared > extent) {
        charge(declared - extent, target.entry);
        if (!os::resize(fd.get(), declared))
            failSystem(target.entry, "cannot extend the file");
    }
    const Times times = timesOf(entry);
    if (!os::setPermissions(fd.get(), permissionsOf(entry)) || !os::setTimes(fd.get(), times)
        || !fd.close())
        failSystem(target.entry, "cannot finish the file");
    _files.insert(target.place);
}

void DiskWriter::requireSpace(uint64_t bytes, const std::string& entry) const
{
    if (bytes > _budget - _written)
        failEntry(_archive, entry,
            "unpacking needs more than the " + std::to_string(_budget)
                + " bytes free on the destination volume beyond a 10 MiB reserve");
}

void DiskWriter::charge(uint64_t bytes, const std::string& entry)
{
    requireSpace(bytes, entry);
    _written += bytes;
}

void DiskWriter::failSystem(const std::string& entry, const std::string& what) const
{
    failEntry(_archive, entry, what + ": " + systemError());
}

} // namespace

void unpack(EntryReader& reader, int rootFd, const std::string& archive)
{
    DiskWriter writer(rootFd, archive);
    while (archive_entry* entry = reader.next())
        writer.write(reader, entry);
    writer.finish();
}

} // namespace zo::project::detail
