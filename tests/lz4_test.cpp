// LZ4 blocks: our decoders against blocks made by liblz4, our encoders' blocks
// through liblz4's decoder, exact block shapes, bounded output, every status.
#include <gtest/gtest.h>

#include "../fuzz/guarded.h"
#include "lz4_ref.h"
#include "test_data.h"
#include <lz4.h>
#include <lz4hc.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "m7.h"

namespace {

Bytes repetitiveBytes(size_t n, uint32_t seed) {
    std::mt19937 r(seed);
    Bytes b;
    while (b.size() < n) {
        switch (r() % 4) {
            case 0: b.insert(b.end(), 1 + r() % 300, static_cast<uint8_t>(r())); break;              // runs
            case 1: { uint8_t p[3] = {uint8_t(r()), uint8_t(r()), uint8_t(r())};
                      for (int k = 1 + r() % 100; k > 0; --k) b.push_back(p[k % 3]); break; }      // short periods
            case 2: if (b.size() > 70000) { size_t d = 1 + r() % 65535, l = 4 + r() % 400;
                      for (size_t i = 0; i < l; ++i) b.push_back(b[b.size() - d]); break; }         // far copies
                    [[fallthrough]];
            default: for (int k = r() % 20; k > 0; --k) b.push_back(static_cast<uint8_t>(r()));     // noise
        }
    }
    b.resize(n);
    return b;
}

// A buffer with guard bytes on both sides; check() tells whether they are intact.
class Guarded {
public:
    static constexpr size_t kGuard = 64;
    explicit Guarded(size_t cap) : buf_(cap + 2 * kGuard, 0xA5), cap_(cap) {}
    uint8_t* data() { return buf_.data() + kGuard; }
    size_t capacity() const { return cap_; }
    bool intact() const {
        for (size_t i = 0; i < kGuard; ++i)
            if (buf_[i] != 0xA5 || buf_[kGuard + cap_ + i] != 0xA5) return false;
        return true;
    }
    Bytes head(size_t n) { return Bytes(data(), data() + n); }

private:
    Bytes buf_;
    size_t cap_;
};

int worstCase(int n) { return n + n / 255 + 16; }

Bytes table(16384);

Bytes ourEncode(const Bytes& in) {
    Guarded out(worstCase(static_cast<int>(in.size())));
    int len = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4_8u(in.data(), static_cast<int>(in.size()), out.data(), &len, table.data()));
    EXPECT_TRUE(out.intact());
    return out.head(len);
}

Bytes ourEncodeFast(const Bytes& in, int accel) {
    Guarded out(worstCase(static_cast<int>(in.size())));
    int len = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4Fast_8u(in.data(), static_cast<int>(in.size()), out.data(), &len,
                                             table.data(), accel));
    EXPECT_TRUE(out.intact());
    return out.head(len);
}

Bytes ourEncodeSafe(const Bytes& in) {
    Guarded out(worstCase(static_cast<int>(in.size())));
    int srcLen = static_cast<int>(in.size()), len = static_cast<int>(out.capacity());
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4Safe_8u(in.data(), &srcLen, out.data(), &len, table.data()));
    EXPECT_EQ(srcLen, static_cast<int>(in.size()));
    EXPECT_TRUE(out.intact());
    return out.head(len);
}

Bytes peerDecode(const Bytes& block, size_t size) {
    Bytes out(size + 1);
    int n = LZ4_decompress_safe(reinterpret_cast<const char*>(block.data()), reinterpret_cast<char*>(out.data()),
                                static_cast<int>(block.size()), static_cast<int>(out.size()));
    EXPECT_GE(n, 0) << "liblz4 rejects our block";
    out.resize(n < 0 ? 0 : n);
    return out;
}

// Our plain decoder into a guarded buffer of exactly the decoded size.
Bytes ourDecode(const Bytes& block, size_t size, OzrResult expect = ozrOk) {
    Guarded out(size);
    int len = static_cast<int>(size);
    EXPECT_EQ(expect, m7_ozrsDecodeLZ4_8u(block.data(), static_cast<int>(block.size()), out.data(), &len));
    EXPECT_TRUE(out.intact());
    return out.head(len);
}

std::vector<Bytes> sampleInputs() {
    std::vector<Bytes> v;
    for (size_t n : {21u, 22u, 33u, 64u, 100u, 1000u, 4096u, 65535u, 65536u, 65537u, 300000u}) {
        v.push_back(randomBytes(n, static_cast<uint32_t>(n)));
        v.push_back(textBytes(n, static_cast<uint32_t>(n)));
        v.push_back(repetitiveBytes(n, static_cast<uint32_t>(n)));
        v.push_back(Bytes(n, 'z'));
    }
    v.push_back(textBytes(3 << 20, 7));
    v.push_back(repetitiveBytes(2 << 20, 8));
    return v;
}

const std::vector<Bytes>& inputs() {
    static const std::vector<Bytes> v = sampleInputs();
    return v;
}

}  // namespace

// ---- Exact blocks ------------------------------------------------------------------

TEST(LZ4Encode, ShortInputsAreOneLiteralRun) {
    for (int n = 1; n <= 20; ++n) {
        Bytes in(n, 'a');  // compressible, yet too short for any match
        Bytes block = ourEncode(in);
        ASSERT_EQ(block.size(), static_cast<size_t>(n) + 1 + (n >= 15 ? 1 : 0)) << n;
        EXPECT_EQ(block[0], n >= 15 ? 0xF0 : n << 4);
        if (n >= 15) EXPECT_EQ(block[1], n - 15);
        EXPECT_EQ(ourEncodeFast(in, 3), block);
        EXPECT_EQ(ourEncodeSafe(in), block);
    }
}

