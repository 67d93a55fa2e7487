#include "unpack.h"

#include "directory_tree.h"
#include "entry_check.h"
#include "errors.h"
#include "files.h"

#include <zo/file.h>
#include <zo/treewalk.h>

#include <algorithm>
#include <array>
#include <sys/stat.h>
#include <unordered_map>
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

// Writes entries below a new root directory through descriptors opened without following links.
class DiskWriter {
public:
    DiskWriter(int rootFd, std::string archive)
        : _tree(rootFd, archive)
        , _archive(std::move(archive))
        , _budget(spaceBudget(rootFd, _archive))
    {
    }

    // Writes every entry reader has.
    void writeAll(EntryReader& reader);
    // Adds what existingFd holds and the archive does not replace (see unpackOver).
    KeptEntries keep(int existingFd, ExistingFiles existing, ImportReport& report);
    // Gives directories their modes, owners and times once nothing more is written into them.
    void finish();

private:
    struct Target {
        const std::string& entry;
        Place place;
        int parentFd;
    };
    struct Owner {
        uint32_t user;
        uint32_t group;
    };
    struct PendingDirectory {
        Node node;
        mode_t mode;
        Times times;
        std::optional<Owner> owner; // for a directory kept from an existing tree
    };

    void write(EntryReader& reader, archive_entry* entry);
    void noteFirstBelow(Node node, const std::string& entry);
    Place hardLinkTarget(archive_entry* entry, const std::string& name) const;
    void writeHardLink(const std::string& entry, const Place& place, const Place& linked);
    void removeExisting(int parentFd, const std::string& name, const std::string& entry) const;
    void writeDirectory(const Target& target, const std::string& path, archive_entry* entry);
    void writeSymlink(const Target& target, archive_entry* entry);
    void writeFile(const Target& target, EntryReader& reader, archive_entry* entry);
    UniqueFd createFile(const Target& target);
    os::WalkStep keepEntry(const os::WalkEntry& found, uint64_t device, KeptEntries& kept);
    bool resolveConflict(
        const std::string& path, int into, const std::string& name, const os::FileStatus& unpacked);
    void requireSpace(uint64_t bytes, const std::string& entry) const;
    void charge(uint64_t bytes, const std::string& entry);
    [[noreturn]] void failSystem(const std::string& entry, const std::string& what) const;

    DirectoryTree _tree;
    std::string _archive;
    uint64_t _budget;
    uint64_t _written = 0;
    std::vector<PendingDirectory> _pending;
    // Directories with an entry of their own, whose mode and times the archive tells.
    std::unordered_set<Node> _listed;
    // For every directory the first entry written below it, which errors about it name.
    std::unordered_map<Node, std::string> _firstBelow;
    // The regular files written so far: the only names a hard link may point to.
    std::unordered_set<Place, Place::Hash> _files;
    // How keep() treats an existing file at an entry's path, what it did, and what it refuses.
    ExistingFiles _existing = ExistingFiles::Replace;
    ImportReport* _report = nullptr;
    std::vector<std::string> _conflicts;
};

void DiskWriter::writeAll(EntryReader& reader)
{
    while (archive_entry* entry = reader.next())
        write(reader, entry);
}

void DiskWriter::write(EntryReader& reader, archive_entry* entry)
{
    const std::string path = checkEntry(entry, _archive);
    if (path.empty())
        return; // the destination itself keeps its own mode
    const std::string name = entryName(entry);
    const auto [parentPath, leaf] = splitLast(path);
    const Place place { _tree.node(parentPath), std::string(leaf) };
    noteFirstBelow(place.directory, name);
    if (archive_entry_hardlink(entry) != nullptr)
        return writeHardLink(name, place, hardLinkTarget(entry, name));
    const Target target { name, place, _tree.open(place.directory, name, true) };
    // Whatever was at the place is replaced, and a hard link may no longer name it.
    _files.erase(target.place);
    switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
        return writeDirectory(target, path, entry);
    case AE_IFLNK:
        return writeSymlink(target, entry);
    default:
        return writeFile(target, reader, entry);
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
        // The owner first: a change of owner may clear the set-group-id bit.
        const bool owned = !directory.owner
            || os::setOwner(fd.get(), directory.owner->user, directory.owner->group);
        if (!fd || !owned || !os::setPermissions(fd.get(), directory.mode)
            || !os::setTimes(fd.get(), directory.times))
            failSystem(
                _tree.pathOf(directory.node), "cannot set the directory's owner, mode and times");
    }
}

