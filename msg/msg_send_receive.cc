// SPDX-License-Identifier: Apache-2.0
// Sending and receiving messages, with answers routed back along the
// sender stack.
//
// A send hands the message to LINX with the named endpoint's SPID as the
// reply address; a response (user type with low four bits 1) and no
// receiver goes to the most recent sender, which it pops.  A receive holds
// the endpoint's LinxMutex for its whole wait, first frees the endpoint's
// deferred releases, then takes the signal, makes it this process's
// message (owner, magic, size) and pushes the sender.  Everything in a
// received header came from another process: a signal shorter than the
// header, a full or corrupt sender stack is refused (307, logged, freed);
// a wrong magic or a size that disagrees with LINX is repaired and logged.
// Nothing another process sends can stop this one.
#include <string.h>
#include <time.h>

#include "msg_main.h"
#include "msg_open_close.h"
#include "msg_remote_endpoint.h"

namespace {

constexpr MSG_Type kTypeTelemetryCopy = 0xFF0013; // a telemetry record's copy of a message

bool jIsResponse(MSG_Type Type)
{
    return Type <= MSG_TYPE_USER_MAX && (Type & 0xF) == 1;
}

// The previous sender of a response, popped from its stack (0 when empty).
uint32_t MSG_PopSendStack(MSG_Msg *pMsg)
{
    const uint32_t Size = MSG_GetSendStackSize(pMsg);
    if (Size == 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$func: Send stack underflow: $message\n", pMsg);
        return 0;
    }
    pMsg->SendStackSize = (uint8_t)(Size - 1);
    return pMsg->SendStack[Size - 1];
}

uint32_t MSG_AdjustReceiver(uint32_t Receiver, uint32_t PrevSender, const MSG_Msg *pMsg)
{
    if (Receiver == 0)
        return PrevSender;
    if (Receiver != PrevSender)
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$func: Resp dest $remote != prev sender $remote; $message\n", Receiver,
                   PrevSender, pMsg);
    return Receiver;
}

// Pushes the sender of a received request.  A stack that is full, or whose
// size byte another process corrupted, refuses the message.
MSG_Status MSG_PushSendStack(MSG_Msg *pMsg, uint32_t Sender)
{
    const uint32_t Size = pMsg->SendStackSize;
    const bool bResponse = jIsResponse(pMsg->MsgType & ~MSG_TYPE_USER_SHIFT);
    if (Size > MSG_SEND_STACK_ELEM || (!bResponse && Size == MSG_SEND_STACK_ELEM)) {
        MSG_LOG_OUTCOME(MSG_ERR_MSG_CORRUPT, MSG_LOG_PREFIX "$func: $err: Send stack overflow: $remote, $message\n",
                        MSG_ERR_MSG_CORRUPT, Sender, pMsg);
        return MSG_ERR_MSG_CORRUPT;
    }
    if (!bResponse) {
        pMsg->SendStack[Size] = Sender;
        pMsg->SendStackSize = (uint8_t)(Size + 1);
    }
    return MSG_OK;
}

// Makes a received signal this process's message.  Returns 307 for one
// that cannot be taken as a message; the header is then left alone.
MSG_Status jAdoptReceived(LocalEndpoint *pEndpoint, MSG_Msg *pMsg, int32_t LinxPayload, uint32_t Sender)
{
    if (LinxPayload < 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: $plocal, linx_sigsize(Linx handle %p, "
                   "msg addr %p), $errno\n",
                   pEndpoint, (void *)pEndpoint->pLinx, (void *)pMsg, LinxPayload);
        return MSG_ERR_MSG_CORRUPT;
    }
    pMsg->pOwner = pEndpoint->Token;
    if (pMsg->InUseMagic != MAGIC_NUM_MSG_ALLOC) {
        MSG_LOG_OUTCOME_AS("MSG_RecvMsg_Private", MSG_ERR_MSG_CORRUPT,
                           MSG_LOG_PREFIX "$func: $err: Magic mismatch (0x%x), msg addr %p\n", MSG_ERR_MSG_CORRUPT,
                           pMsg->InUseMagic, (void *)pMsg);
        pMsg->InUseMagic = MAGIC_NUM_MSG_ALLOC;
    }
    if (pMsg->PayloadBytes != LinxPayload) {
        MSG_LOG_OUTCOME_AS("MSG_RecvMsg_Private", MSG_ERR_MSG_CORRUPT,
                           MSG_LOG_PREFIX "$func: $err: Size mismatch (Linx=%d, hdr=%d), msg addr %p\n",
                           MSG_ERR_MSG_CORRUPT, LinxPayload, pMsg->PayloadBytes, (void *)pMsg);
        pMsg->PayloadBytes = LinxPayload;
    }
    return MSG_PushSendStack(pMsg, Sender);
}

