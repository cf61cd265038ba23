// CMOS clock synchronisation: clock file, environment, writes and edge measurement via an emulated RTC.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <vector>

#include "frame/internal.hpp"
#include "rtc_emulator.h"
#include "test_support.hpp"
#include "timer/cmos.hpp"
#include "timer/tmr.hpp"

namespace {

using namespace kavro::detail;
using namespace kavro::test;
using Env = std::vector<std::pair<std::string, std::string>>;
using Child = ChildOutput;

// run_captured with the environment `env` set first.
Child in_child(const Env &env, const std::function<int()> &fn) {
    return run_captured([&] {
        for (const auto &[k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        tzset();
        return fn();
    });
}

// In the child: a private /etc/sysconfig holding `text` as the clock file (none when null).
bool clock_file(const char *text) {
    std::string why;
    if (!private_mounts({"/etc/sysconfig"}, &why)) return std::fprintf(stderr, "%s\n", why.c_str()), false;
    return text == nullptr || write_file(kSysconfigClockPath, text);
}

std::vector<std::string> lines_with(const std::string &text, const std::string &part) {
    std::vector<std::string> found;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        if (l.find(part) != std::string::npos) found.push_back(l);
    return found;
}

TEST(ClockFile, ScanReadsPiecesAndSkipsTheUnterminatedLastLine) {
    using V = ClockFileVerdict;
    const std::string pad79 = "UTC=yes" + std::string(72, ' ');  // 79 characters, no newline
    const std::pair<std::string, V> cases[] = {
        {"UTC=false\n", V::Local},
        {"ZONE=\"Europe/Berlin\"\nUTC=yes\n", V::Utc},
        {"UTC=NO\nUTC=YES\n", V::Local},  // the first deciding line wins
        {"UTC=noyes\n", V::Utc},          // true words are searched first
        {"UTC=maybe\nUTC=\n", V::TagUnparsed},
        {"UTC=true", V::NoTag},  // last line lacks its newline
        {"UTC=maybe\nUTC=true", V::TagUnparsed},
        {" UTC=true\n# UTC=true\n", V::NoTag},
        {"", V::NoTag},
        // Long lines arrive in 79-character pieces, each examined alone, the last one too.
        {std::string(79, 'x') + "UTC=no\n", V::Local},
        {"UTC=" + std::string(100, 'x') + "yes\n", V::TagUnparsed},
        {pad79, V::Utc},
        {pad79 + "z", V::Utc},
        // Bytes after a NUL are not part of the piece.
        {std::string("UTC=\0yes\n", 9), V::TagUnparsed},
        {std::string("\0UTC=yes\n", 9), V::NoTag},
        {std::string(1 << 20, '\xff'), V::NoTag},
    };
    for (const auto &[text, verdict] : cases)
        EXPECT_EQ(scan_clock_text(text.data(), text.size()), verdict) << "text: " << text.substr(0, 120);
    ScratchDir dir;
    EXPECT_EQ(scan_clock_path((dir.path() + "/none").c_str()), ClockFileVerdict::NoFile);
}

TEST(ClockFile, FixedPathDefaultsToUtcWithAReason) {
    const Child c = in_child({}, [] {
        if (!clock_file(nullptr)) return kNoMounts;
        std::string got = std::to_string(GetSycconfigCMOSClockUTCSetting());
        for (const char *text : {"UTC=false\n", "UTC=Yes\n", "UTC=maybe\n", "UTC=true"}) {
            write_file(kSysconfigClockPath, text);
            got += " " + std::to_string(GetSycconfigCMOSClockUTCSetting());
        }
        std::printf("%s", got.c_str());
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(c.status) << c.err;
    ASSERT_EQ(c.status, 0) << c.err;
    EXPECT_EQ(c.out, "1 0 1 1 1");
    const std::string fn = "KAVRO:GetSycconfigCMOSClockUTCSetting: /etc/sysconfig/clock ";
    EXPECT_EQ(c.err, fn + "not found assuming CMOS in UTC\n" + fn +
                         "found UTC tag, but could not parse data - assuming UTC\n" + fn +
                         "Did not find UTC tag Assuming UTC\n");
}

TEST(CmosEnvironment, VariablesSetIntervalOffsetAndReport) {
    const char *kMin = "TORVANEX_CMOS_CLOCK_UPDATE_RATE_MINUTES", *kSec = "TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE",
               *kOff = "TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC";
    const std::string fn = "KAVRO:CMOS_GetEnvironment: ",
                      local = fn + "CMOS clock in LOCAL\n" + fn + "UTC to LOCAL Delta=10800\n";
    const std::string under = " might cause performance issues\n";
    const struct {
        Env env;
        std::string err, out;
    } cases[] = {
        // out: interval offset afterwards
        {{}, "", "0 500000"},
        {{{kSec, "0"}}, "", "0 500000"},
        {{{kMin, "11"}, {kOff, "1000000"}}, fn + "KMX CMOS UPDATE Interval =11 minutes\n" + local, "660 500000"},
        {{{kMin, "11"}, {kOff, "-5"}}, "", "660 500000"},
        {{{kMin, "11"}, {kSec, "30"}},
         fn + "WARNING: Using update rates of less than 1 minute (30 seconds)" + under + fn +
             "KMX CMOS UPDATE Interval =30 seconds\n" + local,
         "30 500000"},
        {{{kMin, "11xyz"}, {kOff, "250000"}}, fn + "KMX CMOS UPDATE OFFSET =250000 \n", "660 250000"},
        // Negative rates are taken, reported unsigned, and the interval follows.
        {{{kMin, "-3"}}, fn + "KMX CMOS UPDATE Interval =4294967293 minutes\n" + local, "-180 500000"},
        {{{kSec, "-30"}},
         fn + "WARNING: Using update rates of less than 1 minute (4294967266 seconds)" + under + fn +
             "KMX CMOS UPDATE Interval =4294967266 seconds\n" + local,
         "-30 500000"},
        {{{kMin, "99999999999"}}, "Interval =35791394 minutes\n", "2147483647 500000"},
    };
    for (const auto &c : cases) {
        Env env = c.env;
        env.emplace_back("TZ", "<+03>-3");
        const Child r = in_child(env, [] {
            if (!clock_file("UTC=no\n")) return kNoMounts;
            if (CMOS_GetEnvironment() != 0) return 1;
            return std::printf("%d %u", g_WriteIntervalTime_sec, g_TimeOffset_usec), 0;
        });
        KAVRO_SKIP_IF_NO_MOUNTS(r.status) << r.err;
        EXPECT_TRUE(r.status == 0 && r.out == c.out && r.err.find(c.err) != std::string::npos &&
                    (!c.out.starts_with("0 ") || r.err == c.err))
            << r.out << "\n"
            << r.err;  // unset: silent
    }
    // A negative interval means the unsigned number reported: no write falls due.
    uint32_t start = 0;
    EXPECT_FALSE(cmos_write_due(&start, 100, 600000, -180, 500000) ||
                 cmos_write_due(&start, 90000, 600000, -180, 500000));
}

TEST(CmosEnvironment, LocalDeltaFollowsTheTimeZone) {
    for (const auto &[tz, delta] :
         std::vector<std::pair<const char *, int>>{{"UTC0", 0}, {"<+03>-3", 10800}, {"<-0530>+5:30", -19800}}) {
        EXPECT_EQ(in_child({{"TZ", tz}}, [] { return std::printf("%d", GetLocalUTCDelta()), 0; }).out,
                  std::to_string(delta))
            << tz;
    }
}

// On a descriptor where every RTC request fails: a failed reading counts no edge.
TEST(CmosWrite, PrintsAreCappedIntervalMismatchesWarnedAndFailuresReported) {
    const Child c = in_child({}, [] {
        const int fd = open("/dev/null", O_RDONLY);
        g_WriteIntervalTime_sec = 60;
        for (int i = 0; i < 12; ++i)
            if (Set_CMOS_From_OSTime(fd) != 0) return 1;
        return std::printf("%d", Read_CMOS_UntilChange(fd, 1) + Read_CMOS_UntilChange(fd, 0)), 0;
    });
    ASSERT_TRUE(c.status == 0 && c.out == "0") << c.out << c.err;  // a failed reading counts no edge
    EXPECT_EQ(
        lines_with(c.err, "KAVRO:Read_CMOS_UntilChange: ERROR, Error setting the CMOS clock error =4294967295").size(),
        2u);
    EXPECT_EQ(lines_with(c.err, "Error reading the CMOS clock error =4294967295").size(), 12u);
    const auto warnings = lines_with(c.err, "CMOS RTC SET WARNING Last was ");
    ASSERT_EQ(warnings.size(), 10u);
    EXPECT_NE(warnings[0].find("Diff=0 not equal to interval 60"), std::string::npos) << warnings[0];
    // Ten setting lines, then once the no-more line.
    const auto all = lines_with(c.err, "KMX ");
    EXPECT_TRUE(all.size() == 11 && all[10] == "KAVRO:Set_CMOS_From_OSTime: KMX No More CMOS Updates prints this run" &&
                lines_with(c.err, "KMX Setting CMOS clock now! ").size() == 10)
        << c.err;
}

// The preloaded driver: writes when due at each emulated interrupt, as the CMOS thread does; then measures.
int drive_writes() {
    if (!clock_file(std::getenv("KAVRO_CMOS_CLOCK_TEXT"))) return kNoMounts;
    CMOS_GetEnvironment();
    const int fd = open("/dev/rtc", O_RDONLY);
    if (fd < 0 || ioctl(fd, RTC_IRQP_SET, 1024) != 0 || ioctl(fd, RTC_PIE_ON, 0) != 0) return 2;

    timespec mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    const int64_t end = to_ns(mono) / 1000000 + std::strtol(std::getenv("KAVRO_CMOS_RUN_MS"), nullptr, 10);
    uint32_t periodStart = 0;
    for (;;) {
        uint32_t word = 0;
        if (read(fd, &word, sizeof word) != 4 || (word & 0xFF) != (RTC_PF | RTC_IRQF)) return 3;
        clock_gettime(CLOCK_MONOTONIC, &mono);
        if (to_ns(mono) / 1000000 >= end) break;
        timeval wall{};
        gettimeofday(&wall, nullptr);
        if (g_WriteIntervalTime_sec != 0 &&
            cmos_write_due(&periodStart, static_cast<uint32_t>(mono.tv_sec), static_cast<uint32_t>(wall.tv_usec),
                           g_WriteIntervalTime_sec, g_TimeOffset_usec))
            Set_CMOS_From_OSTime(fd);
    }

    Read_CMOS_UntilChange(fd, 1);
    for (int i = 0; i < 3000 && Read_CMOS_UntilChange(fd, 0) == 0; ++i) usleep(1000);
    rtc_time rt{};
    if (ioctl(fd, RTC_RD_TIME, &rt) != 0) return 4;
    tm b{};
    b.tm_sec = rt.tm_sec, b.tm_min = rt.tm_min, b.tm_hour = rt.tm_hour;
    b.tm_mday = rt.tm_mday, b.tm_mon = rt.tm_mon, b.tm_year = rt.tm_year;
    std::printf("cmos %lld now %lld\n", static_cast<long long>(timegm(&b)), static_cast<long long>(time(nullptr)));
    return close(fd) == 0 ? 0 : 5;
}

// A test process started with KAVRO_CMOS_DRIVER set is the driver: it works before the tests would run, and exits.
[[gnu::constructor]] void run_driver_role() {
    if (std::getenv("KAVRO_CMOS_DRIVER") == nullptr) return;
    unsetenv("KAVRO_CMOS_DRIVER");
    const int rc = drive_writes();
    std::fflush(nullptr);
    _exit(rc);
}

// The driver with a local (three hours ahead) and a UTC clock file: the writes land after the configured
// microsecond with the zone's offset, one a second, and the edge measurement finds the second they restarted.
TEST(CmosEmulated, WritesLandAtTheConfiguredMicrosecondWithTheZoneOffset) {
    const bool native = !kavro::test::emulated();
    for (const auto &[delta, file] : {std::pair<int64_t, const char *>{10800, "UTC=no\n"}, {0, "UTC=yes\n"}}) {
        SCOPED_TRACE(file);
        ScratchDir dir;
        const std::string log = dir.path() + "/rtc.log";
        const Child c = in_child({{"TZ", "<+03>-3"},
                                  {"TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE", "1"},
                                  {"TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC", "250000"},
                                  {"KAVRO_CMOS_CLOCK_TEXT", file},
                                  {"KAVRO_CMOS_RUN_MS", "3600"},
                                  {"KAVRO_RTC_LOG", log},
                                  {"KAVRO_CMOS_DRIVER", "writes"},
                                  {"LD_PRELOAD", KAVRO_RTC_EMULATOR_PATH}},
                                 [] { return execl("/proc/self/exe", "cmos", static_cast<char *>(nullptr)), 127; });
        KAVRO_SKIP_IF_NO_MOUNTS(c.status) << c.err;
        ASSERT_EQ(c.status, 0) << c.err;
        std::vector<kavro_rtc_set> sets;
        for (const std::string &line : lines_with(read_file(log), "SET "))
            if (kavro_rtc_set s{}; kavro_rtc_parse_set(line.c_str(), &s)) sets.push_back(s);
        // One write per second once the monotonic second after the first wake-up has come, in 3.6 s.
        ASSERT_TRUE(sets.size() >= 2 && sets.size() <= 4) << read_file(log);
        EXPECT_EQ(lines_with(c.err, "KMX Setting CMOS clock now! ").size(), sets.size());
        for (size_t i = 0; i < sets.size(); ++i) {
            const kavro_rtc_set &s = sets[i];
            // Written with its own second (or the one before, when the write straddled a boundary).
            EXPECT_TRUE(s.wall_usec >= 250000 && s.epoch - s.wall_sec >= delta - 1 && s.epoch - s.wall_sec <= delta)
                << i;
            if (i > 0 && native) {
                EXPECT_NEAR((s.wall_sec - sets[i - 1].wall_sec) * 1000000 + (s.wall_usec - sets[i - 1].wall_usec),
                            1000000, 150000);
            }
        }
        EXPECT_TRUE(!native || lines_with(c.err, "CMOS RTC SET WARNING").empty()) << c.err;
        // The last write restarted the CMOS second; the edge measurement must find its turn 500 ms later.
        int edge = 0;
        float average = 0;
        long long cmos = 0, now = 0;
        ASSERT_EQ(std::sscanf(c.out.c_str(), "Delta=%d Average =%f micro seconds\ncmos %lld now %lld", &edge, &average,
                              &cmos, &now),
                  4)
            << c.out;
        EXPECT_EQ(static_cast<int>(average), edge);
        const int expected = static_cast<int>((sets.back().wall_usec + 500000) % 1000000);
        if (native) {
            EXPECT_NEAR(edge, expected > 900000 ? expected - 1000000 : expected, 50000);
        }
        EXPECT_TRUE(cmos - now >= delta - 1 && cmos - now <= delta + 1) << cmos - now;
    }
}

}  // namespace
