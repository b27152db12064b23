/* SPDX-License-Identifier: Apache-2.0 */
/*
 * linxd_service.h - the state of the linxd service, shared by the files
 * that implement it: the loop, clients and requests (linxd.cc), sockets,
 * names, hunts, attaches, timeouts and queries (linxd_names.cc), delivery
 * of linxd's own signals and of what links bring (linxd_delivery.cc), the
 * rings and routes between processes (linxd_routes.cc), the links to
 * other nodes (linxd_nodes.cc) and the phantoms of their endpoints
 * (linxd_phantoms.cc).
 *
 * Everything here belongs to the service's one thread: nothing is locked.
 * The counter region and the ready sets are shared with the clients, and
 * every value read back from them is checked before use.
 */
#ifndef LINXD_SERVICE_H
#define LINXD_SERVICE_H

#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "linx.h"
#include "linxd.h"
#include "linxd_link.h"
#include "standin/protocol.h"
#include "standin/refusals.h"
#include "standin/ring_set.h"


constexpr uint32_t kDefaultHuntSigNo = LINX_OS_HUNT_SIG;
constexpr uint32_t kDefaultAttachSigNo = LINX_OS_ATTACH_SIG;
constexpr uint32_t kDefaultTmoSigNo = LINX_OS_TMO_SIG;
// What one process can make linxd, or the processes it sends to, hold is
// capped and charged to it (linxd_charges.cc); beyond a cap only that
// process is refused, with ENOBUFS and a summarised line.
//
// Sockets of one process: a quarter of the instance's slots.
constexpr uint32_t kMaxSocketsPerProcess = LINXD_MAX_SOCKETS / 4;
// Pending hunts, attaches, timeouts and new-link tokens one socket may
// hold at a time, and all the sockets of one process together.
constexpr uint32_t kMaxHeldPerSocket = 4096;
constexpr uint32_t kMaxHeldPerProcess = 65536;
// linxd's own signals (hunt answers, attach and timeout signals) wait in a
// socket's backlog while its queue is full.  A request whose signal would
// land on a backlog of 4096 signals or 4 MiB, on the sockets of a process
// holding 8 MiB, or while all backlogs hold 64 MiB, is refused: a client
// that never reads cannot grow the service, nor take the room of others.
constexpr size_t kMaxBacklogBytesPerSocket = 4u << 20;
constexpr size_t kMaxBacklogBytesPerProcess = 8u << 20;
constexpr size_t kMaxBacklogBytesTotal = 64u << 20;
// Rings (each one mapping of a ring's size in whoever reads it, and as
// much shared memory as its writer filled) are charged to the process that
// made them from the moment it hands one over until its reader let it go:
// live, announced but not yet taken, and retired but not yet read all
// count.  A process has at most 4 rings into one socket (its live one and
// those retired that the reader has not read yet) and 2048 in all, 1024 of
// them into phantoms, which linxd maps itself.  A receiving process maps
// at most 16384 rings of others in all its sockets, and a socket at most
// --rings-per-socket.  linxd maps at most what vm.max_map_count leaves
// beside the sets of a full instance (jRingBudget).
constexpr uint32_t kMaxRingsIntoSocket = 4;
constexpr uint32_t kMaxRingsPerProcess = 2048;
constexpr uint32_t kMaxPhantomRingsPerProcess = 1024;
constexpr uint32_t kMaxRingsPerReceiver = 16384;
// Signals from links wait in those backlogs too; above this much in all,
// linxd stops reading its links (the peers' senders then fill their rings
// and are refused) until the receivers have caught up to half of it.  It
// is the last resort: each destination has a window of its own first.
constexpr size_t kLinkPauseBytes = kMaxBacklogBytesTotal / 2;
// Frames waiting to go out on one link: above this, linxd stops reading
// the rings of the link's phantoms (on every path: closes and retired
// rings wait too), and their senders are refused when their rings fill.
constexpr size_t kLinkOutHighBytes = 1u << 20;
// Bytes of signals for one endpoint behind a link that may be on their
// way: sent, and not yet passed on by the peer (the peer's credit frames
// say what it passed on, a quarter window at a time).  A receiver that
// never reads stops only the traffic to itself: its senders here fill
// their rings and are refused, and its node holds at most this for it.
// 4 MiB keeps one destination at 400 MB/s across a link with a 10 ms round
// trip; the high-water mark above, which honest traffic queues behind,
// stays small.
constexpr uint64_t kLinkWindowBytes = 4u << 20;
constexpr uint64_t kLinkCreditStep = kLinkWindowBytes / 4;
// The endpoints of one owner (a process of the peer's node, or the
// endpoints of one process further on) share a window of the same size:
// a process that never reads any of its many sockets has at most 4 MiB
// waiting for it on its node from each link, and cannot make its node
// stop reading the link for everyone.  The peer's credits for the
// endpoints of one owner go out together once they come to a quarter
// window, so that what waits unsaid never holds the owner's window shut.
constexpr uint64_t kLinkOwnerWindowBytes = kLinkWindowBytes;
// Frames a peer leaves unread beyond this (its node's own senders stop at
// the high-water mark, but what other links bring for it does not): the
// link is dropped as one whose peer is stuck, and its attaches fire.
constexpr size_t kMaxLinkOutBytes = 64u << 20;
// Names one peer may wait for here at a time, and endpoints of its node
// that may stand here at a time: a broken peer cannot take every slot.
// This node keeps to the same bounds towards its peers: it never asks one
// for more names, nor announces more of its endpoints, than the peer
// takes, so a reconnect never sends what would drop the link.
constexpr size_t kMaxWantedPerLink = 65536;
constexpr size_t kMaxPhantomsPerLink = 4096;
// Names the processes here may hunt for behind one link at a time, and
// hunts across links one process may have pending: a process that hunts
// without end gets ENOBUFS, and the link and its other users go on.
constexpr size_t kMaxHuntedPerLink = 16384;
constexpr uint32_t kMaxHuntsAcrossPerProcess = 4096;
// Connections taken for links that have not said hello yet: beyond, the
// oldest is dropped.  A connection that never finishes its TLS handshake
// costs nothing once it is gone.
constexpr size_t kMaxHalfOpenLinks = 64;
// A declared link that failed is dialled again after 100 ms, doubling up
// to 2 s.
constexpr int64_t kFirstRedialMs = 100;
constexpr int64_t kLastRedialMs = 2000;

