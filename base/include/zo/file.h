#pragma once

#include <zo/zo_export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>

// Files and directories through descriptors. Each call does one system step and reports failure
// as false (or an empty result) with errno set, so that callers word their own messages.
// Descriptors are opened close-on-exec; those opened "At" a directory never follow a link in
// the last component.
namespace zo::os {

// Owns a descriptor; closing keeps errno, so that a failure being reported is not masked.
class ZO_EXPORT UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd)
        : _fd(fd)
    {
    }
    UniqueFd(UniqueFd&& other) noexcept;
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd();

    int get() const { return _fd; }
    explicit operator bool() const { return _fd >= 0; }
    // Closes the descriptor and reports close's own failure (a late write error) as false.
    bool close();

private:
    int _fd = -1;
};

// Whether this process may read what path names (by its real user and group, as access(2)).
ZO_EXPORT bool isReadable(const char* path);

// A directory, links followed.
ZO_EXPORT UniqueFd openDirectory(const char* path);
ZO_EXPORT UniqueFd openDirectoryAt(int directory, const char* name);
// A file for reading.
ZO_EXPORT UniqueFd openForReading(const char* path);
ZO_EXPORT UniqueFd openForReadingAt(int directory, const char* name);
// A new file for writing; fails with EEXIST when name exists.
ZO_EXPORT UniqueFd createFileAt(int directory, const char* name, mode_t mode);
// A new private file or directory named after pathTemplate, whose trailing "XXXXXX" is
// replaced by the name made.
ZO_EXPORT UniqueFd createTemporaryFile(std::string& pathTemplate);
ZO_EXPORT bool createTemporaryDirectory(std::string& pathTemplate);
// A new directory named after pathTemplate as above, but with mode less the umask, as mkdir
// makes it, where a temporary directory is private.
ZO_EXPORT bool makeUniqueDirectory(std::string& pathTemplate, mode_t mode);

ZO_EXPORT bool makeDirectoryAt(int directory, const char* name, mode_t mode);
ZO_EXPORT bool makeSymlinkAt(const char* target, int directory, const char* name);
// Removes a file or link (not a directory).
ZO_EXPORT bool remove(const char* path);
ZO_EXPORT bool removeAt(int directory, const char* name);
// Removes an empty directory.
ZO_EXPORT bool removeDirectoryAt(int directory, const char* name);

// Access and modification time; a tv_nsec of UTIME_OMIT leaves that time as it is.
using FileTimes = std::array<timespec, 2>;
ZO_EXPORT bool setPermissions(int descriptor, mode_t mode);
ZO_EXPORT bool setTimes(int descriptor, const FileTimes& times);
// The times of name itself, a link included.
ZO_EXPORT bool setTimesAt(int directory, const char* name, const FileTimes& times);
ZO_EXPORT bool resize(int descriptor, std::uint64_t size);

// Reads from the current position to the end, appending to text.
ZO_EXPORT bool readAll(int descriptor, std::string& text);
// Writes all of data at offset.
ZO_EXPORT bool writeAll(int descriptor, const void* data, std::size_t size, off_t offset);
// Copies the content of from, size bytes as measured (and whatever it gained since), into the
// empty file to: shares blocks where the file system can (a reflink), else copies inside the
// kernel, else through a buffer.
ZO_EXPORT bool copyContent(int from, int to, std::uint64_t size);

// The bytes an unprivileged writer may still use on the file system of descriptor.
ZO_EXPORT std::optional<std::uint64_t> availableSpace(int descriptor);

} // namespace zo::os
