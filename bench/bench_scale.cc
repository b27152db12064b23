// What the number of open LINX sockets on one stand-in instance costs a
// hunt and a 64-byte round trip between two processes: the same pair of
// processes measured beside 0 other sockets, 1000 sockets held by one
// process, and 100 processes holding 10 sockets each, in one run.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_util.h"
#include "linx.h"

namespace {

constexpr uint32_t kEcho = 0x20;
constexpr uint32_t kStop = 0x21;
constexpr int kRounds = 5000;
constexpr int kHunts = 1000;

// Children that open Sockets sockets each and hold them until killed; the
// parent waits until every one of them is open.
std::vector<pid_t> HoldSockets(int Processes, int Sockets)
{
    std::vector<pid_t> Holders;
    int Ready[2];
    if (pipe(Ready) != 0)
        Fail("pipe");
    for (int p = 0; p < Processes; p++) {
        const pid_t Child = fork();
        if (Child == 0) {
            for (int s = 0; s < Sockets; s++)
                if (linx_open(("held-" + std::to_string(p) + "-" + std::to_string(s)).c_str(), 0, nullptr) == nullptr)
                    _exit(1);
            (void)!write(Ready[1], "", 1);
            pause();
            _exit(0);
        }
        Holders.push_back(Child);
    }
    for (int p = 0; p < Processes; p++) {
        char Byte;
        if (read(Ready[0], &Byte, 1) != 1)
            Fail("holders");
    }
    close(Ready[0]);
    close(Ready[1]);
    return Holders;
}

void Release(const std::vector<pid_t> &Holders)
{
    for (pid_t Child : Holders)
        kill(Child, SIGKILL);
    for (pid_t Child : Holders)
        waitpid(Child, nullptr, 0);
}

struct Costs {
    double HuntUs;
    double RoundTripUs;
};

Costs Measure(LINX *pLinx)
{
    const pid_t Echo = fork();
    if (Echo == 0) {
        LINX *pPeer = linx_open("scale-echo", 0, nullptr);
        _exit(pPeer == nullptr ? 1 : LinxEchoLoop(pPeer, true, kStop));
    }
    const LINX_SPID Peer = Hunt(pLinx, "scale-echo");
    std::vector<double> Hunts, Rounds;
    for (int i = 0; i < kHunts; i++) {
        const double Start = NowUs();
        Hunt(pLinx, "scale-echo");
        Hunts.push_back(NowUs() - Start);
    }
    for (int i = 0; i < kRounds; i++) {
        const double Start = NowUs();
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, 64, kEcho);
        if (linx_send(pLinx, &pSig, Peer) != 0 || linx_receive(pLinx, &pSig, nullptr) <= 0)
            Fail("round trip");
        linx_free_buf(pLinx, &pSig);
        Rounds.push_back(NowUs() - Start);
    }
    SendWaiting(pLinx, Peer, 8, kStop);
    union LINX_SIGNAL *pSig = nullptr;
    linx_receive(pLinx, &pSig, nullptr);
    linx_free_buf(pLinx, &pSig);
    waitpid(Echo, nullptr, 0);
    return {Median(Hunts), Median(Rounds)};
}

} // namespace

int main()
{
    const std::string Instance = "bench-scale-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    struct rlimit Limit;
    getrlimit(RLIMIT_NOFILE, &Limit);
    Limit.rlim_cur = Limit.rlim_max; // 1000 sockets in one process need several thousand descriptors
    setrlimit(RLIMIT_NOFILE, &Limit);

    LINX *pLinx = linx_open("scale-client", 0, nullptr);
    if (pLinx == nullptr)
        Fail("linx_open");
    struct Setting {
        const char *pName;
        int Processes;
        int Sockets;
    };
    const Setting Settings[] = {{"2 sockets (the pair alone)", 0, 0},
                                {"+ 1000 sockets in one process", 1, 1000},
                                {"+ 100 processes x 10 sockets", 100, 10}};
    Measure(pLinx); // warm-up
    const Costs Base = Measure(pLinx);
    printf("%-32s %12s %10s %14s %10s\n", "open sockets on the instance", "hunt (us)", "vs 2", "round trip (us)", "vs 2");
    for (const Setting &S : Settings) {
        const std::vector<pid_t> Holders = HoldSockets(S.Processes, S.Sockets);
        const Costs C = S.Processes == 0 ? Base : Measure(pLinx);
        printf("%-32s %12.2f %9.2fx %14.2f %9.2fx\n", S.pName, C.HuntUs, C.HuntUs / Base.HuntUs, C.RoundTripUs,
               C.RoundTripUs / Base.RoundTripUs);
        Release(Holders);
    }
    linx_close(pLinx);
    return 0;
}
