// SPDX-License-Identifier: Apache-2.0
// The 32-bit side of the ABI test: a process built for i386 (run under
// qemu-i386) that speaks to 64-bit processes through one linxd with the
// LINX user library alone.  It answers one library message the way the
// library's receive and send do: it pushes the sender on the 56-byte
// header's stack, turns the type into its response and sends it to the
// top of the stack, popped.  Then it waits until the 64-bit socket it
// attached to closes.  Exit code 0 when all of that happened.
#include <stdio.h>
#include <string.h>

#include "linx.h"
#include "orvane.h"

static_assert(sizeof(void *) == 4, "built for a 32-bit ABI");

namespace {

int Fail(const char *pWhat)
{
    fprintf(stderr, "abi32_peer: %s\n", pWhat);
    return 1;
}

LINX_SPID HuntFor(LINX *pLinx, const char *pName)
{
    if (linx_hunt(pLinx, pName, nullptr) != 0)
        return 0;
    union LINX_SIGNAL *pSig = nullptr;
    static const LINX_SIGSELECT kHuntAnswer[] = {1, 251};
    if (linx_receive_w_tmo(pLinx, &pSig, 10000, kHuntAnswer) <= 0)
        return 0;
    const LINX_SPID Spid = linx_sender(pLinx, &pSig);
    linx_free_buf(pLinx, &pSig);
    return Spid;
}

} // namespace

int main()
{
    LINX *pLinx = linx_open("peer32", 0, nullptr);
    if (pLinx == nullptr)
        return Fail("linx_open");
    const LINX_SPID Bye = HuntFor(pLinx, "bye64");
    if (Bye == 0 || linx_attach(pLinx, nullptr, Bye) == 0)
        return Fail("hunt and attach bye64");

    union LINX_SIGNAL *pSig = nullptr;
    static const LINX_SIGSELECT kAnyButAttach[] = {(LINX_SIGSELECT)-1, 252}; // a negative count excludes
    if (linx_receive_w_tmo(pLinx, &pSig, 10000, kAnyButAttach) <= 0)
        return Fail("no request");
    MSG_Msg *pMsg = (MSG_Msg *)pSig;
    if (linx_sigsize(pLinx, &pSig) < MSG_HEADER_BYTES || pMsg->InUseMagic != MAGIC_NUM_MSG_ALLOC ||
        pMsg->SendStackSize >= MSG_SEND_STACK_ELEM)
        return Fail("not a library message");
    pMsg->SendStack[pMsg->SendStackSize++] = linx_sender(pLinx, &pSig); // as on receipt
    const LINX_SPID Back = pMsg->SendStack[--pMsg->SendStackSize];      // as a response is sent
    pMsg->MsgType = ((pMsg->MsgType & ~MSG_TYPE_USER_SHIFT) | 1) | MSG_TYPE_USER_SHIFT;
    if (linx_send(pLinx, &pSig, Back) != 0)
        return Fail("answer");

    static const LINX_SIGSELECT kAttach[] = {1, 252};
    if (linx_receive_w_tmo(pLinx, &pSig, 10000, kAttach) <= 0 || linx_sender(pLinx, &pSig) != Bye)
        return Fail("no attach signal for bye64");
    linx_free_buf(pLinx, &pSig);
    linx_close(pLinx);
    return 0;
}
