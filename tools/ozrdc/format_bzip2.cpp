// The bzip2 file format (.bz2) built from the library's block-sorting stages.
//
// A stream is "BZh" and the level digit (block size in units of 100 000 bytes),
// then blocks, each starting with the 48-bit magic 0x314159265359, the block CRC
// (of the block's original bytes), a randomised bit (0), the 24-bit origin pointer
// of the BWT, the in-use bitmap (16 bits for the 16-value ranges, then 16 bits per
// range in use), the Huffman table section and the coded symbols; after the last
// block the 48-bit magic 0x177245385090, the stream CRC (each block CRC folded in
// as crc = (crc << 1 | crc >> 31) ^ block crc) and zero bits up to a byte boundary.
// Blocks are not byte-aligned. A file may hold several streams back to back.
//
// Writing: blocks of up to level x 100 000 - 19 run-length-coded bytes go through
// RLE -> alphabet reduction -> BWT -> MTF -> Z1Z2 -> Huffman; with -T N the blocks
// are coded on N threads and written in order.
// Reading: the Huffman symbols are decoded here as the input streams in (block
// boundaries are only known by decoding), and each block's remaining stages (zero
// runs, MTF, inverse BWT, RLE, CRC) run on a worker with -T N. Memory is bounded by
// a few blocks. Randomised blocks (written only by bzip2 0.9.0 and older) are refused.
#include "format_bzip2.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

constexpr uint64_t kBlockMagic = 0x314159265359ull;
constexpr uint64_t kEndMagic = 0x177245385090ull;
constexpr int kMaxSymbols = 900000 + 50;  // the decoder's bound on one block's symbols

using Buf = std::vector<uint8_t>;

// Work areas of the BWT stages are walked in random order: backing them with 2 MiB
// pages (where the kernel allows) spares most of the TLB misses of that walk.
struct HugeBuf {
    uint8_t* p = nullptr;
    size_t n = 0;
    void reserve(size_t want) {
        if (want <= n) return;
        std::free(p);
        constexpr size_t kHuge = size_t(2) << 20;
        n = (want + kHuge - 1) / kHuge * kHuge;
        p = static_cast<uint8_t*>(std::aligned_alloc(kHuge, n));
        if (!p) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
        madvise(p, n, MADV_HUGEPAGE);
#endif
    }
    HugeBuf() = default;
    HugeBuf(const HugeBuf&) = delete;
    HugeBuf& operator=(const HugeBuf&) = delete;
    ~HugeBuf() { std::free(p); }
};

// Buffers reused from block to block (and from worker to worker).
template <class T>
class Pool {
public:
    std::unique_ptr<T> take() {
        std::lock_guard<std::mutex> g(m_);
        if (free_.empty()) return std::make_unique<T>();
        auto t = std::move(free_.back());
        free_.pop_back();
        return t;
    }
    void give(std::unique_ptr<T> t) {
        std::lock_guard<std::mutex> g(m_);
        free_.push_back(std::move(t));
    }

private:
    std::mutex m_;
    std::vector<std::unique_ptr<T>> free_;
};

// Bits MSB first, in the library's accumulator convention at the seams.
class BitSink {
public:
    void put(uint32_t v, int n) {  // n <= 24
        acc_ |= static_cast<uint64_t>(v) << (64 - bits_ - n);
        bits_ += n;
        while (bits_ >= 8) { out_.push_back(static_cast<uint8_t>(acc_ >> 56)); acc_ <<= 8; bits_ -= 8; }
    }
    void put32(uint32_t v) { put(v >> 16, 16); put(v & 0xFFFF, 16); }
    void put48(uint64_t v) { put(static_cast<uint32_t>(v >> 24), 24); put(static_cast<uint32_t>(v & 0xFFFFFF), 24); }
    // Appends whole bytes that were written behind a pending accumulator handed out by
    // pending(), then the accumulator the library returned.
    void appendBits(const uint8_t* p, size_t n, Ozr32u code, int bits) {
        if (bits_ == 0) out_.insert(out_.end(), p, p + n);
        else for (size_t i = 0; i < n; ++i) put(p[i], 8);
        for (int k = 0; k < bits; k += 8) {
            const int take = std::min(8, bits - k);
            put((code << k) >> (32 - take), take);
        }
    }
    void align() { if (bits_) put(0, 8 - bits_); }
    Buf& bytes() { return out_; }
    int pendingBits() const { return bits_; }
    Ozr32u pendingCode() const { return static_cast<Ozr32u>(acc_ >> 32); }
    void dropPending() { acc_ = 0; bits_ = 0; }

private:
    Buf out_;
    uint64_t acc_ = 0;
    int bits_ = 0;
};

