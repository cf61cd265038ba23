// The clock and timer calls issued directly to the kernel.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

#include "kavro_rt/clock.h"
#include "test_support.hpp"

namespace {

using ClockFn = int (*)(clockid_t, timespec *);

int64_t ns(const timespec &t) { return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec; }

// A timer id the kernel does not know: one created and deleted again.
timer_t stale_timer() {
    sigevent ev{};
    ev.sigev_notify = SIGEV_NONE;
    timer_t id{};
    EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &ev, &id), 0);
    EXPECT_EQ(timer_delete(id), 0);
    return id;
}

TEST(ClockCalls, GettimeAgreesWithTheCLibrary) {
    // The test program's own definitions are the library's; the next one is
    // the C library's (vDSO) reading.
    auto libc_gettime = reinterpret_cast<ClockFn>(dlsym(RTLD_NEXT, "clock_gettime"));
    ASSERT_NE(libc_gettime, nullptr);
    ASSERT_NE(reinterpret_cast<void *>(libc_gettime), reinterpret_cast<void *>(&clock_gettime));
    for (clockid_t clk : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
        timespec before{}, mine{}, after{};
        ASSERT_EQ(libc_gettime(clk, &before), 0);
        ASSERT_EQ(clock_gettime(clk, &mine), 0);
        ASSERT_EQ(libc_gettime(clk, &after), 0);
        EXPECT_LE(ns(before), ns(mine)) << "clock " << clk;
        EXPECT_LE(ns(mine), ns(after)) << "clock " << clk;
        EXPECT_GE(mine.tv_nsec, 0);
        EXPECT_LT(mine.tv_nsec, 1000000000);
    }
    timespec res{};
    EXPECT_EQ(clock_getres(CLOCK_MONOTONIC, &res), 0);
    EXPECT_EQ(res.tv_sec, 0);
    EXPECT_GT(res.tv_nsec, 0);
}

TEST(ClockCalls, EveryCallReportsKernelErrorsAsMinusOneAndErrno) {
    constexpr clockid_t kNoClock = 12345;
    timespec t{};
    auto expect_einval = [](int rc, const char *what) {
        EXPECT_EQ(rc, -1) << what;
        EXPECT_EQ(errno, EINVAL) << what;
        errno = 0;
    };
    errno = 0;
    expect_einval(clock_gettime(kNoClock, &t), "clock_gettime");
    expect_einval(clock_getres(kNoClock, &t), "clock_getres");
    expect_einval(clock_settime(kNoClock, &t), "clock_settime");
    expect_einval(clock_settime(CLOCK_MONOTONIC, &t), "clock_settime monotonic");
    timespec req{0, 1000}, rem{};
    expect_einval(clock_nanosleep(kNoClock, 0, &req, &rem), "clock_nanosleep");
    sigevent ev{};
    ev.sigev_notify = SIGEV_NONE;
    timer_t id{};
    expect_einval(timer_create(kNoClock, &ev, &id), "timer_create");

    const timer_t stale = stale_timer();
    itimerspec its{};
    its.it_value.tv_sec = 1;
    expect_einval(timer_settime(stale, 0, &its, nullptr), "timer_settime");
    expect_einval(timer_gettime(stale, &its), "timer_gettime");
    expect_einval(timer_getoverrun(stale), "timer_getoverrun");
    expect_einval(timer_delete(stale), "timer_delete");

    // A bad pointer is the kernel's EFAULT, not a crash. (A user-mode
    // emulator answers this call itself and does not check the pointer.)
    if (!kavro::test::emulated()) {
        EXPECT_EQ(clock_getres(CLOCK_MONOTONIC, reinterpret_cast<timespec *>(8)), -1);
        EXPECT_EQ(errno, EFAULT);
    }
}

TEST(ClockCalls, NanosleepWithBadNanosecondsFailsWithoutWritingRemainder) {
    timespec req{0, 1000000000}, rem{7, 7};
    errno = 0;
    EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &req, &rem), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(rem.tv_sec, 7);
    EXPECT_EQ(rem.tv_nsec, 7);
    EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 2, &req, nullptr), -1);  // unknown flag
    EXPECT_EQ(errno, EINVAL);
}

void on_signal(int) {}

// A signal timer made with these calls interrupts a relative sleep: -1,
// EINTR and the time left; the timer reads back and counts no overrun.
TEST(ClockCalls, SignalTimerInterruptsSleepWithTimeLeft) {
    const int rc = kavro::test::run_in_child([] {
        struct sigaction sa{};
        sa.sa_handler = on_signal;  // no SA_RESTART
        sigemptyset(&sa.sa_mask);
        if (sigaction(SIGUSR1, &sa, nullptr) != 0) return 10;
        sigevent ev{};
        ev.sigev_notify = SIGEV_SIGNAL;
        ev.sigev_signo = SIGUSR1;
        timer_t id{};
        if (timer_create(CLOCK_MONOTONIC, &ev, &id) != 0) return 11;

        itimerspec its{};
        its.it_value.tv_nsec = 50000000;
        if (timer_settime(id, 0, &its, nullptr) != 0) return 12;
        itimerspec left{};
        if (timer_gettime(id, &left) != 0 || left.it_value.tv_sec != 0 || left.it_value.tv_nsec <= 0)
            return 13;

        timespec req{5, 0}, rem{};
        errno = 0;
        if (clock_nanosleep(CLOCK_MONOTONIC, 0, &req, &rem) != -1) return 14;
        if (errno != EINTR) return 15;
        if (rem.tv_sec < 3 || rem.tv_sec > 4) return 16;
        if (timer_getoverrun(id) != 0) return 17;

        // An absolute deadline already past returns at once.
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &now, nullptr) != 0) return 18;
        return timer_delete(id) == 0 ? 0 : 19;
    });
    EXPECT_EQ(rc, 0);
}

// A program linked against the shared library gets the library's calls, not
// the C library's: its clock_nanosleep reports EINVAL as -1 with errno.
TEST(ClockCalls, ProgramsLinkingTheLibraryGetItsDefinitions) {
    FILE *p = popen(KAVRO_CLOCK_PROBE_PATH, "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[256];
    while (fgets(buf, sizeof buf, p) != nullptr) out += buf;
    ASSERT_EQ(pclose(p), 0) << out;
    EXPECT_EQ(out, "nanosleep -1 22 rem 7.7\ngettime 0\ntimer 0 0\n");
}

}  // namespace
