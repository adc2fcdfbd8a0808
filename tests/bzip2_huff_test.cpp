// bzip2 block Huffman coding and block decoding: blocks made by libbz2 decoded
// through our stages, our blocks in .bz2 streams decoded by libbz2, split calls,
// the statuses, and the hostile table sections and blocks that broke decoders.
#include <gtest/gtest.h>
#include <bzlib.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "../fuzz/guarded.h"
#include "../src/bzip2/bzip2_huff.h"
#include "bzip2_stream.h"
#include "test_data.h"

namespace {

using namespace bz2stream;

// ---- Bits, MSB first ------------------------------------------------------------
struct BitOut {
    Bytes bytes;
    uint64_t acc = 0;
    int n = 0;
    void put(uint32_t v, int bits) {
        for (int i = bits - 1; i >= 0; --i) {
            acc = acc << 1 | ((v >> i) & 1);
            if (++n == 8) { bytes.push_back(static_cast<uint8_t>(acc)); n = 0; acc = 0; }
        }
    }
    // Hands the partial byte over in the library's accumulator convention.
    void toAccumulator(Ozr32u& code, int& len) const {
        code = n ? static_cast<Ozr32u>(acc) << (32 - n) : 0;
        len = n;
    }
    void fromAccumulator(Ozr32u code, int len) {
        acc = 0; n = 0;
        put(len ? code >> (32 - len) : 0, len);
    }
    void align() { if (n) put(0, 8 - n); }
};

// ---- Reference pieces of the block pipeline (the stages have tests of their own) ----
Bytes refRLE(const uint8_t* p, size_t n) {
    Bytes o;
    for (size_t i = 0; i < n;) {
        size_t r = 1;
        while (i + r < n && p[i + r] == p[i] && r < 255 + 4) ++r;
        if (r >= 4) { o.insert(o.end(), 4, p[i]); o.push_back(static_cast<uint8_t>(r - 4)); }
        else o.insert(o.end(), r, p[i]);
        i += r;
    }
    return o;
}
// Cyclic BWT by sorting rotations of the doubled block.
Bytes refBWT(const Bytes& b, int& index) {
    const size_t n = b.size();
    Bytes d(b);
    d.insert(d.end(), b.begin(), b.end());
    std::vector<uint32_t> r(n);
    std::iota(r.begin(), r.end(), 0);
    std::sort(r.begin(), r.end(), [&](uint32_t x, uint32_t y) { return std::memcmp(&d[x], &d[y], n) < 0; });
    Bytes L(n);
    for (size_t k = 0; k < n; ++k) {
        L[k] = d[r[k] + n - 1];
        if (r[k] == 0) index = static_cast<int>(k);
    }
    return L;
}

// The Huffman stage of one block: its table section and coded symbols appended to bw.
void encodeSymbols(const Syms& syms, int alphaSize, BitOut& bw) {
    std::vector<int> freq(alphaSize, 0);
    for (auto s : syms) freq[s]++;
    int size = 0;
    ASSERT_EQ(m7_ozrsEncodeHuffGetSize_BZ2_16u8u(static_cast<int>(syms.size()), &size), ozrOk);
    std::vector<uint64_t> mem((size + 7) / 8);
    auto* st = reinterpret_cast<OzrsEncodeHuffState_BZ2*>(mem.data());
    ASSERT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(alphaSize, freq.data(), syms.data(), static_cast<int>(syms.size()), st), ozrOk);
    Ozr32u code;
    int len;
    bw.toAccumulator(code, len);
    Bytes out(syms.size() * 3 + 20000);
    int room = static_cast<int>(out.size());
    ASSERT_EQ(m7_ozrsPackHuffContext_BZ2_16u8u(&code, &len, out.data(), &room, st), ozrOk);
    int used = room;
    room = static_cast<int>(out.size()) - used;
    const Ozr16u* src = syms.data();
    int srcLen = static_cast<int>(syms.size());
    ASSERT_EQ(m7_ozrsEncodeHuff_BZ2_16u8u(&code, &len, &src, &srcLen, out.data() + used, &room, st), ozrOk);
    EXPECT_EQ(srcLen, 0);
    used += room;
    // Whole bytes went out: re-append them bit by bit behind what bw held.
    BitOut tail = bw;
    tail.acc = 0; tail.n = 0;
    bw.n = 0; bw.acc = 0;
    for (int i = 0; i < used; ++i) bw.bytes.push_back(out[i]);
    bw.fromAccumulator(code, len);
}

// Our block coder over data already run-length coded (at most 900000 bytes).
void writeBlock(const Bytes& rle, uint32_t crc, BitOut& bw) {
    int index = 0;
    Bytes L = refBWT(rle, index);
    bool inUse[256] = {};
    for (auto c : rle) inUse[c] = true;
    Ozr8u map[256];
    int nInUse = 0;
    for (int v = 0; v < 256; ++v) if (inUse[v]) map[v] = static_cast<Ozr8u>(nInUse++);
    for (auto& c : L) c = map[c];
    Ozr8u mtf[256];
    m7_ozrsMTFInit_8u(mtf);
    Bytes ranks(L.size());
    m7_ozrsMTFFwd_8u(L.data(), ranks.data(), static_cast<int>(L.size()), mtf);
    Syms syms(ranks.size() + 64);
    std::vector<int> freq(258, 0);
    const Ozr8u* rp = ranks.data();
    int rl = static_cast<int>(ranks.size()), sl = static_cast<int>(syms.size());
    ASSERT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(&rp, &rl, syms.data(), &sl, freq.data()), ozrOk);
    syms.resize(sl);
    syms.push_back(static_cast<Ozr16u>(nInUse + 1));

    bw.put(0x314159, 24); bw.put(0x265359, 24);
    bw.put(crc, 32);
    bw.put(0, 1);
    bw.put(static_cast<uint32_t>(index), 24);
    uint32_t used16 = 0;
    for (int i = 0; i < 16; ++i)
        for (int j = 0; j < 16; ++j) if (inUse[i * 16 + j]) used16 |= 0x8000u >> i;
    bw.put(used16, 16);
    for (int i = 0; i < 16; ++i) {
        if (!(used16 & (0x8000u >> i))) continue;
        uint32_t w = 0;
        for (int j = 0; j < 16; ++j) if (inUse[i * 16 + j]) w |= 0x8000u >> j;
        bw.put(w, 16);
    }
    encodeSymbols(syms, nInUse + 2, bw);
}

