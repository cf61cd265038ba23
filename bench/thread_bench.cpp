// Threads and task locks.
//  thread.start: from just before the create call to the first instruction
//    of the new thread's user function (manual time), for THREAD_Create with
//    default attributes (its record registered, its start line written),
//    beside pthread_create with the same platform attributes (2 MiB stack,
//    SCHED_FIFO 1, detached) whose start routine writes the same line. The
//    creating thread is pinned to one CPU; the new thread inherits it, on
//    both sides alike (THREAD_Create has no affinity attribute).
//  lck.uncontended: one LCK_Lock + LCK_Unlock on a free lock by a thread made
//    by THREAD_Create (raise to 98 and restore included), beside a mutex pair
//    and beside a mutex pair with the same two scheduling changes.
//  lck.uncontended_foreign: the same by a thread without a thread record
//    (no priority change), beside a mutex pair.
//  lck.nested: a nested LCK_Lock + LCK_Unlock inside a held lock, beside a
//    recursive mutex.
// The thread family writes a start line on standard output for every thread;
// while a benchmark creates threads, standard output goes to /dev/null so
// that the report's JSON stays intact.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "kavro_rt/kavro_rt.h"
#include "pinning.hpp"

namespace {

double now_s() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

bool rt_permitted() {
    static const bool ok = [] {
        pthread_attr_t a;
        pthread_attr_init(&a);
        pthread_attr_setinheritsched(&a, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&a, SCHED_FIFO);
        sched_param sp{};
        sp.sched_priority = 1;
        pthread_attr_setschedparam(&a, &sp);
        pthread_t t;
        const int rc = pthread_create(
            &t, &a, [](void *) -> void * { return nullptr; }, nullptr);
        pthread_attr_destroy(&a);
        if (rc == 0) pthread_join(t, nullptr);
        return rc == 0;
    }();
    return ok;
}

// Standard output to /dev/null for the lifetime of the object.
class QuietStdout {
public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(1);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, 1);
            close(null);
        }
    }
    ~QuietStdout() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, 1);
            close(saved_);
        }
    }

private:
    int saved_ = -1;
};

struct Start {
    sem_t started;
    sem_t ended;  // reference only: its thread is about to end, as THREAD_Join reports for the library's
    double at = 0;
};

void first_instruction(void *ctx) {
    auto *s = static_cast<Start *>(ctx);
    s->at = now_s();
    sem_post(&s->started);
}

// The task-lock family (and with it the thread family) is up for the whole run.
struct Family {
    Family() { LCK_Init(); }
    ~Family() { LCK_Exit(); }
} family;

void BM_ThreadStartKavro(benchmark::State &state) {
    if (!rt_permitted()) {
        state.SkipWithError("real-time scheduling is not permitted");
        return;
    }
    QuietStdout quiet;
    bench::Pinned pinned(0);
    Start s;
    sem_init(&s.started, 0, 0);
    for (auto _ : state) {
        ThreadObj *h = nullptr;
        const double t0 = now_s();
        if (THREAD_Create(&h, first_instruction, &s, nullptr) != 0) {
            state.SkipWithError("THREAD_Create failed");
            break;
        }
        sem_wait(&s.started);
        state.SetIterationTime(s.at - t0);
        THREAD_Join(h);
    }
    sem_destroy(&s.started);
}

long g_pid = 0;

// The library's start line for a thread of the default attributes, then the user code.
void *reference_entry(void *ctx) {
    std::printf("KAVRO:%s: started Thread pid=%ld tname=%s tpriority=%lu\n", "helperEntry", g_pid, "", 1ul);
    first_instruction(ctx);
    sem_post(&static_cast<Start *>(ctx)->ended);
    return nullptr;
}

