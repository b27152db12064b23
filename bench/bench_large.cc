// SPDX-License-Identifier: Apache-2.0
// Large payloads between two processes, beside what a program would pick
// instead: a raw AF_UNIX stream socket (a seqpacket socket takes at most
// its send buffer, about 200 KiB, per message), a memory file handed over
// a Unix socket (what a program does by hand: a pool of warm memfds, the
// descriptor passed with SCM_RIGHTS, mapped by the receiver), ZeroMQ (PAIR
// over ipc://), iceoryx (loaned chunks in its shared memory, both sides
// polling; built when Debian's iceoryx packages are there, its RouDi
// daemon started and stopped here) and linx_.  At 64 B, 64 KiB, 1 MiB,
// 16 MiB and 64 MiB, in alternating blocks (bench_util.h's Compare):
//   - one-way rate: the sender writes a stamp, not the payload; at most
//     kWindow messages are in flight (the receiver acknowledges every
//     kWindow-th), so no mechanism runs ahead of its receiver;
//   - one-way latency: one message at a time, the receiver's clock at
//     receipt minus the sender's stamp (CLOCK_MONOTONIC, one machine);
// each once with the receiver reading the stamp only and once with it
// reading every byte.  A size a mechanism refuses is said, not measured.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "linx.h"
#include "zmq.h"

#ifdef ORVANE_BENCH_ICEORYX
#include "iceoryx_hoofs/log/logmanager.hpp"
#include "iceoryx_posh/popo/untyped_publisher.hpp"
#include "iceoryx_posh/popo/untyped_subscriber.hpp"
#include "iceoryx_posh/runtime/posh_runtime.hpp"
#endif

