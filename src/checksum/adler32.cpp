// Adler-32: A = 1 + sum of the bytes, B = sum of the successive A values, both
// modulo 65521, stored as B << 16 | A.
//
// The wide loop sums aligned 16-byte blocks in SSE2 lanes. Over a group of n blocks
// starting from (A0, B0):
//     A = A0 + S_n                       S_k = sum of the bytes of blocks 0..k-1
//     B = B0 + 16 n A0 + 16 sum_k S_k + sum_k W_k,  W_k = sum_i (16 - i) byte_k[i]
// The lanes carry only the data terms (S_n, sum_k S_k, sum_k W_k); A0 and B0 join
// them once per group in 64-bit arithmetic. With n <= 346 the lane sums stay below
// 2^32 (16 * sum_k S_k alone reaches 3.9e9 at n = 346), so each group of 346 blocks
// is summed, then A and B are reduced.
#include <emmintrin.h>

#include "checksum.h"

namespace {

constexpr Ozr32u kMod = 65521;
constexpr size_t kThreshold = 31;      // below it: bytewise only
constexpr size_t kGroupBlocks = 346;   // 16-byte blocks between reductions

inline Ozr32u hsum32(__m128i v) {
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2)));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(2, 3, 0, 1)));
    return static_cast<Ozr32u>(_mm_cvtsi128_si32(v));
}

// Sums n (1..kGroupBlocks) aligned blocks into a and b, which it leaves unreduced.
inline void sumBlocks(const Ozr8u* p, size_t n, Ozr64u& a, Ozr64u& b) {
    const __m128i zero = _mm_setzero_si128();
    // Weights 16..1 of bytes 0..15, as 16-bit lanes for pmaddwd.
    const __m128i wLo = _mm_setr_epi16(16, 15, 14, 13, 12, 11, 10, 9);
    const __m128i wHi = _mm_setr_epi16(8, 7, 6, 5, 4, 3, 2, 1);
    __m128i vS = zero;      // S_k: byte sums so far (two 64-bit lanes from psadbw)
    __m128i vPrev = zero;   // sum_k S_k
    __m128i vW = zero;      // sum_k W_k (four 32-bit lanes)
    for (size_t k = 0; k < n; ++k, p += 16) {
        const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i*>(p));
        vPrev = _mm_add_epi32(vPrev, vS);
        vS = _mm_add_epi32(vS, _mm_sad_epu8(x, zero));
        vW = _mm_add_epi32(vW, _mm_madd_epi16(_mm_unpacklo_epi8(x, zero), wLo));
        vW = _mm_add_epi32(vW, _mm_madd_epi16(_mm_unpackhi_epi8(x, zero), wHi));
    }
    const Ozr64u s = hsum32(vS), prev = hsum32(vPrev), w = hsum32(vW);
    b += 16 * n * a + 16 * prev + w;
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
