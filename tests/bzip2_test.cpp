// bzip2 block-sorting stages: exact values of the format, round trips of every
// stage on text, binary, single-byte and periodic blocks, every split of the input
// against one call, the BWT against sorted rotations and libdivsufsort, the forward
// chain against a plain reference of bzip2's block coding, and every status.
#include <gtest/gtest.h>

#include "test_data.h"
#include <bzlib.h>
#include <divsufsort.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "../src/bzip2/bwt_internal.h"

namespace {

using Syms = std::vector<uint16_t>;

Bytes str(const char* s) { return Bytes(s, s + std::strlen(s)); }
Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

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

// bzip2's initial run-length coding of a whole buffer.
Bytes refRLE(const Bytes& in) {
    Bytes out;
    for (size_t i = 0; i < in.size();) {
        size_t j = i;
        while (j < in.size() && in[j] == in[i]) ++j;
        size_t len = j - i;
        for (; len >= 4; len -= std::min<size_t>(len, 259)) {
            out.insert(out.end(), 4, in[i]);
            out.push_back(static_cast<uint8_t>(std::min<size_t>(len, 259) - 4));
        }
        out.insert(out.end(), len, in[i]);
        i = j;
    }
    return out;
}

// The last column by sorting the rotations themselves (small blocks only).
Bytes refBWT(const Bytes& b, int* index) {
    const size_t n = b.size();
    std::vector<size_t> rot(n);
    std::iota(rot.begin(), rot.end(), 0);
    std::stable_sort(rot.begin(), rot.end(), [&](size_t x, size_t y) {
        for (size_t k = 0; k < n; ++k) {
            uint8_t a = b[(x + k) % n], c = b[(y + k) % n];
            if (a != c) return a < c;
        }
        return false;
    });
    Bytes out(n);
    for (size_t k = 0; k < n; ++k) {
        out[k] = b[(rot[k] + n - 1) % n];
        if (rot[k] == 0) *index = static_cast<int>(k);
    }
    return out;
}

// The cyclic last column through libdivsufsort: the suffixes of the doubled block
// that start in its first half sort as the rotations (equal rotations tie either
// way, which leaves the column unchanged).
Bytes divsufsortBWT(const Bytes& b, int* index) {
    const int n = static_cast<int>(b.size());
    Bytes bb(b);
    bb.insert(bb.end(), b.begin(), b.end());
    std::vector<saidx_t> sa(2 * static_cast<size_t>(n));
    EXPECT_EQ(divsufsort(bb.data(), sa.data(), 2 * n), 0);
    Bytes out;
    out.reserve(b.size());
    for (saidx_t i : sa) {
        if (i >= n) continue;
        if (i == 0) *index = static_cast<int>(out.size());
        out.push_back(b[(i + n - 1) % n]);
    }
    return out;
}

Bytes inverseBWT(const Bytes& last, int index) {
    int size = 0;
    EXPECT_EQ(m7_ozrsBWTInvGetSize_8u(static_cast<int>(last.size()), &size), ozrOk);
    Bytes buf(static_cast<size_t>(size) + 1), out(last.size());
    // An odd buffer address: the call aligns its 32-bit array itself.
    EXPECT_EQ(m7_ozrsBWTInv_8u(last.data(), out.data(), static_cast<int>(last.size()), index, buf.data() + 1), ozrOk);
    return out;
}

// Forward transform through the library with a buffer of exactly the stated size
// at an odd address.
Bytes forwardBWT(const Bytes& b, int* index, int mode = -1, OzrResult* status = nullptr) {
    const int n = static_cast<int>(b.size());
    int size = 0;
    if (mode < 0) {
        EXPECT_EQ(m7_ozrsBWTFwdGetSize_8u(n, &size), ozrOk);
    } else {
        EXPECT_EQ(m7_ozrsBWTFwdGetBufSize_SelectSort_8u(n, &size, mode), ozrOk);
    }
    Bytes buf(static_cast<size_t>(size) + 1), out(b.size());
    Bytes src = b;
    OzrResult r = mode < 0 ? m7_ozrsBWTFwd_8u(src.data(), out.data(), n, index, buf.data() + 1)
                           : m7_ozrsBWTFwd_SelectSort_8u(src.data(), out.data(), n, index, buf.data() + 1, mode);
    if (status) {
        *status = r;
    } else {
        EXPECT_EQ(r, ozrOk);
    }
    EXPECT_EQ(src, b);
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

// Long calls are coded in segments (each segment but the first from a stand-in
// list, put right afterwards), with runs taken 8 bytes at a time and bytes from
// rank 16 on ranked in batches; the inverse codes groups of eight ranks. Lengths
// around the segment thresholds (2 and 3 times 4096), a first segment that uses few
// byte values while every value first appears in a later one, runs across segment
// ends, noise (many batches), a caller's state far from 0..255, in place and
// apart: ranks and final states must equal the plain rules.
TEST(MTF, SegmentedCallsMatchThePlainRulesAtEveryBoundary) {
    auto refFwd = [](const Bytes& in, uint8_t* rank) {  // rank: a permutation
        uint8_t list[256];
        for (int v = 0; v < 256; ++v) list[rank[v]] = static_cast<uint8_t>(v);
        Bytes out;
        for (uint8_t s : in) {
            uint8_t r = static_cast<uint8_t>(std::find(list, list + 256, s) - list);
            out.push_back(r);
            std::memmove(list + 1, list, r);
            list[0] = s;
        }
        for (int r = 0; r < 256; ++r) rank[list[r]] = static_cast<uint8_t>(r);
        return out;
    };
    auto refInv = [](const Bytes& in, uint8_t* list) {
        Bytes out;
        for (uint8_t r : in) {
            uint8_t s = list[r];
            out.push_back(s);
            std::memmove(list + 1, list, r);
            list[0] = s;
        }
        return out;
    };
    std::vector<Bytes> inputs;
    for (size_t n : {8191, 8192, 8193, 12287, 12288, 12289, 12290, 40000}) {
        // Few values first, then all 256 in the last third, then a mix.
        Bytes b = runsBytes(n / 3, static_cast<uint32_t>(n));
        for (size_t i = 0; b.size() < n; ++i) b.push_back(static_cast<uint8_t>(i % 7 ? (i * 37) % 256 : b.back()));
        inputs.push_back(b);
        inputs.push_back(randomBytes(n, static_cast<uint32_t>(n) + 1));
        inputs.push_back(runsBytes(n, static_cast<uint32_t>(n) + 2));
        inputs.push_back(Bytes(n, 200));
    }
    // Runs the call in place or into a buffer whose 8 bytes past len must stay.
    auto code = [](decltype(&m7_ozrsMTFFwd_8u) f, const Bytes& in, uint8_t* state, bool inPlace) {
        const int n = static_cast<int>(in.size());
        Bytes out = in;
        if (inPlace) {
            EXPECT_EQ(f(out.data(), out.data(), n, state), ozrOk);
        } else {
            out.assign(in.size() + 8, 0x55);
            EXPECT_EQ(f(in.data(), out.data(), n, state), ozrOk);
            EXPECT_EQ(Bytes(out.begin() + n, out.end()), Bytes(8, 0x55));
            out.resize(in.size());
        }
        return out;
    };
    for (const Bytes& b : inputs) {
        // A state far from 0..255: the list reversed, in rank form.
        uint8_t start[256], want[256];
        for (int v = 0; v < 256; ++v) start[v] = want[v] = static_cast<uint8_t>(255 - v);
        const Bytes ranks = refFwd(b, want);
        for (bool inPlace : {false, true}) {
            SCOPED_TRACE(testing::Message() << "n=" << b.size() << " inPlace=" << inPlace);
            uint8_t st[256];
            std::memcpy(st, start, 256);
            ASSERT_EQ(code(m7_ozrsMTFFwd_8u, b, st, inPlace), ranks);
            ASSERT_EQ(0, std::memcmp(st, want, 256));
            // Inverse from the list form of the same start, and from a list that is
            // no permutation (the rule only moves positions).
            for (bool perm : {true, false}) {
                uint8_t list[256], wantList[256];
                for (int v = 0; v < 256; ++v) list[perm ? start[v] : v] = static_cast<uint8_t>(perm ? v : v / 3);
                std::memcpy(wantList, list, 256);
                const Bytes bytes = refInv(ranks, wantList);
                if (perm) ASSERT_EQ(bytes, b);
                ASSERT_EQ(code(m7_ozrsMTFInv_8u, ranks, list, inPlace), bytes);
                ASSERT_EQ(0, std::memcmp(list, wantList, 256));
            }
        }
    }
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
    ranks.insert(ranks.end(), 3000, 0);
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

TEST(Z1Z2, RunsBeyondTwentyDigitsAreCodedWhole) {
    Bytes ranks(3u << 20, 0);  // 22 digits: more than the unchecked margin holds
    ranks.push_back(9);
    std::vector<int> freq(258);
    Syms s = encodeZ1Z2(ranks, 30, freq);
    ASSERT_EQ(s, refZ1Z2(ranks));
    OzrResult st;
    int left;
    Syms cut = encodeZ1Z2(ranks, 21, freq, &st, &left);  // the run fills the room, 9 waits
    EXPECT_EQ(st, ozrWarnDstSizeLess);
    EXPECT_EQ(cut.size(), 21u);
    EXPECT_EQ(left, 1);
    cut = encodeZ1Z2(ranks, 20, freq, &st, &left);  // cut to the longest 20-digit run
    EXPECT_EQ(st, ozrWarnDstSizeLess);
    EXPECT_EQ(cut, Syms(20, 1));
    EXPECT_EQ(left, static_cast<int>(ranks.size()) - ((2 << 20) - 2));
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

// ---- BWT inverse ----------------------------------------------------------------

TEST(BWTInverse, BananaAndSingleByte) {
    EXPECT_EQ(inverseBWT(str("nnbaaa"), 3), str("banana"));
    EXPECT_EQ(inverseBWT(str("Q"), 0), str("Q"));
    int size = 0;
    ASSERT_EQ(m7_ozrsBWTInvGetSize_8u(1000, &size), ozrOk);
    EXPECT_EQ(size, 5024);
}

TEST(BWTInverse, RestoresBlocksOfEveryShape) {
    for (size_t n : {2, 3, 7, 100, 1000}) {
        for (const Bytes& b : sampleBlocks(n)) {
            int index = -1;
            Bytes last = refBWT(b, &index);
            ASSERT_EQ(inverseBWT(last, index), b) << n;
        }
    }
    for (const Bytes& b : sampleBlocks(300000)) {
        int index = -1;
        Bytes last = divsufsortBWT(b, &index);
        ASSERT_EQ(inverseBWT(last, index), b);
    }
}

// The inverse's definition, step by step, for any column and index.
Bytes refInverse(const Bytes& last, int index) {
    const size_t n = last.size();
    std::vector<uint32_t> start(256), link(n);
    for (uint8_t c : last) ++start[c];
    for (uint32_t c = 0, sum = 0; c < 256; ++c) std::swap(start[c], sum), sum += start[c];
    for (size_t i = 0; i < n; ++i) link[start[last[i]]++] = static_cast<uint32_t>(i);
    Bytes out(n);
    for (size_t k = 0, p = static_cast<size_t>(index); k < n; ++k) out[k] = last[p = link[p]];
    return out;
}

TEST(BWTInverse, AnyColumnAndIndexDecodeAsDefinedInBothForms) {
    // Columns that are no BWT output have links in several cycles: the walks in
    // flight must still give what one walk gives.
    std::vector<Bytes> columns = {randomBytes(5000, 17), periodicBytes(4001, 7, 18), Bytes{2, 1, 1, 0, 0, 2, 2},
                                  randomBytes(70001, 19), runsBytes(40000, 20)};
    for (const Bytes& b : {textBytes(50000, 24), periodicBytes(60000, 12, 25)}) {
        int index = -1;
        Bytes last = divsufsortBWT(b, &index);
        last[last.size() / 3] ^= 1;  // one changed byte: links in several cycles
        columns.push_back(last);
    }
    for (const Bytes& last : columns) {
        const int n = static_cast<int>(last.size());
        for (int index : {0, 1, n / 2, n - 1, -5}) {
            Bytes want = refInverse(last, index < 0 ? 0 : index);
            ASSERT_EQ(inverseBWT(last, index), want) << index;
            std::vector<Ozr32u> linked(last.begin(), last.end());
            Ozr32u counts[256] = {};
            for (uint8_t c : last) ++counts[c];
            Bytes out(last.size());
            m7_ownsBWTInvLinked_8u(linked.data(), out.data(), n, index < 0 ? 0 : index, counts);
            ASSERT_EQ(out, want) << index;
        }
    }
}

TEST(BWTInverse, StatusesInCheckOrder) {
    Ozr8u a[8] = {}, buf[64];
    int size = 0;
    EXPECT_EQ(m7_ozrsBWTInvGetSize_8u(0, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTInvGetSize_8u(0, &size), ozrErrSize);
    EXPECT_EQ(m7_ozrsBWTInv_8u(a, a, 0, 9, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTInv_8u(nullptr, a, 8, 0, buf), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTInv_8u(a, a, 0, 0, buf), ozrErrSize);
    EXPECT_EQ(m7_ozrsBWTInv_8u(a, a, 8, 8, buf), ozrErrSize);  // index == n is refused
    EXPECT_EQ(m7_ozrsBWTInv_8u(a, a, 8, -1, buf), ozrOk);    // a negative one is not
}

// ---- RLE --------------------------------------------------------------------

struct RLE {
    OzrsRLEState_BZ2 st;
    RLE(bool decode = false) {
        EXPECT_EQ(decode ? m7_ozrsDecodeRLEStateInit_BZ2_8u(&st) : m7_ozrsEncodeRLEInit_BZ2_8u(&st), ozrOk);
    }
    // Encodes `in` in pieces of `piece` bytes with output rooms of `room`.
    Bytes encode(const Bytes& in, size_t piece, int room, bool flush = true) {
        Bytes out;
        for (size_t pos = 0; pos < in.size();) {
            const Ozr8u* p = in.data() + pos;
            int left = static_cast<int>(std::min(piece, in.size() - pos));
            while (left > 0) {
                Bytes buf(static_cast<size_t>(room) + 1, 0xEE);
                int srcLen = left, dstLen = room;
                const Ozr8u* before = p;
                OzrResult r = m7_ozrsEncodeRLE_BZ2_8u(&p, &srcLen, buf.data(), &dstLen, &st);
                EXPECT_EQ(r, srcLen > 0 ? ozrWarnDstSizeLess : ozrOk);
                EXPECT_EQ(p - before, left - srcLen);
                EXPECT_EQ(buf[static_cast<size_t>(room)], 0xEE);
                out.insert(out.end(), buf.begin(), buf.begin() + dstLen);
                pos += static_cast<size_t>(left - srcLen);
                left = srcLen;
            }
        }
        if (flush) {
            Ozr8u last[2] = {0, 0xEE};
            int len = 1;
            EXPECT_EQ(m7_ozrsEncodeRLEFlush_BZ2_8u(last, &len, &st), ozrOk);
            out.insert(out.end(), last, last + len);
        }
        return out;
    }
    // Decodes the whole input in one piece into rooms of `room` bytes, then flushes.
    Bytes decode(const Bytes& in, int room) {
        Bytes out;
        const Ozr8u* p = in.data();
        int left = static_cast<int>(in.size());
        for (int guard = 0; left > 0 && guard < 1000000; ++guard) {
            Bytes buf(static_cast<size_t>(room) + 1, 0xEE);
            Ozr8u* q = buf.data();
            int srcLen = left, dstLen = room;
            OzrResult r = m7_ozrsDecodeRLEState_BZ2_8u(&p, &srcLen, &q, &dstLen, &st);
            EXPECT_TRUE(r == ozrOk || r == ozrWarnDstSizeLess) << r;
            EXPECT_EQ(q - buf.data(), room - dstLen);
            EXPECT_EQ(buf[static_cast<size_t>(room)], 0xEE);
            out.insert(out.begin() + static_cast<long>(out.size()), buf.data(), q);
            left = srcLen;
        }
        for (int guard = 0; st.runLen > 0 && guard < 1000000; ++guard) {
            Bytes buf(static_cast<size_t>(room));
            Ozr8u* q = buf.data();
            int dstLen = room;
            OzrResult r = m7_ozrsDecodeRLEStateFlush_BZ2_8u(&st, &q, &dstLen);
            EXPECT_EQ(r, st.runLen > 0 ? ozrWarnDstSizeLess : ozrOk);
            out.insert(out.end(), buf.data(), q);
        }
        return out;
    }
};

TEST(RLE, ExactCodingOfRunsAtTheirEdges) {
    int size = 0;
    ASSERT_EQ(m7_ozrsRLEGetSize_BZ2_8u(&size), ozrOk);
    EXPECT_EQ(size, 264);
    EXPECT_EQ(sizeof(OzrsRLEState_BZ2), 264u);
    {
        RLE e;
        EXPECT_EQ(e.encode(str("aaaa"), 4, 10), (Bytes{'a', 'a', 'a', 'a', 0}));
        EXPECT_EQ(e.st.inUse['a'], 1);
        EXPECT_EQ(e.st.inUse[0], 1);
        EXPECT_EQ(std::count(e.st.inUse, e.st.inUse + 256, 1), 2);
    }
    Bytes run260(260, 'q');
    Bytes want = {'q', 'q', 'q', 'q', 255, 'q'};
    EXPECT_EQ(RLE().encode(run260, 260, 300), want);
    EXPECT_EQ(RLE().encode(run260, 1, 300), want);  // one byte per call
    // The count is written only when the run ends: not before the next byte.
    RLE open;
    EXPECT_EQ(open.encode(Bytes(7, 'z'), 7, 20, false), Bytes(4, 'z'));
    EXPECT_EQ(open.st.runLen, 7);
    EXPECT_EQ(open.st.lastSym, 'z');
}

TEST(RLE, EncoderRoomOfFourStopsBeforeTheCount) {
    RLE e;
    Bytes in = str("aaaab"), out(4);
    const Ozr8u* p = in.data();
    int srcLen = 5, dstLen = 4;
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&p, &srcLen, out.data(), &dstLen, &e.st), ozrWarnDstSizeLess);
    EXPECT_EQ(out, str("aaaa"));
    EXPECT_EQ(srcLen, 1);
    EXPECT_EQ(e.st.runLen, 4);
    dstLen = 4;
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&p, &srcLen, out.data(), &dstLen, &e.st), ozrOk);
    EXPECT_EQ(dstLen, 2);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 'b');
}

TEST(RLE, EncoderEqualsReferenceForEveryPieceAndRoom) {
    for (const Bytes& b : sampleBlocks(2000)) {
        Bytes want = refRLE(b);
        for (size_t piece : {1, 2, 3, 5, 258, 259, 260, 2000})
            for (int room : {1, 2, 4, 5, 7, 300, 5000}) ASSERT_EQ(RLE().encode(b, piece, room), want) << piece << " " << room;
        RLE e;
        e.encode(b, 2000, 5000);
        for (int v = 0; v < 256; ++v)
            ASSERT_EQ(e.st.inUse[v], std::count(want.begin(), want.end(), v) > 0 ? 1 : 0) << v;
    }
}

TEST(RLE, EncoderGivesTheSameBytesForEverySplitInTwoAndThree) {
    Bytes run = Bytes(262, 'r') + str("rrrrs") + Bytes(5, 0) + str("abbbbbcccc");
    for (const Bytes& b : {run, str("aaaabaaaaaaab"), periodicBytes(40, 2, 9)}) {
        const Bytes want = refRLE(b);
        const size_t n = b.size();
        for (size_t i = 1; i < n; ++i) {
            for (size_t j = i; j < n; j += (n - i) / 7 + 1) {
                RLE e;
                Bytes got = e.encode(Bytes(b.begin(), b.begin() + static_cast<long>(i)), n, 1000, false);
                if (j > i) got = got + e.encode(Bytes(b.begin() + static_cast<long>(i), b.begin() + static_cast<long>(j)), n, 1000, false);
                got = got + e.encode(Bytes(b.begin() + static_cast<long>(j), b.end()), n, 1000, true);
                ASSERT_EQ(got, want) << i << " " << j;
            }
        }
    }
}

TEST(RLE, DecoderRestoresEveryBlockWithAnyRoom) {
    for (const Bytes& b : sampleBlocks(5000)) {
        Bytes coded = refRLE(b);
        for (int room : {1, 2, 3, 4, 5, 17, 255, 259, 100000}) ASSERT_EQ(RLE(true).decode(coded, room), b) << room;
    }
}

TEST(RLE, DecoderOwesWhatDoesNotFitAndMergesRunGroups) {
    RLE d(true);
    Bytes in = {'a', 'a', 'a', 'a', 200}, out(300);
    const Ozr8u* p = in.data();
    Ozr8u* q = out.data();
    int srcLen = 5, dstLen = 100;
    EXPECT_EQ(m7_ozrsDecodeRLEState_BZ2_8u(&p, &srcLen, &q, &dstLen, &d.st), ozrWarnDstSizeLess);
    EXPECT_EQ(q - out.data(), 100);
    EXPECT_EQ(dstLen, 0);
    EXPECT_EQ(srcLen, 0);
    EXPECT_EQ(d.st.runLen, 104);
    dstLen = 200;
    EXPECT_EQ(m7_ozrsDecodeRLEStateFlush_BZ2_8u(&d.st, &q, &dstLen), ozrOk);
    EXPECT_EQ(q - out.data(), 204);
    EXPECT_EQ(dstLen, 96);
    EXPECT_EQ(d.st.lastSym, -1);
    EXPECT_EQ(std::count(out.begin(), out.begin() + 204, 'a'), 204);

    RLE m(true);
    Bytes two = {'a', 'a', 'a', 'a', 0, 'a', 'a', 'a', 'a', 5, 'x', 'y', 'z'};
    EXPECT_EQ(m.decode(two, 1000), Bytes(13, 'a') + str("xyz"));
}

TEST(RLE, DecoderTakesTheLastThreeBytesLiterally) {
    // "bbbb" with its count among the last three bytes is not a run here.
    EXPECT_EQ(RLE(true).decode(str("bbb"), 10), str("bbb"));
    Bytes in = {'b', 'b', 'b', 'b', 2};
    EXPECT_EQ(RLE(true).decode(in, 10), Bytes(6, 'b'));
    Bytes cut = {'c', 'b', 'b', 'b', 'b'};  // the "count" would lie past the input
    EXPECT_EQ(RLE(true).decode(cut, 10), cut);
}

TEST(RLE, StatusesInCheckOrder) {
    OzrsRLEState_BZ2 st;
    m7_ozrsEncodeRLEInit_BZ2_8u(&st);
    Ozr8u b[8] = {};
    Ozr8u* q = b;
    Ozr8u* qnull = nullptr;
    const Ozr8u* p = b;
    const Ozr8u* pnull = nullptr;
    int zero = 0, len = 4;
    EXPECT_EQ(m7_ozrsRLEGetSize_BZ2_8u(nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeRLEInit_BZ2_8u(nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeRLEStateInit_BZ2_8u(nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&p, &zero, nullptr, &zero, &st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&pnull, &zero, b, &zero, &st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&p, &zero, b, &zero, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&p, &zero, b, &len, &st), ozrErrSize);
    EXPECT_EQ(m7_ozrsEncodeRLE_BZ2_8u(&p, &len, b, &zero, &st), ozrErrSize);
    EXPECT_EQ(m7_ozrsEncodeRLEFlush_BZ2_8u(b, nullptr, &st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsEncodeRLEFlush_BZ2_8u(b, &zero, &st), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeRLEState_BZ2_8u(&p, &zero, nullptr, &zero, &st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeRLEState_BZ2_8u(&p, &zero, &qnull, &zero, &st), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeRLEState_BZ2_8u(&p, &zero, &q, &zero, &st), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeRLEState_BZ2_8u(&p, &len, &q, &zero, &st), ozrErrSize);
    EXPECT_EQ(m7_ozrsDecodeRLEStateFlush_BZ2_8u(&st, &qnull, &len), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsDecodeRLEStateFlush_BZ2_8u(&st, &q, &zero), ozrOk);  // no room check
    EXPECT_EQ(m7_ozrsRLEGetInUseTable_8u(b, nullptr), ozrErrNullPointer);
    EXPECT_EQ(q, b);
    EXPECT_EQ(p, b);
}

// ---- Alphabet reduction -------------------------------------------------------

TEST(Dictionary, ReduceAndExpandMapTheValuesInUse) {
    Ozr8u inUse[256] = {};
    inUse['a'] = inUse['z'] = 1;
    Bytes buf = str("azza"), copy = buf;
    int size = 0;
    ASSERT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, buf.data(), 4, &size), ozrOk);
    EXPECT_EQ(size, 2);
    EXPECT_EQ(buf, (Bytes{0, 1, 1, 0}));
    ASSERT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, buf.data(), 4, 2), ozrOk);
    EXPECT_EQ(buf, copy);
    Bytes m = str("m");  // not in use: the index of the next value in use
    ASSERT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, m.data(), 1, &size), ozrOk);
    EXPECT_EQ(m[0], 1);
    Bytes keep = {0, 1};
    EXPECT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, keep.data(), 2, 3), ozrErrFailed);
    EXPECT_EQ(keep, (Bytes{0, 1}));
}

