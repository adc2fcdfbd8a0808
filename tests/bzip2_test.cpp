// bzip2 block-sorting stages: exact values of the format, round trips of every
// stage on text, binary, single-byte and periodic blocks, every split of the input
// against one call, the BWT against sorted rotations and libdivsufsort, the forward
// chain against a plain reference of bzip2's block coding, and every status.
#include <gtest/gtest.h>

#include "test_data.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "../src/bzip2/bzip2_internal.h"

namespace {

using Syms = std::vector<uint16_t>;

Bytes str(const char* s) { return Bytes(s, s + std::strlen(s)); }

// Blocks with the shapes that stress each stage: text, noise, one byte value,
// short periods, long runs mixed with noise.
Bytes periodicBytes(size_t n, size_t period, uint32_t seed) {
    Bytes p = randomBytes(period, seed), b(n);
    for (size_t i = 0; i < n; ++i) b[i] = p[i % period];
    return b;
}

Bytes runsBytes(size_t n, uint32_t seed) {
    std::mt19937 r(seed);
    Bytes b;
    while (b.size() < n) {
        size_t len = r() % 4 == 0 ? 1 + r() % 600 : 1 + r() % 6;
        b.insert(b.end(), len, static_cast<uint8_t>("abcz\0\xff"[r() % 6]));
    }
    b.resize(n);
    return b;
}

std::vector<Bytes> sampleBlocks(size_t n) {
    return {textBytes(n, 1), randomBytes(n, 2), Bytes(n, 'x'), periodicBytes(n, 3, 4), periodicBytes(n, 17, 5),
            runsBytes(n, 6)};
}

// ---- Plain references -------------------------------------------------------

Bytes refMTF(const Bytes& in) {
    Bytes list(256), out;
    std::iota(list.begin(), list.end(), 0);
    for (uint8_t s : in) {
        size_t r = std::find(list.begin(), list.end(), s) - list.begin();
        out.push_back(static_cast<uint8_t>(r));
        list.erase(list.begin() + r);
        list.insert(list.begin(), s);
    }
    return out;
}

// bzip2's zero-run coding of a whole block (runs in bijective base 2).
Syms refZ1Z2(const Bytes& ranks) {
    Syms out;
    uint32_t z = 0;
    auto flush = [&] {
        if (!z) return;
        for (uint32_t v = z; v; v = (v - 1) / 2) out.push_back(static_cast<uint16_t>((v - 1) & 1));
        z = 0;
    };
    for (uint8_t r : ranks) {
        if (r == 0) {
            ++z;
            continue;
        }
        flush();
        out.push_back(static_cast<uint16_t>(r + 1));
    }
    flush();
    return out;
}

// ---- MTF --------------------------------------------------------------------

TEST(MTF, SizeInitAndTheBbbExample) {
    int size = 0;
    ASSERT_EQ(m7_ozrsMTFGetSize_8u(&size), ozrOk);
    EXPECT_EQ(size, 256);
    Ozr8u st[256];
    ASSERT_EQ(m7_ozrsMTFInit_8u(st), ozrOk);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(st[i], i);
    Bytes in = str("bbb"), out(3), back(3);
    ASSERT_EQ(m7_ozrsMTFFwd_8u(in.data(), out.data(), 3, st), ozrOk);
    EXPECT_EQ(out, (Bytes{98, 0, 0}));
    m7_ozrsMTFInit_8u(st);
    ASSERT_EQ(m7_ozrsMTFInv_8u(out.data(), back.data(), 3, st), ozrOk);
    EXPECT_EQ(back, in);
}

TEST(MTF, RanksMatchAListReferenceAndSplitCallsEqualOneCall) {
    for (const Bytes& b : sampleBlocks(3000)) {
        Bytes want = refMTF(b);
        Ozr8u st[256];
        m7_ozrsMTFInit_8u(st);
        Bytes got(b.size());
        for (size_t pos = 0, step = 1; pos < b.size(); pos += step, step = step * 3 % 97 + 1) {
            int len = static_cast<int>(std::min(step, b.size() - pos));
            ASSERT_EQ(m7_ozrsMTFFwd_8u(b.data() + pos, got.data() + pos, len, st), ozrOk);
        }
        ASSERT_EQ(got, want);
        Ozr8u inv[256];
        m7_ozrsMTFInit_8u(inv);
        Bytes back(b.size());
        for (size_t pos = 0, step = 5; pos < b.size(); pos += step, step = step * 7 % 89 + 1) {
            int len = static_cast<int>(std::min(step, b.size() - pos));
            ASSERT_EQ(m7_ozrsMTFInv_8u(got.data() + pos, back.data() + pos, len, inv), ozrOk);
        }
        ASSERT_EQ(back, b);
        // The two states end as the rank and the list form of the same order.
        for (int r = 0; r < 256; ++r) ASSERT_EQ(st[inv[r]], r);
    }
}

TEST(MTF, InPlaceCodingWorks) {
    Bytes b = textBytes(1000, 9), want = refMTF(b), buf = b;
    Ozr8u st[256];
    m7_ozrsMTFInit_8u(st);
    ASSERT_EQ(m7_ozrsMTFFwd_8u(buf.data(), buf.data(), 1000, st), ozrOk);
    EXPECT_EQ(buf, want);
    m7_ozrsMTFInit_8u(st);
    ASSERT_EQ(m7_ozrsMTFInv_8u(buf.data(), buf.data(), 1000, st), ozrOk);
    EXPECT_EQ(buf, b);
}

TEST(MTF, ForwardOnATableThatIsNoPermutationFollowsTheRankRule) {
    // Every entry below the coded byte's rank grows by one, that byte gets rank 0.
    Ozr8u st[256], want[256];
    for (int i = 0; i < 256; ++i) st[i] = want[i] = static_cast<Ozr8u>(i / 2);
    Bytes in = {7, 7, 200}, out(3);
    Bytes expect;
    for (uint8_t s : in) {
        uint8_t r = want[s];
        expect.push_back(r);
        for (auto& e : want) e = static_cast<uint8_t>(e + (e < r));
        want[s] = 0;
    }
    ASSERT_EQ(m7_ozrsMTFFwd_8u(in.data(), out.data(), 3, st), ozrOk);
    EXPECT_EQ(out, expect);
    EXPECT_EQ(0, std::memcmp(st, want, 256));
}

TEST(MTF, StatusesInCheckOrder) {
    Ozr8u st[256], b[4] = {};
    EXPECT_EQ(m7_ozrsMTFGetSize_8u(nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMTFInit_8u(nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMTFFwd_8u(nullptr, b, 0, st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMTFFwd_8u(b, b, 4, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMTFFwd_8u(b, b, 0, st), ozrErrSize);
    EXPECT_EQ(m7_ozrsMTFInv_8u(b, nullptr, 0, st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsMTFInv_8u(b, b, -1, st), ozrErrSize);
}

// ---- Z1Z2 -------------------------------------------------------------------

Syms encodeZ1Z2(const Bytes& ranks, int room, std::vector<int>& freq, OzrResult* st = nullptr, int* left = nullptr) {
    Syms out(static_cast<size_t>(room));
    const Ozr8u* p = ranks.data();
    int srcLen = static_cast<int>(ranks.size()), dstLen = room;
    OzrResult r = m7_ozrsEncodeZ1Z2_BZ2_8u16u(&p, &srcLen, out.data(), &dstLen, freq.data());
    if (st) *st = r;
    if (left) *left = srcLen;
    EXPECT_EQ(p, ranks.data() + ranks.size() - srcLen);
    out.resize(static_cast<size_t>(dstLen));
    return out;
}

TEST(Z1Z2, RunsAreWrittenInBijectiveBaseTwo) {
    std::vector<int> freq(258);
    EXPECT_EQ(encodeZ1Z2({0, 0, 0, 5}, 10, freq), (Syms{0, 0, 6}));
    const Syms runs[] = {{0}, {1}, {0, 0}, {1, 0}, {0, 1}, {1, 1}, {0, 0, 0}};
    for (int z = 1; z <= 7; ++z) EXPECT_EQ(encodeZ1Z2(Bytes(z, 0), 10, freq), runs[z - 1]) << z;
    const Ozr16u syms[] = {0, 0, 6};
    const Ozr16u* p = syms;
    int srcLen = 3, dstLen = 10;
    Bytes out(10);
    ASSERT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, out.data(), &dstLen), ozrOk);
    EXPECT_EQ(dstLen, 4);
    EXPECT_EQ(srcLen, 0);
    out.resize(4);
    EXPECT_EQ(out, (Bytes{0, 0, 0, 5}));
}

TEST(Z1Z2, FrequenciesCountEverySymbolWritten) {
    std::vector<int> freq(258, 0);
    Syms s = encodeZ1Z2(Bytes(1000, 0), 100, freq);
    EXPECT_EQ(freq[0] + freq[1], static_cast<int>(s.size()));
    std::vector<int> again(258, 5);
    Bytes ranks = randomBytes(5000, 3);
    for (size_t i = 0; i < ranks.size(); i += 3) ranks[i] = 0;
    Syms t = encodeZ1Z2(ranks, 10000, again);
    for (int sym = 0; sym < 258; ++sym)
        ASSERT_EQ(again[sym] - 5, std::count(t.begin(), t.end(), sym)) << sym;
}

TEST(Z1Z2, RoundTripMatchesTheReferenceOnMTFOutput) {
    for (const Bytes& b : sampleBlocks(20000)) {
        Bytes ranks = refMTF(b);
        std::vector<int> freq(258);
        Syms s = encodeZ1Z2(ranks, static_cast<int>(ranks.size()) + 1, freq);
        ASSERT_EQ(s, refZ1Z2(ranks));
        Bytes back(ranks.size());
        const Ozr16u* p = s.data();
        int srcLen = static_cast<int>(s.size()), dstLen = static_cast<int>(back.size());
        ASSERT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, back.data(), &dstLen), ozrOk);
        ASSERT_EQ(dstLen, static_cast<int>(ranks.size()));
        ASSERT_EQ(back, ranks);
    }
}

TEST(Z1Z2, EncoderWithAnyRoomNeverOverrunsAndContinuesExactly) {
    // Feeding the encoder with rooms of every small size: the output is always a
    // valid coding of the consumed ranks, and the pieces decode back to the block.
    Bytes ranks = refMTF(runsBytes(3000, 11));
    ranks.insert(ranks.end(), 70000, 0);  // a run longer than the unchecked margin covers
    ranks.push_back(3);
    for (int room = 1; room <= 45; room += (room < 25 ? 1 : 7)) {
        std::vector<int> freq(258);
        Bytes decoded;
        const Ozr8u* p = ranks.data();
        int left = static_cast<int>(ranks.size());
        while (left > 0) {
            Syms out(static_cast<size_t>(room) + 8, 0xBEEF);
            int srcLen = left, dstLen = room;
            OzrResult r = m7_ozrsEncodeZ1Z2_BZ2_8u16u(&p, &srcLen, out.data(), &dstLen, freq.data());
            ASSERT_LE(dstLen, room);
            for (size_t k = static_cast<size_t>(room); k < out.size(); ++k) ASSERT_EQ(out[k], 0xBEEF);
            ASSERT_EQ(r, srcLen > 0 ? ozrWarnDstSizeLess : ozrOk);
            ASSERT_TRUE(dstLen > 0 || srcLen < left) << "no progress at room " << room;
            if (dstLen > 0) {
                Bytes piece(static_cast<size_t>(left - srcLen) + 1);
                const Ozr16u* q = out.data();
                int qLen = dstLen, pLen = static_cast<int>(piece.size());
                ASSERT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&q, &qLen, piece.data(), &pLen), ozrOk);
                ASSERT_EQ(pLen, left - srcLen);
                decoded.insert(decoded.end(), piece.begin(), piece.begin() + pLen);
            }
            left = srcLen;
        }
        ASSERT_EQ(decoded, ranks) << "room " << room;
    }
}

