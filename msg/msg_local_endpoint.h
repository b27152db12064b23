/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_local_endpoint.h - the registry of the process's local endpoints and
 * each thread's current endpoint.
 *
 * A local endpoint is one LINX socket the process opened under a name.
 * Public endpoints (Owner 0) are served by a receive loop; a private one
 * belongs to the thread that opened it and is that thread's current
 * endpoint.  Records sit in one doubly linked registry, newest first.
 *
 * Messages name their owner by a 32-bit token (the header crosses process
 * boundaries and is 56 bytes on every ABI), which the registry maps back to
 * the record; a token from another process or of a closed endpoint maps to
 * nothing.
 *
 * Locks: gRegistryMutex guards the registry links and tokens; each record
 * has LinxMutex (every call on pLinx) and one mutex per list.  Order: a
 * publisher's NtfyMutex, TelemetryMutex, the registry, RemoteMutex,
 * LinxMutex, PendFreeMutex, the tracker's mutex.  The pending-hunt list of
 * a private endpoint is touched only by its owning thread and has no lock.
 *
 * A visit of every endpoint (the dump's) cannot hold the registry mutex
 * while it takes an endpoint's NtfyMutex: a notification being sent holds
 * that mutex and then, for its telemetry copies, the registry's.  So the
 * visit holds a close gate instead (a read lock that deletion takes for
 * writing), notes the registry head under the registry mutex and walks the
 * list after releasing it: with deletions held off, the links it walks
 * cannot change, and endpoints opened meanwhile enter ahead of the noted
 * head, unseen.  The dump then writes each list under its own mutex, one
 * at a time.
 */
#ifndef MSG_LOCAL_ENDPOINT_H
#define MSG_LOCAL_ENDPOINT_H

#include <pthread.h>
#include <stdint.h>

#include "linx.h"
#include "orvane.h"

struct PendFreeEntry;
struct CallbackEntry;
struct RemoteEndpoint;
struct NtfyEntry;
struct PendingHunt;
struct WithdrawnAttach;

struct LocalEndpoint {
    struct LocalEndpoint *pPrev;   // registry neighbours, newest first
    struct LocalEndpoint *pNext;
    pthread_mutex_t LinxMutex;
    LINX *pLinx;
    uint32_t Spid;
    uint32_t bTelemetry;           // 0 for the telemetry endpoints themselves
    pthread_mutex_t PendFreeMutex;
    struct PendFreeEntry *pPendFreeHead; // deferred releases
    pthread_mutex_t RemoteMutex;
    struct RemoteEndpoint *pRemoteHead; // remote endpoint table
    struct WithdrawnAttach *pWithdrawnHead; // attaches to detach (RemoteMutex)
    uint32_t bAttachPending;       // a record may await its attach (RemoteMutex)
    pthread_mutex_t CallbackMutex;
    struct CallbackEntry *pCallbackHead;
    pthread_mutex_t NtfyMutex;
    struct NtfyEntry *pNtfyHead;   // notifications registered by peers
    struct PendingHunt *pPendingHuntHead; // hunts left with LINX: a private
                                          // endpoint's timed-out synchronous opens
                                          // (owner thread only), a public one's
                                          // unanswered hunts (RemoteMutex)
    pthread_t Owner;               // owning thread of a private endpoint, 0 if public
    uint32_t Token;                // what messages carry in pOwner
    char Name[];                   // NUL-terminated, inline
};

// Makes a child of fork() start without its parent's endpoints; called
// once a LINX socket is open (the fork policy is in msg_main.h).
void jWatchForks(void);

// What a module above the registry does at a fork, run by the registry's
// one handler: Prepare before the registry takes its locks, Parent and
// Child after it lets them go or starts them afresh.  At most four.
struct ForkStages {
    void (*pPrepare)(void);
    void (*pParent)(void);
    void (*pChild)(void);
};
void jAddForkStages(const ForkStages *pStages);

// Calls Visit for every endpoint, newest first, behind the close gate
// (see above): deletions wait, and endpoints opened meanwhile are not seen.
void jVisitEndpoints(void (*pVisit)(LocalEndpoint *pEndpoint, void *pContext), void *pContext);

// The endpoint a message's owner token names, or null when no open
// endpoint of this process carries it.
LocalEndpoint *jEndpointOfToken(uint32_t Token);

#endif /* MSG_LOCAL_ENDPOINT_H */
