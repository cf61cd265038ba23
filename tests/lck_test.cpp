// Task locks: coupled life cycle, exclusion through signals, priority raise and restore.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "kavro_rt/kavro_rt.h"
#include "sync/lck.hpp"
#include "test_support.hpp"

namespace {

using kavro::detail::lck_first_lock;
using kavro::detail::lck_lock2;
using Sched = std::pair<int, int>;  // policy, priority

Sched sched_of(pid_t tid = 0) {
    sched_param sp{};
    return {sched_getscheduler(tid), sched_getparam(tid, &sp) == 0 ? sp.sched_priority : -1};
}
int value_of(LckObj *lock) {
    int v = -1;
    sem_getvalue(&lock->sem, &v);
    return v;
}

TEST(TaskLockFamily, LifeCycleCoupledWithThreads) {
    EXPECT_EQ(kavro::test::run_in_child([] {
                  CHILD_CHECK(LCK_Init() == 0 && LCK_Init() == 0 && value_of(lck_lock2()) == 1);
                  LckObj *first = lck_first_lock();
                  LCK_Exit();  // still up, and the thread family with it
                  CHILD_CHECK(LCK_Lock(nullptr) == KAVRO_OK && LCK_Unlock(nullptr) == KAVRO_OK && THREAD_Init() == 1);
                  THREAD_Exit(), LCK_Exit();
                  CHILD_CHECK(LCK_Lock(nullptr) == KAVRO_E_FAIL && THREAD_Init() == 0);  // threads went down too
                  THREAD_Exit();
                  return LCK_Init() == 0 && first && lck_first_lock() != first && lck_first_lock() ? 0
                                                                                                   : 2;  // new locks
              }),
              0);
}

// Threads without a record: excluded through signals; stray unlocks free nothing twice.
TEST(TaskLock, ForeignThreadsAreExcludedThroughSignals) {
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
}

// Runs fn to its end on a thread made by THREAD_Create at the given priority.
void on_thread(uint32_t priority, std::function<void()> fn) {
    ThreadAttr attr = {24, priority, 0, 0, -1, "locker"};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(
                  &h, [](void *f) { (*static_cast<std::function<void()> *>(f))(); }, &fn, &attr),
              KAVRO_OK);
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);
}

// 98 while held, across nesting on any lock; at the outermost exit back to the priority it entered with.
TEST(TaskLock, RaisedTo98WhileHeldAndRestoredAtTheOutermostExit) {
    KAVRO_REQUIRE_RT();
    LCK_Init();
    const Sched kFifo98{SCHED_FIFO, 98}, mine = sched_of();
    on_thread(5, [&] {
        ThreadObj *self = nullptr;
        LckObj *first = lck_first_lock(), *other = nullptr;
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
        EXPECT_TRUE(sched_of() == mine && LCK_Lock(nullptr) == KAVRO_OK && sched_of() == kFifo98);
        EXPECT_TRUE(LCK_Unlock(nullptr) == KAVRO_OK && sched_of() == mine);
    });
}

}  // namespace
