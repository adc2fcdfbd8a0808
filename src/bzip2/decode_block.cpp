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
            for (Ozr32u k = 0; k < static_cast<Ozr32u>(run); ++k) d[k] = (rank + k) << 8 | b;
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
        // load lies below the stores already made), the last few one by one.
        unsigned k = r;
        for (; k >= 16; k -= 16)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(list + k - 15),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(list + k - 16)));
        for (; k > 0; --k) list[k] = list[k - 1];
        list[0] = b;
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
    // several walks in step.
    Ozr32u first[256];
    Ozr32u sum = 0;
    for (int c = 0; c < 256; ++c) { first[c] = sum << 8; sum += count[c]; }
    for (int k = 0; k < n; ++k) tt[k] += first[tt[k] & 0xFF];
    m7_ownsBWTInvWalkBack_8u(tt, pDst, n, index);
    *pDstLen = n;
    return ozrOk;
}
