/* SPDX-License-Identifier: Apache-2.0 */
/* Both public headers compile in strict C99, with no POSIX feature macro,
 * and link from a C program. */
#include <stdio.h>
#include <string.h>

#include "linx.h"
#include "orvane.h"

int main(void)
{
    MSG_Msg Msg;
    memset(&Msg, 0, sizeof Msg);
    MSG_SetExtraFlags(&Msg, 0x100);
    if (sizeof(MSG_Msg) != 56 || MSG_GetExtraFlags(&Msg) != 0x100)
        return 1;
    if (strcmp(MSG_DebugStrError(MSG_ERR_WRONG_PARAMETER), "wrong parameter") != 0)
        return 1;
    if (sizeof(struct linx_info_stat) != 120)
        return 1;
    puts("C interface OK");
    return 0;
}
