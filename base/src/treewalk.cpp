#include <zo/treewalk.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace zo::os {
namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

// Takes the descriptor over, also when the stream cannot be made.
DirectoryStream streamOf(int descriptor)
{
    DIR* directory = ::fdopendir(descriptor);
    if (directory == nullptr)
        ::close(descriptor);
    return DirectoryStream(directory);
}

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

class TreeWalker {
public:
    TreeWalker(const WalkOptions& options, const WalkVisitor& visit)
        : _options(options)
        , _visit(visit)
    {
    }

    // Walks the directory that descriptor names; false when the visitor stopped the walk.
    bool walkFrom(int descriptor, int depth)
    {
        const std::optional<FileStatus> status = os::status(descriptor);
        if (!status) {
            reportError(errno);
            ::close(descriptor);
            return true;
        }
        const DescentStep step(_descent, status->identity);
        if (!step.entered()) {
            ::close(descriptor);
            return true;
        }
        const DirectoryStream stream = streamOf(descriptor);
        if (!stream) {
            reportError(errno);
            return true;
        }
        return walkEntries(stream.get(), depth);
    }

private:
    bool walkEntries(DIR* stream, int depth)
    {
        const int directory = ::dirfd(stream);
        const std::size_t parentLength = _path.size();
        const std::size_t nameStart = parentLength == 0 ? 0 : parentLength + 1;
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(stream);
            if (entry == nullptr) {
                if (errno != 0)
                    reportError(errno);
                break;
            }
            const char* name = entry->d_name;
            if (isDotOrDotDot(name) || (name[0] == '.' && !_options.includeHidden))
                continue;

            _path.resize(parentLength);
            if (parentLength != 0)
                _path += '/';
            _path += name;

            std::optional<FileStatus> knownStatus;
            bool isLink = false;
            EntryType type = EntryType::Other;
            switch (entry->d_type) {
            case DT_REG:
                type = EntryType::File;
                break;
            case DT_DIR:
                type = EntryType::Directory;
                break;
            case DT_LNK:
                isLink = true;
                break;
            case DT_UNKNOWN: // some file systems do not fill d_type
                knownStatus = statusAt(directory, name, false);
                if (!knownStatus) {
                    reportError(errno);
                    continue;
                }
                isLink = knownStatus->type == EntryType::Link;
                type = knownStatus->type;
                break;
            default:
                break;
            }
            if (isLink) {
                type = EntryType::Link;
                if (_options.followLinks) {
                    knownStatus = statusAt(directory, name, true);
                    if (knownStatus)
                        type = knownStatus->type;
                }
            }

            const std::string_view path = _path;
            const WalkEntry walkEntry(path, path.substr(nameStart), type, isLink, depth, directory,
                _options.followLinks, knownStatus);
            const WalkStep step = _visit(walkEntry);
            if (step == WalkStep::Stop)
                return false;
            if (type == EntryType::Directory && _options.recursive
                && step != WalkStep::SkipDirectory) {
                const int flags
                    = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (_options.followLinks ? 0 : O_NOFOLLOW);
                const int child = ::openat(directory, name, flags);
                if (child < 0)
                    reportError(errno);
                else if (!walkFrom(child, depth + 1))
                    return false;
            }
        }
        _path.resize(parentLength);
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
    DescentPath _descent;
};

} // namespace

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

bool walkTree(const std::string& root, const WalkOptions& options, const WalkVisitor& visit)
{
    const UniqueFd directory = openDirectory(root.c_str());
    return directory && walkTree(directory.get(), options, visit);
}

bool walkTree(int root, const WalkOptions& options, const WalkVisitor& visit)
{
    // The walk closes what it walks: a descriptor of its own, at the same place.
    const int descriptor = ::openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    TreeWalker(options, visit).walkFrom(descriptor, 0);
    return true;
}

} // namespace zo::os