namespace {

constexpr uint32_t kSizes[] = {64, 64 << 10, 1 << 20, 16 << 20, 64 << 20};
constexpr int kRounds = 5;
constexpr uint32_t kWindow = 4;
constexpr uint32_t kAckNow = 1, kTouch = 2, kStop = 4;

// The first bytes of every payload.
struct Head {
    double StampUs;
    uint32_t Flags;
    uint32_t Size;
};

// What the receiver does with a payload: the latency of its stamp, and
// with kTouch every byte read.
double Consume(const uint8_t *pPayload, uint32_t Size, Head *pHead)
{
    memcpy(pHead, pPayload, sizeof *pHead);
    const double Latency = NowUs() - pHead->StampUs;
    if (pHead->Flags & kTouch) {
        uint64_t Sum = 0;
        for (uint32_t i = 0; i + 8 <= Size; i += 8) {
            uint64_t Word;
            memcpy(&Word, pPayload + i, 8);
            Sum += Word;
        }
        __asm__ volatile("" : : "r"(Sum));
    }
    return Latency;
}

// One side of a mechanism: the sender sends and waits for
// acknowledgements (each carrying the latency of the message acknowledged);
// the receiver's loop lives in its own process.
struct Sender {
    virtual ~Sender() = default;
    virtual bool Send(const Head &H) = 0;
    virtual double Ack() = 0;
    pid_t Pid = -1;
};

// Messages a second, Count of them, at most kWindow in flight.
double Rate(Sender &S, uint32_t Size, uint32_t Count, uint32_t Touch)
{
    const double Start = NowUs();
    for (uint32_t i = 1; i <= Count; i++) {
        if (!S.Send({NowUs(), Touch | (i % kWindow == 0 || i == Count ? kAckNow : 0), Size}))
            Fail("send");
        if (i % kWindow == 0 || i == Count)
            S.Ack();
    }
    return Count / ((NowUs() - Start) / 1e6);
}

// The median one-way latency of Count messages sent one at a time.
double Latency(Sender &S, uint32_t Size, uint32_t Count, uint32_t Touch)
{
    std::vector<double> Samples;
    for (uint32_t i = 0; i < Count; i++) {
        if (!S.Send({NowUs(), Touch | kAckNow, Size}))
            Fail("send");
        Samples.push_back(S.Ack());
    }
    return Median(Samples);
}

// ---- a raw stream socket ---------------------------------------------------

bool WriteAll(int Fd, const void *pData, size_t Bytes)
{
    for (size_t Done = 0; Done < Bytes;) {
        const ssize_t Put = write(Fd, (const char *)pData + Done, Bytes - Done);
        if (Put <= 0)
            return false;
        Done += (size_t)Put;
    }
    return true;
}

bool ReadAll(int Fd, void *pData, size_t Bytes)
{
    for (size_t Done = 0; Done < Bytes;) {
        const ssize_t Got = read(Fd, (char *)pData + Done, Bytes - Done);
        if (Got <= 0)
            return false;
        Done += (size_t)Got;
    }
    return true;
}

struct StreamSender : Sender {
    int Fd;
    std::vector<uint8_t> Buffer;
    bool Send(const Head &H) override
    {
        memcpy(Buffer.data(), &H, sizeof H);
        return WriteAll(Fd, Buffer.data(), H.Size);
    }
    double Ack() override
    {
        double Latency = 0;
        if (!ReadAll(Fd, &Latency, sizeof Latency))
            Fail("stream ack");
        return Latency;
    }
};

// A sender T on one end of a socket pair of Type, whose other end
// Receive(Fd) serves in a process of its own.
template <typename T> std::unique_ptr<T> StartOverPair(int Type, const std::function<int(int Fd)> &Receive)
{
    int Pair[2];
    if (socketpair(AF_UNIX, Type | SOCK_CLOEXEC, 0, Pair) != 0)
        Fail("socketpair");
    auto S = std::make_unique<T>();
    S->Pid = StartPeer([&] {
        close(Pair[0]);
        return Receive(Pair[1]);
    });
    close(Pair[1]);
    S->Fd = Pair[0];
    return S;
}

int StreamReceive(int Fd, uint32_t Size)
{
    std::vector<uint8_t> In(Size);
    for (Head H = {}; ReadAll(Fd, In.data(), Size);) {
        const double Latency = Consume(In.data(), Size, &H);
        if ((H.Flags & kAckNow) && !WriteAll(Fd, &Latency, sizeof Latency))
            break;
    }
    return 0;
}

std::unique_ptr<Sender> StartStream(uint32_t Size)
{
    auto S = StartOverPair<StreamSender>(SOCK_STREAM, [Size](int Fd) { return StreamReceive(Fd, Size); });
    S->Buffer.resize(Size);
    return S;
}

// ---- a memory file over a Unix socket ----------------------------------------

struct MemfdSender : Sender {
    int Fd;
    std::vector<int> Files;
    std::vector<uint8_t *> Maps;
    uint32_t Next = 0;
    ~MemfdSender() override
    {
        for (size_t i = 0; i < Files.size(); i++) {
            munmap(Maps[i], Size);
            close(Files[i]);
        }
    }
    uint32_t Size = 0;
    // Buffer i is free again once the batch before the last acknowledged.
    bool Send(const Head &H) override
    {
        const uint32_t i = Next++ % (2 * kWindow);
        memcpy(Maps[i], &H, sizeof H);
        char Control[CMSG_SPACE(sizeof(int))] = {};
        struct iovec Io = {(void *)&i, sizeof i};
        struct msghdr M = {};
        M.msg_iov = &Io;
        M.msg_iovlen = 1;
        M.msg_control = Control;
        M.msg_controllen = sizeof Control;
        struct cmsghdr *pC = CMSG_FIRSTHDR(&M);
        pC->cmsg_level = SOL_SOCKET;
        pC->cmsg_type = SCM_RIGHTS;
        pC->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(pC), &Files[i], sizeof(int));
        return sendmsg(Fd, &M, 0) == (ssize_t)sizeof i;
    }
    double Ack() override
    {
        double Latency = 0;
        if (recv(Fd, &Latency, sizeof Latency, 0) != (ssize_t)sizeof Latency)
            Fail("memfd ack");
        return Latency;
    }
};

int MemfdReceive(int Fd, uint32_t Size)
{
    for (;;) {
        uint32_t Index;
        char Control[CMSG_SPACE(sizeof(int))];
        struct iovec Io = {&Index, sizeof Index};
        struct msghdr M = {};
        M.msg_iov = &Io;
        M.msg_iovlen = 1;
        M.msg_control = Control;
        M.msg_controllen = sizeof Control;
        if (recvmsg(Fd, &M, MSG_CMSG_CLOEXEC) <= 0)
            return 0;
        int File;
        memcpy(&File, CMSG_DATA(CMSG_FIRSTHDR(&M)), sizeof File);
        void *pMap = mmap(nullptr, Size, PROT_READ, MAP_SHARED, File, 0);
        if (pMap == MAP_FAILED)
            return 1;
        Head H;
        const double Latency = Consume((const uint8_t *)pMap, Size, &H);
        munmap(pMap, Size);
        close(File);
        if ((H.Flags & kAckNow) && send(Fd, &Latency, sizeof Latency, 0) != (ssize_t)sizeof Latency)
            return 1;
    }
}

