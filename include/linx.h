/* SPDX-License-Identifier: Apache-2.0 */
/*
 * linx.h - the linx_ interface of liborvane: LINX sockets, signals, hunts,
 * attaches, timeouts and information queries.
 *
 * A LINX endpoint is opened under a name and gets a SPID (its 32-bit id,
 * 0 meaning none).  Signals are buffers whose first 32-bit word is the
 * signal number; callers hold the payload address only.  Every function
 * that consumes a signal (send, hunt, attach, request timeout) sets the
 * caller's pointer to NULL whether or not it succeeds.  Failures follow
 * POSIX: -1 (or NULL, or a 0 reference) with errno set; nothing is logged.
 *
 * On a device the calls reach the LINX kernel module.  On a host without
 * it they reach the linxd stand-in service, started on demand; the
 * environment variable LINXD_INSTANCE names the stand-in instance to use.
 *
 * One handle, and the signals it holds, are used by one thread at a time.
 * This header compiles as C99 and as C++.
 */
#ifndef LINX_H
#define LINX_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LINX_API __attribute__((visibility("default")))

typedef uint32_t LINX_SPID;
typedef uint32_t LINX_SIGSELECT;
typedef uint32_t LINX_OSATTREF;
typedef uint32_t LINX_OSTIMERREF;
typedef uint32_t LINX_NLREF;
typedef int32_t  LINX_OSTIME;
typedef uint32_t LINX_OSBUFSIZE;

/* Any signal payload starts with its signal number. */
union LINX_SIGNAL;
typedef struct LinxHandle LINX;

#define LINX_ILLEGAL_SPID        ((LINX_SPID)0)
#define LINX_NO_TIMEOUT          ((LINX_OSTIME)-1)
#define LINX_OS_ATTR_MULTICAST   1     /* linx_sigattr: attributes bit 0 */
#define LINX_SEND_OPT_END        0
#define LINX_SEND_OPT_MULTICAST  1     /* tag 1, value 1: set attributes bit 0 */

/* Signal numbers of the signals the module makes itself, when a request
 * brings no signal of its own. */
#define LINX_OS_HUNT_SIG         251
#define LINX_OS_ATTACH_SIG       252
#define LINX_OS_TMO_SIG          253
#define LINX_OS_NEW_LINK_SIG     254

/* The signal a new-link request brings for every link to another node that
 * is up when the request is made, and for every one that comes up later,
 * until the request is cancelled or its endpoint closes.  Hunts for
 * "<link name>/<endpoint name>" reach endpoints behind the link. */
struct linx_new_link {
    LINX_SIGSELECT signo;    /* LINX_OS_NEW_LINK_SIG */
    LINX_NLREF token;        /* the request's token */
    int32_t name;            /* offset in buf of the link's name (NUL-terminated) */
    int32_t attr;            /* offset in buf of its attributes text ("" on the stand-in) */
    char buf[1];
};

/* Information types of the module's information request. */
#define LINX_INFO_SUMMARY        0
#define LINX_INFO_SOCKETS        1
#define LINX_INFO_NAME           2
#define LINX_INFO_OWNER          10
#define LINX_INFO_STAT           11
#define LINX_INFO_RECV_QUEUE     13

/* Statistics record of LINX_INFO_STAT (120 bytes). */
struct linx_info_stat {
    uint32_t spid;            /* in: the endpoint asked about */
    uint32_t state;           /* 1 while open */
    uint64_t sent_signals;
    uint64_t sent_bytes;
    uint64_t received_signals;   /* taken by a receive */
    uint64_t received_bytes;
    uint64_t queued_signals;     /* waiting in the receive queue now */
    uint64_t queued_bytes;
    uint64_t send_failures;      /* refused sends to this endpoint (queue full) */
    uint32_t attaches;           /* attaches supervising this endpoint */
    uint32_t hunts;              /* hunts pending on behalf of this endpoint */
    uint32_t timeouts;           /* timeouts pending for this endpoint */
    uint32_t owner_pid;
    uint8_t  reserved[40];
};
typedef char linx_info_stat_is_120_bytes[(sizeof(struct linx_info_stat) == 120) ? 1 : -1];

/* Record of LINX_INFO_SUMMARY: what the whole module (or stand-in
 * instance) holds right now. */
