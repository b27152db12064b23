/* SPDX-License-Identifier: Apache-2.0 */
/*
 * refusals.h - lines that say what was refused, without a flood:
 * linxd and the stand-in client refuse what other processes and nodes
 * send them, and say so on standard error.
 *
 * The first refusal of a kind from one source (a process, a peer) is
 * written at once; the same refusal from the same source within the next
 * second is only counted, and when that second is over one line says how
 * many there were ("... and 1999 more like it in the last second").  A
 * source that keeps refusing costs two lines a second, whatever its rate.
 *
 * A log is shared by the threads of a process: its mutex guards it.
 * Nothing runs by itself: the owner calls RefusalFlush from time to time
 * (linxd's loop every turn, a client on every receive), and it writes the
 * summaries that are due.
 */
#ifndef LINXD_REFUSALS_H
#define LINXD_REFUSALS_H

#include <stdint.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

struct RefusalWindow {
    int64_t EndMs = 0;
    std::string FirstLine; // as written, without its newline
    uint64_t More = 0;     // refusals counted since
};

struct RefusalLog {
    std::mutex Mutex;
    std::map<std::string, RefusalWindow> Windows; // by source and kind
    std::atomic<int64_t> NextEndMs{INT64_MAX};    // when the earliest window ends
};

// Writes Line (no newline) unless a refusal of Kind from Source was
// written less than a second ago; then it is counted.
void RefusalSay(RefusalLog *pLog, const std::string &Source, const std::string &Kind, const std::string &Line);
// Writes the summaries of the windows that ended.
void RefusalFlush(RefusalLog *pLog);
// Milliseconds until the next summary is due, or -1 when none is.
int RefusalNextMs(RefusalLog *pLog);

#endif /* LINXD_REFUSALS_H */
