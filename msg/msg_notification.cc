// SPDX-License-Identifier: Apache-2.0
// Notifications: subscriptions to a publisher's user types, made locally or
// by request from another process, and the publishing of a message to every
// subscriber whose range covers its type.
#include "msg_notification.h"

#include <string.h>

#include "msg_dump.h"
#include "msg_main.h"
#include "msg_open_close.h"

namespace {

// Only user types can be subscribed by the publisher's own program.
constexpr uint32_t kFirstNonUserType = MSG_TYPE_USER_MAX + 1;

// Subscriptions one subscriber may hold through requests: another process
// must not grow the publisher's list (and every publish) without bound.
constexpr int32_t kMaxRequestedPerSubscriber = 1024;

// Statuses after which MSG_SendMsg leaves the message with its caller.
bool jSendLeftMessage(MSG_Status Status)
{
    return Status == MSG_ERR_WRONG_PARAMETER || Status == MSG_ERR_NOT_OPEN || Status == MSG_ERR_LOCAL_NOT_FOUND ||
           Status == MSG_ERR_MSG_CORRUPT || Status == MSG_ERR_OWNER_MISMATCH;
}

MSG_Status MSG_RegisterNotification_Private(LocalEndpoint *pLocalEndpoint, uint32_t MsgTypeMin, uint32_t MsgTypeMax,
                                            uint32_t Receiver)
{
    MSG_ASSERT(pLocalEndpoint != NULL);
    MSG_ASSERT(Receiver != 0);
    NtfyEntry *pEntry = (NtfyEntry *)MSG_Malloc(sizeof(NtfyEntry));
    if (pEntry == nullptr)
        return MSG_ERR_MEMORY;
    pEntry->MsgTypeMin = MsgTypeMin;
    pEntry->MsgTypeMax = MsgTypeMax;
    pEntry->Receiver = Receiver;
    pthread_mutex_lock(&pLocalEndpoint->NtfyMutex);
    pEntry->pNext = pLocalEndpoint->pNtfyHead;
    pLocalEndpoint->pNtfyHead = pEntry;
    pthread_mutex_unlock(&pLocalEndpoint->NtfyMutex);
    // The entry stays whatever this returns: the subscription is made, only
    // its supervision may be missing.
    return MSG_NewNamelessRemoteEndpoint(pLocalEndpoint, Receiver);
}

// Unlinks and frees the entries Doomed picks (the first only, when
// bJustOne); returns how many went.
template <typename Predicate> int jRemoveEntries(LocalEndpoint *pEndpoint, Predicate Doomed, bool bJustOne)
{
    int Removed = 0;
    pthread_mutex_lock(&pEndpoint->NtfyMutex);
    for (NtfyEntry **ppLink = &pEndpoint->pNtfyHead; *ppLink != nullptr;) {
        NtfyEntry *pEntry = *ppLink;
        if (!Doomed(*pEntry)) {
            ppLink = &pEntry->pNext;
            continue;
        }
        *ppLink = pEntry->pNext;
        MSG_Free(pEntry);
        if (++Removed == 1 && bJustOne)
            break;
    }
    pthread_mutex_unlock(&pEndpoint->NtfyMutex);
    return Removed;
}

MSG_Status MSG_UnregisterNotification_Private(LocalEndpoint *pLocalEndpoint, uint32_t MsgTypeMin, uint32_t MsgTypeMax,
                                              uint32_t Receiver)
{
    MSG_ASSERT(pLocalEndpoint != NULL);
    MSG_ASSERT(Receiver != 0);
    const int Removed = jRemoveEntries(
        pLocalEndpoint,
        [=](const NtfyEntry &E) {
            return E.MsgTypeMin == MsgTypeMin && E.MsgTypeMax == MsgTypeMax && E.Receiver == Receiver;
        },
        true);
    return Removed != 0 ? MSG_OK : MSG_ERR_NTFY_NOT_FOUND;
}

// Subscriptions live only on public endpoints, whose receive loop
// supervises the subscribers: a private endpoint is no publisher.
LocalEndpoint *jPublisherNamed(const char *pName)
{
    LocalEndpoint *p = MSG_GetLocalEndpoint(pName);
    return p != nullptr && p->Owner == 0 ? p : nullptr;
}

// Entries of the publisher's list that Counted accepts.
template <typename Predicate> int32_t jCountEntries(LocalEndpoint *pEndpoint, Predicate Counted)
{
    int32_t Count = 0;
    pthread_mutex_lock(&pEndpoint->NtfyMutex);
    for (const NtfyEntry *p = pEndpoint->pNtfyHead; p != nullptr; p = p->pNext)
        Count += Counted(*p);
    pthread_mutex_unlock(&pEndpoint->NtfyMutex);
    return Count;
}

// A register request from a subscriber at its limit is refused (201).
MSG_Status jRegisterRequested(LocalEndpoint *pEndpoint, const NtfyReq &Range, uint32_t Receiver)
{
    const int32_t Held = jCountEntries(pEndpoint, [Receiver](const NtfyEntry &E) { return E.Receiver == Receiver; });
    if (Held >= kMaxRequestedPerSubscriber) {
        MSG_LogErrFilter((int)MSG_ERR_MEMORY, __FILE__, __LINE__, "MSG_NotificationReqHandler",
                         MSG_LOG_PREFIX "$func: $err: $plocal, $remote holds %d subscriptions already: request refused\n",
                         MSG_ERR_MEMORY, pEndpoint, Receiver, Held);
        return MSG_ERR_MEMORY;
    }
    return MSG_RegisterNotification_Private(pEndpoint, Range.MsgTypeMin, Range.MsgTypeMax, Receiver);
}

typedef MSG_Status (*SubscriptionStep)(LocalEndpoint *, uint32_t, uint32_t, uint32_t);

// A subscription change made by the publisher's own program, with its
// argument checks and its two lines.
MSG_Status jChangeSubscription(const char *pFunc, SubscriptionStep Step, const char *pName, uint32_t MsgTypeMin,
                               uint32_t MsgTypeMax, uint32_t Receiver)
{
    LocalEndpoint *pPublisher = nullptr;
    MSG_Status Status = MSG_OK;
    if (pName == nullptr || Receiver == 0 || MsgTypeMin > MsgTypeMax || MsgTypeMax >= kFirstNonUserType) {
        Status = MSG_ERR_WRONG_PARAMETER;
    } else if ((pPublisher = jPublisherNamed(pName)) == nullptr) {
        Status = MSG_ERR_LOCAL_NOT_FOUND;
        MSG_LogErrFilter((int)Status, __FILE__, __LINE__, pFunc, MSG_LOG_PREFIX "$func: $err: req $local\n", Status,
                         pName);
    } else {
        Status = Step(pPublisher, MsgTypeMin, MsgTypeMax, Receiver);
    }
    MSG_LogErrFilter((int)Status, __FILE__, __LINE__, pFunc,
                     MSG_LOG_PREFIX "$func: $err: $plocal, $remote, msg types 0x%x-0x%x\n", Status, pPublisher,
                     Receiver, MsgTypeMin, MsgTypeMax);
    return Status;
}

// Asks the publisher RemoteId, on behalf of the named local endpoint, to
// add or remove a subscription.  A request that MSG_SendMsg refused before
// LINX took it is released here, so nothing is left allocated.
MSG_Status MSG_SendNotificationReq(const char *pName, uint32_t MsgTypeMin, uint32_t MsgTypeMax, uint32_t RemoteId,
                                   MSG_Type ReqType)
{
    MSG_Msg *pReq = MSG_AllocMsg_Internal(ReqType, 0, sizeof(NtfyReq));
    if (pReq == nullptr)
        return MSG_ERR_UNKNOWN;
    const NtfyReq Range = {MsgTypeMin, MsgTypeMax};
    memcpy(MSG_GetPayloadMutable(pReq), &Range, sizeof Range);
    const MSG_Status Status = MSG_SendMsg(pName, RemoteId, pReq);
    if (jSendLeftMessage(Status))
        MSG_ReleaseMsg(pReq);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $local, $remote, req type 0x%x, msg types 0x%x-0x%x\n",
                    Status, pName, RemoteId, ReqType, MsgTypeMin, MsgTypeMax);
    return Status;
}

