// Deflate encoder: every level's sequence replays to its input with exact counts,
// streams of our sequence and our Huffman coder read by zlib and by our Inflate, pieces against one
// call, preset dictionaries, rebasing, the argument checks in their order.
#include <gtest/gtest.h>

#include "deflate_ref.h"
#include "inflate_driver.h"
#include "test_data.h"

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "hash_rows.h"
#include "m7.h"

using namespace deflate_ref;

namespace {

Bytes mixedBytes(size_t n, uint32_t seed) {
    std::mt19937 r(seed);
    Bytes b;
    while (b.size() < n) {
        switch (r() % 5) {
            case 0: b.insert(b.end(), 1 + r() % 600, static_cast<uint8_t>(r())); break;          // runs
            case 1: { const Bytes t = textBytes(1 + r() % 2000, r()); b.insert(b.end(), t.begin(), t.end()); break; }
            case 2: if (b.size() > 1000) {                                                        // far copies
                        const size_t d = 1 + r() % std::min<size_t>(b.size(), 40000), l = 3 + r() % 300;
                        for (size_t i = 0; i < l; ++i) b.push_back(b[b.size() - d]);
                        break;
                    }
                    [[fallthrough]];
            default: for (int k = r() % 40; k > 0; --k) b.push_back(static_cast<uint8_t>(r() % 7));  // short noise
        }
    }
    b.resize(n);
    return b;
}

// The sequence of one LZ77 run and its counts.
struct Seq {
    Bytes lit;
    std::vector<uint16_t> dist;
    std::array<OzrDeflateFreqTable, 286> litFreq{};
    std::array<OzrDeflateFreqTable, 30> distFreq{};
    std::vector<size_t> consumedPerCall;
};

using Matcher = OzrResult (*)(const Ozr8u**, Ozr32u*, Ozr32u*, const Ozr8u*, Ozr32u, Ozr32s*, Ozr32s*, Ozr32u,
                              OzrDeflateFreqTable*, OzrDeflateFreqTable*, Ozr8u*, Ozr16u*, Ozr32u*, const Ozr32u*, int);

struct LzRun {
    int level = 6;
    const Ozr32u* params = nullptr;  // set: call this matcher with them instead of the dispatcher
    Matcher matcher = nullptr;
    Ozr32u winSize = 32768, hashSize = 32768;
    Ozr32u startIdx = 0;
    Ozr32u freeEntries = 1u << 20;
    Bytes dict;  // exactly winSize bytes (or empty)
    bool joined = false;  // the window is the winSize bytes right in front of the source, not a copy
};

// Feeds data in pieces ending at `cuts` (the last cut is data.size(), flushed); each
// call's window holds the winSize bytes before its first unread byte.
Seq runLz77(const LzRun& cfg, const Bytes& data, std::vector<size_t> cuts = {}) {
    if (cuts.empty() || cuts.back() != data.size()) cuts.push_back(data.size());
    Seq s;
    std::vector<Ozr32s> head(cfg.hashSize, -32768), prev(cfg.winSize, -32768);
    Bytes window(cfg.winSize, 0);
    Bytes all(cfg.winSize, 0);  // the data behind winSize zero bytes: a joined window can point into it
    all.insert(all.end(), cfg.dict.begin(), cfg.dict.end());
    all.insert(all.end(), data.begin(), data.end());
    Ozr32u idx = cfg.startIdx;
    if (!cfg.dict.empty()) {
        EXPECT_EQ(ozrsDeflateDictionarySet_8u(cfg.dict.data(), static_cast<Ozr32u>(cfg.dict.size()), head.data(),
                                              cfg.hashSize, prev.data(), window.data(), cfg.winSize, cfg.level), ozrOk);
        idx = cfg.winSize;
    }
    size_t off = cfg.winSize + cfg.dict.size();  // offset in `all` of the next unread byte
    std::vector<uint8_t> lit(cfg.freeEntries + 1);
    std::vector<uint16_t> dist(cfg.freeEntries + 1);
    for (size_t k = 0; k < cuts.size(); ++k) {
        const size_t end = cfg.winSize + cfg.dict.size() + cuts[k];
        const int flush = k + 1 == cuts.size() ? 2 : 0;
        for (;;) {
            std::copy(all.begin() + static_cast<ptrdiff_t>(off - cfg.winSize), all.begin() + static_cast<ptrdiff_t>(off), window.begin());
            const Ozr8u* win = cfg.joined ? all.data() + off - cfg.winSize : window.data();
            const Ozr8u* src = all.data() + off;
            Ozr32u len = static_cast<Ozr32u>(end - off), room = cfg.freeEntries;
            OzrResult st;
            if (cfg.params)
                st = cfg.matcher(&src, &len, &idx, win, cfg.winSize, head.data(), prev.data(), cfg.hashSize,
                                 s.litFreq.data(), s.distFreq.data(), lit.data(), dist.data(), &room, cfg.params, flush);
            else
                st = ozrsDeflateLZ77_8u(&src, &len, &idx, win, cfg.winSize, head.data(), prev.data(),
                                        cfg.hashSize, s.litFreq.data(), s.distFreq.data(), lit.data(), dist.data(), &room,
                                        cfg.level, flush);
            EXPECT_EQ(st, ozrOk);
            const size_t used = static_cast<size_t>(src - (all.data() + off));
            EXPECT_EQ(len, end - off - used);
            const size_t n = cfg.freeEntries - room;
            s.lit.insert(s.lit.end(), lit.begin(), lit.begin() + n);
            s.dist.insert(s.dist.end(), dist.begin(), dist.begin() + n);
            s.consumedPerCall.push_back(used);
            off += used;
            if (st != ozrOk || used == 0 || off == end) break;
        }
    }
    EXPECT_EQ(off, all.size());
    return s;
}

void expectCountsMatch(const Seq& s) {
    std::array<uint32_t, 286> lf{};
    std::array<uint32_t, 30> df{};
    for (size_t i = 0; i < s.lit.size(); ++i) {
        if (s.dist[i] == 0) { lf[s.lit[i]]++; continue; }
        lf[257 + lengthCode(s.lit[i] + 3)]++;
        df[distanceCode(s.dist[i])]++;
    }
    for (int i = 0; i < 286; ++i) ASSERT_EQ(s.litFreq[i].freq, lf[i] & 0xFFFF) << "literal/length symbol " << i;
    for (int i = 0; i < 30; ++i) ASSERT_EQ(s.distFreq[i].freq, df[i] & 0xFFFF) << "distance symbol " << i;
}

}  // namespace

