#include "entry_reader.h"

#include "errors.h"
#include "formats.h"

#include <zo/file.h>
#include <zo/owner.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

namespace zo::project::detail {

EntryReader::EntryReader(std::string path, ReadArchive handle)
    : _path(std::move(path))
    , _handle(std::move(handle))
    , _entry(newEntry())
{
}

bool EntryReader::nextHeader()
{
    const int status = archive_read_next_header2(_handle.get(), _entry.get());
    if (status == ARCHIVE_EOF)
        return false;
    if (status < ARCHIVE_WARN)
        fail(_path, errorText(_handle.get()));
    // Other readers pass over what libarchive warns about (a malformed extension, a name not
    // valid in its charset); the entry's checks still apply.
    if (status == ARCHIVE_WARN)
        warnEntry(_path, entryName(_entry.get()), errorText(_handle.get()));
    return true;
}

archive_entry* EntryReader::next()
{
    if (_inEntry)
        ++_state.entriesDone;
    archive_entry* entry = fetch();
    _inEntry = entry != nullptr;
    if (!entry) {
        // All is read: whatever was counted in advance, the totals are what was done.
        _state.entriesTotal = _state.entriesDone;
        _state.bytesDone = _state.bytesTotal = std::max(consumed(), _state.bytesTotal);
    }
    report();
    return entry;
}

void EntryReader::reportTo(const ProgressCallback& progress)
{
    if (!progress)
        return;
    _state = totals();
    _progress = progress;
}

void EntryReader::report()
{
    if (!_progress)
        return;
    _state.bytesDone = std::max(_state.bytesDone, consumed());
    if (!_progress(_state))
        throw Cancelled();
}

bool EntryReader::read(Block& block)
{
    la_int64_t offset = 0;
    const int status = archive_read_data_block(_handle.get(), &block.data, &block.size, &offset);
    if (status == ARCHIVE_EOF)
        return false;
    // A warning on data is a checksum that does not match: the bytes cannot be trusted.
    if (status != ARCHIVE_OK || offset < 0)
        failEntry(_path, entryName(_entry.get()), errorText(_handle.get()));
    block.offset = offset;
    _dataRead += block.size;
    report();
    return true;
}

ArchiveFileReader::ArchiveFileReader(const std::string& path, ArchiveFormat format)
    : EntryReader(path, openArchive(path, format))
    , _format(format)
{
}

Progress ArchiveFileReader::totals() const
{
    std::error_code unknown;
    const uintmax_t size = std::filesystem::file_size(_path, unknown);
    Progress totals;
    totals.bytesTotal = unknown ? 0 : static_cast<uint64_t>(size);
    return totals;
}

uint64_t ArchiveFileReader::consumed() const
{
    // The last filter reads the file itself.
    return static_cast<uint64_t>(std::max<la_int64_t>(archive_filter_bytes(_handle.get(), -1), 0));
}

archive_entry* ArchiveFileReader::fetch()
{
    const bool first = !_started;
    _started = true;
    if (nextHeader())
        return _entry.get();
    if (first && !isSoundEmpty(_path, _format))
        fail(_path, "not an archive of the expected format");
    return nullptr;
}

namespace {

std::string withoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string prefixOf(const std::string& root)
{
    return root == "/" ? root : root + "/";
}

} // namespace

TreeReader::TreeReader(const std::string& root, std::optional<os::FileIdentity> skip,
    bool hardLinks, std::shared_ptr<ExportFilter> filter)
    : EntryReader(root, newReadDiskArchive())
    , _prefix(prefixOf(withoutTrailingSlashes(root)))
    , _skip(skip)
    , _links(hardLinks ? newTarLinkResolver() : nullptr)
    , _filter(std::move(filter))
{
    const std::optional<os::FileStatus> status = os::status(root.c_str());
    if (!status)
        fail(root, systemError());
    if (status->type != os::EntryType::Directory)
        fail(root, "not a directory");
    archive* handle = _handle.get();
    archive_read_disk_set_symlink_physical(handle);
    // Only what every format keeps: no extended attributes, ACLs, flags or holes.
    archive_read_disk_set_behavior(handle,
        ARCHIVE_READDISK_NO_XATTR | ARCHIVE_READDISK_NO_ACL | ARCHIVE_READDISK_NO_FFLAGS
            | ARCHIVE_READDISK_NO_SPARSE);
    if (archive_read_disk_open(handle, withoutTrailingSlashes(root).c_str()) != ARCHIVE_OK)
        fail(root, errorText(handle));
}

Progress TreeReader::totals() const
{
    TreeReader counter(_path, _skip, false, _filter);
    Progress totals;
    while (archive_entry* entry = counter.next()) {
        ++totals.entriesTotal;
        if (archive_entry_filetype(entry) == AE_IFREG)
            totals.bytesTotal += static_cast<uint64_t>(archive_entry_size(entry));
    }
    return totals;
}

archive_entry* TreeReader::fetch()
{
    while (nextHeader()) {
        archive_entry* entry = _entry.get();
        if (_skip
            == os::FileIdentity { static_cast<std::uint64_t>(archive_entry_dev(entry)),
                static_cast<std::uint64_t>(archive_entry_ino64(entry)) })
            continue;
        const std::string name = entryName(entry);
        const bool isRoot
            = name.size() <= _prefix.size() || name.compare(0, _prefix.size(), _prefix) != 0;
        if (!isRoot) {
            archive_entry_copy_pathname(entry, name.c_str() + _prefix.size());
            // Left out before it is descended into, with everything below it.
            if (_filter && _filter->leavesOut(entry, name))
                continue;
        }
        if (archive_entry_filetype(entry) == AE_IFDIR
            && archive_read_disk_descend(_handle.get()) != ARCHIVE_OK)
            fail(_path, errorText(_handle.get()));
        if (isRoot)
            continue;
        // The owner marks of processes that work in the tree (this one's own beside the
        // archive it writes there, too) tell of them, not of the project: never packed.
        if (archive_entry_filetype(entry) == AE_IFREG
            && os::isOwnerMarkName(std::string_view(name).substr(name.rfind('/') + 1)))
            continue;
        // The tar strategy marks the entry in place and never holds one back.
        archive_entry* spare = nullptr;
        if (_links)
            archive_entry_linkify(_links.get(), &entry, &spare);
        return entry;
    }
    return nullptr;
}

std::unique_ptr<EntryReader> openReader(const std::string& path, ArchiveFormat format)
{
    if (format == ArchiveFormat::Directory)
        return std::make_unique<TreeReader>(path, std::nullopt, true);
    return std::make_unique<ArchiveFileReader>(path, format);
}

} // namespace zo::project::detail
