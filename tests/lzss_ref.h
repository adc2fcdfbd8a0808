// Plain LZSS coders that follow the stream's rules one bit and one byte at a time:
// the oracles for the library's encoder (same search, written the obvious way over
// the whole data) and decoder (same stop rules and consumed counts).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "m7.h"

namespace ref {

struct LzssEncoder {
    const int16_t* rv;                 // the library's hash rows (read from the record)
    std::vector<uint8_t> data;         // everything encoded so far
    std::vector<int64_t> head = std::vector<int64_t>(32768, -32768), chain = std::vector<int64_t>(32768);
    std::vector<uint8_t> out;
    uint64_t bits = 0;
    int count = 0;

    void put(uint32_t v, int n) {
        for (int k = n - 1; k >= 0; --k) {
            bits = bits << 1 | ((v >> k) & 1);
            if (++count == 8) out.push_back(uint8_t(bits)), count = 0;
        }
    }
    // One call: every position of the piece, the last two always literals.
    void encode(const uint8_t* src, size_t n) {
        const size_t start = data.size();
        data.insert(data.end(), src, src + n);
        for (size_t i = 0; i < n;) {
            const int64_t p = int64_t(start + i);
            if (i + 2 >= n) { put(0x100 | data[p], 9); ++i; continue; }
            const uint32_t h = uint32_t(rv[data[p]] ^ rv[256 + data[p + 1]] ^ rv[512 + data[p + 2]]);
            int64_t c = head[h];
            chain[p & 0x7FFF] = c;
            head[h] = p;
            const size_t maxLen = std::min<size_t>(n - i - 2, 258);
            size_t best = 2, dist = 0;
            for (int k = 0; k < 16 && maxLen >= 3 && p - c < 32768; ++k, c = chain[c & 0x7FFF]) {
                size_t len = 0;
                while (len < maxLen && data[c + len] == data[p + len]) ++len;
                if (len > best) best = len, dist = size_t(p - c);
                if (best >= maxLen) break;
            }
            if (best < 3) { put(0x100 | data[p], 9); ++i; continue; }
            put(uint32_t(dist << 8 | (best - 3)), 24);
            for (size_t j = 1; j < best; ++j) {
                const size_t q = size_t(p) + j;
                const uint32_t g = uint32_t(rv[data[q]] ^ rv[256 + data[q + 1]] ^ rv[512 + data[q + 2]]);
                chain[q & 0x7FFF] = head[g];
                head[g] = int64_t(q);
            }
            i += best;
        }
    }
    std::vector<uint8_t> flush() {
        if (count > 0) put(0, 8 - count);
        return out;
    }
};

struct LzssDecoder {
    std::vector<uint8_t> hist;  // the window before the stream, then all output
    uint32_t bitBuf = 0;
    int bitCount = 0;
    size_t pendDist = 0, pendLen = 0;
    explicit LzssDecoder(const uint8_t* window) : hist(window, window + 32768) {}

    struct Call { OzrResult st; size_t consumed, produced; };
    Call decode(const uint8_t* src, size_t n, size_t room) {
        size_t ip = 0, produced = 0;
        auto copy = [&] {
            for (; pendLen > 0 && produced < room; --pendLen, ++produced)
                hist.push_back(pendDist == 0 ? 0 : hist[hist.size() - pendDist]);
            return pendLen == 0;
        };
        if (!copy()) return {ozrWarnDstSizeLess, ip, produced};
        for (;;) {
            while (bitCount <= 24 && ip < n) bitBuf |= uint32_t(src[ip++]) << (24 - bitCount), bitCount += 8;
            const bool literal = bitBuf >> 31;
            if (bitCount < (literal ? 9 : 24)) return {ozrOk, ip, produced};
            if (produced == room) return {ozrWarnDstSizeLess, ip, produced};
            if (literal) {
                hist.push_back(uint8_t(bitBuf >> 23)), ++produced;
                bitBuf <<= 9, bitCount -= 9;
                continue;
            }
            pendDist = (bitBuf >> 16) & 0x7FFF, pendLen = ((bitBuf >> 8) & 0xFF) + 3;
            bitBuf <<= 24, bitCount -= 24;
            if (!copy()) return {ozrWarnDstSizeLess, ip, produced};
        }
    }
};

}  // namespace ref
