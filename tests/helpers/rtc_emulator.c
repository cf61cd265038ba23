/* The emulated real-time-clock device (see rtc_emulator.h). */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/rtc.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#define API __attribute__((visibility("default")))
#define NS  1000000000LL

static int (*real_open)(const char *, int, ...);
static int (*real_ioctl)(int, unsigned long, ...);
static ssize_t (*real_read)(int, void *, size_t);

static struct {
    pthread_mutex_t lock;
    int fd, rate, pie, stall;
    int64_t start;          /* monotonic ns of the current train's start */
    uint64_t before, taken; /* raised before this train; reported by reads */
    char fail[16];          /* the call that fails, from its fail_at-th on */
    long fail_at, calls;
    int64_t cmos_base, cmos_turn; /* CMOS seconds: base until cmos_turn, then one more each second */
    const char *log;
} dev = {.lock = PTHREAD_MUTEX_INITIALIZER, .fd = -1, .rate = 1024};

static int64_t mono_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * NS + ts.tv_nsec;
}

/* Interrupts raised up to now (lock held). */
static uint64_t raised(int64_t now) {
    if (dev.stall || !dev.pie || now <= dev.start) return dev.before;
    return dev.before + (uint64_t)((now - dev.start) / (NS / dev.rate));
}

static int failing(const char *call) {
    if (strcmp(dev.fail, call) != 0 || __atomic_add_fetch(&dev.calls, 1, __ATOMIC_RELAXED) < dev.fail_at) return 0;
    return errno = EIO, 1;
}

__attribute__((format(printf, 1, 2))) static void log_event(const char *fmt, ...) {
    FILE *f = dev.log != NULL ? fopen(dev.log, "ae") : NULL;
    if (f == NULL) return;
    struct timeval tv;
    gettimeofday(&tv, NULL);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(f, fmt, ap);
    va_end(ap);
    fprintf(f, " wall=%lld.%06ld\n", (long long)tv.tv_sec, (long)tv.tv_usec);
    fclose(f);
}

/* Also on a first call that comes before the constructor has run. */
static void resolve(void) {
    real_open = (int (*)(const char *, int, ...))dlsym(RTLD_NEXT, "open");
    real_ioctl = (int (*)(int, unsigned long, ...))dlsym(RTLD_NEXT, "ioctl");
    real_read = (ssize_t(*)(int, void *, size_t))dlsym(RTLD_NEXT, "read");
}

__attribute__((constructor)) static void emulator_load(void) {
    resolve();
    dev.stall = getenv("KAVRO_RTC_STALL") != NULL;
    dev.log = getenv("KAVRO_RTC_LOG");
    const char *f = getenv("KAVRO_RTC_FAIL");
    snprintf(dev.fail, sizeof dev.fail, "%s", f != NULL ? f : "");
    char *at = strchr(dev.fail, '@');
    dev.fail_at = at != NULL ? (*at = '\0', atol(at + 1)) : 1;
    struct timespec wall;
    clock_gettime(CLOCK_REALTIME, &wall);
    dev.cmos_base = wall.tv_sec; /* in step with the wall clock's seconds */
    dev.cmos_turn = mono_ns() + NS - wall.tv_nsec;
}

static int is_rtc_fd(int fd) { return fd >= 0 && __atomic_load_n(&dev.fd, __ATOMIC_ACQUIRE) == fd; }

API int open(const char *path, int flags, ...) {
    if (real_open == NULL) resolve();
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list ap;
        va_start(ap, flags);
        mode = (mode_t)va_arg(ap, int);
        va_end(ap);
    }
    if (strcmp(path, "/dev/rtc") != 0) return real_open(path, flags, mode);
    if (failing("open")) return -1;
    const int fd = real_open("/dev/null", O_RDONLY | (flags & O_CLOEXEC));
    __atomic_store_n(&dev.fd, fd, __ATOMIC_RELEASE);
    return fd;
}

API int ioctl(int fd, unsigned long req, ...) {
    if (real_ioctl == NULL) resolve();
    va_list ap;
    va_start(ap, req);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (!is_rtc_fd(fd)) return real_ioctl(fd, req, arg);
    const int64_t now = mono_ns();
    struct rtc_time *t = arg;
    int rc = 0;
    pthread_mutex_lock(&dev.lock);
    if (req == RTC_IRQP_SET || req == RTC_PIE_ON) {
        if (failing(req == RTC_PIE_ON ? "pie" : "irqp")) {
            rc = -1;
        } else {
            dev.before = raised(now), dev.start = now; /* a new train */
            if (req == RTC_PIE_ON)
                dev.pie = 1, log_event("PIE_ON");
            else
                dev.rate = (int)(uintptr_t)arg, log_event("IRQP_SET %d", dev.rate);
        }
    } else if (req == RTC_RD_TIME) {
        const time_t s = (time_t)(dev.cmos_base + (now < dev.cmos_turn ? 0 : 1 + (now - dev.cmos_turn) / NS));
        struct tm b;
        gmtime_r(&s, &b);
        memset(t, 0, sizeof *t);
        t->tm_sec = b.tm_sec, t->tm_min = b.tm_min, t->tm_hour = b.tm_hour;
        t->tm_mday = b.tm_mday, t->tm_mon = b.tm_mon, t->tm_year = b.tm_year;
    } else if (req == RTC_SET_TIME) {
        struct tm b = {.tm_sec = t->tm_sec, .tm_min = t->tm_min, .tm_hour = t->tm_hour};
        b.tm_mday = t->tm_mday, b.tm_mon = t->tm_mon, b.tm_year = t->tm_year;
        dev.cmos_base = (int64_t)timegm(&b), dev.cmos_turn = now + NS / 2;
        log_event("SET %lld", (long long)dev.cmos_base);
    } else {
        rc = -1, errno = ENOTTY;
    }
    pthread_mutex_unlock(&dev.lock);
    return rc;
}

/* One read per interrupt; interrupts missed in between are reported by the next. */
API ssize_t read(int fd, void *buf, size_t n) {
    if (real_read == NULL) resolve();
    if (!is_rtc_fd(fd)) return real_read(fd, buf, n);
    if (failing("read")) return -1;
    for (;;) {
        pthread_mutex_lock(&dev.lock);
        const int64_t now = mono_ns();
        const uint64_t r = raised(now);
        const uint32_t word = (uint32_t)(((r - dev.taken) & 0xFFFFFF) << 8) | RTC_PF | RTC_IRQF;
        const int64_t next =
            dev.pie && !dev.stall ? dev.start + (int64_t)(r - dev.before + 1) * (NS / dev.rate) : now + NS / 10;
        const int ready = r > dev.taken;
        if (ready) dev.taken = r;
        pthread_mutex_unlock(&dev.lock);
        if (ready) return memcpy(buf, &word, sizeof word), (ssize_t)sizeof word;
        const struct timespec ts = {.tv_sec = (time_t)(next / NS), .tv_nsec = (long)(next % NS)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL);
    }
}
