/*
 * linxd_protocol.h - the wire protocol between LINX stand-in clients and
 * the linxd service.  It is the only thing the two sides share.
 *
 * Control: each emulated LINX socket is one SOCK_SEQPACKET connection to
 * linxd at the abstract address "\0linxd/<uid>/<instance>".  The client
 * sends one request datagram and waits for one reply datagram; file
 * descriptors travel as SCM_RIGHTS.  Closing the connection (or the death of
 * its process) closes the emulated socket.
 *
 * Data: signals between processes travel through shared-memory rings,
 * one per sending process and receiving socket, written by the sender
 * alone and read by the receiver alone (single producer, single consumer).
 * The sender makes the ring (a sealed memfd) and hands it to linxd with
 * OPEN_ROUTE; linxd checks it and passes it on to the receiver through the
 * receiver's outlet, and gives the sender the receiver's bell (an eventfd)
 * and slot.  A send to a receiver that is busy is a copy into the ring and
 * a store: no system call.  The bell is rung only when the receiver has
 * armed it (its slot's armed word), that is when it found every ring empty.
 *
 * linxd's own signals (hunt answers, attach signals, timeouts), signals
 * that came over links from other nodes, and ring announcements go through
 * the outlet: the receiving end of a SOCK_SEQPACKET socket pair whose other
 * end only linxd holds.  A socket that stands for an endpoint behind a link
 * (a phantom) has no outlet: linxd reads the rings of its senders itself.
 *
 * Counters: linxd shares one memory region of slots with every client; a
 * socket's slot counts its queued, sent and received signals, so any
 * process can ask how many signals wait for any socket.  Every value a
 * process reads from shared memory written by others is checked before it
 * is used: a sender can break only its own ring.
 */
#ifndef LINXD_PROTOCOL_H
#define LINXD_PROTOCOL_H

#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#define LINXD_PROTOCOL_MAGIC 0x4C584431u /* "LXD1" */
#define LINXD_VERSION_WORD   0x02000501u /* 2.5.1 */

#define LINXD_INSTANCE_ENV       "LINXD_INSTANCE"
#define LINXD_DEFAULT_INSTANCE   "default"
#define LINXD_MAX_INSTANCE_CHARS 64

#define LINXD_MAX_NAME_CHARS     1024          /* endpoint names */
#define LINXD_MAX_SIGNAL_BYTES   (256u * 1024)  /* largest signal payload */
#define LINXD_MAX_CONTROL_SIGNAL (64u * 1024)   /* hunt, attach and timeout signals (outlet
                                                   datagrams from links reach LINXD_MAX_SIGNAL_BYTES) */
#define LINXD_MAX_REQUEST_BYTES  (sizeof(struct linxd_request) + LINXD_MAX_NAME_CHARS + 1 + LINXD_MAX_CONTROL_SIGNAL)
#define LINXD_MAX_SOCKETS        16384u        /* slots in the counter region */

