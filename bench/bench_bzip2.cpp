// bzip2 block-sorting stages, one row per stage, on the corpus cut into blocks of
// 900 000 bytes (bzip2 -9's block size; at most three blocks per file, plus the
// blocks that break naive sorts: all zeros, a short period, a long repeat).
//   - BWT forward beside libdivsufsort's divbwt on the same blocks;
//   - BWT inverse beside a straightforward LF-mapping inverse (no peer library
//     exports one; libbz2's whole-block decompression is listed for scale);
//   - RLE, MTF and Z1Z2 beside plain one-byte-at-a-time loops, on the data each
//     stage sees in a bzip2 compressor (MTF and Z1Z2 on the BWT output).
#include <bzlib.h>
#include <divsufsort.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

using Block = std::vector<uint8_t>;

constexpr size_t kBlock = 900000;

struct Blk {
    std::string name;
    Block data;
};

std::vector<Blk> cutBlocks(const Corpus& c) {
    std::vector<Blk> out;
    for (const Sample& s : c.files) {
        for (size_t off = 0, k = 0; off < s.data.size() && k < 3; off += kBlock, ++k) {
            size_t len = std::min(kBlock, s.data.size() - off);
            if (len < 1000) break;
            out.push_back({s.name, Block(s.data.begin() + static_cast<long>(off), s.data.begin() + static_cast<long>(off + len))});
        }
    }
    return out;
}

std::vector<Blk> hardBlocks() {
    std::vector<Blk> out;
    out.push_back({"zeros", Block(kBlock, 0)});
    Block period(kBlock);
    for (size_t i = 0; i < kBlock; ++i) period[i] = "abcab"[i % 5];
    out.push_back({"period-5", period});
    std::mt19937 r(7);
    Block repeat(kBlock);
    for (size_t i = 0; i < 1000; ++i) repeat[i] = static_cast<uint8_t>(r());
    for (size_t i = 1000; i < kBlock; ++i) repeat[i] = repeat[i - 1000];
    repeat[kBlock / 2] ^= 0x55;
    out.push_back({"repeat-1000", repeat});
    return out;
}

uint64_t bytesOf(const std::vector<Blk>& b) {
    uint64_t n = 0;
    for (const Blk& x : b) n += x.data.size();
    return n;
}

// The textbook inverse: counts, first rows, the LF links, then the walk.
void lfInverse(const uint8_t* last, uint8_t* out, int n, int index, std::vector<uint32_t>& link) {
    uint32_t start[256] = {};
    for (int i = 0; i < n; ++i) ++start[last[i]];
    uint32_t sum = 0;
    for (int c = 0; c < 256; ++c) {
        uint32_t k = start[c];
        start[c] = sum;
        sum += k;
    }
    for (int i = 0; i < n; ++i) link[start[last[i]]++] = static_cast<uint32_t>(i);
    uint32_t p = static_cast<uint32_t>(index);
    for (int k = 0; k < n; ++k) {
        p = link[p];
        out[k] = last[p];
    }
}

volatile uint32_t sink;

