// The process layer: deadlines, processor count, daemonising.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

TEST(Deadline, ArithmeticCarriesAndNormalises) {
    using namespace kavro::detail;
    auto abs_at = [](long sec, long usec, uint32_t ms) {
        timeval now{};
        now.tv_sec = sec;
        now.tv_usec = usec;
        return make_abs_time(now, ms);
    };
    const std::pair<timespec, timespec> cases[] = {
        {abs_at(10, 600000, 1500), {12, 100000000}},
        {abs_at(10, 999999, 999), {11, 998999000}},
        {abs_at(10, 250, 0), {10, 250000}},
        {abs_at(0, 999999, 0xFFFFFFFEu), {4294967 + 1, 293999000}},  // the longest finite wait
        {add_ms({5, 900000000}, 250), {6, 150000000}},
        {add_ns({5, 900000000}, -1000000000LL), {4, 900000000}},
        {add_ns({0, 100}, -200), {-1, 999999900}},
    };
    for (const auto &[got, want] : cases) {
        EXPECT_EQ(got.tv_sec, want.tv_sec) << "want " << want.tv_sec << "." << want.tv_nsec;
        EXPECT_EQ(got.tv_nsec, want.tv_nsec) << "want " << want.tv_sec << "." << want.tv_nsec;
    }
}

TEST(Deadline, MakeAbsTimeReadsTheWallClock) {
    timeval before{};
    gettimeofday(&before, nullptr);
    timespec t{};
    ASSERT_EQ(_ULX_MakeAbsTime(&t, 0), 0u);
    EXPECT_GE(kavro::detail::to_ns(t), static_cast<int64_t>(before.tv_sec) * 1000000000LL + before.tv_usec * 1000LL);
    EXPECT_LT(t.tv_nsec, 1000000000L);
    EXPECT_EQ(_ULX_MakeAbsTime(nullptr, 5), KAVRO_E_INVALIDARG);
}

TEST(Smp, ReportsOnlineProcessors) {
    int32_t conf = -1, onln = -1;
    ASSERT_EQ(SMP_GetNumProcessors(&conf, &onln), 0u);
    EXPECT_EQ(onln, static_cast<int32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_GE(conf, onln);
    EXPECT_EQ(SMP_GetNumProcessors(nullptr, &onln), KAVRO_E_INVALIDARG);
    EXPECT_EQ(ULX_Init(), 0);
    EXPECT_EQ(ULX_Exit(), 0);
}

TEST(Daemonize, DetachesToDevNullClosesDescriptorsAndLogsToSyslog) {
    kavro::test::ScratchDir dir;
    const std::string report = dir.path() + "/report";
    // A descriptor the daemon must not inherit.
    int stray = open("/dev/null", O_RDONLY);
    ASSERT_GE(stray, 3);

    int rc = kavro::test::run_in_child([&] {
        if (ULX_Daemonize() != 0) return 1;
        // From here on this is the daemon; its parent has exited with 0.
        std::string out;
        struct stat null_st {}, fd_st {};
        stat("/dev/null", &null_st);
        for (int fd = 0; fd < 3; ++fd) {
            fstat(fd, &fd_st);
            out += (fd_st.st_rdev == null_st.st_rdev && S_ISCHR(fd_st.st_mode)) ? "n" : "x";
        }
        out += " fds=" + std::to_string(kavro::test::open_fds() - 1);  // minus the directory's own
        out += " daemonized=" + std::to_string(PEL_daemonized);
        out += " umask=" + std::to_string(umask(0));
        int policy = sched_getscheduler(0);
        sched_param sp{};
        sched_getparam(0, &sp);
        out += " policy=" + std::to_string(policy) + "/" + std::to_string(sp.sched_priority);
        kavro::test::write_file(report + ".tmp", out);
        rename((report + ".tmp").c_str(), report.c_str());
        return 0;
    });
    close(stray);
    EXPECT_EQ(rc, 0) << "the parent side exits with status 0";

    std::string got;
    for (int i = 0; i < 500 && got.empty(); ++i) {
        got = kavro::test::read_file(report);
        if (got.empty()) usleep(10000);
    }
    ASSERT_FALSE(got.empty()) << "the daemon did not report";
    EXPECT_EQ(got.substr(0, 3), "nnn");
    EXPECT_NE(got.find(" fds=3 "), std::string::npos) << got;
    EXPECT_NE(got.find(" daemonized=1 "), std::string::npos) << got;
    EXPECT_NE(got.find(" umask=0 "), std::string::npos) << got;
    if (kavro::test::rt_permitted()) {
        EXPECT_NE(got.find(" policy=1/99"), std::string::npos) << got;
    }
}

}  // namespace
