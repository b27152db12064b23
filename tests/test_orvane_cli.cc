// SPDX-License-Identifier: Apache-2.0
// The orvane command, run as a user runs it, against real peer processes:
// each subcommand's output (--json field by field) and its failures, with
// their exit status (0 done, 1 failed, 2 usage).
#include "test_kit.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

struct Outcome {
    int Status = -1;
    std::string Out;
    std::string Err;
};

void WriteAll(const std::string &Path, const std::string &Bytes)
{
    std::ofstream(Path, std::ios::binary) << Bytes;
}

std::string TempPath(const std::string &Leaf)
{
    return testing::TempDir() + "orvane_cli_" + std::to_string(getpid()) + "_" + Leaf;
}

// One run of orvane in the background, its output going to two files.
class OrvaneRun {
public:
    explicit OrvaneRun(std::vector<std::string> Args)
        : mOut(TempPath("out" + std::to_string(sCount))), mErr(TempPath("err" + std::to_string(sCount++)))
    {
        Args.insert(Args.begin(), ORVANE_CLI);
        mPid = Spawn(Args, mOut, mErr);
    }
    ~OrvaneRun()
    {
        StopChild(mPid);
        unlink(mOut.c_str());
        unlink(mErr.c_str());
    }
    // Waits until the standard output or error holds Text.
    bool Shows(const std::string &Text, int TimeoutMs = 10000) const
    {
        return WaitFor([&] { return (ReadFile(mOut) + ReadFile(mErr)).find(Text) != std::string::npos; }, TimeoutMs);
    }
    // Waits for the end (a kill after 30 s: it must stop by itself).
    Outcome Finish(int Signal = 0)
    {
        if (Signal != 0)
            kill(mPid, Signal);
        Outcome O;
        int Status = 0;
        if (WaitFor([&] { return waitpid(mPid, &Status, WNOHANG) == mPid; }, 30000))
            O.Status = WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
        else
            StopChild(mPid);
        mPid = -1;
        O.Out = ReadFile(mOut);
        O.Err = ReadFile(mErr);
        return O;
    }

private:
    static inline int sCount = 0;
    pid_t mPid = -1;
    std::string mOut, mErr;
};

Outcome Orvane(const std::vector<std::string> &Args)
{
    return OrvaneRun(Args).Finish();
}

// Whether the run ended with Status and said Text on its standard error.
testing::AssertionResult Fails(const Outcome &O, int Status, const std::string &Text)
{
    if (O.Status == Status && O.Err.find(Text) != std::string::npos)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "status " << O.Status << ", said: " << O.Err;
}

std::string Hex(uint32_t Value)
{
    char Text[16];
    snprintf(Text, sizeof Text, "0x%x", Value);
    return Text;
}

std::vector<json> JsonLines(const std::string &Text)
{
    std::vector<json> Lines;
    std::istringstream In(Text);
    for (std::string Line; std::getline(In, Line);)
        Lines.push_back(json::parse(Line));
    return Lines;
}

// A child that publishes: once somebody subscribed it sends types 0x300,
// 0x200 and 0x201, then serves its endpoint until killed.
pid_t StartPublisher(const char *pName)
{
    const pid_t Child = StartChild([pName] {
        if (MSG_OpenLocal(pName) != 0)
            return 1;
        bool bPublished = false;
        for (;;) {
            if (MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, 20))
                MSG_ReleaseMsg(pMsg);
            if (!bPublished && MSG_CountNotifications_Private(pName) > 0) {
                for (MSG_Type Type : {0x300u, 0x200u, 0x201u})
                    MSG_SendNotification(pName, NewMsg(Type, Type & 0xF, 4));
                bPublished = true;
            }
        }
    });
    return Child;
}

class OrvaneCli : public MessageLayerTest {
protected:
    OrvaneCli() : MessageLayerTest({"cli-test"}) {}
};

