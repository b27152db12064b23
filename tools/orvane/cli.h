/* SPDX-License-Identifier: Apache-2.0 */
/*
 * cli.h - what the subcommands of the orvane command share.
 *
 * orvane is one program over the public headers only (orvane.h, linx.h):
 * each subcommand is a CLI11 subcommand added by one Add* function and run
 * by its callback on the main thread.  A subcommand fails by throwing
 * Failure with a sentence that says what went wrong and what to do; main
 * prints it as "orvane: ..." and exits 1.  Usage errors are CLI11's and
 * exit 2.  Output that scripts read (--json) is built with nlohmann-json,
 * one document per run or one object per line for streams.
 */
#ifndef ORVANE_CLI_H
#define ORVANE_CLI_H

#include <stdint.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace cli {

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void AddPeerCommands(CLI::App &App);    // list, hunt, watch, stat
void AddMessageCommands(CLI::App &App); // send, subscribe
void AddCaptureCommand(CLI::App &App);
void AddUserLogCommand(CLI::App &App);
void AddConfigCommands(CLI::App &App);

// The local wall-clock time, "2026-11-23T10:15:02.123".
std::string TimeStamp();
// "0x1a2b".
std::string Hex(uint32_t Value);
// Bytes as lower-case hex digits, without separators.
std::string HexDigits(const uint8_t *pBytes, size_t Count);
// A classic dump: offset, 16 bytes in hex, the printable ones as text.
std::string HexDump(const uint8_t *pBytes, size_t Count, const char *pIndent);
// A whole file; Failure when it cannot be read.
std::string ReadFile(const std::string &Path);
// Writes a whole file; Failure when it cannot be written.
void WriteFile(const std::string &Path, const std::string &Bytes);
// Installs the SIGINT/SIGTERM handlers of the waiting subcommands.
void CatchStopSignals();
bool StopRequested();
// Waits end this often, so that a stop signal is seen.
constexpr int kSliceMs = 100;
// Calls Try(SliceMs) until it returns true, for at most TimeoutMs in all
// (-1: without limit) and until a stop signal; false when time ran out or
// a stop signal came.
bool WaitInSlices(int TimeoutMs, const std::function<bool(int SliceMs)> &Try);

// A duration: a number with a unit (500ms, 2s, 1.5s, 1m; a bare number is
// milliseconds).  A timeout (bForever) may also be 0 (only what is there
// now) or "forever" / -1 (read as -1); a period is more than 0.
CLI::Validator Duration(bool bForever);
int ParseDurationMs(const std::string &Text);
// A whole number from Least up, with a message that says so.
CLI::Validator Count(long Least);

// Refuses a bad LINXD_INSTANCE, and on a host without the LINX kernel
// module an instance that is not running (for the read-only verbs).
void RequireRunningInstance();
// Why opening LINX failed (errno Error, 0 when unknown), with the instance
// it tried; Failure for a bad LINXD_INSTANCE.
std::string WhyLinxFailed(int Error);

// A number from 0 to Most, decimal or 0x-hex; What names it in the refusal.
CLI::Validator NumberUpTo(uint32_t Most, const std::string &What, const std::string &Name);
// A user message type: a number below 0x1000000, decimal or 0x-hex.
CLI::Validator UserType();
uint32_t ParseNumber(const std::string &Text);
// Hex digits, optionally separated by spaces, colons or dashes.
CLI::Validator HexPayload();
std::vector<uint8_t> ParseHexPayload(const std::string &Text);

} // namespace cli

#endif // ORVANE_CLI_H
