/**
 * @file tmr.h
 * @brief `TMR_`: the timer engine (one 2 ms tick driving one timer callback)
 *        and a sleeping wait.
 *
 * `TMR_Init` brings the engine up once per process. It finds out whether the
 * process runs in a virtual machine (CPUID's hypervisor bit and signature,
 * then the probe files of `hvdata`), reads its tuning from the environment,
 * raises the calling thread to SCHED_FIFO 99, locks all memory and starts
 * exactly one tick source:
 *
 * - the native loop: a SCHED_FIFO 99 thread sleeping to absolute 2 ms
 *   deadlines on the monotonic clock (inside a recognised hypervisor, or
 *   when `TORVANEX_TMR_USE_RTC` is -1);
 * - the RTC loop: a SCHED_FIFO 99 thread counting the 4096 Hz periodic
 *   interrupt of "/dev/rtc" and deriving the 2 ms tick from the time of day,
 *   with a watchdog thread that reports (once) a clock that stopped ticking
 *   and a thread that rewrites the CMOS clock from the system time (the
 *   default on real hardware);
 * - a POSIX interval timer raising the first real-time signal every 2 ms
 *   (when `PELOSHRT` is present and the native loop is not taken).
 *
 * The engine keeps a single timer. `TMR_Create` arms it with a callback,
 * which the tick source calls on its own thread (native and RTC loops, at
 * SCHED_FIFO 99) or inside the signal handler (POSIX-timer path): on the
 * native path at every tick from the first one, on the other two from the
 * 1000th tick after arming (2 s), then at every tick. The tick sources keep
 * running until the process ends; `TMR_Exit` only frees the timer.
 *
 * Environment, read by `TMR_Init` (decimal, read as `strtol` does; an absent
 * variable leaves the global as the host set it):
 * `TORVANEX_TMR_USE_RTC` (1 forces "/dev/rtc", -1 the native loop, anything
 * else automatic), `TORVANEX_TMR_PROFILE_PERIOD` (native profile period,
 * 1..60 minutes), `TORVANEX_TMR_PROFILE_PRINT` (1 prints the native profile
 * line), `TORVANEX_TMR_MIN_TIME2TGT` (100..300 us), `PELOSHRT` (present:
 * POSIX timer instead of "/dev/rtc"), `PELOSCLOCKDRIFT` (present: the RTC
 * loop catches missed ticks up, one per interrupt).
 *
 * Failures of the tick machinery itself (clock unreadable, sleep failed,
 * "/dev/rtc" unusable) end the process with `exit` after one line.
 *
 * Decisions:
 * - The engine's clock (for the POSIX interval timer and `TMR_Wait`) is
 *   CLOCK_MONOTONIC. Clock id 4 named the high-resolution clock on older
 *   kernels; on current Linux it is CLOCK_MONOTONIC_RAW, on which the kernel
 *   refuses both timers and sleeps (EOPNOTSUPP).
 * - `hvdata` stays writable: a host may add or change probes before
 *   `TMR_Init`; the engine only reads it, up to the first entry whose
 *   `vmName` is NULL.
 * - On the POSIX-timer path the callback runs inside a signal handler (the
 *   first real-time signal, delivered to any thread of the process): it must
 *   do only async-signal-safe work. The engine's own per-tick line
 *   "period is %d \n" is formatted on the stack and written with one
 *   `write` to descriptor 1, bypassing stdio, so it is safe there; it does
 *   not pass through the stdout buffer and may overtake text still buffered
 *   there. The handler keeps the interrupted thread's errno, and a signal
 *   arriving while another thread is inside the handler is dropped.
 * - `TMR_Create` with a NULL out-pointer returns KAVRO_E_INVALIDARG and arms
 *   nothing (a timer without a handle could not be deleted).
 * - `TMR_Exit` empties the slot before freeing the record and waits (at most
 *   about one second) for a tick pass that is using the timer to finish, so
 *   a running tick source never touches a freed record.
 * - After the last `TMR_Exit`, `TMR_Init` brings the engine up again as the
 *   first call did: it detects the virtual machine and reads the environment
 *   again (with their lines), raises the calling thread to SCHED_FIFO 99
 *   (KAVRO_E_FAIL and no new slot when that is refused) and locks all memory.
 *   It then makes a new slot and lock but starts no second tick source: the
 *   one that already runs serves the new slot. What the running source took
 *   once at its start stays: the tick source chosen, and the native loop's
 *   minimum time to target; a new profile period and print setting take
 *   effect at the loop's next profile boundary.
 * - The engine's threads carry the names "TMR_Native", "TMR_Handler",
 *   "TMR_CMOS" and "TMR_Watchdog" (as `ps -L` and `top -H` show them).
 * - `TMR_Wait` with a time that gives more nanoseconds than fit a 32-bit
 *   field, or NaN, passes a field the system refuses: the failure is
 *   reported on standard error and the call returns 0 without waiting, like
 *   any wait of one second or more.
 * - `TMR_SetTime` and `TMR_GetTimerInfo` take a second argument that is not
 *   read; `TMR_gmtime`, `TMR_GetTimeOfDay` and `TMR_Time` take pointers that
 *   are not read.
 */
#ifndef KAVRO_RT_TMR_H
#define KAVRO_RT_TMR_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** The timer callback; its result is ignored. @param callbackArg as given to `TMR_Create` */
typedef int32_t (*TMR_CALLBACK)(uint32_t callbackArg);

