// Internal header of the bzip2 block-sorting stages (RLE, BWT, MTF, Z1Z2,
// dictionary reduction), shared with the Huffman stages and the block decoder in
// the same folder.
#pragma once

#include "m7.h"

extern "C" {

// The implementations behind the stage entry points (the Huffman table-section
// coder and the block decoder call some of them). m7.h declares a group's m7_ functions only once
// the group is exported; these plain prototypes serve until then (and agree with
// the derived ones afterwards).
OzrResult m7_ozrsRLEGetSize_BZ2_8u(int* pSize);
OzrResult m7_ozrsEncodeRLEInit_BZ2_8u(OzrsRLEState_BZ2* pState);
OzrResult m7_ozrsEncodeRLE_BZ2_8u(const Ozr8u** ppSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                  OzrsRLEState_BZ2* pState);
OzrResult m7_ozrsEncodeRLEFlush_BZ2_8u(Ozr8u* pDst, int* pDstLen, OzrsRLEState_BZ2* pState);
OzrResult m7_ozrsDecodeRLEStateInit_BZ2_8u(OzrsRLEState_BZ2* pState);
OzrResult m7_ozrsDecodeRLEState_BZ2_8u(const Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                                       OzrsRLEState_BZ2* pState);
OzrResult m7_ozrsDecodeRLEStateFlush_BZ2_8u(OzrsRLEState_BZ2* pState, Ozr8u** ppDst, int* pDstLen);
OzrResult m7_ozrsRLEGetInUseTable_8u(Ozr8u inUse[256], const OzrsRLEState_BZ2* pRLEState);
OzrResult m7_ozrsBWTFwdGetSize_8u(int n, int* pSize);
OzrResult m7_ozrsBWTFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer);
OzrResult m7_ozrsBWTFwdGetBufSize_SelectSort_8u(int n, int* pSize, int mode);
OzrResult m7_ozrsBWTFwd_SelectSort_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer,
                                      int mode);
OzrResult m7_ozrsReduceDictionary_8u_I(const Ozr8u inUse[256], Ozr8u* pSrcDst, int len, int* pSizeDictionary);
OzrResult m7_ozrsMTFGetSize_8u(int* pSize);
OzrResult m7_ozrsMTFInit_8u(Ozr8u* pMTFState);
OzrResult m7_ozrsMTFFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState);
OzrResult m7_ozrsMTFInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, Ozr8u* pMTFState);
OzrResult m7_ozrsEncodeZ1Z2_BZ2_8u16u(const Ozr8u** ppSrc, int* pSrcLen, Ozr16u* pDst, int* pDstLen,
                                      int* pFreqTable);
OzrResult m7_ozrsDecodeZ1Z2_BZ2_16u8u(const Ozr16u** ppSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen);
OzrResult m7_ozrsBWTInvGetSize_8u(int n, int* pSize);
OzrResult m7_ozrsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, Ozr8u* pBuffer);
OzrResult m7_ozrsExpandDictionary_8u_I(const Ozr8u inUse[256], Ozr8u* pSrcDst, int len, int sizeDictionary);

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

}  // extern "C"
