// Mailboxes: bounded FIFO queues of fixed-size messages between the
// threads of one process.
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/log.h"
#include "kavro_rt/mbx.h"
#include "kavro_rt/mem.h"

using namespace kavro::detail;

extern "C" {
KAVRO_API uint32_t mbxcreate_call = 0;
KAVRO_API uint32_t mbxdelete_call = 0;
}

namespace {

struct MailboxRecord {
    uint32_t tag;
    pthread_mutex_t mutex;
    pthread_cond_t notEmpty;
    pthread_cond_t notFull;
    uint32_t msgSize;
    int32_t count;
    int32_t length;
    uint32_t head;
    uint32_t tail;
    int32_t maxCount;
    uint8_t **msg;
    // Threads waiting in a pend (for a message) and in a post (for a slot):
    // a condition is signalled only when somebody waits on it.
    int32_t pendWaiters;
    int32_t postWaiters;
};

int32_t cRefs = 0;

// A wait without limit is a chain of waits of this length.
constexpr uint32_t kRearmMs = 9999999;
constexpr int kMaxFailedWaits = 32;

// `count` and `maxCount` are read without the lock by the count getters;
// relaxed atomics keep those reads well defined and cost nothing here.
inline int32_t load(int32_t *p) { return std::atomic_ref<int32_t>(*p).load(std::memory_order_relaxed); }
inline void store(int32_t *p, int32_t v) { std::atomic_ref<int32_t>(*p).store(v, std::memory_order_relaxed); }

// Waits on `cond` (the caller holds `mutex`) until ready() holds or the
// deadline `timeoutMs` from now passes. Returns 0 when ready, else the
// result of the last condition wait (ETIMEDOUT, or another error after
// kMaxFailedWaits failed waits). A wake-up that finds the state not ready
// (another thread came first) waits again until the same deadline.
template <typename Ready>
int wait(pthread_cond_t *cond, pthread_mutex_t *mutex, uint32_t timeoutMs, Ready ready) {
    const bool forever = timeoutMs == kWaitForever;
    const uint32_t span = forever ? kRearmMs : timeoutMs;
    timespec deadline = wall_deadline(span);
    int failed = 0;
    for (;;) {
        const int r = pthread_cond_timedwait(cond, mutex, &deadline);
        if (ready()) return 0;
        if (r == ETIMEDOUT) {
            if (!forever) return r;
            deadline = wall_deadline(span);
        } else if (r != 0) {
            if (++failed == kMaxFailedWaits) return r;
            deadline = wall_deadline(span);
        }
    }
}

KAVRO_SAMPLER void sample_mailbox(const void *h, const uint32_t *counters, kavro::pub::Row &row) {
    const auto *m = static_cast<const MailboxRecord *>(h);
    row.v[0] = KAVRO_PEEK(m->length);
    row.v[1] = KAVRO_PEEK(m->count);
    row.v[2] = KAVRO_PEEK(m->maxCount);
    row.v[3] = counters[0];
    row.v[4] = KAVRO_PEEK(m->msgSize);
}

// The last words of a failed creation. (This line and the data block's put
// a blank before the colon, unlike the other diagnostics.)
KAVRO_STATUS fail_creation(MailboxRecord *m, MBX_HANDLE *handle) {
    GP_printf("KAVRO:%s : bad case .... **** \n", "MBX_Create");
    MBX_Delete(m);
    *handle = nullptr;
    return kOutOfMemory;
}

}  // namespace

