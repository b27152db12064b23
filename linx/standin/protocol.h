/* SPDX-License-Identifier: Apache-2.0 */
/*
 * protocol.h - the wire protocol between LINX stand-in clients and
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
 * OPEN_ROUTE; linxd checks it, gives it a place (an index) among the
 * receiver's rings and passes it on through the receiver's outlet, and
 * gives the sender the receiver's bell (an eventfd) and ready set.  A send
 * to a receiver that is busy is a copy into the ring and a store: no
 * system call.
 *
 * The ready set is what keeps a receive as cheap with a thousand senders
 * as with one: a sender that publishes into a ring its receiver does not
 * know to be busy marks the ring's index there, and the receiver looks
 * only at marked rings.  The bell is rung only when the receiver has armed
 * it (the ready set's armed word), that is when it found nothing marked.
 *
 * A ring lives as long as its sending process keeps a socket open (or
 * until the sender gives it up with CLOSE_ROUTE, or opens another to the
 * same socket): then linxd retires it in the receiver's retired set, a
 * region only linxd and the receiver share, and the receiver unmaps it
 * once it has read what it holds.  The retired set wakes nobody: the
 * descriptor of a socket stays readable exactly while a signal waits, and
 * the receiver looks at the set on its next receive, and before it takes
 * any signal of linxd's (so an attach signal never overtakes the last
 * signals of a ring that was retired).  A socket reads at most the
 * instance's number of rings (linxd refuses more with ENOBUFS).
 *
 * linxd's own signals (hunt answers, attach signals, timeouts), signals
 * that came over links from other nodes, and ring announcements go through
 * the outlet: the receiving end of a SOCK_SEQPACKET socket pair whose other
 * end only linxd holds.  A socket that stands for an endpoint behind a link
 * (a phantom) has no outlet: linxd reads the rings of its senders itself.
 *
 * Slots: linxd shares one memory region of slots with every client, read
 * only (sealed against writes but linxd's own): a socket's SPID, largest
 * signal and hints only linxd writes.  A socket's statistics live in its
 * ready set, where only the socket's owner and senders reach them.  Every
 * value a process reads from shared memory written by others is checked
 * before it is used: a sender can break only its own ring, and what it
 * scribbles in its receiver's ready set costs that receiver at most a
 * wasted look or a wrong count.
 */
#ifndef LINXD_PROTOCOL_H
#define LINXD_PROTOCOL_H

#include <sched.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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
#define LINXD_MAX_RINGS_PER_SOCKET 65536u      /* the ready set's room */
#define LINXD_DEFAULT_RINGS_PER_SOCKET 4096u

enum linxd_op {
    LINXD_OP_VERSION = 1,     /* -> value[0] version word */
    LINXD_OP_REGISTER,        /* name -> value[0] spid, value[1] slot, value[2] queue bytes;
                                 data: the instance's 64-bit generation, drawn at
                                 random when linxd starts (SPIDs start again at
                                 every start: they name a socket only together
                                 with it); fds: outlet, counter region, bell,
                                 ready set, retired set */
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
                                 linxd_ring_bytes(queue bytes)) -> value[0] slot,
                                 value[1] the ring's index; fds: the receiver's
                                 bell and ready set.  The ring reaches the
                                 receiver as an announcement in its outlet; a
                                 ring the process had into that socket before
                                 is retired */
    LINXD_OP_INFO_SUMMARY,    /* -> trailing 32-byte linx_info_summary */
    LINXD_OP_INFO_SOCKETS,    /* arg[0] after, arg[1] room -> trailing SPIDs above
                                 after, ascending, at most room and at most
                                 LINXD_MAX_SPIDS_PER_REPLY */
    LINXD_OP_CLOSE_ROUTE,     /* arg[0] spid, arg[1] ring index: the sender gives
                                 the ring up; it is retired once read */
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

/* One socket's slot in the shared region, written by linxd alone: spid
 * when it hands the slot out (0 once the socket closed). */
