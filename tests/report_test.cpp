// The test-report printers: exact bytes on the standard streams, the failure
// count and the exit status.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "kavro_rt/report.h"
#include "test_support.hpp"

namespace {

using kavro::test::read_file;
using kavro::test::run_in_child;
using kavro::test::ScratchDir;

const std::string kRed = "\033[1;31m", kReset = "\033[0;39m";

// What fn writes to the descriptor `fd` (1 or 2).
std::string capture(int fd, const std::function<void()> &fn) {
    ScratchDir dir;
    const std::string path = dir.path() + "/out";
    std::fflush(nullptr);
    const int saved = dup(fd);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, fd);
    close(file);
    fn();
    std::fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    return read_file(path);
}

std::string msg(int err) { return std::strerror(err); }

TEST(Report, MYerrorWritesRedLineWithoutNewlineAndCounts) {
    const int32_t before = global_error;
    const std::string out = capture(2, [] { MYerror("f.c", 12, "open failed"); });
    EXPECT_EQ(out, kRed + "f.c,12:open failed" + kReset);
    EXPECT_EQ(global_error, before + 1);
}

// MY_c_perror and No_error: the text, the result, whether the failure counts
// (and the expected error left in errno after a mismatch).
TEST(Report, ErrorCheckersPrintReturnAndCount) {
    const std::string miss = kRed + "ERROR expected but not found f,7:t\n" + kReset;
    const struct {
        bool perror;
        int expected, errnoBefore;
        std::string out;
        int32_t rc;
        int counted, errnoAfter;
    } cases[] = {
        {true, 0, EINVAL, kRed + "UNEXPECTED f,7:t: " + msg(EINVAL) + "\n" + kReset, -1, 1, -1},
        {true, EINTR, EINTR, "expected f,7:t: " + msg(EINTR) + "\n", 0, 0, -1},
        {true, EINTR, EINVAL, "expected f,7:t: " + msg(EINVAL) + "\n" + kRed + "Expected: " + msg(EINTR) + "\n" + kReset,
         0, 1, EINTR},
        {true, -1, EAGAIN, "expected f,7:t: " + msg(EAGAIN) + "\n", 0, 0, -1},  // any error will do
        {false, 0, EAGAIN, "Cool f,7:t\n" + kReset, 0, 0, -1},
        {false, ETIMEDOUT, 0, miss + "Found   : " + msg(0) + "\nExpected: " + msg(ETIMEDOUT) + "\n" + kReset, -1, 1, -1},
        // errno already holds the expected error: no Found/Expected lines, still a failure.
        {false, ETIMEDOUT, ETIMEDOUT, miss + kReset, -1, 1, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.out);
        const int32_t before = global_error;
        int32_t rc = -5;
        int after = 0;
        EXPECT_EQ(capture(2, [&] {
                      errno = c.errnoBefore;
                      rc = c.perror ? MY_c_perror(c.expected, "f", 7, "t") : No_error(c.expected, "f", 7, "t");
                      after = errno;
                  }),
                  c.out);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(global_error, before + c.counted);
        if (c.errnoAfter >= 0) {
            EXPECT_EQ(after, c.errnoAfter);
        }
    }
}

TEST(Report, PrintersFlushStandardErrorBeforeStandardOutput) {
    ScratchDir dir;
    const std::string path = dir.path() + "/both";
    const int rc = run_in_child([&] {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        dup2(fd, 2);
        setvbuf(stdout, nullptr, _IOFBF, 4096);
        std::printf("pending;");
        No_error(0, "f", 1, "t");
        return 0;
    });
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(read_file(path), "Cool f,1:t\n" + kReset + "pending;");
}

TEST(Report, MYperrorEndsTheProcessWithTheCountAndASummary) {
    auto run = [](int earlier) {
        return kavro::test::run_captured([earlier] {
            global_error = earlier;
            errno = ENOENT;
            MYperror("src/m.c", 40, "timer_create(...)");
            return 99;  // not reached
        });
    };
    auto r = run(0);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kRed + "src/m.c,40:timer_create(...): " + msg(ENOENT) + "\n" + kReset + kRed +
                         "End of test, 1 error(s) found.\n" + kReset);
    r = run(2);
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("End of test, 3 error(s) found.\n"), std::string::npos);
}

TEST(Report, DivisionPrintersSplitWithTheSignOfTheValue) {
    int32_t rc = 0;
    std::string out = capture(1, [&] { rc = printf2("%d.%03d/%d.%03d", 2500, -1500); });
    EXPECT_EQ(out, "2.500/-1.-500");
    EXPECT_EQ(rc, static_cast<int32_t>(out.size()));

    out = capture(1, [&] { rc = printfx("q=%d r=%d", -7, 2); });
    EXPECT_EQ(out, "q=-3 r=-1");
    out = capture(1, [&] { rc = printfx("q=%d r=%d", INT32_MIN, -1); });
    EXPECT_EQ(out, "q=" + std::to_string(INT32_MIN) + " r=0");

    out = capture(1, [&] {
        errno = 0;
        rc = printfx("q=%d r=%d", 5, 0);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(errno, EDOM);
}

}  // namespace
