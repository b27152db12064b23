// SPDX-License-Identifier: Apache-2.0
// Hostile writers of this user and hostile peer nodes against real linxd
// nodes and real processes: rings kept full into an endpoint behind a link
// and into the sockets of one that never reads, hunts across a link beyond
// the bound, bells written in a loop, a ring kept full into a receiver
// that waits for another number while its writer scribbles on the
// receiver's ready set, a sender that makes ring after ring, writers into
// endpoints behind a link that die beyond what linxd maps, and peers that
// do not belong (no secret, garbage, a signal for an endpoint never
// announced to them, connections that never finish their handshake).
// Each checks the bound (through /proc), the refusal, and that an honest
// pair beside it keeps working.
#include "test_kit.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mman.h>

#include "link_test_util.h"
#include "linxd_link.h"
#include "standin/protocol.h"

namespace {

// A sanitizer's own memory counts in a process's resident size (freed
// memory in AddressSanitizer's quarantine, ThreadSanitizer's shadow of
// what was touched): linxd's memory is measured in the plain build.
constexpr bool kRssIsMemory =
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    false;
#else
    true;
#endif

constexpr uint32_t kFlood = 0x99;

// A process on the node that keeps its rings to the targets (the socket
// Target, or Target0 to Target<Count - 1>) full of 64 KiB signals until it
// is killed; it tells once a send was refused, after running Then.
pid_t StartFlooder(const Node &N, const std::string &Target, const Pipe &Told, void (*pThen)() = nullptr,
                   int Count = 0)
{
    return StartChild([&N, Target, &Told, pThen, Count] {
        LINX *pLinx = OpenOn(N, "flooder");
        std::vector<LINX_SPID> To;
        for (int i = 0; i < std::max(Count, 1); i++)
            To.push_back(HuntAndWait(pLinx, (Target + (Count > 0 ? std::to_string(i) : "")).c_str(), 10000));
        for (bool bRefused = false; std::count(To.begin(), To.end(), 0u) == 0;) {
            for (const LINX_SPID Each : To) {
                if (SendSignal(pLinx, Each, kFlood, 0, 65536) != ENOBUFS || bRefused)
                    continue;
                bRefused = true;
                if (pThen != nullptr)
                    pThen();
                Told.Say();
            }
        }
        return 1;
    });
}

// A process on the node with socket Name that sends a signal to Target
// (or waits for one when it is ""), then writes every eventfd it has, in a
// loop, until it is killed.
pid_t StartRinger(const Node &N, const char *pName, const std::string &Target)
{
    return StartChild([&N, pName, Target] {
        LINX *pLinx = OpenOn(N, pName);
        if (Target.empty() ? ReceiveOne(pLinx, 10000) == 0
                           : SendSignal(pLinx, HuntAndWait(pLinx, Target.c_str(), 10000), kFlood, 0) != 0)
            return 1;
        RingEveryBell();
    });
}

// Waits until Count flooders told they were refused.
bool AwaitRefusals(const Pipe &Told, int Count)
{
    for (int i = 0; i < Count; i++)
        if (!WaitFor([&] { return Told.Hear(); }, 20000))
            return false;
    return true;
}

// A ping to the echo and its answer.
void ExpectAnswered(LINX *pLinx, LINX_SPID Echo, uint32_t Value)
{
    ASSERT_EQ(0, SendSignal(pLinx, Echo, kPing, Value)) << strerror(errno);
    uint32_t Answer = 0;
    ASSERT_EQ(kPing, ReceiveOne(pLinx, 10000, &Answer));
    EXPECT_EQ(Value + kAnswerOffset, Answer);
}

// A process on node a hunts for more absent names behind the link to b
// than it may: it is refused beyond the bound with a line, and another
// process's hunt across the link is answered meanwhile.  Then a floods b:
// one process keeps its ring to a reader full, another its rings to the
// twelve sockets of a process that never reads.  Both are refused
// (ENOBUFS) and cost each node a bounded amount, which a goes back to once
// they and the receiver that never read are gone; honest pings across the
// same link are all answered throughout, and so they are while processes
// on both nodes write every bell they hold in a loop, which costs their
// linxd little.  The link stays up throughout.
TEST(HostileWriters, FloodsAndHuntsAcrossALinkStopOnlyTheirOwn)
{
    Pair P;
    MakePair(P, false, "hw");
    const pid_t Sink = StartChild([&] {
        LINX *pLinx = OpenOn(P.B, "sink");
        while (ReceiveOne(pLinx, 20000) == kFlood) {
        }
        return linx_close(pLinx);
    });
    const pid_t Deaf = StartChild([&] {
        for (int i = 0; i < 12; i++)
            OpenOn(P.B, ("deaf" + std::to_string(i)).c_str());
        pause();
        return 0;
    });
    const pid_t Echo = StartEcho(P.B, "echo");
    const Pipe Go;
    const pid_t Hunter = StartChild([&] {
        LINX *pLinx = OpenOn(P.A, "hunter");
        int Taken = 0, Refusals = 0;
        for (int i = 0; i < 5000; i++) {
            const int Result = linx_hunt(pLinx, ("b/absent-" + std::to_string(i)).c_str(), nullptr);
            Taken += Result == 0;
            Refusals += Result != 0 && errno == ENOBUFS;
        }
        Go.Hear(); // its hunts wait until the other process's was answered
        return linx_close(pLinx) + (Taken == 4096 && Refusals == 904 ? 0 : 1);
    });
    const std::string Refusal =
        "refused a hunt of process " + std::to_string(Hunter) + ": 4096 of its hunts across links wait already";
    int Lines = 0;
    EXPECT_TRUE(WaitFor([&] { return Refusals(ReadFile(P.A.LogPath), Refusal, &Lines) == 904; }, 10000));
    EXPECT_LE(Lines, 4);
    LINX *pHonest = OpenOn(P.A, "honest");
    const LINX_SPID EchoSpid = HuntAndWait(pHonest, "b/echo", 10000);
    ASSERT_NE(0u, EchoSpid);
    Go.Say();
    EXPECT_EQ(0, WaitChild(Hunter));
    ExpectAnswered(pHonest, EchoSpid, 0);
    const long BeforeA = RssKiB(P.A.Pid), BeforeB = RssKiB(P.B.Pid);
    const Pipe Refused(O_NONBLOCK);
    const pid_t Flooders[2] = {StartFlooder(P.A, "b/sink", Refused), StartFlooder(P.A, "b/deaf", Refused, nullptr, 12)};
    ASSERT_TRUE(AwaitRefusals(Refused, 2));
    long MostA = 0, MostB = 0;
    for (uint32_t i = 1; i <= 50; i++) {
        ExpectAnswered(pHonest, EchoSpid, i);
        MostA = std::max(MostA, RssKiB(P.A.Pid));
        MostB = std::max(MostB, RssKiB(P.B.Pid));
    }
    for (const pid_t Flooder : Flooders) {
        StopChild(Flooder);
    }
    if (kRssIsMemory) {
        EXPECT_LT(MostA - BeforeA, 16 * 1024) << "linxd of a grew by KiB";
        EXPECT_LT(MostB - BeforeB, 16 * 1024) << "linxd of b grew by KiB";
    }

    // The receiver that never read dies with linxd's ring into it full and
    // signals waiting for room: its node lets them go and serves on, and
    // a lets go what the flooder had written for it.
    StopChild(Deaf);
    ExpectAnswered(pHonest, EchoSpid, 51);
    if (kRssIsMemory) {
        EXPECT_TRUE(WaitFor([&] { return RssKiB(P.A.Pid) - BeforeA < 4 * 1024; }, 5000))
            << "linxd of a keeps " << RssKiB(P.A.Pid) - BeforeA << " KiB";
    }

    // Processes that write every bell they hold in a loop: one on b that
    // linxd's ring reaches (its room bell), one on a that sent to b's echo
    // (the phantom's bell).  Neither linxd spends much on them.
    const pid_t Ringers[2] = {StartRinger(P.B, "ringer", ""), StartRinger(P.A, "ringer", "b/echo")};
    ASSERT_EQ(0, SendSignal(pHonest, HuntAndWait(pHonest, "b/ringer", 5000), kPing, 0));
    usleep(200 * 1000);
    const long TicksA = CpuTicks(P.A.Pid), TicksB = CpuTicks(P.B.Pid);
    usleep(500 * 1000);
    EXPECT_LT(CpuTicks(P.A.Pid) - TicksA, 10) << "linxd of a on bells, in ticks of 500";
    EXPECT_LT(CpuTicks(P.B.Pid) - TicksB, 10) << "linxd of b on bells, in ticks of 500";
    ExpectAnswered(pHonest, EchoSpid, 52);
    for (const pid_t Ringer : Ringers)
        StopChild(Ringer);
    EXPECT_EQ(std::string::npos, ReadFile(P.A.LogPath).find("is down")) << ReadFile(P.A.LogPath);
    linx_close(pHonest);
    for (const pid_t Child : {Sink, Echo}) {
        StopChild(Child);
    }
}

// Scribbles on every ready set this process maps (its own sockets' and its
// receivers'): marks everywhere, statistics out of all measure.  The arm
// word is left alone: a sender that clears it can cost its receiver a
// wake-up, which only its senders can do.
void ScribbleOnReadySets()
{
    std::ifstream Maps("/proc/self/maps");
    for (std::string Line; std::getline(Maps, Line);) {
        if (Line.find("linx-ready") == std::string::npos)
            continue;
        auto *pSet = (linxd_ready_set *)(uintptr_t)std::stoull(Line, nullptr, 16);
        memset(&pSet->counters, 0xFF, sizeof pSet->counters);
        memset(&pSet->marks, 0xFF, sizeof pSet->marks);
    }
}

// A receiver waits for one number while a process keeps its ring full of
// another and scribbles on the receiver's ready set: what the receiver
// sets aside stays bounded, it says once that it left the flooder's
// signals in its ring, and an honest signal of the awaited number from
// another process still reaches it.
TEST(HostileWriters, AFullRingAndScribblesCannotKeepAReceiverFromItsSignal)
{
    const std::string Said = "/tmp/" + TestInstance() + "-picky.err";
    const Pipe Ready, Refused(O_NONBLOCK);
    const pid_t Picky = StartChild([&] {
        dup2(open(Said.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), 2);
        LINX *pLinx = linx_open("picky", 0, nullptr);
        Ready.Say();
        static const LINX_SIGSELECT kOnlyA[] = {1, 0xA};
        const uint32_t Got = ReceiveOne(pLinx, 20000, nullptr, nullptr, kOnlyA);
        linx_close(pLinx);
        return Got == 0xA ? 0 : 1;
    });
    ASSERT_TRUE(Ready.Hear());
    const long Before = RssKiB(Picky);
    Node Here; // this test's own instance, which it does not start or kill
    Here.Instance = TestInstance();
    const pid_t Flooder = StartFlooder(Here, "picky", Refused, ScribbleOnReadySets);
    ASSERT_TRUE(AwaitRefusals(Refused, 1));
    const std::string Line = "left the signals of process " + std::to_string(Flooder) + " in its ring";
    EXPECT_TRUE(WaitFor([&] { return ReadFile(Said).find(Line) != std::string::npos; }, 10000)) << ReadFile(Said);
    EXPECT_LT(RssKiB(Picky) - Before, 8 * 1024) << "the receiver grew by KiB";
    LINX *pHonest = linx_open("honest", 0, nullptr);
    ASSERT_EQ(0, SendSignal(pHonest, HuntAndWait(pHonest, "picky", 5000), 0xA, 1));
    EXPECT_EQ(0, WaitChild(Picky));
    StopChild(Flooder);
    linx_close(pHonest);
}

// One process opens a socket, sends a 64 KiB signal and closes it, again
// and again, to a receiver that waits for another number (it sets the
// signals aside until its queue is full, then holds the rings) and to one
// that never reads its outlet (the rings wait there, announced).  Every
// ring stays charged to the cycler until its reader lets it go: it is
// refused once four of its rings into a socket are not read, with a line;
// neither receiver ever maps more of them; an honest signal of the
// awaited number still gets through; and once the cycler is gone and the
// receiver has read what it left, its mappings are what they were.
TEST(HostileWriters, ASenderCyclingRingsIsRefusedAfterAFewAndLeavesNothing)
{
    Node N;
    N.Instance = TestInstance() + "-cycle";
    Start(N);
    const Pipe Ready, Drain, Stop(O_NONBLOCK);
    const pid_t Picky = StartChild([&] {
        LINX *pLinx = OpenOn(N, "picky");
        Ready.Say();
        static const LINX_SIGSELECT kOnlyA[] = {1, 0xA};
        const uint32_t Got = ReceiveOne(pLinx, 20000, nullptr, nullptr, kOnlyA);
        Drain.Hear();
        while (!Stop.Hear()) // rings retired while it sleeps go at its next pass
            ReceiveOne(pLinx, 20);
        return Got == 0xA ? linx_close(pLinx) : 1;
    });
    const pid_t Deaf = StartChild([&] {
        OpenOn(N, "deaf");
        Ready.Say();
        return pause();
    });
    ASSERT_TRUE(Ready.Hear() && Ready.Hear());
    const int Before = RingMappings(Picky);
    const pid_t Cycler = StartChild([&] {
        int Taken[2] = {0, 0};
        for (int i = 0; i < 200; i++) {
            LINX *pLinx = OpenOn(N, "cycler");
            const LINX_SPID To = HuntAndWait(pLinx, i % 2 ? "picky" : "deaf", 5000);
            Taken[i % 2] += SendSignal(pLinx, To, 0xB, i, 65536) == 0;
            linx_close(pLinx);
        }
        return Taken[0] == 4 && Taken[1] <= 8 + 4 ? 0 : 1; // 8 fill the picky one's queue set aside
    });
    int Most = 0;
    while (!WaitFor([&] { return waitpid(Cycler, nullptr, WNOHANG) != 0; }, 10))
        Most = std::max(Most, RingMappings(Picky) - Before);
    EXPECT_LE(Most, 4) << "rings of the cycler mapped at once";
    int Lines = 0;
    EXPECT_TRUE(WaitFor([&] { return Refusals(ReadFile(N.LogPath), "rings into socket", &Lines) >= 150; }, 3000))
        << ReadFile(N.LogPath);
    EXPECT_LE(Lines, 8);
    LINX *pHonest = OpenOn(N, "honest");
    ASSERT_EQ(0, SendSignal(pHonest, HuntAndWait(pHonest, "picky", 5000), 0xA, 1));
    linx_close(pHonest);
    ASSERT_TRUE(Drain.Say());
    EXPECT_TRUE(WaitFor([&] { return RingMappings(Picky) == Before; }, 5000))
        << "the picky receiver let every ring go once it read them: " << RingMappings(Picky) << " against " << Before;
    Stop.Say();
    EXPECT_EQ(0, WaitChild(Picky));
    StopChild(Deaf);
}

// Writers hand node a rings into endpoints behind the link (linxd maps
// those itself), more than it maps, and die one by one: linxd refuses the
// rings beyond what it maps with a line, never maps more, lets every ring
// go as its writer dies, and serves on.
TEST(HostileWriters, DyingWritersIntoPhantomsNeverTakeLinxdPastItsMappings)
{
    Pair P;
    P.A.Args = {"--mapped-rings", "40"};
    MakePair(P, false, "map");
    const Pipe Ready;
    const pid_t Owner = StartChild([&] {
        for (int i = 0; i < 30; i++)
            OpenOn(P.B, ("e" + std::to_string(i)).c_str());
        Ready.Say();
        return pause();
    });
    ASSERT_TRUE(Ready.Hear());
    const pid_t Echo = StartEcho(P.B, "echo");
    std::vector<pid_t> Writers;
    for (int w = 0; w < 4; w++) {
        Writers.push_back(StartChild([&] {
            LINX *pLinx = OpenOn(P.A, "writer");
            for (int i = 0; i < 30; i++)
                SendSignal(pLinx, HuntAndWait(pLinx, ("b/e" + std::to_string(i)).c_str(), 5000), 0xB, i);
            Ready.Say();
            return pause();
        }));
        ASSERT_TRUE(Ready.Hear());
    }
    int Most = RingMappings(P.A.Pid);
    for (const pid_t Writer : Writers) {
        StopChild(Writer);
        Most = std::max(Most, RingMappings(P.A.Pid));
    }
    EXPECT_LE(Most, 40);
    EXPECT_TRUE(WaitFor([&] { return RingMappings(P.A.Pid) == 0; }, 5000)) << "rings linxd still maps";
    EXPECT_NE(std::string::npos, ReadFile(P.A.LogPath).find("linxd maps 40 rings already"));
    LINX *pHonest = OpenOn(P.A, "honest");
    ExpectAnswered(pHonest, HuntAndWait(pHonest, "b/echo", 5000), 7);
    linx_close(pHonest);
    StopChild(Owner);
    StopChild(Echo);
}

// Peers that do not belong: a TCP peer with another secret never gets a
// hunt through; garbage, frames before the hello, oversized frames,
// signals from endpoints never announced or for endpoints never announced
// to the peer each drop only their own connection, with a line; and
// connections that never finish their TLS hello make room for newer ones,
// are summarised in a few lines and cost nothing once gone.  The link that
// belongs keeps working.
TEST(HostileWriters, PeersThatDoNotBelongAreRefused)
{
    Pair P;
    MakePair(P, true, "sec");
    Node Stranger;
    Stranger.Instance = TestInstance() + "-secx";
    const std::string Port = P.B.Args.back().substr(P.B.Args.back().rfind(':') + 1);
    Stranger.Args = {"--secret", MakeSecret("other"), "--link", "b=tcp:127.0.0.1:" + Port};
    unlink(("/tmp/" + Stranger.Instance + ".log").c_str());
    Start(Stranger);
    const pid_t Echo = StartEcho(P.B, "vault");
    LINX *pOutsider = OpenOn(Stranger, "outsider");
    EXPECT_EQ(0u, HuntAndWait(pOutsider, "b/vault", 1500));
    EXPECT_NE(std::string::npos, ReadFile(Stranger.LogPath).find("TLS handshake failed"));
    EXPECT_NE(std::string::npos, ReadFile(P.B.LogPath).find("refused a link connection from tcp:127.0.0.1"));
    linx_close(pOutsider);
    Kill(Stranger);

    const std::string Ping = Frame((uint32_t)LinkFrame::Signal, Words({7, 0x10001, 0}) + "ping");
    const std::string Known = Frame((uint32_t)LinkFrame::Endpoint, Words({7, 7, 64}) + "x");
    const struct {
        std::string Bytes;
        const char *pLine;
    } Cases[] = {
        {"GET / HTTP/1.0\r\n\r\n", "more than any frame holds"},
        {Frame(4, "xxxx"), "a frame before the hello"},
        {Frame(1, "hi"), "not a linxd link"},
        {Hello("rogue") + Ping, "a signal from an endpoint it never announced"},
        {Hello("rogue2") + Known + Ping, "a signal for an endpoint never announced to it"},
        {Hello("rogue3") + Frame(99, ""), "a frame of unknown type 99"},
        {Hello("rogue4") + Frame(2, std::string("a\0b", 3)), "a hunt for a name that cannot be"},
    };
    for (const auto &Case : Cases) {
        const int Fd = ConnectUnixLink(P.B.Instance);
        SendAndAwaitClose(Fd, Case.Bytes);
        close(Fd);
        EXPECT_TRUE(WaitFor([&] { return ReadFile(P.B.LogPath).find(Case.pLine) != std::string::npos; }, 2000))
            << Case.pLine;
    }

    const size_t Seen = ReadFile(P.B.LogPath).size();
    const long Before = RssKiB(P.B.Pid);
    struct sockaddr_in Addr = {};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Addr.sin_port = htons((uint16_t)std::stoi(Port));
    std::vector<int> HalfOpen;
    for (int i = 0; i < 300; i++) {
        HalfOpen.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, connect(HalfOpen.back(), (struct sockaddr *)&Addr, sizeof Addr));
    }
    for (const int Fd : HalfOpen)
        close(Fd);
    int Lines = 0;
    EXPECT_TRUE(WaitFor([&] { return Refusals(ReadFile(P.B.LogPath).substr(Seen), "link connection", &Lines) == 300; },
                        5000));
    EXPECT_LE(Lines, 6) << ReadFile(P.B.LogPath).substr(Seen);
    if (kRssIsMemory) {
        EXPECT_TRUE(WaitFor([&] { return RssKiB(P.B.Pid) - Before < 1024; }, 3000))
            << "linxd keeps " << RssKiB(P.B.Pid) - Before << " KiB";
    }

    LINX *pClient = OpenOn(P.A, "insider");
    const LINX_SPID Vault = HuntAndWait(pClient, "b/vault", 10000);
    ASSERT_NE(0u, Vault);
    ASSERT_EQ(0, SendSignal(pClient, Vault, kStop, 0));
    EXPECT_EQ(0, WaitChild(Echo));
    linx_close(pClient);
}

} // namespace