// The command's own checks of its arguments and of the instance it is
// pointed at: each refusal with its status and what it says.
TEST_F(OrvaneCli, RefusalsExitWithTheirStatusAndSayWhy)
{
    const std::string Duration = "a duration is a number with a unit";
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> Refusals = {
        {{"send", "peer", "0x1000000"}, 2, "0 to 0xffffff"},
        {{"send", "peer", "1", "--payload", "01:2g"}, 2, "'g' at position 5 is not a hex digit"},
        {{"subscribe", "peer", "0x300", "0x200"}, 2, "FIRST must not exceed LAST"},
        {{"capture", "x.pcap", "-t", "0"}, 2, Duration + ", as 500ms, 2s or 1m (a bare number is milliseconds), at most "
                                                     "12 days, more than 0: not \"0\""},
        {{"hunt", "x", "--timeout", "abc"}, 2, Duration},
        {{"hunt", "x", "--timeout", "-2"}, 2, Duration},
        {{"send", "x", "1", "--wait-response", "2h"}, 2, Duration},
        {{"watch", "x", "--count", "-1"}, 2, "a count is a whole number from 0 up: not \"-1\""},
        {{"capture", "x.pcap", "-c", "0"}, 2, "from 1 up"},
        {{"send", "x", "1", "--config", "/nonexistent.pb"}, 2, "/nonexistent.pb"},
    };
    for (const auto &[Args, Status, Text] : Refusals)
        EXPECT_TRUE(Fails(Orvane(Args), Status, Text)) << Args[0] << " " << Args[1];
    // An instance that is not running is not started by a read-only verb;
    // a name that cannot be one is called that.
    for (const char *pVerb : {"list", "stat"}) {
        setenv("LINXD_INSTANCE", "nothing-runs-here", 1);
        EXPECT_TRUE(Fails(Orvane({pVerb}), 1, "no linxd instance \"nothing-runs-here\" is running")) << pVerb;
        setenv("LINXD_INSTANCE", "no/such name", 1);
        EXPECT_TRUE(Fails(Orvane({pVerb}), 1, "LINXD_INSTANCE=\"no/such name\" is not an instance name")) << pVerb;
    }
    setenv("LINXD_INSTANCE", TestInstance().c_str(), 1);
}

TEST_F(OrvaneCli, ListStatAndHuntShowEveryEndpoint)
{
    const pid_t Alpha = StartPeer("alpha");
    const uint32_t AlphaSpid = FindSpid("cli-test", "alpha");
    ASSERT_NE(0u, AlphaSpid);
    const pid_t Twin = StartPeer("alpha"); // LINX lets a second socket hold the name
    MSG_Callback Ignored = {[](void *, MSG_Msg *) { return 0u; }, nullptr, 0, 0, 0};
    ASSERT_EQ(0u, MSG_OpenRemoteAsync("cli-test", "nobody", &Ignored, nullptr));
    // Two signals wait for alpha, which never receives.
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(0u, MSG_SendMsg("cli-test", AlphaSpid, NewMsg(0x100, 0, 8)));

    const Outcome Listed = Orvane({"list", "--json"});
    ASSERT_EQ(0, Listed.Status) << Listed.Err;
    const json Endpoints = json::parse(Listed.Out);
    json Row;
    for (const json &E : Endpoints)
        if (E["spid"] == Hex(AlphaSpid))
            Row = E;
    ASSERT_FALSE(Row.is_null()) << Listed.Out;
    EXPECT_EQ("alpha", Row["name"]);
    EXPECT_EQ(true, Row["shared"]);
    EXPECT_EQ(Alpha, Row["pid"]);
    EXPECT_EQ(ReadFile("/proc/" + std::to_string(Alpha) + "/comm"), Row["process"].get<std::string>() + "\n");
    EXPECT_EQ(2, Row["queued"]);
    for (const json &E : Endpoints)
        EXPECT_NE("orvane", E["name"]) << "the command's own socket is left out";

    const Outcome Stat = Orvane({"stat", "--json"});
    ASSERT_EQ(0, Stat.Status) << Stat.Err;
    const json Totals = json::parse(Stat.Out);
    EXPECT_EQ(Endpoints.size(), Totals["sockets"]);
    EXPECT_GE(Totals["queued_signals"].get<int>(), 2);
    EXPECT_GE(Totals["hunts"].get<int>(), 1) << "cli-test looks for nobody";
    const std::string Table = Orvane({"list"}).Out;
    EXPECT_NE(std::string::npos, Table.find("alpha *")) << Table;
    EXPECT_NE(std::string::npos, Table.find("* more than one socket holds this name")) << Table;
    MSG_CloseRemote("cli-test", "nobody");
    StopChild(Alpha);
    StopChild(Twin);

    // A hunt waits for a peer, or times out.
    OrvaneRun Late({"hunt", "late", "--timeout", "10s", "--json"});
    usleep(100 * 1000);
    const pid_t Peer = StartPeer("late");
    const Outcome Found = Late.Finish();
    ASSERT_EQ(0, Found.Status) << Found.Err;
    const json Answer = json::parse(Found.Out);
    EXPECT_EQ("late", Answer["name"]);
    EXPECT_EQ(Hex(FindSpid("cli-test", "late")), Answer["spid"]);
    EXPECT_EQ(Peer, Answer["pid"]);
    EXPECT_EQ(Answer["spid"].get<std::string>() + "\n", Orvane({"hunt", "late", "--timeout", "forever"}).Out);

    const Outcome Missing = Orvane({"hunt", "nobody", "--timeout", "100"}); // a bare number is milliseconds
    EXPECT_EQ(1, Missing.Status);
    EXPECT_EQ("", Missing.Out);
    EXPECT_NE(std::string::npos, Missing.Err.find("no endpoint named \"nobody\" appeared within 100 ")) << Missing.Err;
    StopChild(Peer);
}

