// SPDX-License-Identifier: Apache-2.0
// Which LINX the command talks to, and what to say when it cannot.  On a
// host without the LINX kernel module that is a linxd instance, named by
// LINXD_INSTANCE; the library starts one on demand, which the read-only
// verbs must not do for an instance that is not running (a typo in the
// name would show an empty table).  An instance listens on the abstract
// Unix address "@linxd/UID/NAME", which /proc/net/unix lists.
#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "cli.h"

namespace cli {
namespace {

constexpr int kLinxFamily = 29; // the LINX kernel module's address family

std::string jInstanceName()
{
    const char *pName = getenv("LINXD_INSTANCE");
    return pName != nullptr && *pName != '\0' ? pName : "default";
}

bool jValidName(const std::string &Name)
{
    if (Name.empty() || Name.size() > 64)
        return false;
    for (const char c : Name)
        if (!isalnum((unsigned char)c) && c != '.' && c != '_' && c != '-')
            return false;
    return true;
}

bool jKernelLinx()
{
    const int Fd = socket(kLinxFamily, SOCK_DGRAM, 0);
    if (Fd >= 0)
        close(Fd);
    return Fd >= 0 || errno != EAFNOSUPPORT;
}

bool jInstanceListening(const std::string &Name)
{
    const std::string Address = "@linxd/" + std::to_string(geteuid()) + "/" + Name;
    std::ifstream Sockets("/proc/net/unix");
    std::string Line;
    while (std::getline(Sockets, Line))
        if (Line.size() >= Address.size() && Line.compare(Line.size() - Address.size(), Address.size(), Address) == 0)
            return true;
    return false;
}

void jRefuseBadName()
{
    const std::string Name = jInstanceName();
    if (!jValidName(Name))
        throw Failure("LINXD_INSTANCE=\"" + Name + "\" is not an instance name: 1 to 64 of A-Z a-z 0-9 . _ -");
}

} // namespace

void RequireRunningInstance()
{
    if (jKernelLinx())
        return;
    jRefuseBadName();
    const std::string Name = jInstanceName();
    if (!jInstanceListening(Name))
        throw Failure("no linxd instance \"" + Name + "\" is running for this user (LINXD_INSTANCE names it; "
                      "a program that opens an endpoint starts it)");
}

std::string WhyLinxFailed(int Error)
{
    jRefuseBadName();
    std::string Why = Error != 0 ? strerror(Error) : "--debug shows the library's lines";
    if (Error == EHOSTUNREACH || Error == ENOENT)
        Why += " (without the LINX kernel module, linxd must be installed beside liborvane or on PATH)";
    return Why + " [linxd instance \"" + jInstanceName() + "\"]";
}

} // namespace cli
