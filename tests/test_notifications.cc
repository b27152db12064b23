// SPDX-License-Identifier: Apache-2.0
// Notifications: subscriptions made by the publisher and by request from
// other processes, publishing to several subscribers when one is gone,
// subscribers that die, requests another process malformed, and
// publishers and subscribers in threads of one process.
#include "test_kit.h"

#include "msg_local_endpoint.h"

namespace {

constexpr MSG_Type kNews = 0x150;

// Publishes one message of Type carrying Value.
MSG_Status Publish(MSG_Type Type, uint32_t Value = 0)
{
    MSG_Msg *pMsg = MSG_AllocMsg(Type, 0, sizeof Value);
    memcpy(MSG_GetPayloadMutable(pMsg), &Value, sizeof Value);
    return MSG_SendNotification("pub", pMsg);
}

// Copies of Type that arrive at a local endpoint within a short wait; each
// must come from the publisher.
int Copies(const char *pName, MSG_Type Type = kNews)
{
    int Count = 0;
    while (MSG_Msg *pMsg = MSG_RecvMsg(pName, Type, 100)) {
        EXPECT_EQ(SpidOf("pub"), MSG_GetSender(pMsg));
        MSG_ReleaseMsg(pMsg);
        Count++;
    }
    return Count;
}


class Notifications : public MessageLayerTest {
protected:
    Notifications() : MessageLayerTest({"pub", "a", "c"}) {}
};

TEST_F(Notifications, PublisherSubscriptionsDuplicatesAndPurges)
{
    const uint32_t A = SpidOf("a"), C = SpidOf("c");
    EXPECT_EQ(301u, MSG_RegisterNotification("pub", 0x10, 0x20, 0));
    EXPECT_EQ(301u, MSG_RegisterNotification("pub", 0x20, 0x10, A));
    EXPECT_EQ(301u, MSG_RegisterNotification("pub", 0x10, 0x1000000, A)) << "only user types";
    EXPECT_EQ(104u, MSG_RegisterNotification("nosuch", 0x10, 0x20, A));
    MSG_AllocMsg(1, 0, 0); // opens this thread's private endpoint: no publisher
    EXPECT_EQ(104u, MSG_RegisterNotification(MSG_GetMyEndpoint()->Name, 0x10, 0x20, A));
    EXPECT_EQ(0, MSG_CountNotifications_Private("pub"));
    EXPECT_EQ(-1, MSG_CountNotifications_Private("nosuch"));

    ASSERT_EQ(0u, MSG_RegisterNotification("pub", 0x10, 0xFFFFFF, A));
    ASSERT_EQ(0u, MSG_RegisterNotification("pub", 0x10, 0x20, A));
    ASSERT_EQ(0u, MSG_RegisterNotification("pub", 0x10, 0x20, A)) << "equal entries are kept";
    ASSERT_EQ(0u, MSG_RegisterNotification("pub", 0x15, 0x15, C));
    EXPECT_EQ(4, MSG_CountNotifications_Private("pub"));
    EXPECT_EQ(0u, Publish(0x15));
    EXPECT_EQ(3, Copies("a", 0x15)) << "one copy per matching entry";
    EXPECT_EQ(1, Copies("c", 0x15));

    EXPECT_EQ(305u, MSG_UnregisterNotification("pub", 0x10, 0x1F, A)) << "ranges must be equal";
    EXPECT_EQ(0u, MSG_UnregisterNotification("pub", 0x10, 0x20, A));
    EXPECT_EQ(3, MSG_CountNotifications_Private("pub"));
    EXPECT_EQ(0u, Publish(0x15));
    EXPECT_EQ(2, Copies("a", 0x15));
    EXPECT_EQ(1, Copies("c", 0x15));

    MSG_DebugSetFlag(MSG_DEBUG_LOG_NO_NTFY);
    EXPECT_EQ(305u, Publish(0x5)) << "nobody covers it; the message is still released";
    EXPECT_GT(Occurrences(TakeLoggedText(), "sent to 0 endpoints w/0 errs"), 0);
    EXPECT_EQ(104u, MSG_SendNotification("nosuch", MSG_AllocMsg(0x15, 0, 0)));
    EXPECT_EQ(301u, MSG_SendNotification("pub", nullptr));

    LocalEndpoint *pPub = MSG_GetLocalEndpoint("pub");
    EXPECT_EQ(0u, MSG_PurgeNotifications(pPub, A));
    EXPECT_EQ(1, MSG_CountNotifications_Private("pub")) << "C's stays";
    EXPECT_EQ(0u, MSG_PurgeNotifications(pPub, A)) << "nothing left of A";

    // A copy that cannot be sent spares the others.
    ASSERT_EQ(0u, MSG_OpenLocal("gone"));
    const uint32_t Gone = SpidOf("gone");
    MSG_CloseLocal("gone");
    for (uint32_t Subscriber : {A, Gone, C})
        ASSERT_EQ(0u, MSG_RegisterNotification("pub", 0x100, 0x1FF, Subscriber));
    EXPECT_EQ(103u, Publish(kNews, 7));
    EXPECT_GT(Occurrences(TakeLoggedText(), "sent to 3 endpoints w/1 errs"), 0);
    EXPECT_EQ(1, Copies("a"));
    EXPECT_EQ(1, Copies("c"));
}

int CountRequest(void *pContext, MSG_Msg *)
{
    ++*(int *)pContext;
    return 0;
}

// A subscriber process: subscribes remotely to two ranges, withdraws one,
// and with bCheck takes the copy the test publishes, then ends.
int Subscribe(const char *pName, bool bCheck)
{
    MSG_OpenLocal(pName);
    const uint32_t Pub = FindSpid(pName, "pub");
    if (Pub == 0 || MSG_RegisterNotificationRemote(pName, 0x100, 0x1FF, Pub) != 0 ||
        MSG_RegisterNotificationRemote(pName, 0x300, 0x3FF, Pub) != 0 ||
        MSG_UnregisterNotificationRemote(pName, 0x300, 0x3FF, Pub) != 0)
        return 1;
    if (!bCheck) {
        pause();
        return 0;
    }
    MSG_Msg *pCopy = MSG_RecvMsg(pName, kNews, 5000);
    uint32_t Value = 0;
    if (pCopy != nullptr)
        memcpy(&Value, MSG_GetPayload(pCopy), sizeof Value);
    return pCopy != nullptr && MSG_GetSender(pCopy) == Pub && Value == 42 ? 0 : 2;
}

TEST_F(Notifications, RemoteSubscribersAreServedAndPurgedWhenTheyDie)
{
    int Requests = 0;
    ASSERT_EQ(0u, MSG_RegisterCallbackHelper("pub", (MSG_CallbackFunc)CountRequest, &Requests, MSG_NTFY_REQ_REGISTER,
                                             MSG_NTFY_REQ_UNREGISTER, 0));
    const pid_t Reader = StartChild([] { return Subscribe("reader", true); });
    const pid_t Sleeper = StartChild([] { return Subscribe("sleeper", false); });
    ASSERT_TRUE(Pump("pub", 5000, [&] { return Requests == 6; }));
    EXPECT_EQ(2, MSG_CountNotifications_Private("pub"));

    EXPECT_EQ(0u, Publish(kNews, 42));
    EXPECT_EQ(0, WaitChild(Reader)) << "its copy came from the publisher";
    StopChild(Sleeper);
    EXPECT_TRUE(Pump("pub", 5000, [] { return MSG_CountNotifications_Private("pub") == 0; }))
        << "both purged by their close messages";
}

TEST_F(Notifications, MalformedRequestsAreRefusedAndTheLoopGoesOn)
{
    LINX *pForger = linx_open("forger", 0, nullptr); // open throughout: a subscriber that lives
    struct {
        MSG_Msg Header;
        uint32_t Range[2];
    } Request = {};
    Request.Header.MsgType = MSG_NTFY_REQ_REGISTER | MSG_TYPE_USER_SHIFT;
    Request.Header.InUseMagic = MAGIC_NUM_MSG_ALLOC;
    Request.Header.PayloadBytes = 8;
    Request.Range[0] = 0x30;
    Request.Range[1] = 0x10;
    SendRaw(pForger, SpidOf("pub"), &Request, sizeof(MSG_Msg) + 4); // half a range
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("pub", 500));
    EXPECT_GT(Occurrences(TakeLoggedText(), "MSG_NotificationReqHandler: result 300/unknown error"), 0);
    EXPECT_EQ(0, MSG_CountNotifications_Private("pub"));

