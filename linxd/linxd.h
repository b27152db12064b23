/*
 * linxd.h - the LINX stand-in service: plays the LINX kernel module's part
 * for every process of one user on a host without the module.
 *
 * One thread runs an epoll loop over the listening socket, the control
 * connections (one per emulated LINX socket) and the outlets that were
 * full when linxd had a signal of its own to deliver.  linxd owns names,
 * SPIDs, hunts, attaches, timeouts and new-link tokens, and passes the
 * senders' rings on to their receivers; signals between processes flow
 * through those shared-memory rings and never through it (see
 * linxd_protocol.h).  Nothing a client sends can stop the loop: every
 * request is checked and answered, and a client that misbehaves or
 * vanishes is dropped with everything it held, firing its attaches.
 */
#ifndef LINXD_H
#define LINXD_H

#include <stdint.h>
#include <string>

struct LinxdOptions {
    std::string Instance;
    bool bForeground = false;
    int IdleExitSeconds = 30;       // 0: never exit for lack of clients
    uint32_t QueueBytes = 512 * 1024;
    uint32_t VersionWord;           // reported to clients; tests may change it
};

// Runs the service until it has been idle for IdleExitSeconds; returns the
// process exit code (0, or 1 when it could not start, 0 too when another
// linxd already serves the instance and bForeground is false).
int LinxdRun(const LinxdOptions &Options);

// The service without its listener and loop, for the in-process request
// fuzz harness: the caller hands it connected sockets (LinxdAdmit) and
// turns the loop one step at a time without waiting (LinxdStep, which
// returns how many events it served).  LinxdHoldsNothing tells whether it
// is back to where it started: no client, socket, name, pending request or
// signal.  LinxdStop closes everything it still holds.
struct LinxdService;
LinxdService *LinxdStart(const LinxdOptions &Options);
void LinxdAdmit(LinxdService *pService, int Fd);
int LinxdStep(LinxdService *pService);
bool LinxdHoldsNothing(const LinxdService *pService);
void LinxdStop(LinxdService *pService);

#endif /* LINXD_H */
