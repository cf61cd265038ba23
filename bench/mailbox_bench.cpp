// Mailbox throughput: one producer thread posts, the benchmark thread
// pends, one message per iteration, beside a minimal ring buffer on a mutex
// and two conditions. The two threads run pinned to two CPUs.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include <cstring>
#include <thread>
#include <vector>

#include "kavro_rt/mbx.h"
#include "pinning.hpp"

namespace {

constexpr uint32_t kSlots = 64;

struct Ring {
    explicit Ring(uint32_t size, uint32_t slots) : size(size), slots(slots), data(size_t{size} * slots) {}
    void post(const void *msg) {
        pthread_mutex_lock(&m);
        while (count == slots) pthread_cond_wait(&notFull, &m);
        std::memcpy(&data[size_t{tail} * size], msg, size);
        tail = tail + 1 == slots ? 0 : tail + 1;
        ++count;
        pthread_cond_signal(&notEmpty);
        pthread_mutex_unlock(&m);
    }
    void pend(void *msg) {
        pthread_mutex_lock(&m);
        while (count == 0) pthread_cond_wait(&notEmpty, &m);
        std::memcpy(msg, &data[size_t{head} * size], size);
        head = head + 1 == slots ? 0 : head + 1;
        --count;
        pthread_cond_signal(&notFull);
        pthread_mutex_unlock(&m);
    }
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t notEmpty = PTHREAD_COND_INITIALIZER;
    pthread_cond_t notFull = PTHREAD_COND_INITIALIZER;
    uint32_t size, slots, head = 0, tail = 0, count = 0;
    std::vector<unsigned char> data;
};

template <typename Post, typename Pend>
void spsc(benchmark::State &state, uint32_t size, Post post, Pend pend) {
    const auto n = state.max_iterations;
    bench::Pinned pinned(0);
    std::thread producer([&] {
        bench::pin_self(1);
        std::vector<unsigned char> msg(size, 0x5A);
        for (benchmark::IterationCount i = 0; i < n; ++i) post(msg.data());
    });
    std::vector<unsigned char> buf(size);
    for (auto _ : state) {
        pend(buf.data());
        benchmark::DoNotOptimize(buf.data());
    }
    producer.join();
    state.SetBytesProcessed(state.iterations() * size);
}

void BM_Kavro(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    MBX_HANDLE m = nullptr;
    MBX_Create(&m, size, kSlots);
    spsc(
        state, size, [&](const void *msg) { MBX_Post(m, msg, KAVRO_WAIT_FOREVER); },
        [&](void *buf) { MBX_Pend(m, buf, KAVRO_WAIT_FOREVER); });
    MBX_Delete(m);
}

void BM_Ring(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Ring r(size, kSlots);
    spsc(
        state, size, [&](const void *msg) { r.post(msg); }, [&](void *buf) { r.pend(buf); });
}

constexpr double kMinTime = 0.3;

// Message sizes 16 and 256 bytes appear as the last part of the names.
BENCHMARK(BM_Kavro)->Name("mbx.spsc/kavro")->Arg(16)->Arg(256)->UseRealTime()->MinTime(kMinTime);
BENCHMARK(BM_Ring)->Name("mbx.spsc/ref:mutex_2cond_ring")->Arg(16)->Arg(256)->UseRealTime()->MinTime(kMinTime);

}  // namespace

BENCHMARK_MAIN();
