/* SPDX-License-Identifier: Apache-2.0 */
/* The telemetry collector: see collector.h. */
#define _POSIX_C_SOURCE 200809L
#include "collector.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include "orvane.h"
#include "stop_signals.h"

#define COLLECTOR_NAME "Telemetry"
#define LINKTYPE_USER0 147u
#define ENVELOPE_BYTES 36
#define PACKET_OFFSET 16          /* the pcap packet record starts here */
#define SNAPLEN 262144u           /* the largest packet Wireshark reads */

static const struct {
    MSG_Type Type;
    const char *pName;
} kRecordTypes[COLLECTOR_RECORD_TYPES] = {
    {0xFF0013u, "UserMsgNtfy"},
    {0xFF0023u, "NtfyRegUnregNtfy"},
    {0xFF0033u, "DropMsgNtfy"},
    {0xFF0043u, "LocalOpenNtfy"},
};

static FILE *open_capture(const char *pPath)
{
    FILE *pFile = strcmp(pPath, "-") == 0 ? stdout : fopen(pPath, "wb");
    if (pFile == NULL)
        return NULL;
    /* Written in this host's byte order, as the records are: the magic
     * number tells readers which it is. */
    const uint32_t Magic = 0xA1B2C3D4u;
    const uint16_t Version[2] = {2, 4};
    const int32_t ThisZone = 0;
    const uint32_t SigFigs = 0, SnapLen = SNAPLEN, LinkType = LINKTYPE_USER0;
    fwrite(&Magic, 4, 1, pFile);
    fwrite(Version, 2, 2, pFile);
    fwrite(&ThisZone, 4, 1, pFile);
    fwrite(&SigFigs, 4, 1, pFile);
    fwrite(&SnapLen, 4, 1, pFile);
    fwrite(&LinkType, 4, 1, pFile);
    return ferror(pFile) ? NULL : pFile;
}

static int record_index(MSG_Type Type)
{
    for (int i = 0; i < COLLECTOR_RECORD_TYPES; i++)
        if (kRecordTypes[i].Type == Type)
            return i;
    return -1;
}

/* Why a message cannot be a telemetry record, or NULL when it can. */
static const char *check_record(const MSG_Msg *pMsg, int Index)
{
    const int32_t Bytes = MSG_GetPayloadBytes(pMsg);
    if (Index < 0)
        return "not a telemetry record type";
    if (Bytes < ENVELOPE_BYTES)
        return "shorter than the envelope";
    uint32_t Words[3]; /* captured length, original length, record type */
    memcpy(Words, (const uint8_t *)MSG_GetPayload(pMsg) + 24, sizeof Words);
    const uint32_t Expected = (uint32_t)Bytes - ENVELOPE_BYTES + 4;
    if (Words[0] != Expected || Words[1] != Expected)
        return "envelope lengths disagree with the message size";
    if (Words[2] != MSG_GetType(pMsg))
        return "envelope record type disagrees with the message type";
    return NULL;
}

/* The packet record from byte 16 of the envelope on, cut at SNAPLEN bytes
 * of packet data (the original length is kept). */
static int write_packet(FILE *pFile, const MSG_Msg *pMsg)
{
    const uint8_t *pPacket = (const uint8_t *)MSG_GetPayload(pMsg) + PACKET_OFFSET;
    uint32_t Header[4];
    memcpy(Header, pPacket, sizeof Header);
    const uint32_t Captured = Header[2] < SNAPLEN ? Header[2] : SNAPLEN;
    Header[2] = Captured;
    return fwrite(Header, sizeof Header, 1, pFile) == 1 &&
                   fwrite(pPacket + sizeof Header, 1, Captured, pFile) == Captured
               ? 0
               : -1;
}

/* Takes every message waiting on the endpoint; -1 when the capture cannot
 * be written. */