std::unique_ptr<Sender> StartMemfd(uint32_t Size)
{
    auto S = StartOverPair<MemfdSender>(SOCK_SEQPACKET, [Size](int Fd) { return MemfdReceive(Fd, Size); });
    S->Size = Size;
    for (uint32_t i = 0; i < 2 * kWindow; i++) { // warm: written once, as a pool is after its first use
        const int File = memfd_create("bench-large", MFD_CLOEXEC);
        void *pMap = File < 0 || ftruncate(File, Size) != 0
                         ? MAP_FAILED
                         : mmap(nullptr, Size, PROT_READ | PROT_WRITE, MAP_SHARED, File, 0);
        if (pMap == MAP_FAILED)
            Fail("memfd");
        memset(pMap, 0, Size);
        S->Files.push_back(File);
        S->Maps.push_back((uint8_t *)pMap);
    }
    return S;
}

// ---- ZeroMQ ------------------------------------------------------------------

struct ZmqSender : Sender {
    void *pContext, *pSocket;
    std::vector<uint8_t> Buffer;
    ~ZmqSender() override
    {
        zmq_close(pSocket);
        zmq_ctx_term(pContext);
    }
    bool Send(const Head &H) override
    {
        memcpy(Buffer.data(), &H, sizeof H);
        return zmq_send(pSocket, Buffer.data(), H.Size, 0) == (int)H.Size;
    }
    double Ack() override
    {
        double Latency = 0;
        if (zmq_recv(pSocket, &Latency, sizeof Latency, 0) != (int)sizeof Latency)
            Fail("zmq ack");
        return Latency;
    }
};

std::unique_ptr<Sender> StartZmq(uint32_t Size, const std::string &Endpoint)
{
    auto S = std::make_unique<ZmqSender>();
    S->Pid = StartPeer([&] {
        void *pContext = zmq_ctx_new();
        void *pSocket = zmq_socket(pContext, ZMQ_PAIR);
        if (zmq_bind(pSocket, Endpoint.c_str()) != 0)
            return 1;
        std::vector<uint8_t> In(Size);
        for (Head H = {}; zmq_recv(pSocket, In.data(), Size, 0) == (int)Size;) {
            const double Latency = Consume(In.data(), Size, &H);
            if ((H.Flags & kAckNow) && zmq_send(pSocket, &Latency, sizeof Latency, 0) != (int)sizeof Latency)
                return 1;
        }
        return 1;
    });
    S->pContext = zmq_ctx_new();
    S->pSocket = zmq_socket(S->pContext, ZMQ_PAIR);
    if (zmq_connect(S->pSocket, Endpoint.c_str()) != 0)
        Fail("zmq_connect");
    S->Buffer.resize(Size);
    return S;
}

// ---- linx_ -------------------------------------------------------------------

constexpr LINX_SIGSELECT kData = 0x40, kAck = 0x41;

struct LinxSender : Sender {
    LINX *pLinx;
    LINX_SPID Peer;
    bool Send(const Head &H) override
    {
        union LINX_SIGNAL *pSig = linx_alloc(pLinx, H.Size + 8, kData); // the payload after the number
        if (pSig == nullptr)
            return false;
        memcpy((char *)pSig + 8, &H, sizeof H);
        return linx_send(pLinx, &pSig, Peer) == 0;
    }
    double Ack() override
    {
        static const LINX_SIGSELECT kOnlyAck[] = {1, kAck};
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive(pLinx, &pSig, kOnlyAck) < 0)
            Fail("linx ack");
        double Latency;
        memcpy(&Latency, (char *)pSig + 8, sizeof Latency);
        linx_free_buf(pLinx, &pSig);
        return Latency;
    }
};

