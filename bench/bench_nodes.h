/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the benchmarks that run linxd nodes of their own: starting a
// node (its standard error kept in a log), reaching one, a free TCP port,
// and what a process holds in memory.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench_util.h"
#include "linx.h"

// The linxd program beside the library the benchmark runs against.
inline std::string LinxdPath()
{
    Dl_info Info;
    dladdr((void *)&linx_open, &Info);
    const std::string Path = Info.dli_fname;
    return Path.substr(0, Path.rfind('/') + 1) + "linxd";
}

// Runs Args[0] with Args; its standard error goes to LogPath (appended),
// or nowhere when LogPath is empty.
inline pid_t Spawn(const std::vector<std::string> &Args, const std::string &LogPath = "")
{
    const pid_t Child = fork();
    if (Child == 0) {
        std::vector<char *> Raw;
        for (const std::string &Arg : Args)
            Raw.push_back((char *)Arg.c_str());
        Raw.push_back(nullptr);
        const int Log = LogPath.empty() ? open("/dev/null", O_WRONLY)
                                        : open(LogPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(Log, 2);
        execv(Raw[0], Raw.data());
        _exit(127);
    }
    return Child;
}

inline uint16_t FreePort()
{
    const int Fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in Addr = {};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t Len = sizeof Addr;
    if (bind(Fd, (struct sockaddr *)&Addr, sizeof Addr) != 0 || getsockname(Fd, (struct sockaddr *)&Addr, &Len) != 0)
        Fail("port");
    close(Fd);
    return ntohs(Addr.sin_port);
}

inline LINX *OpenOn(const std::string &Instance, const char *pName)
{
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    return linx_open(pName, 0, nullptr);
}

inline std::string ReadWhole(const std::string &Path)
{
    std::ifstream File(Path);
    return std::string((std::istreambuf_iterator<char>(File)), std::istreambuf_iterator<char>());
}

// Resident memory of a process in KiB (VmRSS), -1 when it cannot be read.
inline long RssKiB(pid_t Pid)
{
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    for (std::string Line; std::getline(Status, Line);)
        if (Line.rfind("VmRSS:", 0) == 0)
            return std::stol(Line.substr(6));
    return -1;
}

// A linxd node run in the foreground for one benchmark.
struct BenchNode {
    std::string Instance;
    std::string Log;
    pid_t Pid = -1;
};

// Starts a node with Args (beyond its instance) and waits until its log
// says it serves.
inline BenchNode StartNode(const std::string &Instance, const std::vector<std::string> &Args)
{
    BenchNode N;
    N.Instance = Instance;
    N.Log = "/tmp/" + Instance + ".log";
    unlink(N.Log.c_str());
    std::vector<std::string> All = {LinxdPath(), "--foreground", "--idle-exit", "0", "--config", "/dev/null",
                                    "--instance", Instance};
    All.insert(All.end(), Args.begin(), Args.end());
    N.Pid = Spawn(All, N.Log);
    for (int i = 0; i < 500 && ReadWhole(N.Log).find("serving instance") == std::string::npos; i++)
        usleep(10000);
    return N;
}

// Waits up to 10 s for Text in the node's log.
inline bool AwaitLine(const BenchNode &N, const std::string &Text)
{
    for (int i = 0; i < 1000; i++) {
        if (ReadWhole(N.Log).find(Text) != std::string::npos)
            return true;
        usleep(10000);
    }
    return false;
}

inline void StopNode(BenchNode &N)
{
    if (N.Pid > 0) {
        kill(N.Pid, SIGKILL);
        waitpid(N.Pid, nullptr, 0);
    }
    N.Pid = -1;
}
