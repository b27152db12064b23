// SPDX-License-Identifier: Apache-2.0
// What each process is charged for: its sockets, the hunts, attaches,
// timeouts and tokens they hold, linxd's signals waiting for them, and
// the rings it made, wherever they are read; and what a receiving process
// maps of others' rings.  Each has a cap (linxd_service.h); a request
// beyond one is refused with ENOBUFS and a line of its own, so that a
// process that misbehaves is the one that is refused.  The time linxd
// spends on bells rung for nothing is bounded too (muted bells, below).
//
// A ring stays charged to its writer until its reader let it go: a
// retired ring that a receiving process has not read yet (its index is
// still in the socket's retired set) counts, and so does one whose
// announcement still waits in the receiver's outlet.  Whether a retired
// ring was let go is seen lazily, when an index of the socket is taken or
// when its writer reaches a cap.  Everything runs on the service's thread.
#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

#include "linxd_service.h"

namespace {

// A bell that rang for nothing this many times in a row (a process that
// writes it in a loop: each process has its own bell for its rings into
// phantoms, and the room bell of linxd's ring into a socket is its
// reader's) is not listened to for kBellMuteMs; linxd then looks itself
// and listens again.  What one process can make linxd spend on bells is a
// few looks every 10 ms; an honest writer rings only after it wrote, so it
// never comes to that.
constexpr uint32_t kIdleBellsBeforeMute = 4;
constexpr int64_t kBellMuteMs = 10;

// Mappings linxd keeps apart from rings: the ready and retired sets of a
// full instance, and room for the allocator, the stacks and the libraries.
constexpr uint64_t kMappingsBesideRings = 2ull * LINXD_MAX_SOCKETS + 4096;
constexpr uint32_t kLeastRingBudget = 1024;

} // namespace

// Rings linxd may map (its own into sockets, and those written into
// phantoms): what the kernel's limit on a process's mappings leaves.  Out
// of mappings, an allocation fails wherever it happens; so it must never
// come to that.
uint32_t Service::jRingBudget()
{
    uint64_t Most = 65530; // the kernel's default
    if (FILE *pIn = fopen("/proc/sys/vm/max_map_count", "re")) {
        unsigned long long Value = 0;
        if (fscanf(pIn, "%llu", &Value) == 1)
            Most = Value;
        fclose(pIn);
    }
    const uint64_t Left = Most > kMappingsBesideRings ? Most - kMappingsBesideRings : 0;
    return (uint32_t)std::min<uint64_t>(UINT32_MAX, std::max<uint64_t>(kLeastRingBudget, Left));
}

Process *Service::jProcessOf(pid_t Pid)
{
    auto It = mProcesses.find(Pid);
    return It == mProcesses.end() ? nullptr : &It->second;
}

// A process is forgotten once nothing of it is left here.
void Service::jForgetIfIdle(pid_t Pid)
{
    const Process *pP = jProcessOf(Pid);
    if (pP == nullptr || !pP->Sockets.empty() || pP->Rings != 0 || pP->RingsIn != 0 || pP->Held != 0 ||
        pP->BacklogBytes != 0)
        return;
    if (pP->BellFd >= 0) {
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, pP->BellFd, nullptr);
        close(pP->BellFd);
    }
    mMutedBells.erase(jWatchKey(Watch::Bell, (uint32_t)Pid));
    mProcesses.erase(Pid);
}

bool Service::jMayOpenSocket(const Client &C)
{
    const Process *pP = jProcessOf(C.Pid);
    if (pP == nullptr || pP->Sockets.size() < kMaxSocketsPerProcess)
        return true;
    jRefuse(C.Pid, "a socket", "it has " + std::to_string(kMaxSocketsPerProcess) + " sockets already");
    return false;
}

// Counts one more item requested by Spid, unless it or its process holds
// its most.
bool Service::jHold(uint32_t Spid)
{
    Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return false;
    Process &P = mProcesses[pS->Pid];
    const char *pWhy = pS->Held >= kMaxHeldPerSocket ? "its socket holds 4096 hunts, attaches, timeouts and tokens"
                       : P.Held >= kMaxHeldPerProcess ? "its sockets hold 65536 hunts, attaches, timeouts and tokens"
                                                      : nullptr;
    if (pWhy != nullptr) {
        jRefuse(pS->Pid, "a request", pWhy);
        return false;
    }
    pS->Held++;
    P.Held++;
    return true;
}

void Service::jUnhold(uint32_t Spid)
{
    Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return;
    pS->Held--;
    if (Process *pP = jProcessOf(pS->Pid))
        pP->Held--;
}

// A closing socket takes what it held with it.
void Service::jUnholdAll(Socket &S)
{
    if (Process *pP = jProcessOf(S.Pid))
        pP->Held -= S.Held;
    S.Held = 0;
}

