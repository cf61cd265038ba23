// Named-pipe channels: the tables, the reader side, and the write path
// against reader processes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kavro_rt/kavro_rt.h"
#include "ipc/fifo.hpp"
#include "test_support.hpp"

namespace {

using namespace kavro::detail;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using kavro::test::open_fds;
using kavro::test::read_exact;
using kavro::test::reap;

// A channel's four FIFO names, spelled out independently of the library.
std::vector<std::string> channel_names(const std::string &root, uint32_t key, bool streams) {
    std::string base = root + (streams ? "/kmxipc/.strpipe." : "/kmxipc/.pipe.") + std::to_string(int32_t(key));
    return {base, base + "_", base + "__", base + "___"};
}

// A reader process opening the first `open_count` FIFOs; collect() returns
// what stands in each of the four (index, rank 0, 1, 2) and ends it.
struct Reader {
    explicit Reader(const std::vector<std::string> &names, int open_count = 4, int pipe_size = 0) {
        int ctl[2], res[2];
        if (pipe(ctl) != 0 || pipe(res) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ctl[1]);
            int fds[4];
            for (int i = 0; i < 4; ++i) {
                IPC_FIFO_Create(0, &fds[i], 0, names[i].c_str());
                if (i >= open_count) close(fds[i]);
                if (pipe_size > 0) fcntl(fds[i], F_SETPIPE_SZ, pipe_size);
            }
            if (char c = 'r'; write(res[1], &c, 1) != 1 || read(ctl[0], &c, 1) != 1) _exit(0);
            for (int i = 0; i < open_count; ++i) {
                std::string got;
                char buf[4096];
                int32_t n = 0;
                while (IPC_FIFO_Read(fds[i], buf, &n, sizeof buf) == 0 && n > 0) got.append(buf, n);
                got.insert(0, std::string(reinterpret_cast<const char *>(&(n = int32_t(got.size()))), 4));
                if (write(res[1], got.data(), got.size()) != ssize_t(got.size())) _exit(1);
            }
            _exit(0);
        }
        close(ctl[0]);
        close(res[1]);
        ctl_ = ctl[1], res_ = res[0];
        char c = 0;
        ready_ = pid_ > 0 && read_exact(res_, &c, 1);
    }
    ~Reader() { quit(); }
    bool ready() const { return ready_; }
    void quit() {
        if (pid_ > 0) close(ctl_), close(res_), reap(pid_, 20), pid_ = -1;
    }
    std::vector<std::string> collect() {
        std::vector<std::string> out(4);
        if (write(ctl_, "c", 1) != 1) return out;
        for (auto &s : out) {
            uint32_t len = 0;
            if (!read_exact(res_, &len, 4, 2000)) break;
            s.resize(len);
            if (len > 0 && !read_exact(res_, s.data(), len)) break;
        }
        quit();
        return out;
    }
    pid_t pid_ = -1;
    int ctl_ = -1, res_ = -1;
    bool ready_ = false;
};

class Fifo : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir((root_ + "/kmxipc").c_str(), 0755);
        setenv("TRVXROOT", root_.c_str(), 1);
        ASSERT_EQ(IPC_FIFO_Init(), 0u);
    }
    void TearDown() override { IPC_FIFO_Exit(); }

    KAVRO_STATUS put(uint32_t key, const std::string &msg, bool streams = false, int32_t tag = 0) {
        written_ = 12345;
        return IPC_FIFO_Write(0, key, tag, msg.data(), &written_, static_cast<uint32_t>(msg.size()), streams);
    }
    int32_t key_status(int32_t streams = 0) {
        int32_t n = -1;
        EXPECT_EQ(IPC_FIFO_KeyStatus(ks_, &n, streams), 0u);
        EXPECT_EQ(ks_[n >= 0 ? n : 0].key, 0u);  // terminating record
        return n;
    }

    kavro::test::ScratchDir dir_;
    std::string root_ = dir_.path();
    int32_t written_ = 0;
    FifoKeyStatus ks_[kFifoTableSize + 1];
};

