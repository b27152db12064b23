// SPDX-License-Identifier: Apache-2.0
// Messaging on the LINX stand-in against a raw AF_UNIX SOCK_SEQPACKET
// socket pair and ZeroMQ (a PAIR socket over ipc://), what a program would
// pick instead.  Every comparison alternates its mechanisms in blocks in one
// run (bench_util.h's Compare: a warm-up, then rounds of one block each,
// each mechanism in the better of its two placements on the cores, ratios
// as the median of the per-round ratios with their spread):
//   - 64 B round trip between two processes: raw socket pair, ZeroMQ,
//     linx_send/linx_receive, and MSG_SendMsg with the answer routed back
//     by the sender stack;
//   - 64 B round trip between two threads of one process, against two
//     processes;
//   - one-way throughput of 64 B and 64 KiB: raw socket pair, linx_, MSG_;
//   - first contact: the first request to a new peer (found by a hunt that
//     is not timed) and its answer, against a warm raw round trip;
//   - the tail: 64 B requests at 100 a second (each side sleeps between
//     them, as a daemon's peers do), the 99th percentile of the round trip
//     in each block: raw socket pair, ZeroMQ, linx_, MSG_.
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "linx.h"
#include "orvane.h"
#include "zmq.h"

namespace {

constexpr uint32_t kPayload = 64;
constexpr int kRounds = 7;
constexpr int kTripsPerBlock = 3000;
constexpr uint32_t kEcho = 0x10;
constexpr int kFirstContacts = 10;
constexpr int kPacedTrips = 300; // a block of the tail: each mechanism 300 times at 100 requests a second
constexpr int kPaceUs = 10000;

// ---- raw socket pair -------------------------------------------------------

// A raw peer that echoes (bEcho) or counts datagrams of up to Size bytes;
// a one-byte datagram asks for the count (and starts it again).
int RawPeerLoop(int Fd, uint32_t Size, bool bEcho)
{
    std::vector<char> Buffer(Size);
    uint32_t Taken = 0;
    for (ssize_t Got; (Got = recv(Fd, Buffer.data(), Size, 0)) > 0;) {
        if (bEcho) {
            send(Fd, Buffer.data(), (size_t)Got, 0);
        } else if (Got == 1) {
            send(Fd, &Taken, sizeof Taken, 0);
            Taken = 0;
        } else {
            Taken++;
        }
    }
    return 0;
}

// A peer reached by a raw socket (Fd) or by its SPID, and its process.
struct Peer {
    int Fd;
    uint32_t Spid;
    pid_t Pid;
};

Peer StartRawPeer(uint32_t Size, bool bEcho)
{
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, Pair) != 0)
        Fail("socketpair");
    const int Bytes = 512 * 1024; // as much as a linx_ ring holds
    setsockopt(Pair[0], SOL_SOCKET, SO_SNDBUF, &Bytes, sizeof Bytes);
    const pid_t Pid = StartPeer([&] {
        close(Pair[0]);
        return RawPeerLoop(Pair[1], Size, bEcho);
    });
    close(Pair[1]);
    return {Pair[0], 0, Pid};
}

