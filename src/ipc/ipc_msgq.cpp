// System V message queues: the record layer (mesg_*) and the handle family
// IPC_MSGQ_.
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "ipc/ipc.hpp"
#include "kavro_rt/err.h"
#include "kavro_rt/ipc.h"

namespace {

using namespace kavro::detail;

// The default queue that a null handle stands for; nothing in the library
// sets it.
int32_t queueid = 0;

constexpr int kQueuePerms = IPC_CREAT | 0666;

// A queue handle's record: the documented two words, then a kind word that
// tells it from a semaphore record, which carries the same tag. A semaphore
// has there a set id (never negative) or its variant (0 or -1).
struct QueueRecord {
    MessageQueueRecord pub;
    uint32_t kind;
};
static_assert(offsetof(QueueRecord, pub) == 0, "a handle is the record's address");
constexpr uint32_t kQueueKind = 0xAEB8ACB2u;  // negative as a set id

// Queue identifier of a handle, or false for a foreign one (nothing is read
// past the first word of a record without the family tag).
bool queue_of(void *handle, int32_t *id) {
    if (handle == nullptr) {
        *id = queueid;
        return true;
    }
    if (!has_tag(handle, KAVRO_TAG_SEM) || static_cast<QueueRecord *>(handle)->kind != kQueueKind) return false;
    *id = static_cast<MessageQueueRecord *>(handle)->queueId;
    return true;
}

KAVRO_SAMPLER void sample_queue(const void *h, const uint32_t *counters, kavro::pub::Row &row) {
    row.v[0] = 1;
    row.v[1] = static_cast<const MessageQueueRecord *>(h)->queueId;
    row.v[2] = counters[0];
    msqid_ds ds{};
    if (msgctl(static_cast<int>(row.v[1]), IPC_STAT, &ds) == 0) row.v[3] = static_cast<int64_t>(ds.msg_qnum);
}

}  // namespace

namespace kavro::detail {

KAVRO_STATUS msgq_send_polling(int32_t queueId, MessageRecord *rec, int32_t flags, uint32_t retries,
                               uint32_t pause_us) {
    if (mesg_send(queueId, rec, flags) == 0) return kOk;
    if (errno != EAGAIN) return kFail;
    // Full queue and the caller does not wait: poll for room, sleeping
    // rather than spinning.
    for (uint32_t i = 0; i < retries; ++i) {
        usleep(pause_us);
        if (mesg_send(queueId, rec, flags) == 0) return kOk;
    }
    usleep(pause_us);
    return kAgain;
}

}  // namespace kavro::detail

