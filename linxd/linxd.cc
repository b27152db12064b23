// The linxd service loop: requests of the control connections, delivery of
// linxd's own signals (hunt, attach, timeout), cleanup of closed sockets,
// and the links to other nodes with the phantoms of their endpoints.
#include "linxd.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "linx.h"
#include "linxd_address.h"
#include "linxd_link.h"

namespace {

constexpr uint32_t kDefaultHuntSigNo = LINX_OS_HUNT_SIG;
constexpr uint32_t kDefaultAttachSigNo = LINX_OS_ATTACH_SIG;
constexpr uint32_t kDefaultTmoSigNo = LINX_OS_TMO_SIG;
// Pending hunts, attaches, timeouts and new-link tokens one socket may
// hold at a time: a runaway client cannot exhaust the service.
constexpr uint32_t kMaxHeldPerSocket = 4096;
// linxd's own signals (hunt answers, attach and timeout signals) wait in a
// socket's backlog while its queue is full.  A request whose signal would
// land on a backlog of 4096 signals or 4 MiB, or while all backlogs hold
// 64 MiB, is refused: a client that never reads cannot grow the service.
constexpr size_t kMaxBacklogBytesPerSocket = 4u << 20;
constexpr size_t kMaxBacklogBytesTotal = 64u << 20;
// Signals from links wait in those backlogs too; above this much in all,
// linxd stops reading its links (the peers' senders then fill their rings
// and are refused) until the receivers have caught up to half of it.
constexpr size_t kLinkPauseBytes = kMaxBacklogBytesTotal / 2;
// Frames waiting to go out on one link: above this, linxd stops reading
// the rings of the link's phantoms, and their senders are refused when
// their rings fill.
constexpr size_t kLinkOutHighBytes = 4u << 20;
// Frames a peer leaves unread beyond this (its node's own senders stop at
// the high-water mark, but what other links bring for it does not): the
// link is dropped as one whose peer is stuck, and its attaches fire.
constexpr size_t kMaxLinkOutBytes = 64u << 20;
// Names one peer may wait for here at a time, and endpoints of its node
// that may stand here at a time: a broken peer cannot take every slot.
constexpr size_t kMaxWantedPerLink = 65536;
constexpr size_t kMaxPhantomsPerLink = 4096;
// A declared link that failed is dialled again after 100 ms, doubling up
// to 2 s.
constexpr int64_t kFirstRedialMs = 100;
constexpr int64_t kLastRedialMs = 2000;

int64_t jNowMs()
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return (int64_t)Now.tv_sec * 1000 + Now.tv_nsec / 1000000;
}

// What epoll reports: a client connection, an inlet waiting to drain, a
// link listener, a link's connection, or the bell of a phantom's rings.
enum class Watch : uint32_t { Listener = 1, Client = 2, Inlet = 3, LinkListener = 4, Link = 5, Bell = 6 };

// The key epoll hands back: the kind, and the descriptor (listeners,
// client), the link's id (link) or the socket's SPID (inlet, bell).
uint64_t jWatchKey(Watch Kind, uint32_t Id)
{
    return ((uint64_t)Kind << 32) | Id;
}

// A ring a process writes into a phantom, read by linxd.
struct PhantomRing {
    linxd_ring_reader Reader;
    pid_t Sender = 0;
};

struct Socket {
    uint32_t Spid = 0;
    std::string Name;
    int ClientFd = -1;
    pid_t Pid = 0;
    int InletFd = -1;                // linxd's end of the outlet
    int BellFd = -1;                 // eventfd senders ring when the owner armed it
    uint32_t Slot = 0;
    std::deque<std::string> Backlog; // linxd's signals waiting for queue room
    size_t BacklogBytes = 0;
    bool bWatchingInlet = false;     // epoll waits for room in the inlet
    uint32_t Held = 0;               // hunts, attaches, timeouts, tokens it requested
    // A phantom: an endpoint behind a link.  It has no client and no
    // outlet; linxd reads the rings of its senders.
    uint32_t Link = 0;               // the link's id; 0: a socket of this node
    uint32_t RemoteSpid = 0;         // the endpoint's SPID on the node behind the link
    std::vector<PhantomRing> Rings;
};

// A link to another node.  Declared links are dialled (again and again
// while they are down); links a peer dialled live as long as their
// connection.
struct Link {
    uint32_t Id = 0;
    std::string Name;                // empty until an accepted peer said hello
    bool bDeclared = false;
    LinkAddress Address;             // where a declared link is dialled
    LinkConn Conn;                   // Fd -1: no connection
    bool bUp = false;                // both hellos exchanged
    bool bPaused = false;            // not read while the backlogs are full
    bool bDialed = false;            // this node dialled the connection
    bool bHelloSent = false;
    bool bThrottled = false;         // its phantoms' rings wait for Out to drain
    uint32_t Watched = 0;            // epoll events asked for
    std::string Broken;              // why it failed while others were served
    int64_t SinceMs = 0;             // when the connection started
    int64_t LastHeardMs = 0;
    int64_t LastSentMs = 0;
    int64_t NextDialMs = 0;
    int64_t RedialMs = kFirstRedialMs;
    std::map<uint32_t, uint32_t> Phantoms; // the peer's SPID -> phantom here
    std::set<uint32_t> Told;         // sockets of ours the peer knows
    std::set<std::string> Asked;     // names asked of the peer, not yet answered
    std::set<std::string> Wanted;    // names the peer waits for here
};

struct Client {
    int Fd = -1;
    pid_t Pid = 0;
    uint32_t Spid = 0; // 0 until the name is registered
};

struct Hunt {
    uint32_t Requester;
    uint32_t OnBehalf;
    std::string Signal;
};

struct Attach {
    uint32_t Attacher;
    uint32_t Target;
    std::string Signal;
};

struct Timer {
    uint32_t Owner;
    int64_t DeadlineMs;
    std::string Signal;
};

struct Reply {
    linxd_reply Header = {};
    std::string Data;
    int Fds[3] = {-1, -1, -1};
};

class Service {
public:
    explicit Service(const LinxdOptions &Options) : mOptions(Options) {}
    ~Service();
    int Run();
    bool Start();
    void Admit(int Fd);
    void AdmitLink(LinkConn &&Conn);
    int Step(int TimeoutMs);
    bool HoldsNothing() const;

private:
    bool jListen();
    bool jMapRegion();
    void jAccept();
    void jTurnAway();
    void jServeClient(int Fd);
    void jDropClient(int Fd);
    void jCloseSocket(uint32_t Spid);
    Reply jHandle(Client &C, const linxd_request &Req, const std::string &Name,
                  const std::string &Signal, int PassedFd);
    Reply jOpenRoute(Client &C, uint32_t Target, int RingFd);
    Reply jRegister(Client &C, const std::string &Name);
    Reply jHunt(Client &C, uint32_t OnBehalf, const std::string &Name, std::string Signal);
    Reply jAttach(Client &C, uint32_t Target, std::string Signal);
    Reply jRequestTmo(Client &C, int32_t Ms, std::string Signal);
    Reply jInfo(uint32_t Op, uint32_t Spid);
    Reply jSummary() const;
    Reply jSpidsAbove(uint32_t After, uint32_t Room) const;
    void jDeliver(uint32_t To, uint32_t From, const std::string &Signal, uint32_t Attributes = 0);
    void jFlushBacklog(Socket &S);
    void jDropBacklog(Socket &S);
    bool jRoomFor(uint32_t Spid, const std::string &Signal) const;
    void jFireTimers();
    int jNextTimeoutMs() const;
    uint32_t jNewSpid();
    uint32_t jNewRef();
    Socket *jFindSocket(uint32_t Spid);
    bool jHold(uint32_t Spid);
    void jUnhold(uint32_t Spid);
    bool jSendReply(int Fd, const Reply &R);
    void jWatch(Watch Kind, int Fd, uint32_t Id, uint32_t Events, int Op);
    Socket *jNewSocket(const std::string &Name, pid_t Pid, int *pError);
    void jNameAppeared(const std::string &Name, uint32_t Spid, bool bAfterReply);
    void jNewLinkSignal(uint32_t Owner, uint32_t Token, const std::string &LinkName, bool bAfterReply);