// Frees a signal that never became a message, without reading its header.
void jDropSignal(LocalEndpoint *pEndpoint, MSG_Msg **ppMsg)
{
    pthread_mutex_lock(&pEndpoint->LinxMutex);
    linx_free_buf(pEndpoint->pLinx, (union LINX_SIGNAL **)ppMsg);
    pthread_mutex_unlock(&pEndpoint->LinxMutex);
}

struct Deadline {
    bool bTracked;
    int32_t Remaining;
    struct timespec Last;
};

// Counts the time spent since the last call against a positive timeout.
void jSpend(Deadline *pDeadline)
{
    if (!pDeadline->bTracked)
        return;
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    pDeadline->Remaining -= MSG_CalcElapsedMsec(pDeadline->Last, Now);
    pDeadline->Last = Now;
}

// A signal of no type the receive loop knows, from another process: one
// of this library's with an internal type it does not know, or a foreign
// one without the library's mark.
MSG_Status jRefuseUnknown(const LocalEndpoint *pEndpoint, const MSG_Msg *pMsg, bool bMarked, uint32_t Sender)
{
    if (bMarked)
        MSG_LOG_OUTCOME_AS("MSG_RecvAnyMsg", MSG_ERR_UNKNOWN,
                           MSG_LOG_PREFIX "$func: $err: unknown type refused: $plocal, $message\n", MSG_ERR_UNKNOWN,
                           pEndpoint, pMsg);
    else
        MSG_LOG_OUTCOME_AS("MSG_RecvAnyMsg", MSG_ERR_UNKNOWN,
                           MSG_LOG_PREFIX "$func: $err: foreign signal refused: $plocal, signal number 0x%x, size %d, "
                                          "from $remote\n",
                           MSG_ERR_UNKNOWN, pEndpoint, pMsg->MsgType, pMsg->PayloadBytes, Sender);
    return MSG_ERR_UNKNOWN;
}

// An internal message the receive loop consumes itself: a peer's open or
// close, or a notification request; then the internal callbacks of its
// type.  Any other internal type is refused with a line saying so.
MSG_Status jHandleInternal(LocalEndpoint *pEndpoint, MSG_Msg *pMsg, uint32_t Sender)
{
    const MSG_Type Type = pMsg->MsgType;
    MSG_Status Status;
    if (Type >= MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN && Type <= MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX) {
        Status = MSG_OpenCloseHandler(pEndpoint, pMsg);
    } else if (Type == MSG_NTFY_REQ_REGISTER || Type == MSG_NTFY_REQ_UNREGISTER) {
        Status = MSG_NotificationReqHandler(pEndpoint, pMsg);
        if (pEndpoint->bTelemetry)
            MSG_ResendToGlobalTelemetry(Sender, pEndpoint->Spid, pMsg, 1);
    } else {
        return jRefuseUnknown(pEndpoint, pMsg, true, Sender);
    }
    if (Status == MSG_OK)
        Status = MSG_AttachAsNeeded(pEndpoint);
    if (Status == MSG_OK)
        Status = MSG_ProcessCallback_Private(pEndpoint, pMsg, 1);
    return Status;
}

// The telemetry copy of a user message received on the endpoint; the
// collector's own copies (0xFF0013) are never copied again.
void jCopyReceived(const LocalEndpoint *pEndpoint, uint32_t Sender, const MSG_Msg *pMsg)
{
    if (pEndpoint->bTelemetry && pMsg->MsgType != kTypeTelemetryCopy)
        MSG_ResendToGlobalTelemetry(Sender, pEndpoint->Spid, pMsg, 1);
}

} // namespace