Bytes ourStream(const Bytes& data, int level) {
    BitOut bw;
    bw.put('B', 8); bw.put('Z', 8); bw.put('h', 8); bw.put('0' + level, 8);
    uint32_t combined = 0;
    const size_t blockIn = static_cast<size_t>(level) * 100000 / 2;  // RLE never grows by 2x
    for (size_t at = 0; at < data.size(); at += blockIn) {
        const size_t n = std::min(blockIn, data.size() - at);
        Bytes piece(data.begin() + at, data.begin() + at + n);
        const uint32_t crc = bzCrc(piece);
        combined = (combined << 1 | combined >> 31) ^ crc;
        writeBlock(refRLE(piece.data(), n), crc, bw);
    }
    bw.put(0x177245, 24); bw.put(0x385090, 24);
    bw.put(combined, 32);
    bw.align();
    return bw.bytes;
}

Bytes bzCompress(const Bytes& in, int level) {
    unsigned int n = static_cast<unsigned>(in.size() + in.size() / 100 + 700);
    Bytes out(n);
    EXPECT_EQ(BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &n,
                                       const_cast<char*>(reinterpret_cast<const char*>(in.data())),
                                       static_cast<unsigned>(in.size()), level, 0, 30), BZ_OK);
    out.resize(n);
    return out;
}
bool bzDecompress(const Bytes& in, size_t expect, Bytes& out) {
    unsigned int n = static_cast<unsigned>(expect + 1);
    out.resize(n);
    int r = BZ2_bzBuffToBuffDecompress(reinterpret_cast<char*>(out.data()), &n,
                                       const_cast<char*>(reinterpret_cast<const char*>(in.data())),
                                       static_cast<unsigned>(in.size()), 0, 0);
    out.resize(n);
    return r == BZ_OK;
}

Bytes runsBytes(size_t n, uint32_t seed) {
    std::mt19937 r(seed);
    Bytes b;
    while (b.size() < n) b.insert(b.end(), 1 + r() % 600, static_cast<uint8_t>(r() % 5));
    b.resize(n);
    return b;
}

struct Sample { const char* name; Bytes data; };
std::vector<Sample> samples() {
    return {{"text", textBytes(150000, 1)},
            {"binary", randomBytes(40000, 2)},
            {"runs", runsBytes(120000, 3)},
            {"one_symbol", Bytes(70000, 'x')},
            {"one_byte", Bytes(1, 'q')},
            {"two_values", [] { Bytes b = randomBytes(5000, 4); for (auto& c : b) c = c & 1 ? 'a' : 'z'; return b; }()}};
}

}  // namespace

// ---- Interop with libbz2 -------------------------------------------------------------

TEST(Bzip2HuffInterop, LibbzBlocksDecodeThroughOurStagesAtLevels1And9) {
    for (const auto& s : samples()) {
        for (int level : {1, 9}) {
            Bytes z = bzCompress(s.data, level), out;
            std::string why;
            ASSERT_TRUE(ourDecode(z, out, why)) << s.name << " level " << level << ": " << why;
            EXPECT_EQ(out, s.data) << s.name << " level " << level;
        }
    }
}

TEST(Bzip2HuffInterop, LibbzBlocksDecodeTheSameWhenInputArrivesByteByByte) {
    Bytes data = textBytes(30000, 7);
    Bytes z = bzCompress(data, 1);
    for (size_t piece : {1, 2, 3, 7, 64}) {
        Bytes out;
        std::string why;
        ASSERT_TRUE(ourDecode(z, out, why, piece)) << piece << ": " << why;
        EXPECT_EQ(out, data) << piece;
    }
}

TEST(Bzip2HuffInterop, OurBlocksInAStreamDecodeWithLibbz) {
    for (const auto& s : samples()) {
        if (s.name == std::string("one_symbol")) continue;  // sorted separately below: naive BWT is slow on it
        Bytes z = ourStream(s.data, 9), out;
        ASSERT_TRUE(bzDecompress(z, s.data.size(), out)) << s.name;
        EXPECT_EQ(out, s.data) << s.name;
        Bytes back;
        std::string why;
        ASSERT_TRUE(ourDecode(z, back, why)) << s.name << ": " << why;
        EXPECT_EQ(back, s.data);
    }
    Bytes ones(3000, 'x');
    Bytes z = ourStream(ones, 1), out;
    ASSERT_TRUE(bzDecompress(z, ones.size(), out));
    EXPECT_EQ(out, ones);
}

TEST(Bzip2HuffInterop, OurOutputIsAsSmallAsLibbzWithinOnePercent) {
    Bytes data = textBytes(200000, 11);
    Bytes ours = ourStream(data, 9), theirs = bzCompress(data, 9);
    EXPECT_LE(ours.size(), theirs.size() * 101 / 100) << ours.size() << " vs " << theirs.size();
}

// ---- Encoder ----------------------------------------------------------------------------

