// SPDX-License-Identifier: Apache-2.0
// The links to other nodes as the service sees them: listening, dialling
// and taking connections, the hello, a link coming up and going down,
// heartbeats and redials, and the frames a peer sends (hunts, endpoint
// announcements, closes, signals).  The transport itself (connections, TLS,
// framing) is linxd_link.cc's; the phantoms that stand for the peer's
// endpoints here are linxd_phantoms.cc's.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

#include "standin/address.h"
#include "linxd_service.h"

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

// A connection that never became a link.  Refusals are counted by the
// peer's host, not its port: each new attempt comes from another port.
void Service::jRefuseLink(const std::string &Peer, const std::string &Why)
{
    const size_t Port = Peer.rfind(':');
    const std::string Host = Peer.compare(0, 4, "tcp:") == 0 && Port > 4 ? Peer.substr(0, Port) : Peer;
    RefusalSay(&mRefusals, Host, Why, "linxd: refused a link connection from " + Peer + ": " + Why);
}

void Service::jAcceptLink(int ListenFd)
{
    for (;;) {
        Link L;
        std::string Why;
        if (!LinkAccept(ListenFd, mLinkListeners[ListenFd], mpTls, &L.Conn, &Why)) {
            if (Why.empty())
                return;
            jRefuseLink(L.Conn.Peer, Why);
            continue;
        }
        jMakeRoomForHalfOpen();
        AdmitLink(std::move(L.Conn));
    }
}

// At most kMaxHalfOpenLinks connections taken wait for their hello: the
// oldest goes to make room for a new one (a peer of this user's finishes
// its handshake in milliseconds, so it is rarely the oldest).
void Service::jMakeRoomForHalfOpen()
{
    Link *pOldest = nullptr;
    size_t HalfOpen = 0;
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        if (L.bUp || L.bDialed || L.Conn.Fd < 0)
            continue;
        HalfOpen++;
        if (pOldest == nullptr || L.SinceMs < pOldest->SinceMs)
            pOldest = &L;
    }
    if (HalfOpen >= kMaxHalfOpenLinks)
        jLinkDown(*pOldest, "dropped for a newer connection: " + std::to_string(kMaxHalfOpenLinks) +
                                " waited for their hello");
}

