/* SPDX-License-Identifier: Apache-2.0 */
// Captures what the library writes to syslog, by interposing syslog in the
// test program: the library's calls resolve to the executable's definition,
// so production code stays untouched.  Optionally fakes CLOCK_MONOTONIC.
#pragma once

#include <string>
#include <time.h>
#include <vector>

struct LoggedLine {
    int Level;
    std::string Text;
};

// Lines written since the last call, oldest first; clears the capture.
std::vector<LoggedLine> TakeLoggedLines();
// Also copy each captured line to standard error (for death tests, whose
// child dies before the parent could read its capture).
void EchoLoggedLinesToStderr(bool bEcho);
// While set, CLOCK_MONOTONIC reads this time; nullptr restores the clock.
void FakeMonotonicClock(const struct timespec *pNow);
