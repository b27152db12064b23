// Helpers the benchmark programs share: a clock, percentiles, giving up,
// comparisons in alternating blocks, and the raw linx_ steps every
// comparison needs.
#pragma once

#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

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

// Echoes every signal back to its sender (bEcho) or just takes it until a
// signal numbered StopSigNo arrives; answers that one with the number of
// signals it took.
inline int LinxEchoLoop(LINX *pLinx, bool bEcho, uint32_t StopSigNo)
{
    uint32_t Taken = 0;
    for (;;) {
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive(pLinx, &pSig, nullptr) <= 0)
            return 1;
        uint32_t SigNo;
        memcpy(&SigNo, pSig, sizeof SigNo);
        const LINX_SPID From = linx_sender(pLinx, &pSig);
        if (SigNo == StopSigNo) {
            memcpy((char *)pSig + 4, &Taken, sizeof Taken);
            linx_send(pLinx, &pSig, From);
            return 0;
        }
        Taken++;
        if (bEcho)
            linx_send(pLinx, &pSig, From);
        else
            linx_free_buf(pLinx, &pSig);
    }
}
