// SPDX-License-Identifier: Apache-2.0
// LINX between real processes through the stand-in: hunts, attaches on
// close and on kill -9, order under load, the queue limit, queue counts,
// the socket list, large signals and racing starts of linxd.
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "linx_test_util.h"

namespace {

constexpr uint32_t kGo = 0x60;
constexpr uint32_t kData = 0x61;
constexpr uint32_t kDone = 0x62;

// A child that opens Name, tells Parent it is there, then runs Body.
pid_t StartPeer(const char *pName, const std::function<int(LINX *, LINX_SPID Parent)> &Body)
{
    return StartChild([=] {
        LINX *pLinx = linx_open(pName, 0, nullptr);
        if (pLinx == nullptr)
            return 10;
        const LINX_SPID Parent = HuntAndWait(pLinx, "parent", 5000);
        if (Parent == 0)
            return 11;
        union LINX_SIGNAL *pSig = NewSignal(pLinx, kGo, 0);
        if (linx_send(pLinx, &pSig, Parent) != 0)
            return 12;
        const int Result = Body(pLinx, Parent);
        linx_close(pLinx);
        return Result;
    });
}

class LinxProcesses : public testing::Test {
protected:
    void SetUp() override
    {
        pParent = linx_open("parent", 0, nullptr);
        ASSERT_NE(nullptr, pParent) << strerror(errno);
    }
    void TearDown() override { linx_close(pParent); }

    LINX_SPID WaitForGo(int TimeoutMs = 5000)
    {
        const LINX_SIGSELECT Go[] = {1, kGo};
        LINX_SPID Child = 0;
        EXPECT_EQ(kGo, ReceiveOne(pParent, TimeoutMs, nullptr, &Child, Go));
        return Child;
    }