TEST(Dictionary, RoundTripOfTheTableTheEncoderCollected) {
    for (const Bytes& b : sampleBlocks(3001)) {
        RLE e;
        Bytes coded = e.encode(b, 1000, 10000), buf = coded;
        Ozr8u inUse[256];
        ASSERT_EQ(m7_ozrsRLEGetInUseTable_8u(inUse, &e.st), ozrOk);
        ASSERT_EQ(0, std::memcmp(inUse, e.st.inUse, 256));
        int size = 0;
        ASSERT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, buf.data(), static_cast<int>(buf.size()), &size), ozrOk);
        ASSERT_EQ(size, std::count(inUse, inUse + 256, 1));
        ASSERT_LT(*std::max_element(buf.begin(), buf.end()), size);
        ASSERT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, buf.data(), static_cast<int>(buf.size()), size), ozrOk);
        ASSERT_EQ(buf, coded);
    }
}

TEST(Dictionary, StatusesInCheckOrder) {
    Ozr8u inUse[256] = {}, b[4] = {};
    int size = 0;
    EXPECT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, b, 0, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, b, 0, &size), ozrErrSize);
    EXPECT_EQ(m7_ozrsExpandDictionary_8u_I(nullptr, b, 0, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, b, 0, 5), ozrErrSize);
    EXPECT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, b, 4, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, b, 4, 1), ozrErrFailed);
}

