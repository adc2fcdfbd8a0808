// Inverse Burrows-Wheeler transform.
//
// With C[c] the first sorted row that starts with byte c, the rows that start with c
// are, in order, the rotations that follow the occurrences of c in the last column
// L, in order. So T[C[L[i]]++] = i, taken over i = 0..n-1, maps each row to the row
// of the rotation one byte further on, and walking p = T[p] from the primary index
// spells the block: output[k] = L[p] after the k-th step.
//
// The walk is one dependent load per byte, so its speed is the memory latency of
// the link array. Each link carries the byte it leads to in its low 8 bits
// (link[j] = T[j] << 8 | L[T[j]]), which makes the walk one load per byte from one
// array instead of two from two. That needs n < 2^24; longer blocks use the plain
// form.
#include "bzip2_internal.h"

namespace {

constexpr int kMaxPackedLen = 1 << 24;

// Byte counts of src: four tables so that runs of one byte value do not chain
// every increment through the same counter.
void countBytes(const Ozr8u* src, int n, Ozr32u* counts) {
    Ozr32u c[4][256];
    for (int t = 0; t < 4; ++t)
        for (int v = 0; v < 256; ++v) c[t][v] = 0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        ++c[0][src[i]];
        ++c[1][src[i + 1]];
        ++c[2][src[i + 2]];
        ++c[3][src[i + 3]];
    }
    for (; i < n; ++i) ++c[0][src[i]];
    for (int v = 0; v < 256; ++v) counts[v] = c[0][v] + c[1][v] + c[2][v] + c[3][v];
}

// Exclusive running sums of the counts: the first row of each leading byte.
void firstRows(const Ozr32u* counts, Ozr32u* start) {
    Ozr32u sum = 0;
    for (int v = 0; v < 256; ++v) {
        start[v] = sum;
        sum += counts[v];
    }
}

// Where the walk's k-th byte goes: p[k] for a walk that spells the block forwards,
// p[-k] for one that spells it backwards (the block decoder's predecessor links).
template <bool Back>
struct Out {
    Ozr8u* p;
    void put(int k, Ozr32u e) const { p[Back ? -k : k] = static_cast<Ozr8u>(e); }
    Out skip(int k) const { return {Back ? p - k : p + k}; }
    // Moves the bytes of walk places [from, from + len) to [to, to + len), to < from.
    void move(int from, int to, int len) const {
        if constexpr (Back) {
            m7_ownsMove_8u_M7(p - from - len + 1, p - to - len + 1, static_cast<size_t>(len));
        } else {
            m7_ownsMove_8u_M7(p + from, p + to, static_cast<size_t>(len));
        }
    }
};

// Follows the packed links from row p for n bytes; returns the row reached.
template <bool Back>
inline Ozr32u walkPacked(const Ozr32u* link, Ozr32u p, Out<Back> dst, int n) {
    int k = 0;
    for (; k + 4 <= n; k += 4) {
        Ozr32u e0 = link[p];
        dst.put(k, e0);
        Ozr32u e1 = link[e0 >> 8];
        dst.put(k + 1, e1);
        Ozr32u e2 = link[e1 >> 8];
        dst.put(k + 2, e2);
        Ozr32u e3 = link[e2 >> 8];
        dst.put(k + 3, e3);
        p = e3 >> 8;
    }
    for (; k < n; ++k) {
        Ozr32u e = link[p];
        dst.put(k, e);
        p = e >> 8;
    }
    return p;
}

// Follows the links from row p for n bytes like walkPacked, for links whose top
// bit may carry a visited mark; returns the row reached.
template <bool Back>
inline Ozr32u walkMarked(const Ozr32u* link, Ozr32u p, Out<Back> dst, int n) {
    for (int k = 0; k < n; ++k) {
        Ozr32u e = link[p];
        dst.put(k, e);
        p = (e >> 8) & 0x7FFFFF;
    }
    return p;
}

constexpr int kMaxSplitLen = 1 << 23;  // links of 23 bits leave the top bit free
constexpr int kMinSegment = 4096;      // shorter walks are not worth a split
constexpr Ozr32u kVisited = 0x80000000u;