    // Links and phantoms
    bool jStartLinks();
    void jListenForLinks(const LinkAddress &Address);
    void jAcceptLink(int ListenFd);
    void jDial(Link &L);
    void jServeLink(uint32_t Id);
    void jTakeFrames(Link &L);
    bool jLinkFrame(Link &L, uint32_t Type, const std::string &Body, std::string *pWhy);
    bool jHello(Link &L, const std::string &Body, std::string *pWhy);
    void jSendHello(Link &L);
    void jLinkUp(Link &L);
    void jLinkDown(Link &L, const std::string &Why);
    void jSendFrame(Link &L, LinkFrame Type, const std::string &Head, const void *pTail = nullptr,
                    size_t TailBytes = 0);
    void jAnnounce(Link &L, uint32_t Spid);
    bool jTell(Link &L, uint32_t Spid);
    void jSeekRemote(const std::string &Name, const Link *pOnly);
    bool jPeerHunt(Link &L, const std::string &Name, std::string *pWhy);
    bool jAddPhantom(Link &L, uint32_t RemoteSpid, const std::string &Name, std::string *pWhy);
    void jForward(const Socket &Phantom, uint32_t From, const char *pPayload, uint32_t Size, uint32_t Attributes);
    Reply jAdoptRing(Client &C, Socket &Phantom, int RingFd);
    void jDrainPhantom(Socket &Phantom);
    bool jDrainRings(Socket &Phantom, const Link *pLink);
    void jRingsOfGoneProcess(pid_t Pid);
    void jRingBell(uint32_t Spid);
    void jTickLinks();
    void jFlushLinks();
    void jResumeLinks();
    void jWatchLink(Link &L);
    Link *jFindLink(const std::string &Name, const Link *pExcept = nullptr);
    Link *jLinkOf(const Socket &S);
    int64_t jHeartbeatMs() const;

    LinxdOptions mOptions;
    int mEpollFd = -1;
    int mListenFd = -1;
    int mRegionFd = -1;
    int mReserveFd = -1; // given up to turn a client away when out of descriptors
    linxd_slot *mpSlots = nullptr;
    std::vector<uint32_t> mFreeSlots;  // slots given back, reused first
    uint32_t mUnusedSlots = 0;         // slots from here on were never handed out
    std::map<int, Client> mClients;
    std::map<uint32_t, Socket> mSockets;
    std::map<std::string, std::vector<uint32_t>> mNames; // sockets by name, oldest first
    std::multimap<std::string, Hunt> mHunts;              // pending, by name
    std::map<uint32_t, Attach> mAttaches;
    std::map<uint32_t, Timer> mTimers;
    std::set<std::pair<int64_t, uint32_t>> mTimerOrder;   // (deadline, reference)
    std::map<uint32_t, uint32_t> mNewLinks;               // token -> owner
    struct Delivery {
        uint32_t To;
        uint32_t From;
        std::string Signal;
    };
    std::vector<Delivery> mAfterReply;                    // signals due once a reply is sent
    uint32_t mNextSpid = 0x10000;
    uint64_t mGeneration = 0; // tells this instance's SPIDs from those of earlier ones
    size_t mBacklogBytes = 0; // of every socket
    uint32_t mNextRef = 0;
    int64_t mIdleSinceMs = 0;
    std::map<uint32_t, Link> mLinks;  // by id
    uint32_t mNextLinkId = 0;
    std::map<int, bool> mLinkListeners; // descriptor -> takes TCP (else Unix)
    LinkSecret mSecret = {};
    SSL_CTX *mpTls = nullptr;           // for TCP links
};

