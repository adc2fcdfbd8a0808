// Forward Burrows-Wheeler transform: the entry points, the work-buffer layout, and
// the bucket sort with its work limit.
//
// Work buffer, from its first 64-byte boundary: the block written twice (2n bytes,
// so that every rotation reads forward without wrapping), the sorted rotations (n
// 32-bit words), then the sorter's tables.
//
// Two sorters:
//   - the bucket sort: rotations bucketed by their first two bytes, each bucket
//     split further by the byte at the current depth and finished by Shell sort
//     (groups under 12, or rotations that already share 14 bytes). Fast on most
//     data, but equal stretches make it compare long common prefixes again and
//     again, so it runs on a budget of work (about one unit per rotation moved
//     and per 16 bytes compared) and gives up when the budget is spent;
//   - the induced sort (bwt_sais.cpp): linear time on any data. It is what
//     ozrsBWTFwd_8u runs, and what the bucket sort falls back to.
#include <emmintrin.h>

#include "bwt_internal.h"
#include "unaligned.h"

namespace {

constexpr int kSmallBlock = 100;
constexpr int kShellGroup = 12;   // groups below this size go to Shell sort
constexpr int kShellDepth = 14;   // ... and so do groups sharing this many bytes
constexpr int kStackLimit = 2048; // pending groups

// Shell sort gaps; from 1750 on each is three times the previous, the last is a
// sentinel above every group size.
constexpr Ozr32s gaps[22] = {1,      4,       10,      23,       57,       132,       301,       701,
                             1750,   5250,    15750,   47250,    141750,   425250,    1275750,   3827250,
                             11481750, 34445250, 103335750, 310007250, 930021750, 2147483647};

enum class Mode { Limit, Unbounded, Doubling, Fallback, Fixed };

// Buffer sizes by sorter, in 64-bit so that the layout check cannot overflow.
inline Ozr64s bucketBufSize(Ozr64s n) { return 6 * n + 524484; }
inline Ozr64s doublingBufSize(Ozr64s n) { return 18 * n + 80; }

struct Layout {
    Ozr8u* block;       // 2n bytes: the block twice
    Ozr32s* sa;         // n words
    Ozr8u* rest;        // what is left of the buffer
    Ozr64s restBytes;
};

Layout layout(const Ozr8u* pSrc, int n, Ozr8u* pBuffer, Ozr64s bufBytes) {
    Layout l;
    Ozr8u* base = pBuffer + ((64 - (reinterpret_cast<uintptr_t>(pBuffer) & 63)) & 63);
    l.block = base;
    m7_ownsCopy_8u(pSrc, l.block, static_cast<size_t>(n));
    m7_ownsCopy_8u(pSrc, l.block + n, static_cast<size_t>(n));
    Ozr64s saOffset = (2 * static_cast<Ozr64s>(n) + 15) & ~Ozr64s(15);
    l.sa = reinterpret_cast<Ozr32s*>(base + saOffset);
    l.rest = base + saOffset + 4 * static_cast<Ozr64s>(n);
    l.restBytes = bufBytes - (l.rest - pBuffer);
    return l;
}

inline m7::SaisWorkspace restWorkspace(const Layout& l) {
    uintptr_t skew = (4 - (reinterpret_cast<uintptr_t>(l.rest) & 3)) & 3;
    Ozr64s bytes = l.restBytes - static_cast<Ozr64s>(skew);
    return m7::SaisWorkspace{reinterpret_cast<Ozr32s*>(l.rest + skew), bytes > 0 ? static_cast<size_t>(bytes) / 4 : 0};
}

// First q in [p, limit) with d[q] <= x, or limit.
int firstAtMost(const Ozr8u* d, int p, int limit, Ozr8u x) {
    const __m128i vx = _mm_set1_epi8(static_cast<char>(x));
    for (; p + 16 <= limit; p += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + p));
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(v, vx), v)));
        if (mask) return p + static_cast<int>(m7::trailingZeros64(mask));
    }
    while (p < limit && d[p] > x) ++p;
    return p;
}

