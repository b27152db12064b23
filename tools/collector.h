/* SPDX-License-Identifier: Apache-2.0 */
/*
 * collector.h - the telemetry collector, shared by orvane-collector and
 * `orvane capture`.
 *
 * It opens the endpoint "Telemetry", which every process with a telemetry
 * bit set in DebugFlag reports to, and writes each record it receives to a
 * pcap capture.  The capture's link type is LINKTYPE_USER0 (147); each
 * packet is a record type word followed by the serialized record, as the
 * library's envelope carries them from byte 16 on, so the packet header
 * and data are written unchanged.  The Wireshark dissector tools/orvane.lua
 * decodes them.  Messages that are not telemetry records are refused with a
 * line on standard error.  Collecting stops on SIGINT or SIGTERM
 * (stop_signals.h), after a number of records or after a time.
 */
#ifndef ORVANE_COLLECTOR_H
#define ORVANE_COLLECTOR_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { COLLECTOR_RECORD_TYPES = 4 };

struct CollectorTotals {
    unsigned long PerType[COLLECTOR_RECORD_TYPES];
    unsigned long Refused;
    unsigned long Records;
};

struct CollectorOptions {
    const char *pProgram;   /* prefix of every line written */
    const char *pPath;      /* the capture file, "-" for standard output */
    long MaxRecords;        /* 0: no limit */
    long Seconds;           /* 0: no limit */
    /* Called after every batch of records taken (may be NULL). */
    void (*pProgress)(const struct CollectorTotals *pTotals, void *pContext);
    void *pContext;
};

/* The name of record type i, 0 <= i < COLLECTOR_RECORD_TYPES. */
const char *collector_record_name(int Index);

/* Collects into the capture as the options say, writes one line per record
 * type to standard error at the end, and returns the exit status: 0, or 1
 * when the capture or the endpoint cannot be opened or written (said on
 * standard error).  Stop signals must be installed first. */
int collector_run(const struct CollectorOptions *pOptions, struct CollectorTotals *pTotals);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_COLLECTOR_H */
