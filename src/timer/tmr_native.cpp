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
#include "kavro_rt/clock.h"
#include "kavro_rt/log.h"
#include "frame/publish.hpp"
#include "timer/tmr.hpp"

namespace kavro::detail {

namespace {

// Written by the loop before each callback, read by that callback only.
timespec servedDeadline{};

timespec advance(timespec t, int64_t ns) {
    int64_t nsec = static_cast<int64_t>(t.tv_nsec) + ns;
    t.tv_sec += static_cast<time_t>(nsec / kNsPerSec);
    t.tv_nsec = static_cast<long>(nsec % kNsPerSec);
    return t;
}

[[noreturn]] void fail_get_time() {
    const int e = errno;
    GP_printf("KAVRO: ERROR: Failed to get time: %d\n", e);
    std::exit(e);
}

// Calls the armed timer's callback. The fields are copied out before the
// call so that the record is not touched while the callback runs.
inline void serve_slot() {
    slotInUse.store(1);
    TMR_CALLBACK cb = nullptr;
    uint32_t arg = 0;
    if (TmrTimer *t = timers.load()) {
        if (__atomic_load_n(&t->active, __ATOMIC_ACQUIRE) != 0) {
            cb = __atomic_load_n(&t->callback, __ATOMIC_RELAXED);
            arg = __atomic_load_n(&t->callbackArg, __ATOMIC_RELAXED);
        }
    }
    slotInUse.store(0, std::memory_order_release);
    if (cb != nullptr) cb(arg);
}

}  // namespace

void native_start(NativeLoopState &s, const timespec &first, int32_t profilePeriodSec,
                  int32_t minTimeToTargetUs) {
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

    s.target = advance(s.target, static_cast<int64_t>(missed + 1) * kTickNs);
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

timespec native_served_deadline() { return servedDeadline; }

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
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) fail_get_time();

    NativeLoopState s;
    native_start(s, now, g_TimerProfilePeriodSec, minTimeToTargetUs);
    for (;;) {
        servedDeadline = s.target;
        serve_slot();

        ProfileLine p;
        if (native_profile(s, g_TimerProfilePeriodSec, &p) && g_TimerProfilePrint != 0) {
            GP_printf("KAVRO: TC:%llu PM:%llu TM:%llu MSM:%llu AT:%llu TBT:%llu ED:%llu\n",
                      (unsigned long long)p.TC, (unsigned long long)p.PM, (unsigned long long)p.TM,
                      (unsigned long long)p.MSM, (unsigned long long)p.AT, (unsigned long long)p.TBT,
                      (unsigned long long)p.ED);
        }

        if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) fail_get_time();
        const PassOutcome o = native_pass(s, now);
        kavro::pub::tick_served(o.lateness, o.missed);
        if (o.negativeDiff) GP_printf("KAVRO: ERROR: Negative diff %lld.\n", (long long)o.lateness);
        if (!o.sleep) continue;

        int r = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &s.target, nullptr);
        if (r > 0) {  // the C library's convention, should its function be the one bound
            errno = r;
            r = -1;
        }
        if (r != 0) {
            const int e = errno;
            GP_printf("KAVRO: ERROR: sleep failed: %s: diff %lld : missed %llu : next s %lld  : ns %lld ",
                      std::strerror(e), (long long)(o.negativeDiff ? 0 : o.lateness),
                      (unsigned long long)o.missed, (long long)s.target.tv_sec, (long long)s.target.tv_nsec);
            std::exit(e);
        }
    }
}

// ---- lateness statistics --------------------------------------------------------------

int64_t grid_lateness_ns(int64_t atNs, int64_t originNs, int64_t periodNs, int64_t earlyMarginNs) {
    int64_t rel = atNs - originNs + earlyMarginNs;
    int64_t k = rel / periodNs;
    if (rel % periodNs < 0) --k;  // floor for times before the origin
    return atNs - (originNs + k * periodNs);
}

void LatencyStats::add(int64_t latenessNs) {
    if (count == 0 || latenessNs < minNs) minNs = latenessNs;
    if (count == 0 || latenessNs > maxNs) maxNs = latenessNs;
    ++count;
    sumNs += latenessNs;
    if (latenessNs < 0) {
        ++early;
        ++histogram[0];
        return;
    }
    const int64_t us = latenessNs / 1000;
    ++histogram[us < kMaxUs ? us : kMaxUs];
}

double LatencyStats::mean_us() const {
    return count == 0 ? 0.0 : static_cast<double>(sumNs) / static_cast<double>(count) / 1000.0;
}

int64_t LatencyStats::percentile_us(double p) const {
    if (count == 0) return 0;
    uint64_t need = static_cast<uint64_t>(p * static_cast<double>(count) + 0.999999);
    if (need < 1) need = 1;
    if (need > count) need = count;
    uint64_t seen = 0;
    for (int i = 0; i <= kMaxUs; ++i) {
        seen += histogram[i];
        if (seen >= need) return i;
    }
    return kMaxUs;
}

void LatencyStats::print(FILE *out) const {
    std::fprintf(out, "ticks %llu (early %llu)\n", (unsigned long long)count, (unsigned long long)early);
    std::fprintf(out, "min %.1f us  avg %.1f us  p50 %lld us  p99 %lld us  p99.9 %lld us  max %.1f us\n",
                 minNs / 1000.0, mean_us(), (long long)percentile_us(0.5), (long long)percentile_us(0.99),
                 (long long)percentile_us(0.999), maxNs / 1000.0);
    static const int edges[] = {0, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, kMaxUs};
    const int nEdges = static_cast<int>(sizeof edges / sizeof edges[0]);
    uint64_t peak = 1;
    uint64_t bins[sizeof edges / sizeof edges[0]] = {};
    for (int b = 0; b < nEdges; ++b) {
        const int lo = edges[b], hi = b + 1 < nEdges ? edges[b + 1] : kMaxUs + 1;
        for (int i = lo; i < hi; ++i) bins[b] += histogram[i];
        if (bins[b] > peak) peak = bins[b];
    }
    for (int b = 0; b < nEdges; ++b) {
        char range[32];
        if (b + 1 < nEdges)
            std::snprintf(range, sizeof range, "%5d..%-5d us", edges[b], edges[b + 1]);
        else
            std::snprintf(range, sizeof range, "%5d..       us", edges[b]);
        const int bar = static_cast<int>(bins[b] * 50 / peak);
        std::fprintf(out, "  %s %10llu %.*s\n", range, (unsigned long long)bins[b], bar,
                     "##################################################");
    }
}

}  // namespace kavro::detail
