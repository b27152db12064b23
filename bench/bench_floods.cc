// SPDX-License-Identifier: Apache-2.0
// What floods from a hostile or careless peer cost the others, measured
// with real processes on linxd instances of their own:
//  - a receiver blocked on one signal number while a peer floods it with
//    64 KiB signals of another: the receiver's growth, the sends accepted
//    and refused, an unrelated pair's round trip before and during, and
//    whether an honest signal of the awaited number still gets through;
//  - a client that never reads its queue while it asks for hunts and
//    timeouts linxd answers at once: linxd's growth until it refuses;
//  - a process that keeps its ring to an endpoint behind a link full of
//    64 KiB signals: its node's linxd's memory during and after, and an
//    honest pair's pings across the same link;
//  - a process behind a link with twelve sockets it never reads, each
//    flooded across it: the same;
//  - bystanders: an unrelated pair's round trips across a link while one
//    process on either node misbehaves (never reads its twelve sockets,
//    keeps its ring to a reader behind the link full, or writes every bell
//    it holds in a loop), against none, in alternating blocks, with what
//    each node's linxd spends;
//  - 70000 hunts for absent names behind a link from one process: how many
//    were taken, whether the link stayed up, and another process's hunt;
//  - 3000 TCP connections to a node that never finish the TLS hello:
//    linxd's memory during and after, and the lines it wrote.
#include <sys/resource.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_nodes.h"

namespace {

constexpr int kFloodSeconds = 3;
constexpr uint32_t kPing = 0x70, kWanted = 0xA, kFlood = 0xB;

// A child that opens Name on Instance and runs Body on it; returns once it
// is open.
template <typename Body> pid_t Start(const std::string &Instance, const char *pName, Body Run)
{
    const Pipe Ready;
    const pid_t Child = fork();
    if (Child == 0) {
        LINX *pLinx = OpenOn(Instance, pName);
        Ready.Say();
        Run(pLinx);
        _exit(0);
    }
    if (!Ready.Hear())
        Fail("start");
    return Child;
}

void Stop(pid_t Child)
{
    kill(Child, SIGKILL);
    waitpid(Child, nullptr, 0);
}

pid_t StartEcho(const std::string &Instance, const char *pName)
{
    return Start(Instance, pName, [](LINX *p) { LinxPeerLoop(p, true); });
}

// Sends 64 KiB signals of kFlood to the socket Name (or Name0 to
// Name<Count - 1> in turn) for Seconds as fast as they are taken; says how
// many were accepted and refused on Told.
pid_t StartFlooder(const std::string &Instance, const char *pName, const Pipe &Told, int Count = 0,
                   double Seconds = kFloodSeconds)
{
    return Start(Instance, "flooder", [pName, &Told, Count, Seconds](LINX *p) {
        std::vector<LINX_SPID> Targets;
        for (int i = 0; i < std::max(Count, 1); i++)
            Targets.push_back(Hunt(p, (pName + (Count > 0 ? std::to_string(i) : "")).c_str()));
        long Counts[2] = {0, 0}; // accepted, refused
        for (const double End = NowUs() + Seconds * 1e6; NowUs() < End;) {
            union LINX_SIGNAL *pSig = linx_alloc(p, 65536, kFlood);
            memset((char *)pSig + 4, 0, 65536 - 4);
            Counts[linx_send(p, &pSig, Targets[(Counts[0] + Counts[1]) % Targets.size()]) == 0 ? 0 : 1]++;
        }
        Told.Say(Counts);
    });
}

// A process of socket Name that opens Count more (Name0 to Name<Count - 1>)
// and never reads any of them.
pid_t StartDeaf(const std::string &Instance, const char *pName, int Count)
{
    return Start(Instance, pName, [pName, Count](LINX *) {
        for (int i = 0; i < Count; i++)
            linx_open((pName + std::to_string(i)).c_str(), 0, nullptr);
        pause();
    });
}

// A process of socket Name that sends a signal to Target (or waits for one
// when it is null), then writes every eventfd it has in a loop: its
// receivers' bells, its own, and the room bell of linxd's ring into it.
pid_t StartRinger(const std::string &Instance, const char *pName, const char *pTarget)
{
    return Start(Instance, pName, [pTarget](LINX *p) {
        union LINX_SIGNAL *pSig = nullptr;
        if (pTarget != nullptr)
            SendWaiting(p, Hunt(p, pTarget), 64, kFlood);
        else if (linx_receive(p, &pSig, nullptr) <= 0)
            return;
        RingEveryBell();
    });
}

// Pings an echo with 64 B signals, 10 ms apart and each given 1 s, for as
// long as a flood lasts, sampling the resident memory of Watched as it
// goes.
struct Pings {
    int Sent = 0, Answered = 0;
    double MedianUs = 0;
    long MostRssKiB = 0;
};

Pings PingAWhile(LINX *pLinx, LINX_SPID Echo, pid_t Watched)
{
    Pings P;
    std::vector<double> Samples;
    for (const double End = NowUs() + kFloodSeconds * 1e6; NowUs() < End; P.Sent++) {
        const double Start = NowUs();
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, 64, kPing);
        linx_send(pLinx, &pSig, Echo);
        if (linx_receive_w_tmo(pLinx, &pSig, 1000, nullptr) > 0) {
            P.Answered++;
            Samples.push_back(NowUs() - Start);
        }
        linx_free_buf(pLinx, &pSig);
        P.MostRssKiB = std::max(P.MostRssKiB, RssKiB(Watched));
        usleep(10000);
    }
    P.MedianUs = Samples.empty() ? 0 : Median(Samples);
    return P;
}

