// Threads: refusals, what a thread sees of itself, suspended start, release and join.

#include <pthread.h>

#include "frame/internal.hpp"
#include "sync/thread.hpp"
#include "test_support.hpp"

namespace {

using kavro::detail::thread_live_count;
using Sched = std::pair<int, int>;  // policy, priority

struct Seen {  // what a thread saw of itself
    kavro::test::Done done, release;
    Sched sched{-1, -1};
    ThreadObj *self = nullptr;
    int nwords = -1, detach = -1;
    size_t stack = 0;
    uint32_t words[8] = {}, priority = 99;
};

void context_fn(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    sched_param sp{};
    s->sched = {sched_getscheduler(0), sched_getparam(0, &sp) == 0 ? sp.sched_priority : -1};
    pthread_attr_t a;
    if (pthread_getattr_np(pthread_self(), &a) == 0)
        pthread_attr_getdetachstate(&a, &s->detach), pthread_attr_getstacksize(&a, &s->stack), pthread_attr_destroy(&a);
    THREAD_Self(&s->self), THREAD_GetPriority(s->self, &s->priority), s->done.post();  // before the record goes
}

// Runs fn(ctx) on a thread made with attr (null: defaults) to its end.
bool run(ThreadAttr *attr, Seen *seen, THREAD_UserFn fn, void *ctx) {
    ThreadObj *h = nullptr;
    return THREAD_Create(&h, fn, ctx, attr) == KAVRO_OK && seen->done.wait() && THREAD_Join(h) == KAVRO_OK;
}
bool run(ThreadAttr *attr, Seen *seen) { return run(attr, seen, context_fn, seen); }

Seen *g_seen = nullptr;
void words8(uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t e, uint32_t f, uint32_t g, uint32_t h) {
    const uint32_t w[8] = {a, b, c, d, e, f, g, h};
    std::copy(w, w + 8, g_seen->words), g_seen->done.post();
}

class Threads : public testing::Test {
protected:
    void SetUp() override { THREAD_Init(); }
    void TearDown() override { THREAD_Exit(); }
};

// Defaults (FIFO 1, a start line, detached); argument words passed exactly; the policy; suspended start.
TEST_F(Threads, DefaultsStartLineArgumentWordsPolicyAndSuspendedStart) {
    KAVRO_REQUIRE_RT();
    Seen seen, w8, rr, other, plain, held;
    ThreadAttr eight = {24, 2, 0, 0, 8, "words"}, three = {24, 3, 0, 0, -1, nullptr},
               inherit = {24, 0, 0, 0, -1, nullptr};
    ThreadAttr two = {20, 2, 2, 0, -1, nullptr}, suspended = {20, 2, 3, 0, -1, nullptr};
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    ASSERT_TRUE(run(nullptr, &seen));
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "KAVRO:helperEntry: started Thread pid=" + std::to_string(getpid()) + " tname= tpriority=1\n");
    EXPECT_TRUE(seen.priority == 1 && seen.detach == PTHREAD_CREATE_DETACHED && seen.sched == Sched(SCHED_FIFO, 1));
    uint32_t values[8] = {7, 8, 9, 10, 0xFFFFFFFFu, 0x80000000u, 13, 14};
    const auto fn8 = reinterpret_cast<THREAD_UserFn>(reinterpret_cast<void (*)()>(words8));
    EXPECT_TRUE(run(&eight, g_seen = &w8, fn8, values) && std::equal(values, values + 8, w8.words));
    THREAD_KernelTimeSlice(1);  // makes RR threads; priority 0 inherits this thread's policy
    EXPECT_TRUE(run(&three, &rr) && rr.sched == Sched(SCHED_RR, 3));
    THREAD_KernelTimeSlice(0);
    EXPECT_TRUE(run(&inherit, &other) && other.sched == Sched(SCHED_OTHER, 0));
    // A suspended start is held through signals until SetPriority.
    EXPECT_TRUE(run(&two, &plain) && plain.sched == Sched(SCHED_FIFO, 2));  // only bit 0 suspends
    ThreadObj *h = nullptr;
    ASSERT_EQ(THREAD_Create(&h, context_fn, &held, &suspended), KAVRO_OK);
    signal(SIGUSR2, [](int) {});  // a semaphore wait is never restarted
    for (int i = 0; i < 10; ++i) pthread_kill(h->systemHandle, SIGUSR2), usleep(20000);
    ASSERT_FALSE(held.done.wait(50));  // not started before its release
    uint32_t prev = 0;
    EXPECT_TRUE(THREAD_SetPriority(h, 4, &prev) == KAVRO_OK && prev == 2 && held.done.wait());
    EXPECT_TRUE(THREAD_Join(h) == KAVRO_OK && held.sched == Sched(SCHED_FIFO, 4));
}

