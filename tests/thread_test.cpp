// Threads: creation refusals, scheduling seen from inside, arguments, suspended start, release and join.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"
#include "sync/thread.hpp"

namespace {

using kavro::detail::mem_counters;
using kavro::detail::thread_live_count;
using kavro::test::Done;
using Sched = std::pair<int, int>;  // policy, priority

// What a thread saw of itself.
struct Seen {
    Done done, release;
    Sched sched{-1, -1};
    ThreadObj *self = nullptr, *child = nullptr;
    void *ctx = nullptr;
    int nwords = -1;
    uint32_t words[8] = {};
};

void context_fn(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    sched_param sp{};
    sched_getparam(0, &sp);
    s->sched = {sched_getscheduler(0), sp.sched_priority};
    THREAD_Self(&s->self);
    s->ctx = ctx;
    s->done.post();
}

// Creates a context_fn thread with attr, waits for it and joins it; returns what it saw.
Sched sched_seen(ThreadAttr attr) {
    Seen seen;
    ThreadObj *h = nullptr;
    if (THREAD_Create(&h, context_fn, &seen, &attr) != 0 || !seen.done.wait()) return {-2, -2};
    THREAD_Join(h);
    return seen.sched;
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
    const KAVRO_STATUS kArg = 0x80070057u, kPtr = 0x80004003u;
    struct Case {
        ThreadAttr attr;
        bool withHandle, withFn;
        const void *ctx;
        KAVRO_STATUS status;
        const char *line;
    } cases[] = {
        {{28, 1, 0, 0, -1, nullptr}, true, true, nullptr, kArg, "Error, invalid attribute length\n"},
        {{24, 16, 0, 0, -1, nullptr}, true, true, nullptr, kArg, "Error, invalid priority = 16, min = 0, max = 15\n"},
        {{20, 16, 0, 0, -1, nullptr}, true, true, nullptr, kArg, "Error, invalid priority = 16, min = 0, max = 15\n"},
        {{24, 1, 0, 0, 9, nullptr}, true, true, lots, kArg,
         "Error, invalid num of args = 9, useContext = -1, max = 8\n"},
        {{24, 1, 0, 0, -2, nullptr}, true, true, nullptr, kArg,
         "Error, invalid num of args = -2, useContext = -1, max = 8\n"},
        {{24, 1, 0, 0, -1, nullptr}, false, true, nullptr, kPtr,
         "Error, pointer is NULL, phThreadObj = 0x0, fnUser = 0x"},
        {{24, 1, 0, 0, -1, nullptr}, true, false, nullptr, kPtr, ", fnUser = 0x0\n"},
        {{24, 1, 0, 0, 3, nullptr}, true, true, nullptr, kPtr, "Error, argument array is NULL, numArgs = 3\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        const uint32_t allocs = memalloccalls, made = threadalloccalls;
        ThreadObj *h = reinterpret_cast<ThreadObj *>(&h);
        testing::internal::CaptureStderr();
        EXPECT_EQ(THREAD_Create(c.withHandle ? &h : nullptr, c.withFn ? context_fn : nullptr,
                                const_cast<void *>(c.ctx), &c.attr), c.status);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(err.rfind("KAVRO:THREAD_Create: ", 0) == 0 && err.find(c.line) != std::string::npos &&
                    std::count(err.begin(), err.end(), '\n') == 1) << err;
        EXPECT_TRUE(!c.withHandle || h == nullptr);
        EXPECT_TRUE(memalloccalls == allocs && threadalloccalls == made);
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
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "KAVRO:helperEntry: started Thread pid=" + std::to_string(getpid()) + " tname= tpriority=1\n");
    EXPECT_TRUE(threadalloccalls == made + 1 && seen.ctx == &seen && seen.self == h);
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
        ASSERT_EQ(THREAD_Create(&h, reinterpret_cast<THREAD_UserFn>(fn), const_cast<uint32_t *>(values), &attr), 0u);
        ASSERT_TRUE(seen.done.wait());
        THREAD_Join(h);
        EXPECT_EQ(seen.nwords, n);
        for (int i = 0; i < n; ++i) EXPECT_EQ(seen.words[i], values[i]) << "word " << i;
    }
}

TEST_F(Threads, SuspendedStartWaitsForSetPriority) {
    KAVRO_REQUIRE_RT();
    // Short form: bit 0 of word 2 asks for a suspended start, other bits do not.
    EXPECT_EQ(sched_seen({20, 2, 2, 0, -1, nullptr}), Sched(SCHED_FIFO, 2));
    Seen seen, late;
    ThreadAttr suspended = {20, 2, 3, 0, -1, nullptr};
    ThreadObj *h = nullptr, *hLate = nullptr;
    ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, &suspended), 0u);
    ASSERT_EQ(THREAD_Create(&hLate, context_fn, &late, &suspended), 0u);
    EXPECT_FALSE(seen.done.wait(200));
    char name[THREAD_GETNAME_SIZE];
    EXPECT_TRUE(THREAD_GetName(h, name) == 0 && std::strcmp(name, "unknown") == 0) << name;
    uint32_t old = 0;
    EXPECT_TRUE(THREAD_SetPriority(h, 4, &old) == 0 && old == 2);
    ASSERT_TRUE(seen.done.wait());
    THREAD_Join(h);
    EXPECT_EQ(seen.sched, Sched(SCHED_FIFO, 4));

    // Released with a priority above 15: reported once, and it runs.
    testing::internal::CaptureStderr();
    THREAD_SetPriority(hLate, 16, nullptr);
    ASSERT_TRUE(late.done.wait());
    THREAD_Join(hLate);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:helperEntry: ERROR - started Thread pid=" + std::to_string(getpid()) +
                  " tname=unknown BAD PRIORITY=16\n");
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
        if (THREAD_Create(&s->child, context_fn, ctx, &inherit) != 0) s->done.post();
    }, &fromFifo7, &seven), 0u);
    ASSERT_TRUE(fromFifo7.done.wait());
    THREAD_Join(h);
    THREAD_Join(fromFifo7.child);
    EXPECT_EQ(fromFifo7.sched, Sched(SCHED_FIFO, 7));

    THREAD_KernelTimeSlice(1);
    const Sched rr = sched_seen({24, 3, 0, 0, -1, nullptr});
    THREAD_KernelTimeSlice(0);
    EXPECT_EQ(rr, Sched(SCHED_RR, 3));
    // From the time-sharing test thread, priority 0 stays time-sharing.
    EXPECT_EQ(sched_seen({24, 0, 0, 0, -1, nullptr}), Sched(SCHED_OTHER, 0));
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
    EXPECT_TRUE(seen.self == h && seen.nwords == 0 && thread_live_count() == live + 1);
    // A forked child does not have the thread: its join returns at once.
    EXPECT_EQ(kavro::test::run_in_child([h] { return THREAD_Join(h) == 0 && thread_live_count() == 0 ? 0 : 1; }, 30),
              0);
    seen.release.post();
    EXPECT_EQ(THREAD_Join(h), 0u);  // waits for the release
    EXPECT_TRUE(thread_live_count() == live && mem_counters().memgenfreecalls == freed + 1 && seen.nwords == 0);
    EXPECT_EQ(THREAD_Join(h), 0u);  // gone: at once, without reading it
}

