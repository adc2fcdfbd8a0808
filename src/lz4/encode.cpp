// LZ4 block encoders: greedy, one probe per position, no chains.
//
// One core does hash, probe, extend and emit; the five entry points differ only in
// compile-time parameters:
//   - the table: 4096 x 16-bit (inputs below 64 KiB, positions from the input start,
//     every distance fits), 8192 x 16-bit with a 13-bit hash (accelerated, small
//     inputs), or 4096 x 32-bit (large inputs and the dictionary encoders, where the
//     65535 distance limit is tested);
//   - the search schedule: plain (single steps, then a step that grows by one every
//     16 or 64 misses) or accelerated (groups of four probes at a stride);
//   - bounded output (stop early and end the block with what fits) or not;
//   - history: in memory right before the input, or an external dictionary whose last
//     histLen bytes stand before the input.
//
// Positions in the table are "virtual": byte index q of the input is entered as
// histLen + q, so that a table loaded from a dictionary (whose position p is p) and
// rebased keeps pointing at the right bytes.
#include <type_traits>

#include "lz4_common.h"

namespace m7::lz4 {
namespace {

constexpr Ozr64u kHashMul = 0xCA1BACDCBBull;
constexpr int kTableBytes = 16384;
constexpr int kSmallInput = 65536;  // below this, 16-bit tables

// Bits 24 and up of the 40-bit little-endian value at p times the multiplier. Only
// the product's low 37 bits are kept, which depend only on the low 37 bits of the
// loaded word, so the 8-byte load needs no mask.
template <int Bits>
inline Ozr32u hash5(const Ozr8u* p) {
    return static_cast<Ozr32u>((load64(p) * kHashMul) >> 24) & ((1u << Bits) - 1);
}

enum class Table { Narrow12, Narrow13, Wide };  // 16-bit 12-bit hash, 16-bit 13-bit hash, 32-bit
enum class Dict { InPlace, External };

template <Table T, bool Bounded, bool Accel, Dict D, bool Cleared = true>
struct Config {
    static constexpr Table kTable = T;
    static constexpr bool kBounded = Bounded;
    static constexpr bool kAccel = Accel;
    static constexpr Dict kDict = D;
    static constexpr bool kClearedTable = Cleared;  // the table was zeroed by this call
};

struct Job {
    const Ozr8u* src;
    int srcLen;
    Ozr8u* dst;
    int dstCap;          // bounded variants
    void* table;
    int histLen;         // bytes of history before the input (virtual positions)
    const Ozr8u* dict;   // external dictionary
    int dictLen;
    int accel;
    // Results.
    int covered;
    int written;
};

// Writes the extension bytes of a length of 15 or more: (len - 15) as 255s, then the rest.
inline Ozr8u* writelen(Ozr8u* op, size_t len) {
    len -= kRunMask;
    if (len >= 255) {
        const __m128i ff = _mm_set1_epi8(static_cast<char>(0xFF));
        while (len >= 255 * 16) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(op), ff);
            op += 16;
            len -= 255 * 16;
        }
        while (len >= 255) {
            *op++ = 255;
            len -= 255;
        }
    }
    *op++ = static_cast<Ozr8u>(len);
    return op;
}

template <class C>
class Encoder {
public:
    explicit Encoder(Job& j)
        : j_(j), src_(j.src), srcEnd_(j.src + j.srcLen), matchLimit_(srcEnd_ - kLastLiterals),
          vbase_(j.src - j.histLen), op_(j.dst) {
        searchEnd_ = j.srcLen > kMatchSearchEnd ? srcEnd_ - kMatchSearchEnd : j.src;
        if constexpr (C::kDict == Dict::External) dictEnd_ = j.dict + j.dictLen;
    }

    void run() {
        const Ozr8u* anchor = src_;
        const Ozr8u* ip = src_ + 1;
        Found f;
        bool found = firstSearch(ip, f);
        while (found) {
            const size_t ml = measure(f);
            const Ozr8u* next = emit(anchor, f, ml);
            if (next == nullptr) break;  // bounded output ran out: end with what fits
            anchor = ip = next;
            found = nextSearch(ip, f);
        }
        lastLiterals(anchor);
    }

private:
    struct Found {
        const Ozr8u* at;    // match start in the input
        const Ozr8u* ref;   // its source
        Ozr32u dist;
        const Ozr8u* refEnd;  // external dictionary: a match may not run past it
    };

