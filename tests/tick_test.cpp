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
constexpr int64_t kSec = 1000 * kMs;

timespec at_ns(int64_t ns) { return from_ns(ns); }

// A loop started at 100 s, with the default minimum time to target.
NativeLoopState started(int32_t minUs = 150) {
    NativeLoopState s;
    native_start(s, at_ns(100 * kSec), 60, minUs);
    return s;
}

TEST(NativePass, OnTimeWakeUpSleepsToTheNextGridPoint) {
    NativeLoopState s = started();
    PassOutcome o = native_pass(s, at_ns(100 * kSec + 30000));  // first pass, 30 us in
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(o.missed, 0u);
    EXPECT_EQ(to_ns(s.target), 100 * kSec + 2 * kMs);
    o = native_pass(s, at_ns(100 * kSec + 2 * kMs + 50000));
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(o.lateness, 50000);
    EXPECT_EQ(to_ns(s.target), 100 * kSec + 4 * kMs);
    EXPECT_EQ(s.PM + s.TM + s.MSM + s.TBT + s.ED, 0u);
    EXPECT_EQ(s.intervalSumNs, static_cast<uint64_t>(2 * kMs + 50000));
}

TEST(NativePass, WakeUp5300UsLateSkipsTwoDeadlinesAndKeepsTheGrid) {
    NativeLoopState s = started();
    native_pass(s, at_ns(100 * kSec));
    const int64_t deadline = to_ns(s.target);
    const int64_t now = deadline + 5300000;
    PassOutcome o = native_pass(s, at_ns(now));
    EXPECT_EQ(o.missed, 2u);
    EXPECT_EQ(s.PM, 2u);
    EXPECT_EQ(s.TM, 2u);
    EXPECT_EQ(s.MSM, 2u);
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(to_ns(s.target), now + 700000);  // the grid point 0.7 ms after waking
    EXPECT_EQ(to_ns(s.target), deadline + 6 * kMs);
}

TEST(NativePass, DeadlineTooCloseIsServedEarlyThenAFullSleep) {
    NativeLoopState s = started();
    native_pass(s, at_ns(100 * kSec));
    const int64_t deadline = to_ns(s.target);
    PassOutcome o = native_pass(s, at_ns(deadline + 1900000));  // 100 us left: no sleep
    EXPECT_FALSE(o.sleep);
    EXPECT_EQ(s.TBT, 1u);
    EXPECT_EQ(to_ns(s.target), deadline + 2 * kMs);
    o = native_pass(s, at_ns(deadline + 1920000));  // 80 us before that deadline
    EXPECT_FALSE(o.negativeDiff);
    EXPECT_EQ(s.ED, 1u);
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(to_ns(s.target), deadline + 4 * kMs);  // phase kept
    EXPECT_EQ(s.PM, 0u);

    // A larger minimum turns a wake-up 1.7 ms late into an early service too.
    NativeLoopState t = started(300);
    native_pass(t, at_ns(100 * kSec));
    EXPECT_FALSE(native_pass(t, at_ns(to_ns(t.target) + 1750000)).sleep);
}

TEST(NativePass, EarlyWakeWithoutSkippedSleepMovesTheGrid) {
    NativeLoopState s = started();
    native_pass(s, at_ns(100 * kSec));
    const int64_t now = to_ns(s.target) - 300000;
    PassOutcome o = native_pass(s, at_ns(now));
    EXPECT_TRUE(o.negativeDiff);
    EXPECT_EQ(o.lateness, -300000);
    EXPECT_EQ(s.ED, 0u);
    EXPECT_TRUE(o.sleep);
    EXPECT_EQ(to_ns(s.target), now + 2 * kMs);
}

TEST(NativeProfile, PeriodEndsWhenTheServedDeadlinePassesTheBoundary) {
    NativeLoopState s;
    native_start(s, at_ns(100 * kSec), 1, 150);
    ProfileLine line{};
    int lines = 0;
    int64_t now = 100 * kSec;
    for (int pass = 0; pass < 1100; ++pass) {
        if (native_profile(s, 1, &line)) {
            ++lines;
            EXPECT_EQ(to_ns(s.target), 102 * kSec);  // first deadline past 101 s
            EXPECT_EQ(line.TC, 1000u);
            EXPECT_EQ(line.AT, 1998u);  // 999 intervals over 1000 passes
            EXPECT_EQ(line.PM, 1u);  // the one late wake-up below
            EXPECT_EQ(line.TM, 1u);
            EXPECT_EQ(s.TC, 0u);
        }
        const int64_t late = pass == 500 ? 2100000 : 0;
        native_pass(s, at_ns(now + late));
        now = to_ns(s.target);
    }
    EXPECT_EQ(lines, 1);
    EXPECT_EQ(s.nextProfileSec, 102);
    EXPECT_EQ(s.TM, 1u);  // never reset
}

