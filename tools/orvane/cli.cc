// SPDX-License-Identifier: Apache-2.0
// The helpers every subcommand shares: see cli.h.
#include "cli.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>


#include "stop_signals.h"

namespace cli {

std::string TimeStamp()
{
    struct timespec Now;
    clock_gettime(CLOCK_REALTIME, &Now);
    struct tm Local;
    localtime_r(&Now.tv_sec, &Local);
    char Text[40];
    const size_t Length = strftime(Text, sizeof Text, "%Y-%m-%dT%H:%M:%S", &Local);
    snprintf(Text + Length, sizeof Text - Length, ".%03ld", Now.tv_nsec / 1000000);
    return Text;
}

std::string Hex(uint32_t Value)
{
    char Text[16];
    snprintf(Text, sizeof Text, "0x%x", Value);
    return Text;
}

std::string HexDigits(const uint8_t *pBytes, size_t Count)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string Text;
    for (size_t i = 0; i < Count; i++) {
        Text += kDigits[pBytes[i] >> 4];
        Text += kDigits[pBytes[i] & 15];
    }
    return Text;
}

std::string HexDump(const uint8_t *pBytes, size_t Count, const char *pIndent)
{
    std::string Dump;
    for (size_t Line = 0; Line < Count; Line += 16) {
        char Text[96];
        int Used = snprintf(Text, sizeof Text, "%s%04zx ", pIndent, Line);
        std::string Printable;
        for (size_t i = Line; i < Line + 16; i++) {
            if (i < Count)
                Used += snprintf(Text + Used, sizeof Text - Used, " %02x", pBytes[i]);
            else
                Used += snprintf(Text + Used, sizeof Text - Used, "   ");
            if (i < Count)
                Printable += pBytes[i] >= 0x20 && pBytes[i] < 0x7F ? (char)pBytes[i] : '.';
        }
        Dump += std::string(Text) + "  |" + Printable + "|\n";
    }
    return Dump;
}

std::string ReadFile(const std::string &Path)
{
    FILE *pFile = fopen(Path.c_str(), "rb");
    if (pFile == nullptr)
        throw Failure("cannot read " + Path + ": " + strerror(errno));
    std::string Bytes;
    char Block[65536];
    size_t Got;
    while ((Got = fread(Block, 1, sizeof Block, pFile)) > 0)
        Bytes.append(Block, Got);
    const int Error = ferror(pFile) ? errno : 0;
    fclose(pFile);
    if (Error != 0)
        throw Failure("cannot read " + Path + ": " + strerror(Error));
    return Bytes;
}

void WriteFile(const std::string &Path, const std::string &Bytes)
{
    FILE *pFile = fopen(Path.c_str(), "wb");
    if (pFile == nullptr)
        throw Failure("cannot write " + Path + ": " + strerror(errno));
    const bool bWritten = fwrite(Bytes.data(), 1, Bytes.size(), pFile) == Bytes.size();
    const int Error = errno;
    if (fclose(pFile) != 0 || !bWritten)
        throw Failure("cannot write " + Path + ": " + strerror(bWritten ? errno : Error));
}

void CatchStopSignals()
{
    if (stop_signals_install() != 0)
        throw Failure(std::string("cannot catch SIGINT and SIGTERM: ") + strerror(errno));
}

bool StopRequested()
{
    return stop_requested() != 0;
}

bool WaitInSlices(int TimeoutMs, const std::function<bool(int SliceMs)> &Try)
{
    for (int Waited = 0; !StopRequested() && (TimeoutMs < 0 || Waited < TimeoutMs); Waited += kSliceMs)
        if (Try(TimeoutMs < 0 ? kSliceMs : std::min(kSliceMs, TimeoutMs - Waited)))
            return true;
    return false;
}

