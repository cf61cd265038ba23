// kavro: the operator's tool for hosts that run the product.
//   kavro version | reg get|set|list | ipc [--clean] | latency
// It uses the shared library's public interface only, so that it sees what
// the product's programs see. Errors are one line "kavro: ..." on standard
// error; the exit status is 2 for a usage error, 1 when the operation failed.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "cli.hpp"
#include "top.hpp"
#include "kavro_rt/kavro_rt.h"

namespace {

using kavro::cli::Command;
using kavro::cli::Options;

constexpr const char *kRegistry = "/usr/torvanex/cfg/.registry";

int fail(const std::string &msg) {
    std::fprintf(stderr, "kavro: %s\n", msg.c_str());
    return 1;
}

// "what: the system's reason", from errno.
int fail_errno(const std::string &what) { return fail(what + ": " + std::strerror(errno)); }

// A library failure: the status's text, and the system's reason when there is one.
int fail_status(const std::string &what, KAVRO_STATUS st, int err) {
    std::string msg = what + ": " + KAVRO_StatusText(st);
    if (err != 0) msg += std::string(" (") + std::strerror(err) + ")";
    return fail(msg);
}

int cmd_version() {
    char text[KAVRO_VERSION_TEXT_SIZE] = {};
    if (qLibVersionString(text) != 0) return fail("the library has no version text");
    std::printf("libkavro_rt %s\nkavro %s\n", text, KAVRO_RT_VERSION_STRING);
    return 0;
}

// ---- reg ----------------------------------------------------------------------------

bool read_registry(std::vector<kavro::cli::RegRecord> *records, int *rc) {
    FILE *f = std::fopen(kRegistry, "rb");
    if (f == nullptr) return *rc = fail_errno(std::string("cannot open ") + kRegistry), false;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    const bool bad = std::ferror(f) != 0;
    const int err = errno;
    std::fclose(f);
    if (bad) return errno = err, *rc = fail_errno(std::string("cannot read ") + kRegistry), false;
    std::string error;
    if (!kavro::cli::parse_registry(text, records, &error))
        return *rc = fail(std::string(kRegistry) + ": " + error), false;
    return true;
}

int cmd_reg_get(const Options &o) {
    std::vector<kavro::cli::RegRecord> records;
    int rc = 0;
    if (!read_registry(&records, &rc)) return rc;
    const std::string name = o.args[0] + " " + o.args[1];
    const kavro::cli::RegRecord *r = kavro::cli::find_record(records, o.args[0], o.args[1]);
    if (r == nullptr) return fail("no entry " + name + " in " + kRegistry);
    if (r->type == "REG_BINARY") return fail(name + " is a REG_BINARY record, which the library does not read");
    union {
        char text[256];
        uint32_t number;
    } value{};
    uint32_t size = sizeof value;
    REG_Init();
    errno = 0;
    const KAVRO_STATUS st = REG_GetValue(nullptr, o.args[0].c_str(), o.args[1].c_str(), &value, &size);
    const int err = errno;
    REG_Exit();
    if (st != 0) return fail_status("cannot read " + name + " from " + kRegistry, st, err);
    if (r->type == "REG_DWORD")
        std::printf("0x%08X (%u)\n", value.number, value.number);
    else
        std::printf("%s\n", value.text);
    return 0;
}

int cmd_reg_set(const Options &o) {
    const uint32_t number = static_cast<uint32_t>(std::strtoul(o.args[2].c_str(), nullptr, 0));
    uint32_t size = o.dword ? sizeof number : static_cast<uint32_t>(o.args[2].size() + 1);
    REG_Init();
    errno = 0;
    const KAVRO_STATUS st =
        REG_SetValue(nullptr, o.args[0].c_str(), o.args[1].c_str(), o.dword ? KAVRO_REG_DWORD : KAVRO_REG_SZ,
                     o.dword ? static_cast<const void *>(&number) : o.args[2].c_str(), &size);
    const int err = errno;
    REG_Exit();
    if (st != 0) return fail_status(std::string("cannot write ") + kRegistry, st, err);
    // The registry keeps the number in decimal and the library reads it back as hexadecimal digits.
    if (o.dword) {
        const uint32_t back =
            static_cast<uint32_t>(std::min(std::strtoull(std::to_string(number).c_str(), nullptr, 16), 0xFFFFFFFFull));
        std::printf("%s %s stored as %u; a read gives 0x%08X (%u)\n", o.args[0].c_str(), o.args[1].c_str(), number,
                    back, back);
    }
    return 0;
}

int cmd_reg_list() {
    std::vector<kavro::cli::RegRecord> records;
    int rc = 0;
    if (!read_registry(&records, &rc)) return rc;
    for (const auto &r : records)
        std::printf("%s\t%s\t%s\t%s\n", r.subkey.c_str(), r.entry.c_str(), r.type.c_str(), r.value.c_str());
    std::fprintf(stderr, "%zu record(s) in %s\n", records.size(), kRegistry);
    return 0;
}

// ---- ipc ----------------------------------------------------------------------------

// Channel files are ".pipe.<key>" and ".strpipe.<key>"; their rank pipes add underscores.
bool channel_key(const char *name, const char *stem, int32_t *key) {
    const size_t len = std::strlen(stem);
    if (std::strncmp(name, stem, len) != 0) return false;
    char *end = nullptr;
    const long v = std::strtol(name + len, &end, 10);
    if (end == name + len || *end != '\0') return false;
    *key = static_cast<int32_t>(v);
    return true;
}

bool gone(long long pid) { return pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH; }

// One System V table from /proc/sysvipc: the id and the numbers of each row.
std::vector<std::vector<long long>> sysv_rows(const char *file) {
    std::vector<std::vector<long long>> rows;
    FILE *f = std::fopen(file, "r");
    if (f == nullptr) return rows;
    char line[512];
    if (std::fgets(line, sizeof line, f) != nullptr) {
        while (std::fgets(line, sizeof line, f) != nullptr) {
            std::vector<long long> row;
            char *p = line, *end = nullptr;
            for (long long v = std::strtoll(p, &end, 10); end != p; v = std::strtoll(p, &end, 10)) {
                row.push_back(v);
                p = end;
            }
            if (row.size() >= 7) rows.push_back(row);
        }
    }
    std::fclose(f);
    return rows;
}

struct Cleaner {
    bool clean, dry;
    int removed = 0, failed = 0;
    // Reports an object and, when cleaning and `unused`, removes it.
    void object(const std::string &what, bool unused, const std::string &why, bool (*remove)(long long), long long id) {
        if (!clean) return void(std::printf("  %s\n", what.c_str()));
        if (!unused) return;
        if (dry) return void(std::printf("  would remove %s (%s)\n", what.c_str(), why.c_str()));
        if (remove(id)) {
            std::printf("  removed %s (%s)\n", what.c_str(), why.c_str());
            ++removed;
        } else {
            std::fprintf(stderr, "kavro: cannot remove %s: %s\n", what.c_str(), std::strerror(errno));
            ++failed;
        }
    }
};

int cmd_ipc(const Options &o) {
    if (!o.root.empty()) setenv("TRVXROOT", o.root.c_str(), 1);
    const char *root = std::getenv("TRVXROOT");
    if (root == nullptr || *root == '\0') return fail("TRVXROOT is not set (or give --root DIR)");
    const std::string dir = std::string(root) + "/kmxipc";
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return fail_errno("cannot open " + dir);
    IPC_FIFO_Init();
    Cleaner c{o.clean, o.dryRun};
    std::printf("named-pipe channels in %s\n", dir.c_str());
    static std::string base;  // read by the remover below
    while (dirent *e = readdir(d)) {
        int32_t key = 0;
        int streams = -1;
        if (channel_key(e->d_name, ".pipe.", &key))
            streams = 0;
        else if (channel_key(e->d_name, ".strpipe.", &key))
            streams = 1;
        if (streams < 0) continue;
        const KAVRO_STATUS st = IPC_FIFO_CheckKey_2(static_cast<uint32_t>(key), streams);
        char what[96];
        std::snprintf(what, sizeof what, "%s channel %d, reader %s", streams ? "streams" : "pipe", key,
                      st == 0              ? "present"
                      : st == KAVRO_E_FAIL ? "absent"
                                           : "unknown");
        base = dir + "/" + e->d_name;
        c.object(
            what, st == KAVRO_E_FAIL, "no reader",
            [](long long) {
                bool ok = true;
                for (std::string p = base; p.size() <= base.size() + 3; p += '_')
                    if (unlink(p.c_str()) != 0 && errno != ENOENT) ok = false;
                return ok;
            },
            0);
    }
    closedir(d);
    IPC_FIFO_Exit();

    std::printf("System V objects\n");
    char what[128];
    // shm: key shmid perms size cpid lpid nattch
    for (const auto &r : sysv_rows("/proc/sysvipc/shm")) {
        std::snprintf(what, sizeof what, "shm id %lld key 0x%08llx, creator %lld, %lld attached", r[1],
                      r[0] & 0xFFFFFFFFll, r[4], r[6]);
        c.object(
            what, r[6] == 0 && gone(r[4]), "creator gone, not attached",
            [](long long id) { return shmctl(static_cast<int>(id), IPC_RMID, nullptr) == 0; }, r[1]);
    }
    // msg: key msqid perms cbytes qnum lspid lrpid; a queue nobody has used yet is kept
    for (const auto &r : sysv_rows("/proc/sysvipc/msg")) {
        std::snprintf(what, sizeof what, "queue id %lld key 0x%08llx, %lld message(s), last sender %lld, receiver %lld",
                      r[1], r[0] & 0xFFFFFFFFll, r[4], r[5], r[6]);
        const bool unused = (r[5] > 0 || r[6] > 0) && (r[5] == 0 || gone(r[5])) && (r[6] == 0 || gone(r[6]));
        c.object(
            what, unused, "last sender and receiver gone",
            [](long long id) { return msgctl(static_cast<int>(id), IPC_RMID, nullptr) == 0; }, r[1]);
    }
    // sem: key semid perms nsems; per semaphore the last process and the waiters
    for (const auto &r : sysv_rows("/proc/sysvipc/sem")) {
        const int id = static_cast<int>(r[1]);
        bool used = false, unused = true;
        for (int i = 0; i < r[3]; ++i) {
            const long long pid = semctl(id, i, GETPID);
            if (semctl(id, i, GETNCNT) > 0 || semctl(id, i, GETZCNT) > 0 || (pid > 0 && !gone(pid))) unused = false;
            used = used || pid > 0;
        }
        std::snprintf(what, sizeof what, "sem id %lld key 0x%08llx, %lld semaphore(s)", r[1], r[0] & 0xFFFFFFFFll,
                      r[3]);
        c.object(
            what, used && unused, "last users gone, no waiters",
            [](long long sid) { return semctl(static_cast<int>(sid), 0, IPC_RMID) == 0; }, r[1]);
    }
    if (o.clean && !o.dryRun) {
        std::printf("%d object(s) removed\n", c.removed);
        // Snapshots left by processes that ended without removing theirs (`kavro top`), each on a line.
        kavro::top::remove_dead_snapshots(stdout);
    }
    return c.failed == 0 ? 0 : 1;
}

// ---- latency ------------------------------------------------------------------------

// Written by the tick thread while recording; read by the main thread only
// after recording has stopped and no callback is inside (see stop_recording).
kavro::tool::LatencyStats stats;
int64_t firstTickNs = -1;
int64_t worstAtNs = 0;  // when the worst tick came
std::atomic<bool> recording{true};
std::atomic<int> inTick{0};
std::atomic<uint64_t> liveTicks{0};  // for the progress line while recording
std::atomic<int64_t> liveMaxNs{0};
std::atomic<bool> interrupted{false};

int64_t now_ns() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Lateness against the 2 ms grid through the first tick; a tick up to 1 ms
// before its grid point counts as early.
int32_t on_tick(uint32_t) {
    inTick.fetch_add(1);  // before looking at `recording`: see stop_recording
    if (recording.load()) {
        const int64_t t = now_ns();
        if (firstTickNs < 0) firstTickNs = t;
        const int64_t late = kavro::tool::grid_lateness_ns(t, firstTickNs, 2000000, 1000000);
        if (stats.count == 0 || late > stats.maxNs) worstAtNs = t;
        stats.add(late);
        liveTicks.store(stats.count, std::memory_order_relaxed);
        liveMaxNs.store(stats.maxNs, std::memory_order_relaxed);
    }
    inTick.fetch_sub(1, std::memory_order_release);
    return 0;
}

// After this, no callback touches the statistics: one that entered before
// the store is waited for, a later one sees recording off.
void stop_recording() {
    recording.store(false);
    while (inTick.load(std::memory_order_acquire) != 0) sched_yield();
}

FILE *open_output(const std::string &path, int *rc) {
    if (path.empty()) return nullptr;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) *rc = fail_errno("cannot write " + path);
    return f;
}

