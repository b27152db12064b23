/* SPDX-License-Identifier: Apache-2.0 */
/*
 * msg_config.h - remote endpoint names to LINX paths, from the device's
 * configuration file /system/etc/orvane.pb (one OrvaneCfg message), or
 * the file a process chose with MSG_SetConfigFile before its first lookup.
 *
 * The file is read once per process, at the first lookup, under a
 * pthread_once guard so that threads making their first lookup together
 * never see a half-filled configuration.  After that the configuration is
 * only read, without a lock.
 */
#ifndef MSG_CONFIG_H
#define MSG_CONFIG_H

#include "orvane.h"

class OrvaneCfg;

// Reads and parses Path into Cfg, whatever was loaded before: 0, 201, 203.
extern "C" MSG_API MSG_Status MSG_LoadConfigUnconditionally(const char *pPath, OrvaneCfg *pCfg);

#endif /* MSG_CONFIG_H */
