// Named-pipe channels: the family's life cycle, the reader's side, the
// presence test and the writer's channel tables. The write itself is in
// fifo_write.cpp.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/err.h"
#include "kavro_rt/mem.h"
#include "ipc/fifo.hpp"

using namespace kavro::detail;

namespace {

int32_t cRefs = 0;
FifoKeyEntry *pFifoFdArray = nullptr;     // pipe channels
FifoKeyEntry *pFifoStrFdArray = nullptr;  // streams channels

// Beside each table, an open-addressing index (linear probing) from a key
// to its first table position, stored as position + 1 (0: empty slot).
// Twice as many slots as entries keeps probe runs short; with at most 1024
// distinct keys the index never fills.
constexpr uint32_t kSlots = 2 * kFifoTableSize;
uint16_t slots[2][kSlots];

inline int kind_of(int32_t isStreams) { return isStreams != 0 ? 1 : 0; }

inline uint32_t home_of(uint32_t key) { return (key * 0x9E3779B1u) >> 21; }  // 11 bits

inline uint32_t next_slot(uint32_t s) { return (s + 1) & (kSlots - 1); }

// The slot holding `key`, or the empty slot where it would go.
uint32_t index_probe(const uint16_t *ix, const FifoKeyEntry *t, uint32_t key) {
    uint32_t s = home_of(key);
    while (ix[s] != 0 && t[ix[s] - 1].key != key) s = next_slot(s);
    return s;
}

void index_insert(int kind, const FifoKeyEntry *t, uint32_t key, int pos) {
    uint16_t *ix = slots[kind];
    uint32_t s = index_probe(ix, t, key);
    // A second entry for a key already present only matters if it lies
    // before the first one.
    if (ix[s] == 0 || pos < ix[s] - 1) ix[s] = static_cast<uint16_t>(pos + 1);
}

// Must run while the entries still hold their keys: the homes of the
// slots that move up are computed from them.
void index_erase(int kind, const FifoKeyEntry *t, uint32_t key) {
    uint16_t *ix = slots[kind];
    uint32_t hole = index_probe(ix, t, key);
    if (ix[hole] == 0) return;
    ix[hole] = 0;
    for (uint32_t s = next_slot(hole); ix[s] != 0; s = next_slot(s)) {
        uint32_t home = home_of(t[ix[s] - 1].key);
        // Move the slot into the hole unless its home lies after the hole
        // (cyclically), where a lookup would never pass the hole.
        if (((s - home) & (kSlots - 1)) >= ((s - hole) & (kSlots - 1))) {
            ix[hole] = ix[s];
            ix[s] = 0;
            hole = s;
        }
    }
}

void set_tables(FifoKeyEntry *pipes, FifoKeyEntry *streams) {
    pFifoFdArray = pipes;
    pFifoStrFdArray = streams;
    std::memset(slots, 0, sizeof slots);
}

// Null only when TRVXROOT is unset; an empty value is the root directory's
// own "/kmxipc".
const char *install_root() { return std::getenv("TRVXROOT"); }

}  // namespace

