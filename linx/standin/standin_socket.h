/* SPDX-License-Identifier: Apache-2.0 */
/*
 * standin_socket.h - what the three parts of the linxd stand-in's
 * client share: the record of an emulated socket, the calls to linxd, and
 * the steps one part takes for another.
 *
 *   standin.cc          reaching linxd, opening and closing sockets,
 *                            requests, the socket tables and fork
 *   standin_send.cc     routes (the rings this process writes) and
 *                            sending
 *   standin_receive.cc  the process-local queue, the rings a socket
 *                            reads, the outlet, waiting and receiving
 *
 * Locks are listed in standin.h.  Everything here is private to the
 * library.
 */
#ifndef LINX_STANDIN_SOCKET_H
#define LINX_STANDIN_SOCKET_H

#include <stdint.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#include "linx_module.h"
#include "protocol.h"
#include "ring_set.h"

// A signal waiting in the process-local queue: either taken from the outlet
// (Data holds it) or handed over by a sender of this process (pTaken is the
// sender's payload, delivered without a copy).
struct Pending {
    linxd_signal_header Header;
    uint64_t Seq = 0;    // its place among all signals ever queued here
    void *pTaken = nullptr;
    std::string Data;
    int Cpu = -1;        // where its sender ran, when it is a thread of this process
};

// An attach signal that waits until the rings have been read as far as
// they held when it came.
struct RingBarrier {
    Pending Signal;
    std::vector<RingMark> Marks;
};

// The longest a receive with nothing to take keeps looking before it
// sleeps.  It looks without yielding the processor: a process that yields
// while another is runnable on its core may not run again for a whole
// time slice (4 ms with the kernel's EEVDF scheduler).
constexpr int64_t kStandinSpinNs = 20000;

struct StandinSocket {
    int PollFd = -1;     // the descriptor callers see: epoll of Outlet, Ready and Bell
    int ConnFd = -1;     // control connection to linxd
    int OutletFd = -1;   // linxd's signals and ring announcements
    int BellFd = -1;     // eventfd senders ring when this socket armed it
    int ReadyFd = -1;    // eventfd, readable while Queue is not empty (once watched)
    int ArrivalFd = -1;  // eventfd, wakes a receive waiting for a local send
    int WaitFd = -1;     // epoll of what a receive waits for: Outlet, Arrival, Bell, Conn
    uint32_t Spid = 0;
    uint32_t Slot = 0;
    uint32_t QueueBytes = 0;
    uint64_t Generation = 0;      // of the linxd instance that gave the SPID
    const linxd_slot *pSlots = nullptr; // linxd's slots, read only
    // Owned by the handle's thread alone:
    RingSet Rings;                // the rings senders of other processes write
    std::shared_ptr<StandinSocket> LastLocal; // the socket of this process sent to last
    uint32_t LastLocalSpid = 0;
    int PeerCpu = -1;             // where the sender of the last signal taken ran (-1: unknown)
    bool bPeerIsLinxd = false;    // the last signal taken came across a link
    int64_t SpinNs = kStandinSpinNs; // how long the next receive looks before it sleeps
    uint32_t Sleeps = 0;          // receives that slept, to try a whole spin now and then
    uint32_t OutletHint = 0;      // linxd's count of outlet datagrams when last read
    uint32_t RoutesGoneHint = 0;  // linxd's count of closed receivers when last looked
    std::deque<RingBarrier> AfterRings; // attach signals waiting for the rings, in order

    std::mutex Mutex;             // guards everything below
    std::deque<Pending> Queue;     // in Seq order
    std::atomic<size_t> QueueLength{0}; // Queue's size, for a look without the mutex
    uint64_t QueuedBytes = 0;
    // The selection of the last receive that found nothing in Queue, and the
    // Pushes it had seen: a receive with the same selection looks only at
    // what came after, so waiting costs nothing for what it already skipped.
    std::vector<int32_t> ScannedSel; // count and numbers; empty: none kept
    uint32_t ScannedFrom = 0;
    uint64_t ScannedSeq = 0;
    std::atomic<uint64_t> Pushes{0}; // signals ever queued: tells a waiter what it missed
    bool bWaiting = false;
    bool bClosed = false;
    // A caller polls PollFd: outside a receive, ReadyFd holds a count
    // exactly while Queue is not empty (bReadySignalled), and the bell is
    // armed while the rings hold nothing.  Inside a receive, and for a
    // socket nobody watches, neither is kept up.
    bool bWatched = false;
    bool bReceiving = false;
    bool bReadySignalled = false;

    // Senders of this process may still hold the record after its close:
    // what they touch lives until the last of them lets go.
    ~StandinSocket()
    {
        for (int Fd : {ReadyFd, ArrivalFd, BellFd, WaitFd})
            if (Fd >= 0)
                close(Fd);
        if (pSlots != nullptr)
            munmap((void *)pSlots, LINXD_REGION_BYTES);
        RingSetFree(&Rings);
    }
};

