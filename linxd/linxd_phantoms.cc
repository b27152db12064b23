// SPDX-License-Identifier: Apache-2.0
// Phantoms: the sockets that stand here for endpoints behind a link.
//
// linxd reads the rings processes write into a phantom, as a receiving
// process reads its own, and sends what they hold over the link; signals
// that other links bring for it (a path of several hops) wait in its
// backlog for the same.  Both go only as fast as the link takes them:
// while more than kLinkOutHighBytes wait to go out on the link, or
// kLinkWindowBytes were sent for the phantom's endpoint that the peer has
// not passed on yet (its credit frames say what it did), the rest waits,
// and writers whose rings fill get ENOBUFS.  So a process that keeps its
// ring full costs the link a bounded buffer and its other users a turn,
// and a receiver behind the link that never reads stops only the traffic
// to itself.  The phantoms of a link are read in turn, and so are the
// rings of a phantom: no writer keeps the others waiting.
//
// A ring whose writer leaves (or gives it up) is read to where the writer
// had written, then let go; and a socket's close reaches the peer only
// after what its process's rings into the link's phantoms held when it
// closed, so that every signal comes from an endpoint the peer knows.
// Everything here runs on the service's one thread.
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "linxd_service.h"

namespace {

void jCountTaken(Socket &Phantom, uint32_t Size)
{
    linxd_counters &Counters = Phantom.pReady->counters;
    __atomic_sub_fetch(&Counters.queued, 1, __ATOMIC_RELAXED);
    __atomic_add_fetch(&Counters.received_signals, 1, __ATOMIC_RELAXED);
    __atomic_add_fetch(&Counters.received_bytes, Size, __ATOMIC_RELAXED);
}

} // namespace

// Whether the link takes another signal for the phantom now: the link is
// up and not too full, and neither the endpoint's window nor its owner's
// is.  A link that holds too much is marked throttled: its phantoms are
// read again once it has drained (a full window is reopened by the peer's
// credit instead).
bool Service::jLinkTakes(Link &L, const Socket &Phantom)
{
    if (LinkOutBytes(L.Conn) > kLinkOutHighBytes)
        L.bThrottled = true;
    return L.bUp && !L.bThrottled && Phantom.InFlight < kLinkWindowBytes &&
           Phantom.pOwner->InFlight < kLinkOwnerWindowBytes;
}

bool Service::jAddPhantom(Link &L, uint32_t RemoteSpid, uint32_t RemoteOwner, uint32_t Largest, const std::string &Name,
                          std::string *pWhy)
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
    Socket *pS = Full.size() <= LINXD_MAX_NAME_CHARS ? jNewSocket(Full, mSelf, &Error) : nullptr;
    if (pS == nullptr) {
        *pWhy = "no room here for the endpoint " + Full;
        return false;
    }
    pS->Link = L.Id;
    pS->RemoteSpid = RemoteSpid;
    pS->RemoteOwner = RemoteOwner;
    pS->Largest = std::min(pS->Largest, Largest);
    mpSlots[pS->Slot].largest_signal = pS->Largest;
    OwnerBehind &Owner = L.Owners[RemoteOwner];
    if (Owner.Phantoms++ == 0)
        Owner.Group = 0x80000000u | (++mNextGroup & 0x7FFFFFFFu);
    pS->Owner = Owner.Group;
    pS->pOwner = &Owner;
    L.Phantoms[RemoteSpid] = pS->Spid;
    RingSetUse(&pS->Reading, pS->pReady); // its writers ring bells of their own (jBellOf)
    jNameAppeared(Full, pS->Spid, false);
    return true;
}

// Sends a signal for the phantom's endpoint, as sent by From (announced to
// the peer first when it does not know it yet).
void Service::jForward(Socket &Phantom, Link &L, uint32_t From, const char *pPayload, uint32_t Size,
                       uint32_t Attributes)
{
    std::string Why;
    if (!jTell(L, From, &Why)) {
        RefusalSay(&mRefusals, Phantom.Name, Why, "linxd: dropped a signal for " + Phantom.Name + ": " + Why);
        return;
    }
    jSendFrame(L, LinkFrame::Signal, LinkWords({From, Phantom.RemoteSpid, Attributes}), pPayload, Size);
    Phantom.InFlight += Size;
    Phantom.pOwner->InFlight += Size;
}

