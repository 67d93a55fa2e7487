#include "errors.h"

#include <zo/project/archive.h>

#include <cstring>

namespace zo::project::internal {

void fail(const std::string& archive, const std::string& reason)
{
    throw ArchiveError("'" + archive + "': " + reason);
}

void failEntry(const std::string& archive, const std::string& entry, const std::string& reason)
{
    throw ArchiveError("'" + archive + "', entry '" + entry + "': " + reason);
}

std::string systemError(int error)
{
    return std::strerror(error);
}

} // namespace zo::project::internal
