/* SPDX-License-Identifier: Apache-2.0 */
/* orvane_demo: what a program does all day with liborvane, in three
 * processes.
 *
 *   weather-server  serves requests on its public endpoint and publishes
 *                   weather updates to whoever subscribed.
 *   relay           finds the server by name, subscribes to its updates,
 *                   and forwards requests to it; answers travel back along
 *                   the sender stack.
 *   client (this)   opens both peers asynchronously and learns of their
 *                   appearance and death through callbacks, asks the
 *                   server directly and through the relay, subscribes to
 *                   the updates, and watches the relay die and come back.
 *
 * Everything stops by itself.  On a host without the LINX kernel module
 * this runs on the linxd stand-in, which the first call starts.
 *
 * With --telemetry the three processes copy their traffic, and announce
 * their endpoints, to the telemetry collector "Telemetry" (tools/
 * orvane-collector), which writes it to a capture for Wireshark. */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "orvane.h"

#define WEATHER_REQ    0x100u /* low four bits 0: a request */
#define WEATHER_RSP    0x101u /* low four bits 1: its response */
#define WEATHER_UPDATE 0x200u /* published to subscribers */
#define QUIT_REQ       0x7F0u
#define UPDATES        3

static double now_ms(void)
{
    struct timespec Now;
    clock_gettime(CLOCK_MONOTONIC, &Now);
    return Now.tv_sec * 1e3 + Now.tv_nsec / 1e6;
}

static void say(const char *pWho, const char *pText)
{
    printf("%-8s %s\n", pWho, pText);
    fflush(stdout);
}

/* ---- weather-server ------------------------------------------------------ */

static void publish_update(int Number)
{
    static const char *const Forecasts[UPDATES] = {"rain at 14:00", "wind from the west", "clear by evening"};
    MSG_Msg *pMsg = MSG_AllocMsg(WEATHER_UPDATE, (uint32_t)Number, 64);
    snprintf(MSG_GetPayloadMutable(pMsg), 64, "%s", Forecasts[Number - 1]);
    MSG_SendNotification("weather-server", pMsg); /* always consumes pMsg */
}

static void answer(MSG_Msg *pMsg)
{
    snprintf(MSG_GetPayloadMutable(pMsg), (size_t)MSG_GetPayloadBytes(pMsg), "sunny, 21 C");
    MSG_SetType(pMsg, WEATHER_RSP);
    MSG_SendMsg("weather-server", 0, pMsg); /* back to whoever asked */
}

/* Answers requests; once both client and relay subscribed, publishes an
 * update every 100 ms until UPDATES went out. */
static int run_server(void)
{
    if (MSG_OpenLocal("weather-server") != MSG_OK)
        return 1;
    int Published = 0;
    double NextUpdate = 0;
    for (double Idle = now_ms(); now_ms() - Idle < 10000;) {
        if (Published < UPDATES && MSG_CountNotifications_Private("weather-server") >= 2 &&
            now_ms() >= NextUpdate) {
            publish_update(++Published);
            NextUpdate = now_ms() + 100;
        }
        MSG_Msg *pMsg = MSG_RecvAnyMsg("weather-server", 20);
        if (pMsg == NULL)
            continue;
        Idle = now_ms();
        if (MSG_GetType(pMsg) == QUIT_REQ) {
            MSG_ReleaseMsg(pMsg);
            return MSG_CloseLocal("weather-server") == MSG_OK ? 0 : 2;
        }
        answer(pMsg);
    }
    return 3;
}

/* ---- relay ----------------------------------------------------------------- */

static int run_relay(void)
{
    uint32_t Server = 0;
    if (MSG_OpenLocal("relay") != MSG_OK ||
        MSG_OpenRemoteSync("relay", "weather-server", 5000, &Server) != MSG_OK ||
        MSG_RegisterNotificationRemote("relay", WEATHER_UPDATE, WEATHER_UPDATE, Server) != MSG_OK)
        return 1;
    for (double Idle = now_ms(); now_ms() - Idle < 10000;) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg("relay", 100);
        if (pMsg == NULL)
            continue;
        Idle = now_ms();
        const MSG_Type Type = MSG_GetType(pMsg);
        if (Type == QUIT_REQ) {
            MSG_ReleaseMsg(pMsg);
            return MSG_CloseLocal("relay") == MSG_OK ? 0 : 2;
        }
        if (Type == WEATHER_UPDATE) {
            char Line[96];
            snprintf(Line, sizeof Line, "update %u: %s", MSG_GetSequence(pMsg), (const char *)MSG_GetPayload(pMsg));
            say("relay", Line);
            MSG_ReleaseMsg(pMsg);
        } else {
            /* a request goes on to the server; its answer back down the stack */
            MSG_SendMsg("relay", Type == WEATHER_RSP ? 0 : Server, pMsg);
        }
    }
    return 3;
}

