// The RTC tick loop: its decision on synthetic times, CMOS pacing, then the loop through the emulated /dev/rtc.
#include <chrono>
#include <filesystem>
#include <tuple>

#include "frame/internal.hpp"
#include "test_support.hpp"
#include "timer/pacing.hpp"
#include "timer/tmr.hpp"

namespace {
using namespace kavro::detail;
using namespace kavro::test;

constexpr int64_t kOriginUs = 1000LL * 1000000;  // grid origin: 1000 s into the day
timeval tod(int64_t us) { return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)}; }
// Time of day of interrupt k of a 4096 Hz train, relative to the origin.
int64_t irq_us(int k) { return static_cast<int64_t>(k) * 1000000 / 4096; }

// Interrupts 1..40, then from..to; the dispatches (at us, ticks served) of a grid started at the origin.
std::vector<std::pair<int64_t, uint64_t>> feed(int from, int to, bool catchUp, RtcGrid *grid = nullptr) {
    RtcGrid g;
    rtc_start(g, tod(kOriginUs));
    std::vector<std::pair<int64_t, uint64_t>> d;
    for (int k = 1; k <= to; k = k == 40 ? from : k + 1)
        if (rtc_decide(g, tod(kOriginUs + irq_us(k)), catchUp, 244).dispatch) d.push_back({irq_us(k), g.served});
    if (grid) *grid = g;
    return d;
}

// Steady: each 2 ms boundary served once, alternately early and late. A 7 ms gap: missed ticks dropped or caught up;
// a 13 ms gap: the grid restarts at the next interrupt.
TEST(RtcDecision, GapsAndClockStepsDropCatchUpOrRestartTheGrid) {
    const std::tuple<int, int, bool, std::string> cases[] = {{70, 73, false, "8@17089 9@17822 "},
                                                             {70, 73, true, "5@17089 6@17333 7@17578 8@17822 "},
                                                             {95, 104, true, "1@25390 "}};
    for (const auto &[from, to, catchUp, served] : cases) {  // none from 9765 us to interrupt `from`
        const auto d = feed(from, to, catchUp);
        std::string got;
        for (const auto &[at, n] : d) got += std::to_string(n) + "@" + std::to_string(at) + " ";
        EXPECT_EQ(got, "1@2197 2@3906 3@6103 4@7812 " + served) << from << " " << catchUp;
    }
    RtcGrid g;  // a clock step, or six ticks behind when catching up, also restarts the grid
    feed(41, 100, false, &g);
    const RtcStep s = rtc_decide(g, tod(kOriginUs + irq_us(101) - 1000000), false, 244);  // set back 1 s
    EXPECT_TRUE(s.rephased && !s.dispatch && g.served == 0);
    for (const auto &[us, rephased] : {std::pair{10100, false}, {12100, true}}) {  // five ticks behind; six
        rtc_start(g, tod(kOriginUs));
        EXPECT_EQ(rtc_decide(g, tod(kOriginUs + us), true, 244).rephased, rephased) << us;
    }
}

// First look; not over; before the offset; due; just written; offset 0: never; a negative interval: a huge one.
TEST(CmosPacing, FirstLookStartsTheIntervalWritesAtTheOffset) {
    uint32_t start = 0;
    std::string due;
    const int64_t looks[][4] = {{500, 900000, 60, 500000},    {559, 900000, 60, 500000}, {560, 499999, 60, 500000},
                                {560, 500000, 60, 500000},    {600, 600000, 60, 500000}, {700, 600000, 60, 0},
                                {90000, 600000, -180, 500000}};  // mono s, wall us, interval, offset
    for (const auto &l : looks) due += cmos_write_due(&start, l[0], l[1], static_cast<int32_t>(l[2]), l[3]) ? '1' : '0';
    EXPECT_TRUE(due == "0001000" && start == 560) << due;
}

std::atomic<uint32_t> calls{0};
std::atomic<int64_t> firstCallNs{0};
int64_t mono_ns() { return std::chrono::steady_clock::now().time_since_epoch().count(); }
int32_t on_tick(uint32_t) { return calls.fetch_add(1) == 0 ? firstCallNs.store(mono_ns()), 0 : 0; }
// Sleeps through signals (the POSIX-timer path raises one every 2 ms).
void sleep_ms(int64_t ms) {
    for (int64_t end = mono_ns() + ms * 1000000, left; (left = end - mono_ns()) > 0;) usleep(left / 1000);
}
std::string engine_threads() {
    std::string all;
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/task"))
        if (std::string c = read_file(e.path() / "comm"); c.starts_with("TMR_")) all += c;
    return all;
}