MSG_Status MSG_SendMsg_Private(LocalEndpoint *pMyEndpoint, uint32_t ReplyAddr, uint32_t Receiver, MSG_Msg **pMsg)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(ReplyAddr != 0);
    MSG_ASSERT(* pMsg != NULL);
    MSG_ASSERT((* pMsg)->pOwner == pMyEndpoint->Token);
    MSG_Msg *const pSent = *pMsg;
    uint32_t Destination = Receiver;
    if (jIsResponse(pSent->MsgType))
        Destination = MSG_AdjustReceiver(Receiver, MSG_PopSendStack(pSent), pSent);
    pSent->MsgType |= MSG_TYPE_USER_SHIFT;
    if (MSG_UserLogGetFlag() & MSG_USER_LOG_SEND)
        MSG_UserLogSave(pMyEndpoint, ReplyAddr, Destination, pSent);
    MSG_AddHashEntry(gpHash, pSent, 0);

    pthread_mutex_lock(&pMyEndpoint->LinxMutex);
    const int Result = linx_send_w_s(pMyEndpoint->pLinx, (union LINX_SIGNAL **)pMsg, ReplyAddr, Destination);
    const int Error = errno;
    pthread_mutex_unlock(&pMyEndpoint->LinxMutex);
    MSG_Status Status = MSG_OK;
    if (Result != 0 && Error == ECONNRESET) {
        Status = MSG_ERR_CONNECTION_RESET;
    } else if (Result != 0) {
        Status = MSG_ERR_LINX;
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: $plocal, linx_send_w_s(Linx handle %p, "
                   "msg addr %p, reply ep 0x%x, $remote), $errno\n",
                   pMyEndpoint, (void *)pMyEndpoint->pLinx, (void *)pSent, ReplyAddr, Destination, Error);
    }
    if (*pMsg != nullptr)
        MSG_ReleaseMsg_Private(pMyEndpoint, pMsg);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, reply ep 0x%x, $remote, msg addr %p\n", Status,
                    pMyEndpoint, ReplyAddr, Destination, (void *)pSent);
    return Status;
}

MSG_Status MSG_SendMsg(const char *pLocalName, uint32_t Receiver, MSG_Msg *pMsg)
{
    LocalEndpoint *pNamed = nullptr;
    LocalEndpoint *pOwner = nullptr;
    MSG_Status Status = MSG_OK;
    const bool bAddressed = pMsg != nullptr && (Receiver != 0 || pMsg->MsgType > MSG_TYPE_USER_MAX ||
                                                (jIsResponse(pMsg->MsgType) && MSG_GetSender(pMsg) != 0));
    if (pLocalName == nullptr || !bAddressed) {
        Status = MSG_ERR_WRONG_PARAMETER;
        MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: req $local\n", Status, pLocalName);
    } else if ((pOwner = jEndpointOfToken(pMsg->pOwner)) == nullptr) {
        Status = MSG_ERR_MSG_CORRUPT;
        MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: $message\n", Status, pMsg);
    } else if ((pNamed = MSG_GetLocalEndpoint(pLocalName)) == nullptr) {
        Status = MSG_ERR_LOCAL_NOT_FOUND;
        MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: req $local\n", Status, pLocalName);
    } else if (pOwner == pNamed && pNamed->Owner != 0) {
        Status = MSG_ERR_UNKNOWN; // sending on behalf of a private endpoint
        MSG_ReleaseMsg_Private(pNamed, &pMsg);
    } else if (pOwner != pNamed && MSG_GetMyEndpoint() == nullptr) {
        Status = MSG_ERR_NOT_OPEN;
    } else if (pOwner != pNamed && MSG_GetMyEndpoint() != pOwner) {
        Status = MSG_ERR_OWNER_MISMATCH;
        MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: pvt $plocal, but msg owned by $local\n", Status,
                        MSG_GetMyEndpoint(), pOwner->Name);
    } else {
        if (pNamed->bTelemetry)
            MSG_ResendToGlobalTelemetry(pNamed->Spid, Receiver, pMsg, 0);
        MSG_Msg *pSent = pMsg;
        Status = MSG_SendMsg_Private(pOwner, pNamed->Spid, Receiver, &pSent);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: $plocal, $remote, msg addr %p\n", Status, pNamed,
                    Receiver, (void *)pMsg);
    return Status;
}

