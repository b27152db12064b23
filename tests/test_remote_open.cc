// SPDX-License-Identifier: Apache-2.0
// Opening and closing remote endpoints between real processes: asynchronous
// opens with their callbacks (one-shot ones ending at the peer's kill -9),
// synchronous opens with their timeouts, and closing a peer.
#include "test_kit.h"

#include "msg_local_endpoint.h"

namespace {

struct Event {
    MSG_Type Type;
    uint32_t Sender;
};

uint32_t Record(void *pContext, MSG_Msg *pMsg)
{
    ((std::vector<Event> *)pContext)->push_back({MSG_GetType(pMsg), MSG_GetSender(pMsg)});
    return 0;
}

// Pending hunts LINX holds on behalf of the endpoint (by default the
// calling thread's private one).
uint32_t PendingHunts(const LocalEndpoint *pEndpoint = MSG_GetMyEndpoint())
{
    LINX *pLinx = linx_open("stat-reader", 0, nullptr);
    struct linx_info_stat *pStat = nullptr;
    uint32_t Hunts = ~0u;
    if (linx_get_stat(pLinx, pEndpoint->Spid, &pStat) == 0) {
        Hunts = pStat->hunts;
        linx_free_stat(pLinx, &pStat);
    }
    linx_close(pLinx);
    return Hunts;
}

class RemoteOpen : public MessageLayerTest {
protected:
    RemoteOpen() : MessageLayerTest({"watcher"}) {}
    MSG_Status OpenAsync(const char *pName, uint32_t bOneShot)
    {
        const MSG_Callback OnOpen = {Record, &Opened, 0, 0, bOneShot};
        const MSG_Callback OnClose = {Record, &Closed, 0, 0, bOneShot};
        return MSG_OpenRemoteAsync("watcher", pName, &OnOpen, &OnClose);
    }
    bool PumpUntil(const std::vector<Event> &Events, size_t Count, int TimeoutMs = 5000)
    {
        return Pump("watcher", TimeoutMs, [&] { return Events.size() >= Count; });
    }
    std::vector<Event> Opened, Closed;
};

// A peer opened and closed again and again while it is down keeps one hunt
// pending in LINX, and that hunt opens the record when the peer comes; a
// one-shot record ends at the peer's first death, where a persistent one
// (the demo's relay) hunts again.
TEST_F(RemoteOpen, OneHuntForAnAbsentPeerAndOneShotRecordsEndAtTheFirstLoss)
{
    const uint32_t Before = PendingHunts(MSG_GetLocalEndpoint("watcher"));
    for (int Try = 0; Try < 5000; Try++) {
        ASSERT_EQ(0u, OpenAsync("mayfly", 1)) << Try;
        ASSERT_EQ(0u, MSG_CloseRemote("watcher", "mayfly")) << Try;
    }
    ASSERT_EQ(0u, OpenAsync("mayfly", 1));
    EXPECT_EQ(Before + 1, PendingHunts(MSG_GetLocalEndpoint("watcher")));
    EXPECT_EQ(309u, OpenAsync("mayfly", 1)) << "its hunt is in progress";
    pid_t Peer = StartPeer("mayfly");
    ASSERT_TRUE(PumpUntil(Opened, 1));
    EXPECT_EQ(MSG_GetRemoteId("watcher", "mayfly"), Opened.back().Sender);
    EXPECT_EQ(306u, OpenAsync("mayfly", 1)) << "open already";
    StopChild(Peer);
    ASSERT_TRUE(PumpUntil(Closed, 1));
    EXPECT_EQ(Opened[0].Sender, Closed[0].Sender);
    EXPECT_EQ(Opened[0].Type + 1, Closed[0].Type) << "a record's pair of types";
    Peer = StartPeer("mayfly");
    EXPECT_FALSE(PumpUntil(Opened, 2, 300)) << "a one-shot record ends at the first loss";
    EXPECT_EQ(0u, OpenAsync("mayfly", 1)) << "and can be opened anew";
    EXPECT_TRUE(PumpUntil(Opened, 2));
    StopChild(Peer);
}

// A close callback registered for a peer known by id fires once at its
// death, and the record goes with it; a closed remote is forgotten and its
// attach withdrawn: no close message comes at its death.
TEST_F(RemoteOpen, CloseCallbacksAndClosingARemote)
{
    const pid_t Known = StartPeer("known"), Doomed = StartPeer("doomed");
    const uint32_t Id = FindSpid("watcher", "known");
    ASSERT_EQ(0u, OpenAsync("doomed", 0));
    ASSERT_TRUE(PumpUntil(Opened, 1)); // also attaches the synchronously opened record
    // The record is refreshed with new types; its first attach is withdrawn.
    ASSERT_EQ(0u, MSG_RegisterCloseCallback("watcher", "known", Id, Record, &Closed, 1));
    EXPECT_EQ(301u, MSG_RegisterCloseCallback("watcher", "known", 0, Record, &Closed, 1));
    EXPECT_EQ(104u, MSG_RegisterCloseCallback("nosuch", "known", Id, Record, &Closed, 1));
    EXPECT_EQ(0u, MSG_CloseRemote("watcher", "doomed"));
    EXPECT_EQ(105u, MSG_CloseRemote("watcher", "doomed"));
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("watcher", 0)) << "detaches the withdrawn attach";
    EXPECT_EQ(301u, MSG_CloseRemote("watcher", ""));
    TakeLoggedLines();
    EXPECT_EQ(302u, MSG_CloseRemote("nosuch", "doomed"));
    EXPECT_EQ(2u, TakeLoggedLines().size()) << "the local endpoint's line and the outcome line";
    StopChild(Doomed);
    usleep(100000);
    EXPECT_EQ(0, MSG_GetNumMsgsPending("watcher", 0)) << "no close message comes for a closed remote";
    StopChild(Known);
    ASSERT_TRUE(PumpUntil(Closed, 1));
    EXPECT_FALSE(PumpUntil(Closed, 2, 200)) << "once";
    EXPECT_EQ(Id, Closed[0].Sender);
    EXPECT_EQ(0u, MSG_GetRemoteId("watcher", "known")) << "a just-once record goes with its peer";
}

