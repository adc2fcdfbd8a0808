// LZO1X decoding: one stream core, instantiated unchecked (trusted input, the caller
// guarantees the output room) and checked (every read against the input end, every
// write against the output room, every match against the output start).
//
// The stream is a sequence of instructions whose first byte t selects the form. How
// a byte below 16 reads depends on what came before it, so the decoder is a small
// state machine over three positions:
//   literal position  (after a match with no trailing literals, or at a stream start
//                      whose first byte is <= 17): 0 -> long literal run
//                      18 + 255 * zero bytes + next byte; 1..15 -> t + 3 literals;
//   after a long run  (4 or more literals): 0..15 -> short far match, length 3,
//                      distance 2049 + (t >> 2) + 4 * next;
//   after 1..3 literals (trailing a match, or a short first run):
//                      0..15 -> short match, length 2, distance 1 + (t >> 2) + 4 * next.
// Bytes >= 16 are matches everywhere: 64..255 M2, 32..63 M3, 16..31 M4. The low two
// bits of the byte two before the end of a match instruction count the literals (0..3)
// that follow it. A stream's first byte above 17 is a literal run of t - 17 bytes. An
// M4 whose distance field is zero (17, 0, 0) ends the stream; a byte after it starts
// a new stream into the same output.
#include <emmintrin.h>

#include "m7.h"
#include "unaligned.h"