namespace kavro::detail {

pthread_mutex_t fifo_lock = PTHREAD_MUTEX_INITIALIZER;

FifoKeyEntry *fifo_table(int32_t isStreams) { return isStreams != 0 ? pFifoStrFdArray : pFifoFdArray; }

int fifo_index_path(char *buf, const char *root, uint32_t key, int32_t isStreams) {
    if (root == nullptr) return -1;
    int n = std::snprintf(buf, kFifoPathSize, "%s%s.%d", root, isStreams != 0 ? "/kmxipc/.strpipe" : "/kmxipc/.pipe",
                          static_cast<int32_t>(key));
    // The rank pipes add up to three underscores; refuse rather than cut.
    if (n < 0 || static_cast<size_t>(n) + 3 >= kFifoPathSize) {
        buf[0] = '\0';
        return -2;
    }
    return n;
}

int fifo_index_path(char *buf, uint32_t key, int32_t isStreams) {
    return fifo_index_path(buf, install_root(), key, isStreams);
}

int32_t search_key(uint32_t key, int32_t msgTag, int32_t isStreams, int32_t *rank0, int32_t *rank1, int32_t *rank2,
                   int8_t *rank) {
    FifoKeyEntry *t = fifo_table(isStreams);
    if (key == 0 || t == nullptr) return 0;
    const uint16_t *ix = slots[kind_of(isStreams)];
    const uint16_t v = ix[index_probe(ix, t, key)];
    if (v == 0) return 0;
    FifoKeyEntry &e = t[v - 1];
    *rank0 = e.rankFifo[0];
    *rank1 = e.rankFifo[1];
    *rank2 = e.rankFifo[2];
    e.rank = static_cast<int8_t>((e.rank + 1) % 3);
    *rank = e.rank;
    if (msgTag < e.minTag) e.minTag = msgTag;
    if (msgTag > e.maxTag) e.maxTag = msgTag;
    return e.writefifo;
}

KAVRO_SAMPLER void sample_channel(const void *h, const uint32_t *, kavro::pub::Row &row) {
    const auto *e = static_cast<const FifoKeyEntry *>(h);
    row.v[0] = KAVRO_PEEK(e->key);
    row.v[1] = row.name[0] == 's';  // the label says the kind
    row.v[2] = KAVRO_PEEK(e->removed) == 0;
    if (const kavro::pub::ChannelCounters *c = kavro::pub::channel_counters(KAVRO_PEEK(e->writefifo))) {
        row.v[3] = KAVRO_PEEK(c->messages);
        row.v[4] = KAVRO_PEEK(c->bytes);
        row.v[5] = KAVRO_PEEK(c->failed);
    }
}

uint32_t add_key(uint32_t key, int32_t msgTag, int32_t isStreams, int32_t writefifo, int32_t rank0, int32_t rank1,
                 int32_t rank2, int8_t *rank) {
    FifoKeyEntry *t = fifo_table(isStreams);
    // writefifo 0 would read as a free entry and be overwritten under its key.
    if (key == 0 || writefifo == 0 || t == nullptr) return 0;
    for (int i = 0; i < kFifoTableSize; ++i) {
        FifoKeyEntry &e = t[i];
        if (e.writefifo != 0) continue;
        e.key = key;
        e.writefifo = writefifo;
        e.rankFifo[0] = rank0;
        e.rankFifo[1] = rank1;
        e.rankFifo[2] = rank2;
        e.rank = 2;
        e.removed = 0;
        e.minTag = e.maxTag = msgTag;
        index_insert(kind_of(isStreams), t, key, i);
        if (kavro::pub::ChannelCounters *c = kavro::pub::channel_counters(writefifo)) *c = {};
        kavro::pub::add(kavro::pub::Channel, &e, isStreams != 0 ? "streams" : "pipes", sample_channel);
        *rank = 2;
        return key;
    }
    return 0;
}

void mark_key_removed(uint32_t key, int32_t isStreams) {
    FifoKeyEntry *t = fifo_table(isStreams);
    if (key == 0 || t == nullptr) return;
    for (int i = 0; i < kFifoTableSize; ++i)
        if (t[i].key == key) t[i].removed = 1;
}

void remove_key(uint32_t key, int32_t isStreams) {
    FifoKeyEntry *t = fifo_table(isStreams);
    if (key == 0 || t == nullptr) return;
    index_erase(kind_of(isStreams), t, key);
    for (int i = 0; i < kFifoTableSize; ++i) {
        FifoKeyEntry &e = t[i];
        if (e.key != key) continue;
        kavro::pub::remove(&e);
        close(e.writefifo);
        for (int32_t fd : e.rankFifo) close(fd);
        e.key = 0;
        e.removed = 0;
        e.writefifo = 0;
        e.rankFifo[0] = e.rankFifo[1] = e.rankFifo[2] = 0;
        e.minTag = e.maxTag = 0;
    }
}

}  // namespace kavro::detail