static pid_t start(int (*Run)(void))
{
    fflush(stdout);
    const pid_t Child = fork();
    if (Child == 0)
        _exit(Run());
    return Child;
}

/* ---- client ------------------------------------------------------------------ */

struct Peer {
    const char *pName;
    uint32_t Id;       /* while up */
    int Appearances;
    int Losses;
    double LostAt;     /* when the client saw it go */
};

static uint32_t on_open(void *pContext, MSG_Msg *pMsg)
{
    struct Peer *pPeer = pContext;
    char Line[96];
    pPeer->Id = MSG_GetSender(pMsg);
    snprintf(Line, sizeof Line, "open callback: %s is %s at 0x%x", pPeer->pName,
             pPeer->Appearances++ ? "back" : "up", pPeer->Id);
    say("client", Line);
    return 0;
}

static uint32_t on_close(void *pContext, MSG_Msg *pMsg)
{
    struct Peer *pPeer = pContext;
    char Line[96];
    snprintf(Line, sizeof Line, "close callback: %s (0x%x) is gone", pPeer->pName, MSG_GetSender(pMsg));
    say("client", Line);
    pPeer->Id = 0;
    pPeer->Losses++;
    pPeer->LostAt = now_ms();
    return 0;
}

static uint32_t on_update(void *pContext, MSG_Msg *pMsg)
{
    char Line[96];
    snprintf(Line, sizeof Line, "update %u: %s", MSG_GetSequence(pMsg), (const char *)MSG_GetPayload(pMsg));
    say("client", Line);
    ++*(int *)pContext;
    return 0;
}

/* Serves the client's receive loop until *pValue reaches Wanted (5 s at
 * most); user messages go to the callbacks. */
static int serve_until(const int *pValue, int Wanted)
{
    const double Start = now_ms();
    while (*pValue < Wanted && now_ms() - Start < 5000) {
        MSG_Msg *pMsg = MSG_RecvAnyMsg("client", 20);
        if (pMsg != NULL) {
            MSG_ProcessCallback("client", pMsg);
            MSG_ReleaseMsg(pMsg);
        }
    }
    return *pValue >= Wanted ? 0 : 1;
}

/* One request and its answer: the answer's text into pText (of 64 bytes)
 * and the time it took in microseconds, or a negative time on failure. */
static double request(uint32_t Receiver, char *pText)
{
    MSG_Msg *pMsg = MSG_AllocMsg(WEATHER_REQ, MSG_GetNextSequence(), 64);
    const double Start = now_ms();
    if (MSG_SendMsg("client", Receiver, pMsg) != MSG_OK)
        return -1;
    MSG_Msg *pAnswer = MSG_RecvMsg("client", WEATHER_RSP, 5000);
    if (pAnswer == NULL)
        return -1;
    const double Took = (now_ms() - Start) * 1e3;
    snprintf(pText, 64, "%s", (const char *)MSG_GetPayload(pAnswer));
    MSG_ReleaseMsg(pAnswer);
    return Took;
}

static int compare_doubles(const void *pA, const void *pB)
{
    const double A = *(const double *)pA, B = *(const double *)pB;
    return (A > B) - (A < B);
}

/* Asks a peer, and says what the first request to it cost (its routes are
 * set up then) apart from what the usual one does (the median of 20 more). */