// A signal starts (Sign 1) or stops (-1) waiting for S.  Those of linxd's
// own count against the process too; what links bring is bounded by their
// windows instead.
void Service::jCountBacklog(Socket &S, const Waiting &W, int Sign)
{
    Process *pP = W.Link == 0 && S.Link == 0 ? jProcessOf(S.Pid) : nullptr;
    for (size_t *pBytes : {&S.BacklogBytes, &mBacklogBytes, pP != nullptr ? &pP->BacklogBytes : nullptr})
        if (pBytes != nullptr)
            *pBytes = Sign > 0 ? *pBytes + W.Datagram.size() : *pBytes - W.Datagram.size();
}

bool Service::jRoomFor(uint32_t Spid, const std::string &Signal)
{
    Socket *pS = jFindSocket(Spid);
    if (pS == nullptr)
        return true; // nothing will be delivered
    const Process *pP = jProcessOf(pS->Pid);
    const char *pWhy = nullptr;
    if (pS->Backlog.size() >= kMaxHeldPerSocket || pS->BacklogBytes + Signal.size() > kMaxBacklogBytesPerSocket)
        pWhy = "4096 signals or 4 MiB wait for its socket";
    else if (pP != nullptr && pP->BacklogBytes + Signal.size() > kMaxBacklogBytesPerProcess)
        pWhy = "8 MiB wait for its sockets";
    else if (mBacklogBytes + Signal.size() > kMaxBacklogBytesTotal)
        pWhy = "64 MiB wait for the sockets of this instance";
    if (pWhy != nullptr)
        jRefuse(pS->Pid, "a request", std::string("no room for its signal: ") + pWhy);
    return pWhy == nullptr;
}

// Why Writer may not hand over one more ring into Receiver, or "": the
// caps of the writer, of the receiving process, of the socket and of
// linxd.  Retired rings that were read meanwhile are let go first.
std::string Service::jRingOverCap(pid_t Writer, Socket &Receiver)
{
    Process &W = mProcesses[Writer];
    const uint32_t Target = Receiver.Spid;
    auto RetiredInto = [&] {
        return (uint32_t)std::distance(W.Retired.lower_bound({Target, 0}), W.Retired.lower_bound({Target + 1, 0}));
    };
    if (RetiredInto() + W.RingInto.count(Target) >= kMaxRingsIntoSocket)
        jSweepRetired(W, Target);
    if (W.Rings >= kMaxRingsPerProcess)
        jSweepRetired(W, 0);
    jLetGoAllRead(Receiver);
    const Process *pReader = Receiver.Link == 0 ? jProcessOf(Receiver.Pid) : nullptr;
    const RingTable &Table = Receiver.Rings;
    char Why[160] = "";
    if (RetiredInto() + W.RingInto.count(Target) >= kMaxRingsIntoSocket)
        snprintf(Why, sizeof Why, "%u of its rings into socket 0x%x are not read yet", kMaxRingsIntoSocket, Target);
    else if (W.Rings >= kMaxRingsPerProcess)
        snprintf(Why, sizeof Why, "%u of its rings are not let go yet", kMaxRingsPerProcess);
    else if (Receiver.Link != 0 && W.PhantomRings >= kMaxPhantomRingsPerProcess)
        snprintf(Why, sizeof Why, "%u of its rings go to endpoints behind links", kMaxPhantomRingsPerProcess);
    else if (Receiver.Link != 0 && mRingsMapped >= mRingBudget)
        snprintf(Why, sizeof Why, "linxd maps %u rings already", mRingBudget);
    else if (pReader != nullptr && pReader->RingsIn >= kMaxRingsPerReceiver)
        snprintf(Why, sizeof Why, "process %d maps %u rings of others already", (int)Receiver.Pid,
                 kMaxRingsPerReceiver);
    else if (Table.Writers.size() + Table.Retiring.size() + Table.Draining.size() >= mOptions.RingsPerSocket)
        snprintf(Why, sizeof Why, "socket 0x%x reads %u rings already (--rings-per-socket)", Target,
                 mOptions.RingsPerSocket);
    return Why;
}

// A ring of Writer's is now among Receiver's rings (linxd's own too).
void Service::jChargeRing(pid_t Writer, Socket &Receiver)
{
    if (Receiver.Link != 0 || Writer == mSelf)
        mRingsMapped++;
    if (Process *pReader = Receiver.Link == 0 ? jProcessOf(Receiver.Pid) : nullptr)
        pReader->RingsIn++;
    if (Writer == mSelf)
        return;
    Process &W = mProcesses[Writer];
    W.Rings++;
    W.PhantomRings += Receiver.Link != 0;
}

// The ring left Receiver's rings: its index is free again.
void Service::jUnchargeRing(pid_t Writer, Socket &Receiver)
{
    if (Receiver.Link != 0 || Writer == mSelf)
        mRingsMapped--;
    if (Process *pReader = Receiver.Link == 0 ? jProcessOf(Receiver.Pid) : nullptr)
        pReader->RingsIn--;
    if (Writer == mSelf)
        return;
    if (Process *pW = jProcessOf(Writer)) {
        pW->Rings--;
        pW->PhantomRings -= Receiver.Link != 0;
        jForgetIfIdle(Writer);
    }
}