TEST_F(OrvaneCli, WatchReportsAppearancesAndDeathsUntilStopped)
{
    const pid_t Early = StartPeer("early");
    OrvaneRun Watch({"watch", "early", "later", "--count", "4", "--json"});
    ASSERT_TRUE(Watch.Shows("\"early\""));
    // A signal of another process that looks like an answer is refused
    // with a line, and the watch goes on.
    LINX *pForger = linx_open("forger", 0, nullptr);
    const LINX_SPID Watcher = HuntAndWait(pForger, "orvane", 5000);
    for (uint32_t Size : {4u, 8u}) {
        ASSERT_EQ(0, SendSignal(pForger, Watcher, 0x4F525601, 7, Size));
    }
    ASSERT_TRUE(Watch.Shows("refused signal 0x4f525601 of 8 bytes from " + Hex(linx_get_spid(pForger))));
    linx_close(pForger);
    const pid_t Later = StartPeer("later");
    ASSERT_TRUE(Watch.Shows("\"later\""));
    StopChild(Early);
    ASSERT_TRUE(Watch.Shows("ended"));
    const pid_t Again = StartPeer("early"); // a restart is seen as well
    const Outcome Watched = Watch.Finish();
    ASSERT_EQ(0, Watched.Status) << Watched.Err;
    EXPECT_NE(std::string::npos, Watched.Err.find("refused signal 0x4f525601 of 4 bytes")) << Watched.Err;
    const std::vector<json> Events = JsonLines(Watched.Out);
    ASSERT_EQ(4u, Events.size()) << Watched.Out;
    const std::vector<std::pair<std::string, pid_t>> Expected = {
        {"appeared", Early}, {"appeared", Later}, {"ended", Early}, {"appeared", Again}};
    for (size_t i = 0; i < Events.size(); i++) {
        EXPECT_EQ(Expected[i].first, Events[i]["event"]) << i;
        EXPECT_EQ(Expected[i].second, Events[i]["pid"]) << i;
        EXPECT_EQ(23u, Events[i]["time"].get<std::string>().size()) << Events[i]["time"];
    }
    EXPECT_EQ(Events[0]["spid"], Events[2]["spid"]);
    EXPECT_NE(Events[0]["spid"], Events[3]["spid"]);

    // Without a count it runs until interrupted, and that is a success.  A
    // second socket of the name is followed too, and its close (its
    // process lives on) is told from an end.
    OrvaneRun Endless({"watch", "later"});
    ASSERT_TRUE(Endless.Shows("appeared"));
    LINX *pSecond = linx_open("later", 0, nullptr);
    const std::string Second = Hex(linx_get_spid(pSecond));
    EXPECT_TRUE(Endless.Shows("appeared  later  " + Second + "  pid " + std::to_string(getpid())));
    linx_close(pSecond);
    EXPECT_TRUE(Endless.Shows("closed    later  " + Second));
    const Outcome Interrupted = Endless.Finish(SIGINT);
    EXPECT_EQ(0, Interrupted.Status) << Interrupted.Err;
    StopChild(Later);
    StopChild(Again);
}

