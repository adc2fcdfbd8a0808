// The Deflate containers: gzip (.gz, RFC 1952), zlib (.zz, RFC 1950) and raw Deflate
// (.deflate, RFC 1951). Writing is in deflate_stream.cpp.
//
// Reading streams with bounded memory: a 64 KiB input buffer and an output buffer of
// the 32 KiB window plus 256 KiB. Blocks are parsed here (headers, stored blocks,
// dynamic code lengths) and their Huffman-coded data is decoded by the library's
// block decoder into the output buffer, whose first 32 KiB hold the history that
// matches reach back into (handed over as bytes before the write position); when the
// buffer fills, the new bytes are checked and written and the last 32 KiB move to the
// front. gzip: any number of members, FEXTRA / FNAME / FCOMMENT / FHCRC, CRC-32 and
// ISIZE checked; zero bytes after the last member (tar-style padding) are ignored.
// zlib: Adler-32 checked; a preset dictionary is refused.
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "codec.h"
#include "deflate_stream.h"
#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

constexpr size_t kWindow = 32 * 1024;
constexpr size_t kOutChunk = 256 * 1024;
constexpr size_t kInBuffer = 64 * 1024;

// Raw Deflate decoding from a Reader; the decoded bytes go to `sink` in pieces.
class DeflateReader {
public:
    using Sink = std::function<void(const uint8_t*, size_t)>;
    DeflateReader(Reader& in, std::string what)
        : in_(in), what_(std::move(what)), inBuf_(kInBuffer), out_(kWindow + kOutChunk), st_(new OzrInflateState()) {}

    // Decodes one Deflate stream to its final block; the bits after it up to the next
    // byte boundary are dropped.
    void inflateStream(const Sink& sink) {
        sink_ = &sink;
        for (bool last = false; !last;) {
            const unsigned header = bits(3);
            last = header & 1;
            switch (header >> 1) {
                case 0: storedBlock(); break;
                case 1: st_->tableType = 0; huffmanBlock(); break;
                case 2: dynamicHeader(); huffmanBlock(); break;
                default: corrupt("invalid block type");
            }
        }
        flush();
        count_ -= count_ % 8;
        sink_ = nullptr;
    }

    // Reads n bytes at a byte boundary (after inflateStream): first what the bit buffer
    // holds, then the input. Returns fewer only at the end of the input.
    size_t readBytes(uint8_t* dst, size_t n) {
        size_t got = 0;
        while (got < n && count_ >= 8) dst[got++] = static_cast<uint8_t>(take(8));
        while (got < n) {
            if (inPos_ == inEnd_ && !fill()) break;
            const size_t k = std::min(n - got, inEnd_ - inPos_);
            std::memcpy(dst + got, inBuf_.data() + inPos_, k);
            inPos_ += k;
            got += k;
        }
        return got;
    }
    void readExact(uint8_t* dst, size_t n, const char* what) {
        if (readBytes(dst, n) != n) throw ToolError(in_.name() + ": truncated input (" + what + ")");
    }
    bool atEnd() { return count_ == 0 && inPos_ == inEnd_ && !fill(); }

    [[noreturn]] void corrupt(const std::string& why) {
        throw ToolError(in_.name() + ": corrupt " + what_ + " data (" + why + ")");
    }

private:
    // Appends input after what is unread; false at the end of the input.
    bool fill() {
        if (inPos_ != 0) {
            std::memmove(inBuf_.data(), inBuf_.data() + inPos_, inEnd_ - inPos_);
            inEnd_ -= inPos_;
            inPos_ = 0;
        }
        const size_t got = in_.read(inBuf_.data() + inEnd_, inBuf_.size() - inEnd_);
        inEnd_ += got;
        return got != 0;
    }
    [[noreturn]] void truncated() { throw ToolError(in_.name() + ": truncated " + what_ + " data"); }

    unsigned take(unsigned k) {
        const unsigned v = code_ & ((1u << k) - 1);
        code_ >>= k;
        count_ -= k;
        return v;
    }
    // The next k (<= 16) bits of the stream.
    unsigned bits(unsigned k) {
        while (count_ < k) {
            if (inPos_ == inEnd_ && !fill()) truncated();
            code_ |= Ozr32u{inBuf_[inPos_++]} << count_;
            count_ += 8;
        }
        return take(k);
    }

    // Hands the new output to the sink and keeps the last 32 KiB as history.
    void flush() {
        if (outPos_ > outDone_) (*sink_)(out_.data() + outDone_, outPos_ - outDone_);
        outDone_ = outPos_;
    }
    void makeRoom() {
        flush();
        if (outPos_ < out_.size()) return;
        std::memmove(out_.data(), out_.data() + outPos_ - kWindow, kWindow);
        outPos_ = outDone_ = kWindow;
    }

