#include "entry_check.h"

#include "errors.h"
#include "libarchive.h"

#include <algorithm>

namespace zo::project::internal {
namespace {

// Calls visit with each component of a "/"-separated path, empty and "." ones left out.
template <typename Visit> void forEachComponent(std::string_view path, Visit&& visit)
{
    while (!path.empty()) {
        const size_t slash = std::min(path.find('/'), path.size());
        const std::string_view part = path.substr(0, slash);
        if (!part.empty() && part != ".")
            visit(part);
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
}

// Whether name has no empty, "." or ".." component. Most names are plain already; deep trees
// make long ones of many short components, which one pass over the bytes checks quickly.
bool isPlain(std::string_view name)
{
    size_t start = 0;
    for (size_t end = 0; end <= name.size(); ++end) {
        if (end < name.size() && name[end] != '/')
            continue;
        const size_t length = end - start;
        const bool dots
            = length <= 2 && name[start] == '.' && (length == 1 || name[start + 1] == '.');
        if (length == 0 || dots)
            return name.empty();
        start = end + 1;
    }
    return true;
}

// A link may climb with leading ".." no higher than the destination. Once it has descended,
// ".." is refused: the component it backs out of may itself be a link.
void checkLinkTarget(archive_entry* entry, size_t depth, const std::string& archive)
{
    const char* raw = archive_entry_symlink(entry);
    const std::string target = raw != nullptr ? raw : "";
    const auto refuse = [&](const std::string& reason) {
        failEntry(archive, entryName(entry), "symbolic link to '" + target + "' " + reason);
    };
    if (target.empty() || target.front() == '/')
        refuse("is refused: its target must be a relative path");
    size_t climbed = 0;
    bool descended = false;
    forEachComponent(target, [&](std::string_view part) {
        if (part != "..")
            descended = true;
        else if (descended || ++climbed > depth)
            refuse("is refused: it may lead outside the destination");
    });
}

} // namespace

std::optional<std::string> nameBelow(std::string_view name)
{
    if (!name.empty() && name.front() == '/')
        return std::nullopt;
    while (!name.empty() && name.back() == '/')
        name.remove_suffix(1);
    if (isPlain(name))
        return std::string(name);
    std::string below;
    bool climbs = false;
    forEachComponent(name, [&](std::string_view part) {
        climbs = climbs || part == "..";
        below.append(below.empty() ? "" : "/").append(part);
    });
    if (climbs)
        return std::nullopt;
    return below;
}

void refuseHardLink(const std::string& archive, const std::string& entry, const std::string& target)
{
    failEntry(archive, entry,
        "hard link to '" + target + "' is refused: it must name an earlier file of the archive");
}

std::string checkEntry(archive_entry* entry, const std::string& archive)
{
    const std::string name = entryName(entry);
    const auto refuse = [&](const std::string& reason) { failEntry(archive, name, reason); };
    if (!name.empty() && name.front() == '/')
        refuse("absolute names are refused");
    std::optional<std::string> below = nameBelow(name);
    if (!below)
        refuse("names with '..' are refused");
    if (const char* target = archive_entry_hardlink(entry)) {
        const std::optional<std::string> targetBelow = nameBelow(target);
        if (!targetBelow || targetBelow->empty() || below->empty())
            refuseHardLink(archive, name, target);
        return *below;
    }
    switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
        return *below;
    case AE_IFREG:
        break;
    case AE_IFLNK:
        checkLinkTarget(
            entry, static_cast<size_t>(std::count(below->begin(), below->end(), '/')), archive);
        break;
    case AE_IFCHR:
    case AE_IFBLK:
        refuse("device nodes are refused");
        break;
    case AE_IFIFO:
        refuse("FIFOs are refused");
        break;
    default:
        refuse("only files, directories and symbolic links are accepted");
    }
    if (below->empty())
        refuse("a file needs a name");
    return *below;
}

} // namespace zo::project::internal
