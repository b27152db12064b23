// SPDX-License-Identifier: Apache-2.0
// Telemetry: copies of the process's traffic and announcements of its
// endpoints, carrying the process's identity, sent to the collector.
#include "msg_telemetry.h"

#include <stdio.h>
#include <string.h>

#include "msg_identity.h"
#include "msg_local_endpoint.h"
#include "msg_main.h"
#include "msg_telemetry_lite.pb.h"

namespace {

constexpr uint32_t kTelemetryBits = MSG_DEBUG_TELEMETRY_SEND | MSG_DEBUG_TELEMETRY_RECV;
constexpr uint32_t kQueueLimit = 1024;
constexpr const char *kSenderName = "TelemSender";
constexpr const char *kCollectorName = "Telemetry";

constexpr MSG_Type kTypeUserMsgNtfy = 0xFF0013;
constexpr MSG_Type kTypeNtfyRegUnregNtfy = 0xFF0023;
constexpr MSG_Type kTypeDropMsgNtfy = 0xFF0033;
constexpr MSG_Type kTypeLocalOpenNtfy = 0xFF0043;

// The payload of every telemetry message: four routing words, then one
// pcap packet record (its 16-byte header, then the record type and the
// serialized record).
struct Envelope {
    uint32_t HalvoIdx;
    uint32_t Receiver;
    uint32_t Sender;
    uint32_t StackTop;
    uint32_t Seconds;
    uint32_t Microseconds;
    uint32_t CapturedBytes;
    uint32_t WireBytes;
    uint32_t RecordType;
};
static_assert(sizeof(Envelope) == 36, "the envelope is 36 bytes on every ABI");

using RoutingWords = uint32_t[4];

// Records waiting for the collector, oldest first, in a ring one slot larger
// than the limit (a record is appended before the oldest is given up), and
// what was given up since the last delivered drop report.
struct TelemetryQueue {
    MSG_Msg *pRing[kQueueLimit + 1];
    uint32_t OwnerToken; // the TelemSender that allocated the queued messages
    uint32_t Oldest;
    uint32_t Count;
    uint32_t DropCount;
    struct timespec FirstDrop;
};

TelemetryQueue gQueue; // TelemetryMutex

void jLockTelemetry()
{
    pthread_mutex_lock(&TelemetryMutex);
    tbHoldsTelemetryMutex = true;
}

void jUnlockTelemetry()
{
    tbHoldsTelemetryMutex = false;
    pthread_mutex_unlock(&TelemetryMutex);
}

// A forked child starts with an empty queue: its messages belonged to the
// parent's TelemSender, which the child forgets with the rest of the
// parent's endpoints.  Taking the mutex before fork keeps the child from
// inheriting it locked; it comes before the registry's mutex, as in the
// lock order.
void jTelemetryForkPrepare()
{
    pthread_mutex_lock(&TelemetryMutex);
}

void jTelemetryForkParent()
{
    pthread_mutex_unlock(&TelemetryMutex);
}

void jTelemetryForkChild()
{
    pthread_mutex_init(&TelemetryMutex, nullptr);
    gQueue.Oldest = 0;
    gQueue.Count = 0;
    gQueue.DropCount = 0;
    gQueue.FirstDrop = {};
}

void jEnqueue_NeedsLock(MSG_Msg *pMsg)
{
    gQueue.pRing[(gQueue.Oldest + gQueue.Count) % (kQueueLimit + 1)] = pMsg;
    gQueue.Count++;
}

MSG_Msg *jDequeue_NeedsLock()
{
    MSG_Msg *pMsg = gQueue.pRing[gQueue.Oldest];
    gQueue.Oldest = (gQueue.Oldest + 1) % (kQueueLimit + 1);
    gQueue.Count--;
    return pMsg;
}

uint32_t jHalvoWord()
{
    int32_t HalvoIdx = 0;
    MSG_GetProcessInfo(&HalvoIdx, nullptr, nullptr);
    return HalvoIdx > 0 ? (uint32_t)HalvoIdx : 0;
}

MSG_Status jOpenLocalTelemetry(LocalEndpoint **ppLocTelem)
{
    MSG_Status Status = MSG_OK;
    LINX *pLinx = nullptr;
    jLockTelemetry();
    *ppLocTelem = MSG_GetLocalEndpoint(kSenderName);
    if (*ppLocTelem == nullptr) {
        pLinx = linx_open(kSenderName, 0, nullptr);
        if (pLinx == nullptr) {
            MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: linx_open(local ep \"%s\"): "
                       "Did you forget to insmod linx.ko?\n", kSenderName);
            Status = MSG_ERR_LINX;
        } else {
            jWatchForks();
            static const ForkStages kStages = {jTelemetryForkPrepare, jTelemetryForkParent, jTelemetryForkChild};
            static pthread_once_t Once = PTHREAD_ONCE_INIT;
            pthread_once(&Once, [] { jAddForkStages(&kStages); });
            Status = MSG_AddLocalEndpoint(kSenderName, pLinx, linx_get_spid(pLinx), 1, ppLocTelem);
            if (Status != MSG_OK)
                linx_close(pLinx); // nothing refers to it
        }
    }
    jUnlockTelemetry();
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: local ep \"%s\", Linx handle %p\n", Status, kSenderName,
                    (void *)pLinx);
    return Status;
}