namespace {

std::vector<int> fixedLitLengths() {
    std::vector<int> l(288);
    for (int i = 0; i < 288; ++i) l[i] = i < 144 ? 8 : i < 256 ? 9 : i < 280 ? 7 : 8;
    return l;
}

// Codes the sequence as blocks of at most blockEntries entries: dynamic codes built
// from each block's counts, or the fixed code; header and end code written here,
// bodies by ozrsDeflateHuff_8u.
Bytes encodeStream(const Seq& s, bool fixed, size_t blockEntries = 40000) {
    BitSink sink;
    size_t at = 0;
    do {
        const size_t n = std::min(blockEntries, s.lit.size() - at);
        const bool last = at + n == s.lit.size();
        std::vector<OzrDeflateHuffCode> lc, dc;
        if (fixed) {
            lc = canonical(fixedLitLengths());
            dc = canonical(std::vector<int>(30, 5));
            sink.put(last ? 1 : 0, 1);
            sink.put(1, 2);
        } else {
            std::vector<uint32_t> lf(286, 0), df(30, 0);
            for (size_t i = at; i < at + n; ++i) {
                if (s.dist[i] == 0) { lf[s.lit[i]]++; continue; }
                lf[257 + lengthCode(s.lit[i] + 3)]++;
                df[distanceCode(s.dist[i])]++;
            }
            lf[256] = 1;
            if (std::all_of(df.begin(), df.end(), [](uint32_t f) { return f == 0; })) df[0] = 1;
            const std::vector<int> ll = codeLengths(lf, 15), dl = codeLengths(df, 15);
            lc = canonical(ll);
            dc = canonical(dl);
            dynamicHeader(sink, ll, dl, last);
        }
        EXPECT_EQ(sink.huff(s.lit.data() + at, s.dist.data() + at, static_cast<Ozr32u>(n), lc, dc), ozrOk);
        sink.code(lc[256]);
        at += n;
    } while (at < s.lit.size());
    return sink.finish();
}

struct Sample {
    const char* name;
    Bytes data;
};

const std::vector<Sample>& samples() {
    static const std::vector<Sample> s = {
        {"mixed", mixedBytes(150000, 1)},
        {"text", textBytes(60000, 2)},
        {"random", randomBytes(20000, 3)},
        {"run", Bytes(5000, 'a')},
        {"tiny", Bytes{'a', 'b', 'c', 'a', 'b', 'c', 'a', 'b', 'c', 'a'}},
    };
    return s;
}

TEST(DeflateLevels, EveryLevelsSequenceReplaysToItsInputWithExactCounts) {
    for (int level = 0; level < 30; ++level)
        for (const Sample& smp : samples()) {
            SCOPED_TRACE(std::string(smp.name) + " level " + std::to_string(level));
            LzRun cfg;
            cfg.level = level;
            const Seq s = runLz77(cfg, smp.data);
            ASSERT_EQ(replay({}, s.lit.data(), s.dist.data(), s.lit.size()), smp.data);
            expectCountsMatch(s);
            for (size_t i = 0; i < s.lit.size(); ++i) {
                if (s.dist[i] == 0) continue;
                ASSERT_GE(s.lit[i] + 3, 4) << "a match shorter than 4";
                ASSERT_LT(s.dist[i], 32768) << "a match beyond the window";
            }
            if (level % 10 == 0) EXPECT_EQ(s.lit.size(), smp.data.size()) << "literal-only level matched";
        }
}

TEST(DeflateLevels, HigherEffortFindsNoFewerMatchesOnText) {
    const Bytes& d = samples()[0].data;
    auto entries = [&](int level) { LzRun c; c.level = level; return runLz77(c, d).lit.size(); };
    EXPECT_LT(entries(6), entries(1));
    EXPECT_LE(entries(9), entries(6));
    EXPECT_LT(entries(1), d.size() / 2);
}

TEST(DeflateStreams, OurSequenceThroughOurHuffmanCoderInflatesWithZlib) {
    for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 14, 15, 19, 22, 25, 29})
        for (const Sample& smp : samples())
            for (bool fixed : {false, true}) {
                SCOPED_TRACE(std::string(smp.name) + " level " + std::to_string(level) + (fixed ? " fixed" : " dynamic"));
                LzRun cfg;
                cfg.level = level;
                const Seq s = runLz77(cfg, smp.data);
                const Bytes stream = encodeStream(s, fixed, 3000 + level * 1000);
                Bytes out;
                ASSERT_TRUE(zlibInflate(stream, out));
                ASSERT_EQ(out, smp.data);
                const inflate_driver::Result ours = inflate_driver::inflateRaw(stream);
                ASSERT_EQ(ours.error, inflate_driver::Error::None);
                ASSERT_EQ(ours.out, smp.data);
            }
}

TEST(DeflatePieces, InputFedInPiecesGivesTheSequenceOfOneCall) {
    std::mt19937 r(7);
    const Bytes& d = samples()[0].data;
    for (int level : {1, 3, 4, 5, 6, 9, 11, 13, 15, 19, 24, 29}) {
        SCOPED_TRACE("level " + std::to_string(level));
        LzRun cfg;
        cfg.level = level;
        const Seq one = runLz77(cfg, d);
        std::vector<size_t> cuts;
        for (size_t at = 0; at < d.size();) {
            at += r() % 3 == 0 ? r() % 300 : r() % 20000;
            if (at < d.size()) cuts.push_back(at);
        }
        const Seq pieces = runLz77(cfg, d, cuts);
        ASSERT_EQ(pieces.lit, one.lit);
        ASSERT_EQ(pieces.dist, one.dist);
        expectCountsMatch(pieces);
    }
}

TEST(DeflatePieces, AWindowJoinedToTheSourceGivesTheSequenceOfACopiedOne) {
    // A window that ends where the source starts is read as one range with it (the
    // tool's layout); the sequence must be that of a separate copy of the same bytes.
    std::mt19937 r(11);
    const Bytes& d = samples()[0].data;
    for (int level : {1, 2, 4, 5, 6, 8, 9, 11, 14, 16, 19, 21, 26, 29})
        for (Ozr32u winSize : {32768u, 1024u}) {
            SCOPED_TRACE("level " + std::to_string(level) + " window " + std::to_string(winSize));
            std::vector<size_t> cuts;
            for (size_t at = 0; at < d.size();) {
                at += r() % 2 ? r() % 400 : r() % 30000;
                if (at < d.size()) cuts.push_back(at);
            }
            LzRun copied;
            copied.level = level;
            copied.winSize = winSize;
            copied.freeEntries = 5000;
            LzRun joined = copied;
            joined.joined = true;
            const Seq a = runLz77(copied, d, cuts), b = runLz77(joined, d, cuts);
            ASSERT_EQ(b.lit, a.lit);
            ASSERT_EQ(b.dist, a.dist);
            ASSERT_EQ(b.consumedPerCall, a.consumedPerCall);
            expectCountsMatch(b);
        }
}