// Sends a clone of pMsg to every subscriber of the publisher whose range
// covers its type, from the thread's endpoint on the publisher's behalf.
// Counts the matches and the copies sent; the status is that of a clone
// failure (which stops the walk), else of the most recent failed send.
MSG_Status jPublish(LocalEndpoint *pPublisher, LocalEndpoint *pMine, const MSG_Msg *pMsg, int *pMatches, int *pSent)
{
    MSG_Status Status = MSG_OK;
    pthread_mutex_lock(&pPublisher->NtfyMutex);
    for (const NtfyEntry *p = pPublisher->pNtfyHead; p != nullptr; p = p->pNext) {
        if (pMsg->MsgType < p->MsgTypeMin || pMsg->MsgType > p->MsgTypeMax)
            continue;
        ++*pMatches;
        MSG_Msg *pClone = nullptr;
        const MSG_Status CloneStatus = MSG_Clone_Private(pMine, pMsg, &pClone);
        if (CloneStatus != MSG_OK) {
            Status = CloneStatus;
            break;
        }
        if (pPublisher->bTelemetry)
            MSG_ResendToGlobalTelemetry(pPublisher->Spid, p->Receiver, pMsg, 0);
        const MSG_Status SendStatus = MSG_SendMsg_Private(pMine, pPublisher->Spid, p->Receiver, &pClone);
        if (SendStatus == MSG_OK)
            ++*pSent;
        else
            Status = SendStatus;
    }
    pthread_mutex_unlock(&pPublisher->NtfyMutex);
    return Status;
}

