// The RTC tick loop: its per-interrupt decision with synthetic times of day,
// the timer count-down, the CMOS pacing; then the loop, its watchdog and
// failures through the emulated /dev/rtc, and the POSIX-timer signal role.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "rtc_emulator.h"
#include "test_support.hpp"
#include "timer.hpp"

namespace {

using namespace kavro::detail;

// ---- the dispatch decision ----------------------------------------------------------

constexpr int64_t kOriginUs = 1000LL * 1000000;  // grid origin: 1000 s into the day

timeval tod(int64_t us) {
    timeval t{};
    t.tv_sec = static_cast<time_t>(us / 1000000);
    t.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return t;
}

// Time of day of interrupt k of a 4096 Hz train started at the origin,
// relative to the origin, as gettimeofday would give it.
int64_t irq_us(int k) { return static_cast<int64_t>(k) * 1000000 / 4096; }

struct Dispatch {
    int64_t atUs;  // relative to the first origin
    uint64_t served;
};

// Feeds interrupts `ks` and returns the dispatches.
std::vector<Dispatch> feed(RtcGrid &g, const std::vector<int> &ks, bool catchUp) {
    std::vector<Dispatch> d;
    for (int k : ks) {
        const int64_t at = irq_us(k);
        if (rtc_decide(g, tod(kOriginUs + at), catchUp, 244).dispatch) d.push_back({at, g.served});
    }
    return d;
}

std::vector<int> range(int from, int to) {
    std::vector<int> v;
    for (int k = from; k <= to; ++k) v.push_back(k);
    return v;
}

RtcGrid grid_at_origin() {
    RtcGrid g;
    rtc_start(g, tod(kOriginUs));
    return g;
}

TEST(RtcDecision, SteadyInterruptsServeEveryBoundaryOnceAlternatelyEarlyAndLate) {
    RtcGrid g = grid_at_origin();
    const auto d = feed(g, range(1, 4096), false);  // one second
    ASSERT_GE(d.size(), 5u);
    const int64_t firstFive[] = {2197, 3906, 6103, 7812, 10009};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(d[i].atUs, firstFive[i]) << i;
    ASSERT_EQ(d.size(), 500u);
    for (size_t i = 0; i < d.size(); ++i) {
        EXPECT_EQ(d[i].served, i + 1);
        // Within one interrupt period of its boundary, before or after.
        EXPECT_LE(std::llabs(d[i].atUs - static_cast<int64_t>(i + 1) * 2000), 245) << i;
    }
}

TEST(RtcDecision, SevenMsGapDropsTicksOrCatchesThemUp) {
    std::vector<int> ks = range(1, 40);  // up to 9765 us
    for (int k : range(70, 73)) ks.push_back(k);  // 17089 .. 17822 us

    RtcGrid g = grid_at_origin();
    auto d = feed(g, ks, false);
    ASSERT_EQ(d.size(), 6u);
    EXPECT_EQ(d[3].atUs, 7812);  // tick 4, early
    EXPECT_EQ(d[4].atUs, 17089);
    EXPECT_EQ(d[4].served, 8u);  // ticks 5..7 dropped
    EXPECT_EQ(d[5].atUs, 17822);  // and tick 9 early
    EXPECT_EQ(d[5].served, 9u);

    g = grid_at_origin();
    d = feed(g, ks, true);
    ASSERT_EQ(d.size(), 8u);
    const int64_t at[] = {17089, 17333, 17578, 17822};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(d[4 + i].atUs, at[i]);
        EXPECT_EQ(d[4 + i].served, 5u + i);
    }
}

TEST(RtcDecision, ThirteenMsGapRestartsTheGridWithoutServing) {
    std::vector<int> ks = range(1, 40);
    for (int k : range(95, 104)) ks.push_back(k);  // 23193 .. 25390 us
    for (bool catchUp : {false, true}) {
        RtcGrid g = grid_at_origin();
        const auto d = feed(g, ks, catchUp);
        ASSERT_EQ(d.size(), 5u) << catchUp;
        EXPECT_EQ(g.origin.tv_usec, irq_us(95) % 1000000);  // the new origin
        EXPECT_EQ(d[4].atUs, irq_us(104));                  // about 2.2 ms later
        EXPECT_EQ(d[4].served, 1u);
    }
}

