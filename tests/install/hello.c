/* SPDX-License-Identifier: Apache-2.0 */
/* A program built out of the tree against an installed liborvane: one
 * message to itself through the installed library and the linxd it finds. */
#include <stdio.h>
#include <string.h>

#include <linx.h>
#include <orvane.h>

int main(void)
{
    uint32_t Self = 0;
    if (MSG_OpenLocal("hello") != MSG_OK || MSG_OpenRemoteSync("hello", "hello", 5000, &Self) != MSG_OK)
        return 1;
    MSG_Msg *pMsg = MSG_AllocMsg(0x100, 1, 6);
    memcpy(MSG_GetPayloadMutable(pMsg), "hello", 6);
    if (MSG_SendMsg("hello", Self, pMsg) != MSG_OK)
        return 2;
    MSG_Msg *pGot = MSG_RecvAnyMsg("hello", 5000);
    if (pGot == NULL || strcmp(MSG_GetPayload(pGot), "hello") != 0)
        return 3;
    char Version[32];
    linx_get_version(Version);
    printf("hello: a round trip through liborvane, LINX %s\n", Version);
    MSG_ReleaseMsg(pGot);
    MSG_CloseLocal("hello");
    return 0;
}
