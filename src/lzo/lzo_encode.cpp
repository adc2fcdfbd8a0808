// LZO1X encoding: the default single-probe coder, the fast segmented coder and the
// multi-part container, over one instruction writer.
//
// Instruction choice (the decoder's forms, see lzo_decode.cpp):
//   literal run   first run of a stream, 1..238 bytes: 17 + length (a run of exactly 68
//                 takes the long form, so that no stream starts with the container's
//                 0x55 byte); after a match, 1..3: in the low two bits of the match's
//                 distance byte; 4..18: length - 3; longer: 0, then length - 18 as
//                 zero bytes worth 255 each and a closing nonzero byte;
//   match         lengths 3..8 within 2048 bytes: M2 (2 bytes); within 16384: M3;
//                 beyond (up to 49151): M4, with bit 14 of distance - 16384 in bit 3;
//                 M3 lengths above 33 and M4 lengths above 9 extend like long runs.
// Every write is preceded by a room check unless the output room is at least the worst
// case of the whole input (then the checks are compiled out).
#include <emmintrin.h>

#include "hash_rows.h"
#include "lzo_internal.h"
#include "unaligned.h"

namespace m7 {
namespace {

constexpr size_t kDictEntries = 16384;
constexpr size_t kMaxDistance = 0xBFFF;    // 49151: M4's reach
constexpr size_t kM2MaxDistance = 2048;
constexpr size_t kM3MaxDistance = 16384;
constexpr size_t kSearchTail = 13;         // no match search in the last 13 bytes
constexpr size_t kAllLiteralsUpTo = 17;    // inputs this short are one literal run
constexpr size_t kSegment = 0xC000;        // fast coder: 49152, so distances stay <= 49151
constexpr size_t kFastTail = 20;           // fast coder: no search in a segment's last 20 bytes
constexpr Ozr32u kFastMultiplier = 0x1824429D;
constexpr size_t kStateHeader = 32;        // method word, part count, reserved
constexpr Ozr32u kStateSize = Ozr32u(kStateHeader + kDictEntries * sizeof(Ozr64u));  // 131104

static_assert(sizeof(OzrLZOState) == kStateSize, "OzrLZOState layout");
static_assert(kSegment - 1 == kMaxDistance, "a segment's distances fit M4");

// randVec: the default coder's hash rows, four rows of 256 16-bit values, one row per
// byte of the hashed word. Only their spread matters (the decoder never sees them), so
// they are fixed hash rows (top 16 bits of a SplitMix64 sequence from a fixed seed).
constexpr auto randVec = m7::makeHashRows<Ozr16u, 4, 16>(0x4C5A4F31u);

inline size_t hashDefault(const Ozr8u* p) {
    return (randVec.v[p[0]] ^ randVec.v[256 + p[1]] ^ randVec.v[512 + p[2]] ^ randVec.v[768 + p[3]]) & 0x3FFF;
}
// Fast coder: multiplicative hash of the 32-bit little-endian word, top 14 bits.
inline size_t hashFast(Ozr32u w) { return Ozr32u(w * kFastMultiplier) >> 18; }
inline size_t secondarySlot(size_t h) { return (h & 0x7FF) ^ 0x201F; }

inline void copy16(Ozr8u* d, const Ozr8u* s) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
}

// Worst-case output for n input bytes, end marker included: literal-run headers cost
// at most one byte in 16 beyond what the matches save.
inline size_t worstCase(size_t n) { return n + n / 16 + 64 + 3; }

// Number of bytes that match from a and b onwards, stopping at bEnd (b < bEnd, a < b).
inline size_t matchLength(const Ozr8u* a, const Ozr8u* b, const Ozr8u* bEnd) {
    const Ozr8u* const b0 = b;
    while (b + 8 <= bEnd) {
        Ozr64u x = load64(a) ^ load64(b);
        if (x != 0) return size_t(b - b0) + size_t(m7::trailingZeros64(x) >> 3);
        a += 8;
        b += 8;
    }
    while (b < bEnd && *a == *b) ++a, ++b;
    return size_t(b - b0);
}

// Short match forms, by distance class (0: distance - 1 below 2048, 1: below 16384,
// 2: beyond) and length 3..34: byte 0 the code byte with the length, byte 1 the shift
// that places the distance field, byte 2 the mask of the distance's low bits kept in
// the code byte (M2 only), byte 3 the instruction's size.
struct FormRows {
    Ozr32u v[3 * 32];
};
constexpr FormRows makeMatchForms() {
    FormRows r{};
    for (Ozr32u cls = 0; cls < 3; ++cls)
        for (Ozr32u len = 3; len < 35; ++len) {
            Ozr32u f;
            if (cls == 0 && len <= 8)
                f = ((len - 1) << 5) | (5u << 8) | (0x1Cu << 16) | (2u << 24);
            else if (cls < 2)
                f = (32 | (len - 2)) | (10u << 8) | (3u << 24);
            else
                f = (16 | ((len - 2) & 7)) | (10u << 8) | (3u << 24);
            r.v[cls * 32 + len - 3] = f;
        }
    return r;
}
constexpr FormRows kMatchForms = makeMatchForms();
struct ClassRow {
    Ozr8u v[24];
};
constexpr ClassRow makeDistClass() {
    ClassRow r{};
    for (int k = 0; k < 24; ++k) r.v[k] = Ozr8u(k == 0 ? 0 : k < 8 ? 1 : 2);
    return r;
}
constexpr ClassRow kDistClass = makeDistClass();

// Writes instructions into [start, end). Bounded: every instruction is checked for room
// before its first byte is written, and a write that does not fit fails with nothing of
// it written. Unbounded: the caller made sure the room covers the worst case.
template <bool Bounded>
class Writer {
public:
    Writer(Ozr8u* start, size_t cap)
        : op_(start), start_(start), end_(start + cap), fastSpan_(cap > 41 ? cap - 41 : 0) {}
    size_t written() const { return size_t(op_ - start_); }

