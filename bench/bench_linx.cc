// Messaging on the LINX stand-in against a raw AF_UNIX SOCK_SEQPACKET
// socket pair, measured side by side in one run:
//   - round trip of 64 bytes between two processes: raw socket pair,
//     linx_send/linx_receive, and MSG_SendMsg with the answer routed back
//     by the sender stack (medians, ratios),
//   - round trip between two threads of one process (no payload copy),
//   - one-way throughput of 64 B and 64 KiB: raw socket pair, linx_, MSG_.
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "linx.h"
#include "orvane.h"

namespace {

constexpr uint32_t kPayload = 64;
constexpr int kBlocks = 6;
constexpr int kRoundsPerBlock = 3000;
constexpr uint32_t kEcho = 0x10;
constexpr uint32_t kStop = 0x11;

// ---- raw socket pair -------------------------------------------------------

struct RawPeer {
    int Fd;
    pid_t Child;
};

RawPeer StartRawEcho()
{
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, Pair) != 0)
        Fail("socketpair");
    const pid_t Child = fork();
    if (Child == 0) {
        close(Pair[0]);
        char Buffer[kPayload];
        ssize_t Got;
        while ((Got = recv(Pair[1], Buffer, sizeof Buffer, 0)) > 0)
            send(Pair[1], Buffer, Got, 0);
        _exit(0);
    }
    close(Pair[1]);
    return {Pair[0], Child};
}

void RawRounds(const RawPeer &Peer, int Rounds, std::vector<double> *pSamples)
{
    char Buffer[kPayload] = {};
    for (int i = 0; i < Rounds; i++) {
        const double Start = NowUs();
        if (send(Peer.Fd, Buffer, sizeof Buffer, 0) != (ssize_t)sizeof Buffer ||
            recv(Peer.Fd, Buffer, sizeof Buffer, 0) != (ssize_t)sizeof Buffer)
            Fail("raw round trip");
        if (pSamples)
            pSamples->push_back(NowUs() - Start);
    }
}

// Count datagrams of Size bytes one way through a fresh socket pair, with a
// large enough send buffer; returns seconds until the reader took them all.
double RawOneWay(uint32_t Size, uint32_t Count)
{
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, Pair) != 0)
        Fail("socketpair");
    const int Bytes = 512 * 1024;
    setsockopt(Pair[0], SOL_SOCKET, SO_SNDBUF, &Bytes, sizeof Bytes);
    const pid_t Child = fork();
    if (Child == 0) {
        close(Pair[0]);
        std::vector<char> Buffer(Size);
        uint32_t Taken = 0;
        while (Taken < Count && recv(Pair[1], Buffer.data(), Size, 0) > 0)
            Taken++;
        (void)!send(Pair[1], &Taken, sizeof Taken, 0);
        _exit(0);
    }
    close(Pair[1]);
    std::vector<char> Buffer(Size);
    const double Start = NowUs();
    for (uint32_t i = 0; i < Count; i++)
        if (send(Pair[0], Buffer.data(), Size, 0) != (ssize_t)Size)
            Fail("raw one-way");
    uint32_t Taken = 0;
    if (recv(Pair[0], &Taken, sizeof Taken, 0) != sizeof Taken || Taken != Count)
        Fail("raw one-way count");
    const double Seconds = (NowUs() - Start) / 1e6;
    close(Pair[0]);
    waitpid(Child, nullptr, 0);
    return Seconds;
}

// ---- LINX -----------------------------------------------------------------------

pid_t StartLinxPeer(const char *pName, bool bEcho)
{
    const pid_t Child = fork();
    if (Child == 0) {
        LINX *pLinx = linx_open(pName, 0, nullptr);
        _exit(pLinx == nullptr ? 1 : LinxEchoLoop(pLinx, bEcho, kStop));
    }
    return Child;
}

uint32_t StopPeer(LINX *pLinx, LINX_SPID Peer)
{
    SendWaiting(pLinx, Peer, 8, kStop);
    union LINX_SIGNAL *pSig = nullptr;
    const LINX_SIGSELECT Stop[] = {1, kStop};
    if (linx_receive_w_tmo(pLinx, &pSig, 60000, Stop) <= 0)
        Fail("stop");
    uint32_t Taken;
    memcpy(&Taken, (char *)pSig + 4, sizeof Taken);
    linx_free_buf(pLinx, &pSig);
    return Taken;
}

void LinxRounds(LINX *pLinx, LINX_SPID Peer, int Rounds, std::vector<double> *pSamples)
{
    for (int i = 0; i < Rounds; i++) {
        const double Start = NowUs();
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, kPayload, kEcho);
        if (linx_send(pLinx, &pSig, Peer) != 0 || linx_receive(pLinx, &pSig, nullptr) <= 0)
            Fail("linx round trip");
        linx_free_buf(pLinx, &pSig);
        if (pSamples)
            pSamples->push_back(NowUs() - Start);
    }
}

