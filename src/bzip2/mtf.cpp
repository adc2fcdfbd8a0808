// Move-to-front coding and bzip2's zero-run (Z1Z2) coding, both ways.
//
// The caller's MTF state is a 256-byte table read in two ways: forward it maps a
// byte value to its rank, inverse it maps a rank to the byte. Inside a call both
// directions work on the list form (rank -> byte) in a local copy padded by 16 bytes
// on each side, with the first 16 ranks held in registers: after a BWT most ranks
// are below 16, and most of those are 0, so moving a byte to the front is usually
// a register operation. Past rank 16 the list lies in memory and a move shifts it
// up 16 bytes at a time. The forward direction is cut into segments coded side by
// side (see "Forward"); the inverse is one chain (see "Inverse").
#include <emmintrin.h>

#include "bzip2_internal.h"
#include "unaligned.h"

namespace {

inline __m128i load16(const Ozr8u* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(Ozr8u* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
using m7::load64;
using m7::store64;
inline __m128i loadA(const Ozr8u* p) { return _mm_load_si128(reinterpret_cast<const __m128i*>(p)); }
inline void storeA(Ozr8u* p, __m128i v) { _mm_store_si128(reinterpret_cast<__m128i*>(p), v); }

// A 256-entry list with 16 bytes of slack before and after, 16-byte aligned.
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

// mask.m[r]: bytes 0..r set, the part of a 16-byte block that moves for a byte
// taken from its lane r.
struct LaneMasks {
    alignas(16) Ozr8u m[16][16];
    constexpr LaneMasks() : m{} {
        for (int r = 0; r < 16; ++r)
            for (int i = 0; i < 16; ++i) m[r][i] = i <= r ? 0xFF : 0;
    }
};
constexpr LaneMasks laneMask{};

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

// The block `cur` moved up one place for a byte taken from lane i: lanes 0..i get
// the lane below (lane 0 the byte in lane 0 of `carry`, whose other lanes are
// zero), the lanes above i stay.
inline __m128i moveUpTo(__m128i cur, unsigned i, __m128i carry) {
    const __m128i moved = _mm_or_si128(_mm_slli_si128(cur, 1), carry);
    return _mm_xor_si128(cur, _mm_and_si128(_mm_xor_si128(cur, moved), loadA(laneMask.m[i])));
}

// Moves the byte at rank r (< 16) of the front to rank 0 (s is that byte).
inline __m128i frontToFront(__m128i front, unsigned r, Ozr8u s) {
    return moveUpTo(front, r, _mm_cvtsi32_si128(s));
}

// Rank of byte v in a list that holds every byte value once.
inline unsigned findRank(const Ozr8u* list, Ozr8u v) {
    const __m128i key = _mm_set1_epi8(static_cast<char>(v));
    for (unsigned i = 0;; i += 32) {
        unsigned lo = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(loadA(list + i), key)));
        unsigned hi = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(loadA(list + i + 16), key)));
        unsigned m = lo | (hi << 16);
        if (m) return i + m7::trailingZeros64(m);
    }
}

// The same for a byte known to lie at rank 16 or beyond but not where: searches
// for key (the byte in all lanes) while moving the blocks it passes, and returns
// the rank. One loop rather than a search and a move: one exit to mispredict.
inline unsigned searchMoveUpDeep(Ozr8u* list, __m128i key, __m128i carry) {
    for (unsigned b = 16;; b += 16) {
        const __m128i cur = loadA(list + b);
        const unsigned m = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(cur, key)));
        if (m) {
            const unsigned i = m7::trailingZeros64(m);
            storeA(list + b, moveUpTo(cur, i, carry));
            return b + i;
        }
        storeA(list + b, _mm_or_si128(_mm_slli_si128(cur, 1), carry));
        carry = _mm_srli_si128(cur, 15);
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

// ---- Forward -------------------------------------------------------------------
// A list is one dependency chain: each byte's move to the front waits for the one
// before. A long call is therefore cut into K segments (K = 1..3 by length) coded
// in one loop that advances each segment by one step in turn, so that the
// processor overlaps K chains. Only segment 0 starts from the caller's list; the
// others start from the list 0, 1, ..., 255 and are put right afterwards, in
// order, once the list they really start from is known. A rank depends on the
// starting list only where a byte occurs for the first time in the segment
// (before that the byte has not moved; after it the rank counts the bytes seen
// since its last use). There (at most 256 places) the rank is k, the number of
// bytes met so far, plus the byte's place among the unmet bytes of the true
// starting list L: move-to-front over just those first occurrences from L gives it,
// and leaves behind its first k entries the unmet bytes in L's order, which follow
// the segment's own first k in its final list. Segments shorter than kMinSegment
// are not worth that fix-up.
//
// A step codes one byte and, when the source and destination are apart, the
// copies of it that follow (rank 0, up to 7 of them): after a BWT most ranks are
// 0. In-place calls code one byte per step, as the 8-byte stores would overwrite
// input still to be read.
constexpr Ozr32u kMinSegment = 4096;
constexpr int kMaxSegments = 3;

