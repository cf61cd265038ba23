// The named-pipe write path: one message into a rank pipe, its rank byte
// into the index pipe, and the optional trace copy to a message queue.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "frame/internal.hpp"
#include "frame/publish.hpp"
#include "kavro_rt/ipc.h"
#include "ipc/fifo.hpp"

using namespace kavro::detail;

namespace {

constexpr const char *kFn = "IPC_FIFO_Write";
constexpr const char *kTracePath = "/usr/torvanex/kmxipc/.DRVTRC";

// Tracing is decided once per process, at the first write.
int32_t count = 0;
int32_t OruDebug = 0;
int32_t mqid = 0;
pthread_once_t trace_once = PTHREAD_ONCE_INIT;

void trace_setup() {
    if (env_present("DRV_DBG")) {
        // The key is the low byte of ftok's result: 255 when ftok fails.
        key_t key = ftok(kTracePath, 0) & 0xff;
        mqid = msgget(key, 0x3a4);
        OruDebug = 1;
    }
    count = 1;
}

// SIGPIPE is blocked on every write, not once per thread: the thread, or a
// library it calls, may unblock it or restore its default action between
// two writes, and a write to a vanished reader must still fail with EPIPE
// instead of ending the process. The mask is not put back afterwards, so
// this is one system call per write; the set is built once.
const sigset_t sigpipe_only = [] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}();

void block_sigpipe() { sigprocmask(SIG_BLOCK, &sigpipe_only, nullptr); }

// fifo_lock as a lockable for std::unique_lock, which releases it on
// every return of the write.
struct FamilyLock {
    void lock() { pthread_mutex_lock(&fifo_lock); }
    void unlock() { pthread_mutex_unlock(&fifo_lock); }
} family_lock;

void close_all(const int32_t *fds, int n) {
    for (int i = 0; i < n; ++i) close(fds[i]);
}

// Opens the four FIFOs of a channel for writing and enters them in the
// table. On failure nothing stays open and nothing is entered.
KAVRO_STATUS open_channel(uint32_t key, int32_t msgTag, int32_t isStreams, int32_t fds[4], int8_t *rank) {
    char name[kFifoPathSize];
    int len = fifo_index_path(name, key, isStreams);
    if (len == -1) {
        diag(kFn, "TRVXROOT is not set, no named pipe for key %d \n", static_cast<int32_t>(key));
        return kFail;
    }
    if (len < 0) {
        diag(kFn, "TRVXROOT too long for the named pipes of key %d \n", static_cast<int32_t>(key));
        return kFail;
    }
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            name[len++] = '_';
            name[len] = '\0';
        }
        fds[i] = open(name, O_WRONLY | O_NONBLOCK);
        if (fds[i] < 0) {
            int err = errno;
            close_all(fds, i);
            diag(kFn, "***named pipe open error, file name %s, errno=%d\n", name, err);
            return err == ENXIO ? kNoReader : kFail;
        }
    }
    // Descriptor 0 in writefifo would mark the entry free.
    if (fds[0] == 0) {
        int moved = fcntl(0, F_DUPFD, 1);
        close(0);
        if (moved < 0) {
            close_all(fds + 1, 3);
            diag(kFn, "***named pipe open error, file name %s, errno=%d\n", name, EMFILE);
            return kFail;
        }
        fds[0] = moved;
    }
    if (add_key(key, msgTag, isStreams, fds[0], fds[1], fds[2], fds[3], rank) == 0) {
        close_all(fds, 4);
        diag(kFn, "channel table full, key %d not entered \n", static_cast<int32_t>(key));
        return kOutOfMemory;
    }
    return 0;
}

// The head of the message, zero-padded when the message is shorter.
void send_trace(const void *buffer, uint32_t length, int32_t isStreams) {
    MessageRecord rec;
    const uint32_t size = isStreams != 0 ? 16 : 24;
    const uint32_t n = length < size ? length : size;
    rec.dataLength = static_cast<int32_t>(size);
    rec.msgType = isStreams != 0 ? 2 : 1;
    std::memcpy(rec.data, buffer, n);
    std::memset(rec.data + n, 0, size - n);
    mesg_send(mqid, &rec, IPC_NOWAIT);
}

}  // namespace

bool kavro::detail::fifo_trace_decided() { return count == 1; }

extern "C" {

KAVRO_API KAVRO_STATUS IPC_FIFO_Write(uintptr_t, uint32_t key, int32_t msgTag, const void *buffer, int32_t *written,
                                      uint32_t length, int32_t isStreams) {
    pthread_once(&trace_once, trace_setup);

    std::unique_lock<FamilyLock> held(family_lock);
    if (buffer == nullptr || length == 0 || written == nullptr || key == 0) return kInvalidArg;
    if (fifo_table(isStreams) == nullptr) {
        diag(kFn, "the named pipe family is not initialised \n");
        return kFail;
    }

    int32_t fds[4];  // index pipe, rank pipes 0..2
    int8_t rank = 0;
    fds[0] = search_key(key, msgTag, isStreams, &fds[1], &fds[2], &fds[3], &rank);
    if (fds[0] == 0) {
        if (KAVRO_STATUS st = open_channel(key, msgTag, isStreams, fds, &rank); st != 0) return st;
    }

    block_sigpipe();

    if (rank < 0 || rank > 2) {
        diag(kFn, "Corruption in rank field %d \n", rank);
        return kFail;
    }

    *written = static_cast<int32_t>(write(fds[1 + rank], buffer, length));
    kavro::pub::ChannelCounters *counted = kavro::pub::channel_counters(fds[0]);
    if (*written == -1) {
        const int err = errno;
        if (counted != nullptr) count_up(counted->failed);
        if (err == EPIPE || err == EBADF) {
            mark_key_removed(key, isStreams);
            return kBrokenPipe;
        }
        if (err == EAGAIN) return kAgain;
        diag(kFn, "rank %d, Error is 0x%x : length 0x%x \n", rank, static_cast<unsigned>(err),
             static_cast<unsigned>(*written));
        return kFail;
    }

    const uint8_t byte = static_cast<uint8_t>(rank);
    const ssize_t r = write(fds[0], &byte, 1);
    const int err = r == 1 ? 0 : errno;  // before the trace send can change it
    if (OruDebug == 1) send_trace(buffer, length, isStreams);
    if (r == 1) {
        if (counted != nullptr) count_up(counted->messages), count_up(counted->bytes, length);
        return 0;
    }
    if (counted != nullptr) count_up(counted->failed);
    if (err == EPIPE || err == EBADF) {
        mark_key_removed(key, isStreams);
        return kBrokenPipe;
    }
    if (err == EAGAIN) {
        held.unlock();  // this line alone goes out after the lock is released
        diag(kFn,
             isStreams != 0 ? "Write error (EAGAIN), in Streams  errno is 0x%x : length 0x%x writefifo is %d \n"
                            : "Write error (EAGAIN), in Rank Pipe errno is 0x%x : length 0x%x writefifo is %d \n",
             static_cast<unsigned>(err), static_cast<unsigned>(*written), fds[0]);
        return kFail;
    }
    diag(kFn, "Write error (default), errno is 0x%x : length 0x%x writefifo is %d \n", static_cast<unsigned>(err),
         static_cast<unsigned>(*written), fds[0]);
    return kFail;
}

}  // extern "C"
