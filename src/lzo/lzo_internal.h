// Internal entry points of the LZO1X family, reachable from the tests through the
// static build.
#pragma once

#include "m7.h"

extern "C" {

// Checked decoder of one plain LZO1X stream (or several back to back), without the
// container recognition: *pDstLen in, the output room; out, the bytes written (on
// ozrOk only). Corrupt data -> ozrErrLZOBroken.
OzrResult m7_ownDecodeLZO1XSafe(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen);

// Default coder of one stream, without the end marker: codes srcLen bytes into at
// most *pDstLen bytes, using `dict` (16384 entries) as its dictionary, which it
// resets first. *pDstLen out: bytes written. ozrOk or ozrWarnDstSizeLess.
OzrResult m7_ownEncodeLZO1X(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen, Ozr64u* dict);

}  // extern "C"
