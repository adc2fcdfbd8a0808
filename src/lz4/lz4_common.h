// Pieces shared by the LZ4 block decoder and encoders: unaligned loads and stores,
// exact and blind copies, and the front-to-back match copy that repeats a pattern when
// the source overlaps the bytes being produced.
#pragma once

#include <emmintrin.h>

#include "m7.h"
#include "unaligned.h"

namespace m7::lz4 {

// Block-shape constants shared by the encoders and the decoder.
constexpr int kMinMatch = 4;          // shortest match the format can express
constexpr int kLastLiterals = 5;      // the last 5 input bytes are always literals
constexpr int kMatchSearchEnd = 20;   // no match starts 20 or fewer bytes before the end
constexpr int kMaxDistance = 65535;   // 16-bit offset
constexpr unsigned kRunMask = 15;     // a nibble of 15 announces extension bytes


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

// A period of off (1..7) bytes, held in one 64-bit word: the low off bytes kept
// (kPeriodMask) and repeated by a multiply (kPeriodRepeat has a 1 every off bytes; the
// partial products occupy disjoint bytes, so nothing carries).
struct PeriodTables {
    Ozr64u mask[8];
    Ozr64u repeat[8];
    Ozr8u stride[8];   // bytes of a 16-byte store that are whole periods, 8 at least
};
constexpr PeriodTables makePeriodTables() {
    PeriodTables t{};
    for (unsigned off = 1; off < 8; ++off) {
        t.mask[off] = (Ozr64u{1} << (8 * off)) - 1;
        for (unsigned k = 0; k < 8; k += off) t.repeat[off] |= Ozr64u{1} << (8 * k);
        // The broadcast word repeats every 8 bytes: 16 bytes stay in phase when the
        // period divides 8, otherwise only the whole periods of the first 8 do.
        t.stride[off] = static_cast<Ozr8u>(8 % off == 0 ? 16 : 8 / off * off);
    }
    return t;
}
inline constexpr PeriodTables kPeriod = makePeriodTables();

// The same for the fast path, where 0 < off < 16 and up to 15 bytes past d + n may be
// written. The pattern is built once in a register and stored at steps of whole
// periods, so no load waits on a store of this copy: for off 8..15 the 16 bytes at
// d - off (of which the first off are the period), for off 1..7 the period repeated
// over 8 bytes and broadcast.
inline void copyOverlapWild(Ozr8u* d, size_t off, size_t n) {
    __m128i v;
    size_t stride;
    if (off >= 8) {
        v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d - off));
        stride = off;
    } else {
        const Ozr64u w = (load64(d - off) & kPeriod.mask[off]) * kPeriod.repeat[off];
        v = _mm_set1_epi64x(static_cast<long long>(w));
        stride = kPeriod.stride[off];
    }
    for (size_t i = 0; i < n; i += stride) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), v);
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
