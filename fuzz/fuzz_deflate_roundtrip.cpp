// Deflate encoder round trip: arbitrary data compressed by the chained matchers
// (level 0..29) or by the fastest mode, fed in pieces with small entry and output
// buffers, must come back from zlib's inflate and from our Inflate. Byte 0 picks the
// level (30 and up: the fastest mode), byte 1 seeds the piece sizes (and whether the
// chained matchers' window is a copy or the bytes in front of the source), byte 2 the
// window size; the rest is the data, at the end of a guarded buffer.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "../tests/inflate_driver.h"
#include "guarded.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Rng {
    uint32_t s;
    uint32_t next(uint32_t n) {  // 0..n-1
        s = s * 1664525u + 1013904223u;
        return (s >> 8) % n;
    }
};

struct Bits {
    Bytes out;
    Ozr16u code = 0;
    Ozr32u bits = 0;
    void put(uint32_t v, int n) {
        uint32_t acc = code | (v << bits);
        bits += static_cast<Ozr32u>(n);
        while (bits >= 8) { out.push_back(static_cast<uint8_t>(acc)); acc >>= 8; bits -= 8; }
        code = static_cast<Ozr16u>(acc);
    }
    void header(const OzrDeflateHuffCode* lc, const OzrDeflateHuffCode* dc, bool final) {
        uint8_t h[320];
        Ozr32u hb = 0, idx = 0;
        if (ozrsDeflateLZ77FastestGenHeader_8u(lc, dc, h, sizeof h, &hb) != ozrOk) std::abort();
        uint8_t placed[330];
        if (ozrsDeflateLZ77FastestPrecompHeader_8u(h, hb, placed, sizeof placed, &idx, &code, &bits, final) != ozrOk) std::abort();
        out.insert(out.end(), placed, placed + idx);
    }
};

void window(const uint8_t* all, size_t at, Ozr32u w, Bytes& win) {
    for (size_t i = 0; i < w; ++i) win[i] = at + i >= w ? all[at + i - w] : 0;
}

Bytes chained(const uint8_t* d, size_t n, int level, Ozr32u w, Rng& rng) {
    std::vector<Ozr32s> head(1u << (8 + rng.next(9)), -32768), prev(w, -32768);
    const Ozr32u hashSize = static_cast<Ozr32u>(head.size());
    Bytes win(w);
    const Ozr32u cap = 1 + rng.next(3000);
    // Joined: once w bytes lie before the source, the window is those bytes themselves
    // (the matchers then read window and source as one range) instead of a copy.
    const bool joined = rng.next(2);
    Bytes lit(cap);
    std::vector<Ozr16u> dist(cap);
    Bits s;
    size_t at = 0, avail = 0;
    Ozr32u idx = 0;
    bool last = false;
    while (!last) {
        OzrDeflateFreqTable lf[286] = {}, df[30] = {};
        Ozr32u room = cap;
        for (;;) {
            if (avail < n && rng.next(2)) avail = std::min(n, avail + 1 + rng.next(20000));
            const int flush = avail == n ? 2 : 0;
            window(d, at, w, win);
            const Ozr8u* src = d + at;
            const Ozr8u* winp = joined && at >= w ? d + at - w : win.data();
            Ozr32u len = static_cast<Ozr32u>(avail - at);
            if (ozrsDeflateLZ77_8u(&src, &len, &idx, winp, w, head.data(), prev.data(), hashSize, lf, df,
                                   lit.data() + (cap - room), dist.data() + (cap - room), &room, level, flush) != ozrOk)
                std::abort();
            at = static_cast<size_t>(src - d);
            if (flush == 2 && at == n) { last = true; break; }
            if (room < 2) break;
        }
        Ozr32u ls[286], ds[30];
        for (int i = 0; i < 286; ++i) ls[i] = lf[i].freq;
        for (int i = 0; i < 30; ++i) ds[i] = df[i].freq;
        OzrDeflateHuffCode lc[286], dc[30];
        if (ozrsDeflateLZ77FastestGenHuffTable_8u(ls, ds, lc, dc, 2) != ozrOk) std::abort();
        s.header(lc, dc, last);
        const Ozr32u used = cap - room;
        // The coder in two calls at a random split.
        const Ozr32u cut = used ? rng.next(used + 1) : 0;
        for (int part = 0; part < 2; ++part) {
            const Ozr32u from = part ? cut : 0, cnt = part ? used - cut : cut;
            Ozr32u o = static_cast<Ozr32u>(s.out.size());
            s.out.resize(s.out.size() + 6ull * cnt + 2);
            if (ozrsDeflateHuff_8u(lit.data() + from, dist.data() + from, cnt, &s.code, &s.bits, lc, dc, s.out.data(), &o) != ozrOk)
                std::abort();
            s.out.resize(o);
        }
        s.put(lc[256].code, lc[256].len);
    }
    if (s.bits) s.out.push_back(static_cast<uint8_t>(s.code));
    return s.out;
}

