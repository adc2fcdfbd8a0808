// LZO1X: decoders against liblzo2's encoders, encoders against liblzo2's decoder, the
// container, the distance limit, corrupt and truncated input, statuses.
#include <gtest/gtest.h>

#include "test_data.h"
#include <lzo/lzo1x.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "../src/lzo/lzo_internal.h"

namespace {

struct LzoInit {
    LzoInit() { lzo_init(); }
} lzoInit;

// Records of small integers with runs of zeros: binary-file-like, long matches at all
// distances.
Bytes binaryBytes(size_t n, unsigned seed) {
    std::mt19937 g(seed);
    Bytes b;
    Ozr32u id = 1;
    while (b.size() < n) {
        id += 1 + g() % 3;
        Ozr32u f[3] = {id, Ozr32u(g() % 16), Ozr32u(g() % 100000)};
        for (Ozr32u v : f)
            for (int i = 0; i < 4; ++i) b.push_back(Ozr8u(v >> (8 * i)));
        for (unsigned k = g() % 12; k > 0; --k) b.push_back(0);
    }
    b.resize(n);
    return b;
}

struct Sample {
    std::string name;
    Bytes data;
};

std::vector<Sample> samples() {
    std::vector<Sample> s;
    for (size_t n : {1u, 2u, 3u, 4u, 13u, 17u, 18u, 19u, 31u, 100u, 4096u, 65537u, 300000u}) {
        s.push_back({"text" + std::to_string(n), textBytes(n, Ozr32u(n))});
        s.push_back({"binary" + std::to_string(n), binaryBytes(n, Ozr32u(n) + 1)});
        s.push_back({"random" + std::to_string(n), randomBytes(n, Ozr32u(n) + 2)});
    }
    s.push_back({"zeros200000", Bytes(200000, 0)});
    Bytes mixed = textBytes(120000, 7);
    Bytes r = randomBytes(60000, 8);
    mixed.insert(mixed.begin() + 50000, r.begin(), r.end());
    s.push_back({"mixed", mixed});
    return s;
}

size_t bound(size_t n) { return n + n / 16 + 64 + 3; }

Bytes encode(const Bytes& in, Ozr32u method, Ozr32u parts = 0) {
    Ozr32u size = 0;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZOGetSize(method == OZR_LZO_METHOD_CONTAINER && parts ? 0 : method, 0, &size));
    std::vector<Ozr64u> st(size / 8 + 1);
    auto* state = reinterpret_cast<OzrLZOState*>(st.data());
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZOInit_8u(parts ? 0 : method, Ozr32u(in.size()), state));
    if (parts) {
        state->method = OZR_LZO_METHOD_CONTAINER;
        state->numParts = parts;
    }
    Bytes out(bound(in.size()) + 4 * 33 + 3 * 32);
    Ozr32u len = Ozr32u(out.size());
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZO_8u(in.data(), Ozr32u(in.size()), out.data(), &len, state));
    out.resize(len);
    return out;
}

Bytes lzoCompress(const Bytes& in, bool best) {
    Bytes out(bound(in.size()));
    std::vector<Ozr8u> wrk(LZO1X_999_MEM_COMPRESS);
    lzo_uint len = out.size();
    int r = best ? lzo1x_999_compress(in.data(), in.size(), out.data(), &len, wrk.data())
                 : lzo1x_1_compress(in.data(), in.size(), out.data(), &len, wrk.data());
    EXPECT_EQ(r, LZO_E_OK);
    out.resize(len);
    return out;
}

// liblzo2's checked decoder; -1 in *status on failure.
Bytes lzoDecompress(const Ozr8u* src, size_t n, size_t expect, int* status) {
    Bytes out(expect + 1);
    lzo_uint len = out.size();
    *status = lzo1x_decompress_safe(src, n, out.data(), &len, nullptr);
    out.resize(len);
    return out;
}

constexpr size_t kGuard = 64;
constexpr Ozr8u kGuardByte = 0xA5;

// Decodes with one of our decoders into a buffer of `cap` bytes followed by guard
// bytes, and checks the guard.
struct Decoded {
    OzrResult status;
    Bytes data;
};
Decoded decodeOurs(const Bytes& src, size_t cap, bool safe) {
    Bytes buf(cap + kGuard, kGuardByte);
    Ozr32u len = safe ? Ozr32u(cap) : 0xDEADBEEF;
    OzrResult r = safe ? m7_ozrsDecodeLZOSafe_8u(src.data(), Ozr32u(src.size()), buf.data(), &len)
                       : m7_ozrsDecodeLZO_8u(src.data(), Ozr32u(src.size()), buf.data(), &len);
    for (size_t i = cap; i < buf.size(); ++i)
        if (buf[i] != kGuardByte) {
            ADD_FAILURE() << "decoder wrote past its room at +" << (i - cap);
            break;
        }
    if (r != ozrOk) return {r, {}};
    EXPECT_LE(len, cap);
    buf.resize(len);
    return {r, buf};
}

