// Shared helpers of the library's tests: child processes, private mounts,
// capability checks.
#pragma once

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

}  // namespace kavro::test

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

namespace kavro::test {
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
}  // namespace kavro::test
