/*
 * An emulated real-time-clock device for the tick and CMOS tests, on machines
 * without /dev/rtc: the shared library `rtc_emulator`, preloaded
 * (LD_PRELOAD=KAVRO_RTC_EMULATOR_PATH) into a test process. There, opening
 * "/dev/rtc" with open() gives the emulated device (one open at a time, else
 * EBUSY), as the library and the tests open it:
 * - ioctl RTC_IRQP_SET (powers of two 2..8192 Hz, else EINVAL) and RTC_PIE_ON
 *   start a train of periodic interrupts; a 4-byte read blocks until the next
 *   and returns RTC_PF | RTC_IRQF with the count since the last read above.
 * - RTC_SET_TIME / RTC_RD_TIME: a software CMOS clock (UTC, starting at the
 *   system time) whose first second after a set ends 500 ms later.
 * Controls (environment, read at load):
 *   KAVRO_RTC_STALL_AFTER=N  N interrupts in all, then none (reads block).
 *   KAVRO_RTC_FAIL=name[@K]  the K-th (default first) and later requests of
 *                            that kind fail: open (ENOENT), irqp (EINVAL),
 *                            pie (EIO), read (EIO).
 *   KAVRO_RTC_LOG=path       one line per request: "IRQP_SET <hz>", "PIE_ON",
 *                            "SET <YYYY-MM-DD hh:mm:ss> <epoch>", each ending
 *                            " wall=<sec>.<usec>" (time of day of the request).
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
    return strncmp(line, "SET ", 4) == 0 &&
           sscanf(line, "SET %d-%d-%d %d:%d:%d %lld wall=%lld.%ld", &y, &mo, &d, &h, &mi, &s, &out->epoch,
                  &out->wall_sec, &out->wall_usec) == 9;
}

#endif /* KAVRO_TEST_RTC_EMULATOR_H */
