/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_notification.h - subscriptions to a public endpoint's messages.
 *
 * A publisher keeps a list of subscriptions, each a range of user types and
 * the LINX id of the subscriber; publishing sends a clone of a message to
 * every subscriber whose range covers its type.  Subscriptions are made by
 * the publisher's own program, or by the subscriber's program through a
 * notification request that the publisher's receive loop handles.  The
 * subscriber is entered in the publisher's remote table as a nameless
 * record, so the loop attaches to it and its death purges its entries.
 *
 * Locks: the publisher's NtfyMutex guards its list.  Publishing holds it
 * for the whole walk, clones and sends included (the thread's own
 * endpoint's LinxMutex is taken inside it), so a subscription never changes
 * under a walk; NtfyMutex comes first in the library's lock order.
 */
#ifndef MSG_NOTIFICATION_H
#define MSG_NOTIFICATION_H

#include "msg_local_endpoint.h"

struct NtfyEntry {
    NtfyEntry *pNext;
    uint32_t MsgTypeMin;
    uint32_t MsgTypeMax; // inclusive
    uint32_t Receiver;   // the subscriber's LINX id, never 0
};

// The payload of a notification request: the range, in host byte order.
// The subscriber is the request's sender.
struct NtfyReq {
    uint32_t MsgTypeMin;
    uint32_t MsgTypeMax;
};

#endif /* MSG_NOTIFICATION_H */
