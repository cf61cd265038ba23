// The timer engine: start-up (virtual-machine detection, tuning, choice of
// the tick source), the one-slot timer table and the sleeping wait.
#include <cpuid.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/log.h"
#include "kavro_rt/mem.h"
#include "kavro_rt/report.h"
#include "kavro_rt/sem.h"
#include "frame/sysclock.hpp"
#include "timer/tmr.hpp"

extern "C" {

KAVRO_API HV_DATA hvdata[7] = {
    {nullptr, "KVMKVMKVM", "KVM"},
    {nullptr, "VMwareVMware", "VMware"},
    {nullptr, "XenVMMXenVMM", "XEN HVM"},
    {nullptr, "Microsoft Hv", "Microsoft Hyper-V"},
    {"/sys/devices/virtual/dmi/id/bios_vendor", "innotek GmbH", "VirtualBox"},
    {"/sys/hypervisor/type", "xen", "XEN PVM"},
    {nullptr, nullptr, nullptr},
};

KAVRO_API int32_t g_ClockRtcOverride = 0;
KAVRO_API int32_t g_TimerProfilePeriodSec = 60;
KAVRO_API uint32_t g_TimerProfilePrint = 0;
KAVRO_API int32_t g_TimerMinTimeToTargetUs = 150;

}  // extern "C"