namespace {
struct EncState {
    std::vector<uint64_t> mem;
    OzrsEncodeHuffState_BZ2* st;
    explicit EncState(int n) {
        int size = 0;
        m7_ozrsEncodeHuffGetSize_BZ2_16u8u(n, &size);
        mem.assign((size + 7) / 8, 0);
        st = reinterpret_cast<OzrsEncodeHuffState_BZ2*>(mem.data());
    }
};
Syms skewedSymbols(int n, int alphaSize, uint32_t seed) {
    std::mt19937 r(seed);
    Syms s(n);
    for (auto& x : s) {
        int a = static_cast<int>(r() % (alphaSize - 1)), b = static_cast<int>(r() % (alphaSize - 1));
        x = static_cast<Ozr16u>(std::min(a, b));
    }
    s.back() = static_cast<Ozr16u>(alphaSize - 1);
    return s;
}
std::vector<int> counts(const Syms& s, int alphaSize) {
    std::vector<int> f(alphaSize, 0);
    for (auto x : s) f[x]++;
    return f;
}
}  // namespace

TEST(Bzip2HuffEncoder, StateSizeAndTableCountFollowTheBlockSize) {
    int size = 0;
    ASSERT_EQ(m7_ozrsEncodeHuffGetSize_BZ2_16u8u(51, &size), ozrOk);
    EXPECT_EQ(size, 2 * 2 + 7780);
    for (auto [n, tables] : {std::pair{199, 2}, {200, 3}, {599, 3}, {600, 4}, {1200, 5}, {2399, 5}, {2400, 6}}) {
        Syms s = skewedSymbols(n, 20, n);
        auto f = counts(s, 20);
        EncState e(n);
        ASSERT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(20, f.data(), s.data(), n, e.st), ozrOk);
        EXPECT_EQ(e.st->numTables, tables) << n;
        EXPECT_EQ(e.st->numSelectors, (n + 49) / 50);
        EXPECT_EQ(e.st->pLens, e.st->lens);
        for (int t = 0; t < tables; ++t) {
            // Every symbol has a code of 1..17 bits and the code is complete.
            double kraft = 0;
            for (int k = 0; k < 20; ++k) {
                const int l = e.st->lens[t * 258 + k];
                ASSERT_GE(l, 1);
                ASSERT_LE(l, 17);
                kraft += std::ldexp(1.0, -l);
            }
            EXPECT_DOUBLE_EQ(kraft, 1.0);
        }
    }
}

TEST(Bzip2HuffEncoder, LengthsAreLimitedTo17BitsOnFibonacciFrequencies) {
    // Fibonacci counts make a Huffman tree as deep as the alphabet is long.
    const int alpha = 40;
    std::vector<int> f(alpha);
    f[0] = f[1] = 1;
    for (int i = 2; i < alpha; ++i) f[i] = std::min(f[i - 1] + f[i - 2], 20000000);
    Syms big;
    for (int i = 0; i < 26; ++i) big.insert(big.end(), static_cast<size_t>(f[i]), static_cast<Ozr16u>(i));
    std::shuffle(big.begin(), big.end(), std::mt19937(3));  // every group sees the same skew
    big.push_back(alpha - 1);
    EncState e2(static_cast<int>(big.size()));
    auto fb = counts(big, alpha);
    ASSERT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(alpha, fb.data(), big.data(), static_cast<int>(big.size()), e2.st), ozrOk);
    int deepest = 0;
    for (int t = 0; t < e2.st->numTables; ++t) {
        double kraft = 0;
        for (int k = 0; k < alpha; ++k) {
            deepest = std::max(deepest, int(e2.st->lens[t * 258 + k]));
            ASSERT_LE(e2.st->lens[t * 258 + k], 17);
            kraft += std::ldexp(1.0, -e2.st->lens[t * 258 + k]);
        }
        EXPECT_DOUBLE_EQ(kraft, 1.0);
    }
    EXPECT_EQ(deepest, 17);  // the limit was reached, not merely respected
}

TEST(Bzip2HuffEncoder, TableSectionLayoutIsBzip2s) {
    // 51 symbols: two selectors, two tables; the section starts with 3 bits of table
    // count and 15 of selector count, the selectors in unary.
    Syms s = skewedSymbols(51, 5, 3);
    auto f = counts(s, 5);
    EncState e(51);
    ASSERT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(5, f.data(), s.data(), 51, e.st), ozrOk);
    Bytes out(64);
    Ozr32u code = 0;
    int bits = 0, room = 64;
    ASSERT_EQ(m7_ozrsPackHuffContext_BZ2_16u8u(&code, &bits, out.data(), &room, e.st), ozrOk);
    BitIn br(out);
    EXPECT_EQ(br.get(3), 2u);
    EXPECT_EQ(br.get(15), 2u);
    int prev = 0;  // selectors: MTF ranks over the list 0, 1
    int list[2] = {0, 1};
    for (int g = 0; g < 2; ++g) {
        int j = 0;
        while (br.get(1)) ++j;
        const int v = list[j];
        if (j == 1) std::swap(list[0], list[1]);
        EXPECT_EQ(v, e.st->pSelectors[g]) << g;
        prev = v;
    }
    (void)prev;
    for (int t = 0; t < 2; ++t) {
        int cur = static_cast<int>(br.get(5));
        for (int k = 0; k < 5; ++k) {
            while (br.get(1)) cur += br.get(1) ? -1 : 1;
            EXPECT_EQ(cur, e.st->lens[t * 258 + k]) << t << " " << k;
        }
    }
    EXPECT_EQ(br.bit, static_cast<size_t>(room) * 8 + bits);
}

