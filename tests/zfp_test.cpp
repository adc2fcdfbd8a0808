// ZFP block coder: bit-exactness against libzfp 1.0 (the peer decodes our streams,
// we decode its streams), the parameter rules, bit accounting, the byte-wise tail
// of flush and refill, and every status.
#include <gtest/gtest.h>
#include <zfp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "m7.h"
#include "../src/zfp/zfp_block.h"

namespace {

constexpr int kValues = 64;
using Block = std::vector<float>;  // 64 values, x fastest

// ---- Test data -------------------------------------------------------------------

float smoothValue(int i, int b, float scale) {
    int x = i & 3, y = (i >> 2) & 3, z = i >> 4;
    float fx = 0.37f * (x + 4 * b), fy = 0.21f * y, fz = 0.13f * z;
    return scale * (std::sin(fx) * std::cos(fy) + 0.5f * std::sin(fz + fx * fy));
}

// Named block sets covering the value ranges that matter to the coder.
std::vector<std::pair<std::string, std::vector<Block>>> blockSets() {
    std::mt19937 rng(12345);
    std::uniform_real_distribution<float> uni(-1.f, 1.f);
    std::vector<std::pair<std::string, std::vector<Block>>> sets;
    auto add = [&](const std::string& name, auto gen) {
        std::vector<Block> blocks(8, Block(kValues));
        for (int b = 0; b < 8; ++b)
            for (int i = 0; i < kValues; ++i) blocks[b][i] = gen(i, b);
        sets.emplace_back(name, blocks);
    };
    add("smooth", [&](int i, int b) { return smoothValue(i, b, 100.f); });
    add("noisy", [&](int, int) { return uni(rng) * 1000.f; });
    add("zeros among values", [&](int i, int b) { return (i * 7 + b) % 3 ? 0.f : smoothValue(i, b, 3.f); });
    add("all zero and mixed", [&](int i, int b) { return b % 2 ? 0.f : uni(rng); });
    add("subnormals beside normals",
        [&](int i, int b) { return i % 5 ? uni(rng) * 1e-39f : smoothValue(i, b, 1e-20f); });
    add("near the largest float", [&](int i, int b) { return smoothValue(i, b, 2.2e38f); });
    add("smallest exact exponent", [&](int i, int b) { return smoothValue(i, b, 1.5f * std::ldexp(1.f, -98)); });
    add("negative", [&](int i, int b) { return -std::fabs(smoothValue(i, b, 7.f)) - 1.f; });
    add("constant", [&](int, int b) { return 1.25f + b; });
    add("wide dynamic range", [&](int i, int) { return uni(rng) * std::ldexp(1.f, (i % 40) - 20); });
    return sets;
}

// ---- Our coder -----------------------------------------------------------------------

struct Params {
    int minBits = 0, maxBits = 4171, maxPrec = 64, minExp = -10740;
};

Params rateParams(int rate) { return {64 * rate, 64 * rate, 64, -10740}; }
Params precisionParams(int prec) { return {0, 4171, prec, -10740}; }

struct Encoded {
    std::vector<uint8_t> bytes;  // flushed
    Ozr64u bits = 0;             // before the flush
};

Encoded ourEncode(const std::vector<Block>& blocks, const Params& p, double tolerance = -1) {
    std::vector<uint8_t> out(blocks.size() * 600 + 64);
    OzrsZfpState_32f st;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpInit_32f(out.data(), int(out.size()), &st));
    EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(p.minBits, p.maxBits, p.maxPrec, p.minExp, &st));
    if (tolerance >= 0) EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpSetAccuracy_32f(&st, tolerance));
    for (const Block& b : blocks) EXPECT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(b.data(), 16, 64, &st));
    Encoded e;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedBitSize_32f(&st, &e.bits));
    EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpFlush_32f(&st));
    Ozr32u size = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
    out.resize(size);
    e.bytes = out;
    return e;
}

std::vector<Block> ourDecode(const std::vector<uint8_t>& bytes, size_t nBlocks, const Params& p,
                             double tolerance = -1) {
    OzrsZfpState_32f st;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeZfpInit_32f(bytes.data(), int(bytes.size()), &st));
    EXPECT_EQ(ozrOk, m7_ozrsDecodeZfpSet_32f(p.minBits, p.maxBits, p.maxPrec, p.minExp, &st));
    if (tolerance >= 0) EXPECT_EQ(ozrOk, m7_ozrsDecodeZfpSetAccuracy_32f(&st, tolerance));
    std::vector<Block> blocks(nBlocks, Block(kValues));
    for (Block& b : blocks) EXPECT_EQ(ozrOk, m7_ozrsDecodeZfp444_32f(&st, b.data(), 16, 64));
    return blocks;
}