void ends_itself(void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    THREAD_Self(&s->self);
    s->nwords = int(THREAD_Join(s->self));  // itself: must not wait
    s->done.post(), s->release.wait(), THREAD_End();
}

// A join never waits for a gone thread (nor in a forked child); names are cut at 255, read as 80 bytes.
TEST_F(Threads, RecordReleasedAtTheEndJoinNeverWaitsNameFieldRefusal) {
    for (int i = 0; i < 1000 && thread_live_count() != 0; ++i) usleep(10000);  // earlier tests' threads
    const uint32_t live = thread_live_count();
    const auto freed = kavro::detail::mem_counters().memgenfreecalls;
    Seen seen;
    const std::string name(300, 'n');
    ThreadAttr attr = {24, 0, 0, 0, -1, name.c_str()};
    ThreadObj *h = nullptr;
    ASSERT_TRUE(THREAD_Create(&h, ends_itself, &seen, &attr) == KAVRO_OK && seen.done.wait());
    EXPECT_TRUE(seen.self == h && seen.nwords == 0 && thread_live_count() == live + 1 && strlen(h->name) == 255);
    std::string field(THREAD_GETNAME_SIZE + 4, '#');
    EXPECT_TRUE(THREAD_GetName(h, field.data()) == KAVRO_OK && field.substr(0, 81) == name.substr(0, 80) + "#");
    EXPECT_EQ(kavro::test::run_in_child([h] { return THREAD_Join(h) || thread_live_count(); }, 30), 0);
    seen.release.post();
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);  // waits for the release
    EXPECT_TRUE(thread_live_count() == live && kavro::detail::mem_counters().memgenfreecalls == freed + 1);
    EXPECT_EQ(THREAD_Join(h), KAVRO_OK);  // gone: at once, without reading it
    // A refusal logs a line naming the call and clears the handle (its statuses are the robustness sweep's).
    attr.numArgs = 3;  // but no argument array
    testing::internal::CaptureStderr();
    EXPECT_TRUE(THREAD_Create(&h, context_fn, nullptr, &attr) != KAVRO_OK && h == nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("KAVRO:THREAD_Create: ", 0), 0u);
}

// Counted life cycle; the stack size from the environment is used.
TEST(ThreadFamily, CountedLifeCycleAndStackSize) {
    EXPECT_EQ(kavro::test::run_in_child([] {
                  setenv("PELOSSTACKSIZE", "3211264", 1);  // 3 MiB + 64 KiB: no default size, no cached stack
                  ThreadAttr inherit = {24, 0, 0, 0, -1, nullptr};
                  ThreadObj *h = nullptr;
                  Seen seen;
                  CHILD_CHECK(THREAD_Init() == 0 && PelStackSize == 3211264 && THREAD_Init() == 1);
                  THREAD_Exit();  // still up
                  CHILD_CHECK(run(&inherit, &seen) && seen.stack >= 3211264 && seen.stack < 3211264 + 512 * 1024);
                  THREAD_Exit();  // down: the key is gone
                  CHILD_CHECK(THREAD_Self(&h) == KAVRO_OK && h == nullptr);
                  return THREAD_Init() == 0 ? 0 : 7;
              }),
              0);
}

}  // namespace
