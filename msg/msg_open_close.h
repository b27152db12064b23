/*
 * msg_open_close.h - the library's own entry to opening endpoints: the
 * named public endpoint together with the caller's private one, which is
 * opened if the caller has none (for the remote-endpoint operations).
 */
#ifndef MSG_OPEN_CLOSE_H
#define MSG_OPEN_CLOSE_H

#include "msg_local_endpoint.h"

extern "C" MSG_API MSG_Status MSG_OpenLocalDual(const char *pEndpointName, LocalEndpoint **pPrivateEndpoint,
                             LocalEndpoint **pPublicEndpoint);

// The calling thread's current endpoint, opening its private endpoint when
// it has none: 0, MSG_OpenLocal's failure, or 302.
MSG_Status jOpenMyEndpoint(LocalEndpoint **ppEndpoint);

#endif /* MSG_OPEN_CLOSE_H */
