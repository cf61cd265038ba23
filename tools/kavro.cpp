// kavro: the operator's tool for hosts that run the product.
//   kavro version | reg get|set|list | ipc | latency
// Errors are one line "kavro: ..." on standard error and a non-zero exit
// status (2 for a usage error, 1 when the operation failed).
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "cli.hpp"
#include "top.hpp"
#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "util/reg.hpp"
#include "timer/tmr.hpp"

namespace {

using kavro::cli::Command;
using kavro::cli::Options;

constexpr const char *kRegistry = "/usr/torvanex/cfg/.registry";

int fail(const std::string &msg) {
    std::fprintf(stderr, "kavro: %s\n", msg.c_str());
    return 1;
}

std::string status_text(KAVRO_STATUS st) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%08X", st);
    return b;
}

int cmd_version() {
    char text[256] = {};
    if (qLibVersionString(text) != 0) return fail("the library has no version text");
    std::printf("libkavro_rt %s\n", text);
    return 0;
}

int cmd_reg_get(const Options &o) {
    REG_Init();
    char value[256] = {};
    uint32_t size = o.dword ? sizeof(uint32_t) : sizeof value;
    uint32_t number = 0;
    KAVRO_STATUS st = REG_GetValue(nullptr, o.args[0].c_str(), o.args[1].c_str(),
                                   o.dword ? static_cast<void *>(&number) : value, &size);
    REG_Exit();
    if (st == KAVRO_E_NOTIMPL) return fail("no entry " + o.args[0] + " " + o.args[1] + " in " + kRegistry);
    if (st != 0) return fail("cannot read " + std::string(kRegistry) + " (status " + status_text(st) + ")");
    if (o.dword)
        std::printf("%u\n", number);
    else
        std::printf("%s\n", value);
    return 0;
}

int cmd_reg_set(const Options &o) {
    REG_Init();
    uint32_t number = static_cast<uint32_t>(std::strtoul(o.args[2].c_str(), nullptr, 0));
    uint32_t size = o.dword ? sizeof number : static_cast<uint32_t>(o.args[2].size() + 1);
    KAVRO_STATUS st = REG_SetValue(nullptr, o.args[0].c_str(), o.args[1].c_str(),
                                   o.dword ? KAVRO_REG_DWORD : KAVRO_REG_SZ,
                                   o.dword ? static_cast<const void *>(&number) : o.args[2].c_str(), &size);
    REG_Exit();
    if (st == KAVRO_E_INVALIDARG) return fail("the registry cannot hold that name or value");
    if (st != 0) return fail("cannot write " + std::string(kRegistry) + " (status " + status_text(st) + ")");
    return 0;
}

int cmd_reg_list() {
    std::ifstream f(kRegistry, std::ios::binary);
    if (!f) return fail(std::string("cannot open ") + kRegistry + ": " + std::strerror(errno));
    std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    kavro::detail::RegReader reader(text.data(), text.size());
    std::string fields[4];
    int n = 0, records = 0;
    kavro::detail::RegLine line{};
    while (reader.next(&line)) {
        std::string s(line.p, line.n);
        if (!s.empty() && s.back() == '\n') s.pop_back();
        fields[n++] = s;
        if (n == 4) {
            std::printf("%s\t%s\t%s\t%s\n", fields[0].c_str(), fields[1].c_str(), fields[2].c_str(),
                        fields[3].c_str());
            n = 0;
            ++records;
        }
    }
    if (n != 0) std::fprintf(stderr, "kavro: the registry ends inside a record (%d line(s) left over)\n", n);
    std::fprintf(stderr, "%d record(s) in %s\n", records, kRegistry);
    return n == 0 ? 0 : 1;
}

// Channel files are ".pipe.<key>" and ".strpipe.<key>"; their rank pipes
// add underscores.
bool channel_key(const char *name, const char *stem, int32_t *key) {
    size_t len = std::strlen(stem);
    if (std::strncmp(name, stem, len) != 0) return false;
    char *end = nullptr;
    long v = std::strtol(name + len, &end, 10);
    if (end == name + len || *end != '\0') return false;
    *key = static_cast<int32_t>(v);
    return true;
}

void list_sysv(const char *file, const char *kind) {
    std::ifstream f(file);
    std::string header, row;
    if (!f || !std::getline(f, header)) {
        std::printf("  %-5s (cannot read %s)\n", kind, file);
        return;
    }
    int n = 0;
    while (std::getline(f, row)) {
        long long key = 0, id = 0;
        unsigned perms = 0;
        if (std::sscanf(row.c_str(), "%lld %lld %o", &key, &id, &perms) == 3) {
            std::printf("  %-5s key 0x%08llx  id %-8lld perms %03o\n", kind, key & 0xFFFFFFFFll, id, perms & 0777);
            ++n;
        }
    }
    if (n == 0) std::printf("  %-5s none\n", kind);
}

