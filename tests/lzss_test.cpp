// LZSS: exact token bits, our encoder against the plain reference search (one call and
// many), round trips through our decoder and the byte-at-a-time reference decoder with
// every cut of input and output, the window across calls, and each status.
#include <gtest/gtest.h>

#include "lzss_ref.h"
#include "test_data.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "m7.h"

namespace {

struct State {
    std::unique_ptr<OzrLZSSState> p{new OzrLZSSState};
    OzrLZSSState* get() { return p.get(); }
};

State encoderState() {
    State s;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZSSInit_8u(s.get()));
    return s;
}

// A fresh decoder over a window filled with `fill` (the bytes a match before the
// stream's start reads).
State decoderState(uint8_t fill = 0) {
    State s;
    std::memset(s.get(), fill, sizeof(OzrLZSSState));
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZSSInit_8u(s.get()));
    return s;
}

// Encodes the pieces of `in` given by `cuts` (sizes, repeated), each call with output
// room taken in turn from `rooms`, then flushes; checks every call's counts.
Bytes encode(OzrLZSSState* s, const Bytes& in, const std::vector<size_t>& cuts = {},
             const std::vector<size_t>& rooms = {}) {
    Bytes out(in.size() * 9 / 8 + 16);
    size_t pos = 0, written = 0, ci = 0, ri = 0;
    auto nextRoom = [&] { return rooms.empty() ? out.size() - written : std::min(rooms[ri++ % rooms.size()], out.size() - written); };
    while (pos < in.size()) {
        const size_t piece = cuts.empty() ? in.size() : std::min(cuts[ci++ % cuts.size()], in.size() - pos);
        size_t left = piece;
        while (left > 0) {
            Ozr8u* src = const_cast<Ozr8u*>(in.data() + pos);
            Ozr8u* dst = out.data() + written;
            int srcLen = int(left), room = int(nextRoom()), dstLen = room;
            const OzrResult st = m7_ozrsEncodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s);
            EXPECT_TRUE(st == ozrOk || st == ozrWarnDstSizeLess) << st;
            EXPECT_EQ(src, in.data() + pos + (left - size_t(srcLen)));
            EXPECT_EQ(dst, out.data() + written + (room - dstLen));
            if (st == ozrOk) EXPECT_EQ(0, srcLen);
            pos += left - size_t(srcLen);
            written += size_t(room - dstLen);
            left = size_t(srcLen);
            if (st == ozrWarnDstSizeLess && ::testing::Test::HasFailure()) return {};
        }
    }
    for (OzrResult st = ozrWarnDstSizeLess; st == ozrWarnDstSizeLess;) {
        Ozr8u* dst = out.data() + written;
        int room = int(std::max<size_t>(1, nextRoom())), dstLen = room;
        st = m7_ozrsEncodeLZSSFlush_8u(&dst, &dstLen, s);
        EXPECT_TRUE(st == ozrOk || st == ozrWarnDstSizeLess) << st;
        written += size_t(room - dstLen);
    }
    out.resize(written);
    return out;
}

Bytes encode(const Bytes& in, const std::vector<size_t>& cuts = {}, const std::vector<size_t>& rooms = {}) {
    State s = encoderState();
    return encode(s.get(), in, cuts, rooms);
}

Bytes refEncode(const Bytes& in, const std::vector<size_t>& cuts = {}) {
    State s = encoderState();
    ref::LzssEncoder r{s.get()->u.enc.pRandVec};
    for (size_t pos = 0, ci = 0; pos < in.size();) {
        const size_t piece = cuts.empty() ? in.size() : std::min(cuts[ci++ % cuts.size()], in.size() - pos);
        r.encode(in.data() + pos, piece);
        pos += piece;
    }
    return r.flush();
}

