// Threads: creation refusals, scheduling seen from inside the thread,
// argument passing, suspended start, self-release and join.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"
#include "thread.hpp"

namespace {

using kavro::detail::mem_counters;
using kavro::detail::thread_live_count;

using kavro::test::Done;

// What a thread saw of itself.
struct Seen {
    Done done;
    int policy = -1;
    int prio = -1;
    ThreadObj *self = nullptr;
    void *ctx = nullptr;
    int nwords = -1;
    uint32_t words[8] = {};
    ThreadObj *child = nullptr;
    Done release;  // for threads that wait before ending
};

void look(Seen *s) {
    sched_param sp{};
    sched_getparam(0, &sp);
    s->policy = sched_getscheduler(0);
    s->prio = sp.sched_priority;
    THREAD_Self(&s->self);
}

void context_fn(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    look(s);
    s->ctx = ctx;
    s->done.post();
}

THREAD_UserFn as_user(void (*fn)()) { return reinterpret_cast<THREAD_UserFn>(fn); }

Seen *g_seen = nullptr;
void words0() {
    g_seen->nwords = 0;
    g_seen->done.post();
}
void words3(uint32_t a, uint32_t b, uint32_t c) {
    const uint32_t w[] = {a, b, c};
    std::memcpy(g_seen->words, w, sizeof w);
    g_seen->nwords = 3;
    g_seen->done.post();
}
void words8(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f, uint32_t g, uint32_t h) {
    const uint32_t w[] = {a, b, c, d, e, f, g, h};
    std::memcpy(g_seen->words, w, sizeof w);
    g_seen->nwords = 8;
    g_seen->done.post();
}

class Threads : public testing::Test {
protected:
    void SetUp() override { THREAD_Init(); }
    void TearDown() override { THREAD_Exit(); }
};

TEST_F(Threads, RefusalsLogOneLineAndAllocateNothing) {
    const int lots[4] = {1, 2, 3, 4};
    struct Case {
        ThreadAttr attr;
        bool withHandle, withFn;
        const void *ctx;
        KAVRO_STATUS status;
        const char *line;
    } cases[] = {
        {{28, 1, 0, 0, -1, nullptr}, true, true, nullptr, 0x80070057u, "Error, invalid attribute length\n"},
        {{24, 16, 0, 0, -1, nullptr}, true, true, nullptr, 0x80070057u,
         "Error, invalid priority = 16, min = 0, max = 15\n"},
        {{20, 16, 0, 0, -1, nullptr}, true, true, nullptr, 0x80070057u,
         "Error, invalid priority = 16, min = 0, max = 15\n"},
        {{24, 1, 0, 0, 9, nullptr}, true, true, lots, 0x80070057u,
         "Error, invalid num of args = 9, useContext = -1, max = 8\n"},
        {{24, 1, 0, 0, -2, nullptr}, true, true, nullptr, 0x80070057u,
         "Error, invalid num of args = -2, useContext = -1, max = 8\n"},
        {{24, 1, 0, 0, -1, nullptr}, false, true, nullptr, 0x80004003u,
         "Error, pointer is NULL, phThreadObj = 0x0, fnUser = 0x"},
        {{24, 1, 0, 0, -1, nullptr}, true, false, nullptr, 0x80004003u, ", fnUser = 0x0\n"},
        {{24, 1, 0, 0, 3, nullptr}, true, true, nullptr, 0x80004003u, "Error, argument array is NULL, numArgs = 3\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        const uint32_t allocs = memalloccalls, made = threadalloccalls;
        ThreadObj *h = reinterpret_cast<ThreadObj *>(&h);
        testing::internal::CaptureStderr();
        EXPECT_EQ(THREAD_Create(c.withHandle ? &h : nullptr, c.withFn ? context_fn : nullptr,
                                const_cast<void *>(c.ctx), &c.attr),
                  c.status);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err.rfind("KAVRO:THREAD_Create: ", 0), 0u) << err;
        EXPECT_NE(err.find(c.line), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
        if (c.withHandle) {
            EXPECT_EQ(h, nullptr);
        }
        EXPECT_EQ(memalloccalls, allocs);
        EXPECT_EQ(threadalloccalls, made);
    }
}

TEST_F(Threads, DefaultAttributesHandContextOnAtFifo1AndPrintStartLine) {
    KAVRO_REQUIRE_RT();
    Seen seen;
    ThreadObj *h = nullptr;
    const uint32_t made = threadalloccalls;
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, nullptr), 0u);
    ASSERT_TRUE(seen.done.wait());
    EXPECT_EQ(THREAD_Join(h), 0u);
    std::fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(threadalloccalls, made + 1);
    EXPECT_EQ(seen.ctx, &seen);
    EXPECT_EQ(seen.self, h);
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.prio, 1);
    EXPECT_EQ(out, "KAVRO:helperEntry: started Thread pid=" + std::to_string(getpid()) + " tname= tpriority=1\n");
}

