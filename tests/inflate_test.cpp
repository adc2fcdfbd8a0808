// Inflate: zlib's and libdeflate's raw Deflate streams through the stream driver and
// the library's block decoder, whole and in every small split; the table builder's
// acceptance rule and layouts; the decoder's resume points, statuses and hand-back of
// unused input; hostile input against guard pages.
#include <gtest/gtest.h>
#include <unistd.h>

#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../fuzz/guarded.h"
#include "inflate_driver.h"
#include "m7.h"
#include "shell_run.h"
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

// ---- Table builder ----------------------------------------------------------------------

std::unique_ptr<OzrInflateState> freshState(uint8_t fill = 0x5A) {
    std::unique_ptr<OzrInflateState> st(new OzrInflateState());
    std::memset(st.get(), fill, sizeof(OzrInflateState));
    st->pWindow = nullptr;
    st->winSize = 0;
    return st;
}

// 288 + 32 code lengths, zero-filled, with the given symbol lengths.
struct Lens {
    Ozr16u v[320] = {};
    Ozr16u& lit(unsigned s) { return v[s]; }
};

// A complete literal/length set: 65 in 1 bit, 256 in 2, 257 and 285 in 3.
Lens tinyLens(unsigned nLit = 286) {
    Lens l;
    l.v[65] = 1;
    l.v[256] = 2;
    l.v[257] = 3;
    l.v[285] = 3;
    l.v[nLit + 0] = 1;
    l.v[nLit + 29] = 1;
    return l;
}

bool sameBytes(const OzrInflateState& a, const OzrInflateState& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(InflateBuildTable, ArgumentChecksInOrderBeforeAnyLengthIsRead) {
    auto st = freshState();
    GuardedBuffer none(0);  // any read of a length would fault
    const Ozr16u* lens = reinterpret_cast<const Ozr16u*>(none.data());
    EXPECT_EQ(ozrsInflateBuildHuffTable(nullptr, 289, 31, st.get()), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflateBuildHuffTable(lens, 286, 30, nullptr), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflateBuildHuffTable(lens, 289, 0, st.get()), ozrErrSize);
    EXPECT_EQ(ozrsInflateBuildHuffTable(lens, 0, -1, st.get()), ozrErrSize);
    EXPECT_EQ(ozrsInflateBuildHuffTable(lens, 0, 31, st.get()), ozrErrSize);
}

TEST(InflateBuildTable, ShortTableEntriesHaveTheirExactEncoding) {
    auto st = freshState();
    Lens l = tinyLens();
    ASSERT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrOk);
    EXPECT_EQ(st->tableType, 2u);
    EXPECT_EQ(st->litMaxLen, 3u);
    EXPECT_EQ(st->distMaxLen, 1u);
    Ozr16u lit[8];
    std::memcpy(lit, st->tableBuffer, sizeof lit);
    // 65: code 0; 256: code 10 (stream order 0,1 -> index 1); 257: 110 -> 3; 285: 111 -> 7.
    const Ozr16u want[8] = {0x4101, 0x00F2, 0x4101, 0x0083, 0x4101, 0x00F2, 0x4101, 0xFF83};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(lit[i], want[i]) << i;
    const uint8_t* dl = st->tableBuffer + 16;
    EXPECT_EQ(dl[0], 0x01);
    EXPECT_EQ(dl[1], 0xD1);
    Ozr16u db[2];
    std::memcpy(db, dl + 1024, sizeof db);
    EXPECT_EQ(db[0], 1);
    EXPECT_EQ(db[1], 24577);
}

