// Deflate compression beside zlib, libdeflate and isa-l on the same buffers, per
// corpus file, with the compressed sizes: the library's level 1 and level 6 (LZ77
// pass, codes from its counts, Huffman coder: the tool's raw writer) against the
// peers' levels 1 and 6, and the one-pass fastest mode against their fastest levels.
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <zlib.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench.h"
#include "deflate_stream.h"

namespace ozrdc_bench {
namespace {

using Bytes = std::vector<uint8_t>;

size_t zlibDeflate(const Bytes& in, Bytes& out, int level) {
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    out.resize(deflateBound(&z, in.size()) + 16);
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    const size_t n = z.total_out;
    deflateEnd(&z);
    return n;
}

size_t libdeflateDeflate(const Bytes& in, Bytes& out, int level) {
    libdeflate_compressor* c = libdeflate_alloc_compressor(level);
    out.resize(libdeflate_deflate_compress_bound(c, in.size()));
    const size_t n = libdeflate_deflate_compress(c, in.data(), in.size(), out.data(), out.size());
    libdeflate_free_compressor(c);
    return n;
}

size_t isalDeflate(const Bytes& in, Bytes& out, int level) {
    static const uint32_t kLevelBuf[4] = {ISAL_DEF_LVL0_DEFAULT, ISAL_DEF_LVL1_DEFAULT, ISAL_DEF_LVL2_DEFAULT,
                                          ISAL_DEF_LVL3_DEFAULT};
    std::unique_ptr<isal_zstream> z(new isal_zstream());
    Bytes levelBuf(kLevelBuf[level]);
    isal_deflate_stateless_init(z.get());
    out.resize(in.size() + in.size() / 16 + 1024);
    z->next_in = const_cast<uint8_t*>(in.data());
    z->avail_in = static_cast<uint32_t>(in.size());
    z->next_out = out.data();
    z->avail_out = static_cast<uint32_t>(out.size());
    z->level = static_cast<uint32_t>(level);
    z->level_buf = levelBuf.data();
    z->level_buf_size = static_cast<uint32_t>(levelBuf.size());
    z->end_of_stream = 1;
    z->flush = NO_FLUSH;
    isal_deflate_stateless(z.get());
    return z->total_out;
}

size_t oursDeflate(const Bytes& in, Bytes& out, int level) {
    ozrdc_tool::CompressOptions o;
    if (level < 0) o.fastest = true;
    else o.level = level;
    ozrdc_tool::deflateRawInMemory(in.data(), in.size(), out, o);
    return out.size();
}

// zlib's raw inflate as the check that every row's output is a valid stream.
bool inflatesTo(const Bytes& stream, size_t n, const Bytes& expect) {
    z_stream z{};
    inflateInit2(&z, -15);
    Bytes out(expect.size() + 1);
    z.next_in = const_cast<Bytef*>(stream.data());
    z.avail_in = static_cast<uInt>(n);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    const int st = inflate(&z, Z_FINISH);
    const bool ok = st == Z_STREAM_END && z.total_out == expect.size() &&
                    std::equal(expect.begin(), expect.end(), out.begin());
    inflateEnd(&z);
    return ok;
}

void runDeflate(const Corpus& c, const Options& o, Table& t) {
    struct Impl {
        const char* name;
        bool ours;
        size_t (*fn)(const Bytes&, Bytes&, int);
        int level;
        const char* note;
    };
    struct Group {
        const char* op;
        std::vector<Impl> impls;
    };
    const Group groups[] = {
        {"deflate fastest", {{"ozrdc", true, oursDeflate, -1, "--fastest (one pass)"},
                             {"libdeflate", false, libdeflateDeflate, 1, "level 1"},
                             {"zlib", false, zlibDeflate, 1, "level 1"},
                             {"isa-l", false, isalDeflate, 1, "level 1 (AVX2)"}}},
        {"deflate L1", {{"ozrdc", true, oursDeflate, 1, "level 1"},
                        {"zlib", false, zlibDeflate, 1, "level 1"},
                        {"libdeflate", false, libdeflateDeflate, 1, "level 1"}}},
        {"deflate L6", {{"ozrdc", true, oursDeflate, 6, "level 6"},
                        {"zlib", false, zlibDeflate, 6, "level 6"},
                        {"libdeflate", false, libdeflateDeflate, 6, "level 6"}}},
    };
    Bytes out;
    for (const auto& f : c.files) {
        Bytes in(f.data.begin(), f.data.end());
        for (const Group& g : groups)
            for (const Impl& im : g.impls) {
                const size_t n = im.fn(in, out, im.level);
                if (!inflatesTo(out, n, in))
                    throw std::runtime_error(std::string("deflate bench: ") + im.name + " made a bad stream of " + f.name);
                const double mbps = measure(o, in.size(), [&] { im.fn(in, out, im.level); });
                t.add({std::string(g.op) + " " + f.name, im.name, im.ours, mbps, in.size(), n, im.note});
            }
    }
}

const RegisterSuite kDeflateSuite{{"deflate", runDeflate}};

}  // namespace
}  // namespace ozrdc_bench
