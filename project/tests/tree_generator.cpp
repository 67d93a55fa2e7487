#include "tree_generator.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

namespace zo::project::test {
namespace {

// Pieces of names that path code gets wrong, alone or joined; those from kUnportable on (bytes
// that are not UTF-8, a decomposed form, a backslash) are more than some formats can hold.
const std::string kPieces[] = { "a", "ab", "a-b", "a.b", "pip", "pip-1.0.dist-info", "_vendor",
    ".hidden", ".", "-", " ", "sp ace", "new\nline", "\t", "caf\xc3\xa9", "\xe6\x97\xa5", "%41",
    "\xff\xfe", "cafe\xcc\x81", "back\\slash" };
constexpr unsigned kUnportable = 17;
const mode_t kFileModes[] = { 0644, 0600, 0755, 0444 };
const mode_t kDirectoryModes[] = { 0755, 0700, 0750, 0555 };

int check(int result, const std::string& what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

struct Directory {
    explicit Directory(int descriptor)
        : fd(check(descriptor, "open a directory"))
    {
    }
    ~Directory() { ::close(fd); }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const int fd;
};
using Shared = std::shared_ptr<Directory>;

Shared openIn(int parent, const std::string& name)
{
    return std::make_shared<Directory>(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

class Builder {
public:
    Builder(Choices& choices, bool portable)
        : _choices(choices)
        , _pieces(portable ? kUnportable : std::size(kPieces))
    {
    }

    // Fills dir, at depth below the root, then gives it its mode and times.
    void fill(const Shared& dir, unsigned depth)
    {
        std::string name;
        for (unsigned count = _choices.below(depth == 0 ? 9 : 5); count > 0; --count) {
            // Often one that extends the sibling before it: "a" and "a-b", "pip" and "pip/x".
            const std::string extended = name + newName();
            name = _choices.below(2) == 0 && extended.size() <= 240 ? extended : newName();
            struct stat taken { };
            if (::fstatat(dir->fd, name.c_str(), &taken, AT_SYMLINK_NOFOLLOW) == 0)
                continue;
            add(dir, name, depth, _choices.below(10));
        }
    }

private:
    void add(const Shared& dir, const std::string& name, unsigned depth, unsigned kind)
    {
        const char* at = name.c_str();
        if (kind < 5) {
            const int fd
                = check(::openat(dir->fd, at, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600), name);
            const std::string content = name + std::string(_choices.below(64), 'c');
            const bool written = ::write(fd, content.data(), content.size())
                    == static_cast<ssize_t>(content.size())
                && ::fchmod(fd, kFileModes[_choices.below(4)]) == 0
                && ::futimens(fd, times().data()) == 0;
            ::close(fd);
            check(written ? 0 : -1, name);
            _files.emplace_back(dir, name);
        } else if (kind < 7 || (kind == 9 && _deepDone)) {
            check(::mkdirat(dir->fd, at, 0700), name);
            const Shared child = openIn(dir->fd, name);
            if (depth < 3)
                fill(child, depth + 1);
            finishDirectory(*child, kDirectoryModes[_choices.below(4)]);
        } else if (kind == 7) {
            std::string target;
            for (unsigned up = _choices.below(depth + 1); up > 0; --up)
                target += "../";
            check(::symlinkat((target + newName()).c_str(), dir->fd, at), name);
            check(::utimensat(dir->fd, at, times().data(), AT_SYMLINK_NOFOLLOW), name);
        } else if (kind == 8 && !_files.empty()) {
            const auto& [from, fromName] = _files[_choices.below(_files.size())];
            check(::linkat(from->fd, fromName.c_str(), dir->fd, at, 0), name);
        } else if (kind == 9) {
            deepen(dir, name);
        }
    }

    // A chain of directories whose path passes PATH_MAX, with a file at its end.
    void deepen(const Shared& dir, const std::string& name)
    {
        _deepDone = true;
        std::vector<Shared> chain { dir };
        for (int level = 0; level < 22; ++level) {
            const std::string link = level == 0 ? name : std::string(200, 'd');
            check(::mkdirat(chain.back()->fd, link.c_str(), 0700), link);
            chain.push_back(openIn(chain.back()->fd, link));
        }
        add(chain.back(), "end", 0, 0);
        for (size_t level = chain.size() - 1; level > 0; --level)
            finishDirectory(*chain[level], 0755);
    }

    void finishDirectory(const Directory& dir, mode_t mode)
    {
        check(::fchmod(dir.fd, mode), "chmod");
        check(::futimens(dir.fd, times().data()), "times");
    }

    std::string newName()
    {
        const unsigned pieces = 1 + _choices.below(3);
        std::string name;
        for (unsigned piece = 0; piece < pieces; ++piece)
            name += kPieces[_choices.below(_pieces)];
        if (_choices.below(8) == 0)
            while (name.size() < 200) // and no more than NAME_MAX
                name += kPieces[_choices.below(_pieces)];
        return name == "." || name == ".." ? name + "x" : name;
    }

    std::array<timespec, 2> times()
    {
        const timespec time { 1500000000 + static_cast<time_t>(_choices.below(1 << 24)), 0 };
        return { time, time };
    }

    Choices& _choices;
    const unsigned _pieces;
    std::vector<std::pair<Shared, std::string>> _files;
    bool _deepDone = false;
};

std::string readAll(int fd)
{
    std::string content;
    char buffer[4096];
    for (ssize_t count; (count = ::read(fd, buffer, sizeof buffer)) > 0;)
        content.append(buffer, static_cast<size_t>(count));
    return content;
}

// The names in dir, sorted, read before anything in it changes.
std::vector<std::string> namesIn(const Directory& dir)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(
        ::fdopendir(check(::dup(dir.fd), "dup")), ::closedir);
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(stream.get()))
        if (std::string_view(entry->d_name) != "." && std::string_view(entry->d_name) != "..")
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

void removeBelow(const Directory& dir)
{
    for (const std::string& name : namesIn(dir))
        if (::unlinkat(dir.fd, name.c_str(), 0) != 0 && errno == EISDIR) {
            removeBelow(*openIn(dir.fd, name));
            check(::unlinkat(dir.fd, name.c_str(), AT_REMOVEDIR), name);
        }
}

// Describes the entries below dir in a fixed order; a file with further names tells the first
// name met, when firstNames is given.
void collect(const Directory& dir, const std::string& prefix, std::vector<std::string>& lines,
    std::map<std::pair<dev_t, ino_t>, std::string>* firstNames)
{
    for (const std::string& name : namesIn(dir)) {
        struct stat status { };
        check(::fstatat(dir.fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW), name);
        const std::string path = prefix + name;
        const std::string details = " mode " + std::to_string(status.st_mode & 07777) + " time "
            + std::to_string(status.st_mtime);
        if (S_ISLNK(status.st_mode)) {
            std::string target(4096, '\0');
            target.resize(static_cast<size_t>(
                check(::readlinkat(dir.fd, name.c_str(), target.data(), target.size()), name)));
            lines.push_back("l " + path + " -> " + target);
        } else if (S_ISDIR(status.st_mode)) {
            lines.push_back("d " + path + details);
            collect(*openIn(dir.fd, name), path + "/", lines, firstNames);
        } else {
            const int fd = check(::openat(dir.fd, name.c_str(), O_RDONLY | O_CLOEXEC), name);
            lines.push_back("f " + path + details + " content " + readAll(fd));
            ::close(fd);
            if (firstNames != nullptr && status.st_nlink > 1)
                lines.back() += " = "
                    + firstNames->emplace(std::pair(status.st_dev, status.st_ino), path)
                          .first->second;
        }
    }
}

} // namespace

unsigned Choices::below(unsigned bound)
{
    if (_data == nullptr)
        return std::uniform_int_distribution<unsigned>(0, bound - 1)(_random);
    if (_size == 0)
        return 0;
    --_size;
    return *_data++ % bound;
}

bool makeTree(const std::string& root, Choices& choices)
{
    const bool portable = choices.below(2) == 0;
    check(::mkdir(root.c_str(), 0755), root);
    Builder(choices, portable).fill(std::make_shared<Directory>(::open(root.c_str(), O_RDONLY)), 0);
    return portable;
}

void removeContents(const std::string& root)
{
    removeBelow(Directory(::open(root.c_str(), O_RDONLY | O_DIRECTORY)));
}

const PackFormat kPackFormats[9] = { { ArchiveFormat::Tar, "tar", true, true },
    { ArchiveFormat::TarGz, "tar.gz", true, true },
    { ArchiveFormat::TarBz2, "tar.bz2", true, true },
    { ArchiveFormat::TarXz, "tar.xz", true, true },
    { ArchiveFormat::TarZstd, "tar.zst", true, true }, { ArchiveFormat::Zip, "zip", false, false },
    { ArchiveFormat::Native, "zop", false, false }, { ArchiveFormat::SevenZip, "7z", false, false },
    { ArchiveFormat::Directory, "dir", true, true } };

std::string roundTrip(
    const std::string& source, const std::string& work, const PackFormat& format, bool portable)
{
    const std::string archive = work + "/packed." + format.name;
    const std::string unpacked = work + "/unpacked." + format.name;
    try {
        exportProject(source, archive, format.format);
    } catch (const ArchiveError& error) {
        struct stat left { };
        const bool refusable = !format.anyName && !portable
            && std::string(error.what()).find("archive cannot hold") != std::string::npos;
        return refusable && ::lstat(archive.c_str(), &left) != 0
            ? std::string()
            : std::string("refused: ") + error.what();
    }
    const std::vector<std::string> expected = describe(source, format.hardLinks);
    for (int pass = format.format == ArchiveFormat::Tar ? 2 : 1; pass > 0; --pass) {
        importProject(archive, unpacked, format.format);
        const std::vector<std::string> found = describe(unpacked, format.hardLinks);
        const auto differ
            = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
        if (differ.first != expected.end() || differ.second != found.end())
            return "expected '" + (differ.first != expected.end() ? *differ.first : "")
                + "', found '" + (differ.second != found.end() ? *differ.second : "") + "'";
    }
    return {};
}

std::vector<std::string> describe(const std::string& root, bool hardLinks)
{
    std::vector<std::string> lines;
    std::map<std::pair<dev_t, ino_t>, std::string> firstNames;
    collect(Directory(::open(root.c_str(), O_RDONLY | O_DIRECTORY)), "", lines,
        hardLinks ? &firstNames : nullptr);
    return lines;
}

} // namespace zo::project::test