// A connection a peer dialled; it becomes a link when its hello comes.
void Service::AdmitLink(LinkConn &&Conn)
{
    Link L;
    L.Conn = std::move(Conn);
    L.Id = ++mNextLinkId;
    L.ConnSerial = ++mConnSerials;
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
    L.ConnSerial = ++mConnSerials;
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

namespace {

bool jValidName(const std::string &Name)
{
    return !Name.empty() && Name.size() <= LINXD_MAX_NAME_CHARS && Name.find('\0') == std::string::npos;
}

} // namespace

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
    case LinkFrame::Unhunt:
        if (!jValidName(Body)) {
            *pWhy = "a hunt for a name that cannot be";
            return false;
        }
        if ((LinkFrame)Type == LinkFrame::Hunt)
            return jPeerHunt(L, Body, pWhy);
        if (L.Wanted.erase(Body) != 0)
            jUnseek(Body);
        return true;
    case LinkFrame::Endpoint:
        if (Body.size() > 12 && LinkWord(Body, 0) != 0 && LinkWord(Body, 2) >= sizeof(uint32_t) &&
            LinkWord(Body, 2) <= LINXD_MAX_SIGNAL_BYTES && jValidName(Body.substr(12)))
            return jAddPhantom(L, LinkWord(Body, 0), LinkWord(Body, 1), LinkWord(Body, 2), Body.substr(12), pWhy);
        *pWhy = "an endpoint frame that does not hold together";
        return false;
    case LinkFrame::Gone:
        if (Body.size() == 4)
            return jGoneFrame(L, Body);
        break;
    case LinkFrame::GoneSeen:
        if (Body.size() != 4)
            break;
        L.Departed.erase(LinkWord(Body, 0));
        return true;
    case LinkFrame::Credit:
        if (Body.size() != 8)
            break;
        jTakeCredit(L, LinkWord(Body, 0), LinkWord(Body, 1));
        return true;
    case LinkFrame::Signal:
        if (Body.size() >= 12 + sizeof(uint32_t))
            return jSignalFrame(L, Body, pWhy);
        break;
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

// A signal from an endpoint the peer announced, for one of ours it was
// told of.  One for an endpoint of ours that closed since (the peer has
// not confirmed the close yet) is dropped, as a signal sent to a socket
// that closed is; one for an endpoint the peer was never told of breaks
// the rules.
bool Service::jSignalFrame(Link &L, const std::string &Body, std::string *pWhy)
{
    auto From = L.Phantoms.find(LinkWord(Body, 0));
    if (From == L.Phantoms.end()) {
        *pWhy = "a signal from an endpoint it never announced";
        return false;
    }
    const uint32_t To = LinkWord(Body, 1);
    if (L.Told.count(To) == 0) {
        *pWhy = "a signal for an endpoint never announced to it";
        return L.Departed.count(To) != 0;
    }
    jDeliverFromLink(L, To, From->second, Body.data() + 12, (uint32_t)(Body.size() - 12), LinkWord(Body, 2));
    return true;
}

// The peer's endpoint closed: its phantom closes (its attaches fire), and
// the peer hears that this node knows, so that it forgets the endpoint.
bool Service::jGoneFrame(Link &L, const std::string &Body)
{
    const uint32_t RemoteSpid = LinkWord(Body, 0);
    auto It = L.Phantoms.find(RemoteSpid);
    if (It == L.Phantoms.end())
        return true;
    jCloseSocket(It->second);
    jSendFrame(L, LinkFrame::GoneSeen, LinkWords({RemoteSpid}));
    return true;
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
        jRefuseLink(L.Conn.Peer, Why);
    else if (L.bUp || L.RedialMs == kFirstRedialMs) // a link that stays down is reported once
        fprintf(stderr, "linxd: link %s is down: %s\n", L.Name.c_str(), Why.c_str());
    if (L.Conn.Fd >= 0)
        epoll_ctl(mEpollFd, EPOLL_CTL_DEL, L.Conn.Fd, nullptr);
    LinkClose(&L.Conn);
    L.Conn = LinkConn();
    mFreedSome = true;
    L.bUp = L.bPaused = L.bThrottled = L.bHelloSent = L.bDialed = false;
    L.Watched = 0;
    L.Broken.clear();
    std::vector<uint32_t> Phantoms;
    for (const auto &Entry : L.Phantoms)
        Phantoms.push_back(Entry.second);
    for (const uint32_t Spid : Phantoms)
        jCloseSocket(Spid);
    L.Told.clear();
    L.Departed.clear();
    L.GonesDue.clear();
    L.Credits.clear();
    L.Asked.clear();
    const std::set<std::string> Wanted = std::move(L.Wanted);
    L.Wanted.clear();
    for (const std::string &Name : Wanted)
        jUnseek(Name);
    L.NextDialMs = jNowMs() + L.RedialMs;
    L.RedialMs = std::min(2 * L.RedialMs, kLastRedialMs);
}

void Service::jSendFrame(Link &L, LinkFrame Type, const std::string &Head, const void *pTail, size_t TailBytes)
{
    LinkPutFrame(&L.Conn, Type, Head.data(), Head.size(), pTail, TailBytes);
    L.LastSentMs = jNowMs();
}

// Announces socket Spid to the peer: an open socket of this node, or one
// whose close waits behind its process's rings.  false with *pWhy when it
// is neither, or when the peer holds as many endpoints of this node as it
// takes (those it knows and those whose close it has not confirmed).
bool Service::jAnnounce(Link &L, uint32_t Spid, std::string *pWhy)
{
    const Socket *pS = jFindSocket(Spid);
    const std::string *pName = pS != nullptr ? &pS->Name : nullptr;
    uint32_t Owner = pS != nullptr ? pS->Owner : 0;
    const uint32_t Largest = pS != nullptr ? pS->Largest : jLargestSignal();
    for (const GoneAfterRings &Gone : L.GonesDue)
        if (pName == nullptr && Gone.Spid == Spid) {
            pName = &Gone.Name;
            Owner = Gone.Owner;
        }
    char Why[96];
    if (pName == nullptr)
        snprintf(Why, sizeof Why, "its sender 0x%x is not open", Spid);
    else if (L.Told.count(Spid) == 0 && L.Told.size() + L.Departed.size() >= kMaxPhantomsPerLink)
        snprintf(Why, sizeof Why, "the peer knows %zu endpoints of this node already", kMaxPhantomsPerLink);
    else
        Why[0] = '\0';
    *pWhy = Why;
    if (!pWhy->empty())
        return false;
    jSendFrame(L, LinkFrame::Endpoint, LinkWords({Spid, Owner, Largest}) + *pName);
    L.Told.insert(Spid);
    return true;
}

// Makes sure the peer knows socket Spid.
bool Service::jTell(Link &L, uint32_t Spid, std::string *pWhy)
{
    return L.Told.count(Spid) != 0 || jAnnounce(L, Spid, pWhy);
}

// Tells the peer that socket Spid of this node closed, if it knew it.  The
// socket stays departed until the peer confirms, so that a signal the peer
// sent it meanwhile is told apart from one for an endpoint it never knew.
void Service::jSayGone(Link &L, uint32_t Spid)
{
    if (L.Told.erase(Spid) == 0 || !L.bUp)
        return;
    jSendFrame(L, LinkFrame::Gone, LinkWords({Spid}));
    L.Departed.insert(Spid);
}

// A hunt for "<link>/<rest>" asks the node behind the link for <rest>
// (once, until it answers or nobody here waits for it any more), if the
// link is up (and is pOnly, if given).  The peer takes kMaxWantedPerLink
// names at a time: beyond, the hunt waits here unasked, with a line.
void Service::jSeekRemote(const std::string &Name, const Link *pOnly)
{
    std::string LinkName, Rest;
    if (!jPathBehindLink(Name, &LinkName, &Rest))
        return;
    Link *pL = jFindLink(LinkName);
    if (pL == nullptr || !pL->bUp || (pOnly != nullptr && pL != pOnly) || pL->Asked.count(Rest) != 0)
        return;
    if (pL->Asked.size() >= kMaxWantedPerLink) {
        RefusalSay(&mRefusals, "link " + LinkName, "asked enough",
                   "linxd: a hunt for " + Name + " waits here: link " + LinkName + " is asked for " +
                       std::to_string(kMaxWantedPerLink) + " names already");
        return;
    }
    pL->Asked.insert(Rest);
    jSendFrame(*pL, LinkFrame::Hunt, Rest);
}

// Nobody here waits for Name any more (no process's hunt, no peer's): the
// node it was asked of forgets it, so that the names asked of a peer are
// the ones wanted now.
void Service::jUnseek(const std::string &Name)
{
    std::string LinkName, Rest;
    if (mHunts.count(Name) != 0 || !jPathBehindLink(Name, &LinkName, &Rest))
        return;
    for (const auto &Entry : mLinks)
        if (Entry.second.Wanted.count(Name) != 0)
            return;
    Link *pL = jFindLink(LinkName);
    if (pL != nullptr && pL->Asked.erase(Rest) != 0 && pL->bUp)
        jSendFrame(*pL, LinkFrame::Unhunt, Rest);
}

bool Service::jPeerHunt(Link &L, const std::string &Name, std::string *pWhy)
{
    auto Named = mNames.find(Name);
    if (Named != mNames.end()) {
        std::string Why; // the oldest of the name, as for local hunts
        if (!jAnnounce(L, Named->second.front(), &Why))
            RefusalSay(&mRefusals, "link " + L.Name, Why,
                       "linxd: did not answer link " + L.Name + "'s hunt for " + Name + ": " + Why);
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

// Tells the peer how much of what it sent left here, by destination, in
// steps of a quarter window: it may send that much more to each.  The
// credits of one owner's endpoints go out together once they come to a
// quarter window between them, so that its shared window never stays
// shut for what was passed on unsaid.  A sender is stopped only with a
// whole window on its way, so what is held back here never keeps it
// waiting, and a few pings cost no credit frames.
void Service::jSendCredits(Link &L)
{
    std::map<uint32_t, uint64_t> ByOwner;
    for (const auto &Credit : L.Credits)
        if (const Socket *pS = jFindSocket(Credit.first))
            ByOwner[pS->Owner] += Credit.second;
    for (auto It = L.Credits.begin(); It != L.Credits.end();) {
        const Socket *pS = jFindSocket(It->first);
        if (It->second < kLinkCreditStep && (pS == nullptr || ByOwner[pS->Owner] < kLinkCreditStep)) {
            ++It;
            continue;
        }
        jSendFrame(L, LinkFrame::Credit, LinkWords({It->first, (uint32_t)It->second}));
        It = L.Credits.erase(It);
    }
}

// Sends what the loop queued on every link, once per turn, with the
// closes that are due and the credits; a link that drains below its
// high-water mark reads its phantoms again (a few rounds in one turn, so
// that a fast link is kept busy without keeping the loop).
void Service::jFlushLinks()
{
    for (auto &Entry : mLinks) {
        Link &L = Entry.second;
        if (L.Conn.Fd < 0 || !L.Broken.empty())
            continue;
        if (L.bUp) {
            jSendGonesDue(L);
            jSendCredits(L);
        }
        std::string Why;
        for (int Round = 0; Round < 4; Round++) {
            if (!LinkFlush(&L.Conn, &Why) || LinkOutBytes(L.Conn) > kMaxLinkOutBytes) {
                L.Broken = Why.empty() ? "the peer left " + std::to_string(kMaxLinkOutBytes >> 20) + " MiB unread" : Why;
                break;
            }
            if (!L.bThrottled || LinkOutBytes(L.Conn) > kLinkOutHighBytes)
                break;
            L.bThrottled = false;
            jResumePhantoms(L);
        }
        if (L.Broken.empty())
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