TEST(LZ4Encode, PeriodicInputGivesTheDefinedBlock) {
    // 32 bytes of "abcd": position 0 is never entered, so the zeroed table's
    // position 0 is the candidate at 4; the match runs to 5 bytes before the end.
    Bytes in;
    for (int i = 0; i < 8; ++i) in.insert(in.end(), {'a', 'b', 'c', 'd'});
    const Bytes expect = {0x4F, 'a', 'b', 'c', 'd', 0x04, 0x00, 0x04, 0x50, 'd', 'a', 'b', 'c', 'd'};
    EXPECT_EQ(ourEncode(in), expect);
    EXPECT_EQ(ourEncodeSafe(in), expect);
    EXPECT_EQ(ourEncodeFast(in, 2), expect);
}

TEST(LZ4Encode, LoadDictEntersEveryThirdPositionByTheLibraryHash) {
    Bytes dict = textBytes(1000, 3);
    std::vector<Ozr32s> expect(4096, -7), got(4096, -7);
    for (int p = 0; 1000 - p > 8; p += 3) {
        uint64_t v = 0;
        for (int k = 0; k < 5; ++k) v |= uint64_t(dict[p + k]) << (8 * k);
        expect[((v * 0xCA1BACDCBBull) >> 24) & 0xFFF] = p;
    }
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4LoadDict_8u(reinterpret_cast<Ozr8u*>(got.data()), dict.data(), 1000));
    EXPECT_EQ(got, expect);
}

TEST(LZ4Encode, LoadDictOfEightBytesLeavesTheTableAlone) {
    Bytes t(16384, 0x5C);
    Bytes dict(8, 'q');
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4LoadDict_8u(t.data(), dict.data(), 8));
    EXPECT_EQ(t, Bytes(16384, 0x5C));
}

TEST(LZ4Encode, AccelerationOneIsThePlainEncoder) {
    for (const Bytes& in : inputs()) EXPECT_EQ(ourEncodeFast(in, 1), ourEncode(in)) << in.size();
}

TEST(LZ4Encode, BoundedWithRoomIsThePlainEncoder) {
    for (const Bytes& in : inputs()) EXPECT_EQ(ourEncodeSafe(in), ourEncode(in)) << in.size();
}

TEST(LZ4Encode, TableSizeAndInitialisation) {
    int size = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4HashTableGetSize_8u(&size));
    EXPECT_EQ(size, 16384);
    Bytes t(16384, 0xEE);
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4HashTableInit_8u(t.data(), 65535));
    EXPECT_EQ(Bytes(t.begin(), t.begin() + 8192), Bytes(8192, 0));
    EXPECT_EQ(t[8192], 0xEE) << "a 16-bit table is 4096 entries";
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4HashTableInit_8u(t.data(), 65536));
    EXPECT_EQ(t, Bytes(16384, 0));
    std::fill(t.begin(), t.end(), 0xEE);
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4DictHashTableInit_8u(t.data(), 1));
    EXPECT_EQ(t, Bytes(16384, 0));
}

// ---- Interoperability with liblz4 ------------------------------------------------------

TEST(LZ4Interop, OurBlocksDecodeThroughLiblz4) {
    for (const Bytes& in : inputs()) {
        EXPECT_EQ(peerDecode(ourEncode(in), in.size()), in) << "plain " << in.size();
        for (int a : {2, 8, 100}) EXPECT_EQ(peerDecode(ourEncodeFast(in, a), in.size()), in) << "fast " << a;
    }
    for (int n = 1; n <= 20; ++n) {
        Bytes in = randomBytes(n, n);
        EXPECT_EQ(peerDecode(ourEncode(in), in.size()), in);
    }
}

TEST(LZ4Interop, Liblz4BlocksDecodeThroughOurs) {
    std::vector<char> block;
    for (const Bytes& in : inputs()) {
        const int n = static_cast<int>(in.size());
        block.resize(LZ4_compressBound(n));
        const char* src = reinterpret_cast<const char*>(in.data());
        for (int mode = 0; mode < 4; ++mode) {
            int len = mode == 0 ? LZ4_compress_default(src, block.data(), n, static_cast<int>(block.size()))
                    : mode == 1 ? LZ4_compress_fast(src, block.data(), n, static_cast<int>(block.size()), 8)
                    : LZ4_compress_HC(src, block.data(), n, static_cast<int>(block.size()), mode == 2 ? 9 : 12);
            ASSERT_GT(len, 0);
            if (mode >= 2 && n > (1 << 20)) continue;  // HC is slow on the multi-megabyte inputs
            Bytes b(block.begin(), block.begin() + len);
            EXPECT_EQ(ourDecode(b, in.size()), in) << "mode " << mode << " size " << n;
        }
    }
    for (int n = 0; n <= 20; ++n) {
        Bytes in = randomBytes(n, n + 100);
        char b[64];
        int len = LZ4_compress_default(reinterpret_cast<const char*>(in.data()), b, n, 64);
        if (n == 0) {
            ASSERT_EQ(len, 1);  // the empty block, a lone token 0
            continue;
        }
        EXPECT_EQ(ourDecode(Bytes(b, b + len), n), in);
    }
}