enum linxd_op {
    LINXD_OP_VERSION = 1,     /* -> value[0] version word */
    LINXD_OP_REGISTER,        /* name -> value[0] spid, value[1] slot, value[2] queue bytes;
                                 data: the instance's 64-bit generation, drawn at
                                 random when linxd starts (SPIDs start again at
                                 every start: they name a socket only together
                                 with it); fds: outlet, counter region, bell */
    LINXD_OP_HUNT,            /* arg[0] on behalf of, name, signal -> 0 */
    LINXD_OP_ATTACH,          /* arg[0] spid, signal -> value[0] reference */
    LINXD_OP_DETACH,          /* arg[0] reference */
    LINXD_OP_REQUEST_TMO,     /* arg[0] ms, signal -> value[0] reference */
    LINXD_OP_CANCEL_TMO,      /* arg[0] reference */
    LINXD_OP_MODIFY_TMO,      /* arg[0] reference, arg[1] ms */
    LINXD_OP_REQUEST_NEW_LINK,/* arg[0] spid -> value[0] token */
    LINXD_OP_CANCEL_NEW_LINK, /* arg[0] token */
    LINXD_OP_INFO_NAME,       /* arg[0] spid -> trailing name (with terminator) */
    LINXD_OP_INFO_OWNER,      /* arg[0] spid -> value[0] pid */
    LINXD_OP_INFO_STAT,       /* arg[0] spid -> trailing 120-byte linx_info_stat */
    LINXD_OP_INFO_QUEUE,      /* arg[0] spid -> value[0] signals waiting */
    LINXD_OP_OPEN_ROUTE,      /* arg[0] spid, fd: the sender's ring (sealed memfd of
                                 linxd_ring_bytes(queue bytes)) -> value[0] slot;
                                 fd: the receiver's bell.  The ring reaches the
                                 receiver as an announcement in its outlet */
    LINXD_OP_INFO_SUMMARY,    /* -> trailing 32-byte linx_info_summary */
    LINXD_OP_INFO_SOCKETS,    /* arg[0] after, arg[1] room -> trailing SPIDs above
                                 after, ascending, at most room and at most
                                 LINXD_MAX_SPIDS_PER_REPLY */
};

#define LINXD_MAX_SPIDS_PER_REPLY 256u

/* A request: this header, then name_len name bytes (no terminator), then
 * sig_len signal bytes. */
struct linxd_request {
    uint32_t magic;
    uint32_t op;
    uint32_t arg[2];
    uint32_t name_len;
    uint32_t sig_len;
};

/* A reply: this header, then data_len bytes. */
struct linxd_reply {
    int32_t result;           /* 0 or -1 */
    int32_t error;            /* errno when result is -1 */
    uint32_t value[3];
    uint32_t data_len;
};

/* The header of every signal in a receive queue, followed by the payload. */
struct linxd_signal_header {
    uint32_t from;
    uint32_t to;
    uint32_t size;            /* payload bytes */
    uint32_t attributes;
};

/* One socket's counters in the shared region.  Written with atomic
 * operations by every process that sends to or receives from the socket;
 * linxd stamps spid when it hands the slot out.  The same layout on 32-bit
 * and 64-bit processes: every 64-bit field is 8-byte aligned by position. */
struct linxd_slot {
    uint32_t spid;
    uint32_t queue_limit;     /* bytes the socket's queue holds (linxd) */
    int64_t queued;
    uint64_t sent_signals;
    uint64_t sent_bytes;
    uint64_t received_signals;
    uint64_t received_bytes;
    uint64_t refused_sends;   /* sends to this socket refused: queue full */
    uint64_t parked_bytes;    /* signals its owner took out of the queue
                                 unselected and keeps aside (the owner);
                                 they count against queue_limit */
    /* Written by senders on every send: a cache line of their own. */
    uint32_t armed;           /* 1: the owner found its rings empty and
                                 waits for the bell; the first sender to
                                 swap it to 0 rings (linxd starts it at 1) */
    uint32_t outlet_signals;  /* datagrams linxd put in the outlet (a hint
                                 that saves the owner a system call) */
    uint32_t reserved[14];
};

/* Makes Count descriptors (none when Count is 0) travel with pMsg as one
 * SCM_RIGHTS message built in pControl, which holds at least
 * CMSG_SPACE(Count * sizeof(int)) bytes. */
static inline void linxd_pass_fds(struct msghdr *pMsg, void *pControl, const int *pFds, int Count)
{
    if (Count <= 0)
        return;
    pMsg->msg_control = pControl;
    pMsg->msg_controllen = CMSG_SPACE((size_t)Count * sizeof(int));
    struct cmsghdr *pCmsg = CMSG_FIRSTHDR(pMsg);
    pCmsg->cmsg_level = SOL_SOCKET;
    pCmsg->cmsg_type = SCM_RIGHTS;
    pCmsg->cmsg_len = CMSG_LEN((size_t)Count * sizeof(int));
    memcpy(CMSG_DATA(pCmsg), pFds, (size_t)Count * sizeof(int));
}

