/* orvane_demo: three processes exchanging typed messages.
 *
 *   weather-server  a public endpoint served by MSG_RecvAnyMsg; it answers
 *                   every request with the same message turned into a
 *                   response, which travels back along the sender stack.
 *   relay           forwards requests to the server and answers back to
 *                   whoever asked, without knowing who that was.
 *   client (this)   finds both by name, asks the server directly and
 *                   through the relay, and prints answers and round trips.
 *
 * It also shows status texts, a diagnostic line and callbacks, and stops
 * by itself.  On a host without the LINX kernel module this runs on the
 * linxd stand-in, which the first call starts. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "linx.h"
#include "orvane.h"

#define WEATHER_REQ 0x100u /* low four bits 0: a request */
#define WEATHER_RSP 0x101u /* low four bits 1: its response */
#define QUIT_REQ    0x7F0u

static double now_us(void)
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec * 1e6 + Now.tv_nsec / 1e3;
}

/* The LINX id of an endpoint, found by hunting its name. */
static uint32_t find(const char *pName)
{
    LINX *pLinx = linx_open("demo-finder", 0, NULL);
    union LINX_SIGNAL *pSig = NULL;
    uint32_t Spid = 0;
    if (pLinx != NULL && linx_hunt(pLinx, pName, NULL) == 0 &&
        linx_receive_w_tmo(pLinx, &pSig, 5000, NULL) > 0) {
        Spid = linx_sender(pLinx, &pSig);
        linx_free_buf(pLinx, &pSig);
    }
    if (pLinx != NULL)
        linx_close(pLinx);
    return Spid;
}

/* The server answers; with a Forward id it is the relay, which sends
 * requests on to Forward and answers back down the stack. */
static int serve(const char *pName, uint32_t Forward)
{
    if (MSG_OpenLocal(pName) != MSG_OK)
        return 1;
    for (;;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg(pName, 10000);
        if (pMsg == NULL)
            return 2;
        const MSG_Type Type = MSG_GetType(pMsg);
        if (Type == QUIT_REQ) {
            MSG_ReleaseMsg(pMsg);
            return MSG_CloseLocal(pName) == MSG_OK ? 0 : 3;
        }
        if ((Type & 0xF) == 1) {
            MSG_SendMsg(pName, 0, pMsg); /* an answer: back to whoever asked */
        } else if (Forward != 0) {
            MSG_SendMsg(pName, Forward, pMsg);
        } else {
            char *pText = MSG_GetPayloadMutable(pMsg);
            snprintf(pText, (size_t)MSG_GetPayloadBytes(pMsg), "sunny, 21 C (asked by 0x%x)",
                     MSG_GetOrigSender(pMsg));
            MSG_SetType(pMsg, Type | 1);
            MSG_SendMsg(pName, 0, pMsg);
        }
    }
}

static pid_t start(const char *pName, const char *pForwardTo)
{
    fflush(stdout);
    const pid_t Child = fork();
    if (Child == 0)
        _exit(serve(pName, pForwardTo != NULL ? find(pForwardTo) : 0));
    return Child;
}

static uint32_t on_answer(void *pContext, MSG_Msg *pMsg)
{
    printf("    callback %s: seq %u says \"%s\"\n", (const char *)pContext, MSG_GetSequence(pMsg),
           (const char *)MSG_GetPayload(pMsg));
    return 0;
}

/* One request to Receiver; prints the answer and the round trip. */
static int ask(uint32_t Receiver, const char *pVia)
{
    const uint32_t Seq = MSG_GetNextSequence();
    MSG_Msg *pMsg = MSG_AllocMsg(WEATHER_REQ, Seq, 64);
    const double Start = now_us();
    if (MSG_SendMsg("client", Receiver, pMsg) != MSG_OK)
        return 1;
    MSG_Msg *pAnswer = MSG_RecvMsg("client", WEATHER_RSP, 5000);
    if (pAnswer == NULL)
        return 1;
    printf("  %-18s seq %2u: \"%s\" in %.1f us\n", pVia, MSG_GetSequence(pAnswer),
           (const char *)MSG_GetPayload(pAnswer), now_us() - Start);
    MSG_ProcessCallback("client", pAnswer);
    MSG_ReleaseMsg(pAnswer);
    return 0;
}

static void show_status_and_log(void)
{
    printf("status texts: 0 \"%s\", 102 \"%s\", 307 \"%s\"\n", MSG_DebugStrError(0),
           MSG_DebugStrError(102), MSG_DebugStrError(307));
    fflush(stdout);
    MSG_DebugSetFlag(MSG_DEBUG_STDERR);
    MSG_LogErrFilter(104, __FILE__, __LINE__, "main",
                     "$progname: $halvo: liborvane: $func: $err: $local\n", 104, "nosuch");
    MSG_DebugSetFlag(0);
}

int main(void)
{
    const pid_t Server = start("weather-server", NULL);
    const pid_t Relay = start("relay", "weather-server");
    show_status_and_log();

    int Failures = MSG_OpenLocal("client") != MSG_OK;
    MSG_RegisterCallbackHelper("client", on_answer, "logger", WEATHER_RSP, WEATHER_RSP, 0);
    const uint32_t ServerId = find("weather-server"), RelayId = find("relay");
    printf("\nclient 0x%x found weather-server at 0x%x and relay at 0x%x\n", find("client"), ServerId,
           RelayId);
    for (int i = 0; i < 4 && !Failures; i++)
        Failures += ask(ServerId, "direct");
    for (int i = 0; i < 2 && !Failures; i++)
        Failures += ask(RelayId, "through the relay");

    MSG_SendMsg("client", RelayId, MSG_AllocMsg(QUIT_REQ, 0, 0));
    MSG_SendMsg("client", ServerId, MSG_AllocMsg(QUIT_REQ, 0, 0));
    int Status = 0;
    waitpid(Relay, &Status, 0);
    Failures += !WIFEXITED(Status) || WEXITSTATUS(Status) != 0;
    waitpid(Server, &Status, 0);
    Failures += !WIFEXITED(Status) || WEXITSTATUS(Status) != 0;
    MSG_CloseLocal("client");
    printf("%s\n", Failures ? "demo FAILED" : "server and relay stopped; done");
    return Failures != 0;
}
