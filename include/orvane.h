/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file orvane.h
 * @brief The MSG_ interface of liborvane: endpoints, messages, callbacks,
 * peers, notifications and diagnostics.
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
 * Messages and ownership: a message is owned by one party at a time.
 * MSG_AllocMsg and the receives hand one to the caller; MSG_SendMsg,
 * MSG_SendNotification and MSG_ReleaseMsg take it back (each call says
 * when the caller still owns it after a failure).
 *
 * Thread safety: every call may be made from any thread unless its
 * description says otherwise; one message is used by one thread at a time.
 *
 * Seeing what the library says: set MSG_DEBUG_STDERR in DebugFlag
 * (MSG_DebugSetFlag(MSG_DebugGetFlag() | MSG_DEBUG_STDERR)) and every line
 * is also written to standard error; without it lines go to the system log
 * only.  Calls marked "library's own" are used by the library's modules
 * and need not be called by an application.
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

/** Marks the functions and variables the library exports. */
#define MSG_API __attribute__((visibility("default")))

/** @name Status codes
 * Every MSG_ call that returns a MSG_Status returns one of these.  The text
 * in quotes is what MSG_DebugStrError gives and the log lines show.
 * @{ */

/** The result of a MSG_ call: 0 is success, 1xx outcomes a caller must
 *  expect, 2xx resource and system failures, 3xx misuse and state errors. */
typedef uint32_t MSG_Status;

#define MSG_OK                        0u/**< success */
#define MSG_ERR_OPEN_REMOTE_TIMEOUT   101u/**< "open remote timeout": the peer did not appear within the timeout of MSG_OpenRemoteSync */
#define MSG_ERR_RECEIVE_TIMEOUT       102u/**< "receive timeout": no message came within the receive's timeout */
#define MSG_ERR_CONNECTION_RESET      103u/**< "connection reset": the peer is gone */
#define MSG_ERR_LOCAL_NOT_FOUND       104u/**< "local endpoint not found": no local endpoint of that name is open (or the message belongs to a private endpoint) */
#define MSG_ERR_REMOTE_NOT_FOUND      105u/**< "remote endpoint not found": no peer of that name or id in the endpoint's table */
#define MSG_ERR_MEMORY                201u/**< "memory overflow": out of memory, or a size the library cannot allocate */
#define MSG_ERR_LINX                  202u/**< "Linx error": LINX refused (the log line has its errno) */
#define MSG_ERR_SYSTEM                203u/**< "system error": a system call failed (the log line has its errno) */
#define MSG_ERR_UNKNOWN               300u/**< "unknown error": an internal state the library did not expect */
#define MSG_ERR_WRONG_PARAMETER       301u/**< "wrong parameter": an argument is null, out of range or not the library's */
#define MSG_ERR_NOT_OPEN              302u/**< "endpoint not open": the endpoint is not open */
#define MSG_ERR_NAME_CONFLICT         303u/**< "endpoint name conflict": an endpoint of that name is already open in this process */
#define MSG_ERR_CALLBACK_NOT_FOUND    304u/**< "callback not found": no callback matched the message, or none was registered like that */
#define MSG_ERR_NTFY_NOT_FOUND        305u/**< "notification not found": nobody subscribed to the type (or no such subscription) */
#define MSG_ERR_REMOTE_ALREADY_OPEN   306u/**< "remote already open": the peer is already open in the table */
#define MSG_ERR_MSG_CORRUPT           307u/**< "message corrupt": the message is damaged: wrong magic, owner or size */
#define MSG_ERR_OWNER_MISMATCH        308u/**< "message owner mismatch": the message belongs to another endpoint */
#define MSG_ERR_OPEN_IN_PROGRESS      309u/**< "remote open already in progress": the peer is being looked for already */

/** @} */

/** The text of a status code ("receive timeout" for 102); "UndefinedError"
 *  for a code not in the table.  The text is static: never free it. */
MSG_API const char *MSG_DebugStrError(MSG_Status Status);

/** @name The message header
 * Every message is a LINX signal whose first 56 bytes are this header; the
 * caller's payload follows.  The header crosses process boundaries, so its
 * layout is fixed on every ABI: pOwner is a process-local 32-bit token that
 * the owning process maps back to its endpoint record, never an address.
 * Read and write it through the accessors below.
 * @{ */
