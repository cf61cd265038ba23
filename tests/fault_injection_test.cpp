// A participant is SIGKILLed mid-work; the survivors lose nothing already
// delivered, never hang, and report the failure with their status.
#include <gtest/gtest.h>

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "kavro_rt/kavro_rt.h"
#include "ipc/ipc.hpp"
#include "test_support.hpp"

namespace {

using kavro::test::ForkedChild;

// A record shared with forked children.
template <typename T> struct Shared {
    T *p = new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T{};
    ~Shared() { munmap(p, sizeof(T)); }
    T *operator->() const { return p; }
};

bool eventually(const std::function<bool()> &pred, int seconds = 30) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (pred()) return true;
    return false;
}

class FifoFault : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir((dir_.path() + "/kmxipc").c_str(), 0755), 0);
        setenv("TRVXROOT", dir_.path().c_str(), 1);
    }
    bool open_channel(uint32_t key, int32_t fds[4]) {
        std::string name = dir_.path() + "/kmxipc/.pipe." + std::to_string(key);
        for (int i = 0; i < 4; ++i, name += '_')
            if (IPC_FIFO_Create(0, &fds[i], 0, name.c_str()) != 0 || fds[i] < 0) return false;
        return true;
    }
    kavro::test::ScratchDir dir_;
};

constexpr int kWriters = 4, kMaxSeq = 60000, kBatch = 3000;
struct Tally {
    std::atomic<int32_t> acked[kWriters];
    std::atomic<uint8_t> seen[kWriters][kMaxSeq];
    std::atomic<int32_t> next[kWriters][3];  // lowest sequence still in order, per rank pipe
    std::atomic<int32_t> corrupt, received;  // corrupt: broken or out of its writer's order
};

// A message: writer, sequence, length, then a body that depends on all three.
uint16_t make_message(uint8_t *m, uint16_t w, uint16_t seq) {
    const uint16_t hdr[3] = {w, seq, static_cast<uint16_t>(6 + (seq * 37 + w) % 200)};
    std::memcpy(m, hdr, 6);
    for (int i = 6; i < hdr[2]; ++i) m[i] = static_cast<uint8_t>(seq + i + 7 * w);
    return hdr[2];
}

// False when no message stands in the rank pipe.
bool take_message(const int32_t fds[4], int rank, Tally *t, int timeout_ms) {
    uint8_t m[256], want[256];
    uint16_t hdr[3];
    const int fd = fds[1 + rank];
    if (!kavro::test::read_exact(fd, hdr, 6, timeout_ms)) return false;
    if (hdr[0] >= kWriters || hdr[1] >= kMaxSeq || hdr[2] < 6 || hdr[2] > 206 ||
        !kavro::test::read_exact(fd, m + 6, hdr[2] - 6u) || make_message(want, hdr[0], hdr[1]) != hdr[2] ||
        std::memcmp(m + 6, want + 6, hdr[2] - 6u) != 0 || hdr[1] < t->next[hdr[0]][rank]) {
        ++t->corrupt;
        return true;
    }
    t->next[hdr[0]][rank] = hdr[1] + 1;
    ++t->seen[hdr[0]][hdr[1]];
    ++t->received;
    return true;
}

int write_messages(Tally *t, uint16_t w, int count, uint32_t key) {
    IPC_FIFO_Init();
    uint8_t m[256];
    for (int seq = 0; seq < count; ++seq) {
        const uint16_t len = make_message(m, w, static_cast<uint16_t>(seq));
        int32_t n = 0;
        KAVRO_STATUS st;
        while ((st = IPC_FIFO_Write(0, key, seq, m, &n, len, 0)) == KAVRO_E_AGAIN) sched_yield();
        if (st != 0 || n != len) return 2;
        t->acked[w] = seq + 1;
    }
    return 0;
}

