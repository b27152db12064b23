/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_telemetry.h - telemetry: copies of the process's traffic and
 * announcements of its endpoints, with the process's identity
 * (msg_identity.h), sent to the one collector endpoint "Telemetry" on the
 * LINX network.
 *
 * Telemetry is switched on by the debug-flag bits MSG_DEBUG_TELEMETRY_SEND
 * and MSG_DEBUG_TELEMETRY_RECV.  Each record (a protobuf message of
 * package hdr) travels behind a 36-byte envelope in a library message sent
 * from the process's own public endpoint "TelemSender", opened on first
 * use.  Bytes 16 onward of the envelope are a pcap packet record, so a
 * collector writes them to a capture file as they are.  Records wait in a
 * queue of at most 1024 until the collector is found; what is given up is
 * counted and reported in a drop report ahead of the next record.  Nothing
 * waits for the collector: it is hunted once and then polled with timeout
 * 0, and every copy also tries to deliver what waits.  A send that finds
 * the collector gone drains TelemSender, whose close handling marks the
 * collector closed and hunts for it again.
 *
 * Locks: TelemetryMutex guards the queue, the drop count, the opening of
 * TelemSender and the collector's lookup and hunt; the identity loader
 * takes it too.  It comes after a publisher's NtfyMutex and before the
 * registry and TelemSender's own mutexes, which the steps under it take.
 * It is not recursive, and no line written under it may load the identity
 * (the identity is loaded before it is taken).  TelemSender publishes
 * nothing, so its own NtfyMutex, which the close handling may take under
 * TelemetryMutex, never precedes it.
 */
#ifndef MSG_TELEMETRY_H
#define MSG_TELEMETRY_H

#include <stdint.h>
#include <time.h>

/* Whole seconds from the first lost record to the report, rounded to the
 * nearest second (half a second rounds down). */
static inline uint32_t jDropReportSecs(struct timespec FirstDrop, struct timespec Now)
{
    int64_t Seconds = (int64_t)Now.tv_sec - (int64_t)FirstDrop.tv_sec;
    const long Nanoseconds = Now.tv_nsec - FirstDrop.tv_nsec;
    if (Nanoseconds > 499999999)
        Seconds++;
    else if (Nanoseconds < -499999999)
        Seconds--;
    return (uint32_t)Seconds;
}

#endif /* MSG_TELEMETRY_H */
