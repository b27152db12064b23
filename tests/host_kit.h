/* SPDX-License-Identifier: Apache-2.0 */
// What the tests and the benchmarks both ask of the host, written once:
// the linxd program beside the library, a program started with its output
// in files, a pipe between a process and its children, a free TCP port on
// loopback, a process's resident memory and CPU time, a file's text, and
// a process that writes its bells in a loop.
// Header-only, so that the benchmarks (built without the tests) include it
// as they are.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "linx.h"

// The linxd program beside the library this process runs against.
inline std::string LinxdBesideLibrary()
{
    Dl_info Info;
    dladdr((void *)&linx_open, &Info);
    const std::string Path = Info.dli_fname;
    return Path.substr(0, Path.rfind('/') + 1) + "linxd";
}

// A pipe between a process and its children, closed with it: one side
// says something (a byte, or a value), the other hears it.
struct Pipe {
    explicit Pipe(int Flags = 0)
    {
        if (pipe2(Fd, Flags | O_CLOEXEC) != 0)
            Fd[0] = Fd[1] = -1;
    }
    Pipe(const Pipe &) = delete;
    ~Pipe()
    {
        close(Fd[0]);
        close(Fd[1]);
    }
    template <typename T = char> bool Say(const T &Value = T()) const
    {
        return write(Fd[1], &Value, sizeof Value) == (ssize_t)sizeof Value;
    }
    template <typename T = char> bool Hear(T *pValue = nullptr) const
    {
        T Value;
        return read(Fd[0], pValue ? pValue : &Value, sizeof Value) == (ssize_t)sizeof Value;
    }
    int Fd[2];
};

// A TCP port on loopback nobody listens on right now; 0 when none was found.
inline uint16_t FreePort()
{
    const int Fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in Addr = {};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t Len = sizeof Addr;
    const bool bFound = Fd >= 0 && bind(Fd, (struct sockaddr *)&Addr, sizeof Addr) == 0 &&
                        getsockname(Fd, (struct sockaddr *)&Addr, &Len) == 0;
    if (Fd >= 0)
        close(Fd);
    return bFound ? ntohs(Addr.sin_port) : 0;
}

// Resident memory of a process in KiB (VmRSS), -1 when it cannot be read.
inline long RssKiB(pid_t Pid)
{
    std::ifstream Status("/proc/" + std::to_string(Pid) + "/status");
    std::string Word;
    while (Status >> Word)
        if (Word == "VmRSS:" && Status >> Word)
            return std::stol(Word);
    return -1;
}

// User and system CPU time a process has used, in clock ticks (0 when it
// cannot be read).
inline long CpuTicks(pid_t Pid)
{
    std::ifstream Stat("/proc/" + std::to_string(Pid) + "/stat");
    std::string Field;
    long Ticks = 0;
    for (int i = 1; i <= 15 && Stat >> Field; i++)
        if (i >= 14)
            Ticks += std::stol(Field);
    return Ticks;
}

// Writes every eventfd this process holds (the bells of its sockets and of
// those it sends to), in a loop, until it is killed: a process that
// misbehaves so.
[[noreturn]] inline void RingEveryBell()
{
    std::vector<int> Bells;
    for (int Fd = 3; Fd < 1024; Fd++) {
        char Path[64], Target[64] = {};
        snprintf(Path, sizeof Path, "/proc/self/fd/%d", Fd);
        if (readlink(Path, Target, sizeof Target - 1) > 0 && strstr(Target, "eventfd") != nullptr)
            Bells.push_back(Fd);
    }
    for (const uint64_t One = 1;;)
        for (const int Bell : Bells)
            (void)!write(Bell, &One, sizeof One);
}

// What a file holds, as far as it can be read ("" when it cannot be
// opened).  Plain reads, not a stream's: a /proc file of a process that
// exits meanwhile fails with ESRCH, which a stream buffer throws.
inline std::string ReadFile(const std::string &Path)
{
    std::string Text;
    const int Fd = open(Path.c_str(), O_RDONLY | O_CLOEXEC);
    char Buffer[4096];
    for (ssize_t Got; Fd >= 0 && (Got = read(Fd, Buffer, sizeof Buffer)) > 0;)
        Text.append(Buffer, (size_t)Got);
    if (Fd >= 0)
        close(Fd);
    return Text;
}

// Runs Args[0] with Args.  Its standard output goes to OutPath and its
// standard error to ErrPath (each appended to; "" for /dev/null, and the
// error goes with the output when both name one file).
inline pid_t Spawn(const std::vector<std::string> &Args, const std::string &OutPath, const std::string &ErrPath)
{
    const pid_t Child = fork();
    if (Child != 0)
        return Child;
    std::vector<char *> Raw;
    for (const std::string &Arg : Args)
        Raw.push_back((char *)Arg.c_str());
    Raw.push_back(nullptr);
    const std::string Paths[2] = {OutPath, ErrPath};
    for (int Fd = 1; Fd <= 2; Fd++) {
        const std::string &Path = Paths[Fd - 1].empty() ? "/dev/null" : Paths[Fd - 1];
        const int Opened = Fd == 2 && ErrPath == OutPath ? dup(1) : open(Path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(Opened, Fd);
    }
    execv(Raw[0], Raw.data());
    _exit(127);
}

// Whether the file at Path holds Text at least Times times within TimeoutMs.
inline bool AwaitText(const std::string &Path, const std::string &Text, int TimeoutMs = 10000, int Times = 1)
{
    for (int Waited = 0;; Waited += 10) {
        const std::string Now = ReadFile(Path);
        int Seen = 0;
        for (size_t At = Now.find(Text); At != std::string::npos && Seen < Times; At = Now.find(Text, At + 1))
            Seen++;
        if (Seen >= Times)
            return true;
        if (Waited >= TimeoutMs)
            return false;
        usleep(10000);
    }
}