TEST(LZ4Interop, DictionaryBlocksBothWays) {
    const Bytes dict = textBytes(40000, 11);
    for (size_t n : {21u, 500u, 20000u, 65536u, 200000u}) {
        // Data that shares much with the dictionary.
        Bytes in = textBytes(n, 11);
        for (size_t i = 0; i < n; i += 97) in[i] ^= 0x20;
        const int len = static_cast<int>(n);
        const char* d = reinterpret_cast<const char*>(dict.data());

        // Ours -> liblz4.
        Bytes t(16384);
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4DictHashTableInit_8u(t.data(), len));
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4LoadDict_8u(t.data(), dict.data(), 40000));
        Guarded out(worstCase(len));
        int outLen = 0;
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4Dict_8u(in.data(), 40000, len, out.data(), &outLen, t.data(),
                                                 dict.data(), 40000));
        ASSERT_TRUE(out.intact());
        Bytes plain = ourEncode(in);
        if (n >= 500) EXPECT_LT(static_cast<size_t>(outLen), plain.size()) << "the dictionary must help";
        Bytes dec(n);
        EXPECT_EQ(len, LZ4_decompress_safe_usingDict(reinterpret_cast<const char*>(out.data()),
                                                     reinterpret_cast<char*>(dec.data()), outLen, len, d, 40000));
        EXPECT_EQ(dec, in);

        // Ours, bounded, with room: the same block.
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4DictHashTableInit_8u(t.data(), len));
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4LoadDict_8u(t.data(), dict.data(), 40000));
        Guarded out2(worstCase(len));
        int srcLen = len, cap = static_cast<int>(out2.capacity());
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4DictSafe_8u(in.data(), 40000, &srcLen, out2.data(), &cap, t.data(),
                                                     dict.data(), 40000));
        EXPECT_EQ(out2.head(cap), out.head(outLen));

        // liblz4 with a dictionary -> our external-dictionary decoder (dstIdx = dictSize)
        // and our prefix decoder (dictionary copied right before the output).
        LZ4_stream_t* s = LZ4_createStream();
        LZ4_loadDict(s, d, 40000);
        std::vector<char> block(LZ4_compressBound(len));
        int bl = LZ4_compress_fast_continue(s, reinterpret_cast<const char*>(in.data()), block.data(), len,
                                            static_cast<int>(block.size()), 1);
        LZ4_freeStream(s);
        ASSERT_GT(bl, 0);
        Bytes ext(40000 + n + 64, 0xA5);
        int sl = bl, dl = len;
        EXPECT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(reinterpret_cast<const Ozr8u*>(block.data()), &sl, ext.data(), 40000,
                                                 &dl, dict.data(), 40000));
        EXPECT_EQ(sl, bl);
        EXPECT_EQ(dl, len);
        EXPECT_EQ(Bytes(ext.begin() + 40000, ext.begin() + 40000 + n), in);
        EXPECT_EQ(ext[40000 + n], 0xA5);

        Bytes pre(dict);
        pre.resize(40000 + n + 64, 0xA5);
        sl = bl, dl = len;
        EXPECT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(reinterpret_cast<const Ozr8u*>(block.data()), &sl, pre.data(), 40000,
                                                 &dl, pre.data(), 40000));
        EXPECT_EQ(Bytes(pre.begin() + 40000, pre.begin() + 40000 + n), in);
        EXPECT_EQ(pre[40000 + n], 0xA5);
    }
}

TEST(LZ4Interop, DictionaryEncoderWithTheHistoryInPlace) {
    // A second block continuing the first, which lies right before it in memory.
    Bytes all = textBytes(120000, 5);
    const int h = 60000, n = 60000;
    Bytes t(16384);
    int len = 0;
    Guarded out(worstCase(n));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4DictHashTableInit_8u(t.data(), n));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4LoadDict_8u(t.data(), all.data(), h));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4Dict_8u(all.data() + h, h, n, out.data(), &len, t.data(), all.data(), h));
    Bytes dec(n);
    EXPECT_EQ(n, LZ4_decompress_safe_usingDict(reinterpret_cast<const char*>(out.data()),
                                               reinterpret_cast<char*>(dec.data()), len, n,
                                               reinterpret_cast<const char*>(all.data()), h));
    EXPECT_EQ(dec, Bytes(all.begin() + h, all.end()));
}

// ---- Bounded output --------------------------------------------------------------------

TEST(LZ4Bounded, PartialBlockDecodesToExactlyTheCoveredPrefix) {
    for (const Bytes& in : {textBytes(70000, 1), randomBytes(3000, 2), repetitiveBytes(100000, 3), Bytes(5000, 'x')}) {
        const int full = static_cast<int>(ourEncode(in).size());
        for (int cap : {1, 2, 5, 8, 9, 15, 16, 17, 30, 100, 271, 1000, full / 2, full - 1, full}) {
            if (cap < 1 || cap > full) continue;
            Guarded out(cap);
            int srcLen = static_cast<int>(in.size()), len = cap;
            OzrResult st = m7_ozrsEncodeLZ4Safe_8u(in.data(), &srcLen, out.data(), &len, table.data());
            ASSERT_TRUE(out.intact()) << "wrote past capacity " << cap;
            ASSERT_LE(len, cap);
            EXPECT_EQ(st, srcLen == static_cast<int>(in.size()) ? ozrOk : ozrWarnDstSizeLess);
            if (cap == full) EXPECT_EQ(st, ozrOk);
            Bytes block = out.head(len);
            EXPECT_EQ(peerDecode(block, srcLen), Bytes(in.begin(), in.begin() + srcLen)) << "cap " << cap;
            if (srcLen > 0) EXPECT_EQ(ourDecode(block, srcLen), Bytes(in.begin(), in.begin() + srcLen));
        }
    }
}

TEST(LZ4Bounded, LongMatchIsShortenedToFit) {
    // One literal then a 9994-byte match: a capacity that cuts the match length bytes.
    Bytes in(10000, 'r');
    for (int cap : {12, 20, 40, 41, 42}) {
        Guarded out(cap);
        int srcLen = 10000, len = cap;
        OzrResult st = m7_ozrsEncodeLZ4Safe_8u(in.data(), &srcLen, out.data(), &len, table.data());
        ASSERT_TRUE(out.intact());
        EXPECT_EQ(st, ozrWarnDstSizeLess);
        EXPECT_EQ(peerDecode(out.head(len), srcLen), Bytes(srcLen, 'r'));
        EXPECT_GT(srcLen, 40 * (cap - 12)) << "the match should be kept, shortened";
    }
}

// ---- Decoder edge cases ---------------------------------------------------------------

TEST(LZ4Decode, LoneByteBlockWarnsWithNothingDone) {
    Bytes block = {0x00};
    uint8_t out[8];
    int dl = 8, sl = 1;
    EXPECT_EQ(ozrWarnSrcSizeLess, m7_ozrsDecodeLZ4_8u(block.data(), 1, out, &dl));
    EXPECT_EQ(dl, 0);
    dl = 8;
    EXPECT_EQ(ozrWarnSrcSizeLess, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, out, 0, &dl, nullptr, 0));
    EXPECT_EQ(sl, 0);
    EXPECT_EQ(dl, 0);
}

