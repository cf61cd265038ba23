// The timer engine's start-up, the timer slot and the sleeping wait.
#include <gtest/gtest.h>

#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"
#include "timer.hpp"

namespace {

using namespace kavro::detail;
using kavro::test::run_in_child;

// Runs fn in a child with its standard output and error going to files;
// returns the exit status and what was written.
struct ChildOutput {
    int status;
    std::string out, err;
};
ChildOutput run_captured(const std::function<int()> &fn, int timeout_s = 30) {
    kavro::test::ScratchDir dir;
    const std::string out = dir.path() + "/out", err = dir.path() + "/err";
    ChildOutput r;
    r.status = run_in_child(
        [&] {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) return 99;
            setvbuf(stdout, nullptr, _IONBF, 0);
            return fn();
        },
        timeout_s);
    r.out = kavro::test::read_file(out);
    r.err = kavro::test::read_file(err);
    return r;
}

bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// ---- virtual-machine detection ------------------------------------------------

struct Files {
    std::map<std::string, std::string> content;
    static bool read(void *ctx, const char *path, char *line, int size) {
        auto &m = static_cast<Files *>(ctx)->content;
        auto it = m.find(path);
        if (it == m.end() || it->second.empty()) return false;
        std::string first = it->second.substr(0, it->second.find('\n') + 1);
        std::snprintf(line, static_cast<size_t>(size), "%s", first.c_str());
        return true;
    }
};

const char kVbox[] = "/sys/devices/virtual/dmi/id/bios_vendor";
const char kXen[] = "/sys/hypervisor/type";

TEST(VmDetection, CpuidSignatureIsMatchedAsPrefixAgainstProcessorEntries) {
    Files none;
    const char kvm[13] = {'K', 'V', 'M', 'K', 'V', 'M', 'K', 'V', 'M', 0, 0, 0, 0};
    VmVerdict v = decide_vm(true, kvm, hvdata, Files::read, &none);
    ASSERT_NE(v.hypervisor, nullptr);
    EXPECT_STREQ(v.hypervisor->vmName, "KVM");
    EXPECT_FALSE(v.unsupported);

    EXPECT_STREQ(decide_vm(true, "Microsoft Hv", hvdata, Files::read, &none).hypervisor->vmName,
                 "Microsoft Hyper-V");
    EXPECT_STREQ(decide_vm(true, "XenVMMXenVMM", hvdata, Files::read, &none).hypervisor->vmName, "XEN HVM");

    // A file probe that would match does not count when the processor speaks.
    Files xen{{{kXen, "xen\n"}}};
    v = decide_vm(true, "TCGTCGTCGTCG", hvdata, Files::read, &xen);
    EXPECT_EQ(v.hypervisor, nullptr);
    EXPECT_TRUE(v.unsupported);
}

TEST(VmDetection, WithoutTheBitTheProbeFilesDecideInTableOrder) {
    Files xen{{{kXen, "xen\n"}}};
    VmVerdict v = decide_vm(false, "", hvdata, Files::read, &xen);
    ASSERT_NE(v.hypervisor, nullptr);
    EXPECT_STREQ(v.hypervisor->vmName, "XEN PVM");

    Files both{{{kXen, "xen\n"}, {kVbox, "innotek GmbH\n"}}};
    EXPECT_STREQ(decide_vm(false, "", hvdata, Files::read, &both).hypervisor->vmName, "VirtualBox");

    // Missing, empty or foreign files: no VM and nothing to warn about.
    Files other{{{kXen, ""}, {kVbox, "American Megatrends\n"}}};
    v = decide_vm(false, "KVMKVMKVM", hvdata, Files::read, &other);
    EXPECT_EQ(v.hypervisor, nullptr);
    EXPECT_FALSE(v.unsupported);
}

TEST(VmDetection, ScanStopsAtTheFirstEntryWithoutName) {
    HV_DATA table[] = {{nullptr, "ABC", "first"}, {nullptr, nullptr, nullptr}, {nullptr, "KVM", "hidden"}};
    Files none;
    EXPECT_EQ(decide_vm(true, "KVMKVMKVM", table, Files::read, &none).hypervisor, nullptr);
    EXPECT_EQ(decide_vm(true, "ABCD", table, Files::read, &none).hypervisor, &table[0]);
}

// ---- choice of the tick source -----------------------------------------------------

