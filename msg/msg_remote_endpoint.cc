// SPDX-License-Identifier: Apache-2.0
// The remote endpoint table of a local endpoint: records, their states and
// open/close type pairs, lookups, and the LINX attach that supervises an
// open peer.
#include "msg_remote_endpoint.h"

#include <stdio.h>
#include <string.h>

#include "msg_dump.h"
#include "msg_main.h"

struct WithdrawnAttach {
    WithdrawnAttach *pNext;
    LINX_OSATTREF Ref;
};

namespace {

constexpr uint32_t kEventSignalSequence = 99999;
constexpr uint32_t kFullPathBytes = 128;

pthread_mutex_t gTypeMutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t gNextOpenCloseType = MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN;

uint32_t MSG_NewOpenCloseTypes()
{
    pthread_mutex_lock(&gTypeMutex);
    const uint32_t Open = gNextOpenCloseType;
    gNextOpenCloseType = jNextOpenCloseType(Open);
    pthread_mutex_unlock(&gTypeMutex);
    return Open;
}

RemoteEndpoint *jNewRecord(const char *pName, uint32_t RemoteId, uint32_t bDelOnClose)
{
    const size_t NameBytes = strlen(pName) + 1;
    RemoteEndpoint *p = (RemoteEndpoint *)MSG_Malloc((uint32_t)(sizeof(RemoteEndpoint) + NameBytes));
    if (p == nullptr)
        return nullptr;
    memcpy(p->Name, pName, NameBytes);
    p->pNext = nullptr;
    p->RemoteId = RemoteId;
    p->NtfyOpen = MSG_NewOpenCloseTypes();
    p->NtfyClose = p->NtfyOpen + 1;
    p->bAttached = 0;
    p->bDelOnClose = bDelOnClose;
    p->AttachRef = 0;
    return p;
}

// A record that is open and not attached yet makes the next
// MSG_AttachAsNeeded walk the table; otherwise it need not, which keeps the
// receive loop's cost per message independent of the table's size.
void jSetAttachPending_NeedsLock(LocalEndpoint *pMyEndpoint, const RemoteEndpoint *p)
{
    if (p->RemoteId != 0 && !p->bAttached)
        pMyEndpoint->bAttachPending = 1;
}

void jInsert_NeedsLock(LocalEndpoint *pMyEndpoint, RemoteEndpoint *p)
{
    p->pNext = pMyEndpoint->pRemoteHead;
    pMyEndpoint->pRemoteHead = p;
    jSetAttachPending_NeedsLock(pMyEndpoint, p);
}

// The link that points at the first record Match accepts, or null.
template <typename Predicate> RemoteEndpoint **jFindLink_NeedsLock(LocalEndpoint *pMyEndpoint, Predicate Match)
{
    for (RemoteEndpoint **ppLink = &pMyEndpoint->pRemoteHead; *ppLink != nullptr; ppLink = &(*ppLink)->pNext)
        if (Match(**ppLink))
            return ppLink;
    return nullptr;
}

RemoteEndpoint *jFindByName_NeedsLock(LocalEndpoint *pMyEndpoint, const char *pName)
{
    RemoteEndpoint **ppLink =
        jFindLink_NeedsLock(pMyEndpoint, [pName](const RemoteEndpoint &R) { return strcmp(R.Name, pName) == 0; });
    return ppLink != nullptr ? *ppLink : nullptr;
}

// Queues the record's attach for detaching.  Without memory for the entry
// the attach stays with LINX, and its close message is absorbed when it
// comes.
void jWithdrawAttach_NeedsLock(LocalEndpoint *pMyEndpoint, RemoteEndpoint *p)
{
    if (p->AttachRef == 0)
        return;
    WithdrawnAttach *pEntry = (WithdrawnAttach *)MSG_Malloc(sizeof(WithdrawnAttach));
    if (pEntry != nullptr) {
        pEntry->Ref = p->AttachRef;
        pEntry->pNext = pMyEndpoint->pWithdrawnHead;
        pMyEndpoint->pWithdrawnHead = pEntry;
    }
    p->AttachRef = 0;
}

void jUnlinkAndFree_NeedsLock(LocalEndpoint *pMyEndpoint, RemoteEndpoint **ppLink)
{
    RemoteEndpoint *p = *ppLink;
    *ppLink = p->pNext;
    jWithdrawAttach_NeedsLock(pMyEndpoint, p);
    MSG_Free(p);
}

// Detaches every withdrawn attach.  One that fired meanwhile is unknown to
// LINX (EINVAL): its close message is already on its way and is absorbed.
void jDetachWithdrawn_NeedsLock(LocalEndpoint *pMyEndpoint)
{
    while (WithdrawnAttach *pEntry = pMyEndpoint->pWithdrawnHead) {
        pMyEndpoint->pWithdrawnHead = pEntry->pNext;
        LINX_OSATTREF Ref = pEntry->Ref;
        MSG_Free(pEntry);
        pthread_mutex_lock(&pMyEndpoint->LinxMutex);
        const int Result = linx_detach(pMyEndpoint->pLinx, &Ref);
        const int Error = errno;
        pthread_mutex_unlock(&pMyEndpoint->LinxMutex);
        if (Result != 0 && Error != EINVAL)
            MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: $plocal: linx_detach(Linx handle %p), "
                       "$errno\n", pMyEndpoint, (void *)pMyEndpoint->pLinx, Error);
    }
}

