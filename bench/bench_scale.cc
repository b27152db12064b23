// SPDX-License-Identifier: Apache-2.0
// What other processes cost a server on one stand-in instance: a 64-byte
// round trip with a server that 100 or 1000 idle processes have sent to,
// and with one that 1000 processes sent to and left (closing their socket,
// exiting with it open, or killed), each against a server nobody else
// ever reached, measured in alternating blocks in one run; and what the
// server that saw 1000 come and go maps and holds before and after them.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "host_kit.h"
#include "linx.h"

namespace {

constexpr uint32_t kEcho = 0x20;
constexpr uint32_t kStop = 0x21;
constexpr int kRounds = 9;
constexpr int kTripsPerBlock = 4000;
constexpr int kChurnBatch = 100; // senders that come and go at once

struct Server {
    const char *pName;
    pid_t Pid;
    LINX_SPID Spid;
};

Server StartEcho(LINX *pLinx, const char *pName)
{
    const pid_t Pid = fork();
    if (Pid == 0) {
        LINX *pServer = linx_open(pName, 0, nullptr);
        _exit(pServer == nullptr ? 1 : LinxPeerLoop(pServer, true));
    }
    return {pName, Pid, Hunt(pLinx, pName)};
}

void StopEcho(LINX *pLinx, const Server &S)
{
    SendWaiting(pLinx, S.Spid, 8, kBenchQuit);
    waitpid(S.Pid, nullptr, 0);
}

// How a sender leaves once it has sent its signal.
enum class Leaving { Stays, Closes, Exits, Killed };

// Count processes that each send one signal to the server and then stay
// (their pids are returned) or leave.
std::vector<pid_t> Senders(const char *pServer, int Count, Leaving How)
{
    const Pipe Sent;
    std::vector<pid_t> Pids;
    for (int i = 0; i < Count; i++) {
        const pid_t Child = fork();
        if (Child == 0) {
            LINX *p = linx_open("sender", 0, nullptr);
            if (p == nullptr)
                _exit(1);
            SendWaiting(p, Hunt(p, pServer), 64, kEcho);
            Sent.Say();
            if (How == Leaving::Closes)
                linx_close(p);
            if (How == Leaving::Stays || How == Leaving::Killed)
                pause();
            _exit(0);
        }
        Pids.push_back(Child);
    }
    for (int i = 0; i < Count; i++)
        if (!Sent.Hear())
            Fail("senders");
    for (pid_t Pid : Pids)
        if (How == Leaving::Killed)
            kill(Pid, SIGKILL);
    if (How != Leaving::Stays)
        for (pid_t Pid : Pids)
            waitpid(Pid, nullptr, 0);
    return How == Leaving::Stays ? Pids : std::vector<pid_t>();
}

// 1000 senders that come and go, a batch at a time, a third each way.
void Churn(const char *pServer)
{
    const Leaving Ways[] = {Leaving::Closes, Leaving::Exits, Leaving::Killed};
    for (int Batch = 0; Batch < 1000 / kChurnBatch; Batch++)
        Senders(pServer, kChurnBatch, Ways[Batch % 3]);
}

struct Footprint {
    int Mappings;
    int Rings;
    long RssKiB;
};

Footprint FootprintOf(pid_t Pid)
{
    Footprint F = {0, 0, RssKiB(Pid)};
    std::ifstream Maps("/proc/" + std::to_string(Pid) + "/maps");
    for (std::string Line; std::getline(Maps, Line); F.Mappings++)
        F.Rings += Line.find("/memfd:linx-ring") != std::string::npos;
    return F;
}

} // namespace

int main()
{
    const std::string Instance = "bench-scale-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    struct rlimit Limit;
    getrlimit(RLIMIT_NOFILE, &Limit);
    Limit.rlim_cur = Limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &Limit);

    LINX *pLinx = linx_open("scale-client", 0, nullptr);
    if (pLinx == nullptr)
        Fail("linx_open");
    const Server Servers[] = {StartEcho(pLinx, "alone"), StartEcho(pLinx, "with-100"),
                              StartEcho(pLinx, "with-1000"), StartEcho(pLinx, "after-1000")};
    const char *pWhat[] = {"a server nobody else reached", "+ 100 idle senders", "+ 1000 idle senders",
                           "after 1000 senders came and went"};
    // Every page of the rings between the client and that server in use, as
    // they will be after the blocks.
    RoundTripMedianUs(pLinx, Servers[3].Spid, 5 * kTripsPerBlock, 64, kEcho);
    const Footprint Before = FootprintOf(Servers[3].Pid);
    std::vector<pid_t> Idle = Senders("with-100", 100, Leaving::Stays);
    const std::vector<pid_t> More = Senders("with-1000", 1000, Leaving::Stays);
    Idle.insert(Idle.end(), More.begin(), More.end());
    Churn("after-1000");
    const Footprint RightAfter = FootprintOf(Servers[3].Pid);
    RoundTripMedianUs(pLinx, Servers[3].Spid, 1, 64, kEcho);
    const Footprint NextReceive = FootprintOf(Servers[3].Pid);

    const auto Blocks = AlternatingBlocks(4, kRounds, [&](size_t k) {
        return RoundTripMedianUs(pLinx, Servers[k].Spid, kTripsPerBlock, 64, kEcho);
    });
    const Footprint AfterAll = FootprintOf(Servers[3].Pid);
    printf("64 B round trip, medians of %d alternating blocks of %d      us   vs alone: median (min-max) of %d pairs\n",
           kRounds, kTripsPerBlock, kRounds);
    for (size_t k = 0; k < 4; k++) {
        const PairRatio R = PairRatios(Blocks[0], Blocks[k]);
        printf("  %-40s %8.2f   %5.2fx (%.2f-%.2f)\n", pWhat[k], Median(Blocks[k]), R.Median, R.Min, R.Max);
    }
    printf("\nthe server 1000 senders came to and left   before   right after   at its next receive   after the blocks\n");
    printf("  mappings                                %8d %13d %21d %18d\n", Before.Mappings, RightAfter.Mappings,
           NextReceive.Mappings, AfterAll.Mappings);
    printf("  rings mapped                            %8d %13d %21d %18d\n", Before.Rings, RightAfter.Rings,
           NextReceive.Rings, AfterAll.Rings);
    printf("  resident memory (KiB)                   %8ld %13ld %21ld %18ld\n", Before.RssKiB, RightAfter.RssKiB,
           NextReceive.RssKiB, AfterAll.RssKiB);

    for (pid_t Pid : Idle)
        kill(Pid, SIGKILL);
    for (pid_t Pid : Idle)
        waitpid(Pid, nullptr, 0);
    for (const Server &S : Servers)
        StopEcho(pLinx, S);
    linx_close(pLinx);
    return 0;
}
