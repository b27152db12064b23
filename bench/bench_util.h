/* SPDX-License-Identifier: Apache-2.0 */
// Helpers the benchmark programs share: a clock, percentiles, giving up,
// comparisons in alternating blocks, and the raw linx_ steps every
// comparison needs.
#pragma once

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "linx.h"

inline double NowUs()
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec * 1e6 + Now.tv_nsec / 1e3;
}

inline double Percentile(std::vector<double> Samples, double Fraction)
{
    std::sort(Samples.begin(), Samples.end());
    return Samples[std::min(Samples.size() - 1, (size_t)(Samples.size() * Fraction))];
}

inline double Median(const std::vector<double> &Samples)
{
    return Percentile(Samples, 0.5);
}

[[noreturn]] inline void Fail(const char *pWhat)
{
    fprintf(stderr, "%s: %s\n", pWhat, strerror(errno));
    exit(1);
}

// Where the two sides of a pair run.  The scheduler may leave them on one
// core or spread them over two, and each mechanism has its own best: a
// process that sleeps until its peer writes wakes fastest on the core the
// peer just left (a raw socket's round trip here: 8 us on one core, 49 us
// on two), one that spins while it waits needs a core of its own (linx_:
// 1.7 us on two, 5.4 us on one).  A comparison measures every mechanism in
// both placements and keeps its better one, so that nothing is compared
// at its worst against another at its best.  Nothing is pinned on a
// machine with a single core.
enum class Placement { OneCore, TwoCores };

inline bool PinTask(pid_t Task, int Core)
{
    const long Cores = sysconf(_SC_NPROCESSORS_ONLN);
    if (Cores < 2)
        return false;
    cpu_set_t Set;
    CPU_ZERO(&Set);
    CPU_SET(Core % Cores, &Set);
    return sched_setaffinity(Task, sizeof Set, &Set) == 0;
}

// The core of the peers the side that measures starts from now on.
inline int &PeerCore()
{
    static int Core = 1;
    return Core;
}

// Puts this process on core 0 and its peers (processes or threads, by
// id, and those it starts later) on core 0 too or on core 1.
inline void Place(Placement Where, const std::vector<pid_t> &Peers)
{
    PeerCore() = Where == Placement::OneCore ? 0 : 1;
    PinTask(0, 0);
    for (const pid_t Peer : Peers)
        PinTask(Peer, PeerCore());
}

// The peer processes a benchmark started; StopPeers ends those left.
inline std::vector<pid_t> &Peers()
{
    static std::vector<pid_t> Started;
    return Started;
}

// Runs Body in a child on the peers' core.
template <typename Body> pid_t StartPeer(Body Run)
{
    fflush(nullptr);
    const pid_t Child = fork();
    if (Child == 0) {
        PinTask(0, PeerCore());
        _exit(Run());
    }
    Peers().push_back(Child);
    return Child;
}

// Waits for a peer that ends by itself.
inline void Reap(pid_t Child)
{
    waitpid(Child, nullptr, 0);
    Peers().erase(std::find(Peers().begin(), Peers().end(), Child));
}

inline void StopPeers()
{
    for (const pid_t Child : Peers()) {
        kill(Child, SIGKILL);
        waitpid(Child, nullptr, 0);
    }
    Peers().clear();
}

// Compares mechanisms by measuring them in turn, block after block (after
// a warm-up round that is thrown away), so that a drift of the machine's
// speed reaches all of them alike: Blocks[k][r] is what Measure(k) gave in
// round r.
inline std::vector<std::vector<double>> AlternatingBlocks(size_t Mechanisms, int Rounds,
                                                          const std::function<double(size_t)> &Measure)
{
    std::vector<std::vector<double>> Blocks(Mechanisms);
    for (int Round = -1; Round < Rounds; Round++)
        for (size_t k = 0; k < Mechanisms; k++) {
            const double Value = Measure(k);
            if (Round >= 0)
                Blocks[k].push_back(Value);
        }
    return Blocks;
}

// The ratio of B to A over rounds measured side by side: the median of
// the per-round ratios, and the lowest and highest of them.
struct PairRatio {
    double Median, Min, Max;
};

inline PairRatio PairRatios(const std::vector<double> &A, const std::vector<double> &B)
{
    std::vector<double> Ratios;
    for (size_t r = 0; r < A.size() && r < B.size(); r++)
        Ratios.push_back(B[r] / A[r]);
    return {Median(Ratios), *std::min_element(Ratios.begin(), Ratios.end()),
            *std::max_element(Ratios.begin(), Ratios.end())};
}

