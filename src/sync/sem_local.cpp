// Process-local semaphores: the counter kind (mutex, condition, signed
// count, timed pends) and the POSIX kind (an unnamed POSIX semaphore).
#include <cerrno>

#include "frame/internal.hpp"
#include "kavro_rt/mem.h"
#include "kavro_rt/sem.h"
#include "sync/sem.hpp"

using namespace kavro::detail;
using kavro::sem::LocalSemaphore;

extern "C" {
KAVRO_API uint32_t pthr_sem_created = 0;
KAVRO_API uint32_t pthr_sem_freed = 0;
}

namespace {

constexpr int kMaxInterruptedWaits = 1000;

// The tag is shared with System V semaphores and message queues: the type
// and variant words tell a process-local record (read only once the tag and
// the type say the record is long enough to hold them).
LocalSemaphore *local(SEM_HANDLE h) {
    if (!has_tag(h, KAVRO_TAG_SEM)) return nullptr;
    auto *s = static_cast<LocalSemaphore *>(h);
    if (s->type != kavro::sem::kTypeLocal) return nullptr;
    return s->variant == kavro::sem::kCounterKind || s->variant == kavro::sem::kPosixKind ? s : nullptr;
}

// GetCount reads `count` without the mutex, so every access to it is a
// relaxed atomic: plain moves on this hardware, and well defined.
inline int32_t load_count(const LocalSemaphore *s) { return __atomic_load_n(&s->count, __ATOMIC_RELAXED); }
inline void store_count(LocalSemaphore *s, int32_t v) { __atomic_store_n(&s->count, v, __ATOMIC_RELAXED); }

LocalSemaphore *alloc_record() {
    return static_cast<LocalSemaphore *>(KAVRO_OBJ_Alloc(sizeof(LocalSemaphore), KAVRO_TAG_SEM, 0));
}

// Called with the mutex held after the caller has claimed a unit (count
// already decremented below 0). Returns with the mutex held.
KAVRO_STATUS wait_for_unit(LocalSemaphore *s, uint32_t timeoutMs) {
    const bool timed = timeoutMs != kWaitForever;
    timespec deadline{};
    if (timed) deadline = wall_deadline(timeoutMs);
    ++s->waiters;
    int r = 0;
    for (;;) {
        if (s->handoffs > 0) {  // a post or reset handed a unit over: ours
            --s->handoffs;
            --s->waiters;
            return kOk;
        }
        if (r != 0 && r != EINTR) break;
        r = timed ? pthread_cond_timedwait(&s->cond, &s->mutex, &deadline)
                  : pthread_cond_wait(&s->cond, &s->mutex);
    }
    // No unit came: give the claim back so that the count keeps meaning
    // "minus the number of waiters".
    --s->waiters;
    store_count(s, load_count(s) + 1);
    return r == ETIMEDOUT ? kTimeout : kFail;
}

KAVRO_STATUS posix_pend(LocalSemaphore *s) {
    for (int calls = 1;; ++calls) {
        if (sem_wait(&s->posixSem) == 0) return kOk;
        if (errno != EINTR || calls == kMaxInterruptedWaits) return kFail;
    }
}

KAVRO_STATUS posix_reset(LocalSemaphore *s, int32_t count) {
    int value = 0;
    if (count < 0) count = 0;
    sem_getvalue(&s->posixSem, &value);
    for (; value > count; --value)
        if (sem_trywait(&s->posixSem) != 0) break;  // a pend took it first
    for (; value < count; ++value)
        if (sem_post(&s->posixSem) != 0) break;
    return kOk;
}

}  // namespace