    // A literal run of len >= 0 bytes from p; inEnd bounds the source for wide copies.
    __attribute__((always_inline)) bool literals(const Ozr8u* p, size_t len, const Ozr8u* inEnd) {
        // Hot case, a short run after a match with room for whole 16-byte moves on both
        // sides: no branch on the run's form. A run of 1..3 goes into the low bits of the
        // match's distance byte (the header byte written at op is then overwritten by
        // the literals), 4..18 takes a header byte of len - 3.
        if (__builtin_expect(op_ != start_, 1) && len <= 18 && size_t(end_ - op_) >= 40 &&
            size_t(inEnd - p) >= len + 16) {
            const bool inDistance = len <= 3;
            op_[-2] = Ozr8u(countByte_ | (inDistance ? len : 0));
            op_[0] = Ozr8u(len - 3);
            op_ += inDistance ? 0 : 1;
            copy16(op_, p);
            if (len > 16) copy16(op_ + 16, p + 16);
            op_ += len;
            return true;
        }
        if (len == 0) return true;
        if (op_ == start_) {
            if (len <= 238 && len != 68) {
                if (!room(1 + len)) return false;
                *op_++ = Ozr8u(17 + len);
            } else if (!longRun(len)) {
                return false;
            }
        } else if (len <= 3) {
            if (!room(len)) return false;
            op_[-2] = Ozr8u(countByte_ | len);
        } else if (len <= 18) {
            if (!room(1 + len)) return false;
            *op_++ = Ozr8u(len - 3);
        } else if (!longRun(len)) {
            return false;
        }
        copy(p, len, inEnd);
        return true;
    }

    // A match of len >= 3 bytes at distance 1..49151 (len >= 4 beyond 2048).
    __attribute__((always_inline)) bool match(size_t len, size_t dist) {
        const size_t d1 = dist - 1;
        const bool far = dist > kM3MaxDistance;
        const size_t shortMax = far ? 9 : 33;
        if (__builtin_expect(len <= shortMax, 1) && size_t(end_ - op_) >= 4) {
            // Both forms are built and one is picked without a branch: M2 (2 bytes:
            // length - 1 and the low 3 distance bits, then distance >> 3) or M3/M4 (the
            // code byte with length - 2, then the 14 distance bits shifted left by 2 as a
            // little-endian word). One 4-byte store; the extra bytes are overwritten by
            // the next instruction (room for 4 is checked).
            const Ozr32u m2 = Ozr32u(((len - 1) << 5) | ((d1 & 7) << 2) | ((d1 >> 3) << 8));
            const size_t d = far ? dist - kM3MaxDistance : d1;
            const Ozr32u code = far ? Ozr32u(16 | ((d & 0x4000) >> 11)) : 32u;
            const Ozr32u m34 = Ozr32u(code | (len - 2) | ((d & 0x3FFF) << 10));
            const bool short2 = len <= 8 && dist <= kM2MaxDistance;
            const Ozr32u v = short2 ? m2 : m34;
            store32(op_, v);
            countByte_ = Ozr8u(short2 ? v : v >> 8);
            op_ += short2 ? 2 : 3;
            return true;
        }
        if (len <= 8 && dist <= kM2MaxDistance) {
            if (!room(2)) return false;
            op_[0] = countByte_ = Ozr8u(((len - 1) << 5) | ((d1 & 7) << 2));
            op_[1] = Ozr8u(d1 >> 3);
            op_ += 2;
            return true;
        }
        size_t d;
        Ozr8u code;
        if (!far) {
            d = d1;
            code = 32;
        } else {
            d = dist - kM3MaxDistance;
            code = Ozr8u(16 | ((d & 0x4000) >> 11));
            d &= 0x3FFF;
        }
        if (len <= shortMax) {
            if (!room(3)) return false;
            *op_++ = Ozr8u(code | (len - 2));
        } else {
            size_t rest = len - shortMax;
            if (!room(4 + (rest - 1) / 255)) return false;
            *op_++ = code;
            extension(rest);
        }
        op_[0] = countByte_ = Ozr8u(d << 2);
        op_[1] = Ozr8u(d >> 6);
        op_ += 2;
        return true;
    }

