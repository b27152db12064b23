// SPDX-License-Identifier: Apache-2.0
// The LINX user library: handles, signal buffers and the module's requests.
//
// A signal buffer is one heap block: a hidden header, the payload the caller
// holds, and one end-mark byte.  Blocks come in power-of-two sizes up to
// the largest signal, and a handle keeps a few released blocks of each size
// on its shelf: after warm-up, allocating and releasing signals of any size
// costs no heap allocation.  The header is process-private, so it uses
// native pointers (72 bytes on a 64-bit host, 64 on a 32-bit one); every
// handle of the process finds it at the same distance before the payload,
// which lets one handle adopt a buffer another handle sent.  No locks: a
// handle and its buffers belong to one thread at a time.
#include "linx.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "linx_module.h"

namespace {

constexpr uint8_t kEndMark = 0xEE;
constexpr int32_t kSpareMinCapacity = 1024;
// Blocks of 2^kMinShelf .. 2^kMaxShelf payload bytes are shelved; larger
// ones go straight back to the heap.
constexpr uint32_t kMinShelf = 6;
constexpr uint32_t kMaxShelf = 18;
constexpr uint32_t kShelves = kMaxShelf - kMinShelf + 1;
// Blocks kept per size: enough for a burst of sends between receives,
// at most 4 MiB in the largest.
constexpr uint32_t kShelfDepth = 16;
constexpr uint32_t kReceiveStartSize = 4096;
constexpr uint32_t kForever = 0xFFFFFFFFu;

struct ListLink {
    ListLink *pNext;
    ListLink *pPrev;
};

struct SignalBuffer {
    ListLink Link;            // in the owning handle's buffer list, or on a shelf
    int32_t Capacity;         // payload bytes the caller may use without a resize
    uint32_t Room;            // payload bytes the block really holds
    linx_transfer_rec Rec;
};
static_assert(sizeof(SignalBuffer) % 8 == 0, "payload stays 8-byte aligned");

} // namespace

// The handle is the head of its circular buffer list.
struct LinxHandle {
    ListLink List;
    int Socket;
    LINX_SPID Spid;
    SignalBuffer *pSpare;     // one released buffer of 1024 bytes or more
    SignalBuffer *pShelf[kShelves];  // released blocks by size, linked through Link.pNext
    uint32_t ShelfCount[kShelves];
};

