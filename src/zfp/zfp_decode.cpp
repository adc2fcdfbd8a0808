// ZFP block decoder: the mirror of zfp_encode.cpp, one 4x4x4 block per call.
//
// Input bits are loaded only when a bit is needed and none is buffered: a whole
// 64-bit little-endian word while 8 bytes remain, else one byte. The block core is
// one template over "check the input end on every load"; blocks that start at least
// kFastBytes before the end cannot reach it and run without the checks (the loads
// happen at the same points either way, so the state after a block is the same).
#include "zfp_block.h"

namespace {

using namespace m7::zfp;

// Enough input for the largest block, padding excluded: a refill happens only when
// the buffer is empty, so at most ceil(kMaxBlockBits / 64) words are loaded.
constexpr ptrdiff_t kFastBytes = (kMaxBlockBits + 63) / 64 * 8;

// Invariant: the bits of buf above cnt are zero. Once the input is exhausted,
// `failed` is set and zero bits are supplied, so that every loop stays bounded.
template <bool Checked>
struct BitSource {
    Ozr64u buf;
    int cnt;
    const Ozr8u* p;
    const Ozr8u* end;
    bool failed;

    // Loads the next 64-bit word, or a single byte within 8 bytes of the end; false
    // when no byte is left.
    inline bool load() {
        if (end - p >= 8) {
            __builtin_memcpy(&buf, p, 8);
            p += 8;
            cnt = 64;
        } else if (p < end) {
            buf = *p++;
            cnt = 8;
        } else {
            return false;
        }
        return true;
    }

    inline void refill() {
        if (!Checked) {
            __builtin_memcpy(&buf, p, 8);
            p += 8;
            cnt = 64;
        } else if (!load()) {
            failed = true;
            buf = 0;
            cnt = 64;
        }
    }

    inline void drop(int n) {  // n <= cnt bits
        buf = n >= 64 ? 0 : buf >> n;
        cnt -= n;
    }

    inline Ozr64u bit() {
        if (cnt == 0) refill();
        Ozr64u b = buf & 1;
        buf >>= 1;
        --cnt;
        return b;
    }

    inline Ozr64u get(int n) {  // 0 <= n <= 64
        if (n <= cnt) {
            Ozr64u v = buf & lowMask(n);
            drop(n);
            return v;
        }
        Ozr64u v = buf;
        int got = cnt;
        for (;;) {
            refill();
            int need = n - got;
            if (need <= cnt) {
                v |= (buf & lowMask(need)) << got;
                drop(need);
                return v;
            }
            v |= buf << got;
            got += cnt;
            buf = 0;
            cnt = 0;
        }
    }