namespace {

bool jParseNumber(const std::string &Text, uint32_t *pValue)
{
    if (Text.empty() || Text[0] == '-' || Text[0] == '+')
        return false;
    char *pEnd = nullptr;
    errno = 0;
    const unsigned long long Value = strtoull(Text.c_str(), &pEnd, 0);
    if (errno != 0 || *pEnd != '\0' || Value > 0xFFFFFFFFull)
        return false;
    *pValue = (uint32_t)Value;
    return true;
}

int jHexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Why Text is not a hex payload, or empty when it is one.
std::string jHexPayloadError(const std::string &Text, std::vector<uint8_t> *pBytes)
{
    int High = -1;
    for (size_t i = 0; i < Text.size(); i++) {
        const char c = Text[i];
        if (c == ' ' || c == ':' || c == '-') {
            if (High >= 0)
                return "odd number of hex digits before position " + std::to_string(i + 1);
            continue;
        }
        const int Digit = jHexDigit(c);
        if (Digit < 0)
            return std::string("'") + c + "' at position " + std::to_string(i + 1) + " is not a hex digit";
        if (High < 0) {
            High = Digit;
        } else {
            if (pBytes != nullptr)
                pBytes->push_back((uint8_t)(High << 4 | Digit));
            High = -1;
        }
    }
    return High >= 0 ? "odd number of hex digits" : "";
}

// Milliseconds of a duration, or -2 when Text is not one.
long jDurationMs(const std::string &Text, bool bForever)
{
    if (bForever && (Text == "forever" || Text == "-1"))
        return -1;
    if (Text.empty() || !isdigit((unsigned char)Text[0]))
        return -2;
    char *pUnit = nullptr;
    errno = 0;
    const double Value = strtod(Text.c_str(), &pUnit);
    const std::string Unit = pUnit;
    const double Scale = Unit.empty() || Unit == "ms" ? 1 : Unit == "s" ? 1000 : Unit == "m" ? 60000 : -1;
    const double Ms = Value * Scale;
    if (errno != 0 || Scale < 0 || Ms > (double)(1 << 30))
        return -2;
    return (long)(Ms + 0.999);
}

} // namespace

CLI::Validator Duration(bool bForever)
{
    return CLI::Validator(
        [bForever](std::string &Text) -> std::string {
            const long Ms = jDurationMs(Text, bForever);
            if (bForever ? Ms >= -1 : Ms > 0)
                return "";
            return "a duration is a number with a unit, as 500ms, 2s or 1m (a bare number is milliseconds), "
                   "at most 12 days" + std::string(bForever ? ", or forever (also -1)" : ", more than 0") + ": not \"" +
                   Text + "\"";
        },
        bForever ? "DURATION|forever" : "DURATION");
}

int ParseDurationMs(const std::string &Text)
{
    return (int)jDurationMs(Text, true);
}

CLI::Validator Count(long Least)
{
    return CLI::Validator(
        [Least](std::string &Text) -> std::string {
            char *pEnd = nullptr;
            errno = 0;
            const long Value = Text.empty() || !isdigit((unsigned char)Text[0]) ? -1 : strtol(Text.c_str(), &pEnd, 10);
            if (Value >= Least && errno == 0 && *pEnd == '\0')
                return "";
            return "a count is a whole number from " + std::to_string(Least) + " up: not \"" + Text + "\"";
        },
        "N");
}

uint32_t ParseNumber(const std::string &Text)
{
    uint32_t Value = 0;
    jParseNumber(Text, &Value);
    return Value;
}

CLI::Validator NumberUpTo(uint32_t Most, const std::string &What, const std::string &Name)
{
    return CLI::Validator(
        [=](std::string &Text) -> std::string {
            uint32_t Value;
            if (!jParseNumber(Text, &Value) || Value > Most)
                return What + " is a number from 0 to " + Hex(Most) + ", decimal or 0x-hex: not \"" + Text + "\"";
            return "";
        },
        Name);
}

CLI::Validator UserType()
{
    return NumberUpTo(0xFFFFFF, "a message type", "TYPE");
}

CLI::Validator HexPayload()
{
    return CLI::Validator([](std::string &Text) { return jHexPayloadError(Text, nullptr); }, "HEX");
}

std::vector<uint8_t> ParseHexPayload(const std::string &Text)
{
    std::vector<uint8_t> Bytes;
    jHexPayloadError(Text, &Bytes);
    return Bytes;
}

} // namespace cli
