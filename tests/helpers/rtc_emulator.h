/*
 * An emulated /dev/rtc for the tick and CMOS tests, preloaded (LD_PRELOAD=KAVRO_RTC_EMULATOR_PATH). RTC_IRQP_SET and
 * RTC_PIE_ON start periodic interrupts; a read blocks until the next. RTC_SET_TIME / RTC_RD_TIME: a software CMOS
 * clock (UTC) whose first second after a set ends 500 ms later. Environment: KAVRO_RTC_STALL (no interrupt ever),
 * KAVRO_RTC_FAIL=open|irqp|pie|read[@K] (that call fails with EIO, from its K-th on), KAVRO_RTC_LOG=path (lines
 * "IRQP_SET <hz>", "PIE_ON", "SET <epoch written>", each ending " wall=<sec>.<usec>").
 */
#ifndef KAVRO_TEST_RTC_EMULATOR_H
#define KAVRO_TEST_RTC_EMULATOR_H

#include <stdio.h>

struct kavro_rtc_set {
    long long epoch, wall_sec;
    long wall_usec;
};

static inline int kavro_rtc_parse_set(const char *line, struct kavro_rtc_set *out) {
    return sscanf(line, "SET %lld wall=%lld.%ld", &out->epoch, &out->wall_sec, &out->wall_usec) == 3;
}

#endif /* KAVRO_TEST_RTC_EMULATOR_H */
