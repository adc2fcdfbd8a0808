// Inflate: zlib's and libdeflate's raw Deflate streams through the stream driver and
// the library's block decoder, whole and in every small split; the table builder's
// acceptance rule and layouts; the decoder's resume points, statuses and hand-back of
// unused input; hostile input against guard pages.
#include <gtest/gtest.h>

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../fuzz/guarded.h"
#include "inflate_driver.h"
#include "m7.h"
#include "test_data.h"

namespace {

using inflate_driver::Error;
using inflate_driver::Options;
using inflate_driver::inflateRaw;

// Raw Deflate from zlib with the given level, strategy and, when syncEvery > 0, a
// Z_SYNC_FLUSH after every syncEvery input bytes.
Bytes zlibDeflate(const Bytes& in, int level, int strategy = Z_DEFAULT_STRATEGY, size_t syncEvery = 0) {
    z_stream z{};
    EXPECT_EQ(deflateInit2(&z, level, Z_DEFLATED, -15, 8, strategy), Z_OK);
    Bytes out(deflateBound(&z, in.size()) + 64 + (syncEvery ? in.size() / syncEvery * 8 : 0));
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    size_t pos = 0;
    do {
        const size_t n = syncEvery ? std::min(syncEvery, in.size() - pos) : in.size() - pos;
        z.next_in = const_cast<Bytef*>(in.data() + pos);
        z.avail_in = static_cast<uInt>(n);
        pos += n;
        const int flush = pos == in.size() ? Z_FINISH : Z_SYNC_FLUSH;
        EXPECT_NE(deflate(&z, flush), Z_STREAM_ERROR);
    } while (pos < in.size());
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

Bytes libdeflateCompress(const Bytes& in, int level) {
    libdeflate_compressor* c = libdeflate_alloc_compressor(level);
    Bytes out(libdeflate_deflate_compress_bound(c, in.size()));
    out.resize(libdeflate_deflate_compress(c, in.data(), in.size(), out.data(), out.size()));
    libdeflate_free_compressor(c);
    return out;
}

// Skewed bytes: a few symbols very frequent, the rest rare, so that dynamic blocks get
// literal/length codes of 12..15 bits (the long-code table).
Bytes skewedBytes(size_t n, uint32_t seed) {
    std::mt19937 r(seed);
    Bytes b(n);
    for (auto& x : b) {
        const uint32_t v = r();
        int k = 0;
        while (k < 20 && (v >> k & 1)) ++k;
        x = static_cast<uint8_t>(k == 20 ? r() : k * 13 + (r() % 3 == 0 ? r() % 7 : 0));
    }
    return b;
}

// A mix of the generators: text, runs, noise and skewed bytes.
Bytes mixedBytes(size_t n, uint32_t seed) {
    Bytes t = textBytes(n / 2, seed);
    Bytes s = skewedBytes(n / 4, seed + 1);
    Bytes r = randomBytes(n / 8, seed + 2);
    Bytes out;
    out.insert(out.end(), t.begin(), t.begin() + t.size() / 2);
    out.insert(out.end(), 3000, 'x');
    out.insert(out.end(), s.begin(), s.end());
    out.insert(out.end(), r.begin(), r.end());
    out.insert(out.end(), t.begin() + t.size() / 2, t.end());
    out.resize(n, 'z');
    return out;
}

void expectDecodes(const Bytes& stream, const Bytes& want, const Options& opt = {}, const char* what = "") {
    const auto r = inflateRaw(stream, opt);
    ASSERT_EQ(r.error, Error::None) << what << " status " << r.status;
    ASSERT_EQ(r.out.size(), want.size()) << what;
    ASSERT_TRUE(r.out == want) << what;
    EXPECT_EQ(r.end, stream.size()) << what;
}

// ---- Round trips through the peers' encoders ------------------------------------------

TEST(InflatePeers, DecodesZlibRawStreamsAtEveryLevel) {
    const Bytes data = mixedBytes(300000, 7);
    for (int level = 0; level <= 9; ++level)
        expectDecodes(zlibDeflate(data, level), data, {}, ("level " + std::to_string(level)).c_str());
}

TEST(InflatePeers, DecodesZlibStrategiesAndSyncFlushes) {
    const Bytes data = mixedBytes(200000, 8);
    expectDecodes(zlibDeflate(data, 6, Z_HUFFMAN_ONLY), data, {}, "huffman only");
    expectDecodes(zlibDeflate(data, 6, Z_RLE), data, {}, "rle");
    expectDecodes(zlibDeflate(data, 6, Z_FIXED), data, {}, "fixed");
    expectDecodes(zlibDeflate(data, 1, Z_FIXED), data, {}, "fixed level 1");
    expectDecodes(zlibDeflate(data, 6, Z_DEFAULT_STRATEGY, 1000), data, {}, "sync every 1000");
    expectDecodes(zlibDeflate(data, 9, Z_DEFAULT_STRATEGY, 17), data, {}, "sync every 17");
}

TEST(InflatePeers, DecodesLibdeflateAtEveryLevel) {
    const Bytes data = mixedBytes(300000, 9);
    for (int level = 1; level <= 12; ++level)
        expectDecodes(libdeflateCompress(data, level), data, {}, ("libdeflate level " + std::to_string(level)).c_str());
}

TEST(InflatePeers, EmptyAndTinyInputs) {
    for (size_t n : {0, 1, 2, 3, 10, 258, 259}) {
        const Bytes data = textBytes(n, 3);
        expectDecodes(zlibDeflate(data, 6), data);
        expectDecodes(zlibDeflate(data, 6, Z_FIXED), data);
        expectDecodes(libdeflateCompress(data, 12), data);
    }
}

TEST(InflatePeers, WindowSuppliesHistoryBeforeTheOutput) {
    const Bytes data = mixedBytes(150000, 10);
    Options o;
    o.windowed = true;
    o.outPiece = 4096;
    expectDecodes(zlibDeflate(data, 6), data, o, "window, 4 KiB pieces");
    o.outPiece = 3;
    expectDecodes(zlibDeflate(Bytes(data.begin(), data.begin() + 20000), 9),
                  Bytes(data.begin(), data.begin() + 20000), o, "window, 3-byte pieces");
}

// ---- Splits: every piece size gives the one-call result ----------------------------------

TEST(InflateSplit, EveryInputAndOutputPieceSizeMatchesOneCall) {
    const Bytes data = mixedBytes(24000, 11);
    const Bytes streams[] = {zlibDeflate(data, 6), zlibDeflate(data, 1, Z_FIXED), libdeflateCompress(data, 12),
                             zlibDeflate(skewedBytes(20000, 4), 9)};
    for (const Bytes& s : streams) {
        const auto whole = inflateRaw(s);
        ASSERT_EQ(whole.error, Error::None);
        for (size_t inP = 1; inP <= 7; ++inP) {
            for (size_t outP = 1; outP <= 7; ++outP) {
                Options o;
                o.inPiece = inP;
                o.outPiece = outP;
                const auto r = inflateRaw(s, o);
                ASSERT_EQ(r.error, Error::None) << inP << "/" << outP << " status " << r.status;
                ASSERT_TRUE(r.out == whole.out) << inP << "/" << outP;
                ASSERT_EQ(r.end, whole.end);
            }
        }
    }
}

}  // namespace
