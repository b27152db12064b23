/* SPDX-License-Identifier: Apache-2.0 */
/*
 * standin.h - the client of the linxd stand-in service: the module
 * seam's backend on hosts without the LINX kernel module.
 *
 * Each emulated socket is a control connection to linxd (names, hunts,
 * attaches, timeouts, queries), an outlet for linxd's own signals and ring
 * announcements, a bell, a ready set its senders mark and a retired set
 * linxd fills.  Signals to another process go into a shared-memory ring
 * this process writes alone (one per destination, made on the first send
 * and cached until the process closes its last socket, the receiver
 * closes, or the cache is full); the receiver maps the rings announced to
 * it, reads those its senders marked without system calls, and unmaps
 * those linxd retired once read.  Sends to a socket of the same process
 * skip the rings and hand the buffer itself over.
 *
 * The descriptor the seam returns is an epoll set of the outlet, the bell
 * and the process-local queue's eventfd.  Once a caller watches it, it is
 * readable exactly while a signal waits, so callers can poll it like the
 * module's socket.  Until then a receiver arms its bell only right before
 * it sleeps and the queue's eventfd is left alone: two processes or
 * threads that are both awake exchange signals without a system call.
 *
 * Locks: one process-wide mutex guards the descriptor and SPID tables,
 * another the route cache, a third is held while a route is opened (so
 * that linxd never sees two rings of the process for one socket), and
 * each route's mutex its ring's tail (threads of the process that send to
 * one socket take turns); each socket's mutex guards its local queue, and
 * the refusal log has its own.  The rings a socket reads and everything
 * else of a socket belong to its handle's thread.
 *
 * The instance of linxd is named by the environment variable
 * LINXD_INSTANCE ("default" when unset).  When no linxd serves it, the
 * first client starts one: the linxd program installed beside the library.
 */
#ifndef LINX_STANDIN_H
#define LINX_STANDIN_H

#include <stdint.h>

int linx_standin_open(void);
int linx_standin_request(int fd, uint32_t request, void *record);
int linx_standin_close(int fd);
void linx_standin_watch(int fd);

#endif /* LINX_STANDIN_H */
