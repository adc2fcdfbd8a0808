// Unaligned little-endian loads and stores of 2, 4 and 8 bytes, for every family's
// byte-stream code, and the common length of two byte strings that the matchers
// build on. A fixed-size __builtin_memcpy is always compiled as one move (no call),
// and it tells the compiler the access may be unaligned and alias anything.
#pragma once

#include <emmintrin.h>

#include "m7.h"

namespace m7 {

inline Ozr16u load16(const Ozr8u* p) { Ozr16u v; __builtin_memcpy(&v, p, 2); return v; }
inline Ozr32u load32(const Ozr8u* p) { Ozr32u v; __builtin_memcpy(&v, p, 4); return v; }
inline Ozr64u load64(const Ozr8u* p) { Ozr64u v; __builtin_memcpy(&v, p, 8); return v; }
inline void store16(Ozr8u* p, Ozr16u v) { __builtin_memcpy(p, &v, 2); }
inline void store32(Ozr8u* p, Ozr32u v) { __builtin_memcpy(p, &v, 4); }
inline void store64(Ozr8u* p, Ozr64u v) { __builtin_memcpy(p, &v, 8); }

// Count of equal leading bytes of a and b, at most n, 8 bytes a step; reads nothing
// at or beyond n.
__attribute__((always_inline)) inline int commonLength(const Ozr8u* a, const Ozr8u* b, int n) {
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const Ozr64u x = load64(a + i) ^ load64(b + i);
        if (x) return i + static_cast<int>(trailingZeros64(x) >> 3);
    }
    for (; i < n && a[i] == b[i]; ++i) {}
    return i;
}

// The same, 16 bytes a step first: one compare settles most matches, and long ones
// (the runs of repetitive data) go twice as fast.
__attribute__((always_inline)) inline int commonLength16(const Ozr8u* a, const Ozr8u* b, int n) {
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
        const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
        const Ozr32u diff = static_cast<Ozr32u>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y))) ^ 0xFFFFu;
        if (diff) return i + static_cast<int>(trailingZeros64(diff));
    }
    return i + commonLength(a + i, b + i, n - i);
}

}  // namespace m7