TEST(Bzip2HuffEncoder, TooLittleRoomIsReportedOncePendingBitsPass32) {
    Syms s = skewedSymbols(3000, 100, 5);
    auto f = counts(s, 100);
    EncState e(3000);
    ASSERT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(100, f.data(), s.data(), 3000, e.st), ozrOk);
    Ozr8u one[1];
    Ozr32u code = 0;
    int bits = 0, room = 1;
    EXPECT_EQ(m7_ozrsPackHuffContext_BZ2_16u8u(&code, &bits, one, &room, e.st), ozrWarnDstSizeLess);
    EXPECT_EQ(room, 1);
    EXPECT_GE(bits, 33);
    const Ozr16u* src = s.data();
    int srcLen = 3000;
    code = 0; bits = 0; room = 1;
    EXPECT_EQ(m7_ozrsEncodeHuff_BZ2_16u8u(&code, &bits, &src, &srcLen, one, &room, e.st), ozrWarnDstSizeLess);
    EXPECT_EQ(srcLen, 0);
    // Exactly enough room: no warning, at most 7 bits pending, nothing written past it.
    code = 0; bits = 0; room = 4096;
    Bytes big(4096);
    src = s.data(); srcLen = 3000;
    ASSERT_EQ(m7_ozrsEncodeHuff_BZ2_16u8u(&code, &bits, &src, &srcLen, big.data(), &room, e.st), ozrOk);
    const int need = room;
    GuardedBuffer g(static_cast<size_t>(need));
    code = 0; bits = 0; room = need;
    src = s.data(); srcLen = 3000;
    EXPECT_EQ(m7_ozrsEncodeHuff_BZ2_16u8u(&code, &bits, &src, &srcLen, g.data(), &room, e.st), ozrOk);
    EXPECT_EQ(room, need);
    EXPECT_LT(bits, 8);
    EXPECT_EQ(0, std::memcmp(g.data(), big.data(), need));
}

TEST(Bzip2HuffEncoder, StatusesInCheckOrder) {
    int size;
    EXPECT_EQ(m7_ozrsEncodeHuffGetSize_BZ2_16u8u(0, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeHuffGetSize_BZ2_16u8u(0, &size), ozrErrSize);
    Syms s = skewedSymbols(10, 4, 1);
    auto f = counts(s, 4);
    EncState e(10);
    EXPECT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(0, nullptr, s.data(), 10, e.st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(0, f.data(), s.data(), 10, e.st), ozrErrSize);
    EXPECT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(4, f.data(), s.data(), 0, e.st), ozrErrSize);
    ASSERT_EQ(m7_ozrsEncodeHuffInit_BZ2_16u8u(4, f.data(), s.data(), 10, e.st), ozrOk);
    Ozr32u code = 0;
    int bits = 0, room = 0;
    Ozr8u out[64];
    EXPECT_EQ(m7_ozrsPackHuffContext_BZ2_16u8u(&code, &bits, out, nullptr, e.st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsPackHuffContext_BZ2_16u8u(&code, &bits, out, &room, e.st), ozrErrSize);
    const Ozr16u* src = nullptr;
    int srcLen = 10;
    EXPECT_EQ(m7_ozrsEncodeHuff_BZ2_16u8u(&code, &bits, &src, &srcLen, out, &room, e.st), ozrErrNullPointer);
    src = s.data();
    EXPECT_EQ(m7_ozrsEncodeHuff_BZ2_16u8u(&code, &bits, &src, &srcLen, out, &room, e.st), ozrErrSize);
    EXPECT_EQ(src, s.data());
}

// ---- Decoder --------------------------------------------------------------------------------

namespace {
struct DecState {
    std::vector<uint64_t> mem;
    OzrsDecodeHuffState_BZ2* st;
    explicit DecState(int n = 900050) {
        int size = 0;
        m7_ozrsDecodeHuffGetSize_BZ2_8u16u(n, &size);
        mem.assign((size + 7) / 8, 0);
        st = reinterpret_cast<OzrsDecodeHuffState_BZ2*>(mem.data());
    }
};
// Encodes symbols into bytes (section + codes + 32 zero bits of slack).
Bytes encodeToBytes(const Syms& s, int alpha) {
    BitOut bw;
    encodeSymbols(s, alpha, bw);
    bw.put(0, 32);
    bw.align();
    return bw.bytes;
}
OzrResult unpackAll(const Bytes& b, DecState& d, Ozr32u& code, int& bits, const Ozr8u*& src, int& len) {
    code = 0; bits = 0; src = b.data(); len = static_cast<int>(b.size());
    return m7_ozrsUnpackHuffContext_BZ2_8u16u(&code, &bits, &src, &len, d.st);
}
}  // namespace

TEST(Bzip2HuffDecoder, RoundTripOverAlphabetSizesAndBlockLengths) {
    for (int alpha : {2, 3, 4, 17, 130, 258}) {
        for (int n : {1, 49, 50, 51, 199, 200, 2400, 20000}) {
            Syms s = skewedSymbols(std::max(n, 1), alpha, static_cast<uint32_t>(alpha * 7 + n));
            if (alpha == 2) for (auto& x : s) x = 0;
            s.back() = static_cast<Ozr16u>(alpha - 1);
            Bytes b = encodeToBytes(s, alpha);
            DecState d;
            ASSERT_EQ(m7_ozrsDecodeHuffInit_BZ2_8u16u(alpha, d.st), ozrOk);
            Ozr32u code; int bits; const Ozr8u* src; int len;
            ASSERT_EQ(unpackAll(b, d, code, bits, src, len), ozrOk) << alpha << " " << n;
            Syms out(s.size() + 5);
            int room = static_cast<int>(out.size());
            ASSERT_EQ(m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, out.data(), &room, d.st), ozrOk);
            out.resize(room);
            EXPECT_EQ(out, s) << alpha << " " << n;
        }
    }
}

