/* SPDX-License-Identifier: Apache-2.0 */
/*
 * linx_module.h - the one seam between the LINX user library and the LINX
 * module: open a module socket, issue a request on it, close it.
 *
 * Two backends sit behind it.  Where the kernel has the LINX address family
 * (29) the requests are ioctls on a real LINX socket.  Where it has none
 * (socket() fails with EAFNOSUPPORT) they go to the linxd stand-in service
 * through its client (standin/standin.h), which answers the same requests
 * with the same results.  The choice is made once per process.
 *
 * The request numbers are the module's.  Records whose module layout has a
 * 32-bit address field carry a native pointer here, so on a 64-bit host
 * they are larger than the size encoded in the request number; only the
 * stand-in reads them on such a host.
 *
 * Results follow ioctl: -1 with errno on failure.  Send returns 0 when the
 * module copied the signal and 1 when it took the buffer itself (delivery
 * within the process); receive returns the delivered size, or 0 when no
 * signal was delivered.
 */
#ifndef LINX_MODULE_H
#define LINX_MODULE_H

#include <stdint.h>

#define LINX_AF 29

#define LINX_IOCTL_REGISTER_NAME  0xC00CF408u
#define LINX_IOCTL_HUNT           0xC014F402u
#define LINX_IOCTL_ATTACH         0xC010F403u
#define LINX_IOCTL_DETACH         0x4004F404u
#define LINX_IOCTL_INFO           0xC008F407u
#define LINX_IOCTL_VERSION        0x8004F40Eu
#define LINX_IOCTL_REQUEST_TMO    0x8010F40Fu
#define LINX_IOCTL_CANCEL_TMO     0x8010F410u
#define LINX_IOCTL_MODIFY_TMO     0x8010F411u
#define LINX_IOCTL_REQUEST_NEW_LINK 0x8008F412u
#define LINX_IOCTL_CANCEL_NEW_LINK  0x8008F413u
#define LINX_IOCTL_SEND           0x4030F416u
#define LINX_IOCTL_RECEIVE        0xC030F417u

/* The library's own version text; the module's major number must match. */
#define LINX_LIBRARY_VERSION "2.5.1"

/* Signals the module delivers when the caller gave none. */
#define LINX_DEFAULT_HUNT_SIGNO   251u
#define LINX_DEFAULT_ATTACH_SIGNO 252u
#define LINX_DEFAULT_TMO_SIGNO    253u

struct linx_register_rec {
    uint32_t spid;          /* out */
    uint32_t namelen;       /* without terminator */
    const char *name;
};

struct linx_hunt_rec {
    uint32_t sigsize;       /* 0: no hunt signal */
    void *sig;
    uint32_t from;          /* on behalf of */
    uint32_t namelen;
    const char *name;
};

struct linx_attach_rec {
    uint32_t spid;
    uint32_t sigsize;
    void *sig;
    uint32_t attref;        /* out */
};

struct linx_tmo_rec {
    int32_t tmo;            /* milliseconds */
    uint32_t sigsize;
    void *sig;
    uint32_t tmoref;        /* out on request; in on cancel and modify */
};

struct linx_new_link_rec {
    uint32_t spid;
    uint32_t token;         /* out on request; in on cancel */
};

struct linx_info_rec {
    int32_t type;
    void *record;
};

struct linx_info_name_rec {
    uint32_t spid;
    int32_t namelen;        /* room in name; 0 with a null name asks the size */
    char *name;
};

struct linx_info_owner_rec {
    uint32_t spid;
    int32_t pid;            /* out */
};

/* LINX_INFO_SOCKETS: one page of SPIDs above after, ascending. */
struct linx_info_sockets_rec {
    uint32_t after;
    int32_t room;           /* entries in spids */
    int32_t count;          /* out: entries written */
    uint32_t *spids;
};

struct linx_info_recv_queue_rec {
    uint32_t spid;
    uint32_t reserved;
    uint32_t count;         /* out */
    uint32_t reserved2;
};

/* The transfer record of send and receive: 48 bytes, native addresses. */
struct linx_transfer_rec {
    uint32_t from;
    uint32_t to;
    uint32_t size;
    uint32_t attributes;
    uint32_t sigselect_size;
    uint32_t tmo;
    uint64_t sigselect;     /* address of the sigselect array */
    uint64_t buffer;        /* payload address of the buffer */
    uint64_t real_buffer;   /* payload address of the buffer holding the signal */
};

#ifdef __cplusplus
static_assert(sizeof(struct linx_transfer_rec) == 48, "transfer record is 48 bytes");
extern "C" {
#endif

int linx_module_open(void);
int linx_module_request(int fd, uint32_t request, void *record);
int linx_module_close(int fd);
/* The caller will poll the socket: from now on it is readable exactly
 * while a signal waits.  The kernel's socket always is; the stand-in keeps
 * that up only for sockets somebody watches, since it costs system calls
 * on every signal that a receiver already waiting does not need. */
void linx_module_watch(int fd);

/* Implemented by the user library: frees a signal buffer that the module
 * took on a send within the process and can no longer deliver (its
 * receiver closed).  payload is the signal's payload address. */
void linx_release_taken_buffer(void *payload);

/* Implemented by the user library: a request on the module socket of a
 * handle (what the MSG_ layer issues itself), without watching it. */
int linx_request_on(struct LinxHandle *linx, uint32_t request, void *record);

#ifdef __cplusplus
}
#endif

#endif /* LINX_MODULE_H */
