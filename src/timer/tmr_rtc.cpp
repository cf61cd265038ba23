// The RTC tick loop (4096 Hz periodic interrupt of /dev/rtc, 2 ms ticks
// derived from the time of day), its watchdog, the CMOS update thread that
// it paces, and the POSIX-timer signal role of the same handler.
#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/cmos.h"
#include "kavro_rt/log.h"
#include "frame/sysclock.hpp"
#include "timer/pacing.hpp"
#include "timer/tmr.hpp"

namespace kavro::detail {

namespace {

std::atomic<int32_t> g_fd{-1};          // /dev/rtc, -1 until the RTC loop opens it
std::atomic<uint32_t> rtcTickCount{0};  // interrupts since the watchdog looked
constexpr int32_t tmrThreshold = 244;   // early-dispatch margin, microseconds

constexpr unsigned long kRtcRate = 4096;
constexpr unsigned kWatchdogPeriodSec = 5;

std::atomic<uint32_t> running{0};  // the signal role is serving the timer
// Published by the loop once the CMOS settings are read: the condition is
// signalled without a mutex, so the signal itself orders nothing.
std::atomic<bool> cmosConfigured{false};
uint32_t done = 0;  // the watchdog has reported a stall

[[noreturn]] void rtc_fail(const char *fmt) {
    const int e = errno;
    diag("TMR_Handler", fmt, e);
    std::exit(e);
}

void sleep_seconds(unsigned s) {
    timespec t{static_cast<time_t>(s), 0};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

// The signal role's per-tick line. Async-signal-safe: a stack buffer and write(2).
void write_period_line(int32_t r) {
    char line[32];
    const int n = format_period_line(line, sizeof line, r);
    if (write(STDOUT_FILENO, line, static_cast<size_t>(n)) < 0) {
    }
}

// The signal role: serves the slot directly at each THM_SIGNAL; a signal
// that arrives while another is being served is dropped.
std::atomic<uint64_t> signalsDropped{0};
int64_t firstSignalNs = -1;  // touched only by the signal being served

void serve_signal() {
    if (running.exchange(1, std::memory_order_acquire) != 0) {
        signalsDropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    // For `kavro top`, when it watches: lateness against the 2 ms grid of the
    // first served signal, and the signals dropped since the last one served.
    if (kavro::pub::tickOn) {
        timespec now{};
        sys_clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t period = int64_t{kRtcTickUs} * 1000, t = to_ns(now);
        if (firstSignalNs < 0) firstSignalNs = t;
        const int64_t since = t - firstSignalNs;
        kavro::pub::tick_served(since - (since + period / 2) / period * period,
                                signalsDropped.exchange(0, std::memory_order_relaxed));
    }
    serve_slot(SlotTick::CountDown, write_period_line);
    running.store(0, std::memory_order_release);
}

}  // namespace

// ---- decisions -------------------------------------------------------------------

void rtc_start(RtcGrid &g, const timeval &now) {
    g.origin = now;
    g.served = 0;
    g.dispatchState = 1;
}

RtcStep rtc_decide(RtcGrid &g, const timeval &now, bool catchUp, int32_t threshold) {
    RtcStep step{false, false, 0};
    const int64_t elapsed = (static_cast<int64_t>(now.tv_sec) - g.origin.tv_sec) * 1000000 +
                            (static_cast<int64_t>(now.tv_usec) - g.origin.tv_usec);
    // A clock set backwards gives a huge `due`, which restarts the grid below.
    uint64_t due = static_cast<uint64_t>(elapsed) / kRtcTickUs;
    uint64_t remainder = static_cast<uint64_t>(elapsed) % kRtcTickUs;

    if (g.served != due + 1 && due - g.served > 5) {
        g.origin = now;
        due = remainder = 0;
        g.served = 0;
        step.rephased = true;
    }
    step.due = due;

    if (catchUp) {
        if (g.served + 1 < due) {
            ++g.served;  // one missed tick made up per interrupt
            step.dispatch = true;
            return step;
        }
        if (g.served + 1 == due) {
            g.served = due;
            g.dispatchState = -1;
            step.dispatch = true;
            return step;
        }
    } else if (due > g.served) {
        g.served = due;  // missed ticks are dropped
        g.dispatchState = -1;
        step.dispatch = true;
        return step;
    }
    // The early rule: serve the coming boundary now when it is at most one
    // interrupt away, at most every other tick.
    if (static_cast<int64_t>(kRtcTickUs - remainder) <= threshold && g.dispatchState == -1) {
        g.served = due + 1;
        g.dispatchState = 1;
        step.dispatch = true;
    }
    return step;
}

int format_period_line(char *buf, int size, int32_t r) {
    static const char head[] = "period is ";
    char digits[12];
    int nd = 0;
    uint32_t u = r < 0 ? 0u - static_cast<uint32_t>(r) : static_cast<uint32_t>(r);
    do {
        digits[nd++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    int n = 0;
    for (const char *p = head; *p != '\0' && n < size; ++p) buf[n++] = *p;
    if (r < 0 && n < size) buf[n++] = '-';
    while (nd > 0 && n < size) buf[n++] = digits[--nd];
    if (n < size) buf[n++] = ' ';
    if (n < size) buf[n++] = '\n';
    return n;
}

// ---- threads --------------------------------------------------------------------------

void tmr_signal_handler(int, siginfo_t *, void *) {
    const int saved = errno;
    TMR_Handler(nullptr);
    errno = saved;
}

void *TMR_Handler(void *) {
    if (rtcEnabled == 0) {
        serve_signal();
        return nullptr;
    }

    pthread_setname_np(pthread_self(), "TMR_Handler");
    CMOS_GetEnvironment();
    cmosConfigured.store(true, std::memory_order_release);
    sched_param sp{};
    sp.sched_priority = 99;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp) != 0) return nullptr;

    const int fd = open("/dev/rtc", O_RDONLY);
    if (fd < 0) rtc_fail("ERROR: Failed to open /dev/rtc, errno %d\n");
    g_fd.store(fd);
    if (ioctl(fd, RTC_IRQP_SET, kRtcRate) < 0) rtc_fail("ERROR: Failed to set RTC IRQ freq, errno %d\n");
    if (ioctl(fd, RTC_PIE_ON, 0) < 0) rtc_fail("ERROR: Failed to enable RTC interrupts, errno %d\n");

    timeval now{};
    gettimeofday(&now, nullptr);
    RtcGrid grid;
    rtc_start(grid, now);
    const bool catchUp = Kavro_ClockCatchUp != 0;
    for (;;) {
        uint32_t status;
        if (read(fd, &status, sizeof status) < 0) rtc_fail("ERROR: RTC read failed, errno %d\n");
        rtcTickCount.fetch_add(1, std::memory_order_relaxed);
        gettimeofday(&now, nullptr);
        pthread_cond_signal(&g_Condition);
        const uint64_t before = grid.served;
        const RtcStep step = rtc_decide(grid, now, catchUp, tmrThreshold);
        if (!step.dispatch) continue;
        serve_slot(SlotTick::CountDown);
        // For `kavro top`: lateness against the boundary served, and the boundaries dropped.
        const int64_t elapsedUs = (static_cast<int64_t>(now.tv_sec) - grid.origin.tv_sec) * 1000000 +
                                  (static_cast<int64_t>(now.tv_usec) - grid.origin.tv_usec);
        kavro::pub::tick_served((elapsedUs - static_cast<int64_t>(grid.served) * kRtcTickUs) * 1000,
                                step.rephased || grid.served <= before + 1 ? 0 : grid.served - before - 1);
    }
}

void *TMR_Watchdog(void *) {
    pthread_setname_np(pthread_self(), "TMR_Watchdog");
    for (;;) {
        rtcTickCount.store(0, std::memory_order_relaxed);
        sleep_seconds(kWatchdogPeriodSec);
        if (rtcTickCount.load(std::memory_order_relaxed) >= 1 || done != 0) continue;

        diag("TMR_Watchdog",
             "ERROR, The RTC clock is not ticking.  To correct this specify, \"hpet=disable\" (32-bit "
             "system) or \"nohpet\" (64-bit system) on the kernel boot line.\n");
        const int fd = g_fd.load();
        if (fd != -1) {
            if (ioctl(fd, RTC_IRQP_SET, kRtcRate) < 0)
                diag("TMR_Watchdog", "ERROR, Failed to set RTC IRQ freq, errno %d\n", errno);
            if (ioctl(fd, RTC_PIE_ON, 0) < 0)
                diag("TMR_Watchdog", "ERROR, Failed to enable RTC interrupts, errno %d\n", errno);
        }
        done = 1;
    }
}

void *TMR_CMOS(void *) {
    pthread_setname_np(pthread_self(), "TMR_CMOS");
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);  // released only inside each wait
    uint32_t s_Previous_CMOS_Set_Time_sec = 0;
    for (;;) {
        pthread_cond_wait(&g_Condition, &mutex);
        if (!cmosConfigured.load(std::memory_order_acquire)) continue;
        const int32_t interval = g_WriteIntervalTime_sec;
        if (interval == 0) continue;
        timespec mono{};
        sys_clock_gettime(CLOCK_MONOTONIC, &mono);
        timeval wall{};
        gettimeofday(&wall, nullptr);
        if (cmos_write_due(&s_Previous_CMOS_Set_Time_sec, static_cast<uint32_t>(mono.tv_sec),
                           static_cast<uint32_t>(wall.tv_usec), interval, g_TimeOffset_usec))
            Set_CMOS_From_OSTime(g_fd.load());
    }
}

}  // namespace kavro::detail
