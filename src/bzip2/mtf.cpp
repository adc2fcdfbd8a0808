// Move-to-front coding and bzip2's zero-run (Z1Z2) coding, both ways.
//
// The caller's MTF state is a 256-byte table read in two ways: forward it maps a
// byte value to its rank, inverse it maps a rank to the byte. Inside a call both
// directions work on the list form (rank -> byte) in a local copy padded by 16 bytes
// on each side, with the first 16 ranks held in registers: after a BWT most ranks
// are below 16, and most of those are 0, so moving a byte to the front is usually
// a register operation. Past rank 16 the list in memory moves up one place with
// overlapping 16-byte loads/stores, and finding a byte is a 16-lane compare.
#include <emmintrin.h>

#include "bzip2_internal.h"

namespace {

inline __m128i load16(const Ozr8u* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(Ozr8u* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// A 256-entry list with 16 bytes of slack before and after.
struct PaddedList {
    alignas(16) Ozr8u buf[16 + 256 + 16];
    Ozr8u* list() { return buf + 16; }
};

// Moves list[0, r) up to list[1, r]: 16 bytes at a time from the top down, each
// store one place above its load. The lowest step may read and write up to 15
// bytes of the front slack; list[0] is the caller's to set afterwards.
inline void shiftUp(Ozr8u* list, unsigned r) {
    for (int i = static_cast<int>(r); i > 0; i -= 16) store16(list + i - 15, load16(list + i - 16));
}

// The first 16 ranks live in a register ("front"): most ranks after a BWT are
// small, and moving a byte to the front within them is a shift and a blend, with
// no store that a following load would have to wait for.
// frontMask[r]: bytes 0..r set, the part of the front that moves for rank r.
struct FrontMasks {
    alignas(16) Ozr8u m[16][16];
    constexpr FrontMasks() : m{} {
        for (int r = 0; r < 16; ++r)
            for (int i = 0; i < 16; ++i) m[r][i] = i <= r ? 0xFF : 0;
    }
};
constexpr FrontMasks frontMask{};

// splat.v[b]: byte b in all 16 lanes, the search key of a byte in one load.
struct Splats {
    alignas(16) Ozr8u v[256][16];
    constexpr Splats() : v{} {
        for (int b = 0; b < 256; ++b)
            for (int i = 0; i < 16; ++i) v[b][i] = static_cast<Ozr8u>(b);
    }
};
constexpr Splats splat{};

// wordMask.below[r]: bytes 0..r of a 64-bit word set, the part that moves for rank r.
struct WordMasks {
    Ozr64u below[8], above[8];
    constexpr WordMasks() : below{}, above{} {
        for (int r = 0; r < 8; ++r) {
            below[r] = r == 7 ? ~Ozr64u(0) : (Ozr64u(1) << (8 * r + 8)) - 1;
            above[r] = ~below[r];
        }
    }
};
constexpr WordMasks wordMask{};

// Moves the byte at rank r (< 16) of the front to rank 0.
inline __m128i frontToFront(__m128i front, unsigned r, Ozr8u s) {
    const __m128i mask = _mm_load_si128(reinterpret_cast<const __m128i*>(frontMask.m[r]));
    __m128i moved = _mm_or_si128(_mm_and_si128(_mm_slli_si128(front, 1), mask), _mm_andnot_si128(mask, front));
    return _mm_or_si128(moved, _mm_cvtsi32_si128(s));  // byte 0 of the shifted part is 0
}

// Length (0..16) of the run of bytes equal to v at p, which has 16 readable bytes.
inline unsigned runLength16(const Ozr8u* p, __m128i v) {
    unsigned eq = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(load16(p), v)));
    return m7::trailingZeros64(~eq);  // bit 16 and above of ~eq are set
}

// Stores `fill` over the first n (1..16) of the 16 bytes at p and leaves the others
// as `keep` holds them (keep is what was loaded from p, so that in-place coding is
// not disturbed).
inline void storeHead(Ozr8u* p, unsigned n, __m128i fill, __m128i keep) {
    const __m128i mask = _mm_load_si128(reinterpret_cast<const __m128i*>(frontMask.m[n - 1]));
    store16(p, _mm_or_si128(_mm_and_si128(mask, fill), _mm_andnot_si128(mask, keep)));
}

// Rank of byte v in a list that holds every byte value once, searched from rank
// `from` (a multiple of 16).
inline unsigned findRank(const Ozr8u* list, Ozr8u v, unsigned from = 0) {
    const __m128i key = _mm_set1_epi8(static_cast<char>(v));
    for (unsigned i = from;; i += 32) {
        unsigned lo = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(load16(list + i), key)));
        unsigned hi = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(load16(list + i + 16), key)));
        unsigned m = lo | (hi << 16);
        if (m) return i + m7::trailingZeros64(m);
    }
}

