// SPDX-License-Identifier: Apache-2.0
// The LINX-level subcommands: list, hunt, watch and stat.  They speak
// linx_ directly through one socket of their own, named "orvane", which
// they leave out of what they show; names are LINX names as given.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>

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
    if (pLinx == nullptr) {
        const char *pInstance = getenv("LINXD_INSTANCE");
        throw Failure(std::string("cannot open a LINX socket: ") + strerror(errno) +
                      " (without the LINX kernel module, linxd must be installed beside liborvane or on PATH; "
                      "instance \"" + (pInstance != nullptr && *pInstance ? pInstance : "default") + "\")");
    }
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

// Every endpoint but our own; one that closes while it is asked about is
// left out.
std::vector<Endpoint> jEndpoints(LINX *pLinx)
{
    std::vector<LINX_SPID> Spids(256);
    int Count;
    while ((Count = linx_get_spids(pLinx, Spids.data(), (int)Spids.size())) == (int)Spids.size())
        Spids.resize(Spids.size() * 2);
    if (Count < 0)
        throw Failure(std::string("cannot list the endpoints: ") + strerror(errno));
    std::vector<Endpoint> Found;
    for (int i = 0; i < Count; i++) {
        if (Spids[i] == linx_get_spid(pLinx))
            continue;
        char *pName = nullptr;
        struct linx_info_stat *pStat = nullptr;
        if (linx_get_name(pLinx, Spids[i], &pName) == 0 && linx_get_stat(pLinx, Spids[i], &pStat) == 0) {
            const pid_t Pid = (pid_t)pStat->owner_pid;
            Found.push_back({Spids[i], pName, Pid, jProcessName(Pid), pStat->queued_signals});
        }
        linx_free_name(pLinx, &pName);
        linx_free_stat(pLinx, &pStat);
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

void jList(bool bJson)
{
    LinxSocket Linx = jOpenLinx();
    const std::vector<Endpoint> Found = jEndpoints(Linx.get());
    if (bJson) {
        json Out = json::array();
        for (const Endpoint &E : Found)
            Out.push_back({{"spid", E.Spid}, {"name", E.Name}, {"pid", E.Pid}, {"process", E.Process},
                           {"queued", E.Queued}});
        printf("%s\n", Out.dump(2).c_str());
        return;
    }
    std::vector<std::vector<std::string>> Rows = {{"SPID", "NAME", "PID", "PROCESS", "QUEUED"}};
    for (const Endpoint &E : Found)
        Rows.push_back({Hex(E.Spid), E.Name, std::to_string(E.Pid), E.Process, std::to_string(E.Queued)});
    jPrintTable(Rows);
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
    int TimeoutMs = 5000;
    bool bJson = false;
};

void jHuntCommand(const HuntArgs &Args)
{
    const std::string &Name = Args.Name;
    const int TimeoutMs = Args.TimeoutMs;
    CatchStopSignals();
    LinxSocket Linx = jOpenLinx();
    jHunt(Linx.get(), Name, 0);
    const LINX_SIGSELECT Sel[] = {1, kAppeared};
    Answer Found;
    if (!jNextAnswer(Linx.get(), Sel, TimeoutMs, 1, &Found))
        throw Failure(StopRequested() ? "interrupted before \"" + Name + "\" appeared"
                                      : "no endpoint named \"" + Name + "\" appeared within " +
                                            std::to_string(TimeoutMs) +
                                            " ms (`orvane list` shows the names in use; --timeout -1 waits without limit)");
    const LINX_SPID Spid = Found.Sender;
    if (Args.bJson)
        printf("%s\n", json({{"name", Name}, {"spid", Spid}, {"pid", linx_get_owner(Linx.get(), Spid)}}).dump().c_str());
    else
        printf("%s\n", Hex(Spid).c_str());
}

struct Watched {
    std::string Name;
    LINX_SPID Spid = 0;
    pid_t Pid = 0;
};

void jReport(const char *pEvent, const Watched &W, bool bJson)
{
    if (bJson)
        printf("%s\n", json({{"time", TimeStamp()}, {"event", pEvent}, {"name", W.Name}, {"spid", W.Spid}, {"pid", W.Pid}})
                           .dump()
                           .c_str());
    else
        printf("%s  %-8s  %s  %s  pid %d\n", TimeStamp().c_str(), pEvent, W.Name.c_str(), Hex(W.Spid).c_str(),
               (int)W.Pid);
    fflush(stdout);
}

// One peer's appearance: report it and attach, so that its death comes
// back as a signal carrying the same index.
void jAppeared(LINX *pLinx, Watched &W, LINX_SPID Spid, uint32_t Index, bool bJson)
{
    W.Spid = Spid;
    W.Pid = linx_get_owner(pLinx, Spid);
    jReport("appeared", W, bJson);
    union LINX_SIGNAL *pSig = linx_alloc(pLinx, 8, kDied);
    if (pSig != nullptr)
        memcpy((char *)pSig + 4, &Index, 4);
    if (pSig == nullptr || linx_attach(pLinx, &pSig, Spid) == 0)
        throw Failure("cannot watch \"" + W.Name + "\": " + strerror(errno));
}

struct WatchArgs {
    std::vector<std::string> Names;
    long MaxEvents = 0;
    bool bJson = false;
};

void jWatchCommand(const WatchArgs &Args)
{
    const std::vector<std::string> &Names = Args.Names;
    const bool bJson = Args.bJson;
    CatchStopSignals();
    LinxSocket Linx = jOpenLinx();
    std::vector<Watched> Peers(Names.size());
    for (uint32_t i = 0; i < Names.size(); i++) {
        Peers[i].Name = Names[i];
        jHunt(Linx.get(), Names[i], i);
    }
    const LINX_SIGSELECT Sel[] = {2, kAppeared, kDied};
    for (long Events = 0; Args.MaxEvents == 0 || Events < Args.MaxEvents; Events++) {
        Answer A;
        if (!jNextAnswer(Linx.get(), Sel, -1, (uint32_t)Peers.size(), &A))
            return; // stopped
        if (A.bAppeared) {
            jAppeared(Linx.get(), Peers[A.Index], A.Sender, A.Index, bJson);
        } else {
            jReport("died", Peers[A.Index], bJson);
            jHunt(Linx.get(), Peers[A.Index].Name, A.Index); // for its next appearance
        }
    }
}

void jStat(bool bJson)
{
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
    pList->add_flag("--json", *Json, "One JSON array, an object per endpoint: spid, name, pid, process, queued");
    pList->callback([Json] { jList(*Json); });

    auto Hunt = std::make_shared<HuntArgs>();
    auto *pHunt = App.add_subcommand("hunt", "Wait for an endpoint of NAME and print its SPID");
    pHunt->add_option("NAME", Hunt->Name, "The LINX name")->required();
    pHunt->add_option("--timeout", Hunt->TimeoutMs, "Milliseconds to wait; -1 waits without limit")
        ->capture_default_str()
        ->check(CLI::Range(-1, 1 << 30));
    pHunt->add_flag("--json", Hunt->bJson, "Print one JSON object: name, spid, pid");
    pHunt->callback([Hunt] { jHuntCommand(*Hunt); });

    auto Watch = std::make_shared<WatchArgs>();
    auto *pWatch = App.add_subcommand("watch", "Print each appearance and death of the named endpoints until interrupted");
    pWatch->add_option("NAME", Watch->Names, "LINX names")->required();
    pWatch->add_option("--count", Watch->MaxEvents, "Stop after this many events (0: at SIGINT or SIGTERM)")
        ->check(CLI::NonNegativeNumber);
    pWatch->add_flag("--json", Watch->bJson, "One JSON object per line: time, event, name, spid, pid");
    pWatch->callback([Watch] { jWatchCommand(*Watch); });

    auto StatJson = std::make_shared<bool>(false);
    auto *pStat = App.add_subcommand("stat", "Totals of the LINX module or linxd instance: sockets, queued signals, "
                                             "pending hunts, attaches, timeouts and new-link requests");
    pStat->add_flag("--json", *StatJson, "One JSON object");
    pStat->callback([StatJson] { jStat(*StatJson); });
}

} // namespace cli
