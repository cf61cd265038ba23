// The emulated /dev/rtc that tests preload: interrupt rate, status words
// and the failure controls (its CMOS clock is exercised by the CMOS tests).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "rtc_emulator.h"
#include "test_support.hpp"

namespace {


int64_t mono_us() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000000 + t.tv_nsec / 1000;
}

int open_rtc(int hz) {
    const int fd = open("/dev/rtc", O_RDONLY);
    if (fd < 0 || ioctl(fd, RTC_IRQP_SET, hz) != 0 || ioctl(fd, RTC_PIE_ON, 0) != 0) return -1;
    return fd;
}

// ---- roles of the preloaded process; each prints what it saw ---------------------

// 128 interrupts at 256 Hz: time taken, interrupts counted, status bytes.
int role_rate() {
    const int fd = open_rtc(256);
    if (fd < 0) return 2;
    unsigned long hz = 0;
    ioctl(fd, RTC_IRQP_READ, &hz);
    const int busy = open("/dev/rtc0", O_RDONLY) < 0 && errno == EBUSY;
    const int badRate = ioctl(fd, RTC_IRQP_SET, 100) != 0 && errno == EINVAL;
    const int64_t start = mono_us();
    uint32_t total = 0, flagsOk = 1;
    while (total < 128) {
        uint32_t word = 0;
        if (read(fd, &word, sizeof word) != 4) return 3;
        flagsOk &= (word & 0xFF) == (RTC_PF | RTC_IRQF);
        total += word >> 8;
    }
    std::printf("hz %lu busy %d badrate %d elapsed %lld total %u flags %u\n", hz, busy, badRate,
                static_cast<long long>(mono_us() - start), total, flagsOk);
    // Other files pass through untouched.
    const int other = open("/proc/self/stat", O_RDONLY);
    char c = 0;
    std::printf("other %d\n", other >= 0 && read(other, &c, 1) == 1 && close(other) == 0);
    return close(fd);
}

// Reads until KAVRO_TEST_IRQS interrupts are counted, each read printed with
// its count and the microseconds since the previous read.
int role_train() {
    const int fd = open_rtc(1024);
    if (fd < 0) return 2;
    const unsigned want = static_cast<unsigned>(std::atoi(std::getenv("KAVRO_TEST_IRQS")));
    int64_t prev = mono_us();
    for (unsigned total = 0, reads = 1; total < want; ++reads) {
        uint32_t word = 0;
        if (read(fd, &word, sizeof word) != 4) {
            std::printf("fail %u errno %d\n", reads, errno);
            return 0;
        }
        const int64_t now = mono_us();
        std::printf("irq %u %lld\n", word >> 8, static_cast<long long>(now - prev));
        total += word >> 8;
        prev = now;
    }
    // Then, without blocking: nothing pending after a pause means stalled.
    usleep(20000);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    uint32_t word = 0;
    const bool stalled = read(fd, &word, sizeof word) < 0 && errno == EAGAIN;
    ioctl(fd, RTC_PIE_ON, 0);
    usleep(20000);
    const bool resumed = read(fd, &word, sizeof word) == 4;
    std::printf("stalled %d resumed %d\n", stalled, resumed);
    return close(fd);
}

int role_fail() {
    if (open("/dev/rtc", O_RDONLY) >= 0) return 2;
    std::printf("open errno %d\n", errno);
    return 0;
}

[[gnu::constructor]] void run_emulator_role() {
    const char *role = std::getenv("KAVRO_EMU_ROLE");
    if (role == nullptr) return;
    int rc = 100;
    if (std::strcmp(role, "rate") == 0) rc = role_rate();
    if (std::strcmp(role, "train") == 0) rc = role_train();
    if (std::strcmp(role, "fail") == 0) rc = role_fail();
    std::fflush(nullptr);
    _exit(rc);
}

// ---- the tests -----------------------------------------------------------------------

using Env = std::vector<std::pair<std::string, std::string>>;