TEST(LZ4Decode, ShortOffsetsRepeatThePattern) {
    // 'a' then offset 1 length 100; "xy" then offset 2 length 50; then 5 literals.
    Bytes block = {0x1F, 'a', 1, 0, 100 - 19, 0x2F, 'x', 'y', 2, 0, 50 - 19, 0x50, '1', '2', '3', '4', '5'};
    Bytes expect(101, 'a');
    expect.insert(expect.end(), {'x', 'y'});
    for (int i = 0; i < 25; ++i) expect.insert(expect.end(), {'x', 'y'});
    expect.insert(expect.end(), {'1', '2', '3', '4', '5'});
    EXPECT_EQ(ourDecode(block, expect.size()), expect);
}

TEST(LZ4Decode, EveryShortOffsetAndLengthRepeatsThePatternInTheFastLoop) {
    // Each match of offset 1..40 and length 4..80 follows three fresh literals, so the
    // pattern differs from match to match; a long literal tail keeps all of them away
    // from the ends, where the exact copies take over.
    std::mt19937 r(7);
    Bytes block, expect;
    auto length = [&block](size_t extra) {
        for (; extra >= 255; extra -= 255) block.push_back(255);
        block.push_back(static_cast<uint8_t>(extra));
    };
    for (int i = 0; i < 40; ++i) expect.push_back(static_cast<uint8_t>(r()));
    block.push_back(0xF0);
    length(40 - 15);
    block.insert(block.end(), expect.begin(), expect.end());
    block.insert(block.end(), {1, 0});  // offset 1, length 4
    for (int k = 0; k < 4; ++k) expect.push_back(expect.back());
    for (size_t off = 1; off <= 40; ++off) {
        for (size_t ml = 4; ml <= 80; ml += (ml < 24 ? 1 : 7)) {
            const size_t code = ml - 4;
            block.push_back(static_cast<uint8_t>(0x30 | (code < 15 ? code : 15)));
            for (int k = 0; k < 3; ++k) {
                expect.push_back(static_cast<uint8_t>(r()));
                block.push_back(expect.back());
            }
            block.push_back(static_cast<uint8_t>(off));
            block.push_back(0);
            if (code >= 15) length(code - 15);
            for (size_t k = 0; k < ml; ++k) expect.push_back(expect[expect.size() - off]);
        }
    }
    block.push_back(0xF0);
    length(100 - 15);
    for (int i = 0; i < 100; ++i) {
        expect.push_back(static_cast<uint8_t>(r()));
        block.push_back(expect.back());
    }
    EXPECT_EQ(ourDecode(block, expect.size()), expect);
    EXPECT_EQ(peerDecode(block, expect.size()), expect);
}

TEST(LZ4Decode, CapacityOneTooSmallWritesEveryByteThatFits) {
    const Bytes in = textBytes(5000, 9);
    const Bytes block = ourEncode(in);
    // Find a capacity that ends inside a match and one inside a literal run by
    // trying every capacity below the full size near the end and in the middle.
    for (size_t cap : {in.size() - 1, in.size() - 3, size_t(1)}) {
        Guarded out(cap);
        int dl = static_cast<int>(cap);
        EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsDecodeLZ4_8u(block.data(), static_cast<int>(block.size()), out.data(), &dl))
            << cap;
        EXPECT_TRUE(out.intact());
        EXPECT_EQ(dl, static_cast<int>(cap));
        EXPECT_EQ(out.head(dl), Bytes(in.begin(), in.begin() + dl));
    }
    // Inside a literal run of an incompressible block, and inside a match.
    Bytes lit = {0x50, 'a', 'b', 'c', 'd', 'e'};
    Guarded o1(3);
    int dl = 3;
    EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsDecodeLZ4_8u(lit.data(), 6, o1.data(), &dl));
    EXPECT_EQ(dl, 3);
    EXPECT_EQ(o1.head(3), (Bytes{'a', 'b', 'c'}));
    EXPECT_TRUE(o1.intact());
    Bytes mat = {0x14, 'a', 1, 0, 0x50, '1', '2', '3', '4', '5'};  // 'a' x 9
    Guarded o2(6);
    int sl = static_cast<int>(mat.size());
    dl = 6;
    EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsDecodeLZ4Dict_8u(mat.data(), &sl, o2.data(), 0, &dl, nullptr, 0));
    EXPECT_EQ(dl, 6);
    EXPECT_EQ(sl, 4) << "token, literal and offset consumed";
    EXPECT_EQ(o2.head(6), Bytes(6, 'a'));
    EXPECT_TRUE(o2.intact());
}

TEST(LZ4Decode, OutputFullAtTheEndOfALiteralRunIsSuccess) {
    Bytes block = {0x30, 'a', 'b', 'c', 1, 0, 0x50, '1', '2', '3', '4', '5'};
    Guarded out(3);
    int sl = static_cast<int>(block.size()), dl = 3;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, out.data(), 0, &dl, nullptr, 0));
    EXPECT_EQ(dl, 3);
    EXPECT_EQ(sl, 4);
}

TEST(LZ4Decode, TruncatedBlockWritesTheAvailableLiterals) {
    const Bytes in = randomBytes(300, 4);  // incompressible: one long literal run
    const Bytes block = ourEncode(in);
    for (size_t cut : {size_t(2), size_t(3), size_t(10), size_t(150), block.size() - 1}) {
        Bytes b(block.begin(), block.begin() + cut);
        Guarded out(300);
        int sl = static_cast<int>(cut), dl = 300;
        EXPECT_EQ(ozrWarnSrcSizeLess, m7_ozrsDecodeLZ4Dict_8u(b.data(), &sl, out.data(), 0, &dl, nullptr, 0)) << cut;
        EXPECT_EQ(sl, static_cast<int>(cut));
        const int lits = static_cast<int>(cut) - 3;  // token and two length bytes
        EXPECT_EQ(dl, lits < 0 ? 0 : lits);
        EXPECT_EQ(out.head(dl), Bytes(in.begin(), in.begin() + dl));
    }
    // A literal run that ends within the last 7 bytes but is not the last.
    Bytes early = {0x20, 'a', 'b', 1, 0, 0x50, 'x'};
    uint8_t out[16];
    int sl = static_cast<int>(early.size()), dl = 16;
    EXPECT_EQ(ozrWarnSrcSizeLess, m7_ozrsDecodeLZ4Dict_8u(early.data(), &sl, out, 0, &dl, nullptr, 0));
    EXPECT_EQ(dl, 2);
    EXPECT_EQ(sl, 3);
}

