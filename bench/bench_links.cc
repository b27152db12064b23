// SPDX-License-Identifier: Apache-2.0
// What a link between two linxd nodes costs, against raw TCP on localhost,
// every comparison in alternating blocks in one run (bench_util.h's
// Compare: each mechanism's pair in the better of its two placements on the
// cores; the nodes' linxd are left to the scheduler):
//   - the 64 B round trip between two processes: a raw TCP ping-pong
//     (TCP_NODELAY, one process echoing), the pair on one linxd instance,
//     across a Unix link between two instances of this host, and across a
//     TCP link with TLS;
//   - 64 B signals one way across each link, beside 64 B records one way
//     over raw TCP.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_nodes.h"

namespace {

constexpr uint32_t kEcho = 0x30;
constexpr int kRounds = 7;
constexpr int kTripsPerBlock = 2000;
constexpr uint32_t kOneWay = 200000;
constexpr size_t kBytes = 64;

void Exactly(int Fd, char *p, size_t Bytes, bool bWrite)
{
    for (size_t Done = 0; Done < Bytes;) {
        const ssize_t n = bWrite ? write(Fd, p + Done, Bytes - Done) : read(Fd, p + Done, Bytes - Done);
        if (n <= 0)
            Fail("tcp");
        Done += (size_t)n;
    }
}

// A peer reached by a TCP connection (Fd) or by its SPID from a client
// socket, and its process.
struct Peer {
    int Fd = -1;
    LINX *pClient = nullptr;
    LINX_SPID Spid = 0;
    pid_t Pid = 0;
};

// A TCP connection on localhost to a peer that echoes 64-byte records
// (bEcho) or counts them: an all-zero record asks for the count.
Peer StartTcpPeer(bool bEcho)
{
    const int Listener = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in Addr = {};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t Len = sizeof Addr;
    if (bind(Listener, (struct sockaddr *)&Addr, sizeof Addr) != 0 || listen(Listener, 1) != 0 ||
        getsockname(Listener, (struct sockaddr *)&Addr, &Len) != 0)
        Fail("listen");
    const int One = 1;
    Peer P;
    P.Pid = StartPeer([&] {
        const int Fd = accept(Listener, nullptr, nullptr);
        setsockopt(Fd, IPPROTO_TCP, TCP_NODELAY, &One, sizeof One);
        char Record[kBytes];
        for (uint32_t Taken = 0;;) {
            Exactly(Fd, Record, kBytes, false);
            if (!bEcho && Record[0] != 0) {
                Taken++;
                continue;
            }
            if (!bEcho) {
                memcpy(Record, &Taken, sizeof Taken);
                Taken = 0;
            }
            Exactly(Fd, Record, kBytes, true);
        }
        return 0;
    });
    P.Fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(P.Fd, (struct sockaddr *)&Addr, sizeof Addr) != 0)
        Fail("connect");
    setsockopt(P.Fd, IPPROTO_TCP, TCP_NODELAY, &One, sizeof One);
    close(Listener);
    return P;
}

