#include "msg_test_util.h"

uint32_t FindSpid(const char *pName, int TimeoutMs)
{
    LINX *pLinx = linx_open("spid-finder", 0, nullptr);
    const uint32_t Spid = pLinx != nullptr ? HuntAndWait(pLinx, pName, TimeoutMs) : 0;
    if (pLinx != nullptr)
        linx_close(pLinx);
    return Spid;
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
