#include "watchsnapshot.h"

#include <algorithm>

namespace zo::project::detail {

void StampTable::append(std::string_view path, FileStamp stamp, bool known, bool stamped)
{
    _rows.push_back(Row { static_cast<std::uint32_t>(_paths.size()),
        static_cast<std::uint32_t>(path.size()), stamp, known, stamped });
    _paths.append(path);
}

void StampTable::appendRow(const StampTable& from, const Row& row)
{
    append(from.pathOf(row), row.stamp, row.known, row.stamped);
}

void StampTable::sort()
{
    const auto byPath = [this](const Row& a, const Row& b) { return pathOf(a) < pathOf(b); };
    if (!std::is_sorted(_rows.begin(), _rows.end(), byPath))
        std::sort(_rows.begin(), _rows.end(), byPath);
}

StampTable::Row* StampTable::find(std::string_view path)
{
    const auto row = std::lower_bound(
        _rows.begin(), _rows.end(), path, [this](const Row& candidate, std::string_view wanted) {
            return pathOf(candidate) < wanted;
        });
    return row != _rows.end() && pathOf(*row) == path ? &*row : nullptr;
}

void WatchSnapshot::setKnown(const std::vector<std::string>& paths, const QStringList& outsidePaths)
{
    for (StampTable::Row& row : _table.rows())
        row.known = false;
    std::vector<std::string_view> newPaths;
    for (const std::string& path : paths)
        if (StampTable::Row* row = _table.find(path))
            row->known = true;
        else
            newPaths.emplace_back(path);
    // Rows that were only known, never stamped, leave with the old known set.
    StampTable table;
    for (const StampTable::Row& row : _table.rows())
        if (row.known || row.stamped)
            table.appendRow(_table, row);
    for (const std::string_view path : newPaths)
        table.append(path, FileStamp {}, true, false);
    table.sort();
    _table = std::move(table);
    _knownOutside = outsidePaths;
}

void WatchSnapshot::update(StampTable listing, bool listingIsKnown, WatchChanges* changes)
{
    const auto report
        = [changes](std::vector<std::string> WatchChanges::*kind, std::string_view path) {
              if (changes != nullptr)
                  (changes->*kind).emplace_back(path);
          };
    listing.sort();
    std::vector<StampTable::Row>& current = listing.rows();
    const std::vector<StampTable::Row>& previous = _table.rows();
    StampTable keptStamps; // of files that left the known set unseen
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < previous.size() || j < current.size()) {
        const std::string_view previousPath
            = i < previous.size() ? _table.pathOf(previous[i]) : std::string_view();
        const std::string_view currentPath
            = j < current.size() ? listing.pathOf(current[j]) : std::string_view();
        const int order = i == previous.size() ? 1
            : j == current.size()              ? -1
                                               : previousPath.compare(currentPath);
        if (order < 0) {
            const StampTable::Row& row = previous[i++];
            if (row.known && !listingIsKnown)
                report(&WatchChanges::removed, previousPath);
            else if (row.stamped)
                keptStamps.append(previousPath, row.stamp, false, true);
            continue;
        }
        const StampTable::Row* before = order == 0 ? &previous[i++] : nullptr;
        const StampTable::Row& now = current[j++];
        if (!listingIsKnown && (before == nullptr || !before->known))
            report(&WatchChanges::added, currentPath);
        else if (before == nullptr || !before->stamped
            || before->stamp.modifiedMs != now.stamp.modifiedMs
            || before->stamp.size != now.stamp.size)
            report(&WatchChanges::modified, currentPath);
    }
    if (changes != nullptr && !listingIsKnown)
        changes->removedOutside = _knownOutside;
    _knownOutside.clear();

    if (!keptStamps.empty()) {
        for (const StampTable::Row& row : keptStamps.rows())
            listing.appendRow(keptStamps, row);
        listing.sort();
    }
    _table = std::move(listing);
}

StampTable WatchSnapshot::listingAfter(PartialListing read) const
{
    StampTable& found = read.files;
    found.sort();
    // A walk of the whole tree keeps nothing of the last listing.
    if (std::any_of(read.marks.begin(), read.marks.end(),
            [](const PartialListing::Mark& mark) { return mark.prefix.empty(); })
        && std::none_of(read.marks.begin(), read.marks.end(),
            [](const PartialListing::Mark& mark) { return mark.unchanged; }))
        return std::move(found);
    std::sort(read.marks.begin(), read.marks.end(),
        [](const PartialListing::Mark& a, const PartialListing::Mark& b) {
            return a.prefix < b.prefix;
        });
    // The table is sorted, so that a directory's files follow one another: the marks that
    // hold the current path are a stack, innermost last, and the innermost decides.
    StampTable listing;
    std::vector<const PartialListing::Mark*> holding;
    auto nextMark = read.marks.cbegin();
    auto nextFound = found.rows().cbegin();
    const auto holds = [](const PartialListing::Mark* mark, std::string_view path) {
        return path.substr(0, mark->prefix.size()) == mark->prefix;
    };
    for (const StampTable::Row& row : _table.rows()) {
        if (!row.known)
            continue;
        const std::string_view path = _table.pathOf(row);
        while (!holding.empty() && !holds(holding.back(), path))
            holding.pop_back();
        for (; nextMark != read.marks.cend() && nextMark->prefix <= path; ++nextMark)
            if (holds(&*nextMark, path))
                holding.push_back(&*nextMark);
        if (!holding.empty() && !holding.back()->unchanged)
            continue;
        for (; nextFound != found.rows().cend() && found.pathOf(*nextFound) < path; ++nextFound)
            listing.appendRow(found, *nextFound);
        listing.appendRow(_table, row);
    }
    for (; nextFound != found.rows().cend(); ++nextFound)
        listing.appendRow(found, *nextFound);
    return listing;
}

} // namespace zo::project::detail
