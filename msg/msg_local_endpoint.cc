// SPDX-License-Identifier: Apache-2.0
// The local endpoint registry, the per-thread current endpoint and the
// queries on an endpoint's LINX socket.
#include "msg_local_endpoint.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "linx_module.h"
#include "msg_main.h"

namespace {

pthread_mutex_t gRegistryMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_rwlock_t gCloseGate = PTHREAD_RWLOCK_INITIALIZER; // dumps read, deletion writes
LocalEndpoint *gpRegistryHead = nullptr;
uint32_t gLastToken = 0;        // guarded by gRegistryMutex

pthread_key_t gMyEndpointKey;
std::atomic<bool> gbKeyCreated{false}; // set once by MSG_Init

void MSG_DestroyLocal(void *pValue);

MSG_Status MSG_SetMyEndpoint(LocalEndpoint *pMyEndpoint)
{
    MSG_Status Status = MSG_OK;
    const int Result = gbKeyCreated ? pthread_setspecific(gMyEndpointKey, pMyEndpoint) : EINVAL;
    if (Result != 0) {
        Status = MSG_ERR_SYSTEM;
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: pthread_setspecific(0x%x, %p), $errno\n",
                   (unsigned)gMyEndpointKey, (void *)pMyEndpoint, Result);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal\n", Status, pMyEndpoint);
    return Status;
}

void MSG_DestroyLocal(void *pValue)
{
    LocalEndpoint *pMyEndpoint = (LocalEndpoint *)pValue;
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_DeleteLocalEndpoint(pMyEndpoint);
    MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: local ep addr %p\n", 0, (void *)pMyEndpoint);
}

uint32_t MSG_IsLocalEndpointValid_NeedsLock(const LocalEndpoint *pLocalEndpoint)
{
    MSG_ASSERT(pLocalEndpoint != NULL);
    for (const LocalEndpoint *p = gpRegistryHead; p != nullptr; p = p->pNext)
        if (p == pLocalEndpoint)
            return 1;
    return 0;
}

void jInitMutexes(LocalEndpoint *p)
{
    pthread_mutex_init(&p->LinxMutex, nullptr);
    pthread_mutex_init(&p->PendFreeMutex, nullptr);
    pthread_mutex_init(&p->RemoteMutex, nullptr);
    pthread_mutex_init(&p->CallbackMutex, nullptr);
    pthread_mutex_init(&p->NtfyMutex, nullptr);
}

void jDestroyMutexes(LocalEndpoint *p)
{
    pthread_mutex_destroy(&p->CallbackMutex);
    pthread_mutex_destroy(&p->NtfyMutex);
    pthread_mutex_destroy(&p->RemoteMutex);
    pthread_mutex_destroy(&p->PendFreeMutex);
    pthread_mutex_destroy(&p->LinxMutex);
}

// Frees a singly linked list whose elements begin with their next link.
void jFreeList(void *pHead)
{
    while (pHead != nullptr) {
        void *pNext;
        memcpy(&pNext, pHead, sizeof pNext);
        MSG_Free(pHead);
        pHead = pNext;
    }
}

// The endpoint's lists of plain records (every one but the pending frees,
// which hold LINX buffers).
void jFreeLists(LocalEndpoint *p)
{
    jFreeList(p->pCallbackHead);
    jFreeList(p->pNtfyHead);
    jFreeList(p->pRemoteHead);
    jFreeList(p->pWithdrawnHead);
    jFreeList(p->pPendingHuntHead);
}

// A LINX info request on the endpoint's socket, under its LinxMutex.
int jInfoRequest(LocalEndpoint *p, int32_t Type, void *pRecord)
{
    struct linx_info_rec Info = {Type, pRecord};
    pthread_mutex_lock(&p->LinxMutex);
    const int Result = linx_module_request(linx_get_descriptor(p->pLinx), LINX_IOCTL_INFO, &Info);
    pthread_mutex_unlock(&p->LinxMutex);
    return Result;
}

// A child of fork() does not own its parent's endpoints: their sockets stay
// the parent's.  It forgets them without a word (the log may be locked by
// a thread that no longer exists in the child), starting with an empty
// registry and no current endpoint.  Messages on a forgotten endpoint's
// handle go with the handle.
void jForgetEndpoint(LocalEndpoint *p)
{
    jFreeLists(p);
    jFreeList(p->pPendFreeHead);
    linx_close(p->pLinx);
    MSG_Free(p);
}

constexpr int kMaxForkStages = 4;
const ForkStages *gpForkStages[kMaxForkStages]; // filled once each, before any fork they matter to
std::atomic<int> gForkStageCount{0};

void jForkPrepare()
{
    for (int i = gForkStageCount - 1; i >= 0; i--)
        gpForkStages[i]->pPrepare();
    pthread_rwlock_wrlock(&gCloseGate);
    pthread_mutex_lock(&gRegistryMutex);
}

void jForkParent()
{
    pthread_mutex_unlock(&gRegistryMutex);
    pthread_rwlock_unlock(&gCloseGate);
    for (int i = 0; i < gForkStageCount; i++)
        gpForkStages[i]->pParent();
}

void jForgetParentsEndpoints()
{
    pthread_rwlock_init(&gCloseGate, nullptr);
    pthread_mutex_init(&gRegistryMutex, nullptr);
    LocalEndpoint *p = gpRegistryHead;
    gpRegistryHead = nullptr;
    while (p != nullptr) {
        LocalEndpoint *pNext = p->pNext;
        jForgetEndpoint(p);
        p = pNext;
    }
    if (gbKeyCreated)
        pthread_setspecific(gMyEndpointKey, nullptr);
}

void jForkChild()
{
    jForgetParentsEndpoints();
    for (int i = 0; i < gForkStageCount; i++)
        gpForkStages[i]->pChild();
}

} // namespace

