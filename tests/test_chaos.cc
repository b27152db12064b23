// SPDX-License-Identifier: Apache-2.0
// Chaos: a peer is killed with SIGKILL again and again at random moments,
// idle, in the middle of sending large messages, or busy hunting and
// attaching.  Every death must reach the watcher's close callback and its
// raw attach exactly once each, never before the kill, and linxd must end
// with the memory and descriptors it started with.
#include "test_kit.h"

#include <filesystem>

namespace {

constexpr int kKills = 210;
constexpr MSG_Type kBulk = 0x400;

struct Watch {
    int Opens = 0;
    int Closes = 0;
    uint32_t PeerId = 0;
    bool bKilled = false;     // the current incarnation was killed
    bool bEarlyClose = false; // a close arrived before its kill
};

uint32_t OnOpen(void *pContext, MSG_Msg *pMsg)
{
    Watch *pWatch = (Watch *)pContext;
    pWatch->Opens++;
    pWatch->PeerId = MSG_GetSender(pMsg);
    return 0;
}

uint32_t OnClose(void *pContext, MSG_Msg *)
{
    Watch *pWatch = (Watch *)pContext;
    pWatch->bEarlyClose |= !pWatch->bKilled;
    pWatch->Closes++;
    return 0;
}

// What a peer does until it is killed.
[[noreturn]] void RunPeer(int Mode)
{
    if (MSG_OpenLocal("peer") != 0)
        _exit(1);
    uint32_t Watcher = FindSpid("peer", "watcher");
    for (uint32_t i = 0;; i++) {
        if (Mode == 1) { // large messages, as fast as they are taken
            MSG_Msg *pMsg = NewMsg(kBulk, i, 60000);
            if (MSG_SendMsg("peer", Watcher, pMsg) != 0)
                usleep(100);
        } else if (Mode == 2) { // hunts and attaches
            MSG_CloseRemote("peer", "watcher");
            Watcher = FindSpid("peer", "watcher");
            static Watch Nobody;
            static const MSG_Callback NobodyOpen = {OnOpen, &Nobody, 0, 0, 0};
            MSG_OpenRemoteAsync("peer", ("nobody" + std::to_string(i % 8)).c_str(), &NobodyOpen, nullptr);
        } else {
            pause();
        }
    }
}

int LinxdDescriptors(pid_t Pid)
{
    const std::filesystem::path Fds = "/proc/" + std::to_string(Pid) + "/fd";
    return (int)std::distance(std::filesystem::directory_iterator(Fds), std::filesystem::directory_iterator());
}

// linxd's descriptors once the last peer's sockets are closed: the count
// when it reaches Target, or once it stays the same for 50 ms.
int SettledDescriptors(pid_t Linxd, int Target)
{
    int Last = LinxdDescriptors(Linxd);
    for (int i = 0; i < 100 && Last != Target; i++) {
        usleep(50 * 1000);
        const int Now = LinxdDescriptors(Linxd);
        if (Target == 0 && Now == Last)
            break;
        Last = Now;
    }
    return Last;
}

TEST(Chaos, EveryDeathIsReportedOnceAndLinxdEndsAsItStarted)
{
    ASSERT_EQ(0u, MSG_OpenLocal("watcher"));
    LINX *pAttacher = linx_open("attacher", 0, nullptr);
    ASSERT_NE(nullptr, pAttacher);
    const pid_t Linxd = FindLinxd(TestInstance()).at(0);
    Watch W;
    const MSG_Callback Open = {OnOpen, &W, 0, 0, 0}, Close = {OnClose, &W, 0, 0, 0};
    ASSERT_EQ(0u, MSG_OpenRemoteAsync("watcher", "peer", &Open, &Close));

    srand(20261123);
    long RssStart = 0;
    int FdsStart = 0, AttachSignals = 0;
    for (int Kill = 0; Kill < kKills; Kill++) {
        const int Mode = rand() % 3;
        const pid_t Peer = StartChild([Mode]() -> int { RunPeer(Mode); });
        W.bKilled = false;
        ASSERT_TRUE(Pump("watcher", 5000, [&] { return W.Opens == Kill + 1; }, 1)) << "incarnation " << Kill;
        union LINX_SIGNAL *pAttach = nullptr;
        const LINX_OSATTREF Ref = linx_attach(pAttacher, &pAttach, W.PeerId);
        ASSERT_NE(0u, Ref);
        Pump("watcher", rand() % 4, [] { return false; }, 1); // a random moment of its life
        W.bKilled = true;
        kill(Peer, SIGKILL);
        ASSERT_TRUE(Pump("watcher", 5000, [&] { return W.Closes == Kill + 1; }, 1)) << "death " << Kill;
        AttachSignals += ReceiveOne(pAttacher, 5000) != 0;
        WaitChild(Peer);
        if (Kill == 0) { // linxd has served and buried one peer: its steady state
            FdsStart = SettledDescriptors(Linxd, 0);
            RssStart = RssKiB(Linxd);
        }
    }
    EXPECT_FALSE(W.bEarlyClose) << "a close callback ran before its kill";
    EXPECT_EQ(kKills, W.Closes);
    EXPECT_EQ(kKills, AttachSignals);
    EXPECT_EQ(0u, ReceiveOne(pAttacher, 100)) << "no attach fired twice";
    Pump("watcher", 50, [] { return false; }, 1);
    EXPECT_FALSE(Pump("watcher", 100, [&] { return W.Closes > kKills; }, 1)) << "no close callback ran twice";
    EXPECT_EQ(FdsStart, SettledDescriptors(Linxd, FdsStart));
#ifdef __SANITIZE_ADDRESS__
    const long kGrowthKiB = 32 * 1024; // ASan keeps freed memory in quarantine
#else
    const long kGrowthKiB = 2048;
#endif
    EXPECT_LT(RssKiB(Linxd) - RssStart, kGrowthKiB) << "linxd's memory grew by KiB";
    linx_close(pAttacher);
    MSG_CloseLocal("watcher");
}

} // namespace
