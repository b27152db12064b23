// SPDX-License-Identifier: Apache-2.0
// The diagnostic log: status texts, the outcome filter, the formatter's
// conversions and tokens, the 511-character cut and the standard-error copy.
#include "test_kit.h"

#include <syslog.h>

namespace {

class LogTest : public testing::Test {
protected:
    void SetUp() override
    {
        MSG_DebugSetFlag(0);
        TakeLoggedLines();
        MSG_GetProcessInfo(&Halvo, nullptr, &pProgName);
        Prefix = std::string(pProgName) + ": hd[" + std::to_string(Halvo) + "]: liborvane: ";
    }
    void TearDown() override { MSG_DebugSetFlag(0); }

    // Formats through MSG_LogOs and returns the one line it wrote.
    template <typename... Args> std::string Format(const char *pFormat, Args... args)
    {
        EXPECT_EQ(0u, MSG_LogOs(LOG_ERR, "dir/msg_test.cc", 42, "MSG_Test", pFormat, args...));
        std::vector<LoggedLine> Lines = TakeLoggedLines();
        EXPECT_EQ(1u, Lines.size());
        return Lines.empty() ? "" : Lines[0].Text;
    }

    int32_t Halvo = 0;
    const char *pProgName = nullptr;
    std::string Prefix;
};

TEST_F(LogTest, StatusTextsAndTheOutcomeFilterFollowingTheDebugFlag)
{
    struct Case {
        uint32_t Flag;
        int Status;
        int Level; // -1: nothing written
    } Cases[] = {
        {0, 0, -1},          {0, 304, -1},          {0, 102, -1},
        {0, 305, -1},        {0, 306, -1},          {0, 309, -1},
        {0, 104, LOG_ERR},   {0, 307, LOG_ERR},     {0, 101, LOG_ERR},
        {0, -1, LOG_ERR},    {0x400, 0, LOG_INFO},  {0x100, 304, LOG_WARNING},
        {0x20, 102, LOG_WARNING}, {0x40, 309, LOG_WARNING}, {0x80, 306, LOG_WARNING},
        {0x200, 305, LOG_WARNING}, {0x400, 304, -1}, {0xFFFFFFFF, 203, LOG_ERR},
    };
    for (const Case &C : Cases) {
        MSG_DebugSetFlag(C.Flag);
        EXPECT_EQ(0u, MSG_LogErrFilter(C.Status, "f.c", 1, "fn", "$func: $err\n", C.Status));
        std::vector<LoggedLine> Lines = TakeLoggedLines();
        if (C.Level < 0) {
            EXPECT_TRUE(Lines.empty()) << "flag " << C.Flag << " status " << C.Status;
        } else {
            ASSERT_EQ(1u, Lines.size()) << "flag " << C.Flag << " status " << C.Status;
            EXPECT_EQ(C.Level, Lines[0].Level);
        }
    }
    EXPECT_EQ(301u, MSG_LogErrFilter(104, "f.c", 1, "fn", nullptr));
    // The status texts: the table, and nothing else.
    EXPECT_STREQ("OK", MSG_DebugStrError(0));
    EXPECT_STREQ("open remote timeout", MSG_DebugStrError(101));
    EXPECT_STREQ("Linx error", MSG_DebugStrError(202));
    EXPECT_STREQ("wrong parameter", MSG_DebugStrError(301));
    EXPECT_STREQ("remote open already in progress", MSG_DebugStrError(309));
    for (MSG_Status Undefined : {1u, 100u, 106u, 200u, 204u, 299u, 310u, 0xFFFFFFFFu})
        EXPECT_STREQ("UndefinedError", MSG_DebugStrError(Undefined)) << Undefined;

    EXPECT_EQ(301u, MSG_LogOs(LOG_ERR, "f.c", 1, "fn", nullptr));
    EXPECT_TRUE(TakeLoggedLines().empty());

    // An outcome line as the library writes it.
    MSG_LogErrFilter(301, "src/msg_callback.c", 7, "MSG_RegisterCallback",
                     "$progname: $halvo: liborvane: $func: $err: $local\n", 301, "radio");
    std::vector<LoggedLine> Lines = TakeLoggedLines();
    ASSERT_EQ(1u, Lines.size());
    EXPECT_EQ(Prefix + "MSG_RegisterCallback: result 301/wrong parameter: local ep \"radio\"\n",
              Lines[0].Text);
}

// The conversions; and the copy on standard error, with the monotonic
// time, made only while the flag asks for it.
TEST_F(LogTest, ConversionsFollowPrintfForTheAcceptedLetters)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ("100% and %", Format("100%% and %5%"));
    EXPECT_EQ("0000001f", Format("%08x", 0x1F));
    EXPECT_EQ("-7 4294967295 |ab   |", Format("%d %u |%-5s|", -7, 0xFFFFFFFFu, "ab"));
    EXPECT_EQ("+12.abc", Format("%+d.%.3s", 12, "abcdef"));
    EXPECT_EQ("(nil) 0x10", Format("%p %p", (void *)nullptr, (void *)0x10));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());

    const struct timespec At = {12, 345000};
    FakeMonotonicClock(&At);
    MSG_DebugSetFlag(MSG_DEBUG_STDERR);
    testing::internal::CaptureStderr();
    EXPECT_EQ("hello 7\n", Format("hello %d\n", 7));
    EXPECT_EQ("12.000345 hello 7\n", testing::internal::GetCapturedStderr());
    FakeMonotonicClock(nullptr);
}

