// bzip2 block decoding: Z1Z2 symbols to the run-length-coded block.
//
// One pass over the symbols undoes the zero-run coding and the move-to-front coding
// at once, with the move-to-front list holding byte values (the in-use alphabet
// mapped in from the start), and stores each byte in the low 8 bits of a 32-bit
// work word, with the number of its earlier occurrences above it. The inverse
// Burrows-Wheeler transform turns those counts into predecessor links in the high
// 24 bits of the same words (hence blocks below 2^24 bytes) and follows them from
// the origin pointer, last byte first.
#include <emmintrin.h>

#include "bzip2_huff.h"

namespace {
constexpr int kMaxBlock = 16777215;  // 24-bit links
}  // namespace

OzrResult m7_ozrsDecodeBlockGetSize_BZ2_8u(int n, int* pSize) {
    OZR_CHECK_NULL(pSize);
    if (static_cast<unsigned>(n) > static_cast<unsigned>(kMaxBlock)) return ozrErrSize;
    *pSize = 4 * n;
    return ozrOk;
}

OzrResult m7_ozrsDecodeBlock_BZ2_16u8u(const Ozr16u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen, int index,
                                       int sizeDictionary, const Ozr8u inUse[256], Ozr8u* pBuffer) {
    OZR_CHECK_NULL(pSrc, pDst, pDstLen, inUse, pBuffer);
    OZR_CHECK_POSITIVE(srcLen);
    const int room = *pDstLen;
    if (room < 0 || room > kMaxBlock || index < 0 || index >= room) return ozrErrSize;
    if (sizeDictionary > 256) return ozrErrSize;

    // The move-to-front list starts as the values in use, in increasing order.
    alignas(16) Ozr8u list[256 + 16];
    int nInUse = 0;
    for (int v = 0; v < 256; ++v)
        if (inUse[v]) list[nInUse++] = static_cast<Ozr8u>(v);
    if (nInUse != sizeDictionary || nInUse == 0) return ozrErrFailed;

    Ozr32u* const tt = reinterpret_cast<Ozr32u*>(pBuffer);
    Ozr32u count[256] = {};
    int n = 0;
    int i = 0;
    while (i < srcLen) {
        const unsigned s = pSrc[i];
        if (s < 2) {
            // A run of RUNA (digit 1) / RUNB (digit 2), least significant first.
            Ozr64u run = 0, weight = 1;
            while (i < srcLen && pSrc[i] < 2) {
                run += weight << pSrc[i];
                weight <<= 1;
                ++i;
                if (run > static_cast<Ozr64u>(room - n)) {
                    *pDstLen = n;
                    return ozrErrFailed;
                }
            }
            const Ozr8u b = list[0];
            const Ozr32u rank = count[b];
            count[b] += static_cast<Ozr32u>(run);
            Ozr32u* d = tt + n;
            const Ozr32u len = static_cast<Ozr32u>(run);
            Ozr32u k = 0;
            if (len >= 4) {
                __m128i w = _mm_add_epi32(_mm_set1_epi32(static_cast<int>(rank << 8 | b)), _mm_setr_epi32(0, 256, 512, 768));
                const __m128i step = _mm_set1_epi32(4 << 8);
                for (; k + 4 <= len; k += 4) {
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + k), w);
                    w = _mm_add_epi32(w, step);
                }
            }
            for (; k < len; ++k) d[k] = (rank + k) << 8 | b;
            n += static_cast<int>(run);
            continue;
        }
        const unsigned r = s - 1;
        if (r >= static_cast<unsigned>(nInUse)) {
            *pDstLen = n;
            return ozrErrFailed;
        }
        if (n == room) {
            *pDstLen = n;
            return ozrErrFailed;
        }
        const Ozr8u b = list[r];
        // Entries 0..r-1 move up one place: 16 bytes at a time from the top (each
        // load lies below the stores already made), then the first 16 entries at
        // once, shifted up one lane where the lane is at most the remaining count
        // and with b in lane 0.
        unsigned k = r;
        for (; k >= 16; k -= 16)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(list + k - 15),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(list + k - 16)));
        const __m128i head = _mm_load_si128(reinterpret_cast<const __m128i*>(list));
        const __m128i moved = _mm_cmplt_epi8(_mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15),
                                             _mm_set1_epi8(static_cast<char>(k + 1)));
        _mm_store_si128(reinterpret_cast<__m128i*>(list),
                        _mm_or_si128(_mm_or_si128(_mm_and_si128(moved, _mm_slli_si128(head, 1)), _mm_andnot_si128(moved, head)),
                                     _mm_cvtsi32_si128(b)));
        tt[n++] = count[b]++ << 8 | b;
        ++i;
    }
    if (index >= n) {
        *pDstLen = n;
        return ozrErrFailed;
    }

    // Inverse transform, walked backwards: LF[i] = C[L[i]] + (occurrences of L[i]
    // before i) is the row whose rotation starts one byte earlier, and the block ends
    // with L[index]. The words already hold the occurrence counts above their bytes,
    // so adding C[L[i]] turns them into the walk's links, LF[i] << 8 | L[i], in one
    // sequential pass: the walk is then one dependent load per byte, and it runs as
    // several walks in flight.
    Ozr32u first[256];
    Ozr32u sum = 0;
    for (int c = 0; c < 256; ++c) { first[c] = sum << 8; sum += count[c]; }
    for (int k = 0; k < n; ++k) tt[k] += first[tt[k] & 0xFF];
    m7_ownsBWTInvWalkBack_8u(tt, pDst, n, index);
    *pDstLen = n;
    return ozrOk;
}
