// SPDX-License-Identifier: Apache-2.0
// Messages: the header accessors, allocation, cloning and release.
//
// A message is a LINX signal buffer owned by one local endpoint: the one
// whose handle allocated or received it, named by the owner token in the
// header.  Callers allocate through their thread's private endpoint.  A
// release of a private endpoint's message frees it at once; a release of a
// public endpoint's message is queued on the endpoint's pending-free list
// (under PendFreeMutex only, never LinxMutex, which a receiving thread holds
// while it waits) and freed by the next receive or by the endpoint's close.
#include <stddef.h>
#include <string.h>

#include "msg_local_endpoint.h"
#include "msg_main.h"
#include "msg_open_close.h"

static_assert(offsetof(MSG_Msg, MsgType) == 0, "header layout");
static_assert(offsetof(MSG_Msg, Sequence) == 4, "header layout");
static_assert(offsetof(MSG_Msg, SendStackSize) == 8, "header layout");
static_assert(offsetof(MSG_Msg, ExtraFlags) == 9, "header layout");
static_assert(offsetof(MSG_Msg, SendStack) == 12, "header layout");
static_assert(offsetof(MSG_Msg, pOwner) == 44, "header layout");
static_assert(offsetof(MSG_Msg, InUseMagic) == 48, "header layout");
static_assert(offsetof(MSG_Msg, PayloadBytes) == 52, "header layout");
static_assert(sizeof(MSG_Msg) == 56, "header layout");

struct PendFreeEntry {
    PendFreeEntry *pNext;
    MSG_Msg *pMsg;
};

namespace {

constexpr uint32_t kMaxOwnerNameBytes = 128;

LocalEndpoint *jOwnerOf(const MSG_Msg *pMsg)
{
    return jEndpointOfToken(pMsg->pOwner);
}

bool jIsPending_NeedsLock(const LocalEndpoint *pEndpoint, const MSG_Msg *pMsg)
{
    for (const PendFreeEntry *p = pEndpoint->pPendFreeHead; p != nullptr; p = p->pNext)
        if (p->pMsg == pMsg)
            return true;
    return false;
}

// Queues the release of a public endpoint's message for its next receive.
// A message already queued is refused (307): the drain would otherwise free
// it twice.
MSG_Status MSG_AddPendingFreeMsg(LocalEndpoint *pMyEndpoint, MSG_Msg *pMsg)
{
    PendFreeEntry *pEntry = (PendFreeEntry *)MSG_Malloc(sizeof(PendFreeEntry));
    if (pEntry == nullptr)
        return MSG_ERR_MEMORY;
    pEntry->pMsg = pMsg;
    pthread_mutex_lock(&pMyEndpoint->PendFreeMutex);
    const bool bAlreadyPending = jIsPending_NeedsLock(pMyEndpoint, pMsg);
    if (!bAlreadyPending) {
        pEntry->pNext = pMyEndpoint->pPendFreeHead;
        pMyEndpoint->pPendFreeHead = pEntry;
    }
    pthread_mutex_unlock(&pMyEndpoint->PendFreeMutex);
    const MSG_Status Status = bAlreadyPending ? MSG_ERR_MSG_CORRUPT : MSG_OK;
    if (bAlreadyPending)
        MSG_Free(pEntry);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: line $line: $plocal, msg addr %p\n", Status,
                    pMyEndpoint, (void *)pMsg);
    return Status;
}

MSG_Status jFreeNow(LocalEndpoint *pMyEndpoint, MSG_Msg **pMsg)
{
    MSG_InitMsgInstrument();
    MSG_AddHashEntry(gpHash, *pMsg, 0);
    MSG_LOG_OUTCOME_AS("MSG_ReleaseMsg_Private", MSG_OK, MSG_LOG_PREFIX "$func: $err: line $line: $plocal, $message\n", 0,
                       pMyEndpoint, *pMsg);
    MSG_Msg *const pFreed = *pMsg;
    pthread_mutex_lock(&pMyEndpoint->LinxMutex);
    (*pMsg)->InUseMagic = 0;
    linx_free_buf(pMyEndpoint->pLinx, (union LINX_SIGNAL **)pMsg);
    pthread_mutex_unlock(&pMyEndpoint->LinxMutex);
    MSG_LOG_OUTCOME_AS("MSG_ReleaseMsg_Private", MSG_OK, MSG_LOG_PREFIX "$func: $err: line $line: $plocal, msg addr %p\n",
                       0, pMyEndpoint, (void *)pFreed);
    return MSG_OK;
}

} // namespace

