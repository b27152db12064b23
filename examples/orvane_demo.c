/* orvane_demo: shows what the library offers so far: status codes with
 * their texts and diagnostic lines formatted from $-token formats, copied
 * to standard error with their monotonic time stamp. */
#include <stdio.h>
#include <syslog.h>

#include "orvane.h"

int main(void)
{
    static const MSG_Status Codes[] = {0, 101, 102, 103, 104, 105, 201, 202, 203,
                                       300, 301, 302, 303, 304, 305, 306, 307, 308, 309};
    int32_t Halvo;
    uint32_t Pid;
    const char *pProgName;
    MSG_GetProcessInfo(&Halvo, &Pid, &pProgName);
    printf("process %s (pid %u, halvo index %d)\n\nstatus codes:\n", pProgName, Pid, Halvo);
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
    MSG_LogOs(LOG_ERR, __FILE__, __LINE__, "main",
              "$progname: $halvo: liborvane: $file:$line: system function error: "
              "open(\"%s\"), $errno\n", "/dev/linx", 2);
    MSG_DebugSetFlag(0);
    MSG_LogErrFilter(102, __FILE__, __LINE__, "main", "filtered out: never written\n");
    return 0;
}
