// The counted heap: the C heap plus a few unlocked counters.
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>

#include "frame/internal.hpp"
#include "kavro_rt/mem.h"

using kavro::detail::count_up;
using kavro::detail::diag;

namespace {
int32_t cRefs = 0;
uint32_t memcnt = 0;           // bytes ever requested
uint32_t memfreecalls = 0;     // MEM_Free calls, MEM_Free2 included
uint32_t memgenfreecalls = 0;  // MEM_Free2 calls

void count_alloc(uint32_t size, uint32_t marker) {
    count_up(memcnt, size);
    count_up(memalloccalls);
    if (marker == kavro::detail::kGenericMarker) count_up(memgenalloccalls);
}
}  // namespace

extern "C" {

KAVRO_API uint32_t memalloccalls = 0;
KAVRO_API uint32_t memgenalloccalls = 0;
KAVRO_API uint8_t memmutex[64] = {};

KAVRO_API int32_t MEM_Init(void) {
    ++cRefs;
    return 0;
}

KAVRO_API void MEM_Exit(void) { --cRefs; }

KAVRO_API void *MEM_Alloc(uint32_t size, uint32_t marker) {
    if (size == 0) return nullptr;
    count_alloc(size, marker);
    return std::malloc(size);
}

KAVRO_API void *MEM_Calloc(uint32_t size, uint32_t marker) {
    if (size == 0) return nullptr;
    count_alloc(size, marker);
    return std::calloc(1, size);
}

KAVRO_API void MEM_Free(void *ptr) {
    count_up(memfreecalls);
    std::free(ptr);
}

KAVRO_API void MEM_Free2(void *ptr) {
    count_up(memgenfreecalls);
    MEM_Free(ptr);
}

KAVRO_API KAVRO_STATUS MEM_LockAll(void) {
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        diag("MEM_LockAll", "mlockall errno is set to %x \n", errno);
        return kavro::detail::kFail;
    }
    return 0;
}

KAVRO_API KAVRO_STATUS MEM_UnLockAll(void) {
    if (munlockall() != 0) {
        diag("MEM_UnLockAll", "mlockall errno is set to %x \n", errno);
        return kavro::detail::kFail;
    }
    return 0;
}

KAVRO_API KAVRO_STATUS MEM_Statistics(void) { return 0; }

}  // extern "C"

namespace kavro::detail {
MemCounters mem_counters() { return {memcnt, memfreecalls, memgenfreecalls}; }
}  // namespace kavro::detail
