// SPDX-License-Identifier: Apache-2.0
// The process's identity: its halvo index from the kernel's command line,
// its pid, and its program name from its own command line.
#include "msg_identity.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "msg_main.h"

pthread_mutex_t TelemetryMutex = PTHREAD_MUTEX_INITIALIZER;
thread_local bool tbHoldsTelemetryMutex = false;

namespace {

constexpr size_t kProgNameBytes = 32;
constexpr size_t kKernelLineBytes = 2048;
constexpr size_t kArgv0Bytes = 64;

struct ProcessInfo {
    std::atomic<uint32_t> Pid{0};       // 0: not loaded; stored last (release)
    std::atomic<int32_t> HalvoIdx{0};   // also written by a failed load
    char ProgName[kProgNameBytes] = {}; // final once Pid is non-zero
};

ProcessInfo gProcessInfo;


// 1 for "ep0" anywhere in the kernel command line, else 2 for "ep1", else 0;
// -1 when the line cannot be read.
int32_t jReadHalvoIdx(void)
{
    FILE *pFile = fopen("/proc/cmdline", "rt");
    if (pFile == nullptr)
        return -1;
    char Line[kKernelLineBytes] = {};
    const bool bRead = fgets(Line, sizeof Line, pFile) != nullptr;
    fclose(pFile);
    if (!bRead)
        return -1;
    if (strstr(Line, "ep0") != nullptr)
        return 1;
    if (strstr(Line, "ep1") != nullptr)
        return 2;
    return 0;
}

// Base name of argv[0], read from the first 63 bytes of the command line.
// Left empty when the file cannot be opened or read.
void jReadProgName(char *pProgName)
{
    const int Fd = open("/proc/self/cmdline", O_RDONLY);
    if (Fd < 0)
        return;
    char Argv0[kArgv0Bytes] = {};
    const ssize_t Got = read(Fd, Argv0, sizeof Argv0); // a failure leaves it zeroed
    (void)Got;
    close(Fd);
    Argv0[kArgv0Bytes - 1] = '\0';
    strncpy(pProgName, MSG_Basename(Argv0), kProgNameBytes - 1);
    pProgName[kProgNameBytes - 1] = '\0';
}

// A forked child is another process: it loads its own identity when next
// asked (no other thread runs in it, so the plain store is safe), and does
// not inherit the mutex held by a thread of its parent.
void jForgetIdentityInChild(void)
{
    pthread_mutex_init(&TelemetryMutex, nullptr);
    gProcessInfo.Pid.store(0, std::memory_order_relaxed);
}

} // namespace

void jLoadProcessInfo(void)
{
    static pthread_once_t Once = PTHREAD_ONCE_INIT;
    pthread_once(&Once, [] { pthread_atfork(nullptr, nullptr, jForgetIdentityInChild); });
    pthread_mutex_lock(&TelemetryMutex);
    if (gProcessInfo.Pid.load(std::memory_order_relaxed) == 0) {
        const int32_t HalvoIdx = jReadHalvoIdx();
        gProcessInfo.HalvoIdx.store(HalvoIdx, std::memory_order_relaxed);
        if (HalvoIdx >= 0) {
            jReadProgName(gProcessInfo.ProgName);
            gProcessInfo.Pid.store((uint32_t)getpid(), std::memory_order_release);
        }
    }
    pthread_mutex_unlock(&TelemetryMutex);
}

MSG_Status MSG_GetProcessInfo(int32_t *pHalvoIdx, uint32_t *pPid, const char **ppProgName)
{
    uint32_t Pid = gProcessInfo.Pid.load(std::memory_order_acquire);
    if (Pid == 0 && !tbHoldsTelemetryMutex) {
        jLoadProcessInfo();
        Pid = gProcessInfo.Pid.load(std::memory_order_acquire);
    }
    if (pHalvoIdx != nullptr)
        *pHalvoIdx = gProcessInfo.HalvoIdx.load(std::memory_order_relaxed);
    if (pPid != nullptr)
        *pPid = Pid;
    // While not loaded the name is empty; handing out a constant then keeps
    // readers away from the buffer a concurrent loader is filling.
    if (ppProgName != nullptr)
        *ppProgName = Pid != 0 ? gProcessInfo.ProgName : "";
    return MSG_OK;
}
