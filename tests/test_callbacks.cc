// SPDX-License-Identifier: Apache-2.0
// Callback dispatch: order, one-shot entries, internal and user kinds,
// unregistration by all five fields, purging a remote's open/close pair.
#include "test_kit.h"

namespace {

std::string gCalls;

uint32_t Record(void *pContext, MSG_Msg *)
{
    gCalls += (const char *)pContext;
    return 0;
}

class Callbacks : public testing::Test {
protected:
    void SetUp() override
    {
        gCalls.clear();
        ASSERT_EQ(0u, MSG_OpenLocal("E"));
        pEndpoint = MSG_GetLocalEndpoint("E");
        pMsg = MSG_AllocMsg(7, 0, 0);
    }
    void TearDown() override
    {
        MSG_ReleaseMsg(pMsg);
        MSG_CloseLocal("E");
        MSG_CloseLocal(nullptr);
    }
    // Dispatches Type and returns which callbacks ran, or the failure.
    std::string Ran(MSG_Type Type, uint32_t bInternal = 0)
    {
        gCalls.clear();
        pMsg->MsgType = Type;
        const MSG_Status Status = bInternal ? MSG_ProcessCallback_Private(pEndpoint, pMsg, 1)
                                            : MSG_ProcessCallback("E", pMsg);
        return Status == MSG_OK ? gCalls : "status " + std::to_string(Status);
    }
    LocalEndpoint *pEndpoint = nullptr;
    MSG_Msg *pMsg = nullptr;
};

uint32_t Reentrant(void *pContext, MSG_Msg *pMsg)
{
    // A callback may change the list while it runs: no lock is held.
    gCalls += "R";
    MSG_UnregisterCallbackHelper("E", Reentrant, pContext, 7, 7, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"N", 7, 7, 1);
    (void)pMsg;
    return 0;
}

// Matching callbacks run oldest first; one-shot entries once; a callback
// may change the list while it runs; internal and user callbacks never mix.
TEST_F(Callbacks, DispatchOrderOneShotEntriesAndKinds)
{
    MSG_RegisterCallbackHelper("E", Record, (void *)"A", 5, 9, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"B", 5, 7, 1);
    MSG_RegisterCallbackHelper("E", Record, (void *)"C", 8, 9, 0);
    EXPECT_EQ("AB", Ran(7));
    EXPECT_EQ("A", Ran(7));
    EXPECT_EQ("status 304", Ran(10));
    MSG_UnregisterCallbackHelper("E", Record, (void *)"A", 5, 9, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"O", 7, 7, 1);
    EXPECT_EQ("O", Ran(7));
    EXPECT_EQ("status 304", Ran(7));
    MSG_RegisterCallbackHelper("E", Reentrant, nullptr, 7, 7, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"S", 7, 7, 0);
    EXPECT_EQ("RS", Ran(7));
    EXPECT_EQ("SN", Ran(7));

    MSG_RegisterCallbackHelper("E", Record, (void *)"U", 0, 0xFFFFFFFF, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"I", 0x10000002, 0x10000003, 0);
    EXPECT_EQ("I", Ran(0x10000002, 1));
    EXPECT_EQ("U", Ran(0x10000002)) << "the all-types user callback is a user callback";
    EXPECT_EQ("", Ran(0x10000010, 1)) << "an internal message matching nothing is fine";
}

// Unregistration matches all five fields, one entry at a time; bad
// registrations are refused; a purge removes exactly a remote's open and
// close entries.
TEST_F(Callbacks, RegistrationRulesAndPurges)
{
    MSG_RegisterCallbackHelper("E", Record, (void *)"D", 1, 9, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"D", 1, 9, 0);
    EXPECT_EQ("DD", Ran(7));
    EXPECT_EQ(304u, MSG_UnregisterCallbackHelper("E", Record, (void *)"D", 1, 9, 1));
    EXPECT_EQ(304u, MSG_UnregisterCallbackHelper("E", Record, (void *)"d", 1, 9, 0));
    EXPECT_EQ(304u, MSG_UnregisterCallbackHelper("E", Record, (void *)"D", 1, 8, 0));
    EXPECT_EQ(0u, MSG_UnregisterCallbackHelper("E", Record, (void *)"D", 1, 9, 0));
    EXPECT_EQ("D", Ran(7));

    EXPECT_EQ(301u, MSG_RegisterCallbackHelper("E", Record, nullptr, 9, 5, 0));
    EXPECT_EQ(301u, MSG_RegisterCallbackHelper("E", Record, nullptr, 5, 9, 2));
    EXPECT_EQ(301u, MSG_RegisterCallbackHelper("E", nullptr, nullptr, 5, 9, 0));
    EXPECT_EQ(301u, MSG_RegisterCallback(nullptr, nullptr));
    EXPECT_EQ(104u, MSG_RegisterCallbackHelper("nosuch", Record, nullptr, 5, 9, 0));
    EXPECT_EQ(104u, MSG_UnregisterCallbackHelper("nosuch", Record, nullptr, 5, 9, 0));
    EXPECT_EQ(301u, MSG_UnregisterCallback("E", nullptr));
    EXPECT_EQ(302u, MSG_ProcessCallback("nosuch", pMsg));
    EXPECT_EQ(301u, MSG_ProcessCallback("E", nullptr));

    MSG_RegisterCallbackHelper("E", Record, (void *)"o", 0x10000004, 0x10000004, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"c", 0x10000005, 0x10000005, 0);
    MSG_RegisterCallbackHelper("E", Record, (void *)"b", 0x10000004, 0x10000005, 0);
    EXPECT_EQ(0u, MSG_PurgeOpenCloseCallbacks(pEndpoint, 0x10000004));
    EXPECT_EQ("b", Ran(0x10000004, 1));
    EXPECT_EQ("b", Ran(0x10000005, 1));
}

} // namespace