// One mechanism of a comparison: its name, what one block of it measures
// (a median time in us, or a rate), and the peers of the side that
// measures, moved between cores by the comparison.
struct Mechanism {
    const char *pName;
    std::function<double()> Measure;
    std::vector<pid_t> Peers;
};

// Measures the mechanisms in alternating blocks (Rounds of them, at least
// 5, after a warm-up), each block in both placements of its pair keeping
// the better value (bLower: smaller is better), and prints each one's
// median over the blocks and its ratio to the one at index Reference: the
// median of the per-round ratios, with the lowest and the highest.
// Returns the blocks.
inline std::vector<std::vector<double>> Compare(const char *pTitle, const char *pUnit, int Rounds,
                                                const std::vector<Mechanism> &Mechanisms, bool bLower = true,
                                                size_t Reference = 0)
{
    std::vector<std::vector<double>> Placed[2]; // [placement][mechanism][round]
    for (auto &Each : Placed)
        Each.resize(Mechanisms.size());
    const auto Blocks = AlternatingBlocks(Mechanisms.size(), Rounds, [&](size_t k) {
        double Value[2];
        for (const Placement Where : {Placement::OneCore, Placement::TwoCores}) {
            Place(Where, Mechanisms[k].Peers);
            Value[(int)Where] = Mechanisms[k].Measure();
            Placed[(int)Where][k].push_back(Value[(int)Where]);
        }
        return bLower ? std::min(Value[0], Value[1]) : std::max(Value[0], Value[1]);
    });
    printf("%s (%d rounds, each mechanism in its better placement; medians; ratio to %s: median of "
           "the rounds, lowest-highest; in brackets the medians on one core / two cores)\n",
           pTitle, Rounds, Mechanisms[Reference].pName);
    for (size_t k = 0; k < Mechanisms.size(); k++) {
        const PairRatio R = PairRatios(Blocks[Reference], Blocks[k]);
        printf("  %-44s %10.2f %-4s", Mechanisms[k].pName, Median(Blocks[k]), pUnit);
        if (k != Reference)
            printf(" %6.2fx (%.2f-%.2f)", R.Median, R.Min, R.Max);
        else
            printf(" %21s", "");
        // The warm-up round is not in Blocks: its placements are dropped too.
        const auto Kept = [&](int Where) {
            return std::vector<double>(Placed[Where][k].begin() + 1, Placed[Where][k].end());
        };
        printf("  [%.2f / %.2f]\n", Median(Kept(0)), Median(Kept(1)));
    }
    fflush(stdout);
    return Blocks;
}

// Prints the ratio of mechanism B to mechanism A over the rounds of a
// comparison, with its spread.
inline void PrintRatio(const char *pWhat, const std::vector<double> &A, const std::vector<double> &B)
{
    const PairRatio R = PairRatios(A, B);
    printf("  %-44s %6.2fx (%.2f-%.2f)\n", pWhat, R.Median, R.Min, R.Max);
}

// The SPID of the socket of that name, found by a raw hunt.
inline LINX_SPID Hunt(LINX *pLinx, const char *pName)
{
    if (linx_hunt(pLinx, pName, nullptr) != 0)
        Fail("hunt");
    union LINX_SIGNAL *pSig = nullptr;
    if (linx_receive_w_tmo(pLinx, &pSig, 10000, nullptr) <= 0)
        Fail("hunt answer");
    const LINX_SPID Peer = linx_sender(pLinx, &pSig);
    linx_free_buf(pLinx, &pSig);
    return Peer;
}

// Sends a new signal, waiting while the receiver's queue is full.
inline void SendWaiting(LINX *pLinx, LINX_SPID Peer, uint32_t Size, uint32_t SigNo)
{
    union LINX_SIGNAL *pSig = linx_alloc(pLinx, Size, SigNo);
    while (linx_send(pLinx, &pSig, Peer) != 0) {
        if (errno != ENOBUFS)
            Fail("send");
        sched_yield(); // let the receiver catch up
        pSig = linx_alloc(pLinx, Size, SigNo);
    }
}

