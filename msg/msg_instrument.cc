// SPDX-License-Identifier: Apache-2.0
// The outstanding-message tracker: an open-addressing table keyed by the
// message's address that follows every buffer the process holds, reporting
// double allocations, double releases, evictions of held buffers and the
// 500th buffer held.  One mutex guards the whole table; it is last in the
// library's lock order and nothing is called under it but the log.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "msg_main.h"

MSG_Hash *gpHash = nullptr;

namespace {

constexpr uint32_t kOutstandingAlarm = 500;

struct HashEntry {
    const MSG_Msg *pMsg;  // null: empty slot
    uint32_t OpNum;       // operation that last wrote the slot
    uint32_t MsgType;
    uint32_t bAlloc;      // 1 held, 0 released or sent
};

} // namespace

struct MSG_Hash {
    uint32_t Size;
    uint32_t StepSize;
    uint32_t MaxSteps;
    pthread_mutex_t HashMutex;
    uint32_t NumFilled;
    uint32_t NumOps;
    uint32_t Interval;
    uint32_t NumAllocated;
    uint32_t FilledMin, FilledMax;
    uint32_t AllocMin, AllocMax;
    HashEntry Entries[];
};

namespace {

void jCopyMsgInfo(const MSG_Msg *apMsg, HashEntry *apHashEntry, uint32_t bAlloc, uint32_t OpNum)
{
    MSG_ASSERT(apMsg != NULL);
    MSG_ASSERT(apHashEntry != NULL);
    memset(apHashEntry, 0, sizeof *apHashEntry);
    apHashEntry->pMsg = apMsg;
    apHashEntry->OpNum = OpNum;
    apHashEntry->MsgType = MSG_GetType(apMsg);
    apHashEntry->bAlloc = bAlloc;
}

void jChkEntryUpdate_NeedsLock(MSG_Hash *apHash, uint32_t Index, const HashEntry *apNewEntry)
{
    MSG_ASSERT(apHash != NULL);
    MSG_ASSERT(apNewEntry != NULL);
    const HashEntry &Old = apHash->Entries[Index];
    if (Old.bAlloc == apNewEntry->bAlloc) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "hash %p: double %s: msg %p; was type 0x%x; is type 0x%x\n",
                   (void *)apHash, apNewEntry->bAlloc ? "alloc" : "free", (const void *)apNewEntry->pMsg,
                   Old.MsgType, apNewEntry->MsgType);
    } else if (apNewEntry->bAlloc) {
        apHash->NumAllocated++;
    } else {
        apHash->NumAllocated--;
    }
}

void jIncrNumOps_NeedsLock(MSG_Hash *apHash)
{
    MSG_Hash &H = *apHash;
    H.FilledMin = H.NumFilled < H.FilledMin ? H.NumFilled : H.FilledMin;
    H.FilledMax = H.NumFilled > H.FilledMax ? H.NumFilled : H.FilledMax;
    H.AllocMin = H.NumAllocated < H.AllocMin ? H.NumAllocated : H.AllocMin;
    H.AllocMax = H.NumAllocated > H.AllocMax ? H.NumAllocated : H.AllocMax;
    if (++H.NumOps % H.Interval != 0)
        return;
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "hash %p: stats for prior %u ops: filled entries min=%u, max=%u; "
               "Linx allocated msgs min=%u, max=%u\n",
               (void *)apHash, H.Interval, H.FilledMin, H.FilledMax, H.AllocMin, H.AllocMax);
    H.FilledMin = H.FilledMax = H.NumFilled;
    H.AllocMin = H.AllocMax = H.NumAllocated;
}

// The oldest entry of each state along one probe sequence.
struct Candidates {
    HashEntry *pOldest[2] = {nullptr, nullptr}; // [released, held]

    void Note(HashEntry *p)
    {
        HashEntry *&pBest = pOldest[p->bAlloc ? 1 : 0];
        if (pBest == nullptr || pBest->OpNum > p->OpNum)
            pBest = p;
    }
};

// Replaces the oldest released entry, or else the oldest held one (which
// is reported: the table forgets a buffer the process still holds).
HashEntry *jChkEviction(MSG_Hash *apHash, const Candidates &C)
{
    HashEntry *apVictim = C.pOldest[0] != nullptr ? C.pOldest[0] : C.pOldest[1];
    MSG_ASSERT(apVictim != NULL);
    if (apVictim->bAlloc)
        MSG_LOG_OS(LOG_WARNING, MSG_LOG_PREFIX "hash %p: evicting allocated msg %p: type 0x%x\n",
                   (void *)apHash, (const void *)apVictim->pMsg, apVictim->MsgType);
    return apVictim;
}

