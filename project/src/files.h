#pragma once

#include <zo/file.h>

#include <string>
#include <string_view>

namespace zo::project::detail {

using os::UniqueFd;

// Renames temp over target and syncs the directory so that the rename survives a crash.
void renameInto(const std::string& temp, const std::string& target);

// A hidden file beside target, named for purpose (see hiddenTemplateBeside), that replaces
// target when kept and is removed otherwise.
class AtomicFile {
public:
    AtomicFile(std::string target, std::string_view purpose);
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();

    int fd() const { return _fd.get(); }
    // Writes data as the whole content.
    void write(std::string_view data);
    // Makes the content durable and puts it in the target's place.
    void keep();

private:
    std::string _target;
    std::string _temp;
    UniqueFd _fd;
};

// Removes a directory tree on destruction unless kept; nothing when the path is empty.
class TreeGuard {
public:
    explicit TreeGuard(std::string path)
        : _path(std::move(path))
    {
    }
    TreeGuard(const TreeGuard&) = delete;
    TreeGuard& operator=(const TreeGuard&) = delete;
    ~TreeGuard();

    void keep() { _path.clear(); }

private:
    std::string _path;
};

} // namespace zo::project::detail