void MSG_Init(void)
{
    MSG_GetProcessInfo(nullptr, nullptr, nullptr);
    const int Result = pthread_key_create(&gMyEndpointKey, MSG_DestroyLocal);
    if (Result != 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: pthread_key_create(%p, %p), $errno\n",
                   (void *)&gMyEndpointKey, (void *)MSG_DestroyLocal, Result);
        return;
    }
    gbKeyCreated = true;
}

void jWatchForks(void)
{
    static pthread_once_t Once = PTHREAD_ONCE_INIT;
    pthread_once(&Once, [] { pthread_atfork(jForkPrepare, jForkParent, jForkChild); });
}

void jAddForkStages(const ForkStages *pStages)
{
    const int Index = gForkStageCount.load();
    MSG_ASSERT(Index < kMaxForkStages);
    gpForkStages[Index] = pStages;
    gForkStageCount.store(Index + 1);
}

LocalEndpoint *MSG_GetMyEndpoint(void)
{
    return gbKeyCreated ? (LocalEndpoint *)pthread_getspecific(gMyEndpointKey) : nullptr;
}

MSG_Status MSG_AddLocalEndpoint(const char *pEndpointName, struct LinxHandle *pLinx, uint32_t Spid,
                                uint32_t bPublic, LocalEndpoint **ppLocalEndpoint)
{
    MSG_ASSERT(pEndpointName != NULL);
    MSG_ASSERT(pLinx != NULL);
    MSG_ASSERT(Spid != 0);
    const size_t NameBytes = strlen(pEndpointName) + 1;
    LocalEndpoint *p = (LocalEndpoint *)MSG_Malloc((uint32_t)(sizeof(LocalEndpoint) + NameBytes));
    MSG_Status Status = MSG_ERR_MEMORY;
    if (p != nullptr) {
        memcpy(p->Name, pEndpointName, NameBytes);
        jInitMutexes(p);
        p->pLinx = pLinx;
        p->Spid = Spid;
        p->bTelemetry = strcmp(pEndpointName, "Telemetry") != 0 && strcmp(pEndpointName, "TelemSender") != 0;
        p->pPendFreeHead = nullptr;
        p->pRemoteHead = nullptr;
        p->pWithdrawnHead = nullptr;
        p->bAttachPending = 0;
        p->pCallbackHead = nullptr;
        p->pNtfyHead = nullptr;
        p->pPendingHuntHead = nullptr;
        p->Owner = 0;
        p->pPrev = nullptr;
        if (!bPublic) {
            p->Owner = pthread_self();
            MSG_SetMyEndpoint(p);
        }
        pthread_mutex_lock(&gRegistryMutex);
        do {
            gLastToken++; // tokens are never reused while the process lives
        } while (gLastToken == 0);
        p->Token = gLastToken;
        p->pNext = gpRegistryHead;
        if (gpRegistryHead != nullptr)
            gpRegistryHead->pPrev = p;
        gpRegistryHead = p;
        pthread_mutex_unlock(&gRegistryMutex);
        if (ppLocalEndpoint != nullptr)
            *ppLocalEndpoint = p;
        Status = MSG_OK;
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $local, Linx handle %p, SPID 0x%x, bPublic=%d\n",
                    Status, pEndpointName, (void *)pLinx, Spid, (int)bPublic);
    return Status;
}

MSG_Status MSG_DeleteLocalEndpoint(LocalEndpoint *pLocalEndpoint)
{
    MSG_ASSERT(pLocalEndpoint != NULL);
    pthread_rwlock_wrlock(&gCloseGate);
    pthread_mutex_lock(&gRegistryMutex);
    if (!MSG_IsLocalEndpointValid_NeedsLock(pLocalEndpoint)) {
        pthread_mutex_unlock(&gRegistryMutex);
        pthread_rwlock_unlock(&gCloseGate);
        return MSG_ERR_NOT_OPEN;
    }
    LocalEndpoint *p = pLocalEndpoint;
    if (p->pPrev != nullptr)
        p->pPrev->pNext = p->pNext;
    else
        gpRegistryHead = p->pNext;
    if (p->pNext != nullptr)
        p->pNext->pPrev = p->pPrev;
    pthread_mutex_unlock(&gRegistryMutex);
    pthread_rwlock_unlock(&gCloseGate);

    jFreeLists(p);
    pthread_mutex_lock(&p->LinxMutex);
    MSG_ReleasePendingMsgs_NeedsLock(p);
    pthread_mutex_unlock(&p->LinxMutex);
    jDestroyMutexes(p);
    if (p->Owner != 0)
        MSG_SetMyEndpoint(nullptr);

    MSG_Status Status = MSG_OK;
    LINX *pLinx = p->pLinx;
    const int Result = linx_close(pLinx);
    if (Result != 0) {
        Status = MSG_ERR_LINX;
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: linx_close(%p), $errno\n",
                   (void *)pLinx, Result);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, Linx handle %p, SPID 0x%x\n", Status, p,
                    (void *)pLinx, p->Spid);
    MSG_Free(p);
    return Status;
}

