// Error-exit helpers: what reaches standard output, standard error and the
// system log, and how each one ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using Outcome = kavro::test::ChildOutput;

// Runs fn in a child whose standard output and error are caught.
Outcome in_child(const std::function<void()> &fn) {
    return kavro::test::run_captured([&] {
        fn();
        return 0;
    });
}

TEST(ErrExit, RetAndMsgWriteBothStreamsAndReturn) {
    Outcome r = in_child([] {
        errno = ENOENT;
        err_ret("can't create %s", "/tmp/x");
        if (errno != ENOENT) std::exit(5);  // the caller's errno survives
        err_msg("plain %d%%", 100);
        err_msg(static_cast<const char *>(nullptr));
        const std::string longText(3000, 'L');
        err_ret("%s", longText.c_str());
    });
    EXPECT_EQ(r.status, 0);
    const std::string cut(1023, 'L');
    EXPECT_EQ(r.out, "can't create /tmp/x \nplain 100% \n \n" + cut + " \n");
    // A full line gives its last character up to the newline.
    EXPECT_EQ(r.err, "can't create /tmp/x\nplain 100%\n\n" + std::string(1022, 'L') + "\n");
}

TEST(ErrExit, FatalOnesEndTheProcess) {
    Outcome sys = in_child([] {
        if (open("/nonexistent/kavro", O_RDONLY) < 0) err_sys("open %s", "failed");
    });
    EXPECT_EQ(sys.status, 1);
    EXPECT_EQ(sys.out, "open failed \n");
    EXPECT_EQ(sys.err, "open failed: No such file or directory\n");

    Outcome quit = in_child([] {
        errno = EPERM;
        err_quit("giving up after %d tries", 3);
    });
    EXPECT_EQ(quit.status, 1);
    EXPECT_EQ(quit.err, "giving up after 3 tries\n");  // no error text

    Outcome dump = in_child([] {
        errno = EACCES;
        err_dump("fatal");
    });
    EXPECT_EQ(dump.status, 128 + SIGABRT);
    EXPECT_EQ(dump.out, "fatal \n");
    EXPECT_EQ(dump.err, "fatal: Permission denied\n");
}

TEST(ErrExit, DaemonLinesGoToTheSystemLogWithTheirPriority) {
    int rc = kavro::test::run_in_child([] {
        std::string why;
        if (!kavro::test::private_dev(&why)) return 77;
        kavro::test::LogCatcher log;
        if (!log.ok()) return 77;
        PEL_daemonized = 1;
        err_msg("info line %s", "100%");
        std::string info = log.next();
        int fatal = kavro::test::run_in_child([]() -> int {
            errno = ENOENT;
            err_sys("fatal line");
        });
        std::string err = log.next();
        // <14> is LOG_USER|LOG_INFO, <11> LOG_USER|LOG_ERR.
        bool ok = info.rfind("<14>", 0) == 0 && info.find("info line 100%\n") != std::string::npos &&
                  fatal == 1 && err.rfind("<11>", 0) == 0 &&
                  err.find("fatal line: No such file or directory\n") != std::string::npos;
        return ok ? 0 : 1;
    });
    if (rc == 77) GTEST_SKIP() << "cannot catch the system log here";
    EXPECT_EQ(rc, 0);
}

}  // namespace
