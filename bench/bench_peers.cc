// SPDX-License-Identifier: Apache-2.0
// Peers and subscriptions on the LINX stand-in, measured in one run:
//   - death detection: SIGKILL of a peer to its close callback running in
//     the observer's receive loop (median and p99 over many kills),
//   - fan-out: one publisher, 100 subscriber processes, 64-byte
//     notifications, copies delivered per second, beside raw linx_ one-way
//     from one sender to one receiver and to 100 receivers,
//   - scale: MSG_SendNotification with 10 to 10000 subscriptions, and a
//     round trip and a remote-table lookup with 10 to 10000 records in the
//     endpoint's table.
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_util.h"
#include "linx.h"
#include "orvane.h"

namespace {

constexpr int kKills = 150;
constexpr int kSubscribers = 100;
constexpr int kRounds = 20;
constexpr int kPerRound = 500;  // notifications per round: what a queue holds easily
constexpr uint32_t kSignalBytes = 64;
constexpr MSG_Type kNews = 0x150;
constexpr MSG_Type kAck = 0x160;
constexpr MSG_Type kEcho = 0x100;
constexpr MSG_Type kQuit = 0x7F0;

pid_t Fork(int (*Body)(int), int Arg)
{
    fflush(nullptr);
    const pid_t Child = fork();
    if (Child == 0)
        _exit(Body(Arg));
    return Child;
}

// Serves the local endpoint's receive loop until *pValue reaches Wanted.
void ServeUntil(const char *pName, const int *pValue, int Wanted)
{
    const double Start = NowUs();
    while (*pValue < Wanted) {
        if (MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, 10))
            MSG_ReleaseMsg(pMsg);
        if (NowUs() - Start > 30e6)
            Fail("nothing came within 30 s");
    }
}

// ---- death detection ---------------------------------------------------------

struct Watch {
    int Opened = 0;
    int Closed = 0;
    double ClosedAt = 0;
};

uint32_t OnOpen(void *pContext, MSG_Msg *)
{
    ((Watch *)pContext)->Opened++;
    return 0;
}

uint32_t OnClose(void *pContext, MSG_Msg *)
{
    Watch *pWatch = (Watch *)pContext;
    pWatch->ClosedAt = NowUs();
    pWatch->Closed++;
    return 0;
}

// Both observers idle this long before each kill, as a program would while
// its peer lives: an idle machine wakes more slowly than a busy one, and
// the comparison must not depend on which loop happened to be busy.
constexpr useconds_t kIdleBeforeKillUs = 100000;

int Mortal(int)
{
    MSG_OpenLocal("mortal");
    pause();
    return 0;
}

int RawMortal(int)
{
    linx_open("raw-mortal", 0, nullptr);
    pause();
    return 0;
}

// The same with raw linx_ calls: SIGKILL to the attach signal's receipt.
std::vector<double> RawDeathDetection()
{
    LINX *pLinx = linx_open("raw-observer", 0, nullptr);
    std::vector<double> Latency;
    for (int i = 0; i < kKills; i++) {
        const pid_t Child = Fork(RawMortal, 0);
        const LINX_SPID Peer = Hunt(pLinx, "raw-mortal");
        if (linx_attach(pLinx, nullptr, Peer) == 0)
            Fail("attach");
        usleep(kIdleBeforeKillUs);
        const double KilledAt = NowUs();
        kill(Child, SIGKILL);
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive_w_tmo(pLinx, &pSig, 30000, nullptr) <= 0)
            Fail("attach signal");
        Latency.push_back(NowUs() - KilledAt);
        linx_free_buf(pLinx, &pSig);
        waitpid(Child, nullptr, 0);
    }
    linx_close(pLinx);
    return Latency;
}