TEST(Bzip2HuffDecoder, OneInputByteOrOneOutputSymbolPerCallEqualsOneCall) {
    Syms s = skewedSymbols(1234, 60, 9);
    Bytes b = encodeToBytes(s, 60);
    DecState d;
    m7_ozrsDecodeHuffInit_BZ2_8u16u(60, d.st);
    Ozr32u code = 0;
    int bits = 0;
    size_t at = 0;
    OzrResult r;
    do {
        const Ozr8u* src = b.data() + at;
        int len = 1;
        r = m7_ozrsUnpackHuffContext_BZ2_8u16u(&code, &bits, &src, &len, d.st);
        at = static_cast<size_t>(src - b.data());
    } while (r == ozrWarnSrcSizeLess);
    ASSERT_EQ(r, ozrOk);
    Syms out;
    int calls = 0;
    do {
        const Ozr8u* src = b.data() + at;
        int len = 1 + (calls % 2);  // one or two bytes
        Ozr16u one[1];
        int room = 1;
        r = m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, one, &room, d.st);
        at = static_cast<size_t>(src - b.data());
        if (room == 1) out.push_back(one[0]);
        ++calls;
        ASSERT_TRUE(r == ozrOk || r == ozrWarnSrcSizeLess || r == ozrWarnDstSizeLess) << r;
        ASSERT_LE(at, b.size());
    } while (r != ozrOk);
    EXPECT_EQ(out, s);
}

TEST(Bzip2HuffDecoder, HostileTableSectionsGetStatuses) {
    auto section = [](int nTables, int nSel, auto&& more) {
        BitOut bw;
        bw.put(static_cast<uint32_t>(nTables), 3);
        bw.put(static_cast<uint32_t>(nSel), 15);
        more(bw);
        bw.put(0, 32);
        bw.align();
        return bw.bytes;
    };
    auto run = [](const Bytes& b, int alpha = 4) {
        DecState d;
        m7_ozrsDecodeHuffInit_BZ2_8u16u(alpha, d.st);
        Ozr32u code; int bits; const Ozr8u* src; int len;
        return unpackAll(b, d, code, bits, src, len);
    };
    auto noop = [](BitOut&) {};
    // Table counts outside 2..6, no selectors, too many selectors (CVE-2019-12900).
    EXPECT_EQ(run(section(7, 1, noop)), ozrErrHuffTable);
    EXPECT_EQ(run(section(1, 1, noop)), ozrErrHuffTable);
    EXPECT_EQ(run(section(2, 0, noop)), ozrErrHuffTable);
    EXPECT_EQ(run(section(2, 18003, noop)), ozrErrHuffTable);
    EXPECT_EQ(run(section(6, 32767, noop)), ozrErrHuffTable);
    // A selector naming table 2 when there are two.
    EXPECT_EQ(run(section(2, 1, [](BitOut& b) { b.put(0b110, 3); })), ozrErrHuffTable);
    // Lengths: a start of 0 or 21, a step below 1 or above 20.
    auto lens = [&](int start, int steps, bool down) {
        return section(2, 1, [&](BitOut& b) {
            b.put(0, 1);
            b.put(static_cast<uint32_t>(start), 5);
            for (int i = 0; i < steps; ++i) b.put(down ? 3 : 2, 2);
        });
    };
    EXPECT_EQ(run(lens(0, 0, false)), ozrErrHuffTable);
    EXPECT_EQ(run(lens(21, 0, false)), ozrErrHuffTable);
    EXPECT_EQ(run(lens(1, 1, true)), ozrErrHuffTable);
    EXPECT_EQ(run(lens(20, 1, false)), ozrErrHuffTable);
    // Lengths 1,1,1,1: over-subscribed; 2,2,2,3: incomplete.
    auto set = [&](std::vector<int> l) {
        return section(2, 1, [&](BitOut& b) {
            b.put(0, 1);
            for (int t = 0; t < 2; ++t) {
                int cur = l[0];
                b.put(static_cast<uint32_t>(cur), 5);
                for (int v : l) { while (cur < v) { b.put(2, 2); ++cur; } while (cur > v) { b.put(3, 2); --cur; } b.put(0, 1); }
            }
        });
    };
    EXPECT_EQ(run(set({1, 1, 1, 1})), ozrErrHuffTable);
    EXPECT_EQ(run(set({2, 2, 2, 3})), ozrErrHuffTable);
    EXPECT_EQ(run(set({2, 2, 2, 2})), ozrOk);
    // A section cut short asks for more input and consumes all of it.
    Bytes full = set({2, 2, 2, 2});
    Bytes cut(full.begin(), full.begin() + 3);
    DecState d;
    m7_ozrsDecodeHuffInit_BZ2_8u16u(4, d.st);
    Ozr32u code; int bits; const Ozr8u* src; int len;
    EXPECT_EQ(unpackAll(cut, d, code, bits, src, len), ozrWarnSrcSizeLess);
    EXPECT_EQ(len, 0);
}

TEST(Bzip2HuffDecoder, MoreGroupsThanSelectorsFailsAndRoomIsRespected) {
    // A one-selector section over two tables of four 2-bit codes, then 60 codes of
    // symbol 0 and no end-of-block: the 51st symbol needs a second selector.
    BitOut one;
    one.put(2, 3); one.put(1, 15); one.put(0, 1);
    for (int t = 0; t < 2; ++t) { one.put(2, 5); for (int k = 0; k < 4; ++k) one.put(0, 1); }
    for (int k = 0; k < 60; ++k) one.put(0, 2);  // symbol 0 again and again
    one.put(0, 32);
    one.align();
    DecState d;
    m7_ozrsDecodeHuffInit_BZ2_8u16u(4, d.st);
    Ozr32u code; int bits; const Ozr8u* src; int len;
    ASSERT_EQ(unpackAll(one.bytes, d, code, bits, src, len), ozrOk);
    GuardedBuffer g(100 * sizeof(Ozr16u));
    int room = 100;
    EXPECT_EQ(m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, reinterpret_cast<Ozr16u*>(g.data()), &room, d.st),
              ozrErrFailed);
    // A room of 10 stops with the warning after exactly 10 symbols.
    m7_ozrsDecodeHuffInit_BZ2_8u16u(4, d.st);
    ASSERT_EQ(unpackAll(one.bytes, d, code, bits, src, len), ozrOk);
    room = 10;
    EXPECT_EQ(m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len,
                                          reinterpret_cast<Ozr16u*>(g.data() + g.size()) - 10, &room, d.st),
              ozrWarnDstSizeLess);
    EXPECT_EQ(room, 10);
}

