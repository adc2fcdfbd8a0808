// A raw Deflate (RFC 1951) stream decoder for the tests, built on the library's block
// decoder through the public header only: it parses block headers, copies stored
// blocks, reads the dynamic code-length lists, and calls ozrsInflateBuildHuffTable and
// ozrsInflate_8u for the Huffman-coded data.
//
// The library calls can be fed in pieces (input and output lengths of at most
// `inPiece` / `outPiece` bytes a call), which exercises every resume point of the
// block decoder; the driver's own header parsing reads straight from the whole input.
// With `windowed`, each call decodes into a fresh output piece and earlier output is
// reached through the state's window instead of dstIdx.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "ozrdc.h"

namespace inflate_driver {

enum class Error {
    None,
    Truncated,       // the input ended before the final block did
    BadBlockType,    // block type 3
    BadStoredLength, // LEN and NLEN disagree
    BadCodeLengths,  // the code-length code or the repeat codes are invalid, HLIT > 286, HDIST > 30
    Library,         // the library refused a table or the data (see `status`)
    OutputLimit,     // more output than maxOut
};

struct Options {
    size_t inPiece = 0;   // 0: the whole remaining input in each call
    size_t outPiece = 0;  // 0: all the remaining room in each call
    bool windowed = false;
    size_t maxOut = 0;    // inflateRaw: 0 grows the output as needed
};

struct Outcome {
    Error error = Error::None;
    OzrResult status = ozrOk;  // the library's status when error == Library
    size_t outLen = 0;         // bytes written to the output
    size_t end = 0;            // input bytes up to and including the final block's last byte
    size_t calls = 0;          // ozrsInflate_8u calls made
    size_t blocks[4] = {};     // blocks by table: [0] fixed, [1] long, [2] short, [3] stored
};

struct Result : Outcome {
    std::vector<uint8_t> out;
};

namespace detail {

struct BitSource {
    const uint8_t* src;
    size_t n, pos = 0;
    Ozr32u code = 0, count = 0;
    // Makes at least k (<= 24) bits available; false at the end of the input.
    bool need(unsigned k) {
        while (count < k) {
            if (pos == n) return false;
            code |= Ozr32u{src[pos++]} << count;
            count += 8;
        }
        return true;
    }
    Ozr32u take(unsigned k) {
        const Ozr32u v = k == 0 ? 0 : code & ((Ozr32u{1} << k) - 1);
        code = k == 32 ? 0 : code >> k;
        count -= k;
        return v;
    }
};

// The code-length code (19 symbols, lengths up to 7): one lookup of 7 bits, each entry
// symbol | length << 8 (0: no code).
struct SmallCode {
    Ozr16u table[128] = {};
    bool build(const unsigned* lens, unsigned n) {
        unsigned count[8] = {}, next[8] = {};
        for (unsigned s = 0; s < n; ++s) ++count[lens[s]];
        count[0] = 0;
        int left = 1;
        for (unsigned L = 1; L < 8; ++L) {
            left = left * 2 - static_cast<int>(count[L]);
            if (left < 0) return false;
        }
        if (left != 0) return false;  // the code-length code must be complete
        for (unsigned L = 1, c = 0; L < 8; ++L) next[L] = c = (c + count[L - 1]) << 1;
        for (unsigned s = 0; s < n; ++s) {
            const unsigned L = lens[s];
            if (L == 0) continue;
            unsigned code = next[L]++, rev = 0;
            for (unsigned i = 0; i < L; ++i) rev |= (code >> i & 1) << (L - 1 - i);
            for (unsigned i = rev; i < 128; i += 1u << L) table[i] = static_cast<Ozr16u>(s | L << 8);
        }
        return true;
    }
    // -1 at the end of the input.
    int decode(BitSource& b) const {
        b.need(7);  // as many of the 7 bits as there are
        const unsigned e = table[b.code & 127];
        if ((e >> 8) > b.count) return -1;
        b.take(e >> 8);
        return static_cast<int>(e & 0xFF);
    }
};

}  // namespace detail

// Decodes a raw Deflate stream from src[0, n) into dst[0, cap) with the caller's state
// record (its window fields are overwritten).
inline Outcome inflateInto(const uint8_t* src, size_t n, uint8_t* dst, size_t cap, const Options& opt,
                           OzrInflateState* st) {
    Outcome r;
    detail::BitSource b{src, n};
    auto fail = [&](Error e) {
        r.error = e;
        return r;
    };
    std::vector<uint8_t> piece;
    uint8_t dummy = 0;
    for (;;) {
        if (!b.need(3)) return fail(Error::Truncated);
        const unsigned header = b.take(3);
        const bool last = header & 1;
        const unsigned type = header >> 1;
        if (type == 0) {
            b.take(b.count % 8);
            if (!b.need(16)) return fail(Error::Truncated);
            const unsigned len = b.take(16);
            if (!b.need(16)) return fail(Error::Truncated);
            const unsigned nlen = b.take(16);
            if ((len ^ 0xFFFF) != nlen) return fail(Error::BadStoredLength);
            ++r.blocks[3];
            if (len > cap - r.outLen) return fail(Error::OutputLimit);
            unsigned i = 0;
            for (; i < len && b.count >= 8; ++i) dst[r.outLen++] = static_cast<uint8_t>(b.take(8));
            if (len - i > n - b.pos) return fail(Error::Truncated);
            std::memcpy(dst + r.outLen, src + b.pos, len - i);
            r.outLen += len - i;
            b.pos += len - i;
        } else if (type == 3) {
            return fail(Error::BadBlockType);
        } else {
            if (type == 1) {
                st->tableType = 0;
            } else {
                if (!b.need(14)) return fail(Error::Truncated);
                const unsigned hlit = b.take(5) + 257, hdist = b.take(5) + 1, hclen = b.take(4) + 4;
                if (hlit > 286 || hdist > 30) return fail(Error::BadCodeLengths);
                static const unsigned order[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
                unsigned clens[19] = {};
                for (unsigned i = 0; i < hclen; ++i) {
                    if (!b.need(3)) return fail(Error::Truncated);
                    clens[order[i]] = b.take(3);
                }
                detail::SmallCode cl;
                if (!cl.build(clens, 19)) return fail(Error::BadCodeLengths);
                Ozr16u lens[320] = {};
                for (unsigned i = 0; i < hlit + hdist;) {
                    const int sym = cl.decode(b);
                    if (sym < 0) return fail(sym == -1 ? Error::Truncated : Error::BadCodeLengths);
                    if (sym < 16) {
                        lens[i++] = static_cast<Ozr16u>(sym);
                        continue;
                    }
                    const unsigned bits = sym == 16 ? 2 : sym == 17 ? 3 : 7;
                    if (!b.need(bits)) return fail(Error::Truncated);
                    unsigned rep = b.take(bits) + (sym == 18 ? 11 : 3);
                    Ozr16u val = 0;
                    if (sym == 16) {
                        if (i == 0) return fail(Error::BadCodeLengths);
                        val = lens[i - 1];
                    }
                    if (i + rep > hlit + hdist) return fail(Error::BadCodeLengths);
                    while (rep--) lens[i++] = val;
                }
                if (lens[256] == 0) return fail(Error::BadCodeLengths);
                r.status = ozrsInflateBuildHuffTable(lens, hlit, static_cast<Ozr32s>(hdist), st);
                if (r.status != ozrOk) return fail(Error::Library);
            }
            ++r.blocks[st->tableType & 3];
            // The Huffman-coded data, in pieces.
            OzrInflateMode mode = 0;
            for (;;) {
                size_t inAvail = n - b.pos;
                if (opt.inPiece != 0 && inAvail > opt.inPiece) inAvail = opt.inPiece;
                size_t room = cap - r.outLen;
                if (opt.outPiece != 0 && room > opt.outPiece) room = opt.outPiece;
                const Ozr8u* ip = n == 0 ? &dummy : src + b.pos;
                Ozr32u inLen = static_cast<Ozr32u>(inAvail), outLen = static_cast<Ozr32u>(room);
                Ozr8u* op = dst + r.outLen;
                Ozr32s dstIdx = static_cast<Ozr32s>(r.outLen);
                st->pWindow = nullptr;
                st->winSize = 0;
                if (opt.windowed) {
                    piece.resize(room + 1);  // +1: a valid pointer when room is 0
                    op = piece.data();
                    dstIdx = 0;
                    st->pWindow = dst;
                    st->winSize = static_cast<Ozr32u>(r.outLen);
                }
                if (dst == nullptr && !opt.windowed) op = &dummy;
                Ozr8u* const op0 = op;
                const Ozr8u* const ip0 = ip;
                ++r.calls;
                const OzrResult s = ozrsInflate_8u(&ip, &inLen, &b.code, &b.count, static_cast<Ozr32s>(st->winSize),
                                                   &op, &outLen, dstIdx, &mode, st);
                const size_t wrote = static_cast<size_t>(op - op0);
                if (opt.windowed && wrote) std::memcpy(dst + r.outLen, piece.data(), wrote);
                r.outLen += wrote;
                b.pos += static_cast<size_t>(ip - ip0);
                if (s != ozrOk) {
                    r.status = s;
                    return fail(Error::Library);
                }
                if (mode == 0) break;
                // Stopped: a literal or match waits for room (steps 5 and 6), or else the
                // input piece was used up.
                const bool waitsForRoom = mode == 2 && (st->savedStep == 5 || st->savedStep == 6);
                if (waitsForRoom && r.outLen == cap) return fail(Error::OutputLimit);
                if (!waitsForRoom && b.pos == n) return fail(Error::Truncated);
            }
        }
        if (last) break;
    }
    r.end = b.pos - b.count / 8;
    return r;
}

// Decodes a raw Deflate stream from src[0, n) into a vector: at most opt.maxOut bytes,
// or (maxOut 0) as many as the stream holds.
inline Result inflateRaw(const uint8_t* src, size_t n, const Options& opt = {}) {
    std::unique_ptr<OzrInflateState> st(new OzrInflateState());
    size_t cap = opt.maxOut != 0 ? opt.maxOut : 4 * n + 4096;
    for (;;) {
        Result r;
        r.out.resize(cap);
        static_cast<Outcome&>(r) = inflateInto(src, n, r.out.data(), cap, opt, st.get());
        if (r.error == Error::OutputLimit && opt.maxOut == 0) {
            cap *= 4;
            continue;
        }
        r.out.resize(r.outLen);
        return r;
    }
}

inline Result inflateRaw(const std::vector<uint8_t>& src, const Options& opt = {}) {
    return inflateRaw(src.data(), src.size(), opt);
}

}  // namespace inflate_driver
