// SPDX-License-Identifier: Apache-2.0
// Publishing from several threads while subscribers come and go: local and
// remote subscriptions change under the walk, subscribers close with copies
// in flight, and every subscription of a closed subscriber is purged.  All
// traffic is copied to a telemetry collector meanwhile, and another thread
// dumps every endpoint: neither may deadlock against a publisher.
#include "test_kit.h"

namespace {

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
    std::vector<std::thread> Publishers, Subscribers;
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
    for (int t = 0; t < 3; t++)
        Subscribers.emplace_back([&, t] {
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
    for (std::thread &T : Subscribers)
        T.join();
    bChurned = true;
    for (std::thread &T : Publishers)
        T.join();
    struct timespec Start;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    while (MSG_CountNotifications_Private("pub") != 0 && MSG_GetMsecSince(Start) < 5000)
        usleep(1000);
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
