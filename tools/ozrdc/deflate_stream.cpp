// Deflate container writers (raw RFC 1951, zlib RFC 1950, gzip RFC 1952) on the
// library's Deflate encoder, streaming with bounded memory (about 1.3 MiB whatever
// the input size).
//
// Input sits in one buffer behind 32 KiB of history: the library's window argument
// points straight at the 32 KiB before the next unread byte, so nothing is copied
// per call. When the buffer is full, the history and the unread bytes move to its
// front and reading goes on.
//
// Levels (-L 0..29, default 6): the LZ77 pass fills a block of up to 32768 entries,
// the block's codes come from its exact counts, and its header, body and end code
// are written; a block that would come out larger than its bytes is sent stored.
// --fastest: the one-pass mode; per 64 KiB block a code in which every symbol has a
// code, made from the symbols of the block before (the first block: a sample of
// 16 KiB), a precomputed header, one pass.
#include "deflate_stream.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

constexpr Ozr32u kWin = 32768;
constexpr Ozr32u kHash = 32768;
constexpr size_t kBufData = size_t(1) << 20;   // input bytes held beside the history
constexpr Ozr32u kBlockEntries = 32768;       // 16-bit counts: keep blocks below 65536 entries
constexpr size_t kFastBlock = 64 * 1024;
constexpr Ozr32s kFastSample = 16 * 1024;

// The checksum of the container, fed with the input as it is read.
enum class Container { Raw, Zlib, Gzip };

struct Check {
    Container kind;
    Ozr32u adler = 1, crc = 0;
    uint64_t size = 0;
    void update(const Ozr8u* p, size_t n) {
        size += n;
        while (n > 0) {
            const Ozr32s k = static_cast<Ozr32s>(n > (size_t(1) << 30) ? (size_t(1) << 30) : n);
            if (kind == Container::Zlib) ozrsAdler32_8u(p, k, &adler);
            if (kind == Container::Gzip) ozrsCRC32_8u(p, k, &crc);
            p += k;
            n -= static_cast<size_t>(k);
        }
    }
};

// The output bit stream: whole bytes in `out`, the partial byte in code/bits in the
// library's convention, written to the Writer in large pieces.
using Sink = std::function<void(const Ozr8u*, size_t)>;
using Source = std::function<size_t(Ozr8u*, size_t)>;

struct BitStream {
    const Sink& w;
    std::vector<Ozr8u> out;
    Ozr16u code = 0;
    Ozr32u bits = 0;
    explicit BitStream(const Sink& wr) : w(wr) { out.reserve(1 << 20); }
    void put(Ozr32u v, Ozr32u n) {  // n <= 16
        Ozr32u acc = code | (v << bits);
        bits += n;
        while (bits >= 8) {
            out.push_back(static_cast<Ozr8u>(acc));
            acc >>= 8;
            bits -= 8;
        }
        code = static_cast<Ozr16u>(acc);
    }
    void alignToByte() {
        if (bits) out.push_back(static_cast<Ozr8u>(code));
        code = 0;
        bits = 0;
    }
    void drain(bool all = false) {
        if (all || out.size() >= (1 << 19)) {
            w(out.data(), out.size());
            out.clear();
        }
    }
    // Room for n more bytes at out.data() + index.
    Ozr8u* grow(size_t n, Ozr32u& index) {
        index = static_cast<Ozr32u>(out.size());
        out.resize(out.size() + n);
        return out.data();
    }
};

void fail(OzrResult st, const char* what) {
    if (st < 0) throw ToolError(std::string("deflate: ") + what + " failed with status " + std::to_string(st));
}

