// SPDX-License-Identifier: Apache-2.0
// The user message log: configuration rules, record sizes, dropping the
// oldest records, wrap-around, and both dumps.
#include "test_kit.h"

#include <syslog.h>

namespace {

const LocalEndpoint *const kAnyEndpoint = (const LocalEndpoint *)&kAnyEndpoint; // tested, never read

struct FakeMsg {
    MSG_Msg Header;
    uint8_t Payload[256];
};

FakeMsg Msg(uint32_t Type, uint32_t Seq, int32_t PayloadBytes)
{
    FakeMsg M = {};
    M.Header.MsgType = Type;
    M.Header.Sequence = Seq;
    M.Header.PayloadBytes = PayloadBytes;
    for (int i = 0; i < 256; i++)
        M.Payload[i] = (uint8_t)(i + 1);
    return M;
}

// An empty ring of the given size (a new size always empties it).
void FreshRing(int32_t Bytes, int32_t Truncate)
{
    ASSERT_EQ(0u, MSG_UserLogConfig(Bytes + 4, Truncate, 3));
    ASSERT_EQ(0u, MSG_UserLogConfig(Bytes, Truncate, 3));
    TakeLoggedLines();
}

std::string DumpToFile()
{
    char Path[] = "/tmp/orvane-userlog-XXXXXX";
    close(mkstemp(Path));
    EXPECT_EQ(0u, MSG_UserLogDump(Path));
    const std::string Bytes = ReadFile(Path);
    unlink(Path);
    return Bytes;
}

uint32_t WordAt(const std::string &Bytes, size_t Offset)
{
    uint32_t Word;
    memcpy(&Word, Bytes.data() + Offset, 4);
    return Word;
}

TEST(UserLog, ConfigurationRules)
{
    EXPECT_EQ(0u, MSG_UserLogConfig(1024, 64, 3));
    EXPECT_EQ(3u, MSG_UserLogGetFlag());
    struct {
        int32_t Bytes, Truncate;
        uint32_t Flag;
    } Refused[] = {{1024, 64, 4}, {1022, 64, 1}, {1024, 62, 1}, {100, 64, 1}, {0, 4, 1}, {1024, 0, 1}, {-8, 4, 1}};
    for (const auto &R : Refused)
        EXPECT_EQ(301u, MSG_UserLogConfig(R.Bytes, R.Truncate, R.Flag)) << R.Bytes << " " << R.Truncate;
    EXPECT_EQ(3u, MSG_UserLogGetFlag()) << "a refused configuration changes nothing";
    EXPECT_EQ(0u, MSG_UserLogConfig(104, 64, 1));
    std::vector<LoggedLine> Lines = TakeLoggedLines();
    ASSERT_FALSE(Lines.empty());
    EXPECT_NE(std::string::npos, Lines.back().Text.find("liborvane: LogBuffer={,104,64,0,0,0x"));
    EXPECT_EQ(LOG_INFO, Lines.back().Level);
}

TEST(UserLog, RecordsKeepAtMostTruncateBytes)
{
    FreshRing(1024, 64);
    FakeMsg Ten = Msg(0x80000005, 1, 10), Hundred = Msg(0x80000006, 2, 100);
    EXPECT_EQ(0u, MSG_UserLogSave(kAnyEndpoint, 0x11, 0x22, &Ten.Header));
    EXPECT_EQ(0u, MSG_UserLogSave(kAnyEndpoint, 0x11, 0x22, &Hundred.Header));
    const std::string Bytes = DumpToFile();
    // The record layout is the orvane command's to decode; here, the sizes.
    ASSERT_EQ(48u + 100u, Bytes.size());
    EXPECT_EQ(10u, WordAt(Bytes, 16));
    EXPECT_EQ(12u, WordAt(Bytes, 20)) << "rounded up to whole words";
    EXPECT_EQ(std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\0\0", 12), Bytes.substr(36, 12));
    EXPECT_EQ(100u, WordAt(Bytes, 48 + 16));
    EXPECT_EQ(64u, WordAt(Bytes, 48 + 20));

    EXPECT_EQ(301u, MSG_UserLogSave(nullptr, 1, 2, &Ten.Header));
    EXPECT_EQ(301u, MSG_UserLogSave(kAnyEndpoint, 0, 2, &Ten.Header));
    EXPECT_EQ(301u, MSG_UserLogSave(kAnyEndpoint, 1, 0, &Ten.Header));
    FakeMsg Corrupt = Msg(1, 1, -3);
    EXPECT_EQ(3u, MSG_UserLogSave(kAnyEndpoint, 1, 2, &Corrupt.Header));
    EXPECT_EQ(148u, DumpToFile().size()) << "nothing recorded for refused saves";
}

TEST(UserLog, OldestRecordsMakeRoomAndRecordsWrap)
{
    FreshRing(256, 12);
    for (uint32_t i = 1; i <= 5; i++) {
        FakeMsg M = Msg(0x80000001, i, 12);
        MSG_UserLogSave(kAnyEndpoint, 1, 2, &M.Header);
    }
    EXPECT_EQ(5u * 48u, DumpToFile().size());
    for (uint32_t i = 6; i <= 9; i++) {
        FakeMsg M = Msg(0x80000001, i, 12);
        MSG_UserLogSave(kAnyEndpoint, 1, 2, &M.Header);
    }
    // Five records at most fit below 256 bytes; the newest five remain,
    // oldest first and contiguous, although they wrapped in the ring.
    const std::string Bytes = DumpToFile();
    ASSERT_EQ(5u * 48u, Bytes.size());
    for (uint32_t r = 0; r < 5; r++) {
        EXPECT_EQ(MSG_USER_LOG_MAGIC_NUMBER, WordAt(Bytes, r * 48));
        EXPECT_EQ(5 + r, WordAt(Bytes, r * 48 + 32));
    }

    EXPECT_EQ(0u, MSG_UserLogConfig(256, 8, 1));
    EXPECT_EQ(5u * 48u, DumpToFile().size()) << "the same size keeps the records";
    EXPECT_EQ(0u, MSG_UserLogConfig(512, 8, 1));
    EXPECT_EQ(0u, DumpToFile().size()) << "a new size empties the ring";
}

TEST(UserLog, DumpToTheDiagnosticLogAndToAFileThatCannotBeWritten)
{
    FreshRing(1024, 16);
    FakeMsg Five = Msg(0x80000042, 7, 5), Two = Msg(0x80000043, 8, 2), Empty = Msg(0x80000044, 9, 0);
    Two.Payload[0] = 0xAB;
    Two.Payload[1] = 0xCD;
    MSG_UserLogSave(kAnyEndpoint, 0x10001, 0x10002, &Five.Header);
    MSG_UserLogSave(kAnyEndpoint, 0x10001, 0x10002, &Two.Header);
    MSG_UserLogSave(kAnyEndpoint, 0x10001, 0x10002, &Empty.Header);
    EXPECT_EQ(0u, MSG_UserLogDump(nullptr));
    std::vector<LoggedLine> Lines = TakeLoggedLines();
    ASSERT_EQ(4u, Lines.size()) << "the state line and one line per record (the outcome line is filtered)";
    EXPECT_NE(std::string::npos, Lines[0].Text.find("LogBuffer={,BufferBytes=1024,TruncateBytes=16,Head=0,Tail=120,"));
    EXPECT_NE(std::string::npos, Lines[1].Text.find("liborvane:   [0]={,"));
    EXPECT_NE(std::string::npos, Lines[1].Text.find(",0x10001=>0x10002,5,8,,{0x80000042,7,[0x1,0x2,0x3,0x4,...]}}\n"));
    EXPECT_NE(std::string::npos, Lines[2].Text.find("[1]={,"));
    EXPECT_NE(std::string::npos, Lines[2].Text.find(",2,4,,{0x80000043,8,[0xab,0xcd]}}\n"));
    EXPECT_NE(std::string::npos, Lines[3].Text.find(",0,0,,{0x80000044,9,[]}}\n"));
    for (const LoggedLine &L : Lines)
        EXPECT_EQ(LOG_INFO, L.Level);

    // A dump file that cannot be written is a system error.
    EXPECT_EQ(203u, MSG_UserLogDump("/nonexistent-dir/dump"));
    Lines = TakeLoggedLines();
    ASSERT_EQ(2u, Lines.size());
    EXPECT_NE(std::string::npos, Lines[0].Text.find("system function error: fopen(\"/nonexistent-dir/dump\",), result 2\n"));
    EXPECT_NE(std::string::npos, Lines[1].Text.find("MSG_UserLogDump: result 203/system error: file \"/nonexistent-dir/dump\"\n"));
}

} // namespace