    Request.Header.MsgType = 0x30000000 | MSG_TYPE_USER_SHIFT;
    SendRaw(pForger, SpidOf("pub"), &Request, sizeof Request);
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("pub", 500));
    EXPECT_GT(Occurrences(TakeLoggedText(), "unknown type refused"), 0);

    Request.Header.MsgType = MSG_NTFY_REQ_REGISTER | MSG_TYPE_USER_SHIFT;
    SendRaw(pForger, SpidOf("pub"), &Request, sizeof Request); // an upside-down range is taken as it is
    EXPECT_TRUE(Pump("pub", 2000, [] { return MSG_CountNotifications_Private("pub") == 1; }));
    EXPECT_EQ(305u, Publish(0x20)) << "and never matches";

    // A flood of requests from one subscriber stops growing the list.
    for (int i = 0; i < 1100; i++)
        SendRaw(pForger, SpidOf("pub"), &Request, sizeof Request);
    EXPECT_TRUE(Pump("pub", 10000, [] { return MSG_GetNumMsgsPending("pub", 0) == 0; }));
    EXPECT_EQ(1024, MSG_CountNotifications_Private("pub"));
    EXPECT_GT(Occurrences(TakeLoggedText(), "subscriptions already: request refused"), 0);
    linx_close(pForger);
}

// Publishing from several threads while subscribers come and go (local
// and remote subscriptions change under the walk, subscribers close with
// copies in flight, every subscription of a closed subscriber is purged),
// with all traffic copied to a telemetry collector, the tracker on, and
// another thread dumping every endpoint: nothing may deadlock against a
// publisher.
TEST(NotificationThreads, PublishersAndChurningSubscribers)
{
    MSG_DebugSetFlag(MSG_DEBUG_TELEMETRY_SEND | MSG_DEBUG_TELEMETRY_RECV | MSG_DEBUG_TRACKER);
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