// ---- BWT forward ----------------------------------------------------------------

TEST(BWTForward, BananaSingleByteAndSizes) {
    int index = -1;
    EXPECT_EQ(forwardBWT(str("banana"), &index), str("nnbaaa"));
    EXPECT_EQ(index, 3);
    EXPECT_EQ(forwardBWT(str("Z"), &index), str("Z"));
    EXPECT_EQ(index, 0);
    int size = 0;
    ASSERT_EQ(m7_ozrsBWTFwdGetSize_8u(10, &size), ozrOk);
    EXPECT_EQ(size, 6 * 10 + 524484);
    ASSERT_EQ(m7_ozrsBWTFwdGetSize_8u(900000, &size), ozrOk);
    EXPECT_EQ(size, 18 * 900000 + 80);
    const int want[4] = {6 * 1000 + 524484, 6 * 1000 + 524484, 18 * 1000 + 80, 6 * 1000 + 524484};
    for (int mode = 0; mode < 4; ++mode) {
        ASSERT_EQ(m7_ozrsBWTFwdGetBufSize_SelectSort_8u(1000, &size, mode), ozrOk);
        EXPECT_EQ(size, want[mode]);
    }
    ASSERT_EQ(m7_ozrsBWTFwdGetBufSize_SelectSort_8u(-1000, &size, -3), ozrOk);  // any mode below 2
    size = 77;
    ASSERT_EQ(m7_ozrsBWTFwdGetBufSize_SelectSort_8u(1000, &size, 4), ozrOk);
    EXPECT_EQ(size, 77);
}