    // Passes over n bits of padding, whole words at a time where it can; always
    // checks the end, whatever the template says.
    inline void skip(Ozr64s n) {
        while (n > cnt) {
            n -= cnt;
            buf = 0;
            cnt = 0;
            Ozr64s words = n >> 6, room = (end - p) >> 3;
            if (words > room) words = room;
            p += words * 8;
            n -= words * 64;
            if (n == 0) return;
            if (!load()) {
                failed = true;
                return;
            }
        }
        drop(int(n));
    }
};

// Decodes bit planes 31 .. 32 - prec within `budget` bits into planes[k] (bit i of
// planes[k] = bit k of coded coefficient i); returns the bits read. When the budget
// ends inside a unary position run, the coefficient at the position reached is
// taken as significant, as the published decoder does.
template <bool Checked>
inline int decodePlanes(BitSource<Checked>& in, int budget, int prec, Ozr64u (&planes)[kPlanes]) {
    int bits = budget;
    int n = 0;
    const int kmin = kPlanes - prec;
    for (int k = kPlanes - 1; bits > 0 && k >= kmin; --k) {
        int m = n < bits ? n : bits;
        bits -= m;
        Ozr64u x = in.get(m);
        while (bits > 0 && n < 64) {
            --bits;
            if (!in.bit()) break;  // no further coefficient in this plane
            // Unary position: zeros up to a 1, at most up to position 63 (implied).
            for (;;) {
                int lim = 63 - n < bits ? 63 - n : bits;
                if (lim == 0) break;
                if (in.cnt == 0) in.refill();
                int z = in.buf ? m7::trailingZeros64(in.buf) : in.cnt;
                if (z >= lim) {
                    in.drop(lim);
                    n += lim;
                    bits -= lim;
                    break;
                }
                if (z < in.cnt) {  // the closing 1
                    in.drop(z + 1);
                    n += z;
                    bits -= z + 1;
                    break;
                }
                in.drop(z);  // all buffered bits were zeros
                n += z;
                bits -= z;
            }
            x |= Ozr64u(1) << n;
            ++n;
        }
        planes[k] = x;
    }
    return budget - bits;
}

// Bit planes 8b+7 .. 8b back to one byte per coefficient: the 64-bit plane is
// spread so that byte j of vector g sees the byte holding coefficient 16g + j, the
// selector keeps bit (j mod 8), and each plane doubles the accumulated byte and
// adds its bit.
inline void bytesOfPlanes(const Ozr64u* planes, int b, __m128i (&out)[4]) {
    const __m128i sel = _mm_set1_epi64x(0x8040201008040201LL);
    __m128i acc[4] = {};
    for (int k = 8 * b + 7; k >= 8 * b; --k) {
        __m128i w = _mm_cvtsi64_si128(Ozr64s(planes[k]));
        __m128i t = _mm_unpacklo_epi8(w, w);
        __m128i lo = _mm_unpacklo_epi16(t, t), hi = _mm_unpackhi_epi16(t, t);
        __m128i e[4] = {_mm_unpacklo_epi32(lo, lo), _mm_unpackhi_epi32(lo, lo),
                        _mm_unpacklo_epi32(hi, hi), _mm_unpackhi_epi32(hi, hi)};
        for (int g = 0; g < 4; ++g) {
            __m128i set = _mm_cmpeq_epi8(_mm_and_si128(e[g], sel), sel);
            acc[g] = _mm_sub_epi8(_mm_add_epi8(acc[g], acc[g]), set);
        }
    }
    for (int g = 0; g < 4; ++g) out[g] = acc[g];
}

template <bool Checked>
OzrResult decodeBlock(OzrsZfpState_32f* st, Ozr32f* pDst, Ozr32s dstStep, Ozr32s dstPlaneStep) {
    BitSource<Checked> in{st->bitBuffer, st->bitCount, st->pCur, st->pEnd, false};
    if (in.cnt > 64) in.cnt = 64;
    bool empty = in.bit() == 0;
    int emax = kEmptyEmax;
    Ozr64u planes[kPlanes] = {};
    int prec = 0;
    Ozr64s used = 1;
    if (!empty) {
        const int b = int(in.get(8));
        emax = b - 127;
        prec = precision(emax, st);
        Ozr64s budget = Ozr64s(st->maxBits) - kHeaderBits;
        budget = budget < 0 ? 0 : (budget > kMaxBlockBits ? kMaxBlockBits : budget);
        used = kHeaderBits + decodePlanes(in, int(budget), prec, planes);
    }
    if (!in.failed) {
        const Ozr64s pad = Ozr64s(st->minBits) - used;
        if (pad > 0) in.skip(pad);
    }
    if (in.failed) {  // everything was consumed; the destination is left alone
        st->pCur = st->pEnd;
        st->bitBuffer = 0;
        st->bitCount = 0;
        return ozrErrOutOfRange;
    }
    st->pCur = const_cast<Ozr8u*>(in.p);
    st->bitBuffer = in.buf;
    st->bitCount = in.cnt;

    Ozr8u* base = reinterpret_cast<Ozr8u*>(pDst);
    auto row = [&](int z, int y) {
        return reinterpret_cast<float*>(base + ptrdiff_t(z) * dstPlaneStep + ptrdiff_t(y) * dstStep);
    };
    if (empty) {
        for (int z = 0; z < 4; ++z)
            for (int y = 0; y < 4; ++y) _mm_storeu_ps(row(z, y), _mm_setzero_ps());
        return ozrOk;
    }

    // Bit planes -> 32-bit coded coefficients, 16 at a time: bytes 0..3 interleaved.
    alignas(16) Ozr32u c[64];
    __m128i bp[4][4];
    const int lowest = (kPlanes - prec) >> 3;  // byte planes below this one hold no bits
    for (int b = 0; b < 4; ++b) {
        if (b < lowest)
            for (int g = 0; g < 4; ++g) bp[b][g] = _mm_setzero_si128();
        else
            bytesOfPlanes(planes, b, bp[b]);
    }
    for (int g = 0; g < 4; ++g) {
        __m128i l0 = _mm_unpacklo_epi8(bp[0][g], bp[1][g]), h0 = _mm_unpacklo_epi8(bp[2][g], bp[3][g]);
        __m128i l1 = _mm_unpackhi_epi8(bp[0][g], bp[1][g]), h1 = _mm_unpackhi_epi8(bp[2][g], bp[3][g]);
        __m128i* d = reinterpret_cast<__m128i*>(c + 16 * g);
        _mm_store_si128(d + 0, _mm_unpacklo_epi16(l0, h0));
        _mm_store_si128(d + 1, _mm_unpackhi_epi16(l0, h0));
        _mm_store_si128(d + 2, _mm_unpacklo_epi16(l1, h1));
        _mm_store_si128(d + 3, _mm_unpackhi_epi16(l1, h1));
    }
    // Back to block order, out of negabinary, inverse transform.
    alignas(16) Ozr32u t[64];
    for (int j = 0; j < 64; ++j) t[j] = c[permTableDecode.v[j]];
    __m128i v[16];
    for (int i = 0; i < 16; ++i)
        v[i] = fromNegabinary(_mm_load_si128(reinterpret_cast<const __m128i*>(t + 4 * i)));
    inverseTransform(v);

    // To floats: exact conversion, then scale by 2^(emax - 30), the float of
    // exponent field b - 30. The encoder's scale stops at 2^127; its inverse 2^-127
    // (a subnormal, exponent field 0) is the floor here.
    const int field = emax + 97;
    const __m128 scale = field >= 1 ? powerOfTwo(field) : _mm_castsi128_ps(_mm_set1_epi32(0x00400000));
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 4; ++y)
            _mm_storeu_ps(row(z, y), _mm_mul_ps(_mm_cvtepi32_ps(v[4 * z + y]), scale));
    return ozrOk;
}

}  // namespace

