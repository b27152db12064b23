// SPDX-License-Identifier: Apache-2.0
// Shared helpers: elapsed time, sequence numbers and the extra-flag bits of
// a message header.
#include "test_kit.h"

namespace {

TEST(Helpers, ElapsedTimeTruncatesTowardZero)
{
    EXPECT_EQ(1, MSG_CalcElapsedMsec({1, 999999999}, {2, 0}));
    EXPECT_EQ(1000, MSG_CalcElapsedMsec({1, 1}, {2, 0}));
    EXPECT_EQ(-1000, MSG_CalcElapsedMsec({5, 0}, {4, 0}));
    EXPECT_EQ(1500, MSG_CalcElapsedMsec({10, 250000000}, {11, 750000000}));
    EXPECT_EQ(-1, MSG_CalcElapsedMsec({3, 1500000}, {3, 0}));

    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    Now.tv_sec -= 2;
    const int32_t Since = MSG_GetMsecSince(Now);
    EXPECT_GE(Since, 2000);
    EXPECT_LT(Since, 60000);
}

TEST(Helpers, SequenceWrapsAfter24Bits)
{
    // The counter is process-wide: measure from wherever it stands now.
    const uint32_t First = MSG_GetNextSequence();
    EXPECT_EQ((First + 1) & 0xFFFFFFu, MSG_GetNextSequence());
    uint32_t Last = 0;
    for (uint32_t i = 0; i < 0x1000000u; i++)
        Last = MSG_GetNextSequence();
    EXPECT_EQ((First + 1) & 0xFFFFFFu, Last); // 2^24 calls bring it round
    EXPECT_LE(Last, 0xFFFFFFu);
}

TEST(Helpers, ExtraFlagsKeepTheSendStackSize)
{
    MSG_Msg Msg;
    memset(&Msg, 0, sizeof Msg);
    Msg.SendStackSize = 3;
    EXPECT_EQ(0u, MSG_SetExtraFlags(&Msg, 0x3FF));
    uint32_t Word;
    memcpy(&Word, (const char *)&Msg + 8, sizeof Word);
    EXPECT_EQ(0x303u, Word);
    EXPECT_EQ(3u, Msg.SendStackSize);
    EXPECT_EQ(0x300u, MSG_GetExtraFlags(&Msg));
    MSG_SetExtraFlags(&Msg, 0xABCDEF00);
    EXPECT_EQ(0xABCDEF00u, MSG_GetExtraFlags(&Msg));
    EXPECT_EQ(3u, Msg.SendStackSize);
}

} // namespace
