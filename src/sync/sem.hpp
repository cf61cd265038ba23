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
    // POSIX kind: the initial value. The counter kind keeps its count in
    // `state` (cond and mutex stay zero: it does not use them).
    int32_t count;
    // Counter kind, private to the implementation, one atomic word:
    //   bits  0..31  the count: free units when positive, minus the number
    //                of threads waiting for a unit when negative;
    //   bits 32..47  threads waiting that no unit has been handed to yet;
    //   bits 48..63  units handed to waiters by post or reset and not yet
    //                picked up (a waiter tells its unit from a spurious
    //                wake-up by them).
    // Waiters sleep on the upper half (a futex word), which changes at every
    // hand-over.
    alignas(8) uint64_t state;
};

struct SysVSemaphore {
    uint32_t tag;
    int32_t type;
    int32_t semId;
    sembuf postOp;
    sembuf pendOp;
};

}  // namespace kavro::sem