extern "C" {

OzrResult m7_ozrsDecodeZfpGetStateSize_32f(Ozr32s* pSize) {
    return m7_ozrsEncodeZfpGetStateSize_32f(pSize);
}

OzrResult m7_ozrsDecodeZfpInit_32f(const Ozr8u* pSrc, Ozr32s srcLen, OzrsZfpState_32f* pState) {
    return m7_ozrsEncodeZfpInit_32f(const_cast<Ozr8u*>(pSrc), srcLen, pState);
}

OzrResult m7_ozrsDecodeZfpInitLong_32f(const Ozr8u* pSrc, Ozr64u srcLen, OzrsZfpState_32f* pState) {
    return m7_ozrsEncodeZfpInitLong_32f(const_cast<Ozr8u*>(pSrc), srcLen, pState);
}

OzrResult m7_ozrsDecodeZfpSet_32f(Ozr32s minBits, Ozr32s maxBits, Ozr32s maxPrec, Ozr32s minExp,
                                  OzrsZfpState_32f* pState) {
    return m7_ozrsEncodeZfpSet_32f(minBits, maxBits, maxPrec, minExp, pState);
}

OzrResult m7_ozrsDecodeZfpSetAccuracy_32f(OzrsZfpState_32f* pState, Ozr64f tolerance) {
    return m7_ozrsEncodeZfpSetAccuracy_32f(pState, tolerance);
}

OzrResult m7_ozrsDecodeZfpGetDecompressedSize_32f(const OzrsZfpState_32f* pState, Ozr32u* pSize) {
    return m7_ozrsEncodeZfpGetCompressedSize_32f(pState, pSize);
}

OzrResult m7_ozrsDecodeZfpGetDecompressedSizeLong_32f(const OzrsZfpState_32f* pState, Ozr64u* pSize) {
    return m7_ozrsEncodeZfpGetCompressedSizeLong_32f(pState, pSize);
}

OzrResult m7_ozrsDecodeZfp444_32f(OzrsZfpState_32f* pState, Ozr32f* pDst, Ozr32s dstStep,
                                  Ozr32s dstPlaneStep) {
    OZR_CHECK_NULL(pState, pDst);
    if (!initialised(pState)) return ozrErrBadParameter;
    const DefaultFloatModes modes;
    if (pState->pEnd - pState->pCur >= kFastBytes)
        return decodeBlock<false>(pState, pDst, dstStep, dstPlaneStep);
    return decodeBlock<true>(pState, pDst, dstStep, dstPlaneStep);
}

}  // extern "C"