// ---- the running loop ----------------------------------------------------------------------

std::atomic<uint32_t> calls{0};
int32_t count_call(uint32_t arg) {
    calls.fetch_add(arg);
    return 0;
}

int start_native() {
    setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
    return TMR_Init() == 0 ? 0 : 50;
}

TEST(NativeLoop, CallsBackAboutFiveHundredTimesASecondUntilDeleted) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("tick rate");
    const int status = run_in_child([] {
        if (int rc = start_native()) return rc;
        TmrTimer *t = nullptr;
        if (TMR_Create(&t, 2.0, count_call, 1) != 0 || t == nullptr) return 1;
        usleep(20000);
        if (calls.load() == 0) return 2;  // from the first tick on, no 2 s count-down
        const uint32_t start = calls.load();
        usleep(1000000);
        const uint32_t n = calls.load() - start;
        std::fprintf(stderr, "callbacks in 1 s: %u\n", n);
        if (n < 350 || n > 650) return 3;

        TMR_Delete(t);
        const uint32_t atDelete = calls.load();
        usleep(50000);
        if (calls.load() > atDelete + 1) return 4;
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST(NativeLoop, ProfileLineAtTheEndOfEachPeriodWhenEnabledByTheHost) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("tick timing");
    kavro::test::ScratchDir dir;
    const std::string err = dir.path() + "/err";
    const int status = run_in_child([&] {
        if (!freopen(err.c_str(), "w", stderr)) return 99;
        g_TimerProfilePeriodSec = 1;
        g_TimerProfilePrint = 1;
        if (int rc = start_native()) return rc;
        usleep(3500000);
        return 0;
    });
    ASSERT_EQ(status, 0);
    const std::string text = kavro::test::read_file(err);
    size_t pos = 0;
    int lines = 0;
    while ((pos = text.find("KAVRO: TC:", pos)) != std::string::npos) {
        unsigned long long tc, pm, tm, msm, at, tbt, ed;
        ASSERT_EQ(std::sscanf(text.c_str() + pos, "KAVRO: TC:%llu PM:%llu TM:%llu MSM:%llu AT:%llu TBT:%llu ED:%llu\n",
                              &tc, &pm, &tm, &msm, &at, &tbt, &ed),
                  7)
            << text;
        ++pos;
        if (++lines == 1) continue;  // the first period is shortened by the start
        EXPECT_GT(tc + pm, 400u) << text;
        EXPECT_LT(tc, 600u) << text;
        EXPECT_GT(at, 1500u) << text;
        EXPECT_LT(at, 2500u) << text;
    }
    EXPECT_GE(lines, 2) << text;
    EXPECT_LE(lines, 4) << text;
}

TEST(NativeLoop, NoProfileLineWithoutPrinting) {
    KAVRO_REQUIRE_RT();
    kavro::test::ScratchDir dir;
    const std::string err = dir.path() + "/err";
    const int status = run_in_child([&] {
        if (!freopen(err.c_str(), "w", stderr)) return 99;
        g_TimerProfilePeriodSec = 1;
        if (int rc = start_native()) return rc;
        usleep(2500000);
        return 0;
    });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(kavro::test::read_file(err).find("TC:"), std::string::npos);
}

// ---- lateness statistics ---------------------------------------------------------------------

TEST(LatencyStats, GridLatenessHistogramAndPercentiles) {
    EXPECT_EQ(grid_lateness_ns(10 * kMs + 7000, 0, 2 * kMs, 300000), 7000);
    EXPECT_EQ(grid_lateness_ns(10 * kMs - 100000, 0, 2 * kMs, 300000), -100000);  // early service
    EXPECT_EQ(grid_lateness_ns(10 * kMs - 400000, 0, 2 * kMs, 300000), 1600000);
    EXPECT_EQ(grid_lateness_ns(-1 * kMs, 0, 2 * kMs, 0), kMs);

    static LatencyStats s;
    for (int i = 0; i < 98; ++i) s.add(10000 + i);  // 10 us
    s.add(-20000);
    s.add(50 * kMs);  // beyond the histogram
    EXPECT_EQ(s.count, 100u);
    EXPECT_EQ(s.early, 1u);
    EXPECT_EQ(s.minNs, -20000);
    EXPECT_EQ(s.maxNs, 50 * kMs);
    EXPECT_EQ(s.percentile_us(0.5), 10);
    EXPECT_EQ(s.percentile_us(0.99), 10);
    EXPECT_EQ(s.percentile_us(1.0), LatencyStats::kMaxUs);
    EXPECT_EQ(s.percentile_us(0.01), 0);
    EXPECT_NEAR(s.mean_us(), (98 * 10000 + 4753 - 20000 + 50 * kMs) / 100.0 / 1000.0, 1e-9);
}

}  // namespace