    // A literal run of lit >= 0 bytes from p followed by a match (as `match`). The
    // common case (not the stream's first run, a run of at most 18, a match in its
    // short form, room for 41 bytes behind op_ and 32 readable bytes at p, which the
    // caller may vouch for with InputSlack) is written here in one piece, with whole
    // 16-byte literal moves and no branch on the run's or the match's form.
    template <bool InputSlack = false>
    __attribute__((always_inline)) bool runAndMatch(const Ozr8u* p, size_t lit, size_t len, size_t dist,
                                                    const Ozr8u* inEnd) {
        const size_t shortMax = dist <= kM3MaxDistance ? 33 : 9;
        if (__builtin_expect(size_t(op_ - start_ - 1) < fastSpan_ && lit <= 18 &&
                                 (InputSlack || size_t(inEnd - p) >= 32) && len <= shortMax,
                             1)) {
            const size_t inDistance = size_t(0) - size_t(lit <= 3);  // all ones or zero
            Ozr8u* op = op_;
            op[-2] = Ozr8u(countByte_ | (lit & inDistance));
            op[0] = Ozr8u(lit - 3);
            op += 1 + inDistance;
            copy16(op, p);
            if (lit > 16) copy16(op + 16, p + 16);
            op += lit;
            // The match's form without a branch (which form comes next depends on the
            // data and was mispredicted about once in three matches): the distance
            // class picks a row of kMatchForms, the length its entry.
            const size_t d1 = dist - 1;
            const size_t cls = kDistClass.v[d1 >> 11];
            const Ozr32u f = kMatchForms.v[cls * 32 + len - 3];
            const Ozr32u e = Ozr32u((d1 + (cls >> 1)) & 0x3FFF);
            const Ozr32u v = (f & 0xFF) | ((e << ((f >> 8) & 31)) & 0xFFFF00) | ((e << 2) & (f >> 16) & 0x1C) |
                             Ozr32u((dist >> 12) & 8);
            store32(op, v);
            const size_t size = f >> 24;
            countByte_ = Ozr8u(v >> ((size - 2) * 8));
            op += size;
            op_ = op;
            return true;
        }
        return literals(p, lit, inEnd) && match(len, dist);
    }

    bool endMarker() {
        if (size_t(end_ - op_) < 3) return false;  // checked in every mode
        op_[0] = 17;
        op_[1] = 0;
        op_[2] = 0;
        op_ += 3;
        return true;
    }

private:
    bool room(size_t n) const { return !Bounded || size_t(end_ - op_) >= n; }

    // 0, then len - 18 (>= 1) as an extension.
    bool longRun(size_t len) {
        size_t rest = len - 18;
        if (!room(2 + (rest - 1) / 255 + len)) return false;
        *op_++ = 0;
        extension(rest);
        return true;
    }

    // rest >= 1 as zero bytes of 255 each and a closing byte 1..255; long ones eight
    // zero bytes at a time.
    void extension(size_t rest) {
        while (rest > 8 * 255) {
            store64(op_, 0);
            op_ += 8;
            rest -= 8 * 255;
        }
        while (rest > 255) {
            *op_++ = 0;
            rest -= 255;
        }
        *op_++ = Ozr8u(rest);
    }