TEST(Bzip2HuffDecoder, StatusesInCheckOrder) {
    int size;
    EXPECT_EQ(m7_ozrsDecodeHuffGetSize_BZ2_8u16u(1, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeHuffGetSize_BZ2_8u16u(0, &size), ozrErrSize);
    ASSERT_EQ(m7_ozrsDecodeHuffGetSize_BZ2_8u16u(100, &size), ozrOk);
    EXPECT_EQ(size, 2 + 9364);
    DecState d;
    EXPECT_EQ(m7_ozrsDecodeHuffInit_BZ2_8u16u(0, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeHuffInit_BZ2_8u16u(0, d.st), ozrErrSize);
    ASSERT_EQ(m7_ozrsDecodeHuffInit_BZ2_8u16u(5, d.st), ozrOk);
    Ozr32u code = 0;
    int bits = 0, len = 0, room = 0;
    const Ozr8u* src = nullptr;
    Ozr8u byte = 0;
    EXPECT_EQ(m7_ozrsUnpackHuffContext_BZ2_8u16u(&code, &bits, &src, &len, d.st), ozrErrNullPointer);
    src = &byte;
    EXPECT_EQ(m7_ozrsUnpackHuffContext_BZ2_8u16u(&code, &bits, &src, &len, d.st), ozrErrSize);
    Ozr16u out[4];
    EXPECT_EQ(m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, out, nullptr, d.st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, out, &room, d.st), ozrErrSize);
    room = 4;
    len = 1;
    EXPECT_EQ(m7_ozrsDecodeHuff_BZ2_8u16u(&code, &bits, &src, &len, out, &room, d.st), ozrErrFailed);  // no tables yet
}

// ---- Block decoding ----------------------------------------------------------------------

TEST(Bzip2DecodeBlock, BananaFromItsSymbols) {
    // "banana": L = n n b a a a, index 3; in use a, b, n -> MTF over (a b n): n=2 -> 3,
    // n=0 -> RUNA, b=2 -> 3, a=2 -> 3, a a -> RUNB.
    const Ozr16u syms[] = {3, 0, 3, 3, 1};
    Ozr8u inUse[256] = {};
    inUse['a'] = inUse['b'] = inUse['n'] = 1;
    int size = 0;
    ASSERT_EQ(m7_ozrsDecodeBlockGetSize_BZ2_8u(6, &size), ozrOk);
    EXPECT_EQ(size, 24);
    std::vector<Ozr8u> work(size);
    GuardedBuffer g(6);
    int room = 6;
    ASSERT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 5, g.data(), &room, 3, 3, inUse, work.data()), ozrOk);
    EXPECT_EQ(room, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(g.data()), 6), "banana");
}

TEST(Bzip2DecodeBlock, HostileBlocksGetStatusesWithinTheRoom) {
    Ozr8u inUse[256] = {};
    inUse['a'] = inUse['b'] = inUse['n'] = 1;
    std::vector<Ozr8u> work(4 * 100);
    Ozr8u out[100];
    const Ozr16u syms[] = {3, 0, 3, 3, 1};
    int room = 6;
    // Origin pointer at or past the room: a size error before anything is done.
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 5, out, &room, 6, 3, inUse, work.data()), ozrErrSize);
    // Origin pointer inside the room but past the decoded block.
    room = 50;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 5, out, &room, 6, 3, inUse, work.data()), ozrErrFailed);
    // The block decodes to more than the room (a run of 2^20).
    Ozr16u longRun[21];
    for (auto& s : longRun) s = 0;
    room = 100;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(longRun, 21, out, &room, 0, 3, inUse, work.data()), ozrErrFailed);
    EXPECT_LE(room, 100);
    room = 5;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 5, out, &room, 0, 3, inUse, work.data()), ozrErrFailed);
    // A rank beyond the alphabet, the end-of-block symbol inside the block.
    const Ozr16u far[] = {3, 200};
    room = 100;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(far, 2, out, &room, 0, 3, inUse, work.data()), ozrErrFailed);
    const Ozr16u eob[] = {3, 4};
    room = 100;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(eob, 2, out, &room, 0, 3, inUse, work.data()), ozrErrFailed);
    // Dictionary size that disagrees with the table.
    room = 100;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 5, out, &room, 0, 4, inUse, work.data()), ozrErrFailed);
}

TEST(Bzip2DecodeBlock, StatusesInCheckOrder) {
    int size;
    EXPECT_EQ(m7_ozrsDecodeBlockGetSize_BZ2_8u(1 << 24, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeBlockGetSize_BZ2_8u(1 << 24, &size), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeBlockGetSize_BZ2_8u(-1, &size), ozrErrSize);
    Ozr8u inUse[256] = {};
    inUse['a'] = 1;
    Ozr8u out[8], work[32];
    const Ozr16u syms[] = {0};
    int room = 8;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 0, out, &room, 0, 1, nullptr, work), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 0, out, &room, 0, 1, inUse, work), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 1, out, &room, 8, 1, inUse, work), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 1, out, &room, -1, 1, inUse, work), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 1, out, &room, 0, 257, inUse, work), ozrErrSize);
    room = 16777216;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 1, out, &room, 0, 1, inUse, work), ozrErrSize);
    room = 8;
    ASSERT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms, 1, out, &room, 0, 1, inUse, work), ozrOk);
    EXPECT_EQ(room, 1);
    EXPECT_EQ(out[0], 'a');
}

