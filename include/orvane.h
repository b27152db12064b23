/* SPDX-License-Identifier: Apache-2.0 */
/*
 * orvane.h - the MSG_ interface of liborvane.
 *
 * liborvane lets the processes of one device exchange typed messages over
 * LINX.  Every operation is a plain C function over plain records and
 * returns a status code (0 is success; 1xx outcomes a caller must expect,
 * 2xx resource and system failures, 3xx misuse and state errors).
 *
 * The library has no thread of its own: every call runs on the caller's
 * thread.  Diagnostics go to the system log (and to standard error when
 * MSG_DEBUG_STDERR is set in DebugFlag); every line starts with the program
 * name and the halvo index of the process.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef ORVANE_H
#define ORVANE_H

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MSG_API __attribute__((visibility("default")))

/* ---- Status codes ------------------------------------------------------ */

typedef uint32_t MSG_Status;

#define MSG_OK                        0u
#define MSG_ERR_OPEN_REMOTE_TIMEOUT   101u /* "open remote timeout" */
#define MSG_ERR_RECEIVE_TIMEOUT       102u /* "receive timeout" */
#define MSG_ERR_CONNECTION_RESET      103u /* "connection reset" */
#define MSG_ERR_LOCAL_NOT_FOUND       104u /* "local endpoint not found" */
#define MSG_ERR_REMOTE_NOT_FOUND      105u /* "remote endpoint not found" */
#define MSG_ERR_MEMORY                201u /* "memory overflow" */
#define MSG_ERR_LINX                  202u /* "Linx error" */
#define MSG_ERR_SYSTEM                203u /* "system error" */
#define MSG_ERR_UNKNOWN               300u /* "unknown error" */
#define MSG_ERR_WRONG_PARAMETER       301u /* "wrong parameter" */
#define MSG_ERR_NOT_OPEN              302u /* "endpoint not open" */
#define MSG_ERR_NAME_CONFLICT         303u /* "endpoint name conflict" */
#define MSG_ERR_CALLBACK_NOT_FOUND    304u /* "callback not found" */
#define MSG_ERR_NTFY_NOT_FOUND        305u /* "notification not found" */
#define MSG_ERR_REMOTE_ALREADY_OPEN   306u /* "remote already open" */
#define MSG_ERR_MSG_CORRUPT           307u /* "message corrupt" */
#define MSG_ERR_OWNER_MISMATCH        308u /* "message owner mismatch" */
#define MSG_ERR_OPEN_IN_PROGRESS      309u /* "remote open already in progress" */

/* The text of a status code; "UndefinedError" for a code not in the table. */
MSG_API const char *MSG_DebugStrError(MSG_Status Status);

/* ---- The message header ------------------------------------------------
 * Every message is a LINX signal whose first 56 bytes are this header; the
 * caller's payload follows.  The header crosses process boundaries, so its
 * layout is fixed on every ABI: pOwner is a process-local 32-bit token that
 * the owning process maps back to its endpoint record, never an address.
 */
#define MSG_SEND_STACK_ELEM               8
#define MSG_HEADER_BYTES                  56
#define MAGIC_NUM_MSG_ALLOC               0x1357BD11u
#define MSG_TYPE_USER_SHIFT               0x80000000u
#define MSG_TYPE_USER_MAX                 0x00FFFFFFu
#define MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN  0x10000000u
#define MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX  0x1FFFFFFFu
#define MSG_NTFY_REQ_REGISTER             0x20000000u
#define MSG_NTFY_REQ_UNREGISTER           0x20000001u

typedef uint32_t MSG_Type;

typedef struct MSG_Msg {
    MSG_Type MsgType;                       /* offset 0: also the LINX signal number */
    uint32_t Sequence;                      /* offset 4 */
    uint8_t  SendStackSize;                 /* offset 8: valid SendStack entries */
    uint8_t  ExtraFlags[3];                 /* offset 9: bits 8..31 of the word at 8 */
    uint32_t SendStack[MSG_SEND_STACK_ELEM];/* offset 12: SPIDs, entry 0 = origin */
    uint32_t pOwner;                        /* offset 44: owner token, process-local */
    uint32_t InUseMagic;                    /* offset 48 */
    int32_t  PayloadBytes;                  /* offset 52 */
} MSG_Msg;

