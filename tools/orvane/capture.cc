// SPDX-License-Identifier: Apache-2.0
// orvane capture: the telemetry collector (collector.h), with a live count
// of records per type when standard error is a terminal.
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "cli.h"
#include "collector.h"

namespace cli {
namespace {

struct CaptureArgs {
    std::string Path;
    long MaxRecords = 0;
    std::string Duration; // empty: no limit
};

void jShowCounts(const struct CollectorTotals *pTotals, void *)
{
    std::string Line = "\r";
    for (int i = 0; i < COLLECTOR_RECORD_TYPES; i++)
        Line += std::string(collector_record_name(i)) + " " + std::to_string(pTotals->PerType[i]) + "  ";
    if (pTotals->Refused > 0)
        Line += "refused " + std::to_string(pTotals->Refused);
    fputs(Line.c_str(), stderr);
}

void jCapture(const CaptureArgs &Args)
{
    if (Args.Path == "-" && isatty(STDOUT_FILENO))
        throw Failure("will not write a binary capture to a terminal: give a file, or pipe it, as in "
                      "`orvane capture - | wireshark -k -i -`");
    CatchStopSignals();
    const bool bLive = isatty(STDERR_FILENO) != 0;
    // The collector counts whole seconds: a shorter duration is one.
    const long Seconds = Args.Duration.empty() ? 0 : std::max(1, (ParseDurationMs(Args.Duration) + 999) / 1000);
    const struct CollectorOptions Options = {"orvane capture", Args.Path.c_str(), Args.MaxRecords, Seconds,
                                             bLive ? jShowCounts : nullptr, nullptr};
    struct CollectorTotals Totals;
    const int Result = collector_run(&Options, &Totals);
    if (Result != 0)
        throw Failure("the capture stopped; the lines above say why");
}

} // namespace

void AddCaptureCommand(CLI::App &App)
{
    auto Capture = std::make_shared<CaptureArgs>();
    auto *pCapture = App.add_subcommand(
        "capture", "Collect the telemetry of every process into a pcap file for Wireshark (tools/orvane.lua)");
    pCapture->add_option("FILE", Capture->Path, "The capture file, or - for standard output")->required();
    pCapture->add_option("-c,--count", Capture->MaxRecords, "Stop after this many records")->check(Count(1));
    pCapture->add_option("-t,--duration", Capture->Duration, "Stop after this long: 30s, 2m ... (whole seconds)")
        ->check(Duration(false));
    pCapture->footer("Stops on SIGINT or SIGTERM too.  Processes report to it when their DebugFlag has a telemetry bit set.");
    pCapture->callback([Capture] { jCapture(*Capture); });
}

} // namespace cli
