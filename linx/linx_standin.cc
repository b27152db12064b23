// Client side of the linxd stand-in: turns the module's requests into
// linxd requests and moves signals through the receive-queue socket pairs.
#include "linx_standin.h"

#include <dlfcn.h>
#include <spawn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "linx.h"
#include "linx_module.h"
#include "linxd_address.h"
#include "linxd_refusals.h"
#include "linxd_ring_set.h"

namespace {

constexpr int kConnectAttempts = 500;      // 5 ms apart: linxd gets 2.5 s to start
constexpr size_t kRouteCacheLimit = 1024;  // routes kept before idle ones are given up
constexpr uint32_t kForever = 0xFFFFFFFFu;
// A receive with nothing to take keeps looking this long before it sleeps:
// a peer that answers within it is served without a wake-up on either side.
constexpr int64_t kSpinNs = 50000;

// A signal waiting in the process-local queue: either taken from the outlet
// (Data holds it) or handed over by a sender of this process (pTaken is the
// sender's payload, delivered without a copy).
struct Pending {
    linxd_signal_header Header;
    uint64_t Seq = 0;    // its place among all signals ever queued here
    void *pTaken = nullptr;
    std::string Data;
};

struct StandinSocket {
    int PollFd = -1;     // the descriptor callers see: epoll of Outlet, Ready and Bell
    int ConnFd = -1;     // control connection to linxd
    int OutletFd = -1;   // linxd's signals and ring announcements
    int BellFd = -1;     // eventfd senders ring when this socket armed it
    int ReadyFd = -1;    // eventfd, readable while Queue is not empty
    int ArrivalFd = -1;  // eventfd, wakes a receive waiting for a local send
    uint32_t Spid = 0;
    uint32_t Slot = 0;
    uint32_t QueueBytes = 0;
    uint64_t Generation = 0;      // of the linxd instance that gave the SPID
    linxd_slot *pSlots = nullptr; // linxd's counter region
    // Owned by the handle's thread alone:
    RingSet Rings;                // the rings senders of other processes write
    uint32_t OutletHint = 0;      // linxd's count of outlet datagrams when last read
    uint32_t RoutesGoneHint = 0;  // linxd's count of closed receivers when last looked

    std::mutex Mutex;             // guards everything below
    std::deque<Pending> Queue;     // in Seq order
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

