// Checked array primitives over the copy/fill kernels, and small reductions.
#include <emmintrin.h>

#include "m7.h"

extern "C" {

OzrResult m7_ozrsCopy_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len) {
    OZR_CHECK_NULL(pSrc, pDst);
    OZR_CHECK_POSITIVE(len);
    m7_ownsCopy_8u(pSrc, pDst, static_cast<size_t>(len));
    return ozrOk;
}

OzrResult m7_ozrsCopy_32f(const Ozr32f* pSrc, Ozr32f* pDst, int len) {
    OZR_CHECK_NULL(pSrc, pDst);
    OZR_CHECK_POSITIVE(len);
    m7_ownsCopy_8u(reinterpret_cast<const Ozr8u*>(pSrc), reinterpret_cast<Ozr8u*>(pDst), size_t(len) * 4);
    return ozrOk;
}

OzrResult m7_ozrsMove_32s(const Ozr32s* pSrc, Ozr32s* pDst, int len) {
    OZR_CHECK_NULL(pSrc, pDst);
    OZR_CHECK_POSITIVE(len);
    m7_ownsMove_8u_M7(reinterpret_cast<const Ozr8u*>(pSrc), reinterpret_cast<Ozr8u*>(pDst), size_t(len) * 4);
    return ozrOk;
}

OzrResult m7_ozrsZero_16s(Ozr16s* pDst, int len) {
    OZR_CHECK_NULL(pDst);
    OZR_CHECK_POSITIVE(len);
    m7_ownsZero_8u(reinterpret_cast<Ozr8u*>(pDst), size_t(len) * 2);
    return ozrOk;
}

OzrResult m7_ozrsZero_32s(Ozr32s* pDst, int len) {
    OZR_CHECK_NULL(pDst);
    OZR_CHECK_POSITIVE(len);
    m7_ownsZero_8u(reinterpret_cast<Ozr8u*>(pDst), size_t(len) * 4);
    return ozrOk;
}

OzrResult m7_ozrsSet_8u(Ozr8u val, Ozr8u* pDst, int len) {
    OZR_CHECK_NULL(pDst);
    OZR_CHECK_POSITIVE(len);
    m7_ownsSet_8u(val, pDst, static_cast<size_t>(len));
    return ozrOk;
}

OzrResult m7_ozrsSet_32s(Ozr32s val, Ozr32s* pDst, int len) {
    OZR_CHECK_NULL(pDst);
    OZR_CHECK_POSITIVE(len);
    int i = 0;
    const __m128i v = _mm_set1_epi32(val);
    for (; i + 4 <= len; i += 4) _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + i), v);
    for (; i < len; ++i) pDst[i] = val;
    return ozrOk;
}

OzrResult m7_ozrsMax_32s(const Ozr32s* pSrc, int len, Ozr32s* pMax) {
    OZR_CHECK_NULL(pSrc, pMax);
    OZR_CHECK_POSITIVE(len);
    Ozr32s m = pSrc[0];
    for (int i = 1; i < len; ++i) m = pSrc[i] > m ? pSrc[i] : m;
    *pMax = m;
    return ozrOk;
}

OzrResult m7_ozrsMinMax_32s(const Ozr32s* pSrc, int len, Ozr32s* pMin, Ozr32s* pMax) {
    OZR_CHECK_NULL(pSrc, pMin, pMax);
    OZR_CHECK_POSITIVE(len);
    Ozr32s lo = pSrc[0], hi = pSrc[0];
    for (int i = 1; i < len; ++i) {
        lo = pSrc[i] < lo ? pSrc[i] : lo;
        hi = pSrc[i] > hi ? pSrc[i] : hi;
    }
    *pMin = lo;
    *pMax = hi;
    return ozrOk;
}

OzrResult m7_ozrsMaxAbs_32f(const Ozr32f* pSrc, int len, Ozr32f* pMaxAbs) {
    OZR_CHECK_NULL(pSrc, pMaxAbs);
    OZR_CHECK_POSITIVE(len);
    // Clear the sign bit, then take the maximum; four lanes at a time.
    const __m128 mask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    __m128 m = _mm_setzero_ps();
    int i = 0;
    for (; i + 4 <= len; i += 4) m = _mm_max_ps(m, _mm_and_ps(mask, _mm_loadu_ps(pSrc + i)));
    m = _mm_max_ps(m, _mm_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
    m = _mm_max_ps(m, _mm_shuffle_ps(m, m, _MM_SHUFFLE(2, 3, 0, 1)));
    for (; i < len; ++i) m = _mm_max_ss(m, _mm_and_ps(mask, _mm_load_ss(pSrc + i)));
    *pMaxAbs = _mm_cvtss_f32(m);
    return ozrOk;
}

OzrResult m7_ozrsThreshold_GT_32s_I(Ozr32s* pSrcDst, int len, Ozr32s level) {
    OZR_CHECK_NULL(pSrcDst);
    OZR_CHECK_POSITIVE(len);
    for (int i = 0; i < len; ++i) pSrcDst[i] = pSrcDst[i] > level ? level : pSrcDst[i];
    return ozrOk;
}

}  // extern "C"
