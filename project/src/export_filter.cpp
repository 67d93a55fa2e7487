#include "export_filter.h"

#include "errors.h"

#include <zo/file.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace zo::project::detail {
namespace {

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// ".<name>.<pid>.csp", or the copy being made of it with six random characters after a dot.
bool isSwapName(std::string_view name)
{
    constexpr std::string_view swap = ".csp";
    constexpr size_t randomTail = 7; // ".XXXXXX"
    if (!endsWith(name, swap) && name.size() > randomTail
        && endsWith(name.substr(0, name.size() - randomTail), swap))
        name.remove_suffix(randomTail);
    if (name.size() < 2 || name.front() != '.' || !endsWith(name, swap))
        return false;
    name.remove_suffix(swap.size());
    const size_t dot = name.rfind('.');
    const std::string_view pid = name.substr(dot + 1);
    return dot > 1 && !pid.empty()
        && std::all_of(pid.begin(), pid.end(), [](char c) { return std::isdigit(c) != 0; });
}

// "<name>bck" while "<name>" lies beside it: the commit put its source in place, so the
// backup holds nothing that is not also elsewhere.
bool isStaleBackup(std::string_view name, const std::string& path)
{
    constexpr std::string_view backup = "bck";
    return name.size() > backup.size() && endsWith(name, backup)
        && os::linkStatus(path.substr(0, path.size() - backup.size()).c_str()).has_value();
}

} // namespace

ExportFilter::ExportFilter(const ExportOptions& options, const std::string& source)
    : _editingFiles(options.leaveOutEditingFiles)
{
    if (options.exclude.empty())
        return;
    _patterns.reset(archive_match_new());
    if (!_patterns)
        throw std::bad_alloc();
    for (const std::string& pattern : options.exclude)
        if (archive_match_exclude_pattern(_patterns.get(), pattern.c_str()) != ARCHIVE_OK)
            fail(
                source, "cannot take the pattern '" + pattern + "': " + errorText(_patterns.get()));
}

bool ExportFilter::leavesOut(archive_entry* entry, const std::string& path)
{
    if (_patterns && archive_match_path_excluded(_patterns.get(), entry) > 0)
        return true;
    if (!_editingFiles)
        return false;
    const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
    if (const std::optional<os::HiddenName> hidden = os::parseHiddenName(name))
        return os::isOwnerMarkName(name) || _marks.judge(path, hidden->pid).showsOurs();
    return archive_entry_filetype(entry) == AE_IFREG
        && (isSwapName(name) || isStaleBackup(name, path));
}

} // namespace zo::project::detail