    // Senders of this process may still hold the record after its close:
    // what they touch lives until the last of them lets go.
    ~StandinSocket()
    {
        for (int Fd : {ReadyFd, ArrivalFd, BellFd})
            if (Fd >= 0)
                close(Fd);
        if (pSlots != nullptr)
            munmap(pSlots, LINXD_REGION_BYTES);
        RingSetFree(&Rings);
    }
};

using SocketRef = std::shared_ptr<StandinSocket>;

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

// Read on every request by every thread; written only by open and close.
std::shared_mutex gTableMutex;
std::unordered_map<int, SocketRef> gByFd;
std::unordered_map<InstanceSpid, SocketRef, InstanceSpidHash> gBySpid;

std::mutex gRouteMutex;
std::unordered_map<InstanceSpid, RouteRef, InstanceSpidHash> gRoutes;
// Only one route is opened at a time, so that linxd never sees two rings
// of this process into one socket: it would retire the first.
std::mutex gOpenRouteMutex;

// Rings this process refused, said once a second per sender and reason.
RefusalLog gRefusals;

// A child of fork() does not own its parent's sockets: it closes its copies
// of their descriptors (so that a close in the parent still reaches linxd)
// and forgets them, so that its sends never take the local path to them.
void jFreePending(Pending &Entry)
{
    if (Entry.pTaken != nullptr)
        linx_release_taken_buffer(Entry.pTaken);
    Entry.pTaken = nullptr;
}

void jForkPrepare()
{
    gOpenRouteMutex.lock();
    gTableMutex.lock();
    gRouteMutex.lock();
    gRefusals.Mutex.lock();
}

void jForkParent()
{
    gRefusals.Mutex.unlock();
    gRouteMutex.unlock();
    gTableMutex.unlock();
    gOpenRouteMutex.unlock();
}

void jForkChild()
{
    // The parent's thread holds these locks: the child starts them afresh.
    new (&gRefusals.Mutex) std::mutex();
    new (&gRouteMutex) std::mutex();
    new (&gTableMutex) std::shared_mutex();
    new (&gOpenRouteMutex) std::mutex();
    // The parent's rings have one writer, the parent: the child makes its own.
    gRoutes.clear();
    for (auto &Entry : gByFd) {
        StandinSocket &S = *Entry.second;
        for (int Fd : {S.PollFd, S.ConnFd, S.OutletFd}) // the record's destructor closes the rest
            if (Fd >= 0)
                close(Fd);
        for (Pending &Queued : S.Queue) // buffers handed over by the parent's own senders
            jFreePending(Queued);
    }
    gByFd.clear();
    gBySpid.clear();
}

void jWatchForks()
{
    static std::once_flag Once;
    std::call_once(Once, [] { pthread_atfork(jForkPrepare, jForkParent, jForkChild); });
}

SocketRef jFindByFd(int Fd)
{
    std::shared_lock<std::shared_mutex> Lock(gTableMutex);
    auto It = gByFd.find(Fd);
    return It == gByFd.end() ? nullptr : It->second;
}

SocketRef jFindBySpid(InstanceSpid Spid)
{
    std::shared_lock<std::shared_mutex> Lock(gTableMutex);
    auto It = gBySpid.find(Spid);
    return It == gBySpid.end() ? nullptr : It->second;
}

void jCount(uint64_t *pCounter, uint64_t Amount)
{
    __atomic_add_fetch(pCounter, Amount, __ATOMIC_RELAXED);
}

void jCountQueued(linxd_slot *pSlot, int64_t Delta)
{
    __atomic_add_fetch(&pSlot->queued, Delta, __ATOMIC_RELAXED);
}

void jCountSent(linxd_slot *pSlot, uint32_t Bytes)
{
    jCount(&pSlot->sent_signals, 1);
    jCount(&pSlot->sent_bytes, Bytes);
}

// ---- Starting and reaching linxd ----------------------------------------

const char *jInstance()
{
    const char *pName = getenv(LINXD_INSTANCE_ENV);
    return pName != nullptr && *pName != '\0' ? pName : LINXD_DEFAULT_INSTANCE;
}

// Where linxd is looked for: beside this library (a build tree), then
// where an install puts it relative to the library (LINXD_FROM_LIBDIR, set
// by the build from the install layout), then on PATH.
std::string jLibraryDir()
{
    Dl_info Info;
    if (dladdr((void *)&linx_standin_open, &Info) == 0 || Info.dli_fname == nullptr)
        return "";
    const std::string Path = Info.dli_fname;
    const size_t Slash = Path.rfind('/');
    return Slash == std::string::npos ? "" : Path.substr(0, Slash + 1);
}

// Starts linxd.  posix_spawn runs no fork handlers, so this is safe while
// other threads of the process hold library locks; linxd detaches itself
// (its own session, reparented to init), and the short-lived process
// spawned here is reaped at once.
void jStartLinxd(const char *pInstance)
{
    const std::string Dir = jLibraryDir();
    const std::string Candidates[] = {Dir + "linxd", Dir + LINXD_FROM_LIBDIR "/linxd"};
    char *const Argv[] = {(char *)"linxd", (char *)"--instance", (char *)pInstance, nullptr};
    pid_t Child = -1;
    bool bSpawned = false;
    for (const std::string &Path : Candidates)
        if (!Dir.empty() && !bSpawned && access(Path.c_str(), X_OK) == 0)
            bSpawned = posix_spawn(&Child, Path.c_str(), nullptr, nullptr, Argv, environ) == 0;
    if (!bSpawned && posix_spawnp(&Child, "linxd", nullptr, nullptr, Argv, environ) != 0)
        return;
    while (waitpid(Child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// The connection, if what listens on linxd's address runs as this user;
// else -1 with EACCES.  The address is abstract, so any user can bind it
// while no linxd of ours does: nothing is sent to, or taken from, a
// listener the kernel does not vouch for.
int jVerifiedService(int Fd)
{
    struct ucred Peer = {};
    socklen_t Len = sizeof Peer;
    if (getsockopt(Fd, SOL_SOCKET, SO_PEERCRED, &Peer, &Len) == 0 && Peer.uid == geteuid())
        return Fd;
    close(Fd);
    errno = EACCES;
    return -1;
}

// Connects to the instance's linxd, starting one if none listens.
int jConnectOnce()
{
    const char *pInstance = jInstance();
    if (!linxd_instance_valid(pInstance)) {
        errno = EINVAL;
        return -1;
    }
    struct sockaddr_un Addr;
    const socklen_t Len = linxd_address(pInstance, &Addr);
    bool bStarted = false;
    for (int Attempt = 0; Attempt < kConnectAttempts; Attempt++) {
        const int Fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (Fd < 0)
            return -1;
        if (connect(Fd, (struct sockaddr *)&Addr, Len) == 0)
            return jVerifiedService(Fd);
        const int Error = errno;
        close(Fd);
        if (Error != ECONNREFUSED && Error != ENOENT && Error != EAGAIN) {
            errno = Error;
            return -1;
        }
        if (!bStarted)
            jStartLinxd(pInstance);
        bStarted = true;
        usleep(5000);
    }
    errno = EHOSTUNREACH;
    return -1;
}

// One request to linxd and its reply.  A descriptor may go with the
// request; up to five may come back (closed when the caller passes no room
// for them).
struct Call {
    linxd_request Request = {LINXD_PROTOCOL_MAGIC, 0, {0, 0}, 0, 0};
    const void *pName = nullptr;
    const void *pSignal = nullptr;
    int PassFd = -1;
    linxd_reply Reply = {};
    char Data[LINXD_MAX_NAME_CHARS + 256];
    int Fds[5] = {-1, -1, -1, -1, -1};
};

void jTakeFds(struct msghdr *pMsg, int *pFds, int Room)
{
    int Count = 0;
    for (struct cmsghdr *p = CMSG_FIRSTHDR(pMsg); p != nullptr; p = CMSG_NXTHDR(pMsg, p)) {
        if (p->cmsg_level != SOL_SOCKET || p->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t N = (p->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < N; i++) {
            int Fd;
            memcpy(&Fd, CMSG_DATA(p) + i * sizeof(int), sizeof Fd);
            if (Count < Room)
                pFds[Count++] = Fd;
            else
                close(Fd);
        }
    }
}

// Returns 0, or -1 with errno: linxd's answer, or ENOTCONN once linxd is gone.
int jCall(int ConnFd, Call *pCall)
{
    struct iovec Out[3] = {{&pCall->Request, sizeof pCall->Request},
                           {(void *)pCall->pName, pCall->Request.name_len},
                           {(void *)pCall->pSignal, pCall->Request.sig_len}};
    struct msghdr Msg = {};
    Msg.msg_iov = Out;
    Msg.msg_iovlen = 3;
    char PassControl[CMSG_SPACE(sizeof(int))] = {};
    linxd_pass_fds(&Msg, PassControl, &pCall->PassFd, pCall->PassFd >= 0);
    ssize_t Sent;
    while ((Sent = sendmsg(ConnFd, &Msg, MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    if (Sent < 0) {
        errno = errno == EMSGSIZE ? EMSGSIZE : ENOTCONN;
        return -1;
    }
    struct iovec In[2] = {{&pCall->Reply, sizeof pCall->Reply}, {pCall->Data, sizeof pCall->Data}};
    char Control[CMSG_SPACE(5 * sizeof(int))];
    Msg = {};
    Msg.msg_iov = In;
    Msg.msg_iovlen = 2;
    Msg.msg_control = Control;
    Msg.msg_controllen = sizeof Control;
    ssize_t Got;
    while ((Got = recvmsg(ConnFd, &Msg, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    if (Got < (ssize_t)sizeof pCall->Reply) {
        errno = ENOTCONN;
        return -1;
    }
    jTakeFds(&Msg, pCall->Fds, 5);
    if (Msg.msg_flags & MSG_CTRUNC) {
        // The kernel could not give us the descriptors linxd sent: this
        // process is out of them.
        for (int &Fd : pCall->Fds) {
            if (Fd >= 0)
                close(Fd);
            Fd = -1;
        }
        errno = EMFILE;
        return -1;
    }
    if ((size_t)Got - sizeof pCall->Reply < pCall->Reply.data_len)
        pCall->Reply.data_len = (uint32_t)(Got - sizeof pCall->Reply);
    if (pCall->Reply.result < 0) {
        for (int &Fd : pCall->Fds)
            if (Fd >= 0)
                close(Fd);
        errno = pCall->Reply.error;
        return -1;
    }
    return 0;
}

// A request that carries only numbers, into pCall.
int jNumbersCall(int ConnFd, Call *pCall, uint32_t Op, uint32_t Arg0, uint32_t Arg1 = 0)
{
    pCall->Request.op = Op;
    pCall->Request.arg[0] = Arg0;
    pCall->Request.arg[1] = Arg1;
    return jCall(ConnFd, pCall);
}

// A request that carries only numbers; stores value[0] of the reply.
int jSimpleCall(int ConnFd, uint32_t Op, uint32_t Arg0, uint32_t Arg1, uint32_t *pValue)
{
    Call C;
    if (jNumbersCall(ConnFd, &C, Op, Arg0, Arg1) != 0)
        return -1;
    if (pValue != nullptr)
        *pValue = C.Reply.value[0];
    return 0;
}

// A connection to a linxd that answers.  A linxd that was just killed may
// still have taken the connection; its successor is then started and tried.
int jConnect()
{
    constexpr int kTries = 3;
    for (int Try = 0; Try < kTries; Try++) {
        const int Fd = jConnectOnce();
        if (Fd < 0)
            return -1;
        uint32_t Version;
        if (jSimpleCall(Fd, LINXD_OP_VERSION, 0, 0, &Version) == 0)
            return Fd;
        const int Error = errno;
        close(Fd);
        if (Error != ENOTCONN) {
            errno = Error;
            return -1;
        }
    }
    errno = EHOSTUNREACH;
    return -1;
}

// A request that hands linxd a signal of the caller's (hunt, attach, timeout).
int jSignalCall(const StandinSocket &S, uint32_t Op, uint32_t Arg0, const void *pSig,
                uint32_t SigSize, const char *pName, uint32_t NameLen, uint32_t *pValue)
{
    if (SigSize > LINXD_MAX_CONTROL_SIGNAL || NameLen > LINXD_MAX_NAME_CHARS) {
        errno = SigSize > LINXD_MAX_CONTROL_SIGNAL ? EMSGSIZE : ENAMETOOLONG;
        return -1;
    }
    Call C;
    C.Request.op = Op;
    C.Request.arg[0] = Arg0;
    C.Request.name_len = NameLen;
    C.Request.sig_len = pSig != nullptr ? SigSize : 0;
    C.pName = pName;
    C.pSignal = pSig;
    if (jCall(S.ConnFd, &C) != 0)
        return -1;
    if (pValue != nullptr)
        *pValue = C.Reply.value[0];
    return 0;
}

// ---- The process-local queue ----------------------------------------------

// ReadyFd counts the queued signals (a semaphore eventfd), so the caller's
// descriptor is readable exactly while one waits.  A signal is counted
// before it becomes visible and uncounted after it is taken, so the count
// never lags behind the queue, and no system call is made under the mutex.
void jCountReady(StandinSocket &S, bool bAdd)
{
    uint64_t One = 1;
    if (bAdd)
        (void)!write(S.ReadyFd, &One, sizeof One);
    else
        (void)!read(S.ReadyFd, &One, sizeof One);
}

// What the socket keeps aside counts against its queue limit for every
// sender, in this process or another (S.Mutex held).
void jPublishParked(StandinSocket &S)
{
    __atomic_store_n(&S.pSlots[S.Slot].parked_bytes, S.QueuedBytes, __ATOMIC_RELAXED);
}

// Queues a signal for S unless S is closed or, when bLimit is set, its
// queue is full (errno ECONNRESET or ENOBUFS then).  Wakes a waiting
// receiver.  Any thread of the process may queue.
bool jEnqueue(StandinSocket &S, Pending &&Entry, bool bLimit)
{
    jCountReady(S, true);
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
            jPublishParked(S);
            Entry.Seq = S.Pushes.fetch_add(1, std::memory_order_relaxed) + 1;
            S.Queue.push_back(std::move(Entry));
            bWake = S.bWaiting;
            S.bWaiting = false;
            bQueued = true;
        }
    }
    if (!bQueued) {
        const int Error = errno;
        jCountReady(S, false);
        errno = Error;
        return false;
    }
    if (bWake) {
        uint64_t One = 1;
        (void)!write(S.ArrivalFd, &One, sizeof One);
    }
    return true;
}

// ---- Opening and closing ---------------------------------------------------

int jMakeEventFd(int Flags)
{
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | Flags);
}

void jCloseIf(int Fd)
{
    if (Fd >= 0)
        close(Fd);
}

void jReleaseSocket(StandinSocket &S)
{
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        S.bClosed = true;
        for (Pending &Entry : S.Queue)
            jFreePending(Entry);
        S.Queue.clear();
    }
    jCloseIf(S.ConnFd);
    jCloseIf(S.OutletFd);
}

int jRegister(StandinSocket &S, const struct linx_register_rec *pRec)
{
    if (S.Spid != 0) {
        errno = EISCONN;
        return -1;
    }
    Call C;
    C.Request.op = LINXD_OP_REGISTER;
    C.Request.name_len = pRec->namelen;
    C.pName = pRec->name;
    if (pRec->namelen > LINXD_MAX_NAME_CHARS) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (jCall(S.ConnFd, &C) != 0)
        return -1;
    void *pSlots = C.Fds[1] < 0 ? MAP_FAILED
                                : mmap(nullptr, LINXD_REGION_BYTES, PROT_READ | PROT_WRITE,
                                       MAP_SHARED, C.Fds[1], 0);
    jCloseIf(C.Fds[1]);
    const bool bReady = C.Fds[3] >= 0 && C.Fds[4] >= 0 && RingSetMap(&S.Rings, C.Fds[3], C.Fds[4]);
    jCloseIf(C.Fds[3]);
    jCloseIf(C.Fds[4]);
    struct epoll_event Event = {};
    Event.events = EPOLLIN;
    if (C.Fds[0] < 0 || C.Fds[2] < 0 || pSlots == MAP_FAILED || !bReady || C.Reply.value[1] >= LINXD_MAX_SOCKETS ||
        C.Reply.data_len != sizeof S.Generation || C.Reply.value[2] < LINXD_RING_ENTRY_ALIGN ||
        epoll_ctl(S.PollFd, EPOLL_CTL_ADD, C.Fds[0], &Event) != 0 ||
        epoll_ctl(S.PollFd, EPOLL_CTL_ADD, C.Fds[2], &Event) != 0) {
        jCloseIf(C.Fds[0]);
        jCloseIf(C.Fds[2]);
        if (pSlots != MAP_FAILED)
            munmap(pSlots, LINXD_REGION_BYTES);
        RingSetFree(&S.Rings);
        errno = EPROTO;
        return -1;
    }
    S.OutletFd = C.Fds[0];
    S.BellFd = C.Fds[2];
    S.pSlots = (linxd_slot *)pSlots;
    S.Spid = C.Reply.value[0];
    S.Slot = C.Reply.value[1];
    S.QueueBytes = C.Reply.value[2];
    memcpy(&S.Generation, C.Data, sizeof S.Generation);
    std::lock_guard<std::shared_mutex> Lock(gTableMutex);
    gBySpid[{S.Generation, S.Spid}] = gByFd[S.PollFd];
    const_cast<struct linx_register_rec *>(pRec)->spid = S.Spid;
    return 0;
}

// ---- Sending -----------------------------------------------------------------

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

// Makes a ring for To and has linxd announce it to To's owner.
RouteRef jOpenRoute(const StandinSocket &S, uint32_t To)
{
    linxd_ring_writer Writer = {};
    Writer.capacity = linxd_ring_capacity(S.QueueBytes);
    const int RingFd = jMakeRing(Writer.capacity, &Writer.header);
    if (RingFd < 0)
        return nullptr;
    Writer.data = (char *)(Writer.header + 1);
    Call C;
    C.PassFd = RingFd;
    const int Result = jNumbersCall(S.ConnFd, &C, LINXD_OP_OPEN_ROUTE, To);
    const int Error = errno;
    close(RingFd);
    auto *pReady = Result == 0 ? (linxd_ready_set *)linxd_map_region(C.Fds[1], sizeof(linxd_ready_set)) : nullptr;
    jCloseIf(C.Fds[1]);
    if (Result == 0 && (C.Fds[0] < 0 || pReady == nullptr || C.Reply.value[0] >= LINXD_MAX_SOCKETS ||
                        C.Reply.value[1] >= LINXD_MAX_RINGS_PER_SOCKET)) {
        jCloseIf(C.Fds[0]);
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
            jSimpleCall(S.ConnFd, LINXD_OP_CLOSE_ROUTE, R.To.Spid, R.Index, nullptr);
}

RouteRef jFindRoute(InstanceSpid Key)
{
    std::lock_guard<std::mutex> Lock(gRouteMutex);
    auto It = gRoutes.find(Key);
    return It == gRoutes.end() ? nullptr : It->second;
}

// Lets the routes to sockets that closed go, once linxd says that one of
// them did: a server that answered many clients that left keeps no ring
// for any of them.
void jForgetClosedRoutes(StandinSocket &S)
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

RouteRef jRouteTo(StandinSocket &S, uint32_t To)
{
    const InstanceSpid Key = {S.Generation, To};
    if (RouteRef pRoute = jFindRoute(Key))
        return pRoute;
    jForgetClosedRoutes(S);
    std::lock_guard<std::mutex> Opening(gOpenRouteMutex);
    if (RouteRef pRoute = jFindRoute(Key)) // another thread opened it meanwhile
        return pRoute;
    RouteRef pRoute = jOpenRoute(S, To);
    if (pRoute == nullptr)
        return nullptr;
    std::vector<GivenUp> Trimmed;
    {
        std::lock_guard<std::mutex> Lock(gRouteMutex);
        gRoutes[Key] = pRoute;
        Trimmed = jTrimRoutes();
    }
    jCloseRoutes(S, Trimmed);
    return pRoute;
}

// The process closed its last socket: linxd retires every ring it made,
// and a socket it opens later makes new ones.
void jForgetAllRoutes()
{
    std::lock_guard<std::mutex> Lock(gRouteMutex);
    for (const auto &Entry : gRoutes)
        Entry.second->bGone = true;
    gRoutes.clear();
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
    linxd_slot &Target = From.pSlots[To.Slot]; // one region: linxd's
    jCountQueued(&Target, 1);
    if (!jEnqueue(To, std::move(Entry), true)) {
        const int Error = errno;
        jCountQueued(&Target, -1);
        if (Error == ENOBUFS)
            jCount(&Target.refused_sends, 1);
        errno = Error;
        return -1;
    }
    jCountSent(&From.pSlots[From.Slot], pRec->size);
    return 1;
}

// Writes the signal into the route's ring; counted as queued before the
// receiver can take it.
bool jWriteEntry(Route &R, const linxd_signal_header &Header, const void *pPayload, linxd_slot &Target)
{
    std::lock_guard<std::mutex> Lock(R.Mutex);
    jCountQueued(&Target, 1);
    if (linxd_ring_write(&R.Writer, &Header, pPayload))
        return true;
    jCountQueued(&Target, -1);
    return false;
}

int jSendRemote(StandinSocket &S, const struct linx_transfer_rec *pRec)
{
    RouteRef pRoute = jRouteTo(S, pRec->to);
    if (pRoute == nullptr)
        return -1;
    Route &R = *pRoute;
    linxd_slot &Target = S.pSlots[R.Slot];
    // A slot that no longer names the receiver was cleared or handed on by
    // linxd: the receiver closed.
    if (R.bGone || __atomic_load_n(&Target.spid, __ATOMIC_ACQUIRE) != pRec->to) {
        jForgetRoute({S.Generation, pRec->to}, pRoute);
        errno = ECONNRESET;
        return -1;
    }
    if (linxd_entry_bytes(pRec->size) > R.Writer.capacity) {
        errno = EMSGSIZE; // larger than the receiver's whole queue
        return -1;
    }
    const linxd_signal_header Header = {pRec->from, pRec->to, pRec->size, pRec->attributes};
    // A receiver that keeps a full queue aside takes nothing more.
    const bool bWritten = __atomic_load_n(&Target.parked_bytes, __ATOMIC_RELAXED) + pRec->size <=
                              __atomic_load_n(&Target.queue_limit, __ATOMIC_RELAXED) &&
                          jWriteEntry(R, Header, (const void *)(uintptr_t)pRec->buffer, Target);
    if (!bWritten) {
        jCount(&Target.refused_sends, 1);
        errno = ENOBUFS;
        return -1;
    }
    if (linxd_ready_mark(R.pReady, R.Writer.header, R.Index)) {
        const uint64_t One = 1;
        (void)!write(R.BellFd, &One, sizeof One);
    }
    jCountSent(&S.pSlots[S.Slot], pRec->size);
    return 0;
}

int jSend(StandinSocket &S, const struct linx_transfer_rec *pRec)
{
    if (S.Spid == 0) {
        errno = ENOTCONN;
        return -1;
    }
    if (pRec->size > LINXD_MAX_SIGNAL_BYTES) {
        errno = EMSGSIZE;
        return -1;
    }
    if (SocketRef pLocal = jFindBySpid({S.Generation, pRec->to}))
        return jSendLocal(S, *pLocal, pRec);
    return jSendRemote(S, pRec);
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
    linxd_slot &Slot = S.pSlots[S.Slot];
    jCountQueued(&Slot, -1);
    jCount(&Slot.received_signals, 1);
    jCount(&Slot.received_bytes, Size);
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
        jPublishParked(S);
        S.Queue.erase(It);
        Result = (int)Size;
    }
    jCountReady(S, false);
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

// Moves the signals at the ring's head to the local queue up to the first
// one pSel selects (pSel null: none is), and at most a ring's worth, so a
// sender that keeps writing cannot keep the receiver here.  Returns the
// state at the head: a selected signal in *pHeader, nothing (or the budget
// spent), or broken (*ppWhy says why).
linxd_peeked jParkUnselected(StandinSocket &S, RingSetEntry &E, const Selection *pSel,
                             linxd_signal_header *pHeader, const char **ppWhy)
{
    const uint64_t Start = E.Reader.head;
    linxd_peeked State;
    while ((State = linxd_ring_peek(&E.Reader, S.Spid, pHeader, ppWhy)) == LINXD_PEEK_SIGNAL &&
           (pSel == nullptr || !jSelected(*pSel, *pHeader, jSigNo(linxd_ring_payload(&E.Reader))))) {
        if (E.Reader.head - Start >= E.Reader.capacity)
            return LINXD_PEEK_EMPTY;
        Pending Entry;
        Entry.Header = *pHeader;
        Entry.Data.assign(linxd_ring_payload(&E.Reader), pHeader->size);
        linxd_ring_advance(&E.Reader, pHeader->size);
        jEnqueue(S, std::move(Entry), false);
    }
    return State;
}

// Moves what the ring holds to the local queue; false when the ring broke
// the rules (it is refused and dropped then).
bool jParkRing(StandinSocket &S, uint32_t Index)
{
    RingSetEntry &E = S.Rings.Rings[Index];
    linxd_signal_header Header;
    const char *pWhy = nullptr;
    if (jParkUnselected(S, E, nullptr, &Header, &pWhy) != LINXD_PEEK_BROKEN)
        return true;
    jRefuseRing(S, Index, E.Writer, pWhy);
    return false;
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
        const linxd_peeked State = jParkUnselected(S, E, &Sel, &Header, &pWhy);
        if (State == LINXD_PEEK_BROKEN) {
            jRefuseRing(S, Index, E.Writer, pWhy);
            continue;
        }
        if (State == LINXD_PEEK_EMPTY) {
            RingSetRotate(&S.Rings);
            continue;
        }
        if (Header.size > pRec->size)
            return jTooLarge(pRec, Header.size);
        memcpy((void *)(uintptr_t)pRec->buffer, linxd_ring_payload(&E.Reader), Header.size);
        jFillRecord(pRec, Header, pRec->buffer);
        linxd_ring_advance(&E.Reader, Header.size);
        jCountTaken(S, Header.size);
        RingSetRotate(&S.Rings);
        return (int)Header.size;
    }
    errno = EAGAIN;
    return -1;
}

// Rings linxd retired (their senders closed their last socket, died, or
// gave them up): what they still hold moves to the local queue, then they
// go.
void jTakeRetired(StandinSocket &S)
{
    RingSetTakeRetired(&S.Rings, [](void *pSocket, uint32_t Index) { jParkRing(*(StandinSocket *)pSocket, Index); }, &S);
}

// Everything the rings hold moves to the local queue (before a signal of
// linxd's, which must not overtake what was sent before it).
void jParkRings(StandinSocket &S)
{
    jTakeRetired(S);
    for (size_t Turns = RingSetCollect(&S.Rings); Turns > 0 && !S.Rings.Turns.empty(); Turns--)
        if (jParkRing(S, RingSetFront(&S.Rings)))
            RingSetRotate(&S.Rings);
}

// Keeps the bell exact: readable while a ring holds a signal.  When nothing
// is waiting the bell is silenced and armed, so that the next sender rings
// it; what arrived meanwhile rings it again.  Costs no system call while
// the rings are busy or the bell is already armed and silent.
void jSettleBell(StandinSocket &S, bool bRang)
{
    if (RingSetWaiting(&S.Rings) || (!bRang && RingSetArmed(&S.Rings)))
        return;
    uint64_t Count;
    (void)!read(S.BellFd, &Count, sizeof Count);
    if (RingSetArm(&S.Rings)) {
        const uint64_t One = 1;
        (void)!write(S.BellFd, &One, sizeof One);
    }
}

// ---- The outlet ------------------------------------------------------------------

// A ring linxd announced for this socket, at an index of its rings.
void jAdoptRing(StandinSocket &S, const linxd_signal_header &Header, const char *pPayload, int Fd)
{
    uint32_t Words[2] = {0, 0};
    memcpy(Words, pPayload, std::min<size_t>(Header.size, sizeof Words));
    const char *pWhy = "an announcement without its ring";
    if (Header.size != sizeof Words || Fd < 0 ||
        !RingSetAdopt(&S.Rings, Words[1], Fd, (pid_t)Words[0], S.QueueBytes, &pWhy)) {
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
        char Control[CMSG_SPACE(sizeof(int))];
        struct msghdr Msg = {};
        Msg.msg_iov = Iov;
        Msg.msg_iovlen = 2;
        Msg.msg_control = Control;
        Msg.msg_controllen = sizeof Control;
        const ssize_t Got = recvmsg(S.OutletFd, &Msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (Got < 0)
            return errno == EAGAIN ? 0 : -1;
        int Fd = -1;
        jTakeFds(&Msg, &Fd, 1);
        if (Got == 0) {
            errno = ENOTCONN; // linxd closed its end: it is gone
            return -1;
        }
        const uint64_t PayloadBytes = (uint64_t)Got - sizeof Header;
        if ((size_t)Got < sizeof Header + sizeof(uint32_t) || (Msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) ||
            Header.size != PayloadBytes || Header.to != S.Spid) {
            fprintf(stderr, "linx: dropped a malformed datagram of %zd bytes from linxd\n", Got);
            jCloseIf(Fd);
            continue;
        }
        if (Header.attributes == LINXD_ANNOUNCE_RING) {
            jAdoptRing(S, Header, Buffer.data(), Fd);
            jCloseIf(Fd);
            continue;
        }
        jCloseIf(Fd);
        jParkRings(S);
        Pending Entry;
        Entry.Header = Header;
        Entry.Data.assign(Buffer.data(), Header.size);
        jEnqueue(S, std::move(Entry), false);
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
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        if (S.Pushes.load(std::memory_order_relaxed) != Seen)
            return 1;
        S.bWaiting = true;
    }
    struct pollfd Fds[4] = {
        {S.OutletFd, POLLIN, 0}, {S.ArrivalFd, POLLIN, 0}, {S.BellFd, POLLIN, 0}, {S.ConnFd, POLLIN, 0}};
    const int Ready = poll(Fds, 4, TimeoutMs);
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        S.bWaiting = false;
    }
    if (Ready < 0)
        return -1;
    if (Fds[1].revents != 0) {
        uint64_t Count;
        (void)!read(S.ArrivalFd, &Count, sizeof Count);
    }
    *pOutletReady = Fds[0].revents != 0;
    *pRang = Fds[2].revents != 0;
    // What reached the queues before linxd went is still taken.
    if (Fds[0].revents != 0 || Fds[1].revents != 0 || Fds[2].revents != 0)
        return 1;
    if (Fds[3].revents != 0) {
        errno = ENOTCONN; // linxd never writes unasked: it is gone
        return -1;
    }
    return Ready > 0 ? 1 : 0;
}

// A peer that answers within microseconds is best waited for awake: it
// spares both sides a sleep and a wake-up.  Yields the processor while it
// looks, so a peer on the same core gets to run.  Returns true when
// something came.
bool jSpin(StandinSocket &S, uint64_t Seen)
{
    struct timespec Start, Now;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    do {
        if (S.Pushes.load(std::memory_order_relaxed) != Seen || RingSetWaiting(&S.Rings) ||
            __atomic_load_n(&S.pSlots[S.Slot].outlet_signals, __ATOMIC_RELAXED) != S.OutletHint)
            return true;
        sched_yield();
        clock_gettime(CLOCK_MONOTONIC, &Now);
    } while ((Now.tv_sec - Start.tv_sec) * 1000000000LL + (Now.tv_nsec - Start.tv_nsec) < kSpinNs);
    return false;
}

int jReceive(StandinSocket &S, struct linx_transfer_rec *pRec)
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
    jForgetClosedRoutes(S);
    const Selection Sel = {pSigselect, pRec->from};
    struct timespec Start;
    clock_gettime(CLOCK_MONOTONIC, &Start);
    bool bOutletReady = false, bRang = false;
    for (;;) {
        jTakeRetired(S);
        const bool bLinxdGone = jPullOutlet(S, bOutletReady) != 0;
        uint64_t Seen = 0;
        int Result = jTakeQueued(S, Sel, pRec, &Seen);
        if (Result < 0)
            Result = jTakeFromRings(S, Sel, pRec);
        jSettleBell(S, bRang); // also when retired rings were moved to the queue
        if (Result >= 0)
            return Result;
        if (bLinxdGone) {
            errno = ENOTCONN;
            return -1;
        }
        if (pRec->tmo != 0 && jSpin(S, Seen))
            continue;
        const int Waited = jWait(S, jRemainingMs(pRec->tmo, Start), Seen, &bOutletReady, &bRang);
        if (Waited <= 0)
            return Waited == 0 ? jTimedOut(pRec) : -1;
    }
}

// ---- Requests ------------------------------------------------------------------

int jInfo(const StandinSocket &S, struct linx_info_rec *pInfo)
{
    switch (pInfo->type) {
    case LINX_INFO_NAME: {
        auto *pRec = (struct linx_info_name_rec *)pInfo->record;
        Call C;
        if (jNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_NAME, pRec->spid) != 0)
            return -1;
        const int32_t Needed = (int32_t)C.Reply.data_len; // counts the terminator
        if (Needed <= 0) {
            errno = EPROTO;
            return -1;
        }
        if (pRec->namelen == 0 && pRec->name == nullptr)
            return Needed;
        if (pRec->name == nullptr || pRec->namelen <= 0) {
            errno = EINVAL;
            return -1;
        }
        const int32_t Copied = Needed < pRec->namelen ? Needed : pRec->namelen;
        memcpy(pRec->name, C.Data, Copied);
        pRec->name[Copied - 1] = '\0';
        return 0;
    }
    case LINX_INFO_OWNER: {
        auto *pRec = (struct linx_info_owner_rec *)pInfo->record;
        uint32_t Pid;
        if (jSimpleCall(S.ConnFd, LINXD_OP_INFO_OWNER, pRec->spid, 0, &Pid) != 0)
            return -1;
        pRec->pid = (int32_t)Pid;
        return 0;
    }
    case LINX_INFO_STAT: {
        auto *pRec = (struct linx_info_stat *)pInfo->record;
        Call C;
        if (jNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_STAT, pRec->spid) != 0)
            return -1;
        if (C.Reply.data_len != sizeof *pRec) {
            errno = EPROTO;
            return -1;
        }
        memcpy(pRec, C.Data, sizeof *pRec);
        return 0;
    }
    case LINX_INFO_RECV_QUEUE: {
        auto *pRec = (struct linx_info_recv_queue_rec *)pInfo->record;
        return jSimpleCall(S.ConnFd, LINXD_OP_INFO_QUEUE, pRec->spid, 0, &pRec->count);
    }
    case LINX_INFO_SUMMARY: {
        Call C;
        if (jNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_SUMMARY, 0) != 0)
            return -1;
        if (C.Reply.data_len != sizeof(struct linx_info_summary)) {
            errno = EPROTO;
            return -1;
        }
        memcpy(pInfo->record, C.Data, sizeof(struct linx_info_summary));
        return 0;
    }
    case LINX_INFO_SOCKETS: {
        auto *pRec = (struct linx_info_sockets_rec *)pInfo->record;
        if (pRec->room < 0) {
            errno = EINVAL;
            return -1;
        }
        Call C;
        if (jNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_SOCKETS, pRec->after, (uint32_t)pRec->room) != 0)
            return -1;
        const uint32_t Count = C.Reply.data_len / sizeof(uint32_t);
        if (C.Reply.data_len % sizeof(uint32_t) != 0 || Count > (uint32_t)pRec->room) {
            errno = EPROTO;
            return -1;
        }
        memcpy(pRec->spids, C.Data, C.Reply.data_len);
        pRec->count = (int32_t)Count;
        return 0;
    }
    default:
        errno = EINVAL;
        return -1;
    }
}

int jDispatch(StandinSocket &S, uint32_t Request, void *pRecord)
{
    switch (Request) {
    case LINX_IOCTL_VERSION:
        return jSimpleCall(S.ConnFd, LINXD_OP_VERSION, 0, 0, (uint32_t *)pRecord);
    case LINX_IOCTL_REGISTER_NAME:
        return jRegister(S, (const struct linx_register_rec *)pRecord);
    case LINX_IOCTL_SEND:
        return jSend(S, (const struct linx_transfer_rec *)pRecord);
    case LINX_IOCTL_RECEIVE:
        return jReceive(S, (struct linx_transfer_rec *)pRecord);
    case LINX_IOCTL_HUNT: {
        auto *pRec = (struct linx_hunt_rec *)pRecord;
        return jSignalCall(S, LINXD_OP_HUNT, pRec->from, pRec->sig, pRec->sigsize, pRec->name,
                           pRec->namelen, nullptr);
    }
    case LINX_IOCTL_ATTACH: {
        auto *pRec = (struct linx_attach_rec *)pRecord;
        return jSignalCall(S, LINXD_OP_ATTACH, pRec->spid, pRec->sig, pRec->sigsize, nullptr, 0,
                           &pRec->attref);
    }
    case LINX_IOCTL_DETACH:
        return jSimpleCall(S.ConnFd, LINXD_OP_DETACH, *(uint32_t *)pRecord, 0, nullptr);
    case LINX_IOCTL_REQUEST_TMO: {
        auto *pRec = (struct linx_tmo_rec *)pRecord;
        return jSignalCall(S, LINXD_OP_REQUEST_TMO, (uint32_t)pRec->tmo, pRec->sig, pRec->sigsize,
                           nullptr, 0, &pRec->tmoref);
    }
    case LINX_IOCTL_CANCEL_TMO: {
        auto *pRec = (struct linx_tmo_rec *)pRecord;
        return jSimpleCall(S.ConnFd, LINXD_OP_CANCEL_TMO, pRec->tmoref, 0, nullptr);
    }
    case LINX_IOCTL_MODIFY_TMO: {
        auto *pRec = (struct linx_tmo_rec *)pRecord;
        return jSimpleCall(S.ConnFd, LINXD_OP_MODIFY_TMO, pRec->tmoref, (uint32_t)pRec->tmo, nullptr);
    }
    case LINX_IOCTL_REQUEST_NEW_LINK: {
        auto *pRec = (struct linx_new_link_rec *)pRecord;
        return jSimpleCall(S.ConnFd, LINXD_OP_REQUEST_NEW_LINK, pRec->spid, 0, &pRec->token);
    }
    case LINX_IOCTL_CANCEL_NEW_LINK: {
        auto *pRec = (struct linx_new_link_rec *)pRecord;
        return jSimpleCall(S.ConnFd, LINXD_OP_CANCEL_NEW_LINK, pRec->token, 0, nullptr);
    }
    case LINX_IOCTL_INFO:
        return jInfo(S, (struct linx_info_rec *)pRecord);
    default:
        errno = ENOTTY;
        return -1;
    }
}

} // namespace

int linx_standin_open(void)
{
    jWatchForks();
    auto pS = std::make_shared<StandinSocket>();
    pS->ConnFd = jConnect();
    pS->PollFd = epoll_create1(EPOLL_CLOEXEC);
    pS->ReadyFd = jMakeEventFd(EFD_SEMAPHORE);
    pS->ArrivalFd = jMakeEventFd(0);
    struct epoll_event Event = {};
    Event.events = EPOLLIN;
    if (pS->ConnFd < 0 || pS->PollFd < 0 || pS->ReadyFd < 0 || pS->ArrivalFd < 0 ||
        epoll_ctl(pS->PollFd, EPOLL_CTL_ADD, pS->ReadyFd, &Event) != 0) {
        const int Error = errno;
        jReleaseSocket(*pS);
        jCloseIf(pS->PollFd);
        errno = Error;
        return -1;
    }
    std::lock_guard<std::shared_mutex> Lock(gTableMutex);
    gByFd[pS->PollFd] = pS;
    return pS->PollFd;
}

int linx_standin_request(int fd, uint32_t request, void *record)
{
    SocketRef pS = jFindByFd(fd);
    if (pS == nullptr) {
        errno = EBADF;
        return -1;
    }
    return jDispatch(*pS, request, record);
}

int linx_standin_close(int fd)
{
    SocketRef pS;
    bool bLast = false;
    {
        std::lock_guard<std::shared_mutex> Lock(gTableMutex);
        auto It = gByFd.find(fd);
        if (It == gByFd.end()) {
            errno = EBADF;
            return -1;
        }
        pS = It->second;
        gByFd.erase(It);
        if (pS->Spid != 0)
            gBySpid.erase({pS->Generation, pS->Spid});
        bLast = gByFd.empty();
    }
    if (bLast)
        jForgetAllRoutes();
    jReleaseSocket(*pS);
    return close(fd);
}