TEST(InflateBuildTable, RefusedSetsLeaveTheRecordUntouched) {
    struct Case {
        const char* what;
        Lens l;
        unsigned nLit;
        int nDist;
    };
    std::vector<Case> cases;
    {   Lens l = tinyLens(); l.v[66] = 1; cases.push_back({"over-subscribed literal/length", l, 286, 30}); }
    {   Lens l = tinyLens(); l.v[285] = 0; cases.push_back({"incomplete literal/length", l, 286, 30}); }
    {   Lens l = tinyLens(); l.v[286 + 1] = 1; cases.push_back({"over-subscribed distances", l, 286, 30}); }
    {   Lens l = tinyLens(); l.v[286 + 29] = 2; cases.push_back({"incomplete distances", l, 286, 30}); }
    {   Lens l; l.v[286] = 2; cases.push_back({"one 2-bit distance code", l, 286, 30});
        l.v[0] = 1; l.v[256] = 1; cases.back().l = l; }
    {   Lens l = tinyLens(); l.v[65] = 16; cases.push_back({"length above 15", l, 286, 30}); }
    {   Lens l; l.v[286] = 1; cases.push_back({"no literal/length code", l, 286, 30}); }
    {   Lens l; l.v[7] = 2; cases.push_back({"one 2-bit literal/length code", l, 286, 30}); }
    for (auto& c : cases) {
        auto st = freshState();
        auto copy = freshState();
        EXPECT_EQ(ozrsInflateBuildHuffTable(c.l.v, c.nLit, c.nDist, st.get()), ozrErrHuffTable) << c.what;
        EXPECT_TRUE(sameBytes(*st, *copy)) << c.what;
    }
}

TEST(InflateBuildTable, AcceptsTheIncompleteSetsDeflateAllows) {
    auto st = freshState();
    Lens l;
    l.v[256] = 1;
    l.v[97] = 1;
    EXPECT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrOk) << "no distance code";
    EXPECT_EQ(st->distMaxLen, 0u);
    EXPECT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 0, st.get()), ozrOk) << "no distance lengths";
    l.v[286 + 5] = 1;
    EXPECT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrOk) << "one 1-bit distance code";
    Lens one;
    one.v[256] = 1;
    EXPECT_EQ(ozrsInflateBuildHuffTable(one.v, 257, 0, st.get()), ozrOk) << "one 1-bit literal/length code";
}

TEST(InflateBuildTable, Symbols286And287DecodeAsLiteralZero) {
    auto st = freshState();
    Lens l = tinyLens(288);
    l.v[257] = 0;
    l.v[285] = 0;
    l.v[286] = 3;
    l.v[287] = 3;
    ASSERT_EQ(ozrsInflateBuildHuffTable(l.v, 288, 30, st.get()), ozrOk);
    Ozr16u lit[8];
    std::memcpy(lit, st->tableBuffer, sizeof lit);
    EXPECT_EQ(lit[3], 0x0003);
    EXPECT_EQ(lit[7], 0x0003);
}

// Lengths for n symbols forming a complete code whose longest code is maxLen bits:
// one symbol each of 1 .. maxLen - 1 bits and two of maxLen bits.
void chainLens(Ozr16u* v, const unsigned* syms, unsigned maxLen) {
    for (unsigned L = 1; L < maxLen; ++L) v[syms[L - 1]] = static_cast<Ozr16u>(L);
    v[syms[maxLen - 1]] = static_cast<Ozr16u>(maxLen);
    v[syms[maxLen]] = static_cast<Ozr16u>(maxLen);
}

TEST(InflateBuildTable, SwitchesToTheLongTableAbove11And10Bits) {
    const unsigned litSyms[16] = {256, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 257, 258, 259, 260};
    const unsigned distSyms[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    struct Case { unsigned litMax, distMax, type; };
    for (Case c : {Case{11, 10, 2}, Case{12, 10, 1}, Case{11, 11, 1}, Case{15, 15, 1}, Case{1, 1, 2}}) {
        Lens l;
        chainLens(l.v, litSyms, c.litMax);
        chainLens(l.v + 286, distSyms, c.distMax);
        auto st = freshState();
        ASSERT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrOk) << c.litMax << "/" << c.distMax;
        EXPECT_EQ(st->tableType, c.type) << c.litMax << "/" << c.distMax;
        EXPECT_EQ(st->litMaxLen, c.litMax);
        EXPECT_EQ(st->distMaxLen, c.distMax);
    }
}

