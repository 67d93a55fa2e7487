#include "staging.h"

#include "errors.h"

#include <zo/treewalk.h>

#include <filesystem>
#include <vector>

namespace zo::project::detail {
namespace {

namespace fs = std::filesystem;

} // namespace

Staging::Staging(const std::string& destination)
    : _destination(destination)
{
    std::error_code error;
    fs::path path = fs::absolute(destination, error).lexically_normal();
    if (!path.has_filename())
        path = path.parent_path(); // a trailing slash
    // The components from the first missing one down to the destination.
    std::vector<std::string> missing;
    for (; !os::linkStatus(path.c_str()) && path != path.parent_path(); path = path.parent_path())
        missing.insert(missing.begin(), path.filename().string());
    const fs::path existing = fs::canonical(path, error);
    const std::optional<os::FileStatus> status
        = error ? std::nullopt : os::status(existing.c_str());
    if (!status || status->type != os::EntryType::Directory)
        fail(destination, "'" + path.string() + "' is not a directory");
    _target = missing.empty() ? existing.string() : (existing / missing.front()).string();
    removeLeftoversBeside(_target);
    _mark = os::OwnerMark::holdBeside(_target);
    _staged = os::hiddenTemplateBeside(_target, "unpack");
    if (!os::makeUniqueDirectory(_staged, 0777))
        fail(destination, "cannot create a directory beside it to unpack into: " + systemError());
    _guard.reset(_staged);
    if (missing.empty()) {
        _existing = os::openDirectory(_target.c_str());
        const std::optional<os::FileStatus> opened
            = _existing ? os::status(_existing.get()) : std::nullopt;
        const std::optional<os::FileStatus> staged = os::status(_staged.c_str());
        if (!opened || !staged)
            fail(destination, "cannot open the directory: " + systemError());
        _existingIdentity = opened->identity;
        if (staged->identity.device != opened->identity.device)
            fail(destination,
                "a mount point cannot be replaced in one step: unpack into a directory inside it");
    }
    _root = os::openDirectory(_staged.c_str());
    for (size_t component = 1; _root && component < missing.size(); ++component) {
        const char* name = missing[component].c_str();
        if (os::makeDirectoryAt(_root.get(), name, 0777))
            _root = os::openDirectoryAt(_root.get(), name);
        else
            _root = UniqueFd();
    }
    if (!_root)
        fail(destination, "cannot create a directory in '" + _staged + "': " + systemError());
}

void Staging::fill(EntryReader& reader, const std::string& archive, ExistingFiles existing)
{
    if (_existing)
        _kept = unpackOver(reader, _root.get(), _existing.get(), archive, existing, _report);
    else
        unpack(reader, _root.get(), archive);
}

void Staging::commit()
{
    if (!_existing) {
        if (!os::renameToFreeName(_staged.c_str(), _target.c_str()))
            fail(_destination, "cannot move the unpacked tree into place: " + systemError());
        _guard.keep();
        return;
    }
    takeOverRoot();
    // An empty directory is replaced by a rename, which any file system can do.
    if (_kept.empty()) {
        if (!os::rename(_staged.c_str(), _target.c_str()))
            fail(_destination, "cannot move the unpacked tree into place: " + systemError());
        _guard.keep();
        return;
    }
    // The files the archive replaces go with the previous tree: the new ones reach the disk
    // first.
    os::ReplaceStep failed {};
    if (!os::syncFileSystem(_staged.c_str()))
        fail(_destination, "cannot flush the unpacked tree: " + systemError());
    std::string previous;
    const bool swapped = os::swapIntoPlace(_staged, _target, previous, failed);
    if (!previous.empty()) {
        _staged = previous;
        _guard.reset(previous);
    }
    if (!swapped) {
        // A swap that may not last keeps the previous tree whole, for a crash could undo it.
        if (failed == os::ReplaceStep::SyncDirectory)
            _guard.keep();
        fail(_destination,
            (failed == os::ReplaceStep::Rename ? "cannot swap the unpacked tree into place: "
                                               : "the unpacked tree is in place, but flushing "
                                                 "its directory failed: ")
                + systemError());
    }
    removePrevious();
}

// The destination keeps its own mode, owner and times.
void Staging::takeOverRoot() const
{
    const std::optional<os::FileStatus> status = os::status(_existing.get());
    const std::optional<os::FileStatus> made = os::status(_root.get());
    const bool owned = status && made
        && ((made->owner == status->owner && made->group == status->group)
            || os::setOwner(_root.get(), status->owner, status->group));
    if (!owned || !os::setPermissions(_root.get(), status->permissions)
        || !os::setTimes(_root.get(),
            { timespec { 0, UTIME_OMIT },
                timespec { status->modifiedSeconds, status->modifiedNanoseconds } }))
        fail(_destination, "cannot keep the directory's owner, mode and times: " + systemError());
}

// The previous tree is gone but for what another program put or changed in it after it was
// read: then it stays, so that nothing is lost, and a warning tells where.
void Staging::removePrevious()
{
    const std::optional<os::FileStatus> previous = os::linkStatus(_staged.c_str());
    std::string changed;
    if (!previous || previous->identity != _existingIdentity) {
        changed = ".";
    } else {
        os::WalkOptions options;
        options.includeHidden = true;
        options.followLinks = false;
        options.onError = [&changed](std::string_view path, int) { changed = path; };
        os::walkTree(_staged, options, [&](const os::WalkEntry& entry) {
            const auto found = _kept.find(std::string(entry.path));
            const os::FileStatus* status = entry.status();
            if (found == _kept.end() || !status || status->identity != found->second)
                changed = entry.path;
            return changed.empty() ? os::WalkStep::Continue : os::WalkStep::Stop;
        });
    }
    if (changed.empty())
        return;
    _guard.keep();
    _report.previousTree = _staged;
    warnEntry(_destination, changed,
        "changed by another program while unpacking; the previous tree stays in '" + _staged + "'");
}

} // namespace zo::project::detail