void check(OzrResult r, const char* what) {
    if (r != ozrOk) throw ToolError(std::string("bzip2: ") + what + " failed (status " + std::to_string(r) + ")");
}

// ---- Compression ---------------------------------------------------------------------

struct Encoder {
    HugeBuf work;
    Buf L, ranks;
    std::vector<Ozr16u> syms;
    std::vector<uint64_t> huffMem;

    // One block of run-length-coded bytes (reduced in place) into its bits.
    Buf encode(Buf& block, const Ozr8u inUse[256], uint32_t crc) {
        const int n = static_cast<int>(block.size());
        int nInUse = 0;
        check(ozrsReduceDictionary_8u_I(inUse, block.data(), n, &nInUse), "alphabet reduction");
        int size = 0;
        check(ozrsBWTFwdGetSize_8u(n, &size), "BWT size");
        work.reserve(static_cast<size_t>(size));
        L.resize(static_cast<size_t>(n));
        int index = 0;
        check(ozrsBWTFwd_8u(block.data(), L.data(), n, &index, work.p), "BWT");
        Ozr8u mtf[256];
        check(ozrsMTFInit_8u(mtf), "MTF init");
        ranks.resize(static_cast<size_t>(n));
        check(ozrsMTFFwd_8u(L.data(), ranks.data(), n, mtf), "MTF");
        syms.resize(static_cast<size_t>(n) + 64);
        int freq[258] = {};
        const Ozr8u* rp = ranks.data();
        int rl = n, sl = static_cast<int>(syms.size());
        check(ozrsEncodeZ1Z2_BZ2_8u16u(&rp, &rl, syms.data(), &sl, freq), "zero-run coding");
        syms[static_cast<size_t>(sl)] = static_cast<Ozr16u>(nInUse + 1);
        freq[nInUse + 1]++;
        const int nSyms = sl + 1;
        check(ozrsEncodeHuffGetSize_BZ2_16u8u(nSyms, &size), "Huffman size");
        huffMem.resize((static_cast<size_t>(size) + 7) / 8);
        auto* hs = reinterpret_cast<OzrsEncodeHuffState_BZ2*>(huffMem.data());
        check(ozrsEncodeHuffInit_BZ2_16u8u(nInUse + 2, freq, syms.data(), nSyms, hs), "Huffman tables");

        BitSink head;
        head.put48(kBlockMagic);
        head.put32(crc);
        head.put(0, 1);
        head.put(static_cast<uint32_t>(index), 24);
        uint32_t ranges = 0;
        for (int i = 0; i < 16; ++i)
            for (int j = 0; j < 16; ++j)
                if (inUse[i * 16 + j]) ranges |= 0x8000u >> i;
        head.put(ranges, 16);
        for (int i = 0; i < 16; ++i) {
            if (!(ranges & (0x8000u >> i))) continue;
            uint32_t w = 0;
            for (int j = 0; j < 16; ++j)
                if (inUse[i * 16 + j]) w |= 0x8000u >> j;
            head.put(w, 16);
        }
        Buf out = std::move(head.bytes());
        Ozr32u code = head.pendingCode();
        int bits = head.pendingBits();
        const size_t at = out.size();
        out.resize(at + static_cast<size_t>(nSyms) * 3 + 40000);  // 20 bits per symbol at most, plus the tables
        int room = static_cast<int>(out.size() - at);
        check(ozrsPackHuffContext_BZ2_16u8u(&code, &bits, out.data() + at, &room, hs), "table section");
        size_t used = at + static_cast<size_t>(room);
        room = static_cast<int>(out.size() - used);
        const Ozr16u* sp = syms.data();
        int spl = nSyms;
        check(ozrsEncodeHuff_BZ2_16u8u(&code, &bits, &sp, &spl, out.data() + used, &room, hs), "Huffman coding");
        used += static_cast<size_t>(room);
        out.resize(used);
        // The trailing bits ride along as one extra byte with the count in front.
        out.push_back(static_cast<uint8_t>(code >> 24));
        out.push_back(static_cast<uint8_t>(bits));
        return out;
    }
};