// ---- Our decoders read liblzo2's streams -------------------------------------------

TEST(LzoDecode, ReadsLiblzoFastAndBestStreams) {
    for (const auto& s : samples()) {
        for (bool best : {false, true}) {
            if (best && s.data.size() > 70000) continue;  // the best coder is slow
            Bytes c = lzoCompress(s.data, best);
            for (bool safe : {false, true}) {
                Decoded d = decodeOurs(c, s.data.size(), safe);
                ASSERT_EQ(d.status, ozrOk) << s.name << " best=" << best << " safe=" << safe;
                ASSERT_EQ(d.data, s.data) << s.name << " best=" << best << " safe=" << safe;
            }
        }
    }
}

// Streams built by hand so that every instruction form appears, decoded by liblzo2
// and by us.
Bytes everyFormStream() {
    Bytes s;
    // First instruction below 18: long literal run of 40000 bytes (0, extension).
    s.push_back(0);
    size_t rest = 40000 - 18;
    while (rest > 255) s.push_back(0), rest -= 255;
    s.push_back(Ozr8u(rest));
    Bytes lit = randomBytes(40000, 99);
    s.insert(s.end(), lit.begin(), lit.end());
    // Short far match (after >= 4 literals): distance 2049 + 1 + 4 * 1, length 3,
    // 2 trailing literals.
    s.push_back(Ozr8u((1 << 2) | 2));
    s.push_back(1);
    s.push_back('x'), s.push_back('y');
    // Short match (after 1..3 literals): distance 1 + 2 + 0, length 2, no literals.
    s.push_back(Ozr8u(2 << 2));
    s.push_back(0);
    // Literal run 1..15 -> t + 3 = 8.
    s.push_back(5);
    for (char ch : std::string("ABCDEFGH")) s.push_back(Ozr8u(ch));
    // M3 with a long length: 33 + 255 + 10, distance 1000, 1 trailing literal.
    s.push_back(32), s.push_back(0), s.push_back(10);
    s.push_back(Ozr8u(((999 << 2) | 1) & 0xFF)), s.push_back(Ozr8u((999 << 2) >> 8));
    s.push_back('z');
    // M2: length 5, distance 1 + 3 + 8 * 4 = 36, 3 trailing literals.
    s.push_back(Ozr8u((4 << 5) | (3 << 2) | 3)), s.push_back(4);
    s.push_back('p'), s.push_back('q'), s.push_back('r');
    // M4 with bit 14 set: distance 16384 + 16384 + 100, length 5, no literals.
    s.push_back(Ozr8u(16 | 8 | 3)), s.push_back(Ozr8u((100 << 2) & 0xFF)), s.push_back(Ozr8u((100 << 2) >> 8));
    // M4 long: 9 + 255 + 1, distance 16384 + 40, no literals.
    s.push_back(16), s.push_back(0), s.push_back(1);
    s.push_back(Ozr8u((40 << 2) & 0xFF)), s.push_back(Ozr8u((40 << 2) >> 8));
    // M3 short: length 7 at distance 1 (an overlapping run), no literals.
    s.push_back(Ozr8u(32 | 5)), s.push_back(0), s.push_back(0);
    // Literal run 0 -> 18 + 37 = 55.
    s.push_back(0), s.push_back(37);
    Bytes lit2 = randomBytes(55, 98);
    s.insert(s.end(), lit2.begin(), lit2.end());
    s.push_back(17), s.push_back(0), s.push_back(0);
    return s;
}

TEST(LzoDecode, EveryInstructionFormMatchesLiblzo) {
    Bytes s = everyFormStream();
    int st = 0;
    Bytes expect = lzoDecompress(s.data(), s.size(), 50000, &st);
    ASSERT_EQ(st, LZO_E_OK);
    for (bool safe : {false, true}) {
        Decoded d = decodeOurs(s, expect.size(), safe);
        ASSERT_EQ(d.status, ozrOk);
        EXPECT_EQ(d.data, expect);
    }
}

TEST(LzoDecode, LoneEndMarkerIsEmpty) {
    Bytes m = {17, 0, 0};
    for (bool safe : {false, true}) {
        Decoded d = decodeOurs(m, 16, safe);
        EXPECT_EQ(d.status, ozrOk);
        EXPECT_TRUE(d.data.empty());
    }
}

TEST(LzoDecode, EmptyInputIsEmptyOutput) {
    Ozr8u in = 0, out = 0;
    Ozr32u len = 5;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZOSafe_8u(&in, 0, &out, &len));
    EXPECT_EQ(len, 0u);
    len = 5;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZO_8u(&in, 0, &out, &len));
    EXPECT_EQ(len, 0u);
}