TEST(FifoFamily, InitCountsAndTheLastExitFreesTheTables) {
    kavro::test::ScratchDir dir;
    setenv("TRVXROOT", dir.path().c_str(), 1);
    const uint32_t gen = memgenalloccalls;
    ASSERT_EQ(IPC_FIFO_Init() | IPC_FIFO_Init(), 0u);
    EXPECT_EQ(memgenalloccalls, gen + 2);  // two tables, once
    struct stat st;
    EXPECT_TRUE(stat((dir.path() + "/kmxipc").c_str(), &st) == 0 && S_ISDIR(st.st_mode));
    IPC_FIFO_Exit();
    EXPECT_NE(fifo_table(0), nullptr);
    IPC_FIFO_Exit();
    EXPECT_TRUE(fifo_table(0) == nullptr && fifo_table(1) == nullptr);
    EXPECT_EQ(IPC_FIFO_Exit(), 0u);  // unmatched: nothing happens
    int32_t n = 0;
    EXPECT_EQ(IPC_FIFO_Write(0, 5, 0, "x", &n, 1, 0), KAVRO_E_FAIL);  // no table
    FifoKeyStatus ks[1] = {{7, 7, 7}};
    EXPECT_EQ(IPC_FIFO_KeyStatus(ks, &n, 0), 0u);
    EXPECT_EQ(n + static_cast<int32_t>(ks[0].key), 0);
}

TEST(FifoFamily, UnsetOrOverlongRootBuildsNoPath) {
    // The longest rank-pipe name must fit in 255 characters, else refused.
    char buf[kFifoPathSize];
    const std::string fits(255 - std::strlen("/kmxipc/.pipe.-1___"), 'r');
    EXPECT_GT(fifo_index_path(buf, fits.c_str(), 0xFFFFFFFFu, 0), 0);
    EXPECT_EQ(fifo_index_path(buf, (fits + "r").c_str(), 0xFFFFFFFFu, 0), -2);

    unsetenv("TRVXROOT");
    CaptureStderr();
    ASSERT_EQ(IPC_FIFO_Init(), 0u);
    int32_t n = 0;
    EXPECT_EQ(IPC_FIFO_Write(0, 5, 0, "x", &n, 1, 0), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_FIFO_CheckKey(5), KAVRO_E_FAIL);
    setenv("TRVXROOT", ("/tmp/" + fits).c_str(), 1);
    EXPECT_EQ(IPC_FIFO_Write(0, 5, 0, "x", &n, 1, 1), KAVRO_E_FAIL);
    const std::string err = GetCapturedStderr();
    for (const char *line : {"KAVRO:IPC_FIFO_Init: TRVXROOT is not set", "KAVRO:IPC_FIFO_Write: TRVXROOT is not set",
                             "KAVRO:IPC_FIFO_Write: TRVXROOT too long"})
        EXPECT_NE(err.find(line), std::string::npos) << err;
    IPC_FIFO_Exit();
}

// The index must agree with a first-match scan, with few keys and with many
// (long probe runs, a full table).
TEST_F(Fifo, TableLookupMatchesAFirstMatchScan) {
    std::mt19937 rng(12345);
    int32_t r0, r1, r2;
    int8_t rank;
    for (uint32_t pool : {40u, 3000u}) {
        std::vector<uint32_t> keys(pool);
        for (auto &k : keys) k = rng() | 1;
        const FifoKeyEntry *t = fifo_table(1);
        for (int op = 0; op < 20000; ++op) {
            uint32_t k = keys[rng() % pool];
            int first = -1, free_at = -1;
            for (int i = kFifoTableSize - 1; i >= 0; --i) {
                if (t[i].key == k) first = i;
                if (t[i].writefifo == 0) free_at = i;
            }
            if (rng() % 3 != 0) {
                int32_t fd = 100000 + op;  // never a real descriptor
                ASSERT_EQ(add_key(k, 0, 1, fd, fd, fd, fd, &rank), free_at < 0 ? 0u : k);
                ASSERT_TRUE(free_at < 0 || t[free_at].writefifo == fd);
            } else if (rng() % 2 == 0) {
                remove_key(k, 1);
                for (int i = 0; i < kFifoTableSize; ++i) ASSERT_NE(t[i].key, k);
            } else {
                ASSERT_EQ(search_key(k, 0, 1, &r0, &r1, &r2, &rank), first < 0 ? 0 : t[first].writefifo);
            }
        }
        for (uint32_t k : keys) remove_key(k, 1);
    }

    // A removed entry is still found; RemoveKeys stops at the count and at a zero key.
    ASSERT_EQ(add_key(9, 0, 0, 100001, 100002, 100003, 100004, &rank), 9u);
    ASSERT_EQ(add_key(7, 0, 0, 100005, 100006, 100007, 100008, &rank), 7u);
    mark_key_removed(9, 0);
    EXPECT_EQ(search_key(9, 0, 1, &r0, &r1, &r2, &rank), 0);  // other kind
    EXPECT_EQ(search_key(9, 0, 0, &r0, &r1, &r2, &rank), 100001);
    FifoKeyStatus list[] = {{9, 0, 0}, {0, 0, 0}, {7, 0, 0}};
    EXPECT_EQ(IPC_FIFO_RemoveKeys(list, 0, 0), 0u);
    EXPECT_EQ(search_key(9, 0, 0, &r0, &r1, &r2, &rank), 100001);
    EXPECT_EQ(IPC_FIFO_RemoveKeys(list, 5, 0), 0u);
    EXPECT_EQ(search_key(9, 0, 0, &r0, &r1, &r2, &rank), 0);
    EXPECT_EQ(search_key(7, 0, 0, &r0, &r1, &r2, &rank), 100005);
    EXPECT_EQ(IPC_FIFO_RemoveKeys(nullptr, 1, 0), KAVRO_E_FAIL);
}