// Forward MTF on the rank table exactly as defined for any table contents: output
// rank[s], every entry below rank[s] grows by one, rank[s] becomes 0. Used when
// the caller's table is not a permutation (then the list form does not exist).
// Entries are biased by 0x80 so that the signed byte compare orders them unsigned.
void mtfFwdRankTable(const Ozr8u* src, Ozr8u* dst, int len, Ozr8u* state) {
    alignas(16) Ozr8u rank[256];
    for (int i = 0; i < 256; ++i) rank[i] = state[i];
    const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
    for (int k = 0; k < len; ++k) {
        Ozr8u s = src[k];
        Ozr8u r = rank[s];
        dst[k] = r;
        __m128i key = _mm_xor_si128(_mm_set1_epi8(static_cast<char>(r)), bias);
        for (int i = 0; i < 256; i += 16) {
            __m128i v = _mm_load_si128(reinterpret_cast<const __m128i*>(rank + i));
            __m128i less = _mm_cmplt_epi8(_mm_xor_si128(v, bias), key);
            _mm_store_si128(reinterpret_cast<__m128i*>(rank + i), _mm_sub_epi8(v, less));
        }
        rank[s] = 0;
    }
    for (int i = 0; i < 256; ++i) state[i] = rank[i];
}


// ---- Z1Z2 ----------------------------------------------------------------------
// A run of z zero ranks is written as z in bijective base 2, least significant
// digit first, with the digits RUNA (0, digit value 1) and RUNB (1, digit value 2);
// z needs floor(log2(z + 1)) digits. Every other rank r becomes the symbol r + 1.

// Longest run whose code has at most k digits: 2^(k+1) - 2.
constexpr Ozr64u runBound(int k) { return k >= 40 ? (Ozr64u(1) << 41) : (Ozr64u(2) << k) - 2; }

// A run short enough that its code (at most 19 digits) and the symbol after it fit
// in 20 places, the margin of the unchecked loop.
constexpr Ozr32u kShortRun = (1u << 20) - 1;

inline int writeRun(Ozr32u z, Ozr16u* dst, int* freq) {
    int n = 0;
    z -= 1;
    for (;;) {
        Ozr16u d = static_cast<Ozr16u>(z & 1);
        dst[n++] = d;
        ++freq[d];
        if (z < 2) return n;
        z = (z - 2) >> 1;
    }
}

}  // namespace

