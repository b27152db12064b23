// What a link between two linxd instances costs: the 64-byte round trip
// between two processes on two linked instances of this host (over the
// Unix link and over TCP with TLS), beside the same pair on one instance
// and beside a raw TCP ping-pong on localhost, in one run; and the one-way
// throughput of 64-byte signals across each link.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_nodes.h"

namespace {

constexpr uint32_t kEcho = 0x30;
constexpr uint32_t kStop = 0x31;
constexpr int kRounds = 5000;
constexpr int kOneWay = 200000;
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

// Raw TCP on localhost: one process echoes 64-byte messages back.
double RawTcpRoundTripUs()
{
    const uint16_t Port = FreePort();
    const int Listener = socket(AF_INET, SOCK_STREAM, 0);
    const int One = 1;
    setsockopt(Listener, SOL_SOCKET, SO_REUSEADDR, &One, sizeof One);
    struct sockaddr_in Addr = {};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Addr.sin_port = htons(Port);
    if (bind(Listener, (struct sockaddr *)&Addr, sizeof Addr) != 0 || listen(Listener, 1) != 0)
        Fail("listen");
    const pid_t Echo = fork();
    if (Echo == 0) {
        const int Fd = accept(Listener, nullptr, nullptr);
        setsockopt(Fd, IPPROTO_TCP, TCP_NODELAY, &One, sizeof One);
        char Buffer[kBytes];
        for (int i = 0; i < kRounds; i++) {
            Exactly(Fd, Buffer, kBytes, false);
            Exactly(Fd, Buffer, kBytes, true);
        }
        _exit(0);
    }
    const int Fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(Fd, (struct sockaddr *)&Addr, sizeof Addr) != 0)
        Fail("connect");
    setsockopt(Fd, IPPROTO_TCP, TCP_NODELAY, &One, sizeof One);
    char Buffer[kBytes] = {};
    std::vector<double> Samples;
    for (int i = 0; i < kRounds; i++) {
        const double Start = NowUs();
        Exactly(Fd, Buffer, kBytes, true);
        Exactly(Fd, Buffer, kBytes, false);
        Samples.push_back(NowUs() - Start);
    }
    close(Fd);
    close(Listener);
    waitpid(Echo, nullptr, 0);
    return Median(Samples);
}

// A process on instance Peer that echoes (or only takes) signals.
pid_t StartEcho(const std::string &Peer, bool bEcho)
{
    const pid_t Echo = fork();
    if (Echo == 0) {
        LINX *pLinx = OpenOn(Peer, "bench-echo");
        _exit(pLinx == nullptr ? 1 : LinxEchoLoop(pLinx, bEcho, kStop));
    }
    return Echo;
}

void Stop(LINX *pLinx, LINX_SPID Peer, pid_t Echo)
{
    SendWaiting(pLinx, Peer, kBytes, kStop);
    union LINX_SIGNAL *pSig = nullptr;
    linx_receive_w_tmo(pLinx, &pSig, 30000, nullptr);
    linx_free_buf(pLinx, &pSig);
    waitpid(Echo, nullptr, 0);
}

// The median 64-byte round trip from a process on instance Mine to one on
// instance Peer, found as PeerPath.
double LinxRoundTripUs(const std::string &Mine, const std::string &Peer, const std::string &PeerPath)
{
    const pid_t Echo = StartEcho(Peer, true);
    LINX *pLinx = OpenOn(Mine, "bench-asker");
    const LINX_SPID Target = Hunt(pLinx, PeerPath.c_str());
    std::vector<double> Samples;
    for (int i = 0; i < kRounds + 200; i++) {
        const double Start = NowUs();
        SendWaiting(pLinx, Target, kBytes, kEcho);
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive(pLinx, &pSig, nullptr) <= 0)
            Fail("receive");
        linx_free_buf(pLinx, &pSig);
        if (i >= 200) // the first ones warm the routes
            Samples.push_back(NowUs() - Start);
    }
    Stop(pLinx, Target, Echo);
    linx_close(pLinx);
    return Median(Samples);
}

// Signals of 64 bytes a second, one way from Mine to a taker on Peer.
double OneWayPerSecond(const std::string &Mine, const std::string &Peer, const std::string &PeerPath)
{
    const pid_t Taker = StartEcho(Peer, false);
    LINX *pLinx = OpenOn(Mine, "bench-sender");
    const LINX_SPID Target = Hunt(pLinx, PeerPath.c_str());
    const double Start = NowUs();
    for (int i = 0; i < kOneWay; i++)
        SendWaiting(pLinx, Target, kBytes, kEcho);
    Stop(pLinx, Target, Taker);
    const double Seconds = (NowUs() - Start) / 1e6;
    linx_close(pLinx);
    return kOneWay / Seconds;
}

} // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    const std::string Linxd = LinxdPath();
    const std::string Tag = "bench-links-" + std::to_string(getpid());
    const std::string Secret = "/tmp/" + Tag + ".secret";
    const std::string Listen = "tcp:127.0.0.1:" + std::to_string(FreePort());
    waitpid(Spawn({Linxd, "--make-secret", Secret}), nullptr, 0);
    const std::string A = Tag + "-a", B = Tag + "-b", C = Tag + "-c";
    std::vector<pid_t> Nodes = {
        Spawn({Linxd, "--foreground", "--idle-exit", "0", "--config", "/dev/null", "--instance", B, "--secret", Secret,
               "--listen", Listen}),
        Spawn({Linxd, "--foreground", "--idle-exit", "0", "--config", "/dev/null", "--instance", A, "--link",
               "b=unix:" + B}),
        Spawn({Linxd, "--foreground", "--idle-exit", "0", "--config", "/dev/null", "--instance", C, "--secret", Secret,
               "--link", "b=" + Listen}),
    };
    usleep(300000); // the nodes start and dial

    const double Tcp = RawTcpRoundTripUs();
    const double One = LinxRoundTripUs(B, B, "bench-echo");
    const double Unix = LinxRoundTripUs(A, B, "b/bench-echo");
    const double Tls = LinxRoundTripUs(C, B, "b/bench-echo");
    printf("64 B round trip between two processes (median of %d)\n", kRounds);
    printf("  raw TCP on localhost            %8.1f us\n", Tcp);
    printf("  linx_ on one instance           %8.1f us  %5.2fx raw TCP\n", One, One / Tcp);
    printf("  linx_ across a Unix link        %8.1f us  %5.2fx raw TCP\n", Unix, Unix / Tcp);
    printf("  linx_ across a TCP+TLS link     %8.1f us  %5.2fx raw TCP\n", Tls, Tls / Tcp);
    const double OneWayUnix = OneWayPerSecond(A, B, "b/bench-echo");
    const double OneWayTls = OneWayPerSecond(C, B, "b/bench-echo");
    printf("64 B one way, %d signals\n", kOneWay);
    printf("  across a Unix link              %8.0f k/s\n", OneWayUnix / 1e3);
    printf("  across a TCP+TLS link           %8.0f k/s\n", OneWayTls / 1e3);

    for (const pid_t Node : Nodes)
        kill(Node, SIGTERM);
    for (const pid_t Node : Nodes)
        waitpid(Node, nullptr, 0);
    unlink(Secret.c_str());
    return 0;
}
