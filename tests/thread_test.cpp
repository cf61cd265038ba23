// Threads: creation refusals, what a thread sees of itself (scheduling,
// arguments, name, stack, detachment), suspended start, release and join.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "sync/thread.hpp"
#include "test_support.hpp"

namespace {

using kavro::detail::thread_live_count;
using kavro::test::Done;
using Sched = std::pair<int, int>;  // policy, priority

// What a thread saw of itself.
struct Seen {
    Done done, release;
    Sched sched{-1, -1};
    ThreadObj *self = nullptr, *child = nullptr;
    void *ctx = nullptr;
    int nwords = -1, detach = -1;
    size_t stack = 0;
    uint32_t words[8] = {}, priority = 99;
};

void context_fn(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    sched_param sp{};
    sched_getparam(0, &sp);
    s->sched = {sched_getscheduler(0), sp.sched_priority};
    pthread_attr_t a;
    if (pthread_getattr_np(pthread_self(), &a) == 0)
        pthread_attr_getdetachstate(&a, &s->detach), pthread_attr_getstacksize(&a, &s->stack), pthread_attr_destroy(&a);
    THREAD_Self(&s->self);
    THREAD_GetPriority(s->self, &s->priority);  // the record is freed once the thread ends
    s->ctx = ctx;
    s->done.post();
}

// Runs a context_fn thread made with attr to its end; what it saw.
Seen *seen_with(ThreadAttr attr, Seen *seen) {
    ThreadObj *h = nullptr;
    if (THREAD_Create(&h, context_fn, seen, &attr) != KAVRO_OK || !seen->done.wait()) return seen;
    THREAD_Join(h);
    return seen;
}
Sched sched_seen(ThreadAttr attr) {
    Seen seen;
    return seen_with(attr, &seen)->sched;
}

Seen *g_seen = nullptr;
void got(int n, const uint32_t *w) {
    if (n > 0) std::memcpy(g_seen->words, w, n * sizeof *w);
    g_seen->nwords = n;
    g_seen->done.post();
}
void words0() { got(0, nullptr); }
void words3(uint32_t a, uint32_t b, uint32_t c) { got(3, std::array<uint32_t, 3>{a, b, c}.data()); }
void words8(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f, uint32_t g, uint32_t h) {
    got(8, std::array<uint32_t, 8>{a, b, c, d, e, f, g, h}.data());
}

class Threads : public testing::Test {
protected:
    void SetUp() override { THREAD_Init(); }
    void TearDown() override { THREAD_Exit(); }
};

TEST_F(Threads, RefusalsLogOneLineAndAllocateNothing) {
    const int lots[4] = {1, 2, 3, 4};
    struct {
        ThreadAttr attr;
        bool withHandle, withFn;
        const void *ctx;
        KAVRO_STATUS status;
        const char *line;
    } cases[] = {
        {{28, 1, 0, 0, -1, nullptr}, true, true, nullptr, KAVRO_E_INVALIDARG, "Error, invalid attribute length\n"},
        {{24, 16, 0, 0, -1, nullptr}, true, true, nullptr, KAVRO_E_INVALIDARG, "priority = 16, min = 0, max = 15"},
        {{20, 16, 0, 0, -1, nullptr}, true, true, nullptr, KAVRO_E_INVALIDARG, "invalid priority = 16"},
        {{24, 1, 0, 0, 9, nullptr}, true, true, lots, KAVRO_E_INVALIDARG, "invalid num of args = 9"},
        {{24, 1, 0, 0, -2, nullptr}, true, true, nullptr, KAVRO_E_INVALIDARG, "invalid num of args = -2"},
        {{24, 1, 0, 0, -1, nullptr}, false, true, nullptr, KAVRO_E_POINTER, "pointer is NULL, phThreadObj = 0x0"},
        {{24, 1, 0, 0, -1, nullptr}, true, false, nullptr, KAVRO_E_POINTER, ", fnUser = 0x0\n"},
        {{24, 1, 0, 0, 3, nullptr}, true, true, nullptr, KAVRO_E_POINTER, "argument array is NULL, numArgs = 3"},
    };
    for (const auto &c : cases) {
        const uint32_t allocs = memalloccalls, made = threadalloccalls;
        ThreadObj *h = reinterpret_cast<ThreadObj *>(&h);
        testing::internal::CaptureStderr();
        EXPECT_EQ(THREAD_Create(c.withHandle ? &h : nullptr, c.withFn ? context_fn : nullptr,
                                const_cast<void *>(c.ctx), &c.attr), c.status) << c.line;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(err.rfind("KAVRO:THREAD_Create: ", 0) == 0 && err.find(c.line) != std::string::npos &&
                    std::count(err.begin(), err.end(), '\n') == 1) << err;
        EXPECT_TRUE((!c.withHandle || h == nullptr) && memalloccalls == allocs && threadalloccalls == made);
    }
}

// Default attributes: FIFO 1, the context handed on, a start line, detached.
TEST_F(Threads, DefaultsContextStartLineAndPriority) {
    KAVRO_REQUIRE_RT();
    Seen seen;
    ThreadObj *h = nullptr;
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, nullptr), KAVRO_OK);
    ASSERT_TRUE(seen.done.wait());
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "KAVRO:helperEntry: started Thread pid=" + std::to_string(getpid()) + " tname= tpriority=1\n");
    EXPECT_TRUE(seen.ctx == &seen && seen.self == h && seen.priority == 1 && seen.detach == PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(seen.sched, Sched(SCHED_FIFO, 1));
}

