// SPDX-License-Identifier: Apache-2.0
// linxd instances joined by links, on this host over Unix sockets and over
// TCP with TLS: hunts across one and two hops, ordered signals and answers,
// signals larger than the far node takes, deaths seen across a link, a
// link cut and its return, and heartbeats.
// (Peers that do not belong are the hostile writers' suite's.)  Every node
// and every endpoint process is a real process.
#include "test_kit.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "link_test_util.h"
#include "linxd_link.h"

namespace {

class LinkedPair : public testing::TestWithParam<bool> {};

// One hop: the new-link signal, a hunt through the link, signals in order
// each way with the right senders, the remote endpoint's close and its
// process's kill -9 both seen by attaches.
TEST_P(LinkedPair, HuntsSignalsAnswersAndDeathsCrossTheLink)
{
    Pair P;
    MakePair(P, GetParam(), GetParam() ? "tcp" : "unix");
    LINX *pClient = OpenOn(P.A, "client");
    ASSERT_NE(nullptr, pClient);
    LINX_NLREF Token = linx_request_new_link(pClient, 0);
    ASSERT_NE(0u, Token);
    union LINX_SIGNAL *pSig = nullptr;
    const LINX_SIGSELECT NewLink[] = {1, LINX_OS_NEW_LINK_SIG};
    ASSERT_GT(linx_receive_w_tmo(pClient, &pSig, 10000, NewLink), 0) << ReadFile(P.A.LogPath);
    const struct linx_new_link *pNew = (const struct linx_new_link *)pSig;
    EXPECT_EQ(Token, pNew->token);
    EXPECT_STREQ("b", pNew->buf + pNew->name);
    linx_free_buf(pClient, &pSig);

    const pid_t Echo = StartEcho(P.B, "alpha");
    const LINX_SPID Alpha = HuntAndWait(pClient, "b/alpha", 10000);
    ASSERT_NE(0u, Alpha) << ReadFile(P.A.LogPath);
    char *pName = nullptr;
    ASSERT_EQ(0, linx_get_name(pClient, Alpha, &pName));
    EXPECT_STREQ("b/alpha", pName);
    linx_free_name(pClient, &pName);
    ASSERT_NE(0u, linx_attach(pClient, nullptr, Alpha));

    constexpr uint32_t kCount = 500;
    for (uint32_t i = 0; i < kCount; i++) {
        int Result; // a full ring refuses at once; it drains as linxd forwards
        while ((Result = SendSignal(pClient, Alpha, kPing, i, i % 7 == 0 ? (i == 7 ? 200000 : 20000) : 8)) == ENOBUFS)
            usleep(1000);
        ASSERT_EQ(0, Result) << strerror(Result);
    }
    for (uint32_t i = 0; i < kCount; i++) {
        uint32_t Value = 0;
        LINX_SPID From = 0;
        ASSERT_EQ(kPing, ReceiveOne(pClient, 10000, &Value, &From)) << i;
        ASSERT_EQ(i + kAnswerOffset, Value);
        ASSERT_EQ(Alpha, From);
    }
    // A process that sends and closes at once loses nothing: its pings, and
    // the stop behind them, all arrive.
    EXPECT_EQ(0, WaitChild(StartChild([&] {
        LINX *pBrief = OpenOn(P.A, "brief");
        const LINX_SPID To = HuntAndWait(pBrief, "b/alpha", 10000);
        for (uint32_t i = 0; i <= 100 && To != 0; i++) {
            if (SendSignal(pBrief, To, i < 100 ? kPing : kStop, i) != 0)
                return 1;
        }
        return linx_close(pBrief) + (To != 0 ? 0 : 2); // at once
    })));
    EXPECT_EQ(0, WaitChild(Echo));
    EXPECT_NE(std::string::npos, ReadFile(P.B.LogPath).find("echo alpha: 600 pings"));
    LINX_SPID Gone = 0;
    EXPECT_EQ(LINX_OS_ATTACH_SIG, ReceiveOne(pClient, 5000, nullptr, &Gone));
    EXPECT_EQ(Alpha, Gone);
    EXPECT_NE(std::string::npos,
              ReadFile(P.B.LogPath).find("echo alpha: first ping from " + P.A.Instance + "/client"));

    const pid_t Doomed = StartEcho(P.B, "beta");
    const LINX_SPID Beta = HuntAndWait(pClient, "b/beta", 10000);
    ASSERT_NE(0u, Beta);
    ASSERT_NE(0u, linx_attach(pClient, nullptr, Beta));
    StopChild(Doomed);
    EXPECT_EQ(LINX_OS_ATTACH_SIG, ReceiveOne(pClient, 5000, nullptr, &Gone));
    EXPECT_EQ(Beta, Gone);
    EXPECT_TRUE(SendSignal(pClient, Beta, kPing, 1) == 0 || errno == ECONNRESET); // never blocks or crashes
    linx_close(pClient);
}

INSTANTIATE_TEST_SUITE_P(Transports, LinkedPair, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool> &Info) { return Info.param ? "Tcp" : "Unix"; });