#define LINXD_REGION_BYTES ((uint64_t)LINXD_MAX_SOCKETS * sizeof(struct linxd_slot))

/* A ring: this header, then capacity bytes of entries.  An entry is a
 * linxd_signal_header and its payload, padded to 16 bytes; an entry whose
 * size is LINXD_RING_WRAP fills the rest of the ring, and the next one
 * starts at its beginning.  head and tail count bytes ever taken and
 * written; an entry becomes visible when tail passes it (release), and its
 * room is free again when head does. */
struct linxd_ring_header {
    uint32_t magic;
    uint32_t abandoned;       /* the sender will write no more */
    uint64_t capacity;
    uint8_t pad0[48];
    uint64_t tail;            /* the sender's line */
    uint8_t pad1[56];
    uint64_t head;            /* the receiver's line */
    uint8_t pad2[56];
};

#define LINXD_RING_MAGIC 0x52584E4Cu /* "LNXR" */
#define LINXD_RING_WRAP  0xFFFFFFFFu
#define LINXD_RING_ENTRY_ALIGN 16u
/* attributes of an outlet datagram that announces a ring (size 0, payload:
 * the sender's pid as a uint32_t, one descriptor: the ring) */
#define LINXD_ANNOUNCE_RING 0x52494E47u /* "RING" */

/* The ring of a socket whose queue holds QueueBytes, in bytes with header. */
static inline uint64_t linxd_ring_capacity(uint32_t QueueBytes)
{
    return ((uint64_t)QueueBytes + LINXD_RING_ENTRY_ALIGN - 1) & ~(uint64_t)(LINXD_RING_ENTRY_ALIGN - 1);
}

static inline uint64_t linxd_ring_bytes(uint32_t QueueBytes)
{
    return sizeof(struct linxd_ring_header) + linxd_ring_capacity(QueueBytes);
}

/* Bytes an entry of Size payload bytes takes in a ring. */
static inline uint64_t linxd_entry_bytes(uint64_t Size)
{
    return sizeof(struct linxd_signal_header) + ((Size + LINXD_RING_ENTRY_ALIGN - 1) & ~(uint64_t)(LINXD_RING_ENTRY_ALIGN - 1));
}

/* The receiving side of one ring.  Only the reader's own copies of the
 * capacity and the head are trusted: the header is the sender's to
 * scribble on, and every entry is checked against them before use. */
struct linxd_ring_reader {
    struct linxd_ring_header *header;
    char *data;
    uint64_t capacity;
    uint64_t head;
};

/* Maps a ring of an instance whose queues hold QueueBytes.  0, or -1 with
 * *ppWhy saying why the ring is refused (nothing stays mapped then). */
static inline int linxd_ring_map(int Fd, uint32_t QueueBytes, struct linxd_ring_reader *pReader, const char **ppWhy)
{
    const uint64_t Capacity = linxd_ring_capacity(QueueBytes);
    const uint64_t Bytes = sizeof(struct linxd_ring_header) + Capacity;
    struct stat Stat;
    if (fstat(Fd, &Stat) != 0 || (uint64_t)Stat.st_size != Bytes) {
        *ppWhy = "the ring's size is not this instance's";
        return -1;
    }
    void *p = mmap(NULL, Bytes, PROT_READ | PROT_WRITE, MAP_SHARED, Fd, 0);
    if (p == MAP_FAILED) {
        *ppWhy = "cannot map it";
        return -1;
    }
    struct linxd_ring_header *pHeader = (struct linxd_ring_header *)p;
    if (pHeader->magic != LINXD_RING_MAGIC || pHeader->capacity != Capacity) {
        munmap(p, Bytes);
        *ppWhy = "not a ring of this instance";
        return -1;
    }
    pReader->header = pHeader;
    pReader->data = (char *)(pHeader + 1);
    pReader->capacity = Capacity;
    pReader->head = 0;
    return 0;
}