TEST_F(Threads, ArgumentWordsArePassedExactly) {
    KAVRO_REQUIRE_RT();
    const uint32_t values[8] = {7, 8, 9, 10, 0xFFFFFFFFu, 0x80000000u, 13, 14};
    const std::pair<int32_t, void (*)()> shapes[] = {
        {0, words0}, {3, reinterpret_cast<void (*)()>(words3)}, {8, reinterpret_cast<void (*)()>(words8)}};
    for (const auto &[n, fn] : shapes) {
        Seen seen;
        g_seen = &seen;
        ThreadAttr attr = {24, 2, 0, 0, n, "words"};
        ThreadObj *h = nullptr;
        void *words = n == 0 ? nullptr : const_cast<uint32_t *>(values);  // no words: no array needed
        ASSERT_EQ(THREAD_Create(&h, reinterpret_cast<THREAD_UserFn>(fn), words, &attr), KAVRO_OK);
        ASSERT_TRUE(seen.done.wait());
        THREAD_Join(h);
        EXPECT_TRUE(seen.nwords == n && std::equal(values, values + n, seen.words)) << n;
    }
}

// A suspended thread waits, through signals, until SetPriority releases it.
TEST_F(Threads, SuspendedStartWaitsForSetPriority) {
    KAVRO_REQUIRE_RT();
    EXPECT_EQ(sched_seen({20, 2, 2, 0, -1, nullptr}), Sched(SCHED_FIFO, 2));  // only bit 0 suspends
    Seen seen, late;
    ThreadAttr suspended = {20, 2, 3, 0, -1, nullptr};
    ThreadObj *h = nullptr, *hLate = nullptr;
    ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, &suspended), KAVRO_OK);
    ASSERT_EQ(THREAD_Create(&hLate, context_fn, &late, &suspended), KAVRO_OK);
    struct sigaction sa{};
    sa.sa_handler = [](int) {};
    sigaction(SIGUSR2, &sa, nullptr);
    for (int i = 0; i < 10; ++i) pthread_kill(h->systemHandle, SIGUSR2), usleep(20000);
    ASSERT_FALSE(seen.done.wait(50)) << "started before its release";
    char name[THREAD_GETNAME_SIZE];
    EXPECT_TRUE(THREAD_GetName(h, name) == KAVRO_OK && std::strcmp(name, "unknown") == 0) << name;
    uint32_t prev = 0;
    EXPECT_TRUE(THREAD_SetPriority(h, 4, &prev) == KAVRO_OK && prev == 2);
    ASSERT_TRUE(seen.done.wait());
    THREAD_Join(h);
    EXPECT_EQ(seen.sched, Sched(SCHED_FIFO, 4));

    // Released with a priority above 15: reported once, and it runs.
    testing::internal::CaptureStderr();
    THREAD_SetPriority(hLate, 16, nullptr);
    ASSERT_TRUE(late.done.wait());
    THREAD_Join(hLate);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:helperEntry: ERROR - started Thread pid=" + pid + " tname=unknown BAD PRIORITY=16\n");
    EXPECT_EQ(late.sched.second, 16);
}

TEST_F(Threads, PolicyFollowsTimeSliceAndPriorityZeroInherits) {
    KAVRO_REQUIRE_RT();
    Seen fromFifo7;  // a priority-7 thread makes a priority-0 one
    ThreadAttr seven = {24, 7, 0, 0, -1, nullptr};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(&h, [](void *ctx) {
        ThreadAttr inherit = {24, 0, 0, 0, -1, nullptr};
        auto *s = static_cast<Seen *>(ctx);
        if (THREAD_Create(&s->child, context_fn, ctx, &inherit) != KAVRO_OK) s->done.post();
    }, &fromFifo7, &seven), KAVRO_OK);
    ASSERT_TRUE(fromFifo7.done.wait());
    THREAD_Join(h);
    THREAD_Join(fromFifo7.child);
    EXPECT_EQ(fromFifo7.sched, Sched(SCHED_FIFO, 7));
    THREAD_KernelTimeSlice(1);
    const Sched rr = sched_seen({24, 3, 0, 0, -1, nullptr});
    THREAD_KernelTimeSlice(0);
    EXPECT_EQ(rr, Sched(SCHED_RR, 3));
    EXPECT_EQ(sched_seen({24, 0, 0, 0, -1, nullptr}), Sched(SCHED_OTHER, 0));  // from a time-sharing thread
}

void ends_itself(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    THREAD_Self(&s->self);
    s->nwords = int(THREAD_Join(s->self));  // itself: must not wait
    s->done.post();
    s->release.wait();
    THREAD_End();
    s->nwords = -100;  // never reached
}