// The record behind its envelope in a message of TelemSender, or null.
MSG_Msg *jAllocPack(LocalEndpoint *pLocTelem, MSG_Type Type, const RoutingWords *pWords,
                    const google::protobuf::MessageLite *pPbuf)
{
    MSG_ASSERT(pLocTelem != NULL);
    MSG_ASSERT(pPbuf != NULL);
    const size_t RecordBytes = pPbuf->ByteSizeLong();
    MSG_Msg *pMsg = nullptr;
    if (RecordBytes > (size_t)INT32_MAX - MSG_HEADER_BYTES - sizeof(Envelope) ||
        MSG_AllocMsg_Private(pLocTelem, Type, (int32_t)(MSG_HEADER_BYTES + sizeof(Envelope) + RecordBytes), &pMsg) !=
            MSG_OK)
        return nullptr;
    Envelope Head = {};
    if (pWords != nullptr)
        memcpy(&Head, *pWords, sizeof *pWords);
    struct timespec Now;
    clock_gettime(CLOCK_REALTIME, &Now);
    Head.Seconds = (uint32_t)Now.tv_sec;
    Head.Microseconds = (uint32_t)(Now.tv_nsec / 1000);
    Head.CapturedBytes = Head.WireBytes = (uint32_t)RecordBytes + 4;
    Head.RecordType = Type;
    uint8_t *pPayload = (uint8_t *)MSG_GetPayloadMutable(pMsg);
    memcpy(pPayload, &Head, sizeof Head);
    if (!pPbuf->SerializeToArray(pPayload + sizeof Head, (int)RecordBytes)) {
        MSG_ReleaseMsg(pMsg);
        return nullptr;
    }
    return pMsg;
}

void jGetPcapPktTimeStamp(const MSG_Msg *pMsg, struct timespec *pStamp)
{
    MSG_ASSERT(pMsg != NULL);
    MSG_ASSERT(pStamp != NULL);
    Envelope Head;
    memcpy(&Head, MSG_GetPayload(pMsg), sizeof Head);
    pStamp->tv_sec = Head.Seconds;
    pStamp->tv_nsec = (long)Head.Microseconds * 1000;
}

void jRecordDroppedMsg_NeedsLock(const struct timespec *pVictimTime)
{
    MSG_ASSERT(pVictimTime != NULL);
    if (gQueue.DropCount == 0 || (gQueue.FirstDrop.tv_sec == 0 && gQueue.FirstDrop.tv_nsec == 0))
        gQueue.FirstDrop = *pVictimTime;
    gQueue.DropCount++;
}

