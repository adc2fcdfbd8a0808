// Index sort of signed 32-bit keys (ascending, in place, with the permutation).
//
// The Huffman code builders depend on the order in which equal keys come out, so
// the sort follows fixed steps: a quicksort with median-of-three pivots and an
// explicit stack, finishing ranges of up to kSmall elements by repeated selection of
// the maximum. It is not stable; its tie order is a property of exactly these steps.
#include <emmintrin.h>

#include "m7.h"

namespace {

constexpr int kSmall = 9;

struct Pair {
    Ozr32s* key;
    Ozr32s* idx;
    void swap(int a, int b) const {
        Ozr32s k = key[a], i = idx[a];
        key[a] = key[b];
        idx[a] = idx[b];
        key[b] = k;
        idx[b] = i;
    }
};

// Selection of the maximum: the rightmost of equal largest keys goes to the last
// unsorted place, and the unsorted part shrinks from the right.
void selectionSort(const Pair& p, int lo, int hi) {
    for (int last = hi; last > lo; --last) {
        int m = lo;
        for (int t = lo + 1; t <= last; ++t)
            if (p.key[t] >= p.key[m]) m = t;
        p.swap(m, last);
    }
}

}  // namespace

extern "C" {

void m7_ownOneTwoThreeFell(Ozr32s* pIndex, int len) {
    int i = 0;
    __m128i v = _mm_setr_epi32(0, 1, 2, 3);
    const __m128i four = _mm_set1_epi32(4);
    for (; i + 4 <= len; i += 4) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pIndex + i), v);
        v = _mm_add_epi32(v, four);
    }
    for (; i < len; ++i) pIndex[i] = i;
}

OzrResult m7_ozrsSortIndexAscend_32s_I(Ozr32s* pSrcDst, Ozr32s* pIndex, int len) {
    OZR_CHECK_NULL(pSrcDst, pIndex);
    OZR_CHECK_POSITIVE(len);
    m7_ownOneTwoThreeFell(pIndex, len);
    if (len == 1) return ozrOk;

    const Pair p{pSrcDst, pIndex};
    // Pending ranges; the larger part is pushed and the smaller one followed, so
    // the stack never holds more than log2(len) entries.
    int stackLo[64], stackHi[64];
    int top = 0;
    int lo = 0, hi = len - 1;
    for (;;) {
        while (hi - lo + 1 > kSmall) {
            // 1. Median of three: order first, middle and last; the middle is the pivot.
            const int mid = lo + (hi - lo + 1) / 2;
            if (p.key[mid] < p.key[lo]) p.swap(lo, mid);
            if (p.key[hi] < p.key[lo]) p.swap(lo, hi);
            if (p.key[hi] < p.key[mid]) p.swap(mid, hi);
            const Ozr32s pivot = p.key[mid];

            // 2. Partition the rest: keys <= pivot to the left, keys > pivot to the right.
            int i = lo + 1, j = hi;
            for (;;) {
                while (i <= j && p.key[i] <= pivot) ++i;
                while (j >= i && p.key[j] > pivot) --j;
                if (i > j) break;
                p.swap(i, j);
                ++i;
                --j;
            }
            // Now [lo, j] <= pivot < [j + 1, hi].
            const int rightLo = j + 1;

            // 3. Keys equal to the pivot at the end of the left part are in place.
            int leftHi = j;
            while (leftHi >= lo && p.key[leftHi] == pivot) --leftHi;

            // 4. Push the larger part, go on with the smaller.
            int leftN = leftHi - lo + 1, rightN = hi - rightLo + 1;
            if (leftN >= rightN) {
                if (leftN > 1) { stackLo[top] = lo; stackHi[top] = leftHi; ++top; }
                lo = rightLo;
            } else {
                if (rightN > 1) { stackLo[top] = rightLo; stackHi[top] = hi; ++top; }
                hi = leftHi;
            }
        }
        // 5. Small ranges by selection of the maximum.
        if (hi > lo) selectionSort(p, lo, hi);
        if (top == 0) break;
        --top;
        lo = stackLo[top];
        hi = stackHi[top];
    }
    return ozrOk;
}

}  // extern "C"