// The reader gets whole messages only, in each writer's order within a rank
// pipe: all the victim had acked, all of the other writers', and those of a
// writer that starts later.
TEST_F(FifoFault, WriterKilledMidStreamLosesOnlyItsUnfinishedMessage) {
    constexpr uint32_t kKey = 41;
    Shared<Tally> t;
    int drain[2];
    ASSERT_EQ(pipe(drain), 0);
    ForkedChild reader([&](int say) {
        int32_t fds[4];
        CHILD_CHECK(open_channel(kKey, fds));
        ForkedChild::say(say);
        for (bool draining = false;;) {
            pollfd p[2] = {{fds[0], POLLIN, 0}, {drain[0], POLLIN, 0}};
            poll(p, 2, draining ? 500 : 100);
            uint8_t rank = 0;
            int32_t n = 0;
            if ((p[0].revents & POLLIN) && IPC_FIFO_Read(fds[0], &rank, &n, 1) == 0 && n == 1) {
                CHILD_CHECK(rank <= 2 && take_message(fds, rank, t.p, 10000));
                continue;
            }
            if (draining) break;
            draining = (p[1].revents & POLLIN) != 0;
            if (!draining) usleep(1000);  // no writer has the pipe open: poll does not wait
        }
        // A victim killed before its rank byte leaves one message without it.
        for (int r = 1; r <= 3; ++r)
            while (take_message(fds, r - 1, t.p, 0)) continue;
        return 0;
    });
    ASSERT_TRUE(reader.said());

    ForkedChild victim([&](int) { return write_messages(t.p, 0, kMaxSeq, kKey); });
    ForkedChild w1([&](int) { return write_messages(t.p, 1, kBatch, kKey); });
    ForkedChild w2([&](int) { return write_messages(t.p, 2, kBatch, kKey); });
    ASSERT_TRUE(eventually([&] { return t->acked[0] >= 2000; }));
    kill(victim.pid, SIGKILL);
    EXPECT_EQ(victim.exit_code(), 128 + SIGKILL);
    const int acked = t->acked[0];
    ASSERT_LT(acked, kMaxSeq) << "the victim finished before it was killed";
    ForkedChild later([&](int) { return write_messages(t.p, 3, kBatch, kKey); });
    for (ForkedChild *c : {&w1, &w2, &later}) EXPECT_EQ(c->exit_code(120), 0);
    ASSERT_EQ(write(drain[1], "d", 1), 1);
    EXPECT_EQ(reader.exit_code(60), 0);
    close(drain[0]);
    close(drain[1]);

    EXPECT_EQ(t->corrupt, 0);
    int lost = 0, doubled = 0;
    for (int w = 0; w < kWriters; ++w)
        for (int s = 0; s < (w == 0 ? acked : kBatch); ++s) lost += t->seen[w][s] == 0, doubled += t->seen[w][s] > 1;
    EXPECT_EQ(lost + doubled, 0) << lost << " lost, " << doubled << " doubled";
    EXPECT_LE(t->seen[0][acked], 1);  // the one the victim was writing
    for (int s = acked + 1; s < kMaxSeq; ++s) ASSERT_EQ(t->seen[0][s], 0) << s;
}

