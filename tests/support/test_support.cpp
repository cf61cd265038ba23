#include "test_support.hpp"

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace kavro::test {

int reap(pid_t pid, int timeout_s) {
    const time_t give_up = time(nullptr) + timeout_s;
    int status = 0;
    for (pid_t r; (r = waitpid(pid, &status, WNOHANG)) != pid; usleep(2000)) {
        if (r < 0 && errno != EINTR) return -1;
        if (time(nullptr) >= give_up) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

int run_in_child(const std::function<int()> &fn, int timeout_s) {
    return ForkedChild([&](int) { return fn(); }).exit_code(timeout_s);
}

ChildOutput run_captured(const std::function<int()> &fn, int timeout_s) {
    ScratchDir dir;
    const std::string out = dir.path() + "/out", err = dir.path() + "/err";
    ChildOutput c{run_in_child(
                      [&] {
                          rlimit none{0, 0};
                          setrlimit(RLIMIT_CORE, &none);
                          const int fo = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                          const int fe = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                          return fo < 0 || fe < 0 || dup2(fo, 1) < 0 || dup2(fe, 2) < 0 ? 99 : fn();
                      },
                      timeout_s),
                  read_file(out), read_file(err)};
    // An emulator reports a child's fatal signal on the child's own standard error: not the program's line.
    for (size_t at; (at = c.err.find("qemu: uncaught target signal")) != std::string::npos;)
        c.err.erase(at, c.err.find('\n', at) - at + 1);
    return c;
}

int run_in_private_mounts(const char *dir, const std::function<int()> &fn, int timeout_s) {
    return run_in_child(
        [&] {
            std::string why;
            return private_mounts({dir}, &why) ? fn() : (std::fprintf(stderr, "%s\n", why.c_str()), kNoMounts);
        },
        timeout_s);
}

bool read_exact(int fd, void *buf, size_t n, int timeout_ms) {
    for (auto *p = static_cast<char *>(buf); n > 0;) {
        pollfd pf{fd, POLLIN, 0};
        if (poll(&pf, 1, timeout_ms) != 1) return false;
        const ssize_t r = read(fd, p, n);
        if (r < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (r <= 0) return false;
        p += r, n -= static_cast<size_t>(r);
    }
    return true;
}

int open_fds() {
    int n = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd"); it != decltype(it)(); ++it) ++n;
    return n;
}

bool Done::wait(unsigned ms) {
    const timespec t = kavro::detail::wall_deadline(ms);
    while (sem_timedwait(&s_, &t) != 0)
        if (errno != EINTR) return false;
    return true;
}

ForkedChild::ForkedChild(const std::function<int(int)> &fn) {
    int fds[2];
    if (pipe(fds) != 0) return;
    std::fflush(nullptr);
    if ((pid = fork()) == 0) {
        close(fds[0]);
        const int rc = fn(fds[1]);
        std::fflush(nullptr);
        _exit(rc);
    }
    close(fds[1]);
    fd_ = fds[0];
}

ForkedChild::~ForkedChild() {
    if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    if (fd_ >= 0) close(fd_);
}

bool ForkedChild::said(int timeout_ms) {
    pollfd p{fd_, POLLIN, 0};
    char c;
    return fd_ >= 0 && poll(&p, 1, timeout_ms) == 1 && read(fd_, &c, 1) == 1;
}

int ForkedChild::exit_code(int timeout_s) {
    const int rc = pid > 0 ? reap(pid, timeout_s) : -1;
    pid = -1;
    return rc;
}

void ForkedChild::say(int fd) {
    if (write(fd, "x", 1) != 1) std::perror("ForkedChild::say");
}

GuardPage::GuardPage() {
    const long page = sysconf(_SC_PAGESIZE);
    void *m = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) return;
    map_ = static_cast<char *>(m);
    if (mprotect(map_ + page, page, PROT_NONE) == 0) end_ = map_ + page;
}

GuardPage::~GuardPage() {
    if (map_ != nullptr) munmap(map_, 2 * sysconf(_SC_PAGESIZE));
}

static bool failed(std::string *why, const std::string &what) {
    if (why) *why = what + ": " + std::strerror(errno);
    return false;
}

bool private_mounts(std::initializer_list<const char *> dirs, std::string *why) {
    if (unshare(CLONE_NEWNS) != 0) return failed(why, "unshare(CLONE_NEWNS)");
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failed(why, "making / private");
    for (const char *d : dirs) {
        std::error_code ec;
        std::filesystem::create_directories(d, ec);
        if (mount("tmpfs", d, "tmpfs", 0, "mode=0755") != 0) return failed(why, std::string("tmpfs over ") + d);
    }
    return true;
}

bool rt_permitted() {
    // Tried on a short-lived thread so that the caller's own policy is untouched.
    static const bool permitted = [] {
        bool ok = false;
        std::thread([&ok] {
            const sched_param sp{1};
            ok = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp) == 0;
        }).join();
        return ok;
    }();
    return permitted;
}

bool emulated() {
    if (sizeof(void *) != 4) return false;
    if (const char *e = std::getenv("KAVRO_EMULATED")) return std::strcmp(e, "1") == 0;
    return read_file("/proc/sys/fs/binfmt_misc/qemu-i386").rfind("enabled", 0) == 0;
}

bool write_file(const std::string &path, const std::string &text) {
    return static_cast<bool>(std::ofstream(path, std::ios::binary | std::ios::trunc) << text);
}

std::string read_file(const std::string &path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

ScratchDir::ScratchDir() {
    char tmpl[] = "/tmp/kavro-test-XXXXXX";
    path_ = mkdtemp(tmpl) ? tmpl : "/tmp";
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    if (path_ != "/tmp") std::filesystem::remove_all(path_, ec);
}

int run_daemonized(const std::function<int(const std::function<std::string()> &)> &fn) {
    return run_in_child([&] {
        // An empty /dev of its own, so that a socket bound at /dev/log receives what the system log would.
        std::string why;
        if (!private_mounts({"/dev"}, &why)) return std::fprintf(stderr, "%s\n", why.c_str()), kNoMounts;
        const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un addr{AF_UNIX, "/dev/log"};
        CHILD_CHECK(fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0);
        PEL_daemonized = 1;
        return fn([fd] {
            pollfd p{fd, POLLIN, 0};
            char buf[4096];
            const ssize_t n = poll(&p, 1, 2000) == 1 ? recv(fd, buf, sizeof buf, 0) : 0;
            return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
        });
    });
}

ChildOutput run_shell(const std::string &cmd, int timeout_s) {
    return run_captured([&] { return execl("/bin/sh", "sh", "-c", cmd.c_str(), nullptr), 127; }, timeout_s);
}

}  // namespace kavro::test

// Test processes publish no snapshots unless a test asks for them.
namespace {
const bool kNoPublishing = setenv("KAVRO_PUBLISH", "0", 0) == 0;
}  // namespace