int CountLines(const std::string &Log, const std::string &Text)
{
    int Lines = 0;
    for (size_t At = Log.find(Text); At != std::string::npos; At = Log.find(Text, At + 1))
        Lines++;
    return Lines;
}

void SelectiveReceiverFlood(const std::string &Instance)
{
    const Pipe Got, Told;
    const pid_t Picky = Start(Instance, "picky", [&](LINX *p) {
        static const LINX_SIGSELECT kOnlyWanted[] = {1, kWanted};
        union LINX_SIGNAL *pSig = nullptr;
        linx_receive(p, &pSig, kOnlyWanted); // the honest sender's, after the flood
        const double At = NowUs();
        Got.Say(At);
    });
    const pid_t Echo = StartEcho(Instance, "echo");
    LINX *pLinx = OpenOn(Instance, "honest");
    const LINX_SPID EchoSpid = Hunt(pLinx, "echo");
    const double Quiet = PingAWhile(pLinx, EchoSpid, Picky).MedianUs;
    const long Before = RssKiB(Picky);
    const pid_t Flooder = StartFlooder(Instance, "picky", Told);
    const Pings During = PingAWhile(pLinx, EchoSpid, Picky);
    long Counts[2];
    Told.Hear(&Counts);
    const double Sent = NowUs();
    SendWaiting(pLinx, Hunt(pLinx, "picky"), 64, kWanted);
    double At = 0;
    Got.Hear(&At);
    printf("Receiver waiting for one number, flooded %d s with 64 KiB signals of another:\n", kFloodSeconds);
    printf("  sends accepted %ld, refused with ENOBUFS %ld; receiver grew by %ld KiB at most\n", Counts[0],
           Counts[1], During.MostRssKiB - Before);
    printf("  pings of an unrelated pair, 10 ms apart: %d of %d answered within 1 s, median %.1f us (quiet %.1f "
           "us, %.2fx)\n",
           During.Answered, During.Sent, During.MedianUs, Quiet, During.MedianUs / Quiet);
    printf("  an honest signal of the awaited number, sent after the flood, arrived in %.0f us\n", At - Sent);
    linx_close(pLinx);
    for (pid_t Child : {Flooder, Picky, Echo})
        Stop(Child);
}

