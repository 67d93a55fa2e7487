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

ArchiveFormat exportFormat(const std::string& destination)
{
    return isDirectory(destination) ? ArchiveFormat::Directory : formatFromName(destination);
}

void exportArchive(const std::string& source, const std::string& destination, ArchiveFormat format,
    const ProgressCallback& progress)
{
    AtomicFile file(destination, "pack");
    // The temporary archive lies inside the source when the destination does.
    TreeReader reader(source, identityOf(file.fd(), destination), keepsHardLinks(format));
    reader.reportTo(progress);
    pack(reader, file.fd(), format, destination);
    file.keep();
}

void exportTree(
    const std::string& source, const std::string& destination, const ProgressCallback& progress)
{
    const std::shared_ptr<os::OwnerMark> mark = os::OwnerMark::holdBeside(destination);
    std::string temp = os::hiddenTemplateBeside(destination, "pack");
    if (!os::createTemporaryDirectory(temp))
        fail(destination, "cannot create a temporary directory beside it: " + systemError());
    TreeGuard guard(temp);
    const UniqueFd root = openDirectory(temp);
    TreeReader reader(source, identityOf(root.get(), destination), true);
    reader.reportTo(progress);
    unpack(reader, root.get(), destination);
    const auto status = os::status(source.c_str());
    if (!status || !os::setPermissions(root.get(), status->permissions & 0777))
        fail(destination, "cannot copy the mode of '" + source + "': " + systemError());
    renameInto(temp, destination);
    guard.keep();
}

} // namespace

void importProject(const std::string& source, const std::string& destination, ArchiveFormat format)
{
    importProject(source, destination, format, {});
}

bool importProject(const std::string& source, const std::string& destination, ArchiveFormat format,
    const ProgressCallback& progress)
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
        staging.fill(*reader, source);
        staging.commit();
        return true;
    } catch (const Cancelled&) {
        return false;
    }
}

void exportProject(const std::string& source, const std::string& destination, ArchiveFormat format)
{
    exportProject(source, destination, format, {});
}

bool exportProject(const std::string& source, const std::string& destination, ArchiveFormat format,
    const ProgressCallback& progress)
{
    requireKnown(format);
    const Utf8Locale utf8;
    const ArchiveFormat resolved
        = format == ArchiveFormat::Auto ? exportFormat(destination) : format;
    removeLeftoversBeside(destination);
    try {
        if (resolved == ArchiveFormat::Directory)
            exportTree(source, destination, progress);
        else
            exportArchive(source, destination, resolved, progress);
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
