// SPDX-License-Identifier: Apache-2.0
// The shared helpers of the test programs (declared in test_kit.h): child
// processes, linxd instances, LINX signals and message-layer peers.
#include "test_kit.h"

#include <filesystem>
#include <iterator>
#include <sys/prctl.h>

#include "msg_local_endpoint.h"

namespace {

std::string jMakeInstance()
{
    std::string Name = "t" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Name.c_str(), 1);
    return Name;
}

const std::string gInstance = jMakeInstance();

} // namespace

const std::string &TestInstance()
{
    return gInstance;
}

pid_t StartChild(const std::function<int()> &Body)
{
    fflush(nullptr);
    const pid_t Parent = getpid();
    const pid_t Child = fork();
    if (Child == 0) {
        // A test that fails before it stops its children must not leave
        // them behind: ctest would wait for them.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(getppid() == Parent ? Body() : 1);
    }
    return Child;
}

int WaitChild(pid_t Child)
{
    int Status = 0;
    while (Child > 0 && waitpid(Child, &Status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return Child <= 0 ? -1 : WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
}

int StopChild(pid_t Child, int Signal)
{
    if (Child > 0) // never -1: that would reach every process of the user
        kill(Child, Signal);
    return WaitChild(Child);
}

std::vector<pid_t> FindLinxd(const std::string &Instance)
{
    const std::string Wanted = std::string("--instance") + '\0' + Instance + '\0';
    std::vector<pid_t> Found;
    for (const auto &Entry : std::filesystem::directory_iterator("/proc")) {
        const std::string Cmdline = ReadFile(Entry.path() / "cmdline");
        if (Cmdline.find("linxd") != std::string::npos && Cmdline.find(Wanted) != std::string::npos)
            Found.push_back(atoi(Entry.path().filename().c_str()));
    }
    return Found;
}

union LINX_SIGNAL *NewSignal(LINX *pLinx, uint32_t SigNo, uint32_t Value, uint32_t Size)
{
    union LINX_SIGNAL *pSig = linx_alloc(pLinx, Size, SigNo);
    if (pSig != nullptr && Size > sizeof SigNo)
        memset((char *)pSig + sizeof SigNo, 0, Size - sizeof SigNo);
    if (pSig != nullptr && Size >= 8)
        memcpy((char *)pSig + 4, &Value, sizeof Value);
    return pSig;
}

int SendSignal(LINX *pLinx, LINX_SPID To, uint32_t SigNo, uint32_t Value, uint32_t Size)
{
    union LINX_SIGNAL *pSig = NewSignal(pLinx, SigNo, Value, Size);
    return linx_send(pLinx, &pSig, To) == 0 ? 0 : errno;
}

uint32_t SigNoOf(const union LINX_SIGNAL *pSig)
{
    uint32_t SigNo;
    memcpy(&SigNo, pSig, sizeof SigNo);
    return SigNo;
}

uint32_t ValueOf(const union LINX_SIGNAL *pSig)
{
    uint32_t Value;
    memcpy(&Value, (const char *)pSig + 4, sizeof Value);
    return Value;
}

uint32_t ReceiveOne(LINX *pLinx, int TimeoutMs, uint32_t *pValue, LINX_SPID *pSender,
                    const LINX_SIGSELECT *pSel)
{
    union LINX_SIGNAL *pSig = nullptr;
    if (linx_receive_w_tmo(pLinx, &pSig, TimeoutMs, pSel) <= 0 || pSig == nullptr)
        return 0;
    const uint32_t SigNo = SigNoOf(pSig);
    if (pValue != nullptr)
        *pValue = linx_sigsize(pLinx, &pSig) >= 8 ? ValueOf(pSig) : 0;
    if (pSender != nullptr)
        *pSender = linx_sender(pLinx, &pSig);
    linx_free_buf(pLinx, &pSig);
    return SigNo;
}

LINX_SPID HuntAndWait(LINX *pLinx, const char *pName, int TimeoutMs)
{
    union LINX_SIGNAL *pSig = NewSignal(pLinx, 0x4E7, 0);
    if (linx_hunt(pLinx, pName, &pSig) != 0)
        return 0;
    const LINX_SIGSELECT Sel[] = {1, 0x4E7};
    LINX_SPID Peer = 0;
    return ReceiveOne(pLinx, TimeoutMs, nullptr, &Peer, Sel) == 0x4E7 ? Peer : 0;
}

void InThreads(int Count, const std::function<void(int)> &Body)
{
    std::vector<std::thread> Threads;
    for (int t = 0; t < Count; t++)
        Threads.emplace_back(Body, t);
    for (std::thread &T : Threads)
        T.join();
}

int64_t NowMs()
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec * 1000LL + Now.tv_nsec / 1000000;
}

int RingMappings(pid_t Pid)
{
    std::ifstream Maps("/proc/" + std::to_string(Pid) + "/maps");
    int Count = 0;
    for (std::string Line; std::getline(Maps, Line);)
        Count += Line.find("/memfd:linx-ring") != std::string::npos;
    return Count;
}

bool WaitFor(const std::function<bool()> &Done, int TimeoutMs)
{
    for (int Waited = 0; Waited < TimeoutMs; Waited += 10) {
        if (Done())
            return true;
        usleep(10000);
    }
    return Done();
}

pid_t StartLinxd(const std::string &Instance, const std::vector<std::string> &Args, const std::string &LogPath,
                 int Starts)
{
    std::vector<std::string> Argv = {LinxdBesideLibrary(), "--foreground", "--instance", Instance};
    Argv.insert(Argv.end(), Args.begin(), Args.end());
    if (Starts == 1)
        unlink(LogPath.c_str());
    fflush(nullptr);
    const pid_t Pid = Spawn(Argv, LogPath, LogPath);
    AwaitText(LogPath, "serving", 5000, Starts);
    return Pid;
}

int Refusals(const std::string &Log, const std::string &What, int *pLines)
{
    std::istringstream In(Log);
    int Total = 0;
    *pLines = 0;
    for (std::string Line; std::getline(In, Line);) {
        if (Line.find(What) == std::string::npos)
            continue;
        const size_t More = Line.find(" ... and ");
        Total += More == std::string::npos ? 1 : atoi(Line.c_str() + More + 9);
        ++*pLines;
    }
    return Total;
}

uint32_t FindSpid(const char *pLocal, const char *pName, int TimeoutMs)
{
    uint32_t Spid = 0;
    const MSG_Status Status = MSG_OpenRemoteSync(pLocal, pName, TimeoutMs, &Spid);
    return Status == MSG_ERR_REMOTE_ALREADY_OPEN ? MSG_GetRemoteId(pLocal, pName) : Spid;
}

MSG_Msg *NewMsg(MSG_Type Type, uint32_t Sequence, uint32_t PayloadBytes)
{
    MSG_Msg *pMsg = MSG_AllocMsg(Type, Sequence, PayloadBytes);
    if (pMsg != nullptr)
        memset(MSG_GetPayloadMutable(pMsg), 0, PayloadBytes);
    return pMsg;
}

pid_t StartPeer(const char *pName)
{
    const Pipe Ready(O_NONBLOCK);
    const pid_t Child = StartChild([&] {
        if (MSG_OpenLocal(pName) != 0 || !Ready.Say())
            return 1;
        pause();
        return 0;
    });
    if (!WaitFor([&] { return Ready.Hear(); }, 10000)) {
        StopChild(Child);
        return -1;
    }
    return Child;
}

uint32_t SpidOf(const char *pName)
{
    return MSG_GetLocalEndpoint(pName)->Spid;
}

void SendRaw(LINX *pFrom, LINX_SPID To, const void *pBytes, uint32_t Size)
{
    union LINX_SIGNAL *pSig = linx_alloc(pFrom, Size, 0);
    memcpy(pSig, pBytes, Size);
    linx_send(pFrom, &pSig, To);
}

bool Pump(const char *pLocal, int TimeoutMs, const std::function<bool()> &Done, int StepMs)
{
    struct timespec Start;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    while (!Done() && MSG_GetMsecSince(Start) < TimeoutMs) {
        if (MSG_Msg *pMsg = MSG_RecvAnyMsg(pLocal, StepMs))
            MSG_ReleaseMsg(pMsg);
    }
    return Done();
}

int ServeEcho(const char *pName)
{
    if (MSG_OpenLocal(pName) != 0)
        return 1;
    for (;;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, 10000);
        if (pMsg == nullptr)
            return 2;
        if (MSG_GetType(pMsg) == kQuitType) {
            MSG_ReleaseMsg(pMsg);
            MSG_CloseLocal(pName);
            return 0;
        }
        MSG_SetType(pMsg, MSG_GetType(pMsg) | 1);
        if (MSG_SendMsg(pName, 0, pMsg) != 0)
            return 3;
    }
}

void MessageLayerTest::SetUp()
{
    MSG_DebugSetFlag(0);
    for (const std::string &Name : mNames)
        ASSERT_EQ(0u, MSG_OpenLocal(Name.c_str())) << Name;
    TakeLoggedLines();
}

void MessageLayerTest::TearDown()
{
    for (const std::string &Name : mNames)
        MSG_CloseLocal(Name.c_str());
    MSG_CloseLocal(nullptr);
    MSG_DebugSetFlag(0);
}
