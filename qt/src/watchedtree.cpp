#include "watchedtree.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace zo::project::detail {
namespace {

std::string parentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// Whether path lies below the directory at prefix (a path followed by "/", or "" for the root).
bool isBelow(std::string_view path, std::string_view prefix)
{
    return path.substr(0, prefix.size()) == prefix;
}

std::string prefixOf(const std::string& directory)
{
    return directory.empty() ? directory : directory + "/";
}

} // namespace

WatchedTree::WatchedTree(std::string root, bool showHidden)
    : _root(std::move(root))
    , _showHidden(showHidden)
{
}

WatchedTree::Outcome WatchedTree::readChanges(PartialListing& read)
{
    if (_mounts.changed())
        _complete = false;
    if (_events && !_events->read([this](const os::ChangeEvent& event) { markChanged(event); }))
        return Outcome::Lost;
    if (!_complete && !restart())
        return Outcome::Lost;

    std::set<std::string> toRead = _changed;
    toRead.insert(_readAlways.begin(), _readAlways.end());
    if (toRead.empty())
        return Outcome::Unchanged;
    // The walk goes down to each directory to read from the root, reading the directories on
    // the way as well, so that it never opens a path but one name at a time.
    std::set<std::string> aboveToRead;
    for (const std::string& path : toRead)
        for (std::string above = path; !above.empty();)
            if (!aboveToRead.insert(above = parentOf(above)).second)
                break;
    WalkEnd end = walk(toRead, aboveToRead, read);
    if (end == WalkEnd::Moved) {
        // The root is another directory now: read it all again.
        read = PartialListing();
        if (!restart())
            return Outcome::Lost;
        end = walk({ std::string() }, {}, read);
    }
    return end == WalkEnd::Done ? Outcome::Read : Outcome::Lost;
}

// Forgets every directory and drops every watch, with the events still queued for them.
bool WatchedTree::restart()
{
    _events = std::make_unique<os::ChangeEvents>();
    _directories.clear();
    _watched.clear();
    _changed = { std::string() };
    _readAlways.clear();
    _complete = true;
    return _events->isOpen();
}

void WatchedTree::markChanged(const os::ChangeEvent& event)
{
    if (event.kind == os::ChangeEvent::Kind::Overflow) {
        _complete = false;
        return;
    }
    const auto [first, last] = _watched.equal_range(event.watch);
    std::vector<std::string> paths;
    for (auto watched = first; watched != last; ++watched)
        paths.push_back(watched->second);
    for (const std::string& path : paths) {
        switch (event.kind) {
        case os::ChangeEvent::Kind::Entry:
            if (_showHidden || event.name.front() != '.')
                _changed.insert(path);
            break;
        case os::ChangeEvent::Kind::Itself:
            _changed.insert(path);
            break;
        case os::ChangeEvent::Kind::Moved:
        case os::ChangeEvent::Kind::Gone:
            // Below the root, the parent's own events tell where it went.
            if (path.empty())
                _complete = false;
            else if (event.kind == os::ChangeEvent::Kind::Gone) {
                _watched.erase(event.watch);
                forgetBelow(path);
                _changed.insert(parentOf(path));
            }
            break;
        case os::ChangeEvent::Kind::Overflow:
            break;
        }
    }
}