TEST(LZ4Decode, TrailingByteAfterACompleteSequenceIsNotRead) {
    // A literal run followed by one byte ends in the last 7 bytes without being the
    // last: the block is cut short.
    Bytes block = {0x50, '1', '2', '3', '4', '5', 0x99};
    uint8_t out[2048];
    int dl = 2048;
    EXPECT_EQ(ozrWarnSrcSizeLess, m7_ozrsDecodeLZ4_8u(block.data(), 7, out, &dl));
    // After a complete match the lone byte is left unread, with success.
    Bytes b2 = {0x1F, 'a', 1, 0, 255, 255, 255, 255, 10, 0x42};
    int sl = static_cast<int>(b2.size());
    dl = 2048;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(b2.data(), &sl, out, 0, &dl, nullptr, 0));
    EXPECT_EQ(sl, 9);
    EXPECT_EQ(dl, 1 + 15 + 4 * 255 + 10 + 4);
    EXPECT_EQ(Bytes(out, out + dl), Bytes(dl, 'a'));
}

TEST(LZ4Decode, MatchBeforeTheHistoryFails) {
    // "abcd" then a match at offset 10: 6 bytes before the write start.
    // Token 0x40: four literals, a match of length 4.
    Bytes block = {0x40, 'a', 'b', 'c', 'd', 10, 0, 0x50, '1', '2', '3', '4', '5'};
    Bytes out(64, 0);
    int sl = static_cast<int>(block.size()), dl = 32;
    EXPECT_EQ(ozrErrFailed, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, out.data() + 32, 0, &dl, nullptr, 0));
    EXPECT_EQ(sl, static_cast<int>(block.size())) << "counts are not updated on failure";
    EXPECT_EQ(dl, 32);
    dl = 32;
    EXPECT_EQ(ozrErrFailed, m7_ozrsDecodeLZ4_8u(block.data(), static_cast<int>(block.size()), out.data() + 32, &dl));

    // Through a prefix of 6 bytes (lying right before the output) it succeeds, of 5 it fails.
    for (int prefix : {5, 6}) {
        Bytes buf(64, 0);
        const char* p = "PQRSTU";
        std::memcpy(buf.data() + 32 - prefix, p + 6 - prefix, prefix);
        sl = static_cast<int>(block.size()), dl = 32;
        OzrResult st = m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, buf.data() + 32, 0, &dl, buf.data() + 32 - prefix,
                                               prefix);
        if (prefix == 5) {
            EXPECT_EQ(st, ozrErrFailed);
            continue;
        }
        ASSERT_EQ(st, ozrOk);
        EXPECT_EQ(Bytes(buf.begin() + 32, buf.begin() + 32 + dl), Bytes({'a', 'b', 'c', 'd', 'P', 'Q', 'R', 'S', '1', '2', '3', '4', '5'}));
    }

    // With an external dictionary of 8 bytes and dstIdx 8: the match source is at
    // virtual position 2: dictionary bytes 2..5.
    const Bytes dict = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
    Bytes buf(64, 0xEE);
    sl = static_cast<int>(block.size()), dl = 32;
    ASSERT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, buf.data(), 8, &dl, dict.data(), 8));
    EXPECT_EQ(Bytes(buf.begin() + 8, buf.begin() + 8 + dl), Bytes({'a', 'b', 'c', 'd', 'C', 'D', 'E', 'F', '1', '2', '3', '4', '5'}));
}

TEST(LZ4Decode, ExternalDictionaryMatchContinuesAfterTheDictionary) {
    // "wxyz" then offset 6 length 8 with dictionary "ABCDEFGH" at dstIdx 8: virtual
    // source 6 = "GH" from the dictionary, then pDst + 8 onward = "wxyz", then "GH" again.
    Bytes block = {0x44, 'w', 'x', 'y', 'z', 6, 0, 0x50, '1', '2', '3', '4', '5'};
    const Bytes dict = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
    Bytes buf(64, 0xEE);
    int sl = static_cast<int>(block.size()), dl = 40;
    ASSERT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, buf.data(), 8, &dl, dict.data(), 8));
    std::string got(buf.begin() + 8, buf.begin() + 8 + dl);
    EXPECT_EQ(got, "wxyzGHwxyzGH12345");
    // A match before the buffer's base fails.
    block[5] = 13;
    sl = static_cast<int>(block.size()), dl = 40;
    EXPECT_EQ(ozrErrFailed, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, buf.data(), 8, &dl, dict.data(), 8));
}

TEST(LZ4Decode, OverflowingLengthExtensionIsASizeError) {
    Bytes block = {0xF0};
    block.insert(block.end(), (size_t(1) << 31) / 255 + 2, 255);
    block.push_back(0);
    block.insert(block.end(), 64, 'x');
    Bytes out(256);
    int dl = 256;
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZ4_8u(block.data(), static_cast<int>(block.size()), out.data(), &dl));
    EXPECT_EQ(dl, 256);
}

TEST(LZ4Decode, ExactEndIsSuccessWithTheDecodedSize) {
    for (const Bytes& in : inputs()) {
        const Bytes block = ourEncode(in);
        Guarded out(in.size() + 100);
        int sl = static_cast<int>(block.size()), dl = static_cast<int>(in.size() + 100);
        ASSERT_EQ(ozrOk, m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, out.data(), 0, &dl, nullptr, 0));
        EXPECT_EQ(sl, static_cast<int>(block.size()));
        EXPECT_EQ(out.head(dl), in);
    }
}

