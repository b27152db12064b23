// SPDX-License-Identifier: Apache-2.0
// Logging, sequence numbers and the debug flag used from many threads at once.
#include "test_kit.h"

namespace {

TEST(LogThreads, LinesStayWholeWhileTheFlagChanges)
{
    TakeLoggedLines();
    constexpr int kThreads = 6;
    constexpr int kLines = 300;
    std::vector<std::thread> Threads;
    for (int t = 0; t < kThreads; t++)
        Threads.emplace_back([t] {
            for (int i = 0; i < kLines; i++) {
                MSG_DebugSetFlag(i % 2 ? MSG_DEBUG_LOG_SUCCESS : 0);
                MSG_LogOs(3, "f.c", t, "fn", "$progname: $halvo: liborvane: $func: t%d i%d $err\n",
                          t, i, 301);
                MSG_LogErrFilter(0, "f.c", t, "fn", "ok %d\n", i);
            }
        });
    for (std::thread &T : Threads)
        T.join();
    MSG_DebugSetFlag(0);
    int Failures = 0;
    for (const LoggedLine &L : TakeLoggedLines()) {
        if (L.Level == 3) {
            Failures++;
            EXPECT_NE(std::string::npos, L.Text.find("liborvane: fn: t"));
            EXPECT_NE(std::string::npos, L.Text.find("result 301/wrong parameter\n"));
        } else {
            EXPECT_EQ(6, L.Level);
        }
    }
    EXPECT_EQ(kThreads * kLines, Failures);
}

TEST(LogThreads, SequenceNumbersAreUniqueAcrossThreads)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 20000;
    std::vector<std::vector<uint32_t>> Seen(kThreads);
    std::vector<std::thread> Threads;
    for (int t = 0; t < kThreads; t++)
        Threads.emplace_back([&Seen, t] {
            for (int i = 0; i < kEach; i++)
                Seen[t].push_back(MSG_GetNextSequence());
        });
    for (std::thread &T : Threads)
        T.join();
    std::set<uint32_t> All;
    for (const std::vector<uint32_t> &Values : Seen) {
        EXPECT_TRUE(std::is_sorted(Values.begin(), Values.end()));
        All.insert(Values.begin(), Values.end());
    }
    EXPECT_EQ((size_t)kThreads * kEach, All.size());
}

} // namespace
