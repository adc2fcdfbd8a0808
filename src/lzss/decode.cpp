// LZSS decoder: tokens from input pieces of any size into output pieces of any size.
//
// Bits are read a byte at a time into a buffer that each token start tops up to more
// than 24 bits (as many whole bytes as fit 32 bits), so a call's consumed count
// depends only on where it stopped; the bits read but not decoded stay in the
// record. A call ends
//   - with ozrOk when the bits held (the input being used up) do not form a token;
//   - with ozrWarnDstSizeLess when the output is full and a token is waiting, or
//     inside a match: the rest of the match (pendLen bytes at pendDist) is written
//     first by the next call.
// Matches reach into this call's output and, behind it, into the record's window of
// the last 32768 bytes of earlier output; the window is slid at the end of every call.
//
// A fast loop runs while 4 input bytes and kFastRoom output bytes are left: a 4-byte
// load tops up the buffer, no token can meet the end of either buffer, and match
// copies may write up to 31 bytes past their end. The careful loop takes the rest.
// Both loops read exactly the same bytes, so they give the same counts and state.
#include "lzss_common.h"

namespace m7::lzss {
namespace {

constexpr size_t kFastRoom = kMaxMatch + 32;

// Front-to-back copy of n bytes from dist bytes behind d, as a byte loop would do it
// (a distance below n repeats the last dist bytes). dist 0 (malformed) writes zeros.
// Exact: writes d[0, n) only.
inline void copyExact(Ozr8u* d, size_t dist, size_t n) {
    if (dist == 0) {
        for (size_t k = 0; k < n; ++k) d[k] = 0;
        return;
    }
    const Ozr8u* s = d - dist;
    size_t k = 0;
    if (dist >= 8)
        for (; k + 8 <= n; k += 8) store64(d + k, load64(s + k));
    for (; k < n; ++k) d[k] = s[k];
}

// The same, writing up to 31 bytes past d + n; 1 <= dist and the source lies in
// memory the output already holds.
inline void copyWild(Ozr8u* d, size_t dist, size_t n) {
    const Ozr8u* s = d - dist;
    if (dist >= 16) {
        for (size_t k = 0; k < n; k += 16) copy16(d + k, s + k);
        return;
    }
    if (dist == 1) {
        const __m128i v = _mm_set1_epi8(static_cast<char>(*s));
        for (size_t k = 0; k < n; k += 16) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + k), v);
        return;
    }
    // A period below 16: lay down the first `step` bytes (the smallest multiple of
    // dist that is 16 or more) one at a time, then copy 16 bytes at a time from
    // `step` bytes back, which only reads bytes already written.
    const size_t step = (16 + dist - 1) / dist * dist;
    size_t k = 0;
    for (; k < step; ++k) d[k] = s[k];
    for (; k < n; k += 16) copy16(d + k, d + k - step);
}

struct Decoder {
    const Ozr8u* ip;
    const Ozr8u* iend;
    Ozr8u* const out0;  // this call's first output byte
    Ozr8u* op;
    Ozr8u* const oend;
    const Ozr8u* const window;  // the last kHistory bytes before out0
    Ozr64u bits;                // top-aligned; bits below `count` may hold the next input bits
    unsigned count;

    // Copies n bytes of a match at dist, reaching into the window when the match
    // starts before this call's output. With 32 bytes of room to spare the copies
    // go 16 bytes at a time (the window's reads stay inside the record).
    void copyMatch(size_t dist, size_t n) {
        const bool roomy = size_t(oend - op) >= n + 32;
        const size_t produced = size_t(op - out0);
        if (dist > produced) {
            const size_t back = dist - produced;  // <= 32767: inside the window
            const size_t fromWindow = back < n ? back : n;
            const Ozr8u* s = window + kHistory - back;
            size_t k = 0;
            if (roomy) {
                for (; k < fromWindow; k += 16) copy16(op + k, s + k);
            } else {
                for (; k + 8 <= fromWindow; k += 8) store64(op + k, load64(s + k));
                for (; k < fromWindow; ++k) op[k] = s[k];
            }
            op += fromWindow;
            n -= fromWindow;
        }
        if (roomy && dist != 0 && n != 0) copyWild(op, dist, n);
        else copyExact(op, dist, n);
        op += n;
    }

    void refillByte() {
        while (count <= 24 && ip < iend) {
            bits |= Ozr64u(*ip++) << (56 - count);
            count += 8;
        }
    }
};

