/* The emulated real-time-clock device, preloaded into a test process; what
 * it serves and its controls are described in rtc_emulator.h. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include "rtc_emulator.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/rtc.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#define API __attribute__((visibility("default")))
#define NS_PER_SEC 1000000000LL
#define NEVER INT64_MAX

/* ---- the C library's functions ---------------------------------------------- */

typedef int (*open_fn)(const char *, int, ...);
typedef int (*openat_fn)(int, const char *, int, ...);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef ssize_t (*read_fn)(int, void *, size_t);
typedef int (*close_fn)(int);

static struct {
    open_fn open, open64;
    openat_fn openat, openat64;
    ioctl_fn ioctl;
    read_fn read;
    close_fn close;
} real;

static pthread_once_t resolve_once = PTHREAD_ONCE_INIT;

static void resolve(void) {
    real.open = (open_fn)dlsym(RTLD_NEXT, "open");
    real.open64 = (open_fn)dlsym(RTLD_NEXT, "open64");
    real.openat = (openat_fn)dlsym(RTLD_NEXT, "openat");
    real.openat64 = (openat_fn)dlsym(RTLD_NEXT, "openat64");
    real.ioctl = (ioctl_fn)dlsym(RTLD_NEXT, "ioctl");
    real.read = (read_fn)dlsym(RTLD_NEXT, "read");
    real.close = (close_fn)dlsym(RTLD_NEXT, "close");
    if (real.open64 == NULL) real.open64 = real.open;
    if (real.openat64 == NULL) real.openat64 = real.openat;
}

static void need_real(void) { pthread_once(&resolve_once, resolve); }

/* ---- controls ------------------------------------------------------------------ */

enum { F_OPEN, F_IRQP, F_PIE, F_READ, F_SET, F_RD, F_COUNT };
static const char *const fail_names[F_COUNT] = {"open", "irqp", "pie", "read", "set", "rd"};
static const int fail_errno[F_COUNT] = {ENOENT, EINVAL, EIO, EIO, EIO, EIO};

static struct {
    uint64_t stall_after; /* UINT64_MAX: never */
    int stall_rearm;
    uint64_t gap_after;   /* 0: no gap */
    int64_t gap_ns;
    uint64_t fail_from[F_COUNT]; /* 0: never */
    int64_t set_phase_ns;
    char log_path[512];
} ctl;

static uint64_t env_u64(const char *name, uint64_t dflt) {
    const char *s = getenv(name);
    if (s == NULL || *s == '\0') return dflt;
    return strtoull(s, NULL, 10);
}

static void read_controls(void) {
    ctl.stall_after = env_u64("KAVRO_RTC_STALL_AFTER", UINT64_MAX);
    ctl.stall_rearm = env_u64("KAVRO_RTC_STALL_REARM", 0) != 0;
    ctl.set_phase_ns = (int64_t)env_u64("KAVRO_RTC_SET_PHASE_MS", 500) * 1000000;
    const char *gap = getenv("KAVRO_RTC_GAP");
    if (gap != NULL) {
        unsigned long long n = 0, ms = 0;
        if (sscanf(gap, "%llu:%llu", &n, &ms) == 2 && n > 0) {
            ctl.gap_after = n;
            ctl.gap_ns = (int64_t)ms * 1000000;
        }
    }
    const char *fail = getenv("KAVRO_RTC_FAIL");
    while (fail != NULL && *fail != '\0') {
        size_t len = strcspn(fail, ",");
        for (int i = 0; i < F_COUNT; ++i) {
            size_t nl = strlen(fail_names[i]);
            if (len >= nl && strncmp(fail, fail_names[i], nl) == 0 &&
                (len == nl || fail[nl] == '@')) {
                uint64_t k = len == nl ? 1 : strtoull(fail + nl + 1, NULL, 10);
                ctl.fail_from[i] = k == 0 ? 1 : k;
            }
        }
        fail += len;
        if (*fail == ',') ++fail;
    }
    const char *log = getenv("KAVRO_RTC_LOG");
    if (log != NULL) snprintf(ctl.log_path, sizeof ctl.log_path, "%s", log);
}

/* ---- the device ------------------------------------------------------------------ */

