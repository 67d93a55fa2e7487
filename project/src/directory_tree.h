#pragma once

#include "files.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace zo::project::detail {

// A name in the directory node directory; Name holds the text or views it.
template <typename Name> struct NameIn {
    size_t directory;
    Name name;

    bool operator==(const NameIn& other) const
    {
        return directory == other.directory && name == other.name;
    }
    struct Hash {
        size_t operator()(const NameIn& place) const
        {
            return std::hash<Name>()(place.name) ^ (place.directory * 0x9e3779b97f4a7c15);
        }
    };
};

// The directories below a root that an unpacking writes into. Each is a node that knows its
// parent and its own name only, so that memory grows with the number of directories rather than
// with the length of their paths. One directory is open at a time; moving to another costs the
// steps between the two, not a walk from the root. Directories are opened without following
// links, so that no link, whether from the archive or already there, leads outside the root.
class DirectoryTree {
public:
    using Node = size_t;
    static constexpr Node root = 0;

    // archive names the source in errors.
    DirectoryTree(int rootFd, std::string archive);

    // The node of the directory path ("a/b", "" for the root), added when it is new.
    Node node(std::string_view path);
    // The node of path if it was added before.
    std::optional<Node> find(std::string_view path) const;
    // A descriptor of the directory of node, valid until the next call. Missing directories on
    // the way are created (mode 0755) when create is set, refused otherwise. Errors name entry,
    // or the directory itself when entry is empty.
    int open(Node node, const std::string& entry, bool create);

    Node parent(Node node) const { return _directories[node].parent; }
    const std::string& name(Node node) const { return _directories[node].name; }
    size_t depth(Node node) const { return _directories[node].depth; }
    // The path of node below the root, for messages.
    std::string pathOf(Node node) const;

private:
    struct Directory {
        Node parent;
        std::string name;
        size_t depth;
        // The identity seen when it was last opened, which a step up through ".." must meet.
        os::FileIdentity identity {};
    };
    Node child(Node parent, std::string_view name);
    int openFd() const { return _openFd ? _openFd.get() : _rootFd; }
    void stepUp(const std::string& entry);
    void stepDown(Node node, const std::string& entry, bool create);
    void remember(Node node, const std::string& entry);

    int _rootFd;
    std::string _archive;
    // A deque keeps names in place, so the keys of _children may view them.
    std::deque<Directory> _directories;
    std::unordered_map<NameIn<std::string_view>, Node, NameIn<std::string_view>::Hash> _children;
    // The path last asked for: archives list the entries of a directory together.
    std::string _lastPath;
    Node _lastNode = root;
    Node _openNode = root;
    UniqueFd _openFd;
};

} // namespace zo::project::detail