struct linx_info_summary {
    uint32_t sockets;            /* open endpoints */
    uint32_t queued_signals;     /* waiting in every receive queue */
    uint32_t hunts;              /* pending hunts */
    uint32_t attaches;           /* pending attaches */
    uint32_t timeouts;           /* pending timeouts */
    uint32_t new_link_requests;  /* pending new-link requests */
    uint32_t reserved[2];
};

struct linx_sendopt_pair {
    uint32_t tag;
    uint32_t value;
};

LINX_API LINX *linx_open(const char *name, uint32_t options, void *arg);
LINX_API int linx_close(LINX *linx);
LINX_API LINX_SPID linx_get_spid(LINX *linx);
LINX_API int linx_get_descriptor(LINX *linx);
LINX_API int linx_get_version(char *buf);

LINX_API union LINX_SIGNAL *linx_alloc(LINX *linx, LINX_OSBUFSIZE size, LINX_SIGSELECT sig_no);
LINX_API int linx_free_buf(LINX *linx, union LINX_SIGNAL **sig);
LINX_API int linx_set_sigsize(LINX *linx, union LINX_SIGNAL **sig, LINX_OSBUFSIZE size);
LINX_API LINX_OSBUFSIZE linx_sigsize(LINX *linx, union LINX_SIGNAL **sig);
LINX_API LINX_SPID linx_sender(LINX *linx, union LINX_SIGNAL **sig);
LINX_API int linx_sigattr(LINX *linx, const union LINX_SIGNAL **sig, uint32_t attr,
                          uint8_t *value);

LINX_API int linx_send(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID to);
LINX_API int linx_send_w_s(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID from, LINX_SPID to);
LINX_API int linx_send_w_opt(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID from,
                             LINX_SPID to, int32_t *taglist);

LINX_API int linx_receive(LINX *linx, union LINX_SIGNAL **sig, const LINX_SIGSELECT *sig_sel);
LINX_API int linx_receive_w_tmo(LINX *linx, union LINX_SIGNAL **sig, LINX_OSTIME tmo,
                                const LINX_SIGSELECT *sig_sel);
LINX_API int linx_receive_from(LINX *linx, union LINX_SIGNAL **sig, LINX_OSTIME tmo,
                               const LINX_SIGSELECT *sig_sel, LINX_SPID from);

LINX_API int linx_hunt(LINX *linx, const char *name, union LINX_SIGNAL **hunt_sig);
LINX_API int linx_hunt_from(LINX *linx, const char *name, union LINX_SIGNAL **hunt_sig,
                            LINX_SPID from);
LINX_API LINX_OSATTREF linx_attach(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID spid);
LINX_API int linx_detach(LINX *linx, LINX_OSATTREF *attref);

LINX_API LINX_OSTIMERREF linx_request_tmo(LINX *linx, LINX_OSTIME tmo, union LINX_SIGNAL **sig);
LINX_API int linx_modify_tmo(LINX *linx, LINX_OSTIMERREF *tmoref, LINX_OSTIME tmo);
LINX_API int linx_cancel_tmo(LINX *linx, LINX_OSTIMERREF *tmoref);

LINX_API LINX_NLREF linx_request_new_link(LINX *linx, LINX_SPID spid);
LINX_API int linx_cancel_new_link(LINX *linx, LINX_NLREF *nlref);

LINX_API int linx_get_name(LINX *linx, LINX_SPID spid, char **name);
LINX_API int linx_free_name(LINX *linx, char **name);
LINX_API int linx_get_stat(LINX *linx, LINX_SPID spid, struct linx_info_stat **stat);
LINX_API int linx_free_stat(LINX *linx, struct linx_info_stat **stat);
LINX_API pid_t linx_get_owner(LINX *linx, LINX_SPID spid);
/* The module's totals, into *summary.  0, or -1 with errno. */
LINX_API int linx_get_summary(LINX *linx, struct linx_info_summary *summary);
/* The SPIDs of every open endpoint, ascending, at most room of them into
 * spids.  Returns how many were written (room means there may be more),
 * or -1 with errno. */
LINX_API int linx_get_spids(LINX *linx, LINX_SPID *spids, int room);

#ifdef __cplusplus
}
#endif

#endif /* LINX_H */