// ---- libzfp ----------------------------------------------------------------------------

enum class Mode { Rate, Precision, Accuracy };
struct Setting {
    Mode mode;
    double value;
};

void configure(zfp_stream* z, const Setting& s) {
    switch (s.mode) {
        case Mode::Rate: zfp_stream_set_rate(z, s.value, zfp_type_float, 3, zfp_false); break;
        case Mode::Precision: zfp_stream_set_precision(z, unsigned(s.value)); break;
        case Mode::Accuracy: zfp_stream_set_accuracy(z, s.value); break;
    }
}

Encoded peerEncode(const std::vector<Block>& blocks, const Setting& s) {
    std::vector<uint8_t> out(blocks.size() * 600 + 64);
    bitstream* bs = stream_open(out.data(), out.size());
    zfp_stream* z = zfp_stream_open(bs);
    configure(z, s);
    Encoded e;
    for (const Block& b : blocks) e.bits += zfp_encode_block_float_3(z, b.data());
    zfp_stream_flush(z);
    out.resize(zfp_stream_compressed_size(z));
    zfp_stream_close(z);
    stream_close(bs);
    e.bytes = out;
    return e;
}

std::vector<Block> peerDecode(std::vector<uint8_t> bytes, size_t nBlocks, const Setting& s) {
    bytes.resize(bytes.size() + 64);  // the peer may read ahead by a word
    bitstream* bs = stream_open(bytes.data(), bytes.size());
    zfp_stream* z = zfp_stream_open(bs);
    configure(z, s);
    std::vector<Block> blocks(nBlocks, Block(kValues));
    for (Block& b : blocks) zfp_decode_block_float_3(z, b.data());
    zfp_stream_close(z);
    stream_close(bs);
    return blocks;
}

Params paramsFor(const Setting& s, double* tolerance) {
    *tolerance = -1;
    switch (s.mode) {
        case Mode::Rate: return rateParams(int(s.value));
        case Mode::Precision: return precisionParams(int(s.value));
        case Mode::Accuracy: *tolerance = s.value; return Params{};
    }
    return Params{};
}

std::string describe(const Setting& s) {
    const char* names[] = {"rate", "precision", "accuracy"};
    return std::string(names[int(s.mode)]) + " " + std::to_string(s.value);
}

std::vector<Setting> allSettings() {
    std::vector<Setting> v;
    for (int r = 1; r <= 32; ++r) v.push_back({Mode::Rate, double(r)});
    for (int p : {1, 2, 5, 12, 20, 31, 32}) v.push_back({Mode::Precision, double(p)});
    for (double t : {10.0, 1e-1, 1e-3, 1e-6, 1e-30}) v.push_back({Mode::Accuracy, t});
    return v;
}

bool sameBits(const Block& a, const Block& b) { return std::memcmp(a.data(), b.data(), 4 * kValues) == 0; }

// ---- Bit-exactness ---------------------------------------------------------------------

// Our stream equals libzfp's up to the flush padding (libzfp pads to a byte, we to a
// 64-bit word), and both decoders give the same floats from either stream.
TEST(ZfpMatchesLibzfp, StreamsAndDecodedValuesAreIdenticalInEveryMode) {
    for (const auto& [name, blocks] : blockSets()) {
        for (const Setting& s : allSettings()) {
            SCOPED_TRACE(name + ", " + describe(s));
            double tol;
            Params p = paramsFor(s, &tol);
            Encoded ours = ourEncode(blocks, p, tol);
            Encoded peer = peerEncode(blocks, s);
            ASSERT_EQ(ours.bits, peer.bits);
            size_t used = (ours.bits + 7) / 8;
            ASSERT_EQ(peer.bytes.size(), used);
            ASSERT_GE(ours.bytes.size(), used);
            ASSERT_EQ(0, std::memcmp(ours.bytes.data(), peer.bytes.data(), used));
            for (size_t i = used; i < ours.bytes.size(); ++i) ASSERT_EQ(0, ours.bytes[i]) << "padding byte " << i;

            std::vector<Block> a = ourDecode(peer.bytes, blocks.size(), p, tol);
            std::vector<Block> b = peerDecode(ours.bytes, blocks.size(), s);
            for (size_t k = 0; k < blocks.size(); ++k) ASSERT_TRUE(sameBits(a[k], b[k])) << "block " << k;
        }
    }
}


