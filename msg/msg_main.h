/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_main.h - the library's frame: assertions, log shorthands and the
 * debug-flag read used by every module.
 *
 * Every library line goes through MSG_LogOs or MSG_LogErrFilter with the
 * caller's source file, line and function, so these macros supply them.
 * A precondition that only the calling program's own misuse can break is
 * checked with MSG_ASSERT: an "ASSERTION FAILED" line at level 3, then
 * abort.  Input from another process is never checked this way.
 *
 * Fork policy: a child of fork() is a new process that starts with no
 * endpoint, no telemetry queue and no identity of its own, and never
 * touches what its parent holds.  Three handlers bring it there, and their
 * order matters: the identity's (msg_identity.cc, registered when it first
 * loads, so before any socket) forgets the parent's pid first; the LINX
 * layer's, registered at its first socket, drops the parent's sockets
 * without telling the module; then the registry's, registered once a
 * socket is open, forgets the parent's endpoints (closing their handles,
 * which only the child's copy of the LINX layer sees now) and runs the
 * stages of the modules above it (telemetry's queue), taking and leaving
 * their locks in the lock order of msg_local_endpoint.h.
 *
 * DebugFlag is a plain exported word that programs may write directly; the
 * library reads it with a relaxed atomic load so that a concurrent change is
 * merely seen late, never a data race.
 */
#ifndef MSG_MAIN_H
#define MSG_MAIN_H

#include "orvane.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <syslog.h>

#define MSG_LOG_PREFIX "$progname: $halvo: liborvane: "

#define MSG_LOG_OS(Level, Format, ...) \
    MSG_LogOs((Level), __FILE__, __LINE__, __func__, (Format), ##__VA_ARGS__)

#define MSG_LOG_OUTCOME(Status, Format, ...) \
    MSG_LogErrFilter((int)(Status), __FILE__, __LINE__, __func__, (Format), ##__VA_ARGS__)

// An outcome line written by a helper in the name of the interface
// function it works for: $func shows that function.
#define MSG_LOG_OUTCOME_AS(pFunc, Status, Format, ...) \
    MSG_LogErrFilter((int)(Status), __FILE__, __LINE__, (pFunc), (Format), ##__VA_ARGS__)

#define MSG_ASSERT(Expr)                                                      \
    do {                                                                      \
        if (!(Expr)) {                                                        \
            MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX                                \
                       "$file:$line: ASSERTION FAILED: " #Expr "\n");         \
            abort();                                                          \
        }                                                                     \
    } while (0)

static inline uint32_t jDebugFlag(void)
{
    return __atomic_load_n(&DebugFlag, __ATOMIC_RELAXED);
}

#endif /* MSG_MAIN_H */
