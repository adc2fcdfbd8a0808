// ZFP block encoder: state set-up, one 4x4x4 block per call, flush.
//
// A block is coded as: one bit "not empty"; the 8-bit biased block exponent; then
// the bit planes of the 64 transformed coefficients from the top down. In each
// plane the coefficients already significant are sent verbatim; the rest are sent
// by group tests: a 1 announces one more significant coefficient in this plane and
// is followed by its position in unary (0 bits, then a 1 that is left out when the
// position is the last one), a 0 closes the plane. Coding stops when the block's
// bit budget (maxBits) is spent; the block is zero-padded to minBits.
//
// Bits accumulate least significant first in a 64-bit buffer; every full word is
// stored little-endian. A block is coded into a small word array first and then
// committed to the output with the room checks, so the coder itself runs unchecked.
#include "zfp_block.h"

namespace {

using namespace m7::zfp;

// Appends bits to a word array. Invariant: cnt < 64 and the bits of buf above cnt
// are zero.
struct BitSink {
    Ozr64u buf;
    int cnt;
    Ozr64u* out;

    // v holds n bits (0 <= n <= 64), nothing above them.
    inline void put(Ozr64u v, int n) {
        buf |= v << cnt;
        int c = cnt + n;
        if (c >= 64) {
            *out++ = buf;
            c -= 64;
            buf = c ? v >> (n - c) : 0;
        }
        cnt = c;
    }
};

// For 16 coded coefficients (4 vectors) one vector of their byte `b` (3 = top):
// the byte moved to the top of each lane and sign-extended back survives the two
// saturating packs unchanged, in coefficient order.
inline __m128i bytePlane(const __m128i* u, int b) {
    const __m128i up = _mm_cvtsi32_si128(8 * (3 - b));
    __m128i a0 = _mm_srai_epi32(_mm_sll_epi32(u[0], up), 24);
    __m128i a1 = _mm_srai_epi32(_mm_sll_epi32(u[1], up), 24);
    __m128i a2 = _mm_srai_epi32(_mm_sll_epi32(u[2], up), 24);
    __m128i a3 = _mm_srai_epi32(_mm_sll_epi32(u[3], up), 24);
    return _mm_packs_epi16(_mm_packs_epi32(a0, a1), _mm_packs_epi32(a2, a3));
}

// Codes bit planes 31 .. 32 - prec of the coded coefficients u within `budget`
// bits; returns the bits spent.
inline int encodePlanes(BitSink& s, const __m128i (&u)[16], int prec, int budget) {
    int bits = budget;
    int n = 0;  // coefficients known to be significant
    __m128i bp[4] = {};
    const int kmin = kPlanes - prec;
    for (int k = kPlanes - 1; bits > 0 && k >= kmin; --k) {
        if ((k & 7) == 7)
            for (int g = 0; g < 4; ++g) bp[g] = bytePlane(u + 4 * g, k >> 3);
        // Plane k: the top bit of every byte, then shift the next bit up.
        Ozr64u x = Ozr64u(Ozr32u(_mm_movemask_epi8(bp[0])) | (Ozr32u(_mm_movemask_epi8(bp[1])) << 16)) |
                   (Ozr64u(Ozr32u(_mm_movemask_epi8(bp[2])) | (Ozr32u(_mm_movemask_epi8(bp[3])) << 16)) << 32);
        for (int g = 0; g < 4; ++g) bp[g] = _mm_add_epi8(bp[g], bp[g]);

        // The first n bits verbatim.
        int m = n < bits ? n : bits;
        s.put(x & lowMask(m), m);
        bits -= m;
        // The rest by group tests.
        Ozr64u r = n < 64 ? x >> n : 0;
        while (n < 64 && bits > 0) {
            if (r == 0) {  // nothing more in this plane
                s.put(0, 1);
                --bits;
                break;
            }
            int d = m7::trailingZeros64(r);
            int p = n + d;  // next coefficient that becomes significant
            int len;
            Ozr64u code;
            if (p < 63) {  // 1, d zeros, 1
                len = d + 2;
                code = 1 | (Ozr64u(2) << d);
            } else {  // the last position needs no closing 1
                len = d + 1;
                code = 1;
            }
            if (len > bits) {  // the budget ends inside this run
                s.put(code & lowMask(bits), bits);
                bits = 0;
                break;
            }
            s.put(code, len);
            bits -= len;
            n = p + 1;
            r = (r >> d) >> 1;
        }
    }
    return budget - bits;
}

// Stores the block's complete words and its padding, checking the room. On a word
// that does not fit: the words before it are stored, that word stays pending with
// bitCount 64, and the result is ozrErrOutOfRange.
OzrResult commit(OzrsZfpState_32f* st, const Ozr64u* words, int nWords, Ozr64u buf, int cnt, Ozr64s pad) {
    Ozr8u* p = st->pCur;
    Ozr8u* const end = st->pEnd;
    auto fail = [&](Ozr64u word) {
        st->pCur = p;
        st->bitBuffer = word;
        st->bitCount = 64;
        return ozrErrOutOfRange;
    };
    for (int i = 0; i < nWords; ++i) {
        if (end - p < 8) return fail(words[i]);
        __builtin_memcpy(p, &words[i], 8);
        p += 8;
    }
    if (pad > 0) {
        Ozr64s total = cnt + pad;
        if (total >= 64) {
            if (end - p < 8) return fail(buf);
            __builtin_memcpy(p, &buf, 8);
            p += 8;
            buf = 0;
            total -= 64;
            Ozr64s zeros = total >> 6, room = (end - p) >> 3;
            if (zeros > room) {
                m7_ownsZero_8u(p, size_t(room) * 8);
                p += room * 8;
                return fail(0);
            }
            m7_ownsZero_8u(p, size_t(zeros) * 8);
            p += zeros * 8;
            total &= 63;
        }
        cnt = int(total);
    }
    st->pCur = p;
    st->bitBuffer = buf;
    st->bitCount = cnt;
    return ozrOk;
}

Ozr8u* limitFor(Ozr8u* end, Ozr32s maxBits) {
    Ozr64s bytes = (((Ozr64s(maxBits) + 7) >> 3) + 7) & ~Ozr64s(7);
    return reinterpret_cast<Ozr8u*>(reinterpret_cast<uintptr_t>(end) - uintptr_t(bytes));
}

OzrResult init(Ozr8u* pDst, Ozr64u dstLen, OzrsZfpState_32f* st) {
    st->magic = kMagic;
    st->minBits = kDefaultMinBits;
    st->maxBits = kDefaultMaxBits;
    st->maxPrec = kDefaultMaxPrec;
    st->minExp = kDefaultMinExp;
    st->bitCount = 0;
    st->bitBuffer = 0;
    st->pCur = st->pStart = pDst;
    st->pEnd = pDst + dstLen;
    st->pLimit = limitFor(st->pEnd, st->maxBits);
    return ozrOk;
}

}  // namespace