TEST(InflateBuildTable, ShortTableNeedsAnEndOfBlockCode) {
    Lens l = tinyLens();
    l.v[256] = 0;
    l.v[258] = 2;
    auto st = freshState();
    const Ozr32u typeBefore = st->tableType;
    EXPECT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrErrHuffTable);
    EXPECT_EQ(st->tableType, typeBefore);
    EXPECT_EQ(st->litMaxLen, 3u) << "the maxima are stored before the short-table checks";
    Lens few;
    few.v[0] = 1;
    few.v[1] = 1;
    EXPECT_EQ(ozrsInflateBuildHuffTable(few.v, 256, 0, st.get()), ozrErrHuffTable) << "fewer than 257 lengths";
}

// ---- Block decoder --------------------------------------------------------------------

// LSB-first bit writer; codes are given MSB-first as RFC 1951 writes Huffman codes.
struct BitWriter {
    Bytes out;
    uint64_t acc = 0;
    unsigned n = 0;
    void bits(uint32_t v, unsigned k) {
        acc |= uint64_t(v) << n;
        n += k;
        while (n >= 8) out.push_back(uint8_t(acc)), acc >>= 8, n -= 8;
    }
    void code(uint32_t c, unsigned len) {
        for (unsigned i = len; i-- > 0;) bits(c >> i & 1, 1);
    }
    // Fixed-code symbols.
    void literal(unsigned b) { b < 144 ? code(0x30 + b, 8) : code(0x190 + b - 144, 9); }
    void endOfBlock() { code(0, 7); }
    void lengthSym(unsigned s) { s < 280 ? code(s - 256, 7) : code(0xC0 + s - 280, 8); }
    void distSym(unsigned d) { code(d, 5); }
    Bytes finish() {
        if (n) out.push_back(uint8_t(acc));
        acc = 0, n = 0;
        return out;
    }
};

struct Call {
    const Ozr8u* ip;
    Ozr32u inLen, code = 0, bits = 0;
    Ozr8u* op;
    Ozr32u outLen;
    OzrInflateMode mode = 0;
    OzrResult run(OzrInflateState* st, Ozr32s winIdx = 0, Ozr32s dstIdx = 0) {
        return ozrsInflate_8u(&ip, &inLen, &code, &bits, winIdx, &op, &outLen, dstIdx, &mode, st);
    }
};

TEST(InflateDecode, ArgumentChecksInOrder) {
    auto st = freshState();
    st->tableType = 0;
    Bytes in(4, 0), out(4);
    const Ozr8u* ip = in.data();
    Ozr8u* op = out.data();
    const Ozr8u* nullIp = nullptr;
    Ozr8u* nullOp = nullptr;
    Ozr32u inLen = 4, code = 0, bits = 33, outLen = 4;
    OzrInflateMode mode = 0;
    EXPECT_EQ(ozrsInflate_8u(nullptr, &inLen, &code, &bits, 0, &op, &outLen, 0, &mode, st.get()), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, nullptr, 0, &op, &outLen, 0, &mode, st.get()), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 0, &op, &outLen, 0, nullptr, st.get()), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 0, &op, &outLen, 0, &mode, nullptr), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflate_8u(&nullIp, &inLen, &code, &bits, 0, &op, &outLen, 0, &mode, st.get()), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 0, &nullOp, &outLen, 0, &mode, st.get()), ozrErrNullPointer);
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 0, &op, &outLen, 0, &mode, st.get()), ozrErrSize);
    bits = 32;
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 1, &op, &outLen, 0, &mode, st.get()), ozrErrSize)
        << "winIdx above winSize";
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, -1, &op, &outLen, 0, &mode, st.get()), ozrErrSize)
        << "negative winIdx, compared unsigned";
    EXPECT_EQ(ip, in.data());
    EXPECT_EQ(inLen, 4u);
    EXPECT_EQ(outLen, 4u);
    // 32 held bits are accepted: 0 bits of fixed code are the end-of-block code.
    code = 0;
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 0, &op, &outLen, 0, &mode, st.get()), ozrOk);
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(bits, 25u);
    EXPECT_EQ(inLen, 4u) << "no input byte needed";

    st->tableType = 3;
    mode = 1;
    code = 0x1234, bits = 16;
    EXPECT_EQ(ozrsInflate_8u(&ip, &inLen, &code, &bits, 0, &op, &outLen, 0, &mode, st.get()), ozrErrHuffTable);
    EXPECT_EQ(code, 0x1234u);
    EXPECT_EQ(bits, 16u);
    EXPECT_EQ(mode, 1u);
}

