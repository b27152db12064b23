// SPDX-License-Identifier: Apache-2.0
// Receiving: the process-local queue (what linxd delivered, what senders
// of this process handed over, and what a receive set aside unselected),
// the rings the socket reads, the outlet, and waiting for the bell.
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <time.h>

#include <algorithm>
#include <new>

#include "standin_socket.h"
#include "refusals.h"

namespace {

constexpr uint32_t kForever = 0xFFFFFFFFu;
// Rings this process refused, said once a second per sender and reason.
RefusalLog gRefusals;

// Keeps ReadyFd readable exactly while the queue holds a signal, for a
// watched socket whose owner is not inside a receive (S.Mutex held, so
// that the eventfd changes with the queue and never behind it).  A socket
// nobody watches, or whose owner is receiving, costs no system call here.
void jSettleReady_NeedsLock(StandinSocket &S)
{
    const bool bWanted = S.bWatched && !S.bReceiving && !S.Queue.empty();
    if (bWanted == S.bReadySignalled)
        return;
    uint64_t Count = 1;
    if (bWanted)
        (void)!write(S.ReadyFd, &Count, sizeof Count);
    else
        (void)!read(S.ReadyFd, &Count, sizeof Count);
    S.bReadySignalled = bWanted;
}

// ---- Receiving -----------------------------------------------------------------

struct Selection {
    const int32_t *pSigselect; // count, then signal numbers; null takes anything
    uint32_t From;             // 0: any sender
};

uint32_t jSigNo(const void *pPayload)
{
    uint32_t SigNo;
    memcpy(&SigNo, pPayload, sizeof SigNo);
    return SigNo;
}

bool jSelected(const Selection &Sel, const linxd_signal_header &Header, uint32_t SigNo)
{
    if (Sel.From != 0 && Header.from != Sel.From)
        return false;
    if (Sel.pSigselect == nullptr || Sel.pSigselect[0] == 0)
        return true;
    const int32_t Count = Sel.pSigselect[0];
    const int32_t Listed = Count < 0 ? -Count : Count;
    bool bListed = false;
    for (int32_t i = 1; i <= Listed && !bListed; i++)
        bListed = (uint32_t)Sel.pSigselect[i] == SigNo;
    return Count > 0 ? bListed : !bListed;
}

const void *jPayloadOf(const Pending &Entry)
{
    return Entry.pTaken != nullptr ? Entry.pTaken : Entry.Data.data();
}

void jCountTaken(StandinSocket &S, uint32_t Size)
{
    linxd_counters &Counters = StandinCounters(S);
    StandinCountQueued(&Counters, -1);
    StandinCount(&Counters.received_signals, 1);
    StandinCount(&Counters.received_bytes, Size);
}

void jFillRecord(struct linx_transfer_rec *pRec, const linxd_signal_header &Header, uint64_t RealBuffer)
{
    pRec->from = Header.from;
    pRec->to = Header.to;
    pRec->size = Header.size;
    pRec->attributes = Header.attributes;
    pRec->real_buffer = RealBuffer;
}

// Tells the caller that the selected signal needs a larger buffer: the
// signal's size goes into the buffer's first word.
int jTooLarge(struct linx_transfer_rec *pRec, uint32_t Size)
{
    memcpy((void *)(uintptr_t)pRec->buffer, &Size, sizeof Size);
    return 0;
}

// The words of a sigselect: its count and its numbers.
size_t jSelectionWords(const int32_t *pSigselect)
{
    return 1 + (size_t)std::abs((int64_t)pSigselect[0]);
}

// The first entry of the queue a receive with this selection has not yet
// looked at (S.Mutex held).
std::deque<Pending>::iterator jFirstUnscanned(StandinSocket &S, const Selection &Sel)
{
    const bool bSame = !S.ScannedSel.empty() && Sel.pSigselect != nullptr && S.ScannedFrom == Sel.From &&
                       S.ScannedSel.size() == jSelectionWords(Sel.pSigselect) &&
                       std::equal(S.ScannedSel.begin(), S.ScannedSel.end(), Sel.pSigselect);
    if (!bSame)
        return S.Queue.begin();
    return std::partition_point(S.Queue.begin(), S.Queue.end(),
                                [&S](const Pending &Entry) { return Entry.Seq <= S.ScannedSeq; });
}

// Takes the first selected signal of the local queue.  Returns the size,
// 0 when it does not fit, or -1 (errno EAGAIN) when none is selected; then
// *pSeen tells how many signals had been queued when it looked.
int jTakeQueued(StandinSocket &S, const Selection &Sel, struct linx_transfer_rec *pRec,
                uint64_t *pSeen)
{
    // An empty queue is seen without the mutex: what is queued after the
    // look moves Pushes past *pSeen, which the caller notices.
    *pSeen = S.Pushes.load(std::memory_order_acquire);
    if (S.QueueLength.load(std::memory_order_acquire) == 0) {
        errno = EAGAIN;
        return -1;
    }
    int Result = -1;
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        *pSeen = S.Pushes.load(std::memory_order_relaxed);
        auto It = jFirstUnscanned(S, Sel);
        while (It != S.Queue.end() && !jSelected(Sel, It->Header, jSigNo(jPayloadOf(*It))))
            ++It;
        if (It == S.Queue.end()) {
            if (Sel.pSigselect != nullptr) {
                S.ScannedSel.assign(Sel.pSigselect, Sel.pSigselect + jSelectionWords(Sel.pSigselect));
                S.ScannedFrom = Sel.From;
                S.ScannedSeq = *pSeen;
            }
            errno = EAGAIN;
            return -1;
        }
        const uint32_t Size = It->Header.size;
        if (It->pTaken != nullptr) {
            jFillRecord(pRec, It->Header, (uint64_t)(uintptr_t)It->pTaken);
        } else if (Size <= pRec->size) {
            memcpy((void *)(uintptr_t)pRec->buffer, It->Data.data(), Size);
            jFillRecord(pRec, It->Header, pRec->buffer);
        } else {
            return jTooLarge(pRec, Size);
        }
        S.QueuedBytes -= Size;
        S.PeerCpu = It->Cpu;
        S.bPeerIsLinxd = false;
        S.Queue.erase(It);
        S.QueueLength.fetch_sub(1, std::memory_order_relaxed);
        Result = (int)Size;
    }
    jCountTaken(S, (uint32_t)Result);
    return Result;
}