// Decodes `stream` with input pieces from `cuts` and output rooms from `rooms`, each
// call checked against the reference decoder's status, counts and bytes.
Bytes decode(const Bytes& stream, size_t expectLen, const std::vector<size_t>& cuts = {},
             const std::vector<size_t>& rooms = {}, OzrLZSSState* st = nullptr) {
    State own = decoderState(0x3C);
    OzrLZSSState* s = st ? st : own.get();
    ref::LzssDecoder r(s->u.dec.window);
    Bytes out(expectLen + 64);
    size_t pos = 0, written = 0, ci = 0, ri = 0;
    for (int calls = 0; calls < 10000000; ++calls) {
        const size_t piece = cuts.empty() ? stream.size() - pos : std::min(cuts[ci++ % cuts.size()], stream.size() - pos);
        const size_t room = std::max<size_t>(1, rooms.empty() ? out.size() - written : rooms[ri++ % rooms.size()]);
        Bytes buf(room);  // the room alone, so a write past it shows up under ASan
        Ozr8u* src = const_cast<Ozr8u*>(stream.data() + pos);
        Ozr8u* dst = buf.data();
        int srcLen = int(piece), dstLen = int(room);
        const OzrResult got = m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s);
        const ref::LzssDecoder::Call want = r.decode(stream.data() + pos, piece, room);
        EXPECT_EQ(want.st, got);
        EXPECT_EQ(want.consumed, piece - size_t(srcLen));
        EXPECT_EQ(want.produced, room - size_t(dstLen));
        EXPECT_EQ(dst, buf.data() + (room - size_t(dstLen)));
        if (::testing::Test::HasFailure()) return {};
        const size_t produced = room - size_t(dstLen);
        EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + produced, r.hist.end() - produced));
        if (written + produced > out.size()) out.resize(written + produced);
        std::copy(buf.begin(), buf.begin() + produced, out.begin() + written);
        pos += piece - size_t(srcLen);
        written += produced;
        if (got == ozrOk && pos == stream.size()) break;
    }
    out.resize(written);
    return out;
}

std::vector<Bytes> samples() {
    std::vector<Bytes> v;
    for (size_t n : {1u, 2u, 3u, 4u, 5u, 6u, 40u, 300u, 5000u, 70000u}) {
        v.push_back(textBytes(n, uint32_t(n)));
        v.push_back(randomBytes(n, uint32_t(n)));
        v.push_back(Bytes(n, 'r'));
        Bytes b = randomBytes(n, uint32_t(n) + 1);  // binary: small values, short periods
        for (size_t i = 0; i < n; ++i) b[i] = i % 7 < 3 ? uint8_t(i / 7) : b[i] & 3;
        v.push_back(b);
    }
    return v;
}

// Packs a string of '0' and '1' (other characters ignored) into bytes, MSB first, the
// last byte padded with zeros.
Bytes bitString(const std::string& s) {
    Bytes b;
    int n = 0;
    for (char c : s) {
        if (c != '0' && c != '1') continue;
        if (n % 8 == 0) b.push_back(0);
        if (c == '1') b.back() |= uint8_t(0x80 >> (n % 8));
        ++n;
    }
    return b;
}

struct Token { bool literal; unsigned value, dist, len; size_t at; };
std::vector<Token> tokens(const Bytes& stream) {
    std::vector<Token> t;
    size_t bit = 0, at = 0;
    auto take = [&](unsigned n) {
        unsigned v = 0;
        for (unsigned k = 0; k < n; ++k, ++bit) v = v << 1 | ((stream[bit / 8] >> (7 - bit % 8)) & 1);
        return v;
    };
    for (;;) {
        const size_t left = stream.size() * 8 - bit;
        if (left < 9) break;
        if (take(1)) { t.push_back({true, take(8), 0, 0, at}); ++at; continue; }
        if (left < 24) break;
        const unsigned d = take(15), l = take(8) + 3;
        t.push_back({false, 0, d, l, at});
        at += l;
    }
    return t;
}