    void copy(const Ozr8u* p, size_t len, const Ozr8u* inEnd) {
        if (size_t(end_ - op_) >= len + 16 && size_t(inEnd - p) >= len + 16) {
            Ozr8u* d = op_;
            Ozr8u* const e = op_ + len;
            do {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
                d += 16;
                p += 16;
            } while (d < e);
        } else {
            m7_ownsCopy_8u(p, op_, len);
        }
        op_ += len;
    }

    Ozr8u* op_;
    Ozr8u* const start_;
    Ozr8u* const end_;
    // The byte that carries the count of the literals after the last match (op_[-2]
    // right behind it), kept so that a following short run is one store, not a
    // read-modify-write of memory just written.
    Ozr8u countByte_ = 0;
    const size_t fastSpan_;  // runAndMatch's fast path: 1 <= op_ - start_ <= cap - 41
};

// The default coder over one stream (no end marker). The dictionary holds, per hash,
// the input position (offset from `in`) last seen; it is reset first, so that equal
// inputs give equal outputs and no stale position from another buffer is offered.
template <bool Bounded>
bool encodeDefault(const Ozr8u* const in, size_t n, Writer<Bounded>& out, Ozr64u* dict) {
    const Ozr8u* const inEnd = in + n;
    const Ozr8u* ii = in;  // first pending literal
    if (n > kAllLiteralsUpTo) {
        m7_ownsZero_8u(reinterpret_cast<Ozr8u*>(dict), kDictEntries * sizeof(Ozr64u));
        const Ozr8u* const ipEnd = inEnd - kSearchTail;
        const Ozr8u* ip = in + 1;  // the first byte is always a literal
        while (ip < ipEnd) {
            const size_t p = size_t(ip - in);
            const size_t h = hashDefault(ip);
            size_t slot = h;
            size_t c = size_t(dict[slot]);
            size_t dist = p - c;
            bool found = c < p && dist <= kMaxDistance;
            // A far candidate must also agree in its fourth byte; if not, the secondary
            // slot gets the same tests.
            if (found && dist > kM2MaxDistance && in[c + 3] != ip[3]) {
                slot = secondarySlot(h);
                c = size_t(dict[slot]);
                dist = p - c;
                found = c < p && dist <= kMaxDistance && (dist <= kM2MaxDistance || in[c + 3] == ip[3]);
            }
            dict[slot] = p;
            if (found) {
                const Ozr32u x = load32(in + c) ^ load32(ip);
                size_t len = 0;
                if (x == 0)
                    len = 4 + matchLength(in + c + 4, ip + 4, inEnd);
                else if ((x & 0xFFFFFF) == 0)
                    len = 3;  // only at M2 distances: far candidates agree in 4 bytes
                if (len != 0) {
                    if (!out.runAndMatch(ii, size_t(ip - ii), len, dist, inEnd)) return false;
                    ip += len;
                    ii = ip;
                    continue;
                }
            }
            ++ip;
        }
    }
    return ii == inEnd || out.literals(ii, size_t(inEnd - ii), inEnd);
}

// Clears the fast coder's table (16384 16-bit entries) with 16-byte stores, four per
// round.
inline void clearTable(Ozr16u* table) {
    const __m128i z = _mm_setzero_si128();
    auto* t = reinterpret_cast<__m128i*>(table);
    for (size_t k = 0; k < kDictEntries * sizeof(Ozr16u) / 16; k += 4) {
        _mm_storeu_si128(t + k, z);
        _mm_storeu_si128(t + k + 1, z);
        _mm_storeu_si128(t + k + 2, z);
        _mm_storeu_si128(t + k + 3, z);
    }
}

// The fast coder over one stream (no end marker): 49152-byte segments, each with a
// fresh table of 16-bit positions relative to the segment start (the first 32 KiB of
// the dictionary area), a multiplicative hash of the 32-bit word, and a step that grows
// with every miss since the last match.
//
// Positions are indices into the segment, so a table entry is used and stored as it
// stands. While the step is still 1 (fewer than 32 misses since the last match) two
// positions are probed per round, in order: the second reads the table after the first
// wrote it, so equal hashes find the first position as a sequential probe would; when
// the first position matches, the second's entry is put back to what it held, as if it
// had never been probed. The position right behind a match is probed before that
// match's instructions are written, and its 4-byte word is taken from the words the
// match length was measured with: the table and candidate loads of the next probe then
// overlap the writing instead of following it.
template <bool Bounded>
bool encodeFast(const Ozr8u* const in, size_t n, Writer<Bounded>& out, Ozr16u* table) {
    const Ozr8u* const inEnd = in + n;
    const Ozr8u* ii = in;
    for (size_t seg = 0; n - seg > kFastTail; seg += kSegment) {
        const Ozr8u* const base = in + seg;
        const size_t segLen = n - seg > kSegment ? kSegment : n - seg;
        const size_t limit = segLen - kFastTail;
        clearTable(table);
        // The segment's first position finds only itself (every entry is 0): a miss
        // whose table store changes nothing. From here on every entry names an earlier
        // position, so a candidate never needs a distance test.
        size_t i = 1;
        size_t missed = 1;
        for (;;) {
            size_t at, cand;
            // Two positions per round while both are probed with step 1, i.e. while
            // missed <= 30; i - missed is constant meanwhile.
            const size_t pairEnd = i - missed + 31 < limit - 1 ? i - missed + 31 : limit - 1;
            while (i < pairEnd) {
                const Ozr64u w8 = load64(base + i);
                const Ozr32u w0 = Ozr32u(w8), w1 = Ozr32u(w8 >> 8);
                const size_t h0 = hashFast(w0), h1 = hashFast(w1);
                const size_t c0 = table[h0];
                table[h0] = Ozr16u(i);
                const size_t c1 = table[h1];
                table[h1] = Ozr16u(i + 1);
                if (load32(base + c0) == w0) {
                    table[h1] = Ozr16u(c1);
                    at = i;
                    cand = c0;
                    goto found;
                }
                if (load32(base + c1) == w1) {
                    at = i + 1;
                    cand = c1;
                    goto found;
                }
                i += 2;
                missed += 2;
            }
            // One position per round, with the growing step.
            for (;;) {
                if (i >= limit) goto segmentDone;
                const Ozr32u w = load32(base + i);
                const size_t h = hashFast(w);
                const size_t c = table[h];
                table[h] = Ozr16u(i);
                if (load32(base + c) == w) {
                    at = i;
                    cand = c;
                    goto found;
                }
                const size_t step = (missed >> 5) + 1;
                missed += step;
                i += step;
            }
        found:
            for (;;) {
                // The match at `at`; its first four bytes agree with the candidate's.
                const Ozr8u* const ip = base + at;
                const Ozr64u v1 = load64(ip + 4), v2 = load64(ip + 8);
                const Ozr64u x = load64(base + cand + 4) ^ v1;
                size_t len;
                Ozr32u w;
                if (__builtin_expect(x != 0, 1)) {
                    const unsigned bit = m7::trailingZeros64(x);
                    len = 4 + (bit >> 3);
                    w = Ozr32u((bit < 32 ? v1 : v2) >> (bit & 24));
                } else {
                    len = 12 + matchLength(base + cand + 12, ip + 12, base + segLen);
                    w = at + len < limit ? load32(ip + len) : 0;
                }
                // Probe the position behind the match before writing the instructions,
                // so that its loads are under way meanwhile. Past the search limit the
                // probe is void; its table store is then harmless (the segment is done).
                i = at + len;
                const size_t h = hashFast(w);
                const size_t c = table[h];
                table[h] = Ozr16u(i);
                const bool hit = load32(base + c) == w;
                // The search stops 20 bytes before the segment end, so 32 bytes are
                // readable from the start of any run of up to 18 literals before a match.
                if (!out.template runAndMatch<true>(ii, size_t(ip - ii), len, at - cand, inEnd)) return false;
                ii = base + i;
                if (i >= limit) goto segmentDone;
                if (hit) {
                    at = i;
                    cand = c;
                    continue;
                }
                i += 1;
                missed = 1;
                break;
            }
        }
    segmentDone:
        if (base + segLen == inEnd) break;
    }
    return out.literals(ii, size_t(inEnd - ii), inEnd);
}

enum class Coder { Default, Fast };

// One stream, closed with the end marker unless `marker` is false.
template <Coder C>
OzrResult encodeStream(const Ozr8u* in, size_t n, Ozr8u* out, size_t cap, size_t* pWritten, Ozr64u* dict,
                       bool marker) {
    auto run = [&](auto& w) {
        bool ok;
        if constexpr (C == Coder::Default)
            ok = encodeDefault(in, n, w, dict);
        else
            ok = encodeFast(in, n, w, reinterpret_cast<Ozr16u*>(dict));
        if (ok && marker) ok = w.endMarker();
        *pWritten = w.written();
        return ok ? ozrOk : ozrWarnDstSizeLess;
    };
    if (cap >= worstCase(n)) {
        Writer<false> w(out, cap);
        return run(w);
    }
    Writer<true> w(out, cap);
    return run(w);
}

inline void putLE32(Ozr8u* p, size_t v) {
    for (int i = 0; i < 4; ++i) p[i] = Ozr8u(v >> (8 * i));
}

// The multi-part container: the header is reserved first, the parts are coded straight
// behind it, and each part's size is filled in once it is known.
OzrResult encodeContainer(const Ozr8u* in, size_t n, Ozr8u* out, size_t cap, Ozr32u* pDstLen, OzrLZOState* st) {
    const size_t parts = st->numParts & 0xFF;
    const size_t head = 3 + 4 * parts;
    if (cap < head) {
        *pDstLen = 0;
        return ozrWarnDstSizeLess;
    }
    out[0] = 0x55;
    out[1] = Ozr8u(parts);
    out[2] = Ozr8u(parts ^ 0x55);
    putLE32(out + 3, n);
    for (size_t i = 0; i + 1 < parts; ++i) putLE32(out + 7 + 4 * i, 0);
    const size_t slice = n / parts;
    size_t pos = head;
    for (size_t i = 0; i < parts; ++i) {
        const size_t at = i * slice;
        const size_t len = i + 1 == parts ? n - at : slice;
        size_t got = 0;
        OzrResult r = encodeStream<Coder::Default>(in + at, len, out + pos, cap - pos, &got, st->dict, true);
        pos += got;
        if (r != ozrOk) {
            *pDstLen = Ozr32u(pos);
            return r;
        }
        if (i + 1 < parts) putLE32(out + 7 + 4 * i, got);  // compressed size + end marker
    }
    *pDstLen = Ozr32u(pos);
    return ozrOk;
}

}  // namespace
}  // namespace m7

