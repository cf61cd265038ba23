// Semaphore records, shared by the front and its two implementations.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/sem.h>

#include <cstdint>

namespace kavro::sem {

// Second word of every semaphore record.
inline constexpr int32_t kTypeSysV = 1;
inline constexpr int32_t kTypeLocal = -1;

// `variant` of a process-local semaphore.
inline constexpr int32_t kCounterKind = 0;
inline constexpr int32_t kPosixKind = -1;

struct SemHeader {
    uint32_t tag;
    int32_t type;
};

struct LocalSemaphore {
    uint32_t tag;
    int32_t type;
    int32_t variant;
    sem_t posixSem;
    pthread_cond_t cond;
    pthread_mutex_t mutex;
    // Counter kind: free units when positive; minus the number of threads
    // waiting for a unit when negative.
    int32_t count;
    // Counter kind, private to the implementation: threads inside a wait,
    // and units handed to them by post or reset but not yet picked up (so a
    // waiter can tell its unit from a spurious wake-up).
    int32_t waiters;
    int32_t handoffs;
};

struct SysVSemaphore {
    uint32_t tag;
    int32_t type;
    int32_t semId;
    sembuf postOp;
    sembuf pendOp;
};

}  // namespace kavro::sem