namespace kavro::detail {

TmrData TMR_Data = {timer_t{}, CLOCK_MONOTONIC, 2.0, {}};

int32_t tmrRefs = 0;
const HV_DATA *HVR_Hypervisor = nullptr;
uint32_t rtcEnabled = 1;
uint32_t Kavro_ClockCatchUp = 0;

std::atomic<TmrTimer *> timers{nullptr};

pthread_cond_t g_Condition;

namespace {

// Serialises TMR_Create and TMR_Delete; the tick sources never take it.
void *tableLock = nullptr;
// Raised by a tick while it reads the slot's record (serve_slot), so that
// TMR_Exit can wait for it before freeing the record.
std::atomic<uint32_t> slotInUse{0};

// The timer's fields are shared with the tick sources without a lock.
template <class T>
std::atomic_ref<T> shared(T &field) {
    return std::atomic_ref<T>(field);
}

// One tick's count-down of an armed timer: stores the new remainingMs and
// returns true when the callback is due (*r: the value before reloading).
bool count_down(TmrTimer *t, double periodMs, int32_t *r) {
    const int32_t next = static_cast<int32_t>(shared(t->remainingMs).load(std::memory_order_relaxed) - periodMs);
    *r = next;
    if (next > 0) {
        shared(t->remainingMs).store(next, std::memory_order_relaxed);
        return false;
    }
    shared(t->remainingMs).store(static_cast<int32_t>(periodMs), std::memory_order_relaxed);
    return true;
}

constexpr const char kModule[] = "source/PEL_tmrulx";

// A tick source runs once started; a later bring-up after the last
// TMR_Exit reuses it instead of starting a second one.
bool sourceRunning = false;

// ---- virtual-machine detection ------------------------------------------------

bool read_probe_file(void *, const char *path, char *line, int size) {
    FILE *f = std::fopen(path, "r");
    if (f == nullptr) return false;
    const bool got = std::fgets(line, size, f) != nullptr;
    std::fclose(f);
    return got;
}

bool begins_with(const char *text, const char *prefix) {
    return prefix != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

void detect_vm() {
    char signature[13] = {};
    const bool bit = cpuid_hypervisor(signature);
    if (bit) GP_printf("KAVRO: VM detected\n");
    const VmVerdict v = decide_vm(bit, signature, hvdata, read_probe_file, nullptr);
    if (v.hypervisor != nullptr) {
        GP_printf("KAVRO: Running in a %s VM", v.hypervisor->vmName);
        HVR_Hypervisor = v.hypervisor;
    } else if (v.unsupported) {
        GP_printf("KAVRO: Warning: Running in a VM hosted by an unsupported hypervisor");
    }
}

// ---- tuning --------------------------------------------------------------------

// ---- start-up of the sources ---------------------------------------------------------

void make_table() {
    timers.store(nullptr);
    if (SEM_Create(&tableLock, 1, 0, 0) != 0) tableLock = nullptr;
}

KAVRO_STATUS start_rtc_loop() {
    pthread_cond_init(&g_Condition, nullptr);
    pthread_t handler, cmos, watchdog;
    int rc = pthread_create(&handler, nullptr, TMR_Handler, nullptr);
    if (rc != 0) {
        diag("TMR_Init", "pthread_create failed, TMR_Handler error %d\n", rc);
        return kFail;
    }
    sourceRunning = true;
    rc = pthread_create(&cmos, nullptr, TMR_CMOS, nullptr);
    if (rc != 0) {
        diag("TMR_Init", "pthread_create failed, TMR_CMOS error %d\n", rc);
        return kFail;
    }
    rc = pthread_create(&watchdog, nullptr, TMR_Watchdog, nullptr);
    if (rc != 0) {
        diag("TMR_Init", "pthread_create failed, TMR_Watchdog error %d\n", rc);
        return kFail;
    }
    sched_param sp{};
    sp.sched_priority = 0;
    rc = pthread_setschedparam(watchdog, SCHED_OTHER, &sp);
    if (rc != 0) {
        diag("TMR_Init", "pthread_setschedparam failed, error %d\n", rc);
        return kFail;
    }
    return kOk;
}

KAVRO_STATUS start_posix_timer() {
    struct sigaction sa {};
    sa.sa_sigaction = tmr_signal_handler;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    if (sigaction(SIGRTMIN, &sa, nullptr) != 0) MYperror(kModule, __LINE__, "sigaction(THM_SIGNAL, &sa, NULL)");

    sigevent sig1{};
    sig1.sigev_notify = SIGEV_SIGNAL;
    sig1.sigev_signo = SIGRTMIN;
    sig1.sigev_value.sival_ptr = &TMR_Data;
    if (sys_timer_create(TMR_Data.clockSource, &sig1, &TMR_Data.timeId) != 0)
        MYperror(kModule, __LINE__, "timer_create(TMR_Data.clockSource, &sig1, &TMR_Data.timeId)");

    timespec now{};
    if (sys_clock_gettime(TMR_Data.clockSource, &now) != 0) {
        std::perror("Failed to get current time");
        return kFail;
    }
    // The first expiry, the start of the current second, has passed already:
    // the timer fires at once and then every 2 ms.
    TMR_Data.tValue.it_interval.tv_sec = 0;
    TMR_Data.tValue.it_interval.tv_nsec = 2000000;
    TMR_Data.tValue.it_value.tv_sec = now.tv_sec;
    TMR_Data.tValue.it_value.tv_nsec = 0;
    if (sys_timer_settime(TMR_Data.timeId, TIMER_ABSTIME, &TMR_Data.tValue, nullptr) != 0)
        MYperror(kModule, __LINE__, "timer_settime(TMR_Data.timeId, TIMER_ABSTIME, &TMR_Data.tValue, NULL)");
    sourceRunning = true;
    return kOk;
}

KAVRO_STATUS start_tick_source() {
    bool tableMade = false;
    if (native_wanted(g_ClockRtcOverride, HVR_Hypervisor != nullptr)) {
        GP_printf("KAVRO: Using native clock\n");
        timespec res{};
        const bool resRead = sys_clock_getres(CLOCK_MONOTONIC, &res) == 0;
        const SourceChoice c =
            choose_tick_source(g_ClockRtcOverride, HVR_Hypervisor != nullptr, resRead, res.tv_nsec, false);
        if (c.refusal == NativeRefusal::NoResolution) {
            GP_printf("KAVRO: ERROR: Error getting clock resolution\n");
        } else if (c.refusal == NativeRefusal::NotHighRes) {
            GP_printf("KAVRO: ERROR: High Resolution Timers are not enabled in this kernel.\n");
        } else {
            make_table();
            tableMade = true;
            pthread_t t;
            kavro::pub::set_tick_source(kavro::pub::NativeTick);
            const int rc = pthread_create(&t, nullptr, TMR_HandlerNative, nullptr);
            if (rc == 0) {
                sourceRunning = true;
                return kOk;
            }
            GP_printf("KAVRO: ERROR: pthread_create failed, TMR_HandlerNative error %d\n", rc);
        }
        GP_printf("KAVRO: Failed to initialize native clock. Falling back to /dev/rtc");
    }

    rtcEnabled = env_present("PELOSHRT") ? 0 : 1;
    Kavro_ClockCatchUp = env_present("PELOSCLOCKDRIFT") ? 1 : 0;
    if (rtcEnabled) {
        if (!tableMade) make_table();
        kavro::pub::set_tick_source(kavro::pub::RtcTick);
        return start_rtc_loop();
    }
    kavro::pub::set_tick_source(kavro::pub::PosixTick);
    const KAVRO_STATUS st = start_posix_timer();
    if (st == kOk && !tableMade) make_table();
    return st;
}

// Waits (briefly, bounded) until no tick pass holds a record it took from
// the slot before the slot was emptied.
void wait_slot_idle() {
    for (int i = 0; i < 10000 && slotInUse.load() != 0; ++i) usleep(100);
}

// A 64-bit floating-point product truncated into a 32-bit field; values
// that do not fit (and NaN) become a value the system refuses.
long nanoseconds_field(double microseconds) {
    const double ns = microseconds * 1000.0;
    if (!(ns > -2147483649.0 && ns < 2147483648.0)) return INT32_MIN;
    return static_cast<long>(static_cast<int32_t>(ns));
}

}  // namespace

void serve_slot(SlotTick how, CountDownHook hook) {
    slotInUse.store(1);
    TMR_CALLBACK cb = nullptr;
    uint32_t arg = 0;
    TmrTimer *t = timers.load();
    if (t != nullptr && shared(t->active).load(std::memory_order_acquire) != 0) {
        bool due = true;
        if (how == SlotTick::CountDown) {
            int32_t r = 0;
            due = count_down(t, TMR_Data.periodMs, &r);
            if (hook != nullptr) hook(r);
        }
        if (due) {
            cb = shared(t->callback).load(std::memory_order_relaxed);
            arg = shared(t->callbackArg).load(std::memory_order_relaxed);
        }
    }
    slotInUse.store(0, std::memory_order_release);
    if (cb != nullptr) cb(arg);
}

// ---- pure decisions ------------------------------------------------------------------

VmVerdict decide_vm(bool hypervisorBit, const char *signature, const HV_DATA *table, ProbeReader read, void *ctx) {
    VmVerdict v{nullptr, false};
    for (const HV_DATA *e = table; e->vmName != nullptr; ++e) {
        if (hypervisorBit) {
            if (e->probePath != nullptr) continue;
            if (begins_with(signature, e->signature)) return {e, false};
        } else {
            if (e->probePath == nullptr) continue;
            char line[80];
            if (!read(ctx, e->probePath, line, static_cast<int>(sizeof line))) continue;
            if (begins_with(line, e->signature)) return {e, false};
        }
    }
    v.unsupported = hypervisorBit;
    return v;
}

bool cpuid_hypervisor(char signature[13]) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    __cpuid(1, a, b, c, d);
    if ((c & 0x80000000u) == 0) return false;
    __cpuid(0x40000000, a, b, c, d);
    std::memcpy(signature, &b, 4);
    std::memcpy(signature + 4, &c, 4);
    std::memcpy(signature + 8, &d, 4);
    signature[12] = '\0';
    return true;
}

void read_tuning_env() {
    int32_t v = 0;
    if (env_strtol("TORVANEX_TMR_USE_RTC", &v)) {
        if (v == 1) {
            g_ClockRtcOverride = 1;
            GP_printf("KAVRO: Timer override set to %d. Using /dev/rtc.\n", 1);
        } else if (v == -1) {
            g_ClockRtcOverride = -1;
            GP_printf("KAVRO: Timer override set to %d. Using native clock.\n", -1);
        } else {
            g_ClockRtcOverride = 0;
        }
    }
    if (env_strtol("TORVANEX_TMR_PROFILE_PERIOD", &v)) {
        if (v >= 1 && v <= 60) {
            tuning_store(g_TimerProfilePeriodSec, v * 60);
            GP_printf("KAVRO: Timer profile period set to %d minutes. \n", v);
        } else {
            tuning_store(g_TimerProfilePeriodSec, 60);
            GP_printf("KAVRO: Timer profile period (%d) out of range. Ignoring. \n", v);
        }
    }
    if (env_strtol("TORVANEX_TMR_PROFILE_PRINT", &v)) {
        tuning_store(g_TimerProfilePrint, v == 1 ? 1u : 0u);
        if (v == 1) GP_printf("KAVRO: Timer profile print enabled. \n");
    }
    if (env_strtol("TORVANEX_TMR_MIN_TIME2TGT", &v) && v >= 100 && v <= 300) {
        g_TimerMinTimeToTargetUs = v;
        GP_printf("KAVRO: Timer min time to target set to %d us. \n", v);
    }
}

bool native_wanted(int32_t override, bool hypervisorKnown) {
    return override != 1 && (hypervisorKnown || override == -1);
}

SourceChoice choose_tick_source(int32_t override, bool hypervisorKnown, bool resolutionRead, long resolutionNs,
                                bool posixTimerAsked) {
    SourceChoice c{TickSource::Rtc, false, NativeRefusal::None};
    if (native_wanted(override, hypervisorKnown)) {
        c.nativeTried = true;
        if (!resolutionRead) {
            c.refusal = NativeRefusal::NoResolution;
        } else if (resolutionNs != 1) {
            c.refusal = NativeRefusal::NotHighRes;
        } else {
            c.source = TickSource::Native;
            return c;
        }
    }
    c.source = posixTimerAsked ? TickSource::PosixTimer : TickSource::Rtc;
    return c;
}

}  // namespace kavro::detail

