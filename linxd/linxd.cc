// SPDX-License-Identifier: Apache-2.0
// The linxd service loop: clients and their control connections, the
// requests they send, timers, and the cleanup of closed sockets and gone
// clients.  Sockets, names, hunts and queries are linxd_names.cc's;
// delivery linxd_delivery.cc's; the links linxd_nodes.cc's.
#include "linxd_service.h"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "standin/address.h"

int64_t jNowMs()
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return (int64_t)Now.tv_sec * 1000 + Now.tv_nsec / 1000000;
}

namespace {

// An empty read is the end of the connection, or an empty datagram.
bool jHungUp(int Fd)
{
    struct pollfd P = {Fd, POLLRDHUP, 0};
    return poll(&P, 1, 0) > 0 && (P.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

std::string jDefaultSignal(uint32_t SigNo)
{
    return std::string((const char *)&SigNo, sizeof SigNo);
}

} // namespace

void Service::jWatch(Watch Kind, int Fd, uint32_t Id, uint32_t Events, int Op)
{
    struct epoll_event Event = {};
    Event.events = Events;
    Event.data.u64 = jWatchKey(Kind, Id);
    epoll_ctl(mEpollFd, Op, Fd, &Event);
}

bool Service::jListen()
{
    mListenFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (mListenFd < 0)
        return false;
    struct sockaddr_un Addr;
    const socklen_t Len = linxd_address(mOptions.Instance.c_str(), &Addr);
    if (bind(mListenFd, (struct sockaddr *)&Addr, Len) != 0 || listen(mListenFd, 128) != 0)
        return false;
    jWatch(Watch::Listener, mListenFd, (uint32_t)mListenFd, EPOLLIN, EPOLL_CTL_ADD);
    return true;
}

// The slots, mapped here before they are sealed against every writing
// mapping but this one: clients can only read them.
bool Service::jMapRegion()
{
    mRegionFd = jSizedRegion("linxd-slots", LINXD_REGION_BYTES);
    mpSlots = (linxd_slot *)jMapShared(mRegionFd, LINXD_REGION_BYTES);
    return mpSlots != nullptr &&
           fcntl(mRegionFd, F_ADD_SEALS, F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) == 0;
}

// Out of descriptors, a pending connection would keep the listener
// readable and the loop spinning, and its client waiting.  The descriptor
// kept in reserve is given up to take the connection and tell the client,
// whose first request then fails with ENFILE.  The refused connection is
// then kept as the reserve, only shut for writing: a closed one would take
// the refusal with it before the client could read it.
void Service::jTurnAway()
{
    close(mReserveFd);
    mReserveFd = accept4(mListenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (mReserveFd >= 0) {
        const linxd_reply Refusal = {-1, ENFILE, {0, 0, 0}, 0};
        send(mReserveFd, &Refusal, sizeof Refusal, MSG_DONTWAIT | MSG_NOSIGNAL);
        shutdown(mReserveFd, SHUT_WR);
        RefusalSay(&mRefusals, "new clients", "out of descriptors",
                   "linxd: out of descriptors: a new client was turned away");
    } else {
        mReserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
}

void Service::jAccept()
{
    for (;;) {
        const int Fd = accept4(mListenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (Fd < 0 && (errno == EMFILE || errno == ENFILE) && mReserveFd >= 0)
            jTurnAway();
        if (Fd < 0)
            return;
        Admit(Fd);
    }
}

// Serves a new connection if its process is of linxd's user.
void Service::Admit(int Fd)
{
    struct ucred Cred;
    socklen_t Len = sizeof Cred;
    if (getsockopt(Fd, SOL_SOCKET, SO_PEERCRED, &Cred, &Len) != 0 || Cred.uid != geteuid()) {
        close(Fd);
        return;
    }
    Client &C = mClients[Fd];
    C.Fd = Fd;
    C.Pid = Cred.pid;
    jWatch(Watch::Client, Fd, (uint32_t)Fd, EPOLLIN, EPOLL_CTL_ADD);
}

uint32_t Service::jNewSpid()
{
    do {
        mNextSpid++;
    } while (mNextSpid == 0 || mSockets.count(mNextSpid) != 0);
    return mNextSpid;
}

uint32_t Service::jNewRef()
{
    do {
        mNextRef++;
    } while (mNextRef == 0 || mAttaches.count(mNextRef) || mTimers.count(mNextRef) ||
             mNewLinks.count(mNextRef));
    return mNextRef;
}

Socket *Service::jFindSocket(uint32_t Spid)
{
    auto It = mSockets.find(Spid);
    return It == mSockets.end() ? nullptr : &It->second;
}

bool Service::jSendReply(int Fd, const Reply &R)
{
    linxd_reply Header = R.Header;
    Header.data_len = (uint32_t)R.Data.size();
    struct iovec Iov[2] = {{&Header, sizeof Header}, {(void *)R.Data.data(), R.Data.size()}};
    struct msghdr Msg = {};
    Msg.msg_iov = Iov;
    Msg.msg_iovlen = 2;
    char Control[CMSG_SPACE(sizeof R.Fds)] = {};
    linxd_pass_fds(&Msg, Control, R.Fds, (int)std::count_if(std::begin(R.Fds), std::end(R.Fds), [](int Fd) { return Fd >= 0; }));
    return sendmsg(Fd, &Msg, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

namespace {

// What is wrong with a request datagram of Got bytes (more than the buffer
// when it was truncated), or null when its header holds together; the
// header is copied to *pReq.
const char *jMalformed(const char *pBuffer, ssize_t Got, linxd_request *pReq)
{
    if ((size_t)Got > LINXD_MAX_REQUEST_BYTES)
        return "longer than any request";
    if ((size_t)Got < sizeof *pReq)
        return "shorter than a request header";
    memcpy(pReq, pBuffer, sizeof *pReq);
    if (pReq->magic != LINXD_PROTOCOL_MAGIC)
        return "not a linxd request (wrong magic)";
    if (pReq->name_len > LINXD_MAX_NAME_CHARS || pReq->sig_len > LINXD_MAX_CONTROL_SIGNAL)
        return "name or signal longer than allowed";
    if ((uint64_t)sizeof *pReq + pReq->name_len + pReq->sig_len != (uint64_t)Got)
        return "lengths in the header do not match the datagram";
    return nullptr;
}

// Receives one request datagram; the first descriptor that came with it
// goes to *pPassedFd (-1 if none), any further ones are closed.
ssize_t jReceiveRequest(int Fd, std::vector<char> &Buffer, int *pPassedFd)
{
    struct iovec Iov = {Buffer.data(), Buffer.size()};
    char Control[CMSG_SPACE(4 * sizeof(int))];
    struct msghdr Msg = {};
    Msg.msg_iov = &Iov;
    Msg.msg_iovlen = 1;
    Msg.msg_control = Control;
    Msg.msg_controllen = sizeof Control;
    const ssize_t Got = recvmsg(Fd, &Msg, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
    *pPassedFd = -1;
    if (Got >= 0)
        linxd_take_fds(&Msg, pPassedFd, 1);
    return Got;
}

} // namespace

void Service::jServeClient(int Fd)
{
    static std::vector<char> Buffer(LINXD_MAX_REQUEST_BYTES);
    int PassedFd = -1;
    const ssize_t Got = jReceiveRequest(Fd, Buffer, &PassedFd);
    if (Got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (Got < 0 || (Got == 0 && jHungUp(Fd))) {
        jDropClient(Fd); // the client closed its socket or vanished
        return;
    }
    Client &C = mClients[Fd];
    linxd_request Req = {};
    const char *pRefusal = jMalformed(Buffer.data(), Got, &Req);
    Reply R;
    if (pRefusal != nullptr) {
        jRefuse(C.Pid, "a request", pRefusal, " (" + std::to_string(Got) + " bytes)");
        R = jError((size_t)Got > Buffer.size() ? EMSGSIZE : EPROTO);
    } else {
        const char *pData = Buffer.data() + sizeof Req;
        try {
            R = jHandle(C, Req, std::string(pData, Req.name_len), std::string(pData + Req.name_len, Req.sig_len),
                        PassedFd);
        } catch (const std::bad_alloc &) {
            jOutOfMemory("serving a request");
            R = jError(ENOMEM);
        }
    }
    if (PassedFd >= 0)
        close(PassedFd); // the receiver got its own copy of a ring
    const bool bSent = jSendReply(Fd, R);
    if (R.Header.result == 0 && Req.op == LINXD_OP_REGISTER) {
        close(R.Fds[0]); // the outlet now belongs to the client alone
        Socket *pS = jFindSocket(C.Spid);
        close(pS->RetiredFd); // linxd keeps its mapping of the retired set
        pS->RetiredFd = -1;
    }
    std::vector<Delivery> Due;
    Due.swap(mAfterReply);
    for (const Delivery &D : Due)
        jDeliver(D.To, D.From, D.Signal);
    if (!bSent)
        jDropClient(Fd); // a client that does not read its replies is gone
}

Reply Service::jHandle(Client &C, const linxd_request &Req, const std::string &Name,
                       const std::string &Signal, int PassedFd)
{
    if (Req.op < LINXD_OP_VERSION || Req.op > LINXD_OP_CLOSE_ROUTE) {
        jRefuse(C.Pid, "a request", "unknown operation " + std::to_string(Req.op));
        return jError(EINVAL);
    }
    if (Req.op == LINXD_OP_VERSION)
        return jValue(mOptions.VersionWord);
    if (Req.op == LINXD_OP_REGISTER)
        return jRegister(C, Name);
    if (C.Spid == 0)
        return jError(ENOTCONN); // everything else needs a registered socket
    if (!Signal.empty() && Signal.size() < sizeof(uint32_t))
        return jError(EMSGSIZE);
    const uint32_t Arg0 = Req.arg[0];
    switch (Req.op) {
    case LINXD_OP_HUNT:
        return jHunt(C, Arg0, Name, Signal.empty() ? jDefaultSignal(kDefaultHuntSigNo) : Signal);
    case LINXD_OP_ATTACH:
        return jAttach(C, Arg0, Signal.empty() ? jDefaultSignal(kDefaultAttachSigNo) : Signal);
    case LINXD_OP_DETACH: {
        auto It = mAttaches.find(Arg0);
        if (It == mAttaches.end() || It->second.Attacher != C.Spid)
            return jError(EINVAL);
        mAttaches.erase(It);
        jUnhold(C.Spid);
        return jValue(0);
    }
    case LINXD_OP_REQUEST_TMO:
        return jRequestTmo(C, (int32_t)Arg0, Signal.empty() ? jDefaultSignal(kDefaultTmoSigNo) : Signal);
    case LINXD_OP_CANCEL_TMO:
    case LINXD_OP_MODIFY_TMO: {
        auto It = mTimers.find(Arg0);
        if (It == mTimers.end() || It->second.Owner != C.Spid)
            return jError(EINVAL);
        if (Req.op == LINXD_OP_MODIFY_TMO && (int32_t)Req.arg[1] < 0)
            return jError(EINVAL);
        mTimerOrder.erase({It->second.DeadlineMs, Arg0});
        if (Req.op == LINXD_OP_CANCEL_TMO) {
            mTimers.erase(It);
            jUnhold(C.Spid);
        } else {
            It->second.DeadlineMs = jNowMs() + (int32_t)Req.arg[1];
            mTimerOrder.insert({It->second.DeadlineMs, Arg0});
        }
        return jValue(0);
    }
    case LINXD_OP_REQUEST_NEW_LINK: {
        // A standing request: a signal now for every link that is up, and
        // one for every link that comes up until it is cancelled.
        if (!jHold(C.Spid))
            return jError(ENOBUFS);
        const uint32_t Token = jNewRef();
        mNewLinks[Token] = C.Spid;
        for (const auto &Entry : mLinks)
            if (Entry.second.bUp)
                jNewLinkSignal(C.Spid, Token, Entry.second.Name, true);
        return jValue(Token);
    }
    case LINXD_OP_CANCEL_NEW_LINK: {
        auto It = mNewLinks.find(Arg0);
        if (It == mNewLinks.end() || It->second != C.Spid)
            return jError(EINVAL);
        mNewLinks.erase(It);
        jUnhold(C.Spid);
        return jValue(0);
    }
    case LINXD_OP_INFO_SUMMARY:
        return jSummary();
    case LINXD_OP_INFO_SOCKETS:
        return jSpidsAbove(Arg0, Req.arg[1]);
    case LINXD_OP_OPEN_ROUTE:
        return jOpenRoute(C, Arg0, PassedFd);
    case LINXD_OP_CLOSE_ROUTE:
        return jCloseRoute(C, Arg0, Req.arg[1]);
    default: // the queries about one socket: name, owner, statistics, queue
        return jInfo(Req.op, Arg0);
    }
}

// Says what a client process sent that was refused ("linxd: refused a
// request of process 4242 (3 bytes): shorter than a request header"), at
// most once a second for each reason.
void Service::jRefuse(pid_t Pid, const std::string &What, const std::string &Why, const std::string &Note)
{
    const std::string Source = "process " + std::to_string(Pid);
    RefusalSay(&mRefusals, Source, What + ": " + Why, "linxd: refused " + What + " of " + Source + Note + ": " + Why);
}

void Service::jCloseSocket(uint32_t Spid)
{
    auto It = mSockets.find(Spid);
    if (It == mSockets.end())
        return;
    Socket &S = It->second;
    jDropBacklog(S);
    std::map<uint32_t, std::vector<PhantomMark>> Behind = jSocketClosing(S);
    std::vector<uint32_t> &Named = mNames[S.Name];
    Named.erase(std::find(Named.begin(), Named.end(), Spid));
    if (Named.empty())
        mNames.erase(S.Name);
    if (S.InletFd >= 0) {
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.InletFd, nullptr);
        close(S.InletFd);
    }
    if (S.BellFd >= 0) { // a phantom has none
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.BellFd, nullptr);
        close(S.BellFd);
    }
    jFreeRingSets(S);
    if (Link *pL = jLinkOf(S)) {
        pL->Phantoms.erase(S.RemoteSpid);
        jLeaveOwner(*pL, S);
    }
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        L.Credits.erase(Spid);
        auto Marks = Behind.find(L.Id);
        if (Marks != Behind.end())
            jGoneBehindRings(L, S, std::move(Marks->second));
        else if (L.Told.count(Spid) != 0)
            jSayGone(L, Spid);
    }
    memset(&mpSlots[S.Slot], 0, sizeof(linxd_slot));
    mFreeSlots.push_back(S.Slot);
    mMutedBells.erase(Spid);
    mSockets.erase(It);
    mFreedSome = true;

    // What others requested about the closed socket no longer counts for them.
    std::set<std::string> Unhunted;
    for (auto H = mHunts.begin(); H != mHunts.end();) {
        if (H->second.OnBehalf != Spid && H->second.Requester != Spid) {
            ++H;
            continue;
        }
        jUnhold(H->second.Requester);
        const std::pair<const std::string, Hunt> Dropped = *H;
        H = mHunts.erase(H);
        jHuntGone(Dropped.first, Dropped.second);
        Unhunted.insert(Dropped.first);
    }
    for (const std::string &Name : Unhunted)
        jUnseek(Name);
    std::vector<Attach> Fired;
    for (auto A = mAttaches.begin(); A != mAttaches.end();) {
        const bool bDropped = A->second.Target == Spid || A->second.Attacher == Spid;
        if (A->second.Target == Spid)
            Fired.push_back(A->second);
        if (bDropped)
            jUnhold(A->second.Attacher);
        A = bDropped ? mAttaches.erase(A) : ++A;
    }
    for (auto T = mTimers.begin(); T != mTimers.end();) {
        if (T->second.Owner == Spid) {
            mTimerOrder.erase({T->second.DeadlineMs, T->first});
            T = mTimers.erase(T);
        } else {
            ++T;
        }
    }
    for (auto L = mNewLinks.begin(); L != mNewLinks.end();)
        L = L->second == Spid ? mNewLinks.erase(L) : ++L;
    for (const Attach &A : Fired)
        jDeliver(A.Attacher, Spid, A.Signal, true);
}

void Service::jDropClient(int Fd)
{
    auto It = mClients.find(Fd);
    if (It == mClients.end())
        return;
    const uint32_t Spid = It->second.Spid;
    mClients.erase(It);
    epoll_ctl(mEpollFd, EPOLL_CTL_DEL, Fd, nullptr);
    close(Fd);
    jCloseSocket(Spid);
}

void Service::jFireTimers()
{
    const int64_t Now = jNowMs();
    while (!mTimerOrder.empty() && mTimerOrder.begin()->first <= Now) {
        const uint32_t Ref = mTimerOrder.begin()->second;
        mTimerOrder.erase(mTimerOrder.begin());
        Timer T = std::move(mTimers[Ref]);
        mTimers.erase(Ref);
        jUnhold(T.Owner);
        jDeliver(T.Owner, T.Owner, T.Signal);
    }
}

// Idle: no client, and no link to keep up (a node with links, or taking
// links over TCP, stays for its peers).
bool Service::jIdle() const
{
    const bool bTakesTcpLinks = std::any_of(mLinkListeners.begin(), mLinkListeners.end(),
                                            [](const std::pair<const int, bool> &Entry) { return Entry.second; });
    return mClients.empty() && mLinks.empty() && !bTakesTcpLinks;
}

int Service::jNextTimeoutMs()
{
    int64_t Wait = -1;
    const int64_t Now = jNowMs();
    if (!mTimerOrder.empty())
        Wait = std::max<int64_t>(0, mTimerOrder.begin()->first - Now);
    if (!mLinks.empty()) // heartbeats, silence and redials are checked this often
        Wait = Wait < 0 ? kFirstRedialMs : std::min<int64_t>(Wait, std::min(kFirstRedialMs, jHeartbeatMs()));
    if (jIdle() && mOptions.IdleExitSeconds > 0) {
        const int64_t IdleLeft = std::max<int64_t>(0, mIdleSinceMs + mOptions.IdleExitSeconds * 1000LL - Now);
        Wait = Wait < 0 ? IdleLeft : std::min(Wait, IdleLeft);
    }
    const int64_t MutedDue = jMutedDueMs();
    if (MutedDue >= 0)
        Wait = Wait < 0 ? MutedDue : std::min(Wait, MutedDue);
    const int SummaryDue = RefusalNextMs(&mRefusals);
    if (SummaryDue >= 0)
        Wait = Wait < 0 ? SummaryDue : std::min<int64_t>(Wait, SummaryDue);
    if (mFreedSome) {
        const int64_t GiveBackDue = std::max<int64_t>(0, mLastGivenBackMs + 1000 - Now);
        Wait = Wait < 0 ? GiveBackDue : std::min(Wait, GiveBackDue);
    }
    return (int)std::min<int64_t>(Wait, 60000);
}

namespace {

// Four descriptors per socket: the starting client's soft limit is raised
// to the hard one.
void jRaiseDescriptorLimit()
{
    struct rlimit Limit;
    if (getrlimit(RLIMIT_NOFILE, &Limit) == 0 && Limit.rlim_cur < Limit.rlim_max) {
        Limit.rlim_cur = Limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &Limit);
    }
}

} // namespace

// Everything but the listener: the instance's generation, the descriptor
// kept in reserve, the epoll set and the counter region.
bool Service::Start()
{
    while (getrandom(&mGeneration, sizeof mGeneration, 0) != (ssize_t)sizeof mGeneration || mGeneration == 0) {
    }
    mReserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    mSelf = getpid();
    mRingBudget = mOptions.MappedRings != 0 ? mOptions.MappedRings : jRingBudget();
    mEpollFd = epoll_create1(EPOLL_CLOEXEC);
    mIdleSinceMs = jNowMs();
    return mEpollFd >= 0 && jMapRegion();
}

// One turn of the loop: waits up to TimeoutMs, serves what is ready, fires
// the timers that are due.  Returns how many events it served.
int Service::Step(int TimeoutMs)
{
    struct epoll_event Events[64];
    const int Count = epoll_wait(mEpollFd, Events, 64, TimeoutMs);
    for (int i = 0; i < Count; i++) {
        try {
            jServeEvent((Watch)(Events[i].data.u64 >> 32), (uint32_t)Events[i].data.u64);
        } catch (const std::bad_alloc &) {
            jOutOfMemory("serving an event");
        }
    }
    try {
        jFireTimers();
        jUnmuteBells();
        if (!mLinks.empty()) {
            jResumeLinks();
            jTickLinks();
            jFlushLinks();
        }
        RefusalFlush(&mRefusals);
    } catch (const std::bad_alloc &) {
        jOutOfMemory("serving timers and links");
    }
    jGiveBackMemory();
    const bool bIdle = jIdle();
    if (bIdle && !mWasIdle)
        mIdleSinceMs = jNowMs();
    mWasIdle = bIdle;
    return std::max(Count, 0);
}

void Service::jServeEvent(Watch Kind, uint32_t Id)
{
    if (Kind == Watch::Listener) {
        jAccept();
    } else if (Kind == Watch::Client) {
        jServeClient((int)Id);
    } else if (Kind == Watch::LinkListener) {
        jAcceptLink((int)Id);
    } else if (Kind == Watch::Link) {
        jServeLink(Id);
    } else if (Kind == Watch::Bell) {
        jRingBell((pid_t)Id);
    } else if (Kind == Watch::Room) {
        jRoomRang(Id);
    } else if (Kind == Watch::Stop) {
        jStopSignal();
    } else if (Socket *pS = jFindSocket(Id)) {
        jFlushBacklog(*pS);
    }
}

// An allocation failed although every resource clients can make linxd
// hold is capped: that piece of work is given up with a line (at most one
// a second), and the loop goes on.
void Service::jOutOfMemory(const char *pWhile)
{
    static int64_t LastMs = -1000;
    const int64_t Now = jNowMs();
    if (Now - LastMs < 1000)
        return;
    LastMs = Now;
    fprintf(stderr, "linxd: out of memory while %s: it was given up\n", pWhile);
}

// What sockets and connections that went away held goes back to the
// system, at most once a second: the allocator keeps freed memory for
// reuse, and a flood of connections that came and went would otherwise
// stay in linxd's resident size.
void Service::jGiveBackMemory()
{
    const int64_t Now = jNowMs();
    if (!mFreedSome || Now - mLastGivenBackMs < 1000)
        return;
    malloc_trim(0);
    mFreedSome = false;
    mLastGivenBackMs = Now;
}

// Whether the service is back to where it started: no client, socket,
// name, pending request or signal left over.
bool Service::HoldsNothing() const
{
    return mClients.empty() && mSockets.empty() && mNames.empty() && mHunts.empty() && mAttaches.empty() &&
           mTimers.empty() && mTimerOrder.empty() && mNewLinks.empty() && mAfterReply.empty() && mLinks.empty() &&
           mHuntsAcross.empty() && mNamesBehind.empty() &&
           mBacklogBytes == 0 && mFreeSlots.size() == mUnusedSlots && mProcesses.empty() && mMutedBells.empty();
}

Service::~Service()
{
    for (const auto &Entry : mClients)
        close(Entry.first);
    for (auto &Entry : mSockets) {
        if (Entry.second.InletFd >= 0)
            close(Entry.second.InletFd);
        if (Entry.second.BellFd >= 0)
            close(Entry.second.BellFd);
        jFreeRingSets(Entry.second);
    }
    for (const auto &Entry : mProcesses)
        if (Entry.second.BellFd >= 0)
            close(Entry.second.BellFd);
    for (auto &Entry : mLinks)
        LinkClose(&Entry.second.Conn);
    for (const auto &Entry : mLinkListeners)
        close(Entry.first);
    LinkTlsFree(mpTls);
    for (const int Fd : {mListenFd, mEpollFd, mRegionFd, mReserveFd, mStopFd})
        if (Fd >= 0)
            close(Fd);
    if (mpSlots != nullptr)
        munmap(mpSlots, LINXD_REGION_BYTES);
}

// SIGINT and SIGTERM stop linxd cleanly, whatever disposition it was
// started with (a background job of a shell that is not interactive
// inherits SIGINT ignored): they arrive through a signalfd in the loop.
bool Service::jWatchStops()
{
    sigset_t Stops;
    sigemptyset(&Stops);
    sigaddset(&Stops, SIGINT);
    sigaddset(&Stops, SIGTERM);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    mStopFd = sigprocmask(SIG_BLOCK, &Stops, nullptr) == 0 ? signalfd(-1, &Stops, SFD_CLOEXEC | SFD_NONBLOCK) : -1;
    if (mStopFd < 0)
        return false;
    jWatch(Watch::Stop, mStopFd, 0, EPOLLIN, EPOLL_CTL_ADD);
    return true;
}

void Service::jStopSignal()
{
    struct signalfd_siginfo Info;
    if (read(mStopFd, &Info, sizeof Info) == (ssize_t)sizeof Info)
        mStopSignal = (int)Info.ssi_signo;
}

int Service::Run()
{
    signal(SIGPIPE, SIG_IGN);
    jRaiseDescriptorLimit();
    if (!Start() || !jWatchStops())
        return 1;
    if (!jListen()) {
        if (errno == EADDRINUSE && !mOptions.bForeground)
            return 0; // another linxd won the race to serve this instance
        fprintf(stderr, "linxd: cannot listen for instance \"%s\": %s\n", mOptions.Instance.c_str(),
                strerror(errno));
        return 1;
    }
    if (!jStartLinks())
        return 1;
    if (mOptions.bForeground)
        fprintf(stderr, "linxd: serving instance \"%s\"\n", mOptions.Instance.c_str());
    while (mStopSignal == 0) {
        Step(jNextTimeoutMs());
        if (jIdle() && mOptions.IdleExitSeconds > 0 && jNowMs() - mIdleSinceMs >= mOptions.IdleExitSeconds * 1000LL) {
            jAccept(); // a client that connected just now keeps us alive
            if (mClients.empty())
                break;
        }
    }
    if (mOptions.bForeground && mStopSignal != 0)
        fprintf(stderr, "linxd: stopped by %s\n", mStopSignal == SIGINT ? "SIGINT" : "SIGTERM");
    else if (mOptions.bForeground)
        fprintf(stderr, "linxd: idle for %d s, exiting\n", mOptions.IdleExitSeconds);
    return 0;
}

int LinxdRun(const LinxdOptions &Options)
{
    Service S(Options);
    return S.Run();
}

struct LinxdService {
    explicit LinxdService(const LinxdOptions &Options) : S(Options) {}
    Service S;
};

LinxdService *LinxdStart(const LinxdOptions &Options)
{
    LinxdService *pService = new LinxdService(Options);
    if (!pService->S.Start()) {
        delete pService;
        return nullptr;
    }
    return pService;
}

void LinxdAdmit(LinxdService *pService, int Fd)
{
    pService->S.Admit(Fd);
}

void LinxdAdmitLink(LinxdService *pService, int Fd)
{
    LinkConn Conn;
    Conn.Fd = Fd;
    Conn.Peer = "the harness";
    pService->S.AdmitLink(std::move(Conn));
}

int LinxdStep(LinxdService *pService)
{
    return pService->S.Step(0);
}

bool LinxdHoldsNothing(const LinxdService *pService)
{
    return pService->S.HoldsNothing();
}

void LinxdStop(LinxdService *pService)
{
    delete pService;
}
