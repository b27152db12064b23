// SPDX-License-Identifier: Apache-2.0
// Sending and receiving between real processes: the routing of responses,
// owner rules, timeouts, the receive loop's handling of internal messages
// and of malformed signals.  (Answers along the sender stack across
// processes are the telemetry capture's, and the demo's, also between
// 32- and 64-bit processes in the i386 stage.)
#include "test_kit.h"

#include "msg_local_endpoint.h"


namespace {

constexpr MSG_Type kRequest = 0x120;
constexpr MSG_Type kAnswer = 0x121;

class SendReceive : public MessageLayerTest {
protected:
    SendReceive() : MessageLayerTest({"client"}) {}
};

TEST_F(SendReceive, ResponseRoutingRules)
{
    ASSERT_EQ(0u, MSG_OpenLocal("side"));
    const uint32_t Side = FindSpid("client", "side"), Client = FindSpid("client", "client");

    // A response with nobody on its stack and no receiver has nowhere to go.
    MSG_Msg *pMsg = MSG_AllocMsg(kAnswer, 0, 0);
    EXPECT_EQ(301u, MSG_SendMsg("client", 0, pMsg));
    EXPECT_EQ(0u, MSG_ReleaseMsg(pMsg)) << "the caller still owns it";

    // An explicit receiver beats the stack, and the stack is popped anyway.
    pMsg = MSG_AllocMsg(kAnswer, 5, 0);
    pMsg->SendStack[0] = Client;
    pMsg->SendStackSize = 1;
    EXPECT_EQ(0u, MSG_SendMsg("client", Side, pMsg));
    MSG_Msg *pGot = MSG_RecvMsg("side", kAnswer, 2000);
    ASSERT_NE(nullptr, pGot);
    EXPECT_EQ(0u, MSG_GetSendStackSize(pGot));
    MSG_ReleaseMsg(pGot);
    EXPECT_EQ(1, Occurrences(TakeLoggedText(), "MSG_AdjustReceiver: Resp dest remote ep"));

    // Eight receives fill the stack; the ninth refuses the message.
    pMsg = MSG_AllocMsg(kRequest, 9, 0);
    const char *Names[2] = {"client", "side"};
    const uint32_t Spids[2] = {Side, Client};
    for (int Hop = 0; Hop < 9; Hop++) {
        ASSERT_EQ(0u, MSG_SendMsg(Names[Hop % 2], Spids[Hop % 2], pMsg)) << Hop;
        pMsg = MSG_RecvMsg(Names[(Hop + 1) % 2], kRequest, 2000);
        if (Hop < 8) {
            ASSERT_NE(nullptr, pMsg) << Hop;
            EXPECT_EQ((uint32_t)Hop + 1, MSG_GetSendStackSize(pMsg));
        }
    }
    EXPECT_EQ(nullptr, pMsg) << "the ninth hop overflows the sender stack";
    MSG_CloseLocal("side");
}

TEST_F(SendReceive, OwnerRules)
{
    MSG_Msg *pMine = MSG_AllocMsg(kRequest, 0, 0);
    const uint32_t Client = FindSpid("client", "client");
    std::thread([pMine, Client] {
        EXPECT_EQ(302u, MSG_SendMsg("client", Client, pMine)) << "this thread has no endpoint";
        MSG_Msg *pOwn = MSG_AllocMsg(kRequest, 0, 0);
        EXPECT_EQ(308u, MSG_SendMsg("client", Client, pMine)) << "owned by another thread's endpoint";
        MSG_ReleaseMsg(pOwn);
    }).join();

    char PrivateName[64];
    snprintf(PrivateName, sizeof PrivateName, "_%lx_%d_0", (unsigned long)pthread_self(), (int)getpid());
    EXPECT_EQ(300u, MSG_SendMsg(PrivateName, Client, pMine)) << "a private endpoint sends on nobody's behalf";
    MSG_Msg *pOther = MSG_AllocMsg(kRequest, 0, 0);
    EXPECT_EQ(104u, MSG_SendMsg("nosuch", Client, pOther));
    const uint32_t Token = pOther->pOwner;
    pOther->pOwner = 0xBAD;
    EXPECT_EQ(307u, MSG_SendMsg("client", Client, pOther));
    pOther->pOwner = Token;
    EXPECT_EQ(301u, MSG_SendMsg(nullptr, Client, pOther));
    EXPECT_EQ(103u, MSG_SendMsg("client", 0x7FFFFFF0, pOther)) << "a closed peer resets the connection";
}

TEST_F(SendReceive, ReceiveTimeouts)
{
    int64_t Start = NowMs();
    EXPECT_EQ(nullptr, MSG_RecvMsg("client", kRequest, 0));
    EXPECT_EQ(nullptr, MSG_RecvMsg("client", kRequest, -2));
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("client", -2));
    EXPECT_EQ(nullptr, MSG_RecvMsg("client", 0x1000000, 0));
    MSG_AllocMsg(kRequest, 0, 0); // opens this thread's private endpoint, which has no receive loop
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg(MSG_GetMyEndpoint()->Name, 1000));
    EXPECT_LT(NowMs() - Start, 50);

    // A peer that only sends internal messages, for longer than the wait:
    // they do not restart it.
    const uint32_t Client = FindSpid("client", "client");
    const pid_t Chatter = StartChild([Client] {
        MSG_OpenLocal("chatter");
        for (int i = 0; i < 60; i++) {
            MSG_Msg *pMsg = MSG_AllocMsg_Internal(MSG_NTFY_REQ_REGISTER, i, 8);
            memset(MSG_GetPayloadMutable(pMsg), 0, 8);
            if (MSG_SendMsg("chatter", Client, pMsg) != 0)
                return 1;
            usleep(10000);
        }
        return 0;
    });
    usleep(30000);
    Start = NowMs();
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("client", 200));
    EXPECT_GE(NowMs() - Start, 190);
    EXPECT_LT(NowMs() - Start, 400);
    EXPECT_EQ(0, WaitChild(Chatter));

    const pid_t Late = StartChild([Client] {
        MSG_OpenLocal("late");
        usleep(200000);
        return MSG_SendMsg("late", Client, MSG_AllocMsg(kRequest, 3, 0)) == 0 ? 0 : 1;
    });
    MSG_Msg *pMsg = MSG_RecvMsg("client", kRequest, MSG_TIMEOUT_FOREVER);
    ASSERT_NE(nullptr, pMsg);
    EXPECT_EQ(3u, MSG_GetSequence(pMsg));
    MSG_ReleaseMsg(pMsg);
    EXPECT_EQ(0, WaitChild(Late));
}

