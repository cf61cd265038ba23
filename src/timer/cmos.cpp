// CMOS clock synchronisation: the configuration read when the RTC tick loop
// starts, the write of the system time into the CMOS clock, and the
// measurement of where in the second the CMOS clock's seconds change.
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <sys/time.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "timer/cmos.hpp"
#include "frame/internal.hpp"
#include "kavro_rt/log.h"
#include "frame/sysclock.hpp"
#include "timer/pacing.hpp"

namespace kavro::detail {

int32_t g_WriteIntervalTime_sec = 0;
uint32_t g_TimeOffset_usec = kDefaultCmosOffsetUsec;

bool cmos_write_due(uint32_t *periodStartSec, uint32_t monoSec, uint32_t wallUsec, int32_t intervalSec,
                    uint32_t offsetUsec) {
    if (*periodStartSec == 0) {
        *periodStartSec = monoSec;  // the first interval starts at the first look
        return false;
    }
    // The interval counts as the unsigned number the configuration reports; a
    // sum past 32 bits does not wrap round to "due".
    if (monoSec < uint64_t{*periodStartSec} + static_cast<uint32_t>(intervalSec)) return false;
    if (offsetUsec == 0 || wallUsec < offsetUsec) return false;
    *periodStartSec = monoSec;
    return true;
}

namespace {

// ---- settings only the writes read ----
int32_t g_IsCMOSInUTC = 0;  // 1: the CMOS clock keeps UTC; 0: local time
int32_t g_UTCDelta = 0;     // local time minus UTC in seconds, at configuration time

// ---- state of the writes (only the CMOS thread touches it) ----
timespec MONOTONICLast = {};       // monotonic time of the last write; 0 s = none yet
uint32_t printed_SettingCMOS = 0;  // setting lines written (at most 10)
uint32_t printed_SetError = 0;     // interval mismatches seen

// ---- state of Read_CMOS_UntilChange ----
tm CMOSTimePrev = {};                   // last CMOS reading; tm_sec 0 = none
float sum = 0, average = 0, count = 0;  // running statistics of the edges

constexpr const char kRateMinutes[] = "TORVANEX_CMOS_CLOCK_UPDATE_RATE_MINUTES";
constexpr const char kRatePrivate[] = "TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE";
constexpr const char kOffsetUsec[] = "TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC";

// The CMOS clock's record and the C library's broken-down time name their
// nine fields alike.
template <class To, class From>
To same_fields(const From &f) {
    To t{};
    t.tm_sec = f.tm_sec;
    t.tm_min = f.tm_min;
    t.tm_hour = f.tm_hour;
    t.tm_mday = f.tm_mday;
    t.tm_mon = f.tm_mon;
    t.tm_year = f.tm_year;
    t.tm_wday = f.tm_wday;
    t.tm_yday = f.tm_yday;
    t.tm_isdst = f.tm_isdst;
    return t;
}

constexpr const char *kTrueWords[] = {"true", "True", "TRUE", "yes", "Yes", "YES"};
constexpr const char *kFalseWords[] = {"false", "False", "FALSE", "no", "No", "NO"};

}  // namespace

ClockFileVerdict scan_clock_file(FILE *f) {
    char piece[80];
    bool tagged = false;
    // fgets-sized pieces; the one that runs into the end of the file is not
    // looked at.
    while (std::fgets(piece, sizeof piece, f) != nullptr && !std::feof(f)) {
        if (std::strncmp(piece, "UTC=", 4) != 0) continue;
        tagged = true;
        for (const char *w : kTrueWords)
            if (std::strstr(piece, w) != nullptr) return ClockFileVerdict::Utc;
        for (const char *w : kFalseWords)
            if (std::strstr(piece, w) != nullptr) return ClockFileVerdict::Local;
    }
    return tagged ? ClockFileVerdict::TagUnparsed : ClockFileVerdict::NoTag;
}

ClockFileVerdict scan_clock_text(const char *text, size_t len) {
    if (text == nullptr || len == 0) return ClockFileVerdict::NoTag;
    FILE *f = fmemopen(const_cast<char *>(text), len, "r");
    if (f == nullptr) return ClockFileVerdict::NoFile;
    ClockFileVerdict v = scan_clock_file(f);
    std::fclose(f);
    return v;
}

ClockFileVerdict scan_clock_path(const char *path) {
    FILE *f = std::fopen(path, "re");
    if (f == nullptr) return ClockFileVerdict::NoFile;
    ClockFileVerdict v = scan_clock_file(f);
    std::fclose(f);
    return v;
}

}  // namespace kavro::detail

using namespace kavro::detail;

