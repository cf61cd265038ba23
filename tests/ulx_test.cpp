// The process layer: deadlines, processor count, daemonising.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

TEST(Deadline, ArithmeticCarriesAndNormalises) {
    using namespace kavro::detail;
    auto abs_at = [](long sec, long usec, uint32_t ms) { return make_abs_time(timeval{sec, usec}, ms); };
    const std::pair<timespec, timespec> cases[] = {
        {abs_at(10, 600000, 1500), {12, 100000000}}, {abs_at(10, 999999, 999), {11, 998999000}},
        {abs_at(10, 250, 0), {10, 250000}},
        {abs_at(0, 999999, 0xFFFFFFFEu), {4294967 + 1, 293999000}},  // the longest finite wait
        {add_ms({5, 900000000}, 250), {6, 150000000}}, {add_ns({5, 900000000}, -1000000000LL), {4, 900000000}},
        {add_ns({0, 100}, -200), {-1, 999999900}},
    };
    for (const auto &[got, want] : cases)
        EXPECT_TRUE(got.tv_sec == want.tv_sec && got.tv_nsec == want.tv_nsec) << want.tv_sec << "." << want.tv_nsec;
    timeval before{};
    gettimeofday(&before, nullptr);
    timespec t{};
    ASSERT_EQ(_ULX_MakeAbsTime(&t, 0), KAVRO_OK);
    EXPECT_TRUE(to_ns(t) >= before.tv_sec * 1000000000LL + before.tv_usec * 1000LL && t.tv_nsec < 1000000000L);
    EXPECT_EQ(_ULX_MakeAbsTime(nullptr, 5), KAVRO_E_INVALIDARG);
}

TEST(Smp, ReportsOnlineProcessors) {
    int32_t conf = -1, onln = -1;
    ASSERT_EQ(SMP_GetNumProcessors(&conf, &onln), KAVRO_OK);
    EXPECT_TRUE(onln == int32_t(sysconf(_SC_NPROCESSORS_ONLN)) && conf >= onln);
    EXPECT_TRUE(ULX_Init() == 0 && ULX_Exit() == 0);
}

// The daemon runs in a new session, with /dev/null on 0, 1 and 2 (which were
// a file before), nothing else open, umask 0, default signal handling, and
// its lines going to the system log.
TEST(Daemonize, DetachesToDevNullClosesDescriptorsAndResetsSignals) {
    kavro::test::ScratchDir dir;
    const std::string report = dir.path() + "/report";
    const int rc = kavro::test::run_in_child([&] {
        const int file = open((dir.path() + "/old").c_str(), O_RDWR | O_CREAT, 0600);
        for (int fd = 0; fd < 3; ++fd) dup2(file, fd);  // the daemon must replace these
        signal(SIGTERM, SIG_IGN);
        if (ULX_Daemonize() != 0) return 1;
        // From here on this is the daemon; its parent has exited with 0.
        std::string out;
        struct stat null_st{}, fd_st{};
        stat("/dev/null", &null_st);
        for (int fd = 0; fd < 3; ++fd)
            out += fstat(fd, &fd_st) == 0 && fd_st.st_rdev == null_st.st_rdev && S_ISCHR(fd_st.st_mode) ? "n" : "x";
        struct sigaction term{};
        sigaction(SIGTERM, nullptr, &term);
        sched_param sp{};
        sched_getparam(0, &sp);
        out += " fds=" + std::to_string(kavro::test::open_fds() - 1) + " daemonized=" + std::to_string(PEL_daemonized) +
               " umask=" + std::to_string(umask(0)) + " leader=" + std::to_string(getsid(0) == getpid()) +
               " term=" + std::to_string(term.sa_handler == SIG_DFL) + " policy=" +
               std::to_string(sched_getscheduler(0)) + "/" + std::to_string(sp.sched_priority);
        kavro::test::write_file(report + ".tmp", out);
        rename((report + ".tmp").c_str(), report.c_str());
        return 0;
    });
    EXPECT_EQ(rc, 0) << "the parent side exits with status 0";
    std::string got;
    for (int i = 0; i < 500 && (got = kavro::test::read_file(report)).empty(); ++i) usleep(10000);
    EXPECT_EQ(got.substr(0, got.find(" policy=")), "nnn fds=3 daemonized=1 umask=0 leader=1 term=1") << got;
    EXPECT_TRUE(!kavro::test::rt_permitted() || got.find(" policy=1/99") != std::string::npos) << got;
}

}  // namespace