int64_t jNowMs();
// A name "<link>/<rest>" is sought behind the link its first part names:
// false when it has no slash, or nothing after it.
inline bool jPathBehindLink(const std::string &Name, std::string *pLink, std::string *pRest)
{
    const size_t Slash = Name.find('/');
    if (Slash == std::string::npos || Slash + 1 == Name.size())
        return false;
    *pLink = Name.substr(0, Slash);
    *pRest = Name.substr(Slash + 1);
    return true;
}
// A memory file of Bytes for clients to map, sealed so that none of them
// can shrink it under another's mapping; -1 with errno.
int jSealedRegion(const char *pName, size_t Bytes);
// The same with its seals still open to more (the slots are sealed against
// writing once linxd has mapped them).
int jSizedRegion(const char *pName, size_t Bytes);
// Maps such a region here; null on failure.
void *jMapShared(int Fd, size_t Bytes);

// What epoll reports: a client connection, an inlet waiting to drain, a
// link listener, a link's connection, the bell a process rings for its
// rings into phantoms, the room bell of linxd's ring into a socket, or a
// signal to stop.
enum class Watch : uint32_t { Listener = 1, Client = 2, Inlet = 3, LinkListener = 4, Link = 5, Bell = 6, Room = 7, Stop = 8 };

// The key epoll hands back: the kind, and the descriptor (listeners,
// client), the link's id (link), the socket's SPID (inlet, room bell) or
// the process's pid (its bell).
inline uint64_t jWatchKey(Watch Kind, uint32_t Id)
{
    return ((uint64_t)Kind << 32) | Id;
}

// The rings processes write into one socket, as linxd hands them out: the
// writer of each index, the indexes retired that the receiving process
// has not let go yet, and those free again.  Indexes are reused lowest
// first, so the reader's table stays as small as its senders.
//
// A phantom's ring that is retired while it still holds signals stays
// until linxd has read it as far as its writer had written then (at most a
// ring's worth): what a process sent before it left still goes across, as
// fast as the link takes it.  A process has at most one such ring per
// phantom.
struct DrainingRing {
    pid_t Writer;
    uint64_t Until;
};

