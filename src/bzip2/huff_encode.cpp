// bzip2 block Huffman encoder: table building, the table section, symbol coding.
//
// A block's symbols are coded in groups of 50, each group with one of 2..6 tables
// named by its selector. The tables come from bzip2's iterative scheme: the
// alphabet is first cut into ranges of about equal total frequency (one "cheap"
// range per table), then four times every group picks the table that codes it in
// the fewest bits and every table is rebuilt as a Huffman code for the symbols of
// the groups that picked it. Code lengths are limited to 17 bits and every symbol
// of the alphabet gets a code, used or not, since the table section lists them all.
#include <emmintrin.h>
#include <stddef.h>

#include "bzip2_huff.h"

namespace m7::bz2 {
namespace {

constexpr int kStateFixedSize = 7780;
static_assert(offsetof(OzrsEncodeHuffState_BZ2, lens) + sizeof(OzrsEncodeHuffState_BZ2::lens) == kStateFixedSize,
              "the selectors start right behind the code lengths");

// Table count by block size: more tables pay for their description only in longer blocks.
constexpr int tableCount(int n) {
    return n < 200 ? 2 : n < 600 ? 3 : n < 1200 ? 4 : n < 2400 ? 5 : 6;
}

// Optimal code lengths for `n` symbols of the given (positive) frequencies, limited
// to `maxLen` bits; n >= 2. Sorting by frequency, then the in-place minimum-redundancy
// construction of Moffat and Katajainen on the sorted weights, then the length-limit
// step of JPEG Annex K.3 on the counts per length, then the limited lengths handed
// out to the symbols by decreasing frequency.
void buildLengths(const Ozr32u* freq, int n, Ozr8u* lens, int maxLen) {
    Ozr32u w[kMaxAlpha];
    Ozr16u sym[kMaxAlpha];
    // Insertion sort by frequency (ascending); n <= 258.
    for (int i = 0; i < n; ++i) {
        const Ozr32u f = freq[i] == 0 ? 1 : freq[i];
        int j = i;
        while (j > 0 && w[j - 1] > f) { w[j] = w[j - 1]; sym[j] = sym[j - 1]; --j; }
        w[j] = f;
        sym[j] = static_cast<Ozr16u>(i);
    }
    // Pass 1, left to right: internal node weights, leaves replaced by parent links.
    Ozr32u* a = w;
    a[0] += a[1];
    int root = 0, leaf = 2;
    for (int next = 1; next < n - 1; ++next) {
        if (leaf >= n || a[root] < a[leaf]) { a[next] = a[root]; a[root++] = static_cast<Ozr32u>(next); }
        else a[next] = a[leaf++];
        if (leaf >= n || (root < next && a[root] < a[leaf])) { a[next] += a[root]; a[root++] = static_cast<Ozr32u>(next); }
        else a[next] += a[leaf++];
    }
    // Pass 2, right to left: depths of the internal nodes.
    a[n - 2] = 0;
    for (int next = n - 3; next >= 0; --next) a[next] = a[a[next]] + 1;
    // Pass 3: leaf depths, counted per length.
    int count[kMaxAlpha + 1] = {};
    {
        int avail = 1, used = 0, depth = 0;
        root = n - 2;
        int next = n - 1;
        while (avail > 0) {
            while (root >= 0 && static_cast<int>(a[root]) == depth) { ++used; --root; }
            while (avail > used) { count[depth]++; --next; --avail; }
            avail = 2 * used;
            ++depth;
            used = 0;
        }
    }
    // Length limit: pairs at the deepest level move up, each making room by splitting
    // the deepest code at most maxLen - 1 bits long. The Kraft sum stays exactly 1.
    for (int len = kMaxAlpha; len > maxLen; --len) {
        while (count[len] > 0) {
            int j = maxLen - 1;
            while (count[j] == 0) --j;
            count[len] -= 2;
            count[len - 1] += 1;
            count[j + 1] += 2;
            count[j] -= 1;
        }
    }
    // The least frequent symbols take the longest codes.
    int k = 0;
    for (int len = maxLen; len >= 1; --len)
        for (int c = count[len]; c > 0; --c) lens[sym[k++]] = static_cast<Ozr8u>(len);
}

// Canonical code words: by increasing length, within a length by increasing symbol.
void assignCodes(const Ozr8u* lens, int n, Ozr32u* codes) {
    Ozr32u code = 0;
    for (int len = 1; len <= kDecodeMaxLen; ++len) {
        for (int s = 0; s < n; ++s)
            if (lens[s] == len) codes[s] = code++;
        code <<= 1;
    }
}

// Costs of one group under all tables at once: 8 lanes of 16-bit lengths per symbol
// (tables 0..5, two unused lanes), added with saturation.
inline __m128i groupCost(const __m128i* lenVec, const Ozr16u* s, int len) {
    __m128i c0 = _mm_setzero_si128(), c1 = _mm_setzero_si128();
    if (len == kGroupSize) {
        for (int i = 0; i < kGroupSize; i += 2) {
            c0 = _mm_adds_epu16(c0, lenVec[s[i]]);
            c1 = _mm_adds_epu16(c1, lenVec[s[i + 1]]);
        }
    } else {
        for (int i = 0; i < len; ++i) c0 = _mm_adds_epu16(c0, lenVec[s[i]]);
    }
    return _mm_adds_epu16(c0, c1);
}

// Picks the cheapest of the tables for one group (the lowest index among equals) and
// counts the group's symbols into that table's frequencies.
inline int ownsHuffSelectGroup(const __m128i* lenVec, const Ozr16u* s, int len, int nTables,
                               Ozr32u (*freq)[kMaxAlpha + 1]) {
    alignas(16) Ozr16u cost[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(cost), groupCost(lenVec, s, len));
    int best = 0;
    for (int t = 1; t < nTables; ++t)
        if (cost[t] < cost[best]) best = t;
    Ozr32u* f = freq[best];
    int i = 0;
    for (; i + 3 <= len; i += 3) { f[s[i]]++; f[s[i + 1]]++; f[s[i + 2]]++; }
    for (; i < len; ++i) f[s[i]]++;
    return best;
}

}  // namespace
}  // namespace m7::bz2