struct BlockJob {
    Buf block;
    Ozr8u inUse[256];
    uint32_t crc;
};

}  // namespace

void bzip2CompressStream(Reader& in, Writer& out, int level, int threadCount) {
    if (level < 1 || level > 9) throw ToolError("bzip2: level must be 1..9");
    const int threads = std::max(1, threadCount);
    Pool<Encoder> encoders;
    const int maxBlock = level * 100000 - 19;

    BitSink stream;
    stream.put('B', 8); stream.put('Z', 8); stream.put('h', 8); stream.put('0' + level, 8);
    uint32_t combined = 0;

    int rleSize = 0;
    ozrsRLEGetSize_BZ2_8u(&rleSize);
    std::vector<uint64_t> rleMem((static_cast<size_t>(rleSize) + 7) / 8);
    auto* rle = reinterpret_cast<OzrsRLEState_BZ2*>(rleMem.data());

    Buf input(1 << 20);
    size_t inPos = 0, inEnd = 0;
    bool eof = false;
    std::deque<std::future<Buf>> pending;
    std::vector<std::unique_ptr<Encoder>> idle;
    auto flushOne = [&] {
        Buf bits = pending.front().get();
        pending.pop_front();
        const uint8_t nBits = bits.back();
        const uint8_t last = bits[bits.size() - 2];
        stream.appendBits(bits.data(), bits.size() - 2, static_cast<Ozr32u>(last) << 24, nBits);
        out.write(stream.bytes().data(), stream.bytes().size());
        stream.bytes().clear();
    };

    for (;;) {
        // Fill one block: RLE until the block is full or the input ends.
        BlockJob job;
        job.block.resize(static_cast<size_t>(maxBlock));
        job.crc = 0;
        check(ozrsEncodeRLEInit_BZ2_8u(rle), "RLE init");
        int used = 0;
        bool full = false;
        while (!full) {
            if (inPos == inEnd) {
                if (eof) break;
                inEnd = in.read(input.data(), input.size());
                inPos = 0;
                if (inEnd == 0) { eof = true; break; }
            }
            const Ozr8u* src = input.data() + inPos;
            int srcLen = static_cast<int>(inEnd - inPos);
            int room = maxBlock - 1 - used;  // one byte kept for the flush
            const OzrResult r = ozrsEncodeRLE_BZ2_8u(&src, &srcLen, job.block.data() + used, &room, rle);
            if (r != ozrOk && r != ozrWarnDstSizeLess) check(r, "RLE");
            const size_t consumed = static_cast<size_t>(src - (input.data() + inPos));
            if (consumed) ozrsCRC32_BZ2_8u(input.data() + inPos, static_cast<int>(consumed), &job.crc);
            inPos += consumed;
            used += room;
            if (r == ozrWarnDstSizeLess || used >= maxBlock - 1) full = true;
        }
        int room = 1;
        check(ozrsEncodeRLEFlush_BZ2_8u(job.block.data() + used, &room, rle), "RLE flush");
        used += room;
        if (used == 0) break;
        job.block.resize(static_cast<size_t>(used));
        check(ozrsRLEGetInUseTable_8u(job.inUse, rle), "in-use table");
        combined = (combined << 1 | combined >> 31) ^ job.crc;

        if (static_cast<int>(pending.size()) >= threads) flushOne();
        auto shared = std::make_shared<BlockJob>(std::move(job));
        pending.push_back(std::async(threads > 1 ? std::launch::async : std::launch::deferred, [shared, &encoders] {
            auto enc = encoders.take();
            Buf bits = enc->encode(shared->block, shared->inUse, shared->crc);
            encoders.give(std::move(enc));
            return bits;
        }));
        if (threads == 1) flushOne();
    }
    while (!pending.empty()) flushOne();
    stream.put48(kEndMagic);
    stream.put32(combined);
    stream.align();
    out.write(stream.bytes().data(), stream.bytes().size());
}

