// The clock and timer calls issued directly to the kernel.
#include "kavro_rt/clock.h"
#include "test_support.hpp"

namespace {

// The kernel's refusal is -1 and errno (not clock_nanosleep's error number), with no remainder written.
TEST(ClockCalls, KernelErrorsAreMinusOneAndErrno) {
    constexpr clockid_t kNoClock = 12345;
    timespec t{}, bad{0, 1000000000}, rem{7, 7};
    sigevent ev{};
    ev.sigev_notify = SIGEV_NONE;
    timer_t stale{};  // one the kernel does not know any more
    ASSERT_TRUE(timer_create(CLOCK_MONOTONIC, &ev, &stale) == 0 && timer_delete(stale) == 0);
    itimerspec its{{}, {1, 0}};
    const std::pair<const char *, std::function<int()>> cases[] = {
        {"gettime", [&] { return clock_gettime(kNoClock, &t); }},
        {"getres", [&] { return clock_getres(kNoClock, &t); }},
        {"settime", [&] { return clock_settime(CLOCK_MONOTONIC, &t); }},
        {"nanosleep", [&] { return clock_nanosleep(CLOCK_MONOTONIC, 0, &bad, &rem); }},
        {"timer_create", [&] { return timer_create(kNoClock, &ev, &stale); }},
        {"timer_settime", [&] { return timer_settime(stale, 0, &its, nullptr); }},
        {"timer_gettime", [&] { return timer_gettime(stale, &its); }},
        {"timer_getoverrun", [&] { return timer_getoverrun(stale); }},
        {"timer_delete", [&] { return timer_delete(stale); }},
    };
    for (const auto &[call, fn] : cases) {
        errno = 0;
        EXPECT_TRUE(fn() == -1 && errno == EINVAL) << call << ": " << errno;
    }
    // So in a program linking the library, where the C library's call returns the error number.
    const auto c = kavro::test::run_captured([] { return execl(KAVRO_CLOCK_PROBE_PATH, "probe", nullptr), 127; });
    EXPECT_TRUE(c.status == 0 && c.out == "nanosleep -1 22 rem 7.7\n") << c.out;
}

TEST(ClockCalls, SignalTimerInterruptsSleepWithTimeLeft) {
    const int rc = kavro::test::run_in_child([] {
        struct sigaction sa {};
        sa.sa_handler = [](int) {}, sigaction(SIGUSR1, &sa, nullptr);  // no SA_RESTART
        sigevent ev{};
        ev.sigev_notify = SIGEV_SIGNAL, ev.sigev_signo = SIGUSR1;
        timer_t id{};
        itimerspec its{{}, {0, 50000000}}, left{};
        CHILD_CHECK(timer_create(CLOCK_MONOTONIC, &ev, &id) == 0 && timer_settime(id, 0, &its, nullptr) == 0 &&
                    timer_gettime(id, &left) == 0 && left.it_value.tv_sec == 0 && left.it_value.tv_nsec > 0);
        timespec req{5, 0}, rem{};
        CHILD_CHECK(clock_nanosleep(CLOCK_MONOTONIC, 0, &req, &rem) == -1 && errno == EINTR && rem.tv_sec >= 3);
        return timer_delete(id) == 0 ? 0 : 2;
    });
    EXPECT_EQ(rc, 0);
}
}  // namespace
