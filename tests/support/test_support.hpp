// Shared helpers of the library's tests: child processes, private mounts, capability checks.
#pragma once

// What nearly every test program uses, included once here.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kavro_rt/kavro_rt.h"

namespace kavro::test {

// Exit status of fn run in a forked child, or 128 + the signal that ended it (a child past timeout_s is killed).
int run_in_child(const std::function<int()> &fn, int timeout_s = 60);
// Exit status of the child pid, as run_in_child reports it.
int reap(pid_t pid, int timeout_s = 60);
struct ChildOutput {
    int status;
    std::string out, err;
};
// run_in_child with the child's standard output and error caught, and no core file.
ChildOutput run_captured(const std::function<int()> &fn, int timeout_s = 60);

// In a single-threaded process: a private mount namespace with an empty tmpfs over each of dirs.
bool private_mounts(std::initializer_list<const char *> dirs, std::string *why);
// Status a child returns when it cannot have a private mount namespace.
constexpr int kNoMounts = 77;
int run_in_private_mounts(const char *dir, const std::function<int()> &fn, int timeout_s = 60);
// fn in a child whose system log (next_line: the next datagram, "" after 2 s) this test catches, the library
// logging as a daemon; kNoMounts when /dev cannot be private.
int run_daemonized(const std::function<int(const std::function<std::string()> &next_line)> &fn);
// A shell command line (redirections and all) run in a child, its output caught.
ChildOutput run_shell(const std::string &cmd, int timeout_s = 60);

bool rt_permitted();  // this process may use SCHED_FIFO
bool emulated();      // an i386 program under a user-mode emulator (no real-time timing, no seccomp)

bool write_file(const std::string &path, const std::string &text);
std::string read_file(const std::string &path);  // "" when unreadable
bool read_exact(int fd, void *buf, size_t n, int timeout_ms = 10000);
int open_fds();  // descriptors open in this process

// A unique scratch directory, removed with its contents on destruction.
class ScratchDir {
    std::string path_;

public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    const std::string &path() const { return path_; }
};

// A one-shot signal between threads whose wait is bounded.
class Done {
    sem_t s_;

public:
    Done() { sem_init(&s_, 0, 0); }
    ~Done() { sem_destroy(&s_); }
    Done(const Done &) = delete;
    void post() { sem_post(&s_); }
    bool wait(unsigned ms = 10000);
};

// A forked child running fn(fd), exit code fn's result, reporting progress by say(fd); killed with the object.
class ForkedChild {
    int fd_ = -1;

public:
    explicit ForkedChild(const std::function<int(int)> &fn);
    ~ForkedChild();
    ForkedChild(const ForkedChild &) = delete;
    bool said(int timeout_ms = 10000);
    int exit_code(int timeout_s = 20);
    static void say(int fd);
    pid_t pid = -1;
};

// Two pages, the second inaccessible: end() is the first byte that faults.
class GuardPage {
    char *map_ = nullptr, *end_ = nullptr;

public:
    GuardPage();
    ~GuardPage();
    GuardPage(const GuardPage &) = delete;
    bool ok() const { return end_ != nullptr; }
    char *end() const { return end_; }
};
}  // namespace kavro::test

#define KAVRO_SKIP_IF_NO_MOUNTS(rc) \
    if ((rc) == ::kavro::test::kNoMounts) GTEST_SKIP() << "no private mount namespace"
// A child's status: 0 passes, kNoMounts skips the test.
#define KAVRO_EXPECT_PASSED(...)           \
    do {                                   \
        const int status_ = (__VA_ARGS__); \
        KAVRO_SKIP_IF_NO_MOUNTS(status_);  \
        EXPECT_EQ(status_, 0);             \
    } while (0)
// In a forked child: names the failed check and returns 1.
#define CHILD_CHECK(c)                                                                                 \
    do {                                                                                               \
        if (!(c)) return std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c), 1; \
    } while (0)
#define KAVRO_REQUIRE_RT() \
    if (!::kavro::test::rt_permitted()) GTEST_SKIP() << "real-time scheduling is not permitted for this user"
#define KAVRO_REQUIRE_NATIVE(why) \
    if (::kavro::test::emulated()) GTEST_SKIP() << "emulated: " << why
