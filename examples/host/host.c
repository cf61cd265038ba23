/* A minimal host program: links the installed library and uses it. */
#include <stdio.h>

#include <kavro_rt/kavro_rt.h>

#if KAVRO_RT_VERSION_NUMBER < 10000
#error "libkavro_rt 1.0.0 or later is needed"
#endif

int main(void) {
    void *obj;
    if (MEM_Init() != 0) return 1;
    obj = KAVRO_OBJ_Alloc(16, KAVRO_TAG_SHM, 0);
    if (obj == NULL || *(uint32_t *)obj != KAVRO_TAG_SHM) return 1;
    KAVRO_OBJ_Free(obj, 0);
    MEM_Exit();
    printf("host: ok %s (%s)\n", KAVRO_RT_VERSION_STRING, KAVRO_StatusText(KAVRO_E_TIMEOUT));
    return 0;
}