// ---- The ozrdc tool's .bz2 files against the bzip2, lbzip2 and pbzip2 tools ----------------

namespace {

namespace fs = std::filesystem;

int sh(const std::string& cmd) {
    const int st = std::system(("( " + cmd + " ) 2>/dev/null").c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}
std::string shOut(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen((cmd + " 2>&1").c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        pclose(p);
    }
    return out;
}
Bytes readFile(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}
void writeFile(const fs::path& p, const Bytes& b) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

class Bzip2Tool : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("ozrdc_bzip2_test_" + std::to_string(::getpid()));
        fs::create_directories(dir);
        // Two blocks at level 1, runs, text and binary mixed.
        data = textBytes(150000, 21);
        Bytes runs = runsBytes(40000, 22), bin = randomBytes(30000, 23);
        data.insert(data.end(), runs.begin(), runs.end());
        data.insert(data.end(), bin.begin(), bin.end());
        writeFile(dir / "in", data);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string tool() const { return OZRDC_TOOL_PATH; }
    std::string q(const char* name) const { return "'" + (dir / name).string() + "'"; }
    fs::path dir;
    Bytes data;
};

}  // namespace

TEST_F(Bzip2Tool, OurFilesDecodeWithEveryBzip2ToolAndTheirsWithOurs) {
    for (const char* level : {"1", "9"}) {
        for (const char* threads : {"1", "2"}) {
            ASSERT_EQ(sh(tool() + " compress -f -F bzip2 -L " + level + " -T " + threads + " " + q("in") + " -o " + q("ours.bz2")), 0);
            for (const char* peer : {"bzip2", "lbzip2", "pbzip2"}) {
                ASSERT_EQ(sh(std::string(peer) + " -dc " + q("ours.bz2") + " > " + q("back")), 0) << peer << " level " << level;
                EXPECT_EQ(readFile(dir / "back"), data) << peer;
            }
        }
    }
    for (const char* peer : {"bzip2 -1", "bzip2 -9", "lbzip2 -1", "pbzip2 -9 -p2"}) {
        ASSERT_EQ(sh(std::string(peer) + " -c " + q("in") + " > " + q("theirs.bz2")), 0) << peer;
        for (const char* threads : {"1", "2"}) {
            ASSERT_EQ(sh(tool() + " decompress -f -T " + threads + " " + q("theirs.bz2") + " -o " + q("back")), 0) << peer;
            EXPECT_EQ(readFile(dir / "back"), data) << peer;
        }
    }
}

TEST_F(Bzip2Tool, MultiStreamAndEmptyFilesRoundTrip) {
    // pbzip2 writes one stream per block; concatenated files are multi-stream too.
    ASSERT_EQ(sh("bzip2 -1 -c " + q("in") + " > " + q("a.bz2")), 0);
    ASSERT_EQ(sh(tool() + " compress -f -F bzip2 -L 2 " + q("in") + " -o " + q("b.bz2")), 0);
    ASSERT_EQ(sh("cat " + q("a.bz2") + " " + q("b.bz2") + " > " + q("ab.bz2")), 0);
    ASSERT_EQ(sh(tool() + " decompress -f " + q("ab.bz2") + " -o " + q("back")), 0);
    Bytes twice = data;
    twice.insert(twice.end(), data.begin(), data.end());
    EXPECT_EQ(readFile(dir / "back"), twice);
    writeFile(dir / "empty", {});
    ASSERT_EQ(sh(tool() + " compress -f -F bzip2 " + q("empty") + " -o " + q("empty.bz2")), 0);
    ASSERT_EQ(sh("bzip2 -dc " + q("empty.bz2") + " > " + q("back")), 0);
    EXPECT_TRUE(readFile(dir / "back").empty());
    ASSERT_EQ(sh(tool() + " decompress -f " + q("empty.bz2") + " -o " + q("back")), 0);
    EXPECT_TRUE(readFile(dir / "back").empty());
}

TEST_F(Bzip2Tool, CorruptOrTruncatedFilesFailWithAMessageAndNoOutput) {
    ASSERT_EQ(sh("bzip2 -9 -c " + q("in") + " > " + q("good.bz2")), 0);
    const Bytes good = readFile(dir / "good.bz2");
    struct Case { const char* name; Bytes file; const char* message; };
    Bytes truncated(good.begin(), good.begin() + static_cast<long>(good.size() / 2));
    Bytes flipped = good;
    flipped[good.size() / 3] ^= 0x10;
    Bytes noEnd(good.begin(), good.end() - 6);
    Bytes badCrc = good;
    badCrc[10] ^= 1;  // inside the first block's CRC
    for (const Case& c : {Case{"truncated", truncated, "end of file"}, Case{"flipped", flipped, "bzip2"},
                          Case{"no end marker", noEnd, "end of file"}, Case{"block crc", badCrc, "CRC"}}) {
        writeFile(dir / "bad.bz2", c.file);
        fs::remove(dir / "out");
        const std::string msg = shOut("( " + tool() + " decompress -f " + q("bad.bz2") + " -o " + q("out") + " ) 2>&1; echo status=$?");
        EXPECT_EQ(msg.find("status=0"), std::string::npos) << c.name << ": " << msg;
        EXPECT_NE(msg.find(c.message), std::string::npos) << c.name << ": " << msg;
        EXPECT_FALSE(fs::exists(dir / "out")) << c.name;
    }
}

