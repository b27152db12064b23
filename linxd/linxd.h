/* SPDX-License-Identifier: Apache-2.0 */
/*
 * linxd.h - the LINX stand-in service: plays the LINX kernel module's part
 * for every process of one user on a host without the module.
 *
 * One thread runs an epoll loop over the listening socket, the control
 * connections (one per emulated LINX socket) and the outlets that were
 * full when linxd had a signal of its own to deliver.  linxd owns names,
 * SPIDs, hunts, attaches, timeouts and new-link tokens, passes the
 * senders' rings on to their receivers and retires them when their
 * senders go; signals between processes flow through those shared-memory
 * rings and never through it (see standin/protocol.h).  Its state is
 * declared in linxd_service.h.  Nothing a client sends can stop the loop: every
 * request is checked and answered, and a client that misbehaves or
 * vanishes is dropped with everything it held, firing its attaches.
 *
 * Links join instances into nodes (linxd_link.h carries their frames).  An
 * endpoint behind a link stands here as a phantom socket named
 * "<link>/<its name>", with a SPID of this instance: hunts find it, attaches
 * watch it, and processes send to it through rings as to any socket, which
 * linxd itself reads and forwards over the link.  A phantom closes when its
 * endpoint does or when its link goes down, firing its attaches once.
 */
#ifndef LINXD_H
#define LINXD_H

#include <stdint.h>
#include <string>
#include <vector>

struct LinxdLinkOption {
    std::string Name;    // the link's name on this node: hunts say "<name>/..."
    std::string Address; // unix:INSTANCE or tcp:HOST:PORT
};

struct LinxdOptions {
    std::string Instance;
    bool bForeground = false;
    int IdleExitSeconds = 30;       // 0: never exit for lack of clients
    uint32_t QueueBytes = 512 * 1024;
    uint32_t RingsPerSocket = 4096; // rings (one per sending process) a socket reads at most
    uint32_t MappedRings = 0;       // rings linxd maps at most; 0: what vm.max_map_count leaves
    uint32_t VersionWord;           // reported to clients; tests may change it
    std::string Node;               // this node's name as peers see it (default: Instance)
    std::vector<LinxdLinkOption> Links; // links this node dials
    std::vector<std::string> Listens;   // TCP addresses to take links on
    std::string SecretFile;             // the link secret, needed for TCP links
    int LinkTimeoutMs = 3000;           // a silent link is down after this long
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
// Takes a connected stream socket as a link a peer dialled (the link fuzz
// harness's way in).
void LinxdAdmitLink(LinxdService *pService, int Fd);
int LinxdStep(LinxdService *pService);
bool LinxdHoldsNothing(const LinxdService *pService);
void LinxdStop(LinxdService *pService);

#endif /* LINXD_H */