void NeverReadingClient(const BenchNode &Node)
{
    LINX *pLinx = OpenOn(Node.Instance, "never-reads");
    const pid_t Linxd = Node.Pid;
    const long Before = RssKiB(Linxd);
    long Granted = 0;
    const double Start = NowUs();
    while (NowUs() - Start < kFloodSeconds * 1e6 && linx_hunt(pLinx, "never-reads", nullptr) == 0 &&
           linx_request_tmo(pLinx, 0, nullptr) != 0)
        Granted += 2;
    const int Error = errno;
    printf("A client that never reads asks for hunts and timeouts answered at once:\n");
    printf("  %ld granted, then %s; linxd grew by %ld KiB\n", Granted,
           Error == ENOBUFS ? "refused with ENOBUFS" : strerror(Error), RssKiB(Linxd) - Before);
    linx_close(pLinx);
}

// Two nodes of this host: a dials b.
struct LinkedNodes {
    BenchNode A, B;
};

LinkedNodes StartLinked(const std::string &Tag, const std::vector<std::string> &BArgs = {})
{
    LinkedNodes N;
    N.B = StartNode(Tag + "-b", BArgs);
    N.A = StartNode(Tag + "-a", {"--link", "b=unix:" + Tag + "-b"});
    if (!AwaitText(N.A.Log, "link b is up"))
        Fail("link");
    return N;
}

// Stops the nodes and the processes on them.
void StopLinked(LinkedNodes &N, std::initializer_list<pid_t> Children)
{
    for (pid_t Child : Children)
        Stop(Child);
    StopNode(N.A);
    StopNode(N.B);
}

// Floods Target behind the link from node a while an honest pair pings
// b/echo across the same link.
void FloodAcrossLink(const char *pTitle, const std::string &Tag, const char *pTarget,
                     const std::function<void(LINX *)> &Target)
{
    LinkedNodes N = StartLinked(Tag);
    const pid_t Sink = Start(N.B.Instance, pTarget + 2, Target);
    const pid_t Echo = StartEcho(N.B.Instance, "echo");
    LINX *pLinx = OpenOn(N.A.Instance, "honest");
    const LINX_SPID EchoSpid = Hunt(pLinx, "b/echo");
    const double Quiet = PingAWhile(pLinx, EchoSpid, N.A.Pid).MedianUs;
    const long BeforeA = RssKiB(N.A.Pid), BeforeB = RssKiB(N.B.Pid);
    const Pipe Told;
    const pid_t Flooder = StartFlooder(N.A.Instance, pTarget, Told);
    const Pings During = PingAWhile(pLinx, EchoSpid, N.A.Pid);
    long Counts[2];
    Told.Hear(&Counts);
    const long DuringB = RssKiB(N.B.Pid);
    Stop(Flooder);
    usleep(1500000);
    printf("%s:\n", pTitle);
    printf("  sends accepted %ld, refused with ENOBUFS %ld\n", Counts[0], Counts[1]);
    printf("  linxd of a: %ld KiB before, %ld KiB at most during, %ld KiB 1.5 s after; linxd of b: %ld KiB "
           "before, %ld KiB at the end\n",
           BeforeA, During.MostRssKiB, RssKiB(N.A.Pid), BeforeB, DuringB);
    printf("  honest pings across the link, 10 ms apart: %d of %d answered within 1 s, median %.0f us (quiet "
           "%.0f us)\n",
           During.Answered, During.Sent, During.MedianUs, Quiet);
    printf("  lines \"link b is down\" on a: %d\n", CountLines(ReadFile(N.A.Log), "link b is down"));
    linx_close(pLinx);
    StopLinked(N, {Sink, Echo});
}

// Round trips of 64 B across the link in one second, as fast as they go.
double TripsASecond(LINX *pLinx, LINX_SPID Echo)
{
    int Trips = 0;
    for (const double End = NowUs() + 1e6; NowUs() < End; Trips++) {
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, 64, kPing);
        if (linx_send(pLinx, &pSig, Echo) != 0 || linx_receive_w_tmo(pLinx, &pSig, 1000, nullptr) <= 0)
            Fail("bystander's round trip");
        linx_free_buf(pLinx, &pSig);
    }
    return Trips;
}