// ---- Tables ------------------------------------------------------------------------------

TEST(ZfpTables, OrderIsAPermutationByNondecreasingSequencyAndDecodeIsItsInverse) {
    using namespace m7::zfp;
    bool seen[64] = {};
    int last = 0;
    for (int i = 0; i < 64; ++i) {
        int j = permTable[i];
        ASSERT_FALSE(seen[j]);
        seen[j] = true;
        int sequency = (j & 3) + ((j >> 2) & 3) + (j >> 4);
        EXPECT_GE(sequency, last) << i;
        last = sequency;
        EXPECT_EQ(permTableDecode.v[j], i);
    }
}

// ---- Parameters and state ------------------------------------------------------------

struct ZfpState : ::testing::Test {
    std::vector<uint8_t> buf = std::vector<uint8_t>(4096);
    OzrsZfpState_32f st;
    void SetUp() override { ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpInit_32f(buf.data(), int(buf.size()), &st)); }
    Ozr64u bits() {
        Ozr64u b = 0;
        EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedBitSize_32f(&st, &b));
        return b;
    }
};

TEST_F(ZfpState, InitSetsMagicDefaultsAndLimit) {
    Ozr32s size = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeZfpGetStateSize_32f(&size));
    EXPECT_EQ(576, size);
    EXPECT_EQ(ozrOk, m7_ozrsDecodeZfpGetStateSize_32f(&size));
    EXPECT_EQ(576, size);
    EXPECT_EQ(0x4B617398u, st.magic);
    EXPECT_EQ(0, st.minBits);
    EXPECT_EQ(4171, st.maxBits);
    EXPECT_EQ(64, st.maxPrec);
    EXPECT_EQ(-10740, st.minExp);
    EXPECT_EQ(0, st.bitCount);
    EXPECT_EQ(0u, st.bitBuffer);
    EXPECT_EQ(buf.data(), st.pStart);
    EXPECT_EQ(buf.data(), st.pCur);
    EXPECT_EQ(buf.data() + buf.size(), st.pEnd);
    EXPECT_EQ(st.pEnd - 528, st.pLimit);
    OzrsZfpState_32f longSt;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpInitLong_32f(buf.data(), buf.size(), &longSt));
    EXPECT_EQ(0, std::memcmp(&st, &longSt, 64));
}

TEST_F(ZfpState, SetStoresParametersUncheckedAndRecomputesLimit) {
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(-5, 100, 99, 12345, &st));
    EXPECT_EQ(-5, st.minBits);
    EXPECT_EQ(100, st.maxBits);
    EXPECT_EQ(99, st.maxPrec);
    EXPECT_EQ(12345, st.minExp);
    EXPECT_EQ(st.pEnd - 16, st.pLimit);  // 13 bytes rounded up to 16
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(0, 512, 64, 0, &st));
    EXPECT_EQ(st.pEnd - 64, st.pLimit);
}

TEST_F(ZfpState, SetAccuracyTakesTheBinaryExponentAndTouchesNothingElse) {
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(7, 300, 20, 0, &st));
    struct { double tol; int minExp; } cases[] = {
        {1e-3, -10}, {1.0, 0}, {0.75, -1}, {2.0, 1}, {1e-7, -24}, {0.0, -10740}, {-1.0, -10740}};
    for (auto c : cases) {
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSetAccuracy_32f(&st, c.tol));
        EXPECT_EQ(c.minExp, st.minExp) << c.tol;
        EXPECT_EQ(7, st.minBits);
        EXPECT_EQ(300, st.maxBits);
        EXPECT_EQ(20, st.maxPrec);
    }
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpSetAccuracy_32f(&st, 0.5));
    EXPECT_EQ(-1, st.minExp);
}

// ---- Bit accounting -------------------------------------------------------------------

