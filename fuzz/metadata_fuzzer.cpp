// Any bytes as a project's metadata file: reading it gives the entries or ArchiveError.
#include "workdir.h"

#include <zo/project/archive.h>
#include <zo/project/project.h>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const WorkDir work("zo_metadata_fuzz");
    work.reset(".metadata", data, size);
    try {
        zo::project::Project(work.path.string()).getMetadata();
    } catch (const zo::project::ArchiveError&) {
    }
    return 0;
}