// An empty read is the end of the connection, or an empty datagram.
bool jHungUp(int Fd)
{
    struct pollfd P = {Fd, POLLRDHUP, 0};
    return poll(&P, 1, 0) > 0 && (P.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

Reply jError(int Error)
{
    Reply R;
    R.Header.result = -1;
    R.Header.error = Error;
    return R;
}

Reply jValue(uint32_t Value)
{
    Reply R;
    R.Header.value[0] = Value;
    return R;
}

std::string jDefaultSignal(uint32_t SigNo)
{
    return std::string((const char *)&SigNo, sizeof SigNo);
}

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

bool Service::jMapRegion()
{
    mRegionFd = memfd_create("linxd-counters", MFD_CLOEXEC);
    if (mRegionFd < 0 || ftruncate(mRegionFd, (off_t)LINXD_REGION_BYTES) != 0)
        return false;
    void *p = mmap(nullptr, LINXD_REGION_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, mRegionFd, 0);
    if (p == MAP_FAILED)
        return false;
    mpSlots = (linxd_slot *)p;
    return true;
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
        fprintf(stderr, "linxd: out of descriptors: a new client was turned away\n");
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

// Counts one more item requested by Spid, unless it holds its maximum.
bool Service::jHold(uint32_t Spid)
{
    Socket *pS = jFindSocket(Spid);
    if (pS == nullptr || pS->Held >= kMaxHeldPerSocket)
        return false;
    pS->Held++;
    return true;
}

void Service::jUnhold(uint32_t Spid)
{
    if (Socket *pS = jFindSocket(Spid))
        pS->Held--;
}

bool Service::jSendReply(int Fd, const Reply &R)
{
    linxd_reply Header = R.Header;
    Header.data_len = (uint32_t)R.Data.size();
    struct iovec Iov[2] = {{&Header, sizeof Header}, {(void *)R.Data.data(), R.Data.size()}};
    struct msghdr Msg = {};
    Msg.msg_iov = Iov;
    Msg.msg_iovlen = 2;
    char Control[CMSG_SPACE(3 * sizeof(int))] = {};
    linxd_pass_fds(&Msg, Control, R.Fds, (R.Fds[0] >= 0) + (R.Fds[1] >= 0) + (R.Fds[2] >= 0));
    return sendmsg(Fd, &Msg, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

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
    if (Got < 0)
        return Got;
    for (struct cmsghdr *p = CMSG_FIRSTHDR(&Msg); p != nullptr; p = CMSG_NXTHDR(&Msg, p)) {
        if (p->cmsg_level != SOL_SOCKET || p->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t i = 0; i < (p->cmsg_len - CMSG_LEN(0)) / sizeof(int); i++) {
            int Passed;
            memcpy(&Passed, CMSG_DATA(p) + i * sizeof(int), sizeof Passed);
            if (*pPassedFd < 0)
                *pPassedFd = Passed;
            else
                close(Passed);
        }
    }
    return Got;
}

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
        fprintf(stderr, "linxd: refused a request of process %d (%zd bytes): %s\n", (int)C.Pid, Got, pRefusal);
        R = jError((size_t)Got > Buffer.size() ? EMSGSIZE : EPROTO);
    } else {
        const char *pData = Buffer.data() + sizeof Req;
        R = jHandle(C, Req, std::string(pData, Req.name_len), std::string(pData + Req.name_len, Req.sig_len),
                    PassedFd);
    }
    if (PassedFd >= 0)
        close(PassedFd); // the receiver got its own copy of a ring
    const bool bSent = jSendReply(Fd, R);
    if (R.Fds[0] >= 0 && R.Header.result == 0 && Req.op == LINXD_OP_REGISTER)
        close(R.Fds[0]); // the outlet now belongs to the client alone
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
    if (Req.op < LINXD_OP_VERSION || Req.op > LINXD_OP_INFO_SOCKETS) {
        fprintf(stderr, "linxd: refused a request of process %d: unknown operation %u\n", (int)C.Pid, Req.op);
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
    default: // the queries about one socket: name, owner, statistics, queue
        return jInfo(Req.op, Arg0);
    }
}

// A new socket of Name, with its slot and its bell; null with *pError when
// the instance has no slot or descriptor left.
Socket *Service::jNewSocket(const std::string &Name, pid_t Pid, int *pError)
{
    if (mFreeSlots.empty() && mUnusedSlots == LINXD_MAX_SOCKETS) {
        *pError = ENFILE;
        return nullptr;
    }
    const int BellFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (BellFd < 0) {
        *pError = errno;
        return nullptr;
    }
    Socket S;
    S.Spid = jNewSpid();
    S.Name = Name;
    S.Pid = Pid;
    S.BellFd = BellFd;
    if (mFreeSlots.empty()) {
        S.Slot = mUnusedSlots++;
    } else {
        S.Slot = mFreeSlots.back();
        mFreeSlots.pop_back();
    }
    linxd_slot &Slot = mpSlots[S.Slot];
    memset(&Slot, 0, sizeof Slot);
    Slot.queue_limit = mOptions.QueueBytes;
    Slot.armed = 1; // the rings are empty and the bell silent
    __atomic_store_n(&Slot.spid, S.Spid, __ATOMIC_RELEASE);
    mNames[Name].push_back(S.Spid);
    const uint32_t Spid = S.Spid;
    return &mSockets.emplace(Spid, std::move(S)).first->second;
}

// Answers the hunts that waited for Name, here and on the links: local ones
// once the reply is out when bAfterReply, so that nobody learns of a socket
// before its owner does.
void Service::jNameAppeared(const std::string &Name, uint32_t Spid, bool bAfterReply)
{
    auto Range = mHunts.equal_range(Name);
    std::vector<Hunt> Answered;
    for (auto It = Range.first; It != Range.second; ++It) {
        jUnhold(It->second.Requester);
        Answered.push_back(std::move(It->second));
    }
    mHunts.erase(Range.first, Range.second);
    for (Hunt &H : Answered) {
        if (bAfterReply)
            mAfterReply.push_back({H.OnBehalf, Spid, std::move(H.Signal)});
        else
            jDeliver(H.OnBehalf, Spid, H.Signal);
    }
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        if (L.bUp && L.Wanted.erase(Name) != 0)
            jAnnounce(L, Spid);
    }
}

Reply Service::jRegister(Client &C, const std::string &Name)
{
    if (C.Spid != 0)
        return jError(EISCONN);
    if (Name.find('\0') != std::string::npos)
        return jError(EINVAL);
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, Pair) != 0)
        return jError(errno);
    int Error = 0;
    Socket *pS = jNewSocket(Name, C.Pid, &Error);
    if (pS == nullptr) {
        close(Pair[0]);
        close(Pair[1]);
        return jError(Error);
    }
    const int QueueBytes = (int)mOptions.QueueBytes;
    if (setsockopt(Pair[0], SOL_SOCKET, SO_SNDBUFFORCE, &QueueBytes, sizeof QueueBytes) != 0)
        setsockopt(Pair[0], SOL_SOCKET, SO_SNDBUF, &QueueBytes, sizeof QueueBytes);
    fcntl(Pair[0], F_SETFL, O_NONBLOCK);
    pS->ClientFd = C.Fd;
    pS->InletFd = Pair[0];
    C.Spid = pS->Spid;

    Reply R;
    R.Header.value[0] = pS->Spid;
    R.Header.value[1] = pS->Slot;
    R.Header.value[2] = mOptions.QueueBytes;
    R.Data.assign((const char *)&mGeneration, sizeof mGeneration);
    R.Fds[0] = Pair[1];
    R.Fds[1] = mRegionFd;
    R.Fds[2] = pS->BellFd;
    jNameAppeared(Name, pS->Spid, true);
    return R;
}

Reply Service::jHunt(Client &C, uint32_t OnBehalf, const std::string &Name, std::string Signal)
{
    if (jFindSocket(OnBehalf) == nullptr)
        return jError(EINVAL);
    if (!jRoomFor(OnBehalf, Signal))
        return jError(ENOBUFS);
    auto Named = mNames.find(Name);
    if (Named != mNames.end()) {
        // Several sockets may share a name: a hunt finds the oldest one.
        jDeliver(OnBehalf, Named->second.front(), Signal);
        return jValue(0);
    }
    if (!jHold(C.Spid))
        return jError(ENOBUFS);
    mHunts.insert({Name, Hunt{C.Spid, OnBehalf, std::move(Signal)}});
    jSeekRemote(Name, nullptr);
    return jValue(0);
}

Reply Service::jAttach(Client &C, uint32_t Target, std::string Signal)
{
    if (!jRoomFor(C.Spid, Signal))
        return jError(ENOBUFS);
    const uint32_t Ref = jNewRef();
    if (jFindSocket(Target) == nullptr) {
        jDeliver(C.Spid, Target, Signal); // not open: it is already gone
        return jValue(Ref);
    }
    if (!jHold(C.Spid))
        return jError(ENOBUFS);
    mAttaches[Ref] = Attach{C.Spid, Target, std::move(Signal)};
    return jValue(Ref);
}

Reply Service::jRequestTmo(Client &C, int32_t Ms, std::string Signal)
{
    if (Ms < 0)
        return jError(EINVAL);
    if (!jRoomFor(C.Spid, Signal) || !jHold(C.Spid))
        return jError(ENOBUFS);
    const uint32_t Ref = jNewRef();
    const int64_t Deadline = jNowMs() + Ms;
    mTimers[Ref] = Timer{C.Spid, Deadline, std::move(Signal)};
    mTimerOrder.insert({Deadline, Ref});
    return jValue(Ref);
}

Reply Service::jInfo(uint32_t Op, uint32_t Spid)
{
    const Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return jError(ECONNRESET);
    const linxd_slot &Slot = mpSlots[pS->Slot];
    const int64_t Queued = __atomic_load_n(&Slot.queued, __ATOMIC_RELAXED);
    Reply R;
    switch (Op) {
    case LINXD_OP_INFO_NAME:
        R.Data.assign(pS->Name.c_str(), pS->Name.size() + 1);
        break;
    case LINXD_OP_INFO_OWNER:
        R.Header.value[0] = (uint32_t)pS->Pid;
        break;
    case LINXD_OP_INFO_QUEUE:
        R.Header.value[0] = Queued > 0 ? (uint32_t)Queued : 0;
        break;
    case LINXD_OP_INFO_STAT: {
        struct linx_info_stat Stat = {};
        Stat.spid = Spid;
        Stat.state = 1;
        Stat.sent_signals = __atomic_load_n(&Slot.sent_signals, __ATOMIC_RELAXED);
        Stat.sent_bytes = __atomic_load_n(&Slot.sent_bytes, __ATOMIC_RELAXED);
        Stat.received_signals = __atomic_load_n(&Slot.received_signals, __ATOMIC_RELAXED);
        Stat.received_bytes = __atomic_load_n(&Slot.received_bytes, __ATOMIC_RELAXED);
        Stat.queued_signals = Queued > 0 ? (uint64_t)Queued : 0;
        Stat.send_failures = __atomic_load_n(&Slot.refused_sends, __ATOMIC_RELAXED);
        for (const auto &A : mAttaches)
            Stat.attaches += A.second.Target == Spid;
        for (const auto &H : mHunts)
            Stat.hunts += H.second.OnBehalf == Spid;
        for (const auto &T : mTimers)
            Stat.timeouts += T.second.Owner == Spid;
        Stat.owner_pid = (uint32_t)pS->Pid;
        R.Data.assign((const char *)&Stat, sizeof Stat);
        break;
    }
    }
    return R;
}

