// LZSS beside the nearest designs: the encoder next to zlib's level 1 (a greedy
// hash-chain LZ77 search, here into raw Deflate) and the decoder next to zlib's
// inflate of those level-1 streams. Each corpus file is one stream, coded in one
// call; rows for the whole corpus and for each file, with compressed sizes.
#include <zlib.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench.h"
#include "ozrdc.h"

namespace ozrdc_bench {
namespace {

using Buffer = std::vector<uint8_t>;

size_t lzssBound(size_t n) { return n + n / 8 + 16; }

// One stream per file: init, one call, flush. Returns the stream length.
size_t lzssEncode(OzrLZSSState* s, const Buffer& in, Buffer& out) {
    ozrsEncodeLZSSInit_8u(s);
    Ozr8u* src = const_cast<Ozr8u*>(in.data());
    Ozr8u* dst = out.data();
    int srcLen = int(in.size()), dstLen = int(out.size());
    if (ozrsEncodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s) != ozrOk ||
        ozrsEncodeLZSSFlush_8u(&dst, &dstLen, s) != ozrOk)
        throw std::runtime_error("lzss bench: encoder failed");
    return size_t(dst - out.data());
}

void lzssDecode(OzrLZSSState* s, const Buffer& in, Buffer& out, size_t expect) {
    ozrsDecodeLZSSInit_8u(s);
    Ozr8u* src = const_cast<Ozr8u*>(in.data());
    Ozr8u* dst = out.data();
    int srcLen = int(in.size()), dstLen = int(expect);
    if (ozrsDecodeLZSS_8u(&src, &srcLen, &dst, &dstLen, s) != ozrOk || dstLen != 0)
        throw std::runtime_error("lzss bench: decoder failed");
}

size_t zlibEncode(z_stream& z, const Buffer& in, Buffer& out) {
    deflateReset(&z);
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = uInt(in.size());
    z.next_out = out.data();
    z.avail_out = uInt(out.size());
    if (deflate(&z, Z_FINISH) != Z_STREAM_END) throw std::runtime_error("lzss bench: deflate failed");
    return out.size() - z.avail_out;
}

void zlibDecode(z_stream& z, const Buffer& in, Buffer& out, size_t expect) {
    inflateReset(&z);
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = uInt(in.size());
    z.next_out = out.data();
    z.avail_out = uInt(expect);
    if (inflate(&z, Z_FINISH) != Z_STREAM_END) throw std::runtime_error("lzss bench: inflate failed");
}

void runLzss(const Corpus& c, const Options& o, Table& t) {
    int size = 0;
    ozrsLZSSGetSize_8u(&size);
    std::vector<uint64_t> mem(size_t(size) / 8 + 1);
    auto* state = reinterpret_cast<OzrLZSSState*>(mem.data());
    z_stream def{}, inf{};
    deflateInit2(&def, 1, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    inflateInit2(&inf, -15);

    std::vector<Buffer> files;
    size_t maxIn = 0;
    for (const auto& f : c.files) {
        files.push_back(f.data);
        maxIn = std::max(maxIn, f.data.size());
    }
    Buffer scratch(std::max<size_t>(lzssBound(maxIn), deflateBound(&def, uLong(maxIn))));
    std::vector<Buffer> ours(files.size()), peers(files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        ours[i].assign(scratch.begin(), scratch.begin() + long(lzssEncode(state, files[i], scratch)));
        peers[i].assign(scratch.begin(), scratch.begin() + long(zlibEncode(def, files[i], scratch)));
        lzssDecode(state, ours[i], scratch, files[i].size());
        if (!std::equal(files[i].begin(), files[i].end(), scratch.begin()))
            throw std::runtime_error("lzss bench: round trip differs on " + c.files[i].name);
    }

    // Rows for a set of files (all, or one), interleaving ours and zlib per row pair.
    auto rows = [&](const std::string& suffix, size_t first, size_t last) {
        uint64_t in = 0, outOurs = 0, outPeer = 0;
        for (size_t i = first; i < last; ++i) {
            in += files[i].size();
            outOurs += ours[i].size();
            outPeer += peers[i].size();
        }
        t.add({"lzss compress" + suffix, "ozrdc", true, measure(o, in, [&] {
                   for (size_t i = first; i < last; ++i) lzssEncode(state, files[i], scratch);
               }), in, outOurs, "one call per file"});
        t.add({"lzss compress" + suffix, "zlib", false, measure(o, in, [&] {
                   for (size_t i = first; i < last; ++i) zlibEncode(def, files[i], scratch);
               }), in, outPeer, "deflate level 1, raw"});
        t.add({"lzss decompress" + suffix, "ozrdc", true, measure(o, in, [&] {
                   for (size_t i = first; i < last; ++i) lzssDecode(state, ours[i], scratch, files[i].size());
               }), in, 0, "our streams"});
        t.add({"lzss decompress" + suffix, "zlib", false, measure(o, in, [&] {
                   for (size_t i = first; i < last; ++i) zlibDecode(inf, peers[i], scratch, files[i].size());
               }), in, 0, "inflate of level-1 streams"});
    };
    rows("", 0, files.size());
    if (files.size() > 1)
        for (size_t i = 0; i < files.size(); ++i) rows(" " + c.files[i].name, i, i + 1);
    deflateEnd(&def);
    inflateEnd(&inf);
}

const RegisterSuite kLzssSuite{{"lzss", runLzss}};

}  // namespace
}  // namespace ozrdc_bench
