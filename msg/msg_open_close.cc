// SPDX-License-Identifier: Apache-2.0
// Opening and closing local endpoints.  The first open of the process runs
// MSG_Init.  Opening checks for a name conflict, opens the LINX socket and
// enters the endpoint in the registry; a private endpoint gets a name made
// from its thread and process, so a thread reopens under the same name.
//
// Opening and closing remote endpoints.  A peer is found by a LINX hunt
// whose signal comes back as the record's open message; the receive loop
// then attaches to it, and its death comes back as the close message.
// LINX cannot withdraw a hunt: a late hunt answer for a record that is gone
// is absorbed by the handler (105, no callback).  Attaches of deleted
// records are withdrawn by the remote table.  So that a program that opens
// and closes a peer again and again while it is down keeps one hunt pending
// in LINX, not one per try, hunts are reused: a public endpoint remembers
// the hunts it made until they are answered, and an asynchronous open of a
// peer whose hunt is pending waits for that one (its answer opens the
// record of that path, whatever type it was made with); a synchronous open
// that timed out remembers its hunt on the thread's private endpoint, and
// the next synchronous open of the same peer from that thread waits for it.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "msg_main.h"
#include "msg_open_close.h"
#include "msg_remote_endpoint.h"

// A hunt left with LINX (by a timed-out synchronous open, on the private
// endpoint; by a public endpoint, until it is answered); its answer, when
// the peer appears, is a signal of Type (bit 31 set) on that endpoint.
struct PendingHunt {
    PendingHunt *pNext;
    MSG_Type Type;
    char Name[]; // full path of the peer
};

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
        } else {
            MSG_AnnounceLocalOpen(pEndpoint); // a failure is telemetry's, not the opening's
        }
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

namespace {

// The link to the pending hunt for the path, or (pPath null) to the one
// whose answer is of Type; null when there is none.  A private endpoint's
// list is its owner's, a public one's is guarded by its RemoteMutex.
PendingHunt **jFindPendingHunt(LocalEndpoint *pEndpoint, const char *pPath, MSG_Type Type = 0)
{
    for (PendingHunt **ppLink = &pEndpoint->pPendingHuntHead; *ppLink != nullptr; ppLink = &(*ppLink)->pNext)
        if (pPath != nullptr ? strcmp((*ppLink)->Name, pPath) == 0 : (*ppLink)->Type == Type)
            return ppLink;
    return nullptr;
}

// Unlinks the pending hunt jFindPendingHunt finds; null when there is none.
PendingHunt *jTakePendingHunt(LocalEndpoint *pEndpoint, const char *pPath, MSG_Type Type = 0)
{
    PendingHunt **ppLink = jFindPendingHunt(pEndpoint, pPath, Type);
    PendingHunt *p = ppLink != nullptr ? *ppLink : nullptr;
    if (p != nullptr)
        *ppLink = p->pNext;
    return p;
}

// Without memory the hunt is merely not reused.
bool jRememberPendingHunt(LocalEndpoint *pEndpoint, const char *pPath, MSG_Type Type)
{
    const size_t NameBytes = strlen(pPath) + 1;
    PendingHunt *p = (PendingHunt *)MSG_Malloc((uint32_t)(sizeof(PendingHunt) + NameBytes));
    if (p == nullptr)
        return false;
    memcpy(p->Name, pPath, NameBytes);
    p->Type = Type;
    p->pNext = pEndpoint->pPendingHuntHead;
    pEndpoint->pPendingHuntHead = p;
    return true;
}

// Hunts for the peer from the public endpoint, unless a hunt for it made
// there is still pending.  The hunt is remembered before it is made: its
// answer may be handled by the receive loop before this returns.
MSG_Status jHuntFromPublic(LocalEndpoint *pPublic, const char *pPath, MSG_Type NtfyOpen)
{
    pthread_mutex_lock(&pPublic->RemoteMutex);
    const bool bPending = jFindPendingHunt(pPublic, pPath) != nullptr;
    const bool bRemembered = !bPending && jRememberPendingHunt(pPublic, pPath, NtfyOpen);
    pthread_mutex_unlock(&pPublic->RemoteMutex);
    if (bPending) // its answer will do
        return MSG_OK;
    const MSG_Status Status = MSG_LinxHunt(pPublic, pPath, NtfyOpen);
    if (Status != MSG_OK && bRemembered) {
        pthread_mutex_lock(&pPublic->RemoteMutex);
        PendingHunt *pFailed = jTakePendingHunt(pPublic, pPath);
        pthread_mutex_unlock(&pPublic->RemoteMutex);
        MSG_Free(pFailed);
    }
    return Status;
}

// A hunt's answer on a public endpoint opens the record of the path it was
// made for, when one is hunted: the one it was made with, or one opened
// again since, whose type the message then takes so that its callbacks
// run.  Answers nobody waits for any more are absorbed (105).
MSG_Status jHuntAnswered(LocalEndpoint *pEndpoint, uint32_t Sender, MSG_Msg *pMsg)
{
    pthread_mutex_lock(&pEndpoint->RemoteMutex);
    PendingHunt *pHunt = jTakePendingHunt(pEndpoint, nullptr, pMsg->MsgType);
    pthread_mutex_unlock(&pEndpoint->RemoteMutex);
    uint32_t RemoteId = 0;
    MSG_Type NtfyOpen = 0;
    if (pHunt != nullptr) {
        if (MSG_GetRemoteId_Private(pEndpoint, pHunt->Name, &RemoteId, &NtfyOpen) == MSG_OK && RemoteId == 0)
            pMsg->MsgType = NtfyOpen;
        MSG_Free(pHunt);
    }
    return MSG_SetRemoteStateOpen(pEndpoint, Sender, pMsg->MsgType);
}

} // namespace

