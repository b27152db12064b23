/* SPDX-License-Identifier: Apache-2.0 */
// Helpers of the benchmarks that run linxd nodes of their own: starting a
// node (its standard error kept in a log), reaching one, a free TCP port,
// and what a process holds in memory.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_util.h"
#include "host_kit.h"
#include "linx.h"

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

inline LINX *OpenOn(const std::string &Instance, const char *pName)
{
    setenv("LINXD_INSTANCE", Instance.c_str(), 1);
    return linx_open(pName, 0, nullptr);
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
    std::vector<std::string> All = {LinxdBesideLibrary(), "--foreground", "--idle-exit", "0", "--config", "/dev/null",
                                    "--instance", Instance};
    All.insert(All.end(), Args.begin(), Args.end());
    N.Pid = Spawn(All, N.Log);
    for (int i = 0; i < 500 && ReadFile(N.Log).find("serving instance") == std::string::npos; i++)
        usleep(10000);
    return N;
}

// Waits up to 10 s for Text in the node's log.
inline bool AwaitLine(const BenchNode &N, const std::string &Text)
{
    for (int i = 0; i < 1000; i++) {
        if (ReadFile(N.Log).find(Text) != std::string::npos)
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