Reply Service::jSummary() const
{
    struct linx_info_summary Summary = {};
    Summary.sockets = (uint32_t)mSockets.size();
    for (const auto &S : mSockets) {
        const int64_t Queued = __atomic_load_n(&mpSlots[S.second.Slot].queued, __ATOMIC_RELAXED);
        Summary.queued_signals += Queued > 0 ? (uint32_t)Queued : 0;
    }
    Summary.hunts = (uint32_t)mHunts.size();
    Summary.attaches = (uint32_t)mAttaches.size();
    Summary.timeouts = (uint32_t)mTimers.size();
    Summary.new_link_requests = (uint32_t)mNewLinks.size();
    Reply R;
    R.Data.assign((const char *)&Summary, sizeof Summary);
    return R;
}

Reply Service::jSpidsAbove(uint32_t After, uint32_t Room) const
{
    Reply R;
    const uint32_t Most = Room < LINXD_MAX_SPIDS_PER_REPLY ? Room : LINXD_MAX_SPIDS_PER_REPLY;
    for (auto It = mSockets.upper_bound(After); It != mSockets.end() && R.Data.size() < Most * sizeof(uint32_t); ++It)
        R.Data.append((const char *)&It->first, sizeof It->first);
    return R;
}

// Why RingFd cannot serve as a ring of this instance, or null.  Only a
// memory file sealed against resizing is taken: the receiver maps it, and
// a file that could shrink under the mapping would crash the receiver.
const char *jRingRefusal(int RingFd, uint32_t QueueBytes)
{
    if (RingFd < 0)
        return "no ring came with the request";
    const int Seals = fcntl(RingFd, F_GET_SEALS);
    constexpr int kNeeded = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    if (Seals < 0 || (Seals & kNeeded) != kNeeded)
        return "the ring is not a memory file sealed against resizing";
    struct stat Stat;
    if (fstat(RingFd, &Stat) != 0 || (uint64_t)Stat.st_size != linxd_ring_bytes(QueueBytes))
        return "the ring's size is not this instance's";
    return nullptr;
}

// Hands a sender's ring to the receiver Target (an announcement in its
// outlet) and gives the sender the receiver's bell.
Reply Service::jOpenRoute(Client &C, uint32_t Target, int RingFd)
{
    Socket *pS = jFindSocket(Target);
    if (pS == nullptr)
        return jError(ECONNRESET);
    if (const char *pRefusal = jRingRefusal(RingFd, mOptions.QueueBytes)) {
        fprintf(stderr, "linxd: refused a request of process %d: %s\n", (int)C.Pid, pRefusal);
        return jError(EINVAL);
    }
    if (pS->Link != 0)
        return jAdoptRing(C, *pS, RingFd);
    const uint32_t Pid = (uint32_t)C.Pid;
    const linxd_signal_header Header = {C.Spid, Target, sizeof Pid, LINXD_ANNOUNCE_RING};
    struct iovec Iov[2] = {{(void *)&Header, sizeof Header}, {(void *)&Pid, sizeof Pid}};
    char Control[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr Msg = {};
    Msg.msg_iov = Iov;
    Msg.msg_iovlen = 2;
    linxd_pass_fds(&Msg, Control, &RingFd, 1);
    if (sendmsg(pS->InletFd, &Msg, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
        return jError(errno == EAGAIN ? ENOBUFS : ECONNRESET); // its outlet is full of linxd's signals
    __atomic_add_fetch(&mpSlots[pS->Slot].outlet_signals, 1, __ATOMIC_RELEASE);
    Reply R;
    R.Header.value[0] = pS->Slot;
    R.Fds[0] = pS->BellFd;
    return R;
}

// Queues a signal for socket To, as sent by From: one of linxd's own, or
// one that came over a link.  A phantom's goes on over its link.
void Service::jDeliver(uint32_t To, uint32_t From, const std::string &Signal, uint32_t Attributes)
{
    Socket *pS = jFindSocket(To);
    if (pS == nullptr)
        return;
    if (pS->Link != 0) {
        jForward(*pS, From, Signal.data(), (uint32_t)Signal.size(), Attributes);
        return;
    }
    linxd_signal_header Header = {From, To, (uint32_t)Signal.size(), Attributes};
    pS->Backlog.push_back(std::string((const char *)&Header, sizeof Header) + Signal);
    pS->BacklogBytes += pS->Backlog.back().size();
    mBacklogBytes += pS->Backlog.back().size();
    __atomic_add_fetch(&mpSlots[pS->Slot].queued, 1, __ATOMIC_RELAXED);
    jFlushBacklog(*pS);
}

// Whether a signal of linxd's may still be promised to socket Spid.
bool Service::jRoomFor(uint32_t Spid, const std::string &Signal) const
{
    auto It = mSockets.find(Spid);
    if (It == mSockets.end())
        return true; // nothing will be delivered
    const Socket &S = It->second;
    return S.Backlog.size() < kMaxHeldPerSocket && S.BacklogBytes + Signal.size() <= kMaxBacklogBytesPerSocket &&
           mBacklogBytes + Signal.size() <= kMaxBacklogBytesTotal;
}

void Service::jDropBacklog(Socket &S)
{
    mBacklogBytes -= S.BacklogBytes;
    S.BacklogBytes = 0;
    S.Backlog.clear();
}

void Service::jFlushBacklog(Socket &S)
{
    while (!S.Backlog.empty()) {
        const std::string &Datagram = S.Backlog.front();
        if (send(S.InletFd, Datagram.data(), Datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno == EAGAIN) {
                // Queue full: try again when the owner has read some.
                if (!S.bWatchingInlet)
                    jWatch(Watch::Inlet, S.InletFd, S.Spid, EPOLLOUT, EPOLL_CTL_ADD);
                S.bWatchingInlet = true;
                return;
            }
            // Only a signal from a link can be larger than the outlet takes
            // (a node run with a smaller --queue-bytes than the sender's);
            // else the owner is gone and its end is being seen to.
            if (errno == EMSGSIZE)
                fprintf(stderr, "linxd: dropped a signal of %zu bytes for %s: larger than its queue\n",
                        Datagram.size() - sizeof(linxd_signal_header), S.Name.c_str());
            __atomic_sub_fetch(&mpSlots[S.Slot].queued, 1, __ATOMIC_RELAXED);
        } else {
            __atomic_add_fetch(&mpSlots[S.Slot].outlet_signals, 1, __ATOMIC_RELEASE);
        }
        S.BacklogBytes -= Datagram.size();
        mBacklogBytes -= Datagram.size();
        S.Backlog.pop_front();
    }
    if (S.bWatchingInlet)
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.InletFd, nullptr);
    S.bWatchingInlet = false;
}

void Service::jCloseSocket(uint32_t Spid)
{
    auto It = mSockets.find(Spid);
    if (It == mSockets.end())
        return;
    Socket &S = It->second;
    if (S.Link == 0) // what it sent to phantoms goes out before its end is told
        jRingsOfGoneProcess(S.Pid);
    std::vector<uint32_t> &Named = mNames[S.Name];
    Named.erase(std::find(Named.begin(), Named.end(), Spid));
    if (Named.empty())
        mNames.erase(S.Name);
    if (S.InletFd >= 0) {
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.InletFd, nullptr);
        close(S.InletFd);
    }
    epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.BellFd, nullptr);
    close(S.BellFd);
    for (const PhantomRing &R : S.Rings)
        linxd_ring_unmap(&R.Reader);
    if (Link *pL = jLinkOf(S))
        pL->Phantoms.erase(S.RemoteSpid);
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        if (L.Told.erase(Spid) != 0 && L.bUp)
            jSendFrame(L, LinkFrame::Gone, LinkWords({Spid}));
    }
    memset(&mpSlots[S.Slot], 0, sizeof(linxd_slot));
    mFreeSlots.push_back(S.Slot);
    jDropBacklog(S);
    mSockets.erase(It);

    // What others requested about the closed socket no longer counts for them.
    for (auto H = mHunts.begin(); H != mHunts.end();) {
        const bool bDropped = H->second.OnBehalf == Spid || H->second.Requester == Spid;
        if (bDropped)
            jUnhold(H->second.Requester);
        H = bDropped ? mHunts.erase(H) : ++H;
    }
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
        jDeliver(A.Attacher, Spid, A.Signal);
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
    if (mClients.empty())
        mIdleSinceMs = jNowMs();
}

