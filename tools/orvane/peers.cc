// SPDX-License-Identifier: Apache-2.0
// The LINX-level subcommands: list, hunt, watch and stat.  They speak
// linx_ directly through one socket of their own, named "orvane", which
// they leave out of what they show; names are LINX names as given.  LINX
// lets several sockets hold one name (a hunt finds one of them): list
// marks such names and watch follows every socket of a name.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "cli.h"
#include "linx.h"

namespace cli {
namespace {

using nlohmann::json;

constexpr LINX_SIGSELECT kAppeared = 0x4F525601; // a hunt answered
constexpr LINX_SIGSELECT kDied = 0x4F525602;     // an attach fired

struct LinxCloser {
    void operator()(LINX *pLinx) const { linx_close(pLinx); }
};
using LinxSocket = std::unique_ptr<LINX, LinxCloser>;

LinxSocket jOpenLinx()
{
    LINX *pLinx = linx_open("orvane", 0, nullptr);
    if (pLinx == nullptr)
        throw Failure("cannot open a LINX socket: " + WhyLinxFailed(errno));
    return LinxSocket(pLinx);
}

std::string jProcessName(pid_t Pid)
{
    std::ifstream Comm("/proc/" + std::to_string(Pid) + "/comm");
    std::string Name;
    return std::getline(Comm, Name) ? Name : "?";
}

struct Endpoint {
    LINX_SPID Spid;
    std::string Name;
    pid_t Pid;
    std::string Process;
    uint64_t Queued;
};

// The SPID of every endpoint but our own.
std::vector<LINX_SPID> jSpids(LINX *pLinx)
{
    std::vector<LINX_SPID> Spids(256);
    int Count;
    while ((Count = linx_get_spids(pLinx, Spids.data(), (int)Spids.size())) == (int)Spids.size())
        Spids.resize(Spids.size() * 2);
    if (Count < 0)
        throw Failure(std::string("cannot list the endpoints: ") + strerror(errno));
    Spids.resize((size_t)Count);
    Spids.erase(std::remove(Spids.begin(), Spids.end(), linx_get_spid(pLinx)), Spids.end());
    return Spids;
}

// What an endpoint is; false when it closed while it was asked about.
bool jDescribe(LINX *pLinx, LINX_SPID Spid, Endpoint *pE)
{
    char *pName = nullptr;
    struct linx_info_stat *pStat = nullptr;
    const bool bOpen = linx_get_name(pLinx, Spid, &pName) == 0 && linx_get_stat(pLinx, Spid, &pStat) == 0;
    if (bOpen)
        *pE = {Spid, pName, (pid_t)pStat->owner_pid, jProcessName((pid_t)pStat->owner_pid), pStat->queued_signals};
    linx_free_name(pLinx, &pName);
    linx_free_stat(pLinx, &pStat);
    return bOpen;
}

std::vector<Endpoint> jEndpoints(LINX *pLinx)
{
    std::vector<Endpoint> Found;
    for (const LINX_SPID Spid : jSpids(pLinx)) {
        Endpoint E;
        if (jDescribe(pLinx, Spid, &E))
            Found.push_back(E);
    }
    return Found;
}

void jPrintTable(const std::vector<std::vector<std::string>> &Rows)
{
    std::vector<size_t> Widths(Rows.empty() ? 0 : Rows[0].size(), 0); // every row has the header's columns
    for (const auto &Row : Rows)
        for (size_t c = 0; c < Row.size(); c++)
            Widths[c] = std::max(Widths[c], Row[c].size());
    for (const auto &Row : Rows) {
        std::string Line;
        for (size_t c = 0; c < Row.size(); c++)
            Line += c + 1 < Row.size() ? Row[c] + std::string(Widths[c] - Row[c].size() + 2, ' ') : Row[c];
        printf("%s\n", Line.c_str());
    }
}

// How many of the endpoints hold each name.
std::map<std::string, int> jNameCounts(const std::vector<Endpoint> &Found)
{
    std::map<std::string, int> Counts;
    for (const Endpoint &E : Found)
        Counts[E.Name]++;
    return Counts;
}

void jList(bool bJson)
{
    RequireRunningInstance();
    LinxSocket Linx = jOpenLinx();
    const std::vector<Endpoint> Found = jEndpoints(Linx.get());
    std::map<std::string, int> Counts = jNameCounts(Found);
    if (bJson) {
        json Out = json::array();
        for (const Endpoint &E : Found)
            Out.push_back({{"spid", Hex(E.Spid)}, {"name", E.Name}, {"pid", E.Pid}, {"process", E.Process},
                           {"queued", E.Queued}, {"shared", Counts[E.Name] > 1}});
        printf("%s\n", Out.dump(2).c_str());
        return;
    }
    std::vector<std::vector<std::string>> Rows = {{"SPID", "NAME", "PID", "PROCESS", "QUEUED"}};
    bool bShared = false;
    for (const Endpoint &E : Found) {
        const bool bThisShared = Counts[E.Name] > 1;
        bShared |= bThisShared;
        Rows.push_back({Hex(E.Spid), E.Name + (bThisShared ? " *" : ""), std::to_string(E.Pid), E.Process,
                        std::to_string(E.Queued)});
    }
    jPrintTable(Rows);
    if (bShared)
        printf("* more than one socket holds this name: a hunt finds one of them\n");
}

// Sends a hunt for Name whose answer carries Index.
void jHunt(LINX *pLinx, const std::string &Name, uint32_t Index)
{
    union LINX_SIGNAL *pSig = linx_alloc(pLinx, 8, kAppeared);
    if (pSig != nullptr)
        memcpy((char *)pSig + 4, &Index, 4);
    if (pSig == nullptr || linx_hunt(pLinx, Name.c_str(), &pSig) != 0)
        throw Failure("cannot hunt for \"" + Name + "\": " + strerror(errno));
}

// A hunt or attach of this command come back: which peer, and who sent it.
struct Answer {
    bool bAppeared;
    uint32_t Index;
    LINX_SPID Sender;
};

// Takes a signal of ours apart; another process may send a signal of the
// same number to our socket, and that is refused with a line, not believed.
bool jTakeAnswer(LINX *pLinx, union LINX_SIGNAL **ppSig, uint32_t IndexCount, Answer *pAnswer)
{
    const LINX_OSBUFSIZE Size = linx_sigsize(pLinx, ppSig);
    pAnswer->bAppeared = *(const LINX_SIGSELECT *)*ppSig == kAppeared;
    pAnswer->Sender = linx_sender(pLinx, ppSig);
    pAnswer->Index = IndexCount;
    if (Size == 8)
        memcpy(&pAnswer->Index, (const char *)*ppSig + 4, 4);
    const bool bOurs = pAnswer->Index < IndexCount;
    if (!bOurs)
        fprintf(stderr, "orvane: refused signal 0x%x of %u bytes from %s: not an answer to this command's %s\n",
                *(const LINX_SIGSELECT *)*ppSig, Size, Hex(pAnswer->Sender).c_str(),
                pAnswer->bAppeared ? "hunts" : "attaches");
    linx_free_buf(pLinx, ppSig);
    return bOurs;
}

// The next answer, waiting at most TimeoutMs (-1: without limit) in
// slices, so that a stop signal ends the wait; false on timeout or stop.
bool jNextAnswer(LINX *pLinx, const LINX_SIGSELECT *pSel, int TimeoutMs, uint32_t IndexCount, Answer *pAnswer)
{
    return WaitInSlices(TimeoutMs, [&](int SliceMs) {
        union LINX_SIGNAL *pSig = nullptr;
        if (linx_receive_w_tmo(pLinx, &pSig, SliceMs, pSel) < 0)
            throw Failure(std::string("cannot receive: ") + strerror(errno));
        return pSig != nullptr && jTakeAnswer(pLinx, &pSig, IndexCount, pAnswer);
    });
}

struct HuntArgs {
    std::string Name;
    std::string Timeout = "5s";
    bool bJson = false;
};

void jHuntCommand(const HuntArgs &Args)
{
    const std::string &Name = Args.Name;
    const int TimeoutMs = ParseDurationMs(Args.Timeout);
    CatchStopSignals();
    LinxSocket Linx = jOpenLinx();
    jHunt(Linx.get(), Name, 0);
    const LINX_SIGSELECT Sel[] = {1, kAppeared};
    Answer Found;
    if (!jNextAnswer(Linx.get(), Sel, TimeoutMs, 1, &Found))
        throw Failure(StopRequested() ? "interrupted before \"" + Name + "\" appeared"
                                      : "no endpoint named \"" + Name + "\" appeared within " + Args.Timeout +
                                            " (`orvane list` shows the names in use; --timeout forever waits without "
                                            "limit)");
    const LINX_SPID Spid = Found.Sender;
    if (Args.bJson)
        printf("%s\n", json({{"name", Name}, {"spid", Hex(Spid)}, {"pid", linx_get_owner(Linx.get(), Spid)}}).dump().c_str());
    else
        printf("%s\n", Hex(Spid).c_str());
}

struct Watched {
    std::string Name;
    LINX_SPID Spid = 0;
    pid_t Pid = 0;
};

// Whether the process runs and is not on its way out: an endpoint whose
// process still runs was closed, else its process ended (a clean exit and
// a kill look the same to LINX).  The kernel marks an exiting task
// (PF_EXITING, in the flags of /proc/PID/stat) before it closes its files.
bool jProcessRuns(pid_t Pid)
{
    std::ifstream Stat("/proc/" + std::to_string(Pid) + "/stat");
    std::string Line;
    if (!std::getline(Stat, Line) || Line.rfind(')') == std::string::npos)
        return false;
    std::istringstream Fields(Line.substr(Line.rfind(')') + 2));
    std::string State, Skip;
    unsigned long Flags = 0;
    Fields >> State;
    for (int i = 0; i < 5; i++)
        Fields >> Skip;
    Fields >> Flags;
    constexpr unsigned long kExiting = 0x4;
    return State != "Z" && State != "X" && (Flags & kExiting) == 0;
}

struct WatchArgs {
    std::vector<std::string> Names;
    long MaxEvents = 0;
    bool bJson = false;
};

// What watch follows: every socket of the watched names it has seen.  A
// scan asks only about SPIDs it has not seen before, so that a watch costs
// linxd one listing a second on a busy system.
struct Follower {
    const WatchArgs &Args;
    LINX *pLinx;
    std::map<LINX_SPID, Watched> Live;
    std::set<LINX_SPID> Seen;
    long Events = 0;