TEST(TickSourceChoice, OverrideHypervisorResolutionAndEnvironment) {
    const auto pick = [](int32_t ovr, bool hv, bool resRead, long ns, bool posix) {
        return choose_tick_source(ovr, hv, resRead, ns, posix);
    };
    EXPECT_EQ(pick(0, true, true, 1, true).source, TickSource::Native);  // PELOSHRT does not matter
    EXPECT_EQ(pick(-1, false, true, 1, false).source, TickSource::Native);
    EXPECT_EQ(pick(1, true, true, 1, false).source, TickSource::Rtc);  // the override beats detection
    EXPECT_FALSE(pick(1, true, true, 1, false).nativeTried);
    EXPECT_EQ(pick(0, false, true, 1, false).source, TickSource::Rtc);  // real hardware
    EXPECT_EQ(pick(0, false, true, 1, true).source, TickSource::PosixTimer);

    SourceChoice c = pick(0, true, true, 4000000, false);
    EXPECT_TRUE(c.nativeTried);
    EXPECT_EQ(c.refusal, NativeRefusal::NotHighRes);
    EXPECT_EQ(c.source, TickSource::Rtc);
    c = pick(-1, false, false, 1, true);
    EXPECT_EQ(c.refusal, NativeRefusal::NoResolution);
    EXPECT_EQ(c.source, TickSource::PosixTimer);
}

// ---- tuning from the environment ---------------------------------------------------------

ChildOutput tuning(std::initializer_list<std::pair<const char *, const char *>> env) {
    return run_captured([&] {
        for (auto &[k, v] : env) setenv(k, v, 1);
        read_tuning_env();
        std::printf("%d %d %u %d", g_ClockRtcOverride, g_TimerProfilePeriodSec, g_TimerProfilePrint,
                    g_TimerMinTimeToTargetUs);
        return 0;
    });
}

TEST(Tuning, ValuesInRangeAreTakenAndLogged) {
    ChildOutput r = tuning({{"TORVANEX_TMR_USE_RTC", " -1"},
                            {"TORVANEX_TMR_PROFILE_PERIOD", "60"},
                            {"TORVANEX_TMR_PROFILE_PRINT", "1"},
                            {"TORVANEX_TMR_MIN_TIME2TGT", "300"}});
    EXPECT_EQ(r.out, "-1 3600 1 300");
    EXPECT_EQ(r.err,
              "KAVRO: Timer override set to -1. Using native clock.\n"
              "KAVRO: Timer profile period set to 60 minutes. \n"
              "KAVRO: Timer profile print enabled. \n"
              "KAVRO: Timer min time to target set to 300 us. \n");

    r = tuning({{"TORVANEX_TMR_USE_RTC", "1x"}, {"TORVANEX_TMR_PROFILE_PERIOD", "1"},
                {"TORVANEX_TMR_MIN_TIME2TGT", "100"}});
    EXPECT_EQ(r.out, "1 60 0 100");
    EXPECT_EQ(r.err,
              "KAVRO: Timer override set to 1. Using /dev/rtc.\n"
              "KAVRO: Timer profile period set to 1 minutes. \n"
              "KAVRO: Timer min time to target set to 100 us. \n");
}

TEST(Tuning, ValuesOutOfRangeFallBackAsDocumented) {
    for (const char *period : {"0", "-5", "61"}) {
        ChildOutput r = tuning({{"TORVANEX_TMR_PROFILE_PERIOD", period}});
        EXPECT_EQ(r.out, "0 60 0 150");
        EXPECT_EQ(r.err, std::string("KAVRO: Timer profile period (") + period + ") out of range. Ignoring. \n");
    }
    // No message for these: an unknown override resets it, a bad minimum is ignored.
    ChildOutput r = tuning({{"TORVANEX_TMR_USE_RTC", "2"}, {"TORVANEX_TMR_MIN_TIME2TGT", "99"},
                            {"TORVANEX_TMR_PROFILE_PRINT", "yes"}});
    EXPECT_EQ(r.out, "0 60 0 150");
    EXPECT_EQ(r.err, "");
    r = run_captured([] {
        g_ClockRtcOverride = -1;  // as a host may set it
        setenv("TORVANEX_TMR_USE_RTC", "native", 1);
        setenv("TORVANEX_TMR_MIN_TIME2TGT", "301", 1);
        read_tuning_env();
        std::printf("%d %d", g_ClockRtcOverride, g_TimerMinTimeToTargetUs);
        return 0;
    });
    EXPECT_EQ(r.out, "0 150");
    EXPECT_EQ(r.err, "");
}