struct linxd_slot {
    uint32_t spid;
    uint32_t largest_signal;  /* the largest payload a signal to the socket
                                 may have (less for an endpoint behind a
                                 link whose node takes less) */
    uint32_t outlet_signals;  /* datagrams linxd put in the outlet (a hint
                                 that saves the owner a system call) */
    uint32_t routes_gone;     /* sockets closed that the owner's process had
                                 rings into: a hint that its cached routes
                                 to them can go (counted after their slots
                                 were cleared) */
    uint32_t reserved[12];
};

/* One socket's statistics, in its ready set: written with atomic
 * operations by its senders (queued, refused_sends), its owner (the
 * others) and linxd (queued, for its own signals).  The same layout on
 * 32-bit and 64-bit processes: every 64-bit field is 8-byte aligned by
 * position. */
struct linxd_counters {
    int64_t queued;
    uint64_t sent_signals;
    uint64_t sent_bytes;
    uint64_t received_signals;
    uint64_t received_bytes;
    uint64_t refused_sends;   /* sends to this socket refused: queue full */
    uint64_t reserved[2];
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

/* The other side: stores the descriptors that came with pMsg in pFds, at
 * most Room of them, and closes the rest (a peer may send more than it
 * should: none may stay open unseen).  Returns how many were stored. */
static inline int linxd_take_fds(struct msghdr *pMsg, int *pFds, int Room)
{
    int Count = 0;
    for (struct cmsghdr *p = CMSG_FIRSTHDR(pMsg); p != NULL; p = CMSG_NXTHDR(pMsg, p)) {
        if (p->cmsg_level != SOL_SOCKET || p->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t i = 0; i < (p->cmsg_len - CMSG_LEN(0)) / sizeof(int); i++) {
            int Fd;
            memcpy(&Fd, CMSG_DATA(p) + i * sizeof(int), sizeof Fd);
            if (Count < Room)
                pFds[Count++] = Fd;
            else
                close(Fd);
        }
    }
    return Count;
}

#define LINXD_REGION_BYTES ((uint64_t)LINXD_MAX_SOCKETS * sizeof(struct linxd_slot))

/* A ring: this header, then capacity bytes of entries.  An entry is a
 * linxd_signal_header and its payload, padded to 16 bytes; an entry whose
 * size is LINXD_RING_WRAP fills the rest of the ring, and the next one
 * starts at its beginning.  head and tail count bytes ever taken and
 * written; an entry becomes visible when tail passes it (release), and its
 * room is free again when head does.  marked is 1 while the receiver knows
 * the ring holds something (its mark stands in the ready set, or the
 * receiver is reading it): the sender sets it when it marks the ring, the
 * receiver clears it when it found the ring empty.  writer_waits is 1
 * while the writer of a ring that came with a room bell (linxd's rings
 * into its sockets) waits for room: a reader that takes something rings
 * it (linxd_ring_room).  writer_cpu is where the writer ran when it last
 * wrote: a reader waiting for more spins only while that is another
 * processor (on its own, it would keep the writer from running). */
struct linxd_ring_header {
    uint32_t magic;
    uint32_t reserved;
    uint64_t capacity;
    uint8_t pad0[48];
    uint64_t tail;            /* the sender's line */
    uint32_t marked;
    uint32_t writer_waits;    /* 1: the writer waits for room (rings linxd writes) */
    uint32_t writer_cpu;      /* the processor the writer last wrote from (a hint) */
    uint8_t pad1[44];
    uint64_t head;            /* the receiver's line */
    uint8_t pad2[56];
};

#define LINXD_RING_MAGIC 0x52584E4Cu /* "LNXR" */
#define LINXD_RING_WRAP  0xFFFFFFFFu
#define LINXD_RING_ENTRY_ALIGN 16u
/* attributes of an outlet datagram that announces a ring (size 8,
 * payload: the sender's pid and the ring's index as uint32_t, one
 * descriptor: the ring, and a second for linxd's own rings: the room bell,
 * an eventfd the reader writes when it took from the ring while
 * writer_waits was set).  A signal's attributes never have any bit but
 * bit 0 (its own) and LINXD_AFTER_RINGS, which linxd sets on attach
 * signals: the receiver delivers one only after what the rings held when
 * it came, so that it never overtakes the last signals of the socket
 * whose end it tells of. */
#define LINXD_ANNOUNCE_RING 0x52494E47u /* "RING" */
#define LINXD_SIGNAL_ATTRIBUTES 1u
#define LINXD_AFTER_RINGS 2u

/* A set of ring indexes of one socket: bit i of bits for index i, and bit
 * w of summary when word w of bits may hold one, so that whoever takes
 * the set looks only where something is.  Each socket has two: the marks
 * of its ready set (below), and its retired set, a sealed memfd shared by
 * linxd and the socket's owner alone.  linxd adds index i to the retired
 * set when it retires ring i, and hands i out again only once the owner
 * removed it, that is once the owner has read the ring and unmapped it
 * (or dropped it earlier as broken); an index whose announcement is still
 * in the outlet stays until the ring arrives. */
#define LINXD_INDEX_WORDS         (LINXD_MAX_RINGS_PER_SOCKET / 64)
#define LINXD_INDEX_SUMMARY_WORDS (LINXD_INDEX_WORDS / 64)
struct linxd_index_set {
    uint64_t summary[LINXD_INDEX_SUMMARY_WORDS];
    uint64_t bits[LINXD_INDEX_WORDS];
};

static inline void linxd_index_set_add(struct linxd_index_set *pSet, uint32_t Index)
{
    __atomic_fetch_or(&pSet->bits[Index / 64], 1ull << (Index % 64), __ATOMIC_SEQ_CST);
    __atomic_fetch_or(&pSet->summary[Index / 4096], 1ull << (Index / 64 % 64), __ATOMIC_SEQ_CST);
}

static inline int linxd_index_set_has(const struct linxd_index_set *pSet, uint32_t Index)
{
    return (__atomic_load_n(&pSet->bits[Index / 64], __ATOMIC_ACQUIRE) >> (Index % 64)) & 1;
}

/* A receiving socket's ready set, shared with the senders of its rings (a
 * sealed memfd linxd makes for each socket).  A mark at i: ring i was
 * published into while its receiver did not know.  The receiver takes
 * marks by swapping words to 0, so it looks only at rings that hold
 * something. */
struct linxd_ready_set {
    uint32_t armed;           /* 1: the receiver found nothing marked and
                                 waits for the bell; the first sender to
                                 swap it to 0 rings (linxd starts it at 1) */
    uint8_t pad0[60];
    struct linxd_counters counters;
    struct linxd_index_set marks;
};

/* Silences a bell (an eventfd) that rang, so that it rings again only for
 * what comes next. */
static inline void linxd_bell_silence(int Fd)
{
    uint64_t Count;
    (void)!read(Fd, &Count, sizeof Count);
}

/* Maps a shared region of exactly Bytes that linxd handed over (a ready
 * or retired set); null when the descriptor is not one of that size. */
static inline void *linxd_map_region(int Fd, uint64_t Bytes)
{
    struct stat Stat;
    if (Fd < 0 || fstat(Fd, &Stat) != 0 || (uint64_t)Stat.st_size != Bytes)
        return NULL;
    void *p = mmap(NULL, Bytes, PROT_READ | PROT_WRITE, MAP_SHARED, Fd, 0);
    return p == MAP_FAILED ? NULL : p;
}

/* The room for entries in the ring of a socket whose queue holds
 * QueueBytes: the queue and two entry headers, so that the largest signal
 * (below) of the default queue is 256 KiB. */
static inline uint64_t linxd_ring_capacity(uint32_t QueueBytes)
{
    const uint64_t Queue = ((uint64_t)QueueBytes + LINXD_RING_ENTRY_ALIGN - 1) & ~(uint64_t)(LINXD_RING_ENTRY_ALIGN - 1);
    return Queue + 2 * sizeof(struct linxd_signal_header);
}

/* The ring in bytes, with its header. */
static inline uint64_t linxd_ring_bytes(uint32_t QueueBytes)
{
    return sizeof(struct linxd_ring_header) + linxd_ring_capacity(QueueBytes);
}

/* Bytes an entry of Size payload bytes takes in a ring. */
static inline uint64_t linxd_entry_bytes(uint64_t Size)
{
    return sizeof(struct linxd_signal_header) + ((Size + LINXD_RING_ENTRY_ALIGN - 1) & ~(uint64_t)(LINXD_RING_ENTRY_ALIGN - 1));
}

/* The largest payload of a signal to a socket whose queue holds
 * QueueBytes: an entry of at most half the ring fits in it once it is
 * empty, wherever its writer stands (a larger one might never: the part
 * of the ring before the end would be too short for it, and so would the
 * part after the start). */
static inline uint32_t linxd_largest_signal(uint32_t QueueBytes)
{
    const uint64_t Half = linxd_ring_capacity(QueueBytes) / 2 & ~(uint64_t)(LINXD_RING_ENTRY_ALIGN - 1);
    const uint64_t Largest = Half - sizeof(struct linxd_signal_header);
    return (uint32_t)(Largest < LINXD_MAX_SIGNAL_BYTES ? Largest : LINXD_MAX_SIGNAL_BYTES);
}

/* The receiving side of one ring.  Only the reader's own copies of the
 * capacity and the head are trusted: the header is the sender's to
 * scribble on, and every entry is checked against them before use.
 * tail_seen is the tail as the reader last read it: while the head is
 * behind it, the reader knows there is more without touching the line
 * the sender keeps writing. */
struct linxd_ring_reader {
    struct linxd_ring_header *header;
    char *data;
    uint64_t capacity;
    uint64_t head;
    uint64_t tail_seen;
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
    pReader->tail_seen = 0;
    return 0;
}

static inline void linxd_ring_unmap(const struct linxd_ring_reader *pReader)
{
    munmap(pReader->header, sizeof *pReader->header + pReader->capacity);
}

/* Whether the sender published something the reader has not taken. */
static inline int linxd_ring_waiting(struct linxd_ring_reader *pReader)
{
    if (pReader->tail_seen != pReader->head)
        return 1;
    pReader->tail_seen = __atomic_load_n(&pReader->header->tail, __ATOMIC_ACQUIRE);
    return pReader->tail_seen != pReader->head;
}

enum linxd_peeked { LINXD_PEEK_EMPTY, LINXD_PEEK_SIGNAL, LINXD_PEEK_BROKEN };

/* The entry at the ring's head, addressed to To, checked against the
 * ring's bounds before anything of it is trusted; wrap entries are stepped
 * over.  On LINXD_PEEK_BROKEN *ppWhy says which rule the sender broke. */
static inline enum linxd_peeked linxd_ring_peek(struct linxd_ring_reader *pR, uint32_t To,
                                                struct linxd_signal_header *pHeader, const char **ppWhy)
{
    for (;;) {
        if (!linxd_ring_waiting(pR))
            return LINXD_PEEK_EMPTY;
        const uint64_t Tail = pR->tail_seen;
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

/* After the reader gave room back: whether the writer waits for it (it is
 * told then, once).  The writer sets writer_waits and then looks at the
 * head again; the reader stores the head and then looks at writer_waits:
 * with a full fence between each pair, no wait is missed. */
static inline int linxd_ring_room(struct linxd_ring_reader *pR)
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return __atomic_load_n(&pR->header->writer_waits, __ATOMIC_RELAXED) != 0 &&
           __atomic_exchange_n(&pR->header->writer_waits, 0u, __ATOMIC_SEQ_CST) != 0;
}

/* The sending side of one ring: the sender's own copy of the tail (the
 * header's is only where it publishes it). */
struct linxd_ring_writer {
    struct linxd_ring_header *header;
    char *data;
    uint64_t capacity;
    uint64_t tail;
};

/* Writes an entry and publishes it: 1, or 0 when the ring has no room for
 * it (or the receiver broke its own head).  An entry that would run past
 * the end goes to the beginning behind a wrap entry. */
static inline int linxd_ring_write(struct linxd_ring_writer *pW, const struct linxd_signal_header *pHeader,
                                   const void *pPayload)
{
    const uint64_t Head = __atomic_load_n(&pW->header->head, __ATOMIC_ACQUIRE);
    const uint64_t Need = linxd_entry_bytes(pHeader->size);
    const uint64_t Offset = pW->tail % pW->capacity;
    const uint64_t Pad = Offset + Need > pW->capacity ? pW->capacity - Offset : 0;
    if (pW->tail - Head > pW->capacity || pW->tail + Pad + Need - Head > pW->capacity)
        return 0;
    if (Pad != 0) {
        const struct linxd_signal_header Wrap = {0, 0, LINXD_RING_WRAP, 0};
        memcpy(pW->data + Offset, &Wrap, sizeof Wrap);
    }
    char *pEntry = pW->data + (pW->tail + Pad) % pW->capacity;
    memcpy(pEntry, pHeader, sizeof *pHeader);
    memcpy(pEntry + sizeof *pHeader, pPayload, pHeader->size);
    pW->tail += Pad + Need;
    __atomic_store_n(&pW->header->writer_cpu, (uint32_t)sched_getcpu(), __ATOMIC_RELAXED);
    __atomic_store_n(&pW->header->tail, pW->tail, __ATOMIC_RELEASE);
    return 1;
}

/* After a write: marks ring Index in its receiver's ready set unless the
 * receiver knows already that the ring holds something.  Returns whether
 * the sender must ring the bell (the receiver armed it, and this sender
 * was the first to disarm it).
 *
 * The receiver's half (linxd_ready_unmark) clears marked and then looks at
 * the tail again; the sender stores the tail and then looks at marked.
 * With a full fence between each pair at least one of them sees the
 * other's store: a ring that holds something is always in turn, marked,
 * or found again by its receiver.  Likewise for armed: the receiver arms
 * and then looks at the marks and at the tails of the rings it keeps in
 * view, the sender writes and marks and then looks at armed. */
static inline int linxd_ready_mark(struct linxd_ready_set *pSet, struct linxd_ring_header *pRing, uint32_t Index)
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    if (__atomic_load_n(&pRing->marked, __ATOMIC_RELAXED) == 0 &&
        __atomic_exchange_n(&pRing->marked, 1u, __ATOMIC_SEQ_CST) == 0)
        linxd_index_set_add(&pSet->marks, Index);
    return __atomic_load_n(&pSet->armed, __ATOMIC_SEQ_CST) != 0 &&
           __atomic_exchange_n(&pSet->armed, 0u, __ATOMIC_SEQ_CST) != 0;
}

/* The receiver found the ring empty: it is no longer marked, unless
 * something arrived meanwhile (then it returns 1 and the ring stays the
 * receiver's to read). */
static inline int linxd_ready_unmark(struct linxd_ring_reader *pR)
{
    __atomic_store_n(&pR->header->marked, 0u, __ATOMIC_SEQ_CST);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return linxd_ring_waiting(pR);
}

/* Takes a word of a summary or of the marks (the receiver). */
static inline uint64_t linxd_ready_take(uint64_t *pWord)
{
    return __atomic_load_n(pWord, __ATOMIC_RELAXED) == 0 ? 0 : __atomic_exchange_n(pWord, 0, __ATOMIC_SEQ_CST);
}

#ifdef __cplusplus
static_assert(sizeof(struct linxd_slot) == 64, "a slot is a cache line on every ABI");
static_assert(sizeof(struct linxd_counters) == 64, "counters are a cache line on every ABI");
static_assert(sizeof(struct linxd_ring_header) == 192, "ring header is three cache lines on every ABI");
static_assert(sizeof(struct linxd_ready_set) % 8 == 0, "the ready set is the same on every ABI");
#endif

#endif /* LINXD_PROTOCOL_H */
