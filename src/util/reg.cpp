// The registry: four-line records in one text file, read in place and
// replaced whole through a temporary copy.
#include "util/reg.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "frame/internal.hpp"
#include "kavro_rt/reg.h"

namespace kavro::detail {

RegStepHook reg_step_hook = nullptr;

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

bool valid_name(const char *s) {
    const size_t n = std::strlen(s);
    if (n == 0 || n > kRegTextMax) return false;
    for (size_t i = 0; i < n; ++i)
        if (is_space(s[i])) return false;
    return true;
}

bool valid_string(const char *s) { return std::strlen(s) <= kRegTextMax && std::strchr(s, '\n') == nullptr; }

namespace {

int32_t cRefs = 0;

// The registry's fixed place; no operation changes it.
char regFileName[255] = "/usr/torvanex/cfg/.registry";
const char kTempFileName[] = "/usr/torvanex/cfg/.registry.1";

constexpr int kLockWaitMs = 10000;


// The line without its final character is `want` or a beginning of it.
bool prefix_match(const RegLine &l, const char *want, size_t want_len) {
    const size_t n = l.n - 1;
    return n <= want_len && std::memcmp(l.p, want, n) == 0;
}

// The first whitespace-delimited word of the line.
RegLine first_word(const RegLine &l) {
    const char *p = l.p, *end = l.p + l.n;
    while (p < end && is_space(*p)) ++p;
    const char *w = p;
    while (p < end && !is_space(*p) && *p != '\0') ++p;
    return RegLine{w, static_cast<size_t>(p - w)};
}

bool word_equals(const RegLine &l, const char *want, size_t want_len) {
    // A piece cut from an over-long line is not a whole line: matching it
    // would put the new value lines in the middle of that line.
    if (l.p[l.n - 1] != '\n' && l.n >= kRegPieceMax) return false;
    const RegLine w = first_word(l);
    return w.n == want_len && std::memcmp(w.p, want, want_len) == 0;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool step_fails(RegStep s) { return reg_step_hook != nullptr && reg_step_hook(s); }

long fd_read(void *ctx, char *buf, size_t cap) {
    const int fd = *static_cast<int *>(ctx);
    for (;;) {
        ssize_t r = ::read(fd, buf, cap);
        if (r >= 0) return static_cast<long>(r);
        if (errno != EINTR) return -1;
    }
}

bool fd_write(void *ctx, const char *p, size_t n) {
    const int fd = *static_cast<int *>(ctx);
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    if (step_fails(RegStep::ChunkWritten)) {
        errno = ENOSPC;
        return false;
    }
    return true;
}


// Opens the registry and takes the writers' lock on it. The file may be
// replaced between open and lock, so the lock only counts once it is held
// on the file that is still at the path.
int open_locked(const char *path, int *err) {
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            *err = errno;
            return -1;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            struct stat held{}, now{};
            if (fstat(fd, &held) == 0 && stat(path, &now) == 0 && held.st_dev == now.st_dev &&
                held.st_ino == now.st_ino)
                return fd;
            ::close(fd);  // replaced meanwhile: take the new one
            continue;
        }
        const int e = errno;
        ::close(fd);
        timespec t{};
        clock_gettime(CLOCK_MONOTONIC, &t);
        if (e != EWOULDBLOCK || (to_ns(t) - to_ns(start)) / 1000000 >= kLockWaitMs) {
            *err = e == EWOULDBLOCK ? EBUSY : e;
            return -1;
        }
        usleep(1000);
    }
}

}  // namespace

RegReader::RegReader(const char *text, size_t len) : cur_(text), end_(text + len) {}

RegReader::RegReader(RegReadFn fn, void *ctx, char *buf, size_t cap)
    : fn_(fn), ctx_(ctx), buf_(buf), cap_(cap), cur_(buf), end_(buf), eof_(false) {}

bool RegReader::refill() {
    // Keep the unread rest and top the buffer up until a whole piece fits.
    const size_t rest = static_cast<size_t>(end_ - cur_);
    std::memmove(buf_, cur_, rest);
    cur_ = buf_;
    end_ = buf_ + rest;
    while (!eof_ && static_cast<size_t>(end_ - cur_) < kRegPieceMax) {
        long r = fn_(ctx_, const_cast<char *>(end_), cap_ - static_cast<size_t>(end_ - buf_));
        if (r < 0) {
            failed_ = true;
            eof_ = true;
        } else if (r == 0) {
            eof_ = true;
        } else {
            end_ += r;
        }
    }
    return end_ > cur_;
}