    using Entry = std::conditional_t<C::kTable == Table::Wide, Ozr32s, Ozr16u>;
    static constexpr int kHashBits = C::kTable == Table::Narrow13 ? 13 : 12;

    Entry* table() const { return static_cast<Entry*>(j_.table); }
    Ozr32u posOf(const Ozr8u* p) const {
        if constexpr (C::kTable == Table::Wide) return static_cast<Ozr32u>(p - vbase_);
        else return static_cast<Ozr32u>(p - src_);
    }

    // Enters p in the table and returns the entry it replaced.
    Entry insert(const Ozr8u* p) {
        Entry* t = table();
        const Ozr32u h = hash5<kHashBits>(p);
        const Entry c = t[h];
        t[h] = static_cast<Entry>(posOf(p));
        return c;
    }

    // Is the candidate position c a usable match source for p?
    bool test(Entry c, const Ozr8u* p, Found& f) const {
        if constexpr (C::kTable != Table::Wide) {
            const Ozr8u* ref = src_ + c;
            if (load32(ref) != load32(p)) return false;
            f = Found{p, ref, static_cast<Ozr32u>(p - ref), nullptr};
            return true;
        } else {
            // Only a caller's dictionary table can hold negative entries: the plain
            // encoders cleared theirs and enter only positions from 0 up.
            if constexpr (!C::kClearedTable)
                if (c < 0) return false;
            const Ozr32u dist = posOf(p) - static_cast<Ozr32u>(c);
            if (dist - 1 >= static_cast<Ozr32u>(kMaxDistance)) return false;  // 1..65535
            const Ozr8u* ref;
            const Ozr8u* refEnd = nullptr;
            if constexpr (C::kDict == Dict::External) {
                if (c < j_.histLen) {
                    // The dictionary's last histLen bytes stand before the input.
                    const ptrdiff_t at = static_cast<ptrdiff_t>(j_.dictLen) - j_.histLen + c;
                    if (at < 0 || j_.dictLen - at < 8) return false;
                    ref = j_.dict + at;
                    refEnd = dictEnd_;
                } else {
                    ref = src_ + (c - j_.histLen);
                }
            } else {
                ref = vbase_ + c;
            }
            if (load32(ref) != load32(p)) return false;
            f = Found{p, ref, dist, refEnd};
            return true;
        }
    }

    bool probe(const Ozr8u* p, Found& f) { return test(insert(p), p, f); }

    // The first search, from position 1.
    bool firstSearch(const Ozr8u*& ip, Found& f) {
        if (ip >= searchEnd_) return false;
        if constexpr (C::kAccel) {
            if (probe(ip, f)) return true;
            ++ip;
            return groupSearch(ip, f);
        } else {
            constexpr int kSingle = C::kTable == Table::Wide ? 64 : 16;
            constexpr int kShift = C::kTable == Table::Wide ? 6 : 4;
            for (; ip - src_ < kSingle && ip < searchEnd_; ++ip)
                if (probe(ip, f)) return true;
            return counterSearch(ip, f, kSingle, kShift);
        }
    }

    // The search after a match.
    bool nextSearch(const Ozr8u*& ip, Found& f) {
        if constexpr (C::kAccel) {
            return groupSearch(ip, f);
        } else {
            // Close to the start, positions are tried one by one in groups of three:
            // all three entered, then compared in turn.
            for (int g = 0; g < 16 && ip - src_ < 64 && ip + 2 < searchEnd_; ++g, ip += 3) {
                const Entry c0 = insert(ip), c1 = insert(ip + 1), c2 = insert(ip + 2);
                if (test(c0, ip, f) || test(c1, ip + 1, f) || test(c2, ip + 2, f)) return true;
            }
            return counterSearch(ip, f, 128, 6);
        }
    }

    // One probe per step; the step is counter >> shift, the counter grows by one per miss.
    bool counterSearch(const Ozr8u*& ip, Found& f, unsigned counter, int shift) {
        const Ozr8u* const end = searchEnd_;
        if (ip >= end) return false;
        Entry* const t = table();
        Ozr32u h = hash5<kHashBits>(ip);
        for (;;) {
            // The next position's hash is computed before this probe's compare, so that
            // its load and multiply overlap the table access.
            const Ozr8u* const next = ip + (counter >> shift);
            const Ozr32u hn = next < end ? hash5<kHashBits>(next) : 0;
            const Entry c = t[h];
            t[h] = static_cast<Entry>(posOf(ip));
            if (test(c, ip, f)) return true;
            ++counter;
            ip = next;
            h = hn;
            if (ip >= end) return false;
        }
    }

