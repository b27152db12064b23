// What floods from a hostile or careless peer cost the others, measured
// with real processes on an instance of linxd of its own:
//  - a receiver blocked on one signal number while a peer floods it with
//    64 KiB signals of another: the receiver's growth, the sends accepted
//    and refused, and an unrelated pair's round trip before and during;
//  - a client that never reads its queue while it asks for hunts and
//    timeouts linxd answers at once: linxd's growth until it refuses.
#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "bench_util.h"

namespace {

constexpr int kFloodSeconds = 3;
constexpr uint32_t kPing = 0x70, kWanted = 0xA, kFlood = 0xB;

long RssKiB(pid_t Pid)
{
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    for (std::string Line; std::getline(Status, Line);)
        if (Line.rfind("VmRSS:", 0) == 0)
            return std::stol(Line.substr(6));
    return -1;
}

pid_t LinxdOf(const std::string &Instance)
{
    DIR *pProc = opendir("/proc");
    pid_t Found = -1;
    while (struct dirent *pEntry = pProc ? readdir(pProc) : nullptr) {
        std::ifstream File(std::string("/proc/") + pEntry->d_name + "/cmdline");
        const std::string Cmdline((std::istreambuf_iterator<char>(File)), std::istreambuf_iterator<char>());
        if (Cmdline.find("linxd") != std::string::npos && Cmdline.find(Instance) != std::string::npos)
            Found = atoi(pEntry->d_name);
    }
    if (pProc)
        closedir(pProc);
    return Found;
}

// A child that opens Name and runs Body on it; returns once it is open.
template <typename Body> pid_t Start(const char *pName, Body Run)
{
    int Ready[2];
    if (pipe(Ready) != 0)
        Fail("pipe");
    const pid_t Child = fork();
    if (Child == 0) {
        LINX *pLinx = linx_open(pName, 0, nullptr);
        (void)!write(Ready[1], "", 1);
        Run(pLinx);
        _exit(0);
    }
    char Byte;
    (void)!read(Ready[0], &Byte, 1);
    close(Ready[0]);
    close(Ready[1]);
    return Child;
}

void Stop(pid_t Child)
{
    kill(Child, SIGKILL);
    waitpid(Child, nullptr, 0);
}


void SelectiveReceiverFlood(LINX *pLinx)
{
    const pid_t Picky = Start("picky", [](LINX *p) {
        static const LINX_SIGSELECT kOnlyWanted[] = {1, kWanted};
        union LINX_SIGNAL *pSig = nullptr;
        linx_receive(p, &pSig, kOnlyWanted); // never sent
    });
    const pid_t Echo = Start("echo", [](LINX *p) {
        for (union LINX_SIGNAL *pSig = nullptr; linx_receive(p, &pSig, nullptr) > 0;)
            linx_send(p, &pSig, linx_sender(p, &pSig));
    });
    const LINX_SPID EchoSpid = Hunt(pLinx, "echo");
    const double Quiet = RoundTripMedianUs(pLinx, EchoSpid, 2000, 64, kPing);
    const long Before = RssKiB(Picky);
    int Pipe[2];
    if (pipe(Pipe) != 0)
        Fail("pipe");
    const pid_t Flooder = Start("flooder", [&](LINX *p) {
        const LINX_SPID Target = Hunt(p, "picky");
        long Counts[2] = {0, 0}; // accepted, refused
        for (const double End = NowUs() + kFloodSeconds * 1e6; NowUs() < End;) {
            union LINX_SIGNAL *pSig = linx_alloc(p, 65536, kFlood);
            memset((char *)pSig + 4, 0, 65536 - 4);
            Counts[linx_send(p, &pSig, Target) == 0 ? 0 : 1]++;
        }
        (void)!write(Pipe[1], Counts, sizeof Counts);
    });
    const double Flooded = RoundTripMedianUs(pLinx, EchoSpid, 2000, 64, kPing);
    long Counts[2];
    (void)!read(Pipe[0], Counts, sizeof Counts);
    printf("Receiver waiting for one number, flooded %d s with 64 KiB signals of another:\n", kFloodSeconds);
    printf("  sends accepted %ld, refused with ENOBUFS %ld; receiver grew by %ld KiB\n", Counts[0], Counts[1],
           RssKiB(Picky) - Before);
    printf("  round trip of an unrelated pair: %.1f us quiet, %.1f us during the flood (%.2fx)\n", Quiet, Flooded,
           Flooded / Quiet);
    for (pid_t Child : {Flooder, Picky, Echo})
        Stop(Child);
    close(Pipe[0]);
    close(Pipe[1]);
}

void NeverReadingClient(LINX *pLinx, const std::string &Instance)
{
    const pid_t Linxd = LinxdOf(Instance);
    const long Before = RssKiB(Linxd);
    long Granted = 0;
    const double Start = NowUs();
    while (NowUs() - Start < kFloodSeconds * 1e6 && linx_hunt(pLinx, "never-reads", nullptr) == 0 &&
           linx_request_tmo(pLinx, 0, nullptr) != 0)
        Granted += 2;
    const int Error = errno;
    printf("A client that never reads asks for hunts and timeouts answered at once:\n");
    printf("  %ld granted, then %s; linxd grew by %ld KiB\n", Granted,
           Error == ENOBUFS ? "refused with ENOBUFS" : strerror(Error), RssKiB(Linxd) - Before);
}

} // namespace

int main()
{
    const std::string Instance = "bench-floods-" + std::to_string(getpid());
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    LINX *pLinx = linx_open("never-reads", 0, nullptr);
    if (pLinx == nullptr)
        Fail("linx_open");
    SelectiveReceiverFlood(pLinx);
    NeverReadingClient(pLinx, Instance);
    linx_close(pLinx);
    return 0;
}