// A plain chained matcher written from the algorithm's description (one call, flush
// 2, fresh tables of 32768 entries, nothing in the window): the greedy pass for levels
// whose last digit is 0..4, the lazy pass above. Every candidate is counted in full,
// so the quick tests, prefetches and batched insertions of the library must leave the
// sequence exactly as this one.
Seq referenceLz77(const Bytes& d, int level) {
    static constexpr Ozr32u kRows[10][4] = {{0, 0, 0, 0},     {4, 8, 8, 8},       {4, 16, 16, 9},      {4, 16, 16, 12},
                                            {48, 32, 32, 16}, {32, 8, 32, 16},    {128, 8, 256, 16},   {144, 8, 256, 16},
                                            {192, 32, 258, 128}, {256, 32, 258, 258}};
    static constexpr Ozr32u kOther[20][4] = {
        {0, 0, 0, 0},      {3, 7, 8, 258},     {3, 8, 16, 258},   {5, 8, 16, 258},    {16, 32, 32, 258},
        {24, 6, 32, 16},   {120, 7, 256, 16},  {140, 7, 256, 16}, {192, 32, 258, 128}, {512, 32, 258, 258},
        {0, 0, 0, 0},      {4, 8, 8, 258},     {4, 16, 16, 258},  {4, 16, 16, 258},   {16, 32, 32, 258},
        {32, 8, 32, 16},   {128, 8, 256, 16},  {144, 8, 256, 16}, {192, 32, 258, 128}, {512, 32, 258, 258}};
    const Ozr32u* prm = level < 10 ? kRows[level] : kOther[level - 10];
    const long maxChain = prm[0], good = prm[1], nice = prm[2];
    long maxLazy = prm[3];
    static constexpr auto rows = m7::makeHashRows<Ozr16u, 4, 15>(0x6F7A7264636465ull);
    const long W = 32768, e = static_cast<long>(d.size());
    std::vector<long> head(32768, -32768), prev(W, -32768);
    Seq s;
    const auto literal = [&](uint8_t b) { s.lit.push_back(b); s.dist.push_back(0); s.litFreq[b].freq++; };
    const auto match = [&](long len, long dist) {
        s.lit.push_back(static_cast<uint8_t>(len - 3));
        s.dist.push_back(static_cast<uint16_t>(dist));
        s.litFreq[257 + lengthCode(static_cast<int>(len))].freq++;
        s.distFreq[distanceCode(static_cast<int>(dist))].freq++;
    };
    const auto insert = [&](long p) {
        const int h = (rows.v[d[p]] ^ rows.v[256 + d[p + 1]] ^ rows.v[512 + d[p + 2]] ^ rows.v[768 + d[p + 3]]) & 32767;
        const long old = head[h];
        prev[p % W] = old;
        head[h] = p;
        return old;
    };
    // The longest strictly longer match than `best` within `limit` links (the first
    // one reaching it), stopping at nice; greedy: goodLength cuts the limit once.
    const auto search = [&](long p, long cand, long best, long limit, bool cut, long maxLen, long& pos) {
        bool cutDone = false;
        for (long steps = 1; cand > p - W; ++steps) {
            long len = 0;
            while (len < maxLen && d[cand + len] == d[p + len]) ++len;
            if (len > best) {
                best = len;
                pos = cand;
                if (best >= nice) break;
                if (cut && best >= good && !cutDone) {
                    cutDone = true;
                    limit = maxChain / 4;
                }
            }
            if (steps >= limit) break;
            cand = prev[cand % W];
        }
        return best;
    };
    long p = 0;
    if (maxChain > 0 && level % 10 <= 4) {
        long mainEnd = e - 261;
        if (mainEnd == 0) {
            mainEnd = 1;
            maxLazy = std::min(maxLazy, 257L);
        }
        for (int tail = 0; tail < 2; ++tail)
            for (const long end = tail ? e - 3 : mainEnd; p < end;) {
                const long maxLen = tail ? std::min(e - 3 - p, 258L) : 258;
                long pos = 0;
                const long best = search(p, insert(p), 3, maxChain, !tail, maxLen, pos);
                if (best >= 4) {
                    match(best, p - pos);
                    if (best <= maxLazy)
                        for (long q = p + 1; q < p + best; ++q) insert(q);
                    p += best;
                } else {
                    literal(d[p++]);
                }
            }
    } else if (maxChain > 0) {
        long P = 0, D = 0;
        uint8_t B = 0;
        for (int tail = 0; tail < 2; ++tail)
            for (const long end = tail ? e - 3 : e - 261; p < end; ++p) {
                const long cand = insert(p);
                long best = P, pos = 0;
                if (P < maxLazy)
                    best = search(p, cand, std::max(P, 3L), P < good ? maxChain : maxChain / 4, false,
                                  tail ? std::min(e - 3 - p, 258L) : 258, pos);
                if (P > 1) {
                    if (P < best || P < 4) {
                        literal(B);
                    } else {
                        match(P, D);
                        for (long q = p + 1; q < p + P - 1; ++q) insert(q);
                        p += P - 2;
                        best = 0;
                    }
                }
                if (best >= 4) D = p - pos;
                P = best;
                B = d[p];
            }
        if (P >= 4) {
            match(P, D);
            p += P - 1;
        } else if (P == 3) {
            literal(B);
        }
    }
    while (p < e) literal(d[p++]);
    return s;
}

TEST(DeflateLevels, EveryLevelsSequenceIsThatOfAPlainChainedMatcher) {
    for (int level = 1; level < 30; ++level)
        for (const Sample& smp : samples())
            for (bool joined : {false, true}) {
                if (level % 10 == 0) continue;
                SCOPED_TRACE(std::string(smp.name) + " level " + std::to_string(level) + (joined ? " joined" : ""));
                LzRun cfg;
                cfg.level = level;
                cfg.joined = joined;
                const Seq ours = runLz77(cfg, smp.data), ref = referenceLz77(smp.data, level);
                ASSERT_EQ(ours.lit, ref.lit);
                ASSERT_EQ(ours.dist, ref.dist);
                for (int i = 0; i < 286; ++i) ASSERT_EQ(ours.litFreq[i].freq, ref.litFreq[i].freq);
                for (int i = 0; i < 30; ++i) ASSERT_EQ(ours.distFreq[i].freq, ref.distFreq[i].freq);
            }
}

TEST(DeflatePieces, SmallEntryBuffersStopEarlyAndStillReplay) {
    const Bytes d = mixedBytes(30000, 9);
    for (int level : {1, 6, 9, 15})
        for (Ozr32u room : {2u, 3u, 17u, 300u}) {
            SCOPED_TRACE("level " + std::to_string(level) + " room " + std::to_string(room));
            LzRun cfg;
            cfg.level = level;
            cfg.freeEntries = room;
            const Seq s = runLz77(cfg, d, {d.size() / 2});
            ASSERT_EQ(replay({}, s.lit.data(), s.dist.data(), s.lit.size()), d);
            expectCountsMatch(s);
        }
}

TEST(DeflatePieces, SmallWindowsAndHashTablesKeepDistancesInTheWindow) {
    const Bytes& d = samples()[0].data;
    for (Ozr32u w : {256u, 4096u})
        for (Ozr32u h : {256u, 65536u}) {
            LzRun cfg;
            cfg.level = 6;
            cfg.winSize = w;
            cfg.hashSize = h;
            const Seq s = runLz77(cfg, d, {40000, 90000});
            ASSERT_EQ(replay({}, s.lit.data(), s.dist.data(), s.lit.size()), d);
            for (uint16_t x : s.dist) ASSERT_LT(x, w);
        }
}

TEST(DeflateIndex, PositionsNearTwoToThe31AreRebasedWithoutChangingTheSequence) {
    const Bytes& d = samples()[1].data;
    LzRun cfg;
    cfg.level = 6;
    const Seq base = runLz77(cfg, d, {20000, 40000});
    cfg.startIdx = 0x7FFF0000u;
    const Seq high = runLz77(cfg, d, {20000, 40000});
    EXPECT_EQ(high.lit, base.lit);
    EXPECT_EQ(high.dist, base.dist);

    std::vector<Ozr32s> head(256, -32768), prev(256, -32768);
    const Ozr32u start = 0x7FFFFF00u;
    head[0] = static_cast<Ozr32s>(start - 10);  // a recent entry keeps its distance, a stale one becomes empty
    head[1] = 5;
    prev[200] = static_cast<Ozr32s>(start - 100);
    Bytes win(256), lit(600);
    std::vector<Ozr16u> dist(600);
    std::array<OzrDeflateFreqTable, 286> lf{};
    std::array<OzrDeflateFreqTable, 30> df{};
    const Bytes src = randomBytes(300, 4);
    const Ozr8u* p = src.data();
    Ozr32u len = 300, idx = start, room = 600;
    ASSERT_EQ(ozrsDeflateLZ77_8u(&p, &len, &idx, win.data(), 256, head.data(), prev.data(), 256, lf.data(), df.data(),
                                 lit.data(), dist.data(), &room, 1, 0), ozrOk);
    EXPECT_EQ(idx, 256u + (300 - len));
    EXPECT_EQ(std::count(head.begin(), head.end(), 246), 1);
    EXPECT_EQ(std::count(head.begin(), head.end(), 5), 0);
    EXPECT_EQ(prev[200], 156);
}