// The writer survives (no SIGPIPE), reports the broken pipe, finds and frees
// the key, then learns nobody reads the channel.
TEST_F(FifoFault, ReaderKilledMidStreamIsReportedAndRemoved) {
    constexpr uint32_t kKey = 42;
    Shared<Tally> t;
    ForkedChild reader([&](int say) {
        int32_t fds[4];
        CHILD_CHECK(open_channel(kKey, fds));
        ForkedChild::say(say);
        for (;;) {
            uint8_t rank = 0;
            if (kavro::test::read_exact(fds[0], &rank, 1, 100)) {
                CHILD_CHECK(rank <= 2 && take_message(fds, rank, t.p, 10000));
                usleep(100);  // slower than the writer: its pipes fill up
            }
        }
    });
    ASSERT_TRUE(reader.said());
    ForkedChild writer([&](int) {
        IPC_FIFO_Init();
        uint8_t m[256];
        KAVRO_STATUS st = 0;
        int32_t n = 0, seq = 0;
        for (; seq < kMaxSeq; ++seq) {
            const uint16_t len = make_message(m, 1, static_cast<uint16_t>(seq));
            while ((st = IPC_FIFO_Write(0, kKey, seq, m, &n, len, 0)) == KAVRO_E_AGAIN) usleep(100);
            if (st != 0) break;
            t->acked[1] = seq + 1;
        }
        CHILD_CHECK(st == KAVRO_E_BROKENPIPE && n == -1);
        FifoKeyStatus ks[IPC_FIFO_TABLE_SIZE + 1];
        int32_t count = -1;
        CHILD_CHECK(IPC_FIFO_KeyStatus(ks, &count, 0) == 0 && count == 1);
        CHILD_CHECK(ks[0].key == kKey && ks[0].minTag == 0 && ks[0].maxTag == seq && ks[1].key == 0);
        const int fds = kavro::test::open_fds();
        CHILD_CHECK(IPC_FIFO_RemoveKeys(ks, count, 0) == 0 && kavro::test::open_fds() == fds - 4);
        CHILD_CHECK(IPC_FIFO_KeyStatus(ks, &count, 0) == 0 && count == 0);
        CHILD_CHECK(IPC_FIFO_Write(0, kKey, 0, m, &n, 6, 0) == KAVRO_E_NOREADER);
        return 0;
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
    struct Remove {
        int id;
        ~Remove() { semctl(id, 0, IPC_RMID); }
    };
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 1, key, 1), KAVRO_OK);
    const Remove remove{semget(static_cast<key_t>(key), 1, 0)};
    const int id = remove.id;
    ASSERT_GE(id, 0);
    // Openers wait until the set has been used once.
    ASSERT_EQ(SEM_Pend(h, 0), KAVRO_OK);
    ASSERT_EQ(SEM_Post(h), KAVRO_OK);
    auto open_and = [key](int say, bool hold) {
        SEM_HANDLE mine = nullptr;
        CHILD_CHECK(SEM_Create(&mine, 0, key, 1) == 0);
        if (hold) CHILD_CHECK(SEM_Pend(mine, 10000) == 0);
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
    EXPECT_EQ(SEM_GetCount(h, &count), KAVRO_OK);
    EXPECT_EQ(count, 1);  // the waiter's unit came back at its exit too
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

// The writer gives up with "queue stayed full" after its retry window; every
// message it acked was either received or is still queued, in order.
TEST(SysVFault, QueueReaderKilledWhileTheWriterRetries) {
    constexpr int kTaken = 30;
    void *h = nullptr;
    ASSERT_EQ(IPC_MSGQ_Create(&h, 0, "fault"), KAVRO_OK);
    const int qid = static_cast<MessageQueueRecord *>(h)->queueId;
    std::unique_ptr<void, KAVRO_STATUS (*)(void *)> remove(h, IPC_MSGQ_Delete);
    msqid_ds ds{};
    ASSERT_EQ(msgctl(qid, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 256;
    ASSERT_EQ(msgctl(qid, IPC_SET, &ds), 0);

    struct State {
        std::atomic<int32_t> acked, received;
        std::atomic<uint32_t> status;
    };
    Shared<State> s;
    ForkedChild reader([&](int say) {
        for (int32_t i = 0, seq = -1; i < kTaken; ++i) {
            uint32_t len = 0;
            CHILD_CHECK(IPC_MSGQ_Rcv(h, &seq, sizeof seq, &len, 1, MSG_NOERROR) == 0 && len == 4 && seq == i);
            s->received = i + 1;
        }
        ForkedChild::say(say);
        pause();
        return 0;
    });
    // The send path with its retry window cut from 50 s to 3 s.
    ForkedChild writer([&](int) {
        MessageRecord rec{};
        rec.dataLength = sizeof(int32_t);
        rec.msgType = 1;
        for (int32_t seq = 0; seq < 1000000; ++seq) {
            std::memcpy(rec.data, &seq, sizeof seq);
            const KAVRO_STATUS st = kavro::detail::msgq_send_polling(qid, &rec, IPC_NOWAIT, 300, 10000);
            if (st != 0) return s->status = st, 0;
            s->acked = seq + 1;
        }
        return 2;
    });
    ASSERT_TRUE(reader.said(30000));
    int32_t before = -1;  // retrying once its count stands still
    ASSERT_TRUE(eventually([&] {
        const int32_t now = s->acked;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return std::exchange(before, now) == now && s->acked == now;
    }));
    kill(reader.pid, SIGKILL);
    EXPECT_EQ(reader.exit_code(), 128 + SIGKILL);
    EXPECT_EQ(writer.exit_code(60), 0);
    EXPECT_EQ(s->status, KAVRO_E_AGAIN);
    ASSERT_EQ(msgctl(qid, IPC_STAT, &ds), 0);
    EXPECT_EQ(s->acked, kTaken + static_cast<int32_t>(ds.msg_qnum));
    for (int32_t want = kTaken, seq = -1; want < s->acked; ++want) {
        uint32_t len = 0;
        ASSERT_EQ(IPC_MSGQ_Rcv(h, &seq, sizeof seq, &len, 1, 0), KAVRO_OK);
        ASSERT_EQ(seq, want);
    }
}

}  // namespace
