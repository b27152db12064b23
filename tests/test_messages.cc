// SPDX-License-Identifier: Apache-2.0
// Messages: header accessors and the extra-flag bits, allocation through
// the thread's private endpoint, cloning, header copies and the two
// release paths.
#include "test_kit.h"

namespace {

using Messages = MessageLayerTest;

TEST_F(Messages, AllocationFillsTheHeaderThroughOnePrivateEndpointPerThread)
{
    MSG_Msg *pMsg = MSG_AllocMsg(0xFFFFFF, 7, 0);
    ASSERT_NE(nullptr, pMsg);
    EXPECT_EQ(0xFFFFFFu, MSG_GetType(pMsg));
    EXPECT_EQ(7u, MSG_GetSequence(pMsg));
    EXPECT_EQ(0, MSG_GetPayloadBytes(pMsg));
    EXPECT_EQ(0u, MSG_GetSendStackSize(pMsg));
    EXPECT_EQ(MAGIC_NUM_MSG_ALLOC, pMsg->InUseMagic);
    EXPECT_EQ((const char *)pMsg + 56, MSG_GetPayload(pMsg));
    EXPECT_EQ(0u, MSG_ReleaseMsg(pMsg));

    EXPECT_EQ(nullptr, MSG_AllocMsg(0x1000000, 7, 0));
    EXPECT_EQ(nullptr, MSG_AllocMsg(5, 7, -1));
    std::vector<LoggedLine> Lines = TakeLoggedLines();
    ASSERT_GE(Lines.size(), 2u);
    EXPECT_NE(std::string::npos,
              Lines[Lines.size() - 2].Text.find("MSG_AllocMsg: result 301/wrong parameter: msg type 0x1000000, seq 7, size 0\n"));
    MSG_CloseLocal(nullptr);

    // Allocation opens one private endpoint per thread.
    EXPECT_EQ(nullptr, MSG_GetMyEndpoint());
    MSG_Msg *pFirst = NewMsg(1, 0, 8);
    LocalEndpoint *pMine = MSG_GetMyEndpoint();
    ASSERT_NE(nullptr, pMine);
    MSG_Msg *pSecond = NewMsg(1, 0, 8);
    EXPECT_EQ(pMine, MSG_GetMyEndpoint());
    char Name[16];
    EXPECT_EQ(104u, MSG_GetOwnerName(pFirst, Name, sizeof Name)) << "private endpoints keep their names";
    MSG_ReleaseMsg(pFirst);
    MSG_ReleaseMsg(pSecond);

    // The fill flag marks every payload byte.
    MSG_DebugSetFlag(MSG_DEBUG_FILL_PAYLOAD);
    pMsg = MSG_AllocMsg(1, 0, 300);
    EXPECT_EQ(std::string(300, '\xCC'), std::string((const char *)MSG_GetPayload(pMsg), 300));
    MSG_ReleaseMsg(pMsg);
}

TEST_F(Messages, CloneAndHeaderCopy)
{
    MSG_Msg *pOrig = NewMsg(0x42, 99, 20);
    memcpy(MSG_GetPayloadMutable(pOrig), "twenty bytes payload", 20);
    pOrig->SendStackSize = 3;
    pOrig->SendStack[0] = 0x10;
    pOrig->SendStack[1] = 0x20;
    pOrig->SendStack[2] = 0x30;
    MSG_SetExtraFlags(pOrig, 0xABC00);

    MSG_Msg *pClone = nullptr;
    ASSERT_EQ(0u, MSG_CloneMsg(pOrig, &pClone));
    ASSERT_NE(nullptr, pClone);
    EXPECT_EQ(pOrig->pOwner, pClone->pOwner); // same thread, same owner
    EXPECT_EQ(0, memcmp(pOrig, pClone, 56 + 20));

    MSG_Msg *pAnswer = MSG_AllocMsgCopyHdr(pOrig, 0x51, 4);
    memset(MSG_GetPayloadMutable(pAnswer), 0, 4); // shown by the release lines
    ASSERT_NE(nullptr, pAnswer);
    EXPECT_EQ(0x51u, MSG_GetType(pAnswer));
    EXPECT_EQ(4, MSG_GetPayloadBytes(pAnswer));
    EXPECT_EQ(99u, MSG_GetSequence(pAnswer));
    EXPECT_EQ(0x30u, MSG_GetSender(pAnswer));
    EXPECT_EQ(0x10u, MSG_GetOrigSender(pAnswer));
    EXPECT_EQ(0xABC00u, MSG_GetExtraFlags(pAnswer));
    EXPECT_EQ(nullptr, MSG_AllocMsgCopyHdr(nullptr, 1, 0));
    EXPECT_EQ(nullptr, MSG_AllocMsgCopyHdr(pOrig, 0x2000000, 0));

    // A size another process could have written is refused, not trusted.
    pOrig->PayloadBytes = -3;
    MSG_Msg *const pUntouched = pAnswer;
    MSG_Msg *pBad = pUntouched;
    TakeLoggedLines();
    EXPECT_EQ(307u, MSG_CloneMsg(pOrig, &pBad));
    EXPECT_EQ(pUntouched, pBad) << "nothing stored on failure";
    char CopyAddr[40];
    snprintf(CopyAddr, sizeof CopyAddr, "copy addr %p\n", (void *)pUntouched);
    EXPECT_NE(std::string::npos, TakeLoggedLines().back().Text.find(CopyAddr)) << "what pClone points to";
    pOrig->PayloadBytes = 20;

    // Released at once by the private owner: both lines in the interface's name.
    MSG_DebugSetFlag(MSG_DEBUG_LOG_SUCCESS);
    for (MSG_Msg *p : {pOrig, pClone, pAnswer})
        EXPECT_EQ(0u, MSG_ReleaseMsg(p));
    EXPECT_EQ(6, Occurrences(TakeLoggedText(), "MSG_ReleaseMsg_Private: result 0/"));
}

// The owner's name is cut to the caller's buffer and to 128 bytes.
TEST_F(Messages, PublicEndpointReleasesAreDeferredUntilClosePrivateOnesAreNot)
{
    const std::string Long(200, 'n');
    ASSERT_EQ(0u, MSG_OpenLocal(Long.c_str()));
    LocalEndpoint *pPublic = MSG_GetLocalEndpoint(Long.c_str());
    MSG_Msg *pMsg = nullptr;
    ASSERT_EQ(0u, MSG_AllocMsg_Private(pPublic, 3, 56 + 9, &pMsg));
    char Name[1000];
    memset(Name, 'x', sizeof Name);
    EXPECT_EQ(0u, MSG_GetOwnerName(pMsg, Name, sizeof Name));
    EXPECT_EQ(std::string(127, 'n'), Name);
    EXPECT_EQ('x', Name[128]) << "nothing written past 128 bytes";
    EXPECT_EQ(0u, MSG_GetOwnerName(pMsg, Name, 5));
    EXPECT_STREQ("nnnn", Name);

    EXPECT_EQ(0u, MSG_ReleaseMsg(pMsg));
    EXPECT_EQ(MAGIC_NUM_MSG_ALLOC, pMsg->InUseMagic) << "still allocated until drained";
    EXPECT_EQ(307u, MSG_ReleaseMsg(pMsg)) << "a second release is caught";
    // Only the owner releases: through another endpoint nothing happens.
    MSG_Msg *pCopy = pMsg;
    MSG_AllocMsg(1, 0, 0); // opens this thread's private endpoint
    EXPECT_EQ(301u, MSG_ReleaseMsg_Private(MSG_GetMyEndpoint(), &pCopy));
    EXPECT_EQ(pMsg, pCopy);
    EXPECT_EQ(0u, MSG_CloseLocal(Long.c_str())); // drains (the sanitizer build checks the free)

    // A private owner releases at once, and clears the pointer.
    pMsg = MSG_AllocMsg(1, 0, 0);
    pCopy = pMsg;
    EXPECT_EQ(0u, MSG_ReleaseMsg_Private(MSG_GetMyEndpoint(), &pCopy));
    EXPECT_EQ(nullptr, pCopy);
}

TEST_F(Messages, ForeignOrStaleOwnersAreRefused)
{
    MSG_Msg *pMsg = MSG_AllocMsg(1, 0, 0);
    const uint32_t Token = pMsg->pOwner;
    pMsg->pOwner = 0xDEAD;
    EXPECT_EQ(307u, MSG_ReleaseMsg(pMsg));
    char Name[8];
    EXPECT_EQ(307u, MSG_GetOwnerName(pMsg, Name, sizeof Name));
    pMsg->pOwner = Token;
    pMsg->InUseMagic = 0x12345678; // as another process might have written it
    EXPECT_EQ(307u, MSG_ReleaseMsg(pMsg));
    pMsg->InUseMagic = MAGIC_NUM_MSG_ALLOC;
    EXPECT_EQ(301u, MSG_GetOwnerName(pMsg, Name, 0));
    EXPECT_EQ(0u, MSG_ReleaseMsg(pMsg));
}

TEST(Helpers, ExtraFlagsKeepTheSendStackSize)
{
    MSG_Msg Msg;
    memset(&Msg, 0, sizeof Msg);
    Msg.SendStackSize = 3;
    EXPECT_EQ(0u, MSG_SetExtraFlags(&Msg, 0x3FF));
    uint32_t Word;
    memcpy(&Word, (const char *)&Msg + 8, sizeof Word);
    EXPECT_EQ(0x303u, Word);
    EXPECT_EQ(3u, Msg.SendStackSize);
    EXPECT_EQ(0x300u, MSG_GetExtraFlags(&Msg));
    MSG_SetExtraFlags(&Msg, 0xABCDEF00);
    EXPECT_EQ(0xABCDEF00u, MSG_GetExtraFlags(&Msg));
    EXPECT_EQ(3u, Msg.SendStackSize);
}

} // namespace