// Least rotation of the block: two candidates are compared until one loses, and
// the loser skips the bytes it matched (none of those can start a least rotation):
// O(n). When the two candidates are equal rotations, the block is periodic and
// *period is its period (gcd of their distance and n), else n.
int leastRotation(const Ozr8u* d, int n, int* period) {
    int i = 0, j = 1, k = 0;
    while (i < n && j < n && k < n) {
        // Long matches (near-periodic blocks) are skipped eight bytes at a time.
        for (; k + 8 <= n; k += 8) {
            if (m7::load64(d + i + k) != m7::load64(d + j + k)) break;
        }
        if (k >= n) break;
        Ozr8u a = d[i + k], b = d[j + k];
        if (a == b) {
            ++k;
            continue;
        }
        // The loser keeps losing at the first byte while its byte is above the
        // winner's: those steps are taken in one scan.
        if (a > b) {
            i += k + 1;
            if (i != j) i = firstAtMost(d, i, i < j ? j : n, d[j]);
        } else {
            j += k + 1;
            if (i != j) j = firstAtMost(d, j, j < i ? i : n, d[i]);
        }
        if (i == j) ++j;
        k = 0;
    }
    *period = n;
    if (k >= n) {
        int x = i < j ? j - i : i - j, y = n;
        while (y) {
            int z = x % y;
            x = y;
            y = z;
        }
        *period = x;
    }
    return i < j ? i : j;
}

// Last column and primary index from the sorted rotations of a block that is
// `reps` copies of its first q bytes t[0, q): sa holds the q sorted start offsets
// of those rotations; each stands for reps equal rotations. origin is the offset
// in t of the caller's rotation 0.
void emit(const Ozr8u* t, const Ozr32s* sa, int q, int reps, int origin, Ozr8u* pDst, int* pIndex) {
    origin %= q;
    if (reps == 1) {
        for (int k = 0; k < q; ++k) {
            if (k + 32 < q) __builtin_prefetch(&t[sa[k + 32]]);
            Ozr32s p = sa[k];
            pDst[k] = t[p == 0 ? q - 1 : p - 1];
            if (p == origin) *pIndex = k;
        }
        return;
    }
    for (int k = 0; k < q; ++k) {
        Ozr32s p = sa[k];
        if (p == origin) *pIndex = k * reps;
        m7_ownsSet_8u(t[p == 0 ? q - 1 : p - 1], pDst + static_cast<Ozr64s>(k) * reps, static_cast<size_t>(reps));
    }
}

// The induced sort on the least rotation (of one period, when the block repeats
// itself); false when the buffer is too small.
bool induced(const Layout& l, int n, Ozr8u* pDst, int* pIndex) {
    int q = n;
    int r = leastRotation(l.block, n, &q);
    const Ozr8u* t = l.block + r;
    if (q == n) return m7_ownsLastColumn_8u(t, l.sa, n, restWorkspace(l), pDst, (n - r) % n, pIndex);
    if (!m7_ownsSuffixArray_8u(t, l.sa, q, restWorkspace(l))) return false;
    emit(t, l.sa, q, n / q, (n - r) % n, pDst, pIndex);
    return true;
}

// ---- Bucket sort -------------------------------------------------------------

struct Group {
    Ozr32s lo, hi, depth;
};

struct BucketSorter {
    const Ozr8u* d;  // the block twice
    int n;
    Ozr64s budget;
    Group* stack;

    // Compares the rotations at a and b from byte `depth` on; charges the work.
    int compare(Ozr32s a, Ozr32s b, int depth) {
        const Ozr8u* x = d + a + depth;
        const Ozr8u* y = d + b + depth;
        int len = n - depth, k = 0;
        int result = 0;
        for (; k + 8 <= len; k += 8) {
            Ozr64u u, v;
            __builtin_memcpy(&u, x + k, 8);
            __builtin_memcpy(&v, y + k, 8);
            if (u != v) {
                u = __builtin_bswap64(u);
                v = __builtin_bswap64(v);
                result = u < v ? -1 : 1;
                break;
            }
        }
        if (result == 0) {
            for (; k < len; ++k) {
                if (x[k] != y[k]) {
                    result = x[k] < y[k] ? -1 : 1;
                    break;
                }
            }
        }
        budget -= 1 + k / 16;
        return result;
    }

    void shellSort(Ozr32s* sa, int lo, int hi, int depth) {
        int size = hi - lo;
        int g = 0;
        while (gaps[g + 1] < size) ++g;
        for (; g >= 0; --g) {
            int h = gaps[g];
            if (h >= size) continue;
            for (int i = lo + h; i < hi; ++i) {
                Ozr32s v = sa[i];
                int j = i;
                while (j - h >= lo && compare(sa[j - h], v, depth) > 0) {
                    sa[j] = sa[j - h];
                    j -= h;
                }
                sa[j] = v;
                if (budget < 0) return;
            }
        }
    }

