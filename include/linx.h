/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file linx.h
 * @brief The linx_ interface of liborvane: LINX sockets, signals, hunts,
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
 * Thread safety: one handle, and the signals it holds, are used by one
 * thread at a time; different handles may be used by different threads
 * at once.  This header compiles as C99 and as C++.
 */
#ifndef LINX_H
#define LINX_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Marks the functions the library exports. */
#define LINX_API __attribute__((visibility("default")))

/** The id of a LINX endpoint; 0 (LINX_ILLEGAL_SPID) is none. */
typedef uint32_t LINX_SPID;
/** A signal number, and the element of a selection array: {count, number...};
 *  a negative count selects every number but those listed. */
typedef uint32_t LINX_SIGSELECT;
/** The reference of an attach, given to linx_detach; 0 is none. */
typedef uint32_t LINX_OSATTREF;
/** The reference of a requested timeout; 0 is none. */
typedef uint32_t LINX_OSTIMERREF;
/** The token of a new-link request; 0 is none. */
typedef uint32_t LINX_NLREF;
/** A time in milliseconds; LINX_NO_TIMEOUT (-1) waits without limit. */
typedef int32_t  LINX_OSTIME;
/** The size of a signal in bytes, its signal number included. */
typedef uint32_t LINX_OSBUFSIZE;

/** A signal: the program defines the union; its first member is the
 *  LINX_SIGSELECT signal number. */
union LINX_SIGNAL;
/** An open LINX socket (opaque), from linx_open until linx_close. */
typedef struct LinxHandle LINX;

/** No endpoint: what a failed call returns for a SPID. */
#define LINX_ILLEGAL_SPID        ((LINX_SPID)0)
/** A timeout that waits without limit. */
#define LINX_NO_TIMEOUT          ((LINX_OSTIME)-1)
#define LINX_OS_ATTR_MULTICAST   1     /**< linx_sigattr: attributes bit 0 */
#define LINX_SEND_OPT_END        0     /**< ends a linx_send_w_opt tag list */
#define LINX_SEND_OPT_MULTICAST  1     /**< tag 1, value 1: set attributes bit 0 */

/** @name Signals the module makes itself, when a request brings no signal of its own
 * @{ */
#define LINX_OS_HUNT_SIG         251 /**< a hunt found its endpoint; the sender is that endpoint */
#define LINX_OS_ATTACH_SIG       252 /**< an attached endpoint closed or died; the sender is that endpoint */
#define LINX_OS_TMO_SIG          253 /**< a requested timeout expired */
#define LINX_OS_NEW_LINK_SIG     254 /**< a link to another node is up (struct linx_new_link) */
/** @} */

/** The signal a new-link request brings for every link to another node that
 * is up when the request is made, and for every one that comes up later,
 * until the request is cancelled or its endpoint closes.  Hunts for
 * "<link name>/<endpoint name>" reach endpoints behind the link. */
struct linx_new_link {
    LINX_SIGSELECT signo;    /**< LINX_OS_NEW_LINK_SIG */
    LINX_NLREF token;        /**< the request's token */
    int32_t name;            /**< offset in buf of the link's name (NUL-terminated) */
    int32_t attr;            /**< offset in buf of its attributes text ("" on the stand-in) */
    char buf[1];             /**< the texts, as long as the signal's size says */
};

/** @name Information types of the module's information request
 * @{ */
#define LINX_INFO_SUMMARY        0  /**< the totals: linx_get_summary */
#define LINX_INFO_SOCKETS        1  /**< every open endpoint: linx_get_spids */
#define LINX_INFO_NAME           2  /**< an endpoint's name: linx_get_name */
#define LINX_INFO_OWNER          10 /**< an endpoint's owning process: linx_get_owner */
#define LINX_INFO_STAT           11 /**< an endpoint's statistics: linx_get_stat */
#define LINX_INFO_RECV_QUEUE     13 /**< an endpoint's receive queue */
/** @} */

/** Statistics record of LINX_INFO_STAT (120 bytes), from linx_get_stat. */
struct linx_info_stat {
    uint32_t spid;               /**< the endpoint asked about */
    uint32_t state;              /**< 1 while open */
    uint64_t sent_signals;       /**< signals the endpoint sent */
    uint64_t sent_bytes;         /**< their bytes */
    uint64_t received_signals;   /**< signals taken by a receive */
    uint64_t received_bytes;     /**< their bytes */
    uint64_t queued_signals;     /**< signals waiting in the receive queue now */
    uint64_t queued_bytes;       /**< their bytes */
    uint64_t send_failures;      /**< refused sends to this endpoint (queue full) */
    uint32_t attaches;           /**< attaches supervising this endpoint */
    uint32_t hunts;              /**< hunts pending on behalf of this endpoint */
    uint32_t timeouts;           /**< timeouts pending for this endpoint */
    uint32_t owner_pid;          /**< the process that opened it */
    uint8_t  reserved[40];       /**< 0 */
};
/** Fails to compile where the statistics record is not 120 bytes. */
typedef char linx_info_stat_is_120_bytes[(sizeof(struct linx_info_stat) == 120) ? 1 : -1];

