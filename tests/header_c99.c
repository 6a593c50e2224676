/* Builds against the public headers as strict C99 and makes one round trip. */
#include <stdio.h>
#include "tazapi.h"
#include "vkerror.h"

int main(void)
{
    TAZE *h = NULL;
    TAZE_StringList list = {0, NULL};
    if (TAZE_Init(&h) != 0 || h == NULL) return 1;
    if (TAZE_PatternGetStringList(h, 0, PT_TAZ, &list) != PARA_ERR) return 2;
    if (TAZE_Init(NULL) != PARA_ERR) return 3;
    TAZE_Fini(h);
    printf("ok\n");
    return 0;
}
