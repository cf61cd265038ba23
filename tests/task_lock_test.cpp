// Task locks: refusal before start, coupled life cycle, priority raise and
// restore under nesting, a waiter raised while it blocks, mutual exclusion.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"
#include "thread.hpp"

namespace {

using kavro::detail::lck_first_lock;
using kavro::detail::lck_lock2;

using kavro::test::Done;

struct Sched {
    int policy = -1;
    int prio = -1;
    bool operator==(const Sched &o) const { return policy == o.policy && prio == o.prio; }
};
Sched sched_of(pid_t tid) {
    sched_param sp{};
    Sched s;
    s.policy = sched_getscheduler(tid);
    if (sched_getparam(tid, &sp) == 0) s.prio = sp.sched_priority;
    return s;
}
Sched my_sched() { return sched_of(0); }
void PrintTo(const Sched &s, std::ostream *os) { *os << "{policy " << s.policy << ", prio " << s.prio << "}"; }

const Sched kFifo98{SCHED_FIFO, 98};

// Runs fn on a thread made by THREAD_Create at the given priority and waits
// until it has returned.
template <typename Fn>
void on_thread(uint32_t priority, Fn fn) {
    struct Job {
        Fn *fn;
        Done done;
    } job{&fn, {}};
    ThreadAttr attr = {24, priority, 0, 0, -1, "locker"};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(
                  &h,
                  [](void *ctx) {
                      auto *j = static_cast<Job *>(ctx);
                      (*j->fn)();
                      j->done.post();
                  },
                  &job, &attr),
              0u);
    ASSERT_TRUE(job.done.wait(30000));
    THREAD_Join(h);
}

class TaskLock : public testing::Test {
protected:
    void SetUp() override { LCK_Init(); }
    void TearDown() override { LCK_Exit(); }
};

TEST(TaskLockFamily, RefusedBeforeInitAndLifeCycleCoupled) {
    int rc = kavro::test::run_in_child([] {
        if (LCK_Lock(nullptr) != 0x80004005u) return 1;
        if (lck_first_lock() == nullptr) {  // no earlier test of this process made the locks
            if (LCK_Lock_2() != 0x80004005u) return 2;
            if (LCK_Unlock(nullptr) != 0x80004005u || LCK_Unlock_2() != 0x80004005u) return 2;
        }
        if (LCK_Init() != 0 || LCK_Init() != 0) return 3;
        LckObj *first = lck_first_lock();
        if (first == nullptr || first->tag != KAVRO_TAG_LCK || lck_lock2() == nullptr) return 4;
        LCK_Exit();
        // Still up, and the thread family with it.
        if (LCK_Lock(nullptr) != 0 || LCK_Unlock(nullptr) != 0) return 5;
        if (THREAD_Init() != 1) return 6;
        THREAD_Exit();
        LCK_Exit();
        if (LCK_Lock(nullptr) != 0x80004005u) return 7;
        if (THREAD_Init() != 0) return 8;  // the thread family went down with it
        THREAD_Exit();
        // A new bring-up makes new locks.
        if (LCK_Init() != 0 || lck_first_lock() == first || lck_first_lock() == nullptr) return 9;
        LCK_Exit();
        return 0;
    });
    EXPECT_EQ(rc, 0);
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
    EXPECT_EQ(value, 1);
    EXPECT_EQ(first->holdCount, 0);

    EXPECT_EQ(LCK_Unlock_2(), 0x80004005u);
    EXPECT_EQ(LCK_Lock_2(), 0u);
    EXPECT_EQ(LCK_Unlock_2(), 0u);
    EXPECT_EQ(LCK_Unlock_2(), 0x80004005u);
}