#define MSG_SEND_STACK_ELEM               8           /**< entries of the sender stack */
#define MSG_HEADER_BYTES                  56          /**< size of the header on every ABI */
#define MAGIC_NUM_MSG_ALLOC               0x1357BD11u /**< InUseMagic of a live message */
#define MSG_TYPE_USER_SHIFT               0x80000000u /**< reserved bit of the type word */
#define MSG_TYPE_USER_MAX                 0x00FFFFFFu /**< the highest type a program may use */
#define MSG_TYPE_INTERNAL_OPEN_CLOSE_MIN  0x10000000u /**< first of the library's peer open/close types */
#define MSG_TYPE_INTERNAL_OPEN_CLOSE_MAX  0x1FFFFFFFu /**< last of the library's peer open/close types */
#define MSG_NTFY_REQ_REGISTER             0x20000000u /**< a subscription request (publisher callbacks see it) */
#define MSG_NTFY_REQ_UNREGISTER           0x20000001u /**< an unsubscription request */

/** A message type: 1..MSG_TYPE_USER_MAX are the program's; a type whose
 *  low four bits are 1 is a response, routed back along the sender stack. */
typedef uint32_t MSG_Type;

/** The 56-byte header that starts every message; the payload follows it. */
typedef struct MSG_Msg {
    MSG_Type MsgType;                       /**< offset 0: also the LINX signal number */
    uint32_t Sequence;                      /**< offset 4: the sender's sequence number */
    uint8_t  SendStackSize;                 /**< offset 8: valid SendStack entries */
    uint8_t  ExtraFlags[3];                 /**< offset 9: bits 8..31 of the word at 8 */
    uint32_t SendStack[MSG_SEND_STACK_ELEM];/**< offset 12: SPIDs, entry 0 = origin */
    uint32_t pOwner;                        /**< offset 44: owner token, process-local */
    uint32_t InUseMagic;                    /**< offset 48: MAGIC_NUM_MSG_ALLOC while live */
    int32_t  PayloadBytes;                  /**< offset 52: bytes after the header */
} MSG_Msg;
/** @} */

/** Fails to compile on an ABI where the header is not 56 bytes (C99 and C++). */
typedef char MSG_HeaderIs56Bytes[(sizeof(MSG_Msg) == MSG_HEADER_BYTES) ? 1 : -1];

/** Extra flags: bits 8..31 of the header word at offset 8.  They travel with
 * the message; the library never interprets them.  A null message aborts. */
MSG_API MSG_Status MSG_SetExtraFlags(MSG_Msg *pMsg, uint32_t Flags);
/** The extra flags (bits 8..31 of the header word at 8); a null message aborts. */
MSG_API uint32_t MSG_GetExtraFlags(const MSG_Msg *pMsg);

/** @name Header accessors
 * None takes a lock: a message is used by one thread at a time.  A null
 * message reads as 0 (or null, or -301 for the payload size) and is
 * refused with 301 by the setters.
 * @{ */
/** The message's type. */
MSG_API MSG_Type MSG_GetType(const MSG_Msg *pMsg);
/** Sets the type (a response: the request's type with the low four bits 1). */
MSG_API MSG_Status MSG_SetType(MSG_Msg *pMsg, MSG_Type Type);
/** The sequence number. */
MSG_API uint32_t MSG_GetSequence(const MSG_Msg *pMsg);
/** Sets the sequence number. */
MSG_API MSG_Status MSG_SetSequence(MSG_Msg *pMsg, uint32_t Sequence);
/** The payload, just after the header. */
MSG_API const void *MSG_GetPayload(const MSG_Msg *pMsg);
/** The payload, to write into. */
MSG_API void *MSG_GetPayloadMutable(MSG_Msg *pMsg);
/** The payload's size in bytes. */
MSG_API int32_t MSG_GetPayloadBytes(const MSG_Msg *pMsg);
/** Entries of the sender stack, 0 to 8; a null message or a larger size aborts. */
MSG_API uint32_t MSG_GetSendStackSize(const MSG_Msg *pMsg);
/** The most recent sender on the stack (who sent it to this process), 0 if none. */
MSG_API uint32_t MSG_GetSender(const MSG_Msg *pMsg);
/** The first sender on the stack (who started the chain), 0 if none. */
MSG_API uint32_t MSG_GetOrigSender(const MSG_Msg *pMsg);
/** @} */
/** The owning public endpoint's name, cut to NameBytes (at most 128).
 * 104 for a message of a private endpoint, 307 for an unknown owner. */
MSG_API MSG_Status MSG_GetOwnerName(const MSG_Msg *pMsg, char *pName, uint32_t NameBytes);

/** @name Local endpoints
 * A public endpoint is opened under the program's name and served by a
 * receive loop.  Every thread also gets a private endpoint, opened on
 * demand, that owns the messages it allocates; it closes when the thread
 * ends.
 * @{ */
/** A local endpoint's record (opaque): the library's own calls take it. */
typedef struct LocalEndpoint LocalEndpoint;
struct LinxHandle;

/** Opens a public endpoint, or with a null name the caller's private one.
 * 303 when the name (or the caller's private endpoint) is already open,
 * 202 when LINX refuses. */
