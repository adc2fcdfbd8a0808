// Copy of a run of bits between two byte buffers.
//
// Bits are numbered within a byte by value (bit k is the bit of value 2^k) and a run
// goes up from its first bit: bit k+1 of the same byte, then bit 0 of the next byte,
// the order of LSB-first bit streams such as Deflate. Each pointer addresses the byte
// that holds the run's first bit; only the bit offsets modulo 8 are used. Bits of the
// destination outside the run are left as they were.
#include "m7.h"

namespace {

// Writes the n bits `bits` (n <= 8, bits above n ignored) into byte d from bit `at`
// (at + n <= 8), keeping the other bits.
inline void putBits(Ozr8u* d, unsigned at, unsigned n, unsigned bits) {
    unsigned mask = ((1u << n) - 1) << at;
    *d = static_cast<Ozr8u>((*d & ~mask) | ((bits << at) & mask));
}

// Reads n bits (n <= 8) starting at bit `at` (0..7) of byte s; touches the next
// byte only when the bits reach into it.
inline unsigned getBits(const Ozr8u* s, unsigned at, unsigned n) {
    unsigned v = unsigned(s[0]) >> at;
    if (at + n > 8) v |= unsigned(s[1]) << (8 - at);
    return v & ((1u << n) - 1);
}

}  // namespace

extern "C" OzrResult m7_ozrsCopyBE_1u(const Ozr8u* pSrc, int srcBitOffset, Ozr8u* pDst, int dstBitOffset, int len) {
    OZR_CHECK_NULL(pSrc, pDst);
    if (len < 1 || srcBitOffset < 0 || dstBitOffset < 0) return ozrErrSize;
    const unsigned so = unsigned(srcBitOffset) & 7, dOff = unsigned(dstBitOffset) & 7;
    unsigned n = static_cast<unsigned>(len);

    if (so == dOff) {
        // Same phase: partial first byte, whole bytes, partial last byte.
        if (so + n <= 8) {
            putBits(pDst, so, n, unsigned(pSrc[0]) >> so);
            return ozrOk;
        }
        if (so != 0) {
            putBits(pDst, so, 8 - so, unsigned(pSrc[0]) >> so);
            n -= 8 - so;
            ++pSrc;
            ++pDst;
        }
        if (n >= 8) {
            m7_ozrsCopy_8u(pSrc, pDst, static_cast<int>(n / 8));
            pSrc += n / 8;
            pDst += n / 8;
        }
        if (n % 8) putBits(pDst, 0, n % 8, pSrc[0]);
        return ozrOk;
    }

    // Different phases: fill the destination a byte (or its partial first byte) at
    // a time from source bits gathered across at most two source bytes.
    unsigned sBit = so, dBit = dOff;
    while (n > 0) {
        unsigned k = 8 - dBit;
        if (k > n) k = n;
        putBits(pDst, dBit, k, getBits(pSrc, sBit, k));
        n -= k;
        sBit += k;
        pSrc += sBit >> 3;
        sBit &= 7;
        dBit += k;
        pDst += dBit >> 3;
        dBit &= 7;
    }
    return ozrOk;
}
