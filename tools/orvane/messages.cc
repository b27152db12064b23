// SPDX-License-Identifier: Apache-2.0
// The message-level subcommands: send and subscribe.  They speak MSG_
// through a public endpoint of their own, "orvane.<pid>", so that peers
// are found by name through the endpoint configuration as the library's
// programs find them, and answers come back along the sender stack.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include <nlohmann/json.hpp>

#include "cli.h"
#include "orvane.h"

namespace cli {
namespace {

using nlohmann::json;

// The largest payload: LINX carries at most 256 KiB, the header included.
constexpr int32_t kMostPayloadBytes = 256 * 1024 - 56;

// The command's own public endpoint, closed when the command ends.
class OwnEndpoint {
public:
    OwnEndpoint() : mName("orvane." + std::to_string(getpid()))
    {
        const MSG_Status Status = MSG_OpenLocal(mName.c_str());
        if (Status != MSG_OK)
            throw Failure("cannot open the endpoint \"" + mName + "\": " + MSG_DebugStrError(Status) + ": " +
                          WhyLinxFailed(0));
    }
    ~OwnEndpoint() { MSG_CloseLocal(mName.c_str()); }
    const char *Name() const { return mName.c_str(); }

    // The peer's SPID once it exists, waiting at most Timeout.
    uint32_t Find(const std::string &Peer, const std::string &Timeout) const
    {
        uint32_t Spid = 0;
        const MSG_Status Status = MSG_OpenRemoteSync(Name(), Peer.c_str(), ParseDurationMs(Timeout), &Spid);
        if (Status == MSG_OK)
            return Spid;
        if (Status == MSG_ERR_OPEN_REMOTE_TIMEOUT)
            throw Failure("no endpoint named \"" + Peer + "\" appeared within " + Timeout +
                          " (`orvane list` shows the names in use; --timeout forever waits without limit)");
        throw Failure("cannot look for \"" + Peer + "\": " + MSG_DebugStrError(Status));
    }

