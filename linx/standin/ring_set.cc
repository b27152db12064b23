// SPDX-License-Identifier: Apache-2.0
// The reader's side of a socket's rings: adopting, dropping and retiring
// rings, taking the senders' marks, and serving the rings in turn.
#include "ring_set.h"

#include <unistd.h>

#include <algorithm>

namespace {

// Rings read empty that stay marked: a receive looks at no more of them.
constexpr size_t kMostInView = 16;

// Summary words that can hold indexes of the rings the set has room for.
size_t jSummaryWordsInUse(const RingSet &Set)
{
    return std::min<size_t>((Set.Rings.size() + 4095) / 4096, LINXD_INDEX_SUMMARY_WORDS);
}

bool jIsLive(const RingSet &Set, uint32_t Index)
{
    return Index < Set.Rings.size() && Set.Rings[Index].State == RingState::Live;
}

void jLeaveView(RingSet &Set, uint32_t Index)
{
    Set.InView.erase(std::find(Set.InView.begin(), Set.InView.end(), Index));
    Set.Rings[Index].Place = RingPlace::Marked;
}

// Takes the ring out of wherever it is: it is only marked then.
void jTakeOut(RingSet &Set, uint32_t Index)
{
    RingSetEntry &E = Set.Rings[Index];
    if (E.Place == RingPlace::InTurn)
        Set.Turns.erase(std::find(Set.Turns.begin(), Set.Turns.end(), Index));
    if (E.Place == RingPlace::InView)
        jLeaveView(Set, Index);
    if (E.Place == RingPlace::Held)
        Set.Held.erase(std::find(Set.Held.begin(), Set.Held.end(), Index));
    E.Place = RingPlace::Marked;
}

void jPutInTurn(RingSet &Set, uint32_t Index)
{
    if (!jIsLive(Set, Index))
        return; // a mark for no ring
    RingSetEntry &E = Set.Rings[Index];
    if (E.Place == RingPlace::InTurn || E.Place == RingPlace::Held)
        return; // in turn already, or held until let go
    if (E.Place == RingPlace::InView)
        jLeaveView(Set, Index);
    E.Place = RingPlace::InTurn;
    Set.Turns.push_back(Index);
}

// Unmarks the ring at the front of the view: its sender marks it again
// when it writes.
void jUnmarkFirstInView(RingSet &Set)
{
    const uint32_t Index = Set.InView.front();
    jLeaveView(Set, Index);
    if (linxd_ready_unmark(&Set.Rings[Index].Reader))
        jPutInTurn(Set, Index);
}

// Keeps in view the rings that brought something since the bell was last
// armed, and unmarks the others.
void jUnmarkStaleInView(RingSet &Set)
{
    for (size_t i = 0; i < Set.InView.size();) {
        const uint32_t Index = Set.InView[i];
        RingSetEntry &E = Set.Rings[Index];
        if (E.bFresh) {
            E.bFresh = false;
            i++;
            continue;
        }
        jLeaveView(Set, Index); // the next one moved to i
        if (linxd_ready_unmark(&E.Reader))
            jPutInTurn(Set, Index);
    }
}

// Every ring marked in one word of the marks.
void jCollectWord(RingSet &Set, uint32_t Word)
{
    for (uint64_t Bits = linxd_ready_take(&Set.pReady->marks.bits[Word]); Bits != 0; Bits &= Bits - 1)
        jPutInTurn(Set, Word * 64 + (uint32_t)__builtin_ctzll(Bits));
}

void jUnmapRing(RingSetEntry &E)
{
    linxd_ring_unmap(&E.Reader);
    if (E.RoomFd >= 0)
        close(E.RoomFd);
    E.RoomFd = -1;
    E.State = RingState::Dropped;
}

// Forgets the entry at Index and gives the index back to linxd.
void jRelease(RingSet &Set, uint32_t Index)
{
    Set.Rings[Index] = RingSetEntry();
    __atomic_fetch_and(&Set.pRetired->bits[Index / 64], ~(1ull << (Index % 64)), __ATOMIC_SEQ_CST);
    while (!Set.Rings.empty() && Set.Rings.back().State == RingState::Unused)
        Set.Rings.pop_back();
}

// The retired indexes of one word: live rings are drained and unmapped,
// dropped ones forgotten; an index whose ring has not arrived yet, or
// could not be drained yet, stays (returns true then: the word must be
// looked at again).
bool jRetireWord(RingSet &Set, uint32_t Word, bool (*pDrain)(void *, uint32_t), void *pContext)
{
    bool bPending = false;
    for (uint64_t Bits = __atomic_load_n(&Set.pRetired->bits[Word], __ATOMIC_ACQUIRE); Bits != 0; Bits &= Bits - 1) {
        const uint32_t Index = Word * 64 + (uint32_t)__builtin_ctzll(Bits);
        if (Index >= Set.Rings.size() || Set.Rings[Index].State == RingState::Unused) {
            bPending = true;
            continue;
        }
        if (Set.Rings[Index].State == RingState::Live && !pDrain(pContext, Index)) {
            bPending = true;
            continue;
        }
        RingSetDrop(&Set, Index);
        if (Index < Set.Rings.size() && Set.Rings[Index].State == RingState::Dropped)
            jRelease(Set, Index);
    }
    return bPending;
}

} // namespace

