/* A plain C99 program that includes the public header and links -lozrdcm7. */
#include <stdio.h>
#include <string.h>

#include "ozrdc.h"

int main(void) {
    const OzrVersionInfo* v = ozrdcGetLibVersion();
    if (v == NULL || v != ozrdcGetLibVersion()) return 1;
    if (v->major != 2021 || strcmp(v->targetCpu, "m7") != 0) return 2;
    printf("%s %s\n", v->Name, v->Version);
    return 0;
}