// The walk as two walks in step, which keeps two loads in flight. A segment of the
// walk runs m bytes from row `from` and should then stand at row `end`. A second
// walk starts at a row x that no walk has visited yet (so it lies ahead on the
// walk, at some unknown distance u) and writes from the middle of the segment,
// until
//   - the first walk reaches x: u is known, the second walk's bytes move down to
//     it, and what the second walk still has to do is the new segment (to `end`);
//   - the second walk reaches `end`: its bytes are the segment's last ones and move
//     there; the new segment is the first walk's rest, which must end at x;
//   - neither within half the segment: the first walk does the rest alone.
// Every segment finished by a single walk checks that it stands at its end. That
// holds whenever the links form one cycle, as for any genuine last column; if a
// check fails (a column whose links form several cycles), the caller walks the
// whole block again the plain way. Visited rows carry a mark in the top bit.
template <bool Back>
bool walkSplit(Ozr32u* link, Ozr32u from, Ozr32u end, Out<Back> dst, int m, int n) {
    Ozr32u seed = static_cast<Ozr32u>(n) * 2654435761u;
    for (;;) {
        Ozr32u x = end;
        if (m >= kMinSegment) {
            const int probes = m / 16 > 8 ? m / 16 : 8;
            for (int probe = 0; probe < probes; ++probe) {
                seed = seed * 1664525u + 1013904223u;
                Ozr32u c = static_cast<Ozr32u>((static_cast<Ozr64u>(seed) * static_cast<Ozr32u>(n)) >> 32);
                if (c != from && c != end && !(link[c] & kVisited)) {
                    x = c;
                    break;
                }
            }
        }
        if (x == end) return walkMarked(link, from, dst, m) == end;
        const int half = m / 2;
        Ozr32u a = from, b = x;
        int k = 0;
        while (k < half && a != x && b != end) {
            Ozr32u ea = link[a], eb = link[b];
            link[a] = ea | kVisited;
            link[b] = eb | kVisited;
            dst.put(k, ea);
            dst.put(half + k, eb);
            a = (ea >> 8) & 0x7FFFFF;
            b = (eb >> 8) & 0x7FFFFF;
            ++k;
        }
        if (a == x) {
            dst.move(half, k, k);
            from = b;
            dst = dst.skip(2 * k);
            m -= 2 * k;
        } else if (b == end) {
            dst.move(half, m - k, k);
            from = a;
            end = x;
            dst = dst.skip(k);
            m -= 2 * k;
        } else {
            return walkMarked(link, a, dst.skip(k), m - k) == end;
        }
    }
}

// The whole walk from row `start`: n bytes, ending back at `start`.
template <bool Back>
void walk(Ozr32u* link, Ozr32u start, Out<Back> dst, int n) {
    if (n < kMaxSplitLen && walkSplit(link, start, start, dst, n, n)) return;
    if (n < kMaxSplitLen) {
        walkMarked(link, start, dst, n);
    } else {
        walkPacked(link, start, dst, n);
    }
}

}  // namespace

extern "C" {

void m7_ownsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, const Ozr32u* counts, Ozr32u* pLink) {
    Ozr32u start[256];
    firstRows(counts, start);
    if (n < kMaxPackedLen) {
        for (int i = 0; i < n; ++i) {
            Ozr8u c = pSrc[i];
            pLink[start[c]++] = static_cast<Ozr32u>(i) << 8 | c;
        }
        walk(pLink, static_cast<Ozr32u>(index), Out<false>{pDst}, n);
        return;
    }
    for (int i = 0; i < n; ++i) pLink[start[pSrc[i]]++] = static_cast<Ozr32u>(i);
    Ozr32u p = static_cast<Ozr32u>(index);
    for (int k = 0; k < n; ++k) {
        p = pLink[p];
        pDst[k] = pSrc[p];
    }
}

void m7_ownsBWTInvLinked_8u(Ozr32u* pLink, Ozr8u* pDst, int n, int index, const Ozr32u* counts) {
    Ozr32u start[256];
    firstRows(counts, start);
    for (int i = 0; i < n; ++i) pLink[start[pLink[i] & 0xFF]++] |= static_cast<Ozr32u>(i) << 8;
    walk(pLink, pLink[index] >> 8, Out<false>{pDst}, n);
}

void m7_ownsBWTInvWalkBack_8u(Ozr32u* pLink, Ozr8u* pDst, int n, int index) {
    walk(pLink, static_cast<Ozr32u>(index), Out<true>{pDst + n - 1}, n);
}

OzrResult m7_ozrsBWTInvGetSize_8u(int n, int* pSize) {
    OZR_CHECK_NULL(pSize);
    OZR_CHECK_POSITIVE(n);
    *pSize = 4 * n + 1024;
    return ozrOk;
}

OzrResult m7_ozrsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, Ozr8u* pBuffer) {
    OZR_CHECK_NULL(pSrc, pDst, pBuffer);
    OZR_CHECK_POSITIVE(n);
    if (index >= n) return ozrErrSize;
    if (n == 1) return m7_ozrsCopy_8u(pSrc, pDst, 1);
    if (index < 0) index = 0;
    // The 1024 bytes of counters are kept on the stack; the slack serves to align
    // the link array for 32-bit access.
    Ozr32u counts[256];
    countBytes(pSrc, n, counts);
    Ozr8u* aligned = pBuffer + ((4 - (reinterpret_cast<uintptr_t>(pBuffer) & 3)) & 3);
    m7_ownsBWTInv_8u(pSrc, pDst, n, index, counts, reinterpret_cast<Ozr32u*>(aligned));
    return ozrOk;
}

}  // extern "C"