TEST(LzoDecode, ConcatenatedStreamsDecodeToTheConcatenation) {
    Bytes a = textBytes(5000, 1), b = binaryBytes(7000, 2);
    Bytes ca = encode(a, 0), cb = lzoCompress(b, false);
    Bytes both = ca;
    both.insert(both.end(), cb.begin(), cb.end());
    both.insert(both.end(), {17, 0, 0});  // and an empty third stream
    Bytes expect = a;
    expect.insert(expect.end(), b.begin(), b.end());
    for (bool safe : {false, true}) {
        Decoded d = decodeOurs(both, expect.size(), safe);
        ASSERT_EQ(d.status, ozrOk);
        EXPECT_EQ(d.data, expect);
    }
}

TEST(LzoDecode, StreamWithoutEndMarkerEndsAtInstructionBoundary) {
    Bytes in = textBytes(3000, 5);
    Bytes c = encode(in, 0);
    c.resize(c.size() - 3);
    for (bool safe : {false, true}) {
        Decoded d = decodeOurs(c, in.size(), safe);
        ASSERT_EQ(d.status, ozrOk);
        EXPECT_EQ(d.data, in);
    }
}

TEST(LzoDecode, DistanceOneRepeatsTheLastByte) {
    // 'a', then M2 length 8 at distance 1, then 2 trailing literals.
    Bytes s = {18, 'a', Ozr8u((7 << 5) | 2), 0, 'b', 'c', 17, 0, 0};
    for (bool safe : {false, true}) {
        Decoded d = decodeOurs(s, 11, safe);
        ASSERT_EQ(d.status, ozrOk);
        EXPECT_EQ(std::string(d.data.begin(), d.data.end()), "aaaaaaaaabc");
    }
}

TEST(LzoDecode, OverlappingMatchesOfEveryShortDistance) {
    for (size_t dist = 1; dist <= 20; ++dist) {
        for (size_t len : {3u, 7u, 8u, 9u, 16u, 17u, 31u, 33u}) {
            Bytes head = randomBytes(dist, Ozr32u(dist));
            Bytes s = {Ozr8u(17 + dist)};
            s.insert(s.end(), head.begin(), head.end());
            size_t d = dist - 1;
            s.push_back(Ozr8u(32 | (len - 2)));
            s.push_back(Ozr8u(d << 2)), s.push_back(Ozr8u(d >> 6));
            s.insert(s.end(), {17, 0, 0});
            Bytes expect = head;
            for (size_t i = 0; i < len; ++i) expect.push_back(expect[expect.size() - dist]);
            for (bool safe : {false, true}) {
                Decoded r = decodeOurs(s, expect.size(), safe);
                ASSERT_EQ(r.status, ozrOk);
                EXPECT_EQ(r.data, expect) << "dist " << dist << " len " << len;
            }
        }
    }
}

// ---- The checked decoder refuses what is broken ----------------------------------------

struct BrokenCase {
    const char* what;
    Bytes stream;
    size_t cap;
};

TEST(LzoDecodeSafe, EachCheckGivesLzoBroken) {
    const BrokenCase cases[] = {
        {"literal run past the input end", {21, 'a', 'b'}, 100},
        {"literal run past the output room", {21, 'a', 'b', 'c', 'd', 17, 0, 0}, 3},
        {"zero extension bytes run off the input", {0, 0, 0}, 1000},
        {"match before the start of the output", {18, 'a', Ozr8u((2 << 5) | (4 << 2)), 0, 17, 0, 0}, 100},
        {"match past the output room", {18, 'a', Ozr8u(7 << 5), 0, 17, 0, 0}, 5},
        {"M3 distance bytes past the input end", {18, 'a', 33}, 100},
        {"M4 distance bytes past the input end", {18, 'a', 17, 0}, 100},
        {"M2 distance byte past the input end", {18, 'a', 0xE0}, 100},
        {"trailing literals past the input end", {18, 'a', Ozr8u((7 << 5) | 3), 0, 'b'}, 100},
        {"far match before the start", {22, 'a', 'b', 'c', 'd', 'e', 0, 0}, 100},
    };
    for (const auto& c : cases) {
        Bytes buf(c.cap + kGuard, kGuardByte);
        Ozr32u len = Ozr32u(c.cap);
        EXPECT_EQ(ozrErrLZOBroken, m7_ozrsDecodeLZOSafe_8u(c.stream.data(), Ozr32u(c.stream.size()), buf.data(), &len))
            << c.what;
        EXPECT_EQ(len, c.cap) << c.what << ": *pDstLen must stay unchanged";
        for (size_t i = c.cap; i < buf.size(); ++i) ASSERT_EQ(buf[i], kGuardByte) << c.what;
    }
}