MSG_Status MSG_LinxAttach(LocalEndpoint *pMyEndpoint, RemoteEndpoint *pRemote)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pRemote != NULL);
    MSG_ASSERT(pRemote->NtfyClose >= MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN && pRemote->NtfyClose <= MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX);
    MSG_Msg *pSignal = nullptr;
    MSG_Status Status = jAllocEventSignal(pMyEndpoint, pRemote->NtfyClose, &pSignal);
    if (Status != MSG_OK)
        return Status;
    pthread_mutex_lock(&pMyEndpoint->LinxMutex);
    const LINX_OSATTREF Ref = linx_attach(pMyEndpoint->pLinx, (union LINX_SIGNAL **)&pSignal, pRemote->RemoteId);
    const int Error = errno;
    pthread_mutex_unlock(&pMyEndpoint->LinxMutex);
    pRemote->AttachRef = Ref; // kept so that a deletion can withdraw it
    if (Ref == 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: $plocal: linx_attach(Linx handle %p, "
                   "msg type 0x%x, remote ep 0x%x/\"%s\"), $errno\n",
                   pMyEndpoint, (void *)pMyEndpoint->pLinx, pRemote->NtfyClose, pRemote->RemoteId, pRemote->Name, Error);
        Status = MSG_ERR_LINX;
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep 0x%x/\"%s\", msg type 0x%x\n", Status,
                    pMyEndpoint, pRemote->RemoteId, pRemote->Name, pRemote->NtfyClose);
    return Status;
}

// Refreshes or creates the record of a peer known by id and attaches to it.
MSG_Status MSG_NewAlreadyOpenRemote(LocalEndpoint *pMyEndpoint, const char *pRemoteName, uint32_t RemoteId,
                                    uint32_t bJustOnce, uint32_t *pNtfyClose)
{
    MSG_Status Status = MSG_OK;
    bool bDropExisting = false;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    RemoteEndpoint *p = jFindByName_NeedsLock(pMyEndpoint, pRemoteName);
    if (p != nullptr) {
        jWithdrawAttach_NeedsLock(pMyEndpoint, p); // its close type is about to change
        p->RemoteId = RemoteId;
        p->NtfyOpen = MSG_NewOpenCloseTypes();
        p->NtfyClose = p->NtfyOpen + 1;
        p->bAttached = 0;
        p->bDelOnClose = bJustOnce;
        Status = MSG_LinxAttach(pMyEndpoint, p);
        p->bAttached = Status == MSG_OK;
        jSetAttachPending_NeedsLock(pMyEndpoint, p);
        bDropExisting = Status != MSG_OK && bJustOnce;
        *pNtfyClose = p->NtfyClose;
    } else if ((p = jNewRecord(pRemoteName, RemoteId, bJustOnce)) == nullptr) {
        Status = MSG_ERR_MEMORY;
    } else {
        Status = MSG_LinxAttach(pMyEndpoint, p);
        *pNtfyClose = p->NtfyClose;
        if (Status == MSG_OK) {
            p->bAttached = 1;
            jInsert_NeedsLock(pMyEndpoint, p);
        } else {
            MSG_Free(p);
        }
    }
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    if (bDropExisting)
        MSG_DeleteRemoteEndpoint(pMyEndpoint, pRemoteName, nullptr, nullptr);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep 0x%x/\"%s\", del on close %d\n", Status,
                    pMyEndpoint, RemoteId, pRemoteName, (int)bJustOnce);
    return Status;
}

} // namespace