TEST_F(Threads, ArgumentWordsArePassedExactly) {
    KAVRO_REQUIRE_RT();
    const uint32_t values[8] = {7, 8, 9, 10, 0xFFFFFFFFu, 0x80000000u, 13, 14};
    struct {
        int32_t n;
        void (*fn)();
    } shapes[] = {{0, words0},
                  {3, reinterpret_cast<void (*)()>(words3)},
                  {8, reinterpret_cast<void (*)()>(words8)}};
    for (const auto &s : shapes) {
        Seen seen;
        g_seen = &seen;
        ThreadAttr attr = {24, 2, 0, 0, s.n, "words"};
        ThreadObj *h = nullptr;
        ASSERT_EQ(THREAD_Create(&h, as_user(s.fn), const_cast<uint32_t *>(values), &attr), 0u);
        ASSERT_TRUE(seen.done.wait());
        THREAD_Join(h);
        EXPECT_EQ(seen.nwords, s.n);
        for (int i = 0; i < s.n; ++i) EXPECT_EQ(seen.words[i], values[i]) << "word " << i;
    }
}

TEST_F(Threads, SuspendedStartWaitsForSetPriority) {
    KAVRO_REQUIRE_RT();
    // Short form: bit 0 of word 2 asks for a suspended start, other bits do not.
    Seen running, seen, late;
    ThreadAttr notSuspended = {20, 2, 2, 0, -1, nullptr}, suspended = {20, 2, 3, 0, -1, nullptr};
    ThreadObj *h = nullptr, *hLate = nullptr;
    ASSERT_EQ(THREAD_Create(&h, context_fn, &running, &notSuspended), 0u);
    ASSERT_TRUE(running.done.wait());
    THREAD_Join(h);

    ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, &suspended), 0u);
    ASSERT_EQ(THREAD_Create(&hLate, context_fn, &late, &suspended), 0u);
    EXPECT_FALSE(seen.done.wait(200));
    char name[THREAD_GETNAME_SIZE];
    ASSERT_EQ(THREAD_GetName(h, name), 0u);
    EXPECT_STREQ(name, "unknown");
    uint32_t old = 0;
    ASSERT_EQ(THREAD_SetPriority(h, 4, &old), 0u);
    EXPECT_EQ(old, 2u);
    ASSERT_TRUE(seen.done.wait());
    THREAD_Join(h);
    EXPECT_EQ(seen.policy, SCHED_FIFO);
    EXPECT_EQ(seen.prio, 4);

    // Released with a priority above 15: reported once, and it runs.
    testing::internal::CaptureStderr();
    THREAD_SetPriority(hLate, 16, nullptr);
    ASSERT_TRUE(late.done.wait());
    THREAD_Join(hLate);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KAVRO:helperEntry: ERROR - started Thread pid=" +
                                                          std::to_string(getpid()) + " tname=unknown BAD PRIORITY=16\n");
    EXPECT_EQ(late.prio, 16);
}

// Made at priority 7; makes a priority-0 thread and reports what it saw.
void inheriting_creator(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    ThreadAttr inherit = {24, 0, 0, 0, -1, nullptr};
    if (THREAD_Create(&s->child, context_fn, ctx, &inherit) != 0) s->done.post();
}