TEST_F(Fifo, ReaderSideCreateAndRead) {
    const std::string path = root_ + "/kmxipc/f";
    int32_t fd = -7, n = 0, untouched = -7;
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    ASSERT_EQ(IPC_FIFO_Create(0, &fd, 0, path.c_str()), 0u);  // exists: opened
    ASSERT_TRUE(fd >= 0 && (fcntl(fd, F_GETFL) & O_NONBLOCK));
    char buf[8];
    EXPECT_EQ(IPC_FIFO_Read(fd, buf, &n, 0), KAVRO_E_FAIL);
    int w = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    EXPECT_EQ(IPC_FIFO_Read(fd, buf, &n, 8), KAVRO_E_AGAIN);
    EXPECT_EQ(n, -1);
    ASSERT_EQ(write(w, "abc", 3), 3);
    EXPECT_TRUE(IPC_FIFO_Read(fd, buf, &n, 8) == 0 && n == 3);
    close(w), close(fd);

    CaptureStderr();
    EXPECT_EQ(IPC_FIFO_Create(0, &untouched, 0, (root_ + "/missing/f").c_str()), 0u);
    EXPECT_NE(GetCapturedStderr().find("can't create " + root_ + "/missing/f"), std::string::npos);
    EXPECT_EQ(untouched, -7);
}

// Exact names for both kinds and a negative key; index bytes 2, 0, 1, 2, 0.
TEST_F(Fifo, WritesReachTheNamedPipesRoundRobin) {
    for (bool streams : {false, true}) {
        for (uint32_t key : {17u, 0x80000000u}) {
            Reader reader(channel_names(root_, key, streams));
            ASSERT_TRUE(reader.ready());
            EXPECT_EQ(IPC_FIFO_CheckKey_2(key, streams) | IPC_FIFO_CheckKey(key), 0u);
            std::vector<std::string> m{"first", "second!", "3rd", "fourth message", "5"};
            for (const auto &s : m) {
                ASSERT_EQ(put(key, s, streams), 0u) << s;
                EXPECT_EQ(written_, static_cast<int32_t>(s.size()));
            }
            EXPECT_EQ(reader.collect(),
                      (std::vector<std::string>{std::string("\2\0\1\2\0", 5), m[1] + m[4], m[2], m[0] + m[3]}));
            IPC_FIFO_RemoveKeys(ks_, key_status(streams), streams);
        }
    }
}