/** Record of LINX_INFO_SUMMARY: what the whole module (or stand-in
 * instance) holds right now. */
struct linx_info_summary {
    uint32_t sockets;            /**< open endpoints */
    uint32_t queued_signals;     /**< signals waiting in every receive queue */
    uint32_t hunts;              /**< pending hunts */
    uint32_t attaches;           /**< pending attaches */
    uint32_t timeouts;           /**< pending timeouts */
    uint32_t new_link_requests;  /**< pending new-link requests */
    uint32_t reserved[2];        /**< 0 */
};

/** One option of linx_send_w_opt's tag list, which ends with LINX_SEND_OPT_END. */
struct linx_sendopt_pair {
    uint32_t tag;   /**< LINX_SEND_OPT_MULTICAST */
    uint32_t value; /**< its value */
};

/** Opens a LINX endpoint under name (options and arg are ignored).
 *  @return the handle, or NULL with errno: on a host EINVAL for a LINXD_INSTANCE that is not 1
 *  to 64 of [A-Za-z0-9._-], EHOSTUNREACH when no linxd could be reached or
 *  started, EACCES when another user's program listens in its place,
 *  ENOBUFS past the cap of sockets per process. */
LINX_API LINX *linx_open(const char *name, uint32_t options, void *arg);
/** Closes the endpoint: frees the handle and every signal it still holds.
 *  Its attachers get their attach signals.  @return 0. */
LINX_API int linx_close(LINX *linx);
/** @return the endpoint's SPID. */
LINX_API LINX_SPID linx_get_spid(LINX *linx);
/** @return a descriptor that polls readable when a receive would find a
 *  signal (for poll, epoll or an event loop); never read it. */
LINX_API int linx_get_descriptor(LINX *linx);
/** The module's version ("2.5.1" form) into buf (16 bytes), unless buf is
 *  NULL.  @return the version word, or -1 with errno. */
LINX_API int linx_get_version(char *buf);

/** Allocates a signal of size bytes (at least 4: the signal number) from
 *  the handle's shelves.  Its bytes after the number are unspecified (a
 *  recycled buffer of this process may hold an earlier signal's bytes).
 *  @return the signal, owned by the caller until sent or freed, or NULL
 *  with errno (EMSGSIZE below 4 or above the largest signal). */
LINX_API union LINX_SIGNAL *linx_alloc(LINX *linx, LINX_OSBUFSIZE size, LINX_SIGSELECT sig_no);
/** Releases a signal the caller owns and sets *sig to NULL.  @return 0. */
LINX_API int linx_free_buf(LINX *linx, union LINX_SIGNAL **sig);
/** Changes a signal's size, keeping its first bytes; may move it (and
 *  update *sig).  @return 0, or -1 with errno (EMSGSIZE below 4). */
LINX_API int linx_set_sigsize(LINX *linx, union LINX_SIGNAL **sig, LINX_OSBUFSIZE size);
/** @return the size of a signal the caller holds. */
LINX_API LINX_OSBUFSIZE linx_sigsize(LINX *linx, union LINX_SIGNAL **sig);
/** @return the SPID that sent a received signal. */
LINX_API LINX_SPID linx_sender(LINX *linx, union LINX_SIGNAL **sig);
/** Reads attribute attr (LINX_OS_ATTR_MULTICAST) of a signal into *value:
 *  1 when set, 0xFF when not.  @return 0, or -1 with EINVAL for another attribute. */
LINX_API int linx_sigattr(LINX *linx, const union LINX_SIGNAL **sig, uint32_t attr,
                          uint8_t *value);

/** Sends a signal to the endpoint to, from this handle's endpoint; the
 *  signal is consumed (*sig is NULL afterwards) whether or not it went.
 *  @return 0, or -1 with errno (ECONNRESET: to is gone, ENOBUFS: the
 *  receiver's queue or a cap is full, EMSGSIZE: larger than it takes). */
LINX_API int linx_send(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID to);
/** As linx_send, with from as the sender the receiver sees. */
LINX_API int linx_send_w_s(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID from, LINX_SPID to);
/** As linx_send_w_s, with a tag list of struct linx_sendopt_pair ending
 *  with LINX_SEND_OPT_END (or NULL). */
LINX_API int linx_send_w_opt(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID from,
                             LINX_SPID to, int32_t *taglist);

/** Waits without limit for a signal that sig_sel selects (NULL: any) and
 *  hands it to the caller in *sig.  @return its size, or -1 with errno. */