using namespace kavro::detail;

extern "C" {

KAVRO_API KAVRO_STATUS TMR_Init(void) {
    if (tmrRefs != 0) return kOk;
    tmrRefs = 1;
    HVR_Hypervisor = nullptr;
    MEM_Init();
    SEM_Init();
    detect_vm();
    read_tuning_env();

    sched_param sp{};
    sp.sched_priority = 99;
    if (sched_setscheduler(0, SCHED_FIFO, &sp) != 0) return kFail;
    mlockall(MCL_CURRENT | MCL_FUTURE);

    if (sourceRunning) {
        // Up again after the last TMR_Exit: the tick source never stopped
        // and serves the new slot.
        make_table();
        return kOk;
    }
    return start_tick_source();
}

KAVRO_API int32_t TMR_Exit(void) {
    if (--tmrRefs != 0) return tmrRefs;
    if (TmrTimer *t = timers.exchange(nullptr)) {
        wait_slot_idle();
        KAVRO_OBJ_Free(t, 0);
    }
    if (tableLock != nullptr) {
        SEM_Delete(tableLock);
        tableLock = nullptr;
    }
    SEM_Exit();
    MEM_Exit();
    return 0;
}

KAVRO_API KAVRO_STATUS TMR_Create(TmrTimer **phTimer, double periodMs, TMR_CALLBACK callback, uint32_t callbackArg) {
    if (tmrRefs < 1) return kNoTimer;
    if (periodMs < 2.0) return kInvalidArg;  // NaN passes, as it always has
    if (callback == nullptr || phTimer == nullptr) return kInvalidArg;

    TmrTimer *t = nullptr;
    if (SEM_Pend(tableLock, KAVRO_WAIT_FOREVER) == 0) {
        TmrTimer *slot = timers.load();
        if (slot == nullptr) {
            slot = static_cast<TmrTimer *>(KAVRO_OBJ_Alloc(sizeof(TmrTimer), KAVRO_TAG_TMR, 0));
            if (slot != nullptr) timers.store(slot);
            t = slot;
        } else if (shared(slot->active).load(std::memory_order_acquire) == 0) {
            t = slot;
        }
        if (t != nullptr) {
            t->interval = 2;
            shared(t->remainingMs).store(2000, std::memory_order_relaxed);
            shared(t->callback).store(callback, std::memory_order_relaxed);
            shared(t->callbackArg).store(callbackArg, std::memory_order_relaxed);
            // Last, so that a tick that sees it armed sees all of it.
            shared(t->active).store(1u, std::memory_order_release);
        }
        SEM_Post(tableLock);
    }
    *phTimer = t;
    return kOk;
}

KAVRO_API KAVRO_STATUS TMR_Delete(TmrTimer *hTimer) {
    const bool locked = SEM_Pend(tableLock, KAVRO_WAIT_FOREVER) == 0;
    if (hTimer != nullptr) shared(hTimer->active).store(0u, std::memory_order_release);
    if (locked) SEM_Post(tableLock);
    return kOk;
}

KAVRO_API KAVRO_STATUS TMR_SetTime(TmrTimer *hTimer, double) {
    if (!has_tag(hTimer, KAVRO_TAG_TMR) || shared(hTimer->active).load(std::memory_order_acquire) == 0)
        return kInvalidArg;
    hTimer->interval = 2;
    return kOk;
}

KAVRO_API KAVRO_STATUS TMR_GetTimerInfo(TmrTimer *, void *) { return kNotImpl; }

KAVRO_API KAVRO_STATUS TMR_Wait(double microseconds) {
    timespec ts{};
    ts.tv_nsec = nanoseconds_field(microseconds);
    timespec rs{};
    // clang-format off
    const int line = __LINE__; const int rc = sys_clock_nanosleep(TMR_Data.clockSource, 0, &ts, &rs);
    // clang-format on
    const char *call = "clock_nanosleep(TMR_Data.clockSource, 0, &ts, &rs)";
    if (rc == -1)
        MY_c_perror(0, kModule, line, call);
    else
        No_error(0, kModule, line, call);
    if (rs.tv_sec != 0 || rs.tv_nsec != 0) {
        std::fprintf(stderr, "\033[1;31m(%lds, %ldns)\n\033[0;39m", static_cast<long>(rs.tv_sec),
                     static_cast<long>(rs.tv_nsec));
        std::fflush(stderr);
        return kFail;
    }
    return kOk;
}

KAVRO_API KAVRO_STATUS TMR_gmtime(const void *, void *) { return kOk; }
KAVRO_API KAVRO_STATUS TMR_GetTimeOfDay(void *) { return kOk; }
KAVRO_API KAVRO_STATUS TMR_Time(void *) { return kOk; }

}  // extern "C"