// A link cut (the peer's linxd killed) fires every attach behind it exactly
// once; the link comes back when the peer does, the standing new-link
// request fires again, and hunts reach the new endpoints.  A peer that
// stops answering (SIGSTOP) is seen down within the link timeout.
TEST(LinkLoss, EveryAttachFiresOnceAndTheLinkReturns)
{
    Pair P;
    MakePair(P, false, "cut");
    LINX *pClient = OpenOn(P.A, "watcher");
    ASSERT_NE(nullptr, pClient);
    ASSERT_NE(0u, linx_request_new_link(pClient, 0));
    const LINX_SIGSELECT NewLink[] = {1, LINX_OS_NEW_LINK_SIG};
    ASSERT_EQ(LINX_OS_NEW_LINK_SIG, ReceiveOne(pClient, 10000, nullptr, nullptr, NewLink));

    std::vector<pid_t> Echoes;
    std::vector<LINX_SPID> Remote;
    for (const char *pName : {"e1", "e2", "e3"}) {
        Echoes.push_back(StartEcho(P.B, pName));
        Remote.push_back(HuntAndWait(pClient, (std::string("b/") + pName).c_str(), 10000));
        ASSERT_NE(0u, Remote.back());
        ASSERT_NE(0u, linx_attach(pClient, nullptr, Remote.back()));
        ASSERT_NE(0u, linx_attach(pClient, nullptr, Remote.back())); // two attaches, two signals
    }
    Kill(P.B);
    std::map<LINX_SPID, int> Fired;
    LINX_SPID From = 0;
    while (ReceiveOne(pClient, 1500, nullptr, &From) == LINX_OS_ATTACH_SIG)
        Fired[From]++;
    for (const LINX_SPID Spid : Remote)
        EXPECT_EQ(2, Fired[Spid]) << std::hex << Spid;
    EXPECT_EQ(3u, Fired.size());
    EXPECT_NE(std::string::npos, ReadFile(P.A.LogPath).find("link b is down"));
    for (const pid_t Echo : Echoes)
        StopChild(Echo);

    Start(P.B);
    EXPECT_EQ(LINX_OS_NEW_LINK_SIG, ReceiveOne(pClient, 10000, nullptr, nullptr, NewLink)) << ReadFile(P.A.LogPath);
    const pid_t Echo = StartEcho(P.B, "e4");
    const LINX_SPID Back = HuntAndWait(pClient, "b/e4", 10000);
    ASSERT_NE(0u, Back);
    ASSERT_NE(0u, linx_attach(pClient, nullptr, Back));

    kill(P.B.Pid, SIGSTOP); // silent, not closed: only the heartbeats tell
    EXPECT_EQ(LINX_OS_ATTACH_SIG, ReceiveOne(pClient, 3000, nullptr, &From));
    EXPECT_EQ(Back, From);
    EXPECT_NE(std::string::npos, ReadFile(P.A.LogPath).find("nothing heard for 900 ms"));
    kill(P.B.Pid, SIGCONT);
    StopChild(Echo);
    linx_close(pClient);
}

// The frames that come from a node over a raw link connection until one
// of type Type; its body ("" when the node closed first).
std::string AwaitFrame(int Fd, uint32_t Type)
{
    std::string In;
    for (char Buffer[4096];;) {
        while (In.size() >= 8) {
            const uint32_t Got = WordOf(In, 0), Bytes = WordOf(In, 1);
            if (In.size() < 8 + Bytes)
                break;
            if (Got == Type)
                return In.substr(8, Bytes);
            In.erase(0, 8 + Bytes);
        }
        const ssize_t Read = read(Fd, Buffer, sizeof Buffer);
        if (Read <= 0)
            return "";
        In.append(Buffer, (size_t)Read);
    }
}