MSG_API MSG_Status MSG_OpenLocal(const char *pEndpointName);
/** Closes a public endpoint by name, or with a null name the caller's
 * private one.  302 when there is none; a private endpoint of another
 * thread is refused with 301. */
MSG_API MSG_Status MSG_CloseLocal(const char *pEndpointName);
/** 1 if open, 0 if not, 301 for a null name. */
MSG_API uint32_t MSG_IsLocalOpen(const char *pEndpointName);

/** The library's own: prepares the registry (the first open calls it once). */
MSG_API void MSG_Init(void);
/** The calling thread's private endpoint record, or null before it has one. */
MSG_API LocalEndpoint *MSG_GetMyEndpoint(void);
/** The library's own: enters an opened LINX socket in the registry; 0 or 201. */
MSG_API MSG_Status MSG_AddLocalEndpoint(const char *pEndpointName, struct LinxHandle *pLinx,
                                        uint32_t Spid, uint32_t bPublic,
                                        LocalEndpoint **ppLocalEndpoint);
/** The library's own: removes a record from the registry and closes its
 *  socket; 0, 202 or 302. */
MSG_API MSG_Status MSG_DeleteLocalEndpoint(LocalEndpoint *pLocalEndpoint);
/** The record of the public endpoint of that name, or null. */
MSG_API LocalEndpoint *MSG_GetLocalEndpoint(const char *pName);
/** The visitor of MSG_ForAllLocalEndpoints: a non-zero code is remembered. */
typedef int32_t (*MSG_ForAllCallback)(void *pContext, LocalEndpoint *pLocalEndpoint);
/** Visits every endpoint under the registry lock: the callback must not
 * open, close or look up endpoints.  Returns the last non-zero code. */
MSG_API int32_t MSG_ForAllLocalEndpoints(MSG_ForAllCallback pCallback, void *pContext);
/** 1 if the record is in the registry (open), else 0. */
MSG_API uint32_t MSG_IsLocalEndpointValid(const LocalEndpoint *pLocalEndpoint);
/** The descriptor of the endpoint's LINX socket (poll it for readable, never
 *  read it), or -1 when it is not open. */
MSG_API int MSG_GetLocalFileDesc(const char *pName);
/** The process id and the name of the LINX endpoint Spid, asked through the
 *  local endpoint pName; 0, 104, 203 or 301. */
MSG_API MSG_Status MSG_GetEndpointPidName(const char *pName, uint32_t Spid, uint32_t *pPid,
                                          char *pNameBuf, uint32_t NameLen);
/** Signals waiting for the endpoint Spid (0: the named endpoint itself),
 *  or -1 when it cannot be asked. */
MSG_API int32_t MSG_GetNumMsgsPending(const char *pName, uint32_t Spid);
/** @} */

/** @name Messages
 * Allocation uses the calling thread's private endpoint.  A message of a
 * public endpoint is released lazily: freed by the next receive on that
 * endpoint, or when it closes.
 * @{ */
/** A new message of a user type (1..MSG_TYPE_USER_MAX) with PayloadBytes
 *  (0 or more) of payload, owned by the caller until sent or released.
 *  The payload's bytes are unspecified: a recycled buffer of this process
 *  may still hold an earlier message's bytes, so write every byte you
 *  send (MSG_DEBUG_FILL_PAYLOAD fills it with 0xCC instead).  Null when
 *  the type or size is refused or memory runs out (the log says which). */
MSG_API MSG_Msg *MSG_AllocMsg(MSG_Type MsgType, uint32_t Seq, int32_t PayloadBytes);
/** The library's own: MSG_AllocMsg without the test of the type. */
MSG_API MSG_Msg *MSG_AllocMsg_Internal(MSG_Type MsgType, uint32_t Seq, int32_t PayloadBytes);
/** A new message with pOrig's sequence and sender stack, and the given type
 *  and payload size (a response for a request); null on failure. */
MSG_API MSG_Msg *MSG_AllocMsgCopyHdr(const MSG_Msg *pOrig, MSG_Type MsgType, int32_t PayloadBytes);
/** A copy of the whole message, owned by the caller, into *pClone. */
MSG_API MSG_Status MSG_CloneMsg(const MSG_Msg *pOriginal, MSG_Msg **pClone);
/** Gives a message back; it may not be used afterwards.  307 or 308 when
 *  it is not a live message of this process (then nothing is freed). */
MSG_API MSG_Status MSG_ReleaseMsg(MSG_Msg *pMsg);
/** The library's own: allocation from a given endpoint (MsgBytes counts the header). */
MSG_API MSG_Status MSG_AllocMsg_Private(LocalEndpoint *pMyEndpoint, MSG_Type MsgType,
                                        int32_t MsgBytes, MSG_Msg **pMsgUser);
