// Task locks: coupled life cycle, exclusion through signals, priority raise and restore.

#include <pthread.h>

#include <functional>
#include <thread>

#include "sync/lck.hpp"
#include "test_support.hpp"

namespace {

using namespace kavro::detail;
using Sched = std::pair<int, int>;  // policy, priority

Sched sched_of(pid_t tid = 0) {
    sched_param sp{};
    return {sched_getscheduler(tid), sched_getparam(tid, &sp) == 0 ? sp.sched_priority : -1};
}
int value_of(LckObj *lock) {
    int v = -1;
    return sem_getvalue(&lock->sem, &v) == 0 ? v : -1;
}

// Counted; the last exit takes the thread family down too; a new start makes new locks.
TEST(TaskLockFamily, LifeCycleCoupledWithThreads) {
    EXPECT_EQ(kavro::test::run_in_child([] {
                  LckObj *first = (LCK_Init(), LCK_Init(), LCK_Exit(), lck_first_lock());
                  CHILD_CHECK(first && LCK_Lock(nullptr) == 0 && LCK_Unlock(nullptr) == 0 && THREAD_Init() == 1);
                  THREAD_Exit(), LCK_Exit();
                  CHILD_CHECK(LCK_Lock(nullptr) == KAVRO_E_FAIL && THREAD_Init() == 0);
                  return THREAD_Exit(), LCK_Init() == 0 && lck_first_lock() != first && lck_first_lock() ? 0 : 2;
              }),
              0);
}

void call(void *fn) { (*static_cast<std::function<void()> *>(fn))(); }
// Runs fn to its end on a thread made by THREAD_Create at the given priority.
void on_thread(uint32_t priority, std::function<void()> fn) {
    ThreadAttr attr = {24, priority, 0, 0, -1, "locker"};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(&h, call, &fn, &attr), KAVRO_OK);
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);
}

// Threads without a record: excluded through signals, priority untouched; stray unlocks free nothing twice.
TEST(TaskLock, ExcludedThroughSignalsRaisedTo98WhileHeldRestoredAtTheOutermostExit) {
    LCK_Init();
    LckObj *first = lck_first_lock();
    const Sched before = sched_of();
    ASSERT_EQ(LCK_Lock(nullptr), KAVRO_OK);
    EXPECT_TRUE(first->owner == ~uintptr_t(0) && sched_of() == before);  // no record: no priority change
    std::atomic<bool> inside{false};
    std::thread waiter([&] { LCK_Lock(nullptr), inside = true, LCK_Unlock(nullptr); });
    signal(SIGUSR2, [](int) {});  // a semaphore wait is never restarted
    for (int i = 0; i < 10; ++i) pthread_kill(waiter.native_handle(), SIGUSR2), usleep(10000);
    EXPECT_TRUE(!inside && LCK_Unlock(nullptr) == KAVRO_OK);
    waiter.join();
    EXPECT_TRUE(inside && LCK_Unlock(nullptr) == KAVRO_OK && value_of(first) == 1);  // stray: not freed twice
    ASSERT_EQ(value_of(lck_lock2()), 1);  // free: the lock below does not wait
    EXPECT_TRUE(LCK_Unlock_2() == KAVRO_E_FAIL && LCK_Lock_2() == KAVRO_OK && LCK_Unlock_2() == KAVRO_OK);
    // Threads with a record: 98 while held, nested on any lock; the entered priority back at the outermost exit.
    KAVRO_REQUIRE_RT();
    const Sched kFifo98{SCHED_FIFO, 98};
    on_thread(5, [&] {
        ThreadObj *self = nullptr;
        LckObj *other = nullptr;
        ASSERT_TRUE(THREAD_Self(&self) == 0 && LCK_Create(&other) == 0 && LCK_Lock(nullptr) == 0);
        EXPECT_TRUE(sched_of() == kFifo98 && first->owner == uintptr_t(self) && first->holdCount == 1);
        // Nested entries, also on another lock, do not take a semaphore.
        EXPECT_TRUE(LCK_Lock(nullptr) == 0 && LCK_Lock(other) == 0 && other->holdCount == 0 && self->lockCount == 3);
        EXPECT_TRUE(LCK_Unlock(other) == 0 && LCK_Unlock(nullptr) == 0 && first->holdCount == 1);
        EXPECT_TRUE(sched_of() == kFifo98 && LCK_Unlock(nullptr) == KAVRO_OK);
        EXPECT_TRUE(sched_of() == Sched(SCHED_FIFO, 5) && first->owner == 0);
        EXPECT_TRUE(LCK_Unlock(nullptr) == 0 && self->lockCount == 0);  // stray: the depth stays
        EXPECT_TRUE(LCK_Lock(other) == 0 && other->holdCount == 1 && LCK_Unlock(other) == 0 && LCK_Delete(other) == 0);
        for (uint32_t p : {98u, 5u}) {
            ASSERT_TRUE(THREAD_SetPriority(self, p, nullptr) == 0 && LCK_Lock(nullptr) == 0 &&
                        LCK_Unlock(nullptr) == 0);
            EXPECT_TRUE(self->priority == p && sched_of() == Sched(SCHED_FIFO, int(p)));
        }
    });
    on_thread(0, [&] {
        EXPECT_TRUE(sched_of() == before && LCK_Lock(nullptr) == KAVRO_OK && sched_of() == kFifo98);
        EXPECT_TRUE(LCK_Unlock(nullptr) == KAVRO_OK && sched_of() == before);
    });
}

}  // namespace