// Remembers entry for node and those of its ancestors that had none yet.
void DiskWriter::noteFirstBelow(Node node, const std::string& entry)
{
    while (node != DirectoryTree::root && _firstBelow.try_emplace(node, entry).second)
        node = _tree.parent(node);
}

// The earlier regular file of this unpacking that a hard link names.
Place DiskWriter::hardLinkTarget(archive_entry* entry, const std::string& name) const
{
    const char* target = archive_entry_hardlink(entry);
    const std::string below = nameBelow(target).value_or("");
    const auto [parentPath, leaf] = splitLast(below);
    const std::optional<Node> parent = _tree.find(parentPath);
    if (!parent || _files.count({ *parent, std::string(leaf) }) == 0)
        refuseHardLink(_archive, name, target);
    return { *parent, std::string(leaf) };
}

// Data that follows a hard link's header (some writers repeat the file's) is not read: the
// link shares the content of the file it names.
void DiskWriter::writeHardLink(const std::string& entry, const Place& place, const Place& linked)
{
    if (place == linked)
        return;
    // The tree keeps one directory open; the link needs both.
    const UniqueFd from = os::openDirectoryAt(_tree.open(linked.directory, entry, false), ".");
    if (!from)
        failSystem(entry, "cannot open the directory of the hard link's target");
    const int into = _tree.open(place.directory, entry, true);
    const auto link
        = [&] { return os::linkAt(from.get(), linked.name.c_str(), into, place.name.c_str()); };
    if (!link()) {
        if (errno != EEXIST)
            failSystem(entry, "cannot create the hard link");
        removeExisting(into, place.name, entry);
        if (!link())
            failSystem(entry, "cannot create the hard link");
    }
    _files.insert(place);
}

void DiskWriter::removeExisting(
    int parentFd, const std::string& name, const std::string& entry) const
{
    if (os::removeAt(parentFd, name.c_str()) || errno == ENOENT)
        return;
    if (errno == EISDIR)
        failEntry(_archive, entry, "a directory is in the way");
    failSystem(entry, "cannot replace the existing file");
}

void DiskWriter::writeDirectory(const Target& target, const std::string& path, archive_entry* entry)
{
    const char* name = target.place.name.c_str();
    // Owner-only until finish: a read-only directory would refuse its own contents.
    if (!os::makeDirectoryAt(target.parentFd, name, 0700)) {
        const auto status
            = errno == EEXIST ? os::statusAt(target.parentFd, name, false) : std::nullopt;
        if (!status)
            failSystem(target.entry, "cannot create the directory");
        if (status->type != os::EntryType::Directory) {
            removeExisting(target.parentFd, target.place.name, target.entry);
            if (!os::makeDirectoryAt(target.parentFd, name, 0700))
                failSystem(target.entry, "cannot create the directory");
        }
    }
    const Node node = _tree.node(path);
    _listed.insert(node);
    _pending.push_back({ node, permissionsOf(entry), timesOf(entry), std::nullopt });
}

void DiskWriter::writeSymlink(const Target& target, archive_entry* entry)
{
    const char* name = target.place.name.c_str();
    const char* linkTarget = archive_entry_symlink(entry);
    if (!os::makeSymlinkAt(linkTarget, target.parentFd, name)) {
        if (errno != EEXIST)
            failSystem(target.entry, "cannot create the symbolic link");
        removeExisting(target.parentFd, target.place.name, target.entry);
        if (!os::makeSymlinkAt(linkTarget, target.parentFd, name))
            failSystem(target.entry, "cannot create the symbolic link");
    }
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
        removeExisting(target.parentFd, target.place.name, target.entry);
        fd = create();
    }
    if (!fd)
        failSystem(target.entry, "cannot create the file");
    return fd;
}

