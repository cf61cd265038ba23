// Error-exit helpers: one line to standard output, then to standard error
// (or to the system log once the process is a daemon), then return, exit or
// abort.
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/internal.hpp"
#include "kavro_rt/err.h"
#include "kavro_rt/log.h"

namespace {

constexpr size_t kLineSize = 1024;

void err_doit(bool withErrno, int priority, const char *fmt, va_list ap) {
    const int saved = errno;  // before anything below can change it
    char line[kLineSize];
    line[0] = '\0';
    if (fmt != nullptr) {
        if (std::vsnprintf(line, sizeof line, fmt, ap) < 0) line[0] = '\0';
    }
    std::fprintf(stdout, "%s \n", line);

    size_t len = std::strlen(line);
    if (withErrno && len < sizeof line - 1) {
        char text[256];
        // GNU strerror_r: thread-safe, may return a static string instead.
        const char *msg = strerror_r(saved, text, sizeof text);
        std::snprintf(line + len, sizeof line - len, ": %s", msg);
        len = std::strlen(line);
    }
    // The newline always fits: a full line gives up its last character.
    if (len >= sizeof line - 1) len = sizeof line - 2;
    line[len] = '\n';
    line[len + 1] = '\0';

    if (PEL_daemonized != 0) {
        syslog(priority, "%s", line);
    } else {
        std::fflush(stdout);
        std::fputs(line, stderr);
        std::fflush(stderr);
    }
    errno = saved;
}

}  // namespace

extern "C" {

KAVRO_API void err_ret(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    err_doit(false, LOG_INFO, format, ap);
    va_end(ap);
}

KAVRO_API void err_msg(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    err_doit(false, LOG_INFO, format, ap);
    va_end(ap);
}

KAVRO_API void err_quit(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    err_doit(false, LOG_ERR, format, ap);
    va_end(ap);
    std::exit(1);
}

KAVRO_API void err_sys(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    err_doit(true, LOG_ERR, format, ap);
    va_end(ap);
    std::exit(1);
}

KAVRO_API void err_dump(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    err_doit(true, LOG_ERR, format, ap);
    va_end(ap);
    std::abort();
}

}  // extern "C"
