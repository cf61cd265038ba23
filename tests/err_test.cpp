// Error-exit helpers: what reaches standard output, standard error and the
// system log, and how each one ends.

#include "test_support.hpp"

TEST(ErrExit, EachHelperWritesBothStreamsAndEndsAsItShould) {
    const std::string L(3000, 'L');
    const struct {
        void (*fn)();
        int status;
        std::string out, err;
    } cases[] = {
        {[] {  // neither adds the error text (nor changes errno); a full line keeps its newline
             errno = ENOENT, err_ret("can't create %s", "/tmp/x"), err_msg("plain %d%%", errno == ENOENT ? 100 : 5);
             err_ret("%s", std::string(3000, 'L').c_str());
         },
         0, "can't create /tmp/x \nplain 100% \n" + L.substr(0, 1023) + " \n",
         "can't create /tmp/x\nplain 100%\n" + L.substr(0, 1022) + "\n"},
        {[] {
             if (open("/nonexistent/kavro", O_RDONLY) < 0) err_sys("open %s", "failed");
         },
         1, "open failed \n", "open failed: No such file or directory\n"},
        {[] { errno = EPERM, err_quit("giving up after %d tries", 3); }, 1, "giving up after 3 tries \n",
         "giving up after 3 tries\n"},
        {[] { errno = EACCES, err_dump("fatal"); }, 128 + SIGABRT, "fatal \n", "fatal: Permission denied\n"},
    };
    for (const auto &c : cases) {
        const auto r = kavro::test::run_captured([fn = c.fn] { return fn(), 0; });
        EXPECT_TRUE(r.status == c.status && r.out == c.out && r.err == c.err) << r.status << " " << r.out << r.err;
    }
}

TEST(ErrExit, DaemonLinesGoToTheSystemLogWithTheirPriority) {
    const int rc = kavro::test::run_daemonized([](auto &next_line) {
        err_msg("info line %s", "100%");
        const std::string info = next_line();  // <14> is LOG_USER|LOG_INFO, <11> LOG_USER|LOG_ERR
        CHILD_CHECK(info.rfind("<14>", 0) == 0 && info.find("info line 100%\n") != std::string::npos);
        CHILD_CHECK(kavro::test::run_in_child([]() -> int { errno = ENOENT, err_sys("fatal line"); }) == 1);
        const std::string err = next_line();
        CHILD_CHECK(err.rfind("<11>", 0) == 0 && err.find("fatal line: No such file or directory\n") != err.npos);
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}