// ---- Rings -------------------------------------------------------------------

void jRefuseRing(StandinSocket &S, uint32_t Index, pid_t Writer, const char *pWhy)
{
    const std::string Source = "process " + std::to_string(Writer);
    RefusalSay(&gRefusals, Source, pWhy, "linx: refused the signal ring of " + Source + ": " + pWhy);
    RingSetDrop(&S.Rings, Index);
}

// The queue of what this socket set aside is full: the ring keeps what it
// holds (its sender's sends are refused once it is full too) until the
// queue has room again.
void jHoldRing(StandinSocket &S, uint32_t Index)
{
    const std::string Source = "process " + std::to_string(S.Rings.Rings[Index].Writer);
    RefusalSay(&gRefusals, Source, "held",
               "linx: left the signals of " + Source + " in its ring: what this socket set aside fills its queue");
    RingSetHold(&S.Rings, Index);
}

// Lets the held rings go once the queue is down to half of what it holds.
void jLetGoHeld(StandinSocket &S)
{
    if (S.Rings.Held.empty())
        return;
    std::unique_lock<std::mutex> Lock(S.Mutex);
    const bool bRoom = S.QueuedBytes <= S.QueueBytes / 2;
    Lock.unlock();
    if (bRoom)
        RingSetLetGo(&S.Rings);
}

// How moving a ring's signals to the local queue ended: at a signal the
// selection takes, where it was to stop (or nothing more), with the queue
// full, or at an entry that breaks the rules.
enum class Parked { Selected, Reached, Full, Broken };