TEST(BWTForward, EveryModeMatchesSortedRotationsOnSmallBlocks) {
    std::vector<Bytes> blocks;
    for (size_t n : {2, 3, 5, 11, 99, 100, 101, 257, 1500})
        for (const Bytes& b : sampleBlocks(n)) blocks.push_back(b);
    blocks.push_back(str("abababababababababababab"));
    blocks.push_back(str("mississippi"));
    for (const Bytes& b : blocks) {
        int want = -1;
        Bytes last = refBWT(b, &want);
        for (int mode = -1; mode < 4; ++mode) {
            int index = -1;
            OzrResult st = ozrOk;
            Bytes got = forwardBWT(b, &index, mode, &st);
            if (mode == 0 && st == ozrWarnBWTSortLimit && b.size() >= 100) continue;
            ASSERT_EQ(st, ozrOk);
            ASSERT_EQ(got, last) << b.size() << " mode " << mode;
            // Equal rotations may stand in either order; the block must come back.
            ASSERT_EQ(inverseBWT(last, index), b);
        }
    }
}

TEST(BWTForward, LargeBlocksMatchLibdivsufsort) {
    std::vector<Bytes> blocks = sampleBlocks(200000);
    Bytes twoHalves = randomBytes(100000, 8);  // a long repeat: hard for bucket sorts
    twoHalves.insert(twoHalves.end(), twoHalves.begin(), twoHalves.end());
    twoHalves[150000] ^= 1;
    blocks.push_back(twoHalves);
    for (const Bytes& b : blocks) {
        int want = -1;
        Bytes last = divsufsortBWT(b, &want);
        for (int mode : {-1, 1, 2, 3}) {
            int index = -1;
            ASSERT_EQ(forwardBWT(b, &index, mode), last) << "mode " << mode;
            ASSERT_EQ(inverseBWT(last, index), b);
        }
    }
}