TEST_F(ZfpState, AllZeroBlockCostsOneBitOrMinBits) {
    float zeros[64] = {};
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(zeros, 16, 64, &st));
    EXPECT_EQ(1u, bits());
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(1, 4171, 64, -10740, &st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(zeros, 16, 64, &st));
    EXPECT_EQ(2u, bits());
    for (int minBits : {2, 9, 100, 5000}) {
        Ozr64u before = bits();
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(minBits, 4171, 64, -10740, &st));
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(zeros, 16, 64, &st));
        EXPECT_EQ(before + Ozr64u(minBits), bits()) << minBits;
    }
}

TEST_F(ZfpState, PrecisionZeroOrTinyValuesBelowMinExpCodeAnEmptyBlock) {
    float b[64];
    for (int i = 0; i < 64; ++i) b[i] = 1e-6f * float(i + 1);
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(0, 4171, 64, 0, &st));  // emax -9: precision 0
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(b, 16, 64, &st));
    EXPECT_EQ(1u, bits());
}

TEST_F(ZfpState, FixedRateBlocksCostExactlyTheirBits) {
    for (const auto& [name, blocks] : blockSets()) {
        for (int rate : {1, 2, 3, 8, 16, 31, 32}) {
            SCOPED_TRACE(name + " rate " + std::to_string(rate));
            SetUp();
            ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(64 * rate, 64 * rate, 64, -10740, &st));
            for (size_t k = 0; k < blocks.size(); ++k) {
                ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(blocks[k].data(), 16, 64, &st));
                ASSERT_EQ(Ozr64u(64 * rate) * (k + 1), bits());
            }
        }
    }
}

TEST_F(ZfpState, BitSizeCountsPendingBitsAndByteSizeDoesNot) {
    const auto sets = blockSets();
    const Block& b = sets[0].second[0];
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(100, 100, 64, -10740, &st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(b.data(), 16, 64, &st));
    Ozr32u size = 99;
    Ozr64u size64 = 99;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSizeLong_32f(&st, &size64));
    EXPECT_EQ(8u, size);  // one whole word; 36 bits pending
    EXPECT_EQ(8u, size64);
    EXPECT_EQ(100u, bits());
    EXPECT_EQ(36, st.bitCount);
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpFlush_32f(&st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
    EXPECT_EQ(16u, size);
    EXPECT_EQ(128u, bits());
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpFlush_32f(&st));  // nothing pending: nothing written
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
    EXPECT_EQ(16u, size);
}

// ---- The end of the buffer ------------------------------------------------------------

// 100-bit blocks into a 13-byte buffer: the first word fits, the flush of the 36
// pending bits falls back to bytes.
TEST(ZfpBufferEnd, FlushWithFewerThanEightBytesLeftWritesBytesOneAtATime) {
    const Block b = blockSets()[1].second[0];
    Encoded ref = ourEncode({b}, {100, 100, 64, -10740});
    for (int room : {13, 12, 9}) {
        SCOPED_TRACE(room);
        std::vector<uint8_t> out(room + 4, 0xEE);
        OzrsZfpState_32f st;
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpInit_32f(out.data(), room, &st));
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(100, 100, 64, -10740, &st));
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(b.data(), 16, 64, &st));
        OzrResult r = m7_ozrsEncodeZfpFlush_32f(&st);
        Ozr32u size = 0;
        ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
        if (room >= 13) {  // 8 + 5 bytes hold the 100 bits
            EXPECT_EQ(ozrOk, r);
            EXPECT_EQ(13u, size);
            EXPECT_EQ(0, st.bitCount);
        } else {
            EXPECT_EQ(ozrErrOutOfRange, r);
            EXPECT_EQ(Ozr32u(room), size) << "pCur stops at the first byte not written";
            EXPECT_EQ(100 - 8 * room, st.bitCount);
        }
        EXPECT_EQ(0, std::memcmp(out.data(), ref.bytes.data(), std::min<size_t>(room, 13)));
        for (int i = room; i < room + 4; ++i) EXPECT_EQ(0xEE, out[i]) << "wrote past the end";
    }
}