uint32_t jStartSlot(const MSG_Hash *apHash, const MSG_Msg *pMsg)
{
    return (uint32_t)((uintptr_t)pMsg % apHash->Size);
}

} // namespace

MSG_Hash *MSG_CreateHash(uint32_t Size, uint32_t StepSize, uint32_t MaxSteps, uint32_t Interval)
{
    // A size or interval of 0 would make every slot computation divide by 0.
    if (Size == 0 || Interval == 0)
        return nullptr;
    MSG_Hash *p = (MSG_Hash *)calloc(1, sizeof(MSG_Hash) + (size_t)Size * sizeof(HashEntry));
    if (p == nullptr)
        return nullptr;
    pthread_mutex_init(&p->HashMutex, nullptr);
    p->Size = Size;
    p->StepSize = StepSize;
    p->MaxSteps = MaxSteps == 0 || MaxSteps > Size ? Size : MaxSteps;
    p->Interval = Interval;
    p->NumOps = 1;
    p->FilledMin = p->AllocMin = Size;
    MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: size %u, step size %u, max steps %u, interval = %u\n",
                    0, Size, StepSize, MaxSteps, Interval);
    return p;
}

MSG_Status MSG_DestroyHash(MSG_Hash *apHash)
{
    if (apHash == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: hash addr %p\n", 0, (void *)apHash);
    pthread_mutex_destroy(&apHash->HashMutex);
    free(apHash);
    return MSG_OK;
}

MSG_Status MSG_AddHashEntry(MSG_Hash *apHash, const MSG_Msg *pMsg, uint32_t bAlloc)
{
    if (apHash == nullptr || pMsg == nullptr || bAlloc > 1)
        return MSG_ERR_WRONG_PARAMETER;
    MSG_Hash &H = *apHash;
    HashEntry New;
    pthread_mutex_lock(&H.HashMutex);
    jCopyMsgInfo(pMsg, &New, bAlloc, H.NumOps + 1);
    const uint32_t AllocatedBefore = H.NumAllocated;
    uint32_t Slot = jStartSlot(apHash, pMsg);
    Candidates C;
    for (uint32_t Counted = 0;;) {
        HashEntry &E = H.Entries[Slot];
        if (E.pMsg == pMsg) {
            jChkEntryUpdate_NeedsLock(apHash, Slot, &New);
            E = New;
            break;
        }
        if (E.pMsg == nullptr) {
            E = New;
            H.NumFilled++;
            H.NumAllocated += bAlloc;
            break;
        }
        C.Note(&E);
        if (++Counted >= H.MaxSteps) {
            *jChkEviction(apHash, C) = New;
            H.NumAllocated += bAlloc;
            break;
        }
        Slot = (Slot + H.StepSize) % H.Size;
    }
    jIncrNumOps_NeedsLock(apHash);
    if (AllocatedBefore == kOutstandingAlarm - 1 && H.NumAllocated == kOutstandingAlarm)
        MSG_LOG_OS(LOG_WARNING, MSG_LOG_PREFIX "hash %p: %u outstanding Linx messages\n", (void *)apHash,
                   kOutstandingAlarm);
    pthread_mutex_unlock(&H.HashMutex);
    return MSG_OK;
}

MSG_Status MSG_RemoveHashEntry(MSG_Hash *apHash, const MSG_Msg *pMsg)
{
    if (apHash == nullptr || pMsg == nullptr)
        return MSG_ERR_WRONG_PARAMETER;
    MSG_Hash &H = *apHash;
    HashEntry Released;
    pthread_mutex_lock(&H.HashMutex);
    jCopyMsgInfo(pMsg, &Released, 0, H.NumOps + 1);
    uint32_t Slot = jStartSlot(apHash, pMsg);
    MSG_Status Status = MSG_ERR_UNKNOWN;
    for (uint32_t Counted = 0; Counted < H.MaxSteps; Counted++, Slot = (Slot + H.StepSize) % H.Size) {
        HashEntry &E = H.Entries[Slot];
        if (E.pMsg != pMsg)
            continue;
        jChkEntryUpdate_NeedsLock(apHash, Slot, &Released);
        E.pMsg = nullptr;
        H.NumFilled--;
        jIncrNumOps_NeedsLock(apHash);
        Status = MSG_OK;
        break;
    }
    if (Status != MSG_OK) {
        H.NumAllocated--;
        MSG_LOG_OS(LOG_WARNING, MSG_LOG_PREFIX "hash %p: possible double free: can't find %p: type 0x%x\n",
                   (void *)apHash, (const void *)pMsg, Released.MsgType);
    }
    pthread_mutex_unlock(&H.HashMutex);
    return Status;
}
