// Named-pipe channels: the key table, the write path against readers.

#include <optional>
#include <random>

#include "ipc/fifo.hpp"
#include "test_support.hpp"

namespace {

using namespace kavro::detail;
using Strings = std::vector<std::string>;

// After CaptureStderr: whether a line with `what` appeared.
bool logged(const char *what) { return testing::internal::GetCapturedStderr().find(what) != std::string::npos; }

// A channel's four FIFO names, spelled out independently of the library.
Strings names_of(const std::string &root, uint32_t key, bool streams = false) {
    const std::string b = root + (streams ? "/kmxipc/.strpipe." : "/kmxipc/.pipe.") + std::to_string(int32_t(key));
    return {b, b + "_", b + "__", b + "___"};
}

// A channel's reader side, in this process, with its first `opened` FIFOs open.
struct Reader {
    explicit Reader(const Strings &names, int opened = 4) {
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(IPC_FIFO_Create(0, &fds[i], 0, names[i].c_str()), KAVRO_OK);
            if (i >= opened) close(fds[i]), fds[i] = -1;
        }
    }
    ~Reader() {
        for (int fd : fds) close(fd);
    }
    Strings collect() {  // what stands in each: index, rank 0, 1, 2
        Strings got(4);
        char buf[4096];
        int32_t n = 0;
        for (int i = 0; i < 4; ++i)
            while (IPC_FIFO_Read(fds[i], buf, &n, sizeof buf) == KAVRO_OK && n > 0) got[i].append(buf, n);
        return got;
    }
    int32_t fds[4] = {-1, -1, -1, -1};
};

class Fifo : public ::testing::Test {
protected:
    void SetUp() override {  // the directory is Init's to make
        setenv("TRVXROOT", root_.c_str(), 1);
        ASSERT_EQ(IPC_FIFO_Init(), KAVRO_OK);
    }
    void TearDown() override { IPC_FIFO_Exit(); }
    KAVRO_STATUS put(uint32_t key, const std::string &msg, bool streams = false, int32_t tag = 0) {
        written_ = 12345;
        return IPC_FIFO_Write(0, key, tag, msg.data(), &written_, uint32_t(msg.size()), streams);
    }
    int32_t key_status(int32_t streams = 0) {  // entries of gone readers
        int32_t n = -1;
        return IPC_FIFO_KeyStatus(ks_, &n, streams) == KAVRO_OK ? n : -1;
    }
    kavro::test::ScratchDir dir_;
    std::string root_ = dir_.path();
    int32_t written_ = 0;
    FifoKeyStatus ks_[kFifoTableSize + 1];
};

// A full table (long probe runs in the index): every key found until removed, freed entries reused; writes refused.
TEST_F(Fifo, TableFindsEveryKeyUntilRemovedAndReusesTheSpace) {
    std::mt19937 rng(12345);
    int32_t r0, r1, r2;
    int8_t rank;
    auto found = [&](uint32_t k, int8_t streams) { return search_key(k, 0, streams, &r0, &r1, &r2, &rank); };
    std::vector<uint32_t> keys(kFifoTableSize + 1);
    for (auto &k : keys) k = rng() | 1;
    auto add = [&](int i, int32_t fd) { return add_key(keys[i], 0, 1, fd + i, fd + i, fd + i, fd + i, &rank); };
    for (int i = 0; i <= kFifoTableSize; ++i)  // never real descriptors; the last finds the table full
        ASSERT_EQ(add(i, 100000), i < kFifoTableSize ? keys[i] : 0u);
    for (int i = 0; i < kFifoTableSize; i += 2) remove_key(keys[i], 1);
    for (int i = 0; i < kFifoTableSize; ++i) ASSERT_EQ(found(keys[i], 1), i % 2 ? 100000 + i : 0);
    for (int i = 0; i < kFifoTableSize; i += 2) ASSERT_EQ(add(i, 200000), keys[i]);
    for (int i = 0; i < kFifoTableSize; ++i) ASSERT_EQ(found(keys[i], 1), (i % 2 ? 100000 : 200000) + i);
    Reader reader(names_of(root_, 17, true));  // full: the channel is opened, refused and closed again
    const int before = kavro::test::open_fds();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(put(17, "m", true) == KAVRO_E_OUTOFMEMORY && logged("table full") && kavro::test::open_fds() == before);
    // Key 0 and descriptor 0 (a free entry) are never entered; a removed entry is
    // still found; RemoveKeys stops at the count and at a zero key.
    auto add0 = [&](uint32_t k, int32_t fd) { return add_key(k, 0, 0, fd, fd + 1, fd + 2, fd + 3, &rank); };
    EXPECT_EQ(add0(0, 100001) | add_key(9, 0, 0, 0, 100001, 100001, 100001, &rank), 0u);
    ASSERT_EQ(add0(9, 100001) + add0(7, 100005), 16u);
    mark_key_removed(9, 0);
    FifoKeyStatus list[] = {{9, 0, 0}, {0, 0, 0}, {7, 0, 0}};
    EXPECT_TRUE(found(9, 0) == 100001 && IPC_FIFO_RemoveKeys(list, 0, 0) == KAVRO_OK && found(9, 0) == 100001);
    EXPECT_EQ(IPC_FIFO_RemoveKeys(list, 5, 0), KAVRO_OK);
    EXPECT_EQ(found(9, 0) + found(7, 0), 100005);
}

