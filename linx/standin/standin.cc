// SPDX-License-Identifier: Apache-2.0
// The stand-in client's core: reaching linxd (starting it when none
// runs), opening and closing emulated sockets, the requests that carry
// no signal, the socket tables and what a fork leaves the child.
// Sending and receiving have files of their own (standin_socket.h).
#include "standin.h"

#include <dlfcn.h>
#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <new>
#include <shared_mutex>
#include <unordered_map>

#include "linx.h"
#include "standin_socket.h"
#include "address.h"

namespace {

constexpr int kConnectAttempts = 500; // 5 ms apart: linxd gets 2.5 s to start

// Read by every local send; written only by open and close.  The maps hold
// the references that keep the records alive.
std::shared_mutex gTableMutex;
std::unordered_map<int, SocketRef> gByFd;
std::unordered_map<InstanceSpid, SocketRef, InstanceSpidHash> gBySpid;

// The same records by descriptor, for the calls of their own handle: a
// two-level table of plain pointers read without a lock, since a handle is
// used by one thread at a time and only that thread closes it.  Threads of
// one process that call on their own handles then share no cache line on
// their way in.  Written under gTableMutex; its chunks stay once made
// (8 KiB for each 1024 descriptors in use).
constexpr int kFdsPerChunk = 1024;
constexpr int kFdChunks = 1024; // descriptors below a million; beyond, the map
std::atomic<std::atomic<StandinSocket *> *> gFdChunks[kFdChunks];

// The record of descriptor Fd for its own handle's call, or null.
StandinSocket *jOwnSocket(int Fd)
{
    if (Fd < 0 || Fd >= kFdsPerChunk * kFdChunks) {
        std::shared_lock<std::shared_mutex> Lock(gTableMutex);
        auto It = gByFd.find(Fd);
        return It == gByFd.end() ? nullptr : It->second.get();
    }
    std::atomic<StandinSocket *> *pChunk = gFdChunks[Fd / kFdsPerChunk].load(std::memory_order_acquire);
    return pChunk == nullptr ? nullptr : pChunk[Fd % kFdsPerChunk].load(std::memory_order_acquire);
}

// Enters or clears the record of Fd in the table (gTableMutex held).
void jSetOwnSocket_NeedsLock(int Fd, StandinSocket *pS)
{
    if (Fd < 0 || Fd >= kFdsPerChunk * kFdChunks)
        return;
    std::atomic<StandinSocket *> *pChunk = gFdChunks[Fd / kFdsPerChunk].load(std::memory_order_relaxed);
    if (pChunk == nullptr) {
        pChunk = new std::atomic<StandinSocket *>[kFdsPerChunk]();
        gFdChunks[Fd / kFdsPerChunk].store(pChunk, std::memory_order_release);
    }
    pChunk[Fd % kFdsPerChunk].store(pS, std::memory_order_release);
}

// A child of fork() does not own its parent's sockets: it closes its copies
// of their descriptors (so that a close in the parent still reaches linxd)
// and forgets them, so that its sends never take the local path to them.
// Each part lets the locks it keeps go the same way (the order matters:
// the route opening lock comes before the table's).
void jForkPrepare()
{
    StandinRoutesAtFork(ForkStage::Prepare);
    gTableMutex.lock();
    StandinRefusalsAtFork(ForkStage::Prepare);
}

void jForkParent()
{
    StandinRefusalsAtFork(ForkStage::Parent);
    gTableMutex.unlock();
    StandinRoutesAtFork(ForkStage::Parent);
}

void jForkChild()
{
    // The parent's thread holds the locks: the child starts them afresh.
    StandinRefusalsAtFork(ForkStage::Child);
    StandinRenewInChild(&gTableMutex);
    StandinRoutesAtFork(ForkStage::Child);
    for (auto &Entry : gByFd) {
        jSetOwnSocket_NeedsLock(Entry.first, nullptr);
        StandinSocket &S = *Entry.second;
        for (int Fd : {S.PollFd, S.ConnFd, S.OutletFd}) // the record's destructor closes the rest
            if (Fd >= 0)
                close(Fd);
        for (Pending &Queued : S.Queue) // buffers handed over by the parent's own senders
            StandinFreePending(Queued);
    }
    gByFd.clear();
    gBySpid.clear();
}

void jWatchForks()
{
    static std::once_flag Once;
    std::call_once(Once, [] { pthread_atfork(jForkPrepare, jForkParent, jForkChild); });
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

} // namespace

// Returns 0, or -1 with errno: linxd's answer, or ENOTCONN once linxd is gone.
int StandinCall(int ConnFd, StandinRequest *pCall)
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
    linxd_take_fds(&Msg, pCall->Fds, 5);
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
int StandinNumbersCall(int ConnFd, StandinRequest *pCall, uint32_t Op, uint32_t Arg0, uint32_t Arg1)
{
    pCall->Request.op = Op;
    pCall->Request.arg[0] = Arg0;
    pCall->Request.arg[1] = Arg1;
    return StandinCall(ConnFd, pCall);
}

// A request that carries only numbers; stores value[0] of the reply.
int StandinSimpleCall(int ConnFd, uint32_t Op, uint32_t Arg0, uint32_t Arg1, uint32_t *pValue)
{
    StandinRequest C;
    if (StandinNumbersCall(ConnFd, &C, Op, Arg0, Arg1) != 0)
        return -1;
    if (pValue != nullptr)
        *pValue = C.Reply.value[0];
    return 0;
}

SocketRef StandinFindBySpid(InstanceSpid Spid)
{
    std::shared_lock<std::shared_mutex> Lock(gTableMutex);
    auto It = gBySpid.find(Spid);
    return It == gBySpid.end() ? nullptr : It->second;
}

void StandinCloseIf(int Fd)
{
    if (Fd >= 0)
        close(Fd);
}

namespace {

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
        if (StandinSimpleCall(Fd, LINXD_OP_VERSION, 0, 0, &Version) == 0)
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
    StandinRequest C;
    C.Request.op = Op;
    C.Request.arg[0] = Arg0;
    C.Request.name_len = NameLen;
    C.Request.sig_len = pSig != nullptr ? SigSize : 0;
    C.pName = pName;
    C.pSignal = pSig;
    if (StandinCall(S.ConnFd, &C) != 0)
        return -1;
    if (pValue != nullptr)
        *pValue = C.Reply.value[0];
    return 0;
}

// ---- Opening and closing ---------------------------------------------------

int jMakeEventFd(int Flags)
{
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | Flags);
}