LINX_API int linx_receive(LINX *linx, union LINX_SIGNAL **sig, const LINX_SIGSELECT *sig_sel);
/** As linx_receive, waiting at most tmo ms (0 polls, -1 waits without
 *  limit).  @return the size, 0 on timeout (*sig NULL), or -1 with errno. */
LINX_API int linx_receive_w_tmo(LINX *linx, union LINX_SIGNAL **sig, LINX_OSTIME tmo,
                                const LINX_SIGSELECT *sig_sel);
/** As linx_receive_w_tmo, taking only signals sent by from. */
LINX_API int linx_receive_from(LINX *linx, union LINX_SIGNAL **sig, LINX_OSTIME tmo,
                               const LINX_SIGSELECT *sig_sel, LINX_SPID from);

/** Asks for the endpoint called name ("link/name" behind a link): when it
 *  exists, now or later, hunt_sig (or a LINX_OS_HUNT_SIG signal when NULL)
 *  arrives with that endpoint as sender.  Consumes hunt_sig.
 *  @return 0, or -1 with errno (ENOBUFS past the pending-hunt cap). */
LINX_API int linx_hunt(LINX *linx, const char *name, union LINX_SIGNAL **hunt_sig);
/** As linx_hunt, on behalf of the endpoint from. */
LINX_API int linx_hunt_from(LINX *linx, const char *name, union LINX_SIGNAL **hunt_sig,
                            LINX_SPID from);
/** Watches the endpoint spid: when it closes or its process dies, sig (or
 *  a LINX_OS_ATTACH_SIG signal when NULL) arrives with spid as sender;
 *  at once when spid is already gone.  Consumes sig.
 *  @return the reference for linx_detach, or 0 with errno. */
LINX_API LINX_OSATTREF linx_attach(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID spid);
/** Withdraws an attach that has not fired and clears *attref.
 *  @return 0, or -1 with errno. */
LINX_API int linx_detach(LINX *linx, LINX_OSATTREF *attref);

/** After tmo ms, sig (or a LINX_OS_TMO_SIG signal when NULL) arrives from
 *  this endpoint itself.  Consumes sig.  @return its reference, or 0 with errno. */
LINX_API LINX_OSTIMERREF linx_request_tmo(LINX *linx, LINX_OSTIME tmo, union LINX_SIGNAL **sig);
/** Restarts a pending timeout with tmo ms.  @return 0, or -1 with errno
 *  and *tmoref cleared. */
LINX_API int linx_modify_tmo(LINX *linx, LINX_OSTIMERREF *tmoref, LINX_OSTIME tmo);
/** Cancels a pending timeout and clears *tmoref.  @return 0, or -1 with errno. */
LINX_API int linx_cancel_tmo(LINX *linx, LINX_OSTIMERREF *tmoref);

/** Asks for a struct linx_new_link signal for every link to another node
 *  that is up, and for each that comes up later.
 *  @return the request's token, or 0 with errno. */
LINX_API LINX_NLREF linx_request_new_link(LINX *linx, LINX_SPID spid);
/** Cancels a new-link request and clears *nlref.  @return 0, or -1 with errno. */
LINX_API int linx_cancel_new_link(LINX *linx, LINX_NLREF *nlref);

/** A heap copy of the name of the endpoint spid into *name, freed with
 *  linx_free_name.  @return 0, or -1 with errno and *name NULL. */
LINX_API int linx_get_name(LINX *linx, LINX_SPID spid, char **name);
/** Frees a name from linx_get_name and sets *name to NULL.
 *  @return 0, or -1 with EINVAL when name is NULL. */
LINX_API int linx_free_name(LINX *linx, char **name);
/** A heap statistics record of the endpoint spid into *stat, freed with
 *  linx_free_stat.  @return 0, or -1 with errno and *stat NULL. */
LINX_API int linx_get_stat(LINX *linx, LINX_SPID spid, struct linx_info_stat **stat);
/** Frees a record from linx_get_stat and sets *stat to NULL.
 *  @return 0, or -1 with EINVAL when stat is NULL. */
LINX_API int linx_free_stat(LINX *linx, struct linx_info_stat **stat);
/** @return the process id that owns the endpoint spid, or -1 with errno. */
LINX_API pid_t linx_get_owner(LINX *linx, LINX_SPID spid);
/** The module's totals, into *summary.  @return 0, or -1 with errno. */
LINX_API int linx_get_summary(LINX *linx, struct linx_info_summary *summary);
/** The SPIDs of every open endpoint, ascending, at most room of them into
 * spids.  @return how many were written (room means there may be more),
 * or -1 with errno. */
LINX_API int linx_get_spids(LINX *linx, LINX_SPID *spids, int room);

#ifdef __cplusplus
}
#endif

#endif /* LINX_H */
