// Internal interfaces of the forward BWT: the suffix sorter and its workspace.
#pragma once

#include <stddef.h>

#include "bzip2_internal.h"

namespace m7 {

// Free 32-bit words that a sorter may carve its tables from.
struct SaisWorkspace {
    Ozr32s* base;
    size_t words;
};

}  // namespace m7

extern "C" {

// Suffix array of T[0, n) (n >= 1; the end of the string sorts before every byte)
// into SA[0, n). Needs n / 2 + 1 words of workspace for itself (n + 2 when it
// keeps the LMS positions, which it does when there is room), and for the
// recursion either the free part of SA or about 2n words more; 3n words always
// suffice. Returns false, with SA undefined, when the workspace is too small.
bool m7_ownsSuffixArray_8u(const Ozr8u* T, Ozr32s* SA, int n, m7::SaisWorkspace ws);

// The same, writing the last column of the sorted suffixes to pDst instead
// (pDst[k] = T[SA[k] - 1], T[n - 1] for the suffix at 0) and to *pIndex the slot
// of the suffix at `origin`; SA is left undefined.
bool m7_ownsLastColumn_8u(const Ozr8u* T, Ozr32s* SA, int n, m7::SaisWorkspace ws, Ozr8u* pDst, int origin,
                          int* pIndex);

}  // extern "C"
