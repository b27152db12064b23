// Helpers of the LINX tests: a private linxd instance per test process,
// child processes, and small signals carrying one number.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "linx.h"

// The linxd instance this test process uses (set at load, unique per process).
const std::string &TestInstance();

// Runs Body in a forked child that exits with Body's result.
pid_t StartChild(const std::function<int()> &Body);
// Waits for the child; its exit code, or 128 + signal number.
int WaitChild(pid_t Child);

// The linxd program beside the library under test.
std::string LinxdBesideLibrary();
// Pids of the linxd processes serving Instance.
std::vector<pid_t> FindLinxd(const std::string &Instance);
// Resident memory of a process in KiB (VmRSS), -1 when it cannot be read.
long RssKiB(pid_t Pid);

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