using namespace m7::bz2;

OzrResult m7_ozrsEncodeHuffGetSize_BZ2_16u8u(int n, int* pSize) {
    OZR_CHECK_NULL(pSize);
    OZR_CHECK_POSITIVE(n);
    *pSize = (n + 49) / 50 * 2 + kStateFixedSize;
    return ozrOk;
}

OzrResult m7_ozrsEncodeHuffInit_BZ2_16u8u(int alphaSize, const int* pFreqTable, const Ozr16u* pSrc, int n,
                                          OzrsEncodeHuffState_BZ2* pState) {
    OZR_CHECK_NULL(pFreqTable, pSrc, pState);
    OZR_CHECK_POSITIVE(alphaSize);
    OZR_CHECK_POSITIVE(n);
    if (alphaSize > kMaxAlpha || n > kMaxSelectorField * kGroupSize) return ozrErrSize;
    // A symbol outside the alphabet would index past the per-symbol tables.
    for (int i = 0; i < n; ++i)
        if (pSrc[i] >= alphaSize) return ozrErrBadArgument;

    const int nTables = tableCount(n);
    const int nSel = (n + kGroupSize - 1) / kGroupSize;
    pState->alphaSize = alphaSize;
    pState->numSelectors = nSel;
    pState->numTables = nTables;
    pState->pCodes = pState->codes;
    pState->pLens = pState->lens;
    pState->pSelectors = reinterpret_cast<Ozr8u*>(pState) + kStateFixedSize;
    Ozr8u* const sel = pState->pSelectors;
    m7_ownsZero_8u(reinterpret_cast<Ozr8u*>(pState->codes), sizeof pState->codes);
    m7_ownsSet_8u(15, pState->lens, sizeof pState->lens);

    // Initial partition: table t starts cheap (length 0) on one range of symbols
    // holding about 1/nTables of the remaining frequency; the last table takes the
    // first range. Every other range gives its last symbol back to the next one.
    {
        long long remaining = 0;
        for (int s = 0; s < alphaSize; ++s) remaining += pFreqTable[s] > 0 ? pFreqTable[s] : 0;
        int first = 0;
        for (int part = nTables; part > 0; --part) {
            const long long target = remaining / part;
            int last = first - 1;
            long long sum = 0;
            if (part == 1) {
                last = alphaSize - 1;
            } else {
                while (sum < target && last < alphaSize - 1) {
                    ++last;
                    sum += pFreqTable[last] > 0 ? pFreqTable[last] : 0;
                }
                if (last > first && part != nTables && ((nTables - part) & 1) == 1) {
                    sum -= pFreqTable[last] > 0 ? pFreqTable[last] : 0;
                    --last;
                }
            }
            Ozr8u* len = pState->lens + (part - 1) * kMaxAlpha;
            for (int s = first; s <= last; ++s) len[s] = 0;
            first = last + 1;
            remaining -= sum;
        }
    }

    // Four refinement passes.
    alignas(16) __m128i lenVec[kMaxAlpha];
    Ozr32u freq[kMaxTables][kMaxAlpha + 1];
    for (int pass = 0; pass < 4; ++pass) {
        for (int s = 0; s < alphaSize; ++s) {
            alignas(16) Ozr16u l[8] = {};
            for (int t = 0; t < nTables; ++t) l[t] = pState->lens[t * kMaxAlpha + s];
            lenVec[s] = _mm_load_si128(reinterpret_cast<const __m128i*>(l));
        }
        for (int t = 0; t < nTables; ++t)
            for (int s = 0; s < alphaSize; ++s) freq[t][s] = 0;
        for (int g = 0; g < nSel; ++g) {
            const int start = g * kGroupSize;
            const int len = n - start < kGroupSize ? n - start : kGroupSize;
            sel[g] = static_cast<Ozr8u>(ownsHuffSelectGroup(lenVec, pSrc + start, len, nTables, freq));
        }
        for (int t = 0; t < nTables; ++t) {
            Ozr8u* len = pState->lens + t * kMaxAlpha;
            if (alphaSize == 1) len[0] = 1;
            else buildLengths(freq[t], alphaSize, len, kEncodeMaxLen);
        }
    }
    for (int t = 0; t < nTables; ++t) {
        Ozr8u* len = pState->lens + t * kMaxAlpha;
        for (int s = alphaSize; s < kMaxAlpha; ++s) len[s] = 0;
        assignCodes(len, alphaSize, pState->codes + t * kMaxAlpha);
    }
    return ozrOk;
}

