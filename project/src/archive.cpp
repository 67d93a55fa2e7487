#include <zo/project/archive.h>

#include "entry_reader.h"
#include "errors.h"
#include "files.h"
#include "formats.h"
#include "libarchive.h"
#include "pack.h"
#include "staging.h"
#include "unpack.h"

#include <zo/file.h>
#include <zo/owner.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>

namespace zo::project {
namespace {

using namespace detail;
namespace fs = std::filesystem;

bool isDirectory(const std::string& path)
{
    const auto status = os::status(path.c_str());
    return status && status->type == os::EntryType::Directory;
}

os::FileIdentity identityOf(int fd, const std::string& path)
{
    const auto status = os::status(fd);
    if (!status)
        fail(path, systemError());
    return status->identity;
}

UniqueFd openDirectory(const std::string& path)
{
    UniqueFd fd = os::openDirectory(path.c_str());
    if (!fd)
        fail(path, "cannot open the directory: " + systemError());
    return fd;
}

// A tree copied into or out of itself would read what it is overwriting.
void requireApart(const std::string& source, const std::string& destination)
{
    std::error_code error;
    const fs::path from = fs::canonical(source, error);
    if (error)
        fail(source, error.message());
    const fs::path to = fs::weakly_canonical(destination, error);
    const auto within = [](const fs::path& inner, const fs::path& outer) {
        return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first
            == outer.end();
    };
    if (error || within(from, to) || within(to, from))
        fail(source, "overlaps the destination '" + destination + "'");
}

// The name tells first: an existing directory named like an archive is no place for a tree.
ArchiveFormat exportFormat(const std::string& destination)
{
    return isDirectory(destination) && !formatOfExtension(destination)
        ? ArchiveFormat::Directory
        : formatFromName(destination);
}

void exportArchive(const std::string& source, const std::string& destination, ArchiveFormat format,
    const std::shared_ptr<ExportFilter>& filter, const ProgressCallback& progress)
{
    if (isDirectory(destination))
        fail(destination, "is a directory, which an archive file cannot replace");
    AtomicFile file(destination, "pack");
    // The temporary archive lies inside the source when the destination does.
    TreeReader reader(source, identityOf(file.fd(), destination), keepsHardLinks(format), filter);
    reader.reportTo(progress);
    pack(reader, file.fd(), format, destination);
    file.keep();
}

void exportTree(const std::string& source, const std::string& destination,
    const std::shared_ptr<ExportFilter>& filter, const ProgressCallback& progress)
{
    const std::shared_ptr<os::OwnerMark> mark = os::OwnerMark::holdBeside(destination);
    std::string temp = os::hiddenTemplateBeside(destination, "pack");
    if (!os::createTemporaryDirectory(temp))
        fail(destination, "cannot create a temporary directory beside it: " + systemError());
    TreeGuard guard(temp);
    const UniqueFd root = openDirectory(temp);
    TreeReader reader(source, identityOf(root.get(), destination), true, filter);
    reader.reportTo(progress);
    unpack(reader, root.get(), destination);
    const auto status = os::status(source.c_str());
    if (!status || !os::setPermissions(root.get(), status->permissions & 0777))
        fail(destination, "cannot copy the mode of '" + source + "': " + systemError());
    renameInto(temp, destination);
    guard.keep();
}

const ImportOptions replacing { ExistingFiles::Replace };
const ExportOptions everything { false, {} };

} // namespace

void importProject(const std::string& source, const std::string& destination, ArchiveFormat format)
{
    importProject(source, destination, format, replacing, {});
}

bool importProject(const std::string& source, const std::string& destination, ArchiveFormat format,
    const ProgressCallback& progress)
{
    return importProject(source, destination, format, replacing, progress).has_value();
}

std::optional<ImportReport> importProject(const std::string& source, const std::string& destination,
    ArchiveFormat format, const ImportOptions& options, const ProgressCallback& progress)
{
    const ArchiveFormat resolved = sourceFormat(source, format);
    const Utf8Locale utf8;
    removeLeftoversBeside(source);
    try {
        Staging staging(destination);
        if (resolved == ArchiveFormat::Directory)
            requireApart(source, staging.target());
        const std::unique_ptr<EntryReader> reader = openReader(source, resolved);
        reader->reportTo(progress);
        staging.fill(*reader, source, options.existingFiles);
        staging.commit();
        return staging.report();
    } catch (const Cancelled&) {
        return std::nullopt;
    }
}

void exportProject(const std::string& source, const std::string& destination, ArchiveFormat format)
{
    exportProject(source, destination, format, everything, {});
}

bool exportProject(const std::string& source, const std::string& destination, ArchiveFormat format,
    const ProgressCallback& progress)
{
    return exportProject(source, destination, format, everything, progress);
}

bool exportProject(const std::string& source, const std::string& destination, ArchiveFormat format,
    const ExportOptions& options, const ProgressCallback& progress)
{
    requireKnown(format);
    const Utf8Locale utf8;
    const ArchiveFormat resolved
        = format == ArchiveFormat::Auto ? exportFormat(destination) : format;
    const auto filter = std::make_shared<ExportFilter>(options, source);
    removeLeftoversBeside(destination);
    try {
        if (resolved == ArchiveFormat::Directory)
            exportTree(source, destination, filter, progress);
        else
            exportArchive(source, destination, resolved, filter, progress);
        return true;
    } catch (const Cancelled&) {
        return false;
    }
}

ArchiveFormat detectFormat(const std::string& path)
{
    const auto status = os::status(path.c_str());
    if (!status)
        return formatFromName(path);
    if (status->type == os::EntryType::Directory)
        return ArchiveFormat::Directory;
    if (status->type != os::EntryType::File)
        throw UnsupportedFormat("'" + path + "': neither a file nor a directory");
    return formatFromContent(path);
}

} // namespace zo::project
