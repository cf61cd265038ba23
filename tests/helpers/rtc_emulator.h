/*
 * An emulated real-time-clock device for tests, on machines without
 * /dev/rtc. Built as the shared library `rtc_emulator`; a test starts a
 * process with LD_PRELOAD=<its path> (the path is the compile definition
 * KAVRO_RTC_EMULATOR_PATH on the tests that use it). In that process:
 *
 * - `open`, `open64`, `openat`, `openat64`, `__open_2`, `__open64_2` of
 *   "/dev/rtc" or "/dev/rtc0" return a descriptor of the emulated device
 *   (a descriptor of /dev/null underneath, so the number is real). Only one
 *   open at a time, as the driver allows: a second gives EBUSY. Everything
 *   else passes through to the C library.
 * - `ioctl` on it serves RTC_IRQP_SET (powers of two 2..8192 Hz, else
 *   EINVAL; 1024 Hz before any), RTC_IRQP_READ, RTC_PIE_ON, RTC_PIE_OFF,
 *   RTC_RD_TIME and RTC_SET_TIME (fields checked as the driver checks them:
 *   EINVAL); any other request gives ENOTTY.
 * - `read` (and `__read_chk`) of 4 bytes (8 on x86_64 also accepted,
 *   fewer: EINVAL) blocks until the next periodic interrupt and returns the
 *   driver's status word:
 *   low byte RTC_PF | RTC_IRQF (0xC0), upper 24 bits the number of
 *   interrupts since the previous read. Interrupt k of a train comes at
 *   start + k / rate, the start being RTC_PIE_ON (or a rate change while
 *   on). With the descriptor non-blocking, a read with nothing pending gives
 *   EAGAIN. With the periodic interrupt off, a read waits until it is
 *   switched on (from another thread).
 * - The software CMOS clock starts at the system time (UTC), its seconds
 *   turning with the wall clock's. RTC_SET_TIME sets it; as on the MC146818,
 *   its first second after a set ends 500 ms later (KAVRO_RTC_SET_PHASE_MS),
 *   and it then advances with the monotonic clock. RTC_RD_TIME reads it,
 *   broken down as UTC (weekday and day of year filled, daylight flag 0).
 *
 * Controls, environment variables read when the library loads:
 *
 *   KAVRO_RTC_STALL_AFTER=N   raise N interrupts in all, then none (0: none
 *                             at all); reads block.
 *   KAVRO_RTC_STALL_REARM=1   a stall ends at the next RTC_PIE_ON or
 *                             RTC_IRQP_SET (as re-programming cures the real
 *                             fault); without it a stall is for ever.
 *   KAVRO_RTC_GAP=N:MS        after the N-th interrupt, none for MS
 *                             milliseconds; the train then goes on in its
 *                             phase (the interrupts of the gap are lost).
 *   KAVRO_RTC_FAIL=list       requests that fail, comma-separated, each
 *                             `name` or `name@K` (the K-th such request and
 *                             every later one fail; default K = 1):
 *                             open (ENOENT), irqp (EINVAL), pie (EIO),
 *                             read (EIO), set (EIO), rd (EIO).
 *   KAVRO_RTC_SET_PHASE_MS=M  length of the first CMOS second after a set
 *                             (default 500).
 *   KAVRO_RTC_LOG=path        appends one line per event (one write each):
 *                               SET <YYYY-MM-DD hh:mm:ss> <epoch> wall=<sec>.<usec>
 *                               IRQP_SET <hz> wall=<sec>.<usec>
 *                               PIE_ON wall=<sec>.<usec>
 *                               PIE_OFF wall=<sec>.<usec>
 *                             <epoch> is the time set read as UTC; wall= is
 *                             the time of day of the request.
 */
#ifndef KAVRO_TEST_RTC_EMULATOR_H
#define KAVRO_TEST_RTC_EMULATOR_H

#include <stdio.h>
#include <string.h>

/* One RTC_SET_TIME of the log. */
struct kavro_rtc_set {
    long long epoch;     /* the time written, read as UTC */
    long long wall_sec;  /* time of day of the request */
    long wall_usec;
};

/* Parses a "SET ..." line of the log; 1 when it is one. */
static inline int kavro_rtc_parse_set(const char *line, struct kavro_rtc_set *out) {
    int y, mo, d, h, mi, s;
    if (strncmp(line, "SET ", 4) != 0) return 0;
    return sscanf(line, "SET %d-%d-%d %d:%d:%d %lld wall=%lld.%ld", &y, &mo, &d, &h, &mi, &s,
                  &out->epoch, &out->wall_sec, &out->wall_usec) == 9;
}

#endif /* KAVRO_TEST_RTC_EMULATOR_H */