// An unrelated pair's round trips across the link while one process on
// either node misbehaves, against none, in alternating blocks: each block
// starts the misbehaving processes, lets them settle for 200 ms, counts the
// pair's round trips for a second and stops them.  What both nodes' linxd
// spend meanwhile is added up by scenario.
void Bystanders(const std::string &Tag)
{
    LinkedNodes N = StartLinked(Tag);
    const pid_t Echo = StartEcho(N.B.Instance, "echo"), Sink = Start(N.B.Instance, "sink", [](LINX *p) {
        LinxPeerLoop(p, false);
    });
    LINX *pLinx = OpenOn(N.A.Instance, "honest");
    const LINX_SPID EchoSpid = Hunt(pLinx, "b/echo");
    const Pipe Told(O_NONBLOCK);
    struct Scenario {
        const char *pName;
        std::function<std::vector<pid_t>()> Begin;
        long Ticks = 0; // of both linxd, over its blocks
        int Blocks = 0;
    };
    std::vector<Scenario> Scenarios = {
        {"nobody misbehaves", [] { return std::vector<pid_t>(); }},
        {"twelve sockets on b never read, flooded from a",
         [&] { return std::vector<pid_t>{StartDeaf(N.B.Instance, "deaf", 12),
                                         StartFlooder(N.A.Instance, "b/deaf", Told, 12, 60)}; }},
        {"a ring into a reader on b kept full from a",
         [&] { return std::vector<pid_t>{StartFlooder(N.A.Instance, "b/sink", Told, 0, 60)}; }},
        {"every bell held written in a loop, on b",
         [&] {
             const pid_t Ringer = StartRinger(N.B.Instance, "ringer", nullptr);
             SendWaiting(pLinx, Hunt(pLinx, "b/ringer"), 64, kFlood);
             return std::vector<pid_t>{Ringer};
         }},
        {"every bell held written in a loop, on a",
         [&] { return std::vector<pid_t>{StartRinger(N.A.Instance, "ringer", "b/echo")}; }},
    };
    std::vector<Mechanism> Mechanisms;
    for (Scenario &S : Scenarios)
        Mechanisms.push_back({S.pName,
                              [&] {
                                  const std::vector<pid_t> Misbehaving = S.Begin();
                                  usleep(200000);
                                  const long Ticks = CpuTicks(N.A.Pid) + CpuTicks(N.B.Pid);
                                  const double Trips = TripsASecond(pLinx, EchoSpid);
                                  S.Ticks += CpuTicks(N.A.Pid) + CpuTicks(N.B.Pid) - Ticks;
                                  S.Blocks++;
                                  for (const pid_t Child : Misbehaving)
                                      Stop(Child);
                                  return Trips;
                              },
                              {Echo}});
    Compare("Bystanders: an unrelated pair's round trips a second across a link while one process misbehaves",
            "/s", 5, Mechanisms, false);
    printf("  linxd of a and b together, CPU while the pair ran:");
    for (const Scenario &S : Scenarios)
        printf(" %.0f%%", 100.0 * S.Ticks / (sysconf(_SC_CLK_TCK) * (double)S.Blocks));
    printf(" (in the order above)\n");
    linx_close(pLinx);
    StopLinked(N, {Echo, Sink});
}