extern "C" {

OzrResult m7_ozrsEncodeZfpGetStateSize_32f(Ozr32s* pSize) {
    OZR_CHECK_NULL(pSize);
    *pSize = Ozr32s(sizeof(OzrsZfpState_32f));
    return ozrOk;
}

OzrResult m7_ozrsEncodeZfpInit_32f(Ozr8u* pDst, Ozr32s dstLen, OzrsZfpState_32f* pState) {
    OZR_CHECK_NULL(pDst, pState);
    OZR_CHECK_POSITIVE(dstLen);
    return init(pDst, Ozr64u(dstLen), pState);
}

OzrResult m7_ozrsEncodeZfpInitLong_32f(Ozr8u* pDst, Ozr64u dstLen, OzrsZfpState_32f* pState) {
    OZR_CHECK_NULL(pDst, pState);
    if (dstLen == 0) return ozrErrSize;
    return init(pDst, dstLen, pState);
}

OzrResult m7_ozrsEncodeZfpSet_32f(Ozr32s minBits, Ozr32s maxBits, Ozr32s maxPrec, Ozr32s minExp,
                                  OzrsZfpState_32f* pState) {
    OZR_CHECK_NULL(pState);
    if (!initialised(pState)) return ozrErrBadParameter;
    pState->minBits = minBits;
    pState->maxBits = maxBits;
    pState->maxPrec = maxPrec;
    pState->minExp = minExp;
    pState->pLimit = limitFor(pState->pEnd, maxBits);
    return ozrOk;
}

OzrResult m7_ozrsEncodeZfpSetAccuracy_32f(OzrsZfpState_32f* pState, Ozr64f tolerance) {
    OZR_CHECK_NULL(pState);
    if (!initialised(pState)) return ozrErrBadParameter;
    // tolerance > 0, tested on the bits: a subnormal tolerance counts whatever the
    // caller's denormals-are-zero mode (positive, not zero, not NaN).
    Ozr64u b;
    __builtin_memcpy(&b, &tolerance, 8);
    if (b - 1 < 0x7FF0000000000000ull) {
        pState->minExp = Ozr32s((b >> 52) & 0x7FF) - 1023;
    } else {
        pState->minExp = kDefaultMinExp;
    }
    return ozrOk;
}

OzrResult m7_ozrsEncodeZfp444_32f(const Ozr32f* pSrc, Ozr32s srcStep, Ozr32s srcPlaneStep,
                                  OzrsZfpState_32f* pState) {
    OZR_CHECK_NULL(pSrc, pState);
    if (!initialised(pState)) return ozrErrBadParameter;
    OzrsZfpState_32f* const st = pState;
    const DefaultFloatModes modes;
    if (st->bitCount >= 64) {  // the word that did not fit last time
        if (st->pEnd - st->pCur < 8) return ozrErrOutOfRange;
        __builtin_memcpy(st->pCur, &st->bitBuffer, 8);
        st->pCur += 8;
        st->bitBuffer = 0;
        st->bitCount = 0;
    }

    // Gather the block, x fastest.
    const Ozr8u* base = reinterpret_cast<const Ozr8u*>(pSrc);
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 4; ++y) {
            const Ozr8u* row = base + ptrdiff_t(z) * srcPlaneStep + ptrdiff_t(y) * srcStep;
            _mm_storeu_ps(st->block + 16 * z + 4 * y, _mm_loadu_ps(reinterpret_cast<const float*>(row)));
        }

    // Block exponent: the magnitude lies in [2^(emax-1), 2^emax).
    Ozr32f maxAbs;
    m7_ozrsMaxAbs_32f(st->block, 64, &maxAbs);
    Ozr32u maxBitsOf;
    __builtin_memcpy(&maxBitsOf, &maxAbs, 4);
    const int emax = maxBitsOf ? int(maxBitsOf >> 23) - 126 : kEmptyEmax;
    const int prec = precision(emax, st);

    Ozr64u words[kMaxBlockBits / 64 + 2];
    BitSink s{st->bitBuffer, st->bitCount, words};
    Ozr64s blockBits;
    if (prec == 0 || emax == kEmptyEmax) {
        s.put(0, 1);
        blockBits = 1;
    } else {
        s.put(Ozr64u(2 * ((emax + 127) & 0xFF) + 1), kHeaderBits);

        // To 32-bit integers: scale by 2^(30 - emax) (exponent field 157 - emax, at
        // most 254) and truncate toward zero.
        const int field = 157 - emax < 254 ? 157 - emax : 254;
        const __m128 scale = powerOfTwo(field);
        __m128i v[16];
        for (int i = 0; i < 16; ++i)
            v[i] = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(st->block + 4 * i), scale));
        forwardTransform(v);

        // Negabinary, then the sequency order.
        alignas(16) Ozr32u t[64];
        alignas(16) Ozr32u c[64];
        for (int i = 0; i < 16; ++i)
            _mm_store_si128(reinterpret_cast<__m128i*>(t + 4 * i), toNegabinary(v[i]));
        for (int i = 0; i < 64; ++i) c[i] = t[permTable[i]];
        __m128i u[16];
        for (int i = 0; i < 16; ++i) u[i] = _mm_load_si128(reinterpret_cast<const __m128i*>(c + 4 * i));

        Ozr64s budget = Ozr64s(st->maxBits) - kHeaderBits;
        budget = budget < 0 ? 0 : (budget > kMaxBlockBits ? kMaxBlockBits : budget);
        blockBits = kHeaderBits + encodePlanes(s, u, prec, int(budget));
    }
    const Ozr64s pad = Ozr64s(st->minBits) - blockBits;
    return commit(st, words, int(s.out - words), s.buf, s.cnt, pad);
}