    // Splits sa[lo, hi) in place by the byte at `depth` (American flag sort) and
    // pushes the parts of more than one rotation with depth + 1.
    void split(Ozr32s* sa, int lo, int hi, int depth, int* top) {
        Ozr32s count[256], next[256], end[256];
        for (int c = 0; c < 256; ++c) count[c] = 0;
        const Ozr8u* key = d + depth;
        for (int i = lo; i < hi; ++i) ++count[key[sa[i]]];
        Ozr32s pos = lo;
        for (int c = 0; c < 256; ++c) {
            next[c] = pos;
            pos += count[c];
            end[c] = pos;
        }
        for (int c = 0; c < 256; ++c) {
            while (next[c] < end[c]) {
                Ozr32s v = sa[next[c]];
                int k = key[v];
                while (k != c) {
                    Ozr32s w = sa[next[k]];
                    sa[next[k]++] = v;
                    v = w;
                    k = key[v];
                }
                sa[next[c]++] = v;
            }
        }
        budget -= hi - lo;
        for (int c = 255; c >= 0; --c) {
            Ozr32s start = end[c] - count[c];
            if (count[c] < 2) continue;
            stack[(*top)++] = Group{start, end[c], depth + 1};
        }
    }

    // Sorts sa[lo, hi), whose rotations share their first `depth` bytes.
    bool sortGroup(Ozr32s* sa, int lo, int hi, int depth) {
        int top = 0;
        stack[top++] = Group{lo, hi, depth};
        while (top > 0) {
            Group g = stack[--top];
            // A split may push 256 parts; when the stack cannot take them the
            // group goes to Shell sort as it is.
            if (g.hi - g.lo < kShellGroup || g.depth >= kShellDepth || top + 256 > kStackLimit) {
                shellSort(sa, g.lo, g.hi, g.depth);
            } else {
                split(sa, g.lo, g.hi, g.depth, &top);
            }
            if (budget < 0) return false;
        }
        return true;
    }
};

// Bucket sort of all rotations into l.sa; false when the budget ran out.
bool bucketSort(const Layout& l, int n, Ozr64s budget, Ozr32u* counters, Group* stack) {
    BucketSorter s{l.block, n, budget, stack};
    Ozr32s* sa = l.sa;
    if (n < kSmallBlock) {
        for (int i = 0; i < n; ++i) sa[i] = i;
        return s.sortGroup(sa, 0, n, 0);
    }
    const Ozr8u* d = l.block;
    for (int b = 0; b <= 65536; ++b) counters[b] = 0;
    for (int i = 0; i < n; ++i) ++counters[d[i] << 8 | d[i + 1]];
    int first = 0, last = 65535;
    while (counters[first] == 0) ++first;
    while (counters[last] == 0) --last;
    Ozr32u sum = 0;
    for (int b = first; b <= last + 1; ++b) {
        Ozr32u c = counters[b];
        counters[b] = sum;
        sum += c;
    }
    for (int i = 0; i < n; ++i) sa[counters[d[i] << 8 | d[i + 1]]++] = i;
    // counters[b] is now the end of bucket b, the start of bucket b + 1.
    Ozr32u start = 0;
    for (int b = first; b <= last; ++b) {
        Ozr32u end = counters[b];
        if (end - start > 1 && !s.sortGroup(sa, static_cast<int>(start), static_cast<int>(end), 2)) return false;
        start = end;
    }
    return true;
}