    bool Done() const { return Args.MaxEvents != 0 && Events >= Args.MaxEvents; }

    void Report(const char *pEvent, const Watched &W)
    {
        if (Done())
            return;
        Events++;
        if (Args.bJson)
            printf("%s\n", json({{"time", TimeStamp()}, {"event", pEvent}, {"name", W.Name}, {"spid", Hex(W.Spid)},
                                 {"pid", W.Pid}})
                               .dump()
                               .c_str());
        else
            printf("%s  %-8s  %s  %s  pid %d\n", TimeStamp().c_str(), pEvent, W.Name.c_str(), Hex(W.Spid).c_str(),
                   (int)W.Pid);
        fflush(stdout);
    }

    // Reports and attaches to every socket of a watched name not seen yet;
    // its end comes back as a signal from it.
    void Scan()
    {
        const std::vector<LINX_SPID> Spids = jSpids(pLinx);
        std::set<LINX_SPID> Listed(Spids.begin(), Spids.end());
        for (auto It = Seen.begin(); It != Seen.end();) // forget the closed
            It = Listed.count(*It) != 0 ? std::next(It) : Seen.erase(It);
        for (const LINX_SPID Spid : Spids) {
            Endpoint E;
            if (!Seen.insert(Spid).second || !jDescribe(pLinx, Spid, &E))
                continue;
            const auto Named = std::find(Args.Names.begin(), Args.Names.end(), E.Name);
            if (Named == Args.Names.end())
                continue;
            union LINX_SIGNAL *pSig = linx_alloc(pLinx, 8, kDied);
            const uint32_t Index = (uint32_t)(Named - Args.Names.begin());
            if (pSig != nullptr)
                memcpy((char *)pSig + 4, &Index, 4);
            if (pSig == nullptr || linx_attach(pLinx, &pSig, E.Spid) == 0)
                continue; // gone already
            Live[E.Spid] = {E.Name, E.Spid, E.Pid};
            Report("appeared", Live[E.Spid]);
        }
    }