// Moves the signals at the ring's head to the local queue up to the first
// one pSel selects (pSel null: none is), until the head reaches Until, and
// as long as the queue has room: a sender that keeps writing cannot keep
// the receiver here or grow it.  *pHeader is the signal at the head when
// Selected; *ppWhy says what broke when Broken.
Parked jParkUnselected(StandinSocket &S, RingSetEntry &E, const Selection *pSel, uint64_t Until,
                       linxd_signal_header *pHeader, const char **ppWhy)
{
    while ((int64_t)(Until - E.Reader.head) > 0) {
        const linxd_peeked State = linxd_ring_peek(&E.Reader, S.Spid, pHeader, ppWhy);
        if (State != LINXD_PEEK_SIGNAL)
            return State == LINXD_PEEK_BROKEN ? Parked::Broken : Parked::Reached;
        const char *pPayload = linxd_ring_payload(&E.Reader);
        if (pSel != nullptr && jSelected(*pSel, *pHeader, jSigNo(pPayload)))
            return Parked::Selected;
        Pending Entry;
        Entry.Header = *pHeader;
        Entry.Data.assign(pPayload, pHeader->size);
        if (!StandinEnqueue(S, std::move(Entry), true))
            return Parked::Full;
        linxd_ring_advance(&E.Reader, pHeader->size);
        RingSetGaveRoom(&E);
    }
    return Parked::Reached;
}

// A ring's worth from its head: how far a look at it may go.
uint64_t jOneRing(const RingSetEntry &E)
{
    return E.Reader.head + E.Reader.capacity;
}

// Moves what the ring holds, up to Until, to the local queue.  false when
// the queue is full (the ring is held then); a ring that breaks the rules
// is refused and dropped.
bool jParkRing(StandinSocket &S, uint32_t Index, uint64_t Until)
{
    RingSetEntry &E = S.Rings.Rings[Index];
    linxd_signal_header Header;
    const char *pWhy = nullptr;
    const Parked Result = jParkUnselected(S, E, nullptr, Until, &Header, &pWhy);
    if (Result == Parked::Broken)
        jRefuseRing(S, Index, E.Writer, pWhy);
    if (Result == Parked::Full)
        jHoldRing(S, Index);
    return Result != Parked::Full;
}

// Takes the first selected signal of the rings in turn, one ring after the
// other; signals not selected move to the local queue.  Returns as
// jTakeQueued.
int jTakeFromRings(StandinSocket &S, const Selection &Sel, struct linx_transfer_rec *pRec)
{
    for (size_t Turns = RingSetCollect(&S.Rings); Turns > 0 && !S.Rings.Turns.empty(); Turns--) {
        const uint32_t Index = RingSetFront(&S.Rings);
        RingSetEntry &E = S.Rings.Rings[Index];
        linxd_signal_header Header;
        const char *pWhy = nullptr;
        const Parked Result = jParkUnselected(S, E, &Sel, jOneRing(E), &Header, &pWhy);
        if (Result == Parked::Broken)
            jRefuseRing(S, Index, E.Writer, pWhy);
        if (Result == Parked::Full)
            jHoldRing(S, Index);
        if (Result == Parked::Reached)
            RingSetRotate(&S.Rings);
        if (Result != Parked::Selected)
            continue;
        if (Header.size > pRec->size)
            return jTooLarge(pRec, Header.size);
        memcpy((void *)(uintptr_t)pRec->buffer, linxd_ring_payload(&E.Reader), Header.size);
        jFillRecord(pRec, Header, pRec->buffer);
        linxd_ring_advance(&E.Reader, Header.size);
        RingSetGaveRoom(&E);
        S.PeerCpu = (int)__atomic_load_n(&E.Reader.header->writer_cpu, __ATOMIC_RELAXED);
        S.bPeerIsLinxd = E.RoomFd >= 0;
        jCountTaken(S, Header.size);
        RingSetRotate(&S.Rings);
        return (int)Header.size;
    }
    errno = EAGAIN;
    return -1;
}

// Rings linxd retired (their senders closed their last socket, died, or
// gave them up): what they still hold moves to the local queue, then they
// go; one that does not fit in the queue stays, held, until it does (and
// is not tried again before).
void jTakeRetired(StandinSocket &S)
{
    RingSetTakeRetired(&S.Rings, [](void *pSocket, uint32_t Index) {
        StandinSocket &Owner = *(StandinSocket *)pSocket;
        RingSetEntry &E = Owner.Rings.Rings[Index];
        return E.Place != RingPlace::Held && jParkRing(Owner, Index, jOneRing(E));
    }, &S);
}