TEST(ZfpBufferEnd, EncoderStopsAtTheFirstWordThatDoesNotFitAndKeepsItsBits) {
    const auto blocks = blockSets()[1].second;  // noisy: about 1900 bits per block
    Encoded ref = ourEncode(blocks, Params{});
    std::vector<uint8_t> out(64 + 8, 0xEE);
    OzrsZfpState_32f st;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpInit_32f(out.data(), 60, &st));
    EXPECT_EQ(ozrErrOutOfRange, m7_ozrsEncodeZfp444_32f(blocks[0].data(), 16, 64, &st));
    Ozr32u size = 0;
    Ozr64u bitSize = 0;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedBitSize_32f(&st, &bitSize));
    EXPECT_EQ(56u, size);
    EXPECT_EQ(64, st.bitCount);
    EXPECT_EQ(56u * 8 + 64, bitSize);
    EXPECT_EQ(0, std::memcmp(out.data(), ref.bytes.data(), 56));
    EXPECT_EQ(ozrErrOutOfRange, m7_ozrsEncodeZfp444_32f(blocks[1].data(), 16, 64, &st));
    EXPECT_EQ(ozrErrOutOfRange, m7_ozrsEncodeZfpFlush_32f(&st));  // 4 of the 8 bytes fit
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &size));
    EXPECT_EQ(60u, size);
    EXPECT_EQ(0, std::memcmp(out.data(), ref.bytes.data(), 60));
    for (int i = 60; i < 72; ++i) EXPECT_EQ(0xEE, out[i]);
}

TEST(ZfpBufferEnd, PaddingBeyondTheBufferIsOutOfRange) {
    float zeros[64] = {};
    std::vector<uint8_t> out(32, 0xEE);
    OzrsZfpState_32f st;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpInit_32f(out.data(), 24, &st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(1000, 1000, 64, -10740, &st));
    EXPECT_EQ(ozrErrOutOfRange, m7_ozrsEncodeZfp444_32f(zeros, 16, 64, &st));
    EXPECT_EQ(out.data() + 24, st.pCur);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(0, out[i]);
    for (int i = 24; i < 32; ++i) EXPECT_EQ(0xEE, out[i]);
}

// A stream whose last block lies within 8 bytes of its end is loaded byte by byte,
// and the loaded-bytes count follows the loads.
TEST(ZfpBufferEnd, DecoderReadsTheLastBytesOneAtATime) {
    const auto blocks = blockSets()[0].second;
    Params p = rateParams(1);  // 64 bits per block
    Encoded e = ourEncode({blocks[0], blocks[1]}, {60, 60, 64, -10740});
    ASSERT_EQ(120u, e.bits);
    std::vector<uint8_t> exact(e.bytes.begin(), e.bytes.begin() + 15);
    OzrsZfpState_32f st;
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpInit_32f(exact.data(), int(exact.size()), &st));
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpSet_32f(60, 60, 64, -10740, &st));
    Block a(64), b(64);
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfp444_32f(&st, a.data(), 16, 64));
    Ozr32u loaded = 0;
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpGetDecompressedSize_32f(&st, &loaded));
    EXPECT_EQ(8u, loaded);
    EXPECT_EQ(4, st.bitCount);
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfp444_32f(&st, b.data(), 16, 64));
    Ozr64u loaded64 = 0;
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpGetDecompressedSizeLong_32f(&st, &loaded64));
    EXPECT_EQ(15u, loaded64);
    EXPECT_EQ(0, st.bitCount);
    std::vector<Block> ref = ourDecode(e.bytes, 2, {60, 60, 64, -10740});
    EXPECT_TRUE(sameBits(a, ref[0]));
    EXPECT_TRUE(sameBits(b, ref[1]));
    (void)p;
}

TEST(ZfpBufferEnd, DecoderOutOfInputIsOutOfRangeAndLeavesTheDestination) {
    const auto blocks = blockSets()[1].second;
    Encoded e = ourEncode({blocks[0]}, Params{});
    for (size_t keep : {size_t(0) + 1, size_t(7), size_t(100), e.bytes.size() - 9}) {
        SCOPED_TRACE(keep);
        std::vector<uint8_t> cut(e.bytes.begin(), e.bytes.begin() + keep);
        OzrsZfpState_32f st;
        ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpInit_32f(cut.data(), int(cut.size()), &st));
        Block out(64, 42.f);
        EXPECT_EQ(ozrErrOutOfRange, m7_ozrsDecodeZfp444_32f(&st, out.data(), 16, 64));
        EXPECT_EQ(st.pEnd, st.pCur);
        for (float v : out) ASSERT_EQ(42.f, v);
    }
    // Padding past the end is out of range as well.
    float zeros[64] = {};
    Encoded z = ourEncode({Block(zeros, zeros + 64)}, Params{});
    OzrsZfpState_32f st;
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpInit_32f(z.bytes.data(), int(z.bytes.size()), &st));
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpSet_32f(1000, 1000, 64, -10740, &st));
    Block out(64);
    EXPECT_EQ(ozrErrOutOfRange, m7_ozrsDecodeZfp444_32f(&st, out.data(), 16, 64));
}

