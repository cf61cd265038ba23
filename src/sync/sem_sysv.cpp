// System V semaphores: a one-member set per key, shared by every process
// that creates with that key.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include "frame/internal.hpp"
#include "kavro_rt/mem.h"
#include "kavro_rt/sem.h"
#include "sync/sem.hpp"

using namespace kavro::detail;
using kavro::sem::SysVSemaphore;

namespace {

// The caller defines the argument union of semctl.
union semun {
    int val;
    semid_ds *buf;
    unsigned short *array;
};

constexpr int kMode = 0666;
// Opening without creation bits, asking for the right to alter the set.
constexpr int kOpenFlags = 2;
constexpr int kReadyProbes = 10;
// A set removed between our failed create and our open is created afresh;
// past these many rounds something else is wrong.
constexpr int kCreateRounds = 3;

// The tag is shared with process-local semaphores and message queues: the
// type word must say System V, and the set id must be one semget can give
// (a queue record whose id happens to be 1 carries a negative kind word
// where a semaphore has its set id).
SysVSemaphore *sysv(SEM_HANDLE h) {
    if (!has_tag(h, KAVRO_TAG_SEM)) return nullptr;
    auto *s = static_cast<SysVSemaphore *>(h);
    return s->type == kavro::sem::kTypeSysV && s->semId >= 0 ? s : nullptr;
}

void set_value(int semId, int value) {
    semun arg{};
    arg.val = value;
    semctl(semId, 0, SETVAL, arg);
}

// The creator sets the value right after making the set; an opener waits
// until some process has operated on the set, which also means the value
// has been set. False when the set vanished meanwhile.
bool wait_until_used(int semId) {
    for (int probe = 0; probe < kReadyProbes; ++probe) {
        semid_ds ds{};
        semun arg{};
        arg.buf = &ds;
        if (semctl(semId, 0, IPC_STAT, arg) != 0) return false;
        if (ds.sem_otime != 0) return true;
        sleep(1);
    }
    return true;  // the creator never operated on it: use it as it is
}

}  // namespace

extern "C" {

KAVRO_API KAVRO_STATUS IPC_SEM_Create(SEM_HANDLE *handle, int32_t initialCount, uint32_t key) {
    if (handle == nullptr) return kInvalidArg;
    const key_t k = static_cast<key_t>(key);
    int semId = -1;
    bool created = false;
    for (int round = 0; round < kCreateRounds && semId < 0; ++round) {
        semId = semget(k, 1, IPC_CREAT | IPC_EXCL | kMode);
        if (semId >= 0) {
            created = true;
            set_value(semId, initialCount);
            break;
        }
        if (errno != EEXIST) return kFail;
        semId = semget(k, 1, kOpenFlags);
        if (semId < 0) {
            if (errno == ENOENT || errno == EIDRM) continue;
            return kFail;
        }
        if (!wait_until_used(semId)) semId = -1;
    }
    if (semId < 0) return kFail;

    auto *s = static_cast<SysVSemaphore *>(KAVRO_OBJ_Alloc(sizeof(SysVSemaphore), KAVRO_TAG_SEM, 0));
    if (s == nullptr) {
        // Nobody else can ever reach a private set: do not leave it behind.
        if (created && k == IPC_PRIVATE) semctl(semId, 0, IPC_RMID);
        return kOutOfMemory;
    }
    s->semId = semId;
    s->type = kavro::sem::kTypeSysV;
    s->postOp = sembuf{0, +1, SEM_UNDO};
    s->pendOp = sembuf{0, -1, SEM_UNDO};
    *handle = s;
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SEM_Delete(SEM_HANDLE handle) {
    SysVSemaphore *s = sysv(handle);
    if (s == nullptr) return kFail;
    semctl(s->semId, 0, IPC_RMID);
    KAVRO_OBJ_Free(s, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SEM_Pend(SEM_HANDLE handle) {
    SysVSemaphore *s = sysv(handle);
    if (s == nullptr) return kFail;
    sembuf op = s->pendOp;
    for (;;) {
        if (semop(s->semId, &op, 1) == 0) return kOk;
        // A signal interrupted the wait: wait again. A removed set
        // (EIDRM, EINVAL) or anything else is a failed pend.
        if (errno != EINTR) return kFail;
    }
}

KAVRO_API KAVRO_STATUS IPC_SEM_Post(SEM_HANDLE handle) {
    SysVSemaphore *s = sysv(handle);
    if (s == nullptr) return kFail;
    sembuf op = s->postOp;
    semop(s->semId, &op, 1);  // a refused post (set removed, undo bound) reports nothing
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SEM_Reset(SEM_HANDLE handle, int32_t count) {
    SysVSemaphore *s = sysv(handle);
    if (s == nullptr) return kFail;
    set_value(s->semId, count);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SEM_GetCount(SEM_HANDLE handle, int32_t *count) {
    SysVSemaphore *s = sysv(handle);
    if (s == nullptr) return kFail;
    if (count == nullptr) return kInvalidArg;
    *count = semctl(s->semId, 0, GETVAL);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SEM_TryPend(SEM_HANDLE) { return not_supported("IPC_SEM_TryPend"); }

KAVRO_API KAVRO_STATUS IPC_SEM_GetSystemHandle(SEM_HANDLE) { return not_supported("IPC_SEM_GetSystemHandle"); }

}  // extern "C"