// Whether the ring has been read to the mark (or is gone); moves what is
// before the mark to the local queue if the queue has room.
bool jPassMark(StandinSocket &S, const RingMark &Mark)
{
    if (RingSetReached(&S.Rings, Mark))
        return true;
    RingSetEntry *pE = RingSetFind(&S.Rings, Mark.Index);
    if (pE->Place == RingPlace::Held || !jParkRing(S, Mark.Index, Mark.Position))
        return false;
    pE = RingSetFind(&S.Rings, Mark.Index);
    return RingSetReached(&S.Rings, Mark) || !linxd_ring_waiting(&pE->Reader); // read to its end: a mark beyond it is passed
}

// Queues the attach signals whose rings have been read to their marks, in
// the order they came.
void jPassBarriers(StandinSocket &S)
{
    while (!S.AfterRings.empty()) {
        std::vector<RingMark> &Marks = S.AfterRings.front().Marks;
        Marks.erase(std::remove_if(Marks.begin(), Marks.end(), [&S](const RingMark &M) { return jPassMark(S, M); }),
                    Marks.end());
        if (!Marks.empty())
            return;
        StandinEnqueue(S, std::move(S.AfterRings.front().Signal), false);
        S.AfterRings.pop_front();
    }
}

// An attach signal: it is queued once every ring has been read as far as
// it held when the signal came (at most a ring's worth more), so that it
// never overtakes the last signals of the socket whose end it tells of.
void jAfterRings(StandinSocket &S, Pending &&Signal)
{
    jTakeRetired(S);
    RingSetCollect(&S.Rings);
    RingBarrier Barrier;
    Barrier.Signal = std::move(Signal);
    auto MarkRing = [&](uint32_t Index) {
        RingMark Mark;
        if (RingSetMarkNow(&S.Rings, Index, &Mark))
            Barrier.Marks.push_back(Mark);
    };
    std::for_each(S.Rings.Turns.begin(), S.Rings.Turns.end(), MarkRing);
    std::for_each(S.Rings.Held.begin(), S.Rings.Held.end(), MarkRing);
    S.AfterRings.push_back(std::move(Barrier));
    jPassBarriers(S);
}

// Arms the bell when the rings hold nothing, so that the next sender rings
// it (silencing what rang before): false then.  true when a signal waits
// in a ring, or came while the bell was armed (then the bell is rung again
// and stays readable).  Costs no system call while the rings are busy or
// the bell is already armed and silent.
bool jSettleBell(StandinSocket &S, bool bRang)
{
    if (RingSetWaiting(&S.Rings))
        return true;
    if (!bRang && RingSetArmed(&S.Rings))
        return false;
    linxd_bell_silence(S.BellFd);
    if (!RingSetArm(&S.Rings))
        return false;
    const uint64_t One = 1;
    (void)!write(S.BellFd, &One, sizeof One);
    return true;
}

// Makes the descriptor exact for a caller that polls it: readable while a
// signal waits (the queue's eventfd, the bell), not readable otherwise.
void jSettleForPollers(StandinSocket &S, bool bRang)
{
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        jSettleReady_NeedsLock(S);
    }
    if (S.bWatched && jSettleBell(S, bRang)) {
        const uint64_t One = 1; // a ring holds a signal: the bell must say so
        (void)!write(S.BellFd, &One, sizeof One);
    }
}

// Whether the socket's owner is inside a receive; kept only for a watched
// socket (bWatched changes on the owner's thread alone, which reads it
// without the mutex).
void jSetReceiving(StandinSocket &S, bool bReceiving)
{
    if (!S.bWatched)
        return;
    std::lock_guard<std::mutex> Lock(S.Mutex);
    S.bReceiving = bReceiving;
}

// Ends a receive with Result (errno kept).
int jLeave(StandinSocket &S, bool bRang, int Result)
{
    const int Error = errno;
    jSetReceiving(S, false);
    if (S.bWatched)
        jSettleForPollers(S, bRang);
    errno = Error;
    return Result;
}