TEST_F(OrvaneCli, SendPrintsTheResponseDecoded)
{
    const pid_t Echo = StartChild([] { return ServeEcho("echo"); });
    const Outcome Json = Orvane({"send", "echo", "0x120", "--payload", "01:02:ab", "--sequence", "7",
                                 "--wait-response", "5s", "--json"});
    ASSERT_EQ(0, Json.Status) << Json.Err;
    const json Response = json::parse(Json.Out)["response"];
    EXPECT_EQ("0x121", Response["type"]);
    EXPECT_EQ(7, Response["sequence"]);
    EXPECT_EQ("0x0", Response["sender"]) << "a response's stack was popped on its way back";
    EXPECT_EQ(3, Response["bytes"]);
    EXPECT_EQ("0102ab", Response["payload"]);

    const std::string Payload = TempPath("payload");
    WriteAll(Payload, "hello");
    const Outcome Text = Orvane({"send", "echo", "0x130", "--file", Payload, "--wait-response", "5000"});
    ASSERT_EQ(0, Text.Status) << Text.Err;
    EXPECT_NE(std::string::npos, Text.Out.find("response type 0x131 sequence 0, 5 bytes\n"))
        << Text.Out;
    EXPECT_NE(std::string::npos, Text.Out.find("0000  68 65 6c 6c 6f")) << Text.Out;
    EXPECT_NE(std::string::npos, Text.Out.find("|hello|")) << Text.Out;
    unlink(Payload.c_str());

    EXPECT_TRUE(Fails(Orvane({"send", "echo", "0x130", "--file", "/nonexistent/payload"}), 1, "cannot read /nonexistent/payload: No such file"));
    EXPECT_TRUE(Fails(Orvane({"send", "nobody", "0x130", "--timeout", "100"}), 1, "no endpoint named \"nobody\""));
    const pid_t Mute = StartPeer("mute");
    EXPECT_TRUE(Fails(Orvane({"send", "mute", "0x130", "--wait-response", "200ms"}), 1, "no response from \"mute\" within 200ms"));
    StopChild(Mute);

    EXPECT_EQ(0, Orvane({"send", "echo", std::to_string(kQuitType)}).Status);
    EXPECT_EQ(0, WaitChild(Echo));
}

TEST_F(OrvaneCli, SubscribePrintsNotificationsOfItsRangeUntilThePublisherGoes)
{
    const pid_t Publisher = StartPublisher("publisher");
    const uint32_t PublisherSpid = FindSpid("cli-test", "publisher");
    const Outcome Two = Orvane({"subscribe", "publisher", "0x200", "0x2ff", "--count", "2", "--json"});
    ASSERT_EQ(0, Two.Status) << Two.Err;
    const std::vector<json> Notes = JsonLines(Two.Out);
    ASSERT_EQ(2u, Notes.size()) << Two.Out;
    EXPECT_EQ("0x200", Notes[0]["type"]);
    EXPECT_EQ(Hex(PublisherSpid), Notes[0]["sender"]);
    EXPECT_EQ("0x201", Notes[1]["type"]);
    EXPECT_EQ(1, Notes[1]["sequence"]);
    EXPECT_EQ("0x0", Notes[1]["sender"]) << "a response type is routed like a response";
    EXPECT_EQ("00000000", Notes[1]["payload"]);

    OrvaneRun Waiting({"subscribe", "publisher", "0x400", "0x4ff"});
    ASSERT_TRUE(Waiting.Shows("subscribed to types 0x400..0x4ff of publisher"));
    StopChild(Publisher);
    const Outcome Gone = Waiting.Finish();
    EXPECT_EQ(0, Gone.Status) << "the publisher's end is the end of its notifications";
    EXPECT_NE(std::string::npos, Gone.Err.find("\"publisher\" went away")) << Gone.Err;
}

TEST_F(OrvaneCli, CaptureCollectsTelemetryAndRefusesAPathItCannotWrite)
{
    const std::string Path = TempPath("capture.pcap");
    OrvaneRun Capture({"capture", Path, "--count", "1"});
    ASSERT_TRUE(Capture.Shows("collecting on \"Telemetry\""));
    // The first copy finds the collector by name; later ones go straight.
    const uint32_t Self = FindSpid("cli-test", "cli-test");
    for (int i = 0; i < 100 && !Capture.Shows("records written", 50); i++) {
        MSG_DebugSetFlag(MSG_DEBUG_TELEMETRY_SEND);
        ASSERT_EQ(0u, MSG_SendMsg("cli-test", Self, NewMsg(0x150, 0, 4)));
        MSG_DebugSetFlag(0);
        Pump("cli-test", 20, [] { return false; });
    }
    const Outcome Captured = Capture.Finish();
    ASSERT_EQ(0, Captured.Status) << Captured.Err;
    // The collector and its file are the telemetry suite's; here, that one record came.
    EXPECT_NE(std::string::npos, Captured.Err.find("UserMsgNtfy      1")) << Captured.Err;
    unlink(Path.c_str());

    EXPECT_TRUE(Fails(Orvane({"capture", "/nonexistent/dir/x.pcap", "-t", "1"}), 1, "cannot write /nonexistent/dir/x.pcap"));
}