    void Ended(const Answer &A)
    {
        const auto Found = Live.find(A.Sender);
        if (Found == Live.end())
            return;
        Report(jProcessRuns(Found->second.Pid) ? "closed" : "ended", Found->second);
        Live.erase(Found);
        jHunt(pLinx, Args.Names[A.Index], A.Index); // for its next appearance
    }
};

// Hunts announce a name's first socket at once; a scan every second finds
// the others that share a name.
void jWatchCommand(const WatchArgs &Args)
{
    CatchStopSignals();
    LinxSocket Linx = jOpenLinx();
    Follower W{Args, Linx.get(), {}, {}, 0};
    for (uint32_t i = 0; i < Args.Names.size(); i++)
        jHunt(W.pLinx, Args.Names[i], i);
    const LINX_SIGSELECT Sel[] = {2, kAppeared, kDied};
    constexpr int kScanMs = 1000;
    while (!W.Done() && !StopRequested()) {
        Answer A;
        if (!jNextAnswer(W.pLinx, Sel, kScanMs, (uint32_t)Args.Names.size(), &A))
            W.Scan();
        else if (A.bAppeared)
            W.Scan();
        else
            W.Ended(A);
    }
}

void jStat(bool bJson)
{
    RequireRunningInstance();
    LinxSocket Linx = jOpenLinx();
    struct linx_info_summary S = {};
    if (linx_get_summary(Linx.get(), &S) != 0)
        throw Failure(std::string("cannot read the statistics: ") + strerror(errno));
    S.sockets -= S.sockets > 0; // leave out this command's own socket
    const std::vector<std::pair<const char *, uint32_t>> Fields = {
        {"sockets", S.sockets},   {"queued_signals", S.queued_signals}, {"hunts", S.hunts},
        {"attaches", S.attaches}, {"timeouts", S.timeouts},             {"new_link_requests", S.new_link_requests}};
    if (bJson) {
        json Out = json::object();
        for (const auto &F : Fields)
            Out[F.first] = F.second;
        printf("%s\n", Out.dump(2).c_str());
        return;
    }
    std::vector<std::vector<std::string>> Rows;
    for (const auto &F : Fields) {
        std::string Label = F.first;
        std::replace(Label.begin(), Label.end(), '_', ' ');
        Rows.push_back({Label, std::to_string(F.second)});
    }
    jPrintTable(Rows);
}

} // namespace

void AddPeerCommands(CLI::App &App)
{
    auto Json = std::make_shared<bool>(false);
    auto *pList = App.add_subcommand("list", "Every LINX endpoint: name, SPID, owning process, queued signals");
    pList->add_flag("--json", *Json,
                    "One JSON array, an object per endpoint: spid (hex), name, pid, process, queued, shared (more "
                    "than one socket holds the name)");
    pList->callback([Json] { jList(*Json); });

    auto Hunt = std::make_shared<HuntArgs>();
    auto *pHunt = App.add_subcommand("hunt", "Wait for an endpoint of NAME and print its SPID");
    pHunt->add_option("NAME", Hunt->Name, "The LINX name")->required();
    pHunt->add_option("--timeout", Hunt->Timeout, "How long to wait: 500ms, 2s ... or forever")
        ->capture_default_str()
        ->check(Duration(true));
    pHunt->add_flag("--json", Hunt->bJson, "Print one JSON object: name, spid (hex), pid");
    pHunt->callback([Hunt] { jHuntCommand(*Hunt); });

    auto Watch = std::make_shared<WatchArgs>();
    auto *pWatch = App.add_subcommand("watch", "Print each appearance and end of every socket of the named endpoints until interrupted");
    pWatch->add_option("NAME", Watch->Names, "LINX names")->required();
    pWatch->add_option("--count", Watch->MaxEvents, "Stop after this many events (0: at SIGINT or SIGTERM)")
        ->check(Count(0));
    pWatch->add_flag("--json", Watch->bJson,
                     "JSON Lines: one object per event: time, event (appeared, closed: its process still runs, "
                     "ended: its process ended), name, spid (hex), pid");
    pWatch->callback([Watch] { jWatchCommand(*Watch); });

    auto StatJson = std::make_shared<bool>(false);
    auto *pStat = App.add_subcommand("stat", "Totals of the LINX module or linxd instance: sockets, queued signals, "
                                             "pending hunts, attaches, timeouts and new-link requests");
    pStat->add_flag("--json", *StatJson,
                    "One JSON object: sockets, queued_signals, hunts, attaches, timeouts, new_link_requests");
    pStat->callback([StatJson] { jStat(*StatJson); });
}

} // namespace cli