/* Fails to compile on an ABI where the header is not 56 bytes (C99 and C++). */
typedef char MSG_HeaderIs56Bytes[(sizeof(MSG_Msg) == MSG_HEADER_BYTES) ? 1 : -1];

/* Extra flags: bits 8..31 of the header word at offset 8.  They travel with
 * the message; the library never interprets them.  A null message aborts. */
MSG_API MSG_Status MSG_SetExtraFlags(MSG_Msg *pMsg, uint32_t Flags);
MSG_API uint32_t MSG_GetExtraFlags(const MSG_Msg *pMsg);

/* Header accessors.  None takes a lock: a message is used by one thread at
 * a time.  A null message reads as 0 (or null, or -301 for the payload
 * size) and is refused with 301 by the setters. */
MSG_API MSG_Type MSG_GetType(const MSG_Msg *pMsg);
MSG_API MSG_Status MSG_SetType(MSG_Msg *pMsg, MSG_Type Type);
MSG_API uint32_t MSG_GetSequence(const MSG_Msg *pMsg);
MSG_API MSG_Status MSG_SetSequence(MSG_Msg *pMsg, uint32_t Sequence);
MSG_API const void *MSG_GetPayload(const MSG_Msg *pMsg);
MSG_API void *MSG_GetPayloadMutable(MSG_Msg *pMsg);
MSG_API int32_t MSG_GetPayloadBytes(const MSG_Msg *pMsg);
/* 0 to 8; a null message or a larger size aborts. */
MSG_API uint32_t MSG_GetSendStackSize(const MSG_Msg *pMsg);
MSG_API uint32_t MSG_GetSender(const MSG_Msg *pMsg);     /* most recent, 0 if none */
MSG_API uint32_t MSG_GetOrigSender(const MSG_Msg *pMsg); /* first, 0 if none */
/* The owning public endpoint's name, cut to NameBytes (at most 128).
 * 104 for a message of a private endpoint, 307 for an unknown owner. */
MSG_API MSG_Status MSG_GetOwnerName(const MSG_Msg *pMsg, char *pName, uint32_t NameBytes);

/* ---- Local endpoints ----------------------------------------------------
 * A public endpoint is opened under the program's name and served by a
 * receive loop.  Every thread also gets a private endpoint, opened on
 * demand, that owns the messages it allocates; it closes when the thread
 * ends. */
typedef struct LocalEndpoint LocalEndpoint;
struct LinxHandle;

/* Opens a public endpoint, or with a null name the caller's private one.
 * 303 when the name (or the caller's private endpoint) is already open,
 * 202 when LINX refuses. */
MSG_API MSG_Status MSG_OpenLocal(const char *pEndpointName);
/* Closes a public endpoint by name, or with a null name the caller's
 * private one.  302 when there is none; a private endpoint of another
 * thread is refused with 301. */
MSG_API MSG_Status MSG_CloseLocal(const char *pEndpointName);
/* 1 if open, 0 if not, 301 for a null name. */
MSG_API uint32_t MSG_IsLocalOpen(const char *pEndpointName);

MSG_API void MSG_Init(void);
MSG_API LocalEndpoint *MSG_GetMyEndpoint(void);
MSG_API MSG_Status MSG_AddLocalEndpoint(const char *pEndpointName, struct LinxHandle *pLinx,
                                        uint32_t Spid, uint32_t bPublic,
                                        LocalEndpoint **ppLocalEndpoint);
MSG_API MSG_Status MSG_DeleteLocalEndpoint(LocalEndpoint *pLocalEndpoint);
MSG_API LocalEndpoint *MSG_GetLocalEndpoint(const char *pName);
typedef int32_t (*MSG_ForAllCallback)(void *pContext, LocalEndpoint *pLocalEndpoint);
/* Visits every endpoint under the registry lock: the callback must not
 * open, close or look up endpoints.  Returns the last non-zero code. */