TEST(Z1Z2, DecoderStopsBeforeARunThatDoesNotFit) {
    const Ozr16u syms[] = {7, 1, 1, 9};  // 6, then a run of 6 zeros, then 8
    Bytes out(8, 0xAA);
    const Ozr16u* p = syms;
    int srcLen = 4, dstLen = 7;  // 1 + 6 fits, the 8 after the run does not
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, out.data(), &dstLen), ozrWarnDstSizeLess);
    EXPECT_EQ(dstLen, 1);
    EXPECT_EQ(srcLen, 1);  // the run's digits count as consumed
    EXPECT_EQ(out[1], 0xAA);
    p = syms, srcLen = 3, dstLen = 7;  // a run at the end may fill the room exactly
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, out.data(), &dstLen), ozrOk);
    EXPECT_EQ(dstLen, 7);
    const Ozr16u two[] = {7, 9};  // a plain symbol that does not fit stays
    p = two, srcLen = 2, dstLen = 1;
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, out.data(), &dstLen), ozrWarnDstSizeLess);
    EXPECT_EQ(srcLen, 1);
    EXPECT_EQ(dstLen, 1);
    const Ozr16u big[] = {300};  // symbols above 256 write the low 8 bits of s - 1
    p = big, srcLen = 1, dstLen = 1;
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, out.data(), &dstLen), ozrOk);
    EXPECT_EQ(out[0], 299 & 0xFF);
    Syms many(100, 1);  // a run far beyond any room
    p = many.data(), srcLen = 100, dstLen = 8;
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, out.data(), &dstLen), ozrWarnDstSizeLess);
    EXPECT_EQ(dstLen, 0);
}

TEST(Z1Z2, StatusesInCheckOrder) {
    Ozr8u r[2] = {};
    Ozr16u s[2] = {};
    int freq[258], len = 2, zero = 0;
    const Ozr8u* pr = r;
    const Ozr8u* pnull = nullptr;
    const Ozr16u* ps = s;
    const Ozr16u* psnull = nullptr;
    EXPECT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(nullptr, &zero, s, &zero, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(&pnull, &zero, s, &zero, freq), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(&pr, &zero, s, &zero, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(&pr, &zero, s, &len, freq), ozrErrSize);
    EXPECT_EQ(m7_ozrsEncodeZ1Z2_BZ2_8u16u(&pr, &len, s, &zero, freq), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&ps, nullptr, r, &len), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&psnull, &zero, r, &zero), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&ps, &zero, r, &len), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&ps, &len, r, &zero), ozrErrSize);
    EXPECT_EQ(len, 2);
}

}  // namespace
