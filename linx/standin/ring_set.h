/* SPDX-License-Identifier: Apache-2.0 */
/*
 * ring_set.h - the rings one socket reads, as its reader sees them:
 * a receiving process for its own sockets, linxd for its phantoms.
 *
 * Rings sit at the index linxd gave them among the socket's rings.  The
 * reader never walks all of them: senders mark a ring in the socket's
 * ready set when they publish into it (protocol.h), the reader takes
 * the marks into its turn list, serves the ring at the front one signal at
 * a time and puts it back behind the others while it holds more, so no
 * sender is starved and the cost of looking does not grow with the number
 * of idle senders.  A ring read empty stays marked for a while, among a
 * few the reader keeps in view and looks at on every receive: a sender
 * that keeps it busy then writes without touching the marks at all.  A
 * ring leaves the view, unmarked, when it brought nothing between two
 * armings of the bell, or when more would be kept in view.  A ring leaves the set when linxd retires it (its
 * sending process is gone, or gave it up: the retired set says so) or
 * when it breaks the rules; the reader moves what a retired ring still
 * holds before it goes.  A reader that cannot take what a ring holds yet
 * (its queue of signals set aside is full) holds the ring: it leaves the
 * turn list, its sender's signals wait in it, and it comes back when the
 * reader lets the held rings go.
 *
 * A set belongs to one thread at a time (the socket's receiving thread, or
 * linxd's loop); nothing in it is locked.  Everything read from the ready
 * set or from a ring is checked before use: a sender can make the reader
 * look in vain, never look out of bounds.
 */
#ifndef LINXD_RING_SET_H
#define LINXD_RING_SET_H

#include <sys/types.h>

#include <deque>
#include <vector>

#include "protocol.h"

// An index is unused, holds a live ring, or held one that was dropped as
// broken and waits for linxd to retire it.
enum class RingState : uint8_t { Unused, Live, Dropped };
// Where a live ring is: only marked (or not even that), in turn, read
// empty and kept in view (still marked), or held (still marked).
enum class RingPlace : uint8_t { Marked, InTurn, InView, Held };

struct RingSetEntry {
    linxd_ring_reader Reader;
    pid_t Writer = 0;       // the sending process, for log lines
    int RoomFd = -1;        // the writer's room bell (linxd's rings), owned here
    uint64_t Serial = 0;    // which ring of the index this is
    RingState State = RingState::Unused;
    RingPlace Place = RingPlace::Marked;
    bool bFresh = false;    // in view, and brought something since the bell was last armed
};

struct RingSet {
    linxd_ready_set *pReady = nullptr;
    linxd_index_set *pRetired = nullptr; // a process's own sockets; null for linxd's phantoms
    bool bMapped = false;                // the sets are this set's own mappings
    std::vector<RingSetEntry> Rings;     // by index
    std::deque<uint32_t> Turns;          // indexes of rings to read, in turn
    std::vector<uint32_t> InView;        // rings read empty, still marked, oldest first (a few)
    std::vector<uint32_t> Held;
    uint64_t Adopted = 0;                // rings ever adopted: the next one's serial
};

// Maps the socket's ready and retired sets (descriptors linxd made), for a
// receiving process.  false when one is not what it should be.
bool RingSetMap(RingSet *pSet, int ReadyFd, int RetiredFd);
// Reads through a ready set its caller keeps mapped (linxd's phantoms).
void RingSetUse(RingSet *pSet, linxd_ready_set *pReady);
// Unmaps every ring and the sets.
void RingSetFree(RingSet *pSet);

// Maps the ring announced at Index (with the writer's room bell when not
// -1, which the set then owns).  false with *ppWhy when it is refused
// (nothing stays mapped or owned then; the index of a process's socket
// waits as dropped until linxd retires it).
bool RingSetAdopt(RingSet *pSet, uint32_t Index, int RingFd, int RoomFd, pid_t Writer, uint32_t QueueBytes,
                  const char **ppWhy);
// The reader gave room back in the ring: its writer is told if it waits.
void RingSetGaveRoom(RingSetEntry *pE);
// The live ring at Index, or null.
RingSetEntry *RingSetFind(RingSet *pSet, uint32_t Index);
// Unmaps the ring at Index; what it still holds is lost.
void RingSetDrop(RingSet *pSet, uint32_t Index);

// Lets every ring linxd retired go: Drain(pContext, Index) first moves
// what a live one still holds elsewhere, and returns false when it could
// not move it all (the ring stays, retired, until it can).  Costs a load
// per 4096 rings when nothing was retired.
void RingSetTakeRetired(RingSet *pSet, bool (*pDrain)(void *pContext, uint32_t Index), void *pContext);

// Where a ring stood at some moment: how far its writer had written then,
// at most a ring's worth ahead of its reader (a writer that keeps writing
// cannot hold the reader back for more).  A reader that must have read
// what was sent before that moment (an attach signal's receiver, a close
// told to a peer node) waits until it has reached the mark.
struct RingMark {
    uint32_t Index;
    uint64_t Serial;
    uint64_t Position;
};

// The mark of the live ring at Index as it stands now; false when it holds
// nothing (nothing to wait for).
bool RingSetMarkNow(RingSet *pSet, uint32_t Index, RingMark *pMark);
// Whether the reader has read the ring as far as the mark, or let it go.
bool RingSetReached(RingSet *pSet, const RingMark &Mark);

// Puts the ring at Index in turn, marked or not: its reader must read it
// (a retired ring whose writer will not mark it again).
void RingSetPutInTurn(RingSet *pSet, uint32_t Index);

// Takes the ring at Index out of turn until RingSetLetGo.
void RingSetHold(RingSet *pSet, uint32_t Index);
// Puts the held rings back in turn.
void RingSetLetGo(RingSet *pSet);

// Takes the senders' marks, and the rings in view that hold something,
// into the turn list; returns how many rings are in turn.
size_t RingSetCollect(RingSet *pSet);
// The index of the ring at the front of the turn list (the list is not
// empty).
uint32_t RingSetFront(const RingSet *pSet);
// The reader is done with the front ring for now: it goes behind the
// others while it holds more, else into view.
void RingSetRotate(RingSet *pSet);
// Whether a ring holds something (the marks taken first).
bool RingSetWaiting(RingSet *pSet);

// Arms the bell (the reader found nothing waiting), after unmarking the
// rings in view that brought nothing since it was last armed.  Returns true when
// something came meanwhile and the reader disarmed the bell itself (no
// sender will ring it: the reader looks again); false when it stays armed
// or a sender took the arm (that sender rings).
bool RingSetArm(RingSet *pSet);
bool RingSetArmed(const RingSet *pSet);

#endif /* LINXD_RING_SET_H */
