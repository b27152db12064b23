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
    N.Pid = Spawn(All, "", N.Log);
    AwaitText(N.Log, "serving instance", 5000);
    return N;
}

inline void StopNode(BenchNode &N)
{
    if (N.Pid > 0) {
        kill(N.Pid, SIGKILL);
        waitpid(N.Pid, nullptr, 0);
    }
    N.Pid = -1;
}