TEST_F(Threads, PolicyFollowsTimeSliceAndPriorityZeroInherits) {
    KAVRO_REQUIRE_RT();
    Seen fromFifo7;
    ThreadAttr seven = {24, 7, 0, 0, -1, nullptr};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(&h, inheriting_creator, &fromFifo7, &seven), 0u);
    ASSERT_TRUE(fromFifo7.done.wait());
    THREAD_Join(h);
    THREAD_Join(fromFifo7.child);
    EXPECT_EQ(fromFifo7.policy, SCHED_FIFO);
    EXPECT_EQ(fromFifo7.prio, 7);

    THREAD_KernelTimeSlice(1);
    Seen rr;
    ThreadAttr three = {24, 3, 0, 0, -1, nullptr};
    EXPECT_EQ(THREAD_Create(&h, context_fn, &rr, &three), 0u);
    THREAD_KernelTimeSlice(0);
    ASSERT_TRUE(rr.done.wait());
    THREAD_Join(h);
    EXPECT_EQ(rr.policy, SCHED_RR);
    EXPECT_EQ(rr.prio, 3);

    // From the time-sharing test thread, priority 0 stays time-sharing.
    Seen plain;
    ThreadAttr zero = {24, 0, 0, 0, -1, nullptr};
    ASSERT_EQ(THREAD_Create(&h, context_fn, &plain, &zero), 0u);
    ASSERT_TRUE(plain.done.wait());
    THREAD_Join(h);
    EXPECT_EQ(plain.policy, SCHED_OTHER);
    EXPECT_EQ(plain.prio, 0);
}

void ends_itself(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    THREAD_Self(&s->self);
    s->nwords = static_cast<int>(THREAD_Join(s->self));  // itself: must not wait
    s->done.post();
    s->release.wait();
    THREAD_End();
    s->nwords = -100;  // never reached
}

TEST_F(Threads, RecordIsReleasedAtTheEndAndJoinNeverWaitsForAGoneThread) {
    // Threads of earlier tests may still be on their way out.
    for (int i = 0; i < 1000 && thread_live_count() != 0; ++i) usleep(10000);
    const uint32_t live = thread_live_count();
    const auto freed = mem_counters().memgenfreecalls;
    Seen seen;
    ThreadAttr inherit = {24, 0, 0, 0, -1, "ender"};
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(&h, ends_itself, &seen, &inherit), 0u);
    ASSERT_TRUE(seen.done.wait());
    EXPECT_EQ(seen.self, h);
    EXPECT_EQ(seen.nwords, 0);
    EXPECT_EQ(thread_live_count(), live + 1);
    // A forked child does not have the thread: its join returns at once.
    EXPECT_EQ(kavro::test::run_in_child([h] { return THREAD_Join(h) == 0 && thread_live_count() == 0 ? 0 : 1; }, 30),
              0);
    seen.release.post();
    EXPECT_EQ(THREAD_Join(h), 0u);  // waits for the release
    EXPECT_EQ(thread_live_count(), live);
    EXPECT_EQ(mem_counters().memgenfreecalls, freed + 1);
    EXPECT_EQ(seen.nwords, 0);
    EXPECT_EQ(THREAD_Join(h), 0u);  // gone: at once, without reading it
}

TEST_F(Threads, NameIsCutAt255AndReadAsAFixed80ByteField) {
    const std::string longName(300, 'n');
    std::string hundred(100, 'a');
    for (int i = 0; i < 100; ++i) hundred[i] = static_cast<char>('A' + i % 26);
    for (const std::string &name : {longName, hundred, std::string("short")}) {
        Seen seen;
        ThreadAttr attr = {24, 0, 1, 0, -1, name.c_str()};
        ThreadObj *h = nullptr;
        ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, &attr), 0u);
        EXPECT_EQ(std::strlen(h->name), std::min<size_t>(name.size(), 255));
        char field[THREAD_GETNAME_SIZE + 4];
        std::memset(field, '#', sizeof field);
        EXPECT_EQ(THREAD_GetName(h, field), 0u);
        const size_t n = std::min<size_t>(name.size(), THREAD_GETNAME_SIZE);
        EXPECT_EQ(std::string(field, n), name.substr(0, n));
        for (size_t i = n; i < THREAD_GETNAME_SIZE; ++i) EXPECT_EQ(field[i], '\0');
        EXPECT_EQ(field[THREAD_GETNAME_SIZE], '#');
        THREAD_SetPriority(h, 0, nullptr);
        ASSERT_TRUE(seen.done.wait());
        THREAD_Join(h);
    }
}