    LINX *pParent = nullptr;
};

TEST_F(LinxProcesses, HuntFindsAPeerBeforeAndAfterItOpens)
{
    // Hunt first: the answer comes when the child opens the name.
    union LINX_SIGNAL *pHunt = NewSignal(pParent, 0x70, 0);
    ASSERT_EQ(0, linx_hunt(pParent, "late-peer", &pHunt));
    EXPECT_EQ(nullptr, pHunt);
    const pid_t Child = StartPeer("late-peer", [](LINX *pLinx, LINX_SPID) {
        return ReceiveOne(pLinx, 5000) == kDone ? 0 : 1;
    });
    LINX_SPID Found = 0;
    const LINX_SIGSELECT Hunted[] = {1, 0x70};
    ASSERT_EQ(0x70u, ReceiveOne(pParent, 5000, nullptr, &Found, Hunted));
    EXPECT_EQ(Found, WaitForGo());
    EXPECT_EQ(Child, linx_get_owner(pParent, Found));

    // Hunt now: the peer exists, the answer comes at once.
    EXPECT_EQ(Found, HuntAndWait(pParent, "late-peer", 1000));

    // A hunt without a signal of the caller's gets the default one.
    ASSERT_EQ(0, linx_hunt(pParent, "late-peer", nullptr));
    EXPECT_EQ(251u, ReceiveOne(pParent, 1000));

    union LINX_SIGNAL *pDone = NewSignal(pParent, kDone, 0);
    ASSERT_EQ(0, linx_send(pParent, &pDone, Found));
    EXPECT_EQ(0, WaitChild(Child));
}

TEST_F(LinxProcesses, AttachFiresOnCloseOnKillAndAtOnceForAClosedSocket)
{
    const pid_t Closer = StartPeer("closer", [](LINX *pLinx, LINX_SPID) {
        return ReceiveOne(pLinx, 5000) == kDone ? 0 : 1; // then closes
    });
    const LINX_SPID CloserSpid = WaitForGo();
    union LINX_SIGNAL *pSig = NewSignal(pParent, 0x80, 1);
    ASSERT_NE(0u, linx_attach(pParent, &pSig, CloserSpid));
    EXPECT_EQ(nullptr, pSig);
    pSig = NewSignal(pParent, kDone, 0);
    linx_send(pParent, &pSig, CloserSpid);
    LINX_SPID From = 0;
    EXPECT_EQ(0x80u, ReceiveOne(pParent, 5000, nullptr, &From));
    EXPECT_EQ(CloserSpid, From);
    EXPECT_EQ(0, WaitChild(Closer));

    const pid_t Victim = StartPeer("victim", [](LINX *, LINX_SPID) {
        pause();
        return 0;
    });
    const LINX_SPID VictimSpid = WaitForGo();
    ASSERT_NE(0u, linx_attach(pParent, nullptr, VictimSpid));
    EXPECT_EQ(128 + SIGKILL, StopChild(Victim));
    EXPECT_EQ(252u, ReceiveOne(pParent, 5000, nullptr, &From));
    EXPECT_EQ(VictimSpid, From);

    // Attaching to a socket that is gone fires at once.
    ASSERT_NE(0u, linx_attach(pParent, nullptr, VictimSpid));
    EXPECT_EQ(252u, ReceiveOne(pParent, 1000));
}

TEST_F(LinxProcesses, SignalsArriveInOrderUnderLoad)
{
    constexpr uint32_t kCount = 20000;
    const pid_t Sender = StartPeer("sender", [](LINX *pLinx, LINX_SPID Parent) {
        for (uint32_t i = 0; i < kCount; i++) {
            union LINX_SIGNAL *pSig = NewSignal(pLinx, kData, i, 8 + i % 200);
            while (linx_send(pLinx, &pSig, Parent) != 0) {
                if (errno != ENOBUFS)
                    return 2;
                usleep(200); // the parent's queue is full: let it read
                pSig = NewSignal(pLinx, kData, i, 8 + i % 200);
            }
        }
        return 0;
    });
    WaitForGo();
    const LINX_SIGSELECT Data[] = {1, kData};
    for (uint32_t i = 0; i < kCount; i++) {
        uint32_t Value = ~0u;
        ASSERT_EQ(kData, ReceiveOne(pParent, 5000, &Value, nullptr, Data)) << i;
        ASSERT_EQ(i, Value);
    }
    EXPECT_EQ(0, WaitChild(Sender));
}

TEST_F(LinxProcesses, FullQueueRefusesOnlyThatReceiver)
{
    LINX *pOther = linx_open("other", 0, nullptr);
    ASSERT_NE(nullptr, pOther);
    const LINX_SPID Other = linx_get_spid(pOther);
    const pid_t Sender = StartPeer("flooder", [Other](LINX *pLinx, LINX_SPID Parent) {
        uint32_t Sent = 0;
        for (;; Sent++) {
            union LINX_SIGNAL *pSig = NewSignal(pLinx, kData, Sent, 1024);
            if (linx_send(pLinx, &pSig, Parent) != 0)
                break;
        }
        if (errno != ENOBUFS || Sent < 50)
            return 3;
        union LINX_SIGNAL *pSig = NewSignal(pLinx, kDone, Sent);
        return linx_send(pLinx, &pSig, Other) == 0 ? 0 : 4; // others still served
    });
    WaitForGo();
    EXPECT_EQ(0, WaitChild(Sender));
    uint32_t Sent = 0;
    EXPECT_EQ(kDone, ReceiveOne(pOther, 1000, &Sent));
    for (uint32_t i = 0; i < Sent; i++) {
        uint32_t Value = ~0u;
        ASSERT_EQ(kData, ReceiveOne(pParent, 0, &Value)) << i;
        ASSERT_EQ(i, Value);
    }
    EXPECT_EQ(0u, ReceiveOne(pParent, 0));
    linx_close(pOther);
}

uint32_t QueueCount(LINX *pLinx, LINX_SPID Spid)
{
    struct linx_info_stat *pStat = nullptr;
    if (linx_get_stat(pLinx, Spid, &pStat) != 0)
        return ~0u;
    const uint32_t Count = (uint32_t)pStat->queued_signals;
    linx_free_stat(pLinx, &pStat);
    return Count;
}

TEST_F(LinxProcesses, QueueCountsAndTheSocketListAreSeenByEveryProcess)
{
    const LINX_SPID Parent = linx_get_spid(pParent);
    const pid_t Child = StartPeer("counter", [Parent](LINX *pLinx, LINX_SPID) {
        for (uint32_t i = 0; i < 5; i++) {
            union LINX_SIGNAL *pSig = NewSignal(pLinx, kData, i);
            linx_send(pLinx, &pSig, Parent);
        }
        // Seen from this process: the parent's queue holds go + 5.
        const uint32_t Seen = QueueCount(pLinx, Parent);
        union LINX_SIGNAL *pSig = NewSignal(pLinx, kDone, Seen);
        linx_send(pLinx, &pSig, Parent);
        return ReceiveOne(pLinx, 5000) == kDone ? 0 : 1;
    });
    const LINX_SIGSELECT Done[] = {1, kDone};
    uint32_t SeenByChild = 0;
    LINX_SPID ChildSpid = 0;
    ASSERT_EQ(kDone, ReceiveOne(pParent, 5000, &SeenByChild, &ChildSpid, Done));
    EXPECT_EQ(6u, SeenByChild);
    EXPECT_EQ(6u, QueueCount(pParent, Parent));

    // The whole instance: both sockets listed in ascending order, the
    // queued signals among its totals.
    LINX_SPID Spids[64];
    const int Listed = linx_get_spids(pParent, Spids, 64);
    ASSERT_GE(Listed, 2);
    EXPECT_TRUE(std::is_sorted(Spids, Spids + Listed));
    EXPECT_NE(Spids + Listed, std::find(Spids, Spids + Listed, Parent));
    EXPECT_NE(Spids + Listed, std::find(Spids, Spids + Listed, ChildSpid));
    EXPECT_EQ(1, linx_get_spids(pParent, Spids, 1));
    struct linx_info_summary Summary = {};
    ASSERT_EQ(0, linx_get_summary(pParent, &Summary));
    EXPECT_EQ((uint32_t)Listed, Summary.sockets);
    EXPECT_GE(Summary.queued_signals, 6u);
    WaitForGo();
    EXPECT_EQ(kData, ReceiveOne(pParent, 0));
    EXPECT_EQ(4u, QueueCount(pParent, Parent));
    union LINX_SIGNAL *pSig = NewSignal(pParent, kDone, 0);
    linx_send(pParent, &pSig, ChildSpid);
    EXPECT_EQ(0, WaitChild(Child));
}

TEST_F(LinxProcesses, LargeSignalsArriveWhole)
{
    const pid_t Child = StartPeer("big", [](LINX *pLinx, LINX_SPID Parent) {
        for (uint32_t Size : {4096u, 4097u, 65536u, 200000u}) {
            union LINX_SIGNAL *pSig = linx_alloc(pLinx, Size, kData);
            for (uint32_t i = 4; i < Size; i++)
                ((unsigned char *)pSig)[i] = (unsigned char)(i * 7);
            if (linx_send(pLinx, &pSig, Parent) != 0)
                return 1;
        }
        return 0;
    });
    WaitForGo();
    for (uint32_t Size : {4096u, 4097u, 65536u, 200000u}) {
        union LINX_SIGNAL *pSig = nullptr;
        ASSERT_EQ((int)Size, linx_receive_w_tmo(pParent, &pSig, 5000, nullptr));
        ASSERT_EQ(Size, linx_sigsize(pParent, &pSig));
        int Wrong = 0;
        for (uint32_t i = 4; i < Size; i++)
            Wrong += ((unsigned char *)pSig)[i] != (unsigned char)(i * 7);
        EXPECT_EQ(0, Wrong) << Size;
        linx_free_buf(pParent, &pSig);
    }
    EXPECT_EQ(0, WaitChild(Child));
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
