// SPDX-License-Identifier: Apache-2.0
// Callbacks for ranges of message types on a local endpoint.
//
// One list per endpoint, newest first, under its CallbackMutex.  A dispatch
// walks the list under the mutex and collects what matches into a private
// call list (one-shot entries are taken out, persistent ones copied), then
// runs the calls with no lock held, oldest registration first: a callback
// may register, unregister, send and receive, and a concurrent
// unregistration never disturbs a dispatch under way.
#include <string.h>

#include "msg_dump.h"
#include "msg_local_endpoint.h"
#include "msg_main.h"

struct CallbackEntry {
    CallbackEntry *pNext;
    MSG_Callback Callback;
};

namespace {

bool jIsInternal(const MSG_Callback &C)
{
    return C.MsgTypeMin > MSG_TYPE_USER_MAX;
}

bool jSameCallback(const MSG_Callback &A, const MSG_Callback &B)
{
    return A.pFunc == B.pFunc && A.pContext == B.pContext && A.MsgTypeMin == B.MsgTypeMin &&
           A.MsgTypeMax == B.MsgTypeMax && A.bOneShot == B.bOneShot;
}

void jFreeCallList(CallbackEntry *pHead)
{
    while (pHead != nullptr) {
        CallbackEntry *pNext = pHead->pNext;
        MSG_Free(pHead);
        pHead = pNext;
    }
}

// Unlinks and frees every entry of the endpoint's list for which Doomed
// says so (at most one when bJustOne); returns how many went.
template <typename Predicate>
int jRemoveEntries_NeedsLock(LocalEndpoint *pEndpoint, Predicate Doomed, bool bJustOne)
{
    int Removed = 0;
    for (CallbackEntry **ppLink = &pEndpoint->pCallbackHead; *ppLink != nullptr;) {
        CallbackEntry *pEntry = *ppLink;
        if (!Doomed(pEntry->Callback)) {
            ppLink = &pEntry->pNext;
            continue;
        }
        *ppLink = pEntry->pNext;
        MSG_Free(pEntry);
        if (++Removed == 1 && bJustOne)
            break;
    }
    return Removed;
}

} // namespace

void jDumpCallbacks(LocalEndpoint *pEndpoint)
{
    pthread_mutex_lock(&pEndpoint->CallbackMutex);
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "  Callback:%s\n", pEndpoint->pCallbackHead != nullptr ? "" : " none");
    for (const CallbackEntry *p = pEndpoint->pCallbackHead; p != nullptr; p = p->pNext)
        MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "    $callback\n", &p->Callback);
    pthread_mutex_unlock(&pEndpoint->CallbackMutex);
}

