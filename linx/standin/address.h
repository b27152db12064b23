/* SPDX-License-Identifier: Apache-2.0 */
/*
 * address.h - where an instance of linxd listens.  Part of the wire
 * protocol: the client library and linxd both derive the address from the
 * instance name this way.
 */
#ifndef LINXD_ADDRESS_H
#define LINXD_ADDRESS_H

#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "protocol.h"

/* Instance names are 1 to 64 characters of [A-Za-z0-9._-]. */
static inline int linxd_instance_valid(const char *name)
{
    size_t len = strlen(name);
    if (len == 0 || len > LINXD_MAX_INSTANCE_CHARS)
        return 0;
    for (size_t i = 0; i < len; i++) {
        char c = name[i];
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-'))
            return 0;
    }
    return 1;
}

/* Fills addr with the abstract address "\0<service>/<uid>/<instance>" and
 * returns its length for bind/connect. */
static inline socklen_t linxd_service_address(const char *service, const char *instance, struct sockaddr_un *addr)
{
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    int len = snprintf(addr->sun_path + 1, sizeof addr->sun_path - 1, "%s/%u/%s", service,
                       (unsigned)geteuid(), instance);
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)len);
}

/* Where clients reach the instance. */
static inline socklen_t linxd_address(const char *instance, struct sockaddr_un *addr)
{
    return linxd_service_address("linxd", instance, addr);
}

/* Where other nodes of this host reach the instance over a Unix link. */
static inline socklen_t linxd_link_address(const char *instance, struct sockaddr_un *addr)
{
    return linxd_service_address("linxd-link", instance, addr);
}

#endif /* LINXD_ADDRESS_H */