// Forwards what one of the phantom's rings holds, as far as the link takes
// it and at most a ring's worth (a retired ring: as far as its writer had
// written, and then it goes).  false when the link or the window stopped
// it.  A ring that breaks the rules is refused.
bool Service::jForwardRing(Socket &Phantom, Link &L, uint32_t Index)
{
    RingSetEntry *pE = RingSetFind(&Phantom.Reading, Index);
    if (pE == nullptr)
        return true;
    auto Draining = Phantom.Rings.Draining.find(Index);
    const bool bRetired = Draining != Phantom.Rings.Draining.end();
    const uint64_t Until = bRetired ? Draining->second.Until : pE->Reader.head + pE->Reader.capacity;
    linxd_signal_header Header;
    const char *pWhy = nullptr;
    linxd_peeked State = LINXD_PEEK_EMPTY;
    while ((int64_t)(Until - pE->Reader.head) > 0 &&
           (State = linxd_ring_peek(&pE->Reader, Phantom.Spid, &Header, &pWhy)) == LINXD_PEEK_SIGNAL) {
        if (!jLinkTakes(L, Phantom))
            return false;
        if (Header.size <= Phantom.Largest)
            jForward(Phantom, L, Header.from, linxd_ring_payload(&pE->Reader), Header.size, Header.attributes);
        else
            jRefuseLarge(Phantom, "process " + std::to_string(pE->Writer), Header.size);
        linxd_ring_advance(&pE->Reader, Header.size);
        jCountTaken(Phantom, Header.size);
    }
    if (State == LINXD_PEEK_BROKEN) {
        const std::string Source = "process " + std::to_string(pE->Writer);
        RefusalSay(&mRefusals, Source, pWhy, "linxd: refused the signal ring of " + Source + ": " + pWhy);
    }
    if (State == LINXD_PEEK_BROKEN || bRetired)
        jLetRingGo(Phantom, Index);
    return true;
}

// Forwards what the phantom's rings in turn hold, one ring after the
// other; a ring cut short goes behind the others like one read to its
// end.  false when the link or the window stopped it.
bool Service::jDrainRings(Socket &Phantom, Link &L)
{
    for (size_t Turns = RingSetCollect(&Phantom.Reading); Turns > 0 && !Phantom.Reading.Turns.empty(); Turns--) {
        const uint32_t Index = RingSetFront(&Phantom.Reading);
        const bool bWhole = jForwardRing(Phantom, L, Index);
        if (RingSetFind(&Phantom.Reading, Index) != nullptr)
            RingSetRotate(&Phantom.Reading);
        if (!bWhole)
            return false;
    }
    return true;
}

// Sends on what other links brought for the phantom, as far as its link
// takes it; false when it stopped.
bool Service::jFlushRelays(Socket &Phantom, Link &L)
{
    while (!Phantom.Backlog.empty()) {
        if (!jLinkTakes(L, Phantom))
            return false;
        const std::string &Datagram = Phantom.Backlog.front().Datagram;
        linxd_signal_header Header;
        memcpy(&Header, Datagram.data(), sizeof Header);
        jForward(Phantom, L, Header.from, Datagram.data() + sizeof Header, Header.size, Header.attributes);
        jPopBacklog(Phantom, Phantom.Backlog);
    }
    return true;
}

// Reads what waits for the phantom (relays, then its rings) until nothing
// is marked and its bell is armed, as a receiving process does.  false
// when the link or the window stopped it: the rest waits, and the bell
// stays unarmed (whoever lifts the stop reads on).
bool Service::jDrainPhantom(Socket &Phantom)
{
    Link *pL = jLinkOf(Phantom);
    if (pL == nullptr)
        return true;
    if (!jFlushRelays(Phantom, *pL))
        return false;
    do {
        if (!jDrainRings(Phantom, *pL))
            return false;
    } while (RingSetArm(&Phantom.Reading));
    return true;
}

// The link drained below its high-water mark: its phantoms are read again
// in turn, starting after the one it filled up on last, so that a process
// that keeps one ring full cannot keep the others' waiting.
void Service::jResumePhantoms(Link &L)
{
    std::vector<std::pair<uint32_t, uint32_t>> Order(L.Phantoms.upper_bound(L.NextTurn), L.Phantoms.end());
    Order.insert(Order.end(), L.Phantoms.begin(), L.Phantoms.upper_bound(L.NextTurn));
    for (const auto &Entry : Order) {
        Socket *pS = jFindSocket(Entry.second);
        if (pS != nullptr && !jDrainPhantom(*pS) && L.bThrottled) {
            L.NextTurn = Entry.first;
            return;
        }
    }
}