MSG_Status jAllocEventSignal(LocalEndpoint *pEndpoint, MSG_Type Type, MSG_Msg **ppSignal)
{
    const MSG_Status Status = MSG_AllocMsg_Private(pEndpoint, Type | MSG_TYPE_USER_SHIFT, MSG_HEADER_BYTES, ppSignal);
    if (Status != MSG_OK)
        return Status;
    (*ppSignal)->Sequence = kEventSignalSequence;
    MSG_AddHashEntry(gpHash, *ppSignal, 0);
    return MSG_OK;
}

MSG_Status MSG_NewRemoteEndpoint(LocalEndpoint *pMyEndpoint, const char *pName, uint32_t bDelOnClose,
                                 uint32_t *pNtfyOpen)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pName != NULL);
    uint32_t RemoteId = 0, NtfyOpen = 0, NtfyClose = 1;
    MSG_Status Status = MSG_OK;
    if (MSG_GetRemoteId_Private(pMyEndpoint, pName, &RemoteId, pNtfyOpen) == MSG_OK) {
        Status = RemoteId != 0 ? MSG_ERR_REMOTE_ALREADY_OPEN : MSG_ERR_OPEN_IN_PROGRESS;
    } else {
        RemoteEndpoint *p = jNewRecord(pName, 0, bDelOnClose);
        if (p == nullptr) {
            Status = MSG_ERR_MEMORY;
        } else {
            NtfyOpen = p->NtfyOpen;
            NtfyClose = p->NtfyClose;
            if (pNtfyOpen != nullptr)
                *pNtfyOpen = NtfyOpen;
            pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
            jInsert_NeedsLock(pMyEndpoint, p);
            pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
        }
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep \"%s\", open msg type 0x%x, close msg type 0x%x, del on close %d\n",
                    Status, pMyEndpoint, pName, NtfyOpen, NtfyClose, (int)bDelOnClose);
    return Status;
}

MSG_Status MSG_NewNamelessRemoteEndpoint(LocalEndpoint *pMyEndpoint, uint32_t RemoteId)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pMyEndpoint->Owner == 0);
    MSG_ASSERT(RemoteId != 0);
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    const bool bKnown =
        jFindLink_NeedsLock(pMyEndpoint, [RemoteId](const RemoteEndpoint &R) { return R.RemoteId == RemoteId; }) != nullptr;
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    if (bKnown)
        return MSG_OK;
    RemoteEndpoint *p = jNewRecord("", RemoteId, 1);
    if (p == nullptr)
        return MSG_ERR_MEMORY;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    jInsert_NeedsLock(pMyEndpoint, p);
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep 0x%x, open msg type 0x%x, close msg type 0x%x, del on close 1\n",
                    0, pMyEndpoint, RemoteId, p->NtfyOpen, p->NtfyClose);
    return MSG_OK;
}

MSG_Status MSG_SetRemoteStateOpen(LocalEndpoint *pMyEndpoint, uint32_t RemoteId, MSG_Type MsgOpen)
{
    if (RemoteId == 0)
        return MSG_ERR_WRONG_PARAMETER;
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_Status Status = MSG_ERR_REMOTE_NOT_FOUND;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    RemoteEndpoint **ppLink = jFindLink_NeedsLock(
        pMyEndpoint, [MsgOpen](const RemoteEndpoint &R) { return R.NtfyOpen == MsgOpen && R.RemoteId == 0; });
    if (ppLink != nullptr) {
        (*ppLink)->RemoteId = RemoteId;
        jSetAttachPending_NeedsLock(pMyEndpoint, *ppLink);
        Status = MSG_OK;
        MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: line $line: remote ep 0x%x/\"%s\"\n", 0, RemoteId,
                        (*ppLink)->Name);
    }
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: $plocal, remote ep 0x%x, open msg type 0x%x, close msg type 0x%x\n",
                    Status, pMyEndpoint, RemoteId, MsgOpen, MsgOpen + 1);
    return Status;
}

