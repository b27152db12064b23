/* SPDX-License-Identifier: Apache-2.0 */
/*
 * stop_signals.h - how the tools stop on SIGINT and SIGTERM.
 *
 * The tools wait in receives and polls; a stop signal sets a flag that
 * their loops test between waits, and writes a byte to a pipe that a poll
 * can watch, so a wait without a timeout ends at once.  SIGPIPE is ignored:
 * a reader of standard output that goes away ends the tool through a
 * failed write instead.  Usable from C and C++.
 */
#ifndef ORVANE_STOP_SIGNALS_H
#define ORVANE_STOP_SIGNALS_H

#ifdef __cplusplus
extern "C" {
#endif

/* 0, or -1 with errno when the pipe or the handlers cannot be set up. */
int stop_signals_install(void);
/* Non-zero once SIGINT or SIGTERM arrived. */
int stop_requested(void);
/* A descriptor that becomes readable when a stop signal arrives. */
int stop_wake_fd(void);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_STOP_SIGNALS_H */
