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