// The input buffer with its history in front; or, for input already in memory, that
// memory read in place (the window of the first 32 KiB then comes from a copy with
// zeros in front of it).
class Input {
public:
    Input(const Source& in, Check& check) : in_(&in), check_(check), buf_(kWin + kBufData, 0), base_(buf_.data()) {}
    Input(const Ozr8u* data, size_t n, Check& check)
        : check_(check), buf_(2 * kWin, 0), base_(n ? data : buf_.data() + kWin), pos_(0), fill_(n), eof_(true) {
        if (n) std::memcpy(buf_.data() + kWin, data, n < kWin ? n : kWin);
        check_.update(data, n);
    }
    // Unread bytes from the current position.
    const Ozr8u* cur() const { return base_ + pos_; }
    size_t unread() const { return fill_ - pos_; }
    bool eof() const { return eof_; }
    void advance(size_t n) { pos_ += n; }
    // The 32 KiB before cur(); zeros before the start of the input.
    const Ozr8u* window() const { return in_ || pos_ >= kWin ? base_ + pos_ - kWin : buf_.data() + pos_; }
    // Offset of cur() from the buffer start, to keep a block's bytes addressable.
    size_t pos() const { return pos_; }
    const Ozr8u* at(size_t p) const { return base_ + p; }
    // Reads more unless at the end of the input; keeps bytes from `keepFrom` (a buffer
    // offset) on, at least the history. Returns how far `keepFrom`-based offsets moved.
    size_t refill(size_t keepFrom) {
        if (eof_) return 0;
        size_t from = pos_ - kWin;
        if (keepFrom < from) from = keepFrom;
        size_t moved = 0;
        if (buf_.size() - fill_ < kBufData / 4 && from > 0) {
            std::memmove(buf_.data(), buf_.data() + from, fill_ - from);
            pos_ -= from;
            fill_ -= from;
            moved = from;
        }
        while (fill_ < buf_.size() && !eof_) {
            const size_t got = (*in_)(buf_.data() + fill_, buf_.size() - fill_);
            if (got == 0) eof_ = true;
            check_.update(buf_.data() + fill_, got);
            fill_ += got;
        }
        return moved;
    }

private:
    const Source* in_ = nullptr;  // none: the input is all at base_
    Check& check_;
    std::vector<Ozr8u> buf_;
    const Ozr8u* base_;
    size_t pos_ = kWin, fill_ = kWin;
    bool eof_ = false;
};

void storedBlocks(BitStream& bs, const Ozr8u* p, size_t n, bool final) {
    do {
        const size_t k = n > 65535 ? 65535 : n;
        const bool last = final && k == n;
        bs.put(last ? 1 : 0, 3);  // BTYPE 00
        bs.alignToByte();
        const Ozr8u hdr[4] = {Ozr8u(k), Ozr8u(k >> 8), Ozr8u(~k), Ozr8u(~k >> 8)};
        bs.out.insert(bs.out.end(), hdr, hdr + 4);
        bs.out.insert(bs.out.end(), p, p + k);
        p += k;
        n -= k;
        bs.drain();
    } while (n > 0);
}

// Places a dynamic header for the codes behind the pending bits.
void placeHeader(BitStream& bs, const OzrDeflateHuffCode* lc, const OzrDeflateHuffCode* dc, bool final) {
    Ozr8u header[320];
    Ozr32u headerBits = 0, idx = 0;
    fail(ozrsDeflateLZ77FastestGenHeader_8u(lc, dc, header, sizeof header, &headerBits), "header");
    Ozr8u* d = bs.grow(330, idx);
    fail(ozrsDeflateLZ77FastestPrecompHeader_8u(header, headerBits, d, static_cast<Ozr32u>(bs.out.size()), &idx,
                                                &bs.code, &bs.bits, final ? 1 : 0), "header placement");
    bs.out.resize(idx);
}