double TcpRoundTrips(int Fd)
{
    char Record[kBytes] = {1};
    std::vector<double> Samples;
    for (int i = 0; i < kTripsPerBlock; i++) {
        const double Start = NowUs();
        Exactly(Fd, Record, kBytes, true);
        Exactly(Fd, Record, kBytes, false);
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// Records a second, kOneWay of them one way.
double TcpOneWay(int Fd)
{
    std::vector<char> Batch(kBytes * 1024, 1);
    const double Start = NowUs();
    for (uint32_t Sent = 0; Sent < kOneWay; Sent += 1024)
        Exactly(Fd, Batch.data(), kBytes * std::min<uint32_t>(1024, kOneWay - Sent), true);
    char Mark[kBytes] = {0};
    Exactly(Fd, Mark, kBytes, true);
    Exactly(Fd, Mark, kBytes, false);
    uint32_t Taken;
    memcpy(&Taken, Mark, sizeof Taken);
    if (Taken != kOneWay)
        Fail("tcp one-way count");
    return kOneWay / ((NowUs() - Start) / 1e6);
}

// A peer on instance PeerNode named Name that echoes (or counts), and a
// client socket on instance Mine that found it by Path.
Peer StartLinxPair(const std::string &Mine, const std::string &PeerNode, const std::string &Name,
                   const std::string &Path, bool bEcho)
{
    Peer P;
    P.Pid = StartPeer([&] {
        LINX *pLinx = OpenOn(PeerNode, Name.c_str());
        return pLinx == nullptr ? 1 : LinxPeerLoop(pLinx, bEcho);
    });
    P.pClient = OpenOn(Mine, ("client-" + Name).c_str());
    P.Spid = Hunt(P.pClient, Path.c_str());
    return P;
}

double LinxRoundTrips(const Peer &P)
{
    std::vector<double> Samples;
    for (int i = 0; i < kTripsPerBlock; i++) {
        const double Start = NowUs();
        SendWaiting(P.pClient, P.Spid, kBytes, kEcho);
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive(P.pClient, &pSig, nullptr) <= 0)
            Fail("receive");
        linx_free_buf(P.pClient, &pSig);
        Samples.push_back(NowUs() - Start);
    }
    return Median(Samples);
}

// Signals a second, kOneWay of them one way to a counting peer.
double LinxOneWay(const Peer &P)
{
    const double Start = NowUs();
    for (uint32_t i = 0; i < kOneWay; i++)
        SendWaiting(P.pClient, P.Spid, kBytes, kEcho);
    if (LinxMark(P.pClient, P.Spid) != kOneWay)
        Fail("one-way count");
    return kOneWay / ((NowUs() - Start) / 1e6);
}

} // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    const std::string Tag = "bench-links-" + std::to_string(getpid());
    const std::string Secret = "/tmp/" + Tag + ".secret";
    const uint16_t Port = FreePort();
    if (Port == 0)
        Fail("no free port");
    const std::string Listen = "tcp:127.0.0.1:" + std::to_string(Port);
    waitpid(Spawn({LinxdBesideLibrary(), "--make-secret", Secret}, "", ""), nullptr, 0);
    BenchNode B = StartNode(Tag + "-b", {"--secret", Secret, "--listen", Listen});
    BenchNode A = StartNode(Tag + "-a", {"--link", "b=unix:" + B.Instance});
    BenchNode C = StartNode(Tag + "-c", {"--secret", Secret, "--link", "b=" + Listen});
    if (!AwaitText(A.Log, "link b is up") || !AwaitText(C.Log, "link b is up"))
        Fail("links");

    const Peer TcpEcho = StartTcpPeer(true);
    const Peer One = StartLinxPair(B.Instance, B.Instance, "echo-one", "echo-one", true);
    const Peer Unix = StartLinxPair(A.Instance, B.Instance, "echo-unix", "b/echo-unix", true);
    const Peer Tls = StartLinxPair(C.Instance, B.Instance, "echo-tls", "b/echo-tls", true);
    Compare("64 B round trip between two processes (the nodes' linxd where the scheduler puts them)", "us",
            kRounds,
            {{"raw TCP on localhost", [&] { return TcpRoundTrips(TcpEcho.Fd); }, {TcpEcho.Pid}},
             {"linx_ on one instance", [&] { return LinxRoundTrips(One); }, {One.Pid}},
             {"linx_ across a Unix link", [&] { return LinxRoundTrips(Unix); }, {Unix.Pid}},
             {"linx_ across a TCP+TLS link", [&] { return LinxRoundTrips(Tls); }, {Tls.Pid}}});

    const Peer TcpSink = StartTcpPeer(false);
    const Peer UnixSink = StartLinxPair(A.Instance, B.Instance, "sink-unix", "b/sink-unix", false);
    const Peer TlsSink = StartLinxPair(C.Instance, B.Instance, "sink-tls", "b/sink-tls", false);
    Compare("64 B one way, signals a second", "k/s", kRounds,
            {{"raw TCP on localhost (64 B records)", [&] { return TcpOneWay(TcpSink.Fd) / 1e3; }, {TcpSink.Pid}},
             {"linx_ across a Unix link", [&] { return LinxOneWay(UnixSink) / 1e3; }, {UnixSink.Pid}},
             {"linx_ across a TCP+TLS link", [&] { return LinxOneWay(TlsSink) / 1e3; }, {TlsSink.Pid}}},
            false);

    StopPeers();
    for (BenchNode *pNode : {&A, &B, &C})
        StopNode(*pNode);
    unlink(Secret.c_str());
    return 0;
}