TEST_F(RemoteOpen, AsyncOpenChecksItsArgumentsAndUndoesARefusedHunt)
{
    const MSG_Callback Good = {Record, &Opened, 0, 0, 0};
    MSG_Callback Ranged = Good, Twice = Good, OneShot = Good;
    Ranged.MsgTypeMax = 5;
    Twice.bOneShot = 2;
    OneShot.bOneShot = 1;
    EXPECT_EQ(301u, MSG_OpenRemoteAsync("watcher", "p", &Ranged, nullptr));
    EXPECT_EQ(301u, MSG_OpenRemoteAsync("watcher", "p", &Twice, nullptr));
    EXPECT_EQ(301u, MSG_OpenRemoteAsync("watcher", "p", &Good, &OneShot)) << "one-shot flags differ";
    EXPECT_EQ(302u, MSG_OpenRemoteAsync("nosuch", "p", &Good, nullptr));
    char PrivateName[64];
    MSG_AllocMsg(1, 0, 0); // opens this thread's private endpoint
    snprintf(PrivateName, sizeof PrivateName, "%s", MSG_GetMyEndpoint()->Name);
    EXPECT_EQ(302u, MSG_OpenRemoteAsync(PrivateName, "p", &Good, nullptr)) << "it runs no receive loop";
    EXPECT_EQ(0u, MSG_GetRemoteId("watcher", "p"));

    // linxd holds at most 4096 pending hunts for one socket: the next open
    // fails with 202 and leaves no record behind (else a retry would be 309).
    for (int i = 0; i < 4096; i++)
        ASSERT_EQ(0u, OpenAsync(("absent" + std::to_string(i)).c_str(), 0)) << i;
    TakeLoggedLines();
    EXPECT_EQ(202u, OpenAsync("one-too-many", 0));
    EXPECT_EQ(202u, OpenAsync("one-too-many", 0));
    EXPECT_GT(Occurrences(TakeLoggedText(), "linx_hunt(Linx handle"), 0);
    EXPECT_EQ(0u, MSG_CloseRemote("watcher", "absent0"));
    EXPECT_EQ(105u, MSG_CloseRemote("watcher", "one-too-many"));
}

TEST_F(RemoteOpen, SyncOpenWaitsTimesOutAndIsNotConfusedByLateAnswers)
{
    uint32_t Id = 7;
    EXPECT_EQ(101u, MSG_OpenRemoteSync("watcher", "tardy", 0, &Id));
    EXPECT_EQ(0u, Id);
    for (int Try = 0; Try < 5; Try++)
        EXPECT_EQ(101u, MSG_OpenRemoteSync("watcher", "tardy", 20, &Id)) << "no record is left: never 309";
    EXPECT_EQ(1u, PendingHunts()) << "retries reuse the hunt left with LINX";
    EXPECT_EQ(301u, MSG_OpenRemoteSync("watcher", "tardy", -2, &Id));

    // The peer appears: the hunt's answer arrives late and waits, unselected.
    const pid_t Tardy = StartPeer("tardy");
    usleep(100000);
    EXPECT_EQ(101u, MSG_OpenRemoteSync("watcher", "ghost", 50, &Id)) << "another peer's open ignores it";
    ASSERT_EQ(0u, MSG_OpenRemoteSync("watcher", "tardy", 0, &Id));
    EXPECT_EQ(Id, MSG_GetRemoteId("watcher", "tardy"));
    EXPECT_EQ(306u, MSG_OpenRemoteSync("watcher", "tardy", 0, nullptr));
    EXPECT_EQ(0, MSG_GetNumMsgsPending(MSG_GetMyEndpoint()->Name, 0)) << "the stale answer was dropped";
    EXPECT_EQ(1u, PendingHunts()) << "ghost's";

    // A peer that starts while the open waits; and a synchronously opened
    // peer is forgotten at its death.
    const pid_t Slow = StartChild([] {
        usleep(150000);
        MSG_OpenLocal("slow");
        pause();
        return 0;
    });
    ASSERT_EQ(0u, MSG_OpenRemoteSync("watcher", "slow", 5000, &Id));
    EXPECT_NE(0u, Id);
    StopChild(Slow);
    StopChild(Tardy);
    EXPECT_TRUE(Pump("watcher", 5000, [] { return MSG_GetRemoteId("watcher", "slow") == 0; }));
    EXPECT_TRUE(Pump("watcher", 5000, [] { return MSG_GetRemoteId("watcher", "tardy") == 0; }));
    EXPECT_TRUE(Opened.empty() && Closed.empty()) << "no callbacks for synchronous opens";
}

} // namespace