    // Accelerated: four probes a group at ip + k * step, each entered and compared in turn.
    bool groupSearch(const Ozr8u*& ip, Found& f) {
        unsigned counter = 64u * static_cast<unsigned>(j_.accel);
        for (;;) {
            const size_t step = counter >> 6;
            if (step * 3 >= static_cast<size_t>(searchEnd_ - ip) || ip >= searchEnd_) return false;
            for (int k = 0; k < 4; ++k)
                if (probe(ip + k * step, f)) return true;
            ip += 4 * step;
            counter += 4;
        }
    }

    // Match length: 8 bytes compared at once; beyond them, on to 5 bytes before the end.
    size_t measure(const Found& f) const {
        const Ozr8u* ip = f.at;
        const Ozr8u* ref = f.ref;
        const Ozr64u x = load64(ip) ^ load64(ref);
        if (x != 0) return m7::trailingZeros64(x) >> 3;
        size_t limit = static_cast<size_t>(matchLimit_ - ip);
        if constexpr (C::kDict == Dict::External)
            if (f.refEnd != nullptr && static_cast<size_t>(f.refEnd - ref) < limit) limit = f.refEnd - ref;
        size_t n = 8;
        while (n + 8 <= limit) {
            const Ozr64u y = load64(ip + n) ^ load64(ref + n);
            if (y != 0) return n + (m7::trailingZeros64(y) >> 3);
            n += 8;
        }
        while (n < limit && ip[n] == ref[n]) ++n;
        return n;
    }

    // Writes one sequence: literals [anchor, f.at), then the match. Returns where the
    // next search starts, or null when bounded output stops the block here.
    const Ozr8u* emit(const Ozr8u* anchor, const Found& f, size_t ml) {
        const size_t lit = static_cast<size_t>(f.at - anchor);
        Ozr8u* op = op_;
        if constexpr (C::kBounded) {
            if (room(op) < static_cast<ptrdiff_t>(lit + lit / 255 + 1)) return nullptr;
        }
        Ozr8u* const token = op++;
        unsigned tok;
        if (lit >= kRunMask) {
            tok = kRunMask << 4;
            op = writelen(op, lit);
        } else {
            tok = static_cast<unsigned>(lit) << 4;
        }
        if constexpr (C::kBounded) {
            copyExact(op, anchor, lit);
        } else {
            // Unbounded output is sized for the worst case, n + n / 255 + 16: the
            // block so far takes at most as many bytes as it covers (plus one per 255),
            // and at least 20 input bytes remain after a match start, so 16-byte steps
            // may run up to 15 bytes past the literals. The input has those bytes too.
            for (size_t i = 0; i < lit; i += 16) copy16(op + i, anchor + i);
        }
        op += lit;
        store16(op, static_cast<Ozr16u>(f.dist));
        op += 2;
        if constexpr (C::kBounded) {
            const ptrdiff_t left = room(op);  // limit - op
            if (left - static_cast<ptrdiff_t>((ml + 236) / 255) + 2 < 0) {
                if (left < -1) return nullptr;  // abandon the whole sequence
                ml = static_cast<size_t>(left * 255 + 524) + kMinMatch;
            }
        }
        const size_t code = ml - kMinMatch;
        if (code >= kRunMask) {
            tok |= kRunMask;
            op = writelen(op, code);
        } else {
            tok |= static_cast<unsigned>(code);
        }
        *token = static_cast<Ozr8u>(tok);
        op_ = op;
        return f.at + ml;
    }

    // Room before the bounded encoder's limit (capacity - 8), negative past it.
    ptrdiff_t room(const Ozr8u* op) const { return static_cast<ptrdiff_t>(j_.dstCap) - 8 - (op - j_.dst); }

    void lastLiterals(const Ozr8u* anchor) {
        size_t n = static_cast<size_t>(srcEnd_ - anchor);
        Ozr8u* op = op_;
        if constexpr (C::kBounded) {
            const size_t space = static_cast<size_t>(room(op) + 8);
            if (n > space - 1) n = space - 1;
            auto extra = [](size_t k) -> size_t { return k < kRunMask ? 0 : (k - kRunMask) / 255 + 1; };
            while (n + 1 + extra(n) > space) --n;
        }
        if (n >= kRunMask) {
            *op++ = static_cast<Ozr8u>(kRunMask << 4);
            op = writelen(op, n);
        } else {
            *op++ = static_cast<Ozr8u>(n << 4);
        }
        copyExact(op, anchor, n);
        op += n;
        j_.covered = static_cast<int>(anchor - src_) + static_cast<int>(n);
        j_.written = static_cast<int>(op - j_.dst);
    }