TEST(InflateDecode, EndOfBlockHandsBackUnreadInputAndBits) {
    BitWriter w;
    w.literal('a');
    w.literal('b');
    w.endOfBlock();        // 8 + 8 + 7 bits: the block ends at bit 23
    w.bits(0x5, 3);        // the next header's bits
    w.bits(0xABCDEF, 24);  // and further bytes
    const Bytes in = w.finish();
    auto st = freshState();
    st->tableType = 0;
    Bytes out(16);
    Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), 16};
    ASSERT_EQ(c.run(st.get()), ozrOk);
    EXPECT_EQ(c.mode, 0u);
    EXPECT_EQ(c.op - out.data(), 2);
    EXPECT_EQ(out[0], 'a');
    EXPECT_EQ(out[1], 'b');
    EXPECT_EQ(c.ip - in.data(), 3) << "bytes 0..2 hold the block";
    EXPECT_EQ(c.bits, 1u);
    EXPECT_EQ(c.code, 1u) << "the low bit of 0x5";
    EXPECT_EQ(c.inLen, in.size() - 3);
}

TEST(InflateDecode, MatchesReachIntoOutputAndWindowButNotBeforeThem) {
    // 'x', then a match of length 258 at distance 1, then length 3 at distance 5.
    BitWriter w;
    w.literal('x');
    w.lengthSym(285);
    w.distSym(0);
    w.lengthSym(257);
    w.distSym(4);
    w.bits(0, 1);  // distance 5: code 4, one extra bit 0
    w.endOfBlock();
    const Bytes in = w.finish();
    auto st = freshState();
    st->tableType = 0;
    Bytes out(300, 0);
    {
        Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), 300};
        ASSERT_EQ(c.run(st.get()), ozrOk);
        EXPECT_EQ(c.mode, 0u);
        ASSERT_EQ(c.op - out.data(), 262);
        EXPECT_TRUE(std::all_of(out.begin(), out.begin() + 262, [](uint8_t b) { return b == 'x'; }));
    }
    // Starting at distance 2 without history fails; with one byte before *ppDst or one
    // in the window it decodes.
    BitWriter v;
    v.literal('y');
    v.lengthSym(257);
    v.distSym(1);
    v.endOfBlock();
    const Bytes in2 = v.finish();
    {
        Call c{in2.data(), static_cast<Ozr32u>(in2.size()), 0, 0, out.data() + 1, 10};
        c.mode = 1;
        EXPECT_EQ(c.run(st.get()), ozrErrHuffTable);
        EXPECT_EQ(c.op - out.data(), 2) << "the literal before the bad match is written";
        EXPECT_EQ(c.mode, 1u) << "the mode is left as it was";
    }
    {
        out[0] = 'Q';
        Call c{in2.data(), static_cast<Ozr32u>(in2.size()), 0, 0, out.data() + 1, 10};
        ASSERT_EQ(c.run(st.get(), 0, 1), ozrOk);
        EXPECT_EQ(std::string(out.begin(), out.begin() + 5), "QyQyQ");
    }
    {
        const uint8_t win[4] = {'1', '2', '3', 'W'};
        st->pWindow = win;
        st->winSize = 4;
        Call c{in2.data(), static_cast<Ozr32u>(in2.size()), 0, 0, out.data(), 10};
        ASSERT_EQ(c.run(st.get(), 4, 0), ozrOk);
        EXPECT_EQ(std::string(out.begin(), out.begin() + 4), "yWyW");
        Call d{in2.data(), static_cast<Ozr32u>(in2.size()), 0, 0, out.data(), 10};
        EXPECT_EQ(d.run(st.get(), 0, 0), ozrErrHuffTable) << "winIdx 0: no history in the window";
    }
}

