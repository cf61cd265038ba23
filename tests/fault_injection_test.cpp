// A participant is SIGKILLed mid-work; the survivors lose nothing delivered, never hang, and report the failure.

#include <sys/mman.h>
#include <sys/sem.h>

#include <chrono>
#include <memory>
#include <thread>

#include "test_support.hpp"

namespace {

using namespace kavro::test;

// A record shared with forked children.
template <typename T>
struct Shared {
    T *p = new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T{};
    ~Shared() { munmap(p, sizeof(T)); }
    T *operator->() const { return p; }
};

template <typename P>
bool eventually(P pred) {
    for (int i = 0; i < 30000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (pred()) return true;
    return false;
}

constexpr int kWriters = 4, kMaxSeq = 60000, kBatch = 3000;
struct Tally {
    std::atomic<int32_t> acked[kWriters];
    std::atomic<uint8_t> seen[kWriters][kMaxSeq];
    std::atomic<int32_t> next[kWriters][3];  // lowest sequence still in order, per rank pipe
    std::atomic<int32_t> corrupt, received;  // corrupt: broken or out of its writer's order
    std::atomic<bool> drain;                 // no more writers: the reader takes what is left and ends
};

// A message: writer, sequence, length, then a body that depends on all three.
uint16_t make_message(uint8_t *m, uint16_t w, uint16_t seq) {
    const uint16_t hdr[3] = {w, seq, static_cast<uint16_t>(6 + (seq * 37 + w) % 200)};
    std::memcpy(m, hdr, 6);
    for (int i = 6; i < hdr[2]; ++i) m[i] = static_cast<uint8_t>(seq + i + 7 * w);
    return hdr[2];
}

class FifoFault : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir((dir_.path() + "/kmxipc").c_str(), 0755), 0);
        setenv("TRVXROOT", dir_.path().c_str(), 1);
    }
    // The reader's side of a channel: the rank pipe and the three data pipes.
    bool open_channel(uint32_t key) {
        std::string name = dir_.path() + "/kmxipc/.pipe." + std::to_string(key);
        for (int i = 0; i < 4; ++i, name += '_')
            if (IPC_FIFO_Create(0, &fds_[i], 0, name.c_str()) != 0 || fds_[i] < 0) return false;
        return true;
    }
    // Reads the message of the next rank byte (or of rank pipe `rank`); false when none stands there.
    bool take(Tally *t, int rank = -1, int timeout_ms = 100) {
        uint8_t r = static_cast<uint8_t>(rank), m[256], want[256];
        uint16_t hdr[3];
        if (rank < 0 && !read_exact(fds_[0], &r, 1, timeout_ms)) return false;
        if (r > 2) return ++t->corrupt;
        const int fd = fds_[1 + r];
        if (!read_exact(fd, hdr, 6, rank < 0 ? 10000 : 0)) return false;
        if (hdr[0] >= kWriters || hdr[1] >= kMaxSeq || hdr[2] < 6 || hdr[2] > 206 ||
            !read_exact(fd, m + 6, hdr[2] - 6u) || make_message(want, hdr[0], hdr[1]) != hdr[2] ||
            std::memcmp(m + 6, want + 6, hdr[2] - 6u) != 0 || hdr[1] < t->next[hdr[0]][r])
            return ++t->corrupt;
        t->next[hdr[0]][r] = hdr[1] + 1;
        ++t->seen[hdr[0]][hdr[1]];
        return ++t->received;
    }
    ScratchDir dir_;
    int32_t fds_[4] = {};
};

// Writes until count messages are acked or a write fails; returns the failing status.
KAVRO_STATUS write_messages(Tally *t, uint16_t w, int count, uint32_t key, int32_t *n) {
    IPC_FIFO_Init();
    uint8_t m[256];
    KAVRO_STATUS st = 0;
    for (int seq = 0; seq < count && st == 0; ++seq) {
        const uint16_t len = make_message(m, w, static_cast<uint16_t>(seq));
        while ((st = IPC_FIFO_Write(0, key, seq, m, n, len, 0)) == KAVRO_E_AGAIN) sched_yield();
        if (st == 0 && *n != len) return KAVRO_E_FAIL;
        if (st == 0) t->acked[w] = seq + 1;
    }
    return st;
}