void DeathDetection()
{
    MSG_OpenLocal("observer");
    Watch W;
    const MSG_Callback Open = {OnOpen, &W, 0, 0, 0}, Close = {OnClose, &W, 0, 0, 0};
    if (MSG_OpenRemoteAsync("observer", "mortal", &Open, &Close) != 0)
        Fail("MSG_OpenRemoteAsync");
    std::vector<double> Latency;
    for (int i = 1; i <= kKills; i++) {
        const pid_t Child = Fork(Mortal, 0);
        ServeUntil("observer", &W.Opened, i);
        usleep(kIdleBeforeKillUs);
        const double KilledAt = NowUs();
        kill(Child, SIGKILL);
        ServeUntil("observer", &W.Closed, i);
        Latency.push_back(W.ClosedAt - KilledAt);
        waitpid(Child, nullptr, 0);
    }
    MSG_CloseLocal("observer");
    const std::vector<double> Raw = RawDeathDetection();
    printf("death detection, %d kills each:\n", kKills);
    printf("  SIGKILL to the close callback in MSG_RecvAnyMsg   median %5.0f us, p99 %5.0f us (goal: median < 1 ms)\n",
           Median(Latency), Percentile(Latency, 0.99));
    printf("  SIGKILL to a raw linx_attach signal                median %5.0f us, p99 %5.0f us\n", Median(Raw),
           Percentile(Raw, 0.99));
}

// ---- fan-out -------------------------------------------------------------------

// A subscriber process: subscribes to the publisher's news and its quit,
// then acknowledges every kPerRound copies until the quit comes.
int Subscriber(int Index)
{
    const std::string Name = "sub" + std::to_string(Index);
    MSG_OpenLocal(Name.c_str());
    uint32_t Pub = 0;
    if (MSG_OpenRemoteSync(Name.c_str(), "fan-pub", 10000, &Pub) != 0 ||
        MSG_RegisterNotificationRemote(Name.c_str(), kNews, kQuit, Pub) != 0)
        return 1;
    for (int Got = 0;;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg(Name.c_str(), 30000);
        if (pMsg == nullptr)
            return 2;
        const bool bQuit = MSG_GetType(pMsg) == kQuit;
        MSG_ReleaseMsg(pMsg);
        if (bQuit)
            return 0;
        if (++Got % kPerRound == 0)
            MSG_SendMsg(Name.c_str(), Pub, MSG_AllocMsg(kAck, 0, 0));
    }
}

// A raw receiver: the same with linx_ calls only.
int RawReceiver(int Index)
{
    const std::string Name = "raw" + std::to_string(Index);
    LINX *pLinx = linx_open(Name.c_str(), 0, nullptr);
    for (int Got = 0;;) {
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive(pLinx, &pSig, nullptr) <= 0)
            return 2;
        const LINX_SPID From = linx_sender(pLinx, &pSig);
        uint32_t SigNo;
        memcpy(&SigNo, pSig, sizeof SigNo);
        const bool bQuit = SigNo == kQuit;
        if (bQuit || ++Got % kPerRound == 0) {
            linx_send(pLinx, &pSig, From); // the ack (or the quit's echo)
        } else {
            linx_free_buf(pLinx, &pSig);
        }
        if (bQuit)
            return 0;
    }
}

void TakeAcks(LINX *pLinx, int Count)
{
    for (int i = 0; i < Count; i++) {
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive_w_tmo(pLinx, &pSig, 30000, nullptr) <= 0)
            Fail("ack");
        linx_free_buf(pLinx, &pSig);
    }
}

// Raw linx_ one-way, one sender to Receivers receivers, in rounds of
// kPerRound signals to each: signals per second.
double RawFanOut(int Receivers)
{
    std::vector<pid_t> Children;
    std::vector<LINX_SPID> Peers;
    LINX *pLinx = linx_open("raw-sender", 0, nullptr);
    for (int i = 0; i < Receivers; i++)
        Children.push_back(Fork(RawReceiver, i));
    for (int i = 0; i < Receivers; i++)
        Peers.push_back(Hunt(pLinx, ("raw" + std::to_string(i)).c_str()));
    const double Start = NowUs();
    for (int Round = 0; Round < kRounds; Round++) {
        for (int i = 0; i < kPerRound; i++)
            for (LINX_SPID Peer : Peers)
                SendWaiting(pLinx, Peer, kSignalBytes, kNews);
        TakeAcks(pLinx, Receivers);
    }
    const double Seconds = (NowUs() - Start) / 1e6;
    for (LINX_SPID Peer : Peers)
        SendWaiting(pLinx, Peer, kSignalBytes, kQuit);
    TakeAcks(pLinx, Receivers);
    for (pid_t Child : Children)
        waitpid(Child, nullptr, 0);
    linx_close(pLinx);
    return (double)kRounds * kPerRound * Receivers / Seconds;
}

