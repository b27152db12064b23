/* orvane-collector: the telemetry collector.  It opens the endpoint
 * "Telemetry", which every process with a telemetry bit set in DebugFlag
 * reports to, and writes each record it receives to a pcap capture:
 *
 *   orvane-collector [-w FILE] [-c COUNT] [-t SECONDS]
 *
 *   -w FILE     the capture file (default telemetry.pcap); "-" writes to
 *               standard output, so that
 *               orvane-collector -w - | wireshark -k -i -   shows it live
 *   -c COUNT    stop after COUNT records
 *   -t SECONDS  stop after SECONDS
 *
 * It stops on SIGINT or SIGTERM as well, writes what it received and
 * prints one line per record type.  The capture's link type is
 * LINKTYPE_USER0 (147); each packet is a record type word followed by the
 * serialized record, as the library's envelope carries them from byte 16
 * on, so the packet header and data are written unchanged.  The Wireshark
 * dissector tools/orvane.lua decodes them.  Messages that are not
 * telemetry records are refused with a line on standard error. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "orvane.h"

#define COLLECTOR_NAME "Telemetry"
#define LINKTYPE_USER0 147u
#define ENVELOPE_BYTES 36
#define PACKET_OFFSET 16          /* the pcap packet record starts here */
#define SNAPLEN 262144u           /* the largest packet Wireshark reads */

enum { RECORD_TYPES = 4 };
static const struct {
    MSG_Type Type;
    const char *pName;
} kRecordTypes[RECORD_TYPES] = {
    {0xFF0013u, "UserMsgNtfy"},
    {0xFF0023u, "NtfyRegUnregNtfy"},
    {0xFF0033u, "DropMsgNtfy"},
    {0xFF0043u, "LocalOpenNtfy"},
};

struct Options {
    const char *pPath;
    long MaxRecords;     /* 0: no limit */
    long Seconds;        /* 0: no limit */
};

struct Totals {
    unsigned long PerType[RECORD_TYPES];
    unsigned long Refused;
    unsigned long Records;
};

static int gWakePipe[2] = {-1, -1};
static volatile sig_atomic_t gbStop = 0;

static void on_stop_signal(int Signal)
{
    (void)Signal;
    const int Saved = errno;
    gbStop = 1;
    if (write(gWakePipe[1], "", 1) < 0) {
        /* the pipe is full: a wake-up is pending already */
    }
    errno = Saved;
}

static int install_stop_signals(void)
{
    if (pipe(gWakePipe) != 0)
        return -1;
    fcntl(gWakePipe[1], F_SETFL, O_NONBLOCK);
    struct sigaction Action;
    memset(&Action, 0, sizeof Action);
    Action.sa_handler = on_stop_signal;
    sigemptyset(&Action.sa_mask);
    if (sigaction(SIGINT, &Action, NULL) != 0 || sigaction(SIGTERM, &Action, NULL) != 0)
        return -1;
    signal(SIGPIPE, SIG_IGN); /* a reader that goes away ends the capture */
    return 0;
}

static int parse_count(const char *pText, long *pValue)
{
    char *pEnd = NULL;
    errno = 0;
    *pValue = strtol(pText, &pEnd, 10);
    return errno == 0 && pEnd != pText && *pEnd == '\0' && *pValue > 0 ? 0 : -1;
}

