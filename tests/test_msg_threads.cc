// SPDX-License-Identifier: Apache-2.0
// The message layer used from many threads at once: allocation, cloning and
// release on private endpoints, deferred releases into a public endpoint,
// registration and dispatch on a shared endpoint, the tracker created once
// by racing first allocations, and logging and sequence numbers while the
// debug flag changes.
#include "test_kit.h"

namespace {

std::atomic<int> gRuns{0};

uint32_t Count(void *, MSG_Msg *)
{
    gRuns++;
    return 0;
}

TEST(MsgThreads, ManyThreadsAllocateReleaseRegisterAndDispatch)
{
    ASSERT_EQ(0u, MSG_OpenLocal("shared"));
    LocalEndpoint *pShared = MSG_GetLocalEndpoint("shared");
    MSG_DebugSetFlag(MSG_DEBUG_TRACKER);
    TakeLoggedLines();
    constexpr int kThreads = 6;
    std::vector<std::thread> Threads;
    std::atomic<int> Failures{0};
    for (int t = 0; t < kThreads; t++)
        Threads.emplace_back([&, t] {
            for (int i = 0; i < 200; i++) {
                MSG_Msg *pMsg = NewMsg(1 + t, i, 32);
                MSG_Msg *pClone = nullptr;
                Failures += pMsg == nullptr || MSG_CloneMsg(pMsg, &pClone) != 0;
                MSG_Msg *pPublic = nullptr;
                Failures += MSG_AllocMsg_Private(pShared, 2, 64, &pPublic) != 0;
                MSG_RegisterCallbackHelper("shared", Count, nullptr, 1 + t, 1 + t, i % 2);
                Failures += MSG_ProcessCallback("shared", pMsg) != 0;
                MSG_UnregisterCallbackHelper("shared", Count, nullptr, 1 + t, 1 + t, 0);
                Failures += MSG_ReleaseMsg(pPublic) != 0;
                Failures += MSG_ReleaseMsg(pClone) != 0;
                Failures += MSG_ReleaseMsg(pMsg) != 0;
            }
        });
    for (std::thread &T : Threads)
        T.join();
    EXPECT_EQ(0, Failures.load());
    EXPECT_GE(gRuns.load(), kThreads * 200);
    EXPECT_NE(nullptr, gpHash);
    MSG_DebugSetFlag(0);
    EXPECT_EQ(0u, MSG_CloseLocal("shared")); // drains 1200 deferred releases
}

TEST(MsgThreads, RacingFirstAllocationsCreateOneTracker)
{
    if (gpHash != nullptr)
        GTEST_SKIP() << "an earlier test of this process made the tracker";
    MSG_DebugSetFlag(MSG_DEBUG_TRACKER | MSG_DEBUG_LOG_SUCCESS);
    TakeLoggedLines();
    std::vector<std::thread> Threads;
    for (int t = 0; t < 8; t++)
        Threads.emplace_back([] { MSG_ReleaseMsg(MSG_AllocMsg(1, 0, 0)); });
    for (std::thread &T : Threads)
        T.join();
    MSG_DebugSetFlag(0);
    EXPECT_EQ(1, Occurrences(TakeLoggedText(), "MSG_CreateHash: result 0/OK"));
}

// Lines stay whole and sequence numbers unique while threads log, take
// numbers and change the debug flag at once.
TEST(MsgThreads, LinesStayWholeAndSequenceNumbersUniqueWhileTheFlagChanges)
{
    TakeLoggedLines();
    constexpr int kThreads = 6, kLines = 300, kNumbersPerLine = 50;
    std::vector<std::vector<uint32_t>> Seen(kThreads);
    std::vector<std::thread> Threads;
    for (int t = 0; t < kThreads; t++)
        Threads.emplace_back([&Seen, t] {
            for (int i = 0; i < kLines; i++) {
                MSG_DebugSetFlag(i % 2 ? MSG_DEBUG_LOG_SUCCESS : 0);
                MSG_LogOs(3, "f.c", t, "fn", "$progname: $halvo: liborvane: $func: t%d i%d $err\n", t, i, 301);
                MSG_LogErrFilter(0, "f.c", t, "fn", "ok %d\n", i);
                for (int n = 0; n < kNumbersPerLine; n++)
                    Seen[t].push_back(MSG_GetNextSequence());
            }
        });
    for (std::thread &T : Threads)
        T.join();
    MSG_DebugSetFlag(0);
    int Errors = 0;
    for (const LoggedLine &L : TakeLoggedLines()) {
        if (L.Level == 3) {
            Errors++;
            EXPECT_NE(std::string::npos, L.Text.find("liborvane: fn: t"));
            EXPECT_NE(std::string::npos, L.Text.find("result 301/wrong parameter\n"));
        } else {
            EXPECT_EQ(6, L.Level);
        }
    }
    EXPECT_EQ(kThreads * kLines, Errors);
    std::set<uint32_t> All;
    for (const std::vector<uint32_t> &Values : Seen) {
        EXPECT_TRUE(std::is_sorted(Values.begin(), Values.end()));
        All.insert(Values.begin(), Values.end());
    }
    EXPECT_EQ((size_t)kThreads * kLines * kNumbersPerLine, All.size());
}

} // namespace