int gAcks = 0;
int gRequests = 0;

uint32_t CountAck(void *, MSG_Msg *)
{
    gAcks++;
    return 0;
}

uint32_t CountRequest(void *, MSG_Msg *)
{
    gRequests++;
    return 0;
}

double MsgFanOut()
{
    MSG_OpenLocal("fan-pub");
    MSG_RegisterCallbackHelper("fan-pub", CountRequest, nullptr, MSG_NTFY_REQ_REGISTER, MSG_NTFY_REQ_REGISTER, 0);
    MSG_RegisterCallbackHelper("fan-pub", CountAck, nullptr, kAck, kAck, 0);
    std::vector<pid_t> Children;
    for (int i = 0; i < kSubscribers; i++)
        Children.push_back(Fork(Subscriber, i));
    ServeUntil("fan-pub", &gRequests, kSubscribers);
    const double Start = NowUs();
    for (int Round = 1; Round <= kRounds; Round++) {
        for (int i = 0; i < kPerRound; i++)
            if (MSG_SendNotification("fan-pub", MSG_AllocMsg(kNews, i, kSignalBytes - MSG_HEADER_BYTES)) != 0)
                Fail("MSG_SendNotification");
        while (gAcks < Round * kSubscribers) {
            MSG_Msg *pMsg = MSG_RecvAnyMsg("fan-pub", 30000);
            if (pMsg == nullptr)
                Fail("acks");
            MSG_ProcessCallback("fan-pub", pMsg);
            MSG_ReleaseMsg(pMsg);
        }
    }
    const double Seconds = (NowUs() - Start) / 1e6;
    MSG_SendNotification("fan-pub", MSG_AllocMsg(kQuit, 0, 0));
    for (pid_t Child : Children)
        waitpid(Child, nullptr, 0);
    MSG_CloseLocal("fan-pub");
    return (double)kRounds * kPerRound * kSubscribers / Seconds;
}

void FanOut()
{
    const double OneToOne = RawFanOut(1);
    const double RawToMany = RawFanOut(kSubscribers);
    const double Msg = MsgFanOut();
    printf("fan-out, 64 B signals, %d rounds of %d to each receiver:\n", kRounds, kPerRound);
    printf("  raw linx_ one-way, 1 sender -> 1 receiver      %9.0f signals/s\n", OneToOne);
    printf("  raw linx_ one-way, 1 sender -> %d receivers   %9.0f signals/s\n", kSubscribers, RawToMany);
    printf("  MSG_SendNotification -> %d subscribers        %9.0f copies/s   %.2fx raw 1->1 (goal >= 0.8x), "
           "%.2fx raw 1->%d\n",
           kSubscribers, Msg, Msg / OneToOne, Msg / RawToMany, kSubscribers);
}

// ---- scale ------------------------------------------------------------------------

// Cost of publishing one message with Count subscriptions of which one
// covers its type (the subscriber is a local endpoint, drained as it goes).
double PublishCost(int Count)
{
    MSG_OpenLocal("scale-pub");
    MSG_OpenLocal("scale-sub");
    uint32_t Sub = 0;
    MSG_OpenRemoteSync("scale-pub", "scale-sub", 5000, &Sub);
    for (int i = 1; i < Count; i++)
        MSG_RegisterNotification("scale-pub", 0x10, 0x20, Sub);
    MSG_RegisterNotification("scale-pub", kNews, kNews, Sub);
    constexpr int kCalls = 2000;
    double Spent = 0;
    for (int i = 0; i < kCalls; i++) {
        const double Start = NowUs();
        MSG_SendNotification("scale-pub", MSG_AllocMsg(kNews, i, kSignalBytes - MSG_HEADER_BYTES));
        Spent += NowUs() - Start;
        while (MSG_Msg *pMsg = MSG_RecvMsg("scale-sub", kNews, 0))
            MSG_ReleaseMsg(pMsg);
    }
    MSG_CloseLocal("scale-sub");
    MSG_CloseLocal("scale-pub");
    return Spent / kCalls;
}

