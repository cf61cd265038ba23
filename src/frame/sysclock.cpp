// The clock and timer system calls, issued straight to the kernel: the one
// place that knows the calling conventions. The exported clock_* and timer_*
// functions (timer/clock.cpp) forward here, and so do the library's own
// callers, which thereby never bind to a program's definitions of those names.
#include "frame/sysclock.hpp"

#include <sys/syscall.h>

#include <cerrno>
#include <cstdint>

namespace {

#if defined(__i386__)
static_assert(sizeof(time_t) == 4 && sizeof(long) == 4, "the i386 calls exchange 32-bit time records with the kernel");
static_assert(sizeof(timer_t) == sizeof(int), "i386 timer ids are the kernel's int");

enum : long {
    kTimerCreate = 259,
    kTimerSettime = 260,
    kTimerGettime = 261,
    kTimerGetoverrun = 262,
    kTimerDelete = 263,
    kClockSettime = 264,
    kClockGettime = 265,
    kClockGetres = 266,
    kClockNanosleep = 267,
};

// Software interrupt 0x80: number in eax, arguments in ebx, ecx, edx, esi.
inline long raw(long nr, long a = 0, long b = 0, long c = 0, long d = 0) {
    long r;
    __asm__ volatile("int $0x80" : "=a"(r) : "0"(nr), "b"(a), "c"(b), "d"(c), "S"(d) : "memory");
    return r;
}

inline int finish(long r) {
    if (static_cast<uint32_t>(r) > 0xFFFFF000u) {
        errno = -static_cast<int>(r);
        return -1;
    }
    return static_cast<int>(r);
}

inline long kernel_timer(timer_t id) { return reinterpret_cast<long>(id); }

#elif defined(__x86_64__)

enum : long {
    kTimerCreate = SYS_timer_create,
    kTimerSettime = SYS_timer_settime,
    kTimerGettime = SYS_timer_gettime,
    kTimerGetoverrun = SYS_timer_getoverrun,
    kTimerDelete = SYS_timer_delete,
    kClockSettime = SYS_clock_settime,
    kClockGettime = SYS_clock_gettime,
    kClockGetres = SYS_clock_getres,
    kClockNanosleep = SYS_clock_nanosleep,
};

// The syscall instruction: number in rax, arguments in rdi, rsi, rdx, r10;
// the kernel clobbers rcx and r11.
inline long raw(long nr, long a = 0, long b = 0, long c = 0, long d = 0) {
    long r;
    register long r10 __asm__("r10") = d;
    __asm__ volatile("syscall" : "=a"(r) : "0"(nr), "D"(a), "S"(b), "d"(c), "r"(r10) : "rcx", "r11", "memory");
    return r;
}

inline int finish(long r) {
    if (static_cast<unsigned long>(r) > static_cast<unsigned long>(-4096L)) {
        errno = -static_cast<int>(r);
        return -1;
    }
    return static_cast<int>(r);
}

// timer_t is pointer-sized here while the kernel's timer id is an int: the id
// travels in the pointer's low 32 bits, sign-extended.
inline long kernel_timer(timer_t id) { return static_cast<int>(reinterpret_cast<intptr_t>(id)); }

#else
#error "the clock calls are written for i386 and x86_64"
#endif

template <typename T>
inline long arg(T *p) {
    return reinterpret_cast<long>(p);
}

}  // namespace

namespace kavro::detail {

int sys_timer_create(clockid_t clock_id, sigevent *evp, timer_t *timerid) {
#if defined(__x86_64__)
    if (timerid == nullptr) return finish(raw(kTimerCreate, clock_id, arg(evp), 0));
    int kid = 0;
    int rc = finish(raw(kTimerCreate, clock_id, arg(evp), arg(&kid)));
    if (rc == 0) *timerid = reinterpret_cast<timer_t>(static_cast<intptr_t>(kid));
    return rc;
#else
    return finish(raw(kTimerCreate, clock_id, arg(evp), arg(timerid)));
#endif
}

int sys_timer_settime(timer_t timerid, int flags, const itimerspec *value, itimerspec *ovalue) {
    return finish(raw(kTimerSettime, kernel_timer(timerid), flags, arg(value), arg(ovalue)));
}

int sys_clock_gettime(clockid_t clock_id, timespec *tp) { return finish(raw(kClockGettime, clock_id, arg(tp))); }

int sys_clock_getres(clockid_t clock_id, timespec *res) { return finish(raw(kClockGetres, clock_id, arg(res))); }

int sys_timer_gettime(timer_t timerid, itimerspec *value) {
    return finish(raw(kTimerGettime, kernel_timer(timerid), arg(value)));
}

int sys_timer_getoverrun(timer_t timerid) { return finish(raw(kTimerGetoverrun, kernel_timer(timerid))); }

int sys_timer_delete(timer_t timerid) { return finish(raw(kTimerDelete, kernel_timer(timerid))); }

int sys_clock_settime(clockid_t clock_id, const timespec *tp) { return finish(raw(kClockSettime, clock_id, arg(tp))); }

int sys_clock_nanosleep(clockid_t clock_id, int flags, const timespec *req, timespec *rem) {
    return finish(raw(kClockNanosleep, clock_id, flags, arg(req), arg(rem)));
}

}  // namespace kavro::detail