static struct {
    pthread_mutex_t lock;
    pthread_cond_t change; /* on CLOCK_MONOTONIC: open, close, rate, PIE */
    int fd;                /* the emulated descriptor, -1 when closed */
    int rate;
    int pie;
    int64_t train_start;   /* monotonic ns of interrupt 0 of the current train */
    uint64_t next_k;       /* first index of the train not yet accounted */
    uint64_t raised;       /* interrupts raised over the process's life */
    uint64_t pending;      /* raised since the last read */
    int stalled;
    int64_t gap_end;       /* interrupts up to this monotonic ns are lost */
    uint64_t calls[F_COUNT];
    /* software CMOS clock: `base` until anchor + first, then one more per second */
    int64_t cmos_base;
    int64_t cmos_anchor;
    int64_t cmos_first;
} dev = {.lock = PTHREAD_MUTEX_INITIALIZER, .fd = -1, .rate = 1024, .gap_end = -1};

static int64_t mono_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * NS_PER_SEC + ts.tv_nsec;
}

static int64_t period_ns(void) { return NS_PER_SEC / dev.rate; }

/* True (errno set) when this request is one of those told to fail. */
static int failing(int which) {
    ++dev.calls[which];
    if (ctl.fail_from[which] != 0 && dev.calls[which] >= ctl.fail_from[which]) {
        errno = fail_errno[which];
        return 1;
    }
    return 0;
}