TEST(InflateDecode, CodesNoSymbolOwnsAreRefused) {
    auto st = freshState();
    st->tableType = 0;
    Bytes out(64);
    for (unsigned sym : {286u, 287u}) {
        BitWriter w;
        w.literal('a');
        w.lengthSym(sym);
        w.distSym(0);
        w.endOfBlock();
        const Bytes in = w.finish();
        Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), 64};
        EXPECT_EQ(c.run(st.get()), ozrErrHuffTable) << sym;
        EXPECT_EQ(c.op - out.data(), 1);
        EXPECT_EQ(8 * (c.ip - in.data()) - c.bits, 8u) << "the bad code is not consumed";
    }
    for (unsigned d : {30u, 31u}) {
        BitWriter w;
        w.literal('a');
        w.lengthSym(257);
        w.distSym(d);
        w.endOfBlock();
        const Bytes in = w.finish();
        Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), 64};
        EXPECT_EQ(c.run(st.get(), 0, 0), ozrErrHuffTable) << d;
    }
    // A block without distance codes that uses a length symbol.
    Lens l;
    l.v['a'] = 2;
    l.v[256] = 2;
    l.v[257] = 1;
    ASSERT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrOk);
    BitWriter w;
    w.code(2, 2);  // 'a' (codes: 257 -> 0, 'a' -> 10, 256 -> 11)
    w.code(0, 1);  // 257
    w.code(0, 1);  // no distance code owns anything
    w.code(3, 2);
    const Bytes in = w.finish();
    Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), 64};
    EXPECT_EQ(c.run(st.get()), ozrErrHuffTable);
    EXPECT_EQ(c.op - out.data(), 1);
}

TEST(InflateDecode, ALengthZeroLiteralInACallersTableIsRefusedWithNothingWritten) {
    // A table the builder did not make: the 1-bit code 0 of 'A' rewritten with length 0.
    // Taken as a literal it would repeat without consuming input; every loop refuses it.
    for (unsigned outRoom : {1u, 7u, 4096u}) {
        auto st = freshState();
        Lens l = tinyLens();
        ASSERT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 30, st.get()), ozrOk);
        for (int i = 0; i < 8; i += 2) {
            const Ozr16u zeroLen = 0x4100;
            std::memcpy(st->tableBuffer + 2 * i, &zeroLen, 2);
        }
        const Bytes in(600, 0);
        Bytes out(outRoom, 0xEE);
        Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), outRoom};
        EXPECT_EQ(c.run(st.get()), ozrErrHuffTable) << outRoom;
        EXPECT_EQ(c.op, out.data()) << outRoom;
        EXPECT_EQ(out, Bytes(outRoom, 0xEE)) << outRoom;
    }
}

TEST(InflateDecode, OneByteOutputResumesAtEveryStep) {
    const Bytes data = textBytes(5000, 21);
    const Bytes stream = zlibDeflate(data, 9);
    Options o;
    o.outPiece = 1;
    const auto r = inflateRaw(stream, o);
    ASSERT_EQ(r.error, Error::None);
    EXPECT_TRUE(r.out == data);
    EXPECT_GE(r.calls, data.size());
}