// Records queued by a TelemSender that the program has since closed went
// with its LINX handle: they are counted as lost, never touched.
void jForgetClosedSender_NeedsLock(const LocalEndpoint *pLocTelem)
{
    if (gQueue.Count > 0 && gQueue.OwnerToken != pLocTelem->Token) {
        struct timespec Now;
        clock_gettime(CLOCK_REALTIME, &Now);
        for (; gQueue.Count > 0; gQueue.Count--)
            jRecordDroppedMsg_NeedsLock(&Now);
    }
    gQueue.OwnerToken = pLocTelem->Token;
}

void jAddEndpoint(google::protobuf::RepeatedPtrField<hdr::Endpoint> *pList, const LocalEndpoint *pEndpoint)
{
    hdr::Endpoint *pEntry = pList->Add();
    pEntry->set_linx_id(pEndpoint->Spid);
    pEntry->set_name(pEndpoint->Name);
}

int32_t jAppendLocalToDropNtfy(void *pContext, LocalEndpoint *pEndpoint)
{
    if (pEndpoint->Owner == 0)
        jAddEndpoint(((hdr::DropMsgNtfy *)pContext)->mutable_open_endpoints(), pEndpoint);
    return 0;
}

struct OpenAnnouncement {
    hdr::LocalOpenProg *pProg;
    const LocalEndpoint *pJustOpened;
};

int32_t jAppendLocOpenAnn(void *pContext, LocalEndpoint *pEndpoint)
{
    const OpenAnnouncement *pAnn = (const OpenAnnouncement *)pContext;
    if (pEndpoint != pAnn->pJustOpened && pEndpoint->Owner == 0)
        jAddEndpoint(pAnn->pProg->mutable_already_open(), pEndpoint);
    return 0;
}

// The drop report to send ahead of the queue, or null with the status.
MSG_Msg *jPackDropReport_NeedsLock(LocalEndpoint *pLocTelem, MSG_Status *pStatus)
{
    hdr::DropMsgNtfy Report;
    int32_t HalvoIdx = 0;
    uint32_t Pid = 0;
    const char *pProgName = nullptr;
    MSG_GetProcessInfo(&HalvoIdx, &Pid, &pProgName);
    if (HalvoIdx > 0)
        Report.set_halvo_idx((uint32_t)HalvoIdx);
    Report.set_who(hdr::DROPPED_BY_SENDER);
    Report.set_qty(gQueue.DropCount);
    struct timespec Now;
    clock_gettime(CLOCK_REALTIME, &Now);
    Report.set_secs(jDropReportSecs(gQueue.FirstDrop, Now));
    Report.set_pid(Pid);
    Report.set_prog_name(pProgName);
    *pStatus = (MSG_Status)MSG_ForAllLocalEndpoints(jAppendLocalToDropNtfy, &Report);
    if (*pStatus != MSG_OK)
        return nullptr;
    const RoutingWords Words = {jHalvoWord(), 0, 0, 0};
    MSG_Msg *pMsg = jAllocPack(pLocTelem, kTypeDropMsgNtfy, &Words, &Report);
    if (pMsg == nullptr)
        *pStatus = MSG_ERR_LINX;
    return pMsg;
}