void BM_ThreadStartRaw(benchmark::State &state) {
    if (!rt_permitted()) {
        state.SkipWithError("real-time scheduling is not permitted");
        return;
    }
    QuietStdout quiet;
    bench::Pinned pinned(0);
    g_pid = static_cast<long>(getpid());
    Start s;
    sem_init(&s.started, 0, 0);
    sem_init(&s.ended, 0, 0);
    pthread_attr_t a;
    pthread_attr_init(&a);
    if (PelStackSize != 0) pthread_attr_setstacksize(&a, static_cast<size_t>(PelStackSize));
    pthread_attr_setinheritsched(&a, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setscope(&a, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setschedpolicy(&a, SCHED_FIFO);
    sched_param sp{};
    sp.sched_priority = 1;
    pthread_attr_setschedparam(&a, &sp);
    pthread_attr_setdetachstate(&a, PTHREAD_CREATE_DETACHED);
    for (auto _ : state) {
        pthread_t t;
        const double t0 = now_s();
        if (pthread_create(&t, &a, reference_entry, &s) != 0) {
            state.SkipWithError("pthread_create failed");
            break;
        }
        sem_wait(&s.started);
        state.SetIterationTime(s.at - t0);
        sem_wait(&s.ended);  // the next thread starts when this one has done its work
    }
    pthread_attr_destroy(&a);
    sem_destroy(&s.started);
    sem_destroy(&s.ended);
}

// Runs the measuring loop on a thread made by THREAD_Create, so that the
// locks see a thread record.
template <typename Body>
void on_recorded_thread(benchmark::State &state, Body body) {
    QuietStdout quiet;
    struct Job {
        benchmark::State *state;
        Body *body;
        sem_t done;
    } job{&state, &body, {}};
    sem_init(&job.done, 0, 0);
    ThreadAttr attr = {THREAD_ATTR_LENGTH, rt_permitted() ? 1u : 0u, 0, 0, THREAD_USE_CONTEXT, "bench"};
    ThreadObj *h = nullptr;
    if (THREAD_Create(
            &h,
            [](void *ctx) {
                auto *j = static_cast<Job *>(ctx);
                (*j->body)(*j->state);
                sem_post(&j->done);
            },
            &job, &attr) != 0) {
        state.SkipWithError("THREAD_Create failed");
    } else {
        sem_wait(&job.done);
        THREAD_Join(h);
    }
    sem_destroy(&job.done);
}

void BM_LckUncontendedKavro(benchmark::State &state) {
    on_recorded_thread(state, [](benchmark::State &st) {
        LckObj *lock = nullptr;
        LCK_Create(&lock);
        for (auto _ : st) {
            LCK_Lock(lock);
            LCK_Unlock(lock);
        }
        LCK_Delete(lock);
    });
}

void BM_LckUncontendedMutexSched(benchmark::State &state) {
    on_recorded_thread(state, [](benchmark::State &st) {
        pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
        int policy = 0;
        sched_param mine{}, high{};
        pthread_getschedparam(pthread_self(), &policy, &mine);
        high.sched_priority = 98;
        for (auto _ : st) {
            pthread_setschedparam(pthread_self(), SCHED_FIFO, &high);
            pthread_mutex_lock(&m);
            pthread_mutex_unlock(&m);
            pthread_setschedparam(pthread_self(), policy, &mine);
        }
    });
}

void BM_LckUncontendedForeignKavro(benchmark::State &state) {
    LckObj *lock = nullptr;
    LCK_Create(&lock);
    for (auto _ : state) {
        LCK_Lock(lock);
        LCK_Unlock(lock);
    }
    LCK_Delete(lock);
}

void BM_MutexPair(benchmark::State &state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
}

void BM_LckNestedKavro(benchmark::State &state) {
    on_recorded_thread(state, [](benchmark::State &st) {
        LCK_Lock(nullptr);
        for (auto _ : st) {
            LCK_Lock(nullptr);
            LCK_Unlock(nullptr);
        }
        LCK_Unlock(nullptr);
    });
}

void BM_RecursiveMutexNested(benchmark::State &state) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t m;
    pthread_mutex_init(&m, &a);
    pthread_mutex_lock(&m);
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
    pthread_mutex_unlock(&m);
    pthread_mutex_destroy(&m);
    pthread_mutexattr_destroy(&a);
}

}  // namespace

constexpr double kMinTime = 0.2;
BENCHMARK(BM_ThreadStartKavro)->Name("thread.start/kavro")->UseManualTime()->MinTime(kMinTime);
BENCHMARK(BM_ThreadStartRaw)->Name("thread.start/ref:pthread_create")->UseManualTime()->MinTime(kMinTime);
BENCHMARK(BM_LckUncontendedKavro)->Name("lck.uncontended/kavro")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_MutexPair)->Name("lck.uncontended/ref:pthread_mutex")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_LckUncontendedMutexSched)
    ->Name("lck.uncontended/ref:mutex+setschedparam")
    ->UseRealTime()
    ->MinTime(kMinTime);
BENCHMARK(BM_LckUncontendedForeignKavro)->Name("lck.uncontended_foreign/kavro")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_MutexPair)->Name("lck.uncontended_foreign/ref:pthread_mutex")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_LckNestedKavro)->Name("lck.nested/kavro")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_RecursiveMutexNested)->Name("lck.nested/ref:recursive_mutex")->UseRealTime()->MinTime(kMinTime);

BENCHMARK_MAIN();
