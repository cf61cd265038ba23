/*
 * An emulated /dev/rtc for the tick and CMOS tests, preloaded (LD_PRELOAD=KAVRO_RTC_EMULATOR_PATH). open() of
 * "/dev/rtc" gives it (one open at a time, else EBUSY). RTC_IRQP_SET (powers of two 2..8192 Hz) and RTC_PIE_ON
 * start periodic interrupts; a 4-byte read blocks until the next and returns RTC_PF | RTC_IRQF with the count
 * since the last read above. RTC_SET_TIME / RTC_RD_TIME: a software CMOS clock (UTC) whose first second after a
 * set ends 500 ms later. Environment: KAVRO_RTC_STALL_AFTER=N (N interrupts in all), KAVRO_RTC_FAIL=name[@K]
 * (the K-th and later open/irqp/pie/read fail: ENOENT/EINVAL/EIO/EIO), KAVRO_RTC_LOG=path (lines "IRQP_SET <hz>",
 * "PIE_ON", "SET <YYYY-MM-DD hh:mm:ss> <epoch>", each ending " wall=<sec>.<usec>").
 */
#ifndef KAVRO_TEST_RTC_EMULATOR_H
#define KAVRO_TEST_RTC_EMULATOR_H

#include <stdio.h>
#include <string.h>

struct kavro_rtc_set {
    long long epoch, wall_sec; /* the time written (UTC), the time of day of the request */
    long wall_usec;
};

static inline int kavro_rtc_parse_set(const char *line, struct kavro_rtc_set *out) {
    int y, mo, d, h, mi, s;
    return strncmp(line, "SET ", 4) == 0 && sscanf(line, "SET %d-%d-%d %d:%d:%d %lld wall=%lld.%ld", &y, &mo, &d, &h,
                                                   &mi, &s, &out->epoch, &out->wall_sec, &out->wall_usec) == 9;
}

#endif /* KAVRO_TEST_RTC_EMULATOR_H */