// The list 0, 1, ..., 255 into list[0, 256).
inline void identityList(Ozr8u* list) {
    __m128i v = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    for (int i = 0; i < 256; i += 16, v = _mm_add_epi8(v, _mm_set1_epi8(16))) storeA(list + i, v);
}

// Positions [begin, end) of segment c of K over len bytes.
template <int K>
inline Ozr32u segBegin(int c, Ozr32u len) {
    return static_cast<Ozr32u>(c) * (len / K);
}
template <int K>
inline Ozr32u segEnd(int c, Ozr32u len) {
    return c == K - 1 ? len : static_cast<Ozr32u>(c + 1) * (len / K);
}

// Index (0..7) of the first non-zero byte of x, 7 when there is none before byte 7.
inline Ozr32u firstNonZeroByte(Ozr64u x) { return m7::trailingZeros64(x | (Ozr64u(1) << 63)) >> 3; }

// The front register's update does not need the rest of the list: a byte found in
// the front moves to rank 0 within it, and a byte from rank 16 or beyond enters at
// rank 0 while the front's last byte drops out, which is the same update as for
// rank 15. So the front chain runs without a branch, and the bytes
// from rank 16 or beyond are queued (position, byte, the byte that dropped out) and
// ranked in batches against the list behind the front: their branches (the search
// and its loop) then no longer discard the work of the other segments in flight.
constexpr unsigned kQueue = 64;

// The memory side of a forward segment: the list behind the front register
// (list[16..) current after each batch), the queue, and for a segment started from
// 0..255 the bytes met so far and their first positions, in order. A queued byte
// is kept as its position and the front it met (whose last lane drops out); the
// byte itself is read back from the source, or for in-place coding, which has
// overwritten it, from queueByte.
struct FwdSegment {
    PaddedList pl;
    __m128i queueFront[kQueue];
    Ozr32u queuePos[kQueue];
    Ozr8u queueByte[kQueue];
    Ozr8u met[256];
    Ozr32u firstPos[256];
    Ozr8u firstByte[256];
    unsigned firsts;
};

// Ranks the n queued bytes against the list behind the front.
template <bool Apart>
inline void rankQueued(FwdSegment& g, const Ozr8u* src, Ozr8u* dst, unsigned n) {
    for (unsigned i = 0; i < n; ++i) {
        const Ozr32u p = g.queuePos[i];
        const Ozr8u s = Apart ? src[p] : g.queueByte[i];
        const __m128i out = _mm_srli_si128(g.queueFront[i], 15);
        dst[p] = static_cast<Ozr8u>(searchMoveUpDeep(g.pl.list(), loadA(splat.v[s]), out));
    }
}

// One forward step at position p; returns the next position. Track: the segment
// starts from 0..255 and records first occurrences. Runs (source and destination
// apart): p + 16 <= the segment end. Checked: ranks the queue when it is full
// (the unchecked rounds leave that to the caller).
template <bool Apart, bool Runs, bool Track, bool Checked = true>
inline Ozr32u fwdStep(__m128i& front, unsigned& queued, FwdSegment& g, const Ozr8u* src, Ozr8u* dst, Ozr32u p) {
    const Ozr8u s = src[p];
    const __m128i key = loadA(splat.v[s]);
    const unsigned m = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(front, key)));
    if constexpr (Track) {
        if (__builtin_expect(!g.met[s], 0)) {
            g.met[s] = 1;
            g.firstPos[g.firsts] = p;
            g.firstByte[g.firsts++] = s;
        }
    }
    const unsigned r = m7::trailingZeros64(m | 0x8000);
    g.queuePos[queued] = p;
    g.queueFront[queued] = front;
    if constexpr (!Apart) g.queueByte[queued] = s;
    queued += m == 0;
    front = frontToFront(front, r, s);
    Ozr32u next;
    if constexpr (Runs) {
        // The copies of s after p (up to 7) get rank 0; the store's bytes past the
        // run are rewritten by the following steps (queued ranks are written later
        // and lie before them). The next position depends on the input alone, a
        // short chain beside the front's.
        store64(dst + p, r);
        next = p + 1 + firstNonZeroByte(load64(src + p) ^ load64(src + p + 1));
    } else {
        dst[p] = static_cast<Ozr8u>(r);
        next = p + 1;
    }
    if (Checked && __builtin_expect(queued == kQueue, 0)) {
        rankQueued<Apart>(g, src, dst, queued);
        queued = 0;
    }
    return next;
}