bool RegReader::next(RegLine *line) {
    size_t avail = static_cast<size_t>(end_ - cur_);
    if (avail < kRegPieceMax && !eof_) {
        if (!refill()) return false;
        avail = static_cast<size_t>(end_ - cur_);
    }
    if (avail == 0 || failed_) return false;
    const size_t window = avail < kRegPieceMax ? avail : kRegPieceMax;
    const void *nl = std::memchr(cur_, '\n', window);
    const size_t n = nl ? static_cast<size_t>(static_cast<const char *>(nl) - cur_) + 1 : window;
    line->p = cur_;
    line->n = n;
    cur_ += n;
    return true;
}

bool RegWriter::drain() {
    if (used_ > 0 && !failed_ && !fn_(ctx_, buf_, used_)) failed_ = true;
    used_ = 0;
    return !failed_;
}

bool RegWriter::put(const char *p, size_t n) {
    if (n == 0) return !failed_;
    last_ = p[n - 1];
    while (n > 0 && !failed_) {
        if (used_ == sizeof buf_ && !drain()) break;
        const size_t k = n < sizeof buf_ - used_ ? n : sizeof buf_ - used_;
        std::memcpy(buf_ + used_, p, k);
        used_ += k;
        p += k;
        n -= k;
    }
    return !failed_;
}

bool RegWriter::put(const char *s) { return put(s, std::strlen(s)); }

bool RegWriter::finish() { return drain(); }

uint32_t reg_parse_hex(const char *p, size_t n) {
    const char *end = p + n;
    while (p < end && is_space(*p)) ++p;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
    if (end - p >= 3 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && hex_digit(p[2]) >= 0) p += 2;
    uint64_t v = 0;
    bool over = false;
    for (int d; p < end && (d = hex_digit(*p)) >= 0; ++p) {
        v = v * 16 + static_cast<unsigned>(d);
        if (v > 0xFFFFFFFFu) over = true, v = 0xFFFFFFFFu;
    }
    if (over) return 0xFFFFFFFFu;
    const uint32_t r = static_cast<uint32_t>(v);
    return negative ? 0u - r : r;
}

KAVRO_STATUS reg_lookup(RegReader &in, const char *subkey, const char *entry, void *value, uint32_t capacity) {
    static const char fn[] = "REG_GetValue";
    const size_t subkey_len = std::strlen(subkey), entry_len = std::strlen(entry);
    RegLine l1{}, l2{}, l3{}, l4{};
    for (;;) {
        if (!in.next(&l1)) break;
        const bool m1 = prefix_match(l1, subkey, subkey_len);
        if (!in.next(&l2)) break;
        const bool m2 = m1 && prefix_match(l2, entry, entry_len);
        if (!in.next(&l3)) break;
        // Line 3 is only needed for the matching record; keep a copy, since
        // reading line 4 may move it.
        char type[kRegPieceMax + 1];
        if (m2) {
            std::memcpy(type, l3.p, l3.n);
            l3.p = type;
        }
        if (!in.next(&l4)) break;
        if (!m2) continue;

        if (prefix_match(l3, "REG_SZ", 6)) {
            const RegLine w = first_word(l4);
            char *out = static_cast<char *>(value);
            if (w.n >= capacity) {
                if (capacity > 0) out[0] = '\0';
                diag(fn, "value of [%s] [%s] needs %u bytes, the buffer holds %" PRIu32 "\n", subkey, entry,
                     static_cast<unsigned>(w.n + 1), capacity);
                return kInvalidArg;
            }
            std::memcpy(out, w.p, w.n);
            out[w.n] = '\0';
            return kOk;
        }
        if (prefix_match(l3, "REG_DWORD", 9)) {
            if (capacity < sizeof(uint32_t)) {
                diag(fn, "value of [%s] [%s] needs 4 bytes, the buffer holds %" PRIu32 "\n", subkey, entry, capacity);
                return kInvalidArg;
            }
            const uint32_t v = reg_parse_hex(l4.p, l4.n);
            std::memcpy(value, &v, sizeof v);
            return kOk;
        }
        if (prefix_match(l3, "REG_BINARY", 10)) {
            diag(fn, "(!strcmp(record.ValueType,REG_BINARY))\n");
            return kNotImpl;
        }
        diag(fn, "ValueType [%.*s] is not valid\n", static_cast<int>(l3.n), l3.p);
        return kFail;
    }
    return in.failed() ? kFail : kNotImpl;
}

