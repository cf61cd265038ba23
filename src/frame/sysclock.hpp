// The clock calls as the library makes them for itself.
//
// The exported clock_* and timer_* functions carry the standard names, so a
// program's own definitions (or the C library's) may stand in for them at a
// call through the dynamic linker. The library's own callers use these
// entries instead: bound inside the library, a system call each, and always
// one convention: 0 (or the result) on success, -1 with errno on failure.
#pragma once

#include <csignal>
#include <ctime>

namespace kavro::detail {

int sys_timer_create(clockid_t clock_id, sigevent *evp, timer_t *timerid);
int sys_timer_settime(timer_t timerid, int flags, const itimerspec *value, itimerspec *ovalue);
int sys_clock_gettime(clockid_t clock_id, timespec *tp);
int sys_clock_getres(clockid_t clock_id, timespec *res);
int sys_timer_gettime(timer_t timerid, itimerspec *value);
int sys_timer_getoverrun(timer_t timerid);
int sys_timer_delete(timer_t timerid);
int sys_clock_settime(clockid_t clock_id, const timespec *tp);
int sys_clock_nanosleep(clockid_t clock_id, int flags, const timespec *req, timespec *rem);

}  // namespace kavro::detail