TEST_F(Threads, RecordIsReleasedAtTheEndAndJoinNeverWaitsForAGoneThread) {
    for (int i = 0; i < 1000 && thread_live_count() != 0; ++i) usleep(10000);  // earlier tests' threads
    const uint32_t live = thread_live_count();
    const auto freed = kavro::detail::mem_counters().memgenfreecalls;
    Seen seen;
    ThreadAttr inherit = {24, 0, 0, 0, -1, "ender"};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(&h, ends_itself, &seen, &inherit), KAVRO_OK);
    ASSERT_TRUE(seen.done.wait());
    EXPECT_TRUE(seen.self == h && seen.nwords == 0 && thread_live_count() == live + 1);
    // A forked child does not have the thread: its join returns at once.
    EXPECT_EQ(kavro::test::run_in_child([h] { return THREAD_Join(h) == KAVRO_OK && thread_live_count() == 0 ? 0 : 1; },
                                        30), 0);
    seen.release.post();
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);  // waits for the release
    EXPECT_TRUE(thread_live_count() == live && kavro::detail::mem_counters().memgenfreecalls == freed + 1);
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);  // gone: at once, without reading it
    EXPECT_EQ(seen.nwords, 0);
}

TEST_F(Threads, NameIsCutAt255AndReadAsAFixed80ByteField) {
    std::string abc(100, 'a');
    for (int i = 0; i < 100; ++i) abc[i] = char('A' + i % 26);
    for (const std::string &name : {std::string(300, 'n'), abc, std::string("short")}) {
        Seen seen;
        ThreadAttr attr = {24, 0, 1, 0, -1, name.c_str()};
        ThreadObj *h = nullptr;
        ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, &attr), KAVRO_OK);
        EXPECT_EQ(std::strlen(h->name), std::min<size_t>(name.size(), 255));
        char field[THREAD_GETNAME_SIZE + 4];
        std::memset(field, '#', sizeof field);
        EXPECT_EQ(THREAD_GetName(h, field), KAVRO_OK);
        const size_t n = std::min<size_t>(name.size(), THREAD_GETNAME_SIZE);
        EXPECT_EQ(std::string(field, THREAD_GETNAME_SIZE + 1),  // zero-filled, nothing written past the field
                  name.substr(0, n) + std::string(THREAD_GETNAME_SIZE - n, '\0') + "#");
        THREAD_SetPriority(h, 0, nullptr);
        ASSERT_TRUE(seen.done.wait());
        THREAD_Join(h);
    }
}

TEST_F(Threads, ForeignThreadOutputsAndObsoleteCalls) {
    ThreadObj *obj = reinterpret_cast<ThreadObj *>(&obj);
    EXPECT_TRUE(THREAD_Self(&obj) == KAVRO_OK && obj == nullptr);  // not made here: no record
    int32_t i = 0;
    EXPECT_TRUE(THREAD_TranslatePriority(98, &i) == KAVRO_E_INVALIDARG && i == 98);
    EXPECT_TRUE(THREAD_TranslatePriority(15, &i) == KAVRO_OK && i == 15);
    testing::internal::CaptureStderr();
    EXPECT_EQ(THREAD_End(), KAVRO_E_INVALIDARG);
    EXPECT_EQ(THREAD_Delete(nullptr), KAVRO_E_FAIL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KAVRO:THREAD_End: Error, ppThreadObj pointer is NULL\n"
                                                      "KAVRO:THREAD_Delete: This function is now obsoleted...  \n");
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(THREAD_Sleep(50) == KAVRO_OK && THREAD_Sleep(0) == KAVRO_OK && THREAD_Yield() == KAVRO_OK);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(50));
}

// Counted life cycle; the stack size from the environment is used.
TEST(ThreadFamily, CountedLifeCycleAndStackSize) {
    EXPECT_EQ(kavro::test::run_in_child([] {
        setenv("PELOSSTACKSIZE", "3211264", 1);  // 3 MiB + 64 KiB: no default size, no cached stack
        ThreadAttr inherit = {24, 0, 0, 0, -1, nullptr};
        ThreadObj *h = nullptr;
        Seen seen, again;
        CHILD_CHECK(THREAD_Create(&h, context_fn, &seen, &inherit) == KAVRO_E_FAIL);  // family down
        CHILD_CHECK(THREAD_Init() == 0 && PelStackSize == 3211264 && THREAD_Init() == 1);
        THREAD_Exit();
        const size_t stack = seen_with(inherit, &seen)->stack;
        CHILD_CHECK(stack >= 3211264 && stack < 3211264 + 512 * 1024);
        THREAD_Exit();  // down: the key is gone
        CHILD_CHECK(THREAD_Self(&h) == KAVRO_OK && h == nullptr);
        CHILD_CHECK(THREAD_Create(&h, context_fn, &again, &inherit) == KAVRO_E_FAIL);
        return THREAD_Init() == 0 ? 0 : 7;
    }), 0);
}

}  // namespace