// ---- Links to other nodes ------------------------------------------------------

int64_t Service::jHeartbeatMs() const
{
    return std::max(1, mOptions.LinkTimeoutMs / 3);
}

Link *Service::jFindLink(const std::string &Name, const Link *pExcept)
{
    for (auto &Entry : mLinks)
        if (Entry.second.Name == Name && &Entry.second != pExcept)
            return &Entry.second;
    return nullptr;
}

Link *Service::jLinkOf(const Socket &S)
{
    auto It = mLinks.find(S.Link);
    return S.Link == 0 || It == mLinks.end() ? nullptr : &It->second;
}

void Service::jListenForLinks(const LinkAddress &Address)
{
    std::string Why;
    const int Fd = LinkListen(Address, &Why);
    if (Fd < 0) {
        fprintf(stderr, "linxd: %s\n", Why.c_str());
        return;
    }
    mLinkListeners[Fd] = Address.bTcp;
    jWatch(Watch::LinkListener, Fd, (uint32_t)Fd, EPOLLIN, EPOLL_CTL_ADD);
}

// Listens for links (always on the instance's Unix link address, and on
// the TCP addresses asked for) and enters the declared links, dialled by
// the loop.  false when TCP is asked for without a usable secret.
bool Service::jStartLinks()
{
    bool bTcp = false;
    std::vector<LinkAddress> Listens;
    for (const std::string &Text : mOptions.Listens) {
        LinkAddress A;
        std::string Why;
        if (!LinkParseAddress(Text, &A, &Why) || !A.bTcp) {
            fprintf(stderr, "linxd: cannot listen on %s\n", Why.empty() ? Text.c_str() : Why.c_str());
            return false;
        }
        Listens.push_back(A);
        bTcp = true;
    }
    for (const LinxdLinkOption &Option : mOptions.Links) {
        Link L;
        std::string Why;
        if (!LinkParseAddress(Option.Address, &L.Address, &Why)) {
            fprintf(stderr, "linxd: link %s: %s\n", Option.Name.c_str(), Why.c_str());
            return false;
        }
        bTcp = bTcp || L.Address.bTcp;
        L.Id = ++mNextLinkId;
        L.Name = Option.Name;
        L.bDeclared = true;
        mLinks.emplace(L.Id, std::move(L));
    }
    if (bTcp) {
        std::string Why;
        if (!LinkLoadSecret(mOptions.SecretFile, &mSecret, &Why) || (mpTls = LinkTlsContext(&mSecret)) == nullptr) {
            fprintf(stderr, "linxd: TCP links need the link secret: %s\n", Why.c_str());
            return false;
        }
    }
    jListenForLinks(LinkUnixAddress(mOptions.Instance));
    for (const LinkAddress &A : Listens)
        jListenForLinks(A);
    return true;
}

void Service::jWatchLink(Link &L)
{
    // Out is flushed at the end of every turn: only a flush the socket did
    // not take whole waits for it to be writable.
    const bool bOut = L.Conn.bWantWrite || L.Conn.State == LinkState::Connecting;
    const uint32_t Events = (L.bPaused ? 0u : (uint32_t)EPOLLIN) | (bOut ? (uint32_t)EPOLLOUT : 0u);
    if (Events != L.Watched)
        jWatch(Watch::Link, L.Conn.Fd, L.Id, Events, EPOLL_CTL_MOD);
    L.Watched = Events;
}

void Service::jAcceptLink(int ListenFd)
{
    for (;;) {
        Link L;
        std::string Why;
        if (!LinkAccept(ListenFd, mLinkListeners[ListenFd], mpTls, &L.Conn, &Why)) {
            if (Why.empty())
                return;
            fprintf(stderr, "linxd: refused a link connection from %s: %s\n", L.Conn.Peer.c_str(), Why.c_str());
            continue;
        }
        AdmitLink(std::move(L.Conn));
    }
}

// A connection a peer dialled; it becomes a link when its hello comes.
void Service::AdmitLink(LinkConn &&Conn)
{
    Link L;
    L.Conn = std::move(Conn);
    L.Id = ++mNextLinkId;
    L.SinceMs = jNowMs();
    L.Watched = EPOLLIN;
    jWatch(Watch::Link, L.Conn.Fd, L.Id, EPOLLIN, EPOLL_CTL_ADD);
    mLinks.emplace(L.Id, std::move(L));
}

void Service::jDial(Link &L)
{
    std::string Why;
    L.bHelloSent = false;
    if (!LinkDial(L.Address, mpTls, &L.Conn, &Why)) {
        jLinkDown(L, Why);
        return;
    }
    L.bDialed = true;
    L.SinceMs = jNowMs();
    L.Watched = EPOLLIN | EPOLLOUT;
    jWatch(Watch::Link, L.Conn.Fd, L.Id, L.Watched, EPOLL_CTL_ADD);
    if (L.Conn.State == LinkState::Open)
        jSendHello(L);
}

void Service::jSendHello(Link &L)
{
    jSendFrame(L, LinkFrame::Hello, LinkWords({kLinkMagic, kLinkVersion}) + mOptions.Node);
    L.bHelloSent = true;
}

void Service::jServeLink(uint32_t Id)
{
    auto It = mLinks.find(Id);
    if (It == mLinks.end() || It->second.Conn.Fd < 0)
        return;
    Link &L = It->second;
    std::string Why;
    if (!LinkPump(&L.Conn, &Why)) {
        jLinkDown(L, Why);
        return;
    }
    if (L.bDialed && !L.bHelloSent && L.Conn.State == LinkState::Open)
        jSendHello(L);
    jTakeFrames(L);
    if (L.Conn.Fd >= 0)
        jWatchLink(L);
}