static int drain(FILE *pFile, const char *pProgram, struct CollectorTotals *pTotals, long MaxRecords)
{
    MSG_Msg *pMsg;
    while ((MaxRecords == 0 || (long)pTotals->Records < MaxRecords) &&
           (pMsg = MSG_RecvAnyMsg(COLLECTOR_NAME, 0)) != NULL) {
        const int Index = record_index(MSG_GetType(pMsg));
        const char *pWhy = check_record(pMsg, Index);
        int Result = 0;
        if (pWhy != NULL) {
            pTotals->Refused++;
            fprintf(stderr, "%s: refused message type 0x%x from 0x%x: %s\n", pProgram, MSG_GetType(pMsg),
                    MSG_GetSender(pMsg), pWhy);
        } else {
            Result = write_packet(pFile, pMsg);
            pTotals->PerType[Index]++;
            pTotals->Records++;
        }
        MSG_ReleaseMsg(pMsg);
        if (Result != 0)
            return -1;
    }
    return fflush(pFile) == 0 ? 0 : -1;
}

static long remaining_ms(const struct timespec *pDeadline)
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    const long Ms = (pDeadline->tv_sec - Now.tv_sec) * 1000 + (pDeadline->tv_nsec - Now.tv_nsec) / 1000000;
    return Ms > 0 ? Ms : 0;
}

static int collect(FILE *pFile, const struct CollectorOptions *pOptions, struct CollectorTotals *pTotals)
{
    struct pollfd Watched[2] = {{MSG_GetLocalFileDesc(COLLECTOR_NAME), POLLIN, 0}, {stop_wake_fd(), POLLIN, 0}};
    struct timespec Deadline;
    clock_gettime(CLOCK_MONOTONIC, &Deadline);
    Deadline.tv_sec += pOptions->Seconds;
    while (!stop_requested() && (pOptions->MaxRecords == 0 || (long)pTotals->Records < pOptions->MaxRecords)) {
        if (drain(pFile, pOptions->pProgram, pTotals, pOptions->MaxRecords) != 0) {
            fprintf(stderr, "%s: cannot write the capture: %s\n", pOptions->pProgram, strerror(errno));
            return -1;
        }
        if (pOptions->pProgress != NULL)
            pOptions->pProgress(pTotals, pOptions->pContext);
        const long Wait = pOptions->Seconds > 0 ? remaining_ms(&Deadline) : -1;
        if (Wait == 0)
            break;
        if (poll(Watched, 2, (int)(Wait > 1000000 ? 1000000 : Wait)) < 0 && errno != EINTR)
            return -1;
    }
    return 0;
}

static void print_totals(const char *pProgram, const struct CollectorTotals *pTotals, const char *pPath)
{
    for (int i = 0; i < COLLECTOR_RECORD_TYPES; i++)
        fprintf(stderr, "%s: %-16s %lu\n", pProgram, kRecordTypes[i].pName, pTotals->PerType[i]);
    if (pTotals->Refused > 0)
        fprintf(stderr, "%s: %-16s %lu\n", pProgram, "refused", pTotals->Refused);
    fprintf(stderr, "%s: %lu records written to %s\n", pProgram, pTotals->Records, pPath);
}

const char *collector_record_name(int Index)
{
    return kRecordTypes[Index].pName;
}

int collector_run(const struct CollectorOptions *pOptions, struct CollectorTotals *pTotals)
{
    memset(pTotals, 0, sizeof *pTotals);
    FILE *pFile = open_capture(pOptions->pPath);
    if (pFile == NULL) {
        fprintf(stderr, "%s: cannot write %s: %s\n", pOptions->pProgram, pOptions->pPath, strerror(errno));
        return 1;
    }
    const MSG_Status Status = MSG_OpenLocal(COLLECTOR_NAME);
    if (Status != MSG_OK) {
        fprintf(stderr, "%s: cannot open \"%s\": %s\n", pOptions->pProgram, COLLECTOR_NAME,
                MSG_DebugStrError(Status));
        if (pFile != stdout)
            fclose(pFile);
        return 1;
    }
    fprintf(stderr, "%s: collecting on \"%s\" into %s\n", pOptions->pProgram, COLLECTOR_NAME, pOptions->pPath);
    const int Result = collect(pFile, pOptions, pTotals);
    MSG_CloseLocal(COLLECTOR_NAME);
    if (pFile != stdout)
        fclose(pFile);
    print_totals(pOptions->pProgram, pTotals, pOptions->pPath);
    return Result == 0 ? 0 : 1;
}