// ---- Header accessors --------------------------------------------------------

MSG_Type MSG_GetType(const MSG_Msg *pMsg)
{
    return pMsg != nullptr ? pMsg->MsgType : 0;
}

MSG_Status MSG_SetType(MSG_Msg *pMsg, MSG_Type Type)
{
    if (pMsg == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    pMsg->MsgType = Type;
    return MSG_OK;
}

uint32_t MSG_GetSequence(const MSG_Msg *pMsg)
{
    return pMsg != nullptr ? pMsg->Sequence : 0;
}

MSG_Status MSG_SetSequence(MSG_Msg *pMsg, uint32_t Sequence)
{
    if (pMsg == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    pMsg->Sequence = Sequence;
    return MSG_OK;
}

const void *MSG_GetPayload(const MSG_Msg *pMsg)
{
    return pMsg != nullptr ? (const void *)(pMsg + 1) : nullptr;
}

void *MSG_GetPayloadMutable(MSG_Msg *pMsg)
{
    return pMsg != nullptr ? (void *)(pMsg + 1) : nullptr;
}

int32_t MSG_GetPayloadBytes(const MSG_Msg *pMsg)
{
    return pMsg != nullptr ? pMsg->PayloadBytes : -(int32_t)MSG_ERR_WRONG_PARAMETER;
}

uint32_t MSG_GetSendStackSize(const MSG_Msg *pMsg)
{
    MSG_ASSERT(pMsg != NULL);
    const uint32_t Val = pMsg->SendStackSize;
    MSG_ASSERT(Val <= MSG_SEND_STACK_ELEM);
    return Val;
}

uint32_t MSG_GetSender(const MSG_Msg *pMsg)
{
    if (pMsg == nullptr)
        return 0;
    const uint32_t Size = MSG_GetSendStackSize(pMsg);
    return Size > 0 ? pMsg->SendStack[Size - 1] : 0;
}

uint32_t MSG_GetOrigSender(const MSG_Msg *pMsg)
{
    if (pMsg == nullptr)
        return 0;
    return MSG_GetSendStackSize(pMsg) > 0 ? pMsg->SendStack[0] : 0;
}

MSG_Status MSG_GetOwnerName(const MSG_Msg *pMsg, char *pName, uint32_t NameBytes)
{
    MSG_Status Status = MSG_OK;
    const LocalEndpoint *pOwner = pMsg != nullptr ? jOwnerOf(pMsg) : nullptr;
    // NameBytes 0 leaves no byte to terminate: refused like a null buffer.
    if (pMsg == nullptr || pName == nullptr || NameBytes == 0) {
        Status = MSG_ERR_WRONG_PARAMETER;
    } else if (pOwner == nullptr) {
        Status = MSG_ERR_MSG_CORRUPT;
    } else if (pOwner->Owner != 0) {
        Status = MSG_ERR_LOCAL_NOT_FOUND; // private endpoints keep their names
    } else {
        NameBytes = NameBytes < kMaxOwnerNameBytes ? NameBytes : kMaxOwnerNameBytes;
        strncpy(pName, pOwner->Name, NameBytes);
        pName[NameBytes - 1] = '\0';
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $message, name bytes %u\n", Status, pMsg, NameBytes);
    return Status;
}

// ---- Allocation ------------------------------------------------------------------

void MSG_InitMsgInstrument(void)
{
    static pthread_mutex_t CreateMutex = PTHREAD_MUTEX_INITIALIZER;
    if (__atomic_load_n(&gpHash, __ATOMIC_ACQUIRE) != nullptr || !(jDebugFlag() & MSG_DEBUG_TRACKER))
        return;
    pthread_mutex_lock(&CreateMutex); // one table, however many threads race here
    if (gpHash == nullptr)
        __atomic_store_n(&gpHash, MSG_CreateHash(1021, 31, 32, 1024), __ATOMIC_RELEASE);
    pthread_mutex_unlock(&CreateMutex);
}

MSG_Status MSG_AllocMsg_Private(LocalEndpoint *pMyEndpoint, MSG_Type MsgType, int32_t MsgBytes,
                                MSG_Msg **pMsgUser)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(MsgBytes >= (int) (sizeof(MSG_Type)));
    // Fewer than 56 bytes could not hold the header written below.
    MSG_ASSERT(MsgBytes >= MSG_HEADER_BYTES);
    MSG_ASSERT(pMsgUser != NULL);
    MSG_InitMsgInstrument();
    pthread_mutex_lock(&pMyEndpoint->LinxMutex);
    MSG_Msg *pMsg = (MSG_Msg *)linx_alloc(pMyEndpoint->pLinx, (LINX_OSBUFSIZE)MsgBytes, MsgType);
    pthread_mutex_unlock(&pMyEndpoint->LinxMutex);
    if (pMsg == nullptr) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: linx_alloc(Linx handle %p, "
                   "msg type 0x%x, size %d), $plocal\n",
                   (void *)pMyEndpoint->pLinx, MsgType, MsgBytes, pMyEndpoint);
        return MSG_ERR_LINX;
    }
    pMsg->Sequence = 0;
    memset(&pMsg->SendStackSize, 0, 4 + sizeof pMsg->SendStack);
    pMsg->InUseMagic = MAGIC_NUM_MSG_ALLOC;
    pMsg->pOwner = pMyEndpoint->Token;
    pMsg->PayloadBytes = MsgBytes - MSG_HEADER_BYTES;
    MSG_AddHashEntry(gpHash, pMsg, 1);
    *pMsgUser = pMsg;
    return MSG_OK;
}

MSG_Msg *MSG_AllocMsg_Internal(MSG_Type MsgType, uint32_t Seq, int32_t PayloadBytes)
{
    LocalEndpoint *pEndpoint = nullptr;
    MSG_Msg *pMsg = nullptr;
    MSG_Status Status = PayloadBytes < 0 || PayloadBytes > INT32_MAX - MSG_HEADER_BYTES
                            ? MSG_ERR_WRONG_PARAMETER
                            : jOpenMyEndpoint(&pEndpoint);
    if (Status == MSG_OK)
        Status = MSG_AllocMsg_Private(pEndpoint, MsgType, PayloadBytes + MSG_HEADER_BYTES, &pMsg);
    if (Status == MSG_OK) {
        pMsg->Sequence = Seq;
        if (jDebugFlag() & MSG_DEBUG_FILL_PAYLOAD)
            memset(pMsg + 1, 0xCC, (size_t)PayloadBytes);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: msg type 0x%x, seq %u, size %d, $plocal, msg addr %p\n",
                    Status, MsgType, Seq, PayloadBytes, pEndpoint, (void *)pMsg);
    return pMsg;
}

MSG_Msg *MSG_AllocMsg(MSG_Type MsgType, uint32_t Seq, int32_t PayloadBytes)
{
    if (MsgType > MSG_TYPE_USER_MAX) {
        MSG_LOG_OUTCOME(MSG_ERR_WRONG_PARAMETER, MSG_LOG_PREFIX "$func: $err: msg type 0x%x, seq %u, size %d\n",
                        MSG_ERR_WRONG_PARAMETER, MsgType, Seq, PayloadBytes);
        return nullptr;
    }
    return MSG_AllocMsg_Internal(MsgType, Seq, PayloadBytes);
}

MSG_Msg *MSG_AllocMsgCopyHdr(const MSG_Msg *pOrig, MSG_Type MsgType, int32_t PayloadBytes)
{
    MSG_Msg *pMsg = pOrig != nullptr ? MSG_AllocMsg(MsgType, pOrig->Sequence, PayloadBytes) : nullptr;
    if (pMsg == nullptr) {
        MSG_LOG_OUTCOME(MSG_ERR_WRONG_PARAMETER, MSG_LOG_PREFIX "$func: $err: msg type 0x%x, size %d, orig $message\n",
                        MSG_ERR_WRONG_PARAMETER, MsgType, PayloadBytes, pOrig);
        return nullptr;
    }
    memcpy(&pMsg->SendStackSize, &pOrig->SendStackSize, 4 + sizeof pMsg->SendStack);
    return pMsg;
}

// ---- Cloning -----------------------------------------------------------------------

MSG_Status MSG_Clone_Private(LocalEndpoint *pMyEndpoint, const MSG_Msg *pOriginal, MSG_Msg **pClone)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pOriginal != NULL);
    MSG_ASSERT(pClone != NULL);
    // A received message's size comes from another process: refused, not
    // trusted, when it could not describe a real message.
    if (pOriginal->PayloadBytes < 0 || pOriginal->PayloadBytes > INT32_MAX - MSG_HEADER_BYTES)
        return MSG_ERR_MSG_CORRUPT;
    const int32_t Size = pOriginal->PayloadBytes + MSG_HEADER_BYTES;
    const MSG_Status Status = MSG_AllocMsg_Private(pMyEndpoint, pOriginal->MsgType, Size, pClone);
    if (Status != MSG_OK)
        return Status;
    memcpy(*pClone, pOriginal, (size_t)Size);
    (*pClone)->pOwner = pMyEndpoint->Token;
    return MSG_OK;
}