void runBzip2(const Corpus& c, const Options& o, Table& t) {
    std::vector<Blk> blocks = cutBlocks(c);
    std::vector<Blk> hard = hardBlocks();
    int bufSize = 0;
    ozrsBWTFwdGetSize_8u(static_cast<int>(kBlock), &bufSize);
    Block buf(static_cast<size_t>(bufSize)), out(kBlock), back(kBlock);
    std::vector<saidx_t> sa(kBlock);
    std::vector<uint32_t> link(kBlock + 256);

    auto add = [&](const std::string& op, const std::string& impl, bool ours, uint64_t bytes,
                   const std::function<void()>& fn) {
        Row r;
        r.op = op;
        r.impl = impl;
        r.ours = ours;
        r.inBytes = bytes;
        r.mbps = measure(o, bytes, fn);
        t.add(r);
    };

    // Forward transform: the corpus blocks together, then each hard block alone.
    auto fwdRows = [&](const std::string& op, const std::vector<Blk>& set) {
        add(op, "ozrdc", true, bytesOf(set), [&] {
            for (const Blk& b : set) {
                int index = 0;
                ozrsBWTFwd_8u(b.data.data(), out.data(), static_cast<int>(b.data.size()), &index, buf.data());
                sink = static_cast<uint32_t>(index);
            }
        });
        add(op, "divsufsort divbwt", false, bytesOf(set), [&] {
            for (const Blk& b : set) {
                sink = static_cast<uint32_t>(divbwt(b.data.data(), out.data(), sa.data(), static_cast<saidx_t>(b.data.size())));
            }
        });
    };
    fwdRows("bwt forward (corpus)", blocks);
    for (const Blk& h : hard) fwdRows("bwt forward (" + h.name + ")", {h});

    // Our forward output feeds the inverse and the later stages.
    struct Coded {
        Block last;
        int index;
    };
    std::vector<Coded> coded;
    for (const Blk& b : blocks) {
        Coded k{Block(b.data.size()), 0};
        ozrsBWTFwd_8u(b.data.data(), k.last.data(), static_cast<int>(b.data.size()), &k.index, buf.data());
        coded.push_back(std::move(k));
    }
    const uint64_t total = bytesOf(blocks);
    add("bwt inverse", "ozrdc", true, total, [&] {
        for (const Coded& k : coded)
            ozrsBWTInv_8u(k.last.data(), back.data(), static_cast<int>(k.last.size()), k.index, buf.data());
    });
    add("bwt inverse", "LF-mapping loop", false, total, [&] {
        for (const Coded& k : coded) lfInverse(k.last.data(), back.data(), static_cast<int>(k.last.size()), k.index, link);
    });
    {
        // libbz2's whole decoder (Huffman, MTF, inverse BWT, RLE) on the same blocks.
        std::vector<Block> bz;
        for (const Blk& b : blocks) {
            unsigned len = static_cast<unsigned>(b.data.size() * 1.02 + 600);
            Block z(len);
            BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(z.data()), &len,
                                     reinterpret_cast<char*>(const_cast<uint8_t*>(b.data.data())),
                                     static_cast<unsigned>(b.data.size()), 9, 0, 0);
            z.resize(len);
            bz.push_back(std::move(z));
        }
        Block dec(kBlock + 16);
        add("bwt inverse", "libbz2 whole block decode", false, total, [&] {
            for (const Block& z : bz) {
                unsigned len = static_cast<unsigned>(dec.size());
                BZ2_bzBuffToBuffDecompress(reinterpret_cast<char*>(dec.data()), &len,
                                           reinterpret_cast<char*>(const_cast<uint8_t*>(z.data())),
                                           static_cast<unsigned>(z.size()), 0, 0);
            }
        });
    }

    // RLE on the raw blocks, both ways.
    OzrsRLEState_BZ2 rle;
    Block rleOut(kBlock + kBlock / 4 + 16);
    std::vector<Block> rleCoded;
    for (const Blk& b : blocks) {
        ozrsEncodeRLEInit_BZ2_8u(&rle);
        const Ozr8u* p = b.data.data();
        int srcLen = static_cast<int>(b.data.size()), dstLen = static_cast<int>(rleOut.size());
        ozrsEncodeRLE_BZ2_8u(&p, &srcLen, rleOut.data(), &dstLen, &rle);
        int fl = 1;
        ozrsEncodeRLEFlush_BZ2_8u(rleOut.data() + dstLen, &fl, &rle);
        rleCoded.emplace_back(rleOut.begin(), rleOut.begin() + dstLen + fl);
    }
    add("rle encode", "ozrdc", true, total, [&] {
        for (const Blk& b : blocks) {
            ozrsEncodeRLEInit_BZ2_8u(&rle);
            const Ozr8u* p = b.data.data();
            int srcLen = static_cast<int>(b.data.size()), dstLen = static_cast<int>(rleOut.size());
            ozrsEncodeRLE_BZ2_8u(&p, &srcLen, rleOut.data(), &dstLen, &rle);
        }
    });
    add("rle encode", "byte loop", false, total, [&] {
        for (const Blk& b : blocks) {
            const uint8_t* s = b.data.data();
            size_t n = b.data.size(), o2 = 0;
            for (size_t i = 0; i < n;) {
                size_t j = i + 1;
                while (j < n && s[j] == s[i] && j - i < 259) ++j;
                size_t len = j - i;
                for (size_t k = 0; k < std::min<size_t>(len, 4); ++k) rleOut[o2++] = s[i];
                if (len >= 4) rleOut[o2++] = static_cast<uint8_t>(len - 4);
                i = j;
            }
            sink = static_cast<uint32_t>(o2);
        }
    });
    add("rle decode", "ozrdc", true, total, [&] {
        for (const Block& z : rleCoded) {
            ozrsDecodeRLEStateInit_BZ2_8u(&rle);
            const Ozr8u* p = z.data();
            Ozr8u* q = back.data();
            int srcLen = static_cast<int>(z.size()), dstLen = static_cast<int>(back.size());
            ozrsDecodeRLEState_BZ2_8u(&p, &srcLen, &q, &dstLen, &rle);
            ozrsDecodeRLEStateFlush_BZ2_8u(&rle, &q, &dstLen);
        }
    });

    // MTF and Z1Z2 on the BWT output.
    Ozr8u mtf[256];
    std::vector<Block> ranks;
    for (const Coded& k : coded) {
        Block r(k.last.size());
        ozrsMTFInit_8u(mtf);
        ozrsMTFFwd_8u(k.last.data(), r.data(), static_cast<int>(r.size()), mtf);
        ranks.push_back(std::move(r));
    }
    add("mtf forward", "ozrdc", true, total, [&] {
        for (const Coded& k : coded) {
            ozrsMTFInit_8u(mtf);
            ozrsMTFFwd_8u(k.last.data(), out.data(), static_cast<int>(k.last.size()), mtf);
        }
    });
    add("mtf forward", "byte loop", false, total, [&] {
        for (const Coded& k : coded) {
            uint8_t list[256];
            for (int i = 0; i < 256; ++i) list[i] = static_cast<uint8_t>(i);
            for (size_t i = 0; i < k.last.size(); ++i) {
                uint8_t s = k.last[i], prev = list[0];
                int r = 0;
                while (prev != s) {
                    ++r;
                    std::swap(prev, list[r]);
                }
                list[0] = s;
                out[i] = static_cast<uint8_t>(r);
            }
        }
    });
    add("mtf inverse", "ozrdc", true, total, [&] {
        for (const Block& r : ranks) {
            ozrsMTFInit_8u(mtf);
            ozrsMTFInv_8u(r.data(), out.data(), static_cast<int>(r.size()), mtf);
        }
    });
    std::vector<uint16_t> syms(kBlock + 16);
    std::vector<int> freq(258);
    std::vector<std::vector<uint16_t>> symBlocks;
    for (const Block& r : ranks) {
        const Ozr8u* p = r.data();
        int srcLen = static_cast<int>(r.size()), dstLen = static_cast<int>(syms.size());
        ozrsEncodeZ1Z2_BZ2_8u16u(&p, &srcLen, syms.data(), &dstLen, freq.data());
        symBlocks.emplace_back(syms.begin(), syms.begin() + dstLen);
    }
    add("z1z2 encode", "ozrdc", true, total, [&] {
        for (const Block& r : ranks) {
            const Ozr8u* p = r.data();
            int srcLen = static_cast<int>(r.size()), dstLen = static_cast<int>(syms.size());
            ozrsEncodeZ1Z2_BZ2_8u16u(&p, &srcLen, syms.data(), &dstLen, freq.data());
        }
    });
    add("z1z2 decode", "ozrdc", true, total, [&] {
        for (const auto& s : symBlocks) {
            const Ozr16u* p = s.data();
            int srcLen = static_cast<int>(s.size()), dstLen = static_cast<int>(back.size());
            ozrsDecodeZ1Z2_BZ2_16u8u(&p, &srcLen, back.data(), &dstLen);
        }
    });
}

const RegisterSuite reg{{"bzip2", runBzip2}};

}  // namespace
}  // namespace ozrdc_bench