static int ask(uint32_t Receiver, const char *pVia)
{
    char Text[64], Line[160];
    const double First = request(Receiver, Text);
    double Usual[20];
    for (int i = 0; i < 20 && First >= 0; i++)
        if ((Usual[i] = request(Receiver, Text)) < 0)
            return 1;
    if (First < 0)
        return 1;
    qsort(Usual, 20, sizeof Usual[0], compare_doubles);
    snprintf(Line, sizeof Line, "asked %-20s \"%s\": first %.0f us, usually %.1f us", pVia, Text, First, Usual[10]);
    say("client", Line);
    return 0;
}

static int open_async(struct Peer *pPeer)
{
    const MSG_Callback OnOpen = {on_open, pPeer, 0, 0, 0}; /* 0: across restarts */
    const MSG_Callback OnClose = {on_close, pPeer, 0, 0, 0};
    return MSG_OpenRemoteAsync("client", pPeer->pName, &OnOpen, &OnClose) != MSG_OK;
}

static int stop(uint32_t Id, pid_t Child)
{
    int Status = 0;
    MSG_SendMsg("client", Id, MSG_AllocMsg(QUIT_REQ, 0, 0));
    waitpid(Child, &Status, 0);
    return !WIFEXITED(Status) || WEXITSTATUS(Status) != 0;
}

/* The server and the relay alone, for a client of another program (the
 * Python example): each stops at its quit request or after 10 s idle. */
static int serve(void)
{
    const pid_t ServerPid = start(run_server), RelayPid = start(run_relay);
    int ServerStatus = 0, RelayStatus = 0;
    waitpid(ServerPid, &ServerStatus, 0);
    waitpid(RelayPid, &RelayStatus, 0);
    return !WIFEXITED(ServerStatus) || WEXITSTATUS(ServerStatus) != 0 || !WIFEXITED(RelayStatus) ||
           WEXITSTATUS(RelayStatus) != 0;
}

int main(int Argc, char **ppArgv)
{
    if (Argc > 1 && strcmp(ppArgv[1], "--serve") == 0) {
        return serve();
    } else if (Argc > 1 && strcmp(ppArgv[1], "--telemetry") == 0) {
        MSG_DebugSetFlag(MSG_DebugGetFlag() | MSG_DEBUG_TELEMETRY_SEND | MSG_DEBUG_TELEMETRY_RECV);
        say("client", "telemetry on: traffic is copied to \"Telemetry\"");
    } else if (Argc > 1) {
        fprintf(stderr, "usage: orvane_demo [--telemetry | --serve]\n");
        return 2;
    }
    struct Peer Server = {"weather-server", 0, 0, 0, 0}, Relay = {"relay", 0, 0, 0, 0};
    int Updates = 0;
    int Failures = MSG_OpenLocal("client") != MSG_OK;
    Failures += open_async(&Server) + open_async(&Relay);
    Failures += MSG_RegisterCallbackHelper("client", on_update, &Updates, WEATHER_UPDATE, WEATHER_UPDATE, 0) != 0;
    const pid_t ServerPid = start(run_server);
    pid_t RelayPid = start(run_relay);
    Failures += serve_until(&Server.Appearances, 1) + serve_until(&Relay.Appearances, 1);

    if (!Failures)
        Failures += ask(Server.Id, "weather-server:") + ask(Relay.Id, "through the relay:");
    if (!Failures && MSG_RegisterNotificationRemote("client", WEATHER_UPDATE, WEATHER_UPDATE, Server.Id) == MSG_OK)
        say("client", "subscribed to weather-server's updates");
    Failures += serve_until(&Updates, UPDATES);

    nanosleep(&(struct timespec){0, 100000000}, NULL); /* lets the relay print its last update */
    say("client", "killing the relay (SIGKILL)");
    const double KilledAt = now_ms();
    kill(RelayPid, SIGKILL);
    Failures += serve_until(&Relay.Losses, 1);
    waitpid(RelayPid, NULL, 0);
    printf("%-8s (its death reached the close callback %.2f ms after the kill)\n", "", Relay.LostAt - KilledAt);
    say("client", "starting the relay again");
    RelayPid = start(run_relay);
    Failures += serve_until(&Relay.Appearances, 2) || ask(Relay.Id, "through the relay:");

    Failures += stop(Relay.Id, RelayPid) + stop(Server.Id, ServerPid);
    MSG_CloseLocal("client");
    say(Failures ? "FAILED" : "done", "server and relay stopped");
    return Failures != 0;
}
