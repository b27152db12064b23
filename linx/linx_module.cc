// SPDX-License-Identifier: Apache-2.0
// The module seam: the kernel's LINX socket where it exists, the linxd
// stand-in everywhere else.  Chosen once per process.
#include "linx_module.h"

#include <errno.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "standin/standin.h"

namespace {

enum class Backend : int { Unknown, Kernel, Standin };

std::atomic<Backend> gBackend{Backend::Unknown};

Backend jBackend()
{
    Backend Chosen = gBackend.load(std::memory_order_acquire);
    if (Chosen != Backend::Unknown)
        return Chosen;
    const int Fd = socket(LINX_AF, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    Chosen = Fd < 0 && errno == EAFNOSUPPORT ? Backend::Standin : Backend::Kernel;
    if (Fd >= 0)
        close(Fd);
    gBackend.store(Chosen, std::memory_order_release);
    return Chosen;
}

} // namespace

int linx_module_open(void)
{
    if (jBackend() == Backend::Standin)
        return linx_standin_open();
    return socket(LINX_AF, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int linx_module_request(int fd, uint32_t request, void *record)
{
    if (jBackend() == Backend::Standin)
        return linx_standin_request(fd, request, record);
    return ioctl(fd, (unsigned long)request, record);
}

int linx_module_close(int fd)
{
    if (jBackend() == Backend::Standin)
        return linx_standin_close(fd);
    return close(fd);
}

void linx_module_watch(int fd)
{
    if (jBackend() == Backend::Standin)
        linx_standin_watch(fd);
}