TEST(LZ4Decode, EveryCapacityAndCutOfASmallBlock) {
    // Each capacity gives a prefix of the data; each cut of the block gives a prefix.
    const Bytes in = repetitiveBytes(3000, 21);
    const Bytes block = ourEncode(in);
    for (size_t cap = 1; cap <= in.size(); cap += 7) {
        Guarded out(cap);
        int sl = static_cast<int>(block.size()), dl = static_cast<int>(cap);
        OzrResult st = m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, out.data(), 0, &dl, nullptr, 0);
        ASSERT_TRUE(st == ozrOk || st == ozrWarnDstSizeLess) << st;
        ASSERT_TRUE(out.intact()) << "cap " << cap << " st " << st << " dl " << dl;
        EXPECT_EQ(out.head(dl), Bytes(in.begin(), in.begin() + dl));
        if (st == ozrWarnDstSizeLess) EXPECT_EQ(dl, static_cast<int>(cap));
    }
    for (size_t cut = 1; cut < block.size(); ++cut) {
        Guarded out(in.size());
        int sl = static_cast<int>(cut), dl = static_cast<int>(in.size());
        OzrResult st = m7_ozrsDecodeLZ4Dict_8u(block.data(), &sl, out.data(), 0, &dl, nullptr, 0);
        ASSERT_TRUE(st == ozrOk || st == ozrWarnSrcSizeLess || st == ozrErrFailed) << st;
        ASSERT_TRUE(out.intact());
        if (st >= 0) {
            EXPECT_LE(sl, static_cast<int>(cut));
            EXPECT_EQ(out.head(dl), Bytes(in.begin(), in.begin() + dl)) << cut;
        }
    }
}

TEST(LZ4Decode, FastLoopAgreesWithAByteExactModelOnDamagedBlocks) {
    // Whole, cut, squeezed and corrupted blocks: the fast loop's hand-over to the exact
    // copies must not change a status, a count or a byte, with and without a prefix.
    std::mt19937 r(11);
    std::vector<Bytes> blocks;
    for (uint32_t seed : {1u, 2u, 3u}) {
        blocks.push_back(ourEncode(textBytes(6000, seed)));
        blocks.push_back(ourEncode(repetitiveBytes(6000, seed)));
    }
    blocks.push_back(ourEncode(randomBytes(3000, 4)));
    constexpr size_t kPrefix = 1000;
    const Bytes history = randomBytes(kPrefix, 5);
    // Where each match offset of a block lies, and how much output precedes the match.
    auto matches = [](const Bytes& b) {
        std::vector<std::pair<size_t, size_t>> at;
        size_t ip = 0, op = 0;
        auto length = [&](size_t len) {
            for (uint8_t c = 255; c == 255;) len += c = b[ip++];
            return len;
        };
        for (;;) {
            const uint8_t token = b[ip++];
            const size_t lit = (token >> 4) == 15 ? length(15) : token >> 4;
            ip += lit, op += lit;
            if (ip >= b.size()) return at;
            at.emplace_back(ip, op);
            ip += 2;
            op += ((token & 15) == 15 ? length(15) : token & 15) + 4;
        }
    };
    int cases = 0;
    for (const Bytes& whole : blocks) {
        const auto offsets = matches(whole);
        for (int trial = 0; trial < 150; ++trial) {
            Bytes block = whole;
            if (trial % 3 == 1) {
                for (int k = 1 + r() % 3; k > 0; --k) block[r() % block.size()] = static_cast<uint8_t>(r());
            } else if (trial % 3 == 2 && !offsets.empty()) {
                // An offset at the history's edge or one byte beyond it.
                const auto [pos, produced] = offsets[r() % offsets.size()];
                const size_t off = std::min<size_t>(produced + (trial & 8 ? kPrefix : 0) + (trial & 4 ? 1 : 0), 65535);
                block[pos] = static_cast<uint8_t>(off);
                block[pos + 1] = static_cast<uint8_t>(off >> 8);
            }
            size_t len = trial % 5 == 1 ? 1 + r() % block.size() : block.size();
            if (trial < 70) len = block.size() - trial % 70;  // every cut in the last 70 bytes
            const size_t cap = trial % 4 == 2 ? 1 + r() % 8000 : 7000 + trial % 100;
            for (size_t reach : {size_t(0), kPrefix}) {
                Bytes want(kPrefix + cap, 0), got(kPrefix + cap + 64, 0);
                std::memcpy(want.data(), history.data(), kPrefix);
                std::memcpy(got.data(), history.data(), kPrefix);
                const ref::Lz4Result m = ref::lz4Decode(block.data(), len, want.data() + kPrefix, cap, reach);
                // The block ends right before an unmapped page: a read past it faults.
                GuardedBuffer in(block.data(), len);
                int sl = static_cast<int>(len), dl = static_cast<int>(cap);
                // A dictionary that ends where the output starts is the prefix decoder.
                const OzrResult st = m7_ozrsDecodeLZ4Dict_8u(in.data(), &sl, got.data(), kPrefix, &dl,
                                                             reach ? got.data() : nullptr, static_cast<int>(reach));
                ASSERT_EQ(st, m.st) << "trial " << trial << " len " << len << " cap " << cap << " reach " << reach;
                if (m.srcLen < 0) {
                    EXPECT_EQ(sl, static_cast<int>(len)) << "counts written on an error";
                    EXPECT_EQ(dl, static_cast<int>(cap)) << "counts written on an error";
                    continue;
                }
                ASSERT_EQ(sl, m.srcLen) << "trial " << trial;
                ASSERT_EQ(dl, m.dstLen) << "trial " << trial;
                if (!m.selfCopy)
                    ASSERT_TRUE(std::equal(want.begin(), want.begin() + kPrefix + dl, got.begin())) << "trial " << trial;
                ++cases;
            }
        }
    }
    EXPECT_GT(cases, 1000) << "too few blocks decoded to compare";
}

// ---- Argument checks ------------------------------------------------------------------

