// Semaphores: the front's routing, the process-local kinds under threads,
// System V sets shared between real processes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kavro_rt/kavro_rt.h"
#include "sync/sem.hpp"
#include "test_support.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Child = kavro::test::ForkedChild;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

int32_t count_of(SEM_HANDLE h) {
    int32_t c = 12345;
    EXPECT_EQ(SEM_GetCount(h, &c), KAVRO_OK);
    return c;
}

// Waiters show as a negative count.
bool count_reaches(SEM_HANDLE h, int32_t want) {
    for (auto end = Clock::now() + std::chrono::seconds(10); Clock::now() < end; std::this_thread::sleep_for(milliseconds(1)))
        if (count_of(h) == want) return true;
    return false;
}

int32_t type_of(SEM_HANDLE h) { return static_cast<kavro::sem::SemHeader *>(h)->type; }

// One step: 'p' post, 'P' pend(arg), 't' trypend, 'r' reset(arg); then the count.
struct Step { char op; int32_t arg; KAVRO_STATUS st; int32_t count; };
void run_steps(SEM_HANDLE h, std::initializer_list<Step> steps) {
    for (const Step &s : steps) {
        KAVRO_STATUS st = s.op == 'p' ? SEM_Post(h) : s.op == 'P' ? SEM_Pend(h, static_cast<uint32_t>(s.arg))
                        : s.op == 't' ? SEM_TryPend(h) : SEM_Reset(h, s.arg);
        EXPECT_EQ(st, s.st) << s.op << s.arg;
        EXPECT_EQ(count_of(h), s.count) << s.op << s.arg;
    }
}

// A System V key no parallel test uses; the set is removed at scope end.
struct UniqueKey {
    explicit UniqueKey(int n) : key(0x53000000u | (static_cast<uint32_t>(getpid()) & 0xFFFFFu) << 4 | n) {}
    ~UniqueKey() {
        if (int id = semget(static_cast<key_t>(key), 1, 0); id >= 0) semctl(id, 0, IPC_RMID);
    }
    uint32_t key;
};

TEST(SemFront, DefaultIsCounterKindAndCountersCountCalls) {
    const uint32_t created = sem_created, freed = sem_freed, local = pthr_sem_created;
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 1, 0, 0), KAVRO_OK);
    EXPECT_EQ(static_cast<uint32_t *>(h)[0], KAVRO_TAG_SEM);
    EXPECT_EQ(type_of(h), -1);
    run_steps(h, {{'P', -1, KAVRO_OK, 0}, {'P', 0, KAVRO_E_TIMEOUT, 0}, {'t', 0, KAVRO_E_AGAIN, 0}});
    const auto t0 = Clock::now();
    EXPECT_EQ(SEM_Pend(h, 120), KAVRO_E_TIMEOUT);
    EXPECT_GE(Clock::now() - t0, milliseconds(119));
    // The timed-out claim was given back, so the next post is a free unit.
    run_steps(h, {{'p', 0, KAVRO_OK, 1}, {'t', 0, KAVRO_OK, 0}});
    EXPECT_EQ(SEM_Create(nullptr, 1, 0, 0), KAVRO_E_INVALIDARG);  // failed, still counted
    EXPECT_EQ(sem_created, created + 2);
    EXPECT_EQ(pthr_sem_created, local + 2);
    EXPECT_EQ(SEM_Delete(nullptr), KAVRO_OK);
    EXPECT_EQ(sem_freed, freed);
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
    EXPECT_EQ(sem_freed, freed + 1);
}

TEST(SemFront, ForeignHandleIsRefusedByItsTag) {
    int32_t c = 0;
    uint32_t foreign[64] = {KAVRO_TAG_MBX, 1};  // second word claims System V; the tag decides
    const uint32_t freed = pthr_sem_freed;
    for (KAVRO_STATUS st : {SEM_Post(foreign), SEM_Pend(foreign, KAVRO_WAIT_FOREVER), SEM_Reset(foreign, 2),
                            SEM_GetCount(foreign, &c), PTHR_SEM_Delete(foreign)})
        EXPECT_EQ(st, KAVRO_E_FAIL);
    EXPECT_EQ(pthr_sem_freed, freed + 1);
    CaptureStderr();
    EXPECT_EQ(PTHR_SEM_TryPend(foreign), KAVRO_E_FAIL);
    EXPECT_EQ(PTHR_SEM_GetSystemHandle(foreign), KAVRO_E_FAIL);
    EXPECT_EQ(GetCapturedStderr(), "KAVRO:PTHR_SEM_TryPend: ERROR, Memory corruption..... \n"
                                   "KAVRO: Function PTHR_SEM_GetSystemHandle is not supported .... \n");
}

TEST(SemCounter, PostWakesOneWaiterResetReleasesAll) {
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 0, 0, 0), KAVRO_OK);
    std::atomic<int> done{0};
    std::vector<std::thread> waiters;
    for (uint32_t t : {KAVRO_WAIT_FOREVER, KAVRO_WAIT_FOREVER, 60000u})
        waiters.emplace_back([&, t] { EXPECT_EQ(SEM_Pend(h, t), KAVRO_OK); ++done; });
    ASSERT_TRUE(count_reaches(h, -3));
    EXPECT_EQ(SEM_Post(h), KAVRO_OK);
    ASSERT_TRUE(count_reaches(h, -2));
    for (int i = 0; i < 1000 && done < 1; ++i) std::this_thread::sleep_for(milliseconds(2));
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(done.load(), 1);
    EXPECT_EQ(SEM_Reset(h, 5), KAVRO_OK);
    for (auto &t : waiters) t.join();
    EXPECT_EQ(done.load(), 3);
    EXPECT_EQ(count_of(h), 5);
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