struct RingTable {
    std::map<uint32_t, pid_t> Writers;
    std::map<uint32_t, pid_t> Retiring; // a process's socket: retired, not let go by its owner yet
    std::map<uint32_t, DrainingRing> Draining; // a phantom's: retired, still read
    std::set<uint32_t> Free;           // below Next
    uint32_t Next = 0;                 // never handed out from here on
};

// A process that has sockets here, or rings still charged to it (a
// retired ring its reader has not read yet outlives its writer's sockets):
// the ring it writes into each receiving socket (by the receiver's SPID),
// every one of them retired when its last socket closes, and what it is
// charged for.  A pid that is used again inherits what is left.
struct Process {
    std::set<uint32_t> Sockets;
    std::map<uint32_t, uint32_t> RingInto;
    std::set<std::pair<uint32_t, uint32_t>> Retired; // (receiver, index): not let go by its reader yet
    uint32_t Rings = 0;        // live, retired and draining rings it made, everywhere
    uint32_t PhantomRings = 0; // of those, into phantoms
    uint32_t RingsIn = 0;      // rings of others into its sockets, which it maps
    uint32_t Held = 0;         // hunts, attaches, timeouts and tokens of its sockets
    size_t BacklogBytes = 0;   // linxd's signals waiting for its sockets
    // The bell it rings when it wrote into a phantom whose reader, linxd,
    // sleeps: its own, so that a process that rings it for nothing mutes
    // only itself (-1 until its first ring into a phantom).
    int BellFd = -1;
    uint32_t IdleBells = 0;    // rings of it that brought nothing, in a row
};

// A signal waiting for room in its socket's queue: one of linxd's own, or
// one that came over connection ConnSerial of link Link (0: none), which is told
// once the signal has left here so that its sender may send more.  For a
// phantom, a signal from another link waiting for room on the phantom's.
struct Waiting {
    std::string Datagram; // linxd_signal_header, then the payload
    uint32_t Link = 0;
    uint64_t ConnSerial = 0;
};

// An owner of endpoints behind a link, while the link has phantoms of it:
// what is in flight to them all, and the group the owner is told onwards
// as (never a pid: those stay below 2^22).
struct OwnerBehind {
    uint64_t InFlight = 0;
    uint32_t Phantoms = 0;
    uint32_t Group = 0;
};

struct Socket {
    uint32_t Spid = 0;
    std::string Name;
    int ClientFd = -1;
    pid_t Pid = 0;
    int InletFd = -1;                // linxd's end of the outlet
    int BellFd = -1;                 // eventfd senders ring when the owner armed it
    int ReadyFd = -1;                // its ready set, for the owner and its senders
    linxd_ready_set *pReady = nullptr; // linxd's mapping of it (statistics, the arm word)
    int RetiredFd = -1;              // its retired set, for the owner until it has it
    linxd_index_set *pRetired = nullptr;
    uint32_t Slot = 0;
    RingTable Rings;                 // the rings that reach it
    std::deque<Waiting> Backlog;     // signals waiting for queue room
    size_t BacklogBytes = 0;
    // linxd's own ring into the socket, for what links bring (made on the
    // first such signal; header null until then), its room bell (the owner
    // rings it when it took from the ring while linxd waited) and the
    // signals from links waiting for room in it, in order.
    linxd_ring_writer LinkRing = {};
    uint32_t LinkRingIndex = 0;
    int RoomFd = -1;
    uint64_t RoomHeadSeen = 0;       // the ring's head when linxd began to wait for room
    uint32_t IdleBells = 0;          // its room bell's rings that brought nothing, in a row
    std::deque<Waiting> LinkBacklog;
    bool bWatchingInlet = false;     // epoll waits for room in the inlet
    uint32_t Held = 0;               // hunts, attaches, timeouts, tokens it requested
    uint32_t Largest = 0;            // the largest payload a signal to it may have
    uint32_t Owner = 0;              // whose it is, as peers are told: its pid, or a phantom's group
    // A phantom: an endpoint behind a link.  It has no client and no
    // outlet; linxd reads the rings of its senders.
    uint32_t Link = 0;               // the link's id; 0: a socket of this node
    uint32_t RemoteSpid = 0;         // the endpoint's SPID on the node behind the link
    uint32_t RemoteOwner = 0;        // its owner as the peer said
    OwnerBehind *pOwner = nullptr;   // that owner, in its link's table
    RingSet Reading;                 // its rings, mapped here
    uint64_t InFlight = 0;           // bytes sent to it that the peer has not passed on
};