static int parse_options(int Argc, char **ppArgv, struct Options *pOptions)
{
    pOptions->pPath = "telemetry.pcap";
    pOptions->MaxRecords = 0;
    pOptions->Seconds = 0;
    int Option;
    while ((Option = getopt(Argc, ppArgv, "w:c:t:")) != -1) {
        int Result = 0;
        switch (Option) {
        case 'w':
            pOptions->pPath = optarg;
            break;
        case 'c':
            Result = parse_count(optarg, &pOptions->MaxRecords);
            break;
        case 't':
            Result = parse_count(optarg, &pOptions->Seconds);
            break;
        default:
            Result = -1;
        }
        if (Result != 0)
            return -1;
    }
    return optind == Argc ? 0 : -1;
}

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
    for (int i = 0; i < RECORD_TYPES; i++)
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
static int drain(FILE *pFile, struct Totals *pTotals, long MaxRecords)
{
    MSG_Msg *pMsg;
    while ((MaxRecords == 0 || (long)pTotals->Records < MaxRecords) &&
           (pMsg = MSG_RecvAnyMsg(COLLECTOR_NAME, 0)) != NULL) {
        const int Index = record_index(MSG_GetType(pMsg));
        const char *pWhy = check_record(pMsg, Index);
        int Result = 0;
        if (pWhy != NULL) {
            pTotals->Refused++;
            fprintf(stderr, "orvane-collector: refused message type 0x%x from 0x%x: %s\n", MSG_GetType(pMsg),
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

static int collect(FILE *pFile, const struct Options *pOptions, struct Totals *pTotals)
{
    struct pollfd Watched[2] = {{MSG_GetLocalFileDesc(COLLECTOR_NAME), POLLIN, 0}, {gWakePipe[0], POLLIN, 0}};
    struct timespec Deadline;
    clock_gettime(CLOCK_MONOTONIC, &Deadline);
    Deadline.tv_sec += pOptions->Seconds;
    while (!gbStop && (pOptions->MaxRecords == 0 || (long)pTotals->Records < pOptions->MaxRecords)) {
        if (drain(pFile, pTotals, pOptions->MaxRecords) != 0) {
            fprintf(stderr, "orvane-collector: cannot write the capture: %s\n", strerror(errno));
            return -1;
        }
        const long Wait = pOptions->Seconds > 0 ? remaining_ms(&Deadline) : -1;
        if (Wait == 0)
            break;
        if (poll(Watched, 2, (int)(Wait > 1000000 ? 1000000 : Wait)) < 0 && errno != EINTR)
            return -1;
    }
    return 0;
}

static void print_totals(const struct Totals *pTotals, const char *pPath)
{
    for (int i = 0; i < RECORD_TYPES; i++)
        fprintf(stderr, "orvane-collector: %-16s %lu\n", kRecordTypes[i].pName, pTotals->PerType[i]);
    if (pTotals->Refused > 0)
        fprintf(stderr, "orvane-collector: %-16s %lu\n", "refused", pTotals->Refused);
    fprintf(stderr, "orvane-collector: %lu records written to %s\n", pTotals->Records, pPath);
}

int main(int Argc, char **ppArgv)
{
    struct Options Options;
    if (parse_options(Argc, ppArgv, &Options) != 0) {
        fprintf(stderr, "usage: orvane-collector [-w FILE|-] [-c COUNT] [-t SECONDS]\n");
        return 2;
    }
    if (install_stop_signals() != 0) {
        perror("orvane-collector: signals");
        return 1;
    }
    FILE *pFile = open_capture(Options.pPath);
    if (pFile == NULL) {
        fprintf(stderr, "orvane-collector: cannot write %s: %s\n", Options.pPath, strerror(errno));
        return 1;
    }
    const MSG_Status Status = MSG_OpenLocal(COLLECTOR_NAME);
    if (Status != MSG_OK) {
        fprintf(stderr, "orvane-collector: cannot open \"%s\": %s\n", COLLECTOR_NAME, MSG_DebugStrError(Status));
        return 1;
    }
    fprintf(stderr, "orvane-collector: collecting on \"%s\" into %s\n", COLLECTOR_NAME, Options.pPath);
    struct Totals Totals;
    memset(&Totals, 0, sizeof Totals);
    const int Result = collect(pFile, &Options, &Totals);
    MSG_CloseLocal(COLLECTOR_NAME);
    if (pFile != stdout)
        fclose(pFile);
    print_totals(&Totals, Options.pPath);
    return Result == 0 ? 0 : 1;
}
