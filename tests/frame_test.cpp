// The library frame: version record and status values.
#include <gtest/gtest.h>

#include <cstring>

#include "m7.h"

TEST(Version, RecordHoldsTheReleaseValues) {
    const OzrVersionInfo* v = ozrdcGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, ozrdcGetLibVersion()) << "must be one static record";
    EXPECT_EQ(v->major, 2021);
    EXPECT_EQ(v->minor, 6);
    EXPECT_EQ(v->majorBuild, 0);
    EXPECT_EQ(static_cast<Ozr32u>(v->build), 0xBFFE3C5Bu);
    EXPECT_EQ(0, std::memcmp(v->targetCpu, "m7\0\0", 4));
    EXPECT_STREQ(v->Name, "ozrDC SSE3 (m7)");
    EXPECT_STREQ(v->Version, "2021.6 (r0xbffe3c5b)");
    EXPECT_STREQ(v->BuildDate, "Mar  9 2022");
}

TEST(Status, ValuesAreTheDocumentedOnes) {
    EXPECT_EQ(ozrOk, 0);
    EXPECT_EQ(ozrErr, -1);
    EXPECT_EQ(ozrErrFailed, -2);
    EXPECT_EQ(ozrErrOutOfRange, -4);
    EXPECT_EQ(ozrErrBadArgument, -5);
    EXPECT_EQ(ozrErrSize, -6);
    EXPECT_EQ(ozrErrNullPointer, -8);
    EXPECT_EQ(ozrErrBadParameter, -13);
    EXPECT_EQ(ozrErrAccelerationRange, -16);
    EXPECT_EQ(ozrErrShift, -32);
    EXPECT_EQ(ozrErrHuffTable, -200);
    EXPECT_EQ(ozrErrLZOBroken, -214);
    EXPECT_EQ(ozrWarnSrcSizeLess, 32);
    EXPECT_EQ(ozrWarnDstSizeLess, 33);
    EXPECT_EQ(ozrWarnBWTSortLimit, 47);
    static_assert(sizeof(OzrResult) == 4 && static_cast<OzrResult>(-1) < 0);
}

// ---- A caller's dirty AVX state ---------------------------------------------------
// Every slot of the export table reaches its entry's implementation, either directly
// or through a cleaning thunk (`vzeroupper; jmp m7_name`); the loader installs the
// thunks exactly where the processor and the OS have AVX state.

extern "C" const void* const m7_arraddr[];

namespace {

#define OZR_IMPL(name) reinterpret_cast<const void*>(&m7_##name),
const void* const kImplementations[] = {
#define OZR_ENTRY(group, name) OZR_ON_##group(OZR_IMPL(name))
#include "exports.inc"
#undef OZR_ENTRY
};

bool osHasAvxState() {
    unsigned a, b, c, d;
    __asm__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(1), "c"(0));
    if ((c & (3u << 27)) != (3u << 27)) return false;  // OSXSAVE and AVX
    unsigned lo, hi;
    __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (lo & 6) == 6;
}

// XGETBV(1) reports which state components are in use; bit 2 is the upper halves of
// the YMM registers. Not every processor with AVX has it.
bool hasXinuse() {
    unsigned a, b, c, d;
    __asm__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(0), "c"(0));
    if (a < 0xD) return false;
    __asm__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(0xD), "c"(1));
    return (a & 4) != 0;
}

// Returns the thunk's target when p is a cleaning thunk, else nullptr.
const void* thunkTarget(const void* p) {
    const auto* b = static_cast<const Ozr8u*>(p);
    if (b[0] != 0xC5 || b[1] != 0xF8 || b[2] != 0x77 || b[3] != 0xE9) return nullptr;
    Ozr32s rel;
    std::memcpy(&rel, b + 4, 4);
    return b + 8 + rel;
}

}  // namespace

TEST(UpperState, EverySlotReachesItsImplementationAndThunksFollowTheProcessor) {
    const bool avx = osHasAvxState();
    int thunks = 0;
    for (size_t i = 0; i < sizeof kImplementations / sizeof kImplementations[0]; ++i) {
        const void* slot = m7_arraddr[i];
        if (slot == kImplementations[i]) continue;
        ASSERT_EQ(thunkTarget(slot), kImplementations[i]) << "slot " << i << " reaches neither its code nor its thunk";
        ++thunks;
    }
    if (avx) {
        EXPECT_GT(thunks, 0) << "AVX state present, but no entry cleans it";
    } else {
        EXPECT_EQ(thunks, 0) << "a thunk would fault on this processor";
    }
}

TEST(UpperState, VectorEntryReturnsWithCleanUpperHalvesAfterDirtyingCaller) {
    if (!osHasAvxState() || !hasXinuse()) GTEST_SKIP() << "no AVX state, or no XGETBV(1) to observe it";
    static const Ozr8u data[64] = {1, 2, 3};
    Ozr32u adler = 1;
    unsigned inUse, hi;
    // A 256-bit write without vzeroupper, the entry, and the state it leaves: nothing
    // else may run in between.
    __asm__ volatile("vpcmpeqd %%ymm0, %%ymm0, %%ymm0" ::: "xmm0");
    __asm__ volatile("xgetbv" : "=a"(inUse), "=d"(hi) : "c"(1));
    ASSERT_NE(inUse & 4, 0u) << "the dirtying write did not dirty";
    OzrResult st = ozrsAdler32_8u(data, 64, &adler);
    __asm__ volatile("xgetbv" : "=a"(inUse), "=d"(hi) : "c"(1));
    EXPECT_EQ(st, ozrOk);
    EXPECT_EQ(inUse & 4, 0u) << "ozrsAdler32_8u returned with the upper halves still dirty";
}