// Where a ring into a phantom stood when a socket of its writer closed:
// the close is told to the peer once the ring has been read that far.
struct PhantomMark {
    uint32_t Phantom;
    RingMark Mark;
};

// A socket of this node that closed while its process's rings into the
// link's phantoms still held signals (some perhaps its own): the peer
// hears of the close once they have gone across, so that they still come
// from an endpoint it knows.
struct GoneAfterRings {
    uint32_t Spid;
    uint32_t Owner;
    std::string Name;                // to announce it if one of them is its first
    std::vector<PhantomMark> Marks;
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
    uint64_t ConnSerial = 0;         // which connection (counted over all links): credits
                                     // for signals of an earlier one are not this one's
    std::map<uint32_t, uint32_t> Phantoms; // the peer's SPID -> phantom here
    std::map<uint32_t, OwnerBehind> Owners; // the owners of the peer's endpoints known here
    uint32_t NextTurn = 0;           // phantoms are read in turn from the one after this
    std::set<uint32_t> Told;         // sockets of ours the peer knows
    std::set<uint32_t> Departed;     // sockets of ours whose close the peer has not confirmed
    std::vector<GoneAfterRings> GonesDue; // closes waiting behind their process's rings
    std::map<uint32_t, uint64_t> Credits; // bytes of the peer's signals that left here, by
                                     // our SPID they were for, not yet told to the peer
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
    pid_t Pid;            // the requester's process
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
    int Fds[5] = {-1, -1, -1, -1, -1};
};

inline Reply jError(int Error)
{
    Reply R;
    R.Header.result = -1;
    R.Header.error = Error;
    return R;
}

