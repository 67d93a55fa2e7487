#include <zo/unicode.h>

#include <codecvt>

namespace zo {

const PathCodecvt& unicodeFacet()
{
    // The reference count of 1 keeps any locale that adopts the facet from deleting it.
    static const std::codecvt_utf8<wchar_t> facet(1);
    return facet;
}

} // namespace zo
