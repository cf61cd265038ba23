/**
 * @file clock.h
 * @brief The POSIX clock and timer calls, issued directly to the kernel.
 *
 * The library defines its own `timer_create`, `timer_settime`,
 * `timer_gettime`, `timer_getoverrun`, `timer_delete`, `clock_settime`,
 * `clock_gettime`, `clock_getres` and `clock_nanosleep`, with the standard
 * names and exactly the prototypes of `<time.h>` (which this header includes
 * and which declares them). Because they are exported under the standard
 * names, a program that links the library gets these definitions in place
 * of the C library's for its own calls too. That is intended. The library's
 * own timer engine and CMOS thread make the same system calls through
 * internal entries bound inside the library, so whichever definition of
 * these names a program ends up with, the engine's calls keep one behaviour.
 *
 * Each call passes its arguments to the kernel unchanged (on 32-bit x86
 * through software interrupt 0x80 with system calls 259 to 267, on x86_64
 * through that architecture's system calls for the same operations). A
 * kernel error is returned as -1 with `errno` set to it; any other result is
 * returned as it is. The layer adds no checks of its own: an unknown clock,
 * a nanoseconds field outside 0..999,999,999 or an unknown flag gives
 * EINVAL, a bad pointer EFAULT, an unknown timer EINVAL.
 *
 * Differences from the C library's functions, decided for this layer:
 * - `clock_nanosleep` follows the same -1/errno convention as the others
 *   (EINTR included) instead of returning the error number.
 * - `clock_nanosleep` is a plain system call, not a thread-cancellation
 *   point.
 * - `timer_create` hands the notification record to the kernel as it is:
 *   SIGEV_SIGNAL, SIGEV_NONE and SIGEV_THREAD_ID work; SIGEV_THREAD, which
 *   the C library emulates with a helper thread, is refused by the kernel
 *   with EINVAL.
 * - The clock readings are system calls every time (no vDSO shortcut); they
 *   read the same clocks.
 * - On x86_64, where `timer_t` is pointer-sized, the kernel's timer id is
 *   kept in its low 32 bits.
 * - A 32-bit program built with 64-bit time (`_TIME_BITS=64`) calls the C
 *   library's 64-bit-time entry points under other names, so it does not
 *   reach these.
 *
 * The declarations below are `<time.h>`'s; they are repeated here only as
 * documentation.
 */
#ifndef KAVRO_RT_CLOCK_H
#define KAVRO_RT_CLOCK_H

#include <time.h>

#ifdef KAVRO_DOXYGEN
/**
 * Create a per-process interval timer (system call 259 on i386).
 * @param clock_id the clock that measures the timer
 * @param evp      notification record, or NULL for SIGALRM with the timer id
 * @param timerid  out: the new timer's id
 * @retval 0  created
 * @retval -1 failed; errno EINVAL (unknown clock or notification), EAGAIN,
 *            EFAULT
 */
int timer_create(clockid_t clock_id, struct sigevent *evp, timer_t *timerid);

/**
 * Arm or disarm a timer (system call 260).
 * @param timerid the timer
 * @param flags   0 relative, TIMER_ABSTIME absolute first expiry
 * @param value   the new setting
 * @param ovalue  out: the previous setting, or NULL
 * @retval 0  done
 * @retval -1 failed; errno EINVAL (unknown timer, bad nanoseconds), EFAULT
 */
int timer_settime(timer_t timerid, int flags, const struct itimerspec *value, struct itimerspec *ovalue);

/**
 * Read a timer's remaining time and interval (system call 261).
 * @param timerid the timer
 * @param value   out: the current setting
 * @retval 0  done
 * @retval -1 failed; errno EINVAL (unknown timer), EFAULT
 */
int timer_gettime(timer_t timerid, struct itimerspec *value);

/**
 * Overrun count of the timer's last delivered expiry (system call 262).
 * @param timerid the timer
 * @return the count (0 or more)
 * @retval -1 failed; errno EINVAL (unknown timer)
 */
int timer_getoverrun(timer_t timerid);

/**
 * Delete a timer (system call 263).
 * @param timerid the timer
 * @retval 0  deleted
 * @retval -1 failed; errno EINVAL (unknown timer)
 */
int timer_delete(timer_t timerid);

/**
 * Set a clock (system call 264).
 * @param clock_id the clock (only CLOCK_REALTIME is settable)
 * @param tp       the new time
 * @retval 0  set
 * @retval -1 failed; errno EINVAL, EPERM, EFAULT
 */
int clock_settime(clockid_t clock_id, const struct timespec *tp);

/**
 * Read a clock (system call 265).
 * @param clock_id the clock
 * @param tp       out: its time
 * @retval 0  read
 * @retval -1 failed; errno EINVAL (unknown clock), EFAULT
 */
int clock_gettime(clockid_t clock_id, struct timespec *tp);

/**
 * Resolution of a clock (system call 266).
 * @param clock_id the clock
 * @param res      out: its resolution, or NULL
 * @retval 0  done
 * @retval -1 failed; errno EINVAL (unknown clock), EFAULT
 */
int clock_getres(clockid_t clock_id, struct timespec *res);

/**
 * Sleep on a clock (system call 267).
 * @param clock_id the clock
 * @param flags    0 relative, TIMER_ABSTIME absolute
 * @param req      the time to sleep, or the deadline
 * @param rem      out (relative sleeps interrupted by a signal): time left,
 *                 or NULL
 * @retval 0  slept to the end
 * @retval -1 failed; errno EINTR (a signal handler ran), EINVAL (unknown
 *            clock or flag, bad nanoseconds: `rem` is not written), EFAULT
 */
int clock_nanosleep(clockid_t clock_id, int flags, const struct timespec *req, struct timespec *rem);
#endif /* KAVRO_DOXYGEN */

#endif /* KAVRO_RT_CLOCK_H */
