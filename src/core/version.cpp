// The library's constant version record.
#include "m7.h"

namespace {
constexpr OzrVersionInfo s_libVer = {
    2021,
    6,
    0,
    static_cast<Ozr32s>(0xBFFE3C5Bu),
    {'m', '7', '\0', '\0'},
    "ozrDC SSE3 (m7)",
    "2021.6 (r0xbffe3c5b)",
    "Mar  9 2022",
};
}  // namespace

extern "C" const OzrVersionInfo* m7_ozrdcGetLibVersion(void) { return &s_libVer; }