// ---- Round trips ------------------------------------------------------------------------

TEST(ZfpRoundTrip, AccuracyModeStaysWithinTheTolerance) {
    for (const auto& [name, blocks] : blockSets()) {
        float maxAbs = 0;
        for (const Block& b : blocks)
            for (float v : b) maxAbs = std::max(maxAbs, std::fabs(v));
        for (double tol : {1.0, 1e-1, 1e-3, 1e-5}) {
            if (tol < std::ldexp(double(maxAbs), -22)) continue;  // below the floats' own spacing
            SCOPED_TRACE(name + " tolerance " + std::to_string(tol));
            Encoded e = ourEncode(blocks, Params{}, tol);
            std::vector<Block> back = ourDecode(e.bytes, blocks.size(), Params{}, tol);
            for (size_t k = 0; k < blocks.size(); ++k)
                for (int i = 0; i < 64; ++i)
                    ASSERT_LE(std::fabs(double(back[k][i]) - blocks[k][i]), tol) << k << "/" << i;
        }
    }
}

TEST(ZfpRoundTrip, DefaultsAreExactWhereTheTransformIsAndZerosComeBackPositive) {
    Block ints(64), zeros(64, -0.f);
    for (int i = 0; i < 64; ++i) ints[i] = float((i * 37) % 64 - 32);  // few bits: exact
    Encoded e = ourEncode({ints, zeros}, Params{});
    std::vector<Block> back = ourDecode(e.bytes, 2, Params{});
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(ints[i], back[0][i]);
        EXPECT_EQ(0u, std::bit_cast<uint32_t>(back[1][i])) << "+0.0";
    }
}

// Blocks below 2^-98, where the float scale factor is clamped at 2^127: they still
// round trip, to within a few units of 2^-127.
TEST(ZfpRoundTrip, TinyBlocksRoundTripWithinTheirClampedPrecision) {
    for (int e : {-99, -110, -125, -140, -149}) {
        Block b(64);
        for (int i = 0; i < 64; ++i) b[i] = std::ldexp(float(i % 9) - 4.f, e);
        Encoded enc = ourEncode({b}, Params{});
        Block back = ourDecode(enc.bytes, 1, Params{})[0];
        for (int i = 0; i < 64; ++i)
            EXPECT_LE(std::fabs(double(back[i]) - b[i]), std::ldexp(1.0, std::max(e - 18, -122))) << e << " " << i;
    }
}

TEST(ZfpRoundTrip, StridedSourceAndDestinationMatchContiguousBlocks) {
    // A 6x5x4 float array (rows of 6, planes of 30 floats): block at (1, 1, 0).
    std::vector<float> field(6 * 5 * 4);
    for (size_t i = 0; i < field.size(); ++i) field[i] = std::sin(0.3f * float(i));
    Block contiguous(64);
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x) contiguous[16 * z + 4 * y + x] = field[30 * z + 6 * (y + 1) + x + 1];
    Encoded ref = ourEncode({contiguous}, rateParams(12));
    std::vector<uint8_t> out(1024);
    OzrsZfpState_32f st;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpInit_32f(out.data(), 1024, &st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpSet_32f(768, 768, 64, -10740, &st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfp444_32f(&field[6 + 1], 24, 120, &st));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeZfpFlush_32f(&st));
    ASSERT_EQ(0, std::memcmp(out.data(), ref.bytes.data(), ref.bytes.size()));

    std::vector<float> dst(field.size(), 7.f);
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpInit_32f(out.data(), 1024, &st));
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfpSet_32f(768, 768, 64, -10740, &st));
    ASSERT_EQ(ozrOk, m7_ozrsDecodeZfp444_32f(&st, &dst[6 + 1], 24, 120));
    Block back = ourDecode(ref.bytes, 1, rateParams(12))[0];
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 6; ++x) {
                float v = dst[30 * z + 6 * y + x];
                if (y >= 1 && x >= 1 && x <= 4) EXPECT_EQ(back[16 * z + 4 * (y - 1) + x - 1], v);
                else EXPECT_EQ(7.f, v) << "outside the block";
            }
}