TEST(LzssFrame, StateSizeAndInitLayout) {
    int size = 0;
    EXPECT_EQ(ozrOk, m7_ozrsLZSSGetSize_8u(&size));
    EXPECT_EQ(327744, size);
    EXPECT_EQ(sizeof(OzrLZSSState), size_t(size));
    State s;
    std::memset(s.get(), 0x77, sizeof(OzrLZSSState));
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZSSInit_8u(s.get()));
    const OzrLZSSEncoderState& e = s.get()->u.enc;
    EXPECT_EQ(e.pChain, e.chain);
    EXPECT_EQ(e.pHead, e.head);
    EXPECT_EQ(e.pWindow, e.window);
    EXPECT_EQ(e.pWindowEnd, e.window);
    EXPECT_EQ(0u, e.histLen | e.bitCount | e.bitBuf | e.bitBufExt | e.reserved | Ozr32u(e.position));
    for (int i = 0; i < 32768; ++i) {
        ASSERT_EQ(-32768, e.chain[i]);
        ASSERT_EQ(-32768, e.head[i]);
    }
    // The hash rows: 768 values in 0..32767, well spread.
    std::vector<int> seen(32768);
    for (int i = 0; i < 768; ++i) {
        ASSERT_GE(e.pRandVec[i], 0);
        ++seen[e.pRandVec[i]];
    }
    EXPECT_LE(*std::max_element(seen.begin(), seen.end()), 3);

    std::memset(s.get(), 0x77, sizeof(OzrLZSSState));
    ASSERT_EQ(ozrOk, m7_ozrsDecodeLZSSInit_8u(s.get()));
    const OzrLZSSDecoderState& d = s.get()->u.dec;
    EXPECT_EQ(0u, d.reserved[0] | d.reserved[1] | d.reserved[2]);
    EXPECT_EQ(d.pWindow, d.window);
    EXPECT_EQ(0u, Ozr32u(d.bitCount) | d.bitBuf | d.pendDist | d.pendLen);
    EXPECT_EQ(0x77, d.window[0]);  // the window is left as it was
}

TEST(LzssBits, HandCheckedTokens) {
    // Two bytes: two literals, 18 bits, three bytes after the flush.
    EXPECT_EQ(bitString("1 01100001  1 01100010  000000"), encode(Bytes{'a', 'b'}));
    // A literal, then a match of length 3 at distance 1, then the two closing literals.
    EXPECT_EQ(bitString("1 01100001  0 000000000000001 00000000  1 01100001  1 01100001"),
              encode(Bytes(6, 'a')));
    // Length 258 at distance 1: the longest length, 255 in the field.
    EXPECT_EQ(bitString("1 01111010  0 000000000000001 11111111  1 01111010  1 01111010"),
              encode(Bytes(261, 'z')));
    // One byte: a literal and seven padding bits.
    EXPECT_EQ(bitString("1 00000000 0000000"), encode(Bytes{0}));
}

TEST(LzssBits, FarthestDistanceIs32767) {
    for (size_t span : {32767u, 32768u}) {
        Bytes in = randomBytes(span, 5);
        in.insert(in.end(), in.begin(), in.begin() + 100);
        const std::vector<Token> t = tokens(encode(in));
        auto it = std::find_if(t.begin(), t.end(), [&](const Token& k) { return k.at == span; });
        ASSERT_NE(it, t.end());
        if (span == 32767) {
            EXPECT_FALSE(it->literal);
            EXPECT_EQ(32767u, it->dist);
            EXPECT_EQ(98u, it->len);  // all but the two closing bytes
        } else {
            EXPECT_TRUE(it->literal || it->len < 10) << "a match 32768 bytes back";
        }
        for (const Token& k : t) EXPECT_TRUE(k.literal || (k.dist >= 1 && k.dist <= 32767));
    }
}

TEST(LzssEncoder, OneCallMatchesReferenceSearch) {
    for (const Bytes& in : samples()) {
        const Bytes ours = encode(in);
        ASSERT_EQ(refEncode(in), ours) << in.size();
        EXPECT_EQ(in, decode(ours, in.size())) << in.size();
    }
    const Bytes big = textBytes(1 << 20, 11);
    EXPECT_EQ(refEncode(big), encode(big));
}

TEST(LzssEncoder, SeamsEndEachCallWithTwoLiteralsAndMatchAcrossThem) {
    // Matches reach back across calls, into history up to 32767 bytes back, and run
    // from the history on into the new piece; each piece's last two bytes are literals.
    Bytes in = textBytes(200000, 3);
    const Bytes far = randomBytes(32767, 4);  // then its start again, 32767 bytes back
    in.insert(in.end(), far.begin(), far.end());
    in.insert(in.end(), far.begin(), far.begin() + 5000);
    const std::vector<size_t> cuts = {1, 70000, 3, 32767, 5000, 2, 32768, 258, 259, 17};
    const Bytes ours = encode(in, cuts);
    ASSERT_EQ(refEncode(in, cuts), ours);
    EXPECT_EQ(in, decode(ours, in.size()));
    size_t seam = 0, farthest = 0;
    std::vector<size_t> ends;
    for (size_t pos = 0, ci = 0; pos < in.size(); pos += std::min(cuts[ci++ % cuts.size()], in.size() - pos))
        ends.push_back(pos + std::min(cuts[ci % cuts.size()], in.size() - pos));
    const std::vector<Token> t = tokens(ours);
    for (const Token& k : t) {
        if (k.literal) continue;
        farthest = std::max<size_t>(farthest, k.dist);
        for (size_t e : ends) {
            EXPECT_FALSE(k.at < e && k.at + k.len > e - 2) << "match over a piece's last two bytes";
            seam += k.at >= e && k.at - k.dist < e;
        }
    }
    EXPECT_GT(seam, 10u);
    EXPECT_EQ(32767u, farthest);
}

