#include <zo/file.h>
#include <zo/os.h>

#include <charconv>
#include <climits>

namespace zo::os {
namespace {

// Between the copied name and what made the file.
constexpr std::string_view kMark = ".zo-";

// The longest start of name of at most size bytes that does not end inside a UTF-8 sequence.
std::string_view shortened(std::string_view name, std::size_t size)
{
    if (name.size() <= size)
        return name;
    while (size > 0 && (static_cast<unsigned char>(name[size]) & 0xC0) == 0x80)
        --size;
    return name.substr(0, size);
}

std::string hiddenPathBeside(
    const std::string& path, std::string_view purpose, std::string_view unique)
{
    const std::size_t nameStart = path.rfind('/') + 1; // 0 without a slash
    const std::string tail = std::string(kMark) + std::string(purpose) + '-'
        + std::to_string(getpid()) + '.' + std::string(unique);
    const std::size_t room = NAME_MAX - 1 - tail.size(); // 1 for the leading dot
    return path.substr(0, nameStart) + '.'
        + std::string(shortened(std::string_view(path).substr(nameStart), room)) + tail;
}

} // namespace

std::string hiddenTemplateBeside(const std::string& path, std::string_view purpose)
{
    return hiddenPathBeside(path, purpose, "XXXXXX");
}

std::string unusedHiddenPathBeside(const std::string& path, std::string_view purpose)
{
    for (unsigned long long n = 0;; ++n) {
        std::string candidate = hiddenPathBeside(path, purpose, std::to_string(n));
        if (!linkStatus(candidate.c_str()))
            return candidate;
    }
}

std::string hiddenTemplateIn(const std::string& directory, std::string_view purpose)
{
    return (directory == "/" ? "" : directory) + "/" + std::string(kMark) + std::string(purpose)
        + '-' + std::to_string(getpid()) + ".XXXXXX";
}

std::optional<HiddenName> parseHiddenName(std::string_view name)
{
    // ".<name>.zo-<purpose>-<pid>.<unique>", read from the end, where <name> may be anything,
    // or ".zo-<purpose>-<pid>.<unique>" for a directory's own.
    if (name.empty() || name[0] != '.')
        return std::nullopt;
    const std::size_t uniqueStart = name.rfind('.');
    const std::string_view stem = name.substr(0, uniqueStart);
    const std::size_t mark = stem.rfind(kMark);
    if (uniqueStart + 1 == name.size() || mark == std::string_view::npos)
        return std::nullopt;
    const std::string_view owner = stem.substr(mark + kMark.size());
    const std::size_t dash = owner.find('-');
    const std::string_view purpose = owner.substr(0, dash);
    if (dash == std::string_view::npos || purpose.empty()
        || purpose.find_first_not_of("abcdefghijklmnopqrstuvwxyz") != std::string_view::npos)
        return std::nullopt;
    const std::string_view digits = owner.substr(dash + 1);
    int pid = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (error != std::errc() || end != digits.data() + digits.size() || pid <= 0)
        return std::nullopt;
    return HiddenName { std::string(purpose), pid };
}

} // namespace zo::os