// Forward over [0, len) in K segments; list holds the caller's list on entry and
// the final list on return.
template <int K, bool Apart>
void mtfFwdSegmented(const Ozr8u* src, Ozr8u* dst, Ozr32u len, Ozr8u* list) {
    FwdSegment g[K];
    __m128i front[K];
    unsigned queued[K];
    Ozr32u pos[K], stop[K];
    for (int c = 0; c < K; ++c) {
        Ozr8u* l = g[c].pl.list();
        if (c == 0) {
            for (int i = 0; i < 256; i += 16) storeA(l + i, loadA(list + i));
        } else {
            identityList(l);
            for (int i = 0; i < 256; i += 16) storeA(g[c].met + i, _mm_setzero_si128());
        }
        front[c] = loadA(l);
        queued[c] = 0;
        g[c].firsts = 0;
        pos[c] = segBegin<K>(c, len);
        const Ozr32u end = segEnd<K>(c, len);
        stop[c] = !Apart ? end : end - pos[c] >= 16 ? end - 16 : pos[c];
    }
    // Rounds of n steps of every segment without checks: n is what the segment
    // nearest its end and the fullest queue allow (a step advances 8 places at
    // most and queues one byte at most). Then steps with checks for what is left.
    for (;;) {
        Ozr32u n = kQueue;
        for (int c = 0; c < K; ++c) {
            const Ozr32u room = pos[c] < stop[c] ? (stop[c] - pos[c]) / 8 : 0;
            n = room < n ? room : n;
            n = kQueue - queued[c] < n ? kQueue - queued[c] : n;
        }
        if (n == 0) break;
        do {
#pragma GCC unroll 4
            for (int c = 0; c < K; ++c)
                pos[c] = c == 0 ? fwdStep<Apart, Apart, false, false>(front[c], queued[c], g[c], src, dst, pos[c])
                                : fwdStep<Apart, Apart, true, false>(front[c], queued[c], g[c], src, dst, pos[c]);
        } while (--n);
        for (int c = 0; c < K; ++c) {
            if (queued[c] >= kQueue / 2) {
                rankQueued<Apart>(g[c], src, dst, queued[c]);
                queued[c] = 0;
            }
        }
    }
    for (;;) {
        bool any = false;
#pragma GCC unroll 4
        for (int c = 0; c < K; ++c) {
            if (pos[c] < stop[c]) {
                pos[c] = c == 0 ? fwdStep<Apart, Apart, false>(front[c], queued[c], g[c], src, dst, pos[c])
                                : fwdStep<Apart, Apart, true>(front[c], queued[c], g[c], src, dst, pos[c]);
                any = true;
            }
        }
        if (!any) break;
    }
    for (int c = 0; c < K; ++c) {
        for (Ozr32u end = segEnd<K>(c, len); pos[c] < end;)
            pos[c] = c == 0 ? fwdStep<Apart, false, false>(front[c], queued[c], g[c], src, dst, pos[c])
                            : fwdStep<Apart, false, true>(front[c], queued[c], g[c], src, dst, pos[c]);
        rankQueued<Apart>(g[c], src, dst, queued[c]);
    }
    // Put the segments right in order; `list` holds the true list at the end of
    // the segments done so far.
    storeA(g[0].pl.list(), front[0]);
    for (int i = 0; i < 256; i += 16) storeA(list + i, loadA(g[0].pl.list() + i));
    for (int c = 1; c < K; ++c) {
        // Move-to-front over the first occurrences from the true list, in place:
        // list[0, k) ends as those bytes, list[k, 256) as the unmet ones in their
        // old order.
        const unsigned k = g[c].firsts;
        for (unsigned t = 0; t < k; ++t) {
            const Ozr8u s = g[c].firstByte[t];
            const unsigned r = findRank(list, s);
            dst[g[c].firstPos[t]] = static_cast<Ozr8u>(r);
            shiftUp(list, r);
            list[0] = s;
        }
        Ozr8u* l = g[c].pl.list();
        storeA(l, front[c]);
        for (unsigned r = 0; r < k; ++r) list[r] = l[r];
    }
}

