// SPDX-License-Identifier: Apache-2.0
// The remote endpoint table: states, type pairs, lookups by name and id,
// and the $remote token that reads it.
#include "test_kit.h"

#include "msg_remote_endpoint.h"

namespace {

class RemoteTable : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0u, MSG_OpenLocal("table"));
        pTable = MSG_GetLocalEndpoint("table");
    }
    void TearDown() override { MSG_CloseLocal("table"); }
    LocalEndpoint *pTable = nullptr;
};

TEST(OpenCloseTypes, PairsWrapToTheStartOfTheRange)
{
    EXPECT_EQ(0x10000002u, jNextOpenCloseType(0x10000000));
    EXPECT_EQ(0x1FFFFFFEu, jNextOpenCloseType(0x1FFFFFFC));
    EXPECT_EQ(0x10000000u, jNextOpenCloseType(0x1FFFFFFE)) << "0x1FFFFFFE/0x1FFFFFFF is the last pair";
}

// A record is hunted, opened, closed (keeping its name to hunt again) and
// deleted; a nameless record is added only for an id not known yet.
TEST_F(RemoteTable, HuntedOpenClosedAndBack)
{
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
