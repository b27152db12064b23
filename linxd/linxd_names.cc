// SPDX-License-Identifier: Apache-2.0
// Sockets and names: a new socket with its slot, bell and ready set; the
// names it registers and the hunts that wait for them, here and across
// links; what linxd watches for a client (attaches, timeouts); and the
// queries about one socket or the whole instance.  Closing a socket and
// the loop that serves the requests are linxd.cc's.  Everything runs on
// the service's one thread.
#include "linxd_service.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

// A new socket of Name, with its slot, its bell and its ready set; null
// with *pError when the instance has no slot or descriptor left.
Socket *Service::jNewSocket(const std::string &Name, pid_t Pid, int *pError)
{
    if (mFreeSlots.empty() && mUnusedSlots == LINXD_MAX_SOCKETS) {
        *pError = ENFILE;
        return nullptr;
    }
    Socket S;
    // A phantom (a socket of linxd's own) has no bell: its writers ring
    // bells of their own (jBellOf).
    S.BellFd = Pid == mSelf ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if ((S.BellFd < 0 && Pid != mSelf) || !jMakeReadySet(S)) {
        *pError = errno;
        if (S.BellFd >= 0)
            close(S.BellFd);
        return nullptr;
    }
    S.Spid = jNewSpid();
    S.Name = Name;
    S.Pid = Pid;
    S.Owner = (uint32_t)Pid;
    S.Largest = jLargestSignal();
    if (mFreeSlots.empty()) {
        S.Slot = mUnusedSlots++;
    } else {
        S.Slot = mFreeSlots.back();
        mFreeSlots.pop_back();
    }
    linxd_slot &Slot = mpSlots[S.Slot];
    memset(&Slot, 0, sizeof Slot);
    Slot.largest_signal = S.Largest;
    __atomic_store_n(&Slot.spid, S.Spid, __ATOMIC_RELEASE);
    mNames[Name].push_back(S.Spid);
    const uint32_t Spid = S.Spid;
    return &mSockets.emplace(Spid, std::move(S)).first->second;
}

// The largest payload a signal to a socket of this node may have.
uint32_t Service::jLargestSignal() const
{
    return linxd_largest_signal(mOptions.QueueBytes);
}

// Answers the hunts that waited for Name, here and on the links: local ones
// once the reply is out when bAfterReply, so that nobody learns of a socket
// before its owner does.
void Service::jNameAppeared(const std::string &Name, uint32_t Spid, bool bAfterReply)
{
    std::vector<Hunt> Answered;
    for (auto It = mHunts.find(Name); It != mHunts.end(); It = mHunts.find(Name)) {
        Answered.push_back(std::move(It->second));
        mHunts.erase(It);
        jUnhold(Answered.back().Requester);
        jHuntGone(Name, Answered.back());
    }
    for (Hunt &H : Answered) {
        if (bAfterReply)
            mAfterReply.push_back({H.OnBehalf, Spid, std::move(H.Signal)});
        else
            jDeliver(H.OnBehalf, Spid, H.Signal);
    }
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        std::string Why;
        if (L.bUp && L.Wanted.erase(Name) != 0 && !jAnnounce(L, Spid, &Why))
            RefusalSay(&mRefusals, "link " + L.Name, Why,
                       "linxd: did not answer link " + L.Name + "'s hunt for " + Name + ": " + Why);
    }
    jUnseek(Name);
}

Reply Service::jRegister(Client &C, const std::string &Name)
{
    if (C.Spid != 0)
        return jError(EISCONN);
    if (Name.find('\0') != std::string::npos)
        return jError(EINVAL);
    if (!jMayOpenSocket(C))
        return jError(ENOBUFS);
    int Pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, Pair) != 0)
        return jError(errno);
    int Error = 0;
    Socket *pS = jNewSocket(Name, C.Pid, &Error);
    if (pS == nullptr || !jMakeRetiredSet(*pS)) {
        Error = pS == nullptr ? Error : errno;
        if (pS != nullptr)
            jCloseSocket(pS->Spid);
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
    R.Fds[3] = pS->ReadyFd;
    R.Fds[4] = pS->RetiredFd;
    jSocketOpened(*pS);
    jNameAppeared(Name, pS->Spid, true);
    return R;
}

