// SPDX-License-Identifier: Apache-2.0
// The user message log: a process-wide ring of short records of the most
// recent messages sent and received, dumped to the diagnostic log or, raw
// and oldest first, to a file.  LogMutex guards the ring and its
// configuration; Flag is read without it by the send and receive paths.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <errno.h>

#include "msg_main.h"

namespace {

constexpr uint32_t kRecordHeadBytes = 36;
constexpr uint32_t kShownPayloadBytes = 4;
constexpr uint32_t kFlagBits = MSG_USER_LOG_RECV | MSG_USER_LOG_SEND;

struct UserLogRecord {
    uint32_t Magic;
    uint32_t TimeMsec;
    uint32_t From;
    uint32_t To;
    int32_t PayloadBytes;
    uint32_t StoredBytes;
    uint32_t Reserved;
    uint32_t MsgType;
    uint32_t Sequence;
};
static_assert(sizeof(UserLogRecord) == kRecordHeadBytes, "record head is 36 bytes");

struct LogBuffer {
    pthread_mutex_t LogMutex;
    int32_t BufferBytes;
    int32_t TruncateBytes;
    int32_t OffsetHead;
    int32_t OffsetTail;
    char *Buffer;
    uint32_t Flag;
};

LogBuffer gLog = {PTHREAD_MUTEX_INITIALIZER, 0, 0, 0, 0, nullptr, 0};

int32_t jBytesInUse_NeedsLock(const LogBuffer *p)
{
    return p->OffsetHead <= p->OffsetTail ? p->OffsetTail - p->OffsetHead
                                          : p->BufferBytes + p->OffsetTail - p->OffsetHead;
}

int32_t jWrap(const LogBuffer *p, int32_t Offset)
{
    return Offset >= p->BufferBytes ? Offset - p->BufferBytes : Offset;
}

void MSG_UserLogWrite(LogBuffer *p, const void *pBytes, int32_t Count)
{
    const char *pFrom = (const char *)pBytes;
    const int32_t Room = p->BufferBytes - p->OffsetTail;
    if (Count > Room) {
        memcpy(p->Buffer + p->OffsetTail, pFrom, (size_t)Room);
        memcpy(p->Buffer, pFrom + Room, (size_t)(Count - Room));
        p->OffsetTail = Count - Room;
    } else {
        memcpy(p->Buffer + p->OffsetTail, pFrom, (size_t)Count);
        p->OffsetTail = jWrap(p, p->OffsetTail + Count);
    }
}

uint32_t MSG_UserLogDerefUint32(const LogBuffer *p, int32_t Offset)
{
    uint32_t Word;
    memcpy(&Word, p->Buffer + jWrap(p, Offset), sizeof Word);
    return Word;
}

uint8_t jByteAt(const LogBuffer *p, int32_t Offset)
{
    return (uint8_t)p->Buffer[jWrap(p, Offset)];
}

uint32_t jTimeMsec()
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return 1000u * (uint32_t)(Now.tv_sec % (1 << 21)) + (uint32_t)(Now.tv_nsec / 1000000);
}

void MSG_UserLogStat()
{
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "LogBuffer={,BufferBytes=%d,TruncateBytes=%d,Head=%d,Tail=%d,Buffer=%p,Flag=%d}\n",
               gLog.BufferBytes, gLog.TruncateBytes, gLog.OffsetHead, gLog.OffsetTail, (void *)gLog.Buffer,
               (int)gLog.Flag);
}