// A copy of this program started with KAVRO_TMR_RUN_MS runs the RTC path that long and reports.
[[gnu::constructor]] void run_role() {
    if (std::getenv("KAVRO_TMR_RUN_MS") == nullptr) return;
    setenv("TORVANEX_TMR_USE_RTC", "1", 1);
    if (TMR_Init() != 0) _exit(1);
    sleep_ms(10);
    const int64_t armed = mono_ns();
    TmrTimer *t = nullptr;
    TMR_Create(&t, 2.0, on_tick, 0);
    sleep_ms(std::atoll(std::getenv("KAVRO_TMR_RUN_MS")));
    std::printf("first_ms %lld calls %u threads %s\n", (long long)((firstCallNs - armed) / 1000000), calls.load(),
                engine_threads().c_str());
    _exit(std::fflush(nullptr));
}

ChildOutput run_rtc(const char *runMs, std::vector<std::pair<const char *, const char *>> env) {
    return run_captured([&] {
        env.insert(env.end(), {{"KAVRO_TMR_RUN_MS", runMs}, {"LD_PRELOAD", KAVRO_RTC_EMULATOR_PATH}});
        for (auto &[k, v] : env) setenv(k, v, 1);
        return execl("/proc/self/exe", "tmr_rtc_test", static_cast<char *>(nullptr)), 127;
    });
}

int count_of(const std::string &text, const std::string &part, size_t from = 0) {
    const size_t p = text.find(part, from);
    return p == std::string::npos ? 0 : 1 + count_of(text, part, p + part.size());
}

// Under emulation only the timing goes unchecked: ~1.5 s at 500 a second, CMOS writes a second apart at the offset.
TEST(RtcLoop, FirstCallbackAfterAThousandTicksThenFiveHundredASecondAndCmosWrites) {
    KAVRO_REQUIRE_RT();
    const ChildOutput r = run_rtc("3500", {{"TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE", "1"},
                                           {"TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC", "250000"}});
    long long firstMs = 0, n = 0, usec = 0;
    ASSERT_TRUE(r.status == 0 &&
                std::sscanf(r.out.c_str() + r.out.find("first_ms"), "first_ms %lld calls %lld", &firstMs, &n) == 2)
        << r.err;
    for (const char *once : {"TMR_Handler\n", "TMR_CMOS\n", "TMR_Watchdog\n", "IRQP_SET 4096"})
        EXPECT_EQ(count_of(r.out, once), 1) << r.out;
    EXPECT_TRUE(emulated() || (firstMs > 1800 && firstMs < 2600 && n > 500 && n < 1000)) << r.out;
    const size_t set = r.out.find("\nSET ");  // the first CMOS write, at or after the offset
    EXPECT_TRUE(set != std::string::npos && std::sscanf(r.out.c_str() + set, "\nSET %*d wall=%*d.%lld", &usec) == 1 &&
                usec >= 250000 && count_of(r.out.substr(0, r.out.find("first_ms")), "\nSET ") <= 4)
        << r.out;
}

// No interrupt ever: reported at 5 s (not again at 10 s), rate and interrupts set again; a failing call ends the process.
TEST(RtcLoop, StalledClockIsReportedAndReprogrammedFailuresEndTheProcess) {
    KAVRO_REQUIRE_RT();
    const std::tuple<const char *, int, const char *, const char *> cases[] = {
        {"stall", 0, "KAVRO:TMR_Watchdog: ERROR, The RTC clock is not ticking.  To correct this", "22"},
        {"open", EIO, "open /dev/rtc", "00"},
        {"irqp", EIO, "RTC IRQ freq", "00"},
        {"pie", EIO, "enable RTC interrupts", "10"},
        {"read", EIO, "RTC read failed", "11"}};
    for (const auto &[value, status, line, programmed] : cases) {
        const ChildOutput r = run_rtc("11500", {{"KAVRO_RTC_FAIL", value}});
        const std::string logged =
            std::to_string(count_of(r.out, "IRQP_SET 4096")) + std::to_string(count_of(r.out, "PIE_ON"));
        EXPECT_TRUE(r.status == status && count_of(r.err, line) == 1 && logged == programmed)
            << value << r.out << r.err;
    }
}

TEST(PosixTimerPath, SignalRoleCountsDownPrintsEachTickAndCallsBackAtZero) {
    KAVRO_REQUIRE_RT();
    const ChildOutput c = run_captured([&] {
        setenv("TORVANEX_TMR_USE_RTC", "1", 1), setenv("PELOSHRT", "", 1);
        if (TMR_Init() != 0 || !engine_threads().empty() || rtcEnabled != 0) return 1;  // no loop, watchdog, CMOS
        TmrTimer *t = nullptr;
        if (TMR_Create(&t, 2.0, on_tick, 0) != 0 || t == nullptr) return 3;
        for (int i = 0; i < 3000 && calls.load() < 20; ++i) sleep_ms(10);
        return calls.load() >= 20 ? 0 : 4;
    });
    std::string want;  // from 1998 ms down, then 0 at every tick
    for (int i = 0; i < 1019; ++i) want += "period is " + std::to_string(i < 1000 ? 1998 - 2 * i : 0) + " \n";
    EXPECT_TRUE(c.status == 0 && c.out.starts_with(want)) << c.err << c.out.substr(0, 200);
}
}  // namespace
