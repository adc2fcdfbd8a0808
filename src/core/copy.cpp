// Bulk copy, move, fill and clear kernels.
//
// All of them work in 16-byte SSE2 units once the destination is aligned: an
// unaligned head store covers the bytes up to the first 16-byte boundary, aligned
// stores run over the body, and an unaligned store ends exactly at the last byte
// (the head and tail stores may overlap bytes of the body; for non-overlapping
// buffers that is harmless). Copies at least kStreamThreshold long use streaming
// stores so that they do not evict the caller's working set from the cache.
#include <emmintrin.h>

#include "m7.h"

namespace {

// About the size of a last-level cache slice: above it a copy would evict more than
// it gains from staying cached.
constexpr size_t kStreamThreshold = size_t(1) << 20;

inline __m128i load16(const Ozr8u* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(Ozr8u* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// Small sizes: byte loop. Kept volatile-free but opaque to the loop-to-libc pass by
// the build flag -fno-tree-loop-distribute-patterns.
inline void copySmall(const Ozr8u* s, Ozr8u* d, size_t n) {
    if (n >= 8) {
        Ozr64u a, b;
        __builtin_memcpy(&a, s, 8);          // fixed-size: always inlined as a move
        __builtin_memcpy(&b, s + n - 8, 8);
        __builtin_memcpy(d, &a, 8);
        __builtin_memcpy(d + n - 8, &b, 8);
        return;
    }
    if (n >= 4) {
        Ozr32u a, b;
        __builtin_memcpy(&a, s, 4);
        __builtin_memcpy(&b, s + n - 4, 4);
        __builtin_memcpy(d, &a, 4);
        __builtin_memcpy(d + n - 4, &b, 4);
        return;
    }
    for (size_t i = 0; i < n; ++i) d[i] = s[i];
}

template <bool Stream>
inline void copyBody(const Ozr8u* s, Ozr8u* d, size_t n) {
    // n >= 16 here.
    __m128i head = load16(s);
    __m128i tail = load16(s + n - 16);
    size_t skew = (16 - (reinterpret_cast<uintptr_t>(d) & 15)) & 15;
    size_t i = skew;
    for (; i + 64 <= n; i += 64) {
        __m128i a = load16(s + i), b = load16(s + i + 16), c = load16(s + i + 32), e = load16(s + i + 48);
        __m128i* q = reinterpret_cast<__m128i*>(d + i);
        if constexpr (Stream) {
            _mm_stream_si128(q, a); _mm_stream_si128(q + 1, b); _mm_stream_si128(q + 2, c); _mm_stream_si128(q + 3, e);
        } else {
            _mm_store_si128(q, a); _mm_store_si128(q + 1, b); _mm_store_si128(q + 2, c); _mm_store_si128(q + 3, e);
        }
    }
    for (; i + 16 <= n; i += 16) _mm_store_si128(reinterpret_cast<__m128i*>(d + i), load16(s + i));
    if constexpr (Stream) _mm_sfence();
    store16(d, head);
    store16(d + n - 16, tail);
}

template <class Fill>
inline void fillBytes(Ozr8u* d, size_t n, __m128i v, Fill byteValue) {
    if (n < 16) {
        for (size_t i = 0; i < n; ++i) d[i] = byteValue;
        return;
    }
    store16(d, v);
    size_t i = (16 - (reinterpret_cast<uintptr_t>(d) & 15)) & 15;
    for (; i + 16 <= n; i += 16) _mm_store_si128(reinterpret_cast<__m128i*>(d + i), v);
    store16(d + n - 16, v);
}

}  // namespace

extern "C" {

void m7_ownsCopy_8u(const Ozr8u* pSrc, Ozr8u* pDst, size_t len) {
    if (len < 16) return copySmall(pSrc, pDst, len);
    if (len >= kStreamThreshold) return copyBody<true>(pSrc, pDst, len);
    copyBody<false>(pSrc, pDst, len);
}

void m7_ownsMove_8u_M7(const Ozr8u* pSrc, Ozr8u* pDst, size_t len) {
    uintptr_t s = reinterpret_cast<uintptr_t>(pSrc), d = reinterpret_cast<uintptr_t>(pDst);
    if (d + len <= s || s + len <= d) return m7_ownsCopy_8u(pSrc, pDst, len);
    if (d == s) return;
    size_t i = 0;
    if (d < s) {
        // Forward: every 16-byte chunk is loaded before it is stored, and the stores
        // stay behind the loads, so overlapping source bytes are read before they change.
        for (; i + 16 <= len; i += 16) store16(pDst + i, load16(pSrc + i));
        for (; i < len; ++i) pDst[i] = pSrc[i];
        return;
    }
    // Backward for a destination above the source.
    size_t n = len;
    for (; n >= 16; n -= 16) store16(pDst + n - 16, load16(pSrc + n - 16));
    while (n > 0) { --n; pDst[n] = pSrc[n]; }
}

void m7_ownsZero_8u(Ozr8u* pDst, size_t len) { fillBytes(pDst, len, _mm_setzero_si128(), Ozr8u(0)); }

void m7_ownsSet_8u(Ozr8u val, Ozr8u* pDst, size_t len) { fillBytes(pDst, len, _mm_set1_epi8(char(val)), val); }

}  // extern "C"
