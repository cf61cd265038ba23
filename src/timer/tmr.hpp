// The timer engine's internals: its shared state, the tick-thread entries and
// the pure decisions that the start-up and the tick loops are made of.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include <sys/time.h>

#include "kavro_rt/tmr.h"

namespace kavro::detail {

// ---- shared state (tmr.cpp) ------------------------------------------------

// The engine's shared record.
struct TmrData {
    timer_t timeId;         // POSIX interval timer (POSIX-timer path)
    clockid_t clockSource;  // clock of that timer, of its start and of TMR_Wait
    double periodMs;        // the tick: each tick counts a timer down by it
    itimerspec tValue;      // the interval timer's setting
};
extern TmrData TMR_Data;

// The engine's reference count (TMR_Init / TMR_Exit).
extern int32_t tmrRefs;
extern const HV_DATA *HVR_Hypervisor;
extern uint32_t rtcEnabled;          // 1: RTC loop, 0: POSIX timer (role of TMR_Handler)
extern uint32_t Kavro_ClockCatchUp;  // RTC loop makes missed ticks up

// The one-slot table. Only serve_slot reads it on behalf of the tick sources.
extern std::atomic<TmrTimer *> timers;

extern pthread_cond_t g_Condition;

// The exported tuning globals are plain variables that a running native loop
// reads at every pass; the engine's own reads and writes of them are atomic.
template <class T>
T tuning_load(T &global) {
    return std::atomic_ref<T>(global).load(std::memory_order_relaxed);
}
template <class T>
void tuning_store(T &global, T value) {
    std::atomic_ref<T>(global).store(value, std::memory_order_relaxed);
}

// ---- the slot, as the tick sources use it ---------------------------------------

// How a tick treats an armed timer.
enum class SlotTick {
    EveryTick,  // native loop: the callback at every tick
    CountDown,  // RTC loop and signal role: remainingMs counted down by the tick, the callback when it runs out
};

// Called with the count-down value while the tick still holds the slot.
using CountDownHook = void (*)(int32_t remainingMs);

// One tick's use of the slot, the only way a tick source touches the timer
// record: mark the slot in use, read an armed timer (counting it down and
// calling `hook` for SlotTick::CountDown), copy its callback when due, drop
// the mark, and only then call the copy. TMR_Exit waits for the mark to drop
// before it frees the record. No lock, no allocation, no system call.
void serve_slot(SlotTick how, CountDownHook hook = nullptr);

// ---- thread entries ----------------------------------------------------------

void *TMR_HandlerNative(void *);
void *TMR_Handler(void *);
void *TMR_Watchdog(void *);
void *TMR_CMOS(void *);
// The THM_SIGNAL handler: the signal role of TMR_Handler.
void tmr_signal_handler(int, siginfo_t *, void *);

// ---- virtual-machine detection -------------------------------------------------

// Reads the first line (at most size - 1 characters, fgets-style) of `path`;
// false when the file cannot be opened or nothing can be read.
using ProbeReader = bool (*)(void *ctx, const char *path, char *line, int size);

struct VmVerdict {
    const HV_DATA *hypervisor;  // the recognised entry, or null
    bool unsupported;           // hypervisor bit set, signature not in the table
};

// The decision from the hypervisor bit, the CPUID signature (12 bytes and a
// zero), the probe files (through `read`) and the table. Pure: logs nothing.
VmVerdict decide_vm(bool hypervisorBit, const char *signature, const HV_DATA *table, ProbeReader read, void *ctx);

// The processor's answer: hypervisor bit of leaf 1 and the 13-byte signature
// of leaf 0x40000000 (filled only when the bit is set).
bool cpuid_hypervisor(char signature[13]);

// ---- tuning and the choice of the tick source ------------------------------------

// Applies the tuning variables to the exported globals and logs their lines.
void read_tuning_env();

enum class TickSource { Native, Rtc, PosixTimer };
enum class NativeRefusal { None, NoResolution, NotHighRes };

struct SourceChoice {
    TickSource source;
    bool nativeTried;       // "Using native clock" was due
    NativeRefusal refusal;  // why the native clock was not taken
};

// True when the native loop is to be tried at all.
bool native_wanted(int32_t override, bool hypervisorKnown);

// Pure: the source from the override, the recognised hypervisor, the
// monotonic clock's resolution (consulted only when the native loop is
// tried) and whether PELOSHRT is present.
SourceChoice choose_tick_source(int32_t override, bool hypervisorKnown, bool resolutionRead, long resolutionNs,
                                bool posixTimerAsked);

// ---- the native loop's arithmetic ----------------------------------------------

inline constexpr int64_t kTickNs = 2000000;

struct NativeLoopState {
    timespec target;    // the deadline the next pass serves
    timespec previous;  // clock reading of the previous pass
    int64_t nextProfileSec;
    int64_t minTimeToTargetNs;
    bool skippedSleep;
    uint64_t TC, PM, TM, MSM, intervalSumNs, TBT, ED;
};

struct ProfileLine {
    uint64_t TC, PM, TM, MSM, AT, TBT, ED;
};

struct PassOutcome {
    int64_t lateness;   // now - target as read (negative: before the deadline)
    bool negativeDiff;  // early without a skipped sleep: logged, grid moved
    uint64_t missed;
    bool sleep;  // sleep until the new target; else begin the next pass at once
};

void native_start(NativeLoopState &s, const timespec &first, int32_t profilePeriodSec, int32_t minTimeToTargetUs);
// The profile step of a pass; true (and the line's numbers) when the period ended.
bool native_profile(NativeLoopState &s, int32_t profilePeriodSec, ProfileLine *line);
// Everything a pass does with the clock reading `now`.
PassOutcome native_pass(NativeLoopState &s, const timespec &now);

// ---- the RTC loop's decision --------------------------------------------------

inline constexpr int32_t kRtcTickUs = 2000;

struct RtcGrid {
    timeval origin;
    uint64_t served;
    int32_t dispatchState;  // 1: start or after an early tick; -1: after a tick at/after its boundary
};

struct RtcStep {
    bool dispatch;
    bool rephased;
    uint64_t due;
};

void rtc_start(RtcGrid &g, const timeval &now);
// Whether the interrupt read at `now` serves a tick. Pure.
RtcStep rtc_decide(RtcGrid &g, const timeval &now, bool catchUp, int32_t threshold);

// Formats "period is %d \n" without stdio; returns the length.
int format_period_line(char *buf, int size, int32_t r);

}  // namespace kavro::detail