TEST_F(Threads, NameIsCutAt255AndReadAsAFixed80ByteField) {
    std::string hundred(100, 'a');
    for (int i = 0; i < 100; ++i) hundred[i] = static_cast<char>('A' + i % 26);
    for (const std::string &name : {std::string(300, 'n'), hundred, std::string("short")}) {
        Seen seen;
        ThreadAttr attr = {24, 0, 1, 0, -1, name.c_str()};
        ThreadObj *h = nullptr;
        ASSERT_EQ(THREAD_Create(&h, context_fn, &seen, &attr), 0u);
        EXPECT_EQ(std::strlen(h->name), std::min<size_t>(name.size(), 255));
        char field[THREAD_GETNAME_SIZE + 4];
        std::memset(field, '#', sizeof field);
        EXPECT_EQ(THREAD_GetName(h, field), 0u);
        const size_t n = std::min<size_t>(name.size(), THREAD_GETNAME_SIZE);
        EXPECT_EQ(std::string(field, THREAD_GETNAME_SIZE + 1),  // zero-filled, nothing written past the field
                  name.substr(0, n) + std::string(THREAD_GETNAME_SIZE - n, '\0') + "#");
        THREAD_SetPriority(h, 0, nullptr);
        ASSERT_TRUE(seen.done.wait());
        THREAD_Join(h);
    }
}

