// SPDX-License-Identifier: Apache-2.0
// linxd: the LINX stand-in service.  Clients start it on demand; run it by
// hand with --foreground to watch it.
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "linxd.h"
#include "standin/address.h"
#include "linxd_link.h"

namespace {

void jUsage(FILE *pOut)
{
    fprintf(pOut,
            "Usage: linxd [options]\n\n"
            "Plays the LINX kernel module's part for the processes of this user.\n"
            "Clients start it on demand; it exits after an idle time with no clients\n"
            "(a node with links, or taking links over TCP, stays).\n\n"
            "Options:\n"
            "  --instance NAME         instance to serve (default: $%s, else \"%s\")\n"
            "  --foreground            stay attached to the terminal and report on stderr\n"
            "  --idle-exit SECONDS     exit after this long without clients and links\n"
            "                          (default 30, 0: never)\n"
            "  --queue-bytes N         bytes each sending process may have waiting for one\n"
            "                          socket: the size of its ring (default 524288); the\n"
            "                          largest signal is half of it, at most 262144\n"
            "  --rings-per-socket N    rings one socket reads at most, live or retired and not\n"
            "                          read yet: each of --queue-bytes (default 4096, at most\n"
            "                          65536); beyond, a new sender gets ENOBUFS\n"
            "  --mapped-rings N        rings linxd maps itself at most (those into endpoints\n"
            "                          behind links, and its own into sockets); beyond, a\n"
            "                          sender gets ENOBUFS (default: what vm.max_map_count\n"
            "                          leaves, 28666 of the kernel's default 65530)\n"
            "  --module-version V      version to report to clients, as X.Y.Z (default 2.5.1)\n"
            "  --config FILE           read options from FILE, one per line without the dashes\n"
            "                          (default ~/.config/linxd/INSTANCE.conf, if it exists)\n"
            "  --help                  show this text\n"
            "  --version               show the version\n\n"
            "Links to other nodes:\n"
            "  --link NAME=ADDRESS     dial a link: ADDRESS is unix:INSTANCE (an instance of\n"
            "                          this host) or tcp:HOST:PORT; it comes back by itself\n"
            "                          after a loss; a hunt for NAME/ENDPOINT reaches the\n"
            "                          endpoint ENDPOINT behind it\n"
            "  --listen tcp:HOST:PORT  take links from other hosts (every instance takes links\n"
            "                          of this host on its own Unix link address)\n"
            "  --node NAME             this node's name, which peers that did not dial it give\n"
            "                          the link (default: the instance)\n"
            "  --secret FILE           the link secret TCP links authenticate with\n"
            "                          (default ~/.config/linxd/link.secret)\n"
            "  --make-secret FILE      write a new link secret (mode 0600) and exit\n"
            "  --link-timeout MS       a link that is silent this long is down (default 3000;\n"
            "                          heartbeats go every third of it)\n",
            LINXD_INSTANCE_ENV, LINXD_DEFAULT_INSTANCE);
}

std::string jConfigDir()
{
    const struct passwd *pUser = getpwuid(geteuid());
    return std::string(pUser != nullptr ? pUser->pw_dir : "") + "/.config/linxd/";
}

// The words of a configuration file: each line "option value..." stands for
// "--option value..."; empty lines and lines starting with # are skipped.
bool jReadConfig(const std::string &Path, bool bMustExist, std::vector<std::string> *pArgs)
{
    std::ifstream In(Path);
    if (!In) {
        if (bMustExist)
            fprintf(stderr, "linxd: cannot read the configuration %s\n", Path.c_str());
        return !bMustExist;
    }
    std::string Line;
    while (std::getline(In, Line)) {
        std::istringstream Words(Line);
        std::string Word;
        for (bool bFirst = true; Words >> Word; bFirst = false) {
            if (bFirst && Word[0] == '#')
                break;
            pArgs->push_back(bFirst ? "--" + Word : Word);
        }
    }
    return true;
}

// Where the options come from: the configuration file (named by --config,
// or the instance's default one), then the command line, which wins.
bool jGatherArgs(int argc, char **argv, const std::string &Instance, std::vector<std::string> *pArgs)
{
    std::string Config, Named = Instance;
    for (int i = 1; i + 1 < argc; i++) {
        if (strcmp(argv[i], "--config") == 0)
            Config = argv[i + 1];
        if (strcmp(argv[i], "--instance") == 0)
            Named = argv[i + 1];
    }
    const bool bGiven = !Config.empty();
    if (!bGiven)
        Config = jConfigDir() + Named + ".conf";
    if (!jReadConfig(Config, bGiven, pArgs))
        return false;
    pArgs->insert(pArgs->end(), argv + 1, argv + argc);
    return true;
}

// NAME=ADDRESS, the name a link name (an instance-like name: no slash).
bool jParseLink(const std::string &Text, LinxdOptions *pOptions)
{
    const size_t Equals = Text.find('=');
    LinxdLinkOption Link;
    Link.Name = Text.substr(0, Equals == std::string::npos ? 0 : Equals);
    Link.Address = Equals == std::string::npos ? "" : Text.substr(Equals + 1);
    LinkAddress Address;
    std::string Why;
    if (!linxd_instance_valid(Link.Name.c_str()) || !LinkParseAddress(Link.Address, &Address, &Why)) {
        fprintf(stderr, "linxd: bad link \"%s\" (NAME=unix:INSTANCE or NAME=tcp:HOST:PORT) %s\n", Text.c_str(),
                Why.c_str());
        return false;
    }
    pOptions->Links.push_back(Link);
    return true;
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
    Options.SecretFile = jConfigDir() + "link.secret";
    std::vector<std::string> Args;
    if (!jGatherArgs(argc, argv, Options.Instance, &Args))
        return 2;
    for (size_t i = 0; i < Args.size(); i++) {
        const std::string &Arg = Args[i];
        const char *pValue = i + 1 < Args.size() ? Args[i + 1].c_str() : nullptr;
        long Number = 0;
        if (Arg == "--help") {
            jUsage(stdout);
            return 0;
        } else if (Arg == "--version") {
            printf("linxd (liborvane) %s\n", ORVANE_VERSION);
            return 0;
        } else if (Arg == "--foreground") {
            Options.bForeground = true;
        } else if (Arg == "--make-secret" && pValue != nullptr) {
            std::string Why;
            if (!LinkMakeSecret(pValue, &Why)) {
                fprintf(stderr, "linxd: %s\n", Why.c_str());
                return 1;
            }
            return 0;
        } else if ((Arg == "--instance" || Arg == "--config") && pValue != nullptr) {
            if (Arg == "--instance")
                Options.Instance = pValue;
            i++;
        } else if (Arg == "--node" && pValue != nullptr && linxd_instance_valid(pValue)) {
            Options.Node = pValue;
            i++;
        } else if (Arg == "--secret" && pValue != nullptr) {
            Options.SecretFile = pValue;
            i++;
        } else if (Arg == "--listen" && pValue != nullptr) {
            Options.Listens.push_back(pValue);
            i++;
        } else if (Arg == "--link" && pValue != nullptr) {
            if (!jParseLink(pValue, &Options))
                return 2;
            i++;
        } else if (Arg == "--link-timeout" && pValue && jParseNumber(pValue, 30, 3600000, &Number)) {
            Options.LinkTimeoutMs = (int)Number;
            i++;
        } else if (Arg == "--idle-exit" && pValue && jParseNumber(pValue, 0, 86400 * 365, &Number)) {
            Options.IdleExitSeconds = (int)Number;
            i++;
        } else if (Arg == "--queue-bytes" && pValue && jParseNumber(pValue, 4096, 1L << 30, &Number)) {
            Options.QueueBytes = (uint32_t)Number;
            i++;
        } else if (Arg == "--rings-per-socket" && pValue && jParseNumber(pValue, 1, LINXD_MAX_RINGS_PER_SOCKET, &Number)) {
            Options.RingsPerSocket = (uint32_t)Number;
            i++;
        } else if (Arg == "--mapped-rings" && pValue && jParseNumber(pValue, 1, 1L << 30, &Number)) {
            Options.MappedRings = (uint32_t)Number;
            i++;
        } else if (Arg == "--module-version" && pValue && jParseVersion(pValue, &Options.VersionWord)) {
            i++;
        } else {
            fprintf(stderr, "linxd: bad argument \"%s\"\n", Arg.c_str());
            jUsage(stderr);
            return 2;
        }
    }
    if (!linxd_instance_valid(Options.Instance.c_str())) {
        fprintf(stderr, "linxd: bad instance name \"%s\" (1 to %d of A-Z a-z 0-9 . _ -)\n",
                Options.Instance.c_str(), LINXD_MAX_INSTANCE_CHARS);
        return 2;
    }
    if (Options.Node.empty())
        Options.Node = Options.Instance;
    if (!Options.bForeground)
        jDaemonize();
    return LinxdRun(Options);
}
