#pragma once

#include "libarchive.h"

#include <zo/project/archive.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace zo::project::internal {

struct Block {
    const void* data = nullptr;
    size_t size = 0;
    int64_t offset = 0;
};

// The entries of an archive or of a directory tree, named by paths relative to its root.
class EntryReader {
public:
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;
    virtual ~EntryReader() = default;

    // The next entry, valid until the following call; null after the last one.
    virtual archive_entry* next() = 0;
    // The next data block of the current entry; false once its data is exhausted.
    bool read(Block& block);
    // The archive or directory, as errors name it.
    const std::string& path() const { return _path; }

protected:
    EntryReader(std::string path, ReadArchive handle);
    // Reads the next header into the current entry; false at the end.
    bool nextHeader();

    std::string _path;
    ReadArchive _handle;
    Entry _entry;
};

// An archive file of one format.
class ArchiveFileReader final : public EntryReader {
public:
    ArchiveFileReader(const std::string& path, ArchiveFormat format);
    archive_entry* next() override;

private:
    ArchiveFormat _format;
    bool _started = false;
};

struct Inode {
    dev_t device;
    ino_t number;
};

// A directory tree; symbolic links are entries, never followed.
class TreeReader final : public EntryReader {
public:
    // skip names a file or directory inside the tree left out with all it contains.
    TreeReader(const std::string& root, std::optional<Inode> skip);
    archive_entry* next() override;

private:
    // The root's path and a slash, which entry names start with.
    std::string _prefix;
    std::optional<Inode> _skip;
};

// A reader of path: a TreeReader for Directory, otherwise an ArchiveFileReader.
std::unique_ptr<EntryReader> openReader(const std::string& path, ArchiveFormat format);

} // namespace zo::project::internal
