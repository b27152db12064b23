// linxd: the LINX stand-in service.  Clients start it on demand; run it by
// hand with --foreground to watch it.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "linxd.h"
#include "linxd_address.h"

namespace {

void jUsage(FILE *pOut)
{
    fprintf(pOut,
            "usage: linxd [options]\n"
            "Plays the LINX kernel module's part for the processes of this user.\n"
            "Clients start it on demand; it exits after an idle time with no clients.\n\n"
            "  --instance NAME      instance to serve (default: $%s, else \"%s\")\n"
            "  --foreground         stay attached to the terminal and report on stderr\n"
            "  --idle-exit SECONDS  exit after this long without clients (default 30, 0: never)\n"
            "  --queue-bytes N      bytes each sending process may have waiting for one socket:\n"
            "                       the size of its ring (default 524288)\n"
            "  --module-version V   version to report to clients, as X.Y.Z (default 2.5.1)\n"
            "  --help               show this text\n"
            "  --version            show the version\n",
            LINXD_INSTANCE_ENV, LINXD_DEFAULT_INSTANCE);
}

bool jParseNumber(const char *pText, long Min, long Max, long *pValue)
{
    char *pEnd = nullptr;
    errno = 0;
    const long Value = strtol(pText, &pEnd, 10);
    if (errno != 0 || pEnd == pText || *pEnd != '\0' || Value < Min || Value > Max)
        return false;
    *pValue = Value;
    return true;
}

bool jParseVersion(const char *pText, uint32_t *pWord)
{
    unsigned Major, Minor, Patch;
    char Tail;
    if (sscanf(pText, "%u.%u.%u%c", &Major, &Minor, &Patch, &Tail) != 3 || Major > 255 ||
        Minor > 0xFFFF || Patch > 255)
        return false;
    *pWord = (Major << 24) | (Minor << 8) | Patch;
    return true;
}

// Without --foreground linxd runs as a daemon: nothing inherited but the
// standard streams, and those on /dev/null; its own session; and the
// process that started it (a client waiting for it) ends at once.
void jDaemonize()
{
    syscall(SYS_close_range, 3, ~0U, 0);
    const int Null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (Null >= 0) {
        dup2(Null, 0);
        dup2(Null, 1);
        dup2(Null, 2);
        close(Null);
    }
    if (fork() != 0)
        _exit(0);
    setsid();
}

} // namespace

int main(int argc, char **argv)
{
    LinxdOptions Options;
    Options.VersionWord = LINXD_VERSION_WORD;
    const char *pEnv = getenv(LINXD_INSTANCE_ENV);
    Options.Instance = pEnv != nullptr && *pEnv != '\0' ? pEnv : LINXD_DEFAULT_INSTANCE;
    for (int i = 1; i < argc; i++) {
        const std::string Arg = argv[i];
        const char *pValue = i + 1 < argc ? argv[i + 1] : nullptr;
        long Number = 0;
        if (Arg == "--help") {
            jUsage(stdout);
            return 0;
        } else if (Arg == "--version") {
            printf("linxd (liborvane) %s\n", ORVANE_VERSION);
            return 0;
        } else if (Arg == "--foreground") {
            Options.bForeground = true;
        } else if (Arg == "--instance" && pValue != nullptr) {
            Options.Instance = pValue;
            i++;
        } else if (Arg == "--idle-exit" && pValue && jParseNumber(pValue, 0, 86400 * 365, &Number)) {
            Options.IdleExitSeconds = (int)Number;
            i++;
        } else if (Arg == "--queue-bytes" && pValue && jParseNumber(pValue, 4096, 1L << 30, &Number)) {
            Options.QueueBytes = (uint32_t)Number;
            i++;
        } else if (Arg == "--module-version" && pValue && jParseVersion(pValue, &Options.VersionWord)) {
            i++;
        } else {
            fprintf(stderr, "linxd: bad argument \"%s\"\n", argv[i]);
            jUsage(stderr);
            return 2;
        }
    }
    if (!linxd_instance_valid(Options.Instance.c_str())) {
        fprintf(stderr, "linxd: bad instance name \"%s\" (1 to %d of A-Z a-z 0-9 . _ -)\n",
                Options.Instance.c_str(), LINXD_MAX_INSTANCE_CHARS);
        return 2;
    }
    if (!Options.bForeground)
        jDaemonize();
    return LinxdRun(Options);
}
