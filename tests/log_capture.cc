// SPDX-License-Identifier: Apache-2.0
// The test programs' syslog and CLOCK_MONOTONIC, interposed: what the
// library logs is kept for the test to read (see test_kit.h).
#include "test_kit.h"

#include <dlfcn.h>
#include <mutex>
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

namespace {

std::mutex gMutex;
std::vector<LoggedLine> gLines;
bool gbFakeClock = false;
struct timespec gFakeNow;

void jCapture(int Priority, const char *pFormat, va_list Args)
{
    char Text[2048];
    vsnprintf(Text, sizeof Text, pFormat, Args);
    std::lock_guard<std::mutex> Lock(gMutex);
    gLines.push_back({Priority, Text});
}

} // namespace

std::vector<LoggedLine> TakeLoggedLines()
{
    std::lock_guard<std::mutex> Lock(gMutex);
    std::vector<LoggedLine> Lines;
    Lines.swap(gLines);
    return Lines;
}

std::string TakeLoggedText()
{
    std::string Text;
    for (const LoggedLine &L : TakeLoggedLines())
        Text += L.Text;
    return Text;
}

int Occurrences(const std::string &Text, const std::string &What)
{
    int Count = 0;
    for (size_t At = Text.find(What); At != std::string::npos; At = Text.find(What, At + 1))
        Count++;
    return Count;
}

void FakeMonotonicClock(const struct timespec *pNow)
{
    std::lock_guard<std::mutex> Lock(gMutex);
    gbFakeClock = pNow != nullptr;
    if (pNow != nullptr)
        gFakeNow = *pNow;
}

extern "C" __attribute__((visibility("default"))) void syslog(int Priority, const char *pFormat, ...)
{
    va_list Args;
    va_start(Args, pFormat);
    jCapture(Priority, pFormat, Args);
    va_end(Args);
}

extern "C" __attribute__((visibility("default"))) void __syslog_chk(int Priority, int, const char *pFormat, ...)
{
    va_list Args;
    va_start(Args, pFormat);
    jCapture(Priority, pFormat, Args);
    va_end(Args);
}

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t Clock, struct timespec *pNow)
{
    using ClockFn = int (*)(clockid_t, struct timespec *);
    static ClockFn pReal = (ClockFn)dlsym(RTLD_NEXT, "clock_gettime");
    {
        std::lock_guard<std::mutex> Lock(gMutex);
        if (gbFakeClock && Clock == CLOCK_MONOTONIC) {
            *pNow = gFakeNow;
            return 0;
        }
    }
    return pReal(Clock, pNow);
}