TEST(DeflateDictionary, PresetDictionaryGivesMatchesIntoItThatZlibResolves) {
    const Bytes dict = textBytes(32768, 11);
    const Bytes d(dict.end() - 20000, dict.end());  // the same text again: long matches into the dictionary
    for (int level : {1, 6, 9}) {
        LzRun cfg;
        cfg.level = level;
        cfg.dict = dict;
        const Seq s = runLz77(cfg, d, {7000});
        Bytes all = replay(dict, s.lit.data(), s.dist.data(), s.lit.size());
        ASSERT_EQ(Bytes(all.begin() + dict.size(), all.end()), d);
        EXPECT_LT(s.lit.size(), d.size() / 8);
        EXPECT_GT(s.dist[0], 0) << "the first bytes match into the dictionary";
        Bytes out;
        ASSERT_TRUE(zlibInflate(encodeStream(s, false), out, true, &dict));
        EXPECT_EQ(out, d);
    }
}

TEST(DeflateDictionary, ShortDictionariesAreCopiedButHashOnlyFrom258Bytes) {
    std::vector<Ozr32s> head(256, -32768), prev(512, -32768);
    Bytes win(512, 0);
    const Bytes dict = textBytes(600, 1);
    auto empty = [&] { return std::all_of(head.begin(), head.end(), [](Ozr32s v) { return v == -32768; }); };
    ASSERT_EQ(ozrsDeflateDictionarySet_8u(dict.data(), 3, head.data(), 256, prev.data(), win.data(), 512, 1), ozrOk);
    EXPECT_EQ(win[0], 0) << "a 3-byte dictionary at level 1 does nothing";
    ASSERT_EQ(ozrsDeflateDictionarySet_8u(dict.data(), 257, head.data(), 256, prev.data(), win.data(), 512, 1), ozrOk);
    EXPECT_EQ(Bytes(win.begin(), win.begin() + 257), Bytes(dict.begin(), dict.begin() + 257));
    EXPECT_TRUE(empty()) << "fewer than 258 bytes are copied only";
    ASSERT_EQ(ozrsDeflateDictionarySet_8u(dict.data(), 300, head.data(), 256, prev.data(), win.data(), 512, 1), ozrOk);
    for (Ozr32s v : head) EXPECT_TRUE(v == -32768 || (v >= 0 && v <= 300 - 258)) << v;
    EXPECT_EQ(*std::max_element(head.begin(), head.end()), 300 - 258) << "all but the last 257 positions";
    ASSERT_EQ(ozrsDeflateDictionarySet_8u(dict.data(), 600, head.data(), 256, prev.data(), win.data(), 512, 1), ozrOk);
    EXPECT_EQ(win, Bytes(dict.begin() + 88, dict.end())) << "the last window-size bytes";
}

TEST(DeflateHash, UpdateHashSpansAndLevels) {
    std::vector<Ozr32s> head(256, -32768), prev(256, -32768);
    const Bytes src = {1, 2, 3, 4, 5};
    ASSERT_EQ(ozrsDeflateUpdateHash_8u(src.data(), 0, 3, head.data(), 256, prev.data(), 256, 1), ozrOk);
    EXPECT_TRUE(std::all_of(head.begin(), head.end(), [](Ozr32s v) { return v == -32768; })) << "3 bytes at level 1";
    ASSERT_EQ(ozrsDeflateUpdateHash_8u(src.data(), 40, 3, head.data(), 256, prev.data(), 256, 0), ozrOk);
    EXPECT_EQ(std::count(head.begin(), head.end(), 40), 1) << "3 bytes at level 0 insert one position";
    EXPECT_EQ(head[((((1 << 5) ^ 2) << 5) ^ 3) & 255], 40) << "the rolling hash";
    EXPECT_TRUE(std::all_of(prev.begin(), prev.end(), [](Ozr32s v) { return v == -32768; })) << "level 0: heads only";
    ASSERT_EQ(ozrsDeflateUpdateHash_8u(src.data(), 7, 5, head.data(), 256, prev.data(), 256, 2), ozrOk);
    EXPECT_EQ(std::count(head.begin(), head.end(), 7) + std::count(head.begin(), head.end(), 8), 2);
}

// ---- Shapes of the sequence ---------------------------------------------------

Seq oneCall(const Bytes& d, int level, int flush = 2, Ozr32u room = 1000, size_t* consumed = nullptr) {
    Seq s;
    std::vector<Ozr32s> head(256, -32768), prev(256, -32768);
    Bytes win(256), lit(room + 1);
    std::vector<Ozr16u> dist(room + 1);
    const Ozr8u* p = d.data();
    Ozr32u len = static_cast<Ozr32u>(d.size()), idx = 0, r = room;
    EXPECT_EQ(ozrsDeflateLZ77_8u(&p, &len, &idx, win.data(), 256, head.data(), prev.data(), 256, s.litFreq.data(),
                                 s.distFreq.data(), lit.data(), dist.data(), &r, level, flush), ozrOk);
    s.lit.assign(lit.begin(), lit.begin() + (room - r));
    s.dist.assign(dist.begin(), dist.begin() + (room - r));
    if (consumed) *consumed = static_cast<size_t>(p - d.data());
    EXPECT_EQ(idx, static_cast<Ozr32u>(p - d.data()));
    return s;
}

TEST(DeflateShapes, ThreeByteRepeatIsThreeLiteralsThenOneMatchAtDistanceThree) {
    Bytes d;
    for (int i = 0; i < 300; ++i) d.push_back("xyz"[i % 3]);
    const Seq s = oneCall(d, 1);
    ASSERT_GE(s.lit.size(), 4u);
    EXPECT_EQ(s.dist[0] + s.dist[1] + s.dist[2], 0);
    EXPECT_EQ(s.dist[3], 3);
    EXPECT_EQ(replay({}, s.lit.data(), s.dist.data(), s.lit.size()), d);
}

TEST(DeflateShapes, RepeatsOfExactlyThreeBytesStayLiterals) {
    const Bytes d = {'a', 'b', 'c', 'x', 'a', 'b', 'c', 'y', 'q', 'r'};
    for (int level : {1, 6}) {
        const Seq s = oneCall(d, level);
        EXPECT_EQ(s.lit, d);
        EXPECT_TRUE(std::all_of(s.dist.begin(), s.dist.end(), [](Ozr16u x) { return x == 0; }));
    }
}

TEST(DeflateShapes, LazyTakesALongerMatchOneByteLaterAndKeepsTheFirstOfEqualOnes) {
    // "abcd" then "Xbcdefg": at X... the match at 'b' (bcdefg, from an earlier copy) is
    // longer than the one at the byte before.
    const std::string a = "abcdQQQQbcdefghRRRRabcdefghSSSS";
    Bytes d(a.begin(), a.end());
    const Seq s = oneCall(d, 6);
    // At the second "abcdefgh": "abcd" matches 4 at the first position, "bcdefgh" 7 at the next.
    size_t matches = 0;
    for (size_t i = 0; i < s.dist.size(); ++i)
        if (s.dist[i]) {
            ++matches;
            EXPECT_EQ(s.lit[i] + 3, 7);
            EXPECT_EQ(s.lit[i - 1], 'a') << "the byte before the longer match is a literal";
        }
    EXPECT_EQ(matches, 1u);
    const Seq g = oneCall(d, 1);  // the greedy matcher takes "abcd" at once
    size_t greedyMatches = 0;
    for (size_t i = 0; i < g.dist.size(); ++i)
        if (g.dist[i]) { ++greedyMatches; EXPECT_EQ(g.lit[i] + 3, 4); }
    EXPECT_EQ(greedyMatches, 2u) << "abcd, then efgh";

    // "abcdef" at 12 matches "abcde" (5) at distance 12; "bcdef" at 13 matches 5 at
    // distance 7: the tie keeps the match at 12.
    const std::string e = "abcdeXbcdefYabcdefZ";
    Bytes de(e.begin(), e.end());
    const Seq le = oneCall(de, 6);
    EXPECT_EQ(replay({}, le.lit.data(), le.dist.data(), le.lit.size()), de);
    std::vector<int> dists;
    for (size_t i = 0; i < le.dist.size(); ++i)
        if (le.dist[i]) dists.push_back(le.dist[i]);
    EXPECT_EQ(dists, (std::vector<int>{5, 12}));
}

