// SPDX-License-Identifier: Apache-2.0
// Local endpoints: opening and closing, the registry and its lookups, the
// thread's private endpoint and its end with the thread, and the queries
// on an endpoint's socket; and a local endpoint's table of remote ones:
// states, type pairs, lookups by name and id, and the $remote token that
// reads it.  (What a forked child starts with shows in the
// telemetry suite's announcements.)
#include "test_kit.h"

#include <future>

#include "msg_remote_endpoint.h"

namespace {

int32_t CountOne(void *pCount, LocalEndpoint *)
{
    ++*(int32_t *)pCount;
    return 0;
}

int32_t CountEndpoints()
{
    int32_t Count = 0;
    MSG_ForAllLocalEndpoints(CountOne, &Count);
    return Count;
}

// The name of this thread's private endpoint.
std::string PrivateName()
{
    char Name[64];
    snprintf(Name, sizeof Name, "_%lx_%d_0", (unsigned long)pthread_self(), (int)getpid());
    return Name;
}

using Endpoints = MessageLayerTest;

// The private endpoint is per thread, another thread's cannot be closed,
// it closes when its thread ends, and reopens under its name.
TEST_F(Endpoints, PrivateEndpointIsPerThreadAndReopensUnderItsName)
{
    ASSERT_EQ(0u, MSG_OpenLocal(nullptr));
    LocalEndpoint *pMine = MSG_GetMyEndpoint();
    ASSERT_NE(nullptr, pMine);
    EXPECT_EQ(303u, MSG_OpenLocal(nullptr));
    EXPECT_EQ(pMine, MSG_GetMyEndpoint());
    EXPECT_EQ(1u, MSG_IsLocalOpen(PrivateName().c_str()));

    std::promise<std::string> Opened;
    std::promise<void> Tried;
    std::thread Other([&] {
        MSG_OpenLocal(nullptr);
        Opened.set_value(PrivateName());
        Tried.get_future().wait();
        EXPECT_NE(pMine, MSG_GetMyEndpoint());
    });
    const std::string OtherName = Opened.get_future().get();
    EXPECT_EQ(301u, MSG_CloseLocal(OtherName.c_str())) << "another thread's";
    EXPECT_EQ(1u, MSG_IsLocalOpen(OtherName.c_str()));
    Tried.set_value();
    Other.join();
    EXPECT_EQ(0u, MSG_IsLocalOpen(OtherName.c_str())) << "closed when its thread ended";

    EXPECT_EQ(0u, MSG_CloseLocal(nullptr));
    EXPECT_EQ(nullptr, MSG_GetMyEndpoint());
    EXPECT_EQ(302u, MSG_CloseLocal(nullptr));
    MSG_Msg *pMsg = MSG_AllocMsg(1, 0, 0);
    ASSERT_NE(nullptr, pMsg);
    EXPECT_EQ(1u, MSG_IsLocalOpen(PrivateName().c_str())) << "reopened under the same name";
    MSG_ReleaseMsg(pMsg);
}

// A name opened twice is a conflict; the registry finds the newest of a
// name and visits every endpoint.
TEST_F(Endpoints, RegistryRefusesAConflictFindsTheNewestAndVisitsAll)
{
    EXPECT_EQ(nullptr, MSG_GetMyEndpoint());
    ASSERT_EQ(0u, MSG_OpenLocal("radio"));
    EXPECT_EQ(nullptr, MSG_GetMyEndpoint()) << "a public endpoint is nobody's current endpoint";
    EXPECT_EQ(1u, MSG_IsLocalOpen("radio"));
    TakeLoggedLines();
    EXPECT_EQ(303u, MSG_OpenLocal("radio"));
    EXPECT_EQ(1, Occurrences(TakeLoggedText(), "MSG_OpenLocal: result 303/endpoint name conflict: "
                                               "local ep \"radio\", bPublic=1, Linx handle (nil), SPID 0x0\n"));
    EXPECT_EQ(1, CountEndpoints());
    EXPECT_EQ(0u, MSG_CloseLocal("radio"));
    EXPECT_EQ(0u, MSG_IsLocalOpen("radio"));
    EXPECT_EQ(302u, MSG_CloseLocal("radio"));
    EXPECT_EQ(301u, MSG_IsLocalOpen(nullptr));

    LINX *pA = linx_open("twin", 0, nullptr);
    LINX *pB = linx_open("twin", 0, nullptr);
    LocalEndpoint *pFirst = nullptr, *pSecond = nullptr;
    ASSERT_EQ(0u, MSG_AddLocalEndpoint("twin", pA, linx_get_spid(pA), 1, &pFirst));
    ASSERT_EQ(0u, MSG_AddLocalEndpoint("twin", pB, linx_get_spid(pB), 1, &pSecond));
    EXPECT_EQ(pSecond, MSG_GetLocalEndpoint("twin"));
    EXPECT_EQ(1u, MSG_IsLocalEndpointValid(pFirst));

    static const int32_t Codes[] = {5, 0, 7, 0};
    ASSERT_EQ(0u, MSG_OpenLocal("c"));
    ASSERT_EQ(0u, MSG_OpenLocal("d"));
    int Visit = 0;
    EXPECT_EQ(7, MSG_ForAllLocalEndpoints([](void *p, LocalEndpoint *) { return Codes[(*(int *)p)++ % 4]; }, &Visit));
    EXPECT_EQ(4, Visit);

    EXPECT_EQ(0u, MSG_DeleteLocalEndpoint(pSecond));
    EXPECT_EQ(pFirst, MSG_GetLocalEndpoint("twin"));
    TakeLoggedLines();
    EXPECT_EQ(302u, MSG_DeleteLocalEndpoint(pSecond));
    EXPECT_TRUE(TakeLoggedLines().empty());
    EXPECT_EQ(0u, MSG_IsLocalEndpointValid(pSecond));
    MSG_DeleteLocalEndpoint(pFirst);
    MSG_CloseLocal("c");
    MSG_CloseLocal("d");
    EXPECT_EQ(0, CountEndpoints());
    EXPECT_EQ(0, MSG_ForAllLocalEndpoints([](void *, LocalEndpoint *) { return 9; }, nullptr));
}

TEST_F(Endpoints, SocketQueries)
{
    ASSERT_EQ(0u, MSG_OpenLocal("queried"));
    LINX *pPeer = linx_open("peer-of-queried", 0, nullptr);
    const uint32_t Own = HuntAndWait(pPeer, "queried", 2000);
    EXPECT_GE(MSG_GetLocalFileDesc("queried"), 0);
    EXPECT_EQ(-1, MSG_GetLocalFileDesc("unknown"));

    for (int i = 0; i < 3; i++) {
        SendSignal(pPeer, Own, 1, i);
    }
    EXPECT_EQ(3, MSG_GetNumMsgsPending("queried", 0));
    EXPECT_EQ(0, MSG_GetNumMsgsPending("queried", linx_get_spid(pPeer)));
    EXPECT_EQ(-1, MSG_GetNumMsgsPending("unknown", 0));

    uint32_t Pid = 0;
    char Name[64];
    EXPECT_EQ(0u, MSG_GetEndpointPidName("queried", linx_get_spid(pPeer), &Pid, Name, sizeof Name));
    EXPECT_EQ((uint32_t)getpid(), Pid);
    EXPECT_STREQ("peer-of-queried", Name);
    EXPECT_EQ(104u, MSG_GetEndpointPidName("unknown", 1, &Pid, Name, sizeof Name));
    EXPECT_EQ(301u, MSG_GetEndpointPidName("queried", 0, &Pid, Name, sizeof Name));
    EXPECT_EQ(203u, MSG_GetEndpointPidName("queried", 0x7FFFFFF0, &Pid, Name, sizeof Name));
    EXPECT_EQ(0u, Pid);
    linx_close(pPeer);
    MSG_CloseLocal("queried");
}

// ---- The remote endpoint table ------------------------------------------------

class RemoteTable : public MessageLayerTest {
protected:
    RemoteTable() : MessageLayerTest({"table"}) {}
};

// A record is hunted, opened, closed (keeping its name to hunt again) and
// deleted; a nameless record is added only for an id not known yet.
TEST_F(RemoteTable, HuntedOpenClosedAndBack)
{
    LocalEndpoint *const pTable = MSG_GetLocalEndpoint("table");
    uint32_t Open = 0, Again = 0, Next = 0;
    ASSERT_EQ(0u, MSG_NewRemoteEndpoint(pTable, "peer", 0, &Open));
    EXPECT_EQ(309u, MSG_NewRemoteEndpoint(pTable, "peer", 0, &Again));
    EXPECT_EQ(Open, Again);
    ASSERT_EQ(0u, MSG_NewRemoteEndpoint(pTable, "next", 0, &Next));
    EXPECT_EQ(Open + 2, Next) << "each record a fresh even/odd pair";

    EXPECT_EQ(301u, MSG_SetRemoteStateOpen(pTable, 0, Open));
    EXPECT_EQ(0u, MSG_SetRemoteStateOpen(pTable, 0x143, Open));
    EXPECT_EQ(105u, MSG_SetRemoteStateOpen(pTable, 0x144, Open)) << "only a hunted record opens";
    EXPECT_EQ(306u, MSG_NewRemoteEndpoint(pTable, "peer", 0, nullptr));
    char Name[4];
    EXPECT_EQ(4, MSG_GetRemoteName(pTable, 0x143, Name, sizeof Name));
    EXPECT_STREQ("pee", Name);
    TakeLoggedLines();
    MSG_LogOs(3, "f", 1, "fn", "$plocal $remote $remote", pTable, 0x143u, 0x999u);
    EXPECT_EQ(1, Occurrences(TakeLoggedText(), "remote ep 0x143/\"peer\" remote ep 0x999/\"unknown\""));

    EXPECT_EQ(105u, MSG_SetRemoteStateClosed(pTable, 0x999, Open + 1, Name, sizeof Name));
    EXPECT_EQ(0u, MSG_SetRemoteStateClosed(pTable, 0x143, Open + 1, Name, sizeof Name));
    EXPECT_STREQ("pee", Name) << "kept: its name is hunted again";
    EXPECT_EQ(309u, MSG_NewRemoteEndpoint(pTable, "peer", 0, nullptr));
    ASSERT_EQ(0u, MSG_DeleteRemoteEndpoint(pTable, "peer", nullptr, nullptr));
    EXPECT_EQ(105u, MSG_DeleteRemoteEndpoint(pTable, "peer", nullptr, nullptr));

    MSG_SetRemoteStateOpen(pTable, 0x300, Next);
    EXPECT_EQ(0u, MSG_NewNamelessRemoteEndpoint(pTable, 0x300)) << "known already: nothing added";
    EXPECT_EQ(0u, MSG_NewNamelessRemoteEndpoint(pTable, 0x301));
    EXPECT_EQ(0, MSG_GetRemoteName(pTable, 0x301, Name, sizeof Name)) << "a nameless record gives no name";
}

} // namespace