// The suffix sorter with a workspace of 3n and of 2n words against libdivsufsort.
void expectSuffixArrayOfLibdivsufsort(const Bytes& b) {
    const int n = static_cast<int>(b.size());
    std::vector<int32_t> want(b.size());
    ASSERT_EQ(divsufsort(b.data(), want.data(), n), 0);
    for (size_t words : {3 * b.size(), 2 * b.size()}) {
        std::vector<Ozr32s> sa(b.size(), -7), ws(words);
        ASSERT_TRUE(m7_ownsSuffixArray_8u(b.data(), sa.data(), n, m7::SaisWorkspace{ws.data(), words}))
            << n << " bytes, " << words << " words";
        ASSERT_TRUE(std::equal(sa.begin(), sa.end(), want.begin())) << n << " bytes, " << words << " words";
    }
}

// The suffix sorter keeps the LMS positions of a level only when its workspace
// has room for them and any deeper level, finds them again otherwise, and names
// in bytes, 16 or 32 bits by the count of names: every path must sort exactly.
TEST(BWTForward, SuffixSorterIsExactWhateverItsWorkspaceAndNameWidth) {
    std::vector<Bytes> blocks = sampleBlocks(3000);
    blocks.push_back(randomBytes(400000, 9));  // over 65536 names that repeat: a 32-bit level
    Bytes nearPeriodic = periodicBytes(30000, 1000, 10);  // byte-wide names one level down
    nearPeriodic[15000] ^= 1;
    blocks.push_back(nearPeriodic);
    // Few repeated names, sorted by prefix doubling: a long copy (pairs that need
    // many rounds) and a snippet seen 24 times (groups past insertion sort).
    Bytes copies = randomBytes(200000, 11);
    std::copy(copies.begin() + 20000, copies.begin() + 28000, copies.begin() + 100000);
    for (size_t k = 0; k < 24; ++k) std::copy(copies.begin() + 5000, copies.begin() + 5300, copies.begin() + 130000 + 2000 * k);
    blocks.push_back(copies);
    Bytes alternating(3000);  // an LMS position every second byte: the reduced string fills half of SA
    for (size_t i = 0; i < alternating.size(); ++i) alternating[i] = i % 2 ? 'a' : 'b';
    blocks.push_back(alternating);
    for (const Bytes& b : blocks) expectSuffixArrayOfLibdivsufsort(b);
}