// ---- TMR_Init, one scenario per process ------------------------------------------------------

bool this_machine_is_recognised_vm() {
    char sig[13] = {};
    return cpuid_hypervisor(sig) && decide_vm(true, sig, hvdata, nullptr, nullptr).hypervisor != nullptr;
}

TEST(TmrInit, RecognisedHypervisorTakesTheNativeLoopOnce) {
    KAVRO_REQUIRE_RT();
    if (!this_machine_is_recognised_vm()) GTEST_SKIP() << "not inside a recognised hypervisor";
    ChildOutput r = run_captured([] {
        setenv("PELOSHRT", "", 1);  // not even read on the native path
        if (TMR_Init() != 0) return 1;
        int policy = -1;
        sched_param sp{};
        pthread_getschedparam(pthread_self(), &policy, &sp);
        if (policy != SCHED_FIFO || sp.sched_priority != 99) return 2;
        if (!contains(kavro::test::read_file("/proc/self/status"), "VmLck:")) return 3;
        if (TMR_Init() != 0 || cRefs != 1) return 4;  // not counted, nothing started
        if (rtcEnabled != 1) return 5;
        return HVR_Hypervisor != nullptr ? 0 : 6;
    });
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "KAVRO: VM detected\nKAVRO: Running in a ")) << r.err;
    EXPECT_TRUE(contains(r.err, " VMKAVRO: Using native clock\n")) << r.err;
    EXPECT_EQ(r.err.find("Using native clock"), r.err.rfind("Using native clock"));
}

TEST(TmrInit, RefusedRealTimePriorityFailsOnceAndStartsNothing) {
    ChildOutput r = run_captured([] {
        // Drop every capability, so SCHED_FIFO is refused even to root.
        __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2] = {};
        if (syscall(SYS_capset, &hdr, data) != 0) return 90;
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        if (TMR_Init() != KAVRO_E_FAIL) return 1;
        if (TMR_Init() != 0 || cRefs != 1) return 2;
        TmrTimer *t = nullptr;
        return TMR_Create(&t, 2.0, [](uint32_t) { return 0; }, 0) == 0 && t == nullptr ? 0 : 3;
    });
    if (r.status == 90) GTEST_SKIP() << "capabilities cannot be dropped here";
    EXPECT_EQ(r.status, 0) << r.err;
    // The priority is refused before a source is chosen.
    EXPECT_TRUE(contains(r.err, "KAVRO: Timer override set to -1. Using native clock.\n")) << r.err;
    EXPECT_FALSE(contains(r.err, "KAVRO: Using native clock\n")) << r.err;
}

// ---- the timer slot ------------------------------------------------------------------------

int32_t nop(uint32_t) { return 0; }

