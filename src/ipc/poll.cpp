// The polling family: present in the interface, backed by nothing.
#include "kavro_rt/poll.h"

extern "C" {

KAVRO_API int32_t POLL_Init(void) { return 0; }
KAVRO_API int32_t POLL_Open(uintptr_t, ...) { return 0; }
KAVRO_API int32_t POLL_Ctl(uintptr_t, ...) { return 0; }
KAVRO_API int32_t POLL_Wait(uintptr_t, ...) { return 0; }
KAVRO_API int32_t POLL_Exit(void) { return 0; }

}  // extern "C"