// Three nodes in a row, a - b - c (b's link declared in a configuration
// file), c with queues of 64 KiB: a hunts "b/c/gamma", its signals cross
// two links and the answers come back; c names the sender by the path
// back.  A signal larger than c takes (half its queue) is refused to its
// sender at once, the first to a new endpoint and later ones alike, with a
// line; one that a peer sends anyway is dropped by c with a line, and the
// signals after it arrive.
TEST(LinkHops, TwoHopsThereAndBackWithinWhatTheFarNodeTakes)
{
    Node A, B, C;
    A.Instance = TestInstance() + "-hopa";
    B.Instance = TestInstance() + "-hopb";
    C.Instance = TestInstance() + "-hopc";
    A.Args = {"--link", "b=unix:" + B.Instance};
    const std::string Config = "/tmp/" + B.Instance + ".conf"; // b's link comes from a file
    std::ofstream(Config) << "# b's links\n\nlink c=unix:" << C.Instance << "\n";
    B.Args = {"--config", Config};
    C.Args = {"--queue-bytes", "65536"};
    for (Node *pN : {&C, &B, &A}) {
        unlink(("/tmp/" + pN->Instance + ".log").c_str());
        Start(*pN);
    }
    const pid_t Echo = StartEcho(C, "gamma");
    LINX *pClient = OpenOn(A, "far");
    const LINX_SPID Gamma = HuntAndWait(pClient, "b/c/gamma", 10000);
    ASSERT_NE(0u, Gamma) << ReadFile(A.LogPath) << ReadFile(B.LogPath);
    EXPECT_EQ(EMSGSIZE, SendSignal(pClient, Gamma, kPing, 0, 32769));
    EXPECT_TRUE(AwaitText(A.LogPath, "its signal of 32769 bytes is larger than b/c/gamma takes (32768 bytes)"));
    for (uint32_t i = 0; i < 50; i++) {
        ASSERT_EQ(0, SendSignal(pClient, Gamma, kPing, i));
        uint32_t Value = 0;
        ASSERT_EQ(kPing, ReceiveOne(pClient, 5000, &Value));
        ASSERT_EQ(i + kAnswerOffset, Value);
    }
    EXPECT_EQ(EMSGSIZE, SendSignal(pClient, Gamma, kPing, 0, 32769));
    EXPECT_EQ(0, SendSignal(pClient, Gamma, kPing, 50, 32768));
    EXPECT_EQ(kPing, ReceiveOne(pClient, 5000));
    const int Rogue = ConnectUnixLink(C.Instance);
    const std::string Hunted = Hello("rogue") + Frame((uint32_t)LinkFrame::Hunt, "gamma");
    ASSERT_EQ((ssize_t)Hunted.size(), write(Rogue, Hunted.data(), Hunted.size()));
    const std::string Announced = AwaitFrame(Rogue, (uint32_t)LinkFrame::Endpoint);
    ASSERT_GT(Announced.size(), 12u);
    EXPECT_EQ(32768u, WordOf(Announced, 2)) << "the largest signal gamma takes";
    const std::string Large(40000, 'x'), Ping = Words({kPing, 0});
    const std::string Sent = Frame((uint32_t)LinkFrame::Endpoint, Words({7, 7, 1024}) + "x") +
                             Frame((uint32_t)LinkFrame::Signal, Words({7, WordOf(Announced, 0), 0}) + Large) +
                             Frame((uint32_t)LinkFrame::Signal, Words({7, WordOf(Announced, 0), 0}) + Ping);
    ASSERT_EQ((ssize_t)Sent.size(), write(Rogue, Sent.data(), Sent.size()));
    EXPECT_EQ(kPing, WordOf(AwaitFrame(Rogue, (uint32_t)LinkFrame::Signal), 3)) << "the ping after it was answered";
    EXPECT_NE(std::string::npos,
              ReadFile(C.LogPath).find("dropped a signal of 40000 bytes from link rogue: larger than gamma takes"));
    close(Rogue);
    ASSERT_NE(0u, linx_attach(pClient, nullptr, Gamma));
    ASSERT_EQ(0, SendSignal(pClient, Gamma, kStop, 0));
    EXPECT_EQ(0, WaitChild(Echo));
    EXPECT_EQ(LINX_OS_ATTACH_SIG, ReceiveOne(pClient, 5000));
    EXPECT_NE(std::string::npos,
              ReadFile(C.LogPath).find("echo gamma: first ping from " + B.Instance + "/" + A.Instance + "/far"));
    linx_close(pClient);
}

} // namespace