void DiskWriter::writeFile(const Target& target, EntryReader& reader, archive_entry* entry)
{
    // Checked before anything is written, then held to what is really written.
    const uint64_t declared = declaredSize(entry);
    requireSpace(declared, target.entry);
    UniqueFd fd = createFile(target);
    // Offsets may skip holes, so the file's extent is what counts against the budget.
    uint64_t extent = 0;
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

KeptEntries DiskWriter::keep(int existingFd, ExistingFiles existing, ImportReport& report)
{
    _existing = existing;
    _report = &report;
    const std::optional<os::FileStatus> root = os::status(existingFd);
    if (!root)
        failSystem({}, "cannot query the destination");
    KeptEntries kept;
    os::WalkOptions options;
    options.includeHidden = true;
    options.followLinks = false;
    // Whatever cannot be read would be lost with the tree it was in.
    options.onError = [this](std::string_view path, int error) {
        failEntry(_archive, std::string(path),
            "cannot read what the destination holds there: " + systemError(error));
    };
    const auto visit
        = [&](const os::WalkEntry& found) { return keepEntry(found, root->identity.device, kept); };
    if (!os::walkTree(existingFd, options, visit))
        failSystem({}, "cannot read the destination");
    if (!_conflicts.empty())
        refuseConflict(_archive, _conflicts.front(),
            "the destination already holds it"
                + (_conflicts.size() == 1
                        ? std::string()
                        : ", and so for " + std::to_string(_conflicts.size() - 1) + " more"));
    return kept;
}

os::WalkStep DiskWriter::keepEntry(const os::WalkEntry& found, uint64_t device, KeptEntries& kept)
{
    const std::string path(found.path);
    const os::FileStatus* status = found.status();
    if (!status)
        failSystem(path, "cannot query what the destination holds there");
    kept.emplace(path, status->identity);
    const auto [parentPath, leaf] = splitLast(path);
    const std::string name(leaf);
    const int into = _tree.open(_tree.node(parentPath), path, false);
    const std::optional<os::FileStatus> unpacked = os::statusAt(into, name.c_str(), false);
    const Node node = _tree.node(path);
    if (found.type != os::EntryType::Directory) {
        // An archive's directory that only holds its entries never replaces a file or link.
        if (unpacked && unpacked->type == os::EntryType::Directory && _listed.count(node) == 0)
            failEntry(_archive, _firstBelow.at(node),
                found.type == os::EntryType::Link
                    ? "writing through the symbolic link '" + path + "' is refused"
                    : "'" + path + "' is in the way of a directory");
        // Anything the archive does not replace stays, the same file.
        const bool stays = !unpacked || resolveConflict(path, into, name, *unpacked);
        if (stays && !os::linkAt(found.directory(), name.c_str(), into, name.c_str()))
            failSystem(path, "cannot keep the destination's file");
        return os::WalkStep::Continue;
    }
    if (status->identity.device != device)
        failEntry(_archive, path, "the destination holds a mount point there");
    if (unpacked && unpacked->type != os::EntryType::Directory)
        failEntry(_archive, path, "a directory is in the way");
    if (!unpacked && !os::makeDirectoryAt(into, name.c_str(), 0700))
        failSystem(path, "cannot create the directory");
    if (_listed.count(node) == 0)
        _pending.push_back({ node, status->permissions,
            { timespec { 0, UTIME_OMIT },
                timespec { status->modifiedSeconds, status->modifiedNanoseconds } },
            Owner { status->owner, status->group } });
    return os::WalkStep::Continue;
}

// Whether the destination's file at path stays rather than what the archive put there, which is
// then removed; refused conflicts are collected, so that one error names them all.
bool DiskWriter::resolveConflict(
    const std::string& path, int into, const std::string& name, const os::FileStatus& unpacked)
{
    switch (_existing) {
    case ExistingFiles::Replace:
        _report->replaced.push_back(path);
        return false;
    case ExistingFiles::Refuse:
        _conflicts.push_back(path);
        return false;
    case ExistingFiles::Keep:
        break;
    }
    if (unpacked.type == os::EntryType::Directory)
        failEntry(_archive, path, "the destination keeps a file where the archive has a directory");
    if (!os::removeAt(into, name.c_str()))
        failSystem(path, "cannot leave out the archive's file");
    _report->kept.push_back(path);
    return true;
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
    writer.writeAll(reader);
    writer.finish();
}

KeptEntries unpackOver(EntryReader& reader, int rootFd, int existingFd, const std::string& archive,
    ExistingFiles existing, ImportReport& report)
{
    DiskWriter writer(rootFd, archive);
    writer.writeAll(reader);
    KeptEntries kept = writer.keep(existingFd, existing, report);
    writer.finish();
    return kept;
}

} // namespace zo::project::detail
