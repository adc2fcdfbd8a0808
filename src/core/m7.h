// Internal header of libozrdcm7: shared by every family's sources and by the tests
// that reach internal functions through the static build.
//
// Naming: everything with external linkage carries the m7_ prefix (the processor
// variant) and C linkage, so that several variants could be linked side by side.
// The implementation of an exported function `name` is `m7_name`; its declaration is
// derived from the public prototype below, so the two can never disagree.
#pragma once

#include "ozrdc.h"
#include "ozrdc_groups.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OZR_ENTRY(group, name) OZR_ON_##group(extern "C" decltype(::name) m7_##name;)
#include "exports.inc"
#undef OZR_ENTRY
#endif

extern "C" {

// ---- Vector primitives -------------------------------------------------------
// Kernels (owns...) check nothing and return nothing; ozrs... primitives check their
// arguments (null -> ozrErrNullPointer, length < 1 -> ozrErrSize) and return a status.

void m7_ownsCopy_8u(const Ozr8u* pSrc, Ozr8u* pDst, size_t len);   // non-overlapping
void m7_ownsMove_8u_M7(const Ozr8u* pSrc, Ozr8u* pDst, size_t len); // overlap allowed
void m7_ownsZero_8u(Ozr8u* pDst, size_t len);
void m7_ownsSet_8u(Ozr8u val, Ozr8u* pDst, size_t len);
void m7_ownOneTwoThreeFell(Ozr32s* pIndex, int len);

OzrResult m7_ozrsCopy_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len);
OzrResult m7_ozrsCopy_32f(const Ozr32f* pSrc, Ozr32f* pDst, int len);
OzrResult m7_ozrsMove_32s(const Ozr32s* pSrc, Ozr32s* pDst, int len);
OzrResult m7_ozrsZero_16s(Ozr16s* pDst, int len);
OzrResult m7_ozrsZero_32s(Ozr32s* pDst, int len);
OzrResult m7_ozrsSet_8u(Ozr8u val, Ozr8u* pDst, int len);
OzrResult m7_ozrsSet_32s(Ozr32s val, Ozr32s* pDst, int len);
OzrResult m7_ozrsAddC_32s_Sfs(const Ozr32s* pSrc, Ozr32s val, Ozr32s* pDst, int len, int scaleFactor);
OzrResult m7_ozrsCopyBE_1u(const Ozr8u* pSrc, int srcBitOffset, Ozr8u* pDst, int dstBitOffset, int len);
OzrResult m7_ozrsMax_32s(const Ozr32s* pSrc, int len, Ozr32s* pMax);
OzrResult m7_ozrsMinMax_32s(const Ozr32s* pSrc, int len, Ozr32s* pMin, Ozr32s* pMax);
OzrResult m7_ozrsMaxAbs_32f(const Ozr32f* pSrc, int len, Ozr32f* pMaxAbs);
OzrResult m7_ozrsLShiftC_32s_I(int val, Ozr32s* pSrcDst, int len);
OzrResult m7_ozrsSortIndexAscend_32s_I(Ozr32s* pSrcDst, Ozr32s* pIndex, int len);
OzrResult m7_ozrsThreshold_GT_32s_I(Ozr32s* pSrcDst, int len, Ozr32s level);

}  // extern "C"

// ---- Bit scans --------------------------------------------------------------
namespace m7 {
// Index of the lowest set bit of a non-zero word. Written as a plain BSF: the
// compiler's __builtin_ctzll emits REP BSF, which disassembles (and on newer cores
// executes) as TZCNT, an instruction this SSE3 variant must not contain.
inline unsigned trailingZeros64(Ozr64u x) {
    Ozr64u r;
    __asm__("bsfq %1, %0" : "=r"(r) : "rm"(x) : "cc");
    return static_cast<unsigned>(r);
}
}  // namespace m7

// ---- Argument-check helpers --------------------------------------------------
// Keep each entry function's checks one line each, in the documented order.
namespace m7 {
template <class... P>
constexpr bool anyNull(const P*... p) { return ((p == nullptr) || ...); }
}  // namespace m7

#define OZR_CHECK_NULL(...) \
    do { if (::m7::anyNull(__VA_ARGS__)) return ozrErrNullPointer; } while (0)
#define OZR_CHECK_POSITIVE(len) \
    do { if ((len) < 1) return ozrErrSize; } while (0)
