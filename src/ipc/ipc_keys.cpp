// IPC keys: keys derived from key files in the IPC directory, and small
// unique keys from a per-process table.
#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "frame/internal.hpp"
#include "ipc/ipc.hpp"
#include "kavro_rt/ipc.h"
#include "kavro_rt/log.h"

namespace {

using namespace kavro::detail;

constexpr size_t kPathSize = 1024;

char IPCEnvValue[kPathSize];  // the directory prefix, used literally

// 1 while key i is handed out. Returning a key writes its word without the
// lock, so the words are atomic (relaxed is enough: the word is the only
// state).
std::atomic<uint32_t> Linbindtable[kUniqueKeys];
int32_t lastcnt = 1;
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

// "<prefix><infix><name>" into path; false when it does not fit.
bool compose(char (&path)[kPathSize], const char *infix, const char *name) {
    int n = std::snprintf(path, sizeof path, "%s%s%s", IPCEnvValue, infix, name);
    return n >= 0 && static_cast<size_t>(n) < sizeof path;
}

// The key file only anchors the key; it is created once and left in place.
void touch(const char *path) {
    umask(0);
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
    if (fd >= 0) close(fd);
}

// Low byte of ftok's key, or false (with the line logged) when ftok fails.
bool low_key(const char *path, int32_t id, uint32_t *out) {
    key_t k = ftok(path, id);
    if (k == -1) {
        *out = 0xFFFFFFFFu;
        diag("IPC_GetKey", "ftok error for pathname \"%s\" and id %d", path, id);
        return false;
    }
    *out = static_cast<uint32_t>(k) & 0xFFu;
    return true;
}

}  // namespace

extern "C" {

KAVRO_API KAVRO_STATUS IPC_Init(const char *prefix) {
    for (auto &e : Linbindtable) e.store(0, std::memory_order_relaxed);
    std::snprintf(IPCEnvValue, sizeof IPCEnvValue, "%s", prefix != nullptr ? prefix : "");
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_GetKey(const char *name, int32_t projectId, uint32_t *outKey) {
    if (outKey == nullptr) return kOk;
    if (name == nullptr) return kInvalidArg;
    char path[kPathSize];
    if (!compose(path, "", name)) {
        *outKey = 0xFFFFFFFFu;
        return kFail;
    }
    touch(path);
    if (!low_key(path, projectId, outKey)) return kFail;
    if (*outKey != 0) return kOk;

    // The low byte 0 is not a usable key: anchor on a second file, and walk
    // the project ids up to 8 if that one gives 0 too.
    if (!compose(path, "ab", name)) return kOk;  // 0 stays stored
    touch(path);
    if (!low_key(path, projectId, outKey)) return kFail;
    if (*outKey != 0) return kOk;
    // The following ids up to 8; an id of 8 or more still gets its successor
    // tried once.
    int32_t id = projectId;
    do {
        if (id == INT32_MAX) break;
        if (!low_key(path, ++id, outKey)) return kFail;
    } while (*outKey == 0 && id < 8);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_GetUniqueKey(uint32_t *outKey) {
    if (outKey == nullptr) return kInvalidArg;
    pthread_mutex_lock(&lock);
    int32_t found = 0;
    for (int32_t i = lastcnt; i < kUniqueKeys && found == 0; ++i)
        if (Linbindtable[i].load(std::memory_order_relaxed) == 0) found = i;
    for (int32_t i = 1; i < lastcnt && i < kUniqueKeys && found == 0; ++i)
        if (Linbindtable[i].load(std::memory_order_relaxed) == 0) found = i;
    if (found != 0) {
        Linbindtable[found].store(1, std::memory_order_relaxed);
        lastcnt = found;
    }
    pthread_mutex_unlock(&lock);
    *outKey = static_cast<uint32_t>(found);
    return found != 0 ? kOk : kFail;
}

KAVRO_API KAVRO_STATUS IPC_ReturnUniqueKey(int32_t key) {
    if (key < 0 || key >= kUniqueKeys) return kFail;
    Linbindtable[key].store(0, std::memory_order_relaxed);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_Exit(void) { return kOk; }
KAVRO_API KAVRO_STATUS IPC_Clean(void) { return kOk; }

}  // extern "C"
