// Lateness of the timer engine's native 2 ms tick: starts the engine on its
// native loop, arms the timer, and measures for each callback how late it
// runs against the grid point its tick serves. Prints min/avg/p99/max in
// microseconds, a histogram and one machine-readable line:
//   RESULT min_us=.. avg_us=.. p99_us=.. max_us=.. ticks=..
// Usage: tick_latency_tool [seconds] [--idle]   (default 10 s; needs SCHED_FIFO rights)
// Compare with: cyclictest -m -p 99 -i 2000 -l <5000 per 10 s> -q
// Like cyclictest, it holds /dev/cpu_dma_latency at 0 while it measures
// (idle states add their exit latency to every wake-up; inside a virtual
// machine that is a round trip through the host); --idle leaves it alone,
// to compare with cyclictest --laptop.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <atomic>

#include "internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "timer.hpp"

namespace {

using kavro::detail::LatencyStats;

LatencyStats stats;  // written by the tick thread only while `recording`
std::atomic<bool> recording{true};

int32_t on_tick(uint32_t) {
    if (!recording.load(std::memory_order_relaxed)) return 0;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec deadline = kavro::detail::native_served_deadline();
    stats.add(kavro::detail::to_ns(now) - kavro::detail::to_ns(deadline));
    return 0;
}

void sleep_ms(long ms) {
    timespec t{static_cast<time_t>(ms / 1000), (ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0) {
    }
}

}  // namespace

int main(int argc, char **argv) {
    long seconds = 10;
    bool holdIdle = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--idle") == 0)
            holdIdle = false;
        else if (std::strtol(argv[i], nullptr, 10) > 0)
            seconds = std::strtol(argv[i], nullptr, 10);
    }
    int latencyFd = -1;
    if (holdIdle) {
        latencyFd = open("/dev/cpu_dma_latency", O_RDWR);
        const int32_t zero = 0;
        if (latencyFd < 0 || write(latencyFd, &zero, sizeof zero) != sizeof zero)
            std::fprintf(stderr, "note: /dev/cpu_dma_latency not held at 0\n");
    }

    g_ClockRtcOverride = -1;  // the native loop, whatever the machine
    if (TMR_Init() != 0) {
        std::fprintf(stderr, "TMR_Init failed (real-time scheduling refused?)\n");
        return 1;
    }
    TmrTimer *timer = nullptr;
    if (TMR_Create(&timer, 2.0, on_tick, 0) != 0 || timer == nullptr) {
        std::fprintf(stderr, "TMR_Create failed\n");
        return 1;
    }
    sleep_ms(seconds * 1000);
    recording.store(false);
    TMR_Delete(timer);
    sleep_ms(20);  // a callback may run once more after the delete

    std::printf("native tick lateness over %ld s (2 ms grid, SCHED_FIFO 99, memory locked, cpu_dma_latency %s)\n",
                seconds, latencyFd >= 0 ? "0" : "untouched");
    stats.print(stdout);
    std::printf("RESULT min_us=%.1f avg_us=%.1f p99_us=%lld max_us=%.1f ticks=%llu\n", stats.minNs / 1000.0,
                stats.mean_us(), (long long)stats.percentile_us(0.99), stats.maxNs / 1000.0,
                (unsigned long long)stats.count);
    TMR_Exit();
    if (latencyFd >= 0) close(latencyFd);
    return 0;
}