TEST_F(TaskLock, RaisedTo98WhileHeldAcrossNestingAndRestoredAtTheOutermostExit) {
    KAVRO_REQUIRE_RT();
    on_thread(5, [] {
        ThreadObj *self = nullptr;
        THREAD_Self(&self);
        LckObj *first = lck_first_lock();
        LckObj *other = nullptr;
        ASSERT_EQ(LCK_Create(&other), 0u);

        ASSERT_EQ(LCK_Lock(nullptr), 0u);
        EXPECT_EQ(my_sched(), kFifo98);
        EXPECT_EQ(first->owner, reinterpret_cast<uintptr_t>(self));
        EXPECT_EQ(first->holdCount, 1);
        // Nested entries, also on another lock, do not take a semaphore.
        EXPECT_EQ(LCK_Lock(nullptr), 0u);
        EXPECT_EQ(LCK_Lock(other), 0u);
        EXPECT_EQ(other->holdCount, 0);
        EXPECT_EQ(self->lockCount, 3);
        EXPECT_EQ(LCK_Unlock(other), 0u);
        EXPECT_EQ(LCK_Unlock(nullptr), 0u);
        EXPECT_EQ(my_sched(), kFifo98);
        EXPECT_EQ(first->holdCount, 1);
        EXPECT_EQ(LCK_Unlock(nullptr), 0u);
        EXPECT_EQ(my_sched(), (Sched{SCHED_FIFO, 5}));
        EXPECT_EQ(self->priority, 5u);
        EXPECT_EQ(first->holdCount, 0);
        EXPECT_EQ(first->owner, 0u);

        // A stray unlock leaves the nesting depth alone; the next lock works.
        EXPECT_EQ(LCK_Unlock(nullptr), 0u);
        EXPECT_EQ(self->lockCount, 0);
        EXPECT_EQ(LCK_Lock(other), 0u);
        EXPECT_EQ(other->holdCount, 1);
        EXPECT_EQ(LCK_Unlock(other), 0u);
        EXPECT_EQ(other->holdCount, 0);
        EXPECT_EQ(my_sched(), (Sched{SCHED_FIFO, 5}));
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

void holder(void *ctx) {
    auto *c = static_cast<Contender *>(ctx);
    LCK_Lock(nullptr);
    c->locked.post();
    c->mayUnlock.wait(30000);
    LCK_Unlock(nullptr);
}

void waiter(void *ctx) {
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
}

TEST_F(TaskLock, WaiterIsRaisedBeforeItBlocksAndGetsTheLockAtTheOutermostExit) {
    KAVRO_REQUIRE_RT();
    Contender a, b;
    ThreadAttr pa = {24, 5, 0, 0, -1, "A"}, pb = {24, 3, 0, 0, -1, "B"};
    ThreadObj *ha = nullptr, *hb = nullptr;
    ASSERT_EQ(THREAD_Create(&ha, holder, &a, &pa), 0u);
    ASSERT_TRUE(a.locked.wait());
    ASSERT_EQ(THREAD_Create(&hb, waiter, &b, &pb), 0u);
    ASSERT_TRUE(b.started.wait());

    // B blocks on the held lock at 98.
    Sched seen;
    for (int i = 0; i < 1000 && !((seen = sched_of(b.tid)) == kFifo98); ++i) usleep(5000);
    EXPECT_EQ(seen, kFifo98);
    EXPECT_FALSE(b.locked.wait(100));
    EXPECT_FALSE(b.inside);

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
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    Done done;
};
constexpr int kRounds = 20000;

void hammer_round(Hammer *h) {
    for (int i = 0; i < kRounds; ++i) {
        LCK_Lock(h->lock);
        if (h->inside.fetch_add(1) != 0) h->overlaps.fetch_add(1);
        volatile long v = h->counter;  // a read-modify-write that loses updates unless excluded
        h->counter = v + 1;
        h->inside.fetch_sub(1);
        LCK_Unlock(h->lock);
    }
    h->done.post();
}

TEST_F(TaskLock, ManyThreadsOnOneLockLoseNoUpdate) {
    KAVRO_REQUIRE_RT();
    Hammer h;
    ASSERT_EQ(LCK_Create(&h.lock), 0u);
    constexpr int kRecorded = 3, kForeign = 2;
    ThreadObj *threads[kRecorded];
    for (int i = 0; i < kRecorded; ++i) {
        ThreadAttr attr = {24, static_cast<uint32_t>(1 + i), 0, 0, -1, "hammer"};
        ASSERT_EQ(THREAD_Create(&threads[i], [](void *p) { hammer_round(static_cast<Hammer *>(p)); }, &h, &attr),
                  0u);
    }
    pthread_t plain[kForeign];
    for (auto &t : plain)
        ASSERT_EQ(pthread_create(
                      &t, nullptr,
                      [](void *p) -> void * {
                          hammer_round(static_cast<Hammer *>(p));
                          return nullptr;
                      },
                      &h),
                  0);
    for (int i = 0; i < kRecorded + kForeign; ++i) ASSERT_TRUE(h.done.wait(120000));
    for (auto &t : plain) pthread_join(t, nullptr);
    for (auto *t : threads) THREAD_Join(t);
    EXPECT_EQ(h.counter, static_cast<long>(kRounds) * (kRecorded + kForeign));
    EXPECT_EQ(h.overlaps, 0);
    EXPECT_EQ(h.lock->holdCount, 0);
    LCK_Delete(h.lock);
}

}  // namespace
