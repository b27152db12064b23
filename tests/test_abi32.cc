// SPDX-License-Identifier: Apache-2.0
// A 32-bit process and a 64-bit process of one device, through one linxd:
// the 64-bit side uses the library, the 32-bit side (tests/abi32_peer.cc,
// built for i386 and run under qemu-i386) the LINX user library.  They
// hunt and attach each other and exchange a message with its 56-byte
// header, answered along the sender stack.
#include "test_kit.h"

namespace {

constexpr MSG_Type kRequest = 0x120;

TEST(Abi32, A32BitPeerHuntsAttachesAndAnswersAlongTheStack)
{
    ASSERT_EQ(0u, MSG_OpenLocal("host64"));
    LINX *pBye = linx_open("bye64", 0, nullptr);
    ASSERT_NE(nullptr, pBye);
    const pid_t Peer = StartChild([] {
        execlp("qemu-i386", "qemu-i386", ORVANE_ABI32_PEER, (char *)nullptr);
        return 127;
    });
    const uint32_t Peer32 = FindSpid("host64", "peer32", 20000);
    ASSERT_NE(0u, Peer32);
    MSG_Msg *pMsg = MSG_AllocMsg(kRequest, 7, 12);
    memcpy(MSG_GetPayloadMutable(pMsg), "from 64-bit", 12);
    ASSERT_EQ(0u, MSG_SendMsg("host64", Peer32, pMsg));
    MSG_Msg *pAnswer = MSG_RecvMsg("host64", kRequest | 1, 20000);
    ASSERT_NE(nullptr, pAnswer) << "the 32-bit peer answered along the sender stack";
    EXPECT_EQ(7u, MSG_GetSequence(pAnswer));
    EXPECT_EQ(12, MSG_GetPayloadBytes(pAnswer));
    EXPECT_STREQ("from 64-bit", (const char *)MSG_GetPayload(pAnswer));
    EXPECT_EQ(0u, MSG_GetSendStackSize(pAnswer)) << "popped on the way back";
    MSG_ReleaseMsg(pAnswer);
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("host64", 0)); // attaches to the peer
    linx_close(pBye); // its attach fires in the 32-bit process, which then ends
    EXPECT_EQ(0, WaitChild(Peer));
    EXPECT_TRUE(Pump("host64", 5000, [] { return MSG_GetRemoteId("host64", "peer32") == 0; }))
        << "the 64-bit side learnt of the 32-bit peer's end through its attach";
    MSG_CloseLocal("host64");
}

} // namespace