bool RingSetMap(RingSet *pSet, int ReadyFd, int RetiredFd)
{
    pSet->pReady = (linxd_ready_set *)linxd_map_region(ReadyFd, sizeof(linxd_ready_set));
    pSet->pRetired = (linxd_index_set *)linxd_map_region(RetiredFd, sizeof(linxd_index_set));
    pSet->bMapped = true;
    const bool bMapped = pSet->pReady != nullptr && pSet->pRetired != nullptr;
    if (!bMapped)
        RingSetFree(pSet);
    return bMapped;
}

void RingSetUse(RingSet *pSet, linxd_ready_set *pReady)
{
    pSet->pReady = pReady;
}

void RingSetFree(RingSet *pSet)
{
    for (RingSetEntry &E : pSet->Rings)
        if (E.State == RingState::Live)
            jUnmapRing(E);
    pSet->Rings.clear();
    pSet->Turns.clear();
    pSet->InView.clear();
    pSet->Held.clear();
    if (pSet->bMapped && pSet->pReady != nullptr)
        munmap(pSet->pReady, sizeof *pSet->pReady);
    if (pSet->bMapped && pSet->pRetired != nullptr)
        munmap(pSet->pRetired, sizeof *pSet->pRetired);
    pSet->pReady = nullptr;
    pSet->pRetired = nullptr;
}

bool RingSetAdopt(RingSet *pSet, uint32_t Index, int RingFd, int RoomFd, pid_t Writer, uint32_t QueueBytes,
                  const char **ppWhy)
{
    RingSetEntry Entry;
    const bool bFree = Index < LINXD_MAX_RINGS_PER_SOCKET &&
                       (Index >= pSet->Rings.size() || pSet->Rings[Index].State == RingState::Unused);
    if (!bFree)
        *ppWhy = "a ring index that is taken or cannot be";
    else if (RingFd < 0)
        *ppWhy = "an announcement without its ring";
    else if (linxd_ring_map(RingFd, QueueBytes, &Entry.Reader, ppWhy) == 0)
        *ppWhy = nullptr;
    if (*ppWhy != nullptr && RoomFd >= 0)
        close(RoomFd);
    // A ring refused at its index waits as dropped until linxd retires it,
    // so that the index is given back then (linxd's own sets give it back
    // at once).
    if (*ppWhy != nullptr && (!bFree || pSet->pRetired == nullptr))
        return false;
    if (Index >= pSet->Rings.size())
        pSet->Rings.resize(Index + 1);
    if (*ppWhy != nullptr) {
        pSet->Rings[Index].State = RingState::Dropped;
        return false;
    }
    Entry.RoomFd = RoomFd;
    Entry.Writer = Writer;
    Entry.Serial = ++pSet->Adopted;
    Entry.State = RingState::Live;
    pSet->Rings[Index] = Entry;
    // A sender may have written before the ring reached its reader.
    jPutInTurn(*pSet, Index);
    return true;
}

void RingSetGaveRoom(RingSetEntry *pE)
{
    const uint64_t One = 1;
    if (pE->RoomFd >= 0 && linxd_ring_room(&pE->Reader))
        (void)!write(pE->RoomFd, &One, sizeof One);
}

RingSetEntry *RingSetFind(RingSet *pSet, uint32_t Index)
{
    return jIsLive(*pSet, Index) ? &pSet->Rings[Index] : nullptr;
}

void RingSetDrop(RingSet *pSet, uint32_t Index)
{
    if (!jIsLive(*pSet, Index))
        return;
    RingSetEntry &E = pSet->Rings[Index];
    jTakeOut(*pSet, Index);
    jUnmapRing(E);
    if (pSet->pRetired == nullptr) // linxd reads this set: nobody waits for word of the index
        pSet->Rings[Index] = RingSetEntry();
}