// Index bytes 2, 0, 1, 2, 0, descriptor 0 free yet unused; a gone reader reported with its tags until removed.
TEST_F(Fifo, WritesReachTheNamedPipesRoundRobinUntilTheReaderGoes) {
    const int saved_stdin = dup(0);
    for (bool streams : {false, true}) {
        for (uint32_t key : {17u, 0x80000000u}) {
            std::optional<Reader> reader(std::in_place, names_of(root_, key, streams));
            close(0);
            EXPECT_EQ(IPC_FIFO_CheckKey_2(key, streams) | IPC_FIFO_CheckKey(key), KAVRO_OK);
            const Strings m{"first", "second!", "3rd", "fourth message", "5"};
            for (int i = 0; i < 5; ++i)
                ASSERT_TRUE(put(key, m[i], streams, i * 3 - 4) == KAVRO_OK && written_ == int32_t(m[i].size()));
            dup2(saved_stdin, 0);
            EXPECT_EQ(reader->collect(), (Strings{std::string("\2\0\1\2\0", 5), m[1] + m[4], m[2], m[0] + m[3]}));
            EXPECT_EQ(key_status(streams), 0);  // a live reader is not reported
            reader.reset();
            ASSERT_EQ(key_status(streams), 1);
            EXPECT_TRUE(ks_[0].key == key && ks_[0].minTag == -4 && ks_[0].maxTag == 8 && ks_[1].key == 0u);
            EXPECT_TRUE(put(key, "again", streams, 100) == KAVRO_E_BROKENPIPE && written_ == -1 &&
                        put(key, "again", streams, 100) == KAVRO_E_BROKENPIPE);
            EXPECT_TRUE(key_status(streams) == 1 && ks_[0].maxTag == 100);
            IPC_FIFO_RemoveKeys(ks_, 1, streams);
        }
    }
    close(saved_stdin);
}

// No FIFOs, no reader, a reader short of one FIFO, no root: refused, nothing left open or entered; counted tables.
TEST_F(Fifo, RefusedWritesLeaveNothingOpenOrEnteredCountedTables) {
    const int fds = kavro::test::open_fds();
    const auto names = names_of(root_, 17);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(put(17, "m") == KAVRO_E_FAIL && IPC_FIFO_CheckKey_2(17, 0) == KAVRO_E_FAIL);
    for (const auto &f : names) ASSERT_EQ(mkfifo(f.c_str(), 0666), 0);
    EXPECT_EQ(IPC_FIFO_CheckKey_2(17, 0), KAVRO_E_FAIL);
    EXPECT_TRUE(put(17, "m") == KAVRO_E_NOREADER && put(17, "m") == KAVRO_E_NOREADER);  // every time
    EXPECT_EQ((Reader(names, 3), put(17, "m")), KAVRO_E_NOREADER);
    EXPECT_TRUE(logged("KAVRO:IPC_FIFO_Write: ***named pipe open error") && key_status() == 0 &&
                kavro::test::open_fds() == fds);
    char buf[kFifoPathSize];  // the longest rank-pipe name must fit in 255 characters
    const std::string fits(255 - std::strlen("/kmxipc/.pipe.-1___"), 'r');
    EXPECT_TRUE(fifo_index_path(buf, fits.c_str(), ~0u, 0) > 0 &&
                fifo_index_path(buf, (fits + "r").c_str(), ~0u, 0) == -2);
    unsetenv("TRVXROOT");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(put(5, "x") == KAVRO_E_FAIL && IPC_FIFO_CheckKey(5) == KAVRO_E_FAIL);
    EXPECT_TRUE(logged("KAVRO:IPC_FIFO_Write: TRVXROOT is not set"));  // operators look for this line
    ASSERT_EQ(IPC_FIFO_Init(), KAVRO_OK);  // counted: one exit leaves the tables, the last frees them
    IPC_FIFO_Exit();
    EXPECT_NE(fifo_table(0), nullptr);
    IPC_FIFO_Exit();
    EXPECT_TRUE(!fifo_table(0) && !fifo_table(1) && put(5, "x") == KAVRO_E_FAIL);
}

}  // namespace