TEST(LzssEncoder, OutputRoomDoesNotChangeTheStream) {
    for (const Bytes& in : samples()) {
        if (in.size() > 5000) continue;
        const Bytes whole = encode(in);
        for (size_t room = 1; room <= 7; ++room) ASSERT_EQ(whole, encode(in, {}, {room})) << in.size() << " " << room;
        ASSERT_EQ(whole, encode(in, {}, {1, 3, 2, 7, 5, 4, 6}));
        // Cut input too: same stream as the reference with those cuts.
        for (size_t cut = 1; cut <= 7; ++cut) ASSERT_EQ(refEncode(in, {cut}), encode(in, {cut}, {cut + 1, 2}));
    }
}

TEST(LzssEncoder, FullOutputTakesBackPositionsHashedAhead) {
    // The encoder hashes a few dozen positions ahead of its parse. Here the search at
    // 33000 reaches its best match (242, 16 bytes) only through the link of 262, whose
    // chain slot position 33030 takes over: the walk must follow the replaced link,
    // and a call that stops early (full output) before 33030 must give the slot back.
    Bytes in = randomBytes(34000, 41);
    const char* run = "ABCDEFGHIJKLMNOP";
    std::memcpy(in.data() + 242, run, 16);
    std::memcpy(in.data() + 262, run, 3);
    std::memcpy(in.data() + 33000, run, 16);
    const Bytes whole = encode(in);
    ASSERT_EQ(refEncode(in), whole);
    const std::vector<Token> t = tokens(whole);
    auto it = std::find_if(t.begin(), t.end(), [](const Token& k) { return k.at == 33000; });
    ASSERT_NE(it, t.end());
    EXPECT_EQ(32758u, it->dist);
    EXPECT_EQ(16u, it->len);
    EXPECT_EQ(whole, encode(in, {}, {1}));
    EXPECT_EQ(whole, encode(in, {}, {4093, 1, 7, 300}));
}

TEST(LzssDecoder, EveryCutOfInputAndOutputGivesTheSameBytes) {
    std::mt19937 r(9);
    for (const Bytes& in : samples()) {
        if (in.size() > 5000) continue;
        const Bytes stream = encode(in);
        for (size_t a = 1; a <= 7; ++a)
            for (size_t b = 1; b <= 7; ++b) ASSERT_EQ(in, decode(stream, in.size(), {a}, {b})) << a << " " << b;
        for (int k = 0; k < 20; ++k) {
            std::vector<size_t> cuts, rooms;
            for (int j = 0; j < 13; ++j) cuts.push_back(1 + r() % 7), rooms.push_back(1 + r() % 7);
            ASSERT_EQ(in, decode(stream, in.size(), cuts, rooms));
        }
    }
}

TEST(LzssDecoder, LongStreamInManyCallsMatchesReference) {
    Bytes in = textBytes(600000, 21);
    Bytes rnd = randomBytes(50000, 22);
    in.insert(in.begin() + 100000, rnd.begin(), rnd.end());
    in.insert(in.begin() + 400000, rnd.begin(), rnd.end());
    Bytes runs(70000, 7);
    in.insert(in.begin() + 200000, runs.begin(), runs.end());
    std::mt19937 r(23);
    std::vector<size_t> cuts, rooms;
    for (int j = 0; j < 97; ++j) cuts.push_back(1 + r() % 40000), rooms.push_back(1 + r() % 70000);
    const Bytes stream = encode(in, cuts);
    EXPECT_EQ(refEncode(in, cuts), stream);
    EXPECT_EQ(in, decode(stream, in.size(), cuts, rooms));
    EXPECT_EQ(in, decode(stream, in.size(), rooms, cuts));
}

