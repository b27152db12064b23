// SPDX-License-Identifier: Apache-2.0
// Nodes, linked pairs, echo processes and hand-made link frames for the
// tests that join linxd instances (declared in link_test_util.h).
#include "link_test_util.h"

#include "test_kit.h"

#include <sys/stat.h>

#include "linxd_link.h"
#include "standin/address.h"

Node::~Node()
{
    Kill(*this);
}

void Start(Node &N)
{
    std::vector<std::string> Args = {"--idle-exit", "0", "--config", "/dev/null", "--link-timeout", "900"};
    Args.insert(Args.end(), N.Args.begin(), N.Args.end());
    N.LogPath = "/tmp/" + N.Instance + ".log";
    N.Pid = StartLinxd(N.Instance, Args, N.LogPath, ++N.Starts);
}

void Kill(Node &N)
{
    StopChild(N.Pid);
    N.Pid = -1;
}

LINX *OpenOn(const Node &N, const char *pName)
{
    const std::string Mine = TestInstance();
    setenv("LINXD_INSTANCE", N.Instance.c_str(), 1);
    LINX *pLinx = linx_open(pName, 0, nullptr);
    setenv("LINXD_INSTANCE", Mine.c_str(), 1);
    return pLinx;
}

pid_t StartEcho(const Node &N, const char *pName)
{
    return StartChild([&] {
        const int Log = open(N.LogPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        dup2(Log, 2);
        LINX *pLinx = OpenOn(N, pName);
        for (uint32_t Pings = 0;; Pings++) {
            union LINX_SIGNAL *pSig = nullptr;
            if (pLinx == nullptr || linx_receive_w_tmo(pLinx, &pSig, 20000, nullptr) <= 0)
                return pLinx != nullptr ? linx_close(pLinx) + 1 : 1; // its node went away
            const LINX_SPID From = linx_sender(pLinx, &pSig);
            const uint32_t SigNo = SigNoOf(pSig), Value = ValueOf(pSig);
            linx_free_buf(pLinx, &pSig);
            if (SigNo == kStop) {
                fprintf(stderr, "echo %s: %u pings\n", pName, Pings);
                return linx_close(pLinx);
            }
            char *pFromName = nullptr;
            if (Pings == 0 && linx_get_name(pLinx, From, &pFromName) == 0)
                fprintf(stderr, "echo %s: first ping from %s\n", pName, pFromName);
            linx_free_name(pLinx, &pFromName);
            if (SendSignal(pLinx, From, kPing, Value + kAnswerOffset) != 0 && errno != ECONNRESET)
                return linx_close(pLinx) + 2;
        }
    });
}

std::string MakeSecret(const std::string &Tag)
{
    const std::string Path = "/tmp/" + TestInstance() + "-" + Tag + ".secret";
    unlink(Path.c_str());
    EXPECT_EQ(0, WaitChild(Spawn({LinxdBesideLibrary(), "--make-secret", Path}, "", "")));
    struct stat Stat = {};
    EXPECT_EQ(0, stat(Path.c_str(), &Stat));
    EXPECT_EQ(0600u, Stat.st_mode & 0777);
    return Path;
}

void MakePair(Pair &P, bool bTcp, const std::string &Tag)
{
    P.A.Instance = TestInstance() + "-" + Tag + "a";
    P.B.Instance = TestInstance() + "-" + Tag + "b";
    if (bTcp) {
        const std::string Secret = MakeSecret(Tag);
        const std::string Address = "127.0.0.1:" + std::to_string(FreePort());
        P.B.Args.insert(P.B.Args.end(), {"--secret", Secret, "--listen", "tcp:" + Address});
        P.A.Args.insert(P.A.Args.end(), {"--secret", Secret, "--link", "b=tcp:" + Address});
    } else {
        P.A.Args.insert(P.A.Args.end(), {"--link", "b=unix:" + P.B.Instance});
    }
    unlink(("/tmp/" + P.A.Instance + ".log").c_str());
    unlink(("/tmp/" + P.B.Instance + ".log").c_str());
    Start(P.B);
    Start(P.A);
}

int ConnectUnixLink(const std::string &Instance)
{
    const int Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un Addr;
    connect(Fd, (struct sockaddr *)&Addr, linxd_link_address(Instance.c_str(), &Addr));
    return Fd;
}

std::string Frame(uint32_t Type, const std::string &Body)
{
    uint32_t Header[2] = {Type, (uint32_t)Body.size()};
    return std::string((const char *)Header, sizeof Header) + Body;
}

std::string Words(std::initializer_list<uint32_t> List)
{
    std::string Bytes;
    for (const uint32_t Word : List)
        Bytes.append((const char *)&Word, sizeof Word);
    return Bytes;
}

uint32_t WordOf(const std::string &Bytes, size_t Index)
{
    uint32_t Word = 0;
    if (Bytes.size() >= (Index + 1) * sizeof Word)
        memcpy(&Word, Bytes.data() + Index * sizeof Word, sizeof Word);
    return Word;
}

std::string Hello(const std::string &Node)
{
    return Frame((uint32_t)LinkFrame::Hello, Words({kLinkMagic, kLinkVersion}) + Node);
}

void SendAndAwaitClose(int Fd, const std::string &Bytes)
{
    ASSERT_EQ((ssize_t)Bytes.size(), write(Fd, Bytes.data(), Bytes.size()));
    char Buffer[256];
    while (read(Fd, Buffer, sizeof Buffer) > 0) { // what the node says back, then the end
    }
}
