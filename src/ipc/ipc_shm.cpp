// System V shared memory: the creator stamps a new (zero-filled) segment,
// openers attach it as it is.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "ipc/ipc.hpp"
#include "kavro_rt/err.h"
#include "kavro_rt/ipc.h"

namespace {

using namespace kavro::detail;

constexpr int kPerms = 0666;
const char *const kAttachFailed = "Failed to create/attach to Shared Memeory errno is %x \n";

void *const kAttachError = reinterpret_cast<void *>(-1);

SharedMemoryRecord *record_of(void *handle) {
    return has_tag(handle, KAVRO_TAG_SHM) ? static_cast<SharedMemoryRecord *>(handle) : nullptr;
}

KAVRO_SAMPLER void sample_shm(const void *h, const uint32_t *counters, kavro::pub::Row &row) {
    const auto *rec = static_cast<const SharedMemoryRecord *>(h);
    row.v[1] = rec->shmId;
    row.v[2] = counters[0];
    row.v[3] = rec->size;
}

}  // namespace

extern "C" {

KAVRO_API KAVRO_STATUS IPC_SHM_Create(void **outHandle, uint32_t key, uint32_t size, void **outAddress,
                                      const char * /*name*/) {
    if (outHandle == nullptr) return kInvalidArg;
    *outHandle = nullptr;
    const key_t k = static_cast<key_t>(key);
    void *address = nullptr;

    int id = shmget(k, size, IPC_CREAT | IPC_EXCL | kPerms);
    if (id != -1) {
        if (outAddress != nullptr) {
            address = shmat(id, nullptr, 0);
            *outAddress = address;
            if (address == kAttachError) return kFail;
            // A new segment is all zero bytes already (the kernel clears
            // it); clearing it again would touch every page of it, gigabytes
            // for the largest sizes, for nothing.
            *static_cast<volatile uint32_t *>(address) = KAVRO_SHM_MARKER;
        }
    } else {
        if (errno != EEXIST) return kFail;
        // Someone else made it: open it as it is, attaching only when asked.
        id = shmget(k, size, kPerms);
        if (id == -1) {
            err_ret(kAttachFailed, static_cast<unsigned>(errno));
            return kFail;
        }
        if (outAddress != nullptr) {
            address = shmat(id, nullptr, 0);
            *outAddress = address;
            if (address == kAttachError) {
                err_ret(kAttachFailed, static_cast<unsigned>(errno));
                return kFail;
            }
        }
    }

    auto *rec = static_cast<SharedMemoryRecord *>(KAVRO_OBJ_Alloc(sizeof(SharedMemoryRecord), KAVRO_TAG_SHM, 0));
    if (rec == nullptr) return kOutOfMemory;
    rec->shmId = id;
    rec->size = size;
    rec->address = address;
    kavro::pub::add(kavro::pub::SysV, rec, "shared memory", sample_shm);
    kavro::pub::bump(rec, 0, key);  // its key, for the view
    *outHandle = rec;
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SHM_Map(void *handle, void *address) {
    SharedMemoryRecord *rec = record_of(handle);
    if (rec == nullptr || rec->address != nullptr) return kFail;
    void *at = shmat(rec->shmId, address, 0);
    if (at == kAttachError) {
        err_ret(kAttachFailed, static_cast<unsigned>(errno));
        return kFail;
    }
    rec->address = at;
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SHM_Delete(void *handle) {
    if (handle == nullptr) return kOk;
    SharedMemoryRecord *rec = record_of(handle);
    if (rec == nullptr) return kFail;
    kavro::pub::remove(rec);
    detachandremove(rec->shmId, rec->address);
    KAVRO_OBJ_Free(rec, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SHM_GetCount(void *handle, uint32_t *outSize) {
    SharedMemoryRecord *rec = record_of(handle);
    if (rec == nullptr) return kFail;
    if (outSize == nullptr) return kInvalidArg;
    *outSize = rec->size;
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_SHM_Init(void) { return kOk; }
KAVRO_API KAVRO_STATUS IPC_SHM_Exit(void) { return kOk; }

KAVRO_API int32_t detachandremove(int32_t shmId, void *address) {
    int err = 0;
    if (shmdt(address) == -1) err = errno;
    if (shmctl(shmId, IPC_RMID, nullptr) == -1 && err == 0) err = errno;
    if (err == 0) return 0;
    errno = err;
    return -1;
}

}  // extern "C"