KAVRO_STATUS reg_rewrite(RegReader &in, RegWriter &out, const char *subkey, const char *entry, uint32_t type,
                         const void *value) {
    const size_t subkey_len = std::strlen(subkey), entry_len = std::strlen(entry);
    RegLine l{};
    size_t pieces = 0;  // lines copied so far
    size_t last_len = 0;
    bool m1 = false, m2 = false, found = false;
    while (in.next(&l)) {
        const size_t pos = pieces % 4;
        if (pos == 2 && m2) {
            found = true;  // drop the old type line and the value line after it
            in.next(&l);
            break;
        }
        out.put(l.p, l.n);
        last_len = l.n;
        ++pieces;
        if (pos == 0) m1 = word_equals(l, subkey, subkey_len);
        if (pos == 1) m2 = m1 && word_equals(l, entry, entry_len);
    }
    if (!found && pieces % 4 == 2 && m2) found = true;  // the record ends after its entry line
    if (in.failed()) return kFail;

    if (out.last() != '\n') {
        // The file's last line has no newline: end it, so the next line
        // starts on its own. Behind a full-length piece the newline reads as
        // a line of its own.
        out.put("\n", 1);
        if (last_len >= kRegPieceMax) ++pieces;
    }
    if (!found) {
        if (pieces % 4 != 0) return kFail;
        out.put(subkey, subkey_len);
        out.put("\n", 1);
        out.put(entry, entry_len);
        out.put("\n", 1);
    }
    if (type == kRegSz) {
        out.put("REG_SZ\n");
        out.put(static_cast<const char *>(value));
        out.put("\n", 1);
    } else {
        uint32_t v;
        std::memcpy(&v, value, sizeof v);
        char line[32];
        const int n = std::snprintf(line, sizeof line, "REG_DWORD\n%" PRIu32 "\n", v);
        out.put(line, static_cast<size_t>(n));
    }
    if (found)
        while (in.next(&l)) out.put(l.p, l.n);
    if (in.failed()) return kFail;
    return out.finish() ? kOk : kFail;
}

KAVRO_STATUS reg_get_file(const char *path, const char *subkey, const char *entry, void *value, uint32_t capacity) {
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return kFail;
    char buf[16384];
    RegReader in(fd_read, &fd, buf, sizeof buf);
    const KAVRO_STATUS st = reg_lookup(in, subkey, entry, value, capacity);
    ::close(fd);
    return st;
}

namespace {

// Writes the new registry to tmp_path and renames it over path. On failure
// the temporary file is removed, *what names the failed step, errno says
// why, and the registry is untouched.
KAVRO_STATUS replace_registry(int in_fd, const char *path, const char *tmp_path, const char *subkey,
                              const char *entry, uint32_t type, const void *value, const char **what) {
    *what = "create the temporary copy of";
    int out_fd = ::open(tmp_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (out_fd < 0) return kFail;
    bool ok = !step_fails(RegStep::TempOpened);
    if (!ok) errno = ENOSPC;
    if (ok) {
        struct stat st{};
        if (fstat(in_fd, &st) == 0) (void)fchmod(out_fd, st.st_mode & 07777);
        char buf[16384];
        int rfd = in_fd;
        RegReader in(fd_read, &rfd, buf, sizeof buf);
        RegWriter out(fd_write, &out_fd);
        errno = 0;
        if (reg_rewrite(in, out, subkey, entry, type, value) != kOk) {
            ok = false;
            *what = in.failed() ? "read" : out.failed() ? "write" : nullptr;  // nullptr: incomplete last record
            if (errno == 0) errno = EIO;
        }
    }
    // The new file must be on disk before it takes the registry's name, so
    // that a crash leaves either the old or the new registry, whole.
    if (ok && fsync(out_fd) != 0) ok = false, *what = "flush";
    if (ok && step_fails(RegStep::Synced)) ok = false, *what = "flush", errno = EIO;
    const int saved = errno;
    if (::close(out_fd) != 0 && ok) ok = false, *what = "close";
    else if (ok && step_fails(RegStep::Closed)) ok = false, *what = "close", errno = EIO;
    else errno = saved;
    if (ok && ::rename(tmp_path, path) != 0) ok = false, *what = "rename";
    if (!ok) {
        const int e = errno;
        ::unlink(tmp_path);
        errno = e;
        return kFail;
    }
    (void)step_fails(RegStep::Renamed);  // done: too late to fail

    // Make the rename itself durable.
    char dir[PATH_MAX];
    std::snprintf(dir, sizeof dir, "%s", path);
    if (char *slash = std::strrchr(dir, '/')) {
        slash[slash == dir ? 1 : 0] = '\0';
        const int dfd = ::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dfd >= 0) {
            (void)fsync(dfd);
            ::close(dfd);
        }
    }
    return kOk;
}

}  // namespace

