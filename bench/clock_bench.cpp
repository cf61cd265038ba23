// The clock reading as the library makes it (a system call every time)
// against the C library's, which reads the clock through the vDSO.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <ctime>

#include "kavro_rt/clock.h"

namespace {

using ClockFn = int (*)(clockid_t, timespec *);

void clock_read(benchmark::State &state, ClockFn fn) {
    timespec t{};
    for (auto _ : state) {
        fn(CLOCK_MONOTONIC, &t);
        benchmark::DoNotOptimize(t);
    }
}

void kavro_gettime(benchmark::State &state) { clock_read(state, &clock_gettime); }

void libc_gettime(benchmark::State &state) {
    // The program's own clock_gettime is the library's; the next is libc's.
    auto fn = reinterpret_cast<ClockFn>(dlsym(RTLD_NEXT, "clock_gettime"));
    if (fn == nullptr) {
        state.SkipWithError("no C library clock_gettime");
        return;
    }
    clock_read(state, fn);
}

}  // namespace

BENCHMARK(kavro_gettime)->Name("clock.gettime/kavro")->MinTime(0.2);
BENCHMARK(libc_gettime)->Name("clock.gettime/ref:libc-vdso")->MinTime(0.2);
BENCHMARK_MAIN();