TEST(TmrCreate, RefusedBeforeInitAndForBadArguments) {
    TmrTimer *t = reinterpret_cast<TmrTimer *>(1);
    EXPECT_EQ(TMR_Create(&t, 2.0, nop, 0), KAVRO_E_NOTMRINIT);
    EXPECT_EQ(t, reinterpret_cast<TmrTimer *>(1));
    // Exit without Init only counts down.
    const auto before = mem_counters();
    EXPECT_EQ(TMR_Exit(), -1);
    EXPECT_EQ(cRefs, -1);
    EXPECT_EQ(mem_counters().memfreecalls, before.memfreecalls);
    cRefs = 0;

    KAVRO_REQUIRE_RT();
    const int status = run_in_child([] {
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        if (TMR_Init() != 0) return 1;
        TmrTimer *h = nullptr;
        if (TMR_Create(&h, 1.5, nop, 0) != KAVRO_E_INVALIDARG) return 2;
        if (TMR_Create(&h, 2.0, nullptr, 0) != KAVRO_E_INVALIDARG) return 3;
        if (TMR_Create(nullptr, 2.0, nop, 0) != KAVRO_E_INVALIDARG) return 4;
        if (timers.load() != nullptr) return 5;  // nothing armed by the refusals
        if (TMR_Create(&h, std::nan(""), nop, 0) != 0 || h == nullptr) return 6;
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST(TmrCreate, OneSlotReusedAfterDeleteAndFreedByLastExit) {
    KAVRO_REQUIRE_RT();
    const int status = run_in_child([] {
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        if (TMR_Init() != 0) return 1;
        TmrTimer *a = nullptr, *b = reinterpret_cast<TmrTimer *>(1);
        if (TMR_Create(&a, 2.0, nop, 7) != 0 || a == nullptr) return 2;
        if (a->tag != KAVRO_TAG_TMR || a->interval != 2 || a->remainingMs != 2000 || a->active != 1 ||
            a->callbackArg != 7)
            return 3;
        if (TMR_Create(&b, 2.0, nop, 0) != 0 || b != nullptr) return 4;  // slot busy
        if (TMR_SetTime(a, 10.0) != 0) return 5;
        if (TMR_Delete(a) != 0 || a->active != 0) return 6;
        if (TMR_SetTime(a, 2.0) != KAVRO_E_INVALIDARG) return 7;
        if (TMR_Create(&b, 3.0, nop, 9) != 0 || b != a || a->callbackArg != 9) return 8;
        uint32_t foreign[6] = {0x1234};
        if (TMR_SetTime(nullptr, 2.0) != KAVRO_E_INVALIDARG ||
            TMR_SetTime(reinterpret_cast<TmrTimer *>(foreign), 2.0) != KAVRO_E_INVALIDARG)
            return 9;
        if (TMR_Delete(nullptr) != 0 || TMR_GetTimerInfo(a, nullptr) != KAVRO_E_NOTIMPL) return 10;
        if (TMR_gmtime(nullptr, nullptr) != 0 || TMR_GetTimeOfDay(nullptr) != 0 || TMR_Time(nullptr) != 0)
            return 11;

        const uint32_t freesBefore = mem_counters().memgenfreecalls;
        if (TMR_Exit() != 0 || timers.load() != nullptr) return 12;
        if (mem_counters().memgenfreecalls < freesBefore + 1) return 13;  // the record (and the lock)
        if (TMR_Create(&b, 2.0, nop, 0) != KAVRO_E_NOTMRINIT) return 14;
        // Up again: the running tick source is reused, the slot is new.
        if (TMR_Init() != 0 || TMR_Create(&b, 2.0, nop, 0) != 0 || b == nullptr) return 15;
        return 0;
    });
    EXPECT_EQ(status, 0);
}

// ---- TMR_Wait -----------------------------------------------------------------------------

TEST(TmrWait, ShortWaitSleepsAndReportsCool) {
    ChildOutput r = run_captured([] {
        timespec a{}, b{};
        ::clock_gettime(CLOCK_MONOTONIC, &a);
        if (TMR_Wait(500) != 0) return 1;
        ::clock_gettime(CLOCK_MONOTONIC, &b);
        const int64_t slept = to_ns(b) - to_ns(a);
        return slept >= 500000 && global_error == 0 ? 0 : 2;
    });
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "Cool source/PEL_tmrulx,")) << r.err;
    EXPECT_TRUE(contains(r.err, ":clock_nanosleep(TMR_Data.clockSource, 0, &ts, &rs)\n")) << r.err;
}

TEST(TmrWait, OneSecondOrMoreIsRefusedAndCounted) {
    ChildOutput r = run_captured([] {
        for (double us : {1000000.0, 1e12, std::nan("")})
            if (TMR_Wait(us) != 0) return 1;
        return global_error;
    });
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_TRUE(contains(r.err, "\033[1;31mUNEXPECTED source/PEL_tmrulx,")) << r.err;
    EXPECT_FALSE(contains(r.err, "Cool"));
}

TEST(TmrWait, SignalEndsTheWaitEarlyWithTheRemainingTime) {
    ChildOutput r = run_captured([] {
        struct sigaction sa {};
        sa.sa_handler = [](int) {};
        sigaction(SIGUSR1, &sa, nullptr);  // no SA_RESTART
        pthread_t self = pthread_self(), t;
        pthread_create(
            &t, nullptr,
            [](void *p) -> void * {
                usleep(50000);
                pthread_kill(*static_cast<pthread_t *>(p), SIGUSR1);
                return nullptr;
            },
            &self);
        const KAVRO_STATUS st = TMR_Wait(900000);
        pthread_join(t, nullptr);
        return st == KAVRO_E_FAIL ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "\033[1;31m(0s, ")) << r.err;
    EXPECT_TRUE(contains(r.err, "ns)\n\033[0;39m")) << r.err;
}

}  // namespace
