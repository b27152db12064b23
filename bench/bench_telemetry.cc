// SPDX-License-Identifier: Apache-2.0
// What telemetry adds to a send, measured side by side in one run: a
// stream of 64-byte MSG_SendMsg calls to a receiving process, timed call
// by call (allocation included),
//   - with telemetry off,
//   - with copies of sent traffic on and the collector (orvane-collector,
//     writing to /dev/null) present,
//   - with copies on and no collector: records queue up to 1024, the
//     oldest are counted and given up, and the collector is polled.
// Blocks of the plain send alternate with blocks of the other kind, so
// that both see the same machine.  The slowest send with no collector
// shows that nothing waits for it.
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_util.h"
#include "orvane.h"

namespace {

constexpr int32_t kPayload = 64 - MSG_HEADER_BYTES;
constexpr MSG_Type kData = 0x100;
constexpr int kBlocks = 8;
constexpr int kSendsPerBlock = 4000;
constexpr const char *kSender = "bench-telem-sender";

pid_t StartSink()
{
    const pid_t Child = fork();
    if (Child != 0)
        return Child;
    MSG_OpenLocal("bench-telem-sink");
    for (;;)
        if (MSG_Msg *pMsg = MSG_RecvMsg("bench-telem-sink", kData, MSG_TIMEOUT_FOREVER))
            MSG_ReleaseMsg(pMsg);
}

// The collector program built beside this one's directory.
pid_t StartCollector()
{
    char Self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", Self, sizeof Self - 1) < 0)
        Fail("readlink");
    const std::string Collector = std::string(Self).substr(0, std::string(Self).rfind('/')) + "/../orvane-collector";
    const pid_t Child = fork();
    if (Child == 0) {
        freopen("/dev/null", "w", stderr);
        execl(Collector.c_str(), Collector.c_str(), "-w", "/dev/null", (char *)nullptr);
        _exit(127);
    }
    uint32_t Spid = 0;
    if (MSG_OpenRemoteSync(kSender, "Telemetry", 10000, &Spid) != MSG_OK)
        Fail("the collector did not appear");
    MSG_CloseRemote(kSender, "Telemetry");
    return Child;
}

// Times each send of one block under the given debug flags.
void Sends(uint32_t Sink, uint32_t Flags, std::vector<double> *pSamples)
{
    MSG_DebugSetFlag(Flags);
    for (int i = 0; i < kSendsPerBlock; i++) {
        const double Start = NowUs();
        MSG_Msg *pMsg = MSG_AllocMsg(kData, (uint32_t)i, kPayload);
        while (MSG_SendMsg(kSender, Sink, pMsg) == MSG_ERR_LINX) {
            sched_yield(); // the sink's queue is full (the message was released)
            pMsg = MSG_AllocMsg(kData, (uint32_t)i, kPayload);
        }
        pSamples->push_back(NowUs() - Start);
    }
    MSG_DebugSetFlag(0);
}

double Mean(const std::vector<double> &Samples)
{
    double Sum = 0;
    for (double S : Samples)
        Sum += S;
    return Sum / Samples.size();
}

struct Comparison {
    std::vector<double> Plain, Copied;
};

// Alternating blocks of plain sends and sends under Flags.
Comparison Compare(uint32_t Sink, uint32_t Flags)
{
    Comparison C;
    Sends(Sink, 0, &C.Plain); // warm-up, not counted
    C.Plain.clear();
    for (int Block = 0; Block < kBlocks; Block++) {
        Sends(Sink, 0, &C.Plain);
        Sends(Sink, Flags, &C.Copied);
    }
    return C;
}

void Print(const char *pWhat, const std::vector<double> &Samples, const std::vector<double> &Plain)
{
    printf("%-40s median %5.2f us (%4.2fx)  mean %5.2f us (%4.2fx)  p99 %6.1f us  max %7.1f us\n", pWhat,
           Median(Samples), Median(Samples) / Median(Plain), Mean(Samples), Mean(Samples) / Mean(Plain),
           Percentile(Samples, 0.99), Percentile(Samples, 1.0));
}

} // namespace

int main()
{
    const std::string Instance = "bench-telem-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    const pid_t SinkChild = StartSink();
    if (MSG_OpenLocal(kSender) != MSG_OK)
        Fail("MSG_OpenLocal");
    uint32_t Sink = 0;
    if (MSG_OpenRemoteSync(kSender, "bench-telem-sink", 10000, &Sink) != MSG_OK)
        Fail("the sink did not appear");

    const pid_t CollectorChild = StartCollector();
    const Comparison Present = Compare(Sink, MSG_DEBUG_TELEMETRY_SEND);
    kill(CollectorChild, SIGTERM);
    waitpid(CollectorChild, nullptr, 0);
    const Comparison Absent = Compare(Sink, MSG_DEBUG_TELEMETRY_SEND);

    printf("64 B MSG_SendMsg to another process, %d x %d sends each\n", kBlocks, kSendsPerBlock);
    Print("plain send (beside the collector run)", Present.Plain, Present.Plain);
    Print("send + telemetry copy, collector present", Present.Copied, Present.Plain);
    Print("plain send (beside the no-collector run)", Absent.Plain, Absent.Plain);
    Print("send + telemetry copy, no collector", Absent.Copied, Absent.Plain);
    kill(SinkChild, SIGKILL);
    waitpid(SinkChild, nullptr, 0);
    MSG_CloseLocal(kSender);
    return 0;
}