OzrResult forward(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer, Mode mode,
                  Ozr64s bufBytes, Ozr64s smallLimitFactor) {
    Layout l = layout(pSrc, n, pBuffer, bufBytes);
    Group stack[kStackLimit];
    if (n < kSmallBlock) {
        // Sorted as one group whatever the mode; past the limit the induced sort
        // finishes the job (the buffer always holds it).
        if (bucketSort(l, n, smallLimitFactor * n, nullptr, stack)) {
            emit(l.block, l.sa, n, 1, 0, pDst, pIndex);
            return ozrOk;
        }
        return induced(l, n, pDst, pIndex) ? ozrOk : ozrErr;
    }
    if (mode == Mode::Fixed || mode == Mode::Doubling) {
        // Linear time on any data; the 18n-byte buffer of these modes always holds it.
        return induced(l, n, pDst, pIndex) ? ozrOk : ozrErr;
    }
    Ozr64s limit = n < 99900 ? 100 * static_cast<Ozr64s>(n) : 25 * static_cast<Ozr64s>(n);
    // The bucket counters (65536 and a sentinel) lie behind the sorted rotations.
    Ozr32u* counters = reinterpret_cast<Ozr32u*>(l.rest + ((4 - (reinterpret_cast<uintptr_t>(l.rest) & 3)) & 3));
    if (bucketSort(l, n, limit, counters, stack)) {
        emit(l.block, l.sa, n, 1, 0, pDst, pIndex);
        return ozrOk;
    }
    if (mode == Mode::Limit) return ozrWarnBWTSortLimit;
    // Past the limit: the induced sort when the buffer holds it, else the bucket
    // sort to its end.
    if (induced(l, n, pDst, pIndex)) return ozrOk;
    bucketSort(l, n, Ozr64s(1) << 62, counters, stack);
    emit(l.block, l.sa, n, 1, 0, pDst, pIndex);
    return ozrOk;
}

}  // namespace

extern "C" {

OzrResult m7_ozrsBWTFwdGetSize_8u(int n, int* pSize) {
    OZR_CHECK_NULL(pSize);
    OZR_CHECK_POSITIVE(n);
    Ozr32s a = static_cast<Ozr32s>(static_cast<Ozr32u>(n) * 6u + 524484u);
    Ozr32s b = static_cast<Ozr32s>(static_cast<Ozr32u>(n) * 18u + 80u);
    *pSize = a > b ? a : b;
    return ozrOk;
}

OzrResult m7_ozrsBWTFwdGetBufSize_SelectSort_8u(int n, int* pSize, int mode) {
    OZR_CHECK_NULL(pSize);
    if (n == 0) return ozrErrSize;
    Ozr32s a = static_cast<Ozr32s>(static_cast<Ozr32u>(n) * 6u + 524484u);
    Ozr32s b = static_cast<Ozr32s>(static_cast<Ozr32u>(n) * 18u + 80u);
    if (mode < 2) {
        *pSize = a;
    } else if (mode == 2) {
        *pSize = b;
    } else if (mode == 3) {
        *pSize = a > b ? a : b;
    }
    return ozrOk;
}

OzrResult m7_ozrsBWTFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer) {
    OZR_CHECK_NULL(pSrc, pDst, pIndex, pBuffer);
    OZR_CHECK_POSITIVE(n);
    if (n == 1) {
        pDst[0] = pSrc[0];
        *pIndex = 0;
        return ozrOk;
    }
    Ozr64s size = bucketBufSize(n) > doublingBufSize(n) ? bucketBufSize(n) : doublingBufSize(n);
    return forward(pSrc, pDst, n, pIndex, pBuffer, Mode::Fixed, size, 110);
}

OzrResult m7_ozrsBWTFwd_SelectSort_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer,
                                      int mode) {
    OZR_CHECK_NULL(pSrc, pDst, pIndex, pBuffer);
    OZR_CHECK_POSITIVE(n);
    if (n == 1) {
        pDst[0] = pSrc[0];
        *pIndex = 0;
        return ozrOk;
    }
    if ((mode < 0 || mode > 3) && n >= kSmallBlock) return ozrOk;
    switch (mode) {
        case 0: return forward(pSrc, pDst, n, pIndex, pBuffer, Mode::Limit, bucketBufSize(n), 100);
        case 1: return forward(pSrc, pDst, n, pIndex, pBuffer, Mode::Unbounded, bucketBufSize(n), 100);
        case 2: return forward(pSrc, pDst, n, pIndex, pBuffer, Mode::Doubling, doublingBufSize(n), 100);
        case 3: {
            Ozr64s size = bucketBufSize(n) > doublingBufSize(n) ? bucketBufSize(n) : doublingBufSize(n);
            return forward(pSrc, pDst, n, pIndex, pBuffer, Mode::Fallback, size, 100);
        }
        default: return forward(pSrc, pDst, n, pIndex, pBuffer, Mode::Unbounded, doublingBufSize(n), 100);
    }
}

}  // extern "C"
