// SPDX-License-Identifier: Apache-2.0
// Signal buffers, sends and receives within one process: allocation and the
// spare buffer, resizing, the end mark, selection, adoption without a copy,
// timeouts, attributes and the information queries.
#include "test_kit.h"

#include <poll.h>
#include <sys/time.h>

namespace {

class LinxBuffers : public testing::Test {
protected:
    void SetUp() override
    {
        pA = linx_open("buffers-a", 0, nullptr);
        pB = linx_open("buffers-b", 0, nullptr);
        ASSERT_NE(nullptr, pA) << strerror(errno);
        ASSERT_NE(nullptr, pB) << strerror(errno);
    }
    void TearDown() override
    {
        if (pA)
            linx_close(pA);
        if (pB)
            linx_close(pB);
    }
    LINX *pA = nullptr;
    LINX *pB = nullptr;
};

TEST_F(LinxBuffers, AllocationChecksSizeMarksTheEndReusesAndResizes)
{
    errno = 0;
    EXPECT_EQ(nullptr, linx_alloc(pA, 3, 1));
    EXPECT_EQ(EMSGSIZE, errno);
    union LINX_SIGNAL *pSig = linx_alloc(pA, 4, 0x1234);
    ASSERT_NE(nullptr, pSig);
    EXPECT_EQ(0x1234u, SigNoOf(pSig));
    EXPECT_EQ(0xEE, ((unsigned char *)pSig)[4]);
    EXPECT_EQ(4u, linx_sigsize(pA, &pSig));
    EXPECT_EQ(linx_get_spid(pA), linx_sender(pA, &pSig));
    EXPECT_EQ(0, linx_free_buf(pA, &pSig));
    EXPECT_EQ(nullptr, pSig);

    // A released large buffer is kept and reused for a signal that fits.
    union LINX_SIGNAL *pBig = linx_alloc(pA, 2000, 1);
    union LINX_SIGNAL *const pFirst = pBig;
    linx_free_buf(pA, &pBig);
    union LINX_SIGNAL *pLarger = linx_alloc(pA, 3000, 2); // too large: the spare stays
    ASSERT_NE(nullptr, pLarger);
    EXPECT_NE(pFirst, pLarger);
    union LINX_SIGNAL *pSmall = linx_alloc(pA, 100, 3);
    EXPECT_EQ(pFirst, pSmall);
    EXPECT_EQ(100u, linx_sigsize(pA, &pSmall));
    EXPECT_EQ(0xEE, ((unsigned char *)pSmall)[100]);
    linx_free_buf(pA, &pSmall);
    linx_free_buf(pA, &pLarger); // the spare slot is taken: freed

    // Resizing keeps the contents.
    pSig = NewSignal(pA, 7, 0xABCD);
    errno = 0;
    EXPECT_EQ(-1, linx_set_sigsize(pA, &pSig, 3));
    EXPECT_EQ(EMSGSIZE, errno);
    ASSERT_EQ(0, linx_set_sigsize(pA, &pSig, 100000));
    EXPECT_EQ(100000u, linx_sigsize(pA, &pSig));
    EXPECT_EQ(0xABCDu, ValueOf(pSig));
    memset((char *)pSig + 8, 0x5A, 100000 - 8);
    ASSERT_EQ(0, linx_set_sigsize(pA, &pSig, 12));
    EXPECT_EQ(12u, linx_sigsize(pA, &pSig));
    EXPECT_EQ(0xEE, ((unsigned char *)pSig)[12]);

    // The close frees everything the handle holds (the sanitizer build
    // reports a leak otherwise): what it allocated and what it received.
    for (uint32_t Size : {8u, 5000u, 70000u})
        ASSERT_NE(nullptr, linx_alloc(pA, Size, 1));
    ASSERT_EQ(0, SendSignal(pB, linx_get_spid(pA), 9, 1));
    ASSERT_EQ(8, linx_receive_w_tmo(pA, &pSig, 1000, nullptr));
    EXPECT_EQ(0, linx_close(pA));
    pA = nullptr;
}

// The descriptor, taken only once signals wait (the bell never rang), is
// readable while any waits, even one a selective receive passed over.
TEST_F(LinxBuffers, SelectionByNumberAndSenderKeepsTheRestInOrder)
{
    const LINX_SPID To = linx_get_spid(pB);
    for (uint32_t SigNo : {1u, 2u, 3u, 2u, 4u}) {
        ASSERT_EQ(0, SendSignal(pA, To, SigNo, SigNo * 10));
    }
    struct pollfd Ready = {linx_get_descriptor(pB), POLLIN, 0};
    EXPECT_EQ(1, poll(&Ready, 1, 0));
    const LINX_SIGSELECT Three[] = {1, 3};
    const LINX_SIGSELECT NotOneOrTwo[] = {(LINX_SIGSELECT)-2, 1, 2};
    const LINX_SIGSELECT Any[] = {0};
    uint32_t Value = 0;
    EXPECT_EQ(3u, ReceiveOne(pB, 0, &Value, nullptr, Three));
    EXPECT_EQ(30u, Value);
    EXPECT_EQ(4u, ReceiveOne(pB, 0, nullptr, nullptr, NotOneOrTwo));
    EXPECT_EQ(0u, ReceiveOne(pB, 0, nullptr, nullptr, NotOneOrTwo));
    EXPECT_EQ(1, poll(&Ready, 1, 0));
    EXPECT_EQ(1u, ReceiveOne(pB, 0, nullptr, nullptr, Any));
    EXPECT_EQ(2u, ReceiveOne(pB, 0));
    EXPECT_EQ(2u, ReceiveOne(pB, 0));
    EXPECT_EQ(0u, ReceiveOne(pB, 0));
    EXPECT_EQ(0, poll(&Ready, 1, 0));

    // Selection by sender.
    LINX *pC = linx_open("buffers-c", 0, nullptr);
    ASSERT_NE(nullptr, pC);
    SendSignal(pA, To, 5, 1);
    EXPECT_EQ(1, poll(&Ready, 1, 1000));
    SendSignal(pC, linx_get_spid(pB), 5, 2);
    union LINX_SIGNAL *pSig = nullptr;
    ASSERT_EQ(8, linx_receive_from(pB, &pSig, 1000, nullptr, linx_get_spid(pC)));
    EXPECT_EQ(2u, ValueOf(pSig));
    linx_free_buf(pB, &pSig);
    EXPECT_EQ(0, linx_receive_from(pB, &pSig, 0, nullptr, linx_get_spid(pC)));
    EXPECT_EQ(nullptr, pSig);
    linx_close(pC);
    EXPECT_EQ(5u, ReceiveOne(pB, 0));
}

// Within the process the receiver gets the sender's buffer, not a copy.
TEST_F(LinxBuffers, SendOptionsSetTheAttributeAndTheSender)
{
    int32_t Options[] = {LINX_SEND_OPT_MULTICAST, 1, 7, 7, LINX_SEND_OPT_END};
    union LINX_SIGNAL *pSig = NewSignal(pA, 1, 1);
    union LINX_SIGNAL *const pSent = pSig;
    ASSERT_EQ(0, linx_send_w_opt(pA, &pSig, linx_get_spid(pA), linx_get_spid(pB), Options));
    EXPECT_EQ(nullptr, pSig);
    ASSERT_EQ(8, linx_receive(pB, &pSig, nullptr));
    EXPECT_EQ(pSent, pSig);
    uint8_t Value = 0;
    EXPECT_EQ(0, linx_sigattr(pB, (const union LINX_SIGNAL **)&pSig, LINX_OS_ATTR_MULTICAST, &Value));
    EXPECT_EQ(1, Value);
    errno = 0;
    EXPECT_EQ(-1, linx_sigattr(pB, (const union LINX_SIGNAL **)&pSig, 2, &Value));
    EXPECT_EQ(EINVAL, errno);
    linx_free_buf(pB, &pSig);

    pSig = NewSignal(pA, 1, 1);
    ASSERT_EQ(0, linx_send_w_s(pA, &pSig, 0x4242, linx_get_spid(pB)));
    ASSERT_EQ(8, linx_receive(pB, &pSig, nullptr));
    EXPECT_EQ(0x4242u, linx_sender(pB, &pSig));
    EXPECT_EQ(0, linx_sigattr(pB, (const union LINX_SIGNAL **)&pSig, LINX_OS_ATTR_MULTICAST, &Value));
    EXPECT_EQ(0xFF, Value);
    linx_free_buf(pB, &pSig);
}

void NoteAlarm(int) {}

// A receive without limit, interrupted by signals of the process, carries on.
TEST_F(LinxBuffers, TimeoutsNewLinkTokensAndAttachesAreWithdrawn)
{
    union LINX_SIGNAL *pSig = NewSignal(pA, 0x77, 5);
    LINX_OSTIMERREF Ref = linx_request_tmo(pA, 300, &pSig);
    EXPECT_NE(0u, Ref);
    EXPECT_EQ(nullptr, pSig);
    struct sigaction Action = {};
    Action.sa_handler = NoteAlarm; // no SA_RESTART: each wait ends with EINTR
    sigaction(SIGALRM, &Action, nullptr);
    struct itimerval Every50ms = {{0, 50000}, {0, 50000}}, Off = {};
    setitimer(ITIMER_REAL, &Every50ms, nullptr);
    ASSERT_EQ(8, linx_receive(pA, &pSig, nullptr));
    setitimer(ITIMER_REAL, &Off, nullptr);
    EXPECT_EQ(0x77u, SigNoOf(pSig));
    EXPECT_EQ(linx_get_spid(pA), linx_sender(pA, &pSig));
    linx_free_buf(pA, &pSig);

    Ref = linx_request_tmo(pA, 10000, nullptr);
    ASSERT_NE(0u, Ref);
    EXPECT_EQ(0, linx_modify_tmo(pA, &Ref, 10));
    EXPECT_NE(0u, Ref);
    EXPECT_EQ(253u, ReceiveOne(pA, 2000)); // the default timeout signal
    ASSERT_EQ(0, linx_hunt(pA, "buffers-b", nullptr));
    EXPECT_EQ(251u, ReceiveOne(pA, 1000)); // the default hunt signal
    EXPECT_EQ(-1, linx_modify_tmo(pA, &Ref, 10)); // fired: no longer known
    EXPECT_EQ(0u, Ref);

    Ref = linx_request_tmo(pA, 30, nullptr);
    EXPECT_EQ(0, linx_cancel_tmo(pA, &Ref));
    EXPECT_EQ(0u, Ref);
    EXPECT_EQ(0u, ReceiveOne(pA, 100));
    EXPECT_EQ(-1, linx_cancel_tmo(pA, &Ref));

    LINX_NLREF Token = linx_request_new_link(pA, 0);
    EXPECT_NE(0u, Token);
    EXPECT_EQ(0, linx_cancel_new_link(pA, &Token));
    EXPECT_EQ(0u, Token);
    EXPECT_EQ(-1, linx_cancel_new_link(pA, &Token));

    LINX_OSATTREF Attach = linx_attach(pA, nullptr, linx_get_spid(pB));
    ASSERT_NE(0u, Attach);
    EXPECT_EQ(0, linx_detach(pA, &Attach));
    EXPECT_EQ(0u, Attach);
    linx_close(pB);
    pB = nullptr;
    EXPECT_EQ(0u, ReceiveOne(pA, 50)) << "a detached attach never fires";
}

TEST_F(LinxBuffers, InformationQueries)
{
    char *pName = nullptr;
    ASSERT_EQ(0, linx_get_name(pA, linx_get_spid(pB), &pName));
    EXPECT_STREQ("buffers-b", pName);
    EXPECT_EQ(0, linx_free_name(pA, &pName));
    EXPECT_EQ(nullptr, pName);
    errno = 0;
    EXPECT_EQ(-1, linx_free_name(pA, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, linx_get_name(pA, 0x7FFFFFF0, &pName));
    EXPECT_EQ(nullptr, pName);

    EXPECT_EQ(getpid(), linx_get_owner(pA, linx_get_spid(pB)));
    EXPECT_EQ(-1, linx_get_owner(pA, 0x7FFFFFF0));
    union LINX_SIGNAL *pSig = NewSignal(pA, 1, 1);
    EXPECT_EQ(-1, linx_send(pA, &pSig, 0x7FFFFFF0));
    EXPECT_EQ(ECONNRESET, errno);
    EXPECT_EQ(nullptr, pSig) << "a failed send takes the buffer too";

    SendSignal(pA, linx_get_spid(pB), 1, 1, 100);
    struct linx_info_stat *pStat = nullptr;
    ASSERT_EQ(0, linx_get_stat(pA, linx_get_spid(pB), &pStat));
    EXPECT_EQ(linx_get_spid(pB), pStat->spid);
    EXPECT_EQ(1u, pStat->queued_signals);
    EXPECT_EQ((uint32_t)getpid(), pStat->owner_pid);
    EXPECT_EQ(0, linx_free_stat(pA, &pStat));
    ASSERT_EQ(0, linx_get_stat(pA, linx_get_spid(pA), &pStat));
    EXPECT_EQ(1u, pStat->sent_signals);
    EXPECT_EQ(100u, pStat->sent_bytes);
    linx_free_stat(pA, &pStat);

    char Version[32] = {};
    EXPECT_EQ(0x02000501, linx_get_version(Version));
    EXPECT_STREQ("2.5.1", Version);
}

} // namespace