void RingSetTakeRetired(RingSet *pSet, bool (*pDrain)(void *pContext, uint32_t Index), void *pContext)
{
    if (pSet->pRetired == nullptr)
        return;
    for (size_t w = 0; w < jSummaryWordsInUse(*pSet); w++) {
        const uint64_t Words = linxd_ready_take(&pSet->pRetired->summary[w]);
        for (uint64_t Bits = Words; Bits != 0; Bits &= Bits - 1) {
            const uint32_t Word = (uint32_t)(w * 64 + __builtin_ctzll(Bits));
            if (jRetireWord(*pSet, Word, pDrain, pContext))
                __atomic_fetch_or(&pSet->pRetired->summary[w], Bits & -Bits, __ATOMIC_SEQ_CST);
        }
    }
}

bool RingSetMarkNow(RingSet *pSet, uint32_t Index, RingMark *pMark)
{
    const RingSetEntry *pE = RingSetFind(pSet, Index);
    if (pE == nullptr)
        return false;
    const linxd_ring_reader &R = pE->Reader;
    const uint64_t Tail = __atomic_load_n(&R.header->tail, __ATOMIC_ACQUIRE);
    *pMark = {Index, pE->Serial, Tail - R.head > R.capacity ? R.head + R.capacity : Tail};
    return pMark->Position != R.head;
}

bool RingSetReached(RingSet *pSet, const RingMark &Mark)
{
    const RingSetEntry *pE = RingSetFind(pSet, Mark.Index);
    return pE == nullptr || pE->Serial != Mark.Serial || (int64_t)(Mark.Position - pE->Reader.head) <= 0;
}

void RingSetPutInTurn(RingSet *pSet, uint32_t Index)
{
    jPutInTurn(*pSet, Index);
}

void RingSetHold(RingSet *pSet, uint32_t Index)
{
    if (!jIsLive(*pSet, Index) || pSet->Rings[Index].Place == RingPlace::Held)
        return;
    jTakeOut(*pSet, Index);
    pSet->Rings[Index].Place = RingPlace::Held;
    pSet->Held.push_back(Index);
}

void RingSetLetGo(RingSet *pSet)
{
    const std::vector<uint32_t> Held = std::move(pSet->Held);
    pSet->Held.clear();
    for (const uint32_t Index : Held) {
        pSet->Rings[Index].Place = RingPlace::Marked;
        jPutInTurn(*pSet, Index);
    }
}

size_t RingSetCollect(RingSet *pSet)
{
    for (size_t w = 0; w < jSummaryWordsInUse(*pSet); w++)
        for (uint64_t Bits = linxd_ready_take(&pSet->pReady->marks.summary[w]); Bits != 0; Bits &= Bits - 1)
            jCollectWord(*pSet, (uint32_t)(w * 64 + __builtin_ctzll(Bits)));
    for (size_t i = 0; i < pSet->InView.size();) {
        const uint32_t Index = pSet->InView[i];
        if (linxd_ring_waiting(&pSet->Rings[Index].Reader))
            jPutInTurn(*pSet, Index); // leaves the view: the next one moved to i
        else
            i++;
    }
    return pSet->Turns.size();
}

uint32_t RingSetFront(const RingSet *pSet)
{
    return pSet->Turns.front();
}

void RingSetRotate(RingSet *pSet)
{
    const uint32_t Index = pSet->Turns.front();
    RingSetEntry &E = pSet->Rings[Index];
    if (pSet->Turns.size() == 1 && linxd_ring_waiting(&E.Reader))
        return; // its own turn again
    pSet->Turns.pop_front();
    E.Place = RingPlace::Marked;
    if (linxd_ring_waiting(&E.Reader)) {
        jPutInTurn(*pSet, Index);
        return;
    }
    E.Place = RingPlace::InView;
    E.bFresh = true;
    pSet->InView.push_back(Index);
    if (pSet->InView.size() > kMostInView)
        jUnmarkFirstInView(*pSet);
}

bool RingSetWaiting(RingSet *pSet)
{
    if (!pSet->Turns.empty() && linxd_ring_waiting(&pSet->Rings[pSet->Turns.front()].Reader))
        return true;
    RingSetCollect(pSet);
    // Rings that were read empty since they were marked leave the turn
    // list, so that the answer is exact: the bell depends on it.
    while (!pSet->Turns.empty() && !linxd_ring_waiting(&pSet->Rings[pSet->Turns.front()].Reader))
        RingSetRotate(pSet);
    return !pSet->Turns.empty();
}

bool RingSetArm(RingSet *pSet)
{
    jUnmarkStaleInView(*pSet);
    __atomic_store_n(&pSet->pReady->armed, 1u, __ATOMIC_SEQ_CST);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return RingSetWaiting(pSet) && __atomic_exchange_n(&pSet->pReady->armed, 0u, __ATOMIC_SEQ_CST) != 0;
}

bool RingSetArmed(const RingSet *pSet)
{
    return __atomic_load_n(&pSet->pReady->armed, __ATOMIC_ACQUIRE) != 0;
}