/** The library's own: a copy owned by the given endpoint. */
MSG_API MSG_Status MSG_Clone_Private(LocalEndpoint *pMyEndpoint, const MSG_Msg *pOriginal,
                                     MSG_Msg **pClone);
/** The library's own: release through a given endpoint; clears *pMsg. */
MSG_API MSG_Status MSG_ReleaseMsg_Private(LocalEndpoint *pMyEndpoint, MSG_Msg **pMsg);
/** The library's own: frees the endpoint's deferred releases (its lock held). */
MSG_API MSG_Status MSG_ReleasePendingMsgs_NeedsLock(LocalEndpoint *pEndpoint);
/** Creates the buffer tracker when MSG_DEBUG_TRACKER is set (once). */
MSG_API void MSG_InitMsgInstrument(void);
/** @} */

/** @name Outstanding-message tracker
 * Created when MSG_DEBUG_TRACKER is set at an allocation, release or open;
 * reports double allocations and releases and many held buffers.
 * @{ */
/** A tracker table (opaque). */
typedef struct MSG_Hash MSG_Hash;
/** The process's tracker, null until MSG_DEBUG_TRACKER creates it. */
MSG_API extern MSG_Hash *gpHash;
/** A tracker of Size slots, probed StepSize apart at most MaxSteps times,
 *  reporting every Interval-th held buffer; null when memory runs out. */
MSG_API MSG_Hash *MSG_CreateHash(uint32_t Size, uint32_t StepSize, uint32_t MaxSteps,
                                 uint32_t Interval);
/** Frees a tracker; 301 for null. */
MSG_API MSG_Status MSG_DestroyHash(MSG_Hash *apHash);
/** Records a buffer (bAlloc 1: just allocated, 0: just received); a buffer
 *  already recorded is reported as a double allocation.  301 for bad arguments. */
MSG_API MSG_Status MSG_AddHashEntry(MSG_Hash *apHash, const MSG_Msg *pMsg, uint32_t bAlloc);
/** Forgets a buffer being released; 300 (and a line) when it was not recorded. */
MSG_API MSG_Status MSG_RemoveHashEntry(MSG_Hash *apHash, const MSG_Msg *pMsg);
/** @} */

/** @name Callbacks
 * @{ */

/** A callback: called with the context it was registered with and the
 *  message, which it may read and change but neither release nor send (it
 *  is lent for the call; clone it to keep it).  Its return value is a
 *  MSG_Status that the dispatch hands on: MSG_ProcessCallback returns the
 *  value of the last callback it ran, and the receive loop logs a value
 *  other than 0 from an internal callback.  Return 0 when it handled the
 *  message. */
typedef uint32_t (*MSG_CallbackFunc)(void *pContext, MSG_Msg *pMsg);

/** A callback for a range of message types. */
typedef struct MSG_Callback {
    MSG_CallbackFunc pFunc;   /**< called for each matching message */
    void    *pContext;        /**< handed back to pFunc unchanged */
    uint32_t MsgTypeMin;      /**< lowest type of the range */
    uint32_t MsgTypeMax;      /**< highest type of the range, inclusive */
    uint32_t bOneShot;        /**< 1: removed after its first dispatch */
} MSG_Callback;

/** Registers a callback for a range of message types on a local endpoint
 *  (the descriptor is copied).  A range starting above MSG_TYPE_USER_MAX
 *  is internal (open/close and notification messages, run by the receive
 *  loop); others are user callbacks, run by MSG_ProcessCallback.  Matching
 *  callbacks run oldest first, with no library lock held.  0, 104, 201 or 301. */
MSG_API MSG_Status MSG_RegisterCallback(const char *pName, const MSG_Callback *pCallback);
/** MSG_RegisterCallback with the descriptor's fields as arguments. */
MSG_API MSG_Status MSG_RegisterCallbackHelper(const char *pName, MSG_CallbackFunc pFunc,
                                              void *pContext, uint32_t MsgTypeMin,
                                              uint32_t MsgTypeMax, uint32_t bOneShot);
/** Removes the oldest callback equal in every field to *pCallback; 304 when
 *  there is none, 104 or 301. */
MSG_API MSG_Status MSG_UnregisterCallback(const char *pName, const MSG_Callback *pCallback);
/** MSG_UnregisterCallback with the descriptor's fields as arguments. */
MSG_API MSG_Status MSG_UnregisterCallbackHelper(const char *pName, MSG_CallbackFunc pFunc,
                                                void *pContext, uint32_t MsgTypeMin,
                                                uint32_t MsgTypeMax, uint32_t bOneShot);
/** Runs the endpoint's user callbacks whose range holds the message's type,
 *  oldest first.  The caller keeps the message.  The last callback's
 *  value; 304 when none matched, 104 or 301. */
