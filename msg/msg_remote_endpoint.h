/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_remote_endpoint.h - each local endpoint's table of remote endpoints.
 *
 * A remote endpoint is a peer the local endpoint deals with: opened by name
 * (hunted, then open, then supervised by a LINX attach) or known only by
 * its LINX id.  Each record owns a pair of internal message types, handed
 * out process-wide: the open type (even) arrives when the hunted name
 * appears, the close type (odd, open + 1) when the attached peer goes.
 *
 * An attach that can no longer matter (its record was deleted, or refreshed
 * with new types) is withdrawn from LINX: its reference is queued on the
 * endpoint and detached by the next MSG_AttachAsNeeded, which the receive
 * loop runs before every wait.  Detaching there, rather than at once, keeps
 * a deletion from waiting for a receive that holds the endpoint's
 * LinxMutex; and without it LINX would keep every attach of a peer that is
 * opened and closed again and again for as long as that peer lives.
 *
 * Locks: the local endpoint's RemoteMutex guards the table, every record
 * and the withdrawn attaches; attaching and detaching take the endpoint's
 * LinxMutex inside it.  The type
 * counter has a mutex of its own, taken with nothing under it.
 */
#ifndef MSG_REMOTE_ENDPOINT_H
#define MSG_REMOTE_ENDPOINT_H

#include "msg_local_endpoint.h"

struct RemoteEndpoint {
    RemoteEndpoint *pNext;
    uint32_t RemoteId;     // the peer's SPID while open, 0 while hunted
    uint32_t NtfyOpen;     // even internal type announcing the peer
    uint32_t NtfyClose;    // NtfyOpen + 1, announcing its end
    uint32_t bAttached;    // an attach was attempted for RemoteId
    uint32_t bDelOnClose;  // removed when the peer closes (else hunted again)
    LINX_OSATTREF AttachRef; // the attach on RemoteId while it may still fire, else 0
    char Name[];           // full LINX path, or empty for a nameless record
};

// The open type handed out after Current: pairs run 0x10000000/0x10000001
// up to 0x1FFFFFFE/0x1FFFFFFF, then start again.
static inline uint32_t jNextOpenCloseType(uint32_t Current)
{
    const uint32_t Next = (Current + 2) & ~1u;
    return Next + 1 >= MSG_NTFY_REQ_REGISTER ? MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN : Next;
}

// A 56-byte hunt or attach signal of Type (bit 31 set here), handed to LINX
// and so no longer counted as held by the tracker.
MSG_Status jAllocEventSignal(LocalEndpoint *pEndpoint, MSG_Type Type, MSG_Msg **ppSignal);

#endif /* MSG_REMOTE_ENDPOINT_H */
