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
// into SA[0, n). Needs n / 8 + 1 bytes of workspace for itself, and for the
// recursion either the free part of SA or more workspace; returns false, with SA
// undefined, when that is not available.
bool m7_ownsSuffixArray_8u(const Ozr8u* T, Ozr32s* SA, int n, m7::SaisWorkspace ws);

}  // extern "C"