bool finish_file(FILE *f, const std::string &data, const std::string &path) {
    bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size() && std::fflush(f) == 0;
    int err = errno;
    if (std::fclose(f) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        errno = err;
        fail_errno("cannot write " + path);
    }
    return ok;
}

int cmd_latency(const Options &o) {
    // Open every output first: a bad path must not cost a whole run.
    int rc = 0;
    FILE *svg = open_output(o.svg, &rc), *csv = open_output(o.csv, &rc), *png = open_output(o.png, &rc);
    if (rc != 0) return rc;
    if (png) std::fclose(png);  // cairo writes the file by name; it is known to be writable now

    // Like cyclictest, hold the CPUs out of deep idle states while measuring:
    // their exit latency would otherwise add to every wake-up. The hold lasts
    // while the file is open.
    int dmaLatency = -1;
    if (!o.idle) {
        dmaLatency = open("/dev/cpu_dma_latency", O_RDWR);
        const int32_t zero = 0;
        if (dmaLatency >= 0 && write(dmaLatency, &zero, sizeof zero) != sizeof zero) {
            close(dmaLatency);
            dmaLatency = -1;
        }
        if (dmaLatency < 0) std::fprintf(stderr, "kavro: note: /dev/cpu_dma_latency not held at 0\n");
    }
    struct sigaction sa {};
    sa.sa_handler = [](int) { interrupted.store(true); };
    sigaction(SIGINT, &sa, nullptr);  // no SA_RESTART: the sleep below ends at once
    g_ClockRtcOverride = -1;          // measure the native loop whatever the machine
    if (TMR_Init() != 0) return fail("the timer engine did not start (real-time scheduling refused?)");
    TmrTimer *timer = nullptr;
    const KAVRO_STATUS st = TMR_Create(&timer, 2.0, on_tick, 0);
    if (st != 0 || timer == nullptr) return fail_status("cannot arm the timer", st, 0);
    const bool live = !o.quiet && isatty(STDERR_FILENO);
    const int64_t started = now_ns();
    for (int s = 1; s <= o.seconds && !interrupted.load(); ++s) {
        timespec one{1, 0};
        while (nanosleep(&one, &one) != 0 && !interrupted.load()) {
        }
        if (live && !interrupted.load())
            std::fprintf(stderr, "\r  %d/%d s  ticks %llu  max %.1f us   ", s, o.seconds,
                         static_cast<unsigned long long>(liveTicks.load(std::memory_order_relaxed)),
                         liveMaxNs.load(std::memory_order_relaxed) / 1000.0);
    }
    stop_recording();
    const double seconds = static_cast<double>(now_ns() - started) / 1e9;
    TMR_Delete(timer);
    if (live) std::fprintf(stderr, "\n");
    std::printf("tick lateness over %.1f s%s (2 ms grid, SCHED_FIFO 99, cpu_dma_latency %s)\n", seconds,
                interrupted.load() ? ", ended by Ctrl-C" : "", dmaLatency >= 0 ? "held at 0" : "untouched");
    stats.print(stdout);
    std::printf("RESULT min_us=%.1f avg_us=%.1f p99_us=%lld max_us=%.1f ticks=%llu max_at_s=%.3f\n",
                stats.minNs / 1000.0, stats.mean_us(), static_cast<long long>(stats.percentile_us(0.99)),
                stats.maxNs / 1000.0, static_cast<unsigned long long>(stats.count),
                firstTickNs < 0 ? 0.0 : static_cast<double>(worstAtNs - firstTickNs) / 1e9);

    kavro::cli::RunInfo info;
    utsname u{};
    uname(&u);
    info.host = u.nodename;
    info.kernel = u.release;
    info.source = "native monotonic loop";
    info.seconds = seconds;
    char date[64];
    const time_t now = time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", gmtime(&now));
    info.date = date;
    bool ok = true;
    if (svg) ok = finish_file(svg, kavro::cli::render_svg(stats, info), o.svg) && ok;
    if (csv) ok = finish_file(csv, kavro::cli::render_csv(stats), o.csv) && ok;
    std::string error;
    if (!o.png.empty() && !kavro::cli::write_png(stats, info, o.png, &error)) {
        fail("cannot write " + o.png + ": " + error);
        ok = false;
    }
    if (!ok) return 1;
    return stats.count > 0 ? 0 : fail("no tick was served");
}

int run(const Options &o) {
    switch (o.command) {
        case Command::Help: std::fputs(kavro::cli::usage(o.topic).c_str(), stdout); return 0;
        case Command::Version: return cmd_version();
        case Command::RegGet: return cmd_reg_get(o);
        case Command::RegSet: return cmd_reg_set(o);
        case Command::RegList: return cmd_reg_list();
        case Command::Ipc: return cmd_ipc(o);
        case Command::Latency: return cmd_latency(o);
    }
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args[0] == "top") return kavro::top::run({args.begin() + 1, args.end()});
    Options o;
    std::string error;
    if (!kavro::cli::parse(args, &o, &error)) {
        std::fprintf(stderr, "kavro: %s\n", error.c_str());
        return 2;
    }
    int rc = run(o);
    // Output that never arrived is a failure (a full disk, a closed pipe).
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "kavro: cannot write the output: %s\n", std::strerror(errno));
        rc = 1;
    }
    return rc;
}