/** The engine's timer record; a handle is its address. */
typedef struct TmrTimer {
    uint32_t tag;          /**< 0x12345678 */
    int32_t interval;      /**< 2 once armed */
    int32_t remainingMs;   /**< RTC and POSIX-timer paths: milliseconds to the next callback */
    uint32_t active;       /**< 1 while armed */
    TMR_CALLBACK callback; /**< called on the tick */
    uint32_t callbackArg;  /**< its argument */
} TmrTimer;

/** One hypervisor probe. */
typedef struct HV_DATA {
    const char *probePath; /**< file whose first line is compared, or NULL for the CPUID signature */
    const char *signature; /**< text the probe must begin with */
    const char *vmName;    /**< name reported; NULL ends the table */
} HV_DATA;

/** The hypervisor probes, in the order they are tried (six entries and the end marker). */
KAVRO_API extern HV_DATA hvdata[7];

/** Tick-source override: 1 forces "/dev/rtc", -1 the native loop, 0 automatic. Initially 0. */
KAVRO_API extern int32_t g_ClockRtcOverride;
/** Native loop: profile period in seconds. Initially 60. */
KAVRO_API extern int32_t g_TimerProfilePeriodSec;
/** Native loop: 1 logs the profile line at the end of every period. Initially 0. */
KAVRO_API extern uint32_t g_TimerProfilePrint;
/** Native loop: a deadline closer than this (microseconds) is served at once. Initially 150. */
KAVRO_API extern int32_t g_TimerMinTimeToTargetUs;

/**
 * Bring the timer engine up and start its tick source (once per process).
 *
 * Further calls return 0 at once and are not counted. The calling thread is
 * left at SCHED_FIFO 99 and all memory of the process stays locked. After
 * the last `TMR_Exit` a call brings the engine up again the same way, except
 * that the tick source already running is kept (see the decisions above).
 *
 * @retval 0          the engine runs (or ran already)
 * @retval KAVRO_E_FAIL SCHED_FIFO 99 was refused for the calling thread (no
 *                    tick source runs, later calls return 0), a thread of
 *                    the RTC path could not be started or scheduled, or the
 *                    POSIX-timer path could not read its clock
 */
KAVRO_API KAVRO_STATUS TMR_Init(void);

/**
 * Give back one reference; at the last one free the timer and the table
 * lock. The tick source keeps running and calls nothing afterwards.
 *
 * @return the remaining count (0 after the last exit; negative after more
 *         exits than inits)
 */
KAVRO_API int32_t TMR_Exit(void);

/**
 * Arm the engine's timer.
 *
 * The engine has one timer and one fixed 2 ms tick; the period is checked
 * but not stored. While the timer is armed, a further call returns 0 with a
 * NULL handle; after `TMR_Delete` the same record is armed again.
 *
 * @param phTimer     receives the timer, or NULL when it is already armed or
 *                    memory ran out
 * @param periodMs    requested period in milliseconds, at least 2.0
 * @param callback    called on every tick (see the file comment for when
 *                    the calls begin)
 * @param callbackArg passed to @p callback
 * @retval 0          done; see *@p phTimer
 * @retval KAVRO_E_NOTMRINIT `TMR_Init` has not run
 * @retval KAVRO_E_INVALIDARG @p periodMs below 2.0, @p callback or @p phTimer NULL
 */
KAVRO_API KAVRO_STATUS TMR_Create(TmrTimer **phTimer, double periodMs, TMR_CALLBACK callback, uint32_t callbackArg);

/**
 * Disarm the timer. The record stays for the next `TMR_Create`; the
 * callback may run once more after the call returns.
 *
 * @param hTimer the timer; NULL is accepted and does nothing
 * @retval 0 always
 */
KAVRO_API KAVRO_STATUS TMR_Delete(TmrTimer *hTimer);

/**
 * Check an armed timer; changes nothing that affects the callbacks.
 *
 * @param hTimer   the timer
 * @param periodMs not read
 * @retval 0          @p hTimer is an armed timer
 * @retval KAVRO_E_INVALIDARG @p hTimer is NULL, not a timer, or disarmed
 */
KAVRO_API KAVRO_STATUS TMR_SetTime(TmrTimer *hTimer, double periodMs);

/**
 * Not implemented.
 * @param hTimer not read
 * @param info   not read
 * @retval KAVRO_E_NOTIMPL always
 */
KAVRO_API KAVRO_STATUS TMR_GetTimerInfo(TmrTimer *hTimer, void *info);

/**
 * Sleep for less than one second on the engine's clock and report the call
 * on standard error in test-report form: a "Cool" line after a full wait, an
 * "UNEXPECTED" report (adding 1 to `global_error`) when the system refuses
 * the wait, and the remaining time in red after an interruption.
 *
 * @param microseconds time to wait; below 1,000,000
 * @retval 0          the wait ran out, or the system refused it
 * @retval KAVRO_E_FAIL a signal ended the wait early
 */
KAVRO_API KAVRO_STATUS TMR_Wait(double microseconds);

/** Does nothing. @param timep not read @param result not read @retval 0 always */
KAVRO_API KAVRO_STATUS TMR_gmtime(const void *timep, void *result);
/** Does nothing. @param tv not read @retval 0 always */
KAVRO_API KAVRO_STATUS TMR_GetTimeOfDay(void *tv);
/** Does nothing. @param t not read @retval 0 always */
KAVRO_API KAVRO_STATUS TMR_Time(void *t);

KAVRO_END_DECLS

#endif /* KAVRO_RT_TMR_H */
