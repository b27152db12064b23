/*
 * linx_standin.h - the client of the linxd stand-in service: the module
 * seam's backend on hosts without the LINX kernel module.
 *
 * Each emulated socket is a control connection to linxd (names, hunts,
 * attaches, timeouts, queries), an outlet for linxd's own signals and ring
 * announcements, and a bell.  Signals to another process go into a
 * shared-memory ring this process writes alone (one per destination, made
 * on the first send and cached); the receiver maps the rings announced to
 * it and reads them without system calls while they hold signals.  Sends
 * to a socket of the same process skip the rings and hand the buffer
 * itself over.
 *
 * The descriptor the seam returns is an epoll set of the outlet, the bell
 * and the process-local queue's counter: readable exactly while a signal
 * waits, so callers can poll it like the module's socket.
 *
 * Locks: one process-wide mutex guards the descriptor and SPID tables,
 * another the route cache, and each route's mutex its ring's tail (threads
 * of the process that send to one socket take turns); each socket's mutex
 * guards its local queue.  The rings a socket reads and everything else of
 * a socket belong to its handle's thread.
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

#endif /* LINX_STANDIN_H */