MSG_API int32_t MSG_ForAllLocalEndpoints(MSG_ForAllCallback pCallback, void *pContext);
MSG_API uint32_t MSG_IsLocalEndpointValid(const LocalEndpoint *pLocalEndpoint);
MSG_API int MSG_GetLocalFileDesc(const char *pName);
MSG_API MSG_Status MSG_GetEndpointPidName(const char *pName, uint32_t Spid, uint32_t *pPid,
                                          char *pNameBuf, uint32_t NameLen);
/* Signals waiting for the endpoint Spid (0: the named endpoint itself). */
MSG_API int32_t MSG_GetNumMsgsPending(const char *pName, uint32_t Spid);

/* ---- Messages ------------------------------------------------------------
 * Allocation uses the calling thread's private endpoint.  A message of a
 * public endpoint is released lazily: freed by the next receive on that
 * endpoint, or when it closes. */
MSG_API MSG_Msg *MSG_AllocMsg(MSG_Type MsgType, uint32_t Seq, int32_t PayloadBytes);
MSG_API MSG_Msg *MSG_AllocMsg_Internal(MSG_Type MsgType, uint32_t Seq, int32_t PayloadBytes);
MSG_API MSG_Msg *MSG_AllocMsgCopyHdr(const MSG_Msg *pOrig, MSG_Type MsgType, int32_t PayloadBytes);
MSG_API MSG_Status MSG_CloneMsg(const MSG_Msg *pOriginal, MSG_Msg **pClone);
MSG_API MSG_Status MSG_ReleaseMsg(MSG_Msg *pMsg);
MSG_API MSG_Status MSG_AllocMsg_Private(LocalEndpoint *pMyEndpoint, MSG_Type MsgType,
                                        int32_t MsgBytes, MSG_Msg **pMsgUser);
MSG_API MSG_Status MSG_Clone_Private(LocalEndpoint *pMyEndpoint, const MSG_Msg *pOriginal,
                                     MSG_Msg **pClone);
MSG_API MSG_Status MSG_ReleaseMsg_Private(LocalEndpoint *pMyEndpoint, MSG_Msg **pMsg);
MSG_API MSG_Status MSG_ReleasePendingMsgs_NeedsLock(LocalEndpoint *pEndpoint);
MSG_API void MSG_InitMsgInstrument(void);

/* ---- Outstanding-message tracker -----------------------------------------
 * Created when MSG_DEBUG_TRACKER is set at an allocation, release or open;
 * reports double allocations and releases and many held buffers. */
typedef struct MSG_Hash MSG_Hash;
MSG_API extern MSG_Hash *gpHash;
MSG_API MSG_Hash *MSG_CreateHash(uint32_t Size, uint32_t StepSize, uint32_t MaxSteps,
                                 uint32_t Interval);
MSG_API MSG_Status MSG_DestroyHash(MSG_Hash *apHash);
MSG_API MSG_Status MSG_AddHashEntry(MSG_Hash *apHash, const MSG_Msg *pMsg, uint32_t bAlloc);
MSG_API MSG_Status MSG_RemoveHashEntry(MSG_Hash *apHash, const MSG_Msg *pMsg);

/* ---- Callback descriptor ----------------------------------------------- */

typedef uint32_t (*MSG_CallbackFunc)(void *pContext, MSG_Msg *pMsg);

typedef struct MSG_Callback {
    MSG_CallbackFunc pFunc;   /* called for each matching message */
    void    *pContext;        /* handed back to pFunc unchanged */
    uint32_t MsgTypeMin;      /* lowest type of the range */
    uint32_t MsgTypeMax;      /* highest type of the range, inclusive */
    uint32_t bOneShot;        /* 1: removed after its first dispatch */
} MSG_Callback;

/* Callbacks for ranges of message types on a local endpoint.  A range
 * starting above MSG_TYPE_USER_MAX is internal (open/close and notification
 * messages, run by the receive loop); others are user callbacks, run by
 * MSG_ProcessCallback.  Matching callbacks run oldest first, with no
 * library lock held. */