void jReleaseSocket(StandinSocket &S)
{
    {
        std::lock_guard<std::mutex> Lock(S.Mutex);
        S.bClosed = true;
        for (Pending &Entry : S.Queue)
            StandinFreePending(Entry);
        S.Queue.clear();
        S.QueueLength = 0;
    }
    // Two sockets that sent to each other last keep each other alive
    // until one of them closes.
    S.LastLocal.reset();
    S.LastLocalSpid = 0;
    StandinCloseIf(S.ConnFd);
    StandinCloseIf(S.OutletFd);
}

// What a receive waits for, in one epoll set made once (a poll of the four
// would register and unregister each at every wait): the outlet, a local
// arrival, the bell and the connection to linxd, by their order here.
bool jMakeWaitSet(StandinSocket &S, int OutletFd, int BellFd)
{
    S.WaitFd = epoll_create1(EPOLL_CLOEXEC);
    const int Fds[4] = {OutletFd, S.ArrivalFd, BellFd, S.ConnFd};
    for (uint32_t i = 0; i < 4 && S.WaitFd >= 0; i++) {
        struct epoll_event Event = {};
        Event.events = EPOLLIN;
        Event.data.u32 = i;
        if (epoll_ctl(S.WaitFd, EPOLL_CTL_ADD, Fds[i], &Event) != 0)
            return false;
    }
    return S.WaitFd >= 0;
}

