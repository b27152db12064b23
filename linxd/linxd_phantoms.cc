// Phantoms: the sockets that stand here for endpoints behind a link.  linxd
// reads the rings processes write into them, as a receiving process reads
// its own, and sends what they hold over the link.
#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "linxd_service.h"

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
    RingSetUse(&pS->Reading, pS->pReady);
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
        char Line[LINXD_MAX_NAME_CHARS + 80];
        snprintf(Line, sizeof Line, "linxd: dropped a signal for %s: its sender 0x%x is not open", Phantom.Name.c_str(),
                 From);
        RefusalSay(&mRefusals, Phantom.Name, "sender not open", Line);
        return;
    }
    jSendFrame(*pL, LinkFrame::Signal, LinkWords({From, Phantom.RemoteSpid, Attributes}), pPayload, Size);
}

// Dials declared links that are due, sends heartbeats, drops links that
// fell silent or never said hello, and forgets accepted links that ended.

// Forwards what one of the phantom's rings holds: as far as the link takes
// it when pThrottle is given, and at most a ring's worth.  false when the
// link is full (the rest waits).  A ring that breaks the rules is refused.
bool Service::jForwardRing(Socket &Phantom, uint32_t Index, const Link *pThrottle)
{
    RingSetEntry *pE = RingSetFind(&Phantom.Reading, Index);
    if (pE == nullptr)
        return true;
    linxd_counters &Counters = Phantom.pReady->counters;
    const uint64_t Start = pE->Reader.head;
    linxd_signal_header Header;
    const char *pWhy = nullptr;
    linxd_peeked State;
    while ((State = linxd_ring_peek(&pE->Reader, Phantom.Spid, &Header, &pWhy)) == LINXD_PEEK_SIGNAL &&
           pE->Reader.head - Start < pE->Reader.capacity) {
        if (pThrottle != nullptr && LinkOutBytes(pThrottle->Conn) > kLinkOutHighBytes)
            return false;
        jForward(Phantom, Header.from, linxd_ring_payload(&pE->Reader), Header.size, Header.attributes);
        linxd_ring_advance(&pE->Reader, Header.size);
        __atomic_sub_fetch(&Counters.queued, 1, __ATOMIC_RELAXED);
        __atomic_add_fetch(&Counters.received_signals, 1, __ATOMIC_RELAXED);
        __atomic_add_fetch(&Counters.received_bytes, Header.size, __ATOMIC_RELAXED);
    }
    if (State == LINXD_PEEK_BROKEN) {
        RefusalSay(&mRefusals, "process " + std::to_string(pE->Writer), pWhy,
                   "linxd: refused the signal ring of process " + std::to_string(pE->Writer) + ": " + pWhy);
        RingSetDrop(&Phantom.Reading, Index);
    }
    return true;
}

// Forwards what the phantom's rings in turn hold, one ring after the
// other.  Returns whether everything was read (false: the link is full).
bool Service::jDrainRings(Socket &Phantom, const Link *pLink)
{
    for (size_t Turns = RingSetCollect(&Phantom.Reading); Turns > 0 && !Phantom.Reading.Turns.empty(); Turns--) {
        const uint32_t Index = RingSetFront(&Phantom.Reading);
        if (!jForwardRing(Phantom, Index, pLink))
            return false;
        if (RingSetFind(&Phantom.Reading, Index) != nullptr) // not refused
            RingSetRotate(&Phantom.Reading);
    }
    return true;
}

// Reads the phantom's rings until nothing is marked and its bell is
// armed, as a receiving process does; a link that has too much to send
// leaves them for later (its senders' rings fill up and refuse them).
void Service::jDrainPhantom(Socket &Phantom)
{
    Link *pLink = jLinkOf(Phantom);
    do {
        if (!jDrainRings(Phantom, pLink)) {
            pLink->bThrottled = true;
            return;
        }
    } while (RingSetArm(&Phantom.Reading));
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
