// Semaphores: each kind's counting, the local kinds under threads (System V sets between processes: ipc_msgq_test).

#include <sys/sem.h>

#include <chrono>
#include <thread>
#include <tuple>

#include "sync/sem.hpp"
#include "test_support.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

int32_t count_of(SEM_HANDLE h) {  // waiters show as a negative count
    int32_t c = 12345;
    return SEM_GetCount(h, &c) == KAVRO_OK ? c : 12345;
}

// Steps: 'p' post, 'P' pend(arg ms), 't' trypend, 'r' reset(arg); each with its status and the count after.
using Step = std::tuple<char, int32_t, KAVRO_STATUS, int32_t>;
void run_steps(SEM_HANDLE h, std::initializer_list<Step> steps) {
    for (const auto &[op, arg, want, count] : steps) {
        const KAVRO_STATUS st = op == 'p'   ? SEM_Post(h)
                                : op == 'P' ? SEM_Pend(h, uint32_t(arg))
                                : op == 't' ? SEM_TryPend(h)
                                            : SEM_Reset(h, arg);
        EXPECT_TRUE(st == want && count_of(h) == count) << op << arg << " gave " << std::hex << st;
    }
}

TEST(Semaphores, CountingOfEachKindWakeOneWakeAllNoUnitLost) {
    SEM_HANDLE c = nullptr, p = nullptr, v = nullptr;
    ASSERT_EQ(SEM_Create(&c, 1, 0, 0) | SEM_Create_2(&p, 3) | SEM_Create(&v, 0, 0, 1), KAVRO_OK);
    // clang-format off
    run_steps(c, {{'P', -1, KAVRO_OK, 0}, {'P', 0, KAVRO_E_TIMEOUT, 0}, {'t', 0, KAVRO_E_AGAIN, 0},
                  {'P', 60, KAVRO_E_TIMEOUT, 0}, {'p', 0, KAVRO_OK, 1}, {'t', 0, KAVRO_OK, 0}});  // claims given back
    run_steps(p, {{'P', 0, KAVRO_OK, 2}, {'t', 0, KAVRO_OK, 1}, {'t', 0, KAVRO_OK, 0}, {'t', 0, KAVRO_E_AGAIN, 0},
                  {'r', 4, KAVRO_OK, 4}, {'r', -1, KAVRO_OK, 0}});  // the timeout does not apply to this kind
    run_steps(v, {{'p', 0, KAVRO_OK, 1}, {'r', 3, KAVRO_OK, 3}, {'P', 0, KAVRO_OK, 2}});
    // clang-format on
    testing::internal::CaptureStderr();  // refused with a line naming it
    EXPECT_TRUE(SEM_TryPend(v) == KAVRO_E_FAIL &&
                testing::internal::GetCapturedStderr().find("IPC_SEM_TryPend") != std::string::npos);
    const int id = static_cast<kavro::sem::SysVSemaphore *>(v)->semId;
    EXPECT_TRUE((SEM_Delete(c) | SEM_Delete(p) | SEM_Delete(v)) == KAVRO_OK && semctl(id, 0, GETVAL) == -1);
    // A post wakes one waiter, a reset all; under pends that time out, each post is taken exactly once.
    SEM_HANDLE h = nullptr;
    ASSERT_EQ(SEM_Create(&h, 0, 0, 0), KAVRO_OK);
    std::atomic<int> done{0}, taken{0};
    std::vector<std::thread> waiters, threads;
    for (uint32_t t : {KAVRO_WAIT_FOREVER, KAVRO_WAIT_FOREVER, 60000u})
        waiters.emplace_back([&, t] { done += SEM_Pend(h, t) == KAVRO_OK; });
    for (auto end = Clock::now() + std::chrono::seconds(10); count_of(h) != -3 && Clock::now() < end;)
        std::this_thread::sleep_for(milliseconds(1));
    ASSERT_EQ(count_of(h), -3);
    EXPECT_EQ(SEM_Post(h), KAVRO_OK);
    for (int i = 0; i < 5000 && done < 1; ++i) std::this_thread::sleep_for(milliseconds(2));
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_TRUE(done == 1 && count_of(h) == -2 && SEM_Reset(h, 5) == KAVRO_OK);
    for (auto &t : waiters) t.join();
    EXPECT_TRUE(done == 3 && count_of(h) == 5 && SEM_Reset(h, 0) == KAVRO_OK);
    constexpr int kPosts = 9000;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&, i] {
            for (int n = 0; i >= 3 && n < kPosts / 3; ++n)  // pauses let pends time out in between
                if (SEM_Post(h) != KAVRO_OK || n % 64 == 0) std::this_thread::sleep_for(milliseconds(1));
            for (auto end = Clock::now() + std::chrono::seconds(20); i < 3 && taken < kPosts && Clock::now() < end;)
                taken += (i == 0 ? SEM_TryPend(h) : SEM_Pend(h, i)) == KAVRO_OK;
        });
    for (auto &t : threads) t.join();
    EXPECT_TRUE(taken == kPosts && count_of(h) == 0 && SEM_Delete(h) == KAVRO_OK) << taken;
}

}  // namespace
