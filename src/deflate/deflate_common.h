// Pieces shared by the Deflate matchers, hash insertion and the Huffman coders: the
// RFC 1951 length and distance code tables (generated from their base/extra rule),
// the randVec hash, the caller-table layout and the unaligned loads.
#pragma once

#include "hash_rows.h"
#include "m7.h"
#include "unaligned.h"

namespace m7::deflate {

constexpr int kMinMatch = 4;        // neither matcher emits a 3-byte match
constexpr int kMaxMatch = 258;
constexpr int kLookahead = 261;     // a longest match plus the 3 bytes hashed beyond it
constexpr Ozr32s kEmpty = -32768;   // hash-table mark: no position
constexpr int kLitSyms = 286;
constexpr int kDistSyms = 30;


// ---- RFC 1951 length and distance codes ----------------------------------------
// Length code c (symbol 257 + c) covers lengths base .. base + 2^extra - 1; the bases
// follow from the extra-bit counts (0 x8, 1 x4, 2 x4, 3 x4, 4 x4, 5 x4), except that
// length 258 has a code of its own (28, no extra bits).
struct CodeTables {
    Ozr8u litExtra[29];    // extra bits per length code
    Ozr16u litBase[29];    // base of length - 3
    Ozr8u distExtra[30];   // extra bits per distance code
    Ozr16u distBase[30];   // base of distance - 1
    // [n] the length code of length n + 3; [256 + n] the distance code of distance
    // n + 1; [512 + n] (n >= 2) the code of distances 128n + 1 .. 128n + 128.
    Ozr8u litCode[768];
};

constexpr CodeTables makeCodeTables() {
    CodeTables t{};
    int base = 0;
    for (int c = 0; c < 28; ++c) {
        const int extra = c < 8 ? 0 : (c - 4) / 4;
        t.litExtra[c] = static_cast<Ozr8u>(extra);
        t.litBase[c] = static_cast<Ozr16u>(base);
        for (int k = 0; k < (1 << extra) && base + k < 255; ++k) t.litCode[base + k] = static_cast<Ozr8u>(c);
        base += 1 << extra;
    }
    t.litExtra[28] = 0;
    t.litBase[28] = 255;
    t.litCode[255] = 28;
    // Distance code k: extra bits max(0, k/2 - 1), bases 1, 2, 3, 4, 5, 7, 9, ...
    int dbase = 0;
    for (int k = 0; k < 30; ++k) {
        const int extra = k < 2 ? 0 : k / 2 - 1;
        t.distExtra[k] = static_cast<Ozr8u>(extra);
        t.distBase[k] = static_cast<Ozr16u>(dbase);
        for (int e = dbase; e < dbase + (1 << extra); ++e) {
            if (e < 256) t.litCode[256 + e] = static_cast<Ozr8u>(k);
            else t.litCode[512 + (e >> 7)] = static_cast<Ozr8u>(k);
        }
        dbase += 1 << extra;
    }
    return t;
}

inline constexpr CodeTables kCodes = makeCodeTables();
static_assert(kCodes.litCode[0] == 0 && kCodes.litCode[7] == 7 && kCodes.litCode[8] == 8 &&
              kCodes.litCode[254] == 27 && kCodes.litCode[255] == 28);
static_assert(kCodes.litBase[27] == 224 && kCodes.distBase[29] == 24576);
static_assert(kCodes.litCode[256 + 255] == 15 && kCodes.litCode[512 + 2] == 16 && kCodes.litCode[512 + 255] == 29);

inline int lenCode(int lenMinus3) { return kCodes.litCode[lenMinus3]; }
inline int distCode(int distMinus1) {
    return distMinus1 < 256 ? kCodes.litCode[256 + distMinus1] : kCodes.litCode[512 + (distMinus1 >> 7)];
}

// ---- The randVec hash ------------------------------------------------------------
// Four sub-tables of 256 15-bit values: h = T0[b0] ^ T1[b1] ^ T2[b2] ^ T3[b3]. The
// values are fixed hash rows (top 15 bits of a SplitMix64 sequence from a fixed
// seed); any fixed 15-bit set gives valid output, the values only decide which
// matches the chains reach.
inline constexpr auto randVec = m7::makeHashRows<Ozr16u, 4, 15>(0x6F7A7264636465ull);

// Four byte loads rather than one word taken apart: no shifts on the way to the
// table loads, which is what the matchers wait on.
__attribute__((always_inline)) inline Ozr32u hash4(const Ozr8u* p) {
    return randVec.v[p[0]] ^ randVec.v[256 + p[1]] ^ randVec.v[512 + p[2]] ^ randVec.v[768 + p[3]];
}

// Deflate's LSB-first bit stream through a 64-bit buffer: codes go in above the
// pending bits, whole bytes go out with one blind 8-byte store (8 bytes of room) or
// byte by byte at the end of the room.
struct BitWriter {
    Ozr64u buf;
    Ozr32u n;  // valid bits in buf, below 64 - 48 before each entry
    Ozr8u* out;

    void put(Ozr32u bits, Ozr32u len) {
        buf |= static_cast<Ozr64u>(bits) << n;
        n += len;
    }
    void put64(Ozr64u bits, Ozr32u len) {  // bits: no more than len significant
        buf |= bits << n;
        n += len;
    }
    void flushBlind() {  // n <= 7 + 48: the shift stays below 64; 8 bytes of room
        store64(out, buf);
        out += n >> 3;
        buf >>= n & ~7u;
        n &= 7;
    }
    void flushBytes() {
        while (n >= 8) {
            *out++ = static_cast<Ozr8u>(buf);
            buf >>= 8;
            n -= 8;
        }
    }
};

inline bool winSizeOk(Ozr32u w) { return w >= 256 && w <= 32768; }
inline bool hashSizeOk(Ozr32u h) { return h >= 256 && h <= 65536; }

// The bytes behind the matchers: position q is src[q - start] when q >= start (this
// call's source), else window[q - start + wsize] (the winSize bytes before it).
struct History {
    const Ozr8u* src;
    const Ozr8u* win;
    long start;
    long wsize;

    const Ozr8u* at(long q) const { return src + (q - start); }

    // Common length of the bytes at p (source) and at candidate q < p, at most maxLen;
    // a candidate in the window may run on into the source.
    __attribute__((always_inline)) int length(long p, long q, int maxLen) const {
        if (q >= start) return commonLength(at(p), at(q), maxLen);
        const long inWin = start - q;
        const int first = inWin < maxLen ? static_cast<int>(inWin) : maxLen;
        int n = commonLength(at(p), win + (q - start + wsize), first);
        if (n == first && n < maxLen) n += commonLength(at(p) + n, src, maxLen - n);
        return n;
    }
};

}  // namespace m7::deflate