namespace {

// ---- Decompression --------------------------------------------------------------------

// Input bits in the library's accumulator convention, refilled from the reader.
class BitSource {
public:
    explicit BitSource(Reader& in) : in_(in), buf_(1 << 16) {}
    // Fetches bytes into the buffer; false at the end of the input.
    bool more() {
        if (pos_ < end_) return true;
        end_ = in_.read(buf_.data(), buf_.size());
        pos_ = 0;
        return end_ > 0;
    }
    uint32_t get(int n) {  // n <= 24
        while (bits_ < n) {
            if (!more()) throw ToolError("bzip2: " + in_.name() + ": unexpected end of file");
            code_ |= static_cast<Ozr32u>(buf_[pos_++]) << (24 - bits_);
            bits_ += 8;
        }
        const uint32_t v = code_ >> (32 - n);
        code_ = n == 32 ? 0 : code_ << n;
        bits_ -= n;
        return v;
    }
    uint32_t get32() { const uint32_t hi = get(16); return hi << 16 | get(16); }
    uint64_t get48() { const uint64_t hi = get(24); return hi << 24 | get(24); }
    void alignToByte() { get(bits_ & 7); }
    // True at the end of the input (with no bits pending).
    bool atEnd() { return bits_ == 0 && !more(); }

    // Runs a library call over the buffered input until it stops asking for more.
    template <class F>
    OzrResult feed(F&& call) {
        for (;;) {
            if (!more()) throw ToolError("bzip2: " + in_.name() + ": unexpected end of file");
            const Ozr8u* src = buf_.data() + pos_;
            int len = static_cast<int>(end_ - pos_);
            const OzrResult r = call(&code_, &bits_, &src, &len);
            pos_ = static_cast<size_t>(src - buf_.data());
            if (r != ozrWarnSrcSizeLess) return r;
        }
    }

private:
    Reader& in_;
    Buf buf_;
    size_t pos_ = 0, end_ = 0;
    Ozr32u code_ = 0;
    int bits_ = 0;
};

// A byte buffer that grows without clearing what it adds (the RLE decoder fills it).
struct RawBytes {
    std::unique_ptr<uint8_t[]> p;
    size_t size = 0, cap = 0;
    void grow(size_t want) {
        if (want <= cap) return;
        std::unique_ptr<uint8_t[]> q(new uint8_t[want]);
        if (size) std::memcpy(q.get(), p.get(), size);
        p = std::move(q);
        cap = want;
    }
    uint8_t* data() { return p.get(); }
};

struct DecodedBlock {
    RawBytes bytes;
    std::string error;
};

struct BlockSpace {
    HugeBuf work;
    Buf block;
};

DecodedBlock finishBlock(const std::vector<Ozr16u>& syms, int nSyms, int origPtr, const Ozr8u* inUse, int nInUse,
                         int maxBlock, uint32_t crc, int blockNo, BlockSpace& space) {
    DecodedBlock d;
    auto fail = [&](const std::string& why) {
        d.error = "bzip2: data error in block " + std::to_string(blockNo) + ": " + why;
        return std::move(d);
    };
    if (nSyms < 1) return fail("empty block");
    if (origPtr >= maxBlock) return fail("origin pointer out of range");
    int size = 0;
    ozrsDecodeBlockGetSize_BZ2_8u(maxBlock, &size);
    space.work.reserve(static_cast<size_t>(size));
    space.block.resize(static_cast<size_t>(maxBlock));
    Buf& block = space.block;
    int len = maxBlock;
    OzrResult r = ozrsDecodeBlock_BZ2_16u8u(syms.data(), nSyms, block.data(), &len, origPtr, nInUse, inUse, space.work.p);
    if (r != ozrOk) return fail("bad block contents (status " + std::to_string(r) + ")");
    int rleSize = 0;
    ozrsRLEGetSize_BZ2_8u(&rleSize);
    std::vector<uint64_t> rleMem((static_cast<size_t>(rleSize) + 7) / 8);
    auto* rle = reinterpret_cast<OzrsRLEState_BZ2*>(rleMem.data());
    ozrsDecodeRLEStateInit_BZ2_8u(rle);
    const Ozr8u* src = block.data();
    int srcLen = len;
    Ozr32u got = 0;
    d.bytes.grow(static_cast<size_t>(len) + (static_cast<size_t>(len) >> 2) + 4096);
    size_t outPos = 0;
    for (;;) {
        if (d.bytes.cap - outPos < 1024) {
            d.bytes.size = outPos;
            d.bytes.grow(d.bytes.cap * 2);
        }
        Ozr8u* dst = d.bytes.data() + outPos;
        int room = static_cast<int>(std::min<size_t>(d.bytes.cap - outPos, 1u << 30));
        const int before = room;
        if (srcLen > 0) r = ozrsDecodeRLEState_BZ2_8u(&src, &srcLen, &dst, &room, rle);
        else r = ozrsDecodeRLEStateFlush_BZ2_8u(rle, &dst, &room);
        outPos += static_cast<size_t>(before - room);
        if (r != ozrOk && r != ozrWarnDstSizeLess) return fail("run-length decoding (status " + std::to_string(r) + ")");
        if (srcLen == 0 && r == ozrOk && before != room) continue;
        if (srcLen == 0 && r == ozrOk) break;
    }
    d.bytes.size = outPos;
    if (outPos) ozrsCRC32_BZ2_8u(d.bytes.data(), static_cast<int>(outPos), &got);
    if (got != crc) return fail("block CRC mismatch");
    return d;
}

}  // namespace

