#include "entry_check.h"

#include "errors.h"
#include "libarchive.h"

#include <algorithm>
#include <string_view>

namespace zo::project::internal {
namespace {

// The components of a "/"-separated path without empty and "." ones.
std::vector<std::string> components(std::string_view path)
{
    std::vector<std::string> parts;
    while (!path.empty()) {
        const auto slash = std::min(path.find('/'), path.size());
        const std::string_view part = path.substr(0, slash);
        if (!part.empty() && part != ".")
            parts.emplace_back(part);
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    return parts;
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
    for (const std::string& part : components(target)) {
        if (part != "..")
            descended = true;
        else if (descended || ++climbed > depth)
            refuse("is refused: it may lead outside the destination");
    }
}

} // namespace

std::vector<std::string> checkEntry(archive_entry* entry, const std::string& archive)
{
    const std::string name = entryName(entry);
    const auto refuse = [&](const std::string& reason) { failEntry(archive, name, reason); };
    if (!name.empty() && name.front() == '/')
        refuse("absolute names are refused");
    std::vector<std::string> parts = components(name);
    if (std::find(parts.begin(), parts.end(), "..") != parts.end())
        refuse("names with '..' are refused");
    if (archive_entry_hardlink(entry) != nullptr)
        refuse("hard links are refused");
    switch (archive_entry_filetype(entry)) {
    case AE_IFDIR:
        return parts;
    case AE_IFREG:
        break;
    case AE_IFLNK:
        checkLinkTarget(entry, parts.empty() ? 0 : parts.size() - 1, archive);
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
    if (parts.empty())
        refuse("a file needs a name");
    return parts;
}

} // namespace zo::project::internal
