// SPDX-License-Identifier: Apache-2.0
// Cost of the diagnostic log: a filtered outcome line (must not format) and
// a typical outcome line with four tokens (syslog itself replaced by a no-op
// in this program, so only the library's work is measured).
#include <benchmark/benchmark.h>

#include "orvane.h"

extern "C" __attribute__((visibility("default"))) void syslog(int, const char *, ...) {}
extern "C" __attribute__((visibility("default"))) void __syslog_chk(int, int, const char *, ...) {}

namespace {

void BM_FilteredOutcome(benchmark::State &State)
{
    MSG_DebugSetFlag(0);
    for (auto _ : State)
        benchmark::DoNotOptimize(MSG_LogErrFilter(102, "msg_send_receive.c", 100, "MSG_RecvMsg",
                                                  "$progname: $halvo: liborvane: $func: $err: $local\n",
                                                  102, "radio"));
}
BENCHMARK(BM_FilteredOutcome);

void BM_FormattedOutcome(benchmark::State &State)
{
    MSG_DebugSetFlag(MSG_DEBUG_LOG_SUCCESS);
    for (auto _ : State)
        benchmark::DoNotOptimize(MSG_LogErrFilter(
            0, "msg_send_receive.c", 100, "MSG_SendMsg",
            "$progname: $halvo: liborvane: $func: $err: $local, to 0x%x, type 0x%x\n", 0, "radio",
            0x10003u, 0x4711u));
    MSG_DebugSetFlag(0);
}
BENCHMARK(BM_FormattedOutcome);

} // namespace

BENCHMARK_MAIN();