void deflateLevels(Input& in, BitStream& bs, int level) {
    std::vector<Ozr32s> head(kHash, -32768), prev(kWin, -32768);
    std::vector<Ozr8u> lit(kBlockEntries);
    std::vector<Ozr16u> dist(kBlockEntries);
    OzrDeflateFreqTable lf[286], df[30];
    OzrDeflateHuffCode lc[286], dc[30];
    Ozr32u idx = 0;
    in.refill(in.pos());
    for (;;) {
        std::memset(lf, 0, sizeof lf);
        std::memset(df, 0, sizeof df);
        Ozr32u room = kBlockEntries;
        size_t blockStart = in.pos();
        bool storable = true, last = false;
        for (;;) {
            const Ozr8u* src = in.cur();
            Ozr32u len = static_cast<Ozr32u>(in.unread());
            const bool flushAll = in.eof();
            fail(ozrsDeflateLZ77_8u(&src, &len, &idx, in.window(), kWin, head.data(), prev.data(), kHash, lf, df,
                                    lit.data() + (kBlockEntries - room), dist.data() + (kBlockEntries - room), &room,
                                    level, flushAll ? 2 : 0), "LZ77");
            in.advance(static_cast<size_t>(src - in.cur()));
            if (flushAll && in.unread() == 0) {
                last = true;
                break;
            }
            if (room < 2) break;
            // A block may cover more input than the buffer keeps; it then cannot
            // fall back to stored blocks.
            if (storable && in.pos() - blockStart > kBufData / 2) storable = false;
            blockStart -= in.refill(storable ? blockStart : in.pos());
        }
        const Ozr32u n = kBlockEntries - room;
        const size_t raw = in.pos() - blockStart;
        Ozr32u ls[286], ds[30];
        for (int i = 0; i < 286; ++i) ls[i] = lf[i].freq;
        for (int i = 0; i < 30; ++i) ds[i] = df[i].freq;
        fail(ozrsDeflateLZ77FastestGenHuffTable_8u(ls, ds, lc, dc, 2), "code construction");
        const Ozr16u code0 = bs.code;
        const Ozr32u bits0 = bs.bits;
        const size_t size0 = bs.out.size();
        placeHeader(bs, lc, dc, last);
        Ozr32u at = 0;
        Ozr8u* d = bs.grow(6ull * n + 8, at);
        if (n > 0) fail(ozrsDeflateHuff_8u(lit.data(), dist.data(), n, &bs.code, &bs.bits, lc, dc, d, &at), "Huffman coding");
        bs.out.resize(at);
        bs.put(lc[256].code, lc[256].len);
        if (storable && bs.out.size() - size0 > raw + 5 * (raw / 65535 + 1)) {
            // Stored is smaller: undo the block and send its bytes as they are.
            bs.out.resize(size0);
            bs.code = code0;
            bs.bits = bits0;
            storedBlocks(bs, in.at(blockStart), raw, last);
        }
        bs.drain();
        if (last) return;
    }
}

void deflateFastest(Input& in, BitStream& bs) {
    std::vector<Ozr32s> head(kHash, -32768);
    OzrDeflateHuffCode lc[286], dc[30];
    Ozr32u ls[286] = {}, ds[30] = {};
    Ozr32u idx = 0;
    bool first = true;
    in.refill(in.pos());
    for (;;) {
        if (in.unread() < kFastBlock && !in.eof()) in.refill(in.pos());
        const size_t n = in.unread() < kFastBlock ? in.unread() : kFastBlock;
        const bool last = in.eof() && n == in.unread();
        // The first block's code from a sample of it, each later one from what the
        // coder wrote in the block before.
        if (first && n > 0)
            fail(ozrsDeflateLZ77FastestGetStat_8u(in.cur(), static_cast<Ozr32s>(n < size_t(kFastSample) ? n : kFastSample), ls, ds),
                 "statistics");
        first = false;
        fail(ozrsDeflateLZ77FastestGenHuffTable_8u(ls, ds, lc, dc, 0), "code construction");
        std::memset(ls, 0, sizeof ls);
        std::memset(ds, 0, sizeof ds);
        placeHeader(bs, lc, dc, last);
        const Ozr8u* src = in.cur();
        Ozr32u len = static_cast<Ozr32u>(n);
        static const Ozr8u kNone = 0;
        if (n == 0) src = &kNone;
        for (;;) {
            Ozr32u at = 0;
            const Ozr32u roomBytes = static_cast<Ozr32u>(n + n / 8 + 64);
            Ozr8u* d = bs.grow(roomBytes, at);
            const OzrResult st = ozrsDeflateLZ77Fastest_8u(&src, &len, &idx, in.window(), kWin, head.data(), kHash, d,
                                                           static_cast<Ozr32u>(bs.out.size()), &at, &bs.code, &bs.bits,
                                                           lc, dc, ls, ds, 3);
            fail(st, "fastest coding");
            bs.out.resize(at);
            if (st == ozrOk) break;
        }
        in.advance(n);
        bs.drain();
        if (last) return;
    }
}

