// SPDX-License-Identifier: Apache-2.0
// LINX between real processes through the stand-in and its shared-memory
// rings: senders killed in the middle of a flood, many senders of several
// processes into one receiver with large and small signals in each
// stream, a full ring (only its receiver is refused) and a receiver that
// dies with one, exact poll readiness, senders that come and go with
// their rings and attaches, and racing starts of linxd.  (Hunts for a peer
// that comes later are the message layer's remote opens; queue counts and
// the socket list are seen through the orvane command's suite.)
#include "test_kit.h"

#include <poll.h>

#include <random>

namespace {

constexpr uint32_t kData = 0x70;
constexpr uint32_t kFull = 0x71;
constexpr uint32_t kDrained = 0x72;
constexpr uint32_t kGone = 0x73;

// A signal whose every byte after the number and sequence follows from
// them, so any torn or shifted copy shows.
union LINX_SIGNAL *PatternSignal(LINX *pLinx, uint32_t Seq, uint32_t Size)
{
    union LINX_SIGNAL *pSig = linx_alloc(pLinx, Size, kData);
    auto *pBytes = (unsigned char *)pSig;
    memcpy(pBytes + 4, &Seq, sizeof Seq);
    for (uint32_t i = 8; i < Size; i++)
        pBytes[i] = (unsigned char)(Seq * 31 + i);
    return pSig;
}

// Mostly small signals, and every 200th one larger than a receive buffer
// (up to 250000 bytes), so large and small ones share every stream.
uint32_t PatternSize(uint32_t Seq)
{
    static const uint32_t kLarge[] = {65536, 200000, 4097, 250000, 131072};
    return Seq % 200 == 199 ? kLarge[Seq / 200 % 5] : 8 + Seq * 37 % 700;
}

// Sends PatternSignal Seq until the receiver takes it; false on any other error.
bool SendPattern(LINX *pLinx, LINX_SPID To, uint32_t Seq, uint32_t Size)
{
    for (;;) {
        union LINX_SIGNAL *pSig = PatternSignal(pLinx, Seq, Size);
        if (linx_send(pLinx, &pSig, To) == 0)
            return true;
        if (errno != ENOBUFS)
            return false;
        sched_yield();
    }
}

// Receives one signal and checks it against its pattern; returns its
// sequence, or -1 when none came within TimeoutMs (-2: a damaged one, -3:
// one of another number).
int64_t ReceivePattern(LINX *pLinx, int TimeoutMs, uint32_t *pSize = nullptr, LINX_SPID *pFrom = nullptr)
{
    union LINX_SIGNAL *pSig = nullptr;
    const LINX_OSBUFSIZE Size = linx_receive_w_tmo(pLinx, &pSig, TimeoutMs, nullptr);
    if (Size <= 0)
        return -1;
    const auto *pBytes = (const unsigned char *)pSig;
    uint32_t Seq;
    memcpy(&Seq, pBytes + 4, sizeof Seq);
    uint32_t SigNo;
    memcpy(&SigNo, pBytes, sizeof SigNo);
    bool bIntact = Size >= 8;
    for (uint32_t i = 8; bIntact && i < (uint32_t)Size; i++)
        bIntact = pBytes[i] == (unsigned char)(Seq * 31 + i);
    if (pSize)
        *pSize = (uint32_t)Size;
    if (pFrom)
        *pFrom = linx_sender(pLinx, &pSig);
    linx_free_buf(pLinx, &pSig);
    return SigNo != kData ? -3 : bIntact ? (int64_t)Seq : -2;
}

bool Readable(LINX *pLinx, int TimeoutMs)
{
    struct pollfd P = {linx_get_descriptor(pLinx), POLLIN, 0};
    return poll(&P, 1, TimeoutMs) == 1;
}

class LinxProcesses : public testing::Test {
protected:
    void SetUp() override
    {
        pParent = linx_open("parent", 0, nullptr);
        ASSERT_NE(nullptr, pParent) << strerror(errno);
    }
    void TearDown() override { linx_close(pParent); }
    LINX *pParent = nullptr;
};

// A child that opens Name and runs Body with the parent's SPID.
pid_t StartSender(const char *pName, const std::function<int(LINX *, LINX_SPID)> &Body)
{
    return StartChild([=] {
        LINX *pLinx = linx_open(pName, 0, nullptr);
        const LINX_SPID Parent = pLinx ? HuntAndWait(pLinx, "parent", 5000) : 0;
        const int Result = Parent == 0 ? 10 : Body(pLinx, Parent);
        if (pLinx)
            linx_close(pLinx);
        return Result;
    });
}

// Each victim is watched from the moment it opens; once it is killed,
// everything it sent arrives whole and in order before its end is told.
TEST_F(LinxProcesses, SendersKilledMidFloodNeverCorruptWhatComesNext)
{
    std::mt19937 Random(getpid());
    for (int Round = 0; Round < 200; Round++) {
        const std::string Name = "victim" + std::to_string(Round);
        const pid_t Victim = StartSender(Name.c_str(), [](LINX *pLinx, LINX_SPID Parent) {
            for (uint32_t Seq = 0;; Seq++)
                if (!SendPattern(pLinx, Parent, Seq, PatternSize(Seq)))
                    return 1;
        });
        const LINX_SPID VictimSpid = HuntAndWait(pParent, Name.c_str(), 5000);
        ASSERT_NE(0u, linx_attach(pParent, nullptr, VictimSpid));
        // Take some of the flood while it runs, so the kill lands in the
        // middle of sends rather than on a sender waiting for room.
        const int64_t FloodMs = NowMs() + 1 + Random() % 3;
        int64_t Expected = 0, Seq;
        while (NowMs() < FloodMs)
            if ((Seq = ReceivePattern(pParent, 1)) != -1) {
                ASSERT_EQ(Expected++, Seq) << "round " << Round;
            }
        ASSERT_EQ(128 + SIGKILL, StopChild(Victim));
        while ((Seq = ReceivePattern(pParent, 5000)) >= 0)
            ASSERT_EQ(Expected++, Seq) << "round " << Round;
        ASSERT_EQ(-3, Seq) << "round " << Round << ": its end was never told";
    }
    // Then three processes with two sending sockets each (their threads
    // share the process's ring): every sender's signals arrive in its
    // order, each one whole, whether it fits the receive buffer or not.
    constexpr uint32_t kPerSender = 3000;
    std::vector<pid_t> Children;
    for (int i = 0; i < 3; i++)
        Children.push_back(StartSender("sender", [](LINX *pFirst, LINX_SPID Parent) {
            LINX *pSecond = linx_open("sender", 0, nullptr);
            bool bOk[2] = {false, false};
            auto Flood = [Parent](LINX *pLinx, bool *pOk) {
                for (uint32_t Seq = 0; Seq < kPerSender; Seq++)
                    if (!SendPattern(pLinx, Parent, Seq, PatternSize(Seq)))
                        return;
                *pOk = true;
            };
            std::thread Other(Flood, pSecond, &bOk[1]);
            Flood(pFirst, &bOk[0]);
            Other.join();
            linx_close(pSecond);
            return bOk[0] && bOk[1] ? 0 : 1;
        }));
    std::map<LINX_SPID, int64_t> Next;
    for (uint32_t Taken = 0; Taken < 6 * kPerSender; Taken++) {
        LINX_SPID From = 0;
        uint32_t Size = 0;
        const int64_t Seq = ReceivePattern(pParent, 5000, &Size, &From);
        ASSERT_GE(Seq, 0) << "after " << Taken;
        ASSERT_EQ(Next[From]++, Seq) << "sender " << From;
        ASSERT_EQ(PatternSize((uint32_t)Seq), Size);
    }
    EXPECT_EQ(6u, Next.size());
    for (pid_t Child : Children)
        EXPECT_EQ(0, WaitChild(Child));
    EXPECT_FALSE(Readable(pParent, 0));
}

// A flood fills the ring: sends are refused with ENOBUFS, the descriptor
// stays readable while anything waits and not a moment longer, and sends
// succeed again once the receiver has drained it.  A receiver killed with
// a full ring never blocks its sender: the sender learns it is gone.
TEST_F(LinxProcesses, AFullRingRefusesRecoversAndNeverBlocks)
{
    LINX *pControl = linx_open("control", 0, nullptr);
    ASSERT_NE(nullptr, pControl);
    const pid_t Flooder = StartSender("flooder", [](LINX *pLinx, LINX_SPID Parent) {
        uint32_t Sent = 0;
        for (;; Sent++) {
            union LINX_SIGNAL *pSig = PatternSignal(pLinx, Sent, 1024);
            if (linx_send(pLinx, &pSig, Parent) != 0)
                break;
        }
        if (errno != ENOBUFS || Sent < 100)
            return 2;
        const LINX_SPID Control = HuntAndWait(pLinx, "control", 5000);
        if (SendSignal(pLinx, Control, kFull, Sent) != 0)
            return 3;
        const LINX_SIGSELECT Drained[] = {1, kDrained};
        if (ReceiveOne(pLinx, 5000, nullptr, nullptr, Drained) != kDrained)
            return 4;
        return SendPattern(pLinx, Parent, Sent, 1024) ? 0 : 5;
    });
    uint32_t Sent = 0;
    LINX_SPID FlooderSpid = 0;
    ASSERT_EQ(kFull, ReceiveOne(pControl, 5000, &Sent, &FlooderSpid));
    for (uint32_t Seq = 0; Seq < Sent; Seq++) {
        EXPECT_TRUE(Readable(pParent, 0)) << Seq;
        ASSERT_EQ((int64_t)Seq, ReceivePattern(pParent, 0));
    }
    EXPECT_FALSE(Readable(pParent, 0)) << "readable with nothing waiting";
    ASSERT_EQ(0, SendSignal(pControl, FlooderSpid, kDrained, 0));
    EXPECT_TRUE(Readable(pParent, 5000));
    EXPECT_EQ((int64_t)Sent, ReceivePattern(pParent, 0));
    EXPECT_FALSE(Readable(pParent, 0));
    EXPECT_EQ(0, WaitChild(Flooder));

    const pid_t Sink = StartChild([] {
        linx_open("sink", 0, nullptr);
        pause();
        return 0;
    });
    const LINX_SPID SinkSpid = HuntAndWait(pControl, "sink", 5000);
    int Refused = 0;
    for (uint32_t Seq = 0; Refused == 0; Seq++) {
        union LINX_SIGNAL *pSig = PatternSignal(pControl, Seq, 4096);
        if (linx_send(pControl, &pSig, SinkSpid) != 0)
            Refused = errno;
    }
    EXPECT_EQ(ENOBUFS, Refused);
    StopChild(Sink);
    const int64_t Deadline = NowMs() + 5000;
    while (Refused == ENOBUFS && NowMs() < Deadline) {
        union LINX_SIGNAL *pSig = PatternSignal(pControl, 0, 4096);
        Refused = linx_send(pControl, &pSig, SinkSpid) == 0 ? 0 : errno;
        usleep(1000);
    }
    EXPECT_EQ(ECONNRESET, Refused);
    linx_close(pControl);
}

// Senders that close their socket, exit with it open, or are killed: what
// each sent arrives in order (before the attach signal that tells of its
// end, for those the receiver watches: its own signal for those that
// exit, the default one for the killed), and the rings they made leave the
// receiver once it has read them, also when nothing but their signals
// ever reached it; so do the rings the receiver made to answer them.  An
// attach to a socket already gone fires at once, and one goes with the
// socket that made it.
TEST_F(LinxProcesses, RingsAndAttachesLeaveWithTheirSenders)
{
    constexpr int kEach = 20; // senders per way of leaving
    enum Way { Closes, Exits, Killed };
    const int Before = RingMappings(getpid());
    const Pipe Ready, Go;
    std::vector<pid_t> Children;
    for (int i = 0; i < 3 * kEach; i++)
        Children.push_back(StartSender("leaver", [&, i](LINX *pLinx, LINX_SPID Parent) {
            for (uint32_t Seq = 0; Seq < 3; Seq++)
                SendPattern(pLinx, Parent, Seq, PatternSize(Seq));
            const LINX_SPID Mine[2] = {linx_get_spid(pLinx), (LINX_SPID)(i / kEach)};
            if (!Ready.Say(Mine) || (i >= kEach && !Go.Hear()))
                return 1;
            if (i / kEach == Exits)
                _exit(0); // the socket is left open
            return 0;     // closed by StartSender
        }));
    std::map<LINX_SPID, uint32_t> WayOf;
    for (int i = 0; i < 3 * kEach; i++) {
        LINX_SPID SpidAndWay[2] = {0, 0};
        ASSERT_TRUE(Ready.Hear(&SpidAndWay));
        WayOf[SpidAndWay[0]] = SpidAndWay[1];
        if (SpidAndWay[1] == Exits) {
            union LINX_SIGNAL *pGone = NewSignal(pParent, kGone, 0);
            ASSERT_NE(0u, linx_attach(pParent, &pGone, SpidAndWay[0]));
        } else if (SpidAndWay[1] == Killed) {
            ASSERT_NE(0u, linx_attach(pParent, nullptr, SpidAndWay[0]));
        }
        SendSignal(pParent, SpidAndWay[0], kDrained, 0); // to one that closed already: refused
    }
    for (int i = 0; i < kEach; i++)
        EXPECT_EQ(0, WaitChild(Children[i]));
    // Receives that take nothing (what the rings hold waits aside) let the
    // rings of those that closed go.
    const LINX_SIGSELECT kNothing[] = {1, 0x7FFF};
    EXPECT_TRUE(WaitFor([&] {
        union LINX_SIGNAL *pNone = nullptr;
        return linx_receive_w_tmo(pParent, &pNone, 0, kNothing) == 0 && RingMappings(getpid()) == Before + 4 * kEach;
    }, 5000)) << RingMappings(getpid()) - Before << " rings mapped";
    for (int i = 2 * kEach; i < 3 * kEach; i++) { // the killed, dead before the others may go
        StopChild(Children[i]);
    }
    for (int i = 0; i < kEach; i++)
        Go.Say();
    for (int i = kEach; i < 2 * kEach; i++)
        EXPECT_EQ(0, WaitChild(Children[i]));

    std::map<LINX_SPID, uint32_t> Taken; // per sender: patterns, then 4 once its end was told
    for (int n = 0; n < kEach * (3 + 4 + 4); n++) {
        union LINX_SIGNAL *pSig = nullptr;
        ASSERT_GT(linx_receive_w_tmo(pParent, &pSig, 5000, nullptr), 0) << "after " << n;
        const LINX_SPID From = linx_sender(pParent, &pSig);
        const uint32_t SigNo = SigNoOf(pSig), Seq = ValueOf(pSig);
        linx_free_buf(pParent, &pSig);
        if (SigNo == kGone || SigNo == LINX_OS_ATTACH_SIG) {
            EXPECT_EQ(WayOf[From] == Killed ? LINX_OS_ATTACH_SIG : kGone, SigNo);
            EXPECT_EQ(3u, Taken[From]) << "the end of 0x" << std::hex << From << " told before its signals";
            Taken[From] = 4;
        } else {
            EXPECT_EQ(Taken[From]++, Seq) << "from 0x" << std::hex << From;
        }
    }
    EXPECT_EQ(size_t(3 * kEach), Taken.size());
    EXPECT_TRUE(WaitFor([&] { return ReceiveOne(pParent, 0) == 0 && RingMappings(getpid()) == Before; }, 5000))
        << RingMappings(getpid()) - Before << " rings of senders that left are still mapped";
    EXPECT_FALSE(Readable(pParent, 0));

    struct linx_info_summary Was = {}, Now = {};
    ASSERT_EQ(0, linx_get_summary(pParent, &Was));
    ASSERT_NE(0u, linx_attach(pParent, nullptr, WayOf.rbegin()->first));
    EXPECT_EQ(LINX_OS_ATTACH_SIG, ReceiveOne(pParent, 1000));
    LINX *pBrief = linx_open("brief", 0, nullptr);
    ASSERT_NE(0u, linx_attach(pBrief, nullptr, linx_get_spid(pParent)));
    linx_close(pBrief);
    EXPECT_TRUE(WaitFor([&] { return linx_get_summary(pParent, &Now) == 0 && Now.attaches == Was.attaches; }, 2000))
        << Now.attaches - Was.attaches << " attaches of a closed socket kept";
}

TEST(LinxStart, RacingClientsStartExactlyOneLinxd)
{
    const std::string Instance = TestInstance() + "-race";
    std::vector<pid_t> Children;
    for (int i = 0; i < 8; i++)
        Children.push_back(StartChild([&Instance, i] {
            setenv("LINXD_INSTANCE", Instance.c_str(), 1);
            const std::string Name = "racer" + std::to_string(i);
            LINX *pLinx = linx_open(Name.c_str(), 0, nullptr);
            if (pLinx == nullptr)
                return 1;
            // Every racer reaches every other: one service holds all names.
            for (int j = 0; j < 8; j++)
                if (HuntAndWait(pLinx, ("racer" + std::to_string(j)).c_str(), 5000) == 0)
                    return 2;
            sleep(2); // stay until the others found us
            linx_close(pLinx);
            return 0;
        }));
    for (pid_t Child : Children)
        EXPECT_EQ(0, WaitChild(Child));
    const std::vector<pid_t> Linxd = FindLinxd(Instance);
    EXPECT_EQ(1u, Linxd.size());
    for (pid_t Pid : Linxd)
        kill(Pid, SIGTERM);
}

} // namespace