void MSG_UserLogDumpSyslog()
{
    LogBuffer *pLogBuffer = &gLog;
    pthread_mutex_lock(&pLogBuffer->LogMutex);
    int Number = 0;
    for (int32_t OffsetNext = pLogBuffer->OffsetHead; OffsetNext != pLogBuffer->OffsetTail; Number++) {
        MSG_ASSERT(MSG_UserLogDerefUint32(pLogBuffer, OffsetNext) == MSG_USER_LOG_MAGIC_NUMBER);
        UserLogRecord R;
        for (uint32_t i = 0; i < kRecordHeadBytes / 4; i++)
            ((uint32_t *)&R)[i] = MSG_UserLogDerefUint32(pLogBuffer, OffsetNext + 4 * (int32_t)i);
        char Payload[48] = "";
        const int32_t Shown = R.PayloadBytes < (int32_t)kShownPayloadBytes ? R.PayloadBytes : kShownPayloadBytes;
        size_t Used = 0;
        for (int32_t i = 0; i < Shown; i++)
            Used += (size_t)snprintf(Payload + Used, sizeof Payload - Used, i == 0 ? "0x%x" : ",0x%x",
                                     jByteAt(pLogBuffer, OffsetNext + (int32_t)kRecordHeadBytes + i));
        if (R.PayloadBytes > Shown)
            snprintf(Payload + Used, sizeof Payload - Used, ",...");
        MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "  [%d]={,%u.%03u,0x%x=>0x%x,%d,%d,,{0x%x,%d,[%s]}}\n", Number,
                   R.TimeMsec / 1000, R.TimeMsec % 1000, R.From, R.To, R.PayloadBytes, (int)R.StoredBytes, R.MsgType,
                   (int)R.Sequence, Payload);
        OffsetNext = jWrap(pLogBuffer, OffsetNext + (int32_t)(kRecordHeadBytes + R.StoredBytes));
    }
    pthread_mutex_unlock(&pLogBuffer->LogMutex);
}

MSG_Status jDumpToFile(const char *pFileName)
{
    FILE *pFile = fopen(pFileName, "w");
    if (pFile == nullptr) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: fopen(\"%s\",), $errno\n", pFileName,
                   errno);
        return MSG_ERR_SYSTEM;
    }
    pthread_mutex_lock(&gLog.LogMutex);
    const int32_t Head = gLog.OffsetHead, Tail = gLog.OffsetTail;
    if (Head <= Tail) {
        fwrite(gLog.Buffer + Head, 1, (size_t)(Tail - Head), pFile);
    } else {
        fwrite(gLog.Buffer + Head, 1, (size_t)(gLog.BufferBytes - Head), pFile);
        fwrite(gLog.Buffer, 1, (size_t)Tail, pFile);
    }
    pthread_mutex_unlock(&gLog.LogMutex);
    char Handle[32]; // the handle as %p shows it, formatted while it is valid
    snprintf(Handle, sizeof Handle, "%p", (void *)pFile);
    if (fclose(pFile) != 0)
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: fclose(%s), $errno\n", Handle,
                   errno);
    return MSG_OK;
}

} // namespace

MSG_Status MSG_UserLogConfig(int32_t BufferBytes, int32_t TruncateBytes, uint32_t Flag)
{
    MSG_Status Status = MSG_OK;
    if (BufferBytes <= 0 || BufferBytes % 4 != 0 || TruncateBytes <= 0 || TruncateBytes % 4 != 0 ||
        (int64_t)BufferBytes <= (int64_t)TruncateBytes + kRecordHeadBytes || (Flag & ~kFlagBits) != 0)
        Status = MSG_ERR_WRONG_PARAMETER;
    char *pNewRing = nullptr;
    if (Status == MSG_OK && BufferBytes != gLog.BufferBytes) {
        pNewRing = (char *)MSG_Malloc((uint32_t)BufferBytes);
        if (pNewRing == nullptr)
            Status = MSG_ERR_MEMORY;
    }
    if (Status == MSG_OK) {
        pthread_mutex_lock(&gLog.LogMutex);
        if (pNewRing != nullptr) {
            if (gLog.Buffer != nullptr)
                MSG_Free(gLog.Buffer);
            gLog.Buffer = pNewRing;
            gLog.BufferBytes = BufferBytes;
            gLog.OffsetHead = gLog.OffsetTail = 0;
        }
        gLog.TruncateBytes = TruncateBytes;
        __atomic_store_n(&gLog.Flag, Flag, __ATOMIC_RELAXED);
        pthread_mutex_unlock(&gLog.LogMutex);
    }
    pthread_mutex_lock(&gLog.LogMutex);
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "LogBuffer={,%d,%d,%d,%d,%p,%d}\n", gLog.BufferBytes, gLog.TruncateBytes,
               gLog.OffsetHead, gLog.OffsetTail, (void *)gLog.Buffer, (int)gLog.Flag);
    pthread_mutex_unlock(&gLog.LogMutex);
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: %d, %d, %d\n", Status, BufferBytes, TruncateBytes, (int)Flag);
    return Status;
}

