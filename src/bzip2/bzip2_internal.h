// Internal header of the bzip2 block-sorting stages (RLE, BWT, MTF, Z1Z2,
// dictionary reduction), shared with the Huffman stages and the block decoder in
// the same folder.
#pragma once

#include "m7.h"

// The implementations behind the entry points, m7_ozrs..., come from m7.h.
extern "C" {

// Kernels without argument checks.
// MTF over len bytes with the list in rank form (forward) or list form (inverse).
void m7_ownsMTFFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState);
void m7_ownsMTFInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState);
// Inverse BWT from the last column pSrc: counts[256] are the byte counts of pSrc
// (the caller may have them already, as the block decoder does).
// pLink: n words, 4-byte aligned. index must lie in [0, n).
void m7_ownsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, const Ozr32u* counts, Ozr32u* pLink);
// The same for a last column already held in the low 8 bits of pLink[0, n) (the
// upper 24 bits zero), as a block decoder builds it: the links are added in place
// and the block written to pDst. n < 2^24, index in [0, n), counts as above.
void m7_ownsBWTInvLinked_8u(Ozr32u* pLink, Ozr8u* pDst, int n, int index, const Ozr32u* counts);
// The walk backwards over predecessor links, as the block decoder builds them in
// order: pLink[i] = LF[i] << 8 | L[i] (LF[i]: the row of the rotation one byte
// earlier), n < 2^24, index in [0, n). Writes pDst[n - 1] = L[index], then follows
// LF down to pDst[0]; the links' top bit is used for marks.
void m7_ownsBWTInvWalkBack_8u(Ozr32u* pLink, Ozr8u* pDst, int n, int index);

}  // extern "C"

namespace m7::bz2 {

// Counts of the values of src[0, n) (all below K <= 256) into counts[0, K): four
// tables, so that runs of one value do not chain every increment through the same
// counter.
template <class Count>
inline void countBytes(const Ozr8u* src, int n, Count* counts, int K = 256) {
    Count c[4][256];
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
    for (int v = 0; v < K; ++v) counts[v] = c[0][v] + c[1][v] + c[2][v] + c[3][v];
}

}  // namespace m7::bz2
