// The native tick loop: a SCHED_FIFO 99 thread sleeping to absolute 2 ms
// deadlines on the monotonic clock. The grid starts at the first reading and
// never drifts: late wake-ups skip (and count) the deadlines they missed, and
// a deadline too close to sleep for is served at once.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/internal.hpp"
#include "kavro_rt/log.h"
#include "frame/publish.hpp"
#include "frame/sysclock.hpp"
#include "timer/tmr.hpp"

namespace kavro::detail {

namespace {

[[noreturn]] void fail_get_time() {
    const int e = errno;
    GP_printf("KAVRO: ERROR: Failed to get time: %d\n", e);
    std::exit(e);
}

}  // namespace

void native_start(NativeLoopState &s, const timespec &first, int32_t profilePeriodSec, int32_t minTimeToTargetUs) {
    s = NativeLoopState{};
    s.target = first;
    s.previous = first;
    s.nextProfileSec = static_cast<int64_t>(first.tv_sec) + profilePeriodSec;
    s.minTimeToTargetNs = static_cast<int64_t>(minTimeToTargetUs) * 1000;
    s.skippedSleep = false;
}

bool native_profile(NativeLoopState &s, int32_t profilePeriodSec, ProfileLine *line) {
    if (static_cast<int64_t>(s.target.tv_sec) <= s.nextProfileSec) {
        ++s.TC;
        return false;
    }
    const uint64_t passes = s.TC + 1;
    *line = ProfileLine{passes, s.PM, s.TM, s.MSM, s.intervalSumNs / passes / 1000, s.TBT, s.ED};
    s.nextProfileSec += profilePeriodSec;
    s.TC = s.PM = s.MSM = s.intervalSumNs = 0;
    return true;
}

PassOutcome native_pass(NativeLoopState &s, const timespec &now) {
    PassOutcome o{};
    int64_t lateness = to_ns(now) - to_ns(s.target);
    if (lateness < 0) {
        if (s.skippedSleep) {
            ++s.ED;  // the early service of a deadline too close to sleep for
        } else {
            o.negativeDiff = true;
            o.lateness = lateness;
            s.target = now;
        }
        lateness = 0;
    }
    if (!o.negativeDiff) o.lateness = lateness;

    const uint64_t missed = static_cast<uint64_t>(lateness / kTickNs);
    o.missed = missed;
    s.TM += missed;
    s.PM += missed;
    if (missed > s.MSM) s.MSM = missed;
    s.intervalSumNs += static_cast<uint64_t>(to_ns(now) - to_ns(s.previous));

    s.target = add_ns(s.target, static_cast<int64_t>(missed + 1) * kTickNs);
    s.previous = now;
    s.skippedSleep = false;

    const int64_t timeToTarget = kTickNs - lateness % kTickNs;
    if (timeToTarget >= s.minTimeToTargetNs) {
        o.sleep = true;
    } else {
        ++s.TBT;
        s.skippedSleep = true;
    }
    return o;
}

void *TMR_HandlerNative(void *) {
    pthread_setname_np(pthread_self(), "TMR_Native");
    const int32_t minTimeToTargetUs = g_TimerMinTimeToTargetUs;
    sched_param sp{};
    sp.sched_priority = 99;
    const int rc = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp);
    if (rc != 0) {
        GP_printf("KAVRO: ERROR: Failed to set thread priority: %d\n", rc);
        std::exit(rc);
    }
    timespec now{};
    if (sys_clock_gettime(CLOCK_MONOTONIC, &now) != 0) fail_get_time();

    NativeLoopState s;
    native_start(s, now, tuning_load(g_TimerProfilePeriodSec), minTimeToTargetUs);
    for (;;) {
        serve_slot(SlotTick::EveryTick);

        ProfileLine p;
        if (native_profile(s, tuning_load(g_TimerProfilePeriodSec), &p) && tuning_load(g_TimerProfilePrint) != 0) {
            GP_printf("KAVRO: TC:%llu PM:%llu TM:%llu MSM:%llu AT:%llu TBT:%llu ED:%llu\n", (unsigned long long)p.TC,
                      (unsigned long long)p.PM, (unsigned long long)p.TM, (unsigned long long)p.MSM,
                      (unsigned long long)p.AT, (unsigned long long)p.TBT, (unsigned long long)p.ED);
        }

        if (sys_clock_gettime(CLOCK_MONOTONIC, &now) != 0) fail_get_time();
        const PassOutcome o = native_pass(s, now);
        kavro::pub::tick_served(o.lateness, o.missed);
        if (o.negativeDiff) GP_printf("KAVRO: ERROR: Negative diff %lld.\n", (long long)o.lateness);
        if (!o.sleep) continue;

        if (sys_clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &s.target, nullptr) != 0) {
            const int e = errno;
            GP_printf("KAVRO: ERROR: sleep failed: %s: diff %lld : missed %llu : next s %lld  : ns %lld ",
                      std::strerror(e), (long long)(o.negativeDiff ? 0 : o.lateness), (unsigned long long)o.missed,
                      (long long)s.target.tv_sec, (long long)s.target.tv_nsec);
            std::exit(e);
        }
    }
}

}  // namespace kavro::detail