namespace {

char *jPayload(SignalBuffer *pBuf)
{
    return (char *)(pBuf + 1);
}

SignalBuffer *jBufferOf(const void *pPayload)
{
    return (SignalBuffer *)pPayload - 1;
}

void jLinkHead(LINX *pLinx, SignalBuffer *pBuf)
{
    ListLink *pHead = &pLinx->List;
    pBuf->Link.pNext = pHead->pNext;
    pBuf->Link.pPrev = pHead;
    pHead->pNext->pPrev = &pBuf->Link;
    pHead->pNext = &pBuf->Link;
}

void jUnlink(SignalBuffer *pBuf)
{
    pBuf->Link.pPrev->pNext = pBuf->Link.pNext;
    pBuf->Link.pNext->pPrev = pBuf->Link.pPrev;
    pBuf->Link.pNext = pBuf->Link.pPrev = &pBuf->Link;
}

// The shelf of blocks with Room payload bytes, or kShelves for none.
uint32_t jShelfOf(uint32_t Room)
{
    for (uint32_t i = 0; i < kShelves; i++)
        if (Room == 1u << (kMinShelf + i))
            return i;
    return kShelves;
}

// The payload bytes of the block that serves Size: the next power of two
// while it is shelved, else Size itself.
uint32_t jRoomFor(uint32_t Size)
{
    uint32_t Room = 1u << kMinShelf;
    while (Room < Size && Room < (1u << kMaxShelf))
        Room <<= 1;
    return Room >= Size ? Room : Size;
}

SignalBuffer *jNewBlock(LINX *pLinx, uint32_t Size)
{
    const uint32_t Room = jRoomFor(Size);
    const uint32_t Shelf = jShelfOf(Room);
    SignalBuffer *pBuf = Shelf < kShelves ? pLinx->pShelf[Shelf] : nullptr;
    if (pBuf != nullptr) {
        pLinx->pShelf[Shelf] = (SignalBuffer *)pBuf->Link.pNext;
        pLinx->ShelfCount[Shelf]--;
        return pBuf;
    }
    pBuf = (SignalBuffer *)malloc(sizeof(SignalBuffer) + Room + 1);
    if (pBuf != nullptr)
        pBuf->Room = Room;
    return pBuf;
}

// Shelves a block, or gives it back to the heap when its shelf is full.
void jShelve(LINX *pLinx, SignalBuffer *pBuf)
{
    const uint32_t Shelf = jShelfOf(pBuf->Room);
    if (Shelf == kShelves || pLinx->ShelfCount[Shelf] == kShelfDepth) {
        free(pBuf);
        return;
    }
    pBuf->Link.pNext = (ListLink *)pLinx->pShelf[Shelf];
    pLinx->pShelf[Shelf] = pBuf;
    pLinx->ShelfCount[Shelf]++;
}

// Keeps a large enough buffer as the handle's spare, shelves anything else.
void jRelease(LINX *pLinx, SignalBuffer *pBuf)
{
    if (pBuf->Capacity >= kSpareMinCapacity && pLinx->pSpare == nullptr)
        pLinx->pSpare = pBuf;
    else
        jShelve(pLinx, pBuf);
}

void jDiscard(LINX *pLinx, SignalBuffer *pBuf)
{
    jUnlink(pBuf);
    jRelease(pLinx, pBuf);
}

void jSetEndMark(SignalBuffer *pBuf)
{
    jPayload(pBuf)[pBuf->Rec.size] = (char)kEndMark;
}

// A caller that wrote past its signal has corrupted the heap: stop now.
SignalBuffer *jCheckedBuffer(const void *pSignal)
{
    SignalBuffer *pBuf = jBufferOf(pSignal);
    if ((uint8_t)jPayload(pBuf)[pBuf->Rec.size] != kEndMark) {
        fprintf(stderr, "Endmark overwritten for buffer %p\n", pSignal);
        abort();
    }
    return pBuf;
}

SignalBuffer *jAlloc(LINX *pLinx, LINX_OSBUFSIZE Size, LINX_SIGSELECT SigNo)
{
    if (Size < 4) {
        errno = EMSGSIZE;
        return nullptr;
    }
    SignalBuffer *pBuf = pLinx->pSpare;
    if (pBuf != nullptr && (uint32_t)pBuf->Capacity >= Size) {
        pLinx->pSpare = nullptr;
    } else {
        if (Size > (uint32_t)INT32_MAX - sizeof(SignalBuffer) - 1) {
            errno = ENOMEM;
            return nullptr;
        }
        pBuf = jNewBlock(pLinx, Size);
        if (pBuf == nullptr)
            return nullptr;
        pBuf->Capacity = (int32_t)Size;
    }
    memset(&pBuf->Rec, 0, sizeof pBuf->Rec);
    pBuf->Rec.from = pBuf->Rec.to = pLinx->Spid;
    pBuf->Rec.size = Size;
    pBuf->Rec.tmo = kForever;
    pBuf->Rec.buffer = pBuf->Rec.real_buffer = (uint64_t)(uintptr_t)jPayload(pBuf);
    memcpy(jPayload(pBuf), &SigNo, sizeof SigNo);
    jSetEndMark(pBuf);
    jLinkHead(pLinx, pBuf);
    return pBuf;
}

// Grows (or shrinks the size of) a linked buffer; the buffer stays linked
// and valid when growing fails.
int jResize(LINX *pLinx, SignalBuffer **ppBuf, int32_t Size)
{
    SignalBuffer *pBuf = *ppBuf;
    if (Size > pBuf->Capacity && (uint32_t)Size <= pBuf->Room) {
        pBuf->Capacity = Size; // the block has the room already
    } else if (Size > pBuf->Capacity) {
        SignalBuffer *pGrown = jNewBlock(pLinx, (uint32_t)Size);
        if (pGrown == nullptr)
            return -1;
        memcpy(pGrown, pBuf, sizeof *pBuf + pBuf->Rec.size);
        pGrown->Room = jRoomFor((uint32_t)Size);
        jUnlink(pBuf);
        jShelve(pLinx, pBuf);
        pBuf = pGrown;
        pBuf->Capacity = Size;
        pBuf->Rec.buffer = pBuf->Rec.real_buffer = (uint64_t)(uintptr_t)jPayload(pBuf);
        jLinkHead(pLinx, pBuf);
        *ppBuf = pBuf;
    }
    pBuf->Rec.size = (uint32_t)Size;
    jSetEndMark(pBuf);
    return 0;
}

int jRequest(LINX *pLinx, uint32_t Request, void *pRecord)
{
    return linx_module_request(pLinx->Socket, Request, pRecord);
}

// Takes a signal the caller hands to the module with a request (hunt,
// attach, timeout): the caller's pointer is cleared, the buffer stays linked
// until the request is done.
SignalBuffer *jTakeRequestSignal(union LINX_SIGNAL **ppSig)
{
    if (ppSig == nullptr || *ppSig == nullptr)
        return nullptr;
    SignalBuffer *pBuf = jCheckedBuffer(*ppSig);
    *ppSig = nullptr;
    return pBuf;
}

int jSend(LINX *pLinx, union LINX_SIGNAL **ppSig, LINX_SPID From, LINX_SPID To, const int32_t *pTags)
{
    if (ppSig == nullptr || *ppSig == nullptr) {
        errno = EINVAL;
        return -1;
    }
    SignalBuffer *pBuf = jCheckedBuffer(*ppSig);
    *ppSig = nullptr;
    pBuf->Rec.from = From;
    pBuf->Rec.to = To;
    pBuf->Rec.attributes = 0;
    for (const int32_t *pTag = pTags; pTag != nullptr && pTag[0] != LINX_SEND_OPT_END; pTag += 2)
        if (pTag[0] == LINX_SEND_OPT_MULTICAST && pTag[1] == 1)
            pBuf->Rec.attributes |= 1;
    linx_transfer_rec Copy = pBuf->Rec;
    jUnlink(pBuf);
    const int Result = jRequest(pLinx, LINX_IOCTL_SEND, &Copy);
    if (Result == 1)
        return 0; // the module took the buffer itself
    if (Result == 0)
        pBuf->Rec = Copy;
    // A failed send frees the buffer too: it is unlinked and the caller's
    // pointer is gone, so nothing else could ever free it.
    const int Error = errno;
    jRelease(pLinx, pBuf);
    errno = Error;
    return Result == 0 ? 0 : -1;
}

// A buffer that another handle of this process sent and the module handed
// over: it takes the receiving buffer's record and joins this handle.
SignalBuffer *jAdopt(LINX *pLinx, SignalBuffer *pReceiving)
{
    SignalBuffer *pAdopted = jBufferOf((const void *)(uintptr_t)pReceiving->Rec.real_buffer);
    pAdopted->Rec = pReceiving->Rec;
    pAdopted->Rec.buffer = (uint64_t)(uintptr_t)jPayload(pAdopted);
    jDiscard(pLinx, pReceiving);
    jLinkHead(pLinx, pAdopted);
    return pAdopted;
}

int jFail(LINX *pLinx, SignalBuffer *pBuf, union LINX_SIGNAL **ppSig, int Result)
{
    const int Error = errno;
    jDiscard(pLinx, pBuf);
    *ppSig = nullptr;
    errno = Error;
    return Result;
}

int jReceive(LINX *pLinx, union LINX_SIGNAL **ppSig, uint32_t Tmo, const LINX_SIGSELECT *pSigsel,
             LINX_SPID From)
{
    SignalBuffer *pBuf = jAlloc(pLinx, kReceiveStartSize, 0);
    if (pBuf == nullptr) {
        *ppSig = nullptr;
        return -1;
    }
    if (pSigsel != nullptr) {
        const int32_t Count = (int32_t)pSigsel[0];
        pBuf->Rec.sigselect_size = (uint32_t)(((Count < 0 ? -(int64_t)Count : Count) + 1) * 4);
        pBuf->Rec.sigselect = (uint64_t)(uintptr_t)pSigsel;
    }
    pBuf->Rec.from = From;
    pBuf->Rec.tmo = Tmo;
    for (;;) {
        const int Result = jRequest(pLinx, LINX_IOCTL_RECEIVE, &pBuf->Rec);
        if (Result > 0) {
            if (pBuf->Rec.buffer == pBuf->Rec.real_buffer)
                jSetEndMark(pBuf);
            else
                pBuf = jAdopt(pLinx, pBuf);
            *ppSig = (union LINX_SIGNAL *)jPayload(pBuf);
            return Result;
        }
        uint32_t Waiting;
        memcpy(&Waiting, jPayload(pBuf), sizeof Waiting);
        if (Waiting == 0 && pBuf->Rec.tmo == 0)
            return jFail(pLinx, pBuf, ppSig, 0); // timed out
        if (Result < 0) {
            if (errno == EINTR)
                continue;
            return jFail(pLinx, pBuf, ppSig, -1);
        }
        // The selected signal needs Waiting bytes: grow and ask again.
        if (Waiting > (uint32_t)INT32_MAX - sizeof(SignalBuffer) - 1) {
            errno = EMSGSIZE;
            return jFail(pLinx, pBuf, ppSig, -1);
        }
        if (jResize(pLinx, &pBuf, (int32_t)Waiting) != 0)
            return jFail(pLinx, pBuf, ppSig, -1);
    }
}

// Issues a request that carries an optional signal of the caller's; the
// buffer goes back to the handle afterwards (the module keeps a copy).
int jRequestWithSignal(LINX *pLinx, uint32_t Request, void *pRecord, SignalBuffer *pBuf)
{
    const int Result = jRequest(pLinx, Request, pRecord);
    if (pBuf != nullptr) {
        const int Error = errno;
        jDiscard(pLinx, pBuf);
        errno = Error;
    }
    return Result;
}

int jHunt(LINX *pLinx, const char *pName, union LINX_SIGNAL **ppHuntSig, LINX_SPID From)
{
    SignalBuffer *pBuf = jTakeRequestSignal(ppHuntSig);
    linx_hunt_rec *pRec =
        pName != nullptr ? (linx_hunt_rec *)malloc(sizeof(linx_hunt_rec) + strlen(pName) + 1) : nullptr;
    if (pRec == nullptr) {
        // The hunt signal is consumed even when the hunt cannot be made.
        if (pBuf != nullptr)
            jDiscard(pLinx, pBuf);
        errno = pName == nullptr ? EINVAL : ENOMEM;
        return -1;
    }
    const size_t NameLen = strlen(pName);
    char *pCopy = (char *)(pRec + 1);
    memcpy(pCopy, pName, NameLen + 1);
    pRec->sigsize = pBuf != nullptr ? pBuf->Rec.size : 0;
    pRec->sig = pBuf != nullptr ? jPayload(pBuf) : nullptr;
    pRec->from = From;
    pRec->namelen = (uint32_t)NameLen;
    pRec->name = pCopy;
    const int Result = jRequestWithSignal(pLinx, LINX_IOCTL_HUNT, pRec, pBuf);
    free(pRec);
    return Result;
}

int jFreeQueryResult(void **ppResult)
{
    if (ppResult == nullptr) {
        errno = EINVAL;
        return -1;
    }
    free(*ppResult);
    *ppResult = nullptr;
    return 0;
}

} // namespace

