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

// Hunts for a remote name on behalf of the endpoint; the answer arrives as
// a message of MsgTypeOpen.
MSG_Status MSG_LinxHunt(LocalEndpoint *pEndpoint, const char *pRemoteName, MSG_Type MsgTypeOpen);

// The receive loop's handler of a remote's open (even type) or close (odd
// type) message: updates the remote table and hunts again for a peer whose
// record survives its close.
MSG_Status MSG_OpenCloseHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg);

#endif /* MSG_OPEN_CLOSE_H */
