// Opening and closing local endpoints.  The first open of the process runs
// MSG_Init.  Opening checks for a name conflict, opens the LINX socket and
// enters the endpoint in the registry; a private endpoint gets a name made
// from its thread and process, so a thread reopens under the same name.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "msg_main.h"
#include "msg_open_close.h"

namespace {

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
    *pPrivateEndpoint = MSG_GetMyEndpoint();
    if (*pPrivateEndpoint != nullptr)
        return MSG_OK;
    const MSG_Status Status = MSG_OpenLocal(nullptr);
    if (Status != MSG_OK)
        return Status;
    *pPrivateEndpoint = MSG_GetMyEndpoint();
    return *pPrivateEndpoint != nullptr ? MSG_OK : MSG_ERR_NOT_OPEN;
}