TEST_F(Threads, ForeignThreadAndNullArgumentsAnswerWithStatus) {
    ThreadObj *obj = reinterpret_cast<ThreadObj *>(&obj);
    EXPECT_EQ(THREAD_Self(&obj), 0u);  // not made here: no record
    EXPECT_EQ(obj, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(THREAD_End(), 0x80070057u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KAVRO:THREAD_End: Error, ppThreadObj pointer is NULL\n");

    // The statuses of null handles are the robustness table's; these are the outputs.
    uint32_t u = 7;
    int32_t i = 0;
    char name[THREAD_GETNAME_SIZE] = "x";
    EXPECT_EQ(THREAD_GetName(nullptr, name), 0u);
    EXPECT_STREQ(name, "x");
    THREAD_LockStatus(nullptr, &u);
    EXPECT_EQ(u, 0u);
    EXPECT_EQ(THREAD_TranslatePriority(98, &i), 0x80070057u);
    EXPECT_EQ(i, 98);
    EXPECT_EQ(THREAD_TranslatePriority(15, &i), 0u);
    EXPECT_EQ(i, 15);
    testing::internal::CaptureStderr();
    EXPECT_EQ(THREAD_Delete(nullptr), 0x80004005u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KAVRO:THREAD_Delete: This function is now obsoleted...  \n");
}

TEST_F(Threads, SleepLastsAtLeastItsTime) {
    timespec a{}, b{};
    clock_gettime(CLOCK_MONOTONIC, &a);
    EXPECT_EQ(THREAD_Sleep(50), 0u);
    clock_gettime(CLOCK_MONOTONIC, &b);
    EXPECT_GE(kavro::detail::to_ns(b) - kavro::detail::to_ns(a), 50 * 1000000LL);
    EXPECT_EQ(THREAD_Sleep(0), 0u);
}

void stack_size(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    pthread_attr_t a;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &a) == 0) {
        pthread_attr_getstacksize(&a, &size);
        pthread_attr_destroy(&a);
    }
    s->nwords = static_cast<int>(size);
    s->done.post();
}

TEST(ThreadFamily, CountedLifeCycleKeyAndStackSize) {
    int rc = kavro::test::run_in_child([] {
        setenv("PELOSSTACKSIZE", "4194304", 1);  // above the default, so no cached stack fits
        ThreadAttr inherit = {24, 0, 0, 0, -1, nullptr};
        ThreadObj *h = nullptr;
        Seen seen;
        if (THREAD_Create(&h, context_fn, &seen, &inherit) != 0x80004005u) return 1;  // family down
        if (THREAD_Init() != 0 || PelStackSize != 4194304 || THREAD_Init() != 1) return 2;
        THREAD_Exit();
        if (THREAD_Create(&h, stack_size, &seen, &inherit) != 0 || !seen.done.wait()) return 3;
        if (seen.nwords < 4194304) {
            std::fprintf(stderr, "stack size %d\n", seen.nwords);
            return 4;
        }
        THREAD_Join(h);
        THREAD_Exit();  // down: the key is gone
        if (THREAD_Self(&h) != 0 || h != nullptr) return 5;
        if (THREAD_Create(&h, context_fn, &seen, &inherit) != 0x80004005u) return 6;
        return THREAD_Init() == 0 ? 0 : 7;
    });
    EXPECT_EQ(rc, 0);
}

}  // namespace
