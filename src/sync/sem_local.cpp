// Process-local semaphores: the counter kind (signed count, timed pends; one
// atomic state word and a futex) and the POSIX kind (an unnamed POSIX
// semaphore).
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>

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

LocalSemaphore *alloc_record() {
    return static_cast<LocalSemaphore *>(KAVRO_OBJ_Alloc(sizeof(LocalSemaphore), KAVRO_TAG_SEM, 0));
}

// The counter kind's state word (see sem.hpp): count, waiters, hand-overs.
struct State {
    int32_t count;
    uint32_t waiters;
    uint32_t handoffs;
};
inline State unpack(uint64_t v) {
    return {static_cast<int32_t>(static_cast<uint32_t>(v)), static_cast<uint32_t>(v >> 32) & 0xFFFFu,
            static_cast<uint32_t>(v >> 48)};
}
inline uint64_t pack(State st) {
    return static_cast<uint64_t>(static_cast<uint32_t>(st.count)) | static_cast<uint64_t>(st.waiters) << 32 |
           static_cast<uint64_t>(st.handoffs) << 48;
}
inline std::atomic_ref<uint64_t> state_of(LocalSemaphore *s) { return std::atomic_ref<uint64_t>(s->state); }

// The upper half of the state word (waiters, hand-overs): what waiters sleep on.
inline uint32_t *wait_word(LocalSemaphore *s) { return reinterpret_cast<uint32_t *>(&s->state) + 1; }
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the wait word is the upper half of the state");

// A 32-bit build with a 64-bit time_t hands the kernel a 64-bit timespec.
#if defined(__i386__) && defined(__USE_TIME_BITS64)
constexpr long kFutexCall = SYS_futex_time64;
#else
constexpr long kFutexCall = SYS_futex;
#endif

// Sleeps while the wait word holds `seen`, until an absolute wall-clock
// deadline or without limit. 0 after a wake-up, else the errno (EAGAIN: the
// word had changed; EINTR; ETIMEDOUT).
int futex_wait(uint32_t *word, uint32_t seen, const timespec *deadline) {
    const long rc = deadline == nullptr ? syscall(kFutexCall, word, FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0)
                                        : syscall(kFutexCall, word, FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME,
                                                  seen, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
    return rc == 0 ? 0 : errno;
}

void futex_wake(uint32_t *word, int n) { syscall(kFutexCall, word, FUTEX_WAKE_PRIVATE, n, nullptr, nullptr, 0); }

// The caller has claimed a unit (count decremented below 0, counted among
// the waiters). Returns once a post or reset has handed a unit over, or on
// time-out or a failed wait after giving the claim back, so that a negative
// count keeps meaning "minus the number of waiters".
KAVRO_STATUS wait_for_unit(LocalSemaphore *s, uint32_t timeoutMs) {
    const bool timed = timeoutMs != kWaitForever;
    timespec deadline{};
    if (timed) deadline = wall_deadline(timeoutMs);
    auto state = state_of(s);
    int r = 0;
    uint64_t v = state.load(std::memory_order_relaxed);
    for (;;) {
        State st = unpack(v);
        if (st.handoffs > 0) {  // a unit was handed over: take it (even at the moment of a time-out)
            --st.handoffs;
            if (state.compare_exchange_weak(v, pack(st), std::memory_order_acquire, std::memory_order_relaxed))
                return kOk;
            continue;
        }
        if (r != 0 && r != EINTR && r != EAGAIN) {  // timed out or failed: no unit came
            --st.waiters;
            ++st.count;
            if (state.compare_exchange_weak(v, pack(st), std::memory_order_relaxed, std::memory_order_relaxed))
                return r == ETIMEDOUT ? kTimeout : kFail;
            continue;
        }
        // Interrupted, or the word changed: wait again until the same deadline.
        r = futex_wait(wait_word(s), static_cast<uint32_t>(v >> 32), timed ? &deadline : nullptr);
        v = state.load(std::memory_order_relaxed);
    }
}

KAVRO_STATUS counter_pend(LocalSemaphore *s, uint32_t timeoutMs) {
    auto state = state_of(s);
    uint64_t v = state.load(std::memory_order_relaxed);
    for (;;) {
        State st = unpack(v);
        if (st.count > 0) {
            --st.count;
            if (state.compare_exchange_weak(v, pack(st), std::memory_order_acquire, std::memory_order_relaxed))
                return kOk;
        } else {
            if (timeoutMs == 0) return kTimeout;  // never waits, claims nothing
            --st.count;
            ++st.waiters;
            if (state.compare_exchange_weak(v, pack(st), std::memory_order_relaxed, std::memory_order_relaxed))
                return wait_for_unit(s, timeoutMs);
        }
    }
}

// One unit more; handed straight to a waiter when one has none yet, which is
// then woken. No lock is held while it wakes.
void counter_post(LocalSemaphore *s) {
    auto state = state_of(s);
    uint64_t v = state.load(std::memory_order_relaxed);
    State st;
    do {
        st = unpack(v);
        ++st.count;
        if (st.waiters > 0) {
            --st.waiters;
            ++st.handoffs;
        }
    } while (!state.compare_exchange_weak(v, pack(st), std::memory_order_release, std::memory_order_relaxed));
    if (unpack(v).waiters > 0) futex_wake(wait_word(s), 1);
}

// Every waiter leaves with a unit, as if each had been posted; then the count.
void counter_reset(LocalSemaphore *s, int32_t count) {
    auto state = state_of(s);
    uint64_t v = state.load(std::memory_order_relaxed);
    State st;
    do {
        st = unpack(v);
        st.handoffs += st.waiters;
        st.waiters = 0;
        st.count = count;
    } while (!state.compare_exchange_weak(v, pack(st), std::memory_order_release, std::memory_order_relaxed));
    if (unpack(v).waiters > 0) futex_wake(wait_word(s), INT_MAX);
}

bool counter_trypend(LocalSemaphore *s) {
    auto state = state_of(s);
    uint64_t v = state.load(std::memory_order_relaxed);
    for (;;) {
        State st = unpack(v);
        if (st.count <= 0) return false;
        --st.count;
        if (state.compare_exchange_weak(v, pack(st), std::memory_order_acquire, std::memory_order_relaxed)) return true;
    }
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
    s->state = pack({initialCount, 0, 0});
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
    if (s->variant == kavro::sem::kPosixKind) sem_destroy(&s->posixSem);
    KAVRO_OBJ_Free(s, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Pend(SEM_HANDLE handle, uint32_t timeoutMs) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    return s->variant == kavro::sem::kCounterKind ? counter_pend(s, timeoutMs) : posix_pend(s);
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
    // A unit seen free is taken in the same atomic step: no thread ever waits here.
    return counter_trypend(s) ? kOk : kAgain;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Post(SEM_HANDLE handle) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (s->variant != kavro::sem::kCounterKind) {
        sem_post(&s->posixSem);
        return kOk;
    }
    counter_post(s);
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_Reset(SEM_HANDLE handle, int32_t count) {
    LocalSemaphore *s = local(handle);
    if (s == nullptr) return kFail;
    if (s->variant != kavro::sem::kCounterKind) return posix_reset(s, count);
    counter_reset(s, count);
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
    *count = unpack(state_of(s).load(std::memory_order_relaxed)).count;
    return kOk;
}

KAVRO_API KAVRO_STATUS PTHR_SEM_GetSystemHandle(SEM_HANDLE) { return not_supported("PTHR_SEM_GetSystemHandle"); }

}  // extern "C"
