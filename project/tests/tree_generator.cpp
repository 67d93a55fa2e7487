#include "tree_generator.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
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

// An open directory, kept open while a file in it may still get further names.
using Directory = std::shared_ptr<const int>;

Directory openIn(int parent, const std::string& name)
{
    const int fd = check(
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), name);
    return Directory(new int(fd), [](const int* open) { ::close(*open), delete open; });
}

// Draws a tree from choices, with names made of the first pieces of kPieces.
struct Builder {
    // Fills dir, at depth below the root; a name often extends the sibling's before it: "a" and
    // "a-b", "pip" and "pip/x".
    void fill(const Directory& dir, unsigned depth)
    {
        std::string name;
        for (unsigned count = _choices.below(depth == 0 ? 9 : 5); count > 0; --count) {
            const std::string extended = name + newName();
            name = _choices.below(2) == 0 && extended.size() <= 240 ? extended : newName();
            struct stat taken { };
            if (::fstatat(*dir, name.c_str(), &taken, AT_SYMLINK_NOFOLLOW) != 0)
                add(dir, name, depth, _choices.below(10));
        }
    }

    void add(const Directory& dir, const std::string& name, unsigned depth, unsigned kind)
    {
        const char* at = name.c_str();
        if (kind < 5) {
            const int fd
                = check(::openat(*dir, at, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600), name);
            const std::string content = name + std::string(_choices.below(64), 'c');
            const auto written = ::write(fd, content.data(), content.size());
            check(written == static_cast<ssize_t>(content.size()) ? 0 : -1, name);
            finish(fd, kFileModes[_choices.below(4)]);
            ::close(fd);
            _files.emplace_back(dir, name);
        } else if (kind < 7 || (kind == 9 && _deepDone)) {
            check(::mkdirat(*dir, at, 0700), name);
            const Directory child = openIn(*dir, name);
            if (depth < 3)
                fill(child, depth + 1);
            finish(*child, kDirectoryModes[_choices.below(4)]);
        } else if (kind == 7) {
            std::string target;
            for (unsigned up = _choices.below(depth + 1); up > 0; --up)
                target += "../";
            check(::symlinkat((target + newName()).c_str(), *dir, at), name);
            check(::utimensat(*dir, at, times().data(), AT_SYMLINK_NOFOLLOW), name);
        } else if (kind == 8 && !_files.empty()) {
            const auto& [from, fromName] = _files[_choices.below(_files.size())];
            check(::linkat(*from, fromName.c_str(), *dir, at, 0), name);
        } else if (kind == 9) {
            _deepDone = true;
            deepen(dir, name, 21);
        }
    }

    // A chain of directories whose path passes PATH_MAX, with a file at its end.
    void deepen(const Directory& dir, const std::string& name, int levels)
    {
        check(::mkdirat(*dir, name.c_str(), 0700), name);
        const Directory child = openIn(*dir, name);
        levels > 0 ? deepen(child, std::string(200, 'd'), levels - 1) : add(child, "end", 0, 0);
        finish(*child, 0755);
    }

    void finish(int dir, mode_t mode)
    {
        check(::fchmod(dir, mode), "chmod");
        check(::futimens(dir, times().data()), "times");
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
    const size_t _pieces;
    std::vector<std::pair<Directory, std::string>> _files;
    bool _deepDone = false;
};

// A file's content, or a digest of it when it is long.
std::string contentOf(int dir, const std::string& name)
{
    const int fd = check(::openat(dir, name.c_str(), O_RDONLY | O_CLOEXEC), name);
    std::string content;
    char buffer[4096];
    for (ssize_t count; (count = ::read(fd, buffer, sizeof buffer)) > 0;)
        content.append(buffer, static_cast<size_t>(count));
    ::close(fd);
    return content.size() <= 64 ? content : "#" + std::to_string(std::hash<std::string>()(content));
}

// The names in dir, sorted, read before anything in it changes.
std::vector<std::string> namesIn(int dir)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(
        ::fdopendir(check(::dup(dir), "dup")), ::closedir);
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(stream.get()))
        if (std::string_view(entry->d_name) != "." && std::string_view(entry->d_name) != "..")
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

void removeBelow(int dir)
{
    for (const std::string& name : namesIn(dir))
        if (::unlinkat(dir, name.c_str(), 0) != 0 && errno == EISDIR) {
            removeBelow(*openIn(dir, name));
            check(::unlinkat(dir, name.c_str(), AT_REMOVEDIR), name);
        }
}

