// The semaphore front.
#include "internal.hpp"
#include "kavro_rt/mem.h"
#include "kavro_rt/sem.h"

namespace {
int32_t cRefs = 0;
}

extern "C" {

KAVRO_API int32_t SEM_Init(void) {
    if (cRefs == 0 && MEM_Init() != 0) return 0;
    ++cRefs;
    return 0;
}

KAVRO_API int32_t SEM_Exit(void) {
    if (--cRefs == 0) MEM_Exit();
    return 0;
}

}  // extern "C"