using SocketRef = std::shared_ptr<StandinSocket>;


// A SPID names a socket only within the linxd instance that handed it out:
// a linxd that starts after another died counts SPIDs from the start again,
// while sockets of the old one may live on.  What the process keeps by SPID
// it keeps under the instance's generation as well.
struct InstanceSpid {
    uint64_t Generation;
    uint32_t Spid;
    bool operator==(const InstanceSpid &Other) const
    {
        return Generation == Other.Generation && Spid == Other.Spid;
    }
};

struct InstanceSpidHash {
    size_t operator()(const InstanceSpid &Key) const
    {
        return std::hash<uint64_t>()(Key.Generation * 0x9E3779B97F4A7C15ull + Key.Spid);
    }
};

// One request to linxd and its reply.  A descriptor may go with the
// request; up to five may come back (closed when the caller passes no room
// for them).
struct StandinRequest {
    linxd_request Request = {LINXD_PROTOCOL_MAGIC, 0, {0, 0}, 0, 0};
    const void *pName = nullptr;
    const void *pSignal = nullptr;
    int PassFd = -1;
    linxd_reply Reply = {};
    char Data[LINXD_MAX_NAME_CHARS + 256];
    int Fds[5] = {-1, -1, -1, -1, -1};
};

// The moments of a fork() each part takes care of (standin.cc
// registers them once).
enum class ForkStage { Prepare, Parent, Child };

// Makes a lock that the forking thread took at Prepare new again in the
// child.  It is built afresh rather than unlocked: a read-write lock tells
// its writer by thread id, which the child's one thread does not share, so
// an unlock there would take the reader's path.  ThreadSanitizer, which
// does not see the rebuild, is told that the lock was let go.
template <typename Lock> void StandinRenewInChild(Lock *pLock)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_mutex_pre_unlock(pLock, 0);
    __tsan_mutex_post_unlock(pLock, 0);
#endif
    new (pLock) Lock();
}

// The statistics of a socket of this process (in its ready set).
inline linxd_counters &StandinCounters(StandinSocket &S)
{
    return S.Rings.pReady->counters;
}

inline void StandinCount(uint64_t *pCounter, uint64_t Amount)
{
    __atomic_add_fetch(pCounter, Amount, __ATOMIC_RELAXED);
}

inline void StandinCountQueued(linxd_counters *pCounters, int64_t Delta)
{
    __atomic_add_fetch(&pCounters->queued, Delta, __ATOMIC_RELAXED);
}

inline void StandinCountSent(StandinSocket &S, uint32_t Bytes)
{
    StandinCount(&StandinCounters(S).sent_signals, 1);
    StandinCount(&StandinCounters(S).sent_bytes, Bytes);
}

// standin.cc
// One request to linxd and its reply: 0, or -1 with errno (linxd's answer,
// or ENOTCONN once linxd is gone).
int StandinCall(int ConnFd, StandinRequest *pCall);
// A request that carries only numbers, into pCall.
int StandinNumbersCall(int ConnFd, StandinRequest *pCall, uint32_t Op, uint32_t Arg0, uint32_t Arg1 = 0);
// A request that carries only numbers; stores value[0] of the reply.
int StandinSimpleCall(int ConnFd, uint32_t Op, uint32_t Arg0, uint32_t Arg1, uint32_t *pValue);
// Closes Fd unless it is -1 (no descriptor came).
void StandinCloseIf(int Fd);
// The socket of this process that the SPID names, or null.
SocketRef StandinFindBySpid(InstanceSpid Spid);

// standin_send.cc
int StandinSend(StandinSocket &S, const struct linx_transfer_rec *pRec);
// Lets go the routes to sockets that closed, once linxd says one did.
void StandinForgetClosedRoutes(StandinSocket &S);
// The process closed its last socket: every ring it made goes.
void StandinForgetAllRoutes();
// Makes the spare ring (of an instance whose queues hold QueueBytes) if
// there is none: the next route opens without making one.
void StandinMakeSpareRing(uint32_t QueueBytes);
void StandinRoutesAtFork(ForkStage Stage);

// standin_receive.cc
int StandinReceive(StandinSocket &S, struct linx_transfer_rec *pRec);
// The socket's descriptor is polled from now on (S's handle's thread).
void StandinWatch(StandinSocket &S);
// Queues a signal for S unless S is closed or, when bLimit is set, its
// queue is full (errno ECONNRESET or ENOBUFS then).  Any thread may queue.
bool StandinEnqueue(StandinSocket &S, Pending &&Entry, bool bLimit);
// Frees a queued signal's buffer when a sender of this process handed it over.
void StandinFreePending(Pending &Entry);
void StandinRefusalsAtFork(ForkStage Stage);

#endif /* LINX_STANDIN_SOCKET_H */
