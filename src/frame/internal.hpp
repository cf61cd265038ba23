// Helpers shared by every family of the library. Nothing here is exported.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <ctime>

#include <sys/time.h>

#include "kavro_rt/status.h"

namespace kavro::detail {

// Status words, for code that reads better with names.
inline constexpr KAVRO_STATUS kOk = KAVRO_OK;
inline constexpr KAVRO_STATUS kFail = KAVRO_E_FAIL;
inline constexpr KAVRO_STATUS kInvalidArg = KAVRO_E_INVALIDARG;
inline constexpr KAVRO_STATUS kNullPointer = KAVRO_E_POINTER;
inline constexpr KAVRO_STATUS kOutOfMemory = KAVRO_E_OUTOFMEMORY;
inline constexpr KAVRO_STATUS kNotImpl = KAVRO_E_NOTIMPL;
inline constexpr KAVRO_STATUS kTimeout = KAVRO_E_TIMEOUT;
inline constexpr KAVRO_STATUS kAgain = KAVRO_E_AGAIN;
inline constexpr KAVRO_STATUS kBrokenPipe = KAVRO_E_BROKENPIPE;
inline constexpr KAVRO_STATUS kNoTimer = KAVRO_E_NOTMRINIT;
inline constexpr KAVRO_STATUS kNoReader = KAVRO_E_NOREADER;
inline constexpr KAVRO_STATUS kLoadFailed = KAVRO_E_LOADFAILED;

inline constexpr uint32_t kGenericMarker = 999;
inline constexpr uint32_t kWaitForever = KAVRO_WAIT_FOREVER;

// Line sink of GP_printf: standard error before daemonising, the system log
// after. `line` is already cut to 1023 characters.
void emit_line(const char *line);

// One diagnostic line "KAVRO:<fn>: <text>" through the sink; the text comes
// from fmt and carries its own newline.
void diag(const char *fn, const char *fmt, ...) KAVRO_PRINTF(2, 3);

// "KAVRO: Function <fn> is not supported .... " and the failure status.
KAVRO_STATUS not_supported(const char *fn);

// True when h is non-null and its first word is `tag`. Reads one aligned
// word only, so a freed handle reads 0xDEADBEEF (or garbage) but never
// faults as long as the block is still mapped.
inline bool has_tag(const void *h, uint32_t tag) {
    return h != nullptr && *static_cast<const volatile uint32_t *>(h) == tag;
}

// Diagnostic counters: approximate under concurrency by design (a plain
// load and store, no read-modify-write, no lock), yet free of data races.
inline void count_up(uint32_t &counter, uint32_t by = 1) {
    std::atomic_ref<uint32_t> c(counter);
    c.store(c.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

// Reads a decimal integer from the environment. Returns false when the
// variable is absent, empty, not entirely a decimal number (optional sign,
// surrounding blanks allowed) or out of the 32-bit signed range.
bool env_decimal(const char *name, int32_t *out);

// Reads a variable as strtol reads it (leading blanks and sign, digits up to
// the first other character, no digits give 0), held to 32 bits as on the
// product's platform. False only when the variable is absent. The engine's
// tuning variables are read this way.
bool env_strtol(const char *name, int32_t *out);

// True when the variable is present, whatever its value.
bool env_present(const char *name);

// Deadline arithmetic on timespec values (nanoseconds kept in 0..999,999,999).
inline constexpr long kNsPerSec = 1000000000L;
timespec add_ms(timespec t, uint32_t ms);
timespec add_ns(timespec t, int64_t ns);
inline int64_t to_ns(const timespec &t) { return static_cast<int64_t>(t.tv_sec) * kNsPerSec + t.tv_nsec; }
inline timespec from_ns(int64_t ns) {
    timespec t{};
    t.tv_sec = static_cast<time_t>(ns / kNsPerSec);
    t.tv_nsec = static_cast<long>(ns % kNsPerSec);
    if (t.tv_nsec < 0) {
        t.tv_nsec += kNsPerSec;
        --t.tv_sec;
    }
    return t;
}
// Absolute wall-clock deadline `ms` from `now` (the arithmetic of
// _ULX_MakeAbsTime), and from the current time of day.
timespec make_abs_time(const timeval &now, uint32_t ms);
timespec wall_deadline(uint32_t ms);

// The memory family's unexported counters (bytes requested, frees, generic frees).
struct MemCounters {
    uint32_t memcnt;
    uint32_t memfreecalls;
    uint32_t memgenfreecalls;
};
MemCounters mem_counters();

}  // namespace kavro::detail
