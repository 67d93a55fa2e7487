#include <zo/leftover.h>
#include <zo/treewalk.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>
#include <string_view>

namespace zo::os {
namespace {

// The purposes whose files hold only what is found elsewhere too: the source of a copy, the
// workspace a save or pack reads, the archive an unpack reads, the value a metadata file or
// record is written from.
constexpr std::string_view kRedundant[] = { "copy", "meta", "pack", "record", "save", "unpack" };

std::vector<std::string> namesIn(int directory)
{
    std::vector<std::string> names;
    WalkOptions options;
    options.includeHidden = true;
    options.followLinks = false;
    options.recursive = false;
    walkTree(directory, options, [&names](const WalkEntry& entry) {
        names.emplace_back(entry.name);
        return WalkStep::Continue;
    });
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<Leftover> leftoversAmong(
    const std::string& directory, const std::vector<std::string>& names)
{
    std::vector<Leftover> found;
    OwnerMarks marks;
    for (const std::string& name : names) {
        const std::optional<HiddenName> hidden = parseHiddenName(name);
        if (!hidden || isOwnerMarkName(name))
            continue;
        const std::string path = (directory == "/" ? "" : directory) + "/" + name;
        const OwnerVerdict verdict = marks.judge(path, hidden->pid);
        found.push_back({ path, *hidden, verdict.liveness,
            !verdict.showsOurs()
                || std::find(std::begin(kRedundant), std::end(kRedundant), hidden->purpose)
                    == std::end(kRedundant) });
    }
    return found;
}

// Every number in name: a file named after a process carries its id as one.
void addNumbersOf(std::string_view name, std::set<int>& numbers)
{
    for (std::size_t at = 0; at < name.size();) {
        if (!std::isdigit(static_cast<unsigned char>(name[at]))) {
            ++at;
            continue;
        }
        const std::size_t end = std::min(name.find_first_not_of("0123456789", at), name.size());
        int number = 0;
        if (std::from_chars(name.data() + at, name.data() + end, number).ec == std::errc())
            numbers.insert(number);
        at = end;
    }
}

} // namespace

std::vector<Leftover> findLeftovers(const std::string& directory)
{
    const UniqueFd opened = openDirectory(directory.c_str());
    return opened ? leftoversAmong(directory, namesIn(opened.get())) : std::vector<Leftover>();
}

void removeEndedLeftovers(
    const std::string& directory, Cleanup what, const std::function<bool(int)>& inUse)
{
    const UniqueFd opened = openDirectory(directory.c_str());
    if (!opened)
        return;
    std::vector<std::string> names = namesIn(opened.get());
    if (what == Cleanup::Everything)
        for (const Leftover& leftover : leftoversAmong(directory, names)) {
            const std::string name = leftover.path.substr(leftover.path.rfind('/') + 1);
            if (leftover.owner == Liveness::Ended && !leftover.holdsData
                && removeTreeAt(opened.get(), name.c_str()))
                names.erase(std::find(names.begin(), names.end(), name));
        }
    std::set<int> named;
    for (const std::string& name : names)
        if (!isOwnerMarkName(name))
            addNumbersOf(name, named);
    OwnerMarks().removeEndedMarks(
        directory, [&](int pid) { return named.count(pid) != 0 || (inUse && inUse(pid)); });
}

} // namespace zo::os
