// The process layer: deadlines, processor count, daemonising.

#include "frame/internal.hpp"
#include "test_support.hpp"

TEST(Deadline, ArithmeticCarriesAndNormalises) {
    using namespace kavro::detail;
    auto abs_at = [](long sec, long usec, uint32_t ms) { return make_abs_time(timeval{sec, usec}, ms); };
    const std::pair<timespec, timespec> cases[] = {
        {abs_at(10, 999000, 1001), {12, 0}},
        {abs_at(10, 998999, 1), {10, 999999000}},
        {abs_at(0, 999999, 0xFFFFFFFEu), {4294967 + 1, 293999000}},
        {add_ms({5, 900000000}, 250), {6, 150000000}},
        {add_ns({0, 100}, -200), {-1, 999999900}},
    };
    for (const auto &[got, want] : cases)
        EXPECT_TRUE(got.tv_sec == want.tv_sec && got.tv_nsec == want.tv_nsec) << want.tv_sec << "." << want.tv_nsec;
    int32_t conf = -1, onln = -1;
    EXPECT_TRUE(SMP_GetNumProcessors(&conf, &onln) == KAVRO_OK && onln == int32_t(sysconf(_SC_NPROCESSORS_ONLN)) &&
                conf >= onln);
}

// The daemon: /dev/null on 0-2 (a file before), nothing else open, umask 0, own session, default signals, FIFO 99.
TEST(Daemonize, DetachesToDevNullClosesDescriptorsAndResetsSignals) {
    kavro::test::ScratchDir dir;
    const std::string report = dir.path() + "/report";
    EXPECT_EQ(kavro::test::run_in_child([&] {
                  const int file = open((dir.path() + "/old").c_str(), O_RDWR | O_CREAT, 0600);
                  for (int fd = 0; fd < 3; ++fd) dup2(file, fd);
                  signal(SIGTERM, SIG_IGN);
                  if (ULX_Daemonize() != 0) return 1;  // the parent side exits with 0
                  struct stat null_st = {}, st = {};
                  std::string out = stat("/dev/null", &null_st) == 0 ? "" : "no /dev/null";
                  for (int fd = 0; fd < 3; ++fd)
                      out += fstat(fd, &st) == 0 && st.st_rdev == null_st.st_rdev ? "n" : "x";
                  sched_param sp{};
                  const bool rt = sched_getparam(0, &sp) == 0 && sched_getscheduler(0) == SCHED_FIFO;
                  out += " fds=" + std::to_string(kavro::test::open_fds() - 1) + " " + std::to_string(PEL_daemonized) +
                         std::to_string(umask(0)) + std::to_string(getsid(0) == getpid()) +
                         std::to_string(signal(SIGTERM, SIG_DFL) == SIG_DFL) +
                         std::to_string((rt && sp.sched_priority == 99) || !kavro::test::rt_permitted());
                  kavro::test::write_file(report + ".tmp", out);
                  return rename((report + ".tmp").c_str(), report.c_str());
              }),
              0);
    std::string got;
    for (int i = 0; i < 500 && (got = kavro::test::read_file(report)).empty(); ++i) usleep(10000);
    EXPECT_EQ(got, "nnn fds=3 10111");  // daemonized, umask, session leader, default SIGTERM, FIFO 99
}