// A truncated stream either fails or, cut at an instruction boundary, gives a prefix.
TEST(LzoDecodeSafe, EveryTruncationFailsOrGivesAPrefix) {
    Bytes in1 = textBytes(6000, 11), in2 = binaryBytes(5000, 12);
    std::vector<std::pair<Bytes, Bytes>> streams = {
        {in1, encode(in1, 0)}, {in1, lzoCompress(in1, true)}, {in2, encode(in2, 2)}, {in2, lzoCompress(in2, false)}};
    for (const auto& [plain, c] : streams) {
        size_t prefixes = 0;
        for (size_t cut = 1; cut < c.size(); ++cut) {
            Bytes t(c.begin(), c.begin() + cut);
            Decoded d = decodeOurs(t, plain.size(), true);
            if (d.status == ozrOk) {
                ++prefixes;
                ASSERT_LE(d.data.size(), plain.size());
                ASSERT_TRUE(std::equal(d.data.begin(), d.data.end(), plain.begin())) << "cut " << cut;
            } else {
                ASSERT_EQ(d.status, ozrErrLZOBroken) << "cut " << cut;
            }
        }
        EXPECT_LT(prefixes, c.size() / 2) << "most cuts fall inside an instruction";
    }
}

TEST(LzoDecodeSafe, RoomShorterThanTheOutputFailsWithinTheRoom) {
    Bytes in = textBytes(5000, 13);
    Bytes c = encode(in, 0);
    for (size_t cap = 0; cap < in.size(); cap += 37) {
        Decoded d = decodeOurs(c, cap, true);
        EXPECT_EQ(d.status, ozrErrLZOBroken) << cap;
    }
}

TEST(LzoDecodeSafe, RandomByteFlipsNeverOverrunTheRoom) {
    Bytes in = binaryBytes(20000, 14);
    Bytes c = encode(in, 0);
    std::mt19937 g(15);
    int broken = 0;
    for (int iter = 0; iter < 3000; ++iter) {
        Bytes t = c;
        for (int k = 1 + int(g() % 3); k > 0; --k) t[g() % t.size()] ^= Ozr8u(1 + g() % 255);
        Decoded d = decodeOurs(t, in.size(), true);
        if (d.status != ozrOk) {
            ASSERT_EQ(d.status, ozrErrLZOBroken);
            ++broken;
        }
    }
    EXPECT_GT(broken, 1000);
}

TEST(LzoDecode, UncheckedDecoderWritesNothingPastTheResult) {
    for (const auto& s : samples()) {
        Bytes c = encode(s.data, 0);
        Decoded d = decodeOurs(c, s.data.size(), false);  // guard bytes right after the result
        ASSERT_EQ(d.data, s.data) << s.name;
    }
}

TEST(LzoDecode, NullPointersAreRefusedFirst) {
    Ozr8u b[4] = {17, 0, 0, 0};
    Ozr32u len = 4;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZOSafe_8u(nullptr, 3, b, &len));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZOSafe_8u(b, 3, nullptr, &len));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZOSafe_8u(b, 0, b, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZO_8u(nullptr, 0, b, &len));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZO_8u(b, 3, b, nullptr));
    EXPECT_EQ(len, 4u);
}

// ---- The container ------------------------------------------------------------------

// Splits a container into its part streams (by its header).
std::vector<Bytes> containerParts(const Bytes& c) {
    size_t n = c[1], pos = 3 + 4 * n;
    std::vector<Bytes> parts;
    for (size_t i = 0; i < n; ++i) {
        size_t len = i + 1 < n ? size_t(c[7 + 4 * i]) | size_t(c[8 + 4 * i]) << 8 | size_t(c[9 + 4 * i]) << 16 |
                                     size_t(c[10 + 4 * i]) << 24
                               : c.size() - pos;
        parts.emplace_back(c.begin() + long(pos), c.begin() + long(pos + len));
        pos += len;
    }
    return parts;
}