// Serves the frames that arrived whole, until the backlogs of the
// receivers here are too full to take more.
void Service::jTakeFrames(Link &L)
{
    uint32_t Type = 0;
    std::string Body, Why;
    int Got = 0;
    while (!L.bPaused && (Got = LinkTakeFrame(&L.Conn, &Type, &Body, &Why)) == 1) {
        L.LastHeardMs = jNowMs();
        if (!jLinkFrame(L, Type, Body, &Why)) {
            jLinkDown(L, Why);
            return;
        }
        L.bPaused = mBacklogBytes > kLinkPauseBytes;
    }
    if (!L.bPaused && Got < 0)
        jLinkDown(L, Why);
}

// Takes links up again once the receivers here have caught up.
void Service::jResumeLinks()
{
    if (mBacklogBytes > kLinkPauseBytes / 2)
        return;
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        if (!L.bPaused)
            continue;
        L.bPaused = false;
        L.LastHeardMs = jNowMs(); // it was not read: its silence does not count
        jTakeFrames(L);
        if (L.Conn.Fd >= 0)
            jWatchLink(L);
    }
}

bool jValidName(const std::string &Name)
{
    return !Name.empty() && Name.size() <= LINXD_MAX_NAME_CHARS && Name.find('\0') == std::string::npos;
}

// One frame from the peer.  false with *pWhy when the peer broke the rules:
// the link is dropped.
bool Service::jLinkFrame(Link &L, uint32_t Type, const std::string &Body, std::string *pWhy)
{
    if (!L.bUp) {
        if (Type == (uint32_t)LinkFrame::Hello)
            return jHello(L, Body, pWhy);
        *pWhy = "a frame before the hello";
        return false;
    }
    switch ((LinkFrame)Type) {
    case LinkFrame::Hunt:
        if (jValidName(Body))
            return jPeerHunt(L, Body, pWhy);
        *pWhy = "a hunt for a name that cannot be";
        return false;
    case LinkFrame::Endpoint:
        if (Body.size() > 4 && LinkWord(Body, 0) != 0 && jValidName(Body.substr(4)))
            return jAddPhantom(L, LinkWord(Body, 0), Body.substr(4), pWhy);
        *pWhy = "an endpoint frame that does not hold together";
        return false;
    case LinkFrame::Gone:
        if (Body.size() != 4)
            break;
        if (L.Phantoms.count(LinkWord(Body, 0)) != 0)
            jCloseSocket(L.Phantoms[LinkWord(Body, 0)]);
        return true;
    case LinkFrame::Signal: {
        if (Body.size() < 12 + sizeof(uint32_t))
            break;
        auto From = L.Phantoms.find(LinkWord(Body, 0));
        if (From == L.Phantoms.end()) {
            *pWhy = "a signal from an endpoint it never announced";
            return false;
        }
        jDeliver(LinkWord(Body, 1), From->second, Body.substr(12), LinkWord(Body, 2));
        return true;
    }
    case LinkFrame::Heartbeat:
        if (Body.empty())
            return true;
        break;
    default:
        *pWhy = "a frame of unknown type " + std::to_string(Type);
        return false;
    }
    *pWhy = "a frame of type " + std::to_string(Type) + " and " + std::to_string(Body.size()) + " bytes";
    return false;
}

// The peer's hello.  A peer that dialled names the link with its node name;
// when both nodes dialled each other under those names, the connection of
// the node whose name sorts first wins, on both sides alike.
bool Service::jHello(Link &L, const std::string &Body, std::string *pWhy)
{
    if (Body.size() < 9 || LinkWord(Body, 0) != kLinkMagic) {
        *pWhy = "not a linxd link (no hello)";
        return false;
    }
    if (LinkWord(Body, 1) != kLinkVersion) {
        *pWhy = "link protocol version " + std::to_string(LinkWord(Body, 1)) + ", not " + std::to_string(kLinkVersion);
        return false;
    }
    const std::string Node = Body.substr(8);
    if (!linxd_instance_valid(Node.c_str()) || Node.size() != strlen(Node.c_str()) || Node == mOptions.Node) {
        *pWhy = "a node name that cannot be, or this node's own";
        return false;
    }
    if (!L.bDialed) {
        Link *pOther = jFindLink(Node, &L);
        if (pOther != nullptr && (pOther->bUp || (pOther->Conn.Fd >= 0 && mOptions.Node < Node))) {
            *pWhy = "link " + Node + " is already up or being dialled";
            return false;
        }
        if (pOther != nullptr) { // the peer's connection serves the declared link
            L.bDeclared = pOther->bDeclared;
            L.Address = pOther->Address;
            if (pOther->Conn.Fd >= 0)
                epoll_ctl(mEpollFd, EPOLL_CTL_DEL, pOther->Conn.Fd, nullptr);
            LinkClose(&pOther->Conn);
            mLinks.erase(pOther->Id);
        }
        L.Name = Node;
        jSendHello(L);
    }
    jLinkUp(L);
    return true;
}

void Service::jLinkUp(Link &L)
{
    L.bUp = true;
    L.RedialMs = kFirstRedialMs;
    L.LastHeardMs = jNowMs();
    fprintf(stderr, "linxd: link %s is up (%s)\n", L.Name.c_str(), L.Conn.Peer.c_str());
    std::set<std::string> Sought;
    for (const auto &H : mHunts)
        Sought.insert(H.first);
    for (const auto &Entry : mLinks)
        Sought.insert(Entry.second.Wanted.begin(), Entry.second.Wanted.end());
    for (const std::string &Name : Sought)
        jSeekRemote(Name, &L);
    for (const auto &Entry : mNewLinks)
        jNewLinkSignal(Entry.second, Entry.first, L.Name, false);
}

// Ends the link's connection: every phantom behind it closes (firing its
// attaches once), and a declared link is dialled again later.
void Service::jLinkDown(Link &L, const std::string &Why)
{
    if (L.Name.empty())
        fprintf(stderr, "linxd: refused a link connection from %s: %s\n", L.Conn.Peer.c_str(), Why.c_str());
    else if (L.bUp || L.RedialMs == kFirstRedialMs) // a link that stays down is reported once
        fprintf(stderr, "linxd: link %s is down: %s\n", L.Name.c_str(), Why.c_str());
    if (L.Conn.Fd >= 0)
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, L.Conn.Fd, nullptr);
    LinkClose(&L.Conn);
    L.Conn = LinkConn();
    L.bUp = L.bPaused = L.bThrottled = L.bHelloSent = L.bDialed = false;
    L.Watched = 0;
    L.Broken.clear();
    std::vector<uint32_t> Phantoms;
    for (const auto &Entry : L.Phantoms)
        Phantoms.push_back(Entry.second);
    for (const uint32_t Spid : Phantoms)
        jCloseSocket(Spid);
    L.Told.clear();
    L.Asked.clear();
    L.Wanted.clear();
    L.NextDialMs = jNowMs() + L.RedialMs;
    L.RedialMs = std::min(2 * L.RedialMs, kLastRedialMs);
}

void Service::jSendFrame(Link &L, LinkFrame Type, const std::string &Head, const void *pTail, size_t TailBytes)
{
    LinkPutFrame(&L.Conn, Type, Head.data(), Head.size(), pTail, TailBytes);
    L.LastSentMs = jNowMs();
}

void Service::jAnnounce(Link &L, uint32_t Spid)
{
    const Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return;
    jSendFrame(L, LinkFrame::Endpoint, LinkWords({Spid}) + pS->Name);
    L.Told.insert(Spid);
}

