// The log sink and the switched-off debug family.
#include <syslog.h>

#include <cstdio>

#include "frame/internal.hpp"
#include "kavro_rt/log.h"

extern "C" {
KAVRO_API int32_t PEL_daemonized = 0;
}

namespace {
int32_t cRefs = 0;  // DBG_ family count
constexpr size_t kLineSize = 1024;
}  // namespace

namespace kavro::detail {

void emit_line(const char *line) {
    if (PEL_daemonized == 0) {
        std::fflush(stdout);
        std::fputs(line, stderr);
        std::fflush(stderr);
    } else {
        syslog(LOG_INFO, "%s", line);
    }
}

void diag(const char *fn, const char *fmt, ...) {
    char line[kLineSize];
    int n = std::snprintf(line, sizeof line, "KAVRO:%s: ", fn);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof line - 1) {
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(line + n, sizeof line - n, fmt, ap);
        va_end(ap);
    }
    emit_line(line);
}

KAVRO_STATUS not_supported(const char *fn) {
    GP_printf("KAVRO: Function %s is not supported .... \n", fn);
    return kFail;
}

}  // namespace kavro::detail

extern "C" {

KAVRO_API void GP_printf(const char *format, ...) {
    char line[kLineSize];
    if (format == nullptr) return;
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    if (n < 0) return;
    kavro::detail::emit_line(line);
}

KAVRO_API int32_t DBG_Init(void) {
    ++cRefs;
    return 1;
}

KAVRO_API int32_t DBG_Exit(void) {
    --cRefs;
    return 0;
}

KAVRO_API int32_t DBG_Printf(const char *, ...) { return 0; }
KAVRO_API int32_t DBG_Trace(const char *, ...) { return 0; }

}  // extern "C"