int cmd_ipc(const Options &o) {
    if (!o.root.empty()) setenv("TRVXROOT", o.root.c_str(), 1);
    const char *root = std::getenv("TRVXROOT");
    if (root == nullptr || *root == '\0') return fail("TRVXROOT is not set (or give --root DIR)");
    std::string dir = std::string(root) + "/kmxipc";
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return fail("cannot open " + dir + ": " + std::strerror(errno));
    IPC_FIFO_Init();
    std::printf("named-pipe channels in %s\n", dir.c_str());
    int channels = 0;
    while (dirent *e = readdir(d)) {
        int32_t key = 0;
        int streams = -1;
        if (channel_key(e->d_name, ".pipe.", &key)) streams = 0;
        else if (channel_key(e->d_name, ".strpipe.", &key)) streams = 1;
        if (streams < 0) continue;
        bool reader = IPC_FIFO_CheckKey_2(static_cast<uint32_t>(key), streams) == 0;
        std::printf("  %-7s key %-11d reader %s\n", streams ? "streams" : "pipe", key,
                    reader ? "present" : "absent");
        ++channels;
    }
    closedir(d);
    IPC_FIFO_Exit();
    if (channels == 0) std::printf("  none\n");
    std::printf("System V objects\n");
    list_sysv("/proc/sysvipc/msg", "queue");
    list_sysv("/proc/sysvipc/sem", "sem");
    list_sysv("/proc/sysvipc/shm", "shm");
    return 0;
}

// ---- latency ------------------------------------------------------------------

kavro::detail::LatencyStats stats;
std::atomic<bool> recording{true};

int32_t on_tick(uint32_t) {
    if (!recording.load(std::memory_order_relaxed)) return 0;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    stats.add(kavro::detail::to_ns(now) - kavro::detail::to_ns(kavro::detail::native_served_deadline()));
    return 0;
}

int cmd_latency(const Options &o) {
    // Like cyclictest, hold the CPUs out of deep idle states while measuring:
    // their exit latency (inside a VM, a round trip through the host) would
    // otherwise add to every wake-up. The hold lasts while the file is open.
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
    g_ClockRtcOverride = -1;  // measure the native loop whatever the machine
    if (TMR_Init() != 0) return fail("the timer engine did not start (real-time scheduling refused?)");
    TmrTimer *timer = nullptr;
    if (TMR_Create(&timer, 2.0, on_tick, 0) != 0 || timer == nullptr) return fail("cannot arm the timer");
    const bool live = !o.quiet && isatty(STDERR_FILENO);
    for (int s = 1; s <= o.seconds; ++s) {
        timespec one{1, 0};
        while (nanosleep(&one, &one) != 0) {
        }
        if (live)
            std::fprintf(stderr, "\r  %d/%d s  ticks %llu  max %.1f us   ", s, o.seconds,
                         static_cast<unsigned long long>(stats.count), stats.maxNs / 1000.0);
    }
    recording.store(false);
    TMR_Delete(timer);
    if (live) std::fprintf(stderr, "\n");
    std::printf("tick lateness over %d s (2 ms grid, SCHED_FIFO 99, cpu_dma_latency %s)\n", o.seconds,
                dmaLatency >= 0 ? "held at 0" : "untouched");
    stats.print(stdout);
    std::printf("RESULT min_us=%.1f avg_us=%.1f p99_us=%lld max_us=%.1f ticks=%llu\n", stats.minNs / 1000.0,
                stats.mean_us(), static_cast<long long>(stats.percentile_us(0.99)), stats.maxNs / 1000.0,
                static_cast<unsigned long long>(stats.count));
    if (!o.svg.empty()) {
        std::ofstream svg(o.svg, std::ios::trunc);
        svg << kavro::cli::render_svg(stats, "libkavro_rt tick lateness");
        if (!svg) return fail("cannot write " + o.svg);
        std::printf("histogram picture: %s\n", o.svg.c_str());
    }
    return stats.count > 0 ? 0 : fail("no tick was served");
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
    switch (o.command) {
        case Command::Help: std::fputs(kavro::cli::usage().c_str(), stdout); return 0;
        case Command::Version: return cmd_version();
        case Command::RegGet: return cmd_reg_get(o);
        case Command::RegSet: return cmd_reg_set(o);
        case Command::RegList: return cmd_reg_list();
        case Command::Ipc: return cmd_ipc(o);
        case Command::Latency: return cmd_latency(o);
    }
    return 2;
}