TEST_F(Threads, ForeignThreadNullOutputsSleepAndObsoleteDelete) {
    ThreadObj *obj = reinterpret_cast<ThreadObj *>(&obj);
    EXPECT_TRUE(THREAD_Self(&obj) == 0 && obj == nullptr);  // not made here: no record
    testing::internal::CaptureStderr();
    EXPECT_EQ(THREAD_End(), 0x80070057u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KAVRO:THREAD_End: Error, ppThreadObj pointer is NULL\n");
    // Null-handle statuses are the robustness table's; these are the outputs.
    uint32_t u = 7;
    int32_t i = 0;
    char name[THREAD_GETNAME_SIZE] = "x";
    THREAD_LockStatus(nullptr, &u);
    EXPECT_TRUE(THREAD_GetName(nullptr, name) == 0 && std::strcmp(name, "x") == 0 && u == 0);
    EXPECT_TRUE(THREAD_TranslatePriority(98, &i) == 0x80070057u && i == 98);
    EXPECT_TRUE(THREAD_TranslatePriority(15, &i) == 0 && i == 15);
    testing::internal::CaptureStderr();
    EXPECT_EQ(THREAD_Delete(nullptr), 0x80004005u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "KAVRO:THREAD_Delete: This function is now obsoleted...  \n");

    timespec a{}, b{};
    clock_gettime(CLOCK_MONOTONIC, &a);
    EXPECT_TRUE(THREAD_Sleep(50) == 0 && THREAD_Sleep(0) == 0);
    clock_gettime(CLOCK_MONOTONIC, &b);
    EXPECT_GE(kavro::detail::to_ns(b) - kavro::detail::to_ns(a), 50 * 1000000LL);
}

TEST(ThreadFamily, CountedLifeCycleKeyAndStackSize) {
    EXPECT_EQ(kavro::test::run_in_child([] {
        setenv("PELOSSTACKSIZE", "4194304", 1);  // above the default, so no cached stack fits
        ThreadAttr inherit = {24, 0, 0, 0, -1, nullptr};
        ThreadObj *h = nullptr;
        Seen seen;
        if (THREAD_Create(&h, context_fn, &seen, &inherit) != 0x80004005u) return 1;  // family down
        if (THREAD_Init() != 0 || PelStackSize != 4194304 || THREAD_Init() != 1) return 2;
        THREAD_Exit();
        auto stack_size = [](void *ctx) {
            pthread_attr_t a;
            size_t size = 0;
            if (pthread_getattr_np(pthread_self(), &a) == 0)
                pthread_attr_getstacksize(&a, &size), pthread_attr_destroy(&a);
            static_cast<Seen *>(ctx)->nwords = static_cast<int>(size);
            static_cast<Seen *>(ctx)->done.post();
        };
        if (THREAD_Create(&h, stack_size, &seen, &inherit) != 0 || !seen.done.wait()) return 3;
        if (seen.nwords < 4194304) return std::fprintf(stderr, "stack size %d\n", seen.nwords), 4;
        THREAD_Join(h);
        THREAD_Exit();  // down: the key is gone
        if (THREAD_Self(&h) != 0 || h != nullptr) return 5;
        if (THREAD_Create(&h, context_fn, &seen, &inherit) != 0x80004005u) return 6;
        return THREAD_Init() == 0 ? 0 : 7;
    }), 0);
}

}  // namespace
