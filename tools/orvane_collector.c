/* SPDX-License-Identifier: Apache-2.0 */
/* orvane-collector: the telemetry collector as a program of its own
 * (collector.h says what it collects and how it writes the capture):
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
 * prints one line per record type.  `orvane capture` does the same with a
 * live count on a terminal. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "collector.h"
#include "stop_signals.h"

static int parse_count(const char *pText, long *pValue)
{
    char *pEnd = NULL;
    errno = 0;
    *pValue = strtol(pText, &pEnd, 10);
    return errno == 0 && pEnd != pText && *pEnd == '\0' && *pValue > 0 ? 0 : -1;
}

static int parse_options(int Argc, char **ppArgv, struct CollectorOptions *pOptions)
{
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

static const char kUsage[] = "usage: orvane-collector [-w FILE|-] [-c COUNT] [-t SECONDS]\n";
static const char kHelp[] =
    "Collects the telemetry records of the liborvane programs of this host (they\n"
    "send copies of their traffic to the public endpoint \"Telemetry\" while it\n"
    "exists) and writes them as a pcap capture that Wireshark decodes with\n"
    "orvane.lua.  Stops on SIGINT or SIGTERM, and prints one line per record type.\n"
    "\n"
    "  -w FILE     the capture file (default telemetry.pcap); \"-\" writes to\n"
    "              standard output: orvane-collector -w - | wireshark -k -i -\n"
    "  -c COUNT    stop after COUNT records\n"
    "  -t SECONDS  stop after SECONDS\n"
    "  --help      show this text\n"
    "  --version   show the version\n";

int main(int Argc, char **ppArgv)
{
    struct CollectorOptions Options = {"orvane-collector", "telemetry.pcap", 0, 0, NULL, NULL};
    if (Argc == 2 && strcmp(ppArgv[1], "--help") == 0) {
        printf("%s\n%s", kUsage, kHelp);
        return 0;
    }
    if (Argc == 2 && strcmp(ppArgv[1], "--version") == 0) {
        printf("orvane-collector %s\n", ORVANE_VERSION);
        return 0;
    }
    if (parse_options(Argc, ppArgv, &Options) != 0) {
        fputs(kUsage, stderr);
        return 2;
    }
    if (stop_signals_install() != 0) {
        perror("orvane-collector: signals");
        return 1;
    }
    struct CollectorTotals Totals;
    return collector_run(&Options, &Totals);
}
