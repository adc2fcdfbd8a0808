// Adler-32: A = 1 + sum of the bytes, B = sum of the successive A values, both
// modulo 65521, stored as B << 16 | A.
//
// The wide loop sums aligned 16-byte blocks in SSE2 lanes. Over a group of n blocks
// starting from (A0, B0):
//     A = A0 + S_n                       S_k = sum of the bytes of blocks 0..k-1
//     B = B0 + 16 n A0 + 16 sum_k S_k + sum_k W_k,  W_k = sum_i (16 - i) byte_k[i]
// The lanes carry only the data terms; A0 and B0 join them once per group in 64-bit
// arithmetic, and A and B are reduced after every group of 346 blocks.
//
// Blocks go two at a time. sum_k W_k needs no multiply per block: it is
// sum_i (16 - i) C_i over the column sums C_i of byte position i, kept in 16-bit
// lanes (even and odd positions apart) and weighted with pmaddwd only when a chunk
// of at most 63 pairs (and one lone block) ends, before a lane can pass 32767. For a
// pair (x, y) that starts at S_k, S_k + S_(k+1) = 2 S_k + sum(x): the loop adds S_k
// once per pair to vPrev and sum(x) to vFirst, and sum_k S_k = 2 vPrev + vFirst.
#include <emmintrin.h>
#include <xmmintrin.h>

#include "checksum.h"

namespace {

constexpr Ozr32u kMod = 65521;
constexpr size_t kThreshold = 31;      // below it: bytewise only
constexpr size_t kGroupBlocks = 346;   // 16-byte blocks between reductions
constexpr size_t kChunkPairs = 63;     // pairs between column-sum flushes
constexpr int kPrefetch = 1024;        // bytes ahead: data coming from memory

inline Ozr32u hsum32(__m128i v) {
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2)));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(2, 3, 0, 1)));
    return static_cast<Ozr32u>(_mm_cvtsi128_si32(v));
}

// Sums n (1..kGroupBlocks) aligned blocks into a and b, which it leaves unreduced.
// Lane bounds at n = 346: vPrev < 2^32 / 8 in total, columns <= 63 * 510 + 255.
inline void sumBlocks(const Ozr8u* p, size_t n, Ozr64u& a, Ozr64u& b) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_set1_epi16(0xFF);
    // Weights 16 - i of the even (i = 0, 2, ..) and odd byte positions.
    const __m128i wEven = _mm_setr_epi16(16, 14, 12, 10, 8, 6, 4, 2);
    const __m128i wOdd = _mm_setr_epi16(15, 13, 11, 9, 7, 5, 3, 1);
    __m128i vS = zero;      // S_k (two 64-bit lanes from psadbw)
    __m128i vPrev = zero;   // S_k at the start of each pair
    __m128i vFirst = zero;  // sums of the first block of each pair
    __m128i vW = zero;      // sum_k W_k (four 32-bit lanes)
    size_t pairs = n / 2;
    for (;;) {
        size_t c = pairs < kChunkPairs ? pairs : kChunkPairs;
        pairs -= c;
        __m128i even = zero, odd = zero;  // column sums
        for (; c > 0; --c, p += 32) {
            _mm_prefetch(reinterpret_cast<const char*>(p + kPrefetch), _MM_HINT_T0);
            const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i*>(p));
            const __m128i y = _mm_load_si128(reinterpret_cast<const __m128i*>(p + 16));
            const __m128i sx = _mm_sad_epu8(x, zero);
            vPrev = _mm_add_epi32(vPrev, vS);
            vFirst = _mm_add_epi32(vFirst, sx);
            vS = _mm_add_epi32(vS, _mm_add_epi32(sx, _mm_sad_epu8(y, zero)));
            even = _mm_add_epi16(even, _mm_add_epi16(_mm_and_si128(x, low), _mm_and_si128(y, low)));
            odd = _mm_add_epi16(odd, _mm_add_epi16(_mm_srli_epi16(x, 8), _mm_srli_epi16(y, 8)));
        }
        if (pairs == 0 && (n & 1)) {  // the lone last block: S_k counted once
            const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i*>(p));
            vFirst = _mm_add_epi32(vFirst, vS);
            vS = _mm_add_epi32(vS, _mm_sad_epu8(x, zero));
            even = _mm_add_epi16(even, _mm_and_si128(x, low));
            odd = _mm_add_epi16(odd, _mm_srli_epi16(x, 8));
        }
        vW = _mm_add_epi32(vW, _mm_add_epi32(_mm_madd_epi16(even, wEven), _mm_madd_epi16(odd, wOdd)));
        if (pairs == 0) break;
    }
    const Ozr64u s = hsum32(vS), prev = hsum32(vPrev), first = hsum32(vFirst), w = hsum32(vW);
    b += 16 * n * a + 16 * (2 * prev + first) + w;
    a += s;
}

inline void bytewise(const Ozr8u* p, size_t n, Ozr64u& a, Ozr64u& b) {
    for (; n >= 2; n -= 2, p += 2) {
        a += p[0];
        b += a;
        a += p[1];
        b += a;
    }
    if (n) {
        a += p[0];
        b += a;
    }
}

}  // namespace

extern "C" {

void m7_ownsAdler32_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pAdler) {
    Ozr64u a = *pAdler & 0xFFFF, b = *pAdler >> 16;  // no reduction on entry
    size_t n = len > 0 ? static_cast<size_t>(len) : 0;
    if (n >= kThreshold) {
        const size_t head = (0 - reinterpret_cast<uintptr_t>(pSrc)) & 15;
        bytewise(pSrc, head, a, b);
        pSrc += head;
        n -= head;
        size_t blocks = n / 16;
        n %= 16;
        while (blocks > 0) {
            const size_t g = blocks < kGroupBlocks ? blocks : kGroupBlocks;
            sumBlocks(pSrc, g, a, b);
            a %= kMod;
            b %= kMod;
            pSrc += 16 * g;
            blocks -= g;
        }
    }
    bytewise(pSrc, n, a, b);
    *pAdler = static_cast<Ozr32u>((b % kMod) << 16 | (a % kMod));
}

OzrResult m7_ozrsAdler32_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pAdler) {
    OZR_CHECK_NULL(pAdler);
    // Deliberately unlike the CRCs: no source is the checksum of nothing, and the
    // length is never refused.
    if (pSrc == nullptr) {
        *pAdler = 1;
        return ozrOk;
    }
    m7_ownsAdler32_8u(pSrc, len, pAdler);
    return ozrOk;
}

}  // extern "C"