// The library records what is sent and what is received; orvane decodes it.
TEST_F(OrvaneCli, UserLogDecodesADumpAndNamesTheByteWhereItBreaks)
{
    const uint32_t Self = FindSpid("cli-test", "cli-test");
    ASSERT_EQ(0u, MSG_UserLogConfig(4096, 8, MSG_USER_LOG_SEND | MSG_USER_LOG_RECV));
    MSG_Msg *pMsg = NewMsg(0x160, 3, 10);
    memcpy(MSG_GetPayloadMutable(pMsg), "0123456789", 10);
    ASSERT_EQ(0u, MSG_SendMsg("cli-test", Self, pMsg));
    ASSERT_EQ(0u, MSG_SendMsg("cli-test", Self, NewMsg(0x170, 4, 2)));
    Pump("cli-test", 100, [] { return false; });
    MSG_UserLogConfig(4096, 8, 0);
    const std::string Dump = TempPath("userlog");
    ASSERT_EQ(0u, MSG_UserLogDump(Dump.c_str()));

    const Outcome Json = Orvane({"userlog", Dump, "--json"});
    ASSERT_EQ(0, Json.Status) << Json.Err;
    const json Records = json::parse(Json.Out);
    ASSERT_EQ(4u, Records.size()) << Json.Out; // two sent, then the same two received
    for (int Received = 0; Received < 2; Received++) {
        const json &R = Records[2 * Received];
        EXPECT_EQ("0x160", R["type"]);
        EXPECT_EQ(3, R["sequence"]);
        EXPECT_EQ(Hex(Self), R["to"]);
        EXPECT_EQ(10, R["payload_bytes"]);
        EXPECT_EQ("3031323334353637", R["payload"]); // 8 bytes kept
        EXPECT_EQ("0000", Records[2 * Received + 1]["payload"]);
    }

    const Outcome Text = Orvane({"userlog", Dump});
    ASSERT_EQ(0, Text.Status);
    EXPECT_NE(std::string::npos, Text.Out.find("=>" + Hex(Self) + " type 0x160 sequence 3, 10 bytes: 30 31 32 33 34 35 36 37 ...\n"))
        << Text.Out;

    // A cut file: the first record is shown, then where the file breaks.
    const std::string Whole = ReadFile(Dump);
    WriteAll(Dump, Whole.substr(0, Whole.size() - 3));
    const Outcome Cut = Orvane({"userlog", Dump});
    EXPECT_EQ(1, Cut.Status);
    EXPECT_NE(std::string::npos, Cut.Out.find("[0] ")) << Cut.Out;
    EXPECT_NE(std::string::npos, Cut.Err.find("the record at byte 128 claims 4 stored payload bytes")) << Cut.Err;
    WriteAll(Dump, "not a dump, certainly not 36 bytes or more of one");
    EXPECT_NE(std::string::npos, Orvane({"userlog", Dump}).Err.find("no record starts at byte 0"));
    unlink(Dump.c_str());
    EXPECT_EQ(1, Orvane({"userlog", Dump}).Status);
}

TEST_F(OrvaneCli, ConfigCompilesTextFormatAndShowsItBack)
{
    const std::string Text = TempPath("cfg.txt"), Binary = TempPath("cfg.pb");
    WriteAll(Text, "endpoint { name: \"a\" link: \"b\" }\nendpoint { name: \"a\" }\n");
    const Outcome Compiled = Orvane({"config", "compile", Text, Binary});
    ASSERT_EQ(0, Compiled.Status) << Compiled.Err;
    EXPECT_NE(std::string::npos, Compiled.Err.find("\"a\" is configured more than once")) << Compiled.Err;
    EXPECT_EQ(std::string("\x0a\x06\x0a\x01" "a\x12\x01" "b\x0a\x03\x0a\x01" "a", 13), ReadFile(Binary));
    const Outcome Shown = Orvane({"config", "show", Binary});
    ASSERT_EQ(0, Shown.Status);
    EXPECT_EQ("endpoint {\n  name: \"a\"\n  link: \"b\"\n}\nendpoint {\n  name: \"a\"\n}\n", Shown.Out);

    WriteAll(Text, "endpoint {\n  nmae: \"a\"\n}\n");
    EXPECT_TRUE(Fails(Orvane({"config", "compile", Text, Binary}), 1, Text + ":2:"));
    WriteAll(Text, "endpoint { link: \"b\" }\n");
    EXPECT_EQ(1, Orvane({"config", "compile", Text, Binary}).Status) << "an endpoint needs its name";
    WriteAll(Binary, std::string("\x0a\x02\x12\x00", 4));
    EXPECT_TRUE(Fails(Orvane({"config", "show", Binary}), 1, "is not an endpoint configuration"));
    unlink(Text.c_str());
    unlink(Binary.c_str());
}

} // namespace
