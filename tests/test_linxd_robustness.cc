// SPDX-License-Identifier: Apache-2.0
// linxd and its clients facing broken or hostile peers, with real
// processes: garbage and truncated requests, floods, forged and endless
// signal rings, more senders than a socket takes, a linxd that dies or
// restarts, an impostor, running out of descriptors, and a module of
// another major version.  (Clients that vanish are the chaos test's, rings
// kept full and hostile nodes the hostile writers' suite's, and every
// sequence of requests is the fuzz harness's.)
#include "test_kit.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <valgrind/valgrind.h>

#include "standin/address.h"

namespace {

int RawConnect(const std::string &Instance)
{
    struct sockaddr_un Addr;
    const socklen_t Len = linxd_address(Instance.c_str(), &Addr);
    for (int Attempt = 0; Attempt < 400; Attempt++) {
        const int Fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (connect(Fd, (struct sockaddr *)&Addr, Len) == 0)
            return Fd;
        close(Fd);
        usleep(5000);
    }
    return -1;
}

struct RawReply {
    linxd_reply Header = {};
    int Fds[5] = {-1, -1, -1, -1, -1};
};

RawReply RawExchange(int Fd, const void *pData, size_t Len, int PassFd = -1)
{
    RawReply R;
    struct iovec Out = {(void *)pData, Len};
    char PassControl[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr Request = {};
    Request.msg_iov = &Out;
    Request.msg_iovlen = 1;
    linxd_pass_fds(&Request, PassControl, &PassFd, PassFd >= 0);
    EXPECT_EQ((ssize_t)Len, sendmsg(Fd, &Request, MSG_NOSIGNAL));
    char Buffer[4096];
    struct iovec Iov = {Buffer, sizeof Buffer};
    char Control[CMSG_SPACE(sizeof R.Fds)];
    struct msghdr Msg = {};
    Msg.msg_iov = &Iov;
    Msg.msg_iovlen = 1;
    Msg.msg_control = Control;
    Msg.msg_controllen = sizeof Control;
    if (recvmsg(Fd, &Msg, MSG_CMSG_CLOEXEC) >= (ssize_t)sizeof R.Header) {
        memcpy(&R.Header, Buffer, sizeof R.Header);
        linxd_take_fds(&Msg, R.Fds, 5);
    }
    return R;
}

RawReply RawRequest(int Fd, uint32_t Op, uint32_t Arg0, const std::string &Name = "",
                    const std::string &Signal = "", int PassFd = -1)
{
    linxd_request Req = {LINXD_PROTOCOL_MAGIC, Op, {Arg0, 0}, (uint32_t)Name.size(),
                         (uint32_t)Signal.size()};
    const std::string Datagram = std::string((const char *)&Req, sizeof Req) + Name + Signal;
    return RawExchange(Fd, Datagram.data(), Datagram.size(), PassFd);
}

// A ring of Bytes sealed as linxd wants it, mapped at *ppRing, with Magic.
int SealedRing(uint64_t Bytes, uint32_t Magic, linxd_ring_header **ppRing)
{
    const int RingFd = memfd_create("forged", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (ftruncate(RingFd, (off_t)Bytes) != 0 || fcntl(RingFd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return -1;
    *ppRing = (linxd_ring_header *)mmap(nullptr, Bytes, PROT_READ | PROT_WRITE, MAP_SHARED, RingFd, 0);
    (*ppRing)->magic = Magic;
    (*ppRing)->capacity = Bytes - sizeof **ppRing;
    return RingFd;
}

class LinxdRobustness : public testing::Test {
protected:
    void SetUp() override
    {
        pLinx = linx_open("robust", 0, nullptr);
        ASSERT_NE(nullptr, pLinx) << strerror(errno);
    }
    void TearDown() override
    {
        if (pLinx)
            linx_close(pLinx);
    }
    // The service still answers ordinary clients.
    void ExpectServing()
    {
        LINX *pProbe = linx_open("probe", 0, nullptr);
        ASSERT_NE(nullptr, pProbe);
        EXPECT_EQ(linx_get_spid(pLinx), HuntAndWait(pProbe, "robust", 2000));
        EXPECT_EQ(0, SendSignal(pProbe, linx_get_spid(pLinx), 0x33, 3));
        EXPECT_EQ(0x33u, ReceiveOne(pLinx, 2000));
        linx_close(pProbe);
    }
    LINX *pLinx = nullptr;
};

// One raw client of linxd: garbage, truncated and out-of-order requests
// are refused; the shared memory it is given cannot be shrunk or written;
// a ring that could shrink under a mapping is refused, and a forged one
// delivers what precedes the damage and is then refused with one line;
// and it cannot hold without limit: others are served, and the limit goes
// with it.
TEST_F(LinxdRobustness, ARawClientCannotHurtOthers)
{
    const int Fd = RawConnect(TestInstance());
    ASSERT_GE(Fd, 0);
    EXPECT_EQ(EPROTO, RawExchange(Fd, "xyz", 3).Header.error);
    linxd_request Bad = {0xDEADBEEF, LINXD_OP_VERSION, {0, 0}, 0, 0};
    EXPECT_EQ(EPROTO, RawExchange(Fd, &Bad, sizeof Bad).Header.error);
    linxd_request Truncated = {LINXD_PROTOCOL_MAGIC, LINXD_OP_REGISTER, {0, 0}, 100, 0};
    EXPECT_EQ(EPROTO, RawExchange(Fd, &Truncated, sizeof Truncated).Header.error);
    linxd_request Huge = {LINXD_PROTOCOL_MAGIC, LINXD_OP_REGISTER, {0, 0}, 0xFFFFFFF0u, 0x20};
    EXPECT_EQ(EPROTO, RawExchange(Fd, &Huge, sizeof Huge).Header.error);
    const std::string TooLong(LINXD_MAX_REQUEST_BYTES + 100, 'x');
    EXPECT_EQ(EMSGSIZE, RawExchange(Fd, TooLong.data(), TooLong.size()).Header.error);
    EXPECT_EQ(ENOTCONN, RawRequest(Fd, LINXD_OP_HUNT, 0, "x").Header.error);
    EXPECT_EQ(EINVAL, RawRequest(Fd, 9999, 0).Header.error);
    EXPECT_EQ(EINVAL, RawRequest(Fd, LINXD_OP_REGISTER, 0, std::string("a\0b", 3)).Header.error);
    const RawReply Registered = RawRequest(Fd, LINXD_OP_REGISTER, 0, "greedy");
    ASSERT_EQ(0, Registered.Header.result);
    EXPECT_EQ(EISCONN, RawRequest(Fd, LINXD_OP_REGISTER, 0, "raw").Header.error);
    EXPECT_EQ(EMSGSIZE, RawRequest(Fd, LINXD_OP_ATTACH, 1, "", "ab").Header.error);
    EXPECT_EQ(EINVAL, RawRequest(Fd, LINXD_OP_DETACH, 12345).Header.error);
    EXPECT_EQ(EINVAL, RawRequest(Fd, LINXD_OP_REQUEST_TMO, (uint32_t)-5).Header.error);
    EXPECT_EQ(ECONNRESET, RawRequest(Fd, LINXD_OP_INFO_NAME, 0x7FFFFFF0).Header.error);
    // The counter region other sockets' senders rely on cannot be written.
    ASSERT_GE(Registered.Fds[1], 0);
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, Registered.Fds[1], 0));
    EXPECT_EQ(-1, pwrite(Registered.Fds[1], "x", 1, 0));
    for (int Shared : Registered.Fds) { // no client can shrink what others map
        EXPECT_NE(0, ftruncate(Shared, 0));
        close(Shared);
    }

    const uint64_t Bytes = linxd_ring_bytes(Registered.Header.value[2]);
    const LINX_SPID Target = linx_get_spid(pLinx);
    const int Loose = memfd_create("loose", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(Loose, (off_t)Bytes));
    EXPECT_EQ(EINVAL, RawRequest(Fd, LINXD_OP_OPEN_ROUTE, Target, "", "", Loose).Header.error);
    close(Loose);
    linxd_ring_header *pRing = nullptr;
    const int RingFd = SealedRing(Bytes, LINXD_RING_MAGIC, &pRing);
    ASSERT_GE(RingFd, 0);
    char *pData = (char *)(pRing + 1);
    const uint32_t Good[2] = {0x55, 0x66};
    const linxd_signal_header Header = {1, Target, 8, 0};
    memcpy(pData, &Header, sizeof Header);
    memcpy(pData + sizeof Header, Good, sizeof Good);
    const linxd_signal_header Lying = {1, Target, 1u << 30, 0}; // claims more than the ring holds
    memcpy(pData + 32, &Lying, sizeof Lying);
    pRing->tail = 64;
    const RawReply Route = RawRequest(Fd, LINXD_OP_OPEN_ROUTE, Target, "", "", RingFd);
    ASSERT_EQ(0, Route.Header.result);
    ASSERT_GE(Route.Fds[0], 0);
    testing::internal::CaptureStderr();
    uint32_t Value = 0;
    EXPECT_EQ(0x55u, ReceiveOne(pLinx, 2000, &Value));
    EXPECT_EQ(0x66u, Value);
    EXPECT_EQ(0u, ReceiveOne(pLinx, 0));
    const std::string Said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, Said.find("refused the signal ring of process " + std::to_string(getpid()) +
                                           ": an entry whose size does not fit"))
        << Said;
    munmap(pRing, Bytes);
    for (int Passed : {RingFd, Route.Fds[0], Route.Fds[1], Route.Fds[2], Route.Fds[3], Route.Fds[4]})
        close(Passed);

    int Granted = 0;
    for (int i = 0; i < 5000; i++)
        Granted += RawRequest(Fd, LINXD_OP_REQUEST_TMO, 1000000).Header.result == 0;
    EXPECT_EQ(4096, Granted);
    EXPECT_EQ(ENOBUFS, RawRequest(Fd, LINXD_OP_HUNT, Registered.Header.value[0], "nobody").Header.error);
    EXPECT_EQ(ENOBUFS, RawRequest(Fd, LINXD_OP_REQUEST_NEW_LINK, 0).Header.error);
    // Others are served as before, and the limit goes with the client.
    ExpectServing();
    close(Fd);
    const int Again = RawConnect(TestInstance());
    ASSERT_EQ(0, RawRequest(Again, LINXD_OP_REGISTER, 0, "greedy").Header.result);
    EXPECT_EQ(0, RawRequest(Again, LINXD_OP_REQUEST_TMO, 1000000).Header.result);
    close(Again);
}

// One process announces ring after ring to one receiver, sound ones and
// forged ones: each replaces the one before, so the receiver never holds
// more than one ring of it, says once a second what it refused, and keeps
// serving.
TEST_F(LinxdRobustness, AnnouncementsWithoutEndCannotGrowTheReceiver)
{
    constexpr int kRings = 2000;
    const LINX_SPID Target = linx_get_spid(pLinx);
    const pid_t Forger = StartChild([Target] {
        const int Fd = RawConnect(TestInstance());
        const RawReply Registered = RawRequest(Fd, LINXD_OP_REGISTER, 0, "forger");
        const uint64_t Bytes = linxd_ring_bytes(Registered.Header.value[2]);
        for (int i = 0; i < kRings; i++) {
            linxd_ring_header *pRing = nullptr;
            const int RingFd = SealedRing(Bytes, i % 2 ? 0xBAD : LINXD_RING_MAGIC, &pRing);
            RawReply R;
            while ((R = RawRequest(Fd, LINXD_OP_OPEN_ROUTE, Target, "", "", RingFd)).Header.error == ENOBUFS)
                usleep(1000); // the receiver has not read its outlet yet
            munmap(pRing, Bytes);
            close(RingFd);
            for (int Passed : R.Fds)
                close(Passed);
            if (R.Header.result != 0)
                return 1;
        }
        return 0;
    });
    testing::internal::CaptureStderr();
    const int64_t Start = NowMs();
    const int Own = RingMappings(getpid()); // this process's own (its spare ring)
    int MostRings = 0, Status = -1;
    for (int64_t Quiet = NowMs() + 1500; NowMs() < Quiet;) { // on until a second after the forger ends
        EXPECT_EQ(0u, ReceiveOne(pLinx, 10));
        MostRings = std::max(MostRings, RingMappings(getpid()) - Own);
        if (Status < 0 && waitpid(Forger, &Status, WNOHANG) == Forger)
            Quiet = NowMs() + 1100;
    }
    const std::string Said = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(WIFEXITED(Status) && WEXITSTATUS(Status) == 0);
    EXPECT_LE(MostRings, 1);
    EXPECT_EQ(Own, RingMappings(getpid()));
    int Lines = 0;
    EXPECT_EQ(kRings / 2, Refusals(Said, "refused the signal ring of process " + std::to_string(Forger), &Lines));
    EXPECT_LE(Lines, 2 * ((NowMs() - Start) / 1000 + 1)) << Said;
    ExpectServing();
}

TEST_F(LinxdRobustness, AClientThatNeverReadsCannotGrowLinxd)
{
    const pid_t Linxd = FindLinxd(TestInstance()).at(0);
    const long Before = RssKiB(Linxd);
    // Hunts for a name that exists and timeouts of 0 ms are answered at once,
    // into a queue this client never reads.
    int Requests = 0;
    while (Requests < 200000 && linx_hunt(pLinx, "robust", nullptr) == 0 &&
           linx_request_tmo(pLinx, 0, nullptr) != 0)
        Requests += 2;
    EXPECT_EQ(ENOBUFS, errno) << "refused after " << Requests << " requests";
    EXPECT_LT(Requests, 200000);
    EXPECT_LT(RssKiB(Linxd) - Before, 16 * 1024) << "linxd grew by KiB";
    while (ReceiveOne(pLinx, 300) != 0) {
        // linxd hands over what it kept as the queue makes room
    }
    EXPECT_EQ(linx_get_spid(pLinx), HuntAndWait(pLinx, "robust", 2000)) << "served again once read";
}

// It exits when idle (a node with a link to keep up stays), stops on
// SIGINT whatever it inherited, serves only its user, and a client never
// talks to an impostor of another user.
TEST(LinxdLifetime, ExitsWhenIdleAndServesOnlyItsUser)
{
    const std::string Instance = TestInstance() + "-idle";
    const std::string Node = TestInstance() + "-node";
    const pid_t Linxd = StartLinxd(Instance, {"--idle-exit", "1"}, "/tmp/" + Instance + ".log");
    // A node with a link to keep up stays, clients or not.
    const pid_t Linked =
        StartLinxd(Node, {"--idle-exit", "1", "--link", "far=unix:" + Node + "-absent"}, "/tmp/" + Node + ".log");
    const int Fd = RawConnect(Instance);
    ASSERT_GE(Fd, 0);
    if (geteuid() == 0) {
        // Another user reaches the same address and is turned away.
        struct sockaddr_un Addr;
        const socklen_t Len = linxd_address(Instance.c_str(), &Addr);
        const pid_t Stranger = StartChild([&] {
            if (setuid(65534) != 0)
                return 2;
            const int Other = socket(AF_UNIX, SOCK_SEQPACKET, 0);
            if (connect(Other, (struct sockaddr *)&Addr, Len) != 0)
                return 0;
            linxd_request Req = {LINXD_PROTOCOL_MAGIC, LINXD_OP_VERSION, {0, 0}, 0, 0};
            send(Other, &Req, sizeof Req, MSG_NOSIGNAL);
            char Reply[64];
            return recv(Other, Reply, sizeof Reply, 0) <= 0 ? 0 : 1;
        });
        EXPECT_EQ(0, WaitChild(Stranger));
        // Another user binds the address of an instance that is not running.
        const std::string Squatted = TestInstance() + "-squatted";
        struct sockaddr_un Squat;
        const socklen_t SquatLen = linxd_address(Squatted.c_str(), &Squat);
        const Pipe Ready;
        const pid_t Impostor = StartChild([&] {
            const int Listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
            if (setuid(65534) != 0 || bind(Listener, (struct sockaddr *)&Squat, SquatLen) != 0 || listen(Listener, 4) != 0)
                return 2;
            Ready.Say();
            const int Victim = accept(Listener, nullptr, nullptr);
            char Request[256];
            // The victim must send nothing: not even a request naming its socket.
            return recv(Victim, Request, sizeof Request, 0) > 0 ? 1 : 0;
        });
        ASSERT_TRUE(Ready.Hear());
        setenv("LINXD_INSTANCE", Squatted.c_str(), 1);
        errno = 0;
        EXPECT_EQ(nullptr, linx_open("victim", 0, nullptr));
        EXPECT_EQ(EACCES, errno);
        setenv("LINXD_INSTANCE", TestInstance().c_str(), 1);
        EXPECT_EQ(0, WaitChild(Impostor));
    }
    EXPECT_EQ(0, RawRequest(Fd, LINXD_OP_VERSION, 0).Header.result);
    close(Fd);
    // Started with SIGINT ignored (a background job of a script), it stops
    // on SIGINT all the same, and says so.
    const std::string Stoppable = TestInstance() + "-int";
    signal(SIGINT, SIG_IGN); // inherited by the linxd started now
    const pid_t Ignoring = StartLinxd(Stoppable, {}, "/tmp/" + Stoppable + ".log");
    signal(SIGINT, SIG_DFL);
    EXPECT_EQ(0, StopChild(Ignoring, SIGINT));
    EXPECT_NE(std::string::npos, ReadFile("/tmp/" + Stoppable + ".log").find("linxd: stopped by SIGINT"));
    // No client left: it exits by itself after a second.
    EXPECT_EQ(0, WaitChild(Linxd));
    usleep(500 * 1000); // the node started with it: it would be gone by now
    EXPECT_EQ(0, waitpid(Linked, nullptr, WNOHANG)) << "the node with a link stays";
    StopChild(Linked);
}

TEST(LinxdLimits, OutOfDescriptorsNewClientsFailAtOnceAndLinxdRests)
{
    if (RUNNING_ON_VALGRIND)
        GTEST_SKIP() << "valgrind keeps descriptor limits to itself: linxd would not get the low one";
    const std::string Instance = TestInstance() + "-fds";
    const std::string Path = LinxdBesideLibrary();
    const pid_t Linxd = StartChild([&] {
        const struct rlimit Few = {40, 40};
        setrlimit(RLIMIT_NOFILE, &Few);
        execl(Path.c_str(), "linxd", "--foreground", "--instance", Instance.c_str(), (char *)nullptr);
        return 127;
    });
    struct Reaper {
        pid_t Pid;
        ~Reaper() { StopChild(Pid); }
    } Reap{Linxd};
    // More connections than linxd has descriptors: the rest wait in its backlog.
    std::vector<int> Connections;
    for (int i = 0; i < 60; i++)
        Connections.push_back(RawConnect(Instance));
    usleep(100 * 1000);
    const long Before = CpuTicks(Linxd);
    usleep(300 * 1000);
    ASSERT_LT(CpuTicks(Linxd) - Before, 10) << "linxd does not spin on connections it cannot take";
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    errno = 0;
    EXPECT_EQ(nullptr, linx_open("late", 0, nullptr)) << "refused at once, not left waiting";
    EXPECT_TRUE(errno == ENFILE || errno == EMFILE) << strerror(errno);
    for (int Fd : Connections)
        close(Fd);
    usleep(100 * 1000);
    LINX *p = linx_open("after", 0, nullptr);
    EXPECT_NE(nullptr, p) << "served again once descriptors are free: " << strerror(errno);
    linx_close(p);
    setenv("LINXD_INSTANCE", TestInstance().c_str(), 1);
}

// A socket takes rings from at most --rings-per-socket processes at once:
// the next sender is refused with ENOBUFS (and linxd says so once a
// second, whatever it tries), and is taken once one of the others has gone
// and the receiver has read what it left.
TEST(LinxdLimits, ASocketReadsTheRingsOfAtMostItsNumberOfSenders)
{
    const std::string Instance = TestInstance() + "-rings";
    const std::string Log = "/tmp/" + Instance + ".log";
    const pid_t Linxd = StartLinxd(Instance, {"--rings-per-socket", "3"}, Log);
    const int64_t Start = NowMs();
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    LINX *pCapped = linx_open("capped", 0, nullptr);
    ASSERT_NE(nullptr, pCapped);
    const Pipe Results, Go;
    std::vector<pid_t> Senders;
    for (int i = 0; i < 4; i++) {
        // Each sends one signal (the last one tries 200 times) and says how
        // it went; the last one tries again when told to.
        Senders.push_back(StartChild([&, i] {
            LINX *p = linx_open("sender", 0, nullptr);
            const LINX_SPID To = HuntAndWait(p, "capped", 5000);
            int Error = 0;
            for (int Try = 0; Try < 200 && (Try == 0 || Error == ENOBUFS); Try++) {
                Error = SendSignal(p, To, 0x40, i);
            }
            if (!Results.Say(Error) || i < 3 || !Go.Hear())
                pause(); // those that were taken stay until killed
            for (const int64_t Deadline = NowMs() + 5000; Error == ENOBUFS && NowMs() < Deadline; usleep(5000)) {
                Error = SendSignal(p, To, 0x40, i);
            }
            linx_close(p);
            return Error;
        }));
        int Error = -1;
        ASSERT_TRUE(Results.Hear(&Error));
        EXPECT_EQ(i < 3 ? 0 : ENOBUFS, Error) << "sender " << i;
    }
    StopChild(Senders[0]);
    ASSERT_TRUE(Go.Say());
    std::set<uint32_t> Values;
    for (int n = 0; n < 4; n++) {
        uint32_t Value = 99;
        EXPECT_EQ(0x40u, ReceiveOne(pCapped, 5000, &Value));
        Values.insert(Value);
    }
    EXPECT_EQ(std::set<uint32_t>({0, 1, 2, 3}), Values);
    EXPECT_EQ(0, WaitChild(Senders[3])) << "taken once a place was free";
    int Lines = 0;
    EXPECT_TRUE(WaitFor([&] { return Refusals(ReadFile(Log), "reads 3 rings already", &Lines) >= 200; }, 3000))
        << ReadFile(Log);
    EXPECT_LE(Lines, 2 * ((NowMs() - Start) / 1000 + 1));
    for (pid_t Sender : {Senders[1], Senders[2], Linxd})
        StopChild(Sender);
    linx_close(pCapped);
    setenv("LINXD_INSTANCE", TestInstance().c_str(), 1);
}

// A child that opens Name and says so on the pipe, then runs Body.
pid_t StartOpened(const char *pName, const std::function<int(LINX *)> &Body)
{
    const Pipe Ready;
    const pid_t Child = StartChild([&] {
        LINX *p = linx_open(pName, 0, nullptr);
        Ready.Say();
        const int Result = Body(p);
        linx_close(p);
        return Result;
    });
    return Ready.Hear() ? Child : -1;
}

// When linxd dies, a receive that waits without limit fails with ENOTCONN,
// and so do the calls of its clients; the next client starts a new linxd,
// whose SPIDs (it counts from the start again) never reach a socket of
// the old instance through a route this process knew.
TEST(LinxdRestart, CallsFailWhenLinxdDiesAndOldSpidsNeverReachTheNew)
{
    const std::string Instance = TestInstance() + "-restart";
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    // A socket of the old instance that outlives it, and a route to it.
    const pid_t Old = StartOpened("old-peer", [](LINX *p) {
        union LINX_SIGNAL *pSig = nullptr;
        if (ReceiveOne(p, 5000) != 0x50)
            return 1;
        const int Result = linx_receive(p, &pSig, nullptr); // waits until linxd goes away
        return Result == -1 && errno == ENOTCONN && pSig == nullptr ? 0 : 2;
    });
    LINX *pMine = linx_open("me", 0, nullptr);
    ASSERT_NE(nullptr, pMine);
    const LINX_SPID OldPeer = HuntAndWait(pMine, "old-peer", 5000);
    ASSERT_EQ(0, SendSignal(pMine, OldPeer, 0x50, 1)); // this process now knows the way to it
    const std::vector<pid_t> Linxd = FindLinxd(Instance);
    ASSERT_EQ(1u, Linxd.size());
    kill(Linxd[0], SIGKILL);
    EXPECT_EQ(0, WaitChild(Old));
    errno = 0;
    EXPECT_EQ(-1, linx_hunt(pMine, "anyone", nullptr));
    EXPECT_EQ(ENOTCONN, errno);
    EXPECT_EQ(0u, linx_attach(pMine, nullptr, 1));
    union LINX_SIGNAL *pSig = nullptr;
    EXPECT_EQ(-1, linx_receive_w_tmo(pMine, &pSig, 1000, nullptr));
    WaitFor([&] { return FindLinxd(Instance).empty(); }, 5000); // gone, so that the next open starts a new one
    linx_close(pMine);

    // A new instance hands out the same SPIDs again.
    const pid_t New = StartOpened("new-peer", [](LINX *p) {
        uint32_t Value = 0;
        return ReceiveOne(p, 5000, &Value) == 0x51 && Value == 2 ? 0 : 1;
    });
    pMine = linx_open("me-again", 0, nullptr);
    ASSERT_NE(nullptr, pMine);
    const LINX_SPID NewPeer = HuntAndWait(pMine, "new-peer", 5000);
    EXPECT_EQ(OldPeer, NewPeer) << "the new instance counts from the start again";
    EXPECT_EQ(0, SendSignal(pMine, NewPeer, 0x51, 2));
    EXPECT_EQ(0, WaitChild(New)) << "the signal reached the socket it was sent to, not the old one";
    linx_close(pMine);
    setenv("LINXD_INSTANCE", TestInstance().c_str(), 1);
}

// A module of another major version is refused with a line.
TEST(LinxVersion, OnlyMajorVersionTwoIsAccepted)
{
    const struct {
        const char *pText;
        int Number;
    } Versions[] = {{"3.0.0", 0x03000000}, {"2.9.7", 0x02000907}};
    for (const auto &V : Versions) {
        const std::string Instance = TestInstance() + "-v" + V.pText;
        const pid_t Linxd = StartLinxd(Instance, {"--module-version", V.pText}, "/tmp/" + Instance + ".log");
        setenv("LINXD_INSTANCE", Instance.c_str(), 1);
        char Text[32];
        EXPECT_EQ(V.Number, linx_get_version(Text));
        EXPECT_STREQ(V.pText, Text);
        testing::internal::CaptureStderr();
        errno = 0;
        LINX *pLinx = linx_open("versioned", 0, nullptr);
        const std::string Said = testing::internal::GetCapturedStderr();
        if (V.pText[0] == '3') {
            EXPECT_EQ(nullptr, pLinx);
            EXPECT_EQ(EINVAL, errno);
            EXPECT_EQ("LINX module version mismatch\n", Said);
        } else {
            EXPECT_NE(nullptr, pLinx);
            linx_close(pLinx);
        }
        StopChild(Linxd, SIGTERM);
    }
    setenv("LINXD_INSTANCE", TestInstance().c_str(), 1);
}

} // namespace