TEST(InflateDecode, AllZeroCodewordsCostBoundedWork) {
    // A table in which the all-zero code is the literal 0: every input bit yields at most
    // one output byte, and the call stops when the output fills.
    Lens l;
    l.v[0] = 1;
    l.v[256] = 2;
    l.v[257] = 2;
    auto st = freshState();
    ASSERT_EQ(ozrsInflateBuildHuffTable(l.v, 286, 0, st.get()), ozrOk);
    const Bytes zeros(1 << 20, 0);
    Bytes out(4 << 20);
    Call c{zeros.data(), static_cast<Ozr32u>(zeros.size()), 0, 0, out.data(), static_cast<Ozr32u>(out.size())};
    ASSERT_EQ(c.run(st.get()), ozrOk);
    EXPECT_EQ(c.mode, 2u) << "a literal waits for room";
    EXPECT_EQ(c.outLen, 0u);
    // Fixed code: all-zero bits are end-of-block codes, so a stream of empty fixed blocks
    // advances 10 bits a block and ends as truncated.
    BitWriter w;
    for (int i = 0; i < 100000; ++i) {
        w.bits(2, 3);
        w.endOfBlock();
    }
    const auto r = inflateRaw(w.finish());
    EXPECT_EQ(r.error, Error::Truncated);
    EXPECT_EQ(r.calls, 100000u);
}

// ---- Hostile input ------------------------------------------------------------------------

TEST(InflateHostile, InputAndOutputAgainstGuardPagesWholeAndInPieces) {
    const Bytes data = mixedBytes(60000, 31);
    auto st = freshState();
    for (const Bytes& s : {zlibDeflate(data, 6), zlibDeflate(data, 1, Z_FIXED), libdeflateCompress(data, 12)}) {
        GuardedBuffer in(s.data(), s.size());
        GuardedBuffer out(data.size());
        for (size_t piece : {size_t{0}, size_t{1}, size_t{5}, size_t{300}}) {
            Options o;
            o.inPiece = piece;
            o.outPiece = piece;
            const auto r = inflate_driver::inflateInto(in.data(), in.size(), out.data(), out.size(), o, st.get());
            ASSERT_EQ(r.error, Error::None) << piece;
            ASSERT_EQ(r.outLen, data.size());
            ASSERT_EQ(std::memcmp(out.data(), data.data(), data.size()), 0);
        }
    }
}

TEST(InflateHostile, StreamCutAtEveryByteGivesAStatus) {
    const Bytes data = mixedBytes(6000, 32);
    auto st = freshState();
    Bytes out(data.size());
    for (const Bytes& s : {zlibDeflate(data, 6), zlibDeflate(data, 6, Z_FIXED), zlibDeflate(data, 0)}) {
        for (size_t cut = 0; cut < s.size(); ++cut) {
            GuardedBuffer in(s.data(), cut);
            const auto r = inflate_driver::inflateInto(in.data(), cut, out.data(), out.size(), {}, st.get());
            ASSERT_EQ(r.error, Error::Truncated) << cut;
            ASSERT_EQ(std::memcmp(out.data(), data.data(), r.outLen), 0) << cut;
        }
    }
}

TEST(InflateHostile, DamagedStreamsGiveTheSameResultInEveryPieceSize) {
    const Bytes data = mixedBytes(20000, 33);
    const Bytes clean = zlibDeflate(data, 6);
    std::mt19937 rng(5);
    auto st = freshState();
    int errors = 0;
    for (int trial = 0; trial < 300; ++trial) {
        Bytes s = clean;
        for (int k = 0; k < 1 + trial % 3; ++k) s[rng() % s.size()] ^= static_cast<uint8_t>(1u << (rng() % 8));
        GuardedBuffer in(s.data(), s.size());
        Options whole;
        whole.maxOut = data.size() + 1000;
        const auto a = inflateRaw(in.data(), in.size(), whole);
        Options pieces = whole;
        pieces.inPiece = 1 + trial % 7;
        pieces.outPiece = 1 + trial % 5;
        const auto b = inflateRaw(in.data(), in.size(), pieces);
        ASSERT_EQ(a.error, b.error) << trial;
        ASSERT_EQ(a.status, b.status) << trial;
        ASSERT_TRUE(a.out == b.out) << trial;
        errors += a.error != Error::None;
    }
    EXPECT_GT(errors, 50);
}

