// The POSIX clock and timer calls, each issued straight to the kernel.
//
// The library needs no real-time library of its own: these nine entry points
// carry the standard names, so a program linking the library gets them in
// place of the C library's. Each one passes its arguments through unchanged
// and turns a kernel error (-4095..-1) into -1 with errno set; the sleep does
// the same instead of returning the error number.
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>

#include "kavro_rt/clock.h"
#include "kavro_rt/status.h"
#include "frame/sysclock.hpp"

using namespace kavro::detail;

// The prototypes are <time.h>'s exactly (hence noexcept where the C library
// declares them non-throwing).
extern "C" {

KAVRO_API int timer_create(clockid_t clock_id, struct sigevent *__restrict evp, timer_t *__restrict timerid) noexcept {
    return sys_timer_create(clock_id, evp, timerid);
}

KAVRO_API int timer_settime(timer_t timerid, int flags, const struct itimerspec *__restrict value,
                            struct itimerspec *__restrict ovalue) noexcept {
    return sys_timer_settime(timerid, flags, value, ovalue);
}

KAVRO_API int timer_gettime(timer_t timerid, struct itimerspec *value) noexcept {
    return sys_timer_gettime(timerid, value);
}

KAVRO_API int timer_getoverrun(timer_t timerid) noexcept { return sys_timer_getoverrun(timerid); }

KAVRO_API int timer_delete(timer_t timerid) noexcept { return sys_timer_delete(timerid); }

KAVRO_API int clock_settime(clockid_t clock_id, const struct timespec *tp) noexcept {
    return sys_clock_settime(clock_id, tp);
}

KAVRO_API int clock_gettime(clockid_t clock_id, struct timespec *tp) noexcept {
    return sys_clock_gettime(clock_id, tp);
}

KAVRO_API int clock_getres(clockid_t clock_id, struct timespec *res) noexcept {
    return sys_clock_getres(clock_id, res);
}

KAVRO_API int clock_nanosleep(clockid_t clock_id, int flags, const struct timespec *req, struct timespec *rem) {
    return sys_clock_nanosleep(clock_id, flags, req, rem);
}

}  // extern "C"