// ---- The outlet ------------------------------------------------------------------

// A ring linxd announced for this socket, at an index of its rings.
// The set owns the room bell (RoomFd, when not -1) from here on.
void jAdoptRing(StandinSocket &S, const linxd_signal_header &Header, const char *pPayload, int Fd, int RoomFd)
{
    uint32_t Words[2] = {0, LINXD_MAX_RINGS_PER_SOCKET}; // the writer, the ring's index
    if (Header.size == sizeof Words)
        memcpy(Words, pPayload, sizeof Words);
    const char *pWhy = nullptr;
    if (!RingSetAdopt(&S.Rings, Words[1], Fd, RoomFd, (pid_t)Words[0], S.QueueBytes, &pWhy)) {
        const std::string Source = "process " + std::to_string(Words[0]);
        RefusalSay(&gRefusals, Source, pWhy, "linx: refused the signal ring of " + Source + ": " + pWhy);
    }
}

// Reads what linxd put in the outlet: announced rings are adopted, signals
// queued locally.  Skipped while linxd's count says
// nothing came (unless bForce: the outlet was seen readable).  Returns 0,
// or -1 with ENOTCONN when linxd is gone.
int jPullOutlet(StandinSocket &S, bool bForce)
{
    const uint32_t Hint = __atomic_load_n(&S.pSlots[S.Slot].outlet_signals, __ATOMIC_ACQUIRE);
    if (!bForce && Hint == S.OutletHint)
        return 0;
    S.OutletHint = Hint;
    // linxd's own signals, and signals that came over links (any size).
    thread_local std::vector<char> Buffer(sizeof(linxd_signal_header) + LINXD_MAX_SIGNAL_BYTES);
    for (;;) {
        linxd_signal_header Header;
        struct iovec Iov[2] = {{&Header, sizeof Header}, {Buffer.data(), Buffer.size()}};
        char Control[CMSG_SPACE(2 * sizeof(int))];
        struct msghdr Msg = {};
        Msg.msg_iov = Iov;
        Msg.msg_iovlen = 2;
        Msg.msg_control = Control;
        Msg.msg_controllen = sizeof Control;
        const ssize_t Got = recvmsg(S.OutletFd, &Msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (Got < 0)
            return errno == EAGAIN ? 0 : -1;
        int Fds[2] = {-1, -1}; // a ring, and linxd's room bell with its own
        linxd_take_fds(&Msg, Fds, 2);
        if (Got == 0) {
            errno = ENOTCONN; // linxd closed its end: it is gone
            return -1;
        }
        const uint64_t PayloadBytes = (uint64_t)Got - sizeof Header;
        const bool bMalformed = (size_t)Got < sizeof Header + sizeof(uint32_t) ||
                                (Msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) || Header.size != PayloadBytes ||
                                Header.to != S.Spid;
        const bool bAnnouncement = !bMalformed && Header.attributes == LINXD_ANNOUNCE_RING;
        if (bMalformed)
            fprintf(stderr, "linx: dropped a malformed datagram of %zd bytes from linxd\n", Got);
        if (bAnnouncement) {
            jAdoptRing(S, Header, Buffer.data(), Fds[0], Fds[1]);
            Fds[1] = -1;
        }
        StandinCloseIf(Fds[0]);
        StandinCloseIf(Fds[1]);
        if (bMalformed || bAnnouncement)
            continue;
        Pending Entry;
        Entry.Header = Header;
        Entry.Header.attributes &= ~LINXD_AFTER_RINGS;
        Entry.Data.assign(Buffer.data(), Header.size);
        if (Header.attributes & LINXD_AFTER_RINGS)
            jAfterRings(S, std::move(Entry));
        else
            StandinEnqueue(S, std::move(Entry), false);
    }
}

int jRemainingMs(uint32_t Tmo, const struct timespec &Start)
{
    if (Tmo == kForever)
        return -1;
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    const int64_t Elapsed = (Now.tv_sec - Start.tv_sec) * 1000LL + (Now.tv_nsec - Start.tv_nsec) / 1000000;
    return Elapsed >= Tmo ? 0 : (int)(Tmo - Elapsed);
}

int jTimedOut(struct linx_transfer_rec *pRec)
{
    const uint32_t Zero = 0;
    memcpy((void *)(uintptr_t)pRec->buffer, &Zero, sizeof Zero);
    pRec->tmo = 0;
    return 0;
}

// Waits for the outlet, the bell, a local arrival or linxd's end.  Returns
// 1 to look again, 0 on timeout, -1 with errno (EINTR, or ENOTCONN when
// linxd is gone).  A signal queued locally since the caller looked (Seen)
// ends the wait at once: its sender saw no waiter and rang no bell.
int jWait(StandinSocket &S, int TimeoutMs, uint64_t Seen, bool *pOutletReady, bool *pRang)
{
    StandinMakeSpareRing(S.QueueBytes); // idle time: the next new route need not make one
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        if (S.Pushes.load(std::memory_order_relaxed) != Seen)
            return 1;
        S.bWaiting = true;
    }
    struct epoll_event Events[4];
    const int Ready = epoll_wait(S.WaitFd, Events, 4, TimeoutMs);
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        S.bWaiting = false;
    }
    if (Ready < 0)
        return -1;
    bool bReady[4] = {false, false, false, false}; // outlet, arrival, bell, linxd's connection
    for (int i = 0; i < Ready; i++)
        bReady[Events[i].data.u32 & 3] = true;
    if (bReady[1])
        linxd_bell_silence(S.ArrivalFd);
    *pOutletReady = bReady[0];
    *pRang = bReady[2];
    // What reached the queues before linxd went is still taken.
    if (bReady[0] || bReady[1] || bReady[2])
        return 1;
    if (bReady[3]) {
        errno = ENOTCONN; // linxd never writes unasked: it is gone
        return -1;
    }
    return Ready > 0 ? 1 : 0;
}

