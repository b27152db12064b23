/* SPDX-License-Identifier: Apache-2.0 */
// What the tests and the benchmarks both ask of the host, written once:
// the linxd program beside the library, a free TCP port on loopback, a
// process's resident memory and a file's text.  Header-only, so that the
// benchmarks (built without the tests) include it as they are.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "linx.h"

// The linxd program beside the library this process runs against.
inline std::string LinxdBesideLibrary()
{
    Dl_info Info;
    dladdr((void *)&linx_open, &Info);
    const std::string Path = Info.dli_fname;
    return Path.substr(0, Path.rfind('/') + 1) + "linxd";
}

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

// The whole of a file ("" when it cannot be read).
inline std::string ReadFile(const std::string &Path)
{
    std::ifstream In(Path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(In)), std::istreambuf_iterator<char>());
}