MSG_Status MSG_RegisterCallback(const char *pName, const MSG_Callback *pCallback)
{
    MSG_Status Status = MSG_OK;
    LocalEndpoint *pEndpoint = nullptr;
    if (pName == nullptr || pCallback == nullptr || pCallback->pFunc == nullptr ||
        pCallback->MsgTypeMin > pCallback->MsgTypeMax || pCallback->bOneShot > 1) {
        Status = MSG_ERR_WRONG_PARAMETER;
    } else if ((pEndpoint = MSG_GetLocalEndpoint(pName)) == nullptr) {
        Status = MSG_ERR_LOCAL_NOT_FOUND;
    } else {
        CallbackEntry *pEntry = (CallbackEntry *)MSG_Malloc(sizeof(CallbackEntry));
        if (pEntry == nullptr) {
            Status = MSG_ERR_MEMORY;
        } else {
            pEntry->Callback = *pCallback;
            pthread_mutex_lock(&pEndpoint->CallbackMutex);
            pEntry->pNext = pEndpoint->pCallbackHead;
            pEndpoint->pCallbackHead = pEntry;
            pthread_mutex_unlock(&pEndpoint->CallbackMutex);
        }
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $local, $callback\n", Status, pName, pCallback);
    return Status;
}

MSG_Status MSG_RegisterCallbackHelper(const char *pName, MSG_CallbackFunc pFunc, void *pContext,
                                      uint32_t MsgTypeMin, uint32_t MsgTypeMax, uint32_t bOneShot)
{
    const MSG_Callback Callback = {pFunc, pContext, MsgTypeMin, MsgTypeMax, bOneShot};
    return MSG_RegisterCallback(pName, &Callback);
}

MSG_Status MSG_UnregisterCallback(const char *pName, const MSG_Callback *pCallback)
{
    MSG_Status Status = MSG_ERR_WRONG_PARAMETER;
    LocalEndpoint *pEndpoint = nullptr;
    if (pName != nullptr && pCallback != nullptr) {
        pEndpoint = MSG_GetLocalEndpoint(pName);
        Status = MSG_ERR_LOCAL_NOT_FOUND;
    }
    if (pEndpoint != nullptr) {
        pthread_mutex_lock(&pEndpoint->CallbackMutex);
        const int Removed = jRemoveEntries_NeedsLock(
            pEndpoint, [pCallback](const MSG_Callback &C) { return jSameCallback(C, *pCallback); }, true);
        pthread_mutex_unlock(&pEndpoint->CallbackMutex);
        Status = Removed != 0 ? MSG_OK : MSG_ERR_CALLBACK_NOT_FOUND;
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $local, $callback\n", Status, pName, pCallback);
    return Status;
}

MSG_Status MSG_UnregisterCallbackHelper(const char *pName, MSG_CallbackFunc pFunc, void *pContext,
                                        uint32_t MsgTypeMin, uint32_t MsgTypeMax, uint32_t bOneShot)
{
    const MSG_Callback Callback = {pFunc, pContext, MsgTypeMin, MsgTypeMax, bOneShot};
    return MSG_UnregisterCallback(pName, &Callback);
}

MSG_Status MSG_ProcessCallback(const char *pName, MSG_Msg *pMsg)
{
    if (pName == nullptr || pMsg == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    LocalEndpoint *pEndpoint = MSG_GetLocalEndpoint(pName);
    if (pEndpoint == nullptr)
        return MSG_ERR_NOT_OPEN;
    return MSG_ProcessCallback_Private(pEndpoint, pMsg, 0);
}

MSG_Status MSG_ProcessCallback_Private(LocalEndpoint *pEndpoint, MSG_Msg *pMsg, uint32_t bInternal)
{
    MSG_ASSERT(pMsg != NULL);
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(bInternal == !! bInternal);
    const MSG_Type Type = pMsg->MsgType;
    MSG_Status Status = MSG_OK;
    int Matches = 0;
    CallbackEntry *pCalls = nullptr; // newest match last, so the oldest runs first

    pthread_mutex_lock(&pEndpoint->CallbackMutex);
    for (CallbackEntry **ppLink = &pEndpoint->pCallbackHead; *ppLink != nullptr;) {
        CallbackEntry *pEntry = *ppLink;
        const MSG_Callback &C = pEntry->Callback;
        if (jIsInternal(C) != (bInternal != 0) || Type < C.MsgTypeMin || Type > C.MsgTypeMax) {
            ppLink = &pEntry->pNext;
            continue;
        }
        Matches++;
        CallbackEntry *pCall = pEntry;
        if (C.bOneShot) {
            *ppLink = pEntry->pNext; // taken out: runs once, whoever dispatches
        } else {
            ppLink = &pEntry->pNext;
            pCall = (CallbackEntry *)MSG_Malloc(sizeof(CallbackEntry));
            if (pCall == nullptr) {
                Status = MSG_ERR_MEMORY;
                break;
            }
            pCall->Callback = C;
        }
        pCall->pNext = pCalls;
        pCalls = pCall;
    }
    pthread_mutex_unlock(&pEndpoint->CallbackMutex);

    if (Status == MSG_OK) {
        while (pCalls != nullptr) {
            CallbackEntry *pNext = pCalls->pNext;
            pCalls->Callback.pFunc(pCalls->Callback.pContext, pMsg);
            MSG_Free(pCalls);
            pCalls = pNext;
        }
        if (Matches == 0 && Type <= MSG_TYPE_USER_MAX)
            Status = MSG_ERR_CALLBACK_NOT_FOUND;
    }
    jFreeCallList(pCalls);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, bInternal=%d, $message, match=%d\n", Status,
                    pEndpoint, (int)bInternal, pMsg, Matches);
    return Status;
}

MSG_Status MSG_PurgeOpenCloseCallbacks(LocalEndpoint *pLocalEndpoint, MSG_Type MsgOpen)
{
    MSG_ASSERT(pLocalEndpoint != NULL);
    MSG_ASSERT(MsgOpen >= MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN && MsgOpen <= MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX);
    pthread_mutex_lock(&pLocalEndpoint->CallbackMutex);
    jRemoveEntries_NeedsLock(
        pLocalEndpoint,
        [MsgOpen](const MSG_Callback &C) {
            return C.MsgTypeMin == C.MsgTypeMax && (C.MsgTypeMin == MsgOpen || C.MsgTypeMin == MsgOpen + 1);
        },
        false);
    pthread_mutex_unlock(&pLocalEndpoint->CallbackMutex);
    MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: $plocal, open msg type 0x%x, close msg type 0x%x\n", 0,
                    pLocalEndpoint, MsgOpen, MsgOpen + 1);
    return MSG_OK;
}
