#include "linx_test_util.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

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
    const pid_t Child = fork();
    if (Child == 0)
        _exit(Body());
    return Child;
}

int WaitChild(pid_t Child)
{
    int Status = 0;
    while (waitpid(Child, &Status, 0) < 0) {
    }
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
}

std::string LinxdBesideLibrary()
{
    Dl_info Info;
    dladdr((void *)&linx_open, &Info);
    std::string Path = Info.dli_fname;
    return Path.substr(0, Path.rfind('/') + 1) + "linxd";
}

std::vector<pid_t> FindLinxd(const std::string &Instance)
{
    const std::string Wanted = std::string("--instance") + '\0' + Instance + '\0';
    DIR *pProc = opendir("/proc");
    std::vector<pid_t> Found;
    while (struct dirent *pEntry = pProc ? readdir(pProc) : nullptr) {
        const pid_t Pid = atoi(pEntry->d_name);
        if (Pid <= 0)
            continue;
        std::ifstream File("/proc/" + std::string(pEntry->d_name) + "/cmdline");
        const std::string Cmdline((std::istreambuf_iterator<char>(File)), std::istreambuf_iterator<char>());
        if (Cmdline.find("linxd") != std::string::npos && Cmdline.find(Wanted) != std::string::npos)
            Found.push_back(Pid);
    }
    if (pProc)
        closedir(pProc);
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

long RssKiB(pid_t Pid)
{
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    std::string Word;
    while (Status >> Word)
        if (Word == "VmRSS:" && Status >> Word)
            return std::stol(Word);
    return -1;
}