// The Z1Z2 symbols of a last column whose bytes are already the reduced alphabet.
Syms symbolsOfColumn(const Bytes& L) {
    const int n = static_cast<int>(L.size());
    Ozr8u mtf[256];
    m7_ozrsMTFInit_8u(mtf);
    Bytes ranks(L.size());
    m7_ozrsMTFFwd_8u(L.data(), ranks.data(), n, mtf);
    Syms syms(L.size() + 64);
    std::vector<int> freq(258, 0);
    const Ozr8u* rp = ranks.data();
    int rl = n, sl = static_cast<int>(syms.size());
    EXPECT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(&rp, &rl, syms.data(), &sl, freq.data()), ozrOk);
    syms.resize(static_cast<size_t>(sl));
    return syms;
}

Bytes decodeBlock(const Syms& syms, int n, int index, int dict, const Ozr8u* inUse) {
    int size = 0;
    EXPECT_EQ(m7_ozrsDecodeBlockGetSize_BZ2_8u(n, &size), ozrOk);
    std::vector<Ozr8u> wbuf(static_cast<size_t>(size));
    Bytes out(static_cast<size_t>(n));
    int room = n;
    EXPECT_EQ(m7_ozrsDecodeBlock_BZ2_16u8u(syms.data(), static_cast<int>(syms.size()), out.data(), &room, index, dict,
                                           inUse, wbuf.data()),
              ozrOk);
    EXPECT_EQ(room, n);
    return out;
}

TEST(Bzip2DecodeBlock, BlocksAboveTwoToTheTwentyBytesDecode) {
    // 1 200 000 bytes over {a, b, c} (beyond bzip2's block sizes) through the
    // library's forward stages, back through block decoding.
    Bytes text = randomBytes(1200000, 77);
    for (auto& c : text) c = static_cast<uint8_t>('a' + c % 3);
    const int n = static_cast<int>(text.size());
    int size = 0;
    ASSERT_EQ(m7_ozrsBWTFwdGetSize_8u(n, &size), ozrOk);
    std::vector<Ozr8u> work(size), L(n);
    int index = 0;
    ASSERT_EQ(m7_ozrsBWTFwd_8u(text.data(), L.data(), n, &index, work.data()), ozrOk);
    Ozr8u inUse[256] = {};
    inUse['a'] = inUse['b'] = inUse['c'] = 1;
    int dict = 0;
    ASSERT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, L.data(), n, &dict), ozrOk);
    Bytes out = decodeBlock(symbolsOfColumn(Bytes(L.begin(), L.end())), n, index, 3, inUse);
    EXPECT_TRUE(std::equal(text.begin(), text.end(), out.begin()));
}

// Block decoding's walk for any column: the block ends with L[index], and each
// earlier byte is L at the row that the predecessor link LF leads to.
Bytes refBackwardWalk(const Bytes& L, int index) {
    const size_t n = L.size();
    std::vector<uint32_t> next(256), lf(n);
    for (uint8_t c : L) ++next[c];
    for (uint32_t c = 0, sum = 0; c < 256; ++c) std::swap(next[c], sum), sum += next[c];
    for (size_t i = 0; i < n; ++i) lf[i] = next[L[i]]++;
    Bytes out(n);
    for (size_t k = n, p = static_cast<size_t>(index); k-- > 0; p = lf[p]) out[k] = L[p];
    return out;
}

TEST(Bzip2DecodeBlock, ColumnsWithSeveralLinkCyclesDecodeAsOneWalkDoes) {
    // Symbols that are no bzip2 block: the links form several cycles, and the walks
    // in flight must give what the single backward walk gives. Above 2^23 positions
    // the links leave no bit for marks and one walk runs.
    Bytes text = textBytes(60000, 31);
    int size = 0, index = 0;
    ASSERT_EQ(m7_ozrsBWTFwdGetSize_8u(static_cast<int>(text.size()), &size), ozrOk);
    std::vector<Ozr8u> work(size);
    Bytes bwt(text.size());
    ASSERT_EQ(m7_ozrsBWTFwd_8u(text.data(), bwt.data(), static_cast<int>(text.size()), &index, work.data()), ozrOk);
    Ozr8u inUse[256] = {};
    int dict = 0;
    for (uint8_t c : bwt) inUse[c] = 1;
    ASSERT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, bwt.data(), static_cast<int>(bwt.size()), &dict), ozrOk);
    bwt[bwt.size() / 3] = static_cast<uint8_t>(bwt[bwt.size() / 3] == 0 ? 1 : 0);  // several cycles now
    // A sorted column links every row to itself: n cycles of one row, more than
    // the walks in flight may start.
    std::vector<Bytes> columns = {bwt, randomBytes(5000, 32), randomBytes(70001, 33), randomBytes(20000, 35),
                                  randomBytes((1 << 23) + 3, 34)};
    for (size_t i = 1; i < columns.size(); ++i)
        for (auto& c : columns[i]) c = static_cast<uint8_t>(c % 3);
    std::sort(columns[3].begin(), columns[3].end());
    for (const Bytes& L : columns) {
        const int n = static_cast<int>(L.size());
        Ozr8u used[256] = {};
        int k = 0;
        for (uint8_t c : L) used[c] = 1;
        for (int c = 0; c < 256; ++c) k += used[c];
        // Byte values in use 0..k-1 map onto themselves.
        const Syms syms = symbolsOfColumn(L);
        for (int at : {0, n / 2, n - 1}) {
            if (n > (1 << 23) && at != n / 2) continue;
            ASSERT_EQ(decodeBlock(syms, n, at, k, used), refBackwardWalk(L, at)) << n << " " << at;
        }
    }
}
