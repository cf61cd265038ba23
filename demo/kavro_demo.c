/*
 * kavro-demo: a host program of the product's shape, written against the
 * installed library's public interface only.
 *
 * It optionally daemonises first, brings the families up in order, starts
 * the timer engine with its 2 ms timer armed, runs named threads at several
 * portable priorities (a task-locked counter and a mailbox pipeline), takes
 * messages from a writer process through a named-pipe channel, writes and
 * reads back registry values, takes everything down again and reports what
 * it saw: ticks served and their lateness, messages through each path, and
 * anything lost (which must be nothing).
 *
 *   kavro-demo [--daemon] [--report FILE] [--seconds N] [--hold MS] [--no-sandbox]
 *
 * --hold keeps every thread, the task lock and the channel busy for MS
 * milliseconds after its work, so that `kavro top` can be shown them.
 *
 * Unless --no-sandbox is given and when it may, it works in a private mount
 * namespace with an empty /usr/torvanex, so the host's own product files are
 * never touched.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <kavro_rt/kavro_rt.h>

#define PRODUCT_ROOT "/usr/torvanex"
#define USAGE                                                                                 \
    "usage: kavro-demo [--daemon] [--report FILE] [--seconds N] [--hold MS] [--no-sandbox]\n" \
    "  --daemon       detach first; the report goes to /tmp/kavro-demo.report\n"              \
    "  --report FILE  write the report to FILE\n"                                             \
    "  --seconds N    let the 2 ms tick run N seconds (1 to 3600, default 3)\n"               \
    "  --hold MS      keep threads, task lock and channel busy MS more, for `kavro top`\n"    \
    "  --no-sandbox   work in the host's /usr/torvanex, not in a private copy\n"
#define CHANNEL_KEY       4711
#define CHANNEL_MESSAGES  3000
#define CHANNEL_MSG_SIZE  64
#define PIPELINE_MESSAGES 20000
#define LOCK_THREADS      4
#define LOCK_ROUNDS       50000

static FILE *report;
static int failures;
static int lost;
static uint32_t hold_ms;

static void linger(void) {
    if (hold_ms) THREAD_Sleep(hold_ms);
}

static void say(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vfprintf(report, fmt, ap);
    va_end(ap);
    fflush(report);
}

static void check(const char *what, int ok) {
    say("  %-52s %s\n", what, ok ? "ok" : "FAILED");
    if (!ok) ++failures;
}

static int64_t now_ns(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000000000LL + t.tv_nsec;
}

/* ---- the 2 ms tick ------------------------------------------------------ */

/* Written by the tick thread only; read after the timer is disarmed. The
 * grid is the first callback's time plus whole 2 ms steps, so lateness here
 * is each tick's offset from where the grid says it belongs. */
static volatile int64_t tick_first_ns, tick_max_late_ns, tick_sum_late_ns;
static volatile uint32_t tick_count, tick_skipped;
static volatile int64_t tick_last_index;

static int32_t on_tick(uint32_t arg) {
    int64_t t = now_ns();
    (void)arg;
    if (tick_count == 0) {
        tick_first_ns = t;
    } else {
        int64_t since = t - tick_first_ns;
        int64_t index = (since + 1000000) / 2000000; /* the nearest grid point */
        int64_t late = since - index * 2000000;
        if (late < 0) late = -late;
        if (late > tick_max_late_ns) tick_max_late_ns = late;
        tick_sum_late_ns += late;
        if (index > tick_last_index + 1) tick_skipped += (uint32_t)(index - tick_last_index - 1);
        tick_last_index = index;
    }
    ++tick_count;
    return 0;
}

/* ---- a task-locked counter -------------------------------------------------- */

static volatile uint32_t locked_counter;
static volatile int lock_threads_done;