TEST(LzssDecoder, MatchCutByFullOutputResumesWithSameDistance) {
    // "abc" then a 258-byte match at distance 3, cut after 100 bytes.
    Bytes in = {'a', 'b', 'c'};
    for (int i = 0; i < 260; ++i) in.push_back(in[in.size() - 3]);
    const Bytes stream = encode(in);
    State s = decoderState();
    Bytes out(in.size());
    Ozr8u* src = const_cast<Ozr8u*>(stream.data());
    Ozr8u* dst = out.data();
    int srcLen = int(stream.size()), dstLen = 103;
    EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s.get()));
    EXPECT_EQ(3u, s.get()->u.dec.pendDist);
    EXPECT_EQ(158u, s.get()->u.dec.pendLen);
    dstLen = int(in.size()) - 103;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s.get()));
    EXPECT_EQ(0, dstLen);
    EXPECT_EQ(in, out);
}

TEST(LzssDecoder, OneByteOfOutputPerCallWarnsUntilTheLast) {
    const Bytes in = textBytes(3000, 31);
    const Bytes stream = encode(in);
    State s = decoderState();
    Ozr8u* src = const_cast<Ozr8u*>(stream.data());
    int srcLen = int(stream.size());
    Bytes out;
    for (size_t i = 0; i < in.size(); ++i) {
        Ozr8u b = 0, *dst = &b;
        int dstLen = 1;
        ASSERT_EQ(i + 1 < in.size() ? ozrWarnDstSizeLess : ozrOk, m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s.get()));
        out.push_back(b);
    }
    EXPECT_EQ(in, out);
}

TEST(LzssDecoder, DistanceBeforeStreamStartReadsTheWindowArea) {
    // A match of 5 at distance 4 as the first token, then a literal 'x'.
    const Bytes stream = bitString("0 000000000000100 00000010  1 01111000");
    State s = decoderState();
    std::memset(s.get()->u.dec.window, 0x11, 32768);
    s.get()->u.dec.window[32764] = 1, s.get()->u.dec.window[32767] = 4;
    Bytes out(8, 0xEE);
    Ozr8u* src = const_cast<Ozr8u*>(stream.data());
    Ozr8u* dst = out.data();
    int srcLen = int(stream.size()), dstLen = 8;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s.get()));
    EXPECT_EQ((Bytes{1, 0x11, 0x11, 4, 1, 'x', 0xEE, 0xEE}), out);
    // Distance 0 writes zeros.
    const Bytes zero = bitString("0 000000000000000 00000001  1 01111000");
    State s2 = decoderState(0x55);
    src = const_cast<Ozr8u*>(zero.data()), dst = out.data(), srcLen = int(zero.size()), dstLen = 8;
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s2.get()));
    EXPECT_EQ((Bytes{0, 0, 0, 0, 'x', 'x', 0xEE, 0xEE}), out);
}

TEST(LzssState, MovedRecordContinuesTheStream) {
    const Bytes in = textBytes(100000, 41);
    const std::vector<size_t> cuts = {30000, 50000, 20000};
    const Bytes want = encode(in, cuts);
    State a = encoderState();
    Bytes half(in.begin(), in.begin() + 30000);
    Bytes out(in.size() * 2);
    Ozr8u* src = half.data();
    Ozr8u* dst = out.data();
    int srcLen = 30000, dstLen = int(out.size());
    ASSERT_EQ(ozrOk, m7_ozrsEncodeLZSS_8u(&src, &srcLen, &dst, &dstLen, a.get()));
    State b;
    std::memcpy(b.get(), a.get(), sizeof(OzrLZSSState));
    std::memset(a.get(), 0, sizeof(OzrLZSSState));
    Bytes rest(in.begin() + 30000, in.end());
    const Bytes tail = encode(b.get(), rest, {50000, 20000});
    Bytes got(out.data(), dst);
    got.insert(got.end(), tail.begin(), tail.end());
    EXPECT_EQ(want, got);
}

TEST(LzssState, PositionsNear2To30AreRebasedWithoutChangingTheStream) {
    const Bytes in = textBytes(300000, 51);
    State s = encoderState();
    s.get()->u.enc.position = (1 << 30) - 70000;
    EXPECT_EQ(encode(in, {65536}), encode(s.get(), in, {65536}));
}

