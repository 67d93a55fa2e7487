// A tree made from the input, packed into the format the input's first byte picks and unpacked
// again: it comes back exactly, or the pack refuses a name the format cannot hold.
#include "tree_generator.h"
#include "workdir.h"

#include <cstdint>
#include <iterator>

using namespace zo::project::test;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const WorkDir work("zo_roundtrip_fuzz");
    if (size == 0)
        return 0;
    // Emptied here: a tree may be too deep for the work directory's own removal.
    work.reset("input", data, 0);
    const std::string source = (work.path / "source").string();
    Choices choices(data + 1, size - 1);
    const bool portable = makeTree(source, choices);
    if (!roundTrip(
            source, work.path.string(), kPackFormats[data[0] % std::size(kPackFormats)], portable)
             .empty())
        __builtin_trap();
    removeContents(work.path.string());
    return 0;
}
