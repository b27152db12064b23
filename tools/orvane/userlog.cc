// SPDX-License-Identifier: Apache-2.0
// orvane userlog: a user-log dump file (MSG_UserLogDump with a file name)
// as readable lines.  The file holds raw ring records, oldest first, in
// the writer's byte order: nine 32-bit words (magic, time in ms, from, to,
// payload bytes, stored bytes, reserved, type, sequence), then the stored
// payload bytes.
#include <string.h>

#include <memory>

#include <nlohmann/json.hpp>

#include "cli.h"

namespace cli {
namespace {

using nlohmann::json;

constexpr uint32_t kRecordMagic = 0x5A5AA5A5;
constexpr size_t kHeadBytes = 36;
constexpr uint32_t kUserShift = 0x80000000; // set in the recorded type

struct Record {
    uint32_t Magic, TimeMsec, From, To;
    int32_t PayloadBytes;
    uint32_t StoredBytes, Reserved, MsgType, Sequence;
};
static_assert(sizeof(Record) == kHeadBytes, "the record head is 36 bytes");

// The record at Offset; Failure when none starts there.
Record jRecordAt(const std::string &Path, const std::string &Bytes, size_t Offset)
{
    Record R;
    if (Bytes.size() - Offset < kHeadBytes)
        throw Failure(Path + ": the record at byte " + std::to_string(Offset) + " is cut short (" +
                      std::to_string(Bytes.size() - Offset) + " bytes left of a 36-byte head)");
    memcpy(&R, Bytes.data() + Offset, sizeof R);
    if (R.Magic != kRecordMagic)
        throw Failure(Path + ": no record starts at byte " + std::to_string(Offset) + " (" + Hex(R.Magic) +
                      " instead of 0x5a5aa5a5): not a user-log dump of MSG_UserLogDump, or damaged");
    if (R.StoredBytes % 4 != 0 || R.StoredBytes > Bytes.size() - Offset - kHeadBytes)
        throw Failure(Path + ": the record at byte " + std::to_string(Offset) + " claims " +
                      std::to_string(R.StoredBytes) + " stored payload bytes; the file is damaged or cut short");
    return R;
}

void jPrintRecord(size_t Index, const Record &R, const uint8_t *pKept, size_t Kept)
{
    std::string Payload;
    for (size_t i = 0; i < Kept; i++)
        Payload += (i ? " " : "") + HexDigits(pKept + i, 1);
    if ((size_t)std::max(R.PayloadBytes, 0) > Kept)
        Payload += Kept ? " ..." : "...";
    printf("[%zu] %u.%03u %s=>%s type %s sequence %u, %d bytes: %s\n", Index, R.TimeMsec / 1000, R.TimeMsec % 1000,
           Hex(R.From).c_str(), Hex(R.To).c_str(), Hex(R.MsgType & ~kUserShift).c_str(), R.Sequence, R.PayloadBytes,
           Payload.c_str());
}

void jUserLog(const std::string &Path, bool bJson)
{
    const std::string Bytes = ReadFile(Path);
    json Out = json::array();
    size_t Index = 0;
    for (size_t Offset = 0; Offset < Bytes.size(); Index++) {
        const Record R = jRecordAt(Path, Bytes, Offset);
        const uint8_t *pKept = (const uint8_t *)Bytes.data() + Offset + kHeadBytes;
        const size_t Kept = std::min((size_t)std::max(R.PayloadBytes, 0), (size_t)R.StoredBytes);
        if (bJson)
            Out.push_back({{"index", Index}, {"time_ms", R.TimeMsec}, {"from", Hex(R.From)}, {"to", Hex(R.To)},
                           {"type", Hex(R.MsgType & ~kUserShift)}, {"sequence", R.Sequence},
                           {"payload_bytes", R.PayloadBytes}, {"payload", HexDigits(pKept, Kept)}});
        else
            jPrintRecord(Index, R, pKept, Kept);
        Offset += kHeadBytes + R.StoredBytes;
    }
    if (bJson)
        printf("%s\n", Out.dump(2).c_str());
}

} // namespace

void AddUserLogCommand(CLI::App &App)
{
    auto Path = std::make_shared<std::string>();
    auto Json = std::make_shared<bool>(false);
    auto *pUserLog = App.add_subcommand("userlog", "Decode a user-log dump file (MSG_UserLogDump) into readable lines");
    pUserLog->add_option("FILE", *Path, "The dump file")->required();
    pUserLog->add_flag("--json", *Json,
                       "One JSON array, an object per record: index, time_ms, from, to, type, sequence, "
                       "payload_bytes, payload (the bytes kept)");
    pUserLog->footer("Each line: [index] monotonic seconds.ms sender=>receiver type, sequence, payload size and the "
                     "payload bytes kept (... when the message was longer).");
    pUserLog->callback([Path, Json] { jUserLog(*Path, *Json); });
}

} // namespace cli