void jVisitEndpoints(void (*pVisit)(LocalEndpoint *pEndpoint, void *pContext), void *pContext)
{
    pthread_rwlock_rdlock(&gCloseGate);
    pthread_mutex_lock(&gRegistryMutex);
    LocalEndpoint *const pHead = gpRegistryHead;
    pthread_mutex_unlock(&gRegistryMutex);
    for (LocalEndpoint *p = pHead; p != nullptr; p = p->pNext)
        pVisit(p, pContext);
    pthread_rwlock_unlock(&gCloseGate);
}

LocalEndpoint *MSG_GetLocalEndpoint(const char *pName)
{
    MSG_ASSERT(pName != NULL);
    pthread_mutex_lock(&gRegistryMutex);
    LocalEndpoint *p = gpRegistryHead;
    while (p != nullptr && strcmp(p->Name, pName) != 0)
        p = p->pNext;
    pthread_mutex_unlock(&gRegistryMutex);
    return p;
}

int32_t MSG_ForAllLocalEndpoints(MSG_ForAllCallback pCallback, void *pContext)
{
    MSG_ASSERT(pCallback != NULL);
    int32_t Result = 0;
    pthread_mutex_lock(&gRegistryMutex);
    for (LocalEndpoint *p = gpRegistryHead; p != nullptr; p = p->pNext) {
        const int32_t Code = pCallback(pContext, p);
        if (Code != 0)
            Result = Code;
    }
    pthread_mutex_unlock(&gRegistryMutex);
    return Result;
}

uint32_t MSG_IsLocalEndpointValid(const LocalEndpoint *pLocalEndpoint)
{
    pthread_mutex_lock(&gRegistryMutex);
    const uint32_t bValid = MSG_IsLocalEndpointValid_NeedsLock(pLocalEndpoint);
    pthread_mutex_unlock(&gRegistryMutex);
    return bValid;
}

LocalEndpoint *jEndpointOfToken(uint32_t Token)
{
    pthread_mutex_lock(&gRegistryMutex);
    LocalEndpoint *p = gpRegistryHead;
    while (p != nullptr && p->Token != Token)
        p = p->pNext;
    pthread_mutex_unlock(&gRegistryMutex);
    return Token != 0 ? p : nullptr;
}

int MSG_GetLocalFileDesc(const char *pName)
{
    LocalEndpoint *p = pName != nullptr ? MSG_GetLocalEndpoint(pName) : nullptr;
    if (p == nullptr)
        return -1;
    pthread_mutex_lock(&p->LinxMutex);
    const int Fd = linx_get_descriptor(p->pLinx);
    pthread_mutex_unlock(&p->LinxMutex);
    return Fd;
}

MSG_Status MSG_GetEndpointPidName(const char *pName, uint32_t Spid, uint32_t *pPid, char *pNameBuf,
                                  uint32_t NameLen)
{
    if (pName == nullptr || Spid == 0 || pPid == nullptr || pNameBuf == nullptr || NameLen == 0)
        return MSG_ERR_WRONG_PARAMETER;
    LocalEndpoint *p = MSG_GetLocalEndpoint(pName);
    if (p == nullptr)
        return MSG_ERR_LOCAL_NOT_FOUND;
    struct linx_info_owner_rec Owner = {Spid, 0};
    *pPid = jInfoRequest(p, LINX_INFO_OWNER, &Owner) == 0 ? (uint32_t)Owner.pid : 0;
    struct linx_info_name_rec Name = {Spid, (int32_t)NameLen, pNameBuf};
    if (jInfoRequest(p, LINX_INFO_NAME, &Name) != 0)
        return MSG_ERR_SYSTEM;
    pNameBuf[NameLen - 1] = '\0';
    return MSG_OK;
}

int32_t MSG_GetNumMsgsPending(const char *pName, uint32_t Spid)
{
    LocalEndpoint *p = pName != nullptr ? MSG_GetLocalEndpoint(pName) : nullptr;
    if (p == nullptr)
        return -1;
    struct linx_info_recv_queue_rec Queue = {Spid != 0 ? Spid : p->Spid, 0, 0, 0};
    if (jInfoRequest(p, LINX_INFO_RECV_QUEUE, &Queue) != 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: ioctl LINX_IOCTL_INFO\n");
        return -1;
    }
    return (int32_t)Queue.count;
}