// Makes sure the peer knows socket Spid; false when it is not open.
bool Service::jTell(Link &L, uint32_t Spid)
{
    if (L.Told.count(Spid) == 0)
        jAnnounce(L, Spid);
    return L.Told.count(Spid) != 0;
}

// A hunt for "<link>/<rest>" asks the node behind the link for <rest>
// (once, until it answers), if the link is up (and is pOnly, if given).
void Service::jSeekRemote(const std::string &Name, const Link *pOnly)
{
    const size_t Slash = Name.find('/');
    if (Slash == std::string::npos || Slash + 1 == Name.size())
        return;
    Link *pL = jFindLink(Name.substr(0, Slash));
    if (pL == nullptr || !pL->bUp || (pOnly != nullptr && pL != pOnly))
        return;
    const std::string Rest = Name.substr(Slash + 1);
    if (pL->Asked.insert(Rest).second)
        jSendFrame(*pL, LinkFrame::Hunt, Rest);
}

bool Service::jPeerHunt(Link &L, const std::string &Name, std::string *pWhy)
{
    auto Named = mNames.find(Name);
    if (Named != mNames.end()) {
        jAnnounce(L, Named->second.front()); // the oldest of the name, as for local hunts
        return true;
    }
    if (L.Wanted.size() >= kMaxWantedPerLink) {
        *pWhy = "more than " + std::to_string(kMaxWantedPerLink) + " names hunted at once";
        return false;
    }
    L.Wanted.insert(Name);
    jSeekRemote(Name, nullptr);
    return true;
}

bool Service::jAddPhantom(Link &L, uint32_t RemoteSpid, const std::string &Name, std::string *pWhy)
{
    L.Asked.erase(Name);
    if (L.Phantoms.count(RemoteSpid) != 0)
        return true;
    if (L.Phantoms.size() >= kMaxPhantomsPerLink) {
        *pWhy = "more than " + std::to_string(kMaxPhantomsPerLink) + " of its endpoints known here at once";
        return false;
    }
    const std::string Full = L.Name + "/" + Name;
    int Error = 0;
    Socket *pS = Full.size() <= LINXD_MAX_NAME_CHARS ? jNewSocket(Full, getpid(), &Error) : nullptr;
    if (pS == nullptr) {
        *pWhy = "no room here for the endpoint " + Full;
        return false;
    }
    pS->Link = L.Id;
    pS->RemoteSpid = RemoteSpid;
    L.Phantoms[RemoteSpid] = pS->Spid;
    jWatch(Watch::Bell, pS->BellFd, pS->Spid, EPOLLIN, EPOLL_CTL_ADD);
    jNameAppeared(Full, pS->Spid, false);
    return true;
}

void Service::jForward(const Socket &Phantom, uint32_t From, const char *pPayload, uint32_t Size, uint32_t Attributes)
{
    Link *pL = jLinkOf(Phantom);
    if (pL == nullptr || !pL->bUp)
        return;
    if (!jTell(*pL, From)) {
        fprintf(stderr, "linxd: dropped a signal for %s: its sender 0x%x is not open\n", Phantom.Name.c_str(), From);
        return;
    }
    jSendFrame(*pL, LinkFrame::Signal, LinkWords({From, Phantom.RemoteSpid, Attributes}), pPayload, Size);
}

// Maps a sender's ring into a phantom; linxd reads it and forwards what it
// holds.
Reply Service::jAdoptRing(Client &C, Socket &Phantom, int RingFd)
{
    PhantomRing R;
    R.Sender = C.Pid;
    const char *pWhy = nullptr;
    if (linxd_ring_map(RingFd, mOptions.QueueBytes, &R.Reader, &pWhy) != 0) {
        fprintf(stderr, "linxd: refused a request of process %d: %s\n", (int)C.Pid, pWhy);
        return jError(EINVAL);
    }
    Phantom.Rings.push_back(R);
    Reply Out;
    Out.Header.value[0] = Phantom.Slot;
    Out.Fds[0] = Phantom.BellFd;
    return Out;
}

// Forwards what the phantom's rings hold, as far as its link takes it.
// Returns whether everything was read.
bool Service::jDrainRings(Socket &Phantom, const Link *pLink)
{
    linxd_slot &Slot = mpSlots[Phantom.Slot];
    for (size_t i = 0; i < Phantom.Rings.size();) {
        PhantomRing &R = Phantom.Rings[i];
        linxd_signal_header Header;
        const char *pWhy = nullptr;
        linxd_peeked State;
        while ((State = linxd_ring_peek(&R.Reader, Phantom.Spid, &Header, &pWhy)) == LINXD_PEEK_SIGNAL) {
            if (pLink != nullptr && LinkOutBytes(pLink->Conn) > kLinkOutHighBytes)
                return false;
            jForward(Phantom, Header.from, linxd_ring_payload(&R.Reader), Header.size, Header.attributes);
            linxd_ring_advance(&R.Reader, Header.size);
            __atomic_sub_fetch(&Slot.queued, 1, __ATOMIC_RELAXED);
            __atomic_add_fetch(&Slot.received_signals, 1, __ATOMIC_RELAXED);
            __atomic_add_fetch(&Slot.received_bytes, Header.size, __ATOMIC_RELAXED);
        }
        const bool bDrop = State == LINXD_PEEK_BROKEN || linxd_ring_finished(&R.Reader);
        if (State == LINXD_PEEK_BROKEN)
            fprintf(stderr, "linxd: refused the signal ring of process %d: %s\n", (int)R.Sender, pWhy);
        if (bDrop) {
            linxd_ring_unmap(&R.Reader);
            Phantom.Rings.erase(Phantom.Rings.begin() + (ptrdiff_t)i);
        } else {
            i++;
        }
    }
    return true;
}

// Reads the phantom's rings until they are empty and its bell is armed, as
// a receiving process does; a link that has too much to send leaves them
// for later (its senders' rings fill up and refuse them).
void Service::jDrainPhantom(Socket &Phantom)
{
    Link *pLink = jLinkOf(Phantom);
    linxd_slot &Slot = mpSlots[Phantom.Slot];
    for (;;) {
        if (!jDrainRings(Phantom, pLink)) {
            pLink->bThrottled = true;
            return;
        }
        __atomic_store_n(&Slot.armed, 1u, __ATOMIC_SEQ_CST);
        bool bWaiting = false;
        for (const PhantomRing &R : Phantom.Rings)
            bWaiting = bWaiting || linxd_ring_waiting(&R.Reader);
        // A sender that found the bell armed rings it and brings us back.
        if (!bWaiting || __atomic_exchange_n(&Slot.armed, 0u, __ATOMIC_SEQ_CST) == 0)
            return;
    }
}

void Service::jRingBell(uint32_t Spid)
{
    Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return;
    uint64_t Count;
    (void)!read(pS->BellFd, &Count, sizeof Count);
    jDrainPhantom(*pS);
}

// A socket of process Pid closed (its client is gone already): what the
// process wrote to phantoms goes out first, and the rings of a process with
// no socket left are unmapped.
void Service::jRingsOfGoneProcess(pid_t Pid)
{
    size_t Sockets = 0;
    for (const auto &Entry : mClients)
        Sockets += Entry.second.Pid == Pid && Entry.second.Spid != 0;
    for (auto &Entry : mSockets) {
        Socket &P = Entry.second;
        if (P.Link == 0 || P.Rings.empty())
            continue;
        jDrainRings(P, nullptr);
        for (size_t i = 0; i < P.Rings.size();) {
            const bool bGone = Sockets == 0 && P.Rings[i].Sender == Pid && !linxd_ring_waiting(&P.Rings[i].Reader);
            if (bGone) {
                linxd_ring_unmap(&P.Rings[i].Reader);
                P.Rings.erase(P.Rings.begin() + (ptrdiff_t)i);
            } else {
                i++;
            }
        }
    }
}