// Finds the collector by polling: the first call creates its record and
// starts the hunt, later calls look for the hunt's answer without waiting.
// 101 while it has not answered.
MSG_Status jFindCollector_NeedsLock(LocalEndpoint *pLocTelem, uint32_t *pCollector)
{
    uint32_t OpenType = 0;
    if (MSG_GetRemoteId_Private(pLocTelem, kCollectorName, pCollector, &OpenType) == MSG_OK && *pCollector != 0)
        return MSG_OK;
    MSG_Status Status = MSG_NewRemoteEndpoint(pLocTelem, kCollectorName, 0, &OpenType);
    if (Status == MSG_OK)
        Status = MSG_LinxHunt(pLocTelem, kCollectorName, OpenType);
    else if (Status == MSG_ERR_OPEN_IN_PROGRESS)
        Status = MSG_OK;
    if (Status != MSG_OK)
        return Status;
    const uint32_t SigSelHunt[] = {1, OpenType | MSG_TYPE_USER_SHIFT};
    MSG_Msg *pMsgHunt = nullptr;
    Status = MSG_RecvMsg_Private(pLocTelem, SigSelHunt, 0, &pMsgHunt, pCollector);
    if (Status == MSG_ERR_RECEIVE_TIMEOUT)
        return MSG_ERR_OPEN_REMOTE_TIMEOUT;
    if (Status != MSG_OK)
        return Status;
    MSG_ReleaseMsg_Private(pLocTelem, &pMsgHunt);
    Status = MSG_SetRemoteStateOpen(pLocTelem, *pCollector, OpenType);
    if (Status == MSG_OK)
        Status = MSG_AttachAsNeeded(pLocTelem);
    return Status;
}

// Sends the queue to the collector, oldest first, behind a drop report
// when records were lost.  A record whose send fails is counted as lost.
MSG_Status jDeliverQueue_NeedsLock(LocalEndpoint *pLocTelem, uint32_t Collector)
{
    MSG_Status Status = MSG_OK;
    while (gQueue.Count > 0) {
        const bool bReport = gQueue.DropCount != 0;
        struct timespec Stamp = {};
        MSG_Msg *pMsg = nullptr;
        if (bReport) {
            pMsg = jPackDropReport_NeedsLock(pLocTelem, &Status);
            if (pMsg == nullptr)
                return Status;
        } else {
            pMsg = jDequeue_NeedsLock();
            jGetPcapPktTimeStamp(pMsg, &Stamp);
        }
        Status = MSG_SendMsg_Private(pLocTelem, pLocTelem->Spid, Collector, &pMsg);
        if (Status != MSG_OK) {
            if (!bReport)
                jRecordDroppedMsg_NeedsLock(&Stamp);
            return Status;
        }
        gQueue.DropCount = 0;
    }
    return Status;
}

// A message on TelemSender that is not the collector's open or close.
void jRefuseForeign(LocalEndpoint *pLocTelem, const MSG_Msg *pMsg)
{
    MSG_LOG_OUTCOME(MSG_ERR_UNKNOWN, MSG_LOG_PREFIX "$func: $err: foreign message refused: $plocal, $message\n",
                    MSG_ERR_UNKNOWN, pLocTelem, pMsg);
}

// Takes everything waiting on TelemSender: the collector's close marks it
// closed (its record survives and is hunted again).
MSG_Status jRecvAllLocTelem(LocalEndpoint *pLocTelem)
{
    static const uint32_t kAnySignal[] = {0};
    MSG_Status Status = MSG_OK;
    jLockTelemetry();
    while (Status == MSG_OK) {
        MSG_Msg *pMsg = nullptr;
        Status = MSG_RecvMsg_Private(pLocTelem, kAnySignal, 0, &pMsg, nullptr);
        if (Status != MSG_OK)
            break;
        const bool bMarked = pMsg->MsgType & MSG_TYPE_USER_SHIFT;
        pMsg->MsgType &= ~MSG_TYPE_USER_SHIFT;
        if (bMarked && pMsg->MsgType >= MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN &&
            pMsg->MsgType <= MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX) {
            Status = MSG_OpenCloseHandler(pLocTelem, pMsg);
            if (Status == MSG_OK)
                Status = MSG_AttachAsNeeded(pLocTelem);
        } else {
            jRefuseForeign(pLocTelem, pMsg);
        }
        MSG_ReleaseMsg_Private(pLocTelem, &pMsg);
    }
    jUnlockTelemetry();
    return Status;
}