OzrResult decode(Decoder& z, OzrLZSSDecoderState& s) {
    // A match cut off by the last call's full output.
    if (s.pendLen != 0) {
        const size_t room = size_t(z.oend - z.op);
        const size_t n = s.pendLen < room ? s.pendLen : room;
        z.copyMatch(s.pendDist, n);
        s.pendLen -= Ozr32u(n);
        if (s.pendLen != 0) return ozrWarnDstSizeLess;
    }

    // Fast loop: a whole token is always at hand and always fits.
    while (z.iend - z.ip >= 4 && size_t(z.oend - z.op) >= kFastRoom) {
        // Top up with as many whole bytes as fit 32 bits; the rest of the 4-byte word
        // lands below `count`, where the next top-up writes the same bits again.
        z.bits |= Ozr64u(__builtin_bswap32(load32(z.ip))) << (32 - z.count);
        const unsigned take = (32 - z.count) >> 3;
        z.ip += take;
        z.count += take << 3;
        if (z.bits >> 63) {
            *z.op++ = Ozr8u(z.bits >> 55);
            z.bits <<= kLiteralBits;
            z.count -= kLiteralBits;
        } else {
            const Ozr32u t = Ozr32u(z.bits >> 40);
            const size_t dist = (t >> 8) & kMaxDistance;
            const size_t len = (t & 0xFF) + kMinMatch;
            z.bits <<= kMatchBits;
            z.count -= kMatchBits;
            if (dist != 0 && dist <= size_t(z.op - z.out0)) {
                copyWild(z.op, dist, len);
                z.op += len;
            } else {
                z.copyMatch(dist, len);
            }
        }
    }

    // Careful loop.
    for (;;) {
        z.refillByte();
        const bool literal = (z.bits >> 63) != 0;
        if (z.count < (literal ? kLiteralBits : kMatchBits)) return ozrOk;
        if (z.op == z.oend) return ozrWarnDstSizeLess;
        if (literal) {
            *z.op++ = Ozr8u(z.bits >> 55);
            z.bits <<= kLiteralBits;
            z.count -= kLiteralBits;
            continue;
        }
        const Ozr32u t = Ozr32u(z.bits >> 40);
        const size_t dist = (t >> 8) & kMaxDistance;
        const size_t len = (t & 0xFF) + kMinMatch;
        z.bits <<= kMatchBits;
        z.count -= kMatchBits;
        const size_t room = size_t(z.oend - z.op);
        if (len > room) {
            z.copyMatch(dist, room);
            s.pendDist = Ozr32u(dist);
            s.pendLen = Ozr32u(len - room);
            return ozrWarnDstSizeLess;
        }
        z.copyMatch(dist, len);
    }
}

}  // namespace
}  // namespace m7::lzss

using namespace m7::lzss;

extern "C" {

OzrResult m7_ozrsDecodeLZSSInit_8u(OzrLZSSState* pLZSSState) {
    OZR_CHECK_NULL(pLZSSState);
    OzrLZSSDecoderState& s = pLZSSState->u.dec;
    s.reserved[0] = s.reserved[1] = s.reserved[2] = 0;
    s.pWindow = s.window;
    s.bitCount = 0;
    s.bitBuf = 0;
    s.pendDist = 0;
    s.pendLen = 0;
    return ozrOk;
}

OzrResult m7_ozrsDecodeLZSS_8u(Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                               OzrLZSSState* pLZSSState) {
    OZR_CHECK_NULL(ppSrc, pSrcLen, ppDst, pDstLen, pLZSSState);
    OZR_CHECK_NULL(*ppSrc, *ppDst);
    OZR_CHECK_POSITIVE(*pDstLen);
    if (*pSrcLen < 0) return ozrErrSize;

    OzrLZSSDecoderState& s = pLZSSState->u.dec;
    s.pWindow = s.window;  // the record may have been moved
    // A record from elsewhere cannot push the decoder out of bounds.
    const unsigned count = s.bitCount < 0 ? 0 : s.bitCount > 32 ? 32 : unsigned(s.bitCount);
    if (s.pendLen > kMaxMatch) s.pendLen = kMaxMatch;
    s.pendDist &= kMaxDistance;
    const Ozr32u held = count == 0 ? 0 : s.bitBuf & (~Ozr32u{0} << (32 - count));
    Decoder z{*ppSrc, *ppSrc + *pSrcLen, *ppDst, *ppDst, *ppDst + *pDstLen, s.window, Ozr64u(held) << 32, count};
    const OzrResult st = decode(z, s);

    // Slide: the window becomes the last kHistory bytes of window and output joined.
    const size_t produced = size_t(z.op - z.out0);
    if (produced >= kHistory) {
        m7_ownsCopy_8u(z.op - kHistory, s.window, kHistory);
    } else if (produced > 0) {
        m7_ownsMove_8u_M7(s.window + produced, s.window, kHistory - produced);
        m7_ownsCopy_8u(z.out0, s.window + kHistory - produced, produced);
    }
    s.bitCount = Ozr32s(z.count);
    s.bitBuf = z.count == 0 ? 0 : Ozr32u(z.bits >> 32) & (~Ozr32u{0} << (32 - z.count));
    *pSrcLen -= int(z.ip - *ppSrc);
    *ppSrc = const_cast<Ozr8u*>(z.ip);
    *pDstLen -= int(produced);
    *ppDst = z.op;
    return st;
}

}  // extern "C"