// Describes the entries below dir, each directory's in the order of their names; firstNames
// maps a file to the first name met of it.
void collect(int dir, const std::string& prefix, int details, std::vector<std::string>& lines,
    std::map<std::pair<dev_t, ino_t>, std::string>& firstNames)
{
    for (const std::string& name : namesIn(dir)) {
        struct stat status { };
        check(::fstatat(dir, name.c_str(), &status, AT_SYMLINK_NOFOLLOW), name);
        const std::string path = prefix + name;
        if (S_ISLNK(status.st_mode)) {
            std::string target(4096, '\0');
            target.resize(static_cast<size_t>(
                check(::readlinkat(dir, name.c_str(), target.data(), target.size()), name)));
            lines.push_back("l " + path + " -> " + target);
            continue;
        }
        std::string line = (S_ISDIR(status.st_mode) ? "d " : "f ") + path
            + (details & Modes ? " mode " + std::to_string(status.st_mode & 07777) : "")
            + (details & Times ? " time " + std::to_string(status.st_mtime) : "");
        if (S_ISREG(status.st_mode))
            line += " content " + contentOf(dir, name);
        if (S_ISREG(status.st_mode) && details & HardLinks && status.st_nlink > 1)
            line += " = "
                + firstNames.emplace(std::pair(status.st_dev, status.st_ino), path).first->second;
        lines.push_back(line);
        if (S_ISDIR(status.st_mode))
            collect(*openIn(dir, name), path + "/", details, lines, firstNames);
    }
}

} // namespace

unsigned Choices::below(unsigned bound)
{
    if (_data == nullptr)
        return std::uniform_int_distribution<unsigned>(0, bound - 1)(_random);
    return _size == 0 ? 0 : (--_size, *_data++ % bound);
}

bool makeTree(const std::string& root, Choices& choices)
{
    const bool portable = choices.below(2) == 0;
    check(::mkdir(root.c_str(), 0755), root);
    Builder { choices, portable ? kUnportable : std::size(kPieces), {}, false }.fill(
        openIn(AT_FDCWD, root), 0);
    return portable;
}

void removeContents(const std::string& root)
{
    removeBelow(*openIn(AT_FDCWD, root));
}

std::vector<std::string> describe(const std::string& root, int details)
{
    std::vector<std::string> lines;
    std::map<std::pair<dev_t, ino_t>, std::string> firstNames;
    collect(*openIn(AT_FDCWD, root), "", details, lines, firstNames);
    return lines;
}

const ArchiveFormat kPackFormats[9] = { ArchiveFormat::Tar, ArchiveFormat::TarGz,
    ArchiveFormat::TarBz2, ArchiveFormat::TarXz, ArchiveFormat::TarZstd, ArchiveFormat::Zip,
    ArchiveFormat::Native, ArchiveFormat::SevenZip, ArchiveFormat::Directory };

std::string roundTrip(
    const std::string& source, const std::string& work, ArchiveFormat format, bool portable)
{
    const std::string archive = work + "/packed." + formatName(format);
    const std::string unpacked = work + "/unpacked." + formatName(format);
    // The zips and 7z hold only names that are UTF-8 in composed form, and no hard links.
    const bool keepsAll = format != ArchiveFormat::Zip && format != ArchiveFormat::Native
        && format != ArchiveFormat::SevenZip;
    try {
        exportProject(source, archive, format);
    } catch (const ArchiveError& error) {
        struct stat left { };
        const bool refusable = !keepsAll && !portable
            && std::string(error.what()).find("archive cannot hold") != std::string::npos;
        return refusable && ::lstat(archive.c_str(), &left) != 0
            ? std::string()
            : std::string("refused: ") + error.what();
    }
    const int details = keepsAll ? Everything : Modes | Times;
    const std::vector<std::string> expected = describe(source, details);
    for (int pass = format == ArchiveFormat::Tar ? 2 : 1; pass > 0; --pass) {
        importProject(archive, unpacked, format);
        const std::vector<std::string> found = describe(unpacked, details);
        const auto [want, got]
            = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
        if (want != expected.end() || got != found.end())
            return "expected '" + (want != expected.end() ? *want : "") + "', found '"
                + (got != found.end() ? *got : "") + "'";
    }
    return {};
}

} // namespace zo::project::test