extern "C" {

KAVRO_API KAVRO_STATUS PTHR_SEM_Create(SEM_HANDLE *handle, int32_t initialCount) {
    kavro::detail::count_up(pthr_sem_created);
    if (handle == nullptr) return kInvalidArg;
    LocalSemaphore *s = alloc_record();
    if (s == nullptr) return kOutOfMemory;
    pthread_cond_init(&s->cond, nullptr);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&s->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    s->count = initialCount;
    s->type = kavro::sem::kTypeLocal;
    s->variant = kavro::sem::kCounterKind;
    *handle = s;
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Create_2(SEM_HANDLE *handle, uint32_t initialValue) {
    kavro::detail::count_up(pthr_sem_created);
    if (handle == nullptr) return kInvalidArg;
    LocalSemaphore *s = alloc_record();
    if (s == nullptr) return kOutOfMemory;
    s->count = static_cast<int32_t>(initialValue);
    s->type = kavro::sem::kTypeLocal;
    s->variant = kavro::sem::kPosixKind;
    sem_init(&s->posixSem, 0, initialValue);
    *handle = s;
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Delete(SEM_HANDLE handle) {
    kavro::detail::count_up(pthr_sem_freed);
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (s->variant == kavro::sem::kCounterKind) {
        pthread_cond_destroy(&s->cond);
        pthread_mutex_destroy(&s->mutex);
    } else {
        sem_destroy(&s->posixSem);
    }
    KAVRO_OBJ_Free(s, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Pend(SEM_HANDLE handle, uint32_t timeoutMs) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (s->variant != kavro::sem::kCounterKind) return posix_pend(s);
    if (pthread_mutex_lock(&s->mutex) != 0) return kFail;
    const int32_t count = load_count(s);
    KAVRO_STATUS status = kOk;
    if (count > 0) {
        store_count(s, count - 1);
    } else if (timeoutMs == 0) {
        status = kTimeout;
    } else {
        store_count(s, count - 1);
        status = wait_for_unit(s, timeoutMs);
    }
    pthread_mutex_unlock(&s->mutex);
    return status;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_TryPend(SEM_HANDLE handle) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) {
        diag("PTHR_SEM_TryPend", "ERROR, Memory corruption..... \n");
        return kFail;
    }
    if (s->variant != kavro::sem::kCounterKind) {
        if (sem_trywait(&s->posixSem) == 0) return kOk;
        return errno == EAGAIN ? kAgain : kFail;
    }
    // Tested under the mutex, so a unit seen free is a unit taken: no
    // thread ever has to wait here.
    if (pthread_mutex_lock(&s->mutex) != 0) return kFail;
    const int32_t count = load_count(s);
    if (count > 0) store_count(s, count - 1);
    pthread_mutex_unlock(&s->mutex);
    return count > 0 ? kOk : kAgain;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Post(SEM_HANDLE handle) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (s->variant != kavro::sem::kCounterKind) {
        sem_post(&s->posixSem);
        return kOk;
    }
    if (pthread_mutex_lock(&s->mutex) != 0) return kFail;
    store_count(s, load_count(s) + 1);
    // Signal only when a waiter is still without its unit.
    if (s->waiters > s->handoffs) {
        ++s->handoffs;
        pthread_cond_signal(&s->cond);
    }
    pthread_mutex_unlock(&s->mutex);
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Reset(SEM_HANDLE handle, int32_t count) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (s->variant != kavro::sem::kCounterKind) return posix_reset(s, count);
    if (pthread_mutex_lock(&s->mutex) != 0) return kFail;
    // Every waiter leaves with a unit, as if each had been posted.
    if (s->waiters > s->handoffs) {
        s->handoffs = s->waiters;
        pthread_cond_broadcast(&s->cond);
    }
    store_count(s, count);
    pthread_mutex_unlock(&s->mutex);
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_GetCount(SEM_HANDLE handle, int32_t *count) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (count == nullptr) return kInvalidArg;
    if (s->variant != kavro::sem::kCounterKind) {
        int value = 0;
        sem_getvalue(&s->posixSem, &value);
        *count = value;
        return kOk;
    }
    *count = load_count(s);
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_GetSystemHandle(SEM_HANDLE) { return not_supported("PTHR_SEM_GetSystemHandle"); }

}  // extern "C"