static void lock_worker(void *ctx) {
    int i;
    (void)ctx;
    for (i = 0; i < LOCK_ROUNDS; ++i) {
        LCK_Lock(NULL);
        LCK_Lock(NULL); /* nested entry of the same thread */
        locked_counter = locked_counter + 1;
        LCK_Unlock(NULL);
        LCK_Unlock(NULL);
    }
    LCK_Lock_2();
    ++lock_threads_done;
    LCK_Unlock_2();
    if (hold_ms) { /* one holds the task lock, the others wait for it */
        LCK_Lock(NULL);
        linger();
        LCK_Unlock(NULL);
    }
}

/* ---- a mailbox pipeline: producer -> filter -> consumer -------------------- */

typedef struct {
    uint32_t seq;
    uint32_t value;
    uint32_t check;
    uint32_t stage;
} PipeMsg;

static MBX_HANDLE stage1, stage2;
static volatile uint32_t pipeline_received, pipeline_out_of_order;
static volatile int pipeline_done;

static void producer(void *ctx) {
    uint32_t i;
    (void)ctx;
    for (i = 0; i < PIPELINE_MESSAGES; ++i) {
        PipeMsg m;
        m.seq = i;
        m.value = i * 2654435761u;
        m.check = m.seq ^ m.value;
        m.stage = 1;
        if (MBX_Post(stage1, &m, 5000) != 0) break;
    }
    linger();
}

static void filter(void *ctx) {
    uint32_t i;
    (void)ctx;
    for (i = 0; i < PIPELINE_MESSAGES; ++i) {
        PipeMsg m;
        if (MBX_Pend(stage1, &m, 5000) != 0) break;
        m.stage = 2;
        if (MBX_Post(stage2, &m, 5000) != 0) break;
    }
    linger();
}

static void consumer(void *ctx) {
    uint32_t expect = 0;
    (void)ctx;
    while (expect < PIPELINE_MESSAGES) {
        PipeMsg m;
        if (MBX_Pend(stage2, &m, 5000) != 0) break;
        if (m.seq != expect || m.check != (m.seq ^ m.value) || m.stage != 2) ++pipeline_out_of_order;
        expect = m.seq + 1;
        ++pipeline_received;
    }
    pipeline_done = 1;
    linger();
}

static ThreadObj *start_thread(const char *name, uint32_t priority, THREAD_UserFn fn) {
    ThreadAttr attr;
    ThreadObj *t = NULL;
    KAVRO_STATUS st;
    memset(&attr, 0, sizeof attr);
    attr.length = THREAD_ATTR_LENGTH;
    attr.priority = priority;
    attr.numArgs = THREAD_USE_CONTEXT;
    attr.name = name;
    st = THREAD_Create(&t, fn, NULL, &attr);
    if (st != 0 && priority != 0) {
        /* Without real-time rights, run it at the creator's scheduling. */
        attr.priority = 0;
        st = THREAD_Create(&t, fn, NULL, &attr);
        if (st == 0) say("  (thread %s runs without real-time priority here)\n", name);
    }
    if (st != 0) {
        say("  cannot start thread %s: status 0x%08X\n", name, (unsigned)st);
        ++failures;
        return NULL;
    }
    return t;
}

/* ---- the named-pipe channel: a writer process, this process the reader ---- */

static void channel_path(char *buf, size_t size, const char *root, int rank) {
    snprintf(buf, size, "%s/kmxipc/.pipe.%d%.*s", root, CHANNEL_KEY, rank + 1, "___");
}

static int open_channel(const char *root, int32_t fds[4]) {
    char path[512];
    int i;
    for (i = 0; i < 4; ++i) {
        if (i == 0)
            snprintf(path, sizeof path, "%s/kmxipc/.pipe.%d", root, CHANNEL_KEY);
        else
            channel_path(path, sizeof path, root, i - 1);
        fds[i] = -1;
        if (IPC_FIFO_Create(0, &fds[i], 0, path) != 0 || fds[i] < 0) return -1;
    }
    return 0;
}