// ---- Statuses -------------------------------------------------------------------------------

TEST(ZfpStatus, NullPointersComeFirst) {
    OzrsZfpState_32f st;
    uint8_t buf[16];
    float blk[64] = {};
    Ozr32u s32;
    Ozr64u s64;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpGetStateSize_32f(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpGetStateSize_32f(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpInit_32f(nullptr, 0, &st));  // before the length
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpInit_32f(buf, 16, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpInitLong_32f(nullptr, 0, &st));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpInitLong_32f(buf, 16, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpInit_32f(nullptr, 16, &st));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpInitLong_32f(buf, 16, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpSet_32f(0, 0, 0, 0, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpSet_32f(0, 0, 0, 0, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpSetAccuracy_32f(nullptr, 1.0));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpSetAccuracy_32f(nullptr, 1.0));
    std::memset(&st, 0, sizeof st);  // not initialised either: null still comes first
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfp444_32f(nullptr, 16, 64, &st));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfp444_32f(blk, 16, 64, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfp444_32f(&st, nullptr, 16, 64));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfp444_32f(nullptr, blk, 16, 64));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpGetCompressedSize_32f(nullptr, &s32));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpGetCompressedSizeLong_32f(&st, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpGetCompressedBitSize_32f(nullptr, &s64));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpGetDecompressedSize_32f(nullptr, &s32));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeZfpGetDecompressedSizeLong_32f(&st, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeZfpFlush_32f(nullptr));
}

TEST(ZfpStatus, LengthsBelowOneOrZeroAreSizeErrorsAndWriteNothing) {
    OzrsZfpState_32f st;
    std::memset(&st, 0x5A, sizeof st);
    uint8_t buf[16];
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeZfpInit_32f(buf, 0, &st));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeZfpInit_32f(buf, -3, &st));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeZfpInitLong_32f(buf, 0, &st));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeZfpInit_32f(buf, 0, &st));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeZfpInitLong_32f(buf, 0, &st));
    EXPECT_EQ(0x5A5A5A5Au, st.magic);
}

TEST(ZfpStatus, UninitialisedStateIsBadParameterEverywhere) {
    OzrsZfpState_32f st;
    std::memset(&st, 0, sizeof st);
    float blk[64] = {};
    Ozr32u s32;
    Ozr64u s64;
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpSet_32f(0, 64, 64, 0, &st));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsDecodeZfpSet_32f(0, 64, 64, 0, &st));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpSetAccuracy_32f(&st, 1.0));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsDecodeZfpSetAccuracy_32f(&st, 1.0));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfp444_32f(blk, 16, 64, &st));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsDecodeZfp444_32f(&st, blk, 16, 64));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpGetCompressedSize_32f(&st, &s32));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpGetCompressedSizeLong_32f(&st, &s64));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpGetCompressedBitSize_32f(&st, &s64));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsDecodeZfpGetDecompressedSize_32f(&st, &s32));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsDecodeZfpGetDecompressedSizeLong_32f(&st, &s64));
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpFlush_32f(&st));
    st.magic = 0x4B617399u;
    EXPECT_EQ(ozrErrBadParameter, m7_ozrsEncodeZfpFlush_32f(&st));
}

// The exported entry points reach the same code.
TEST(ZfpStatus, ExportedEntryPointsAreWired) {
    Ozr32s size = 0;
    EXPECT_EQ(ozrOk, ozrsEncodeZfpGetStateSize_32f(&size));
    EXPECT_EQ(576, size);
    EXPECT_EQ(ozrErrNullPointer, ozrsDecodeZfp444_32f(nullptr, nullptr, 0, 0));
}


// ---- The tool's zfp container against the zfp command-line tool -----------------------

std::string tempDir() {
    static std::string dir = [] {
        char t[] = "/tmp/ozrdc_zfp_XXXXXX";
        return std::string(mkdtemp(t));
    }();
    return dir;
}

int run(const std::string& cmd) { return std::system(("(" + cmd + ") >/dev/null 2>&1").c_str()); }

std::vector<uint8_t> readFile(const std::string& path) {
    std::vector<uint8_t> d;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        uint8_t buf[65536];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) d.insert(d.end(), buf, buf + n);
        std::fclose(f);
    }
    return d;
}

