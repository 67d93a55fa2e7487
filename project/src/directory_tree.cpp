#include "directory_tree.h"

#include "errors.h"

#include <zo/file.h>

#include <algorithm>

namespace zo::project::detail {
namespace {

// The length of the leading components a and b share, at a component boundary.
size_t sharedLength(std::string_view a, std::string_view b)
{
    // Mostly one path continues the other: memcmp is far quicker than comparing bytes one by one.
    const bool continues = a.size() <= b.size() && b.compare(0, a.size(), a) == 0;
    const size_t length = continues
        ? a.size()
        : static_cast<size_t>(
            std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin());
    const auto endsComponent
        = [length](std::string_view path) { return length == path.size() || path[length] == '/'; };
    if (endsComponent(a) && endsComponent(b))
        return length;
    // The last slash before the first difference: one at the difference itself ends a
    // component on one side only ("a/b" against "ab").
    const size_t slash = length == 0 ? std::string_view::npos : a.rfind('/', length - 1);
    return slash == std::string_view::npos ? 0 : slash;
}

// Calls visit with each component of a path made of "/"-separated names.
template <typename Visit> void forEachName(std::string_view path, Visit&& visit)
{
    while (!path.empty()) {
        const size_t slash = std::min(path.find('/'), path.size());
        if (slash > 0)
            visit(path.substr(0, slash));
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
}

} // namespace

DirectoryTree::DirectoryTree(int rootFd, std::string archive)
    : _rootFd(rootFd)
    , _archive(std::move(archive))
{
    _directories.push_back({ root, "", 0 });
}

DirectoryTree::Node DirectoryTree::node(std::string_view path)
{
    const size_t shared = sharedLength(_lastPath, path);
    const std::string_view left = std::string_view(_lastPath).substr(shared);
    Node node = _lastNode;
    forEachName(left, [&](std::string_view) { node = parent(node); });
    forEachName(path.substr(shared), [&](std::string_view name) { node = child(node, name); });
    _lastPath.assign(path);
    _lastNode = node;
    return node;
}

std::optional<DirectoryTree::Node> DirectoryTree::find(std::string_view path) const
{
    std::optional<Node> node = root;
    forEachName(path, [&](std::string_view name) {
        const auto found = node ? _children.find({ *node, name }) : _children.end();
        node = found != _children.end() ? std::optional<Node>(found->second) : std::nullopt;
    });
    return node;
}

DirectoryTree::Node DirectoryTree::child(Node parent, std::string_view name)
{
    const auto found = _children.find({ parent, name });
    if (found != _children.end())
        return found->second;
    const Node node = _directories.size();
    _directories.push_back({ parent, std::string(name), depth(parent) + 1 });
    _children.emplace(NameIn<std::string_view> { parent, _directories.back().name }, node);
    return node;
}

std::string DirectoryTree::pathOf(Node node) const
{
    std::string path;
    for (; node != root; node = parent(node))
        path.insert(0, (path.empty() ? "" : "/") + name(node));
    return path;
}

int DirectoryTree::open(Node target, const std::string& entry, bool create)
{
    // The way from the open directory up to the closest common ancestor, then down to target.
    size_t up = 0;
    std::vector<Node> down;
    Node from = _openNode;
    for (Node to = target; from != to;) {
        if (depth(from) >= depth(to)) {
            from = parent(from);
            ++up;
        } else {
            down.push_back(to);
            to = parent(to);
        }
    }
    // Climbing further than the ancestor lies below the root costs more than starting there.
    if (up > depth(from)) {
        for (; from != root; from = parent(from))
            down.push_back(from);
        _openFd = UniqueFd();
        _openNode = root;
        up = 0;
    }
    for (; up > 0; --up)
        stepUp(entry);
    for (auto node = down.rbegin(); node != down.rend(); ++node)
        stepDown(*node, entry, create);
    return openFd();
}

void DirectoryTree::stepUp(const std::string& entry)
{
    const Node above = parent(_openNode);
    if (above == root) {
        _openFd = UniqueFd();
    } else {
        // The directory held open was reached safely; its parent is the one recorded unless
        // something moved it meanwhile.
        UniqueFd fd = os::openDirectoryAt(openFd(), "..");
        const auto status = fd ? os::status(fd.get()) : std::nullopt;
        if (!status || status->identity != _directories[above].identity)
            failEntry(_archive, entry.empty() ? pathOf(above) : entry,
                "the directory '" + name(above) + "' moved while unpacking");
        _openFd = std::move(fd);
    }
    _openNode = above;
}

void DirectoryTree::stepDown(Node node, const std::string& entry, bool create)
{
    const char* childName = name(node).c_str();
    UniqueFd fd = os::openDirectoryAt(openFd(), childName);
    if (!fd && errno == ENOENT && create) {
        if (!os::makeDirectoryAt(openFd(), childName, 0755) && errno != EEXIST)
            failEntry(_archive, entry.empty() ? pathOf(node) : entry,
                "cannot create directory '" + name(node) + "': " + systemError());
        fd = os::openDirectoryAt(openFd(), childName);
    }
    if (!fd) {
        const int error = errno;
        const std::string& named = entry.empty() ? pathOf(node) : entry;
        const auto status = error == ELOOP || error == ENOTDIR
            ? os::statusAt(openFd(), childName, false)
            : std::nullopt;
        if (status)
            failEntry(_archive, named,
                status->type == os::EntryType::Link
                    ? "writing through the symbolic link '" + name(node) + "' is refused"
                    : "'" + name(node) + "' is in the way of a directory");
        failEntry(
            _archive, named, "cannot open directory '" + name(node) + "': " + systemError(error));
    }
    _openFd = std::move(fd);
    _openNode = node;
    remember(node, entry);
}

void DirectoryTree::remember(Node node, const std::string& entry)
{
    const auto status = os::status(openFd());
    if (!status)
        failEntry(_archive, entry.empty() ? pathOf(node) : entry,
            "cannot query directory '" + name(node) + "': " + systemError());
    _directories[node].identity = status->identity;
}

} // namespace zo::project::detail
