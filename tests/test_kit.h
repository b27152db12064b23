/* SPDX-License-Identifier: Apache-2.0 */
// The one header of the test programs: the headers they all use, and the
// helpers they share (test_kit.cc, log_capture.cc; link_test_util.h for
// the tests that join nodes, host_kit.h with the benchmarks).  Every test
// process talks to a linxd instance of its own, named at load.
#pragma once

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host_kit.h"
#include "linx.h"
#include "orvane.h"

// ---- Processes, linxd instances and LINX signals ----------------------------

const std::string &TestInstance();

// Runs Body in a forked child that exits with Body's result, and is
// killed if this process ends first.
pid_t StartChild(const std::function<int()> &Body);
// Waits for the child; its exit code, or 128 + signal number (-1 when
// Child is no child: a start that failed).
int WaitChild(pid_t Child);
// Sends Signal to the child, if one was started, and waits for it.
int StopChild(pid_t Child, int Signal = SIGKILL);

// Pids of the linxd processes serving Instance.
std::vector<pid_t> FindLinxd(const std::string &Instance);
// Starts linxd for Instance in the foreground with Args, its standard
// error in LogPath (appended to from the second start on), and waits until
// it serves: until the log says so for the Starts-th time.
pid_t StartLinxd(const std::string &Instance, const std::vector<std::string> &Args, const std::string &LogPath,
                 int Starts = 1);
// Signal rings mapped into process Pid: those of other processes it reads,
// its own it writes, and its spare.
int RingMappings(pid_t Pid);

// Runs Body(0) to Body(Count - 1) in threads of their own, all at once,
// and returns when every one has.
void InThreads(int Count, const std::function<void(int)> &Body);

// The monotonic clock in milliseconds.
int64_t NowMs();
// Whether Done() came true within TimeoutMs (asked every 10 ms).
bool WaitFor(const std::function<bool()> &Done, int TimeoutMs);

// A signal of the given number whose second word is Value.
union LINX_SIGNAL *NewSignal(LINX *pLinx, uint32_t SigNo, uint32_t Value, uint32_t Size = 8);
// Sends such a signal to To: 0, or the errno of the refusal.
int SendSignal(LINX *pLinx, LINX_SPID To, uint32_t SigNo, uint32_t Value, uint32_t Size = 8);
uint32_t SigNoOf(const union LINX_SIGNAL *pSig);
uint32_t ValueOf(const union LINX_SIGNAL *pSig);

// Receives one signal within TimeoutMs; returns its number (0 on timeout)
// and frees it, storing its value and sender when asked.
uint32_t ReceiveOne(LINX *pLinx, int TimeoutMs, uint32_t *pValue = nullptr,
                    LINX_SPID *pSender = nullptr, const LINX_SIGSELECT *pSel = nullptr);
// Hunts for Name and waits for the answer; the peer's SPID, 0 on timeout.
LINX_SPID HuntAndWait(LINX *pLinx, const char *pName, int TimeoutMs);

// How many refusals the lines of Log tell of that contain What: one for a
// line, and the count of a summary ("... and 99 more like it ...").  At
// most two lines a second of a kind may tell of them.
int Refusals(const std::string &Log, const std::string &What, int *pLines);

// ---- Messages and peers of the message layer --------------------------------

uint32_t FindSpid(const char *pLocal, const char *pName, int TimeoutMs = 5000);

// A message whose payload is zeroed: nothing uninitialised is ever sent.
MSG_Msg *NewMsg(MSG_Type Type, uint32_t Sequence, uint32_t PayloadBytes);

// A child process that opens the public endpoint Name and waits to be
// killed; returns once the endpoint is open.
pid_t StartPeer(const char *pName);

// The SPID of this process's local endpoint Name.
uint32_t SpidOf(const char *pName);

// Sends Size raw bytes from pFrom to To, as another process might.
void SendRaw(LINX *pFrom, LINX_SPID To, const void *pBytes, uint32_t Size);

// Serves the local public endpoint's receive loop until Done() holds or
// TimeoutMs passes, asking Done() at least every StepMs (callbacks run
// inside the receive, which returns only for user messages); user messages
// are released.  Returns Done().
bool Pump(const char *pLocal, int TimeoutMs, const std::function<bool()> &Done, int StepMs = 20);

// Serves the public endpoint Name in this process: every request is
// answered with the same message turned into a response (type | 1), until a
// request of type kQuitType arrives.  Returns 0 when it quit cleanly.
constexpr MSG_Type kQuitType = 0x7F0;
int ServeEcho(const char *pName);

// A test of the message layer: it starts with the debug flag clear, the
// public endpoints Names open and nothing captured of the log, and ends by
// closing them and this thread's private endpoint, and clearing the flag.
class MessageLayerTest : public testing::Test {
protected:
    explicit MessageLayerTest(std::vector<std::string> Names = {}) : mNames(std::move(Names)) {}
    void SetUp() override;
    void TearDown() override;

private:
    std::vector<std::string> mNames;
};

// ---- What the library writes to syslog (log_capture.cc) ----------------------

// Captures what the library writes to syslog, by interposing syslog in the
// test program: the library's calls resolve to the executable's definition,
// so production code stays untouched.  Optionally fakes CLOCK_MONOTONIC.
struct LoggedLine {
    int Level;
    std::string Text;
};

// Lines written since the last call, oldest first; clears the capture.
std::vector<LoggedLine> TakeLoggedLines();
// The text of those lines, one after the other; clears the capture.
std::string TakeLoggedText();
// How often What occurs in Text.
int Occurrences(const std::string &Text, const std::string &What);
// While set, CLOCK_MONOTONIC reads this time; nullptr restores the clock.
void FakeMonotonicClock(const struct timespec *pNow);

// ---- A part of a test in a forked child -------------------------------------

// Runs part of a test in a forked child, for state that a process sets up
// once (identity, configuration).  The child's gtest failures come back
// through its exit code.
template <typename Body> void RunInChild(Body Run)
{
    fflush(nullptr);
    const pid_t Child = fork();
    ASSERT_NE(-1, Child);
    if (Child == 0) {
        Run();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int Status = 0;
    ASSERT_EQ(Child, waitpid(Child, &Status, 0));
    ASSERT_TRUE(WIFEXITED(Status));
    EXPECT_EQ(0, WEXITSTATUS(Status)) << "see the child's failures above";
}