extern "C" {

void m7_ownsMTFFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState) {
    // The list form needs the rank table to be a permutation.
    PaddedList pl;
    Ozr8u* list = pl.list();
    Ozr32u seen[8] = {};
    for (unsigned v = 0; v < 256; ++v) {
        Ozr8u r = pMTFState[v];
        seen[r >> 5] |= 1u << (r & 31);
        list[r] = static_cast<Ozr8u>(v);
    }
    Ozr32u all = ~0u;
    for (Ozr32u w : seen) all &= w;
    if (all != ~0u) {
        mtfFwdRankTable(pSrc, pDst, len, pMTFState);
        return;
    }
    __m128i front = load16(list);
    const __m128i byte0 = _mm_cvtsi32_si128(0xFF);
    Ozr8u first = list[0];
    for (int k = 0; k < len; ++k) {
        Ozr8u s = pSrc[k];
        if (s == first) {
            // A run of the front byte: all zeros, 16 bytes a step.
            if (len - k >= 16) {
                unsigned run = runLength16(pSrc + k, _mm_load_si128(reinterpret_cast<const __m128i*>(splat.v[s])));
                storeHead(pDst + k, run, _mm_setzero_si128(), load16(pDst + k));
                k += static_cast<int>(run) - 1;
            } else {
                pDst[k] = 0;
            }
            continue;
        }
        first = s;
        const __m128i key = _mm_load_si128(reinterpret_cast<const __m128i*>(splat.v[s]));
        unsigned m = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(front, key)));
        if (m) {
            unsigned r = m7::trailingZeros64(m);
            pDst[k] = static_cast<Ozr8u>(r);
            front = frontToFront(front, r, s);
        } else {
            // Rank 16 or more: list[16..) is current in memory (list[0..16) is
            // stale, the front holds it). The front's last byte drops to rank 16.
            unsigned r = findRank(list, s, 16);
            pDst[k] = static_cast<Ozr8u>(r);
            shiftUp(list + 16, r - 16);
            list[16] = static_cast<Ozr8u>(_mm_extract_epi16(front, 7) >> 8);
            front = _mm_or_si128(_mm_slli_si128(front, 1), _mm_and_si128(key, byte0));
        }
    }
    store16(list, front);
    for (unsigned r = 0; r < 256; ++r) pMTFState[list[r]] = static_cast<Ozr8u>(r);
}

void m7_ownsMTFInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState) {
    // Ranks 0..7 live in `lo` and 8..15 in `hi` (rank i at byte i % 8), the rest in
    // list[16..). Moving a byte to the front within a word is a shift and a masked
    // merge whose masks come from the rank alone, so the word's next value waits
    // only on one shift and two logic operations.
    PaddedList pl;
    Ozr8u* list = pl.list();
    for (int i = 0; i < 256; i += 16) store16(list + i, load16(pMTFState + i));
    Ozr64u lo = 0, hi = 0;
    for (int i = 7; i >= 0; --i) {
        lo = (lo << 8) | list[i];
        hi = (hi << 8) | list[8 + i];
    }
    for (int k = 0; k < len; ++k) {
        unsigned r = pSrc[k];
        if (r < 8) {
            Ozr64u s = (lo >> (8 * r)) & 0xFF;
            pDst[k] = static_cast<Ozr8u>(s);
            lo = ((lo << 8) & wordMask.below[r]) | (lo & wordMask.above[r]) | s;
        } else if (r < 16) {
            Ozr64u s = (hi >> (8 * (r - 8))) & 0xFF;
            pDst[k] = static_cast<Ozr8u>(s);
            hi = ((hi << 8) & wordMask.below[r - 8]) | (hi & wordMask.above[r - 8]) | (lo >> 56);
            lo = (lo << 8) | s;
        } else {
            Ozr8u s = list[r];
            pDst[k] = s;
            shiftUp(list + 16, r - 16);
            list[16] = static_cast<Ozr8u>(hi >> 56);
            hi = (hi << 8) | (lo >> 56);
            lo = (lo << 8) | s;
        }
    }
    for (int i = 0; i < 8; ++i) {
        list[i] = static_cast<Ozr8u>(lo >> (8 * i));
        list[8 + i] = static_cast<Ozr8u>(hi >> (8 * i));
    }
    for (int i = 0; i < 256; i += 16) store16(pMTFState + i, load16(list + i));
}

OzrResult m7_ozrsMTFGetSize_8u(int* pSize) {
    OZR_CHECK_NULL(pSize);
    *pSize = 256;
    return ozrOk;
}

OzrResult m7_ozrsMTFInit_8u(Ozr8u* pMTFState) {
    OZR_CHECK_NULL(pMTFState);
    for (unsigned i = 0; i < 256; ++i) pMTFState[i] = static_cast<Ozr8u>(i);
    return ozrOk;
}

OzrResult m7_ozrsMTFFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState) {
    OZR_CHECK_NULL(pSrc, pDst, pMTFState);
    OZR_CHECK_POSITIVE(len);
    m7_ownsMTFFwd_8u(pSrc, pDst, len, pMTFState);
    return ozrOk;
}

OzrResult m7_ozrsMTFInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState) {
    OZR_CHECK_NULL(pSrc, pDst, pMTFState);
    OZR_CHECK_POSITIVE(len);
    m7_ownsMTFInv_8u(pSrc, pDst, len, pMTFState);
    return ozrOk;
}