OzrResult m7_ozrsPackHuffContext_BZ2_16u8u(Ozr32u* pCode, int* pCodeLenBits, Ozr8u* pDst, int* pDstLen,
                                           const OzrsEncodeHuffState_BZ2* pState) {
    OZR_CHECK_NULL(pCode, pCodeLenBits, pDst, pDstLen, pState);
    OZR_CHECK_POSITIVE(*pDstLen);
    const int nTables = pState->numTables, nSel = pState->numSelectors, alphaSize = pState->alphaSize;
    // The selectors' move-to-front ranks go behind the selectors in the state.
    static constexpr struct Identity {
        Ozr8u v[256];
        constexpr Identity() : v() { for (int i = 0; i < 256; ++i) v[i] = static_cast<Ozr8u>(i); }
    } kInitialList;
    alignas(16) Ozr8u mtf[256];
    m7_ownsCopy_8u(kInitialList.v, mtf, sizeof mtf);
    Ozr8u* const ranks = pState->pSelectors + nSel;
    m7_ozrsMTFFwd_8u(pState->pSelectors, ranks, nSel, mtf);

    BitWriter bw(*pCode, *pCodeLenBits, pDst, *pDstLen);
    bw.put(static_cast<Ozr32u>(nTables), 3);
    bw.put(static_cast<Ozr32u>(nSel), 15);
    for (int g = 0; g < nSel; ++g) {
        const int j = ranks[g];
        bw.put(((1u << j) - 1) << 1, j + 1);  // j one-bits, then a zero-bit
    }
    for (int t = 0; t < nTables; ++t) {
        const Ozr8u* len = pState->lens + t * kMaxAlpha;
        int cur = len[0];
        bw.put(static_cast<Ozr32u>(cur), 5);
        for (int s = 0; s < alphaSize; ++s) {
            while (cur < len[s]) { bw.put(2, 2); ++cur; }
            while (cur > len[s]) { bw.put(3, 2); --cur; }
            bw.put(0, 1);
        }
    }
    return bw.finish(pCode, pCodeLenBits, pDst, pDstLen);
}

OzrResult m7_ozrsEncodeHuff_BZ2_16u8u(Ozr32u* pCode, int* pCodeLenBits, const Ozr16u** ppSrc, int* pSrcLen,
                                      Ozr8u* pDst, int* pDstLen, const OzrsEncodeHuffState_BZ2* pState) {
    OZR_CHECK_NULL(pCode, pCodeLenBits, ppSrc, pSrcLen);
    OZR_CHECK_NULL(*ppSrc, pDst, pDstLen, pState);
    OZR_CHECK_POSITIVE(*pDstLen);
    const int alphaSize = pState->alphaSize, nSel = pState->numSelectors;
    // Code word and length of every symbol in one word (length in the low 5 bits); a
    // symbol outside the alphabet, or a group beyond the selectors, writes nothing.
    Ozr32u entry[kMaxTables][kMaxAlpha + 1];
    for (int t = 0; t < pState->numTables; ++t) {
        for (int s = 0; s < alphaSize; ++s)
            entry[t][s] = pState->codes[t * kMaxAlpha + s] << 5 | pState->lens[t * kMaxAlpha + s];
        entry[t][alphaSize] = 0;
    }
    const Ozr16u* src = *ppSrc;
    const int n = *pSrcLen > 0 ? *pSrcLen : 0;
    BitWriter bw(*pCode, *pCodeLenBits, pDst, *pDstLen);
    for (int start = 0, g = 0; start < n; start += kGroupSize, ++g) {
        if (g >= nSel) break;
        const Ozr32u* e = entry[pState->pSelectors[g]];
        const int end = n - start < kGroupSize ? n : start + kGroupSize;
        for (int i = start; i < end; ++i) {
            const unsigned s = src[i] < alphaSize ? src[i] : static_cast<unsigned>(alphaSize);
            const Ozr32u v = e[s];
            if (v != 0) bw.put(v >> 5, static_cast<int>(v & 31));
        }
    }
    *ppSrc = src + n;
    *pSrcLen -= n;
    return bw.finish(pCode, pCodeLenBits, pDst, pDstLen);
}
