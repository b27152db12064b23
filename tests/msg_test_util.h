// Helpers of the message-layer tests that involve other processes.
#pragma once

#include <string>

#include "linx_test_util.h"
#include "orvane.h"

// The SPID of the LINX endpoint of that name, found by a hunt (0 on timeout).
uint32_t FindSpid(const char *pName, int TimeoutMs = 5000);

// Serves the public endpoint Name in this process: every request is
// answered with the same message turned into a response (type | 1), until a
// request of type kQuitType arrives.  Returns 0 when it quit cleanly.
constexpr MSG_Type kQuitType = 0x7F0;
int ServeEcho(const char *pName);