TEST(DeflateShapes, WithoutFlushTheLast261BytesStayUnread) {
    const Bytes d = textBytes(300, 5);
    size_t used = 0;
    oneCall(d, 1, 0, 1000, &used);
    EXPECT_EQ(used, 300u - 261u);
    oneCall(Bytes(d.begin(), d.begin() + 261), 1, 0, 1000, &used);
    EXPECT_EQ(used, 0u);
    oneCall(Bytes(d.begin(), d.begin() + 261), 6, 1, 1000, &used);
    EXPECT_EQ(used, 0u);
    oneCall(Bytes(d.begin(), d.begin() + 261), 0, 0, 1000, &used);
    EXPECT_EQ(used, 261u) << "a literal-only level needs no look-ahead";
}

TEST(DeflateShapes, NoFreeEntriesConsumeNothing) {
    const Bytes d = textBytes(1000, 5);
    size_t used = 9;
    oneCall(d, 1, 2, 0, &used);
    EXPECT_EQ(used, 0u);
    oneCall(d, 6, 2, 1, &used);
    EXPECT_EQ(used, 0u) << "the lazy matcher needs two free entries";
}

// ---- Argument checks, in their order -----------------------------------------

TEST(DeflateArguments, MatchersCheckPointersThenSizesThenParameters) {
    std::vector<Ozr32s> head(256, -32768), prev(256, -32768);
    Bytes win(256), lit(10), src(10);
    std::vector<Ozr16u> dist(10);
    OzrDeflateFreqTable lf[286] = {}, df[30] = {};
    const Ozr8u* p = src.data();
    Ozr32u len = 10, idx = 0, room = 10;
    auto call = [&](int level, const Ozr8u** pp, Ozr32u w, Ozr32u h, Ozr8u* l) {
        return ozrsDeflateLZ77_8u(pp, &len, &idx, win.data(), w, head.data(), prev.data(), h, lf, df, l, dist.data(),
                                  &room, level, 2);
    };
    EXPECT_EQ(call(30, nullptr, 0, 0, nullptr), ozrErrSize) << "the level comes before the pointers";
    EXPECT_EQ(call(-1, &p, 256, 256, lit.data()), ozrErrSize);
    EXPECT_EQ(call(1, &p, 256, 256, nullptr), ozrErrNullPointer);
    EXPECT_EQ(call(1, nullptr, 100, 256, lit.data()), ozrErrNullPointer) << "pointers before sizes";
    const Ozr8u* nul = nullptr;
    EXPECT_EQ(call(1, &nul, 256, 256, lit.data()), ozrErrNullPointer);
    EXPECT_EQ(call(1, &p, 128, 256, lit.data()), ozrErrSize);
    EXPECT_EQ(call(1, &p, 65536, 256, lit.data()), ozrErrSize);
    EXPECT_EQ(call(1, &p, 256, 131072, lit.data()), ozrErrSize);
    const Ozr32u bad[4] = {4, 3, 8, 8}, neg[4] = {0x80000000u, 8, 8, 8}, off[4] = {0, 0, 0, 0};
    for (auto fn : {ozrsDeflateLZ77Fast_8u, ozrsDeflateLZ77Slow_8u}) {
        EXPECT_EQ(fn(&p, &len, &idx, win.data(), 256, head.data(), prev.data(), 256, lf, df, lit.data(), dist.data(),
                     &room, nullptr, 2), ozrErrNullPointer);
        EXPECT_EQ(fn(&p, &len, &idx, win.data(), 100, head.data(), prev.data(), 256, lf, df, lit.data(), dist.data(),
                     &room, bad, 2), ozrErrSize) << "sizes before parameters";
        EXPECT_EQ(fn(&p, &len, &idx, win.data(), 256, head.data(), prev.data(), 256, lf, df, lit.data(), dist.data(),
                     &room, bad, 2), ozrErrBadArgument);
        EXPECT_EQ(fn(&p, &len, &idx, win.data(), 256, head.data(), prev.data(), 256, lf, df, lit.data(), dist.data(),
                     &room, neg, 2), ozrErrBadArgument);
        EXPECT_EQ(len, 10u);
        EXPECT_EQ(room, 10u) << "nothing written before the checks pass";
        EXPECT_EQ(fn(&p, &len, &idx, win.data(), 256, head.data(), prev.data(), 256, lf, df, lit.data(), dist.data(),
                     &room, off, 2), ozrOk) << "maxChain 0 needs no other parameter";
        len = 10; room = 10; idx = 0; p = src.data();
    }
    EXPECT_EQ(ozrsDeflateUpdateHash_8u(nullptr, 0, 10, head.data(), 256, prev.data(), 256, 1), ozrErrNullPointer);
    EXPECT_EQ(ozrsDeflateUpdateHash_8u(src.data(), 0, 10, head.data(), 256, nullptr, 99, 1), ozrErrNullPointer);
    EXPECT_EQ(ozrsDeflateUpdateHash_8u(src.data(), 0, 10, head.data(), 256, prev.data(), 99, 1), ozrErrSize);
    EXPECT_EQ(ozrsDeflateUpdateHash_8u(src.data(), 0, 10, head.data(), 255, prev.data(), 256, 1), ozrErrSize);
    EXPECT_EQ(ozrsDeflateDictionarySet_8u(src.data(), 10, head.data(), 256, prev.data(), nullptr, 1, 1), ozrErrNullPointer);
    EXPECT_EQ(ozrsDeflateDictionarySet_8u(src.data(), 10, head.data(), 256, prev.data(), win.data(), 1, 1), ozrErrSize);
    EXPECT_EQ(ozrsDeflateDictionarySet_8u(src.data(), 10, head.data(), 70000, prev.data(), win.data(), 256, 1), ozrErrSize);
}

// ---- The Huffman coder ---------------------------------------------------------

TEST(DeflateHuff, NoEntriesOnlyFlushWholePendingBytes) {
    std::vector<OzrDeflateHuffCode> lc = canonical(fixedLitLengths()), dc = canonical(std::vector<int>(30, 5));
    Ozr8u lit = 0, out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    Ozr16u dist = 0, code = 0x1ABC;
    Ozr32u bits = 13, idx = 1;
    ASSERT_EQ(ozrsDeflateHuff_8u(&lit, &dist, 0, &code, &bits, lc.data(), dc.data(), out, &idx), ozrOk);
    EXPECT_EQ(idx, 2u);
    EXPECT_EQ(out[1], 0xBC);
    EXPECT_EQ(out[2], 0xEE);
    EXPECT_EQ(bits, 5u);
    EXPECT_EQ(code, 0x1A);
    EXPECT_EQ(ozrsDeflateHuff_8u(&lit, &dist, 0, &code, nullptr, lc.data(), dc.data(), out, &idx), ozrErrNullPointer);
}

