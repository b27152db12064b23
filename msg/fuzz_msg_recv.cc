// SPDX-License-Identifier: Apache-2.0
// Fuzz harness of the receive path: each input is a signal that another
// process could send to a public endpoint (its first word the signal
// number, the rest its bytes, header included), sent through a raw LINX
// socket.  The endpoint's receive loop takes it; every user message that
// comes out is cloned, dispatched to a callback, answered along its sender
// stack and released.  Nothing another process sends may crash the
// receiver or leak what it allocated.
//
// Built with -DORVANE_FUZZ=ON by clang; runs against a linxd instance of
// its own.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "linx.h"
#include "orvane.h"

namespace {

constexpr const char *kTarget = "fuzz-target";

LINX *gpSender = nullptr;
LINX_SPID gTarget = 0;

uint32_t CountCall(void *pContext, MSG_Msg *)
{
    ++*(int *)pContext;
    return 0;
}

void SetUp()
{
    const std::string Instance = "fuzz-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    static int Calls = 0;
    if (MSG_OpenLocal(kTarget) != MSG_OK ||
        MSG_RegisterCallbackHelper(kTarget, CountCall, &Calls, 0, MSG_TYPE_USER_MAX, 0) != MSG_OK)
        abort();
    gpSender = linx_open("fuzz-sender", 0, nullptr);
    if (gpSender == nullptr || linx_hunt(gpSender, kTarget, nullptr) != 0)
        abort();
    union LINX_SIGNAL *pAnswer = nullptr;
    if (linx_receive_w_tmo(gpSender, &pAnswer, 10000, nullptr) <= 0)
        abort();
    gTarget = linx_sender(gpSender, &pAnswer);
    linx_free_buf(gpSender, &pAnswer);
}

// What the receiver's program does with a user message it was given.
void Serve(MSG_Msg *pMsg)
{
    MSG_Msg *pClone = nullptr;
    if (MSG_CloneMsg(pMsg, &pClone) == MSG_OK)
        MSG_ReleaseMsg(pClone);
    MSG_ProcessCallback(kTarget, pMsg);
    MSG_SetType(pMsg, MSG_GetType(pMsg) | 1); // a response: back along the stack
    const MSG_Status Status = MSG_SendMsg(kTarget, 0, pMsg);
    // Refused before it was handed to LINX: still the caller's.
    if (Status == MSG_ERR_WRONG_PARAMETER || Status == MSG_ERR_NOT_OPEN || Status == MSG_ERR_LOCAL_NOT_FOUND ||
        Status == MSG_ERR_MSG_CORRUPT || Status == MSG_ERR_OWNER_MISMATCH)
        MSG_ReleaseMsg(pMsg);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t Size)
{
    if (gpSender == nullptr)
        SetUp();
    if (Size < sizeof(uint32_t) || Size > 65536)
        return 0;
    uint32_t SigNo;
    memcpy(&SigNo, pData, sizeof SigNo);
    union LINX_SIGNAL *pSig = linx_alloc(gpSender, (LINX_OSBUFSIZE)Size, SigNo);
    if (pSig == nullptr)
        return 0;
    memcpy(pSig, pData, Size);
    if (linx_send(gpSender, &pSig, gTarget) != 0)
        return 0;
    while (MSG_Msg *pMsg = MSG_RecvAnyMsg(kTarget, 0))
        Serve(pMsg);
    // Answers (and anything else) that came back to the sender.
    union LINX_SIGNAL *pBack = nullptr;
    while (linx_receive_w_tmo(gpSender, &pBack, 0, nullptr) > 0)
        linx_free_buf(gpSender, &pBack);
    return 0;
}
