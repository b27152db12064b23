// SPDX-License-Identifier: Apache-2.0
// Endpoint configuration: the full LINX path of a remote endpoint's name.
#include "msg_config.h"

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <errno.h>

#include "msg_config.pb.h"
#include "msg_main.h"

namespace {

// The device's file, unless MSG_SetConfigFile chose another before the
// one-time load.  gChooseMutex orders a choice against the load's start;
// after the start the path is only read.
char gConfigPath[PATH_MAX] = "/system/etc/orvane.pb";
bool gbPathChosen = false, gbLoadStarted = false;
MSG_Status gLoadStatus = MSG_OK;
pthread_mutex_t gChooseMutex = PTHREAD_MUTEX_INITIALIZER;

OrvaneCfg gConfig;
pthread_once_t gConfigOnce = PTHREAD_ONCE_INIT;

void jLoadConfig()
{
    pthread_mutex_lock(&gChooseMutex);
    gbLoadStarted = true;
    pthread_mutex_unlock(&gChooseMutex);
    gLoadStatus = MSG_LoadConfigUnconditionally(gConfigPath, &gConfig);
}

// Takes pPath as the file of the one-time load, unless a path was chosen
// or the load has started.
bool jChoosePath(const char *pPath)
{
    pthread_mutex_lock(&gChooseMutex);
    const bool bFree = !gbPathChosen && !gbLoadStarted;
    if (bFree) {
        snprintf(gConfigPath, sizeof gConfigPath, "%s", pPath);
        gbPathChosen = true;
    }
    pthread_mutex_unlock(&gChooseMutex);
    return bFree;
}

// Reads the whole file into a buffer and parses it; the file is open.
MSG_Status jReadAndParse(int Fd, const char *pPath, uint64_t Size, OrvaneCfg *pCfg)
{
    if (Size > INT32_MAX)
        return MSG_ERR_MEMORY;
    char *pBuffer = (char *)MSG_Malloc((uint32_t)(Size > 0 ? Size : 1));
    if (pBuffer == nullptr)
        return MSG_ERR_MEMORY;
    MSG_Status Status = MSG_OK;
    const ssize_t Got = read(Fd, pBuffer, (size_t)Size);
    if (Got < 0 || (uint64_t)Got != Size) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: read(), file \"%s\", size %u\n", pPath,
                   (unsigned)Size);
        Status = MSG_ERR_SYSTEM;
    } else if (!pCfg->ParseFromArray(pBuffer, (int)Got)) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: ParseFromArray, buf addr %p, size %u\n",
                   (void *)pBuffer, (unsigned)Size);
        Status = MSG_ERR_SYSTEM;
    }
    MSG_Free(pBuffer);
    return Status;
}

} // namespace

MSG_Status MSG_LoadConfigUnconditionally(const char *pPath, OrvaneCfg *pCfg)
{
    MSG_Status Status = MSG_ERR_SYSTEM;
    struct stat Info;
    int Fd = -1;
    if (stat(pPath, &Info) != 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: stat(\"%s\") errno=%d\n", pPath, errno);
    } else if ((Fd = open(pPath, O_RDONLY | O_CLOEXEC)) < 0) {
        MSG_LOG_OS(LOG_ERR, MSG_LOG_PREFIX "$file:$line: system function error: open(\"%s\") errno=%d\n", pPath, errno);
    } else {
        Status = jReadAndParse(Fd, pPath, (uint64_t)Info.st_size, pCfg);
        close(Fd);
    }
    MSG_LOG_OUTCOME(Status, MSG_LOG_PREFIX "$func: $err: file %s, cfg addr %p\n", Status, pPath, (void *)pCfg);
    return Status;
}

MSG_Status MSG_GetFullEndpointPath(const char *pName, char *pOut, uint32_t OutSize)
{
    pthread_once(&gConfigOnce, jLoadConfig);
    const size_t NameLen = strlen(pName);
    for (const Endpoint &Entry : gConfig.endpoint()) {
        if (Entry.name().size() != NameLen || memcmp(Entry.name().data(), pName, NameLen) != 0)
            continue;
        if (!Entry.has_link())
            break;
        snprintf(pOut, OutSize, "%s/%s", Entry.link().c_str(), pName);
        MSG_LOG_OUTCOME(MSG_OK, MSG_LOG_PREFIX "$func: $err: subst remote ep \"%s\"\n", 0, pOut);
        return MSG_OK;
    }
    snprintf(pOut, OutSize, "%s", pName);
    return MSG_OK;
}

MSG_Status MSG_SetConfigFile(const char *pPath)
{
    if (pPath == nullptr || pPath[0] == '\0' || strlen(pPath) >= PATH_MAX) {
        MSG_LOG_OUTCOME(MSG_ERR_WRONG_PARAMETER, MSG_LOG_PREFIX "$func: $err: no configuration file named\n",
                        MSG_ERR_WRONG_PARAMETER);
        return MSG_ERR_WRONG_PARAMETER;
    }
    if (!jChoosePath(pPath)) {
        MSG_LOG_OUTCOME(MSG_ERR_WRONG_PARAMETER,
                        MSG_LOG_PREFIX "$func: $err: file %s refused: the configuration was loaded from %s already\n",
                        MSG_ERR_WRONG_PARAMETER, pPath, gConfigPath);
        return MSG_ERR_WRONG_PARAMETER;
    }
    pthread_once(&gConfigOnce, jLoadConfig);
    return gLoadStatus;
}