TEST(RtcDecision, ClockSetBackOrForwardRestartsTheGrid) {
    RtcGrid g = grid_at_origin();
    feed(g, range(1, 100), false);
    RtcStep s = rtc_decide(g, tod(kOriginUs + irq_us(101) - 1000000), false, 244);
    EXPECT_TRUE(s.rephased);
    EXPECT_FALSE(s.dispatch);
    EXPECT_EQ(g.served, 0u);
    s = rtc_decide(g, tod(kOriginUs + irq_us(102) + 3600LL * 1000000), false, 244);
    EXPECT_TRUE(s.rephased);

    // Five ticks behind is still caught up with; six is not.
    g = grid_at_origin();
    EXPECT_FALSE(rtc_decide(g, tod(kOriginUs + 10100), true, 244).rephased);
    g = grid_at_origin();
    EXPECT_TRUE(rtc_decide(g, tod(kOriginUs + 12100), true, 244).rephased);
}

// ---- the count-down ------------------------------------------------------------------------

TEST(RtcCountDown, FirstCallbackAtTheThousandthTickThenEveryTick) {
    TmrTimer t{KAVRO_TAG_TMR, 2, 2000, 1, nullptr, 0};
    int32_t r = 0;
    for (int tick = 1; tick < 1000; ++tick) {
        ASSERT_FALSE(count_down(&t, 2.0, &r)) << tick;
        ASSERT_EQ(r, 2000 - 2 * tick);
    }
    EXPECT_TRUE(count_down(&t, 2.0, &r));
    EXPECT_EQ(r, 0);
    EXPECT_EQ(t.remainingMs, 2);
    EXPECT_TRUE(count_down(&t, 2.0, &r));
    EXPECT_EQ(r, 0);

    char line[32];
    EXPECT_EQ(std::string(line, format_period_line(line, sizeof line, 1998)), "period is 1998 \n");
    EXPECT_EQ(std::string(line, format_period_line(line, sizeof line, -2147483647 - 1)),
              "period is -2147483648 \n");
}

TEST(CmosPacing, FirstLookStartsTheIntervalWritesAtTheOffset) {
    uint32_t start = 0;
    EXPECT_FALSE(cmos_write_due(&start, 500, 900000, 60, 500000));
    EXPECT_EQ(start, 500u);
    EXPECT_FALSE(cmos_write_due(&start, 559, 900000, 60, 500000));  // interval not over
    EXPECT_FALSE(cmos_write_due(&start, 560, 499999, 60, 500000));  // before mid-second
    EXPECT_TRUE(cmos_write_due(&start, 560, 500000, 60, 500000));
    EXPECT_EQ(start, 560u);
    EXPECT_FALSE(cmos_write_due(&start, 600, 600000, 60, 500000));
    EXPECT_FALSE(cmos_write_due(&start, 700, 600000, 60, 0));  // offset 0: never
}

// ---- through the emulated device, in processes of their own ----------------------------------------

std::atomic<uint32_t> calls{0};
std::atomic<int64_t> firstCallNs{0};
int32_t on_tick(uint32_t) {
    if (calls.fetch_add(1) == 0) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        firstCallNs.store(to_ns(now));
    }
    return 0;
}

int64_t mono_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return to_ns(now);
}

// Sleeps through signals (the POSIX-timer path raises one every 2 ms).
void sleep_ms(int64_t ms) {
    const int64_t end = mono_ns() + ms * 1000000;
    for (int64_t left; (left = end - mono_ns()) > 0;) usleep(static_cast<useconds_t>(left / 1000));
}

