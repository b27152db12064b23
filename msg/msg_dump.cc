// SPDX-License-Identifier: Apache-2.0
// The dump: every local endpoint, newest first, with its callbacks,
// notification subscribers and remote endpoints, between a begin and an
// end line at level 6.
#include "msg_dump.h"

#include "msg_main.h"

namespace {

void jDumpEndpoint(LocalEndpoint *p, void *pMine)
{
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "LocalEndpoint={\"%s\", Linx handle %p, SPID 0x%x}%s\n", p->Name,
               (void *)p->pLinx, p->Spid, p == pMine ? " ***" : "");
    jDumpCallbacks(p);
    jDumpNotifications(p);
    jDumpRemotes(p);
}

} // namespace

MSG_Status MSG_DebugDumpLocalEndpoint(void)
{
    LocalEndpoint *const pMine = MSG_GetMyEndpoint();
    MSG_GetProcessInfo(nullptr, nullptr, nullptr); // loaded before any lock is held
    jVisitEndpoints(jDumpEndpoint, pMine);
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "pMyEndpoint=%p\n", (void *)pMine);
    return MSG_OK;
}

MSG_Status MSG_DebugDumpAll(void)
{
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "-------- MSG_DebugDumpAll begin --------\n");
    MSG_DebugDumpLocalEndpoint();
    MSG_LOG_OS(LOG_INFO, MSG_LOG_PREFIX "-------- MSG_DebugDumpAll end --------\n");
    return MSG_OK;
}
