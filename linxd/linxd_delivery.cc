// SPDX-License-Identifier: Apache-2.0
// Delivery to the sockets of this node: linxd's own signals (hunt answers,
// attach and timeout signals) and what links bring.  linxd's own signals
// go through the owner's outlet, waiting in the socket's backlog while the
// outlet is full.  Signals from links go into a ring linxd writes into the
// socket, as any sending process does (a copy and a store, a bell only
// when the owner sleeps); while that ring is full they take the outlet
// too, and go back to the ring only once the owner has read everything
// linxd put in the outlet, so that they keep their order.  Attach signals
// wait behind the rings, linxd's own included.
#include <errno.h>
#include <linux/sockios.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "linxd_service.h"

namespace {

// Whether the owner has read everything linxd put in its outlet (nothing
// waits for it there or here): linxd's ring may take over from the outlet
// without a signal overtaking one that took it.
bool jOutletRead(const Socket &S)
{
    int Unread = 0;
    return S.Backlog.empty() && ioctl(S.InletFd, SIOCOUTQ, &Unread) == 0 && Unread == 0;
}

std::string jDatagram(uint32_t To, uint32_t From, const char *pPayload, uint32_t Size, uint32_t Attributes)
{
    const linxd_signal_header Header = {From, To, Size, Attributes};
    std::string Datagram((const char *)&Header, sizeof Header);
    Datagram.append(pPayload, Size);
    return Datagram;
}

uint32_t jPayloadBytes(const Waiting &W)
{
    return (uint32_t)(W.Datagram.size() - sizeof(linxd_signal_header));
}

} // namespace

// Queues one of linxd's own signals for socket To, as sent by From.  An
// attach signal (bAfterRings) is marked so that its receiver delivers it
// after what the rings held when it came.
void Service::jDeliver(uint32_t To, uint32_t From, const std::string &Signal, bool bAfterRings)
{
    Socket *pS = jFindSocket(To);
    if (pS == nullptr)
        return;
    Waiting W;
    W.Datagram = jDatagram(To, From, Signal.data(), (uint32_t)Signal.size(), bAfterRings ? LINXD_AFTER_RINGS : 0);
    jQueue(*pS, std::move(W));
}

// Delivers a signal that came over link L to socket To, as sent by From:
// into linxd's ring into it, or through its outlet while that is full (for
// a phantom: on over its own link).  Only the attributes a signal may have
// pass: no peer can make a signal look like linxd's word about a ring.
// The link is told when it has left here.
void Service::jDeliverFromLink(const Link &L, uint32_t To, uint32_t From, const char *pPayload, uint32_t Size,
                               uint32_t Attributes)
{
    Socket *pS = jFindSocket(To);
    if (pS == nullptr)
        return; // it closed on the way: the peer hears of it
    if (Size > pS->Largest) {
        jRefuseLarge(*pS, "link " + L.Name, Size);
        jCreditLink(L.Id, L.ConnSerial, To, Size);
        return;
    }
    const linxd_signal_header Header = {From, To, Size, Attributes & LINXD_SIGNAL_ATTRIBUTES};
    if (pS->Link == 0 && pS->LinkRing.header == nullptr && jOutletRead(*pS))
        jOpenLinkRing(*pS);
    const bool bRing = pS->Link == 0 && pS->LinkRing.header != nullptr;
    if (bRing && pS->LinkBacklog.empty() && jWriteLinkRing(*pS, Header, pPayload)) {
        jCreditLink(L.Id, L.ConnSerial, To, Size);
        return;
    }
    // Through the outlet (only before linxd's ring exists), a signal must
    // not overtake what other rings hold: the owner queues it after them.
    Waiting W;
    W.Datagram = jDatagram(To, From, pPayload, Size, Header.attributes | (bRing ? 0 : LINXD_AFTER_RINGS));
    W.Link = L.Id;
    W.ConnSerial = L.ConnSerial;
    if (!bRing) {
        jQueue(*pS, std::move(W));
        return;
    }
    jCountBacklog(*pS, W, 1);
    pS->LinkBacklog.push_back(std::move(W));
    jFlushLinkRing(*pS);
}

void Service::jQueue(Socket &S, Waiting &&W)
{
    jCountBacklog(S, W, 1);
    if (S.Link == 0)
        __atomic_add_fetch(&S.pReady->counters.queued, 1, __ATOMIC_RELAXED);
    S.Backlog.push_back(std::move(W));
    jFlushBacklog(S);
}

void Service::jDropBacklog(Socket &S)
{
    for (const std::deque<Waiting> *pBacklog : {&S.Backlog, &S.LinkBacklog})
        for (const Waiting &W : *pBacklog)
            jCountBacklog(S, W, -1);
    S.Backlog.clear();
    S.LinkBacklog.clear();
}

// The signal at the front of the backlog has left (to its receiver, or
// dropped): the link it came from may send more.
void Service::jPopBacklog(Socket &S, std::deque<Waiting> &Backlog)
{
    const Waiting &W = Backlog.front();
    jCredit(W, S.Spid);
    jCountBacklog(S, W, -1);
    Backlog.pop_front();
}