// Levels with few distinct LMS substrings are named from a table of them: keys that
// hold the bytes or a hash (substrings past 8 bytes, from runs), thousands of names
// when the string repeats itself with a long period (most of them named from the
// substrings a period earlier), a table abandoned part way
// when the repeats stop, and a table cut down by a small workspace.
TEST(BWTForward, SuffixSorterNamesRepeatedSubstringsExactly) {
    std::vector<Bytes> blocks;
    Bytes longPeriod = periodicBytes(150000, 7000, 12);  // over 1024 names a period
    longPeriod[40000] ^= 1;
    longPeriod[90000] ^= 0x80;
    blocks.push_back(longPeriod);
    Bytes runs = runsBytes(2500, 13), periodicRuns;  // long LMS substrings repeating
    while (periodicRuns.size() < 100000) periodicRuns.insert(periodicRuns.end(), runs.begin(), runs.end());
    periodicRuns[50000] ^= 1;
    blocks.push_back(periodicRuns);
    blocks.push_back(periodicBytes(30000, 50, 14) + randomBytes(90000, 15));  // repeats, then noise
    // Named from the substrings a period earlier between changes: many scattered
    // changes and a changed stretch break the runs at every kind of place.
    Bytes scattered = periodicBytes(120000, 3000, 16);
    for (size_t k = 1; k <= 40; ++k) scattered[(k * 2927 + 500) % scattered.size()] ^= static_cast<Ozr8u>(k);
    Bytes stretch = randomBytes(64, 17);
    std::copy(stretch.begin(), stretch.end(), scattered.begin() + 60000);
    blocks.push_back(scattered);
    for (const Bytes& b : blocks) expectSuffixArrayOfLibdivsufsort(b);
}