int jRegister(StandinSocket &S, const struct linx_register_rec *pRec)
{
    if (S.Spid != 0) {
        errno = EISCONN;
        return -1;
    }
    StandinRequest C;
    C.Request.op = LINXD_OP_REGISTER;
    C.Request.name_len = pRec->namelen;
    C.pName = pRec->name;
    if (pRec->namelen > LINXD_MAX_NAME_CHARS) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (StandinCall(S.ConnFd, &C) != 0)
        return -1;
    void *pSlots = C.Fds[1] < 0 ? MAP_FAILED : mmap(nullptr, LINXD_REGION_BYTES, PROT_READ, MAP_SHARED, C.Fds[1], 0);
    StandinCloseIf(C.Fds[1]);
    const bool bReady = C.Fds[3] >= 0 && C.Fds[4] >= 0 && RingSetMap(&S.Rings, C.Fds[3], C.Fds[4]);
    StandinCloseIf(C.Fds[3]);
    StandinCloseIf(C.Fds[4]);
    struct epoll_event Event = {};
    Event.events = EPOLLIN;
    if (C.Fds[0] < 0 || C.Fds[2] < 0 || pSlots == MAP_FAILED || !bReady || C.Reply.value[1] >= LINXD_MAX_SOCKETS ||
        C.Reply.data_len != sizeof S.Generation || C.Reply.value[2] < LINXD_RING_ENTRY_ALIGN ||
        epoll_ctl(S.PollFd, EPOLL_CTL_ADD, C.Fds[0], &Event) != 0 ||
        epoll_ctl(S.PollFd, EPOLL_CTL_ADD, C.Fds[2], &Event) != 0 || !jMakeWaitSet(S, C.Fds[0], C.Fds[2])) {
        StandinCloseIf(C.Fds[0]);
        StandinCloseIf(C.Fds[2]);
        if (pSlots != MAP_FAILED)
            munmap(pSlots, LINXD_REGION_BYTES);
        RingSetFree(&S.Rings);
        errno = EPROTO;
        return -1;
    }
    S.OutletFd = C.Fds[0];
    S.BellFd = C.Fds[2];
    S.pSlots = (const linxd_slot *)pSlots;
    S.Spid = C.Reply.value[0];
    S.Slot = C.Reply.value[1];
    S.QueueBytes = C.Reply.value[2];
    memcpy(&S.Generation, C.Data, sizeof S.Generation);
    StandinMakeSpareRing(S.QueueBytes);
    std::lock_guard<std::shared_mutex> Lock(gTableMutex);
    gBySpid[{S.Generation, S.Spid}] = gByFd[S.PollFd];
    const_cast<struct linx_register_rec *>(pRec)->spid = S.Spid;
    return 0;
}

// ---- Requests ------------------------------------------------------------------