// Hands what waits to the owner's outlet as far as it takes it (a
// phantom's goes on over its link); the rest waits for epoll to say that
// there is room.
void Service::jFlushBacklog(Socket &S)
{
    if (S.Link != 0) {
        if (Link *pL = jLinkOf(S))
            jFlushRelays(S, *pL);
        return;
    }
    while (!S.Backlog.empty()) {
        const std::string &Datagram = S.Backlog.front().Datagram;
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
                RefusalSay(&mRefusals, S.Name, "too large",
                           "linxd: dropped a signal of " + std::to_string(jPayloadBytes(S.Backlog.front())) +
                               " bytes for " + S.Name + ": larger than its queue");
            __atomic_sub_fetch(&S.pReady->counters.queued, 1, __ATOMIC_RELAXED);
        } else {
            __atomic_add_fetch(&mpSlots[S.Slot].outlet_signals, 1, __ATOMIC_RELEASE);
        }
        jPopBacklog(S, S.Backlog);
    }
    if (S.bWatchingInlet)
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.InletFd, nullptr);
    S.bWatchingInlet = false;
}

// Writes a signal from a link into linxd's ring into the socket and tells
// the owner as any sender does; false when the ring is full.
bool Service::jWriteLinkRing(Socket &S, const linxd_signal_header &Header, const char *pPayload)
{
    if (!linxd_ring_write(&S.LinkRing, &Header, pPayload))
        return false;
    __atomic_add_fetch(&S.pReady->counters.queued, 1, __ATOMIC_RELAXED);
    if (linxd_ready_mark(S.pReady, S.LinkRing.header, S.LinkRingIndex)) {
        const uint64_t One = 1;
        (void)!write(S.BellFd, &One, sizeof One);
    }
    return true;
}

// Writes what waits for room in linxd's ring into it, in order.  When it
// is full, linxd says that it waits (the owner rings the room bell once it
// took something) and looks once more, so that no room is missed.
void Service::jFlushLinkRing(Socket &S)
{
    while (!S.LinkBacklog.empty()) {
        const std::string &Datagram = S.LinkBacklog.front().Datagram;
        linxd_signal_header Header;
        memcpy(&Header, Datagram.data(), sizeof Header);
        const char *pPayload = Datagram.data() + sizeof Header;
        if (!jWriteLinkRing(S, Header, pPayload)) {
            __atomic_store_n(&S.LinkRing.header->writer_waits, 1u, __ATOMIC_SEQ_CST);
            __atomic_thread_fence(__ATOMIC_SEQ_CST);
            if (!jWriteLinkRing(S, Header, pPayload)) {
                S.RoomHeadSeen = __atomic_load_n(&S.LinkRing.header->head, __ATOMIC_ACQUIRE);
                jHearBell(Watch::Room, S.Spid, S.RoomFd, true);
                return;
            }
        }
        jPopBacklog(S, S.LinkBacklog);
    }
    __atomic_store_n(&S.LinkRing.header->writer_waits, 0u, __ATOMIC_RELAXED);
    jHearBell(Watch::Room, S.Spid, S.RoomFd, false);
}

// The owner of socket Spid rang the room bell of linxd's ring: it is
// acted on only when the owner took something since linxd began to wait
// (a room bell rung for nothing counts towards muting it).
void Service::jRoomRang(uint32_t Spid)
{
    Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return;
    linxd_bell_silence(pS->RoomFd);
    const bool bTook = __atomic_load_n(&pS->LinkRing.header->head, __ATOMIC_ACQUIRE) != pS->RoomHeadSeen;
    if (bTook)
        jFlushLinkRing(*pS);
    jBellRang(Watch::Room, Spid, pS->RoomFd, &pS->IdleBells, bTook);
}

// Makes linxd's ring into the socket and announces it to the owner, as a
// sending process's; false when that cannot be done now (the outlet is
// full, or the socket reads as many rings as it may).
bool Service::jOpenLinkRing(Socket &S)
{
    const uint64_t Capacity = linxd_ring_capacity(mOptions.QueueBytes);
    const uint64_t Bytes = sizeof(linxd_ring_header) + Capacity;
    const RingTable &Table = S.Rings;
    jLetGoAllRead(S);
    if (Table.Writers.size() + Table.Retiring.size() >= mOptions.RingsPerSocket || mRingsMapped >= mRingBudget)
        return false;
    const int Fd = jSealedRegion("linxd-ring", Bytes);
    auto *pHeader = (linxd_ring_header *)jMapShared(Fd, Bytes);
    if (pHeader == nullptr) {
        if (Fd >= 0)
            close(Fd);
        return false;
    }
    pHeader->magic = LINXD_RING_MAGIC;
    pHeader->capacity = Capacity;
    const int RoomFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const uint32_t Index = jTakeRingIndex(S);
    int Error = RoomFd < 0 ? errno : 0;
    if (Error == 0)
        Error = Index < LINXD_MAX_RINGS_PER_SOCKET ? jPlaceRing(S, mSelf, Index, Fd, RoomFd) : ENOBUFS;
    close(Fd); // the owner has its own
    if (Error != 0) {
        munmap(pHeader, Bytes);
        if (RoomFd >= 0)
            close(RoomFd);
        S.Rings.Free.insert(Index);
        return false;
    }
    S.Rings.Writers[Index] = mSelf;
    jChargeRing(mSelf, S);
    S.LinkRing = {pHeader, (char *)(pHeader + 1), Capacity, 0};
    S.LinkRingIndex = Index;
    S.RoomFd = RoomFd;
    jWatch(Watch::Room, RoomFd, S.Spid, 0, EPOLL_CTL_ADD); // listened to while linxd waits for room
    return true;
}