// A process rang its bell: it wrote into a phantom whose rings linxd had
// read to the end.  Its phantoms are read; a ring that brought nothing
// counts towards muting its bell.
void Service::jRingBell(pid_t Writer)
{
    Process *pP = jProcessOf(Writer);
    if (pP == nullptr || pP->BellFd < 0)
        return;
    linxd_bell_silence(pP->BellFd);
    bool bUseful = false;
    std::vector<uint32_t> Phantoms;
    for (const auto &Ring : pP->RingInto)
        Phantoms.push_back(Ring.first);
    for (const uint32_t Spid : Phantoms) {
        Socket *pS = jFindSocket(Spid);
        if (pS == nullptr || pS->Link == 0)
            continue;
        const uint64_t Before = __atomic_load_n(&pS->pReady->counters.received_signals, __ATOMIC_RELAXED);
        bUseful |= !jDrainPhantom(*pS) ||
                   __atomic_load_n(&pS->pReady->counters.received_signals, __ATOMIC_RELAXED) != Before;
    }
    if ((pP = jProcessOf(Writer)) != nullptr)
        jBellRang(Watch::Bell, (uint32_t)Writer, pP->BellFd, &pP->IdleBells, bUseful);
}

// The bell process Pid rings for its rings into phantoms, made when it
// hands over its first; -1 with errno when it cannot be.
int Service::jBellOf(pid_t Pid)
{
    Process &P = mProcesses[Pid];
    if (P.BellFd < 0 && (P.BellFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) >= 0)
        jWatch(Watch::Bell, P.BellFd, (uint32_t)Pid, EPOLLIN, EPOLL_CTL_ADD);
    return P.BellFd;
}

// The peer passed on Bytes of what was sent for its endpoint RemoteSpid:
// the phantom, and the other endpoints of its owner, may send that much
// more.
void Service::jTakeCredit(Link &L, uint32_t RemoteSpid, uint32_t Bytes)
{
    auto It = L.Phantoms.find(RemoteSpid);
    Socket *pS = It == L.Phantoms.end() ? nullptr : jFindSocket(It->second);
    if (pS == nullptr)
        return;
    const uint64_t OwnerWas = pS->pOwner->InFlight;
    const bool bWasFull = pS->InFlight >= kLinkWindowBytes;
    jFreeWindow(*pS, Bytes);
    if (OwnerWas >= kLinkOwnerWindowBytes && OwnerWas - std::min<uint64_t>(Bytes, OwnerWas) < kLinkOwnerWindowBytes)
        jDrainOwner(L, pS->RemoteOwner);
    else if (bWasFull && pS->InFlight < kLinkWindowBytes)
        jDrainPhantom(*pS);
}

// Bytes the phantom had in flight that count no more: the peer passed
// them on, or the endpoint closed (their credit will never come).
void Service::jFreeWindow(Socket &Phantom, uint64_t Bytes)
{
    Bytes = std::min(Bytes, Phantom.InFlight);
    Phantom.InFlight -= Bytes;
    Phantom.pOwner->InFlight -= std::min(Bytes, Phantom.pOwner->InFlight);
}

// The phantom closes: what it had in flight counts no more, and its owner
// is forgotten with its last phantom.
void Service::jLeaveOwner(Link &L, Socket &Phantom)
{
    jFreeWindow(Phantom, Phantom.InFlight);
    if (--Phantom.pOwner->Phantoms == 0)
        L.Owners.erase(Phantom.RemoteOwner);
    Phantom.pOwner = nullptr;
}

// The window of an owner behind the link reopened: its phantoms are read
// again.
void Service::jDrainOwner(Link &L, uint32_t RemoteOwner)
{
    std::vector<uint32_t> Phantoms;
    for (const auto &Entry : L.Phantoms)
        if (const Socket *pS = jFindSocket(Entry.second))
            if (pS->RemoteOwner == RemoteOwner)
                Phantoms.push_back(Entry.second);
    for (const uint32_t Spid : Phantoms)
        if (Socket *pS = jFindSocket(Spid))
            jDrainPhantom(*pS);
}

// A signal larger than its receiver takes (a sender that ignored the
// largest signal its slot says, or a peer node that ignored what it was
// told) is dropped with a line, and never holds back the ones after it.
void Service::jRefuseLarge(const Socket &To, const std::string &Source, uint32_t Size)
{
    const std::string Why = "larger than " + To.Name + " takes (" + std::to_string(To.Largest) + " bytes)";
    RefusalSay(&mRefusals, Source, Why,
               "linxd: dropped a signal of " + std::to_string(Size) + " bytes from " + Source + ": " + Why);
}

