// Inflate beside zlib's inflate, libdeflate and isa-l on the same raw Deflate streams
// (zlib level 6 output), per corpus file and over the corpus; ours is the library's
// block decoder behind the tests' stream driver (block headers, stored blocks and
// dynamic code lengths parsed by the caller, as the library intends). The small-block
// rows decode streams of 1 KiB and 16 KiB of output each, which shows the per-call and
// per-table cost.
#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "../tests/inflate_driver.h"
#include "bench.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes zlibRaw(const uint8_t* p, size_t n, int level) {
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    Bytes out(deflateBound(&z, n) + 16);
    z.next_in = const_cast<Bytef*>(p);
    z.avail_in = static_cast<uInt>(n);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

struct Stream {
    Bytes deflated;
    size_t rawLen;
};

struct Decoders {
    std::unique_ptr<OzrInflateState> ours{new OzrInflateState()};
    z_stream z{};
    libdeflate_decompressor* ld = libdeflate_alloc_decompressor();
    std::unique_ptr<inflate_state> isal{new inflate_state()};
    Decoders() { inflateInit2(&z, -15); }
    ~Decoders() {
        inflateEnd(&z);
        libdeflate_free_decompressor(ld);
    }

    size_t ozrdc(const Stream& s, uint8_t* out) {
        return inflate_driver::inflateInto(s.deflated.data(), s.deflated.size(), out, s.rawLen, {}, ours.get())
            .outLen;
    }
    size_t zlib(const Stream& s, uint8_t* out) {
        inflateReset(&z);
        z.next_in = const_cast<Bytef*>(s.deflated.data());
        z.avail_in = static_cast<uInt>(s.deflated.size());
        z.next_out = out;
        z.avail_out = static_cast<uInt>(s.rawLen);
        inflate(&z, Z_FINISH);
        return z.total_out;
    }
    size_t libdeflate(const Stream& s, uint8_t* out) {
        size_t n = 0;
        libdeflate_deflate_decompress(ld, s.deflated.data(), s.deflated.size(), out, s.rawLen, &n);
        return n;
    }
    size_t isa(const Stream& s, uint8_t* out) {
        isal_inflate_init(isal.get());
        isal->next_in = const_cast<uint8_t*>(s.deflated.data());
        isal->avail_in = static_cast<uint32_t>(s.deflated.size());
        isal->next_out = out;
        isal->avail_out = static_cast<uint32_t>(s.rawLen);
        isal->crc_flag = ISAL_DEFLATE;
        isal_inflate(isal.get());
        return isal->total_out;
    }
};

void runInflate(const Corpus& c, const Options& o, Table& t) {
    Decoders d;
    struct Impl {
        const char* name;
        bool ours;
        const char* note;
        size_t (Decoders::*fn)(const Stream&, uint8_t*);
    };
    const Impl impls[] = {{"ozrdc", true, "ozrsInflate_8u", &Decoders::ozrdc},
                          {"zlib", false, "inflate", &Decoders::zlib},
                          {"libdeflate", false, "libdeflate_deflate_decompress", &Decoders::libdeflate},
                          {"isa-l", false, "isal_inflate", &Decoders::isa}};

    // Each group of streams becomes one row per decoder: every file, the corpus, and
    // the corpus cut into 1 KiB and 16 KiB pieces compressed separately.
    auto runGroup = [&](const std::string& op, const std::vector<Stream>& streams) {
        uint64_t total = 0;
        size_t maxRaw = 0;
        for (const Stream& s : streams) total += s.rawLen, maxRaw = std::max(maxRaw, s.rawLen);
        Bytes out(maxRaw + 64);
        for (const Impl& im : impls)
            for (const Stream& s : streams)
                if ((d.*im.fn)(s, out.data()) != s.rawLen)
                    throw std::runtime_error(std::string("inflate bench: ") + im.name + " failed on " + op);
        // The decoders take turns, best of the rounds each: on a shared machine a slow
        // spell then hits all of them rather than one.
        double best[4] = {};
        Options once = o;
        once.repeats = 1;
        for (int round = 0; round < o.repeats; ++round)
            for (size_t k = 0; k < 4; ++k)
                best[k] = std::max(best[k], measure(once, total, [&] {
                    for (const Stream& s : streams) (d.*impls[k].fn)(s, out.data());
                }));
        for (size_t k = 0; k < 4; ++k) t.add({op, impls[k].name, impls[k].ours, best[k], total, 0, impls[k].note});
    };

    std::vector<Stream> all;
    for (const auto& f : c.files) {
        Stream s{zlibRaw(f.data.data(), f.data.size(), 6), f.data.size()};
        runGroup("inflate " + f.name, {s});
        all.push_back(std::move(s));
    }
    if (c.files.size() > 1) runGroup("inflate corpus", all);
    for (size_t piece : {size_t{1024}, size_t{16384}}) {
        std::vector<Stream> small;
        uint64_t bytes = 0;
        for (const auto& f : c.files) {
            for (size_t p = 0; p + piece <= f.data.size() && bytes < (size_t{8} << 20); p += piece * 7) {
                small.push_back({zlibRaw(f.data.data() + p, piece, 6), piece});
                bytes += piece;
            }
        }
        runGroup("inflate " + std::to_string(piece / 1024) + " KiB streams", small);
    }
}

const RegisterSuite kInflateSuite{{"inflate", runInflate}};

}  // namespace
}  // namespace ozrdc_bench
