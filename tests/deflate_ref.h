// Test-side Deflate helpers, written from RFC 1951 alone: replaying an intermediate
// sequence, length-limited Huffman code lengths, canonical reversed codes, a bit sink
// that hands its partial byte to ozrsDeflateHuff_8u, dynamic block headers, and raw
// inflation through zlib.
#pragma once

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <queue>
#include <vector>

#include "ozrdc.h"
#include "test_data.h"

namespace deflate_ref {

// RFC 1951 3.2.5: the code of a length 3..258 (0..28, symbol 257 + code) and of a
// distance 1..32768 (0..29), looked up in the RFC's base tables as printed.
inline const int kLenBase[29] = {3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 15, 17, 19, 23, 27, 31, 35, 43, 51, 59, 67, 83, 99,
                                 115, 131, 163, 195, 227, 258};
inline const int kDistBase[30] = {1, 2, 3, 4, 5, 7, 9, 13, 17, 25, 33, 49, 65, 97, 129, 193, 257, 385, 513, 769,
                                  1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
inline int lengthCode(int len) {
    int c = 28;
    while (kLenBase[c] > len) --c;
    return c;
}
inline int distanceCode(int dist) {
    int c = 29;
    while (kDistBase[c] > dist) --c;
    return c;
}

// Replays (literal, distance) entries behind `history`; returns history + output.
inline Bytes replay(Bytes history, const uint8_t* lit, const uint16_t* dist, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (dist[i] == 0) {
            history.push_back(lit[i]);
            continue;
        }
        const size_t len = lit[i] + 3u;
        if (dist[i] > history.size()) return {};  // a distance before the history: broken
        for (size_t k = 0; k < len; ++k) history.push_back(history[history.size() - dist[i]]);
    }
    return history;
}

// Huffman code lengths no longer than maxBits (frequencies flattened until they fit).
inline std::vector<int> codeLengths(std::vector<uint32_t> freq, int maxBits) {
    const size_t n = freq.size();
    for (;;) {
        std::vector<int> len(n, 0);
        std::vector<size_t> used;
        for (size_t i = 0; i < n; ++i)
            if (freq[i]) used.push_back(i);
        if (used.size() == 1) len[used[0]] = 1;
        if (used.size() <= 1) return len;
        struct Node { uint64_t w; int id; };
        auto cmp = [](const Node& a, const Node& b) { return a.w > b.w || (a.w == b.w && a.id > b.id); };
        std::priority_queue<Node, std::vector<Node>, decltype(cmp)> q(cmp);
        std::vector<int> parent(2 * n, -1);
        for (size_t i : used) q.push({freq[i], static_cast<int>(i)});
        int next = static_cast<int>(n);
        while (q.size() > 1) {
            Node a = q.top(); q.pop();
            Node b = q.top(); q.pop();
            parent[a.id] = parent[b.id] = next;
            q.push({a.w + b.w, next++});
        }
        int maxLen = 0;
        for (size_t i : used) {
            int d = 0;
            for (int x = static_cast<int>(i); parent[x] >= 0; x = parent[x]) ++d;
            len[i] = d;
            maxLen = std::max(maxLen, d);
        }
        if (maxLen <= maxBits) return len;
        for (auto& f : freq)
            if (f) f = f / 2 + 1;
    }
}

// Canonical codes (RFC 1951 3.2.2), bit-reversed for LSB-first writing.
inline std::vector<OzrDeflateHuffCode> canonical(const std::vector<int>& len) {
    int count[16] = {}, next[16] = {};
    for (int l : len) count[l]++;
    count[0] = 0;
    for (int b = 1, code = 0; b < 16; ++b) {
        code = (code + count[b - 1]) << 1;
        next[b] = code;
    }
    std::vector<OzrDeflateHuffCode> out(len.size(), OzrDeflateHuffCode{0, 0});
    for (size_t s = 0; s < len.size(); ++s) {
        if (!len[s]) continue;
        unsigned c = next[len[s]]++, r = 0;
        for (int k = 0; k < len[s]; ++k) r |= ((c >> k) & 1u) << (len[s] - 1 - k);
        out[s] = {static_cast<uint16_t>(r), static_cast<uint16_t>(len[s])};
    }
    return out;
}

// An LSB-first bit stream; huff() appends a body through ozrsDeflateHuff_8u, handing
// it the partial byte the way a caller does.
struct BitSink {
    Bytes out;
    uint64_t buf = 0;
    int n = 0;
    void put(uint32_t bits, int len) {
        buf |= static_cast<uint64_t>(bits) << n;
        n += len;
        while (n >= 8) { out.push_back(static_cast<uint8_t>(buf)); buf >>= 8; n -= 8; }
    }
    void code(const OzrDeflateHuffCode& c) { put(c.code, c.len); }
    OzrResult huff(const uint8_t* lit, const uint16_t* dist, uint32_t count, std::vector<OzrDeflateHuffCode>& lc,
                   std::vector<OzrDeflateHuffCode>& dc) {
        Ozr16u pend = static_cast<Ozr16u>(buf);
        Ozr32u pendBits = static_cast<Ozr32u>(n);
        Ozr32u idx = static_cast<Ozr32u>(out.size());
        out.resize(out.size() + 6ull * count + 2);
        OzrResult st = ozrsDeflateHuff_8u(lit, dist, count, &pend, &pendBits, lc.data(), dc.data(), out.data(), &idx);
        out.resize(idx);
        buf = pend;
        n = static_cast<int>(pendBits);
        return st;
    }
    Bytes finish() {
        if (n) out.push_back(static_cast<uint8_t>(buf));
        buf = 0; n = 0;
        return out;
    }
};

// The header of a dynamic block with these literal/length (286) and distance (30)
// code lengths: HLIT, HDIST, HCLEN, the code-length code and the run-length coded lists.
inline void dynamicHeader(BitSink& s, const std::vector<int>& litLen, const std::vector<int>& distLen, bool last) {
    int nlit = 286, ndist = 30;
    while (nlit > 257 && litLen[nlit - 1] == 0) --nlit;
    while (ndist > 1 && distLen[ndist - 1] == 0) --ndist;
    std::vector<int> all(litLen.begin(), litLen.begin() + nlit);
    all.insert(all.end(), distLen.begin(), distLen.begin() + ndist);
    struct Sym { int sym, extra, bits; };
    std::vector<Sym> rle;
    for (size_t i = 0; i < all.size();) {
        size_t run = 1;
        while (i + run < all.size() && all[i + run] == all[i]) ++run;
        if (all[i] == 0 && run >= 3) {
            size_t r = std::min<size_t>(run, 138);
            rle.push_back(r >= 11 ? Sym{18, int(r - 11), 7} : Sym{17, int(r - 3), 3});
            i += r;
        } else if (all[i] != 0 && run >= 4) {
            rle.push_back({all[i], 0, 0});
            size_t r = std::min<size_t>(run - 1, 6);
            rle.push_back({16, int(r - 3), 2});
            i += 1 + r;
        } else {
            rle.push_back({all[i], 0, 0});
            i += 1;
        }
    }
    std::vector<uint32_t> cf(19, 0);
    for (auto& r : rle) cf[r.sym]++;
    std::vector<int> cl = codeLengths(cf, 7);
    std::vector<OzrDeflateHuffCode> cc = canonical(cl);
    static const int order[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    int hclen = 19;
    while (hclen > 4 && cl[order[hclen - 1]] == 0) --hclen;
    s.put(last ? 1 : 0, 1);
    s.put(2, 2);
    s.put(nlit - 257, 5);
    s.put(ndist - 1, 5);
    s.put(hclen - 4, 4);
    for (int i = 0; i < hclen; ++i) s.put(cl[order[i]], 3);
    for (auto& r : rle) {
        s.code(cc[r.sym]);
        if (r.bits) s.put(r.extra, r.bits);
    }
}

// Raw (or zlib-wrapped with windowBits 15) inflation through zlib, with an optional
// preset dictionary; returns false on any zlib error or a stream that does not end.
inline bool zlibInflate(const Bytes& in, Bytes& out, bool raw = true, const Bytes* dict = nullptr) {
    z_stream z{};
    if (inflateInit2(&z, raw ? -15 : 15) != Z_OK) return false;
    if (dict && raw) inflateSetDictionary(&z, dict->data(), static_cast<uInt>(dict->size()));
    out.clear();
    z.next_in = const_cast<Bytes::value_type*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    uint8_t chunk[1 << 16];
    int st;
    do {
        z.next_out = chunk;
        z.avail_out = sizeof chunk;
        st = inflate(&z, Z_NO_FLUSH);
        if (st == Z_NEED_DICT && dict) {
            inflateSetDictionary(&z, dict->data(), static_cast<uInt>(dict->size()));
            st = Z_OK;
        }
        out.insert(out.end(), chunk, z.next_out);
    } while (st == Z_OK);
    inflateEnd(&z);
    return st == Z_STREAM_END;
}

}  // namespace deflate_ref