// Forward over [0, len) with the list in `list` (in: the caller's; out: final).
// The source and destination are apart or the same.
template <int K>
void mtfFwdList(const Ozr8u* src, Ozr8u* dst, Ozr32u len, Ozr8u* list) {
    if (src == dst)
        mtfFwdSegmented<K, false>(src, dst, len, list);
    else
        mtfFwdSegmented<K, true>(src, dst, len, list);
}

// ---- Inverse -------------------------------------------------------------------
// Ranks 0..7 live in `lo` and 8..15 in `hi` (rank i at byte i % 8), the rest in
// list[16..). Moving a byte to the front within a word is a shift and a masked
// merge whose masks come from the rank alone, so the word's next value waits only
// on one shift and two logic operations, and the branches depend on the input
// alone. The inverse is bound by the number of operations per byte rather than by
// that chain, so it is not cut into segments (measured slower with the fix-up
// pass a segment started from 0..255 needs); instead eight zero ranks in a row,
// common after a BWT, repeat the front byte in one store.
inline void invStep(Ozr64u& lo, Ozr64u& hi, Ozr8u* list, Ozr8u* dst, unsigned r) {
    if (r < 8) {
        Ozr64u s = (lo >> (8 * r)) & 0xFF;
        *dst = static_cast<Ozr8u>(s);
        lo = ((lo << 8) & wordMask.below[r]) | (lo & wordMask.above[r]) | s;
    } else if (r < 16) {
        Ozr64u s = (hi >> (8 * (r - 8))) & 0xFF;
        *dst = static_cast<Ozr8u>(s);
        hi = ((hi << 8) & wordMask.below[r - 8]) | (hi & wordMask.above[r - 8]) | (lo >> 56);
        lo = (lo << 8) | s;
    } else {
        Ozr8u s = list[r];
        *dst = s;
        shiftUp(list + 16, r - 16);
        list[16] = static_cast<Ozr8u>(hi >> 56);
        hi = (hi << 8) | (lo >> 56);
        lo = (lo << 8) | s;
    }
}

// Inverse over [0, len) with the list in `list` (in: the caller's; out: final).
// In-place calls read each group of eight ranks before writing it.
void mtfInvList(const Ozr8u* src, Ozr8u* dst, Ozr32u len, Ozr8u* list) {
    Ozr64u lo = 0, hi = 0;
    for (int i = 7; i >= 0; --i) {
        lo = (lo << 8) | list[i];
        hi = (hi << 8) | list[8 + i];
    }
    Ozr32u k = 0;
    for (; k + 8 <= len; k += 8) {
        const Ozr64u ranks = load64(src + k);
        if (ranks == 0) {
            store64(dst + k, (lo & 0xFF) * 0x0101010101010101u);
        } else {
#pragma GCC unroll 8
            for (int j = 0; j < 8; ++j) invStep(lo, hi, list, dst + k + j, (ranks >> (8 * j)) & 0xFF);
        }
    }
    for (; k < len; ++k) invStep(lo, hi, list, dst + k, src[k]);
    for (int i = 0; i < 8; ++i) {
        list[i] = static_cast<Ozr8u>(lo >> (8 * i));
        list[8 + i] = static_cast<Ozr8u>(hi >> (8 * i));
    }
}

// Length (0..16) of the run of bytes equal to v at p, which has 16 readable bytes.
inline unsigned runLength16(const Ozr8u* p, __m128i v) {
    unsigned eq = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(load16(p), v)));
    return m7::trailingZeros64(~eq);  // bit 16 and above of ~eq are set
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
    const Ozr32u n = static_cast<Ozr32u>(len);
    if (n >= kMaxSegments * kMinSegment)
        mtfFwdList<kMaxSegments>(pSrc, pDst, n, list);
    else if (n >= 2 * kMinSegment)
        mtfFwdList<2>(pSrc, pDst, n, list);
    else
        mtfFwdList<1>(pSrc, pDst, n, list);
    for (unsigned r = 0; r < 256; ++r) pMTFState[list[r]] = static_cast<Ozr8u>(r);
}

void m7_ownsMTFInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState) {
    PaddedList pl;
    Ozr8u* list = pl.list();
    for (int i = 0; i < 256; i += 16) storeA(list + i, load16(pMTFState + i));
    mtfInvList(pSrc, pDst, static_cast<Ozr32u>(len), list);
    for (int i = 0; i < 256; i += 16) store16(pMTFState + i, loadA(list + i));
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