MSG_Status MSG_SetRemoteStateClosed(LocalEndpoint *pMyEndpoint, uint32_t RemoteId, MSG_Type MsgClose, char *pNameBuf,
                                    uint32_t NameLen)
{
    if (RemoteId == 0 || pNameBuf == nullptr || NameLen == 0)
        return MSG_ERR_WRONG_PARAMETER;
    MSG_ASSERT(pMyEndpoint != NULL);
    pNameBuf[0] = '\0';
    MSG_Status Status = MSG_ERR_REMOTE_NOT_FOUND;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    RemoteEndpoint **ppLink = jFindLink_NeedsLock(pMyEndpoint, [=](const RemoteEndpoint &R) {
        return R.NtfyClose == MsgClose && R.RemoteId == RemoteId;
    });
    if (ppLink != nullptr) {
        RemoteEndpoint *p = *ppLink;
        p->RemoteId = 0;
        p->bAttached = 0;
        p->AttachRef = 0; // this close message is that attach firing
        MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: line $line: remote ep 0x%x/\"%s\"\n", 0, RemoteId, p->Name);
        if (!p->bDelOnClose && p->Name[0] != '\0')
            snprintf(pNameBuf, NameLen, "%s", p->Name); // hunted again by the caller
        else
            jUnlinkAndFree_NeedsLock(pMyEndpoint, ppLink);
        Status = MSG_OK;
    }
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: $plocal, remote ep 0x%x, open msg type 0x%x, close msg type 0x%x\n",
                    Status, pMyEndpoint, RemoteId, MsgClose - 1, MsgClose);
    return Status;
}

MSG_Status MSG_DeleteRemoteEndpoint(LocalEndpoint *pMyEndpoint, const char *pName, uint32_t *pRemoteId,
                                    uint32_t *pNtfyOpen)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pName != NULL);
    MSG_ASSERT(pName[0] != 0);
    if (pRemoteId != nullptr)
        *pRemoteId = 0;
    if (pNtfyOpen != nullptr)
        *pNtfyOpen = 0;
    MSG_Status Status = MSG_ERR_REMOTE_NOT_FOUND;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    RemoteEndpoint **ppLink =
        jFindLink_NeedsLock(pMyEndpoint, [pName](const RemoteEndpoint &R) { return strcmp(R.Name, pName) == 0; });
    if (ppLink != nullptr) {
        if (pRemoteId != nullptr)
            *pRemoteId = (*ppLink)->RemoteId;
        if (pNtfyOpen != nullptr)
            *pNtfyOpen = (*ppLink)->NtfyOpen;
        jUnlinkAndFree_NeedsLock(pMyEndpoint, ppLink);
        Status = MSG_OK;
    }
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep \"%s\"\n", Status, pMyEndpoint, pName);
    return Status;
}

MSG_Status MSG_GetRemoteId_Private(LocalEndpoint *pMyEndpoint, const char *pName, uint32_t *pRemoteId,
                                   uint32_t *pNtfyOpen)
{
    if (pRemoteId != nullptr)
        *pRemoteId = 0;
    if (pNtfyOpen != nullptr)
        *pNtfyOpen = 0;
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pName != NULL);
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    const RemoteEndpoint *p = jFindByName_NeedsLock(pMyEndpoint, pName);
    if (p != nullptr) {
        if (pRemoteId != nullptr)
            *pRemoteId = p->RemoteId;
        if (pNtfyOpen != nullptr)
            *pNtfyOpen = p->NtfyOpen;
    }
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    return p != nullptr ? MSG_OK : MSG_ERR_REMOTE_NOT_FOUND;
}

