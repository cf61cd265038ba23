// Named-pipe channels: tables, reader side, and the write path against
// reader processes.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "kavro_rt/kavro_rt.h"
#include "named_pipe.hpp"
#include "test_support.hpp"

namespace {

using namespace kavro::detail;
using kavro::test::ScratchDir;

constexpr KAVRO_STATUS kNoReaderSt = 0x8007000Au;

int open_fds() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

bool wait_bounded(pid_t pid, int *status, int seconds) {
    for (int i = 0; i < seconds * 500; ++i) {
        if (waitpid(pid, status, WNOHANG) == pid) return true;
        usleep(2000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, status, 0);
    return false;
}

bool read_exact(int fd, void *buf, size_t n, int timeout_ms = 10000) {
    auto *p = static_cast<char *>(buf);
    while (n > 0) {
        pollfd pf{fd, POLLIN, 0};
        if (poll(&pf, 1, timeout_ms) != 1) return false;
        ssize_t r = read(fd, p, n);
        if (r < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// Names of a channel's four FIFOs, spelled out independently of the library.
std::vector<std::string> channel_names(const std::string &root, uint32_t key, bool streams) {
    std::string base = root + (streams ? "/kmxipc/.strpipe." : "/kmxipc/.pipe.") +
                       std::to_string(static_cast<int32_t>(key));
    return {base, base + "_", base + "__", base + "___"};
}

// A reader process: makes the channel's FIFOs, opens the first `open_count`
// of them and keeps them open until quit(); collect() returns what stands
// in each of the four pipes (index, rank 0, 1, 2).
class Reader {
public:
    Reader(const std::vector<std::string> &names, int open_count = 4, int pipe_size = 0) {
        int ctl[2], res[2];
        if (pipe(ctl) != 0 || pipe(res) != 0) return;
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(ctl[1]);
            close(res[0]);
            IPC_FIFO_Init();
            int fds[4];
            for (int i = 0; i < 4; ++i) {
                fds[i] = -1;
                IPC_FIFO_Create(0, &fds[i], 0, names[i].c_str());
                if (i >= open_count) close(fds[i]);
                if (pipe_size > 0) fcntl(fds[i], F_SETPIPE_SZ, pipe_size);
            }
            char c = 'r';
            if (write(res[1], &c, 1) != 1) _exit(1);
            while (read(ctl[0], &c, 1) == 1) {
                for (int i = 0; i < 4; ++i) {
                    std::string got;
                    char buf[4096];
                    int32_t n = 0;
                    while (i < open_count && IPC_FIFO_Read(fds[i], buf, &n, sizeof buf) == 0 && n > 0)
                        got.append(buf, static_cast<size_t>(n));
                    uint32_t len = static_cast<uint32_t>(got.size());
                    if (write(res[1], &len, 4) != 4 ||
                        write(res[1], got.data(), len) != static_cast<ssize_t>(len))
                        _exit(1);
                }
            }
            _exit(0);
        }
        close(ctl[0]);
        close(res[1]);
        ctl_ = ctl[1];
        res_ = res[0];
        char c = 0;
        ready_ = pid_ > 0 && read_exact(res_, &c, 1) && c == 'r';
    }
    ~Reader() { quit(); }
    bool ready() const { return ready_; }

    std::vector<std::string> collect() {
        std::vector<std::string> out(4);
        char c = 'c';
        if (write(ctl_, &c, 1) != 1) return out;
        for (auto &s : out) {
            uint32_t len = 0;
            if (!read_exact(res_, &len, 4)) break;
            s.resize(len);
            if (len > 0 && !read_exact(res_, s.data(), len)) break;
        }
        return out;
    }

    void quit() {
        if (pid_ <= 0) return;
        close(ctl_);
        close(res_);
        int st = 0;
        wait_bounded(pid_, &st, 20);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int ctl_ = -1, res_ = -1;
    bool ready_ = false;
};

// Each test case has its own install root with the IPC directory made.
class Fifo : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = dir_.path();
        mkdir((root_ + "/kmxipc").c_str(), 0755);
        setenv("TRVXROOT", root_.c_str(), 1);
        ASSERT_EQ(IPC_FIFO_Init(), 0u);
    }
    void TearDown() override { IPC_FIFO_Exit(); }

    KAVRO_STATUS put(uint32_t key, const std::string &msg, bool streams = false, int32_t tag = 0) {
        written_ = 12345;
        return IPC_FIFO_Write(0, key, tag, msg.data(), &written_, static_cast<uint32_t>(msg.size()),
                              streams ? 1 : 0);
    }

    ScratchDir dir_;
    std::string root_;
    int32_t written_ = 0;
};

TEST(FifoFamily, InitCountsUpAndTheLastExitFreesTheTables) {
    ScratchDir dir;
    setenv("TRVXROOT", dir.path().c_str(), 1);
    const uint32_t gen = memgenalloccalls;
    ASSERT_EQ(IPC_FIFO_Init(), 0u);
    ASSERT_EQ(IPC_FIFO_Init(), 0u);
    EXPECT_EQ(memgenalloccalls, gen + 2);  // two tables, once
    struct stat st;
    ASSERT_EQ(stat((dir.path() + "/kmxipc").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(IPC_FIFO_Exit(), 0u);
    EXPECT_NE(fifo_table(0), nullptr);
    EXPECT_EQ(IPC_FIFO_Exit(), 0u);
    EXPECT_EQ(fifo_table(0), nullptr);
    EXPECT_EQ(fifo_table(1), nullptr);
    EXPECT_EQ(IPC_FIFO_Exit(), 0u);  // unmatched: nothing happens

    // Writes without the family find no table.
    int32_t n = 0;
    EXPECT_EQ(IPC_FIFO_Write(0, 5, 0, "x", &n, 1, 0), KAVRO_E_FAIL);
    FifoKeyStatus ks[2] = {{7, 7, 7}, {7, 7, 7}};
    EXPECT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(ks[0].key, 0u);

    EXPECT_EQ(POLL_Init() | POLL_Open(0) | POLL_Ctl(0, 1, 2) | POLL_Wait(0, 1000) | POLL_Exit(), 0);
    EXPECT_EQ(IPC_FIFO_Delete(0) | IPC_FIFO_Detach(0, 1), 0u);
}

TEST(FifoFamily, UnsetOrOverlongRootBuildsNoPath) {
    char buf[kFifoPathSize];
    EXPECT_EQ(fifo_index_path(buf, "/opt/x", 17, 0), 22);
    EXPECT_STREQ(buf, "/opt/x/kmxipc/.pipe.17");
    EXPECT_GT(fifo_index_path(buf, "/opt/x", 0x80000000u, 1), 0);
    EXPECT_STREQ(buf, "/opt/x/kmxipc/.strpipe.-2147483648");
    // The longest rank-pipe name must fit in 255 characters, else refused.
    const std::string fits(255 - std::strlen("/kmxipc/.pipe.-1___"), 'r');
    EXPECT_GT(fifo_index_path(buf, fits.c_str(), 0xFFFFFFFFu, 0), 0);
    EXPECT_EQ(fifo_index_path(buf, (fits + "r").c_str(), 0xFFFFFFFFu, 0), -2);
    EXPECT_EQ(fifo_index_path(buf, "", 1, 0), -1);

    unsetenv("TRVXROOT");
    testing::internal::CaptureStderr();
    ASSERT_EQ(IPC_FIFO_Init(), 0u);
    int32_t n = 0;
    EXPECT_EQ(IPC_FIFO_Write(0, 5, 0, "x", &n, 1, 0), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_FIFO_CheckKey(5), KAVRO_E_FAIL);
    setenv("TRVXROOT", ("/tmp/" + std::string(300, 'z')).c_str(), 1);
    EXPECT_EQ(IPC_FIFO_Write(0, 5, 0, "x", &n, 1, 1), KAVRO_E_FAIL);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("KAVRO:IPC_FIFO_Init: TRVXROOT is not set"), std::string::npos) << err;
    EXPECT_NE(err.find("KAVRO:IPC_FIFO_Write: TRVXROOT is not set"), std::string::npos) << err;
    EXPECT_NE(err.find("KAVRO:IPC_FIFO_Write: TRVXROOT too long"), std::string::npos) << err;
    IPC_FIFO_Exit();
}

// The index beside each table must give what a scan from entry 0 gives:
// the first entry with the key. Random adds (duplicates included) and
// removals, with few keys and with many (long probe runs).
TEST_F(Fifo, TableLookupMatchesAFirstMatchScan) {
    std::mt19937 rng(12345);
    for (uint32_t pool : {40u, 3000u}) {
        std::vector<uint32_t> keys(pool);
        for (auto &k : keys) k = rng() | 1;
        for (int op = 0; op < 20000; ++op) {
            uint32_t k = keys[rng() % pool];
            const FifoKeyEntry *t = fifo_table(1);
            int first = -1, free_at = -1;
            for (int i = kFifoTableSize - 1; i >= 0; --i) {
                if (t[i].key == k && t[i].writefifo != 0) first = i;
                if (t[i].writefifo == 0) free_at = i;
            }
            int32_t r0, r1, r2;
            int8_t rank = -1;
            if (rng() % 3 != 0) {
                int32_t fd = 100000 + op;  // never a real descriptor
                ASSERT_EQ(add_key(k, 0, 1, fd, fd, fd, fd, &rank), free_at < 0 ? 0u : k);
                if (free_at >= 0) {
                    ASSERT_EQ(t[free_at].writefifo, fd);
                }
            } else if (rng() % 2 == 0) {
                remove_key(k, 1);
                for (int i = 0; i < kFifoTableSize; ++i) ASSERT_NE(t[i].key, k);
            } else {
                ASSERT_EQ(search_key(k, 0, 1, &r0, &r1, &r2, &rank), first < 0 ? 0 : t[first].writefifo)
                    << "op " << op;
            }
        }
        for (uint32_t k : keys) remove_key(k, 1);
    }

    // Round-robin from a new entry, signed tag range, removed flag.
    int32_t r0 = 0, r1 = 0, r2 = 0;
    int8_t rank = -1;
    ASSERT_EQ(add_key(9, 5, 0, 100001, 100002, 100003, 100004, &rank), 9u);
    std::vector<int> ranks{rank};
    for (int32_t tag : {-3, 9, 1, 2}) {
        ASSERT_EQ(search_key(9, tag, 0, &r0, &r1, &r2, &rank), 100001);
        ranks.push_back(rank);
    }
    EXPECT_EQ(ranks, (std::vector<int>{2, 0, 1, 2, 0}));
    EXPECT_EQ(r2, 100004);
    mark_key_removed(9, 0);
    EXPECT_EQ(search_key(9, 0, 1, &r0, &r1, &r2, &rank), 0);  // other kind
    EXPECT_EQ(search_key(9, 0, 0, &r0, &r1, &r2, &rank), 100001);
    FifoKeyStatus ks[kFifoTableSize + 1];
    int32_t n = -1;
    ASSERT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(ks[0].key, 9u);
    EXPECT_EQ(ks[0].minTag, -3);
    EXPECT_EQ(ks[0].maxTag, 9);
    EXPECT_EQ(ks[1].key, 0u);
    // RemoveKeys stops at the count and at the first zero key.
    FifoKeyStatus list[] = {{9, 0, 0}, {0, 0, 0}, {7, 0, 0}};
    ASSERT_EQ(add_key(7, 0, 0, 100005, 100006, 100007, 100008, &rank), 7u);
    EXPECT_EQ(IPC_FIFO_RemoveKeys(list + 2, 0, 0), 0u);
    EXPECT_EQ(IPC_FIFO_RemoveKeys(list, 5, 0), 0u);
    EXPECT_EQ(search_key(9, 0, 0, &r0, &r1, &r2, &rank), 0);
    EXPECT_EQ(search_key(7, 0, 0, &r0, &r1, &r2, &rank), 100005);
    EXPECT_EQ(IPC_FIFO_RemoveKeys(nullptr, 1, 0), KAVRO_E_FAIL);
}

TEST_F(Fifo, ReaderSideCreateAndRead) {
    const std::string path = root_ + "/kmxipc/f";
    int32_t fd = -7, again = -7, n = 0;
    ASSERT_EQ(IPC_FIFO_Create(0, &fd, 0, path.c_str()), 0u);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    ASSERT_EQ(IPC_FIFO_Create(0, &again, 0, path.c_str()), 0u);  // exists: opened again
    EXPECT_GE(again, 0);
    char buf[8];
    EXPECT_EQ(IPC_FIFO_Read(fd, buf, &n, 0), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_FIFO_Read(fd, buf, nullptr, 8), KAVRO_E_INVALIDARG);
    int w = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    EXPECT_EQ(IPC_FIFO_Read(fd, buf, &n, 8), KAVRO_E_AGAIN);
    EXPECT_EQ(n, -1);
    ASSERT_EQ(write(w, "abc", 3), 3);
    EXPECT_EQ(IPC_FIFO_Read(fd, buf, &n, 8), 0u);
    EXPECT_EQ(n, 3);
    close(w);
    close(fd);
    close(again);

    int32_t untouched = -7;
    testing::internal::CaptureStderr();
    EXPECT_EQ(IPC_FIFO_Create(0, &untouched, 0, (root_ + "/missing/f").c_str()), 0u);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("can't create " + root_ + "/missing/f"),
              std::string::npos);
    EXPECT_EQ(untouched, -7);
    EXPECT_EQ(set_nonblock(-1), -1);
}

// Exact names for both kinds (a negative key too), the messages in each
// rank pipe and the index bytes 2, 0, 1, 2, 0.
TEST_F(Fifo, WritesReachTheNamedPipesRoundRobin) {
    for (bool streams : {false, true}) {
        for (uint32_t key : {17u, 0x80000000u}) {
            Reader reader(channel_names(root_, key, streams));
            ASSERT_TRUE(reader.ready());
            EXPECT_EQ(IPC_FIFO_CheckKey_2(key, streams), 0u);
            EXPECT_EQ(IPC_FIFO_CheckKey(key), 0u);
            std::vector<std::string> msgs{"first", "second!", "3rd", "fourth message", "5"};
            for (const auto &m : msgs) {
                ASSERT_EQ(put(key, m, streams), 0u) << m;
                EXPECT_EQ(written_, static_cast<int32_t>(m.size()));
            }
            auto got = reader.collect();
            EXPECT_EQ(got[0], std::string("\2\0\1\2\0", 5));
            EXPECT_EQ(got[1], msgs[1] + msgs[4]);
            EXPECT_EQ(got[2], msgs[2]);
            EXPECT_EQ(got[3], msgs[0] + msgs[3]);
            reader.quit();
            FifoKeyStatus ks[kFifoTableSize + 1];
            int32_t n = 0;
            IPC_FIFO_KeyStatus(ks, &n, streams);
            EXPECT_EQ(n, 1);
            IPC_FIFO_RemoveKeys(ks, n, streams);
        }
    }
}

TEST_F(Fifo, RefusedWritesOpenNothingAndFailedOpensLeaveNothingOpen) {
    const int fds = open_fds();
    int32_t n = 0;
    const char *m = "msg";
    testing::internal::CaptureStderr();
    EXPECT_EQ(IPC_FIFO_Write(0, 17, 0, m, &n, 0, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_FIFO_Write(0, 0, 0, m, &n, 3, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_FIFO_Write(0, 17, 0, nullptr, &n, 3, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_FIFO_Write(0, 17, 0, m, nullptr, 3, 0), KAVRO_E_INVALIDARG);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    // No FIFOs at all.
    auto names = channel_names(root_, 17, false);
    testing::internal::CaptureStderr();
    EXPECT_EQ(put(17, m), KAVRO_E_FAIL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:IPC_FIFO_Write: ***named pipe open error, file name " + names[0] + ", errno=2\n");
    EXPECT_EQ(IPC_FIFO_CheckKey_2(17, 0), KAVRO_E_FAIL);

    // FIFOs without a reader: refused every time, nothing entered.
    for (const auto &f : names) ASSERT_EQ(mkfifo(f.c_str(), 0666), 0);
    EXPECT_EQ(IPC_FIFO_CheckKey_2(17, 0), KAVRO_E_FAIL);
    for (int i = 0; i < 2; ++i) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(put(17, m), kNoReaderSt);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "KAVRO:IPC_FIFO_Write: ***named pipe open error, file name " + names[0] + ", errno=6\n");
    }
    // A reader of three pipes only: the fourth open fails, the three are closed.
    {
        Reader partial(names, 3);
        ASSERT_TRUE(partial.ready());
        testing::internal::CaptureStderr();
        EXPECT_EQ(put(17, m), kNoReaderSt);
        EXPECT_NE(testing::internal::GetCapturedStderr().find(names[3] + ", errno=6"), std::string::npos);
        EXPECT_EQ(partial.collect()[3], "");
    }
    FifoKeyStatus ks[kFifoTableSize + 1];
    EXPECT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(open_fds(), fds);
    for (int i = 0; i < kFifoTableSize; ++i) EXPECT_EQ(fifo_table(0)[i].writefifo, 0);
}

// Gone reader: detected by KeyStatus and by the write (without SIGPIPE),
// reported with its tags, removed, and a new reader is reached.
TEST_F(Fifo, GoneReaderIsReportedRemovedAndReplaced) {
    auto names = channel_names(root_, 17, false);
    FifoKeyStatus ks[kFifoTableSize + 1];
    int32_t n = -1;
    {
        Reader reader(names);
        ASSERT_TRUE(reader.ready());
        for (int32_t tag : {5, -3, 9}) ASSERT_EQ(put(17, "hello", false, tag), 0u);
        ASSERT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
        EXPECT_EQ(n, 0);
    }
    ASSERT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(ks[0].key, 17u);
    EXPECT_EQ(ks[0].minTag, -3);
    EXPECT_EQ(ks[0].maxTag, 9);
    EXPECT_EQ(ks[1].key, 0u);
    EXPECT_EQ(put(17, "again", false, 100), KAVRO_E_BROKENPIPE);  // and we are alive
    EXPECT_EQ(written_, -1);
    EXPECT_EQ(put(17, "again", false, 100), KAVRO_E_BROKENPIPE);
    ASSERT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(ks[0].maxTag, 100);
    const int fds = open_fds();
    ASSERT_EQ(IPC_FIFO_RemoveKeys(ks, n, 0), 0u);
    EXPECT_EQ(open_fds(), fds - 4);

    Reader next(names);
    ASSERT_TRUE(next.ready());
    ASSERT_EQ(put(17, "new reader"), 0u);
    auto got = next.collect();
    EXPECT_EQ(got[0], std::string(1, '\2'));
    EXPECT_EQ(got[3], "new reader");
}

TEST_F(Fifo, FullRankPipeIsReportedAtOnceWithoutALine) {
    Reader reader(channel_names(root_, 23, true), 4, 4096);
    ASSERT_TRUE(reader.ready());
    const std::string big(1024, 'b');
    testing::internal::CaptureStderr();
    int ok = 0;
    KAVRO_STATUS st = 0;
    while (ok < 100 && (st = put(23, big, true)) == 0) ++ok;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(st, KAVRO_E_AGAIN);
    EXPECT_EQ(written_, -1);
    EXPECT_EQ(ok, 12);  // four 1 KiB messages fill each 4 KiB rank pipe
    auto got = reader.collect();
    EXPECT_EQ(got[0].size(), 12u);
    EXPECT_EQ(got[3].size(), 4096u);
}

TEST_F(Fifo, FullTableRefusesTheWriteAndClosesItsDescriptors) {
    Reader reader(channel_names(root_, 5000, false));
    ASSERT_TRUE(reader.ready());
    int8_t rank;
    for (uint32_t k = 1; k <= kFifoTableSize; ++k)
        ASSERT_EQ(add_key(k, 0, 0, 200000, 200000, 200000, 200000, &rank), k);
    const int fds = open_fds();
    testing::internal::CaptureStderr();
    EXPECT_EQ(put(5000, "m"), KAVRO_E_OUTOFMEMORY);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("table full"), std::string::npos);
    EXPECT_EQ(open_fds(), fds);
    EXPECT_EQ(reader.collect()[0], "");
}

#define CHILD_CHECK(c)                                                             \
    do {                                                                           \
        if (!(c)) {                                                                \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c); \
            return 1;                                                              \
        }                                                                          \
    } while (0)

// Tracing goes to a System V queue keyed by a file under the fixed install
// path: run in a private mount (and, where possible, IPC) namespace.
TEST_F(Fifo, TraceRecordsCarryTheHeadOfEachMessage) {
    const std::string root = root_;
    int rc = kavro::test::run_in_child([&root]() -> int {
        std::string why;
        if (!kavro::test::private_mounts({"/usr/torvanex"}, &why)) {
            std::fprintf(stderr, "%s\n", why.c_str());
            return 77;
        }
        unshare(CLONE_NEWIPC);  // best effort: the key is a single byte
        const char *path = "/usr/torvanex/kmxipc/.DRVTRC";
        mkdir("/usr/torvanex/kmxipc", 0755);
        CHILD_CHECK(kavro::test::write_file(path, ""));
        key_t key = ftok(path, 0) & 0xff;
        if (msgget(key, 0) != -1) return 78;  // someone else's queue
        setenv("DRV_DBG", "", 1);
        CHILD_CHECK(IPC_FIFO_Init() == 0);
        int32_t fds[8];
        auto a = channel_names(root, 3, false), b = channel_names(root, 3, true);
        for (int i = 0; i < 4; ++i) {
            IPC_FIFO_Create(0, &fds[i], 0, a[i].c_str());
            IPC_FIFO_Create(0, &fds[4 + i], 0, b[i].c_str());
        }
        const char msg[] = "0123456789abcdefghijklmnopqrstuvwxyz";
        int32_t n = 0;
        CHILD_CHECK(IPC_FIFO_Write(0, 3, 0, msg, &n, 30, 0) == 0);
        CHILD_CHECK(IPC_FIFO_Write(0, 3, 0, msg, &n, 10, 1) == 0);
        int q = msgget(key, 0);
        CHILD_CHECK(q != -1);
        struct {
            long type;
            char data[64];
        } rec;
        ssize_t got = msgrcv(q, &rec, sizeof rec.data, 0, IPC_NOWAIT);
        CHILD_CHECK(got == 24 && rec.type == 1 && std::memcmp(rec.data, msg, 24) == 0);
        got = msgrcv(q, &rec, sizeof rec.data, 0, IPC_NOWAIT);
        CHILD_CHECK(got == 16 && rec.type == 2 && std::memcmp(rec.data, msg, 10) == 0 &&
                    std::memcmp(rec.data + 10, "\0\0\0\0\0\0", 6) == 0);
        CHILD_CHECK(msgrcv(q, &rec, sizeof rec.data, 0, IPC_NOWAIT) == -1 && errno == ENOMSG);
        struct msqid_ds ds;
        CHILD_CHECK(msgctl(q, IPC_STAT, &ds) == 0 && (ds.msg_perm.mode & 0777) == 0644);
        msgctl(q, IPC_RMID, nullptr);
        return 0;
    });
    if (rc == 77) GTEST_SKIP() << "no private mount namespace";
    if (rc == 78) GTEST_SKIP() << "the trace key is taken by another queue";
    EXPECT_EQ(rc, 0);
}

// Four writer processes, 2000 messages of varied length each, one reader:
// every message arrives once and whole. A writer's messages keep their
// order within each rank pipe; across rank pipes another writer's message
// may sit between one's message and its rank byte, so the reader may take
// them out of order.
TEST_F(Fifo, FourWritersOneReaderLoseNothing) {
    constexpr int kWriters = 4, kPerWriter = 2000;
    auto names = channel_names(root_, 99, false);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    std::fflush(nullptr);
    pid_t reader = fork();
    if (reader == 0) {
        int32_t fds[4];
        for (int i = 0; i < 4; ++i) IPC_FIFO_Create(0, &fds[i], 0, names[i].c_str());
        if (write(ready[1], "r", 1) != 1) _exit(1);
        std::vector<std::vector<char>> seen(kWriters, std::vector<char>(kPerWriter, 0));
        int last[kWriters][3];
        for (auto &w : last) w[0] = w[1] = w[2] = -1;
        for (int total = 0; total < kWriters * kPerWriter;) {
            uint8_t rank;
            if (!read_exact(fds[0], &rank, 1, 30000) || rank > 2) _exit(2);
            uint16_t hdr[4];  // writer, length, sequence (2 words)
            unsigned char body[256];
            if (!read_exact(fds[1 + rank], hdr, 8)) _exit(3);
            uint32_t seq = hdr[2] | static_cast<uint32_t>(hdr[3]) << 16;
            if (hdr[0] >= kWriters || seq >= kPerWriter || hdr[1] < 8 || hdr[1] > 8 + sizeof body)
                _exit(4);
            if (!read_exact(fds[1 + rank], body, hdr[1] - 8u)) _exit(5);
            for (int i = 0; i < hdr[1] - 8; ++i)
                if (body[i] != static_cast<unsigned char>(seq + i)) _exit(6);
            if (seen[hdr[0]][seq]++ != 0) _exit(7);
            if (static_cast<int>(seq) <= last[hdr[0]][rank]) _exit(8);
            last[hdr[0]][rank] = static_cast<int>(seq);
            ++total;
        }
        uint8_t extra;
        _exit(read_exact(fds[0], &extra, 1, 200) ? 9 : 0);
    }
    close(ready[1]);
    char c;
    ASSERT_TRUE(read_exact(ready[0], &c, 1));
    close(ready[0]);

    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        if (pid == 0) {
            if (IPC_FIFO_Init() != 0) _exit(1);
            unsigned char msg[8 + 256];
            for (uint32_t seq = 0; seq < kPerWriter; ++seq) {
                uint16_t len = static_cast<uint16_t>(8 + (seq * 37 + w) % 200);
                uint16_t hdr[4] = {static_cast<uint16_t>(w), len, static_cast<uint16_t>(seq),
                                   static_cast<uint16_t>(seq >> 16)};
                std::memcpy(msg, hdr, 8);
                for (int i = 0; i < len - 8; ++i) msg[8 + i] = static_cast<unsigned char>(seq + i);
                int32_t n = 0;
                KAVRO_STATUS st;
                while ((st = IPC_FIFO_Write(0, 99, w, msg, &n, len, 0)) == KAVRO_E_AGAIN) sched_yield();
                if (st != 0 || n != len) _exit(2);
            }
            _exit(0);
        }
        writers.push_back(pid);
    }
    for (pid_t pid : writers) {
        int st = 0;
        EXPECT_TRUE(wait_bounded(pid, &st, 120));
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "writer status " << st;
    }
    int st = 0;
    EXPECT_TRUE(wait_bounded(reader, &st, 60));
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "reader status " << st;
}

}  // namespace
