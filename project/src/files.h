#pragma once

#include <zo/file.h>
#include <zo/replace.h>

#include <string>
#include <string_view>

namespace zo::project::detail {

using os::UniqueFd;

// Removes what ended processes left beside path (zo/leftover.h): each import or export cleans
// up after the killed ones before it in the directories it reads or writes.
void removeLeftoversBeside(const std::string& path);

// Renames temp over target durably (zo/replace.h); ArchiveError naming target otherwise.
void renameInto(const std::string& temp, const std::string& target);

// The durable replacement of target (zo/replace.h) that reports a failed step as an
// ArchiveError naming target; removed unless kept.
class AtomicFile {
public:
    AtomicFile(std::string target, std::string_view purpose);

    int fd() const { return _file.fd(); }
    // Writes data as the whole content.
    void write(std::string_view data);
    // Makes the content durable and puts it in the target's place.
    void keep();

private:
    std::string _target;
    os::FileReplacement _file;
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
    // Guards path from now on, instead of what it guarded before.
    void reset(std::string path) { _path = std::move(path); }

private:
    std::string _path;
};

} // namespace zo::project::detail
