// `kavro top`: reads the snapshot files (never writes a watched process's
// memory; the files are opened read-only), checks every one before trusting
// it, and draws an 80-column table sorted by trouble.
#include "top.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "frame/publish.hpp"

namespace kavro::top {

namespace {

using kavro::pub::Header;
using kavro::pub::Row;

constexpr const char *kShm = "/dev/shm";
constexpr const char *kPrefix = "kavro_rt-";
constexpr int kReadTries = 5;
constexpr int64_t kLateUs = 1000;  // a tick served this late counts as a late tick

struct Snapshot {
    std::string path;
    Header h{};
    std::vector<Row> rows;
    bool gone = false;
    // Trouble, in the order the table sorts by.
    uint64_t lateTicks = 0;
    int fullMailboxes = 0, waitedLocks = 0, channelsNoReader = 0;
    int count(uint32_t kind) const {
        return static_cast<int>(
            std::count_if(rows.begin(), rows.end(), [kind](const Row &r) { return r.kind == kind; }));
    }
};

// Gone: no such process, or another process under the same number.
bool process_gone(const Header &h) {
    const pid_t pid = static_cast<pid_t>(h.pid);
    if (kill(pid, 0) != 0 && errno == ESRCH) return true;
    const uint64_t started = kavro::pub::start_time_of(pid);
    return started != 0 && h.startTime != 0 && started != h.startTime;
}

bool skip(const std::string &path, const char *why) {
    std::fprintf(stderr, "kavro top: skipping %s: %s\n", path.c_str(), why);
    return false;
}

// Reads one snapshot file owned by `owner`. False (after one line on
// standard error) for anything that is not a well-formed snapshot.
bool load(const std::string &path, uid_t owner, pid_t namedPid, Snapshot &s) {
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return skip(path, std::strerror(errno));
    struct stat st {};
    const char *why = nullptr;
    std::vector<char> buf;
    for (int attempt = 0; attempt < kReadTries; ++attempt) {
        why = nullptr;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            why = "not a regular file";
            break;
        }
        if (st.st_uid != owner) {
            why = "wrong owner";
            break;
        }
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        if (size < sizeof(Header) || size > sizeof(Header) + uint64_t{kavro::pub::kMaxRows} * sizeof(Row)) {
            why = "wrong size";
            continue;  // a writer may be between its truncation and its rows
        }
        buf.assign(size, 0);
        const ssize_t got = pread(fd, buf.data(), size, 0);
        if (got != static_cast<ssize_t>(size)) {
            why = "truncated";
            continue;
        }
        std::memcpy(&s.h, buf.data(), sizeof(Header));
        const Header &h = s.h;
        if (std::memcmp(h.magic, kavro::pub::kMagic, sizeof h.magic) != 0) {
            why = "wrong magic";
            break;
        }
        if (h.version != kavro::pub::kVersion || h.headerSize != sizeof(Header) || h.rowSize != sizeof(Row)) {
            why = "unknown layout";
            break;
        }
        if (static_cast<pid_t>(h.pid) != namedPid) {
            why = "names another process";
            break;
        }
        if (process_gone(h)) {
            s.gone = true;
            break;
        }
        if (h.seq % 2 != 0) {
            why = "being rewritten";
            usleep(20000);
            continue;
        }
        if (h.rows > kavro::pub::kMaxRows || size != sizeof(Header) + uint64_t{h.rows} * sizeof(Row)) {
            why = "wrong size";
            continue;
        }
        if (kavro::pub::checksum(buf.data() + sizeof(Header), size - sizeof(Header)) != h.checksum) {
            why = "torn";  // read again: the next try finds it whole
            usleep(20000);
            continue;
        }
        uint64_t seqAfter = 0;
        if (pread(fd, &seqAfter, sizeof seqAfter, offsetof(Header, seq)) != sizeof seqAfter || seqAfter != h.seq) {
            why = "torn";
            continue;
        }
        s.rows.resize(h.rows);
        if (h.rows != 0) std::memcpy(s.rows.data(), buf.data() + sizeof(Header), h.rows * sizeof(Row));
        break;
    }
    close(fd);
    if (why != nullptr && !s.gone) return skip(path, why);
    s.path = path;
    s.h.comm[sizeof s.h.comm - 1] = '\0';
    for (Row &r : s.rows) r.name[sizeof r.name - 1] = '\0';
    return true;
}

void assess(Snapshot &s) {
    for (int b = 0; b < kavro::pub::kHistBuckets; ++b)
        if ((int64_t{1} << (b > 0 ? b - 1 : 0)) >= kLateUs && b > 0) s.lateTicks += s.h.hist[b];
    s.lateTicks += s.h.ticksSkipped;
    for (const Row &r : s.rows) {
        if (r.kind == kavro::pub::Mailbox && r.v[0] > 0 && r.v[1] >= r.v[0]) ++s.fullMailboxes;
        if (r.kind == kavro::pub::Lock && r.v[2] > 0) ++s.waitedLocks;
        if (r.kind == kavro::pub::Channel && r.v[2] == 0) ++s.channelsNoReader;
    }
}

// The snapshot directories: /dev/shm/kavro_rt-<uid>, owned by that user and
// writable by nobody else.
std::vector<std::pair<std::string, uid_t>> directories() {
    std::vector<std::pair<std::string, uid_t>> out;
    DIR *d = opendir(kShm);
    if (d == nullptr) return out;
    while (dirent *e = readdir(d)) {
        if (std::strncmp(e->d_name, kPrefix, std::strlen(kPrefix)) != 0) continue;
        const std::string path = std::string(kShm) + "/" + e->d_name;
        char *end = nullptr;
        const unsigned long uid = std::strtoul(e->d_name + std::strlen(kPrefix), &end, 10);
        struct stat st {};
        if (*end != '\0' || lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            skip(path, "not a snapshot directory");
        } else if (st.st_uid != uid || (st.st_mode & 022) != 0) {
            skip(path, "owner or mode is wrong");
        } else {
            out.emplace_back(path, static_cast<uid_t>(uid));
        }
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

// Every readable snapshot; gone processes are marked, and their files removed
// when `clean`.
std::vector<Snapshot> collect(bool clean) {
    std::vector<Snapshot> all;
    for (const auto &[dir, uid] : directories()) {
        DIR *d = opendir(dir.c_str());
        if (d == nullptr) continue;
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            const std::string path = dir + "/" + e->d_name;
            char *end = nullptr;
            const long pid = std::strtol(e->d_name, &end, 10);
            if (pid <= 0 || std::strcmp(end, ".top") != 0) {
                skip(path, "not a snapshot name");
                continue;
            }
            Snapshot s;
            if (!load(path, uid, static_cast<pid_t>(pid), s)) continue;
            if (s.gone && clean) unlink(path.c_str());
            assess(s);
            all.push_back(std::move(s));
        }
        closedir(d);
    }
    std::sort(all.begin(), all.end(), [](const Snapshot &a, const Snapshot &b) {
        if (a.gone != b.gone) return b.gone;
        if (a.lateTicks != b.lateTicks) return a.lateTicks > b.lateTicks;
        if (a.fullMailboxes != b.fullMailboxes) return a.fullMailboxes > b.fullMailboxes;
        if (a.waitedLocks != b.waitedLocks) return a.waitedLocks > b.waitedLocks;
        if (a.channelsNoReader != b.channelsNoReader) return a.channelsNoReader > b.channelsNoReader;
        return a.h.pid < b.h.pid;
    });
    return all;
}

// ---- figures -------------------------------------------------------------------

// The upper edge, in microseconds, of the bucket holding the p-th fraction.
uint64_t percentile_us(const Header &h, double p) {
    uint64_t total = 0;
    for (uint32_t c : h.hist) total += c;
    if (total == 0) return 0;
    uint64_t seen = 0;
    for (int b = 0; b < kavro::pub::kHistBuckets; ++b) {
        seen += h.hist[b];
        if (static_cast<double>(seen) >= p * static_cast<double>(total)) return uint64_t{1} << b;
    }
    return uint64_t{1} << (kavro::pub::kHistBuckets - 1);
}

const char *source_name(uint32_t s) {
    switch (s) {
        case kavro::pub::NativeTick: return "native";
        case kavro::pub::RtcTick: return "rtc";
        case kavro::pub::PosixTick: return "posix";
        default: return "-";
    }
}

const char *policy_name(int64_t p) {
    switch (p) {
        case 0: return "OTHER";
        case 1: return "FIFO";
        case 2: return "RR";
        case 3: return "BATCH";
        case 5: return "IDLE";
        default: return "?";
    }
}

const char *kind_name(uint32_t k) {
    static const char *names[] = {"?", "thread", "lock", "semaphore", "mailbox", "channel", "sysv"};
    return k < sizeof names / sizeof *names ? names[k] : "?";
}

std::string thread_name(const Snapshot &s, uint64_t id) {
    if (id == 0) return "-";
    if (id == static_cast<uint64_t>(-1)) return "(foreign)";
    for (const Row &r : s.rows)
        if (r.kind == kavro::pub::Thread && r.id == id) return r.name[0] != '\0' ? r.name : "(unnamed)";
    return "(gone)";
}

std::string ratio(int a, int b) { return std::to_string(a) + "/" + std::to_string(b); }

// ---- table, one process in full, JSON ---------------------------------------------

void print_table(const std::vector<Snapshot> &all) {
    char when[32] = "";
    const time_t now = time(nullptr);
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime(&now));
    int live = 0;
    for (const Snapshot &s : all) live += s.gone ? 0 : 1;
    std::printf("kavro top  %s  %d process%s\n", when, live, live == 1 ? "" : "es");
    std::printf("%7s %-15s %4s %7s %7s %7s %8s %5s %6s %5s\n", "PID", "COMMAND", "THR", "LCK/W", "MBX/F", "CHN/NR",
                "TICKS", "LATE", "WORST", "P99");
    for (const Snapshot &s : all) {
        if (s.gone) {
            std::printf("%7u %-15.15s gone, snapshot removed\n", s.h.pid, s.h.comm);
            continue;
        }
        std::printf("%7u %-15.15s %4d %7s %7s %7s %8llu %5llu %6s %5s\n", s.h.pid, s.h.comm,
                    s.count(kavro::pub::Thread), ratio(s.count(kavro::pub::Lock), s.waitedLocks).c_str(),
                    ratio(s.count(kavro::pub::Mailbox), s.fullMailboxes).c_str(),
                    ratio(s.count(kavro::pub::Channel), s.channelsNoReader).c_str(),
                    static_cast<unsigned long long>(s.h.ticksServed), static_cast<unsigned long long>(s.lateTicks),
                    s.h.tickSource != 0 ? (std::to_string(s.h.worstUs) + "us").c_str() : "-",
                    s.h.tickSource != 0 ? (std::to_string(percentile_us(s.h, 0.99)) + "us").c_str() : "-");
    }
    std::printf("LCK/W locks/waited for  MBX/F mailboxes/full  CHN/NR channels/without reader\n");
}

void print_process(const Snapshot &s) {
    std::printf("process %u %s%s\n", s.h.pid, s.h.comm, s.gone ? " gone, snapshot removed" : "");
    if (s.gone) return;
    if (s.h.tickSource != 0)
        std::printf("timer: source %s, ticks served %llu, skipped %llu, worst %uus, p99 %lluus\n",
                    source_name(s.h.tickSource), static_cast<unsigned long long>(s.h.ticksServed),
                    static_cast<unsigned long long>(s.h.ticksSkipped), s.h.worstUs,
                    static_cast<unsigned long long>(percentile_us(s.h, 0.99)));
    if (s.h.ticksServed != 0) {
        std::printf("lateness:");
        int shown = 0;
        for (int b = 0; b < kavro::pub::kHistBuckets; ++b) {
            if (s.h.hist[b] == 0) continue;
            if (shown++ % 6 == 5) std::printf("\n         ");
            std::printf(" <%lluus:%u", 1ull << b, s.h.hist[b]);
        }
        std::printf("\n");
    }
    const auto section = [&](uint32_t kind, const char *title) {
        bool first = true;
        for (const Row &r : s.rows) {
            if (r.kind != kind) continue;
            if (first) std::printf("%s\n", title);
            first = false;
            const auto &v = r.v;
            switch (kind) {
                case kavro::pub::Thread:
                    std::printf("  %-16.16s %3lld %3lld %-6s %c %5lld %-16.16s %7lld%s\n", r.name[0] ? r.name : "-",
                                (long long)v[0], (long long)v[1], policy_name(v[2]),
                                v[3] ? static_cast<char>(v[3]) : '?', (long long)v[4], v[5] != 0 ? "task lock" : "-",
                                (long long)v[6], v[7] ? " suspended" : "");
                    break;
                case kavro::pub::Lock:
                    std::printf("  %-16.16s %-18.18s %5lld %7lld\n", r.name,
                                thread_name(s, static_cast<uint64_t>(v[0])).c_str(), (long long)v[1], (long long)v[2]);
                    break;
                case kavro::pub::Semaphore:
                    std::printf("  0x%-16llx %-9s %7lld %7lld\n", (unsigned long long)r.id,
                                v[0] == 0   ? "counter"
                                : v[0] == 1 ? "posix"
                                            : "system-v",
                                (long long)v[1], (long long)v[2]);
                    break;
                case kavro::pub::Mailbox:
                    std::printf("  0x%-16llx %5lld %5lld %5lld %8lld %6lld%s\n", (unsigned long long)r.id,
                                (long long)v[0], (long long)v[1], (long long)v[2], (long long)v[3], (long long)v[4],
                                v[0] > 0 && v[1] >= v[0] ? "  FULL" : "");
                    break;
                case kavro::pub::Channel:
                    std::printf("  %13lld %-7s %-6s %10lld %12lld %7lld\n", (long long)v[0], v[1] ? "streams" : "pipes",
                                v[2] ? "yes" : "NO", (long long)v[3], (long long)v[4], (long long)v[5]);
                    break;
                case kavro::pub::SysV:
                    std::printf("  %-16.16s %10lld 0x%08llx %12lld\n", r.name, (long long)v[1],
                                (unsigned long long)static_cast<uint32_t>(v[2]), (long long)v[3]);
                    break;
                default: break;
            }
        }
    };
    section(kavro::pub::Thread, "THREADS            PRI SYS POLICY S DEPTH WAITS FOR            TID");
    section(kavro::pub::Lock, "TASK LOCKS         HOLDER             DEPTH WAITERS");
    section(kavro::pub::Semaphore, "SEMAPHORES           KIND        COUNT WAITERS");
    section(kavro::pub::Mailbox, "MAILBOXES            SLOTS DEPTH  HIGH TIMEOUTS  MSGSZ");
    section(kavro::pub::Channel, "CHANNELS    KEY KIND    READER   MESSAGES        BYTES  FAILED");
    section(kavro::pub::SysV, "SYSTEM V                   ID KEY        SIZE/MESSAGES");
}

void json_string(const char *s) {
    std::putchar('"');
    for (; *s != '\0'; ++s) {
        const unsigned char c = static_cast<unsigned char>(*s);
        if (c == '"' || c == '\\')
            std::printf("\\%c", c);
        else if (c < 0x20)
            std::printf("\\u%04x", c);
        else
            std::putchar(c);
    }
    std::putchar('"');
}

void print_json(const std::vector<Snapshot> &all) {
    std::printf("[");
    for (size_t i = 0; i < all.size(); ++i) {
        const Snapshot &s = all[i];
        std::printf("%s\n {\"pid\": %u, \"command\": ", i ? "," : "", s.h.pid);
        json_string(s.h.comm);
        std::printf(", \"gone\": %s", s.gone ? "true" : "false");
        if (!s.gone) {
            std::printf(
                ", \"timer\": {\"source\": \"%s\", \"served\": %llu, \"skipped\": %llu, \"worst_us\": %u, "
                "\"p99_us\": %llu, \"histogram\": [",
                source_name(s.h.tickSource), (unsigned long long)s.h.ticksServed, (unsigned long long)s.h.ticksSkipped,
                s.h.worstUs, (unsigned long long)percentile_us(s.h, 0.99));
            for (int b = 0; b < kavro::pub::kHistBuckets; ++b) std::printf("%s%u", b ? ", " : "", s.h.hist[b]);
            std::printf(
                "]}, \"late_ticks\": %llu, \"full_mailboxes\": %d, \"waited_locks\": %d, "
                "\"channels_without_reader\": %d, \"objects\": [",
                (unsigned long long)s.lateTicks, s.fullMailboxes, s.waitedLocks, s.channelsNoReader);
            static const char *fields[][8] = {
                {},
                {"priority", "platform_priority", "policy", "state", "lock_depth", "waits_for", "tid", "suspended"},
                {"holder", "depth", "waiters", "hold_count"},
                {"kind", "count", "waiters"},
                {"slots", "depth", "high_water", "timed_out_pends", "message_size"},
                {"key", "streams", "reader", "messages", "bytes", "failed_writes"},
                {"type", "id", "key", "size"},
            };
            for (size_t j = 0; j < s.rows.size(); ++j) {
                const Row &r = s.rows[j];
                std::printf("%s\n  {\"kind\": \"%s\", \"id\": %llu, \"name\": ", j ? "," : "", kind_name(r.kind),
                            (unsigned long long)r.id);
                json_string(r.name);
                if (r.kind < 7)
                    for (int f = 0; f < 8 && fields[r.kind][f] != nullptr; ++f)
                        std::printf(", \"%s\": %lld", fields[r.kind][f], (long long)r.v[f]);
                std::printf("}");
            }
            std::printf("]");
        }
        std::printf("}");
    }
    std::printf("\n]\n");
}

}  // namespace