MSG_Status MSG_CloneMsg(const MSG_Msg *pOriginal, MSG_Msg **pClone)
{
    LocalEndpoint *pEndpoint = MSG_GetMyEndpoint();
    MSG_Status Status = MSG_ERR_WRONG_PARAMETER;
    if (pOriginal != nullptr && pClone != nullptr) {
        Status = jOpenMyEndpoint(&pEndpoint);
        if (Status == MSG_OK)
            Status = MSG_Clone_Private(pEndpoint, pOriginal, pClone);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: $message, copy addr %p\n", Status, pOriginal,
                    pClone != nullptr ? (void *)*pClone : nullptr);
    return Status;
}

// ---- Release -------------------------------------------------------------------------

MSG_Status MSG_ReleaseMsg_Private(LocalEndpoint *pMyEndpoint, MSG_Msg **pMsg)
{
    MSG_ASSERT(pMyEndpoint != NULL);
    MSG_ASSERT(pMyEndpoint->pLinx != NULL);
    MSG_ASSERT(pMsg != NULL);
    MSG_ASSERT(* pMsg != NULL);
    MSG_ASSERT((* pMsg)->InUseMagic == MAGIC_NUM_MSG_ALLOC);
    if ((*pMsg)->pOwner != pMyEndpoint->Token)
        return MSG_ERR_WRONG_PARAMETER; // only the owning endpoint releases
    if (pMyEndpoint->Owner == 0)
        return MSG_AddPendingFreeMsg(pMyEndpoint, *pMsg);
    return jFreeNow(pMyEndpoint, pMsg);
}

