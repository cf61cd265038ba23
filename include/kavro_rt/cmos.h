/**
 * @file cmos.h
 * @brief CMOS clock synchronisation: its configuration and the writes.
 *
 * When the timer engine runs on `/dev/rtc`, a companion thread rewrites the
 * battery-backed CMOS clock from the system time every few minutes, at a
 * chosen microsecond of the wall-clock second. The RTC tick loop reads the
 * configuration once, with `CMOS_GetEnvironment`, before it opens the device:
 *
 * | Variable | Unit | Effect |
 * |---|---|---|
 * | TORVANEX_CMOS_CLOCK_UPDATE_RATE_MINUTES | minutes | interval = value x 60 |
 * | TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE | seconds | interval = value when non-zero, over the minutes; below 60 draws a warning |
 * | TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC | microseconds | when to write within the second; default and fallback 500000 |
 *
 * Values are read as `strtol` reads decimals (leading digits count, text
 * without digits is 0). Without either rate the interval is 0 and nothing is
 * written. The file "/etc/sysconfig/clock" says, on a line that begins with
 * "UTC=", whether the CMOS clock keeps UTC ("true", "yes" in three cases) or
 * local time ("false", "no"); a missing file or line counts as UTC. When it
 * keeps local time, each write adds the local offset from UTC measured at
 * configuration time.
 *
 * Diagnostics are lines "KAVRO:<operation>: ..." through `GP_printf`.
 *
 * Decisions:
 * - A negative rate is taken like any other: the interval becomes negative,
 *   the report shows it as an unsigned number (a negative value in seconds
 *   also draws the warning about rates below one minute), and the writes
 *   treat it as that unsigned number of seconds (more than 68 years), so no
 *   write falls due.
 * - An interval in minutes whose seconds lie outside -2147483648..2147483647
 *   is cut to the nearer end.
 * - Numbers beyond 32 bits read as the nearest 32-bit value.
 * - Each call of `CMOS_GetEnvironment` starts from "no writes": an
 *   interval set by an earlier call does not survive a call without either
 *   rate variable.
 * - `Set_CMOS_From_OSTime` and `Read_CMOS_UntilChange` keep unlocked
 *   process-wide state: call each from one thread at a time.
 */
#ifndef KAVRO_RT_CMOS_H
#define KAVRO_RT_CMOS_H

#include "status.h"

KAVRO_BEGIN_DECLS

/**
 * Read the CMOS write configuration (the three variables; when writes are
 * on, the clock file and the local offset from UTC) into the engine's
 * settings and report it: the interval ("KMX CMOS UPDATE Interval =<n>
 * seconds" when given in seconds, else "... minutes"), the offset when it
 * is not 500000, "CMOS clock in UTC|LOCAL" and "UTC to LOCAL Delta=<s>".
 * Prints nothing when writes stay off. Called once by the RTC tick loop.
 *
 * @retval 0 always
 */
KAVRO_API int32_t CMOS_GetEnvironment(void);

/**
 * Whether the CMOS clock keeps UTC, from "/etc/sysconfig/clock". The file
 * is read in pieces of at most 79 characters (a longer line is examined
 * piece by piece); a piece that begins with "UTC=" is searched for "true",
 * "True", "TRUE", "yes", "Yes", "YES" and then "false", "False", "FALSE",
 * "no", "No", "NO", and the first word found decides. A last line without
 * a newline is not examined.
 *
 * @retval 1 UTC: a true word, or (with a report line) no file, no "UTC="
 *           line, or "UTC=" lines without a value word
 * @retval 0 local time: a false word
 */
KAVRO_API int32_t GetSycconfigCMOSClockUTCSetting(void);

/**
 * Local time minus UTC now, in seconds, daylight saving included (+3600 one
 * hour east of Greenwich), for the time zone of the process.
 *
 * @return the offset in seconds
 */
KAVRO_API int32_t GetLocalUTCDelta(void);

/**
 * Write the system time into the CMOS clock (RTC_SET_TIME on @p fd): the
 * current second, plus the configured local offset when the CMOS clock
 * keeps local time. Reports "KMX Setting CMOS clock now! <s>" for the first
 * 10 writes of the process (then "KMX No More CMOS Updates prints this
 * run"), and, for the first 10 occurrences, a write that comes a different
 * number of monotonic seconds after the previous one than the configured
 * interval ("CMOS RTC SET WARNING ..."). A failed request is reported with
 * the line "Error reading the CMOS clock error =4294967295" and is not
 * retried.
 *
 * @param fd open descriptor of the real-time-clock device
 * @retval 0  the write was made or attempted
 * @retval -1 the time could not be broken down (reported)
 */
KAVRO_API int32_t Set_CMOS_From_OSTime(int32_t fd);

/**
 * Read the CMOS clock once (RTC_RD_TIME on @p fd) and tell whether its
 * seconds changed since the previous reading. At a change, writes
 * "Delta=<us> Average =<mean> micro seconds" on standard output: where in
 * the wall-clock second the change was seen (-100000..900000 us) and the
 * mean over all changes seen. A reading whose seconds are 0 is taken as no
 * previous reading by the next call.
 *
 * @param fd    open descriptor of the real-time-clock device
 * @param reset non-zero: forget the previous reading first
 * @retval 1 the seconds changed
 * @retval 0 no change, first reading, or the read failed (reported as
 *           "ERROR, Error setting the CMOS clock error =4294967295")
 */
KAVRO_API int32_t Read_CMOS_UntilChange(int32_t fd, int32_t reset);

KAVRO_END_DECLS

#endif /* KAVRO_RT_CMOS_H */
