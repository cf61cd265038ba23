/* An emulated /dev/rtc, preloaded by the tick and CMOS tests: RTC_IRQP_SET and RTC_PIE_ON start periodic interrupts,
 * a read waits for the next; RTC_SET_TIME / RTC_RD_TIME keep a CMOS clock (UTC) whose first second after a set ends
 * 500 ms later. KAVRO_RTC_FAIL=open|irqp|pie|read: that call fails with EIO; KAVRO_RTC_FAIL=stall: no interrupt ever.
 * Logs "IRQP_SET <hz>", "PIE_ON 1" and "SET <epoch>" to standard output, each ending " wall=<s>.<us>". */
#define _GNU_SOURCE
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

#define NS 1000000000LL

static int (*real_open)(const char *, int, ...);
static int (*real_ioctl)(int, unsigned long, ...);
static ssize_t (*real_read)(int, void *, size_t);
/* The C library's call, found on first use (which may come before the constructor has run). */
static void *next_symbol(void **f, const char *name) { return *f != NULL ? *f : (*f = dlsym(RTLD_NEXT, name)); }
#define REAL(f) ((__typeof__(real_##f))next_symbol((void **)&real_##f, #f))

static struct {
    pthread_mutex_t lock;
    int fd, rate, pie;
    int64_t next, cmos_ns; /* monotonic ns of the next interrupt; CMOS clock minus the monotonic clock */
    const char *fail;
} dev = {.lock = PTHREAD_MUTEX_INITIALIZER, .fd = -1, .rate = 1024, .fail = ""};

static int64_t clock_ns(clockid_t id) {
    struct timespec ts;
    return clock_gettime(id, &ts), (int64_t)ts.tv_sec * NS + ts.tv_nsec;
}

__attribute__((constructor)) static void emulator_load(void) {
    if (getenv("KAVRO_RTC_FAIL") != NULL) dev.fail = getenv("KAVRO_RTC_FAIL");
    dev.cmos_ns = clock_ns(CLOCK_REALTIME) - clock_ns(CLOCK_MONOTONIC); /* in step with the wall clock */
}
static int failing(const char *call) { return strcmp(dev.fail, call) == 0 ? (errno = EIO, 1) : 0; }
static void log_event(const char *what, long long value) {
    struct timeval tv;
    gettimeofday(&tv, NULL);
    dprintf(1, "%s %lld wall=%lld.%06ld\n", what, value, (long long)tv.tv_sec, (long)tv.tv_usec);
}

static int is_rtc_fd(int fd) { return fd >= 0 && __atomic_load_n(&dev.fd, __ATOMIC_ACQUIRE) == fd; }

int open(const char *path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? (mode_t)va_arg(ap, int) : 0;
    va_end(ap);
    if (strcmp(path, "/dev/rtc") != 0) return REAL(open)(path, flags, mode);
    if (failing("open")) return -1;
    const int fd = REAL(open)("/dev/null", O_RDONLY | (flags & O_CLOEXEC));
    __atomic_store_n(&dev.fd, fd, __ATOMIC_RELEASE);
    return fd;
}

/* struct rtc_time is the first nine fields of struct tm. */
int ioctl(int fd, unsigned long req, ...) {
    va_list ap;
    va_start(ap, req);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (!is_rtc_fd(fd)) return REAL(ioctl)(fd, req, arg);
    const int64_t now = clock_ns(CLOCK_MONOTONIC);
    int rc = 0;
    struct tm b = {0};
    pthread_mutex_lock(&dev.lock);
    if (req == RTC_RD_TIME) {
        const time_t s = (time_t)((now + dev.cmos_ns) / NS);
        memcpy(arg, gmtime_r(&s, &b), sizeof(struct rtc_time));
    } else if (req == RTC_SET_TIME) {
        memcpy(&b, arg, sizeof(struct rtc_time));
        const long long epoch = timegm(&b);
        dev.cmos_ns = epoch * NS + NS / 2 - now; /* its first second ends 500 ms later */
        log_event("SET", epoch);
    } else if (failing(req == RTC_PIE_ON ? "pie" : "irqp")) { /* the library asks nothing else */
        rc = -1;
    } else {
        dev.pie |= req == RTC_PIE_ON;
        if (req == RTC_IRQP_SET) dev.rate = (int)(uintptr_t)arg;
        dev.next = now + NS / dev.rate; /* a new train */
        log_event(req == RTC_PIE_ON ? "PIE_ON" : "IRQP_SET", req == RTC_PIE_ON ? 1 : dev.rate);
    }
    pthread_mutex_unlock(&dev.lock);
    return rc;
}

ssize_t read(int fd, void *buf, size_t n) {
    if (!is_rtc_fd(fd)) return REAL(read)(fd, buf, n);
    if (failing("read")) return -1;
    for (;;) {
        pthread_mutex_lock(&dev.lock);
        const int64_t now = clock_ns(CLOCK_MONOTONIC), period = NS / dev.rate, next = dev.next;
        const int ticking = dev.pie && strcmp(dev.fail, "stall") != 0, ready = ticking && now >= next;
        if (ready) dev.next += ((now - next) / period + 1) * period;
        pthread_mutex_unlock(&dev.lock);
        if (ready) return memcpy(buf, &(uint32_t){RTC_PF | RTC_IRQF | 1 << 8}, 4), 4;
        const int64_t until = ticking ? next : now + NS / 10;
        const struct timespec ts = {.tv_sec = (time_t)(until / NS), .tv_nsec = (long)(until % NS)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL);
    }
}