MSG_API MSG_Status MSG_RegisterCallback(const char *pName, const MSG_Callback *pCallback);
MSG_API MSG_Status MSG_RegisterCallbackHelper(const char *pName, MSG_CallbackFunc pFunc,
                                              void *pContext, uint32_t MsgTypeMin,
                                              uint32_t MsgTypeMax, uint32_t bOneShot);
MSG_API MSG_Status MSG_UnregisterCallback(const char *pName, const MSG_Callback *pCallback);
MSG_API MSG_Status MSG_UnregisterCallbackHelper(const char *pName, MSG_CallbackFunc pFunc,
                                                void *pContext, uint32_t MsgTypeMin,
                                                uint32_t MsgTypeMax, uint32_t bOneShot);
MSG_API MSG_Status MSG_ProcessCallback(const char *pName, MSG_Msg *pMsg);
MSG_API MSG_Status MSG_ProcessCallback_Private(LocalEndpoint *pEndpoint, MSG_Msg *pMsg,
                                               uint32_t bInternal);
MSG_API MSG_Status MSG_PurgeOpenCloseCallbacks(LocalEndpoint *pLocalEndpoint, MSG_Type MsgOpen);

/* ---- Debug flag word ---------------------------------------------------
 * Process-wide, 0 at load, read and written without a lock. */
#define MSG_DEBUG_FILL_PAYLOAD     0x00000001u /* fill new payloads with 0xCC */
#define MSG_DEBUG_LOG_RECV_TIMEOUT 0x00000020u /* write status 102 lines */
#define MSG_DEBUG_LOG_OPEN_PENDING 0x00000040u /* write status 309 lines */
#define MSG_DEBUG_LOG_ALREADY_OPEN 0x00000080u /* write status 306 lines */
#define MSG_DEBUG_LOG_NO_CALLBACK  0x00000100u /* write status 304 lines */
#define MSG_DEBUG_LOG_NO_NTFY      0x00000200u /* write status 305 lines */
#define MSG_DEBUG_LOG_SUCCESS      0x00000400u /* write status 0 lines */
#define MSG_DEBUG_STDERR           0x02000000u /* copy every line to stderr */
#define MSG_DEBUG_TELEMETRY_SEND   0x04000000u /* copy sent traffic to telemetry */
#define MSG_DEBUG_TELEMETRY_RECV   0x08000000u /* copy received traffic to telemetry */
#define MSG_DEBUG_TRACKER          0x80000000u /* create the buffer tracker */

MSG_API extern uint32_t DebugFlag;

MSG_API MSG_Status MSG_DebugSetFlag(uint32_t Flag);
MSG_API uint32_t MSG_DebugGetFlag(void);
/* Kept for programs written against older releases: does nothing. */
MSG_API MSG_Status MSG_DebugSetName(void);

/* ---- Diagnostic log ----------------------------------------------------
 * Formats take printf conversions d, u, x, p, s (flags, width and precision
 * allowed, no length modifiers) and $ tokens ($err, $errno, $func, $file,
 * $line, $progname, $halvo, $pid, $local, $plocal, $remote, $premote,
 * $message, $callback, $pint, $signal, $psignal, $sigselect).  A line holds
 * at most 511 characters.  An unknown conversion or token aborts: it is a
 * fault of the calling program's format. */
MSG_API MSG_Status MSG_LogOs(int Level, const char *pFile, int Line,
                             const char *pFunc, const char *pFormat, ...);
/* Writes the line only when Status and DebugFlag ask for it: status 0 at
 * level 6 with MSG_DEBUG_LOG_SUCCESS, 102/304/305/306/309 at level 4 with
 * their bit, every other status always at level 3. */
MSG_API MSG_Status MSG_LogErrFilter(int Status, const char *pFile, int Line,
                                    const char *pFunc, const char *pFormat, ...);

/* ---- Small helpers ---------------------------------------------------- */

/* Declared here so that the header compiles in strict C99, where <time.h>
 * leaves struct timespec to POSIX: a caller that uses these has it. */
