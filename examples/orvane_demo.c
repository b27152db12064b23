/* orvane_demo: what the library offers so far.
 *   1. status codes with their texts, and diagnostic lines formatted from
 *      $-token formats (copied to standard error with their time stamp);
 *   2. messages: a public endpoint with callbacks for a range of message
 *      types, a message allocated on this thread's private endpoint, a
 *      clone, and dispatch to the callbacks in registration order;
 *   3. two processes over LINX: the parent hunts for an echo process by
 *      name, attaches to it, exchanges signals with it and is told when it
 *      ends.  On a host without the LINX kernel module this runs on the
 *      linxd stand-in, which the first call starts by itself. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "linx.h"
#include "orvane.h"

#define PING_SIGNO 0x1001u
#define QUIT_SIGNO 0x1002u
#define HUNT_SIGNO 0x1003u
#define GONE_SIGNO 0x1004u

static void show_status_and_log(void)
{
    static const MSG_Status Codes[] = {0, 101, 102, 104, 202, 301, 307, 309, 310};
    int32_t Halvo;
    uint32_t Pid;
    const char *pProgName;
    MSG_GetProcessInfo(&Halvo, &Pid, &pProgName);
    printf("process %s (pid %u, halvo index %d)\n\nsome status codes:\n", pProgName, Pid, Halvo);
    for (unsigned i = 0; i < sizeof Codes / sizeof Codes[0]; i++)
        printf("  %3u  %s\n", Codes[i], MSG_DebugStrError(Codes[i]));

    printf("\ndiagnostic lines (also sent to syslog):\n");
    fflush(stdout);
    MSG_DebugSetFlag(MSG_DEBUG_STDERR | MSG_DEBUG_LOG_SUCCESS);
    const int32_t Selection[] = {2, 0x101, 0x102};
    MSG_LogErrFilter(0, __FILE__, __LINE__, "main",
                     "$progname: $halvo: liborvane: $func: $err: $local, $sigselect\n", 0,
                     "radio", Selection);
    MSG_LogErrFilter(104, __FILE__, __LINE__, "main",
                     "$progname: $halvo: liborvane: $func: $err: $local\n", 104, "nosuch");
    MSG_DebugSetFlag(0);
    MSG_LogErrFilter(102, __FILE__, __LINE__, "main", "filtered out: never written\n");
}

static uint32_t print_reading(void *pContext, MSG_Msg *pMsg)
{
    printf("  %s got type 0x%x, seq %u: \"%s\"\n", (const char *)pContext, MSG_GetType(pMsg),
           MSG_GetSequence(pMsg), (const char *)MSG_GetPayload(pMsg));
    return 0;
}

static int show_messages(void)
{
    static const char Text[] = "temperature 21.5 C";
    printf("\nmessages and callbacks on endpoint \"demo-sensor\":\n");
    if (MSG_OpenLocal("demo-sensor") != MSG_OK)
        return 1;
    MSG_RegisterCallbackHelper("demo-sensor", print_reading, "logger", 0x10, 0x1F, 0);
    MSG_RegisterCallbackHelper("demo-sensor", print_reading, "display (once)", 0x12, 0x12, 1);
    MSG_Msg *pMsg = MSG_AllocMsg(0x12, MSG_GetNextSequence(), sizeof Text);
    memcpy(MSG_GetPayloadMutable(pMsg), Text, sizeof Text);
    MSG_Msg *pCopy = NULL;
    MSG_CloneMsg(pMsg, &pCopy);
    printf(" first dispatch:\n");
    MSG_ProcessCallback("demo-sensor", pMsg);
    printf(" second dispatch (the one-shot callback is gone):\n");
    MSG_ProcessCallback("demo-sensor", pCopy);
    MSG_ReleaseMsg(pMsg);
    MSG_ReleaseMsg(pCopy);
    return MSG_CloseLocal("demo-sensor") == MSG_OK ? 0 : 1;
}

/* The echo process: answers every ping with the same buffer, quits on QUIT. */
static int run_echo(void)
{
    LINX *pLinx = linx_open("demo-echo", 0, NULL);
    if (pLinx == NULL)
        return 1;
    for (;;) {
        union LINX_SIGNAL *pSig = NULL;
        if (linx_receive_w_tmo(pLinx, &pSig, 10000, NULL) <= 0)
            break;
        uint32_t SigNo;
        memcpy(&SigNo, pSig, sizeof SigNo);
        if (SigNo == QUIT_SIGNO) {
            linx_free_buf(pLinx, &pSig);
            break;
        }
        linx_send(pLinx, &pSig, linx_sender(pLinx, &pSig));
    }
    linx_close(pLinx);
    return 0;
}

static double now_us(void)
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec * 1e6 + Now.tv_nsec / 1e3;
}

static uint32_t receive_signo(LINX *pLinx, union LINX_SIGNAL **ppSig, LINX_SPID *pFrom)
{
    uint32_t SigNo = 0;
    if (linx_receive_w_tmo(pLinx, ppSig, 5000, NULL) > 0) {
        memcpy(&SigNo, *ppSig, sizeof SigNo);
        *pFrom = linx_sender(pLinx, ppSig);
    }
    return SigNo;
}

static int show_linx(void)
{
    char Version[32] = "";
    LINX *pLinx = linx_open("demo-client", 0, NULL);
    if (pLinx == NULL || linx_get_version(Version) < 0) {
        perror("linx_open");
        return 1;
    }
    printf("\nLINX module %s; this process is \"demo-client\", SPID 0x%x\n", Version,
           linx_get_spid(pLinx));

    union LINX_SIGNAL *pSig = linx_alloc(pLinx, 4, HUNT_SIGNO);
    linx_hunt(pLinx, "demo-echo", &pSig); /* answered once the echo process opens */
    fflush(stdout);
    const pid_t Echo = fork();
    if (Echo == 0)
        _exit(run_echo());
    LINX_SPID Peer = 0;
    if (receive_signo(pLinx, &pSig, &Peer) != HUNT_SIGNO) {
        fprintf(stderr, "demo-echo was not found\n");
        return 1;
    }
    linx_free_buf(pLinx, &pSig);
    printf("hunt found \"demo-echo\" at SPID 0x%x (pid %d)\n", Peer, (int)linx_get_owner(pLinx, Peer));
    pSig = linx_alloc(pLinx, 4, GONE_SIGNO);
    linx_attach(pLinx, &pSig, Peer);

    for (uint32_t i = 1; i <= 5; i++) {
        const double Start = now_us();
        pSig = linx_alloc(pLinx, 64, PING_SIGNO);
        linx_send(pLinx, &pSig, Peer);
        LINX_SPID From = 0;
        const uint32_t SigNo = receive_signo(pLinx, &pSig, &From);
        printf("ping %u: answer 0x%x from 0x%x, %d bytes, round trip %.1f us\n", i, SigNo, From,
               (int)linx_sigsize(pLinx, &pSig), now_us() - Start);
        linx_free_buf(pLinx, &pSig);
    }

    pSig = linx_alloc(pLinx, 4, QUIT_SIGNO);
    linx_send(pLinx, &pSig, Peer);
    LINX_SPID From = 0;
    if (receive_signo(pLinx, &pSig, &From) == GONE_SIGNO)
        printf("attach: 0x%x has closed\n", From);
    linx_free_buf(pLinx, &pSig);
    waitpid(Echo, NULL, 0);
    linx_close(pLinx);
    return 0;
}

int main(void)
{
    show_status_and_log();
    if (show_messages() != 0)
        return 1;
    return show_linx();
}
