// SPDX-License-Identifier: Apache-2.0
// Telemetry: the queue that holds the records for the collector "Telemetry"
// while it is absent, the records two processes send to the collector
// program (with a report of what it missed) and its capture as the
// Wireshark dissector decodes it, and the endpoint dump.
#include "test_kit.h"

#include "msg_telemetry.h"
#include "msg_telemetry_lite.pb.h"

namespace {

constexpr MSG_Type kUserMsgNtfy = 0xFF0013, kNtfyRegUnregNtfy = 0xFF0023, kDropMsgNtfy = 0xFF0033,
                   kLocalOpenNtfy = 0xFF0043;
constexpr uint32_t kBothBits = MSG_DEBUG_TELEMETRY_SEND | MSG_DEBUG_TELEMETRY_RECV;
constexpr MSG_Type kRequest = 0x100;

// One record: its type, the routing words and time stamp of its envelope
// (zero when read from a capture, which starts at the time stamp), and the
// serialized record.
struct Record {
    MSG_Type Type = 0;
    uint32_t Words[4] = {};
    struct timespec Stamp = {};
    std::string Bytes;

    template <typename T> T As() const
    {
        T Parsed;
        EXPECT_TRUE(Parsed.ParseFromString(Bytes)) << "type 0x" << std::hex << Type;
        return Parsed;
    }
};

// The next record on this process's own "Telemetry" endpoint.
bool TakeRecord(Record *pRecord, int TimeoutMs = 5000)
{
    MSG_Msg *pMsg = MSG_RecvAnyMsg("Telemetry", TimeoutMs);
    if (pMsg == nullptr)
        return false;
    const uint8_t *pPayload = (const uint8_t *)MSG_GetPayload(pMsg);
    const int32_t Bytes = MSG_GetPayloadBytes(pMsg);
    EXPECT_GE(Bytes, 36);
    uint32_t Envelope[9];
    memcpy(Envelope, pPayload, sizeof Envelope);
    pRecord->Type = MSG_GetType(pMsg);
    memcpy(pRecord->Words, Envelope, sizeof pRecord->Words);
    pRecord->Stamp = {(time_t)Envelope[4], (long)Envelope[5] * 1000};
    EXPECT_EQ((uint32_t)Bytes - 36 + 4, Envelope[6]);
    EXPECT_EQ(Envelope[6], Envelope[7]);
    EXPECT_EQ(pRecord->Type, Envelope[8]);
    pRecord->Bytes.assign((const char *)pPayload + 36, (size_t)Bytes - 36);
    MSG_ReleaseMsg(pMsg);
    return true;
}

std::vector<Record> TakeRecords(size_t Count)
{
    std::vector<Record> Records(Count);
    for (Record &R : Records)
        if (!TakeRecord(&R))
            ADD_FAILURE() << "only " << (&R - Records.data()) << " of " << Count << " records came";
    return Records;
}

// Copies pMsg until the first record reaches this process's collector.
Record FirstRecord(uint32_t From, uint32_t To, MSG_Msg *pMsg, uint32_t bReceived)
{
    Record First;
    for (int i = 0; i < 500 && !TakeRecord(&First, 10); i++)
        MSG_ResendToGlobalTelemetry(From, To, pMsg, bReceived);
    return First;
}

MSG_Msg *NewMessage(MSG_Type Type, uint32_t Sequence, const char *pText)
{
    MSG_Msg *pMsg = MSG_AllocMsg(Type, Sequence, (int32_t)strlen(pText));
    memcpy(MSG_GetPayloadMutable(pMsg), pText, strlen(pText));
    return pMsg;
}

std::vector<std::string> NamesOf(const google::protobuf::RepeatedPtrField<hdr::Endpoint> &List)
{
    std::vector<std::string> Names;
    for (const hdr::Endpoint &E : List)
        Names.push_back(E.name());
    return Names;
}

std::vector<uint32_t> StackOf(const google::protobuf::RepeatedField<uint32_t> &Stack)
{
    return std::vector<uint32_t>(Stack.begin(), Stack.end());
}

// The copy of a message as its sender and receiver made it: 4 records for
// one request and its answer, 4 for two notification requests.
const hdr::UserMsgNtfy *FindCopy(const std::vector<hdr::UserMsgNtfy> &Copies, MSG_Type Type, bool bReceived)
{
    for (const hdr::UserMsgNtfy &C : Copies)
        if (C.msg_type() == Type && C.has_src_type() == bReceived)
            return &C;
    return nullptr;
}

// Without a collector the newest 1024 records wait and the rest are
// reported; closing the sender counts what it held as lost.
TEST(Telemetry, WithoutACollectorTheNewest1024WaitAndTheRestAreReported)
{
    ASSERT_EQ(0u, MSG_OpenLocal("alpha"));
    MSG_DebugSetFlag(MSG_DEBUG_TELEMETRY_SEND); // after the opening: no announcement
    MSG_Msg *pMsg = NewMsg(kRequest, 0, 8);
    struct timespec First, Last;
    clock_gettime(CLOCK_REALTIME, &First);
    for (uint32_t i = 1; i <= 1030; i++) {
        MSG_SetSequence(pMsg, i);
        const MSG_Status Status = MSG_ResendToGlobalTelemetry(SpidOf("alpha"), 0x1234, pMsg, 0);
        ASSERT_TRUE(Status == MSG_ERR_OPEN_REMOTE_TIMEOUT || Status == MSG_ERR_OPEN_IN_PROGRESS) << Status;
    }
    clock_gettime(CLOCK_REALTIME, &Last);
    usleep(1200 * 1000);
    ASSERT_EQ(0u, MSG_OpenLocal("Telemetry"));
    // A received message is not copied with only the send bit set, but it
    // still delivers what waits once the hunt has found the collector.
    const Record Report = FirstRecord(0x1234, SpidOf("alpha"), pMsg, 1);
    ASSERT_EQ(kDropMsgNtfy, Report.Type) << "the report comes first";
    const hdr::DropMsgNtfy Drop = Report.As<hdr::DropMsgNtfy>();
    EXPECT_EQ(6u, Drop.qty());
    EXPECT_EQ(hdr::DROPPED_BY_SENDER, Drop.who());
    // Counted from the oldest record given up, which was queued between
    // First and Last.
    EXPECT_LE(Drop.secs(), jDropReportSecs(First, Report.Stamp));
    EXPECT_GE(Drop.secs(), std::max(1u, jDropReportSecs(Last, Report.Stamp)));
    EXPECT_EQ((uint32_t)getpid(), Drop.pid());
    EXPECT_EQ("test_telemetry", Drop.prog_name());
    EXPECT_EQ((std::vector<std::string>{"Telemetry", "TelemSender", "alpha"}), NamesOf(Drop.open_endpoints()));
    const std::vector<Record> Queued = TakeRecords(1024);
    for (size_t i = 0; i < Queued.size(); i++)
        ASSERT_EQ(7 + i, Queued[i].As<hdr::UserMsgNtfy>().sequence()) << "in order, the oldest 6 given up";
    // The envelope's routing words: receiver, sender, top of the sender stack.
    EXPECT_EQ((std::vector<uint32_t>{0, 0x1234, SpidOf("alpha"), 0}), std::vector<uint32_t>(Queued[0].Words, Queued[0].Words + 4));
    Record Extra;
    EXPECT_FALSE(TakeRecord(&Extra, 50)) << "nothing was copied of the received message";

    ASSERT_EQ(0u, MSG_CloseLocal("Telemetry"));
    for (uint32_t i = 1; i <= 3; i++)
        MSG_ResendToGlobalTelemetry(SpidOf("alpha"), 0x1234, pMsg, 0);
    ASSERT_EQ(0u, MSG_CloseLocal("TelemSender")); // its queued messages go with it
    ASSERT_EQ(0u, MSG_OpenLocal("Telemetry"));
    MSG_SetSequence(pMsg, 4);
    const Record Lost = FirstRecord(SpidOf("alpha"), 0x1234, pMsg, 0);
    MSG_ReleaseMsg(pMsg);
    ASSERT_EQ(kDropMsgNtfy, Lost.Type);
    EXPECT_EQ(3u, Lost.As<hdr::DropMsgNtfy>().qty());
    Record Next;
    ASSERT_TRUE(TakeRecord(&Next));
    EXPECT_EQ(4u, Next.As<hdr::UserMsgNtfy>().sequence());
}

// ---- The collector program and the dissector ------------------------------

struct Collector {
    pid_t Pid = -1;
    std::string Capture, Log;
};

Collector StartCollector(const std::string &Tag)
{
    Collector C;
    C.Capture = "/tmp/orvane_" + TestInstance() + "_" + Tag + ".pcap";
    C.Log = C.Capture + ".log";
    unlink(C.Log.c_str());
    C.Pid = Spawn({ORVANE_COLLECTOR, "-w", C.Capture, "-t", "60"}, "", C.Log);
    AwaitText(C.Log, "collecting"); // until it serves (and would stop cleanly when told)
    return C;
}

// The records of a capture: the 24-byte file header (link type 147), then
// packets of a type word and the record.
std::vector<Record> ReadCapture(const std::string &Path)
{
    const std::string File = ReadFile(Path);
    std::vector<Record> Records;
    uint32_t Header[6];
    if (File.size() < sizeof Header)
        return Records;
    memcpy(Header, File.data(), sizeof Header);
    EXPECT_EQ(0xA1B2C3D4u, Header[0]);
    EXPECT_EQ(147u, Header[5]);
    for (size_t At = sizeof Header; At + 16 <= File.size();) {
        uint32_t Packet[4];
        memcpy(Packet, File.data() + At, sizeof Packet);
        Record R;
        R.Stamp = {(time_t)Packet[0], (long)Packet[1] * 1000};
        memcpy(&R.Type, File.data() + At + 16, 4);
        R.Bytes = File.substr(At + 20, Packet[2] - 4);
        Records.push_back(R);
        At += 16 + Packet[2];
    }
    return Records;
}

// tshark's lines for the capture through the dissector, -T fields with
// the given fields, for the records that Filter selects; sorted, since
// copies from different processes reach the collector in no promised order.
std::vector<std::string> Tshark(const std::string &Capture, const std::string &Filter,
                                const std::vector<std::string> &Fields)
{
    std::string Command = "tshark -X lua_script:" ORVANE_DISSECTOR " -r " + Capture + " -Y '" + Filter +
                          "' -T fields -E separator=';'";
    for (const std::string &F : Fields)
        Command += " -e " + F;
    FILE *pPipe = popen((Command + " 2>/dev/null").c_str(), "r");
    std::vector<std::string> Lines;
    char Line[4096];
    while (pPipe != nullptr && fgets(Line, sizeof Line, pPipe) != nullptr)
        Lines.emplace_back(Line, strcspn(Line, "\n"));
    EXPECT_TRUE(pPipe != nullptr && pclose(pPipe) == 0) << "tshark (from the setup script) ran: " << Command;
    std::sort(Lines.begin(), Lines.end());
    return Lines;
}

// Two processes copy what they send and receive, and announce their
// endpoints, to the collector program; its capture holds the records the
// library made, and tshark decodes them through the dissector.
TEST(TelemetryCapture, CopiesAndAnnouncementsOfTwoProcessesAsTsharkDecodesThem)
{
    ASSERT_EQ(0u, MSG_OpenLocal("alpha"));
    // A copy that waited for the collector is lost with its sender: the
    // collector is told.
    MSG_DebugSetFlag(MSG_DEBUG_TELEMETRY_SEND);
    MSG_Msg *pEarly = NewMsg(0x999, 0, 4);
    MSG_ResendToGlobalTelemetry(0x1234, 0x5678, pEarly, 0);
    MSG_ReleaseMsg(pEarly);
    ASSERT_EQ(0u, MSG_CloseLocal("TelemSender"));
    MSG_DebugSetFlag(0);
    const Collector C = StartCollector("traffic");
    const uint32_t Collector = FindSpid("alpha", "Telemetry");
    ASSERT_NE(0u, Collector);
    // Something that is no record: refused with a line, the rest goes on.
    ASSERT_EQ(0u, MSG_SendMsg("alpha", Collector, NewMessage(kRequest, 0, "noise")));
    MSG_DebugSetFlag(kBothBits);
    ASSERT_EQ(0u, MSG_OpenLocal("gamma")); // this thread's private endpoint (FindSpid's) is never listed
    const pid_t Echo = StartChild([] { return ServeEcho("beta"); }); // reports too
    const uint32_t Alpha = SpidOf("alpha"), Beta = FindSpid("alpha", "beta");
    ASSERT_NE(0u, Beta);
    ASSERT_EQ(0u, MSG_SendMsg("alpha", Beta, NewMessage(kRequest, 7, "ping")));
    MSG_ReleaseMsg(MSG_RecvMsg("alpha", kRequest | 1, 5000));
    ASSERT_EQ(0u, MSG_RegisterNotificationRemote("alpha", 0x300, 0x3FF, Beta));
    ASSERT_EQ(0u, MSG_RegisterNotificationRemote("alpha", 5, 5, Beta));
    ASSERT_EQ(0u, MSG_UnregisterNotificationRemote("alpha", 5, 5, Beta));
    ASSERT_EQ(0u, MSG_SendMsg("alpha", Beta, MSG_AllocMsg(kQuitType, 0, 0)));
    ASSERT_EQ(0, WaitChild(Echo));
    usleep(200 * 1000); // the last copies reach the collector
    ASSERT_EQ(0, StopChild(C.Pid, SIGTERM)) << ReadFile(C.Log);
    const std::string Log = ReadFile(C.Log);
    EXPECT_NE(std::string::npos, Log.find("refused message type 0x100")) << Log;
    EXPECT_NE(std::string::npos, Log.find("UserMsgNtfy      6")) << Log;
    EXPECT_NE(std::string::npos, Log.find("DropMsgNtfy      1")) << Log;
    EXPECT_NE(std::string::npos, Log.find("NtfyRegUnregNtfy 6")) << Log;
    EXPECT_NE(std::string::npos, Log.find("LocalOpenNtfy    2")) << Log;

    // Each side copies what it sends and receives: 4 copies of the exchange
    // (and 2 of the quit message), 6 of the requests, 2 announcements.
    std::vector<hdr::UserMsgNtfy> Copies;
    std::vector<hdr::NtfyRegUnregNtfy> Requests;
    std::vector<hdr::LocalOpenNtfy> Openings;
    for (const Record &R : ReadCapture(C.Capture)) {
        if (R.Type == kUserMsgNtfy && R.As<hdr::UserMsgNtfy>().msg_type() != kQuitType)
            Copies.push_back(R.As<hdr::UserMsgNtfy>());
        else if (R.Type == kNtfyRegUnregNtfy)
            Requests.push_back(R.As<hdr::NtfyRegUnregNtfy>());
        else if (R.Type == kLocalOpenNtfy)
            Openings.push_back(R.As<hdr::LocalOpenNtfy>());
    }
    ASSERT_EQ(4u, Copies.size());
    const hdr::UserMsgNtfy *pSent = FindCopy(Copies, kRequest, false);
    const hdr::UserMsgNtfy *pGot = FindCopy(Copies, kRequest, true);
    const hdr::UserMsgNtfy *pAnswered = FindCopy(Copies, kRequest | 1, false);
    ASSERT_TRUE(pSent && pGot && pAnswered && FindCopy(Copies, kRequest | 1, true));
    EXPECT_EQ(Alpha, pSent->sender());
    EXPECT_EQ(Beta, pSent->receiver());
    EXPECT_FALSE(pSent->has_halvo_idx()); // halvo index 0
    EXPECT_EQ(0, pSent->sender_stack_size());
    EXPECT_EQ(hdr::COPY_ON_RECEIVE, pGot->src_type());
    EXPECT_EQ((std::vector<uint32_t>{Alpha}), StackOf(pGot->sender_stack()));
    // The answer went with receiver 0: the receiver is the top of its stack.
    EXPECT_EQ(Beta, pAnswered->sender());
    EXPECT_EQ(Alpha, pAnswered->receiver());

    ASSERT_EQ(6u, Requests.size());
    int Unregistrations = 0;
    for (const hdr::NtfyRegUnregNtfy &R : Requests) {
        EXPECT_EQ(R.has_reg_msg_high() ? 0x300u : 5u, R.reg_msg_low()) << "a single type has no upper bound";
        Unregistrations += R.has_reg_type() && R.reg_type() == hdr::NTFY_UNREGISTER;
    }
    EXPECT_EQ(2, Unregistrations);

    ASSERT_EQ(2u, Openings.size());
    for (const hdr::LocalOpenNtfy &N : Openings) {
        ASSERT_EQ(1, N.prog_size());
        const hdr::LocalOpenProg &P = N.prog(0);
        ASSERT_EQ(1, P.just_opened_size());
        const bool bMine = P.just_opened(0).name() == "gamma";
        EXPECT_EQ(bMine ? (uint32_t)getpid() : (uint32_t)Echo, P.pid()) << "a forked child reports its own pid";
        EXPECT_EQ("test_telemetry", P.name());
        EXPECT_EQ(bMine ? SpidOf("gamma") : Beta, P.just_opened(0).linx_id());
        // The child forgot its parent's endpoints.
        EXPECT_EQ(bMine ? std::vector<std::string>{"alpha"} : std::vector<std::string>{}, NamesOf(P.already_open()));
    }

    char Ids[64];
    snprintf(Ids, sizeof Ids, "0x%08x;0x%08x", Alpha, Beta);
    EXPECT_EQ((std::vector<std::string>{std::string(Ids) + ";0x00000100;1;7;70696e67;4",
                                        std::string(Ids) + ";0x00000100;;7;70696e67;4"}),
              Tshark(C.Capture, "orvane.UserMsgNtfy.msg_type == 0x100",
                     {"orvane.UserMsgNtfy.sender", "orvane.UserMsgNtfy.receiver", "orvane.msg.type",
                      "orvane.UserMsgNtfy.src_type", "orvane.msg.sequence", "orvane.msg.payload", "orvane.msg.size"}));
    EXPECT_EQ((std::vector<std::string>{"0x00000300;0x000003ff;", "0x00000300;0x000003ff;1"}),
              Tshark(C.Capture, "orvane.NtfyRegUnregNtfy.reg_msg_low == 0x300",
                     {"orvane.NtfyRegUnregNtfy.reg_msg_low", "orvane.NtfyRegUnregNtfy.reg_msg_high",
                      "orvane.NtfyRegUnregNtfy.src_type"}));
    snprintf(Ids, sizeof Ids, "%d;test_telemetry;beta;0x%08x", (int)Echo, Beta);
    EXPECT_EQ((std::vector<std::string>{Ids}),
              Tshark(C.Capture, "orvane.LocalOpenProg.pid == " + std::to_string(Echo),
                     {"orvane.LocalOpenProg.pid", "orvane.LocalOpenProg.name", "orvane.Endpoint.name",
                      "orvane.Endpoint.linx_id"}));
    EXPECT_EQ((std::vector<std::string>{"1;1"}),
              Tshark(C.Capture, "orvane.DropMsgNtfy.qty", {"orvane.DropMsgNtfy.qty", "orvane.DropMsgNtfy.who"}));
    unlink(C.Capture.c_str());
    unlink(C.Log.c_str());
}

// ---- The dump ----------------------------------------------------------------

uint32_t NoCall(void *, MSG_Msg *)
{
    return 0;
}

// Line against Pattern, where @ stands for one or more characters other
// than a blank, a comma or a quote.
bool Matches(const char *pLine, const char *pPattern)
{
    if (*pPattern == '\0')
        return *pLine == '\0';
    if (*pPattern != '@')
        return *pLine == *pPattern && Matches(pLine + 1, pPattern + 1);
    for (const char *p = pLine; *p != '\0' && strchr(" ,\"", *p) == nullptr;)
        if (Matches(++p, pPattern + 1))
            return true;
    return false;
}

std::vector<std::string> DumpLines()
{
    TakeLoggedLines();
    EXPECT_EQ(0u, MSG_DebugDumpAll());
    std::vector<std::string> Lines;
    for (const LoggedLine &L : TakeLoggedLines()) {
        EXPECT_EQ(6, L.Level);
        const size_t Prefix = L.Text.find("liborvane: ");
        Lines.push_back(L.Text.substr(Prefix + 11, L.Text.size() - Prefix - 12)); // without the newline
    }
    return Lines;
}

TEST(Dump, EveryEndpointWithItsListsWhateverTheDebugFlag)
{
    MSG_DebugSetFlag(0);
    EXPECT_EQ((std::vector<std::string>{"-------- MSG_DebugDumpAll begin --------", "pMyEndpoint=(nil)",
                                        "-------- MSG_DebugDumpAll end --------"}),
              DumpLines());

    const pid_t Peer = StartPeer("peer");
    ASSERT_EQ(0u, MSG_OpenLocal("radio"));
    ASSERT_EQ(0u, MSG_OpenLocal("quiet"));
    const uint32_t PeerId = FindSpid("radio", "peer"); // opens this thread's private endpoint
    ASSERT_EQ(0u, MSG_RegisterCallbackHelper("radio", NoCall, nullptr, 0x10, 0x1F, 1));
    ASSERT_EQ(0u, MSG_RegisterNotification("radio", 0x20, 0x2F, PeerId));
    const MSG_Callback Open = {NoCall, nullptr, 0, 0, 0};
    ASSERT_EQ(0u, MSG_OpenRemoteAsync("radio", "nobody", &Open, nullptr));
    char Mine[64], Radio[64], Quiet[64], PeerLine[64];
    snprintf(Mine, sizeof Mine, "pMyEndpoint=%p", (void *)MSG_GetMyEndpoint());
    snprintf(Radio, sizeof Radio, "LocalEndpoint={\"radio\", Linx handle @, SPID 0x%x}", SpidOf("radio"));
    snprintf(Quiet, sizeof Quiet, "LocalEndpoint={\"quiet\", Linx handle @, SPID 0x%x}", SpidOf("quiet"));
    snprintf(PeerLine, sizeof PeerLine, "    {SPID 0x%x, \"peer\"}", PeerId);

    // Newest endpoint and entry first; @ stands for an address or a name.
    const std::vector<std::string> Expected = {
        "-------- MSG_DebugDumpAll begin --------",
        "LocalEndpoint={\"@\", Linx handle @, SPID @} ***", // this thread's private endpoint
        "  Callback: none", "  Notification:: none", "  Remote Endpoint: none",
        Quiet, "  Callback: none", "  Notification:: none", "  Remote Endpoint: none",
        Radio, "  Callback:",
        "    callback {pFunc @, pContext (nil), range 0x10000002-0x10000002, oneshot 0}",
        "    callback {pFunc @, pContext (nil), range 0x10-0x1f, oneshot 1}",
        "  Notification::", "    {msg types 0x20-0x2f], remote @}",
        "  Remote Endpoint:", "    {(not connected), \"nobody\"}", PeerLine,
        Mine, "-------- MSG_DebugDumpAll end --------"};
    const std::vector<std::string> Lines = DumpLines();
    ASSERT_EQ(Expected.size(), Lines.size());
    for (size_t i = 0; i < Lines.size(); i++)
        EXPECT_TRUE(Matches(Lines[i].c_str(), Expected[i].c_str())) << Lines[i] << "\n  vs " << Expected[i];
    StopChild(Peer);
}

} // namespace
