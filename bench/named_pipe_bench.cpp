// Named-pipe write path: IPC_FIFO_Write against the same work done by hand
// on the same FIFOs (block SIGPIPE, write the message, write the rank
// byte), and a write among 1000 open channels against a write with one.
// Each iteration writes a batch of 64-byte messages; the reader, holding
// the channel's read ends in this process, empties the pipes between
// batches outside the timed region, so that a full pipe never turns the
// measure into one of the reader's speed. The process stays on one CPU
// from its first benchmark on, so every pair runs on the same core.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kavro_rt/kavro_rt.h"

namespace {

constexpr uint32_t kMsgLen = 64;
constexpr int kChannels = 1000;

std::string g_root;

std::string index_name(uint32_t key) { return g_root + "/kmxipc/.pipe." + std::to_string(static_cast<int32_t>(key)); }

bool setup() {
    static bool ok = [] {
        char tmpl[] = "/tmp/kavro-bench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return false;
        // Pinned where it happens to run: the library and its reference
        // then share one core and its caches.
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        const int cpu = sched_getcpu();
        CPU_SET(cpu < 0 ? 0 : cpu, &cpus);
        sched_setaffinity(0, sizeof cpus, &cpus);
        g_root = tmpl;
        setenv("TRVXROOT", tmpl, 1);
        if (IPC_FIFO_Init() != 0) return false;
        // 1000 channels hold about 8000 descriptors.
        rlimit rl;
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = rl.rlim_max < 20000 ? rl.rlim_max : 20000;
        setrlimit(RLIMIT_NOFILE, &rl);
        std::atexit([] {
            std::string cmd = "rm -rf '" + g_root + "'";
            if (std::system(cmd.c_str()) != 0) std::fputs("could not remove the FIFOs\n", stderr);
        });
        return true;
    }();
    return ok;
}

// Reader ends of a channel, opened in this process: the reader drains them
// between batches, outside the timed region.
struct Channel {
    int32_t rd[4] = {-1, -1, -1, -1};
};

bool open_reader(uint32_t key, Channel *ch) {
    for (int i = 0; i < 4; ++i) {
        IPC_FIFO_Create(0, &ch->rd[i], 0, (index_name(key) + std::string(i, '_')).c_str());
        if (ch->rd[i] < 0) return false;
    }
    return true;
}

void drain(const Channel &ch) {
    static char buf[65536];
    for (int32_t fd : ch.rd)
        while (read(fd, buf, sizeof buf) > 0) {
        }
}

Channel *channel(uint32_t key) {
    static Channel chans[4];
    static bool opened[4];
    if (!setup()) return nullptr;
    if (!opened[key]) {
        if (!open_reader(key, &chans[key])) return nullptr;
        opened[key] = true;
    }
    return &chans[key];
}

// One iteration is a batch of messages, which the pipes hold without
// filling (about 5.5 KiB per rank pipe); the reader empties them after it.
constexpr int kBatch = 256;

template <typename WriteOne>
void run_batches(benchmark::State &state, const Channel &ch, WriteOne write_one) {
    char msg[kMsgLen] = {1, 2, 3};
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            if (!write_one(msg)) {
                state.SkipWithError("write failed");
                return;
            }
        }
        state.PauseTiming();
        drain(ch);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void write_fifo(benchmark::State &state, uint32_t key) {
    Channel *ch = channel(key);
    if (ch == nullptr) return state.SkipWithError("no channel");
    run_batches(state, *ch, [key](const char *msg) {
        int32_t n = 0;
        return IPC_FIFO_Write(0, key, 0, msg, &n, kMsgLen, 0) == 0;
    });
}

void BM_Write(benchmark::State &state) { write_fifo(state, 1); }

// What the library's write must do, by hand: SIGPIPE blocked on every
// message (the library does not put the mask back, so neither does this),
// the message into the rank pipe, the rank byte into the index pipe. Same
// FIFOs as the library's side (its own write ends), same loop, same drain.
void BM_ByHand(benchmark::State &state) {
    constexpr uint32_t key = 1;
    Channel *ch = channel(key);
    if (ch == nullptr) return state.SkipWithError("no channel");
    static int fds[4] = {-1, -1, -1, -1};
    if (fds[0] < 0) {
        for (int i = 0; i < 4; ++i)
            fds[i] = open((index_name(key) + std::string(i, '_')).c_str(), O_WRONLY | O_NONBLOCK);
        if (fds[3] < 0) return state.SkipWithError("open failed");
    }
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    uint8_t rank = 2;
    run_batches(state, *ch, [&rank, &sigpipe](const char *msg) {
        sigprocmask(SIG_BLOCK, &sigpipe, nullptr);
        bool ok = write(fds[1 + rank], msg, kMsgLen) == static_cast<ssize_t>(kMsgLen) && write(fds[0], &rank, 1) == 1;
        rank = static_cast<uint8_t>((rank + 1) % 3);
        return ok;
    });
}

// The measured channel is entered after 999 others, each with its reader
// ends held open here and one message written to enter it in the table.
void BM_WriteAmongMany(benchmark::State &state) {
    static bool filled = false;
    if (!filled) {
        if (!setup()) return state.SkipWithError("no setup");
        for (uint32_t key = 1000; key < 1000 + kChannels - 1; ++key) {
            Channel other;
            if (!open_reader(key, &other)) return state.SkipWithError("too few descriptors");
            int32_t n = 0;
            if (IPC_FIFO_Write(0, key, 0, "x", &n, 1, 0) != 0) return state.SkipWithError("write failed");
        }
        filled = true;
    }
    write_fifo(state, 3);
}

}  // namespace

BENCHMARK(BM_Write)->Name("fifo.write64/kavro")->UseRealTime()->MinTime(0.3);
BENCHMARK(BM_ByHand)->Name("fifo.write64/ref:sigprocmask+two_writes")->UseRealTime()->MinTime(0.3);
// The one-channel reference runs first, before the table is filled.
BENCHMARK(BM_Write)->Name("fifo.write64.1000ch/ref:1ch")->UseRealTime()->MinTime(0.3);
BENCHMARK(BM_WriteAmongMany)->Name("fifo.write64.1000ch/kavro")->UseRealTime()->MinTime(0.3);

BENCHMARK_MAIN();
