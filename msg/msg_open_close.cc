// Opening and closing local endpoints.  The first open of the process runs
// MSG_Init.  Opening checks for a name conflict, opens the LINX socket and
// enters the endpoint in the registry; a private endpoint gets a name made
// from its thread and process, so a thread reopens under the same name.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "msg_main.h"
#include "msg_open_close.h"
#include "msg_remote_endpoint.h"

namespace {

constexpr uint32_t kFullPathBytes = 128;

pthread_once_t gInitOnce = PTHREAD_ONCE_INIT;

void jPrivateName(char *pName, size_t Bytes)
{
    snprintf(pName, Bytes, "_%lx_%d_%u", (unsigned long)pthread_self(), (int)getpid(), 0u);
}

} // namespace

MSG_Status MSG_OpenLocal(const char *pEndpointName)
{
    pthread_once(&gInitOnce, MSG_Init);
    MSG_InitMsgInstrument();
    char PrivateName[64];
    const uint32_t bPublic = pEndpointName != nullptr;
    const char *pName = pEndpointName;
    if (!bPublic) {
        jPrivateName(PrivateName, sizeof PrivateName);
        pName = PrivateName;
    }
    LINX *pLinx = nullptr;
    uint32_t Spid = 0;
    MSG_Status Status = MSG_OK;
    if (bPublic ? MSG_GetLocalEndpoint(pName) != nullptr : MSG_GetMyEndpoint() != nullptr) {
        Status = MSG_ERR_NAME_CONFLICT;
    } else if ((pLinx = linx_open(pName, 0, nullptr)) == nullptr) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: linx_open(local ep \"%s\"): "
                   "Did you forget to insmod linx.ko?\n", pName);
        Status = MSG_ERR_LINX;
    } else {
        jWatchForks();
        Spid = linx_get_spid(pLinx);
        LocalEndpoint *pEndpoint = nullptr;
        Status = MSG_AddLocalEndpoint(pName, pLinx, Spid, bPublic, &pEndpoint);
        if (Status != MSG_OK) {
            // Nothing refers to the socket: close it rather than leak it.
            linx_close(pLinx);
            pLinx = nullptr;
            Spid = 0;
        }
        // Telemetry is told of the new endpoint here once it reports openings.
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: local ep \"%s\", bPublic=%d, Linx handle %p, SPID 0x%x\n",
                    Status, pName, (int)bPublic, (void *)pLinx, Spid);
    return Status;
}

MSG_Status MSG_CloseLocal(const char *pEndpointName)
{
    LocalEndpoint *pEndpoint = pEndpointName != nullptr ? MSG_GetLocalEndpoint(pEndpointName) : MSG_GetMyEndpoint();
    MSG_Status Status = MSG_ERR_NOT_OPEN;
    if (pEndpoint != nullptr && pEndpoint->Owner != 0 && !pthread_equal(pEndpoint->Owner, pthread_self())) {
        // Another thread's private endpoint: its owner's current-endpoint
        // slot would be left pointing at a freed record.  Refused.
        Status = MSG_ERR_WRONG_PARAMETER;
    } else if (pEndpoint != nullptr) {
        Status = MSG_DeleteLocalEndpoint(pEndpoint);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: req local ep \"%s\", addr %p\n", Status, pEndpointName,
                    (void *)pEndpoint);
    return Status;
}

uint32_t MSG_IsLocalOpen(const char *pEndpointName)
{
    if (pEndpointName == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    return MSG_GetLocalEndpoint(pEndpointName) != nullptr;
}

MSG_Status MSG_OpenLocalDual(const char *pEndpointName, LocalEndpoint **pPrivateEndpoint,
                             LocalEndpoint **pPublicEndpoint)
{
    const char *pName = pEndpointName;
    MSG_ASSERT(pName != NULL);
    MSG_ASSERT(pPrivateEndpoint != NULL);
    MSG_ASSERT(pPublicEndpoint != NULL);
    *pPublicEndpoint = MSG_GetLocalEndpoint(pName);
    if (*pPublicEndpoint == nullptr)
        return MSG_ERR_NOT_OPEN;
    return jOpenMyEndpoint(pPrivateEndpoint);
}

MSG_Status jOpenMyEndpoint(LocalEndpoint **ppEndpoint)
{
    *ppEndpoint = MSG_GetMyEndpoint();
    if (*ppEndpoint != nullptr)
        return MSG_OK;
    const MSG_Status Status = MSG_OpenLocal(nullptr);
    if (Status != MSG_OK)
        return Status;
    *ppEndpoint = MSG_GetMyEndpoint();
    return *ppEndpoint != nullptr ? MSG_OK : MSG_ERR_NOT_OPEN;
}

MSG_Status MSG_LinxHunt(LocalEndpoint *pEndpoint, const char *pRemoteName, MSG_Type MsgTypeOpen)
{
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(pRemoteName != NULL);
    MSG_ASSERT(MsgTypeOpen >= MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN && MsgTypeOpen <= MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX);
    MSG_Msg *pSignal = nullptr;
    MSG_Status Status = jAllocEventSignal(pEndpoint, MsgTypeOpen, &pSignal);
    if (Status != MSG_OK)
        return Status;
    pthread_mutex_lock(&pEndpoint->LinxMutex);
    const int Result = linx_hunt(pEndpoint->pLinx, pRemoteName, (union LINX_SIGNAL **)&pSignal);
    pthread_mutex_unlock(&pEndpoint->LinxMutex);
    if (Result != 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: $plocal: linx_hunt(Linx handle %p, "
                   "remote ep \"%s\", msg type 0x%x), $errno\n",
                   pEndpoint, (void *)pEndpoint->pLinx, pRemoteName, MsgTypeOpen, Result);
        Status = MSG_ERR_LINX;
    } else {
        MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep \"%s\", msg type 0x%x\n", 0, pEndpoint,
                        pRemoteName, MsgTypeOpen);
    }
    return Status;
}

MSG_Status MSG_OpenCloseHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg)
{
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(pMsg != NULL);
    char Name[kFullPathBytes] = {};
    const uint32_t Sender = MSG_GetSender(pMsg);
    if (Sender == 0)
        return MSG_ERR_UNKNOWN;
    if (pMsg->MsgType % 2 == 0)
        return MSG_SetRemoteStateOpen(pEndpoint, Sender, pMsg->MsgType);
    MSG_Status Status = MSG_SetRemoteStateClosed(pEndpoint, Sender, pMsg->MsgType, Name, sizeof Name);
    if (Status == MSG_OK || Status == MSG_ERR_REMOTE_NOT_FOUND)
        Status = MSG_OK; // the peer's notification subscriptions end here once they exist
    if (Status == MSG_OK && Name[0] != '\0')
        Status = MSG_LinxHunt(pEndpoint, Name, pMsg->MsgType - 1);
    return Status;
}
