// Internal kernels of the checksum family: no argument checks; each reads the
// running value at *pSum, folds in len bytes and stores the result.
#pragma once

#include "m7.h"

extern "C" {
void m7_ownsCRC32_8u(const Ozr8u* pSrc, size_t len, Ozr32u* pCRC);
void m7_ownsCRC32C_8u(const Ozr8u* pSrc, size_t len, Ozr32u* pCRC);
void m7_ownsCRC32_BZ2_8u(const Ozr8u* pSrc, size_t len, Ozr32u* pCRC);
// len <= 0 sums nothing but still reduces both halves of *pAdler.
void m7_ownsAdler32_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pAdler);
}
