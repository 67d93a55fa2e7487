#include "errors.h"

#include <zo/project/archive.h>

#include <zo/log.h>

#include <cstring>

namespace zo::project::detail {
namespace {

const char* const archiveLog = "ProjectArchive";
const bool registered = (zo::log::addCategory(archiveLog), true);

} // namespace

void fail(const std::string& archive, const std::string& reason)
{
    throw ArchiveError("'" + archive + "': " + reason);
}

void failEntry(const std::string& archive, const std::string& entry, const std::string& reason)
{
    throw ArchiveError("'" + archive + "', entry '" + entry + "': " + reason);
}

void refuseConflict(const std::string& archive, const std::string& entry, const std::string& reason)
{
    throw ArchiveConflict("'" + archive + "', entry '" + entry + "': " + reason);
}

void warnEntry(const std::string& archive, const std::string& entry, const std::string& text)
{
    zo::log::log(archiveLog, zo::log::Warning, "'" + archive + "', entry '" + entry + "': " + text);
}

std::string systemError(int error)
{
    return std::strerror(error);
}

} // namespace zo::project::detail