Bytes fastest(const uint8_t* d, size_t n, Ozr32u w, Rng& rng) {
    std::vector<Ozr32s> head(1u << (8 + rng.next(9)), -32768);
    const Ozr32u hashSize = static_cast<Ozr32u>(head.size());
    Bytes win(w);
    // Flat: the window is the w bytes before the source in one buffer (zeros, then
    // the data, its end against the guard page), the coder's word-compare loop.
    const bool flat = rng.next(2) == 0;
    GuardedBuffer joined(w + n);
    std::fill(joined.data(), joined.data() + w, 0);
    std::copy(d, d + n, joined.data() + w);
    Bits s;
    size_t at = 0;
    Ozr32u idx = 0;
    const size_t block = 1 + rng.next(70000);
    do {
        const size_t end = std::min(n, at + block);
        Ozr32u ls[286] = {}, ds[30] = {};
        OzrDeflateHuffCode lc[286], dc[30];
        const bool fixed = rng.next(4) == 0;
        if (end > at && !fixed) ozrsDeflateLZ77FastestGetStat_8u(d + at, static_cast<Ozr32s>(std::min<size_t>(end - at, 4096)), ls, ds);
        if (ozrsDeflateLZ77FastestGenHuffTable_8u(ls, ds, lc, dc, fixed ? 1 : 0) != ozrOk) std::abort();
        if (fixed) s.put(end == n ? 3 : 2, 3);
        else s.header(lc, dc, end == n);
        size_t avail = at;
        for (;;) {
            avail = std::min(end, avail + 1 + rng.next(30000));
            const int flush = avail == end ? 3 : static_cast<int>(rng.next(2));
            for (;;) {
                window(d, at, w, win);
                static const Ozr8u none = 0;
                const Ozr8u* src = at < n ? d + at : &none;
                if (flat) src = joined.data() + w + at;
                Ozr32u len = static_cast<Ozr32u>(avail - at);
                const Ozr32u roomLen = 1 + rng.next(5000);
                GuardedBuffer out(roomLen);
                Ozr32u o = 0;
                const OzrResult st = ozrsDeflateLZ77Fastest_8u(&src, &len, &idx, flat ? src - w : win.data(), w, head.data(), hashSize,
                                                               out.data(), roomLen, &o, &s.code, &s.bits, lc, dc, nullptr, nullptr, flush);
                if (st != ozrOk && st != ozrWarnDstSizeLess) std::abort();
                s.out.insert(s.out.end(), out.data(), out.data() + o);
                at = avail - len;
                if (st == ozrOk) break;
            }
            if (avail == end) break;
        }
        at = end;
    } while (at < n);
    if (s.bits) s.out.push_back(static_cast<uint8_t>(s.code));
    return s.out;
}

void expectZlibGives(const Bytes& stream, const uint8_t* d, size_t n) {
    z_stream z{};
    if (inflateInit2(&z, -15) != Z_OK) std::abort();
    Bytes out(n + 1);
    z.next_in = const_cast<uint8_t*>(stream.data());
    z.avail_in = static_cast<uInt>(stream.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    const int st = inflate(&z, Z_FINISH);
    const size_t got = out.size() - z.avail_out;
    inflateEnd(&z);
    if (st != Z_STREAM_END || got != n || (n && std::memcmp(out.data(), d, n) != 0)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const int mode = data[0] % 32;
    Rng rng{data[1] * 2654435761u + 1};
    const Ozr32u w = 256u << (data[2] % 8);
    GuardedBuffer in(data + 3, size - 3);
    const size_t n = in.size();
    const Bytes stream = mode >= 30 ? fastest(in.data(), n, w, rng) : chained(in.data(), n, mode, w, rng);
    expectZlibGives(stream, in.data(), n);
    inflate_driver::Options o;
    o.inPiece = 1 + rng.next(64);
    const inflate_driver::Result ours = inflate_driver::inflateRaw(stream, o);
    if (ours.error != inflate_driver::Error::None || ours.out.size() != n ||
        (n && std::memcmp(ours.out.data(), in.data(), n) != 0))
        std::abort();
    return 0;
}