// Compresses from a reader (r) or from memory (mem, n) to the sink.
void run(const Source* r, const Ozr8u* mem, size_t n, const Sink& w, const CompressOptions& opts, Container kind) {
    const int level = opts.level.value_or(6);
    if (level < 0 || level > 29) throw ToolError("deflate: level must be 0..29 (1..9 as in gzip, 10..29 the other tunings)");
    Check check{kind};
    Input in = r ? Input(*r, check) : Input(mem, n, check);
    BitStream bs(w);
    if (kind == Container::Zlib) {
        // CMF: deflate, 32 KiB window; FLG: the level class, FCHECK making it a multiple of 31.
        const int flevel = opts.fastest || level % 10 <= 1 ? 0 : level % 10 <= 5 ? 1 : level % 10 == 6 ? 2 : 3;
        const Ozr8u cmf = 0x78;
        Ozr8u flg = static_cast<Ozr8u>(flevel << 6);
        flg = static_cast<Ozr8u>(flg + (31 - (cmf * 256 + flg) % 31) % 31);
        bs.out.push_back(cmf);
        bs.out.push_back(flg);
    } else if (kind == Container::Gzip) {
        const Ozr8u xfl = opts.fastest || level % 10 == 1 ? 4 : level % 10 == 9 ? 2 : 0;
        const Ozr8u hdr[10] = {0x1F, 0x8B, 8, 0, 0, 0, 0, 0, xfl, 3};
        bs.out.insert(bs.out.end(), hdr, hdr + 10);
    }
    if (opts.fastest) deflateFastest(in, bs);
    else deflateLevels(in, bs, level);
    bs.alignToByte();
    Ozr8u trailer[8];
    if (kind == Container::Zlib) {
        putBE32(trailer, check.adler);
        bs.out.insert(bs.out.end(), trailer, trailer + 4);
    } else if (kind == Container::Gzip) {
        putLE32(trailer, check.crc);
        putLE32(trailer + 4, static_cast<uint32_t>(check.size));
        bs.out.insert(bs.out.end(), trailer, trailer + 8);
    }
    bs.drain(true);
}

}  // namespace

namespace {
void fromFile(Reader& in, Writer& out, const CompressOptions& opts, Container kind) {
    const Source r = [&](Ozr8u* p, size_t n) { return in.read(p, n); };
    const Sink w = [&](const Ozr8u* p, size_t n) { out.write(p, n); };
    run(&r, nullptr, 0, w, opts, kind);
}
}  // namespace

void compressDeflateRaw(Reader& in, Writer& out, const CompressOptions& opts) { fromFile(in, out, opts, Container::Raw); }
void compressZlib(Reader& in, Writer& out, const CompressOptions& opts) { fromFile(in, out, opts, Container::Zlib); }
void compressGzip(Reader& in, Writer& out, const CompressOptions& opts) { fromFile(in, out, opts, Container::Gzip); }

void deflateRawInMemory(const uint8_t* src, size_t n, std::vector<uint8_t>& dst, const CompressOptions& opts) {
    dst.clear();
    const Sink w = [&](const Ozr8u* p, size_t k) { dst.insert(dst.end(), p, p + k); };
    run(nullptr, src, n, w, opts, Container::Raw);
}

}  // namespace ozrdc_tool
