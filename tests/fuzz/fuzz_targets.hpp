// Fuzz targets (and the headers they share): run by libFuzzer (KAVRO_FUZZER builds) and by the replay test.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kavro::fuzz {
int fuzz_registry(const uint8_t *data, size_t size);
int fuzz_sysconfig_clock(const uint8_t *data, size_t size);
int fuzz_proc_net_dev(const uint8_t *data, size_t size);
int fuzz_version(const uint8_t *data, size_t size);
int fuzz_format(const uint8_t *data, size_t size);
}  // namespace kavro::fuzz

// A broken invariant ends the process (the fuzzer keeps the input).
#define FUZZ_CHECK(cond) \
    ((cond) ? (void)0 : (std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), std::abort()))

#ifdef KAVRO_FUZZER
#define KAVRO_FUZZ_ENTRY(fn) \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) { return fn(data, size); }
#else
#define KAVRO_FUZZ_ENTRY(fn)
#endif
