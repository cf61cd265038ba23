// Test-report printers: coloured pass/fail lines on standard error and the
// failure count.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "kavro_rt/report.h"

extern "C" {
KAVRO_API int32_t global_error = 0;
}

namespace {

constexpr const char kRed[] = "\033[1;31m";
constexpr const char kYellow[] = "\033[1;33m";
constexpr const char kReset[] = "\033[0;39m";

const char *text_or_null(const char *s) { return s != nullptr ? s : "(null)"; }

// perror of `text` for error number `err`, whatever errno is now.
void perror_as(const char *text, int err) {
    errno = err;
    std::perror(text_or_null(text));
}

void flush_both() {
    std::fflush(stderr);
    std::fflush(stdout);
}

}  // namespace

extern "C" {

KAVRO_API void MYerror(const char *file, int32_t line, const char *text) {
    std::fprintf(stderr, "%s%s,%d:%s%s", kRed, text_or_null(file), static_cast<int>(line), text_or_null(text), kReset);
    flush_both();
    ++global_error;
}

KAVRO_API void MYperror(const char *file, int32_t line, const char *text) {
    const int err = errno;
    std::fprintf(stderr, "%s%s,%d:", kRed, text_or_null(file), static_cast<int>(line));
    perror_as(text, err);
    std::fputs(kReset, stderr);
    flush_both();
    ++global_error;
    std::fprintf(stderr, "%sEnd of test, %d error(s) found.\n%s", global_error != 0 ? kRed : kYellow,
                 static_cast<int>(global_error), kReset);
    flush_both();
    std::exit(global_error);
}

KAVRO_API int32_t MY_c_perror(int32_t expected, const char *file, int32_t line, const char *text) {
    const int err = errno;
    std::fprintf(stderr, "%s %s,%d:", expected != 0 ? "expected" : "\033[1;31mUNEXPECTED", text_or_null(file),
                 static_cast<int>(line));
    perror_as(text, err);
    if (expected > 0 && err != expected) {
        perror_as("\033[1;31mExpected", expected);
        ++global_error;
        std::fputs(kReset, stderr);
    }
    if (expected == 0) {
        ++global_error;
        std::fputs(kReset, stderr);
    }
    flush_both();
    return expected == 0 ? -1 : 0;
}

KAVRO_API int32_t No_error(int32_t expected, const char *file, int32_t line, const char *text) {
    const int err = errno;
    std::fprintf(stderr, "%s %s,%d:%s\n%s", expected == 0 ? "Cool" : "\033[1;31mERROR expected but not found",
                 text_or_null(file), static_cast<int>(line), text_or_null(text), kReset);
    if (expected != 0) {
        if (expected > 0 && err != expected) {
            perror_as("Found   ", 0);
            perror_as("Expected", expected);
        } else {
            errno = err;
        }
        ++global_error;
        std::fputs(kReset, stderr);
    } else {
        errno = err;
    }
    flush_both();
    return expected == 0 ? 0 : -1;
}

KAVRO_API int32_t printfx(const char *format, int32_t a, int32_t b) {
    if (format == nullptr) return -1;
    if (b == 0) {
        errno = EDOM;
        return -1;
    }
    // In 64 bits so that INT32_MIN / -1 wraps instead of trapping.
    const int64_t q = static_cast<int64_t>(a) / b, r = static_cast<int64_t>(a) % b;
    return std::printf(format, static_cast<int>(static_cast<int32_t>(q)), static_cast<int>(r));
}

KAVRO_API int32_t printf2(const char *format, int32_t x, int32_t y) {
    if (format == nullptr) return -1;
    return std::printf(format, static_cast<int>(x / 1000), static_cast<int>(x % 1000), static_cast<int>(y / 1000),
                       static_cast<int>(y % 1000));
}

}  // extern "C"
