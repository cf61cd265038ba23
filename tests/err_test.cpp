// Error-exit helpers: what reaches standard output, standard error and the
// system log, and how each one ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>

#include <cerrno>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

// What a child running fn wrote, and how it ended.
kavro::test::ChildOutput in_child(void (*fn)()) {
    return kavro::test::run_captured([fn] { return fn(), 0; });
}

TEST(ErrExit, EachHelperWritesBothStreamsAndEndsAsItShould) {
    const auto ret = in_child([] {
        errno = ENOENT;
        err_ret("can't create %s", "/tmp/x");
        if (errno != ENOENT) std::exit(5);  // the caller's errno survives
        err_msg("plain %d%%", 100);
        err_msg(static_cast<const char *>(nullptr));
        err_ret("%s", std::string(3000, 'L').c_str());
    });
    EXPECT_EQ(ret.status, 0);
    EXPECT_EQ(ret.out, "can't create /tmp/x \nplain 100% \n \n" + std::string(1023, 'L') + " \n");
    // Neither adds the error text; a full line gives its last character up to the newline.
    EXPECT_EQ(ret.err, "can't create /tmp/x\nplain 100%\n\n" + std::string(1022, 'L') + "\n");

    const struct { void (*fn)(); int status; const char *out, *err; } fatal[] = {
        {[] { if (open("/nonexistent/kavro", O_RDONLY) < 0) err_sys("open %s", "failed"); }, 1, "open failed \n",
         "open failed: No such file or directory\n"},
        {[] { errno = EPERM, err_quit("giving up after %d tries", 3); }, 1, "giving up after 3 tries \n",
         "giving up after 3 tries\n"},
        {[] { errno = EACCES, err_dump("fatal"); }, 128 + SIGABRT, "fatal \n", "fatal: Permission denied\n"},
    };
    for (const auto &f : fatal) {
        const auto r = in_child(f.fn);
        EXPECT_TRUE(r.status == f.status && r.out == f.out && r.err == f.err) << r.status << " " << r.out << r.err;
    }
}

TEST(ErrExit, DaemonLinesGoToTheSystemLogWithTheirPriority) {
    const int rc = kavro::test::run_in_child([] {
        std::string why;
        if (!kavro::test::private_dev(&why)) return 77;
        kavro::test::LogCatcher log;
        if (!log.ok()) return 77;
        PEL_daemonized = 1;
        err_msg("info line %s", "100%");
        const std::string info = log.next();
        const int fatal = kavro::test::run_in_child([]() -> int { errno = ENOENT, err_sys("fatal line"); });
        const std::string err = log.next();  // <14> is LOG_USER|LOG_INFO, <11> LOG_USER|LOG_ERR
        CHILD_CHECK(info.rfind("<14>", 0) == 0 && info.find("info line 100%\n") != std::string::npos);
        CHILD_CHECK(fatal == 1 && err.rfind("<11>", 0) == 0 &&
                    err.find("fatal line: No such file or directory\n") != std::string::npos);
        return 0;
    });
    if (rc == 77) GTEST_SKIP() << "cannot catch the system log here";
    EXPECT_EQ(rc, 0);
}

}  // namespace