struct timespec;
MSG_API int32_t MSG_CalcElapsedMsec(struct timespec Start, struct timespec End);
MSG_API int32_t MSG_GetMsecSince(struct timespec Start);
/* 1, 2, ... 0xFFFFFF, then 0, 1, ... */
MSG_API uint32_t MSG_GetNextSequence(void);
/* malloc filled with 0xCC; null when out of memory. */
MSG_API void *MSG_Malloc(uint32_t Size);
/* free; a null block aborts. */
MSG_API void MSG_Free(void *pBlock);
MSG_API char *MSG_Strdup(const char *pString);
/* Pointer just after the last '/', or the path itself. */
MSG_API const char *MSG_Basename(const char *pPath);

/* ---- Remote endpoints -------------------------------------------------------
 * Each local endpoint keeps a table of its peers: hunted by name, open
 * (LINX id known), supervised by an attach, each with a pair of internal
 * message types announcing its appearance (even) and its end (odd). */
MSG_API MSG_Status MSG_NewRemoteEndpoint(LocalEndpoint *pMyEndpoint, const char *pName,
                                         uint32_t bDelOnClose, uint32_t *pNtfyOpen);
MSG_API MSG_Status MSG_NewNamelessRemoteEndpoint(LocalEndpoint *pMyEndpoint, uint32_t RemoteId);
MSG_API MSG_Status MSG_SetRemoteStateOpen(LocalEndpoint *pMyEndpoint, uint32_t RemoteId,
                                          MSG_Type MsgOpen);
MSG_API MSG_Status MSG_SetRemoteStateClosed(LocalEndpoint *pMyEndpoint, uint32_t RemoteId,
                                            MSG_Type MsgClose, char *pNameBuf, uint32_t NameLen);
MSG_API MSG_Status MSG_DeleteRemoteEndpoint(LocalEndpoint *pMyEndpoint, const char *pName,
                                            uint32_t *pRemoteId, uint32_t *pNtfyOpen);
MSG_API MSG_Status MSG_GetRemoteId_Private(LocalEndpoint *pMyEndpoint, const char *pName,
                                           uint32_t *pRemoteId, uint32_t *pNtfyOpen);
/* The LINX id of an open peer by name (resolved through the configuration),
 * 0 when unknown or still hunted. */
MSG_API uint32_t MSG_GetRemoteId(const char *pLocalName, const char *pRemoteName);
/* Copies the name of the peer with that id; its length, at most NameLen, or 0. */
MSG_API int32_t MSG_GetRemoteName(LocalEndpoint *pMyEndpoint, uint32_t RemoteId, char *pNameBuf,
                                  int32_t NameLen);
/* Attaches to every open peer not attached yet; the last failure, or 0. */
MSG_API MSG_Status MSG_AttachAsNeeded(LocalEndpoint *pMyEndpoint);
/* Watches a peer known by id: pFunc gets its close message (once, or after
 * every restart of the peer when bJustOnce is 0). */
MSG_API MSG_Status MSG_RegisterCloseCallback(const char *pLocalName, const char *pRemoteName,
                                             uint32_t RemoteId, MSG_CallbackFunc pFunc,
                                             void *pContext, uint32_t bJustOnce);

/* ---- Opening and closing remote endpoints ---------------------------------
 * A peer is reached by its name, resolved through the configuration, in
 * the table of one of the program's public endpoints, whose receive loop
 * (MSG_RecvAnyMsg) delivers the peer's open and close messages.
 *
 * MSG_OpenRemoteAsync returns at once; pOpenCallback runs in the receive
 * loop's thread when the peer appears, pCloseCallback (may be null) when it
 * goes, each with a message whose sender is the peer.  Give both with a
 * range of 0..0; bOneShot 0 keeps the peer across its restarts (the
 * callbacks fire at every appearance and loss), 1 forgets it at its first
 * loss.  The hunt is made from the public endpoint: called from another
 * thread while its loop waits, the call waits for that wait to end.  306
 * when the peer is open already, 309 while it is being looked for.
 *
 * MSG_OpenRemoteSync waits on the calling thread's private endpoint, up to
 * TimeoutMillisec (-1: without limit; 0: only if the peer exists), and
 * stores the peer's LINX id; 101 when it did not appear in time.  The peer
 * is forgotten when it goes; no callback runs.
 *
 * MSG_CloseRemote forgets a peer and the callbacks registered for it. */