    Job& j_;
    const Ozr8u* const src_;
    const Ozr8u* const srcEnd_;
    const Ozr8u* const matchLimit_;
    const Ozr8u* const vbase_;
    const Ozr8u* searchEnd_;
    const Ozr8u* dictEnd_ = nullptr;
    Ozr8u* op_;
};

template <class C>
inline void encode(Job& j) {
    Encoder<C>(j).run();
}

// Plain or bounded encode of the input with the history (if any) in memory before it.
template <bool Bounded>
void encodeByWidth(Job& j, bool wide, bool cleared) {
    if (!wide) encode<Config<Table::Narrow12, Bounded, false, Dict::InPlace>>(j);
    else if (cleared) encode<Config<Table::Wide, Bounded, false, Dict::InPlace>>(j);
    else encode<Config<Table::Wide, Bounded, false, Dict::InPlace, false>>(j);
}

OzrResult clearTable(void* table, int srcLen) {
    if (srcLen < kSmallInput) return m7_ozrsZero_16s(static_cast<Ozr16s*>(table), 4096);
    return m7_ozrsZero_32s(static_cast<Ozr32s*>(table), 4096);
}

// The dictionary encoders' table: rebased so that no entry points at or beyond the
// new input, or cleared when there is no history.
OzrResult rebaseTable(void* table, int histLen) {
    if (histLen >= 1) return m7_ozrsThreshold_GT_32s_I(static_cast<Ozr32s*>(table), 4096, histLen - 1);
    return m7_ozrsZero_32s(static_cast<Ozr32s*>(table), 4096);
}

