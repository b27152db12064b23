// SPDX-License-Identifier: Apache-2.0
// Sending: the routes of this process (one ring into each socket it sends
// to, made on the first send and cached) and the send itself, a copy into
// the ring and a store.  Sends to a socket of this process hand the buffer
// over instead.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <unordered_map>

#include "standin_socket.h"

namespace {

constexpr size_t kRouteCacheLimit = 1024; // routes kept before idle ones are given up

// The ring this process writes into one receiving socket, shared by the
// process's senders (they take turns under Mutex), with what the receiver
// gave for it: its bell, its ready set and the ring's index there.
// Unmapped when the last of its senders lets go.
struct Route {
    Route(const linxd_ring_writer &RingWriter, int Bell, linxd_ready_set *pReadySet, uint32_t TargetSlot,
          uint32_t RingIndex)
        : Writer(RingWriter), BellFd(Bell), pReady(pReadySet), Slot(TargetSlot), Index(RingIndex)
    {
    }
    Route(const Route &) = delete;
    Route &operator=(const Route &) = delete;
    ~Route()
    {
        munmap(Writer.header, sizeof *Writer.header + Writer.capacity);
        munmap(pReady, sizeof *pReady);
        close(BellFd);
    }
    linxd_ring_writer Writer;          // its tail under Mutex
    const int BellFd;
    linxd_ready_set *const pReady;
    const uint32_t Slot;
    const uint32_t Index;
    std::mutex Mutex;
    std::atomic<bool> bGone{false};    // given up: never written again
};
using RouteRef = std::shared_ptr<Route>;


std::mutex gRouteMutex;
std::unordered_map<InstanceSpid, RouteRef, InstanceSpidHash> gRoutes;
// Only one route is opened at a time, so that linxd never sees two rings
// of this process into one socket: it would retire the first.  It also
// guards the spare ring.
std::mutex gOpenRouteMutex;

// A ring made before it is needed (when a receive is about to sleep, or
// when the process opens its first socket), so that the first signal to a
// new peer, and the peer's first answer, do not wait for one to be made.
struct SpareRing {
    int Fd = -1;
    linxd_ring_header *pHeader = nullptr;
    uint64_t Capacity = 0;
};
SpareRing gSpare;
std::atomic<bool> gbSpareReady{false};


// A ring of this instance's size in a memory file sealed against resizing,
// so that no process can pull pages from under the receiver's mapping.
int jMakeRing(uint64_t Capacity, linxd_ring_header **ppHeader)
{
    const uint64_t Bytes = sizeof(linxd_ring_header) + Capacity;
    const int Fd = memfd_create("linx-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (Fd < 0)
        return -1;
    void *p = MAP_FAILED;
    if (ftruncate(Fd, (off_t)Bytes) == 0 && fcntl(Fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0)
        p = mmap(nullptr, Bytes, PROT_READ | PROT_WRITE, MAP_SHARED, Fd, 0);
    if (p == MAP_FAILED) {
        const int Error = errno;
        close(Fd);
        errno = Error;
        return -1;
    }
    *ppHeader = (linxd_ring_header *)p;
    (*ppHeader)->magic = LINXD_RING_MAGIC;
    (*ppHeader)->capacity = Capacity;
    return Fd;
}

// A ring of Capacity: the spare when it fits (gOpenRouteMutex held), else
// a new one.
int jTakeRing(uint64_t Capacity, linxd_ring_header **ppHeader)
{
    if (gSpare.Fd < 0 || gSpare.Capacity != Capacity)
        return jMakeRing(Capacity, ppHeader);
    const int Fd = gSpare.Fd;
    *ppHeader = gSpare.pHeader;
    gSpare = SpareRing();
    gbSpareReady = false;
    return Fd;
}

void jDropSpare_NeedsLock()
{
    if (gSpare.Fd >= 0) {
        munmap(gSpare.pHeader, sizeof *gSpare.pHeader + gSpare.Capacity);
        close(gSpare.Fd);
    }
    gSpare = SpareRing();
    gbSpareReady = false;
}

// Makes a ring for To with the first signal already in it, and has linxd
// announce it to To's owner: the receiver reads the signal as soon as the
// ring reaches it, while this process still waits for linxd's reply.  A
// route that linxd refuses takes the signal with it.
RouteRef jOpenRoute(const StandinSocket &S, uint32_t To, const linxd_signal_header &First, const void *pPayload)
{
    linxd_ring_writer Writer = {};
    Writer.capacity = linxd_ring_capacity(S.QueueBytes);
    const int RingFd = jTakeRing(Writer.capacity, &Writer.header);
    if (RingFd < 0)
        return nullptr;
    Writer.data = (char *)(Writer.header + 1);
    linxd_ring_write(&Writer, &First, pPayload);
    StandinRequest C;
    C.PassFd = RingFd;
    const int Result = StandinNumbersCall(S.ConnFd, &C, LINXD_OP_OPEN_ROUTE, To);
    const int Error = errno;
    close(RingFd);
    auto *pReady = Result == 0 ? (linxd_ready_set *)linxd_map_region(C.Fds[1], sizeof(linxd_ready_set)) : nullptr;
    StandinCloseIf(C.Fds[1]);
    if (Result == 0 && (C.Fds[0] < 0 || pReady == nullptr || C.Reply.value[0] >= LINXD_MAX_SOCKETS ||
                        C.Reply.value[1] >= LINXD_MAX_RINGS_PER_SOCKET)) {
        StandinCloseIf(C.Fds[0]);
        if (pReady != nullptr)
            munmap(pReady, sizeof *pReady);
        errno = EPROTO;
    } else {
        errno = Error;
    }
    if (Result != 0 || errno == EPROTO) {
        munmap(Writer.header, sizeof *Writer.header + Writer.capacity);
        return nullptr;
    }
    return std::make_shared<Route>(Writer, C.Fds[0], pReady, C.Reply.value[0], C.Reply.value[1]);
}

bool jRingIsEmpty(const Route &R)
{
    const linxd_ring_header *pRing = R.Writer.header;
    return __atomic_load_n(&pRing->head, __ATOMIC_ACQUIRE) == __atomic_load_n(&pRing->tail, __ATOMIC_RELAXED);
}

// A route this process gave up: linxd retires its ring once read.
struct GivenUp {
    InstanceSpid To;
    uint32_t Index;
};

// Makes room in a full cache by giving up routes nobody uses whose rings
// were read to the end (gRouteMutex held): a route with signals still in
// its ring is kept, so a later one never overtakes them.
std::vector<GivenUp> jTrimRoutes()
{
    std::vector<GivenUp> Trimmed;
    if (gRoutes.size() < kRouteCacheLimit)
        return Trimmed;
    for (auto It = gRoutes.begin(); It != gRoutes.end();) {
        const bool bIdle = It->second.use_count() == 1 && jRingIsEmpty(*It->second);
        if (bIdle) {
            It->second->bGone = true;
            Trimmed.push_back({It->first, It->second->Index});
        }
        It = bIdle ? gRoutes.erase(It) : std::next(It);
    }
    return Trimmed;
}

// Tells linxd which rings this process gave up.  Routes learnt from an
// earlier linxd are merely forgotten: their instance is gone.
void jCloseRoutes(const StandinSocket &S, const std::vector<GivenUp> &Routes)
{
    for (const GivenUp &R : Routes)
        if (R.To.Generation == S.Generation)
            StandinSimpleCall(S.ConnFd, LINXD_OP_CLOSE_ROUTE, R.To.Spid, R.Index, nullptr);
}

RouteRef jFindRoute(InstanceSpid Key)
{
    std::lock_guard<std::mutex> Lock(gRouteMutex);
    auto It = gRoutes.find(Key);
    return It == gRoutes.end() ? nullptr : It->second;
}

// The route to To; a new one carries the first signal (*pbSent set then).
RouteRef jRouteTo(StandinSocket &S, uint32_t To, const linxd_signal_header &First, const void *pPayload,
                  bool *pbSent)
{
    const InstanceSpid Key = {S.Generation, To};
    if (RouteRef pRoute = jFindRoute(Key))
        return pRoute;
    StandinForgetClosedRoutes(S);
    std::lock_guard<std::mutex> Opening(gOpenRouteMutex);
    if (RouteRef pRoute = jFindRoute(Key)) // another thread opened it meanwhile
        return pRoute;
    RouteRef pRoute = jOpenRoute(S, To, First, pPayload);
    if (pRoute == nullptr)
        return nullptr;
    *pbSent = true;
    std::vector<GivenUp> Trimmed;
    {
        std::lock_guard<std::mutex> Lock(gRouteMutex);
        gRoutes[Key] = pRoute;
        Trimmed = jTrimRoutes();
    }
    jCloseRoutes(S, Trimmed);
    return pRoute;
}

void jForgetRoute(InstanceSpid To, const RouteRef &pRoute)
{
    pRoute->bGone = true;
    std::lock_guard<std::mutex> Lock(gRouteMutex);
    auto It = gRoutes.find(To);
    if (It != gRoutes.end() && It->second == pRoute)
        gRoutes.erase(It);
}

// Delivery within the process: the receiver adopts the sender's buffer.
int jSendLocal(StandinSocket &From, StandinSocket &To, const struct linx_transfer_rec *pRec)
{
    Pending Entry;
    Entry.Header = {pRec->from, pRec->to, pRec->size, pRec->attributes};
    Entry.pTaken = (void *)(uintptr_t)pRec->buffer;
    Entry.Cpu = sched_getcpu();
    linxd_counters &Target = StandinCounters(To);
    StandinCountQueued(&Target, 1);
    if (!StandinEnqueue(To, std::move(Entry), true)) {
        const int Error = errno;
        StandinCountQueued(&Target, -1);
        if (Error == ENOBUFS)
            StandinCount(&Target.refused_sends, 1);
        errno = Error;
        return -1;
    }
    StandinCountSent(From, pRec->size);
    return 1;
}

// Writes the signal into the route's ring; counted as queued before the
// receiver can take it.
bool jWriteEntry(Route &R, const linxd_signal_header &Header, const void *pPayload, linxd_counters &Target)
{
    std::lock_guard<std::mutex> Lock(R.Mutex);
    StandinCountQueued(&Target, 1);
    if (linxd_ring_write(&R.Writer, &Header, pPayload))
        return true;
    StandinCountQueued(&Target, -1);
    return false;
}

int jSendRemote(StandinSocket &S, const struct linx_transfer_rec *pRec)
{
    const linxd_signal_header Header = {pRec->from, pRec->to, pRec->size, pRec->attributes};
    const void *pPayload = (const void *)(uintptr_t)pRec->buffer;
    bool bSent = false;
    RouteRef pRoute = jRouteTo(S, pRec->to, Header, pPayload, &bSent);
    if (pRoute == nullptr)
        return -1;
    Route &R = *pRoute;
    linxd_counters &Target = R.pReady->counters;
    // A slot that no longer names the receiver was cleared or handed on by
    // linxd: the receiver closed.  An endpoint behind a link may take less
    // than this node (its slot says how much; linxd checked a first signal).
    const linxd_slot &Slot = S.pSlots[R.Slot];
    if (!bSent && (R.bGone || __atomic_load_n(&Slot.spid, __ATOMIC_ACQUIRE) != pRec->to)) {
        jForgetRoute({S.Generation, pRec->to}, pRoute);
        errno = ECONNRESET;
        return -1;
    }
    if (!bSent && pRec->size > __atomic_load_n(&Slot.largest_signal, __ATOMIC_RELAXED)) {
        errno = EMSGSIZE;
        return -1;
    }
    if (bSent) {
        StandinCountQueued(&Target, 1); // the receiver may have taken it already
    } else if (!jWriteEntry(R, Header, pPayload, Target)) {
        StandinCount(&Target.refused_sends, 1);
        errno = ENOBUFS;
        return -1;
    }
    if (linxd_ready_mark(R.pReady, R.Writer.header, R.Index)) {
        const uint64_t One = 1;
        (void)!write(R.BellFd, &One, sizeof One);
    }
    StandinCountSent(S, pRec->size);
    return 0;
}

} // namespace

// Lets the routes to sockets that closed go, once linxd says that one of
// them did: a server that answered many clients that left keeps no ring
// for any of them.
void StandinForgetClosedRoutes(StandinSocket &S)
{
    const uint32_t Gone = __atomic_load_n(&S.pSlots[S.Slot].routes_gone, __ATOMIC_ACQUIRE);
    if (Gone == S.RoutesGoneHint)
        return;
    S.RoutesGoneHint = Gone;
    std::lock_guard<std::mutex> Lock(gRouteMutex);
    for (auto It = gRoutes.begin(); It != gRoutes.end();) {
        const bool bClosed = It->first.Generation == S.Generation &&
                             __atomic_load_n(&S.pSlots[It->second->Slot].spid, __ATOMIC_ACQUIRE) != It->first.Spid;
        if (bClosed)
            It->second->bGone = true;
        It = bClosed ? gRoutes.erase(It) : std::next(It);
    }
}

// The process closed its last socket: linxd retires every ring it made,
// and a socket it opens later makes new ones.
void StandinForgetAllRoutes()
{
    std::lock_guard<std::mutex> Lock(gRouteMutex);
    for (const auto &Entry : gRoutes)
        Entry.second->bGone = true;
    gRoutes.clear();
}

int StandinSend(StandinSocket &S, const struct linx_transfer_rec *pRec)
{
    if (S.Spid == 0) {
        errno = ENOTCONN;
        return -1;
    }
    if (pRec->size > linxd_largest_signal(S.QueueBytes)) {
        errno = EMSGSIZE; // larger than half a queue of this instance
        return -1;
    }
    // The socket of this process sent to last is kept: a thread that talks
    // to another looks it up once (a closed one refuses at its queue).
    if (S.LastLocalSpid != pRec->to) {
        S.LastLocal = StandinFindBySpid({S.Generation, pRec->to});
        S.LastLocalSpid = S.LastLocal != nullptr ? pRec->to : 0;
    }
    if (S.LastLocal != nullptr)
        return jSendLocal(S, *S.LastLocal, pRec);
    return jSendRemote(S, pRec);
}

void StandinMakeSpareRing(uint32_t QueueBytes)
{
    if (gbSpareReady.load(std::memory_order_relaxed))
        return;
    std::lock_guard<std::mutex> Lock(gOpenRouteMutex);
    if (gSpare.Fd >= 0)
        return;
    gSpare.Capacity = linxd_ring_capacity(QueueBytes);
    gSpare.Fd = jMakeRing(gSpare.Capacity, &gSpare.pHeader);
    gbSpareReady = gSpare.Fd >= 0;
}

void StandinRoutesAtFork(ForkStage Stage)
{
    if (Stage == ForkStage::Prepare) {
        gOpenRouteMutex.lock();
        gRouteMutex.lock();
    } else if (Stage == ForkStage::Parent) {
        gRouteMutex.unlock();
        gOpenRouteMutex.unlock();
    } else {
        StandinRenewInChild(&gRouteMutex);
        StandinRenewInChild(&gOpenRouteMutex);
        gRoutes.clear(); // the parent's rings have one writer, the parent: the child makes its own
        jDropSpare_NeedsLock();
    }
}