// Whether something came for S since the caller looked (Seen).
bool jSomethingCame(StandinSocket &S, uint64_t Seen)
{
    return S.Pushes.load(std::memory_order_relaxed) != Seen || RingSetWaiting(&S.Rings) ||
           __atomic_load_n(&S.pSlots[S.Slot].outlet_signals, __ATOMIC_RELAXED) != S.OutletHint;
}

void jRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

int64_t jNanosSince(const struct timespec &Start)
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return (Now.tv_sec - Start.tv_sec) * 1000000000LL + (Now.tv_nsec - Start.tv_nsec);
}

// A peer that answers within microseconds is best waited for awake: it
// spares both sides a sleep and a wake-up.  The clock is read every 16
// looks.  Returns true when something came.
bool jSpin(StandinSocket &S, uint64_t Seen, int64_t BudgetNs)
{
    struct timespec Start;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    for (int Look = 1;; Look++) {
        if (jSomethingCame(S, Seen))
            return true;
        if (Look % 16 == 0 && jNanosSince(Start) >= BudgetNs)
            return false;
        jRelax();
    }
}

// Looks for a while before the receive sleeps, when the peer that wrote
// last ran on another CPU (one on this CPU is woken when this receive
// sleeps, or preempts it when its signal rings the bell).  How long adapts
// to the peers: a look that caught its signal doubles the next one, one
// that did not halves it, down to an eighth, and every 64th sleep the
// whole kStandinSpinNs is tried again, so that a peer that became quick
// is found out.  What comes across a link (in linxd's ring) is not looked
// for: its answer takes tens of microseconds and both nodes' linxd to run,
// and a thread that spent that long looking is, to the kernel's EEVDF
// scheduler, one that used its share: woken behind a busy process on its
// CPU, it waits for that process's whole time slice (4 ms), where one that
// slept at once is run in microseconds.  Returns true when something came.
bool jLookBeforeSleeping(StandinSocket &S, uint64_t Seen)
{
    if (S.bPeerIsLinxd || S.PeerCpu == sched_getcpu())
        return false;
    const int64_t Budget = (S.Sleeps % 64 == 0) ? kStandinSpinNs : S.SpinNs;
    if (jSpin(S, Seen, Budget)) {
        S.SpinNs = std::min(Budget * 2, kStandinSpinNs);
        return true;
    }
    S.SpinNs = std::max(Budget / 2, kStandinSpinNs / 8);
    S.Sleeps++;
    return false;
}