// Every post is taken by exactly one of pends that keep timing out.
TEST(SemCounter, NoUnitLostOrDuplicatedUnderTimeouts) {
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 0, 0, 0), KAVRO_OK);
    constexpr int kPosts = 3 * 3000;
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
            while (!stop) {
                KAVRO_STATUS s = i == 0 ? SEM_TryPend(h) : SEM_Pend(h, i);
                if (s == KAVRO_OK) ++taken;
                else EXPECT_TRUE(s == KAVRO_E_TIMEOUT || s == KAVRO_E_AGAIN) << std::hex << s;
            }
        });
    std::vector<std::thread> posters(3);
    for (auto &t : posters)
        t = std::thread([&] {
            for (int n = 0; n < kPosts / 3; ++n) {
                EXPECT_EQ(SEM_Post(h), KAVRO_OK);
                if (n % 64 == 0) std::this_thread::sleep_for(milliseconds(1));
            }
        });
    for (auto &t : posters) t.join();
    for (int i = 0; i < 5000 && taken < kPosts; ++i) std::this_thread::sleep_for(milliseconds(2));
    stop = true;
    for (auto &t : threads) t.join();
    EXPECT_EQ(taken.load(), kPosts);
    EXPECT_EQ(count_of(h), 0);
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

TEST(SemPosix, ValueTryPendAndReset) {
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create_2(&h, 3), KAVRO_OK);
    EXPECT_EQ(type_of(h), -1);
    run_steps(h, {{'P', 0, KAVRO_OK, 2},  // the timeout does not apply to this kind
                  {'t', 0, KAVRO_OK, 1}, {'t', 0, KAVRO_OK, 0}, {'t', 0, KAVRO_E_AGAIN, 0},
                  {'r', 4, KAVRO_OK, 4}, {'r', -1, KAVRO_OK, 0}});
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

TEST(SemSysV, PrivateSetCountsResetsAndDeletesSystemWide) {
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 0, 0, 1), KAVRO_OK);
    EXPECT_EQ(type_of(h), 1);
    const int id = static_cast<kavro::sem::SysVSemaphore *>(h)->semId;
    run_steps(h, {{'p', 0, KAVRO_OK, 1}, {'r', 3, KAVRO_OK, 3}, {'P', 0, KAVRO_OK, 2}});
    CaptureStderr();
    EXPECT_EQ(SEM_TryPend(h), KAVRO_E_FAIL);
    EXPECT_EQ(GetCapturedStderr(), "KAVRO: Function IPC_SEM_TryPend is not supported .... \n");
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
    EXPECT_EQ(semctl(id, 0, GETVAL), -1);  // gone from the system
    UniqueKey k(1);
    EXPECT_EQ(SEM_Create(nullptr, 1, k.key, 0), KAVRO_E_INVALIDARG);
    EXPECT_LT(semget(static_cast<key_t>(k.key), 1, 0), 0);  // no set was made
}

// The opener waits until the creator has operated on the set, keeps its
// value, and its pend blocks until the creator posts.
TEST(SemSysV, KeyedSetIsSharedBetweenProcesses) {
    UniqueKey k(2);
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 1, k.key, 0), KAVRO_OK);
    Child child([&](int fd) {
        const auto t0 = Clock::now();
        SEM_HANDLE mine = nullptr;
        int32_t c = -1;
        if (SEM_Create(&mine, 7, k.key, 0) != KAVRO_OK || Clock::now() - t0 < milliseconds(250)) return 1;
        if (SEM_GetCount(mine, &c) != KAVRO_OK || c != 0) return 2;
        Child::say(fd);
        if (SEM_Pend(mine, KAVRO_WAIT_FOREVER) != KAVRO_OK) return 3;
        Child::say(fd);
        return 0;
    });
    std::this_thread::sleep_for(milliseconds(400));
    ASSERT_EQ(SEM_Pend(h, KAVRO_WAIT_FOREVER), KAVRO_OK);
    ASSERT_TRUE(child.said(15000));
    EXPECT_FALSE(child.said(300));  // blocked
    EXPECT_EQ(SEM_Post(h), KAVRO_OK);
    EXPECT_TRUE(child.said(10000));
    EXPECT_EQ(child.exit_code(), 0);
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

// A signal does not end a pend; removing the set does, with a failure.
TEST(SemSysV, PendSurvivesSignalsAndFailsOnRemovedSet) {
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 0, 0, 1), KAVRO_OK);
    Child child([&](int fd) {
        struct sigaction sa {};
        sa.sa_handler = [](int) {};
        sigaction(SIGUSR1, &sa, nullptr);  // no SA_RESTART: semop sees EINTR
        Child::say(fd);
        return SEM_Pend(h, KAVRO_WAIT_FOREVER) == KAVRO_E_FAIL ? 0 : 1;
    });
    ASSERT_TRUE(child.said(10000));
    for (int i = 0; i < 5; ++i, std::this_thread::sleep_for(milliseconds(40))) kill(child.pid, SIGUSR1);
    EXPECT_EQ(waitpid(child.pid, nullptr, WNOHANG), 0);  // still pending
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
    EXPECT_EQ(child.exit_code(), 0);
}

// A post the kernel refuses (the set is gone) still returns 0 and says nothing.
TEST(SemSysV, RefusedPostIsSilent) {
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 0, 0, 1), KAVRO_OK);
    semctl(static_cast<kavro::sem::SysVSemaphore *>(h)->semId, 0, IPC_RMID);
    CaptureStderr();
    EXPECT_EQ(SEM_Post(h), KAVRO_OK);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(SEM_Delete(h), KAVRO_OK);
}

}  // namespace