// The retired ring at Index of Receiver, if its reader has let it go
// (read it and unmapped it): its index is free and it is charged to
// nobody.  Returns whether it was.
bool Service::jLetGoIfRead(Socket &Receiver, uint32_t Index)
{
    auto It = Receiver.Rings.Retiring.find(Index);
    if (It == Receiver.Rings.Retiring.end() || linxd_index_set_has(Receiver.pRetired, Index))
        return false;
    const pid_t Writer = It->second;
    Receiver.Rings.Retiring.erase(It);
    Receiver.Rings.Free.insert(Index);
    if (Process *pW = jProcessOf(Writer))
        pW->Retired.erase({Receiver.Spid, Index});
    jUnchargeRing(Writer, Receiver);
    return true;
}

// Lets go the retired rings of Receiver that its reader has read.
void Service::jLetGoAllRead(Socket &Receiver)
{
    std::vector<uint32_t> Retired;
    for (const auto &Ring : Receiver.Rings.Retiring)
        Retired.push_back(Ring.first);
    for (const uint32_t Index : Retired)
        jLetGoIfRead(Receiver, Index);
}

// Lets go the retired rings of W that were read (those into socket Only,
// or all when it is 0).
void Service::jSweepRetired(Process &W, uint32_t Only)
{
    const auto First = Only == 0 ? W.Retired.begin() : W.Retired.lower_bound({Only, 0});
    const auto Last = Only == 0 ? W.Retired.end() : W.Retired.lower_bound({Only + 1, 0});
    const std::vector<std::pair<uint32_t, uint32_t>> Rings(First, Last);
    for (const auto &Ring : Rings)
        if (Socket *pReceiver = jFindSocket(Ring.first))
            jLetGoIfRead(*pReceiver, Ring.second);
}

// Receiver closes: every ring that reached it goes with it, and so do
// their charges.
void Service::jUnchargeAllInto(Socket &Receiver)
{
    RingTable &Table = Receiver.Rings;
    for (const auto &Writer : Table.Writers)
        jUnchargeRing(Writer.second, Receiver);
    for (const auto &Retired : Table.Retiring) {
        if (Process *pW = jProcessOf(Retired.second))
            pW->Retired.erase({Receiver.Spid, Retired.first});
        jUnchargeRing(Retired.second, Receiver);
    }
    for (const auto &Draining : Table.Draining)
        jUnchargeRing(Draining.second.Writer, Receiver);
    Table = RingTable();
}

// Listens to a bell (a socket's room bell, or a process's), or stops; a
// muted one is listened to again only once it is due.
void Service::jHearBell(Watch Kind, uint32_t Id, int Fd, bool bOn)
{
    const uint32_t Events = bOn && mMutedBells.count(jWatchKey(Kind, Id)) == 0 ? (uint32_t)EPOLLIN : 0u;
    jWatch(Kind, Fd, Id, Events, EPOLL_CTL_MOD);
}

// A bell rang, and brought work (bUseful) or not; *pIdle counts those that
// did not, in a row.
void Service::jBellRang(Watch Kind, uint32_t Id, int Fd, uint32_t *pIdle, bool bUseful)
{
    *pIdle = bUseful ? 0 : *pIdle + 1;
    if (*pIdle < kIdleBellsBeforeMute)
        return;
    mMutedBells[jWatchKey(Kind, Id)] = jNowMs() + kBellMuteMs;
    jWatch(Kind, Fd, Id, 0, EPOLL_CTL_MOD);
}

// Muted bells that are due: linxd looks at what they stand for itself,
// and listens to them again.
void Service::jUnmuteBells()
{
    const int64_t Now = jNowMs();
    for (auto It = mMutedBells.begin(); It != mMutedBells.end();) {
        if (It->second > Now) {
            ++It;
            continue;
        }
        const Watch Kind = (Watch)(It->first >> 32);
        const uint32_t Id = (uint32_t)It->first;
        It = mMutedBells.erase(It);
        Process *pP = Kind == Watch::Bell ? jProcessOf((pid_t)Id) : nullptr;
        Socket *pS = Kind == Watch::Room ? jFindSocket(Id) : nullptr;
        if (pP != nullptr && pP->BellFd >= 0) {
            pP->IdleBells = 0;
            jHearBell(Kind, Id, pP->BellFd, true);
            jRingBell((pid_t)Id);
        } else if (pS != nullptr && pS->RoomFd >= 0) {
            pS->IdleBells = 0;
            jFlushLinkRing(*pS); // listens to the room bell again if it still waits
        }
    }
}

// Milliseconds until a muted bell is due, or -1.
int64_t Service::jMutedDueMs() const
{
    int64_t Due = -1;
    for (const auto &Entry : mMutedBells)
        Due = Due < 0 ? Entry.second : std::min(Due, Entry.second);
    return Due < 0 ? -1 : std::max<int64_t>(0, Due - jNowMs());
}