// ---- The process-local queue ----------------------------------------------


} // namespace

int StandinReceive(StandinSocket &S, struct linx_transfer_rec *pRec)
{
    if (S.Spid == 0) {
        errno = ENOTCONN;
        return -1;
    }
    const int32_t *pSigselect = (const int32_t *)(uintptr_t)pRec->sigselect;
    if (pSigselect != nullptr &&
        (pRec->sigselect_size < sizeof(int32_t) ||
         pRec->sigselect_size < (std::abs((int64_t)pSigselect[0]) + 1) * sizeof(int32_t))) {
        errno = EINVAL;
        return -1;
    }
    RefusalFlush(&gRefusals);
    StandinForgetClosedRoutes(S);
    const Selection Sel = {pSigselect, pRec->from};
    struct timespec Start;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    jSetReceiving(S, true);
    bool bOutletReady = false, bRang = false;
    for (;;) {
        jLetGoHeld(S);
        jTakeRetired(S);
        jPassBarriers(S);
        const bool bLinxdGone = jPullOutlet(S, bOutletReady) != 0;
        uint64_t Seen = 0;
        int Result = jTakeQueued(S, Sel, pRec, &Seen);
        if (Result < 0)
            Result = jTakeFromRings(S, Sel, pRec);
        if (Result >= 0)
            return jLeave(S, bRang, Result);
        if (bLinxdGone) {
            errno = ENOTCONN;
            return jLeave(S, bRang, -1);
        }
        if (pRec->tmo != 0 && jLookBeforeSleeping(S, Seen))
            continue;
        if (jSettleBell(S, bRang)) // the bell must ring while this receive sleeps
            continue;
        const int Waited = jWait(S, jRemainingMs(pRec->tmo, Start), Seen, &bOutletReady, &bRang);
        if (Waited <= 0)
            return jLeave(S, bRang, Waited == 0 ? jTimedOut(pRec) : -1);
    }
}

// Queues a signal for S unless S is closed or, when bLimit is set, its
// queue is full (errno ECONNRESET or ENOBUFS then).  Wakes a waiting
// receiver.  Any thread of the process may queue.
bool StandinEnqueue(StandinSocket &S, Pending &&Entry, bool bLimit)
{
    bool bQueued = false;
    bool bWake = false;
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        if (S.bClosed) {
            errno = ECONNRESET;
        } else if (bLimit && S.QueuedBytes + Entry.Header.size > S.QueueBytes) {
            errno = ENOBUFS;
        } else {
            S.QueuedBytes += Entry.Header.size;
            // Pushes moves last: a receiver that sees it has moved sees the
            // signal in the queue too.
            const uint64_t Seq = S.Pushes.load(std::memory_order_relaxed) + 1;
            Entry.Seq = Seq;
            S.Queue.push_back(std::move(Entry));
            S.QueueLength.fetch_add(1, std::memory_order_relaxed);
            S.Pushes.store(Seq, std::memory_order_release);
            jSettleReady_NeedsLock(S);
            bWake = S.bWaiting;
            S.bWaiting = false;
            bQueued = true;
        }
    }
    if (!bQueued)
        return false;
    if (bWake) {
        uint64_t One = 1;
        (void)!write(S.ArrivalFd, &One, sizeof One);
    }
    return true;
}

void StandinWatch(StandinSocket &S)
{
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        S.bWatched = true;
    }
    jSettleForPollers(S, true);
}

void StandinFreePending(Pending &Entry)
{
    if (Entry.pTaken != nullptr)
        linx_release_taken_buffer(Entry.pTaken);
    Entry.pTaken = nullptr;
}

void StandinRefusalsAtFork(ForkStage Stage)
{
    if (Stage == ForkStage::Prepare)
        gRefusals.Mutex.lock();
    else if (Stage == ForkStage::Parent)
        gRefusals.Mutex.unlock();
    else
        StandinRenewInChild(&gRefusals.Mutex);
}
