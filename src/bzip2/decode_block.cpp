// bzip2 block decoding: Z1Z2 symbols to the run-length-coded block.
//
// One pass over the symbols undoes the zero-run coding and the move-to-front coding
// at once, with the move-to-front list holding byte values (the in-use alphabet
// mapped in from the start), and stores each byte in the low 8 bits of a 32-bit
// work word while counting it. The inverse Burrows-Wheeler transform then threads
// the predecessor links through the high 24 bits of the same words (hence blocks
// below 2^24 bytes) and follows them from the origin pointer, last byte first.
#include <emmintrin.h>

#include "bzip2_huff.h"

namespace {
constexpr int kMaxBlock = 16777215;  // 24-bit links

// The links LF[k] packed at `Bits` bits each (20 for blocks up to 2^20 bytes, the
// bzip2 sizes: 2.5 bytes per position; else 24), built in order from the bytes,
// then walked from the origin pointer; each output byte is the bucket of the row
// reached. The last link's 4-byte load stays inside the buffer: the bytes follow.
template <int Bits>
void walk(Ozr8u* links, const Ozr8u* bytes, int n, int index, const Ozr32u* first, Ozr8u* pDst) {
    constexpr Ozr32u kMask = (1u << Bits) - 1;
    auto at = [links](Ozr32u k) -> Ozr32u {
        Ozr32u w;
        if constexpr (Bits == 24) {
            __builtin_memcpy(&w, links + 3 * static_cast<size_t>(k), 4);
            return w & kMask;
        } else {
            __builtin_memcpy(&w, links + (static_cast<size_t>(k) * 5 >> 1), 4);
            return (w >> ((k & 1) * 4)) & kMask;
        }
    };
    Ozr32u next[256];
    for (int c = 0; c < 256; ++c) next[c] = first[c];
    if constexpr (Bits == 24) {
        for (int k = 0; k < n; ++k) {
            const Ozr32u v = next[bytes[k]]++;
            Ozr8u* e = links + 3 * static_cast<size_t>(k);
            e[0] = static_cast<Ozr8u>(v);
            e[1] = static_cast<Ozr8u>(v >> 8);
            e[2] = static_cast<Ozr8u>(v >> 16);
        }
    } else {
        // Two links make five bytes.
        int k = 0;
        for (; k + 1 < n; k += 2) {
            const Ozr64u v0 = next[bytes[k]]++;
            const Ozr64u v1 = next[bytes[k + 1]]++;
            const Ozr64u w = v0 | v1 << 20;
            Ozr8u* e = links + static_cast<size_t>(k) / 2 * 5;
            for (int b = 0; b < 5; ++b) e[b] = static_cast<Ozr8u>(w >> (8 * b));
        }
        if (k < n) {
            const Ozr32u v0 = next[bytes[k]]++;
            Ozr8u* e = links + static_cast<size_t>(k) / 2 * 5;
            e[0] = static_cast<Ozr8u>(v0);
            e[1] = static_cast<Ozr8u>(v0 >> 8);
            e[2] = static_cast<Ozr8u>((e[2] & 0xF0) | ((v0 >> 16) & 0x0F));
        }
    }
    Ozr32u p = static_cast<Ozr32u>(index);
    for (int k = n - 1; k >= 0; --k) {
        const Ozr32u v = at(p);
        // The bucket of row v: the largest c with first[c] <= v.
        unsigned c = 0;
        for (unsigned step = 128; step != 0; step >>= 1)
            if (first[c + step] <= v) c += step;
        pDst[k] = static_cast<Ozr8u>(c);
        p = v;
    }
}
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
            count[b] += static_cast<Ozr32u>(run);
            Ozr32u* d = tt + n;
            for (Ozr64u k = 0; k < run; ++k) d[k] = b;
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
        tt[n++] = b;
        count[b]++;
        ++i;
    }
    if (index >= n) {
        *pDstLen = n;
        return ozrErrFailed;
    }

    // Inverse transform, walked backwards: LF[i] = C[L[i]] + (occurrences of L[i]
    // before i) is the row whose rotation starts one byte earlier, and the block ends
    // with L[index]. LF comes out in sequential order (no scattered writes), so only
    // the walk is a chain of dependent loads, and it is kept small: 20- or 24-bit
    // links (the bytes move to the top quarter of the buffer first), and no byte
    // stored beside them, since L[p] = F[LF[p]] is the byte whose bucket holds row
    // LF[p].
    Ozr32u first[257];
    Ozr32u sum = 0;
    for (int c = 0; c < 256; ++c) { first[c] = sum; sum += count[c]; }
    first[256] = 0xFFFFFFFFu;
    Ozr8u* const bytes = pBuffer + 3 * static_cast<size_t>(n);
    // Backwards, so that no byte lands on a word not yet read.
    for (int k = n - 1; k >= 0; --k) bytes[k] = static_cast<Ozr8u>(tt[k]);
    if (n >= 64 && n <= (1 << 20)) walk<20>(pBuffer, bytes, n, index, first, pDst);
    else walk<24>(pBuffer, bytes, n, index, first, pDst);
    *pDstLen = n;
    return ozrOk;
}