TEST(DeflateHuff, SplitCallsAndTheWidePathWriteTheSameBytes) {
    LzRun cfg;
    cfg.level = 6;
    const Seq s = runLz77(cfg, samples()[0].data);
    ASSERT_GT(s.lit.size(), 5000u);
    std::vector<uint32_t> lf(286, 1), df(30, 1);
    std::vector<OzrDeflateHuffCode> lc = canonical(codeLengths(lf, 15)), dc = canonical(codeLengths(df, 15));
    auto code = [&](std::vector<size_t> cuts, int pendingBits) {
        BitSink sink;
        sink.put(0x5A5A, pendingBits);
        size_t at = 0;
        cuts.push_back(s.lit.size());
        for (size_t c : cuts) {
            sink.huff(s.lit.data() + at, s.dist.data() + at, static_cast<Ozr32u>(c - at), lc, dc);
            at = c;
        }
        return sink.finish();
    };
    const Bytes one = code({}, 3);
    EXPECT_EQ(code({1, 2, 2047, 4095}, 3), one) << "narrow pieces (2047) and wide ones (2048)";
    EXPECT_EQ(code({2047}, 3), one);
    EXPECT_EQ(code({2048, 2049, 2050, 2051}, 3), one) << "pieces of 1 entry";
    Bytes fromNarrow;
    {
        BitSink a;
        for (size_t i = 0; i < s.lit.size(); i += 2047)
            a.huff(s.lit.data() + i, s.dist.data() + i, static_cast<Ozr32u>(std::min<size_t>(2047, s.lit.size() - i)), lc, dc);
        fromNarrow = a.finish();
    }
    BitSink b;
    b.huff(s.lit.data(), s.dist.data(), static_cast<Ozr32u>(s.lit.size()), lc, dc);
    EXPECT_EQ(b.finish(), fromNarrow);
}

TEST(DeflateHuff, OutputStaysWithinSixBytesPerEntryPlusPendingBytes) {
    // Worst case: every entry a 258-byte match at the longest-extra distance, all codes 15 bits.
    std::vector<int> ll(286, 15), dl(30, 15);
    std::vector<OzrDeflateHuffCode> lc(286, OzrDeflateHuffCode{0x7FFF, 15}), dc(30, OzrDeflateHuffCode{0x7FFF, 15});
    for (Ozr32u n : {1u, 2u, 3u, 7u, 2048u}) {
        std::vector<Ozr8u> lit(n, 254);  // length 257: code 27, 5 extra bits
        std::vector<Ozr16u> dist(n, 32768);
        std::vector<Ozr8u> out(6 * n + 2 + 64, 0xA5);
        Ozr16u code = 0xFFFF;
        Ozr32u bits = 16, idx = 0;
        ASSERT_EQ(ozrsDeflateHuff_8u(lit.data(), dist.data(), n, &code, &bits, lc.data(), dc.data(), out.data(), &idx), ozrOk);
        EXPECT_EQ(idx * 8 + bits, 16 + 48 * n);
        for (size_t i = 6 * n + 2; i < out.size(); ++i) ASSERT_EQ(out[i], 0xA5) << "wrote past the room, n " << n;
    }
}

}  // namespace

// ---- The one-pass fastest mode ---------------------------------------------------

namespace {

struct FastestOptions {
    bool fixed = false;
    size_t blockBytes = 1 << 16;   // one header per block
    size_t pieceBytes = 1 << 30;   // calls within a block
    Ozr32u outRoom = 1 << 20;      // output room per call
    Ozr32u hashSize = 1 << 14;
    bool flat = false;             // the window is the 32 KiB before the source in one buffer
};

// A whole raw Deflate stream from the fastest mode: per block, statistics from the
// block's first 16 KiB, codes, header placed, data coded in pieces with the window
// refreshed before each call.
Bytes fastestStream(const Bytes& d, const FastestOptions& o) {
    const Ozr32u winSize = 32768;
    std::vector<Ozr32s> head(o.hashSize, -32768);
    Bytes window(winSize), out;
    Bytes joined(winSize + d.size() + 1, 0);  // zeros, then the data (flat)
    std::copy(d.begin(), d.end(), joined.begin() + winSize);
    std::vector<Ozr8u> room(o.outRoom);
    Ozr16u code = 0;
    Ozr32u bits = 0, idx = 0;
    size_t at = 0;
    // Blocks after the first take the counts the coder gathered in the block before.
    std::vector<Ozr32u> prevLit(286, 0), prevDist(30, 0);
    do {
        const size_t blockEnd = std::min(d.size(), at + o.blockBytes);
        std::vector<OzrDeflateHuffCode> lc(286), dc(30);
        Ozr8u header[320];
        Ozr32u headerBits = 3;
        if (o.fixed) {
            EXPECT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(nullptr, nullptr, lc.data(), dc.data(), 1), ozrOk);
            header[0] = 2;  // BTYPE 01
        } else {
            std::vector<Ozr32u> ls = prevLit, ds = prevDist;
            if (blockEnd > at && at == 0)
                EXPECT_EQ(ozrsDeflateLZ77FastestGetStat_8u(d.data() + at, static_cast<Ozr32s>(std::min<size_t>(16384, blockEnd - at)),
                                                           ls.data(), ds.data()), ozrOk);
            EXPECT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(ls.data(), ds.data(), lc.data(), dc.data(), 0), ozrOk);
            EXPECT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), dc.data(), header, sizeof header, &headerBits), ozrOk);
        }
        std::fill(prevLit.begin(), prevLit.end(), 0u);
        std::fill(prevDist.begin(), prevDist.end(), 0u);
        idx = 0;
        Ozr8u placed[330];
        EXPECT_EQ(ozrsDeflateLZ77FastestPrecompHeader_8u(header, headerBits, placed, sizeof placed, &idx, &code, &bits,
                                                         blockEnd == d.size()), ozrOk);
        out.insert(out.end(), placed, placed + idx);
        size_t pieceEnd = at;
        for (;;) {
            pieceEnd = std::min(blockEnd, pieceEnd + o.pieceBytes);
            const int flush = pieceEnd == blockEnd ? 3 : 0;
            for (;;) {
                for (size_t i = 0; i < winSize; ++i) {
                    const ptrdiff_t q = static_cast<ptrdiff_t>(at) - winSize + i;
                    window[i] = q >= 0 ? d[q] : 0;
                }
                static const Ozr8u none = 0;
                const Ozr8u* src = at < d.size() ? d.data() + at : &none;
                if (o.flat) src = joined.data() + winSize + at;
                const Ozr8u* win = o.flat ? src - winSize : window.data();
                Ozr32u len = static_cast<Ozr32u>(pieceEnd - at), sidx = static_cast<Ozr32u>(at);
                idx = 0;
                const OzrResult st = ozrsDeflateLZ77Fastest_8u(&src, &len, &sidx, win, winSize, head.data(), o.hashSize,
                                                               room.data(), o.outRoom, &idx, &code, &bits, lc.data(), dc.data(),
                                                               prevLit.data(), prevDist.data(), flush);
                EXPECT_TRUE(st == ozrOk || st == ozrWarnDstSizeLess) << st;
                out.insert(out.end(), room.begin(), room.begin() + idx);
                at = pieceEnd - len;
                if (st == ozrOk) break;
            }
            if (pieceEnd == blockEnd) break;
        }
        at = blockEnd;
    } while (at < d.size());
    if (bits) out.push_back(static_cast<Ozr8u>(code));
    return out;
}

TEST(DeflateFastest, StreamsInflateWithZlibWhateverTheBlocksPiecesAndRoom) {
    for (const Sample& smp : samples())
        for (int variant = 0; variant < 7; ++variant) {
            FastestOptions o;
            if (variant == 1) o.fixed = true;
            if (variant == 2) { o.blockBytes = 10000; o.pieceBytes = 3001; }
            if (variant == 3) { o.outRoom = 40; o.hashSize = 256; }
            if (variant == 4) { o.pieceBytes = 261; o.blockBytes = 50000; }
            if (variant == 5) { o.flat = true; o.hashSize = 1 << 15; }
            if (variant == 6) { o.flat = true; o.pieceBytes = 300; o.outRoom = 40; }
            SCOPED_TRACE(std::string(smp.name) + " variant " + std::to_string(variant));
            const Bytes stream = fastestStream(smp.data, o);
            Bytes out;
            ASSERT_TRUE(zlibInflate(stream, out));
            ASSERT_EQ(out, smp.data);
            inflate_driver::Options pieces;
            pieces.inPiece = variant == 2 ? 7 : 0;
            pieces.outPiece = variant == 2 ? 1000 : 0;
            const inflate_driver::Result ours = inflate_driver::inflateRaw(stream, pieces);
            ASSERT_EQ(ours.error, inflate_driver::Error::None);
            ASSERT_EQ(ours.out, smp.data);
        }
}