TEST(LzssStatus, EncoderChecksInOrder) {
    State s = encoderState();
    Bytes buf(16);
    Ozr8u* p = buf.data();
    Ozr8u* nul = nullptr;
    int len = 4, room = 16, neg = -1, zero = 0;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(nullptr, &neg, &p, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(&p, nullptr, &p, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(&p, &len, nullptr, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(&p, &len, &p, nullptr, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(&p, &neg, &p, &neg, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(&nul, &len, &p, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSS_8u(&p, &len, &nul, &room, s.get()));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZSS_8u(&p, &neg, &p, &zero, s.get()));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZSS_8u(&p, &len, &p, &neg, s.get()));
    EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsEncodeLZSS_8u(&p, &zero, &p, &zero, s.get()));
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZSS_8u(&p, &zero, &p, &room, s.get()));
    EXPECT_EQ(buf.data(), p);
    EXPECT_EQ(16, room);
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSSFlush_8u(nullptr, &zero, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSSFlush_8u(&p, nullptr, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSSFlush_8u(&p, &zero, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSSFlush_8u(&nul, &room, s.get()));
    EXPECT_EQ(ozrErrSize, m7_ozrsEncodeLZSSFlush_8u(&p, &zero, s.get()));
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZSSFlush_8u(&p, &room, s.get()));
    EXPECT_EQ(16, room);
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsLZSSGetSize_8u(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsEncodeLZSSInit_8u(nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSSInit_8u(nullptr));
}

TEST(LzssStatus, DecoderChecksInOrder) {
    State s = decoderState();
    Bytes buf(16);
    Ozr8u* p = buf.data();
    Ozr8u* nul = nullptr;
    int len = 4, room = 16, neg = -1, zero = 0;
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(nullptr, &len, &p, &zero, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(&p, nullptr, &p, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(&p, &len, nullptr, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(&p, &len, &p, nullptr, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(&p, &len, &p, &zero, nullptr));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(&nul, &len, &p, &room, s.get()));
    EXPECT_EQ(ozrErrNullPointer, m7_ozrsDecodeLZSS_8u(&p, &len, &nul, &room, s.get()));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZSS_8u(&p, &neg, &p, &zero, s.get()));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZSS_8u(&p, &len, &p, &neg, s.get()));
    EXPECT_EQ(ozrErrSize, m7_ozrsDecodeLZSS_8u(&p, &neg, &p, &room, s.get()));
    EXPECT_EQ(ozrOk, m7_ozrsDecodeLZSS_8u(&p, &zero, &p, &room, s.get()));
    EXPECT_EQ(buf.data(), p);
    EXPECT_EQ(16, room);
}

TEST(LzssStatus, FullOutputKeepsWholeBytesPendingForTheFlush) {
    // 1000 random bytes: 1000 literals, 1125 bytes. With one byte short, the call
    // consumes everything and keeps the last whole byte; the flush writes it.
    const Bytes in = randomBytes(1000, 61);
    const Bytes want = encode(in);
    ASSERT_EQ(1125u, want.size());
    State s = encoderState();
    Bytes out(want.size());
    Ozr8u* src = const_cast<Ozr8u*>(in.data());
    Ozr8u* dst = out.data();
    int srcLen = int(in.size()), dstLen = 1124;
    EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsEncodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s.get()));
    EXPECT_EQ(0, dstLen);
    EXPECT_EQ(0, srcLen);
    EXPECT_EQ(8u, s.get()->u.enc.bitCount);
    int one = 1;
    EXPECT_EQ(ozrOk, m7_ozrsEncodeLZSSFlush_8u(&dst, &one, s.get()));
    EXPECT_EQ(want, out);

    // A call stopped inside the data by a full output, then flushed a byte at a time:
    // a literal and a match token (33 bits) go out, the last two bytes are dropped.
    const Bytes six(6, 'a');
    State t = encoderState();
    src = const_cast<Ozr8u*>(six.data()), srcLen = 6;
    Bytes o(5);
    dst = o.data(), dstLen = 2;
    EXPECT_EQ(ozrWarnDstSizeLess, m7_ozrsEncodeLZSS_8u(&src, &srcLen, &dst, &dstLen, t.get()));
    EXPECT_EQ(2, srcLen);
    EXPECT_EQ(17u, t.get()->u.enc.bitCount);
    for (OzrResult want33 : {ozrWarnDstSizeLess, ozrWarnDstSizeLess, ozrOk}) {
        one = 1;
        EXPECT_EQ(want33, m7_ozrsEncodeLZSSFlush_8u(&dst, &one, t.get()));
    }
    EXPECT_EQ(bitString("1 01100001  0 000000000000001 00000000"), o);
}

}  // namespace
