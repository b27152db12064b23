/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the message-layer tests that involve other processes.
#pragma once

#include <sys/types.h>

#include <functional>

#include "linx_test_util.h"
#include "orvane.h"

// The LINX id of the endpoint Name as the local public endpoint pLocal
// knows it: opened synchronously, as a program would (0 on timeout).
uint32_t FindSpid(const char *pLocal, const char *pName, int TimeoutMs = 5000);

// A message whose payload is zeroed: nothing uninitialised is ever sent.
MSG_Msg *NewMsg(MSG_Type Type, uint32_t Sequence, uint32_t PayloadBytes);

// A child process that opens the public endpoint Name and waits to be
// killed; returns once the endpoint is open.
pid_t StartPeer(const char *pName);

// Serves the local public endpoint's receive loop until Done() holds or
// TimeoutMs passes; user messages are released.  Returns Done().
bool Pump(const char *pLocal, int TimeoutMs, const std::function<bool()> &Done);

// Serves the public endpoint Name in this process: every request is
// answered with the same message turned into a response (type | 1), until a
// request of type kQuitType arrives.  Returns 0 when it quit cleanly.
constexpr MSG_Type kQuitType = 0x7F0;
int ServeEcho(const char *pName);