double RawRoundTrips(int Fd)
{
    std::vector<double> Samples;
    char Buffer[kPayload] = {};
    for (int i = 0; i < kTripsPerBlock; i++) {
        const double Start = NowUs();
        if (send(Fd, Buffer, sizeof Buffer, 0) != (ssize_t)sizeof Buffer ||
            recv(Fd, Buffer, sizeof Buffer, 0) != (ssize_t)sizeof Buffer)
            Fail("raw round trip");
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// Datagrams of Size bytes a second, Count of them one way.
double RawOneWay(int Fd, uint32_t Size, uint32_t Count)
{
    std::vector<char> Buffer(Size);
    const double Start = NowUs();
    for (uint32_t i = 0; i < Count; i++)
        if (send(Fd, Buffer.data(), Size, 0) != (ssize_t)Size)
            Fail("raw one-way");
    uint32_t Taken = 0;
    if (send(Fd, "", 1, 0) != 1 || recv(Fd, &Taken, sizeof Taken, 0) != sizeof Taken || Taken != Count)
        Fail("raw one-way count");
    return Count / ((NowUs() - Start) / 1e6);
}

// ---- ZeroMQ ------------------------------------------------------------------------

// A ZeroMQ PAIR socket connected over ipc:// to a peer process that echoes
// every message.
struct ZmqEcho {
    void *pContext;
    void *pSocket;
    pid_t Pid;
};

ZmqEcho StartZmqEcho(const std::string &Endpoint)
{
    const pid_t Pid = StartPeer([&] {
        void *pContext = zmq_ctx_new();
        void *pSocket = zmq_socket(pContext, ZMQ_PAIR);
        char Buffer[kPayload];
        if (zmq_bind(pSocket, Endpoint.c_str()) != 0)
            return 1;
        for (int Got; (Got = zmq_recv(pSocket, Buffer, kPayload, 0)) > 0;)
            zmq_send(pSocket, Buffer, (size_t)Got, 0);
        return 1;
    });
    void *pContext = zmq_ctx_new();
    void *pSocket = zmq_socket(pContext, ZMQ_PAIR);
    if (zmq_connect(pSocket, Endpoint.c_str()) != 0)
        Fail("zmq_connect");
    return {pContext, pSocket, Pid};
}

void ZmqTrip(void *pSocket)
{
    char Buffer[kPayload] = {};
    if (zmq_send(pSocket, Buffer, kPayload, 0) != (int)kPayload || zmq_recv(pSocket, Buffer, kPayload, 0) != (int)kPayload)
        Fail("zmq round trip");
}

double ZmqRoundTrips(void *pSocket)
{
    std::vector<double> Samples;
    for (int i = 0; i < kTripsPerBlock; i++) {
        const double Start = NowUs();
        ZmqTrip(pSocket);
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// ---- linx_ ------------------------------------------------------------------------

Peer StartLinxPeer(LINX *pLinx, const std::string &Name, bool bEcho, uint32_t AckEvery = 0)
{
    const pid_t Pid = StartPeer([&] {
        LINX *pPeer = linx_open(Name.c_str(), 0, nullptr);
        return pPeer == nullptr ? 1 : LinxPeerLoop(pPeer, bEcho, AckEvery);
    });
    return {-1, Hunt(pLinx, Name.c_str()), Pid};
}

double LinxRoundTrips(LINX *pLinx, LINX_SPID Peer, union LINX_SIGNAL **ppSent = nullptr)
{
    std::vector<double> Samples;
    for (int i = 0; i < kTripsPerBlock; i++) {
        const double Start = NowUs();
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, kPayload, kEcho);
        if (ppSent != nullptr)
            *ppSent = pSig;
        if (linx_send(pLinx, &pSig, Peer) != 0 || linx_receive(pLinx, &pSig, nullptr) <= 0)
            Fail("linx round trip");
        if (ppSent != nullptr && pSig != *ppSent)
            Fail("a signal between threads was copied");
        linx_free_buf(pLinx, &pSig);
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// Signals of Size bytes a second, Count of them one way to a counting peer
// that acknowledges every half window.
double LinxOneWay(LINX *pLinx, LINX_SPID Peer, uint32_t Size, uint32_t Count)
{
    const double Start = NowUs();
    SlidingWindow W = {QueueWindow(Size)};
    for (; W.Sent < Count; W.Sent++) {
        LinxAwaitRoom(pLinx, &W);
        SendWaiting(pLinx, Peer, Size, kEcho);
    }
    if (LinxMark(pLinx, Peer) != Count)
        Fail("one-way count");
    const double Seconds = (NowUs() - Start) / 1e6;
    LinxDropAcks(pLinx);
    return Count / Seconds;
}

// ---- MSG_ ---------------------------------------------------------------------

constexpr MSG_Type kMsgRequest = 0x100;
constexpr MSG_Type kMsgAnswer = 0x101;
constexpr MSG_Type kMsgAck = 0x120; // a request type: a response would follow the sender stack
constexpr MSG_Type kMsgMark = 0x7F0;
constexpr const char *kMsgClient = "bench-msg-client";

// Answers requests (bEcho) or counts them, acknowledging every AckEvery
// (when not 0) with a message of the count; a mark is answered with the
// count, which starts again.
int MsgPeerLoop(const char *pName, bool bEcho, uint32_t AckEvery)
{
    MSG_OpenLocal(pName);
    for (uint32_t Taken = 0;;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, MSG_TIMEOUT_FOREVER);
        if (pMsg == nullptr)
            return 1;
        const bool bMark = MSG_GetType(pMsg) == kMsgMark;
        if (bMark) {
            MSG_SetSequence(pMsg, Taken);
            Taken = 0;
        } else if (++Taken, AckEvery != 0 && Taken % AckEvery == 0) {
            MSG_SendMsg(pName, MSG_GetSender(pMsg), MSG_AllocMsg(kMsgAck, Taken, 0));
        }
        if (bMark || bEcho) {
            MSG_SetType(pMsg, kMsgAnswer);
            MSG_SendMsg(pName, 0, pMsg);
        } else {
            MSG_ReleaseMsg(pMsg);
        }
    }
}

Peer StartMsgPeer(LINX *pLinx, const char *pName, bool bEcho, uint32_t AckEvery = 0)
{
    const pid_t Pid = StartPeer([&] { return MsgPeerLoop(pName, bEcho, AckEvery); });
    return {-1, Hunt(pLinx, pName), Pid};
}

MSG_Msg *AwaitAnswer()
{
    MSG_Msg *pAnswer = MSG_RecvMsg(kMsgClient, kMsgAnswer, 60000);
    if (pAnswer == nullptr)
        Fail("MSG_RecvMsg");
    return pAnswer;
}

double MsgRoundTrips(uint32_t Peer)
{
    std::vector<double> Samples;
    for (int i = 0; i < kTripsPerBlock; i++) {
        const double Start = NowUs();
        if (MSG_SendMsg(kMsgClient, Peer, MSG_AllocMsg(kMsgRequest, (uint32_t)i, kPayload - MSG_HEADER_BYTES)) != 0)
            Fail("MSG_SendMsg");
        MSG_ReleaseMsg(AwaitAnswer());
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// Sends a mark and returns the count of messages it brings back.
uint32_t MsgMark(uint32_t Peer)
{
    while (MSG_SendMsg(kMsgClient, Peer, MSG_AllocMsg(kMsgMark, 0, 0)) != 0)
        sched_yield();
    MSG_Msg *pAnswer = AwaitAnswer();
    const uint32_t Taken = MSG_GetSequence(pAnswer);
    MSG_ReleaseMsg(pAnswer);
    return Taken;
}

// Messages of Bytes (header included) a second, Count of them one way, in
// a sliding window as for linx_ (a refused send is never retried: the
// library writes a line for every failed call).
double MsgOneWay(uint32_t Peer, uint32_t Bytes, uint32_t Count)
{
    const double Start = NowUs();
    SlidingWindow W = {QueueWindow(Bytes)};
    for (; W.Sent < Count; W.Sent++) {
        while (W.Sent - W.Acked >= W.Window) {
            MSG_Msg *pAck = MSG_RecvMsg(kMsgClient, kMsgAck, 60000);
            if (pAck == nullptr)
                Fail("acknowledgement");
            W.Acked = MSG_GetSequence(pAck);
            MSG_ReleaseMsg(pAck);
        }
        if (MSG_SendMsg(kMsgClient, Peer, MSG_AllocMsg(kMsgRequest, W.Sent, (int32_t)(Bytes - MSG_HEADER_BYTES))) != 0)
            Fail("MSG_SendMsg");
    }
    if (MsgMark(Peer) != Count)
        Fail("MSG one-way count");
    const double Seconds = (NowUs() - Start) / 1e6;
    while (MSG_Msg *pAck = MSG_RecvMsg(kMsgClient, kMsgAck, 0)) // left over: they came before the mark's answer
        MSG_ReleaseMsg(pAck);
    return Count / Seconds;
}

// ---- The tail at 100 requests a second ------------------------------------------------

// One mechanism of the tail: a round trip, and the peers that answer it.
struct PacedTrip {
    const char *pName;
    std::function<void()> RoundTrip;
    std::vector<pid_t> Peers;
};

// The 99th percentile of each mechanism's round trip at 100 requests a
// second, in blocks: each block sends kPacedTrips requests of every
// mechanism, one every kPaceUs in turn, so that they meet the machine's
// quiet and busy moments alike (each side sleeps between requests, so
// every request wakes its peer and every answer the side that asked).
// Blocks run in both placements; each mechanism keeps its better one.
std::vector<std::vector<double>> PacedTails(const std::vector<PacedTrip> &Trips, int Rounds)
{
    std::vector<std::vector<double>> Blocks(Trips.size());
    for (int Round = -1; Round < Rounds; Round++) {
        std::vector<double> Best(Trips.size(), 1e300);
        for (const Placement Where : {Placement::OneCore, Placement::TwoCores}) {
            std::vector<pid_t> Peers;
            for (const PacedTrip &T : Trips)
                Peers.insert(Peers.end(), T.Peers.begin(), T.Peers.end());
            Place(Where, Peers);
            std::vector<std::vector<double>> Samples(Trips.size());
            for (int i = 0; i < kPacedTrips; i++)
                for (size_t k = 0; k < Trips.size(); k++) {
                    usleep(kPaceUs / (useconds_t)Trips.size());
                    const double Start = NowUs();
                    Trips[k].RoundTrip();
                    Samples[k].push_back(NowUs() - Start);
                }
            for (size_t k = 0; k < Trips.size(); k++)
                Best[k] = std::min(Best[k], Percentile(Samples[k], 0.99));
        }
        for (size_t k = 0; Round >= 0 && k < Trips.size(); k++)
            Blocks[k].push_back(Best[k]);
    }
    printf("the tail: 99th percentile of a 64 B round trip at 100 requests a second (%d blocks of %d "
           "requests each, the mechanisms in turn; medians; ratio to %s: median of the blocks, lowest-highest)\n",
           Rounds, kPacedTrips, Trips[0].pName);
    for (size_t k = 0; k < Trips.size(); k++) {
        printf("  %-44s %10.2f us", Trips[k].pName, Median(Blocks[k]));
        if (k != 0) {
            const PairRatio R = PairRatios(Blocks[0], Blocks[k]);
            printf(" %6.2fx (%.2f-%.2f)", R.Median, R.Min, R.Max);
        }
        printf("\n");
    }
    fflush(stdout);
    return Blocks;
}

void RawTrip(int Fd)
{
    char Buffer[kPayload] = {};
    if (send(Fd, Buffer, sizeof Buffer, 0) != (ssize_t)sizeof Buffer ||
        recv(Fd, Buffer, sizeof Buffer, 0) != (ssize_t)sizeof Buffer)
        Fail("raw round trip");
}

void LinxTrip(LINX *pLinx, LINX_SPID Peer)
{
    union LINX_SIGNAL *pSig = linx_alloc(pLinx, kPayload, kEcho);
    if (linx_send(pLinx, &pSig, Peer) != 0 || linx_receive(pLinx, &pSig, nullptr) <= 0)
        Fail("linx round trip");
    linx_free_buf(pLinx, &pSig);
}

void MsgTrip(uint32_t Peer)
{
    if (MSG_SendMsg(kMsgClient, Peer, MSG_AllocMsg(kMsgRequest, 0, kPayload - MSG_HEADER_BYTES)) != 0)
        Fail("MSG_SendMsg");
    MSG_ReleaseMsg(AwaitAnswer());
}

// ---- First contact ------------------------------------------------------------

// The median of the first request and answer to each of kFirstContacts
// new linx_ peers (their hunts are not timed; each peer echoes once).
double LinxFirstContacts(LINX *pLinx, int *pSerial)
{
    std::vector<double> Samples;
    for (int i = 0; i < kFirstContacts; i++) {
        const std::string Name = "bench-new-" + std::to_string((*pSerial)++);
        const pid_t Child = StartPeer([&] {
            LINX *pPeer = linx_open(Name.c_str(), 0, nullptr);
            union LINX_SIGNAL *pSig = nullptr;
            if (pPeer == nullptr || linx_receive(pPeer, &pSig, nullptr) <= 0)
                return 1;
            return linx_send(pPeer, &pSig, linx_sender(pPeer, &pSig)) + linx_close(pPeer);
        });
        const LINX_SPID Peer = Hunt(pLinx, Name.c_str());
        const double Start = NowUs();
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, kPayload, kEcho);
        if (linx_send(pLinx, &pSig, Peer) != 0 || linx_receive(pLinx, &pSig, nullptr) <= 0)
            Fail("first contact");
        Samples.push_back(NowUs() - Start);
        linx_free_buf(pLinx, &pSig);
        Reap(Child);
    }
    return Median(Samples);
}

// The same with MSG_: a remote endpoint opened (not timed), then the first
// request and its answer.
double MsgFirstContacts(int *pSerial)
{
    std::vector<double> Samples;
    for (int i = 0; i < kFirstContacts; i++) {
        const std::string Name = "bench-msg-new-" + std::to_string((*pSerial)++);
        const pid_t Child = StartPeer([&] {
            MSG_OpenLocal(Name.c_str());
            MSG_Msg *pMsg = MSG_RecvAnyMsg(Name.c_str(), MSG_TIMEOUT_FOREVER);
            if (pMsg == nullptr)
                return 1;
            MSG_SetType(pMsg, kMsgAnswer);
            return (int)MSG_SendMsg(Name.c_str(), 0, pMsg) + (int)MSG_CloseLocal(Name.c_str());
        });
        uint32_t Peer = 0;
        if (MSG_OpenRemoteSync(kMsgClient, Name.c_str(), 10000, &Peer) != 0)
            Fail("MSG_OpenRemoteSync");
        const double Start = NowUs();
        if (MSG_SendMsg(kMsgClient, Peer, MSG_AllocMsg(kMsgRequest, 0, kPayload - MSG_HEADER_BYTES)) != 0)
            Fail("MSG_SendMsg");
        MSG_ReleaseMsg(AwaitAnswer());
        Samples.push_back(NowUs() - Start);
        MSG_CloseRemote(kMsgClient, Name.c_str());
        Reap(Child);
    }
    return Median(Samples);
}

} // namespace

int main()
{
    const std::string Instance = "bench-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    LINX *pLinx = linx_open("bench-client", 0, nullptr);
    if (pLinx == nullptr || MSG_OpenLocal(kMsgClient) != 0)
        Fail("open");
    const Peer RawEcho = StartRawPeer(kPayload, true);
    const Peer LinxEcho = StartLinxPeer(pLinx, "bench-echo", true);
    const Peer MsgEcho = StartMsgPeer(pLinx, "bench-msg-echo", true);
    const ZmqEcho Zmq = StartZmqEcho("ipc:///tmp/" + Instance + ".zmq");
    const auto Trips =
        Compare("64 B round trip between two processes", "us", kRounds,
                {{"raw AF_UNIX SOCK_SEQPACKET", [&] { return RawRoundTrips(RawEcho.Fd); }, {RawEcho.Pid}},
                 {"ZeroMQ PAIR over ipc://", [&] { return ZmqRoundTrips(Zmq.pSocket); }, {Zmq.Pid}},
                 {"linx_send/linx_receive", [&] { return LinxRoundTrips(pLinx, LinxEcho.Spid); }, {LinxEcho.Pid}},
                 {"MSG_SendMsg/MSG_RecvMsg, answer by the stack", [&] { return MsgRoundTrips(MsgEcho.Spid); },
                  {MsgEcho.Pid}}});
    PrintRatio("MSG_ / linx_", Trips[2], Trips[3]);

    LINX *pA = linx_open("bench-a", 0, nullptr);
    LINX *pB = linx_open("bench-b", 0, nullptr);
    std::atomic<pid_t> EchoThread{0};
    std::thread Echo([pB, &EchoThread] {
        EchoThread = gettid();
        LinxPeerLoop(pB, true);
    });
    while (EchoThread == 0)
        sched_yield();
    union LINX_SIGNAL *pSent = nullptr;
    Compare("64 B round trip, linx_", "us", kRounds,
            {{"two processes", [&] { return LinxRoundTrips(pLinx, LinxEcho.Spid); }, {LinxEcho.Pid}},
             {"two threads of one process (no copy)", [&] { return LinxRoundTrips(pA, linx_get_spid(pB), &pSent); },
              {EchoThread}}});
    SendWaiting(pA, linx_get_spid(pB), 8, kBenchQuit);
    Echo.join();
    linx_close(pA);

    for (const uint32_t Size : {64u, 64u * 1024}) {
        const uint32_t Count = Size == 64 ? 500000 : 20000;
        const Peer RawSink = StartRawPeer(Size, false);
        const Peer LinxSink =
            StartLinxPeer(pLinx, "bench-sink-" + std::to_string(Size), false, QueueWindow(Size) / 2);
        const Peer MsgSink =
            StartMsgPeer(pLinx, ("bench-msg-sink-" + std::to_string(Size)).c_str(), false, QueueWindow(Size) / 2);
        const std::string Title = "one way, " + std::to_string(Size) + " B, signals a second";
        const auto Blocks = Compare(
            Title.c_str(), "k/s", kRounds,
            {{"raw AF_UNIX SOCK_SEQPACKET", [&] { return RawOneWay(RawSink.Fd, Size, Count) / 1e3; }, {RawSink.Pid}},
             {"linx_", [&] { return LinxOneWay(pLinx, LinxSink.Spid, Size, Count) / 1e3; }, {LinxSink.Pid}},
             {"MSG_ (header included)", [&] { return MsgOneWay(MsgSink.Spid, Size, Count) / 1e3; }, {MsgSink.Pid}}},
            false);
        printf("  linx_ moves %.1f GB/s\n", Median(Blocks[1]) * 1e3 * Size / 1e9);
        PrintRatio("MSG_ / linx_", Blocks[1], Blocks[2]);
        close(RawSink.Fd);
    }

    int Serial = 0;
    Compare("first contact: the first request to a new peer and its answer", "us", kRounds,
            {{"raw SOCK_SEQPACKET round trip, warm", [&] { return RawRoundTrips(RawEcho.Fd); }, {RawEcho.Pid}},
             {"linx_, first signal to a new peer", [&] { return LinxFirstContacts(pLinx, &Serial); }, {}},
             {"MSG_, first request to a new peer", [&] { return MsgFirstContacts(&Serial); }, {}}});
    const auto Tails = PacedTails({{"raw AF_UNIX SOCK_SEQPACKET", [&] { RawTrip(RawEcho.Fd); }, {RawEcho.Pid}},
                                   {"ZeroMQ PAIR over ipc://", [&] { ZmqTrip(Zmq.pSocket); }, {Zmq.Pid}},
                                   {"linx_send/linx_receive", [&] { LinxTrip(pLinx, LinxEcho.Spid); }, {LinxEcho.Pid}},
                                   {"MSG_SendMsg/MSG_RecvMsg", [&] { MsgTrip(MsgEcho.Spid); }, {MsgEcho.Pid}}},
                                  kRounds);
    PrintRatio("MSG_ / linx_", Tails[2], Tails[3]);
    zmq_close(Zmq.pSocket);
    zmq_ctx_term(Zmq.pContext);
    StopPeers();
    close(RawEcho.Fd);
    MSG_CloseLocal(kMsgClient);
    linx_close(pLinx);
    return 0;
}