int Echo(int)
{
    MSG_OpenLocal("scale-echo");
    for (;;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg("scale-echo", 30000);
        if (pMsg == nullptr || MSG_GetType(pMsg) == kQuit)
            return 0;
        MSG_SetType(pMsg, kEcho | 1);
        MSG_SendMsg("scale-echo", 0, pMsg);
    }
}

struct TableCost {
    double RoundTripUs;
    double PollUs;   // MSG_RecvAnyMsg on an empty queue: the receive loop's own cost
    double LookupNs;
};

// Microseconds per call of Call, over Count calls.
template <typename Body> double TimePerCall(int Count, Body Call)
{
    const double Start = NowUs();
    for (int i = 0; i < Count; i++)
        Call();
    return (NowUs() - Start) / Count;
}

// Round trip through MSG_RecvAnyMsg and lookup of the oldest record, with
// Count records in the endpoint's table.
TableCost WithRecords(int Count)
{
    MSG_OpenLocal("scale-table");
    LocalEndpoint *pTable = MSG_GetLocalEndpoint("scale-table");
    const pid_t Child = Fork(Echo, 0);
    uint32_t Peer = 0;
    MSG_OpenRemoteSync("scale-table", "scale-echo", 5000, &Peer);
    for (int i = 1; i < Count; i++)
        MSG_NewRemoteEndpoint(pTable, ("peer-" + std::to_string(i)).c_str(), 0, nullptr);
    constexpr int kTrips = 3000;
    std::vector<double> Trips;
    for (int i = 0; i < kTrips; i++) {
        const double Start = NowUs();
        MSG_SendMsg("scale-table", Peer, MSG_AllocMsg(kEcho, i, kSignalBytes - MSG_HEADER_BYTES));
        MSG_Msg *pAnswer = MSG_RecvAnyMsg("scale-table", 10000);
        if (pAnswer == nullptr)
            Fail("echo");
        MSG_ReleaseMsg(pAnswer);
        Trips.push_back(NowUs() - Start);
    }
    const double PollUs = TimePerCall(2000, [] { MSG_RecvAnyMsg("scale-table", 0); });
    const double LookupNs = 1e3 * TimePerCall(2000, [Peer] {
        if (MSG_GetRemoteId("scale-table", "scale-echo") != Peer) // the oldest record
            Fail("lookup");
    });
    MSG_SendMsg("scale-table", Peer, MSG_AllocMsg(kQuit, 0, 0));
    waitpid(Child, nullptr, 0);
    MSG_CloseLocal("scale-table");
    return {Median(Trips), PollUs, LookupNs};
}

void Scale()
{
    printf("scale:\n  subscriptions  MSG_SendNotification (1 matches)  per subscription\n");
    for (int Count : {10, 100, 1000, 10000}) {
        const double Us = PublishCost(Count);
        printf("  %13d  %26.2f us  %13.1f ns\n", Count, Us, Us * 1e3 / Count);
    }
    printf("  remote records  round trip (median)  empty receive poll  lookup of the oldest  per record\n");
    for (int Count : {10, 100, 1000, 10000}) {
        const TableCost Cost = WithRecords(Count);
        printf("  %14d  %16.2f us  %15.2f us  %17.0f ns  %8.1f ns\n", Count, Cost.RoundTripUs, Cost.PollUs,
               Cost.LookupNs, Cost.LookupNs / Count);
    }
}

} // namespace

int main()
{
    const std::string Instance = "bench-peers-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    DeathDetection();
    FanOut();
    Scale();
    return 0;
}