// Dials declared links that are due, sends heartbeats, drops links that
// fell silent or never said hello, and forgets accepted links that ended.
void Service::jTickLinks()
{
    const int64_t Now = jNowMs();
    for (auto It = mLinks.begin(); It != mLinks.end();) {
        Link &L = It->second;
        if (!L.Broken.empty())
            jLinkDown(L, std::string(L.Broken));
        else if (L.bDeclared && L.Conn.Fd < 0 && Now >= L.NextDialMs)
            jDial(L);
        else if (L.Conn.Fd >= 0 && !L.bUp && Now - L.SinceMs > mOptions.LinkTimeoutMs)
            jLinkDown(L, "no hello within " + std::to_string(mOptions.LinkTimeoutMs) + " ms");
        else if (L.bUp && !L.bPaused && Now - L.LastHeardMs > mOptions.LinkTimeoutMs)
            jLinkDown(L, "nothing heard for " + std::to_string(mOptions.LinkTimeoutMs) + " ms");
        else if (L.bUp && Now - L.LastSentMs >= jHeartbeatMs())
            jSendFrame(L, LinkFrame::Heartbeat, std::string());
        It = !L.bDeclared && L.Conn.Fd < 0 ? mLinks.erase(It) : std::next(It);
    }
}

// Sends what the loop queued on every link, once per turn; a link that
// drained below its high-water mark reads its phantoms' rings again.
void Service::jFlushLinks()
{
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        std::string Why;
        if (L.Conn.Fd < 0 || !L.Broken.empty())
            continue;
        if (!LinkFlush(&L.Conn, &Why) || LinkOutBytes(L.Conn) > kMaxLinkOutBytes) {
            L.Broken = Why.empty() ? "the peer left " + std::to_string(kMaxLinkOutBytes >> 20) + " MiB unread" : Why;
            continue;
        }
        if (L.bThrottled && LinkOutBytes(L.Conn) <= kLinkOutHighBytes) {
            L.bThrottled = false;
            for (const auto &Phantom : L.Phantoms)
                if (Socket *pS = jFindSocket(Phantom.second))
                    jDrainPhantom(*pS);
        }
        jWatchLink(L);
    }
}

// One signal of a new-link request: the token and the link's name.
void Service::jNewLinkSignal(uint32_t Owner, uint32_t Token, const std::string &LinkName, bool bAfterReply)
{
    const uint32_t Words[4] = {LINX_OS_NEW_LINK_SIG, Token, 0, (uint32_t)LinkName.size() + 1};
    std::string Signal((const char *)Words, sizeof Words);
    Signal.append(LinkName.c_str(), LinkName.size() + 1);
    Signal.push_back('\0');
    if (bAfterReply)
        mAfterReply.push_back({Owner, Owner, std::move(Signal)});
    else
        jDeliver(Owner, Owner, Signal);
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

int Service::jNextTimeoutMs() const
{
    int64_t Wait = -1;
    const int64_t Now = jNowMs();
    if (!mTimerOrder.empty())
        Wait = std::max<int64_t>(0, mTimerOrder.begin()->first - Now);
    if (!mLinks.empty()) // heartbeats, silence and redials are checked this often
        Wait = Wait < 0 ? kFirstRedialMs : std::min<int64_t>(Wait, std::min(kFirstRedialMs, jHeartbeatMs()));
    if (mClients.empty() && mOptions.IdleExitSeconds > 0) {
        const int64_t IdleLeft = std::max<int64_t>(0, mIdleSinceMs + mOptions.IdleExitSeconds * 1000LL - Now);
        Wait = Wait < 0 ? IdleLeft : std::min(Wait, IdleLeft);
    }
    return (int)std::min<int64_t>(Wait, 60000);
}

// Two descriptors per socket: the starting client's soft limit is raised
// to the hard one.
void jRaiseDescriptorLimit()
{
    struct rlimit Limit;
    if (getrlimit(RLIMIT_NOFILE, &Limit) == 0 && Limit.rlim_cur < Limit.rlim_max) {
        Limit.rlim_cur = Limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &Limit);
    }
}

// Everything but the listener: the instance's generation, the descriptor
// kept in reserve, the epoll set and the counter region.
bool Service::Start()
{
    while (getrandom(&mGeneration, sizeof mGeneration, 0) != (ssize_t)sizeof mGeneration || mGeneration == 0) {
    }
    mReserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
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
        const Watch Kind = (Watch)(Events[i].data.u64 >> 32);
        const uint32_t Id = (uint32_t)Events[i].data.u64;
        if (Kind == Watch::Listener) {
            jAccept();
        } else if (Kind == Watch::Client) {
            jServeClient((int)Id);
        } else if (Kind == Watch::LinkListener) {
            jAcceptLink((int)Id);
        } else if (Kind == Watch::Link) {
            jServeLink(Id);
        } else if (Kind == Watch::Bell) {
            jRingBell(Id);
        } else if (Socket *pS = jFindSocket(Id)) {
            jFlushBacklog(*pS);
        }
    }
    jFireTimers();
    if (!mLinks.empty()) {
        jResumeLinks();
        jTickLinks();
        jFlushLinks();
    }
    return std::max(Count, 0);
}

// Whether the service is back to where it started: no client, socket,
// name, pending request or signal left over.
bool Service::HoldsNothing() const
{
    return mClients.empty() && mSockets.empty() && mNames.empty() && mHunts.empty() && mAttaches.empty() &&
           mTimers.empty() && mTimerOrder.empty() && mNewLinks.empty() && mAfterReply.empty() && mLinks.empty() &&
           mBacklogBytes == 0 && mFreeSlots.size() == mUnusedSlots;
}

Service::~Service()
{
    for (const auto &Entry : mClients)
        close(Entry.first);
    for (const auto &Entry : mSockets) {
        if (Entry.second.InletFd >= 0)
            close(Entry.second.InletFd);
        close(Entry.second.BellFd);
        for (const PhantomRing &R : Entry.second.Rings)
            linxd_ring_unmap(&R.Reader);
    }
    for (auto &Entry : mLinks)
        LinkClose(&Entry.second.Conn);
    for (const auto &Entry : mLinkListeners)
        close(Entry.first);
    LinkTlsFree(mpTls);
    for (const int Fd : {mListenFd, mEpollFd, mRegionFd, mReserveFd})
        if (Fd >= 0)
            close(Fd);
    if (mpSlots != nullptr)
        munmap(mpSlots, LINXD_REGION_BYTES);
}

int Service::Run()
{
    signal(SIGPIPE, SIG_IGN);
    jRaiseDescriptorLimit();
    if (!Start())
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
    for (;;) {
        Step(jNextTimeoutMs());
        if (mClients.empty() && mOptions.IdleExitSeconds > 0 &&
            jNowMs() - mIdleSinceMs >= mOptions.IdleExitSeconds * 1000LL) {
            jAccept(); // a client that connected just now keeps us alive
            if (mClients.empty())
                break;
        }
    }
    if (mOptions.bForeground)
        fprintf(stderr, "linxd: idle for %d s, exiting\n", mOptions.IdleExitSeconds);
    return 0;
}

} // namespace

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