// A signal that came over a link has left its backlog here (for socket
// To): the link is told, so that its sender there may send more.
void Service::jCredit(const Waiting &W, uint32_t To)
{
    jCreditLink(W.Link, W.ConnSerial, To, (uint32_t)(W.Datagram.size() - sizeof(linxd_signal_header)));
}

// Bytes of what connection ConnSerial of link LinkId brought for To left
// here (an earlier connection's do not count for the link's next one).
void Service::jCreditLink(uint32_t LinkId, uint64_t ConnSerial, uint32_t To, uint32_t Bytes)
{
    auto It = mLinks.find(LinkId);
    if (LinkId == 0 || It == mLinks.end() || It->second.ConnSerial != ConnSerial || !It->second.bUp)
        return;
    It->second.Credits[To] += Bytes;
}

// A phantom's ring whose writer left or gave it up: read now as far as the
// link takes it, the rest later, as far as the writer had written.
void Service::jRetirePhantomRing(Socket &Phantom, uint32_t Index, pid_t Writer)
{
    RingMark Mark;
    Phantom.Rings.Draining[Index] = {Writer, 0};
    if (!RingSetMarkNow(&Phantom.Reading, Index, &Mark)) {
        jLetRingGo(Phantom, Index);
        return;
    }
    Phantom.Rings.Draining[Index].Until = Mark.Position;
    RingSetPutInTurn(&Phantom.Reading, Index);
    jDrainPhantom(Phantom);
}

// Unmaps the ring at Index; a retired one's index is free again, and its
// writer is charged for it no more.
void Service::jLetRingGo(Socket &Phantom, uint32_t Index)
{
    RingSetDrop(&Phantom.Reading, Index);
    auto Draining = Phantom.Rings.Draining.find(Index);
    if (Draining == Phantom.Rings.Draining.end())
        return;
    const pid_t Writer = Draining->second.Writer;
    Phantom.Rings.Draining.erase(Draining);
    Phantom.Rings.Free.insert(Index);
    jUnchargeRing(Writer, Phantom);
}

// Where the rings of process Pid into phantoms stand that still hold
// signals once the links took what they take now, by link.
std::map<uint32_t, std::vector<PhantomMark>> Service::jMarksOfRings(pid_t Pid)
{
    std::map<uint32_t, std::vector<PhantomMark>> Marks;
    const Process *pP = jProcessOf(Pid);
    if (pP == nullptr)
        return Marks;
    for (const auto &Ring : pP->RingInto) {
        Socket *pS = jFindSocket(Ring.first);
        if (pS == nullptr || pS->Link == 0)
            continue;
        jDrainPhantom(*pS);
        PhantomMark Mark = {pS->Spid, {}};
        if (RingSetMarkNow(&pS->Reading, Ring.second, &Mark.Mark))
            Marks[pS->Link].push_back(Mark);
    }
    return Marks;
}

// Socket S closed while its process's rings into the link's phantoms held
// signals: its close waits behind them.  A peer that reads nothing keeps at
// most kMaxPhantomsPerLink closes waiting; beyond, a close goes at once
// (signals of the socket that come after it are dropped with a line).
void Service::jGoneBehindRings(Link &L, const Socket &S, std::vector<PhantomMark> Marks)
{
    if (L.GonesDue.size() >= kMaxPhantomsPerLink) {
        jSayGone(L, S.Spid);
        return;
    }
    L.GonesDue.push_back({S.Spid, S.Owner, S.Name, std::move(Marks)});
}

// Tells the peer of the closes whose rings have been read far enough.
void Service::jSendGonesDue(Link &L)
{
    auto Reached = [this](const PhantomMark &M) {
        Socket *pS = jFindSocket(M.Phantom);
        return pS == nullptr || RingSetReached(&pS->Reading, M.Mark);
    };
    for (auto It = L.GonesDue.begin(); It != L.GonesDue.end();) {
        std::vector<PhantomMark> &Marks = It->Marks;
        Marks.erase(std::remove_if(Marks.begin(), Marks.end(), Reached), Marks.end());
        if (!Marks.empty()) {
            ++It;
            continue;
        }
        jSayGone(L, It->Spid);
        It = L.GonesDue.erase(It);
    }
}
