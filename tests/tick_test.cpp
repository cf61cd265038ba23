// The native tick loop: one pass's arithmetic with synthetic clock readings,
// then the running loop (rate, deletion, profile line) in child processes.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"
#include "timer.hpp"

namespace {

using namespace kavro::detail;
using kavro::test::run_in_child;

constexpr int64_t kMs = 1000000;
constexpr int64_t kStart = 100000 * kMs;  // the first clock reading: 100 s

// A loop after its first pass; returns the deadline it sleeps to.
int64_t after_first_pass(NativeLoopState &s, int32_t minUs = 150) {
    native_start(s, from_ns(kStart), 60, minUs);
    native_pass(s, from_ns(kStart));
    return to_ns(s.target);
}

TEST(NativePass, LateWakeUpsSkipMissedDeadlinesAndKeepTheGrid) {
    NativeLoopState s;
    int64_t deadline = after_first_pass(s);
    EXPECT_EQ(deadline, kStart + 2 * kMs);

    PassOutcome o = native_pass(s, from_ns(deadline + 5300000));  // 5.3 ms late
    EXPECT_EQ(o.missed, 2u);
    EXPECT_TRUE(s.PM == 2 && s.TM == 2 && s.MSM == 2);
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(to_ns(s.target), deadline + 6 * kMs);  // 0.7 ms after the wake-up

    deadline = after_first_pass(s);
    o = native_pass(s, from_ns(deadline + 1900000));  // 1.9 ms late: 100 us left, no sleep
    EXPECT_FALSE(o.sleep);
    EXPECT_EQ(s.TBT, 1u);
    o = native_pass(s, from_ns(deadline + 1920000));  // the next pass, 80 us early
    EXPECT_FALSE(o.negativeDiff);
    EXPECT_EQ(s.ED, 1u);
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(to_ns(s.target), deadline + 4 * kMs);  // a full period, phase kept
    EXPECT_EQ(s.PM, 0u);
    EXPECT_EQ(s.intervalSumNs, static_cast<uint64_t>(1920000 + 2 * kMs));

    deadline = after_first_pass(s, 300);  // a larger minimum serves 1.75 ms late early too
    EXPECT_FALSE(native_pass(s, from_ns(deadline + 1750000)).sleep);
}

TEST(NativePass, EarlyWakeWithoutSkippedSleepMovesTheGrid) {
    NativeLoopState s;
    const int64_t now = after_first_pass(s) - 300000;
    PassOutcome o = native_pass(s, from_ns(now));
    EXPECT_TRUE(o.negativeDiff);
    EXPECT_EQ(o.lateness, -300000);
    EXPECT_EQ(s.ED, 0u);
    EXPECT_EQ(to_ns(s.target), now + 2 * kMs);
}

TEST(NativeProfile, PeriodEndsWhenTheServedDeadlinePassesTheBoundary) {
    NativeLoopState s;
    native_start(s, from_ns(kStart), 1, 150);
    ProfileLine line{};
    int lines = 0;
    for (int pass = 0; pass < 1100; ++pass) {
        if (native_profile(s, 1, &line)) {
            ++lines;
            EXPECT_EQ(to_ns(s.target), kStart + 2000 * kMs);  // the first deadline past 101 s
            EXPECT_EQ(line.TC, 1000u);
            EXPECT_EQ(line.AT, 1998u);  // 999 intervals of 2 ms over 1000 passes
            EXPECT_TRUE(line.PM == 1 && line.TM == 1 && line.MSM == 1);
        }
        native_pass(s, from_ns(to_ns(s.target) + (pass == 500 ? 2100000 : 0)));
    }
    EXPECT_EQ(lines, 1);
    EXPECT_EQ(s.nextProfileSec, 102);
    EXPECT_EQ(s.TM, 1u);  // never reset
    EXPECT_EQ(s.PM, 0u);
}

// ---- the running loop ----------------------------------------------------------------------

std::atomic<uint32_t> calls{0};
int32_t count_call(uint32_t arg) {
    calls.fetch_add(arg);
    return 0;
}

TEST(NativeLoop, CallsBackAboutFiveHundredTimesASecondUntilDeleted) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("tick rate");
    const int status = run_in_child([] {
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        TmrTimer *t = nullptr;
        if (TMR_Init() != 0 || TMR_Create(&t, 2.0, count_call, 1) != 0 || t == nullptr) return 1;
        usleep(20000);
        if (calls.load() == 0) return 2;  // from the first tick on
        const uint32_t start = calls.load();
        usleep(1000000);
        const uint32_t n = calls.load() - start;
        if (n < 350 || n > 650) return 3;
        TMR_Delete(t);
        const uint32_t atDelete = calls.load();
        usleep(50000);
        return calls.load() <= atDelete + 1 ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
}

TEST(NativeLoop, ProfileLineEachPeriodWhenTheHostAsksBeforeInit) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("tick timing");
    kavro::test::ScratchDir dir;
    const std::string err = dir.path() + "/err";
    const int status = run_in_child([&] {
        if (!freopen(err.c_str(), "w", stderr)) return 99;
        g_TimerProfilePeriodSec = 1;
        g_TimerProfilePrint = 1;
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        if (TMR_Init() != 0) return 1;
        usleep(3500000);
        return 0;
    });
    ASSERT_EQ(status, 0);
    const std::string text = kavro::test::read_file(err);
    int lines = 0;
    for (size_t pos = 0; (pos = text.find("KAVRO: TC:", pos)) != std::string::npos; ++pos) {
        unsigned long long tc, pm, tm, msm, at, tbt, ed;
        ASSERT_EQ(std::sscanf(text.c_str() + pos, "KAVRO: TC:%llu PM:%llu TM:%llu MSM:%llu AT:%llu TBT:%llu ED:%llu\n",
                              &tc, &pm, &tm, &msm, &at, &tbt, &ed), 7) << text;
        if (++lines == 1) continue;  // the first period is cut short by the start
        EXPECT_TRUE(tc + pm > 400 && tc < 600) << text;
        EXPECT_TRUE(at > 1500 && at < 2500) << text;
    }
    EXPECT_TRUE(lines >= 2 && lines <= 4) << text;
}

TEST(LatencyStats, GridLatenessHistogramAndPercentiles) {
    EXPECT_EQ(grid_lateness_ns(10 * kMs + 7000, 0, 2 * kMs, 300000), 7000);
    EXPECT_EQ(grid_lateness_ns(10 * kMs - 100000, 0, 2 * kMs, 300000), -100000);  // early service
    EXPECT_EQ(grid_lateness_ns(10 * kMs - 400000, 0, 2 * kMs, 300000), 1600000);
    EXPECT_EQ(grid_lateness_ns(-1 * kMs, 0, 2 * kMs, 0), kMs);

    static LatencyStats s;
    for (int i = 0; i < 98; ++i) s.add(10000 + i);
    s.add(-20000);
    s.add(50 * kMs);  // beyond the histogram
    EXPECT_TRUE(s.count == 100 && s.early == 1 && s.minNs == -20000 && s.maxNs == 50 * kMs);
    EXPECT_EQ(s.percentile_us(0.01), 0);
    EXPECT_EQ(s.percentile_us(0.5), 10);
    EXPECT_EQ(s.percentile_us(0.99), 10);
    EXPECT_EQ(s.percentile_us(1.0), LatencyStats::kMaxUs);
    EXPECT_NEAR(s.mean_us(), (98 * 10000 + 4753 - 20000 + 50 * kMs) / 100.0 / 1000.0, 1e-9);
}

}  // namespace