int count_threads() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/task")) {
        while (dirent *e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

// The roles a preloaded copy of this program plays (KAVRO_TMR_ROLE).
int role_ticks() {
    setenv("TORVANEX_TMR_USE_RTC", "1", 1);
    if (TMR_Init() != 0) return 1;
    if (count_threads() != 4) return 2;  // caller, loop, CMOS thread, watchdog
    const int64_t armed = mono_ns();
    TmrTimer *t = nullptr;
    if (TMR_Create(&t, 2.0, on_tick, 0) != 0 || t == nullptr) return 3;
    sleep_ms(3500);
    std::printf("first_ms %lld calls %u\n", (long long)((firstCallNs.load() - armed) / 1000000), calls.load());
    return 0;
}

int role_stall() {
    setenv("TORVANEX_TMR_USE_RTC", "1", 1);
    if (TMR_Init() != 0) return 1;
    sleep_ms(11500);  // the stall is seen at 5 s; the next round stays silent
    return 0;
}

int role_fail() {
    setenv("TORVANEX_TMR_USE_RTC", "1", 1);
    if (TMR_Init() != 0) return 1;
    sleep_ms(5000);
    return 77;  // the loop should have ended the process
}

[[gnu::constructor]] void run_role() {
    const char *role = std::getenv("KAVRO_TMR_ROLE");
    if (role == nullptr) return;
    unsetenv("KAVRO_TMR_ROLE");
    int rc = 100;
    if (std::strcmp(role, "ticks") == 0) rc = role_ticks();
    if (std::strcmp(role, "stall") == 0) rc = role_stall();
    if (std::strcmp(role, "fail") == 0) rc = role_fail();
    std::fflush(nullptr);
    _exit(rc);
}

struct RoleRun {
    int status;
    std::string out, err, log;
};

RoleRun run_role(const char *role, std::vector<std::pair<const char *, const char *>> env, int timeout_s = 60) {
    kavro::test::ScratchDir dir;
    const std::string out = dir.path() + "/out", err = dir.path() + "/err", log = dir.path() + "/rtc.log";
    RoleRun r;
    r.status = kavro::test::run_in_child(
        [&] {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) return 99;
            for (auto &[k, v] : env) setenv(k, v, 1);
            setenv("KAVRO_RTC_LOG", log.c_str(), 1);
            setenv("KAVRO_TMR_ROLE", role, 1);
            setenv("LD_PRELOAD", KAVRO_RTC_EMULATOR_PATH, 1);
            execl("/proc/self/exe", "tick_rtc_test", static_cast<char *>(nullptr));
            return 127;
        },
        timeout_s);
    r.out = kavro::test::read_file(out);
    r.err = kavro::test::read_file(err);
    r.log = kavro::test::read_file(log);
    return r;
}

int count_of(const std::string &text, const std::string &part) {
    int n = 0;
    for (size_t p = 0; (p = text.find(part, p)) != std::string::npos; p += part.size()) ++n;
    return n;
}

TEST(RtcLoop, FirstCallbackAfterAThousandTicksThenFiveHundredASecondAndCmosWrites) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("tick timing");
    RoleRun r = run_role("ticks", {{"TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE", "1"},
                               {"TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC", "250000"}});
    ASSERT_EQ(r.status, 0) << r.err;
    long long firstMs = 0;
    unsigned callsMade = 0;
    ASSERT_EQ(std::sscanf(r.out.c_str(), "first_ms %lld calls %u", &firstMs, &callsMade), 2) << r.out;
    EXPECT_GT(firstMs, 1800);
    EXPECT_LT(firstMs, 2600);
    // About 1.5 s of callbacks at 500 a second.
    EXPECT_GT(callsMade, 500u);
    EXPECT_LT(callsMade, 1000u);
    EXPECT_EQ(count_of(r.log, "IRQP_SET 4096"), 1) << r.log;
    EXPECT_EQ(count_of(r.err, "not ticking"), 0) << r.err;

    // The CMOS thread, woken by the loop, wrote at or after the offset.
    std::istringstream in(r.log);
    int sets = 0;
    for (std::string line; std::getline(in, line);) {
        kavro_rtc_set s{};
        if (!kavro_rtc_parse_set(line.c_str(), &s)) continue;
        ++sets;
        EXPECT_GE(s.wall_usec, 250000) << line;
    }
    EXPECT_GE(sets, 1) << r.log;
    EXPECT_LE(sets, 4) << r.log;  // whole monotonic seconds: the first may come early
}

