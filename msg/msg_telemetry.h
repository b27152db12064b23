/*
 * msg_telemetry.h - process identity and the telemetry module's mutex.
 *
 * The identity (halvo index, pid, program name) is read once per process
 * from /proc/cmdline and /proc/self/cmdline and then served lock-free to
 * every log line.  The loader runs under TelemetryMutex, the same mutex the
 * telemetry reporting uses for its own state, so the two exclude each other.
 * Pid is published last with release ordering: a reader that sees it
 * non-zero (acquire) sees the complete cache.
 */
#ifndef MSG_TELEMETRY_H
#define MSG_TELEMETRY_H

#include <pthread.h>

extern pthread_mutex_t TelemetryMutex;

/* Loads the identity cache if it is not loaded yet; retried on every call
 * while /proc/cmdline cannot be read. */
void jLoadProcessInfo(void);

#endif /* MSG_TELEMETRY_H */
