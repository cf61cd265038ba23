// The timer engine's start-up, the timer slot and the sleeping wait.
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <chrono>
#include <cmath>
#include <map>

#include "frame/internal.hpp"
#include "test_support.hpp"
#include "timer/tmr.hpp"

namespace {
using namespace kavro::detail;
using namespace kavro::test;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
std::map<std::string, std::string> probeFiles;  // path -> the first line; "" reads nothing
bool read_probe(void *, const char *path, char *line, int size) {
    const std::string &text = probeFiles[path];
    return !text.empty() && std::snprintf(line, static_cast<size_t>(size), "%s", text.c_str()) > 0;
}
const char *vm(bool bit, const char *signature) {
    const VmVerdict v = decide_vm(bit, signature, hvdata, read_probe, nullptr);
    return v.hypervisor ? v.hypervisor->vmName : v.unsupported ? "unsupported" : "none";
}

TEST(VmDetection, ProcessorSignatureOrProbeFilesFirstMatchInTableOrder) {
    const char kvm[13] = "KVMKVMKVM";  // three zero bytes follow
    probeFiles = {{"/sys/hypervisor/type", "xen\n"}};
    EXPECT_STREQ(vm(true, kvm), "KVM");
    EXPECT_STREQ(vm(true, "TCGTCGTCGTCG"), "unsupported");  // files are not asked when the bit is set
    EXPECT_STREQ(vm(false, kvm), "XEN PVM");                // nor the signature when it is clear
    probeFiles["/sys/devices/virtual/dmi/id/bios_vendor"] = "innotek GmbH\n";
    EXPECT_STREQ(vm(false, ""), "VirtualBox");
}

TEST(TickSourceChoice, OverrideHypervisorResolutionAndEnvironment) {
    using T = TickSource;
    const auto src = [](int32_t o, bool hv, bool px) { return choose_tick_source(o, hv, true, 1, px).source; };
    EXPECT_TRUE(src(0, true, true) == T::Native && src(-1, false, false) == T::Native);  // PELOSHRT does not matter
    EXPECT_TRUE(src(0, false, false) == T::Rtc && src(1, true, false) == T::Rtc);        // the override beats detection
    EXPECT_EQ(src(0, false, true), T::PosixTimer);
    SourceChoice c = choose_tick_source(0, true, true, 4000000, false);
    EXPECT_TRUE(c.nativeTried && c.refusal == NativeRefusal::NotHighRes && c.source == TickSource::Rtc);
    c = choose_tick_source(-1, false, false, 1, true);
    EXPECT_TRUE(c.refusal == NativeRefusal::NoResolution && c.source == TickSource::PosixTimer);
}

// The override's line exactly (operators look for it); the others by their count.
TEST(Tuning, EnvironmentSetsTheGlobalsWithTheirMessages) {
    const struct {
        std::map<std::string, std::string> env;  // names after TORVANEX_TMR_
        const char *globals, *override;          // globals, then the number of lines written
    } cases[] = {
        // clang-format off
        {{{"USE_RTC", " -1"}, {"PROFILE_PERIOD", "60"}, {"PROFILE_PRINT", "1"}, {"MIN_TIME2TGT", "300"}},
         "-1 3600 1 300 4", "KAVRO: Timer override set to -1. Using native clock.\n"},
        {{{"USE_RTC", "1x"}, {"PROFILE_PERIOD", "1"}, {"MIN_TIME2TGT", "100"}},
         "1 60 0 100 3", "KAVRO: Timer override set to 1. Using /dev/rtc.\n"},
        // An unknown override resets the host's silently, a bad minimum is ignored, a bad period reported.
        {{{"USE_RTC", "2"}, {"MIN_TIME2TGT", "301"}, {"PROFILE_PRINT", "yes"}, {"PROFILE_PERIOD", "61"}},
         "0 60 0 150 1", ""},
    };  // clang-format on
    for (const auto &c : cases) {
        ChildOutput r = run_captured([&] {
            g_ClockRtcOverride = -1, g_TimerProfilePeriodSec = 120;  // as a host may set them
            for (auto &[k, v] : c.env) setenv(("TORVANEX_TMR_" + k).c_str(), v.c_str(), 1);
            read_tuning_env();
            std::printf("%d %d %u %d", g_ClockRtcOverride, g_TimerProfilePeriodSec, g_TimerProfilePrint,
                        g_TimerMinTimeToTargetUs);
            return 0;
        });
        r.out += " " + std::to_string(std::count(r.err.begin(), r.err.end(), '\n'));
        EXPECT_TRUE(r.out == c.globals && r.err.starts_with(c.override)) << r.out << "|" << r.err;
    }
}

int32_t nop(uint32_t) { return 0; }
bool locked() { return !has(kavro::test::read_file("/proc/self/status"), "VmLck:\t       0 kB"); }

TEST(TmrInit, RefusedRealTimePriorityFailsOnceAndStartsNothing) {
    ChildOutput r = run_captured([] {
        __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        if (syscall(SYS_capset, &hdr, none) != 0) return 90;  // SCHED_FIFO refused even to root
        setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        return TMR_Init() == KAVRO_E_FAIL && TMR_Init() == 0 && tmrRefs == 1 ? 0 : 3;
    });
    if (r.status == 90) GTEST_SKIP() << "capabilities cannot be dropped here";
    EXPECT_TRUE(r.status == 0 && !has(r.err, "KAVRO: Using native clock\n")) << r.err;  // no source was chosen
}

TEST(TmrSlot, NativeStartArmDisarmReuseFreeAndUpAgain) {
    EXPECT_EQ(TMR_Exit(), -1);  // without Init: only counted down
    tmrRefs = 0;
    KAVRO_REQUIRE_RT();
    char sig[13] = {};
    const bool vm = cpuid_hypervisor(sig) && decide_vm(true, sig, hvdata, nullptr, nullptr).hypervisor != nullptr;
    const ChildOutput r = run_captured([&] {
        if (!vm) setenv("TORVANEX_TMR_USE_RTC", "-1", 1);
        CHILD_CHECK(TMR_Init() == 0 && TMR_Init() == 0 && (HVR_Hypervisor != nullptr) == vm);  // once counted
        TmrTimer *a = nullptr, *b = reinterpret_cast<TmrTimer *>(1);  // bad arguments: the robustness sweep
        CHILD_CHECK(TMR_Create(&a, std::nan(""), nop, 7) == 0 && a != nullptr && a->tag == KAVRO_TAG_TMR &&
                    a->interval == 2 && a->active == 1 && a->callbackArg == 7);
        CHILD_CHECK(TMR_Create(&b, 2.0, nop, 0) == 0 && b == nullptr);  // slot busy
        CHILD_CHECK(TMR_SetTime(a, 10.0) == 0 && TMR_Delete(a) == 0 && a->active == 0);
        CHILD_CHECK(TMR_SetTime(a, 2.0) == KAVRO_E_INVALIDARG);  // disarmed
        CHILD_CHECK(TMR_Create(&b, 3.0, nop, 9) == 0 && b == a && a->callbackArg == 9);
        const uint32_t frees = mem_counters().memgenfreecalls;
        CHILD_CHECK(TMR_Exit() == 0 && timers.load() == nullptr && mem_counters().memgenfreecalls >= frees + 1);
        const bool lockedFirst = locked();  // a sanitizer's reservations can make the lock fail: not checked
        sched_param sp{};
        CHILD_CHECK(sched_setscheduler(0, SCHED_OTHER, &sp) == 0 && munlockall() == 0);
        setenv("TORVANEX_TMR_PROFILE_PERIOD", "2", 1);
        CHILD_CHECK(TMR_Init() == 0 && g_TimerProfilePeriodSec == 120 && locked() == lockedFirst &&
                    sched_getscheduler(0) == SCHED_FIFO);
        return TMR_Create(&b, 2.0, nop, 0) == 0 && b != nullptr ? 0 : 3;
    });
    EXPECT_TRUE(r.status == 0 && r.err.find("Using native clock\n") == r.err.rfind("Using native clock\n") &&
                (!vm || has(r.err, " VMKAVRO: Using native clock\n")))  // one tick source, the hypervisor's
        << r.err;
}

TEST(TmrWait, ShortWaitSleepsLongOneIsRefusedSignalEndsItEarly) {
    ChildOutput r = run_captured([] {
        const auto start = std::chrono::steady_clock::now();
        CHILD_CHECK(TMR_Wait(500) == 0 && std::chrono::steady_clock::now() - start >= std::chrono::microseconds(500));
        CHILD_CHECK(global_error == 0 && TMR_Wait(1000000) == 0 && TMR_Wait(std::nan("")) == 0 && global_error == 2);
        struct sigaction sa {};
        sa.sa_handler = [](int) {}, sigaction(SIGALRM, &sa, nullptr);  // no SA_RESTART
        ualarm(50000, 0);
        return TMR_Wait(900000) == KAVRO_E_FAIL ? 0 : 1;
    });
    EXPECT_TRUE(r.status == 0 && has(r.err, "clock_nanosleep(")) << r.err;
}
}  // namespace