// ---- The tool: gzip, zlib and raw Deflate files ---------------------------------------------

namespace fs = std::filesystem;

ToolRun sh(const std::string& cmd) { return runShell(cmd); }

class InflateTool : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("ozrdc_inflate_test_" + std::to_string(::getpid()));
        fs::create_directories(dir);
        data = mixedBytes(400000, 41);
        write("data", data);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    void write(const std::string& name, const Bytes& b) const {
        std::ofstream(path(name), std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
    }
    Bytes read(const std::string& name) const {
        std::ifstream f(path(name), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(f), {});
    }
    ToolRun decompress(const std::string& in, const std::string& out) const {
        return sh(std::string(OZRDC_TOOL_PATH) + " decompress -f -o " + path(out) + " " + path(in));
    }
    // Decodes `in` and expects the test data back.
    void expectRestores(const std::string& in, const Bytes& want) {
        const ToolRun r = decompress(in, "out");
        ASSERT_EQ(r.status, 0) << in << ": " << r.output;
        EXPECT_TRUE(read("out") == want) << in;
    }
    // Decoding `in` must fail with a message naming `why` and leave no output file.
    void expectRefused(const std::string& in, const std::string& why) {
        fs::remove(path("bad_out"));
        const ToolRun r = decompress(in, "bad_out");
        EXPECT_NE(r.status, 0) << in;
        EXPECT_NE(r.output.find(why), std::string::npos) << in << ": " << r.output;
        EXPECT_FALSE(fs::exists(path("bad_out"))) << in;
    }
    fs::path dir;
    Bytes data;
};

TEST_F(InflateTool, DecodesWhatGzipAndPigzWrite) {
    for (const char* cmd : {"gzip -c -1", "gzip -c -9", "gzip -c -n -6", "pigz -c -p 2 -b 128", "pigz -c -9 -p 1"}) {
        ASSERT_EQ(sh(std::string(cmd) + " " + path("data") + " > " + path("data.gz")).status, 0) << cmd;
        expectRestores("data.gz", data);
    }
    ASSERT_EQ(sh("pigz -c -z -p 2 " + path("data") + " > " + path("data.zz")).status, 0);
    expectRestores("data.zz", data);
    // Several members, as cat joins them.
    ASSERT_EQ(sh("gzip -c -1 " + path("data") + " > " + path("two.gz") + " && pigz -c " + path("data") + " >> " +
                 path("two.gz")).status, 0);
    Bytes twice = data;
    twice.insert(twice.end(), data.begin(), data.end());
    expectRestores("two.gz", twice);
}

TEST_F(InflateTool, ReadsEveryGzipHeaderField) {
    ASSERT_EQ(sh("gzip -c -n " + path("data") + " > " + path("plain.gz")).status, 0);
    const Bytes plain = read("plain.gz");
    Bytes h(plain.begin(), plain.begin() + 10);
    h[3] = 0x02 | 0x04 | 0x08 | 0x10;  // FHCRC, FEXTRA, FNAME, FCOMMENT
    const uint8_t extra[] = {7, 0, 'A', 'B', 3, 0, 1, 2, 3};
    h.insert(h.end(), extra, extra + sizeof extra);
    for (const char* z : {"name.txt", "a comment"}) h.insert(h.end(), z, z + std::strlen(z) + 1);
    const uLong hc = crc32(0, h.data(), static_cast<uInt>(h.size()));
    h.push_back(static_cast<uint8_t>(hc));
    h.push_back(static_cast<uint8_t>(hc >> 8));
    h.insert(h.end(), plain.begin() + 10, plain.end());
    write("fields.gz", h);
    expectRestores("fields.gz", data);
    h[h.size() - plain.size() + 10 - 1] ^= 1;
    write("badhcrc.gz", h);
    expectRefused("badhcrc.gz", "header CRC");
}

