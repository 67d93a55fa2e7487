#pragma once

#include <zo/zo_export.h>

#include <cwchar>
#include <locale>

namespace zo {

using PathCodecvt = std::codecvt<wchar_t, char, std::mbstate_t>;

// The UTF-8 facet used for every path conversion between wide and narrow strings.
// It lives for the whole program.
ZO_EXPORT const PathCodecvt& unicodeFacet();

} // namespace zo