// Output of this program run as `role` with the emulator preloaded.
std::string run_role(const char *role, const Env &env = {}) {
    const auto c = kavro::test::run_captured([&] {
        for (const auto &[k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        setenv("KAVRO_EMU_ROLE", role, 1);
        setenv("LD_PRELOAD", KAVRO_RTC_EMULATOR_PATH, 1);
        execl("/proc/self/exe", "rtc_emulator_test", static_cast<char *>(nullptr));
        return 127;
    }, 20);
    EXPECT_EQ(c.status, 0) << role << ": " << c.err;
    return c.out;
}

std::vector<std::pair<unsigned, long long>> irqs(const std::string &out) {
    std::vector<std::pair<unsigned, long long>> v;
    unsigned count = 0;
    long long us = 0;
    for (const char *p = out.c_str(); (p = std::strstr(p, "irq ")) != nullptr; ++p)
        if (std::sscanf(p, "irq %u %lld", &count, &us) == 2) v.emplace_back(count, us);
    return v;
}

TEST(RtcEmulator, InterruptsComeAtTheProgrammedRate) {
    const std::string out = run_role("rate");
    unsigned long hz = 0;
    int busy = 0, badRate = 0;
    long long elapsed = 0;
    unsigned total = 0, flags = 0;
    ASSERT_EQ(std::sscanf(out.c_str(), "hz %lu busy %d badrate %d elapsed %lld total %u flags %u", &hz,
                          &busy, &badRate, &elapsed, &total, &flags),
              6)
        << out;
    EXPECT_EQ(hz, 256u);
    EXPECT_EQ(busy, 1);
    EXPECT_EQ(badRate, 1);
    EXPECT_EQ(flags, 1u);
    EXPECT_GE(total, 128u);
    // 128 interrupts at 256 Hz take half a second from the start of the train.
    EXPECT_GE(elapsed, 490000);
    EXPECT_LT(elapsed, 5000000);
    EXPECT_NE(out.find("other 1\n"), std::string::npos);
}

TEST(RtcEmulator, StallStopsInterruptsUntilRearmedWhenAsked) {
    std::string out = run_role("train", {{"KAVRO_TEST_IRQS", "3"}, {"KAVRO_RTC_STALL_AFTER", "3"}});
    unsigned total = 0;
    for (const auto &[count, us] : irqs(out)) total += count;
    EXPECT_EQ(total, 3u) << out;
    EXPECT_NE(out.find("stalled 1 resumed 0\n"), std::string::npos) << out;

    out = run_role("train", {{"KAVRO_TEST_IRQS", "3"},
                             {"KAVRO_RTC_STALL_AFTER", "3"},
                             {"KAVRO_RTC_STALL_REARM", "1"}});
    EXPECT_NE(out.find("stalled 1 resumed 1\n"), std::string::npos) << out;
}

TEST(RtcEmulator, GapLosesTheInterruptsOfItsSpan) {
    const std::string out = run_role("train", {{"KAVRO_TEST_IRQS", "8"}, {"KAVRO_RTC_GAP", "4:60"}});
    // The 4th interrupt comes about 3.9 ms into the train, the 5th 60 ms
    // after it; the gap's interrupts are never counted.
    unsigned before = 0;
    long long sinceStart = 0;
    bool gapSeen = false;
    for (const auto &[count, us] : irqs(out)) {
        sinceStart += us;
        if (before >= 4 && !gapSeen) {
            EXPECT_GE(sinceStart, 63000) << out;
            EXPECT_LT(count, 30u) << out;  // not the ~60 the gap would have held
            gapSeen = true;
        }
        before += count;
    }
    EXPECT_TRUE(gapSeen) << out;
    EXPECT_GE(before, 8u);
}

TEST(RtcEmulator, FailControlsFailTheNamedRequests) {
    EXPECT_EQ(run_role("fail", {{"KAVRO_RTC_FAIL", "open"}}), "open errno 2\n");
    const std::string out =
        run_role("train", {{"KAVRO_TEST_IRQS", "100"}, {"KAVRO_RTC_FAIL", "pie@9,read@3"}});
    EXPECT_EQ(irqs(out).size(), 2u) << out;
    EXPECT_NE(out.find("fail 3 errno 5\n"), std::string::npos) << out;
}

}  // namespace