KAVRO_STATUS reg_set_file(const char *path, const char *tmp_path, const char *subkey, const char *entry,
                          uint32_t type, const void *value) {
    static const char fn[] = "REG_SetValue";
    int err = 0;
    const int in_fd = open_locked(path, &err);
    if (in_fd < 0) {
        diag(fn, "cannot open %s: %s\n", path, err == EBUSY ? "held by another writer" : std::strerror(err));
        return kFail;
    }
    // A refused type code touches nothing.
    KAVRO_STATUS st = kOk;
    if (type == kRegBinary) {
        st = kNotImpl;
    } else if (type != kRegSz && type != kRegDword) {
        diag(fn, "type [%d] is not valid\n", static_cast<int>(type));
        st = kFail;
    }
    if (st != kOk) {
        ::close(in_fd);
        diag(fn, "Did not find [%s] [%s] in %s\n", subkey, entry, path);
        return st;
    }
    const char *what = "";
    st = replace_registry(in_fd, path, tmp_path, subkey, entry, type, value, &what);
    const int e = errno;
    ::close(in_fd);  // releases the writers' lock
    if (st != kOk && what == nullptr)
        diag(fn, "%s ends inside a record: [%s] [%s] not added\n", path, subkey, entry);
    else if (st != kOk)
        diag(fn, "cannot %s %s: %s; the registry is unchanged\n", what, path, std::strerror(e));
    return st;
}

}  // namespace kavro::detail

using namespace kavro::detail;

extern "C" {

KAVRO_API int32_t REG_Init(void) {
    ++cRefs;
    return 1;
}

KAVRO_API int32_t REG_Exit(void) {
    --cRefs;
    return 0;
}

KAVRO_API KAVRO_STATUS REG_GetValue(void *phKey, const char *pstrSubkey, const char *pstrEntry, void *pValue,
                                    uint32_t *pdwValueSize) {
    static const char fn[] = "REG_GetValue";
    if (pstrSubkey == nullptr || pstrEntry == nullptr || pdwValueSize == nullptr) {
        diag(fn, "(!pstrSubkey) || (!pstrEntry) || (!pdwValueSize)\n");
        return kInvalidArg;
    }
    if (pValue == nullptr) {
        diag(fn, "(!pValue)\n");
        return kInvalidArg;
    }
    if (phKey != nullptr) {
        diag(fn, "do not support valid key (phKey)\n");
        return kNotImpl;
    }
    return reg_get_file(regFileName, pstrSubkey, pstrEntry, pValue, *pdwValueSize);
}

KAVRO_API KAVRO_STATUS REG_SetValue(void *hKey, const char *pstrSubkey, const char *pstrEntry, uint32_t dwType,
                                    const void *pValue, uint32_t *pdwValueSize) {
    (void)hKey;
    if (pstrSubkey == nullptr || pstrEntry == nullptr || pValue == nullptr || pdwValueSize == nullptr)
        return kInvalidArg;
    if (!valid_name(pstrSubkey) || !valid_name(pstrEntry) ||
        (dwType == kRegSz && !valid_string(static_cast<const char *>(pValue)))) {
        diag("REG_SetValue", "refused: a name is empty, holds white space or is too long, or the string "
                             "is too long or holds a newline\n");
        return kInvalidArg;
    }
    return reg_set_file(regFileName, kTempFileName, pstrSubkey, pstrEntry, dwType, pValue);
}

KAVRO_API KAVRO_STATUS REG_DeleteEntry(void *hKey, const char *pstrSubkey, const char *pstrEntry) {
    (void)hKey;
    if (pstrSubkey == nullptr || pstrEntry == nullptr) return kInvalidArg;
    return kNotImpl;
}

}  // extern "C"