TEST_F(InflateTool, RefusesDamagedAndTruncatedFiles) {
    ASSERT_EQ(sh("gzip -c -n " + path("data") + " > " + path("ok.gz")).status, 0);
    const Bytes gz = read("ok.gz");
    Bytes crc = gz;
    crc[crc.size() - 6] ^= 0x40;
    write("crc.gz", crc);
    expectRefused("crc.gz", "CRC-32 mismatch");
    Bytes len = gz;
    len[len.size() - 2] ^= 1;
    write("len.gz", len);
    expectRefused("len.gz", "length mismatch");
    for (size_t cut : {size_t{5}, size_t{11}, gz.size() / 2, gz.size() - 4, gz.size() - 1}) {
        write("cut.gz", Bytes(gz.begin(), gz.begin() + cut));
        expectRefused("cut.gz", "truncated");
    }
    Bytes body = gz;
    body[body.size() / 3] ^= 0xFF;
    body[body.size() / 3 + 1] ^= 0xFF;
    write("body.gz", body);
    expectRefused("body.gz", "body.gz");
    Bytes junk = gz;
    junk.push_back('x');
    write("junk.gz", junk);
    expectRefused("junk.gz", "trailing data");
    Bytes padded = gz;
    padded.insert(padded.end(), 512, 0);
    write("padded.gz", padded);
    expectRestores("padded.gz", data);
}

TEST_F(InflateTool, ZlibAdlerCheckedAndPresetDictionaryRefused) {
    ASSERT_EQ(sh("pigz -c -z " + path("data") + " > " + path("ok.zz")).status, 0);
    Bytes zz = read("ok.zz");
    zz[zz.size() - 1] ^= 1;
    write("adler.zz", zz);
    expectRefused("adler.zz", "Adler-32 mismatch");
    // A stream made with a preset dictionary (FDICT set, the dictionary's Adler-32 next).
    z_stream z{};
    ASSERT_EQ(deflateInit(&z, 6), Z_OK);
    const Bytes dict = textBytes(1000, 1);
    deflateSetDictionary(&z, dict.data(), static_cast<uInt>(dict.size()));
    Bytes out(deflateBound(&z, data.size()));
    z.next_in = data.data();
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    ASSERT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    write("dict.zz", out);
    expectRefused("dict.zz", "preset dictionary");
}

TEST_F(InflateTool, RawDeflateIsKnownByItsExtension) {
    write("data.deflate", zlibDeflate(data, 6));
    expectRestores("data.deflate", data);
    Bytes cut = zlibDeflate(data, 6);
    cut.resize(cut.size() - 3);
    write("cut.deflate", cut);
    expectRefused("cut.deflate", "truncated");
}

TEST(InflateHostile, ARecordNotFilledByTheBuilderStaysInBounds) {
    // The table area ends right before an unmapped page; tables of random bytes, random
    // maxima and saved words: any status, never a read outside the record.
    GuardedBuffer rec(sizeof(OzrInflateState));
    auto* st = reinterpret_cast<OzrInflateState*>(rec.data());
    ASSERT_EQ(reinterpret_cast<uintptr_t>(st) % alignof(OzrInflateState), 0u);
    std::mt19937 rng(9);
    Bytes out(4096);
    for (int trial = 0; trial < 400; ++trial) {
        for (size_t i = 0; i < sizeof(OzrInflateState); ++i) rec.data()[i] = static_cast<uint8_t>(rng());
        st->pWindow = nullptr;
        st->winSize = 0;
        st->tableType = 1 + trial % 2;
        const Bytes in = randomBytes(2000, static_cast<uint32_t>(trial));
        Call c{in.data(), static_cast<Ozr32u>(in.size()), 0, 0, out.data(), static_cast<Ozr32u>(out.size())};
        c.mode = trial % 3;
        const OzrResult r = c.run(st);
        EXPECT_TRUE(r == ozrOk || r == ozrErrHuffTable) << r;
    }
}

}  // namespace