TEST(DeflateFastest, CompressesTextAndRunsAndBarelyGrowsRandomData) {
    const Bytes& text = samples()[1].data;
    EXPECT_LT(fastestStream(text, {}).size(), text.size() / 3);
    EXPECT_LT(fastestStream(Bytes(100000, 'z'), {}).size(), 1000u);
    const Bytes rnd = randomBytes(100000, 5);
    EXPECT_LT(fastestStream(rnd, {}).size(), rnd.size() + rnd.size() / 50);
}

TEST(DeflateFastest, PositionsNearTwoToThe31DropByWholeSlotsAndStayValid) {
    // One fixed-code block in two calls over one buffer; between them the index jumps
    // by a multiple of 65536 (the head slots hold positions modulo 65536), which makes
    // the second call rebase. Matches across the jump must still decode.
    const Bytes& d = samples()[0].data;
    Bytes joined(32768, 0);
    joined.insert(joined.end(), d.begin(), d.end());
    std::vector<Ozr32s> head(1 << 15, -32768);
    std::vector<OzrDeflateHuffCode> lc(286), dc(30);
    ASSERT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(nullptr, nullptr, lc.data(), dc.data(), 1), ozrOk);
    Bytes out(d.size() * 2);
    Ozr16u code = 3;  // BFINAL 1, BTYPE 01
    Ozr32u bits = 3, at = 0, sidx = 0;
    const Ozr8u* src = joined.data() + 32768;
    Ozr32u len = 70000;
    ASSERT_EQ(ozrsDeflateLZ77Fastest_8u(&src, &len, &sidx, src - 32768, 32768, head.data(), 1 << 15, out.data(),
                                        static_cast<Ozr32u>(out.size()), &at, &code, &bits, lc.data(), dc.data(),
                                        nullptr, nullptr, 0), ozrOk);
    EXPECT_LE(len, 261u);
    const Ozr32u before = sidx + 0x7FFF0000u;
    sidx = before;
    len = static_cast<Ozr32u>(joined.data() + joined.size() - src);
    const Ozr32u second = len;
    ASSERT_EQ(ozrsDeflateLZ77Fastest_8u(&src, &len, &sidx, src - 32768, 32768, head.data(), 1 << 15, out.data(),
                                        static_cast<Ozr32u>(out.size()), &at, &code, &bits, lc.data(), dc.data(),
                                        nullptr, nullptr, 3), ozrOk);
    EXPECT_EQ(len, 0u);
    EXPECT_LT(sidx, before);
    EXPECT_EQ((sidx - second) % 65536, before % 65536);
    out.resize(at);
    if (bits) out.push_back(static_cast<Ozr8u>(code));
    Bytes back;
    ASSERT_TRUE(zlibInflate(out, back));
    EXPECT_EQ(back, d);
}

TEST(DeflateFastest, EmptyInputIsOneFinalEmptyBlock) {
    Bytes out;
    const Bytes s = fastestStream({}, {});
    ASSERT_TRUE(zlibInflate(s, out));
    EXPECT_TRUE(out.empty());
}

TEST(DeflateCodes, ExactCountsFromTheChainedMatchersMakeStreamsZlibReads) {
    for (int level : {1, 6, 9}) {
        LzRun cfg;
        cfg.level = level;
        const Seq s = runLz77(cfg, samples()[0].data);
        std::vector<Ozr32u> ls(286), ds(30);
        for (int i = 0; i < 286; ++i) ls[i] = s.litFreq[i].freq;
        for (int i = 0; i < 30; ++i) ds[i] = s.distFreq[i].freq;
        std::vector<OzrDeflateHuffCode> lc(286), dc(30);
        ASSERT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(ls.data(), ds.data(), lc.data(), dc.data(), 2), ozrOk);
        for (int i = 0; i < 286; ++i) EXPECT_EQ(lc[i].len == 0, i != 256 && ls[i] == 0) << i;
        Ozr8u header[320];
        Ozr32u headerBits = 0;
        ASSERT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), dc.data(), header, sizeof header, &headerBits), ozrOk);
        BitSink sink;
        for (Ozr32u b = 0; b < headerBits; ++b) sink.put((header[b / 8] >> (b % 8)) & 1u, 1);
        Bytes hb = sink.out;
        sink.out[0] |= 1;  // BFINAL
        ASSERT_EQ(sink.huff(s.lit.data(), s.dist.data(), static_cast<Ozr32u>(s.lit.size()), lc, dc), ozrOk);
        sink.code(lc[256]);
        Bytes out;
        ASSERT_TRUE(zlibInflate(sink.finish(), out));
        EXPECT_EQ(out, samples()[0].data);
    }
}

TEST(DeflateCodes, SkewedCountsStayWithin15BitsAndFormACompleteCode) {
    std::vector<Ozr32u> ls(286, 0), ds(30, 0);
    Ozr32u a = 1, b = 1;
    for (int i = 0; i < 40; ++i) {  // Fibonacci counts: unlimited Huffman lengths would reach 39
        ls[i] = a;
        const Ozr32u c = a + b;
        a = b;
        b = c > (1u << 31) ? (1u << 31) : c;
    }
    ds[3] = 1000000;
    for (int mode : {0, 2}) {
        std::vector<OzrDeflateHuffCode> lc(286), dc(30);
        ASSERT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(ls.data(), ds.data(), lc.data(), dc.data(), mode), ozrOk);
        double kraft = 0;
        for (auto& c : lc) {
            EXPECT_LE(c.len, 15);
            if (c.len) kraft += 1.0 / (1u << c.len);
        }
        EXPECT_DOUBLE_EQ(kraft, 1.0) << "mode " << mode;
        if (mode == 2) EXPECT_EQ(dc[3].len, 1) << "a single distance code";
    }
}

TEST(DeflateCodes, HeaderRefusesLengthsAbove15AndACodeWithoutEndOfBlock) {
    std::vector<OzrDeflateHuffCode> lc(286), dc(30);
    ASSERT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(nullptr, nullptr, lc.data(), dc.data(), 1), ozrOk);
    EXPECT_EQ(lc[0].len, 8);
    EXPECT_EQ(lc[0].code, 0x0C) << "00110000 reversed";
    EXPECT_EQ(lc[256].len, 7);
    EXPECT_EQ(lc[144].len, 9);
    Ozr8u header[320];
    Ozr32u bits = 77;
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), dc.data(), header, 10, &bits), ozrWarnDstSizeLess);
    EXPECT_EQ(bits, 77u);
    lc[3].len = 16;
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), dc.data(), header, 320, &bits), ozrErr);
    lc[3].len = 8;
    lc[256].len = 0;
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), dc.data(), header, 320, &bits), ozrErr);
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), dc.data(), header, 0, &bits), ozrErrSize);
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHeader_8u(lc.data(), nullptr, header, 0, &bits), ozrErrNullPointer);
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(nullptr, nullptr, lc.data(), dc.data(), 0), ozrErrNullPointer);
    std::vector<Ozr32u> ls(286), ds(30);
    EXPECT_EQ(ozrsDeflateLZ77FastestGenHuffTable_8u(ls.data(), ds.data(), lc.data(), dc.data(), 3), ozrErrBadArgument);
}