MSG_API MSG_Status MSG_ProcessCallback(const char *pName, MSG_Msg *pMsg);
/** The library's own: dispatch of user (bInternal 0) or internal callbacks. */
MSG_API MSG_Status MSG_ProcessCallback_Private(LocalEndpoint *pEndpoint, MSG_Msg *pMsg,
                                               uint32_t bInternal);
/** The library's own: removes the open and close callbacks of one peer. */
MSG_API MSG_Status MSG_PurgeOpenCloseCallbacks(LocalEndpoint *pLocalEndpoint, MSG_Type MsgOpen);
/** @} */

/** @name Debug flag word
 * Bits of DebugFlag: process-wide, 0 at load, read and written without a
 * lock (set them before starting threads, or accept that other threads
 * see a change a little later).
 * @{ */
#define MSG_DEBUG_FILL_PAYLOAD     0x00000001u /**< fill new payloads with 0xCC */
#define MSG_DEBUG_LOG_RECV_TIMEOUT 0x00000020u /**< write status 102 lines */
#define MSG_DEBUG_LOG_OPEN_PENDING 0x00000040u /**< write status 309 lines */
#define MSG_DEBUG_LOG_ALREADY_OPEN 0x00000080u /**< write status 306 lines */
#define MSG_DEBUG_LOG_NO_CALLBACK  0x00000100u /**< write status 304 lines */
#define MSG_DEBUG_LOG_NO_NTFY      0x00000200u /**< write status 305 lines */
#define MSG_DEBUG_LOG_SUCCESS      0x00000400u /**< write status 0 lines */
#define MSG_DEBUG_STDERR           0x02000000u /**< copy every line to stderr */
#define MSG_DEBUG_TELEMETRY_SEND   0x04000000u /**< copy sent traffic to telemetry */
#define MSG_DEBUG_TELEMETRY_RECV   0x08000000u /**< copy received traffic to telemetry */
#define MSG_DEBUG_TRACKER          0x80000000u /**< create the buffer tracker */

/** The debug flag word: an OR of MSG_DEBUG_ bits. */
MSG_API extern uint32_t DebugFlag;

/** Stores the whole word (to add a bit: MSG_DebugSetFlag(MSG_DebugGetFlag() | bit)); 0. */
MSG_API MSG_Status MSG_DebugSetFlag(uint32_t Flag);
/** The debug flag word. */
MSG_API uint32_t MSG_DebugGetFlag(void);
/** Kept for programs written against older releases: does nothing. */
MSG_API MSG_Status MSG_DebugSetName(void);
/** @} */

/** @name Diagnostic log
 * Formats take printf conversions d, u, x, p, s (flags, width and precision
 * allowed, no length modifiers) and $ tokens ($err, $errno, $func, $file,
 * $line, $progname, $halvo, $pid, $local, $plocal, $remote, $premote,
 * $message, $callback, $pint, $signal, $psignal, $sigselect).  A line holds
 * at most 511 characters.  An unknown conversion or token aborts: it is a
 * fault of the calling program's format.
 * @{ */
/** Writes one line at syslog Level (3, 4 or 6) to the system log, and to
 *  standard error with MSG_DEBUG_STDERR; pFile, Line and pFunc fill $file,
 *  $line and $func.  301 (nothing written) for a null format, else 0. */
MSG_API MSG_Status MSG_LogOs(int Level, const char *pFile, int Line,
                             const char *pFunc, const char *pFormat, ...);
/** Writes the line only when Status and DebugFlag ask for it: status 0 at
 * level 6 with MSG_DEBUG_LOG_SUCCESS, 102/304/305/306/309 at level 4 with
 * their bit, every other status always at level 3. */
MSG_API MSG_Status MSG_LogErrFilter(int Status, const char *pFile, int Line,
                                    const char *pFunc, const char *pFormat, ...);
/** @} */

/** @name Small helpers
 * @{ */

/* Declared here so that the header compiles in strict C99, where <time.h>
 * leaves struct timespec to POSIX: a caller that uses these has it. */
struct timespec;
/** Signed milliseconds from Start to End. */
MSG_API int32_t MSG_CalcElapsedMsec(struct timespec Start, struct timespec End);
/** Milliseconds since Start, by CLOCK_MONOTONIC. */
MSG_API int32_t MSG_GetMsecSince(struct timespec Start);
/** The next sequence number of the process: 1, 2, ... 0xFFFFFF, then 0, 1, ... */
MSG_API uint32_t MSG_GetNextSequence(void);
/** malloc filled with 0xCC; null when out of memory. */
MSG_API void *MSG_Malloc(uint32_t Size);
/** free; a null block aborts. */
MSG_API void MSG_Free(void *pBlock);
/** strdup; null when out of memory. */
MSG_API char *MSG_Strdup(const char *pString);
/** Pointer just after the last '/', or the path itself. */
MSG_API const char *MSG_Basename(const char *pPath);
/** @} */