int jInfo(const StandinSocket &S, struct linx_info_rec *pInfo)
{
    switch (pInfo->type) {
    case LINX_INFO_NAME: {
        auto *pRec = (struct linx_info_name_rec *)pInfo->record;
        StandinRequest C;
        if (StandinNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_NAME, pRec->spid) != 0)
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
        if (StandinSimpleCall(S.ConnFd, LINXD_OP_INFO_OWNER, pRec->spid, 0, &Pid) != 0)
            return -1;
        pRec->pid = (int32_t)Pid;
        return 0;
    }
    case LINX_INFO_STAT: {
        auto *pRec = (struct linx_info_stat *)pInfo->record;
        StandinRequest C;
        if (StandinNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_STAT, pRec->spid) != 0)
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
        return StandinSimpleCall(S.ConnFd, LINXD_OP_INFO_QUEUE, pRec->spid, 0, &pRec->count);
    }
    case LINX_INFO_SUMMARY: {
        StandinRequest C;
        if (StandinNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_SUMMARY, 0) != 0)
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
        StandinRequest C;
        if (StandinNumbersCall(S.ConnFd, &C, LINXD_OP_INFO_SOCKETS, pRec->after, (uint32_t)pRec->room) != 0)
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
        return StandinSimpleCall(S.ConnFd, LINXD_OP_VERSION, 0, 0, (uint32_t *)pRecord);
    case LINX_IOCTL_REGISTER_NAME:
        return jRegister(S, (const struct linx_register_rec *)pRecord);
    case LINX_IOCTL_SEND:
        return StandinSend(S, (const struct linx_transfer_rec *)pRecord);
    case LINX_IOCTL_RECEIVE:
        return StandinReceive(S, (struct linx_transfer_rec *)pRecord);
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
        return StandinSimpleCall(S.ConnFd, LINXD_OP_DETACH, *(uint32_t *)pRecord, 0, nullptr);
    case LINX_IOCTL_REQUEST_TMO: {
        auto *pRec = (struct linx_tmo_rec *)pRecord;
        return jSignalCall(S, LINXD_OP_REQUEST_TMO, (uint32_t)pRec->tmo, pRec->sig, pRec->sigsize,
                           nullptr, 0, &pRec->tmoref);
    }
    case LINX_IOCTL_CANCEL_TMO: {
        auto *pRec = (struct linx_tmo_rec *)pRecord;
        return StandinSimpleCall(S.ConnFd, LINXD_OP_CANCEL_TMO, pRec->tmoref, 0, nullptr);
    }
    case LINX_IOCTL_MODIFY_TMO: {
        auto *pRec = (struct linx_tmo_rec *)pRecord;
        return StandinSimpleCall(S.ConnFd, LINXD_OP_MODIFY_TMO, pRec->tmoref, (uint32_t)pRec->tmo, nullptr);
    }
    case LINX_IOCTL_REQUEST_NEW_LINK: {
        auto *pRec = (struct linx_new_link_rec *)pRecord;
        return StandinSimpleCall(S.ConnFd, LINXD_OP_REQUEST_NEW_LINK, pRec->spid, 0, &pRec->token);
    }
    case LINX_IOCTL_CANCEL_NEW_LINK: {
        auto *pRec = (struct linx_new_link_rec *)pRecord;
        return StandinSimpleCall(S.ConnFd, LINXD_OP_CANCEL_NEW_LINK, pRec->token, 0, nullptr);
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
    pS->ReadyFd = jMakeEventFd(0);
    pS->ArrivalFd = jMakeEventFd(0);
    struct epoll_event Event = {};
    Event.events = EPOLLIN;
    if (pS->ConnFd < 0 || pS->PollFd < 0 || pS->ReadyFd < 0 || pS->ArrivalFd < 0 ||
        epoll_ctl(pS->PollFd, EPOLL_CTL_ADD, pS->ReadyFd, &Event) != 0) {
        const int Error = errno;
        jReleaseSocket(*pS);
        StandinCloseIf(pS->PollFd);
        errno = Error;
        return -1;
    }
    std::lock_guard<std::shared_mutex> Lock(gTableMutex);
    gByFd[pS->PollFd] = pS;
    jSetOwnSocket_NeedsLock(pS->PollFd, pS.get());
    return pS->PollFd;
}

int linx_standin_request(int fd, uint32_t request, void *record)
{
    StandinSocket *pS = jOwnSocket(fd);
    if (pS == nullptr) {
        errno = EBADF;
        return -1;
    }
    return jDispatch(*pS, request, record);
}

void linx_standin_watch(int fd)
{
    StandinSocket *pS = jOwnSocket(fd);
    if (pS != nullptr && pS->Spid != 0)
        StandinWatch(*pS);
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
        jSetOwnSocket_NeedsLock(fd, nullptr);
        if (pS->Spid != 0)
            gBySpid.erase({pS->Generation, pS->Spid});
        bLast = gByFd.empty();
    }
    if (bLast)
        StandinForgetAllRoutes();
    jReleaseSocket(*pS);
    return close(fd);
}
