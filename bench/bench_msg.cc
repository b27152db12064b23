// SPDX-License-Identifier: Apache-2.0
// The message layer's hot paths: an allocate+release pair on the thread's
// private endpoint for sizes from 8 B to the largest signal (the LINX
// handle's shelves serve every size again, so after warm-up it costs no heap
// allocation: the mallocs/op counter shows it), a
// clone of a 1 KiB message, and a dispatch that finds one matching callback
// among 100 registered.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

#include "orvane.h"

extern "C" void *__libc_malloc(size_t);

namespace {
unsigned long gMallocs = 0;
}

// Counts the heap allocations made by everything in this program.
extern "C" __attribute__((visibility("default"))) void *malloc(size_t Size)
{
    __atomic_add_fetch(&gMallocs, 1, __ATOMIC_RELAXED);
    return __libc_malloc(Size);
}

namespace {

void UseOwnInstance()
{
    static const std::string Name = "bench-msg-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Name.c_str(), 1);
}

void AllocRelease(benchmark::State &State)
{
    UseOwnInstance();
    const int32_t Payload = (int32_t)State.range(0);
    MSG_ReleaseMsg(MSG_AllocMsg(1, 0, Payload)); // opens the private endpoint, warms the spare
    const unsigned long Before = gMallocs;
    for (auto _ : State)
        MSG_ReleaseMsg(MSG_AllocMsg(1, 0, Payload));
    State.counters["mallocs/op"] =
        benchmark::Counter((double)(gMallocs - Before), benchmark::Counter::kAvgIterations);
}
BENCHMARK(AllocRelease)->Arg(8)->Arg(64)->Arg(1024 - MSG_HEADER_BYTES)->Arg(4096)->Arg(65536)->Arg(256 * 1024 - MSG_HEADER_BYTES);

void Clone1KiB(benchmark::State &State)
{
    UseOwnInstance();
    MSG_Msg *pOrig = MSG_AllocMsg(1, 0, 1024);
    for (auto _ : State) {
        MSG_Msg *pClone = nullptr;
        MSG_CloneMsg(pOrig, &pClone);
        MSG_ReleaseMsg(pClone);
    }
    MSG_ReleaseMsg(pOrig);
}
BENCHMARK(Clone1KiB);

uint32_t Noop(void *, MSG_Msg *)
{
    return 0;
}

void DispatchOneOf100(benchmark::State &State)
{
    UseOwnInstance();
    MSG_OpenLocal("bench-dispatch");
    for (uint32_t i = 0; i < 100; i++)
        MSG_RegisterCallbackHelper("bench-dispatch", Noop, nullptr, i * 10, i * 10 + 9, 0);
    MSG_Msg *pMsg = MSG_AllocMsg(555, 0, 16);
    for (auto _ : State)
        benchmark::DoNotOptimize(MSG_ProcessCallback("bench-dispatch", pMsg));
    MSG_ReleaseMsg(pMsg);
    MSG_CloseLocal("bench-dispatch");
}
BENCHMARK(DispatchOneOf100);

} // namespace

BENCHMARK_MAIN();