uint32_t MSG_UserLogGetFlag(void)
{
    return __atomic_load_n(&gLog.Flag, __ATOMIC_RELAXED);
}

MSG_Status MSG_UserLogSave(const LocalEndpoint *pEndpoint, uint32_t From, uint32_t To, const MSG_Msg *pMsg)
{
    if (pEndpoint == nullptr || pMsg == nullptr || From == 0 || To == 0)
        return MSG_ERR_WRONG_PARAMETER;
    const uint32_t TimeMsec = jTimeMsec();
    const int32_t PayloadBytes = pMsg->PayloadBytes;
    if (PayloadBytes < 0)
        return (MSG_Status)-PayloadBytes;
    LogBuffer *pLogBuffer = &gLog;
    pthread_mutex_lock(&pLogBuffer->LogMutex);
    if (pLogBuffer->Buffer == nullptr) { // never configured: nothing to keep
        pthread_mutex_unlock(&pLogBuffer->LogMutex);
        return MSG_OK;
    }
    const int32_t Truncate = pLogBuffer->TruncateBytes;
    const uint32_t StoredBytes =
        PayloadBytes >= Truncate ? (uint32_t)Truncate : ((uint32_t)PayloadBytes + 3u) & ~3u;
    const UserLogRecord Head = {MSG_USER_LOG_MAGIC_NUMBER, TimeMsec, From, To, PayloadBytes, StoredBytes, 0,
                                pMsg->MsgType, pMsg->Sequence};
    const int32_t RecordBytes = (int32_t)(kRecordHeadBytes + StoredBytes);
    while (jBytesInUse_NeedsLock(pLogBuffer) + RecordBytes >= pLogBuffer->BufferBytes) {
        MSG_ASSERT(pLogBuffer->OffsetHead != pLogBuffer->OffsetTail);
        const uint32_t Dropped = MSG_UserLogDerefUint32(pLogBuffer, pLogBuffer->OffsetHead + 20);
        pLogBuffer->OffsetHead = jWrap(pLogBuffer, pLogBuffer->OffsetHead + (int32_t)(kRecordHeadBytes + Dropped));
    }
    MSG_UserLogWrite(pLogBuffer, &Head, kRecordHeadBytes);
    const uint32_t Copied = (uint32_t)PayloadBytes < StoredBytes ? (uint32_t)PayloadBytes : StoredBytes;
    MSG_UserLogWrite(pLogBuffer, pMsg + 1, (int32_t)Copied);
    static const char Zeros[4] = {};
    MSG_UserLogWrite(pLogBuffer, Zeros, (int32_t)(StoredBytes - Copied));
    pthread_mutex_unlock(&pLogBuffer->LogMutex);
    return MSG_OK;
}

MSG_Status MSG_UserLogDump(const char *pFileName)
{
    MSG_Status Status = MSG_OK;
    if (pFileName != nullptr) {
        Status = jDumpToFile(pFileName);
    } else {
        MSG_UserLogStat();
        MSG_UserLogDumpSyslog();
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: file \"%s\"\n", Status, pFileName);
    return Status;
}
