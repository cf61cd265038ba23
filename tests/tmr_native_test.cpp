// The native tick loop: one pass's arithmetic on synthetic clock readings, then the running loop.
#include "frame/internal.hpp"
#include "test_support.hpp"
#include "timer/tmr.hpp"

namespace {
using namespace kavro::detail;

constexpr int64_t kMs = 1000000, kStart = 100000 * kMs;  // the first clock reading: 100 s

// A loop after its first pass; returns the deadline it sleeps to.
int64_t after_first_pass(NativeLoopState &s, int32_t minUs = 150) {
    native_start(s, from_ns(kStart), 60, minUs);
    native_pass(s, from_ns(kStart));
    return to_ns(s.target);
}

TEST(NativePass, LateWakeUpsSkipMissedDeadlinesAndKeepTheGrid) {
    NativeLoopState s;
    int64_t deadline = after_first_pass(s);
    PassOutcome o = native_pass(s, from_ns(deadline + 5300000));  // 5.3 ms late
    EXPECT_TRUE(o.missed == 2 && s.PM == 2 && s.TM == 2 && s.MSM == 2 && o.sleep);
    EXPECT_EQ(to_ns(s.target), deadline + 6 * kMs);  // 0.7 ms after the wake-up
    deadline = after_first_pass(s);
    EXPECT_FALSE(native_pass(s, from_ns(deadline + 1900000)).sleep);  // 1.9 ms late: 100 us left
    o = native_pass(s, from_ns(deadline + 1920000));                  // the next pass, 80 us early
    EXPECT_TRUE(s.TBT == 1 && !o.negativeDiff && o.sleep && s.ED == 1 && s.PM == 0);
    EXPECT_EQ(to_ns(s.target), deadline + 4 * kMs);  // a full period, phase kept
    for (const auto &[minUs, lateNs, sleeps] : {std::tuple{150, 1850000, true}, {300, 1750000, false}}) {
        deadline = after_first_pass(s, minUs);  // exactly the minimum left is enough
        EXPECT_EQ(native_pass(s, from_ns(deadline + lateNs)).sleep, sleeps) << minUs;
    }
    const int64_t now = after_first_pass(s) - 300000;  // early without a skipped sleep
    o = native_pass(s, from_ns(now));
    EXPECT_TRUE(o.negativeDiff && o.lateness == -300000 && s.ED == 0);
    EXPECT_EQ(to_ns(s.target), now + 2 * kMs);  // the grid moves
}

TEST(NativeProfile, PeriodEndsWhenTheServedDeadlinePassesTheBoundary) {
    NativeLoopState s;
    native_start(s, from_ns(kStart), 1, 150);
    ProfileLine l{};
    int64_t at = 0, lines = 0;
    for (int pass = 0; pass < 1100; ++pass) {
        if (native_profile(s, 1, &l)) ++lines, at = to_ns(s.target);
        native_pass(s, from_ns(to_ns(s.target) + (pass == 500 ? 2100000 : 0)));
    }
    // Once, at the first deadline past 101 s; TM never resets.
    EXPECT_TRUE(lines == 1 && at == kStart + 2000 * kMs && l.TC == 1000 && l.AT == 1998 && l.PM == 1 && l.MSM == 1);
    EXPECT_TRUE(l.TM == 1 && s.nextProfileSec == 102 && s.TM == 1 && s.PM == 0);
}

std::atomic<uint32_t> calls{0};
int32_t count_call(uint32_t arg) { return calls.fetch_add(arg), 0; }

// One process: the rate, deletion, and a profile line each period when the host asks before Init.
TEST(NativeLoop, CallsBackAboutFiveHundredTimesASecondUntilDeletedAndProfiles) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("tick rate");
    const kavro::test::ChildOutput c = kavro::test::run_captured([&] {
        g_TimerProfilePeriodSec = 1, g_TimerProfilePrint = 1;
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        TmrTimer *t = nullptr;
        if (TMR_Init() != 0 || TMR_Create(&t, 2.0, count_call, 1) != 0 || t == nullptr) return 1;
        usleep(20000);
        const uint32_t start = calls.load();  // from the first tick on
        if (start == 0) return 2;
        usleep(1000000);
        if (calls.load() - start < 350 || calls.load() - start > 650) return 3;
        TMR_Delete(t);
        const uint32_t atDelete = calls.load();
        usleep(2500000);
        return calls.load() <= atDelete + 1 ? 0 : 4;
    });
    ASSERT_EQ(c.status, 0) << c.err;
    int lines = 0, n = 0;  // the last line's fields; a period's ticks, served or missed, and its average
    unsigned tc = 0, pm = 0, at = 0;
    for (size_t pos = 0; (pos = c.err.find("KAVRO: TC:", pos)) != std::string::npos; ++pos, ++lines)
        n = std::sscanf(c.err.c_str() + pos, "KAVRO: TC:%u PM:%u TM:%*u MSM:%*u AT:%u TBT:%*u ED:%*u\n", &tc, &pm, &at);
    EXPECT_TRUE(lines >= 2 && lines <= 4 && n == 3 && tc + pm > 400 && tc < 600 && at > 1500 && at < 2500) << c.err;
}
}  // namespace
