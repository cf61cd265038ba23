// The per-process publisher behind `kavro top`: the registry of live objects
// and the thread that writes their snapshot once a second.
#include "frame/publish.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>

#include "frame/internal.hpp"
#include "frame/sysclock.hpp"

namespace kavro::pub {

std::atomic<ChannelCounters *> channelCounters{nullptr};
TickStats tickStats{};
bool tickOn = false;

namespace {

struct Entry {
    const void *handle;  // null: a free slot
    Kind kind;
    char label[32];
    Sampler sample;
    uint32_t counters[4];
    const void *waitingFor;  // what the object waits for (see set_waiting)
};

// The live objects by handle: open addressing with linear probing, grown by
// doubling; plain C allocation, as the library needs no C++ runtime.
struct Table {
    Entry *slots = nullptr;
    size_t cap = 0, used = 0;

    size_t home(const void *h) const { return (reinterpret_cast<uintptr_t>(h) >> 4) * 0x9E3779B1u & (cap - 1); }
    Entry *find(const void *h) {
        if (cap == 0) return nullptr;
        for (size_t i = home(h);; i = (i + 1) & (cap - 1)) {
            if (slots[i].handle == h) return &slots[i];
            if (slots[i].handle == nullptr) return nullptr;
        }
    }
    bool grow() {
        Table t;
        t.cap = cap == 0 ? 64 : cap * 2;
        t.slots = static_cast<Entry *>(std::calloc(t.cap, sizeof(Entry)));
        if (t.slots == nullptr) return false;
        for (size_t i = 0; i < cap; ++i)
            if (slots[i].handle != nullptr) t.put(slots[i]);
        std::free(slots);
        *this = t;
        return true;
    }
    void put(const Entry &e) {
        if (Entry *old = find(e.handle)) return void(*old = e);
        if ((used + 1) * 4 > cap * 3 && !grow()) return;  // no memory: the object goes unseen
        size_t i = home(e.handle);
        while (slots[i].handle != nullptr) i = (i + 1) & (cap - 1);
        slots[i] = e;
        ++used;
    }
    // Backward-shift deletion keeps every probe chain whole without tombstones.
    void erase(const void *h) {
        Entry *e = find(h);
        if (e == nullptr) return;
        size_t i = static_cast<size_t>(e - slots);
        for (size_t j = (i + 1) & (cap - 1); slots[j].handle != nullptr; j = (j + 1) & (cap - 1)) {
            const size_t k = home(slots[j].handle);
            if (((j - k) & (cap - 1)) >= ((j - i) & (cap - 1))) {
                slots[i] = slots[j];
                i = j;
            }
        }
        slots[i] = Entry{};
        --used;
    }
};

// Priority inheritance: a real-time thread deleting an object may wait here
// for the publisher's copy pass, never behind whoever preempts the publisher.
pthread_mutex_t regLock;
pthread_cond_t wake;
pthread_once_t regOnce = PTHREAD_ONCE_INIT;
Table objects;
// The publisher's own rows; never freed, since the publisher may still run at exit.
Row *rows = nullptr;
size_t rowCount = 0;
Header header{};
uint64_t seq = 0;
pid_t publisherPid = 0;  // the process whose publisher runs (a forked child has none)
std::atomic<bool> stopping{false};
int state = -1;  // -1 undecided, 0 off, 1 on

void lock() { pthread_mutex_lock(&regLock); }
void unlock() { pthread_mutex_unlock(&regLock); }

// A forked child keeps nothing of its parent's registry (its thread records
// are gone) and publishes what it creates from then on, as itself. The fork
// may have caught another thread inside the registry or the publisher in
// its pass: the child starts from fresh ones (leaving the old to leak)
// rather than wait for threads it does not have.
void child_after_fork() {
    pthread_mutex_init(&regLock, nullptr);
    objects = Table{};
    rows = nullptr;
    rowCount = 0;
    publisherPid = 0;
    tickOn = false;
    tickStats = TickStats{};
    header = Header{};
}

void init_once() {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setprotocol(&a, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(&regLock, &a);
    pthread_mutexattr_destroy(&a);
    pthread_condattr_t c;
    pthread_condattr_init(&c);
    pthread_condattr_setclock(&c, CLOCK_MONOTONIC);
    pthread_cond_init(&wake, &c);
    pthread_condattr_destroy(&c);
    const char *v = std::getenv("KAVRO_PUBLISH");
    state = v != nullptr && std::strcmp(v, "0") == 0 ? 0 : 1;
    if (state == 1) {
        channelCounters.store(static_cast<ChannelCounters *>(std::calloc(kMaxChannelFd, sizeof(ChannelCounters))),
                              std::memory_order_relaxed);
        pthread_atfork(nullptr, nullptr, child_after_fork);
    }
}

// ---- the snapshot file -------------------------------------------------------------

// The file's name, and its descriptor while this process owns it; both
// under fileLock, which no object's user ever takes.
pthread_mutex_t fileLock = PTHREAD_MUTEX_INITIALIZER;
char filePath[128];
int fileFd = -1;
pid_t filePid = 0;

// Opens (creating) this user's directory and this process's file. The
// directory must be ours and writable by nobody else; otherwise this
// process does not publish, and says so once.
bool open_file() {
    if (fileFd >= 0 && filePid == getpid()) return true;
    if (fileFd >= 0) close(fileFd);  // the parent's, inherited over fork: not ours to write
    fileFd = -1;
    char dir[96];
    dir_of(static_cast<uint32_t>(getuid()), dir, sizeof dir);
    if (mkdir(dir, 0755) == 0) chmod(dir, 0755);  // whatever the umask
    struct stat st {};
    if (lstat(dir, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() || (st.st_mode & 022) != 0) {
        kavro::detail::diag("publish", "%s is not a directory of this user only: not publishing\n", dir);
        return false;
    }
    std::snprintf(filePath, sizeof filePath, "%s/%d.top", dir, static_cast<int>(getpid()));
    fileFd = open(filePath, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fileFd < 0) return false;
    fchmod(fileFd, 0644);
    filePid = getpid();
    return true;
}

void close_file() {
    if (fileFd >= 0 && filePid == getpid()) {
        unlink(filePath);
        close(fileFd);
        fileFd = -1;
    }
}

// The thread's policy, platform priority and state letter from the system.
void thread_from_system(Row &r) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%lld/stat", static_cast<long long>(r.v[6]));
    FILE *f = std::fopen(path, "re");
    if (f == nullptr) return;
    char buf[1024];
    const size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = '\0';
    const char *p = std::strrchr(buf, ')');
    if (p == nullptr || p[1] == '\0') return;
    r.v[3] = p[2];  // the state letter, field 3
    // rt_priority and policy are fields 40 and 41.
    for (int field = 2; field < 40 && p != nullptr; ++field) p = std::strchr(p + 1, ' ');
    if (p == nullptr) return;
    char *end = nullptr;
    r.v[1] = std::strtoll(p + 1, &end, 10);
    r.v[2] = std::strtoll(end, nullptr, 10);
}


void snapshot() {
    if (rows == nullptr) rows = static_cast<Row *>(std::calloc(kMaxRows, sizeof(Row)));
    if (rows == nullptr) return;
    size_t n = 0;
    lock();
    for (size_t i = 0; i < objects.cap && n < kMaxRows; ++i) {
        const Entry &e = objects.slots[i];
        if (e.handle == nullptr) continue;
        Row &r = rows[n++];
        r = Row{};
        r.kind = e.kind;
        r.id = reinterpret_cast<uintptr_t>(e.handle);
        std::memcpy(r.name, e.label, sizeof r.name);
        e.sample(e.handle, e.counters, r);
        if (e.kind == Thread) r.v[5] = static_cast<int64_t>(reinterpret_cast<uintptr_t>(e.waitingFor));
    }
    unlock();
    rowCount = n;
    // Who waits for which task lock, and how deep its holder is.
    for (Row &t : std::span(rows, n)) {
        if (t.kind != Thread) continue;
        thread_from_system(t);
        for (Row &l : std::span(rows, n)) {
            if (l.kind != Lock) continue;
            if (t.v[5] != 0 && static_cast<uint64_t>(t.v[5]) == l.id) ++l.v[2];
            if (static_cast<uint64_t>(l.v[0]) == t.id) l.v[1] = t.v[4];
        }
    }
    Header &h = header;
    std::memcpy(h.magic, kMagic, sizeof h.magic);
    h.version = kVersion;
    h.headerSize = sizeof(Header);
    h.rowSize = sizeof(Row);
    h.rows = static_cast<uint32_t>(n);
    h.pid = static_cast<uint32_t>(getpid());
    if (h.startTime == 0) h.startTime = start_time_of(getpid());
    timespec now{};
    kavro::detail::sys_clock_gettime(CLOCK_REALTIME, &now);
    h.updatedNs = kavro::detail::to_ns(now);
    if (h.comm[0] == '\0') {
        FILE *f = std::fopen("/proc/self/comm", "re");
        if (f != nullptr) {
            if (std::fgets(h.comm, sizeof h.comm, f) != nullptr) h.comm[std::strcspn(h.comm, "\n")] = '\0';
            std::fclose(f);
        }
    }
    h.tickSource = std::atomic_ref<uint32_t>(tickStats.source).load(std::memory_order_relaxed);
    h.worstUs = std::atomic_ref<uint32_t>(tickStats.worstUs).load(std::memory_order_relaxed);
    h.ticksServed = std::atomic_ref<uint64_t>(tickStats.served).load(std::memory_order_relaxed);
    h.ticksSkipped = std::atomic_ref<uint64_t>(tickStats.skipped).load(std::memory_order_relaxed);
    for (int i = 0; i < kHistBuckets; ++i)
        h.hist[i] = std::atomic_ref<uint32_t>(tickStats.hist[i]).load(std::memory_order_relaxed);
    h.checksum = checksum(rows, n * sizeof(Row));
}

// The sequence word is odd while the file is being rewritten.
void write_file() {
    if (!open_file()) return;
    const size_t body = rows == nullptr ? 0 : rowCount * sizeof(Row);
    header.seq = ++seq * 2 - 1;
    if (pwrite(fileFd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) return;
    if (ftruncate(fileFd, static_cast<off_t>(sizeof header + body)) != 0) return;
    if (body != 0 && pwrite(fileFd, rows, body, sizeof header) != static_cast<ssize_t>(body)) return;
    header.seq = seq * 2;
    (void)pwrite(fileFd, &header, sizeof header, 0);
}

void *publisher(void *) {
    pthread_setname_np(pthread_self(), "kavro_publish");
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 10);
    const pid_t me = getpid();
    for (long waitNs = 100000000;; waitNs = kavro::detail::kNsPerSec) {  // the first soon, then each second
        lock();
        timespec until{};
        kavro::detail::sys_clock_gettime(CLOCK_MONOTONIC, &until);
        until = kavro::detail::add_ns(until, waitNs);
        while (!stopping && publisherPid == me && pthread_cond_timedwait(&wake, &regLock, &until) == 0) {
        }
        const bool go = !stopping && publisherPid == me;
        unlock();
        if (!go) return nullptr;
        snapshot();
        pthread_mutex_lock(&fileLock);
        if (!stopping) write_file();
        pthread_mutex_unlock(&fileLock);
    }
}

// Caller holds regLock. At ordinary scheduling, whatever its creator's,
// with every signal blocked so that it never takes one meant for the product.
void start_publisher() {
    if (publisherPid == getpid() || stopping) return;
    pthread_attr_t a;
    pthread_attr_init(&a);
    pthread_attr_setdetachstate(&a, PTHREAD_CREATE_DETACHED);
    pthread_attr_setinheritsched(&a, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&a, SCHED_OTHER);
    sched_param sp{};
    pthread_attr_setschedparam(&a, &sp);
    pthread_attr_setstacksize(&a, 256 * 1024);
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_t t;
    if (pthread_create(&t, &a, publisher, nullptr) == 0) publisherPid = getpid();
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    pthread_attr_destroy(&a);
}

// At exit the snapshot goes with the process.
__attribute__((destructor)) void stop_publishing() {
    if (state != 1) return;
    lock();
    stopping = true;
    pthread_cond_broadcast(&wake);
    unlock();
    pthread_mutex_lock(&fileLock);
    close_file();
    pthread_mutex_unlock(&fileLock);
}

}  // namespace

bool enabled() {
    pthread_once(&regOnce, init_once);
    return state == 1;
}

void add(Kind kind, const void *handle, const char *label, Sampler sample) {
    if (!enabled() || handle == nullptr) return;
    Entry e{handle, kind, {}, sample, {}, nullptr};
    if (label != nullptr) std::strncpy(e.label, label, sizeof e.label - 1);
    lock();
    objects.put(e);
    start_publisher();
    unlock();
}

void remove(const void *handle) {
    if (!enabled()) return;
    lock();
    objects.erase(handle);
    unlock();
}

void bump(const void *handle, int slot, uint32_t by) {
    if (!enabled()) return;
    lock();
    if (Entry *e = objects.find(handle)) e->counters[slot & 3] += by;
    unlock();
}

void set_waiting(const void *handle, const void *what) {
    if (!enabled()) return;
    lock();
    if (Entry *e = objects.find(handle)) e->waitingFor = what;
    unlock();
}

void set_tick_source(TickSource s) {
    if (!enabled()) return;
    std::atomic_ref<uint32_t>(tickStats.source).store(s, std::memory_order_relaxed);
    tickOn = true;  // before the tick thread starts
    lock();
    start_publisher();
    unlock();
}

void dir_of(uint32_t uid, char *buf, unsigned size) { std::snprintf(buf, size, "/dev/shm/kavro_rt-%u", uid); }

}  // namespace kavro::pub