MSG_API MSG_Status MSG_OpenRemoteAsync(const char *pLocalName, const char *pRemoteName,
                                       const MSG_Callback *pOpenCallback,
                                       const MSG_Callback *pCloseCallback);
MSG_API MSG_Status MSG_OpenRemoteSync(const char *pLocalName, const char *pRemoteName,
                                      int32_t TimeoutMillisec, uint32_t *pRemoteId);
MSG_API MSG_Status MSG_CloseRemote(const char *pLocalName, const char *pRemoteName);
/* The one place a hunt is made: the answer is a message of MsgTypeOpen. */
MSG_API MSG_Status MSG_LinxHunt(LocalEndpoint *pEndpoint, const char *pRemoteName,
                                MSG_Type MsgTypeOpen);
/* The receive loop's handler of an open (even type) or close (odd type)
 * message: updates the table, purges a dead peer's subscriptions and hunts
 * again for a peer whose record survives it. */
MSG_API MSG_Status MSG_OpenCloseHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg);

/* ---- Notifications ----------------------------------------------------------
 * A public endpoint publishes copies of messages to the endpoints that
 * subscribed to ranges of user types.  The publisher's program subscribes a
 * known LINX id with MSG_RegisterNotification; another process subscribes
 * itself with MSG_RegisterNotificationRemote, a request the publisher's
 * receive loop handles (a callback for MSG_NTFY_REQ_REGISTER..
 * MSG_NTFY_REQ_UNREGISTER on the publisher sees each request).  A
 * subscriber that goes away loses its subscriptions.
 *
 * MSG_SendNotification sends a clone of pMsg to every subscriber whose
 * range covers its type, with the publisher as sender, and always releases
 * pMsg.  305 when nobody subscribed to its type; after a failed send the
 * other subscribers still get their copies.  Publish request types: a
 * response type (low four bits 1) is routed like a response. */
MSG_API MSG_Status MSG_RegisterNotification(const char *pName, uint32_t MsgTypeMin,
                                            uint32_t MsgTypeMax, uint32_t Receiver);
MSG_API MSG_Status MSG_UnregisterNotification(const char *pName, uint32_t MsgTypeMin,
                                              uint32_t MsgTypeMax, uint32_t Receiver);
MSG_API MSG_Status MSG_RegisterNotificationRemote(const char *pName, uint32_t MsgTypeMin,
                                                  uint32_t MsgTypeMax, uint32_t RemoteId);
MSG_API MSG_Status MSG_UnregisterNotificationRemote(const char *pName, uint32_t MsgTypeMin,
                                                    uint32_t MsgTypeMax, uint32_t RemoteId);
MSG_API MSG_Status MSG_SendNotification(const char *pName, MSG_Msg *pMsg);
/* Subscriptions held by the named endpoint; -1 when it is not open. */
MSG_API int32_t MSG_CountNotifications_Private(const char *pName);
MSG_API MSG_Status MSG_NotificationReqHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg);
MSG_API MSG_Status MSG_PurgeNotifications(LocalEndpoint *pEndpoint, uint32_t RemoteId);

/* ---- Sending and receiving ---------------------------------------------------
 * MSG_SendMsg sends on behalf of the named endpoint (its SPID is what the
 * receiver sees as sender); a response type (low four bits 1) with
 * Receiver 0 goes back to the most recent sender on its stack.  After 301,
 * 302, 104, 307 and 308 the caller still owns the message; otherwise it is
 * gone.  Receives return null on timeout and failure (the log says why).
 * MSG_RecvAnyMsg serves a public endpoint: it consumes the library's
 * internal messages and returns user messages only. */