OzrResult m7_ozrsEncodeZ1Z2_BZ2_8u16u(const Ozr8u** ppSrc, int* pSrcLen, Ozr16u* pDst, int* pDstLen,
                                      int* pFreqTable) {
    OZR_CHECK_NULL(ppSrc, pDst, pSrcLen, pDstLen);
    OZR_CHECK_NULL(*ppSrc, pFreqTable);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    const Ozr8u* src = *ppSrc;
    const int n = *pSrcLen;
    const int room = *pDstLen;
    int in = 0, out = 0;
    Ozr32u z = 0;  // pending zero ranks (consumed, not yet written)
    // Near the end of the room a run is cut to what the remaining places hold; the
    // zeros beyond the cut go back to the input. Returns false when it had to cut.
    auto flushRunCareful = [&]() {
        Ozr64u bound = runBound(room - out);
        bool whole = z <= bound;
        if (!whole) {
            in -= static_cast<int>(z - bound);
            z = static_cast<Ozr32u>(bound);
        }
        if (z) out += writeRun(z, pDst + out, pFreqTable);
        z = 0;
        return whole;
    };
    bool full = false;
    while (in < n) {
        Ozr8u r = src[in];
        if (r == 0) {
            // Zero ranks are counted 16 at a time where the input allows.
            unsigned run = n - in >= 16 ? runLength16(src + in, _mm_setzero_si128()) : 1;
            z += run;
            in += static_cast<int>(run);
            continue;
        }
        if (z) {
            if (z < kShortRun && out < room - 20) {
                out += writeRun(z, pDst + out, pFreqTable);
                z = 0;
            } else if (!flushRunCareful()) {
                full = true;
                break;
            }
        }
        if (out >= room) {
            full = true;
            break;
        }
        Ozr16u sym = static_cast<Ozr16u>(r + 1);
        pDst[out++] = sym;
        ++pFreqTable[sym];
        ++in;
    }
    if (!full && z) flushRunCareful();
    *ppSrc = src + in;
    *pSrcLen = n - in;
    *pDstLen = out;
    return in < n ? ozrWarnDstSizeLess : ozrOk;
}

OzrResult m7_ozrsDecodeZ1Z2_BZ2_16u8u(const Ozr16u** ppSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen) {
    OZR_CHECK_NULL(ppSrc, pDst, pSrcLen, pDstLen);
    OZR_CHECK_NULL(*ppSrc);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    const Ozr16u* src = *ppSrc;
    const int n = *pSrcLen;
    const Ozr64u room = static_cast<Ozr64u>(*pDstLen);
    int in = 0;
    Ozr64u out = 0;
    OzrResult status = ozrOk;
    while (in < n) {
        Ozr16u s = src[in];
        if (s >= 2) {
            if (out >= room) {
                status = ozrWarnDstSizeLess;
                break;
            }
            pDst[out++] = static_cast<Ozr8u>(s - 1);
            ++in;
            continue;
        }
        int end = in + 1;
        while (end < n && src[end] < 2) ++end;
        // N = sum of (d_i + 1) 2^i, from the last digit back; held below 2^41 so
        // that no digit count overflows it (any such run is far beyond the room).
        Ozr64u len = 0;
        for (int t = end - 1; t >= in; --t) {
            len = src[t] + 2 * len + 1;
            if (len > (Ozr64u(1) << 40)) len = Ozr64u(1) << 40;
        }
        in = end;
        // A run followed by a symbol needs a place for that symbol too.
        Ozr64u need = out + len + (end < n ? 1 : 0);
        if (need > room) {
            status = ozrWarnDstSizeLess;
            break;
        }
        if (len >= 16) {
            m7_ownsZero_8u(pDst + out, static_cast<size_t>(len));
        } else {
            for (Ozr64u k = 0; k < len; ++k) pDst[out + k] = 0;
        }
        out += len;
    }
    *ppSrc = src + in;
    *pSrcLen = n - in;
    *pDstLen = static_cast<int>(out);
    return status;
}

}  // extern "C"