TEST(ZfpTool, FilesEqualTheZfpToolsAndEachToolDecodesTheOther) {
    if (run("command -v zfp") != 0) GTEST_SKIP() << "the zfp tool is not installed";
    const std::string dir = tempDir(), tool = OZRDC_TOOL_PATH;
    struct Dims { size_t x, y, z; } dims[] = {{8, 8, 8}, {5, 6, 7}, {1, 1, 1}, {9, 4, 13}, {17, 3, 2}};
    const char* modes[][2] = {{"-r 8", "--rate 8"}, {"-r 2.5", "--rate 2.5"}, {"-r 40", "--rate 40"},
                              {"-p 14", "--precision 14"}, {"-a 1e-3", "--accuracy 1e-3"}};
    for (const Dims& d : dims) {
        std::vector<float> v(d.x * d.y * d.z);
        for (size_t i = 0; i < v.size(); ++i) v[i] = std::sin(0.37f * float(i)) * 50.f + float(i % 7);
        const std::string raw = dir + "/in.raw";
        FILE* f = std::fopen(raw.c_str(), "wb");
        std::fwrite(v.data(), 4, v.size(), f);
        std::fclose(f);
        const std::string n = std::to_string(d.x) + " " + std::to_string(d.y) + " " + std::to_string(d.z);
        const std::string commas = std::to_string(d.x) + "," + std::to_string(d.y) + "," + std::to_string(d.z);
        for (auto& m : modes) {
            SCOPED_TRACE(commas + " " + m[1]);
            ASSERT_EQ(0, run("zfp -q -f -3 " + n + " " + m[0] + " -h -i " + raw + " -z " + dir + "/ref.zfp"));
            ASSERT_EQ(0, run(tool + " compress -f -F zfp --dims " + commas + " " + m[1] + " " + raw + " -o " + dir +
                             "/ours.zfp"));
            std::vector<uint8_t> ref = readFile(dir + "/ref.zfp"), ours = readFile(dir + "/ours.zfp");
            ASSERT_FALSE(ref.empty());
            EXPECT_EQ(ref, ours);
            ASSERT_EQ(0, run(tool + " decompress -f " + dir + "/ref.zfp -o " + dir + "/a.raw"));
            ASSERT_EQ(0, run("zfp -q -h -z " + dir + "/ours.zfp -o " + dir + "/b.raw"));
            std::vector<uint8_t> a = readFile(dir + "/a.raw"), b = readFile(dir + "/b.raw");
            EXPECT_EQ(v.size() * 4, a.size());
            EXPECT_EQ(a, b);
        }
    }
    // A 2-D array goes out as a 3-D field of depth 1.
    ASSERT_EQ(0, run("head -c 144 " + dir + "/in.raw > " + dir + "/in2.raw"));
    ASSERT_EQ(0, run("zfp -q -f -3 9 4 1 -r 8 -h -i " + dir + "/in2.raw -z " + dir + "/ref2.zfp"));
    ASSERT_EQ(0, run(tool + " compress -f -F zfp --dims 9,4 --rate 8 " + dir + "/in2.raw -o " + dir + "/ours2.zfp"));
    EXPECT_EQ(readFile(dir + "/ref2.zfp"), readFile(dir + "/ours2.zfp"));
}

TEST(ZfpTool, RefusesWhatItCannotCode) {
    const std::string dir = tempDir(), tool = OZRDC_TOOL_PATH;
    ASSERT_EQ(0, run("head -c 256 /dev/zero > " + dir + "/z.raw"));
    EXPECT_NE(0, run(tool + " compress -f -F zfp --dims 4,4,4 " + dir + "/z.raw -o " + dir + "/x.zfp"))
        << "no mode given";
    EXPECT_NE(0, run(tool + " compress -f -F zfp --dims 4,4,5 --rate 8 " + dir + "/z.raw -o " + dir + "/x.zfp"))
        << "too few values";
    EXPECT_NE(0, run(tool + " compress -f -F zfp --rate 8 " + dir + "/z.raw -o " + dir + "/x.zfp")) << "no dims";
    if (run("command -v zfp") == 0) {
        ASSERT_EQ(0, run("zfp -q -f -2 8 8 -r 8 -h -i " + dir + "/z.raw -z " + dir + "/two.zfp"));
        EXPECT_NE(0, run(tool + " decompress -f " + dir + "/two.zfp -o " + dir + "/two.raw")) << "2-D stream";
    }
}

}  // namespace