#define MSG_TIMEOUT_FOREVER (-1)
MSG_API MSG_Status MSG_SendMsg(const char *pLocalName, uint32_t Receiver, MSG_Msg *pMsg);
MSG_API MSG_Msg *MSG_RecvMsg(const char *pLocalName, MSG_Type MsgType, int32_t TimeoutMillisec);
MSG_API MSG_Msg *MSG_RecvAnyMsg(const char *pLocalName, int32_t TimeoutMillisec);
MSG_API MSG_Status MSG_SendMsg_Private(LocalEndpoint *pMyEndpoint, uint32_t ReplyAddr,
                                       uint32_t Receiver, MSG_Msg **pMsg);
MSG_API MSG_Status MSG_RecvMsg_Private(LocalEndpoint *pLocalEndpoint, const uint32_t *pSigSel,
                                       int32_t TimeoutMillisec, MSG_Msg **pMsg, uint32_t *pSender);

/* ---- User message log -----------------------------------------------------
 * A ring of the most recent messages sent (MSG_USER_LOG_SEND) and received
 * (MSG_USER_LOG_RECV), each a 36-byte record head and up to TruncateBytes
 * of payload; the oldest records make room.  Off until configured. */
#define MSG_USER_LOG_RECV          1u
#define MSG_USER_LOG_SEND          2u
#define MSG_USER_LOG_MAGIC_NUMBER  0x5A5AA5A5u

/* BufferBytes and TruncateBytes positive multiples of 4, BufferBytes above
 * TruncateBytes + 36.  A new size empties the ring; 301 refuses. */
MSG_API MSG_Status MSG_UserLogConfig(int32_t BufferBytes, int32_t TruncateBytes, uint32_t Flag);
MSG_API uint32_t MSG_UserLogGetFlag(void);
MSG_API MSG_Status MSG_UserLogSave(const LocalEndpoint *pEndpoint, uint32_t From, uint32_t To,
                                   const MSG_Msg *pMsg);
/* To the diagnostic log (null name), or the raw records, oldest first, to
 * a file. */
MSG_API MSG_Status MSG_UserLogDump(const char *pFileName);

/* ---- Configuration --------------------------------------------------------
 * The full LINX path of a remote endpoint's name: "link/name" when the
 * device's /system/etc/orvane.pb names a link for it, else the name.  The
 * file is read once, at the first lookup.  Cut to OutSize - 1 characters;
 * always 0. */
MSG_API MSG_Status MSG_GetFullEndpointPath(const char *pName, char *pOut, uint32_t OutSize);

/* ---- Process identity -------------------------------------------------
 * The halvo index (from the kernel command line: 1 for "ep0", 2 for "ep1",
 * 0 otherwise, -1 while unreadable), the process id and the program name,
 * read once per process.  Each out pointer may be null; always returns 0. */
MSG_API MSG_Status MSG_GetProcessInfo(int32_t *pHalvoIdx, uint32_t *pPid,
                                      const char **ppProgName);

/* ---- Telemetry ----------------------------------------------------------
 * With MSG_DEBUG_TELEMETRY_SEND or MSG_DEBUG_TELEMETRY_RECV set, the
 * library copies its endpoints' traffic, and announces the public
 * endpoints it opens, to the collector endpoint "Telemetry".  Sends,
 * receives, notifications and openings call these themselves; nothing
 * here waits for the collector.  Records wait (at most 1024, the rest
 * counted and reported) until the collector is found. */
MSG_API MSG_Status MSG_ResendToGlobalTelemetry(uint32_t Sender, uint32_t Receiver, const MSG_Msg *pMsg,
                                               uint32_t bReceived);
MSG_API MSG_Status MSG_AnnounceLocalOpen(LocalEndpoint *pJustOpened);

/* ---- Diagnostic dumps -----------------------------------------------------
 * Every local endpoint of the process, with its callbacks, subscriptions
 * and remote endpoints, written to the log at level 6 whatever DebugFlag
 * holds; the thread's own endpoint is marked " ***".  The first writes
 * begin and end lines around the second.  Both return 0. */
MSG_API MSG_Status MSG_DebugDumpAll(void);
MSG_API MSG_Status MSG_DebugDumpLocalEndpoint(void);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_H */