namespace m7 {
namespace {

inline __m128i load16(const Ozr8u* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(Ozr8u* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
inline size_t le16(const Ozr8u* p) { return size_t(p[0]) | size_t(p[1]) << 8; }

// Copies exactly n bytes between non-overlapping ranges, touching nothing outside
// them: overlapping head and tail moves instead of a byte loop.
inline void copyExact(Ozr8u* d, const Ozr8u* s, size_t n) {
    if (n >= 16) {
        __m128i tail = load16(s + n - 16);
        for (size_t i = 0; i + 16 < n; i += 16) store16(d + i, load16(s + i));
        store16(d + n - 16, tail);
    } else if (n >= 8) {
        Ozr64u a = load64(s), b = load64(s + n - 8);
        store64(d, a);
        store64(d + n - 8, b);
    } else if (n >= 4) {
        Ozr32u a = load32(s), b = load32(s + n - 4);
        store32(d, a);
        store32(d + n - 4, b);
    } else {
        for (size_t i = 0; i < n; ++i) d[i] = s[i];
    }
}

// Copies n bytes in whole 16-byte moves: may read up to 15 bytes past s + n and write
// up to 15 bytes past d + n, which the caller has checked are inside the buffers.
inline void copyWild(Ozr8u* d, const Ozr8u* s, size_t n) {
    Ozr8u* const e = d + n;
    do {
        store16(d, load16(s));
        d += 16;
        s += 16;
    } while (d < e);
}

// A match: n bytes from `dist` back. With dist >= 16 every 16-byte move reads bytes
// written before it, so block moves give the same result as the byte-by-byte copy of
// the format; the final move ends exactly at the last byte. Shorter distances that
// overlap the destination are copied byte by byte (8 bytes at a time from dist 8).
template <bool Wild>
inline void copyMatch(Ozr8u* op, size_t dist, size_t n) {
    const Ozr8u* s = op - dist;
    if (dist >= 16) {
        if constexpr (Wild) {
            // The destination room covers n + 15; the reads stay below op + n - dist + 16
            // <= op + n, inside what is being written.
            Ozr8u* const e = op + n;
            do {
                store16(op, load16(s));
                op += 16;
                s += 16;
            } while (op < e);
            return;
        }
        if (n >= 16) {
            size_t i = 0;
            for (; i + 16 < n; i += 16) store16(op + i, load16(s + i));
            store16(op + n - 16, load16(s + n - 16));
            return;
        }
        copyExact(op, s, n);
        return;
    }
    if (dist >= n) {
        copyExact(op, s, n);
        return;
    }
    if (dist >= 8) {
        size_t i = 0;
        for (; i + 8 < n; i += 8) store64(op + i, load64(s + i));
        store64(op + n - 8, load64(s + n - 8));
        return;
    }
    for (size_t i = 0; i < n; ++i) op[i] = s[i];
}

// Decodes the stream(s) in [src, src + srcLen) into dst. Checked: cap is the output
// room and the result is ozrOk or ozrErrLZOBroken; unchecked: cap is ignored.
// *pOut receives the bytes written on ozrOk.
template <bool Checked>
inline OzrResult decodeStream(const Ozr8u* const src, size_t srcLen, Ozr8u* const dst, size_t cap, size_t* pOut) {
    const Ozr8u* ip = src;
    const Ozr8u* const ipEnd = src + srcLen;
    Ozr8u* op = dst;
    Ozr8u* const opEnd = Checked ? dst + cap : nullptr;
    size_t t, len, dist;

    // Checked builds test the input and output room before each read and write.
#define LZO_NEED_IN(n) \
    do { if constexpr (Checked) { if (size_t(ipEnd - ip) < size_t(n)) goto broken; } } while (0)
#define LZO_NEED_OUT(n) \
    do { if constexpr (Checked) { if (size_t(opEnd - op) < size_t(n)) goto broken; } } while (0)
    // Length extension: a run of zero bytes, each worth 255, closed by a nonzero byte.
#define LZO_EXTEND(base)                              \
    do {                                              \
        size_t ext_ = (base);                         \
        for (;;) {                                    \
            LZO_NEED_IN(1);                           \
            size_t b_ = *ip++;                        \
            if (b_ != 0) { ext_ += b_; break; }       \
            ext_ += 255;                              \
        }                                             \
        t = ext_;                                     \
    } while (0)
    // Copies t literals, in 16-byte moves where both buffers have room for them.
#define LZO_LITERALS()                                                                  \
    do {                                                                                \
        LZO_NEED_IN(t);                                                                 \
        LZO_NEED_OUT(t);                                                                \
        if (Checked && size_t(opEnd - op) >= t + 16 && size_t(ipEnd - ip) >= t + 16)    \
            copyWild(op, ip, t);                                                        \
        else                                                                            \
            copyExact(op, ip, t);                                                       \
        op += t;                                                                        \
        ip += t;                                                                        \
    } while (0)

stream_start:
    if (ip == ipEnd) goto done;
    if (*ip > 17) {
        t = size_t(*ip++) - 17;
        LZO_LITERALS();
        if (t < 4) goto after_short_run;
        goto after_long_run;
    }

literal_position:
    if (ip == ipEnd) goto done;
    t = *ip++;
    if (t >= 16) goto match;
    if (t == 0) LZO_EXTEND(15);
    t += 3;
    LZO_LITERALS();

after_long_run:
    if (ip == ipEnd) goto done;
    t = *ip++;
    if (t >= 16) goto match;
    LZO_NEED_IN(1);
    dist = 2049 + (t >> 2) + (size_t(*ip++) << 2);
    len = 3;
    goto copy_match;

after_short_run:
    if (ip == ipEnd) goto done;
    t = *ip++;
    if (t >= 16) goto match;
    LZO_NEED_IN(1);
    dist = 1 + (t >> 2) + (size_t(*ip++) << 2);
    len = 2;
    goto copy_match;

match:
    if (t >= 64) {
        LZO_NEED_IN(1);
        dist = 1 + ((t >> 2) & 7) + (size_t(*ip++) << 3);
        len = (t >> 5) + 1;
    } else if (t >= 32) {
        len = t & 31;
        if (len == 0) {
            LZO_EXTEND(31);
            len = t;
        }
        len += 2;
        LZO_NEED_IN(2);
        dist = 1 + (le16(ip) >> 2);
        ip += 2;
    } else {
        size_t far = (t & 8) << 11;
        len = t & 7;
        if (len == 0) {
            LZO_EXTEND(7);
            len = t;
        }
        len += 2;
        LZO_NEED_IN(2);
        dist = far + (le16(ip) >> 2);
        ip += 2;
        if (dist == 0) goto stream_start;  // end marker
        dist += 16384;
    }

copy_match:
    if constexpr (Checked) {
        if (dist > size_t(op - dst)) goto broken;
        LZO_NEED_OUT(len);
        if (size_t(opEnd - op) >= len + 16)
            copyMatch<true>(op, dist, len);
        else
            copyMatch<false>(op, dist, len);
    } else {
        copyMatch<false>(op, dist, len);
    }
    op += len;
    t = ip[-2] & 3;
    if (t == 0) goto literal_position;
    LZO_NEED_IN(t);
    LZO_NEED_OUT(t);
    if (Checked && size_t(ipEnd - ip) >= 4 && size_t(opEnd - op) >= 4) {
        store32(op, load32(ip));
    } else {
        op[0] = ip[0];
        if (t > 1) op[1] = ip[1];
        if (t > 2) op[2] = ip[2];
    }
    op += t;
    ip += t;
    goto after_short_run;

#undef LZO_NEED_IN
#undef LZO_NEED_OUT
#undef LZO_EXTEND
#undef LZO_LITERALS

done:
    *pOut = size_t(op - dst);
    return ozrOk;
broken:  // reached only from the checks of the checked instance
    __attribute__((unused));
    return ozrErrLZOBroken;
}

inline Ozr32u le32(const Ozr8u* p) {
    return Ozr32u(p[0]) | Ozr32u(p[1]) << 8 | Ozr32u(p[2]) << 16 | Ozr32u(p[3]) << 24;
}

// The multi-part container: 0x55, n (1..32), n ^ 0x55, total size, the sizes of parts
// 0..n-2, then the parts. It is recognised when the first part, as its size says,
// lies inside the input and ends with an end marker.
inline bool isContainer(const Ozr8u* src, size_t srcLen) {
    if (srcLen < 4 || src[0] != 0x55) return false;
    size_t n = src[1];
    if (n < 1 || n > 32 || src[2] != (src[1] ^ 0x55)) return false;
    size_t head = 3 + 4 * n;
    if (srcLen < head) return false;
    size_t first = n == 1 ? srcLen - head : le32(src + 7);
    if (first + 7 > srcLen || first < 3 || head + first > srcLen) return false;
    const Ozr8u* e = src + head + first;
    return e[-3] == 17 && e[-2] == 0 && e[-1] == 0;
}

template <bool Checked>
inline OzrResult decodeContainer(const Ozr8u* src, size_t srcLen, Ozr8u* dst, size_t cap, Ozr32u* pDstLen) {
    const size_t n = src[1];
    const size_t total = le32(src + 3);
    const size_t slice = total / n;
    size_t pos = 3 + 4 * n;
    size_t written = 0;
    OzrResult status = ozrOk;
    for (size_t i = 0; i < n; ++i) {
        const bool last = i + 1 == n;
        size_t partLen = last ? srcLen - pos : le32(src + 7 + 4 * i);
        size_t at = i * slice;
        size_t room = last ? slice + total % n : slice;
        OzrResult st = ozrOk;
        size_t got = 0;
        if constexpr (Checked) {
            room = at >= cap ? 0 : (room < cap - at ? room : cap - at);
            if (pos > srcLen || partLen > srcLen - pos) {
                st = ozrErrLZOBroken;
                partLen = 0;
            }
        }
        if (st == ozrOk) st = decodeStream<Checked>(src + pos, partLen, dst + at, room, &got);
        if (st == ozrOk)
            written += got;
        else
            status = st;
        pos += partLen;
    }
    *pDstLen = Ozr32u(written);
    return status;
}

template <bool Checked>
inline OzrResult decodeEntry(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen) {
    const size_t cap = Checked ? *pDstLen : 0;
    if (isContainer(pSrc, srcLen)) return decodeContainer<Checked>(pSrc, srcLen, pDst, cap, pDstLen);
    size_t got = 0;
    OzrResult st = decodeStream<Checked>(pSrc, srcLen, pDst, cap, &got);
    if (st == ozrOk) *pDstLen = Ozr32u(got);
    return st;
}

}  // namespace
}  // namespace m7

extern "C" {

// The checked decoder of one plain stream (no container recognition).
OzrResult m7_ownDecodeLZO1XSafe(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen) {
    size_t got = 0;
    OzrResult st = m7::decodeStream<true>(pSrc, srcLen, pDst, *pDstLen, &got);
    if (st == ozrOk) *pDstLen = Ozr32u(got);
    return st;
}

OzrResult m7_ozrsDecodeLZO_8u(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen) {
    OZR_CHECK_NULL(pSrc, pDst, pDstLen);
    if (srcLen == 0) {
        *pDstLen = 0;
        return ozrOk;
    }
    return m7::decodeEntry<false>(pSrc, srcLen, pDst, pDstLen);
}

OzrResult m7_ozrsDecodeLZOSafe_8u(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen) {
    OZR_CHECK_NULL(pSrc, pDst, pDstLen);
    if (srcLen == 0) {
        *pDstLen = 0;
        return ozrOk;
    }
    if (srcLen == 3 && pSrc[0] == 17 && pSrc[1] == 0 && pSrc[2] == 0) {  // a lone end marker
        *pDstLen = 0;
        return ozrOk;
    }
    return m7::decodeEntry<true>(pSrc, srcLen, pDst, pDstLen);
}

}  // extern "C"
