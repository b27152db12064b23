/*
 * msg_local_endpoint.h - the record of one open local endpoint.
 *
 * A local endpoint is one LINX socket the process opened under a name.
 * Public endpoints (Owner 0) are served by a receive loop; a private one
 * belongs to the thread that opened it.  The record is one MSG_Malloc block
 * with the name inline after the fixed fields.  Each list has its own
 * mutex; LinxMutex is held around every call on pLinx.
 */
#ifndef MSG_LOCAL_ENDPOINT_H
#define MSG_LOCAL_ENDPOINT_H

#include <pthread.h>
#include <stdint.h>

struct LinxHandle;

typedef struct LocalEndpoint {
    struct LocalEndpoint *pPrev;   // registry neighbours, newest first
    struct LocalEndpoint *pNext;
    pthread_mutex_t LinxMutex;
    struct LinxHandle *pLinx;
    uint32_t Spid;
    uint32_t bTelemetry;           // 0 for the telemetry endpoints themselves
    pthread_mutex_t PendFreeMutex;
    void *pPendFreeHead;           // deferred releases
    pthread_mutex_t RemoteMutex;
    void *pRemoteHead;             // remote endpoint table
    pthread_mutex_t CallbackMutex;
    void *pCallbackHead;           // registered callbacks
    pthread_mutex_t NtfyMutex;
    void *pNtfyHead;               // notifications registered by peers
    pthread_t Owner;               // owning thread of a private endpoint, 0 if public
    char Name[];                   // NUL-terminated, inline
} LocalEndpoint;

#endif /* MSG_LOCAL_ENDPOINT_H */
