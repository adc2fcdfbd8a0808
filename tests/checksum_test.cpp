// Checksums: the check values, agreement with zlib, isa-l, libbz2 and bitwise
// references over many lengths and alignments, split-call equivalence, the argument
// checks, and the `ozrdc checksum` command.
#include <gtest/gtest.h>

#include "checksum_ref.h"
#include "test_data.h"
#include <isa-l/crc.h>
#include <sys/mman.h>
#include <zlib.h>

#include <bzlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "../src/checksum/checksum.h"
#include "../src/checksum/crc_tables.h"

namespace {

const Ozr8u* digits() { return reinterpret_cast<const Ozr8u*>("123456789"); }

// The library's bzip2 CRC as libbz2 computes it: the block CRC in the header of a
// one-block stream (bytes 10..13, big-endian, after "BZh9" and the block magic).
Ozr32u bzip2BlockCRC(const Bytes& in) {
    std::vector<char> out(in.size() + in.size() / 50 + 1024);
    unsigned outLen = static_cast<unsigned>(out.size());
    int rc = BZ2_bzBuffToBuffCompress(out.data(), &outLen, reinterpret_cast<char*>(const_cast<Ozr8u*>(in.data())),
                                      static_cast<unsigned>(in.size()), 9, 0, 0);
    EXPECT_EQ(rc, BZ_OK);
    const auto* h = reinterpret_cast<const unsigned char*>(out.data());
    return Ozr32u(h[10]) << 24 | Ozr32u(h[11]) << 16 | Ozr32u(h[12]) << 8 | h[13];
}

Ozr32u ours(OzrResult (*fn)(const Ozr8u*, Ozr32s, Ozr32u*), Ozr32u v, const Ozr8u* p, size_t n) {
    EXPECT_EQ(fn(p, static_cast<Ozr32s>(n), &v), ozrOk);
    return v;
}
Ozr32u oursC(Ozr32u v, const Ozr8u* p, size_t n) {
    EXPECT_EQ(ozrsCRC32C_8u(p, static_cast<Ozr32u>(n), &v), ozrOk);
    return v;
}

// ---- Tables ---------------------------------------------------------------------

TEST(Tables, SlicingRuleMatchesBitwiseContributionOfByteWithTrailingZeros) {
    using namespace m7::crc;
    constexpr auto crc32 = makeTables<8, false>(kPolyCRC32);
    constexpr auto crc32c = makeTables<4, false>(kPolyCRC32C);
    constexpr auto bz2 = makeTables<8, true>(kPolyBZ2);
    EXPECT_EQ(crc32.v[1], 0x77073096u);
    EXPECT_EQ(crc32c.v[1], 0xF26B8303u);
    EXPECT_EQ(bz2.v[1], 0xB71DC104u);
    // Tk[i] is the register after byte i followed by k zero bytes, from zero.
    for (int k = 0; k < 8; ++k)
        for (int i = 0; i < 256; ++i) {
            Ozr8u msg[8] = {Ozr8u(i)};
            ASSERT_EQ(crc32.v[256 * k + i], ref::reflected(kPolyCRC32, 0, msg, k + 1)) << k << " " << i;
            if (k < 4) ASSERT_EQ(crc32c.v[256 * k + i], ref::reflected(kPolyCRC32C, 0, msg, k + 1)) << k << " " << i;
            ASSERT_EQ(bz2.v[256 * k + i], byteSwap(~ref::bz2(~0u, msg, k + 1))) << k << " " << i;
        }
}

// A partial sum moved over the rest of a round: sub-table k, entry i, of the
// "over N zero bytes" tables is the register holding only byte i at position k after
// N zero bytes, bit by bit. Covers the distances the kernel joins lanes and rounds by.
template <int N>
void expectAdvanceIsBitwisePassOverZeros(const Ozr32u* T0, int kind) {
    using namespace m7::crc;
    static constexpr Ozr8u zeros[128] = {};
    const auto z = makeAdvance<N>(T0);
    for (int k = 0; k < 4; ++k)
        for (Ozr32u i = 0; i < 256; ++i) {
            const Ozr32u r = i << (8 * k);
            const Ozr32u want = kind == 0   ? ref::reflected(kPolyCRC32, r, zeros, N)
                                : kind == 1 ? ref::reflected(kPolyCRC32C, r, zeros, N)
                                            : byteSwap(~ref::bz2(~byteSwap(r), zeros, N));
            ASSERT_EQ(z.v[256 * k + i], want) << "N=" << N << " k=" << k << " i=" << i;
        }
}

TEST(Tables, AdvanceTablesAreTheBitwisePassOverZeroBytes) {
    using namespace m7::crc;
    const auto crc32 = makeTables<1, false>(kPolyCRC32);
    const auto crc32c = makeTables<1, false>(kPolyCRC32C);
    const auto bz2 = makeTables<1, true>(kPolyBZ2);
    expectAdvanceIsBitwisePassOverZeros<40>(crc32.v, 0);
    expectAdvanceIsBitwisePassOverZeros<80>(crc32.v, 0);
    expectAdvanceIsBitwisePassOverZeros<20>(crc32c.v, 1);
    expectAdvanceIsBitwisePassOverZeros<80>(crc32c.v, 1);
    expectAdvanceIsBitwisePassOverZeros<32>(bz2.v, 2);
    expectAdvanceIsBitwisePassOverZeros<64>(bz2.v, 2);
}

// ---- Check values -----------------------------------------------------------------

TEST(CheckValue, NineDigitsGiveTheStandardValues) {
    EXPECT_EQ(ours(ozrsCRC32_8u, 0, digits(), 9), 0xCBF43926u);
    EXPECT_EQ(ours(ozrsCRC32_BZ2_8u, 0, digits(), 9), 0xFC891918u);
    EXPECT_EQ(oursC(0xFFFFFFFFu, digits(), 9), ~0xE3069283u);
    EXPECT_EQ(ours(ozrsAdler32_8u, 1, digits(), 9), 0x091E01DEu);
}

// ---- Agreement with the peers and the references -------------------------------------

// Lengths 1..300 (every threshold, prefix and round boundary), every length around
// the blocks of four rounds that are summed side by side (4 x 64 and 4 x 80 bytes,
// and twice that, with any single rounds after them), and a few large ones, each at
// every start offset 0..15 so that every aligning prefix is taken.
std::vector<size_t> lengths() {
    std::vector<size_t> v;
    for (size_t n = 1; n <= 300; ++n) v.push_back(n);
    for (size_t n = 301; n <= 760; n += 3) v.push_back(n);
    for (size_t n : {1000u, 4095u, 5536u, 5537u, 5552u, 65536u + 7u, 1u << 20, (1u << 20) + 13u}) v.push_back(n);
    return v;
}

TEST(Agreement, CRC32EqualsZlibAtEveryLengthAndOffset) {
    Bytes buf = randomBytes((1 << 20) + 64, 1);
    for (size_t n : lengths())
        for (size_t off = 0; off < 16; ++off) {
            const Ozr8u* p = buf.data() + off;
            ASSERT_EQ(ours(ozrsCRC32_8u, 0x12345678u, p, n), crc32(0x12345678u, p, static_cast<uInt>(n)))
                << "n=" << n << " off=" << off;
        }
}

TEST(Agreement, CRC32CEqualsBitwiseReferenceAndIsal) {
    Bytes buf = randomBytes((1 << 20) + 64, 2);
    for (size_t n : lengths())
        for (size_t off = 0; off < 16; ++off) {
            Ozr8u* p = buf.data() + off;
            Ozr32u got = oursC(0xFFFFFFFFu, p, n);
            ASSERT_EQ(got, crc32_iscsi(p, static_cast<int>(n), 0xFFFFFFFFu)) << "n=" << n << " off=" << off;
            if (n <= 5552) ASSERT_EQ(got, ref::crc32c(0xFFFFFFFFu, p, n)) << "n=" << n << " off=" << off;
        }
}

TEST(Agreement, BZ2CRCEqualsBitwiseReferenceAtEveryLengthAndOffset) {
    Bytes buf = randomBytes((1 << 20) + 64, 3);
    for (size_t n : lengths())
        for (size_t off = 0; off < 16; ++off) {
            const Ozr8u* p = buf.data() + off;
            ASSERT_EQ(ours(ozrsCRC32_BZ2_8u, 0xCAFEF00Du, p, n), ref::bz2(0xCAFEF00Du, p, n))
                << "n=" << n << " off=" << off;
        }
}

TEST(Agreement, BZ2CRCEqualsTheBlockCRCLibbz2Writes) {
    for (size_t n : {1u, 10u, 11u, 64u, 1000u, 100000u}) {
        Bytes b = randomBytes(n, unsigned(n));
        EXPECT_EQ(ours(ozrsCRC32_BZ2_8u, 0, b.data(), n), bzip2BlockCRC(b)) << n;
    }
}

TEST(Agreement, Adler32EqualsZlibAtEveryLengthAndOffset) {
    Bytes buf = randomBytes((1 << 20) + 64, 4);
    for (size_t n : lengths())
        for (size_t off = 0; off < 16; ++off) {
            const Ozr8u* p = buf.data() + off;
            ASSERT_EQ(ours(ozrsAdler32_8u, 0x0BAD0ABCu, p, n), adler32(0x0BAD0ABCu, p, static_cast<uInt>(n)))
                << "n=" << n << " off=" << off;
        }
}

TEST(Agreement, Adler32LaneSumsDoNotOverflowOnAllOnesBytes) {
    // 0xFF bytes make every lane sum as large as it can be; group boundaries at 346
    // blocks must still reduce in time. Unreduced incoming halves too.
    Bytes ff(3 * 5536 + 100, 0xFF);
    for (size_t n : {5536u, 5536u + 16u, 5552u, 5553u, 3u * 5536u + 99u})
        for (Ozr32u start : {1u, 0xFFF0FFF0u, 0xFFFFFFFFu}) {
            ASSERT_EQ(ours(ozrsAdler32_8u, start, ff.data() + 1, n), ref::adler(start, ff.data() + 1, long(n)))
                << n << " " << start;
            if (start == 1) ASSERT_EQ(ours(ozrsAdler32_8u, 1, ff.data(), n), adler32(1, ff.data(), uInt(n)));
        }
}

TEST(Agreement, ZlibReadsOurCRC32AndAdlerBack) {
    // Values we produce continue correctly through zlib and the other way round.
    Bytes b = randomBytes(5000, 5);
    Ozr32u c = ours(ozrsCRC32_8u, 0, b.data(), 2500);
    EXPECT_EQ(crc32(c, b.data() + 2500, 2500), crc32(0, b.data(), 5000));
    Ozr32u z = static_cast<Ozr32u>(crc32(0, b.data(), 2500));
    EXPECT_EQ(ours(ozrsCRC32_8u, z, b.data() + 2500, 2500), crc32(0, b.data(), 5000));
    Ozr32u a = ours(ozrsAdler32_8u, 1, b.data(), 2500);
    EXPECT_EQ(adler32(a, b.data() + 2500, 2500), adler32(1, b.data(), 5000));
}

// ---- Split calls ----------------------------------------------------------------------

TEST(SplitCalls, EverySplitPointGivesTheOneCallValue) {
    Bytes b = randomBytes(700, 6);
    const size_t n = b.size();
    const Ozr32u crc = ours(ozrsCRC32_8u, 0, b.data(), n), bz = ours(ozrsCRC32_BZ2_8u, 0, b.data(), n);
    const Ozr32u cc = oursC(~0u, b.data(), n), ad = ours(ozrsAdler32_8u, 1, b.data(), n);
    for (size_t k = 1; k < n; ++k) {
        const Ozr8u* p = b.data();
        ASSERT_EQ(ours(ozrsCRC32_8u, ours(ozrsCRC32_8u, 0, p, k), p + k, n - k), crc) << k;
        ASSERT_EQ(ours(ozrsCRC32_BZ2_8u, ours(ozrsCRC32_BZ2_8u, 0, p, k), p + k, n - k), bz) << k;
        ASSERT_EQ(oursC(oursC(~0u, p, k), p + k, n - k), cc) << k;
        ASSERT_EQ(ours(ozrsAdler32_8u, ours(ozrsAdler32_8u, 1, p, k), p + k, n - k), ad) << k;
    }
}

// ---- Argument checks --------------------------------------------------------------------

TEST(ArgumentChecks, CRCsRefuseNullPointersBeforeLengthsAndLeaveTheValue) {
    Ozr8u byte = 0x55;
    for (auto fn : {ozrsCRC32_8u, ozrsCRC32_BZ2_8u}) {
        Ozr32u v = 0xDEADBEEF;
        EXPECT_EQ(fn(nullptr, 1, &v), ozrErrNullPointer);
        EXPECT_EQ(fn(&byte, 1, nullptr), ozrErrNullPointer);
        EXPECT_EQ(fn(nullptr, 0, nullptr), ozrErrNullPointer) << "pointers are checked before the length";
        EXPECT_EQ(fn(nullptr, -5, &v), ozrErrNullPointer);
        EXPECT_EQ(fn(&byte, 0, &v), ozrErrSize);
        EXPECT_EQ(fn(&byte, -1, &v), ozrErrSize);
        EXPECT_EQ(fn(&byte, INT32_MIN, &v), ozrErrSize);
        EXPECT_EQ(v, 0xDEADBEEFu) << "an error must not write the running value";
    }
    Ozr32u v = 0xDEADBEEF;
    EXPECT_EQ(ozrsCRC32C_8u(nullptr, 1, &v), ozrErrNullPointer);
    EXPECT_EQ(ozrsCRC32C_8u(&byte, 1, nullptr), ozrErrNullPointer);
    EXPECT_EQ(ozrsCRC32C_8u(nullptr, 0, nullptr), ozrErrNullPointer);
    EXPECT_EQ(ozrsCRC32C_8u(&byte, 0, &v), ozrErrSize);
    EXPECT_EQ(v, 0xDEADBEEFu);
}

TEST(ArgumentChecks, Adler32NullSourceStoresOneWhateverTheLength) {
    for (Ozr32s len : {0, 1, -1, 100, INT32_MIN}) {
        Ozr32u v = 0xDEADBEEF;
        EXPECT_EQ(ozrsAdler32_8u(nullptr, len, &v), ozrOk);
        EXPECT_EQ(v, 1u) << len;
    }
    Ozr8u byte = 0;
    EXPECT_EQ(ozrsAdler32_8u(&byte, 1, nullptr), ozrErrNullPointer);
    EXPECT_EQ(ozrsAdler32_8u(nullptr, 1, nullptr), ozrErrNullPointer) << "the value pointer comes first";
}

TEST(ArgumentChecks, Adler32NonPositiveLengthOnlyReducesTheHalves) {
    Ozr8u byte = 0x77;
    for (Ozr32s len : {0, -1, INT32_MIN}) {
        Ozr32u v = 0xFFFFFFFF;
        EXPECT_EQ(ozrsAdler32_8u(&byte, len, &v), ozrOk);
        EXPECT_EQ(v, 0x000E000Eu) << len;  // 65535 mod 65521 = 14 in both halves
        v = 0xFFF10005;                     // B = 65521 -> 0, A = 5 stays
        EXPECT_EQ(ozrsAdler32_8u(&byte, len, &v), ozrOk);
        EXPECT_EQ(v, 0x00000005u);
    }
}

// A register advanced over n zero bytes, by squaring the one-zero-byte operator
// (a 32x32 matrix over GF(2), one column per register bit).
Ozr32u crc32cOverZeros(Ozr32u reg, Ozr64u n) {
    struct M {
        Ozr32u col[32];
        Ozr32u apply(Ozr32u v) const {
            Ozr32u r = 0;
            for (int i = 0; i < 32; ++i)
                if (v >> i & 1) r ^= col[i];
            return r;
        }
    };
    M step{};
    const Ozr8u zero = 0;
    for (int i = 0; i < 32; ++i) step.col[i] = ref::crc32c(1u << i, &zero, 1);
    for (; n; n >>= 1) {
        if (n & 1) reg = step.apply(reg);
        M sq{};
        for (int i = 0; i < 32; ++i) sq.col[i] = step.apply(step.col[i]);
        step = sq;
    }
    return reg;
}

TEST(ArgumentChecks, CRC32CTakesLengthsOf2GiBAndMore) {
    // The length is unsigned: 0x80000000 + 24 is a byte count, not a negative size.
    // Anonymous pages read as zeros without being allocated.
    const size_t n = 0x80000000u + 24;
    void* m = mmap(nullptr, n + 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(m, MAP_FAILED);
    const Ozr8u* p = static_cast<const Ozr8u*>(m) + 3;  // unaligned start: prefix, rounds and tail
    Ozr32u v = 0xFFFFFFFF;
    EXPECT_EQ(ozrsCRC32C_8u(p, static_cast<Ozr32u>(n), &v), ozrOk);
    EXPECT_EQ(v, crc32cOverZeros(0xFFFFFFFF, n));
    munmap(m, n + 4096);
}

// ---- The command-line tool ------------------------------------------------------------

std::string run(const std::string& cmd, int* status) {
    std::string out;
    FILE* f = popen(cmd.c_str(), "r");
    if (!f) return out;
    char buf[512];
    size_t k;
    while ((k = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, k);
    *status = pclose(f);
    return out;
}

TEST(Tool, ChecksumPrintsValueBytesAndNameForEachAlgorithm) {
    char path[] = "/tmp/ozrdc_checksum_testXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    // Larger than the tool's 1 MiB chunk so that it sums in several calls.
    Bytes b = randomBytes((3 << 20) / 2 + 5, 7);
    ASSERT_EQ(write(fd, b.data(), b.size()), static_cast<ssize_t>(b.size()));
    close(fd);
    char expect[256];
    const std::string name = path;
    const std::string tool = OZRDC_TOOL_PATH;
    int status = -1;

    std::snprintf(expect, sizeof expect, "%08x %zu %s\n", unsigned(crc32(0, b.data(), uInt(b.size()))), b.size(),
                  path);
    EXPECT_EQ(run(tool + " checksum " + name, &status), expect) << "crc32 is the default";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(run(tool + " checksum -a crc32 " + name, &status), expect);

    std::snprintf(expect, sizeof expect, "%08x %zu %s\n", unsigned(adler32(1, b.data(), uInt(b.size()))), b.size(),
                  path);
    EXPECT_EQ(run(tool + " checksum -a adler32 " + name, &status), expect);

    std::snprintf(expect, sizeof expect, "%08x %zu %s\n", ~ref::crc32c(~0u, b.data(), b.size()), b.size(), path);
    EXPECT_EQ(run(tool + " checksum -a crc32c " + name, &status), expect) << "the standard, complemented CRC-32C";

    std::snprintf(expect, sizeof expect, "%08x %zu %s\n", ref::bz2(0, b.data(), b.size()), b.size(), path);
    EXPECT_EQ(run(tool + " checksum -a crc32-bzip2 " + name, &status), expect);

    std::snprintf(expect, sizeof expect, "%08x %zu -\n", unsigned(crc32(0, b.data(), uInt(b.size()))), b.size());
    EXPECT_EQ(run(tool + " checksum - < " + name, &status), expect) << "- reads standard input";

    // An unreadable file: message on stderr, other files still summed, non-zero exit.
    std::snprintf(expect, sizeof expect, "%08x %zu %s\n", 0u, size_t(0), "/dev/null");
    EXPECT_EQ(run(tool + " checksum /nonexistent/file /dev/null 2>/dev/null", &status), expect);
    EXPECT_NE(status, 0);
    std::remove(path);
}

}  // namespace
