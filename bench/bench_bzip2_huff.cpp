// bzip2, the whole pipeline: the ozrdc tool's .bz2 writer and reader (the library's
// stages end to end, one thread) beside libbz2 at level 9, per file, interleaved
// run by run (best of the repeats, in thread CPU time), with the compressed sizes.
#include <bzlib.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench.h"
#include "format_bzip2.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

using Buf = std::vector<uint8_t>;

Buf viaTool(const Buf& in, bool compress, int level) {
    FILE* src = fmemopen(const_cast<uint8_t*>(in.data()), in.size(), "rb");
    char* mem = nullptr;
    size_t len = 0;
    FILE* dst = open_memstream(&mem, &len);
    {
        ozrdc_tool::Reader r(src, "bench");
        ozrdc_tool::Writer w(dst);
        if (compress) ozrdc_tool::bzip2CompressStream(r, w, level, 1);
        else ozrdc_tool::bzip2DecompressStream(r, w, 1);
    }
    std::fclose(src);
    std::fclose(dst);
    Buf out(mem, mem + len);
    std::free(mem);
    return out;
}

Buf peerCompress(const Buf& in) {
    unsigned int n = static_cast<unsigned>(in.size() + in.size() / 100 + 700);
    Buf out(n);
    BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &n,
                             const_cast<char*>(reinterpret_cast<const char*>(in.data())),
                             static_cast<unsigned>(in.size()), 9, 0, 30);
    out.resize(n);
    return out;
}
Buf peerDecompress(const Buf& in, size_t size) {
    unsigned int n = static_cast<unsigned>(size);
    Buf out(size);
    BZ2_bzBuffToBuffDecompress(reinterpret_cast<char*>(out.data()), &n,
                               const_cast<char*>(reinterpret_cast<const char*>(in.data())),
                               static_cast<unsigned>(in.size()), 0, 0);
    out.resize(n);
    return out;
}

// CPU time of this thread: on a machine shared with other work it varies far less
// than wall time, and both sides run on this one thread.
double threadSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
template <class F>
double seconds(F&& f) {
    const double t0 = threadSeconds();
    f();
    return threadSeconds() - t0;
}

void runBzip2(const Corpus& c, const Options& o, Table& t) {
    const int reps = std::max(o.repeats, 3);
    for (const auto& f : c.files) {
        if (f.data.empty()) continue;
        const Buf& raw = f.data;
        Buf ours = viaTool(raw, true, 9), theirs = peerCompress(raw);
        if (viaTool(theirs, false, 9) != raw || peerDecompress(ours, raw.size()) != raw)
            std::fprintf(stderr, "bench bzip2: %s does not round-trip\n", f.name.c_str());
        double bc[2] = {1e30, 1e30}, bd[2] = {1e30, 1e30};
        for (int rep = 0; rep < reps; ++rep) {
            bc[0] = std::min(bc[0], seconds([&] { viaTool(raw, true, 9); }));
            bc[1] = std::min(bc[1], seconds([&] { peerCompress(raw); }));
            bd[0] = std::min(bd[0], seconds([&] { viaTool(theirs, false, 9); }));
            bd[1] = std::min(bd[1], seconds([&] { peerDecompress(theirs, raw.size()); }));
        }
        const double mb = static_cast<double>(raw.size()) / 1e6;
        const std::string cop = "bzip2 -9 compress " + f.name, dop = "bzip2 decompress " + f.name;
        t.add({cop, "ozrdc pipeline", true, mb / bc[0], raw.size(), ours.size(), "RLE+BWT+MTF/Z1Z2+Huffman, 1 thread"});
        t.add({cop, "libbz2", false, mb / bc[1], raw.size(), theirs.size(), "BZ2_bzBuffToBuffCompress 9"});
        t.add({dop, "ozrdc pipeline", true, mb / bd[0], raw.size(), 0, "libbz2's stream, 1 thread"});
        t.add({dop, "libbz2", false, mb / bd[1], raw.size(), 0, "BZ2_bzBuffToBuffDecompress"});
    }
}

const RegisterSuite kSuite{{"bzip2", runBzip2}};

}  // namespace
}  // namespace ozrdc_bench