// The encoder with the history in place (histLen bytes before pSrc), unbounded,
// 32-bit table (the dictionary encoders' path).
OzrResult ownsEncodeLZ4(const Ozr8u* pSrc, int histLen, int srcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable) {
    OZR_CHECK_NULL(pSrc, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(srcLen);
    Job j{pSrc, srcLen, pDst, 0, pHashTable, histLen, nullptr, 0, 1, 0, 0};
    encode<Config<Table::Wide, false, false, Dict::InPlace, false>>(j);
    *pDstLen = j.written;
    return ozrOk;
}

// The bounded encoder with the history in place.
OzrResult ownsEncodeLZ4Safe(const Ozr8u* pSrc, int histLen, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                            Ozr8u* pHashTable, bool wide, bool cleared) {
    OZR_CHECK_NULL(pSrc, pSrcLen, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(*pSrcLen);
    OZR_CHECK_POSITIVE(*pDstLen);
    Job j{pSrc, *pSrcLen, pDst, *pDstLen, pHashTable, histLen, nullptr, 0, 1, 0, 0};
    encodeByWidth<true>(j, wide, cleared);
    const bool whole = j.covered == *pSrcLen;
    *pSrcLen = j.covered;
    *pDstLen = j.written;
    return whole ? ozrOk : ozrWarnDstSizeLess;
}

// Both dictionary encoders: the checks and dispatch are shared, the output bound is not.
template <bool Bounded>
OzrResult encodeDict(const Ozr8u* pSrc, int histLen, int* pSrcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable,
                     const Ozr8u* pDict, int dictLen) {
    if (OzrResult st = rebaseTable(pHashTable, histLen); st != ozrOk) return st;
    auto inPlace = [&]() -> OzrResult {
        if constexpr (Bounded) return ownsEncodeLZ4Safe(pSrc, histLen, pSrcLen, pDst, pDstLen, pHashTable, true, false);
        else return ownsEncodeLZ4(pSrc, histLen, *pSrcLen, pDst, pDstLen, pHashTable);
    };
    if (pDict == nullptr || dictLen == 0) return inPlace();
    OZR_CHECK_POSITIVE(dictLen);
    if (histLen == dictLen && pDict + dictLen == pSrc) return inPlace();
    OZR_CHECK_NULL(pSrc, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(*pSrcLen);
    if constexpr (Bounded) OZR_CHECK_POSITIVE(*pDstLen);
    if (histLen < 0) return ozrErrBadArgument;

    Job j{pSrc, *pSrcLen, pDst, Bounded ? *pDstLen : 0, pHashTable, histLen, pDict, dictLen, 1, 0, 0};
    encode<Config<Table::Wide, Bounded, false, Dict::External, false>>(j);
    const bool whole = j.covered == *pSrcLen;
    *pSrcLen = j.covered;
    *pDstLen = j.written;
    return whole ? ozrOk : ozrWarnDstSizeLess;
}

}  // namespace
}  // namespace m7::lz4

using namespace m7::lz4;

extern "C" {

OzrResult m7_ozrsEncodeLZ4HashTableGetSize_8u(int* pHashTableSize) {
    OZR_CHECK_NULL(pHashTableSize);
    *pHashTableSize = kTableBytes;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZ4HashTableInit_8u(Ozr8u* pHashTable, int srcLen) {
    OZR_CHECK_NULL(pHashTable);
    OZR_CHECK_POSITIVE(srcLen);
    return clearTable(pHashTable, srcLen);
}

OzrResult m7_ozrsEncodeLZ4DictHashTableInit_8u(Ozr8u* pHashTable, int srcLen) {
    OZR_CHECK_NULL(pHashTable);
    OZR_CHECK_POSITIVE(srcLen);
    return m7_ozrsZero_32s(reinterpret_cast<Ozr32s*>(pHashTable), 4096);
}

OzrResult m7_ozrsEncodeLZ4LoadDict_8u(Ozr8u* pHashTable, const Ozr8u* pDict, int dictLen) {
    OZR_CHECK_NULL(pHashTable, pDict);
    OZR_CHECK_POSITIVE(dictLen);
    // Every third position only: loading stays cheap, at some cost in matches found.
    Ozr32s* t = reinterpret_cast<Ozr32s*>(pHashTable);
    for (int p = 0; dictLen - p > 8; p += 3) t[hash5<12>(pDict + p)] = p;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZ4_8u(const Ozr8u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable) {
    if (OzrResult st = clearTable(pHashTable, srcLen); st != ozrOk) return st;
    OZR_CHECK_NULL(pSrc, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(srcLen);
    Job j{pSrc, srcLen, pDst, 0, pHashTable, 0, nullptr, 0, 1, 0, 0};
    encodeByWidth<false>(j, srcLen >= kSmallInput, true);
    *pDstLen = j.written;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZ4Safe_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable) {
    OZR_CHECK_NULL(pSrcLen);
    if (OzrResult st = clearTable(pHashTable, *pSrcLen); st != ozrOk) return st;
    return ownsEncodeLZ4Safe(pSrc, 0, pSrcLen, pDst, pDstLen, pHashTable, *pSrcLen >= kSmallInput, true);
}

OzrResult m7_ozrsEncodeLZ4Fast_8u(const Ozr8u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable,
                                  int acceleration) {
    if (acceleration == 1) return m7_ozrsEncodeLZ4_8u(pSrc, srcLen, pDst, pDstLen, pHashTable);
    OZR_CHECK_NULL(pSrc, pDst, pDstLen, pHashTable);
    OZR_CHECK_POSITIVE(srcLen);
    if (acceleration < 1) return ozrErrAccelerationRange;
    Job j{pSrc, srcLen, pDst, 0, pHashTable, 0, nullptr, 0, acceleration, 0, 0};
    if (srcLen < kSmallInput) {
        m7_ownsZero_8u(pHashTable, 8192 * sizeof(Ozr16u));
        encode<Config<Table::Narrow13, false, true, Dict::InPlace>>(j);
    } else {
        m7_ownsZero_8u(pHashTable, 4096 * sizeof(Ozr32s));
        encode<Config<Table::Wide, false, true, Dict::InPlace>>(j);
    }
    *pDstLen = j.written;
    return ozrOk;
}

OzrResult m7_ozrsEncodeLZ4Dict_8u(const Ozr8u* pSrc, int histLen, int srcLen, Ozr8u* pDst, int* pDstLen,
                                  Ozr8u* pHashTable, const Ozr8u* pDict, int dictLen) {
    int len = srcLen;
    return encodeDict<false>(pSrc, histLen, &len, pDst, pDstLen, pHashTable, pDict, dictLen);
}

OzrResult m7_ozrsEncodeLZ4DictSafe_8u(const Ozr8u* pSrc, int histLen, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                      Ozr8u* pHashTable, const Ozr8u* pDict, int dictLen) {
    OZR_CHECK_NULL(pSrcLen);
    return encodeDict<true>(pSrc, histLen, pSrcLen, pDst, pDstLen, pHashTable, pDict, dictLen);
}

}  // extern "C"