// Sends Count signals of Size bytes one way; returns seconds until the
// receiver confirmed it took them all.
double LinxOneWay(LINX *pLinx, LINX_SPID Peer, uint32_t Size, uint32_t Count)
{
    const double Start = NowUs();
    for (uint32_t i = 0; i < Count; i++)
        SendWaiting(pLinx, Peer, Size, kEcho);
    if (StopPeer(pLinx, Peer) != Count)
        Fail("one-way count");
    return (NowUs() - Start) / 1e6;
}

// ---- MSG_ ---------------------------------------------------------------------

constexpr MSG_Type kMsgRequest = 0x100;
constexpr MSG_Type kMsgAnswer = 0x101;
constexpr MSG_Type kMsgQuit = 0x7F0;

// Answers requests (bEcho) or just takes them; a quit request is answered
// with the number of requests taken.
pid_t StartMsgPeer(const char *pName, bool bEcho)
{
    const pid_t Child = fork();
    if (Child != 0)
        return Child;
    MSG_OpenLocal(pName);
    for (uint32_t Taken = 0;;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, MSG_TIMEOUT_FOREVER);
        if (pMsg == nullptr)
            _exit(1);
        const bool bQuit = MSG_GetType(pMsg) == kMsgQuit;
        if (bQuit)
            MSG_SetSequence(pMsg, Taken);
        if (bQuit || bEcho) {
            MSG_SetType(pMsg, bQuit ? kMsgAnswer : MSG_GetType(pMsg) | 1);
            MSG_SendMsg(pName, 0, pMsg);
        } else {
            MSG_ReleaseMsg(pMsg);
        }
        if (bQuit)
            _exit(0);
        Taken++;
    }
}

void MsgRounds(uint32_t Peer, int Rounds, std::vector<double> *pSamples)
{
    for (int i = 0; i < Rounds; i++) {
        const double Start = NowUs();
        MSG_Msg *pMsg = MSG_AllocMsg(kMsgRequest, (uint32_t)i, kPayload - MSG_HEADER_BYTES);
        if (MSG_SendMsg("bench-msg-client", Peer, pMsg) != 0)
            Fail("MSG_SendMsg");
        MSG_Msg *pAnswer = MSG_RecvMsg("bench-msg-client", kMsgAnswer, MSG_TIMEOUT_FOREVER);
        if (pAnswer == nullptr)
            Fail("MSG_RecvMsg");
        MSG_ReleaseMsg(pAnswer);
        if (pSamples)
            pSamples->push_back(NowUs() - Start);
    }
}

uint32_t StopMsgPeer(uint32_t Peer)
{
    while (MSG_SendMsg("bench-msg-client", Peer, MSG_AllocMsg(kMsgQuit, 0, 0)) != 0)
        sched_yield();
    MSG_Msg *pAnswer = MSG_RecvMsg("bench-msg-client", kMsgAnswer, 60000);
    if (pAnswer == nullptr)
        Fail("stop");
    const uint32_t Taken = MSG_GetSequence(pAnswer);
    MSG_ReleaseMsg(pAnswer);
    return Taken;
}

void MsgThroughput(LINX *pLinx, int32_t Payload, uint32_t Count)
{
    const pid_t Child = StartMsgPeer("bench-msg-sink", false);
    const uint32_t Peer = Hunt(pLinx, "bench-msg-sink");
    const double Start = NowUs();
    for (uint32_t i = 0; i < Count; i++) {
        MSG_Msg *pMsg = MSG_AllocMsg(kMsgRequest, i, Payload);
        MSG_Status Status;
        while ((Status = MSG_SendMsg("bench-msg-client", Peer, pMsg)) == MSG_ERR_LINX) {
            sched_yield(); // the receiver's queue is full (the message was released)
            pMsg = MSG_AllocMsg(kMsgRequest, i, Payload);
        }
        if (Status != 0)
            Fail("MSG_SendMsg");
    }
    if (StopMsgPeer(Peer) != Count)
        Fail("MSG one-way count");
    const double Seconds = (NowUs() - Start) / 1e6;
    waitpid(Child, nullptr, 0);
    const double Bytes = Payload + MSG_HEADER_BYTES;
    printf("MSG one-way %6.0f B: %9.0f msgs/s     %8.1f MB/s\n", Bytes, Count / Seconds, Count * Bytes / Seconds / 1e6);
}