TEST(LzoContainer, RoundTripsAndEachPartIsAnLzo1xStream) {
    for (Ozr32u parts : {1u, 2u, 3u, 7u, 32u}) {
        for (size_t n : {1u, 5u, 31u, 1000u, 100001u}) {
            Bytes in = n % 2 ? textBytes(n, Ozr32u(n)) : binaryBytes(n, Ozr32u(n));
            Bytes c = encode(in, OZR_LZO_METHOD_CONTAINER, parts);
            ASSERT_EQ(c[0], 0x55);
            ASSERT_EQ(c[1], parts);
            ASSERT_EQ(c[2], parts ^ 0x55);
            ASSERT_EQ(size_t(c[3]) | size_t(c[4]) << 8 | size_t(c[5]) << 16 | size_t(c[6]) << 24, n);
            for (bool safe : {false, true}) {
                Decoded d = decodeOurs(c, n, safe);
                ASSERT_EQ(d.status, ozrOk) << parts << " parts, " << n << " bytes";
                ASSERT_EQ(d.data, in) << parts << " parts, " << n << " bytes";
            }
            auto ps = containerParts(c);
            size_t slice = n / parts, at = 0;
            for (size_t i = 0; i < parts; ++i) {
                size_t len = i + 1 < parts ? slice : n - at;
                int st = 0;
                Bytes got = lzoDecompress(ps[i].data(), ps[i].size(), len, &st);
                ASSERT_EQ(st, LZO_E_OK) << "part " << i;
                ASSERT_TRUE(Bytes(in.begin() + long(at), in.begin() + long(at + len)) == got) << "part " << i;
                at += len;
            }
        }
    }
}

TEST(LzoContainer, CorruptPartFailsWhileTheOthersDecode) {
    Bytes in = textBytes(30000, 21);
    Bytes c = encode(in, OZR_LZO_METHOD_CONTAINER, 3);
    auto ps = containerParts(c);
    size_t second = 3 + 4 * 3 + ps[0].size();
    c[second] = 0;  // first byte 0 then a zero run that ends in the part's literals...
    c[second + 1] = 0;
    c[second + 2] = 0;
    for (size_t i = second; i < second + ps[1].size() - 3; ++i) c[i] = 0;  // ...and runs off its end
    Bytes buf(in.size(), 0);
    Ozr32u len = Ozr32u(buf.size());
    EXPECT_EQ(ozrErrLZOBroken, m7_ozrsDecodeLZOSafe_8u(c.data(), Ozr32u(c.size()), buf.data(), &len));
    EXPECT_EQ(len, 20000u) << "the sum of what the good parts wrote";
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 10000, buf.begin()));
    EXPECT_TRUE(std::equal(in.begin() + 20000, in.end(), buf.begin() + 20000));
}

TEST(LzoContainer, BadCountOrCheckByteIsAPlainStream) {
    // A plain stream whose first literal run (68 bytes, first byte 0x55) looks like a
    // container header except for the count or its check byte.
    for (Ozr8u count : {Ozr8u(0), Ozr8u(33)}) {
        for (bool badCheck : {false, true}) {
            Bytes lit = randomBytes(68, 3);
            lit[0] = badCheck ? 2 : count;
            lit[1] = Ozr8u(badCheck ? 0x55 : count ^ 0x55);
            Bytes s = {0x55};
            s.insert(s.end(), lit.begin(), lit.end());
            s.insert(s.end(), {17, 0, 0});
            for (bool safe : {false, true}) {
                Decoded d = decodeOurs(s, 68, safe);
                ASSERT_EQ(d.status, ozrOk);
                EXPECT_EQ(d.data, lit);
            }
        }
    }
}

// ---- Encoders, checked by liblzo2's decoder --------------------------------------------

TEST(LzoEncode, EveryMethodDecodesWithLiblzo) {
    for (const auto& s : samples()) {
        for (Ozr32u method : {0u, 1u, 2u}) {
            Bytes c = encode(s.data, method);
            ASSERT_LE(c.size(), bound(s.data.size()));
            int st = 0;
            Bytes got = lzoDecompress(c.data(), c.size(), s.data.size(), &st);
            ASSERT_EQ(st, LZO_E_OK) << s.name << " method " << method;
            ASSERT_EQ(got, s.data) << s.name << " method " << method;
            Decoded ours = decodeOurs(c, s.data.size(), true);
            ASSERT_EQ(ours.data, s.data) << s.name << " method " << method;
        }
    }
}

TEST(LzoEncode, MethodOneIsMethodZero) {
    for (const auto& s : samples()) EXPECT_EQ(encode(s.data, 1), encode(s.data, 0)) << s.name;
}

TEST(LzoEncode, CompressesLikeLiblzo) {
    Bytes in = textBytes(300000, 31);
    size_t ours = encode(in, 0).size(), fast = encode(in, 2).size(), ref = lzoCompress(in, false).size();
    EXPECT_LT(ours, in.size() / 2);
    EXPECT_LT(fast, in.size() / 2);
    EXPECT_LT(ours, ref * 13 / 10) << "default coder far behind lzo1x_1";
}

// A match as it appears in a stream: output position, length, distance.
struct Match {
    size_t pos, len, dist;
    bool operator==(const Match& o) const { return pos == o.pos && len == o.len && dist == o.dist; }
};