MSG_Status jOpenRemoteTelemetry(LocalEndpoint *pLocTelem)
{
    uint32_t Collector = 0;
    jLockTelemetry();
    jForgetClosedSender_NeedsLock(pLocTelem);
    MSG_Status Status = jFindCollector_NeedsLock(pLocTelem, &Collector);
    if (Status == MSG_OK && Collector == 0)
        Status = MSG_ERR_OPEN_IN_PROGRESS;
    if (Status == MSG_OK)
        Status = jDeliverQueue_NeedsLock(pLocTelem, Collector);
    jUnlockTelemetry();
    if (Status == MSG_ERR_CONNECTION_RESET)
        return jRecvAllLocTelem(pLocTelem);
    return Status;
}

MSG_Status jQueueTelemetry(MSG_Type Type, const RoutingWords *pWords, const google::protobuf::MessageLite *pRecord)
{
    LocalEndpoint *pLocTelem = nullptr;
    const MSG_Status Status = jOpenLocalTelemetry(&pLocTelem);
    if (Status != MSG_OK)
        return Status;
    MSG_Msg *pMsg = jAllocPack(pLocTelem, Type, pWords, pRecord);
    if (pMsg == nullptr)
        return MSG_ERR_LINX;
    jLockTelemetry();
    jForgetClosedSender_NeedsLock(pLocTelem);
    jEnqueue_NeedsLock(pMsg);
    while (gQueue.Count > kQueueLimit) {
        MSG_Msg *pVictim = jDequeue_NeedsLock();
        struct timespec Stamp;
        jGetPcapPktTimeStamp(pVictim, &Stamp);
        jRecordDroppedMsg_NeedsLock(&Stamp);
        MSG_ReleaseMsg_Private(pLocTelem, &pVictim);
    }
    jUnlockTelemetry();
    return jOpenRemoteTelemetry(pLocTelem);
}

// The sender stack, bottom first, as a record's repeated field.
void jCopySendStack(const MSG_Msg *pMsg, google::protobuf::RepeatedField<uint32_t> *pStack)
{
    uint32_t Size = MSG_GetSendStackSize(pMsg);
    if (Size > MSG_SEND_STACK_ELEM)
        Size = MSG_SEND_STACK_ELEM;
    pStack->Add(pMsg->SendStack, pMsg->SendStack + Size);
}

// Fields shared by the two copy records.
template <typename Record>
void jFillCopy(Record *pRecord, uint32_t Sender, uint32_t Receiver, const MSG_Msg *pMsg, uint32_t bReceived)
{
    const uint32_t HalvoIdx = jHalvoWord();
    if (HalvoIdx > 0)
        pRecord->set_halvo_idx(HalvoIdx);
    if (bReceived)
        pRecord->set_src_type(hdr::COPY_ON_RECEIVE);
    pRecord->set_sender(Sender);
    pRecord->set_receiver(Receiver);
    if (pMsg->Sequence != 0)
        pRecord->set_sequence(pMsg->Sequence);
    jCopySendStack(pMsg, pRecord->mutable_sender_stack());
}

MSG_Status jQueueCopy(uint32_t Sender, uint32_t Receiver, const MSG_Msg *pMsg, uint32_t bReceived)
{
    const uint32_t StackSize = MSG_GetSendStackSize(pMsg);
    const uint32_t StackTop = StackSize > 0 && StackSize <= MSG_SEND_STACK_ELEM ? pMsg->SendStack[StackSize - 1] : 0;
    if (Receiver == 0)
        Receiver = StackTop;
    const RoutingWords Words = {jHalvoWord(), Receiver, Sender, StackTop};
    const int32_t PayloadBytes = MSG_GetPayloadBytes(pMsg) > 0 ? MSG_GetPayloadBytes(pMsg) : 0;
    if (pMsg->MsgType == MSG_NTFY_REQ_REGISTER || pMsg->MsgType == MSG_NTFY_REQ_UNREGISTER) {
        hdr::NtfyRegUnregNtfy Record;
        jFillCopy(&Record, Sender, Receiver, pMsg, bReceived);
        if (pMsg->MsgType == MSG_NTFY_REQ_UNREGISTER)
            Record.set_reg_type(hdr::NTFY_UNREGISTER);
        // A request from another process may be short: what is missing reads 0.
        uint32_t Range[2] = {0, 0};
        memcpy(Range, MSG_GetPayload(pMsg), PayloadBytes < (int32_t)sizeof Range ? PayloadBytes : sizeof Range);
        Record.set_reg_msg_low(Range[0]);
        if (Range[1] != Range[0])
            Record.set_reg_msg_high(Range[1]);
        return jQueueTelemetry(kTypeNtfyRegUnregNtfy, &Words, &Record);
    }
    // The record of the most frequent copy is kept by each thread: cleared,
    // it keeps its payload buffer, so copying allocates nothing for it.
    thread_local hdr::UserMsgNtfy Record;
    Record.Clear();
    jFillCopy(&Record, Sender, Receiver, pMsg, bReceived);
    Record.set_msg_type(pMsg->MsgType);
    Record.add_payload(MSG_GetPayload(pMsg), (size_t)PayloadBytes);
    return jQueueTelemetry(kTypeUserMsgNtfy, &Words, &Record);
}