/** @name Remote endpoints
 * Each local endpoint keeps a table of its peers: hunted by name, open
 * (LINX id known), supervised by an attach, each with a pair of internal
 * message types announcing its appearance (even) and its end (odd).
 * @{ */
/** The library's own: a new hunted peer in the table; 0, 201, 306 or 309. */
MSG_API MSG_Status MSG_NewRemoteEndpoint(LocalEndpoint *pMyEndpoint, const char *pName,
                                         uint32_t bDelOnClose, uint32_t *pNtfyOpen);
/** The library's own: a peer known by id only (MSG_RegisterCloseCallback). */
MSG_API MSG_Status MSG_NewNamelessRemoteEndpoint(LocalEndpoint *pMyEndpoint, uint32_t RemoteId);
/** The library's own: the peer of that open type appeared as RemoteId. */
MSG_API MSG_Status MSG_SetRemoteStateOpen(LocalEndpoint *pMyEndpoint, uint32_t RemoteId,
                                          MSG_Type MsgOpen);
/** The library's own: the peer RemoteId is gone; its name into pNameBuf. */
MSG_API MSG_Status MSG_SetRemoteStateClosed(LocalEndpoint *pMyEndpoint, uint32_t RemoteId,
                                            MSG_Type MsgClose, char *pNameBuf, uint32_t NameLen);
/** The library's own: removes a peer by name; 0 or 105. */
MSG_API MSG_Status MSG_DeleteRemoteEndpoint(LocalEndpoint *pMyEndpoint, const char *pName,
                                            uint32_t *pRemoteId, uint32_t *pNtfyOpen);
/** The library's own: a peer's id and open type by full name; 0 or 105. */
MSG_API MSG_Status MSG_GetRemoteId_Private(LocalEndpoint *pMyEndpoint, const char *pName,
                                           uint32_t *pRemoteId, uint32_t *pNtfyOpen);
/** The LINX id of an open peer by name (resolved through the configuration),
 * 0 when unknown or still hunted. */
MSG_API uint32_t MSG_GetRemoteId(const char *pLocalName, const char *pRemoteName);
/** Copies the name of the peer with that id; its length, at most NameLen, or 0. */
MSG_API int32_t MSG_GetRemoteName(LocalEndpoint *pMyEndpoint, uint32_t RemoteId, char *pNameBuf,
                                  int32_t NameLen);
/** The library's own: attaches to every open peer not attached yet; the last failure, or 0. */
MSG_API MSG_Status MSG_AttachAsNeeded(LocalEndpoint *pMyEndpoint);
/** Watches a peer known by id: pFunc gets its close message (once, or after
 * every restart of the peer when bJustOnce is 0). */
MSG_API MSG_Status MSG_RegisterCloseCallback(const char *pLocalName, const char *pRemoteName,
                                             uint32_t RemoteId, MSG_CallbackFunc pFunc,
                                             void *pContext, uint32_t bJustOnce);
/** @} */

/** @name Opening and closing remote endpoints
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
 * MSG_CloseRemote forgets a peer and the callbacks registered for it.
 * @{ */
/** Starts looking for the peer pRemoteName in the table of the public
 *  endpoint pLocalName and returns at once; the callbacks run in its
 *  receive loop (see above).  0, 104, 201, 202, 301, 306 or 309. */
MSG_API MSG_Status MSG_OpenRemoteAsync(const char *pLocalName, const char *pRemoteName,
                                       const MSG_Callback *pOpenCallback,
                                       const MSG_Callback *pCloseCallback);
/** Waits up to TimeoutMillisec for the peer and stores its LINX id in
 *  *pRemoteId.  0, 101 (not there in time), 104, 202, 301, 306 (open
 *  already: MSG_GetRemoteId gives its id) or 309 (an asynchronous open of it
 *  is under way).  *pRemoteId is 0 unless it succeeded. */
MSG_API MSG_Status MSG_OpenRemoteSync(const char *pLocalName, const char *pRemoteName,
                                      int32_t TimeoutMillisec, uint32_t *pRemoteId);
/** Forgets a peer with its callbacks and withdraws its attach; 0, 104, 105 or 301. */
MSG_API MSG_Status MSG_CloseRemote(const char *pLocalName, const char *pRemoteName);
/** The library's own: the one place a hunt is made: the answer is a message of MsgTypeOpen. */
MSG_API MSG_Status MSG_LinxHunt(LocalEndpoint *pEndpoint, const char *pRemoteName,
                                MSG_Type MsgTypeOpen);