MSG_Status MSG_OpenCloseHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg)
{
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(pMsg != NULL);
    char Name[kFullPathBytes] = {};
    const uint32_t Sender = MSG_GetSender(pMsg);
    if (Sender == 0)
        return MSG_ERR_UNKNOWN;
    if (pMsg->MsgType % 2 == 0)
        return jHuntAnswered(pEndpoint, Sender, pMsg);
    MSG_Status Status = MSG_SetRemoteStateClosed(pEndpoint, Sender, pMsg->MsgType, Name, sizeof Name);
    if (Status == MSG_OK || Status == MSG_ERR_REMOTE_NOT_FOUND) {
        // Also for a peer the table no longer knows: its subscriptions go.
        MSG_PurgeNotifications(pEndpoint, Sender);
        Status = MSG_OK;
    }
    if (Status == MSG_OK && Name[0] != '\0')
        Status = jHuntFromPublic(pEndpoint, Name, pMsg->MsgType - 1);
    return Status;
}

namespace {

// The named public endpoint and the caller's private one, opened if need
// be: 0, 302, or MSG_OpenLocal's failure.
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

// The named public endpoint whose table a remote open uses, and the
// caller's private endpoint: 302 when the name is not an open public
// endpoint (a private one runs no receive loop to deliver open and close
// messages).
MSG_Status jOpenBoth(const char *pLocalName, LocalEndpoint **ppPublic, LocalEndpoint **ppMine)
{
    const MSG_Status Status = MSG_OpenLocalDual(pLocalName, ppMine, ppPublic);
    if (*ppPublic != nullptr && (*ppPublic)->Owner != 0)
        return MSG_ERR_NOT_OPEN;
    return Status;
}

bool jIsValidOpenCallback(const MSG_Callback *pCallback)
{
    return pCallback->pFunc != nullptr && pCallback->MsgTypeMin == 0 && pCallback->MsgTypeMax == 0 &&
           pCallback->bOneShot <= 1;
}

MSG_Status jRegisterFor(const char *pLocalName, const MSG_Callback *pCallback, MSG_Type Type)
{
    MSG_Callback Copy = *pCallback;
    Copy.MsgTypeMin = Copy.MsgTypeMax = Type;
    return MSG_RegisterCallback(pLocalName, &Copy);
}

// Makes sure a hunt for the peer is pending on the private endpoint and
// gives the type its answer will carry.  A hunt left by an earlier timed-out
// open is reused while unanswered; one already answered tells of an earlier
// appearance of the peer, which may be gone by now, so its answer is
// dropped and the peer hunted afresh.
MSG_Status jHuntFromMine(LocalEndpoint *pMine, const char *pPath, MSG_Type NtfyOpen, MSG_Type *pHuntType)
{
    if (PendingHunt *pOld = jTakePendingHunt(pMine, pPath)) {
        const uint32_t OldAnswer[] = {1, pOld->Type | MSG_TYPE_USER_SHIFT};
        *pHuntType = pOld->Type;
        MSG_Free(pOld);
        MSG_Msg *pStale = nullptr;
        if (MSG_RecvMsg_Private(pMine, OldAnswer, 0, &pStale, nullptr) != MSG_OK)
            return MSG_OK; // still unanswered: wait for it
        MSG_ReleaseMsg_Private(pMine, &pStale);
    }
    *pHuntType = NtfyOpen;
    return MSG_LinxHunt(pMine, pPath, NtfyOpen);
}

// Waits on the private endpoint for the hunt's answer and opens the record
// with the peer's id.  101 on timeout, when the hunt is remembered.
MSG_Status jAwaitPeer(LocalEndpoint *pPublic, LocalEndpoint *pMine, const char *pPath, MSG_Type NtfyOpen,
                      int32_t TimeoutMillisec, uint32_t *pPeer)
{
    MSG_Type HuntType = 0;
    MSG_Status Status = jHuntFromMine(pMine, pPath, NtfyOpen, &HuntType);
    if (Status != MSG_OK)
        return Status;
    const uint32_t sigSelHunt[] = {1, HuntType | MSG_TYPE_USER_SHIFT};
    MSG_Msg *pMsgHunt = nullptr;
    Status = MSG_RecvMsg_Private(pMine, sigSelHunt, TimeoutMillisec, &pMsgHunt, nullptr);
    if (Status == MSG_ERR_RECEIVE_TIMEOUT) {
        jRememberPendingHunt(pMine, pPath, HuntType);
        return MSG_ERR_OPEN_REMOTE_TIMEOUT;
    }
    if (Status != MSG_OK)
        return Status;
    MSG_ASSERT(pMsgHunt->MsgType == sigSelHunt[1]);
    const uint32_t Sender = MSG_GetSender(pMsgHunt);
    Status = MSG_ReleaseMsg_Private(pMine, &pMsgHunt);
    if (Status == MSG_OK && Sender == 0)
        Status = MSG_ERR_UNKNOWN; // an answer without a sender names no peer
    if (Status == MSG_OK)
        Status = MSG_SetRemoteStateOpen(pPublic, Sender, NtfyOpen);
    if (Status == MSG_OK)
        *pPeer = Sender;
    return Status;
}

bool jIsValidAsyncOpen(const MSG_Callback *pOpenCallback, const MSG_Callback *pCloseCallback)
{
    return pOpenCallback != nullptr && jIsValidOpenCallback(pOpenCallback) &&
           (pCloseCallback == nullptr ||
            (jIsValidOpenCallback(pCloseCallback) && pCloseCallback->bOneShot == pOpenCallback->bOneShot));
}

// Enters the record of the peer's full path in the public endpoint's table
// (after both endpoints are known): 306 or 309 leave the record there alone.
MSG_Status jNewRecord(const char *pLocalName, const char *pRemoteName, uint32_t bDelOnClose, char *pPath,
                      LocalEndpoint **ppPublic, LocalEndpoint **ppMine, MSG_Type *pNtfyOpen)
{
    MSG_Status Status = MSG_GetFullEndpointPath(pRemoteName, pPath, kFullPathBytes);
    if (Status == MSG_OK)
        Status = jOpenBoth(pLocalName, ppPublic, ppMine);
    if (Status == MSG_OK)
        Status = MSG_NewRemoteEndpoint(*ppPublic, pPath, bDelOnClose, pNtfyOpen);
    return Status;
}

MSG_Status jOpenRemoteAsync(const char *pLocalName, const char *pRemoteName, const MSG_Callback *pOpenCallback,
                            const MSG_Callback *pCloseCallback)
{
    if (pLocalName == nullptr || pRemoteName == nullptr || !jIsValidAsyncOpen(pOpenCallback, pCloseCallback))
        return MSG_ERR_WRONG_PARAMETER;
    char Path[kFullPathBytes] = {};
    LocalEndpoint *pPublic = nullptr, *pMine = nullptr;
    MSG_Type NtfyOpen = 0;
    MSG_Status Status = jNewRecord(pLocalName, pRemoteName, pOpenCallback->bOneShot, Path, &pPublic, &pMine, &NtfyOpen);
    if (Status != MSG_OK)
        return Status;
    Status = jRegisterFor(pLocalName, pOpenCallback, NtfyOpen);
    if (Status == MSG_OK && pCloseCallback != nullptr)
        Status = jRegisterFor(pLocalName, pCloseCallback, NtfyOpen + 1);
    if (Status == MSG_OK)
        Status = jHuntFromPublic(pPublic, Path, NtfyOpen);
    if (Status != MSG_OK)
        MSG_CloseRemote(pLocalName, Path); // the record and its callbacks
    return Status;
}

MSG_Status jOpenRemoteSync(const char *pLocalName, const char *pRemoteName, int32_t TimeoutMillisec, uint32_t *pPeer)
{
    if (pLocalName == nullptr || pRemoteName == nullptr || TimeoutMillisec < MSG_TIMEOUT_FOREVER)
        return MSG_ERR_WRONG_PARAMETER;
    char Path[kFullPathBytes] = {};
    LocalEndpoint *pPublic = nullptr, *pMine = nullptr;
    MSG_Type NtfyOpen = 0;
    // A synchronously opened record always goes with its peer.
    MSG_Status Status = jNewRecord(pLocalName, pRemoteName, 1, Path, &pPublic, &pMine, &NtfyOpen);
    if (Status != MSG_OK)
        return Status;
    Status = jAwaitPeer(pPublic, pMine, Path, NtfyOpen, TimeoutMillisec, pPeer);
    if (Status != MSG_OK)
        MSG_DeleteRemoteEndpoint(pPublic, Path, nullptr, nullptr);
    return Status;
}

} // namespace

