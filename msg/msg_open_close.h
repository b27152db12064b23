/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_open_close.h - the library's own entry to opening endpoints: the
 * calling thread's private endpoint, opened on demand by the operations
 * that need one (allocation, cloning, notifications).
 */
#ifndef MSG_OPEN_CLOSE_H
#define MSG_OPEN_CLOSE_H

#include "msg_local_endpoint.h"

// The calling thread's current endpoint, opening its private endpoint when
// it has none: 0, MSG_OpenLocal's failure, or 302.
MSG_Status jOpenMyEndpoint(LocalEndpoint **ppEndpoint);

#endif /* MSG_OPEN_CLOSE_H */
