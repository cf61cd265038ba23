// Error-exit helpers: what reaches standard output, standard error and the
// system log, and how each one ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::test::read_file;
using kavro::test::run_in_child;

// Runs fn in a child whose standard output and error go to files; returns
// the child's status and fills out/err.
int capture_child(kavro::test::ScratchDir &dir, const std::function<void()> &fn, std::string *out,
                  std::string *err) {
    const std::string o = dir.path() + "/out", e = dir.path() + "/err";
    int rc = run_in_child([&] {
        rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);  // err_dump must not leave a core file
        int fo = open(o.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int fe = open(e.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fo < 0 || fe < 0 || dup2(fo, 1) < 0 || dup2(fe, 2) < 0) return 99;
        fn();
        return 0;
    });
    *out = read_file(o);
    *err = read_file(e);
    return rc;
}

TEST(ErrExit, RetAndMsgWriteBothStreamsAndReturn) {
    kavro::test::ScratchDir dir;
    std::string out, err;
    int rc = capture_child(
        dir,
        [] {
            errno = ENOENT;
            err_ret("can't create %s", "/tmp/x");
            if (errno != ENOENT) std::exit(5);  // the caller's errno survives
            err_msg("plain %d%%", 100);
        },
        &out, &err);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "can't create /tmp/x \nplain 100% \n");
    EXPECT_EQ(err, "can't create /tmp/x\nplain 100%\n");
}

TEST(ErrExit, SysAppendsTheErrorTextAndExitsWithOne) {
    kavro::test::ScratchDir dir;
    std::string out, err;
    int rc = capture_child(
        dir,
        [] {
            int fd = open("/nonexistent/kavro", O_RDONLY);
            (void)fd;
            err_sys("open %s", "failed");
        },
        &out, &err);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(out, "open failed \n");
    EXPECT_EQ(err, "open failed: No such file or directory\n");
}

TEST(ErrExit, QuitExitsWithOneWithoutErrorText) {
    kavro::test::ScratchDir dir;
    std::string out, err;
    int rc = capture_child(
        dir,
        [] {
            errno = EPERM;
            err_quit("giving up after %d tries", 3);
        },
        &out, &err);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(out, "giving up after 3 tries \n");
    EXPECT_EQ(err, "giving up after 3 tries\n");
}

TEST(ErrExit, DumpAbortsWithTheErrorText) {
    kavro::test::ScratchDir dir;
    std::string out, err;
    int rc = capture_child(
        dir,
        [] {
            errno = EACCES;
            err_dump("fatal");
        },
        &out, &err);
    EXPECT_EQ(rc, 128 + SIGABRT);
    EXPECT_EQ(out, "fatal \n");
    EXPECT_EQ(err, "fatal: Permission denied\n");
}

TEST(ErrExit, LongLinesAreCutAndStillEndInANewline) {
    kavro::test::ScratchDir dir;
    std::string out, err;
    const std::string longText(3000, 'L');
    int rc = capture_child(
        dir,
        [&] {
            errno = ENOENT;
            err_ret("%s", longText.c_str());
            err_sys("%s", longText.c_str());
        },
        &out, &err);
    EXPECT_EQ(rc, 1);
    const std::string cut(1023, 'L');
    EXPECT_EQ(out, cut + " \n" + cut + " \n");
    // 1023 characters are all the line holds: the last gives way to the
    // newline, and no error text fits.
    const std::string line = std::string(1022, 'L') + "\n";
    EXPECT_EQ(err, line + line);
}

TEST(ErrExit, NullFormatIsAnEmptyMessage) {
    kavro::test::ScratchDir dir;
    std::string out, err;
    int rc = capture_child(
        dir,
        [] {
            const char *none = nullptr;
            err_msg(none);
        },
        &out, &err);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, " \n");
    EXPECT_EQ(err, "\n");
}

TEST(ErrExit, DaemonLinesGoToTheSystemLogWithTheirPriority) {
    int rc = run_in_child([] {
        std::string why;
        if (!kavro::test::private_dev(&why)) {
            std::fprintf(stderr, "private /dev: %s\n", why.c_str());
            return 77;
        }
        kavro::test::LogCatcher log;
        if (!log.ok()) return 78;
        PEL_daemonized = 1;
        err_msg("info line %s", "100%");
        std::string first = log.next();
        // A fatal one, from a process of its own.
        int child = run_in_child([]() -> int {
            errno = ENOENT;
            err_sys("fatal line");
        });
        std::string second = log.next();
        int ok = 0;
        // <14> is LOG_USER|LOG_INFO, <11> LOG_USER|LOG_ERR.
        if (first.rfind("<14>", 0) != 0 || first.find("info line 100%\n") == std::string::npos) ok |= 1;
        if (child != 1) ok |= 2;
        if (second.rfind("<11>", 0) != 0 ||
            second.find("fatal line: No such file or directory\n") == std::string::npos)
            ok |= 4;
        if (ok != 0) std::fprintf(stderr, "got [%s] [%s]\n", first.c_str(), second.c_str());
        return ok;
    });
    if (rc == 77 || rc == 78) GTEST_SKIP() << "cannot catch the system log here";
    EXPECT_EQ(rc, 0);
}

}  // namespace