/** The library's own: the receive loop's handler of an open (even type) or close (odd type)
 * message: updates the table, purges a dead peer's subscriptions and hunts
 * again for a peer whose record survives it. */
MSG_API MSG_Status MSG_OpenCloseHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg);
/** @} */

/** @name Notifications
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
 * response type (low four bits 1) is routed like a response.
 * @{ */
/** Subscribes the LINX id Receiver to the user types MsgTypeMin..MsgTypeMax
 *  of the publisher pName (in the publisher's program).  0, 104, 201 or 301. */
MSG_API MSG_Status MSG_RegisterNotification(const char *pName, uint32_t MsgTypeMin,
                                            uint32_t MsgTypeMax, uint32_t Receiver);
/** Removes that subscription; 305 when there is none. */
MSG_API MSG_Status MSG_UnregisterNotification(const char *pName, uint32_t MsgTypeMin,
                                              uint32_t MsgTypeMax, uint32_t Receiver);
/** Asks the publisher RemoteId (an open peer) to send copies of the types
 *  MsgTypeMin..MsgTypeMax to the endpoint pName.  0, 104, 201, 202 or 301. */
MSG_API MSG_Status MSG_RegisterNotificationRemote(const char *pName, uint32_t MsgTypeMin,
                                                  uint32_t MsgTypeMax, uint32_t RemoteId);
/** Asks the publisher RemoteId to stop sending that range to pName. */
MSG_API MSG_Status MSG_UnregisterNotificationRemote(const char *pName, uint32_t MsgTypeMin,
                                                    uint32_t MsgTypeMax, uint32_t RemoteId);
/** Publishes pMsg (see above); pMsg is always consumed.  0, 305 (nobody
 *  subscribed), or the failure of a copy (the others still went). */
MSG_API MSG_Status MSG_SendNotification(const char *pName, MSG_Msg *pMsg);
/** Subscriptions held by the named endpoint; -1 when it is not open. */
MSG_API int32_t MSG_CountNotifications_Private(const char *pName);
/** The library's own: the receive loop's handler of subscription requests. */
MSG_API MSG_Status MSG_NotificationReqHandler(LocalEndpoint *pEndpoint, MSG_Msg *pMsg);
/** The library's own: drops every subscription of the subscriber RemoteId. */
MSG_API MSG_Status MSG_PurgeNotifications(LocalEndpoint *pEndpoint, uint32_t RemoteId);
/** @} */

/** @name Sending and receiving
 * MSG_SendMsg sends on behalf of the named endpoint (its SPID is what the
 * receiver sees as sender); a response type (low four bits 1) with
 * Receiver 0 goes back to the most recent sender on its stack.  After 301,
 * 302, 104, 307 and 308 the caller still owns the message; otherwise it is
 * gone.  Receives return null on timeout and failure (the log says why).
 * MSG_RecvAnyMsg serves a public endpoint: it consumes the library's
 * internal messages and returns user messages only.
 * @{ */
/** A timeout that waits without limit. */
#define MSG_TIMEOUT_FOREVER (-1)
/** Sends pMsg from the endpoint pLocalName (public, or null for the
 *  thread's private one) to the LINX id Receiver (0 for a response: back to
 *  the most recent sender on its stack).  0 (the message is gone), 103 (the
 *  receiver is gone), 202 (LINX refused), 300 (a private endpoint named: the
 *  message is released), or 301, 302, 104, 307, 308 (the caller still owns
 *  the message). */
MSG_API MSG_Status MSG_SendMsg(const char *pLocalName, uint32_t Receiver, MSG_Msg *pMsg);
/** Waits up to TimeoutMillisec (0 polls, -1 waits without limit) for a
 *  message of type MsgType on the endpoint pLocalName (null: the thread's
 *  private one); the message is the caller's.  Null on timeout or failure
 *  (the log says why). */
MSG_API MSG_Msg *MSG_RecvMsg(const char *pLocalName, MSG_Type MsgType, int32_t TimeoutMillisec);
/** The receive loop of a public endpoint: waits up to TimeoutMillisec for
 *  any message, runs the library's internal ones (peer open/close, which
 *  call their callbacks, and subscription requests) and returns the first
 *  user message, the caller's.  Null on timeout, failure, or after an
 *  internal message it consumed or refused (call it again). */
MSG_API MSG_Msg *MSG_RecvAnyMsg(const char *pLocalName, int32_t TimeoutMillisec);
/** The library's own: the send, with the sender the receiver sees. */
MSG_API MSG_Status MSG_SendMsg_Private(LocalEndpoint *pMyEndpoint, uint32_t ReplyAddr,
                                       uint32_t Receiver, MSG_Msg **pMsg);