OzrResult m7_ozrsEncodeZfpGetCompressedSize_32f(const OzrsZfpState_32f* pState, Ozr32u* pSize) {
    OZR_CHECK_NULL(pState, pSize);
    if (!initialised(pState)) return ozrErrBadParameter;
    *pSize = Ozr32u(pState->pCur - pState->pStart);
    return ozrOk;
}

OzrResult m7_ozrsEncodeZfpGetCompressedSizeLong_32f(const OzrsZfpState_32f* pState, Ozr64u* pSize) {
    OZR_CHECK_NULL(pState, pSize);
    if (!initialised(pState)) return ozrErrBadParameter;
    *pSize = Ozr64u(pState->pCur - pState->pStart);
    return ozrOk;
}

OzrResult m7_ozrsEncodeZfpGetCompressedBitSize_32f(const OzrsZfpState_32f* pState, Ozr64u* pBits) {
    OZR_CHECK_NULL(pState, pBits);
    if (!initialised(pState)) return ozrErrBadParameter;
    *pBits = Ozr64u(pState->bitCount) + 8 * Ozr64u(pState->pCur - pState->pStart);
    return ozrOk;
}

OzrResult m7_ozrsEncodeZfpFlush_32f(OzrsZfpState_32f* pState) {
    OZR_CHECK_NULL(pState);
    if (!initialised(pState)) return ozrErrBadParameter;
    OzrsZfpState_32f* const st = pState;
    if (st->bitCount <= 0) return ozrOk;
    if (st->pEnd - st->pCur >= 8) {  // one whole word; its unused high bits are zero
        __builtin_memcpy(st->pCur, &st->bitBuffer, 8);
        st->pCur += 8;
        st->bitBuffer = 0;
        st->bitCount = 0;
        return ozrOk;
    }
    // The last bytes of the buffer: lowest byte first, while room remains.
    while (st->bitCount > 0 && st->pCur < st->pEnd) {
        *st->pCur++ = Ozr8u(st->bitBuffer);
        st->bitBuffer >>= 8;
        st->bitCount = st->bitCount > 8 ? st->bitCount - 8 : 0;
    }
    return st->bitCount > 0 ? ozrErrOutOfRange : ozrOk;
}

}  // extern "C"