TEST_F(Fifo, RefusedWritesLeaveNothingOpenOrEntered) {
    const int fds = open_fds();
    int32_t n = 0;
    CaptureStderr();
    for (KAVRO_STATUS st : {IPC_FIFO_Write(0, 17, 0, "m", &n, 0, 0), IPC_FIFO_Write(0, 0, 0, "m", &n, 1, 0),
                            IPC_FIFO_Write(0, 17, 0, nullptr, &n, 1, 0), IPC_FIFO_Write(0, 17, 0, "m", nullptr, 1, 0)})
        EXPECT_EQ(st, KAVRO_E_INVALIDARG);
    EXPECT_EQ(GetCapturedStderr(), "");

    const auto names = channel_names(root_, 17, false);
    const std::string line = "KAVRO:IPC_FIFO_Write: ***named pipe open error, file name " + names[0];
    CaptureStderr();
    EXPECT_EQ(put(17, "m"), KAVRO_E_FAIL);  // no FIFOs
    EXPECT_EQ(GetCapturedStderr(), line + ", errno=2\n");
    EXPECT_EQ(IPC_FIFO_CheckKey_2(17, 0), KAVRO_E_FAIL);
    for (const auto &f : names) ASSERT_EQ(mkfifo(f.c_str(), 0666), 0);
    EXPECT_EQ(IPC_FIFO_CheckKey_2(17, 0), KAVRO_E_FAIL);
    for (int i = 0; i < 2; ++i) {  // no reader: refused every time
        CaptureStderr();
        EXPECT_EQ(put(17, "m"), KAVRO_E_NOREADER);
        EXPECT_EQ(GetCapturedStderr(), line + ", errno=6\n");
    }
    {
        Reader partial(names, 3);  // the fourth open fails
        ASSERT_TRUE(partial.ready());
        CaptureStderr();
        EXPECT_EQ(put(17, "m"), KAVRO_E_NOREADER);
        EXPECT_NE(GetCapturedStderr().find(names[3] + ", errno=6"), std::string::npos);
    }
    EXPECT_EQ(key_status(), 0);
    EXPECT_EQ(open_fds(), fds);

    // A full table: the channel is opened, refused, and closed again.
    Reader reader(names);
    ASSERT_TRUE(reader.ready());
    int8_t rank;
    for (uint32_t k = 1000; k < 1000 + kFifoTableSize; ++k)
        ASSERT_EQ(add_key(k, 0, 0, 200000, 200000, 200000, 200000, &rank), k);
    const int before = open_fds();
    CaptureStderr();
    EXPECT_EQ(put(17, "m"), KAVRO_E_OUTOFMEMORY);
    EXPECT_NE(GetCapturedStderr().find("table full"), std::string::npos);
    EXPECT_EQ(open_fds(), before);
    EXPECT_EQ(reader.collect()[0], "");
}

// A vanished reader is found by KeyStatus before any write, reported with its
// tags, removed; a new reader is reached. (Mid-stream kill: fault_injection_test.)
TEST_F(Fifo, GoneReaderIsReportedRemovedAndReplaced) {
    const auto names = channel_names(root_, 17, false);
    {
        Reader reader(names);
        ASSERT_TRUE(reader.ready());
        for (int32_t tag : {5, -3, 9}) ASSERT_EQ(put(17, "hello", false, tag), 0u);
        EXPECT_EQ(key_status(), 0);
    }
    ASSERT_EQ(key_status(), 1);
    EXPECT_TRUE(ks_[0].key == 17u && ks_[0].minTag == -3 && ks_[0].maxTag == 9);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(put(17, "again", false, 100), KAVRO_E_BROKENPIPE);
        EXPECT_EQ(written_, -1);
    }
    ASSERT_EQ(key_status(), 1);
    EXPECT_EQ(ks_[0].maxTag, 100);
    ASSERT_EQ(IPC_FIFO_RemoveKeys(ks_, 1, 0), 0u);
    Reader next(names);
    ASSERT_TRUE(next.ready());
    ASSERT_EQ(put(17, "new reader"), 0u);
    const auto got = next.collect();
    EXPECT_TRUE(got[0] == "\2" && got[3] == "new reader");
}

TEST_F(Fifo, FullRankPipeIsReportedAtOnceWithoutALine) {
    Reader reader(channel_names(root_, 23, true), 4, 4096);
    ASSERT_TRUE(reader.ready());
    int ok = 0;
    KAVRO_STATUS st = 0;
    CaptureStderr();
    while (ok < 100 && (st = put(23, std::string(1024, 'b'), true)) == 0) ++ok;
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(st, KAVRO_E_AGAIN);
    EXPECT_EQ(written_, -1);
    ASSERT_GE(ok, 3);
    auto got = reader.collect();
    EXPECT_EQ(got[0].size(), static_cast<size_t>(ok));  // no rank byte for the refused one
    EXPECT_EQ(got[1].size() + got[2].size() + got[3].size(), 1024u * ok);
}