// Delivers what waits, when a copy in a direction that is switched off
// gives the chance.
MSG_Status jPushQueue(void)
{
    LocalEndpoint *pLocTelem = nullptr;
    const MSG_Status Status = jOpenLocalTelemetry(&pLocTelem);
    return Status != MSG_OK ? Status : jOpenRemoteTelemetry(pLocTelem);
}

} // namespace

MSG_Status MSG_ResendToGlobalTelemetry(uint32_t Sender, uint32_t Receiver, const MSG_Msg *pMsg, uint32_t bReceived)
{
    MSG_ASSERT(pMsg != NULL);
    const uint32_t Flags = jDebugFlag();
    if ((Flags & kTelemetryBits) == 0)
        return MSG_OK;
    MSG_GetProcessInfo(nullptr, nullptr, nullptr); // loaded here, never under TelemetryMutex
    if ((Flags & (bReceived ? MSG_DEBUG_TELEMETRY_RECV : MSG_DEBUG_TELEMETRY_SEND)) == 0)
        return jPushQueue();
    const MSG_Status Status = jQueueCopy(Sender, Receiver, pMsg, bReceived);
    if (Status != MSG_ERR_OPEN_IN_PROGRESS && Status != MSG_ERR_OPEN_REMOTE_TIMEOUT)
        MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: sender ep 0x%x, receiver ep 0x%x, $message\n", Status,
                        Sender, Receiver, pMsg);
    return Status;
}

MSG_Status MSG_AnnounceLocalOpen(LocalEndpoint *pJustOpened)
{
    MSG_ASSERT(pJustOpened != NULL);
    jLoadProcessInfo();
    // bTelemetry is 0 exactly for the endpoints "Telemetry" and "TelemSender".
    if ((jDebugFlag() & kTelemetryBits) == 0 || pJustOpened->Owner != 0 || !pJustOpened->bTelemetry)
        return MSG_OK;
    int32_t HalvoIdx = 0;
    uint32_t Pid = 0;
    const char *pProgName = nullptr;
    MSG_GetProcessInfo(&HalvoIdx, &Pid, &pProgName);
    hdr::LocalOpenNtfy Record;
    if (HalvoIdx > 0)
        Record.set_halvo_idx((uint32_t)HalvoIdx);
    hdr::LocalOpenProg *pProg = Record.add_prog();
    pProg->set_pid(Pid);
    pProg->set_name(pProgName);
    jAddEndpoint(pProg->mutable_just_opened(), pJustOpened);
    OpenAnnouncement Ann = {pProg, pJustOpened};
    const int32_t Walk = MSG_ForAllLocalEndpoints(jAppendLocOpenAnn, &Ann);
    if (Walk != 0)
        return (MSG_Status)Walk;
    const RoutingWords Words = {jHalvoWord(), 0, 0, 0};
    return jQueueTelemetry(kTypeLocalOpenNtfy, &Words, &Record);
}
