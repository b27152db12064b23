/* SPDX-License-Identifier: Apache-2.0 */
/* The stop flag and its wake-up pipe (see stop_signals.h): the handler
 * only stores the flag and writes one byte, both async-signal-safe. */
#define _POSIX_C_SOURCE 200809L
#include "stop_signals.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

static int gWakePipe[2] = {-1, -1};
static volatile sig_atomic_t gbStop = 0;

static void on_stop_signal(int Signal)
{
    (void)Signal;
    const int Saved = errno;
    gbStop = 1;
    if (write(gWakePipe[1], "", 1) < 0) {
        /* the pipe is full: a wake-up is pending already */
    }
    errno = Saved;
}

int stop_signals_install(void)
{
    if (gWakePipe[0] < 0 && pipe(gWakePipe) != 0)
        return -1;
    fcntl(gWakePipe[0], F_SETFD, FD_CLOEXEC);
    fcntl(gWakePipe[1], F_SETFD, FD_CLOEXEC);
    fcntl(gWakePipe[1], F_SETFL, O_NONBLOCK);
    struct sigaction Action;
    memset(&Action, 0, sizeof Action);
    Action.sa_handler = on_stop_signal;
    sigemptyset(&Action.sa_mask);
    if (sigaction(SIGINT, &Action, NULL) != 0 || sigaction(SIGTERM, &Action, NULL) != 0)
        return -1;
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

int stop_requested(void)
{
    return gbStop;
}

int stop_wake_fd(void)
{
    return gWakePipe[0];
}
