/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_dump.h - the dump of every local endpoint with its lists, the top of
 * the message layer: it reaches down into the registry (a visit behind its
 * close gate) and into each module that owns a list, and nothing below
 * calls it.
 *
 * Each module writes the lines of its own list, heading included, under
 * that list's mutex, one list at a time: the dump never holds two of them.
 */
#ifndef MSG_DUMP_H
#define MSG_DUMP_H

#include "msg_local_endpoint.h"

void jDumpCallbacks(LocalEndpoint *pEndpoint);     // msg_callback.cc
void jDumpNotifications(LocalEndpoint *pEndpoint); // msg_notification.cc
void jDumpRemotes(LocalEndpoint *pEndpoint);       // msg_remote_endpoint.cc

#endif /* MSG_DUMP_H */