// The matches of one of our streams, read instruction by instruction (our coders write
// literal runs, M2, M3 and M4 only).
std::vector<Match> streamMatches(const Bytes& s) {
    std::vector<Match> m;
    size_t p = 0, pos = 0, state = 0;
    auto extended = [&](size_t base) {
        size_t n = 0;
        while (s[p] == 0) n += 255, ++p;
        return base + n + s[p++];
    };
    if (s[0] >= 18) pos += s[0] - 17, p = 1 + (s[0] - 17), state = 4;
    while (p < s.size()) {
        const size_t t = s[p++];
        if (t < 16) {
            EXPECT_EQ(state, 0u) << "M1 match or two literal runs in a row at " << p;
            const size_t len = t == 0 ? extended(18) : t + 3;
            pos += len, p += len, state = 4;
            continue;
        }
        size_t len, dist, d;
        if (t >= 64) {
            len = (t >> 5) + 1, dist = ((t >> 2) & 7) + 8 * size_t(s[p++]) + 1, state = t & 3;
        } else {
            len = t >= 32 ? ((t & 31) ? (t & 31) + 2 : extended(33)) : ((t & 7) ? (t & 7) + 2 : extended(9));
            d = s[p] | size_t(s[p + 1]) << 8;
            p += 2;
            dist = t >= 32 ? (d >> 2) + 1 : 16384 + ((t & 8) << 11) + (d >> 2);
            if (dist == 16384) break;  // end marker
            state = d & 3;
        }
        m.push_back({pos, len, dist});
        pos += len + state, p += state;
    }
    return m;
}

// The fast coder's search written plainly, one position at a time: what its matches
// must be, however the coder arranges its probes.
std::vector<Match> fastMatchesReference(const Bytes& in) {
    std::vector<Match> m;
    std::vector<Ozr16u> table(16384);
    const size_t n = in.size();
    for (size_t seg = 0; n - seg > 20; seg += 49152) {
        const size_t segLen = std::min<size_t>(49152, n - seg);
        std::fill(table.begin(), table.end(), 0);
        size_t c = 0;
        for (size_t i = 0; i < segLen - 20;) {
            Ozr32u w;
            std::memcpy(&w, &in[seg + i], 4);
            const size_t h = Ozr32u(w * 0x1824429Du) >> 18, cand = table[h];
            table[h] = Ozr16u(i);
            if (cand < i && std::memcmp(&in[seg + cand], &in[seg + i], 4) == 0) {
                size_t len = 4;
                while (i + len < segLen && in[seg + cand + len] == in[seg + i + len]) ++len;
                m.push_back({seg + i, len, i - cand});
                i += len;
                c = 0;
            } else {
                const size_t step = (c >> 5) + 1;
                c += step;
                i += step;
            }
        }
        if (seg + segLen == n) break;
    }
    return m;
}

TEST(LzoEncode, FastCoderMatchesEqualAPlainSequentialSearch) {
    for (const auto& s : samples()) {
        if (s.data.size() <= 20) continue;
        const auto got = streamMatches(encode(s.data, 2)), want = fastMatchesReference(s.data);
        ASSERT_EQ(got.size(), want.size()) << s.name;
        for (size_t k = 0; k < got.size(); ++k) ASSERT_TRUE(got[k] == want[k]) << s.name << " match " << k;
    }
}

TEST(LzoEncode, FewBytesAreOneLiteralRunAndTheEndMarker) {
    Bytes in = {'a', 'b', 'c'};
    for (Ozr32u m : {0u, 2u}) EXPECT_EQ(encode(in, m), (Bytes{20, 'a', 'b', 'c', 17, 0, 0}));
    Bytes seventeen(17, 'x');  // no search region: no match even in a run
    Bytes c = encode(seventeen, 0);
    EXPECT_EQ(c.size(), 1 + 17 + 3u);
    EXPECT_EQ(c[0], 17 + 17);
}

TEST(LzoEncode, NeverStartsWithTheContainerByte) {
    // 68 incompressible bytes whose head reads like a one-part container header.
    Bytes in = randomBytes(68, 41);
    in[0] = 1;
    in[1] = 0x54;
    for (Ozr32u m : {0u, 2u}) {
        Bytes c = encode(in, m);
        EXPECT_NE(c[0], 0x55);
        Decoded d = decodeOurs(c, in.size(), true);
        EXPECT_EQ(d.data, in);
    }
}

// A 64-byte block repeated `gap` bytes later across a run of zeros.
Bytes repeatAcross(size_t gap) {
    Bytes b = randomBytes(64, 51);
    Bytes in = b;
    in.resize(gap, 0);
    in.insert(in.end(), b.begin(), b.end());
    Bytes tail = randomBytes(40, 52);
    in.insert(in.end(), tail.begin(), tail.end());
    return in;
}