inline Reply jValue(uint32_t Value)
{
    Reply R;
    R.Header.value[0] = Value;
    return R;
}

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
    bool jWatchStops();
    void jStopSignal();
    void jServeEvent(Watch Kind, uint32_t Id);
    void jOutOfMemory(const char *pWhile);
    void jGiveBackMemory();
    bool jListen();
    bool jMapRegion();
    void jAccept();
    void jTurnAway();
    void jServeClient(int Fd);
    void jDropClient(int Fd);
    void jCloseSocket(uint32_t Spid);
    Reply jHandle(Client &C, const linxd_request &Req, const std::string &Name,
                  const std::string &Signal, int PassedFd);
    Reply jRegister(Client &C, const std::string &Name);
    Reply jHunt(Client &C, uint32_t OnBehalf, const std::string &Name, std::string Signal);
    Reply jAttach(Client &C, uint32_t Target, std::string Signal);
    Reply jRequestTmo(Client &C, int32_t Ms, std::string Signal);
    Reply jInfo(uint32_t Op, uint32_t Spid);
    Reply jSummary() const;
    Reply jSpidsAbove(uint32_t After, uint32_t Room) const;
    void jDeliver(uint32_t To, uint32_t From, const std::string &Signal, bool bAfterRings = false);
    void jDeliverFromLink(const Link &L, uint32_t To, uint32_t From, const char *pPayload, uint32_t Size,
                          uint32_t Attributes);
    void jQueue(Socket &S, Waiting &&W);
    bool jWriteLinkRing(Socket &S, const linxd_signal_header &Header, const char *pPayload);
    bool jOpenLinkRing(Socket &S);
    void jFlushLinkRing(Socket &S);
    void jRoomRang(uint32_t Spid);
    void jFlushBacklog(Socket &S);
    void jPopBacklog(Socket &S, std::deque<Waiting> &Backlog);
    void jDropBacklog(Socket &S);
    bool jRoomFor(uint32_t Spid, const std::string &Signal);
    void jFireTimers();
    bool jIdle() const;
    int jNextTimeoutMs();
    uint32_t jNewSpid();
    uint32_t jNewRef();
    Socket *jFindSocket(uint32_t Spid);
    bool jSendReply(int Fd, const Reply &R);
    void jWatch(Watch Kind, int Fd, uint32_t Id, uint32_t Events, int Op);
    Socket *jNewSocket(const std::string &Name, pid_t Pid, int *pError);
    void jNameAppeared(const std::string &Name, uint32_t Spid, bool bAfterReply);
    void jNewLinkSignal(uint32_t Owner, uint32_t Token, const std::string &LinkName, bool bAfterReply);
    void jRefuse(pid_t Pid, const std::string &What, const std::string &Why, const std::string &Note = "");

    // Links to other nodes (linxd_nodes.cc)
    bool jStartLinks();
    void jListenForLinks(const LinkAddress &Address);
    void jAcceptLink(int ListenFd);
    void jMakeRoomForHalfOpen();
    void jRefuseLink(const std::string &Peer, const std::string &Why);
    void jDial(Link &L);
    void jServeLink(uint32_t Id);
    void jTakeFrames(Link &L);
    bool jLinkFrame(Link &L, uint32_t Type, const std::string &Body, std::string *pWhy);
    bool jSignalFrame(Link &L, const std::string &Body, std::string *pWhy);
    bool jGoneFrame(Link &L, const std::string &Body);
    bool jHello(Link &L, const std::string &Body, std::string *pWhy);
    void jSendHello(Link &L);
    void jLinkUp(Link &L);
    void jLinkDown(Link &L, const std::string &Why);
    void jSendFrame(Link &L, LinkFrame Type, const std::string &Head, const void *pTail = nullptr,
                    size_t TailBytes = 0);
    bool jAnnounce(Link &L, uint32_t Spid, std::string *pWhy);
    bool jTell(Link &L, uint32_t Spid, std::string *pWhy);
    void jSayGone(Link &L, uint32_t Spid);
    void jSeekRemote(const std::string &Name, const Link *pOnly);
    void jUnseek(const std::string &Name);
    bool jPeerHunt(Link &L, const std::string &Name, std::string *pWhy);
    void jTickLinks();
    void jFlushLinks();
    void jSendCredits(Link &L);
    void jResumeLinks();
    void jWatchLink(Link &L);
    Link *jFindLink(const std::string &Name, const Link *pExcept = nullptr);
    Link *jLinkOf(const Socket &S);
    int64_t jHeartbeatMs() const;

    // Phantoms: their rings, relays and windows, and closes that wait
    // behind rings (linxd_phantoms.cc)
    bool jAddPhantom(Link &L, uint32_t RemoteSpid, uint32_t RemoteOwner, uint32_t Largest, const std::string &Name,
                     std::string *pWhy);
    bool jLinkTakes(Link &L, const Socket &Phantom);
    void jDrainOwner(Link &L, uint32_t RemoteOwner);
    void jRefuseLarge(const Socket &To, const std::string &Source, uint32_t Size);
    void jFreeWindow(Socket &Phantom, uint64_t Bytes);
    void jLeaveOwner(Link &L, Socket &Phantom);
    uint32_t jLargestSignal() const;
    void jForward(Socket &Phantom, Link &L, uint32_t From, const char *pPayload, uint32_t Size,
                  uint32_t Attributes);
    bool jForwardRing(Socket &Phantom, Link &L, uint32_t Index);
    bool jDrainRings(Socket &Phantom, Link &L);
    bool jFlushRelays(Socket &Phantom, Link &L);
    bool jDrainPhantom(Socket &Phantom);
    void jResumePhantoms(Link &L);
    void jRingBell(pid_t Writer);
    int jBellOf(pid_t Pid);
    void jTakeCredit(Link &L, uint32_t RemoteSpid, uint32_t Bytes);
    void jCredit(const Waiting &W, uint32_t To);
    void jCreditLink(uint32_t LinkId, uint64_t ConnSerial, uint32_t To, uint32_t Bytes);
    void jRetirePhantomRing(Socket &Phantom, uint32_t Index, pid_t Writer);
    void jLetRingGo(Socket &Phantom, uint32_t Index);
    std::map<uint32_t, std::vector<PhantomMark>> jMarksOfRings(pid_t Pid);
    void jGoneBehindRings(Link &L, const Socket &S, std::vector<PhantomMark> Marks);
    void jSendGonesDue(Link &L);

    // Rings and routes between processes (linxd_routes.cc)
    bool jMakeReadySet(Socket &S);
    bool jMakeRetiredSet(Socket &S);
    void jFreeRingSets(Socket &S);
    Reply jOpenRoute(Client &C, uint32_t Target, int RingFd);
    Reply jCloseRoute(Client &C, uint32_t Target, uint32_t Index);
    int jPlaceRing(Socket &Receiver, pid_t Writer, uint32_t Index, int RingFd, int RoomFd = -1);
    uint32_t jTakeRingIndex(Socket &Receiver);
    bool jFirstFits(Socket &Phantom, uint32_t Index, pid_t Writer);
    void jRetireRing(Socket &Receiver, uint32_t Index);
    void jNudge(Socket &Receiver);
    void jSocketOpened(const Socket &S);
    std::map<uint32_t, std::vector<PhantomMark>> jSocketClosing(Socket &S);

    // What each process is charged for (linxd_charges.cc)
    static uint32_t jRingBudget();
    Process *jProcessOf(pid_t Pid);
    void jForgetIfIdle(pid_t Pid);
    bool jMayOpenSocket(const Client &C);
    bool jHold(uint32_t Spid);
    void jUnhold(uint32_t Spid);
    void jUnholdAll(Socket &S);
    void jCountBacklog(Socket &S, const Waiting &W, int Sign);
    std::string jRingOverCap(pid_t Writer, Socket &Receiver);
    void jChargeRing(pid_t Writer, Socket &Receiver);
    void jUnchargeRing(pid_t Writer, Socket &Receiver);
    bool jLetGoIfRead(Socket &Receiver, uint32_t Index);
    void jLetGoAllRead(Socket &Receiver);
    void jSweepRetired(Process &W, uint32_t Only);
    void jUnchargeAllInto(Socket &Receiver);
    void jHearBell(Watch Kind, uint32_t Id, int Fd, bool bOn);
    void jBellRang(Watch Kind, uint32_t Id, int Fd, uint32_t *pIdle, bool bUseful);
    void jUnmuteBells();
    int64_t jMutedDueMs() const;

    // Hunts that go across links (linxd.cc)
    bool jMayHuntAcross(const Client &C, const std::string &Name);
    void jHuntTaken(const std::string &Name, const Hunt &H);
    void jHuntGone(const std::string &Name, const Hunt &H);

    LinxdOptions mOptions;
    int mEpollFd = -1;
    int mListenFd = -1;
    int mRegionFd = -1;
    int mReserveFd = -1; // given up to turn a client away when out of descriptors
    int mStopFd = -1;    // SIGINT and SIGTERM (Run only)
    int mStopSignal = 0; // the one that came
    linxd_slot *mpSlots = nullptr;
    std::vector<uint32_t> mFreeSlots;  // slots given back, reused first
    uint32_t mUnusedSlots = 0;         // slots from here on were never handed out
    std::map<int, Client> mClients;
    std::map<uint32_t, Socket> mSockets;
    std::map<pid_t, Process> mProcesses; // processes with sockets, or rings charged to them, here
    pid_t mSelf = 0;                     // linxd's own pid: the writer of its rings into sockets
    uint32_t mRingsMapped = 0;           // rings linxd maps: its own into sockets, and phantoms'
    uint32_t mRingBudget = 0;            // at most that many (jRingBudget)
    std::map<uint64_t, int64_t> mMutedBells; // bells that rang for nothing (by watch key), until when
    std::map<std::string, std::vector<uint32_t>> mNames; // sockets by name, oldest first
    std::multimap<std::string, Hunt> mHunts;              // pending, by name
    std::map<pid_t, uint32_t> mHuntsAcross;               // of a process, for names with a slash
    std::map<std::string, size_t> mNamesBehind;           // names hunted, by the link their path starts with
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
    int64_t mIdleSinceMs = 0; // when it last became idle
    bool mWasIdle = true;
    std::map<uint32_t, Link> mLinks;  // by id
    uint32_t mNextLinkId = 0;
    uint32_t mNextGroup = 0;          // groups of owners behind links, counted
    uint64_t mConnSerials = 0;        // connections of links, counted
    std::map<int, bool> mLinkListeners; // descriptor -> takes TCP (else Unix)
    LinkSecret mSecret = {};
    SSL_CTX *mpTls = nullptr;           // for TCP links
    RefusalLog mRefusals;               // what clients and peers sent that was refused
    bool mFreedSome = false;            // a socket or connection went since memory was given back
    int64_t mLastGivenBackMs = 0;
};

#endif /* LINXD_SERVICE_H */
