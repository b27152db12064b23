// SPDX-License-Identifier: Apache-2.0
// Refusal lines, each kind and source written at most once a second with
// a count of the rest.
#include "refusals.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>

namespace {

constexpr int64_t kWindowMs = 1000;

int64_t jNowMs()
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return (int64_t)Now.tv_sec * 1000 + Now.tv_nsec / 1000000;
}

void jWriteSummary(const RefusalWindow &W)
{
    if (W.More != 0)
        fprintf(stderr, "%s ... and %llu more like it in the last second\n", W.FirstLine.c_str(),
                (unsigned long long)W.More);
}

// Closes the windows that ended by Now (Mutex held).
void jFlush_NeedsLock(RefusalLog &Log, int64_t Now)
{
    if (Now < Log.NextEndMs)
        return;
    int64_t NextEnd = INT64_MAX;
    for (auto It = Log.Windows.begin(); It != Log.Windows.end();) {
        const bool bEnded = It->second.EndMs <= Now;
        if (bEnded)
            jWriteSummary(It->second);
        else
            NextEnd = std::min(NextEnd, It->second.EndMs);
        It = bEnded ? Log.Windows.erase(It) : std::next(It);
    }
    Log.NextEndMs = NextEnd;
}

} // namespace

void RefusalSay(RefusalLog *pLog, const std::string &Source, const std::string &Kind, const std::string &Line)
{
    const int64_t Now = jNowMs();
    std::lock_guard<std::mutex> Lock(pLog->Mutex);
    jFlush_NeedsLock(*pLog, Now);
    RefusalWindow &W = pLog->Windows[Source + '\n' + Kind];
    if (W.EndMs != 0) {
        W.More++;
        return;
    }
    W.EndMs = Now + kWindowMs;
    W.FirstLine = Line;
    pLog->NextEndMs = std::min(pLog->NextEndMs.load(), W.EndMs);
    fprintf(stderr, "%s\n", Line.c_str());
}

void RefusalFlush(RefusalLog *pLog)
{
    if (pLog->NextEndMs.load(std::memory_order_relaxed) == INT64_MAX)
        return; // nothing open: no clock read, no lock
    std::lock_guard<std::mutex> Lock(pLog->Mutex);
    jFlush_NeedsLock(*pLog, jNowMs());
}

int RefusalNextMs(RefusalLog *pLog)
{
    std::lock_guard<std::mutex> Lock(pLog->Mutex);
    if (pLog->NextEndMs == INT64_MAX)
        return -1;
    return (int)std::max<int64_t>(0, pLog->NextEndMs - jNowMs());
}
