// Shared helpers of the library's tests: child processes, private mounts,
// capability checks.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>

namespace kavro::test {

// Runs fn in a forked child and returns its exit status, or 128 + the
// signal that ended it. A child still running after timeout_s seconds is
// killed (and reported as 128 + SIGKILL), so nothing hangs.
int run_in_child(const std::function<int()> &fn, int timeout_s = 60);

// In the calling process, which must be single-threaded (a forked child):
// a private mount namespace with an empty tmpfs over each directory, made
// first when missing. Returns false and says why when it cannot.
bool private_mounts(std::initializer_list<const char *> dirs, std::string *why);

// True when this process may use real-time scheduling (SCHED_FIFO).
bool rt_permitted();

// True when an i386 test runs under a user-mode emulator, which lacks
// real-time timing and seccomp.
bool emulated();

// Writes text to a file; false on any failure.
bool write_file(const std::string &path, const std::string &text);
// Reads a whole file ("" when it cannot be read).
std::string read_file(const std::string &path);

// A unique scratch directory, removed with its contents on destruction.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// In a single-threaded process: a private mount namespace whose /dev is a
// fresh tmpfs holding only null, zero, urandom and full from the real /dev,
// so that a test may bind its own socket at /dev/log.
bool private_dev(std::string *why);

// A datagram socket bound at /dev/log (after private_dev) that collects
// what the system log would have received.
class LogCatcher {
public:
    LogCatcher();
    ~LogCatcher();
    bool ok() const { return fd_ >= 0; }
    // Next datagram, or "" after timeout_ms.
    std::string next(int timeout_ms = 2000);

private:
    int fd_ = -1;
};

// Exit status of the child pid (128 + signal), as run_in_child reports it.
int reap(pid_t pid, int timeout_s = 60);

// What a child wrote to its standard output and error, and its status.
struct ChildOutput {
    int status;
    std::string out, err;
};
// run_in_child with the child's standard output and error caught; the child
// leaves no core file.
ChildOutput run_captured(const std::function<int()> &fn, int timeout_s = 60);

// Status a child returns when it cannot have a private mount namespace.
constexpr int kNoMounts = 77;
// run_in_child in a private mount namespace with an empty tmpfs over dir.
int run_in_private_mounts(const char *dir, const std::function<int()> &fn, int timeout_s = 60);

// Reads exactly n bytes, waiting at most timeout_ms for each piece.
bool read_exact(int fd, void *buf, size_t n, int timeout_ms = 10000);

// Descriptors open in this process (the directory's own included).
int open_fds();

// A one-shot signal between threads whose wait is bounded.
class Done {
public:
    Done() { sem_init(&s_, 0, 0); }
    ~Done() { sem_destroy(&s_); }
    Done(const Done &) = delete;
    Done &operator=(const Done &) = delete;
    void post() { sem_post(&s_); }
    bool wait(unsigned ms = 10000);

private:
    sem_t s_;
};

// A forked child running fn(fd), whose exit code is fn's result; it reports
// progress by say(fd). Killed if it outlives the object.
class ForkedChild {
public:
    explicit ForkedChild(const std::function<int(int)> &fn);
    ~ForkedChild();
    ForkedChild(const ForkedChild &) = delete;
    ForkedChild &operator=(const ForkedChild &) = delete;
    // True when the child said something within timeout_ms.
    bool said(int timeout_ms = 10000);
    // Exit status, as reap reports it.
    int exit_code(int timeout_s = 20);
    static void say(int fd);
    pid_t pid = -1;

private:
    int fd_ = -1;
};

// Two pages, the second inaccessible: end() is the first byte that faults.
class GuardPage {
public:
    GuardPage();
    ~GuardPage();
    GuardPage(const GuardPage &) = delete;
    GuardPage &operator=(const GuardPage &) = delete;
    bool ok() const { return end_ != nullptr; }
    char *end() const { return end_; }

private:
    char *map_ = nullptr, *end_ = nullptr;
};
}  // namespace kavro::test

// Skips the current test when a child reported kNoMounts.
#define KAVRO_SKIP_IF_NO_MOUNTS(rc) \
    if ((rc) == ::kavro::test::kNoMounts) GTEST_SKIP() << "no private mount namespace"

// In a forked child: says which check failed and ends the child's function with 1.
#define CHILD_CHECK(c)                                                                  \
    do {                                                                                \
        if (!(c)) {                                                                     \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c); \
            return 1;                                                                   \
        }                                                                               \
    } while (0)

// Skips the current test with its reason when real-time scheduling is refused.
#define KAVRO_REQUIRE_RT()                                                        \
    do {                                                                          \
        if (!::kavro::test::rt_permitted())                                       \
            GTEST_SKIP() << "real-time scheduling is not permitted for this user"; \
    } while (0)

// Skips the current test when it runs emulated.
#define KAVRO_REQUIRE_NATIVE(why)                                        \
    do {                                                                 \
        if (::kavro::test::emulated()) GTEST_SKIP() << "emulated: " << why; \
    } while (0)
