#pragma once

#include "export_filter.h"
#include "libarchive.h"

#include <zo/file.h>
#include <zo/project/archive.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace zo::project::detail {

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
    archive_entry* next();
    // The next data block of the current entry; false once its data is exhausted.
    bool read(Block& block);
    // The archive or directory, as errors name it.
    const std::string& path() const { return _path; }
    // From now on reports to progress, if set, after every entry and block; a false answer
    // throws Cancelled.
    void reportTo(const ProgressCallback& progress);

protected:
    EntryReader(std::string path, ReadArchive handle);
    // The next entry of the input, as next() gives it.
    virtual archive_entry* fetch() = 0;
    // What is known of the whole input before reading it.
    virtual Progress totals() const = 0;
    // How much of the input was consumed so far: the bytes of data read unless overridden.
    virtual uint64_t consumed() const { return _dataRead; }
    // Reads the next header into the current entry; false at the end.
    bool nextHeader();

    std::string _path;
    ReadArchive _handle;
    Entry _entry;

private:
    void report();

    uint64_t _dataRead = 0;
    ProgressCallback _progress;
    Progress _state;
    bool _inEntry = false;
};

// Thrown by a reader when its progress callback asks to stop.
struct Cancelled { };

// An archive file of one format.
class ArchiveFileReader final : public EntryReader {
public:
    ArchiveFileReader(const std::string& path, ArchiveFormat format);

protected:
    archive_entry* fetch() override;
    Progress totals() const override;
    uint64_t consumed() const override;

private:
    ArchiveFormat _format;
    bool _started = false;
};

// A directory tree; symbolic links are entries, never followed.
class TreeReader final : public EntryReader {
public:
    // skip names a file or directory inside the tree left out with all it contains, and so
    // does filter, if any, for what it leaves out. With hardLinks, a file met again under
    // another name is given as a hard link to the first.
    TreeReader(const std::string& root, std::optional<os::FileIdentity> skip, bool hardLinks,
        std::shared_ptr<ExportFilter> filter = nullptr);

protected:
    archive_entry* fetch() override;
    // The entries and bytes of data the tree holds, counted by a reader of its own.
    Progress totals() const override;

private:
    // The root's path and a slash, which entry names start with.
    std::string _prefix;
    std::optional<os::FileIdentity> _skip;
    LinkResolver _links;
    std::shared_ptr<ExportFilter> _filter;
};

// A reader of path: a TreeReader for Directory, otherwise an ArchiveFileReader.
std::unique_ptr<EntryReader> openReader(const std::string& path, ArchiveFormat format);

} // namespace zo::project::detail