void jDumpRemotes(LocalEndpoint *pEndpoint)
{
    pthread_mutex_lock(&pEndpoint->RemoteMutex);
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "  Remote Endpoint:%s\n", pEndpoint->pRemoteHead != nullptr ? "" : " none");
    for (const RemoteEndpoint *p = pEndpoint->pRemoteHead; p != nullptr; p = p->pNext) {
        if (p->RemoteId != 0)
            MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "    {SPID 0x%x, \"%s\"}\n", p->RemoteId, p->Name);
        else
            MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "    {(not connected), \"%s\"}\n", p->Name);
    }
    pthread_mutex_unlock(&pEndpoint->RemoteMutex);
}

uint32_t MSG_GetRemoteId(const char *pLocalName, const char *pRemoteName)
{
    if (pLocalName == nullptr || pRemoteName == nullptr || pRemoteName[0] == '\0')
        return 0;
    char FullPath[kFullPathBytes] = {};
    LocalEndpoint *pEndpoint = nullptr;
    if (MSG_GetFullEndpointPath(pRemoteName, FullPath, sizeof FullPath) != MSG_OK ||
        (pEndpoint = MSG_GetLocalEndpoint(pLocalName)) == nullptr)
        return 0;
    uint32_t RemoteId = 0;
    MSG_GetRemoteId_Private(pEndpoint, FullPath, &RemoteId, nullptr);
    return RemoteId;
}

int32_t MSG_GetRemoteName(LocalEndpoint *pMyEndpoint, uint32_t RemoteId, char *pNameBuf, int32_t NameLen)
{
    if (pMyEndpoint == nullptr || RemoteId == 0 || pNameBuf == nullptr || NameLen <= 0)
        return 0;
    int32_t Written = 0;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    RemoteEndpoint **ppLink = jFindLink_NeedsLock(
        pMyEndpoint, [RemoteId](const RemoteEndpoint &R) { return R.RemoteId == RemoteId && R.Name[0] != '\0'; });
    if (ppLink != nullptr) {
        const int Wanted = snprintf(pNameBuf, (size_t)NameLen, "%s", (*ppLink)->Name);
        Written = Wanted < 0 ? 0 : (Wanted < NameLen ? Wanted : NameLen); // a formatting error reads as none
    }
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    return Written;
}

MSG_Status MSG_AttachAsNeeded(LocalEndpoint *pMyEndpoint)
{
    MSG_Status Result = MSG_OK;
    pthread_mutex_lock(&pMyEndpoint->RemoteMutex);
    jDetachWithdrawn_NeedsLock(pMyEndpoint);
    for (RemoteEndpoint *p = pMyEndpoint->bAttachPending ? pMyEndpoint->pRemoteHead : nullptr; p != nullptr;
         p = p->pNext) {
        if (p->RemoteId == 0 || p->bAttached)
            continue;
        const MSG_Status Status = MSG_LinxAttach(pMyEndpoint, p);
        p->bAttached = 1; // a failed attach is reported once, not retried
        if (Status != MSG_OK)
            Result = Status;
    }
    pMyEndpoint->bAttachPending = 0;
    pthread_mutex_unlock(&pMyEndpoint->RemoteMutex);
    return Result;
}

MSG_Status MSG_RegisterCloseCallback(const char *pLocalName, const char *pRemoteName, uint32_t RemoteId,
                                     MSG_CallbackFunc pFunc, void *pContext, uint32_t bJustOnce)
{
    MSG_Status Status = MSG_OK;
    LocalEndpoint *pEndpoint = nullptr;
    uint32_t NtfyClose = 0;
    // An id of 0 names no peer: refused rather than attached to nothing.
    if (pLocalName == nullptr || pRemoteName == nullptr || pFunc == nullptr || RemoteId == 0)
        Status = MSG_ERR_WRONG_PARAMETER;
    else if ((pEndpoint = MSG_GetLocalEndpoint(pLocalName)) == nullptr)
        Status = MSG_ERR_LOCAL_NOT_FOUND;
    else
        Status = MSG_NewAlreadyOpenRemote(pEndpoint, pRemoteName, RemoteId, bJustOnce, &NtfyClose);
    if (Status == MSG_OK)
        Status = MSG_RegisterCallbackHelper(pLocalName, pFunc, pContext, NtfyClose, NtfyClose, bJustOnce);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $local, remote ep 0x%x/\"%s\", just once=%d\n", Status,
                    pLocalName, RemoteId, pRemoteName, (int)bJustOnce);
    return Status;
}
