// SPDX-License-Identifier: Apache-2.0
// Rings and routes: where each ring a process makes sits among its
// receiver's rings, and how long it lives.
//
// A process has at most one ring into each socket, and a socket reads at
// most --rings-per-socket of them.  linxd keeps both sides of that books:
// each socket's ring table (index -> writing process) and each process's
// rings by receiver.  A ring is retired when its process closes its last
// socket (or dies), gives it up, or opens another into the same socket: a
// receiving process finds it in its retired set and unmaps the ring once
// it has read it (only then is the index handed out again); a phantom's
// is read here as far as its writer wrote, then unmapped
// (linxd_phantoms.cc).
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "linxd_service.h"

namespace {

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

} // namespace

int jSizedRegion(const char *pName, size_t Bytes)
{
    const int Fd = memfd_create(pName, MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (Fd >= 0 && (ftruncate(Fd, (off_t)Bytes) != 0 ||
                    fcntl(Fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0)) {
        const int Error = errno;
        close(Fd);
        errno = Error;
        return -1;
    }
    return Fd;
}

int jSealedRegion(const char *pName, size_t Bytes)
{
    const int Fd = jSizedRegion(pName, Bytes);
    if (Fd >= 0 && fcntl(Fd, F_ADD_SEALS, F_SEAL_SEAL) != 0) {
        const int Error = errno;
        close(Fd);
        errno = Error;
        return -1;
    }
    return Fd;
}

void *jMapShared(int Fd, size_t Bytes)
{
    void *p = Fd < 0 ? MAP_FAILED : mmap(nullptr, Bytes, PROT_READ | PROT_WRITE, MAP_SHARED, Fd, 0);
    return p == MAP_FAILED ? nullptr : p;
}

// A socket's ready set, mapped here too (its statistics are linxd's to
// read, and count linxd's own signals), and armed: nothing has been sent
// yet, so the first sender rings.
bool Service::jMakeReadySet(Socket &S)
{
    S.ReadyFd = jSealedRegion("linx-ready", sizeof(linxd_ready_set));
    S.pReady = (linxd_ready_set *)jMapShared(S.ReadyFd, sizeof(linxd_ready_set));
    if (S.pReady != nullptr)
        S.pReady->armed = 1;
    return S.pReady != nullptr;
}

// The retired set of a socket of a process: linxd keeps it mapped, the
// owner gets it with its registration.
bool Service::jMakeRetiredSet(Socket &S)
{
    S.RetiredFd = jSealedRegion("linx-retired", sizeof(linxd_index_set));
    S.pRetired = (linxd_index_set *)jMapShared(S.RetiredFd, sizeof(linxd_index_set));
    return S.pRetired != nullptr;
}

void Service::jFreeRingSets(Socket &S)
{
    if (S.LinkRing.header != nullptr)
        munmap(S.LinkRing.header, sizeof *S.LinkRing.header + S.LinkRing.capacity);
    if (S.RoomFd >= 0) {
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, S.RoomFd, nullptr);
        close(S.RoomFd);
    }
    S.LinkRing = {};
    S.RoomFd = -1;
    for (const int Fd : {S.ReadyFd, S.RetiredFd})
        if (Fd >= 0)
            close(Fd);
    RingSetFree(&S.Reading);
    if (S.pRetired != nullptr)
        munmap(S.pRetired, sizeof *S.pRetired);
    if (S.pReady != nullptr)
        munmap(S.pReady, sizeof *S.pReady);
    S.ReadyFd = S.RetiredFd = -1;
    S.pRetired = nullptr;
    S.pReady = nullptr;
}

// Takes a sender's ring for socket Target, in place of any ring the
// sender's process had into it, and gives the sender the receiver's slot,
// the ring's index, bell and ready set.
Reply Service::jOpenRoute(Client &C, uint32_t Target, int RingFd)
{
    Socket *pS = jFindSocket(Target);
    if (pS == nullptr)
        return jError(ECONNRESET);
    if (const char *pRefusal = jRingRefusal(RingFd, mOptions.QueueBytes)) {
        jRefuse(C.Pid, "a request", pRefusal);
        return jError(EINVAL);
    }
    const RingTable &Table = pS->Rings;
    const bool bDraining = std::any_of(Table.Draining.begin(), Table.Draining.end(),
                                       [&C](const std::pair<const uint32_t, DrainingRing> &D) {
                                           return D.second.Writer == C.Pid;
                                       });
    char Draining[96] = "";
    if (bDraining)
        snprintf(Draining, sizeof Draining, "its ring before into 0x%x still goes across", Target);
    const std::string Why = bDraining ? Draining : jRingOverCap(C.Pid, *pS);
    if (!Why.empty()) {
        jRefuse(C.Pid, "a ring", Why);
        jNudge(*pS);
        return jError(ENOBUFS);
    }
    const int BellFd = pS->Link != 0 ? jBellOf(C.Pid) : pS->BellFd;
    if (BellFd < 0)
        return jError(errno);
    Process &P = mProcesses[C.Pid];
    auto Old = P.RingInto.find(Target);
    if (Old != P.RingInto.end())
        jRetireRing(*pS, Old->second);
    const uint32_t Index = jTakeRingIndex(*pS);
    const int Error = Index < LINXD_MAX_RINGS_PER_SOCKET ? jPlaceRing(*pS, C.Pid, Index, RingFd) : ENOBUFS;
    if (Error != 0) {
        pS->Rings.Free.insert(Index);
        return jError(Error);
    }
    pS->Rings.Writers[Index] = C.Pid;
    P.RingInto[Target] = Index;
    jChargeRing(C.Pid, *pS);
    Reply R;
    R.Header.value[0] = pS->Slot;
    R.Header.value[1] = Index;
    R.Fds[0] = BellFd;
    R.Fds[1] = pS->ReadyFd;
    return R;
}

Reply Service::jCloseRoute(Client &C, uint32_t Target, uint32_t Index)
{
    Socket *pS = jFindSocket(Target);
    if (pS == nullptr)
        return jValue(0); // the receiver closed: its rings went with it
    const Process *pP = jProcessOf(C.Pid);
    auto Ring = pP != nullptr ? pP->RingInto.find(Target) : std::map<uint32_t, uint32_t>::const_iterator();
    if (pP == nullptr || Ring == pP->RingInto.end() || Ring->second != Index)
        return jError(EINVAL);
    jRetireRing(*pS, Index);
    return jValue(0);
}

// The lowest index that is free: never handed out, or retired and let go
// by the receiving process (the caller let those go it has read).
uint32_t Service::jTakeRingIndex(Socket &Receiver)
{
    RingTable &Table = Receiver.Rings;
    if (Table.Free.empty())
        return Table.Next++;
    const uint32_t Index = *Table.Free.begin();
    Table.Free.erase(Table.Free.begin());
    return Index;
}

// Puts the ring at Index among the receiver's rings: a phantom's is mapped
// here, another socket's goes to its owner in the outlet (with the room
// bell of a ring of linxd's), never ahead of what waits for it there.  0,
// or the errno that refuses the route.
int Service::jPlaceRing(Socket &Receiver, pid_t Writer, uint32_t Index, int RingFd, int RoomFd)
{
    if (Receiver.Link != 0) {
        const char *pWhy = nullptr;
        if (!RingSetAdopt(&Receiver.Reading, Index, RingFd, -1, Writer, mOptions.QueueBytes, &pWhy)) {
            jRefuse(Writer, "a request", pWhy);
            return EINVAL;
        }
        return jFirstFits(Receiver, Index, Writer) ? 0 : EMSGSIZE;
    }
    jFlushBacklog(Receiver);
    if (!Receiver.Backlog.empty())
        return ENOBUFS; // its outlet is full of linxd's signals
    const uint32_t Words[2] = {(uint32_t)Writer, Index};
    const linxd_signal_header Header = {0, Receiver.Spid, sizeof Words, LINXD_ANNOUNCE_RING};
    struct iovec Iov[2] = {{(void *)&Header, sizeof Header}, {(void *)Words, sizeof Words}};
    char Control[CMSG_SPACE(2 * sizeof(int))] = {};
    struct msghdr Msg = {};
    Msg.msg_iov = Iov;
    Msg.msg_iovlen = 2;
    const int Fds[2] = {RingFd, RoomFd};
    linxd_pass_fds(&Msg, Control, Fds, RoomFd >= 0 ? 2 : 1);
    if (sendmsg(Receiver.InletFd, &Msg, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
        return errno == EAGAIN ? ENOBUFS : ECONNRESET;
    __atomic_add_fetch(&mpSlots[Receiver.Slot].outlet_signals, 1, __ATOMIC_RELEASE);
    return 0;
}

// Retired rings count against the caps until their reader lets them go,
// which it does when it next receives: a reader that sleeps is woken (its
// bell rung) when a ring was refused for want of them, so that the next
// try finds them gone.  Retiring itself wakes nobody.
void Service::jNudge(Socket &Receiver)
{
    const uint64_t One = 1;
    if (Receiver.Link == 0 && !Receiver.Rings.Retiring.empty())
        (void)!write(Receiver.BellFd, &One, sizeof One);
}

// The first signal in a new ring into a phantom (a sender writes it
// before it hands the ring over) must fit what the endpoint's node takes:
// a sender learns so before its send returns, and the ring is not kept.
bool Service::jFirstFits(Socket &Phantom, uint32_t Index, pid_t Writer)
{
    linxd_signal_header First;
    const char *pWhy = nullptr;
    RingSetEntry *pE = RingSetFind(&Phantom.Reading, Index);
    if (linxd_ring_peek(&pE->Reader, Phantom.Spid, &First, &pWhy) != LINXD_PEEK_SIGNAL || First.size <= Phantom.Largest)
        return true;
    char Why[160];
    snprintf(Why, sizeof Why, "its signal of %u bytes is larger than %s takes (%u bytes)", First.size,
             Phantom.Name.c_str(), Phantom.Largest);
    jRefuse(Writer, "a ring", Why);
    RingSetDrop(&Phantom.Reading, Index);
    return false;
}

void Service::jRetireRing(Socket &Receiver, uint32_t Index)
{
    auto It = Receiver.Rings.Writers.find(Index);
    if (It == Receiver.Rings.Writers.end())
        return;
    const pid_t Writer = It->second;
    Process *pW = jProcessOf(Writer);
    if (pW != nullptr)
        pW->RingInto.erase(Receiver.Spid);
    Receiver.Rings.Writers.erase(It);
    if (Receiver.Link != 0) {
        jRetirePhantomRing(Receiver, Index, Writer);
        return;
    }
    linxd_index_set_add(Receiver.pRetired, Index);
    Receiver.Rings.Retiring[Index] = Writer;
    if (pW != nullptr)
        pW->Retired.insert({Receiver.Spid, Index});
}

void Service::jSocketOpened(const Socket &S)
{
    mProcesses[S.Pid].Sockets.insert(S.Spid);
}

// A socket closes.  The rings that reached it go with it (their writers
// are told to let their routes go, and are charged for them no more), and
// when it was its process's last socket every ring the process made is
// retired: its receivers learn of it before any attach signal about the
// socket.  What its process wrote to phantoms goes on as far as the links
// take it; returned, by link, is where the rest stands, which the peers
// must have before they hear of the close (a process that sends and exits
// loses nothing).
std::map<uint32_t, std::vector<PhantomMark>> Service::jSocketClosing(Socket &S)
{
    // A writer that sees the count of closed routes move looks for routes
    // whose slot no longer holds their socket: the slot is cleared first,
    // or a writer quick to look would keep the route (and its ring) until
    // some other socket closed.
    __atomic_store_n(&mpSlots[S.Slot].spid, 0, __ATOMIC_RELEASE);
    for (const auto &Writer : S.Rings.Writers) {
        Process *pW = jProcessOf(Writer.second);
        if (pW == nullptr)
            continue;
        pW->RingInto.erase(S.Spid);
        for (const uint32_t Spid : pW->Sockets)
            if (const Socket *pWriter = jFindSocket(Spid))
                __atomic_add_fetch(&mpSlots[pWriter->Slot].routes_gone, 1, __ATOMIC_RELEASE);
    }
    jUnchargeAllInto(S);
    jUnholdAll(S);
    Process *pP = S.Link == 0 ? jProcessOf(S.Pid) : nullptr;
    if (pP == nullptr)
        return {};
    std::map<uint32_t, std::vector<PhantomMark>> Marks = jMarksOfRings(S.Pid);
    pP->Sockets.erase(S.Spid);
    if (pP->Sockets.empty()) {
        const std::map<uint32_t, uint32_t> Rings = pP->RingInto;
        for (const auto &Ring : Rings)
            if (Socket *pReceiver = jFindSocket(Ring.first))
                jRetireRing(*pReceiver, Ring.second);
    }
    jForgetIfIdle(S.Pid);
    return Marks;
}
