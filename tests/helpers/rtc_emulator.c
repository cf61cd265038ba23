/* The emulated real-time-clock device (see rtc_emulator.h). */
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
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#define API __attribute__((visibility("default")))
#define NS  1000000000LL

static int (*real_open)(const char *, int, ...);
static int (*real_ioctl)(int, unsigned long, ...);
static ssize_t (*real_read)(int, void *, size_t);
static int (*real_close)(int);

enum { F_OPEN, F_IRQP, F_PIE, F_READ, F_COUNT };
static const char *const fail_names[F_COUNT] = {"open", "irqp", "pie", "read"};
static const int fail_errno[F_COUNT] = {ENOENT, EINVAL, EIO, EIO};

static struct {
    pthread_mutex_t lock;
    pthread_cond_t change;
    int fd, rate, pie;
    int64_t start;          /* monotonic ns of the current train's start */
    uint64_t before, taken; /* raised before this train; reported by reads */
    uint64_t stall_after;   /* interrupts raised in all, at most */
    uint64_t fail_from[F_COUNT], calls[F_COUNT];
    int64_t cmos_base, cmos_turn; /* CMOS seconds: base until cmos_turn, then one more each second */
    char log[512];
} dev = {.lock = PTHREAD_MUTEX_INITIALIZER, .fd = -1, .rate = 1024, .stall_after = UINT64_MAX};

static int64_t mono_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * NS + ts.tv_nsec;
}

/* Interrupts raised up to now (lock held). */
static uint64_t raised(int64_t now) {
    uint64_t n = dev.before + (dev.pie && now > dev.start ? (uint64_t)((now - dev.start) / (NS / dev.rate)) : 0);
    return n < dev.stall_after ? n : dev.stall_after;
}

static void start_train(int64_t now) { dev.before = raised(now), dev.start = now; }

static int failing(int which) {
    const int fail = dev.fail_from[which] != 0 && ++dev.calls[which] >= dev.fail_from[which];
    if (fail) errno = fail_errno[which];
    return fail;
}

static void log_event(const char *fmt, ...) {
    if (dev.log[0] == '\0') return;
    struct timeval tv;
    gettimeofday(&tv, NULL);
    char line[256];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line - 40, fmt, ap);
    va_end(ap);
    n += snprintf(line + n, sizeof line - (size_t)n, " wall=%lld.%06ld\n", (long long)tv.tv_sec, (long)tv.tv_usec);
    const int fd = real_open(dev.log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) real_close(fd + 0 * (int)write(fd, line, (size_t)n));
}

/* Also on a first call that comes before the constructor has run. */
static void resolve(void) {
    real_open = (int (*)(const char *, int, ...))dlsym(RTLD_NEXT, "open");
    real_ioctl = (int (*)(int, unsigned long, ...))dlsym(RTLD_NEXT, "ioctl");
    real_read = (ssize_t(*)(int, void *, size_t))dlsym(RTLD_NEXT, "read");
    real_close = (int (*)(int))dlsym(RTLD_NEXT, "close");
}

__attribute__((constructor)) static void emulator_load(void) {
    resolve();
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
    pthread_cond_init(&dev.change, &ca);
    const char *s = getenv("KAVRO_RTC_STALL_AFTER");
    if (s != NULL && *s != '\0') dev.stall_after = strtoull(s, NULL, 10);
    for (const char *f = getenv("KAVRO_RTC_FAIL"); f != NULL && *f != '\0'; f += strcspn(f, ","), f += *f == ',')
        for (int i = 0; i < F_COUNT; ++i) {
            const size_t n = strlen(fail_names[i]);
            if (strncmp(f, fail_names[i], n) == 0 && (f[n] == '\0' || f[n] == ',' || f[n] == '@'))
                dev.fail_from[i] = f[n] == '@' ? strtoull(f + n + 1, NULL, 10) : 1;
        }
    if ((s = getenv("KAVRO_RTC_LOG")) != NULL) snprintf(dev.log, sizeof dev.log, "%s", s);
    struct timespec wall;
    clock_gettime(CLOCK_REALTIME, &wall);
    dev.cmos_base = wall.tv_sec; /* in step with the wall clock's seconds */
    dev.cmos_turn = mono_ns() + NS - wall.tv_nsec;
}

static int rtc_open(const char *path, int flags) {
    if (real_open == NULL) resolve();
    if (path == NULL || (strcmp(path, "/dev/rtc") != 0 && strcmp(path, "/dev/rtc0") != 0)) return -2;
    pthread_mutex_lock(&dev.lock);
    const int fd = failing(F_OPEN) ? -1
                   : dev.fd >= 0   ? (errno = EBUSY, -1)
                                   : real_open("/dev/null", O_RDONLY | (flags & O_CLOEXEC));
    if (fd >= 0) __atomic_store_n(&dev.fd, fd, __ATOMIC_RELEASE), dev.pie = 0, dev.taken = dev.before = 0;
    pthread_mutex_unlock(&dev.lock);
    return fd;
}

static int is_rtc_fd(int fd) { return fd >= 0 && __atomic_load_n(&dev.fd, __ATOMIC_ACQUIRE) == fd; }