extern "C" {

KAVRO_API int32_t GetSycconfigCMOSClockUTCSetting(void) {
    static constexpr const char fn[] = "GetSycconfigCMOSClockUTCSetting";
    switch (scan_clock_path(kSysconfigClockPath)) {
        case ClockFileVerdict::Utc: return 1;
        case ClockFileVerdict::Local: return 0;
        case ClockFileVerdict::NoFile: diag(fn, "/etc/sysconfig/clock not found assuming CMOS in UTC\n"); return 1;
        case ClockFileVerdict::TagUnparsed:
            diag(fn, "/etc/sysconfig/clock found UTC tag, but could not parse data - assuming UTC\n");
            return 1;
        case ClockFileVerdict::NoTag: break;
    }
    diag(fn, "/etc/sysconfig/clock Did not find UTC tag Assuming UTC\n");
    return 1;
}

KAVRO_API int32_t GetLocalUTCDelta(void) {
    const time_t now = std::time(nullptr);
    tm local{};
    if (localtime_r(&now, &local) == nullptr) return 0;
    return static_cast<int32_t>(timegm(&local) - now);
}

KAVRO_API int32_t CMOS_GetEnvironment(void) {
    static constexpr const char fn[] = "CMOS_GetEnvironment";
    g_WriteIntervalTime_sec = 0;
    bool inSeconds = false;

    int32_t v = 0;
    if (env_strtol(kRateMinutes, &v))
        g_WriteIntervalTime_sec = v > INT32_MAX / 60 ? INT32_MAX : v < INT32_MIN / 60 ? INT32_MIN : v * 60;
    if (env_strtol(kRatePrivate, &v) && v != 0) {
        if (v <= 59)
            diag(fn,
                 "WARNING: Using update rates of less than 1 minute (%u seconds) might cause "
                 "performance issues\n",
                 static_cast<unsigned>(v));
        g_WriteIntervalTime_sec = v;
        inSeconds = true;
    }
    if (g_WriteIntervalTime_sec == 0) return 0;

    g_TimeOffset_usec = kDefaultCmosOffsetUsec;
    if (env_strtol(kOffsetUsec, &v)) g_TimeOffset_usec = static_cast<uint32_t>(v);
    if (g_TimeOffset_usec > 999999u) g_TimeOffset_usec = kDefaultCmosOffsetUsec;

    if (inSeconds)
        diag(fn, "KMX CMOS UPDATE Interval =%u seconds\n", static_cast<unsigned>(g_WriteIntervalTime_sec));
    else
        diag(fn, "KMX CMOS UPDATE Interval =%u minutes\n", static_cast<unsigned>(g_WriteIntervalTime_sec / 60));
    if (g_TimeOffset_usec != kDefaultCmosOffsetUsec)
        diag(fn, "KMX CMOS UPDATE OFFSET =%u \n", static_cast<unsigned>(g_TimeOffset_usec));

    g_IsCMOSInUTC = GetSycconfigCMOSClockUTCSetting();
    diag(fn, "CMOS clock in %s\n", g_IsCMOSInUTC ? "UTC" : "LOCAL");
    g_UTCDelta = GetLocalUTCDelta();
    diag(fn, "UTC to LOCAL Delta=%i\n", static_cast<int>(g_UTCDelta));
    return 0;
}

KAVRO_API int32_t Set_CMOS_From_OSTime(int32_t fd) {
    static constexpr const char fn[] = "Set_CMOS_From_OSTime";
    time_t t = std::time(nullptr);
    if (g_IsCMOSInUTC == 0 && g_UTCDelta != 0) t += g_UTCDelta;
    tm b{};
    if (gmtime_r(&t, &b) == nullptr) {
        diag(fn, "Error converting time_t time to struct tm time\n");
        return -1;
    }

    timeval wall{};
    gettimeofday(&wall, nullptr);
    timespec mono{};
    sys_clock_gettime(CLOCK_MONOTONIC, &mono);

    if (printed_SettingCMOS <= 9) {
        diag(fn, "KMX Setting CMOS clock now! %u\n", static_cast<unsigned>(wall.tv_sec));
        if (++printed_SettingCMOS == 10) diag(fn, "KMX No More CMOS Updates prints this run\n");
    }
    if (MONOTONICLast.tv_sec != 0) {
        const uint32_t last = static_cast<uint32_t>(MONOTONICLast.tv_sec);
        const uint32_t now = static_cast<uint32_t>(mono.tv_sec);
        const uint32_t interval = static_cast<uint32_t>(g_WriteIntervalTime_sec);
        if (now - last != interval) {
            if (printed_SetError <= 9)
                diag(fn,
                     "CMOS RTC SET WARNING Last was %u Current is %u Diff=%u not equal to "
                     "interval %u\n",
                     last, now, now - last, interval);
            ++printed_SetError;
        }
    }
    MONOTONICLast = mono;

    const rtc_time rt = same_fields<rtc_time>(b);
    const int rc = ioctl(fd, RTC_SET_TIME, &rt);
    if (rc == -1) diag(fn, "Error reading the CMOS clock error =%u\n", static_cast<unsigned>(rc));
    return 0;
}

KAVRO_API int32_t Read_CMOS_UntilChange(int32_t fd, int32_t reset) {
    if (reset != 0) CMOSTimePrev = tm{};

    timeval wall{};
    gettimeofday(&wall, nullptr);
    rtc_time rt{};
    const int rc = ioctl(fd, RTC_RD_TIME, &rt);
    if (rc == -1) {
        GP_printf("KAVRO:%s: ERROR, Error setting the CMOS clock error =%u\n", "Read_CMOS_UntilChange",
                  static_cast<unsigned>(rc));
        return 0;
    }
    const tm reading = same_fields<tm>(rt);

    if (CMOSTimePrev.tm_sec == 0) {
        CMOSTimePrev = reading;
        return 0;
    }
    if (reading.tm_sec == CMOSTimePrev.tm_sec) return 0;

    int32_t delta = static_cast<int32_t>(wall.tv_usec);
    if (delta > 900000) delta -= 1000000;
    count += 1;
    sum += static_cast<float>(delta);
    average = sum / count;
    std::printf("Delta=%06i Average =%f micro seconds\n", static_cast<int>(delta), static_cast<double>(average));
    CMOSTimePrev = reading;
    return 1;
}

}  // extern "C"
