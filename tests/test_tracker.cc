// SPDX-License-Identifier: Apache-2.0
// The outstanding-message tracker on a table of its own: state changes,
// double reports, eviction, the 500th held message, statistics and removal.
#include "test_kit.h"

#include <syslog.h>

namespace {

constexpr uint32_t kSize = 1021;

// Messages whose addresses all start probing at the same slot.
class Tracker : public testing::Test {
protected:
    void SetUp() override
    {
        Memory.resize((size_t)40 * kSize * 8 + 64);
        TakeLoggedLines();
    }
    void TearDown() override
    {
        if (pHash)
            MSG_DestroyHash(pHash);
    }
    MSG_Msg *Colliding(int k, uint32_t Type = 0x77)
    {
        const uintptr_t Base = ((uintptr_t)Memory.data() + 63) & ~(uintptr_t)63;
        MSG_Msg *p = (MSG_Msg *)(Base + (uintptr_t)k * kSize * 8);
        p->MsgType = Type;
        return p;
    }
    std::vector<std::string> Lines(int Level)
    {
        std::vector<std::string> Texts;
        for (const LoggedLine &L : TakeLoggedLines())
            if (L.Level == Level)
                Texts.push_back(L.Text);
        return Texts;
    }
    std::vector<char> Memory;
    MSG_Hash *pHash = nullptr;
};

TEST_F(Tracker, CreationStatesRepeatsAndRemoval)
{
    EXPECT_EQ(nullptr, MSG_CreateHash(0, 1, 1, 1));
    EXPECT_EQ(nullptr, MSG_CreateHash(7, 1, 1, 0));
    MSG_DebugSetFlag(MSG_DEBUG_LOG_SUCCESS);
    pHash = MSG_CreateHash(kSize, 31, 5000, 1024);
    MSG_DebugSetFlag(0);
    std::vector<std::string> Info = Lines(LOG_INFO);
    ASSERT_EQ(1u, Info.size());
    EXPECT_NE(std::string::npos, Info[0].find("MSG_CreateHash: result 0/OK: size 1021, step size 31, max steps 5000, interval = 1024\n"));

    // Alternating states report nothing; a repeat reports once.
    MSG_Msg *p = Colliding(0);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(0u, MSG_AddHashEntry(pHash, p, i % 2 == 0));
    EXPECT_TRUE(Lines(LOG_ERR).empty());

    MSG_AddHashEntry(pHash, p, 1);
    MSG_AddHashEntry(pHash, p, 1);
    p->MsgType = 0x78;
    MSG_AddHashEntry(pHash, p, 0);
    MSG_AddHashEntry(pHash, p, 0);
    std::vector<std::string> Errors = Lines(LOG_ERR);
    ASSERT_EQ(2u, Errors.size());
    char Expect[160];
    snprintf(Expect, sizeof Expect, "hash %p: double alloc: msg %p; was type 0x77; is type 0x77\n", (void *)pHash, (void *)p);
    EXPECT_NE(std::string::npos, Errors[0].find(Expect));
    snprintf(Expect, sizeof Expect, "hash %p: double free: msg %p; was type 0x78; is type 0x78\n", (void *)pHash, (void *)p);
    EXPECT_NE(std::string::npos, Errors[1].find(Expect));

    EXPECT_EQ(301u, MSG_AddHashEntry(pHash, p, 2));
    EXPECT_EQ(301u, MSG_AddHashEntry(nullptr, p, 1));
    EXPECT_EQ(301u, MSG_AddHashEntry(pHash, nullptr, 1));
    // A release of a message never seen takes a slot silently.
    MSG_AddHashEntry(pHash, Colliding(1), 0);
    EXPECT_TRUE(Lines(LOG_ERR).empty());

    p = Colliding(3, 0x55);
    MSG_AddHashEntry(pHash, p, 1);
    EXPECT_EQ(0u, MSG_RemoveHashEntry(pHash, p));
    EXPECT_EQ(300u, MSG_RemoveHashEntry(pHash, p));
    std::vector<std::string> Warnings = Lines(LOG_WARNING);
    ASSERT_EQ(1u, Warnings.size());
    snprintf(Expect, sizeof Expect, "hash %p: possible double free: can't find %p: type 0x55\n", (void *)pHash, (void *)p);
    EXPECT_NE(std::string::npos, Warnings[0].find(Expect));
    EXPECT_EQ(301u, MSG_RemoveHashEntry(nullptr, p));
    EXPECT_EQ(301u, MSG_DestroyHash(nullptr));
}

TEST_F(Tracker, FullProbeSequenceEvictsTheOldestReleasedFirst)
{
    pHash = MSG_CreateHash(kSize, 31, 32, 1024);
    for (int k = 0; k < 32; k++)
        MSG_AddHashEntry(pHash, Colliding(k), 1);
    MSG_AddHashEntry(pHash, Colliding(5), 0); // now the only released entry
    TakeLoggedLines();
    MSG_AddHashEntry(pHash, Colliding(32), 1);
    EXPECT_TRUE(Lines(LOG_WARNING).empty()) << "a released entry goes silently";

    // Colliding(5) is gone: all 32 probe slots hold held messages now.  The
    // oldest of them, Colliding(0), is evicted and reported.
    MSG_AddHashEntry(pHash, Colliding(33, 0x99), 1);
    std::vector<std::string> Warnings = Lines(LOG_WARNING);
    ASSERT_EQ(1u, Warnings.size());
    char Expect[128];
    snprintf(Expect, sizeof Expect, "hash %p: evicting allocated msg %p: type 0x77\n", (void *)pHash, (void *)Colliding(0));
    EXPECT_NE(std::string::npos, Warnings[0].find(Expect));
}

TEST_F(Tracker, StatisticsFollowEveryIntervalOperationsAndThe500thHeldMessageIsReported)
{
    pHash = MSG_CreateHash(kSize, 31, 0, 4);
    std::vector<std::string> Info = Lines(LOG_INFO);
    EXPECT_TRUE(Info.empty()) << "the creation line is an outcome line, filtered";
    MSG_Msg Msgs[3];
    MSG_AddHashEntry(pHash, &Msgs[0], 1);
    MSG_AddHashEntry(pHash, &Msgs[1], 1);
    EXPECT_TRUE(Lines(LOG_INFO).empty());
    MSG_AddHashEntry(pHash, &Msgs[2], 1); // the third operation: NumOps reaches 4
    Info = Lines(LOG_INFO);
    ASSERT_EQ(1u, Info.size());
    EXPECT_NE(std::string::npos,
              Info[0].find(": stats for prior 4 ops: filled entries min=1, max=3; Linx allocated msgs min=1, max=3\n"));
    for (int i = 0; i < 4; i++)
        MSG_AddHashEntry(pHash, &Msgs[0], i % 2 == 0 ? 0 : 1);
    Info = Lines(LOG_INFO);
    ASSERT_EQ(1u, Info.size());
    EXPECT_NE(std::string::npos, Info[0].find("min=3, max=3; Linx allocated msgs min=2, max=3\n"));

    // The 500th held message is reported each time it is reached, and only then.
    MSG_DestroyHash(pHash);
    pHash = MSG_CreateHash(kSize, 31, 32, 100000);
    std::vector<MSG_Msg> Held(501);
    for (int i = 0; i < 500; i++)
        MSG_AddHashEntry(pHash, &Held[i], 1);
    MSG_AddHashEntry(pHash, &Held[0], 0);
    MSG_AddHashEntry(pHash, &Held[0], 1);
    MSG_AddHashEntry(pHash, &Held[500], 1);
    MSG_AddHashEntry(pHash, &Held[500], 0); // back to 500 from above
    EXPECT_EQ(2, Occurrences(TakeLoggedText(), ": 500 outstanding Linx messages\n"));
}

} // namespace
