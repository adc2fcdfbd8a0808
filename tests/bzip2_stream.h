// A small .bz2 stream reader over the library's decoding stages (Huffman tables and
// symbols, block decoding) with a reference RLE decoder: the tests' and the fuzz
// targets' way to decode libbz2 streams piece by piece.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "../src/bzip2/bzip2_huff.h"

namespace bz2stream {

using Bytes = std::vector<uint8_t>;
using Syms = std::vector<Ozr16u>;

struct BitIn {
    const Bytes& b;
    size_t bit = 0;
    explicit BitIn(const Bytes& bytes) : b(bytes) {}
    uint32_t get(int n) {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i, ++bit) v = v << 1 | ((b.at(bit >> 3) >> (7 - (bit & 7))) & 1);
        return v;
    }
    // The rest of the current byte as the library's accumulator, the input behind it.
    void toAccumulator(Ozr32u& code, int& len, const Ozr8u*& src, int& srcLen) const {
        len = static_cast<int>((8 - (bit & 7)) & 7);
        code = len ? static_cast<Ozr32u>(b[bit >> 3]) << 24 << (8 - len) : 0;
        const size_t next = (bit + 7) >> 3;
        src = b.data() + next;
        srcLen = static_cast<int>(b.size() - next);
    }
    void fromAccumulator(int len, const Ozr8u* src) { bit = static_cast<size_t>(src - b.data()) * 8 - len; }
};

inline uint32_t bzCrc(const Bytes& b) {
    Ozr32u crc = 0;
    if (!b.empty()) m7_ozrsCRC32_BZ2_8u(b.data(), static_cast<int>(b.size()), &crc);
    return crc;
}

inline Bytes refUnRLE(const Bytes& in) {
    Bytes o;
    int same = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        if (same == 4) { o.insert(o.end(), in[i], o.back()); same = 0; continue; }
        same = (!o.empty() && o.back() == in[i]) ? same + 1 : 1;
        o.push_back(in[i]);
    }
    return o;
}
// A stream driver over our decoding stages. Returns false with `why` on a bad stream.
inline bool ourDecode(const Bytes& s, Bytes& out, std::string& why, size_t piece = 0) {
    BitIn br(s);
    if (s.size() < 4 || br.get(24) != 0x425A68) return why = "magic", false;
    const int level = static_cast<int>(br.get(8)) - '0';
    if (level < 1 || level > 9) return why = "level", false;
    const int maxBlock = level * 100000;
    int hsize = 0, bsize = 0;
    m7_ozrsDecodeHuffGetSize_BZ2_8u16u(900050, &hsize);
    m7_ozrsDecodeBlockGetSize_BZ2_8u(maxBlock, &bsize);
    std::vector<uint64_t> hmem((hsize + 7) / 8);
    auto* hst = reinterpret_cast<OzrsDecodeHuffState_BZ2*>(hmem.data());
    std::vector<Ozr8u> work(bsize), block(maxBlock);
    Syms syms(900050 + 10);
    uint32_t combined = 0;
    for (;;) {
        const uint64_t magic = uint64_t(br.get(24)) << 24 | br.get(24);
        if (magic == 0x177245385090ull) {
            if (br.get(32) != combined) return why = "stream crc", false;
            return true;
        }
        if (magic != 0x314159265359ull) return why = "block magic", false;
        const uint32_t crc = br.get(32);
        if (br.get(1)) return why = "randomised", false;
        const int origPtr = static_cast<int>(br.get(24));
        Ozr8u inUse[256] = {};
        const uint32_t used16 = br.get(16);
        int nInUse = 0;
        for (int i = 0; i < 16; ++i)
            if (used16 & (0x8000u >> i))
                for (int j = 0; j < 16; ++j)
                    if (br.get(1)) { inUse[i * 16 + j] = 1; ++nInUse; }
        if (m7_ozrsDecodeHuffInit_BZ2_8u16u(nInUse + 2, hst) != ozrOk) return why = "init", false;
        Ozr32u code;
        int len;
        const Ozr8u* src;
        int srcLen;
        br.toAccumulator(code, len, src, srcLen);
        const Ozr8u* const end = src + srcLen;
        // Feed the input in pieces of `piece` bytes (0: all at once).
        auto chunk = [&](int& l) { l = piece ? static_cast<int>(std::min<size_t>(piece, end - src)) : static_cast<int>(end - src); };
        OzrResult r;
        do {
            chunk(srcLen);
            if (srcLen == 0) return why = "truncated tables", false;
            r = m7_ozrsUnpackHuffContext_BZ2_8u16u(&code, &len, &src, &srcLen, hst);
        } while (r == ozrWarnSrcSizeLess);
        if (r != ozrOk) return why = "tables " + std::to_string(r), false;
        int nSyms = 0;
        do {
            chunk(srcLen);
            if (srcLen == 0) return why = "truncated", false;
            int room = static_cast<int>(syms.size()) - nSyms;
            r = m7_ozrsDecodeHuff_BZ2_8u16u(&code, &len, &src, &srcLen, syms.data() + nSyms, &room, hst);
            nSyms += room;
        } while (r == ozrWarnSrcSizeLess);
        if (r != ozrOk) return why = "symbols " + std::to_string(r), false;
        br.fromAccumulator(len, src);
        int blockLen = maxBlock;
        if (nSyms < 2) return why = "empty block", false;
        r = m7_ozrsDecodeBlock_BZ2_16u8u(syms.data(), nSyms - 1, block.data(), &blockLen, origPtr, nInUse, inUse,
                                         work.data());
        if (r != ozrOk) return why = "block " + std::to_string(r), false;
        Bytes raw = refUnRLE(Bytes(block.begin(), block.begin() + blockLen));
        if (bzCrc(raw) != crc) return why = "block crc", false;
        combined = (combined << 1 | combined >> 31) ^ crc;
        out.insert(out.end(), raw.begin(), raw.end());
    }
}

}  // namespace bz2stream