    void storedBlock() {
        take(count_ % 8);
        const unsigned len = bits(16), nlen = bits(16);
        if ((len ^ 0xFFFF) != nlen) corrupt("stored block length check");
        for (unsigned left = len; left > 0;) {
            if (outPos_ == out_.size()) makeRoom();
            size_t k = std::min<size_t>(left, out_.size() - outPos_);
            const size_t got = readBytes(out_.data() + outPos_, k);
            outPos_ += got;
            left -= static_cast<unsigned>(got);
            if (got < k) truncated();
        }
    }

    void dynamicHeader() {
        const unsigned hlit = bits(5) + 257, hdist = bits(5) + 1, hclen = bits(4) + 4;
        if (hlit > 286 || hdist > 30) corrupt("too many length or distance codes");
        static const unsigned char order[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
        Ozr16u clens[19] = {};
        for (unsigned i = 0; i < hclen; ++i) clens[order[i]] = static_cast<Ozr16u>(bits(3));
        // The code-length code (lengths up to 7) must be complete; it is decoded bit by
        // bit in canonical order.
        Ozr32u clCount[8] = {};
        for (Ozr16u l : clens) ++clCount[l];
        int left = 1;
        for (unsigned L = 1; L < 8; ++L) left = 2 * left - static_cast<int>(clCount[L]);
        if (left != 0) corrupt("invalid code-length code");
        Ozr16u lens[320] = {};
        unsigned firstCode[8] = {}, firstIndex[8] = {}, sorted[19] = {};
        {
            unsigned idx = 0;
            for (unsigned L = 1; L < 8; ++L) {
                firstIndex[L] = idx;
                for (unsigned s = 0; s < 19; ++s)
                    if (clens[s] == L) sorted[idx++] = s;
            }
            unsigned c = 0;
            for (unsigned L = 1; L < 8; ++L) {
                c = (c + clCount[L - 1] * (L > 1)) << 1;
                firstCode[L] = c;
            }
        }
        auto symbol = [&]() -> unsigned {
            unsigned c = 0;
            for (unsigned L = 1; L < 8; ++L) {
                c = c << 1 | bits(1);
                if (c - firstCode[L] < clCount[L]) return sorted[firstIndex[L] + c - firstCode[L]];
            }
            corrupt("invalid code-length code");
        };
        for (unsigned i = 0; i < hlit + hdist;) {
            const unsigned sym = symbol();
            if (sym < 16) {
                lens[i++] = static_cast<Ozr16u>(sym);
                continue;
            }
            Ozr16u val = 0;
            unsigned rep;
            if (sym == 16) {
                if (i == 0) corrupt("repeat of no code length");
                val = lens[i - 1];
                rep = 3 + bits(2);
            } else {
                rep = sym == 17 ? 3 + bits(3) : 11 + bits(7);
            }
            if (i + rep > hlit + hdist) corrupt("code lengths run past their count");
            while (rep--) lens[i++] = val;
        }
        if (lens[256] == 0) corrupt("no end-of-block code");
        if (ozrsInflateBuildHuffTable(lens, hlit, static_cast<Ozr32s>(hdist), st_.get()) != ozrOk)
            corrupt("invalid Huffman code lengths");
    }

    void huffmanBlock() {
        OzrInflateMode mode = 0;
        for (;;) {
            if (outPos_ == out_.size()) makeRoom();
            const Ozr8u* ip = inBuf_.data() + inPos_;
            Ozr32u inLen = static_cast<Ozr32u>(inEnd_ - inPos_);
            Ozr8u* op = out_.data() + outPos_;
            Ozr32u outLen = static_cast<Ozr32u>(out_.size() - outPos_);
            const OzrResult s = ozrsInflate_8u(&ip, &inLen, &code_, &count_, 0, &op, &outLen,
                                               static_cast<Ozr32s>(outPos_), &mode, st_.get());
            inPos_ = static_cast<size_t>(ip - inBuf_.data());
            outPos_ = static_cast<size_t>(op - out_.data());
            if (s != ozrOk) corrupt("invalid code or distance");
            if (mode == 0) return;
            const bool waitsForRoom = mode == 2 && (st_->savedStep == 5 || st_->savedStep == 6);
            if (waitsForRoom) makeRoom();
            else if (!fill()) truncated();
        }
    }

    Reader& in_;
    std::string what_;
    std::vector<uint8_t> inBuf_;
    size_t inPos_ = 0, inEnd_ = 0;
    std::vector<uint8_t> out_;
    size_t outPos_ = 0, outDone_ = 0;
    std::unique_ptr<OzrInflateState> st_;
    Ozr32u code_ = 0, count_ = 0;
    const Sink* sink_ = nullptr;
};

void crc32Update(Ozr32u& crc, const uint8_t* p, size_t n) {
    while (n > 0) {
        const size_t k = std::min<size_t>(n, size_t{1} << 30);
        ozrsCRC32_8u(p, static_cast<Ozr32s>(k), &crc);
        p += k, n -= k;
    }
}

// ---- gzip -------------------------------------------------------------------------------

bool detectGzip(const unsigned char* h, size_t n) { return n >= 2 && h[0] == 0x1F && h[1] == 0x8B; }

void decompressGzip(Reader& in, Writer& out) {
    DeflateReader d(in, "gzip");
    for (int member = 0;; ++member) {
        uint8_t h[10];
        if (member > 0) {
            // After a member: another one, zero padding, or the end.
            const size_t got = d.readBytes(h, 1);
            if (got == 0) return;
            if (h[0] == 0) {
                while (d.readBytes(h, 1) == 1)
                    if (h[0] != 0) d.corrupt("trailing data after the last member");
                return;
            }
            if (h[0] != 0x1F || d.readBytes(h + 1, 1) != 1 || h[1] != 0x8B)
                d.corrupt("trailing data after the last member");
            d.readExact(h + 2, 8, "member header");
        } else {
            d.readExact(h, 10, "header");
        }
        if (h[0] != 0x1F || h[1] != 0x8B) d.corrupt("trailing data after the last member");
        if (h[2] != 8) d.corrupt("compression method " + std::to_string(h[2]) + " is not Deflate");
        const unsigned flags = h[3];
        if (flags & 0xE0) d.corrupt("reserved header flags set");
        Ozr32u hcrc = 0;
        crc32Update(hcrc, h, 10);
        if (flags & 0x04) {  // FEXTRA
            uint8_t xlen[2];
            d.readExact(xlen, 2, "extra field length");
            crc32Update(hcrc, xlen, 2);
            std::vector<uint8_t> extra(xlen[0] | xlen[1] << 8);
            d.readExact(extra.data(), extra.size(), "extra field");
            crc32Update(hcrc, extra.data(), extra.size());
        }
        for (unsigned f : {0x08u, 0x10u}) {  // FNAME, FCOMMENT: zero-terminated
            if (!(flags & f)) continue;
            uint8_t c = 0;
            do {
                d.readExact(&c, 1, f == 0x08 ? "file name" : "comment");
                crc32Update(hcrc, &c, 1);
            } while (c != 0);
        }
        if (flags & 0x02) {  // FHCRC
            uint8_t v[2];
            d.readExact(v, 2, "header CRC");
            if (static_cast<Ozr32u>(v[0] | v[1] << 8) != (hcrc & 0xFFFF)) d.corrupt("header CRC mismatch");
        }
        Ozr32u crc = 0;
        uint64_t size = 0;
        d.inflateStream([&](const uint8_t* p, size_t n) {
            crc32Update(crc, p, n);
            size += n;
            out.write(p, n);
        });
        uint8_t t[8];
        d.readExact(t, 8, "member trailer");
        if (getLE32(t) != crc) d.corrupt("CRC-32 mismatch");
        if (getLE32(t + 4) != static_cast<uint32_t>(size)) d.corrupt("length mismatch");
    }
}

// ---- zlib -------------------------------------------------------------------------------

bool detectZlib(const unsigned char* h, size_t n) {
    return n >= 2 && (h[0] & 0x0F) == 8 && (h[0] >> 4) <= 7 && ((h[0] << 8) | h[1]) % 31 == 0;
}

void decompressZlib(Reader& in, Writer& out) {
    DeflateReader d(in, "zlib");
    uint8_t h[2];
    d.readExact(h, 2, "header");
    if (!detectZlib(h, 2)) d.corrupt("invalid header");
    if (h[1] & 0x20) throw ToolError(in.name() + ": zlib streams with a preset dictionary are not supported");
    Ozr32u adler = 1;
    d.inflateStream([&](const uint8_t* p, size_t n) {
        out.write(p, n);
        for (size_t k; n > 0; p += k, n -= k) {
            k = std::min<size_t>(n, size_t{1} << 30);
            ozrsAdler32_8u(p, static_cast<Ozr32s>(k), &adler);
        }
    });
    uint8_t t[4];
    d.readExact(t, 4, "Adler-32");
    if (getBE32(t) != adler) d.corrupt("Adler-32 mismatch");
    if (!d.atEnd()) d.corrupt("trailing data after the stream");
}

// ---- raw Deflate ------------------------------------------------------------------------

void decompressRaw(Reader& in, Writer& out) {
    DeflateReader d(in, "Deflate");
    d.inflateStream([&](const uint8_t* p, size_t n) { out.write(p, n); });
    if (!d.atEnd()) d.corrupt("trailing data after the final block");
}

const RegisterFormat kGzip{Format{"gzip", ".gz", "gzip (RFC 1952; any number of members)", detectGzip, compressGzip,
                                  decompressGzip}};
const RegisterFormat kZlib{Format{"zlib", ".zz", "zlib (RFC 1950)", detectZlib, compressZlib, decompressZlib}};
const RegisterFormat kDeflate{Format{"deflate", ".deflate", "raw Deflate (RFC 1951)",
                                     [](const unsigned char*, size_t) { return false; }, compressDeflateRaw,
                                     decompressRaw}};

}  // namespace
}  // namespace ozrdc_tool