// Whole messages only, each writer's in order: all the victim had acked, all of the others' and a later writer's.
TEST_F(FifoFault, WriterKilledMidStreamLosesOnlyItsUnfinishedMessage) {
    constexpr uint32_t kKey = 41;
    Shared<Tally> t;
    ForkedChild reader([&](int say) {
        CHILD_CHECK(open_channel(kKey));
        ForkedChild::say(say);
        while (!t->drain || take(t.p, -1, 500))
            if (!take(t.p)) usleep(1000);  // no writer has the pipe open: the read does not wait
        for (int r = 0; r < 3; ++r)        // a victim killed before its rank byte leaves one message without it
            while (take(t.p, r)) continue;
        return 0;
    });
    ASSERT_TRUE(reader.said());
    int32_t n = 0;
    auto writer = [&](uint16_t w, int count) {
        return [&, w, count](int) { return write_messages(t.p, w, count, kKey, &n) == 0 ? 0 : 2; };
    };
    ForkedChild victim(writer(0, kMaxSeq)), w1(writer(1, kBatch)), w2(writer(2, kBatch));
    ASSERT_TRUE(eventually([&] { return t->acked[0] >= 2000; }));
    kill(victim.pid, SIGKILL);
    EXPECT_EQ(victim.exit_code(), 128 + SIGKILL);
    const int acked = t->acked[0];
    ASSERT_LT(acked, kMaxSeq) << "the victim finished before it was killed";
    ForkedChild later(writer(3, kBatch));
    for (ForkedChild *c : {&w1, &w2, &later}) EXPECT_EQ(c->exit_code(120), 0);
    t->drain = true;
    EXPECT_EQ(reader.exit_code(60), 0);

    EXPECT_EQ(t->corrupt, 0);
    int lost = 0, doubled = 0;
    for (int w = 0; w < kWriters; ++w)
        for (int s = 0; s < (w == 0 ? acked : kBatch); ++s) lost += t->seen[w][s] == 0, doubled += t->seen[w][s] > 1;
    EXPECT_EQ(lost + doubled, 0) << lost << " lost, " << doubled << " doubled";
    EXPECT_LE(t->seen[0][acked], 1);  // the one the victim was writing
}

// The writer survives (no SIGPIPE), reports the broken pipe, frees the key, then learns nobody reads.
TEST_F(FifoFault, ReaderKilledMidStreamIsReportedAndRemoved) {
    constexpr uint32_t kKey = 42;
    Shared<Tally> t;
    ForkedChild reader([&](int say) {
        CHILD_CHECK(open_channel(kKey));
        ForkedChild::say(say);
        for (;;)
            if (take(t.p)) usleep(100);  // slower than the writer: its pipes fill up
    });
    ASSERT_TRUE(reader.said());
    ForkedChild writer([&](int) {
        int32_t n = 0, count = -1;
        CHILD_CHECK(write_messages(t.p, 1, kMaxSeq, kKey, &n) == KAVRO_E_BROKENPIPE && n == -1);
        FifoKeyStatus ks[IPC_FIFO_TABLE_SIZE + 1];
        CHILD_CHECK(IPC_FIFO_KeyStatus(ks, &count, 0) == 0 && count == 1);
        CHILD_CHECK(ks[0].key == kKey && ks[0].minTag == 0 && ks[0].maxTag == t->acked[1] && ks[1].key == 0);
        const int fds = open_fds();
        CHILD_CHECK(IPC_FIFO_RemoveKeys(ks, count, 0) == 0 && open_fds() == fds - 4);
        CHILD_CHECK(IPC_FIFO_KeyStatus(ks, &count, 0) == 0 && count == 0);
        return IPC_FIFO_Write(0, kKey, 0, "abcdef", &n, 6, 0) == KAVRO_E_NOREADER ? 0 : 2;
    });
    ASSERT_TRUE(eventually([&] { return t->received >= 500; }));
    kill(reader.pid, SIGKILL);
    EXPECT_EQ(reader.exit_code(), 128 + SIGKILL);
    EXPECT_EQ(writer.exit_code(60), 0);
    EXPECT_EQ(t->corrupt, 0);
}

// The kernel undoes a killed holder's pend and a waiter in another process proceeds.
TEST(SysVFault, KilledHolderReleasesTheWaiterInAnotherProcess) {
    const uint32_t key = 0x46000000u | (static_cast<uint32_t>(getpid()) & 0xFFFFFu) << 4 | 1;
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 1, key, 1), KAVRO_OK);
    const int id = semget(static_cast<key_t>(key), 1, 0);
    const std::unique_ptr<const int, void (*)(const int *)> remove(&id, [](const int *i) { semctl(*i, 0, IPC_RMID); });
    ASSERT_GE(id, 0);
    ASSERT_TRUE(SEM_Pend(h, 0) == KAVRO_OK && SEM_Post(h) == KAVRO_OK);  // openers wait until the set was used once
    auto open_and = [key](int say, bool hold) {
        SEM_HANDLE mine = nullptr;
        CHILD_CHECK(SEM_Create(&mine, 0, key, 1) == 0 && (!hold || SEM_Pend(mine, 10000) == 0));
        ForkedChild::say(say);
        if (hold) pause();
        return SEM_Pend(mine, 30000) == 0 ? 0 : 1;
    };
    ForkedChild holder([&](int say) { return open_and(say, true); });
    ASSERT_TRUE(holder.said());
    ForkedChild waiter([&](int say) { return open_and(say, false); });
    ASSERT_TRUE(waiter.said());
    ASSERT_TRUE(eventually([&] { return semctl(id, 0, GETNCNT) == 1; }));
    kill(holder.pid, SIGKILL);
    EXPECT_EQ(holder.exit_code(), 128 + SIGKILL);
    EXPECT_EQ(waiter.exit_code(40), 0);
    int32_t count = -1;
    EXPECT_TRUE(SEM_GetCount(h, &count) == KAVRO_OK && count == 1);  // the waiter's unit came back at its exit too
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

}  // namespace