extern "C" void linx_release_taken_buffer(void *payload)
{
    free(jBufferOf(payload));
}

LINX *linx_open(const char *name, uint32_t, void *)
{
    if (name == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    LINX *pLinx = (LINX *)calloc(1, sizeof(LINX));
    if (pLinx == nullptr)
        return nullptr;
    pLinx->List.pNext = pLinx->List.pPrev = &pLinx->List;
    pLinx->Socket = linx_module_open();
    uint32_t Version = 0;
    int Error = errno;
    bool bOpen = pLinx->Socket >= 0;
    if (bOpen && jRequest(pLinx, LINX_IOCTL_VERSION, &Version) != 0) {
        bOpen = false;
        Error = errno;
    } else if (bOpen && (Version >> 24) != strtoul(LINX_LIBRARY_VERSION, nullptr, 0)) {
        fputs("LINX module version mismatch\n", stderr);
        bOpen = false;
        Error = EINVAL;
    }
    if (bOpen) {
        const size_t NameLen = strlen(name);
        linx_register_rec *pRec = (linx_register_rec *)malloc(sizeof(linx_register_rec) + NameLen + 1);
        if (pRec == nullptr) {
            bOpen = false;
            Error = ENOMEM;
        } else {
            memcpy(pRec + 1, name, NameLen + 1);
            *pRec = {0, (uint32_t)NameLen, (const char *)(pRec + 1)};
            bOpen = jRequest(pLinx, LINX_IOCTL_REGISTER_NAME, pRec) == 0;
            Error = errno;
            pLinx->Spid = pRec->spid;
            free(pRec);
        }
    }
    if (bOpen)
        return pLinx;
    if (pLinx->Socket >= 0)
        linx_module_close(pLinx->Socket);
    free(pLinx);
    errno = Error;
    return nullptr;
}

int linx_close(LINX *linx)
{
    if (linx == nullptr) {
        errno = EINVAL;
        return -1;
    }
    while (linx->List.pNext != &linx->List)
        jDiscard(linx, (SignalBuffer *)linx->List.pNext);
    free(linx->pSpare);
    for (SignalBuffer *pShelved : linx->pShelf)
        while (pShelved != nullptr) {
            SignalBuffer *pNext = (SignalBuffer *)pShelved->Link.pNext;
            free(pShelved);
            pShelved = pNext;
        }
    linx_module_close(linx->Socket);
    free(linx);
    return 0;
}

LINX_SPID linx_get_spid(LINX *linx)
{
    return linx->Spid;
}

int linx_get_descriptor(LINX *linx)
{
    linx_module_watch(linx->Socket);
    return linx->Socket;
}

int linx_request_on(LINX *linx, uint32_t request, void *record)
{
    return linx_module_request(linx->Socket, request, record);
}

int linx_get_version(char *buf)
{
    const int Fd = linx_module_open();
    if (Fd < 0)
        return -1;
    uint32_t Version = 0;
    const int Result = linx_module_request(Fd, LINX_IOCTL_VERSION, &Version);
    linx_module_close(Fd);
    if (Result != 0)
        return -1;
    if (buf != nullptr)
        sprintf(buf, "%u.%u.%u", Version >> 24, (Version >> 8) & 0xFFFF, Version & 0xFF);
    return (int)Version;
}

union LINX_SIGNAL *linx_alloc(LINX *linx, LINX_OSBUFSIZE size, LINX_SIGSELECT sig_no)
{
    SignalBuffer *pBuf = jAlloc(linx, size, sig_no);
    return pBuf != nullptr ? (union LINX_SIGNAL *)jPayload(pBuf) : nullptr;
}

int linx_free_buf(LINX *linx, union LINX_SIGNAL **sig)
{
    if (sig == nullptr || *sig == nullptr) {
        errno = EINVAL;
        return -1;
    }
    jDiscard(linx, jCheckedBuffer(*sig));
    *sig = nullptr;
    return 0;
}

int linx_set_sigsize(LINX *linx, union LINX_SIGNAL **sig, LINX_OSBUFSIZE size)
{
    if ((int32_t)size < 4) {
        errno = EMSGSIZE;
        return -1;
    }
    SignalBuffer *pBuf = jCheckedBuffer(*sig);
    if ((uint64_t)size + sizeof(SignalBuffer) + 1 > (uint64_t)INT32_MAX) {
        errno = ENOMEM;
        return -1;
    }
    if (jResize(linx, &pBuf, (int32_t)size) != 0)
        return -1;
    *sig = (union LINX_SIGNAL *)jPayload(pBuf);
    return 0;
}

LINX_OSBUFSIZE linx_sigsize(LINX *, union LINX_SIGNAL **sig)
{
    return jCheckedBuffer(*sig)->Rec.size;
}

LINX_SPID linx_sender(LINX *, union LINX_SIGNAL **sig)
{
    return jCheckedBuffer(*sig)->Rec.from;
}

int linx_sigattr(LINX *, const union LINX_SIGNAL **sig, uint32_t attr, uint8_t *value)
{
    const SignalBuffer *pBuf = jCheckedBuffer(*sig);
    if (attr != LINX_OS_ATTR_MULTICAST) {
        errno = EINVAL;
        return -1;
    }
    *value = (pBuf->Rec.attributes & 1) ? 1 : 0xFF;
    return 0;
}

int linx_send(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID to)
{
    return jSend(linx, sig, linx->Spid, to, nullptr);
}

int linx_send_w_s(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID from, LINX_SPID to)
{
    return jSend(linx, sig, from, to, nullptr);
}

int linx_send_w_opt(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID from, LINX_SPID to,
                    int32_t *taglist)
{
    return jSend(linx, sig, from, to, taglist);
}

int linx_receive(LINX *linx, union LINX_SIGNAL **sig, const LINX_SIGSELECT *sig_sel)
{
    return jReceive(linx, sig, kForever, sig_sel, 0);
}

int linx_receive_w_tmo(LINX *linx, union LINX_SIGNAL **sig, LINX_OSTIME tmo,
                       const LINX_SIGSELECT *sig_sel)
{
    return jReceive(linx, sig, (uint32_t)tmo, sig_sel, 0);
}

int linx_receive_from(LINX *linx, union LINX_SIGNAL **sig, LINX_OSTIME tmo,
                      const LINX_SIGSELECT *sig_sel, LINX_SPID from)
{
    return jReceive(linx, sig, (uint32_t)tmo, sig_sel, from);
}

int linx_hunt(LINX *linx, const char *name, union LINX_SIGNAL **hunt_sig)
{
    return jHunt(linx, name, hunt_sig, linx->Spid);
}

int linx_hunt_from(LINX *linx, const char *name, union LINX_SIGNAL **hunt_sig, LINX_SPID from)
{
    return jHunt(linx, name, hunt_sig, from);
}

LINX_OSATTREF linx_attach(LINX *linx, union LINX_SIGNAL **sig, LINX_SPID spid)
{
    SignalBuffer *pBuf = jTakeRequestSignal(sig);
    linx_attach_rec Rec = {spid, pBuf ? pBuf->Rec.size : 0, pBuf ? jPayload(pBuf) : nullptr, 0};
    return jRequestWithSignal(linx, LINX_IOCTL_ATTACH, &Rec, pBuf) == 0 ? Rec.attref : 0;
}

int linx_detach(LINX *linx, LINX_OSATTREF *attref)
{
    uint32_t Ref = *attref;
    *attref = 0;
    return jRequest(linx, LINX_IOCTL_DETACH, &Ref);
}

LINX_OSTIMERREF linx_request_tmo(LINX *linx, LINX_OSTIME tmo, union LINX_SIGNAL **sig)
{
    SignalBuffer *pBuf = jTakeRequestSignal(sig);
    linx_tmo_rec Rec = {tmo, pBuf ? pBuf->Rec.size : 0, pBuf ? jPayload(pBuf) : nullptr, 0};
    return jRequestWithSignal(linx, LINX_IOCTL_REQUEST_TMO, &Rec, pBuf) == 0 ? Rec.tmoref : 0;
}

int linx_modify_tmo(LINX *linx, LINX_OSTIMERREF *tmoref, LINX_OSTIME tmo)
{
    linx_tmo_rec Rec = {tmo, 0, nullptr, *tmoref};
    const int Result = jRequest(linx, LINX_IOCTL_MODIFY_TMO, &Rec);
    if (Result != 0)
        *tmoref = 0;
    return Result;
}

int linx_cancel_tmo(LINX *linx, LINX_OSTIMERREF *tmoref)
{
    linx_tmo_rec Rec = {0, 0, nullptr, *tmoref};
    *tmoref = 0;
    return jRequest(linx, LINX_IOCTL_CANCEL_TMO, &Rec);
}

LINX_NLREF linx_request_new_link(LINX *linx, LINX_SPID spid)
{
    linx_new_link_rec Rec = {spid, 0};
    return jRequest(linx, LINX_IOCTL_REQUEST_NEW_LINK, &Rec) == 0 ? Rec.token : 0;
}

int linx_cancel_new_link(LINX *linx, LINX_NLREF *nlref)
{
    linx_new_link_rec Rec = {0, *nlref};
    *nlref = 0;
    return jRequest(linx, LINX_IOCTL_CANCEL_NEW_LINK, &Rec);
}

int linx_get_name(LINX *linx, LINX_SPID spid, char **name)
{
    *name = nullptr;
    linx_info_name_rec Query = {spid, 0, nullptr};
    linx_info_rec Info = {LINX_INFO_NAME, &Query};
    const int Needed = jRequest(linx, LINX_IOCTL_INFO, &Info);
    if (Needed < 0)
        return -1;
    char *pName = (char *)malloc(Needed > 0 ? (size_t)Needed : 1);
    if (pName == nullptr)
        return -1;
    Query = {spid, Needed, pName};
    if (jRequest(linx, LINX_IOCTL_INFO, &Info) != 0) {
        const int Error = errno;
        free(pName);
        errno = Error;
        return -1;
    }
    *name = pName;
    return 0;
}

int linx_free_name(LINX *, char **name)
{
    return jFreeQueryResult((void **)name);
}

int linx_get_stat(LINX *linx, LINX_SPID spid, struct linx_info_stat **stat)
{
    *stat = nullptr;
    struct linx_info_stat *pStat = (struct linx_info_stat *)malloc(sizeof *pStat);
    if (pStat == nullptr)
        return -1;
    pStat->spid = spid;
    linx_info_rec Info = {LINX_INFO_STAT, pStat};
    if (jRequest(linx, LINX_IOCTL_INFO, &Info) != 0) {
        const int Error = errno;
        free(pStat);
        errno = Error;
        return -1;
    }
    *stat = pStat;
    return 0;
}

int linx_free_stat(LINX *, struct linx_info_stat **stat)
{
    return jFreeQueryResult((void **)stat);
}

pid_t linx_get_owner(LINX *linx, LINX_SPID spid)
{
    linx_info_owner_rec Query = {spid, -1};
    linx_info_rec Info = {LINX_INFO_OWNER, &Query};
    return jRequest(linx, LINX_IOCTL_INFO, &Info) == 0 ? Query.pid : -1;
}

int linx_get_summary(LINX *linx, struct linx_info_summary *summary)
{
    if (summary == nullptr) {
        errno = EINVAL;
        return -1;
    }
    linx_info_rec Info = {LINX_INFO_SUMMARY, summary};
    return jRequest(linx, LINX_IOCTL_INFO, &Info) == 0 ? 0 : -1;
}

// Asked page by page, each page starting above the last SPID of the one
// before, so endpoints that open or close meanwhile never make the walk
// repeat or skip one that stays open.
int linx_get_spids(LINX *linx, LINX_SPID *spids, int room)
{
    if (room < 0 || (room > 0 && spids == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    int Written = 0;
    linx_info_sockets_rec Page = {0, 0, 0, nullptr};
    linx_info_rec Info = {LINX_INFO_SOCKETS, &Page};
    while (Written < room) {
        Page = {Written > 0 ? spids[Written - 1] : 0, room - Written, 0, spids + Written};
        if (jRequest(linx, LINX_IOCTL_INFO, &Info) != 0)
            return -1;
        if (Page.count <= 0)
            break;
        Written += Page.count;
    }
    return Written;
}