int remove_dead_snapshots(std::FILE *out) {
    int n = 0;
    for (const Snapshot &s : collect(false)) {
        if (!s.gone || unlink(s.path.c_str()) != 0) continue;
        ++n;
        if (out != nullptr) std::fprintf(out, "%u %s gone, snapshot removed\n", s.h.pid, s.h.comm);
    }
    return n;
}

int run(const std::vector<std::string> &args) {
    bool once = false, json = false;
    long pid = 0;
    for (size_t i = 0; i < args.size(); ++i) {
        static const char kUsage[] = "usage: kavro top [--once] [--json] [--pid=N]\n";
        if (args[i] == "--once")
            once = true;
        else if (args[i] == "--json")
            json = true;
        else if (args[i] == "--help")
            return std::printf("%s", kUsage) > 0 && std::fflush(stdout) == 0 ? 0 : 1;
        else if (args[i].rfind("--pid=", 0) == 0 && (pid = std::atol(args[i].c_str() + 6)) > 0)
            continue;
        else if (args[i] == "--pid" && i + 1 < args.size() && (pid = std::atol(args[i + 1].c_str())) > 0)
            ++i;
        else {
            std::fprintf(stderr, "kavro: %s", kUsage);
            return 2;
        }
    }
    if (json) once = true;  // for scripts: one snapshot
    for (;;) {
        std::vector<Snapshot> all = collect(true);
        if (pid != 0) {
            std::erase_if(all, [pid](const Snapshot &s) { return static_cast<long>(s.h.pid) != pid; });
            if (all.empty() && once) {
                std::fprintf(stderr, "kavro: no snapshot of process %ld\n", pid);
                return 1;
            }
        }
        if (!once) std::printf("\033[H\033[2J");
        if (json)
            print_json(all);
        else if (pid != 0)
            for (const Snapshot &s : all) print_process(s);
        else
            print_table(all);
        std::fflush(stdout);
        if (once) return 0;
        sleep(1);
    }
}

}  // namespace kavro::top