static inline void linxd_ring_unmap(const struct linxd_ring_reader *pReader)
{
    munmap(pReader->header, sizeof *pReader->header + pReader->capacity);
}

/* Whether the sender published something the reader has not taken. */
static inline int linxd_ring_waiting(const struct linxd_ring_reader *pReader)
{
    return __atomic_load_n(&pReader->header->tail, __ATOMIC_ACQUIRE) != pReader->head;
}

/* Whether the sender will write no more and everything was read. */
static inline int linxd_ring_finished(const struct linxd_ring_reader *pReader)
{
    return !linxd_ring_waiting(pReader) && __atomic_load_n(&pReader->header->abandoned, __ATOMIC_ACQUIRE) != 0;
}

enum linxd_peeked { LINXD_PEEK_EMPTY, LINXD_PEEK_SIGNAL, LINXD_PEEK_BROKEN };

/* The entry at the ring's head, addressed to To, checked against the
 * ring's bounds before anything of it is trusted; wrap entries are stepped
 * over.  On LINXD_PEEK_BROKEN *ppWhy says which rule the sender broke. */
static inline enum linxd_peeked linxd_ring_peek(struct linxd_ring_reader *pR, uint32_t To,
                                                struct linxd_signal_header *pHeader, const char **ppWhy)
{
    for (;;) {
        const uint64_t Tail = __atomic_load_n(&pR->header->tail, __ATOMIC_ACQUIRE);
        if (Tail == pR->head)
            return LINXD_PEEK_EMPTY;
        const uint64_t Offset = pR->head % pR->capacity;
        if (Tail - pR->head > pR->capacity || (Tail - pR->head) % LINXD_RING_ENTRY_ALIGN != 0) {
            *ppWhy = "its positions are impossible";
            return LINXD_PEEK_BROKEN;
        }
        memcpy(pHeader, pR->data + Offset, sizeof *pHeader);
        if (pHeader->size == LINXD_RING_WRAP) {
            const uint64_t Next = pR->head + (pR->capacity - Offset);
            if (Next > Tail) {
                *ppWhy = "a wrap entry beyond what was written";
                return LINXD_PEEK_BROKEN;
            }
            pR->head = Next;
            __atomic_store_n(&pR->header->head, Next, __ATOMIC_RELEASE);
            continue;
        }
        const uint64_t Need = linxd_entry_bytes(pHeader->size);
        if (pHeader->size < sizeof(uint32_t) || Offset + Need > pR->capacity || pR->head + Need > Tail) {
            *ppWhy = "an entry whose size does not fit";
            return LINXD_PEEK_BROKEN;
        }
        if (pHeader->to != To) {
            *ppWhy = "an entry addressed to another socket";
            return LINXD_PEEK_BROKEN;
        }
        return LINXD_PEEK_SIGNAL;
    }
}

/* The payload of the entry linxd_ring_peek found. */
static inline const char *linxd_ring_payload(const struct linxd_ring_reader *pR)
{
    return pR->data + pR->head % pR->capacity + sizeof(struct linxd_signal_header);
}

/* Gives the room of the entry at the head back to the sender. */
static inline void linxd_ring_advance(struct linxd_ring_reader *pR, uint32_t Size)
{
    pR->head += linxd_entry_bytes(Size);
    __atomic_store_n(&pR->header->head, pR->head, __ATOMIC_RELEASE);
}

#ifdef __cplusplus
static_assert(sizeof(struct linxd_slot) == 128, "slots are two cache lines on every ABI");
static_assert(sizeof(struct linxd_ring_header) == 192, "ring header is three cache lines on every ABI");
#endif

#endif /* LINXD_PROTOCOL_H */
