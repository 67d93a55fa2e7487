// Any bytes, imported as an archive of any format: the import unpacks or throws its own errors,
// and never writes beside its destination.
#include "workdir.h"

#include <zo/project/archive.h>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const WorkDir work("zo_import_fuzz");
    const auto archive = work.path / "input";
    const auto destination = work.path / "out";
    work.reset(archive.filename(), data, size);
    try {
        zo::project::importProject(
            archive.string(), destination.string(), zo::project::ArchiveFormat::Auto);
    } catch (const zo::project::ArchiveError&) {
    } catch (const zo::project::UnsupportedFormat&) {
    }
    for (const auto& entry : std::filesystem::directory_iterator(work.path))
        if (entry.path() != archive && entry.path() != destination)
            __builtin_trap();
    return 0;
}
