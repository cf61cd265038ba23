// Semaphore ping-pong: one round trip per iteration (post to the peer, pend
// for its answer), between two threads for the process-local kinds and
// between two processes for System V, each beside the bare platform
// primitive doing the same. The two sides run pinned to two CPUs.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "kavro_rt/sem.h"
#include "pinning.hpp"

namespace {

// The least a counting semaphore on a mutex and a condition can do.
struct CondSem {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    int count = 0;
    int waiters = 0;
    void pend() {
        pthread_mutex_lock(&m);
        while (count == 0) {
            ++waiters;
            pthread_cond_wait(&c, &m);
            --waiters;
        }
        --count;
        pthread_mutex_unlock(&m);
    }
    void post() {
        pthread_mutex_lock(&m);
        ++count;
        if (waiters > 0) pthread_cond_signal(&c);
        pthread_mutex_unlock(&m);
    }
};

// Runs the echo side on a thread: pend(ping), post(pong), until stopped.
template <typename Pend, typename Post>
void thread_pingpong(benchmark::State &state, Pend pend, Post post) {
    std::atomic<bool> stop{false};
    bench::Pinned pinned(0);
    std::thread echo([&] {
        bench::pin_self(1);
        for (;;) {
            pend(0);
            if (stop.load(std::memory_order_relaxed)) return;
            post(1);
        }
    });
    for (auto _ : state) {
        post(0);
        pend(1);
    }
    stop = true;
    post(0);
    echo.join();
}

void BM_KavroCounter(benchmark::State &state) {
    SEM_HANDLE s[2];
    SEM_Create(&s[0], 0, 0, 0);
    SEM_Create(&s[1], 0, 0, 0);
    thread_pingpong(
        state, [&](int i) { SEM_Pend(s[i], KAVRO_WAIT_FOREVER); }, [&](int i) { SEM_Post(s[i]); });
    SEM_Delete(s[0]);
    SEM_Delete(s[1]);
}

void BM_KavroPosix(benchmark::State &state) {
    SEM_HANDLE s[2];
    SEM_Create_2(&s[0], 0);
    SEM_Create_2(&s[1], 0);
    thread_pingpong(
        state, [&](int i) { SEM_Pend(s[i], KAVRO_WAIT_FOREVER); }, [&](int i) { SEM_Post(s[i]); });
    SEM_Delete(s[0]);
    SEM_Delete(s[1]);
}

void BM_RawSemT(benchmark::State &state) {
    sem_t s[2];
    sem_init(&s[0], 0, 0);
    sem_init(&s[1], 0, 0);
    thread_pingpong(
        state,
        [&](int i) {
            while (sem_wait(&s[i]) != 0) {
            }
        },
        [&](int i) { sem_post(&s[i]); });
    sem_destroy(&s[0]);
    sem_destroy(&s[1]);
}

void BM_MutexCond(benchmark::State &state) {
    CondSem s[2];
    thread_pingpong(
        state, [&](int i) { s[i].pend(); }, [&](int i) { s[i].post(); });
}

// The echo side in a child process; the sets are private, inherited by
// fork. The two sets swap roles every round trip, so that each process
// posts and pends each set equally often: SEM_UNDO keeps a per-process
// adjustment that the kernel bounds at 32767, and a one-way stream of pends
// (or posts) would run into that bound.
template <typename Pend, typename Post>
void process_pingpong(benchmark::State &state, Pend pend, Post post) {
    bench::Pinned pinned(0);
    pid_t child = fork();
    if (child == 0) {
        bench::pin_self(1);
        for (int a = 0;; a ^= 1) {
            pend(a);
            post(a ^ 1);
        }
    }
    int a = 0;
    for (auto _ : state) {
        post(a);
        pend(a ^ 1);
        a ^= 1;
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

void BM_KavroSysV(benchmark::State &state) {
    SEM_HANDLE s[2];
    SEM_Create(&s[0], 0, 0, 1);
    SEM_Create(&s[1], 0, 0, 1);
    process_pingpong(
        state, [&](int i) { SEM_Pend(s[i], KAVRO_WAIT_FOREVER); }, [&](int i) { SEM_Post(s[i]); });
    SEM_Delete(s[0]);
    SEM_Delete(s[1]);
}

// The same kernel work: one-member private sets, SEM_UNDO on both sides.
void BM_RawSemop(benchmark::State &state) {
    int id[2] = {semget(IPC_PRIVATE, 1, IPC_CREAT | 0600), semget(IPC_PRIVATE, 1, IPC_CREAT | 0600)};
    process_pingpong(
        state,
        [&](int i) {
            sembuf op{0, -1, SEM_UNDO};
            while (semop(id[i], &op, 1) != 0) {
            }
        },
        [&](int i) {
            sembuf op{0, +1, SEM_UNDO};
            semop(id[i], &op, 1);
        });
    semctl(id[0], 0, IPC_RMID);
    semctl(id[1], 0, IPC_RMID);
}

constexpr double kMinTime = 0.3;

BENCHMARK(BM_KavroCounter)->Name("sem.pingpong.counter/kavro")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_RawSemT)->Name("sem.pingpong.counter/ref:sem_t")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_MutexCond)->Name("sem.pingpong.counter/ref:mutex_cond")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_KavroPosix)->Name("sem.pingpong.posix/kavro")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_RawSemT)->Name("sem.pingpong.posix/ref:sem_t")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_MutexCond)->Name("sem.pingpong.posix/ref:mutex_cond")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_KavroSysV)->Name("sem.pingpong.sysv/kavro")->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_RawSemop)->Name("sem.pingpong.sysv/ref:semop")->UseRealTime()->MinTime(kMinTime);

}  // namespace

BENCHMARK_MAIN();