TEST(LZ4Args, NullPointersComeBeforeSizes) {
    uint8_t b[64] = {0};
    int n = 0, len = 64;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZ4_8u(nullptr, 0, b, &len));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZ4_8u(b, 0, b, &len));
    n = 0;
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZ4_8u(b, 4, b, &n));
    n = 4, len = 0;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZ4Dict_8u(b, nullptr, b, 0, &len, nullptr, 0));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZ4Dict_8u(b, &n, b, 0, &len, nullptr, 0));
    len = 8;
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZ4Dict_8u(b, &n, b + 32, 0, &len, b, -3)) << "external dictionary size";

    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4HashTableGetSize_8u(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4HashTableInit_8u(nullptr, 0));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4HashTableInit_8u(table.data(), 0));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4DictHashTableInit_8u(table.data(), -1));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4LoadDict_8u(table.data(), nullptr, 0));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4LoadDict_8u(table.data(), b, 0));

    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4_8u(b, 0, b, &len, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4_8u(nullptr, 0, b, &len, table.data()));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4_8u(b, 0, b, &len, table.data()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4Safe_8u(b, nullptr, b, &len, table.data()));
    n = 0;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4Safe_8u(b, &n, b, &len, nullptr));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4Safe_8u(b, &n, b, &len, table.data()));
    n = 10, len = 0;
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4Safe_8u(b, &n, b, &len, table.data()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4Fast_8u(nullptr, 0, b, &len, table.data(), 0));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4Fast_8u(b, 0, b, &len, table.data(), 0));
    EXPECT_EQ(ozrErrAccelerationRange, m7_ozrsEncodeLZ4Fast_8u(b, 10, b + 16, &len, table.data(), 0));

    Bytes t(16384);
    len = 64;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4Dict_8u(b, 0, 10, b, &len, nullptr, b, 10));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4Dict_8u(b, 4, 10, b, &len, t.data(), b + 40, -1));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4Dict_8u(nullptr, 4, 10, b, &len, t.data(), b + 40, 8));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4Dict_8u(b, 4, 0, b, &len, t.data(), b + 40, 8));
    EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZ4Dict_8u(b, -1, 10, b + 16, &len, t.data(), b + 40, 8));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4DictSafe_8u(b, 0, nullptr, b, &len, t.data(), b, 8));
}

TEST(LZ4Args, DictionaryTableIsRebasedBelowTheNewInput) {
    // Entries at or beyond the new input are lowered to histLen - 1; the history
    // (1000 bytes) lies in memory right before the input.
    std::vector<Ozr32s> t(4096);
    for (int i = 0; i < 4096; ++i) t[i] = i * 100;
    Bytes all = randomBytes(1100, 1);
    Bytes out(worstCase(100));
    int len = 0;
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4Dict_8u(all.data() + 1000, 1000, 100, out.data(), &len,
                                             reinterpret_cast<Ozr8u*>(t.data()), nullptr, 0));
    int changed = 0;
    for (int i = 0; i < 4096; ++i) {
        if (t[i] >= 1000) continue;  // a position of the new input (random data: few)
        EXPECT_EQ(t[i], std::min(i * 100, 999));
        changed += i * 100 != t[i];
    }
    EXPECT_GT(changed, 4000);
    Bytes dec(100);
    EXPECT_EQ(100, LZ4_decompress_safe_usingDict(reinterpret_cast<const char*>(out.data()),
                                                 reinterpret_cast<char*>(dec.data()), len, 100,
                                                 reinterpret_cast<const char*>(all.data()), 1000));
    EXPECT_EQ(dec, Bytes(all.begin() + 1000, all.end()));
}

// ---- The tool's LZ4 frames against the lz4 command -------------------------------------

namespace {

std::string tmpPath(const std::string& name) { return ::testing::TempDir() + "ozrdc_lz4_" + name; }

void writeFile(const std::string& path, const Bytes& b) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    if (!b.empty()) std::fwrite(b.data(), 1, b.size(), f);
    std::fclose(f);
}

Bytes readFile(const std::string& path) {
    Bytes b;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return b;
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) b.insert(b.end(), buf, buf + n);
    std::fclose(f);
    return b;
}

int run(const std::string& cmd) { return std::system((cmd + " 2>/dev/null").c_str()); }

bool haveLz4Tool() { return run("lz4 --version >/dev/null") == 0; }

}  // namespace

TEST(LZ4Tool, OurFramesDecodeWithTheLz4Command) {
    if (!haveLz4Tool()) GTEST_SKIP() << "no lz4 command";
    const std::string tool = OZRDC_TOOL_PATH;
    for (const Bytes& in : {Bytes{}, randomBytes(1, 1), textBytes(100000, 2), repetitiveBytes(9 << 20, 3)}) {
        const std::string src = tmpPath("in"), enc = tmpPath("in.lz4"), dec = tmpPath("dec");
        writeFile(src, in);
        for (const char* level : {"", " -l 9"}) {
            ASSERT_EQ(0, run(tool + " compress -f -F lz4" + level + " " + src + " -o " + enc));
            ASSERT_EQ(0, run("lz4 -d -q -f " + enc + " " + dec));
            EXPECT_EQ(readFile(dec), in) << in.size() << level;
        }
    }
}

