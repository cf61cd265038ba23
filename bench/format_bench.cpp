// The formatter against the C library's snprintf on the same formats.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "kavro_rt/format.h"

namespace {

// Formats both engines print alike (no '#', no zero fill, no f).
struct Case {
    const char *format;
    int i;
    unsigned x;
    const char *s;
    char c;
};

constexpr Case kMix[] = {
    {"id=%d val=%x name=%s tag=%c", 123456, 0xdeadbeefu, "eth0", 'Q'},
    {"%d/%d %s", -42, 7, "ok", 'x'},
    {"[%8x] %-10s|%c", 42, 0xff00ffu, "channel", 'z'},
    {"%s:%d: %c %x", -2000000000, 0x10u, "src/format.cpp", '!'},
};

// Cycles through the cases; each engine's caller passes a case's arguments in
// its format's order.
template <typename Fn>
void run(benchmark::State &state, Fn fn) {
    char buf[128];
    size_t k = 0;
    for (auto _ : state) {
        const Case &c = kMix[k++ & 3];
        fn(buf, c);
        benchmark::DoNotOptimize(buf);
        benchmark::ClobberMemory();
    }
}

void call_kavro(char *buf, const Case &c) {
    switch (&c - kMix) {
        case 0: GP_sprintf(buf, c.format, c.i, c.x, c.s, c.c); break;
        case 1: GP_sprintf(buf, c.format, c.i, 7, c.s); break;
        case 2: GP_sprintf(buf, c.format, c.x, c.s, c.c); break;
        default: GP_sprintf(buf, c.format, c.s, c.i, c.c, c.x); break;
    }
}

void call_libc(char *buf, const Case &c) {
    switch (&c - kMix) {
        case 0: std::snprintf(buf, 128, c.format, c.i, c.x, c.s, c.c); break;
        case 1: std::snprintf(buf, 128, c.format, c.i, 7, c.s); break;
        case 2: std::snprintf(buf, 128, c.format, c.x, c.s, c.c); break;
        default: std::snprintf(buf, 128, c.format, c.s, c.i, c.c, c.x); break;
    }
}

void BM_mix_kavro(benchmark::State &state) { run(state, call_kavro); }
void BM_mix_libc(benchmark::State &state) { run(state, call_libc); }

void BM_int_kavro(benchmark::State &state) {
    char buf[64];
    int v = 0;
    for (auto _ : state) {
        GP_sprintf(buf, "%d", v += 7919);
        benchmark::DoNotOptimize(buf);
    }
}
void BM_int_libc(benchmark::State &state) {
    char buf[64];
    int v = 0;
    for (auto _ : state) {
        std::snprintf(buf, sizeof buf, "%d", v += 7919);
        benchmark::DoNotOptimize(buf);
    }
}

}  // namespace

BENCHMARK(BM_mix_kavro)->Name("format.sprintf.mix/kavro")->MinTime(0.2);
BENCHMARK(BM_mix_libc)->Name("format.sprintf.mix/ref:snprintf")->MinTime(0.2);
BENCHMARK(BM_int_kavro)->Name("format.sprintf.int/kavro")->MinTime(0.2);
BENCHMARK(BM_int_libc)->Name("format.sprintf.int/ref:snprintf")->MinTime(0.2);

BENCHMARK_MAIN();