TEST(DeflateCodes, PrecompHeaderLandsBehindThePendingBitsAndSetsBfinal) {
    const Ozr8u header[2] = {0xB6, 0x01};  // 9 bits: 0 (BFINAL) then 11011011 0 ...
    Ozr8u out[8] = {};
    Ozr16u code = 0x1FF;  // 9 pending one-bits
    Ozr32u bits = 9, idx = 2;
    ASSERT_EQ(ozrsDeflateLZ77FastestPrecompHeader_8u(header, 9, out, 8, &idx, &code, &bits, 1), ozrOk);
    // Stream: 9 ones, then 1 (BFINAL forced), then header bits 1..8.
    EXPECT_EQ(out[2], 0xFF);
    EXPECT_EQ(idx, 4u);
    EXPECT_EQ(bits, 2u);
    EXPECT_EQ(out[3], 0x01 | 0x02 | (0xDB << 2 & 0xFC));
    EXPECT_EQ(code, (0xDB >> 6) & 3);
    Ozr32u small = 3;
    idx = 0;
    EXPECT_EQ(ozrsDeflateLZ77FastestPrecompHeader_8u(header, 9, out, 1, &idx, &code, &small, 0), ozrWarnDstSizeLess);
    EXPECT_EQ(ozrsDeflateLZ77FastestPrecompHeader_8u(header, 2, out, 8, &idx, &code, &small, 0), ozrErrSize);
    EXPECT_EQ(ozrsDeflateLZ77FastestPrecompHeader_8u(nullptr, 2, out, 8, &idx, &code, &small, 0), ozrErrNullPointer);
}

TEST(DeflateFastest, ChecksPointersThenSizes) {
    std::vector<Ozr32s> head(256, -32768);
    Bytes win(256), src(10), out(64);
    std::vector<OzrDeflateHuffCode> lc(286), dc(30);
    ozrsDeflateLZ77FastestGenHuffTable_8u(nullptr, nullptr, lc.data(), dc.data(), 1);
    const Ozr8u* p = src.data();
    Ozr32u len = 10, sidx = 0, idx = 0, bits = 0;
    Ozr16u code = 0;
    EXPECT_EQ(ozrsDeflateLZ77Fastest_8u(&p, &len, &sidx, win.data(), 100, head.data(), 256, out.data(), 64, &idx, &code,
                                        &bits, lc.data(), nullptr, nullptr, nullptr, 3), ozrErrNullPointer);
    EXPECT_EQ(ozrsDeflateLZ77Fastest_8u(&p, &len, &sidx, win.data(), 100, head.data(), 256, out.data(), 64, &idx, &code,
                                        &bits, lc.data(), dc.data(), nullptr, nullptr, 3), ozrErrSize);
    EXPECT_EQ(ozrsDeflateLZ77Fastest_8u(&p, &len, &sidx, win.data(), 256, head.data(), 256, out.data(), 0, &idx, &code,
                                        &bits, lc.data(), dc.data(), nullptr, nullptr, 3), ozrErrSize);
    std::vector<Ozr32u> counts(286);
    EXPECT_EQ(ozrsDeflateLZ77Fastest_8u(&p, &len, &sidx, win.data(), 256, head.data(), 256, out.data(), 64, &idx, &code,
                                        &bits, lc.data(), dc.data(), counts.data(), nullptr, 3), ozrErrNullPointer)
        << "counts both or neither";
    bits = 17;
    EXPECT_EQ(ozrsDeflateLZ77Fastest_8u(&p, &len, &sidx, win.data(), 256, head.data(), 256, out.data(), 64, &idx, &code,
                                        &bits, lc.data(), dc.data(), nullptr, nullptr, 3), ozrErrSize);
    std::vector<Ozr32u> ls(286), ds(30);
    EXPECT_EQ(ozrsDeflateLZ77FastestGetStat_8u(src.data(), 0, ls.data(), ds.data()), ozrErrSize);
    EXPECT_EQ(ozrsDeflateLZ77FastestGetStat_8u(src.data(), 10, nullptr, ds.data()), ozrErrNullPointer);
    EXPECT_EQ(len, 10u);
}

}  // namespace

// ---- The tool's gzip, zlib and raw Deflate writers, read by other programs ------

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

int sh(const std::string& cmd) {
    const int st = std::system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

void writeFile(const fs::path& p, const Bytes& b) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

Bytes readFile(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

class DeflateTool : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("ozrdc_deflate_test_" + std::to_string(::getpid()));
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string compress(const std::string& fmt, const std::string& opts, const fs::path& in) {
        const fs::path out = dir / (in.filename().string() + "." + fmt);
        EXPECT_EQ(sh(std::string(OZRDC_TOOL_PATH) + " compress -f -F " + fmt + " " + opts + " " + in.string() + " -o " +
                     out.string()), 0);
        return out.string();
    }
    fs::path dir;
};

TEST_F(DeflateTool, GzipFilesAtEveryKindOfLevelAreReadByGzipAndPigz) {
    const fs::path in = dir / "mixed";
    const Bytes data = mixedBytes(1500000, 21);  // two input buffers and many blocks
    writeFile(in, data);
    for (const char* opts : {"", "-L 1", "-L 4", "-L 9", "-L 0", "-L 15", "-L 29", "--fastest"}) {
        SCOPED_TRACE(opts);
        const std::string gz = compress("gzip", opts, in);
        ASSERT_EQ(sh("gzip -dc " + gz + " > " + (dir / "back").string()), 0);
        EXPECT_EQ(readFile(dir / "back"), data);
        ASSERT_EQ(sh("pigz -dc " + gz + " > " + (dir / "back2").string()), 0);
        EXPECT_EQ(readFile(dir / "back2"), data);
        ASSERT_EQ(sh(std::string(OZRDC_TOOL_PATH) + " decompress -f " + gz + " -o " + (dir / "back3").string()), 0);
        EXPECT_EQ(readFile(dir / "back3"), data) << "our own reader";
    }
}

TEST_F(DeflateTool, ZlibAndRawStreamsAreReadByPythonsZlib) {
    const fs::path in = dir / "text";
    writeFile(in, textBytes(200000, 22));
    const fs::path empty = dir / "empty";
    writeFile(empty, {});
    const fs::path rnd = dir / "random";
    writeFile(rnd, randomBytes(300000, 23));
    for (const fs::path& f : {in, empty, rnd})
        for (const char* opts : {"", "-L 1", "--fastest"}) {
            SCOPED_TRACE(f.string() + " " + opts);
            const std::string z = compress("zlib", opts, f), raw = compress("deflate", opts, f);
            const std::string py = "python3 -c \"import sys,zlib; d=open(sys.argv[1],'rb').read(); "
                                   "a=zlib.decompress(open(sys.argv[2],'rb').read()); "
                                   "b=zlib.decompress(open(sys.argv[3],'rb').read(), -15); "
                                   "sys.exit(0 if a==d and b==d else 1)\" ";
            EXPECT_EQ(sh(py + f.string() + " " + z + " " + raw), 0);
        }
    EXPECT_LE(fs::file_size(compress("deflate", "", rnd)), 300000u + 100) << "incompressible data goes stored";
}

TEST_F(DeflateTool, LevelsOutsideTheTableAreRefused) {
    const fs::path in = dir / "small";
    writeFile(in, textBytes(1000, 1));
    EXPECT_NE(sh(std::string(OZRDC_TOOL_PATH) + " compress -f -F gzip -L 30 " + in.string() + " -o " +
                 (dir / "x.gz").string() + " 2>/dev/null"), 0);
}

}  // namespace
