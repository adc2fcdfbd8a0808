// Pieces shared by the LZ4 block decoder and encoders: unaligned loads and stores,
// exact and blind copies, and the front-to-back match copy that repeats a pattern when
// the source overlaps the bytes being produced.
#pragma once

#include <emmintrin.h>

#include "m7.h"

namespace m7::lz4 {

// Block-shape constants shared by the encoders and the decoder.
constexpr int kMinMatch = 4;          // shortest match the format can express
constexpr int kLastLiterals = 5;      // the last 5 input bytes are always literals
constexpr int kMatchSearchEnd = 20;   // no match starts 20 or fewer bytes before the end
constexpr int kMaxDistance = 65535;   // 16-bit offset
constexpr unsigned kRunMask = 15;     // a nibble of 15 announces extension bytes

inline Ozr16u load16le(const Ozr8u* p) { Ozr16u v; __builtin_memcpy(&v, p, 2); return v; }
inline Ozr32u load32(const Ozr8u* p) { Ozr32u v; __builtin_memcpy(&v, p, 4); return v; }
inline Ozr64u load64(const Ozr8u* p) { Ozr64u v; __builtin_memcpy(&v, p, 8); return v; }
inline void store16le(Ozr8u* p, Ozr16u v) { __builtin_memcpy(p, &v, 2); }
inline void store32(Ozr8u* p, Ozr32u v) { __builtin_memcpy(p, &v, 4); }
inline void store64(Ozr8u* p, Ozr64u v) { __builtin_memcpy(p, &v, 8); }

inline void copy8(Ozr8u* d, const Ozr8u* s) { store64(d, load64(s)); }
inline void copy16(Ozr8u* d, const Ozr8u* s) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
}

// Exact copy of n bytes between non-overlapping buffers: nothing outside d[0, n) is
// written, nothing outside s[0, n) is read.
inline void copyExact(Ozr8u* d, const Ozr8u* s, size_t n) {
    if (n >= 16) {
        if (n > 256) return m7_ownsCopy_8u(s, d, n);
        size_t i = 0;
        for (; i + 16 <= n; i += 16) copy16(d + i, s + i);
        if (i < n) copy16(d + n - 16, s + n - 16);
        return;
    }
    if (n >= 8) {
        Ozr64u a = load64(s), b = load64(s + n - 8);
        store64(d, a);
        store64(d + n - 8, b);
        return;
    }
    if (n >= 4) {
        Ozr32u a = load32(s), b = load32(s + n - 4);
        store32(d, a);
        store32(d + n - 4, b);
        return;
    }
    for (size_t i = 0; i < n; ++i) d[i] = s[i];
}

// For a repeating pattern of period off (1..7): the smallest multiple of off that is at
// least 8, so that 8-byte steps can read a whole period-aligned copy behind them.
constexpr Ozr8u kPatternStride[8] = {0, 8, 8, 9, 8, 10, 12, 14};

// Front-to-back copy of n bytes from d - off to d, where 0 < off < n (the source
// overlaps the output): byte k of the result is the byte off places behind it, so a
// short offset repeats the last off bytes. Exact: writes only d[0, n).
inline void copyOverlapExact(Ozr8u* d, size_t off, size_t n) {
    const Ozr8u* s = d - off;
    size_t i = 0;
    if (off >= 8) {
        for (; i + 8 <= n; i += 8) copy8(d + i, s + i);
    } else {
        for (; i < 8 && i < n; ++i) d[i] = s[i];
        const size_t p = kPatternStride[off];
        for (; i + 8 <= n; i += 8) copy8(d + i, d + i - p);
    }
    for (; i < n; ++i) d[i] = s[i];
}

// The same for the fast path, which may write up to 15 bytes past d + n.
inline void copyOverlapWild(Ozr8u* d, size_t off, size_t n) {
    const Ozr8u* s = d - off;
    if (off >= 16) {
        for (size_t i = 0; i < n; i += 16) copy16(d + i, s + i);
    } else if (off >= 8) {
        for (size_t i = 0; i < n; i += 8) copy8(d + i, s + i);
    } else if (off == 1 || off == 2 || off == 4) {
        // Periods that divide 16: one register holds whole periods.
        const __m128i v = off == 1 ? _mm_set1_epi8(static_cast<char>(s[0]))
                        : off == 2 ? _mm_set1_epi16(static_cast<short>(load16le(s)))
                                   : _mm_set1_epi32(static_cast<int>(load32(s)));
        for (size_t i = 0; i < n; i += 16) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), v);
    } else {
        for (size_t i = 0; i < 8; ++i) d[i] = s[i];
        const size_t p = kPatternStride[off];
        for (size_t i = 8; i < n; i += 8) copy8(d + i, d + i - p);
    }
}

// Front-to-back copy of n bytes from s to d with any relation between the two: the
// result is what a byte-by-byte loop d[k] = s[k] gives. Exact.
inline void copyFrontToBack(Ozr8u* d, const Ozr8u* s, size_t n) {
    uintptr_t ud = reinterpret_cast<uintptr_t>(d), us = reinterpret_cast<uintptr_t>(s);
    if (ud == us || n == 0) return;
    if (ud < us) {
        // Destination below the source: forward chunks read before they could be overwritten.
        size_t i = 0;
        for (; i + 8 <= n; i += 8) copy8(d + i, s + i);
        for (; i < n; ++i) d[i] = s[i];
        return;
    }
    size_t off = ud - us;
    if (off >= n) return copyExact(d, s, n);
    copyOverlapExact(d, off, n);
}

}  // namespace m7::lz4
