#include <zo/path.h>
#include <zo/replace.h>

#include <cerrno>
#include <utility>

namespace zo::os {

FileReplacement::FileReplacement(std::string target, std::string_view purpose)
    : _target(std::move(target))
    , _mark(OwnerMark::holdBeside(_target))
    , _path(hiddenTemplateBeside(_target, purpose))
    , _fd(createUniqueFile(_path, 0666))
{
    if (!_fd) {
        _path.clear(); // nothing of ours is there
        return;
    }
    // The new file stands in for the old one: same permissions, and the same owner where this
    // process may give a file away (a replacement written by root stays the user's).
    const std::optional<FileStatus> old = status(_target.c_str());
    if (!old)
        return;
    const std::optional<FileStatus> made = status(_fd.get());
    if (made && (made->owner != old->owner || made->group != old->group))
        setOwner(_fd.get(), old->owner, old->group);
    if (!setPermissions(_fd.get(), old->permissions))
        _fd = UniqueFd();
}

FileReplacement::~FileReplacement()
{
    if (!_renamed && !_path.empty()) {
        const int saved = errno;
        remove(_path.c_str());
        errno = saved;
    }
}

bool FileReplacement::failAt(ReplaceStep step)
{
    _failed = step;
    return false;
}

bool FileReplacement::write(std::string_view data)
{
    return writeAll(_fd.get(), data.data(), data.size(), 0) || failAt(ReplaceStep::Write);
}

bool FileReplacement::commit()
{
    if (!syncFile(_fd.get()) || !_fd.close())
        return failAt(ReplaceStep::SyncFile);
    const bool replaced = renameDurably(_path.c_str(), _target.c_str(), _failed);
    // Once renamed, the file is the target's content and no longer ours to remove.
    _renamed = replaced || _failed == ReplaceStep::SyncDirectory;
    return replaced;
}

bool replaceFile(
    const std::string& target, std::string_view purpose, std::string_view data, ReplaceStep& failed)
{
    FileReplacement replacement(target, purpose);
    const bool replaced = replacement && replacement.write(data) && replacement.commit();
    failed = replacement.failedStep();
    return replaced;
}

namespace {

// rename or exchange, then the flush of to's directory.
bool durably(
    bool (*step)(const char*, const char*), const char* from, const char* to, ReplaceStep& failed)
{
    if (!step(from, to)) {
        failed = ReplaceStep::Rename;
        return false;
    }
    if (!syncDirectory(Path(to).directory().c_str())) {
        failed = ReplaceStep::SyncDirectory;
        return false;
    }
    return true;
}

} // namespace

bool renameDurably(const char* from, const char* to, ReplaceStep& failed)
{
    return durably(rename, from, to, failed);
}

bool exchangeDurably(const char* from, const char* to, ReplaceStep& failed)
{
    return durably(exchange, from, to, failed);
}

bool swapIntoPlace(
    const std::string& tree, const std::string& to, std::string& previous, ReplaceStep& failed)
{
    // Another thread of this process may take the same free name first.
    bool renamed = false;
    do {
        previous = unusedHiddenPathBeside(to, kReplacedPurpose);
        renamed = renameToFreeName(tree.c_str(), previous.c_str());
    } while (!renamed && errno == EEXIST);
    if (!renamed) {
        previous.clear();
        failed = ReplaceStep::Rename;
        return false;
    }
    return exchangeDurably(previous.c_str(), to.c_str(), failed);
}

} // namespace zo::os