extern "C" {

OzrResult m7_ownEncodeLZO1X(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen, Ozr64u* dict) {
    size_t got = 0;
    OzrResult r = m7::encodeStream<m7::Coder::Default>(pSrc, srcLen, pDst, *pDstLen, &got, dict, false);
    *pDstLen = Ozr32u(got);
    return r;
}

OzrResult m7_ozrsEncodeLZOGetSize(Ozr32u method, Ozr32u maxInputLen, Ozr32u* pSize) {
    (void)maxInputLen;
    OZR_CHECK_NULL(pSize);
    if (method > OZR_LZO_METHOD_FAST) {
        *pSize = 0;
        return ozrErrBadArgument;
    }
    *pSize = m7::kStateSize;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZOInit_8u(Ozr32u method, Ozr32u maxInputLen, OzrLZOState* pState) {
    (void)maxInputLen;
    OZR_CHECK_NULL(pState);
    if (method > OZR_LZO_METHOD_FAST) return ozrErrBadArgument;
    // Method 1 is folded onto the default coder; method word 1 means the container.
    pState->method = method == OZR_LZO_METHOD_DEFAULT_1 ? OZR_LZO_METHOD_DEFAULT : method;
    pState->numParts = 0;
    m7_ownsZero_8u(pState->reserved, sizeof pState->reserved);
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZO_8u(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen,
                              OzrLZOState* pState) {
    OZR_CHECK_NULL(pSrc, pDst, pDstLen, pState);
    if (srcLen == 0) {
        *pDstLen = 0;
        return ozrOk;
    }
    const Ozr32u method = pState->method;
    if (method > OZR_LZO_METHOD_FAST) return ozrErrBadArgument;
    const Ozr32u parts = pState->numParts & 0xFF;
    if (method == OZR_LZO_METHOD_CONTAINER && (parts < 1 || parts > 32)) return ozrErrBadArgument;

    if (method == OZR_LZO_METHOD_CONTAINER) return m7::encodeContainer(pSrc, srcLen, pDst, *pDstLen, pDstLen, pState);
    size_t got = 0;
    OzrResult r = method == OZR_LZO_METHOD_FAST
                      ? m7::encodeStream<m7::Coder::Fast>(pSrc, srcLen, pDst, *pDstLen, &got, pState->dict, true)
                      : m7::encodeStream<m7::Coder::Default>(pSrc, srcLen, pDst, *pDstLen, &got, pState->dict, true);
    *pDstLen = Ozr32u(got);
    return r;
}

}  // extern "C"