static int rtc_ioctl(unsigned long req, void *arg) {
    const int64_t now = mono_ns();
    int rc = -1;
    pthread_mutex_lock(&dev.lock);
    const unsigned long hz = (unsigned long)arg;
    struct rtc_time *t = arg;
    if (req == RTC_IRQP_SET && !failing(F_IRQP)) {
        if (hz < 2 || hz > 8192 || (hz & (hz - 1)) != 0)
            errno = EINVAL;
        else
            start_train(now), dev.rate = (int)hz, log_event("IRQP_SET %lu", hz), rc = 0;
    } else if (req == RTC_PIE_ON && !failing(F_PIE)) {
        start_train(now), dev.pie = 1, log_event("PIE_ON"), rc = 0;
    } else if (req == RTC_IRQP_SET || req == RTC_PIE_ON) {
    } else if (req == RTC_RD_TIME) {
        const time_t s = (time_t)(dev.cmos_base + (now < dev.cmos_turn ? 0 : 1 + (now - dev.cmos_turn) / NS));
        struct tm b;
        gmtime_r(&s, &b);
        memset(t, 0, sizeof *t);
        t->tm_sec = b.tm_sec, t->tm_min = b.tm_min, t->tm_hour = b.tm_hour;
        t->tm_mday = b.tm_mday, t->tm_mon = b.tm_mon, t->tm_year = b.tm_year;
        rc = 0;
    } else if (req == RTC_SET_TIME) {
        if (t->tm_year < 70 || t->tm_mon < 0 || t->tm_mon > 11 || t->tm_mday < 1 || t->tm_mday > 31 || t->tm_hour < 0 ||
            t->tm_hour > 23 || t->tm_min < 0 || t->tm_min > 59 || t->tm_sec < 0 || t->tm_sec > 59) {
            errno = EINVAL;
        } else {
            struct tm b = {.tm_sec = t->tm_sec,
                           .tm_min = t->tm_min,
                           .tm_hour = t->tm_hour,
                           .tm_mday = t->tm_mday,
                           .tm_mon = t->tm_mon,
                           .tm_year = t->tm_year};
            dev.cmos_base = (int64_t)timegm(&b);
            dev.cmos_turn = now + NS / 2;
            log_event("SET %04d-%02d-%02d %02d:%02d:%02d %lld", t->tm_year + 1900, t->tm_mon + 1, t->tm_mday,
                      t->tm_hour, t->tm_min, t->tm_sec, (long long)dev.cmos_base);
            rc = 0;
        }
    } else {
        errno = ENOTTY;
    }
    pthread_cond_broadcast(&dev.change);
    pthread_mutex_unlock(&dev.lock);
    return rc;
}

static ssize_t rtc_read(int fd, void *buf, size_t n) {
    if (n < sizeof(uint32_t)) return errno = EINVAL, -1;
    ssize_t rc = -1;
    pthread_mutex_lock(&dev.lock);
    for (int fail = failing(F_READ); !fail;) {
        if (dev.fd != fd && (errno = EBADF)) break;
        const uint64_t r = raised(mono_ns());
        if (r > dev.taken) {
            const uint32_t word = (uint32_t)(((r - dev.taken) & 0xFFFFFF) << 8) | RTC_PF | RTC_IRQF;
            dev.taken = r;
            memcpy(buf, &word, sizeof word);
            rc = sizeof word;
            break;
        }
        if (!dev.pie || r >= dev.stall_after) {
            pthread_cond_wait(&dev.change, &dev.lock);
        } else {
            const int64_t p = NS / dev.rate, at = dev.start + ((int64_t)(r - dev.before) + 1) * p;
            struct timespec ts = {.tv_sec = (time_t)(at / NS), .tv_nsec = (long)(at % NS)};
            pthread_cond_timedwait(&dev.change, &dev.lock, &ts);
        }
    }
    pthread_mutex_unlock(&dev.lock);
    return rc;
}

API int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list ap;
        va_start(ap, flags);
        mode = (mode_t)va_arg(ap, int);
        va_end(ap);
    }
    const int fd = rtc_open(path, flags);
    return fd != -2 ? fd : real_open(path, flags, mode);
}

API int ioctl(int fd, unsigned long req, ...) {
    if (real_ioctl == NULL) resolve();
    va_list ap;
    va_start(ap, req);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    return is_rtc_fd(fd) ? rtc_ioctl(req, arg) : real_ioctl(fd, req, arg);
}

API ssize_t read(int fd, void *buf, size_t n) {
    if (real_read == NULL) resolve();
    return is_rtc_fd(fd) ? rtc_read(fd, buf, n) : real_read(fd, buf, n);
}

API int close(int fd) {
    if (real_close == NULL) resolve();
    if (is_rtc_fd(fd)) {
        pthread_mutex_lock(&dev.lock);
        __atomic_store_n(&dev.fd, -1, __ATOMIC_RELEASE);
        dev.pie = 0;
        pthread_cond_broadcast(&dev.change);
        pthread_mutex_unlock(&dev.lock);
    }
    return real_close(fd);
}
