// SPDX-License-Identifier: Apache-2.0
// One process, many threads at once:
// - LINX sockets: sends racing the receiver's close;
// - the message layer: allocation, cloning and release on private
//   endpoints, deferred releases into a public endpoint, registration and
//   dispatch on a shared endpoint, the tracker created once by racing first
//   allocations, logging and sequence numbers, all while the debug flag
//   changes;
// - notifications: publishing from several threads while subscribers come
//   and go (local and remote subscriptions change under the walk,
//   subscribers close with copies in flight, every subscription of a closed
//   subscriber is purged), with all traffic copied to a telemetry collector
//   and another thread dumping every endpoint: neither may deadlock against
//   a publisher.
// (Threads sharing one process's ring are the suite of LINX between
// processes.)
#include "test_kit.h"

namespace {

TEST(LinxThreads, SendsRacingACloseNeverCrash)
{
    for (int Round = 0; Round < 20; Round++) {
        LINX *pTarget = linx_open("target", 0, nullptr);
        ASSERT_NE(nullptr, pTarget);
        const LINX_SPID Target = linx_get_spid(pTarget);
        std::atomic<int> Unexpected{0};
        std::thread Sender([Target, &Unexpected] {
            LINX *pLinx = linx_open("racer", 0, nullptr);
            for (int i = 0; i < 200; i++) {
                if (SendSignal(pLinx, Target, 1, i, 128) != 0 && errno != ECONNRESET && errno != ENOBUFS)
                    Unexpected++;
            }
            linx_close(pLinx);
        });
        std::this_thread::yield();
        linx_close(pTarget); // frees whatever was handed over and not taken
        Sender.join();
        EXPECT_EQ(0, Unexpected.load());
    }
}

// ---- The message layer -------------------------------------------------------

std::atomic<int> gRuns{0};

uint32_t Count(void *, MSG_Msg *)
{
    gRuns++;
    return 0;
}

// Threads allocate, clone and release on their private endpoints and into a
// public one, register and dispatch on a shared endpoint, log, take
// sequence numbers and change the debug flag, all at once: their racing
// first allocations make one tracker, lines stay whole and numbers unique.
TEST(MsgThreads, AllocateDispatchAndLogAtOnceWhileTheFlagChanges)
{
    ASSERT_EQ(0u, MSG_OpenLocal("shared"));
    LocalEndpoint *pShared = MSG_GetLocalEndpoint("shared");
    const bool bFirstTracker = gpHash == nullptr;
    MSG_DebugSetFlag(MSG_DEBUG_TRACKER | MSG_DEBUG_LOG_SUCCESS);
    TakeLoggedLines();
    constexpr int kThreads = 6, kRounds = 200, kNumbersPerRound = 50;
    std::atomic<int> Failures{0};
    std::vector<std::vector<uint32_t>> Seen(kThreads);
    InThreads(kThreads, [&](int t) {
        for (int i = 0; i < kRounds; i++) {
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
            // Past its first allocation the tracker exists, and said so.
            MSG_DebugSetFlag(MSG_DEBUG_TRACKER | (i % 2 ? MSG_DEBUG_LOG_SUCCESS : 0));
            MSG_LogOs(3, "f.c", t, "fn", "$progname: $halvo: liborvane: $func: t%d i%d $err\n", t, i, 301);
            MSG_LogErrFilter(0, "f.c", t, "fn", "ok %d\n", i);
            for (int n = 0; n < kNumbersPerRound; n++)
                Seen[t].push_back(MSG_GetNextSequence());
        }
    });
    MSG_DebugSetFlag(0);
    EXPECT_EQ(0, Failures.load());
    EXPECT_GE(gRuns.load(), kThreads * kRounds);
    EXPECT_EQ(0u, MSG_CloseLocal("shared")); // drains 1200 deferred releases
    int Whole = 0, Created = 0;
    for (const LoggedLine &L : TakeLoggedLines()) {
        Created += L.Text.find("MSG_CreateHash: result 0/OK") != std::string::npos;
        if (L.Text.rfind("ok ", 0) == 0)
            EXPECT_EQ(6, L.Level) << L.Text;
        else if (L.Text.find("liborvane: fn: t") != std::string::npos)
            Whole += L.Level == 3 && L.Text.find("result 301/wrong parameter\n") != std::string::npos;
    }
    EXPECT_EQ(kThreads * kRounds, Whole);
    EXPECT_EQ(bFirstTracker ? 1 : 0, Created);
    std::set<uint32_t> All;
    for (const std::vector<uint32_t> &Values : Seen) {
        EXPECT_TRUE(std::is_sorted(Values.begin(), Values.end()));
        All.insert(Values.begin(), Values.end());
    }
    EXPECT_EQ((size_t)kThreads * kRounds * kNumbersPerRound, All.size());
}

// ---- Notifications -----------------------------------------------------------

constexpr MSG_Type kNews = 0x150;

TEST(NotificationThreads, PublishersAndChurningSubscribers)
{
    MSG_DebugSetFlag(MSG_DEBUG_TELEMETRY_SEND | MSG_DEBUG_TELEMETRY_RECV);
    ASSERT_EQ(0u, MSG_OpenLocal("Telemetry"));
    ASSERT_EQ(0u, MSG_OpenLocal("pub"));
    const uint32_t Pub = FindSpid("pub", "pub");
    std::atomic<bool> bStop{false}, bChurned{false};
    std::atomic<int> Received{0}, Failures{0}, Dumps{0};
    std::vector<std::thread> Loops;
    for (const char *pName : {"pub", "Telemetry"})
        Loops.emplace_back([&, pName] {
            while (!bStop)
                if (MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, 10))
                    MSG_ReleaseMsg(pMsg);
        });
    Loops.emplace_back([&] {
        for (; !bChurned; Dumps++) {
            MSG_DebugDumpAll();
            TakeLoggedLines();
        }
    });
    std::vector<std::thread> Publishers;
    for (int t = 0; t < 3; t++)
        Publishers.emplace_back([&] {
            for (uint32_t i = 0; !bChurned; i++) {
                const MSG_Status Status = MSG_SendNotification("pub", NewMsg(kNews, i, 16));
                // 305 while nobody subscribed, 103 for a subscriber closing.
                Failures += Status != 0 && Status != 305 && Status != 103;
                // Paced, so that a subscriber's queue never fills between
                // its rounds: a full queue (202, ENOBUFS) is not what this
                // test is about.
                usleep(5000);
            }
        });
    InThreads(3, [&](int t) {
        const std::string Name = "sub" + std::to_string(t);
        for (int Round = 0; Round < 15; Round++) {
            Failures += MSG_OpenLocal(Name.c_str()) != 0;
            const uint32_t Me = FindSpid(Name.c_str(), Name.c_str());
            Failures += MSG_RegisterNotificationRemote(Name.c_str(), 0x100, 0x1FF, Pub) != 0;
            Failures += MSG_RegisterNotification("pub", 0x150, 0x150, Me) != 0;
            // Takes what waits (a bounded number of copies per round).
            for (int i = 0; i < 1000; i++) {
                MSG_Msg *pMsg = MSG_RecvMsg(Name.c_str(), kNews, 2);
                if (pMsg == nullptr)
                    break;
                Received++;
                MSG_ReleaseMsg(pMsg);
            }
            MSG_UnregisterNotification("pub", 0x150, 0x150, Me);
            Failures += MSG_CloseLocal(Name.c_str()) != 0;
        }
    });
    bChurned = true;
    for (std::thread &T : Publishers)
        T.join();
    WaitFor([] { return MSG_CountNotifications_Private("pub") == 0; }, 5000);
    bStop = true;
    for (std::thread &T : Loops)
        T.join();
    EXPECT_EQ(0, MSG_CountNotifications_Private("pub")) << "every closed subscriber was purged";
    EXPECT_EQ(0, Failures.load());
    EXPECT_GT(Received.load(), 0);
    EXPECT_GT(Dumps.load(), 0);
    MSG_CloseLocal("pub");
    MSG_CloseLocal("Telemetry");
}

} // namespace