void HuntsBeyondTheBound(const std::string &Tag)
{
    LinkedNodes N = StartLinked(Tag);
    const pid_t Echo = StartEcho(N.B.Instance, "echo");
    const Pipe Told;
    const pid_t Hunter = Start(N.A.Instance, "hunter", [&](LINX *pFirst) {
        std::vector<LINX *> Sockets = {pFirst};
        while (Sockets.size() < 18)
            Sockets.push_back(linx_open(("hunter" + std::to_string(Sockets.size())).c_str(), 0, nullptr));
        long Counts[2] = {0, 0};
        for (int i = 0; i < 70000; i++)
            Counts[linx_hunt(Sockets[i % 18], ("b/absent-" + std::to_string(i)).c_str(), nullptr) == 0 ? 0 : 1]++;
        Told.Say(Counts);
        pause();
    });
    long Counts[2];
    Told.Hear(&Counts);
    usleep(500000);
    LINX *pLinx = OpenOn(N.A.Instance, "other");
    const double Start = NowUs();
    linx_hunt(pLinx, "b/echo", nullptr);
    union LINX_SIGNAL *pSig = nullptr;
    const bool bAnswered = linx_receive_w_tmo(pLinx, &pSig, 5000, nullptr) > 0;
    const double Took = NowUs() - Start;
    linx_free_buf(pLinx, &pSig);
    usleep(2000000);
    printf("70000 hunts for absent names behind a link, from one process over 18 sockets:\n");
    printf("  %ld taken, %ld refused; lines \"link b is down\" on a within 2.5 s: %d; linxd of a %ld KiB, of b "
           "%ld KiB\n",
           Counts[0], Counts[1], CountLines(ReadFile(N.A.Log), "link b is down"), RssKiB(N.A.Pid),
           RssKiB(N.B.Pid));
    if (bAnswered)
        printf("  another process's hunt across the link answered in %.0f us\n", Took);
    else
        printf("  another process's hunt across the link: no answer within 5 s\n");
    linx_close(pLinx);
    StopLinked(N, {Hunter, Echo});
}

void HalfOpenConnections(const std::string &Tag)
{
    const std::string Secret = "/tmp/" + Tag + ".secret";
    unlink(Secret.c_str());
    waitpid(Spawn({LinxdBesideLibrary(), "--make-secret", Secret}, "", ""), nullptr, 0);
    const uint16_t Port = FreePort();
    if (Port == 0)
        Fail("no free port");
    BenchNode Node =
        StartNode(Tag, {"--secret", Secret, "--listen", "tcp:127.0.0.1:" + std::to_string(Port), "--link-timeout",
                        "3000"});
    const long Before = RssKiB(Node.Pid);
    struct sockaddr_in Addr = {};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Addr.sin_port = htons(Port);
    std::vector<int> Fds;
    long Most = Before;
    for (int i = 0; i < 3000; i++) {
        const int Fd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(Fd, (struct sockaddr *)&Addr, sizeof Addr) == 0)
            Fds.push_back(Fd);
        else
            close(Fd);
        if (i % 100 == 0)
            Most = std::max(Most, RssKiB(Node.Pid));
    }
    for (int i = 0; i < 20; i++, usleep(50000))
        Most = std::max(Most, RssKiB(Node.Pid));
    for (const int Fd : Fds)
        close(Fd);
    usleep(4000000);
    printf("3000 TCP connections that never finish the TLS hello, closed after 1 s:\n");
    printf("  %zu connected; linxd %ld KiB before, %ld KiB at most, %ld KiB 4 s after they went; %d lines "
           "about them\n",
           Fds.size(), Before, Most, RssKiB(Node.Pid), CountLines(ReadFile(Node.Log), "link connection"));
    StopNode(Node);
    unlink(Secret.c_str());
}

} // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    struct rlimit Limit;
    if (getrlimit(RLIMIT_NOFILE, &Limit) == 0) {
        Limit.rlim_cur = Limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &Limit);
    }
    const std::string Tag = "bench-floods-" + std::to_string(getpid());
    BenchNode One = StartNode(Tag, {});
    SelectiveReceiverFlood(One.Instance);
    NeverReadingClient(One);
    StopNode(One);
    FloodAcrossLink("A process keeps its ring to an endpoint behind a link full of 64 KiB signals", Tag + "-ph",
                    "b/sink", [](LINX *p) { LinxPeerLoop(p, false); });
    FloodAcrossLink("A receiver behind a link that never reads, flooded across it", Tag + "-deaf", "b/deaf",
                    [](LINX *) { pause(); });
    Bystanders(Tag + "-by");
    HuntsBeyondTheBound(Tag + "-hunts");
    HalfOpenConnections(Tag + "-tls");
    return 0;
}