TEST(LzoEncode, MatchesReachExactly49151Back) {
    Bytes near = repeatAcross(49151), far = repeatAcross(49152);
    Bytes cn = encode(near, 0), cf = encode(far, 0);
    EXPECT_LT(cn.size() + 40, cf.size()) << "the repeat 49151 back must be matched, 49152 back not";
    int st = 0;
    EXPECT_EQ(lzoDecompress(cn.data(), cn.size(), near.size(), &st), near);
    EXPECT_EQ(lzoDecompress(cf.data(), cf.size(), far.size(), &st), far);
}

TEST(LzoEncode, FullOutputStopsWithinTheRoomAtAnInstructionBoundary) {
    Bytes in = textBytes(3000, 61);
    for (Ozr32u method : {0u, 2u}) {
        Bytes full = encode(in, method);
        std::vector<Ozr64u> st(131104 / 8);
        auto* state = reinterpret_cast<OzrLZOState*>(st.data());
        ASSERT_EQ(ozrOk, m7_ozrsEncodeLZOInit_8u(method, 0, state));
        for (size_t cap = 0; cap <= full.size(); ++cap) {
            Bytes out(cap + kGuard, kGuardByte);
            Ozr32u len = Ozr32u(cap);
            OzrResult r = m7_ozrsEncodeLZO_8u(in.data(), Ozr32u(in.size()), out.data(), &len, state);
            for (size_t i = cap; i < out.size(); ++i) ASSERT_EQ(out[i], kGuardByte) << "cap " << cap;
            if (cap < full.size()) {
                ASSERT_EQ(r, ozrWarnDstSizeLess) << cap;
                ASSERT_LE(len, cap);
                // What was written decodes to a prefix of the input.
                out.resize(len);
                if (len == 0) continue;
                Decoded d = decodeOurs(out, in.size(), true);
                ASSERT_EQ(d.status, ozrOk) << cap;
                ASSERT_TRUE(std::equal(d.data.begin(), d.data.end(), in.begin())) << cap;
            } else {
                ASSERT_EQ(r, ozrOk);
                out.resize(len);
                ASSERT_EQ(out, full);
            }
        }
    }
}

TEST(LzoEncode, StatusesAndArgumentOrder) {
    Ozr32u size = 7;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZOGetSize(0, 0, nullptr));
    for (Ozr32u m : {0u, 1u, 2u}) {
        EXPECT_EQ(ozrOk, m7_ozrsEncodeLZOGetSize(m, 12345, &size));
        EXPECT_EQ(size, 131104u);
    }
    EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZOGetSize(3, 0, &size));
    EXPECT_EQ(size, 0u);

    std::vector<Ozr64u> st(131104 / 8);
    auto* state = reinterpret_cast<OzrLZOState*>(st.data());
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZOInit_8u(0, 0, nullptr));
    state->method = 77;
    EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZOInit_8u(3, 0, state));
    EXPECT_EQ(state->method, 77u) << "nothing written on a bad method";
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZOInit_8u(1, 0, state));
    EXPECT_EQ(state->method, 0u) << "method 1 is folded onto the default coder";
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZOInit_8u(2, 0, state));
    EXPECT_EQ(state->method, 2u);

    Ozr8u src[4] = {1, 2, 3, 4}, dst[64];
    Ozr32u len = 64;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZO_8u(nullptr, 4, dst, &len, state));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZO_8u(src, 4, nullptr, &len, state));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZO_8u(src, 4, dst, nullptr, state));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZO_8u(src, 4, dst, &len, nullptr));
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZO_8u(src, 0, dst, &len, state));
    EXPECT_EQ(len, 0u);
    len = 64;
    state->method = 3;
    EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZO_8u(src, 4, dst, &len, state));
    state->method = OZR_LZO_METHOD_CONTAINER;
    for (Ozr32u parts : {0u, 33u, 0x100u}) {
        state->numParts = parts;
        EXPECT_EQ(ozrErrBadArgument, m7_ozrsEncodeLZO_8u(src, 4, dst, &len, state)) << parts;
    }
    EXPECT_EQ(len, 64u);
    state->numParts = 0x102;  // the low byte counts
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZO_8u(src, 4, dst, &len, state));
    EXPECT_EQ(dst[1], 2);
}

TEST(LzoEncode, StateIsResetByEveryCall) {
    Bytes a = textBytes(50000, 71), b = binaryBytes(50000, 72);
    Bytes first = encode(b, 0);
    std::vector<Ozr64u> st(131104 / 8);
    auto* state = reinterpret_cast<OzrLZOState*>(st.data());
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZOInit_8u(0, 0, state));
    Bytes out(bound(a.size()));
    Ozr32u len = Ozr32u(out.size());
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZO_8u(a.data(), Ozr32u(a.size()), out.data(), &len, state));
    len = Ozr32u(out.size());
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZO_8u(b.data(), Ozr32u(b.size()), out.data(), &len, state));
    out.resize(len);
    EXPECT_EQ(out, first);
}

}  // namespace

