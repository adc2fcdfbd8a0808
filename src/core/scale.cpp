// Scaled add and left shift of signed 32-bit arrays.
//
// ozrsAddC_32s_Sfs computes dst[i] = saturate((src[i] + val) * 2^-s). The sum is
// formed exactly in 64 bits (it needs 33), so only the scaling decides rounding and
// saturation: right shifts round to nearest with ties to even, left shifts saturate.
#include "m7.h"

namespace {

constexpr Ozr64s kMax32 = 0x7FFFFFFF;
constexpr Ozr64s kMin32 = -kMax32 - 1;

inline Ozr32s saturate(Ozr64s v) { return static_cast<Ozr32s>(v > kMax32 ? kMax32 : v < kMin32 ? kMin32 : v); }

// The scale-factor ranges, each with its own loop.
enum class Scale { Add, Half, Down, Up, Sign };

template <Scale K>
void addScaled(const Ozr32s* src, Ozr32s val, Ozr32s* dst, int len, int s) {
    for (int i = 0; i < len; ++i) {
        if constexpr (K == Scale::Add) {
            dst[i] = saturate(Ozr64s(src[i]) + val);
        } else if constexpr (K == Scale::Half) {
            // (a + b) / 2 without a wider type: the halves of both, plus one when the
            // dropped low bits make a whole unit (both odd) or a tie (one odd) that
            // would otherwise round to an odd result.
            Ozr32s a = src[i], b = val;
            Ozr32s h = (a >> 1) + (b >> 1);
            Ozr32s carry = (a & b & 1) | ((a ^ b) & h & 1);
            dst[i] = h + carry;
        } else if constexpr (K == Scale::Down) {
            Ozr64s sum = Ozr64s(src[i]) + val;
            Ozr64s q = sum >> s;                       // floor
            Ozr64s r = sum - (q << s);                 // 0 .. 2^s - 1
            Ozr64s half = Ozr64s(1) << (s - 1);
            q += (r > half) | ((r == half) & (q & 1));
            dst[i] = saturate(q);
        } else if constexpr (K == Scale::Up) {
            Ozr64s sum = Ozr64s(src[i]) + val;        // |sum| <= 2^32, so a shift by 30 still fits
            dst[i] = saturate(sum * (Ozr64s(1) << -s));
        } else {
            Ozr64s sum = Ozr64s(src[i]) + val;
            dst[i] = sum > 0 ? Ozr32s(kMax32) : sum < 0 ? Ozr32s(kMin32) : 0;
        }
    }
}

}  // namespace

extern "C" {

OzrResult m7_ozrsAddC_32s_Sfs(const Ozr32s* pSrc, Ozr32s val, Ozr32s* pDst, int len, int scaleFactor) {
    OZR_CHECK_NULL(pSrc, pDst);
    OZR_CHECK_POSITIVE(len);
    const int s = scaleFactor;
    if (s == 0) {
        if (val == 0) return m7_ozrsCopy_32f(reinterpret_cast<const Ozr32f*>(pSrc), reinterpret_cast<Ozr32f*>(pDst), len);
        addScaled<Scale::Add>(pSrc, val, pDst, len, s);
    } else if (s == 1) {
        addScaled<Scale::Half>(pSrc, val, pDst, len, s);
    } else if (s > 32) {
        // |sum| <= 2^32, so every quotient is at most one half: all round to zero.
        m7_ownsZero_8u(reinterpret_cast<Ozr8u*>(pDst), size_t(len) * 4);
    } else if (s > 0) {
        addScaled<Scale::Down>(pSrc, val, pDst, len, s);
    } else if (s >= -30) {
        addScaled<Scale::Up>(pSrc, val, pDst, len, s);
    } else {
        // Any non-zero sum shifted left by 31 or more leaves the 32-bit range.
        addScaled<Scale::Sign>(pSrc, val, pDst, len, s);
    }
    return ozrOk;
}

OzrResult m7_ozrsLShiftC_32s_I(int val, Ozr32s* pSrcDst, int len) {
    // A shift of 32 or more clears every element; that case is the clear primitive,
    // checks included, and so comes before this function's own checks.
    if (val > 31) return m7_ozrsZero_32s(pSrcDst, len);
    OZR_CHECK_NULL(pSrcDst);
    OZR_CHECK_POSITIVE(len);
    if (val < 0) return ozrErrShift;
    if (val == 0) return ozrOk;
    for (int i = 0; i < len; ++i) pSrcDst[i] = static_cast<Ozr32s>(static_cast<Ozr32u>(pSrcDst[i]) << val);
    return ozrOk;
}

}  // extern "C"