static void log_event(const char *fmt, ...) {
    if (ctl.log_path[0] == '\0') return;
    struct timeval tv;
    gettimeofday(&tv, NULL);
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (n < 0 || (size_t)n >= sizeof line) return;
    n += snprintf(line + n, sizeof line - n, " wall=%lld.%06ld\n", (long long)tv.tv_sec,
                  (long)tv.tv_usec);
    need_real();
    int fd = real.open(ctl.log_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    if (write(fd, line, (size_t)n) != n) {
    }
    real.close(fd);
}

/* Accounts the interrupts of the train up to `now` (lock held). */
static void advance(int64_t now) {
    if (!dev.pie || dev.stalled) return;
    const int64_t p = period_ns();
    if (now < dev.train_start) return;
    const uint64_t kmax = (uint64_t)((now - dev.train_start) / p);
    while (dev.next_k <= kmax && !dev.stalled) {
        const int64_t t = dev.train_start + (int64_t)dev.next_k * p;
        if (t <= dev.gap_end) {
            dev.next_k = (uint64_t)((dev.gap_end - dev.train_start) / p) + 1;
            continue;
        }
        if (dev.raised >= ctl.stall_after) {
            dev.stalled = 1;
            break;
        }
        uint64_t n = kmax - dev.next_k + 1;
        if (ctl.stall_after - dev.raised < n) n = ctl.stall_after - dev.raised;
        if (ctl.gap_after > dev.raised && ctl.gap_after - dev.raised < n)
            n = ctl.gap_after - dev.raised;
        dev.raised += n;
        dev.pending += n;
        dev.next_k += n;
        if (ctl.gap_after != 0 && dev.raised == ctl.gap_after)
            dev.gap_end = dev.train_start + (int64_t)(dev.next_k - 1) * p + ctl.gap_ns;
    }
}

/* Monotonic ns of the next interrupt that will be raised, NEVER when none
 * will come without a request (lock held, after advance). */
static int64_t next_interrupt(void) {
    if (!dev.pie || dev.stalled || dev.raised >= ctl.stall_after) return NEVER;
    const int64_t p = period_ns();
    int64_t t = dev.train_start + (int64_t)dev.next_k * p;
    if (t <= dev.gap_end) t = dev.train_start + ((dev.gap_end - dev.train_start) / p + 1) * p;
    return t;
}

static void start_train(int64_t now) {
    dev.train_start = now;
    dev.next_k = 1;
    if (ctl.stall_rearm && dev.stalled) {
        dev.stalled = 0;
        ctl.stall_after = UINT64_MAX;
    }
}

static int64_t cmos_now(int64_t now) {
    if (now < dev.cmos_anchor + dev.cmos_first) return dev.cmos_base;
    return dev.cmos_base + 1 + (now - dev.cmos_anchor - dev.cmos_first) / NS_PER_SEC;
}

static int valid_rtc_time(const struct rtc_time *t) {
    static const int mdays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (t->tm_year < 70 || t->tm_mon < 0 || t->tm_mon > 11 || t->tm_mday < 1 || t->tm_hour < 0 ||
        t->tm_hour > 23 || t->tm_min < 0 || t->tm_min > 59 || t->tm_sec < 0 || t->tm_sec > 59)
        return 0;
    const int y = t->tm_year + 1900;
    const int leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return t->tm_mday <= mdays[t->tm_mon] + (t->tm_mon == 1 && leap);
}

__attribute__((constructor)) static void emulator_load(void) {
    need_real();
    read_controls();
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
    pthread_cond_init(&dev.change, &ca);
    pthread_condattr_destroy(&ca);
    /* The CMOS clock starts in step with the wall clock's seconds. */
    struct timespec wall;
    clock_gettime(CLOCK_REALTIME, &wall);
    dev.cmos_base = wall.tv_sec;
    dev.cmos_anchor = mono_ns();
    dev.cmos_first = NS_PER_SEC - wall.tv_nsec;
}

/* ---- requests ---------------------------------------------------------------------- */

static int is_rtc_path(const char *path) {
    return path != NULL && (strcmp(path, "/dev/rtc") == 0 || strcmp(path, "/dev/rtc0") == 0);
}

static int rtc_open(int flags) {
    need_real();
    pthread_mutex_lock(&dev.lock);
    int fd = -1;
    if (failing(F_OPEN)) {
    } else if (dev.fd >= 0) {
        errno = EBUSY;
    } else {
        fd = real.open("/dev/null", O_RDONLY | (flags & (O_CLOEXEC | O_NONBLOCK)));
        if (fd >= 0) {
            __atomic_store_n(&dev.fd, fd, __ATOMIC_RELEASE);
            dev.pie = 0;
            dev.pending = 0;
            pthread_cond_broadcast(&dev.change);
        }
    }
    pthread_mutex_unlock(&dev.lock);
    return fd;
}

static int rtc_ioctl(unsigned long req, void *arg) {
    const int64_t now = mono_ns();
    int rc = 0;
    pthread_mutex_lock(&dev.lock);
    advance(now);
    switch (req) {
    case RTC_IRQP_SET: {
        const unsigned long hz = (unsigned long)arg;
        if (failing(F_IRQP)) {
            rc = -1;
        } else if (hz < 2 || hz > 8192 || (hz & (hz - 1)) != 0) {
            errno = EINVAL;
            rc = -1;
        } else {
            dev.rate = (int)hz;
            start_train(now);
            log_event("IRQP_SET %lu", hz);
        }
        break;
    }
    case RTC_IRQP_READ:
        if (arg == NULL) {
            errno = EFAULT;
            rc = -1;
        } else {
            *(unsigned long *)arg = (unsigned long)dev.rate;
        }
        break;
    case RTC_PIE_ON:
        if (failing(F_PIE)) {
            rc = -1;
        } else {
            if (!dev.pie || (ctl.stall_rearm && dev.stalled)) start_train(now);
            dev.pie = 1;
            log_event("PIE_ON");
        }
        break;
    case RTC_PIE_OFF:
        dev.pie = 0;
        log_event("PIE_OFF");
        break;
    case RTC_RD_TIME: {
        struct rtc_time *out = (struct rtc_time *)arg;
        if (failing(F_RD)) {
            rc = -1;
        } else if (out == NULL) {
            errno = EFAULT;
            rc = -1;
        } else {
            const time_t t = (time_t)cmos_now(now);
            struct tm b;
            gmtime_r(&t, &b);
            memset(out, 0, sizeof *out);
            out->tm_sec = b.tm_sec;
            out->tm_min = b.tm_min;
            out->tm_hour = b.tm_hour;
            out->tm_mday = b.tm_mday;
            out->tm_mon = b.tm_mon;
            out->tm_year = b.tm_year;
            out->tm_wday = b.tm_wday;
            out->tm_yday = b.tm_yday;
        }
        break;
    }
    case RTC_SET_TIME: {
        const struct rtc_time *in = (const struct rtc_time *)arg;
        if (failing(F_SET)) {
            rc = -1;
        } else if (in == NULL) {
            errno = EFAULT;
            rc = -1;
        } else if (!valid_rtc_time(in)) {
            errno = EINVAL;
            rc = -1;
        } else {
            struct tm b = {0};
            b.tm_sec = in->tm_sec;
            b.tm_min = in->tm_min;
            b.tm_hour = in->tm_hour;
            b.tm_mday = in->tm_mday;
            b.tm_mon = in->tm_mon;
            b.tm_year = in->tm_year;
            dev.cmos_base = (int64_t)timegm(&b);
            dev.cmos_anchor = now;
            dev.cmos_first = ctl.set_phase_ns;
            log_event("SET %04d-%02d-%02d %02d:%02d:%02d %lld", in->tm_year + 1900, in->tm_mon + 1,
                      in->tm_mday, in->tm_hour, in->tm_min, in->tm_sec, (long long)dev.cmos_base);
        }
        break;
    }
    default:
        errno = ENOTTY;
        rc = -1;
        break;
    }
    pthread_cond_broadcast(&dev.change);
    pthread_mutex_unlock(&dev.lock);
    return rc;
}

static ssize_t rtc_read(int fd, void *buf, size_t n) {
    if (n < sizeof(uint32_t)) {
        errno = EINVAL;
        return -1;
    }
    const int nonblock = (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
    ssize_t rc = -1;
    pthread_mutex_lock(&dev.lock);
    if (failing(F_READ)) {
        pthread_mutex_unlock(&dev.lock);
        return -1;
    }
    for (;;) {
        if (dev.fd != fd) {
            errno = EBADF;
            break;
        }
        advance(mono_ns());
        if (dev.pending > 0) {
            const unsigned long word = (unsigned long)((dev.pending & 0xFFFFFF) << 8) | RTC_PF | RTC_IRQF;
            dev.pending = 0;
            if (n >= sizeof(unsigned long)) {
                memcpy(buf, &word, sizeof word);
                rc = sizeof word;
            } else {
                const uint32_t w = (uint32_t)word;
                memcpy(buf, &w, sizeof w);
                rc = sizeof w;
            }
            break;
        }
        if (nonblock) {
            errno = EAGAIN;
            break;
        }
        const int64_t when = next_interrupt();
        if (when == NEVER) {
            pthread_cond_wait(&dev.change, &dev.lock);
        } else {
            struct timespec at = {.tv_sec = (time_t)(when / NS_PER_SEC),
                                  .tv_nsec = (long)(when % NS_PER_SEC)};
            pthread_cond_timedwait(&dev.change, &dev.lock, &at);
        }
    }
    pthread_mutex_unlock(&dev.lock);
    return rc;
}

static int is_rtc_fd(int fd) {
    /* Unlocked peek: the answer only matters for the descriptor in hand. */
    return fd >= 0 && __atomic_load_n(&dev.fd, __ATOMIC_ACQUIRE) == fd;
}

/* ---- the interposed entry points ------------------------------------------------------ */

static int wants_mode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

#define MODE_ARG(flags, mode)               \
    do {                                    \
        if (wants_mode(flags)) {            \
            va_list ap;                     \
            va_start(ap, flags);            \
            mode = (mode_t)va_arg(ap, int); \
            va_end(ap);                     \
        }                                   \
    } while (0)

API int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    MODE_ARG(flags, mode);
    if (is_rtc_path(path)) return rtc_open(flags);
    need_real();
    return real.open(path, flags, mode);
}

API int open64(const char *path, int flags, ...) {
    mode_t mode = 0;
    MODE_ARG(flags, mode);
    if (is_rtc_path(path)) return rtc_open(flags);
    need_real();
    return real.open64(path, flags, mode);
}

API int __open_2(const char *path, int flags) {
    if (is_rtc_path(path)) return rtc_open(flags);
    need_real();
    return real.open(path, flags);
}

API int __open64_2(const char *path, int flags) {
    if (is_rtc_path(path)) return rtc_open(flags);
    need_real();
    return real.open64(path, flags);
}

API int openat(int dirfd, const char *path, int flags, ...) {
    mode_t mode = 0;
    MODE_ARG(flags, mode);
    if (is_rtc_path(path)) return rtc_open(flags);
    need_real();
    return real.openat(dirfd, path, flags, mode);
}

API int openat64(int dirfd, const char *path, int flags, ...) {
    mode_t mode = 0;
    MODE_ARG(flags, mode);
    if (is_rtc_path(path)) return rtc_open(flags);
    need_real();
    return real.openat64(dirfd, path, flags, mode);
}

API int ioctl(int fd, unsigned long req, ...) {
    va_list ap;
    va_start(ap, req);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (is_rtc_fd(fd)) return rtc_ioctl(req, arg);
    need_real();
    return real.ioctl(fd, req, arg);
}

API ssize_t read(int fd, void *buf, size_t n) {
    if (is_rtc_fd(fd)) return rtc_read(fd, buf, n);
    need_real();
    return real.read(fd, buf, n);
}

API ssize_t __read_chk(int fd, void *buf, size_t n, size_t buflen) {
    if (n > buflen) abort();
    return read(fd, buf, n);
}

API int close(int fd) {
    need_real();
    if (is_rtc_fd(fd)) {
        pthread_mutex_lock(&dev.lock);
        if (dev.fd == fd) {
            __atomic_store_n(&dev.fd, -1, __ATOMIC_RELEASE);
            dev.pie = 0;
            dev.pending = 0;
            pthread_cond_broadcast(&dev.change);
        }
        pthread_mutex_unlock(&dev.lock);
    }
    return real.close(fd);
}