MSG_Status MSG_ReleaseMsg(MSG_Msg *pMsg)
{
    MSG_Status Status = MSG_ERR_WRONG_PARAMETER;
    LocalEndpoint *pOwner = pMsg != nullptr ? jOwnerOf(pMsg) : nullptr;
    if (pMsg == nullptr) {
        Status = MSG_ERR_WRONG_PARAMETER;
    } else if (pOwner == nullptr || pMsg->InUseMagic != MAGIC_NUM_MSG_ALLOC) {
        // An unknown owner, or a magic another process wrote or a release
        // already destroyed: refused rather than trusted.
        Status = MSG_ERR_MSG_CORRUPT;
    } else {
        MSG_Msg *pCopy = pMsg;
        Status = MSG_ReleaseMsg_Private(pOwner, &pCopy);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: msg addr %p\n", Status, (void *)pMsg);
    return Status;
}

MSG_Status MSG_ReleasePendingMsgs_NeedsLock(LocalEndpoint *pEndpoint)
{
    MSG_ASSERT(pEndpoint != NULL);
    MSG_ASSERT(pEndpoint->pLinx != NULL);
    MSG_InitMsgInstrument();
    pthread_mutex_lock(&pEndpoint->PendFreeMutex);
    while (pEndpoint->pPendFreeHead != nullptr) {
        MSG_ASSERT(pEndpoint->pPendFreeHead->pMsg != NULL);
        MSG_ASSERT(pEndpoint->pPendFreeHead->pMsg->pOwner == pEndpoint->Token);
        MSG_ASSERT(pEndpoint->pPendFreeHead->pMsg->InUseMagic == MAGIC_NUM_MSG_ALLOC);
        PendFreeEntry *pEntry = pEndpoint->pPendFreeHead;
        pEntry->pMsg->InUseMagic = 0;
        MSG_AddHashEntry(gpHash, pEntry->pMsg, 0);
        linx_free_buf(pEndpoint->pLinx, (union LINX_SIGNAL **)&pEntry->pMsg);
        pEndpoint->pPendFreeHead = pEntry->pNext;
        MSG_Free(pEntry);
    }
    pthread_mutex_unlock(&pEndpoint->PendFreeMutex);
    return MSG_OK;
}
