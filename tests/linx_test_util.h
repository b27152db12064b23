/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the LINX tests: a private linxd instance per test process,
// child processes, and small signals carrying one number.
#pragma once

#include <signal.h>

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "host_kit.h"
#include "linx.h"

// The linxd instance this test process uses (set at load, unique per process).
const std::string &TestInstance();

// Runs Body in a forked child that exits with Body's result.
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

// The monotonic clock in milliseconds.
int64_t NowMs();
// Whether Done() came true within TimeoutMs (asked every 10 ms).
bool WaitFor(const std::function<bool()> &Done, int TimeoutMs);

// A signal of the given number whose second word is Value.
union LINX_SIGNAL *NewSignal(LINX *pLinx, uint32_t SigNo, uint32_t Value, uint32_t Size = 8);
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
