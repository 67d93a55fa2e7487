#include <zo/project/contents.h>

#include "entry_check.h"
#include "entry_reader.h"
#include "errors.h"
#include "formats.h"
#include "libarchive.h"
#include "metadata.h"

#include <zo/project/project.h>

#include <algorithm>
#include <optional>
#include <unordered_map>

namespace zo::project {
namespace {

using namespace detail;

// The entries of a reader as an unpacking would write them.
class Lister {
public:
    explicit Lister(EntryReader& reader)
        : _reader(reader)
    {
    }

    // The next entry below the root; none after the last.
    std::optional<ProjectEntry> next()
    {
        ProjectEntry listed;
        archive_entry* entry = nullptr;
        do { // past the root itself
            entry = _reader.next();
            if (entry == nullptr)
                return std::nullopt;
            listed.path = checkEntry(entry, _reader.path());
        } while (listed.path.empty());
        if (const char* link = archive_entry_hardlink(entry)) {
            listed.linkTarget = nameBelow(link).value_or("");
            const auto file = _sizes.find(listed.linkTarget);
            if (file == _sizes.end())
                refuseHardLink(_reader.path(), entryName(entry), link);
            listed.size = file->second;
        } else if (archive_entry_filetype(entry) == AE_IFDIR) {
            listed.kind = EntryKind::Directory;
        } else if (archive_entry_filetype(entry) == AE_IFLNK) {
            listed.kind = EntryKind::SymbolicLink;
            listed.linkTarget = archive_entry_symlink(entry);
        } else if (archive_entry_size_is_set(entry)) {
            listed.size = static_cast<uint64_t>(std::max<la_int64_t>(archive_entry_size(entry), 0));
        }
        if (listed.kind == EntryKind::File)
            _sizes[listed.path] = listed.size;
        else
            _sizes.erase(listed.path);
        return listed;
    }

private:
    EntryReader& _reader;
    // The files so far by path, which a hard link may name.
    std::unordered_map<std::string, uint64_t> _sizes;
};

} // namespace

void listProject(const std::string& source, ArchiveFormat format,
    const std::function<bool(const ProjectEntry&)>& visit)
{
    const ArchiveFormat resolved = sourceFormat(source, format);
    const Utf8Locale utf8;
    const std::unique_ptr<EntryReader> reader = openReader(source, resolved);
    Lister lister(*reader);
    while (const std::optional<ProjectEntry> entry = lister.next())
        if (!visit(*entry))
            return;
}

std::map<std::string, std::string> readProjectMetadata(
    const std::string& source, ArchiveFormat format)
{
    const ArchiveFormat resolved = sourceFormat(source, format);
    if (resolved == ArchiveFormat::Directory)
        return Project(source).getMetadata();
    const Utf8Locale utf8;
    const std::unique_ptr<EntryReader> reader = openReader(source, resolved);
    Lister lister(*reader);
    std::string text;
    while (const std::optional<ProjectEntry> entry = lister.next()) {
        if (entry->path != metadataFileName)
            continue;
        text.clear();
        Block block;
        while (entry->kind == EntryKind::File && reader->read(block)) {
            const auto end = static_cast<size_t>(block.offset) + block.size;
            text.resize(std::max(text.size(), end));
            text.replace(static_cast<size_t>(block.offset), block.size,
                static_cast<const char*>(block.data), block.size);
        }
    }
    return decodeMetadata(text, source);
}

} // namespace zo::project
