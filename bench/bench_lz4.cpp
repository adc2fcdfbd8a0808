// LZ4 blocks, ours beside liblz4: each corpus file is one block. Compression rows
// report the summed block sizes; decompression rows decode liblz4's default blocks
// (the same input for both decoders) and, for ours, also our own blocks.
#include <lz4.h>
#include <lz4hc.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

using Block = std::vector<uint8_t>;

struct Coder {
    std::string op, impl, note;
    bool ours;
    // Compresses src into dst (sized for the worst case) and returns the block length.
    std::function<int(const Sample&, uint8_t*, int)> fn;
};

void runLz4(const Corpus& c, const Options& o, Table& t) {
    const uint64_t total = c.totalBytes();
    int tableSize = 0;
    ozrsEncodeLZ4HashTableGetSize_8u(&tableSize);
    std::vector<Ozr8u> table(static_cast<size_t>(tableSize));
    std::vector<char> lz4State(static_cast<size_t>(LZ4_sizeofState()));
    std::vector<char> hcState(static_cast<size_t>(LZ4_sizeofStateHC()));

    auto ourFast = [&](int accel) {
        return [&, accel](const Sample& s, uint8_t* dst, int) {
            int len = 0;
            ozrsEncodeLZ4Fast_8u(s.data.data(), static_cast<int>(s.data.size()), dst, &len, table.data(), accel);
            return len;
        };
    };
    auto peerFast = [&](int accel) {
        return [&, accel](const Sample& s, uint8_t* dst, int cap) {
            return LZ4_compress_fast_extState(lz4State.data(), reinterpret_cast<const char*>(s.data.data()),
                                              reinterpret_cast<char*>(dst), static_cast<int>(s.data.size()), cap,
                                              accel);
        };
    };
    int hcSize = 0;
    ozrsEncodeLZ4HCHashTableGetSize_8u(&hcSize);
    std::vector<Ozr8u> hcTable(static_cast<size_t>(hcSize));
    ozrsEncodeLZ4HCHashTableInit_8u(hcTable.data());
    auto ourHC = [&](int level) {
        return [&, level](const Sample& s, uint8_t* dst, int cap) {
            int srcLen = static_cast<int>(s.data.size()), len = cap;
            if (ozrsEncodeLZ4HC_8u(s.data.data(), &srcLen, dst, &len, hcTable.data(), level) != ozrOk) return 0;
            return len;
        };
    };
    auto peerHC = [&](int level) {
        return [&, level](const Sample& s, uint8_t* dst, int cap) {
            return LZ4_compress_HC_extStateHC(hcState.data(), reinterpret_cast<const char*>(s.data.data()),
                                              reinterpret_cast<char*>(dst), static_cast<int>(s.data.size()), cap,
                                              level);
        };
    };

    std::vector<Coder> coders = {
        {"lz4 compress", "ozrdc", "", true,
         [&](const Sample& s, uint8_t* dst, int) {
             int len = 0;
             ozrsEncodeLZ4_8u(s.data.data(), static_cast<int>(s.data.size()), dst, &len, table.data());
             return len;
         }},
        {"lz4 compress", "liblz4", "LZ4_compress_default", false, peerFast(1)},
        {"lz4 compress fast 8", "ozrdc", "acceleration 8", true, ourFast(8)},
        {"lz4 compress fast 8", "liblz4", "LZ4_compress_fast 8", false, peerFast(8)},
        {"lz4hc compress default", "ozrdc", "level 9 (default)", true, ourHC(0)},
        {"lz4hc compress default", "liblz4", "LZ4_compress_HC level 9", false, peerHC(9)},
        {"lz4hc compress max", "ozrdc", "level 12", true, ourHC(12)},
        {"lz4hc compress max", "liblz4", "LZ4_compress_HC level 12", false, peerHC(12)},
    };

    size_t maxIn = 0;
    for (const auto& f : c.files) maxIn = std::max(maxIn, f.data.size());
    const int cap = LZ4_compressBound(static_cast<int>(maxIn));
    Block dst(static_cast<size_t>(cap));
    std::vector<Block> ourBlocks, peerBlocks;
    for (const Coder& k : coders) {
        uint64_t out = 0;
        std::vector<Block> blocks;
        for (const auto& f : c.files) {
            int len = k.fn(f, dst.data(), cap);
            if (len <= 0) throw std::runtime_error("lz4 bench: " + k.impl + " failed on " + f.name);
            out += static_cast<uint64_t>(len);
            blocks.emplace_back(dst.begin(), dst.begin() + len);
        }
        const bool slow = k.op.rfind("lz4hc", 0) == 0;
        Options opt = o;
        if (slow) opt.repeats = 1;
        double mbps = measure(opt, total, [&] {
            for (const auto& f : c.files) k.fn(f, dst.data(), cap);
        });
        t.add({k.op, k.impl, k.ours, mbps, total, out, k.note});
        if (k.op == "lz4 compress") (k.ours ? ourBlocks : peerBlocks) = std::move(blocks);
    }

    // Decompression into a buffer of the exact size.
    Block out(maxIn);
    auto ourDecode = [&](const std::vector<Block>& blocks) {
        for (size_t i = 0; i < blocks.size(); ++i) {
            int len = static_cast<int>(c.files[i].data.size());
            ozrsDecodeLZ4_8u(blocks[i].data(), static_cast<int>(blocks[i].size()), out.data(), &len);
        }
    };
    auto peerDecode = [&](const std::vector<Block>& blocks) {
        for (size_t i = 0; i < blocks.size(); ++i)
            LZ4_decompress_safe(reinterpret_cast<const char*>(blocks[i].data()), reinterpret_cast<char*>(out.data()),
                                static_cast<int>(blocks[i].size()), static_cast<int>(c.files[i].data.size()));
    };
    // Check that both decoders agree before timing them.
    for (size_t i = 0; i < peerBlocks.size(); ++i) {
        int len = static_cast<int>(c.files[i].data.size());
        if (ozrsDecodeLZ4_8u(peerBlocks[i].data(), static_cast<int>(peerBlocks[i].size()), out.data(), &len) != ozrOk ||
            std::memcmp(out.data(), c.files[i].data.data(), c.files[i].data.size()) != 0)
            throw std::runtime_error("lz4 bench: our decoder disagrees on " + c.files[i].name);
    }
    t.add({"lz4 decompress", "ozrdc", true, measure(o, total, [&] { ourDecode(peerBlocks); }), total, 0,
           "liblz4's blocks"});
    t.add({"lz4 decompress", "liblz4", false, measure(o, total, [&] { peerDecode(peerBlocks); }), total, 0,
           "LZ4_decompress_safe, liblz4's blocks"});
    t.add({"lz4 decompress own blocks", "ozrdc", true, measure(o, total, [&] { ourDecode(ourBlocks); }), total, 0,
           "our blocks"});
    t.add({"lz4 decompress own blocks", "liblz4", false, measure(o, total, [&] { peerDecode(ourBlocks); }), total, 0,
           "LZ4_decompress_safe, our blocks"});
}

const RegisterSuite kLz4Suite{{"lz4", runLz4}};

}  // namespace
}  // namespace ozrdc_bench