    // The next user message, waiting at most TimeoutMs (-1: without
    // limit) in slices, so that a stop signal ends the wait.
    MSG_Msg *Receive(int TimeoutMs) const
    {
        MSG_Msg *pMsg = nullptr;
        WaitInSlices(TimeoutMs, [&](int SliceMs) { return (pMsg = MSG_RecvAnyMsg(Name(), SliceMs)) != nullptr; });
        return pMsg;
    }

private:
    std::string mName;
};

struct MsgReleaser {
    void operator()(MSG_Msg *pMsg) const { MSG_ReleaseMsg(pMsg); }
};
using Message = std::unique_ptr<MSG_Msg, MsgReleaser>;

json jMessageJson(const MSG_Msg *pMsg)
{
    const int32_t Bytes = MSG_GetPayloadBytes(pMsg);
    return {{"type", Hex(MSG_GetType(pMsg))},
            {"sequence", MSG_GetSequence(pMsg)},
            {"stack_size", MSG_GetSendStackSize(pMsg)},
            {"sender", Hex(MSG_GetSender(pMsg))},
            {"origin", Hex(MSG_GetOrigSender(pMsg))},
            {"bytes", Bytes},
            {"payload", HexDigits((const uint8_t *)MSG_GetPayload(pMsg), (size_t)std::max(Bytes, 0))}};
}

void jPrintMessage(const char *pWhat, const MSG_Msg *pMsg, bool bJson)
{
    if (bJson) {
        json Out = jMessageJson(pMsg);
        Out["time"] = TimeStamp();
        printf("%s\n", Out.dump().c_str());
    } else {
        const int32_t Bytes = std::max(MSG_GetPayloadBytes(pMsg), 0);
        const std::string From = MSG_GetSendStackSize(pMsg) > 0 ? ", from " + Hex(MSG_GetSender(pMsg)) : "";
        printf("%s  %s type %s sequence %u%s, %d bytes\n%s", TimeStamp().c_str(), pWhat,
               Hex(MSG_GetType(pMsg)).c_str(), MSG_GetSequence(pMsg), From.c_str(), Bytes,
               HexDump((const uint8_t *)MSG_GetPayload(pMsg), (size_t)Bytes, "  ").c_str());
    }
    fflush(stdout);
}

struct SendArgs {
    std::string Peer;
    std::string Type;
    std::string PayloadHex;
    std::string File;
    std::string Sequence = "0";
    std::string WaitResponse; // empty: no response is awaited
    std::string Timeout = "5s";
    bool bJson = false;
};

std::vector<uint8_t> jPayload(const SendArgs &Args)
{
    if (!Args.File.empty()) {
        const std::string Bytes = ReadFile(Args.File);
        return std::vector<uint8_t>(Bytes.begin(), Bytes.end());
    }
    return ParseHexPayload(Args.PayloadHex);
}

void jSend(const SendArgs &Args)
{
    CatchStopSignals();
    const std::vector<uint8_t> Payload = jPayload(Args);
    if (Payload.size() > (size_t)kMostPayloadBytes)
        throw Failure("a payload of " + std::to_string(Payload.size()) + " bytes is larger than a message carries (" +
                      std::to_string(kMostPayloadBytes) + ")");
    OwnEndpoint Own;
    const uint32_t Peer = Own.Find(Args.Peer, Args.Timeout);
    Message Msg(MSG_AllocMsg(ParseNumber(Args.Type), ParseNumber(Args.Sequence), (int32_t)Payload.size()));
    if (!Msg)
        throw Failure("cannot allocate a message of " + std::to_string(Payload.size()) + " bytes");
    if (!Payload.empty())
        memcpy(MSG_GetPayloadMutable(Msg.get()), Payload.data(), Payload.size());
    const MSG_Status Status = MSG_SendMsg(Own.Name(), Peer, Msg.get());
    const bool bStillOurs = Status == MSG_ERR_WRONG_PARAMETER || Status == MSG_ERR_NOT_OPEN ||
                            Status == MSG_ERR_LOCAL_NOT_FOUND || Status == MSG_ERR_MSG_CORRUPT ||
                            Status == MSG_ERR_OWNER_MISMATCH;
    if (!bStillOurs)
        Msg.release(); // the library has it now
    if (Status != MSG_OK)
        throw Failure("cannot send to \"" + Args.Peer + "\": " + MSG_DebugStrError(Status));
    if (!Args.bJson)
        printf("sent type %s sequence %u, %zu bytes, to %s (%s)\n", Hex(ParseNumber(Args.Type)).c_str(),
               ParseNumber(Args.Sequence), Payload.size(), Args.Peer.c_str(), Hex(Peer).c_str());
    const json Sent = {{"to", Hex(Peer)}, {"type", Hex(ParseNumber(Args.Type))}, {"bytes", Payload.size()}};
    if (Args.WaitResponse.empty()) {
        if (Args.bJson)
            printf("%s\n", json({{"sent", Sent}, {"response", nullptr}}).dump().c_str());
        return;
    }
    Message Response(Own.Receive(ParseDurationMs(Args.WaitResponse)));
    if (!Response)
        throw Failure(StopRequested() ? std::string("interrupted before a response arrived")
                                      : "no response from \"" + Args.Peer + "\" within " + Args.WaitResponse);
    if (Args.bJson)
        printf("%s\n", json({{"sent", Sent}, {"response", jMessageJson(Response.get())}}).dump().c_str());
    else
        jPrintMessage("response", Response.get(), false);
}

struct SubscribeArgs {
    std::string Peer;
    std::string First;
    std::string Last;
    long MaxNotifications = 0;
    std::string Timeout = "5s";
    bool bJson = false;
};

uint32_t jPublisherGone(void *pContext, MSG_Msg *)
{
    *(bool *)pContext = true;
    return 0;
}

void jSubscribe(const SubscribeArgs &Args)
{
    const uint32_t First = ParseNumber(Args.First), Last = ParseNumber(Args.Last);
    if (First > Last)
        throw CLI::ValidationError("FIRST LAST", "the range " + Args.First + ".." + Args.Last + " is empty: FIRST must not exceed LAST");
    CatchStopSignals();
    OwnEndpoint Own;
    const uint32_t Peer = Own.Find(Args.Peer, Args.Timeout);
    bool bGone = false;
    MSG_Status Status = MSG_RegisterCloseCallback(Own.Name(), Args.Peer.c_str(), Peer, jPublisherGone, &bGone, 1);
    if (Status == MSG_OK)
        Status = MSG_RegisterNotificationRemote(Own.Name(), First, Last, Peer);
    if (Status != MSG_OK)
        throw Failure("cannot subscribe to \"" + Args.Peer + "\": " + MSG_DebugStrError(Status));
    if (!Args.bJson) {
        printf("subscribed to types %s..%s of %s (%s)\n", Hex(First).c_str(), Hex(Last).c_str(), Args.Peer.c_str(),
               Hex(Peer).c_str());
        fflush(stdout);
    }
    for (long Count = 0; Args.MaxNotifications == 0 || Count < Args.MaxNotifications;) {
        Message Msg(Own.Receive(kSliceMs));
        if (bGone) { // the publisher's end is the end of its notifications: done
            fprintf(stderr, "orvane: \"%s\" went away (%s)\n", Args.Peer.c_str(), Hex(Peer).c_str());
            return;
        }
        if (StopRequested())
            break;
        if (Msg) {
            jPrintMessage("notification", Msg.get(), Args.bJson);
            Count++;
        }
    }
    MSG_UnregisterNotificationRemote(Own.Name(), First, Last, Peer);
}

} // namespace

void AddMessageCommands(CLI::App &App)
{
    auto Send = std::make_shared<SendArgs>();
    auto *pSend = App.add_subcommand("send", "Send one message to the endpoint NAME, and print the response");
    pSend->add_option("NAME", Send->Peer, "The endpoint's name (resolved through the endpoint configuration)")
        ->required();
    pSend->add_option("TYPE", Send->Type, "The message type, 0 to 0xffffff")->required()->check(UserType());
    auto *pHex = pSend->add_option("--payload", Send->PayloadHex, "The payload as hex digits, e.g. 01ab or 01:ab")
                     ->check(HexPayload());
    pSend->add_option("--file", Send->File, "The payload: the bytes of this file")->excludes(pHex);
    pSend->add_option("--sequence", Send->Sequence, "The message's sequence number")
        ->capture_default_str()
        ->check(NumberUpTo(0xFFFFFFFF, "a sequence number", "N"));
    pSend->add_option("--wait-response", Send->WaitResponse,
                      "Wait this long for a response (500ms, 2s ... or forever) and print it decoded")
        ->check(Duration(true));
    pSend->add_option("--timeout", Send->Timeout, "How long to wait for NAME to appear: 500ms, 2s ... or forever")
        ->capture_default_str()
        ->check(Duration(true));
    pSend->add_flag("--json", Send->bJson,
                    "Print one JSON object: sent {to, type, bytes}, response {type, sequence, stack_size, sender, "
                    "origin, bytes, payload} or null when none was awaited; SPIDs and types in hex, payload as hex "
                    "digits");
    pSend->callback([Send] { jSend(*Send); });

    auto Subscribe = std::make_shared<SubscribeArgs>();
    auto *pSubscribe = App.add_subcommand(
        "subscribe", "Subscribe to the types FIRST..LAST that NAME publishes and print every notification");
    pSubscribe->add_option("NAME", Subscribe->Peer, "The publishing endpoint's name")->required();
    pSubscribe->add_option("FIRST", Subscribe->First, "The first message type")->required()->check(UserType());
    pSubscribe->add_option("LAST", Subscribe->Last, "The last message type")->required()->check(UserType());
    pSubscribe->add_option("--count", Subscribe->MaxNotifications,
                           "Stop after this many notifications (0: when the publisher goes, or at SIGINT or SIGTERM)")
        ->check(Count(0));
    pSubscribe->add_option("--timeout", Subscribe->Timeout,
                           "How long to wait for NAME to appear: 500ms, 2s ... or forever")
        ->capture_default_str()
        ->check(Duration(true));
    pSubscribe->add_flag("--json", Subscribe->bJson,
                         "JSON Lines: one object per notification: time, type, sequence, stack_size, sender, "
                         "origin, bytes, payload; sender and origin are the newest and oldest entry of the "
                         "message's sender stack, 0x0 when it is empty (as for a response type)");
    pSubscribe->footer("Exit status 0 also when the publisher goes (the end of its notifications).");
    pSubscribe->callback([Subscribe] { jSubscribe(*Subscribe); });
}

} // namespace cli
