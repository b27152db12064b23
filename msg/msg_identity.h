/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_identity.h - the process's identity (halvo index, pid, program name),
 * which every log line and every telemetry record carries.
 *
 * It is read once per process from /proc/cmdline and /proc/self/cmdline
 * and then served lock-free.  Pid is published last with release
 * ordering: a reader that sees it non-zero (acquire) sees the complete
 * cache.  A forked child loads its own when next asked.
 *
 * Locks: the loader takes TelemetryMutex, which telemetry shares (see
 * msg_telemetry.h); a thread that holds it sets tbHoldsTelemetryMutex, and
 * a line written then serves what is loaded without loading (the mutex is
 * not recursive).
 */
#ifndef MSG_IDENTITY_H
#define MSG_IDENTITY_H

#include <pthread.h>

extern pthread_mutex_t TelemetryMutex;
extern thread_local bool tbHoldsTelemetryMutex;

/* Loads the identity cache if it is not loaded yet; retried on every call
 * while /proc/cmdline cannot be read. */
void jLoadProcessInfo(void);

#endif /* MSG_IDENTITY_H */