TEST_F(SendReceive, MalformedSignalsAreRefusedOrRepaired)
{
    const uint32_t Client = FindSpid("client", "client");
    const pid_t Forger = StartChild([Client] {
        LINX *pForger = linx_open("forger", 0, nullptr);
        const uint32_t Short[3] = {kRequest | MSG_TYPE_USER_SHIFT, 1, 2};
        SendRaw(pForger, Client, Short, sizeof Short); // shorter than the header
        MSG_Msg Corrupt = {};
        Corrupt.MsgType = kRequest | MSG_TYPE_USER_SHIFT;
        Corrupt.SendStackSize = 9;
        SendRaw(pForger, Client, &Corrupt, sizeof Corrupt);
        MSG_Msg Foreign = {};
        Foreign.MsgType = 0x55; // no library mark
        SendRaw(pForger, Client, &Foreign, sizeof Foreign);
        struct {
            MSG_Msg Header;
            char Payload[4];
        } Repairable = {};
        Repairable.Header.MsgType = kRequest | MSG_TYPE_USER_SHIFT;
        Repairable.Header.Sequence = 42;
        Repairable.Header.PayloadBytes = -5;
        Repairable.Header.InUseMagic = 0xDEADBEEF;
        SendRaw(pForger, Client, &Repairable, sizeof Repairable);
        return linx_close(pForger);
    });
    EXPECT_EQ(0, WaitChild(Forger));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(nullptr, MSG_RecvAnyMsg("client", 1000)) << "refused, and the receiver goes on";
    MSG_Msg *pMsg = MSG_RecvAnyMsg("client", 1000);
    ASSERT_NE(nullptr, pMsg);
    EXPECT_EQ(42u, MSG_GetSequence(pMsg));
    EXPECT_EQ(4, MSG_GetPayloadBytes(pMsg)) << "the size LINX delivered wins";
    EXPECT_EQ(1u, MSG_GetSendStackSize(pMsg));
    EXPECT_EQ(0u, MSG_ReleaseMsg(pMsg)) << "the magic was made this process's";
    const std::string Log = TakeLoggedText();
    EXPECT_NE(std::string::npos, Log.find("linx_sigsize(Linx handle"));
    EXPECT_NE(std::string::npos, Log.find("MSG_PushSendStack: result 307/message corrupt: Send stack overflow: remote ep 0x"));
    EXPECT_NE(std::string::npos, Log.find("MSG_RecvMsg_Private: result 307/message corrupt: Size mismatch (Linx=4, hdr=-5)"));
    EXPECT_NE(std::string::npos, Log.find("MSG_RecvAnyMsg: result 300/unknown error: foreign signal refused: local ep "));
    EXPECT_NE(std::string::npos, Log.find("signal number 0x55, size 0, from remote ep 0x"));
}

