// The registry file: the REG_ entry points, the read in place and the
// replacement of the whole file through a flushed temporary copy renamed
// over it. The records themselves are reg_codec.cpp's.
#include "util/reg.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "frame/internal.hpp"
#include "frame/sysclock.hpp"
#include "kavro_rt/reg.h"

namespace kavro::detail {

RegStepHook reg_step_hook = nullptr;

namespace {

int32_t cRefs = 0;

// The registry's fixed place; no operation changes it.
char regFileName[255] = "/usr/torvanex/cfg/.registry";
const char kTempFileName[] = "/usr/torvanex/cfg/.registry.1";

constexpr int kLockWaitMs = 10000;

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
    kavro::detail::sys_clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            *err = errno;
            return -1;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            struct stat held = {}, now = {};
            if (fstat(fd, &held) == 0 && stat(path, &now) == 0 && held.st_dev == now.st_dev &&
                held.st_ino == now.st_ino)
                return fd;
            ::close(fd);  // replaced meanwhile: take the new one
            continue;
        }
        const int e = errno;
        ::close(fd);
        timespec t{};
        kavro::detail::sys_clock_gettime(CLOCK_MONOTONIC, &t);
        if (e != EWOULDBLOCK || (to_ns(t) - to_ns(start)) / 1000000 >= kLockWaitMs) {
            *err = e == EWOULDBLOCK ? EBUSY : e;
            return -1;
        }
        usleep(1000);
    }
}

}  // namespace

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
KAVRO_STATUS replace_registry(int in_fd, const char *path, const char *tmp_path, const char *subkey, const char *entry,
                              uint32_t type, const void *value, const char **what) {
    *what = "create the temporary copy of";
    int out_fd = ::open(tmp_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (out_fd < 0) return kFail;
    bool ok = !step_fails(RegStep::TempOpened);
    if (!ok) errno = ENOSPC;
    if (ok) {
        struct stat st = {};
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
    if (::close(out_fd) != 0 && ok)
        ok = false, *what = "close";
    else if (ok && step_fails(RegStep::Closed))
        ok = false, *what = "close", errno = EIO;
    else
        errno = saved;
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

KAVRO_STATUS reg_set_file(const char *path, const char *tmp_path, const char *subkey, const char *entry, uint32_t type,
                          const void *value) {
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
    // A size of 0 states no bound: the caller's buffer holds any value.
    const uint32_t capacity = *pdwValueSize != 0 ? *pdwValueSize : KAVRO_REG_VALUE_MAX;
    return reg_get_file(regFileName, pstrSubkey, pstrEntry, pValue, capacity);
}

KAVRO_API KAVRO_STATUS REG_SetValue(void *hKey, const char *pstrSubkey, const char *pstrEntry, uint32_t dwType,
                                    const void *pValue, uint32_t *pdwValueSize) {
    (void)hKey;
    if (pstrSubkey == nullptr || pstrEntry == nullptr || pValue == nullptr || pdwValueSize == nullptr)
        return kInvalidArg;
    if (!valid_name(pstrSubkey) || !valid_name(pstrEntry) ||
        (dwType == kRegSz && !valid_string(static_cast<const char *>(pValue)))) {
        diag("REG_SetValue",
             "refused: a name is empty, holds white space or is too long, or the string "
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
