// The test-report printers: exact bytes (operators compare test logs), the failure count, the exit status.
#include "kavro_rt/report.h"
#include "test_support.hpp"

namespace {
using kavro::test::run_captured;
const std::string kRed = "\033[1;31m", kReset = "\033[0;39m";
std::string msg(int err) { return std::strerror(err); }

// The result, whether the failure counts, the expected error left in errno after a mismatch, and the text.
TEST(Report, ErrorCheckersPrintReturnAndCount) {
    const std::string miss = kRed + "ERROR expected but not found f,7:t\n" + kReset;
    enum Kind { MyError, Perror, NoError };
    const struct {
        Kind kind;
        int expected, errnoBefore, rc, counted, errnoAfter;
        std::string out;
    } cases[] = {
        {MyError, 0, 0, 0, 1, -1, kRed + "f,7:t" + kReset},  // no newline
        {Perror, 0, EINVAL, -1, 1, -1, kRed + "UNEXPECTED f,7:t: " + msg(EINVAL) + "\n" + kReset},
        {Perror, EINTR, EINTR, 0, 0, -1, "expected f,7:t: " + msg(EINTR) + "\n"},
        {Perror, EINTR, EINVAL, 0, 1, EINTR,
         "expected f,7:t: " + msg(EINVAL) + "\n" + kRed + "Expected: " + msg(EINTR) + "\n" + kReset},
        {Perror, -1, EAGAIN, 0, 0, -1, "expected f,7:t: " + msg(EAGAIN) + "\n"},  // any error will do
        {NoError, 0, EAGAIN, 0, 0, -1, "Cool f,7:t\n" + kReset},
        {NoError, ETIMEDOUT, 0, -1, 1, -1,
         miss + "Found   : " + msg(0) + "\nExpected: " + msg(ETIMEDOUT) + "\n" + kReset},
        {NoError, ETIMEDOUT, ETIMEDOUT, -1, 1, -1, miss + kReset},  // no Found/Expected lines, still a failure
    };
    for (const auto &c : cases) {
        const auto r = run_captured([&] {
            const int32_t before = global_error;
            errno = c.errnoBefore;
            if (c.kind == MyError) MYerror("f", 7, "t");
            const int32_t rc = c.kind == Perror    ? MY_c_perror(c.expected, "f", 7, "t")
                               : c.kind == NoError ? No_error(c.expected, "f", 7, "t")
                                                   : 0;
            return rc != c.rc || global_error != before + c.counted || (c.errnoAfter >= 0 && errno != c.errnoAfter);
        });
        EXPECT_TRUE(r.status == 0 && r.err == c.out) << r.err;
    }
}

// The printers flush standard error before standard output; MYperror ends the process with the count and a summary.
TEST(Report, MYperrorEndsTheProcessWithTheCountAndASummary) {
    const auto r = run_captured([] {
        dup2(2, 1), setvbuf(stdout, nullptr, _IOFBF, 4096), std::printf("pending;");
        No_error(0, "f", 1, "t");
        global_error = 2, errno = ENOENT;
        MYperror("src/m.c", 40, "timer_create(...)");
        return 99;  // not reached
    });
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "Cool f,1:t\n" + kReset + "pending;" + kRed + "src/m.c,40:timer_create(...): " + msg(ENOENT) +
                         "\n" + kReset + kRed + "End of test, 3 error(s) found.\n" + kReset);
}

TEST(Report, DivisionPrintersSplitWithTheSignOfTheValue) {
    const std::tuple<bool, int32_t, int32_t, std::string> cases[] = {
        {true, 2500, -1500, "2.500/-1.-500"},
        {false, -7, 2, "q=-3 r=-1"},
        {false, INT32_MIN, -1, "q=" + std::to_string(INT32_MIN) + " r=0"}};
    for (const auto &[two, a, b, out] : cases) {
        const auto r = run_captured([&] {
            errno = 0;
            const int32_t rc = two ? printf2("%d.%03d/%d.%03d", a, b) : printfx("q=%d r=%d", a, b);
            return rc != static_cast<int32_t>(out.size()) || errno != 0;
        });
        EXPECT_TRUE(r.status == 0 && r.out == out) << r.out;
    }
}
}  // namespace