/** The library's own: the receive, with a LINX selection array. */
MSG_API MSG_Status MSG_RecvMsg_Private(LocalEndpoint *pLocalEndpoint, const uint32_t *pSigSel,
                                       int32_t TimeoutMillisec, MSG_Msg **pMsg, uint32_t *pSender);
/** @} */

/** @name User message log
 * A ring of the most recent messages sent (MSG_USER_LOG_SEND) and received
 * (MSG_USER_LOG_RECV), each a 36-byte record head and up to TruncateBytes
 * of payload; the oldest records make room.  Off until configured.
 * @{ */
#define MSG_USER_LOG_RECV          1u          /**< keep received messages */
#define MSG_USER_LOG_SEND          2u          /**< keep sent messages */
#define MSG_USER_LOG_MAGIC_NUMBER  0x5A5AA5A5u /**< the first word of every record */

/** Sizes the ring and chooses what it keeps (an OR of MSG_USER_LOG_RECV and
 *  MSG_USER_LOG_SEND); BufferBytes and TruncateBytes positive multiples of 4, BufferBytes above
 * TruncateBytes + 36.  A new size empties the ring; 301 refuses. */
MSG_API MSG_Status MSG_UserLogConfig(int32_t BufferBytes, int32_t TruncateBytes, uint32_t Flag);
/** What the ring keeps: the Flag of MSG_UserLogConfig. */
MSG_API uint32_t MSG_UserLogGetFlag(void);
/** The library's own: records one message sent or received. */
MSG_API MSG_Status MSG_UserLogSave(const LocalEndpoint *pEndpoint, uint32_t From, uint32_t To,
                                   const MSG_Msg *pMsg);
/** Writes the ring to the diagnostic log (null name), or its raw records,
 *  oldest first, to a file (`orvane userlog FILE` reads them). */
MSG_API MSG_Status MSG_UserLogDump(const char *pFileName);
/** @} */

/** @name Configuration
 * The endpoint configuration file tells through which LINX link each peer
 * is reached.  The device's file is /system/etc/orvane.pb; a host without
 * it is a normal case: every name is then reached as it is (the first
 * lookup writes the stat line of the missing file, once).
 * @{ */
/** The full LINX path of a remote endpoint's name: "link/name" when the
 *  configuration names a link for it, else the name.  The file is read
 *  once, at the first lookup (or by MSG_SetConfigFile).  Cut to OutSize - 1
 *  characters; always 0. */
MSG_API MSG_Status MSG_GetFullEndpointPath(const char *pName, char *pOut, uint32_t OutSize);
/** Loads the configuration from pPath instead of /system/etc/orvane.pb, for
 *  the rest of the process's life: for hosts and tests, where that path
 *  needs root.  Call it before the first peer is opened.  The load's status
 *  (0, 201, or 203 with its line: every name then maps to itself); 301 for
 *  a null or empty path, or once the configuration was loaded (a line
 *  names the file it holds). */
MSG_API MSG_Status MSG_SetConfigFile(const char *pPath);
/** @} */

/** The halvo index (from the kernel command line: 1 for "ep0", 2 for "ep1",
 * 0 otherwise, -1 while unreadable), the process id and the program name,
 * read once per process.  Each out pointer may be null; always returns 0. */
MSG_API MSG_Status MSG_GetProcessInfo(int32_t *pHalvoIdx, uint32_t *pPid,
                                      const char **ppProgName);

/** @name Telemetry
 * With MSG_DEBUG_TELEMETRY_SEND or MSG_DEBUG_TELEMETRY_RECV set, the
 * library copies its endpoints' traffic, and announces the public
 * endpoints it opens, to the collector endpoint "Telemetry".  Sends,
 * receives, notifications and openings call these themselves; nothing
 * here waits for the collector.  Records wait (at most 1024, the rest
 * counted and reported) until the collector is found.
 * @{ */
/** The library's own: copies one message sent (bReceived 0) or received. */
MSG_API MSG_Status MSG_ResendToGlobalTelemetry(uint32_t Sender, uint32_t Receiver, const MSG_Msg *pMsg,
                                               uint32_t bReceived);
/** The library's own: announces a public endpoint just opened. */
MSG_API MSG_Status MSG_AnnounceLocalOpen(LocalEndpoint *pJustOpened);
/** @} */

/** Writes every local endpoint of the process, with its callbacks,
 *  subscriptions and remote endpoints, to the log at level 6 whatever
 *  DebugFlag holds, between a begin and an end line; the thread's own
 *  endpoint is marked " ***".  Returns 0. */
MSG_API MSG_Status MSG_DebugDumpAll(void);
/** The endpoints' part of MSG_DebugDumpAll, without its begin and end
 *  lines; returns 0. */
MSG_API MSG_Status MSG_DebugDumpLocalEndpoint(void);

#ifdef __cplusplus
}
#endif

#endif /* ORVANE_H */