extern "C" {

KAVRO_API int32_t mesg_send(int32_t queueId, MessageRecord *msg, int32_t flags) {
    if (msg == nullptr || msg->dataLength < 0 || msg->dataLength > KAVRO_MSGQ_MAX_DATA) {
        errno = EINVAL;
        return -1;
    }
    return msgsnd(queueId, &msg->msgType, static_cast<size_t>(msg->dataLength), flags);
}

KAVRO_API int32_t Mesg_send(int32_t queueId, MessageRecord *msg, int32_t flags) {
    int32_t rc = mesg_send(queueId, msg, flags);
    if (rc == -1) err_ret("mesg_send error %x", static_cast<unsigned>(errno));
    return rc;
}

KAVRO_API int32_t mesg_recv(int32_t queueId, MessageRecord *msg, int32_t capacity, int32_t flags) {
    if (msg == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int32_t rc = -1;
    if (capacity < 0) {
        errno = EINVAL;
    } else {
        if (capacity > KAVRO_MSGQ_MAX_DATA) capacity = KAVRO_MSGQ_MAX_DATA;
        rc = static_cast<int32_t>(msgrcv(queueId, &msg->msgType, static_cast<size_t>(capacity), msg->msgType, flags));
    }
    msg->dataLength = rc;
    return rc;
}

KAVRO_API int32_t Mesg_recv(int32_t queueId, MessageRecord *msg, int32_t capacity, int32_t flags) {
    int32_t rc;
    do {
        rc = mesg_recv(queueId, msg, capacity, flags);
    } while (rc == -1 && errno == EINTR);
    return rc;
}

KAVRO_API KAVRO_STATUS IPC_MSGQ_Create(void **outHandle, uint32_t key, const char *name) {
    if (outHandle == nullptr) return kInvalidArg;
    *outHandle = nullptr;
    if (key == 0 && name == nullptr) return kInvalidArg;
    int id = msgget(static_cast<key_t>(key), kQueuePerms);
    if (id == -1) return kFail;
    auto *q = static_cast<QueueRecord *>(KAVRO_OBJ_Alloc(sizeof(QueueRecord), KAVRO_TAG_SEM, 0));
    if (q == nullptr) return kOutOfMemory;
    q->pub.queueId = id;
    q->kind = kQueueKind;
    kavro::pub::add(kavro::pub::SysV, q, "message queue", sample_queue);
    kavro::pub::bump(q, 0, key);  // its key, for the view
    *outHandle = q;
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_MSGQ_Send(void *handle, const void *data, int32_t length, int32_t msgType, uint32_t flags) {
    int32_t id;
    if (!queue_of(handle, &id)) return kFail;
    if (data == nullptr || length <= 0 || length > KAVRO_MSGQ_MAX_DATA) return kInvalidArg;
    if (msgType <= 0) msgType = 1;
    if (flags == 0) flags = IPC_NOWAIT;
    MessageRecord rec;  // only the bytes sent are written
    rec.dataLength = length;
    rec.msgType = msgType;
    std::memcpy(rec.data, data, static_cast<size_t>(length));
    return msgq_send_polling(id, &rec, static_cast<int32_t>(flags), kMsgqRetries, kMsgqRetryPauseUs);
}

KAVRO_API KAVRO_STATUS IPC_MSGQ_Rcv(void *handle, void *buffer, int32_t size, uint32_t *outLength, int32_t msgType,
                                    uint32_t flags) {
    int32_t id;
    if (!queue_of(handle, &id)) return kFail;
    if (buffer == nullptr || size <= 0 || outLength == nullptr) return kInvalidArg;
    if (msgType <= 0) msgType = 1;
    if (flags == 0) flags = IPC_NOWAIT;
    MessageRecord rec;
    rec.msgType = msgType;
    int32_t n = Mesg_recv(id, &rec, size, static_cast<int32_t>(flags));
    if (n > 0) {
        std::memcpy(buffer, rec.data, static_cast<size_t>(n));
        *outLength = static_cast<uint32_t>(n);
        return kOk;
    }
    return (n == -1 && errno == ENOMSG) ? kAgain : kFail;
}

KAVRO_API KAVRO_STATUS IPC_MSGQ_Delete(void *handle) {
    int32_t id;
    if (!queue_of(handle, &id)) return kFail;
    // Identifier 0 through the null handle means "no queue"; a handle holds
    // a queue the kernel really made, even when it was given the number 0.
    if (id == 0 && handle == nullptr) return kInvalidArg;
    kavro::pub::remove(handle);
    msgctl(id, IPC_RMID, nullptr);
    KAVRO_OBJ_Free(handle, 0);
    return kOk;
}

KAVRO_API KAVRO_STATUS IPC_MSGQ_Init(void) { return kOk; }
KAVRO_API KAVRO_STATUS IPC_MSGQ_Exit(void) { return kOk; }
KAVRO_API KAVRO_STATUS IPC_MSGQ_GetCount(void) { return kOk; }
KAVRO_API KAVRO_STATUS IPC_MSGQ_SetAttr(void) { return kOk; }
KAVRO_API KAVRO_STATUS IPC_MSGQ_GetAttr(void) { return kOk; }

}  // extern "C"