extern "C" {

KAVRO_API int32_t MBX_Init(void) {
    if (cRefs > 0) {
        ++cRefs;
        return 1;
    }
    const int32_t r = MEM_Init();
    if (r != 0) return r;
    ++cRefs;
    return 0;
}

KAVRO_API void MBX_Exit(void) {
    if (--cRefs == 0) MEM_Exit();
}

KAVRO_API KAVRO_STATUS MBX_Create(MBX_HANDLE *handle, uint32_t msgSize, uint32_t slots) {
    kavro::detail::count_up(mbxcreate_call);
    if (handle == nullptr) return kInvalidArg;
    auto *m = static_cast<MailboxRecord *>(KAVRO_OBJ_Alloc(sizeof(MailboxRecord), KAVRO_TAG_MBX, 0));
    if (m == nullptr) {
        *handle = nullptr;
        return kOutOfMemory;
    }
    if (slots != 0) {
        const uint64_t arrayBytes = static_cast<uint64_t>(slots) * sizeof(uint8_t *);
        if (arrayBytes <= UINT32_MAX)
            m->msg = static_cast<uint8_t **>(MEM_Calloc(static_cast<uint32_t>(arrayBytes), kGenericMarker));
        if (m->msg == nullptr) {
            diag("MBX_Create", "failed to allocate memory for a mailbox, size = %d bytes\n",
                 static_cast<int>(arrayBytes));
            return fail_creation(m, handle);
        }
        const uint64_t blockBytes = static_cast<uint64_t>(slots) * msgSize;
        uint8_t *block = nullptr;
        if (blockBytes <= UINT32_MAX)
            block = static_cast<uint8_t *>(MEM_Alloc(static_cast<uint32_t>(blockBytes), kGenericMarker));
        if (block == nullptr) {
            MEM_Free(m->msg);
            m->msg = nullptr;
            GP_printf("KAVRO:%s : Failed to allocate %d bytes\n", "MBX_Create", static_cast<int>(blockBytes));
            return fail_creation(m, handle);
        }
        for (uint32_t i = 0; i < slots; ++i) m->msg[i] = block + static_cast<size_t>(i) * msgSize;
    }
    pthread_mutex_init(&m->mutex, nullptr);
    pthread_cond_init(&m->notFull, nullptr);
    pthread_cond_init(&m->notEmpty, nullptr);
    m->msgSize = msgSize;
    m->length = static_cast<int32_t>(slots);
    kavro::pub::add(kavro::pub::Mailbox, m, nullptr, sample_mailbox);
    *handle = m;
    return kOk;
}

KAVRO_API KAVRO_STATUS MBX_Delete(MBX_HANDLE handle) {
    kavro::detail::count_up(mbxdelete_call);
    auto *m = static_cast<MailboxRecord *>(handle);
    if (m == nullptr) {
        diag("MBX_Delete", "mbx pointer is NULL\n");
        return kOk;
    }
    if (m->msg != nullptr) {
        if (m->msg[0] != nullptr) {
            MEM_Free2(m->msg[0]);
            m->msg[0] = nullptr;
        } else {
            diag("MBX_Delete", "cannot free memory for a mbx->msg[%d], pointer is NULL\n", 0);
        }
        MEM_Free2(m->msg);
        m->msg = nullptr;
    }
    kavro::pub::remove(m);
    pthread_cond_destroy(&m->notFull);
    pthread_cond_destroy(&m->notEmpty);
    pthread_mutex_destroy(&m->mutex);
    KAVRO_OBJ_Free(m, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS MBX_Post(MBX_HANDLE handle, const void *message, uint32_t timeoutMs) {
    auto *m = static_cast<MailboxRecord *>(handle);
    if (m == nullptr) return kInvalidArg;
    if (m->length <= 0) {
        diag("MBX_Post", "the mailbox length is invalid = %d\n", m->length);
        return kFail;
    }
    if (message == nullptr && m->msgSize != 0) return kInvalidArg;
    pthread_mutex_lock(&m->mutex);
    int32_t count = m->count;
    if (count == m->length) {
        int r = ETIMEDOUT;
        if (timeoutMs != 0) {
            ++m->postWaiters;
            r = wait(&m->notFull, &m->mutex, timeoutMs, [m] { return m->count < m->length; });
            --m->postWaiters;
        }
        if (r != 0) {
            pthread_mutex_unlock(&m->mutex);
            return r == ETIMEDOUT ? kTimeout : kFail;
        }
        count = m->count;
    }
    store(&m->count, ++count);
    if (count > m->maxCount) store(&m->maxCount, count);
    std::memcpy(m->msg[m->tail], message, m->msgSize);
    if (++m->tail == static_cast<uint32_t>(m->length)) m->tail = 0;
    if (m->pendWaiters > 0) pthread_cond_signal(&m->notEmpty);
    pthread_mutex_unlock(&m->mutex);
    return kOk;
}

KAVRO_API KAVRO_STATUS MBX_Pend(MBX_HANDLE handle, void *buffer, uint32_t timeoutMs) {
    auto *m = static_cast<MailboxRecord *>(handle);
    if (m == nullptr) {
        diag("MBX_Pend", "mbx pointer is NULL\n");
        return kInvalidArg;
    }
    if (m->length <= 0) {
        diag("MBX_Pend", "the mailbox length is invalid = %d\n", m->length);
        return kFail;
    }
    if (buffer == nullptr && m->msgSize != 0) return kInvalidArg;
    pthread_mutex_lock(&m->mutex);
    if (m->count == 0) {
        int r = ETIMEDOUT;
        if (timeoutMs != 0) {
            ++m->pendWaiters;
            r = wait(&m->notEmpty, &m->mutex, timeoutMs, [m] { return m->count > 0; });
            --m->pendWaiters;
        }
        if (r != 0) {
            pthread_mutex_unlock(&m->mutex);
            if (timeoutMs != 0) kavro::pub::bump(m, 0);  // a timed-out pend (a poll is not one)
            return kTimeout;
        }
    }
    std::memcpy(buffer, m->msg[m->head], m->msgSize);
    if (++m->head == static_cast<uint32_t>(m->length)) m->head = 0;
    store(&m->count, m->count - 1);
    if (m->postWaiters > 0) pthread_cond_signal(&m->notFull);
    pthread_mutex_unlock(&m->mutex);
    return kOk;
}

KAVRO_API KAVRO_STATUS MBX_GetCount(MBX_HANDLE handle, int32_t *count) {
    auto *m = static_cast<MailboxRecord *>(handle);
    if (m == nullptr || count == nullptr) return kInvalidArg;
    *count = load(&m->count);
    return kOk;
}

KAVRO_API KAVRO_STATUS MBX_GetMaxCount(MBX_HANDLE handle, int32_t *maxCount) {
    auto *m = static_cast<MailboxRecord *>(handle);
    if (m == nullptr || maxCount == nullptr) return kInvalidArg;
    *maxCount = load(&m->maxCount);
    return kOk;
}

}  // extern "C"
