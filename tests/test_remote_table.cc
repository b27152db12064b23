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

TEST_F(RemoteTable, HuntedOpenClosedAndBack)
{
    uint32_t Open = 0, Again = 0, Next = 0;
    ASSERT_EQ(0u, MSG_NewRemoteEndpoint(pTable, "peer", 0, &Open));
    EXPECT_EQ(309u, MSG_NewRemoteEndpoint(pTable, "peer", 0, &Again));
    EXPECT_EQ(Open, Again);
    ASSERT_EQ(0u, MSG_NewRemoteEndpoint(pTable, "next", 0, &Next));
    EXPECT_EQ(0u, Open % 2);
    EXPECT_EQ(Open + 2, Next) << "each record a fresh even/odd pair";
    EXPECT_EQ(0u, MSG_GetRemoteId("table", "peer")) << "still hunted";

    EXPECT_EQ(301u, MSG_SetRemoteStateOpen(pTable, 0, Open));
    EXPECT_EQ(0u, MSG_SetRemoteStateOpen(pTable, 0x143, Open));
    EXPECT_EQ(105u, MSG_SetRemoteStateOpen(pTable, 0x144, Open)) << "only a hunted record opens";
    EXPECT_EQ(0x143u, MSG_GetRemoteId("table", "peer"));
    EXPECT_EQ(306u, MSG_NewRemoteEndpoint(pTable, "peer", 0, nullptr));

    char Name[4];
    EXPECT_EQ(4, MSG_GetRemoteName(pTable, 0x143, Name, sizeof Name));
    EXPECT_STREQ("pee", Name);

    TakeLoggedLines();
    MSG_LogOs(3, "f", 1, "fn", "$plocal $remote $remote", pTable, 0x143u, 0x999u);
    std::vector<LoggedLine> Lines = TakeLoggedLines();
    ASSERT_EQ(1u, Lines.size());
    EXPECT_NE(std::string::npos, Lines[0].Text.find("remote ep 0x143/\"peer\" remote ep 0x999/\"unknown\""));

    char Rehunt[3];
    EXPECT_EQ(105u, MSG_SetRemoteStateClosed(pTable, 0x999, Open + 1, Rehunt, sizeof Rehunt));
    EXPECT_EQ(0u, MSG_SetRemoteStateClosed(pTable, 0x143, Open + 1, Rehunt, sizeof Rehunt));
    EXPECT_STREQ("pe", Rehunt) << "kept: its name is hunted again";
    EXPECT_EQ(0u, MSG_GetRemoteId("table", "peer"));
    EXPECT_EQ(309u, MSG_NewRemoteEndpoint(pTable, "peer", 0, nullptr));

    ASSERT_EQ(0u, MSG_DeleteRemoteEndpoint(pTable, "peer", nullptr, nullptr));
    EXPECT_EQ(105u, MSG_DeleteRemoteEndpoint(pTable, "peer", nullptr, nullptr));
}

TEST_F(RemoteTable, DeleteOnCloseAndNamelessRecords)
{
    uint32_t Open = 0;
    MSG_NewRemoteEndpoint(pTable, "once", 1, &Open);
    MSG_SetRemoteStateOpen(pTable, 0x200, Open);
    char Name[16];
    EXPECT_EQ(0u, MSG_SetRemoteStateClosed(pTable, 0x200, Open + 1, Name, sizeof Name));
    EXPECT_STREQ("", Name);
    uint32_t Id = 1;
    EXPECT_EQ(105u, MSG_GetRemoteId_Private(pTable, "once", &Id, nullptr));
    EXPECT_EQ(0u, Id);

    MSG_NewRemoteEndpoint(pTable, "named", 0, &Open);
    MSG_SetRemoteStateOpen(pTable, 0x300, Open);
    EXPECT_EQ(0u, MSG_NewNamelessRemoteEndpoint(pTable, 0x300)) << "known already: nothing added";
    EXPECT_EQ(0u, MSG_NewNamelessRemoteEndpoint(pTable, 0x301));
    EXPECT_EQ(0, MSG_GetRemoteName(pTable, 0x301, Name, sizeof Name)) << "a nameless record gives no name";
}

} // namespace
