// Small helpers shared by the families: environment and deadline arithmetic.
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "frame/internal.hpp"

namespace kavro::detail {

bool env_present(const char *name) { return std::getenv(name) != nullptr; }

bool env_decimal(const char *name, int32_t *out) {
    const char *s = std::getenv(name);
    if (s == nullptr || *s == '\0') return false;
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(s, &end, 10);
    if (end == s || errno == ERANGE) return false;
    while (*end == ' ' || *end == '\t' || *end == '\n') ++end;
    if (*end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    *out = static_cast<int32_t>(v);
    return true;
}

bool env_strtol(const char *name, int32_t *out) {
    const char *s = std::getenv(name);
    if (s == nullptr) return false;
    long long v = std::strtoll(s, nullptr, 10);
    if (v > INT32_MAX) v = INT32_MAX;
    if (v < INT32_MIN) v = INT32_MIN;
    *out = static_cast<int32_t>(v);
    return true;
}

timespec add_ns(timespec t, int64_t ns) { return from_ns(to_ns(t) + ns); }

timespec add_ms(timespec t, uint32_t ms) { return add_ns(t, static_cast<int64_t>(ms) * 1000000); }

timespec make_abs_time(const timeval &now, uint32_t ms) {
    timespec t{};
    t.tv_sec = now.tv_sec + static_cast<time_t>(ms / 1000);
    // Both terms stay below 10^9, so one carry is always enough.
    t.tv_nsec = static_cast<long>(ms % 1000) * 1000000L + static_cast<long>(now.tv_usec) * 1000L;
    if (t.tv_nsec > kNsPerSec - 1) {
        t.tv_sec += 1;
        t.tv_nsec -= kNsPerSec;
    }
    return t;
}

timespec wall_deadline(uint32_t ms) {
    timeval now{};
    gettimeofday(&now, nullptr);
    return make_abs_time(now, ms);
}

}  // namespace kavro::detail