// A linx_ pair for Size, or null when the stand-in refuses signals of it.
std::unique_ptr<Sender> StartLinx(LINX *pLinx, uint32_t Size)
{
    union LINX_SIGNAL *pProbe = linx_alloc(pLinx, Size + 8, kData);
    if (pProbe == nullptr)
        return nullptr;
    linx_free_buf(pLinx, &pProbe);
    const std::string Name = "bench-large-" + std::to_string(Size);
    auto S = std::make_unique<LinxSender>();
    S->Pid = StartPeer([&] {
        LINX *pOwn = linx_open(Name.c_str(), 0, nullptr);
        for (union LINX_SIGNAL *pSig = nullptr; pOwn != nullptr && linx_receive(pOwn, &pSig, nullptr) > 0;) {
            const LINX_SPID From = linx_sender(pOwn, &pSig);
            Head H;
            const double Latency = Consume((const uint8_t *)pSig + 8, Size, &H);
            linx_free_buf(pOwn, &pSig);
            union LINX_SIGNAL *pAck = (H.Flags & kAckNow) ? linx_alloc(pOwn, 16, kAck) : nullptr;
            if (pAck != nullptr)
                memcpy((char *)pAck + 8, &Latency, sizeof Latency);
            if (pAck != nullptr && linx_send(pOwn, &pAck, From) != 0)
                return 1;
        }
        return 0;
    });
    union LINX_SIGNAL *pHunt = nullptr;
    static const LINX_SIGSELECT kHunted[] = {1, LINX_OS_HUNT_SIG};
    if (linx_hunt(pLinx, Name.c_str(), nullptr) != 0 || linx_receive(pLinx, &pHunt, kHunted) < 0)
        Fail("hunt");
    S->pLinx = pLinx;
    S->Peer = linx_sender(pLinx, &pHunt);
    linx_free_buf(pLinx, &pHunt);
    // A payload the stand-in refuses now (the receiver's node) is refused at the first send.
    if (!S->Send({NowUs(), kAckNow, Size}))
        return nullptr;
    S->Ack();
    return S;
}

} // namespace

#ifdef ORVANE_BENCH_ICEORYX
#include "bench_large_iceoryx.h"
#endif

namespace {

int RunBenchmark(const char *pSelf)
{
    (void)pSelf;
    const std::string Instance = "bench-large-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    LINX *pLinx = linx_open("bench-large-client", 0, nullptr);
    if (pLinx == nullptr)
        Fail("linx_open");
    for (const uint32_t Size : kSizes) {
        const uint32_t Count = std::max<uint32_t>(16, std::min<uint32_t>(4000, (256u << 20) / Size));
        std::vector<std::pair<const char *, std::unique_ptr<Sender>>> Senders;
        Senders.emplace_back("raw AF_UNIX stream", StartStream(Size));
        Senders.emplace_back("memfd over a Unix socket", StartMemfd(Size));
        Senders.emplace_back("ZeroMQ PAIR over ipc://", StartZmq(Size, "ipc:///tmp/" + Instance + ".zmq"));
#ifdef ORVANE_BENCH_ICEORYX
        Senders.emplace_back("iceoryx, polling", StartIceoryx(Size, pSelf));
#endif
        std::unique_ptr<Sender> Linx = StartLinx(pLinx, Size);
        if (Linx)
            Senders.emplace_back("linx_", std::move(Linx));
        else
            printf("linx_: signals of %u bytes refused (%s)\n", Size, strerror(errno));
        for (const uint32_t Touch : {0u, kTouch}) {
            std::vector<Mechanism> Rates, Latencies;
            for (auto &[pName, S] : Senders) {
                Sender *pS = S.get();
                Rates.push_back({pName, [=] { return Rate(*pS, Size, Count, Touch); }, {pS->Pid}});
                Latencies.push_back({pName, [=] { return Latency(*pS, Size, Count / 4 + 4, Touch); }, {pS->Pid}});
            }
            const std::string What = std::to_string(Size) + " B one way, the receiver reading " +
                                     (Touch ? "every byte" : "the stamp only");
            const auto Blocks = Compare(("rate: " + What).c_str(), "msg/s", kRounds, Rates, false);
            for (size_t k = 0; Touch && k < Rates.size(); k++) // bytes a second mean something when read
                printf("  %-44s %10.2f GB/s\n", Rates[k].pName, Median(Blocks[k]) * Size / 1e9);
            Compare(("latency: " + What).c_str(), "us", kRounds, Latencies);
        }
        Senders.clear();
        StopPeers();
    }
    linx_close(pLinx);
    return 0;
}

} // namespace

int main(int Argc, char **ppArgv)
{
#ifdef ORVANE_BENCH_ICEORYX
    if (Argc == 3 && strcmp(ppArgv[1], "--iceoryx-receiver") == 0)
        return IceoryxReceive((uint32_t)strtoul(ppArgv[2], nullptr, 10));
    // RouDi ends the processes registered with it when it stops: it is
    // stopped here once the benchmark, in a child, has left it.
    IceoryxRouDi RouDi;
    const pid_t Bench = fork();
    if (Bench == 0)
        exit(RunBenchmark(ppArgv[0])); // static destructors: the runtime says goodbye
    int Status = 1;
    waitpid(Bench, &Status, 0);
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : 1;
#else
    (void)Argc;
    printf("iceoryx: not built (Debian's libiceoryx-posh-dev and iceoryx were not there)\n");
    return RunBenchmark(ppArgv[0]);
#endif
}
