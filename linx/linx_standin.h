/*
 * linx_standin.h - the client of the linxd stand-in service: the module
 * seam's backend on hosts without the LINX kernel module.
 *
 * Each emulated socket is a control connection to linxd (names, hunts,
 * attaches, timeouts, queries) plus the outlet of its receive queue.  Sends
 * go straight into the receiver's queue through an inlet that linxd hands
 * out once per destination and that the process caches; sends to a socket
 * of the same process skip the kernel and hand the buffer itself over.
 *
 * The descriptor the seam returns is an epoll set that is readable while a
 * signal waits (in the outlet or in the process-local queue), so callers
 * can poll it like the module's socket.
 *
 * Locks: one process-wide mutex guards the descriptor and SPID tables,
 * another the inlet cache; each socket's mutex guards its local queue.
 * Only the local queue is touched by more than one thread (senders of the
 * same process); everything else of a socket belongs to its handle's
 * thread.
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