TEST(BWTForward, ModeZeroStopsAtItsWorkLimitOnRepetitiveBlocks) {
    for (const Bytes& b : {Bytes(200000, 0), periodicBytes(150000, 5, 3)}) {
        OzrResult st = ozrOk;
        int index = -1;
        forwardBWT(b, &index, 0, &st);
        EXPECT_EQ(st, ozrWarnBWTSortLimit);
    }
    for (const Bytes& b : {textBytes(200000, 3), randomBytes(200000, 4)}) {
        OzrResult st = ozrErr;
        int index = -1, want = -1;
        Bytes last = forwardBWT(b, &index, 0, &st);
        EXPECT_EQ(st, ozrOk);
        EXPECT_EQ(last, divsufsortBWT(b, &want));
    }
}

TEST(BWTForward, OtherModesDoNothingButSmallBlocksAreSortedAnyway) {
    Bytes b = textBytes(500, 1), out(500, 0xEE), buf(18 * 500 + 80 + 524484);
    int index = -7;
    EXPECT_EQ(m7_ozrsBWTFwd_SelectSort_8u(b.data(), out.data(), 500, &index, buf.data(), 4), ozrOk);
    EXPECT_EQ(out, Bytes(500, 0xEE));
    EXPECT_EQ(index, -7);
    int want = -1;
    Bytes small = str("a small block of text");
    Bytes o2(small.size());
    EXPECT_EQ(m7_ozrsBWTFwd_SelectSort_8u(small.data(), o2.data(), static_cast<int>(small.size()), &index,
                                          buf.data(), 9), ozrOk);
    EXPECT_EQ(o2, refBWT(small, &want));
}