extern "C" {

KAVRO_API KAVRO_STATUS IPC_FIFO_Init(void) {
    if (cRefs != 0) {
        ++cRefs;
        return 0;
    }
    char path[kFifoPathSize];
    const char *root = install_root();
    if (root == nullptr) {
        diag("IPC_FIFO_Init", "TRVXROOT is not set, no IPC directory made \n");
    } else if (std::snprintf(path, sizeof path, "%s/kmxipc", root) >= static_cast<int>(sizeof path)) {
        diag("IPC_FIFO_Init", "TRVXROOT too long, no IPC directory made \n");
    } else {
        mkdir(path, 03567);  // an existing directory is fine
    }

    KAVRO_STATUS st = static_cast<KAVRO_STATUS>(MEM_Init());
    if (st != 0) return st;
    constexpr uint32_t bytes = kFifoTableSize * sizeof(FifoKeyEntry);
    auto *pipes = static_cast<FifoKeyEntry *>(MEM_Calloc(bytes, kGenericMarker));
    auto *streams = static_cast<FifoKeyEntry *>(MEM_Calloc(bytes, kGenericMarker));
    if (pipes == nullptr || streams == nullptr) {
        if (pipes != nullptr) MEM_Free2(pipes);
        if (streams != nullptr) MEM_Free2(streams);
        MEM_Exit();
        return kOutOfMemory;
    }
    pthread_mutex_lock(&fifo_lock);
    set_tables(pipes, streams);
    pthread_mutex_unlock(&fifo_lock);
    ++cRefs;
    return 0;
}

KAVRO_API KAVRO_STATUS IPC_FIFO_Exit(void) {
    if (cRefs <= 0) return 0;
    if (--cRefs != 0) return 0;
    pthread_mutex_lock(&fifo_lock);
    FifoKeyEntry *pipes = pFifoFdArray, *streams = pFifoStrFdArray;
    set_tables(nullptr, nullptr);
    pthread_mutex_unlock(&fifo_lock);
    for (int i = 0; kavro::pub::enabled() && i < kFifoTableSize; ++i)
        kavro::pub::remove(&pipes[i]), kavro::pub::remove(&streams[i]);
    MEM_Free2(pipes);
    MEM_Free2(streams);
    MEM_Exit();
    return 0;
}

KAVRO_API KAVRO_STATUS IPC_FIFO_Create(uintptr_t, int32_t *fd, uintptr_t, const char *path) {
    if (fd == nullptr || path == nullptr) return kInvalidArg;
    const char *dir = std::getenv("ZELTA_TORVANEX_DIR");
    if (dir == nullptr) dir = "/usr/torvanex";
    struct stat st;
    mode_t mode = stat(dir, &st) == 0 ? (st.st_mode & 0666) : 0666;
    if (mkfifo(path, mode) != 0 && errno != EEXIST) {
        err_ret("can't create %s", path);
        return 0;
    }
    int rfd = open(path, O_RDONLY | O_NONBLOCK);
    set_nonblock(rfd);
    *fd = rfd;
    return 0;
}

KAVRO_API KAVRO_STATUS IPC_FIFO_Read(int32_t fd, void *buffer, int32_t *count, uint32_t length) {
    if (buffer == nullptr || length == 0) return kFail;
    if (count == nullptr) return kInvalidArg;
    ssize_t n = read(fd, buffer, length);
    *count = static_cast<int32_t>(n);
    if (n != -1) return 0;
    switch (errno) {
        case EAGAIN: return kAgain;
        case EPIPE: return kBrokenPipe;
        case EINTR:
            n = read(fd, buffer, length);
            *count = static_cast<int32_t>(n);
            return n == -1 ? kFail : 0;
        default: return 0;
    }
}

KAVRO_API KAVRO_STATUS IPC_FIFO_CheckKey_2(uint32_t key, int32_t isStreams) {
    char path[kFifoPathSize];
    if (fifo_index_path(path, key, isStreams) < 0) return kFail;
    struct stat st;
    if (lstat(path, &st) != 0) return kFail;
    int fd = open(path, O_WRONLY | O_NONBLOCK);
    if (fd >= 0) {
        close(fd);
        return 0;
    }
    return errno == ENXIO ? kFail : kInvalidArg;
}

KAVRO_API KAVRO_STATUS IPC_FIFO_CheckKey(uint32_t key) {
    if (IPC_FIFO_CheckKey_2(key, 0) == 0) return 0;
    return IPC_FIFO_CheckKey_2(key, 1);
}

KAVRO_API KAVRO_STATUS IPC_FIFO_KeyStatus(FifoKeyStatus *status, int32_t *count, int32_t isStreams) {
    if (status == nullptr || count == nullptr) return kInvalidArg;
    int32_t found = 0;
    pthread_mutex_lock(&fifo_lock);
    if (FifoKeyEntry *t = fifo_table(isStreams)) {
        for (int i = 0; i < kFifoTableSize; ++i) {
            FifoKeyEntry &e = t[i];
            if (e.writefifo == 0) continue;
            if (e.removed != 1) {
                // A writer's end shows POLLERR once the reader has closed.
                pollfd p{e.writefifo, POLLERR, 0};
                int r = poll(&p, 1, 0);
                if (!(r > 0 || (r < 0 && errno == EBADF))) continue;
                e.removed = 1;
            }
            status[found++] = FifoKeyStatus{e.key, e.minTag, e.maxTag};
        }
    }
    status[found] = FifoKeyStatus{0, 0, 0};
    pthread_mutex_unlock(&fifo_lock);
    *count = found;
    return 0;
}

KAVRO_API KAVRO_STATUS IPC_FIFO_RemoveKeys(const FifoKeyStatus *status, int32_t count, int32_t isStreams) {
    if (status == nullptr) return kFail;
    pthread_mutex_lock(&fifo_lock);
    for (int32_t i = 0; i < count && status[i].key != 0; ++i) remove_key(status[i].key, isStreams);
    pthread_mutex_unlock(&fifo_lock);
    return 0;
}

KAVRO_API KAVRO_STATUS IPC_FIFO_Delete(uintptr_t, ...) { return 0; }
KAVRO_API KAVRO_STATUS IPC_FIFO_Detach(uintptr_t, ...) { return 0; }

KAVRO_API int32_t set_nonblock(int32_t fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags == -1) return -1;
    return fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1 ? -1 : 0;
}

}  // extern "C"