MSG_Status MSG_RecvMsg_Private(LocalEndpoint *pLocalEndpoint, const uint32_t *pSigSel, int32_t TimeoutMillisec,
                               MSG_Msg **pMsg, uint32_t *pSender)
{
    MSG_ASSERT(pMsg != NULL);
    MSG_ASSERT(pSigSel != NULL);
    MSG_ASSERT(pLocalEndpoint != NULL);
    MSG_ASSERT(TimeoutMillisec >= MSG_TIMEOUT_FOREVER);
    *pMsg = nullptr;
    union LINX_SIGNAL *pSignal = nullptr;
    pthread_mutex_lock(&pLocalEndpoint->LinxMutex);
    MSG_ReleasePendingMsgs_NeedsLock(pLocalEndpoint);
    const int Result = linx_receive_w_tmo(pLocalEndpoint->pLinx, &pSignal, TimeoutMillisec, pSigSel);
    const int Error = errno;
    int32_t LinxPayload = 0;
    uint32_t Sender = 0;
    if (Result > 0) {
        LinxPayload = (int32_t)linx_sigsize(pLocalEndpoint->pLinx, &pSignal) - MSG_HEADER_BYTES;
        Sender = linx_sender(pLocalEndpoint->pLinx, &pSignal);
    }
    pthread_mutex_unlock(&pLocalEndpoint->LinxMutex);
    if (pSender != nullptr)
        *pSender = Sender;

    MSG_Status Status = MSG_OK;
    if (Result == 0) {
        Status = MSG_ERR_RECEIVE_TIMEOUT;
    } else if (Result < 0) {
        Status = MSG_ERR_LINX;
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: $plocal, linx_receive_w_tmo(Linx handle %p, "
                   "timeout %d ms), $errno\n",
                   pLocalEndpoint, (void *)pLocalEndpoint->pLinx, TimeoutMillisec, Error);
    } else {
        MSG_ASSERT(pSignal != NULL);
        *pMsg = (MSG_Msg *)pSignal;
        MSG_ASSERT(pSigSel[0] != 1 || (* pMsg)->MsgType == pSigSel[1]);
        Status = jAdoptReceived(pLocalEndpoint, *pMsg, LinxPayload, Sender);
        if (Status == MSG_OK) {
            MSG_AddHashEntry(gpHash, *pMsg, 1);
            if (MSG_UserLogGetFlag() & MSG_USER_LOG_RECV)
                MSG_UserLogSave(pLocalEndpoint, Sender, pLocalEndpoint->Spid, *pMsg);
        } else if (LinxPayload < 0) {
            jDropSignal(pLocalEndpoint, pMsg);
        }
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $plocal, timeout %d ms, msg addr %p\n", Status, pLocalEndpoint,
                    TimeoutMillisec, (void *)*pMsg);
    if (Status != MSG_OK && *pMsg != nullptr) {
        MSG_ReleaseMsg_Private(pLocalEndpoint, pMsg);
        *pMsg = nullptr;
    }
    return Status;
}

MSG_Msg *MSG_RecvMsg(const char *pLocalName, MSG_Type MsgType, int32_t TimeoutMillisec)
{
    if (MsgType > MSG_TYPE_USER_MAX || TimeoutMillisec < MSG_TIMEOUT_FOREVER || pLocalName == nullptr)
        return nullptr;
    LocalEndpoint *pEndpoint = MSG_GetLocalEndpoint(pLocalName);
    if (pEndpoint == nullptr)
        return nullptr;
    const uint32_t Selection[] = {1, MsgType | MSG_TYPE_USER_SHIFT};
    MSG_Msg *pMsg = nullptr;
    uint32_t Sender = 0;
    if (MSG_RecvMsg_Private(pEndpoint, Selection, TimeoutMillisec, &pMsg, &Sender) != MSG_OK)
        return nullptr;
    MSG_ASSERT(pMsg->MsgType & MSG_TYPE_USER_SHIFT);
    pMsg->MsgType &= ~MSG_TYPE_USER_SHIFT;
    MSG_ASSERT(pMsg->MsgType == MsgType);
    jCopyReceived(pEndpoint, Sender, pMsg);
    return pMsg;
}

MSG_Msg *MSG_RecvAnyMsg(const char *pLocalName, int32_t TimeoutMillisec)
{
    if (pLocalName == nullptr || TimeoutMillisec < MSG_TIMEOUT_FOREVER)
        return nullptr;
    LocalEndpoint *pEndpoint = MSG_GetLocalEndpoint(pLocalName);
    if (pEndpoint == nullptr || pEndpoint->Owner != 0)
        return nullptr;
    Deadline Time = {TimeoutMillisec > 0, TimeoutMillisec, {}};
    clock_gettime(CLOCK_MONOTONIC, &Time.Last);
    static const uint32_t kAnySignal[] = {0};
    do {
        MSG_Msg *pMsg = nullptr;
        uint32_t Sender = 0;
        if (MSG_AttachAsNeeded(pEndpoint) != MSG_OK ||
            MSG_RecvMsg_Private(pEndpoint, kAnySignal, Time.bTracked ? Time.Remaining : TimeoutMillisec, &pMsg,
                                &Sender) != MSG_OK)
            return nullptr;
        // A signal without the mark is not this library's: refused like an
        // unknown internal type.
        const bool bMarked = pMsg->MsgType & MSG_TYPE_USER_SHIFT;
        pMsg->MsgType &= ~MSG_TYPE_USER_SHIFT;
        if (bMarked && pMsg->MsgType <= MSG_TYPE_USER_MAX) {
            jCopyReceived(pEndpoint, Sender, pMsg);
            return pMsg;
        }
        const MSG_Status Status = bMarked ? jHandleInternal(pEndpoint, pMsg, Sender)
                                          : jRefuseUnknown(pEndpoint, pMsg, false, Sender);
        MSG_ReleaseMsg_Private(pEndpoint, &pMsg);
        if (Status != MSG_OK)
            return nullptr;
        jSpend(&Time);
    } while (!Time.bTracked || Time.Remaining > 0);
    return nullptr;
}