MSG_Status MSG_OpenRemoteAsync(const char *pLocalName, const char *pRemoteName, const MSG_Callback *pOpenCallback,
                               const MSG_Callback *pCloseCallback)
{
    const MSG_Status Status = jOpenRemoteAsync(pLocalName, pRemoteName, pOpenCallback, pCloseCallback);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: local ep \"%s\", remote ep \"%s\", open $callback, close $callback\n",
                    Status, pLocalName, pRemoteName, pOpenCallback, pCloseCallback);
    return Status;
}

MSG_Status MSG_OpenRemoteSync(const char *pLocalName, const char *pRemoteName, int32_t TimeoutMillisec,
                              uint32_t *pRemoteId)
{
    if (pRemoteId != nullptr)
        *pRemoteId = 0;
    uint32_t Peer = 0;
    const MSG_Status Status = jOpenRemoteSync(pLocalName, pRemoteName, TimeoutMillisec, &Peer);
    if (Status == MSG_OK && pRemoteId != nullptr)
        *pRemoteId = Peer;
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: local ep \"%s\", remote ep 0x%x/\"%s\", timeout %d ms\n",
                    Status, pLocalName, Peer, pRemoteName, TimeoutMillisec);
    return Status;
}

MSG_Status MSG_CloseRemote(const char *pLocalName, const char *pRemoteName)
{
    char Path[kFullPathBytes] = {};
    LocalEndpoint *pLocal = nullptr;
    uint32_t RemoteId = 0;
    MSG_Type NtfyOpen = 0;
    MSG_Status Status = MSG_OK;
    if (pLocalName == nullptr || pRemoteName == nullptr || pRemoteName[0] == '\0') {
        Status = MSG_ERR_WRONG_PARAMETER;
    } else if ((pLocal = MSG_GetLocalEndpoint(pLocalName)) == nullptr) {
        Status = MSG_ERR_NOT_OPEN;
        MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: local ep \"%s\"\n", Status, pLocalName);
    } else if ((Status = MSG_GetFullEndpointPath(pRemoteName, Path, sizeof Path)) == MSG_OK &&
               (Status = MSG_DeleteRemoteEndpoint(pLocal, Path, &RemoteId, &NtfyOpen)) == MSG_OK) {
        Status = MSG_PurgeOpenCloseCallbacks(pLocal, NtfyOpen);
        const MSG_Status NtfyStatus = RemoteId != 0 ? MSG_PurgeNotifications(pLocal, RemoteId) : MSG_OK;
        if (Status == MSG_OK)
            Status = NtfyStatus;
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, remote ep \"%s\"\n", Status, pLocal, pRemoteName);
    return Status;
}