TEST_F(LogTest, TokensAreMatchedInTableOrder)
{
    EXPECT_EQ("result 22", Format("$errno", 22));
    EXPECT_EQ("result 301/wrong parameterors", Format("$errors", 301));
    EXPECT_EQ(std::string(pProgName) + ":", Format("$progname:"));
    EXPECT_EQ("hd[" + std::to_string(Halvo) + "]", Format("$halvo"));
    uint32_t Pid = 0;
    MSG_GetProcessInfo(nullptr, &Pid, nullptr);
    EXPECT_EQ(std::to_string(Pid), Format("$pid"));
    EXPECT_EQ("MSG_Test msg_test.cc 42", Format("$func $file $line"));
    EXPECT_EQ("local ep null local ep \"x\" local ep null", Format("$local $local $plocal", (char *)nullptr, "x", (void *)nullptr));
    int Value = -5;
    EXPECT_EQ("-5 null", Format("$pint $pint", &Value, (int *)nullptr));
    MSG_LogOs(LOG_ERR, nullptr, 3, nullptr, "[$func][$file]$line"); // absent: nothing printed
    EXPECT_EQ("[][]3", TakeLoggedLines().at(0).Text);
}

uint32_t NoopCallback(void *, MSG_Msg *) { return 0; }

struct TestMsg {
    MSG_Msg Header;
    uint8_t Payload[8];
};

TEST_F(LogTest, SignalSigselectCallbackRemoteAndMessageTokens)
{
    EXPECT_EQ("Linx sig addr null", Format("$signal", (void **)nullptr));
    void *pSig = (void *)0x1234;
    EXPECT_EQ("Linx sig addr 0x1234", Format("$signal", &pSig));

    EXPECT_EQ("Linx sig addr null", Format("$psignal", (uint32_t **)nullptr));
    uint32_t SigNo = 0x101;
    uint32_t *pSignal = &SigNo;
    char Expect[160];
    snprintf(Expect, sizeof Expect, "Linx sig %p->{0x101}", (void *)&pSignal);
    EXPECT_EQ(Expect, Format("$psignal", &pSignal));

    // At most three numbers of a selection.
    const int32_t None[] = {0};
    const int32_t Two[] = {2, 0x101, 0x102};
    const int32_t Five[] = {5, 1, 2, 3, 4, 5};
    EXPECT_EQ("(null)", Format("$sigselect", (int32_t *)nullptr));
    EXPECT_EQ("sigselect [0]", Format("$sigselect", None));
    EXPECT_EQ("sigselect [2,0x101,0x102]", Format("$sigselect", Two));
    EXPECT_EQ("sigselect [5,0x1,0x2,0x3,...]", Format("$sigselect", Five));

    EXPECT_EQ("callback null", Format("$callback", (MSG_Callback *)nullptr));
    MSG_Callback Callback = {NoopCallback, (void *)0x20, 0x100, 0x1FF, 1};
    snprintf(Expect, sizeof Expect, "callback {pFunc %p, pContext 0x20, range 0x100-0x1ff, oneshot 1}",
             (void *)NoopCallback);
    EXPECT_EQ(Expect, Format("$callback", &Callback));

    // Remote tokens without a known table.
    EXPECT_EQ("remote ep 0x143/\"unknown\"", Format("$remote", 0x143u));
    uint32_t Id = 0x143;
    EXPECT_EQ("remote ep 0x143/\"unknown\" remote ep null", Format("$premote $premote", &Id, (uint32_t *)nullptr));

    // A message: its header, the top and bottom of its sender stack, and
    // at most four payload bytes; what cannot be right is called so.
    EXPECT_EQ("msg null", Format("$message", (MSG_Msg *)nullptr));
    TestMsg M = {};
    M.Header.MsgType = 0x1234;
    M.Header.Sequence = 9;
    M.Header.PayloadBytes = 8;
    memcpy(M.Payload, "\x01\xff\x10", 3);
    M.Header.SendStackSize = 3;
    M.Header.SendStack[0] = 0x55;
    M.Header.SendStack[2] = 0x77;
    snprintf(Expect, sizeof Expect, "msg %p->{type 0x1234, seq 9, local ep owner (nil), ", (void *)&M);
    EXPECT_EQ(Expect + std::string("sender 0x77, orig sender 0x55, size 8, payload [0x1,0xff,0x10,0x0,...]}"),
              Format("$message", &M));
    M.Header.SendStackSize = 9;
    M.Header.PayloadBytes = -3;
    EXPECT_EQ(Expect + std::string("CORRUPTED sender stack, size -3, payload [CORRUPTED]}"), Format("$message", &M));
}

TEST_F(LogTest, LongLinesAreCutAt511Characters)
{
    std::string Long(512, 'a'); // one more than fits, to the byte
    EXPECT_EQ(std::string(511, 'a'), Format(Long.c_str()));
    EXPECT_EQ(std::string(511, 'b'), Format("%s%s", std::string(300, 'b').c_str(),
                                            std::string(300, 'b').c_str()));
    // A piece that ends exactly at 511 characters leaves room for nothing more.
    std::string Exact(511, 'c');
    EXPECT_EQ(Exact, Format("%sxyz%d", Exact.c_str(), 5));
    std::string Near(510, 'd');
    EXPECT_EQ(Near + "x", Format("%sxyz", Near.c_str()));
}

} // namespace