WatchedTree::WalkEnd WatchedTree::walk(const std::set<std::string>& toRead,
    const std::set<std::string>& aboveToRead, PartialListing& read)
{
    // Opened as the full walk opens it, links followed.
    const os::UniqueFd root = os::openDirectory(_root.c_str());
    const std::optional<os::FileStatus> status = root ? os::status(root.get()) : std::nullopt;
    if (!status) {
        if (os::status(_root.c_str()))
            return WalkEnd::Lost; // a file: the full walk stats it alone
        // Nothing there: nothing listed, and the root looked for again next time.
        read.marks.push_back({ std::string(), false });
        _complete = false;
        return WalkEnd::Done;
    }
    const auto known = _directories.find(std::string());
    if (known == _directories.end()) {
        if (!os::reportsAllChanges(root.get()))
            return WalkEnd::Lost;
        _reportingDevices.insert(status->identity.device);
        const int watch = _events->watch(root.get(), ".");
        if (watch < 0)
            return WalkEnd::Lost;
        _directories[std::string()] = { watch, status->identity };
        _watched.emplace(watch, std::string());
    } else if (known->second.identity != status->identity) {
        return WalkEnd::Moved;
    }
    read.marks.push_back({ std::string(), false });
    _changed.erase(std::string());
    _readAlways.erase(std::string());

    std::unordered_set<std::string> seen;
    std::unordered_set<std::string> unchanged;
    std::string linkTop; // a link to a directory being walked: nothing below it is watched
    bool lost = false;
    os::WalkOptions options;
    options.includeHidden = _showHidden;
    os::walkTree(root.get(), options, [&](const os::WalkEntry& entry) {
        if (!linkTop.empty() && !isBelow(entry.path, linkTop))
            linkTop.clear();
        const bool throughLink = !linkTop.empty();
        if (entry.type == os::EntryType::File) {
            const os::FileStatus* file = entry.status();
            if (file == nullptr)
                return os::WalkStep::Continue;
            read.files.append(entry.path,
                FileStamp { file->modifiedMilliseconds(), static_cast<quint32>(file->size) }, true,
                true);
            // Written to through a name outside this directory, it changes unreported.
            if (!throughLink && (entry.isLink || file->links > 1))
                _readAlways.insert(parentOf(std::string(entry.path)));
            return os::WalkStep::Continue;
        }
        if (entry.type != os::EntryType::Directory || throughLink)
            return os::WalkStep::Continue;
        const std::string path(entry.path);
        if (entry.isLink) {
            linkTop = path + "/";
            _readAlways.insert(parentOf(path));
            return os::WalkStep::Continue;
        }
        const os::FileStatus* child = entry.status();
        if (child == nullptr)
            return os::WalkStep::Continue;
        seen.insert(path);
        const auto known = _directories.find(path);
        if (known != _directories.end() && known->second.identity == child->identity) {
            if (toRead.count(path) == 0 && aboveToRead.count(path) == 0) {
                read.marks.push_back({ path + "/", true });
                unchanged.insert(path);
                return os::WalkStep::SkipDirectory;
            }
        } else if (!watchDirectory(entry, path, lost)) {
            return lost ? os::WalkStep::Stop : os::WalkStep::Continue;
        }
        _changed.erase(path);
        _readAlways.erase(path);
        return os::WalkStep::Continue;
    });
    if (lost)
        return WalkEnd::Lost;

    // What was watched and is no longer there.
    std::vector<std::string> gone;
    for (const auto& [path, directory] : _directories) {
        if (path.empty() || seen.count(path) != 0)
            continue;
        std::string above = parentOf(path);
        while (!above.empty() && unchanged.count(above) == 0)
            above = parentOf(above);
        if (above.empty())
            gone.push_back(path);
    }
    for (const std::string& path : gone)
        forgetBelow(path);
    return WalkEnd::Done;
}

// Watches a directory the walk is about to enter, new or replaced since it was watched. False
// when it cannot be: lost is then set when events can no longer be relied on (the watch limit,
// a file system that does not report), and otherwise its parent is read at every check.
bool WatchedTree::watchDirectory(const os::WalkEntry& entry, const std::string& path, bool& lost)
{
    forgetBelow(path);
    const os::FileStatus& status = *entry.status();
    if (_reportingDevices.count(status.identity.device) == 0) {
        const os::UniqueFd directory = os::openDirectoryAt(entry.directory(), entry.name.data());
        if (directory && !os::reportsAllChanges(directory.get())) {
            lost = true;
            return false;
        }
        _reportingDevices.insert(status.identity.device);
    }
    const int watch = _events->watch(entry.directory(), entry.name.data());
    if (watch < 0) {
        lost = errno == ENOSPC;
        _readAlways.insert(parentOf(path));
        return false;
    }
    _directories[path] = { watch, status.identity };
    _watched.emplace(watch, path);
    return true;
}

// Forgets the watched directory at path and those below it, dropping each watch no other path
// shares.
void WatchedTree::forgetBelow(const std::string& path)
{
    const auto forget = [this](std::map<std::string, Directory>::iterator known) {
        const auto [first, last] = _watched.equal_range(known->second.watch);
        const auto watched = std::find_if(
            first, last, [&known](const auto& entry) { return entry.second == known->first; });
        if (watched != last)
            _watched.erase(watched);
        if (_watched.count(known->second.watch) == 0)
            _events->unwatch(known->second.watch);
        _changed.erase(known->first);
        _readAlways.erase(known->first);
        return _directories.erase(known);
    };
    if (const auto itself = _directories.find(path); itself != _directories.end())
        forget(itself);
    const std::string prefix = prefixOf(path);
    for (auto known = _directories.lower_bound(prefix);
         known != _directories.end() && isBelow(known->first, prefix);)
        known = forget(known);
}

} // namespace zo::project::detail