TEST(BWTForward, StatusesInCheckOrder) {
    Ozr8u a[8] = {}, buf[16];
    int index = 0, size = 0;
    EXPECT_EQ(m7_ozrsBWTFwdGetSize_8u(0, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTFwdGetSize_8u(0, &size), ozrErrSize);
    EXPECT_EQ(m7_ozrsBWTFwdGetBufSize_SelectSort_8u(0, nullptr, 0), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTFwdGetBufSize_SelectSort_8u(0, &size, 0), ozrErrSize);
    EXPECT_EQ(m7_ozrsBWTFwd_8u(a, a, 0, &index, nullptr), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTFwd_8u(a, a, 0, &index, buf), ozrErrSize);
    EXPECT_EQ(m7_ozrsBWTFwd_SelectSort_8u(a, a, 0, nullptr, buf, 9), ozrErrNullPointer);
    EXPECT_EQ(m7_ozrsBWTFwd_SelectSort_8u(a, a, -1, &index, buf, 9), ozrErrSize);
}

// ---- The forward chain ------------------------------------------------------------

// bzip2's block coding up to the Huffman stage, written plainly: RLE, the BWT of the
// RLE output, move-to-front over the in-use alphabet, zero runs.
Syms refBlockSymbols(const Bytes& raw, int* index, int* alphabet) {
    Bytes rle = refRLE(raw);
    Bytes last = divsufsortBWT(rle, index);
    uint8_t map[256];
    int used = 0;
    for (int v = 0; v < 256; ++v) {
        map[v] = static_cast<uint8_t>(used);
        used += std::count(rle.begin(), rle.end(), v) > 0;
    }
    for (auto& x : last) x = map[x];
    *alphabet = used;
    return refZ1Z2(refMTF(last));
}

TEST(Chain, StagesTogetherGiveBzip2sBlockSymbols) {
    for (const Bytes& raw : {textBytes(120000, 21), runsBytes(90000, 22), randomBytes(50000, 23), Bytes(70000, 'a')}) {
        // RLE in pieces, as a compressor fed by a stream would call it.
        RLE e;
        Bytes rle = e.encode(raw, 7000, 1 << 20);
        Ozr8u inUse[256];
        ASSERT_EQ(m7_ozrsRLEGetInUseTable_8u(inUse, &e.st), ozrOk);
        int dict = 0;
        ASSERT_EQ(m7_ozrsReduceDictionary_8u_I(inUse, rle.data(), static_cast<int>(rle.size()), &dict), ozrOk);
        int index = -1;
        Bytes last = forwardBWT(rle, &index);
        Ozr8u st[256];
        m7_ozrsMTFInit_8u(st);
        Bytes ranks(last.size());
        ASSERT_EQ(m7_ozrsMTFFwd_8u(last.data(), ranks.data(), static_cast<int>(last.size()), st), ozrOk);
        std::vector<int> freq(258);
        Syms syms = encodeZ1Z2(ranks, static_cast<int>(ranks.size()) + 1, freq);

        int wantIndex = -1, alphabet = 0;
        ASSERT_EQ(syms, refBlockSymbols(raw, &wantIndex, &alphabet));
        ASSERT_EQ(dict, alphabet);
        ASSERT_LT(*std::max_element(syms.begin(), syms.end()), alphabet + 1);

        // And back: Z1Z2, MTF, expansion, inverse BWT, RLE decoding.
        Bytes r2(ranks.size());
        const Ozr16u* p = syms.data();
        int srcLen = static_cast<int>(syms.size()), dstLen = static_cast<int>(r2.size());
        ASSERT_EQ(m7_ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, r2.data(), &dstLen), ozrOk);
        m7_ozrsMTFInit_8u(st);
        Bytes l2(r2.size());
        ASSERT_EQ(m7_ozrsMTFInv_8u(r2.data(), l2.data(), static_cast<int>(r2.size()), st), ozrOk);
        ASSERT_EQ(m7_ozrsExpandDictionary_8u_I(inUse, l2.data(), static_cast<int>(l2.size()), dict), ozrOk);
        Bytes block = inverseBWT(l2, index);
        ASSERT_EQ(RLE(true).decode(block, 1 << 20), raw);
    }
}

// libbz2 writes the primary index and the in-use table of its block in the block
// header, right after the stream header "BZh9", the block magic (48 bits), the
// block CRC (32 bits) and the randomised flag (1 bit).
TEST(Chain, PrimaryIndexAndInUseTableEqualLibbz2s) {
    // libbz2's encoder closes runs at 255 bytes where ours goes on to 259 (both
    // decode alike), so the blocks here have shorter runs.
    Bytes shortRuns;
    std::mt19937 r(32);
    for (uint8_t v = 0; shortRuns.size() < 150000; v = static_cast<uint8_t>((v + 1 + r() % 6) % 7))
        shortRuns.insert(shortRuns.end(), 1 + r() % 255, v);
    for (const Bytes& raw : {textBytes(200000, 31), shortRuns, randomBytes(100000, 33)}) {
        unsigned len = static_cast<unsigned>(raw.size() * 2 + 1000);
        Bytes z(len);
        ASSERT_EQ(BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(z.data()), &len,
                                           reinterpret_cast<char*>(const_cast<uint8_t*>(raw.data())),
                                           static_cast<unsigned>(raw.size()), 9, 0, 0), BZ_OK);
        size_t bit = 4 * 8 + 48 + 32 + 1;
        auto bits = [&](int count) {
            uint32_t v = 0;
            for (int k = 0; k < count; ++k, ++bit) v = v << 1 | ((z[bit >> 3] >> (7 - (bit & 7))) & 1);
            return v;
        };
        const int origPtr = static_cast<int>(bits(24));
        uint8_t want[256] = {};
        const uint32_t groups = bits(16);
        for (int g = 0; g < 16; ++g)
            if (groups & (0x8000u >> g))
                for (uint32_t m = bits(16), v = 0; v < 16; ++v) want[g * 16 + v] = (m >> (15 - v)) & 1;

        RLE e;
        Bytes rle = e.encode(raw, raw.size(), 1 << 20);
        ASSERT_EQ(0, std::memcmp(e.st.inUse, want, 256));
        int index = -1;
        forwardBWT(rle, &index);
        ASSERT_EQ(index, origPtr);
    }
}

}  // namespace
