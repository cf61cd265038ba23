// Task locks: refusal before start, coupled life cycle, priority raise and restore, exclusion.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"
#include "sync/lck.hpp"

namespace {

using kavro::detail::lck_first_lock;
using kavro::detail::lck_lock2;
using kavro::test::Done;

using Sched = std::pair<int, int>;  // policy, priority
Sched sched_of(pid_t tid) {
    sched_param sp{};
    return {sched_getscheduler(tid), sched_getparam(tid, &sp) == 0 ? sp.sched_priority : -1};
}
Sched my_sched() { return sched_of(0); }
const Sched kFifo98{SCHED_FIFO, 98}, kFifo5{SCHED_FIFO, 5};

// Runs fn on a thread made by THREAD_Create at the given priority and waits until it has returned.
template <typename Fn>
void on_thread(uint32_t priority, Fn fn) {
    struct Job {
        Fn *fn;
        Done done;
    } job{&fn, {}};
    ThreadAttr attr = {24, priority, 0, 0, -1, "locker"};
    ThreadObj *h = nullptr;
    auto body = [](void *ctx) { (*static_cast<Job *>(ctx)->fn)(), static_cast<Job *>(ctx)->done.post(); };
    ASSERT_EQ(THREAD_Create(&h, body, &job, &attr), 0u);
    ASSERT_TRUE(job.done.wait(30000));
    THREAD_Join(h);
}

class TaskLock : public testing::Test {
protected:
    void SetUp() override { LCK_Init(); }
    void TearDown() override { LCK_Exit(); }
};

TEST(TaskLockFamily, RefusedBeforeInitAndLifeCycleCoupled) {
    EXPECT_EQ(kavro::test::run_in_child([] {
        if (LCK_Lock(nullptr) != 0x80004005u) return 1;
        if (lck_first_lock() == nullptr &&  // no earlier test of this process made the locks
            (LCK_Lock_2() != 0x80004005u || LCK_Unlock(nullptr) != 0x80004005u || LCK_Unlock_2() != 0x80004005u))
            return 2;
        if (LCK_Init() != 0 || LCK_Init() != 0) return 3;
        LckObj *first = lck_first_lock();
        if (first == nullptr || first->tag != KAVRO_TAG_LCK || lck_lock2() == nullptr) return 4;
        LCK_Exit();  // still up, and the thread family with it
        if (LCK_Lock(nullptr) != 0 || LCK_Unlock(nullptr) != 0 || THREAD_Init() != 1) return 5;
        THREAD_Exit();
        LCK_Exit();
        if (LCK_Lock(nullptr) != 0x80004005u || THREAD_Init() != 0) return 7;  // threads went down too
        THREAD_Exit();
        if (LCK_Init() != 0 || lck_first_lock() == first || lck_first_lock() == nullptr) return 9;  // new locks
        LCK_Exit();
        return 0;
    }), 0);
}

TEST_F(TaskLock, ForeignThreadAndSecondLockReleaseOnlyWhatIsHeld) {
    const Sched before = my_sched();
    LckObj *first = lck_first_lock();
    ASSERT_EQ(LCK_Lock(nullptr), 0u);
    EXPECT_EQ(first->owner, ~static_cast<uintptr_t>(0));
    EXPECT_EQ(my_sched(), before);  // no record: no priority change
    EXPECT_EQ(LCK_Unlock(nullptr), 0u);
    EXPECT_EQ(LCK_Unlock(nullptr), 0u);  // stray: must not free the lock twice
    int value = -1;
    sem_getvalue(&first->sem, &value);
    EXPECT_TRUE(value == 1 && first->holdCount == 0);
    const uint32_t second[] = {LCK_Unlock_2(), LCK_Lock_2(), LCK_Unlock_2(), LCK_Unlock_2()};
    EXPECT_TRUE(second[0] == 0x80004005u && second[1] == 0 && second[2] == 0 && second[3] == 0x80004005u);
}

TEST_F(TaskLock, RaisedTo98WhileHeldAcrossNestingAndRestoredAtTheOutermostExit) {
    KAVRO_REQUIRE_RT();
    on_thread(5, [] {
        ThreadObj *self = nullptr;
        THREAD_Self(&self);
        LckObj *first = lck_first_lock(), *other = nullptr;
        ASSERT_EQ(LCK_Create(&other), 0u);
        ASSERT_EQ(LCK_Lock(nullptr), 0u);
        EXPECT_EQ(my_sched(), kFifo98);
        EXPECT_TRUE(first->owner == reinterpret_cast<uintptr_t>(self) && first->holdCount == 1);
        // Nested entries, also on another lock, do not take a semaphore.
        EXPECT_TRUE(LCK_Lock(nullptr) == 0 && LCK_Lock(other) == 0 && other->holdCount == 0 && self->lockCount == 3);
        EXPECT_TRUE(LCK_Unlock(other) == 0 && LCK_Unlock(nullptr) == 0 && first->holdCount == 1);
        EXPECT_EQ(my_sched(), kFifo98);
        EXPECT_EQ(LCK_Unlock(nullptr), 0u);
        EXPECT_EQ(my_sched(), kFifo5);
        EXPECT_TRUE(self->priority == 5 && first->holdCount == 0 && first->owner == 0);
        // A stray unlock leaves the nesting depth alone; the next lock works.
        EXPECT_TRUE(LCK_Unlock(nullptr) == 0 && self->lockCount == 0);
        EXPECT_TRUE(LCK_Lock(other) == 0 && other->holdCount == 1);
        EXPECT_TRUE(LCK_Unlock(other) == 0 && other->holdCount == 0);
        EXPECT_EQ(my_sched(), kFifo5);
        LCK_Delete(other);
    });
}

TEST_F(TaskLock, InheritingThreadReturnsToItsOwnSchedulingAfterTheLock) {
    KAVRO_REQUIRE_RT();
    const Sched mine = my_sched();  // what a priority-0 thread inherits
    on_thread(0, [mine] {
        EXPECT_EQ(my_sched(), mine);
        ASSERT_EQ(LCK_Lock(nullptr), 0u);
        EXPECT_EQ(my_sched(), kFifo98);
        ASSERT_EQ(LCK_Unlock(nullptr), 0u);
        EXPECT_EQ(my_sched(), mine);
    });
}

struct Contender {
    Done locked, mayUnlock, started;
    std::atomic<pid_t> tid{0};
    std::atomic<bool> inside{false};
    ThreadObj *self = nullptr;
    Sched afterUnlock;
};

TEST_F(TaskLock, WaiterIsRaisedBeforeItBlocksAndGetsTheLockAtTheOutermostExit) {
    KAVRO_REQUIRE_RT();
    Contender a, b;
    ThreadAttr pa = {24, 5, 0, 0, -1, "A"}, pb = {24, 3, 0, 0, -1, "B"};
    ThreadObj *ha = nullptr, *hb = nullptr;
    auto contend = [](void *ctx) {  // A holds the lock first, B waits for it
        auto *c = static_cast<Contender *>(ctx);
        THREAD_Self(&c->self);
        c->tid = static_cast<pid_t>(syscall(SYS_gettid));
        c->started.post();
        LCK_Lock(nullptr);
        c->inside = true;
        c->locked.post();
        c->mayUnlock.wait(30000);
        LCK_Unlock(nullptr);
        c->afterUnlock = my_sched();
        c->started.post();
    };
    ASSERT_EQ(THREAD_Create(&ha, contend, &a, &pa), 0u);
    ASSERT_TRUE(a.locked.wait());
    ASSERT_EQ(THREAD_Create(&hb, contend, &b, &pb), 0u);
    ASSERT_TRUE(b.started.wait());
    Sched seen;  // B blocks on the held lock at 98
    for (int i = 0; i < 1000 && (seen = sched_of(b.tid)) != kFifo98; ++i) usleep(5000);
    EXPECT_EQ(seen, kFifo98);
    EXPECT_FALSE(b.locked.wait(100) || b.inside);

    a.mayUnlock.post();
    ASSERT_TRUE(b.locked.wait());
    EXPECT_EQ(lck_first_lock()->owner, reinterpret_cast<uintptr_t>(b.self));
    b.mayUnlock.post();
    ASSERT_TRUE(b.started.wait());
    EXPECT_EQ(b.afterUnlock, (Sched{SCHED_FIFO, 3}));
    THREAD_Join(ha);
    THREAD_Join(hb);
    EXPECT_EQ(lck_first_lock()->holdCount, 0);
}

// Several threads, with and without thread records, on one lock.
struct Hammer {
    LckObj *lock = nullptr;
    long counter = 0;
    std::atomic<int> inside{0}, overlaps{0};
    Done done;
};
constexpr int kRounds = 20000;

void *hammer_round(void *p) {
    auto *h = static_cast<Hammer *>(p);
    for (int i = 0; i < kRounds; ++i) {
        LCK_Lock(h->lock);
        if (h->inside.fetch_add(1) != 0) h->overlaps.fetch_add(1);
        volatile long v = h->counter;  // a read-modify-write that loses updates unless excluded
        h->counter = v + 1;
        h->inside.fetch_sub(1);
        LCK_Unlock(h->lock);
    }
    h->done.post();
    return nullptr;
}

TEST_F(TaskLock, ManyThreadsOnOneLockLoseNoUpdate) {
    KAVRO_REQUIRE_RT();
    Hammer h;
    ASSERT_EQ(LCK_Create(&h.lock), 0u);
    ThreadObj *threads[3];
    pthread_t plain[2];
    for (uint32_t i = 0; i < 3; ++i) {
        ThreadAttr attr = {24, 1 + i, 0, 0, -1, "hammer"};
        ASSERT_EQ(THREAD_Create(&threads[i], [](void *p) { hammer_round(p); }, &h, &attr), 0u);
    }
    for (auto &t : plain) ASSERT_EQ(pthread_create(&t, nullptr, hammer_round, &h), 0);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(h.done.wait(120000));
    for (auto &t : plain) pthread_join(t, nullptr);
    for (auto *t : threads) THREAD_Join(t);
    EXPECT_TRUE(h.counter == 5L * kRounds && h.overlaps == 0 && h.lock->holdCount == 0);
    LCK_Delete(h.lock);
}

// A thread raised to 98 by THREAD_SetPriority stays at 98 after a lock; one at 5 returns to 5.
TEST_F(TaskLock, LeavesTheLockAtThePriorityItEnteredWith) {
    KAVRO_REQUIRE_RT();
    on_thread(5, [] {
        ThreadObj *self = nullptr;
        THREAD_Self(&self);
        for (uint32_t p : {98u, 5u}) {
            ASSERT_EQ(THREAD_SetPriority(self, p, nullptr), 0u);
            ASSERT_TRUE(LCK_Lock(nullptr) == 0 && LCK_Unlock(nullptr) == 0);
            EXPECT_EQ(self->priority, p);
            EXPECT_EQ(my_sched(), (Sched{SCHED_FIFO, static_cast<int>(p)}));
        }
    });
}

}  // namespace
