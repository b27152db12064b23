// SPDX-License-Identifier: Apache-2.0
#include "msg_test_util.h"

#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

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
    int Ready[2];
    if (pipe(Ready) != 0)
        return -1;
    const pid_t Parent = getpid();
    const pid_t Child = StartChild([&] {
        close(Ready[0]);
        // Parked until killed: a test that fails before killing it must not
        // leave it behind (ctest would wait for it).
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != Parent || MSG_OpenLocal(pName) != 0)
            return 1;
        const char Byte = 1;
        if (write(Ready[1], &Byte, 1) != 1)
            return 2;
        pause();
        return 0;
    });
    close(Ready[1]);
    char Byte = 0;
    const bool bReady = read(Ready[0], &Byte, 1) == 1;
    close(Ready[0]);
    if (!bReady) {
        StopChild(Child);
        return -1;
    }
    return Child;
}

bool Pump(const char *pLocal, int TimeoutMs, const std::function<bool()> &Done)
{
    struct timespec Start;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    while (!Done() && MSG_GetMsecSince(Start) < TimeoutMs) {
        if (MSG_Msg *pMsg = MSG_RecvAnyMsg(pLocal, 20))
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