void bzip2DecompressStream(Reader& in, Writer& out, int threadCount) {
    const int threads = std::max(1, threadCount);
    Pool<BlockSpace> spaces;
    BitSource bs(in);
    int hsize = 0;
    ozrsDecodeHuffGetSize_BZ2_8u16u(kMaxSymbols, &hsize);
    std::vector<uint64_t> hmem((static_cast<size_t>(hsize) + 7) / 8);
    auto* hs = reinterpret_cast<OzrsDecodeHuffState_BZ2*>(hmem.data());
    std::deque<std::future<DecodedBlock>> pending;
    auto flushOne = [&] {
        DecodedBlock d = pending.front().get();
        pending.pop_front();
        if (!d.error.empty()) throw ToolError(d.error);
        out.write(d.bytes.data(), d.bytes.size);
    };
    int blockNo = 0;
    bool first = true;
    for (;;) {
        // Stream header.
        if (!first && bs.atEnd()) break;
        const uint32_t magic = bs.get(24);
        if (magic != 0x425A68) {
            if (first) throw ToolError("bzip2: " + in.name() + ": not a bzip2 file");
            std::fprintf(stderr, "ozrdc: bzip2: %s: trailing garbage after the last stream ignored\n", in.name().c_str());
            break;
        }
        const int levelDigit = static_cast<int>(bs.get(8)) - '0';
        if (levelDigit < 1 || levelDigit > 9) throw ToolError("bzip2: " + in.name() + ": bad block size in the header");
        first = false;
        const int maxBlock = levelDigit * 100000;
        uint32_t combined = 0;
        for (;;) {
            const uint64_t m = bs.get48();
            if (m == kEndMagic) {
                const uint32_t want = bs.get32();
                while (!pending.empty()) flushOne();
                if (want != combined) throw ToolError("bzip2: " + in.name() + ": stream CRC mismatch");
                bs.alignToByte();
                break;
            }
            if (m != kBlockMagic) throw ToolError("bzip2: " + in.name() + ": bad block header (block " + std::to_string(blockNo + 1) + ")");
            ++blockNo;
            const uint32_t crc = bs.get32();
            if (bs.get(1)) throw ToolError("bzip2: " + in.name() + ": randomised blocks (bzip2 0.9.0 and older) are not supported");
            const int origPtr = static_cast<int>(bs.get(24));
            Ozr8u inUse[256] = {};
            const uint32_t ranges = bs.get(16);
            int nInUse = 0;
            for (int i = 0; i < 16; ++i) {
                if (!(ranges & (0x8000u >> i))) continue;
                const uint32_t w = bs.get(16);
                for (int j = 0; j < 16; ++j)
                    if (w & (0x8000u >> j)) { inUse[i * 16 + j] = 1; ++nInUse; }
            }
            if (nInUse == 0) throw ToolError("bzip2: data error in block " + std::to_string(blockNo) + ": no byte values in use");
            check(ozrsDecodeHuffInit_BZ2_8u16u(nInUse + 2, hs), "Huffman init");
            OzrResult r = bs.feed([&](Ozr32u* c, int* b, const Ozr8u** s, int* l) -> OzrResult {
                return ozrsUnpackHuffContext_BZ2_8u16u(c, b, s, l, hs);
            });
            if (r != ozrOk) throw ToolError("bzip2: data error in block " + std::to_string(blockNo) + ": bad Huffman tables");
            auto syms = std::make_shared<std::vector<Ozr16u>>(static_cast<size_t>(kMaxSymbols));
            int nSyms = 0;
            r = bs.feed([&](Ozr32u* c, int* b, const Ozr8u** s, int* l) -> OzrResult {
                int room = kMaxSymbols - nSyms;
                if (room < 1) return static_cast<OzrResult>(ozrWarnDstSizeLess);
                const OzrResult rr = ozrsDecodeHuff_BZ2_8u16u(c, b, s, l, syms->data() + nSyms, &room, hs);
                nSyms += room;
                return rr;
            });
            if (r != ozrOk) throw ToolError("bzip2: data error in block " + std::to_string(blockNo) + ": bad Huffman data");
            combined = (combined << 1 | combined >> 31) ^ crc;
            if (static_cast<int>(pending.size()) >= threads) flushOne();
            Ozr8u use[256];
            std::memcpy(use, inUse, 256);
            const int no = blockNo;
            pending.push_back(std::async(threads > 1 ? std::launch::async : std::launch::deferred,
                                         [syms, nSyms, origPtr, use, nInUse, maxBlock, crc, no, &spaces] {
                                             auto space = spaces.take();
                                             DecodedBlock d = finishBlock(*syms, nSyms - 1, origPtr, use, nInUse,
                                                                          maxBlock, crc, no, *space);
                                             spaces.give(std::move(space));
                                             return d;
                                         }));
            if (threads == 1) flushOne();
        }
    }
}

namespace {

const RegisterFormat kRegister(Format{
    "bzip2", ".bz2", "bzip2 streams (blocks of 100-900 kB, BWT + Huffman), read and written with the library's stages",
    [](const unsigned char* h, size_t n) { return n >= 4 && h[0] == 'B' && h[1] == 'Z' && h[2] == 'h' && h[3] >= '1' && h[3] <= '9'; },
    [](Reader& in, Writer& out, const CompressOptions& o) { bzip2CompressStream(in, out, o.level.value_or(9), o.threads); },
    [](Reader& in, Writer& out) { bzip2DecompressStream(in, out, decodeThreads()); }});

}  // namespace
}  // namespace ozrdc_tool
