// The semaphore front: picks the implementation at creation and routes
// every later call by the record's type word.
#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/mem.h"
#include "kavro_rt/sem.h"
#include "sync/sem.hpp"

using namespace kavro::detail;

extern "C" {
KAVRO_API uint32_t sem_created = 0;
KAVRO_API uint32_t sem_freed = 0;
KAVRO_API int32_t LIN_Sem_Type = 0;
}

namespace {

int32_t cRefs = 0;

inline bool is_sysv(SEM_HANDLE h) {
    return static_cast<const kavro::sem::SemHeader *>(h)->type == kavro::sem::kTypeSysV;
}

KAVRO_SAMPLER void sample_sem(const void *h, const uint32_t *, kavro::pub::Row &row) {
    using namespace kavro::sem;
    int32_t count = 0;
    SEM_GetCount(const_cast<void *>(h), &count);
    row.v[1] = count;
    if (static_cast<const SemHeader *>(h)->type == kTypeSysV) {
        row.v[0] = 2;
        row.v[2] = semctl(static_cast<const SysVSemaphore *>(h)->semId, 0, GETNCNT);
    } else if (static_cast<const LocalSemaphore *>(h)->variant == kCounterKind) {
        row.v[1] = count < 0 ? 0 : count;  // negative: minus the waiters
        row.v[2] = count < 0 ? -count : 0;
    } else {
        row.v[0] = 1;
        row.v[2] = -1;
    }
}

KAVRO_STATUS published(KAVRO_STATUS st, SEM_HANDLE *handle) {
    if (st == kOk && handle != nullptr) kavro::pub::add(kavro::pub::Semaphore, *handle, nullptr, sample_sem);
    return st;
}

}  // namespace

extern "C" {

KAVRO_API int32_t SEM_Init(void) {
    if (cRefs == 0) {
        const int32_t r = MEM_Init();
        if (r != 0) return r;
    }
    ++cRefs;
    return 0;
}

KAVRO_API int32_t SEM_Exit(void) {
    if (--cRefs == 0) MEM_Exit();
    return 0;
}

KAVRO_API KAVRO_STATUS SEM_Create(SEM_HANDLE *handle, int32_t initialCount, uint32_t key, uint32_t systemWide) {
    kavro::detail::count_up(sem_created);
    if (key != 0 || systemWide != 0) return published(IPC_SEM_Create(handle, initialCount, key), handle);
    return published(PTHR_SEM_Create(handle, initialCount), handle);
}

KAVRO_API KAVRO_STATUS SEM_Create_2(SEM_HANDLE *handle, uint32_t initialValue) {
    kavro::detail::count_up(sem_created);
    return published(PTHR_SEM_Create_2(handle, initialValue), handle);
}

KAVRO_API KAVRO_STATUS SEM_Delete(SEM_HANDLE handle) {
    if (handle == nullptr) return kOk;
    kavro::detail::count_up(sem_freed);
    kavro::pub::remove(handle);
    return is_sysv(handle) ? IPC_SEM_Delete(handle) : PTHR_SEM_Delete(handle);
}

KAVRO_API KAVRO_STATUS SEM_Pend(SEM_HANDLE handle, uint32_t timeoutMs) {
    if (handle == nullptr) return kFail;
    return is_sysv(handle) ? IPC_SEM_Pend(handle) : PTHR_SEM_Pend(handle, timeoutMs);
}

KAVRO_API KAVRO_STATUS SEM_TryPend(SEM_HANDLE handle) {
    if (handle == nullptr) return kFail;
    return is_sysv(handle) ? IPC_SEM_TryPend(handle) : PTHR_SEM_TryPend(handle);
}

KAVRO_API KAVRO_STATUS SEM_Post(SEM_HANDLE handle) {
    if (handle == nullptr) return kFail;
    return is_sysv(handle) ? IPC_SEM_Post(handle) : PTHR_SEM_Post(handle);
}

KAVRO_API KAVRO_STATUS SEM_Reset(SEM_HANDLE handle, int32_t count) {
    if (handle == nullptr) return kFail;
    return is_sysv(handle) ? IPC_SEM_Reset(handle, count) : PTHR_SEM_Reset(handle, count);
}

KAVRO_API KAVRO_STATUS SEM_GetCount(SEM_HANDLE handle, int32_t *count) {
    if (handle == nullptr) return kFail;
    return is_sysv(handle) ? IPC_SEM_GetCount(handle, count) : PTHR_SEM_GetCount(handle, count);
}

KAVRO_API KAVRO_STATUS SEM_GetSystemHandle(SEM_HANDLE handle) {
    if (handle == nullptr) return kFail;
    return is_sysv(handle) ? IPC_SEM_GetSystemHandle(handle) : PTHR_SEM_GetSystemHandle(handle);
}

}  // extern "C"