// Internal messages (of the open/close range, which the receive loop
// consumes itself) and user messages of two types, interleaved, from a
// socket of this process and from another process that is killed once it
// sent them, while receives that take one user type and receives that take
// anything alternate: no receive takes what it was not asked for or loses
// anything.  Every internal message reaches the loop's callbacks once,
// every user message one receive.
TEST_F(SendReceive, InternalAndUserMessagesFromLocalAndRemoteSendersEachArriveOnce)
{
    constexpr int kRounds = 300;
    int Internal = 0;
    const auto Count = [](void *pCount, MSG_Msg *) -> uint32_t { return ++*(int *)pCount, 0u; };
    ASSERT_EQ(0u, MSG_RegisterCallbackHelper("client", Count, &Internal, 0x1F000001, 0x1F0000FF, 0));
    const uint32_t Client = FindSpid("client", "client");
    const auto SendMixed = [Client](LINX *pLinx) {
        for (uint32_t i = 0; i < kRounds; i++)
            for (const MSG_Type Type : {0x1F000001 + 2 * (i % 64), i % 2 ? 0x55u : 0x66u}) {
                MSG_Msg Header = {};
                Header.MsgType = Type | MSG_TYPE_USER_SHIFT;
                Header.Sequence = i;
                Header.InUseMagic = MAGIC_NUM_MSG_ALLOC;
                SendRaw(pLinx, Client, &Header, sizeof Header);
            }
    };
    const Pipe Sent;
    const pid_t Remote = StartChild([&] {
        SendMixed(linx_open("remote", 0, nullptr));
        Sent.Say();
        return pause();
    });
    LINX *pLocal = linx_open("local", 0, nullptr);
    SendMixed(pLocal);
    ASSERT_TRUE(Sent.Hear());
    StopChild(Remote);
    int Users = 0;
    for (int i = 0; (Users < 2 * kRounds || Internal < 2 * kRounds) && i < 40 * kRounds; i++) {
        MSG_Msg *pMsg = i % 3 == 0 ? MSG_RecvMsg("client", 0x55, 1) : MSG_RecvAnyMsg("client", 1);
        if (pMsg == nullptr)
            continue;
        EXPECT_TRUE(MSG_GetType(pMsg) == 0x55 || MSG_GetType(pMsg) == 0x66) << std::hex << MSG_GetType(pMsg);
        Users++;
        MSG_ReleaseMsg(pMsg);
    }
    EXPECT_EQ(nullptr, MSG_RecvAnyMsg("client", 100));
    EXPECT_EQ(2 * kRounds, Users);
    EXPECT_EQ(2 * kRounds, Internal);
    EXPECT_EQ(0, MSG_GetNumMsgsPending("client", 0));
    linx_close(pLocal);
}

} // namespace
