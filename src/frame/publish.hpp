// Live publishing of a process's library objects for `kavro top`.
//
// Each family registers its objects at create and takes them off at delete;
// a low-priority publisher thread samples them once a second through a
// function the family supplies and writes one snapshot file. The hot paths
// only bump plain words they own (or a word here) and never wait for the
// publisher. With KAVRO_PUBLISH=0 nothing is registered and nothing is
// written. The frame knows no family: samplers are handed in.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kavro::pub {

// ---- the snapshot file ------------------------------------------------------------
// /dev/shm/kavro_rt-<uid>/<pid>.top: a Header, `rows` Rows, nothing else.
// The writer makes `seq` odd, writes the rest, then makes it even with the
// checksum of everything after the header; a reader that sees an odd or
// changed `seq`, or a wrong checksum, reads again.

inline constexpr char kMagic[8] = {'K', 'A', 'V', 'R', 'O', 'T', 'O', 'P'};
inline constexpr uint32_t kVersion = 1;
inline constexpr int kHistBuckets = 16;  // lateness: [0,1) [1,2) [2,4) ... [16384,inf) microseconds
inline constexpr uint32_t kMaxRows = 4096;

enum Kind : uint32_t { Thread = 1, Lock, Semaphore, Mailbox, Channel, SysV };

enum TickSource : uint32_t { NoTick = 0, NativeTick, RtcTick, PosixTick };

struct Header {
    char magic[8];
    uint32_t version;
    uint32_t headerSize;  // sizeof(Header)
    uint32_t rowSize;     // sizeof(Row)
    uint32_t rows;
    uint64_t seq;
    uint32_t checksum;  // FNV-1a of the rows
    uint32_t pid;
    uint64_t startTime;  // the process's start, in clock ticks after boot (/proc/<pid>/stat field 22)
    int64_t updatedNs;   // CLOCK_REALTIME of the last write
    char comm[16];
    // The timer engine.
    uint32_t tickSource;
    uint32_t worstUs;
    uint64_t ticksServed;
    uint64_t ticksSkipped;
    uint32_t hist[kHistBuckets];
};

// One object. v[] by kind (ids are handle addresses):
//  Thread:    0 portable priority, 1 platform priority, 2 policy, 3 state letter, 4 task-lock depth,
//             5 id of the task lock waited for (0: none), 6 system thread id, 7 suspended
//  Lock:      0 holder id (-1 foreign thread, 0 free), 1 depth, 2 waiters, 3 hold count
//  Semaphore: 0 kind (0 counter, 1 POSIX, 2 System V), 1 count, 2 waiters (-1 unknown)
//  Mailbox:   0 slots, 1 depth, 2 high-water mark, 3 timed-out pends, 4 message size
//  Channel:   0 key, 1 streams, 2 reader present, 3 messages, 4 bytes, 5 failed writes
//  SysV:      0 type (0 shared memory, 1 message queue), 1 id, 2 key, 3 size (bytes; queue: messages)
//             (System V semaphores are listed as semaphores)
struct Row {
    uint32_t kind;
    uint32_t pad;
    uint64_t id;
    char name[32];
    int64_t v[10];
};

// Every 64-bit field on an 8-byte boundary: the i386 and x86_64 builds
// write the same layout, so either tool reads either process.
static_assert(sizeof(Header) == 160 && offsetof(Header, seq) == 24 && offsetof(Header, ticksServed) == 80);
static_assert(sizeof(Row) == 128 && offsetof(Row, v) == 48);

// ---- registration (families) ------------------------------------------------------

// Fills row.v (and row.name when the label is empty) from the live object.
// Runs on the publisher thread while the object is registered, so it may
// read the object but must take no lock a real-time path takes.
// `counters` are the object's four counters kept here (see bump).
using Sampler = void (*)(const void *handle, const uint32_t *counters, Row &row);

// Whether this process publishes (KAVRO_PUBLISH unset or not 0; decided once).
bool enabled();