// linx_ one-way beside the raw socket pair's, run right after it.
void Throughput(LINX *pLinx, uint32_t Size, uint32_t Count)
{
    const double RawSeconds = RawOneWay(Size, Count);
    const pid_t Child = StartLinxPeer("bench-sink", false);
    const LINX_SPID Peer = Hunt(pLinx, "bench-sink");
    const double Seconds = LinxOneWay(pLinx, Peer, Size, Count);
    waitpid(Child, nullptr, 0);
    printf("raw  one-way %6u B: %9.0f datagrams/s %8.1f MB/s\n", Size, Count / RawSeconds,
           Count * (double)Size / RawSeconds / 1e6);
    printf("linx one-way %6u B: %9.0f signals/s  %8.1f MB/s   %.2fx raw\n", Size, Count / Seconds,
           Count * (double)Size / Seconds / 1e6, RawSeconds / Seconds);
}

// Two threads of this process; also checks that the receiver got the very
// buffer the sender sent.
void IntraProcess(std::vector<double> *pSamples, int *pCopies)
{
    LINX *pA = linx_open("bench-a", 0, nullptr);
    LINX *pB = linx_open("bench-b", 0, nullptr);
    if (!pA || !pB)
        Fail("open");
    std::thread Echo([pB] { LinxEchoLoop(pB, true, kStop); });
    const LINX_SPID Peer = linx_get_spid(pB);
    for (int i = 0; i < kBlocks * kRoundsPerBlock; i++) {
        const double Start = NowUs();
        union LINX_SIGNAL *pSig = linx_alloc(pA, kPayload, kEcho);
        union LINX_SIGNAL *const pSent = pSig;
        linx_send(pA, &pSig, Peer);
        linx_receive(pA, &pSig, nullptr);
        *pCopies += pSig != pSent;
        linx_free_buf(pA, &pSig);
        pSamples->push_back(NowUs() - Start);
    }
    StopPeer(pA, Peer);
    Echo.join();
    linx_close(pA);
    linx_close(pB);
}

} // namespace

int main()
{
    const std::string Instance = "bench-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);

    LINX *pLinx = linx_open("bench-client", 0, nullptr);
    if (pLinx == nullptr)
        Fail("linx_open");
    const pid_t LinxChild = StartLinxPeer("bench-echo", true);
    const LINX_SPID Peer = Hunt(pLinx, "bench-echo");
    const pid_t MsgChild = StartMsgPeer("bench-msg-echo", true);
    const uint32_t MsgPeer = Hunt(pLinx, "bench-msg-echo");
    MSG_OpenLocal("bench-msg-client");
    const RawPeer Raw = StartRawEcho();

    // Warm up all three, then alternate blocks so that each sees the same machine.
    RawRounds(Raw, 2000, nullptr);
    LinxRounds(pLinx, Peer, 2000, nullptr);
    MsgRounds(MsgPeer, 2000, nullptr);
    std::vector<double> RawSamples, LinxSamples, MsgSamples;
    for (int Block = 0; Block < kBlocks; Block++) {
        RawRounds(Raw, kRoundsPerBlock, &RawSamples);
        LinxRounds(pLinx, Peer, kRoundsPerBlock, &LinxSamples);
        MsgRounds(MsgPeer, kRoundsPerBlock, &MsgSamples);
    }
    StopPeer(pLinx, Peer);
    StopMsgPeer(MsgPeer);
    waitpid(LinxChild, nullptr, 0);
    waitpid(MsgChild, nullptr, 0);
    close(Raw.Fd);
    waitpid(Raw.Child, nullptr, 0);

    const double RawMedian = Median(RawSamples);
    const double LinxMedian = Median(LinxSamples);
    const double MsgMedian = Median(MsgSamples);
    printf("round trip, 64 B, two processes (median of %zu):\n", RawSamples.size());
    printf("  raw AF_UNIX SOCK_SEQPACKET   %7.2f us\n", RawMedian);
    printf("  linx_send/linx_receive       %7.2f us   %.2fx raw (target <= 1.0x)\n", LinxMedian,
           LinxMedian / RawMedian);
    printf("  MSG_SendMsg/MSG_RecvMsg      %7.2f us   %.2fx linx_ (target <= 1.05x), %.2fx raw\n", MsgMedian,
           MsgMedian / LinxMedian, MsgMedian / RawMedian);

    std::vector<double> IntraSamples;
    int Copies = 0;
    IntraProcess(&IntraSamples, &Copies);
    printf("round trip, 64 B, two threads of one process: %.2f us (%.2fx the cross-process "
           "linx round trip), payload copies: %d\n",
           Median(IntraSamples), Median(IntraSamples) / LinxMedian, Copies);

    Throughput(pLinx, 64, 1000000);
    Throughput(pLinx, 64 * 1024, 20000);
    MsgThroughput(pLinx, kPayload - MSG_HEADER_BYTES, 1000000);
    MsgThroughput(pLinx, 64 * 1024 - MSG_HEADER_BYTES, 20000);
    MSG_CloseLocal("bench-msg-client");
    linx_close(pLinx);
    return 0;
}