// A hunt answered to socket OnBehalf, which must be of the caller's
// process: nobody makes linxd fill another process's queue.
Reply Service::jHunt(Client &C, uint32_t OnBehalf, const std::string &Name, std::string Signal)
{
    const Socket *pOnBehalf = jFindSocket(OnBehalf);
    if (pOnBehalf == nullptr)
        return jError(EINVAL);
    if (pOnBehalf->Pid != C.Pid)
        return jError(EPERM);
    if (!jRoomFor(OnBehalf, Signal))
        return jError(ENOBUFS);
    auto Named = mNames.find(Name);
    if (Named != mNames.end()) {
        // Several sockets may share a name: a hunt finds the oldest one.
        jDeliver(OnBehalf, Named->second.front(), Signal);
        return jValue(0);
    }
    if (!jMayHuntAcross(C, Name) || !jHold(C.Spid))
        return jError(ENOBUFS);
    const Hunt &H = mHunts.insert({Name, Hunt{C.Spid, OnBehalf, C.Pid, std::move(Signal)}})->second;
    jHuntTaken(Name, H);
    jSeekRemote(Name, nullptr);
    return jValue(0);
}

namespace {

// A hunt for a name with a slash goes across the link its first part
// names (or waits for one of that name).
bool jAcross(const std::string &Name, std::string *pLink)
{
    std::string Rest;
    return jPathBehindLink(Name, pLink, &Rest);
}

} // namespace

// Whether the caller may have one more hunt pending for Name: across links
// a process holds at most kMaxHuntsAcrossPerProcess, and the processes here
// ask for at most kMaxHuntedPerLink names behind one link, so no peer is
// asked for more than it takes, after a reconnect too.
bool Service::jMayHuntAcross(const Client &C, const std::string &Name)
{
    std::string Link;
    if (!jAcross(Name, &Link))
        return true;
    auto Mine = mHuntsAcross.find(C.Pid);
    auto Behind = mNamesBehind.find(Link);
    std::string Why;
    if (Mine != mHuntsAcross.end() && Mine->second >= kMaxHuntsAcrossPerProcess)
        Why = std::to_string(kMaxHuntsAcrossPerProcess) + " of its hunts across links wait already";
    else if (mHunts.count(Name) == 0 && Behind != mNamesBehind.end() && Behind->second >= kMaxHuntedPerLink)
        Why = std::to_string(kMaxHuntedPerLink) + " names behind link " + Link + " are hunted for already";
    if (Why.empty())
        return true;
    jRefuse(C.Pid, "a hunt", Why);
    return false;
}

// Counts a hunt just entered in mHunts (the first for its name counts the
// name too), and uncounts one just erased.
void Service::jHuntTaken(const std::string &Name, const Hunt &H)
{
    std::string Link;
    if (!jAcross(Name, &Link))
        return;
    mHuntsAcross[H.Pid]++;
    if (mHunts.count(Name) == 1)
        mNamesBehind[Link]++;
}

void Service::jHuntGone(const std::string &Name, const Hunt &H)
{
    std::string Link;
    if (!jAcross(Name, &Link))
        return;
    if (--mHuntsAcross[H.Pid] == 0)
        mHuntsAcross.erase(H.Pid);
    if (mHunts.count(Name) == 0 && --mNamesBehind[Link] == 0)
        mNamesBehind.erase(Link);
}

Reply Service::jAttach(Client &C, uint32_t Target, std::string Signal)
{
    if (!jRoomFor(C.Spid, Signal))
        return jError(ENOBUFS);
    const uint32_t Ref = jNewRef();
    if (jFindSocket(Target) == nullptr) {
        jDeliver(C.Spid, Target, Signal, true); // not open: it is already gone
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
    const linxd_counters &Counters = pS->pReady->counters;
    const int64_t Queued = __atomic_load_n(&Counters.queued, __ATOMIC_RELAXED);
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
        Stat.sent_signals = __atomic_load_n(&Counters.sent_signals, __ATOMIC_RELAXED);
        Stat.sent_bytes = __atomic_load_n(&Counters.sent_bytes, __ATOMIC_RELAXED);
        Stat.received_signals = __atomic_load_n(&Counters.received_signals, __ATOMIC_RELAXED);
        Stat.received_bytes = __atomic_load_n(&Counters.received_bytes, __ATOMIC_RELAXED);
        Stat.queued_signals = Queued > 0 ? (uint64_t)Queued : 0;
        Stat.send_failures = __atomic_load_n(&Counters.refused_sends, __ATOMIC_RELAXED);
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
        const int64_t Queued = __atomic_load_n(&S.second.pReady->counters.queued, __ATOMIC_RELAXED);
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