// ---- The ozrdc tool's lzop format, against the lzop tool ---------------------------

namespace {

bool haveLzop() { return std::system("command -v lzop >/dev/null 2>&1") == 0; }

class LzopTool : public ::testing::Test {
protected:
    void SetUp() override {
        if (!haveLzop()) GTEST_SKIP() << "lzop not installed";
        dir_ = std::filesystem::temp_directory_path() / ("ozrdc_lzo_" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override {
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    void write(const std::string& name, const Bytes& b) const {
        std::ofstream(path(name), std::ios::binary).write(reinterpret_cast<const char*>(b.data()), long(b.size()));
    }
    Bytes read(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    int run(const std::string& cmd) const { return std::system((cmd + " 2>" + path("stderr")).c_str()); }
    std::string tool() const { return std::string(OZRDC_TOOL_PATH); }

    std::filesystem::path dir_;
};

// Three blocks and a bit of text, an incompressible (stored) block, and nothing.
std::vector<std::pair<std::string, Bytes>> toolInputs() {
    Bytes mixed = textBytes(700000, 81);
    Bytes r = randomBytes(262144, 82);
    mixed.insert(mixed.begin() + 262144, r.begin(), r.end());
    return {{"mixed", mixed}, {"small", textBytes(1000, 83)}, {"empty", {}}};
}

TEST_F(LzopTool, LzopReadsOurFiles) {
    for (const auto& [name, data] : toolInputs()) {
        for (const char* level : {"", " -l 1"}) {
            write(name, data);
            ASSERT_EQ(0, run(tool() + " compress -F lzo -f" + level + " " + path(name) + " -o " + path(name + ".lzo")));
            EXPECT_EQ(0, run("lzop -t -q " + path(name + ".lzo"))) << name << level;
            ASSERT_EQ(0, run("lzop -dc " + path(name + ".lzo") + " > " + path(name + ".back")));
            EXPECT_EQ(read(name + ".back"), data) << name << level;
        }
    }
}

TEST_F(LzopTool, WeReadLzopFiles) {
    for (const auto& [name, data] : toolInputs()) {
        for (const char* level : {"-1", "-3", "-9"}) {
            write(name, data);
            ASSERT_EQ(0, run(std::string("lzop -f ") + level + " -c " + path(name) + " > " + path(name + ".lzo")));
            ASSERT_EQ(0, run(tool() + " decompress -f " + path(name + ".lzo") + " -o " + path(name + ".back")))
                << name << " " << level;
            EXPECT_EQ(read(name + ".back"), data) << name << " " << level;
        }
    }
}

// lzop's best coder starts this block with a 68-byte literal run, first byte 0x55,
// followed by a valid one-part container header: the tool must still read it as a
// plain stream.
TEST_F(LzopTool, BlockThatLooksLikeAContainerIsReadAsAStream) {
    Bytes head = randomBytes(68, 91);
    head[0] = 1;
    head[1] = 0x54;
    Bytes data = head;
    for (int i = 0; i < 20; ++i) data.insert(data.end(), head.begin(), head.end());
    Bytes c = lzoCompress(data, true);
    ASSERT_EQ(c[0], 0x55) << "the input no longer starts the stream with a 68-byte run";
    write("c", data);
    ASSERT_EQ(0, run("lzop -f -9 -c " + path("c") + " > " + path("c.lzo")));
    ASSERT_EQ(0, run(tool() + " decompress -f " + path("c.lzo") + " -o " + path("c.back")));
    EXPECT_EQ(read("c.back"), data);
}

TEST_F(LzopTool, CorruptFilesFailWithAMessage) {
    Bytes data = textBytes(300000, 95);
    write("d", data);
    ASSERT_EQ(0, run(tool() + " compress -F lzo -f " + path("d") + " -o " + path("d.lzo")));
    Bytes good = read("d.lzo");
    struct Damage {
        const char* what;
        size_t at;
        bool truncate;
    };
    const Damage damages[] = {{"header checksum", 20, false}, {"block data", 5000, false},
                              {"block data near the end", good.size() - 100, false},
                              {"truncated block", good.size() / 2, true}, {"missing end", good.size() - 2, true}};
    for (const auto& d : damages) {
        Bytes bad = good;
        if (d.truncate)
            bad.resize(d.at);
        else
            bad[d.at] ^= 0x5A;
        write("bad.lzo", bad);
        EXPECT_NE(0, run(tool() + " decompress -f " + path("bad.lzo") + " -o " + path("bad"))) << d.what;
        Bytes msg = read("stderr");
        EXPECT_NE(std::string(msg.begin(), msg.end()).find("ozrdc: "), std::string::npos) << d.what;
    }
}

}  // namespace
