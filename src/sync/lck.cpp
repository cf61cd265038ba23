// Task locks: a semaphore per lock; nesting depth and the priority to return
// to live in the holder's own thread record.
#include <semaphore.h>

#include <cerrno>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/lck.h"
#include "kavro_rt/mem.h"
#include "kavro_rt/sem.h"
#include "kavro_rt/thread.h"
#include "sync/lck.hpp"

namespace {

using namespace kavro::detail;

constexpr uintptr_t kForeignOwner = ~static_cast<uintptr_t>(0);

int32_t cRefs = 0;
LckObj *firstLock = nullptr;
LckObj *lock2 = nullptr;

// The caller's thread record; null for a thread the library did not make.
ThreadObj *self_record() {
    ThreadObj *self = nullptr;
    THREAD_Self(&self);
    return self;
}

void take(LckObj *lock) {
    while (sem_wait(&lock->sem) != 0 && errno == EINTR) {
    }
}

void release(LckObj *lock) {
    --lock->holdCount;
    lock->owner = 0;
    sem_post(&lock->sem);
}

KAVRO_SAMPLER void sample_lock(const void *h, const uint32_t *, kavro::pub::Row &row) {
    const auto *lock = static_cast<const LckObj *>(h);
    const uintptr_t owner = KAVRO_PEEK(lock->owner);
    row.v[0] = owner == kForeignOwner ? -1 : static_cast<int64_t>(owner);
    row.v[3] = KAVRO_PEEK(lock->holdCount);
}

// Both locks are made by the bringing-up call; a later call fills in one
// that could not be allocated then.
void make_missing_locks() {
    if (firstLock == nullptr) LCK_Create(&firstLock);
    if (lock2 == nullptr) {
        lock2 = static_cast<LckObj *>(KAVRO_OBJ_Alloc(sizeof(LckObj), KAVRO_TAG_LCK, 0));
        if (lock2 != nullptr) sem_init(&lock2->sem, 0, 1);
        kavro::pub::add(kavro::pub::Lock, lock2, "task lock 2", sample_lock);
    }
    if (firstLock == nullptr || lock2 == nullptr) diag("LCK_Init", "Error, failed to create the task locks\n");
}

}  // namespace

namespace kavro::detail {
LckObj *lck_first_lock() { return firstLock; }
LckObj *lck_lock2() { return lock2; }
int32_t lck_refs() { return cRefs; }
}  // namespace kavro::detail

extern "C" {

KAVRO_API uint32_t LinTaskLock = 0;
KAVRO_API uint32_t savedPriority = 0;
KAVRO_API uint64_t startlck = 0;
KAVRO_API uint64_t endlck = 0;

KAVRO_API int32_t LCK_Init(void) {
    if (cRefs == 0) {
        MEM_Init();
        THREAD_Init();
        SEM_Init();
        firstLock = nullptr;  // the old ones stay with whoever may still hold them
        lock2 = nullptr;
    }
    make_missing_locks();
    ++cRefs;
    return 0;
}

KAVRO_API void LCK_Exit(void) {
    if (--cRefs == 0) {
        SEM_Exit();
        THREAD_Exit();
        MEM_Exit();
    }
}

KAVRO_API KAVRO_STATUS LCK_Create(LckObj **phLock) {
    if (phLock == nullptr) return kInvalidArg;
    auto *lock = static_cast<LckObj *>(KAVRO_OBJ_Alloc(sizeof(LckObj), KAVRO_TAG_LCK, 0));
    *phLock = lock;
    if (lock == nullptr) return kOutOfMemory;
    sem_init(&lock->sem, 0, 1);
    kavro::pub::add(kavro::pub::Lock, lock, "task lock", sample_lock);
    return kOk;
}

KAVRO_API KAVRO_STATUS LCK_Delete(LckObj *hLock) {
    if (hLock == nullptr) return kInvalidArg;
    kavro::pub::remove(hLock);
    KAVRO_OBJ_Free(hLock, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS LCK_Lock(LckObj *hLock) {
    if (cRefs <= 0) return kFail;
    LckObj *lock = hLock != nullptr ? hLock : firstLock;
    if (lock == nullptr) return kFail;
    ThreadObj *self = self_record();
    if (self == nullptr) {
        take(lock);
        ++lock->holdCount;
        lock->owner = kForeignOwner;
        return kOk;
    }
    const bool nested = self->lockCount > 0;
    uint32_t changed = 0;
    THREAD_Set2Priority(self, LCK_PRIORITY, nullptr, &changed);  // raised before it may block
    if (nested) return kOk;
    kavro::pub::set_waiting(self, lock);
    take(lock);
    kavro::pub::set_waiting(self, nullptr);
    ++lock->holdCount;
    lock->owner = reinterpret_cast<uintptr_t>(self);
    return kOk;
}

KAVRO_API KAVRO_STATUS LCK_Unlock(LckObj *hLock) {
    LckObj *lock = hLock != nullptr ? hLock : firstLock;
    if (lock == nullptr) return kFail;
    ThreadObj *self = self_record();
    if (self == nullptr) {
        if (lock->holdCount > 0) release(lock);
        return kOk;
    }
    if (self->lockCount <= 0) return kOk;
    uint32_t last = 0;
    THREAD_LockStatus(self, &last);
    if (!last) return kOk;
    if (lock->holdCount > 0) release(lock);
    THREAD_Restore2Priority(self);
    return kOk;
}

KAVRO_API KAVRO_STATUS LCK_Lock_2(void) {
    if (lock2 == nullptr) return kFail;
    ThreadObj *self = self_record();
    take(lock2);
    ++lock2->holdCount;
    lock2->owner = reinterpret_cast<uintptr_t>(self);
    return kOk;
}

KAVRO_API KAVRO_STATUS LCK_Unlock_2(void) {
    if (lock2 == nullptr || lock2->holdCount <= 0) return kFail;
    release(lock2);
    return kOk;
}

}  // extern "C"