TEST(LZ4Tool, Lz4CommandFramesDecodeWithOurs) {
    if (!haveLz4Tool()) GTEST_SKIP() << "no lz4 command";
    const std::string tool = OZRDC_TOOL_PATH;
    const Bytes in = repetitiveBytes(5 << 20, 4);
    const std::string src = tmpPath("src"), enc = tmpPath("src.lz4"), dec = tmpPath("out");
    writeFile(src, in);
    for (const char* opts : {"", "-BD", "-BX", "-B4 -BD -BX", "--content-size", "-9 -B4 -BD", "--no-frame-crc"}) {
        ASSERT_EQ(0, run(std::string("lz4 -q -f ") + opts + " " + src + " " + enc));
        ASSERT_EQ(0, run(tool + " decompress -f " + enc + " -o " + dec)) << opts;
        EXPECT_EQ(readFile(dec), in) << opts;
    }
    // Two frames in a row with a skippable frame between them.
    Bytes both = readFile(enc);
    const Bytes skippable = {0x5A, 0x2A, 0x4D, 0x18, 3, 0, 0, 0, 'x', 'y', 'z'};
    both.insert(both.end(), skippable.begin(), skippable.end());
    const Bytes first = readFile(enc);
    both.insert(both.end(), first.begin(), first.end());
    writeFile(enc, both);
    ASSERT_EQ(0, run(tool + " decompress -f " + enc + " -o " + dec));
    Bytes twice(in);
    twice.insert(twice.end(), in.begin(), in.end());
    EXPECT_EQ(readFile(dec), twice);
}

TEST(LZ4Tool, DamagedFramesFailAndLeaveNoOutput) {
    const std::string tool = OZRDC_TOOL_PATH;
    const Bytes in = textBytes(300000, 5);
    const std::string src = tmpPath("dmg"), enc = tmpPath("dmg.lz4"), bad = tmpPath("bad.lz4"), dec = tmpPath("dmg.out");
    writeFile(src, in);
    ASSERT_EQ(0, run(tool + " compress -f -F lz4 " + src + " -o " + enc));
    const Bytes good = readFile(enc);
    std::remove(dec.c_str());
    writeFile(bad, Bytes(good.begin(), good.begin() + good.size() / 2));
    EXPECT_NE(0, run(tool + " decompress " + bad + " -o " + dec)) << "truncated";
    EXPECT_TRUE(readFile(dec).empty());
    Bytes flipped(good);
    flipped[good.size() / 2] ^= 0x10;
    writeFile(bad, flipped);
    EXPECT_NE(0, run(tool + " decompress " + bad + " -o " + dec)) << "corrupt";
    EXPECT_TRUE(readFile(dec).empty());
}

// ---- High-compression encoder ----------------------------------------------------------

namespace {

Bytes hcTable() {
    int size = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4HCHashTableGetSize_8u(&size));
    Bytes t(static_cast<size_t>(size));
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZ4HCHashTableInit_8u(t.data()));
    return t;
}

}  // namespace

TEST(LZ4HC, EveryLevelDecodesThroughLiblz4AndBeatsThePlainEncoder) {
    Bytes t = hcTable();
    for (const Bytes& in : inputs()) {
        if (in.size() > (1 << 20)) continue;
        const int n = static_cast<int>(in.size());
        const size_t plain = ourEncode(in).size();
        for (int level : {0, 1, 4, 8, 9, 10, 12}) {
            if (level == 12 && n > 70000) continue;  // slow, and covered by the smaller inputs
            Guarded out(worstCase(n));
            int sl = n, dl = static_cast<int>(out.capacity());
            ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4HC_8u(in.data(), &sl, out.data(), &dl, t.data(), level));
            ASSERT_TRUE(out.intact());
            EXPECT_EQ(sl, n);
            EXPECT_EQ(peerDecode(out.head(dl), in.size()), in) << "level " << level << " size " << n;
            EXPECT_LE(static_cast<size_t>(dl), plain) << "level " << level << " size " << n;
        }
    }
}

TEST(LZ4HC, BoundedOutputGivesAValidPrefixBlock) {
    Bytes t = hcTable();
    const Bytes in = textBytes(200000, 8);
    for (int level : {3, 9}) {
        for (int cap : {1, 5, 6, 7, 20, 100, 5000, 30000}) {
            Guarded out(cap);
            int sl = static_cast<int>(in.size()), dl = cap;
            EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsEncodeLZ4HC_8u(in.data(), &sl, out.data(), &dl, t.data(), level));
            ASSERT_TRUE(out.intact()) << cap;
            ASSERT_LE(dl, cap);
            EXPECT_EQ(peerDecode(out.head(dl), sl), Bytes(in.begin(), in.begin() + sl)) << cap;
        }
    }
}

TEST(LZ4HC, DictLimitBlocksContinueEarlierData) {
    Bytes t = hcTable();
    const Bytes all = textBytes(300000, 9);
    for (int start : {65536, 100000, 250000}) {
        const int n = static_cast<int>(all.size()) - start;
        Guarded out(worstCase(n));
        int sl = n, dl = static_cast<int>(out.capacity());
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4HCDictLimit_8u(all.data(), start, &sl, out.data(), &dl, t.data(), 0, 9));
        Bytes dec(n);
        const int hist = start < 65536 ? start : 65536;
        EXPECT_EQ(n, LZ4_decompress_safe_usingDict(reinterpret_cast<const char*>(out.data()),
                                                   reinterpret_cast<char*>(dec.data()), dl, n,
                                                   reinterpret_cast<const char*>(all.data() + start - hist), hist));
        EXPECT_EQ(dec, Bytes(all.begin() + start, all.end()));
        // The history must help: an independent block of the same data is larger.
        int sl2 = n, dl2 = static_cast<int>(out.capacity());
        Guarded out2(worstCase(n));
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZ4HCDictLimit_8u(all.data(), start, &sl2, out2.data(), &dl2, t.data(), start, 9));
        EXPECT_LT(dl, dl2);
    }
}

TEST(LZ4HC, ArgumentChecks) {
    Bytes t = hcTable();
    uint8_t b[64] = {0};
    int n = 10, len = 64;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4HCHashTableGetSize_8u(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4HCHashTableInit_8u(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZ4HC_8u(b, &n, b, &len, nullptr, 13));
    n = 0;
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4HC_8u(b, &n, b, &len, t.data(), 13));
    n = 10;
    EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZ4HC_8u(b, &n, b + 16, &len, t.data(), 13));
    EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZ4HC_8u(b, &n, b + 16, &len, t.data(), -1));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4HCDictLimit_8u(b, 4, &n, b + 16, &len, t.data(), 5, 9));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZ4HCDictLimit_8u(b, -1, &n, b + 16, &len, t.data(), 0, 9));
}