static int writer_process(void) {
    uint32_t i;
    int32_t written;
    unsigned char msg[CHANNEL_MSG_SIZE];
    if (IPC_FIFO_Init() != 0) return 10;
    for (i = 0; i < CHANNEL_MESSAGES; ++i) {
        KAVRO_STATUS st;
        int spins = 0;
        memset(msg, (int)(i & 0xFF), sizeof msg);
        memcpy(msg, &i, sizeof i);
        /* A full rank pipe says "later": the reader is draining. */
        while ((st = IPC_FIFO_Write(0, CHANNEL_KEY, (int32_t)i, msg, &written, sizeof msg, 0)) == KAVRO_E_AGAIN &&
               spins++ < 5000)
            usleep(200);
        if (st != 0) return 11;
    }
    linger();
    IPC_FIFO_Exit();
    return 0;
}

static void run_channel(const char *root, uint32_t *received, uint32_t *bad) {
    int32_t fds[4];
    pid_t pid;
    int status = -1, i;
    int64_t give_up;
    *received = 0;
    *bad = 0;
    if (open_channel(root, fds) != 0) {
        check("reader opens its channel's four FIFOs", 0);
        return;
    }
    check("reader opens its channel's four FIFOs", 1);
    fflush(NULL);
    pid = fork();
    if (pid == 0) _exit(writer_process());
    give_up = now_ns() + 30000000000LL;
    while (*received < CHANNEL_MESSAGES && now_ns() < give_up) {
        struct pollfd p;
        unsigned char rank, msg[CHANNEL_MSG_SIZE];
        int32_t n = 0;
        uint32_t seq;
        p.fd = fds[0];
        p.events = POLLIN;
        p.revents = 0;
        if (poll(&p, 1, 100) <= 0) continue;
        if (IPC_FIFO_Read(fds[0], &rank, &n, 1) != 0 || n != 1) continue;
        if (rank > 2) {
            ++*bad;
            continue;
        }
        /* The message is in its rank pipe before its rank byte is sent. */
        if (IPC_FIFO_Read(fds[1 + rank], msg, &n, sizeof msg) != 0 || n != (int32_t)sizeof msg) {
            ++*bad;
            continue;
        }
        memcpy(&seq, msg, sizeof seq);
        if (seq != *received || msg[sizeof msg - 1] != (unsigned char)(seq & 0xFF)) ++*bad;
        ++*received;
    }
    waitpid(pid, &status, 0);
    check("writer process delivered every message", WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (i = 0; i < 4; ++i) close(fds[i]);
}

/* ---- registry --------------------------------------------------------------- */

static void run_registry(void) {
    const char *reg = PRODUCT_ROOT "/cfg/.registry";
    uint32_t size, period = 10, readback = 0;
    char text[64] = "";
    int fd;
    mkdir(PRODUCT_ROOT, 0755);
    mkdir(PRODUCT_ROOT "/cfg", 0755);
    fd = open(reg, O_CREAT | O_WRONLY | O_APPEND, 0644); /* the registry must exist */
    if (fd >= 0) close(fd);
    REG_Init();
    size = sizeof period;
    check("REG_SetValue Demo/Period (REG_DWORD 10)",
          REG_SetValue(NULL, "Demo", "Period", KAVRO_REG_DWORD, &period, &size) == 0);
    size = (uint32_t)strlen("studio-a") + 1;
    check("REG_SetValue Demo/Host (REG_SZ studio-a)",
          REG_SetValue(NULL, "Demo", "Host", KAVRO_REG_SZ, "studio-a", &size) == 0);
    size = sizeof readback;
    check("REG_GetValue Demo/Period reads the digits as hex (0x10)",
          REG_GetValue(NULL, "Demo", "Period", &readback, &size) == 0 && readback == 0x10);
    size = sizeof text;
    check("REG_GetValue Demo/Host reads studio-a",
          REG_GetValue(NULL, "Demo", "Host", text, &size) == 0 && strcmp(text, "studio-a") == 0);
    REG_Exit();
}

/* ---- the whole run ----------------------------------------------------------- */

static int private_product_root(void) {
    if (unshare(CLONE_NEWNS) != 0) return -1;
    if (mount("none", "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) return -1;
    mkdir(PRODUCT_ROOT, 0755);
    return mount("tmpfs", PRODUCT_ROOT, "tmpfs", 0, "mode=0755");
}

int main(int argc, char **argv) {
    const char *report_path = NULL;
    int daemon = 0, sandbox = 1, seconds = 3, i;
    const char *root;
    TmrTimer *timer = NULL;
    ThreadObj *threads[LOCK_THREADS + 3];
    uint32_t channel_received = 0, channel_bad = 0;
    char version[128] = "";
    int64_t started;

    for (i = 1; i < argc; ++i) {
        const char *a = argv[i], *value = NULL;
        if (strncmp(a, "--report", 8) == 0 || strncmp(a, "--seconds", 9) == 0 || strncmp(a, "--hold", 6) == 0) {
            const char *eq = strchr(a, '=');
            if (eq)
                value = eq + 1;
            else if (i + 1 < argc)
                value = argv[++i];
            else {
                fprintf(stderr, "kavro-demo: %s needs a value\n", a);
                return 2;
            }
        }
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            printf("%s", USAGE);
            return fflush(stdout) == 0 ? 0 : 1;
        } else if (strcmp(a, "--daemon") == 0) {
            daemon = 1;
        } else if (strcmp(a, "--no-sandbox") == 0) {
            sandbox = 0;
        } else if (strncmp(a, "--report", 8) == 0 && (a[8] == '\0' || a[8] == '=')) {
            report_path = value;
        } else if (strncmp(a, "--seconds", 9) == 0 && (a[9] == '\0' || a[9] == '=')) {
            char *end = NULL;
            long n;
            errno = 0;
            n = strtol(value, &end, 10);
            if (end == value || *end != '\0' || errno != 0 || n < 1 || n > 3600) {
                fprintf(stderr, "kavro-demo: --seconds takes a number from 1 to 3600, not '%s'\n", value);
                return 2;
            }
            seconds = (int)n;
        } else if (strncmp(a, "--hold", 6) == 0 && (a[6] == '\0' || a[6] == '=')) {
            char *end = NULL;
            unsigned long n;
            errno = 0;
            n = strtoul(value, &end, 10);
            if (end == value || *end != '\0' || errno != 0 || n > 3600000) {
                fprintf(stderr, "kavro-demo: --hold takes milliseconds from 0 to 3600000, not '%s'\n", value);
                return 2;
            }
            hold_ms = (uint32_t)n;
        } else {
            fprintf(stderr, "kavro-demo: unknown option '%s'\n%s", a, USAGE);
            return 2;
        }
    }
    if (daemon && report_path == NULL) report_path = "/tmp/kavro-demo.report";
    /* A report that cannot be written is found out before anything starts. */
    if (report_path != NULL) {
        FILE *probe = fopen(report_path, "w");
        if (probe == NULL) {
            fprintf(stderr, "kavro-demo: cannot write %s: %s\n", report_path, strerror(errno));
            return 1;
        }
        fclose(probe);
    }

    /* A daemon detaches before anything else exists; its report goes to a file. */
    if (daemon && ULX_Daemonize() != 0) return 1;
    report = report_path ? fopen(report_path, "w") : stdout;
    if (report == NULL) {
        fprintf(stderr, "kavro-demo: cannot write %s: %s\n", report_path, strerror(errno));
        return 1;
    }
    started = now_ns();
    qLibVersionString(version);
    say("kavro-demo: libkavro_rt %s%s\n", version, daemon ? " (daemonised; diagnostics in the system log)" : "");

    if (sandbox && private_product_root() == 0)
        say("working in a private " PRODUCT_ROOT "\n");
    else
        say("working in the host's " PRODUCT_ROOT "\n");
    if (getenv("TRVXROOT") == NULL) setenv("TRVXROOT", PRODUCT_ROOT, 1);
    root = getenv("TRVXROOT");

    say("bringing the families up\n");
    check("MEM_Init", MEM_Init() == 0);
    check("ULX_Init", ULX_Init() == 0);
    check("THREAD_Init", THREAD_Init() == 0);
    check("SEM_Init", SEM_Init() == 0);
    check("LCK_Init (task locks)", LCK_Init() == 0);
    check("MBX_Init", MBX_Init() == 0);
    check("IPC_FIFO_Init (named-pipe channels)", IPC_FIFO_Init() == 0);

    say("starting the timer engine\n");
    if (TMR_Init() == 0 && TMR_Create(&timer, 2.0, on_tick, 0) == 0 && timer != NULL) {
        check("TMR_Init and a 2 ms timer armed", 1);
    } else {
        say("  the timer engine did not start here (real-time scheduling refused?)\n");
        timer = NULL;
    }

    say("threads: a task-locked counter and a mailbox pipeline\n");
    check("MBX_Create two 16-byte mailboxes of 64 slots",
          MBX_Create(&stage1, sizeof(PipeMsg), 64) == 0 && MBX_Create(&stage2, sizeof(PipeMsg), 64) == 0);
    threads[0] = start_thread("producer", 6, producer);
    threads[1] = start_thread("filter", 7, filter);
    threads[2] = start_thread("consumer", 8, consumer);
    for (i = 0; i < LOCK_THREADS; ++i) {
        static const char *names[LOCK_THREADS] = {"counter-a", "counter-b", "counter-c", "counter-d"};
        threads[3 + i] = start_thread(names[i], (uint32_t)(2 + i), lock_worker);
    }

    say("named-pipe channel %d: a writer process to this reader\n", CHANNEL_KEY);
    run_channel(root, &channel_received, &channel_bad);

    for (i = 0; i < LOCK_THREADS + 3; ++i)
        if (threads[i]) THREAD_Join(threads[i]);
    check("every task-locked increment counted",
          locked_counter == (uint32_t)LOCK_THREADS * LOCK_ROUNDS && lock_threads_done == LOCK_THREADS);
    check("pipeline delivered every message in order",
          pipeline_received == PIPELINE_MESSAGES && pipeline_out_of_order == 0 && pipeline_done);
    MBX_Delete(stage1);
    MBX_Delete(stage2);

    say("registry\n");
    run_registry();

    /* Let the tick run for the rest of the requested time. */
    while (timer && now_ns() - started < (int64_t)seconds * 1000000000LL) THREAD_Sleep(50);

    say("taking everything down\n");
    if (timer) {
        TMR_Delete(timer);
        THREAD_Sleep(10); /* a callback may still be running */
        TMR_Exit();
    }
    IPC_FIFO_Exit();
    MBX_Exit();
    LCK_Exit();
    SEM_Exit();
    THREAD_Exit();
    ULX_Exit();
    MEM_Exit();

    lost = (int)(PIPELINE_MESSAGES - pipeline_received) + (int)(CHANNEL_MESSAGES - channel_received) +
           (int)((uint32_t)LOCK_THREADS * LOCK_ROUNDS - locked_counter);
    say("\nreport\n");
    if (timer)
        say("  ticks served         %u in %.1f s, lateness against the grid: avg %.1f us, max %.1f us, %u skipped\n",
            (unsigned)tick_count, (double)(now_ns() - started) / 1e9,
            tick_count > 1 ? (double)tick_sum_late_ns / (tick_count - 1) / 1000.0 : 0.0,
            (double)tick_max_late_ns / 1000.0, (unsigned)tick_skipped);
    else
        say("  ticks served         none (timer engine not started)\n");
    say("  mailbox pipeline     %u of %u messages, %u out of order\n", (unsigned)pipeline_received, PIPELINE_MESSAGES,
        (unsigned)pipeline_out_of_order);
    say("  named-pipe channel   %u of %u messages, %u damaged\n", (unsigned)channel_received, CHANNEL_MESSAGES,
        (unsigned)channel_bad);
    say("  task-locked counter  %u of %u increments\n", (unsigned)locked_counter, LOCK_THREADS * LOCK_ROUNDS);
    say("  lost                 %d\n", lost);
    say("kavro-demo: %s\n", failures == 0 && lost == 0 ? "all steps succeeded" : "some steps FAILED");
    if (report != stdout) fclose(report);
    return failures == 0 && lost == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
