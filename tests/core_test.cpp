// Internal vector primitives: copy, move, fill, clear, scaled add, bit copy,
// extrema, shift, index sort and threshold; exact results and every check.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "m7.h"
#include "test_data.h"

namespace {

// ---- Copy, move, fill, clear kernels -----------------------------------------------

TEST(Kernels, CopyWritesExactlyTheBytesAtEveryLengthAndAlignment) {
    auto src = randomBytes(5000, 1);
    for (size_t n : {0u, 1u, 3u, 4u, 7u, 8u, 15u, 16u, 17u, 31u, 63u, 64u, 65u, 200u, 4000u})
        for (size_t so = 0; so < 16; so += 3)
            for (size_t d = 0; d < 16; ++d) {
                std::vector<Ozr8u> dst(4200, 0xAA);
                m7_ownsCopy_8u(src.data() + so, dst.data() + 16 + d, n);
                ASSERT_EQ(0, std::memcmp(dst.data() + 16 + d, src.data() + so, n)) << n;
                for (size_t i = 0; i < dst.size(); ++i)
                    if (i < 16 + d || i >= 16 + d + n) ASSERT_EQ(dst[i], 0xAA) << "guard byte " << i << " n " << n;
            }
}

TEST(Kernels, CopyAboveTheStreamingThresholdIsExact) {
    auto src = randomBytes((3 << 20) + 5, 2);
    std::vector<Ozr8u> dst(src.size() + 2, 0xAA);
    m7_ownsCopy_8u(src.data(), dst.data() + 1, src.size());
    EXPECT_EQ(0, std::memcmp(dst.data() + 1, src.data(), src.size()));
    EXPECT_EQ(dst.front(), 0xAA);
    EXPECT_EQ(dst.back(), 0xAA);
}

TEST(Kernels, MoveHandlesOverlapInBothDirections) {
    for (size_t n : {1u, 15u, 16u, 17u, 100u, 1000u})
        for (long shift : {-33L, -16L, -1L, 1L, 5L, 16L, 40L}) {
            auto buf = randomBytes(n + 100, unsigned(n));
            auto expect = buf;
            size_t s = 50, d = size_t(50 + shift);
            std::memmove(expect.data() + d, expect.data() + s, n);
            m7_ownsMove_8u_M7(buf.data() + s, buf.data() + d, n);
            ASSERT_EQ(buf, expect) << n << " " << shift;
        }
}

TEST(Kernels, ZeroAndSetStayInsideTheirRange) {
    for (size_t n : {0u, 1u, 15u, 16u, 17u, 33u, 1000u})
        for (size_t d = 0; d < 16; ++d) {
            std::vector<Ozr8u> a(1100, 0xAA), b(1100, 0xAA);
            m7_ownsZero_8u(a.data() + d, n);
            m7_ownsSet_8u(0x5C, b.data() + d, n);
            for (size_t i = 0; i < a.size(); ++i) {
                bool in = i >= d && i < d + n;
                ASSERT_EQ(a[i], in ? 0 : 0xAA);
                ASSERT_EQ(b[i], in ? 0x5C : 0xAA);
            }
        }
}

// ---- Checked primitives: checks and results --------------------------------------------

TEST(CheckedPrimitives, NullBeforeSizeAndNothingWrittenOnError) {
    Ozr32s a[4] = {1, 2, 3, 4}, b[4] = {9, 9, 9, 9};
    Ozr16s h[2] = {7, 7};
    Ozr32f f[2] = {1, 2};
    Ozr8u u[2] = {5, 5};
    EXPECT_EQ(m7_ozrsCopy_8u(nullptr, u, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsCopy_8u(u, nullptr, 1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsCopy_8u(u, u + 1, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsCopy_32f(f, nullptr, -1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsCopy_32f(f, f + 1, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsMove_32s(nullptr, b, 1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMove_32s(a, b, -3), ozrErrSize);
    EXPECT_EQ(m7_ozrsZero_16s(nullptr, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsZero_16s(h, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsZero_32s(nullptr, 1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsZero_32s(b, INT_MIN), ozrErrSize);
    EXPECT_EQ(m7_ozrsSet_8u(1, nullptr, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsSet_8u(1, u, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsSet_32s(1, nullptr, 1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsSet_32s(1, b, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsThreshold_GT_32s_I(nullptr, 0, 1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsThreshold_GT_32s_I(b, 0, 1), ozrErrSize);
    EXPECT_EQ(h[0], 7);
    EXPECT_EQ(u[1], 5);
    EXPECT_EQ(f[1], 2.0f);
    for (Ozr32s x : b) EXPECT_EQ(x, 9);
}

TEST(CheckedPrimitives, ResultsOfCopyMoveZeroSetThreshold) {
    Ozr32s a[7] = {1, -2, 3, INT_MIN, INT_MAX, 0, 6}, b[7] = {};
    ASSERT_EQ(m7_ozrsMove_32s(a, a + 1, 6), ozrOk);  // overlapping, upward
    EXPECT_EQ(std::vector<Ozr32s>(a, a + 7), (std::vector<Ozr32s>{1, 1, -2, 3, INT_MIN, INT_MAX, 0}));
    ASSERT_EQ(m7_ozrsSet_32s(-7, b, 5), ozrOk);
    EXPECT_EQ(std::vector<Ozr32s>(b, b + 7), (std::vector<Ozr32s>{-7, -7, -7, -7, -7, 0, 0}));
    ASSERT_EQ(m7_ozrsZero_32s(b + 1, 3), ozrOk);
    EXPECT_EQ(std::vector<Ozr32s>(b, b + 7), (std::vector<Ozr32s>{-7, 0, 0, 0, -7, 0, 0}));
    ASSERT_EQ(m7_ozrsThreshold_GT_32s_I(a, 7, 2), ozrOk);
    EXPECT_EQ(std::vector<Ozr32s>(a, a + 7), (std::vector<Ozr32s>{1, 1, -2, 2, INT_MIN, 2, 0}));
    Ozr16s h[5] = {1, 2, 3, 4, 5};
    ASSERT_EQ(m7_ozrsZero_16s(h + 1, 3), ozrOk);
    EXPECT_EQ(h[0] + h[1] + h[2] + h[3] + h[4], 6);
}

TEST(CheckedPrimitives, Extrema) {
    Ozr32s v[9] = {5, -3, 9, INT_MIN, 7, INT_MAX, 0, -8, 2};
    Ozr32s mx = 0, mn = 0;
    EXPECT_EQ(m7_ozrsMax_32s(v, 9, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMax_32s(v, 0, &mx), ozrErrSize);
    EXPECT_EQ(m7_ozrsMinMax_32s(v, 9, &mn, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMinMax_32s(nullptr, 0, &mn, &mx), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMinMax_32s(v, -1, &mn, &mx), ozrErrSize);
    EXPECT_EQ(mx, 0);
    ASSERT_EQ(m7_ozrsMax_32s(v, 5, &mx), ozrOk);
    EXPECT_EQ(mx, 9);
    ASSERT_EQ(m7_ozrsMinMax_32s(v, 9, &mn, &mx), ozrOk);
    EXPECT_EQ(mn, INT_MIN);
    EXPECT_EQ(mx, INT_MAX);
    Ozr32f f[7] = {1.5f, -7.25f, 3.0f, -0.0f, 2.0f, -7.0f, 7.0f}, m = 0;
    EXPECT_EQ(m7_ozrsMaxAbs_32f(nullptr, 7, &m), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMaxAbs_32f(f, 0, &m), ozrErrSize);
    for (int n = 1; n <= 7; ++n) {
        ASSERT_EQ(m7_ozrsMaxAbs_32f(f, n, &m), ozrOk);
        float want = 0;
        for (int i = 0; i < n; ++i) want = std::max(want, std::fabs(f[i]));
        EXPECT_EQ(m, want) << n;
    }
}

// ---- Scaled add -----------------------------------------------------------------------

Ozr32s refAddC(Ozr32s a, Ozr32s v, int s) {
    long double x = std::ldexp(static_cast<long double>(Ozr64s(a) + v), -s);
    long double r = std::nearbyint(x);  // default rounding mode: nearest, ties to even
    if (r > INT_MAX) return INT_MAX;
    if (r < INT_MIN) return INT_MIN;
    return static_cast<Ozr32s>(r);
}

TEST(AddC, HalvingRoundsTiesToEven) {
    Ozr32s src[3] = {1, 3, 5}, dst[3];
    ASSERT_EQ(m7_ozrsAddC_32s_Sfs(src, 2, dst, 3, 1), ozrOk);
    EXPECT_EQ(dst[0], 2);  // 1.5 -> 2
    EXPECT_EQ(dst[1], 2);  // 2.5 -> 2
    EXPECT_EQ(dst[2], 4);  // 3.5 -> 4
}

TEST(AddC, LargeScaleFactorsGiveZeroOrTheSignExtreme) {
    Ozr32s src[4] = {INT_MIN, -1, 0, INT_MAX}, dst[4] = {9, 9, 9, 9};
    ASSERT_EQ(m7_ozrsAddC_32s_Sfs(src, INT_MIN, dst, 4, 33), ozrOk);
    for (Ozr32s x : dst) EXPECT_EQ(x, 0);
    ASSERT_EQ(m7_ozrsAddC_32s_Sfs(src, 0, dst, 4, -31), ozrOk);
    EXPECT_EQ(dst[0], INT_MIN);
    EXPECT_EQ(dst[1], INT_MIN);
    EXPECT_EQ(dst[2], 0);
    EXPECT_EQ(dst[3], INT_MAX);
}

TEST(AddC, EveryScaleFactorMatchesExactRounding) {
    std::vector<Ozr32s> src = {0, 1, -1, 2, -2, 3, -3, 5, -5, 7, 1 << 20, -(1 << 20), INT_MAX, INT_MIN,
                               INT_MAX - 1, INT_MIN + 1, 0x40000000, -0x40000000};
    std::mt19937 rng(3);
    for (int i = 0; i < 200; ++i) src.push_back(static_cast<Ozr32s>(rng()));
    for (int i = 0; i < 40; ++i) src.push_back(static_cast<Ozr32s>(rng()) >> (rng() % 31));
    const int n = static_cast<int>(src.size());
    for (Ozr32s v : {0, 1, -1, 3, INT_MAX, INT_MIN, 123456789, -0x40000000})
        for (int s = -40; s <= 40; ++s) {
            std::vector<Ozr32s> dst(n + 1, 0x5A5A5A5A);
            ASSERT_EQ(m7_ozrsAddC_32s_Sfs(src.data(), v, dst.data(), n, s), ozrOk);
            for (int i = 0; i < n; ++i)
                ASSERT_EQ(dst[i], refAddC(src[i], v, s)) << "src " << src[i] << " val " << v << " s " << s;
            ASSERT_EQ(dst[n], 0x5A5A5A5A) << "wrote past the length";
        }
}

TEST(AddC, Checks) {
    Ozr32s a[2] = {1, 2}, b[2] = {7, 7};
    EXPECT_EQ(m7_ozrsAddC_32s_Sfs(nullptr, 1, b, 0, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsAddC_32s_Sfs(a, 1, nullptr, 2, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsAddC_32s_Sfs(a, 1, b, 0, 40), ozrErrSize);
    EXPECT_EQ(b[0], 7);
}

// ---- Bit copy -----------------------------------------------------------------------

bool bitAt(const std::vector<Ozr8u>& b, size_t i) { return b[i / 8] >> (i % 8) & 1; }

TEST(CopyBE, EveryOffsetPairAndLengthCopiesTheRunAndKeepsOtherBits) {
    auto src = randomBytes(40, 4);
    for (int so = 0; so < 16; ++so)
        for (int dof = 0; dof < 16; ++dof)
            for (int len = 1; len <= 150; ++len) {
                std::vector<Ozr8u> dst = randomBytes(40, unsigned(len)), before = dst;
                // The pointers address the bytes holding the first bits; offsets count mod 8.
                ASSERT_EQ(m7_ozrsCopyBE_1u(src.data() + so / 8, so, dst.data() + dof / 8, dof, len), ozrOk);
                for (size_t i = 0; i < dst.size() * 8; ++i) {
                    size_t first = size_t(dof / 8 * 8 + dof % 8);
                    bool want = (i >= first && i < first + size_t(len)) ? bitAt(src, size_t(so / 8 * 8 + so % 8) + i - first)
                                                                         : bitAt(before, i);
                    ASSERT_EQ(bitAt(dst, i), want) << "so " << so << " do " << dof << " len " << len << " bit " << i;
                }
            }
}

TEST(CopyBE, OnlyOffsetsModulo8Count) {
    Ozr8u src[2] = {0xF0, 0x0F}, d1[2] = {0, 0}, d2[2] = {0, 0};
    ASSERT_EQ(m7_ozrsCopyBE_1u(src, 4, d1, 2, 8), ozrOk);
    ASSERT_EQ(m7_ozrsCopyBE_1u(src, 84, d2, 1002, 8), ozrOk);
    EXPECT_EQ(d1[0], d2[0]);
    EXPECT_EQ(d1[1], d2[1]);
    EXPECT_EQ(d1[0], 0xFC);  // bits 4..7 of src[0] (all ones) land at bits 2..5, then src[1]'s 0..3 at 6..9
    EXPECT_EQ(d1[1], 0x03);
}

TEST(CopyBE, Checks) {
    Ozr8u s = 0xFF, d = 0;
    EXPECT_EQ(m7_ozrsCopyBE_1u(nullptr, -1, &d, 0, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsCopyBE_1u(&s, 0, nullptr, 0, 1), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsCopyBE_1u(&s, 0, &d, 0, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsCopyBE_1u(&s, -1, &d, 0, 1), ozrErrSize);
    EXPECT_EQ(m7_ozrsCopyBE_1u(&s, 0, &d, -8, 1), ozrErrSize);
    EXPECT_EQ(d, 0);
}

// ---- Left shift ------------------------------------------------------------------------

TEST(LShiftC, CheckOrderPutsTheClearFirstAndTheShiftSignLast) {
    Ozr32s a[3] = {1, -1, 0x40000001};
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(32, nullptr, 3), ozrErrNullPointer) << "shift > 31 is the clear, with its checks";
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(32, a, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(-1, nullptr, 3), ozrErrNullPointer) << "pointer before shift sign";
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(-1, a, 0), ozrErrSize) << "length before shift sign";
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(-1, a, 3), ozrErrShift);
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(0, nullptr, 3), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsLShiftC_32s_I(0, a, 3), ozrOk);
    EXPECT_EQ(a[2], 0x40000001);
    ASSERT_EQ(m7_ozrsLShiftC_32s_I(1, a, 3), ozrOk);
    EXPECT_EQ(a[0], 2);
    EXPECT_EQ(a[1], -2);
    EXPECT_EQ(a[2], static_cast<Ozr32s>(0x80000002u)) << "bits shifted out are lost, no saturation";
    ASSERT_EQ(m7_ozrsLShiftC_32s_I(31, a, 1), ozrOk);
    EXPECT_EQ(a[0], 0);
    ASSERT_EQ(m7_ozrsLShiftC_32s_I(1000, a, 3), ozrOk);
    EXPECT_EQ(a[1] | a[2], 0);
}

// ---- Index sort ----------------------------------------------------------------------------

TEST(SortIndex, LengthOneOnlySetsTheIndex) {
    Ozr32s k = 42, i = -5;
    ASSERT_EQ(m7_ozrsSortIndexAscend_32s_I(&k, &i, 1), ozrOk);
    EXPECT_EQ(k, 42);
    EXPECT_EQ(i, 0);
}

TEST(SortIndex, Checks) {
    Ozr32s k[2] = {2, 1}, i[2] = {7, 7};
    EXPECT_EQ(m7_ozrsSortIndexAscend_32s_I(nullptr, i, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsSortIndexAscend_32s_I(k, nullptr, 2), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsSortIndexAscend_32s_I(k, i, 0), ozrErrSize);
    EXPECT_EQ(i[0], 7);
    EXPECT_EQ(k[0], 2);
}

TEST(SortIndex, SmallRangesPutTheRightmostOfEqualMaximaLast) {
    // Ranges of at most 9 go by selection of the maximum, where the rightmost of
    // equal largest keys wins: the tie order below is exactly what those steps give.
    Ozr32s k[5] = {3, 1, 3, 2, 1}, i[5];
    ASSERT_EQ(m7_ozrsSortIndexAscend_32s_I(k, i, 5), ozrOk);
    EXPECT_EQ(std::vector<Ozr32s>(k, k + 5), (std::vector<Ozr32s>{1, 1, 2, 3, 3}));
    // Pass 1: max 3 rightmost at 2 -> swap with 4: keys 3 1 1 2 3 idx 0 1 4 3 2
    // Pass 2: over 0..3 max 3 at 0 -> swap with 3: keys 2 1 1 3 idx 3 1 4 0
    // Pass 3: over 0..2 max 2 at 0 -> swap with 2: keys 1 1 2 idx 4 1 3
    // Pass 4: over 0..1 max 1, rightmost at 1 -> stays: idx 4 1
    EXPECT_EQ(std::vector<Ozr32s>(i, i + 5), (std::vector<Ozr32s>{4, 1, 3, 0, 2}));
}

TEST(SortIndex, SortsAndReturnsAPermutationForManyShapes) {
    std::mt19937 rng(5);
    for (int n : {2, 3, 9, 10, 11, 17, 64, 100, 1000, 5000})
        for (int shape = 0; shape < 6; ++shape) {
            std::vector<Ozr32s> k(n);
            for (int j = 0; j < n; ++j) {
                switch (shape) {
                    case 0: k[j] = static_cast<Ozr32s>(rng()); break;
                    case 1: k[j] = static_cast<Ozr32s>(rng() % 4); break;  // many ties
                    case 2: k[j] = j; break;                                 // sorted
                    case 3: k[j] = n - j; break;                             // reversed
                    case 4: k[j] = 7; break;                                 // all equal
                    default: k[j] = (j % 2) ? INT_MIN : INT_MAX; break;
                }
            }
            std::vector<Ozr32s> orig = k, idx(n, -1);
            ASSERT_EQ(m7_ozrsSortIndexAscend_32s_I(k.data(), idx.data(), n), ozrOk);
            ASSERT_TRUE(std::is_sorted(k.begin(), k.end())) << n << " shape " << shape;
            std::vector<bool> seen(n);
            for (int j = 0; j < n; ++j) {
                ASSERT_GE(idx[j], 0);
                ASSERT_LT(idx[j], n);
                ASSERT_FALSE(seen[idx[j]]);
                seen[idx[j]] = true;
                ASSERT_EQ(k[j], orig[idx[j]]) << "index must follow its key";
            }
        }
}

TEST(SortIndex, TieOrderIsDeterministicAcrossCalls) {
    std::mt19937 rng(6);
    std::vector<Ozr32s> k(300);
    for (auto& x : k) x = static_cast<Ozr32s>(rng() % 5);
    auto k2 = k;
    std::vector<Ozr32s> i1(300), i2(300);
    m7_ozrsSortIndexAscend_32s_I(k.data(), i1.data(), 300);
    m7_ozrsSortIndexAscend_32s_I(k2.data(), i2.data(), 300);
    EXPECT_EQ(i1, i2);
}

TEST(OneTwoThreeFell, FillsTheIdentity) {
    for (int n : {1, 3, 4, 5, 17}) {
        std::vector<Ozr32s> v(n + 1, -1);
        m7_ownOneTwoThreeFell(v.data(), n);
        for (int j = 0; j < n; ++j) ASSERT_EQ(v[j], j);
        EXPECT_EQ(v[n], -1);
    }
}

}  // namespace