MSG_Status jSendNotification(const char *pName, const MSG_Msg *pMsg, LocalEndpoint **ppPublisher, int *pMatches,
                             int *pSent)
{
    if (pName == nullptr || pMsg == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    LocalEndpoint *pMine = nullptr;
    const MSG_Status Status = jOpenMyEndpoint(&pMine); // the clones' owner
    if (Status != MSG_OK)
        return Status;
    if ((*ppPublisher = jPublisherNamed(pName)) == nullptr) {
        MSG_LogErrFilter((int)MSG_ERR_LOCAL_NOT_FOUND, __FILE__, __LINE__, "MSG_SendNotification",
                         MSG_LOG_PREFIX "$func: $err: req $local\n", MSG_ERR_LOCAL_NOT_FOUND, pName);
        return MSG_ERR_LOCAL_NOT_FOUND;
    }
    const MSG_Status PublishStatus = jPublish(*ppPublisher, pMine, pMsg, pMatches, pSent);
    return *pMatches == 0 ? MSG_ERR_NTFY_NOT_FOUND : PublishStatus;
}

} // namespace

MSG_Status MSG_RegisterNotification(const char *pName, uint32_t MsgTypeMin, uint32_t MsgTypeMax, uint32_t Receiver)
{
    return jChangeSubscription(__func__, MSG_RegisterNotification_Private, pName, MsgTypeMin, MsgTypeMax, Receiver);
}

MSG_Status MSG_UnregisterNotification(const char *pName, uint32_t MsgTypeMin, uint32_t MsgTypeMax, uint32_t Receiver)
{
    return jChangeSubscription(__func__, MSG_UnregisterNotification_Private, pName, MsgTypeMin, MsgTypeMax, Receiver);
}

MSG_Status MSG_RegisterNotificationRemote(const char *pName, uint32_t MsgTypeMin, uint32_t MsgTypeMax,
                                          uint32_t RemoteId)
{
    return MSG_SendNotificationReq(pName, MsgTypeMin, MsgTypeMax, RemoteId, MSG_NTFY_REQ_REGISTER);
}

MSG_Status MSG_UnregisterNotificationRemote(const char *pName, uint32_t MsgTypeMin, uint32_t MsgTypeMax,
                                            uint32_t RemoteId)
{
    return MSG_SendNotificationReq(pName, MsgTypeMin, MsgTypeMax, RemoteId, MSG_NTFY_REQ_UNREGISTER);
}

MSG_Status MSG_NotificationReqHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg)
{
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(pMsg != NULL);
    const uint32_t Receiver = MSG_GetSender(pMsg);
    MSG_Status Status = MSG_ERR_UNKNOWN;
    NtfyReq Range = {};
    // The request comes from another process: one whose payload cannot hold
    // the range is refused like a request of another type, never read past
    // its end.  (The receive path has set PayloadBytes to what LINX
    // delivered.)
    const bool bWhole = pMsg->PayloadBytes >= (int32_t)sizeof Range;
    if (bWhole)
        memcpy(&Range, MSG_GetPayload(pMsg), sizeof Range);
    if (Receiver == 0 || !bWhole)
        Status = MSG_ERR_UNKNOWN;
    else if (pMsg->MsgType == MSG_NTFY_REQ_REGISTER)
        Status = jRegisterRequested(pEndpoint, Range, Receiver);
    else if (pMsg->MsgType == MSG_NTFY_REQ_UNREGISTER)
        Status = MSG_UnregisterNotification_Private(pEndpoint, Range.MsgTypeMin, Range.MsgTypeMax, Receiver);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, $message\n", Status, pEndpoint, pMsg);
    return Status;
}

MSG_Status MSG_SendNotification(const char *pName, MSG_Msg *pMsg)
{
    LocalEndpoint *pPublisher = nullptr;
    int Matches = 0, Sent = 0;
    const MSG_Status Status = jSendNotification(pName, pMsg, &pPublisher, &Matches, &Sent);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, $message, sent to %d endpoints w/%d errs\n",
                    Status, pPublisher, pMsg, Matches, Matches - Sent);
    if (pMsg != nullptr)
        MSG_ReleaseMsg(pMsg);
    return Status;
}

void jDumpNotifications(LocalEndpoint *pEndpoint)
{
    pthread_mutex_lock(&pEndpoint->NtfyMutex);
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "  Notification::%s\n", pEndpoint->pNtfyHead != nullptr ? "" : " none");
    for (const NtfyEntry *p = pEndpoint->pNtfyHead; p != nullptr; p = p->pNext)
        MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "    {msg types 0x%x-0x%x], remote 0x%x}\n", p->MsgTypeMin, p->MsgTypeMax,
                   p->Receiver);
    pthread_mutex_unlock(&pEndpoint->NtfyMutex);
}

int32_t MSG_CountNotifications_Private(const char *pName)
{
    LocalEndpoint *pEndpoint = MSG_GetLocalEndpoint(pName);
    return pEndpoint != nullptr ? jCountEntries(pEndpoint, [](const NtfyEntry &) { return true; }) : -1;
}

MSG_Status MSG_PurgeNotifications(LocalEndpoint *pEndpoint, uint32_t RemoteId)
{
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(RemoteId != 0);
    jRemoveEntries(pEndpoint, [RemoteId](const NtfyEntry &E) { return E.Receiver == RemoteId; }, false);
    MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: $plocal, $remote\n", 0, pEndpoint, RemoteId);
    return MSG_OK;
}