// Registers an object; `label` is copied (null: none). No-op when disabled.
void add(Kind kind, const void *handle, const char *label, Sampler sample);
// Takes an object off; waits for a sampling pass in progress, so the caller
// may free the object afterwards.
void remove(const void *handle);
// Adds `by` to counter `slot` (0..3) kept here for a registered object;
// for rare paths (timeouts, failures) only: it looks the object up.
void bump(const void *handle, int slot, uint32_t by = 1);
// Records the object a registered thread waits for (null: none), published
// as the thread row's v[5]; it looks the thread up, so only for paths about
// to block anyway.
void set_waiting(const void *thread, const void *what);

// Counters of a named-pipe channel, found by the channel's index-pipe
// descriptor: the write path bumps them without a lookup.
struct ChannelCounters {
    uint32_t messages, bytes, failed;
};
inline constexpr int kMaxChannelFd = 4096;
extern std::atomic<ChannelCounters *> channelCounters;  // null while disabled
inline ChannelCounters *channel_counters(int fd) {
    ChannelCounters *c = channelCounters.load(std::memory_order_relaxed);
    return c != nullptr && fd >= 0 && fd < kMaxChannelFd ? c + fd : nullptr;
}

// The tick loop's statistics: written by the one tick thread, relaxed.
struct TickStats {
    uint32_t source;
    uint32_t worstUs;
    uint64_t served;
    uint64_t skipped;
    uint32_t hist[kHistBuckets];
};
extern TickStats tickStats;
extern bool tickOn;  // set once, before the tick thread starts
void set_tick_source(TickSource s);
inline int hist_bucket(int64_t us) {
    if (us <= 0) return 0;
    int b = 64 - __builtin_clzll(static_cast<uint64_t>(us));  // 1 -> 1, 2..3 -> 2, ...
    return b < kHistBuckets ? b : kHistBuckets - 1;
}
// One served tick, `latenessNs` after its deadline, after `missed` skipped ones.
inline void tick_served(int64_t latenessNs, uint64_t missed) {
    if (!tickOn) return;
    TickStats &t = tickStats;
    const int64_t us = latenessNs / 1000;
    std::atomic_ref<uint64_t>(t.served).store(t.served + 1, std::memory_order_relaxed);
    if (missed != 0) std::atomic_ref<uint64_t>(t.skipped).store(t.skipped + missed, std::memory_order_relaxed);
    uint32_t &h = t.hist[hist_bucket(us)];
    std::atomic_ref<uint32_t>(h).store(h + 1, std::memory_order_relaxed);
    if (us > static_cast<int64_t>(t.worstUs))
        std::atomic_ref<uint32_t>(t.worstUs).store(static_cast<uint32_t>(us), std::memory_order_relaxed);
}


// The directory of this user's snapshots, and of a given user's.
void dir_of(uint32_t uid, char *buf, unsigned size);

// When a process started (field 22 of /proc/PID/stat), 0 when it is gone:
// with the pid, it tells a snapshot's writer from a later process of the
// same pid. Inline, as the writer and the reader (`kavro top`) both need it.
inline uint64_t start_time_of(pid_t pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    FILE *f = std::fopen(path, "re");
    if (f == nullptr) return 0;
    char buf[1024];
    const size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = '\0';
    const char *p = std::strrchr(buf, ')');  // the name may hold anything
    for (int field = 2; field < 22 && p != nullptr; ++field) p = std::strchr(p + 1, ' ');
    return p != nullptr ? std::strtoull(p + 1, nullptr, 10) : 0;
}

// FNV-1a over n bytes; inline, since the reader (`kavro top`) sees only the
// library's exported interface.
inline uint32_t checksum(const void *p, uint64_t n) {
    const auto *b = static_cast<const unsigned char *>(p);
    uint32_t h = 2166136261u;
    for (uint64_t i = 0; i < n; ++i) h = (h ^ b[i]) * 16777619u;
    return h;
}

}  // namespace kavro::pub

// A sampler reads words the object's users write without the publisher's
// synchronisation: one aligned word at a time (KAVRO_PEEK), a view that may
// be a moment old but is never torn. The thread sanitizer is told so; the
// read is a macro so that it stays inside the exempted function.
#define KAVRO_PEEK(word) (*(const volatile __typeof__(word) *)&(word))
#if defined(__SANITIZE_THREAD__)
#define KAVRO_SAMPLER __attribute__((no_sanitize("thread")))
#else
#define KAVRO_SAMPLER
#endif