// The trace queue's key comes from a file under the fixed install path.
TEST_F(Fifo, TraceRecordsCarryTheHeadOfEachMessage) {
    if (fifo_trace_decided()) GTEST_SKIP() << "an earlier write in this process decided tracing";
    const std::string root = root_;
    int rc = kavro::test::run_in_private_mounts("/usr/torvanex", [&root]() -> int {
        unshare(CLONE_NEWIPC);
        const char *path = "/usr/torvanex/kmxipc/.DRVTRC";
        mkdir("/usr/torvanex/kmxipc", 0755);
        CHILD_CHECK(kavro::test::write_file(path, ""));
        key_t key = ftok(path, 0) & 0xff;
        if (msgget(key, 0) != -1) return 78;  // someone else's queue
        setenv("DRV_DBG", "", 1);
        int32_t fd, n = 0;
        for (bool streams : {false, true})
            for (const auto &name : channel_names(root, 3, streams)) IPC_FIFO_Create(0, &fd, 0, name.c_str());
        const char msg[] = "0123456789abcdefghijklmnopqrstuvwxyz";
        CHILD_CHECK(IPC_FIFO_Write(0, 3, 0, msg, &n, 30, 0) == 0);
        CHILD_CHECK(IPC_FIFO_Write(0, 3, 0, msg, &n, 10, 1) == 0);  // shorter than 16
        int q = msgget(key, 0);
        CHILD_CHECK(q != -1);
        struct { long type; char data[64]; } rec;
        CHILD_CHECK(msgrcv(q, &rec, sizeof rec.data, 0, IPC_NOWAIT) == 24 && rec.type == 1 &&
                    std::memcmp(rec.data, msg, 24) == 0);
        CHILD_CHECK(msgrcv(q, &rec, sizeof rec.data, 0, IPC_NOWAIT) == 16 && rec.type == 2 &&
                    std::memcmp(rec.data, "0123456789\0\0\0\0\0\0", 16) == 0);
        CHILD_CHECK(msgrcv(q, &rec, sizeof rec.data, 0, IPC_NOWAIT) == -1 && errno == ENOMSG);
        struct msqid_ds ds;
        CHILD_CHECK(msgctl(q, IPC_STAT, &ds) == 0 && (ds.msg_perm.mode & 0777) == 0644);
        msgctl(q, IPC_RMID, nullptr);
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    if (rc == 78) GTEST_SKIP() << "the trace key is taken by another queue";
    EXPECT_EQ(rc, 0);
}

// A thread that restores SIGPIPE's default action and unblocks it between
// two writes still gets a status, not the signal, from a vanished reader.
TEST_F(Fifo, EveryWriteBlocksSigpipe) {
    const auto names = channel_names(root_, 29, false);
    int rc = kavro::test::run_in_child([&names]() -> int {
        int32_t fds[4], n = 0;
        for (int i = 0; i < 4; ++i) IPC_FIFO_Create(0, &fds[i], 0, names[i].c_str());
        CHILD_CHECK(IPC_FIFO_Write(0, 29, 0, "first", &n, 5, 0) == 0);
        for (int32_t fd : fds) close(fd);
        signal(SIGPIPE, SIG_DFL);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        sigprocmask(SIG_UNBLOCK, &set, nullptr);
        CHILD_CHECK(IPC_FIFO_Write(0, 29, 0, "second", &n, 6, 0) == KAVRO_E_BROKENPIPE);
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

// An empty install root is the root directory itself, not a missing one.
TEST_F(Fifo, EmptyRootNamesPipesUnderTheRootDirectory) {
    int rc = kavro::test::run_in_private_mounts("/kmxipc", []() -> int {
        setenv("TRVXROOT", "", 1);
        const auto names = channel_names("", 17, false);
        int32_t fds[4], n = 0;
        for (int i = 0; i < 4; ++i) IPC_FIFO_Create(0, &fds[i], 0, names[i].c_str());
        CHILD_CHECK(fds[3] >= 0 && IPC_FIFO_CheckKey_2(17, 0) == 0);
        CHILD_CHECK(IPC_FIFO_Write(0, 17, 0, "m", &n, 1, 0) == 0);
        char got[2] = {};
        CHILD_CHECK(IPC_FIFO_Read(fds[0], got, &n, 2) == 0 && n == 1 && got[0] == 2);
        CHILD_CHECK(IPC_FIFO_Read(fds[3], got, &n, 2) == 0 && n == 1 && got[0] == 'm');
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

}  // namespace