// The median of Rounds round trips of a Size-byte signal to an echo.
inline double RoundTripMedianUs(LINX *pLinx, LINX_SPID Echo, int Rounds, uint32_t Size, uint32_t SigNo)
{
    std::vector<double> Samples;
    for (int i = 0; i < Rounds; i++) {
        const double Start = NowUs();
        SendWaiting(pLinx, Echo, Size, SigNo);
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive_w_tmo(pLinx, &pSig, 5000, nullptr) <= 0)
            Fail("echo");
        linx_free_buf(pLinx, &pSig);
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// The signals of the benchmarks' peers: kBenchMark asks a peer how many
// signals it took since the last mark (the answer's second word), kBenchAck
// tells a sender how many the peer took since the last mark, and
// kBenchQuit ends the peer.
constexpr uint32_t kBenchMark = 0x7F11;
constexpr uint32_t kBenchQuit = 0x7F12;
constexpr uint32_t kBenchAck = 0x7F13;

// Sends an acknowledgement of Taken signals to To.
inline void LinxAck(LINX *pLinx, LINX_SPID To, uint32_t Taken)
{
    union LINX_SIGNAL *pAck = linx_alloc(pLinx, 8, kBenchAck);
    memcpy((char *)pAck + 4, &Taken, sizeof Taken);
    linx_send(pLinx, &pAck, To);
}

// A peer that echoes every signal back to its sender (bEcho) or takes it
// (acknowledging every AckEvery of them when not 0), answers marks with
// its count, and ends at kBenchQuit.
inline int LinxPeerLoop(LINX *pLinx, bool bEcho, uint32_t AckEvery = 0)
{
    for (uint32_t Taken = 0;;) {
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive(pLinx, &pSig, nullptr) <= 0)
            return 1;
        uint32_t SigNo;
        memcpy(&SigNo, pSig, sizeof SigNo);
        const LINX_SPID From = linx_sender(pLinx, &pSig);
        if (SigNo == kBenchQuit) {
            linx_free_buf(pLinx, &pSig);
            return linx_close(pLinx);
        }
        if (SigNo == kBenchMark) {
            memcpy((char *)pSig + 4, &Taken, sizeof Taken);
            Taken = 0;
        } else if (++Taken, AckEvery != 0 && Taken % AckEvery == 0) {
            LinxAck(pLinx, From, Taken);
        }
        if (bEcho || SigNo == kBenchMark)
            linx_send(pLinx, &pSig, From);
        else
            linx_free_buf(pLinx, &pSig);
    }
}

// A sliding window over a peer that acknowledges every Window / 2 signals:
// the sender waits only when a whole window is unacknowledged, so that it
// never hammers a full queue and never stalls the flow.
struct SlidingWindow {
    uint32_t Window;
    uint32_t Sent = 0;
    uint32_t Acked = 0;
};

// Waits (for acknowledgements on pLinx) until another signal may go.
inline void LinxAwaitRoom(LINX *pLinx, SlidingWindow *pW)
{
    static const LINX_SIGSELECT Acks[] = {1, kBenchAck};
    while (pW->Sent - pW->Acked >= pW->Window) {
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive_w_tmo(pLinx, &pSig, 60000, Acks) <= 0)
            Fail("acknowledgement");
        memcpy(&pW->Acked, (char *)pSig + 4, sizeof pW->Acked);
        linx_free_buf(pLinx, &pSig);
    }
}

// Drops the acknowledgements left over once a mark was answered (they all
// came before the answer), so that the next window starts afresh.
inline void LinxDropAcks(LINX *pLinx)
{
    static const LINX_SIGSELECT Acks[] = {1, kBenchAck};
    for (union LINX_SIGNAL *pSig = nullptr; linx_receive_w_tmo(pLinx, &pSig, 0, Acks) > 0;)
        linx_free_buf(pLinx, &pSig);
}

// How many signals of Size bytes the window lets go: what a receiver's
// queue of 512 KiB (linxd's default) holds, less one for the mark.
inline uint32_t QueueWindow(uint32_t Size)
{
    const uint32_t EntryBytes = 16 + (Size + 15) / 16 * 16; // a ring entry: header and padded payload
    return std::max<uint32_t>(2, 512 * 1024 / EntryBytes - 1);
}

// Asks the peer for its count (waiting while its queue is full).
inline uint32_t LinxMark(LINX *pLinx, LINX_SPID Peer)
{
    SendWaiting(pLinx, Peer, 8, kBenchMark);
    union LINX_SIGNAL *pSig = nullptr;
    const LINX_SIGSELECT Marks[] = {1, kBenchMark};
    if (linx_receive_w_tmo(pLinx, &pSig, 60000, Marks) <= 0)
        Fail("mark");
    uint32_t Taken;
    memcpy(&Taken, (char *)pSig + 4, sizeof Taken);
    linx_free_buf(pLinx, &pSig);
    return Taken;
}