TEST(RtcLoop, StalledClockIsReportedAndReprogrammedOnce) {
    KAVRO_REQUIRE_RT();
    RoleRun r = run_role("stall", {{"KAVRO_RTC_STALL_AFTER", "0"}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(count_of(r.err,
                       "KAVRO:TMR_Watchdog: ERROR, The RTC clock is not ticking.  To correct this specify, "
                       "\"hpet=disable\" (32-bit system) or \"nohpet\" (64-bit system) on the kernel boot line.\n"),
              1)
        << r.err;
    EXPECT_EQ(count_of(r.log, "IRQP_SET 4096"), 2) << r.log;  // start and one re-programming
    EXPECT_EQ(count_of(r.log, "PIE_ON"), 2) << r.log;
}

TEST(RtcLoop, DeviceFailuresEndTheProcessWithTheErrorNumber) {
    KAVRO_REQUIRE_RT();
    struct Case {
        const char *fail, *line;
        int status;
    } cases[] = {
        {"open", "KAVRO:TMR_Handler: ERROR: Failed to open /dev/rtc, errno 2\n", ENOENT},
        {"irqp", "KAVRO:TMR_Handler: ERROR: Failed to set RTC IRQ freq, errno 22\n", EINVAL},
        {"pie", "KAVRO:TMR_Handler: ERROR: Failed to enable RTC interrupts, errno 5\n", EIO},
        {"read@3", "KAVRO:TMR_Handler: ERROR: RTC read failed, errno 5\n", EIO},
    };
    for (const Case &c : cases) {
        RoleRun r = run_role("fail", {{"KAVRO_RTC_FAIL", c.fail}});
        EXPECT_EQ(r.status, c.status) << c.fail << "\n" << r.err;
        EXPECT_NE(r.err.find(c.line), std::string::npos) << c.fail << "\n" << r.err;
    }
}

// ---- the POSIX-timer path ---------------------------------------------------------------------

TEST(PosixTimerPath, SignalRoleCountsDownPrintsEachTickAndCallsBackAtZero) {
    KAVRO_REQUIRE_RT();
    kavro::test::ScratchDir dir;
    const std::string out = dir.path() + "/out", err = dir.path() + "/err";
    const int status = kavro::test::run_in_child(
        [&] {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) return 99;
            setenv("TORVANEX_TMR_USE_RTC", "1", 1);
            setenv("PELOSHRT", "", 1);
            if (TMR_Init() != 0) return 1;
            if (count_threads() != 1 || rtcEnabled != 0) return 2;  // no loop, watchdog or CMOS thread
            TmrTimer *t = nullptr;
            if (TMR_Create(&t, 2.0, on_tick, 0) != 0 || t == nullptr) return 3;
            const int64_t give_up = mono_ns() + 30LL * 1000000000;
            while (calls.load() < 20 && mono_ns() < give_up) sleep_ms(10);
            TMR_Delete(t);
            return calls.load() >= 20 ? 0 : 4;
        },
        60);
    const std::string text = kavro::test::read_file(out);
    ASSERT_EQ(status, 0) << kavro::test::read_file(err);

    std::istringstream in(text);
    std::vector<int> r;
    for (std::string line; std::getline(in, line);) {
        int v = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "period is %d ", &v), 1) << line;
        ASSERT_EQ(line.back(), ' ');
        r.push_back(v);
    }
    ASSERT_GE(r.size(), 1019u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(r[i], 1998 - 2 * i) << i;
    for (size_t i = 1000; i < r.size(); ++i) ASSERT_EQ(r[i], 0) << i;
}

}  // namespace
